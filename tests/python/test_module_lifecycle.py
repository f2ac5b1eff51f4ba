"""The module's definition, its state, its exec step and its functions on process and thread."""

import _imp
import ctypes
import os
import sys
import threading
import types
import unittest

import support

if hasattr(sys, "monitoring"):
    import state
    from unittest import mock
    from state import CLASSES, CONSTANTS, EVENT_CONSTANTS, EVENTS
    optmonitoring = support.load()
    import brixbase.dlog

TEXT_A = ("Set the dprintf file. Args are (file_obj, fileno, win32_handle), Invalid fileno is -1; "
          "invalid win32_handle is 0")
TEXT_B = "Set the dprintf mask -- use bitwise or'd (|'d) kLog* constants"
TEXT_C = ("dprintf(domain: int, s: str | callable) -- writes s to dprintf log if enabled for given domain. The s arg "
          "mayy be a callback to be called if domain is enabled; callable will be called w/o args and needs to "
          "return a str")
METHODS = [
    ("lookup_canonical_pathname", 0x3, None),
    ("register_canonical_pathname", 0x3, None),
    ("set_dprintf_file", 0x1, TEXT_A),
    ("set_dprintf_mask", 0x1, TEXT_B),
    ("get_dprintf_mask", 0x1, TEXT_B),
    ("dprintf", 0x3, TEXT_C),
    ("get_canonical_pathname", 0x3, None),
    ("set_checksum_callback", 0x3, None),
    ("get_checksum_callback", 0x3, None),
    ("SetInternalPathnameDict", 0x82, None),
    ("IsInternalFrame", 0x82, None),
    ("GetNonInternalFrame", 0x82, None),
    ("GetPathnameKind", 0x82, None),
    ("UpdateThisProcessPid", 0x82, None),
    ("AddToThreadStateTracing", 0x82, None),
    ("reset", 0x82, None),
]


@support.needs_monitoring
class DefinitionTest(unittest.TestCase):
    """The definition that the interpreter was given."""

    def setUp(self):
        self.definition = state.definition_of(optmonitoring)

    def test_name_is_optmonitoring_and_there_is_no_doc(self):
        self.assertEqual(self.definition.name, b"optmonitoring")
        self.assertIsNone(self.definition.doc)
        self.assertEqual(optmonitoring.__name__, "optmonitoring")
        self.assertIsNone(optmonitoring.__doc__)

    def test_size_is_that_of_the_state(self):
        self.assertEqual(self.definition.size, ctypes.sizeof(state.ModuleState))

    def test_only_clear_of_the_collector_functions_is_set(self):
        self.assertIsNone(self.definition.traverse)
        self.assertIsNotNone(self.definition.clear)
        self.assertIsNone(self.definition.free)

    def test_slots_are_exec_the_lock_and_no_support_for_further_interpreters(self):
        slots = self.definition.slots
        self.assertEqual(slots[0].id, 2)
        self.assertIsNotNone(slots[0].value)
        rest = [(4, 1)] if support.CAN_DO_WITHOUT_LOCK else []      # the lock is not used
        rest += [(3, None), (0, None)]
        self.assertEqual([(slots[n].id, slots[n].value) for n in range(1, 1 + len(rest))], rest)

    def test_method_table_in_order_with_flags_and_docs(self):
        found = []
        for method in self.definition.methods:
            if method.name is None:
                break
            doc = method.doc.decode() if method.doc else None
            found.append((method.name.decode(), method.flags, doc))
        self.assertEqual(found, METHODS)

    def test_docs_of_the_functions(self):
        for name, _, doc in METHODS:
            self.assertEqual(getattr(optmonitoring, name).__doc__, doc, name)

    def test_keeps_the_setters_doc_on_get_dprintf_mask(self):
        self.assertEqual(optmonitoring.get_dprintf_mask.__doc__, optmonitoring.set_dprintf_mask.__doc__)

    def test_keeps_mayy_in_the_doc_of_dprintf(self):
        self.assertIn("The s arg mayy be a callback", optmonitoring.dprintf.__doc__)

    def test_both_entry_points_are_exported(self):
        library = support.library()
        library.PyInit_optmonitoring.restype = ctypes.c_void_p     # borrowed
        definition = state.object_at(library.PyInit_optmonitoring())
        self.assertEqual(type(definition).__name__, "moduledef")
        self.assertIs(state.object_at(library.PyInit_optmonitoring()), definition)     # definitions are never freed
        library.initoptmonitoring.restype = None
        self.assertIsNone(library.initoptmonitoring())

    def test_second_start_does_not_add_the_object_head_again(self):
        library = support.library()
        library.PyInit_optmonitoring.restype = ctypes.c_void_p     # borrowed
        library.PyInit_optmonitoring()
        other = state.new_module()
        for name in CLASSES:
            self.assertEqual(getattr(other, name).__basicsize__, getattr(optmonitoring, name).__basicsize__, name)
        self.assertIsNot(other.CPerFile, optmonitoring.CPerFile)
        record = other.CPerFile.GetPerFile("/lifecycle/second.py", True)
        self.assertEqual(record.fCanonicalPathname, "/lifecycle/second.py")


@support.needs_monitoring
class PublishedTest(unittest.TestCase):
    """What exec puts into the module and the classes."""

    def setUp(self):
        optmonitoring.reset()

    def test_constants_have_their_values(self):
        for name, value in CONSTANTS:
            self.assertIs(type(getattr(optmonitoring, name)), int, name)
            self.assertEqual(getattr(optmonitoring, name), value, name)

    def test_no_other_constants_are_published(self):
        published = {name for name in vars(optmonitoring) if name.startswith("k")}
        self.assertEqual(published, {name for name, _ in CONSTANTS} | set(EVENT_CONSTANTS))

    def test_pathname_kinds_1_and_2_are_not_used(self):
        kinds = [value for name, value in vars(optmonitoring).items() if name.endswith("Pathname") and name[0] == "k"]
        self.assertEqual(sorted(kinds), [0, 3, 4, 5])

    def test_attributes_are_set_in_order(self):
        expected = EVENT_CONSTANTS + CLASSES + [name for name, _ in CONSTANTS]
        self.assertEqual([name for name in vars(optmonitoring) if name in set(expected)], expected)

    def test_event_ids_are_those_of_the_interpreter(self):
        for name, constant in zip(EVENTS, EVENT_CONSTANTS):
            self.assertEqual(getattr(optmonitoring, constant), getattr(sys.monitoring.events, name))

    def test_classes_are_plain_base_types(self):
        py_tpflags_basetype, py_tpflags_have_gc, py_tpflags_heaptype = 1 << 10, 1 << 14, 1 << 9
        for name in CLASSES:
            cls = getattr(optmonitoring, name)
            self.assertEqual((cls.__module__, cls.__qualname__, cls.__bases__), ("optmonitoring", name, (object,)))
            self.assertEqual(cls.__itemsize__, 0)
            wanted = py_tpflags_basetype | py_tpflags_heaptype
            self.assertEqual(cls.__flags__ & (wanted | py_tpflags_have_gc), wanted)

    def test_sizes_of_instances_are_head_and_body(self):
        head = object.__basicsize__
        sizes = {name: getattr(optmonitoring, name).__basicsize__ - head for name in CLASSES}
        held_lines = 8 if support.is_lock_off() else 0      # behind the body, for events that take no lock
        self.assertEqual(sizes, {"CInitialCallback": 48, "CPerCodeObject": 64 + held_lines, "CPerFile": 32, "CPerThread": 136})

    def test_class_attributes_have_their_initial_values(self):
        other = state.new_module()
        for module in (other, optmonitoring):          # the second one as reset() leaves it
            for cls, dicts, hooks in [
                    (module.CPerCodeObject, ["_fPerCodeObjectDict"], ["_fNewPerCodeObjectCreatedCallback"]),
                    (module.CPerFile, ["_fPerFilesDict", "_fByChecksum"], ["_fNewPerFileCreatedCallback"]),
                    (module.CPerThread, ["_fPerThreadDict"],
                     ["_fDebugPolicyCallback", "_fNewPerThreadCreatedCallback", "_fGetThreadNameCallback"])]:
                found = {name: value for name, value in vars(cls).items() if name.startswith("_f")}
                expected = {name: {} for name in dicts}
                expected.update(dict.fromkeys(hooks))
                self.assertEqual(found, expected)

    def test_a_missing_thread_dict_is_made_anew(self):
        old = optmonitoring.CPerThread._fPerThreadDict
        del optmonitoring.CPerThread._fPerThreadDict
        record = optmonitoring.CPerThread.GetPerThread()
        made = optmonitoring.CPerThread._fPerThreadDict
        self.assertIsNot(made, old)
        self.assertEqual(made, {threading.get_ident(): record})
        del optmonitoring.CPerThread._fPerThreadDict
        optmonitoring.reset()
        self.assertEqual(optmonitoring.CPerThread._fPerThreadDict, {})


@support.needs_monitoring
class StateTest(unittest.TestCase):
    """The state block after exec."""

    @classmethod
    def setUpClass(cls):
        cls.module = state.new_module()
        cls.state = state.state_of(cls.module)

    def holds(self, field, obj):
        self.assertEqual(getattr(self.state, field), id(obj), field)

    def test_event_ids(self):
        for name, field in zip(EVENTS, EVENT_CONSTANTS):
            self.assertEqual(getattr(self.state, field), getattr(sys.monitoring.events, name))

    def test_classes(self):
        for name in CLASSES:
            self.holds(name, getattr(self.module, name))

    def test_objects_of_the_interpreter_and_the_host(self):
        self.holds("monitoring_disabled", sys.monitoring.DISABLE)
        self.holds("threading_mod", threading)
        self.holds("_Log", brixbase.dlog.Log)
        self.holds("_LogException", brixbase.dlog.LogException)

    def test_log_and_file_tables_exist(self):
        self.assertIsNotNone(self.state.dp)
        self.assertIsNotNone(self.state.file_ops_data)

    def test_internal_pathname_dict_is_empty(self):
        table = state.object_at(self.state._gInternalPathnameDict)
        self.assertIs(type(table), dict)
        self.assertEqual(table, {})

    def test_errno_is_preserved_and_the_pid_is_this_process(self):
        self.assertEqual(self.state.save_and_restore_errno, 1)
        self.assertEqual(self.state._gThisProcessPid, os.getpid())

    def test_storage_key_exists(self):
        is_created = ctypes.pythonapi.PyThread_tss_is_created
        is_created.argtypes = [ctypes.c_void_p]
        self.assertEqual(is_created(self.state._gPyTssKey), 1)

    def test_thread_state_dict_key_is_a_fresh_object(self):
        key = state.object_at(self.state._gThreadStateDictKey)
        self.assertIs(type(key), object)
        self.assertNotEqual(self.state._gThreadStateDictKey, state.state_of(optmonitoring)._gThreadStateDictKey)

    def test_each_copy_of_the_module_takes_an_extra_index_of_its_own(self):
        first = state.state_of(optmonitoring).code_object_extra_index
        self.assertGreaterEqual(first, 0)
        self.assertGreater(self.state.code_object_extra_index, first)


class Event(int):
    """An event id that can be distinguished from every other int."""


class FakeMonitoring(object):
    """Stands for sys.monitoring and notes what is read."""

    def __init__(self, **replaced):
        self.read = []
        self.values = {name: Event(1000 + i) for i, name in enumerate(EVENTS)}
        self.values.update(replaced)
        self.off = object()

    @property
    def DISABLE(self):
        self.read.append("DISABLE")
        return self.off

    @property
    def events(self):
        self.read.append("events")
        return self

    def __getattr__(self, name):
        self.read.append(name)
        try:
            return self.values[name]
        except KeyError:
            raise AttributeError("no event " + name)


class PartialDlog(types.ModuleType):
    """A host log without one of its functions."""


@support.needs_monitoring
class ExecTest(unittest.TestCase):
    """The steps of exec, their order and their failures."""

    def execute(self, monitoring):
        module = state.create_module()
        with mock.patch.object(sys, "monitoring", monitoring):
            _imp.exec_dynamic(module)
        return module

    def fails(self, exception, monitoring=None, message=None):
        """The names that a failing exec has set in the module; nothing may be left in the state."""
        module = state.create_module()
        before = set(vars(module))
        with mock.patch.object(sys, "monitoring", monitoring or sys.monitoring):
            with self.assertRaises(exception) as caught:
                _imp.exec_dynamic(module)
        if message is not None:
            self.assertEqual(str(caught.exception), message)
        left = state.state_of(module)
        self.assertEqual({name: getattr(left, name) for name in state.POINTERS}, dict.fromkeys(state.POINTERS))
        return [name for name in vars(module) if name not in before]

    def test_without_sys_monitoring(self):
        module = state.create_module()
        kept = sys.monitoring
        del sys.monitoring
        try:
            with self.assertRaises(AttributeError) as caught:
                _imp.exec_dynamic(module)
        finally:
            sys.monitoring = kept
        self.assertEqual(str(caught.exception), "No sys.monitoring attribute")

    def test_module_attributes_are_the_very_event_objects(self):
        fake = FakeMonitoring()
        module = self.execute(fake)
        for name, constant in zip(EVENTS, EVENT_CONSTANTS):
            self.assertIs(getattr(module, constant), fake.values[name])
            self.assertEqual(getattr(state.state_of(module), constant), int(fake.values[name]))
        self.assertEqual(state.state_of(module).monitoring_disabled, id(fake.off))

    def test_monitoring_is_read_in_order(self):
        fake = FakeMonitoring()
        self.execute(fake)
        self.assertEqual(fake.read, ["DISABLE", "events"] + EVENTS)

    def test_monitoring_and_events_are_released(self):
        fake = FakeMonitoring()
        count = sys.getrefcount(fake)
        self.execute(fake)
        self.assertEqual(sys.getrefcount(fake), count)

    def test_event_id_minus_one_is_a_value(self):
        module = self.execute(FakeMonitoring(PY_YIELD=Event(-1)))
        self.assertEqual(state.state_of(module).kPyYieldEventId, -1)

    def test_missing_disable(self):
        self.assertEqual(self.fails(AttributeError, types.SimpleNamespace(events=None)), [])

    def test_missing_events(self):
        self.assertEqual(self.fails(AttributeError, types.SimpleNamespace(DISABLE=None)), [])

    def test_missing_event(self):
        fake = FakeMonitoring()
        del fake.values["PY_RETURN"]
        self.assertEqual(self.fails(AttributeError, fake, "no event PY_RETURN"), EVENT_CONSTANTS[:2])

    def test_event_that_is_no_int(self):
        self.assertEqual(self.fails(TypeError, FakeMonitoring(PY_RESUME="2")), EVENT_CONSTANTS[:4])

    def test_threading_that_cannot_be_imported(self):
        with mock.patch.dict(sys.modules, {"threading": None}):
            self.assertEqual(self.fails(ImportError), EVENT_CONSTANTS)

    def test_builtins_without_object(self):
        builtins = dict(vars(__import__("builtins")))
        del builtins["object"]
        globals_ = {"__builtins__": builtins, "exec_dynamic": _imp.exec_dynamic}
        module = state.create_module()
        before = set(vars(module))
        with self.assertRaises(RuntimeError):
            exec("exec_dynamic(module)", globals_, {"module": module})
        self.assertEqual([name for name in vars(module) if name not in before], EVENT_CONSTANTS + CLASSES[:3])

    def test_object_of_the_builtins_is_called_for_the_key(self):
        marker = Event(7)
        globals_ = {"__builtins__": dict(vars(__import__("builtins")), object=lambda: marker),
                    "exec_dynamic": _imp.exec_dynamic}
        module = state.create_module()
        exec("exec_dynamic(module)", globals_, {"module": module})
        self.assertEqual(state.state_of(module)._gThreadStateDictKey, id(marker))

    def test_host_log_is_imported_after_the_constants(self):
        with mock.patch.dict(sys.modules, {"brixbase.dlog": None}):
            made = self.fails(ImportError)
        self.assertEqual(made, EVENT_CONSTANTS + CLASSES + [name for name, _ in CONSTANTS])

    def test_host_log_without_log(self):
        partial = PartialDlog("brixbase.dlog")
        partial.LogException = None
        with mock.patch.dict(sys.modules, {"brixbase.dlog": partial}):
            self.fails(AttributeError, message="module 'brixbase.dlog' has no attribute 'Log'")

    def test_host_log_without_log_exception(self):
        partial = PartialDlog("brixbase.dlog")
        partial.Log = Event(1)
        count = sys.getrefcount(partial.Log)
        with mock.patch.dict(sys.modules, {"brixbase.dlog": partial}):
            self.fails(AttributeError, message="module 'brixbase.dlog' has no attribute 'LogException'")
        self.assertEqual(sys.getrefcount(partial.Log), count)

    def test_any_two_attributes_suffice_as_host_log(self):
        partial = PartialDlog("brixbase.dlog")
        partial.Log = partial.LogException = Event(1)
        count = sys.getrefcount(partial)
        with mock.patch.dict(sys.modules, {"brixbase.dlog": partial}):
            module = state.new_module()
        self.assertEqual(state.state_of(module)._Log, id(partial.Log))
        self.assertEqual(sys.getrefcount(partial), count)

    def test_failing_exec_does_not_leak(self):
        broken = types.SimpleNamespace(DISABLE=None)

        def fail():
            self.fails(AttributeError, broken)

        # the definition of each attempt stays allocated, outside the interpreter's blocks
        support.assert_no_leak(self, fail, count=100)


@support.needs_monitoring
class ProcessAndThreadTest(unittest.TestCase):
    """UpdateThisProcessPid() and AddToThreadStateTracing()."""

    def setUp(self):
        optmonitoring.reset()
        self.addCleanup(optmonitoring.UpdateThisProcessPid)

    def failing(self, call, exception, message, line):
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            with self.assertRaises(exception) as caught:
                call()
        if message is not None:
            self.assertEqual(str(caught.exception), message)
        report = "%s: %s\n" % (exception.__name__, caught.exception)
        self.assertEqual(log.lines[:2], [line, support.HEAD_LINE])
        self.assertEqual(log.lines[-1], report)
        self.assertEqual(log.failures, [line])

    def test_update_takes_the_cached_pid(self):
        state.state_of(optmonitoring)._gThisProcessPid = 1
        self.assertIsNone(optmonitoring.UpdateThisProcessPid())
        self.assertEqual(state.state_of(optmonitoring)._gThisProcessPid, os.getpid())

    def test_update_takes_no_arguments(self):
        self.failing(lambda: optmonitoring.UpdateThisProcessPid(1), TypeError,
                     "Excess positional arguments passed to function", "Exception in UpdateThisProcessPid\n")
        self.failing(lambda: optmonitoring.UpdateThisProcessPid(pid=1), TypeError,
                     "Excess keyword arguments passed to function", "Exception in UpdateThisProcessPid\n")

    def test_forked_child_keeps_the_parents_pid_until_updated_or_reset(self):
        out = support.check_child(self, """
import os, support
m = support.load()
import state
parent = os.getpid()
for bring_up_to_date in (m.UpdateThisProcessPid, m.reset):
    child = os.fork()
    if not child:
        before = state.state_of(m)._gThisProcessPid
        bring_up_to_date()
        ok = before == parent and state.state_of(m)._gThisProcessPid == os.getpid() != parent
        os._exit(0 if ok else 1)
    print(os.waitpid(child, 0)[1])
""", environment={"PYTHONWARNINGS": "ignore"})
        self.assertEqual(out, "0\n0\n")

    def test_callback_in_a_forked_child_is_inactive_until_updated(self):
        out = support.check_child(self, """
import os, sys, support
m = support.load()
seen = []
callback = m.CInitialCallback(sys.monitoring.events.PY_START, lambda *args: seen.append(args), 1)
m.CPerThread.SetDebugPolicyCallback(lambda *args: 1)
code = (lambda: 0).__code__
child = os.fork()
if not child:
    first = callback.Callback(code, 0)
    count = len(seen)
    m.UpdateThisProcessPid()
    callback.Callback(code, 0)
    os._exit(0 if first is None and count == 0 and len(seen) == 1 else 1)
print(os.waitpid(child, 0)[1])
""", environment={"PYTHONWARNINGS": "ignore"})
        self.assertEqual(out, "0\n")

    def starts_seen(self, count):
        """PY_START events of one call made with the counter raised."""
        seen = []

        def watched():
            pass

        def record(code, offset):
            if code is watched.__code__:
                seen.append(code)

        start = sys.monitoring.events.PY_START
        with support.monitoring_tool({start: record}, start):
            self.assertIsNone(optmonitoring.AddToThreadStateTracing(count))
            watched()
            optmonitoring.AddToThreadStateTracing(-count)
            silenced = len(seen)
            watched()
        return silenced, len(seen) - silenced

    def test_raised_counter_silences_events_until_it_is_lowered(self):
        self.assertEqual(self.starts_seen(1), (0, 1))
        self.assertEqual(self.starts_seen(3), (0, 1))

    def test_count_zero_changes_nothing(self):
        self.assertEqual(self.starts_seen(0), (1, 1))

    def test_counter_is_the_threads_own(self):
        seen = []
        start = sys.monitoring.events.PY_START

        def watched():
            pass

        with support.monitoring_tool({start: lambda code, offset: seen.append(code)}, start):
            optmonitoring.AddToThreadStateTracing(1)
            try:
                thread = threading.Thread(target=watched)
                thread.start()
                thread.join()
            finally:
                optmonitoring.AddToThreadStateTracing(-1)
        self.assertIn(watched.__code__, seen)

    def test_count_may_be_a_keyword(self):
        self.assertIsNone(optmonitoring.AddToThreadStateTracing(count=1))
        self.assertIsNone(optmonitoring.AddToThreadStateTracing(count=-1))

    def test_bad_counts_fail(self):
        line = "Exception in AddToThreadStateTracing\n"
        add = optmonitoring.AddToThreadStateTracing
        self.failing(add, TypeError, "argument is missing", line)
        self.failing(lambda: add(1, 2), TypeError, "Excess positional arguments passed to function", line)
        self.failing(lambda: add("1"), TypeError, None, line)
        self.failing(lambda: add(1.0), TypeError, None, line)
        self.failing(lambda: add(1 << 63), OverflowError, None, line)

    def test_count_that_the_counter_cannot_hold_fails(self):
        line = "Exception in AddToThreadStateTracing\n"
        add = optmonitoring.AddToThreadStateTracing
        for count in (1 << 31, (-1 << 31) - 1, 1 << 62, -1 << 62):
            self.failing(lambda: add(count), OverflowError, "the tracing counter would leave its range", line)
        add(1)
        try:
            self.failing(lambda: add((1 << 31) - 1), OverflowError, "the tracing counter would leave its range", line)
        finally:
            add(-1)

    @unittest.skipIf(support.DEBUG_BUILD, "debug builds abort below 0")
    def test_counter_may_go_below_zero(self):
        self.assertEqual(self.starts_seen(-1), (0, 1))
        self.assertEqual(self.starts_seen(-3), (0, 1))

    @unittest.skipUnless(support.DEBUG_BUILD, "only debug builds abort below 0")
    def test_counter_below_zero_is_refused_where_it_aborts(self):
        line = "Exception in AddToThreadStateTracing\n"
        add = optmonitoring.AddToThreadStateTracing
        self.failing(lambda: add(-1), OverflowError, "the tracing counter would leave its range", line)
        add(1)
        try:
            self.failing(lambda: add(-2), OverflowError, "the tracing counter would leave its range", line)
        finally:
            add(-1)


if __name__ == "__main__":
    unittest.main()
