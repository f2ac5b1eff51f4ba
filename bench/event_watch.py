"""The loops whose events are measured, and how they are watched: by a bare callback, or by the filter around records.

Runs in the measured interpreter; event_paths.py says why little is imported.
"""

import _thread
import operator
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = sys.monitoring.DEBUGGER_ID
EVENTS = sys.monitoring.events


class Failed(Exception):
    """The variant did not do its work."""


def check(condition, text, *values):
    if not condition:
        raise Failed(text % values)


# ---- The loops ----

def line_loop(count):
    turn = 0
    while turn < count:
        left = turn
        right = left
        turn += 1
    return turn


_FIRST = line_loop.__code__.co_firstlineno
TURN_LINES = list(range(_FIRST + 2, _FIRST + 6))    # one event each in every turn
END_LINE = _FIRST + 6                               # one event after the loop: the breakpoint


def lines_of(turns):
    """The lines of the events of one call of `line_loop`."""
    return [_FIRST + 1] + TURN_LINES * turns + [TURN_LINES[0], END_LINE]


def callee():
    return None


def call_loop(count):
    turn = 0
    while turn < count:
        callee()
        turn += 1
    return turn


def generate(count):
    turn = 0
    while turn < count:
        yield turn
        turn += 1


def generator_loop(count):
    turns = 0
    for _ in generate(count):
        turns += 1
    return turns


class Kind:
    """A kind of event, the loop that raises it, and the code object that is watched."""

    def __init__(self, event, loop, watched, per_turn):
        self.event = event
        self.loop = loop
        self.code = watched.__code__
        self.per_turn = per_turn

    def prove_events(self):
        """The loop raises as many events a turn as it is said to."""
        seen = []
        watch(self, lambda *args: seen.append(args))
        totals = []
        for turns in (10, 20):
            self.loop(turns)
            totals.append(len(seen))
            seen.clear()
        unwatch(self)
        per_turn = (totals[1] - totals[0]) / 10
        check(per_turn == self.per_turn, "%g events a turn instead of %d", per_turn, self.per_turn)


LINE = Kind(EVENTS.LINE, line_loop, line_loop, len(TURN_LINES))
START = Kind(EVENTS.PY_START, call_loop, callee, 1)
RETURN = Kind(EVENTS.PY_RETURN, call_loop, callee, 1)
YIELD = Kind(EVENTS.PY_YIELD, generator_loop, generate, 1)
RESUME = Kind(EVENTS.PY_RESUME, generator_loop, generate, 1)


# ---- Watching ----

def watch(kind, callback, code=None):
    """Report the events of one code object; every location is armed again."""
    if sys.monitoring.get_tool(TOOL) is None:
        sys.monitoring.use_tool_id(TOOL, "event paths")
    sys.monitoring.register_callback(TOOL, kind.event, callback)
    sys.monitoring.set_local_events(TOOL, code or kind.code, kind.event)
    sys.monitoring.restart_events()


def unwatch(kind):
    sys.monitoring.set_local_events(TOOL, kind.code, 0)
    sys.monitoring.register_callback(TOOL, kind.event, None)
    sys.monitoring.free_tool_id(TOOL)


class Recorder:
    """A callback in Python that keeps the second argument of every event: the line or the offset."""

    def __init__(self):
        self.seen = []

    def __call__(self, code, place, *rest):
        self.seen.append(place)


def make_nothing():
    """A C function that returns None for any number of arguments.

    `operator.is_`, the floor of the events with two arguments, does not take the three of PY_RETURN and PY_YIELD, and
    the standard library has no function as cheap that does.  This one is Py_NewRef called with its `self`.
    """
    import ctypes

    class MethodDef(ctypes.Structure):
        _fields_ = [("name", ctypes.c_char_p), ("function", ctypes.c_void_p), ("flags", ctypes.c_int),
                    ("doc", ctypes.c_char_p)]

    fastcall = 0x80
    new_ref = ctypes.cast(ctypes.pythonapi.Py_NewRef, ctypes.c_void_p).value
    make_nothing.definition = MethodDef(b"nothing", new_ref, fastcall, None)      # lives as long as the function
    make = ctypes.pythonapi.PyCFunction_NewEx
    make.restype = ctypes.py_object
    make.argtypes = [ctypes.c_void_p, ctypes.py_object, ctypes.c_void_p]
    function = make(ctypes.addressof(make_nothing.definition), None, None)
    check(function(1, 2) is None and function(1, 2, 3) is None, "the floor's callback does not return None")
    return function


def bare_callback(kind):
    """The cheapest C callback of a kind of event."""
    return make_nothing() if kind in (RETURN, YIELD) else operator.is_


def replace_callback(kind, old, new):
    """Put another callback in the place of the measured one, without arming any location again."""
    replaced = sys.monitoring.register_callback(TOOL, kind.event, new)
    check(replaced == old, "the measured callback was %r instead of %r", replaced, old)


# ---- The filter's side of a variant ----

class Filter:
    """The filter around one kind of event: records made, the thread's policy and name known."""

    has_name_hook = True

    def __init__(self, kind, c_second=False, can_return_disable=1, policy=1, internal=False, lines=(END_LINE,)):
        self.kind = kind
        self.om = om = load_module()
        self.can_return_disable = can_return_disable
        self.policy = policy
        self.policy_calls = []
        self.name_calls = []
        self.recorder = Recorder()
        if internal:
            om.SetInternalPathnameDict({om.get_canonical_pathname(kind.code.co_filename): True})
        om.CPerThread.SetDebugPolicyCallback(self._answer_policy)
        if self.has_name_hook:
            om.CPerThread.SetGetThreadNameCallback(self._answer_name)
        self.thread = om.CPerThread.GetPerThread()
        self.thread.GetDebugPolicy()
        self.thread.FindThreadName()
        self.record = om.CPerCodeObject.GetPerCodeObject(kind.code, True, sys._getframe())
        self.record.fEnabledBpLinenos = set(lines)
        self.callback = self._make_callback(bare_callback(kind) if c_second else self.recorder)

    def _make_callback(self, second):
        return self.om.CInitialCallback(self.kind.event, second, self.can_return_disable)

    def _answer_policy(self, thread_id):
        self.policy_calls.append(thread_id)
        return self.policy

    def _answer_name(self, record):
        self.name_calls.append(record.fThreadId)
        return "measured"

    def watch(self):
        watch(self.kind, self.callback.Callback)

    @property
    def seen(self):
        return self.recorder.seen

    def prove(self, passes, seen_in_a_pass):
        """What the measured loop reported; and that nothing was asked or raised in it."""
        check(self.seen == seen_in_a_pass * passes, "reported %r in %d passes, expected %r in each",
              self.seen[:20], passes, seen_in_a_pass)
        self.prove_quiet()
        self.seen.clear()

    def prove_quiet(self):
        from brixbase import dlog
        check(not dlog.exception_calls, "exceptions were suppressed: %r", dlog.exception_calls)
        ident = _thread.get_ident()
        check(self.policy_calls == [ident], "the policy was asked of %r, expected once", self.policy_calls)
        names = [ident] if self.has_name_hook else []
        check(self.name_calls == names, "the name was asked of %r, expected %r", self.name_calls, names)
        check(self.thread.fThreadName == ("measured" if names else None), "it is %r", self.thread.fThreadName)

    def record_forwarded(self):
        """Put a recording second callback in the place of the C one, with the same records and flags."""
        callback = self._make_callback(self.recorder)
        callback.fAnySuspendThread = self.callback.fAnySuspendThread
        callback.fSteppingEventsNeededEveryThread = self.callback.fSteppingEventsNeededEveryThread
        replace_callback(self.kind, self.callback.Callback, callback.Callback)
        self.callback = callback

    def prove_forwarded(self, turns, expected):
        """These events are forwarded to the second callback."""
        self.record_forwarded()
        self.prove_reports(turns, expected)
        self.prove_quiet()

    def prove_reports(self, turns, expected):
        self.kind.loop(turns)
        check(self.seen == expected, "%d more turns reported %r, expected %r", turns, self.seen[:20], expected)
        self.seen.clear()

    def prove_places_alive(self, alive):
        """Whether the interpreter still raises events in the loop, or was asked to stop."""
        counter = Recorder()
        replace_callback(self.kind, self.callback.Callback, counter)
        self.kind.loop(2)
        check(bool(counter.seen) == alive, "%d events came after the loop", len(counter.seen))


def load_module():
    """The built module, with the tests' stand-in for the host: it imports little."""
    for folder in (os.path.join(HERE, "..", "tests", "python", "stand_ins"),
                   os.environ.get("OPTMONITORING_DIR") or os.path.join(HERE, "..", "build")):
        sys.path.insert(0, os.path.abspath(folder))
    import optmonitoring
    return optmonitoring
