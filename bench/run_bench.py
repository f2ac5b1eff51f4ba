#!/usr/bin/env python3
"""What an event costs on every road, in every interpreter: instructions, and times against an untraced run.

    python3 bench/run_bench.py [--pythons NAME...] [--quick] [--module-dir DIR] [--json FILE] [--variants NAME...]

Instructions per event are exact and repeatable (see instructions.py); times are measured in one run with all variants
taking turns, as a ratio to the untraced loop of the same round, and shown as the median with the smallest and largest
ratio.  Budgets are in budgets.json: instructions of an event above a C callback that does nothing, without the call of
the second callback.  A road over its budget is marked and makes the exit status 1.
"""

import argparse
import collections
import json
import os
import statistics
import subprocess
import sys

import instructions
from instructions import BenchError, Cost, Skipped

ROOT = os.path.dirname(instructions.HERE)
QUICK = ("none", "floor", "line_off", "line_skip_thread", "step_thread", "step_code", "policy_0", "internal_none",
         "fork_child")
TIMED = ("none", "floor", "line_off", "line_on", "line_skip_thread", "step_thread", "policy_0", "internal_disable",
         "internal_none", "py_noop", "py_filter", "settrace", "bdb", "bdb_monitoring", "debugpy")
ROUNDS = 5
PASSES = 3                  # of which a run reports the fastest
TURNS = 10000

Interpreter = collections.namedtuple("Interpreter", "name version executable")


def find_interpreters(names):
    """Release builds from 3.12 on."""
    rows = json.loads(subprocess.run([os.path.join(ROOT, "tools", "interpreters"), "list", "--json", "--min", "3.12"],
                                     check=True, stdout=subprocess.PIPE, text=True).stdout)
    rows = [row for row in rows if row["flavour"] == "release"]
    unknown = set(names or ()) - {row["name"] for row in rows}
    if unknown:
        raise BenchError("no release build of 3.12 or later is called %s; there are %s"
                         % (", ".join(sorted(unknown)), ", ".join(row["name"] for row in rows) or "none"))
    return [Interpreter(row["name"], "%d.%d" % tuple(row["version"][:2]), instructions.executable_of(row["command"]))
            for row in rows if not names or row["name"] in names]


def list_variants(executable):
    return subprocess.run([executable, "-S", instructions.CHILD, "--list"], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.split()


# ---- Times ----

def take_times(executable, variants, module_dir):
    """{variant: list of ratios to the untraced loop}, one for each round; and {variant: nanoseconds of an event}."""
    ratios, nanoseconds, skipped = collections.defaultdict(list), collections.defaultdict(list), set()
    for _ in range(ROUNDS):
        untraced = None
        for variant in variants:
            if variant in skipped:
                continue
            try:
                report, _ = instructions.run_child(
                    [executable, "-S", instructions.CHILD, variant, str(TURNS), str(PASSES)], module_dir)
            except Skipped:
                skipped.add(variant)
                continue
            untraced = report["seconds"] if variant == "none" else untraced
            ratios[variant].append(report["seconds"] / untraced)
            nanoseconds[variant].append(report["seconds"] / report["events"] * 1e9)
    return {variant: {"ratio": statistics.median(ratios[variant]), "ratio_min": min(ratios[variant]),
                      "ratio_max": max(ratios[variant]), "ns_per_event": statistics.median(nanoseconds[variant])}
            for variant in ratios}


# ---- Instructions ----

def judge(costs, budgets, version):
    """{variant: its row of the table} and {variant: why it was skipped}."""
    rows, skipped = {}, {}
    for variant, cost in costs.items():
        if not isinstance(cost, Cost):
            skipped[variant] = str(cost)
            continue
        over = instructions.over_floor(costs, variant)
        budget = budgets.get(variant, {}).get(version)
        rows[variant] = {"per_event": cost.per_event, "second_call": cost.second_call, "over_floor": over,
                         "floor": instructions.floor_of(variant), "budget": budget,
                         "over_budget": None not in (over, budget) and over > budget}
    return rows, skipped


def with_floors(variants):
    """The variants, and those that they are compared with."""
    needed = {name for variant in variants for name in (variant, instructions.floor_of(variant)) if name}
    return list(dict.fromkeys(list(variants) + sorted(needed)))


def number(value, form="%.1f"):
    return "" if value is None else form % value


def print_table(interpreter, result):
    print("\n== Python %s ==" % interpreter.name)
    print("Instructions per event. Over the floor: above a C callback that does nothing, without the second callback.")
    form = "%-24s %12s %12s %15s %8s  %s"
    print(form % ("variant", "per event", "second call", "over the floor", "budget", ""))
    for variant, row in result["instructions"].items():
        mark = "OVER BUDGET by %.1f" % (row["over_floor"] - row["budget"]) if row["over_budget"] else ""
        print((form % (variant, number(row["per_event"]), number(row["second_call"]), number(row["over_floor"]),
                       number(row["budget"], "%d"), mark)).rstrip())
    for variant, reason in result["skipped"].items():
        print("%-24s skipped: %s" % (variant, reason))
    if not result["times"]:
        return
    print("Times against the untraced loop, median of %d rounds (smallest .. largest)" % ROUNDS)
    for variant, row in result["times"].items():
        print("%-24s %8.2f  (%.2f .. %.2f) %10.0f ns an event"
              % (variant, row["ratio"], row["ratio_min"], row["ratio_max"], row["ns_per_event"]))


def measure(interpreter, options, budgets):
    available = list_variants(interpreter.executable)
    variants = options.variants or (QUICK if options.quick else available)
    unknown = set(variants) - set(available)
    if unknown:
        raise BenchError("no such variant: %s" % ", ".join(sorted(unknown)))
    costs = {}
    if instructions.has_valgrind():
        costs = instructions.measure(interpreter.executable, with_floors(variants), options.module_dir)
    rows, skipped = judge(costs, budgets, interpreter.version)
    timed = ["none"] + [name for name in TIMED if name in variants and name != "none"]
    return {"version": interpreter.version, "instructions": rows, "skipped": skipped,
            "times": take_times(interpreter.executable, timed, options.module_dir)}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--pythons", nargs="+", metavar="NAME", help="names that `tools/interpreters list` prints")
    parser.add_argument("--variants", nargs="+", metavar="NAME", help="only these (bench/event_roads.py --list)")
    parser.add_argument("--quick", action="store_true", help="one interpreter and the variants with a budget")
    parser.add_argument("--module-dir", default=os.environ.get("OPTMONITORING_DIR") or os.path.join(ROOT, "build"),
                        help="folder of optmonitoring.so (default: OPTMONITORING_DIR, or build)")
    parser.add_argument("--json", default=os.path.join(ROOT, "build", "bench.json"), metavar="FILE",
                        help="where the results go (default: build/bench.json)")
    return parser.parse_args()


def main():
    options = parse_arguments()
    with open(os.path.join(instructions.HERE, "budgets.json")) as stream:
        budgets = json.load(stream)
    interpreters = find_interpreters(options.pythons)
    if not interpreters:
        raise BenchError("no release build of Python 3.12 or later was found")
    if not instructions.has_valgrind():
        print("valgrind is not installed: times only")
    results = {}
    for interpreter in interpreters[:1] if options.quick else interpreters:
        results[interpreter.name] = measure(interpreter, options, budgets)
        print_table(interpreter, results[interpreter.name])
        sys.stdout.flush()
    os.makedirs(os.path.dirname(os.path.abspath(options.json)), exist_ok=True)
    with open(options.json, "w") as stream:
        json.dump(results, stream, indent=1)
    over = [(name, variant) for name, result in results.items()
            for variant, row in result["instructions"].items() if row["over_budget"]]
    print("\n%d over budget; results in %s" % (len(over), options.json))
    return 1 if over else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BenchError as error:
        sys.exit("run_bench.py: %s" % error)
