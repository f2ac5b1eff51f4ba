"""What is asked of the thread of an event: its debug policy, and whether it is to be held."""

import unittest

import support
from filter_support import (DECISION, INITIAL, INVOKING, SKIPPING, SUPPRESSED, THREADING, FilterTestCase, Recorder,
                            called_line, event_id)


class DebugPolicy(FilterTestCase):
    def policy_lines(self, asked, thread_id, policy):
        return ["CPerThread_GetDebugPolicy_direct(): calling %r (per_thread.fThreadId=%d)\n" % (asked, thread_id),
                "CPerThread_GetDebugPolicy_direct(): policy returned is %d (per_thread.fThreadId=%d)\n"
                % (policy, thread_id)]

    def test_zero_is_answered_none(self):
        policy = Recorder(0)
        self.om.CPerThread.SetDebugPolicyCallback(policy)
        function, _ = self.recorded_function()
        second = Recorder()
        callback = self.callback("LINE", second)
        end = ["CInitialCallback_Callback_CheckDebugPolicy(): debug_policy is 0\n",
               "Initial callback -- return after debug policy check: None\n"]
        answer, log = self.logged(callback, function.__code__, 2)
        thread_id = self.this_thread().fThreadId
        self.assertIsNone(answer)
        self.assertEqual(log, [called_line(callback, function.__code__)] + self.policy_lines(policy, thread_id, 0)
                         + end)
        answer, log = self.logged(callback, function.__code__, 2)
        self.assertIsNone(answer)
        self.assertEqual(log, [called_line(callback, function.__code__)] + end)
        self.assertEqual(policy.calls, [(thread_id,)])
        self.assertEqual(second.calls, [])

    def test_any_other_number_goes_on(self):
        function, _ = self.recorded_function()
        for number in (1, 2, -1, -5, 2 ** 31 - 1, True):
            policy, second = Recorder(number), Recorder()
            self.om.CPerThread.SetDebugPolicyCallback(policy)
            self.callback("LINE", second).Callback(function.__code__, 2)
            self.assertEqual(second.calls, [(function.__code__, 2)])
            self.assertEqual(len(policy.calls), 1)
        self.assert_nothing_reported()

    def assert_failing(self, policy, exception_class, text):
        self.om.CPerThread.SetDebugPolicyCallback(policy)
        function, _ = self.recorded_function()
        second = Recorder()
        callback = self.callback("LINE", second)
        answer, log = self.logged(callback, function.__code__, 2)
        thread_id = self.this_thread().fThreadId
        self.assertIsNone(answer)
        error = "! %s: %s" % (exception_class.__name__, text)
        self.assertEqual(log, [called_line(callback, function.__code__), self.policy_lines(policy, thread_id, 0)[0],
                               "Exception in CPerThread_GetDebugPolicy_direct()\n", error,
                               "CInitialCallback_Callback_CheckDebugPolicy() failed\n", error, SUPPRESSED, error])
        self.assertEqual(second.calls, [])
        self.assert_reported(exception_class, text)

    def test_a_raising_policy_fails_the_event(self):
        def policy(thread_id):
            raise KeyError("policy")

        self.assert_failing(policy, KeyError, "'policy'")

    def test_nonsense_fails_the_event(self):
        self.assert_failing(Recorder("debug it"), TypeError, "an integer is required")

    def test_a_number_too_large_fails_the_event(self):
        self.assert_failing(Recorder(2 ** 40), OverflowError, "the debug policy does not fit into an int")

    def test_what_cannot_be_called_fails_the_event(self):
        self.assert_failing(5, TypeError, "'int' object is not callable")


class SuspendCheck(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.function, self.per_code = self.recorded_function(fEnabledBpLinenos={3})
        self.code = self.function.__code__
        self.second = Recorder()
        self.initial = self.callback("LINE", self.second)
        self.initial.fAnySuspendThread = 1
        self.per_thread = self.this_thread()
        self.steps = []
        self.per_thread.fSuspendLock = self
        self.per_thread.fCheckSuspendLock = 1

    # the test stands in for the lock
    def acquire(self, *args, **keywords):
        self.steps.append(("acquire", args, keywords))

    def release(self, *args, **keywords):
        self.steps.append(("release", args, keywords))

    def passed_lines(self):
        thread_id = self.per_thread.fThreadId
        # the number is printed as a C int
        as_int = (thread_id + 2 ** 31) % 2 ** 32 - 2 ** 31
        return ["fCheckSuspendLock is true; acquiring fSuspendLock: thread_id=%d\n" % as_int,
                "acquired fSuspendLock: thread_id=%d\n" % thread_id,
                "released fSuspendLock: thread_id=%d\n" % thread_id]

    def test_a_thread_passes_through_its_lock(self):
        answer, log = self.logged(self.initial, self.code, 2)
        self.assertIsNone(answer)
        self.assertEqual(self.steps, [("acquire", (), {}), ("release", (), {})])
        self.assertEqual(log, [called_line(self.initial, self.code)] + self.passed_lines()
                         + [DECISION % event_id("LINE"), "returning True\n", SKIPPING])

    def test_each_domain_has_its_own_lines(self):
        self.assertEqual(self.logged(self.initial, self.code, 2, mask=THREADING)[1], self.passed_lines())
        log = self.logged(self.initial, self.code, 2, mask=INITIAL)[1]
        self.assertEqual(log, [called_line(self.initial, self.code), DECISION % event_id("LINE"), "returning True\n",
                               SKIPPING])

    def test_both_flags_are_needed(self):
        self.per_thread.fCheckSuspendLock = 0
        self.initial.Callback(self.code, 2)
        self.per_thread.fCheckSuspendLock = 1
        self.initial.fAnySuspendThread = 0
        self.initial.Callback(self.code, 3)
        self.assertEqual(self.steps, [])

    def test_policy_zero_comes_first(self):
        self.per_thread.fDebugPolicy = 0
        self.initial.Callback(self.code, 2)
        self.assertEqual(self.steps, [])

    def assert_failing(self, lines, exception_class, text):
        answer, log = self.logged(self.initial, self.code, 3)
        self.assertIsNone(answer)
        error = "! %s: %s" % (exception_class.__name__, text)
        self.assertEqual(log, [called_line(self.initial, self.code)] + lines
                         + ["CInitialCallback_SuspendIfNeeded_direct() failed\n", error, SUPPRESSED, error])
        self.assertEqual(self.second.calls, [])
        self.assert_reported(exception_class, text)

    def test_a_failing_acquire_fails_the_event(self):
        def acquire():
            raise ValueError("acquire")

        self.acquire = acquire
        self.assert_failing(self.passed_lines()[:1], ValueError, "acquire")
        self.assertEqual(self.steps, [])

    def test_a_failing_release_fails_the_event(self):
        def release():
            raise ValueError("release")

        self.release = release
        self.assert_failing(self.passed_lines()[:2], ValueError, "release")

    def test_release_is_called_once_even_where_it_fails(self):
        """A second call would free a lock that somebody else has taken meanwhile."""
        def release():
            self.steps.append("release")
            raise ValueError("released, and then this")

        self.release = release
        self.assertIsNone(self.initial.Callback(self.code, 3))
        self.assertEqual(self.steps, [("acquire", (), {}), "release"])

    def test_a_lock_that_cannot_be_released_is_not_acquired(self):
        class Lock:
            def acquire(_):
                self.acquire()

        self.per_thread.fSuspendLock = Lock()
        self.assert_failing(self.passed_lines()[:1], AttributeError, "'Lock' object has no attribute 'release'")
        self.assertEqual(self.steps, [])

    def test_what_is_no_lock_fails_the_event(self):
        self.per_thread.fSuspendLock = 5
        self.assert_failing(self.passed_lines()[:1], AttributeError, "'int' object has no attribute 'acquire'")

    def test_a_deleted_lock_fails_the_event(self):
        del self.per_thread.fSuspendLock
        self.assert_failing(self.passed_lines()[:1], AttributeError, "fSuspendLock")


WITHOUT_RECORD = """
import sys
import support
from filter_support import ALL_MASKS, Recorder, messages, new_function
optmonitoring = support.load()

optmonitoring.CPerThread.__new__ = lambda cls, *args: None
code = new_function().__code__
optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe()).fEnabledBpLinenos = {2}
callback = optmonitoring.CInitialCallback(sys.monitoring.events.LINE, Recorder("called"), 1)
callback.fAnySuspendThread = 1
for line in (2, 3):
    with support.logging_to(ALL_MASKS) as log:
        print(callback.Callback(code, line))
    print("".join(messages(log)[1:]), end="")
"""


@support.needs_monitoring
class ThreadWithoutARecord(unittest.TestCase):
    """The class has been made to give None, in a child, because a class does not get its own `__new__` back."""

    def test_is_neither_asked_nor_held_nor_stepped(self):
        head = ("CInitialCallback_Callback_CheckDebugPolicy(): per_thread is None\n"
                "  CInitialCallback.SkipSecondCallback(): event id %d; " % event_id("LINE"))
        self.assertEqual(support.run_child(WITHOUT_RECORD),
                         (0, "called\n" + head + INVOKING + "None\n" + head + "returning True\n" + SKIPPING, ""))


if __name__ == "__main__":
    unittest.main()
