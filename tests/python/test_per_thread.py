"""The per-thread record: construction, members, hooks, policy and name."""

import sys
import threading
import types
import unittest

import support
from record_support import Raising, RaisingMapping, RecordTestCase, key_error

# ADD-MEMBER: its name in one of these, and its first value in test_initial_values.
READ_ONLY = ("mod", "fThreadId", "fThreadName")
WRITABLE = ("fOuterMostFrame", "fStopFrame", "fDontStopLinenoRange", "fReturnFrame", "fStopAtNextLine", "fSuspendLock",
            "fSteppingCodeObjects")                # in the order in which a dying record releases them
NUMBERS = ("fDebugPolicy", "fCheckSuspendLock", "fExitingWithException")
BOOLEANS = ("fSteppingEventsNeeded",)
OBJECT_MEMBERS = READ_ONLY + WRITABLE
INIT = "Exception in CPerThread.__init__\n"
HOOK = "Exception in CallNewObjectCallback_direct\n"
REGISTER = "Exception in CPerThread_RegisterPerThread_direct()\n"
CAPSULE = ["Exception in CPerThread_RegisterThreadStateDictCapsule_direct()\n",
           "Failure in CPerThread_TryRegisterThreadStateDictCapsule_direct()\n"]


class PerThreadTestCase(RecordTestCase):
    def setUp(self):
        super(PerThreadTestCase, self).setUp()
        self.cls = self.om.CPerThread


class ClassTest(PerThreadTestCase):
    def test_name_and_module(self):
        self.assertEqual((self.cls.__name__, self.cls.__module__), ("CPerThread", "optmonitoring"))

    def test_class_attributes_after_a_reset(self):
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.assertIs(type(self.cls._fPerThreadDict), dict)
        for name in ("_fDebugPolicyCallback", "_fNewPerThreadCreatedCallback", "_fGetThreadNameCallback"):
            self.assertIsNone(getattr(self.cls, name))

    def test_class_attributes_of_a_fresh_import(self):
        out = support.check_child(self, """
import support
cls = support.load().CPerThread
print(cls._fPerThreadDict, cls._fDebugPolicyCallback, cls._fNewPerThreadCreatedCallback, cls._fGetThreadNameCallback)
""")
        self.assertEqual(out, "{} None None None\n")

    def test_fresh_import_has_the_four_attributes_in_the_class_itself(self):
        for name in ("_fPerThreadDict", "_fDebugPolicyCallback", "_fNewPerThreadCreatedCallback",
                     "_fGetThreadNameCallback"):
            self.assertIn(name, self.cls.__dict__)

    def test_records_are_not_tracked_by_the_collector(self):
        import gc
        self.assertFalse(gc.is_tracked(self.cls(5)))


class MemberTest(PerThreadTestCase):
    def test_members(self):
        members = [name for name, value in vars(self.cls).items() if isinstance(value, types.MemberDescriptorType)]
        self.assertEqual(sorted(members), sorted(OBJECT_MEMBERS + NUMBERS + BOOLEANS))

    def test_initial_values(self):
        record = self.cls(5)
        self.assertIs(record.mod, self.om)
        self.assertEqual(record.fThreadId, 5)
        self.assertIs(record.fSteppingEventsNeeded, False)
        for name in ("fOuterMostFrame", "fStopFrame", "fDontStopLinenoRange", "fReturnFrame", "fThreadName"):
            self.assertIsNone(getattr(record, name), name)
        self.assertIs(record.fStopAtNextLine, False)
        self.assertEqual(record.fDebugPolicy, -1)
        self.assertIs(type(record.fSuspendLock), type(threading.Lock()))
        self.assertFalse(record.fSuspendLock.locked())
        self.assertEqual(record.fCheckSuspendLock, 0)
        self.assertEqual(record.fExitingWithException, 0)
        self.assertEqual(record.fSteppingCodeObjects, set())
        self.assertIs(type(record.fSteppingCodeObjects), set)

    def test_lock_and_set_are_the_records_own(self):
        first, second = self.cls(5), self.cls(6)
        self.assertIsNot(first.fSuspendLock, second.fSuspendLock)
        self.assertIsNot(first.fSteppingCodeObjects, second.fSteppingCodeObjects)

    def test_thread_id_is_the_argument_itself(self):
        thread_id = 1 << 40
        self.assertIs(self.cls(thread_id).fThreadId, thread_id)

    def test_read_only_members(self):
        record = self.cls(5)
        for name in READ_ONLY:
            self.check_read_only(record, name)

    def test_writable_object_members(self):
        record = self.cls(5)
        for name in WRITABLE:
            self.check_writable_object(record, name)

    def test_writable_int_members(self):
        record = self.cls(5)
        for name in NUMBERS:
            self.check_writable_number(record, name, 1 << 31)

    def test_boolean_member_takes_bools_alone(self):
        record = self.cls(5)
        record.fSteppingEventsNeeded = True
        self.assertIs(record.fSteppingEventsNeeded, True)
        with self.assertRaises(TypeError):
            record.fSteppingEventsNeeded = 1
        with self.assertRaises(TypeError):
            del record.fSteppingEventsNeeded
        record.fSteppingEventsNeeded = False
        self.assertIs(record.fSteppingEventsNeeded, False)

    def test_internal_fields_are_not_exposed(self):
        for name in ("mod_state", "capsule_ptr", "_fPyTssData"):
            self.assertFalse(hasattr(self.cls, name))


class ConstructionTest(PerThreadTestCase):
    def test_record_is_registered_under_its_id(self):
        record = self.cls(5)
        self.assertEqual(self.cls._fPerThreadDict, {5: record})

    def test_second_record_of_an_id_takes_the_place_of_the_first(self):
        self.cls(5)
        second = self.cls(5)
        self.assertEqual(self.cls._fPerThreadDict, {5: second})

    def test_second_record_of_this_thread_discards_the_first(self):
        first = self.cls(threading.get_ident())
        second = self.cls(threading.get_ident())
        self.check_all_unset(first, OBJECT_MEMBERS)
        self.assertEqual(self.cls._fPerThreadDict, {threading.get_ident(): second})
        self.assertIs(self.cls.GetPerThread(), second)

    def test_capsule_of_this_threads_record_owns_a_reference(self):
        other = self.cls(5)
        own = self.cls(threading.get_ident())
        self.assertEqual(sys.getrefcount(own), sys.getrefcount(other) + 1)

    def test_wrong_argument_counts(self):
        self.fails(TypeError, "CPerThread.__init__() takes exactly 1 argument (0 given)", [INIT], self.cls)
        self.fails(TypeError, "CPerThread.__init__() takes exactly 1 argument (2 given)", [INIT], self.cls, 1, 2)
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_keywords_are_refused(self):
        self.fails(TypeError, "CPerThread() takes no keyword arguments", [INIT], self.cls, thread_id=1)
        self.fails(TypeError, "CPerThread() takes no keyword arguments", [INIT], self.cls, 1, create=1)

    def test_subclass_may_take_keywords(self):
        class Named(self.cls):
            def __new__(cls, *args, name):
                made = super().__new__(cls)
                made.name = name
                return made

        record = Named(1, name="mine")
        self.assertEqual((record.fThreadId, record.name), (1, "mine"))

    def test_id_that_is_no_int(self):
        for thread_id, text in (("x", "'str' object cannot be interpreted as an integer"),
                                (None, "'NoneType' object cannot be interpreted as an integer"),
                                (1.5, "'float' object cannot be interpreted as an integer")):
            self.fails(TypeError, text, CAPSULE + [REGISTER, INIT], self.cls, thread_id)
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_id_out_of_range(self):
        self.fails(OverflowError, "int too big to convert", CAPSULE + [REGISTER, INIT], self.cls, 1 << 63)

    def test_id_minus_one_is_an_id(self):
        self.assertEqual(self.cls(-1).fThreadId, -1)

    def test_already_initialized(self):
        record = self.cls(5)
        lock = record.fSuspendLock
        self.fails(RuntimeError, "CPerThread is already initialized", [INIT], record.__init__, 6)
        self.assertEqual((record.fThreadId, record.fSuspendLock), (5, lock))
        self.assertEqual(self.cls._fPerThreadDict, {5: record})

    def test_lock_that_cannot_be_made(self):
        def no_lock():
            raise OSError("no lock")

        lock = threading.Lock
        threading.Lock = no_lock
        try:
            self.fails(OSError, "no lock", ["Exception in CreateThreadingLock()\n", INIT], self.cls, 5)
        finally:
            threading.Lock = lock
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_lock_comes_from_the_threading_module(self):
        lock = threading.Lock
        threading.Lock = lambda: "lock"
        try:
            self.assertEqual(self.cls(5).fSuspendLock, "lock")
        finally:
            threading.Lock = lock

    def test_registry_that_refuses(self):
        self.cls._fPerThreadDict = RaisingMapping()
        self.fails(ValueError, "set refused", [REGISTER, INIT], self.cls, 5)

    def test_registry_that_cannot_be_read(self):
        self.cls._fPerThreadDict = Raising()
        self.fails(ValueError, "cannot be read", [REGISTER, INIT], self.cls, 5)

    def test_failed_registration_takes_the_capsule_back(self):
        self.cls._fPerThreadDict = RaisingMapping(get=key_error)
        record = self.cls.__new__(self.cls)
        count = sys.getrefcount(record)
        self.fails(ValueError, "set refused", [REGISTER, INIT], record.__init__, threading.get_ident())
        self.assertEqual(sys.getrefcount(record), count)
        self.cls._fPerThreadDict = {}
        self.assertIsNone(self.cls.GetPerThread(None, False))
        record.__init__(threading.get_ident())
        self.assertIs(self.cls.GetPerThread(None, False), record)

    def test_missing_registry_is_made_anew(self):
        del self.cls._fPerThreadDict
        record = self.cls(5)
        self.assertEqual(self.cls._fPerThreadDict, {5: record})

    def test_initialization_puts_initial_values_over_what_was_set_before(self):
        record = self.cls.__new__(self.cls)
        value = object()
        count = sys.getrefcount(value)
        record.fStopFrame = record.fSuspendLock = record.fSteppingCodeObjects = value
        record.fSteppingEventsNeeded = True
        record.fCheckSuspendLock = record.fExitingWithException = record.fDebugPolicy = 3
        record.__init__(5)
        self.assertEqual(sys.getrefcount(value), count)
        self.assertEqual((record.fStopFrame, record.fSteppingEventsNeeded, record.fCheckSuspendLock,
                          record.fExitingWithException, record.fDebugPolicy), (None, False, 0, 0, -1))


class NewRecordHookTest(PerThreadTestCase):
    def test_hook_gets_the_registered_record_alone(self):
        calls = []
        self.cls.SetNewPerThreadCreatedCallback(
            lambda *args, **kwargs: calls.append((args, kwargs, dict(self.cls._fPerThreadDict))))
        record = self.cls(5)
        self.assertEqual(calls, [((record,), {}, {5: record})])

    def test_hook_runs_once_for_a_thread(self):
        calls = []
        self.cls.SetNewPerThreadCreatedCallback(calls.append)
        record = self.cls.GetPerThread()
        self.cls.GetPerThread()
        self.assertEqual(calls, [record])

    def test_result_is_released(self):
        value = object()
        count = sys.getrefcount(value)
        self.cls.SetNewPerThreadCreatedCallback(lambda record: value)
        self.cls(5)
        self.assertEqual(sys.getrefcount(value), count)

    def test_raising_hook_leaves_the_record_registered(self):
        def hook(record):
            raise KeyError("hook")

        self.cls.SetNewPerThreadCreatedCallback(hook)
        self.fails(KeyError, "'hook'", [HOOK, INIT], self.cls, 5)
        self.assertEqual(list(self.cls._fPerThreadDict), [5])
        self.assertIs(self.cls.GetPerThread(5), self.cls._fPerThreadDict[5])

    def test_raising_hook_fails_the_look_up_that_makes_the_record_once(self):
        calls = []

        def hook(record):
            calls.append(record)
            raise ValueError("hook")

        self.cls.SetNewPerThreadCreatedCallback(hook)
        self.fails(ValueError, "hook", [HOOK, INIT, "Exception in CPerThread_SlowGetPerThread_direct ()\n",
                                        "Exception in CPerThread_GetPerThread()\n"], self.cls.GetPerThread)
        self.assertIs(self.cls.GetPerThread(), calls[0])
        self.assertEqual(len(calls), 1)

    def test_hook_that_is_not_callable(self):
        self.cls.SetNewPerThreadCreatedCallback(7)
        self.fails(TypeError, "'int' object is not callable", [HOOK, INIT], self.cls, 5)

    def test_missing_hook_attribute_is_a_failure(self):
        del self.cls._fNewPerThreadCreatedCallback
        self.fails(AttributeError, "type object 'optmonitoring.CPerThread' has no attribute "
                   "'_fNewPerThreadCreatedCallback'", [HOOK, INIT], self.cls, 5)

    def test_hook_may_look_its_record_up(self):
        found = []
        self.cls.SetNewPerThreadCreatedCallback(lambda record: found.append(self.cls.GetPerThread()))
        record = self.cls.GetPerThread()
        self.assertEqual(found, [record])

    def test_hook_may_make_another_record(self):
        def hook(record):
            if record.fThreadId < 10:
                self.cls(record.fThreadId + 1)

        self.cls.SetNewPerThreadCreatedCallback(hook)
        self.cls(5)
        self.assertEqual(list(self.cls._fPerThreadDict), [5, 6, 7, 8, 9, 10])

    def test_hook_may_reset_the_module(self):
        self.cls.SetNewPerThreadCreatedCallback(lambda record: self.om.reset())
        record = self.cls.GetPerThread()
        self.check_all_unset(record, OBJECT_MEMBERS)
        self.assertEqual(self.cls._fPerThreadDict, {})
        self.om.reset()
        self.assertIsNot(self.cls.GetPerThread(), record)

    def test_hook_may_replace_the_registry(self):
        def hook(record):
            self.cls._fPerThreadDict = {}

        self.cls.SetNewPerThreadCreatedCallback(hook)
        record = self.cls(5)
        self.assertEqual((record.fThreadId, self.cls._fPerThreadDict), (5, {}))

    def test_code_of_the_hook_is_not_monitored(self):
        seen = []

        def hook(record):
            seen.append("hook")

        def after():
            seen.append("after")

        def on_start(code, offset):
            if code.co_name in ("hook", "after"):
                seen.append("start of " + code.co_name)

        self.cls.SetNewPerThreadCreatedCallback(hook)
        with support.monitoring_tool({sys.monitoring.events.PY_START: on_start}, sys.monitoring.events.PY_START):
            self.cls(5)
            after()
        self.assertEqual(seen, ["hook", "start of after", "after"])

    def test_raising_hook_lowers_the_counter_too(self):
        seen = []

        def hook(record):
            raise ValueError("hook")

        def after():
            pass

        self.cls.SetNewPerThreadCreatedCallback(hook)
        with support.monitoring_tool({sys.monitoring.events.PY_START: lambda code, offset: seen.append(code.co_name)},
                                     sys.monitoring.events.PY_START):
            try:
                self.cls(5)
            except ValueError:
                after()
        self.assertNotIn("hook", seen)
        self.assertIn("after", seen)


class GetAllTest(PerThreadTestCase):
    def test_all_records_in_the_registrys_order(self):
        self.assertEqual(self.cls.GetAllPerThreads(), [])
        records = [self.cls(thread_id) for thread_id in (9, 3, 5)]
        self.assertEqual(self.cls.GetAllPerThreads(), records)

    def test_list_is_new(self):
        self.cls(5)
        first = self.cls.GetAllPerThreads()
        self.assertIs(type(first), list)
        first.clear()
        self.assertEqual(len(self.cls.GetAllPerThreads()), 1)

    def test_missing_registry_is_made_anew(self):
        del self.cls._fPerThreadDict
        self.assertEqual(self.cls.GetAllPerThreads(), [])
        self.assertEqual(self.cls.__dict__["_fPerThreadDict"], {})

    def test_registry_that_cannot_be_read(self):
        self.cls._fPerThreadDict = Raising()
        self.fails(ValueError, "cannot be read", ["Exception in CPerThread_GetAllPerThreads_direct()\n",
                                                  "Exception in CPerThread_GetAllPerThreads()\n"],
                   self.cls.GetAllPerThreads)
        self.fails(ValueError, "cannot be read", ["Exception in CPerThread_SetDebugPolicyCallback_direct()\n",
                                                  "Exception in CPerThread_SetDebugPolicyCallback()\n"],
                   self.cls.SetDebugPolicyCallback, None)

    def test_arguments_are_refused(self):
        self.fails(TypeError, "Excess positional arguments passed to function",
                   ["Exception in CPerThread_GetAllPerThreads()\n"], self.cls.GetAllPerThreads, 1)


class InstanceTest(PerThreadTestCase):
    def test_half_made_record_has_no_members_and_finds_no_name(self):
        record = self.cls.__new__(self.cls)
        self.check_all_unset(record, OBJECT_MEMBERS)
        self.assertEqual(record.fDebugPolicy, 0)
        self.assertEqual((record.GetDebugPolicy(), record.FindThreadName()), (0, 0))
        self.assertEqual(self.cls._fPerThreadDict, {})

    def test_half_made_record_asks_for_its_policy_without_an_id(self):
        calls = []
        self.cls.SetDebugPolicyCallback(lambda thread_id: calls.append(thread_id) or 2)
        record = self.cls.__new__(self.cls)
        record.fDebugPolicy = -1
        self.assertEqual(record.GetDebugPolicy(), 2)
        self.assertEqual(calls, [None])

    def test_subclass_instances(self):
        for number, cls in enumerate(self.subclasses(self.cls)):
            record = cls(number)
            self.assertIs(self.cls._fPerThreadDict[number], record)
            self.assertIs(self.cls.GetPerThread(number), record)
            self.assertIs(record.mod, self.om)
            self.assertEqual((record.GetDebugPolicy(), record.FindThreadName(), record.fThreadId), (1, 0, number))
            own = cls(threading.get_ident())
            self.assertIs(cls.GetPerThread(), own)
            self.check_all_unset(cls.__new__(cls), OBJECT_MEMBERS)

    def test_look_up_through_a_subclass_makes_a_plain_record(self):
        sub = type("Sub", (self.cls,), {})
        self.assertIs(type(sub.GetPerThread(5)), self.cls)

    def test_subclass_without_the_base_construction_is_half_made(self):
        sub = type("Sub", (self.cls,), {"__init__": lambda self: None})
        self.check_all_unset(sub(), OBJECT_MEMBERS)

    def test_subclass_instance_in_a_cycle_is_collected(self):
        for cls in self.subclasses(self.cls):
            if cls.__name__ == "EmptySlots" or cls.__name__ == "Slots":
                continue
            record = cls(5)
            record.me = record
            value = object()
            count = sys.getrefcount(value)
            record.fStopFrame = value
            before = support.total_instances(cls)
            self.cls._fPerThreadDict.clear()
            del record
            self.assertEqual(support.total_instances(cls), before - 1)
            self.assertEqual(sys.getrefcount(value), count)

    def test_death_releases_every_object_member(self):
        record = self.cls(5)
        names = WRITABLE
        values = [object() for _ in names]
        counts = [sys.getrefcount(value) for value in values]
        for index, name in enumerate(names):
            setattr(record, name, values[index])
        modules = sys.getrefcount(self.om)
        self.cls._fPerThreadDict.clear()
        del record
        self.assertEqual([sys.getrefcount(value) for value in values], counts)
        self.assertEqual(sys.getrefcount(self.om), modules - 1)

    def test_members_die_in_the_order_of_the_table(self):
        died = []

        class Witness(object):
            def __init__(self, name):
                self.name = name

            def __del__(self):
                died.append(self.name)

        record = self.cls(5)
        for name in WRITABLE:
            setattr(record, name, Witness(name))
        self.cls._fPerThreadDict.clear()
        del record
        self.assertEqual(died, list(WRITABLE))

    def test_death_keeps_a_pending_exception(self):
        record = self.cls(5)
        self.cls._fPerThreadDict.clear()

        def fail(record):
            raise ValueError("pending")

        with self.assertRaisesRegex(ValueError, "^pending$"):
            fail(self.cls(6) if self.cls._fPerThreadDict.clear() else record)

    def test_called_finalizer_of_a_record_that_its_capsule_holds_does_nothing(self):
        record = self.cls.GetPerThread()
        record.__del__()
        self.assertEqual(record.fThreadId, threading.get_ident())
        self.assertIs(self.cls.GetPerThread(), record)

    def test_called_finalizer_of_another_record_clears_it(self):
        record = self.cls(5)
        record.__del__()
        self.check_all_unset(record, OBJECT_MEMBERS)
        record.__del__()

    def test_records_made_and_dropped_leak_nothing(self):
        def make():
            self.cls(5)
            self.cls._fPerThreadDict.clear()

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_own_records_made_over_and_over_leak_nothing(self):
        before = support.total_instances(self.cls)
        support.assert_no_leak(self, lambda: self.cls(threading.get_ident()), 1000)
        self.om.reset()
        self.assertEqual(support.total_instances(self.cls), before)

    def test_failed_constructions_leak_nothing(self):
        def hook(record):
            raise ValueError("hook")

        def make():
            for argument in ("x", 5):
                try:
                    self.cls(argument)
                except (TypeError, ValueError):
                    pass
            self.cls._fPerThreadDict.clear()

        self.cls.SetNewPerThreadCreatedCallback(hook)
        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_policies_and_names_leak_nothing(self):
        def ask():
            self.cls.SetDebugPolicyCallback(lambda thread_id: 1)
            self.cls.SetGetThreadNameCallback(lambda record: "name")
            record = self.cls(5)
            record.GetDebugPolicy()
            record.FindThreadName()
            self.cls.GetAllPerThreads()

        support.assert_no_leak(self, ask, 1000)


if __name__ == "__main__":
    unittest.main()
