"""One client, from its first byte to its last, and its requests, each answered exactly once."""

from __future__ import annotations

import functools
import linecache
import os
import signal
import threading
import time

from brixbase import dlog

from brixdebug.dap import arguments
from brixdebug.dap.asking import Arguments, RequestError
from brixdebug.dap.breakpoint_ids import BreakpointIds
from brixdebug.dap.cancelling import Running
from brixdebug.dap.replies import Replies
from brixdebug.dap.sources import PathMap, path_of_uri, uri_of_path
from brixdebug.dap.thread_events import ThreadEvents
from brixdebug.dap.tree import Tree
from brixdebug.dap.wire import MAX_MESSAGE_BYTES, MAX_STRANGERS_BYTES, Wire, WireError
from brixdebug.monitor import monitor
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Mapping
    import socket
    from types import CodeType
    from typing import Any, Protocol

    from brixdebug.dap.rendering import Boxed
    from brixdebug.dap.sources import Lines
    from brixdebug.dap.stopping import ClientDebugger, Stop
    from brixdebug.watching import Change, Watch

    Handler = Callable[["Session", "Request"], Any]

    class Host(Protocol):
        """The program's side of all sessions, as one of them needs it."""

        debugger: ClientDebugger
        boxed: Boxed
        lines: Lines
        session: Session | None
        configured: threading.Event
        secret: str | None
        program: tuple[str, str]
        prints_to_client: bool
        on_client: Callable[[bool], None]
        handlers: Mapping[str, Handler]

        def admit(self, session: Session) -> bool: ...

        def dismiss(self, session: Session) -> None: ...

        def redirect_output(self) -> None: ...

        def end_redirection(self) -> None: ...

_STRANGER_SECONDS = 10        # to say who one is, from the first moment to the last
_END_SECONDS = 5.0            # from SIGTERM to the end
# ADD-REQUEST: its name, if it may come before `launch`.
_ALWAYS = ("initialize", "launch", "attach", "disconnect")       # what a client may ask for that has not begun


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

        if self.session.is_stuck:
            raise RequestError(_STUCK)
        self.session.pending[self.message["seq"]] = self
        if do(task) is False:
            raise RequestError("the program is running", "notStopped")
        return LATER


LATER: Any = object()
_STUCK = "an expression that was cancelled has not ended: it is inside C code that cannot be interrupted"


class Session:
    """One client, from its first byte to its last."""

    def __init__(self, server: Host, connection: socket.socket, is_trusted: bool, ends_program: bool = False) -> None:
        self.server = server
        self.debugger = server.debugger
        self.wire = Wire(connection.fileno(), connection.fileno(), connection)
        self.replies = Replies(self.wire)
        name: Any = connection.getsockname()
        self.host: str = name[0] if isinstance(name, tuple) else "127.0.0.1"     # of this machine, for the client
        self.is_configured = False
        self.has_begun = False                       # launch or attach has been answered or is being
        self.is_trusted = is_trusted
        self.ends_program = ends_program
        self.begin_request: Request | None = None
        self.initialize: dict[str, Any] = {}
        self.settings = arguments.Settings("attach")
        self.given: dict[str, Any] = {}              # the arguments of launch or attach, as they came
        self.paths = PathMap([])
        self.tree = Tree(server.boxed)
        self.thread_events = ThreadEvents(self.debugger, self.tree, self.wire)
        self.is_leaving = False
        self.sources: dict[int, str] = {}            # texts that are in no file
        self._numbering = threading.Lock()           # of these: threads that reach a breakpoint with a text to be logged do it
        self.breakpoint_ids = BreakpointIds()
        self.pending: dict[int, Request] = {}        # by their numbers: not answered, but by another thread later
        self.running: Running | None = None          # a request that runs code of the user's
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

    # -- expressions ----------------------------------------------------------------------------

    def runs(self, request: Request) -> Running:
        """A context manager around code of the user's that `request` runs."""
        self.running = Running(request, self._on_stuck, self._on_stuck_end)
        return self.running

    @property
    def is_stuck(self) -> bool:
        """A cancelled expression has not ended, and with it the thread that serves requests."""
        return self.running is not None and self.running.is_stuck

    def _on_stuck(self) -> None:
        self.say("The expression that was cancelled is inside C code that cannot be interrupted. Until it comes back, "
                 "requests that need its thread are refused.\n")
        for each in list(self.pending.values()):
            each.refuse(_STUCK)

    def _on_stuck_end(self) -> None:
        self.say("The expression that was cancelled has ended.\n")

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
        handler = self.server.handlers.get(command)
        if not self.initialize and command != "initialize":
            request.refuse("the first request has to be initialize, not %s" % command)
        elif not self.has_begun and command not in _ALWAYS:
            request.refuse("launch or attach comes before %s" % command)
        elif handler is None:
            request.refuse("%s is not supported" % command)
        else:
            request.run(handler)

    # -- what goes to the client --------------------------------------------------------------------

    def say(self, text: str) -> None:
        """Show `text`, which ends with a newline, in the client's console."""
        self.wire.event("output", {"category": "console", "output": text})

    def show_stop(self, stop: Stop) -> bool:
        """False when the client has gone."""
        self.thread_events.drain()
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
            name = self.sources.get(source.integer("sourceReference", 0))
            if name is None:
                raise RequestError("the source has no path")
            return name
        return self.paths.to_program(path_of_uri(path) if self._has_uris else path)

    def client_path(self, path: str) -> str:
        """The client's name of a file of the program."""
        path = self.paths.to_client(os.path.abspath(path))
        return uri_of_path(path) if self._has_uris else path

    @property
    def _has_uris(self) -> bool:
        return self.initialize.get("pathFormat") == "uri"

    def source(self, filename: str) -> dict[str, Any] | None:
        """The client's name of a file of the program; None for what has no text."""
        if filename.startswith("<") and filename.endswith(">"):
            if not linecache.getlines(filename):
                return None
            return {"name": filename, "sourceReference": self._source_number(filename)}
        return {"name": os.path.basename(os.path.abspath(filename)), "path": self.client_path(filename)}

    def _source_number(self, filename: str) -> int:
        with self._numbering:
            for number, known in self.sources.items():
                if known == filename:
                    return number
            self.sources[len(self.sources) + 1] = filename
            return len(self.sources)

    # -- ending -----------------------------------------------------------------------------------

    def _leave(self) -> None:
        """The client has gone: the program goes on without it, or ends with it."""
        self.is_configured = False
        self._cancel_all()
        self.thread_events.forget()
        was_taken = self.wire.was_taken
        self.wire.close()
        self.wire.release()
        self.replies.end()
        if self.server.session is not self:
            self.server.dismiss(self)
            return
        self.server.end_redirection()
        if self.ends_program and not self.is_leaving and not was_taken and not self.wire.has_stalled:
            _end_process()                           # started for a client that died
        self.debugger.in_turn(self._let_go)
        self.server.on_client(False)
        self.server.dismiss(self)
        if not self.is_leaving or self.ends_program:
            self.server.configured.set()

    def _cancel_all(self) -> None:
        """Nobody waits for what this client has asked for: the thread that evaluates it is to go on."""
        for each in list(self.pending.values()):
            each.refuse("the client has gone")
        running = self.running
        if running is not None:
            running.cancel()

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
