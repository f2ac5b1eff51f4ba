"""Runs test modules with unittest and writes down what happened; any interpreter from 2.7 on.

    PYTHON run_tests.py [--report FILE --interpreter NAME] NAME...

A NAME is a module, a class or a single test of any folder below: test_stops, test_stops.StopsTest.test_recursion.

The environment variable OPTMONITORING_DIR names the folder of the built module (default: build). Prints every skipped test
with its reason, and for every failed one the line that runs it again. Exit status 0 when all tests passed and at least one
ran, 2 when there is no test of a name.
"""
import argparse
import collections
import importlib
import json
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.dirname(HERE)
FOLDERS = [HERE] + [os.path.join(TESTS, each) for each in ("brixdebug", "inject", "package", "editors")]


def modules_of(folder):
    return [name[:-len(".py")] for name in os.listdir(folder) if name.startswith("test_") and name.endswith(".py")]


def missing(name):
    """What there is instead of a test that does not exist; None: it does. Its module can be imported from now on."""
    words = name.split(".")
    folder = next((each for each in FOLDERS if words[0] in modules_of(each)), None)
    if folder is None:
        return "test module %s; there are: %s" % (words[0], " ".join(sorted(sum(map(modules_of, FOLDERS), []))))
    for each in (HERE, folder):
        if each not in sys.path:
            sys.path.insert(0, each)
    if len(words) == 1:
        return None
    module = importlib.import_module(words[0])
    classes = {each: value for each, value in vars(module).items() if isinstance(value, type)
               and issubclass(value, unittest.TestCase) and unittest.defaultTestLoader.getTestCaseNames(value)}
    if words[1] not in classes:
        return "class %s of tests in %s; there are: %s" % (words[1], words[0], " ".join(sorted(classes)))
    names = unittest.defaultTestLoader.getTestCaseNames(classes[words[1]])
    if words[2:] and words[2:] not in [[each] for each in names]:
        return "test %s in %s; there are: %s" % (".".join(words[2:]), ".".join(words[:2]), " ".join(names))
    return None


class Result(unittest.TextTestResult):
    """Counts what passed: versions differ in whether testsRun counts skipped tests."""

    passed = 0

    def addSuccess(self, test):
        super(Result, self).addSuccess(test)
        self.passed += 1


def name_of(test):
    """The name by which a failed test is run again; of a class or module that could not be prepared, its name."""
    name = getattr(test, "test_case", test).id()
    if "(" in name:                          # setUpClass (test_stops.StopsTest)
        name = name[name.index("(") + 1:name.rindex(")")]
    if name.startswith("unittest.loader."):  # a module that could not be imported
        name = name.rpartition(".")[2]
    return name


def show_how_to_run_again(result, interpreter):
    """A line for each test that failed, however often."""
    failed = [test for test, _ in result.failures + result.errors] + list(getattr(result, "unexpectedSuccesses", []))
    python = "" if interpreter == "any" else " PYTHON=" + interpreter
    for name in sorted(set(map(name_of, failed))):
        result.stream.writeln("To run it again: make test-one TEST=%s%s" % (name, python))


def summary(interpreter, result):
    failed = len(result.failures) + len(result.errors) + len(getattr(result, "unexpectedSuccesses", []))
    skipped = collections.Counter(reason for _, reason in result.skipped)
    return {"interpreter": interpreter, "suite": "python", "failed": failed, "skipped": skipped,
            "passed": result.passed}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--report")
    parser.add_argument("--interpreter", default="%d.%d.%d" % sys.version_info[:3])
    parser.add_argument("names", nargs="+", metavar="NAME")
    options = parser.parse_args()
    # tests start children in other folders
    os.environ["OPTMONITORING_DIR"] = os.path.abspath(os.environ.get("OPTMONITORING_DIR") or os.path.join(TESTS, "..", "build"))
    for instead in filter(None, map(missing, options.names)):
        sys.stderr.write("run_tests.py: there is no %s\n" % instead)
        return 2
    result = unittest.TextTestRunner(verbosity=1, resultclass=Result).run(
        unittest.defaultTestLoader.loadTestsFromNames(options.names))
    for test, reason in result.skipped:
        print("skipped %s: %s" % (test, reason))
    show_how_to_run_again(result, options.interpreter)
    counts = summary(options.interpreter, result)
    if options.report:
        with open(options.report, "w") as stream:
            json.dump(counts, stream)
    ran = counts["passed"] + sum(counts["skipped"].values())
    return 0 if counts["failed"] == 0 and ran else 1


if __name__ == "__main__":
    sys.exit(main())
