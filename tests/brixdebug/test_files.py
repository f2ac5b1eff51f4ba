"""Checksums of files, the copies found by them, and that a copy stays a file of its own."""

import hashlib
import os
import textwrap
import unittest

from host_support import check_child, scratch_folder

PRELUDE = """\
import optmonitoring as om
from brixdebug import files
"""


class FilesTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, name, text="answer = 42\n"):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
        return path

    def run_script(self, text):
        """Standard output of a child that runs the text in the scratch folder."""
        return check_child(self, "-c", PRELUDE + textwrap.dedent(text), cwd=self.folder)


class ChecksumTest(FilesTestCase):

    def checksum(self, expression):
        return self.run_script("import os\nprint(repr(files.checksum(%s)))" % expression)[:-1]

    def test_is_the_hash_of_the_bytes(self):
        data = bytes(range(256)) * 5000
        (self.folder / "data.py").write_bytes(data)
        expected = hashlib.blake2b(data, digest_size=16).hexdigest()
        self.assertEqual(self.checksum("'data.py'"), repr(expected))

    def test_empty_file_has_a_checksum(self):
        self.write("empty.py", "")
        self.assertRegex(self.checksum("'empty.py'"), r"^'[0-9a-f]{32}'$")

    def test_what_cannot_be_read_has_none(self):
        for expression in ("'missing.py'", "'.'", "''", "'nul\\0byte'", "'\\udcff.py'", "'<string>'", "None", "3.5"):
            with self.subTest(expression):
                self.assertEqual(self.checksum(expression), "None")

    def test_pipes_and_devices_have_none_and_are_not_waited_for(self):
        os.mkfifo(self.folder / "pipe.py")
        for expression in ("'pipe.py'", "'/dev/zero'", "'/dev/tty'"):
            with self.subTest(expression):
                self.assertEqual(self.checksum(expression), "None")

    def test_leaves_no_descriptor_open(self):
        self.write("a.py")
        out = self.run_script("""\
            import os
            def lowest_free():
                descriptor = os.open("a.py", os.O_RDONLY)
                os.close(descriptor)
                return descriptor
            before = lowest_free()
            for name in ("a.py", ".", "/dev/zero", "missing.py"):
                files.checksum(name)
            print(lowest_free() - before)
            """)
        self.assertEqual(out, "0\n")


class DuplicatesTest(FilesTestCase):

    def test_groups_have_the_names_of_files_with_equal_contents(self):
        for name, text in (("a/one.py", "1\n"), ("b/one.py", "1\n"), ("two.py", "2\n"),
                           ("a/three.py", "3\n"), ("b/three.py", "3\n"), ("c/three.py", "3\n")):
            self.write(name, text)
        out = self.run_script("""\
            import os
            om.set_checksum_callback(files.checksum)
            for folder in "cba":
                for name in ("three.py", "two.py", "one.py"):
                    path = os.path.join(folder, name)
                    om.CPerCodeObject(compile("0", path, "exec"), None)
            print([[os.path.relpath(name) for name in group] for group in files.duplicates()])
            """)
        self.assertEqual(out, "[['a/one.py', 'b/one.py'], ['a/three.py', 'b/three.py', 'c/three.py']]\n")

    def test_file_that_changed_is_grouped_by_what_it_is_now(self):
        self.write("a.py", "1\n")
        self.write("b.py", "1\n")
        out = self.run_script("""\
            import os, pathlib
            om.set_checksum_callback(files.checksum)
            records = [om.CPerFile.GetPerFile(os.path.abspath(name)) for name in ("a.py", "b.py")]
            before = files.duplicates()
            pathlib.Path("b.py").write_text("2\\n")
            records[1].UpdateChecksum()
            print(len(before), len(files.duplicates()))
            """)
        self.assertEqual(out, "1 0\n")

    def test_there_are_none_without_the_callback(self):
        self.write("a.py")
        self.write("b.py")
        self.assertEqual(self.run_script("""\
            for name in ("a.py", "b.py"):
                om.CPerCodeObject(compile("0", name, "exec"), None)
            print(files.duplicates())
            """), "[]\n")


class CopiesTest(FilesTestCase):
    """A copy has a canonical name and a record of its own, so a breakpoint hits in the right file."""

    def setUp(self):
        super().setUp()
        self.write("a/mod.py")
        self.write("b/mod.py")

    def test_records_of_code_in_copies_have_their_own_names(self):
        out = self.run_script("""\
            import os
            om.set_checksum_callback(files.checksum)
            codes = [compile("0", path, "exec") for path in ("a/mod.py", "b/mod.py")]
            for code in codes:
                record = om.CPerCodeObject(code, None)
                print(os.path.relpath(record.fCanonicalPathname), os.path.relpath(record.fPathnameToReport))
            print(len(om.CPerFile.GetAllPerFiles()))
            """)
        self.assertEqual(out, "a/mod.py a/mod.py\nb/mod.py b/mod.py\n2\n")

    def test_name_asked_for_without_a_checksum_is_the_copys_own(self):
        out = self.run_script("""\
            import os
            om.set_checksum_callback(files.checksum)
            for path in ("a/mod.py", "b/mod.py"):
                print(os.path.relpath(om.get_canonical_pathname(path)))
            """)
        self.assertEqual(out, "a/mod.py\nb/mod.py\n")

    def test_name_asked_for_with_a_checksum_may_be_another_files(self):
        """Why breakpoints never ask that way: the copy's own record gets its own name afterwards."""
        out = self.run_script("""\
            import os
            om.set_checksum_callback(files.checksum)
            for path in ("a/mod.py", "b/mod.py"):
                print(os.path.relpath(om.get_canonical_pathname(path, files.checksum(path))))
            print(os.path.relpath(om.CPerCodeObject(compile("0", "b/mod.py", "exec"), None).fCanonicalPathname))
            """)
        self.assertEqual(out, "a/mod.py\na/mod.py\nb/mod.py\n")


if __name__ == "__main__":
    unittest.main()
