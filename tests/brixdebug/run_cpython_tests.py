"""Runs CPython's own test_bdb and test_pdb, those of the running version, on the host's classes.

    PYTHON run_cpython_tests.py [--stock] [--match TEXT]... [--report FILE --interpreter NAME] [MODULE]...

`bdb.Bdb` and `pdb.Pdb` are the host's classes in this process and in every child that a case starts, and a child that
would be `python -m pdb` is `python -m brixdebug`. With --stock everything stays as it is, for comparison.

The cases that cannot pass are in expected_failures.json, each with its reason; all others have to pass. The exit status
is 0 when just that happened: a case of the list that passes is an error, for it is to be taken off the list.

The environment variable OPTMONITORING_DIR names the folder of the built module.
"""

import argparse
import faulthandler
import importlib.util
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import host_support

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "cpython_suites"))
from cpython_cases import cases_of, listed      # noqa: E402

EXPECTED_FAILURES = HERE / "expected_failures.json"
MODULES = ("test.test_bdb", "test.test_pdb")
CASE_SECONDS = 120
VERSION = "%d.%d" % sys.version_info[:2]


# ---- The classes ----

def use_host_classes():
    """In this process and its children."""
    path = [str(HERE / "replaced"), str(host_support.HOST_DIR), host_support.module_dir()]
    sys.path[:0] = path
    os.environ["PYTHONPATH"] = os.pathsep.join(path)
    # A free-threaded interpreter says that it turns its lock on for the module.
    os.environ["PYTHONWARNINGS"] = "ignore:%s:RuntimeWarning" % host_support.LOCK_WARNING.split(" (GIL)")[0]
    import standard_classes
    standard_classes.replace()
    patch_children()
    patch_end_of_tracing()


def patch_children():
    make = subprocess.Popen.__init__

    def init(self, args, *more, **keywords):
        make(self, with_host(args), *more, **keywords)

    subprocess.Popen.__init__ = init


def with_host(args):
    """The command of a child with `-m brixdebug` for `-m pdb`."""
    if isinstance(args, (list, tuple)) and args and args[0] == sys.executable and "-m" in args:
        place = args.index("-m") + 1
        if args[place:place + 1] == ["pdb"]:
            return args[:place] + ["brixdebug"] + args[place + 1:]
    return args


def patch_end_of_tracing():
    """The cases end tracing with sys.settrace(), which is not what switches the host's events off."""
    from test import test_bdb
    leave = test_bdb.TracerRun.__exit__

    def leave_and_stop(self, *exc_info):
        self.tracer.stop_trace()
        return leave(self, *exc_info)

    test_bdb.TracerRun.__exit__ = leave_and_stop


def stop_tracing():
    """A case that failed may have left its debugger on."""
    from brixdebug.monitor import monitor
    if monitor.debugger is not None:
        monitor.stop(monitor.debugger)


def limit_children():
    """A child that hangs fails its case."""
    communicate = subprocess.Popen.communicate

    def limited(self, input=None, timeout=CASE_SECONDS / 2):
        try:
            return communicate(self, input, timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise

    subprocess.Popen.communicate = limited


# ---- Running ----

class Result(unittest.TextTestResult):
    """What happened to each case, by its name; a name that ran twice has failed when one of the two has."""

    def __init__(self, *args, **keywords):
        super().__init__(*args, **keywords)
        self.ran = set()
        self.failed = {}           # name: report
        self.skipped_names = {}    # name: reason
        self.after_case = lambda: None

    def startTest(self, test):
        faulthandler.dump_traceback_later(CASE_SECONDS, exit=True)
        self.ran.add(test.id())
        super().startTest(test)

    def stopTest(self, test):
        super().stopTest(test)
        self.after_case()
        faulthandler.cancel_dump_traceback_later()

    def _note(self, test, err):
        self.failed.setdefault(test.id(), self._exc_info_to_string(err, test))

    def addFailure(self, test, err):
        self._note(test, err)
        super().addFailure(test, err)

    def addError(self, test, err):
        self._note(test, err)
        super().addError(test, err)

    def addSubTest(self, test, subtest, err):
        if err is not None:
            self._note(test, err)
        super().addSubTest(test, subtest, err)

    def addSkip(self, test, reason):
        self.skipped_names[test.id()] = reason
        super().addSkip(test, reason)

    def printErrors(self):
        pass                       # printed by name, without those that are expected


def run(modules, matches, after_case):
    # What the cases print while they run is theirs; the report comes after.
    loader = unittest.defaultTestLoader
    cases = [case for case in cases_of(loader.loadTestsFromNames(modules))
             if not matches or any(match in case.id() for match in matches)]
    result = Result(unittest.runner._WritelnDecorator(sys.stderr), True, 0)
    result.after_case = after_case
    folder = tempfile.mkdtemp(prefix="cpython_tests.")
    os.chdir(folder)
    try:
        unittest.TestSuite(cases).run(result)
    finally:
        faulthandler.cancel_dump_traceback_later()
        os.chdir("/")
        shutil.rmtree(folder, ignore_errors=True)
    return result


# ---- Reporting ----

def report(result, expected):
    """Print what happened; the names of the cases that are in error."""
    wrong = []
    for name, reason in sorted(result.skipped_names.items()):
        print("skipped %s: %s" % (name, reason))
    for name in sorted(expected.keys() & result.ran):
        if name in result.failed:
            print("expected failure %s: %s" % (name, expected[name]["reason"]))
        elif name not in result.skipped_names:
            print("PASSED, BUT EXPECTED TO FAIL: %s" % name)
            wrong.append(name)
    for name, text in sorted(result.failed.items()):
        if name not in expected:
            print("FAILED: %s\n%s" % (name, text))
            wrong.append(name)
    return wrong


def lacking(modules):
    """Those of the modules that the interpreter comes without: Debian has them in packages of their own."""
    if not importlib.util.find_spec("test"):
        return list(modules)
    return [name for name in modules if not importlib.util.find_spec(name)]


def write_report(options, passed, failed, skipped):
    if options.report:
        with open(options.report, "w") as stream:
            json.dump({"interpreter": options.interpreter, "suite": "cpython", "passed": passed, "failed": failed,
                       "skipped": skipped}, stream)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--stock", action="store_true", help="the standard classes, nothing replaced")
    parser.add_argument("--match", action="append", metavar="TEXT", help="only cases whose name has TEXT in it")
    parser.add_argument("--report", metavar="FILE")
    parser.add_argument("--interpreter", default="%d.%d.%d" % sys.version_info[:3])
    parser.add_argument("modules", nargs="*", default=MODULES)
    options = parser.parse_args()
    missing = lacking(options.modules)
    if missing:
        reason = "this interpreter comes without " + ", ".join(missing)
        print("skipped: " + reason)
        write_report(options, 0, 0, {reason: len(missing)})
        return 0
    limit_children()
    if not options.stock:
        use_host_classes()
    result = run(options.modules, options.match, (lambda: None) if options.stock else stop_tracing)
    expected = {} if options.stock else listed(EXPECTED_FAILURES, VERSION)
    wrong = report(result, expected)
    passed = len(result.ran - result.failed.keys() - result.skipped_names.keys())
    print("%d cases: %d passed, %d expected failures, %d skipped, %d wrong" % (
        len(result.ran), passed, len(result.failed.keys() & expected.keys()), len(result.skipped_names), len(wrong)))
    write_report(options, passed, len(wrong), {reason: 1 for reason in result.skipped_names.values()})
    return 1 if wrong or not result.ran else 0


if __name__ == "__main__":
    sys.exit(main())
