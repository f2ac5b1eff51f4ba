"""What the tests of the event filter share: programs to watch, callbacks, and the log read as messages."""

import contextlib
import ctypes
import itertools
import re
import sys
import threading
import unittest

import support

ALL_MASKS = 1023
INITIAL = 256
THREADING = 128
FAILURES = 64

SUPPRESSED = "CInitialCallback_Callback() failed and exception suppressed\n"
RECORD_FAILED = "CInitialCallback_GetPerCodeObjectCalledFromCallback() failed\n"
INVOKING = "Initial callback -- invoking second callback\n"
SKIPPING = "Initial callback -- skipping second callback\n"
DECISION = "  CInitialCallback.SkipSecondCallback(): event id %i; "
EVENT_NAMES = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")

_numbers = itertools.count(1)


def errno_variable():
    """The calling thread's C errno as a ctypes variable: read and set its `value`."""
    location = ctypes.CDLL(None).__errno_location
    location.restype = ctypes.POINTER(ctypes.c_int)
    return location().contents


def event_id(name):
    return getattr(sys.monitoring.events, name)


def new_function(source="def f(n=0):\n    a = n\n    b = a\n    return b\n", name="f", filename=None):
    """A function of a file that exists nowhere; its code object has never been seen before."""
    filename = filename or "/nowhere/program_%d.py" % next(_numbers)
    namespace = {"__name__": "program"}
    exec(compile(source, filename, "exec"), namespace)
    return namespace[name]


def called_line(callback, code):
    """The first line of the log for every code object."""
    return "Initial callback called for %r\n second callback is %r\n" % (code, callback._fSecondCallback)


# how a report ends: the exception's own line
_REPORT_END = re.compile(r"(?:^|\n)((?:\w+\.)*\w+(?:Error|Exception)(?:: .*)?)\n\Z")


def messages(log):
    """The log's messages in order; an exception report shows as "! " and its last line."""
    result, report, end = [], None, None
    for text in filter(None, log.writes):
        # one report is many writes; what it shows of a chain of exceptions goes on with an empty line
        if report is not None and (end is None or text.startswith("\n")):
            report += text
            end = _REPORT_END.search(report)
            continue
        if report is not None:
            result.append("! " + end.group(1))
            report = None
        if text == support.HEAD_LINE:
            report, end = "", None
        else:
            result.append(text)
    if report is not None:
        result.append("! " + (end.group(1) if end else "unfinished report " + repr(report)))
    return result


def forget_handled_exception():
    """A suppressed failure leaves its exception behind as the handled one of this thread."""
    ctypes.pythonapi.PyErr_SetHandledException(ctypes.py_object(None))


class Recorder(object):
    """A second callback that keeps what it was called with."""

    def __init__(self, result=None):
        self.calls = []
        self.keywords = []
        self.result = result

    def __call__(self, *args, **keywords):
        self.calls.append(args)
        self.keywords.append(keywords)
        return self.result


@support.needs_monitoring
class FilterTestCase(unittest.TestCase):
    """Each test runs in a thread of its own, which the module has not met yet, and leaves no hook behind."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.om = support.load()
        from brixbase import dlog
        cls.dlog = dlog

    def run(self, result=None):
        thread = threading.Thread(target=super().run, args=(result,))
        thread.start()
        thread.join()
        return result

    def setUp(self):
        self.dlog.forget()
        self.addCleanup(self.dlog.forget)
        self.addCleanup(self.forget_hooks)
        self.addCleanup(sys.monitoring.restart_events)

    def forget_hooks(self):
        self.om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
        self.om.CPerThread.SetDebugPolicyCallback(None)
        self.om.CPerThread.SetNewPerThreadCreatedCallback(None)
        self.om.CPerThread.SetGetThreadNameCallback(None)
        self.om.SetInternalPathnameDict({})

    # ---- Making things ----

    def callback(self, event="LINE", second=None, can_return_disable=1):
        number = event if isinstance(event, int) else event_id(event)
        return self.om.CInitialCallback(number, Recorder() if second is None else second, can_return_disable)

    def record(self, code):
        """The record of a code object, made with a frame."""
        return self.om.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())

    def recorded_function(self, **fields):
        """A new function and its record with these fields set."""
        function = new_function()
        record = self.record(function.__code__)
        for name, value in fields.items():
            setattr(record, name, value)
        return function, record

    def this_thread(self):
        return self.om.CPerThread.GetPerThread()

    def is_known_thread(self):
        return self.om.CPerThread.GetPerThread(None, False) is not None

    def in_new_thread(self, function, *args):
        """What the function returns in a thread that the module has not met yet."""
        results = []
        thread = threading.Thread(target=lambda: results.append(function(*args)))
        thread.start()
        thread.join()
        self.assertEqual(len(results), 1, "the thread failed")
        return results[0]

    @contextlib.contextmanager
    def internal(self, *pathnames):
        """These canonical pathnames belong to the debugger itself."""
        self.om.SetInternalPathnameDict(dict.fromkeys(pathnames, True))
        try:
            yield
        finally:
            self.om.SetInternalPathnameDict({})

    # ---- Calling and comparing ----

    def logged(self, callback, *args, **keywords):
        """The answer of a call and the messages it logged; `mask` chooses the domains."""
        mask = keywords.pop("mask", ALL_MASKS)
        with support.logging_to(mask) as log:
            answer = callback.Callback(*args, **keywords)
        return answer, messages(log)

    def assert_reported(self, exception_class, text=None):
        """Exactly one exception was reported to the host, which could see it as the handled one."""
        self.assertEqual(len(self.dlog.exception_calls), 1, self.dlog.exception_calls)
        args, handled = self.dlog.exception_calls[0]
        self.assertEqual(args, (None, True))
        self.assertIs(type(handled), exception_class)
        if text is not None:
            self.assertEqual(str(handled), text)

    def assert_nothing_reported(self):
        self.assertEqual(self.dlog.exception_calls, [])
