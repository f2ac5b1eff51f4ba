"""The command line: pdb's, and the options that it has not."""

from __future__ import annotations

import pdb
import sys
import threading

from brixdebug import compat, log, processes
from brixdebug.debugger import Debugger
from brixdebug.engine import BdbQuit
from brixdebug.entry import PDB_NAMES, standard, take_over

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

    class _StandardTarget:
        @property
        def namespace(self) -> dict[str, object]: ...
else:
    _StandardTarget = pdb._ScriptTarget


class _CommandLineDebugger(Debugger):
    _ends_program = True

    def _run(self, target: Any) -> None:
        error = None
        try:
            super()._run(target)
        except BaseException as raised:
            has_quit = self._user_requested_quit and isinstance(raised, SystemExit)
            if not (has_quit or processes.is_child()):
                raise
            error = raised
        if processes.is_child():
            self._user_requested_quit = True      # there is no next run of a child
            processes.ending = error


class _ScriptTarget(_StandardTarget):
    """A script that finds in __main__ what it finds without a debugger (pdb of 3.12 forgets some)."""

    @property
    def namespace(self) -> dict[str, object]:
        return {"__doc__": None, "__package__": None, "__spec__": None, "__cached__": None,
                **super().namespace}


def _take_log_options(arguments: list[str]) -> dict[str, str]:
    """Take `--log FILE` and `--log-domains NAMES` from the options before the program."""
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
        elif arguments[index] in ("-c", "--command"):
            index += 2
        elif arguments[index] in ("-m", "--"):
            break
        else:
            index += 1
    return options


def _open_log(options: dict[str, str]) -> None:
    if "--log-domains" in options and "--log" not in options:
        raise SystemExit("brixdebug: error: --log-domains goes with --log FILE")
    if "--log" in options:
        domains = log.parse_domains(options["--log-domains"]) if "--log-domains" in options \
            else log.DEFAULT_DOMAINS
        try:
            log.open_log(options["--log"], domains)
        except (OSError, ValueError) as error:
            raise SystemExit("brixdebug: error: %s" % error) from None


def _hide_quit(show: Callable[[Any], object]) -> Callable[[Any], None]:
    """Threads that end because the user quits have nothing to report."""
    def excepthook(args: Any) -> None:
        if args.exc_type is not BdbQuit:
            show(args)
    return excepthook


def main() -> None:
    """The command line: pdb's, and `--log FILE` and `--log-domains NAMES` among its options."""
    arguments = sys.argv[1:]
    if arguments and arguments[0].partition("=")[0] in ("--listen", "--connect"):
        from brixdebug.dap import program
        program.serve(arguments)
        return
    _open_log(_take_log_options(arguments))
    sys.argv[1:] = arguments
    threading.excepthook = _hide_quit(threading.excepthook)
    sys.unraisablehook = _hide_quit(sys.unraisablehook)       # threads that `threading` did not start
    take_over()
    compat.rebind(standard("main"), **{**PDB_NAMES, "Pdb": _CommandLineDebugger,
                                "_ScriptTarget": _ScriptTarget})()
    processes.end_child()
    if _CommandLineDebugger.has_refused:
        sys.exit(2)
