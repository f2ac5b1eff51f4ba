"""The types: the stubs say what the module has, the host is typed throughout, and a checker finds both once installed."""

import os
import unittest

import package_support
import packaging_tools
from package_support import FOLDER, ROOT, InstalledTestCase

GOOD = """\
import sys
from types import CodeType

import optmonitoring
from brixdebug.engine import Bdb
from optmonitoring import CInitialCallback, CPerCodeObject, CPerFile, CPerThread


class Tracer(Bdb):
    pass


def second_callback(code: CodeType, line: int) -> object:
    return sys.monitoring.DISABLE


def lines_of(record: CPerCodeObject) -> set[int]:
    return set(record.fEnabledBpLinenos or ())


callback = CInitialCallback(optmonitoring.kPyLineEventId, second_callback, 1)
callback.fAnySuspendThread = 1
sys.monitoring.register_callback(0, sys.monitoring.events.LINE, callback.Callback)
record = CPerCodeObject.GetPerCodeObject(lines_of.__code__)
record.fEnabledBpLinenos = lines_of(record) | {1}
known = CPerCodeObject.GetPerCodeObject(lines_of.__code__, False)
if known is not None:
    known.fSteppingEventsNeededCount += 1
names: list[str] = [each.fCanonicalPathname for each in CPerFile.GetAllPerFiles()]
ids: list[int] = [each.fThreadId for each in CPerThread.GetAllPerThreads()]
tracer = Tracer()
tracer.set_continue()
"""

# Each line is wrong.
BAD = """\
from optmonitoring import CInitialCallback, CPerCodeObject, CPerFile, dprintf, kLogCore
CInitialCallback("LINE", print, 1)
CPerCodeObject.GetPerCodeObject(print.__code__, False).fEnabledBpLinenos = None
CPerFile("a.py").fChecksum = "0"
dprintf(kLogCore, 1)
kLogCore = 5
"""


PYTHONS = {}            # name of an interpreter -> its row, and an environment that has the wheel and a type checker


def setUpModule():
    package_support.need_index()
    wheel, _ = package_support.make_wheel()
    for interpreter in package_support.interpreters():
        if "debug" not in interpreter["flavour"] or not environment_of(interpreter):
            python = packaging_tools.kept_venv(FOLDER, "types-" + interpreter["name"], interpreter,
                                               packaging_tools.TYPE_CHECKER)
            package_support.install(python, wheel)
            PYTHONS[interpreter["name"]] = interpreter, python
        else:
            PYTHONS[interpreter["name"]] = interpreter, None


def environment_of(debug_build):
    """The environment of the release build of the same version, whose packages a debug build can load."""
    for interpreter, python in PYTHONS.values():
        if interpreter["version"] == debug_build["version"] and interpreter["flavour"] == "release":
            return python
    return None


def python_of_a_user():
    return next(python for interpreter, python in PYTHONS.values() if interpreter["flavour"] == "release")


class TypesTest(InstalledTestCase):
    def mypy(self, *arguments, **variables):
        status, out, err = self.child(python_of_a_user(), "-m", "mypy", "--strict", "--cache-dir",
                                      os.path.join(FOLDER, "types-cache"), *arguments, **variables)
        self.assertEqual(err, "")
        return status, out

    def stubtest(self, interpreter, python):
        if python:
            command, variables = [python], {}
        else:
            command = interpreter["command"]
            variables = {"PYTHONPATH": package_support.site_packages(environment_of(interpreter)),
                         "MYPYPATH": os.path.join(ROOT, "debug", "tserver")}
        if interpreter["flavour"] == "freethreaded":
            variables["PYTHONWARNINGS"] = "ignore:%s:RuntimeWarning" % package_support.LOCK_WARNING
        return self.check_child(*command, "-m", "mypy.stubtest", "optmonitoring", **variables)

    def test_stubs_agree_with_the_module(self):
        for name, (interpreter, python) in PYTHONS.items():
            with self.subTest(name):
                out = self.stubtest(interpreter, python)
                self.assertEqual(out, "Success: no issues found in 1 module\n")

    def test_host_is_typed_throughout(self):
        for version in sorted({tuple(interpreter["version"][:2]) for interpreter, _ in PYTHONS.values()}):
            with self.subTest(version):
                status, out = self.mypy("--python-version", "%d.%d" % version, "-p", "brixbase", "-p", "brixdebug",
                                        MYPYPATH=os.path.join(ROOT, "debug", "host"))
                self.assertRegex(out, r"^Success: no issues found in \d+ source files\n$")
                self.assertEqual(status, 0)

    def test_checker_finds_what_is_installed(self):
        status, out = self.mypy(self.write("good.py", GOOD))
        self.assertEqual((status, out), (0, "Success: no issues found in 1 source file\n"))

    def test_checker_tells_what_is_wrong(self):
        _, out = self.mypy(self.write("bad.py", BAD))
        wrong = {int(line.split(":")[1]) for line in out.splitlines() if ": error: " in line}
        self.assertEqual(wrong, set(range(2, len(BAD.splitlines()) + 1)), out)


if __name__ == "__main__":
    unittest.main()
