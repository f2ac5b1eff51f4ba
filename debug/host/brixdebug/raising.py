"""Exceptions that the debugger raises in the program, and those that signal handlers raise in the debugger.

No exception leaves a native callback.  One that has to reach the program waits here until
the raiser, a second tool (see `switches`), is called for the same event.
"""

from __future__ import annotations

import _thread
import bdb
import dis
import signal
import sys

import optmonitoring
from brixbase import dlog

from brixdebug.switches import program_frame
from brixdebug.thread_ends import Catcher

TYPE_CHECKING = False
if TYPE_CHECKING:
    import logging
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.switches import Switches


class Raiser:
    """Raises exceptions in the program's own code."""

    def __init__(self, switches: Switches, on_raised: Callable[[], None]) -> None:
        self._switches = switches
        self._on_raised = on_raised           # called just before an exception is raised
        # thread id -> exception that has still to be raised, and the code to do it in
        self.pending: dict[int, tuple[BaseException, CodeType]] = {}
        self.ended_thread_ids: set[int] = set()       # they have got their BdbQuit
        self.finished_thread_ids: set[int] = set()    # they have left the program: nothing is raised there
        self._catchers: dict[int, Catcher] = {}      # by id of the frame of a call that was ended
        self._passes: dict[int, dict[CodeType, int]] = {}     # by thread id: see `Catcher`
        dlog.logger.addFilter(self._is_to_be_logged)

    def is_raising(self) -> bool:
        """An exception has still to be raised in the calling thread."""
        return _thread.get_ident() in self.pending

    def raise_in_program(self, error: BaseException, frame: Any = None) -> None:
        """Have `error` raised in the calling thread's program code, when the callback has ended.

        That is where the event happened, or at the next line where the raiser has no such event.
        """
        if isinstance(error, bdb.BdbQuit):
            self.ended_thread_ids.add(_thread.get_ident())
        place: Any = frame or optmonitoring.GetNonInternalFrame()
        code = place.f_code
        self.pending[_thread.get_ident()] = error, code
        self._switches.begin_raising(code, self._raise_pending)

    def _raise_pending(self, *args: object) -> None:
        """The raiser's callback: asked for the same event, after the filter."""
        error: Any
        code: Any
        error, code = self.pending.pop(_thread.get_ident(), (None, None))
        if error is None:
            return None                   # the event of another thread
        self._switches.end_raising(code)
        self._on_raised()
        try:
            raise error
        finally:
            del error

    def _is_to_be_logged(self, record: logging.LogRecord) -> bool:
        """The filter of the log: sees what the native callback keeps away from the program.

        Handlers of signals run at the start of a function too, where no `try` is yet: what
        they raise there leaves a second callback, and is reported as an exception of it.
        """
        error = sys.exc_info()[1]
        if error is None or not is_of_signal_handler(error):
            return True
        frame: FrameType | None = sys._getframe()
        while frame is not None and frame.f_code is not dlog.LogException.__code__:
            frame = frame.f_back
        if frame is None or frame.f_back is None:
            return True
        self.raise_in_program(error, program_frame(frame.f_back))
        return False

    def end_again(self, frame: FrameType) -> None:
        """The thread has what ends it: raise it once more in `frame`, where the program has caught it."""
        passes = self._passes.setdefault(_thread.get_ident(), {})
        catcher = self._catchers.setdefault(id(frame), Catcher(passes))
        if not self.is_raising() and catcher.has_to_be_ended(frame):
            self.raise_in_program(bdb.BdbQuit())

    def forget_ends(self) -> None:
        """No thread is to end."""
        self.ended_thread_ids.clear()
        self.finished_thread_ids.clear()
        self._catchers.clear()
        self._passes.clear()

    def keep_only_own(self) -> None:
        """After a fork, in the child: what the calling thread is doing goes on."""
        own_id = _thread.get_ident()
        self.pending = {own_id: self.pending[own_id]} if own_id in self.pending else {}


def is_of_signal_handler(error: BaseException) -> bool:
    """True when the program's own handler of a signal raised `error`, wherever that was."""
    codes = {getattr(signal.getsignal(number), "__code__", None)
             for number in signal.valid_signals()}
    instruction = None
    traceback = error.__traceback__
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code in codes:
            return True
        instruction = dis.opname[code.co_code[traceback.tb_lasti]]
        traceback = traceback.tb_next
    # The interpreter's own handler has no frame.
    return isinstance(error, KeyboardInterrupt) and instruction != "RAISE_VARARGS" \
        and signal.getsignal(signal.SIGINT) is signal.default_int_handler
