"""An event is answered the same whether the log is open, when it goes step by step, or closed, when it takes the short
road: the thread's record is there with policy and name, the code object's too."""

import contextlib
import errno
import sys
import threading
import unittest

import support
from filter_support import EVENT_NAMES, FilterTestCase, Recorder, errno_variable, forget_handled_exception

LINE = 2        # of the functions that the tests make


class Lock(object):
    """A suspend lock that writes down what was called."""

    def __init__(self, failing=None):
        self.calls, self.failing = [], failing

    def acquire(self):
        self.calls.append("acquire")
        if self.failing == "acquire":
            raise ZeroDivisionError("acquire")

    def release(self):
        self.calls.append("release")
        if self.failing == "release":
            raise ZeroDivisionError("release")


class BothRoads(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.om.CPerThread.SetDebugPolicyCallback(lambda thread_id: 1)
        self.om.CPerThread.SetGetThreadNameCallback(lambda record: "thread")
        self.function, self.record_of_it = self.recorded_function(fEnabledBpLinenos={LINE + 1})
        self.code = self.function.__code__
        self.thread = self.this_thread()
        self.addCleanup(setattr, self.thread, "fSteppingEventsNeeded", False)
        # asks for both, so that the events of the tests find them
        self.callback("PY_START").Callback(self.code, 0)
        self.assertEqual((self.thread.fDebugPolicy, self.thread.fThreadName), (1, "thread"))

    def each_road(self):
        """Closes, then opens the log; gives the name of the road that events take then."""
        for name, log in (("short", contextlib.nullcontext()), ("step by step", support.logging_to(1023))):
            self.dlog.forget()
            with log:
                yield name

    def test_stepping_in_the_thread_forwards_every_event(self):
        for event in EVENT_NAMES:
            answer = object()
            second = Recorder(answer)
            callback = self.callback(event, second)
            for _ in self.each_road():
                self.thread.fSteppingEventsNeeded = True
                # a line that is not among the breakpoint lines is answered before the thread is looked at
                callback.fSteppingEventsNeededEveryThread = 1
                self.assertIs(callback.Callback(self.code, LINE, "more"), answer)
                self.assertEqual(second.calls.pop(), (self.code, LINE, "more"))
                self.assertEqual(second.keywords.pop(), {})
                self.thread.fSteppingEventsNeeded = False
                self.assertIsNone(callback.Callback(self.code, LINE, "more"))
                self.assertEqual(second.calls, [])

    def test_keywords_go_on_as_they_came(self):
        self.thread.fSteppingEventsNeeded = True
        second = Recorder()
        for _ in self.each_road():
            self.callback("PY_START", second).Callback(self.code, 0, key="value")
            self.assertEqual((second.calls.pop(), second.keywords.pop()), ((self.code, 0), {"key": "value"}))

    def test_stepping_in_the_code_object_forwards(self):
        second = Recorder(sys.monitoring.DISABLE)
        self.record_of_it.fSteppingEventsNeededCount = 2
        for event in EVENT_NAMES:
            for _ in self.each_road():
                self.assertIs(self.callback(event, second).Callback(self.code, LINE), sys.monitoring.DISABLE)
        self.assertEqual(second.calls, [(self.code, LINE)] * 10)

    def test_a_record_without_lines_forwards(self):
        second = Recorder(17)
        self.record_of_it.fEnabledBpLinenos = None
        for event in EVENT_NAMES:
            for _ in self.each_road():
                self.assertEqual(self.callback(event, second).Callback(self.code, LINE), 17)
        self.assertEqual(len(second.calls), 10)

    def test_returns_are_forwarded_while_they_are_needed(self):
        second = Recorder()
        self.record_of_it.fReturnEventsNeededCount = 1
        for _ in self.each_road():
            for event in EVENT_NAMES:
                self.callback(event, second).Callback(self.code, LINE, event)
            self.assertEqual([call[2] for call in second.calls], ["PY_RETURN", "PY_YIELD"])
            del second.calls[:]

    def test_breakpoint_lines(self):
        second = Recorder("stopped")
        callback = self.callback("LINE", second)
        for every_thread in (0, 1):
            callback.fSteppingEventsNeededEveryThread = every_thread
            for _ in self.each_road():
                self.assertIsNone(callback.Callback(self.code, LINE))
                self.assertEqual(callback.Callback(self.code, LINE + 1), "stopped")
                self.assertEqual(second.calls, [(self.code, LINE + 1)])
                del second.calls[:]

    def test_a_thread_that_is_not_debugged(self):
        self.thread.fSteppingEventsNeeded = True
        self.thread.fDebugPolicy = 0
        self.addCleanup(setattr, self.thread, "fDebugPolicy", 1)
        second = Recorder()
        for event in EVENT_NAMES:
            for _ in self.each_road():
                callback = self.callback(event, second)
                callback.fSteppingEventsNeededEveryThread = 1
                self.assertIsNone(callback.Callback(self.code, LINE + 1))
        self.assertEqual(second.calls, [])

    def test_a_failing_second_callback(self):
        def second(code, line):
            raise KeyError("second")

        self.thread.fSteppingEventsNeeded = True
        for _ in self.each_road():
            self.assertIsNone(self.callback("PY_START", second).Callback(self.code, 0))
            self.assert_reported(KeyError, "'second'")
            forget_handled_exception()

    def test_errno_of_the_program(self):
        variable = errno_variable()

        def second(code, line):
            variable.value = errno.EBADF

        self.thread.fSteppingEventsNeeded = True
        callback = self.callback("PY_START", second)
        for _ in self.each_road():
            variable.value = errno.ENOENT
            callback.Callback(self.code, 0)
            self.assertEqual(variable.value, errno.ENOENT)

    def test_keeps_the_errno_of_the_second_callback_where_it_was_0(self):
        variable = errno_variable()

        def second(code, line):
            variable.value = errno.EBADF

        self.thread.fSteppingEventsNeeded = True
        callback = self.callback("PY_START", second)
        for _ in self.each_road():
            variable.value = 0
            callback.Callback(self.code, 0)
            self.assertEqual(variable.value, errno.EBADF)

    def test_errno_where_the_second_callback_fails(self):
        variable = errno_variable()

        def second(code, line):
            variable.value = errno.EBADF
            raise KeyError("second")

        self.thread.fSteppingEventsNeeded = True
        callback = self.callback("PY_START", second)
        for _ in self.each_road():
            variable.value = errno.ENOENT
            callback.Callback(self.code, 0)
            self.assertEqual(variable.value, errno.ENOENT)
            forget_handled_exception()

    def test_a_thread_to_be_held(self):
        self.addCleanup(setattr, self.thread, "fCheckSuspendLock", 0)
        self.addCleanup(setattr, self.thread, "fSuspendLock", self.thread.fSuspendLock)
        callback = self.callback("PY_START")
        for any_thread, this_thread, calls in ((0, 1, []), (1, 0, []), (1, 1, ["acquire", "release"])):
            callback.fAnySuspendThread = any_thread
            self.thread.fCheckSuspendLock = this_thread
            for _ in self.each_road():
                self.thread.fSuspendLock = Lock()
                self.assertIsNone(callback.Callback(self.code, 0))
                self.assertEqual(self.thread.fSuspendLock.calls, calls)

    def test_a_suspend_lock_that_fails(self):
        self.addCleanup(setattr, self.thread, "fCheckSuspendLock", 0)
        self.addCleanup(setattr, self.thread, "fSuspendLock", self.thread.fSuspendLock)
        second = Recorder()
        callback = self.callback("PY_START", second)
        callback.fAnySuspendThread = 1
        self.thread.fCheckSuspendLock = 1
        self.thread.fSteppingEventsNeeded = True
        for failing in ("acquire", "release"):
            for _ in self.each_road():
                self.thread.fSuspendLock = Lock(failing)
                self.assertIsNone(callback.Callback(self.code, 0))
                self.assert_reported(ZeroDivisionError, failing)
                forget_handled_exception()
        self.assertEqual(second.calls, [])

    def test_internal_code(self):
        self.thread.fSteppingEventsNeeded = True
        with self.internal(self.code.co_filename):
            function = eval(compile("lambda: 1", self.code.co_filename, "eval"))
            self.assertTrue(self.record(function.__code__).fIsInternal)
        second = Recorder()
        for may_disable, answer in ((1, sys.monitoring.DISABLE), (0, None)):
            callback = self.callback("LINE", second, may_disable)
            for _ in self.each_road():
                self.assertIs(callback.Callback(function.__code__, 1), answer)
        self.assertEqual(second.calls, [])

    def test_other_threads_step_on_their_own(self):
        second = Recorder()
        callback = self.callback("LINE", second)
        callback.fSteppingEventsNeededEveryThread = 1
        self.thread.fSteppingEventsNeeded = True

        def two_events():
            return [callback.Callback(self.code, LINE) for _ in range(2)]

        for _ in self.each_road():
            self.assertEqual(self.in_new_thread(two_events), [None, None])
            self.assertEqual(second.calls, [])
            callback.Callback(self.code, LINE)
            self.assertEqual(second.calls.pop(), (self.code, LINE))

    def test_a_dying_callback_object_answers_first(self):
        """The second callback drops the last reference to its own callback object."""
        holder = []
        self.thread.fSteppingEventsNeeded = True
        for _ in self.each_road():
            holder.append(self.callback("PY_START", lambda code, offset: holder.clear() or threading.get_ident()))
            self.assertEqual(holder[0].Callback(self.code, 0), threading.get_ident())
            self.assertEqual(holder, [])


if __name__ == "__main__":
    unittest.main()
