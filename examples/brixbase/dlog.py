"""Log of the host debugger.

The event filter takes two callables from here when it is loaded:

* `Log(*args)` writes one line;
* `LogException(*args)` reports the exception being handled.  The filter calls
  it as `LogException(None, True)` for every exception that it keeps away from
  the debugged program, for instance one raised by a second callback.

A host replaces this file by a log of its own; the two names are the contract.
Both run in the middle of the debugged program and so never raise.
"""

import sys
import threading
import traceback

_lock = threading.RLock()     # one line at a time; a report may be nested in another
_log_file = None              # None: standard error, looked up at each line
_exception_count = 0


def SetLogFile(file_obj):
    """Send what follows to `file_obj` (any object with `write`); None is standard error."""
    global _log_file
    with _lock:
        _log_file = file_obj


def GetExceptionCount():
    """Number of exceptions reported since the process started."""
    return _exception_count


def Log(*args):
    """Write the arguments, separated by blanks, as one line."""
    with _lock:
        out = sys.stderr if _log_file is None else _log_file
        if out is None:       # a windowed program has no standard error
            return
        try:
            out.write(" ".join(str(arg) for arg in args) + "\n")
            out.flush()
        except Exception:     # a log that fails must not fail the program
            pass


def LogException(*args):
    """Report the exception being handled with its traceback.

    The first argument is a text saying where it happened, or None; the second
    is true when the program goes on as if nothing had been raised.
    """
    global _exception_count
    where = args[0] if args else None
    suppressed = len(args) > 1 and args[1]
    with _lock:
        _exception_count += 1
        _cut_reported_context(sys.exc_info()[1])
        headline = "Exception" if where is None else "Exception in %s" % (where,)
        if suppressed:
            headline += " (suppressed)"
        Log(headline + "\n" + traceback.format_exc().rstrip("\n"))


def _cut_reported_context(exception):
    """Part an exception from those reported before it.

    The filter leaves the exception that it reported as the handled one, so the
    next becomes raised "during handling" of it: a chain that would grow with every
    report.  What was really being handled when `exception` was raised stays.
    """
    newest = exception
    while exception is not None:
        context = getattr(exception, "__context__", None)
        if getattr(context, "_dlog_reported", False):
            exception.__context__ = None
            break
        exception = context
    if newest is not None:
        newest._dlog_reported = True
