"""The per-code-object record: how it goes with its code object, equal code objects, subclasses, leaks and exit."""

import ctypes
import gc
import itertools
import sys
import unittest
import weakref

import support
from record_support import FAILURES, Raising, RaisingMapping, in_thread
from test_per_code_object import OBJECT_MEMBERS, PerCodeObjectTestCase as _PerCodeObjectTestCase, make_code, unique_text

REMOVE = "Exception in CPerCodeObject_RemoveFromPerFile_direct\n"
STEPS = "Exception in CPerCodeObject_cb_code_object_dealloc_direct()\n"
FREE = "Clearing exception in FreeCodeObjectExtra()\n"
CALLBACK = "Exception in CPerCodeObject_cb_code_object_dealloc()\n"
REGISTRY = "Exception in CPerCodeObject_get_fPerCodeObjectDict()\n"
PER_FILE = "Exception in CPerFile_GetPerFile_direct()\n"


def equal_codes(*filenames):
    """Code objects of these files that are equal to each other and to no other one."""
    text = unique_text()
    codes = [make_code(filename, text) for filename in filenames]
    assert all(code == codes[0] for code in codes)
    return codes


class DeathTest(_PerCodeObjectTestCase):
    def known(self, pathname):
        return self.files.GetPerFile(pathname).fKnownPerCodeObjects

    def test_record_goes_with_its_code_object(self):
        code = make_code("/x/a.py")
        before = support.total_instances(self.cls)
        self.cls.GetPerCodeObject(code)
        self.assertEqual((len(self.known("/x/a.py")), len(self.cls._fPerCodeObjectDict)), (1, 1))
        del code
        support.bury_code()
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))
        self.assertEqual(support.total_instances(self.cls), before)

    def test_record_lives_as_long_as_its_code_object(self):
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code).fEnabledBpLinenos = "here"
        gc.collect()
        self.assertEqual(self.cls.GetPerCodeObject(code, False).fEnabledBpLinenos, "here")
        self.om.reset()
        gc.collect()
        self.assertEqual(self.cls.GetPerCodeObject(code, False).fEnabledBpLinenos, "here")

    def test_record_that_is_held_keeps_its_members(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        reference = record.fCodeObjectWeakRef
        del code
        support.bury_code()
        self.assertIsNone(reference())
        self.assertEqual((record.fCanonicalPathname, record.fPathnameToReport), ("/x/a.py", "/x/a.py"))
        self.assertIs(record.fCodeObjectWeakRef, reference)
        self.assertEqual(support.references([record]), [0])
        self.assertEqual(self.known("/x/a.py"), set())

    def test_only_the_dead_record_goes(self):
        codes = [make_code("/x/a.py") for _ in range(3)]
        records = [self.cls.GetPerCodeObject(code) for code in codes]
        del codes[1]
        support.bury_code()
        self.assertEqual(self.known("/x/a.py"), {records[0], records[2]})
        self.assertEqual(list(self.cls._fPerCodeObjectDict.values()), [records[0], records[2]])

    def test_death_of_a_pseudo_files_code(self):
        code = make_code("<string>")
        self.cls.GetPerCodeObject(code)
        del code
        support.bury_code()
        self.assertEqual((self.cls._fPerCodeObjectDict, self.files._fPerFilesDict), ({}, {}))

    def test_death_during_garbage_collection(self):
        before = support.total_instances(self.cls)
        for _ in range(20):
            scope = {}
            exec(make_code("/x/a.py", "def f():\n  " + unique_text()), scope)
            scope["f"].itself = scope["f"]
            scope["record"] = self.cls.GetPerCodeObject(scope["f"].__code__)
            del scope
        self.assertEqual(support.total_instances(self.cls), before)
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))

    def test_death_on_another_thread(self):
        codes = [make_code("/x/a.py")]
        self.cls.GetPerCodeObject(codes[0])
        in_thread(codes.clear)
        support.bury_code()
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))

    def test_death_keeps_a_pending_exception(self):
        """The interpreter drops a list that it could not fill while the exception is pending."""
        def codes():
            code = make_code("/x/a.py")
            self.cls.GetPerCodeObject(code)
            yield code
            del code
            raise ValueError("pending")

        with self.assertRaisesRegex(ValueError, "^pending$"):
            list(codes())
        support.bury_code()
        self.assertEqual(self.cls._fPerCodeObjectDict, {})

    def test_death_after_a_reset_makes_the_files_record_again(self):
        made = []
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)
        self.om.reset()
        self.files.SetNewPerFileCreatedCallback(made.append)
        with support.logging_to(support.DEFAULT_MASK) as log:
            del code
            support.bury_code()
        self.assertEqual(log.lines, [])
        self.assertEqual([record.fCanonicalPathname for record in made], ["/x/a.py"])

    def test_death_without_the_registry_makes_it_anew(self):
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)
        del self.cls._fPerCodeObjectDict
        with support.logging_to(support.DEFAULT_MASK) as log:
            del code
            support.bury_code()
        self.assertEqual((log.lines, self.cls.__dict__["_fPerCodeObjectDict"]), ([], {}))

    def test_death_without_an_entry_is_silent(self):
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)
        self.cls._fPerCodeObjectDict.clear()
        with support.logging_to(support.DEFAULT_MASK) as log:
            del code
            support.bury_code()
        self.assertEqual(log.lines, [])

    def death_fails(self, prepare, texts, last_line):
        """Both ways of the death steps fail; only the slot's, the first one but on free-threaded interpreters, keeps
        its reference."""
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        prepare()
        with support.logging_to(FAILURES) as log:
            del code
            support.bury_code()
        first, second = (CALLBACK, FREE) if support.FREE_THREADED else (FREE, CALLBACK)
        self.check_log(log, texts + [STEPS, first] + texts + [STEPS, second], last_line)
        for cls, name, value in self.saved:
            setattr(cls, name, value)
        self.om.reset()
        self.assertEqual(support.references([record]), [1])     # the slot's, which is given up

    def test_failing_death_steps(self):
        def wrong_entry():
            self.files._fPerFilesDict["/x/a.py"] = "no record"

        self.death_fails(wrong_entry, [REMOVE],
                         "SystemError: optmonitoring:2080: bad argument to internal function")
        self.death_fails(lambda: setattr(self.files, "_fPerFilesDict", Raising()), [PER_FILE, REMOVE],
                         "ValueError: cannot be read")
        self.death_fails(lambda: setattr(self.cls, "_fPerCodeObjectDict", Raising()), [REGISTRY],
                         "ValueError: cannot be read")
        self.death_fails(lambda: setattr(self.cls, "_fPerCodeObjectDict", RaisingMapping()), [],
                         "ValueError: delete refused")

    def test_failing_removal_from_the_file_leaves_the_registry_alone(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        self.files._fPerFilesDict["/x/a.py"] = "no record"
        del code
        support.bury_code()
        self.assertEqual(list(self.cls._fPerCodeObjectDict.values()), [record])

    def test_failing_death_steps_raise_nothing(self):
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)
        self.files._fPerFilesDict["/x/a.py"] = "no record"
        unraisable, sys.unraisablehook = sys.unraisablehook, self.fail
        try:
            del code
            support.bury_code()
        finally:
            sys.unraisablehook = unraisable

    def test_death_callback_called_by_hand(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        self.assertIsNone(record._cb_code_object_dealloc(record.fCodeObjectWeakRef))
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))
        self.assertIsNone(record._cb_code_object_dealloc(weak_ref=None))
        self.assertIs(self.cls.GetPerCodeObject(code, False), record)

    def test_failing_death_callback_returns_none(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        self.cls._fPerCodeObjectDict = RaisingMapping()
        with support.logging_to(FAILURES) as log:
            self.assertIsNone(record._cb_code_object_dealloc(None))
        self.check_log(log, [STEPS, CALLBACK], "ValueError: delete refused")
        self.cls._fPerCodeObjectDict = {}
        self.fails(TypeError, "argument is missing", [CALLBACK], record._cb_code_object_dealloc)

    def test_freeing_an_empty_slot_does_nothing(self):
        # the slots of another index make the interpreter free ours as well
        request = ctypes.pythonapi.PyUnstable_Eval_RequestCodeExtraIndex
        store = ctypes.pythonapi.PyUnstable_Code_SetExtra
        request.argtypes, request.restype = [ctypes.c_void_p], ctypes.c_ssize_t
        store.argtypes = [ctypes.py_object, ctypes.c_ssize_t, ctypes.c_void_p]
        code = make_code("/x/a.py")
        self.assertEqual(store(code, request(None), 1), 0)
        with support.logging_to(support.DEFAULT_MASK) as log:
            del code
            support.bury_code()
        self.assertEqual(log.lines, [])
        self.assertEqual((self.cls._fPerCodeObjectDict, self.files._fPerFilesDict), ({}, {}))

    def test_members_that_run_code_at_death(self):
        seen = []

        class Witness(object):
            def __del__(witness):
                other = make_code("/x/a.py")
                seen.append((len(self.cls._fPerCodeObjectDict), self.cls.GetPerCodeObject(other).fCanonicalPathname))

        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code).fEnabledBpLinenos = Witness()
        del code
        support.bury_code()
        self.assertEqual(seen, [(0, "/x/a.py")])
        support.bury_code()     # the one that the witness has made
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))

    def test_code_that_runs_while_the_slot_is_freed(self):
        class Files(dict):
            def __getitem__(self, key):
                gc.collect()
                return dict.__getitem__(self, key)

        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)
        self.files._fPerFilesDict = Files(self.files._fPerFilesDict)
        del code
        support.bury_code()
        self.assertEqual((self.known("/x/a.py"), self.cls._fPerCodeObjectDict), (set(), {}))


class EqualCodeTest(_PerCodeObjectTestCase):
    NAMES = ("/x/a.py", "/x/b.py", "/x/c.py")

    def test_each_has_its_own_record(self):
        codes = equal_codes(*self.NAMES)
        records = [self.cls.GetPerCodeObject(code) for code in codes]
        self.assertEqual([record.fCanonicalPathname for record in records], list(self.NAMES))
        for code, record in zip(codes, records):
            self.assertIs(record.fCodeObjectWeakRef(), code)
            self.assertIs(self.cls.GetPerCodeObject(code), record)

    def test_record_of_another_one_does_not_count(self):
        first, second = equal_codes("/x/a.py", "/x/b.py")
        self.cls.GetPerCodeObject(first)
        self.assertIsNone(self.cls.GetPerCodeObject(second, False))

    def test_registry_holds_the_latest_under_its_own_reference(self):
        codes = equal_codes(*self.NAMES)
        for code in codes:
            record = self.cls.GetPerCodeObject(code)
            (key, value), = self.cls._fPerCodeObjectDict.items()
            self.assertIs(key, record.fCodeObjectWeakRef)
            self.assertIs(value, record)

    def test_every_order_of_death(self):
        for order in itertools.permutations(range(3)):
            before = support.total_instances(self.cls)
            codes = dict(enumerate(equal_codes(*self.NAMES)))
            for code in list(codes.values()):
                self.cls.GetPerCodeObject(code)
            del code
            for dead in order:
                del codes[dead]
                support.bury_code()
                for index, name in enumerate(self.NAMES):
                    known = self.files.GetPerFile(name).fKnownPerCodeObjects
                    self.assertEqual([record.fCodeObjectWeakRef() for record in known],
                                     [codes[index]] if index in codes else [])
                    if index in codes:
                        self.assertEqual(self.cls.GetPerCodeObject(codes[index], False).fCanonicalPathname, name)
                self.assertEqual(len(self.cls._fPerCodeObjectDict), int(2 in codes))
                known = None
            self.assertEqual(self.cls._fPerCodeObjectDict, {})
            self.assertEqual(support.total_instances(self.cls), before)

    def test_registry_entry_of_a_living_twin_survives(self):
        first, second = equal_codes("/x/a.py", "/x/b.py")
        self.cls.GetPerCodeObject(first)
        record = self.cls.GetPerCodeObject(second)
        del first
        support.bury_code()
        self.assertEqual(self.cls._fPerCodeObjectDict, {record.fCodeObjectWeakRef: record})


class InstanceTest(_PerCodeObjectTestCase):
    def test_half_made_record(self):
        record = self.cls.__new__(self.cls)
        self.check_all_unset(record, OBJECT_MEMBERS)
        self.assertEqual((record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount), (0, 0))
        with support.logging_to(FAILURES) as log:
            self.assertIsNone(record._cb_code_object_dealloc(None))
        self.assertEqual(log.lines, [])
        self.assertEqual(self.cls._fPerCodeObjectDict, {})

    def test_subclass_instances(self):
        for cls in self.subclasses(self.cls):
            code = make_code("/x/a.py")
            record = cls(code, None)
            self.assertIs(self.cls.GetPerCodeObject(code), record)
            self.assertEqual((record.fCanonicalPathname, record.fIsInternal), ("/x/a.py", False))
            self.check_all_unset(cls.__new__(cls), OBJECT_MEMBERS)
            before = sys.getrefcount(cls)
            del record, code
            support.bury_code()
            self.assertLess(sys.getrefcount(cls), before)
            self.assertEqual((self.cls._fPerCodeObjectDict, self.files.GetPerFile("/x/a.py").fKnownPerCodeObjects),
                             ({}, set()))

    def test_look_up_through_a_subclass_makes_a_plain_record(self):
        sub = type("Sub", (self.cls,), {})
        code = make_code()
        self.assertIs(type(sub.GetPerCodeObject(code)), self.cls)
        sub.SetNewPerCodeObjectCreatedCallback(3)
        self.assertEqual(self.cls.__dict__["_fNewPerCodeObjectCreatedCallback"], 3)

    def test_subclass_with_a_death_callback_of_its_own(self):
        seen = []

        class Sub(self.cls):
            def _cb_code_object_dealloc(self, weak_ref):
                seen.append(weak_ref() is None)
                return super(Sub, self)._cb_code_object_dealloc(weak_ref)

        code = make_code("/x/a.py")
        Sub(code, None)
        del code
        support.bury_code()
        self.assertEqual((seen, self.cls._fPerCodeObjectDict), ([True], {}))

    def test_subclass_whose_death_callback_cannot_be_had(self):
        sub = type("Sub", (self.cls,), {"_cb_code_object_dealloc": Raising()})
        code = make_code("/x/a.py")
        with self.assertRaisesRegex(ValueError, "^cannot be read$"):
            sub(code, None)
        self.assertIsNone(self.cls.GetPerCodeObject(code, False))

    def test_death_releases_the_members(self):
        code, value = make_code("/x/a.py"), object()
        count = sys.getrefcount(value)
        self.cls.GetPerCodeObject(code).fEnabledBpLinenos = value
        self.assertEqual(sys.getrefcount(value), count + 1)
        del code
        support.bury_code()
        self.assertEqual(sys.getrefcount(value), count)

    def test_called_finalizer_clears_a_record_and_its_code_object_dies_well(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        record.__del__()
        self.check_all_unset(record, OBJECT_MEMBERS)
        with support.logging_to(FAILURES) as log:
            del code
            support.bury_code()
        self.assertEqual(log.lines, [])
        self.cls._fPerCodeObjectDict.clear()
        self.files.GetPerFile("/x/a.py").fKnownPerCodeObjects.clear()
        self.assertEqual(support.references([record]), [0])

    def test_weak_reference_of_the_host_finds_the_record(self):
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.assertIs(self.cls._fPerCodeObjectDict[weakref.ref(code)], record)


class LeakTest(_PerCodeObjectTestCase):
    def test_records_leak_nothing(self):
        def make():
            code = make_code("/x/a.py")
            self.cls.GetPerCodeObject(code)
            self.cls.GetPerCodeObject(code, False)

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_records_of_equal_code_objects_leak_nothing(self):
        def make():
            for code in equal_codes("/x/a.py", "/x/b.py", "<string>"):
                self.cls(code, None)
                self.cls(code, None)

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 300)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_resets_with_living_code_leak_nothing(self):
        def make():
            code = make_code("/x/a.py")
            self.cls.GetPerCodeObject(code)
            self.om.reset()
            del code
            support.bury_code()
            self.om.reset()

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_failing_constructions_leak_nothing(self):
        def hook(record):
            raise ValueError("hook")

        def make():
            for filename in ("/x/a.py", "/x/bad.py", "/x/\udc80.py"):
                try:
                    self.cls.GetPerCodeObject(make_code().replace(co_filename=filename))
                except (ValueError, SystemError):
                    pass
            try:
                self.cls(3, None)
            except TypeError:
                pass

        self.cls.SetNewPerCodeObjectCreatedCallback(hook)
        self.files._fPerFilesDict["/x/bad.py"] = "no record"
        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_failed_registrations_leak_nothing(self):
        code = make_code("/x/a.py")

        def make():
            self.cls._fPerCodeObjectDict = RaisingMapping(delete=lambda key: None)
            try:
                self.cls(code, None)
            except ValueError:
                pass
            self.cls._fPerCodeObjectDict = {}

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)
        self.assertIsNone(self.cls.GetPerCodeObject(code, False))

    def test_failed_updates_leak_nothing(self):
        code = make_code("/x/a.py")
        self.cls.GetPerCodeObject(code)

        def update():
            try:
                self.cls.GetPerCodeObject(code, True, sys._getframe())
            except TypeError:
                pass

        support.assert_no_leak(self, update, 1000)


EXIT = """
import gc, sys, threading
import support
optmonitoring = support.load()
cls, files = optmonitoring.CPerCodeObject, optmonitoring.CPerFile

class Sub(cls):
    pass

class Witness:
    def __del__(self):
        pass

def generator():
    cls.GetPerCodeObject(sys._getframe().f_code)
    yield

kept = [compile("x = %d" % index, "/x/a.py", "exec") for index in range(20)]
records = [cls.GetPerCodeObject(code) for code in kept]
records.append(Sub(compile("y", "/x/b.py", "eval"), None))
records.append(cls.__new__(cls))
records[0].fEnabledBpLinenos = Witness()
records[1].fEnabledBpLinenos = records
kept.append(generator())
next(kept[-1])
kept.append(kept)
for module in list(sys.modules.values()):
    for value in list(vars(module).values()):
        code = getattr(value, "__code__", None)
        if isinstance(code, type(kept[0])):
            cls.GetPerCodeObject(code)
files.SetNewPerFileCreatedCallback(lambda record: None)
cls.SetNewPerCodeObjectCreatedCallback(lambda record: None)
thread = threading.Thread(target=threading.Event().wait, daemon=True)
thread.start()
CASE
print("ready")
"""


@support.needs_monitoring
class ExitTest(unittest.TestCase):
    def test_interpreter_exit_with_live_records(self):
        for case in ("", "kept = records = None", "optmonitoring.reset()", "del sys.modules['optmonitoring']",
                     "optmonitoring.set_dprintf_file(None, -1, 0)", "files._fPerFilesDict = None",
                     "cls._fPerCodeObjectDict = None", "del files._fPerFilesDict"):
            self.assertEqual(support.check_child(self, EXIT.replace("CASE", case)), "ready\n", case)


if __name__ == "__main__":
    unittest.main()
