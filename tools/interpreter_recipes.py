"""What tools/interpreters can install, and how: a table, what an interpreter runs once it is installed, and what those of
other machines need besides.

A name is VERSION, VERSION-FLAVOUR or VERSION-MACHINE. The machines are others than this one in their processor or in their
C library; their interpreters have lists of their own, so that nothing takes them for this machine's. So has tsan: what
ThreadSanitizer watches is many times slower, and nothing but `make tsan-storm` wants it.
"""
import collections
import os
import shlex
import shutil

# suite: where the packages come from. required: without them there is no interpreter. optional: kept for its tests
# and headers. binary: what the launcher starts.
Packaged = collections.namedtuple("Packaged", "suite required optional binary")
# source: the source package. flags: what configure gets besides the prefix.
Compiled = collections.namedtuple("Compiled", "suite source flags binary")
# architecture: Debian's name of it, empty for this machine's own. emulator: names of the program that runs what is for it,
# and its options; the processor chosen is the fastest to emulate, as it does not sign its pointers. compiler: what
# interpreters are compiled with. libraries: what an interpreter needs that there are no packages of, as (source package,
# options of configure, additional compiler options). flavours: what an interpreter has to say of itself besides.
Machine = collections.namedtuple("Machine", "multiarch architecture emulator emulator_options compiler libraries flavours")


def packaged(version, debug=False, suite="unstable"):
    python, suffix = "python" + version, "-dbg" if debug else ""
    required = [python, "lib%s-stdlib" % python, "patchelf"] + [python + suffix, "lib%s%s" % (python, suffix)] * debug
    optional = ["lib%s-dev" % python, "lib%s-testsuite" % python]
    return Packaged(suite, required, optional, "usr/bin/" + python + suffix)


# PYVERSIONS: the suite must be one that still carries the version.
INSTALLABLE = collections.OrderedDict([
    ("3.13", packaged("3.13", suite="trixie")),
    ("3.14", packaged("3.14")),
    ("3.15", packaged("3.15")),
    ("3.14-debug", packaged("3.14", debug=True)),
    ("3.15-debug", packaged("3.15", debug=True)),
    ("3.13-freethreaded", Compiled("trixie", "python3.13", ["--disable-gil"], "bin/python3.13t")),
    ("3.11-tracerefs", Compiled("bookworm", "python3.11", ["--with-pydebug", "--with-trace-refs"], "bin/python3.11d")),
    ("3.13-aarch64", packaged("3.13", suite="trixie")),
    ("3.14-aarch64", packaged("3.14")),
    ("3.15-aarch64", packaged("3.15")),
    ("3.13-musl", Compiled("trixie", "python3.13", ["--disable-test-modules"], "bin/python3.13")),
    # with the test modules: the tests of free-threaded builds need one
    ("3.13-freethreaded-tsan", Compiled("trixie", "python3.13", ["--disable-gil", "--with-thread-sanitizer"],
                                        "bin/python3.13t")),
])

# What an installed interpreter runs first: it has to work, and names the modules it lacks.
CHECK = """
import ctypes, json, subprocess, sys, threading
ctypes.CDLL(None)
thread = threading.Thread(target=json.dumps, args=([],))
thread.start(), thread.join()
child = subprocess.check_output([sys.executable, "-c", "import sys; print(sys.executable)"], universal_newlines=True)
assert child.strip() == sys.executable, (child, sys.executable)
assert sys.version_info < (3, 12) or sys.monitoring
lacking = []
for name in ("ssl", "zlib", "bz2", "lzma", "sqlite3"):
    try:
        __import__(name)
    except ImportError:
        lacking.append(name)
print(" ".join(lacking))
"""

# Debian's packages hold no bytecode. Without it, and where writing it is switched off, each start compiles what it imports.
WRITE_BYTECODE = """
import compileall, os, re
compileall.compile_dir(os.path.dirname(os.__file__), quiet=2, rx=re.compile("/(test|idlelib)/"))
"""

THIS_MACHINE = Machine(None, "", (), [], None, [], [])
MACHINES = {
    "aarch64": Machine("aarch64-linux-gnu", "arm64", ("qemu-aarch64-static", "qemu-aarch64"), ["-cpu", "cortex-a72"], None,
                       [], []),
    "musl": Machine("x86_64-linux-musl", "", (), [], "musl-gcc",
                    # static trampolines want the kernel's headers
                    [("libffi", ["--disable-shared", "--with-pic", "--disable-docs", "--disable-exec-static-tramp"], ""),
                     ("zlib", ["--static"], "-fPIC")], []),
    "tsan": Machine(None, "", (), [], None, [], ["tsan"]),
}


def machine_of(name):
    """The machine's name, empty for this one, and the name without it."""
    base, _, last = name.rpartition("-")
    return (last, base) if last in MACHINES else ("", name)


def find_emulator(machine):
    """The command that runs a program for this machine; empty where none is needed, None where it is not here."""
    found = [path for path in map(shutil.which, machine.emulator) if path]
    return [] if not machine.emulator else found[:1] + machine.emulator_options if found else None


def emulated_launcher(emulator, program):
    """The script that stands where the interpreter was. It is the interpreter for everybody: the program finds itself
    under the script's name, so that sys.executable, virtual environments and children start through it again."""
    return '#!/bin/sh\nexec %s -0 "$0" %s "$@"\n' % (" ".join(map(shlex.quote, emulator)), shlex.quote(program))


def musl_environment(compiler, libraries):
    """The environment for the configure and make of an interpreter: the compiler, and the libraries compiled with it."""
    include, search = "-I" + os.path.join(libraries, "include"), "-L" + os.path.join(libraries, "lib")
    # A thread has 128 KB of stack with musl, where a deep recursion ends in a crash before it reaches Python's limit. The
    # interpreters that are distributed for musl are compiled with 1 MB. All else that pkg-config knows of is this machine's.
    return {"CC": compiler, "CPPFLAGS": "-DTHREAD_STACK_SIZE=0x100000",
            "PKG_CONFIG_LIBDIR": os.path.join(libraries, "lib", "pkgconfig"),
            "LIBFFI_CFLAGS": include, "LIBFFI_LIBS": search + " -lffi", "ZLIB_CFLAGS": include, "ZLIB_LIBS": search + " -lz"}
