"""What code objects and the native module's records say, also where they may be gone at any moment."""

from __future__ import annotations

import bisect
import functools
from types import CodeType

import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType

    from optmonitoring import CPerCodeObject, CPerThread


def record_of(frame: FrameType) -> CPerCodeObject | None:
    """That of the code that `frame` runs; None where threads run at the same time, and it has just ended on its own."""
    code: object = frame.f_code
    return optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, frame) if isinstance(code, CodeType) else None


def thread_id_of(per_thread: CPerThread) -> int | None:
    """The id in a thread's record; None when the thread has ended: its record is emptied then, at any moment."""
    return getattr(per_thread, "fThreadId", None)


@functools.lru_cache(maxsize=256)
def _line_starts(code_id: int, code: CodeType) -> tuple[list[int], list[int | None]]:
    starts = [(start, line) for start, _, line in code.co_lines()]
    return [start for start, _ in starts], [line for _, line in starts]


def line_at(code: CodeType, offset: int) -> int | None:
    """The line of the instruction at `offset`."""
    starts, lines = _line_starts(id(code), code)
    return lines[bisect.bisect_right(starts, offset) - 1]
