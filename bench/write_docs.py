#!/usr/bin/env python3
"""Fills the tables of docs/performance.md and draws its plots from the results of the last measurements.

    python3 bench/write_docs.py [--results DIR] [--docs DIR]

Reads the JSON files that run_bench.py, growth.py and `make bench-units` left in the results' folder (`make bench-docs`
runs them all).  A table stands between the lines `<!-- table: NAME -->` and `<!-- end of table -->`; one without
results is left as it is, and its name is printed.
"""

import argparse
import glob
import json
import os
import re
import statistics
import sys

import adapter_cost
import growth
import run_bench
import svg_plot
from run_bench import number
from variants import FLOORS, PATHS, RIVALS, VARIANTS

TABLE = re.compile(r"(<!-- table: (\w+) -->\n).*?(<!-- end of table -->)", re.DOTALL)
NONE = "–"
NANOSECONDS = "nanoseconds"


class Results:
    """What was measured: lists of one record for each interpreter, the oldest version first."""

    def __init__(self, folder):
        self.paths = self._of_releases(folder, "paths-")
        self.growth = self._of_releases(folder, "growth-")
        self.first = self._of_releases(folder, "first-")
        self.adapter = self._of_releases(folder, "adapter-")
        self.units = [benchmark for path in sorted(glob.glob(os.path.join(folder, "units-*.json")))
                      for benchmark in self._read(path)["benchmarks"] if benchmark["run_type"] == "iteration"]

    @staticmethod
    def _read(path):
        with open(path) as stream:
            return json.load(stream)

    def _of_releases(self, folder, prefix):
        found = [self._read(path) for path in glob.glob(os.path.join(folder, prefix + "*.json"))]
        found = [result for result in found if result.get("flavour", "release") == "release"]
        for result in found:
            result.setdefault("python", result.get("version"))      # first_event.py knows no other name
        return sorted(found, key=lambda result: [int(part) for part in result["python"].split(".")])


# ---- Text ----

def markdown_table(head, rows):
    lines = [head, ["---"] * len(head)] + rows
    return "".join("| %s |\n" % " | ".join(cells) for cells in lines)


def grouped(value, form="%.0f"):
    """A number with its thousands apart."""
    text = form % value
    whole, point, rest = text.partition(".")
    return "{:,}".format(int(whole)) + point + rest


def path_cell(result, variant, kind, form):
    row = result["variants"].get(variant)
    if not row or row["failed"] or not row[kind]:
        return NONE
    return form(row[kind])


def over_floor_text(counts):
    text = grouped(counts["over_floor"])
    return "**%s**" % text if counts["over_budget"] else text


def budget_text(results, variant):
    budgets = {row["instructions"]["budget"] for result in results
               for row in [result["variants"].get(variant)] if row and row["instructions"]}
    return ", ".join(number(budget, "%d") for budget in sorted(budgets - {None})) or NONE


def time_text(times):
    return "%.2f (%.2f–%.2f)" % (times["ratio"], times["ratio_low"], times["ratio_high"])


# ---- Tables ----

def measured(results):
    """Not a table: when, and with what."""
    dates = sorted({result["date"] for result in results.paths})
    compilers = sorted({result["compiler"] for result in results.paths})
    return "Measured on %s with CPython %s; the module built by %s.\n" % (
        " to ".join(sorted({dates[0], dates[-1]})), ", ".join(result["python"] for result in results.paths),
        "; ".join(compilers))


def _path_table(results, variants, kind, form, with_budget=False):
    head = ["path"] + ["budget"] * with_budget + [result["python"] for result in results.paths]
    rows = [[VARIANTS[variant].title] + [budget_text(results.paths, variant)] * with_budget
            + [path_cell(result, variant, kind, form) for result in results.paths] for variant in variants]
    return markdown_table(head, rows)


def paths(results):
    return _path_table(results, PATHS, "instructions", over_floor_text, with_budget=True)


def events(results):
    def form(counts):
        return grouped(counts["over_untraced"])
    return _path_table(results, FLOORS + RIVALS + PATHS, "instructions", form)


def times(results):
    return _path_table(results, FLOORS + RIVALS + PATHS, "time", time_text)


def first(results):
    rows = [("object with `__slots__`, a dict entry, a set entry", "slots", "%.0f"),
            ("the same object with a `__dict__`", "dict", "%.0f"),
            ("first event of a code object, file known", "same_file", "%.0f"),
            ("first event of a code object, new file", "new_file", "%.0f"),
            ("file known, to the object with `__slots__`", "same_file_to_slots", "%.2f"),
            ("file known, to the object with a `__dict__`", "same_file_to_dict", "%.2f")]
    return markdown_table(["instructions"] + [result["python"] for result in results.first],
                          [[title] + [grouped(result["costs"][name], form) for result in results.first]
                           for title, name, form in rows])


def _growth_table(results, series, column, title):
    """Nanoseconds with the filter, and with the floor in parentheses."""
    sizes = [row["size"] for row in results.growth[0]["series"][series]]

    def cell(result, size):
        for row in result["series"][series]:
            if row["size"] == size:
                return "%s (%s)" % (grouped(row[growth.FILTER][column]), grouped(row[growth.FLOOR][column]))
        return NONE
    return markdown_table([title] + [result["python"] for result in results.growth],
                          [[grouped(size)] + [cell(result, size) for result in results.growth] for size in sizes])


def event_by_code_objects(results):
    return _growth_table(results, "code_objects", "event_ns", "code objects")


def event_by_files(results):
    return _growth_table(results, "files", "event_ns", "files")


def event_by_threads(results):
    return _growth_table(results, "threads", "event_ns", "threads alive")


def event_by_breakpoints(results):
    return _growth_table(results, "breakpoints", "event_ns", "lines in the set")


def event_on_by_breakpoints(results):
    return _growth_table(results, "breakpoints", "event_on_ns", "lines in the set")


def first_by_code_objects(results):
    return _growth_table(results, "code_objects", "first_event_ns", "code objects of one file")


def first_by_files(results):
    return _growth_table(results, "files", "first_event_ns", "files, one code object each")


def first_by_threads(results):
    return _growth_table(results, "threads", "first_event_ns", "threads alive")


def memory(results):
    """Bytes of a record, allocated and resident, at the largest numbers."""
    rows = []
    for title, name, sizes, values in _record_bytes(results):
        most = sizes[-1]
        rows.append([title, grouped(most)] + ["%s / %s" % (grouped(allocated[most]), grouped(resident[most]))
                                              for allocated, resident in values])
        rows.append([title + ", the object alone", ""] + [grouped(result["sizeof"][name])
                                                          for result in results.growth])
    return markdown_table(["record", "records"] + [result["python"] for result in results.growth], rows)


def _record_bytes(results):
    """(title, name in sizeof, sizes, for each interpreter ({size: allocated}, {size: resident}))."""
    def of_series(series):
        return [tuple({row["size"]: row[column] for row in result["series"][series]}
                      for column in ("allocated", "resident")) for result in results.growth]
    files = [tuple(growth.file_bytes(result["series"], column) for column in ("allocated", "resident"))
             for result in results.growth]
    for title, name, values in (("code object", "code", of_series("code_objects")), ("file", "file", files),
                                ("thread", "thread", of_series("threads"))):
        yield title, name, sorted(set.intersection(*(set(allocated) for allocated, _ in values))), values


def adapter(results):
    """Of each situation the medians, and the ratio with its aim."""
    rows = []
    for situation, (title, what, unit, factor, base, most) in adapter_cost.SITUATIONS.items():
        rows.append(["%s: %s" % (title, what)] + [""] * len(results.adapter))
        for who in adapter_cost.MEASURES[situation][1]:
            cells = [result["seconds"].get(situation, {}).get(who) for result in results.adapter]
            rows.append(["%s, %s" % (who, unit)] + [number_text(statistics.median(seconds) * factor) if seconds else NONE
                                                    for seconds in cells])
        ratios = [adapter_cost.ratio(result["seconds"], situation, adapter_cost.OWN, base) for result in results.adapter]
        rows.append(["brixdebug to %s; the aim: at most %.3g" % (base, most)]
                    + [NONE if ratio is None else ("%.3f" if ratio < 0.1 else "%.2f") % ratio for ratio in ratios])
    return markdown_table([""] + [result["python"] for result in results.adapter], rows)


def number_text(value):
    return grouped(value, "%.0f" if value >= 100 else "%.1f")


# name in the benchmark -> (title, whether a run handles all entries)
UNITS = {
    "BM_InsertString": ("hash table: insert a name", True),
    "BM_FindString": ("hash table: find a name", False),
    "BM_InsertArray": ("hash table: insert an identity", True),
    "BM_FindArray": ("hash table: find an identity", False),
    "BM_RegisterMissingFiles": ("registry: register a missing file", True),
    "BM_RegisterRealFiles": ("registry: register a real file", True),
    "BM_LookupByName": ("registry: look up a known name", False),
    "BM_LookupByIdentity": ("registry: look up a new form of a name", False),
    "BM_AbsoluteName": ("absolute name, known", False),
}
UNIT_SECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def unit_points(results):
    """{benchmark: {entries: nanoseconds of one operation}}."""
    points = {}
    for benchmark in results.units:
        name, size = benchmark["name"].split("/")[:2]
        of_all = UNITS[name][1]
        nanoseconds = benchmark["cpu_time"] * UNIT_SECONDS[benchmark["time_unit"]]
        points.setdefault(name, {})[int(size)] = nanoseconds / (int(size) if of_all else 1)
    return points


def units(results):
    points = unit_points(results)
    sizes = sorted({size for values in points.values() for size in values if size >= 100})
    return markdown_table(["nanoseconds, of one among"] + [grouped(size) for size in sizes],
                          [[title] + [grouped(points[name][size]) if size in points[name] else NONE for size in sizes]
                           for name, (title, _) in UNITS.items() if name in points])


TABLES = {
    "measured": (measured, "paths"),
    "paths": (paths, "paths"),
    "events": (events, "paths"),
    "times": (times, "paths"),
    "first": (first, "first"),
    "event_by_code_objects": (event_by_code_objects, "growth"),
    "event_by_files": (event_by_files, "growth"),
    "event_by_threads": (event_by_threads, "growth"),
    "event_by_breakpoints": (event_by_breakpoints, "growth"),
    "event_on_by_breakpoints": (event_on_by_breakpoints, "growth"),
    "first_by_code_objects": (first_by_code_objects, "growth"),
    "first_by_files": (first_by_files, "growth"),
    "first_by_threads": (first_by_threads, "growth"),
    "memory": (memory, "growth"),
    "units": (units, "units"),
    "adapter": (adapter, "adapter"),
}


def fill(text, results):
    """The document with its tables, and the names of those without results."""
    missing = []

    def table(match):
        function, needed = TABLES[match.group(2)]
        if not getattr(results, needed):
            missing.append(match.group(2))
            return match.group(0)
        return match.group(1) + function(results) + match.group(3)
    return TABLE.sub(table, text), missing


# ---- Plots ----

def growth_points(result, series, callback, column, smallest=1):
    return [(row["size"], row[callback][column]) for row in result["series"][series] if row["size"] >= smallest]


def plot_growth(plot, result):
    """Of one interpreter."""
    def points(*arguments):
        return growth_points(result, *arguments)
    filtered, floor = growth.FILTER, growth.FLOOR
    of_python = ", Python %s" % result["python"]
    for series, x_label in (("code_objects", "code objects, called in turn"), ("files", "files, one code object each"),
                            ("threads", "threads alive")):
        plot("event_by_" + series, "PY_START event" + of_python, x_label, NANOSECONDS,
             {"filter": points(series, filtered, "event_ns"),
              "callback doing nothing": points(series, floor, "event_ns")})
    plot("event_by_breakpoints", "LINE event" + of_python, "breakpoint lines in the code object", NANOSECONDS,
         {"line with breakpoint": points("breakpoints", filtered, "event_on_ns"),
          "line without": points("breakpoints", filtered, "event_ns"),
          "callback doing nothing": points("breakpoints", floor, "event_ns")})
    plot("first_event", "First PY_START event of a code object" + of_python, "code objects", NANOSECONDS,
         {"each of a new file": points("files", filtered, "first_event_ns", 100),
          "of one file": points("code_objects", filtered, "first_event_ns"),
          "callback doing nothing": points("code_objects", floor, "first_event_ns")})
    plot("first_event_by_threads", "Start of a thread, with its first event" + of_python, "threads alive", NANOSECONDS,
         {"filter": points("threads", filtered, "first_event_ns", 10),
          "callback doing nothing": points("threads", floor, "first_event_ns", 10)})


def plot_memory(plot, results):
    plot("memory", "Memory of a record, Python %s" % results.growth[0]["python"], "records", "bytes allocated",
         {title: [(size, values[0][0][size]) for size in sizes if size >= 100]
          for title, _, sizes, values in _record_bytes(results)})


def plot_units(plot, results):
    points = unit_points(results)
    for name, title, wanted in (
            ("units_find", "Finding one among many", ("BM_LookupByName", "BM_FindString", "BM_AbsoluteName")),
            ("units_add", "Adding one to many", ("BM_RegisterMissingFiles", "BM_InsertString"))):
        plot(name, title, "names", NANOSECONDS,
             {UNITS[benchmark][0]: sorted(points[benchmark].items()) for benchmark in wanted if benchmark in points})


def draw(folder, results):
    os.makedirs(folder, exist_ok=True)

    def plot(name, title, x_label, y_label, lines):
        lines = {label: values for label, values in lines.items() if values}
        svg_plot.write_plot(os.path.join(folder, name + ".svg"), title, x_label, y_label, lines)
    if results.growth:
        plot_growth(plot, results.growth[0])
        plot_memory(plot, results)
    if results.units:
        plot_units(plot, results)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--results", default=run_bench.RESULTS, metavar="DIR", help="default: build/bench")
    parser.add_argument("--docs", default=os.path.join(run_bench.ROOT, "docs"), metavar="DIR", help="default: docs")
    options = parser.parse_args()
    results = Results(options.results)
    path = os.path.join(options.docs, "performance.md")
    with open(path) as stream:
        text, missing = fill(stream.read(), results)
    with open(path, "w") as stream:
        stream.write(text)
    draw(os.path.join(options.docs, "plots"), results)
    for name in missing:
        print("no results for the table %s: left as it was" % name)
    return 0


if __name__ == "__main__":
    sys.exit(main())
