"""The process that the debugger was started in, and the children that the program forks.

A child is a copy of all its parent's stack, the debugger's own frames under the
program's included.  So a child that comes to the program's end arrives in the
debugger's command line, and has to end there as it would without a debugger.
"""

from __future__ import annotations

import bdb
import contextlib
import os
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import TracebackType
    from typing import Any, NoReturn

_first_pid = os.getpid()

# What ended the program, where there is no next run; None: it came to its last line.
ending: BaseException | None = None


# The one of the command line; None in a program that calls the debugger itself.
_session_pid: int | None = None

# The one that is a child and is debugged too.
followed_pid: int | None = None

are_children_followed = False

_has_passed_by = False

_VARIABLE = "PYTHONBREAKPOINT"
_STOP, _PASS_BY = "brixdebug.children.stop", "brixdebug.children.pass_by"

_NOTE = """\
brixdebug: process %d is not followed: it runs on where it calls the debugger.  To have it stop there, give the command \
"set follow-fork on" before it is started.
"""


def begin_session() -> None:
    """This is the process of the command line; one may be started by the program of another, as reloaders do."""
    global _session_pid
    if os.environ.get(_VARIABLE) in (_STOP, _PASS_BY):
        follow()
    _session_pid = os.getpid()
    follow_children(False)


def follow_children(are_followed: bool) -> None:
    """Children that are started from now on are debugged too, or run free."""
    global are_children_followed
    are_children_followed = are_followed
    if is_of_session() and os.environ.get(_VARIABLE, _STOP) in (_STOP, _PASS_BY):
        os.environ[_VARIABLE] = _STOP if are_followed else _PASS_BY


def is_prompt_everywhere() -> bool:
    """The user has asked for our prompt in every process that calls `breakpoint()`."""
    return os.environ.get(_VARIABLE) == "brixdebug.set_trace"


def is_of_session() -> bool:
    """True in the process of the command line and in what was forked from it."""
    return _session_pid is not None


def follow() -> None:
    """This process is a child that is debugged too."""
    global followed_pid
    followed_pid = os.getpid()


def is_followed() -> bool:
    return followed_pid == os.getpid()


def is_session_of_program() -> bool:
    """True in the process of a command line that the program of another one has started."""
    return _session_pid == os.getpid() == followed_pid


def is_free() -> bool:
    """True in a child of the command line's process that runs without the debugger."""
    return _session_pid is not None and os.getpid() != _session_pid and not is_followed()


def pass_by() -> None:
    """The program calls the debugger in a child that runs free: said once."""
    global _has_passed_by
    if not _has_passed_by:
        _has_passed_by = True
        with contextlib.suppress(Exception):
            sys.stderr.write(_NOTE % os.getpid())
            sys.stderr.flush()


def is_child() -> bool:
    """True in a process that was forked since the debugger was loaded."""
    return os.getpid() != _first_pid


def end_child() -> None:
    """Called when the session has ended: a child ends of what ended the program."""
    if ending is not None and (is_child() or is_session_of_program()):
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
