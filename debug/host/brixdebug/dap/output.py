"""What the program prints, from its pipes to the client, before the next event goes there."""

from __future__ import annotations

import codecs
import os
import select
import threading
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable

_CHUNK_BYTES = 1 << 16
_GATHER_SECONDS = 0.005


class Pump:
    """Reads pipes until their ends; each piece of text goes to `emit(category, text)`."""

    def __init__(self, emit: Callable[[str, str], object], pipes: dict[int, str]) -> None:
        """`pipes`: descriptor -> category, "stdout" or "stderr".  The descriptors are closed at their end."""
        self._emit = emit
        self._lock = threading.Lock()
        self._pipes = pipes
        self._decoders = {descriptor: codecs.getincrementaldecoder("utf-8")("replace") for descriptor in pipes}
        for descriptor in pipes:
            os.set_blocking(descriptor, False)
        self._thread = threading.Thread(target=self._run, name="output", daemon=True)
        self._thread.start()

    def drain(self) -> None:
        """Emit what has been printed up to now."""
        with self._lock:
            for descriptor in list(self._pipes):
                while self._read_some(descriptor):
                    pass

    def wait(self, seconds: float) -> None:
        """Until the pipes end; a process that the program left behind may keep them open."""
        self._thread.join(seconds)

    def _run(self) -> None:
        poll = select.poll()
        for descriptor in self._pipes:
            poll.register(descriptor, select.POLLIN)
        while self._pipes:
            ready = poll.poll()
            time.sleep(_GATHER_SECONDS)          # what is printed in small pieces is one piece of news
            for descriptor, _ in ready:
                with self._lock:
                    self._read_some(descriptor)
                if descriptor not in self._pipes:
                    poll.unregister(descriptor)
                    os.close(descriptor)

    def _read_some(self, descriptor: int) -> bool:
        """False when there is nothing at present, or nothing more."""
        if descriptor not in self._pipes:
            return False
        try:
            data = os.read(descriptor, _CHUNK_BYTES)
        except BlockingIOError:
            return False
        except OSError:
            data = b""
        text = self._decoders[descriptor].decode(data, final=not data)
        if text:
            self._emit(self._pipes[descriptor], text)
        if not data:
            del self._pipes[descriptor]
        return bool(data)
