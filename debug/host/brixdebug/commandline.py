"""The command line: pdb's, with more options."""

from __future__ import annotations

import os
import pdb
import sys
import threading
import traceback

from brixdebug import compat, ipython, log, processes
from brixdebug.commands.stack import without_start
from brixdebug.debugger import Debugger
from brixdebug.engine import reporter
from brixdebug.entry import PDB_NAMES, standard, take_over
from brixdebug.monitor import monitor
from brixdebug.options import take_own_options
from brixdebug.session_ends import hide_quit
from brixdebug.sharing import sharing
from brixdebug.thread_ends import comes_of_quit
from brixdebug.version import __version__

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

    if sys.version_info < (3, 13):
        def interaction(self, frame: Any, *args: Any, **kwargs: Any) -> None:
            """Post-mortem `quit` ends the session, and `restart` begins it anew, as they do from 3.13 on."""
            try:
                super().interaction(frame, *args, **kwargs)
            except pdb.Restart:
                if frame is not None:
                    raise
            if frame is None and self._user_requested_quit:
                sys.exit(1 if self.has_lost_input else None)

    def _run(self, target: Any) -> None:
        error = None
        try:
            super()._run(target)
        except BaseException as raised:
            has_quit = self._user_requested_quit and (isinstance(raised, SystemExit) or comes_of_quit(raised))
            if processes.is_session_of_program() and not has_quit and isinstance(raised, SystemExit):
                processes.ending = raised         # a reloader waits for it, to start the next
            elif not (has_quit or processes.is_child()):
                raise
            error = raised
        finally:
            monitor.main_thread_has_ended()
        if processes.is_child():
            processes.ending = error
        if processes.is_child() or processes.is_session_of_program():
            self._user_requested_quit = True      # there is no next run


class _ScriptTarget(_StandardTarget):
    """A script that finds in __main__ what it finds without a debugger (pdb of 3.12 forgets some)."""

    @property
    def namespace(self) -> dict[str, object]:
        return {"__doc__": None, "__package__": None, "__spec__": None, "__cached__": None,
                **super().namespace}


_HELP = """\
usage: brixdebug [OPTION]... SCRIPT [ARGUMENT]...
       brixdebug [OPTION]... -m MODULE [ARGUMENT]...
       brixdebug [-c COMMAND]... -p PID

Debug a Python program with pdb's commands, in every thread.

  -c, --command COMMAND    run COMMAND at the first prompt, after those of .pdbrc; may be given again
  -m MODULE                run a module or package as python -m does
  -p, --pid PID            attach to a program that runs already
  --log FILE               write what the debugger does to the end of FILE
  --log-domains NAME,...   of this only: %s
  --ipython                the prompt of IPython, which has to be installed
  --listen [HOST:]PORT     wait for an editor, in place of the prompt; see docs/editors.md
  --connect HOST:PORT      go to an editor that waits
  -h, --help               show this text
  --version                show the version

Examples:
  brixdebug -c "break work.py:20" -c continue script.py
  brixdebug -m pytest tests"""


def _version() -> str:
    return "brixdebug %s on Python %s" % (__version__, sys.version.split()[0])


def _show_help(arguments: list[str]) -> None:
    """Show what an option before the program asks for, and exit; return where there is none."""
    options = iter(arguments)
    for option in options:
        if option in ("-h", "--help"):
            print(_HELP % ", ".join(log.DOMAINS))
        elif option == "--version":
            print(_version())
        elif option in ("-c", "--command", "--log", "--log-domains"):
            next(options, None)
            continue
        elif option.startswith("-") and option not in ("-m", "--"):
            continue
        else:
            return
        sys.exit()


# What the interpreter says of an exception that has ended such a thread.
_ENDED_THREAD = "in thread started by"

# 3.13's first pdb looks for its options everywhere, and refuses those that it does not know.
_TAKES_ALL_OPTIONS = "args" in pdb.main.__code__.co_consts


# All later ones look everywhere for those that they know, and 3.13's refuse "--".
_MIXES_OPTIONS = "parse_known_args" in pdb.main.__code__.co_names or hasattr(pdb, "parse_args")


def _take_program_arguments(arguments: list[str]) -> list[str]:
    """Take what stands behind the script or the module."""
    index, is_module = 0, False
    while not is_module and index < len(arguments) and arguments[index].startswith("-"):
        if arguments[index] == "--":
            if arguments[index + 1:]:
                del arguments[index]
            break
        is_module = arguments[index].startswith("-m")
        index += 2 if arguments[index] in ("-c", "--command", "-m") else 1
    if not is_module:
        index += 1
    taken = arguments[index:]
    del arguments[index:]
    return taken


def _giving_back(debugger_class: Any, arguments: list[str]) -> Callable[..., Any]:
    """Gives sys.argv its arguments back when pdb makes the debugger: sys.argv is the program's then."""
    def make(*args: Any, **keywords: Any) -> Any:
        sys.argv += arguments
        return debugger_class(*args, **keywords)
    return make


def _leave_options_to_program(arguments: list[str]) -> None:
    """From 3.13 on pdb looks for its options among the program's too."""
    index = 0
    while index < len(arguments) and arguments[index].startswith("-"):
        if arguments[index] == "--":
            return
        is_module = arguments[index].startswith("-m")
        if is_module and not _TAKES_ALL_OPTIONS:
            return
        index += 2 if arguments[index] in ("-c", "--command", "-m") else 1
        if is_module:
            break
    options = [each for each in arguments[index:] if each.startswith("-")]
    is_looked_at = _TAKES_ALL_OPTIONS or sys.version_info >= (3, 13) and {"-h", "--help"}.intersection(options)
    if options and is_looked_at:
        arguments.insert(index, "--")


def _open_log(options: dict[str, str]) -> None:
    try:
        log.open_as_asked(options.get("--log"), options.get("--log-domains"))
    except (OSError, ValueError) as error:
        raise SystemExit("brixdebug: error: %s" % error) from None


def _attach_options(arguments: list[str]) -> tuple[int, list[str]] | None:
    """The process of `-p PID` and the commands of `-c`; None when a program is to be started."""
    index = 0
    while index < len(arguments) and arguments[index].startswith(("-c", "--command")):
        index += 1 if "=" in arguments[index] or arguments[index] not in ("-c", "--command") else 2
    if not any(each.startswith(("-p", "--pid")) for each in arguments[index:index + 1]):
        return None
    import argparse
    parser = argparse.ArgumentParser(prog="brixdebug", allow_abbrev=False,
                                     usage="%(prog)s [-c COMMAND]... -p PID [-c COMMAND]...")
    parser.add_argument("-p", "--pid", type=int, required=True)
    parser.add_argument("-c", "--command", action="append", default=[])
    options = parser.parse_args(arguments)
    return options.pid, options.command


def _stop_at_ends_of_threads(show: Callable[[Any], object]) -> Callable[[Any], None]:
    """Threads that `threading` has not started report their end to this hook, from C code."""
    is_finalizing = sys.is_finalizing         # the modules are taken apart then, and the program's destructors may fail

    def unraisablehook(args: Any) -> None:
        if not is_finalizing() and _ENDED_THREAD in (args.err_msg or "") and args.exc_value is not None:
            if reporter.bare_thread_ends(args.exc_value):
                return                        # seen at the prompt, and nothing is printed while the interpreter ends
        show(args)
    return unraisablehook


class _ProgramsTraceback:
    """`traceback` for pdb's `main`, which shows what ended the program: without what ran the program."""

    @staticmethod
    def print_exception(error: BaseException, **keywords: Any) -> None:
        whole, error.__traceback__ = error.__traceback__, without_start(error.__traceback__)
        try:
            traceback.print_exception(error, **keywords)
        finally:
            error.__traceback__ = whole

    def print_exc(self) -> None:
        error = sys.exception()
        assert error is not None
        self.print_exception(error)


def _debugger_class(has_ipython: bool) -> Any:
    if not has_ipython:
        return _CommandLineDebugger
    try:
        return ipython.debugger_class(_CommandLineDebugger)
    except ImportError as error:
        raise SystemExit("brixdebug: error: --ipython needs IPython: %s" % error) from None


def _search_modules_here() -> None:
    """As `python -m` does: the installed command has begun as a script, so its own folder comes first.

    pdb puts the folder of the program there where the program is a script.
    """
    if getattr(sys.modules["__main__"], "__spec__", None) is None and not sys.flags.safe_path:
        sys.path[0] = os.getcwd()


def main() -> None:
    """The command line: pdb's, and `--log FILE` and `--log-domains NAMES` among its options."""
    arguments = sys.argv[1:]
    _show_help(arguments)
    options = take_own_options(arguments)
    _open_log(options)
    attached = _attach_options(arguments)
    if attached is not None:
        from brixdebug import attach
        sys.exit(attach.main(*attached))
    _search_modules_here()
    program_arguments: list[str] = []
    if _MIXES_OPTIONS:
        program_arguments = _take_program_arguments(arguments)
    else:
        _leave_options_to_program(arguments)
    sys.argv[1:] = arguments
    threading.excepthook = hide_quit(threading.excepthook)
    sys.unraisablehook = _stop_at_ends_of_threads(hide_quit(sys.unraisablehook))
    take_over()
    processes.begin_session()
    sharing.expect_others()
    if processes.is_followed() or processes.is_prompt_everywhere():
        sharing.join()
    compat.rebind(standard("main"), **{**PDB_NAMES, "_ScriptTarget": _ScriptTarget,
                                "traceback": _ProgramsTraceback(),
                                "Pdb": _giving_back(_debugger_class("--ipython" in options), program_arguments)})()
    processes.end_child()
    if _CommandLineDebugger.has_lost_input:
        sys.exit(1)
    if _CommandLineDebugger.has_refused:
        sys.exit(2)
