"""Runs one module of the interpreter's own test suite, with or without the filter, and writes each test's outcome.

    PYTHON run_module.py MODULE none|other|watched|breakpoints REPORT

none: as it is; other: with a tool that is not the filter and does nothing; watched: the filter on all five events of
all code, without breakpoints; breakpoints: with 1,000 of them at random. The environment variable OPTMONITORING_DIR
names the folder of the built module.
"""
import json
import os
import random
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
EVENTS = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
BREAKPOINTS = 1000


class Outcomes(unittest.TestResult):
    """The outcome of each test by its name; subtests count with their test."""

    def __init__(self):
        super().__init__()
        self.outcomes = {}

    def _note(self, test, outcome):
        name = getattr(test, "test_case", test).id()
        if self.outcomes.get(name) not in ("failure", "error"):
            self.outcomes[name] = outcome

    def addSuccess(self, test):
        self._note(test, "success")

    def addError(self, test, err):
        self._note(test, "error")

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


def choose_lines(chooser, left):
    """A hook that gives new records their breakpoint lines; `left` holds the number still to be given out."""
    def hook(record):
        lines = set()
        if left[0] > 0:
            code = record.fCodeObjectWeakRef()
            known = sorted({line for _, _, line in code.co_lines() if line})
            if known and chooser.random() < 0.1:
                lines = set(chooser.sample(known, min(len(known), 3, left[0])))
                left[0] -= len(lines)
        record.fEnabledBpLinenos = lines
    return hook


def register(make_callback):
    """A tool for all five events of all code, with the callback that is made for each."""
    numbers = [getattr(sys.monitoring.events, name) for name in EVENTS]
    sys.monitoring.use_tool_id(sys.monitoring.DEBUGGER_ID, "selfhost")
    for number in numbers:
        sys.monitoring.register_callback(sys.monitoring.DEBUGGER_ID, number, make_callback(number))
    sys.monitoring.set_events(sys.monitoring.DEBUGGER_ID, sum(numbers))


def watch(breakpoints):
    """Puts the filter on everything from now on; returns the list that counts the stops."""
    sys.path[:0] = [os.path.join(HERE, os.pardir, "python", "host"), os.environ["OPTMONITORING_DIR"]]
    import optmonitoring
    del sys.path[:2]
    stops = [0]

    def second(code, *args):
        stops[0] += 1

    optmonitoring.SetInternalPathnameDict({os.path.abspath(__file__): True})
    optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
        choose_lines(random.Random(20), [BREAKPOINTS if breakpoints else 0]))
    register(lambda number: optmonitoring.CInitialCallback(number, second, 1).Callback)
    return stops


def exceptions_reported():
    """What the filter suppressed; the stand-in host keeps it."""
    dlog = sys.modules.get("brixbase.dlog")
    return [repr(call) for call in dlog.exception_calls] if dlog else []


def main():
    module, mode, report = sys.argv[1:]
    sys.argv = [sys.argv[0]]
    stops = [0]
    if mode == "other":
        register(lambda number: lambda *args: None)
    elif mode != "none":
        stops = watch(mode == "breakpoints")
    result = Outcomes()
    unittest.defaultTestLoader.loadTestsFromName(module).run(result)
    if mode != "none":
        sys.monitoring.set_events(sys.monitoring.DEBUGGER_ID, 0)
    with open(report, "w") as stream:
        json.dump({"outcomes": result.outcomes, "stops": stops[0], "reported": exceptions_reported()}, stream)


if __name__ == "__main__":
    main()
