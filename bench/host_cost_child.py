"""One run of host_cost.py: `host_cost_child.py BACKEND SITUATION`, the result as JSON.

The measured part comes first.  After it the line with the breakpoint is reached
once, which has to stop.
"""

import importlib
import json
import os
import sys
import tempfile
import time

HOT = '''
def leaf(x):
    if x == -1:
        return 0                    # never
    return x + 1

def hot(count, reach=False):
    total = 0
    for index in range(count):
        value = leaf(index)
        if value == -1 or reach:
            total = -1              # breakpoint
        total += value
    return total
'''

FUNCTION = '''
def function_%d(reach=False):
    total = 0
    for index in range(8):
        total += index
    if reach:
        total = -1                  # breakpoint
    return total
'''

OTHER = '''
def other():
    value = 1
    return value                    # breakpoint
'''

IMPORTS = ("asyncio", "concurrent.futures", "email.mime.multipart", "http.server", "json.tool",
           "logging.config", "multiprocessing.pool", "pydoc", "sqlite3", "tarfile", "unittest.mock",
           "urllib.request", "xml.dom.minidom", "xml.sax", "xmlrpc.client", "zipfile", "tomllib",
           "imaplib", "smtplib", "ftplib", "doctest", "difflib", "decimal", "fractions", "statistics")


def load(folder, name, text):
    """Write a module, import it, and say in which line its first breakpoint belongs."""
    path = os.path.join(folder, name + ".py")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    lines = [number for number, line in enumerate(text.splitlines(), 1) if "# breakpoint" in line]
    return importlib.import_module(name), path, lines


def make_debugger(backend):
    if backend == "brixdebug":
        from brixdebug.engine import Bdb
        arguments = {}
    else:
        from bdb import Bdb
        arguments = {"backend": backend} if sys.version_info >= (3, 14) else {}

    class Counter(Bdb):
        stops = 0

        def user_line(self, frame):
            self.stops += 1
            self.set_continue()

        def do_clear(self, arg):
            pass

    return Counter(**arguments)


# How much of the program is run: a figure per pass is what is compared, and the
# standard debugger would take minutes for what is measurable untraced.
HOT_PASSES = {"none": 1_000_000, "brixdebug": 1_000_000}
MANY_PASSES = {"none": 200, "brixdebug": 200}
FEW_HOT_PASSES, FEW_MANY_PASSES = 40_000, 5


def run_all(functions, rounds):
    for _ in range(rounds):
        for function in functions:
            function()


def import_all():
    for name in IMPORTS:
        importlib.import_module(name)


def situation_parts(name, backend, folder):
    """(measured part, its passes, part that reaches a breakpoint, [(file, line)])."""
    passes = HOT_PASSES.get(backend, FEW_HOT_PASSES)
    if name == "1,000":
        module, path, lines = load(folder, "many", "".join(FUNCTION % n for n in range(1000)))
        functions = [getattr(module, "function_%d" % n) for n in range(1000)]
        passes = MANY_PASSES.get(backend, FEW_MANY_PASSES)
        return (lambda: run_all(functions, passes), passes, lambda: functions[-1](True),
                [(path, line) for line in lines])
    if name in ("import", "import pandas"):
        other, path, lines = load(folder, "other", OTHER)
        measured = import_all if name == "import" else lambda: importlib.import_module("pandas")
        return measured, 1, other.other, [(path, line) for line in lines]
    hot, hot_path, hot_lines = load(folder, "hot", HOT)
    measured = lambda: hot.hot(passes)
    if name == "no breakpoint":
        return measured, passes, lambda: None, []
    if name == "elsewhere":
        other, path, lines = load(folder, "other", OTHER)
        return measured, passes, other.other, [(path, line) for line in lines]
    return measured, passes, lambda: hot.hot(1, True), [(hot_path, line) for line in hot_lines]


def main():
    backend, situation = sys.argv[1:]
    importlib.import_module("brixdebug.engine")   # every variant has loaded what it needs
    with tempfile.TemporaryDirectory() as folder:
        sys.path.insert(0, folder)
        measured, passes, reaching, breakpoints = situation_parts(situation, backend, folder)
        seconds = 0.0

        def program():
            nonlocal seconds
            start = time.process_time()
            measured()
            seconds = time.process_time() - start
            reaching()

        stops = 0
        if backend == "none":
            program()
        else:
            debugger = make_debugger(backend)
            for path, line in breakpoints:
                error = debugger.set_break(path, line)
                assert error is None, error
            debugger.runcall(program)
            stops = debugger.stops - 1          # the first line of the program
        print(json.dumps({"seconds": seconds / passes, "stops": stops}))


if __name__ == "__main__":
    main()
