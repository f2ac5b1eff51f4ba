"""Cases that may end a process: each runs in a forked child of its own and ends the interpreter in the ordinary way.

    PYTHON child_NAME.py [CASE...]

prints one line of JSON: a list with the name, the wait status and the standard error of each case. A case is a
function that takes the module, marked with `@case`; it fails by raising, by a signal, or by anything on standard
error. The test module makes a test of each with `test_class`.
"""

import contextlib
import faulthandler
import itertools
import json
import os
import signal
import sys
import tempfile
import threading
import traceback
import unittest
import warnings

import support

SECONDS = int(os.environ.get("OPTMONITORING_CASE_SECONDS", "60"))      # after which a case that hangs is ended
DEPTH = 120          # of the stack: code that recurses without end comes to it soon
FULL = bool(os.environ.get("OPTMONITORING_LONG"))
_cases = {}


def times(few, many):
    """How often to repeat: few times, or many with OPTMONITORING_LONG in the environment."""
    return many if FULL else few


def case(function):
    """Makes a case of a function; its name is the name of the test."""
    _cases.setdefault(function.__module__, {})[function.__name__] = function
    return function


def needs(condition, reason):
    """The case is skipped where the condition does not hold."""
    def mark(function):
        if not condition:
            function.skip_reason = reason
        return function
    return mark


# ---- In the child ----

def _run_case(function, module):
    signal.alarm(SECONDS)
    faulthandler.enable()
    faulthandler.dump_traceback_later(SECONDS - 2, exit=True)
    module.UpdateThisProcessPid()
    sys.setrecursionlimit(DEPTH)
    warnings.simplefilter("ignore")     # of members that cut numbers short, and of forks with threads
    try:
        function(module)
    except BaseException:
        traceback.print_exc()
        return 1
    faulthandler.cancel_dump_traceback_later()
    return 0


def main(namespace):
    """Runs the cases of a script; the caller passes its result to sys.exit."""
    cases = _cases[namespace["__name__"]]
    module = support.load()
    results = []
    for name in sys.argv[1:] or [name for name in cases if not hasattr(cases[name], "skip_reason")]:
        with tempfile.TemporaryFile() as errors:
            pid = os.fork()
            if pid == 0:
                os.dup2(errors.fileno(), 2)
                return _run_case(cases[name], module)      # and on to an ordinary end of the interpreter
            _, status = os.waitpid(pid, 0)
            errors.seek(0)
            results.append((name, status, errors.read().decode("utf-8", "replace")))
    print(json.dumps(results))
    return 0


# ---- In the tests ----

def test_class(script, name, **environment):
    """A test case with one test for each case of the script, which runs once, when its first test does."""
    __import__(script)

    @classmethod
    def setUpClass(cls):
        settings = dict(environment, PYTHONMALLOC=os.environ.get("PYTHONMALLOC", "debug"))
        status, out, err = support.run_child(script + ".py", environment=settings)
        if status or not out:
            raise AssertionError("%s ended with status %s: %s" % (script, status, err))
        cls.outcomes = {each[0]: each[1:] for each in json.loads(out)}

    def make_test(case_name, function):
        def test(self):
            status, err = self.outcomes[case_name]
            self.assertEqual((status, err), (0, ""))
        test.__doc__ = function.__doc__
        if hasattr(function, "skip_reason"):
            return unittest.skip(function.skip_reason)(test)
        return test

    members = {"test_" + each: make_test(each, function) for each, function in _cases[script].items()}
    return support.needs_monitoring(type(name, (unittest.TestCase,), dict(members, setUpClass=setUpClass,
                                                                          maxDiff=None)))


# ---- What the cases share ----

_numbers = itertools.count()


def new_program(filename=None):
    """A function and a generator function whose code objects have never been seen before."""
    namespace = {"__name__": "program"}
    text = "def f(n=0):\n    a = n\n    return a\ndef g():\n    yield 1\n    yield 2\n"
    exec(compile(text, filename or "/nowhere/case_%d.py" % next(_numbers), "exec"), namespace)
    return namespace["f"], namespace["g"]


def attempt(action, *args, **keywords):
    """The result of the action, or the exception that it raised: both are fine."""
    try:
        return action(*args, **keywords)
    except BaseException as e:
        return e


def watch(module, function, second, names=("PY_START", "LINE", "PY_RETURN")):
    """A context in which a second callback receives what the filter lets through of the function's events."""
    numbers = [getattr(sys.monitoring.events, name) for name in names]
    callbacks = {number: module.CInitialCallback(number, second, 1) for number in numbers}

    @contextlib.contextmanager
    def context():
        with support.monitoring_tool({number: each.Callback for number, each in callbacks.items()}) as tool:
            tool.set_local_events(function.__code__, sum(numbers))
            yield callbacks
    return context()


def assert_filter_works(module, in_new_thread=True):
    """The filter still stops where it is to, and nowhere else, in this thread and in a new one."""
    def stops():
        seen = []
        function, _ = new_program()
        with watch(module, function, lambda code, *args: seen.append(args[0])):
            module.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe()).fEnabledBpLinenos = {2}
            assert function(5) == 5
        return seen

    assert stops() == [2], "a stop was missed, or there was one too many"
    if in_new_thread:
        results = []
        thread = threading.Thread(target=lambda: results.append(stops()))
        thread.start()
        thread.join()
        assert results == [[2]], results
