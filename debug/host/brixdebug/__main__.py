"""`python -m brixdebug`, and the command `brixdebug`.

The prompt takes longer to be imported than all that editors need, so here it is decided whom the command line is for.
"""

from __future__ import annotations

import sys

from brixdebug.options import take_own_options


def main() -> None:
    """The command line: editors', or that of the prompt."""
    if _is_for_editors(sys.argv[1:]):
        from brixdebug.dap import program
        program.serve(sys.argv[1:])
    else:
        from brixdebug import commandline
        commandline.main()


def _is_for_editors(arguments: list[str]) -> bool:
    rest = list(arguments)
    take_own_options(rest)
    return bool(rest) and rest[0].partition("=")[0] in ("--listen", "--connect")


if __name__ == "__main__":
    main()
