#!/usr/bin/env python3
"""What the first event of a code object costs, against making an object of as many fields in Python.

    PYTHON bench/first_event.py [--module-dir DIR] [--json FILE] [--million]

Runs on any interpreter from 3.12 on and measures that interpreter.  The first event makes a record of eight fields and
enters it in a dict, keyed by the code object, and in the set of its file.  The baseline does that in Python: a class
whose __init__ sets eight fields and enters the instance in a dict, keyed by the code object, and in a set; once with
__slots__ and once without.  Both sides run over the same code objects, which nobody has hashed before.

Counts are instructions under callgrind: the difference between two numbers of code objects, divided by that number, and
less what the same loop costs without the thing measured.  For the first event that is the loop with a C callback that
does nothing; the call of the second callback, such a one as well, counts as ours.  All objects stay alive.

--million: a million code objects of a thousand files, file after file in turn: the time of each hundred thousand, the
memory of a record, and the instructions at ten thousand and at a hundred thousand code objects (some minutes).
"""

import argparse
import gc
import json
import operator
import os
import re
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
FILE = "/nonexistent/package/module_%d.py"
# Times the baseline.  The half stands for what the object made in Python does not have and the record needs: a weak
# reference with a callback, the slot of the code object, the file's two names, and the answer to the event itself.
LIMIT = 1.5
COUNTS = (500, 1500)                # past the warm-up of the interpreter; tables grow alike on both sides
LARGE_COUNTS = ((10000, 20000), (100000, 200000))
FILES = 1000
CHUNK, CHUNKS = 100000, 10
TIMEOUT = 1800                      # seconds for one run


class BenchError(Exception):
    """A run failed; the text is for the user."""


# ---- What is measured: runs in a process of its own ----

def callee():
    return None


def new_functions(count, file_of):
    """Functions of as many code objects, no two of them equal."""
    code, make_function = callee.__code__, type(callee)
    return [make_function(code.replace(co_name="callee_%d" % i, co_filename=file_of(i)), {}) for i in range(count)]


def call_each(functions):
    for function in functions:
        function()


def take_codes(functions):
    for function in functions:
        function.__code__


objects_by_code, objects_of_file = {}, set()
kept = []               # what is made stays alive: its end is not a part of the cost


class Fields:
    def __init__(self, code, frame):
        self.code = code
        self.canonical = FILE
        self.to_report = FILE
        self.internal = False
        self.linenos = None
        self.stepping = 0
        self.returning = 0
        self.update = 0
        objects_by_code[code] = self
        objects_of_file.add(self)


class Slots:
    __slots__ = ("code", "canonical", "to_report", "internal", "linenos", "stepping", "returning", "update")
    __init__ = Fields.__init__


def make_fields(functions):
    for function in functions:
        Fields(function.__code__, None)


def make_slots(functions):
    for function in functions:
        Slots(function.__code__, None)


class Host:
    """What the module needs of its host."""

    exceptions = 0

    @classmethod
    def log_exception(cls, *args):
        cls.exceptions += 1

    @classmethod
    def install(cls):
        module = type(sys)
        package, dlog = module("brixbase"), module("brixbase.dlog")
        package.__path__ = []
        dlog.Log, dlog.LogException = operator.is_, cls.log_exception
        sys.modules.update({"brixbase": package, "brixbase.dlog": dlog})


def load_filter(module_dir):
    Host.install()
    sys.path.insert(0, module_dir)
    import optmonitoring
    optmonitoring.CPerThread.SetDebugPolicyCallback(lambda thread_id: 1)
    optmonitoring.CPerThread.SetGetThreadNameCallback(lambda record: "measured")
    thread = optmonitoring.CPerThread.GetPerThread()
    thread.FindThreadName()
    thread.GetDebugPolicy()
    return optmonitoring


def watch(functions, callback):
    tool, event = sys.monitoring.DEBUGGER_ID, sys.monitoring.events.PY_START
    if sys.monitoring.get_tool(tool) is None:
        sys.monitoring.use_tool_id(tool, "first event")
    sys.monitoring.register_callback(tool, event, callback)
    for function in functions:
        sys.monitoring.set_local_events(tool, function.__code__, event)


def filter_callback(optmonitoring):
    return optmonitoring.CInitialCallback(sys.monitoring.events.PY_START, operator.is_, 1).Callback


def same_file(i):
    return FILE


def new_file(i):
    return FILE % i


FILE_NAMES = [FILE % i for i in range(FILES)]


def file_in_turn(i):
    return FILE_NAMES[i % FILES]


# name -> (file names, what runs over the functions; None: the event)
VARIANTS = {
    "loop": (same_file, take_codes),
    "slots": (same_file, make_slots),
    "dict": (same_file, make_fields),
    "floor_same_file": (same_file, None),
    "first_same_file": (same_file, None),
    "floor_new_file": (new_file, None),
    "first_new_file": (new_file, None),
    "floor_in_turn": (file_in_turn, None),
    "first_in_turn": (file_in_turn, None),
}


def check(condition, text, *values):
    if not condition:
        raise BenchError(text % values)


def check_records(optmonitoring, functions):
    """Looks at a few records only: the proof may not cost more where there are more code objects."""
    get = optmonitoring.CPerCodeObject.GetPerCodeObject
    some = functions[:50] + functions[-50:]
    records = {get(function.__code__, False) for function in some}
    check(None not in records and len(records) == len(some), "%d records for %d code objects", len(records), len(some))
    registered = len(optmonitoring.CPerCodeObject._fPerCodeObjectDict)
    check(registered == len(functions), "%d records are registered", registered)
    check(Host.exceptions == 0, "%d exceptions were suppressed", Host.exceptions)


def run_variant(name, count, module_dir):
    file_of, work = VARIANTS[name]
    functions = new_functions(count + 1, file_of)      # one to begin with: its file is known from then on
    kept.extend(functions)
    optmonitoring = load_filter(module_dir) if name.startswith("first") else None
    if work is None:
        watch(functions, filter_callback(optmonitoring) if optmonitoring else operator.is_)
        work = call_each
    rest = functions[1:]
    work(functions[:1])
    work(rest)
    if optmonitoring:
        check_records(optmonitoring, functions)


def resident_bytes():
    with open("/proc/self/statm") as stream:
        return int(stream.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def run_million(name, module_dir):
    """Prints the seconds of each chunk and the bytes by which the process grew in the measured parts."""
    optmonitoring = load_filter(module_dir) if name == "first_in_turn" else None
    callback = filter_callback(optmonitoring) if optmonitoring else operator.is_
    code, make_function, grown = callee.__code__, type(callee), 0
    for start in range(0, CHUNK * CHUNKS, CHUNK):
        chunk = [make_function(code.replace(co_name="callee_%d" % i, co_filename=file_in_turn(i)), {})
                 for i in range(start, start + CHUNK)]
        watch(chunk, callback)
        bytes_before, before = resident_bytes(), time.perf_counter()
        call_each(chunk)
        print("seconds", time.perf_counter() - before)
        grown += resident_bytes() - bytes_before
        kept.extend(chunk)
    print("bytes", grown)
    if optmonitoring:
        files = len(optmonitoring.CPerFile.GetAllPerFiles())
        check(files == FILES, "%d files", files)
        check_records(optmonitoring, kept)


def run_child(name, count, module_dir):
    gc.disable()
    if count == "million":
        run_million(name, module_dir)
    else:
        run_variant(name, int(count), module_dir)
    sys.stdout.flush()
    os._exit(0)         # the end of an interpreter costs the more the more it holds


# ---- Measuring ----

def start(command, module_dir):
    """A run of this file under a small environment that is always the same; what it printed on both channels."""
    inherited = {name: os.environ[name] for name in ("PATH", "HOME", "VALGRIND_LIB") if name in os.environ}
    environment = dict(inherited, PYTHONHASHSEED="0", PYTHONDONTWRITEBYTECODE="1", LC_ALL="C.UTF-8")
    command = command + ["-S", os.path.abspath(__file__), "--module-dir", os.path.abspath(module_dir), "--child"]
    return lambda *arguments: subprocess.run(command + [str(argument) for argument in arguments], env=environment,
                                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                             timeout=TIMEOUT)


def check_run(run):
    if run.returncode != 0:
        raise BenchError("%s\nended with status %d:\n%s" % (" ".join(run.args), run.returncode, run.stderr))
    return run


def count_instructions(executable, name, counts, module_dir):
    """Instructions for one code object."""
    child = start(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", executable], module_dir)
    totals = []
    for count in counts:
        found = re.findall(r"Collected : (\d+)", check_run(child(name, count)).stderr)
        if len(found) != 1:
            raise BenchError("callgrind reported %r" % found)
        totals.append(int(found[0]))
    return (totals[1] - totals[0]) / (counts[1] - counts[0])


def measure(executable, module_dir, with_new_files=True):
    """{name: instructions}: the baselines, the first event of a code object, and the ratios."""
    names = [name for name in VARIANTS if not name.endswith("in_turn")]
    counted = {name: count_instructions(executable, name, COUNTS, module_dir) for name in names
               if with_new_files or not name.endswith("new_file")}
    result = {"slots": counted["slots"] - counted["loop"], "dict": counted["dict"] - counted["loop"],
              "same_file": counted["first_same_file"] - counted["floor_same_file"]}
    if with_new_files:
        result["new_file"] = counted["first_new_file"] - counted["floor_new_file"]
    for baseline in ("slots", "dict"):
        result["same_file_to_" + baseline] = result["same_file"] / result[baseline]
    return result


def measure_million(executable, module_dir):
    runs = {}
    for name in ("floor_in_turn", "first_in_turn"):
        words = check_run(start([executable], module_dir)(name, "million")).stdout.split()
        pairs = list(zip(words[::2], words[1::2]))
        runs[name] = ([float(value) for key, value in pairs if key == "seconds"],
                      [int(value) for key, value in pairs if key == "bytes"][0])
    result = {"ns": [(ours - floor) / CHUNK * 1e9
                     for ours, floor in zip(runs["first_in_turn"][0], runs["floor_in_turn"][0])],
              "bytes_per_record": (runs["first_in_turn"][1] - runs["floor_in_turn"][1]) / (CHUNK * CHUNKS)}
    if has_valgrind():
        result["instructions"] = {
            counts[0]: (count_instructions(executable, "first_in_turn", counts, module_dir)
                        - count_instructions(executable, "floor_in_turn", counts, module_dir))
            for counts in LARGE_COUNTS}
    return result


def has_valgrind():
    from shutil import which
    return which("valgrind") is not None


# ---- Printing ----

def print_costs(costs):
    print("Instructions, Python %d.%d.%d" % sys.version_info[:3])
    for name, text in (("slots", "object with __slots__"), ("dict", "object with a __dict__"),
                       ("same_file", "first event, file known"), ("new_file", "first event, new file")):
        print("%-26s %9.1f" % (text, costs[name]))
    for baseline in ("slots", "dict"):
        ratio = costs["same_file_to_" + baseline]
        print("%-26s %9.3f%s" % ("to " + baseline, ratio, "  OVER %.1f" % LIMIT if ratio > LIMIT else ""))


def print_million(million):
    print("A million code objects of %d files" % FILES)
    print("ns of each %d, above the floor: %s" % (CHUNK, " ".join("%.0f" % value for value in million["ns"])))
    print("bytes of a record: %.0f" % million["bytes_per_record"])
    for count, value in million.get("instructions", {}).items():
        print("instructions from %d code objects on: %.1f" % (count, value))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--module-dir", default=os.environ.get("OPTMONITORING_DIR") or os.path.join(ROOT, "build"),
                        help="folder of optmonitoring.so (default: OPTMONITORING_DIR, or build)")
    parser.add_argument("--json", metavar="FILE", help="where the results go as well")
    parser.add_argument("--million", action="store_true", help="also a million code objects of a thousand files")
    return parser.parse_args()


def main():
    options = parse_arguments()
    if not has_valgrind() and not options.million:
        raise BenchError("valgrind is not installed")
    result = {"version": "%d.%d.%d" % sys.version_info[:3]}
    if has_valgrind():
        result["costs"] = measure(sys.executable, options.module_dir)
        print_costs(result["costs"])
        sys.stdout.flush()
    if options.million:
        result["million"] = measure_million(sys.executable, options.module_dir)
        print_million(result["million"])
    if options.json:
        with open(options.json, "w") as stream:
            json.dump(result, stream, indent=1)
    return 1 if max(result.get("costs", {}).get("same_file_to_" + name, 0) for name in ("slots", "dict")) > LIMIT else 0


if __name__ == "__main__":
    if "--child" in sys.argv:
        where = sys.argv.index("--child")
        run_child(sys.argv[where + 1], sys.argv[where + 2], sys.argv[where - 1])
    try:
        sys.exit(main())
    except BenchError as error:
        sys.exit("first_event.py: %s" % error)
