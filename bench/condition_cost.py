"""What a breakpoint costs that is reached and does not stop.

    python3 bench/condition_cost.py --module-dir build [--debugpy DIR] [--repeats N] [--json FILE]

For the interpreter that runs it (3.12 or later).  One line of a loop has a breakpoint: with a condition that is false, with
hits to be ignored, with a hit condition that is not met, or with a text to be logged whose condition is false.  Each is
measured under brixdebug, pdb and, where it is found, debugpy; beside them stands `eval` of the compiled condition in a
loop.  A figure is the time of one pass above that of the same loop without a debugger.  Each run is a process of its own,
takes the fastest of many short measurements, so that a busy machine does not matter, and proves at its end that the
breakpoint is live.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys

_HERE = os.path.dirname(os.path.abspath(__file__))
_HOST_DIR = os.path.join(os.path.dirname(_HERE), "debug", "host")
_VERSION = "%d.%d" % sys.version_info[:2]

CHILD_SECONDS = 600
SITUATIONS = ("condition", "ignore", "hits", "log")
# pdb has no hit conditions and no texts to be logged; what debugpy ignores is a hit condition.
MEASURED_BY = {"brixdebug": SITUATIONS, "pdb": ("condition", "ignore"), "debugpy": ("condition", "hits", "log")}


def run_child(options, debugger, situation):
    """Nanoseconds of one pass above the plain loop's; None where debugpy is not to be had."""
    path = [os.path.abspath(options.module_dir), _HOST_DIR]
    if debugger == "debugpy":
        path.append(options.debugpy.replace("{version}", _VERSION))
    child = subprocess.run([sys.executable, os.path.join(_HERE, "condition_cost_child.py"), debugger, situation],
                           env={**os.environ, "PYTHONPATH": os.pathsep.join(path), "PYDEVD_DISABLE_FILE_VALIDATION": "1"},
                           stdout=subprocess.PIPE, text=True, stdin=subprocess.DEVNULL, check=True,
                           timeout=CHILD_SECONDS)
    result = json.loads(child.stdout.splitlines()[-1])
    if result["stops"] != 1:
        raise SystemExit("error: %s, %s: %s stops where 1 was to be" % (debugger, situation, result["stops"]))
    return result


def measure(options):
    """{debugger: {situation: [nanoseconds]}}, and those of `eval`."""
    debuggers = [each for each in MEASURED_BY if each != "debugpy" or has_debugpy(options)]
    times = {debugger: {each: [] for each in MEASURED_BY[debugger]} for debugger in debuggers}
    evals = []
    for _ in range(options.repeats):
        for situation in SITUATIONS:
            for debugger in debuggers:
                if situation in MEASURED_BY[debugger]:
                    result = run_child(options, debugger, situation)
                    times[debugger][situation].append(result["nanoseconds"])
                    evals.append(result["eval"])
    return times, evals


def has_debugpy(options):
    path = os.pathsep.join([options.debugpy.replace("{version}", _VERSION)])
    return subprocess.run([sys.executable, "-c", "import debugpy"], env={**os.environ, "PYTHONPATH": path},
                          stderr=subprocess.DEVNULL, check=False).returncode == 0


def show(times, evals):
    """Medians, and how many times of `eval` and what part of the others' that is."""
    middle = statistics.median
    print("A breakpoint that does not stop, nanoseconds a pass, %s; eval: %.0f" % (sys.version.split()[0], middle(evals)))
    print("%-12s" % "" + "".join("%12s" % each for each in SITUATIONS))
    for debugger, by_situation in times.items():
        print("%-12s" % debugger + "".join("%12s" % ("%.0f" % middle(by_situation[each]) if each in by_situation else "-")
                                           for each in SITUATIONS))
    for situation in SITUATIONS:
        own = middle(times["brixdebug"][situation])
        others = {name: by[situation] for name, by in times.items() if name != "brixdebug" and situation in by}
        print("brixdebug, %s: %.2f times eval" % (situation, own / middle(evals))
              + "".join(", %.3f of %s" % (own / middle(values), name) for name, values in others.items()))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module-dir", default="build", help="folder that holds optmonitoring.so (default: %(default)s)")
    parser.add_argument("--debugpy", metavar="DIR",
                        default=os.environ.get("BENCH_DEBUGPY") or os.path.join(_HERE, "..", "build", "debugpy", "{version}"),
                        help="folder to import debugpy from, `{version}` standing for 3.14 and the like")
    parser.add_argument("--repeats", type=int, default=3, help="turns (default: %(default)s)")
    parser.add_argument("--json", help="write the figures to this file too")
    options = parser.parse_args()
    if sys.version_info < (3, 12):
        sys.exit("error: Python 3.12 or later is needed; this is %s" % _VERSION)
    times, evals = measure(options)
    show(times, evals)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"python": sys.version, "nanoseconds": times, "eval": evals}, file, indent=1)


if __name__ == "__main__":
    main()
