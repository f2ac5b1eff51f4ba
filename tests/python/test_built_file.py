"""The built module as a file: what it needs, what it shows, and that a program's own names do not get in between."""

import os
import platform
import re
import shutil
import subprocess
import tempfile
import unittest

import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
HEADERS = os.path.join(ROOT, "debug", "tserver")
PUBLISHED = ("dbgcommon.h", "dbgtracerhash.h", "dprintf.h", "fileops.h", "optmonitoring.h", "xpy_c_api.h")
ENTRY_POINTS = {"PyInit_optmonitoring", "initoptmonitoring"}

# the start of a visible declaration, up to the name: in front of the parameter list, or of the semicolon
_DECLARATION = re.compile(
    r"^(?:XPY_EXPORT|CU_EXPORT|extern(?:\s+\"C\")?\s+__attribute__\(\(visibility\(\"default\"\)\)\))\s+"
    r"[^;(]*?(\w+)\s*(?=[;(])", re.M)


def tool(name):
    path = shutil.which(name)
    if path is None:
        raise unittest.SkipTest("%s is not installed" % name)
    return path


def clang():
    """The second C++ compiler, where it is here."""
    _, out, _ = run(os.path.join(ROOT, "tools", "choose_clang"))
    return out.splitlines()[1:]


def run(*command, **options):
    child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
                             **options)
    out, err = child.communicate()
    return child.returncode, out, err


def output(*command, **options):
    status, out, err = run(*command, **options)
    if status != 0:
        raise AssertionError("%s: %s" % (" ".join(command), err))
    return out


def declared_names():
    """What the published headers declare visible."""
    names = []
    for header in PUBLISHED:
        with open(os.path.join(HEADERS, header)) as stream:
            names += _DECLARATION.findall(stream.read())
    return names


def listed_names():
    """The names that a host's native code may count on: a change of this list is a change for hosts."""
    with open(os.path.join(HEADERS, "exported_symbols.txt")) as stream:
        return stream.read().split()


def symbols():
    """The dynamic symbols as (name without version, type letter)."""
    rows = []
    for line in output(tool("nm"), "-D", support.module_file()).splitlines():
        fields = line.split()
        rows.append((fields[-1].split("@")[0], fields[-2]))
    return rows


class File(unittest.TestCase):
    def test_needs_the_c_library_alone(self):
        dynamic = output(tool("readelf"), "-Wd", support.module_file())
        needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
        self.assertIn("libc.so.6", needed)
        # old C libraries have the loader's functions in a file of their own
        self.assertLessEqual(needed, {"libc.so.6", "libdl.so.2", "ld-linux-x86-64.so.2"})

    @unittest.skipUnless(platform.machine() == "x86_64", "other machines' first versions are newer")
    def test_asks_the_c_library_for_nothing_newer_than_2_17(self):
        versions = re.findall(r"Name: GLIBC_([\d.]+)", output(tool("readelf"), "-WV", support.module_file()))
        self.assertIn("2.2.5", versions)
        newest = max(tuple(int(number) for number in version.split(".")) for version in versions)
        self.assertLessEqual(newest, (2, 17))

    def test_has_no_search_path_and_no_text_relocations(self):
        dynamic = output(tool("readelf"), "-Wd", support.module_file())
        for tag in ("RPATH", "RUNPATH", "TEXTREL"):
            self.assertNotIn("(%s)" % tag, dynamic)

    def test_an_executable_stack_is_not_asked_for(self):
        headers = output(tool("readelf"), "-Wl", support.module_file())
        flags = re.search(r"GNU_STACK(?:\s+0x\w+){5}\s+([RWE ]+?)\s+0x", headers).group(1)
        self.assertEqual(flags.strip(), "RW")

    def test_runs_no_code_of_its_own_when_loaded(self):
        sections = output(tool("readelf"), "-SW", support.module_file())
        size = re.search(r"\.init_array\s+INIT_ARRAY\s+\w+\s+\w+\s+(\w+)", sections)
        self.assertEqual(int(size.group(1), 16), 8, "more than the C runtime's own entry: a table is not a constant")

    def test_asks_for_no_interpreter_and_no_c_plus_plus_symbol(self):
        undefined = [(name, kind) for name, kind in symbols() if kind in "Uwv"]
        self.assertIn(("malloc", "U"), undefined)
        foreign = {(name, kind) for name, kind in undefined
                   if re.match(r"_?Py|_Z|__cxa_|__gxx_|_Unwind_", name)}
        self.assertLessEqual(foreign, {("__cxa_finalize", "w")})

    def test_shows_exactly_what_is_listed(self):
        shown = sorted(name for name, kind in symbols() if kind not in "Uwv")
        self.assertEqual(shown, listed_names())

    def test_holds_nothing_of_the_build_with_failures_injected(self):
        names = output(tool("nm"), support.module_file())
        self.assertIn("PyInit_optmonitoring", names)
        self.assertNotIn("inject", names)

    def test_shows_functions_as_code_and_variables_as_data(self):
        kinds = dict(symbols())
        for name in ("gDPrintfMask", "gDPrintfNativeFileno", "gDPrintfFile", "gUnsafeGlobalDPData",
                     "gUseCanonicalPathnames", "global_XPy_C_API_Data"):
            self.assertIn(kinds[name], "BD", name)
        for name in ENTRY_POINTS | {"get_absname", "CU_InitHashTable", "do_dp", "XPy_Initialize"}:
            self.assertEqual(kinds[name], "T", name)

    def test_shows_no_mangled_name(self):
        self.assertEqual([name for name, kind in symbols() if name.startswith("_Z")], [])


class Headers(unittest.TestCase):
    def test_they_publish_exactly_what_is_listed(self):
        self.assertEqual(sorted(set(declared_names()) | ENTRY_POINTS), listed_names())

    def test_the_reader_finds_functions_and_variables_once_each(self):
        names = declared_names()
        self.assertEqual(sorted(names), sorted(set(names)))
        self.assertGreater(len(names), 100)
        for name in ("borrow_cached_name", "CU_StringFind", "gDPrintfFile", "__tracer_stat", "PyInit_optmonitoring",
                     "global_XPy_C_API_Data", "XPy_SupportsEvalFunctionPyInterpreterFrame"):
            self.assertIn(name, names)

    def test_each_compiles_alone(self):
        for compiler in [tool("g++"), *clang()]:
            for header in PUBLISHED:
                for start in ("", '#include "%s"\n' % header):
                    source = '%s#include "%s"\n' % (start, header)
                    child = subprocess.Popen(
                        [compiler, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Wshadow", "-Werror",
                         "-I", HEADERS, "-x", "c++", "-"],
                        stdin=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
                    err = child.communicate(source)[1]
                    self.assertEqual((child.returncode, err), (0, ""), (compiler, header))

    def test_none_includes_the_interpreter(self):
        for header in PUBLISHED:
            with open(os.path.join(HEADERS, header)) as stream:
                self.assertNotIn("Python.h", stream.read(), header)


PROGRAM_NAMES = """
#include <stdlib.h>
int calls;
int program_calls(void) { return calls; }
int samefile(const void* data, const char* first, const char* second)
{
    calls++;
    return 0;
}
const char* get_absname(const void* data, const char* name)
{
    calls++;
    return "/program/own/name";
}
const char* lookup_canonical_pathname(const void* data, const char* name, const char* checksum)
{
    calls++;
    return "/program/own/name";
}
char global_XPy_C_API_Data[1 << 16];
"""

PROGRAM = """
import ctypes, os, sys
import support
program = ctypes.CDLL(None)
assert program.get_absname, "not preloaded"
optmonitoring = support.load()
folder = sys.argv[1]
name, link = os.path.join(folder, "file.py"), os.path.join(folder, "link.py")
open(name, "w").close()
os.symlink(name, link)
os.chdir(folder)
assert optmonitoring.lookup_canonical_pathname(name) is None
assert optmonitoring.register_canonical_pathname("file.py") == name
assert optmonitoring.get_canonical_pathname(link) == name
assert optmonitoring.lookup_canonical_pathname(link) == name
code = compile("", "file.py", "exec")
record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
assert record.fPathnameToReport == name, record.fPathnameToReport
assert record.fCanonicalPathname == name, record.fCanonicalPathname
library = ctypes.addressof(ctypes.c_char.in_dll(support.library(), "global_XPy_C_API_Data"))
own = ctypes.addressof(ctypes.c_char.in_dll(program, "global_XPy_C_API_Data"))
assert library != own
assert bytes((ctypes.c_char * 65536).in_dll(program, "global_XPy_C_API_Data")) == bytes(65536)
print(program.program_calls())
"""


class ProgramNames(unittest.TestCase):
    @support.needs_monitoring
    def test_a_program_with_the_same_names_changes_nothing(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        folder = os.path.realpath(folder)
        source, library = os.path.join(folder, "program.c"), os.path.join(folder, "program.so")
        with open(source, "w") as stream:
            stream.write(PROGRAM_NAMES)
        output(tool("gcc"), "-shared", "-fPIC", "-o", library, source)
        out = support.check_child(self, PROGRAM, folder, environment={"LD_PRELOAD": library})
        self.assertEqual(out, "0\n")


if __name__ == "__main__":
    unittest.main()
