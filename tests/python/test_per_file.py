"""The per-file record: construction, the registries by pathname and by checksum, and the hook."""

import sys
import unittest

import support
from record_support import BadTruth, FAILURES, Raising, RaisingMapping, RecordTestCase, key_error

MEMBERS = ("fCanonicalPathname", "fBpSetByLineno", "fKnownPerCodeObjects", "fChecksum")
INIT = "Exception in CPerFile.__init__\n"
DIRECT = "Exception in CPerFile_GetPerFile_direct()\n"
GET = "Exception in CPerFile_GetPerFile()\n"
HOOK = "Exception in CallNewObjectCallback_direct\n"
UPDATE = "Exception in CPerFile.UpdateChecksum\n"
FOR_CHECKSUM = "Exception in CPerFile_GetPerFileForChecksum()\n"


class PerFileTestCase(RecordTestCase):
    def setUp(self):
        super(PerFileTestCase, self).setUp()
        self.cls = self.om.CPerFile
        self.checksums = {}
        self.asked = []

    def use_checksums(self, **checksums):
        def checksum(pathname):
            self.asked.append(pathname)
            return self.checksums.get(pathname)

        self.checksums = checksums
        self.om.set_checksum_callback(checksum)


class ClassTest(PerFileTestCase):
    def test_name_and_module(self):
        self.assertEqual((self.cls.__name__, self.cls.__module__), ("CPerFile", "optmonitoring"))

    def test_class_attributes_after_a_reset(self):
        self.assertEqual((self.cls._fPerFilesDict, self.cls._fByChecksum), ({}, {}))
        self.assertIsNone(self.cls._fNewPerFileCreatedCallback)

    def test_class_attributes_of_a_fresh_import(self):
        out = support.check_child(self, """
import support
cls = support.load().CPerFile
print(cls._fPerFilesDict, cls._fByChecksum, cls._fNewPerFileCreatedCallback)
""")
        self.assertEqual(out, "{} {} None\n")

    def test_reset_empties_both_registries_and_keeps_their_objects(self):
        by_name, by_checksum = self.cls._fPerFilesDict, self.cls._fByChecksum
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.cls.SetNewPerFileCreatedCallback(len)
        self.assertEqual((len(by_name), len(by_checksum)), (1, 1))
        self.om.reset()
        self.assertEqual((by_name, by_checksum), ({}, {}))
        self.assertIs(self.cls._fPerFilesDict, by_name)
        self.assertIs(self.cls._fByChecksum, by_checksum)
        self.assertIsNone(self.cls._fNewPerFileCreatedCallback)
        self.assertEqual((record.fCanonicalPathname, record.fChecksum), ("a", "1"))


class ConstructionTest(PerFileTestCase):
    def test_members(self):
        record = self.cls("/a/b.py")
        self.assertEqual((record.fCanonicalPathname, record.fBpSetByLineno, record.fKnownPerCodeObjects,
                          record.fChecksum), ("/a/b.py", {}, set(), None))
        self.assertIs(type(record.fBpSetByLineno), dict)
        self.assertIs(type(record.fKnownPerCodeObjects), set)

    def test_members_are_read_only_and_their_containers_are_not(self):
        record = self.cls("a")
        for name in MEMBERS:
            self.check_read_only(record, name)
        record.fBpSetByLineno[3] = "bp"
        record.fKnownPerCodeObjects.add(4)
        self.assertEqual((record.fBpSetByLineno, record.fKnownPerCodeObjects), ({3: "bp"}, {4}))

    def test_containers_are_the_records_own(self):
        first, second = self.cls("a"), self.cls("a")
        self.assertIsNot(first.fBpSetByLineno, second.fBpSetByLineno)
        self.assertIsNot(first.fKnownPerCodeObjects, second.fKnownPerCodeObjects)

    def test_pathname_is_the_argument_itself_of_any_type(self):
        for pathname in (object(), None, 3, "relative/../x.py"):
            self.assertIs(self.cls(pathname).fCanonicalPathname, pathname)

    def test_checksum_is_the_callbacks_for_the_pathname(self):
        checksum = object()
        self.use_checksums(a=checksum)
        self.assertIs(self.cls("a").fChecksum, checksum)
        self.assertIsNone(self.cls("b").fChecksum)
        self.assertEqual(self.asked, ["a", "b"])

    def test_constructed_record_is_indexed_by_checksum_alone(self):
        self.use_checksums(a="1")
        record = self.cls("a")
        self.assertEqual((self.cls._fPerFilesDict, self.cls._fByChecksum), ({}, {"1": {record}}))
        self.assertIsNone(self.cls.GetPerFile("a", False))

    def test_no_hook_for_a_constructed_record(self):
        calls = []
        self.cls.SetNewPerFileCreatedCallback(calls.append)
        self.cls("a")
        self.assertEqual(calls, [])

    def test_parse_failures_are_not_logged(self):
        self.fails(TypeError, "CPerFile.__init__() takes exactly 1 argument (0 given)", [], self.cls)
        self.fails(TypeError, "CPerFile.__init__() takes exactly 1 argument (2 given)", [], self.cls, 1, 2)
        self.fails(TypeError, "CPerFile() takes no keyword arguments", [], self.cls, pathname="a")

    def test_subclass_may_take_keywords(self):
        class Named(self.cls):
            def __new__(cls, *args, name):
                made = super().__new__(cls)
                made.name = name
                return made

        record = Named("a", name="mine")
        self.assertEqual((record.fCanonicalPathname, record.name), ("a", "mine"))

    def test_checksum_that_cannot_be_hashed(self):
        self.use_checksums(a=[])
        self.fails(TypeError, support.NOT_A_KEY, [INIT], self.cls, "a")
        self.assertEqual(self.cls._fByChecksum, {})

    def test_index_that_raises(self):
        self.use_checksums(a="1")
        self.cls._fByChecksum = Raising()
        self.fails(ValueError, "cannot be read", [INIT], self.cls, "a")
        del self.cls._fByChecksum
        with self.assertRaises(AttributeError):
            self.cls("a")
        self.cls._fByChecksum = RaisingMapping()        # any failed look-up counts as absent
        self.fails(ValueError, "set refused", [INIT], self.cls, "a")

    def test_failed_look_up_in_the_index_counts_as_absent(self):
        stored = {}
        self.use_checksums(a="1")
        self.cls._fByChecksum = RaisingMapping(set=stored.__setitem__)
        record = self.cls("a")
        self.assertEqual(stored, {"1": {record}})

    def test_index_is_not_touched_without_a_checksum(self):
        self.cls._fByChecksum = Raising()
        self.assertIsNone(self.cls("a").fChecksum)

    def test_failing_checksum_callback_counts_as_none(self):
        self.om.set_checksum_callback(lambda pathname: 1 // 0)
        with support.logging_to(FAILURES) as log:
            record = self.cls("a")
        self.assertIsNone(record.fChecksum)
        self.check_log(log, ["Failure in get_checksum_for_pathname()\n"],
                       "ZeroDivisionError: " + support.DIVISION_BY_ZERO)

    def test_initialising_again_starts_afresh(self):
        record = self.cls("a")
        first = record.fBpSetByLineno
        count = sys.getrefcount(first)
        record.__init__("b")
        self.assertEqual(record.fCanonicalPathname, "b")
        self.assertIsNot(record.fBpSetByLineno, first)
        self.assertEqual(sys.getrefcount(first), count - 1)


class GetPerFileTest(PerFileTestCase):
    def test_unknown_without_create_is_none(self):
        for create in (False, None, 0, ""):
            self.assertIsNone(self.cls.GetPerFile("a", create))
            self.assertIsNone(self.cls.GetPerFile("a", create=create))
        self.assertEqual(self.cls._fPerFilesDict, {})

    def test_record_is_made_once(self):
        record = self.cls.GetPerFile("a")
        self.assertIs(type(record), self.cls)
        self.assertEqual(self.cls._fPerFilesDict, {"a": record})
        for args, kwargs in ((("a",), {}), (("a", False), {}), ((), {"pathname": "a"}),
                             (("a",), {"create": BadTruth()})):
            self.assertIs(self.cls.GetPerFile(*args, **kwargs), record)

    def test_create_without_a_truth_value(self):
        self.fails(ValueError, "no truth", [DIRECT], self.cls.GetPerFile, "a", BadTruth())

    def test_argument_errors(self):
        self.fails(TypeError, "argument is missing", [GET], self.cls.GetPerFile)
        self.fails(TypeError, "Excess positional arguments passed to function", [GET], self.cls.GetPerFile, 1, 2, 3)
        self.fails(TypeError, "Excess keyword arguments passed to function", [GET], self.cls.GetPerFile, "a", c=1)

    def test_pathname_that_cannot_be_hashed(self):
        self.fails(TypeError, support.NOT_A_KEY, [DIRECT], self.cls.GetPerFile, [])

    def test_registry_that_raises(self):
        self.cls._fPerFilesDict = RaisingMapping()
        self.fails(ValueError, "get refused", [DIRECT], self.cls.GetPerFile, "a")
        self.cls._fPerFilesDict = RaisingMapping(get=key_error)
        self.fails(ValueError, "set refused", [DIRECT], self.cls.GetPerFile, "a")
        self.cls._fPerFilesDict = Raising()
        self.fails(ValueError, "cannot be read", [DIRECT], self.cls.GetPerFile, "a")
        del self.cls._fPerFilesDict
        self.fails(AttributeError, "type object 'optmonitoring.CPerFile' has no attribute '_fPerFilesDict'",
                   [DIRECT], self.cls.GetPerFile, "a")

    def test_failing_construction(self):
        self.use_checksums(a=[])
        self.fails(TypeError, support.NOT_A_KEY, [INIT, DIRECT], self.cls.GetPerFile, "a")
        self.assertEqual(self.cls._fPerFilesDict, {})

    def test_what_the_registry_holds_is_returned(self):
        self.cls._fPerFilesDict["a"] = 7
        self.assertEqual(self.cls.GetPerFile("a"), 7)

    def test_all_files_in_order_of_creation(self):
        self.assertEqual(self.cls.GetAllPerFiles(), [])
        records = [self.cls.GetPerFile(name) for name in ("b", "c", "a")]
        first = self.cls.GetAllPerFiles()
        self.assertEqual(first, records)
        self.assertIs(type(first), list)
        self.assertIsNot(self.cls.GetAllPerFiles(), first)

    def test_failures_of_all_files(self):
        text = "Exception in CPerFile_GetAllPerFiles()\n"
        self.fails(TypeError, "Excess positional arguments passed to function", [text], self.cls.GetAllPerFiles, 1)
        self.cls._fPerFilesDict = Raising()
        self.fails(ValueError, "cannot be read", [text], self.cls.GetAllPerFiles)


class NewFileHookTest(PerFileTestCase):
    def test_hook_gets_the_registered_record_once(self):
        calls = []
        self.assertIsNone(self.cls.SetNewPerFileCreatedCallback(
            lambda *args, **kwargs: calls.append((args, kwargs, dict(self.cls._fPerFilesDict)))))
        record = self.cls.GetPerFile("a")
        self.cls.GetPerFile("a")
        self.assertEqual(calls, [((record,), {}, {"a": record})])

    def test_hook_is_stored_unchecked_and_none_switches_it_off(self):
        for value in (3, None):
            self.cls.SetNewPerFileCreatedCallback(callback=value)
            self.assertEqual(self.cls._fNewPerFileCreatedCallback, value)
        self.cls.GetPerFile("a")

    def test_result_is_released(self):
        value = object()
        count = sys.getrefcount(value)
        self.cls.SetNewPerFileCreatedCallback(lambda record: value)
        self.cls.GetPerFile("a")
        self.assertEqual(sys.getrefcount(value), count)

    def test_raising_hook_fails_once_and_leaves_the_record(self):
        calls = []

        def hook(record):
            calls.append(record)
            raise ValueError("hook")

        self.cls.SetNewPerFileCreatedCallback(hook)
        self.fails(ValueError, "hook", [HOOK, DIRECT], self.cls.GetPerFile, "a")
        self.assertEqual(self.cls._fPerFilesDict, {"a": calls[0]})
        self.assertIs(self.cls.GetPerFile("a"), calls[0])
        self.assertEqual(len(calls), 1)

    def test_hook_that_is_not_callable(self):
        self.cls.SetNewPerFileCreatedCallback(3)
        self.fails(TypeError, "'int' object is not callable", [HOOK, DIRECT], self.cls.GetPerFile, "a")

    def test_missing_hook_attribute_is_a_failure(self):
        del self.cls._fNewPerFileCreatedCallback
        self.fails(AttributeError, "type object 'optmonitoring.CPerFile' has no attribute "
                   "'_fNewPerFileCreatedCallback'", [HOOK, DIRECT], self.cls.GetPerFile, "a")
        self.assertEqual(list(self.cls._fPerFilesDict), ["a"])

    def test_code_of_the_hook_is_not_monitored(self):
        seen = []

        def hook(record):
            seen.append("called")

        self.cls.SetNewPerFileCreatedCallback(hook)
        with support.monitoring_tool({sys.monitoring.events.PY_START: lambda code, offset: seen.append(code.co_name)},
                                     sys.monitoring.events.PY_START):
            self.cls.GetPerFile("a")
        self.assertIn("called", seen)
        self.assertNotIn("hook", seen)

    def test_hook_may_call_back_and_replace_the_registry(self):
        def hook(record):
            self.cls._fPerFilesDict = {}
            if record.fCanonicalPathname == "a":
                self.cls.GetPerFile("b")

        self.cls.SetNewPerFileCreatedCallback(hook)
        self.assertEqual(self.cls.GetPerFile("a").fCanonicalPathname, "a")
        self.assertEqual(self.cls._fPerFilesDict, {})

    def test_hook_may_reset_the_module(self):
        self.cls.SetNewPerFileCreatedCallback(lambda record: self.om.reset())
        self.assertEqual(self.cls.GetPerFile("a").fCanonicalPathname, "a")
        self.assertEqual(self.cls._fPerFilesDict, {})

    def test_keeps_the_text_of_another_function_in_the_setter(self):
        self.fails(TypeError, "argument is missing", [GET], self.cls.SetNewPerFileCreatedCallback)
        self.fails(TypeError, "Excess positional arguments passed to function", [GET],
                   self.cls.SetNewPerFileCreatedCallback, 1, 2)


class ChecksumTest(PerFileTestCase):
    def test_files_of_equal_content_share_one_set(self):
        self.use_checksums(a="1", b="1", c="2")
        a, b, c = [self.cls.GetPerFile(name) for name in "abc"]
        self.assertEqual(self.cls._fByChecksum, {"1": {a, b}, "2": {c}})
        self.assertIs(self.cls.GetPerFileSetForChecksum("1"), self.cls._fByChecksum["1"])

    def test_unknown_checksum_gives_a_new_set_that_is_not_stored(self):
        first = self.cls.GetPerFileSetForChecksum("1")
        self.assertEqual((type(first), first), (set, set()))
        self.assertIsNot(self.cls.GetPerFileSetForChecksum(checksum="1"), first)
        self.assertEqual(self.cls._fByChecksum, {})

    def test_none_is_never_indexed(self):
        self.use_checksums()
        self.cls.GetPerFile("a")
        self.assertEqual(self.cls._fByChecksum, {})
        self.assertEqual(self.cls.GetPerFileSetForChecksum(None), set())

    def test_keeps_another_name_in_the_text_of_the_look_up_by_checksum(self):
        self.fails(TypeError, "argument is missing", [FOR_CHECKSUM], self.cls.GetPerFileSetForChecksum)
        self.fails(TypeError, support.NOT_A_KEY, [FOR_CHECKSUM], self.cls.GetPerFileSetForChecksum, [])
        self.cls._fByChecksum = Raising()
        self.fails(ValueError, "cannot be read", [FOR_CHECKSUM], self.cls.GetPerFileSetForChecksum, "1")

    def test_unchanged_checksum_changes_nothing(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.assertIsNone(record.UpdateChecksum())
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("1", {"1": {record}}))
        self.assertEqual(self.asked, ["a", "a"])

    def test_equal_checksum_keeps_the_old_object(self):
        first, second = "".join(["x", "y"]), "".join(["x", "y"])
        self.use_checksums(a=first)
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = second
        record.UpdateChecksum()
        self.assertIs(record.fChecksum, first)

    def test_keeps_a_changed_file_under_its_old_checksum(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = "2"
        self.assertIsNone(record.UpdateChecksum())
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("2", {"1": {record}}))
        self.assertEqual(self.cls.GetPerFileSetForChecksum("2"), set())

    def test_keeps_entering_the_record_again_under_its_old_checksum(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.cls._fByChecksum.clear()
        self.checksums["a"] = "2"
        record.UpdateChecksum()
        self.assertEqual(self.cls._fByChecksum, {"1": {record}})

    def test_keeps_taking_the_record_out_of_the_set_of_its_new_checksum(self):
        self.use_checksums(a="1", b="2")
        a, b = self.cls.GetPerFile("a"), self.cls.GetPerFile("b")
        self.cls._fByChecksum["2"].add(a)
        self.checksums["a"] = "2"
        a.UpdateChecksum()
        self.assertEqual(self.cls._fByChecksum, {"1": {a}, "2": {b}})
        self.checksums["b"] = "1"
        b.UpdateChecksum()
        self.assertEqual(self.cls._fByChecksum, {"1": {a}, "2": {b}})

    def test_keeps_deleting_the_set_that_the_change_emptied(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.cls._fByChecksum["2"] = {record}
        self.checksums["a"] = "2"
        record.UpdateChecksum()
        self.assertEqual(self.cls._fByChecksum, {"1": {record}})

    def test_change_from_and_to_no_checksum(self):
        self.use_checksums(a=None)
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = "1"
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("1", {}))
        self.checksums["a"] = None
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), (None, {"1": {record}}))

    def test_checksums_that_cannot_be_compared(self):
        class Checksum(object):
            def __ne__(self, other):
                raise ValueError("no comparison")

            __hash__ = object.__hash__

        self.use_checksums(a=Checksum())
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = Checksum()
        self.fails(ValueError, "no comparison", [UPDATE], record.UpdateChecksum)

    def test_index_failures_of_an_update(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = "2"
        self.cls._fByChecksum = Raising()
        self.fails(ValueError, "cannot be read", [UPDATE], record.UpdateChecksum)
        self.assertEqual(record.fChecksum, "1")
        self.fails(TypeError, "Excess positional arguments passed to function", [UPDATE], record.UpdateChecksum, 1)

    def test_index_that_holds_something_else_than_sets(self):
        self.use_checksums(a="1")
        record = self.cls.GetPerFile("a")
        self.checksums["a"] = "2"
        self.cls._fByChecksum = {"1": {record}, "2": "no set"}
        with support.logging_to(64):
            self.assertRaises(SystemError, record.UpdateChecksum)
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("2", {"1": {record}, "2": "no set"}))

    def test_update_of_a_half_made_record(self):
        self.fails(AttributeError, "fCanonicalPathname", [UPDATE], self.cls.__new__(self.cls).UpdateChecksum)

    def test_checksum_callback_may_reset_the_module(self):
        self.om.set_checksum_callback(lambda pathname: self.om.reset() or "1")
        record = self.cls.GetPerFile("a")
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("1", {"1": {record}}))
        self.om.set_checksum_callback(lambda pathname: self.om.reset() or "2")
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, self.cls._fByChecksum), ("2", {"1": {record}}))


class InstanceTest(PerFileTestCase):
    def test_subclass_instances(self):
        self.use_checksums(a="1")
        for cls in self.subclasses(self.cls):
            record = cls("a")
            self.assertIn(record, self.cls._fByChecksum["1"])
            self.assertEqual((record.fCanonicalPathname, record.fChecksum), ("a", "1"))
            self.assertIsNone(record.UpdateChecksum())
            self.check_all_unset(cls.__new__(cls), MEMBERS)

    def test_look_up_through_a_subclass_makes_a_plain_record(self):
        sub = type("Sub", (self.cls,), {})
        record = sub.GetPerFile("a")
        self.assertIs(type(record), self.cls)
        sub.SetNewPerFileCreatedCallback(3)
        self.assertEqual(self.cls.__dict__["_fNewPerFileCreatedCallback"], 3)

    def test_half_made_record_has_no_members(self):
        self.check_all_unset(self.cls.__new__(self.cls), MEMBERS)

    def test_death_releases_the_members(self):
        pathname, checksum = object(), object()
        self.om.set_checksum_callback(lambda name: checksum)
        counts = sys.getrefcount(pathname), sys.getrefcount(checksum)
        record = self.cls(pathname)
        self.assertGreater(sys.getrefcount(pathname), counts[0])
        self.cls._fByChecksum.clear()
        del record
        self.assertEqual((sys.getrefcount(pathname), sys.getrefcount(checksum)), counts)

    def test_members_are_set_to_null_before_they_die(self):
        seen = []

        class Witness(object):
            def __del__(witness):
                seen.append(0)

        record = self.cls(Witness())
        record.fBpSetByLineno[1] = Witness()
        record.__del__()
        self.check_all_unset(record, MEMBERS)
        self.assertEqual(seen, [0, 0])

    def test_registered_records_live_without_another_reference(self):
        before = support.total_instances(self.cls)
        self.cls.GetPerFile("a")
        self.assertEqual(support.total_instances(self.cls), before + 1)
        self.om.reset()
        self.assertEqual(support.total_instances(self.cls), before)

    def test_records_leak_nothing(self):
        def make():
            self.use_checksums(a="1", b=[])
            record = self.cls.GetPerFile("a")
            self.checksums["a"] = "2"
            record.UpdateChecksum()
            self.cls.GetPerFile("c")
            try:
                self.cls.GetPerFile("b")
            except TypeError:
                pass
            self.cls.GetAllPerFiles()
            self.cls.GetPerFileSetForChecksum("1")
            self.cls.GetPerFileSetForChecksum("3")
            self.om.reset()

        before = support.total_instances(self.cls)
        support.assert_no_leak(self, make, 1000)
        self.assertEqual(support.total_instances(self.cls), before)

    def test_interpreter_exit_with_live_records(self):
        self.assertEqual(support.check_child(self, """
import support
optmonitoring = support.load()
cls = optmonitoring.CPerFile
optmonitoring.set_checksum_callback(lambda pathname: "1")
Sub = type("Sub", (cls,), {})
kept = [cls.GetPerFile("a"), cls("b"), Sub("c"), cls.__new__(cls), Sub.__new__(Sub)]
kept[0].fBpSetByLineno[1] = kept
cls.SetNewPerFileCreatedCallback(lambda record: None)
print(len(cls._fByChecksum["1"]))
"""), "3\n")


if __name__ == "__main__":
    unittest.main()
