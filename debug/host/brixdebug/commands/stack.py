"""The stack as the user wants to see it: `where` with the library's frames folded."""

from __future__ import annotations

from brixdebug import files
from brixdebug.commands.base import CommandBase

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any


class StackCommands(CommandBase):
    """Shows stacks."""

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
