"""The first event of a code object: its record is the one that a call of the class would make."""

import gc
import itertools
import os
import sys
import unittest

import support
from filter_support import FilterTestCase, Recorder, event_id, forget_handled_exception, new_function


class FirstEvents(FilterTestCase):
    """The record of a code object seen for the first time is what a call of the class makes, whatever the host did."""

    FILE = "/nowhere/shared.py"

    def setUp(self):
        super().setUp()
        self.cls, self.files = self.om.CPerCodeObject, self.om.CPerFile
        self.second = Recorder()
        self.first_event()                          # from now on the file is known

    def new_code(self):
        """A code object of the file that is equal to no other one."""
        name = "f_%d" % next(self.numbers)
        return new_function("def %s():\n    return None\n" % name, name, self.FILE).__code__

    numbers = itertools.count()

    def first_event(self, code=None):
        """The record that the first event of a code object leaves."""
        self.code = code or self.new_code()
        self.assertIsNone(self.callback("PY_START", self.second).Callback(self.code, 0))
        return self.cls.GetPerCodeObject(self.code, False)

    def replace(self, owner, name, value):
        """For this test alone."""
        missing = object()
        before = owner.__dict__.get(name, missing)
        setattr(owner, name, value)
        self.addCleanup(lambda: delattr(owner, name) if before is missing else setattr(owner, name, before))

    def test_record_is_complete(self):
        record, called = self.first_event(), self.cls(self.new_code(), sys._getframe())
        for name in ("fCanonicalPathname", "fPathnameToReport", "fIsInternal", "fEnabledBpLinenos",
                     "fSteppingEventsNeededCount", "fReturnEventsNeededCount"):
            self.assertEqual(getattr(record, name), getattr(called, name), name)
        self.assertIs(type(record), self.cls)
        self.assertIs(record.fCodeObjectWeakRef(), self.code)
        self.assertEqual(record.fCodeObjectWeakRef.__callback__, record._cb_code_object_dealloc)
        self.assertIs(self.cls._fPerCodeObjectDict[record.fCodeObjectWeakRef], record)
        self.assertIn(record, self.files.GetPerFile(self.FILE).fKnownPerCodeObjects)

    def test_name_to_report_is_the_codes_own_file_name(self):
        code = self.new_code().replace(co_filename="".join(self.FILE))
        self.assertIs(self.first_event(code).fPathnameToReport, code.co_filename)

    def test_record_goes_with_its_code_object(self):
        record, known = self.first_event(), self.files.GetPerFile(self.FILE).fKnownPerCodeObjects
        self.second.calls.clear()
        del self.code
        gc.collect()            # the function that it comes from, and its globals
        self.assertNotIn(record, known)
        self.assertNotIn(record, self.cls._fPerCodeObjectDict.values())

    def test_relative_name_keeps_its_first_meaning(self):
        folder = os.getcwd()
        self.addCleanup(os.chdir, folder)
        names = []
        for place in (folder, "/"):
            os.chdir(place)
            names.append(self.first_event(self.new_code().replace(co_filename="relative.py")).fPathnameToReport)
        self.assertEqual(names, [os.path.join(folder, "relative.py")] * 2)

    def test_internal_table_of_the_moment_counts(self):
        self.assertIs(self.first_event().fIsInternal, False)
        with self.internal(self.FILE):
            self.assertIs(self.callback("PY_START").Callback(self.new_code(), 0), sys.monitoring.DISABLE)
        self.assertIs(self.first_event().fIsInternal, False)

    def test_replaced_registries_are_used_at_once(self):
        registry, files = {}, dict(self.files._fPerFilesDict)
        self.replace(self.cls, "_fPerCodeObjectDict", registry)
        record = self.first_event()
        self.assertEqual(list(registry.values()), [record])
        self.replace(self.files, "_fPerFilesDict", files)
        del files[self.FILE]
        record = self.first_event()
        self.assertEqual(files[self.FILE].fKnownPerCodeObjects, {record})

    def test_registry_behind_a_descriptor_is_read_anew(self):
        registries = []

        class Registry:
            def __get__(self, obj, cls):
                registries.append({})
                return registries[-1]
        self.replace(self.cls, "_fPerCodeObjectDict", Registry())
        record = self.first_event()
        self.assertEqual([list(registry.values()) for registry in registries if registry], [[record]])

    def test_hook_set_and_taken_back(self):
        seen = []
        for expected in (1, 0, 1):
            self.cls.SetNewPerCodeObjectCreatedCallback(seen.append if expected else None)
            record = self.first_event()
            self.assertEqual(seen, [record] * expected)
            seen.clear()
        self.cls._fNewPerCodeObjectCreatedCallback = None
        self.first_event()
        self.assertEqual(seen, [])

    def test_replaced_construction_is_called(self):
        calls, original = [], self.cls.__init__

        def init(record, code, frame):
            calls.append(code)
            original(record, code, frame)
        self.replace(self.cls, "__init__", init)
        record = self.first_event()
        self.assertEqual(calls, [self.code])
        self.assertIs(record.fCodeObjectWeakRef(), self.code)

    def test_replaced_death_callback_is_used(self):
        buried = []
        self.replace(self.cls, "_cb_code_object_dealloc", lambda self, weak_ref: buried.append(self))
        record = self.first_event()
        self.second.calls.clear()
        del self.code
        gc.collect()            # the function that it comes from, and its globals
        self.assertEqual(buried, [record])

    def test_equal_code_objects_have_a_record_each(self):
        code = self.new_code()
        twin = code.replace()
        first, second = self.first_event(code), self.first_event(twin)
        self.assertIs(self.cls.GetPerCodeObject(code, False), first)
        self.assertIs(second.fCodeObjectWeakRef(), twin)
        self.assertIs(self.cls._fPerCodeObjectDict[second.fCodeObjectWeakRef], second)

    def test_code_object_that_has_no_hash(self):
        code = self.new_code().replace(co_consts=([],))
        self.assertIsNone(self.callback("PY_START", self.second).Callback(code, 0))
        self.assert_reported(TypeError)
        self.dlog.forget()
        forget_handled_exception()

    def test_frame_is_the_running_one(self):
        """Live events: the record counts as made with a frame, so that a look-up with a frame goes well."""
        function = new_function("def f():\n    return None\n", "f", self.FILE)
        callback = self.callback("PY_START", self.second).Callback
        with support.monitoring_tool({event_id("PY_START"): callback}) as tool:
            tool.set_local_events(function.__code__, event_id("PY_START"))
            function()
        record = self.cls.GetPerCodeObject(function.__code__, False)
        self.assertIsNotNone(record)
        self.assertIs(self.cls.GetPerCodeObject(function.__code__, True, sys._getframe()), record)
        self.assert_nothing_reported()


if __name__ == "__main__":
    unittest.main()
