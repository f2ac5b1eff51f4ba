"""Threads: `threads` and `thread`."""

from __future__ import annotations

import threading

from brixdebug.commands.base import CommandBase
from brixdebug.exceptions import innermost
from brixdebug.monitor import monitor
from brixdebug.suspension import debugged_frames

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType, TracebackType
    from typing import Any


class ThreadCommands(CommandBase):
    """Lists the program's threads, and looks at one of them."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self._thread_numbers: dict[int, int] = {}     # thread id -> number that the user sees
        self._thread_count = 0
        self.post_mortem_of: TracebackType | None = None      # what the prompt is for, after the end

    def _numbered_threads(self) -> list[tuple[int, int, FrameType]]:
        """(number, thread id, frame) of each thread, in the order of the numbers."""
        frames = debugged_frames()
        if self.post_mortem_of is not None and threading.get_ident() not in frames:
            # Its calls have ended; those of its end are all that is left.
            frames = {threading.get_ident(): innermost(self.post_mortem_of).tb_frame, **frames}
        for thread_id in [each for each in self._thread_numbers if each not in frames]:
            self._thread_numbers.pop(thread_id, None)     # several threads may be here
        # The interpreter lists the newest thread first.
        for thread_id in reversed(frames):
            if thread_id not in self._thread_numbers:
                self._thread_count += 1
                self._thread_numbers[thread_id] = self._thread_count
        return sorted((number, thread_id, frames[thread_id])
                      for thread_id, number in self._thread_numbers.items())

    def setup(self, f: FrameType | None, tb: TracebackType | None) -> Any:
        if f is None:
            self.post_mortem_of = tb
        return super().setup(f, tb)

    # ADD-COMMAND: a method like this one, in the file of its subject here; the docstring, which begins with it, is its help.
    # A new class joins the others in __init__.py.
    def do_threads(self, arg: str) -> None:
        """threads

        List the program's threads: number, state, name and place.  The one that is
        looked at is marked.  A thread is "held" at its next line while another is
        at the prompt; one that is inside C code is "running" until it comes back.
        """
        if self._is_expression("threads", arg):
            return
        if arg:
            self.error("The command takes no argument")
            return
        self.show_threads()

    def show_threads(self) -> None:
        shown = (self.stop_states.selected or self.stop_states.own()).thread_id
        self.message("  %-4s%-15s%-20s %s" % ("Num", "State", "Name", "Place"))
        for number, thread_id, frame in self._numbered_threads():
            line: int | None = frame.f_lineno
            if self.post_mortem_of is not None and thread_id == threading.get_ident():
                frame, line = self.get_stack(None, self.post_mortem_of)[0][-1]
            self.message("%s %-4d%-15s%-20s %s(%s)%s()" % (
                ">" if thread_id == shown else " ", number, self._thread_state(thread_id),
                monitor.suspension.thread_name(thread_id),
                self.canonic(frame.f_code.co_filename), line, frame.f_code.co_name))

    @staticmethod
    def _thread_state(thread_id: int) -> str:
        if thread_id == threading.get_ident():
            return "at the prompt"
        return "held" if monitor.suspension.is_waiting(thread_id) else "running"

    def do_thread(self, arg: str) -> None:
        """thread NUMBER

        Look at another thread's stack (see threads).  step, next, until and return
        are then meant for that thread; the one that stopped goes on.
        """
        if self._is_expression("thread", arg):
            return
        threads = {number: (thread_id, frame)
                   for number, thread_id, frame in self._numbered_threads()}
        try:
            thread_id, frame = threads[int(arg)]
        except ValueError:
            self.error("Thread number expected (see threads)")
            return
        except KeyError:
            self.error("There is no thread %s (see threads)" % arg)
            return
        state = self.stop_states.of(thread_id)
        self.stop_states.selected = None if state is self.stop_states.own() else state
        if self.post_mortem_of is not None and thread_id == threading.get_ident():
            self.setup(None, self.post_mortem_of)
        else:
            self.setup(frame, None)
        self.print_stack_entry(self.stack[self.curindex])

    def look_again(self) -> None:
        """The other threads have run meanwhile: the stack that is looked at may be another one."""
        selected = self.stop_states.selected
        if selected is None:
            return
        frames = debugged_frames()
        frame = frames.get(selected.thread_id)
        if frame is None:
            self.message("The thread that was looked at has ended.")
            self.stop_states.selected = None
            frame = frames.get(threading.get_ident())
        self.setup(frame, self.post_mortem_of if frame is None else None)
        self.print_stack_entry(self.stack[self.curindex])
