"""10,000 events on each path of the filter leave nothing behind: no memory block, no reference."""

import gc
import itertools
import os
import shutil
import sys
import tempfile
import unittest

import support
from filter_support import ALL_MASKS, FilterTestCase, Recorder, event_id, forget_handled_exception, new_function

EVENTS = 10000
WARM_UP = 200
# blocks that come and go, later on free-threaded interpreters; a leak of one an event would show as EVENTS
SLACK = 1500 if support.FREE_THREADED else 500


class Quiet(object):
    """A log that keeps nothing."""

    def write(self, text):
        return len(text)

    def flush(self):
        pass


class Paths(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.per_thread = self.this_thread()
        self.line = 10 ** 9         # an int with a count of its own

        # the host keeps nothing either
        class Forgetful(list):
            def append(self, item):
                pass

        self.dlog.exception_calls, self.kept = Forgetful(), self.dlog.exception_calls
        self.addCleanup(setattr, self.dlog, "exception_calls", self.kept)

    def check(self, callback, *args, **options):
        answer = options.pop("answer", None)
        things = [callback, callback._fSecondCallback, self.per_thread, self.line, self.om] + list(args)
        if args and isinstance(args[0], type(self.check.__code__)):
            record = self.om.CPerCodeObject.GetPerCodeObject(args[0], False)
            things += [record] + ([record.fEnabledBpLinenos] if record else [])
        # True, False, None and the like are shared by all
        things = [each for each in things if each is not None and not isinstance(each, bool)]
        method = callback.Callback

        def run(count):
            for _ in itertools.repeat(None, count):
                if method(*args) is not answer:
                    raise AssertionError("another answer")
                # each suppressed exception stays the handled one, and with it those before
                forget_handled_exception()
            gc.collect()

        run(WARM_UP)
        blocks, counts = sys.getallocatedblocks(), [sys.getrefcount(each) for each in things]
        run(EVENTS)
        self.assertEqual([sys.getrefcount(each) for each in things], counts)
        self.assertLess(sys.getallocatedblocks() - blocks, SLACK)

    def code(self, **fields):
        return self.recorded_function(**fields)[0].__code__

    def internal_code(self):
        code = new_function().__code__
        with self.internal(code.co_filename):
            self.record(code)
        return code

    def test_no_argument(self):
        self.check(self.callback())

    def test_no_code_object(self):
        self.check(self.callback(), [], answer=sys.monitoring.DISABLE)

    def test_internal_code(self):
        self.check(self.callback(), self.internal_code(), self.line, answer=sys.monitoring.DISABLE)
        self.check(self.callback("LINE", None, 0), self.internal_code(), self.line)

    def test_a_line_without_a_breakpoint(self):
        self.check(self.callback(), self.code(fEnabledBpLinenos={1}), self.line)

    def test_a_failing_look_up(self):
        self.check(self.callback(), self.code(fEnabledBpLinenos={1}), [])
        self.check(self.callback(), self.code(fEnabledBpLinenos=[1]), self.line)

    def test_a_failing_look_up_in_the_decision(self):
        callback = self.callback()
        callback.fAnySuspendThread = 1
        self.check(callback, self.code(fEnabledBpLinenos={1}), [])

    def test_a_thread_that_is_not_debugged(self):
        self.per_thread.fDebugPolicy = 0
        self.check(self.callback(), self.code(), self.line)

    def test_a_failing_policy(self):
        self.om.CPerThread.SetDebugPolicyCallback(Recorder("nonsense").__class__)
        self.check(self.callback(), self.code(), self.line)

    def test_the_suspend_lock(self):
        callback = self.callback()
        callback.fAnySuspendThread = self.per_thread.fCheckSuspendLock = 1
        self.check(callback, self.code(fEnabledBpLinenos={1}), self.line)
        # what the lock's methods return is released
        self.per_thread.fSuspendLock = type("Lock", (), {"acquire": lambda lock: [], "release": lambda lock: []})()
        self.check(callback, self.code(fEnabledBpLinenos={1}), self.line)
        self.per_thread.fSuspendLock = 5
        self.check(callback, self.code(fEnabledBpLinenos={1}), self.line)

    def test_a_skipped_event(self):
        self.check(self.callback("PY_START"), self.code(fEnabledBpLinenos=set()), self.line)

    def test_a_forwarded_event(self):
        self.check(self.callback("PY_START", lambda *args: None), self.code(), self.line)
        self.check(self.callback("LINE", lambda *args: None), self.code(fEnabledBpLinenos={self.line}), self.line)
        self.check(self.callback(1 << 20, lambda *args: None), self.code(), self.line)

    def test_a_failing_second_callback(self):
        self.check(self.callback("PY_START", 5), self.code(), self.line)

    def test_a_failing_log_function(self):
        class Full(list):
            def append(self, item):
                raise KeyError("full")

        self.dlog.exception_calls = Full()
        self.check(self.callback("PY_START", 5), self.code(), self.line)

    def test_a_record_made_without_a_frame(self):
        code = new_function().__code__
        self.om.CPerCodeObject.GetPerCodeObject(code)
        self.check(self.callback(), code, self.line)

    def test_a_name_with_surrogates(self):
        self.check(self.callback(), new_function().__code__.replace(co_filename="\udc80.py"), self.line)

    def test_with_the_log_on(self):
        callbacks = [self.callback("PY_START", lambda *args: None), self.callback("LINE", lambda *args: None),
                     self.callback("LINE", 5)]
        codes = [self.code(), self.code(fEnabledBpLinenos={1}), self.code(), self.internal_code()]
        methods = [callback.Callback for callback in callbacks]

        def run(count):
            for method, code in itertools.islice(itertools.cycle(itertools.product(methods, codes)), count):
                method(code, 7)
                forget_handled_exception()
            gc.collect()

        with support.logging_to(ALL_MASKS, log=Quiet()):
            run(WARM_UP)
            blocks = sys.getallocatedblocks()
            run(EVENTS)
            self.assertLess(sys.getallocatedblocks() - blocks, SLACK)


class Monitored(FilterTestCase):
    def test_live_events(self):
        function, record = self.recorded_function(fEnabledBpLinenos={3})
        code = function.__code__
        seen = itertools.count()
        callback = self.callback("LINE", lambda *args: next(seen) and None)
        with support.monitoring_tool({event_id("LINE"): callback.Callback}) as tool:
            tool.set_local_events(code, event_id("LINE"))

            def run(count):
                for _ in itertools.repeat(None, count):
                    function(1)
                gc.collect()

            run(WARM_UP)
            things = (code, record, record.fEnabledBpLinenos, callback, self.this_thread())
            blocks, counts = sys.getallocatedblocks(), [sys.getrefcount(each) for each in things]
            run(EVENTS)
            self.assertEqual([sys.getrefcount(each) for each in things], counts)
            self.assertLess(sys.getallocatedblocks() - blocks, SLACK)
        self.assertEqual(next(seen), WARM_UP + EVENTS)

    def test_code_objects_seen_once(self):
        callback = self.callback("PY_START", lambda *args: None)
        before = None
        with support.monitoring_tool({event_id("PY_START"): callback.Callback}) as tool:
            for n in range(3000):
                function = new_function(filename="/nowhere/once.py")
                sys.monitoring.set_local_events(tool.tool_id, function.__code__, event_id("PY_START"))
                function(1)
                del function
                if n == 1000:
                    before = support.total_instances(self.om.CPerCodeObject), support.allocated_blocks()
            self.assertEqual(support.total_instances(self.om.CPerCodeObject), before[0])
            self.assertLess(support.allocated_blocks() - before[1], SLACK)


class HostResults(unittest.TestCase):
    HOST = """
import sys

def Log(*args):
    pass

def LogException(*args):
    assert args == (None, True) and sys.exc_info()[0] is TypeError
    return [1]
"""
    SCRIPT = """
import sys
import optmonitoring
import support
from brixbase import dlog
sys.stderr.write("" if dlog.__file__.startswith(sys.argv[1]) else "another host")
from filter_support import forget_handled_exception, new_function
callback = optmonitoring.CInitialCallback(1 << 20, 5, 1)
code = new_function().__code__

def ask():
    callback.Callback(code, 1)
    forget_handled_exception()

print(support.repeat(ask, 10000))
"""

    @support.needs_monitoring
    def test_what_the_log_function_returns_is_released(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        os.mkdir(os.path.join(folder, "brixbase"))
        for name, text in (("__init__.py", ""), ("dlog.py", self.HOST)):
            with open(os.path.join(folder, "brixbase", name), "w") as stream:
                stream.write(text)
        out = support.check_child(self, self.SCRIPT, folder, path=[folder, support.module_dir(), support.HERE])
        self.assertLess(int(out), SLACK)


if __name__ == "__main__":
    unittest.main()
