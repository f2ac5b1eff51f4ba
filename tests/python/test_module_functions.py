"""The module's functions for the host: the log, canonical names and the checksum callback."""

import os
import sys
import tempfile
import unittest

import support

if hasattr(sys, "monitoring"):
    optmonitoring = support.load()

NOT_CALLABLE = "s must be a string or a callable that returns a string"


class Functions(unittest.TestCase):
    """A fresh module for each test."""

    def setUp(self):
        optmonitoring.reset()
        self.addCleanup(optmonitoring.reset)

    def raises(self, exception, message, function, *args, **kwargs):
        with self.assertRaises(exception) as caught:
            function(*args, **kwargs)
        self.assertIs(type(caught.exception), exception)
        self.assertEqual(str(caught.exception), message)

    def failing(self, lines, exception, function, *args, **kwargs):
        """The exception of a call that has to fail with these failure lines, each followed by its report."""
        with support.logging_to(optmonitoring.kLogInternalFailures) as log:
            with self.assertRaises(exception) as caught:
                function(*args, **kwargs)
        self.assertEqual(log.failures, lines)
        self.assertEqual(log.lines.count(support.HEAD_LINE), len(lines))
        return caught.exception


@support.needs_monitoring
class ArgumentsTest(Functions):
    """Argument errors come from the interpreter's parser and are not logged."""

    def parser_error(self, message, name, *args, **kwargs):
        with support.logging_to(1023) as log:
            self.raises(TypeError, message, getattr(optmonitoring, name), *args, **kwargs)
            self.assertEqual(log.events, [])

    def test_name_functions_need_a_pathname(self):
        for name in ("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname"):
            self.parser_error("%s() missing required argument 'pathname' (pos 1)" % name, name)
            self.parser_error("%s() takes at most 2 arguments (3 given)" % name, name, "a", "b", "c")

    def test_name_functions_take_keywords(self):
        for name in ("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname"):
            function = getattr(optmonitoring, name)
            self.assertEqual(function(pathname="<x>", checksum="1"), None if name.startswith("get") else "<x>")
            self.assertEqual(function("<x>", checksum=None), None if name.startswith("get") else "<x>")
            with self.assertRaisesRegex(TypeError, "name"):
                function(name="<x>")

    def test_set_dprintf_file_takes_three_positional_values(self):
        self.parser_error("set_dprintf_file() takes exactly 3 arguments (2 given)", "set_dprintf_file", None, -1)
        self.parser_error("set_dprintf_file() takes no keyword arguments", "set_dprintf_file", None,
                          -1, win32_handle=0)
        self.parser_error("'str' object cannot be interpreted as an integer", "set_dprintf_file", None, "1", 0)
        self.parser_error("'NoneType' object cannot be interpreted as an integer", "set_dprintf_file", None, 1, None)

    def test_set_dprintf_mask_takes_one_int(self):
        self.parser_error("set_dprintf_mask() takes exactly 1 argument (0 given)", "set_dprintf_mask")
        self.parser_error("'str' object cannot be interpreted as an integer", "set_dprintf_mask", "4")
        self.parser_error("set_dprintf_mask() takes no keyword arguments", "set_dprintf_mask", mask=4)
        with self.assertRaises(OverflowError):
            optmonitoring.set_dprintf_mask(1 << 31)

    def test_dprintf_needs_domain_and_s(self):
        self.parser_error("dprintf() missing required argument 'domain' (pos 1)", "dprintf")
        self.parser_error("dprintf() missing required argument 's' (pos 2)", "dprintf", 1)
        self.parser_error("'str' object cannot be interpreted as an integer", "dprintf", "1", "text")
        self.assertIsNone(optmonitoring.dprintf(s="text", domain=1))

    def test_checksum_functions(self):
        self.parser_error("set_checksum_callback() missing required argument 'callback' (pos 1)",
                          "set_checksum_callback")
        self.parser_error("get_checksum_callback() takes at most 0 arguments (1 given)", "get_checksum_callback", 1)
        with self.assertRaises(TypeError):
            optmonitoring.get_checksum_callback(callback=1)


@support.needs_monitoring
class MaskTest(Functions):
    """set_dprintf_mask() and the getter."""

    def test_set_mask_is_the_modules(self):
        with support.logging_to(0):
            for mask in (0, 1, 84, 1023, 0x7fffffff):
                self.assertIsNone(optmonitoring.set_dprintf_mask(mask))
                self.assertEqual(support.get_mask(), mask)

    def test_negative_mask_enables_all(self):
        with support.logging_to(-1):
            self.assertEqual(support.get_mask(), 0x7fffffff)

    def test_set_mask_leaves_the_process_wide_mask(self):
        optmonitoring.set_dprintf_mask(1)
        self.assertEqual(support.process_mask().value, 84)

    def test_fresh_import_has_the_default_mask(self):
        out = support.check_child(self, """
import support
m = support.load()
m.set_dprintf_file(support.LogFile(), -1, 0)
print(support.get_mask(), support.process_mask().value)
""")
        self.assertEqual(out, "84 84\n")

    def test_keeps_get_mask_failing_in_the_parser(self):
        self.raises(TypeError, "function takes exactly 13 arguments (0 given)", optmonitoring.get_dprintf_mask)
        self.raises(TypeError, "function takes exactly 13 arguments (1 given)", optmonitoring.get_dprintf_mask, 1)

    def test_keeps_get_mask_failing_with_any_number_of_arguments(self):
        for count in range(2, 30):
            with self.assertRaises((TypeError, SystemError)):
                optmonitoring.get_dprintf_mask(*range(count))

    def test_keeps_get_mask_failing_after_reset(self):
        optmonitoring.reset()
        self.raises(TypeError, "function takes exactly 13 arguments (0 given)", optmonitoring.get_dprintf_mask)


@support.needs_monitoring
class LogFileTest(Functions):
    """set_dprintf_file()."""

    def setUp(self):
        Functions.setUp(self)
        self.addCleanup(optmonitoring.set_dprintf_file, None, -1, 0)

    def test_file_is_used_by_the_module_and_by_the_process(self):
        log = support.LogFile()
        count = sys.getrefcount(log)
        self.assertIsNone(optmonitoring.set_dprintf_file(log, -1, 0))
        self.assertEqual(sys.getrefcount(log), count + 3)    # the process keeps it in two places
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, "from the module\n")
        support.library().do_dprintf(4, b"from the process\n")
        self.assertEqual(log.events, [("write", "from the module\n"), ("flush",), ("write", "from the process\n"),
                                      ("flush",)])

    def test_next_file_replaces_the_first(self):
        first, second = support.LogFile(), support.LogFile()
        counts = sys.getrefcount(first)
        optmonitoring.set_dprintf_file(first, -1, 0)
        optmonitoring.set_dprintf_file(second, -1, 0)
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, "text")
        self.assertEqual((first.writes, second.writes), ([], ["text"]))
        self.assertEqual(sys.getrefcount(first), counts)

    def test_none_switches_the_log_off(self):
        log = support.LogFile()
        optmonitoring.set_dprintf_file(log, -1, 0)
        optmonitoring.set_dprintf_file(None, -1, 0)
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, "text")
        support.library().do_dprintf(4, b"text")
        self.assertEqual(log.events, [])

    def test_mask_stays_when_the_file_changes(self):
        with support.logging_to(5):
            optmonitoring.set_dprintf_file(support.LogFile(), -1, 0)
            self.assertEqual(support.get_mask(), 5)

    def test_native_descriptor_goes_to_the_process_with_a_file(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        optmonitoring.set_dprintf_file(support.LogFile(), writer, 0)
        support.library().dprint_no_tstate(4, b"native\n")
        optmonitoring.set_dprintf_file(None, -1, 0)
        support.library().dprint_no_tstate(4, b"lost\n")
        os.close(writer)
        self.assertEqual(os.read(reader, 100), b"native\n")
        self.assertEqual(os.read(reader, 100), b"")

    def test_descriptor_is_narrowed_to_int(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        optmonitoring.set_dprintf_file(support.LogFile(), writer + (1 << 32), 0)
        support.library().dprint_no_tstate(4, b"native\n")
        os.close(writer)
        self.assertEqual(os.read(reader, 100), b"native\n")

    def test_win32_handle_is_only_stored(self):
        log = support.LogFile()
        optmonitoring.set_dprintf_file(log, -1, 1234)
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, "text")
        self.assertEqual(log.writes, ["text"])

    def test_any_object_is_taken_as_file(self):
        optmonitoring.set_dprintf_file(42, -1, 0)
        optmonitoring.set_dprintf_mask(1)
        self.assertIsNone(optmonitoring.dprintf(1, "text"))       # a failing write is swallowed


@support.needs_monitoring
class DprintfTest(Functions):
    """dprintf()."""

    def test_str_is_written_and_flushed(self):
        with support.logging_to(2) as log:
            self.assertIsNone(optmonitoring.dprintf(2, "some text\n"))
            self.assertEqual(log.events, [("write", "some text\n"), ("flush",)])

    def test_format_codes_and_other_alphabets_are_plain_text(self):
        with support.logging_to(2) as log:
            optmonitoring.dprintf(2, "100%s %d \u00e9\u4e2d\U0001f600")
            self.assertEqual(log.writes, ["100%s %d \u00e9\u4e2d\U0001f600"])

    def test_one_common_bit_suffices(self):
        with support.logging_to(6) as log:
            optmonitoring.dprintf(3, "a")
            optmonitoring.dprintf(-1, "b")
            optmonitoring.dprintf(9, "c")
            optmonitoring.dprintf(0, "d")
            self.assertEqual(log.writes, ["a", "b"])

    def test_domain_outside_the_named_ones(self):
        with support.logging_to(1 << 20) as log:
            optmonitoring.dprintf(1 << 20, "text")
            self.assertEqual(log.writes, ["text"])

    def test_process_wide_mask_does_not_matter(self):
        with support.logging_to(1, process_wide_mask=0) as log:
            optmonitoring.dprintf(1, "text")
            self.assertEqual(log.writes, ["text"])

    def test_callable_is_called_without_arguments_and_its_str_written(self):
        calls = []

        def text(*args, **kwargs):
            calls.append((args, kwargs))
            return "made"

        with support.logging_to(1) as log:
            optmonitoring.dprintf(1, text)
            self.assertEqual(log.events, [("write", "made"), ("flush",)])
        self.assertEqual(calls, [((), {})])

    def test_callable_is_not_called_when_the_domain_is_off(self):
        calls = []
        with support.logging_to(1) as log:
            optmonitoring.dprintf(2, lambda: calls.append(1))
            self.assertEqual((calls, log.events), ([], []))

    def test_callable_is_not_called_without_an_output(self):
        calls = []
        optmonitoring.set_dprintf_file(None, -1, 0)
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, lambda: calls.append(1))
        self.assertEqual(calls, [])

    def test_native_output_is_an_output_but_text_goes_to_the_file_alone(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        calls = []
        optmonitoring.set_dprintf_file(None, writer, 0)
        optmonitoring.set_dprintf_mask(1)
        optmonitoring.dprintf(1, lambda: calls.append(1) or "text")
        optmonitoring.set_dprintf_file(None, -1, 0)
        os.close(writer)
        self.assertEqual(calls, [1])
        self.assertEqual(os.read(reader, 100), b"")

    def test_instance_of_a_str_subclass_is_a_str_even_if_callable(self):
        class Text(str):
            def __call__(self):
                raise AssertionError("called")

        with support.logging_to(1) as log:
            optmonitoring.dprintf(1, Text("text"))
            optmonitoring.dprintf(1, lambda: Text("made"))
            self.assertEqual(log.writes, ["text", "made"])

    def test_nothing_is_checked_when_the_domain_is_off(self):
        with support.logging_to(1):
            self.assertIsNone(optmonitoring.dprintf(2, 42))

    def test_other_values_fail(self):
        mask = optmonitoring.kLogInternalFailures
        for value in (None, 42, b"bytes", ["text"]):
            error = self.failing(["Failure in dprintf_wrap()\n"], TypeError, optmonitoring.dprintf, mask, value)
            self.assertEqual(str(error), NOT_CALLABLE)

    def test_callable_with_another_result_fails(self):
        mask = optmonitoring.kLogInternalFailures
        for value in (None, 42, b"bytes", len):
            error = self.failing(["Failure in dprintf_wrap()\n"], TypeError, optmonitoring.dprintf, mask,
                                 lambda: value)
            self.assertEqual(str(error), NOT_CALLABLE)

    def test_failing_callable_fails(self):
        self.failing(["Failure in dprintf_wrap()\n"], ZeroDivisionError, optmonitoring.dprintf,
                     optmonitoring.kLogInternalFailures, lambda: 1 // 0)

    def test_str_without_utf8_fails(self):
        self.failing(["Failure in dprintf_wrap()\n"], UnicodeEncodeError, optmonitoring.dprintf,
                     optmonitoring.kLogInternalFailures, "\udc80")

    def test_failure_is_silent_without_its_domain(self):
        with support.logging_to(1) as log:
            self.raises(TypeError, NOT_CALLABLE, optmonitoring.dprintf, 1, 42)
            self.assertEqual(log.events, [])

    def test_callable_may_take_the_log_away(self):
        def text():
            optmonitoring.reset()
            optmonitoring.set_dprintf_file(None, -1, 0)
            return "text"

        with support.logging_to(1) as log:
            self.assertIsNone(optmonitoring.dprintf(1, text))
            self.assertEqual(log.events, [])

    def test_nested_call_from_the_files_write_is_dropped(self):
        class Nested(support.LogFile):
            def write(self, text):
                optmonitoring.dprintf(1, "nested")
                return support.LogFile.write(self, text)

        with support.logging_to(1, log=Nested()) as log:
            optmonitoring.dprintf(1, "outer")
            self.assertEqual(log.writes, ["outer"])

    def test_does_not_leak(self):
        def write():
            optmonitoring.dprintf(1, lambda: "text")
            try:
                optmonitoring.dprintf(1, 42)
            except TypeError:
                pass
            log.clear()

        with support.logging_to(1) as log:
            support.assert_no_leak(self, write)


@support.needs_monitoring
class CanonicalNamesTest(Functions):
    """The three name functions."""

    def setUp(self):
        Functions.setUp(self)
        self.folder = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, self.folder)

    def make_file(self, name):
        path = os.path.join(self.folder, name)
        with open(path, "w"):
            pass
        self.addCleanup(os.unlink, path)
        return path

    def make_link(self, name, target):
        path = os.path.join(self.folder, name)
        os.symlink(target, path)
        self.addCleanup(os.unlink, path)
        return path

    def test_unknown_name_is_none(self):
        self.assertIsNone(optmonitoring.lookup_canonical_pathname("/functions/a.py"))

    def test_registered_name_is_found(self):
        self.assertEqual(optmonitoring.register_canonical_pathname("/functions/a.py"), "/functions/a.py")
        self.assertEqual(optmonitoring.lookup_canonical_pathname("/functions/a.py"), "/functions/a.py")

    def test_first_name_of_a_file_stays(self):
        real = self.make_file("a.py")
        link = self.make_link("b.py", real)
        self.assertEqual(optmonitoring.register_canonical_pathname(real), real)
        self.assertEqual(optmonitoring.lookup_canonical_pathname(link), real)
        self.assertEqual(optmonitoring.register_canonical_pathname(link), real)

    def test_checksum_finds_another_name(self):
        optmonitoring.register_canonical_pathname("/functions/a.py", "sum")
        self.assertEqual(optmonitoring.lookup_canonical_pathname("/functions/b.py", "sum"), "/functions/a.py")
        self.assertEqual(optmonitoring.lookup_canonical_pathname(checksum="sum", pathname="/functions/b.py"),
                         "/functions/a.py")
        for checksum in (None, "", "other"):
            self.assertIsNone(optmonitoring.lookup_canonical_pathname("/functions/b.py", checksum))
        self.assertIsNone(optmonitoring.lookup_canonical_pathname("/functions/b.py"))

    def test_pseudo_names_come_back_from_lookup_and_register(self):
        name = "".join(["<str", "ing>"])
        self.assertIs(optmonitoring.lookup_canonical_pathname(name), name)
        self.assertEqual(optmonitoring.register_canonical_pathname(name), name)

    def test_get_registers_what_is_new(self):
        self.assertEqual(optmonitoring.get_canonical_pathname("/functions/a.py"), "/functions/a.py")
        self.assertEqual(optmonitoring.lookup_canonical_pathname("/functions/a.py"), "/functions/a.py")

    def test_get_answers_what_is_known(self):
        real = self.make_file("a.py")
        link = self.make_link("b.py", real)
        optmonitoring.register_canonical_pathname(real)
        self.assertEqual(optmonitoring.get_canonical_pathname(link), real)

    def test_get_passes_the_checksum_to_both(self):
        self.assertEqual(optmonitoring.get_canonical_pathname("/functions/a.py", "sum"), "/functions/a.py")
        self.assertEqual(optmonitoring.get_canonical_pathname("/functions/b.py", "sum"), "/functions/a.py")
        # the second answer came from the look-up, so the name was not registered
        self.assertIsNone(optmonitoring.lookup_canonical_pathname("/functions/b.py"))
        self.assertEqual(optmonitoring.get_canonical_pathname(pathname="/functions/c.py", checksum="other"),
                         "/functions/c.py")

    def test_get_of_empty_and_pseudo_names_is_none(self):
        for name in ("", "<string>", "<>", "<a b>", "<Frozen x>"):
            self.assertIsNone(optmonitoring.get_canonical_pathname(name), name)

    def test_get_gives_frozen_and_shell_names_back(self):
        for name in ("<frozen zipimport>", "<frozen importlib._bootstrap>", "x-brixide-python-shell://12"):
            self.assertIs(optmonitoring.get_canonical_pathname(name), name)

    def test_get_of_relative_and_compiled_names(self):
        real = os.path.join(os.getcwd(), "functions_relative.py")
        self.assertEqual(optmonitoring.get_canonical_pathname("functions_relative.pyc"), real)
        self.assertEqual(optmonitoring.get_canonical_pathname("<functions_relative.py"),
                         os.path.join(os.getcwd(), "<functions_relative.py"))

    def test_get_of_a_value_that_is_no_str(self):
        for value in (b"/functions/a.py", None, 42):
            self.failing(["Exception in GetPathnameKind_direct\n", "Failure in get_canonical_pathname()\n"], TypeError,
                         optmonitoring.get_canonical_pathname, value)

    def test_get_of_a_name_without_utf8(self):
        self.failing(["Exception in GetPathnameKind_direct\n", "Failure in get_canonical_pathname()\n"],
                     UnicodeEncodeError, optmonitoring.get_canonical_pathname, "/functions/\udc80.py")

    def test_checksum_that_is_no_text_counts_as_none(self):
        for number, checksum in enumerate((42, b"sum", ["sum"], "\udc80", "a\0b")):
            name = "/functions/%d.py" % number
            with support.logging_to(optmonitoring.kLogInternalFailures) as log:
                self.assertIsNone(optmonitoring.lookup_canonical_pathname(name, checksum))
                self.assertEqual(optmonitoring.get_canonical_pathname(name, checksum), name)
                self.assertEqual(optmonitoring.register_canonical_pathname(name, checksum), name)
                self.assertIsNone(optmonitoring.lookup_canonical_pathname("/functions/other.py", checksum))
                self.assertEqual(log.lines, [])

    def test_lookup_of_a_value_that_is_no_str(self):
        self.failing(["Failure in get_canonical_pathname_pystr()\n"], TypeError,
                     optmonitoring.lookup_canonical_pathname, 42)

    def test_register_of_a_value_that_is_no_str(self):
        self.failing([], TypeError, optmonitoring.register_canonical_pathname, 42)

    def test_registration_is_told_on_the_filenames_channel(self):
        with support.logging_to(optmonitoring.kLogFilenames) as log:
            optmonitoring.get_canonical_pathname("/functions/a.pyc")
            self.assertEqual(log.lines, ["Registered canonical in register_canonical_pathname_pystr()\n",
                                         "  pathname=/functions/a.pyc\n", "  canonical=/functions/a.py\n"])

    def test_does_not_leak(self):
        def use():
            optmonitoring.get_canonical_pathname("/functions/a.py", "sum")
            optmonitoring.lookup_canonical_pathname("/functions/b.py", "sum")
            optmonitoring.get_canonical_pathname("<frozen x>")
            optmonitoring.get_canonical_pathname("")
            try:
                optmonitoring.get_canonical_pathname(42)
            except TypeError:
                pass

        support.assert_no_leak(self, use)


@support.needs_monitoring
class ChecksumCallbackTest(Functions):
    """set_checksum_callback() and get_checksum_callback()."""

    def test_none_at_first(self):
        self.assertIsNone(optmonitoring.get_checksum_callback())

    def test_setter_returns_none_and_getter_the_callback(self):
        def callback(pathname):
            return pathname

        count = sys.getrefcount(callback)
        self.assertIsNone(optmonitoring.set_checksum_callback(callback=callback))
        self.assertIs(optmonitoring.get_checksum_callback(), callback)
        self.assertEqual(sys.getrefcount(callback), count + 1)
        self.assertIsNone(optmonitoring.set_checksum_callback(None))
        self.assertIsNone(optmonitoring.get_checksum_callback())
        self.assertEqual(sys.getrefcount(callback), count)

    def test_callback_need_not_be_callable(self):
        optmonitoring.set_checksum_callback(42)
        self.assertEqual(optmonitoring.get_checksum_callback(), 42)

    def test_callback_is_asked_for_the_checksum_of_a_new_file(self):
        asked = []
        optmonitoring.set_checksum_callback(lambda pathname: asked.append(pathname) or "sum")
        optmonitoring.CPerCodeObject.GetPerCodeObject(compile("pass", "/functions/a.py", "exec"))
        self.assertEqual(set(asked), {"/functions/a.py"})
        self.assertEqual(optmonitoring.lookup_canonical_pathname("/functions/b.py", "sum"), "/functions/a.py")

    def test_name_functions_do_not_ask_the_callback(self):
        asked = []
        optmonitoring.set_checksum_callback(asked.append)
        optmonitoring.get_canonical_pathname("/functions/a.py")
        self.assertEqual(asked, [])


if __name__ == "__main__":
    unittest.main()
