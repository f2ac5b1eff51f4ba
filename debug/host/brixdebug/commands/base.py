"""What commands have in common."""

from __future__ import annotations

import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    import pdb
    from typing import Any

    from brixdebug.engine import Bdb

    class _Debugger(pdb.Pdb, Bdb):
        """What a class of commands is joined with."""

        curframe: Any

        def print_stack_trace(self, *count: Any) -> None: ...

        def _format_exc(self, exception: BaseException) -> str: ...
        def _exec_in_closure(self, *args: Any) -> Any: ...
        def _msg_val_func(self, arg: str, func: Any) -> None: ...
        def look_again(self) -> None: ...
else:
    _Debugger = object

# What follows a name that is not meant as a command: `set = 1`, `info.x`, `set(x)`.
_EXPRESSION_STARTS = tuple("=.([,:+-*/%@&|^<>!")

# ADD-COMMAND: its name, if it does something without an argument; else the bare word shows the variable of that name.
_BARE_COMMANDS = {"threads", "catch", "set", "watch", "unwatch"}


class CommandBase(_Debugger):
    """Stands before `pdb.Pdb` among the bases of a debugger's class."""

    def _variables(self) -> Any:
        """Those of the frame that is looked at, with what was assigned to them at the prompt."""
        return self.curframe_locals if sys.version_info < (3, 13) else self.curframe.f_locals

    def _is_expression(self, name: str, arg: str) -> bool:
        """True, after running it, when the line is a Python statement that begins like a command.

        So is the bare name of a variable, where the command means nothing without an argument.
        """
        if arg.startswith(_EXPRESSION_STARTS):
            self.default(name + " " + arg)
            return True
        frame = self.curframe
        if arg or frame is None or not (name in frame.f_locals or name in frame.f_globals):
            return False
        if name in _BARE_COMMANDS:
            self.message("(the command; the program's variable is !%s)" % name)
            return False
        self.default("!" + name)
        return True
