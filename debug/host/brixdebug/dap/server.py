"""The protocol, answered inside the debugged program: one client at a time.

A thread of the debugger's own reads requests.  What needs a stopped thread is given to
that thread and answered by it; nothing here waits for the program's code.
"""

from __future__ import annotations

import _thread
import threading

from brixdebug.dap import door
from brixdebug.dap.beginning import OCCUPIED
from brixdebug.dap.entrance import Entrance
from brixdebug.dap.redirect import Redirection
from brixdebug.dap.rendering import Boxed
from brixdebug.dap.session import Session
from brixdebug.dap.sources import Lines
from brixdebug.dap.stopping import ClientDebugger
from brixdebug.dap.wire import Wire
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Mapping
    import socket
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.dap.session import Handler
    from brixdebug.dap.stopping import Stop
    from brixdebug.watching import Watch

_MAX_STRANGERS = 8            # at the same time
_LEAVING_SECONDS = 5.0        # for a client that has gone, before the next one is let in


class Server:
    """The program's side of all sessions, one after another."""

    def __init__(self, handlers: Mapping[str, Handler]) -> None:
        self.handlers = handlers
        self.debugger = ClientDebugger(self)
        self.boxed = Boxed(monitor.suspension.adopt_thread)
        self.lines = Lines()
        self.session: Session | None = None
        self.configured = threading.Event()          # a client has said all it has to say before the program goes on
        self.secret: str | None = None
        self.ends_with_client = False                # of those that come in: this process is nothing without one
        self.on_client: Callable[[bool], None] = lambda has_come: None
        self._entrance: Entrance | None = None
        self._strangers: set[Session] = set()        # connected, and not yet known to be a client
        self._door = threading.Condition()           # who is the client
        self.program: tuple[str, str] = ("", "")     # its name, and how it came under the debugger
        self.prints_to_client = False                # the adapter reads what the program prints
        self._redirection: Redirection | None = None

    # -- clients ------------------------------------------------------------------------------

    def listen(self, address: door.Address, secret: str | None) -> door.Address:
        """Let clients in at `address`, in a thread; where that is.

        Raises RuntimeError when something listens already, DoorError for an address that cannot be; nothing listens then.
        """
        with self._door:                             # two threads may ask for it
            return self._listen(address, secret)

    def _listen(self, address: door.Address, secret: str | None) -> door.Address:
        if self.is_listening:
            raise RuntimeError("this program listens for an editor already")
        if secret is None and door.needs_secret(address):
            raise door.DoorError("%s can be reached from other machines: a secret is needed" % door.show_address(address))
        listener, address = door.listen_at(address)
        self.secret = secret                         # before anybody comes
        self._entrance = Entrance(listener, self._receive)
        return address

    def stop_listening(self) -> None:
        entrance, self._entrance = self._entrance, None
        if entrance is not None:
            entrance.close()

    @property
    def is_listening(self) -> bool:
        return self._entrance is not None

    @property
    def has_visitors(self) -> bool:
        """Somebody is connected who has not said yet who he is."""
        return bool(self._strangers)

    def forget(self) -> None:
        """In a forked child: clients, and who waits for them, are the parent's."""
        session, self.session = self.session, None
        if session is not None:
            session.thread_events.forget()
            session.wire.drop()
        for each in list(self._strangers):
            each.wire.drop()
        redirection, self._redirection = self._redirection, None
        if redirection is not None:
            redirection.forget()
        entrance, self._entrance = self._entrance, None
        if entrance is not None:
            entrance.forget()

    def _receive(self, connection: socket.socket) -> None:
        session = self.session
        if session is not None and not session.has_gone or len(self._strangers) >= _MAX_STRANGERS:
            Wire(connection.fileno(), connection.fileno()).event(
                "output", {"category": "stderr", "output": "%s\n" % OCCUPIED})
            connection.close()
        else:
            self._start(Session(self, connection, self.secret is None, self.ends_with_client))

    def serve(self, connection: socket.socket, ends_program: bool = False) -> None:
        """Have a client served that this program has gone to.  `ends_program`: it is nothing without that client."""
        self.session = session = Session(self, connection, is_trusted=True, ends_program=ends_program)
        self._start(session)

    def _start(self, session: Session) -> None:
        self._strangers.add(session)
        _thread.start_new_thread(session.run, ())

    def admit(self, session: Session) -> bool:
        """The peer of `session` is the client from now on; False when there is another."""
        with self._door:
            before = self.session
            if before is not None and before is not session and before.has_gone:
                self._door.wait_for(lambda: self.session is None, _LEAVING_SECONDS)
            if self.session not in (None, session):
                return False
            self.session = session
            self._strangers.discard(session)
            return True

    def dismiss(self, session: Session) -> None:
        """The peer of `session` has gone."""
        with self._door:
            self._strangers.discard(session)
            if self.session is session:
                self.session = None
                self._door.notify_all()

    # -- what the program prints -----------------------------------------------------------------

    def redirect_output(self) -> None:
        """The client gets a copy from now on."""
        def emit(category: str, text: str) -> None:
            self.tell("output", {"category": category, "output": text})

        self._redirection = Redirection(emit, monitor.suspension.adopt_thread)
        self._redirection.begin()

    def end_redirection(self) -> None:
        redirection, self._redirection = self._redirection, None
        if redirection is not None:
            redirection.end()

    # -- stops, in the stopped threads -----------------------------------------------------------

    def on_stop(self, stop: Stop) -> bool:
        session = self.session
        if self._redirection is not None:
            self._redirection.drain()                # what was printed before is shown before
        return session is not None and session.is_configured and session.show_stop(stop)

    def on_went_on(self, stop: Stop) -> None:
        session = self.session
        if session is not None and stop.only is not None:
            session.tree.forget_thread(stop.only)
        elif session is not None:
            session.tree.forget()

    def on_all_go_on(self, stop: Stop) -> None:
        self.on_went_on(stop)
        session = self.session
        if session is not None:
            session.wire.event("continued", {"threadId": session.thread_number(stop.thread_id), "allThreadsContinued": True})

    def on_log(self, frame: FrameType, text: str) -> None:
        session = self.session
        if session is not None:
            body: dict[str, Any] = {"category": "console", "output": text + "\n",
                                    "line": session.client_line(frame.f_lineno)}
            source = session.source(frame.f_code.co_filename)
            if source is not None:
                body["source"] = source
            self.debugger.muted(lambda: session.wire.event("output", body))

    def on_let_go(self) -> None:
        self.tell("output", {"category": "console", "output": "The other threads run until this has been evaluated.\n"})

    def on_new_code(self, code: CodeType) -> None:
        session = self.session
        if session is not None:
            session.on_new_code(code)

    def on_watch_end(self, watch: Watch) -> None:
        session = self.session
        if session is not None:
            session.on_watch_end(watch)

    def program_ends(self, *status: int) -> None:
        """Nothing is reported of it after this; `status`: its exit status, where that is known."""
        self.end_redirection()
        session = self.session
        if session is not None:
            session.thread_events.end()
        for each in status:
            self.tell("exited", {"exitCode": each})
        self.tell("terminated", {})

    def tell(self, name: str, body: dict[str, Any]) -> None:
        """An event for the client, if there is one."""
        session = self.session
        if session is not None:
            self.debugger.muted(lambda: session.wire.event(name, body))
