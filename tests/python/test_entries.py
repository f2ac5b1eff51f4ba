"""The entries of ctest: each test module has its own, each is run by one make target, and one test is run by its name."""

import glob
import io
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import run_tests
import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
TOOLS = os.path.join(ROOT, "tools")
sys.path.insert(0, TOOLS)
import ctest_entries        # noqa: E402

TARGETS = {"short": "test", "long": "test-long"}
TEN_MINUTES = 600
PLAIN_TEST = "InitMakesAnEmptyStringTable"       # of the suite HashTable, which needs no interpreter


def read(*names):
    with open(os.path.join(ROOT, *names)) as stream:
        return stream.read()


def modules(folder):
    return {os.path.basename(name)[:-3] for name in glob.glob(os.path.join(ROOT, "tests", folder, "test_*.py"))}


@unittest.skipUnless(shutil.which("ctest") and os.path.exists(os.path.join(support.module_dir(), "CTestTestfile.cmake")),
                     "the folder of the module is no build folder with tests")
class SplitTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.entries = {entry.name: entry.labels for entry in ctest_entries.entries(support.module_dir())}
        cls.python = {name: ctest_entries.split(name) for name in cls.entries if ctest_entries.split(name)[2]}

    def test_every_entry_has_one_label(self):
        self.assertEqual({name: labels for name, labels in self.entries.items()
                          if len(labels) != 1 or labels[0] not in ("short", "long", "separate")}, {})

    def test_every_module_has_an_entry(self):
        found = {module for _, _, module in self.python.values()}
        for folder in ("python", "brixdebug", "inject"):
            with self.subTest(folder):
                self.assertEqual(modules(folder) - found, set())
        packages = {name for name in self.entries if name.startswith("package_")}
        self.assertEqual({"test_" + name.partition("_")[2] for name in packages}, modules("package"))

    def test_separate_ones_are_run_with_every_change_in_one_interpreter(self):
        """What is never run with a change would be found broken by its next user."""
        labels = {}
        for name, (group, _, module) in self.python.items():
            labels.setdefault((group, module), []).extend(self.entries[name])
        self.assertEqual({key for key, found in labels.items() if "separate" in found and "long" not in found}, set())
        self.assertEqual({group for (group, _), found in labels.items() if "separate" in found} - {"inject", "life", "adapter"},
                         set())

    def test_debugger_is_tested_in_every_version(self):
        where = {}
        for group, interpreter, module in self.python.values():
            if group == "brixdebug" and interpreter != "any":
                where.setdefault(module, set()).add(interpreter)
        versions = set.union(*where.values())
        self.assertEqual({module: found for module, found in where.items() if found != versions}, {})

    def test_each_label_has_its_target(self):
        makefile = read("Makefile")
        for label, target in TARGETS.items():
            recipe = re.search(r"^%s:.*\n((?:\t.*\n)+)" % target, makefile, re.M).group(1)
            with self.subTest(target):
                self.assertEqual(re.findall(r"-L '\^(\w+)\$\$'", recipe), [label, label])      # what is said, what is run
                self.assertIn("make " + target, read(".ci", "run"))

    def test_short_ones_end_within_ten_minutes(self):
        """On two cores, by the figures of the tree, in one interpreter of each version and flavour."""
        figures = json.loads(read("tests", "durations.json"))
        kinds, seconds = {}, 0
        for name, labels in self.entries.items():
            group, interpreter, module = ctest_entries.split(name)
            kind = re.match(r"(?:(\d+\.\d+)\.\d+)?(.*)", interpreter or "any").groups()
            if labels == ["short"] and kinds.setdefault(kind, interpreter) == interpreter:
                seconds += figures.get("%s.%s" % (group, module) if module else group, 0)
        self.assertLess(0, seconds)
        self.assertLess(seconds / 2, TEN_MINUTES)


class EmulatedTest(unittest.TestCase):
    def test_each_one_chosen_exists(self):
        """They are run for one processor only, where a name that nothing has any more would be found late."""
        names = re.findall(r"^ +(test_\w+\.[\w.]+)\b", read("tests", "CMakeLists.txt"), re.M)
        self.assertGreater(len(names), 5)
        for name in names:
            module, owner, test = (name + "..").split(".")[:3]
            text = read("tests", "brixdebug", module + ".py")
            with self.subTest(name):
                self.assertIn("\nclass %s(" % owner, text)
                if test and "__" not in test:            # else made of a program's name and a session's
                    self.assertIn("    def %s(self)" % test, text)


class StandInTest(unittest.TestCase):
    """With a ctest that says what tests.json has, and a build folder that has nothing."""

    def setUp(self):
        self.folder = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.script("ctest", "#!/bin/sh\necho \"$*\" >arguments\ncat tests.json\n")

    def script(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as stream:
            stream.write(text)
        os.chmod(path, 0o755)
        return path

    def run_tool(self, name, *words):
        """Exit status, standard output, standard error."""
        done = subprocess.run([sys.executable, os.path.join(TOOLS, name), self.folder, *words], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, universal_newlines=True,
                              env=dict(os.environ, PATH=self.folder + os.pathsep + os.environ["PATH"]))
        return done.returncode, done.stdout, done.stderr

    def tests(self, *tests):
        self.script("tests.json", json.dumps({"tests": tests}))


class PlanTest(StandInTest):
    def plan(self, tests, record, *options):
        """What is said of these tests, after runs that took {test: seconds}."""
        self.tests(*({"name": name} for name in tests))
        os.makedirs(os.path.join(self.folder, "Testing", "Temporary"), exist_ok=True)
        self.script("Testing/Temporary/CTestCostData.txt",
                    "".join("%s 1 %s\n" % row for row in record.items()) + "---\na_test_that_failed\n")
        status, out, errors = self.run_tool("test_plan", *options)
        self.assertEqual((status, errors), (0, ""))
        with open(os.path.join(self.folder, "arguments")) as stream:
            self.assertEqual(stream.read().split(), ["--show-only=json-v1", *options])
        return out.replace(", %d at a time" % os.cpu_count(), ", N at a time")

    def test_time_of_the_last_runs(self):
        processes = os.cpu_count()
        tests = ["py_3.12.1.test_a%d" % number for number in range(processes)] + ["cpp_3.14.10-debug", "py_any.test_b"]
        record = dict.fromkeys(tests, 150)
        record["py_any.test_b"] = 0.5
        record["py_9.9.9.other"] = 5000
        self.assertEqual(self.plan(tests[:processes], record, "-L", "x"),
                         "Running %d test modules in 1 interpreter, N at a time: about 2 minutes.\n" % processes)
        self.assertEqual(self.plan(["py_any.test_b", "cpp_3.14.10-debug"], {"cpp_3.14.10-debug": 60, "py_any.test_b": 1}),
                         "Running 2 test modules in 1 interpreter, N at a time: about 60 seconds.\n")

    def test_without_a_run_the_figures_of_the_tree_hold(self):
        figure = json.loads(read("tests", "durations.json"))["adapter.scenarios"]
        self.assertGreater(figure, 90)
        self.assertEqual(self.plan(["adapter_3.99.0-debug.scenarios"], {}),
                         "Running 1 test module in 1 interpreter, N at a time: about %d minutes.\n" % round(figure / 60))

    def test_what_nobody_knows(self):
        self.assertEqual(self.plan(["py_any.test_new", "cpp_plain"], {"cpp_plain": 7}),
                         "Running 2 test modules, N at a time: about 7 seconds, and 1 module without a figure yet.\n")


    def test_kept_figures_are_averages_over_the_interpreters(self):
        for name in ("tools/test_plan", "tools/ctest_entries.py"):
            os.makedirs(os.path.join(self.folder, "tree", os.path.dirname(name)), exist_ok=True)
            shutil.copy(os.path.join(ROOT, name), os.path.join(self.folder, "tree", name))
        os.mkdir(os.path.join(self.folder, "tree", "tests"))
        figures = self.script("tree/tests/durations.json", json.dumps({"cpp": 9, "py.test_a": 9}))
        os.makedirs(os.path.join(self.folder, "Testing", "Temporary"))
        self.script("Testing/Temporary/CTestCostData.txt", "py_3.12.1.test_a 4 1.25\npy_3.14.10-debug.test_a 1 2.5\n"
                                                           "fuzz_hash 1 3\npy_any.test_b 0 0\n---\n")
        done = subprocess.run([sys.executable, os.path.join(self.folder, "tree", "tools", "test_plan"), "--keep", self.folder],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        with open(figures) as stream:
            self.assertEqual(json.load(stream), {"cpp": 9, "fuzz_hash": 3.0, "py.test_a": 1.9})


class OneTest(StandInTest):
    """tools/test_one: which program is run, how, and in which interpreter."""

    SHOW = "import json, os, sys; print(json.dumps([sys.argv[1:], os.environ.get('OF_THE_ENTRY'), os.getcwd()]))\n"

    def setUp(self):
        StandInTest.setUp(self)
        runner, hosted, node = [self.script(name, self.SHOW) for name in ("run_tests.py", "run_hosted.py", "run_node.py")]
        plain = self.script("plain_tests", "#!/bin/sh\n[ $1 != --gtest_list_tests ] || { printf 'HashTable.\\n  %s\\n"
                                           "FileOpsSwitch.\\n  Both  # comment\\n'; exit; }\necho $*\nexit 3\n" % PLAIN_TEST)
        self.inside = os.path.join(self.folder, "inside")
        os.mkdir(self.inside)
        self.tests(
            *(self.entry("%s_%s.%s" % (group, interpreter, module), sys.executable, runner, "--report", "x.json", "--interpreter",
                         interpreter, module)
              for group, interpreter, module in (
                  ("py", "3.12.1", "test_a"), ("py", "3.9.18", "test_a"), ("py", "3.14.10-debug", "test_a"),
                  ("py", "3.14.2", "test_a"), ("brixdebug", "3.14.2", "test_b"), ("docs", "any", "test_c"))),
            self.entry("cpp_plain", plain, "--gtest_output=xml:x"),
            self.entry("adapter_3.14.2.scenarios", sys.executable, node, "--report", "x.json", "run_scenarios.js"),
            *(self.entry("cpp_" + interpreter, sys.executable, hosted, "lib.so", "*", "x.xml")
              for interpreter in ("3.9.18", "3.14.2")))

    def entry(self, name, *command):
        return {"name": name, "command": command, "properties": [
            {"name": "ENVIRONMENT", "value": ["OF_THE_ENTRY=a=b"]}, {"name": "WORKING_DIRECTORY", "value": self.inside}]}

    def assert_runs(self, words, *expected):
        status, out, errors = self.run_tool("test_one", *words)
        self.assertEqual((status, errors), (0, ""))
        first, shown = out.splitlines()
        self.assertEqual(first, "%s in Python %s: %s" % (words[0], expected[0], sys.executable))
        self.assertEqual(json.loads(shown), [expected[1], "a=b", self.inside])

    def assert_refused(self, words, text):
        self.assertEqual(self.run_tool("test_one", *words), (2, "", "tools/test_one: " + text + "\n"))

    def test_newest_release_is_taken(self):
        self.assert_runs(["test_a"], "3.14.2", ["--interpreter", "3.14.2", "test_a"])

    def test_interpreter_is_named_in_any_length(self):
        for python, interpreter in (("3.12", "3.12.1"), ("3.12.1", "3.12.1"), ("3", "3.14.2"), ("3.9", "3.9.18"),
                                    ("3.14-debug", "3.14.10-debug"), ("3.14.10-debug", "3.14.10-debug")):
            with self.subTest(python):
                self.assert_runs(["test_a.A.test_x", python], interpreter, ["--interpreter", interpreter, "test_a.A.test_x"])

    def test_test_that_is_in_one_interpreter_runs_there(self):
        self.assert_runs(["test_c", "3.9"], "any", ["--interpreter", "any", "test_c"])

    def test_file_of_scenarios(self):
        self.assert_runs(["stepping.test.js", "3.14"], "3.14.2", ["run_scenarios.js", "stepping.test.js"])
        status, out, errors = self.run_tool("test_one", "nothing.test.js")
        self.assertEqual((status, out), (2, ""))
        self.assertRegex(errors, r"^tools/test_one: there are no scenarios nothing.test.js; there are: .* stepping.test.js .*\n$")

    def test_cpp_tests_inside_an_interpreter(self):
        self.assert_runs(["HashTable.*", "3.9"], "3.9.18", ["lib.so", "HashTable.*"])
        self.assert_runs(["DprintfFormat.*"], "3.14.2", ["lib.so", "DprintfFormat.*"])

    def test_cpp_tests_without_an_interpreter(self):
        name = "HashTable." + PLAIN_TEST
        self.assertEqual(self.run_tool("test_one", name), (
            3, "%s without an interpreter\n--gtest_filter=%s\n" % (name, name), ""))

    def test_names_that_do_not_exist(self):
        self.assert_refused(["test_x"], "there is no test module test_x; there are: test_a test_b test_c")
        self.assert_refused(["test_a", "3.1"], "test_a does not run in Python 3.1, but in: 3.12.1 3.9.18 3.14.10-debug 3.14.2")
        self.assert_refused(["test_b", "3.14-debug"], "test_b does not run in Python 3.14-debug, but in: 3.14.2")
        status, out, errors = self.run_tool("test_one", "NoSuchSuite.*")
        self.assertEqual((status, out), (2, ""))
        self.assertRegex(errors, r"^tools/test_one: there is no C\+\+ test NoSuchSuite\.\* .* there are: AbsoluteName\.\* .*"
                                 r"HashTable\.\* ")


class RunnerTest(unittest.TestCase):
    """tests/python/run_tests.py, by which ctest runs every Python test."""

    def run_tests(self, *names, cwd=ROOT, module_dir=None):
        done = subprocess.run([sys.executable, os.path.join(support.HERE, "run_tests.py"), *names], cwd=cwd,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
                              env=dict(os.environ, OPTMONITORING_DIR=module_dir or support.module_dir()))
        return done.returncode, done.stdout, done.stderr

    def test_tests_of_several_folders(self):
        status, out, errors = self.run_tests("test_imports.ImportsTest.test_no_circle", "test_help", cwd="/")
        self.assertEqual((status, out), (0, ""))
        self.assertRegex(errors, "\nRan 10 tests in ")

    def test_relative_folder_of_the_module(self):
        """The test starts children in a folder of their own."""
        for cwd in (ROOT, os.path.join(ROOT, "tests", "brixdebug")):
            with self.subTest(cwd):
                status, _, errors = self.run_tests("test_command_line.LogTest.test_errors", cwd=cwd,
                                                   module_dir=os.path.relpath(support.module_dir(), cwd))
                self.assertEqual(status, 0, errors)

    def test_failed_tests_are_named_once_as_make_takes_them(self):
        class Sample(unittest.TestCase):
            def test_fails_twice(self):
                for number in range(2):
                    with self.subTest(number):
                        self.fail()

            def test_is_an_error(self):
                raise ValueError

            def test_passes(self):
                pass

        class NeverBegun(Sample):
            @classmethod
            def setUpClass(cls):
                raise ValueError

        for each in (Sample, NeverBegun):
            each.__module__, each.__qualname__ = "test_sample", each.__name__
        tests = [unittest.defaultTestLoader.loadTestsFromTestCase(each) for each in (Sample, NeverBegun)]
        tests.append(unittest.defaultTestLoader.loadTestsFromName("test_that_is_not_there"))
        result = unittest.TextTestRunner(stream=io.StringIO(), resultclass=run_tests.Result).run(unittest.TestSuite(tests))
        names = ["test_sample.NeverBegun", "test_sample.Sample.test_fails_twice", "test_sample.Sample.test_is_an_error",
                 "test_that_is_not_there"]
        for interpreter, python in (("3.14.10-debug", " PYTHON=3.14.10-debug"), ("any", "")):
            result.stream = unittest.runner._WritelnDecorator(io.StringIO())
            run_tests.show_how_to_run_again(result, interpreter)
            self.assertEqual(result.stream.getvalue(), "".join(
                "To run it again: make test-one TEST=%s%s\n" % (name, python) for name in names))

    def test_failed_test_says_how_to_run_it_again(self):
        name = "test_command_line.LogTest.test_errors"
        with tempfile.TemporaryDirectory() as empty:
            status, _, errors = self.run_tests("--interpreter", "3.14", name, module_dir=empty)
        self.assertEqual((status, errors.splitlines()[-1]), (1, "To run it again: make test-one TEST=%s PYTHON=3.14" % name))

    def test_names_that_do_not_exist(self):
        for name, message in (
                ("test_imports.Imports", "class Imports of tests in test_imports; there are: ImportsTest"),
                ("test_imports.ImportsTest.test_x", "test test_x in test_imports.ImportsTest; there are: test_circle_is_found "
                                                    "test_imports_of_each_kind_are_seen test_no_circle")):
            with self.subTest(name):
                self.assertEqual(self.run_tests("test_help", name), (2, "", "run_tests.py: there is no %s\n" % message))
        there = sorted(name for folder in ("python", "brixdebug", "inject", "package", "editors") for name in modules(folder))
        self.assertEqual(self.run_tests("test_x.A"), (
            2, "", "run_tests.py: there is no test module test_x; there are: %s\n" % " ".join(there)))


if __name__ == "__main__":
    unittest.main()
