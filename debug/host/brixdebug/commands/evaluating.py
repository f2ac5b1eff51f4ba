"""Expressions and statements at the prompt: one that needs another thread gets it, after a second."""

from __future__ import annotations

import code
import pdb
import sys
import types

from brixdebug import compat
from brixdebug.commands.threads import ThreadCommands
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    _StandardConsole = code.InteractiveConsole
    _standard_default: Callable[..., None]
else:
    _StandardConsole = getattr(pdb, "_PdbInteractiveConsole", code.InteractiveConsole)


def _exec(source: Any, *names: Any) -> None:
    monitor.suspension.evaluation.run(exec, source, *names)


class _Console(_StandardConsole):
    """The console of `interact`."""

    def runcode(self, source: CodeType) -> None:
        monitor.suspension.evaluation.run(super().runcode, source)


def _interact(banner: str | None = None, local: Any = None) -> None:
    _Console(local).interact(banner)


_standard_default = compat.rebind(pdb.Pdb.default, exec=_exec)


class EvaluatingCommands(ThreadCommands):
    """`p` and its kin, statements, and `interact`."""

    def default(self, line: str) -> Any:
        if sys.version_info >= (3, 13) or self.curframe_locals is self.curframe.f_globals:
            return _standard_default(self, line)
        before = dict(self.curframe_locals)
        try:
            return _standard_default(self, line)
        finally:
            compat.give_changes_back(self.curframe, self.curframe_locals, before)

    do_interact = compat.rebind(pdb.Pdb.do_interact, _PdbInteractiveConsole=_Console,
                                code=types.SimpleNamespace(interact=_interact))

    def _exec_in_closure(self, *args: Any) -> Any:
        return monitor.suspension.evaluation.run(super()._exec_in_closure, *args)

    def _getval(self, arg: str) -> Any:
        return monitor.suspension.evaluation.run(super()._getval, arg)

    def _getval_except(self, arg: str, frame: FrameType | None = None) -> Any:
        return monitor.suspension.evaluation.run(super()._getval_except, arg, frame)

    def _msg_val_func(self, arg: str, func: Any) -> None:
        monitor.suspension.evaluation.run(super()._msg_val_func, arg, func)

    def others_were_let_go(self) -> None:
        """Called in another thread, while the one at the prompt evaluates."""
        self.message("The expression has not ended after one second: the other threads run until it ends.")
        self.stdout.flush()           # before what these threads print

    def other_waits(self, thread_id: int) -> None:
        entry = next((each for each in self._numbered_threads() if each[1] == thread_id), None)
        if entry is None:
            return
        number, _, frame = entry
        self.message("Thread %d (%s) waits at %s(%s)%s() for its turn at the prompt. "
                     "If the expression needs it: Ctrl-C, then continue." % (
            number, monitor.suspension.thread_name(thread_id),
            self.canonic(frame.f_code.co_filename), frame.f_lineno, frame.f_code.co_name))
        self.stdout.flush()
