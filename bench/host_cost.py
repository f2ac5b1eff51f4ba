"""What a program pays under the debugger, as ratios to the same program untraced.

    python3 bench/host_cost.py --module-dir build [--repeats N] [--json FILE]

For the interpreter that runs it (3.12 or later): five situations, each under the
engine of brixdebug, the standard `bdb` on `sys.settrace` and, from 3.14 on, its
monitoring backend.  Every run is a process of its own; the variants take turns, so
that a busy machine slows all of them; the figures are medians of the ratios of one
turn, with the smallest and the largest.  Each run proves that its breakpoints are
live: at its end one is reached, and the child reports the stop.
"""

import argparse
import importlib.util
import json
import os
import statistics
import subprocess
import sys

_HERE = os.path.dirname(os.path.abspath(__file__))
_HOST_DIR = os.path.join(os.path.dirname(_HERE), "debug", "host")

SITUATIONS = {
    "no breakpoint": "a debugger attached, nothing to stop at",
    "elsewhere": "a breakpoint in another file",
    "hot": "a breakpoint in the hot function, on a line that is never reached",
    "1,000": "a thousand functions, a breakpoint in each, on a line that is never reached",
    "import": "import of a large part of the standard library, a breakpoint in another file",
    "import pandas": "import of a large package, a breakpoint in another file",
}
BACKENDS = ("none", "brixdebug", "settrace", "monitoring")


def run_child(module_dir, packages, backend, situation):
    """CPU seconds of one pass of the measured part; raises when the breakpoints were not live."""
    path = os.pathsep.join([os.path.abspath(module_dir), _HOST_DIR, os.path.abspath(packages)])
    output = subprocess.run(
        [sys.executable, os.path.join(_HERE, "host_cost_child.py"), backend, situation],
        env={**os.environ, "PYTHONPATH": path}, check=True, capture_output=True, text=True).stdout
    result = json.loads(output)
    expected = 0 if backend == "none" or situation == "no breakpoint" else 1
    if result["stops"] != expected:
        raise SystemExit("error: %s, %s: %d stops where %d was to be"
                         % (backend, situation, result["stops"], expected))
    return result["seconds"]


def measure(module_dir, packages, repeats):
    """{situation: {backend: [ratio of each turn]}}."""
    situations = [each for each in SITUATIONS if each != "import pandas" or _has_pandas(packages)]
    backends = [each for each in BACKENDS if each != "monitoring" or sys.version_info >= (3, 14)]
    ratios = {situation: {backend: [] for backend in backends[1:]} for situation in situations}
    for _ in range(repeats):
        for situation in situations:
            seconds = {backend: run_child(module_dir, packages, backend, situation) for backend in backends}
            for backend in backends[1:]:
                ratios[situation][backend].append(seconds[backend] / seconds["none"])
    return ratios


def _has_pandas(packages):
    if os.path.isdir(os.path.join(packages, "pandas")) or importlib.util.find_spec("pandas"):
        return True
    print("no row `import pandas`: it is neither installed nor in %s (`make bench-pandas`)" % packages)
    return False


def show(ratios):
    backends = list(next(iter(ratios.values())))
    print("Times over the untraced program's, %s" % sys.version.split()[0])
    print("%-16s" % "" + "".join("%-26s" % backend for backend in backends))
    for situation, by_backend in ratios.items():
        cells = ["%6.3f (%.3f to %.3f)" % (statistics.median(values), min(values), max(values))
                 for values in by_backend.values()]
        print("%-16s" % situation + "".join("%-26s" % cell for cell in cells))
    extra = {backend: statistics.median(values) - 1 for backend, values in ratios["hot"].items()}
    for backend in backends[1:]:
        print("A breakpoint in the hot function: extra time of brixdebug over that of bdb on %s: %.3f"
              % (backend, extra["brixdebug"] / extra[backend]))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module-dir", default="build",
                        help="folder that holds optmonitoring.so (default: %(default)s)")
    parser.add_argument("--packages", default=os.path.join(os.path.dirname(_HERE), "build", "pandas"),
                        help="folder with a folder for each version, 3.14 and the like, that holds pandas")
    parser.add_argument("--repeats", type=int, default=5, help="turns (default: %(default)s)")
    parser.add_argument("--json", help="write the ratios to this file too")
    arguments = parser.parse_args()
    if sys.version_info < (3, 12):
        sys.exit("error: Python 3.12 or later is needed; this is %d.%d" % sys.version_info[:2])
    packages = os.path.join(arguments.packages, "%d.%d" % sys.version_info[:2])
    ratios = measure(arguments.module_dir, packages, arguments.repeats)
    show(ratios)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump({"python": sys.version, "ratios": ratios}, file, indent=1)


if __name__ == "__main__":
    main()
