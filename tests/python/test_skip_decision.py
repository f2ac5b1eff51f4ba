"""The skip decision: every combination of its inputs for all events, its log line, and its references."""

import itertools
import re
import sys
import unittest

import support
from filter_support import (ALL_MASKS, DECISION, EVENT_NAMES, FAILURES, INITIAL, INVOKING, SKIPPING, SUPPRESSED,
                            FilterTestCase, Recorder, called_line, event_id, forget_handled_exception)

UNKNOWN = "unknown"
UNKNOWN_ID = 1 << 20
LINE = 2

EARLY = "early return of False\n"
STEPPING_THREAD = "per_thread_body->fSteppingEventsNeeded is True, returning False\n"
STEPPING_CODE = "per_code_object.fSteppingEventsNeededCount != 0, returning False\n"
NO_LINES = "per_code_object.fEnabledBpLinenos is None, returning False\n"
RETURN_NEEDED = "per_code_object.fReturnEventsNeededCount != 0, returning False\n"
SKIP = "returning True\n"
HIT = ""                # a line with a breakpoint says nothing


def expected(event, thread_steps, code_steps, lines, returns, line):
    """Whether the second callback is called, and what the decision says; `line` is None when there is none."""
    if event == UNKNOWN:
        return True, EARLY
    if thread_steps:
        return True, STEPPING_THREAD
    if code_steps:
        return True, STEPPING_CODE
    if lines is None:
        return True, NO_LINES
    if event == "LINE" and line is not None and line in lines:
        return True, HIT
    if event in ("PY_RETURN", "PY_YIELD") and returns:
        return True, RETURN_NEEDED
    return False, SKIP


# CHANGE-ANSWER: cases of the skip decision; those of the other steps are in test_initial_callback.py.
class DecisionTestCase(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.function, self.per_code = self.recorded_function()
        self.code = self.function.__code__
        self.per_thread = self.this_thread()
        self.second = Recorder("called")

    def decide(self, event, *args, **options):
        """The answer and the log behind the first line; suspending somewhere switches the line shortcut off."""
        number = UNKNOWN_ID if event == UNKNOWN else event_id(event)
        callback = self.callback(number, self.second)
        callback.fAnySuspendThread = 1
        answer, log = self.logged(callback, self.code, *args, **options)
        if options.get("mask", ALL_MASKS) & INITIAL:
            self.assertEqual(log.pop(0), called_line(callback, self.code))
        return answer, log


class Decision(DecisionTestCase):
    def assert_decision(self, event, thread_steps, code_steps, lines, returns, line):
        self.per_thread.fSteppingEventsNeeded = thread_steps
        self.per_code.fSteppingEventsNeededCount = code_steps
        self.per_code.fEnabledBpLinenos = lines
        self.per_code.fReturnEventsNeededCount = returns
        del self.second.calls[:]
        args = () if line is None else (line,)
        is_called, text = expected(event, thread_steps, code_steps, lines, returns, line)
        answer, log = self.decide(event, *args)
        self.assertEqual(answer, "called" if is_called else None)
        self.assertEqual(self.second.calls, [(self.code,) + args] if is_called else [])
        number = UNKNOWN_ID if event == UNKNOWN else event_id(event)
        self.assertEqual("".join(log), DECISION % number + text + (INVOKING if is_called else SKIPPING))

    def test_every_combination(self):
        rows = itertools.product(EVENT_NAMES + (UNKNOWN,), (False, True), (0, 1, -1, 5),
                                 (None, set(), {LINE}, {LINE + 1}, frozenset([LINE, 9])), (0, 1, -1),
                                 (None, LINE))
        count = 0
        for row in rows:
            with self.subTest(row=row):
                self.assert_decision(*row)
            count += 1
        self.assertEqual(count, 6 * 2 * 4 * 5 * 3 * 2)
        self.assert_nothing_reported()

    def test_nothing_needed_passes_nothing_but_the_breakpoint_line(self):
        passed = []
        self.per_code.fEnabledBpLinenos = {LINE}
        for event in EVENT_NAMES:
            for line in (LINE, LINE + 1):
                if self.decide(event, line)[0] == "called":
                    passed.append((event, line))
        self.assertEqual(passed, [("LINE", LINE)])

    def test_a_line_may_be_any_equal_object(self):
        self.per_code.fEnabledBpLinenos = {LINE}
        self.assertEqual(self.decide("LINE", float(LINE))[0], "called")
        self.assertIsNone(self.decide("LINE", "2")[0])

    def test_none_as_the_line_is_no_line(self):
        self.per_code.fEnabledBpLinenos = {None}
        answer, log = self.decide("LINE", None)
        self.assertIsNone(answer)
        self.assertEqual(log, [DECISION % event_id("LINE"), SKIP, SKIPPING])

    def test_only_line_events_look_at_the_second_argument(self):
        self.per_code.fEnabledBpLinenos = {LINE}
        for event in ("PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"):
            self.assertIsNone(self.decide(event, [])[0])
        self.assert_nothing_reported()

    def test_deleted_lines_count_as_none(self):
        del self.per_code.fEnabledBpLinenos
        answer, log = self.decide("LINE", LINE)
        self.assertEqual((answer, log), ("called", [DECISION % event_id("LINE"), NO_LINES, INVOKING]))

    def test_an_unknown_event_is_forwarded_before_anything_is_asked(self):
        self.per_code.fEnabledBpLinenos = [LINE]
        for number in (0, -1, 3, UNKNOWN_ID):
            callback = self.callback(number, self.second)
            answer, log = self.logged(callback, self.code, [])
            self.assertEqual(answer, "called")
            self.assertEqual(log[1:], [DECISION % number, EARLY, INVOKING])

    def test_the_decision_is_one_line_of_the_log(self):
        self.per_code.fEnabledBpLinenos = set()
        with support.logging_to(INITIAL) as log:
            self.callback("PY_START", self.second).Callback(self.code, 0)
        self.assertEqual(log.lines[-2:], [DECISION % event_id("PY_START") + SKIP, SKIPPING])

    def test_the_shortcut_leaves_nothing_to_decide_about(self):
        self.per_code.fEnabledBpLinenos = set()
        callback = self.callback("LINE", self.second)
        answer, log = self.logged(callback, self.code, LINE)
        self.assertEqual((answer, log), (None, [called_line(callback, self.code)]))

    def test_a_flag_for_every_thread_reaches_the_decision_but_does_not_decide(self):
        self.per_code.fEnabledBpLinenos = set()
        callback = self.callback("LINE", self.second)
        callback.fSteppingEventsNeededEveryThread = 1
        answer, log = self.logged(callback, self.code, LINE)
        self.assertEqual((answer, log[1:]), (None, [DECISION % event_id("LINE"), SKIP, SKIPPING]))


class FailedDecision(DecisionTestCase):
    def assert_failed(self, line, error):
        self.dlog.forget()
        forget_handled_exception()
        answer, log = self.decide("LINE", line)
        self.assertIsNone(answer)
        self.assertEqual(self.second.calls, [])
        self.assertEqual([log[i] for i in (0, 1, 3, 4)],
                         [DECISION % event_id("LINE"), "Exception in CInitialCallback.SkipSecondCallback():\n",
                          "returning -1 due to failure\n", SUPPRESSED])
        self.assertEqual(len(log), 6)
        for report in (log[2], log[5]):
            self.assertRegex(report, error)

    def test_an_unhashable_line(self):
        self.per_code.fEnabledBpLinenos = {LINE}
        self.assert_failed([], "^! TypeError: %s$" % re.escape(support.NOT_AN_ELEMENT))
        self.assert_reported(TypeError, support.NOT_AN_ELEMENT)

    def test_what_is_no_set(self):
        for lines in ([LINE], {LINE: 1}, 5, "2", False):
            self.per_code.fEnabledBpLinenos = lines
            self.assert_failed(LINE, r"^! SystemError: .*: bad argument to internal function$")
            self.assert_reported(SystemError)

    def test_a_comparison_that_raises(self):
        class Line(object):
            def __hash__(self):
                return hash(LINE)

            def __eq__(self, other):
                raise ValueError("compared")

        self.per_code.fEnabledBpLinenos = {Line()}
        self.assert_failed(LINE, r"^! ValueError: compared$")
        self.assert_reported(ValueError, "compared")

    def test_the_failures_domain_alone(self):
        self.per_code.fEnabledBpLinenos = {LINE}
        answer, log = self.decide("LINE", [], mask=FAILURES)
        error = "! TypeError: " + support.NOT_AN_ELEMENT
        self.assertEqual(log, ["Exception in CInitialCallback.SkipSecondCallback():\n", error, SUPPRESSED, error])


class References(FilterTestCase):
    def test_each_outcome_gives_back_what_it_took(self):
        function, per_code = self.recorded_function()
        code, per_thread = function.__code__, self.this_thread()
        line = 10 ** 9
        for event, lines in itertools.product(EVENT_NAMES + (UNKNOWN,), (None, set(), {line}, [line])):
            per_code.fEnabledBpLinenos = lines
            number = UNKNOWN_ID if event == UNKNOWN else event_id(event)
            callback = self.callback(number, print.__class__)     # a type called with too much: TypeError
            for any_suspend in (0, 1):
                callback.fAnySuspendThread = any_suspend
                things = (code, per_code, per_thread, lines, line, callback)
                callback.Callback(code, line)                     # the first failure leaves its exception behind
                forget_handled_exception()
                self.dlog.forget()
                before = [sys.getrefcount(each) for each in things]
                for _ in range(50):
                    callback.Callback(code, line)
                forget_handled_exception()
                self.dlog.forget()
                after = [sys.getrefcount(each) for each in things]
                if lines is None:                                 # None's own count belongs to everybody
                    before[3] = after[3]
                self.assertEqual(after, before, (event, lines, any_suspend))


if __name__ == "__main__":
    unittest.main()
