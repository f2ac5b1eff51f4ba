"""`brixdebug -p PID`: a prompt at this terminal for a program that runs already.

The program connects to a socket in a folder that nobody else can enter; any other process
that connects is refused by its id.  The program keeps its own terminal and streams.
"""

from __future__ import annotations

import contextlib
import math
import os
import shutil
import signal
import socket
import struct
import sys
import tempfile
import time

import optmonitoring

from brixdebug import injection
from brixdebug.channel import Connection

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterator
    from typing import Any

# How long a program that runs Python code needs to answer, at most.
_ANSWER_SECONDS = 5.0
_LOOK_SECONDS = 0.5              # between looks whether it is still there

# Runs in the program.  Once the other end has given up there is no socket, and this does nothing.
_SCRIPT = """\
def attach():
    import json, socket, sys
    end = socket.socket(socket.AF_UNIX)
    try:
        end.connect(%(address)r)
    except OSError:
        return
    folders = %(folders)r
    sys.path[:0] = folders
    try:
        %(load)s
    except BaseException as error:
        text = "the debugger cannot be loaded there: %%s: %%s" %% (type(error).__name__, error)
        end.sendall(json.dumps({"error": text}).encode() + b"\\n")
        end.close()
        return
    finally:
        for folder in folders:
            sys.path.remove(folder)
    %(call)s
attach()
"""


def main(pid: int, commands: list[str]) -> int:
    """Attach to process `pid` and run `commands` there first; the exit status."""
    try:
        end = reach(pid, "from brixdebug import attached", "attached.serve(end, sys._getframe(1), %r)" % commands,
                    lambda text: print(text + "; Ctrl-C gives up.", flush=True))
    except injection.InjectionError as error:
        print("brixdebug: error: %s" % error, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nGiven up.")
        return 1
    return Client(pid, end).run()


@contextlib.contextmanager
def _private_folder(pid: int) -> Iterator[str]:
    """A new folder that only this user may enter, or the program's where root attaches; gone afterwards."""
    folder = tempfile.mkdtemp(prefix="brixdebug-")
    try:
        with contextlib.suppress(OSError):
            owner = os.stat("/proc/%d" % pid)
            if owner.st_uid != os.geteuid():
                os.chown(folder, owner.st_uid, owner.st_gid)
        yield folder
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def reach(pid: int, load: str, call: str, say: Callable[[str], object],
          gives_up: Callable[[], bool] = lambda: False) -> socket.socket:
    """Have the program connect, and wait until it does, or until `gives_up()`.

    In the program, `load` imports what `call` needs, and `call` finds the connection as `end`.  `say` is called
    once when this takes long, with the beginning of a sentence.  Raises InjectionError.
    """
    with _private_folder(pid) as folder:
        address, script = os.path.join(folder, "socket"), os.path.join(folder, "attach.py")
        here = os.path.dirname(os.path.abspath(__file__))
        folders = list(dict.fromkeys([os.path.dirname(here), os.path.dirname(os.path.abspath(optmonitoring.__file__))]))
        with open(script, "w") as file:
            file.write(_SCRIPT % {"address": address, "folders": folders, "load": load, "call": call})
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(address)
            for name in (address, script):        # the folder is what keeps others out
                os.chmod(name, 0o666)
            server.listen(1)
            server.settimeout(_LOOK_SECONDS)
            injection.inject(pid, script)
            try:
                return _wait(pid, server, say, gives_up)
            except BaseException:
                injection.take_back(pid)
                raise


def _wait(pid: int, server: socket.socket, say: Callable[[str], object],
          gives_up: Callable[[], bool] = lambda: False) -> socket.socket:
    patience = time.monotonic() + _ANSWER_SECONDS
    while not gives_up():
        try:
            end, _ = server.accept()
        except TimeoutError:
            if not _is_alive(pid):
                raise injection.InjectionError("process %d has ended" % pid) from None
            if time.monotonic() > patience:
                say("Process %d does not answer: its main thread is inside C code, it sleeps or waits.  It is attached "
                    "as soon as it runs Python code again" % pid)
                patience = math.inf
            continue
        if _peer(end) == pid:
            end.settimeout(None)
            return end
        end.close()
    raise injection.InjectionError("process %d has not answered" % pid)


def _is_alive(pid: int) -> bool:
    try:
        with open("/proc/%d/stat" % pid) as file:
            return file.read().rpartition(")")[2].split()[0] not in "ZX"
    except OSError:
        return False


def _peer(end: socket.socket) -> int:
    """The id of the process at the other end."""
    credentials = end.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    pid: int = struct.unpack("3i", credentials)[0]
    return pid


class Client:
    """The terminal's side: shows what comes and reads what is asked for."""

    def __init__(self, pid: int, end: socket.socket) -> None:
        self._pid = pid
        self._connection = Connection(end)
        self._begun_line = ""                 # shown by `input`, as its prompt
        self._can_interrupt = False
        self._completions: list[str] = []
        self._status: int | None = None       # of this process, once it is to end

    def run(self) -> int:
        """Until the program is left or has ended; the exit status."""
        self._prepare_readline()
        while self._status is None:
            try:
                message = self._connection.receive()
            except KeyboardInterrupt:
                self._interrupt()
                continue
            if message is None:
                self._end("Process %d has ended." % self._pid, 0)
                continue
            for kind, take in _TAKERS.items():
                if kind in message:
                    take(self, message)
        return self._status

    def _end(self, text: str, status: int) -> None:
        self._show_begun_line()
        print(text, flush=True)
        self._status = status

    # -- what comes from the program -------------------------------------------------------

    def take_out(self, message: dict[str, Any]) -> None:
        before, newline, self._begun_line = (self._begun_line + message["out"]).rpartition("\n")
        sys.stdout.write(before + newline)
        sys.stdout.flush()

    def take_error(self, message: dict[str, Any]) -> None:
        self._show_begun_line()
        print("brixdebug: error: %s" % message["error"], file=sys.stderr)
        self._status = 1

    def take_state(self, message: dict[str, Any]) -> None:
        self._show_begun_line()
        self._can_interrupt = message.get("interrupts", False)
        if message["state"] == "detached":
            self._end("Detached: process %d goes on." % self._pid, 0)

    def take_read(self, message: dict[str, Any]) -> None:
        prompt, self._begun_line = self._begun_line, ""
        # At the prompt, and in what is evaluated there, an interrupt is the debugger's.
        self._can_interrupt = True
        try:
            self._connection.send(line=input(prompt))
        except EOFError:
            self._connection.send(eof=True)
        except KeyboardInterrupt:
            self._connection.send(interrupt=True)

    def _show_begun_line(self) -> None:
        sys.stdout.write(self._begun_line)
        sys.stdout.flush()
        self._begun_line = ""

    def _interrupt(self) -> None:
        if not self._can_interrupt:
            print("\nThe program handles Ctrl-C itself, so it is not interrupted; it stops at a breakpoint.", flush=True)
            return
        with contextlib.suppress(ProcessLookupError):
            os.kill(self._pid, signal.SIGINT)

    # -- completion ------------------------------------------------------------------------

    def _prepare_readline(self) -> None:
        try:
            import readline
        except ImportError:
            return
        readline.set_completer_delims(" \t\n`@#%^&*()=+[{]}\\|;:'\",<>?")
        readline.set_completer(self._complete)
        readline.parse_and_bind("tab: complete")

    def _complete(self, text: str, state: int) -> str | None:
        if state == 0:
            import readline
            line = readline.get_line_buffer()
            stripped = line.lstrip()
            cut = len(line) - len(stripped)
            self._connection.send(complete=[text, stripped, readline.get_begidx() - cut, readline.get_endidx() - cut])
            message = self._connection.receive() or {}
            self._completions = message.get("completions", [])
        return self._completions[state] if state < len(self._completions) else None


_TAKERS: dict[str, Any] = {"out": Client.take_out, "error": Client.take_error, "state": Client.take_state,
                           "read": Client.take_read}
