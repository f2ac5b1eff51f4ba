"""The module in a free-threaded interpreter: its lock, the layout, the filter in many threads."""

import collections
import itertools
import os
import sys
import threading
import unittest
import weakref

import child_storm
import support
from test_layout_truth import API, MISSING

THREADS = 8
ALL_CHANNELS = 0x7fff
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

# By how much the references to the module and to the callback rise while an event is handed to the host, and stay up
# afterwards; the counts are exact as long as there has been one thread alone.
HOLDING = """
import ctypes, sys
import support

%s
seen = []

def counts():
    return sys.getrefcount(om), sys.getrefcount(callback)

def second(code, offset):
    seen.append(counts())

def function():
    pass

om.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe()).fSteppingEventsNeededCount = 1
with support.monitoring_tool({}) as tool:
    callback = om.CInitialCallback(sys.monitoring.events.PY_START, second, 1)
    tool.on(sys.monitoring.events.PY_START, callback.Callback)
    tool.set_local_events(function.__code__, sys.monitoring.events.PY_START)
    function()                   # what it finds out stays
    before = counts()
    function(), function()
    seen.append(counts())
    print([[count - first for count, first in zip(each, before)] for each in seen[1:]])
"""
FAST, FULL = "[[1, 0], [1, 0], [0, 0]]\n", "[[0, 1], [0, 1], [0, 0]]\n"      # which path it takes

# the C library has no key left for the threads that read without a lock, when the module begins
NO_KEY_LEFT = """
import importlib.util

support.add_paths()
libc, key, keys = ctypes.CDLL(None), ctypes.c_uint(), []
while libc.pthread_key_create(ctypes.byref(key), None) == 0:
    keys.append(key.value)
spec = importlib.util.find_spec("optmonitoring")
om = importlib.util.module_from_spec(spec)
for each in keys:
    libc.pthread_key_delete(each)
spec.loader.exec_module(om)
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

    @unittest.skipUnless(support.CAN_DO_WITHOUT_LOCK, "the module needs the lock here")
    def test_loading_leaves_the_lock_off_and_says_nothing(self):
        out = support.check_child(self, LOADING, environment={"PYTHON_GIL": ""})
        self.assertEqual(out, "False\nFalse\n[]\n4\n")

    @unittest.skipIf(support.CAN_DO_WITHOUT_LOCK, "the module does not need the lock here")
    def test_loading_switches_the_lock_on_and_says_so_once(self):
        out = support.check_child(self, LOADING, environment={"PYTHON_GIL": ""})
        self.assertEqual(out, "False\nTrue\n[('RuntimeWarning', True)]\n4\n")

    def test_lock_stays_as_the_user_wants_it(self):
        for gil, is_on in ("0", False), ("1", True):
            out = support.check_child(self, LOADING, environment={"PYTHON_GIL": gil})
            self.assertEqual(out, "%s\n%s\n[]\n4\n" % (is_on, is_on))

    def test_lock_is_as_expected_here(self):
        self.assertIs(support.is_lock_off(), support.WILL_LOCK_BE_OFF)

    def assertHolds(self, expected, loading):
        self.assertEqual(support.check_child(self, HOLDING % loading, environment={"PYTHON_GIL": "0"}), expected)

    @unittest.skipUnless(support.CAN_DO_WITHOUT_LOCK, "events read no slots here")
    def test_an_event_for_the_host_holds_the_module(self):
        """It does not hold the instance, whose count all threads would share."""
        self.assertHolds(FAST, "om = support.load()")

    def test_events_take_the_full_path_once_the_module_was_loaded_twice(self):
        """Then the array of a code object's extra slots may have to move."""
        again = "support.load()\ndel sys.modules['optmonitoring']\n"
        self.assertHolds(FULL, again + "om = support.load()")
        self.assertHolds(FULL, "om = " + again + "support.load()")

    def test_events_take_the_full_path_where_no_thread_can_say_that_it_reads(self):
        self.assertHolds(FULL, NO_KEY_LEFT)

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

    def test_a_line_that_stays_is_never_missed_while_the_others_change(self):
        function, is_over = self.program("/nowhere/changing.py"), threading.Event()
        record = self.om.CPerCodeObject.GetPerCodeObject(function.__code__)

        def change():
            for number in itertools.count(BODY_LINE + 1):
                record.fEnabledBpLinenos = (frozenset, set)[number % 2]((BODY_LINE, number, number + 8))
                lines = record.fEnabledBpLinenos
                if isinstance(lines, set):
                    lines.update(range(number, number + 20))
                    lines.difference_update(range(number, number + 20))
                if is_over.is_set():
                    return

        changer = threading.Thread(target=change)
        changer.start()
        try:
            stops = self.stops([function] * THREADS, [5000] * THREADS)
        finally:
            is_over.set()
            changer.join()
        # lines of the loop that were added for a moment may have been seen as well
        self.assertEqual([each["/nowhere/changing.py", BODY_LINE] for each in stops], [5000] * THREADS)

    @unittest.skipUnless(support.WILL_LOCK_BE_OFF, "the interpreter lock is on")
    def test_all_of_this_with_the_lock(self):
        status, out, err = support.run_child("run_tests.py", "test_free_threaded.ThreadsTest", environment={"PYTHON_GIL": "1"})
        self.assertRegex(err, r"OK \(skipped=1\)\s*$")
        self.assertEqual(status, 0)

    def test_records_of_the_threads_are_gone_afterwards(self):
        before = support.total_instances(self.om.CPerThread)
        function = self.program("/nowhere/shared.py")
        self.assertEqual(len(self.stops([function] * THREADS, [10] * THREADS)), THREADS)
        self.assertEqual(self.om.CPerThread.GetAllPerThreads(), [])
        self.assertEqual(support.total_instances(self.om.CPerThread), before)


class Marked:
    """What a weak reference can lead to."""


@unittest.skipUnless(support.CAN_DO_WITHOUT_LOCK and support.WILL_LOCK_BE_OFF, "the interpreter lock is on")
class HeldLinesTest(unittest.TestCase):
    """Events hold the frozenset of lines that they look into; it dies soon after the program has let go of it."""

    def setUp(self):
        self.om = support.load()
        self.line_event = sys.monitoring.events.LINE
        self.code = compile("pass", "/nowhere/held.py", "exec")
        self.record = self.om.CPerCodeObject.GetPerCodeObject(self.code, True, sys._getframe())
        self.seen = []
        callback = self.om.CInitialCallback(self.line_event, lambda code, line: self.seen.append(line), 1)
        self.event = callback.Callback

    def new_lines(self, kind, *lines):
        """A reference to one of the elements of the lines that the record gets."""
        mark = Marked()
        self.record.fEnabledBpLinenos = kind((mark, *lines))
        return weakref.ref(mark)

    def test_lines_are_held_until_an_event_sees_others(self):
        for lines in frozenset((9,)), {9}, None:
            with self.subTest(lines):
                mark = self.new_lines(frozenset, 7)
                for line in 7, 8, 7:
                    self.event(self.code, line)
                self.record.fEnabledBpLinenos = lines
                self.assertIsNotNone(mark())
                with open(os.devnull, "w") as stream:       # an event that is logged looks at what is there
                    self.om.set_dprintf_file(stream, -1, 0)
                    self.om.set_dprintf_mask(ALL_CHANNELS)
                    self.event(self.code, 9)
                    self.om.reset()
                self.assertIsNone(mark())
        self.assertEqual(self.seen, [7, 7, 9] * 3)

    def test_a_set_is_not_held(self):
        mark = self.new_lines(set, 7)
        self.event(self.code, 7)
        self.record.fEnabledBpLinenos = None
        self.assertIsNone(mark())

    def test_a_frozenset_of_a_class_of_its_own_is_asked_itself(self):
        class Lines(frozenset):
            pass
        mark = self.new_lines(Lines, 7)
        for line in 7, 8:
            self.event(self.code, line)
        self.assertEqual(self.seen, [7])
        self.record.fEnabledBpLinenos = None
        self.assertIsNone(mark())

    def test_lines_die_with_the_record(self):
        mark = self.new_lines(frozenset, 7)
        self.event(self.code, 7)
        self.assertIsNotNone(mark())
        del self.code, self.record
        support.bury_code()
        self.assertIsNone(mark())

    def test_lines_go_with_a_record_that_is_ended_by_hand(self):
        mark = self.new_lines(frozenset, 7)
        self.event(self.code, 7)
        self.record.__del__()
        self.assertIsNone(mark())
        self.event(self.code, 7)
        self.assertEqual(self.seen, [7, 7])


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
