"""The wheel as a user meets it: what is in it, and that the one file serves every interpreter it was made for."""

import email
import os
import re
import shutil
import tarfile
import unittest
import zipfile

import package_support
import packaging_tools
from package_support import LOCK_WARNING, ROOT, InstalledTestCase

SERVED = ("release", "freethreaded")        # the flavours that users have

HOST = """
import sys
import optmonitoring

monitoring, events = sys.monitoring, sys.monitoring.events
stops = []

def program():
    total = 0
    for n in range(3):
        total += n
    return total

def second_callback(code, line):
    stops.append((code.co_name, line - code.co_firstlineno))

def new_record(record):
    record.fEnabledBpLinenos = set()

line_callback = optmonitoring.CInitialCallback(optmonitoring.kPyLineEventId, second_callback, 1)
optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(new_record)
monitoring.use_tool_id(monitoring.DEBUGGER_ID, "a debugger")
monitoring.register_callback(monitoring.DEBUGGER_ID, events.LINE, line_callback.Callback)
code = program.__code__
monitoring.set_local_events(monitoring.DEBUGGER_ID, code, events.LINE)
record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
program()
print(stops)
record.fEnabledBpLinenos = {code.co_firstlineno + 3}
print(program(), stops)
"""

PROGRAM = """\
import sys

def double(n):
    result = 2 * n
    return result

print(double(21), sys.argv[1:])
"""

WHERE = """
import os, optmonitoring, brixbase, brixdebug
print(os.path.relpath(optmonitoring.__file__, {site!r}), os.path.relpath(brixbase.__file__, {site!r}),
      os.path.relpath(brixdebug.__file__, {site!r}))
"""

LOCK = """
import os, sys, warnings
with warnings.catch_warnings(record=True) as caught:
    warnings.simplefilter("always")
    import optmonitoring
needs_lock = not (3, 13, 5) <= sys.version_info[:3] < (3, 14) or os.uname().machine != "x86_64"     # PYVERSIONS
print(sys._is_gil_enabled(), needs_lock, [str(each.message) for each in caught], optmonitoring.GetPathnameKind("<x>"))
"""


def setUpModule():
    global wheel, sdist, wheel_names
    package_support.need_index()
    wheel, sdist = package_support.make_wheel()
    with zipfile.ZipFile(wheel) as archive:
        wheel_names = {name for name in archive.namelist() if not name.endswith("/")}


def python_files(package):
    host = os.path.join(ROOT, "debug", "host")
    return {os.path.relpath(os.path.join(folder, name), host) for folder, _, names in os.walk(os.path.join(host, package))
            for name in names if name.endswith((".py", ".typed"))}


def wheel_text(pattern):
    name, = [each for each in wheel_names if re.fullmatch(pattern, each)]
    with zipfile.ZipFile(wheel) as archive:
        return archive.read(name)


class WheelTest(InstalledTestCase):
    def test_holds_the_module_the_stubs_and_the_host(self):
        parts = {name for name in wheel_names if ".dist-info/" not in name}
        self.assertEqual(parts, {"optmonitoring.so", "optmonitoring-stubs/__init__.pyi"} |
                         python_files("brixbase") | python_files("brixdebug"))
        self.assertLess({"brixbase/py.typed", "brixdebug/py.typed", "brixdebug/__main__.py"}, parts)

    def test_is_for_every_python_3(self):
        tags = email.message_from_bytes(wheel_text(r".*/WHEEL")).get_all("Tag")
        self.assertEqual({tag.rsplit("-", 1)[0] for tag in tags}, {"py3-none"})

    @unittest.skipUnless(os.uname().machine == "x86_64", "other machines' C libraries have newer first versions")
    def test_says_that_it_loads_with_old_c_libraries(self):
        tags = email.message_from_bytes(wheel_text(r".*/WHEEL")).get_all("Tag")
        self.assertIn("py3-none-manylinux_2_17_x86_64", tags)

    def test_installers_keep_it_from_interpreters_without_monitoring(self):
        metadata = email.message_from_bytes(wheel_text(r".*/METADATA"))
        self.assertEqual((metadata["Name"], metadata["Requires-Python"]), ("optmonitoring", ">=3.12"))

    def test_version_is_that_of_the_tree(self):
        with open(os.path.join(ROOT, "debug", "host", "brixdebug", "version.py")) as stream:
            version = re.search(r'^__version__ = "(.*)"$', stream.read(), re.M).group(1)
        self.assertEqual(email.message_from_bytes(wheel_text(r".*/METADATA"))["Version"], version)
        self.assertEqual(os.path.basename(sdist), "optmonitoring-%s.tar.gz" % version)

    def test_module_shows_what_is_listed_and_nothing_of_the_tests(self):
        module = os.path.join(self.folder, "optmonitoring.so")
        with open(module, "wb") as stream:
            stream.write(wheel_text(r"optmonitoring\.so"))
        if not shutil.which("nm"):
            self.skipTest("nm is not installed")
        shown = packaging_tools.run("nm", "-D", "--defined-only", module)
        with open(os.path.join(ROOT, "debug", "tserver", "exported_symbols.txt")) as stream:
            self.assertEqual(sorted(line.split()[-1] for line in shown.splitlines()), stream.read().split())
        with open(module, "rb") as stream:
            self.assertNotIn(b"inject", stream.read())

    def test_sdist_holds_what_the_build_reads(self):
        with tarfile.open(sdist) as archive:
            names = {name.partition("/")[2] for name in archive.getnames()}
        self.assertLess({"pyproject.toml", "CMakeLists.txt", "README.md", "debug/tserver/optmonitoring.pyi",
                         "debug/tserver/optmonitoring_module.cpp"}, names)
        self.assertFalse([name for name in names if name.startswith(("build", ".interpreters"))])


class InstallationTest(InstalledTestCase):
    """Each test runs in every interpreter that the wheel is for, in an environment that was made for this."""

    @classmethod
    def setUpClass(cls):
        cls.pythons = []            # (name, interpreter of the environment, its flavour)
        for interpreter in package_support.interpreters():
            if interpreter["flavour"] in SERVED:
                name = interpreter["name"]
                python = packaging_tools.make_venv(interpreter, os.path.join(package_support.FOLDER, "fresh-" + name))
                package_support.install(python, wheel)
                cls.pythons.append((name, python, interpreter["flavour"]))

    @classmethod
    def tearDownClass(cls):
        for _, python, _ in cls.pythons:
            shutil.rmtree(os.path.dirname(os.path.dirname(python)), ignore_errors=True)

    def in_each(self, check):
        """Call `check` for each environment, with its interpreter and variables that hide the one known warning."""
        for name, python, flavour in self.pythons:
            with self.subTest(name):
                hide = {"PYTHONWARNINGS": "ignore:%s:RuntimeWarning" % LOCK_WARNING}
                check(python, hide if flavour == "freethreaded" else {})

    def test_all_parts_lie_in_site_packages(self):
        def check(python, variables):
            site = package_support.site_packages(python)
            out = self.check_child(python, "-c", WHERE.format(site=site), **variables)
            self.assertEqual(out, "optmonitoring.so brixbase/__init__.py brixdebug/__init__.py\n")
            self.assertTrue(os.path.exists(os.path.join(site, "optmonitoring-stubs", "__init__.pyi")))

        self.in_each(check)

    def test_filter_decides(self):
        program = self.write("host.py", HOST)

        def check(python, variables):
            out = self.check_child(python, program, **variables)
            self.assertEqual(out, "[]\n3 [('program', 3), ('program', 3), ('program', 3)]\n")

        self.in_each(check)

    def test_command_debugs_a_program(self):
        program = self.write("program.py", PROGRAM)
        commands = "break 4\ncontinue\np n\nnext\np result\nwhere\ncontinue\nquit\n"

        def check(python, variables):
            command = os.path.join(os.path.dirname(python), "brixdebug")
            out = self.check_child(command, program, "a", "b", input=commands, NO_COLOR="1", **variables)
            for text in ("Breakpoint 1 at %s:4" % program, "> %s(4)double()" % program, "(Pdb) 21\n", "(Pdb) 42\n",
                         "(Pdb)   %s(7)<module>()" % program, "42 ['a', 'b']\nThe program finished and will be restarted"):
                self.assertIn(text, out)

        self.in_each(check)

    def test_command_and_module_say_the_same(self):
        program = self.write("program.py", PROGRAM)
        commands = "step\nbreak 5\ncontinue\nthreads\nuntil\nreturn\nstep\nstep\nquit\n"

        def check(python, variables):
            command = os.path.join(os.path.dirname(python), "brixdebug")
            by_command = self.child(command, program, input=commands, NO_COLOR="1", **variables)
            by_module = self.child(python, "-m", "brixdebug", program, input=commands, NO_COLOR="1", **variables)
            self.assertEqual(by_command, by_module)
            self.assertIn("at the prompt", by_command[1])

        self.in_each(check)

    def test_interpreter_lock_is_as_with_the_plain_module(self):
        # Where the module needs a free-threaded interpreter's lock it asks for it; the user may refuse it, or want it.
        host = os.path.join(ROOT, "debug", "host")
        plain = os.pathsep.join([package_support.plain_module_dir(), host])

        def check(python, variables):
            for option in ("0", "1", None) if variables else ():
                asked = {} if option is None else {"PYTHON_GIL": option}
                installed = self.check_child(python, "-c", LOCK, **asked)
                self.assertEqual(installed, self.check_child(python, "-c", LOCK, PYTHONPATH=plain, **asked))
                is_on, needs_lock = installed.split()[:2]
                self.assertEqual(is_on, {"0": "False", "1": "True", None: needs_lock}[option])

        self.in_each(check)

    def test_nothing_stays_when_it_is_uninstalled(self):
        interpreter = package_support.interpreters()[0]
        python = packaging_tools.make_venv(interpreter, os.path.join(self.folder, "environment"))
        site = package_support.site_packages(python)
        package_support.install(python, wheel)
        self.assertIn("optmonitoring.so", os.listdir(site))
        packaging_tools.pip(package_support.FOLDER, python, "uninstall", "--quiet", "--yes", "optmonitoring")
        self.assertEqual(os.listdir(site) if os.path.isdir(site) else [], [])


if __name__ == "__main__":
    unittest.main()
