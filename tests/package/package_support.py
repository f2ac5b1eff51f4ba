"""Shared by the tests of the package: the wheel, made once, and programs that see nothing but what it installs."""

import glob
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SECONDS = 300               # a child that hangs fails its test
LOCK_WARNING = "The global interpreter lock (GIL) has been enabled to load module 'optmonitoring'"

sys.path.insert(0, os.path.join(ROOT, "tools"))
import packaging_tools  # noqa: E402  (from the folder above)

FOLDER = packaging_tools.FOLDER
DIST = os.path.join(FOLDER, "dist")


def need_index():
    """Skip the module's tests where packages cannot be fetched."""
    reached, text = packaging_tools.reaches_index()
    if not reached:
        print(text)
        raise unittest.SkipTest("the package index cannot be reached, or python3 has no pip")


def make_wheel():
    """The paths of the wheel and the sdist of this tree."""
    packaging_tools.run(sys.executable, os.path.join(ROOT, "tools", "make_wheel"),
                        env=packaging_tools.environment(BUILD=packaging_tools.BUILD))
    (wheel,), (sdist,) = [glob.glob(os.path.join(DIST, pattern)) for pattern in ("*.whl", "*.tar.gz")]
    return wheel, sdist


def interpreters():
    """Those that the package is for, or of them the ones that the run is limited to."""
    wanted = os.environ.get("OPTMONITORING_PYTHONS", "").split()
    return [each for each in packaging_tools.interpreters() if not wanted or each["name"] in wanted]


def install(python, wheel):
    """Put the very file into an environment, without looking for anything else."""
    packaging_tools.pip(FOLDER, python, "install", "--quiet", "--no-index", "--no-deps", "--force-reinstall", wheel)


def site_packages(python):
    """Where packages lie in an environment."""
    return packaging_tools.run(python, "-c", "import sysconfig; print(sysconfig.get_path('platlib'))").strip()


def plain_module_dir():
    """The folder of the module as `make build` makes it."""
    return os.path.abspath(os.environ.get("OPTMONITORING_DIR") or os.path.join(ROOT, "build"))


class InstalledTestCase(unittest.TestCase):
    """Tests with programs that know neither the tree nor the surroundings of this process."""

    maxDiff = None

    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="package.")
        self.addCleanup(scratch.cleanup)
        self.folder = os.path.realpath(scratch.name)

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as stream:
            stream.write(text)
        return path

    def child(self, *command, input="", **variables):
        """Exit status, standard output and standard error of an ended child."""
        child = subprocess.run(command, input=input, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               universal_newlines=True, cwd=self.folder, timeout=SECONDS,
                               env=packaging_tools.environment(**variables))
        return child.returncode, child.stdout, child.stderr

    def check_child(self, *command, input="", **variables):
        """Standard output of a child that has to end well and without a word of complaint."""
        status, out, err = self.child(*command, input=input, **variables)
        self.assertEqual((status, err), (0, ""), "it printed:\n" + out)
        return out
