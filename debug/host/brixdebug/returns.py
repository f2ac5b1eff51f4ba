"""What the calls return that a step passes over.

While a step is under way the raiser (see `switches`) is asked for the calls of the stepped code, and so comes to know
the functions that it calls; of these it is asked for the returns, and those that lead back to the stepped frame
count.  Of a C function the interpreter does not say what it returns.

No value is dropped before the step ends: what it was the last reference to would be destroyed inside a callback, where
nobody sees events.
"""

from __future__ import annotations

import _thread
import functools
import inspect
import sys
import types

from brixbase import dlog

from brixdebug.locks import CallbackAtEnd
from brixdebug.raising import is_of_signal_handler

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.switches import Switches

MOST_VALUES = 50              # of one step, the first ones
_MOST_WRAPPERS = 10           # methods and partials around each other

_events = sys.monitoring.events
_GENERATORS = inspect.CO_GENERATOR | inspect.CO_ASYNC_GENERATOR
_mro_of = type.__dict__["__mro__"].__get__          # nobody's own code is asked
_names_of = type.__dict__["__dict__"].__get__


class Step:
    """A step that is under way, and what it has passed over; without holding its frame."""

    def __init__(self, frame: FrameType) -> None:
        self.code = frame.f_code
        self._frame_id = id(frame)
        self.values: list[tuple[str, object]] = []      # name of a function, and what it returned; in their order

    def is_in(self, frame: FrameType | None) -> bool:
        return frame is not None and id(frame) == self._frame_id and frame.f_code is self.code


class PassedReturns:
    """The steps that are under way, by thread."""

    def __init__(self, switches: Switches) -> None:
        self._switches = switches
        self._steps: dict[int, Step] = {}
        switches.report_calls_to({_events.CALL: self._on_call, _events.PY_RETURN: self._on_return})

    def begin(self, thread_id: int, frame: FrameType) -> None:
        """A step of `frame` begins in that thread."""
        with self._switches.lock:
            self._steps[thread_id] = Step(frame)
            self._switches.tell_of_calls(frame.f_code, _events.CALL)

    def end(self) -> dict[int, Step]:
        """All steps have ended: nothing is switched on for them any longer."""
        if not self._steps:
            return {}
        with self._switches.lock:
            steps, self._steps = self._steps, {}
            self._switches.tell_of_no_calls()
        return steps

    # -- the raiser's callbacks: what a signal handler raises in them goes on into the program ------------------

    def _on_call(self, code: CodeType, offset: int, called: object, argument: object) -> None:
        try:
            step = self._steps.get(_thread.get_ident())
            if step is not None and len(step.values) < MOST_VALUES and step.is_in(_frame_of_event(sys._getframe(1))):
                self._await_return(step, called)
        except Exception as error:
            self._failed(error)

    def _await_return(self, step: Step, called: object) -> None:
        code = _code_of(called)
        if code is None or code.co_flags & _GENERATORS or self._switches.tells_of_returns(code):
            return
        with self._switches.lock:
            if self._steps.get(_thread.get_ident()) is step:      # else the step has ended meanwhile
                self._switches.tell_of_calls(code, _events.PY_RETURN)

    def _on_return(self, code: CodeType, offset: int, value: object) -> None:
        try:
            step = self._steps.get(_thread.get_ident())
            if step is None or len(step.values) >= MOST_VALUES or not self._switches.tells_of_returns(code) \
                    or not step.is_in(_frame_of_event(sys._getframe(1)).f_back):
                return                        # perhaps the end of the step before, whose event the raiser sees last
            step.values.append((code.co_qualname, value))
            if len(step.values) == MOST_VALUES:
                self._stop_telling()
        except Exception as error:
            self._failed(error)

    def _stop_telling(self) -> None:
        with self._switches.lock:
            if all(len(step.values) >= MOST_VALUES for step in self._steps.values()):
                self._switches.tell_of_no_calls()

    @staticmethod
    def _failed(error: Exception) -> None:
        if is_of_signal_handler(error):
            raise error
        dlog.LogException("a call that a step passes over")


def _frame_of_event(frame: FrameType | None) -> Any:
    """That of an event, for the frame that has called its callback: at the program's exit there is one between."""
    return frame.f_back if frame is not None and frame.f_code is CallbackAtEnd.__call__.__code__ else frame


def _code_of(called: object) -> CodeType | None:
    """The code of what is called, where that is a function of Python."""
    for _ in range(_MOST_WRAPPERS):
        kind = type(called)
        if kind is types.FunctionType:
            return called.__code__            # type: ignore[attr-defined, no-any-return]
        if kind is types.MethodType:
            called = called.__func__          # type: ignore[attr-defined]
        elif kind is functools.partial:
            called = called.func              # type: ignore[attr-defined]
        else:
            called = next((names["__call__"] for names in map(_names_of, _mro_of(kind)) if "__call__" in names), None)
            if type(called) is not types.FunctionType:
                return None
    return None
