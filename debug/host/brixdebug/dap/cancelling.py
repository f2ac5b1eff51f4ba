"""An expression that runs, and how it is ended.

A KeyboardInterrupt is raised where it runs Python code next.  In the main thread a signal does so, which ends what waits
in C code too.  In other threads nothing ends that: the client has its answer, and hears of it when the thread comes back.
"""

from __future__ import annotations

import _thread
import signal
import threading

import optmonitoring

from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType, TracebackType
    from typing import Any

_SIGNAL = signal.SIGURG        # nobody is harmed by one that comes late: it is ignored unless a program asks for it
_END_SECONDS = 1.0             # after the cancellation, before the client gets a message that the expression goes on


class Running:
    """Used as a context manager around the expression of `request`, in the thread that runs it."""

    def __init__(self, request: object, on_stuck: Callable[[], None], on_end: Callable[[], None]) -> None:
        """`on_stuck` is called when the expression has not ended although it was asked to, `on_end` when it has after that."""
        self.request = request
        self.is_stuck = False
        self._on_stuck = on_stuck
        self._on_end = on_end
        self._lock: Any = _thread.RLock()    # the handler of a signal may come in between
        self._has_ended = threading.Event()
        self._before: Any = None             # the handler of the signal that there was; None: ours is not there

    def __enter__(self) -> None:
        if _thread.get_ident() == threading.main_thread().ident and signal.getsignal(_SIGNAL) is signal.SIG_DFL:
            self._before = signal.signal(_SIGNAL, self._on_signal)

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        with self._lock:
            self._has_ended.set()
            was_stuck, self.is_stuck = self.is_stuck, False
        if self._before is not None:
            signal.signal(_SIGNAL, self._before)
        if was_stuck:
            self._on_end()

    def cancel(self) -> None:
        """Called by another thread."""
        with self._lock:
            if self._has_ended.is_set():
                return
            if self._before is not None:
                signal.pthread_kill(threading.main_thread().ident or 0, _SIGNAL)
            else:
                monitor.suspension.evaluation.interrupt()
        _thread.start_new_thread(self._watch, ())

    def _on_signal(self, number: int, frame: FrameType | None) -> None:
        if self._has_ended.is_set():
            return
        if frame is None or optmonitoring.IsInternalFrame(frame):
            monitor.suspension.evaluation.interrupt()        # as soon as the expression goes on
        else:
            raise KeyboardInterrupt

    def _watch(self) -> None:
        monitor.suspension.adopt_thread()
        if self._has_ended.wait(_END_SECONDS):
            return
        with self._lock:
            is_stuck = self.is_stuck = not self._has_ended.is_set()
        if is_stuck:
            self._on_stuck()
