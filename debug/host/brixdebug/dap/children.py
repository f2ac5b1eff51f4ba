"""Children of the program: each has a session of its own.

A process with a client keeps a desk, a socket at which its children, and theirs, ask for a session.  The desk has the
client start one, which finds the child listening behind a secret of its own.  The child waits before its first line until
that client has set its breakpoints; when nobody comes it goes on alone.
"""

from __future__ import annotations

import _thread
import contextlib
import json
import os
import socket
import sys
import threading

from brixbase import dlog

from brixdebug.dap import arguments, door, fork_warning, spawning
from brixdebug.dap.asking import Arguments, RequestError
from brixdebug.dap.entrance import Entrance
from brixdebug.dap.heritage import PATH_VARIABLE, STARTUP_FOLDER, VARIABLE, Heritage
from brixdebug.dap.wire import MAX_STRANGERS_BYTES, Wire, WireError
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType, TracebackType
    from typing import Any

    from brixdebug.dap.server import Server
    from brixdebug.dap.session import Session

_CLIENT_SECONDS = 60          # for the client to come to a child that it has been asked to come to
_ANSWER_SECONDS = 10.0        # for a process that runs, to say what it has to say
_MAX_STRANGERS = 32           # of this user or root, at the same time: the next one waits at the socket
_MAX_OTHERS = 4               # of other users, as whom a child may run by now: the next one is sent away
_LOOPBACK = "127.0.0.1"


class Desk:
    """Where the children of this process, and theirs, ask for a session."""

    def __init__(self, family: Family) -> None:
        self._family = family
        self._entrance: Entrance | None = None
        self._place: tuple[str, str] | None = None
        self._connections: set[socket.socket] = set()        # with children
        self._room = threading.Semaphore(_MAX_STRANGERS)
        self._room_for_others = threading.Semaphore(_MAX_OTHERS)

    def open(self) -> tuple[str, str]:
        """Name of the socket, and the token to be shown there.  Raises OSError."""
        if self._place is None:
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            listener.bind("")                # a name that is in no folder, and gone with the process
            listener.listen(128)
            listener = door.out_of_the_way(listener)
            self._place = listener.getsockname()[1:].decode("latin-1"), door.new_secret()
            self._entrance = Entrance(listener, self._receive)
        return self._place

    def close(self) -> None:
        """Nothing listens any more; the children that are being served are not cut off."""
        entrance, self._entrance, self._place = self._entrance, None, None
        if entrance is not None:
            entrance.close()

    def leave_to_parent(self) -> None:
        """In a forked child: a copy would keep connections open that the parent closes by its end."""
        entrance, self._entrance, self._place = self._entrance, None, None
        if entrance is not None:
            entrance.forget()
        for connection in list(self._connections):
            connection.close()
        self._connections.clear()

    def _receive(self, connection: socket.socket) -> None:
        """A thread for each whose token has still to be looked at, and for each child: other users cannot have many."""
        is_trusted = door.is_trusted_peer(connection)
        room = self._room if is_trusted else self._room_for_others
        if not room.acquire(blocking=is_trusted):
            connection.close()
            return
        try:
            _thread.start_new_thread(self._serve, (connection, self._place, room))
        except RuntimeError:                 # there are too many: the child goes on alone
            room.release()
            connection.close()

    def _serve(self, connection: socket.socket, place: tuple[str, str] | None, room: threading.Semaphore) -> None:
        monitor.suspension.adopt_thread()
        child = None
        self._connections.add(connection)
        wire = Wire(connection.fileno(), connection.fileno(), connection)
        wire.max_message_bytes = MAX_STRANGERS_BYTES
        try:
            try:
                request = wire.read(_ANSWER_SECONDS)
                if request is not None and place is not None:
                    child = Child(Arguments("announce", request.get("arguments")))
            finally:
                room.release()
            if request is not None and child is not None and place is not None and door.is_secret(child.token, place[1]):
                self._family.introduce(child, request, wire)
        except (WireError, RequestError):
            pass
        except Exception:
            dlog.LogException("a child that asks for a session")
        finally:
            self._connections.discard(connection)
            connection.close()


class Child:
    """What one says of itself."""

    def __init__(self, given: Arguments) -> None:
        self.token = given.needed_text("token")
        self.name = given.needed_text("name")
        self.process_id = given.needed_integer("processId")
        self.connect = {"host": given.needed_text("host"), "port": given.needed_integer("port")}
        self.secret = given.needed_text("secret")

    @property
    def title(self) -> str:
        return "%s, process %d" % (self.name, self.process_id)

    def configuration(self, parents: dict[str, Any]) -> dict[str, Any]:
        """That of its session, by the one of its parent."""
        kept = {name: parents[name] for name in arguments.INHERITED if name in parents}
        return {"type": parents.get("type", "brixdebug"), "request": "attach", "name": self.title, **kept,
                "connect": self.connect, "secret": self.secret}


class Family:
    """This process among those that are debugged with it."""

    def __init__(self, server: Server) -> None:
        self._server = server
        self._given: Heritage | None = None          # from the parent
        self._desk = Desk(self)
        self._spawning = spawning.Spawning(self._added_to)
        self._forking = threading.local()

    # -- who is debugged ---------------------------------------------------------------------------

    def _session(self) -> Session | None:
        """The session whose client has the children too."""
        session = self._server.session
        if session is None or not session.has_begun or session.has_gone:
            return None
        return session if session.settings.sub_process and not session.settings.no_debug else None

    def _heritage(self) -> Heritage | None:
        """For a child; None when it runs alone."""
        session, given = self._session(), self._given
        if session is None and (given is None or self._server.session is not None):
            return None
        desks = list(given.desks) if given is not None else []
        if session is not None:
            with contextlib.suppress(OSError):
                desks.append(self._desk.open())
        if not desks:
            return None
        if given is not None:
            return Heritage(desks, given.host, given.ends_program, given.prints_to_client)
        assert session is not None
        return Heritage(desks, session.host, session.ends_program, self._server.prints_to_client)

    def client_has_come(self) -> None:
        """And has said what it wants."""
        self._spawning.begin()
        fork_warning.hide()

    def client_has_gone(self) -> None:
        self._desk.close()
        if self._given is None:
            self._spawning.end()
        fork_warning.show()

    # -- the parent's side: new programs -----------------------------------------------------------

    def _added_to(self, environment: dict[bytes, bytes]) -> dict[bytes, bytes]:
        """The variables of a new process that may be Python's."""
        if VARIABLE.encode() in environment:
            return {}
        heritage = self._heritage()
        if heritage is None:
            # There is nobody at its terminal: `breakpoint()` is for the client, which does not want it.
            return {} if self._server.session is None or b"PYTHONBREAKPOINT" in environment else {b"PYTHONBREAKPOINT": b"0"}
        path = environment.get(b"PYTHONPATH")
        added = {VARIABLE.encode(): os.fsencode(heritage.to_text()),
                 b"PYTHONPATH": os.fsencode(STARTUP_FOLDER) + (b":" + path if path else b"")}
        if path is not None:
            added[PATH_VARIABLE.encode()] = path
        return added

    # -- the parent's side: forks ------------------------------------------------------------------

    def before_fork(self) -> None:
        self._forking.heritage = None if spawning.is_starting(None) else self._heritage()

    def after_fork_in_parent(self) -> None:
        self._forking.heritage = None

    def after_fork_in_child(self, server: Server, frame: FrameType | None) -> None:
        """`server` is the child's own; `frame` has called the fork."""
        heritage = getattr(self._forking, "heritage", None)
        was_stopped = self._server.debugger.stop is not None and self._server.debugger.stop.thread_id == _thread.get_ident()
        self._server = server
        self._desk.leave_to_parent()
        self._given = heritage               # handed on by what is only to become another program
        fork_warning.show()                  # there is one thread
        if heritage is None or was_stopped:
            self._go_alone()
        elif not spawning.is_starting(frame):
            try:
                self.join(heritage)
            except BaseException as error:           # of a signal handler: it is for who has called the fork
                error.__traceback__ = _handlers_part(error.__traceback__)
                monitor.raiser.raise_in_program(error, frame)

    # -- the parent's side: its client -------------------------------------------------------------

    def introduce(self, child: Child, request: dict[str, Any], wire: Wire) -> None:
        """Have the client start a session for a child, which waits at the other end of `wire`."""
        session = self._session()
        if session is None or not session.is_configured:
            return
        if not session.initialize.get("supportsStartDebuggingRequest"):
            session.say("%s can be debugged too: attach with \"connect\": %s and \"secret\": %s\n"
                        % (child.title, json.dumps(child.connect), json.dumps(child.secret)))
            wire.respond(request, {"waits": False})
            return

        def take(response: dict[str, Any] | None) -> None:
            if response is None or not response.get("success"):
                wire.close()                 # the child goes on

        wire.respond(request, {"waits": True})
        session.replies.ask("startDebugging", {"request": "attach", "configuration": child.configuration(session.given)},
                            take)
        if wire.read() is not None:
            session.say("%s goes on without the debugger: nobody has attached to it in %g seconds\n"
                        % (child.title, _CLIENT_SECONDS))

    # -- the child's side --------------------------------------------------------------------------

    def join(self, heritage: Heritage) -> None:
        """Get a session, and wait until its client has set its breakpoints.

        Raises what a signal handler raises meanwhile; the process goes on alone then.
        """
        try:
            self._get_session(heritage)
        except BaseException:
            self._go_alone()
            raise

    def _get_session(self, heritage: Heritage) -> None:
        self._given = heritage
        self._server.prints_to_client = heritage.prints_to_client
        self._server.ends_with_client = heritage.ends_program
        secret = door.new_secret()
        try:
            address = self._server.listen((heritage.host, 0), secret)
        except door.DoorError:
            self._go_alone()
            return
        self._spawning.begin()
        values = {"name": os.path.basename(self._server.program[0]) or "python", "processId": os.getpid(),
                  "host": address[0], "port": address[1], "secret": secret}
        for name, token in heritage.desks:
            with contextlib.suppress(OSError, WireError), socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
                connection.settimeout(_ANSWER_SECONDS)
                connection.connect("\0" + name)
                if not door.is_trusted_peer(connection):
                    continue                 # the desk has closed, and another user has taken its name
                connection.settimeout(None)
                waits = self._ask(Wire(connection.fileno(), connection.fileno(), connection), {**values, "token": token})
                if waits is not None:
                    if waits:
                        self._server.stop_listening()
                    return
        self._go_alone()

    def _ask(self, wire: Wire, values: dict[str, Any]) -> bool | None:
        """Whether a client was to come, and has come or not; None when this desk has none."""
        wire.request("announce", values)
        answer = wire.read(_ANSWER_SECONDS)
        if answer is None:
            return None
        waits = bool((answer.get("body") or {}).get("waits"))
        if waits:
            _thread.start_new_thread(self._watch, (wire,))
            self._wait()
            if not self._server.configured.is_set():
                wire.request("goesAlone", {})
                self._given = None
            wire.close()
        return waits

    def _wait(self) -> None:
        if not self._is_configured_within(_CLIENT_SECONDS) and (self._server.session or self._server.has_visitors):
            self._is_configured_within(_CLIENT_SECONDS)

    def _is_configured_within(self, seconds: int) -> bool:
        """In waits of a second: the handler of a signal that did not wake the main thread is called when one ends."""
        return any(self._server.configured.wait(1.0) for _ in range(seconds))

    def _watch(self, wire: Wire) -> None:
        """Nobody comes any more when the desk has closed."""
        monitor.suspension.adopt_thread()
        with contextlib.suppress(WireError):
            wire.read()
        self._server.configured.set()

    def _go_alone(self) -> None:
        self._given = None
        self._server.stop_listening()
        if self._server.session is None:
            self._spawning.end()


def _handlers_part(traceback: TracebackType | None) -> TracebackType | None:
    """What a signal handler has called, without what it has interrupted here."""
    package = os.path.dirname(os.path.abspath(__file__))
    while traceback is not None and (traceback.tb_frame.f_code.co_filename.startswith(package)
                                     or traceback.tb_frame.f_code.co_filename == threading.__file__):
        traceback = traceback.tb_next
    return traceback


def own_name() -> str:
    """Of a process that has just started, before its `__main__`."""
    name = sys.argv[0] if sys.argv else ""
    if name == "-m":
        words = iter(sys.orig_argv)
        return next((next(words, "") for word in words if word == "-m"), name)
    if name == "-c" and any("multiprocessing." in word for word in sys.orig_argv):
        return "multiprocessing"
    return name
