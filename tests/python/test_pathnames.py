"""Pathname kinds, the internal pathname table, and internal frames."""

import collections
import ctypes
import functools
import itertools
import operator
import sys
import unittest

import support

if hasattr(sys, "monitoring"):
    import _thread
    import state
    optmonitoring = support.load()

KIND_DIRECT = "Exception in GetPathnameKind_direct\n"
KIND = "Exception in GetPathnameKind\n"
SET_DICT = "Exception in SetInternalPathnameDict\n"
FRAME_DIRECT = "Exception in IsInternalFrame_direct\n"
FRAME = "Exception in IsInternalFrame\n"
NON_INTERNAL_DIRECT = "Exception in GetNonInternalFrame_direct\n"
NON_INTERNAL = "Exception in GetNonInternalFrame\n"


class Pathnames(unittest.TestCase):
    """A reset module, and an internal table that is in force for code objects made in the test."""

    def setUp(self):
        optmonitoring.SetInternalPathnameDict({})
        optmonitoring.reset()
        self.addCleanup(optmonitoring.SetInternalPathnameDict, {})

    def failing(self, lines, exception, function, *args, **kwargs):
        """The text of a call's exception; it has to log these failure lines, each followed by its report."""
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            with self.assertRaises(exception) as caught:
                function(*args, **kwargs)
            self.assertEqual(log.failures, lines)
            for line in lines:
                self.assertEqual(log.lines[log.lines.index(line) + 1], support.HEAD_LINE)
        with support.logging_to(1023 & ~optmonitoring.kLogInternalFailures) as log:
            with self.assertRaises(exception):
                function(*args, **kwargs)
            self.assertEqual(log.failures, [])
        return str(caught.exception)


@support.needs_monitoring
class GetPathnameKindTest(Pathnames):
    """GetPathnameKind()."""

    KINDS = [
        (0, ["/a/b.py", "a", "b.py", " ", "<", ">", "<abc", "abc>", "<frozen", "<frozen importlib._bootstrap",
             " <string>", "<string> ", "\u00e9.py",
             "X-BRIXIDE-PYTHON-SHELL://12", "x-brixide-python-shell:/", "x-brixide-python-shell:/12",
             " x-brixide-python-shell://12", "x-brixide-python-shell", "\0"]),
        (3, ["<frozen importlib._bootstrap>", "<frozen>", "<frozenzip>", "<frozen \u00e9>", "<frozen a>b>"]),
        (4, ["", "<string>", "<>", "<froze>", "<Frozen importlib>", "<FROZEN>", "<a> b>", "<\u00e9>",
             "< frozen>", "<x\0>", "<fro\0zen>"]),
        (5, ["x-brixide-python-shell://12", "x-brixide-python-shell://", "x-brixide-python-shell://a>",
             "x-brixide-python-shell://\0"]),
    ]

    def test_kinds_by_the_form_of_the_name(self):
        for kind, names in self.KINDS:
            for name in names:
                self.assertEqual(optmonitoring.GetPathnameKind(name), kind, ascii(name))

    def test_both_ends_have_to_be_the_right_brackets(self):
        self.assertEqual(optmonitoring.GetPathnameKind("<<"), optmonitoring.kRegularPathname)
        self.assertEqual(optmonitoring.GetPathnameKind(">>"), optmonitoring.kRegularPathname)

    def test_last_byte_of_a_longer_character_is_no_bracket(self):
        self.assertEqual(optmonitoring.GetPathnameKind("<\u013e"), optmonitoring.kRegularPathname)

    def test_result_is_an_int_and_may_be_compared_with_the_constants(self):
        self.assertIs(type(optmonitoring.GetPathnameKind("<string>")), int)
        self.assertEqual(optmonitoring.GetPathnameKind("<string>"), optmonitoring.kPseudoPathname)

    def test_pathname_may_be_a_keyword_and_a_subclass_of_str(self):
        class Name(str):
            pass

        self.assertEqual(optmonitoring.GetPathnameKind(pathname=Name("<frozen x>")), 3)

    def test_value_that_is_no_str(self):
        for value in (b"/a.py", None, 42):
            self.failing([KIND_DIRECT, KIND], TypeError, optmonitoring.GetPathnameKind, value)

    def test_str_without_utf8(self):
        self.failing([KIND_DIRECT, KIND], UnicodeEncodeError, optmonitoring.GetPathnameKind, "<\udc80>")

    def test_argument_errors_are_logged_by_the_wrapper_alone(self):
        self.assertEqual(self.failing([KIND], TypeError, optmonitoring.GetPathnameKind), "argument is missing")
        self.assertEqual(self.failing([KIND], TypeError, optmonitoring.GetPathnameKind, "a", "b"),
                         "Excess positional arguments passed to function")

    def test_log_of_a_failure_line_by_line(self):
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            with self.assertRaises(TypeError) as caught:
                optmonitoring.GetPathnameKind(42)
        report = [support.HEAD_LINE, "TypeError: %s\n" % caught.exception]
        self.assertEqual(log.lines, [KIND_DIRECT] + report + [KIND] + report)

    def test_does_not_leak(self):
        def use():
            optmonitoring.GetPathnameKind("/a.py")
            try:
                optmonitoring.GetPathnameKind(42)
            except TypeError:
                pass

        support.assert_no_leak(self, use)


@support.needs_monitoring
class InternalTableTest(Pathnames):
    """SetInternalPathnameDict() and how names are looked up in the table."""

    def is_internal(self, pathname):
        """What a look-up of the name says: the answer is kept in the record of a new code object."""
        return optmonitoring.CPerCodeObject(compile("pass", pathname, "exec"), None).fIsInternal

    def test_key_of_the_table_is_internal(self):
        self.assertIsNone(optmonitoring.SetInternalPathnameDict({"/pathnames/a.py": None}))
        self.assertIs(self.is_internal("/pathnames/a.py"), True)
        self.assertIs(self.is_internal("/pathnames/b.py"), False)

    def test_values_are_not_looked_at(self):
        optmonitoring.SetInternalPathnameDict({"/pathnames/a.py": False, "/pathnames/b.py": 0})
        self.assertTrue(self.is_internal("/pathnames/a.py"))
        self.assertTrue(self.is_internal("/pathnames/b.py"))

    def test_table_is_used_live_and_keeps_one_reference(self):
        table = {}
        count = sys.getrefcount(table)
        optmonitoring.SetInternalPathnameDict(d=table)
        self.assertEqual(sys.getrefcount(table), count + 1)
        table["/pathnames/a.py"] = 1
        self.assertTrue(self.is_internal("/pathnames/a.py"))
        optmonitoring.SetInternalPathnameDict({})
        self.assertEqual(sys.getrefcount(table), count)
        self.assertFalse(self.is_internal("/pathnames/a.py"))

    def test_setting_the_same_table_again(self):
        table = {"/pathnames/a.py": 1}
        count = sys.getrefcount(table)
        for _ in range(3):
            optmonitoring.SetInternalPathnameDict(table)
        self.assertEqual(sys.getrefcount(table), count + 1)
        self.assertTrue(self.is_internal("/pathnames/a.py"))

    def test_names_of_pseudo_files_are_never_internal(self):
        optmonitoring.SetInternalPathnameDict({"<string>": 1, None: 1, "": 1})
        self.assertFalse(self.is_internal("<string>"))
        self.assertFalse(self.is_internal(""))

    def test_frozen_and_shell_names_may_be_internal(self):
        optmonitoring.SetInternalPathnameDict({"<frozen a>": 1, "x-brixide-python-shell://1": 1})
        self.assertTrue(self.is_internal("<frozen a>"))
        self.assertTrue(self.is_internal("x-brixide-python-shell://1"))

    def test_look_up_is_plain(self):
        table = collections.defaultdict(int)
        optmonitoring.SetInternalPathnameDict(table)
        self.assertFalse(self.is_internal("/pathnames/a.py"))
        self.assertEqual(table, {})

    def test_object_that_is_no_dict_makes_nothing_internal(self):
        for table in (None, 42, ["/pathnames/a.py"], {"/pathnames/a.py"}, "/pathnames/a.py",
                      collections.UserDict({"/pathnames/a.py": 1})):
            optmonitoring.SetInternalPathnameDict(table)
            with support.logging_to(optmonitoring.kLogInternalFailures) as log:
                self.assertFalse(self.is_internal("/pathnames/a.py"))
                self.assertEqual(log.events, [])

    def test_errors_of_the_look_up_are_swallowed(self):
        class Equal(str):
            def __hash__(self):
                return hash("/pathnames/a.py")

            def __eq__(self, other):
                raise ValueError("compared")

        optmonitoring.SetInternalPathnameDict({Equal("x"): 1})
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            self.assertFalse(self.is_internal("/pathnames/a.py"))
            self.assertEqual(log.events, [])

    def test_comparison_may_replace_the_table(self):
        class Equal(str):
            def __hash__(self):
                return hash("/pathnames/a.py")

            def __eq__(self, other):
                optmonitoring.SetInternalPathnameDict(None)
                return True

        optmonitoring.SetInternalPathnameDict({Equal("x"): 1})
        self.assertTrue(self.is_internal("/pathnames/a.py"))

    def test_missing_argument_leaves_the_table(self):
        optmonitoring.SetInternalPathnameDict({"/pathnames/a.py": 1})
        message = self.failing([SET_DICT], TypeError, optmonitoring.SetInternalPathnameDict)
        self.assertEqual(message, "argument is missing")
        message = self.failing([SET_DICT], TypeError, optmonitoring.SetInternalPathnameDict, {}, {})
        self.assertEqual(message, "Excess positional arguments passed to function")
        self.assertTrue(self.is_internal("/pathnames/a.py"))


def frame_of(filename, source="frame = sys._getframe()", **names):
    """A frame whose code object has the file name."""
    names["sys"] = sys
    exec(compile(source, filename, "exec"), names)
    return names["frame"]


@support.needs_monitoring
class IsInternalFrameTest(Pathnames):
    """IsInternalFrame()."""

    def setUp(self):
        Pathnames.setUp(self)
        optmonitoring.SetInternalPathnameDict({"/pathnames/internal.py": 1})

    def test_frame_of_an_internal_file(self):
        self.assertIs(optmonitoring.IsInternalFrame(frame_of("/pathnames/internal.py")), True)

    def test_frame_of_another_file(self):
        self.assertIs(optmonitoring.IsInternalFrame(frame=frame_of("/pathnames/other.py")), False)

    def test_frame_of_a_pseudo_file(self):
        optmonitoring.SetInternalPathnameDict({"<string>": 1})
        self.assertIs(optmonitoring.IsInternalFrame(frame_of("<string>")), False)

    def test_object_that_is_no_frame_is_not_internal(self):
        with support.logging_to(1023) as log:
            for value in (None, 42, "frame", compile("pass", "/pathnames/internal.py", "exec")):
                self.assertIs(optmonitoring.IsInternalFrame(value), False)
            self.assertEqual(log.events, [])

    def test_record_is_made_with_the_frame(self):
        frame = frame_of("/pathnames/internal.py")
        optmonitoring.IsInternalFrame(frame)
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, False)
        self.assertEqual((record.fCanonicalPathname, record.fIsInternal), ("/pathnames/internal.py", True))
        self.assertIs(optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, False, frame), record)

    def test_answer_is_that_of_the_record(self):
        frame = frame_of("/pathnames/internal.py")
        self.assertTrue(optmonitoring.IsInternalFrame(frame))
        optmonitoring.SetInternalPathnameDict({})
        self.assertTrue(optmonitoring.IsInternalFrame(frame))

    def answer_for(self, value):
        """The answer when the record's read-only member holds this value."""
        frame = frame_of("/pathnames/other.py")
        optmonitoring.IsInternalFrame(frame)
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code)
        third_member = ctypes.c_void_p.from_address(id(record) + object.__basicsize__ + 3 * 8)
        own = third_member.value
        self.assertEqual(own, id(False))
        third_member.value = id(value)
        try:
            return optmonitoring.IsInternalFrame(frame)
        finally:
            third_member.value = own

    def test_member_of_the_record_is_tested_for_truth(self):
        for value, answer in [(True, True), (False, False), (None, False), (1, True), (0, False), ("", False),
                              ([0], True)]:
            self.assertIs(self.answer_for(value), answer, value)

    def test_member_that_fails_when_tested(self):
        class Undecided(object):
            def __bool__(self):
                raise ValueError("undecided")

        value = Undecided()
        self.assertEqual(self.failing([FRAME_DIRECT, FRAME], ValueError, self.answer_for, value), "undecided")

    def without_records(self):
        """A copy of the module whose class gives None in place of records."""
        def give_none(cls, *args):
            return None

        module = state.new_module()
        module.CPerCodeObject.__new__ = give_none
        module.SetInternalPathnameDict({"/pathnames/internal.py": 1})
        return module

    def test_without_a_record_the_canonical_name_is_looked_up(self):
        module = self.without_records()
        self.assertIs(module.IsInternalFrame(frame_of("/pathnames/internal.py")), True)
        self.assertIs(module.IsInternalFrame(frame_of("/pathnames/other.py")), False)
        self.assertIs(module.IsInternalFrame(frame_of("<string>")), False)

    def test_without_a_record_a_frozen_name_gives_way_to_the_file_of_the_frame(self):
        frame = frame_of("<frozen pathnames>", __file__="/pathnames/internal.py")
        self.assertIs(self.without_records().IsInternalFrame(frame), True)

    def test_without_a_record_errors_of_the_look_up_are_swallowed(self):
        class Equal(str):
            def __hash__(self):
                return hash("/pathnames/other.py")

            def __eq__(self, other):
                raise ValueError("compared")

        module = self.without_records()
        module.SetInternalPathnameDict({Equal("x"): 1})
        self.assertIs(module.IsInternalFrame(frame_of("/pathnames/other.py")), False)

    def test_without_a_record_a_failing_name_fails(self):
        module = self.without_records()
        with support.logging_to(0) as log:
            module.set_dprintf_file(log, -1, 0)
            module.set_dprintf_mask(optmonitoring.kLogInternalFailures)
            with self.assertRaises(TypeError):
                module.IsInternalFrame(frame_of("<frozen pathnames>", __file__=42))
            module.set_dprintf_file(None, -1, 0)
            self.assertEqual(log.failures, [FRAME_DIRECT, FRAME])

    def test_failure_of_the_record_is_logged_step_by_step(self):
        frame = frame_of("/pathnames/other.py")
        optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code)      # made without a frame: refining it fails
        self.failing(["Exception in CPerCodeObject_UpdatePathnameFromFrame_direct()\n",
                      "Exception in CPerCodeObject_GetPerCodeObject_direct()\n", FRAME_DIRECT, FRAME], TypeError,
                     optmonitoring.IsInternalFrame, frame)

    def test_call_without_a_frame_is_rejected(self):
        self.assertEqual(self.failing([FRAME], TypeError, optmonitoring.IsInternalFrame), "argument is missing")
        self.assertEqual(self.failing([FRAME], TypeError, optmonitoring.IsInternalFrame, 1, 2),
                         "Excess positional arguments passed to function")

    def test_does_not_leak(self):
        frame = frame_of("/pathnames/internal.py")
        support.assert_no_leak(self, lambda: optmonitoring.IsInternalFrame(frame))


def run_bare(call):
    """The result of a call at the bottom of the stack of a new thread: no Python frame stands below it."""
    results = []
    done = _thread.allocate_lock()
    done.acquire()
    work = itertools.chain(map(operator.call, [call]), map(operator.methodcaller("release"), [done]))
    _thread.start_new_thread(results.extend, (work,))
    if not done.acquire(timeout=60):
        raise AssertionError("the call failed or did not come back")
    return results[0]


@support.needs_monitoring
class GetNonInternalFrameTest(Pathnames):
    """GetNonInternalFrame(): piles of functions in files of their own make up the whole stack of a thread."""

    FILES = ["/pathnames/%s.py" % name for name in "abcdef"]

    def setUp(self):
        Pathnames.setUp(self)
        self.frames = {}           # by file name

    def pile(self, action, files=FILES):
        """The result of ACTION below one frame for each file, the innermost last."""
        call = action
        for name in reversed(files):
            names = {"sys": sys, "frames": self.frames, "call": call, "name": name}
            exec(compile("def step():\n    frames[name] = sys._getframe()\n    return call()", name, "exec"), names)
            call = names["step"]
        return run_bare(call)

    def show(self, *visible):
        """Make the files internal but the named ones."""
        table = {name: 1 for name in self.FILES if name[-4] not in visible}
        optmonitoring.SetInternalPathnameDict(table)

    def get(self, *args, **kwargs):
        """The letter of the file whose frame is found."""
        frame = self.pile(functools.partial(optmonitoring.GetNonInternalFrame, *args, **kwargs))
        if frame is None:
            return None
        self.assertIs(frame, self.frames[frame.f_code.co_filename])
        return frame.f_code.co_filename[-4]

    def test_running_frame_when_it_is_not_internal(self):
        self.assertIs(optmonitoring.GetNonInternalFrame(), sys._getframe())

    def test_internal_frames_are_skipped(self):
        self.show("b", "d")
        self.assertEqual(self.get(), "d")

    def test_back_count_counts_visible_frames(self):
        self.show("a", "b", "e")
        self.assertEqual([self.get(count) for count in range(5)], ["e", "b", "a", None, None])

    def test_all_frames_visible(self):
        self.show(*"abcdef")
        self.assertEqual([self.get(count) for count in range(7)], ["f", "e", "d", "c", "b", "a", None])

    def test_all_frames_internal_gives_none(self):
        self.show()
        self.assertEqual([self.get(count) for count in (None, 0, 1, 3)], [None] * 4)

    def test_none_zero_and_negative_counts_move_no_further(self):
        self.show("a", "c")
        for count in (None, 0, -1, -5, False, -sys.maxsize - 1):
            self.assertEqual(self.get(count), "c", count)

    def test_count_may_be_a_keyword_and_large(self):
        self.show("a", "c")
        self.assertEqual(self.get(back_count=1), "a")
        self.assertIsNone(self.get(sys.maxsize))

    def test_thread_without_a_python_frame_gives_none(self):
        self.assertIsNone(run_bare(optmonitoring.GetNonInternalFrame))

    def test_keeps_a_frame_that_cannot_be_classified_out_of_sight(self):
        def spoil_and_get():
            # a record made without a frame cannot be refined
            for letter in "f", "c":
                optmonitoring.CPerCodeObject.GetPerCodeObject(self.frames["/pathnames/%s.py" % letter].f_code)
            return [optmonitoring.GetNonInternalFrame(count).f_code.co_filename[-4] for count in (1, 2)]

        self.show("c", "d", "e", "f", "a")
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            self.assertEqual(self.pile(spoil_and_get), ["e", "d"])
        self.assertEqual(log.failures, ["Exception in CPerCodeObject_UpdatePathnameFromFrame_direct()\n",
                                        "Exception in CPerCodeObject_GetPerCodeObject_direct()\n",
                                        FRAME_DIRECT] * 2)

    def test_failure_of_the_outermost_frame_is_not_raised(self):
        names = {"get": optmonitoring.GetNonInternalFrame}
        exec(compile("def step():\n    return get()", "/pathnames/a.py", "exec"), names)
        optmonitoring.CPerCodeObject.GetPerCodeObject(names["step"].__code__)
        self.assertIsNone(run_bare(names["step"]))

    def test_bad_counts_fail(self):
        both = [NON_INTERNAL_DIRECT, NON_INTERNAL]
        get = optmonitoring.GetNonInternalFrame
        self.failing(both, TypeError, get, "1")
        self.failing(both, TypeError, get, 1.0)
        self.failing(both, OverflowError, get, sys.maxsize + 1)

    def test_argument_errors_are_logged_by_the_wrapper_alone(self):
        get = optmonitoring.GetNonInternalFrame
        self.assertEqual(self.failing([NON_INTERNAL], TypeError, get, 1, 2),
                         "Excess positional arguments passed to function")
        self.assertEqual(self.failing([NON_INTERNAL], TypeError, get, count=1),
                         "Excess keyword arguments passed to function")

    def test_does_not_leak(self):
        support.assert_no_leak(self, lambda: optmonitoring.GetNonInternalFrame(0))


if __name__ == "__main__":
    unittest.main()
