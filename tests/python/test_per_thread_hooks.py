"""The per-thread record: debug policy, thread name and the setters of the hooks."""

import unittest

import support
from record_support import FAILURES, INITIAL, Raising, immutable
from test_per_thread import PerThreadTestCase as _PerThreadTestCase


class DebugPolicyTest(_PerThreadTestCase):
    CHAIN = ["Exception in CPerThread_GetDebugPolicy_direct()\n", "Exception in CPerThread_GetDebugPolicy()\n"]

    def test_without_a_callback_the_policy_is_1_and_is_not_kept(self):
        record = self.cls(5)
        self.assertEqual(record.GetDebugPolicy(), 1)
        self.assertEqual(record.fDebugPolicy, -1)

    def test_callback_is_asked_once_with_the_thread_id(self):
        calls = []

        def policy(*args, **kwargs):
            calls.append((args, kwargs))
            return 7

        self.cls.SetDebugPolicyCallback(policy)
        record = self.cls(5)
        self.assertEqual((record.GetDebugPolicy(), record.GetDebugPolicy(), record.fDebugPolicy), (7, 7, 7))
        self.assertEqual(calls, [((5,), {})])

    def test_policy_0_is_kept(self):
        calls = []
        self.cls.SetDebugPolicyCallback(lambda thread_id: calls.append(thread_id) or 0)
        record = self.cls(5)
        self.assertEqual((record.GetDebugPolicy(), record.GetDebugPolicy()), (0, 0))
        self.assertEqual(calls, [5])

    def test_policy_minus_1_is_asked_again(self):
        calls = []

        def policy(thread_id):
            calls.append(thread_id)
            return -1

        self.cls.SetDebugPolicyCallback(policy)
        record = self.cls(5)
        self.assertEqual((record.GetDebugPolicy(), record.GetDebugPolicy()), (-1, -1))
        self.assertEqual(calls, [5, 5])

    def test_policy_set_by_the_host_is_returned_unasked(self):
        self.cls.SetDebugPolicyCallback(lambda thread_id: 1 // 0)
        record = self.cls(5)
        record.fDebugPolicy = 4
        self.assertEqual(record.GetDebugPolicy(), 4)

    def test_new_callback_makes_every_registered_record_ask_again(self):
        records = [self.cls(5), self.cls(6), self.cls.GetPerThread()]
        stray = self.cls(7)
        del self.cls._fPerThreadDict[7]
        for record in records + [stray]:
            record.fDebugPolicy = 3
        self.assertIsNone(self.cls.SetDebugPolicyCallback(lambda thread_id: 2))
        self.assertEqual([record.fDebugPolicy for record in records], [-1, -1, -1])
        self.assertEqual(stray.fDebugPolicy, 3)
        self.assertEqual([record.GetDebugPolicy() for record in records], [2, 2, 2])

    def test_callback_is_stored(self):
        def callback(thread_id):
            return 1

        self.cls.SetDebugPolicyCallback(callback)
        self.assertIs(self.cls._fDebugPolicyCallback, callback)
        self.cls.SetDebugPolicyCallback(callback=None)
        self.assertIsNone(self.cls._fDebugPolicyCallback)

    LOGGED = """
import support
optmonitoring = support.load()
cls = optmonitoring.CPerThread

class Policy(object):
    def __call__(self, thread_id):
        return 9

    def __repr__(self):
        return "<policy>"

if %r:
    optmonitoring.reset()
cls.SetDebugPolicyCallback(Policy())
record = cls(5)
with support.logging_to(256) as log:
    record.GetDebugPolicy()
    record.GetDebugPolicy()
print(log.getvalue())
"""

    def test_both_steps_are_logged(self):
        self.assertEqual(support.check_child(self, self.LOGGED % False), """\
CPerThread_GetDebugPolicy_direct(): calling <policy> (per_thread.fThreadId=5)
CPerThread_GetDebugPolicy_direct(): policy returned is 9 (per_thread.fThreadId=5)

""")

    def test_both_steps_are_logged_without_the_buffers_that_a_reset_drops(self):
        missing = "<error generating repr: no buffer available>"
        self.assertEqual(support.check_child(self, self.LOGGED % True), """\
CPerThread_GetDebugPolicy_direct(): calling get_dprintf_repr_str1() failure: _repr_str1 is NULL \
(per_thread.fThreadId=%s)
CPerThread_GetDebugPolicy_direct(): policy returned is 9 (per_thread.fThreadId=%s)

""" % (missing, missing))

    def test_nothing_is_logged_without_a_callback_or_its_channel(self):
        record = self.cls(5)
        with support.logging_to(INITIAL) as log:
            record.GetDebugPolicy()
        self.assertEqual(log.lines, [])
        self.cls.SetDebugPolicyCallback(lambda thread_id: 1)
        with support.logging_to(FAILURES) as log:
            record.GetDebugPolicy()
        self.assertEqual(log.lines, [])

    def test_missing_attribute_becomes_none(self):
        del self.cls._fDebugPolicyCallback
        record = self.cls(5)
        with support.logging_to(FAILURES) as log:
            self.assertEqual(record.GetDebugPolicy(), 1)
        self.assertEqual(log.lines, [])
        self.assertIsNone(self.cls.__dict__["_fDebugPolicyCallback"])

    def test_attribute_that_cannot_be_read(self):
        record = self.cls(5)
        self.cls._fDebugPolicyCallback = Raising()
        self.fails(ValueError, "cannot be read",
                   ["Exception in CPerThread_get_fDebugPolicyCallback()\n"] + self.CHAIN, record.GetDebugPolicy)

    def test_raising_callback(self):
        self.cls.SetDebugPolicyCallback(lambda thread_id: 1 // 0)
        record = self.cls(5)
        self.fails(ZeroDivisionError, support.DIVISION_BY_ZERO, self.CHAIN, record.GetDebugPolicy)
        self.assertEqual(record.fDebugPolicy, -1)

    def test_result_that_is_no_int(self):
        record = self.cls(5)
        for value in ("1", None, 1.0, []):
            self.cls.SetDebugPolicyCallback(lambda thread_id: value)
            self.fails(TypeError, "an integer is required", self.CHAIN, record.GetDebugPolicy)
        self.assertEqual(record.fDebugPolicy, -1)

    def test_result_out_of_range(self):
        record = self.cls(5)
        for value in (1 << 31, -(1 << 31) - 1):
            self.cls.SetDebugPolicyCallback(lambda thread_id: value)
            self.fails(OverflowError, "the debug policy does not fit into an int", self.CHAIN, record.GetDebugPolicy)
        self.cls.SetDebugPolicyCallback(lambda thread_id: 1 << 63)
        with self.assertRaises(OverflowError):
            record.GetDebugPolicy()
        self.assertEqual(record.fDebugPolicy, -1)

    def test_largest_results(self):
        record = self.cls(5)
        for value in ((1 << 31) - 1, -(1 << 31)):
            self.cls.SetDebugPolicyCallback(lambda thread_id: value)
            self.assertEqual(record.GetDebugPolicy(), value)

    def test_callback_may_replace_itself_and_reset_the_module(self):
        def policy(thread_id):
            self.om.reset()
            return 6

        self.cls.SetDebugPolicyCallback(policy)
        record = self.cls.GetPerThread()
        self.assertEqual(record.GetDebugPolicy(), 6)

    def test_arguments_are_refused(self):
        record = self.cls(5)
        self.fails(TypeError, "Excess positional arguments passed to function", self.CHAIN[1:],
                   record.GetDebugPolicy, 1)
        self.fails(TypeError, "Excess keyword arguments passed to function", self.CHAIN[1:],
                   record.GetDebugPolicy, a=1)


class ThreadNameTest(_PerThreadTestCase):
    CHAIN = ["Exception in CPerThread_FindThreadName_direct()\n", "Exception in CPerThread_FindThreadName()\n"]

    def test_without_a_callback_the_name_stays_none(self):
        record = self.cls(5)
        result = record.FindThreadName()
        self.assertEqual((result, type(result), record.fThreadName), (0, int, None))

    def test_callback_is_asked_with_the_record_until_there_is_a_name(self):
        calls, names = [], [None, "worker"]

        def name(*args, **kwargs):
            calls.append((args, kwargs))
            return names[len(calls) - 1]

        self.assertIsNone(self.cls.SetGetThreadNameCallback(name))
        self.assertIs(self.cls._fGetThreadNameCallback, name)
        record = self.cls(5)
        for expected in (None, "worker", "worker"):
            self.assertEqual(record.FindThreadName(), 0)
            self.assertEqual(record.fThreadName, expected)
        self.assertEqual(calls, [((record,), {})] * 2)

    def test_name_may_be_any_object(self):
        name = object()
        self.cls.SetGetThreadNameCallback(lambda record: name)
        record = self.cls(5)
        record.FindThreadName()
        self.assertIs(record.fThreadName, name)

    def test_raising_callback(self):
        def hook(record):
            raise ValueError("no name")

        self.cls.SetGetThreadNameCallback(hook)
        record = self.cls(5)
        self.fails(ValueError, "no name", self.CHAIN, record.FindThreadName)
        self.assertIsNone(record.fThreadName)

    def test_missing_attribute_is_a_failure(self):
        del self.cls._fGetThreadNameCallback
        self.fails(AttributeError, "type object 'optmonitoring.CPerThread' has no attribute '_fGetThreadNameCallback'",
                   self.CHAIN, self.cls(5).FindThreadName)

    def test_arguments_are_refused(self):
        self.fails(TypeError, "Excess positional arguments passed to function", self.CHAIN[1:],
                   self.cls(5).FindThreadName, 1)

    def test_callback_may_discard_the_record(self):
        self.cls.SetGetThreadNameCallback(lambda record: self.om.reset() or "late")
        record = self.cls.GetPerThread()
        self.assertEqual(record.FindThreadName(), 0)
        self.assertEqual(record.fThreadName, "late")


class SetterTest(_PerThreadTestCase):
    ATTRIBUTES = (("SetNewPerThreadCreatedCallback", "_fNewPerThreadCreatedCallback"),
                  ("SetGetThreadNameCallback", "_fGetThreadNameCallback"),
                  ("SetDebugPolicyCallback", "_fDebugPolicyCallback"))

    def test_failure_texts_of_the_class_methods(self):
        for name, args in (("SetDebugPolicyCallback", ()), ("SetNewPerThreadCreatedCallback", ()),
                           ("SetGetThreadNameCallback", ())):
            self.fails(TypeError, "argument is missing", ["Exception in CPerThread_%s()\n" % name],
                       getattr(self.cls, name), *args)
            self.fails(TypeError, "Excess positional arguments passed to function",
                       ["Exception in CPerThread_%s()\n" % name], getattr(self.cls, name), None, None)

    def test_class_that_takes_no_attributes(self):
        for name, attribute in self.ATTRIBUTES:
            with immutable(self.cls):
                self.fails(TypeError, "cannot set %r attribute of immutable type 'optmonitoring.CPerThread'" % attribute,
                           ["Exception in CPerThread_%s_direct()\n" % name, "Exception in CPerThread_%s()\n" % name],
                           getattr(self.cls, name), None)

    def test_policy_setter_stumbles_over_a_wrong_registry_entry(self):
        self.cls._fPerThreadDict[5] = "no record"
        self.fails(TypeError, "the object is not a CPerThread",
                   ["Exception in CPerThread_SetDebugPolicyCallback_direct()\n",
                    "Exception in CPerThread_SetDebugPolicyCallback()\n"], self.cls.SetDebugPolicyCallback, None)

    def test_setters_take_any_object(self):
        for name, attribute in self.ATTRIBUTES:
            for value in (3, None):
                self.assertIsNone(getattr(self.cls, name)(callback=value))
                self.assertEqual(getattr(self.cls, attribute), value)

    def test_setters_of_a_subclass_and_of_an_instance_set_the_class(self):
        sub = type("Sub", (self.cls,), {})
        sub.SetGetThreadNameCallback(3)
        self.assertEqual(self.cls.__dict__["_fGetThreadNameCallback"], 3)
        self.assertNotIn("_fGetThreadNameCallback", sub.__dict__)
        self.cls(5).SetGetThreadNameCallback(4)
        self.assertEqual(self.cls._fGetThreadNameCallback, 4)


if __name__ == "__main__":
    unittest.main()
