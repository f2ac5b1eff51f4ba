"""A build of the module for another machine, put where this interpreter finds it."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from host_support import HOST_DIR

MODULE = os.path.join(os.environ["OPTMONITORING_DIR"], "optmonitoring.so")
PROCESSORS = {"x86_64": 62, "aarch64": 183}        # in the header of an ELF file
MACHINE_AT = 18


class WrongBuildTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.path = os.path.join(self.folder, "optmonitoring.so")
        with open(MODULE, "rb") as stream:
            self.data = bytearray(stream.read())
        self.own = sys.implementation._multiarch
        self.processor, _, self.library = self.own.split("-")

    def start(self, program):
        return subprocess.run([sys.executable, "-c", program], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              universal_newlines=True,
                              env=dict(os.environ, PYTHONPATH=os.pathsep.join([self.folder, str(HOST_DIR)])))

    def last_words(self, data):
        with open(self.path, "wb") as stream:
            stream.write(data)
        done = self.start("import brixdebug")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        return done.stderr.splitlines()[-1]

    def explanation(self, machine):
        return "ImportError: %s is for %s, and this Python is for %s; install the wheel for this one" % (
            self.path, machine, self.own)

    def test_for_another_processor(self):
        if self.library != "gnu":
            self.skipTest("musl's loader does not look at the processor that a file names")
        other = next(name for name in PROCESSORS if name != self.processor)
        self.data[MACHINE_AT:MACHINE_AT + 2] = PROCESSORS[other].to_bytes(2, "little")
        self.assertEqual(self.last_words(self.data), self.explanation("%s-linux-%s" % (other, self.library)))

    def test_for_another_c_library(self):
        if self.library != "gnu":
            self.skipTest("glibc's name is longer than that of this library and cannot be put in its place")
        data = self.data.replace(b"\0libc.so.6\0", b"\0libc.so\0\0\0")
        self.assertNotEqual(data, self.data)
        self.assertEqual(self.last_words(data), self.explanation(self.processor + "-linux-musl"))

    def test_what_fails_for_another_reason_says_its_own(self):
        with open(self.path, "wb") as stream:
            stream.write(self.data[:1])
        loader = self.start("import optmonitoring").stderr.splitlines()[-1]
        self.assertRegex(loader, "^ImportError: .*%s" % re.escape(self.path))
        done = self.start("import brixdebug; brixdebug.Debugger")
        self.assertEqual((done.returncode, done.stderr.splitlines()[-1]), (1, loader))

    def test_what_loads_is_used_whatever_an_interpreter_says_of_itself(self):
        shutil.copy(MODULE, self.path)
        done = self.start("import sys; sys.implementation._multiarch = 'other'; import brixdebug; print(brixdebug.Debugger)")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "<class 'brixdebug.debugger.Debugger'>\n", ""))


if __name__ == "__main__":
    unittest.main()
