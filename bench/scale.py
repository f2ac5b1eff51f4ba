#!/usr/bin/env python3
"""What an event costs each thread while others have events too: with 1, 2, 4 and 8 threads.

    python3 bench/scale.py [--pythons NAME...] [--module-dir DIR] [--json FILE]

Without names: the free-threaded interpreters, whose threads run at the same time.  Each figure is nanoseconds of one
core per LINE event, above the same loop without events: elapsed time of all threads, times the cores that they can use,
divided by their events.  `loss` is the figure with as many threads as cores divided by that with one.  The threads all
run one function, or each runs its own.  Every figure is the least of several passes, which take turns.
"""

import argparse
import json
import os
import subprocess
import sys

import instructions
import run_bench

CHILD = os.path.join(instructions.HERE, "scale_child.py")
THREADS = (1, 2, 4, 8)
WHO = {
    "off": "a line without a breakpoint, in a frozenset",
    "off_set": "a line without a breakpoint, in a set",
    "forwarded": "an event for the host, a Python function",
    "python": "no filter: the same Python function",
}


def measure(executable, module_dir):
    """{shared or own: {what: {threads: nanoseconds}}}"""
    environment = dict(os.environ, OPTMONITORING_DIR=os.path.abspath(module_dir))
    done = subprocess.run([executable, CHILD] + list(map(str, THREADS)), env=environment, stdout=subprocess.PIPE, check=True)
    return json.loads(done.stdout)


def print_report(name, report, cores):
    print("%s, %d cores: nanoseconds an event by threads" % (name, cores))
    for sharing, rows in report.items():
        print("  %s" % ("all run one function" if sharing == "shared" else "each runs its own function"))
        for what, row in rows.items():
            loss = row[str(cores)] / row["1"] if str(cores) in row else float("nan")
            figures = "".join("%8.0f" % row[str(count)] for count in THREADS)
            print("    %-48s%s   loss %.2f" % (WHO[what], figures, loss))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--pythons", nargs="+", metavar="NAME", default=())
    parser.add_argument("--module-dir", default=os.environ.get("OPTMONITORING_DIR", "build"))
    parser.add_argument("--json", metavar="FILE", help="write the figures there too")
    options = parser.parse_args()
    found = [each for each in run_bench.find_interpreters(options.pythons, release_only=False)
             if options.pythons or each.flavour == "freethreaded"]
    if not found:
        sys.exit("scale: no free-threaded interpreter was found; tools/interpreters install 3.13-freethreaded")
    cores, reports = len(os.sched_getaffinity(0)), {}
    for each in found:
        reports[each.name] = report = measure(each.executable, options.module_dir)
        print_report(each.name, report, cores)
    if options.json:
        with open(options.json, "w") as stream:
            json.dump({"cores": cores, "nanoseconds": reports}, stream, indent=1)


if __name__ == "__main__":
    main()
