#!/usr/bin/env python3
"""How the cost of an event and of a first event, and the memory, grow with what the filter keeps.

    python3 bench/growth.py [--pythons NAME...] [--full] [--module-dir DIR] [--results DIR]

Numbers of code objects, of files, of threads alive, and of breakpoint lines in one set.  Each size runs in processes of
their own (growth_child.py), with the filter and with a C callback that does nothing, the floor, in turns.  Times are
processor time: the median of several passes, and of that the least of several processes, which is what a busy machine
disturbs least.  Memory is what the first events took with the filter above that with the floor, divided by the records.
It is counted twice: `allocated` in processes whose C library allocates everything, which is exact but makes each small
object some bytes larger, and `resident` memory, which is mostly rounding to pages below a thousand records.  Prints
tables, and writes one JSON file for each interpreter, growth-NAME.json.
"""

import argparse
import os
import sys

import instructions
import run_bench
from instructions import BenchError

CHILD = os.path.join(instructions.HERE, "growth_child.py")
CALLBACKS = FLOOR, FILTER = "floor", "filter"
REPEATS, REPEATS_OF_MANY = 5, 2     # processes
MANY = 10 ** 6
RESIDENT_FROM = 1000        # records; fewer are less than the noise of resident memory
# everything allocated by the C library, from one pool
COUNTED_MEMORY = {"PYTHONMALLOC": "malloc", "MALLOC_ARENA_MAX": "1"}


def powers(first, last):
    return [10 ** power for power in range(first, last + 1)]


SIZES = {
    "code_objects": powers(2, 6),
    "files": powers(1, 5),
    "threads": powers(0, 3),
    "breakpoints": powers(0, 4),
}
COLUMNS = {
    "code_objects": ("event_ns", "first_event_ns"),
    "files": ("event_ns", "first_event_ns"),
    "threads": ("event_ns", "first_event_ns"),
    "breakpoints": ("event_ns", "event_on_ns"),
}
HAVE_MEMORY = ("code_objects", "files", "threads")


def run(executable, series, size, callback, module_dir, **environment):
    command = [executable, "-S", CHILD, series, str(size), callback]
    return instructions.run_child(command, module_dir, **environment)[0]


def measure_size(executable, series, size, module_dir):
    """{size, floor: {name: value}, filter: {name: value}, allocated and resident: bytes a record}."""
    reports = {callback: [] for callback in CALLBACKS}
    for _ in range(REPEATS if size < MANY else REPEATS_OF_MANY):
        for callback in CALLBACKS:
            reports[callback].append(run(executable, series, size, callback, module_dir))
    row = {callback: {name: min(report[name] for report in reports[callback])
                      for name in reports[callback][0]} for callback in CALLBACKS}
    row["size"] = size
    if series in HAVE_MEMORY:
        floor, with_filter = (run(executable, series, size, callback, module_dir, **COUNTED_MEMORY)["memory"]
                              for callback in CALLBACKS)
        row["allocated"] = (with_filter - floor) / size
        row["resident"] = (row[FILTER]["memory"] - row[FLOOR]["memory"]) / size
    return row


def file_bytes(results, column):
    """{size: bytes of a file's record alone}: each file of that series has a code object, whose record is taken off."""
    code_bytes = {row["size"]: row[column] for row in results["code_objects"]}
    return {row["size"]: row[column] - code_bytes[row["size"]] for row in results["files"] if row["size"] in code_bytes}


def print_head(series):
    print("\n-- %s --" % series.replace("_", " "))
    print("%10s" % "number" + "".join("%16s %9s" % (name.replace("_", " ")[:-3] + ", ns", "floor")
                                      for name in COLUMNS[series])
          + ("%18s %10s" % ("bytes: allocated", "resident") if series in HAVE_MEMORY else ""))


def print_row(series, row):
    text = "%10d" % row["size"]
    text += "".join("%16.0f %9.0f" % (row[FILTER][name], row[FLOOR][name]) for name in COLUMNS[series])
    if series in HAVE_MEMORY:
        text += "%18.0f %10s" % (row["allocated"], run_bench.number(row["resident"], "%.0f")
                                 if row["size"] >= RESIDENT_FROM else "")
    print(text, flush=True)


def measure(interpreter, sizes, module_dir):
    print("\n== Python %s ==" % interpreter.name)
    results = {}
    for series in sizes:
        print_head(series)
        results[series] = []
        for size in sizes[series]:
            row = measure_size(interpreter.executable, series, size, module_dir)
            results[series].append(row)
            print_row(series, row)
    for size, value in file_bytes(results, "allocated").items():
        print("a file's record alone, with %d files: %.0f bytes" % (size, value))
    largest = results["threads"][-1][FILTER]
    sizeof = {name: largest["sizeof_" + name] for name in ("code", "file", "thread")}
    print("the object alone, sys.getsizeof: code object's record %(code)d, file's %(file)d, thread's %(thread)d bytes"
          % sizeof)
    return {"python": interpreter.name, "version": interpreter.version, "series": results, "sizeof": sizeof}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    run_bench.add_common_arguments(parser)
    parser.add_argument("--full", action="store_true", help="up to a million code objects (needs some 2 GB)")
    return parser.parse_args()


def main():
    options = parse_arguments()
    sizes = {series: [size for size in numbers if options.full or size < MANY] for series, numbers in SIZES.items()}
    for interpreter in run_bench.find_interpreters(options.pythons):
        results = measure(interpreter, sizes, options.module_dir)
        print("results in %s" % run_bench.save(options.results, "growth-" + interpreter.name, results), flush=True)


if __name__ == "__main__":
    try:
        main()
    except BenchError as error:
        sys.exit("growth.py: %s" % error)
