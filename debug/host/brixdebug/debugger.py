"""The prompt: pdb's commands on the engine, for every thread.

The command loop, the parsing and the commands are the standard `pdb.Pdb`'s,
inherited.  The commands that pdb lacks are in `commands`, its module-level functions in
`entry`.
"""

from __future__ import annotations

import contextlib
import os
import pdb
import sys
import threading

import optmonitoring
from brixbase import dlog

from brixdebug import compat, decisions, internal, log, processes, streams
from brixdebug.commands import Commands
from brixdebug.engine import Bdb, BdbQuit
from brixdebug.exceptions import UNCAUGHT, ExceptionRule
from brixdebug.leftovers import Leftovers
from brixdebug.monitor import monitor
from brixdebug.sharing import sharing
from brixdebug.suspension import debugged_frames
from brixdebug.switches import MonitorError
from brixdebug.terminal import Terminal

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable, Iterator
    from types import FrameType
    from typing import Any, TextIO

    class _StandardDebugger(pdb.Pdb):
        def _run(self, target: Any) -> None: ...
else:
    _StandardDebugger = pdb.Pdb

# What all debuggers of a process have in common.
_SHARED_TABLES = ("breaks", "exception_stops", "fncache", "_first_names", "commands", "commands_doprompt", "commands_silent")

_main_pid = os.getpid()


def _is_on_descriptor_0(file: Any) -> bool:
    try:
        return bool(file.fileno() == 0)
    except (AttributeError, OSError, ValueError):
        return file is not None            # the program has put something of its own there


class Debugger(Terminal, Commands, Leftovers, _StandardDebugger, Bdb):
    """`pdb.Pdb` for every thread."""

    has_refused = False                        # there was nothing that can be debugged

    _child_input: TextIO | None = None

    # Called when a debugger begins to get events.
    on_start: Callable[[], None] = staticmethod(lambda: None)

    _session: Debugger | None = None           # the one that runs the program

    gives_way = False                          # made because there was none, and not entered so far

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        resume_capture = streams.capture.suspend()    # the streams to be kept are the terminal's
        try:
            super().__init__(*args, **kwargs)
        finally:
            if resume_capture is not None:
                resume_capture()
        self._is_own_error_shown = False
        self.exception_stops.add(ExceptionRule(UNCAUGHT))
        self.exception_stops.is_asked_for = self._ends_program
        if isinstance(monitor.debugger, Debugger):
            self._share_with(monitor.debugger)

    def _share_with(self, other: Debugger) -> None:
        """Breakpoints are the process's: what one debugger knows of them the other knows."""
        for name in _SHARED_TABLES:
            if hasattr(other, name):
                setattr(self, name, getattr(other, name))

    # -- ways in -----------------------------------------------------------------------

    def start_trace(self) -> None:
        self.on_start()
        super().start_trace()

    def set_trace(self, frame: FrameType | None = None, *,
                  commands: Iterable[str] | None = None) -> None:
        """Stop in `frame`, the caller's when it is None.

        At the prompt, in a condition and the like nothing happens: its thread is at a stop.
        """
        if monitor.turn.lock._is_owned() or decisions.is_deciding():
            return
        if processes.is_free():
            processes.pass_by()
            return
        if frame is None:
            frame = sys._getframe().f_back
        if _stop_in_editor(frame):
            return
        self.is_left_alone = False            # this process wants it, whatever its parent is
        if self.use_rawinput:
            streams.check_terminal()
        interruption = monitor.turn.take()    # another thread may be at the prompt
        try:
            if self.use_rawinput and not processes.is_of_session():
                sharing.join()                # other processes of the program may do so too
            debugger = self._to_be_entered()
            if commands is not None:
                debugger.rcLines.extend(commands)
            super(Debugger, debugger).set_trace(frame)
        finally:
            monitor.turn.lock.release()
        if interruption is not None:
            raise interruption

    if sys.version_info >= (3, 14):
        async def set_trace_async(self, frame: FrameType | None = None, *, commands: Iterable[str] | None = None) -> None:
            if frame is None:
                frame = sys._getframe().f_back
            if not _stop_in_editor(frame):
                await super().set_trace_async(frame, commands=commands)

    def _to_be_entered(self) -> Debugger:
        """This one, unless another thread has entered one that was made for the same purpose."""
        gives_way, self.gives_way = self.gives_way, False
        traced = monitor.debugger
        return traced if gives_way and isinstance(traced, Debugger) and not traced.quitting else self

    # -- stops -----------------------------------------------------------------------

    def interaction(self, *args: Any, **kwargs: Any) -> None:
        """One thread is at the prompt; the others wait for it."""
        if processes.is_free():
            processes.pass_by()
            return
        suspension = monitor.suspension
        with monitor.turn.lock:
            suspension.begin(self.waits_for_user())
            try:
                self._interact(args, kwargs)
            finally:
                suspension.end()

    def _interact(self, args: Any, kwargs: Any) -> None:
        self.begin_turn(*args[:2])
        streams.capture.begin_stop(self)
        try:
            if self._reads_programs_input():
                self._read_commands(args, kwargs)
            else:
                with self._childs_input():
                    self._read_commands(args, kwargs)
        finally:
            of_thread = self.stop_states.of_thread
            if of_thread.reached is not of_thread.own:
                self._leave_selected_thread()
            if streams.capture.is_begun and (self.quitting or all(state.is_free for state in self.stop_states.all())):
                streams.capture.end_stop(self)
            self.end_turn(args[0])
        if sharing.interruption is not None:
            self.raise_interruption()

    def _read_commands(self, args: Any, kwargs: Any) -> None:
        self.begin_prompt()
        try:
            if self.interruption.is_wanted:
                self.show_interruption()
            super().interaction(*args, **kwargs)
        finally:
            self.end_prompt(args[0] is None)

    @staticmethod
    def _reads_programs_input() -> bool:
        """False in a child whose `sys.stdin` is not what its parent reads.

        A process of multiprocessing has the null device as `sys.stdin`; descriptor 0, or the
        terminal that the process belongs to, is what it was.
        """
        if os.getpid() == _main_pid != processes.followed_pid and not streams.is_worker_of_multiprocessing():
            return not streams.is_put_out_of_use(sys.stdin)
        return _is_on_descriptor_0(sys.stdin) and not streams.is_null(0)

    @contextlib.contextmanager
    def _childs_input(self) -> Iterator[None]:
        """The prompt reads where that of the parent does."""
        if Debugger._child_input is None:
            Debugger._child_input = streams.open_input()
        programs, sys.stdin = sys.stdin, Debugger._child_input
        try:
            yield
        finally:
            sys.stdin = programs

    def _leave_selected_thread(self) -> None:
        """What was asked for while another thread was looked at was asked for that thread."""
        selected, self.stop_states.selected = self.stop_states.selected, None
        assert selected is not None
        self.stop_states.own().run_freely()
        frame = debugged_frames().get(selected.thread_id)
        if frame is not None and not selected.is_free:
            selected.trace(frame)
            self.note_held(selected, frame)
        self.stops_of_other_changed()

    def postcmd(self, stop: bool, line: str) -> bool:
        """A child that is forked at the prompt does not stay there, unless it is followed."""
        if not stop:
            monitor.suspension.hold_newcomers()
        stop = super().postcmd(stop, line)
        if monitor.suspension.evaluation.were_others_free:
            monitor.suspension.evaluation.were_others_free = False
            if not stop:
                self.look_again()
        self._is_leaving = bool(stop)
        return stop or self.is_left_alone

    # -- exceptions --------------------------------------------------------------------

    def reaches_program(self, exception: BaseException) -> bool:
        return isinstance(exception, (BdbQuit, pdb.Restart, streams.exit_of_pytest() or ())) \
            or not isinstance(exception, Exception) or super().reaches_program(exception)

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
            return _nested(type(self)(self.completekey, self.stdin, self.stdout))

        def _standard_debug(self, arg: str) -> Any:
            return super().do_debug(arg)
    else:
        _standard_debug = compat.rebind(pdb.Pdb.do_debug, sys=compat.sys_with_trace_methods,
                                        Pdb=lambda *args: _nested(Debugger(*args)))

    def do_debug(self, arg: str) -> Any:
        outer = len(_nested_debuggers)
        try:
            return self._standard_debug(arg)
        finally:
            while len(_nested_debuggers) > outer:
                _nested_debuggers.pop().let_program_go()

    do_debug.__doc__ = pdb.Pdb.do_debug.__doc__

    def do_quit(self, arg: str) -> bool | None:
        is_done = super().do_quit(arg)
        if is_done:
            self._end_session()
        return is_done

    do_q = do_exit = do_quit

    def do_EOF(self, arg: str) -> bool | None:
        is_done = super().do_EOF(arg)
        if is_done:
            self._end_session()
        return is_done

    def _end_session(self) -> None:
        """What the program or pytest has made a debugger for is part of the session that runs the program.

        pytest itself would take the end of a session for a failure of the test, and go on with the next.
        """
        if self._is_nested:
            return
        kind = streams.exit_of_pytest()
        if Debugger._session is not None and (kind is not None or self.post_mortem_of is None):
            Debugger._session._user_requested_quit = True
        if kind is not None and threading.get_ident() == threading.main_thread().ident:
            raise kind("Quitting debugger")

    def _run(self, target: Any) -> None:
        Debugger._session = self
        if hasattr(target, "filename"):
            filename = str(target.filename)
        else:
            filename = str(target)
        if optmonitoring.get_canonical_pathname(filename) in internal.pathname_table():
            self.error("Cannot debug %s: it is the debugger's own code" % filename)
            type(self).has_refused = self._user_requested_quit = True
            return
        decisions.count_anew()
        monitor.watches.begin_anew()
        try:
            super()._run(target)
        except MonitorError as error:
            self.error(str(error))
            type(self).has_refused = self._user_requested_quit = True
        except SystemExit:
            # pytest ends so after a `quit`; pdb of 3.12 would run the program again.
            if not self._user_requested_quit or sys.version_info >= (3, 13):
                raise
        finally:
            if isinstance(monitor.debugger, Debugger) and monitor.debugger is not self:
                monitor.debugger.stop_trace()         # one that the program has entered


def _stop_in_editor(frame: FrameType | None) -> bool:
    """Whether the process is debugged without a prompt: the calling thread stops in `frame` there."""
    debugger = monitor.debugger
    if debugger is None or not debugger.replaces_prompts:
        return False
    debugger.set_trace(frame)
    return True


_nested_debuggers: list[Debugger] = []        # of the commands `debug` that run


def _nested(debugger: Debugger) -> Debugger:
    debugger._is_nested = True
    _nested_debuggers.append(debugger)
    return debugger
