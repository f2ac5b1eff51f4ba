"""The way in on a machine that lacks things: tools/setup, tools/choose_clang and .ci/run among stand-ins for programs."""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
BASICS = "sh cat cp cut dirname echo env ls mktemp rm sed sort touch tr".split()     # what the scripts themselves call

# Answers what tools/choose_clang asks: its version, and whether it links a fuzz target.
CLANG = "#!/bin/sh\n[ \"$1\" != -dumpversion ] || { echo %s; exit; }\nexit %d\n"

# Installs a package that `archive` has a file for, by copying that into PATH; the first time its lists are empty.
APT_GET = """#!/bin/sh
echo "$*" >> {base}/apt-calls
case $1 in
    update) touch {base}/lists; exit ;;
esac
shift
[ -e {base}/lists ] || exit 100
for word; do
    case $word in -*) continue ;; esac
    [ -e {base}/archive/$word ] || {{ echo "E: Unable to locate package $word" >&2; exit 100; }}
done
for word; do
    case $word in -*) continue ;; esac
    cp {base}/archive/$word/* {bin}/
done
"""


class StandInsTest(unittest.TestCase):
    def setUp(self):
        self.base = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.base)
        self.bin = os.path.join(self.base, "bin")
        os.mkdir(self.bin)
        for name in BASICS:
            os.symlink(shutil.which(name), os.path.join(self.bin, name))

    def script(self, name, text="#!/bin/sh\n", folder=None):
        path = os.path.join(folder or self.bin, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as output:
            output.write(text)
        os.chmod(path, 0o755)
        return path

    def run_tool(self, path, *words, **variables):
        """Exit status, standard output, standard error, with nothing in the environment but the stand-ins."""
        done = subprocess.run([path, *words], env=dict(variables, PATH=self.bin), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
        return done.returncode, done.stdout, done.stderr


class ChooseClangTest(StandInsTest):
    def clang(self, suffix, version, links=True):
        self.script("clang" + suffix)
        self.script("clang++" + suffix, CLANG % (version, 0 if links else 1))

    def chosen(self):
        """The suffix of the chosen one; None: there is none."""
        status, out, err = self.run_tool(os.path.join(ROOT, "tools", "choose_clang"))
        self.assertEqual(err, "")
        if status != 0:
            self.assertEqual((status, out), (1, ""))
            return None
        cc, cxx = out.splitlines()
        suffix = cc[len(os.path.join(self.bin, "clang")):]
        self.assertEqual((cc, cxx), (os.path.join(self.bin, "clang" + suffix), os.path.join(self.bin, "clang++" + suffix)))
        return suffix

    def test_plain_name_comes_first(self):
        self.clang("", "15.0.7")
        self.clang("-18", "18.1.8")
        self.assertEqual(self.chosen(), "")

    def test_of_the_numbered_the_highest(self):
        for version in ("9", "14", "16", "100"):
            self.clang("-" + version, version + ".0.0")
        self.assertEqual(self.chosen(), "-100")

    def test_older_than_14_is_passed_over(self):
        self.clang("", "13.0.1")
        self.clang("-14", "14.0.6")
        self.assertEqual(self.chosen(), "-14")

    def test_one_without_its_fuzzer_library_is_passed_over(self):
        self.clang("", "19.1.7", links=False)
        self.clang("-17", "17.0.6", links=False)
        self.clang("-16", "16.0.6")
        self.assertEqual(self.chosen(), "-16")

    def test_both_compilers_are_needed(self):
        self.clang("-15", "15.0.7")
        os.remove(os.path.join(self.bin, "clang-15"))
        self.assertIsNone(self.chosen())

    def test_nothing_that_fits(self):
        self.clang("", "13.0.1")
        self.clang("-19", "19.1.7", links=False)
        self.assertIsNone(self.chosen())


class SetupTest(StandInsTest):
    PROGRAMS = "gcc g++ cmake ninja python3 dpkg-source valgrind gdb readelf".split()
    WHATS = {
        "gcc": "  a C compiler: GCC from 11 on (Debian: gcc)\n",
        "g++": "  a C++17 compiler: G++ from 11 on (Debian: g++)\n",
        "cmake": "  CMake from 3.22 on (Debian: cmake)\n",
        "ninja": "  Ninja (Debian: ninja-build)\n",
        "python3": "  Python 3 (Debian: python3)\n",
    }

    def setUp(self):
        StandInsTest.setUp(self)
        self.archive = os.path.join(self.base, "archive")
        for name in self.PROGRAMS:
            self.script(name)
        self.script("clang")
        self.script("clang++", CLANG % ("19.1.7", 0))

    def apt_get(self, user):
        self.script("apt-get", APT_GET.format(base=self.base, bin=self.bin))
        self.script("id", "#!/bin/sh\necho %d\n" % user)

    def lack(self, *names):
        for name in names:
            os.remove(os.path.join(self.bin, name))

    def in_archive(self, package, program):
        self.script(program, folder=os.path.join(self.archive, package))

    def apt_calls(self):
        with open(os.path.join(self.base, "apt-calls")) as calls:
            return calls.read().replace("-y -qq --no-install-recommends ", "").splitlines()

    def setup(self, purpose):
        return self.run_tool(os.path.join(ROOT, "tools", "setup"), purpose)

    def test_nothing_is_said_where_nothing_is_missing(self):
        for purpose in ("build", "test", "package", "fuzz"):
            with self.subTest(purpose):
                self.assertEqual(self.setup(purpose), (0, "", ""))

    def test_unknown_purpose(self):
        self.assertEqual(self.setup("lunch"), (2, "", "tools/setup: unknown purpose: lunch\n"))

    def test_without_apt_everything_missing_is_named_by_what_it_is(self):
        self.lack(*self.WHATS)
        self.assertEqual(self.setup("build"), (1, "", "Missing:\n" + "".join(self.WHATS.values())))

    def test_without_root_the_command_is_said(self):
        self.apt_get(user=1000)
        self.lack("gcc", "ninja")
        self.assertEqual(self.setup("build"), (
            1, "", "Missing:\n" + self.WHATS["gcc"] + self.WHATS["ninja"] +
            "Install them, for example with:  sudo apt-get install gcc ninja-build\n"))
        self.assertFalse(os.path.exists(os.path.join(self.base, "apt-calls")))

    def test_what_only_a_part_needs_is_done_without(self):
        self.lack("clang", "valgrind", "gdb", "dpkg-source", "readelf")
        self.assertEqual(self.setup("test"), (0, "", """\
Not installed, and optional:
  dpkg-source (Debian: dpkg-dev): interpreters that are compiled are not installed
  valgrind (Debian: valgrind libc6-dbg): instructions are not counted
  gdb (Debian: gdb): attaching is not tested on 3.12 and 3.13
  readelf and nm (Debian: binutils): the built file is not looked into
  Clang from 14 on, with libFuzzer (Debian: clang libclang-rt-dev): the units are not fuzzed
"""))

    def test_no_library_for_tests_and_no_modules_of_python(self):
        self.script("g++", "#!/bin/sh\nexit 1\n")
        self.script("python3", "#!/bin/sh\nexit 1\n")
        status, out, err = self.setup("test")
        self.assertEqual((status, out), (1, ""))
        self.assertEqual(err, """\
Not installed, and optional:
  pip for python3 (Debian: python3-pip): the package is not tested
  venv for python3 (Debian: python3-venv): ruff and clang-format are not run
Missing:
  GoogleTest (Debian: libgtest-dev)
""")

    def test_fuzzing_needs_clang(self):
        self.lack("clang")
        self.assertEqual(self.setup("fuzz"), (
            1, "", "Missing:\n  Clang from 14 on, with libFuzzer (Debian: clang libclang-rt-dev)\n"))

    def test_another_machine_needs_compilers_of_its_own(self):
        for purpose, lines in (
                ("aarch64", ["  a C++17 compiler for aarch64 (Debian: g++-aarch64-linux-gnu)\n",
                             "  QEMU, which runs programs for aarch64 (Debian: qemu-user-static)\n"]),
                ("musl", ["  musl with its headers and its compiler (Debian: musl-tools)\n", "  make (Debian: make)\n"])):
            status, out, err = self.setup(purpose)
            self.assertEqual((status, out), (1, ""))
            for line in lines:
                self.assertIn(line, err)

    def test_root_installs_after_reading_the_lists_where_they_are_not_there(self):
        self.apt_get(user=0)
        self.lack("cmake", "ninja")
        self.in_archive("cmake", "cmake")
        self.in_archive("ninja-build", "ninja")
        self.assertEqual(self.setup("build"), (0, "Installing: cmake ninja-build\n", ""))
        self.assertEqual(self.apt_calls(), ["install cmake ninja-build", "update -qq", "install cmake ninja-build"])

    def test_a_package_that_the_archive_lacks_keeps_no_other_away(self):
        self.apt_get(user=0)
        self.lack("ninja", "clang", "valgrind")
        self.in_archive("ninja-build", "ninja")
        self.in_archive("clang", "clang")           # without libclang-rt-dev, as in some releases
        status, out, err = self.setup("test")
        self.assertEqual((status, out), (0, "Installing: ninja-build valgrind libc6-dbg clang libclang-rt-dev\n"))
        self.assertEqual(err, """\
E: Unable to locate package valgrind
E: Unable to locate package libc6-dbg
E: Unable to locate package libclang-rt-dev
Not installed, and optional:
  valgrind (Debian: valgrind libc6-dbg): instructions are not counted
""")

    def test_what_cannot_be_installed_and_is_needed_ends_the_work(self):
        self.apt_get(user=0)
        self.lack("cmake")
        self.assertEqual(self.setup("build"), (
            1, "Installing: cmake\n", "E: Unable to locate package cmake\nMissing:\n" + self.WHATS["cmake"] +
            "Install them, for example with:  sudo apt-get install cmake\n"))

    def test_relatives_of_debian_get_the_address_of_its_archive(self):
        self.assertEqual(self.setup("interpreters"), (0, "", ""))       # without apt it would help nobody
        self.apt_get(user=1000)
        self.script("python3", "#!/bin/sh\nexit 1\n")                   # tools/interpreters knows none
        self.assertEqual(self.setup("interpreters"), (
            0, "", "Not installed, and optional:\n  the address and the keys of Debian's archive (Debian: "
                   "ca-certificates debian-archive-keyring python-apt-common): interpreters are not installed\n"))


@unittest.skipUnless(shutil.which("cmake") and shutil.which("ninja"), "CMake or Ninja is not installed")
class ProcessorTest(unittest.TestCase):
    def test_an_unknown_one_is_an_error_that_names_what_to_measure(self):
        with tempfile.TemporaryDirectory() as build:
            done = subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_SYSTEM_NAME=Linux",
                                   "-DCMAKE_SYSTEM_PROCESSOR=riscv64", "-DOPTMONITORING_TESTS=OFF"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
        self.assertEqual(done.returncode, 1)
        self.assertIn('The module has not been measured on the processor "riscv64".', done.stdout)
        for named in ("tools/dump_layout", "optmonitoring_fastpath_internal.h", "debug/tserver/old_libc.cpp"):
            self.assertIn(named, done.stdout)


class ContinuousIntegrationTest(StandInsTest):
    def test_the_machines_settings_do_not_reach_the_tests(self):
        run = self.script("run", folder=os.path.join(self.base, "tree", ".ci"))
        shutil.copy(os.path.join(ROOT, ".ci", "run"), run)
        self.script("make", "#!/bin/sh\necho \"make $*\"\nenv\n")
        status, out, err = self.run_tool(
            run, PYTHONUNBUFFERED="1", PYTHONDONTWRITEBYTECODE="1", PYTHONS="3.12.1", TERM="xterm", LANG="C.UTF-8",
            LANGUAGE="de", LC_ALL="de_DE.UTF-8", LC_CTYPE="C.UTF-8", HOME="/home", PIP_CERT="/cert", https_proxy="proxy",
            TERMINAL="kept")
        self.assertEqual((status, err), (0, ""))
        commands = out.split("make ")[1:]
        self.assertEqual([command.splitlines()[0] for command in commands], [
            "test INTERPRETERS=3.14 3.15 3.14-debug 3.13-freethreaded",
            "test-long INTERPRETERS=3.14 3.15 3.14-debug 3.13-freethreaded", "asan", "test-machines"])
        for command in commands:
            names = {line.partition("=")[0] for line in command.splitlines()[1:]}
            self.assertEqual(names - {"PWD", "OLDPWD", "SHLVL", "_"}, {"PATH", "HOME", "PIP_CERT", "https_proxy", "TERMINAL"})


@unittest.skipUnless(shutil.which("make"), "make is not installed")
class OtherMachinesTest(StandInsTest):
    """`make test-machines`, with tools that only say what they were asked for."""

    def setUp(self):
        StandInsTest.setUp(self)
        for name in ("make", "nproc", "awk"):
            os.symlink(shutil.which(name), os.path.join(self.bin, name))
        self.tree = os.path.join(self.base, "tree")
        self.tool("setup")
        self.tool("interpreters")
        shutil.copy(os.path.join(ROOT, "Makefile"), self.tree)
        self.tool("run_ctest")
        self.script("cmake", "#!/bin/sh\n")

    def tool(self, name, status=0, musl=""):
        self.script(name, "#!/bin/sh\ncase \"$*\" in *list*) echo %s; exit ;; esac\necho \"%s $*\"\nexit %d\n" % (
            musl, name, status), os.path.join(self.tree, "tools"))

    def run_target(self):
        return self.run_tool("make", "-C", self.tree, "--no-print-directory", "test-machines")

    NO_AARCH64 = "aarch64 is not tested: what that needs cannot be installed here.\n"
    NO_MUSL = "musl is not tested: its interpreter is not built here; make test-musl builds it.\n"
    AARCH64 = "run_ctest build-aarch64 -R ^(cpp|session)_3[.]14[.]|^py_3[.]14[.].*[.]test_layout_truth\n"
    MUSL = "run_ctest build-musl -R ^(py|session)_\n"

    def test_where_nothing_can_be_installed_lines_say_so(self):
        self.tool("setup", status=1)
        self.assertEqual(self.run_target(), (0, "setup aarch64\n" + self.NO_AARCH64 + self.NO_MUSL, ""))

    def test_interpreter_that_cannot_be_had_is_done_without(self):
        self.tool("interpreters", status=1)
        self.assertEqual(self.run_target(), (
            0, "setup aarch64\nsetup interpreters\ninterpreters install 3.14-aarch64\n" + self.NO_AARCH64 + self.NO_MUSL, ""))

    def test_one_interpreter_for_aarch64(self):
        status, out, err = self.run_target()
        self.assertEqual((status, err), (0, ""))
        self.assertTrue(out.endswith("interpreters install 3.14-aarch64\n" + self.AARCH64 + self.NO_MUSL), out)

    def test_musl_where_its_interpreter_is_there(self):
        self.tool("interpreters", musl="3.13.5-musl")
        status, out, err = self.run_target()
        self.assertEqual((status, err), (0, ""))
        self.assertTrue(out.endswith(self.AARCH64 + "setup musl\n" + self.MUSL), out)

    def test_failed_test_fails_the_target(self):
        self.tool("run_ctest", status=1)
        status, out, _ = self.run_target()
        self.assertEqual(status, 2)
        self.assertTrue(out.endswith(self.AARCH64), out)


class SkippedPartsTest(StandInsTest):
    """What a machine lacks is counted and said in the table of results."""

    def test_interpreter_without_its_own_tests(self):
        self.script("__init__.py", "", os.path.join(self.base, "modules", "test"))
        report = os.path.join(self.base, "report.json")
        done = subprocess.run(
            [sys.executable, os.path.join(ROOT, "tests", "brixdebug", "run_cpython_tests.py"), "--report", report,
             "--interpreter", "X"],
            env=dict(os.environ, PYTHONPATH=os.path.join(self.base, "modules")), stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, universal_newlines=True)
        reason = "this interpreter comes without test.test_bdb, test.test_pdb"
        self.assertEqual((done.returncode, done.stdout), (0, "skipped: " + reason + "\n"))
        with open(report) as stream:
            self.assertEqual(json.load(stream), {"interpreter": "X", "suite": "cpython", "passed": 0, "failed": 0,
                                                 "skipped": {reason: 2}})

    @unittest.skipUnless(shutil.which("cmake") and shutil.which("ninja"), "CMake or Ninja is not installed")
    def test_no_clang(self):
        for folder in ("/usr/bin", "/bin", *os.environ["PATH"].split(os.pathsep)):
            for name in os.listdir(folder) if os.path.isdir(folder) else ():
                if not name.startswith(("clang", "python")) and not os.path.lexists(os.path.join(self.bin, name)):
                    os.symlink(os.path.join(folder, name), os.path.join(self.bin, name))
        os.symlink(sys.executable, os.path.join(self.bin, "python3"))
        build = os.path.join(self.base, "build")
        environment = dict(os.environ, PATH=self.bin)
        for command in (["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DOPTMONITORING_PYTHONS=none"],
                        ["ctest", "--test-dir", build, "-R", "^(fuzz_units|filter)$"],
                        [sys.executable, os.path.join(ROOT, "tools", "test_table.py"), os.path.join(build, "test-results")]):
            done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  universal_newlines=True)
            self.assertEqual(done.returncode, 1 if "test_table.py" in command[1] else 0, done.stdout)
        self.assertIn("6 x no Clang from 14 on that links libFuzzer was found; `tools/setup fuzz` installs one\n",
                      done.stdout)
        self.assertIn("1 x no release build of Python 3.12 or later was found: the event filter is not tested\n",
                      done.stdout)


if __name__ == "__main__":
    unittest.main()
