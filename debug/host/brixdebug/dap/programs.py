"""Programs as the adapter has them: started by it, started in a terminal, or found running."""

from __future__ import annotations

import contextlib
import importlib.util
import json
import os
import signal
import socket
import subprocess
import sys
import time

from brixdebug.dap import arguments, door
from brixdebug.dap.output import Pump
from brixdebug.dap.wire import Wire

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

OWN_NUMBERS = 1 << 30            # of the adapter's own requests, and more; those that it passes on have the client's
CONNECT_SECONDS = 30.0           # from its start until a program has come to the debugger
_LOOK_SECONDS = 0.1              # between looks whether a program is still to come
_END_SECONDS = 5.0               # from SIGTERM to SIGKILL
_STANDARD_ERROR = 2
_LOG_VARIABLES = ("BRIXDEBUG_LOG", "BRIXDEBUG_LOG_DOMAINS")
_OUTPUT_SECONDS = 1.0            # for output that others still hold open after the program's end

_START_FILE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "start.py")

_TERMINAL_KINDS = {"integratedTerminal": "integrated", "externalTerminal": "external"}


class ProgramError(Exception):
    """The program cannot be started or reached; the text is for the user."""


class Program:
    """A connection to a debugged program, and what is known of its process."""

    def __init__(self, wire: Wire, process: subprocess.Popen[bytes] | None = None, pump: Pump | None = None) -> None:
        self.wire = wire
        self._process = process                  # None: not our child
        self._pump = pump
        self._exit_code: int | None = None       # what the program itself said

    def drain(self) -> None:
        """Pass on what the program has printed so far."""
        if self._pump is not None:
            self._pump.drain()

    def note_end(self, event: dict[str, Any]) -> None:
        """The program says that it ends."""
        if event["event"] == "exited":
            self._exit_code = (event.get("body") or {}).get("exitCode")

    def wait_for_end(self) -> int | None:
        """Its exit status as a shell has it, None when that is not known; all its output has been passed on."""
        if self._process is None:
            return self._exit_code
        status = self._process.wait()
        if self._pump is not None:
            self._pump.wait(_OUTPUT_SECONDS)
            self._pump.drain()
        return status if status >= 0 else 128 - status

    def ask_to_end(self) -> None:
        """SIGTERM; what ignores it is killed after a while, or when the session ends."""
        if self._process is not None and self._process.poll() is None:
            self._process.terminate()
        else:
            self.wire.request("terminate", {})

    def leave(self, kills: bool, has_lost_client: bool = False) -> None:
        """The session ends: the program goes on without a debugger, or ends.

        One that is nothing without its client ends of the closed connection alone.
        """
        process = self._process
        if kills and process is not None:
            _end(process)
        elif kills or not has_lost_client:
            self.wire.request("disconnect", {"terminateDebuggee": kills})
        self.wire.close()


def _end(process: subprocess.Popen[bytes]) -> None:
    """The process and those that it has started, politely first."""
    _signal_group(process, signal.SIGTERM)
    try:
        process.wait(_END_SECONDS)
    except subprocess.TimeoutExpired:
        pass
    _signal_group(process, signal.SIGKILL)
    process.wait()


def _signal_group(process: subprocess.Popen[bytes], number: int) -> None:
    with contextlib.suppress(ProcessLookupError, PermissionError):
        os.killpg(process.pid, number)           # it leads a session of its own


# -- starting ------------------------------------------------------------------------------------

def start(settings: arguments.Settings, emit: Callable[[str, str], object],
          ask_for_terminal: Callable[[dict[str, Any]], dict[str, Any]] | None, gives_up: Callable[[], bool]) -> Program:
    """Start what `settings` name; it has connected when this returns, unless `gives_up()` meanwhile.

    `ask_for_terminal`: None without a client that has terminals.

    Raises ProgramError, DoorError or ArgumentError; nothing of the program is left then.
    """
    if settings.cwd is not None and not os.path.isdir(settings.cwd):
        raise ProgramError("'cwd' is no folder: %s" % settings.cwd)
    if settings.program is not None and not os.path.exists(os.path.join(settings.cwd or "", settings.program)):
        raise ProgramError("'program' does not exist: %s" % settings.program)
    variables = {**arguments.environment_of(settings), "BRIXDEBUG_FOLDERS": _folder_of_module()}
    variables.update({name: os.environ[name] for name in _LOG_VARIABLES if name in os.environ})
    folder = _private_folder()
    path = os.path.join(folder, "program")
    try:
        listener, address = door.listen_at(path)
        with listener:
            command = [*_python(settings), _START_FILE, door.show_address(address), *_program(settings)]
            if settings.console != "internalConsole" and ask_for_terminal is not None:
                return _start_in_terminal(settings, command, variables, ask_for_terminal, listener, gives_up)
            return _start_here(settings, command, variables, emit, listener, gives_up)
    finally:
        for remove, name in (os.unlink, path), (os.rmdir, folder):
            with contextlib.suppress(OSError):
                remove(name)


def _folder_of_module() -> str:
    """Where this interpreter has the native module, which the program's need not know; it is not loaded for that."""
    spec = importlib.util.find_spec("optmonitoring")
    assert spec is not None and spec.origin is not None          # the package has looked
    return os.path.dirname(spec.origin)


def _private_folder() -> str:
    """A new one for a socket, into which nobody but this user gets, where programs have their temporary files.

    `tempfile` takes longer to be imported than all that a launch needs.
    """
    name = "brixdebug-" + os.urandom(8).hex()
    reasons = []
    for folder in (*map(os.environ.get, ("TMPDIR", "TEMP", "TMP")), "/tmp", "/var/tmp", "."):
        if folder:
            path = os.path.join(os.path.abspath(folder), name)
            try:
                os.mkdir(path, 0o700)
            except OSError as error:
                reasons.append(str(error))
            else:
                return path
    raise ProgramError("there is no folder for temporary files: %s" % "; ".join(reasons))


def _python(settings: arguments.Settings) -> list[str]:
    command = settings.python or [""]
    return [command[0] or sys.executable, *command[1:]]


def _program(settings: arguments.Settings) -> list[str]:
    for kind in ("program", "module", "code"):
        value = getattr(settings, kind)
        if value is not None:
            return [kind, value, *settings.args]
    raise ProgramError("there is nothing to run")


def _start_here(settings: arguments.Settings, command: list[str], variables: dict[str, str | None],
                emit: Callable[[str, str], object], listener: socket.socket, gives_up: Callable[[], bool]) -> Program:
    environment = {name: value for name, value in {**os.environ, **variables}.items() if value is not None}
    environment["BRIXDEBUG_OUTPUT"] = "pipe"
    # What is not wanted at the client goes where the adapter's own words go.
    output = _STANDARD_ERROR if settings.console == "internalConsole" and settings.redirect_output is False \
        else subprocess.PIPE
    try:
        process = subprocess.Popen(command, cwd=settings.cwd, env=environment, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output, start_new_session=True)
    except (OSError, ValueError) as error:
        raise ProgramError("cannot start %s: %s" % (command[0], error)) from None
    pipes = {}
    for pipe, category in (process.stdout, "stdout"), (process.stderr, "stderr"):
        if pipe is not None:
            pipes[os.dup(pipe.fileno())] = category
            pipe.close()
    pump = Pump(emit, pipes)
    try:
        return Program(_accept(listener, lambda: process.poll() is not None, gives_up), process, pump)
    except BaseException:
        _end(process)
        pump.wait(_OUTPUT_SECONDS)
        raise


def _start_in_terminal(settings: arguments.Settings, command: list[str], variables: dict[str, str | None],
                       ask_for_terminal: Callable[[dict[str, Any]], dict[str, Any]],
                       listener: socket.socket, gives_up: Callable[[], bool]) -> Program:
    response = ask_for_terminal({"kind": _TERMINAL_KINDS[settings.console], "title": settings.console_title,
                                 "cwd": settings.cwd or os.getcwd(), "args": command, "env": variables})
    if not response.get("success"):
        raise ProgramError("the editor could not open a terminal: %s" % (response.get("message") or "no reason given"))
    process_id = (response.get("body") or {}).get("processId")
    return Program(_accept(listener, lambda: isinstance(process_id, int) and not _is_running(process_id), gives_up))


def _is_running(process_id: int) -> bool:
    with contextlib.suppress(PermissionError):
        try:
            os.kill(process_id, 0)
        except ProcessLookupError:
            return False
    return True


def _accept(listener: socket.socket, has_ended: Callable[[], bool], gives_up: Callable[[], bool]) -> Wire:
    deadline = time.monotonic() + CONNECT_SECONDS
    listener.settimeout(_LOOK_SECONDS)
    while time.monotonic() < deadline and not gives_up():
        try:
            connection, _ = listener.accept()
        except TimeoutError:
            if has_ended():
                raise ProgramError("the program ended before the debugger was reached; "
                                   "its own output says why") from None
            continue
        connection.settimeout(None)
        return _wire(connection)
    raise ProgramError("the program did not reach the debugger in %g seconds" % CONNECT_SECONDS)


def _wire(connection: socket.socket) -> Wire:
    return Wire(connection.fileno(), connection.fileno(), connection, OWN_NUMBERS + 1)


# -- connecting ------------------------------------------------------------------------------------

def connect(settings: arguments.Settings, say: Callable[[str], object], gives_up: Callable[[], bool]) -> Program:
    """Reach a program that runs already; raises ProgramError or DoorError.  `say` shows the user a line."""
    if settings.process_id is not None:
        return _attach_to_process(settings.process_id, say, gives_up)
    if settings.connect is not None:
        return Program(_wire(door.connect_to(_address(settings.connect), CONNECT_SECONDS)))
    if settings.listen is not None:
        listener, address = door.listen_at(_address(settings.listen))
        with listener:
            if door.needs_secret(address):
                raise ProgramError("'listen' at %s would let anybody in; use the loopback" % door.show_address(address))
            return Program(_accept(listener, lambda: False, gives_up))
    raise ProgramError("attach needs one of 'connect', 'listen' and 'processId'")


def _attach_to_process(process_id: int, say: Callable[[str], object], gives_up: Callable[[], bool]) -> Program:
    from brixdebug import attach, injection          # a launch does without them

    try:
        connection = attach.reach(process_id, "from brixdebug.dap import program", "program.serve_attached(end)",
                                  lambda text: say("%s.\n" % text), gives_up)
    except injection.InjectionError as error:
        raise ProgramError(str(error)) from None
    # One line comes before the protocol: whether the debugger could be loaded.
    connection.settimeout(CONNECT_SECONDS)
    line = b""
    try:
        while not line.endswith(b"\n") and (byte := connection.recv(1)):
            line += byte
        answer = json.loads(line)
    except (OSError, ValueError):
        answer = {"error": "process %d has ended, or cannot load the debugger" % process_id}
    if "error" in answer:
        connection.close()
        raise ProgramError(answer["error"])
    connection.settimeout(None)
    return Program(_wire(connection))


def _address(end_point: dict[str, Any]) -> door.Address:
    return os.path.abspath(end_point["path"]) if "path" in end_point else (end_point["host"], end_point["port"])
