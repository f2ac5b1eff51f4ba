#!/usr/bin/env python3
"""How the cost of an event and of a first event, and the memory, grow with what the filter keeps.

    python3 bench/growth.py [--python NAME] [--full] [--module-dir DIR] [--json FILE] [--plots DIR]

Numbers of code objects, of files, of threads alive, and of breakpoint lines in one set.  Each size runs in a process of
its own (growth_child.py), once with the filter and once with a C callback that does nothing, the floor.  Times are
processor time, the median of several passes.  Memory is the growth of the resident memory with the filter above that
with the floor, divided by the records; below a thousand records it is mostly rounding to pages.  Prints tables, and
writes a JSON file and the plots.
"""

import argparse
import json
import os
import sys

import instructions
import run_bench
import svg_plot
from instructions import BenchError

CHILD = os.path.join(instructions.HERE, "growth_child.py")
FLOOR, FILTER = "floor", "filter"
MEMORY_FROM = 1000          # records; fewer are less than the noise of resident memory


def powers(first, last):
    return [10 ** power for power in range(first, last + 1)]


SIZES = {
    "code_objects": powers(2, 5),
    "files": powers(1, 5),
    "threads": [1, 10, 100, 300, 1000],
    "breakpoints": powers(0, 4),
}
COLUMNS = {
    "code_objects": ("event_ns", "first_event_ns"),
    "files": ("event_ns", "first_event_ns"),
    "threads": ("event_ns", "first_event_ns"),
    "breakpoints": ("event_ns", "event_on_ns"),
}


def measure(executable, series, sizes, module_dir):
    """A list of rows {size, floor: {...}, filter: {...}, bytes_per_record}."""
    rows = []
    for size in sizes:
        row = {"size": size}
        for callback in (FLOOR, FILTER):
            command = [executable, "-S", CHILD, series, str(size), callback]
            row[callback], _ = instructions.run_child(command, module_dir)
        row["bytes_per_record"] = (row[FILTER]["resident"] - row[FLOOR]["resident"]) / size
        rows.append(row)
    return rows


def print_table(series, rows):
    columns = COLUMNS[series]
    print("\n== %s ==" % series.replace("_", " "))
    print("%10s" % "number" + "".join("%16s %9s" % (name.replace("_", " ")[:-3] + ", ns", "floor") for name in columns)
          + "%18s" % "bytes a record")
    for row in rows:
        cells = "".join("%16.0f %9.0f" % (row[FILTER][name], row[FLOOR][name]) for name in columns)
        has_memory = row["size"] >= MEMORY_FROM and series != "breakpoints"
        print("%10d%s%18s" % (row["size"], cells, "%.0f" % row["bytes_per_record"] if has_memory else ""))


def file_bytes(results):
    """Bytes of a file's record alone: each file of that series has one code object, whose record is taken off."""
    code_bytes = {row["size"]: row["bytes_per_record"] for row in results["code_objects"]}
    return [(row["size"], row["bytes_per_record"] - code_bytes[row["size"]])
            for row in results["files"] if row["size"] >= MEMORY_FROM and row["size"] in code_bytes]


def record_bytes(results, series):
    return [(row["size"], row["bytes_per_record"]) for row in results[series] if row["size"] >= MEMORY_FROM]


def points(rows, callback, column, smallest=1):
    return [(row["size"], row[callback][column]) for row in rows if row["size"] >= smallest]


def write_plots(folder, python, results):
    os.makedirs(folder, exist_ok=True)

    def plot(name, title, x_label, y_label, lines):
        lines = {label: values for label, values in lines.items() if values}
        svg_plot.write_plot(os.path.join(folder, name + ".svg"), "%s, Python %s" % (title, python), x_label, y_label,
                            lines)

    nanoseconds = "nanoseconds"
    for series, title, x_label in (
            ("code_objects", "PY_START event", "code objects, called in turn"),
            ("files", "PY_START event", "files, one code object each"),
            ("threads", "PY_START event", "threads alive")):
        plot("event_by_" + series, title, x_label, nanoseconds,
             {"filter": points(results[series], FILTER, "event_ns"),
              "callback doing nothing": points(results[series], FLOOR, "event_ns")})
    plot("event_by_breakpoints", "LINE event", "breakpoint lines in the code object", nanoseconds,
         {"line with breakpoint": points(results["breakpoints"], FILTER, "event_on_ns"),
          "line without": points(results["breakpoints"], FILTER, "event_ns"),
          "callback doing nothing": points(results["breakpoints"], FLOOR, "event_ns")})
    plot("first_event", "First PY_START event of a code object", "code objects", nanoseconds,
         {"each of a new file": points(results["files"], FILTER, "first_event_ns", 100),
          "of one file": points(results["code_objects"], FILTER, "first_event_ns"),
          "callback doing nothing": points(results["code_objects"], FLOOR, "first_event_ns")})
    plot("first_event_by_threads", "Start of a thread, with its first event", "threads alive", nanoseconds,
         {"filter": points(results["threads"], FILTER, "first_event_ns", 10),
          "callback doing nothing": points(results["threads"], FLOOR, "first_event_ns", 10)})
    plot("memory", "Resident memory", "records", "bytes a record",
         {"code object": record_bytes(results, "code_objects"), "file": file_bytes(results),
          "thread": record_bytes(results, "threads")})


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--python", metavar="NAME", help="a name that `tools/interpreters list` prints (default: the "
                                                         "first release build of 3.12 or later)")
    parser.add_argument("--full", action="store_true", help="up to a million code objects (needs some 2 GB)")
    parser.add_argument("--module-dir", default=os.environ.get("OPTMONITORING_DIR")
                        or os.path.join(run_bench.ROOT, "build"), help="folder of optmonitoring.so (default: build)")
    parser.add_argument("--json", default=os.path.join(run_bench.ROOT, "build", "growth.json"), metavar="FILE")
    parser.add_argument("--plots", default=os.path.join(run_bench.ROOT, "docs", "plots"), metavar="DIR")
    return parser.parse_args()


def main():
    options = parse_arguments()
    interpreters = run_bench.find_interpreters([options.python] if options.python else None)
    if not interpreters:
        raise BenchError("no release build of Python 3.12 or later was found")
    python = interpreters[0]
    print("Python %s" % python.name)
    results = {}
    for series, sizes in SIZES.items():
        if options.full and series == "code_objects":
            sizes = sizes + [10 ** 6]
        results[series] = measure(python.executable, series, sizes, options.module_dir)
        print_table(series, results[series])
        sys.stdout.flush()
    for size, value in file_bytes(results):
        print("a file's record alone, with %d files: %.0f bytes" % (size, value))
    sizes_of = results["threads"][-1][FILTER]
    print("sys.getsizeof: code object's record %d, file's %d, thread's %d bytes"
          % (sizes_of["sizeof_code"], sizes_of["sizeof_file"], sizes_of["sizeof_thread"]))
    os.makedirs(os.path.dirname(os.path.abspath(options.json)), exist_ok=True)
    with open(options.json, "w") as stream:
        json.dump({"python": python.name, "results": results}, stream, indent=1)
    write_plots(options.plots, python.name, results)
    print("\nresults in %s, plots in %s" % (options.json, options.plots))


if __name__ == "__main__":
    try:
        main()
    except BenchError as error:
        sys.exit("growth.py: %s" % error)
