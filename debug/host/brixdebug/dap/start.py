"""Starts a program under a debugger that waits for it; run by its path, in whichever interpreter the user chose.

    python .../dap/start.py ADDRESS program|module|code WHAT ARGUMENTS...

Only the debugger itself comes from the folders of the interpreter that the editor uses:
what the program imports is its own interpreter's affair.
"""

from __future__ import annotations

import gc
import os
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import ModuleType


def _import_debugger() -> ModuleType:
    """Import the debugger without leaving a trace of where it is on `sys.path`."""
    folders = os.environ.pop("BRIXDEBUG_FOLDERS", "").split(os.pathsep)
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path[0] = os.path.dirname(os.path.dirname(here))     # this folder was put there for this file
    added = [each for each in folders if each and each not in sys.path]
    sys.path[1:1] = added
    gc.disable()                             # there is nothing to collect yet, and much to look through
    try:
        from brixdebug.dap import program
    except ImportError as error:
        raise SystemExit("brixdebug: %s" % error)
    gc.enable()
    del sys.path[:1 + len(added)]
    return program


if __name__ == "__main__":
    _import_debugger().main(sys.argv[1:])
