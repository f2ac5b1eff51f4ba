"""The program under the filter does not notice: errors, exceptions, tracebacks, limits, signals and other tools."""

import ctypes
import errno
import sys
import time
import traceback
import unittest
import weakref

import support
from filter_support import (EVENT_NAMES, FilterTestCase as _FilterTestCase, errno_variable, event_id,
                            forget_handled_exception, new_function)

WAIT = 30       # seconds; the limit of a wait that ends at once unless something is broken

PROGRAM = """import sys

def raises(n):
    try:
        raise ValueError(n)
    except ValueError as e:
        inner = sys.exc_info()[1] is e
    return inner, sys.exc_info()

def reraises():
    try:
        try:
            raise KeyError("first")
        except KeyError:
            raise ValueError("second")
    except ValueError as e:
        return e

def yields():
    try:
        got = yield 1
        yield got
    finally:
        yield 3

def throws_on():
    try:
        yield 1
    except KeyError:
        yield 2
        raise

def handles(generator):
    try:
        raise OSError(5, "five")
    except OSError:
        value = next(generator)
        return value, sys.exc_info()[0]

class Mortal(object):
    def __init__(self, log, name):
        self.log, self.name = log, name

    def __del__(self):
        self.log.append(self.name)

def deaths(log):
    first = Mortal(log, "first")
    second = Mortal(log, "second")
    log.append("made")
    del first
    log.append("deleted")
    second = None
    log.append("replaced")
    third = Mortal(log, "third")
    return len(log)

def depth(n):
    return 1 + depth(n + 1) if n >= 0 else 0

def recurses():
    deepest = [0]
    def down(n):
        deepest[0] = n
        down(n + 1)
    try:
        down(0)
    except RecursionError as e:
        return deepest[0], str(e)
"""


def codes_of(code):
    """A code object and all within it."""
    yield code
    for constant in code.co_consts:
        if hasattr(constant, "co_code"):
            yield from codes_of(constant)


class Program(object):
    """The functions of the text, fresh, whose events a tool of the test's filter receives."""

    def __init__(self, test, text=PROGRAM, second=lambda *args: None, lines=None, names=EVENT_NAMES):
        code = compile(text, "/nowhere/unnoticed_%d.py" % id(self), "exec")
        context = support.monitoring_tool()
        tool = context.__enter__()
        test.addCleanup(context.__exit__, None, None, None)
        self.callbacks = {name: test.callback(name, second) for name in names}
        for name, callback in self.callbacks.items():
            tool.on(event_id(name), callback.Callback)
        for each in codes_of(code):
            if lines is not None:
                test.record(each).fEnabledBpLinenos = lines
            tool.set_local_events(each, sum(map(event_id, names)))
        exec(code, self.__dict__)


class UnnoticedTestCase(_FilterTestCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(forget_handled_exception)

    def ways(self, text=PROGRAM):
        """The program unwatched, without stops, with all stops, and with the log on."""
        unwatched = type("Unwatched", (), {})()
        exec(compile(text, "/nowhere/unwatched.py", "exec"), unwatched.__dict__)
        yield unwatched
        for lines in (set(), None, set(range(60))):
            program = Program(self, text, lines=lines)
            yield program
            self.doCleanups_of_tool()
        with support.logging_to(1023):
            yield Program(self, text)

    def doCleanups_of_tool(self):
        function, args, kwargs = self._cleanups.pop()
        function(*args, **kwargs)

    def same(self, action, text=PROGRAM):
        """The action gives the same in every way; what it gives."""
        results = [action(program) for program in self.ways(text)]
        for result in results[1:]:
            self.assertEqual(result, results[0])
        self.assert_nothing_reported()
        return results[0]


class Errors(UnnoticedTestCase):
    def test_errno(self):
        text = ("def f(library, variable):\n    library.close(-1)\n    a = 1\n    b = variable.value\n"
                "    variable.value = 77\n    c = 2\n    return b, variable.value\n")
        library, variable = ctypes.CDLL(None), errno_variable()
        self.assertEqual(self.same(lambda program: program.f(library, variable), text), (errno.EBADF, 77))

    def test_errno_of_the_first_event_of_a_file_that_is_missing(self):
        function = new_function(filename="/nowhere/missing_%d.py" % time.time())
        variable = errno_variable()
        variable.value = 77
        self.callback("LINE").Callback(function.__code__, 1)
        self.assertEqual(variable.value, 77)

    def test_errno_that_ctypes_keeps(self):
        text = ("import ctypes\n\ndef f(library):\n    library.close(-1)\n    kept = ctypes.get_errno()\n"
                "    ctypes.set_errno(5)\n    return kept, ctypes.get_errno()\n")
        library = ctypes.CDLL(None, use_errno=True)
        self.assertEqual(self.same(lambda program: program.f(library), text), (errno.EBADF, 5))

    def test_errno_after_a_second_callback_that_spoils_it(self):
        variable = errno_variable()

        def spoil(*args):
            variable.value = 99

        program = Program(self, "def f(variable):\n    variable.value = 77\n    a = 1\n    return variable.value\n",
                          spoil)
        self.assertEqual(program.f(variable), 77)


class Exceptions(UnnoticedTestCase):
    def test_handled_exceptions(self):
        self.assertEqual(self.same(lambda program: program.raises(3)), (True, (None, None, None)))

    def test_handled_exception_of_a_caller(self):
        def action(program):
            generator = program.throws_on()
            return program.handles(generator), program.raises(1)
        self.assertEqual(self.same(action), ((1, OSError), (True, (None, None, None))))

    def test_context_and_traceback(self):
        def action(program):
            error = program.reraises()
            lines = [(entry.name, entry.lineno) for entry in traceback.extract_tb(error.__traceback__)]
            return repr(error), repr(error.__context__), lines, error.__context__.__context__
        self.assertEqual(self.same(action), ("ValueError('second')", "KeyError('first')", [("reraises", 15)], None))

    def test_exceptions_thrown_into_generators(self):
        def action(program):
            generator = program.throws_on()
            next(generator)
            first = generator.throw(KeyError("in"))
            try:
                next(generator)
            except KeyError as e:
                return first, repr(e), [entry.lineno for entry in traceback.extract_tb(e.__traceback__)][1:]
        self.same(action)

    def test_a_generator_closed_and_one_dropped(self):
        ignored = []
        self.addCleanup(setattr, sys, "unraisablehook", sys.unraisablehook)
        sys.unraisablehook = lambda unraisable: ignored.append(str(unraisable.exc_value))

        def action(program):
            del ignored[:]
            generator = program.yields()
            next(generator)
            try:
                generator.close()
            except RuntimeError as e:
                text = str(e)
            generator = None
            return text, ignored[:]
        self.same(action)

    def test_time_of_death(self):
        def action(program):
            log = []
            return program.deaths(log), log
        self.assertEqual(self.same(action)[1], ["made", "first", "deleted", "second", "replaced", "third"])

    def test_returned_values_are_not_kept(self):
        text = "class C(object):\n    pass\n\ndef f():\n    return C()\n\ndef g():\n    yield C()\n"

        def action(program):
            returned, yielded = weakref.ref(program.f()), weakref.ref(next(program.g()))
            return returned(), yielded()
        self.assertEqual(self.same(action, text), (None, None))


class Limits(UnnoticedTestCase):
    def test_recursion_limit_in_the_program(self):
        limit = sys.getrecursionlimit()
        self.addCleanup(sys.setrecursionlimit, limit)
        sys.setrecursionlimit(250)
        unwatched = next(self.ways()).recurses()
        for lines in (set(), set(range(60))):
            program = Program(self, second=len, lines=lines)
            program.callbacks.clear()
            deepest, text = program.recurses()
            self.assertEqual(text, unwatched[1])
            self.assertEqual(deepest, unwatched[0])
            self.doCleanups_of_tool()

    def test_recursion_limit_in_the_second_callback(self):
        def recurse(given):        # 3.13.0 has no limit for functions with "*args"
            return recurse(given)

        limit = sys.getrecursionlimit()
        self.addCleanup(sys.setrecursionlimit, limit)
        sys.setrecursionlimit(250)
        program = Program(self, "def f():\n    a = 1\n    return a\n", lambda *args: recurse(args))
        self.assertEqual(program.f(), 1)
        self.assertEqual({type(call[1]) for call in self.dlog.exception_calls}, {RecursionError})


class Tools(UnnoticedTestCase):
    def test_trace_functions_see_the_same(self):
        def action(program):
            seen = []

            def trace(frame, event, arg):
                if frame.f_code.co_filename.startswith("/nowhere"):
                    seen.append((frame.f_code.co_name, event, frame.f_lineno))
                return trace

            sys.settrace(trace)
            try:
                program.reraises()
                list(program.yields())
            finally:
                sys.settrace(None)
            return seen
        self.assertGreater(len(self.same(action)), 10)

    def test_profile_functions_see_the_same(self):
        def action(program):
            seen = []

            def profile(frame, event, arg):
                if frame.f_code.co_filename.startswith("/nowhere"):
                    seen.append((frame.f_code.co_name, event))

            sys.setprofile(profile)
            try:
                program.reraises()
                list(program.yields())
            finally:
                sys.setprofile(None)
            return seen
        self.assertGreater(len(self.same(action)), 4)

    def test_another_monitoring_tool_sees_the_same(self):
        events = sys.monitoring.events

        def action(program):
            seen = []
            callbacks = {getattr(events, name): lambda code, *args, name=name: seen.append((name, code.co_name))
                         for name in ("PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME", "LINE", "CALL")}
            with support.monitoring_tool(callbacks, tool_id=4, name="other") as other:
                for function in (program.reraises, program.yields, program.raises):
                    other.set_local_events(function.__code__, sum(callbacks))
                program.reraises()
                list(program.yields())
                program.raises(1)
            return seen
        self.assertGreater(len(self.same(action)), 20)

    def test_internal_code_disabled_for_us_is_reported_to_others(self):
        function = new_function()
        with self.internal(function.__code__.co_filename):
            seen = []
            line = event_id("LINE")
            with support.monitoring_tool({line: self.callback("LINE").Callback}) as ours, \
                    support.monitoring_tool({line: lambda code, number: seen.append(number)}, tool_id=4) as other:
                ours.set_local_events(function.__code__, line)
                other.set_local_events(function.__code__, line)
                function()
                function()
        self.assertEqual(seen, [2, 3, 4] * 2)


SIGNALS = """
import os, signal, sys, threading, time
import support
m = support.load()
from child_cases import new_program, watch
way = sys.argv[1]
function, generator = new_program()
handled = []
inside, free = threading.Event(), threading.Event()
if way.startswith("handler"):
    signal.signal(signal.SIGINT, lambda *args: handled.append(args[0]))

def second(*args):
    if way.endswith("callback") and not inside.is_set():
        inside.set()
        signal.raise_signal(signal.SIGINT)

def helper(ident):
    # the lock of the main thread is held until the signal has been handled
    record.fSuspendLock.acquire()
    record.fCheckSuspendLock = 1
    inside.set()
    while not handled:
        signal.pthread_kill(ident, signal.SIGINT)
        time.sleep(0.01)
    record.fCheckSuspendLock = 0
    record.fSuspendLock.release()

with watch(m, function, second) as callbacks:
    record = m.CPerThread.GetPerThread()
    if way.endswith("held"):
        for callback in callbacks.values():
            callback.fAnySuspendThread = 1
        thread = threading.Thread(target=helper, args=(threading.get_ident(),))
        thread.start()
        inside.wait()
    print(function(3), len(handled) > 0)
    if way.endswith("held"):
        thread.join()
    if way == "storm":
        signal.signal(signal.SIGALRM, lambda *args: handled.append(args[0]))
        signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
        total = 0
        while len(handled) < 200:
            total += function(1)
            assert list(generator()) == [1, 2]
        signal.setitimer(signal.ITIMER_REAL, 0, 0)
        print(total > 0)
"""


@support.needs_monitoring
class Signals(unittest.TestCase):
    def test_handler_runs_while_the_second_callback_does(self):
        self.assertEqual(support.check_child(self, SIGNALS, "handler callback"), "3 True\n")

    def test_handler_runs_while_the_thread_is_held(self):
        self.assertEqual(support.check_child(self, SIGNALS, "handler held"), "3 True\n")

    def test_signals_all_the_time(self):
        self.assertEqual(support.check_child(self, SIGNALS, "storm"), "3 False\nTrue\n")


if __name__ == "__main__":
    unittest.main()
