"""The process that an editor starts: starts programs or connects to them, and relays.

The protocol itself is answered inside the program (`server`).  This process adds what
has to outlive the program: its output, its exit status, and its end when the editor ends.
"""

from __future__ import annotations

import queue
import sys
import threading
import time

from brixdebug.dap import arguments, capabilities, door, programs
from brixdebug.dap.asking import Arguments, RequestError
from brixdebug.dap.replies import Replies
from brixdebug.dap.traffic import TrafficFile
from brixdebug.dap.wire import MAX_MESSAGE_BYTES, MAX_STRANGERS_BYTES, Wire, WireError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

    from brixdebug.dap.programs import Program

_GIVE_UP_SECONDS = 10.0       # for what is being started; it looks more often than that


class Adapter:
    """One session with one client."""

    def __init__(self, client: Wire, secret: str | None = None, on_begin: Callable[[], None] | None = None,
                 stranger_seconds: int | None = None) -> None:
        """`on_begin` is called when the client has shown its `secret`, for which it has `stranger_seconds`."""
        self._client = client
        self._secret = secret
        self._on_begin_session = on_begin
        self._stranger_seconds = stranger_seconds
        self._deadline = None if stranger_seconds is None else time.monotonic() + stranger_seconds
        self._initialize: dict[str, Any] | None = None
        self._settings: arguments.Settings | None = None
        self._program: Program | None = None
        self._beginning: dict[str, Any] | None = None          # the launch or attach that is under way
        self._begun: dict[str, Any] = {}                       # that of the program that runs, for a restart
        self._swallowed: set[int] = set()                      # requests that this process has answered itself
        self._lock = threading.Lock()
        self._replies = Replies(client)
        self._beginner: threading.Thread | None = None         # starts or attaches to the program
        self._has_given_up = threading.Event()                 # there is nobody any more to start it for
        self._unanswered: dict[int, dict[str, Any]] = {}       # requests that the program has got
        self._has_ended = False                                # the program has, and the client knows

    def run(self) -> None:
        """Until the client has gone; nothing that was started for it is left then."""
        if self._stranger_seconds is not None:
            self._client.max_message_bytes = MAX_STRANGERS_BYTES
            self._client.limit_writes(self._stranger_seconds)
        try:
            while (message := self._client.read(self._seconds_left())) is not None:
                if not self._on_client(message):
                    break
        except WireError as error:
            print("brixdebug.dap: the client: %s" % error, file=sys.stderr)
        finally:
            self._client.close()
            self._give_up_beginning()
            if self._program is not None:
                self._program.leave(kills=self._is_launch(), has_lost_client=True)

    def _seconds_left(self) -> float | None:
        """For a peer that is not known yet; None: it may take its time."""
        return None if self._deadline is None else max(0.0, self._deadline - time.monotonic())

    def _is_launch(self) -> bool:
        return self._settings is not None and self._settings.request == "launch"

    # -- from the client -------------------------------------------------------------------

    def _on_client(self, message: dict[str, Any]) -> bool:
        """False when the session has ended."""
        if message["type"] == "response":
            self._replies.take(message)
        elif message["type"] == "request":
            return self._on_request(message)
        return True

    def _on_request(self, message: dict[str, Any]) -> bool:
        command = message["command"]
        try:
            Arguments(command, message.get("arguments"))
        except RequestError as error:
            self._client.refuse(message, str(error))
            return True
        # ADD-REQUEST: a branch, if it may come before `launch` or this process answers it.
        if command == "initialize":
            self._on_initialize(message)
        elif self._initialize is None:
            self._client.refuse(message, "the first request has to be initialize, not %s" % command)
        elif command == "disconnect":
            return self._on_disconnect(message)
        elif command in ("launch", "attach"):
            self._on_begin(message)
        elif self._program is None or self._beginning is not None:
            self._client.refuse(message, "there is no program yet: launch or attach comes first")
        elif command == "terminate" and self._terminate(message):
            pass
        elif command == "restart" and self._is_launch():
            self._restart(message)
        else:
            self._pass_to_program(message)
        return True

    def _on_initialize(self, message: dict[str, Any]) -> None:
        if self._initialize is not None:
            self._client.refuse(message, "initialize comes once")
            return
        try:
            body = capabilities.answer(Arguments("initialize", message.get("arguments")), is_adapter=True)
        except RequestError as error:
            self._client.refuse(message, str(error))
            return
        self._initialize = message
        self._swallowed.add(message["seq"])
        self._client.respond(message, body)

    def _pass_to_program(self, message: dict[str, Any]) -> None:
        """The program's response refers to the client's own number."""
        with self._lock:
            self._unanswered[message["seq"]] = message
        if self._program is None or not self._program.wire.pass_on(message):
            self._refuse_unanswered()

    def _refuse_unanswered(self) -> None:
        """What an ended program will answer no more."""
        with self._lock:
            unanswered, self._unanswered = self._unanswered, {}
        for message in unanswered.values():
            if message["command"] in ("disconnect", "terminate"):
                self._client.respond(message)
            else:
                self._client.refuse(message, "the program has ended")

    # -- beginning -------------------------------------------------------------------------

    def _on_begin(self, message: dict[str, Any]) -> None:
        if self._settings is not None:
            self._client.refuse(message, "%s comes once" % message["command"])
            return
        try:
            self._settings = arguments.parse(message["command"], message.get("arguments"))
        except arguments.ArgumentError as error:
            self._client.refuse(message, str(error), shows=True)
            return
        if self._secret is not None and not door.is_secret(self._settings.secret, self._secret):
            self._settings = None
            self._client.refuse(message, "this adapter serves who gives its 'secret' in the arguments of %s"
                                % message["command"], shows=True)
            return
        self._client.max_message_bytes, self._deadline = MAX_MESSAGE_BYTES, None
        self._client.limit_writes(0)
        if self._on_begin_session is not None:
            self._on_begin_session()
        if not self._begin_traffic(message, self._settings):
            return
        if self._settings.ignored:
            self._say(arguments.ignored_text(self._settings))
        self._beginning = message
        # Not in this thread: a client answers the request for a terminal while launch is under way.
        self._beginner = threading.Thread(target=self._begin, args=(message, self._settings), name="begin", daemon=True)
        self._beginner.start()

    def _give_up_beginning(self) -> None:
        """Nothing is left of what was being started."""
        self._has_given_up.set()
        self._replies.end()
        if self._beginner is not None:
            self._beginner.join(_GIVE_UP_SECONDS)

    def _begin_traffic(self, message: dict[str, Any], settings: arguments.Settings) -> bool:
        """Have the messages written to a file, if that was asked for; False when it cannot be."""
        if not settings.log_to_file:
            self._client.note_all(None)
            return True
        try:
            traffic = TrafficFile(settings.log_to_file)
        except OSError as error:
            self._settings = None
            self._client.refuse(message, "'logToFile' cannot be written: %s" % error, shows=True)
            return False
        self._client.note_all(traffic.note)
        self._say("The messages of this session are written to %s\n" % traffic.path)
        return True

    def _say(self, text: str, category: str = "console") -> None:
        self._client.event("output", {"category": category, "output": text})

    def _begin(self, message: dict[str, Any], settings: arguments.Settings) -> None:
        try:
            program = programs.start(settings, self._emit, self._ask_for_terminal if self._has_terminals() else None,
                                     self._has_given_up.is_set) \
                if settings.request == "launch" else programs.connect(settings, self._say, self._has_given_up.is_set)
        except (programs.ProgramError, door.DoorError, arguments.ArgumentError) as error:
            self._refuse_beginning(message, str(error))
            return
        except Exception as error:               # whatever it is: a client waits for its answer
            self._refuse_beginning(message, "%s failed: %s: %s" % (message["command"], type(error).__name__, error))
            return
        if self._has_given_up.is_set():          # the client went while the program was starting
            program.leave(kills=self._is_launch())
            return
        self._program, self._beginning, self._begun = program, None, message
        threading.Thread(target=self._relay, args=(program,), name="relay", daemon=True).start()
        program.wire.pass_on(self._initialize or {})
        # Messages are written by this process, and what has no effect has been said.
        given = {name: value for name, value in message["arguments"].items()
                 if name != "logToFile" and name not in settings.ignored}
        self._pass_to_program({**message, "arguments": given})

    def _refuse_beginning(self, message: dict[str, Any], text: str) -> None:
        self._settings = self._beginning = None
        self._client.refuse(message, text, shows=True)
        self._client.event("terminated")

    def _emit(self, category: str, text: str) -> None:
        self._client.event("output", {"category": category, "output": text})

    def _has_terminals(self) -> bool:
        arguments_: Any = (self._initialize or {}).get("arguments") or {}
        return bool(arguments_.get("supportsRunInTerminalRequest"))

    def _ask_for_terminal(self, body: dict[str, Any]) -> dict[str, Any]:
        """Have the client run a command in a terminal: its response."""
        answers: queue.SimpleQueue[dict[str, Any] | None] = queue.SimpleQueue()
        self._replies.ask("runInTerminal", body, answers.put)
        try:
            answer = answers.get(timeout=programs.CONNECT_SECONDS)
        except queue.Empty:
            answer = None
        if answer is None:
            raise programs.ProgramError("the editor did not answer the request for a terminal")
        return answer

    # -- from the program --------------------------------------------------------------------

    def _relay(self, program: Program) -> None:
        """Everything that the program says goes to the client, after what it had printed before."""
        try:
            while (message := program.wire.read()) is not None:
                self._on_program(program, message)
        except WireError as error:
            self._say("The connection to the program broke: %s\n" % error, "stderr")
        if program is self._program:
            self._on_program_end(program)

    def _on_program(self, program: Program, message: dict[str, Any]) -> None:
        if message["type"] == "response":
            with self._lock:
                self._unanswered.pop(message["request_seq"], None)
            if message["request_seq"] in self._swallowed or message["request_seq"] > programs.OWN_NUMBERS:
                return
        elif message["type"] == "request":
            self._pass_request_to_client(program, message)
            return
        elif message["event"] in ("exited", "terminated"):
            program.note_end(message)            # said when the process has ended, and all its output is here
            return
        program.drain()
        self._client.send(message)

    def _pass_request_to_client(self, program: Program, message: dict[str, Any]) -> None:
        """Sessions with its children; a program elsewhere may not have the editor start anything on this machine."""
        if not _attaches(message):
            program.wire.pass_on({"seq": programs.OWN_NUMBERS, "type": "response", "request_seq": message["seq"],
                                  "success": False, "command": message["command"],
                                  "message": "programs may ask for sessions with their children alone"})
            return

        def take(response: dict[str, Any] | None) -> None:
            if response is not None:
                program.wire.pass_on({**response, "request_seq": message["seq"]})

        self._replies.ask(message["command"], message.get("arguments") or {}, take)

    def _on_program_end(self, program: Program) -> None:
        program.wire.close()                     # a write to one who has gone may succeed, and nobody answers
        exit_code = program.wait_for_end()
        self._refuse_unanswered()
        self._has_ended = True
        if exit_code is not None:
            self._client.event("exited", {"exitCode": exit_code})
        self._client.event("terminated")

    # -- ending ------------------------------------------------------------------------------

    def _terminate(self, message: dict[str, Any]) -> bool:
        if self._has_ended or self._program is None or not self._is_launch():
            if self._has_ended:
                self._client.respond(message)
            return self._has_ended
        self._client.respond(message)
        self._program.ask_to_end()
        return True

    def _restart(self, message: dict[str, Any]) -> None:
        """The program is started anew, and the client asked for its configuration again."""
        old, self._program = self._program, None
        if old is not None:
            old.leave(kills=True)
        self._refuse_unanswered()
        self._has_ended, self._settings = False, None
        self._client.respond(message)
        self._swallowed.add(self._begun["seq"])
        given = (message.get("arguments") or {}).get("arguments")
        self._on_begin(self._begun if given is None else {**self._begun, "arguments": given})

    def _on_disconnect(self, message: dict[str, Any]) -> bool:
        given = message.get("arguments") or {}
        kills = given.get("terminateDebuggee")
        if kills is None:
            kills = self._is_launch()
        self._give_up_beginning()
        program, self._program = self._program, None
        if program is not None:
            program.leave(kills=bool(kills))
        self._client.respond(message)
        return False


def _attaches(request: dict[str, Any]) -> bool:
    """Whether it asks for a session with a program that listens."""
    given: Any = request.get("arguments")
    configuration: Any = given.get("configuration") if isinstance(given, dict) else None
    return request["command"] == "startDebugging" and isinstance(configuration, dict) \
        and given.get("request") == configuration.get("request") == "attach" and isinstance(configuration.get("connect"), dict)
