"""The second callbacks: events that the filter lets through, handed to the debugger.

Each turns one event of `sys.monitoring` into what `bdb.Bdb.trace_dispatch` takes,
as the interpreter itself does for `sys.settrace`.
"""

from __future__ import annotations

import _thread
import bdb
import sys

import optmonitoring
from brixbase import dlog

from brixdebug import compat
from brixdebug.decisions import PASSED, UNDECIDED
from brixdebug.exceptions import RAISED, UNHANDLED
from brixdebug.locks import ARE_PARALLEL
from brixdebug.raising import is_of_signal_handler
from brixdebug.records import line_at
from brixdebug.suspension import ends_by_itself, is_daemon, is_threading_code
from brixdebug.switches import program_frame
from brixdebug.thread_ends import is_without_handlers

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.decisions import Point
    from brixdebug.monitor import Monitor
    from brixdebug.protocol import TracedDebugger
    from brixdebug.stops import StopState

_events = sys.monitoring.events
_DISABLE = sys.monitoring.DISABLE
_getframe = sys._getframe


class Reporter:
    """Reports events to the monitor's debugger, and has its exceptions raised in the program."""

    def __init__(self, monitor: Monitor) -> None:
        self._monitor = monitor
        self._switches = monitor.switches
        self._decisions = monitor.decisions
        self._watches = monitor.watches
        self._raiser = monitor.raiser
        self._switches.report_to({
            _events.LINE: self._on_line,
            _events.JUMP: self._on_jump,
            _events.PY_START: self._on_call,
            _events.PY_RESUME: self._on_call,
            _events.PY_THROW: self._on_throw,
            _events.PY_RETURN: self._on_return,
            _events.PY_YIELD: self._on_yield,
            _events.PY_UNWIND: self._on_unwind,
            _events.RAISE: self._on_raise,
            _events.STOP_ITERATION: self._on_exception,
            _events.INSTRUCTION: self._on_instruction,
        })

    # -- the callbacks ---------------------------------------------------------------

    # DISABLE is answered only while the epoch stands: see `Switches.is_line_off`.

    # CHANGE-ANSWER: lines that the filter lets through, in the debugger.
    def _on_line(self, code: CodeType, line: int) -> object:
        try:
            if self._watches.active and self._stops_at_change(_getframe(1), line):
                return None
            lines = self._decisions.places.get(id(code))
            points = lines.get(line) if lines is not None else None
            if points:
                frame = _getframe(1)
                # Else the thread may be stepped, or have to end.
                verdict = self._decisions.decide_fast(points, frame) if self._switches.is_idle else UNDECIDED
                if verdict != PASSED:
                    self._line(frame, points, verdict)
                return None
            if self._switches.unseen:
                self._monitor.see_thread()
            if points is not None and self._switches.is_idle:
                return None                   # its breakpoints are of statements inside the line
            if self._switches.is_idle:
                epoch = self._switches.epoch
                if self._switches.is_line_off(code, line):
                    self._switches.note_off(code)
                    return _DISABLE if epoch == self._switches.epoch else None
            return self._line(_getframe(1))
        except BaseException as error:
            return self._failed(error)

    def _on_jump(self, code: CodeType, offset: int, destination: int) -> object:
        """A loop on one line: each pass is a line of its own, as with `sys.settrace`."""
        try:
            if self._switches.unseen:
                self._monitor.see_thread()
            epoch = self._switches.epoch
            if self._switches.is_jump_off(code, offset, destination):
                self._switches.note_off(code)
                return _DISABLE if epoch == self._switches.epoch else None
            frame = sys._getframe(1)
            if self._watches.active and self._stops_at_change(frame, frame.f_lineno):
                return None
            return self._line(frame)
        except BaseException as error:
            return self._failed(error)

    def _line(self, frame: FrameType, points: tuple[Point, ...] | None = None,
              verdict: int = UNDECIDED) -> Any:
        """A line is reached; `points` are its breakpoints where they are known.

        `verdict`: what is known of the first one.
        """
        debugger = self._monitor.debugger
        if debugger is None:
            return
        code_id = id(frame.f_code)
        lines = self._monitor.thread_lines.get(code_id)
        is_of_life = lines is not None and frame.f_lineno in lines
        if is_of_life and sys.exception() is None:
            self._monitor.suspension.thread_lives(_thread.get_ident())
            if self._switches.is_idle and not debugger.break_anywhere(frame):
                return                        # a thread that begins pays for nothing else
        state = debugger.stop_states.of_thread.own
        if state.is_muted or self._monitor.suspension.is_ending_all and self._end_thread(frame, is_line=True):
            return
        if is_of_life:
            self._thread_ends(debugger, frame)
        if state.held_at is not None and self._was_held_at(state, debugger, frame):
            return
        if state.stopframe is frame and state.stoplineno == 0 and (id(frame), code_id) in state.traced:
            self._report(debugger, frame, "line", None)       # `next`, the most frequent
        elif debugger.decides_early and not state.may_stop_in(frame):
            if points is None:
                points = debugger.points_at(frame)
            decision = self._decisions.decide(points, frame, debugger.user_log, verdict)
            if decision is not None:
                state.decision = decision
                self._report(debugger, frame, "line", None)
        elif not state.is_free and state.traces(frame, debugger) or debugger.break_anywhere(frame):
            self._report(debugger, frame, "line", None)

    @staticmethod
    def _was_held_at(state: StopState, debugger: TracedDebugger, frame: FrameType) -> bool:
        """The step of a thread that was looked at begins with this line, which has no breakpoint."""
        held_at, state.held_at = state.held_at, None
        return held_at == (id(frame), frame.f_lasti) and not debugger.points_at(frame)

    def _statement(self, debugger: TracedDebugger, frame: FrameType, offset: int) -> None:
        """A statement is reached that has breakpoints of its own."""
        state = debugger.stop_states.own()
        if state.is_muted:
            return
        points = self._decisions.places.get(id(frame.f_code), {}).get(~offset)
        if points is None:
            points = debugger.points_of_statement(frame, offset)
        decision = self._decisions.decide(points, frame, debugger.user_log)
        if decision is not None:
            state.decision = decision
            self._report(debugger, frame, "line", None)

    def _on_call(self, code: CodeType, offset: int) -> object:
        try:
            epoch = self._switches.epoch
            frame = program_frame(sys._getframe(1))
            debugger = self._monitor.debugger
            if debugger is None or self._end_thread(frame):
                return None
            if self._is_call_wanted(debugger, frame):
                self._report_call(debugger, frame)
                return None
            self._monitor.break_lines.await_code(code)
            if self._switches.is_call_off(code, line_at(code, offset)):
                self._switches.note_off(code)
                return _DISABLE if epoch == self._switches.epoch else None
            return None
        except BaseException as error:
            return self._failed(error)

    def _on_throw(self, code: CodeType, offset: int, exception: BaseException) -> None:
        try:
            frame = sys._getframe(1)
            debugger = self._monitor.debugger
            if debugger is not None and self._is_call_wanted(debugger, frame):
                self._report_call(debugger, frame)
        except BaseException as error:
            self._failed(error)

    @staticmethod
    def _is_call_wanted(debugger: TracedDebugger, frame: FrameType) -> bool:
        state = debugger.stop_states.own()
        if state.is_muted:
            return False
        return state.stops_anywhere or debugger.wants_calls and debugger.break_anywhere(frame)

    def _report_call(self, debugger: TracedDebugger, frame: FrameType) -> None:
        self._report(debugger, frame, "call", None)
        if self._monitor.debugger is debugger:
            state = debugger.stop_states.own()
            if not state.is_free and state.traces(frame, debugger):
                self._monitor.step_in(frame, state)

    def _stops_at_change(self, frame: FrameType, line: int) -> bool:
        """Whether the line before has changed what is watched, and the user has seen it."""
        debugger = self._monitor.debugger
        if debugger is None or debugger.stop_states.own().is_muted:
            return False
        stops = debugger.stop_states.own().stops
        for watch in self._watches.over():
            self._report(debugger, frame, "watch_end", (watch,))
        changed = self._watches.changed(frame)
        if changed:
            self._report(debugger, frame, "watch", (changed,))
        self._watches.step(frame, line)
        return stops != debugger.stop_states.own().stops

    def _leave_call(self, frame: FrameType) -> None:
        """A call ends, and with it what is watched of its names."""
        debugger = self._monitor.debugger
        if debugger is None:
            return
        for watch in self._watches.of_call(frame):
            if watch.enabled and watch.is_changed():
                self._report(debugger, frame, "watch", ([watch],))
            if not watch.leave_call():
                self._report(debugger, frame, "watch_end", (watch,))
        self._monitor.needs_changed(debugger)

    def _on_return(self, code: CodeType, offset: int, value: object) -> Any:
        try:
            frame = sys._getframe(1)
            self._returns(frame, value)
            if self._watches.active:
                self._leave_call(frame)
        except BaseException as error:
            return self._failed(error)

    def _on_yield(self, code: CodeType, offset: int, value: object) -> Any:
        try:
            frame = sys._getframe(1)
            if self._watches.active:
                self._stops_at_change(frame, frame.f_lineno)
            self._traced(frame, "return", value)
        except BaseException as error:
            return self._failed(error)

    def _on_unwind(self, code: CodeType, offset: int, exception: BaseException) -> None:
        try:
            frame = sys._getframe(1)
            self._stops_at_unhandled(frame, exception)
            self._returns(frame, None)
            if self._watches.active:
                self._leave_call(frame)
        except BaseException as error:
            self._failed(error)

    def _on_raise(self, code: CodeType, offset: int, exception: BaseException) -> Any:
        try:
            frame = sys._getframe(1)
            if not self._stops_at_raised(frame, exception):
                self._traced(frame, "exception", (type(exception), exception, exception.__traceback__))
        except BaseException as error:
            return self._failed(error)

    def _stops_at_raised(self, frame: FrameType, exception: BaseException) -> bool:
        """Whether the user wants to see it, which has been done then."""
        debugger = self._monitor.debugger
        if debugger is None or not debugger.exception_stops.catches(RAISED) \
                or debugger.stop_states.own().is_muted:
            return False
        rule = debugger.exception_stops.rule_for_raised(exception, frame, debugger.is_own_code)
        if rule is None:
            return False
        self._report(debugger, frame, "raised", (exception, rule))
        return True

    def _stops_at_unhandled(self, frame: FrameType, exception: BaseException) -> None:
        debugger = self._monitor.debugger
        if debugger is None or not debugger.exception_stops.catches(UNHANDLED) \
                or debugger.stop_states.own().is_muted:
            return
        caller = frame.f_back
        while caller is not None and optmonitoring.IsInternalFrame(caller):
            caller = caller.f_back
        rule = debugger.exception_stops.rule_for_unhandled(exception, frame, caller, debugger.is_own_code)
        if rule is not None:
            self._report(debugger, frame, "unhandled", (exception, rule))

    def _thread_ends(self, debugger: TracedDebugger, frame: FrameType) -> None:
        """The exception that is being handled ends the calling thread."""
        exception = sys.exception()
        if exception is not None and not debugger.quitting:
            rule = debugger.exception_stops.rule_for_uncaught(exception)
            if rule is not None:
                self._report(debugger, frame, "uncaught", (exception, rule))

    def bare_thread_ends(self, exception: BaseException) -> bool:
        """An exception has ended the calling thread, which `threading` has not started: no code of the program is left.

        True when the user has quit while it was shown.
        """
        debugger = self._monitor.debugger
        if debugger is None or debugger.quitting or debugger.stop_states.own().is_muted \
                or self._monitor.suspension.is_ending_all:
            return False
        rule = debugger.exception_stops.rule_for_uncaught(exception)
        if rule is None:
            return False
        # This is no event, so others would come while the user is at the prompt.
        state = debugger.stop_states.own()
        state.is_muted = True
        self._raiser.finished_thread_ids.add(state.thread_id)
        self._monitor.enter_event()
        try:
            if self._monitor.debugger is debugger:
                debugger.user_uncaught(_getframe(), exception, rule)
        except (bdb.BdbQuit, SystemExit):
            pass                              # quit: the thread ends by itself
        except Exception as error:
            debugger.on_own_error(error)
        finally:
            self._monitor.leave_event()
            state.is_muted = False
            if not self._monitor.suspension.is_ending_all:
                self._raiser.finished_thread_ids.discard(state.thread_id)
        return debugger.quitting              # the main thread may have ended the session already

    def _returns(self, frame: FrameType, value: object) -> None:
        """Report the end of a frame, for good."""
        try:
            self._traced(frame, "return", value)
        finally:
            debugger = self._monitor.debugger
            if debugger is not None:
                debugger.stop_states.own().untrace(frame)

    def _on_exception(self, code: CodeType, offset: int, exception: BaseException) -> Any:
        try:
            self._traced(sys._getframe(1), "exception",
                         (type(exception), exception, exception.__traceback__))
        except BaseException as error:
            return self._failed(error)

    def _on_instruction(self, code: CodeType, offset: int) -> Any:
        try:
            frame = sys._getframe(1)
            epoch = self._switches.epoch
            debugger = self._monitor.debugger
            if debugger is None:
                return None
            if self._switches.is_offset_wanted(code, offset):
                self._statement(debugger, frame, offset)
            elif self._switches.is_idle:
                self._switches.note_off(code)
                return _DISABLE if epoch == self._switches.epoch else None
            if debugger.stop_states.own().traces_opcodes(frame, debugger):
                self._traced(frame, "opcode", None)
        except BaseException as error:
            return self._failed(error)

    def _traced(self, frame: FrameType, name: str, value: object) -> None:
        """Report an event of a frame that is being stepped."""
        debugger = self._monitor.debugger
        if debugger is None:
            return
        state = debugger.stop_states.own()
        if not (state.is_free or state.is_muted) and state.traces(frame, debugger):
            self._report(debugger, frame, name, value)

    def _end_thread(self, frame: FrameType, is_line: bool = False) -> bool:
        """The user has quit: the thread ends here, unless it is a daemon that others may wait for.

        The program may catch what ends it: it is raised again at the next line of the calls that
        were there when the user quit, once it is no longer being handled.  A new call may be the
        `__del__` of an object that goes while it is on its way.  A call that catches it over and
        over is ended in its handler.
        """
        if not self._monitor.suspension.is_ending_all:
            return False
        thread_id = _thread.get_ident()
        if thread_id in self._raiser.finished_thread_ids and self._ends_by_other_error():
            return False
        if thread_id in self._raiser.finished_thread_ids or ends_by_itself(frame):
            return True
        if is_line and is_without_handlers(frame):
            return True                       # at the next line
        if thread_id not in self._raiser.ended_thread_ids:
            if not is_daemon(thread_id):
                if ARE_PARALLEL:
                    self._monitor.suspension.watch_own_code()     # nobody else could
                self._raiser.raise_in_program(bdb.BdbQuit())
        elif is_line and (not ARE_PARALLEL or self._switches.is_held(frame.f_code)):
            self._raiser.end_again(frame)
        return True

    def _ends_by_other_error(self) -> bool:
        """Something else than BdbQuit is to end the thread, such as pytest's own exception."""
        debugger = self._monitor.debugger
        error = debugger.stop_states.own().error_to_raise if debugger is not None else None
        return error is not None and not isinstance(error, bdb.BdbQuit)

    # -- reporting -------------------------------------------------------------------

    def _report(self, debugger: TracedDebugger, frame: FrameType, name: str, value: object) -> None:
        """Hand one event to the debugger; one thread at a time gets through."""
        interruption = self._monitor.enter_event()
        try:
            if interruption is not None:
                self._raiser.raise_in_program(interruption)
            if self._monitor.debugger is debugger:
                self._dispatch(debugger, frame, name, value)
        except BaseException as error:
            self._report_failed(debugger, frame, error)
        finally:
            self._monitor.leave_event()
        suspension = self._monitor.suspension
        if suspension.held and not (self._monitor.turn.lock._is_owned() or self._raiser.is_raising()
                                    or is_threading_code(frame)):
            suspension.stand()                # another one goes on alone from this stop, or has stopped meanwhile

    def _report_failed(self, debugger: TracedDebugger, frame: FrameType, error: BaseException) -> None:
        if is_of_signal_handler(error):
            self._raiser.raise_in_program(error)
        elif debugger.reaches_program(error):
            # As with sys.settrace: what raises is not asked again.
            state = debugger.stop_states.own()
            state.untrace(frame)
            state.run_freely()
            self._monitor.needs_changed(debugger)
            is_ending_all = self._monitor.suspension.is_ending_all
            if ARE_PARALLEL and is_ending_all:
                self._monitor.suspension.watch_own_code()     # nobody else could
            if not (is_ending_all and is_without_handlers(frame)):
                self._raiser.raise_in_program(error)      # else the thread is ended at its next line
        else:
            debugger.on_own_error(error)

    def _dispatch(self, debugger: TracedDebugger, frame: FrameType, name: str, value: object) -> None:
        state = debugger.stop_states.of_thread.own
        if state.error_to_raise is not None:
            if name == "line" and is_without_handlers(frame):
                return                        # at the next line
            error, state.error_to_raise = state.error_to_raise, None
            raise error
        trace_dispatch = debugger.trace_dispatch
        try:
            dispatch = debugger.dispatch_own if name in debugger.OWN_EVENTS else trace_dispatch
            trace: Any = dispatch(frame, name, value)
        finally:
            if state.stopped_frame is frame:
                state.stopped_frame = None
                if compat.LOCALS_ARE_COPIES:
                    compat.give_locals_back(frame)
                if self._watches.active:
                    self._watches.renew()
            state.decision = None
            state.enterframe = None       # 3.13 keeps it, and with it the frame's variables
        if debugger.interruption.is_wanted and not debugger.quitting:
            debugger.interruption.at_end_of_event(frame)
        if debugger.quitting or state.stoplineno == -1 and state.is_free and not debugger.breaks:
            state.untrace(frame)
        elif trace == trace_dispatch:
            state.traced.add((id(frame), id(frame.f_code)))
        elif trace is not None:
            state.untrace(frame)
        if name == "return" and not (debugger.quitting or state.is_free):
            self._go_on_in_caller(debugger, frame.f_back, state)

    def _go_on_in_caller(self, debugger: TracedDebugger, caller: FrameType | None,
                         state: StopState) -> None:
        """A stepped function ends: its caller is stepped from here on."""
        while caller is not None and caller is not state.botframe and not debugger.is_own_code(caller.f_code) \
                and caller is not state.stopframe:
            caller = caller.f_back            # there is no stop in it
        if caller is None or caller is state.botframe:
            return
        state.trace(caller)
        self._monitor.step_in(caller, state)

    def _failed(self, error: BaseException) -> Any:
        """An exception of our own code, or one that a signal handler raised in it."""
        if not isinstance(error, Exception) or is_of_signal_handler(error):
            self._raiser.raise_in_program(error)
        else:
            dlog.LogException("the debugger")
