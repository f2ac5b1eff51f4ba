"""The module in a free-threaded interpreter: the lock it asks for, the layout, the filter in many threads."""

import collections
import os
import sys
import threading
import unittest

import child_storm
import support
from test_layout_truth import API, MISSING

THREADS = 8
LONG = 120          # seconds; only a deadlock takes that long
STORM_SECONDS = os.environ.get("OPTMONITORING_STORM_SECONDS", "1")

LOADING = """
import sys, warnings
import support

print(sys._is_gil_enabled())
with warnings.catch_warnings(record=True) as caught:
    warnings.simplefilter("always")
    optmonitoring = support.load()
print(sys._is_gil_enabled())
print([(each.category.__name__, str(each.message).startswith(support.LOCK_WARNING)) for each in caught])
print(optmonitoring.GetPathnameKind("<x>"))
"""

# the loop's body is line 4
PROGRAM = """def run(count, barrier):
    barrier.wait()
    for n in range(count):
        total = n
    return total
"""
BODY_LINE = 4


@unittest.skipUnless(support.FREE_THREADED, "this interpreter is not free-threaded")
class FreeThreadedTest(unittest.TestCase):
    def setUp(self):
        self.om = support.load()

    def test_loading_switches_the_lock_on_and_says_so_once(self):
        out = support.check_child(self, LOADING, environment={"PYTHON_GIL": ""})
        self.assertEqual(out, "False\nTrue\n[('RuntimeWarning', True)]\n4\n")

    def test_lock_is_on_here(self):
        self.assertIs(sys._is_gil_enabled(), os.environ.get("PYTHON_GIL") != "0")

    def test_header_has_a_mutex_and_no_count(self):
        self.assertEqual(API.pyobject_offsets.refcnt, MISSING)
        self.assertEqual((API.pyobject_offsets.mutex, API.pyobject_offsets.type), (10, 24))
        self.assertEqual(API.can_update_refcount_directly, 0)

    def test_death_of_a_code_object_that_has_had_two_records(self):
        code = compile("pass", "/nowhere/twice.py", "exec")
        before = support.total_instances(self.om.CPerCodeObject)
        first, second = [self.om.CPerCodeObject(code, None) for _ in range(2)]
        self.assertIs(first.fCodeObjectWeakRef(), code)
        self.assertIs(second.fCodeObjectWeakRef(), code)
        del code
        support.bury_code()
        self.assertEqual((first.fCodeObjectWeakRef(), second.fCodeObjectWeakRef()), (None, None))
        self.assertEqual((sys.getrefcount(first), sys.getrefcount(second)), (2, 2))
        del first, second
        self.assertEqual(support.total_instances(self.om.CPerCodeObject), before)


@unittest.skipUnless(support.FREE_THREADED, "this interpreter is not free-threaded")
class ThreadsTest(unittest.TestCase):
    """All threads run the same function, or one of their own, at the same time."""

    def setUp(self):
        self.om = support.load()
        self.line_event = sys.monitoring.events.LINE
        self.om.reset()
        self.addCleanup(self.om.reset)
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-5)     # the lock changes hands in the middle of everything

    def program(self, filename):
        """A function with a breakpoint in its loop."""
        namespace = {}
        exec(compile(PROGRAM, filename, "exec"), namespace)
        record = self.om.CPerCodeObject.GetPerCodeObject(namespace["run"].__code__, True, sys._getframe())
        record.fEnabledBpLinenos = {BODY_LINE}
        return namespace["run"]

    def stops(self, functions, counts):
        """How often each thread was stopped at which line of which code object."""
        stops = [collections.Counter() for _ in functions]
        number_of = {}
        barrier = threading.Barrier(len(functions))

        def second(code, line):
            stops[number_of[threading.get_ident()]][code.co_filename, line] += 1

        def run(number):
            number_of[threading.get_ident()] = number
            functions[number](counts[number], barrier)

        callback = self.om.CInitialCallback(self.line_event, second, 1)
        with support.monitoring_tool({self.line_event: callback.Callback}) as tool:
            for function in functions:
                tool.set_local_events(function.__code__, self.line_event)
            threads = [threading.Thread(target=run, args=(number,), daemon=True) for number in range(len(functions))]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(LONG)
            self.assertEqual([thread.is_alive() for thread in threads], [False] * len(threads))
        return [dict(each) for each in stops]

    def test_each_thread_stops_as_often_as_it_comes_by(self):
        counts = [1000 + 100 * number for number in range(THREADS)]
        function = self.program("/nowhere/shared.py")
        self.assertEqual(self.stops([function] * THREADS, counts),
                         [{("/nowhere/shared.py", BODY_LINE): count} for count in counts])

    def test_each_thread_stops_in_a_function_of_its_own(self):
        counts = [1000 + 100 * number for number in range(THREADS)]
        names = ["/nowhere/own_%d.py" % number for number in range(THREADS)]
        self.assertEqual(self.stops([self.program(name) for name in names], counts),
                         [{(name, BODY_LINE): count} for name, count in zip(names, counts)])

    def test_records_of_the_threads_are_gone_afterwards(self):
        before = support.total_instances(self.om.CPerThread)
        function = self.program("/nowhere/shared.py")
        self.assertEqual(len(self.stops([function] * THREADS, [10] * THREADS)), THREADS)
        self.assertEqual(self.om.CPerThread.GetAllPerThreads(), [])
        self.assertEqual(support.total_instances(self.om.CPerThread), before)


@unittest.skipUnless(support.FREE_THREADED, "this interpreter is not free-threaded")
class StormTest(unittest.TestCase):
    """Eight threads do one thing each at the same time, without the interpreter lock."""


def _make_storm(kind):
    def test(self):
        out = support.check_child(self, "child_storm.py", STORM_SECONDS, kind, environment={"PYTHON_GIL": "0"})
        self.assertRegex(out, r"^\{'%s': [1-9]\d*\} [1-9]\d*\n$" % kind)
    return test


for _kind in sorted(set(child_storm.kinds) - {"forks", "everything"}):      # see the limits of 3.13's fork: docs/reliability.md
    setattr(StormTest, "test_" + _kind, _make_storm(_kind))


if __name__ == "__main__":
    unittest.main()
