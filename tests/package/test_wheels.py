"""The wheels for each machine: what is in them, and that each is installed and used in an interpreter of its kind."""

import glob
import os
import shutil
import sys
import tempfile
import unittest
import zipfile

import package_support
import packaging_tools
from package_support import ROOT, InstalledTestCase

FOLDER = os.path.join(package_support.FOLDER, "wheels")
X86_64, AARCH64 = 62, 183           # in the header of an ELF file

# the wheel's platform: (the machine as tools/interpreters names it, the module's processor)
KINDS = {
    "manylinux_2_17_x86_64": ("", X86_64),
    "manylinux_2_17_aarch64": ("aarch64", AARCH64),
    "musllinux_1_2_x86_64": ("musl", X86_64),
}
LACKS = "tools/setup %s installs the compiler that this machine lacks"
COMPILERS = {"aarch64": "aarch64-linux-gnu-g++", "musl": "musl-gcc"}

PROGRAM = """\
import threading

def double(n):
    result = 2 * n
    return result

worker = threading.Thread(target=double, args=[21])
worker.start()
worker.join()
print("end")
"""
SESSION = "break 5\ncontinue\np result\nthreads\ncontinue\nquit\n"


def setUpModule():
    package_support.need_index()
    for purpose, compiler in COMPILERS.items():
        if not shutil.which(compiler):
            raise unittest.SkipTest(LACKS % purpose)
    packaging_tools.run(sys.executable, os.path.join(ROOT, "tools", "make_wheel"), "--all",
                        env=packaging_tools.environment(BUILD=packaging_tools.BUILD))


def wheel(platform):
    path, = glob.glob(os.path.join(FOLDER, "*-py3-none-*%s.whl" % platform))
    return path


class ContentTest(unittest.TestCase):
    def test_there_is_one_for_each_machine(self):
        self.assertEqual(len(glob.glob(os.path.join(FOLDER, "*.whl"))), len(KINDS))
        for platform in KINDS:
            with self.subTest(platform):
                self.assertTrue(wheel(platform))

    def test_they_hold_the_same_but_for_the_module(self):
        contents = []
        for platform in KINDS:
            with zipfile.ZipFile(wheel(platform)) as archive:
                contents.append({name: archive.read(name) for name in archive.namelist()
                                 if ".dist-info/" not in name and not name.endswith("/")})
        modules = [content.pop("optmonitoring.so") for content in contents]
        self.assertEqual([content == contents[0] for content in contents], [True] * len(KINDS))
        self.assertEqual([int.from_bytes(module[18:20], "little") for module in modules],
                         [processor for _, processor in KINDS.values()])

    def test_they_ask_for_the_library_that_they_are_for(self):
        for platform in KINDS:
            with self.subTest(platform), zipfile.ZipFile(wheel(platform)) as archive:
                module = archive.read("optmonitoring.so")
                self.assertEqual(b"\0libc.so.6\0" in module, platform.startswith("manylinux"))
                self.assertEqual(b"\0libc.musl-x86_64.so.1\0" in module, platform.startswith("musllinux"))


class UseTest(InstalledTestCase):
    @classmethod
    def setUpClass(cls):
        cls.folders = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.folders)
        cls.pythons, cls.lacking = {}, []
        for platform, (machine, _) in KINDS.items():
            found = [each for each in packaging_tools.interpreters(machine) if each["flavour"] == "release"]
            if found:
                cls.pythons[platform] = packaging_tools.make_venv(found[-1], os.path.join(cls.folders, platform))
            else:
                cls.lacking.append(platform)

    def python(self, platform):
        if platform in self.lacking:
            self.skipTest("no interpreter for %s: tools/interpreters install gets one" % platform)
        return self.pythons[platform]

    def check(self, platform):
        python = self.python(platform)
        package_support.install(python, wheel(platform))
        program = self.write("program.py", PROGRAM)
        out = self.check_child(python, "-m", "brixdebug", program, input=SESSION, NO_COLOR="1")
        for text in ("Breakpoint 1 at %s:5" % program, "> %s(5)double()" % program, "(Pdb) 42\n", "at the prompt",
                     "end\nThe program finished and will be restarted"):
            self.assertIn(text, out)

    def test_glibc_on_x86_64(self):
        self.check("manylinux_2_17_x86_64")

    def test_glibc_on_aarch64(self):
        self.check("manylinux_2_17_aarch64")

    def test_musl_on_x86_64(self):
        self.check("musllinux_1_2_x86_64")

    def test_installers_refuse_those_for_other_machines(self):
        python = self.python("manylinux_2_17_x86_64")
        for platform in "manylinux_2_17_aarch64", "musllinux_1_2_x86_64":
            with self.subTest(platform):
                self.assertRaisesRegex(packaging_tools.PackagingError, "is not a supported wheel on this platform",
                                       package_support.install, python, wheel(platform))


if __name__ == "__main__":
    unittest.main()
