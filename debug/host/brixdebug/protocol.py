"""What those below the engine know of a debugger; for type checkers alone."""

from __future__ import annotations

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any, Protocol

    from brixdebug.stops import StopStates

    class TracedDebugger(Protocol):
        """What gets the events: `bdb.Bdb` and the fields of a thread of its own each."""

        breaks: dict[str, list[int]]
        quitting: bool
        wants_calls: bool             # user_call has to be called in code with breakpoints
        stop_states: StopStates

        def trace_dispatch(self, frame: FrameType, event: str, arg: Any) -> Any: ...
        def break_anywhere(self, frame: FrameType) -> bool: ...
        def reaches_program(self, exception: BaseException) -> bool: ...
        def on_own_error(self, exception: BaseException) -> None: ...
        def after_fork_in_child(self) -> None: ...
