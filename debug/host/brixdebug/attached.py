"""The side of an attached program: its prompt is at the terminal of the process that has attached."""

from __future__ import annotations

import bdb
import contextlib
import os
import pdb
import signal
import sys
import types

from brixdebug.channel import Connection, Reader, Writer
from brixdebug.debugger import Debugger
from brixdebug.monitor import monitor
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    import socket
    from collections.abc import Iterator
    from types import FrameType
    from typing import Any


class AttachedDebugger(Debugger):
    """A debugger that may go while the program stays."""

    connection: Connection

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.pyrepl_input = None              # that is for the program's own terminal

    @contextlib.contextmanager
    def _standard_input(self) -> Iterator[None]:
        yield

    def interaction(self, *args: Any, **kwargs: Any) -> None:
        super().interaction(*args, **kwargs)
        if self.connection.is_open:
            self.connection.send(state="running", interrupts=self._gets_interrupts())

    def _gets_interrupts(self) -> bool:
        handler = signal.getsignal(signal.SIGINT)
        return isinstance(getattr(handler, "__self__", None), AttachedDebugger)

    def sigint_handler(self, signum: Any, frame: Any) -> None:
        if self.connection.is_open:
            reader: Any = self.stdin
            if not reader.interrupt():
                super().sigint_handler(signum, frame)
            return
        # It was another thread that detached, which cannot change handlers.
        self.give_back_interrupts()
        handler = signal.getsignal(signal.SIGINT)
        if callable(handler):
            handler(signum, frame)

    def after_fork_in_child(self) -> None:
        super().after_fork_in_child()
        if self.is_left_alone:
            self.connection.close()

    def complete_line(self, text: str, line: str, begidx: int, endidx: int) -> list[str]:
        """What `cmd.Cmd.complete` finds out by asking readline."""
        complete: Any = self.completedefault
        if begidx == 0:
            complete = self.completenames
        else:
            command = self.parseline(line)[0]
            if command:
                complete = getattr(self, "complete_" + command, self.completedefault)
        try:
            return list(map(str, complete(text, line, begidx, endidx) or ()))
        except Exception:
            return []

    # -- commands --------------------------------------------------------------------------

    def do_detach(self, arg: str) -> bool:
        """detach

        Leave the program: it goes on without the debugger, its breakpoints are gone.
        """
        self.clear_all_breaks()
        for state in self.stop_states.all():
            state.run_freely()
        self.set_continue()
        self.stop_trace()
        if getattr(pdb.Pdb, "_last_pdb_instance", None) is self:
            pdb.Pdb._last_pdb_instance = None         # type: ignore[attr-defined]
        self.connection.send(state="detached")
        self.connection.close()
        return True

    def do_quit(self, arg: str) -> bool | None:
        """q(uit) | exit

        Leave the program: it goes on without the debugger (see detach).
        """
        return self.do_detach(arg)

    do_q = do_exit = do_quit

    def do_EOF(self, arg: str) -> bool | None:
        """EOF

        Leave the program: it goes on without the debugger (see detach).
        """
        self.message("")
        return self.do_detach(arg)

    def do_run(self, arg: str) -> None:
        """run

        An attached program cannot be restarted.
        """
        self.error("An attached program cannot be restarted")

    do_restart = do_run

    def do_clear(self, arg: str) -> Any:
        if not arg:
            if self._ask("Clear all breaks? ") not in ("y", "yes"):
                return None
            arg = " ".join(str(each.number) for each in bdb.Breakpoint.bpbynumber if each)
            if not arg:
                return None
        return super().do_clear(arg)

    do_cl = do_clear
    do_clear.__doc__ = do_cl.__doc__ = pdb.Pdb.do_clear.__doc__

    def _ask(self, question: str) -> str:
        self.stdout.write(question)
        return self.stdin.readline().strip().lower()

    def do_interact(self, arg: str) -> None:
        kept = sys.stdin, sys.stdout, sys.stderr
        sys.stdin, sys.stdout, sys.stderr = self.stdin, self.stdout, self.stdout
        try:
            super().do_interact(arg)
        except SystemExit:                    # of 3.12, where `exit()` leaves more than the console
            self.message("*exit from pdb interact command*")
        finally:
            sys.stdin, sys.stdout, sys.stderr = kept

    do_interact.__doc__ = pdb.Pdb.do_interact.__doc__


def serve(end: socket.socket, injected: FrameType, commands: list[str]) -> None:
    """Open a prompt for the other end of the socket; `injected` is the frame of the code that calls this.

    The calling thread stops at the next line that it executes.
    """
    connection = Connection(end)
    frame = injected.f_back
    if frame is not None and frame.f_code.co_filename == "<string>" and frame.f_code.co_name == "<module>":
        frame = frame.f_back                  # the line that gdb has given to the interpreter
    refusal = _refusal(frame)
    if refusal is not None:
        connection.send(error=refusal)
        connection.close()
        return
    debugger = _make_debugger(connection)
    try:
        debugger.set_trace(frame, commands=commands)
    except MonitorError as error:
        connection.send(error=str(error))
        connection.close()


def _refusal(frame: FrameType | None) -> str | None:
    if frame is None:
        return "the main thread of process %d runs no Python code" % os.getpid()
    if monitor.debugger is not None:
        attached = monitor.debugger
        if not isinstance(attached, AttachedDebugger) or attached.connection.is_open:
            return "process %d is being debugged already" % os.getpid()
    return None


def _make_debugger(connection: Connection) -> AttachedDebugger:
    holder = types.SimpleNamespace()
    reader: Any = Reader(connection, lambda *line: holder.debugger.complete_line(*line))
    writer: Any = Writer(connection)
    AttachedDebugger.connection = connection
    debugger = holder.debugger = AttachedDebugger(stdin=reader, stdout=writer)
    debugger.connection = connection
    return debugger
