"""What the tests of the record classes share."""

import contextlib
import ctypes
import sys
import threading
import unittest

import support

FAILURES = 64
INITIAL = 256

CLASS_ATTRIBUTES = {
    "CPerThread": ("_fPerThreadDict", "_fDebugPolicyCallback", "_fNewPerThreadCreatedCallback",
                   "_fGetThreadNameCallback"),
    "CPerCodeObject": ("_fPerCodeObjectDict", "_fNewPerCodeObjectCreatedCallback"),
    "CPerFile": ("_fPerFilesDict", "_fByChecksum", "_fNewPerFileCreatedCallback"),
}


@contextlib.contextmanager
def immutable(cls):
    """Attributes of the class cannot be set, as those of the interpreter's own classes."""
    flag = 1 << 8       # Py_TPFLAGS_IMMUTABLETYPE
    flags = ctypes.c_ulong.from_address(id(cls) + object.__basicsize__ + 152)       # tp_flags
    assert flags.value == cls.__flags__ & (1 << 64) - 1
    flags.value |= flag
    try:
        yield
    finally:
        flags.value &= ~flag


class Raising(object):
    """A class attribute that cannot be read."""

    def __get__(self, obj, cls):
        raise ValueError("cannot be read")


class BadTruth(object):
    def __bool__(self):
        raise ValueError("no truth")


class RaisingMapping(object):
    """A registry whose operations raise, except those given as functions."""

    def __init__(self, **operations):
        self.operations = operations

    def _do(self, name, *args):
        if name not in self.operations:
            raise ValueError(name + " refused")
        return self.operations[name](*args)

    def __getitem__(self, key):
        return self._do("get", key)

    def __setitem__(self, key, value):
        self._do("set", key, value)

    def __delitem__(self, key):
        self._do("delete", key)

    def clear(self):
        pass


def key_error(key, *args):
    raise KeyError(key)


def in_thread(action, daemon=False):
    """The result of the action in a thread of its own, which has ended."""
    outcome = []

    def run():
        try:
            outcome.append((action(), None))
        except BaseException as e:
            outcome.append((None, e))

    thread = threading.Thread(target=run)
    thread.daemon = daemon
    thread.start()
    thread.join()
    result, error = outcome[0]
    if error is not None:
        raise error
    return result


class Worker(object):
    """A thread that runs actions one after the other, each when it is asked to."""

    def __init__(self, daemon=False):
        self._wanted = threading.Semaphore(0)
        self._done = threading.Semaphore(0)
        self._action = None
        self._thread = threading.Thread(target=self._run)
        self._thread.daemon = daemon
        self._thread.start()
        self.ident = self._thread.ident

    def _run(self):
        while True:
            self._wanted.acquire()
            if self._action is None:
                return
            try:
                self._results.append(self._action())
            except BaseException as e:
                self._errors.append(e)
            self._action = None
            self._done.release()

    def do(self, action):
        # made here: a free-threaded interpreter leaves it to the waiting worker to release what that one has made
        self._results, self._errors = [], []
        self._action = action
        self._wanted.release()
        self._done.acquire()
        if self._errors:
            raise self._errors.pop()
        return self._results.pop()

    def end(self):
        if self._thread.is_alive():
            self._wanted.release()
            self._thread.join()


@support.needs_monitoring
class RecordTestCase(unittest.TestCase):
    """Starts from a reset module and puts every class attribute back."""

    def setUp(self):
        self.om = support.load()
        support.bury_code()         # of the tests before this one
        self.om.reset()
        self.addCleanup(self._restore)
        self.saved = [(getattr(self.om, cls), name, getattr(self.om, cls).__dict__[name])
                      for cls, names in CLASS_ATTRIBUTES.items() for name in names]

    def _restore(self):
        for cls, name, value in self.saved:
            setattr(cls, name, value)
        self.om.reset()
        self.saved = None

    def worker(self, daemon=False):
        worker = Worker(daemon)
        self.addCleanup(worker.end)
        return worker

    def fails(self, error, text, texts, action, *args, **kwargs):
        """The action raises, and the log holds these failure lines, each with the exception's report."""
        with support.logging_to(FAILURES) as log:
            with self.assertRaises(error) as caught:
                action(*args, **kwargs)
        self.assertIs(type(caught.exception), error)
        self.assertEqual(str(caught.exception), text)
        prefix = "" if error.__module__ in ("builtins", "exceptions") else error.__module__ + "."
        self.check_log(log, texts, prefix + error.__name__ + (": " + text if text else ""))

    def check_log(self, log, texts, last_line):
        if not texts:
            self.assertEqual(log.getvalue(), "")
            return
        pieces = log.getvalue().split(support.HEAD_LINE)
        report = pieces[-1]
        self.assertEqual(pieces, [texts[0]] + [report + text for text in texts[1:]] + [report])
        self.assertEqual(report.splitlines()[-1].partition(". Did you mean")[0], last_line)

    def check_read_only(self, record, name):
        before = getattr(record, name)
        with self.assertRaises(AttributeError):
            setattr(record, name, 1)
        with self.assertRaises(AttributeError):
            delattr(record, name)
        self.assertIs(getattr(record, name), before)

    def check_writable_object(self, record, name):
        value = object()
        count = sys.getrefcount(value)
        setattr(record, name, value)
        self.assertIs(getattr(record, name), value)
        self.assertEqual(sys.getrefcount(value), count + 1)
        delattr(record, name)
        self.assertEqual(sys.getrefcount(value), count)
        with self.assertRaises(AttributeError):
            getattr(record, name)
        setattr(record, name, None)
        self.assertIsNone(getattr(record, name))

    def check_writable_number(self, record, name, limit):
        for value in (1, -1, limit - 1, -limit):
            setattr(record, name, value)
            self.assertEqual(getattr(record, name), value)
        with self.assertRaises(TypeError):
            delattr(record, name)
        self.assertEqual(getattr(record, name), -limit)
        with self.assertRaises(TypeError):
            setattr(record, name, "1")
        setattr(record, name, 0)

    def check_all_unset(self, record, names):
        for name in names:
            with self.assertRaises(AttributeError, msg=name):
                getattr(record, name)

    def subclasses(self, cls):
        """Python subclasses: without slots of their own, with empty and with filled ones."""
        return [type("Plain", (cls,), {}),
                type("EmptySlots", (cls,), {"__slots__": ()}),
                type("Slots", (cls,), {"__slots__": ("extra",)}),
                type("Mixed", (type("Mixin", (object,), {}), cls), {}),
                type("Deep", (type("Deeper", (cls,), {"__slots__": ("a", "b")}),), {})]
