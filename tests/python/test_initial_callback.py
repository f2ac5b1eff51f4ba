"""CInitialCallback called directly: construction, members, and each path through Callback with its log."""

import sys
import threading
import unittest

import support
from filter_support import (ALL_MASKS, FAILURES, INITIAL, INVOKING, RECORD_FAILED, SKIPPING, SUPPRESSED, THREADING,
                            DECISION, FilterTestCase, Recorder, called_line, errno_variable, event_id,
                            forget_handled_exception, new_function)


class Construction(FilterTestCase):
    def test_takes_exactly_three_arguments(self):
        for args in ((), (1,), (1, print), (1, print, 0, 0)):
            with self.assertRaisesRegex(TypeError, r"CInitialCallback\.__init__\(\) takes exactly 3 arguments"):
                self.om.CInitialCallback(*args)

    def test_event_id_and_can_return_disable_are_ints(self):
        for args in (("x", print, 1), (1, print, "x"), (None, print, 1), (1.5, print, 1)):
            with self.assertRaisesRegex(TypeError, "cannot be interpreted as an integer"):
                self.om.CInitialCallback(*args)

    def test_an_event_id_beyond_32_bits_is_an_overflow(self):
        for number in (2 ** 31, -2 ** 31 - 1, 2 ** 70):
            with self.assertRaises(OverflowError):
                self.om.CInitialCallback(number, print, 1)

    def test_keyword_arguments_are_refused(self):
        with self.assertRaises(TypeError):
            self.om.CInitialCallback(1, print, can_return_disable=1)
        with self.assertRaises(TypeError):
            self.om.CInitialCallback(1, print, 1, extra=1)

    def test_subclass_may_take_keywords(self):
        class Named(self.om.CInitialCallback):
            def __new__(cls, *args, name):
                made = super().__new__(cls)
                made.name = name
                return made

        callback = Named(1, print, 1, name="mine")
        self.assertEqual((callback._fSecondCallback, callback.name), (print, "mine"))

    def test_any_object_may_be_the_second_callback(self):
        for second in (None, 5, object(), print):
            self.assertIs(self.om.CInitialCallback(1, second, 1)._fSecondCallback, second)

    def test_members_after_construction(self):
        second = Recorder()
        callback = self.om.CInitialCallback(1, second, 7)
        self.assertIs(callback._mod, self.om)
        self.assertIs(callback._fSecondCallback, second)
        self.assertEqual(callback._fCanReturnDisable, 7)
        self.assertEqual(callback.fAnySuspendThread, 0)
        self.assertEqual(callback.fSteppingEventsNeededEveryThread, 0)

    def test_true_counts_as_one(self):
        self.assertEqual(self.om.CInitialCallback(1, print, True)._fCanReturnDisable, 1)

    def test_the_class_names_itself(self):
        self.assertEqual(self.om.CInitialCallback.__module__, "optmonitoring")
        self.assertEqual(self.om.CInitialCallback.__qualname__, "CInitialCallback")

    def test_an_instance_holds_module_and_second_callback_until_it_dies(self):
        second = Recorder()
        module_count, second_count = sys.getrefcount(self.om), sys.getrefcount(second)
        callback = self.om.CInitialCallback(1, second, 1)
        self.assertEqual(sys.getrefcount(self.om), module_count + 1)
        self.assertEqual(sys.getrefcount(second), second_count + 1)
        del callback
        self.assertEqual(sys.getrefcount(self.om), module_count)
        self.assertEqual(sys.getrefcount(second), second_count)

    def test_a_failed_construction_holds_nothing(self):
        second = Recorder()
        module_count, second_count = sys.getrefcount(self.om), sys.getrefcount(second)
        with self.assertRaises(TypeError):
            self.om.CInitialCallback(1, second, "x")
        self.assertEqual((sys.getrefcount(self.om), sys.getrefcount(second)), (module_count, second_count))

    def test_keeps_what_a_second_init_overwrites(self):
        first, second = Recorder(), Recorder()
        callback = self.om.CInitialCallback(1, first, 1)
        callback.fAnySuspendThread = callback.fSteppingEventsNeededEveryThread = 1
        first_count, second_count, module_count = map(sys.getrefcount, (first, second, self.om))
        callback.__init__(1, second, 0)
        self.assertIs(callback._fSecondCallback, second)
        self.assertEqual((callback._fCanReturnDisable, callback.fAnySuspendThread,
                          callback.fSteppingEventsNeededEveryThread), (0, 0, 0))
        self.assertEqual(tuple(map(sys.getrefcount, (first, second, self.om))),
                         (first_count, second_count + 1, module_count + 1))
        del callback
        self.assertEqual(tuple(map(sys.getrefcount, (first, second, self.om))),
                         (first_count, second_count, module_count))

    def test_instances_come_and_go_without_a_leak(self):
        support.assert_no_leak(self, lambda: self.om.CInitialCallback(1, Recorder(), 1))
        before = support.total_instances(self.om.CInitialCallback)
        for _ in range(100):
            self.om.CInitialCallback(1, print, 1)
        self.assertEqual(support.total_instances(self.om.CInitialCallback), before)


class Members(FilterTestCase):
    def test_three_members_are_read_only(self):
        callback = self.callback()
        for name in ("_mod", "_fSecondCallback", "_fCanReturnDisable"):
            with self.assertRaises(AttributeError):
                setattr(callback, name, 1)
            with self.assertRaises(AttributeError):
                delattr(callback, name)

    def test_the_two_flags_are_ints(self):
        callback = self.callback()
        for name in ("fAnySuspendThread", "fSteppingEventsNeededEveryThread"):
            for value in (1, -5, 2 ** 31 - 1, 0, True):
                setattr(callback, name, value)
                self.assertEqual(getattr(callback, name), value)
            for value in ("x", None, 1.5):
                self.assertRaises(TypeError, setattr, callback, name, value)
            self.assertRaises(TypeError, delattr, callback, name)

    def test_event_id_and_module_state_are_not_exposed(self):
        callback = self.callback()
        for name in ("_fEventId", "fEventId", "mod_state", "_mod_state"):
            self.assertFalse(hasattr(callback, name), name)

    def test_public_names(self):
        names = {name for name in vars(self.om.CInitialCallback) if not name.startswith("__")}
        self.assertEqual(names, {"Callback", "_mod", "_fSecondCallback", "_fCanReturnDisable", "fAnySuspendThread",
                                 "fSteppingEventsNeededEveryThread"})

    def test_unset_objects_raise_attribute_error(self):
        bare = self.om.CInitialCallback.__new__(self.om.CInitialCallback)
        self.assertRaises(AttributeError, getattr, bare, "_mod")
        self.assertRaises(AttributeError, getattr, bare, "_fSecondCallback")
        self.assertEqual(bare._fCanReturnDisable, 0)

    def test_an_instance_never_initialised_answers_none(self):
        bare = self.om.CInitialCallback.__new__(self.om.CInitialCallback)
        self.assertIsNone(bare.Callback(new_function().__code__, 1))
        self.assert_reported(AttributeError)

    def test_callback_needs_an_instance(self):
        self.assertRaises(TypeError, self.om.CInitialCallback.Callback)
        self.assertRaises(TypeError, self.om.CInitialCallback.Callback, 5, new_function().__code__, 1)

    def test_a_subclass_is_a_callback_too(self):
        class Mine(self.om.CInitialCallback):
            def __init__(self, second):
                super().__init__(event_id("LINE"), second, 1)
                self.extra = [1]

        callback = Mine(Recorder("answer"))
        function, _ = self.recorded_function()
        self.assertEqual(callback.Callback(function.__code__, 2), "answer")
        self.assertEqual(callback.extra, [1])
        self.assertIs(callback._mod, self.om)


class FirstArgument(FilterTestCase):
    def test_no_argument_is_an_internal_error(self):
        answer, log = self.logged(self.callback())
        self.assertIsNone(answer)
        self.assertEqual(log, [SUPPRESSED, "! SystemError: optmonitoring:4236: bad argument to internal function"])
        self.assert_reported(SystemError, "optmonitoring:4236: bad argument to internal function")

    def test_errno_is_kept_where_there_is_no_argument(self):
        variable = errno_variable()
        with support.logging_to(FAILURES) as log:
            write = log.write

            def write_and_fail(text):
                write(text)
                variable.value = 99

            log.write = write_and_fail
            for before, after in ((5, 5), (0, 99)):
                variable.value = before
                self.callback().Callback()
                self.assertEqual(variable.value, after)
            self.assertIn(SUPPRESSED, log.writes)

    def test_keywords_alone_are_no_arguments(self):
        answer, log = self.logged(self.callback(), code=1)
        self.assertIsNone(answer)
        self.assertEqual(log[0], SUPPRESSED)
        self.assert_reported(SystemError)

    def test_no_code_object_is_disabled_whatever_may_be_returned(self):
        for can_return_disable in (0, 1):
            for first in (None, 4, "text", print, type, new_function()):
                second = Recorder()
                answer, log = self.logged(self.callback("LINE", second, can_return_disable), first, 2)
                self.assertIs(answer, sys.monitoring.DISABLE)
                self.assertEqual(log, ["Initial callback -- first arg %r is not a PyCodeObject; returning DISABLE\n"
                                       % (first,)])
                self.assertEqual(second.calls, [])
        self.assert_nothing_reported()

    def test_a_repr_that_logs_or_calls_back_writes_nothing_in_the_middle(self):
        callback, calls = self.callback(), []

        class Talkative(object):
            def __repr__(self):
                calls.append(1)
                optmonitoring.dprintf(INITIAL, "in the middle\n")
                callback.Callback(self)
                return "talkative"

        optmonitoring = self.om
        answer, log = self.logged(callback, Talkative())
        self.assertIs(answer, sys.monitoring.DISABLE)
        self.assertEqual(log, ["Initial callback -- first arg talkative is not a PyCodeObject; returning DISABLE\n"])
        self.assertEqual(calls, [1])
        self.assert_nothing_reported()

    def test_no_code_object_with_a_failing_repr(self):
        class Mute(object):
            def __repr__(self):
                raise ValueError("no repr")

        answer, log = self.logged(self.callback(), Mute())
        self.assertIs(answer, sys.monitoring.DISABLE)
        self.assertEqual(log, ["Initial callback -- first arg exception getting repr in fill_str_with_repr() is not a"
                               " PyCodeObject; returning DISABLE\n"])

    def test_no_repr_is_made_for_a_silent_log(self):
        made = []

        class Counting(Recorder):
            def __repr__(self):
                made.append(1)
                return "Counting()"

        callback = self.callback("LINE", Counting())
        function, _ = self.recorded_function()
        callback.Callback(function.__code__, 2)
        self.logged(callback, function.__code__, 2, mask=FAILURES | THREADING)
        self.assertEqual(made, [])
        self.logged(callback, function.__code__, 2, mask=INITIAL)
        self.assertEqual(made, [1])


class CodeObjectRecord(FilterTestCase):
    def test_the_first_event_makes_the_record(self):
        created = []
        self.om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(created.append)
        callback, code = self.callback(), new_function().__code__
        self.assertIsNone(self.om.CPerCodeObject.GetPerCodeObject(code, False))
        callback.Callback(code, 2)
        callback.Callback(code, 3)
        self.assertEqual(len(created), 1)
        self.assertIs(self.om.CPerCodeObject.GetPerCodeObject(code, False), created[0])
        self.assertEqual(created[0].fPathnameToReport, code.co_filename)
        # made with a frame: later look-ups with one do not try to refine it
        self.assertIs(self.om.CPerCodeObject.GetPerCodeObject(code, False, sys._getframe()), created[0])

    def test_a_failing_hook_fails_the_event(self):
        def hook(record):
            raise ValueError("hook")

        self.om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(hook)
        second = Recorder()
        callback, code = self.callback("LINE", second), new_function().__code__
        answer, log = self.logged(callback, code, 2, mask=FAILURES | INITIAL)
        self.assertIsNone(answer)
        self.assertEqual(log, [called_line(callback, code),
                               "Exception in CallNewObjectCallback_direct\n", "! ValueError: hook",
                               "Exception in CPerCodeObject.__init__\n", "! ValueError: hook",
                               RECORD_FAILED, "! ValueError: hook", SUPPRESSED, "! ValueError: hook"])
        self.assertEqual(second.calls, [])
        self.assert_reported(ValueError, "hook")

    def test_a_record_made_without_a_frame_fails_the_event(self):
        code = new_function().__code__
        record = self.om.CPerCodeObject.GetPerCodeObject(code)
        callback = self.callback()
        answer, log = self.logged(callback, code, 2)
        self.assertIsNone(answer)
        error = "! TypeError: code_object must be a PyCodeObject"
        self.assertEqual(log, [called_line(callback, code),
                               "Exception in CPerCodeObject_UpdatePathnameFromFrame_direct()\n", error,
                               RECORD_FAILED, error, SUPPRESSED, error])
        self.assert_reported(TypeError, "code_object must be a PyCodeObject")
        self.assertIs(self.om.CPerCodeObject.GetPerCodeObject(code), record)

    def test_a_name_with_surrogates_is_answered_none_and_reported(self):
        code = new_function().__code__.replace(co_filename="\udc80.py")
        second = Recorder()
        answer, log = self.logged(self.callback("LINE", second), code, 2, mask=FAILURES)
        self.assertIsNone(answer)
        error = "! UnicodeEncodeError: 'utf-8' codec can't encode character '\\udc80' in position 0: surrogates not" \
                " allowed"
        self.assertEqual(log[-4:], [RECORD_FAILED, error, SUPPRESSED, error])
        self.assertEqual(second.calls, [])
        self.assert_reported(UnicodeEncodeError)


class InternalCode(FilterTestCase):
    def internal_record(self, cls=None):
        function = new_function()
        with self.internal(function.__code__.co_filename):
            record = (cls or self.om.CPerCodeObject)(function.__code__, sys._getframe())
        self.assertIs(record.fIsInternal, True)
        return function.__code__, record

    def test_is_disabled(self):
        code, record = self.internal_record()
        second = Recorder()
        callback = self.callback("PY_START", second)
        answer, log = self.logged(callback, code, 0)
        self.assertIs(answer, sys.monitoring.DISABLE)
        self.assertEqual(log, [called_line(callback, code), "Disabling monitoring callbacks for %r\n" % record,
                               "Initial callback -- return after check internal: %r\n" % sys.monitoring.DISABLE])
        self.assertEqual(second.calls, [])

    def test_is_ignored_where_disable_may_not_be_returned(self):
        code, record = self.internal_record()
        second = Recorder()
        callback = self.callback("PY_START", second, 0)
        answer, log = self.logged(callback, code, 0)
        self.assertIsNone(answer)
        self.assertEqual(log, [called_line(callback, code), "Ignoring callback for %r\n" % record,
                               "Initial callback -- return after check internal: None\n"])
        self.assertEqual(second.calls, [])

    def test_comes_before_every_other_question(self):
        code, record = self.internal_record()
        record.fSteppingEventsNeededCount = 1
        record.fEnabledBpLinenos = [2]
        callback = self.callback()
        callback.fAnySuspendThread = callback.fSteppingEventsNeededEveryThread = 1
        self.assertIs(callback.Callback(code, []), sys.monitoring.DISABLE)
        self.assertFalse(self.is_known_thread())

    def test_a_record_of_a_subclass_is_not_asked(self):
        class Mine(self.om.CPerCodeObject):
            pass

        code, _ = self.internal_record(Mine)
        second = Recorder("forwarded")
        self.assertEqual(self.callback("PY_START", second).Callback(code, 0), "forwarded")
        self.assertEqual(second.calls, [(code, 0)])


class BreakpointLines(FilterTestCase):
    def shortcut(self, callback, *args):
        """Whether a call was answered before any per-thread work."""
        (answer, log), has_record = self.in_new_thread(
            lambda: (self.logged(callback, *args), self.is_known_thread()))
        self.assertEqual(log[0], called_line(callback, args[0]))
        is_early = len(log) == 1
        self.assertNotEqual(has_record, is_early)
        if is_early:
            self.assertIsNone(answer)
        return is_early

    def test_a_line_without_a_breakpoint_is_answered_early(self):
        function, _ = self.recorded_function(fEnabledBpLinenos={3})
        second = Recorder()
        callback = self.callback("LINE", second)
        self.assertTrue(self.shortcut(callback, function.__code__, 2))
        self.assertFalse(self.shortcut(callback, function.__code__, 3))
        self.assertEqual(second.calls, [(function.__code__, 3)])

    def test_an_empty_or_frozen_set_will_do(self):
        function, record = self.recorded_function(fEnabledBpLinenos=set())
        self.assertTrue(self.shortcut(self.callback(), function.__code__, 2))
        record.fEnabledBpLinenos = frozenset([3])
        self.assertTrue(self.shortcut(self.callback(), function.__code__, 2))
        self.assertFalse(self.shortcut(self.callback(), function.__code__, 3))

    def test_each_condition_switches_it_off(self):
        function, record = self.recorded_function(fEnabledBpLinenos={3})
        code = function.__code__
        for name in ("PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"):
            self.assertFalse(self.shortcut(self.callback(name), code, 2), name)
        self.assertFalse(self.shortcut(self.callback(), code))
        for flag in ("fAnySuspendThread", "fSteppingEventsNeededEveryThread"):
            callback = self.callback()
            setattr(callback, flag, 1)
            self.assertFalse(self.shortcut(callback, code, 2), flag)
        for count in (1, -1):
            record.fSteppingEventsNeededCount = count
            self.assertFalse(self.shortcut(self.callback(), code, 2), count)
        record.fSteppingEventsNeededCount = 0
        self.assertTrue(self.shortcut(self.callback(), code, 2))
        record.fEnabledBpLinenos = None
        self.assertFalse(self.shortcut(self.callback(), code, 2))
        del record.fEnabledBpLinenos
        self.assertFalse(self.shortcut(self.callback(), code, 2))

    def test_flags_are_read_afresh(self):
        function, _ = self.recorded_function(fEnabledBpLinenos={3})
        callback = self.callback()
        for flag in (0, 1, 0):
            callback.fAnySuspendThread = flag
            self.assertEqual(self.shortcut(callback, function.__code__, 2), not flag)

    def test_an_unhashable_line_fails_the_event(self):
        function, _ = self.recorded_function(fEnabledBpLinenos={3})
        callback = self.callback()
        answer, log = self.logged(callback, function.__code__, [])
        self.assertIsNone(answer)
        self.assertEqual(log, [called_line(callback, function.__code__), SUPPRESSED,
                               "! TypeError: " + support.NOT_AN_ELEMENT])
        self.assert_reported(TypeError, support.NOT_AN_ELEMENT)

    def test_what_is_no_set_fails_the_event(self):
        for lines in ([2], (2,), {2: 1}, 5, "2"):
            self.dlog.forget()
            forget_handled_exception()
            function, _ = self.recorded_function(fEnabledBpLinenos=lines)
            callback = self.callback()
            answer, log = self.logged(callback, function.__code__, 2)
            self.assertIsNone(answer)
            self.assertEqual(log[:2], [called_line(callback, function.__code__), SUPPRESSED])
            self.assertRegex(log[2], r"^! SystemError: .*bad argument to internal function$")
            self.assert_reported(SystemError)

    def test_code_run_by_the_look_up_may_replace_the_set(self):
        function, record = self.recorded_function()
        callback = self.callback()
        deaths, alive = [], []

        class Lines(set):
            def __del__(self):
                deaths.append(1)

        class Line(object):
            def __hash__(self):
                record.fEnabledBpLinenos = None
                alive.append(not deaths)        # the look-up still needs the set
                return 1

        for any_suspend in (0, 1):
            callback.fAnySuspendThread = any_suspend
            del deaths[:]
            record.fEnabledBpLinenos = Lines(range(1000, 9000))
            self.assertIsNone(callback.Callback(function.__code__, Line()))
            self.assertEqual(len(deaths), 1)
        self.assertEqual(alive, [True, True])
        self.assert_nothing_reported()


class SecondCallback(FilterTestCase):
    def setUp(self):
        super().setUp()
        self.code = self.recorded_function()[0].__code__

    def test_the_log_of_a_forwarded_event(self):
        callback = self.callback("PY_START")
        answer, log = self.logged(callback, self.code, 0)
        self.assertEqual(log, [called_line(callback, self.code), DECISION % event_id("PY_START"),
                               "per_code_object.fEnabledBpLinenos is None, returning False\n", INVOKING])

    def test_arguments_arrive_unchanged(self):
        for args in ((), (2,), (12, object()), ([], {}, None, 4, 5, 6)):
            second = Recorder()
            self.callback("PY_RETURN", second).Callback(self.code, *args)
            self.assertEqual(len(second.calls), 1)
            self.assertEqual([id(each) for each in second.calls[0]], [id(each) for each in (self.code,) + args])
            self.assertEqual(second.keywords, [{}])

    def test_keywords_arrive_unchanged(self):
        second = Recorder()
        self.callback("LINE", second).Callback(self.code, 2, extra=7, other=None)
        self.assertEqual((second.calls, second.keywords), ([(self.code, 2)], [{"extra": 7, "other": None}]))

    def test_its_result_is_the_answer(self):
        for result in (None, sys.monitoring.DISABLE, 0, False, object(), [1]):
            self.assertIs(self.callback("LINE", Recorder(result)).Callback(self.code, 2), result)

    def test_disable_is_returned_even_where_the_filter_may_not(self):
        answer = self.callback("LINE", Recorder(sys.monitoring.DISABLE), 0).Callback(self.code, 2)
        self.assertIs(answer, sys.monitoring.DISABLE)

    def test_its_exception_is_suppressed_and_reported(self):
        def second(*args):
            raise ValueError("second")

        callback = self.callback("PY_START", second)
        answer, log = self.logged(callback, self.code, 0)
        self.assertIsNone(answer)
        self.assertEqual(log[-3:], [INVOKING, SUPPRESSED, "! ValueError: second"])
        self.assert_reported(ValueError, "second")

    def test_what_cannot_be_called_is_suppressed_and_reported(self):
        self.assertIsNone(self.callback("PY_START", 5).Callback(self.code, 0))
        self.assert_reported(TypeError, "'int' object is not callable")

    def test_keeps_the_suppressed_exception_as_the_handled_one(self):
        def second(*args):
            raise ValueError("second")

        self.callback("PY_START", second).Callback(self.code, 0)
        self.assertEqual(str(sys.exc_info()[1]), "second")

    def test_a_call_with_the_code_alone_has_no_line(self):
        record = self.om.CPerCodeObject.GetPerCodeObject(self.code)
        record.fEnabledBpLinenos = {2}
        answer, log = self.logged(self.callback(), self.code)
        self.assertIsNone(answer)
        self.assertEqual(log[1:], [DECISION % event_id("LINE"), "returning True\n", SKIPPING])

    def test_the_thread_has_its_name_by_then(self):
        names, asked = [], []

        def name(per_thread):
            asked.append(per_thread)
            return "thread %d" % per_thread.fThreadId

        self.om.CPerThread.SetGetThreadNameCallback(name)
        callback = self.callback("LINE", lambda *args: names.append(self.this_thread().fThreadName))
        callback.Callback(self.code, 2)
        callback.Callback(self.code, 3)
        self.assertEqual(names, ["thread %d" % threading.get_ident()] * 2)
        self.assertEqual(asked, [self.this_thread()])

    def test_a_failing_thread_name_fails_the_event(self):
        def name(per_thread):
            raise ValueError("name")

        self.om.CPerThread.SetGetThreadNameCallback(name)
        callback = self.callback()
        answer, log = self.logged(callback, self.code, 2)
        self.assertIsNone(answer)
        error = "! ValueError: name"
        self.assertEqual(log, [called_line(callback, self.code),
                               "Exception in CPerThread_FindThreadName_direct()\n", error,
                               "CInitialCallback_GetPerThreadCalledFromCallback() failed\n", error,
                               SUPPRESSED, error])
        self.assert_reported(ValueError, "name")


class Domains(FilterTestCase):
    """Decisions belong to the domain of the initial callback; the other two have nothing to add on these paths."""

    def assert_initial_alone(self, callback, *args):
        everything = self.logged(callback, *args)[1]
        self.assertGreater(len(everything), 0)
        self.assertEqual(self.logged(callback, *args, mask=INITIAL)[1], everything)
        self.assertEqual(self.logged(callback, *args, mask=ALL_MASKS - INITIAL)[1], [])
        self.assertEqual(self.logged(callback, *args, mask=0)[1], [])

    def test_decisions(self):
        function, record = self.recorded_function()
        code = function.__code__
        self.assert_initial_alone(self.callback(), 5)
        self.assert_initial_alone(self.callback(), code, 2)
        record.fEnabledBpLinenos = {2}
        for event in ("LINE", "PY_START", "PY_RETURN"):
            self.assert_initial_alone(self.callback(event), code, 2)
            self.assert_initial_alone(self.callback(event), code, 3)
        self.this_thread().fDebugPolicy = 0
        self.assert_initial_alone(self.callback(), code, 2)

    def test_internal_code(self):
        code = new_function().__code__
        with self.internal(code.co_filename):
            self.record(code)
        for can_return_disable in (0, 1):
            self.assert_initial_alone(self.callback("LINE", None, can_return_disable), code, 2)


if __name__ == "__main__":
    unittest.main()
