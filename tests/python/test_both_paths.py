"""An event is answered the same on the fast path, which decides most of them while the log is closed, and on the full
path, which decides all of them while it is open."""

import contextlib
import errno
import itertools
import random
import sys
import threading
import types
import unittest

import support
from filter_support import (EVENT_NAMES, FilterTestCase, Recorder, errno_variable, forget_handled_exception,
                            new_function)

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


class BothPaths(FilterTestCase):
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

    def each_path(self):
        """Closes, then opens the log; gives the name of the path that events take then."""
        for name, log in (("fast", contextlib.nullcontext()), ("full", support.logging_to(1023))):
            self.dlog.forget()
            with log:
                yield name

    def test_stepping_in_the_thread_forwards_every_event(self):
        for event in EVENT_NAMES:
            answer = object()
            second = Recorder(answer)
            callback = self.callback(event, second)
            for _ in self.each_path():
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
        for _ in self.each_path():
            self.callback("PY_START", second).Callback(self.code, 0, key="value")
            self.assertEqual((second.calls.pop(), second.keywords.pop()), ((self.code, 0), {"key": "value"}))

    def test_stepping_in_the_code_object_forwards(self):
        second = Recorder(sys.monitoring.DISABLE)
        self.record_of_it.fSteppingEventsNeededCount = 2
        for event in EVENT_NAMES:
            for _ in self.each_path():
                self.assertIs(self.callback(event, second).Callback(self.code, LINE), sys.monitoring.DISABLE)
        self.assertEqual(second.calls, [(self.code, LINE)] * 10)

    def test_a_record_without_lines_forwards(self):
        second = Recorder(17)
        self.record_of_it.fEnabledBpLinenos = None
        for event in EVENT_NAMES:
            for _ in self.each_path():
                self.assertEqual(self.callback(event, second).Callback(self.code, LINE), 17)
        self.assertEqual(len(second.calls), 10)

    def test_returns_are_forwarded_while_they_are_needed(self):
        second = Recorder()
        self.record_of_it.fReturnEventsNeededCount = 1
        for _ in self.each_path():
            for event in EVENT_NAMES:
                self.callback(event, second).Callback(self.code, LINE, event)
            self.assertEqual([call[2] for call in second.calls], ["PY_RETURN", "PY_YIELD"])
            del second.calls[:]

    def test_breakpoint_lines(self):
        second = Recorder("stopped")
        callback = self.callback("LINE", second)
        for every_thread in (0, 1):
            callback.fSteppingEventsNeededEveryThread = every_thread
            for _ in self.each_path():
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
            for _ in self.each_path():
                callback = self.callback(event, second)
                callback.fSteppingEventsNeededEveryThread = 1
                self.assertIsNone(callback.Callback(self.code, LINE + 1))
        self.assertEqual(second.calls, [])

    def test_a_failing_second_callback(self):
        def second(code, line):
            raise KeyError("second")

        self.thread.fSteppingEventsNeeded = True
        for _ in self.each_path():
            self.assertIsNone(self.callback("PY_START", second).Callback(self.code, 0))
            self.assert_reported(KeyError, "'second'")
            forget_handled_exception()

    def check_errno(self, before, after, fails=False):
        """The program's errno around an event whose second callback sets it to EBADF."""
        variable = errno_variable()

        def second(code, line):
            variable.value = errno.EBADF
            if fails:
                raise KeyError("second")

        self.thread.fSteppingEventsNeeded = True
        callback = self.callback("PY_START", second)
        for _ in self.each_path():
            variable.value = before
            callback.Callback(self.code, 0)
            self.assertEqual(variable.value, after)
            forget_handled_exception()

    def test_errno_of_the_program(self):
        self.check_errno(errno.ENOENT, errno.ENOENT)

    def test_keeps_the_errno_of_the_second_callback_where_it_was_0(self):
        self.check_errno(0, errno.EBADF)

    def test_errno_where_the_second_callback_fails(self):
        self.check_errno(errno.ENOENT, errno.ENOENT, fails=True)

    def test_a_thread_to_be_held(self):
        self.addCleanup(setattr, self.thread, "fCheckSuspendLock", 0)
        self.addCleanup(setattr, self.thread, "fSuspendLock", self.thread.fSuspendLock)
        callback = self.callback("PY_START")
        for any_thread, this_thread, calls in ((0, 1, []), (1, 0, []), (1, 1, ["acquire", "release"])):
            callback.fAnySuspendThread = any_thread
            self.thread.fCheckSuspendLock = this_thread
            for _ in self.each_path():
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
            for _ in self.each_path():
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
            for _ in self.each_path():
                self.assertIs(callback.Callback(function.__code__, 1), answer)
        self.assertEqual(second.calls, [])

    def test_other_threads_step_on_their_own(self):
        second = Recorder()
        callback = self.callback("LINE", second)
        callback.fSteppingEventsNeededEveryThread = 1
        self.thread.fSteppingEventsNeeded = True

        def two_events():
            return [callback.Callback(self.code, LINE) for _ in range(2)]

        for _ in self.each_path():
            self.assertEqual(self.in_new_thread(two_events), [None, None])
            self.assertEqual(second.calls, [])
            callback.Callback(self.code, LINE)
            self.assertEqual(second.calls.pop(), (self.code, LINE))

    def test_a_dying_callback_object_answers_first(self):
        """The second callback drops the last reference to its own callback object."""
        holder = []
        self.thread.fSteppingEventsNeeded = True
        for _ in self.each_path():
            holder.append(self.callback("PY_START", lambda code, offset: holder.clear() or threading.get_ident()))
            self.assertEqual(holder[0].Callback(self.code, 0), threading.get_ident())
            self.assertEqual(holder, [])


class HooksThatAreOff(FilterTestCase):
    """That a hook is off is remembered until the class changes, however it changes."""

    def setUp(self):
        super().setUp()
        self.code = self.recorded_function(fEnabledBpLinenos=set())[0].__code__
        self.initial = self.callback("PY_START")
        self.asked = []

    def events(self):
        for _ in range(3):
            self.assertIsNone(self.initial.Callback(self.code, 0))

    def hook(self, record):
        self.asked.append(record)
        return 7

    def test_nothing_is_stored_while_they_are_off(self):
        self.events()
        self.assertEqual((self.this_thread().fThreadName, self.this_thread().fDebugPolicy), (None, -1))
        self.assert_nothing_reported()

    def test_a_name_hook_is_asked_at_the_next_event(self):
        self.events()
        self.om.CPerThread.SetGetThreadNameCallback(self.hook)
        self.events()
        self.assertEqual((self.asked, self.this_thread().fThreadName), ([self.this_thread()], 7))

    def test_a_policy_hook_is_asked_at_the_next_event(self):
        self.events()
        self.om.CPerThread.SetDebugPolicyCallback(self.hook)
        self.events()
        self.assertEqual((self.asked, self.this_thread().fDebugPolicy), ([threading.get_ident()], 7))

    def test_hooks_put_into_the_class_are_asked(self):
        for name in ("_fGetThreadNameCallback", "_fDebugPolicyCallback"):
            self.events()
            setattr(self.om.CPerThread, name, self.hook)
            self.events()
        self.assertEqual(self.asked, [self.this_thread(), threading.get_ident()])

    def test_a_name_hook_that_answers_none_is_asked_each_time(self):
        self.om.CPerThread.SetGetThreadNameCallback(lambda record: self.asked.append(record))
        self.events()
        self.assertEqual(len(self.asked), 3)

    def test_a_hook_that_is_taken_away_is_missed(self):
        self.events()
        self.addCleanup(setattr, self.om.CPerThread, "_fGetThreadNameCallback", None)
        del self.om.CPerThread._fGetThreadNameCallback
        self.assertIsNone(self.initial.Callback(self.code, 0))
        self.assert_reported(AttributeError)
        forget_handled_exception()


STATES = 1500
LINES = (None, set(), {LINE}, {LINE + 1}, {LINE + 8}, {LINE, LINE + 8, LINE + 16}, set(range(LINE + 1, 40)), {LINE, "2"},
         set(range(LINE + 64, 20000, 64)), frozenset({LINE}), {float(LINE)}, frozenset(), {True, LINE + 32})
# ADD-MEMBER: its values, if the filter reads it, and what they change in expected().
STATE_VALUES = {
    "event": EVENT_NAMES + (99,),
    "arguments": ((), (LINE,), (LINE,), (LINE,), (LINE, "more"), (-LINE,), ("2",), (None,)),
    "lines": LINES,
    "code_steps": (0, 0, 0, 1),
    "returns_needed": (0, 1),
    "thread_steps": (0, 0, 1),
    "policy": (1, 1, 5, 0, -1),
    "every_thread": (0, 1),
    "any_suspend": (0, 0, 1),
    "held": (0, 1),
    "internal": (False, False, False, True),
    "can_disable": (0, 1),
    "is_first": (False, False, True),
    "is_warm": (True, True, False),
    "has_name_hook": (False, True),
    "has_policy_hook": (False, True),
    "second_fails": (False, False, True),
    "errno": (0, 5),
}


# CHANGE-ANSWER: any event: the plain model of both paths.
def expected(state):
    """(answer, what was called in which order), by the steps as they are described."""
    called = ["record"] if state.is_first else []
    is_line = state.event == "LINE" and state.arguments
    has_line = is_line and state.lines is not None and state.arguments[0] in state.lines
    if state.internal:
        return ("DISABLE" if state.can_disable else None), called
    if is_line and not state.any_suspend and not state.every_thread and not state.code_steps and \
            state.lines is not None and not has_line:
        return None, called
    called += ["name"] * (state.has_name_hook and not state.is_warm)
    called += ["policy"] * (state.has_policy_hook and state.policy == -1)
    if state.policy == 0:
        return None, called
    called += ["acquire", "release"] * (state.any_suspend and state.held)
    is_return = state.event in ("PY_RETURN", "PY_YIELD")
    if state.event == 99 or state.thread_steps or state.code_steps or state.lines is None or has_line and is_line or \
            is_return and state.returns_needed:
        return (None, called + ["second", "report"]) if state.second_fails else ("second", called + ["second"])
    return None, called


class RandomStates(FilterTestCase):
    """What an event is answered, what is called on the way and in which order, and errno."""

    def setUp(self):
        super().setUp()
        self.warm_code = self.recorded_function()[0].__code__

    def event(self, state):
        called = []
        variable = errno_variable()

        def call(name, result):
            def function(*args):
                called.append(name)
                variable.value = 99
                return result
            return function

        def second(*args):
            call("second", None)()
            self.assertEqual(args, (code,) + state.arguments)
            if state.second_fails:
                raise ZeroDivisionError
            return "second"

        def fill(record):
            record.fEnabledBpLinenos = state.lines
            record.fSteppingEventsNeededCount = state.code_steps
            record.fReturnEventsNeededCount = state.returns_needed

        threads = self.om.CPerThread
        code = new_function(filename="/nowhere/random.py").__code__
        self.om.SetInternalPathnameDict({"/nowhere/random.py": 1} if state.internal else {})
        threads.SetDebugPolicyCallback(call("policy", 1) if state.has_policy_hook else None)
        if state.is_first:
            self.om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
                lambda record: (call("record", None)(), fill(record)))
        else:
            fill(self.record(code))
        thread = self.this_thread()
        thread.fSteppingEventsNeeded = bool(state.thread_steps)
        thread.fCheckSuspendLock = state.held
        thread.fSuspendLock = type("Lock", (), {"acquire": call("acquire", None), "release": call("release", None)})()
        threads.SetGetThreadNameCallback(call("name", "a name") if state.has_name_hook else None)
        if state.is_warm:       # the thread has had an event: it has its name, and the module's findings are made
            self.callback("PY_START").Callback(self.warm_code, 0)
            del called[:]
        thread.fDebugPolicy = state.policy
        callback = self.callback(state.event, second, state.can_disable)
        callback.fAnySuspendThread = state.any_suspend
        callback.fSteppingEventsNeededEveryThread = state.every_thread
        self.dlog.forget()
        variable.value = state.errno
        answer = callback.Callback(code, *state.arguments)
        left = variable.value
        self.om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
        called += ["report"] * len(self.dlog.exception_calls)
        return "DISABLE" if answer is sys.monitoring.DISABLE else answer, called, left

    def check(self, state):
        answer, called = expected(state)
        runs_code = bool(called)
        for log in (contextlib.nullcontext(), support.logging_to(1023)):
            with log:
                found = self.in_new_thread(self.event, state)
            self.assertEqual(found[:2], (answer, called), state)
            if state.errno or not runs_code:
                self.assertEqual(found[2], state.errno, state)

    def test_random_states(self):
        random.seed(20261)
        for _ in range(STATES):
            self.check(types.SimpleNamespace(**{name: random.choice(values) for name, values in STATE_VALUES.items()}))

    def test_every_pair_of_two_fields(self):
        usual = dict.fromkeys(STATE_VALUES)
        usual.update({name: values[0] for name, values in STATE_VALUES.items()}, arguments=(LINE,), lines={LINE + 8})
        for one, other in itertools.combinations(("event", "lines", "policy", "every_thread", "thread_steps"), 2):
            for values in itertools.product(STATE_VALUES[one], STATE_VALUES[other]):
                self.check(types.SimpleNamespace(**dict(usual, **{one: values[0], other: values[1]})))


if __name__ == "__main__":
    unittest.main()
