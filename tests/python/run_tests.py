"""Runs test modules with unittest and writes down what happened; any interpreter from 2.7 on.

    PYTHON run_tests.py [--report FILE --interpreter NAME] NAME...

A NAME is a module, a class or a single test of any folder below: test_stops, test_stops.StopsTest.test_recursion.

Prints every skipped test with its reason. Exit status 0 when all tests passed and at least one ran.
"""
import argparse
import collections
import json
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
FOLDERS = ["brixdebug", "inject", "package", "editors"]     # those beside this one that have test modules


def folder_of(name):
    """The folder of a test's module; this one where there is no such file."""
    folders = [HERE] + [os.path.join(os.path.dirname(HERE), each) for each in FOLDERS]
    return next((each for each in folders if os.path.exists(os.path.join(each, name.split(".")[0] + ".py"))), HERE)


def load(names):
    for folder in [HERE] + [folder_of(name) for name in names]:
        if folder not in sys.path:
            sys.path.insert(0, folder)
    return unittest.defaultTestLoader.loadTestsFromNames(names)


class Result(unittest.TextTestResult):
    """Counts what passed: versions differ in whether testsRun counts skipped tests."""

    passed = 0

    def addSuccess(self, test):
        super(Result, self).addSuccess(test)
        self.passed += 1


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
    result = unittest.TextTestRunner(verbosity=1, resultclass=Result).run(load(options.names))
    for test, reason in result.skipped:
        print("skipped %s: %s" % (test, reason))
    counts = summary(options.interpreter, result)
    if options.report:
        with open(options.report, "w") as stream:
            json.dump(counts, stream)
    ran = counts["passed"] + sum(counts["skipped"].values())
    return 0 if counts["failed"] == 0 and ran else 1


if __name__ == "__main__":
    sys.exit(main())
