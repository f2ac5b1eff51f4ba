"""Protocol messages on a stream of bytes: framed by a header, bounded, written by any thread.

    Content-Length: 119\r\n\r\n{"seq": 1, "type": "request", ...}

What comes from a peer is not trusted: a header or a message that is too long, or is no
JSON object, is a `WireError`, and no more than the limit was ever held in memory.
"""

from __future__ import annotations

import json
import os
import select
import socket
import struct
import threading
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

MAX_HEADER_BYTES = 4096
MAX_MESSAGE_BYTES = 64 << 20
MAX_STRANGERS_BYTES = 1 << 16       # of one message, from a peer that has not shown its secret

_CHUNK_BYTES = 1 << 16
_MOST_EARLY = 8


class WireError(Exception):
    """The peer does not speak the protocol; the text says how."""


class Timeout(WireError):
    """The peer has not said enough in time."""


class Wire:
    """One connection to a peer, by the descriptors to read from and to write to."""

    def __init__(self, read_descriptor: int, write_descriptor: int, owner: object = None, first: int = 1) -> None:
        """`owner` keeps the descriptors open for as long as this object lives: a socket, or files.

        `first`: the number of the first message from here.
        """
        self._in = read_descriptor
        self._out = write_descriptor
        self._owner = owner
        self._identity = _identity(write_descriptor)
        self._unread = bytearray()
        self._wanted: int | None = None      # bytes of the message whose header has been read
        self._writing = threading.Lock()
        self._seq = first - 1
        self.max_message_bytes = MAX_MESSAGE_BYTES
        self.is_closed = False
        self.has_stalled = False             # the peer has taken nothing for as long as it may
        self._note: Callable[[str, dict[str, Any]], None] | None = None
        self._early: list[tuple[str, dict[str, Any]]] | None = []     # before it is known whether they are noted

    def note_all(self, note: Callable[[str, dict[str, Any]], None] | None) -> None:
        """`note(direction, message)` is called for every message, those before included; with None for none."""
        early, self._early = self._early, None
        self._note = note
        if note is not None:
            for each in early or ():
                note(*each)

    def _noted(self, direction: str, message: dict[str, Any]) -> None:
        note, early = self._note, self._early        # another thread may be in `note_all`
        if note is not None:
            note(direction, message)
        elif early is not None and len(early) < _MOST_EARLY:
            early.append((direction, message))

    # -- reading -----------------------------------------------------------------------

    def read(self, seconds: float | None = None) -> dict[str, Any] | None:
        """The next message, None at the end of the stream; `Timeout` after `seconds`.

        Raises WireError for what is no message.  The rest of the stream is of no use then.
        """
        deadline = None if seconds is None else time.monotonic() + seconds
        while (message := self._take()) is None:
            if not self._read_some(deadline):
                if self._unread:
                    raise WireError("the stream ends inside a message")
                return None
        self._noted("<-", message)
        return message

    def _take(self) -> dict[str, Any] | None:
        """The first message of what has been read, None while it is not whole."""
        if self._wanted is None:
            end = self._unread.find(b"\r\n\r\n", 0, MAX_HEADER_BYTES + 4)
            if end < 0:
                if len(self._unread) > MAX_HEADER_BYTES:
                    raise WireError("a header of more than %d bytes" % MAX_HEADER_BYTES)
                return None
            self._wanted = self._checked_length(bytes(self._unread[:end]))
            del self._unread[:end + 4]
        if len(self._unread) < self._wanted:
            return None
        body = bytes(self._unread[:self._wanted])
        del self._unread[:self._wanted]
        self._wanted = None
        return _parse(body)

    def _checked_length(self, header: bytes) -> int:
        length = _content_length(header)
        if length > self.max_message_bytes:
            raise WireError("a message of %d bytes; at most %d are taken" % (length, self.max_message_bytes))
        return length

    def _read_some(self, deadline: float | None) -> bool:
        if deadline is not None:
            seconds = deadline - time.monotonic()
            if seconds <= 0 or not _is_readable(self._in, seconds):      # however much it says
                raise Timeout("no whole message in time")
        try:
            data = os.read(self._in, _CHUNK_BYTES)
        except OSError:                      # the peer has gone, or this side has closed
            data = b""
        self._unread += data
        return bool(data)

    @property
    def was_taken(self) -> bool:
        """The program has closed the descriptor, as daemons do with all that they find; it may be another file's now."""
        return _identity(self._out) != self._identity

    # -- writing -----------------------------------------------------------------------

    def limit_writes(self, seconds: int) -> None:
        """A peer that takes nothing for so long counts as gone; 0: it may take its time.  For sockets that block, alone."""
        set_option = getattr(self._owner, "setsockopt", None)
        if set_option is not None:
            set_option(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("@ll", seconds, 0))

    def send(self, message: dict[str, Any]) -> bool:
        """Write a message, whose `seq` is given here; False when the peer has gone."""
        return self.send_all([message])

    def send_all(self, messages: list[dict[str, Any]]) -> bool:
        """`send` them together."""
        with self._writing:
            for message in messages:
                self._seq += 1
                message["seq"] = self._seq
            return self._write(*messages)

    def pass_on(self, message: dict[str, Any]) -> bool:
        """Write a message of somebody else's as it is."""
        with self._writing:
            return self._write(message)

    def _write(self, *messages: dict[str, Any]) -> bool:
        for message in messages:
            self._noted("->", message)
        view = memoryview(b"".join(map(_framed, messages)))
        if self.is_closed or self.was_taken:
            self.is_closed = True
            return False
        while view:
            try:
                view = view[os.write(self._out, view):]
            except OSError as error:
                self.has_stalled = isinstance(error, BlockingIOError)
                self.close()                 # the reader is to know
                return False
        return True

    def respond(self, request: dict[str, Any], body: dict[str, Any] | None = None) -> bool:
        """The answer to a request that succeeded."""
        message = {"type": "response", "request_seq": request["seq"], "success": True,
                   "command": request["command"]}
        if body is not None:
            message["body"] = body
        return self.send(message)

    def refuse(self, request: dict[str, Any], text: str, short: str | None = None,
               shows: bool = False) -> bool:
        """The answer to one that failed: `text` for the user; `short` for programs ("cancelled", "notStopped")."""
        error = {"id": 1, "format": "{text}", "variables": {"text": text}, "showUser": shows}
        return self.send({"type": "response", "request_seq": request["seq"], "success": False,
                          "command": request["command"], "message": short or text,
                          "body": {"error": error}})

    def request(self, command: str, arguments: dict[str, Any],
                on_sending: Callable[[int], None] | None = None) -> bool:
        """Ask the peer for something; `on_sending` gets the number that its response will refer to, before it goes."""
        with self._writing:
            self._seq += 1
            if on_sending is not None:
                on_sending(self._seq)
            return self._write({"seq": self._seq, "type": "request", "command": command, "arguments": arguments})

    def event(self, name: str, body: dict[str, Any] | None = None) -> bool:
        message: dict[str, Any] = {"type": "event", "event": name}
        if body is not None:
            message["body"] = body
        return self.send(message)

    def close(self) -> None:
        """No more is written; a thread that reads finds the end of the stream."""
        self.is_closed = True
        close = getattr(self._owner, "shutdown", None)
        if close is not None and not self.was_taken:
            try:
                close(2)                     # both ways: wakes the reader, unlike close()
            except OSError:
                pass

    def release(self) -> None:
        """After `close`, by the thread that reads: the descriptor is free, however long this object is kept."""
        if self.was_taken:
            self.drop()
        else:
            with self._writing:              # nobody writes to a number that may be another file's
                self.drop()

    def drop(self) -> None:
        """In a forked child: the connection is the parent's."""
        self.is_closed = True
        close = getattr(self._owner, "detach" if self.was_taken else "close", None)
        if close is not None:
            close()


def _framed(message: dict[str, Any]) -> bytes:
    body = json.dumps(message).encode()
    return b"Content-Length: %d\r\n\r\n%s" % (len(body), body)


def _identity(descriptor: int) -> tuple[int, int] | None:
    """The identity of the open file, whichever number it has."""
    try:
        status = os.fstat(descriptor)
    except OSError:
        return None
    return status.st_dev, status.st_ino


def _is_readable(descriptor: int, seconds: float) -> bool:
    poll = select.poll()                     # select() knows no descriptor above 1023
    poll.register(descriptor, select.POLLIN)
    return bool(poll.poll(max(0, seconds) * 1000))


def _content_length(header: bytes) -> int:
    """Raises WireError for a header of another protocol: a browser may be made to send JSON to a port."""
    length = None
    for line in header.split(b"\r\n"):
        name, has_value, value = line.partition(b":")
        name, text = name.strip().lower(), value.strip()
        if not has_value or name not in (b"content-length", b"content-type"):
            raise WireError("a header that is not the protocol's: %r" % line[:80])
        if name == b"content-length":
            if length is not None or not text.isdigit() or len(text) > 15:
                raise WireError("a Content-Length that is no number: %r" % text[:40])
            length = int(text)
    if length is None:
        raise WireError("a header without Content-Length: %r" % header[:80])
    return length


def _parse(body: bytes) -> dict[str, Any]:
    try:
        message = json.loads(body)
    except (ValueError, RecursionError) as error:
        raise WireError("a message that is no JSON: %s" % error) from None
    if not isinstance(message, dict):
        raise WireError("a message that is no JSON object")
    kind = message.get("type")
    if kind == "request":
        if isinstance(message.get("seq"), int) and isinstance(message.get("command"), str):
            return message
    elif kind == "response":
        if isinstance(message.get("request_seq"), int):
            return message
    elif kind == "event":
        return message
    raise WireError("a message that is neither request nor response nor event: %.80r" % body)
