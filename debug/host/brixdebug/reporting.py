"""The second callbacks: events that the filter lets through, handed to the debugger.

Each turns one event of `sys.monitoring` into what `bdb.Bdb.trace_dispatch` takes,
as the interpreter itself does for `sys.settrace`.  One thread at a time reports;
a second one waits here until the first has gone on.
"""

import _thread
import bdb
import bisect
import functools
import sys
import threading

from brixbase import dlog

_events = sys.monitoring.events
_DISABLE = sys.monitoring.DISABLE


class Reporter:
    """Reports events to the monitor's debugger, and raises its exceptions in the program."""

    def __init__(self, monitor, raiser_tool_id):
        self._monitor = monitor
        self._raiser_tool_id = raiser_tool_id
        self.callbacks = {
            _events.LINE: self._on_line,
            _events.JUMP: self._on_jump,
            _events.PY_START: self._on_call,
            _events.PY_RESUME: self._on_call,
            _events.PY_THROW: self._on_throw,
            _events.PY_RETURN: self._on_return,
            _events.PY_YIELD: self._on_return,
            _events.PY_UNWIND: self._on_unwind,
            _events.RAISE: self._on_exception,
            _events.STOP_ITERATION: self._on_exception,
            _events.INSTRUCTION: self._on_instruction,
        }
        self.begin_anew()

    def begin_anew(self):
        """Nothing is being reported; also after a fork, whatever another thread was doing."""
        self.lock = threading.RLock()     # held by the one thread that reports
        self._depth = 0
        self._pending = {}                # thread id -> exception to raise
        self.ended_thread_ids = set()     # they have got their BdbQuit

    @property
    def is_busy(self):
        """An event is being reported, or an exception of one has still to be raised."""
        return self._depth > 0 or bool(self._pending)

    # -- the callbacks ---------------------------------------------------------------

    def _on_line(self, code, line):
        try:
            return self._line(sys._getframe(1), _events.LINE)
        except BaseException as error:
            return self._failed(error)

    def _on_jump(self, code, offset, destination):
        """A loop on one line: each pass is a line of its own, as with `sys.settrace`."""
        try:
            if destination > offset or not _is_same_line(code, offset, destination):
                return _DISABLE
            return self._line(sys._getframe(1), _events.JUMP)
        except BaseException as error:
            return self._failed(error)

    def _line(self, frame, event):
        debugger = self._monitor.debugger
        if debugger is None:
            return
        state = debugger.stop_states.own()
        if state.is_muted or self._end_thread(event):
            return
        if state.is_free or frame.f_trace == debugger.trace_dispatch \
                or debugger.break_anywhere(frame):
            self._report(debugger, frame, "line", None, event)

    def _on_call(self, code, offset):
        try:
            frame = sys._getframe(1)
            debugger = self._monitor.debugger
            if debugger is None or self._end_thread(_events.PY_START):
                return None
            if self._is_call_wanted(debugger, frame):
                self._report_call(debugger, frame, _events.PY_START)
                return None
            # Off at this place until events are restarted, when somebody steps.
            return _DISABLE if self._monitor.may_disable_calls else None
        except BaseException as error:
            return self._failed(error)

    def _on_throw(self, code, offset, exception):
        try:
            frame = sys._getframe(1)
            debugger = self._monitor.debugger
            if debugger is not None and self._is_call_wanted(debugger, frame):
                self._report_call(debugger, frame, _events.PY_THROW)
        except BaseException as error:
            self._failed(error)

    @staticmethod
    def _is_call_wanted(debugger, frame):
        state = debugger.stop_states.own()
        if state.is_muted:
            return False
        return state.stops_anywhere or debugger.wants_calls and debugger.break_anywhere(frame)

    def _report_call(self, debugger, frame, event):
        self._report(debugger, frame, "call", None, event)
        if frame.f_trace == debugger.trace_dispatch and self._monitor.debugger is debugger:
            state = debugger.stop_states.own()
            if not state.is_free:
                self._monitor.step_in(frame, state)

    def _on_return(self, code, offset, value):
        try:
            self._traced(sys._getframe(1), "return", value, _events.PY_RETURN)
        except BaseException as error:
            return self._failed(error)

    def _on_unwind(self, code, offset, exception):
        try:
            self._traced(sys._getframe(1), "return", None, _events.PY_UNWIND)
        except BaseException as error:
            self._failed(error)

    def _on_exception(self, code, offset, exception):
        try:
            self._traced(sys._getframe(1), "exception",
                         (type(exception), exception, exception.__traceback__), _events.RAISE)
        except BaseException as error:
            return self._failed(error)

    def _on_instruction(self, code, offset):
        try:
            frame = sys._getframe(1)
            if frame.f_trace_opcodes:
                self._traced(frame, "opcode", None, _events.INSTRUCTION)
        except BaseException as error:
            return self._failed(error)

    def _traced(self, frame, name, value, event):
        """Report an event of a frame that is being stepped."""
        debugger = self._monitor.debugger
        if debugger is None or frame.f_trace != debugger.trace_dispatch:
            return
        state = debugger.stop_states.own()
        if not (state.is_free or state.is_muted):
            self._report(debugger, frame, name, value, event)

    def _end_thread(self, event):
        """The user has quit: the thread ends here, if it has not been told before."""
        if not self._monitor.suspension.is_ending_all:
            return False
        thread_id = _thread.get_ident()
        if thread_id not in self.ended_thread_ids:
            self.ended_thread_ids.add(thread_id)
            self._raise_in_program(bdb.BdbQuit(), event)
        return True

    # -- reporting -------------------------------------------------------------------

    def _report(self, debugger, frame, name, value, event):
        """Hand one event to the debugger; one thread at a time gets through."""
        with self.lock:
            if self._monitor.debugger is not debugger:
                return
            self._depth += 1
            try:
                self._dispatch(debugger, frame, name, value)
            except BaseException as error:
                if debugger.reaches_program(error):
                    # As with sys.settrace: what raises is not asked again.
                    frame.f_trace = None
                    debugger.stop_states.own().run_freely()
                    self._monitor.needs_changed(debugger)
                    self._raise_in_program(error, event)
                else:
                    debugger.on_own_error(error)
            finally:
                self._depth -= 1
                if not self.is_busy:
                    self._monitor.settle()

    def _dispatch(self, debugger, frame, name, value):
        trace = debugger.trace_dispatch(frame, name, value)
        state = debugger.stop_states.own()
        if debugger.quitting or state.is_free and not debugger.breaks:
            frame.f_trace = None
        elif trace is not None:
            frame.f_trace = trace
        if name == "return" and not (debugger.quitting or state.is_free):
            self._go_on_in_caller(debugger, frame.f_back, state)

    def _go_on_in_caller(self, debugger, caller, state):
        """A stepped function ends: its caller is stepped from here on."""
        if caller is None or caller is state.botframe:
            return
        if caller.f_trace is None:
            caller.f_trace = debugger.trace_dispatch
        self._monitor.step_in(caller, state)

    # -- exceptions ------------------------------------------------------------------

    def _raise_in_program(self, error, event):
        """Have `error` raised where the event happened, when this callback has ended."""
        self._pending[_thread.get_ident()] = error
        for each in _same_kind(event):
            sys.monitoring.register_callback(self._raiser_tool_id, each, self._raise_pending)

    def _raise_pending(self, *args):
        """The raiser's callback: asked for the same event, after the filter."""
        error = self._pending.pop(_thread.get_ident(), None)
        if error is None:
            return None                   # the event of another thread
        if not self._pending:
            for event in self.callbacks:
                sys.monitoring.register_callback(self._raiser_tool_id, event, None)
        if not self.is_busy:
            self._monitor.settle()
        try:
            raise error
        finally:
            del error

    @staticmethod
    def _failed(error):
        """An exception of our own code, or one that a signal handler raised in it."""
        if isinstance(error, Exception):
            dlog.LogException("the debugger")
        elif threading.current_thread() is threading.main_thread():
            # The interpreter's to deliver again, when this callback has ended.
            _thread.start_new_thread(_thread.interrupt_main, ())


_KINDS = ((_events.PY_START, _events.PY_RESUME), (_events.PY_RETURN, _events.PY_YIELD),
          (_events.RAISE, _events.STOP_ITERATION))


def _same_kind(event):
    """The events that share the callback of `event`."""
    for kind in _KINDS:
        if event in kind:
            return kind
    return (event,)


@functools.lru_cache(maxsize=256)
def _line_starts(code_id, code):
    starts = [(start, line) for start, _, line in code.co_lines()]
    return [start for start, _ in starts], [line for _, line in starts]


def _is_same_line(code, offset, destination):
    starts, lines = _line_starts(id(code), code)
    return lines[bisect.bisect_right(starts, offset) - 1] \
        == lines[bisect.bisect_right(starts, destination) - 1]
