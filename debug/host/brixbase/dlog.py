"""Log of the host debugger, on top of the standard `logging`.

The event filter takes two callables from here when it is loaded:

* `Log(*args)` writes one line;
* `LogException(*args)` reports the exception being handled.  The filter calls
  it as `LogException(None, True)` for every exception that it keeps away from
  the debugged program, for instance one raised by a second callback.

A host replaces this file by a log of its own; the two names are the contract.
Both run in the middle of the debugged program and so never raise, and they
neither run the program's own logging nor can be switched off by it.
"""

from __future__ import annotations

import logging
import sys
import time
import traceback

TYPE_CHECKING = False             # for type checkers alone: the program need not load `typing`
if TYPE_CHECKING:
    import threading
    from typing import Any, Protocol

    class LogFile(Protocol):
        """What a log can be written to."""

        def write(self, text: str, /) -> object: ...
        def flush(self) -> object: ...


class _Handler(logging.Handler):
    """Writes to the log file, or to what is standard error at that moment.

    The lock is the handler's, which `logging` renews in a forked child; it may
    be entered again by the thread that has it, for a report nested in another.
    """

    lock: threading.RLock         # a handler has one

    file_obj: LogFile | None = None       # None: standard error

    def emit(self, record: logging.LogRecord) -> None:
        try:
            out = sys.stderr if self.file_obj is None else self.file_obj
            if out is None:       # a windowed program has no standard error
                return
            out.write(self.format(record) + "\n")
            out.flush()
        except Exception:         # a log that fails must not fail the program
            pass


class _Record(logging.LogRecord):
    """A record made without the factory that the program may have set.

    Nor does it ask for the thread's name: that enters a thread which the program
    started without `threading` in the list of its threads.
    """

    def __init__(self, level: int, message: str) -> None:
        self.name = logger.name
        self.levelno = level
        self.levelname = logging.getLevelName(level)
        self.msg = message
        self.args = self.exc_info = self.exc_text = self.stack_info = None
        self.created = time.time()
        self.msecs = self.created % 1 * 1000


# Not from getLogger(): the program's logging.config.dictConfig() disables every
# logger that is known there, and its list of loggers is not ours to change.
logger = logging.Logger("brixdebug", logging.DEBUG)
_handler = _Handler()
logger.addHandler(_handler)
_exception_count = 0


def SetLogFile(file_obj: LogFile | None) -> None:
    """Send what follows to `file_obj` (any object with `write` and `flush`); None is standard error."""
    with _handler.lock:
        _handler.file_obj = file_obj


def GetExceptionCount() -> int:
    """Number of exceptions reported since the process started."""
    return _exception_count


def Log(*args: object) -> None:
    """Write the arguments, separated by blanks, as one line."""
    try:
        _write(logging.INFO, " ".join(str(arg) for arg in args))
    except Exception:
        pass


def LogException(*args: object) -> None:
    """Report the exception being handled with its traceback.

    The first argument is a text saying where it happened, or None; the second
    is true when the program goes on as if nothing had been raised.
    """
    global _exception_count
    with _handler.lock:
        _exception_count += 1
    try:
        where = args[0] if args else None
        suppressed = len(args) > 1 and args[1]
        _cut_reported_context(sys.exc_info()[1])
        headline = "Exception" if where is None else "Exception in %s" % (where,)
        if suppressed:
            headline += " (suppressed)"
        _write(logging.ERROR, headline + "\n" + traceback.format_exc().rstrip("\n"))
    except Exception:
        pass


def _write(level: int, message: str) -> None:
    logger.handle(_Record(level, message))


def _cut_reported_context(exception: BaseException | None) -> None:
    """Part an exception from those reported before it.

    The filter leaves the exception that it reported as the handled one, so the
    next becomes raised "during handling" of it: a chain that would grow with every
    report.  What was really being handled when `exception` was raised stays.
    """
    newest: Any = exception
    seen = set()                  # a program can tie a chain into a ring
    while exception is not None and id(exception) not in seen:
        seen.add(id(exception))
        context = getattr(exception, "__context__", None)
        if getattr(context, "_dlog_reported", False):
            exception.__context__ = None
            break
        exception = context
    if newest is not None:
        try:
            newest._dlog_reported = True
        except Exception:         # its class allows no attribute
            pass
