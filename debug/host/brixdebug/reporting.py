"""The second callbacks: events that the filter lets through, handed to the debugger.

Each turns one event of `sys.monitoring` into what `bdb.Bdb.trace_dispatch` takes,
as the interpreter itself does for `sys.settrace`.  One thread at a time reports;
a second one waits here until the first has gone on.
"""

from __future__ import annotations

import _thread
import bdb
import bisect
import dis
import functools
import signal
import sys

import optmonitoring
from brixbase import dlog

from brixdebug import compat
from brixdebug.suspension import is_threading_code

TYPE_CHECKING = False
if TYPE_CHECKING:
    import logging
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.engine import Bdb
    from brixdebug.monitor import Monitor
    from brixdebug.stops import StopState

_events = sys.monitoring.events
_DISABLE = sys.monitoring.DISABLE


class Reporter:
    """Reports events to the monitor's debugger, and raises its exceptions in the program."""

    def __init__(self, monitor: Monitor, raiser_tool_id: int) -> None:
        self._monitor = monitor
        self._raiser_tool_id = raiser_tool_id
        self.callbacks: dict[int, Callable[..., object]] = {
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
        self._raiser_callbacks: dict[int, Callable[..., object]] = {
            _events.LINE: self._on_raiser_line,
            _events.JUMP: self._on_raiser_jump,
            _events.PY_START: self._on_raiser_call,
            _events.PY_RESUME: self._on_raiser_call,
        }
        self.begin_anew()
        dlog.logger.addFilter(self._is_to_be_logged)

    def begin_anew(self) -> None:
        """Nothing is being reported."""
        self.lock: Any = _thread.RLock()  # held by the one thread that reports
        self._depth = 0                   # its events inside events
        self.waiting_thread_ids: set[int] = set()     # of the threads that wait for the lock
        # thread id -> exception to raise, and the code to do it in
        self._pending: dict[int, tuple[BaseException, CodeType]] = {}
        self.ended_thread_ids: set[int] = set()       # they have got their BdbQuit

    def keep_only_own(self) -> None:
        """After a fork, in the child: what the calling thread is doing goes on."""
        own_id = _thread.get_ident()
        pending = {own_id: self._pending[own_id]} if own_id in self._pending else {}
        if not self.lock._is_owned():
            self.begin_anew()
        self._pending = pending

    @property
    def is_busy(self) -> bool:
        """An event is being reported, or an exception of one has still to be raised."""
        return self._depth > 0 or bool(self._pending)

    # -- the callbacks ---------------------------------------------------------------

    # DISABLE takes hold after the callback has ended.  Should another thread arm places
    # meanwhile, it must not: so the epoch is looked at once more as the very last thing.

    def _on_line(self, code: CodeType, line: int) -> object:
        try:
            epoch = self._monitor.epoch
            if self._monitor.is_line_off(code, line):
                return _DISABLE if epoch == self._monitor.epoch else None
            return self._line(sys._getframe(1))
        except BaseException as error:
            return self._failed(error)

    def _on_jump(self, code: CodeType, offset: int, destination: int) -> object:
        """A loop on one line: each pass is a line of its own, as with `sys.settrace`."""
        try:
            epoch = self._monitor.epoch
            if self._is_jump_off(code, offset, destination):
                return _DISABLE if epoch == self._monitor.epoch else None
            return self._line(sys._getframe(1))
        except BaseException as error:
            return self._failed(error)

    def _is_jump_off(self, code: CodeType, offset: int, destination: int) -> bool:
        line = _line_at(code, offset)
        return destination > offset or line != _line_at(code, destination) \
            or self._monitor.is_line_off(code, line)

    def _line(self, frame: FrameType) -> Any:
        debugger = self._monitor.debugger
        if debugger is None:
            return
        state = debugger.stop_states.own()
        if state.is_muted or self._end_thread(frame):
            return
        if debugger.break_anywhere(frame) \
                or frame.f_trace == debugger.trace_dispatch and not state.is_free:
            self._report(debugger, frame, "line", None)

    def _on_call(self, code: CodeType, offset: int) -> object:
        try:
            epoch = self._monitor.epoch
            frame = sys._getframe(1)
            debugger = self._monitor.debugger
            if debugger is None or self._end_thread(frame):
                return None
            if self._is_call_wanted(debugger, frame):
                self._report_call(debugger, frame)
                return None
            if self._monitor.is_call_off(code, _line_at(code, offset)):
                return _DISABLE if epoch == self._monitor.epoch else None
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
    def _is_call_wanted(debugger: Bdb, frame: FrameType) -> bool:
        state = debugger.stop_states.own()
        if state.is_muted:
            return False
        return state.stops_anywhere or debugger.wants_calls and debugger.break_anywhere(frame)

    def _report_call(self, debugger: Bdb, frame: FrameType) -> None:
        self._report(debugger, frame, "call", None)
        if frame.f_trace == debugger.trace_dispatch and self._monitor.debugger is debugger:
            state = debugger.stop_states.own()
            if not state.is_free:
                self._monitor.step_in(frame, state)

    def _on_return(self, code: CodeType, offset: int, value: object) -> Any:
        try:
            self._traced(sys._getframe(1), "return", value)
        except BaseException as error:
            return self._failed(error)

    def _on_unwind(self, code: CodeType, offset: int, exception: BaseException) -> None:
        try:
            self._traced(sys._getframe(1), "return", None)
        except BaseException as error:
            self._failed(error)

    def _on_exception(self, code: CodeType, offset: int, exception: BaseException) -> Any:
        try:
            self._traced(sys._getframe(1), "exception",
                         (type(exception), exception, exception.__traceback__))
        except BaseException as error:
            return self._failed(error)

    def _on_instruction(self, code: CodeType, offset: int) -> Any:
        try:
            frame = sys._getframe(1)
            if frame.f_trace_opcodes:
                self._traced(frame, "opcode", None)
        except BaseException as error:
            return self._failed(error)

    def _traced(self, frame: FrameType, name: str, value: object) -> None:
        """Report an event of a frame that is being stepped."""
        debugger = self._monitor.debugger
        if debugger is None or frame.f_trace != debugger.trace_dispatch:
            return
        state = debugger.stop_states.own()
        if not (state.is_free or state.is_muted):
            self._report(debugger, frame, name, value)

    def _end_thread(self, frame: FrameType) -> bool:
        """The user has quit: the thread ends here, if it has not been told before."""
        if not self._monitor.suspension.is_ending_all:
            return False
        if _thread.get_ident() not in self.ended_thread_ids and not is_threading_code(frame):
            self.raise_in_program(bdb.BdbQuit())
        return True

    # -- reporting -------------------------------------------------------------------

    def _report(self, debugger: Bdb, frame: FrameType, name: str, value: object) -> None:
        """Hand one event to the debugger; one thread at a time gets through."""
        interruption = self._wait_for_turn()
        self._depth += 1
        try:
            if interruption is not None:
                self.raise_in_program(interruption)
            if self._monitor.debugger is debugger:
                self._dispatch(debugger, frame, name, value)
        except BaseException as error:
            self._report_failed(debugger, frame, error)
        finally:
            self._depth -= 1
            try:
                if not self.is_busy:
                    self._monitor.settle()
            finally:
                self.lock.release()

    def _wait_for_turn(self) -> BaseException | None:
        """Take the lock.  The exception of a signal handler meanwhile is returned: the event is not lost."""
        if self.lock._is_owned():
            self.lock.acquire()
            return None
        interruption = None
        self.waiting_thread_ids.add(_thread.get_ident())
        while not self.lock._is_owned():
            try:
                self.lock.acquire()
            except BaseException as error:
                interruption = error
        self.waiting_thread_ids.discard(_thread.get_ident())
        return interruption

    def _report_failed(self, debugger: Bdb, frame: FrameType, error: BaseException) -> None:
        if is_of_signal_handler(error):
            self.raise_in_program(error)
        elif debugger.reaches_program(error):
            # As with sys.settrace: what raises is not asked again.
            frame.f_trace = None
            debugger.stop_states.own().run_freely()
            self._monitor.needs_changed(debugger)
            self.raise_in_program(error)
        else:
            debugger.on_own_error(error)

    def _dispatch(self, debugger: Bdb, frame: FrameType, name: str, value: object) -> None:
        state = debugger.stop_states.own()
        try:
            trace: Any = debugger.trace_dispatch(frame, name, value)
        finally:
            if state.stopped_frame is frame:
                state.stopped_frame = None
                compat.give_locals_back(frame)
            state.enterframe = None       # 3.13 keeps it, and with it the frame's variables
        if debugger.quitting or state.is_free and not debugger.breaks:
            frame.f_trace = None
        elif trace is not None:
            frame.f_trace = trace
        if name == "return" and not (debugger.quitting or state.is_free):
            self._go_on_in_caller(debugger, frame.f_back, state)

    def _go_on_in_caller(self, debugger: Bdb, caller: FrameType | None,
                         state: StopState) -> None:
        """A stepped function ends: its caller is stepped from here on."""
        if caller is None or caller is state.botframe:
            return
        if caller.f_trace is None:
            caller.f_trace = debugger.trace_dispatch
        self._monitor.step_in(caller, state)

    # -- exceptions ------------------------------------------------------------------

    def raise_in_program(self, error: BaseException, frame: Any = None) -> None:
        """Have `error` raised in the calling thread's program code, when the callback has ended.

        That is where the event happened, or at the next line where the raiser has no such event.
        """
        if isinstance(error, bdb.BdbQuit):
            self.ended_thread_ids.add(_thread.get_ident())
        place: Any = frame or optmonitoring.GetNonInternalFrame()
        code = place.f_code
        self._pending[_thread.get_ident()] = error, code
        self._monitor.begin_raising(code)
        for event in self.callbacks:
            sys.monitoring.register_callback(self._raiser_tool_id, event, self._raise_pending)

    def register_raiser(self) -> None:
        """The raiser's callbacks while it has nothing to raise: none, or what switches places off."""
        if self._pending:
            return
        callbacks = self._raiser_callbacks if self._monitor.is_idle else {}
        for event in self.callbacks:
            sys.monitoring.register_callback(self._raiser_tool_id, event, callbacks.get(event))

    def _on_raiser_line(self, code: CodeType, line: int) -> Any:
        epoch = self._monitor.epoch
        if self._monitor.is_line_off(code, line):
            return _DISABLE if epoch == self._monitor.epoch else None

    def _on_raiser_jump(self, code: CodeType, offset: int, destination: int) -> Any:
        epoch = self._monitor.epoch
        if self._is_jump_off(code, offset, destination):
            return _DISABLE if epoch == self._monitor.epoch else None

    def _on_raiser_call(self, code: CodeType, offset: int) -> Any:
        epoch = self._monitor.epoch
        if self._monitor.is_call_off(code, _line_at(code, offset)):
            return _DISABLE if epoch == self._monitor.epoch else None

    def _raise_pending(self, *args: object) -> None:
        """The raiser's callback: asked for the same event, after the filter."""
        error: Any
        code: Any
        error, code = self._pending.pop(_thread.get_ident(), (None, None))
        if error is None:
            return None                   # the event of another thread
        self.register_raiser()
        self._monitor.end_raising(code)
        if not self.is_busy:
            self._monitor.settle()
        try:
            raise error
        finally:
            del error

    def _is_to_be_logged(self, record: logging.LogRecord) -> bool:
        """The filter of the log: sees what the native callback keeps away from the program.

        Handlers of signals run at the start of a function too, where no `try` is yet: what
        they raise there leaves a second callback, and is reported as an exception of it.
        """
        error = sys.exc_info()[1]
        if error is None or not is_of_signal_handler(error):
            return True
        frame: FrameType | None = sys._getframe()
        while frame is not None and frame.f_code is not dlog.LogException.__code__:
            frame = frame.f_back
        if frame is None:
            return True
        self.raise_in_program(error, frame.f_back)
        return False

    def _failed(self, error: BaseException) -> Any:
        """An exception of our own code, or one that a signal handler raised in it."""
        if not isinstance(error, Exception) or is_of_signal_handler(error):
            self.raise_in_program(error)
        else:
            dlog.LogException("the debugger")


def is_of_signal_handler(error: BaseException) -> bool:
    """True when the program's own handler of a signal raised `error`, wherever that was."""
    codes = {getattr(signal.getsignal(number), "__code__", None)
             for number in signal.valid_signals()}
    instruction = None
    traceback = error.__traceback__
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code in codes:
            return True
        instruction = dis.opname[code.co_code[traceback.tb_lasti]]
        traceback = traceback.tb_next
    # The interpreter's own handler has no frame.
    return isinstance(error, KeyboardInterrupt) and instruction != "RAISE_VARARGS" \
        and signal.getsignal(signal.SIGINT) is signal.default_int_handler


@functools.lru_cache(maxsize=256)
def _line_starts(code_id: int, code: CodeType) -> tuple[list[int], list[int | None]]:
    starts = [(start, line) for start, _, line in code.co_lines()]
    return [start for start, _ in starts], [line for _, line in starts]


def _line_at(code: CodeType, offset: int) -> int | None:
    starts, lines = _line_starts(id(code), code)
    return lines[bisect.bisect_right(starts, offset) - 1]
