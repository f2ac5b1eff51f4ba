"""The stack as the user wants to see it: `where` with the library's frames folded."""

from __future__ import annotations

import bdb
import pdb

from brixdebug import files
from brixdebug.commands.base import CommandBase
from brixdebug.interrupts import is_debuggers_code

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType, TracebackType
    from typing import Any

_RUN_OF_COMMAND_LINE = vars(pdb.Pdb)["_run"].__code__
_RUN = bdb.Bdb.run.__code__
_STATEMENT = "<string>"       # the file of a statement that is run


class StackCommands(CommandBase):
    """Shows stacks."""

    def get_stack(self, f: FrameType | None, t: Any) -> tuple[list[tuple[FrameType, int]], int]:
        """Without what runs the program: the debugger's own frames, and what called those of the command line."""
        stack, index = super().get_stack(f, t)
        first = index                         # of the program's entries
        while first > 0 and not (stack[first - 1][0].f_code is _RUN and _starts_program(stack[first - 1][0])):
            first -= 1
        # What a script is run by; with a step in one's own code the stack begins there.
        if first < index and stack[first][0].f_code.co_filename == _STATEMENT \
                and (first > 0 or _starts_program(stack[0][0].f_back)):
            first += 1
        below = [entry for entry in stack[first:index] if not is_debuggers_code(entry[0])]
        return below + stack[index:], len(below)

    def print_stack_trace(self, *count: Any) -> None:
        if not self.just_my_code or any(each is not None for each in count):
            super().print_stack_trace(*count)
            return
        hidden: list[FrameType] = []
        try:
            for entry in self.stack:
                frame = entry[0]
                if frame is not self.curframe and not self.is_own_code(frame.f_code):
                    hidden.append(frame)
                    continue
                self._show_hidden(hidden)
                hidden = []
                self.print_stack_entry(entry)
            self._show_hidden(hidden)
        except KeyboardInterrupt:
            pass

    def _show_hidden(self, frames: list[FrameType]) -> None:
        if not frames:
            return
        names = dict.fromkeys(files.short_name(frame.f_code.co_filename) for frame in frames)
        self.message("  [%d frame%s of libraries: %s]"
                     % (len(frames), "" if len(frames) == 1 else "s", ", ".join(names)))


def without_start(traceback: TracebackType | None) -> TracebackType | None:
    """The part of a traceback that is the program's; the whole one where none of it ran."""
    whole = programs = traceback
    while traceback is not None:
        following = traceback.tb_next
        if _starts_program(traceback.tb_frame):
            programs = following
            if following is not None and following.tb_frame.f_code.co_filename == _STATEMENT:
                programs = following.tb_next
        traceback = following
    return programs or whole


def _starts_program(frame: FrameType | None) -> bool:
    """True for the frame from which the command line runs its program."""
    return frame is not None and frame.f_code is _RUN \
        and frame.f_back is not None and frame.f_back.f_code is _RUN_OF_COMMAND_LINE
