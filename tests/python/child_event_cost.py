"""A traced loop: MODE (bare, nothing or filter) and a number of turns, two LINE events each.

`bare` traces nothing, `nothing` calls a C function that only compares its arguments, `filter` the module's filter for
a code object whose breakpoint lines do not hold the events' lines. Prints the bytes by which the peak of traced memory
grew when the third argument is `memory`.
"""
import itertools
import operator
import sys
import tracemalloc

import support


def loop(turns):
    for _ in turns:
        pass


def refuse(*args):
    raise AssertionError("no event is of interest")


def make_callback(mode):
    optmonitoring = support.load()
    if mode == "nothing":
        return operator.is_
    record = optmonitoring.CPerCodeObject.GetPerCodeObject(loop.__code__, True, sys._getframe())
    kind = frozenset if support.is_lock_off() else set      # without the lock no event looks into a set by itself
    record.fEnabledBpLinenos = kind(range(1000, 1020))
    return optmonitoring.CInitialCallback(sys.monitoring.events.LINE, refuse, 1).Callback


def main(mode, count, measure=""):
    callback = make_callback(mode)
    with support.monitoring_tool({sys.monitoring.events.LINE: callback}) as tool:
        if mode != "bare":
            tool.set_local_events(loop.__code__, sys.monitoring.events.LINE)
        loop([None] * 100)
        turns = itertools.repeat(None, int(count))
        if measure != "memory":
            loop(turns)
            return
        tracemalloc.start()
        loop([])
        tracemalloc.reset_peak()
        before = tracemalloc.get_traced_memory()[1]
        loop(turns)
        print(tracemalloc.get_traced_memory()[1] - before)


main(*sys.argv[1:])
