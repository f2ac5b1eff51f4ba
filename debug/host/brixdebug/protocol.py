"""What those below the engine know of a debugger; for type checkers alone."""

from __future__ import annotations

TYPE_CHECKING = False
if TYPE_CHECKING:
    from bdb import Breakpoint
    from types import CodeType, FrameType
    from typing import Any, Protocol

    from brixdebug.decisions import Point
    from brixdebug.interrupts import Interruption
    from brixdebug.exceptions import ExceptionStops
    from brixdebug.stops import StopStates

    class TracedDebugger(Protocol):
        """What gets the events: `bdb.Bdb` and the fields of a thread of its own each."""

        breaks: dict[str, list[int]]
        quitting: bool
        wants_calls: bool             # user_call has to be called in code with breakpoints
        decides_early: bool           # breakpoints may be decided before trace_dispatch is called
        stop_states: StopStates
        interruption: Interruption
        exception_stops: ExceptionStops

        def trace_dispatch(self, frame: FrameType, event: str, arg: Any) -> Any: ...
        def is_own_code(self, code: CodeType) -> bool: ...
        def break_anywhere(self, frame: FrameType) -> bool: ...
        def points_at(self, frame: FrameType) -> tuple[Point, ...]: ...
        def user_log(self, frame: FrameType, breakpoint: Breakpoint, text: str) -> None: ...
        def reaches_program(self, exception: BaseException) -> bool: ...
        def on_own_error(self, exception: BaseException) -> None: ...
        def others_were_let_go(self) -> None: ...
        def other_waits(self, thread_id: int) -> None: ...
        def after_fork_in_child(self) -> None: ...
