"""The per-code-object record: pathnames, construction, look-up and the hook."""

import os
import shutil
import sys
import tempfile
import unittest

import support
from record_support import BadTruth, FAILURES, Raising, RecordTestCase, immutable

OBJECT_MEMBERS = ("fCodeObjectWeakRef", "fCanonicalPathname", "fPathnameToReport", "fIsInternal", "fEnabledBpLinenos")
INIT = "Exception in CPerCodeObject.__init__\n"
DIRECT = "Exception in CPerCodeObject_GetPerCodeObject_direct()\n"
GET = "Exception in CPerCodeObject_GetPerCodeObject()\n"
EXISTING = "Exception in CPerCodeObject_GetExistingPerCodeObject_direct()\n"
REGISTER = "Exception in CPerCodeObject_RegisterPerCodeObject_direct()\n"
REGISTRY = "Exception in CPerCodeObject_get_fPerCodeObjectDict()\n"
ADD = "Exception in CPerCodeObject_AddToPerFile_direct\n"
PER_FILE = "Exception in CPerFile_GetPerFile_direct()\n"
HOOK = "Exception in CallNewObjectCallback_direct\n"
CANONICAL = "Failure in find_canonical_pathname()\n"
NOT_CODE = "code_object must be a PyCodeObject"

_texts = iter(range(1 << 60))


def unique_text():
    return "x = %d" % next(_texts)


def make_code(filename="/no/such/folder/a.py", text=None):
    """A code object that is equal to no other one, unless the text is given."""
    return compile(unique_text() if text is None else text, filename, "exec")


def frame_of(filename, **names):
    """A frame of a code object with that filename and these globals, and its code object."""
    names["sys"] = sys
    code = make_code(filename, "frame = sys._getframe()  # %d\nx = %d" % ((next(_texts),) * 2))
    exec(code, names)
    return names["frame"], code


class PerCodeObjectTestCase(RecordTestCase):
    def setUp(self):
        super(PerCodeObjectTestCase, self).setUp()
        self.cls = self.om.CPerCodeObject
        self.files = self.om.CPerFile

    def pathnames(self, filename):
        record = self.cls.GetPerCodeObject(make_code(filename))
        return record.fPathnameToReport, record.fCanonicalPathname

    def folder(self):
        folder = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, folder)
        return folder


class ClassTest(PerCodeObjectTestCase):
    def test_name_and_module(self):
        self.assertEqual((self.cls.__name__, self.cls.__module__), ("CPerCodeObject", "optmonitoring"))

    def test_class_attributes_of_a_fresh_import(self):
        out = support.check_child(self, """
import support
cls = support.load().CPerCodeObject
print(cls._fPerCodeObjectDict, cls._fNewPerCodeObjectCreatedCallback)
""")
        self.assertEqual(out, "{} None\n")

    def test_reset_empties_the_registry_and_keeps_attached_records(self):
        registry = self.cls._fPerCodeObjectDict
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.cls.SetNewPerCodeObjectCreatedCallback(len)
        self.assertEqual(len(registry), 1)
        self.om.reset()
        self.assertIs(self.cls._fPerCodeObjectDict, registry)
        self.assertEqual((registry, self.cls._fNewPerCodeObjectCreatedCallback), ({}, None))
        self.assertIs(self.cls.GetPerCodeObject(code, False), record)


class MemberTest(PerCodeObjectTestCase):
    def test_initial_values(self):
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.assertIs(record.fCodeObjectWeakRef(), code)
        self.assertEqual(record.fCodeObjectWeakRef.__callback__, record._cb_code_object_dealloc)
        self.assertIs(record.fCodeObjectWeakRef.__callback__.__self__, record)
        self.assertEqual((record.fCanonicalPathname, record.fPathnameToReport), (code.co_filename, code.co_filename))
        self.assertIs(record.fIsInternal, False)
        self.assertIsNone(record.fEnabledBpLinenos)
        self.assertEqual((record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount), (0, 0))

    def test_read_only_members(self):
        record = self.cls.GetPerCodeObject(make_code())
        for name in ("fCodeObjectWeakRef", "fCanonicalPathname", "fPathnameToReport", "fIsInternal"):
            self.check_read_only(record, name)

    def test_writable_members(self):
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.check_writable_object(record, "fEnabledBpLinenos")
        for name in ("fSteppingEventsNeededCount", "fReturnEventsNeededCount"):
            self.check_writable_number(record, name, 1 << 63)

    def test_the_update_flag_is_not_exposed(self):
        self.assertFalse(hasattr(self.cls, "fUpdatePathnameNeeded"))


class PathnameTest(PerCodeObjectTestCase):
    def test_absolute_name_is_kept(self):
        self.assertEqual(self.pathnames("/no/such/a.py"), ("/no/such/a.py",) * 2)

    def test_absolute_name_is_the_filename_object_itself(self):
        code = make_code("/no/such/folder/same.py")
        self.assertIs(self.cls.GetPerCodeObject(code).fPathnameToReport, code.co_filename)

    def test_relative_name_is_made_absolute(self):
        name = os.path.join(os.getcwd(), "no_such_folder/a.py")
        self.assertEqual(self.pathnames("no_such_folder/a.py"), (name, name))

    def test_compiled_suffix(self):
        for given, expected in (("/x/mod.pyc", "/x/mod.py"), ("/x/a.PYC", "/x/a.PY"), ("/x/a.pYc", "/x/a.pY"),
                                ("/x/a.pyo", "/x/a.pyo"), ("/x/a.pyc.py", "/x/a.pyc.py"), ("/apyc", "/apyc")):
            self.assertEqual(self.pathnames(given)[0], expected)
        self.assertEqual(self.pathnames("/x/mod2.pyc"), ("/x/mod2.py",) * 2)
        self.assertEqual(self.pathnames("/x/b.PYC")[1], "/x/b.PY")
        here = os.getcwd()
        self.assertEqual(self.pathnames("mod3.pyc"), (here + "/mod3.py",) * 2)
        self.assertEqual(self.pathnames(".pyc")[0], here + "/.pyc")     # nothing but the suffix

    def test_pseudo_file(self):
        for filename in ("<string>", "<stdin>", "<>", ""):
            code = make_code(filename)
            record = self.cls.GetPerCodeObject(code)
            self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (filename, None))
            self.assertIs(record.fIsInternal, False)
        self.assertEqual(self.files._fPerFilesDict, {})

    def test_shell_and_frozen_names_are_kept(self):
        for filename in ("x-brixide-python-shell://12", "<frozen importlib._bootstrap>"):
            self.assertEqual(self.pathnames(filename), (filename, filename))
            self.assertIn(filename, self.files._fPerFilesDict)
        self.assertEqual(self.pathnames("x-brixide-python-shell://1.pyc"), ("x-brixide-python-shell://1.py",) * 2)

    def test_canonical_name_is_the_registrys(self):
        folder = self.folder()
        name, link = folder + "/a.py", folder + "/link.py"
        open(name, "w").close()
        os.symlink(name, link)
        self.assertEqual(self.pathnames(name), (name, name))
        self.assertEqual(self.pathnames(link), (link, name))
        self.assertEqual(list(self.files._fPerFilesDict), [name])
        self.assertEqual(self.om.lookup_canonical_pathname(link), name)

    def test_checksum_is_asked_for_unknown_names_alone(self):
        asked = []
        self.om.set_checksum_callback(lambda pathname: asked.append(pathname) or "1")
        self.pathnames("no_such_folder/a.pyc")
        here = os.getcwd()
        self.assertEqual(asked, ["no_such_folder/a.py", here + "/no_such_folder/a.py"])   # registry, per-file record
        del asked[:]
        self.pathnames("no_such_folder/a.pyc")
        self.assertEqual(asked, [])

    def test_checksum_registers_the_name(self):
        self.om.set_checksum_callback(lambda pathname: "1")
        self.pathnames("/no/such/a.py")
        self.assertEqual(self.om.lookup_canonical_pathname("/other/b.py", "1"), "/no/such/a.py")

    def test_known_name_is_found_without_its_checksum(self):
        self.om.set_checksum_callback(lambda pathname: "1")
        self.pathnames("/no/such/a.py")
        self.assertEqual(self.pathnames("/other/b.py"), ("/other/b.py",) * 2)

    def test_checksum_that_is_no_text_counts_as_none(self):
        for number, checksum in enumerate((7, b"sum", "\udc80", "a\0b")):
            self.om.set_checksum_callback(lambda pathname, checksum=checksum: checksum)
            name = "/no/such/%d.py" % number
            self.assertEqual(self.pathnames(name), (name, name))
            self.assertIsNone(self.om.lookup_canonical_pathname("/other/b.py", checksum))
            self.assertEqual(self.files.GetPerFile(name).fChecksum, checksum)

    def test_checksum_callback_may_reset_the_module(self):
        self.om.set_checksum_callback(lambda pathname: self.om.reset())
        self.assertEqual(self.pathnames("/no/such/a.py"), ("/no/such/a.py",) * 2)

    def test_names_stay_until_a_reset(self):
        target, link = os.path.join(self.folder(), "a.py"), os.path.join(self.folder(), "link.py")
        self.assertEqual(self.pathnames(link), (link, link))
        with open(target, "w"):
            pass
        os.symlink(target, link)
        self.assertEqual(self.pathnames(link), (link, link))
        self.om.reset()
        self.om.register_canonical_pathname(target, None)
        self.assertEqual(self.pathnames(link), (link, target))

    def test_name_without_a_utf8_form(self):
        self.fails(UnicodeEncodeError, "'utf-8' codec can't encode character '\\udc80' in position 3: "
                   "surrogates not allowed", ["Exception in GetPathnameKind_direct\n", INIT, DIRECT],
                   self.cls.GetPerCodeObject, make_code().replace(co_filename="/x/\udc80.py"))

    def test_name_with_an_embedded_null(self):
        for filename in ("/x/a\0.py", "<a\0>", "<frozen a\0>"):
            code = make_code().replace(co_filename=filename)
            self.fails(ValueError, "pathname has an embedded null character", [INIT, DIRECT],
                       self.cls.GetPerCodeObject, code)

    def test_name_beyond_ascii(self):
        self.assertEqual(self.pathnames("/x/\u00e9\u4e2d.pyc"), ("/x/\u00e9\u4e2d.py",) * 2)

    def test_vanished_current_folder(self):
        out = support.check_child(self, """
import os, sys, tempfile
import support
optmonitoring = support.load()
folder = tempfile.mkdtemp()
os.chdir(folder)
os.rmdir(folder)
with support.logging_to(64) as log:
    try:
        optmonitoring.CPerCodeObject.GetPerCodeObject(compile("x", "a.py", "eval"))
    except RuntimeError as e:
        print(e)
print("".join(log.failures))
""")
        self.assertEqual(out, "get_absname() returned NULL without setting the exception\n" + INIT + DIRECT + "\n")


class FrozenTest(PerCodeObjectTestCase):
    def record(self, filename="<frozen mod>", **names):
        frame, self.code = frame_of(filename, **names)
        return self.cls.GetPerCodeObject(self.code, True, frame)

    def check(self, record, pathname):
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (pathname, pathname))

    def test_dunder_file_of_the_frame_is_both_names_as_it_stands(self):
        for pathname in ("/x/mod.py", "relative/mod.py", "", "<string>"):
            self.check(self.record(__file__=pathname), pathname)

    def test_dunder_file_is_not_registered_as_a_canonical_name(self):
        asked = []
        self.om.set_checksum_callback(asked.append)
        self.check(self.record(__file__="/x/mod.py"), "/x/mod.py")
        self.assertEqual(asked, ["/x/mod.py"])      # by the per-file record
        self.assertIsNone(self.om.lookup_canonical_pathname("/x/mod.py"))

    def test_compiled_suffix_of_dunder_file(self):
        self.check(self.record(__file__="/x/mod.pyc"), "/x/mod.py")

    def test_missing_or_none_dunder_file(self):
        self.check(self.record(), "<frozen mod>")
        self.check(self.record(__file__=None), "<frozen mod>")

    def test_no_frame(self):
        frame, code = frame_of("<frozen mod>", __file__="/x/mod.py")
        self.check(self.cls.GetPerCodeObject(code), "<frozen mod>")
        code = make_code("<frozen mod>")
        self.check(self.cls.GetPerCodeObject(code, True, "no frame"), "<frozen mod>")

    def test_dunder_file_of_other_kinds_is_not_looked_at(self):
        record = self.record("/x/regular.py", __file__="/x/other.py")
        self.check(record, "/x/regular.py")
        record = self.record("<string>", __file__="/x/other.py")
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), ("<string>", None))

    def test_dunder_file_that_is_no_str(self):
        frame, code = frame_of("<frozen mod>", __file__=3)
        self.fails(TypeError, "bad argument type for built-in operation", [INIT, DIRECT],
                   self.cls.GetPerCodeObject, code, True, frame)

    def test_globals_that_raise(self):
        class Globals(dict):
            def __getitem__(self, key):
                if key == "__file__":
                    raise ValueError("no item")
                return dict.__getitem__(self, key)

        class Missing(dict):
            def __missing__(self, key):
                raise KeyError(key)

        def frame_with(names):
            code = make_code("<frozen mod>", "def f(): return sys._getframe(), %d" % next(_texts))
            scope = {}
            exec(code, scope)
            return type(scope["f"])(scope["f"].__code__, names)()[0]

        frame = frame_with(Missing(sys=sys))
        self.check(self.cls.GetPerCodeObject(frame.f_code, True, frame), "<frozen mod>")
        frame = frame_with(Globals(sys=sys))
        self.fails(ValueError, "no item", [INIT, DIRECT], self.cls.GetPerCodeObject, frame.f_code, True, frame)


class InternalTest(PerCodeObjectTestCase):
    def test_canonical_name_in_the_internal_table(self):
        self.om.SetInternalPathnameDict({"/x/internal.py": None})
        self.addCleanup(self.om.SetInternalPathnameDict, {})
        internal = self.cls.GetPerCodeObject(make_code("/x/internal.pyc"))
        self.assertIs(internal.fIsInternal, True)
        self.assertIs(self.cls.GetPerCodeObject(make_code("/x/other.py")).fIsInternal, False)

    def test_it_is_the_canonical_name_that_counts(self):
        folder = self.folder()
        name, link = folder + "/a.py", folder + "/link.py"
        open(name, "w").close()
        os.symlink(name, link)
        self.pathnames(name)
        self.addCleanup(self.om.SetInternalPathnameDict, {})
        self.om.SetInternalPathnameDict({link: None})
        self.assertIs(self.cls.GetPerCodeObject(make_code(link)).fIsInternal, False)
        self.om.SetInternalPathnameDict({name: None})
        self.assertIs(self.cls.GetPerCodeObject(make_code(link)).fIsInternal, True)

    def test_later_tables_do_not_change_a_record(self):
        code = make_code("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        self.addCleanup(self.om.SetInternalPathnameDict, {})
        self.om.SetInternalPathnameDict({"/x/a.py": None})
        self.assertIs(self.cls.GetPerCodeObject(code), record)
        self.assertIs(record.fIsInternal, False)


class ConstructionTest(PerCodeObjectTestCase):
    def test_record_is_attached_registered_and_known_to_its_file(self):
        code = make_code("/x/a.py")
        record = self.cls(code, None)
        self.assertEqual(self.cls._fPerCodeObjectDict, {record.fCodeObjectWeakRef: record})
        self.assertEqual(self.files.GetPerFile("/x/a.py", False).fKnownPerCodeObjects, {record})
        self.cls._fPerCodeObjectDict.clear()
        self.assertIs(self.cls.GetPerCodeObject(code, False), record)

    def test_parse_failures_are_not_logged(self):
        code = make_code()
        self.fails(TypeError, "CPerCodeObject.__init__() takes exactly 2 arguments (1 given)", [], self.cls, code)
        self.fails(TypeError, "CPerCodeObject.__init__() takes exactly 2 arguments (3 given)", [], self.cls, code, 1, 2)
        self.fails(TypeError, "CPerCodeObject() takes no keyword arguments", [], self.cls, code, frame=None)
        self.assertEqual(self.cls._fPerCodeObjectDict, {})

    def test_subclass_may_take_keywords(self):
        class Named(self.cls):
            def __new__(cls, *args, name):
                made = super().__new__(cls)
                made.name = name
                return made

        code = make_code()
        record = Named(code, None, name="mine")
        self.assertEqual((record.fCodeObjectWeakRef(), record.name), (code, "mine"))

    def test_code_of_a_wrong_type(self):
        for value in (None, 3, make_code):
            self.fails(TypeError, NOT_CODE, [INIT], self.cls, value, None)

    def test_already_initialized(self):
        code = make_code()
        record = self.cls(code, None)
        self.fails(RuntimeError, "CPerCodeObject is already initialized", [INIT], record.__init__, make_code(), None)
        self.assertIs(record.fCodeObjectWeakRef(), code)

    def test_second_record_takes_the_place_of_the_first(self):
        code = make_code("/x/a.py")
        before = support.total_instances(self.cls)
        first, second = self.cls(code, None), self.cls(code, None)
        self.assertIs(self.cls.GetPerCodeObject(code), second)
        self.assertEqual(self.cls._fPerCodeObjectDict, {second.fCodeObjectWeakRef: second})
        self.assertEqual(self.files.GetPerFile("/x/a.py").fKnownPerCodeObjects, {second})
        del first
        self.assertGreater(support.total_instances(self.cls), before)
        del second, code
        support.bury_code()
        self.assertEqual(support.total_instances(self.cls), before)

    def construction_fails(self, error, text, texts):
        """A failing construction leaves neither a registration nor an instance."""
        code = make_code("/x/failing.py")
        before = support.total_instances(self.cls)
        self.fails(error, text, texts, self.cls, code, None)
        self.assertEqual(support.total_instances(self.cls), before)
        for cls, name, value in self.saved:
            setattr(cls, name, value)
        self.assertIsNone(self.cls.GetPerCodeObject(code, False))
        self.assertEqual(self.cls._fPerCodeObjectDict, {})
        known = self.files.GetPerFile("/x/failing.py", False)
        self.assertEqual(getattr(known, "fKnownPerCodeObjects", None) or set(), set())

    def test_file_registry_entry_of_a_wrong_type(self):
        self.files._fPerFilesDict["/x/a.py"] = "no record"
        self.fails(SystemError, "optmonitoring:2031: bad argument to internal function", [ADD, INIT],
                   self.cls, make_code("/x/a.py"), None)
        self.assertEqual(self.cls._fPerCodeObjectDict, {})

    def test_file_registry_that_raises(self):
        self.files._fPerFilesDict = Raising()
        self.construction_fails(ValueError, "cannot be read", [PER_FILE, ADD, INIT])

    def test_half_made_file_record(self):
        self.files._fPerFilesDict["/x/a.py"] = self.files.__new__(self.files)
        self.fails(AttributeError, "fKnownPerCodeObjects", [ADD, INIT], self.cls, make_code("/x/a.py"), None)

    def test_registry_that_raises(self):
        self.cls._fPerCodeObjectDict = Raising()
        code = make_code("/x/a.py")
        with support.logging_to(FAILURES) as log:
            with self.assertRaisesRegex(ValueError, "^cannot be read$"):
                self.cls(code, None)
        self.assertEqual(log.failures[:2], [REGISTRY, REGISTER])
        self.assertEqual(log.failures[-1], INIT)
        self.cls._fPerCodeObjectDict = {}
        self.assertIsNone(self.cls.GetPerCodeObject(code, False))
        self.assertEqual(self.files.GetPerFile("/x/a.py").fKnownPerCodeObjects, set())

    def test_missing_registry_is_made_anew(self):
        del self.cls._fPerCodeObjectDict
        code = make_code()
        record = self.cls(code, None)
        self.assertEqual(self.cls._fPerCodeObjectDict, {record.fCodeObjectWeakRef: record})

    def test_failed_constructions_can_be_repeated(self):
        code = make_code("/x/a.py")
        record = self.cls.__new__(self.cls)
        self.files._fPerFilesDict["/x/a.py"] = "no record"
        with self.assertRaises(SystemError):
            record.__init__(code, None)
        self.check_all_unset(record, OBJECT_MEMBERS)
        del self.files._fPerFilesDict["/x/a.py"]
        record.__init__(code, None)
        self.assertIs(self.cls.GetPerCodeObject(code), record)


class LookUpTest(PerCodeObjectTestCase):
    def test_record_is_made_once(self):
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.assertIs(type(record), self.cls)
        for args, kwargs in (((code,), {}), ((code, False), {}), ((), {"code_object": code}),
                             ((code,), {"create": BadTruth()}), ((code, True, None), {})):
            self.assertIs(self.cls.GetPerCodeObject(*args, **kwargs), record)

    def test_unknown_without_create_is_none(self):
        code = make_code()
        for create in (False, None, 0, []):
            self.assertIsNone(self.cls.GetPerCodeObject(code, create))
            self.assertIsNone(self.cls.GetPerCodeObject(code, create=create))
        self.assertEqual((self.cls._fPerCodeObjectDict, self.files._fPerFilesDict), ({}, {}))

    def test_any_true_create_makes_it(self):
        self.assertIsNotNone(self.cls.GetPerCodeObject(make_code(), "yes"))

    def test_failures(self):
        code = make_code()
        self.fails(ValueError, "no truth", [DIRECT], self.cls.GetPerCodeObject, code, BadTruth())
        self.fails(TypeError, NOT_CODE, [DIRECT], self.cls.GetPerCodeObject, 3)
        self.fails(TypeError, "argument is missing", [GET], self.cls.GetPerCodeObject)
        self.fails(TypeError, "Excess positional arguments passed to function", [GET],
                   self.cls.GetPerCodeObject, code, True, None, 1)
        self.fails(TypeError, "Excess keyword arguments passed to function", [GET],
                   self.cls.GetPerCodeObject, code, c=1)

    def test_registry_is_asked_when_the_slot_is_empty(self):
        code, other = make_code(), make_code()
        self.cls._fPerCodeObjectDict = Raising()
        self.fails(ValueError, "cannot be read", [REGISTRY, EXISTING, DIRECT], self.cls.GetPerCodeObject, code)
        self.cls._fPerCodeObjectDict = {}
        import weakref
        self.cls._fPerCodeObjectDict[weakref.ref(code)] = "no record"
        self.fails(TypeError, "the object is not a CPerCodeObject", [EXISTING, DIRECT],
                   self.cls.GetPerCodeObject, code)
        # the record of another code object, or one that was never made, counts as none
        for record in (self.cls.GetPerCodeObject(other), self.cls.__new__(self.cls)):
            self.cls._fPerCodeObjectDict[weakref.ref(code)] = record
            self.assertIsNone(self.cls.GetPerCodeObject(code, False))

    def test_look_ups_take_one_reference_each(self):
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        count, code_count = sys.getrefcount(record), sys.getrefcount(code)
        found = [self.cls.GetPerCodeObject(code) for _ in range(100)]
        self.assertEqual((sys.getrefcount(record), sys.getrefcount(code)), (count + 100, code_count))
        del found

    def test_record_holds_no_reference_to_its_code_object(self):
        code = make_code()
        count = sys.getrefcount(code)
        self.cls.GetPerCodeObject(code)
        self.assertEqual(sys.getrefcount(code), count)

    def test_missing_registry_counts_as_empty(self):
        del self.cls._fPerCodeObjectDict
        self.assertIsNone(self.cls.GetPerCodeObject(make_code(), False))
        self.assertEqual(self.cls.__dict__["_fPerCodeObjectDict"], {})


class UpdateTest(PerCodeObjectTestCase):
    TEXTS = ["Exception in CPerCodeObject_UpdatePathnameFromFrame_direct()\n", DIRECT]

    def test_keeps_failing_for_a_frame_given_to_a_record_made_without_one(self):
        frame, code = frame_of("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        for _ in range(2):
            self.fails(TypeError, NOT_CODE, self.TEXTS, self.cls.GetPerCodeObject, code, True, frame)
            self.fails(TypeError, NOT_CODE, self.TEXTS, self.cls.GetPerCodeObject, code, frame=3)
        self.assertIs(self.cls.GetPerCodeObject(code), record)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), ("/x/a.py", "/x/a.py"))
        self.assertEqual(self.files.GetPerFile("/x/a.py").fKnownPerCodeObjects, {record})

    def test_keeps_failing_the_question_for_an_internal_frame(self):
        frame, code = frame_of("/x/a.py")
        self.cls.GetPerCodeObject(code)
        self.fails(TypeError, NOT_CODE, self.TEXTS + ["Exception in IsInternalFrame_direct\n",
                                                      "Exception in IsInternalFrame\n"], self.om.IsInternalFrame, frame)

    def test_record_made_with_a_frame_is_not_updated(self):
        frame, code = frame_of("<frozen mod>", __file__="/x/a.py")
        record = self.cls.GetPerCodeObject(code, True, frame)
        frame.f_globals["__file__"] = "/x/b.py"
        self.assertIs(self.cls.GetPerCodeObject(code, True, frame), record)
        self.assertEqual(record.fPathnameToReport, "/x/a.py")

    def test_any_frame_argument_but_none_counts_as_made_with_one(self):
        frame, code = frame_of("/x/a.py")
        record = self.cls(code, "no frame")
        self.assertIs(self.cls.GetPerCodeObject(code, True, frame), record)

    def test_record_without_a_weak_reference_counts_as_dead(self):
        frame, code = frame_of("/x/a.py")
        record = self.cls.GetPerCodeObject(code)
        record.__del__()
        self.assertIs(self.cls.GetPerCodeObject(code, True, frame), record)


class NewRecordHookTest(PerCodeObjectTestCase):
    def test_hook_gets_the_registered_record_once(self):
        calls = []
        self.assertIsNone(self.cls.SetNewPerCodeObjectCreatedCallback(lambda *args, **kwargs: calls.append(
            (args, kwargs, list(self.cls._fPerCodeObjectDict.values()), self.cls.GetPerCodeObject(code)))))
        code = make_code()
        record = self.cls.GetPerCodeObject(code)
        self.cls.GetPerCodeObject(code)
        self.assertEqual(calls, [((record,), {}, [record], record)])

    def test_hook_of_a_direct_construction(self):
        calls, code = [], make_code()
        self.cls.SetNewPerCodeObjectCreatedCallback(callback=calls.append)
        self.assertEqual([self.cls(code, None)], calls)

    def test_raising_hook_fails_once_and_leaves_the_record(self):
        def hook(record):
            raise ValueError("hook")

        self.cls.SetNewPerCodeObjectCreatedCallback(hook)
        code = make_code()
        self.fails(ValueError, "hook", [HOOK, INIT, DIRECT], self.cls.GetPerCodeObject, code)
        record = self.cls.GetPerCodeObject(code)
        self.assertEqual(list(self.cls._fPerCodeObjectDict.values()), [record])

    def test_hook_that_is_not_callable_or_missing(self):
        self.cls.SetNewPerCodeObjectCreatedCallback(3)
        self.assertEqual(self.cls._fNewPerCodeObjectCreatedCallback, 3)
        self.fails(TypeError, "'int' object is not callable", [HOOK, INIT, DIRECT],
                   self.cls.GetPerCodeObject, make_code())
        del self.cls._fNewPerCodeObjectCreatedCallback
        self.fails(AttributeError, "type object 'optmonitoring.CPerCodeObject' has no attribute "
                   "'_fNewPerCodeObjectCreatedCallback'", [HOOK, INIT], self.cls, make_code(), None)

    def test_keeps_the_other_class_in_the_texts_of_a_setter_that_fails(self):
        with immutable(self.cls):
            self.fails(TypeError, "cannot set '_fNewPerCodeObjectCreatedCallback' attribute of immutable type "
                       "'optmonitoring.CPerCodeObject'",
                       ["Exception in CPerThread_SetNewPerCodeObjectCreatedCallback_direct()\n",
                        "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback()\n"],
                       self.cls.SetNewPerCodeObjectCreatedCallback, None)

    def test_code_of_the_hook_is_not_monitored(self):
        seen = []

        def hook(record):
            seen.append("called")

        self.cls.SetNewPerCodeObjectCreatedCallback(hook)
        with support.monitoring_tool({sys.monitoring.events.PY_START: lambda code, offset: seen.append(code.co_name)},
                                     sys.monitoring.events.PY_START):
            self.cls.GetPerCodeObject(make_code())
        self.assertIn("called", seen)
        self.assertNotIn("hook", seen)

    def test_hook_may_make_others_and_replace_the_registries(self):
        codes = [make_code() for _ in range(5)]

        def hook(record):
            self.cls._fPerCodeObjectDict = {}
            self.files._fPerFilesDict = {}
            if codes:
                self.cls.GetPerCodeObject(codes[-1]) and codes.pop()

        code = make_code()
        self.cls.SetNewPerCodeObjectCreatedCallback(hook)
        self.assertIs(self.cls.GetPerCodeObject(code), self.cls.GetPerCodeObject(code))

    def test_hook_may_reset_the_module(self):
        self.cls.SetNewPerCodeObjectCreatedCallback(lambda record: self.om.reset())
        code = make_code()
        self.assertIs(self.cls.GetPerCodeObject(code), self.cls.GetPerCodeObject(code))
        self.assertEqual(self.cls._fPerCodeObjectDict, {})

    def test_keeps_the_name_of_another_class_in_the_text_of_the_setter(self):
        text = "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback()\n"
        self.fails(TypeError, "argument is missing", [text], self.cls.SetNewPerCodeObjectCreatedCallback)
        self.fails(TypeError, "Excess positional arguments passed to function", [text],
                   self.cls.SetNewPerCodeObjectCreatedCallback, 1, 2)


if __name__ == "__main__":
    unittest.main()
