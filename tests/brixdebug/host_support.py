"""Shared by the tests of the host: children that can import it, and scratch folders.

The environment variable OPTMONITORING_DIR names the folder of the built module.
"""

import importlib.util
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

# A job in the background of a shell ignores it, and its children would too.
signal.signal(signal.SIGINT, signal.default_int_handler)

HERE = pathlib.Path(__file__).resolve().parent
HOST_DIR = HERE.parent.parent / "debug" / "host"
SESSION_SECONDS = 300 if os.environ.get("EMULATOR") else 60     # a session that says nothing for that long fails its test
CHILD_SECONDS = 300        # a child that hangs fails its test
HAS_READLINE = importlib.util.find_spec("readline") is not None
needs_readline = unittest.skipUnless(HAS_READLINE, "this interpreter comes without readline")
LOCK_WARNING = "The global interpreter lock (GIL) has been enabled to load module 'optmonitoring'"


def module_dir():
    folder = os.environ.get("OPTMONITORING_DIR")
    if not folder:
        raise AssertionError("set OPTMONITORING_DIR to the folder of the built module")
    return os.path.abspath(folder)


def child_environment(**more):
    """The environment of a child that can import the module, the host and the tests' own modules."""
    path = [module_dir(), str(HOST_DIR), str(HERE)]
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join(path), PYTHONDONTWRITEBYTECODE="1",
                       PYTHONHASHSEED="0")
    environment.pop("PYTHONBREAKPOINT", None)
    environment.update(more)
    return environment


def run_child(*arguments, cwd=None, input=None, **environment):
    """The ended child: `returncode`, `stdout`, `stderr` as text."""
    # A free-threaded interpreter says that it turns its lock on for the module.
    command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING]
    return subprocess.run(command + [str(argument) for argument in arguments], cwd=cwd, input=input,
                          capture_output=True, text=True, timeout=CHILD_SECONDS,
                          env=child_environment(**environment))


def check_child(test, *arguments, **options):
    """Standard output of a child that has to end with status 0 and a silent standard error."""
    child = run_child(*arguments, **options)
    test.maxDiff = None                       # a traceback is wanted whole
    test.assertEqual((child.returncode, child.stderr), (0, ""), "it printed:\n" + child.stdout)
    return child.stdout


def scratch_folder(test):
    """A new folder, gone after the test; its name has no links in it."""
    folder = os.path.realpath(tempfile.mkdtemp(prefix="brixdebug."))
    test.addCleanup(shutil.rmtree, folder, ignore_errors=True)
    return pathlib.Path(folder)
