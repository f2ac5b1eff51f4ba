"""Watches: `watch` and `unwatch`."""

from __future__ import annotations

import pdb
import threading

from brixdebug.commands.threads import ThreadCommands
from brixdebug.conditions import compile_expression
from brixdebug.monitor import monitor
from brixdebug.watching import Watch

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    from brixdebug.watching import Change


class WatchCommands(ThreadCommands):
    """Stops where a value changes."""

    def do_watch(self, arg: str) -> None:
        """watch EXPRESSION [if CONDITION]
        watch

        Stop when the value of the expression has changed; with CONDITION, when that
        is true then.  Local names are those of this call of this function: the watch
        ends with it.  An attribute or a global name is watched in all threads, and an
        attribute of a local name after the call too, as long as its object lives.

        The watch has a number among the breakpoints: condition, hits, ignore, commands,
        enable, disable and clear take it.  Without argument, list all watches.
        """
        if self._is_expression("watch", arg):
            return
        if not arg:
            self._show_watches()
            return
        expression, condition = _split_condition(arg)
        try:
            watch = Watch(expression, self.curframe, self._variables(), condition)
        except ValueError as error:
            self.error("Invalid expression %s: %s" % (arg, error))
            return
        self.add_watch(watch)
        self.message("Watch %d: %s, now %s (%s)" % (
            watch.number, watch.expression, watch.value, self._reach(watch)))

    @staticmethod
    def _reach(watch: Watch) -> str:
        threads = "in all threads" if watch.is_everywhere else "in this function"
        return "%s, until %s() ends" % (threads, watch.function) if watch.is_of_call else threads

    def do_unwatch(self, arg: str) -> None:
        """unwatch [NUMBER ...]

        Delete these watches; all of them without argument.
        """
        if self._is_expression("unwatch", arg):
            return
        numbers: list[Any] = arg.split() or [watch.number for watch in monitor.watches.active]
        for number in numbers:
            try:
                watch: Any = self.get_bpbynumber(number)
            except ValueError as error:
                self.error(str(error))
                continue
            if not isinstance(watch, Watch):
                self.error("Number %s is no watch (see info watches)" % number)
                continue
            self.clear_bpbynumber(number)
            self.message("Deleted %s" % watch)

    def _show_watches(self) -> None:
        if not monitor.watches.active:
            self.message("No watches.")
            return
        self.message("Num Type         Disp Enb  What")
        for watch in monitor.watches.active:
            self.message(watch.bpformat())

    # pdb shows the table only when there is a breakpoint.
    def do_break(self, arg: str, temporary: Any = 0) -> Any:
        if not arg and not self.breaks and monitor.watches.active:
            self._show_watches()
            return None
        return super().do_break(arg, temporary)

    do_break.__doc__ = pdb.Pdb.do_break.__doc__
    do_b = do_break

    def do_enable(self, arg: str) -> Any:
        result = super().do_enable(arg)
        self.watches_changed()
        return result

    def do_disable(self, arg: str) -> Any:
        result = super().do_disable(arg)
        self.watches_changed()
        return result

    do_enable.__doc__, do_disable.__doc__ = pdb.Pdb.do_enable.__doc__, pdb.Pdb.do_disable.__doc__

    # -- what the engine reports -----------------------------------------------------------

    def user_watch(self, frame: FrameType, changes: list[Change]) -> None:
        for change in changes:
            self.message("Watch %d: %s" % (change.watch.number, change.watch.expression))
            self.message("Old value: %s" % change.old)
            self.message("New value: %s" % change.new)
            if change.code is not None:
                self.message("Changed by %s(%d)%s()%s" % (
                    self.canonic(change.code.co_filename), change.line, change.code.co_name,
                    self._of_other_thread(change)))
        self.user_line(frame)

    def _of_other_thread(self, change: Change) -> str:
        if change.thread_id == threading.get_ident():
            return ""
        return " in thread %s (%s)" % (
            next((str(number) for number, each, _ in self._numbered_threads()
                  if each == change.thread_id), "?"),
            monitor.suspension.thread_name(change.thread_id))

    def user_watch_end(self, frame: FrameType, watch: Watch) -> None:
        self.message("Watch %d has ended%s: %s, last %s" % (
            watch.number, " with the call of %s()" % watch.function if watch.is_of_call else ", its object is gone",
            watch.expression, watch.last))


def _split_condition(text: str) -> tuple[str, str | None]:
    """Expression and condition; what is an expression as it stands has no condition."""
    try:
        compile_expression(text)
    except ValueError:
        before, separator, after = text.rpartition(" if ")
        if separator:
            return before.strip(), after.strip()
    return text, None
