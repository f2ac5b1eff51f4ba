"""What somebody pays who debugs in an editor, beside debugpy.

    python3 bench/adapter_cost.py --module-dir build [--debugpy DIR] [--packages DIR] [--repeats N] [--json FILE]

For the interpreter that runs it (3.12 or later).  One client starts either adapter over standard input and output, as an
editor does, and has it launch adapter_cost_program.py with one breakpoint; both take turns, and where it can, the program
without a debugger takes part.  Each session is new and proves that it did its work: its breakpoint is reached at last,
steps come as far as they have to, and a page has its elements.  What is short is repeated, and its fastest run counts: a
busy machine does not matter so much then.  The figures are medians of the turns, the ratios those of the runs of one turn.
"""

import argparse
import contextlib
import importlib.util
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

from debug_client import Client

_HERE = os.path.dirname(os.path.abspath(__file__))
_ROOT = os.path.dirname(_HERE)
_PROGRAM = os.path.join(_HERE, "adapter_cost_program.py")
_VERSION = "%d.%d" % sys.version_info[:2]

PAGES, PAGE, ELEMENTS = 100, 100, 100_000
PLAIN, OWN, PEER = "no debugger", "brixdebug", "debugpy"
OFTEN = {"start": 5}                    # times in one turn: what is short, and waits for processes to be started
STEPS = {OWN: 2_000, PEER: 100}         # what takes debugpy some minutes is measured by a part of it
ADAPTERS = {OWN: "brixdebug.dap", PEER: "debugpy.adapter"}
CONDITIONS = {"condition": "index == -1 or final"}

# situation -> (what it is, what a figure is, its unit, how many of them are a second, compared with, at most that much of it)
SITUATIONS = {
    "start": ("a launch", "from the start of the adapter to the stack of the first stop", "ms", 1e3, PEER, 1 / 4),
    "hot": ("a hot loop, a breakpoint in its function that is never reached", "a pass", "ns", 1e9, PLAIN, 1.05),
    "condition": ("a breakpoint whose condition is false", "a pass, above that of the program without a debugger", "ns", 1e9,
                  PEER, 1 / 10),
    "step": ("steps over a line", "next, stopped, threads, stackTrace, scopes, variables", "ms", 1e3, PEER, 1 / 2),
    "page": ("%d elements of a list of %d" % (PAGE, ELEMENTS), "variables", "us", 1e6, PEER, 1 / 2),
    "import pandas": ("`import pandas`, a breakpoint elsewhere", "processor time", "ms", 1e3, PLAIN, 1.10),
}


# ---- Sessions ----

@contextlib.contextmanager
def session(options, adapter, situation, folder):
    """A client whose program stands at its breakpoint, and the file of its own measurement."""
    result = os.path.join(folder, "result.json")
    process = subprocess.Popen([sys.executable, "-m", ADAPTERS[adapter]], cwd=folder, env=_environment(options, adapter),
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=-1)
    client = Client(process.stdout, process.stdin.raw)
    try:
        begun = client.begin("launch", {"program": _PROGRAM, "args": [situation, result], "cwd": folder,
                                        "console": "internalConsole"},
                             _PROGRAM, breakpoint_line(situation), CONDITIONS.get(situation))
        client.answer_to(begun, "launch")
        yield Stop(client, situation), result
        client.request("disconnect", terminateDebuggee=True)
        process.communicate(timeout=60)
    finally:
        process.kill()
        process.communicate()


class Stop:
    """Where the program stands, as an editor shows it."""

    def __init__(self, client, situation):
        self.client = client
        event = client.next_event("stopped")
        if event is None:
            raise SystemExit("error: %s: the program did not stop" % situation)
        self.thread = event["body"]["threadId"]
        self.frame = client.request("stackTrace", threadId=self.thread, startFrame=0, levels=20)["stackFrames"][0]
        if self.frame["line"] != breakpoint_line(situation):
            raise SystemExit("error: %s: a stop in line %s" % (situation, self.frame["line"]))

    def step(self):
        """`next`, and what an editor asks for afterwards."""
        self.client.request("next", threadId=self.thread)
        event = self.client.next_event("stopped")
        self.client.request("threads")
        self.frame = self.client.request("stackTrace", threadId=event["body"]["threadId"], startFrame=0,
                                         levels=20)["stackFrames"][0]
        return self.locals()

    def locals(self):
        """{name: row}."""
        scopes = self.client.request("scopes", frameId=self.frame["id"])["scopes"]
        return {row["name"]: row for row in self.children(scopes[0]["variablesReference"])}

    def children(self, reference, **page):
        return self.client.request("variables", variablesReference=reference, **page)["variables"]


def breakpoint_line(situation):
    with open(_PROGRAM) as file:
        return 1 + [line.rstrip().endswith("# breakpoint: " + situation) for line in file].index(True)


def _environment(options, adapter):
    path = {PLAIN: [], OWN: [os.path.abspath(options.module_dir), os.path.join(_ROOT, "debug", "host")],
            PEER: [options.debugpy]}[adapter]
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join([*path, options.packages]),
                   "PYDEVD_DISABLE_FILE_VALIDATION": "1"}
    # With these every start compiles all modules, or the program flushes each line.
    for name in ("PYTHONDONTWRITEBYTECODE", "PYTHONUNBUFFERED"):
        environment.pop(name, None)
    return environment


# ---- Measurements: seconds of one session ----

def measure_start(options, adapter, folder):
    begin = time.perf_counter()
    if adapter == PLAIN:
        run_plain(options, "start", folder)
        return time.perf_counter() - begin
    with session(options, adapter, "start", folder):
        return time.perf_counter() - begin


def measure_step(options, adapter, folder):
    """Of one step."""
    steps = STEPS[adapter]
    with session(options, adapter, "step", folder) as (stop, _):
        begin = time.perf_counter()
        for _ in range(steps):
            variables = stop.step()
        seconds = time.perf_counter() - begin
        if variables["index"]["value"] != str((steps - 2) // 3):
            raise SystemExit("error: %s: %d steps came to %s" % (adapter, steps, variables["index"]))
        return seconds / steps


def measure_page(options, adapter, folder):
    """The fastest of many pages.  debugpy has no pages and sends its first 300 elements for each."""
    seconds = []
    with session(options, adapter, "page", folder) as (stop, _):
        reference = stop.locals()["values"]["variablesReference"]
        for start in range(0, ELEMENTS, ELEMENTS // PAGES):
            begin = time.perf_counter()
            rows = stop.children(reference, filter="indexed", start=start, count=PAGE)
            seconds.append(time.perf_counter() - begin)
            values = [row["value"] for row in rows]
            if values != [str(start + each) for each in range(PAGE)] and (adapter == OWN or len(values) < PAGE):
                raise SystemExit("error: %s: not the page of %d elements from %d" % (adapter, PAGE, start))
    return min(seconds)


def measured_by_program(situation):
    def measure(options, adapter, folder):
        if adapter == PLAIN:
            return run_plain(options, situation, folder)
        with session(options, adapter, situation, folder) as (_, result), open(result) as file:
            return json.load(file)
    return measure


def run_plain(options, situation, folder):
    result = os.path.join(folder, "result.json")
    subprocess.run([sys.executable, _PROGRAM, situation, result], cwd=folder, env=_environment(options, PLAIN), check=True)
    with open(result) as file:
        return json.load(file)


MEASURES = {"start": (measure_start, (PLAIN, OWN, PEER)), "step": (measure_step, (OWN, PEER)),
            "page": (measure_page, (OWN, PEER)),
            **{situation: (measured_by_program(situation), (PLAIN, OWN, PEER)) for situation in
               ("hot", "condition", "import pandas")}}


def measure(options):
    """{situation: {adapter: [seconds of each turn]}}."""
    situations = [each for each in SITUATIONS if each in options.situations and (each != "import pandas" or has_pandas(options))]
    has_peer = os.path.isdir(os.path.join(options.debugpy, "debugpy"))
    if not has_peer:
        print("nothing of debugpy: it is not in %s (`make bench-debugpy`)" % options.debugpy)
    times = {situation: {adapter: [] for adapter in MEASURES[situation][1] if adapter != PEER or has_peer}
             for situation in situations}
    with tempfile.TemporaryDirectory() as folder:
        for turn in range(-1, options.repeats):          # the first compiles modules, and counts for nothing
            for situation, by_adapter in times.items():
                if turn < 0 and situation not in ("start", "import pandas"):
                    continue
                for adapter, seconds in [*by_adapter.items()] * OFTEN.get(situation, 1):
                    value = MEASURES[situation][0](options, adapter, folder)
                    if turn >= 0:
                        seconds.append(value)
    for seconds in times.get("condition", {}).values():
        if seconds is not times["condition"][PLAIN]:
            seconds[:] = [value - plain for value, plain in zip(seconds, times["condition"][PLAIN])]
    return times


def has_pandas(options):
    if os.path.isdir(os.path.join(options.packages, "pandas")) or importlib.util.find_spec("pandas"):
        return True
    print("no row `import pandas`: it is neither installed nor in %s (`make bench-pandas`)" % options.packages)
    return False


# ---- Results ----

def ratio(times, situation, adapter, base):
    """The median of the turns' ratios; None without both."""
    by_adapter = times.get(situation, {})
    if not by_adapter.get(adapter) or not by_adapter.get(base):
        return None
    return statistics.median(value / other for value, other in zip(by_adapter[adapter], by_adapter[base]))


def show(times):
    print("In an editor, %s" % sys.version.split()[0])
    for situation, by_adapter in times.items():
        title, what, unit, factor, base, most = SITUATIONS[situation]
        print("%s (%s)" % (title, what))
        for adapter, seconds in by_adapter.items():
            middle = statistics.median(seconds) * factor
            print("    %-12s %10.1f %s   (%.1f to %.1f)" % (adapter, middle, unit, min(seconds) * factor, max(seconds) * factor))
        of_base = ratio(times, situation, OWN, base)
        if of_base is not None:
            print("    %s: %.3f of %s; aim: at most %.3g%s" % (OWN, of_base, base, most, "" if of_base <= most else "   MISSED"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module-dir", default=os.path.join(_ROOT, "build"),
                        help="folder that holds optmonitoring.so (default: build)")
    parser.add_argument("--debugpy", metavar="DIR",
                        default=os.environ.get("BENCH_DEBUGPY") or os.path.join(_ROOT, "build", "debugpy", "{version}"),
                        help="folder to import debugpy from, `{version}` standing for 3.14 and the like")
    parser.add_argument("--packages", metavar="DIR", default=os.path.join(_ROOT, "build", "pandas"),
                        help="folder with a folder for each version, 3.14 and the like, that holds pandas")
    parser.add_argument("--situations", nargs="+", choices=list(SITUATIONS), default=list(SITUATIONS), metavar="NAME",
                        help="some of: %s" % ", ".join(SITUATIONS))
    parser.add_argument("--repeats", type=int, default=5, help="turns (default: %(default)s)")
    parser.add_argument("--json", metavar="FILE", help="write the seconds to this file too")
    options = parser.parse_args()
    if sys.version_info < (3, 12):
        sys.exit("error: Python 3.12 or later is needed; this is %s" % _VERSION)
    options.debugpy = os.path.abspath(options.debugpy.replace("{version}", _VERSION))
    options.packages = os.path.join(os.path.abspath(options.packages), _VERSION)
    times = measure(options)
    show(times)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"python": sys.version.split()[0], "seconds": times}, file, indent=1)


if __name__ == "__main__":
    main()
