"""The process that the debugger was started in, and the children that the program forks.

A child is a copy of all its parent's stack, the debugger's own frames under the
program's included.  So a child that comes to the program's end arrives in the
debugger's command line, and has to end there as it would without a debugger.
"""

from __future__ import annotations

import bdb
import os
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import TracebackType
    from typing import Any, NoReturn

_first_pid = os.getpid()

# What ended the program in this child; None: it came to its last line.
ending: BaseException | None = None


def is_child() -> bool:
    """True in a process that was forked since the debugger was loaded."""
    return os.getpid() != _first_pid


def end_child() -> None:
    """Called when a run of the program has ended: a child ends of what ended the program."""
    if is_child() and ending is not None:
        _raise_as_without_debugger(ending)


def _raise_as_without_debugger(error: BaseException) -> NoReturn:
    """The traceback that is shown begins in the program; all else is the interpreter's own doing."""
    traceback = error.__traceback__ = _in_program(error.__traceback__)
    show: Any = sys.excepthook

    def excepthook(kind: Any, shown: BaseException, shown_traceback: TracebackType | None) -> None:
        if shown is error:
            error.__traceback__ = shown_traceback = traceback
        show(kind, shown, shown_traceback)

    sys.excepthook = excepthook
    raise error


def _in_program(traceback: TracebackType | None) -> TracebackType | None:
    """The part of a run's traceback that is the program's."""
    entry = traceback
    while entry is not None and entry.tb_frame.f_code is not bdb.Bdb.run.__code__:
        entry = entry.tb_next
    if entry is None:
        return traceback
    entry = entry.tb_next
    if entry is not None and entry.tb_frame.f_code.co_filename == "<string>":
        entry = entry.tb_next                 # pdb's own line, which runs the script
    return entry
