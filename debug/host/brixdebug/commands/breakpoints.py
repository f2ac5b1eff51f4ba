"""Breakpoints that log in place of stopping, and those that count their hits: `dprintf` and `hits`."""

from __future__ import annotations

import bdb

from brixdebug.commands.base import CommandBase
from brixdebug.conditions import HitCondition, LogText
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any


class BreakpointCommands(CommandBase):
    """What pdb's breakpoints cannot do."""

    def do_dprintf(self, arg: str) -> None:
        """dprintf [filename:]lineno | function, TEXT

        Print TEXT each time the place is reached, and do not stop there.  Expressions
        in braces are evaluated there, as in an f-string: dprintf 12, x is {x:.2f}.
        One that fails shows its error in its place.  {{ and }} are braces.

        condition, hits, ignore, disable and clear take its number, as a breakpoint's.
        """
        if self._is_expression("dprintf", arg):
            return
        location, comma, text = arg.partition(",")
        if not location.strip() or not comma or not text.strip():
            self.error("A place and a text are expected: dprintf LOCATION, TEXT")
            return
        try:
            log_text = LogText(text.strip())
        except ValueError as error:
            self.error("Invalid text: %s" % error)
            return
        with monitor.turn.lock:       # nobody stops at it before it has its text
            before = len(bdb.Breakpoint.bpbynumber)
            self.do_break(location.strip())
            new: list[Any] = bdb.Breakpoint.bpbynumber[before:]
            for each in new:
                each.log_text = log_text

    def do_hits(self, arg: str) -> None:
        """hits NUMBER == N | >= N | <= N | > N | < N | % N

        Stop at breakpoint NUMBER only at its N-th hit, before or after it, or at
        each N-th hit.  Where the breakpoint has a condition, only hits with a true
        condition are counted.  Without anything after NUMBER, stop at each hit again.
        """
        if self._is_expression("hits", arg):
            return
        number, _, text = arg.partition(" ")
        if not number:
            self.error("A breakpoint number and a hit condition are expected: hits NUMBER == N")
            return
        try:
            breakpoint = self._breakpoint(number)
            hit_condition = HitCondition.parse(text) if text.strip() else None
        except ValueError as error:
            self.error(str(error))
            return
        breakpoint.hit_condition = hit_condition
        if hit_condition is None:
            self.message("Breakpoint %d will stop at each hit." % breakpoint.number)
        else:
            self.message("Breakpoint %d will stop only at hits %s." % (breakpoint.number, hit_condition))

    def _breakpoint(self, number: Any) -> Any:
        """ValueError for what is no breakpoint's number."""
        return self.get_bpbynumber(number)

    def user_log(self, frame: FrameType, breakpoint: bdb.Breakpoint, text: str) -> None:
        self.message(text)
