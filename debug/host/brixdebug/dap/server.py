"""The protocol, answered inside the debugged program: one client at a time.

A thread of the debugger's own reads requests.  What needs a stopped thread is given to
that thread and answered by it; nothing here waits for code of the program.
"""

from __future__ import annotations

import _thread
import contextlib
import errno
import functools
import linecache
import os
import signal
import socket
import threading
import time
import urllib.parse

from brixbase import dlog

from brixdebug.dap import arguments, door
from brixdebug.dap.asking import Arguments, RequestError
from brixdebug.dap.breakpoint_ids import BreakpointIds
from brixdebug.dap.capabilities import CAPABILITIES, EXCEPTION_FILTERS
from brixdebug.dap.redirect import Redirection, flush_streams
from brixdebug.dap.rendering import Boxed
from brixdebug.dap.replies import Replies
from brixdebug.dap.session import ClientDebugger
from brixdebug.dap.sources import Lines, PathMap
from brixdebug.dap.traffic import TrafficFile
from brixdebug.dap.tree import Tree
from brixdebug.dap.wire import MAX_MESSAGE_BYTES, MAX_STRANGERS_BYTES, Wire, WireError
from brixdebug.libraries import Rule
from brixdebug.monitor import monitor
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.dap.session import Stop
    from brixdebug.watching import Change, Watch

    Handler = Callable[["Session", "Request"], Any]

_STRANGER_SECONDS = 10        # to say who one is, from the first moment to the last
_MAX_STRANGERS = 8            # at the same time
_LEAVING_SECONDS = 5.0        # for a client that has gone, before the next one is let in
_RETRY_SECONDS = 0.1          # when no connection can be taken: there may be too many open files
_END_SECONDS = 5.0            # from SIGTERM to the end


class Server:
    """The program's side of all sessions, one after another."""

    def __init__(self, handlers: dict[str, Handler]) -> None:
        self._handlers = handlers
        self.debugger = ClientDebugger(self)
        self.boxed = Boxed(monitor.suspension.adopt_thread)
        self.lines = Lines()
        self.session: Session | None = None
        self.configured = threading.Event()          # a client has said all it has to say before the program goes on
        self.secret: str | None = None
        self.ends_with_client = False                # of those that come in: this process is nothing without one
        self.on_client: Callable[[bool], None] = lambda has_come: None
        self._listener: socket.socket | None = None
        self._strangers: set[Session] = set()        # connected, and not yet known to be a client
        self._door = threading.Condition()           # who is the client
        self.program: tuple[str, str] = ("", "")     # its name, and how it came under the debugger
        self.prints_to_client = False                # the adapter reads what the program prints
        self._redirection: Redirection | None = None

    # -- clients ------------------------------------------------------------------------------

    def listen(self, address: door.Address, secret: str | None) -> door.Address:
        """Let clients in at `address`, in a thread; where that is.  Raises DoorError."""
        if secret is None and door.needs_secret(address):
            raise door.DoorError("%s can be reached from other machines: a secret is needed" % door.show_address(address))
        self._listener, address = door.listen_at(address)
        self.secret = secret
        _thread.start_new_thread(self._accept_all, (self._listener,))
        return address

    def stop_listening(self) -> None:
        listener, self._listener = self._listener, None
        if listener is not None:
            with contextlib.suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)  # wakes the thread that waits for clients
            listener.close()

    @property
    def is_listening(self) -> bool:
        return self._listener is not None

    @property
    def has_visitors(self) -> bool:
        """Somebody is connected who has not said yet who he is."""
        return bool(self._strangers)

    def forget(self) -> None:
        """In a forked child: clients, and who waits for them, are the parent's."""
        session, self.session = self.session, None
        if session is not None:
            session.wire.drop()
        for each in list(self._strangers):
            each.wire.drop()
        redirection, self._redirection = self._redirection, None
        if redirection is not None:
            redirection.forget()
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
            session = self.session
            if session is not None and not session.has_gone or len(self._strangers) >= _MAX_STRANGERS:
                Wire(connection.fileno(), connection.fileno()).event(
                    "output", {"category": "stderr", "output": "%s\n" % _OCCUPIED})
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
            session.wire.event("output", body)

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

    def tell(self, name: str, body: dict[str, Any]) -> None:
        """An event for the client, if there is one."""
        session = self.session
        if session is not None:
            self.debugger.muted(lambda: session.wire.event(name, body))


_OCCUPIED = "Another client is connected to this program."


class Request:
    """One request, which is answered exactly once, by any thread."""

    def __init__(self, session: Session, message: dict[str, Any]) -> None:
        self.session = session
        self.message = message
        self.command: str = message["command"]
        self.arguments = Arguments(self.command, message.get("arguments"))
        self._to_answer = [self]             # emptied by who answers

    def _claims(self) -> bool:
        try:
            self._to_answer.pop()
        except IndexError:
            return False
        self.session.pending.pop(self.message["seq"], None)
        return True

    def answer(self, body: dict[str, Any] | None = None) -> None:
        if self._claims():
            self.session.wire.respond(self.message, body)

    def refuse(self, text: str, short: str | None = None) -> None:
        if self._claims():
            self.session.wire.refuse(self.message, text, short)

    def run(self, handler: Handler) -> None:
        """Answer with what `handler` returns, unless that is LATER; raises nothing."""
        try:
            body = handler(self.session, self)
            if body is not LATER:
                self.answer(body)
        except RequestError as error:
            self.refuse(str(error), error.short)
        except MonitorError as error:
            self.refuse(str(error))
        except Exception as error:
            dlog.LogException("request %s" % self.command)
            self.refuse("%s failed: %s: %s" % (self.command, type(error).__name__, error))

    @property
    def is_answered(self) -> bool:
        return not self._to_answer

    def later(self, handler: Handler, do: Callable[[Callable[[], None]], object]) -> Any:
        """Have `handler` called by what `do` gives tasks to, a stop's `do` for one; not if it is cancelled before."""
        def task() -> None:
            if self._to_answer:
                self.run(handler)

        self.session.pending[self.message["seq"]] = self
        if do(task) is False:
            raise RequestError("the program is running", "notStopped")
        return LATER


LATER: Any = object()


class Session:
    """One client, from its first byte to its last."""

    def __init__(self, server: Server, connection: socket.socket, is_trusted: bool, ends_program: bool = False) -> None:
        self.server = server
        self.debugger = server.debugger
        self.wire = Wire(connection.fileno(), connection.fileno(), connection)
        self.replies = Replies(self.wire)
        name: Any = connection.getsockname()
        self.host: str = name[0] if isinstance(name, tuple) else "127.0.0.1"     # of this machine, for the client
        self.is_configured = False
        self.has_begun = False                       # launch or attach has been answered or is being
        self._is_trusted = is_trusted
        self.ends_program = ends_program
        self._begin_request: Request | None = None
        self.initialize: dict[str, Any] = {}
        self.settings = arguments.Settings("attach")
        self.given: dict[str, Any] = {}              # the arguments of launch or attach, as they came
        self.paths = PathMap([])
        self.tree = Tree(server.boxed)
        self.is_leaving = False
        self.sources: dict[int, str] = {}            # texts that are in no file
        self.breakpoint_ids = BreakpointIds()
        self.pending: dict[int, Request] = {}        # by their numbers: not answered, but by another thread later
        self.running: Request | None = None          # that runs code of the user's
        self.kept: dict[str, Any] = {}               # what the handlers of requests keep for this client
        self.on_watch_end: Callable[[Watch], None] = lambda watch: None
        self.show_change: Callable[[Change], str] = lambda change: ""
        self.on_new_code: Callable[[CodeType], None] = lambda code: None      # see `ClientDebugger.await_code`

    def supports(self, name: str) -> bool:
        """Whether the client has said so in `initialize`."""
        return self.initialize.get(name) is True

    @property
    def has_gone(self) -> bool:
        """The client has left, or its connection has ended."""
        return self.is_leaving or self.wire.is_closed

    # -- reading --------------------------------------------------------------------------------

    def run(self) -> None:
        """In a thread of the debugger's own, until the client has gone."""
        monitor.suspension.adopt_thread()
        is_expected = self.server.session is self
        self.wire.max_message_bytes = MAX_MESSAGE_BYTES if is_expected else MAX_STRANGERS_BYTES
        if not is_expected:
            self.wire.limit_writes(_STRANGER_SECONDS)
        deadline = time.monotonic() + _STRANGER_SECONDS
        try:
            while not self.is_leaving:
                message = self.wire.read(
                    None if self.has_begun or is_expected else max(0.0, deadline - time.monotonic()))
                if message is None:
                    break
                if message["type"] == "request":
                    self._on_request(message)
                elif message["type"] == "response":
                    self.replies.take(message)
        except WireError as error:
            self.wire.event("output", {"category": "stderr", "output": "brixdebug: %s\n" % error})
        except Exception:
            dlog.LogException("the debug adapter")
        finally:
            self._leave()

    def _on_request(self, message: dict[str, Any]) -> None:
        try:
            request = Request(self, message)
        except RequestError as error:
            self.wire.refuse(message, str(error))
            return
        command = request.command
        if command == "initialize":
            request.run(_initialize)
        elif not self.initialize:
            request.refuse("the first request has to be initialize, not %s" % command)
        elif command in ("launch", "attach"):
            request.run(_begin)
        elif command == "disconnect":
            request.run(_disconnect)
        elif not self.has_begun:
            request.refuse("launch or attach comes before %s" % command)
        elif command == "configurationDone":
            request.run(_configuration_done)
        else:
            handler = self.server._handlers.get(command)
            if handler is None:
                request.refuse("%s is not supported" % command)
            else:
                request.run(handler)

    # -- what the client is told --------------------------------------------------------------------

    def say(self, text: str) -> None:
        """Show `text`, which ends with a newline, in the client's console."""
        self.wire.event("output", {"category": "console", "output": text})

    def show_stop(self, stop: Stop) -> bool:
        """False when the client has gone."""
        self.tree.begin(stop)
        body: dict[str, Any] = {"reason": stop.reason, "threadId": self.thread_number(stop.thread_id),
                                "allThreadsStopped": True, "preserveFocusHint": False}
        if stop.text:
            body["text"] = stop.text
        if stop.exception is not None:
            body["description"] = "Exception" if not stop.is_uncaught else \
                "Exception that user code has not handled" if stop.below is not None else "Uncaught exception"
        if stop.changes:
            body["text"] = "\n".join(self.show_change(each) for each in stop.changes)
        numbers = [each.watch.number for each in stop.changes] or [stop.breakpoint_number or 0]
        ids = [each for each in map(self.breakpoint_ids.of, numbers) if each is not None]
        if ids:
            body["hitBreakpointIds"] = ids
        if stop.reason == "breakpoint" and stop.breakpoint_number is not None:
            body["reason"] = self.breakpoint_ids.reason(stop.breakpoint_number)
        return self.wire.event("stopped", body)

    def thread_number(self, thread_id: int) -> int:
        return self.tree.thread_number(thread_id)

    def stop(self) -> Stop:
        """The stop that there is; RequestError without one."""
        stop = self.debugger.stop or self.debugger.rest
        if stop is None:
            raise RequestError("the program is running", "notStopped")
        return stop

    def check_stop(self, stop: Stop) -> None:
        """RequestError when it has ended before a request about it could be served."""
        if stop not in (self.debugger.stop, self.debugger.rest):
            raise RequestError("the program is running", "notStopped")

    def check_held(self, thread_id: int) -> None:
        """RequestError for a thread that runs while others are held."""
        if thread_id in monitor.suspension.alone:
            raise RequestError("thread %d is running" % self.thread_number(thread_id), "notStopped")

    # -- names and lines as the client has them ----------------------------------------------------

    def client_line(self, line: int) -> int:
        return line if self.initialize.get("linesStartAt1", True) else line - 1

    def program_line(self, line: int) -> int:
        return line if self.initialize.get("linesStartAt1", True) else line + 1

    def client_column(self, column: int) -> int:
        return column if self.initialize.get("columnsStartAt1", True) else column - 1

    def program_path(self, source: Arguments) -> str:
        """The program's name of a file that the client names."""
        path = source.text("path")
        if path is None:
            path = self.sources.get(source.integer("sourceReference", 0))
        if path is None:
            raise RequestError("the source has no path")
        if self.initialize.get("pathFormat") == "uri":
            path = urllib.parse.unquote(urllib.parse.urlsplit(path).path)
        return str(self.paths.to_program(path))

    def source(self, filename: str) -> dict[str, Any] | None:
        """The client's name of a file of the program; None for what has no text."""
        if filename.startswith("<") and filename.endswith(">"):
            if not linecache.getlines(filename):
                return None
            return {"name": filename, "sourceReference": self._source_number(filename)}
        path = os.path.abspath(filename)
        return {"name": os.path.basename(path), "path": self.paths.to_client(path)}

    def _source_number(self, filename: str) -> int:
        for number, known in self.sources.items():
            if known == filename:
                return number
        self.sources[len(self.sources) + 1] = filename
        return len(self.sources)

    # -- ending -----------------------------------------------------------------------------------

    def _leave(self) -> None:
        """The client has gone: the program goes on without it, or ends with it."""
        self.is_configured = False
        was_taken = self.wire.was_taken
        self.wire.close()
        self.wire.release()
        self.replies.end()
        if self.server.session is not self:
            self.server.dismiss(self)
            return
        self.server.end_redirection()
        if self.ends_program and not self.is_leaving and not was_taken:
            _end_process()                           # started for a client that died
        self.debugger.in_turn(self._let_go)
        self.server.on_client(False)
        self.server.dismiss(self)
        if not self.is_leaving or self.ends_program:
            self.server.configured.set()

    def _let_go(self) -> None:
        self.debugger.end()
        if self.debugger.stop is not None:
            self.debugger.stop.go_on()


def _end_process() -> None:
    """This process and what it has started, if it leads a group of its own."""
    leads_group = os.getpgrp() == os.getpid()
    kill = functools.partial(os.killpg, 0) if leads_group else functools.partial(os.kill, os.getpid())
    kill(signal.SIGTERM)
    threading.Event().wait(_END_SECONDS)             # for its own handlers
    kill(signal.SIGKILL)


# -- the requests that make a session -------------------------------------------------------------------

def _initialize(session: Session, request: Request) -> Any:
    if session.initialize:
        raise RequestError("initialize comes once")
    session.initialize = {"linesStartAt1": True, "columnsStartAt1": True, **request.arguments.values}
    return dict(CAPABILITIES, exceptionBreakpointFilters=EXCEPTION_FILTERS)


def _begin(session: Session, request: Request) -> Any:
    if session.has_begun:
        raise RequestError("%s comes once" % request.command)
    try:
        settings = arguments.parse(request.command, request.arguments.values)
    except arguments.ArgumentError as error:
        raise RequestError(str(error)) from None
    secret = session.server.secret
    if not session._is_trusted and (secret is None or not door.is_secret(settings.secret, secret)):
        session.is_leaving = True                    # one try for a connection
        request.refuse("this program lets in who gives its 'secret' in the arguments of attach")
        return LATER
    if not session.server.admit(session):
        session.is_leaving = True
        request.refuse(_OCCUPIED)
        return LATER
    _begin_traffic(session, settings)
    session.settings, session.given = settings, request.arguments.values
    session.has_begun = True
    session.wire.max_message_bytes = MAX_MESSAGE_BYTES
    session.wire.limit_writes(0)
    session.paths = PathMap(settings.path_mappings)
    session.debugger.shows_return_values = settings.show_return_value
    session.debugger.set_own_code(settings.just_my_code, [
        Rule(each["include"], session.paths.to_program(each["path"]) if "path" in each else None, each.get("module"))
        for each in settings.rules])
    if settings.redirect_output and not session.server.prints_to_client:
        session.server.redirect_output()
    session._begin_request = request
    if not settings.no_debug:
        session.debugger.in_turn(session.debugger.begin)
        session.server.on_client(True)
    session.wire.event("initialized")
    name, start_method = session.server.program
    session.wire.event("process", {"name": name, "systemProcessId": os.getpid(), "isLocalProcess": True,
                                   "startMethod": start_method, "pointerSize": 64})
    return LATER                                     # answered when the client has configured everything


def _begin_traffic(session: Session, settings: arguments.Settings) -> None:
    if not settings.log_to_file:
        session.wire.note_all(None)
        return
    try:
        traffic = TrafficFile(settings.log_to_file)
    except OSError as error:
        raise RequestError("'logToFile' cannot be written: %s" % error) from None
    session.wire.note_all(traffic.note)
    session.wire.event("output", {"category": "console", "output":
                                  "The messages of this session are written to %s\n" % traffic.path})


def _configuration_done(session: Session, request: Request) -> Any:
    if session.is_configured or session._begin_request is None:
        raise RequestError("configurationDone comes once, after launch or attach")
    request.answer()
    session._begin_request.answer()
    session.is_configured = True
    session.server.configured.set()
    return LATER


def _disconnect(session: Session, request: Request) -> Any:
    session.is_leaving = True
    # Only who was let in by launch or attach may end the program.
    kills = session.has_begun and request.arguments.flag("terminateDebuggee")
    request.answer()
    if kills:
        flush_streams(monitor.suspension.adopt_thread)
        os._exit(0)
    return LATER
