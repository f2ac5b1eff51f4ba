"""Runs a script of this folder with Node and the packages of tools/node_packages, or reports why it is skipped.

    PYTHON run_node.py --report FILE --interpreter NAME --suite NAME SCRIPT ARGUMENTS...

PYTHON is the interpreter that the scenarios debug with.  ADAPTER in the environment names another adapter than ours:
`debugpy`, from where `make bench-debugpy` has put it.
"""

import argparse
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(ROOT, os.environ.get("BUILD") or "build")
NODE = os.path.join(BUILD, "tools", "bin", "node")
PACKAGES = os.path.join(BUILD, "node", "tests", "editors")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--report")
    parser.add_argument("--interpreter", default="any")
    parser.add_argument("--suite", default="editors")
    parser.add_argument("script")
    parser.add_argument("arguments", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    if not os.path.exists(os.path.join(PACKAGES, "installed.json")):
        reason = "Node and its packages could not be installed (tools/node_packages tests/editors)"
        print("%s: skipped: %s" % (options.suite, reason))
        if options.report:
            with open(options.report, "w") as file:
                json.dump({"interpreter": options.interpreter, "suite": options.suite, "passed": 0, "failed": 0,
                           "skipped": {reason: 1}}, file)
        return 0
    version = "%d.%d" % sys.version_info[:2]
    path = [os.path.join(BUILD, "debugpy", version)] if os.environ.get("ADAPTER") == "debugpy" else \
        [os.path.abspath(os.environ.get("OPTMONITORING_DIR") or BUILD), os.path.join(ROOT, "debug", "host")]
    environment = dict(os.environ, PYTHON=sys.executable, PYTHONPATH=os.pathsep.join(path),
                       NODE_PATH=os.path.join(PACKAGES, "node_modules"), EDITORS_DIR=PACKAGES,
                       EDITORS_REPORT=options.report or "", EDITORS_INTERPRETER=options.interpreter,
                       EDITORS_SUITE=options.suite)
    return subprocess.call([NODE, os.path.join(HERE, options.script), *options.arguments], env=environment)


if __name__ == "__main__":
    sys.exit(main())
