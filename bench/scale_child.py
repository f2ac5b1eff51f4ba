"""Threads that all have LINE events, in the measured interpreter; prints scale.py's figures as JSON.

    OPTMONITORING_DIR=BUILD PYTHON scale_child.py THREADS...
"""

import json
import os
import sys
import threading
import time

from event_watch import END_LINE, EVENTS, TOOL, TURN_LINES, line_loop, load_module

om = load_module()
PASSES = 7
TURNS = 20000           # of one thread in one pass
EVENTS_OF_A_THREAD = TURNS * len(TURN_LINES)


def second(code, line):
    """The host's callback."""


def copy_of(function):
    """The same with a code object of its own."""
    return type(function)(function.__code__.replace(co_name="own"), {})


class Watch:
    """What one row is measured with: who is called back, None for no events at all, and the kind of collection with a line.

    Each code object has a collection of its own, with the line behind the loop.
    """

    def __init__(self, callback, kind=None):
        self.callback = callback
        self.kind = kind

    def begin(self, functions):
        for function in functions:
            record = om.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe())
            record.fEnabledBpLinenos = self.kind and self.kind((END_LINE,))
            sys.monitoring.set_local_events(TOOL, function.__code__, EVENTS.LINE if self.callback else 0)
        sys.monitoring.register_callback(TOOL, EVENTS.LINE, self.callback)

    def end(self, functions):
        for function in functions:
            sys.monitoring.set_local_events(TOOL, function.__code__, 0)
        sys.monitoring.register_callback(TOOL, EVENTS.LINE, None)


def seconds_of(functions):
    """From when all threads are at the start to when the last one is through; each has run before."""
    barrier = threading.Barrier(len(functions))
    times = []

    def run(function):
        function(10)
        barrier.wait()
        begin = time.perf_counter()
        function(TURNS)
        times.append((begin, time.perf_counter()))

    threads = [threading.Thread(target=run, args=(function,)) for function in functions]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return max(end for _, end in times) - min(begin for begin, _ in times)


def main(counts):
    cores = len(os.sched_getaffinity(0))
    callback = om.CInitialCallback(EVENTS.LINE, second, 1).Callback
    plain, watches = Watch(None), {
        "off": Watch(callback, frozenset),
        "off_set": Watch(callback, set),
        "forwarded": Watch(callback),
        "python": Watch(second),
    }
    sys.monitoring.use_tool_id(TOOL, "scale")
    report = {}
    for sharing in "shared", "own":
        least = {(what, count): float("inf") for what in ["plain", *watches] for count in counts}
        for _ in range(PASSES):
            for count in counts:
                functions = [copy_of(line_loop)] * count if sharing == "shared" else [copy_of(line_loop) for _ in range(count)]
                for what, watch in [("plain", plain), *watches.items()]:
                    watch.begin(functions)
                    least[what, count] = min(least[what, count], seconds_of(functions))
                    watch.end(functions)
        report[sharing] = {what: {
            str(count): (least[what, count] - least["plain", count]) * min(count, cores) / count / EVENTS_OF_A_THREAD * 1e9
            for count in counts} for what in watches}
    print(json.dumps(report))


if __name__ == "__main__":
    main([int(word) for word in sys.argv[1:]])
