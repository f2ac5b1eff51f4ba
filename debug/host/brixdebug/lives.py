"""Reports which threads of the program begin and end.

A thread that `threading` starts is noticed as it begins, any other at its first event or at the next stop.  Its end is
noticed by its record, which is cleared then: nothing is polled.
"""

from __future__ import annotations

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable

    Tell = Callable[["Life", bool], None]

class Life:
    """One thread's, kept with its record; goes with it."""

    __slots__ = ("_tell", "has_begun", "key", "thread_id")

    def __init__(self, thread_id: int, tell: Tell) -> None:
        self.thread_id = thread_id
        self.key = object()                   # no other life has it: ids are used again
        self.has_begun = False
        self._tell = tell

    def begin(self) -> None:
        self.has_begun = True
        self._tell(self, True)

    def __del__(self) -> None:
        if self.has_begun:
            self._tell(self, False)
