"""The debugged program's process: lets clients in, or comes to one, and runs the program."""

from __future__ import annotations

import atexit
import io
import json
import os
import signal
import sys

from brixdebug import log
from brixdebug.dap import (beginning, breakpoints, control, data_breakpoints, door, exception_filters, expressions,
                           function_breakpoints, inspection, memory, moving)
from brixdebug.dap.children import Family, own_name
from brixdebug.dap.heritage import Heritage
from brixdebug.dap.running import Program
from brixdebug.dap.server import Server
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    import socket
    from types import FrameType
    from typing import Any

HANDLERS = {**beginning.HANDLERS, **control.HANDLERS, **inspection.HANDLERS, **breakpoints.HANDLERS,
            **function_breakpoints.HANDLERS, **data_breakpoints.HANDLERS, **memory.HANDLERS, **moving.HANDLERS,
            **exception_filters.HANDLERS, **expressions.HANDLERS}

# Set by readline when it is loaded, in the environment that new processes get.
for _name in ("LINES", "COLUMNS"):
    if _name not in os.environ:
        os.unsetenv(_name)

server = Server(HANDLERS)
_family = Family(server)


# -- in code ---------------------------------------------------------------------------------------------

def listen(address: int | str | tuple[str, int] = 5678, *, secret: str | None = None) -> str:
    """Let one editor at a time attach to this program; the program goes on meanwhile.

    `address` is a port of the loopback, `(host, port)`, or a text: "HOST:PORT" or "unix:PATH".  Port 0 is one that
    is free.  Another host than the loopback needs a `secret`, which the editor gives in the arguments of its attach.

    Returns the address, as a text.  Raises ValueError for an address that is none, OSError when nothing can listen
    there, RuntimeError when something listens already.
    """
    if server.is_listening:
        raise RuntimeError("this program listens for an editor already")
    if secret is not None and not (isinstance(secret, str) and secret):
        raise ValueError("a secret is a text that is not empty")
    if isinstance(address, tuple):
        if len(address) != 2:
            raise ValueError("an address is (host, port), not %.80r" % (address,))
        host, port = address
        address = "%s:%d" % ("[%s]" % host if ":" in host else host, port)
    try:
        parsed = door.parse_address(str(address))
        if secret is None and door.needs_secret(parsed):
            raise ValueError("%s can be reached from other machines: give a secret" % door.show_address(parsed))
    except door.DoorError as error:
        raise ValueError(str(error)) from None
    if server.program == ("", ""):
        server.program = sys.argv[0] if sys.argv else "", "attachForSuspendedLaunch"
    try:
        return door.show_address(server.listen(parsed, secret))
    except door.DoorError as error:
        raise OSError(str(error)) from None


def wait_for_client() -> None:
    """Wait until an editor has attached and set its breakpoints.  Raises RuntimeError when nothing listens."""
    if not server.is_listening:
        raise RuntimeError("there is nothing to wait for: call listen() first")
    server.configured.wait()


def is_client_connected() -> bool:
    """True while an editor is attached, and has set its breakpoints."""
    session = server.session
    return session is not None and session.is_configured


def breakpoint(*arguments: Any, **keywords: Any) -> None:
    """Stop in the caller if an editor is attached; else nothing."""
    stop_in(sys._getframe(1))


def stop_in(frame: FrameType) -> None:
    """Have the calling thread stop at the next line of `frame`."""
    if is_client_connected():
        server.debugger.set_trace(frame)


# -- command lines -----------------------------------------------------------------------------------------

def main(arguments: list[str]) -> None:
    """`ADDRESS KIND NAME ARGUMENTS...`: run a program for the adapter that listens at ADDRESS."""
    address, kind, name, *rest = arguments
    _open_log(os.environ.pop("BRIXDEBUG_LOG", None), os.environ.pop("BRIXDEBUG_LOG_DOMAINS", None))
    if os.environ.pop("BRIXDEBUG_OUTPUT", None) == "pipe":
        _print_for_client()
        server.prints_to_client = True
    program = _program(kind, name, rest, "launch")
    _connect(address, ends_program=True)
    _run(program)


def serve(arguments: list[str]) -> None:
    """`--listen` or `--connect`, and the program: a program that editors attach to."""
    import argparse

    parser = argparse.ArgumentParser(prog="python -m brixdebug", allow_abbrev=False, usage=
        "%(prog)s --listen [HOST:]PORT | --connect HOST:PORT  [--wait-for-client] [--secret-file FILE]\n"
        "                           [--log FILE] [--log-domains NAME,...] (-m MODULE | -c CODE | PROGRAM) ARGUMENTS")
    where = parser.add_mutually_exclusive_group(required=True)
    where.add_argument("--listen", metavar="[HOST:]PORT", help="let editors attach there; also unix:PATH")
    where.add_argument("--connect", metavar="HOST:PORT", help="go to an editor that waits there")
    parser.add_argument("--wait-for-client", action="store_true", help="do not run before an editor has attached")
    parser.add_argument("--secret-file", metavar="FILE", help="what an editor has to know; needed beyond the loopback")
    parser.add_argument("--log", metavar="FILE", help="write what the debugger does to the end of FILE")
    parser.add_argument("--log-domains", metavar="NAME,...", help="of this only")
    what = parser.add_mutually_exclusive_group()
    what.add_argument("-m", dest="module", nargs=argparse.REMAINDER, help="run a module")
    what.add_argument("-c", dest="code", nargs=argparse.REMAINDER, help="run code")
    parser.add_argument("program", nargs=argparse.REMAINDER, help=argparse.SUPPRESS)
    options = parser.parse_args(arguments)
    kind, words = ("module", options.module) if options.module is not None else \
        ("code", options.code) if options.code is not None else ("program", options.program)
    if not words:
        parser.error("there is no program to run")
    _open_log(options.log, options.log_domains)
    program = _program(kind, words[0], words[1:], "attachForSuspendedLaunch")
    try:
        if options.connect is not None:
            _connect(options.connect, ends_program=False)
        else:
            _listen(options.listen, options.secret_file)
    except door.DoorError as error:
        parser.error(str(error))
    _run(program, waits=options.wait_for_client or options.connect is not None)


_OPTIONS = {"module": ["-m"], "code": ["-c"]}


def _open_log(path: str | None, domains: str | None) -> None:
    try:
        log.open_as_asked(path, domains)
    except (OSError, ValueError) as error:
        raise SystemExit("brixdebug: error: %s" % error) from None


def _program(kind: str, name: str, arguments: list[str], start_method: str) -> Program:
    # What a server runs anew to reload itself: the interpreter's options and the program, without this package.
    interpreter = sys.orig_argv[:len(sys.orig_argv) - len(sys.argv)]
    if interpreter[-1:] == ["-m"]:
        interpreter.pop()
    sys.orig_argv[:] = [*interpreter, *_OPTIONS.get(kind, []), name, *arguments]
    try:
        program = Program(kind, name, arguments)
    except (ImportError, OSError, SyntaxError) as error:
        raise SystemExit("brixdebug: cannot run %s: %s" % (name, error)) from None
    server.program = program.name, start_method
    return program


def _connect(address: str, ends_program: bool) -> None:
    try:
        connection = door.connect_to(door.parse_address(address))
    except door.DoorError as error:
        raise SystemExit("brixdebug: %s" % error) from None
    server.serve(connection, ends_program=ends_program)


def _listen(text: str, secret_file: str | None) -> None:
    address = door.parse_address(text)
    address = server.listen(address, door.secret_for(address, secret_file))
    print("brixdebug: listening at %s" % door.show_address(address), file=sys.stderr, flush=True)


def _print_for_client() -> None:
    """Lines go to the client as they are printed, although it is no terminal that they go to."""
    for file in (sys.stdout, sys.stderr):
        if isinstance(file, io.TextIOWrapper):
            file.reconfigure(encoding="utf-8", errors="backslashreplace", line_buffering=True)


def _run(program: Program, waits: bool = True) -> None:
    """Run it under the debugger, and end this process as it would have ended."""
    if "PYTHONBREAKPOINT" not in os.environ:
        sys.breakpointhook = breakpoint
    if waits:
        server.configured.wait()
    session = server.session
    if session is not None and session.settings.stop_on_entry:
        server.debugger.stop_at_entry()
    status = program.run(_main_raised)
    server.debugger.main_has_ended()
    atexit.register(server.program_ends, status)     # all threads have ended
    if status == 128 + signal.SIGINT and program.was_interrupted:
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        atexit.register(os.kill, os.getpid(), signal.SIGINT)     # as the interpreter itself ends of it
    sys.exit(status)


def _main_raised(exception: BaseException, frame: FrameType) -> None:
    server.debugger.main_raised(exception, frame)    # the server of this process: it may be a child by now


# -- children ------------------------------------------------------------------------------------------------

def begin_child(text: str) -> None:
    """In a new process, before its `__main__`: `text` is what it has of its parents."""
    server.program = own_name(), "attachForSuspendedLaunch"
    _take_hooks()
    atexit.register(server.program_ends)
    _family.join(Heritage.from_text(text))


# -- a program that runs already ---------------------------------------------------------------------------

def serve_attached(end: socket.socket) -> None:
    """Called by what another process has injected: serve the client at its other end, after a line that says so."""
    if monitor.debugger is not None or server.session is not None:
        end.sendall(_line(error="process %d is being debugged already" % os.getpid()))
        end.close()
        return
    server.program = sys.argv[0] if sys.argv else "", "attach"
    _take_hooks()
    end.sendall(_line(isServed=True))
    server.serve(end)


def _line(**message: object) -> bytes:
    return json.dumps(message).encode() + b"\n"


# -- hooks of the interpreter, where the program was not started by this module --------------------------------

_hooks: list[tuple[str, Any, Any]] = []              # name in sys, ours, what was there before


def _take_hooks() -> None:
    show = sys.excepthook

    def excepthook(kind: Any, error: BaseException, traceback: Any) -> None:
        _main_raised(error, sys._getframe())
        show(kind, error, traceback)

    if not _hooks:
        _hooks.append(("excepthook", excepthook, show))
        if "PYTHONBREAKPOINT" not in os.environ:
            _hooks.append(("breakpointhook", breakpoint, sys.breakpointhook))
        for name, ours, _ in _hooks:
            setattr(sys, name, ours)


def _give_hooks_back() -> None:
    """But for what somebody else has put there meanwhile."""
    for name, ours, before in _hooks:
        if getattr(sys, name) is ours:
            setattr(sys, name, before)
    _hooks.clear()


def _on_client(has_come: bool) -> None:
    if has_come:
        _family.client_has_come()
    else:
        _family.client_has_gone()
        if server.program[1] == "attach":
            _give_hooks_back()


def _after_fork_in_child() -> None:
    """The client is the parent's alone; a copy of its connection would keep it open."""
    global server
    before = server
    before.forget()
    before.debugger.end()
    if before.debugger.stop is not None:
        before.debugger.stop.go_on()                 # what was forked at a stop does not stay there
    server = Server(HANDLERS)
    server.program, server.on_client = before.program, _on_client
    _family.after_fork_in_child(server, sys._getframe(1))


server.on_client = _on_client
os.register_at_fork(before=_family.before_fork, after_in_child=_after_fork_in_child,
                    after_in_parent=_family.after_fork_in_parent)
