"""Packages from the index for tests of the debugger beside other people's tools: put into folders of the build, once each.

    FOLDER = third_party.folder("pytest==9.2.0")       None of it is in the interpreter itself

Where a package cannot be installed the test is skipped, with what pip says as the reason.
"""

import hashlib
import os
import shutil
import sys
import tempfile
import unittest

from host_support import HERE, child_environment, module_dir

sys.path.insert(0, str(HERE.parent.parent / "tools"))
import packaging_tools

PYTEST = "pytest==9.2.0"
XDIST = "pytest-xdist==3.8.0"
COVERAGE = "coverage==7.17.3"

VERSION = "%d.%d%s" % (*sys.version_info[:2], sys.abiflags)       # what is compiled is for one kind of build


def folder(*wanted):
    """The path of a folder that holds these packages, and what they need, for the running interpreter."""
    base = os.path.join(os.path.abspath(os.environ.get("BUILD") or module_dir()), "packages")
    name = "%s-%s" % (VERSION, hashlib.blake2b(" ".join(wanted).encode(), digest_size=6).hexdigest())
    found = os.path.join(base, name)
    with packaging_tools.only_one(base):
        if not os.path.isdir(found):
            new = tempfile.mkdtemp(dir=base)
            try:
                packaging_tools.install_wheels(base, new, *wanted)
                os.rename(new, found)
            except packaging_tools.PackagingError as error:
                shutil.rmtree(new, ignore_errors=True)
                reason = str(error).strip().splitlines()
                raise unittest.SkipTest("%s cannot be installed: %s" % (" and ".join(wanted), reason[-1]))
    return found


def python_path(*folders):
    """PYTHONPATH for a child that can import these packages too."""
    return os.pathsep.join([child_environment()["PYTHONPATH"], *folders])
