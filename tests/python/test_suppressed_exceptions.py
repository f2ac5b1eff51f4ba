"""What becomes of an exception that an event raised, and of its contexts."""

import gc
import os
import sys
import unittest
import weakref

import support
from filter_support import FAILURES, SUPPRESSED, FilterTestCase, forget_handled_exception, messages
from state import state_of


FAILING = """
import sys
import support
optmonitoring = support.load()
from brixbase import dlog

def fail_with(exception_class):
    def second(*args):
        raise exception_class
    dlog.forget()
    optmonitoring.CInitialCallback(sys.monitoring.events.PY_START, second, 1).Callback(fail_with.__code__, 0)
    return dlog.exception_calls[0][1]
"""

HANDLING = FAILING + """
def raise_one():
    raise KeyError

try:
    raise_one()
except KeyError as error:
    %(change)s
    print(fail_with(ValueError).__context__ is error)
"""

HANDLING_AT_ITS_ADDRESS = FAILING + """
address = id(fail_with(ValueError))
fail_with(ValueError)       # the first one dies
others = []
while id(others and others[-1]) != address:
    assert len(others) < 100000
    others.append(ValueError())
try:
    raise others[-1]
except ValueError as error:
    error.__traceback__ = None
    print(fail_with(ValueError).__context__ is error)
"""

COUNTING_FAILS = FAILING + """
def getrefcount(exception):
    raise KeyError(exception)

sys.getrefcount = getrefcount
for _ in range(2):
    failure = fail_with(ValueError)
    print(repr(failure), failure.__context__)
del sys.getrefcount
print(repr(fail_with(KeyError)))
"""

MANY_GENERATORS = FAILING + """
def generator():
    while True:
        yield fail_with(ValueError).__context__

generators = [generator() for _ in range(3000)]
print({next(each) for _ in range(3) for each in generators})
"""


class SuppressedExceptions(FilterTestCase):
    """What the module may do to an exception that it reports: cut its link to the one left as the handled one."""

    def setUp(self):
        super().setUp()
        self.code = self.recorded_function()[0].__code__

    def fail_with(self, second):
        """The exception that was reported to the host."""
        self.dlog.forget()
        self.assertIsNone(self.callback("PY_START", second).Callback(self.code, 0))
        self.assertEqual(len(self.dlog.exception_calls), 1)
        return self.dlog.exception_calls[0][1]

    def raising(self, exception):
        def second(*args):
            raise exception
        return second

    def test_the_next_does_not_refer_to_the_one_left_as_handled(self):
        first = self.fail_with(self.raising(ValueError("first")))
        self.assertIs(sys.exception(), first)
        second = self.fail_with(self.raising(KeyError("second")))
        self.assertIs(sys.exception(), second)
        self.assertEqual((first.__context__, second.__context__), (None, None))

    def test_the_link_is_found_behind_contexts_of_the_hosts_own(self):
        def second(*args):
            try:
                raise KeyError("inner")
            except KeyError:
                raise ValueError("outer")

        self.fail_with(self.raising(ValueError("first")))
        outer = self.fail_with(second)
        self.assertEqual(repr(outer.__context__), "KeyError('inner')")
        self.assertIsNone(outer.__context__.__context__)

    def test_a_context_of_the_programs_stays(self):
        try:
            raise KeyError("of the program")
        except KeyError as error:
            failure = self.fail_with(self.raising(ValueError("first")))
            self.assertIs(failure.__context__, error)
            self.assertIsNone(error.__context__)

    def test_a_context_of_the_programs_stays_where_its_traceback_was_changed(self):
        """In a child, whose module has left no exception as the handled one before."""
        for change in ("error.__traceback__ = None", "error.__traceback__ = error.__traceback__.tb_next",
                       "error.with_traceback(None)"):
            with self.subTest(change=change):
                status, out, err = support.run_child(HANDLING % {"change": change})
                self.assertEqual((status, err), (0, ""))
                self.assertEqual(out, "True\n")

    def test_the_address_of_one_that_has_died_is_forgotten(self):
        # AddressSanitizer would keep what is freed for a while
        options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0"
        status, out, err = support.run_child(HANDLING_AT_ITS_ADDRESS, environment={"ASAN_OPTIONS": options})
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, "True\n")

    def test_references_that_cannot_be_counted(self):
        """On a free-threaded build a function of the interpreter is asked, which the program may replace."""
        status, out, err = support.run_child(COUNTING_FAILS)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, "ValueError() None\nValueError() None\nKeyError()\n")

    def test_a_chain_does_not_grow_in_many_coroutines_that_fail_in_turn(self):
        """Each keeps a handled exception of its own; there are more than the module remembers."""
        status, out, err = support.run_child(MANY_GENERATORS)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, "{None}\n")

    def test_a_context_that_the_host_gave_it_stays(self):
        kept = ValueError("kept")
        kept.__context__ = given = KeyError("given")
        self.assertIs(self.fail_with(self.raising(kept)), kept)
        self.assertIs(kept.__context__, given)

    def test_a_handled_exception_raised_again_keeps_its_context(self):
        def second(*args):
            raise sys.exception()

        for _ in range(2):
            try:
                try:
                    raise KeyError("inner")
                except KeyError:
                    raise ValueError("outer")
            except ValueError as outer:
                self.assertIs(self.fail_with(second), outer)
                self.assertIs(self.fail_with(second), outer)
                self.assertEqual(repr(outer.__context__), "KeyError('inner')")

    def test_no_code_of_its_class_is_run(self):
        class Watchful(Exception):
            touched = []

            def __setattr__(self, name, value):
                self.touched.append(name)
                super().__setattr__(name, value)

            def __getattribute__(self, name):
                Watchful.touched.append(name)
                return super().__getattribute__(name)

            def __eq__(self, other):
                Watchful.touched.append("__eq__")

            __hash__ = None

        def second(*args):
            raise Watchful

        self.fail_with(second)
        self.fail_with(second)
        self.assertEqual(Watchful.touched, [])
        self.assertIsNone(sys.exception().__context__)

    def test_generators_that_fail_in_turn(self):
        """Each keeps a handled exception of its own."""
        def generator():
            while True:
                yield self.fail_with(lambda *args: len(args[0]))

        generators = [generator() for _ in range(3)]
        for _ in range(3):
            for each in generators:
                self.assertIsNone(next(each).__context__)

    def test_threads_fail_on_their_own(self):
        first = self.fail_with(self.raising(ValueError("first")))
        self.assertIsNone(self.in_new_thread(lambda: self.fail_with(self.raising(KeyError("second"))).__context__))
        self.assertIsNone(self.fail_with(self.raising(KeyError("third"))).__context__)
        self.assertIsNone(first.__context__)

    def test_a_ring_of_contexts_ends_the_search(self):
        ring = ValueError("ring")
        ring.__context__ = other = KeyError("other")
        other.__context__ = ring
        self.fail_with(self.raising(ValueError("first")))
        forget_handled_exception()
        self.fail_with(self.raising(ring))
        self.assertEqual((ring.__context__, other.__context__), (other, ring))

    def test_without_the_hosts_function_it_is_dropped(self):
        """So it is for an event while the host's log module is being imported."""
        state = state_of(self.om)
        log_exception, state._LogException = state._LogException, None
        try:
            failure = ValueError("dropped")
            counted = support.references([failure])
            with support.logging_to(FAILURES) as log:
                answer = self.callback("PY_START", self.raising(failure)).Callback(self.code, 0)
            failure.__traceback__ = None
            self.assertIsNone(answer)
            self.assertEqual(messages(log), [SUPPRESSED, "! ValueError: dropped"])
            self.assertIsNone(sys.exception())
            self.assertEqual(support.references([failure]), counted)
        finally:
            state._LogException = log_exception
        self.assert_nothing_reported()

    def test_earlier_ones_are_given_up(self):
        class Failure(Exception):
            pass

        gone = []
        for _ in range(5):
            def second(*args):
                failure = Failure()
                gone.append(weakref.ref(failure))
                raise failure

            self.fail_with(second)
            self.dlog.forget()
        gc.collect()
        self.assertEqual([each() is None for each in gone], [True] * 4 + [False])


if __name__ == "__main__":
    unittest.main()
