"""Instructions per event: of the loop of a variant of event_paths.py, counted by callgrind.

A number that does not depend on how busy the machine is and comes out the same every time.  Counted is what runs below
LOOP on the thread that calls it, after a warm-up; for the events of new threads it is the difference between two counts
of the whole process.

The second callback is the host's.  Where a variant forwards its events, `second_call` is what the call of the C second
callback took, from entering the interpreter's PyObject_Vectorcall to leaving it: the difference between two counts of
what runs below that.  No loop of these variants calls it otherwise.
"""

import collections
import concurrent.futures
import os
import re
import shutil
import subprocess

from variants import VARIANTS

HERE = os.path.dirname(os.path.abspath(__file__))
CHILD = os.path.join(HERE, "event_paths.py")
SKIPPED = 77                # the child's exit status when the interpreter cannot run a variant
PARALLEL = 2                # valgrind processes at a time
TIMEOUT = 600               # seconds for one run
SECOND_CALL = "PyObject_Vectorcall"
LOOP = "PyNumber_MatrixMultiply"        # by which event_paths.py calls the loop, and nothing else calls anything

Run = collections.namedtuple("Run", "instructions events")
Cost = collections.namedtuple("Cost", "per_event second_call")      # second_call: None where nothing is forwarded


class Skipped(Exception):
    """The interpreter cannot run the variant; the text is the reason."""


class BenchError(Exception):
    """A run failed; the text is for the user."""


def has_valgrind():
    return shutil.which("valgrind") is not None


def executable_of(command):
    """The real file of an interpreter that may be started by a script."""
    return subprocess.run(command + ["-S", "-c", "import sys; print(sys.executable)"], check=True,
                          stdout=subprocess.PIPE, text=True).stdout.strip()


def compilers_of(module):
    """The compilers that a built module names, as one text."""
    with open(module, "rb") as stream:
        found = set(re.findall(rb"GCC: \([^)]*\) [0-9.]+|clang version [0-9.]+", stream.read()))
    return ", ".join(sorted(compiler.decode() for compiler in found))


def environment(module_dir):
    """The same small environment for every child: its size moves the stack, its PYTHON variables change the run."""
    kept = {name: os.environ[name] for name in ("PATH", "HOME", "VALGRIND_LIB", "BENCH_DEBUGPY") if name in os.environ}
    return dict(kept, OPTMONITORING_DIR=os.path.abspath(module_dir), PYTHONHASHSEED="0", PYTHONDONTWRITEBYTECODE="1",
                PYTHON_GIL="1", LC_ALL="C.UTF-8")


def run_child(command, module_dir, **more_environment):
    """A run of event_paths.py: what it printed as {name: number}, with `pid` that of the process that was measured.

    What is printed on standard error comes second.
    """
    child = subprocess.Popen(command, env=dict(environment(module_dir), **more_environment), stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True)
    try:
        out, err = child.communicate(timeout=TIMEOUT)
    except subprocess.TimeoutExpired:
        child.kill()
        child.communicate()
        raise BenchError("%s\nwas still running after %d seconds" % (" ".join(command), TIMEOUT)) from None
    if child.returncode == SKIPPED:
        raise Skipped(out.strip().partition(": ")[2])
    if child.returncode != 0:
        raise BenchError("%s\nended with status %d:\n%s" % (" ".join(command), child.returncode, err))
    words = out.split()
    return dict({"pid": child.pid}, **{name: float(value) for name, value in zip(words[::2], words[1::2])}), err


def turns_of(variant):
    """(warm-up, turns): the warm-up is the interpreter's, and something that it does once in thousands of turns is less
    than an instruction of an event."""
    return (100, 200) if VARIANTS[variant].once else (500, 4000)


def count_instructions(executable, variant, numbers, module_dir, toggle=None):
    """Of one run of event_paths.py with these numbers; below the function `toggle` alone, if given."""
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    if toggle:
        command.append("--toggle-collect=" + toggle)
    report, err = run_child(command + [executable, "-S", CHILD, variant] + [str(number) for number in numbers],
                            module_dir)
    # a forked child reports as well
    totals = {int(pid): int(total) for pid, total in re.findall(r"==(\d+)== Collected : (\d+)", err)}
    if report["pid"] not in totals:
        raise BenchError("callgrind did not report on process %d:\n%s" % (report["pid"], err))
    return Run(totals[report["pid"]], report["events"])


def per_event_below_loop(executable, variant, module_dir):
    warm_up, turns = turns_of(variant)
    run = count_instructions(executable, variant, (turns, 1, warm_up), module_dir, LOOP)
    return run.instructions / run.events


def per_event_by_difference(executable, variant, module_dir, toggle=None):
    warm_up, turns = turns_of(variant)
    few, many = (count_instructions(executable, variant, (number,), module_dir, toggle)
                 for number in (warm_up, warm_up + turns))
    return (many.instructions - few.instructions) / (many.events - few.events)


def measure(executable, variants, module_dir):
    """{variant: Cost, or the exception, Skipped or BenchError}."""
    whole, second = {}, {}
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        for variant in variants:
            way = per_event_by_difference if VARIANTS[variant].in_threads else per_event_below_loop
            whole[variant] = pool.submit(way, executable, variant, module_dir)
            if VARIANTS[variant].forwards:
                second[variant] = pool.submit(per_event_by_difference, executable, variant, module_dir, SECOND_CALL)
    costs = {}
    for variant in variants:
        try:
            costs[variant] = Cost(whole[variant].result(), second[variant].result() if variant in second else None)
        except (Skipped, BenchError) as reason:
            costs[variant] = reason
    return costs


def _above(costs, variant, reference):
    if not all(isinstance(costs.get(name), Cost) for name in (reference, variant)):
        return None
    return costs[variant].per_event - costs[reference].per_event


def over_untraced(costs, variant):
    """Instructions that an event adds to the loop that nobody watches; None where a part is missing."""
    return _above(costs, variant, VARIANTS[variant].untraced)


def over_floor(costs, variant):
    """Instructions of an event above its floor, without the second callback; None where a part is missing."""
    above = _above(costs, variant, VARIANTS[variant].floor)
    return None if above is None else above - (costs[variant].second_call or 0)
