"""What pdb leaves in the program, or keeps of it, when a stop has ended.

The program's objects are to go when it lets go of them.  pdb enters an exception among the variables of
the frame that it is raised in, which keep that frame alive by its traceback; the frame that was
looked at in a table of its module; and the frames of `debug` in a debugger that nobody frees.
"""

from __future__ import annotations

import inspect
import pdb
import sys

from brixdebug.engine import Bdb
from brixdebug.stops import StopStates

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    class _StandardDebugger(pdb.Pdb, Bdb):
        displaying: dict[FrameType, dict[str, Any]]

        def bp_commands(self, frame: FrameType) -> Any: ...
        def set_convenience_variable(self, frame: FrameType, name: str, value: object) -> None: ...
else:
    _StandardDebugger = object

# What pdb enters among the variables of a frame, and among those that are written with a `$`.
_RETURNED, _RAISED = "__return__", "__exception__"
_TABLE = "__pdb_convenience_variables"
_CONVENIENCES = ("_frame", "_retval", "_exception", "_asynctask")


class Leftovers(_StandardDebugger):
    """Stands before `pdb.Pdb` among the bases of a debugger's class."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        # The globals of the modules that have got a table since the stop began.
        self._with_table: list[dict[str, Any]] = []
        super().__init__(*args, **kwargs)

    def set_convenience_variable(self, frame: FrameType, name: str, value: object) -> None:
        super().set_convenience_variable(frame, name, value)
        self._with_table.append(frame.f_globals)

    def _forget_conveniences(self) -> None:
        """pdb does so in the module alone that was looked at last."""
        for module in self._with_table:
            for name in _CONVENIENCES:
                module.get(_TABLE, {}).pop(name, None)
        self._with_table.clear()

    def interaction(self, *args: Any, **kwargs: Any) -> None:
        try:
            super().interaction(*args, **kwargs)
        finally:
            self._forget_conveniences()

    if sys.version_info < (3, 13):            # later versions have the prompt run the commands
        def bp_commands(self, frame: FrameType) -> Any:
            try:
                return super().bp_commands(frame)
            finally:
                self._forget_conveniences()

    def user_return(self, frame: FrameType, return_value: Any) -> None:
        try:
            super().user_return(frame, return_value)
        finally:
            if frame.f_code.co_flags & inspect.CO_OPTIMIZED:      # else it is in a namespace of the program's, as with pdb
                _remove_variable(frame, _RETURNED)

    def user_exception(self, frame: FrameType, exc_info: Any) -> None:
        try:
            super().user_exception(frame, exc_info)
        finally:
            _remove_variable(frame, _RAISED)

    def let_program_go(self) -> None:
        """This debugger, of the command `debug`, has ended: nobody frees it, for it is part of a cycle."""
        self.forget()
        self.displaying.clear()
        self.stop_states = StopStates()

    def do_undisplay(self, arg: str) -> Any:
        try:
            return super().do_undisplay(arg)
        finally:
            frame: Any = self.curframe
            if not self.displaying.get(frame, True):
                del self.displaying[frame]


def _remove_variable(frame: FrameType, name: str) -> None:
    if name not in frame.f_locals:
        return
    try:
        del frame.f_locals[name]
    except TypeError:                         # in a function of 3.13.0 nothing can be removed
        frame.f_locals[name] = None
