"""The engine: a drop-in for `bdb.Bdb` whose events come from the native filter.

A class that derives from `bdb.Bdb` works when its base is replaced by `Bdb` of
this module.  What changes for it:

* breakpoints hold in every thread, and cost next to nothing elsewhere;
* `step`, `next`, `until` and `return` belong to the thread that they were asked
  for (the fields that say where to stop are per thread);
* a file has one name, whichever link or relative path it is reached by.

The decisions themselves (what stops, which method is called) are those of
`bdb.Bdb`, inherited.
"""

from __future__ import annotations

import bdb
import os
import sys

import optmonitoring

from brixbase import dlog
from brixdebug import compat, watching
from brixdebug.breakpoints import is_pseudo_file
from brixdebug.decisions import Breakpoint, still_stops
from brixdebug.interrupts import Interruption
from brixdebug.exceptions import ExceptionStops
from brixdebug.libraries import is_library
from brixdebug.monitor import monitor
from brixdebug.reporting import Reporter
from brixdebug.stops import StopState, StopStates, per_thread
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import CodeType, FrameType
    from typing import Any, Self, SupportsInt

    from brixdebug.decisions import Decision, Point
    from brixdebug.exceptions import ExceptionRule
    from brixdebug.watching import Change, Watch

BdbQuit = bdb.BdbQuit

reporter = Reporter(monitor)  # events go through it to the debugger that traces

# Classes whose user_call does something only where the debugger stops anyway.
_QUIET_CALL_MODULES = ("bdb", "pdb", __name__, "brixdebug.terminal")

# Where a step was asked for; not part of what it needs.
_WHERE_GIVEN = {"cmdframe", "cmdlineno"}

# What stands between a line and a stop at its breakpoint.
_DECIDING_METHODS = ("trace_dispatch", "dispatch_line", "stop_here", "break_here")


def _definer(cls: type, name: str) -> type:
    return next(base for base in cls.__mro__ if name in vars(base))



def _effective(filename: str, line: int, frame: FrameType) -> Decision | tuple[None, None]:
    """`bdb.effective` by the rules of `decisions`; not decided again where it has been."""
    debugger: Any = monitor.debugger
    decision: Decision | None = None
    if debugger is not None:
        state = debugger.stop_states.own()
        decision, state.decision = state.decision, None
    if decision is not None:
        return decision if still_stops(decision[0]) else (None, None)
    points = monitor.decisions.points(filename, line, frame)
    return monitor.decisions.decide(
        points, frame, getattr(debugger, "user_log", print)) or (None, None)


class Bdb(compat.TraceBase):
    """`bdb.Bdb` on the native filter; see the module's text."""

    botframe: Any = per_thread("botframe")
    stopframe: Any = per_thread("stopframe")
    returnframe: Any = per_thread("returnframe")
    stoplineno: Any = per_thread("stoplineno")
    frame_returning: Any = per_thread("frame_returning")
    enterframe: Any = per_thread("enterframe")
    cmdframe: Any = per_thread("cmdframe")
    cmdlineno: Any = per_thread("cmdlineno")
    trace_opcodes: Any = per_thread("trace_opcodes")

    # Whether user_call has to be called in code with breakpoints when nothing stops there.
    wants_calls = False

    # Whether breakpoints may be decided before `trace_dispatch` is called for them.
    decides_early = True

    # Whether a child that the program forks is debugged too.
    follows_fork = False

    # Whether a prompt that the program asks for is a stop of this debugger, which has none.
    replaces_prompts = False

    # Whether this process is such a child, and runs without the debugger.
    is_left_alone = False

    quitting = False

    _keeps_tracing = False

    stop_states: StopStates
    interruption: Interruption
    exception_stops: ExceptionStops
    _first_names: dict[str | None, str]       # canonical pathname -> the name that was seen first

    def __init_subclass__(cls, **kwargs: Any) -> None:
        super().__init_subclass__(**kwargs)
        for base in cls.__mro__:
            if "user_call" in vars(base):
                cls.wants_calls = base.__module__ not in _QUIET_CALL_MODULES
                break
        cls.decides_early = all(_definer(cls, name).__module__ in _QUIET_CALL_MODULES
                                for name in _DECIDING_METHODS)

    def __new__(cls, *args: Any, **kwargs: Any) -> Self:
        # Not in __init__: classes with several bases call the standard one by name.
        self = super().__new__(cls)
        self.stop_states = StopStates()
        self.interruption = Interruption(self._stop_soon, self._stop_inside, monitor.suspension.adopt_thread)
        self.exception_stops = ExceptionStops()
        self._first_names = {}
        return self

    # -- events on and off ---------------------------------------------------

    def start_trace(self) -> None:
        """This debugger gets the process's events from now on."""
        monitor.start(self)

    def stop_trace(self) -> None:
        """This debugger gets no more events."""
        if not self._keeps_tracing:
            monitor.stop(self)

    @property
    def holds_others(self) -> bool:
        """Whether the other threads stand still while one is at the prompt."""
        return monitor.suspension.is_holding

    @holds_others.setter
    def holds_others(self, value: bool) -> None:
        monitor.suspension.is_holding = value

    def others_were_let_go(self) -> None:
        """An expression at the prompt has taken too long to hold the other threads meanwhile.

        Called in one of these.
        """

    def other_waits(self, thread_id: int) -> None:
        """Meanwhile a thread has stopped, or had before, and waits for its turn: `others_were_let_go` has been called.

        Called in any thread.
        """

    def after_fork_in_child(self) -> None:
        """The process is a child now that the program has forked."""
        if not self.follows_fork:
            self.is_left_alone = True
            monitor.stop(self)

    # No context manager of contextlib below: its code would run after the events
    # are on and be the first that is reported.

    def set_trace(self, frame: FrameType | None = None) -> None:
        """Start debugging from `frame`, the caller's when it is None."""
        if frame is None:
            frame = sys._getframe().f_back
        state = self.stop_states.own()
        muted, state.is_muted = state.is_muted, True
        keeps_tracing, self._keeps_tracing = self._keeps_tracing, True
        try:
            super().set_trace(frame)
        finally:
            self._keeps_tracing = keeps_tracing
            state.is_muted = muted

    def interrupt(self, frame: FrameType, is_knock: bool = False) -> None:
        """Stop the main thread as soon as it can be; called by the handler of a signal, with its frame."""
        state = self.stop_states.own()
        muted, state.is_muted = state.is_muted, True
        try:
            self.interruption.want(frame, muted or monitor.is_at_work, is_knock)
        finally:
            state.is_muted = muted

    def stops_of_other_changed(self) -> None:
        """What stops another thread has changed: that goes on before this thread's event ends."""
        monitor.refresh()
        monitor.needs_changed(self)           # the threads that are held go on after that

    @staticmethod
    def note_held(state: StopState, frame: FrameType) -> None:
        """A thread that begins a step in `frame` may be held there, in an event of a line that has still to run."""
        if monitor.suspension.is_waiting(state.thread_id):
            state.held_at = id(frame), frame.f_lasti

    def can_stop_inside(self) -> bool:
        """True when the calling thread may stop where it is: in a signal handler, inside C code."""
        return True

    def _stop_soon(self, frame: FrameType) -> None:
        """The calling thread, which is in `frame`, stops at its next event."""
        Bdb.set_trace(self, frame)            # not a derived class's, which may refuse during an event

    def _stop_inside(self, frame: FrameType) -> None:
        """The thread is inside C code that `frame` called: stop there, without an event."""
        while optmonitoring.IsInternalFrame(frame) and frame.f_back is not None:
            frame = frame.f_back
        if not self.can_stop_inside():
            return
        state = self.stop_states.own()
        before = state.stopped_frame, state.enterframe
        monitor.enter_event()
        try:
            if monitor.debugger is self and self.interruption.is_wanted:
                state.enterframe = frame
                self._stop_in(frame)
                self.user_line(frame)
                compat.give_locals_back(frame)
        finally:
            state.stopped_frame, state.enterframe = before
            monitor.leave_event()
        if self.quitting:
            monitor.raiser.ended_thread_ids.add(state.thread_id)
            raise BdbQuit

    def set_continue(self) -> None:
        """Stop at breakpoints only.  One that is set later, by any thread, holds too."""
        keeps_tracing, self._keeps_tracing = self._keeps_tracing, True
        try:
            super().set_continue()
        finally:
            self._keeps_tracing = keeps_tracing

    def _set_stopinfo(self, stopframe: FrameType | None, *args: Any, **kwargs: Any) -> None:
        state = self.stop_states.of_thread.reached
        if stopframe is not None and stopframe is state.stopped_frame and args == (None,) \
                and kwargs.keys() <= _WHERE_GIVEN and state.steps_over(stopframe):
            self.quitting = False             # `next` after `next`: what is needed is on
            state.cmdframe, state.cmdlineno = kwargs.get("cmdframe"), kwargs.get("cmdlineno")
            return
        before = state.target
        super()._set_stopinfo(self._visible_target(stopframe), *args, **kwargs)
        if state.target != before:
            monitor.needs_changed(self)

    @property
    def just_my_code(self) -> bool:
        """Whether steps pass by the code of libraries; one for the process."""
        return monitor.just_my_code

    @just_my_code.setter
    def just_my_code(self, is_on: bool) -> None:
        monitor.set_just_my_code(is_on)
        monitor.needs_changed(self)

    def _is_hidden(self, frame: FrameType) -> bool:
        """A step does not end in `frame`."""
        return optmonitoring.IsInternalFrame(frame) or monitor.just_my_code \
            and is_library(frame.f_code.co_filename)

    def _visible_target(self, frame: FrameType | None) -> FrameType | None:
        """A frame to stop in, for `frame`: no event of internal code is ever reported.

        Where the user is he may step, in a library too.
        """
        if frame is None or frame is self.stop_states.reached().stopped_frame \
                or frame is self.botframe or not self._is_hidden(frame):
            return frame
        if self.frame_returning is not None and self.frame_returning.f_back is frame:
            return None                   # it is reached at once: stop at what comes next
        caller = frame.f_back
        while caller is not None and self._is_hidden(caller):
            if caller is self.botframe:
                return frame              # the program ends before anything else
            caller = caller.f_back
        return caller or frame

    # -- files -----------------------------------------------------------------

    def canonic(self, filename: str) -> str:
        """The name of a file: the same for all its links and forms; the first that was seen."""
        name = self.fncache.get(filename)
        if name is None:
            name = monitor.break_lines.absolute_name(filename)
            if name is None:
                return super().canonic(filename)
            self.fncache[filename] = name = self._first_name(super().canonic(name))
        return name

    def _first_name(self, name: str) -> str:
        if is_pseudo_file(name):
            return name
        first = self._first_names.setdefault(optmonitoring.get_canonical_pathname(name), name)
        if first != name:
            try:
                # A file that came in the place of a removed one is a file of its own.
                if not os.path.samefile(first, name):
                    return name
            except OSError:
                return name
        return first

    # -- breakpoints -------------------------------------------------------------

    # A breakpoint comes into two tables, and leaves them, one after the other: no thread
    # may look at them in between.

    def _add_to_breaks(self, filename: str, lineno: int) -> None:
        super()._add_to_breaks(filename, lineno)
        try:
            monitor.breaks_changed(self, filename)
        except MonitorError:
            super()._prune_breaks(filename, lineno)
            raise

    def _prune_breaks(self, filename: str, lineno: int) -> None:
        super()._prune_breaks(filename, lineno)
        monitor.breaks_changed(self, filename)

    def set_break(self, filename: str, lineno: int, temporary: bool = False, cond: str | None = None,
                  funcname: str | None = None, **fields: Any) -> str | None:
        """`fields`: of the new `Breakpoint`, beside those of the standard one."""
        with monitor.turn.lock:
            Breakpoint.fields_of_next = fields
            # With it, 3.14 goes through the frames to have them traced; no line needs that here.
            entered, self.enterframe = self.enterframe, None
            try:
                result: str | None = self._set_break(filename, lineno, temporary, cond, funcname)
            except MonitorError as error:
                return str(error)
            finally:
                self.enterframe = entered
                Breakpoint.fields_of_next = {}
            monitor.decisions.forget()    # what was reached before the breakpoint was there
            if funcname is not None or "span" in fields:      # the breakpoint that knows it was not there before
                monitor.breaks_changed(self, self.canonic(filename))
            return result

    _set_break = compat.rebind(bdb.Bdb.set_break, Breakpoint=Breakpoint)

    def clear_break(self, filename: str, lineno: int) -> str | None:
        with monitor.turn.lock:
            return super().clear_break(filename, lineno)

    def clear_bpbynumber(self, arg: SupportsInt) -> str | None:
        with monitor.turn.lock:
            try:
                found: Any = self.get_bpbynumber(arg)
            except ValueError as error:
                return str(error)
            if not isinstance(found, watching.Watch):
                return super().clear_bpbynumber(arg)
            found.deleteMe()
            self.watches_changed()
            return None

    def stop_here(self, frame: FrameType) -> bool:
        of_thread = self.stop_states.of_thread
        state = of_thread.reached
        if not self.skip and state.stopframe is frame and frame.f_lineno >= state.stoplineno == 0:
            of_thread.own.stopped_frame = frame           # `next`, the most frequent
            if compat.LOCALS_ARE_COPIES:
                compat.take_locals(frame)
            return True
        if monitor.just_my_code and frame is not state.stopframe \
                and is_library(frame.f_code.co_filename):
            return False
        result = super().stop_here(frame)
        if result:
            self._stop_in(frame)
        return result

    def _stop_in(self, frame: FrameType) -> None:
        """The user may write to the variables of `frame`; only there, for a copy of them keeps objects alive."""
        self.stop_states.own().stopped_frame = frame
        compat.take_locals(frame)

    def break_here(self, frame: FrameType) -> bool:
        result: bool = self._break_here(frame)
        if frame.f_code.co_firstlineno in self._lines_with_breaks(frame):
            monitor.break_lines.narrow(self, frame.f_code)
        if result:
            self._stop_in(frame)
        return result

    _break_here = compat.rebind(bdb.Bdb.break_here, effective=_effective)

    def _lines_with_breaks(self, frame: FrameType) -> list[int]:
        lines: list[int] = self.breaks.get(self.canonic(frame.f_code.co_filename), [])
        return lines

    def points_at(self, frame: FrameType) -> tuple[Point, ...]:
        """The breakpoints to be decided at the line of `frame`."""
        lines = self._lines_with_breaks(frame)
        first_line = frame.f_code.co_firstlineno
        line = frame.f_lineno if frame.f_lineno in lines else first_line
        if line not in lines:
            return ()
        points = monitor.decisions.points(self.canonic(frame.f_code.co_filename), line, frame,
                                          is_early=True)
        if first_line in lines:
            monitor.break_lines.narrow(self, frame.f_code)
        return points

    def points_of_statement(self, frame: FrameType, offset: int) -> tuple[Point, ...]:
        """The breakpoints to be decided at the statement of `frame` that begins at an instruction."""
        return monitor.decisions.points(self.canonic(frame.f_code.co_filename), frame.f_lineno, frame,
                                        is_early=True, offset=offset)

    # Whether `code_is_new` is to be called.
    awaits_code = False

    # Whether threads are to be seen as they begin: see `Suspension.tell_of_threads`.
    awaits_threads = False

    def code_is_new(self, code: CodeType) -> None:
        """`code` runs for the first time, in a thread that has the turn; breakpoints in it still hold."""

    def user_log(self, frame: FrameType, breakpoint: bdb.Breakpoint, text: str) -> None:
        """The text of a breakpoint that logs in place of stopping."""
        print(text)

    def clear_all_file_breaks(self, filename: str) -> str | None:
        with monitor.turn.lock:
            result = super().clear_all_file_breaks(filename)
            monitor.breaks_changed(self, self.canonic(filename))
            return result

    def clear_all_breaks(self) -> str | None:
        with monitor.turn.lock:
            breaks = self.breaks
            filenames = list(breaks)
            result = super().clear_all_breaks()
            for watch in monitor.watches.active:
                watch.deleteMe()
                result = None
            self.watches_changed()
            breaks.clear()
            self.breaks = breaks              # the table that other debuggers of the process have too
            for filename in filenames:
                monitor.breaks_changed(self, filename)
            return result

    # -- exceptions ------------------------------------------------------------

    def get_stack(self, f: FrameType | None, t: Any) -> tuple[list[tuple[FrameType, int]], int]:
        """The stack of `f` and of a traceback from there, and the index of `f`; of the last without it."""
        stack, index = super().get_stack(f, t)
        if f is not None and stack[index][0] is not f:
            index = next(number for number, entry in enumerate(stack) if entry[0] is f)
        return stack, index

    def dispatch_own(self, frame: FrameType, event: str, arg: Any) -> Any:
        """`trace_dispatch` for the events that `sys.settrace` has not: those of `OWN_EVENTS`."""
        if self.quitting:
            return None
        self._own_dispatchers[event](self, frame, *arg)
        if self.quitting:
            raise BdbQuit
        return self.trace_dispatch

    def _dispatch_raised(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._stop_in(frame)
        self.user_raised(frame, exception, rule)

    def _dispatch_unhandled(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._stop_in(frame)
        self.user_unhandled(frame, exception, rule)

    def _dispatch_uncaught(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self.user_uncaught(frame, exception, rule)
        self.stop_states.own().run_freely()           # there is nothing left to be stepped
        monitor.needs_changed(self)

    def _dispatch_watch(self, frame: FrameType, watches: list[Watch]) -> None:
        changes = monitor.watches.take_changes(frame, watches)
        if changes:
            self.stop_states.own().stops += 1
            self.currentbp = changes[0].watch.number
            self._stop_in(frame)
            self.user_watch(frame, changes)

    def _dispatch_watch_end(self, frame: FrameType, watch: Watch) -> None:
        monitor.watches.end(watch)
        self.user_watch_end(frame, watch)

    _own_dispatchers: dict[str, Any] = {
        "raised": _dispatch_raised, "uncaught": _dispatch_uncaught, "unhandled": _dispatch_unhandled,
        "watch": _dispatch_watch, "watch_end": _dispatch_watch_end}
    OWN_EVENTS = frozenset(_own_dispatchers)

    def add_watch(self, watch: Watch) -> None:
        """Stop where the value changes from now on."""
        with monitor.turn.lock:
            monitor.watches.add(watch)
            monitor.needs_changed(self)

    def watches_changed(self) -> None:
        """Watches have been deleted, enabled or disabled."""
        with monitor.turn.lock:
            monitor.watches.prune()
            monitor.needs_changed(self)

    def user_watch(self, frame: FrameType, changes: list[Change]) -> None:
        """The line before, or that of another thread, has changed what is watched."""
        self.user_line(frame)

    def user_watch_end(self, frame: FrameType, watch: Watch) -> None:
        """The call of `frame` ends, whose names were watched."""

    def is_own_code(self, code: CodeType) -> bool:
        """Whether the user wants to see what happens in `code`: not in how modules are imported."""
        if monitor.just_my_code:
            return not is_library(code.co_filename)
        return optmonitoring.GetPathnameKind(code.co_filename) != optmonitoring.kFrozenImportLibPathname

    def exceptions_changed(self) -> None:
        """The rules of `exception_stops` have changed."""
        monitor.needs_changed(self)

    def user_raised(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        """An exception that `rule` stops at is raised in `frame`, or has come to it."""
        self.user_exception(frame, (type(exception), exception, exception.__traceback__))     # type: ignore[arg-type]

    def user_unhandled(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        """An exception that `rule` stops at leaves `frame`, the user's own, for a library that has called it."""
        self.user_raised(frame, exception, rule)

    def user_uncaught(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        """An exception that `rule` stops at has ended the calling thread, but for `frame`, which reports it."""
        self.user_raised(frame, exception, rule)

    def reaches_program(self, exception: BaseException) -> bool:
        """True when an exception of a user_ method goes on into the program, as with `bdb.Bdb`."""
        return True

    def on_own_error(self, exception: BaseException) -> None:
        """An exception that is kept away from the program."""
        dlog.LogException("the debugger")
