"""The command line's own options, before those of `pdb`."""

from __future__ import annotations


def take_own_options(arguments: list[str]) -> dict[str, str]:
    """Take `--log FILE`, `--log-domains NAMES` and `--ipython` from the options before the program."""
    options = {}
    index = 0
    while index < len(arguments) and arguments[index].startswith("-"):
        name, has_value, value = arguments[index].partition("=")
        if name in ("--log", "--log-domains"):
            del arguments[index]
            if not has_value:
                if index == len(arguments):
                    raise SystemExit("brixdebug: error: %s needs a value" % name)
                value = arguments.pop(index)
            options[name] = value
        elif arguments[index] == "--ipython":
            options[arguments.pop(index)] = ""
        elif arguments[index] in ("-c", "--command"):
            index += 2
        elif arguments[index] in ("-m", "--"):
            break
        else:
            index += 1
    return options
