"""One thread at a time reports to the debugger; a second one waits here until the first has gone on."""

from __future__ import annotations

import _thread
import atexit

from brixdebug.locks import LockAtEnd

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any


class Turn:
    """Belongs to the one thread that reports an event, or changes breakpoints."""

    def __init__(self, on_wait: Callable[[int], None]) -> None:
        """`on_wait` is called by a thread that begins to wait, with its id."""
        self._on_wait = on_wait
        self._begin_anew()
        atexit.register(self._end)

    def _begin_anew(self) -> None:
        self.lock: Any = _thread.RLock()      # held by the one thread that reports
        self.depth = 0                        # its events inside events
        self.waiting_thread_ids: set[int] = set()     # of the threads that wait for the lock

    def _end(self) -> None:
        self.lock = LockAtEnd(self.lock)

    def take(self) -> BaseException | None:
        """Take the lock.  The exception of a signal handler meanwhile is returned: the event is not lost."""
        if self.lock._is_owned():
            self.lock.acquire()
            return None
        try:
            if self.lock.acquire(blocking=False):
                return None                   # as nearly always
            interruption = None
        except BaseException as error:
            interruption = error
        return self._wait(interruption)

    def _wait(self, interruption: BaseException | None) -> BaseException | None:
        self.waiting_thread_ids.add(_thread.get_ident())
        while not self.lock._is_owned():
            try:
                if not self.lock.acquire(blocking=False):
                    self._on_wait(_thread.get_ident())
                    self.lock.acquire()
            except BaseException as error:
                interruption = error
        self.waiting_thread_ids.discard(_thread.get_ident())
        return interruption

    def keep_only_own(self) -> bool:
        """After a fork, in the child; False when it was another thread's turn, or nobody's."""
        if self.lock._is_owned():
            return True
        self._begin_anew()
        return False
