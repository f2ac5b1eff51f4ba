"""The commit hooks: which files and messages they refuse, what they let pass, and that they look at what is committed."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
COPIED = ["tools/lint", "tools/hooks/pre-commit", "tools/hooks/commit-msg", ".clang-format", ".shellcheckrc", "ruff.toml"]
GOOD_NATIVE = "int answer(void)\n{\n    return 42;\n}\n"
BAD_NATIVE = "int answer( void ) { return 42 ; }\n"
MESSAGE = "unit: change something\n\nIt was wrong.\n"


def has_tool(*names):
    """Whether one of the names is among the project's own tools or on PATH."""
    tools = os.path.join(os.environ.get("BUILD", os.path.join(ROOT, "build")), "tools", "bin")
    return any(shutil.which(name, path=os.pathsep.join([tools, os.environ.get("PATH", "")])) for name in names)


needs_clang_format = unittest.skipUnless(has_tool("clang-format", "clang-format-14"), "clang-format 14 is not installed")
needs_shellcheck = unittest.skipUnless(shutil.which("shellcheck"), "shellcheck is not installed")
needs_ruff = unittest.skipUnless(has_tool("ruff"), "ruff is not installed")


@unittest.skipUnless(shutil.which("git"), "git is not installed")
class HookTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.git("init", "--quiet")
        for name in COPIED:
            os.makedirs(os.path.join(self.folder, os.path.dirname(name)), exist_ok=True)
            shutil.copy(os.path.join(ROOT, name), os.path.join(self.folder, name))
        self.git("add", ".")
        self.commit("--no-verify")
        self.git("config", "core.hooksPath", "tools/hooks")

    def git(self, *arguments):
        """Exit status and everything written."""
        environment = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
        environment.setdefault("BUILD", os.path.join(ROOT, "build"))
        done = subprocess.run(["git", "-c", "user.name=tests", "-c", "user.email=tests@localhost"] + list(arguments),
                              cwd=self.folder, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              universal_newlines=True)
        return done.returncode, done.stdout

    def commit(self, *options, message=MESSAGE):
        return self.git("commit", "--quiet", "--message", message, *options)

    def write(self, name, text):
        os.makedirs(os.path.join(self.folder, os.path.dirname(name)), exist_ok=True)
        with open(os.path.join(self.folder, name), "w") as stream:
            stream.write(text)

    def stage(self, name, text):
        self.write(name, text)
        self.git("add", name)

    def commits(self):
        return int(self.git("rev-list", "--count", "HEAD")[1])

    def assert_refused(self, *words):
        status, out = self.commit()
        self.assertNotEqual(status, 0)
        for word in words:
            self.assertIn(word, out)
        self.assertEqual(self.commits(), 1)

    def assert_accepted(self):
        status, out = self.commit()
        self.assertEqual(status, 0, out)
        self.assertEqual(self.commits(), 2)


class FilesTest(HookTestCase):
    @needs_clang_format
    def test_layout_of_native_code(self):
        self.stage("debug/tserver/a.cpp", BAD_NATIVE)
        self.assert_refused("debug/tserver/a.cpp", "format")
        self.stage("debug/tserver/a.cpp", GOOD_NATIVE)
        self.assert_accepted()

    @needs_clang_format
    def test_the_index_counts_and_not_the_file(self):
        self.stage("debug/tserver/a.cpp", BAD_NATIVE)
        self.write("debug/tserver/a.cpp", GOOD_NATIVE)
        self.assert_refused("debug/tserver/a.cpp")
        self.stage("debug/tserver/a.cpp", GOOD_NATIVE)
        self.write("debug/tserver/a.cpp", BAD_NATIVE)
        self.assert_accepted()

    @needs_ruff
    def test_python(self):
        self.stage("tools/a.py", "import os\n")
        self.assert_refused("tools/a.py", "F401")
        self.stage("tools/a.py", "import os\n\nprint(os.name)\n")
        self.assert_accepted()

    @needs_ruff
    def test_scripts_without_a_suffix(self):
        self.stage("tools/a", "#!/usr/bin/env python3\nimport os\n")
        self.assert_refused("F401")

    @needs_shellcheck
    def test_shell_scripts(self):
        self.stage("tools/a", "#!/bin/sh\nrm $1\n")
        self.assert_refused("SC2086")
        self.stage("tools/a", "#!/bin/sh\nrm \"$1\"\n")
        self.assert_accepted()

    def test_headers_of_the_module(self):
        self.stage("debug/tserver/a.cpp", "#include <vector>\n")
        self.assert_refused("debug/tserver/a.cpp:1: the module does not include <vector>", "limits")

    def test_length_of_native_files(self):
        self.stage("tests/cpp/a.cpp", "// line\n" * 701)
        self.assert_refused("tests/cpp/a.cpp: longer than 700 lines")
        self.stage("tests/cpp/a.cpp", "// line\n" * 700)
        self.assert_accepted()

    def test_what_is_not_staged_is_not_looked_at(self):
        self.write("debug/tserver/a.cpp", "#include <vector>\n")
        self.stage("notes.txt", "text\n")
        self.assert_accepted()

    def test_a_file_that_goes(self):
        self.git("rm", "--quiet", ".shellcheckrc")
        self.stage("notes.txt", "text\n")
        self.git("reset", "--quiet", "HEAD", ".shellcheckrc")
        self.assert_accepted()


class MessageTest(HookTestCase):
    def git(self, *arguments):
        """Without what the hook of the files says of programs that are missing here."""
        status, out = super().git(*arguments)
        return status, re.sub("^lint: .* is not installed; .*\n", "", out, flags=re.M)

    def assert_message(self, message, *complaints):
        """The message is accepted, or refused with these complaints."""
        self.stage("notes.txt", str(self.commits()) + message)
        before = self.commits()
        status, out = self.commit(message=message)
        self.assertEqual(out, "".join("commit message: %s\n" % each for each in complaints))
        self.assertEqual((status == 0, self.commits() - before), (not complaints, 0 if complaints else 1))

    def test_whole_message(self):
        self.assert_message("unit: change something\n\nIt was wrong.")
        self.assert_message("tools/lint, tests: change\n\nWhy.\n\nMore of it.")

    def test_length_of_the_subject_in_characters(self):
        self.assert_message("unit: " + "\u00e4" * 66 + "\n\nWhy.")
        self.assert_message("unit: " + "x" * 67 + "\n\nWhy.", "the subject has 73 characters; 72 are the limit")

    def test_form_of_the_subject(self):
        for subject in ("Change something", "unit:", "unit:change", "Unit: change"):
            with self.subTest(subject):
                self.assert_message(subject + "\n\nWhy.", "the subject is not of the form `unit: summary`")

    def test_body(self):
        self.assert_message("unit: change", "a body is missing that says why")
        self.assert_message("unit: change\nWhy.", "an empty line is missing after the subject", "a body is missing that says why")

    def test_comments_are_no_body(self):
        self.stage("notes.txt", "text")
        self.write("message", "unit: change\n\n# Please enter a message\n")
        status, out = self.git("commit", "--quiet", "--file", "message", "--cleanup=strip")
        self.assertEqual((status, out, self.commits()), (1, "commit message: a body is missing that says why\n", 1))

    def test_all_that_is_wrong_is_named(self):
        self.assert_message("x" * 80, "the subject has 80 characters; 72 are the limit",
                            "the subject is not of the form `unit: summary`", "a body is missing that says why")

    def test_what_is_to_be_taken_apart_and_what_git_writes(self):
        for message in ("fixup! unit: change", "squash! unit: change", "amend! unit: change",
                        'Revert "unit: change"\n\nThis reverts commit 1.', "Merge branch 'x'"):
            with self.subTest(message):
                self.assert_message(message)


if __name__ == "__main__":
    unittest.main()
