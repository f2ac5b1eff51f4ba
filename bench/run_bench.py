#!/usr/bin/env python3
"""What an event costs on every path, in every interpreter: instructions, and times against an untraced run.

    python3 bench/run_bench.py [--pythons NAME...] [--release] [--quick] [--module-dir DIR] [--results DIR]
                               [--variants NAME...] [--debugpy DIR]

Prints one table for each interpreter and writes one JSON file, paths-NAME.json, into the results' folder; for release
builds, also what a first event costs against an object made in Python (first_event.py), first-NAME.json.

Instructions per event are exact and repeatable (see instructions.py); times are measured in one run with all variants
taking turns, as a ratio to the untraced loop of the same round, and shown as the median with the quartiles.  Budgets
are in budgets.json: instructions of an event above a C callback that does nothing, without the call of the second
callback.  A path over its budget is marked; that, or a variant that did not do its work, makes the exit status 1.
"""

import argparse
import collections
import datetime
import json
import os
import statistics
import subprocess
import sys

import instructions
from instructions import BenchError, Cost, Skipped
from variants import VARIANTS, with_references

ROOT = os.path.dirname(instructions.HERE)
FIRST_EVENT = os.path.join(instructions.HERE, "first_event.py")
RESULTS = os.path.join(ROOT, "build", "bench")
QUICK = ("none", "floor", "line_off", "line_collides_5", "line_collides_10000", "line_skip_thread", "step_thread",
         "step_code", "policy_0", "step_thread_no_hook", "internal_none", "fork_child")
ROUNDS, QUICK_ROUNDS = 7, 3
PASSES = 3                  # of which a run reports the fastest
TURNS = 50000
NEW_THINGS = 1000           # of a variant in which every event is the first of something

Interpreter = collections.namedtuple("Interpreter", "name version flavour executable")

EVENT_COLUMNS = "%-22s %10s %10s %8s %10s %7s"
TIME_COLUMNS = " %9s %18s %9s"


def find_interpreters(names=None, release_only=True):
    """Those from 3.12 on; with names, these and no others."""
    rows = json.loads(subprocess.run([os.path.join(ROOT, "tools", "interpreters"), "list", "--json", "--min", "3.12"],
                                     check=True, stdout=subprocess.PIPE, text=True).stdout)
    unknown = set(names or ()) - {row["name"] for row in rows}
    if unknown:
        raise BenchError("no interpreter of 3.12 or later is called %s; there are %s"
                         % (", ".join(sorted(unknown)), ", ".join(row["name"] for row in rows) or "none"))
    wanted = [row for row in rows if (row["name"] in names if names
                                      else row["flavour"] == "release" or not release_only)]
    if not wanted:
        raise BenchError("no Python 3.12 or later was found")
    return [Interpreter(row["name"], "%d.%d" % tuple(row["version"][:2]), row["flavour"],
                        instructions.executable_of(row["command"])) for row in wanted]


def check_variants(executable):
    """The child knows the variants of the table, and no others."""
    listed = subprocess.run([executable, "-S", instructions.CHILD, "--list"], check=True, stdout=subprocess.PIPE,
                            text=True).stdout.split()
    differences = set(listed) ^ set(VARIANTS)
    if differences:
        raise BenchError("only in one of variants.py and event_paths.py: %s" % ", ".join(sorted(differences)))


def tell(text):
    """Progress, apart from the results."""
    print(text, file=sys.stderr, flush=True)


def save(folder, name, results):
    """Write NAME.json, with the day."""
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, name + ".json")
    with open(path, "w") as stream:
        json.dump(dict(results, date=datetime.date.today().isoformat()), stream, indent=1)
        stream.write("\n")
    return path


# ---- Times ----

def time_pass(executable, variant, module_dir):
    """Seconds of an event."""
    count = NEW_THINGS if VARIANTS[variant].once else TURNS
    report, _ = instructions.run_child([executable, "-S", instructions.CHILD, variant, str(count), str(PASSES)],
                                       module_dir)
    return report["seconds"] / report["events"]


def take_times(executable, variants, module_dir, rounds):
    """{variant: its ratios to the untraced loop and its nanoseconds}, and {variant: the exception of those without}."""
    seconds, failures = collections.defaultdict(list), {}
    for number_of_round in range(rounds):
        tell("taking times, round %d of %d" % (number_of_round + 1, rounds))
        for variant in variants:
            if variant in failures:
                continue
            try:
                seconds[variant].append(time_pass(executable, variant, module_dir))
            except (Skipped, BenchError) as reason:
                failures[variant] = reason
    return {variant: time_row(seconds, variant) for variant in seconds if variant not in failures}, failures


def time_row(seconds, variant):
    row = {"ns": statistics.median(seconds[variant]) * 1e9}
    if seconds.get(VARIANTS[variant].untraced):
        ratios = [mine / untraced for mine, untraced in zip(seconds[variant], seconds[VARIANTS[variant].untraced])]
        low, middle, high = statistics.quantiles(ratios, n=4, method="inclusive")
        row.update(ratio=middle, ratio_low=low, ratio_high=high, ratio_min=min(ratios), ratio_max=max(ratios))
    return row


# ---- Instructions ----

def instruction_row(costs, variant, budget):
    over = instructions.over_floor(costs, variant)
    return {"per_event": costs[variant].per_event, "second_call": costs[variant].second_call,
            "over_untraced": instructions.over_untraced(costs, variant), "over_floor": over, "budget": budget,
            "over_budget": None not in (over, budget) and over > budget}


def measure(interpreter, options, budgets):
    check_variants(interpreter.executable)
    variants = with_references(options.variants or (QUICK if options.quick else VARIANTS))
    costs = {}
    if instructions.has_valgrind():
        tell("Python %s: counting instructions of %d variants" % (interpreter.name, len(variants)))
        costs = instructions.measure(interpreter.executable, variants, options.module_dir)
    failures = {name: cost for name, cost in costs.items() if not isinstance(cost, Cost)}
    times, untimed = take_times(interpreter.executable, [name for name in variants if name not in failures],
                                options.module_dir, QUICK_ROUNDS if options.quick else ROUNDS)
    failures.update(untimed)
    # budgets are those of release builds
    version = interpreter.version if interpreter.flavour == "release" else None
    rows = {}
    for name in variants:
        reason = failures.get(name)
        rows[name] = {"title": VARIANTS[name].title, "time": times.get(name),
                      "instructions": instruction_row(costs, name, budgets.get(name, {}).get(version))
                      if name in costs and not reason else None,
                      "skipped": str(reason) if isinstance(reason, Skipped) else None,
                      "failed": str(reason) if isinstance(reason, BenchError) else None}
    return {"python": interpreter.name, "version": interpreter.version, "flavour": interpreter.flavour,
            "compiler": instructions.compilers_of(os.path.join(options.module_dir, "optmonitoring.so")),
            "variants": rows}


def compare_first_event(interpreter, options):
    """Runs first_event.py, which prints; 1 when the first event costs more than it may."""
    results = os.path.join(options.results, "first-%s.json" % interpreter.name)
    os.makedirs(options.results, exist_ok=True)
    status = subprocess.run([interpreter.executable, FIRST_EVENT, "--module-dir", options.module_dir,
                             "--json", results], env=dict(os.environ, PYTHONDONTWRITEBYTECODE="1")).returncode
    if status == 0:
        return 0
    if not os.path.exists(results):
        raise BenchError("first_event.py ended with status %d" % status)
    return 1


# ---- The table ----

def number(value, form="%.1f"):
    return "" if value is None else form % value


def row_text(name, row):
    if row["failed"] or row["skipped"]:
        return "%-22s %s" % (name, row["skipped"] or "FAILED: " + row["failed"])
    counts, times = row["instructions"] or {}, row["time"] or {}
    spread = "(%.2f .. %.2f)" % (times["ratio_low"], times["ratio_high"]) if "ratio" in times else ""
    text = EVENT_COLUMNS % (name, number(counts.get("per_event")), number(counts.get("over_untraced")),
                            number(counts.get("second_call"), "%.0f"), number(counts.get("over_floor")),
                            number(counts.get("budget"), "%d"))
    text += TIME_COLUMNS % (number(times.get("ratio"), "%.2f"), spread, number(times.get("ns"), "%.0f"))
    if counts.get("over_budget"):
        text += "  OVER BUDGET by %.1f" % (counts["over_floor"] - counts["budget"])
    return text.rstrip()


def print_table(result):
    print("\n== Python %s ==" % result["python"])
    print("Instructions per event; then times, as ratios to the untraced loop: median and quartiles.")
    print(EVENT_COLUMNS % ("variant", "per event", "+untraced", "2nd call", "over floor", "budget")
          + TIME_COLUMNS % ("ratio", "(quartiles)", "ns"))
    for name, row in result["variants"].items():
        print(row_text(name, row))


def add_common_arguments(parser):
    parser.add_argument("--pythons", nargs="+", metavar="NAME", help="names that `tools/interpreters list` prints")
    parser.add_argument("--module-dir", default=os.environ.get("OPTMONITORING_DIR") or os.path.join(ROOT, "build"),
                        help="folder of optmonitoring.so (default: OPTMONITORING_DIR, or build)")
    parser.add_argument("--results", default=RESULTS, metavar="DIR", help="where results go (default: build/bench)")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    add_common_arguments(parser)
    parser.add_argument("--release", action="store_true", help="no debug and no free-threaded builds")
    parser.add_argument("--quick", action="store_true", help="release builds, the variants with a budget, fewer rounds")
    parser.add_argument("--variants", nargs="+", metavar="NAME", choices=VARIANTS, help="only these (variants.py)")
    parser.add_argument("--debugpy", metavar="DIR",
                        default=os.environ.get("BENCH_DEBUGPY") or os.path.join(ROOT, "build", "debugpy", "{version}"),
                        help="folder to import debugpy from, `{version}` standing for 3.14 and the like "
                             "(default: BENCH_DEBUGPY, or build/debugpy/{version}; `make bench-debugpy` fills it)")
    return parser.parse_args()


def main():
    options = parse_arguments()
    os.environ["BENCH_DEBUGPY"] = os.path.abspath(options.debugpy)
    with open(os.path.join(instructions.HERE, "budgets.json")) as stream:
        budgets = json.load(stream)
    if not instructions.has_valgrind():
        print("valgrind is not installed: times only")
    over = failed = 0
    for interpreter in find_interpreters(options.pythons, options.release or options.quick):
        result = measure(interpreter, options, budgets)
        print_table(result)
        rows = result["variants"].values()
        over += sum(row["instructions"]["over_budget"] for row in rows if row["instructions"])
        failed += sum(bool(row["failed"]) for row in rows)
        print("results in %s\n" % save(options.results, "paths-" + interpreter.name, result), flush=True)
        if interpreter.flavour == "release" and instructions.has_valgrind() and not options.quick:
            over += compare_first_event(interpreter, options)
    print("\n%d over budget, %d failed" % (over, failed))
    return 1 if over or failed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BenchError as error:
        sys.exit("run_bench.py: %s" % error)
