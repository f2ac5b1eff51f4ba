"""The filter behind sys.monitoring: real programs, breakpoints, stepping, threads, forks, and the host's mistakes."""

import _thread
import contextlib
import gc
import inspect
import json
import sys
import threading
import unittest
import weakref

import state
import support
from filter_support import (EVENT_NAMES, FAILURES, SUPPRESSED, THREADING, FilterTestCase, Recorder, errno_variable,
                            event_id, forget_handled_exception, messages, new_function)

WAIT = 30       # seconds; the limit of a wait that ends at once unless something is broken

LOOP = """def f(n):
    total = 0
    while n > 0:
        total += n
        n -= 1
    return total
"""
GENERATOR = """def f(n):
    while n > 0:
        n = (yield n) or n - 1
    return "end"
"""


class LiveTestCase(FilterTestCase):
    def setUp(self):
        super().setUp()
        context = support.monitoring_tool()
        self.tool = context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)

    def watch(self, function, callbacks):
        """Local events of a function with the callbacks {event name: CInitialCallback}."""
        events = 0
        for name, callback in callbacks.items():
            self.tool.on(event_id(name), callback.Callback)
            events |= event_id(name)
        self.tool.set_local_events(function.__code__, events)

    def watch_all(self, function, second, can_return_disable=1):
        callbacks = {name: self.callback(name, second, can_return_disable) for name in EVENT_NAMES}
        self.watch(function, callbacks)
        return callbacks

    def watched(self, source=LOOP, lines=None, filename=None):
        """A function with a record, and the calls its filter lets through as (event name, second argument)."""
        function = new_function(source, filename=filename)
        record = self.record(function.__code__)
        record.fEnabledBpLinenos = lines
        seen = []

        def second_of(name):
            return lambda code, *args: seen.append((name, args[0]) if name == "LINE" else (name,) + args[1:])

        callbacks = {name: self.callback(name, second_of(name)) for name in EVENT_NAMES}
        self.watch(function, callbacks)
        return function, record, seen, callbacks


class Breakpoints(LiveTestCase):
    def test_a_line_with_a_breakpoint_is_seen_each_time(self):
        function, _, seen, _ = self.watched(lines={4})
        self.assertEqual(function(3), 6)
        self.assertEqual(seen, [("LINE", 4)] * 3)

    def test_without_a_set_everything_is_seen(self):
        function, _, seen, _ = self.watched()
        function(1)
        self.assertEqual(seen, [("PY_START",), ("LINE", 2), ("LINE", 3), ("LINE", 4), ("LINE", 5), ("LINE", 3),
                                ("LINE", 6), ("PY_RETURN", 1)])

    def test_an_empty_set_lets_nothing_through(self):
        function, _, seen, _ = self.watched(lines=set())
        self.assertEqual(function(3), 6)
        self.assertEqual(seen, [])

    def test_the_host_may_change_the_set_between_events(self):
        function, record, seen, _ = self.watched(lines={6})
        function(2)
        record.fEnabledBpLinenos.add(2)
        function(2)
        record.fEnabledBpLinenos = {5}
        function(1)
        record.fEnabledBpLinenos = set()
        function(1)
        self.assertEqual(seen, [("LINE", 6), ("LINE", 2), ("LINE", 6), ("LINE", 5)])

    def test_return_events_of_a_record_that_needs_them(self):
        function, record, seen, _ = self.watched(GENERATOR, lines=set())
        list(function(2))
        self.assertEqual(seen, [])
        record.fReturnEventsNeededCount = 1
        list(function(2))
        self.assertEqual(seen, [("PY_YIELD", 2), ("PY_YIELD", 1), ("PY_RETURN", "end")])

    def test_a_generator_in_full(self):
        function, _, seen, _ = self.watched(GENERATOR)
        generator = function(1)
        self.assertEqual(next(generator), 1)
        self.assertRaises(StopIteration, next, generator)
        names = [each for each in seen if each[0] != "LINE"]
        self.assertEqual(names, [("PY_START",), ("PY_YIELD", 1), ("PY_RESUME",), ("PY_RETURN", "end")])

    def test_equal_code_of_two_files_has_two_sets(self):
        first, record, seen_first, _ = self.watched(lines={4}, filename="/nowhere/equal_a.py")
        second = new_function(LOOP, filename="/nowhere/equal_b.py")
        self.assertEqual(first.__code__, second.__code__)
        other = self.record(second.__code__)
        other.fEnabledBpLinenos = {5}
        self.tool.set_local_events(second.__code__, event_id("LINE"))
        self.assertIsNot(record, other)
        self.assertEqual((record.fPathnameToReport, other.fPathnameToReport),
                         ("/nowhere/equal_a.py", "/nowhere/equal_b.py"))
        first(1)
        second(1)
        first(1)
        self.assertEqual(seen_first, [("LINE", 4), ("LINE", 5), ("LINE", 4)])

    def test_a_library_at_work(self):
        decode = json.JSONDecoder.decode
        source, first = inspect.getsourcelines(decode)
        raising = first + next(i for i, text in enumerate(source) if "raise JSONDecodeError" in text)
        second = Recorder()
        self.watch_all(decode, second)
        self.record(decode.__code__).fEnabledBpLinenos = {raising}
        self.assertEqual([json.loads("[%d]" % n) for n in range(20)], [[n] for n in range(20)])
        self.assertEqual(second.calls, [])
        self.assertRaises(json.JSONDecodeError, json.loads, "[1] x")
        self.assertEqual(second.calls, [(decode.__code__, raising)])

    def test_a_name_with_surrogates_runs_on(self):
        function = new_function(LOOP)
        function.__code__ = function.__code__.replace(co_filename="\udc80.py")
        second = Recorder()
        self.watch_all(function, second)
        self.assertEqual(function(1), 1)
        self.assertEqual(second.calls, [])
        self.assertEqual({(args, type(handled)) for args, handled in self.dlog.exception_calls},
                         {((None, True), UnicodeEncodeError)})
        self.assertEqual(len(self.dlog.exception_calls), 8)     # one per event


class Stepping(LiveTestCase):
    def test_a_stepping_thread_sees_everything(self):
        function, _, seen, _ = self.watched(lines=set())
        function(0)
        self.assertEqual(seen, [])
        self.this_thread().fSteppingEventsNeeded = True
        # the line shortcut knows nothing of a single thread: it takes a code object's count or the flag for all
        function(0)
        self.assertEqual(seen, [("PY_START",), ("PY_RETURN", 0)])

    def test_a_stepping_thread_with_the_flag_for_all_sees_lines_too(self):
        function, _, seen, callbacks = self.watched(lines=set())
        callbacks["LINE"].fSteppingEventsNeededEveryThread = 1
        function(0)
        self.assertEqual(seen, [])
        self.this_thread().fSteppingEventsNeeded = True
        function(0)
        self.assertEqual(seen, [("PY_START",), ("LINE", 2), ("LINE", 3), ("LINE", 6), ("PY_RETURN", 0)])

    def test_a_stepping_code_object_sees_everything(self):
        function, record, seen, _ = self.watched(lines=set())
        record.fSteppingEventsNeededCount = 1
        function(0)
        self.assertEqual(seen, [("PY_START",), ("LINE", 2), ("LINE", 3), ("LINE", 6), ("PY_RETURN", 0)])
        record.fSteppingEventsNeededCount = 0
        function(0)
        self.assertEqual(len(seen), 5)

    def test_one_thread_steps_and_another_does_not(self):
        function, _, seen, callbacks = self.watched(lines=set())
        callbacks["LINE"].fSteppingEventsNeededEveryThread = 1

        def run(steps):
            self.this_thread().fSteppingEventsNeeded = steps
            del seen[:]
            function(0)
            return len(seen)

        self.assertEqual([self.in_new_thread(run, steps) for steps in (True, False, True)], [5, 0, 5])


class Disabling(LiveTestCase):
    def answers_of(self, callback, function, event="PY_START"):
        """What the filter answered to each event of two calls of a function."""
        answers = []

        def observe(*args):
            answers.append(callback.Callback(*args))
            return answers[-1]

        self.tool.on(event_id(event), observe)
        self.tool.set_local_events(function.__code__, event_id(event))
        function(0)
        function(0)
        return answers

    def test_internal_code_is_disabled_after_one_event(self):
        function = new_function()
        with self.internal(function.__code__.co_filename):
            answers = self.answers_of(self.callback("PY_START"), function)
        self.assertEqual(answers, [sys.monitoring.DISABLE])
        sys.monitoring.restart_events()
        function(0)
        self.assertEqual(answers, [sys.monitoring.DISABLE] * 2)

    def test_internal_code_is_ignored_each_time_otherwise(self):
        function = new_function()
        with self.internal(function.__code__.co_filename):
            answers = self.answers_of(self.callback("PY_START", None, 0), function)
        self.assertEqual(answers, [None, None])
        self.assert_nothing_reported()

    def test_the_host_disables_through_its_second_callback(self):
        function = self.recorded_function()[0]
        second = Recorder(sys.monitoring.DISABLE)
        self.assertEqual(self.answers_of(self.callback("PY_START", second, 0), function), [sys.monitoring.DISABLE])
        self.assertEqual(len(second.calls), 1)

    def test_a_skipped_event_stays_enabled(self):
        function = self.recorded_function(fEnabledBpLinenos=set())[0]
        self.assertEqual(self.answers_of(self.callback("PY_START"), function), [None, None])


class Exceptions(LiveTestCase):
    def raising(self, function):
        def second(*args):
            raise ValueError("second %d" % len(self.dlog.exception_calls))

        self.watch(function, {"PY_START": self.callback("PY_START", second)})

    def test_the_program_sees_nothing_of_an_exception(self):
        function = self.recorded_function()[0]
        self.raising(function)
        self.assertEqual(function(4), 4)
        self.assert_reported(ValueError, "second 0")
        self.assertEqual(function(5), 5)
        self.assertEqual([args for args, _ in self.dlog.exception_calls], [(None, True)] * 2)
        self.assertEqual(str(self.dlog.exception_calls[1][1]), "second 1")

    def test_the_exception_brings_its_traceback(self):
        function = self.recorded_function()[0]
        self.raising(function)
        function(0)
        traceback = self.dlog.exception_calls[0][1].__traceback__
        self.assertEqual(traceback.tb_frame.f_code.co_name, "second")

    def test_a_failing_log_function_is_suppressed_too(self):
        class Full(list):
            def append(self, item):
                list.append(self, item)
                raise KeyError("full")

        function = self.recorded_function()[0]
        self.raising(function)
        kept, self.dlog.exception_calls = self.dlog.exception_calls, Full()
        try:
            with support.logging_to(FAILURES) as log:
                self.assertEqual(function(4), 4)
            self.assert_reported(ValueError, "second 0")
        finally:
            self.dlog.exception_calls = kept
        self.assertEqual(messages(log), [SUPPRESSED, "! ValueError: second 0",
                                         "LogException() failed and exception suppressed\n", "! KeyError: 'full'"])

    def test_the_log_function_is_the_one_found_at_import(self):
        function = self.recorded_function()[0]
        self.raising(function)
        other = Recorder()
        kept, self.dlog.LogException = self.dlog.LogException, other
        try:
            function(0)
        finally:
            self.dlog.LogException = kept
        self.assertEqual(other.calls, [])
        self.assert_reported(ValueError)

    def test_events_inside_a_callback_are_not_seen(self):
        inner, _ = self.recorded_function()
        outer, _ = self.recorded_function()
        seen = []

        def second(code, offset):
            seen.append(code)
            inner(1)

        self.watch(inner, {"PY_START": self.callback("PY_START", second)})
        self.tool.set_local_events(outer.__code__, event_id("PY_START"))
        outer(0)
        self.assertEqual(seen, [outer.__code__])
        inner(0)
        self.assertEqual(seen, [outer.__code__, inner.__code__])

    def test_a_callback_that_unregisters_itself_ends_in_peace(self):
        deaths, second = [], Recorder()

        class Mortal(self.om.CInitialCallback):
            def __del__(self):
                deaths.append(list(second.calls))

        def policy(thread_id):
            sys.monitoring.register_callback(self.tool.tool_id, event_id("PY_START"), None)
            self.junk = [bytes(n) for n in range(16, 256)]
            return 1

        function = self.recorded_function()[0]
        self.om.CPerThread.SetDebugPolicyCallback(policy)
        self.watch(function, {"PY_START": Mortal(event_id("PY_START"), second, 1)})
        self.assertEqual(function(3), 3)
        self.assertEqual(len(second.calls), 1)
        # the instance outlives the call that it is in the middle of
        self.assertEqual(deaths, [second.calls])

    def test_a_second_callback_that_drops_everything_and_fails(self):
        """Nothing holds it then but the call."""
        tool, counts = self.tool, []

        class Second(object):
            is_used = False

            def __call__(self, code, offset):
                if self.is_used:
                    sys.monitoring.register_callback(tool.tool_id, event_id("PY_START"), None)
                    counts.append(sys.getrefcount(self))
                    raise LookupError("dropped")
                self.is_used = True           # all is found out by now

        function, _ = self.recorded_function(fSteppingEventsNeededCount=1)
        owner = self.callback("PY_START", Second())
        second = weakref.ref(owner._fSecondCallback)
        self.watch(function, {"PY_START": owner})
        del owner
        self.assertEqual((function(3), function(4)), (3, 4))
        self.assert_reported(LookupError, "dropped")
        with contextlib.suppress(LookupError):
            list(map(Second(), (None,) * 2, (0,) * 2))   # holds it once
        self.assertEqual(counts[0], counts[1])
        self.dlog.forget()                # its exception knows the frame
        forget_handled_exception()
        gc.collect()
        self.assertIsNone(second())


class Threads(LiveTestCase):
    def test_the_policy_is_asked_once_per_thread(self):
        asked = []

        def policy(thread_id):
            asked.append(thread_id)
            return thread_id == blessed[0]

        def run(is_debugged):
            blessed[:] = [threading.get_ident()] if is_debugged else [None]
            before = len(second.calls)
            function(0)
            function(0)
            return threading.get_ident(), len(second.calls) - before

        blessed, second = [None], Recorder()
        function = self.recorded_function()[0]
        self.watch(function, {"PY_START": self.callback("PY_START", second)})
        self.om.CPerThread.SetDebugPolicyCallback(policy)
        results = [self.in_new_thread(run, is_debugged) for is_debugged in (True, False, True)]
        self.assertEqual([calls for _, calls in results], [2, 0, 2])
        self.assertEqual(asked, [thread_id for thread_id, _ in results])

    def test_an_event_without_a_frame_below(self):
        function = new_function()
        done = threading.Event()
        second = Recorder()
        callback = self.callback("LINE", lambda *args: (second(*args), done.set()))
        _thread.start_new_thread(callback.Callback, (function.__code__, 2))
        self.assertTrue(done.wait(WAIT))
        self.assertEqual(second.calls, [(function.__code__, 2)])
        self.assert_nothing_reported()
        # the record was made without a frame, which the next event cannot make good
        self.assertIsNone(callback.Callback(function.__code__, 2))
        self.assert_reported(TypeError, "code_object must be a PyCodeObject")

    def hold(self, while_waiting):
        """Runs a thread into its held lock, then `while_waiting`, then lets it go; what happened, in order."""
        happened, at_lock, ready, go = [], threading.Event(), threading.Event(), threading.Event()
        records = []

        class Log(support.LogFile):
            def write(log, text):
                happened.append(text.split(":")[0].strip())
                if "acquiring" in text:
                    at_lock.set()
                return len(text)

        def run():
            records.append(self.this_thread())
            ready.set()
            go.wait(WAIT)
            errno = errno_variable()
            errno.value = 33
            self.function(0)
            self.errno_after = errno.value

        self.function, record = self.recorded_function(fEnabledBpLinenos=set())
        callback = self.make_callback(lambda *args: happened.append("second"))
        callback.fAnySuspendThread = 1
        self.watch(self.function, {"PY_START": callback})
        del callback
        thread = threading.Thread(target=run)
        thread.start()
        self.assertTrue(ready.wait(WAIT))
        lock = records[0].fSuspendLock
        lock.acquire()
        records[0].fCheckSuspendLock = 1
        with support.logging_to(THREADING, log=Log()):
            go.set()
            try:
                self.assertTrue(at_lock.wait(WAIT))
                while_waiting(record)
                happened.append("let go")
            finally:
                lock.release()
                thread.join(WAIT)
        self.assertFalse(thread.is_alive())
        self.assertFalse(lock.locked())
        return happened

    def make_callback(self, second):
        return self.callback("PY_START", second)

    LOG = ["fCheckSuspendLock is true; acquiring fSuspendLock", "let go", "acquired fSuspendLock",
           "released fSuspendLock"]

    def test_a_held_thread_waits(self):
        self.assertEqual(self.hold(lambda record: None), self.LOG)
        self.assertEqual(self.errno_after, 33)
        self.assert_nothing_reported()

    def test_a_thread_decides_after_it_was_let_go(self):
        def step(record):
            record.fSteppingEventsNeededCount = 1

        self.assertEqual(self.hold(step), self.LOG + ["second"])

    def test_a_callback_dropped_while_its_thread_waits(self):
        deaths = []

        class Mortal(self.om.CInitialCallback):
            def __del__(self):
                deaths.append(threading.get_ident())

        def drop(record):
            record.fSteppingEventsNeededCount = 1
            sys.monitoring.register_callback(self.tool.tool_id, event_id("PY_START"), None)
            self.assertEqual(deaths, [])

        self.make_callback = lambda second: Mortal(event_id("PY_START"), second, 1)
        self.assertEqual(self.hold(drop), self.LOG + ["second"])
        self.assertEqual(len(deaths), 1)
        self.assertNotEqual(deaths[0], threading.get_ident())


# the event holds the last reference to its thread's record, which runs code when it dies
DYING_WITH_THE_EVENT = """
import sys
import support
from filter_support import errno_variable, new_function
optmonitoring = support.load()
variable = errno_variable()
died = []

class Mortal(object):
    def __del__(self):
        died.append(variable.value)
        variable.value = 99

def policy(thread_id):
    per_thread = optmonitoring.CPerThread.GetPerThread()
    optmonitoring.reset()
    per_thread.fStopFrame = Mortal()
    return 0

optmonitoring.CPerThread.SetDebugPolicyCallback(policy)
callback = optmonitoring.CInitialCallback(sys.monitoring.events.PY_START, print, 1).Callback
code = new_function().__code__
variable.value = 5
callback(code, 0)
print(died, variable.value)
"""


class Errno(LiveTestCase):
    def after(self, start, function, *args):
        errno = errno_variable()
        errno.value = start
        function(*args)
        return errno.value

    def setting(self, number):
        return lambda *args: setattr(errno_variable(), "value", number)

    def test_survives_the_second_callback(self):
        function = self.recorded_function()[0]
        self.assertEqual(self.after(5, self.callback("LINE", self.setting(99)).Callback, function.__code__, 2), 5)

    def test_keeps_what_the_callback_left_when_it_was_zero(self):
        function = self.recorded_function()[0]
        self.assertEqual(self.after(0, self.callback("LINE", self.setting(99)).Callback, function.__code__, 2), 99)

    def test_is_not_kept_where_the_module_is_set_so(self):
        function = self.recorded_function()[0]
        module_state = state.state_of(self.om)
        module_state.save_and_restore_errno = 0
        try:
            self.assertEqual(self.after(5, self.callback("LINE", self.setting(99)).Callback, function.__code__, 2), 99)
        finally:
            module_state.save_and_restore_errno = 1

    def test_survives_a_failing_second_callback(self):
        def second(*args):
            errno_variable().value = 99
            raise ValueError("second")

        function = self.recorded_function()[0]
        self.assertEqual(self.after(5, self.callback("LINE", second).Callback, function.__code__, 2), 5)
        self.assert_reported(ValueError)

    def test_survives_what_dies_with_the_event(self):
        """In a child, because the log keeps no buffers for reprs after a reset."""
        self.assertEqual(support.run_child(DYING_WITH_THE_EVENT), (0, "[5] 5\n", ""))

    def test_survives_the_suspend_lock(self):
        per_thread = self.this_thread()
        per_thread.fSuspendLock = type("Lock", (), {"acquire": self.setting(77), "release": self.setting(78)})()
        per_thread.fCheckSuspendLock = 1
        for lines, calls in ((set(), 0), (None, 1)):
            function = self.recorded_function(fEnabledBpLinenos=lines)[0]
            second = Recorder()
            callback = self.callback("LINE", lambda *args: (self.setting(99)(), second()))
            callback.fAnySuspendThread = 1
            self.assertEqual(self.after(5, callback.Callback, function.__code__, 2), 5)
            self.assertEqual(len(second.calls), calls)
            self.assertIn(self.after(0, callback.Callback, function.__code__, 2), (78, 99))

    def test_the_program_keeps_its_own(self):
        source = ("def f(errno):\n"
                  "    errno.value = 11\n"
                  "    first = errno.value\n"
                  "    errno.value = 0\n"
                  "    second = errno.value\n"
                  "    return first, second\n")
        function = new_function(source)
        self.record(function.__code__)
        self.watch(function, {"LINE": self.callback("LINE", self.setting(99))})
        self.assertEqual(function(errno_variable()), (11, 99))


class Fork(unittest.TestCase):
    SCRIPT = """
import os, sys
import support
optmonitoring = support.load()
from filter_support import Recorder, new_function

function, second = new_function(), Recorder("answer")
record = optmonitoring.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe())
callback = optmonitoring.CInitialCallback(sys.monitoring.events.LINE, second, 1)

def ask():
    log = support.LogFile()
    optmonitoring.set_dprintf_file(log, -1, 0)
    optmonitoring.set_dprintf_mask(1023)
    answers = [callback.Callback(function.__code__, 2), callback.Callback(5) is sys.monitoring.DISABLE,
               callback.Callback(), len(second.calls)]
    has_log = bool(log.events)
    optmonitoring.set_dprintf_file(None, -1, 0)
    del second.calls[:]
    return answers + [has_log]

print("parent", ask(), flush=True)
pid = os.fork()
if pid == 0:
    print("child", ask())
    with support.monitoring_tool({sys.monitoring.events.LINE: callback.Callback}) as tool:
        tool.set_local_events(function.__code__, sys.monitoring.events.LINE)
        function()
        print("live", len(second.calls))
        del second.calls[:]
    optmonitoring.%s()
    print("after", ask(), flush=True)
    os._exit(0)
print("child status", os.waitpid(pid, 0)[1], flush=True)
print("parent", ask())
"""

    @support.needs_monitoring
    def test_a_child_answers_none_until_the_host_takes_it_over(self):
        active = "['answer', True, None, 1, True]"
        for function in ("UpdateThisProcessPid", "reset"):
            out = support.check_child(self, self.SCRIPT % function)
            self.assertEqual(out.splitlines(), [
                "parent " + active, "child [None, False, None, 0, False]", "live 0", "after " + active,
                "child status 0", "parent " + active])


if __name__ == "__main__":
    unittest.main()
