"""Instructions per event: the difference between two counts of a variant of event_roads.py under callgrind.

Both runs do the same outside of the loop, so the difference is the loop's alone: a number that does not depend on how
busy the machine is and comes out the same every time.

The second callback is the host's.  Where a variant forwards its events, `second_callback_cost` is what the call of the
C second callback took, from entering the interpreter's PyObject_Vectorcall to leaving it: the same two runs with
collection toggled by that function.  No loop of these variants calls it otherwise.
"""

import collections
import concurrent.futures
import os
import re
import shutil
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))
CHILD = os.path.join(HERE, "event_roads.py")
SKIPPED = 77                # the child's exit status when the interpreter cannot run a variant
PARALLEL = 2                # valgrind processes at a time
TIMEOUT = 600               # seconds for one run
SECOND_CALL = "PyObject_Vectorcall"

FORWARDING = ("line_on", "step_thread", "step_code")
FIRST_EVENTS = ("floor_first_same_file", "first_event_same_file", "floor_first_new_file", "first_event_new_file",
                "floor_thread", "new_thread")
# whose cost is the event's alone, and what is subtracted for that
FLOORS = {
    "start_skipped": "floor_start",
    "return_skipped": "floor_return",
    "yield_skipped": "floor_yield",
    "resume_skipped": "floor_resume",
    "first_event_same_file": "floor_first_same_file",
    "first_event_new_file": "floor_first_new_file",
    "new_thread": "floor_thread",
}
UNTRACED = {"floor_start": "none_call", "floor_return": "none_call", "floor_yield": "none_generator",
            "floor_resume": "none_generator"}

Run = collections.namedtuple("Run", "instructions events")
Cost = collections.namedtuple("Cost", "per_event second_call")      # second_call: None where nothing is forwarded


class Skipped(Exception):
    """The interpreter cannot run the variant; the text is the reason."""


class BenchError(Exception):
    """A run failed; the text is for the user."""


def has_valgrind():
    return shutil.which("valgrind") is not None


def floor_of(variant):
    """The variant that is the floor of a variant of the filter; None for floors and untraced loops."""
    if variant.startswith(("floor", "none")):
        return None
    return FLOORS.get(variant, "floor")


def executable_of(command):
    """The real file of an interpreter that may be started by a script."""
    return subprocess.run(command + ["-S", "-c", "import sys; print(sys.executable)"], check=True,
                          stdout=subprocess.PIPE, text=True).stdout.strip()


def environment(module_dir):
    """The same small environment for every child: its size moves the stack, its PYTHON variables change the run."""
    kept = {name: os.environ[name] for name in ("PATH", "HOME", "VALGRIND_LIB") if name in os.environ}
    return dict(kept, OPTMONITORING_DIR=os.path.abspath(module_dir), PYTHONHASHSEED="0", PYTHONDONTWRITEBYTECODE="1",
                LC_ALL="C.UTF-8")


def run_child(command, module_dir):
    """A run of event_roads.py: what it printed as {name: number}, with `pid` that of the process that was measured.

    What is printed on standard error comes second.
    """
    child = subprocess.Popen(command, env=environment(module_dir), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True)
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


def counts_of(variant):
    """The two COUNTs: the smaller one is past the interpreter's warm-up, and something that it does once in thousands
    of turns is less than an instruction of an event."""
    return (100, 300) if variant in FIRST_EVENTS else (500, 4500)


def count_instructions(executable, variant, count, module_dir, toggle=None):
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
    if toggle:
        command.append("--toggle-collect=" + toggle)
    report, err = run_child(command + [executable, "-S", CHILD, variant, str(count)], module_dir)
    # a forked child reports as well
    totals = {int(pid): int(total) for pid, total in re.findall(r"==(\d+)== Collected : (\d+)", err)}
    if report["pid"] not in totals:
        raise BenchError("callgrind did not report on process %d:\n%s" % (report["pid"], err))
    return Run(totals[report["pid"]], report["events"])


def per_event(few, many):
    return (many.instructions - few.instructions) / (many.events - few.events)


def measure(executable, variants, module_dir):
    """{variant: Cost, or Skipped with the reason}."""
    jobs = {}
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        for variant in variants:
            toggles = (None, SECOND_CALL) if variant in FORWARDING else (None,)
            for toggle in toggles:
                for count in counts_of(variant):
                    jobs[variant, toggle, count] = pool.submit(count_instructions, executable, variant, count,
                                                               module_dir, toggle)

    def cost(variant, toggle):
        return per_event(*(jobs[variant, toggle, count].result() for count in counts_of(variant)))

    costs = {}
    for variant in variants:
        try:
            second = cost(variant, SECOND_CALL) if variant in FORWARDING else None
            costs[variant] = Cost(cost(variant, None), second)
        except Skipped as reason:
            costs[variant] = reason
    return costs


def over_floor(costs, variant):
    """Instructions of an event above its floor, without the second callback; None where a part is missing."""
    floor = floor_of(variant)
    if floor is None or not all(isinstance(costs.get(name), Cost) for name in (floor, variant)):
        return None
    return costs[variant].per_event - costs[floor].per_event - (costs[variant].second_call or 0)
