"""What adapter_cost.py debugs: `adapter_cost_program.py SITUATION RESULT`.

Writes to the file RESULT, as JSON, the seconds that its own measured part took, where it has one.  The lines that get a
breakpoint are marked with the situation's name.
"""

import importlib
import json
import sys
import time

PASSES, MEASUREMENTS = 2_000, 150
ELEMENTS = 100_000


def start():
    pass                                # breakpoint: start


def leaf(x):
    if x == -1:
        return 0                        # breakpoint: hot
    return x + 1


def hot(count):
    total = 0
    for index in range(count):
        total += leaf(index)
    return total


def condition(count, final=False):
    first = 1
    for index in range(count):
        value = index + first           # breakpoint: condition
    return value


def step():
    total = 0                           # breakpoint: step
    for index in range(1_000_000):
        total += index
        total -= 1
    return total


def page():
    values = list(range(ELEMENTS))
    return values                       # breakpoint: page


def imported():
    pass                                # breakpoint: import pandas


def fastest(function):
    """Seconds of one of its passes, in the fastest of many measurements: a busy machine does not matter."""
    best = float("inf")
    for _ in range(MEASUREMENTS):
        begin = time.perf_counter()
        function(PASSES)
        best = min(best, time.perf_counter() - begin)
    return best / PASSES


def seconds_of_import():
    begin = time.process_time()
    importlib.import_module("pandas")
    return time.process_time() - begin


# situation -> what is measured here, and what then comes to the breakpoint
SITUATIONS = {
    "start": (None, start),
    "hot": (lambda: fastest(hot), lambda: leaf(-1)),
    "condition": (lambda: fastest(condition), lambda: condition(1, True)),
    "step": (None, step),
    "page": (None, page),
    "import pandas": (seconds_of_import, imported),
}

if __name__ == "__main__":
    measured, reach = SITUATIONS[sys.argv[1]]
    seconds = measured() if measured else None
    with open(sys.argv[2], "w") as file:
        json.dump(seconds, file)
    reach()
