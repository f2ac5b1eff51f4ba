"""What is asked of a client, and who wants the responses."""

from __future__ import annotations

import threading

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

    from brixdebug.dap.wire import Wire

    Take = Callable[[dict[str, Any] | None], None]


class Replies:
    """The requests that go to the peer of `wire`."""

    def __init__(self, wire: Wire) -> None:
        self._wire = wire
        self._lock = threading.Lock()
        self._waiting: dict[int, Take] = {}          # number of the request -> who wants the response

    def ask(self, command: str, arguments: dict[str, Any], take: Take) -> None:
        """`take` is called with the response, by the thread that reads; with None when there will be none."""
        def note(seq: int) -> None:
            with self._lock:
                self._waiting[seq] = take

        if not self._wire.request(command, arguments, note):
            self.end()

    def take(self, response: dict[str, Any]) -> None:
        """A response has come; nothing happens for one that nobody waits for."""
        with self._lock:
            take = self._waiting.pop(response["request_seq"], None)
        if take is not None:
            take(response)

    def end(self) -> None:
        """The peer has gone."""
        with self._lock:
            waiting, self._waiting = self._waiting, {}
        for take in waiting.values():
            take(None)
