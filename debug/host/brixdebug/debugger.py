"""pdb's commands on the engine, and the commands that pdb has not.

The command loop, the parsing and the commands are the standard `pdb.Pdb`'s,
inherited; its module-level functions run as they are, with `Debugger` in the
place of `Pdb`.
"""

from __future__ import annotations

import contextlib
import os
import pdb
import sys
import threading

import optmonitoring
from brixbase import dlog

from brixdebug import compat, files, internal, log
from brixdebug.engine import Bdb, BdbQuit
from brixdebug.monitor import monitor
from brixdebug.suspension import debugged_frames
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    import io
    from collections.abc import Callable, Iterator
    from types import FrameType
    from typing import Any

    class _StandardTarget:
        @property
        def namespace(self) -> dict[str, object]: ...

    class _StandardDebugger(pdb.Pdb):
        def _run(self, target: Any) -> None: ...
else:
    _StandardTarget, _StandardDebugger = pdb._ScriptTarget, pdb.Pdb

# What follows a name that is not meant as a command: `set = 1`, `info.x`, `set(x)`.
_EXPRESSION_STARTS = tuple("=.([,:+-*/%@&|^<>!")


_main_pid = os.getpid()


def _is_on_descriptor_0(file: Any) -> bool:
    try:
        return bool(file.fileno() == 0)
    except (AttributeError, OSError, ValueError):
        return file is not None            # the program has put something of its own there


class Debugger(_StandardDebugger, Bdb):
    """`pdb.Pdb` for every thread."""

    # Whether this is the debugger of a command line, whose quit ends the program.
    _ends_program = False

    _child_input: io.TextIOWrapper | None = None

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self._thread_numbers: dict[int, int] = {}     # thread id -> number that the user sees
        self._thread_count = 0
        self._is_own_error_shown = False

    # -- stops -----------------------------------------------------------------------

    def interaction(self, *args: Any, **kwargs: Any) -> None:
        """One thread is at the prompt; the others wait for it."""
        with monitor.turn.lock, monitor.suspension.others_held(), self._standard_input():
            try:
                return super().interaction(*args, **kwargs)
            finally:
                self._leave_selected_thread()

    @contextlib.contextmanager
    def _standard_input(self) -> Iterator[None]:
        """The prompt of a followed child reads where its parent's does.

        A process of multiprocessing has the null device as `sys.stdin`; descriptor 0 is
        what it was.
        """
        if os.getpid() == _main_pid or _is_on_descriptor_0(sys.stdin):
            yield
            return
        if Debugger._child_input is None:
            Debugger._child_input = open(0, closefd=False)
        programs, sys.stdin = sys.stdin, Debugger._child_input
        try:
            yield
        finally:
            sys.stdin = programs

    def _leave_selected_thread(self) -> None:
        """What was asked for while another thread was looked at was asked for that thread."""
        selected, self.stop_states.selected = self.stop_states.selected, None
        if selected is None:
            return
        self.stop_states.own().run_freely()
        frame = debugged_frames().get(selected.thread_id)
        if frame is not None and not selected.is_free:
            frame.f_trace = self.trace_dispatch
        monitor.needs_changed(self)

    def sigint_handler(self, signum: Any, frame: Any) -> None:
        if monitor.suspension.holder not in (None, threading.get_ident()):
            return            # the prompt is another thread's, and this one is not to die of it
        state = self.stop_states.own()
        muted, state.is_muted = state.is_muted, True
        try:
            super().sigint_handler(signum, frame)
        finally:
            state.is_muted = muted

    def set_quit(self) -> None:
        if not self._ends_program or len(debugged_frames()) < 2:
            super().set_quit()
            return
        # The other threads end too: each at its next event.
        keeps_tracing, self._keeps_tracing = self._keeps_tracing, True
        try:
            super().set_quit()
        finally:
            self._keeps_tracing = keeps_tracing
        monitor.end_all_threads()

    # -- exceptions --------------------------------------------------------------------

    def reaches_program(self, exception: BaseException) -> bool:
        return isinstance(exception, (BdbQuit, pdb.Restart)) or not isinstance(exception, Exception)

    def on_own_error(self, exception: BaseException) -> None:
        if self._is_own_error_shown and not log.is_open():
            return
        dlog.LogException("the debugger")
        if not self._is_own_error_shown:
            self._is_own_error_shown = True
            self.message("*** An error of the debugger's own; the program goes on without this stop.")

    # -- pdb's commands that make a debugger or end the program ---------------------------

    if compat.HAS_TRACE_METHODS:
        def _create_recursive_debugger(self) -> Debugger:
            return type(self)(self.completekey, self.stdin, self.stdout)
    else:
        do_debug = compat.rebind(pdb.Pdb.do_debug, sys=compat.sys_with_trace_methods,
                                 Pdb=lambda *args: Debugger(*args))

    def _run(self, target: Any) -> None:
        if hasattr(target, "filename"):
            filename = str(target.filename)
        else:
            filename = str(target)
        if optmonitoring.get_canonical_pathname(filename) in internal.pathname_table():
            self.error("Cannot debug %s: it is the debugger's own code" % filename)
            _CommandLineDebugger.has_refused = self._user_requested_quit = True
            return
        try:
            super()._run(target)
        except MonitorError as error:
            self.error(str(error))
            _CommandLineDebugger.has_refused = self._user_requested_quit = True

    # -- commands that pdb has not -----------------------------------------------------

    def _is_expression(self, name: str, arg: str) -> bool:
        """True, after running it, when the line is a Python statement that begins like a command."""
        if arg.startswith(_EXPRESSION_STARTS):
            self.default(name + " " + arg)
            return True
        return False

    def _numbered_threads(self) -> list[tuple[int, int, FrameType]]:
        """(number, thread id, frame) of each thread, in the order of the numbers."""
        frames = debugged_frames()
        for thread_id in [each for each in self._thread_numbers if each not in frames]:
            del self._thread_numbers[thread_id]
        main_id = threading.main_thread().ident
        for thread_id in sorted(frames, key=lambda each: (each != main_id, each)):
            if thread_id not in self._thread_numbers:
                self._thread_count += 1
                self._thread_numbers[thread_id] = self._thread_count
        return sorted((number, thread_id, frames[thread_id])
                      for thread_id, number in self._thread_numbers.items())

    def do_threads(self, arg: str) -> None:
        """threads

        List the program's threads: number, state, name and place.  The one that is
        looked at is marked.  A thread is "held" at its next line while another is
        at the prompt; one that is inside C code is "running" until it comes back.
        """
        if self._is_expression("threads", arg):
            return
        if arg:
            self.error("The command takes no argument")
            return
        shown = (self.stop_states.selected or self.stop_states.own()).thread_id
        self.message("  %-4s%-15s%-20s %s" % ("Num", "State", "Name", "Place"))
        for number, thread_id, frame in self._numbered_threads():
            self.message("%s %-4d%-15s%-20s %s(%s)%s()" % (
                ">" if thread_id == shown else " ", number, self._thread_state(thread_id),
                monitor.suspension.thread_name(thread_id),
                self.canonic(frame.f_code.co_filename), frame.f_lineno, frame.f_code.co_name))

    @staticmethod
    def _thread_state(thread_id: int) -> str:
        if thread_id == threading.get_ident():
            return "at the prompt"
        return "held" if monitor.suspension.is_waiting(thread_id) else "running"

    def do_thread(self, arg: str) -> None:
        """thread NUMBER

        Look at another thread's stack (see threads).  step, next, until and return
        are then meant for that thread; the one that stopped goes on.
        """
        if self._is_expression("thread", arg):
            return
        threads = {number: (thread_id, frame)
                   for number, thread_id, frame in self._numbered_threads()}
        try:
            thread_id, frame = threads[int(arg)]
        except ValueError:
            self.error("Thread number expected (see threads)")
            return
        except KeyError:
            self.error("There is no thread %s (see threads)" % arg)
            return
        state = self.stop_states.of(thread_id)
        self.stop_states.selected = None if state is self.stop_states.own() else state
        self.setup(frame, None)
        self.print_stack_entry(self.stack[self.curindex])

    def do_info(self, arg: str) -> None:
        """info duplicates

        List the files of the program that have equal contents: a breakpoint in one
        of them does not stop in the others.
        """
        if self._is_expression("info", arg):
            return
        if arg != "duplicates":
            self.error("info duplicates is what there is")
            return
        groups = files.duplicates()
        if not groups:
            self.message("No two files have equal contents.")
        for group in groups:
            self.message("Equal contents:")
            for name in group:
                self.message("    %s" % name)

    def do_set(self, arg: str) -> None:
        """set follow-fork on|off

        Whether a child that the program forks is debugged too.  Off, as it is at
        first, the child runs free of the debugger.
        """
        words = arg.split()
        if not words or words[0] != "follow-fork":
            self.default("set " + arg)        # the built-in type, or a name of the program
            return
        if words[1:] not in (["on"], ["off"]):
            self.error("set follow-fork on, or off; it is %s"
                       % ("on" if self.follows_fork else "off"))
            return
        self.follows_fork = words[1] == "on"


class _CommandLineDebugger(Debugger):
    _ends_program = True
    has_refused = False                       # there was nothing that can be debugged


class _ScriptTarget(_StandardTarget):
    """A script that finds in __main__ what it finds without a debugger (pdb of 3.12 forgets some)."""

    @property
    def namespace(self) -> dict[str, object]:
        return {"__doc__": None, "__package__": None, "__spec__": None, "__cached__": None,
                **super().namespace}


# pdb's own functions, which make a Debugger where they made a Pdb.

def _rebound(name: str) -> Any:
    return compat.rebind(getattr(pdb, name), **_names)


_names: dict[str, Any] = {"Pdb": Debugger}
if hasattr(pdb, "_post_mortem"):
    _names["_post_mortem"] = _rebound("_post_mortem")
_names["post_mortem"] = post_mortem = _rebound("post_mortem")

pm = _rebound("pm")
run = _rebound("run")
runeval = _rebound("runeval")
runcall = _rebound("runcall")
runctx = compat.rebind(pdb.runctx, run=run)
set_trace = _rebound("set_trace")
if hasattr(pdb, "set_trace_async"):
    set_trace_async = _rebound("set_trace_async")


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
    _open_log(_take_log_options(arguments))
    sys.argv[1:] = arguments
    threading.excepthook = _hide_quit(threading.excepthook)
    sys.unraisablehook = _hide_quit(sys.unraisablehook)       # threads that `threading` did not start
    compat.rebind(pdb.main, **{**_names, "Pdb": _CommandLineDebugger,
                                "_ScriptTarget": _ScriptTarget})()
    if _CommandLineDebugger.has_refused:
        sys.exit(2)
