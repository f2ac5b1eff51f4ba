"""A place where others come in: a socket that listens, and a thread of the debugger's own that takes who comes."""

from __future__ import annotations

import _thread
import contextlib
import errno
import socket
import threading

from brixdebug.dap import door
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable

_RETRY_SECONDS = 0.1          # when no connection can be taken: there may be too many open files


class Entrance:
    def __init__(self, listener: socket.socket, take: Callable[[socket.socket], None]) -> None:
        """`take` is called with each connection, in the thread that waits for them: while it waits nobody comes in."""
        self._listener: socket.socket | None = listener
        self._take = take
        try:
            _thread.start_new_thread(self._accept_all, (listener,))
        except RuntimeError:                 # there are too many
            listener.close()
            raise

    def close(self) -> None:
        """Nothing listens any more."""
        listener = self._listener
        if listener is not None:
            with contextlib.suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)  # wakes the thread that waits
        self.forget()

    def forget(self) -> None:
        """In a forked child: the parent goes on listening."""
        listener, self._listener = self._listener, None
        if listener is not None:
            listener.close()

    def _accept_all(self, listener: socket.socket) -> None:
        monitor.suspension.adopt_thread()
        pause = threading.Event()
        while self._listener is listener:
            try:
                connection = door.out_of_the_way(listener.accept()[0])
            except OSError as error:
                if error.errno == errno.EBADF:
                    return
                pause.wait(_RETRY_SECONDS)   # closed, or there are too many open files
                continue
            self._take(connection)
