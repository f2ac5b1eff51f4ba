"""Runs one module of the interpreter's own test suite, with or without the filter, and writes each test's outcome.

    PYTHON run_module.py MODULE none|other|watched|breakpoints REPORT [TEST]...

All tests of the module, or those named.
none: as it is; other: with a tool that is not the filter, keeps a number in each code object and does nothing else;
watched: the filter on all five events of all code, without breakpoints; breakpoints: with 1,000 of them at random. The
environment variable OPTMONITORING_DIR names the folder of the built module.
"""
import ctypes
import functools
import gc
import json
import operator
import os
import random
import signal
import sys
import types
import unittest

from cpython_cases import cases_of

HERE = os.path.dirname(os.path.abspath(__file__))
EVENTS = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
TOOL_ID = sys.monitoring.OPTIMIZER_ID      # tests of tools use the others
BREAKPOINTS = 1000
TESTS_FOLDER = os.sep + "test" + os.sep


class Outcomes(unittest.TestResult):
    """The outcome of each test by its name; subtests count with their test."""

    def __init__(self):
        super().__init__()
        self.outcomes = {}

    def _note(self, test, outcome):
        name = getattr(test, "test_case", test).id()
        if not self.outcomes.get(name, "").startswith(("failure", "error")):
            self.outcomes[name] = outcome

    def addSuccess(self, test):
        self._note(test, "success")

    def addError(self, test, err):
        self._note(test, "error " + err[0].__name__)

    def addFailure(self, test, err):
        self._note(test, "failure")

    def addSkip(self, test, reason):
        self._note(test, "skip")

    def addExpectedFailure(self, test, err):
        self._note(test, "expected failure")

    def addUnexpectedSuccess(self, test):
        self._note(test, "unexpected success")

    def addSubTest(self, test, subtest, err):
        if err is not None:
            self._note(test, "failure")


def loaded_code():
    """All code of the functions that there are, and of those inside them."""
    found = []
    waiting = [each.__code__ for each in gc.get_objects() if isinstance(each, types.FunctionType)]
    while waiting:
        code = waiting.pop()
        found.append(code)
        waiting += [each for each in code.co_consts if isinstance(each, types.CodeType)]
    return {id(code): code for code in found if os.path.isabs(code.co_filename)
            and not code.co_filename.startswith(HERE)}.values()


def choose_breakpoints():
    """[(code, line)] at random: half of them in the tests' own functions, half in what these call, the library."""
    places = sorted(((code, line) for code in loaded_code() for _, _, line in code.co_lines() if line),
                    key=lambda place: (place[0].co_filename, place[1], place[0].co_qualname))
    own = [place for place in places if TESTS_FOLDER in place[0].co_filename]
    others = [place for place in places if TESTS_FOLDER not in place[0].co_filename]
    chooser = random.Random(20)
    chosen = chooser.sample(own, min(BREAKPOINTS // 2, len(own)))
    return chosen + chooser.sample(others, min(BREAKPOINTS - len(chosen), len(others)))


def set_breakpoints(per_code_object):
    """`per_code_object` is the class of the filter's records.  Returns the number of breakpoints."""
    chosen = choose_breakpoints()
    frame = sys._getframe()          # any: all names are absolute
    lines = {}
    for code, line in chosen:
        lines.setdefault(code, set()).add(line)
    for code, numbers in lines.items():
        per_code_object.GetPerCodeObject(code, True, frame).fEnabledBpLinenos = numbers
    return len(chosen)


def register(make_callback):
    """A tool for all five events of all code, with the callback that is made for each."""
    numbers = [getattr(sys.monitoring.events, name) for name in EVENTS]
    sys.monitoring.use_tool_id(TOOL_ID, "cpython_suites")
    for number in numbers:
        sys.monitoring.register_callback(TOOL_ID, number, make_callback(number))
    sys.monitoring.set_events(TOOL_ID, sum(numbers))
    hide_tool(sys.monitoring)


def hide_tool(monitoring):
    """Tests of monitoring itself make sure that no other tool is there."""
    get_events, all_events = monitoring.get_events, monitoring._all_events
    others = ~(1 << TOOL_ID)
    monitoring.get_events = lambda tool_id: 0 if tool_id == TOOL_ID else get_events(tool_id)
    monitoring._all_events = lambda: {name: tools & others for name, tools in all_events().items() if tools & others}


def watch_otherwise():
    """A tool that does what every tool has to do."""
    request = ctypes.pythonapi.PyUnstable_Eval_RequestCodeExtraIndex
    request.restype, request.argtypes = ctypes.c_ssize_t, (ctypes.c_void_p,)
    set_extra = ctypes.pythonapi.PyUnstable_Code_SetExtra
    set_extra.argtypes = (ctypes.py_object, ctypes.c_ssize_t, ctypes.c_void_p)
    index = request(None)

    def mark(code, *args):
        if isinstance(code, types.CodeType):      # C code fires events of its own things
            set_extra(code, index, 1)

    register(lambda number: mark)


# What the filter calls here is written in C: where the stack is at its end, or where a test has changed the builtin
# functions, no Python code could do its work.

def count_calls():
    """A second callback that does nothing but count."""
    return functools.lru_cache(maxsize=0)(operator.is_)


def watch():
    """Puts the filter on everything from now on; returns the module and the second callback."""
    sys.path[:0] = [os.path.join(HERE, os.pardir, "python", "stand_ins"), os.environ["OPTMONITORING_DIR"]]
    import optmonitoring
    del sys.path[:2]
    second = count_calls()
    optmonitoring.SetInternalPathnameDict({os.path.abspath(__file__): True})
    optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
        operator.methodcaller("__setattr__", "fEnabledBpLinenos", set()))
    register(lambda number: optmonitoring.CInitialCallback(number, second, 1).Callback)
    return optmonitoring, second


def exceptions_reported():
    """The kinds of exceptions that the filter suppressed; the stand-in host keeps them."""
    dlog = sys.modules.get("brixbase.dlog")
    kinds = {type(error).__name__ for _, error in dlog.exception_calls} if dlog else set()
    return ", ".join(sorted(kinds)) or "nothing"


def load_tests(module, names):
    """Only what needs no network, no sound, no minutes."""
    from test import support
    support.use_resources = []
    tests = unittest.defaultTestLoader.loadTestsFromName(module)
    return unittest.TestSuite(case for case in cases_of(tests) if case.id() in names) if names else tests


def main():
    # A job in the background of a shell ignores it, and tests that wait for it would never end.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    module, mode, report, *names = sys.argv[1:]
    sys.argv = [sys.argv[0]]
    second, breakpoints = count_calls(), 0
    if mode == "other":
        watch_otherwise()
    elif mode != "none":
        filter_module, second = watch()
    tests = load_tests(module, names)
    if mode == "breakpoints":
        breakpoints = set_breakpoints(filter_module.CPerCodeObject)
    result = Outcomes()
    tests.run(result)
    if mode != "none":
        sys.monitoring.set_events(TOOL_ID, 0)
    result.outcomes[module + ": what was suppressed"] = exceptions_reported()
    with open(report, "w") as stream:
        json.dump({"outcomes": result.outcomes, "stops": second.cache_info().misses, "breakpoints": breakpoints}, stream)


if __name__ == "__main__":
    main()
