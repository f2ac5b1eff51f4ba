"""The entries of ctest: each test module has its own, each is run by one make target, and what is said of them beforehand."""

import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
PLAN = os.path.join(ROOT, "tools", "test_plan")
TARGETS = {"short": "test", "long": "test-long"}
TEN_MINUTES = 600


def read(*names):
    with open(os.path.join(ROOT, *names)) as stream:
        return stream.read()


def entries():
    """{test: [label]} of the build folder."""
    out = subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=support.module_dir(), universal_newlines=True)
    return {test["name"]: [label for each in test["properties"] if each["name"] == "LABELS" for label in each["value"]]
            for test in json.loads(out)["tests"]}


def parts(test):
    """(group, interpreter, module) of a Python test's entry; None for the others."""
    found = re.match(r"([a-z]+)_(\d[\w.-]*?|any)\.(\w+)$", test)
    return found and found.groups()


def modules(folder):
    return {os.path.basename(name)[:-3] for name in glob.glob(os.path.join(ROOT, "tests", folder, "test_*.py"))}


@unittest.skipUnless(shutil.which("ctest") and os.path.exists(os.path.join(support.module_dir(), "CTestTestfile.cmake")),
                     "the folder of the module is no build folder with tests")
class SplitTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.entries = entries()
        cls.python = {name: parts(name) for name in cls.entries if parts(name)}

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
            group, interpreter, module = parts(name) or (name, "any", None)
            kind = re.match(r"(?:(\d+\.\d+)\.\d+)?(.*)", interpreter).groups()
            if labels == ["short"] and kinds.setdefault(kind, interpreter) == interpreter:
                seconds += figures.get("%s.%s" % (group, module) if module else group, 0)
        self.assertLess(0, seconds)
        self.assertLess(seconds / 2, TEN_MINUTES)


class PlanTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        with open(os.path.join(self.folder, "ctest"), "w") as stream:
            stream.write("#!/bin/sh\necho \"$*\" >arguments\ncat tests.json\n")
        os.chmod(stream.name, 0o755)
        os.makedirs(os.path.join(self.folder, "Testing", "Temporary"))

    def plan(self, tests, record, *options):
        """What is said of these tests, after runs that took {test: seconds}."""
        with open(os.path.join(self.folder, "tests.json"), "w") as stream:
            json.dump({"tests": [{"name": name} for name in tests]}, stream)
        with open(os.path.join(self.folder, "Testing", "Temporary", "CTestCostData.txt"), "w") as stream:
            stream.write("".join("%s 1 %s\n" % row for row in record.items()) + "---\na_test_that_failed\n")
        out = subprocess.check_output([sys.executable, PLAN, self.folder, *options], universal_newlines=True,
                                      env=dict(os.environ, PATH=self.folder + os.pathsep + os.environ["PATH"]))
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


if __name__ == "__main__":
    unittest.main()
