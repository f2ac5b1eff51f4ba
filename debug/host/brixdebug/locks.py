"""The interpreter's own lock, and locks at the interpreter's end.

A daemon thread is ended wherever it is then, and never releases what it has.
"""

from __future__ import annotations

import sys

import optmonitoring as _optmonitoring       # before the question: the module may have the interpreter's lock switched on

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

_LOOK_SECONDS = 0.05

# Whether threads run Python code at the same time.  The lock may be switched on later, and is never switched off again.
# Nobody may walk over the frames of another thread then, unless it waits in our code: with each that ends `f_back` may
# come to memory that is gone.
ARE_PARALLEL = _optmonitoring is not None and not getattr(sys, "_is_gil_enabled", lambda: True)()


class LockAtEnd:
    """In the place of a lock once the program's own handlers of the exit have run; to be used in the same way.

    It is that lock, until the other threads have been ended.  After that there is nobody left to wait for.
    """

    def __init__(self, lock: Any) -> None:
        self._lock = lock
        self._is_finalizing = sys.is_finalizing          # the modules are taken apart meanwhile

    def acquire(self, blocking: bool = True) -> bool:
        if not blocking:
            return bool(self._lock.acquire(False)) or self._is_finalizing()
        while not self._lock.acquire(True, _LOOK_SECONDS):
            if self._is_finalizing():
                break
        return True

    def release(self) -> None:
        if self._lock._is_owned():
            self._lock.release()

    def _is_owned(self) -> bool:
        return bool(self._lock._is_owned()) or self._is_finalizing()

    def __enter__(self) -> bool:
        return self.acquire()

    def __exit__(self, *exc_info: object) -> None:
        self.release()


class CallbackAtEnd:
    """In the place of a callback of the interpreter, until the other threads have been ended.

    After that its module may be in pieces, and the program's last destructors have events.  The callback's caller is one
    frame further away.
    """

    def __init__(self, callback: Callable[..., object]) -> None:
        self._callback = callback
        self._is_finalizing = sys.is_finalizing

    def __call__(self, *args: object) -> object:
        return None if self._is_finalizing() else self._callback(*args)
