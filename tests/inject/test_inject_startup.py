"""Start-up with every symbol missing in turn, and the version numbers unreadable; any interpreter from 2.7 on.

Each attempt is a forked child: what start-up finds, it keeps for the life of the process.
"""

import os
import sys
import unittest

import inject_support
from inject_support import ALLOCATIONS, INTERPRETER_CALLS, LOOK_UPS, TO_THE_END, Injected, lib, support

HAS_FILTER = hasattr(sys, "monitoring")
REFUSED = (ImportError, "Unable to init XPy")
WITHOUT_FILTER = (AttributeError, "No sys.monitoring attribute")
USUAL = None if HAS_FILTER else WITHOUT_FILTER      # of an import in which nothing failed
EXPECTED_ERRORS = [
    REFUSED,
    WITHOUT_FILTER,
    (RuntimeError, 'the builtins have no "object"'),
    (RuntimeError, "No code object extra index available"),
    (RuntimeError, "No thread-specific storage key available"),
]
# start-up goes on without version numbers, and what it makes of the module then is not to be used
VERSION_FUNCTIONS = (b"PySys_GetObject", b"PyLong_FromSsize_t", b"PyObject_GetItem", b"PyLong_AsSsize_t")


def one_event():
    """Whether an event goes through the module and reaches the host."""
    import optmonitoring
    seen = []
    callback = optmonitoring.CInitialCallback(optmonitoring.kPyLineEventId, lambda *args: seen.append(args), 1)
    callback.Callback(one_event.__code__, 3)
    return seen == [(one_event.__code__, 3)]


def import_module():
    """(class, text) of the exception of an import, or None."""
    try:
        import optmonitoring    # noqa: F401
    except Exception as e:
        return type(e), str(e)


def is_expected(error):
    return error in EXPECTED_ERRORS or error[0] in (Injected, MemoryError)


def fault_of_call(error):
    """What is wrong with an import in which an interpreter call or an allocation failed."""
    if error is not None and not is_expected(error):
        return "an exception of its own"
    if error in (REFUSED, WITHOUT_FILTER):
        return None
    is_without_version = lib.inject_failed_name(0) in VERSION_FUNCTIONS
    if not HAS_FILTER and is_without_version:
        return None
    if error != USUAL and import_module() != USUAL:
        return "the next try fails"
    if not HAS_FILTER:
        return None
    if is_without_version and "CInitialCallback" not in vars(sys.modules["optmonitoring"]):
        return None
    return None if one_event() else "the event did not reach the host"


def fault_of_look_up(error):
    """What is wrong with an import in which a symbol was missing.

    An interpreter without one that it has may do without, or refuse; what its fallback cannot do raises.
    """
    if error is None:
        try:
            one_event()
        except Exception:
            pass
    return None


def attempt(target, first, last, fault_of):
    """In a child: 0 when nothing failed, 1 when it did and all is well, else the child's story."""
    reading, writing = os.pipe()
    pid = os.fork()
    if pid == 0:
        status = 0
        try:
            os.close(reading)
            os.dup2(os.open(os.devnull, os.O_WRONLY), 2)        # start-up speaks of what it misses
            lib.inject_arm(target, first, last, Injected)
            error = import_module()
            lib.inject_disarm()
            status = 1 if lib.inject_failed_count() else 0
            fault = fault_of(error)
            if fault:
                raise AssertionError("%s: %r after failure of %s" % (fault, error, lib.inject_failed_name(0)))
        except BaseException as e:
            status = 2
            os.write(writing, ("%s: %s" % (type(e).__name__, e)).encode())
        os._exit(status)
    os.close(writing)
    story = b""
    while True:
        piece = os.read(reading, 4096)
        if not piece:
            break
        story += piece
    os.close(reading)
    status = os.waitpid(pid, 0)[1]
    if status not in (0, 1 << 8):
        return story.decode() or "status %d" % status
    return status >> 8


class StartUp(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        support.add_paths()

    def walk(self, target, burst=False, fault_of=fault_of_call):
        faults, n = [], 1
        while True:
            outcome = attempt(target, n, TO_THE_END if burst else n, fault_of)
            if outcome == 0:
                break
            if outcome != 1:
                faults.append("%d%s: %s" % (n, " and later ones" if burst else "", outcome))
            n += 1
        self.assertEqual("\n".join(faults), "")
        return n - 1

    @unittest.skipIf(hasattr(sys, "gettotalrefcount"), "a debug build stops at a fallback that breaks its rules")
    def test_every_symbol_missing(self):
        self.assertGreater(self.walk(LOOK_UPS, False, fault_of_look_up), 200)

    def test_every_call_failing(self):
        self.assertGreater(self.walk(INTERPRETER_CALLS), 5)

    def test_every_call_and_all_behind_it_failing(self):
        self.assertGreater(self.walk(INTERPRETER_CALLS, True), 5)

    def test_every_allocation_failing(self):
        steps = self.walk(ALLOCATIONS)
        if HAS_FILTER:
            self.assertGreater(steps, 2)


if __name__ == "__main__":
    unittest.main()
