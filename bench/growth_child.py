"""One size of one series of growth.py, in the measured interpreter.

    OPTMONITORING_DIR=BUILD PYTHON growth_child.py SERIES SIZE filter|floor

Prints names and values: nanoseconds of processor time of an event, and bytes of memory that the first events took:
what is allocated where PYTHONMALLOC=malloc makes the C library allocate everything, resident memory otherwise.  Exit
status 1 when the records that should exist do not.
"""

import _thread
import gc
import operator
import os
import statistics
import sys
import time

from event_paths import exit_with
from event_watch import EVENTS, LINE, START, TOOL, TURN_LINES, Filter, call_loop, callee, check, line_loop, watch

EVENTS_OF_A_PASS = 20000    # at least
PASSES = 7
FILE_NAME = "/nonexistent/program_%d.py"
STACK = 256 * 1024          # bytes, of each of many threads


def _resident():
    with open("/proc/self/statm") as stream:
        return int(stream.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def _make_allocated():
    """A function that asks the C library's allocator for the bytes in use, its own heads included."""
    import ctypes

    class MallInfo(ctypes.Structure):
        _fields_ = [(name, ctypes.c_size_t) for name in (
            "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost")]

    function = ctypes.CDLL(None).mallinfo2
    function.restype = MallInfo

    def allocated():
        info = function()
        return info.uordblks + info.hblkhd
    return allocated


memory = _make_allocated() if os.environ.get("PYTHONMALLOC") == "malloc" else _resident


def nanoseconds_of(action):
    before = time.process_time_ns()
    action()
    return time.process_time_ns() - before


def median_pass(action, events):
    """Nanoseconds of an event; `action` raises this many and is repeated until there are enough for one pass."""
    repeats = max(1, EVENTS_OF_A_PASS // events)

    def run():
        for _ in range(repeats):
            action()
    run()
    return statistics.median(nanoseconds_of(run) for _ in range(PASSES)) / (repeats * events)


def call_each(functions):
    for function in functions:
        function()


# ---- Code objects and files ----

def measure_functions(size, name_of_file, f):
    """SIZE functions of a code object each: the first call of each, then calls in turn."""
    code, make_function = callee.__code__, type(callee)
    functions = [make_function(code.replace(co_name="callee_%d" % i, co_filename=name_of_file(i)), {})
                 for i in range(size)]
    watch(START, f.callback.Callback if f else operator.is_)
    for function in functions:
        sys.monitoring.set_local_events(TOOL, function.__code__, EVENTS.PY_START)
    before = memory()
    results = {"first_event_ns": nanoseconds_of(lambda: call_each(functions)) / size, "memory": memory() - before}
    if f:
        lines = {1}         # one set for all: what a host keeps in its sets is its own
        for function in functions:
            record = f.om.CPerCodeObject.GetPerCodeObject(function.__code__, False)
            check(record is not None, "a code object has no record")
            record.fEnabledBpLinenos = lines
    results["event_ns"] = median_pass(lambda: call_each(functions), size)
    return results


def code_objects(size, f):
    return measure_functions(size, lambda i: FILE_NAME % 0, f)


def files(size, f):
    before = len(f.om.CPerFile.GetAllPerFiles()) if f else 0
    results = measure_functions(size, lambda i: FILE_NAME % i, f)
    check(not f or len(f.om.CPerFile.GetAllPerFiles()) == before + size, "not %d new files", size)
    return results


# ---- Threads ----

def threads(size, f):
    """The first event of SIZE threads that stay alive; then events of this thread."""
    watch(START, f.callback.Callback if f else operator.is_)
    _thread.stack_size(STACK)
    ready, end = _thread.allocate_lock(), _thread.allocate_lock()
    ready.acquire()
    end.acquire()

    def live():
        try:
            callee()
        finally:
            ready.release()
        end.acquire()
        end.release()

    def start():
        for _ in range(size):
            _thread.start_new_thread(live, ())
            ready.acquire()

    _thread.start_new_thread(ready.release, ())     # what a process does at its first thread is no thread's cost
    ready.acquire()
    before = memory()
    results = {"first_event_ns": nanoseconds_of(start) / size, "memory": memory() - before}
    if f:
        count = len(f.om.CPerThread.GetAllPerThreads())
        check(count == size + 1, "%d records for %d threads", count, size + 1)
        results["sizeof_thread"] = sys.getsizeof(f.thread)
        results["sizeof_code"] = sys.getsizeof(f.record)
        results["sizeof_file"] = sys.getsizeof(f.om.CPerFile.GetAllPerFiles()[0])
    results["event_ns"] = median_pass(lambda: call_loop(EVENTS_OF_A_PASS), EVENTS_OF_A_PASS)
    return results


# ---- Breakpoint lines ----

def breakpoints(size, f):
    """SIZE lines in the set of one code object: events on other lines, then on lines that are in it as well."""
    turns = EVENTS_OF_A_PASS // LINE.per_turn
    watch(LINE, f.callback.Callback if f else operator.is_)
    if f:
        f.record.fEnabledBpLinenos = lines = set(range(10 ** 6, 10 ** 6 + 3 * size, 3))
    off = median_pass(lambda: line_loop(turns), EVENTS_OF_A_PASS)
    if f:
        lines.update(TURN_LINES)
    on = median_pass(lambda: line_loop(turns), EVENTS_OF_A_PASS)
    if f:
        f.prove_forwarded(2, TURN_LINES * 2 + TURN_LINES[:1])
    return {"event_ns": off, "event_on_ns": on, "memory": 0}


def run(series, size, callback):
    gc.disable()
    kind = LINE if series is breakpoints else START
    f = Filter(kind, c_second=True) if callback == "filter" else None
    if f and series is threads:
        f.om.CPerThread.SetGetThreadNameCallback(operator.attrgetter("fThreadId"))
        f.om.CPerThread.SetDebugPolicyCallback(operator.truth)
        f.thread.GetDebugPolicy()
    for name, value in series(size, f).items():
        print(name, value)


if __name__ == "__main__":
    SERIES = {function.__name__: function for function in (code_objects, files, threads, breakpoints)}
    exit_with(lambda: run(SERIES[sys.argv[1]], int(sys.argv[2]), sys.argv[3]))
