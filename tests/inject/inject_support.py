"""Walks over an operation of the module, failing its first, second, ... call of something until none fails any more.

Needs the module that the target `optmonitoring_inject` builds; OPTMONITORING_DIR names its folder. What can fail: the
allocations of the module's own code, the interpreter functions that it calls, and the symbols that it looks up.
"""

import ctypes
import gc
import io
import itertools
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "python"))

import support      # noqa: E402

LOOK_UPS, INTERPRETER_CALLS, ALLOCATIONS = -3, -2, -1
TARGET_NAMES = {LOOK_UPS: "look-up", INTERPRETER_CALLS: "interpreter call", ALLOCATIONS: "allocation"}
TO_THE_END = 1 << 30
STDERR_LOST = "sys.stderr is another"


class Injected(Exception):
    """What an interpreter function raises that is made to fail."""


def load_library():
    library = support.library()
    library.inject_arm.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.py_object]
    library.inject_arm.restype = None
    library.inject_disarm.restype = ctypes.c_int
    library.inject_failed_name.restype = library.inject_entry_name.restype = ctypes.c_char_p
    library.inject_failed_name.argtypes = [ctypes.c_int]
    library.inject_entry_name.argtypes = [ctypes.c_int]
    library.inject_live_blocks.restype = ctypes.c_long
    return library


lib = load_library()


class Outcome(object):
    """What an action did while calls FIRST to LAST of a target failed, and what it did to the program's sys.stderr."""

    def __init__(self, target, first, last, action):
        self.value = self.error = None
        program_stderr = sys.stderr
        sys.stderr = stand_in = io.StringIO()
        gc.disable()            # what has died before is not to be buried now
        lib.inject_arm(target, first, last, Injected)
        try:
            self.value = action()
        except Exception as e:
            self.error = e
        self.calls = lib.inject_disarm()
        gc.enable()
        self.stderr_fault = (STDERR_LOST if sys.stderr is not stand_in else
                             "written to sys.stderr: %r" % stand_in.getvalue() if stand_in.getvalue() else None)
        sys.stderr = program_stderr
        self.failed = lib.inject_failed_count()
        self.names = [name.decode() for name in iter(map(lib.inject_failed_name, itertools.count()).__next__, None)]
        if self.error is not None:
            self.error.__traceback__ = None     # it holds the action's variables

    def __repr__(self):
        result = "raised %r" % self.error if self.error is not None else "answered %r" % (self.value,)
        return "%s after failure of %s" % (result, ", ".join(self.names[:5]) or "nothing")


def entry_failures():
    """How often each entry of the binding table was made to fail in this process."""
    return {lib.inject_entry_name(entry).decode(): lib.inject_entry_failures(entry)
            for entry in range(lib.inject_entry_count()) if lib.inject_entry_can_fail(entry)}


def collect():
    """Collects until nothing is found any more: what dies in one collection may leave something for the next."""
    while gc.collect():
        pass


class Holdings(object):
    """What may grow when something is lost: memory blocks of the interpreter and of the module, live records, and
    references to the module's long-lived objects."""

    def __init__(self, om, *objects):
        self.objects = [om, om.CInitialCallback, om.CPerCodeObject, om.CPerFile, om.CPerThread] + list(objects)

    def measure(self):
        collect()
        blocks = support.allocated_blocks()
        return [blocks, lib.inject_live_blocks()] + [sys.getrefcount(each) for each in self.objects]


def describe(before, after):
    return "blocks %+d, module's own blocks %+d, references %s" % (
        after[0] - before[0], after[1] - before[1], [b - a for a, b in zip(before[2:], after[2:])])


class Scenario(object):
    """An operation to be walked. `prepare` makes fresh inputs, `act` is the operation, `settle` undoes what a run left.

    `judge` gets the outcome of a run in which something failed, and the answer of one in which nothing did; what it
    returns is what is wrong, or None. `later` tells of the next try's answer, where it is not the normal one, whether the
    failure may have lasting consequences of that kind.
    """

    def __init__(self, name, prepare, act, settle, judge, later=lambda outcome, answer: False):
        self.name = name
        self.prepare = prepare
        self.act = act
        self.settle = settle
        self.judge = judge
        self.later = later


class Walk(object):
    """Walks one scenario and collects what is wrong."""

    def __init__(self, scenario, target, burst, holdings, check_state):
        self.scenario = scenario
        self.target = target
        self.burst = burst
        self.holdings = holdings
        self.check_state = check_state
        self.faults = []
        self.steps = 0

    def last(self, n):
        return TO_THE_END if self.burst else n

    def one(self, n):
        """One run with its N-th call failing, then the next try; False when there was no N-th call."""
        scenario = self.scenario
        inputs = scenario.prepare()
        outcome = Outcome(self.target, n, self.last(n), lambda: scenario.act(inputs))
        if outcome.failed:
            self.note(n, outcome, self.fault_of_stderr(outcome))
            self.note(n, outcome, scenario.judge(outcome, inputs, self.expected))
            self.note(n, outcome, self.check_state())
            again = Outcome(self.target, 0, 0, lambda: scenario.act(inputs))
            same = again.error is None and again.value == self.expected
            if not same and not (again.error is None and scenario.later(outcome, again.value)):
                self.note(n, outcome, "the next try %r, not %r" % (again, self.expected))
            self.note(n, outcome, self.check_state())
        scenario.settle(inputs)
        return outcome.failed != 0

    def fault_of_stderr(self, outcome):
        # without memory for good it cannot be put back
        is_lost_for_good = outcome.names.count("PySys_SetObject") > 1
        return None if outcome.stderr_fault == STDERR_LOST and is_lost_for_good else outcome.stderr_fault

    def note(self, n, outcome, fault):
        if fault:
            self.faults.append("%s: %s %d%s: %s (%r)" % (self.scenario.name, TARGET_NAMES.get(self.target, "entry"), n,
                                                         " and later ones" if self.burst else "", fault, outcome))

    def all(self):
        n = 1
        while self.one(n):
            n += 1
        self.steps = n - 1

    def run(self):
        normal = self.without_failure()
        if normal.error is not None:
            self.faults.append("%s: without a failure it %r" % (self.scenario.name, normal))
            return
        self.expected = normal.value
        self.all()
        if not self.faults:
            self.find_leaks()

    def without_failure(self):
        inputs = self.scenario.prepare()
        normal = Outcome(self.target, 0, 0, lambda: self.scenario.act(inputs))
        self.scenario.settle(inputs)
        return normal

    def find_leaks(self, rounds=4):
        """Whatever a walk loses it loses every time; noise is gone in one of some rounds."""
        self.all()
        growths = []
        for _ in range(rounds):
            before = self.holdings.measure()
            self.all()
            after = self.holdings.measure()
            if all(b <= a for a, b in zip(before, after)):
                return
            growths.append(describe(before, after))
        self.faults.append("%s: %s%s: a walk loses: %s; %s" % (
            self.scenario.name, TARGET_NAMES[self.target], " bursts" if self.burst else "", growths[-1],
            self.blame() or "no single step does"))

    def blame(self, times=25):
        """The steps that lose something."""
        found = []
        for n in range(1, self.steps + 1):
            for _ in range(3):
                self.one(n)
            before = self.holdings.measure()
            for _ in range(times):
                self.one(n)
            after = self.holdings.measure()
            if any(b - a >= times // 2 for a, b in zip(before, after)):
                inputs = self.scenario.prepare()
                outcome = Outcome(self.target, n, self.last(n), lambda: self.scenario.act(inputs))
                self.scenario.settle(inputs)
                found.append("step %d in %d runs: %s (%r)" % (n, times, describe(before, after), outcome))
        return "; ".join(found)


