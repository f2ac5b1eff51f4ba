"""tools/interpreters, run as a program among stand-ins: a PATH, a pyenv folder, an apt-get and a dpkg of our own."""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import sysconfig
import tempfile
import time
import unittest

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "tools", "interpreters")
NAMES = ("3.13 3.14 3.15 3.14-debug 3.15-debug 3.13-freethreaded 3.11-tracerefs 3.13-aarch64 3.14-aarch64 3.15-aarch64 "
         "3.13-musl 3.13-freethreaded-tsan")

# Runs the tool with what a package knows about Debian's archive replaced.
RUN_TOOL = """
import runpy, sys
del sys.argv[0]
tool, template = sys.argv[0], sys.argv.pop(1)
names = runpy.run_path(tool)
names["template_mirrors"].__globals__["DEBIAN_TEMPLATE"] = template
sys.exit(names["main"]())
"""

# Stands in for an interpreter: answers the tool's question about itself, and passes every check.
INTERPRETER = """#!/bin/sh
[ "$1" = -ES ] || { %(other)s; }
echo '{"executable": "%(executable)s", "version": [%(version)s], "cpython": %(cpython)s, "flavour": "%(flavour)s", \
"multiarch": "%(multiarch)s"}'
"""

# Stands in for apt-get. Writes down its arguments; what a test wants to fail, it puts in front.
APT_GET = """#!/bin/sh
echo "$*" >> %(base)s/apt-calls
%(special)s
case "$*" in
"update --print-uris") echo "'http://archive.test/debian/dists/bookworm/InRelease' a 0" ;;
*" update") cp "${2%%/*}/sources.list" %(base)s/sources ;;
*" --download-only -o Dir::Cache::archives="*) folder=${6#*=}; echo > "$folder/package_1.deb" ;;
esac
"""

# Stands in for the emulator: writes down what it runs, and under which name.
QEMU = """#!/bin/sh
echo "$*" >> %(base)s/emulated
shift 2
[ "$1" != -0 ] || shift 2
exec "$@"
"""

# Stands in for dpkg: "unpacks" an interpreter of the version in its name, a loader and nothing else.
DPKG = """#!/bin/sh
mkdir -p "$3/usr/lib/arch" "$3/usr/bin" "$3/usr/share/doc"
for name in lib/arch/ld-linux-arch.so.2 bin/patchelf; do
    printf '#!/bin/sh\\necho "$*" >> %(base)s/loader-calls\\n' > "$3/usr/$name"
    chmod +x "$3/usr/$name"
done
for minor in 13 14 15; do
    cp %(base)s/interpreter-$minor "$3/usr/bin/python3.$minor"
done
"""


@unittest.skipIf(sys.version_info < (3, 6), "tools/interpreters needs Python 3.6 or later")
class ToolTest(unittest.TestCase):
    def setUp(self):
        self.base = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.base)
        self.bin = self.make_folder("bin")
        self.pyenv = self.make_folder("pyenv")
        self.folder = os.path.join(self.base, "interpreters")
        self.environment = dict(os.environ, PATH=self.bin, PYENV_ROOT=self.pyenv, HOME=self.base)

    def make_folder(self, *names):
        path = os.path.join(self.base, *names)
        os.makedirs(path)
        return path

    def script(self, path, text):
        with open(path, "w") as output:
            output.write(text)
        os.chmod(path, 0o755)
        return path

    def interpreter(self, path, version, flavour="release", executable=None, cpython=True, multiarch="arch",
                    other="exit 0"):
        return self.script(path, INTERPRETER % {
            "executable": executable or path, "version": version.replace(".", ", "), "flavour": flavour,
            "cpython": json.dumps(cpython), "multiarch": multiarch, "other": other})

    def pyenv_interpreter(self, name, version):
        return self.interpreter(os.path.join(self.make_folder("pyenv", "versions", name, "bin"), "python"), version)

    def start(self, *words):
        command = [sys.executable, "-c", RUN_TOOL, TOOL, os.path.join(self.base, "template")]
        command += list(words) + ["--dir", self.folder]
        # A shell starts its background jobs with SIGINT ignored, which programs inherit; the tests send one.
        return subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, universal_newlines=True,
                                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

    def run_tool(self, *words):
        """Exit status, standard output, standard error."""
        process = self.start(*words)
        out, err = process.communicate()
        return process.returncode, out, err

    def listed(self, *words):
        status, out, err = self.run_tool("list", "--json", *words)
        self.assertEqual((status, err), (0, ""))
        return json.loads(out)


class ListTest(ToolTest):
    def test_table_is_sorted_by_version_and_release_comes_first(self):
        new = self.interpreter(os.path.join(self.bin, "python3.12"), "3.12.1")
        debug = self.interpreter(os.path.join(self.bin, "python3.11"), "3.12.1", "debug")
        old = self.interpreter(os.path.join(self.bin, "python3.9"), "3.9.18")
        self.assertEqual(self.run_tool("list"), (
            0,
            "NAME          VERSION  FLAVOUR  COMMAND\n"
            "3.9.18        3.9.18   release  {}\n"
            "3.12.1        3.12.1   release  {}\n"
            "3.12.1-debug  3.12.1   debug    {}\n".format(old, new, debug), ""))

    def test_json(self):
        path = self.interpreter(os.path.join(self.bin, "python3"), "3.12.1")
        self.assertEqual(self.listed(), [
            {"name": "3.12.1", "version": [3, 12, 1], "flavour": "release", "command": [path]}])

    def test_cmake_lines(self):
        old = self.interpreter(os.path.join(self.bin, "python2.7"), "2.7.18")
        new = self.interpreter(os.path.join(self.bin, "python3.13"), "3.13.5", "freethreaded")
        self.assertEqual(self.run_tool("list", "--cmake"), (
            0, "2.7.18|2.7.18|release|{}\n3.13.5-freethreaded|3.13.5|freethreaded|{}\n".format(old, new), ""))

    def test_min_compares_numbers_and_includes_the_bound(self):
        for version in ("3.9.18", "3.11.9", "3.12.0", "3.13.0"):
            self.pyenv_interpreter(version, version)
        self.assertEqual([one["name"] for one in self.listed("--min", "3.12")], ["3.12.0", "3.13.0"])
        self.assertEqual([one["name"] for one in self.listed("--min", "3.12.1")], ["3.13.0"])

    def test_min_that_is_no_version_is_refused(self):
        status, out, err = self.run_tool("list", "--min", "new")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("'new' is no version such as 3.12", err)

    def test_nothing_found_is_an_empty_list(self):
        self.assertEqual(self.listed(), [])

    def test_combined_flavours_and_their_names(self):
        self.interpreter(os.path.join(self.bin, "python3.11"), "3.11.2", "debug+tracerefs")
        self.interpreter(os.path.join(self.bin, "python3.13"), "3.13.5", "debug+freethreaded")
        self.assertEqual([(one["name"], one["flavour"]) for one in self.listed()], [
            ("3.11.2-tracerefs", "debug+tracerefs"), ("3.13.5-debug-freethreaded", "debug+freethreaded")])

    def test_one_executable_is_listed_once_even_through_links(self):
        path = self.interpreter(os.path.join(self.bin, "python3.12"), "3.12.1")
        os.symlink("python3.12", os.path.join(self.bin, "python3"))
        link = os.path.join(self.base, "link")
        os.symlink(path, link)
        self.interpreter(os.path.join(self.bin, "python"), "3.12.1", executable=link)
        self.assertEqual([one["name"] for one in self.listed()], ["3.12.1"])

    def test_two_builds_of_one_version_get_different_names(self):
        first = self.pyenv_interpreter("3.12.1", "3.12.1")
        second = self.interpreter(os.path.join(self.bin, "python3"), "3.12.1")
        self.assertEqual([(one["name"], one["command"]) for one in self.listed()],
                         [("3.12.1", [first]), ("3.12.1-2", [second])])

    def test_a_working_shim_stands_for_its_interpreter(self):
        real = self.interpreter(os.path.join(self.base, "real"), "3.10.4")
        self.interpreter(os.path.join(self.bin, "python3"), "3.10.4", executable=real)
        self.assertEqual([one["command"] for one in self.listed()], [[real]])

    def test_own_launcher_wins_over_the_executable_it_starts(self):
        real = self.interpreter(os.path.join(self.bin, "python3.14"), "3.14.0")
        self.make_folder("interpreters", "bin")
        launcher = self.interpreter(os.path.join(self.folder, "bin", "python3.14"), "3.14.0", executable=real)
        self.assertEqual([one["command"] for one in self.listed()], [[launcher]])

    def test_broken_shims_are_skipped_silently(self):
        good = self.interpreter(os.path.join(self.bin, "python3"), "3.12.1")
        self.script(os.path.join(self.bin, "python2"), "#!/bin/sh\necho 'python2: command not found' >&2\nexit 127\n")
        self.script(os.path.join(self.bin, "python3.7"), "#!/no/such/program\n")
        self.script(os.path.join(self.bin, "python3.8"), "#!/bin/sh\n")
        self.script(os.path.join(self.bin, "python3.9"), "#!/bin/sh\necho hello\n")
        self.interpreter(os.path.join(self.bin, "python3.10"), "3.10.0")
        os.chmod(os.path.join(self.bin, "python3.10"), 0o644)
        os.symlink("nowhere", os.path.join(self.bin, "python3.11"))
        self.assertEqual([one["command"] for one in self.listed()], [[good]])

    def test_other_programs_and_other_implementations_are_no_interpreters(self):
        for name in ("python3-config", "python3.12-gdb.py", "pythonw", "python4"):
            self.interpreter(os.path.join(self.bin, name), "3.12.1")
        self.interpreter(os.path.join(self.bin, "python"), "3.10.0", cpython=False)
        self.assertEqual(self.listed(), [])

    def test_pyenv_is_asked_for_its_root_when_the_variable_is_not_set(self):
        path = self.pyenv_interpreter("3.8.18", "3.8.18")
        del self.environment["PYENV_ROOT"]
        self.script(os.path.join(self.bin, "pyenv"), '#!/bin/sh\n[ "$1" = root ] && echo {}\n'.format(self.pyenv))
        self.assertEqual([one["command"] for one in self.listed()], [[path]])

    def test_home_folder_is_searched_when_there_is_no_pyenv_command(self):
        del self.environment["PYENV_ROOT"]
        path = self.interpreter(
            os.path.join(self.make_folder(".pyenv", "versions", "3.8.18", "bin"), "python"), "3.8.18")
        self.assertEqual([one["command"] for one in self.listed()], [[path]])

    def test_a_real_interpreter_tells_its_version_and_flavour(self):
        self.script(os.path.join(self.bin, "python3"), '#!/bin/sh\nexec "{}" "$@"\n'.format(sys.executable))
        words = [word for word, name in (("debug", "Py_DEBUG"), ("tracerefs", "Py_TRACE_REFS"),
                                         ("freethreaded", "Py_GIL_DISABLED")) if sysconfig.get_config_var(name)]
        words += ["tsan"] * ("--with-thread-sanitizer" in (sysconfig.get_config_var("CONFIG_ARGS") or ""))
        [one] = self.listed()
        self.assertEqual((one["version"], one["flavour"]), (list(sys.version_info[:3]), "+".join(words) or "release"))


class CheckTest(ToolTest):
    MATRIX = [("2.7", "release")] + [("3.%d" % minor, "release") for minor in range(6, 16)] + [
        ("3.14", "debug"), ("3.15", "debug"), ("3.13", "freethreaded"), ("3.11", "debug+tracerefs")]

    def make_matrix(self):
        for number, (version, flavour) in enumerate(self.MATRIX):
            folder = self.make_folder("pyenv", "versions", str(number), "bin")
            self.interpreter(os.path.join(folder, "python"), version + ".1", flavour)

    def test_whole_matrix(self):
        self.make_matrix()
        self.assertEqual(self.run_tool("check"), (0, "The full matrix is installed: 15 interpreters.\n", ""))

    def test_each_missing_one_is_named(self):
        self.make_matrix()
        for number in (0, 7, 14):
            shutil.rmtree(os.path.join(self.pyenv, "versions", str(number)))
        status, out, err = self.run_tool("check")
        self.assertEqual((status, out), (1, ""))
        self.assertEqual(err.splitlines()[0],
                         "Missing from the full matrix: 2.7 release, 3.12 release, 3.11 debug+tracerefs.")


class InstallTest(ToolTest):
    def setUp(self):
        ToolTest.setUp(self)
        self.environment["PATH"] = os.pathsep.join([self.bin, "/usr/bin", "/bin"])
        self.apt_get()
        self.script(os.path.join(self.bin, "dpkg"), DPKG % {"base": self.base})
        for minor in ("13", "14", "15"):
            self.interpreter(os.path.join(self.base, "interpreter-" + minor), "3.{}.2".format(minor), executable="'$0'")

    def apt_get(self, special=""):
        self.script(os.path.join(self.bin, "apt-get"), APT_GET % {"base": self.base, "special": special})

    def read(self, name):
        with open(os.path.join(self.base, name)) as text:
            return text.read()

    def left_over(self):
        """What is in the folder besides the lock file."""
        return sorted(os.path.relpath(os.path.join(path, name), self.folder)
                      for path, folders, names in os.walk(self.folder) for name in folders + names if name != ".lock")

    def wait_for(self, name):
        """The content of a file that a stand-in writes, ending in a newline."""
        deadline = time.time() + 60
        while time.time() < deadline:
            if os.path.exists(os.path.join(self.base, name)) and self.read(name).endswith("\n"):
                return self.read(name)
            time.sleep(0.02)
        self.fail(name + " was not written")

    def wait_for_end(self, pid):
        """Waits for a process that is not our child; one that nobody has collected yet (state Z) has ended too."""
        deadline = time.time() + 60
        while time.time() < deadline:
            try:
                with open("/proc/{}/stat".format(pid)) as stat:
                    if stat.read().rsplit(") ", 1)[1].startswith("Z"):
                        return
            except OSError:
                return
            time.sleep(0.02)
        os.kill(pid, signal.SIGKILL)
        self.fail("process {} still runs".format(pid))

    def start_and_hang_in_download(self):
        """The running tool, and the id of a process that its apt-get has started."""
        self.apt_get('case "$*" in *--download-only*) sleep 600 & echo $! > {}/pid; wait ;; esac'.format(self.base))
        process = self.start("install", "3.14")
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        return process, int(self.wait_for("pid"))

    def test_unknown_name_lists_the_known_ones(self):
        status, out, err = self.run_tool("install", "3.14", "4.0")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("error: unknown name 4.0: choose from " + NAMES + "\n", err)
        self.assertFalse(os.path.exists(self.folder))

    def test_no_name_is_an_error(self):
        status, out, err = self.run_tool("install")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("error: no name: choose from " + NAMES + "\n", err)

    def test_installed_interpreter_is_listed_with_its_launcher(self):
        status, out, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (0, ""))
        launcher = os.path.join(self.folder, "bin", "python3.14")
        self.assertEqual(out.splitlines()[:3], [
            "3.14: reading the package lists of unstable",
            "3.14: fetching python3.14 libpython3.14-stdlib patchelf libpython3.14-dev libpython3.14-testsuite "
            "and what they need",
            "3.14: unpacking 1 packages"])
        self.assertRegex(out.splitlines()[3],
                         r"^3\.14: installed: " + re.escape(launcher) + r" \(\d+\.\d minutes, \d+ MB\)$")
        self.environment["PATH"] = self.bin
        self.assertEqual(self.listed(), [
            {"name": "3.14.2", "version": [3, 14, 2], "flavour": "release", "command": [launcher]}])
        self.assertEqual(self.left_over(), sorted([
            "bin", "bin/python3.14", "3.14", "3.14/usr", "3.14/usr/bin", "3.14/usr/bin/patchelf",
            "3.14/usr/bin/python3.13", "3.14/usr/bin/python3.14", "3.14/usr/bin/python3.15", "3.14/usr/lib", "3.14/usr/lib/arch",
            "3.14/usr/lib/arch/ld-linux-arch.so.2", "3.14/usr/share"]))

    def test_version_that_unstable_has_no_more_comes_from_the_suite_that_has_it(self):
        status, out, err = self.run_tool("install", "3.13")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("3.13: reading the package lists of trixie\n", out)
        self.assertRegex(self.read("apt-calls"), r" install python3\.13 libpython3\.13-stdlib patchelf ")
        self.environment["PATH"] = self.bin
        self.assertEqual(self.listed(), [
            {"name": "3.13.2", "version": [3, 13, 2], "flavour": "release",
             "command": [os.path.join(self.folder, "bin", "python3.13")]}])

    def for_another_processor(self, multiarch="aarch64-linux-gnu"):
        self.script(os.path.join(self.bin, "qemu-aarch64-static"), QEMU % {"base": self.base})
        self.interpreter(os.path.join(self.base, "interpreter-14"), "3.14.2", executable="'$0'", multiarch=multiarch)
        self.apt_get('case "$*" in *" update") cp "$2" {}/conf ;; esac'.format(self.base))

    def test_interpreter_of_another_machine_is_listed_for_that_alone(self):
        self.for_another_processor()
        self.assertEqual(self.run_tool("install", "3.14-aarch64")[0], 0)
        self.assertIn('APT::Architecture "arm64";\nAPT::Architectures {"arm64";};\n', self.read("conf"))
        self.environment["PATH"] = self.bin
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.listed("--machine", "musl"), [])
        self.environment["PATH"] = os.pathsep.join([self.bin, "/usr/bin", "/bin"])
        self.assertEqual(self.listed("--machine", "aarch64"), [
            {"name": "3.14.2-aarch64", "version": [3, 14, 2], "flavour": "release",
             "command": [os.path.join(self.folder, "aarch64", "bin", "python3.14")]}])

    def test_emulated_interpreter_keeps_its_name_and_is_started_through_it(self):
        self.for_another_processor()
        self.assertEqual(self.run_tool("install", "3.14-aarch64")[0], 0)
        os.remove(os.path.join(self.base, "emulated"))
        command = os.path.join(self.folder, "aarch64", "3.14", "usr", "bin", "python3.14")
        done = subprocess.run([command, "-ES", "two words"], env=self.environment, stdout=subprocess.PIPE)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(self.read("emulated"),
                         "-cpu cortex-a72 -0 {0} {0}-aarch64-linux-gnu -ES two words\n".format(command))

    def test_interpreter_of_another_machine_is_checked_for_being_one(self):
        self.for_another_processor(multiarch="x86_64-linux-gnu")
        status, _, err = self.run_tool("install", "3.14-aarch64")
        self.assertEqual(status, 1)
        self.assertIn("is not the interpreter wanted: it says ", err)
        self.assertEqual(self.left_over(), ["aarch64"])

    def under_tsan(self, flavour):
        """A launcher where the interpreter belongs that ThreadSanitizer watches."""
        return self.interpreter(os.path.join(self.make_folder("interpreters", "tsan", "bin"), "python3.13-freethreaded"),
                                "3.13.5", flavour)

    def test_interpreter_under_tsan_is_listed_for_that_alone(self):
        launcher = self.under_tsan("freethreaded+tsan")
        self.environment["PATH"] = self.bin
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.listed("--machine", "tsan"), [
            {"name": "3.13.5-freethreaded-tsan", "version": [3, 13, 5], "flavour": "freethreaded+tsan", "command": [launcher]}])

    def test_interpreter_under_tsan_is_not_installed_twice(self):
        launcher = self.under_tsan("freethreaded+tsan")
        self.assertEqual(self.run_tool("install", "3.13-freethreaded-tsan"),
                         (0, "3.13-freethreaded-tsan: is there: %s\n" % launcher, ""))

    def test_interpreter_that_tsan_does_not_watch_does_not_count_as_one(self):
        self.under_tsan("freethreaded")
        self.environment["PATH"] = self.bin
        self.assertEqual(self.run_tool("install", "3.13-freethreaded-tsan"), (
            1, "", "interpreters: 3.13-freethreaded-tsan: this machine lacks dpkg-source (Debian: dpkg-dev), gcc, make\n"))

    def test_lacking_emulator_is_named_before_anything_is_fetched(self):
        self.environment["PATH"] = self.bin
        status, _, err = self.run_tool("install", "3.14-aarch64")
        self.assertEqual((status, err), (
            1, "interpreters: 3.14-aarch64: this machine lacks qemu-aarch64 (Debian: qemu-user-static)\n"))
        self.assertFalse(os.path.exists(os.path.join(self.base, "apt-calls")))

    def test_lacking_compiler_of_another_c_library_is_named(self):
        self.environment["PATH"] = self.bin
        for program in ("dpkg-source", "gcc", "make"):
            self.script(os.path.join(self.bin, program), "#!/bin/sh\n")
        status, _, err = self.run_tool("install", "3.13-musl")
        self.assertEqual((status, err), (
            1, "interpreters: 3.13-musl: this machine lacks autoreconf (Debian: autoconf), libtoolize (Debian: libtool), "
               "musl-gcc (Debian: musl-tools)\n"))

    def test_all_means_those_of_this_machine(self):
        self.apt_get('case "$*" in *" update") exit 100 ;; esac')
        self.environment["PATH"] = self.bin
        status, _, err = self.run_tool("install", "--all")
        self.assertEqual((status, re.findall(r"^interpreters: (\S+):", err, re.MULTILINE)), (1, NAMES.split()[:7]))

    def test_executable_is_bound_to_the_place_it_ends_up_in(self):
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        libraries = os.path.join(self.folder, "3.14", "usr", "lib", "arch")
        calls = [line.split("/usr/bin/patchelf ")[1].rsplit(" ", 1)[0]
                 for line in self.read("loader-calls").splitlines()]
        self.assertEqual(calls, ["--force-rpath --set-rpath " + libraries,
                                 "--set-interpreter " + libraries + "/ld-linux-arch.so.2"])

    def test_second_install_says_that_it_is_there_and_fetches_nothing(self):
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        before = self.read("apt-calls")
        self.assertEqual(self.run_tool("install", "3.14"), (
            0, "3.14: is there: {}/bin/python3.14\n".format(self.folder), ""))
        self.assertEqual(self.read("apt-calls"), before)

    def test_library_is_compiled_once_it_is_installed_and_where_it_is_not_yet(self):
        library = self.make_folder("library")
        for name in ("os.py", "json/decoder.py", "test/test_os.py"):
            os.makedirs(os.path.dirname(os.path.join(library, name)), exist_ok=True)
            self.script(os.path.join(library, name), "pass\n")
        start = "import os, sys; os.__file__ = sys.argv[1]; exec(sys.argv[2])"
        self.interpreter(os.path.join(self.base, "interpreter-14"), "3.14.2", executable="'$0'",
                         other='case "$2" in *compileall*) exec {} -c "{}" {}/os.py "$2" ;; esac; exit 0'.format(
                             sys.executable, start, library))
        for _ in range(2):
            self.assertEqual(self.run_tool("install", "3.14")[0], 0)
            compiled = sorted(os.path.relpath(os.path.join(folder, name.split(".")[0]), library)
                              for folder, _, names in os.walk(library) for name in names if name.endswith(".pyc"))
            self.assertEqual(compiled, ["__pycache__/os", "json/__pycache__/decoder"])
            shutil.rmtree(os.path.join(library, "__pycache__"))

    def test_two_names_in_one_run_read_the_package_lists_once(self):
        status, out, err = self.run_tool("install", "3.14", "3.15")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(re.findall("(.*): installed", out), ["3.14", "3.15"])
        self.assertEqual(len(re.findall("/apt.conf.* update$", self.read("apt-calls"), re.MULTILINE)), 1)
        self.environment["PATH"] = self.bin
        self.assertEqual([one["name"] for one in self.listed()], ["3.14.2", "3.15.2"])

    def test_compiling_is_refused_where_make_would_fail_on_the_path(self):
        self.folder = os.path.join(self.base, "with space")
        for program in ("dpkg-source", "gcc", "make"):
            self.script(os.path.join(self.bin, program), "#!/bin/sh\n")
        status, _, err = self.run_tool("install", "3.11-tracerefs")
        self.assertEqual((status, err), (
            1, "interpreters: 3.11-tracerefs: cannot be compiled in a folder with white space in its path: {}\n".format(
                self.folder)))

    def test_installed_interpreter_that_no_longer_starts_is_replaced(self):
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        os.remove(os.path.join(self.folder, "3.14", "usr", "bin", "python3.14"))
        status, out, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("3.14: installed: ", out)

    def test_unreachable_archive_is_reported_for_each_name(self):
        self.apt_get('case "$*" in *" update") echo Ign; echo "E: Failed to fetch InRelease"; exit 100 ;; esac')
        status, _, err = self.run_tool("install", "3.14", "3.15")
        self.assertEqual((status, err), (1, "".join(
            "interpreters: {}: cannot read the package lists of unstable:\n"
            "  E: Failed to fetch InRelease\n".format(name) for name in ("3.14", "3.15"))))
        self.assertEqual(self.left_over(), [])

    @unittest.skipUnless(shutil.which("apt-get"), "this machine has no apt-get")
    def test_real_apt_get_reports_an_archive_that_is_not_there(self):
        os.remove(os.path.join(self.bin, "apt-get"))
        mirror = "file:" + os.path.join(self.base, "no-archive")
        status, _, err = self.run_tool("install", "3.14", "--mirror", mirror)
        self.assertEqual(status, 1)
        self.assertTrue(err.startswith(
            "interpreters: 3.14: cannot read the package lists of unstable:\n  E: "), err)
        self.assertIn("no-archive", err)
        self.assertEqual(self.left_over(), [])

    def test_missing_package_is_named_and_the_other_names_are_tried(self):
        self.apt_get('case "$*" in *"--simulate install python3.14") echo "E: Unable to locate"; exit 100 ;; esac')
        status, out, err = self.run_tool("install", "3.14", "3.15")
        self.assertEqual((status, err), (1, "interpreters: 3.14: unstable has no package python3.14\n"))
        self.assertIn("3.15: installed: ", out)
        self.assertFalse(os.path.exists(os.path.join(self.folder, "3.14")))

    def test_missing_test_suite_is_mentioned_and_done_without(self):
        self.apt_get('case "$*" in *"--simulate install "*-testsuite) exit 100 ;; esac')
        status, out, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("3.14: unstable has no package libpython3.14-testsuite: done without\n", out)
        self.assertIn("install python3.14 libpython3.14-stdlib patchelf libpython3.14-dev\n", self.read("apt-calls"))

    def test_failing_download_names_the_packages(self):
        self.apt_get('case "$*" in *--download-only*) echo "E: Failed to fetch a.deb"; exit 100 ;; esac')
        status, _, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (
            1, "interpreters: 3.14: cannot get python3.14 libpython3.14-stdlib patchelf libpython3.14-dev "
               "libpython3.14-testsuite:\n  E: Failed to fetch a.deb\n"))
        self.assertEqual(self.left_over(), [])

    def test_missing_source_package_is_named(self):
        self.apt_get('case "$*" in *" source "*) echo "E: Unable to find a source package"; exit 100 ;; esac')
        for program in ("dpkg-source", "gcc", "make"):
            self.script(os.path.join(self.bin, program), "#!/bin/sh\n")
        status, _, err = self.run_tool("install", "3.11-tracerefs")
        self.assertEqual((status, err), (
            1, "interpreters: 3.11-tracerefs: cannot get the source package python3.11 of bookworm:\n"
               "  E: Unable to find a source package\n"))
        self.assertEqual(self.left_over(), [])

    def test_lacking_build_tools_are_named(self):
        self.environment["PATH"] = self.bin
        status, _, err = self.run_tool("install", "3.13-freethreaded")
        self.assertEqual((status, err), (
            1, "interpreters: 3.13-freethreaded: this machine lacks dpkg-source (Debian: dpkg-dev), gcc, make\n"))

    def test_machine_without_apt(self):
        self.environment["PATH"] = self.bin
        for name in ("apt-get", "dpkg"):
            os.remove(os.path.join(self.bin, name))
        status, _, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (
            1, "interpreters: 3.14: this machine lacks apt-get (Debian: apt), dpkg\n"))

    def test_interpreter_of_another_version_is_not_kept(self):
        self.interpreter(os.path.join(self.base, "interpreter-14"), "3.13.0", executable="'$0'")
        status, _, err = self.run_tool("install", "3.14")
        self.assertEqual(status, 1)
        self.assertTrue(err.startswith(
            "interpreters: 3.14: {}/3.14/usr/bin/python3.14 is not the interpreter wanted: ".format(self.folder)), err)
        self.assertEqual(self.left_over(), [])

    def test_archive_is_the_one_the_machine_uses(self):
        self.apt_get("""case "$*" in "update --print-uris")
            echo "'http://other.test/linux/debian/dists/bookworm/InRelease' a 0"
            echo "'http://debian.test/debian/dists/bookworm/InRelease' b 0"
            echo "'http://debian.test/debian/dists/bookworm-updates/InRelease' c 0"
            exit ;; esac""")
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        self.assertEqual([re.sub(r"\[.*\] ", "", line) for line in self.read("sources").splitlines()], [
            "deb http://debian.test/debian unstable main", "deb-src http://debian.test/debian unstable main"])

    def test_given_mirror_is_used_without_asking_the_machine(self):
        self.assertEqual(self.run_tool("install", "3.14", "--mirror", "http://mirror.test/d")[0], 0)
        self.assertIn("http://mirror.test/d unstable main\n", self.read("sources"))
        self.assertNotIn("update --print-uris", self.read("apt-calls"))

    def test_machine_without_a_debian_archive_is_told_to_give_one(self):
        self.apt_get('[ "$*" = "update --print-uris" ] && exit')
        status, _, err = self.run_tool("install", "3.14")
        self.assertEqual((status, err), (1, "interpreters: 3.14: this machine's apt configuration names no Debian "
                                            "archive: give one with --mirror\n"))

    def test_relatives_of_debian_know_its_archive_from_a_package(self):
        self.apt_get("""[ "$*" != "update --print-uris" ] || {
            echo "'http://relative.test/ubuntu/dists/jammy/InRelease' a 0"; exit; }""")
        with open(os.path.join(self.base, "template"), "w") as template:
            template.write("Suite: jammy/updates\nBaseURI: http://security.test/\n\n"
                           "Suite: bookworm\nBaseURI: http://debian.test/debian/\nMatchURI: debian\n")
        self.assertEqual(self.run_tool("mirror"), (0, "http://debian.test/debian\n", ""))
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        self.assertIn("http://debian.test/debian unstable main\n", self.read("sources"))

    def test_mirror_is_printed(self):
        self.assertEqual(self.run_tool("mirror"), (0, "http://archive.test/debian\n", ""))
        self.apt_get('[ "$*" = "update --print-uris" ] && exit')
        self.assertEqual(self.run_tool("mirror"), (1, "", "interpreters: this machine's apt configuration names no Debian "
                                                          "archive: give one with --mirror\n"))

    def test_interrupted_install_leaves_nothing_and_stops_its_children(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process, child = self.start_and_hang_in_download()
            self.assertIn(".work/3.14", self.left_over())
            process.send_signal(number)
            self.assertEqual(process.wait(), 130)
            self.assertEqual(process.stderr.read(), "interpreters: interrupted; nothing is left half installed\n")
            self.assertEqual(self.left_over(), [])
            self.wait_for_end(child)
            os.remove(os.path.join(self.base, "pid"))

    def test_killed_install_is_cleared_up_by_the_next(self):
        process, child = self.start_and_hang_in_download()
        process.kill()
        process.wait()
        os.kill(child, signal.SIGKILL)
        self.assertIn(".work/3.14", self.left_over())
        self.assertEqual(self.listed("--min", "99"), [])
        self.apt_get()
        self.assertEqual(self.run_tool("install", "3.14")[0], 0)
        self.assertNotIn(".work", self.left_over())

    def test_second_run_at_the_same_time_is_refused(self):
        process, _ = self.start_and_hang_in_download()
        self.assertEqual(self.run_tool("install", "3.15"), (
            1, "", "interpreters: another install is running on {}\n".format(self.folder)))
        self.assertIn(".work/3.14", self.left_over())
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(), 130)


if __name__ == "__main__":
    unittest.main()
