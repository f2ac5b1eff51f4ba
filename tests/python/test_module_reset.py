"""reset(), and what happens when the interpreter takes the module apart."""

import gc
import os
import sys
import threading
import unittest

import support

if hasattr(sys, "monitoring"):
    import state
    from unittest import mock
    from state import CLASSES, EVENT_CONSTANTS
    optmonitoring = support.load()
    import brixbase.dlog


def new_code(filename="<reset>"):
    return compile("pass", filename, "exec")


@support.needs_monitoring
class ResetTest(unittest.TestCase):
    """reset() step by step."""

    def setUp(self):
        self.state = state.state_of(optmonitoring)
        self.addCleanup(self.restore)
        optmonitoring.reset()

    def restore(self):
        optmonitoring.SetInternalPathnameDict({})
        optmonitoring.set_dprintf_file(None, -1, 0)
        optmonitoring.reset()

    def test_returns_none_any_number_of_times(self):
        self.assertEqual([optmonitoring.reset() for _ in range(3)], [None] * 3)

    def test_mask_is_zero_afterwards(self):
        with support.logging_to(support.DEFAULT_MASK) as log:
            self.assertEqual(support.get_mask(), support.DEFAULT_MASK)
            optmonitoring.reset()
            optmonitoring.set_dprintf_file(log, -1, 0)
            self.assertEqual(support.get_mask(), 0)

    def test_log_file_of_the_module_is_dropped(self):
        with support.logging_to(support.DEFAULT_MASK) as log:
            count = sys.getrefcount(log)
            optmonitoring.reset()
            self.assertEqual(sys.getrefcount(log), count - 1)       # the process-wide state keeps its own
            optmonitoring.set_dprintf_mask(support.DEFAULT_MASK)
            with self.assertRaises(TypeError):
                optmonitoring.GetPathnameKind()
            self.assertEqual(log.events, [])

    def test_pid_is_brought_up_to_date(self):
        self.state._gThisProcessPid = 1
        optmonitoring.reset()
        self.assertEqual(self.state._gThisProcessPid, os.getpid())

    def test_file_tables_are_new(self):
        optmonitoring.register_canonical_pathname("/reset/a.py", "sum")
        optmonitoring.set_checksum_callback(len)
        self.assertEqual(optmonitoring.lookup_canonical_pathname("/reset/b.py", "sum"), "/reset/a.py")
        optmonitoring.reset()
        self.assertIsNone(optmonitoring.lookup_canonical_pathname("/reset/a.py", "sum"))
        self.assertIsNone(optmonitoring.get_checksum_callback())

    def test_internal_pathname_table_is_emptied_and_stays(self):
        table = {"/reset/a.py": 1}
        optmonitoring.SetInternalPathnameDict(table)
        optmonitoring.reset()
        self.assertEqual(table, {})
        self.assertEqual(self.state._gInternalPathnameDict, id(table))

    def test_clear_of_the_internal_pathname_table_may_be_any_method(self):
        table = mock.Mock()
        optmonitoring.SetInternalPathnameDict(table)
        optmonitoring.reset()
        self.assertEqual(table.mock_calls, [mock.call.clear()])

    def test_registries_are_emptied_in_place_and_hooks_removed(self):
        m = optmonitoring
        registries = [m.CPerFile._fPerFilesDict, m.CPerFile._fByChecksum, m.CPerCodeObject._fPerCodeObjectDict,
                      m.CPerThread._fPerThreadDict]
        for registry in registries:
            registry["key"] = "value"
        hooks = [(m.CPerFile, "_fNewPerFileCreatedCallback"),
                 (m.CPerCodeObject, "_fNewPerCodeObjectCreatedCallback"), (m.CPerThread, "_fDebugPolicyCallback"),
                 (m.CPerThread, "_fNewPerThreadCreatedCallback"), (m.CPerThread, "_fGetThreadNameCallback")]
        for cls, name in hooks:
            setattr(cls, name, len)
        m.reset()
        self.assertEqual(registries, [{}] * 4)
        self.assertIs(m.CPerFile._fPerFilesDict, registries[0])
        self.assertIs(m.CPerFile._fByChecksum, registries[1])
        self.assertIs(m.CPerCodeObject._fPerCodeObjectDict, registries[2])
        self.assertIs(m.CPerThread._fPerThreadDict, registries[3])
        self.assertEqual([getattr(cls, name) for cls, name in hooks], [None] * 5)

    def test_current_thread_loses_its_record_and_its_capsule(self):
        record = optmonitoring.CPerThread.GetPerThread()
        key = state.object_at(self.state._gThreadStateDictKey)
        self.assertIn(key, state.thread_dict())
        optmonitoring.reset()
        self.assertNotIn(key, state.thread_dict())
        self.assertEqual(optmonitoring.CPerThread._fPerThreadDict, {})
        self.assertIsNot(optmonitoring.CPerThread.GetPerThread(), record)

    def test_capsule_that_is_already_gone_is_ignored(self):
        optmonitoring.CPerThread.GetPerThread()
        del state.thread_dict()[state.object_at(self.state._gThreadStateDictKey)]
        self.assertIsNone(optmonitoring.reset())

    def test_the_rest_of_the_state_stays(self):
        names = EVENT_CONSTANTS + CLASSES + ["code_object_extra_index", "_gPyTssKey", "_Log", "_LogException",
                                             "monitoring_disabled", "threading_mod", "dp", "_gInternalPathnameDict",
                                             "save_and_restore_errno", "_gThreadStateDictKey"]
        before = {name: getattr(self.state, name) for name in names}
        optmonitoring.reset()
        self.assertEqual({name: getattr(self.state, name) for name in names}, before)

    def test_records_stay_attached_to_their_code_objects(self):
        code = new_code()
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code)
        optmonitoring.reset()
        self.assertEqual(optmonitoring.CPerCodeObject._fPerCodeObjectDict, {})
        self.assertIs(optmonitoring.CPerCodeObject.GetPerCodeObject(code), record)

    def test_failure_stops_at_its_step_after_logging_was_switched_off(self):
        optmonitoring.SetInternalPathnameDict(None)
        optmonitoring.CPerFile._fPerFilesDict["key"] = "value"
        optmonitoring.register_canonical_pathname("/reset/a.py")
        self.state._gThisProcessPid = 1
        with support.logging_to(support.DEFAULT_MASK) as log:
            with self.assertRaises(AttributeError) as caught:
                optmonitoring.reset()
            self.assertEqual(log.events, [])
        self.assertEqual(str(caught.exception), "'NoneType' object has no attribute 'clear'")
        self.assertEqual(self.state._gThisProcessPid, os.getpid())
        self.assertIsNone(optmonitoring.lookup_canonical_pathname("/reset/a.py"))
        self.assertEqual(optmonitoring.CPerFile._fPerFilesDict, {"key": "value"})

    def test_takes_no_arguments_and_then_resets_nothing(self):
        for call, message in [(lambda: optmonitoring.reset(1), "Excess positional arguments passed to function"),
                              (lambda: optmonitoring.reset(a=1), "Excess keyword arguments passed to function")]:
            optmonitoring.CPerFile._fPerFilesDict["key"] = "value"
            with support.logging_to(support.DEFAULT_MASK) as log:
                with self.assertRaises(TypeError) as caught:
                    call()
            self.assertEqual(str(caught.exception), message)
            self.assertEqual(log.lines, ["Exception in optmonitoring_reset\n", support.HEAD_LINE,
                                         "TypeError: %s\n" % message])
            self.assertEqual(optmonitoring.CPerFile._fPerFilesDict, {"key": "value"})

    def test_does_not_leak(self):
        def use_and_reset():
            optmonitoring.CPerThread.GetPerThread()
            optmonitoring.register_canonical_pathname("/reset/a.py", "sum")
            optmonitoring.set_checksum_callback(len)
            optmonitoring.reset()

        support.assert_no_leak(self, use_and_reset)


@support.needs_monitoring
class ClearTest(unittest.TestCase):
    """What happens when the interpreter takes the module apart."""

    def test_everything_owned_is_released(self):
        gc.collect()        # garbage of other tests holds references too, until it is collected
        owned = [brixbase.dlog.Log, brixbase.dlog.LogException, threading]
        before = [sys.getrefcount(obj) for obj in owned]
        module = state.new_module()
        classes = [getattr(module, name) for name in CLASSES]
        with_module = [sys.getrefcount(cls) for cls in classes]
        for name in CLASSES:
            delattr(module, name)
        self.assertEqual(state.clear_module(module), 0)
        left = state.state_of(module)
        self.assertEqual({name: getattr(left, name) for name in state.POINTERS}, dict.fromkeys(state.POINTERS))
        self.assertEqual([sys.getrefcount(obj) for obj in owned], before)
        self.assertEqual([sys.getrefcount(cls) for cls in classes], [count - 2 for count in with_module])

    def test_numbers_stay(self):
        module = state.new_module()
        numbers = [name for name, _ in state.ModuleState._fields_ if name not in state.POINTERS]
        before = [getattr(state.state_of(module), name) for name in numbers]
        state.clear_module(module)
        self.assertEqual([getattr(state.state_of(module), name) for name in numbers], before)

    def test_says_so_on_the_core_channel(self):
        for mask, expected in [(optmonitoring.kLogCore, ["In optmonitoring_mod_clear\n"]),
                               (support.DEFAULT_MASK, ["In optmonitoring_mod_clear\n"]),
                               (~optmonitoring.kLogCore & 1023 & ~optmonitoring.kLogFilenames, [])]:
            module = state.new_module()
            with support.logging_to(0) as log:
                module.set_dprintf_file(log, -1, 0)
                module.set_dprintf_mask(mask)
                state.clear_module(module)
                self.assertEqual(log.lines, expected, mask)

    def test_file_tables_go_while_the_log_still_exists(self):
        module = state.new_module()
        with support.logging_to(0) as log:
            module.set_dprintf_file(log, -1, 0)
            module.set_dprintf_mask(optmonitoring.kLogCore | optmonitoring.kLogFilenames)
            count = sys.getrefcount(log)
            state.clear_module(module)
            self.assertEqual(log.lines, ["In optmonitoring_mod_clear\n", "In destroy_file_ops_data()\n"])
            self.assertEqual(sys.getrefcount(log), count - 1)

    def test_clearing_twice_is_harmless(self):
        module = state.new_module()
        self.assertEqual([state.clear_module(module), state.clear_module(module)], [0, 0])

    def test_keeps_an_unreachable_module_alive_as_its_state_is_not_traversed(self):
        # the table's count shows that the state still holds it
        out = support.check_child(self, """
import gc, sys, support
m = support.load()
import state
marker = {}
m.SetInternalPathnameDict(marker)
count = sys.getrefcount(marker)
del sys.modules["optmonitoring"], m
gc.collect()
print(count - sys.getrefcount(marker))
""")
        self.assertEqual(out, "0\n")

    def test_functions_of_a_cleared_module_do_not_crash(self):
        out = support.check_child(self, """
import sys, support
support.load()
import state
m = state.new_module()
calls = [(getattr(m, name), arguments) for name, arguments in [
    ("lookup_canonical_pathname", ("/a.py",)), ("register_canonical_pathname", ("/a.py",)),
    ("get_canonical_pathname", ("/a.py",)), ("set_dprintf_file", (None, -1, 0)), ("set_dprintf_mask", (4,)),
    ("get_dprintf_mask", ()), ("dprintf", (4, "text")), ("set_checksum_callback", (len,)),
    ("get_checksum_callback", ()), ("IsInternalFrame", (sys._getframe(),)), ("GetNonInternalFrame", ()),
    ("GetPathnameKind", ("/a.py",)), ("UpdateThisProcessPid", ()), ("AddToThreadStateTracing", (0,)),
    ("reset", ()), ("SetInternalPathnameDict", ({},))]]
state.clear_module(m)
for function, arguments in calls:
    try:
        result = function(*arguments)
    except Exception as e:
        result = type(e).__name__
        if "reset()" in str(e):         # which refuses as well
            result = str(e)
    print(function.__name__, result)
""")
        self.assertEqual(out.splitlines(), [
            "lookup_canonical_pathname RuntimeError", "register_canonical_pathname RuntimeError",
            "get_canonical_pathname RuntimeError", "set_dprintf_file RuntimeError", "set_dprintf_mask RuntimeError",
            "get_dprintf_mask TypeError", "dprintf None", "set_checksum_callback RuntimeError",
            "get_checksum_callback RuntimeError", "IsInternalFrame RuntimeError", "GetNonInternalFrame None",
            "GetPathnameKind 0", "UpdateThisProcessPid None", "AddToThreadStateTracing None", "reset RuntimeError",
            "SetInternalPathnameDict None"])


if __name__ == "__main__":
    unittest.main()
