"""Output of a program that prints to a terminal or to a file of its own: the client gets a copy.

The streams stay the program's own objects, with their descriptors: only their `write` is another,
which notes the text.  A thread of the debugger's own sends it, so that the program waits for the
client no more than for a terminal, and a signal handler may print in the middle of anything.
"""

from __future__ import annotations

import _thread
import collections
import io
import queue
import sys
import threading

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

_MOST_WAITING = 1 << 20          # characters, before who prints waits for the client
_PIECE = 1 << 16                 # characters of one event
_WAIT_SECONDS = 1.0


def flush_streams(adopt_thread: Callable[[], None]) -> None:
    """Write out what the program has printed, in a thread: it may have closed or replaced its streams, or be inside them."""
    has_ended = threading.Event()

    def flush() -> None:
        adopt_thread()
        try:
            sys.stdout.flush()
        except BaseException:                # nobody's business any more
            pass
        finally:
            has_ended.set()

    _thread.start_new_thread(flush, ())
    has_ended.wait(_WAIT_SECONDS)


class Redirection:
    """From `begin` on, what is printed to `sys.stdout` and `sys.stderr` goes to `emit(category, text)` too."""

    def __init__(self, emit: Callable[[str, str], object], adopt_thread: Callable[[], None]) -> None:
        """`adopt_thread` is called first in the thread that sends: it is not debugged."""
        self._emit = emit
        self._adopt_thread = adopt_thread
        self._streams: list[tuple[Any, Any]] = []      # and what each had as a `write` of its own
        self._waiting: collections.deque[tuple[str, str]] = collections.deque()
        self._size = 0
        self._bell: queue.SimpleQueue[bool] = queue.SimpleQueue()        # True: the end
        self._sending = _thread.allocate_lock()

    def begin(self) -> None:
        for category in ("stdout", "stderr"):
            stream: Any = getattr(sys, category)
            if isinstance(stream, io.TextIOBase) and hasattr(stream, "__dict__"):
                self._take_over(stream, category)
        _thread.start_new_thread(self._run, ())

    def _take_over(self, stream: Any, category: str) -> None:
        own, write = stream.__dict__.get("write"), stream.write

        def write_too(text: str) -> Any:
            count = write(text)
            self._note(category, text)
            return count

        stream.write = write_too
        self._streams.append((stream, own))

    def end(self) -> None:
        """The streams are as they were; what has been printed is sent."""
        self.forget()
        self.drain()
        self._bell.put(True)

    def forget(self) -> None:
        """The streams are as they were.  Enough in a forked child: the client is the parent's."""
        for stream, own in self._streams:
            if own is None:
                stream.__dict__.pop("write", None)
            else:
                stream.write = own
        self._streams.clear()

    def _note(self, category: str, text: str) -> None:
        self._waiting.append((category, text))
        self._size += len(text)
        self._bell.put(False)
        # The lock may be this very thread's, when a signal handler prints.
        if self._size > _MOST_WAITING and self._sending.acquire(timeout=_WAIT_SECONDS):
            try:
                self._send_all()
            finally:
                self._sending.release()

    def drain(self) -> None:
        """Send what has been printed up to now."""
        with self._sending:
            self._send_all()

    def _send_all(self) -> None:
        while self._waiting:
            category, text = self._waiting.popleft()
            parts = [text]
            size = len(text)
            while self._waiting and self._waiting[0][0] == category and size < _PIECE:
                parts.append(self._waiting.popleft()[1])
                size += len(parts[-1])
            self._size -= size
            self._emit(category, "".join(parts))
        self._size = 0

    def _run(self) -> None:
        self._adopt_thread()
        while not self._bell.get():
            self.drain()
