"""The prompt of a process at another process's terminal: lines of JSON on a socket.

    from the program            "out": text to be shown        "read": a line is waited for
                                "error": text, and the end      "state": "running" or "detached"
                                "completions": names
    from the terminal           "line": text    "eof"    "interrupt"    "complete": text, line, begidx, endidx

A terminal that has gone reads as the end of input, and what is written to it is lost.
"""

from __future__ import annotations

import json
import socket
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any


# How long a line is on its way, at most.
_LINE_SECONDS = 5.0


class Connection:
    """One end of the socket."""

    def __init__(self, end: socket.socket) -> None:
        self._end = end
        self._unread = b""
        self.is_open = True

    def send(self, **message: Any) -> None:
        try:
            self._end.sendall(json.dumps(message).encode() + b"\n", socket.MSG_NOSIGNAL)
        except OSError:
            self.is_open = False

    def receive(self) -> dict[str, Any] | None:
        """The next message; None when there is nobody left to send one."""
        while b"\n" not in self._unread:
            try:
                data = self._end.recv(65536) if self.is_open else b""
            except OSError:
                data = b""
            if not data:
                self.is_open = False
                return None
            self._unread += data
        line, _, self._unread = self._unread.partition(b"\n")
        message: dict[str, Any] = json.loads(line)
        return message

    def close(self) -> None:
        self.is_open = False
        self._end.close()


class Writer:
    """Standard output of the prompt."""

    encoding = "utf-8"
    errors = "replace"

    def __init__(self, connection: Connection) -> None:
        self._connection = connection

    def write(self, text: str) -> int:
        if text:
            self._connection.send(out=text)
        return len(text)

    def flush(self) -> None:
        pass

    def isatty(self) -> bool:
        return False


class Reader:
    """Standard input of the prompt."""

    encoding = "utf-8"
    errors = "replace"

    def __init__(self, connection: Connection,
                 complete: Callable[[str, str, int, int], list[str]]) -> None:
        self._connection = connection
        self._complete = complete
        self._is_waiting = False
        self._interrupted_at: float | None = None

    def interrupt(self) -> bool:
        """Called by the handler of SIGINT: True when it means a line that is still on its way here.

        Who sits at the other end and has typed a line has nothing else to interrupt.
        """
        if self._is_waiting:
            self._interrupted_at = time.monotonic()
        return self._is_waiting

    def readline(self, size: int = -1) -> str:
        self._interrupted_at = None
        self._is_waiting = True
        try:
            self._connection.send(read=True)
            return self._read()
        finally:
            self._is_waiting = False

    def _read(self) -> str:
        while True:
            message = self._connection.receive()
            if message is None or "eof" in message:
                return ""
            if "line" in message:
                at = self._interrupted_at
                if at is not None and time.monotonic() - at < _LINE_SECONDS:
                    raise KeyboardInterrupt
                return str(message["line"]) + "\n"
            if "interrupt" in message:
                raise KeyboardInterrupt
            if "complete" in message:
                self._connection.send(completions=self._complete(*message["complete"]))

    def isatty(self) -> bool:
        return False
