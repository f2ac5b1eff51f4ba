"""One run of condition_cost.py: `condition_cost_child.py DEBUGGER SITUATION`, the result as JSON in the last line."""

import importlib
import io
import json
import os
import subprocess
import sys
import tempfile
import time

LOOP = """
def loop(count, final=False):
    first, second, third = 1, 2, 3
    for index in range(count):
        value = index + first             # breakpoint
    return value
"""
LINE = 5
CONDITION = "index == -1 or final"
LOG = "index is {index}"
FAR = 1_000_000_000                       # hits that are never reached

PASSES, MEASUREMENTS = 500, 60


def fastest(function):
    """Nanoseconds of one of its passes, in the fastest of many measurements."""
    best = None
    for _ in range(MEASUREMENTS):
        start = time.perf_counter_ns()
        function(PASSES)
        elapsed = time.perf_counter_ns() - start
        best = elapsed if best is None else min(best, elapsed)
    return best / PASSES


def time_of_eval():
    source = """
def evaluate(count, final=False):
    first, second, third = 1, 2, 3
    for index in range(count):
        eval(code)
"""
    namespace = {"code": compile(CONDITION, "<condition>", "eval")}
    exec(source, namespace)
    return fastest(namespace["evaluate"])


def run_pdb_like(make, set_break, situation, module):
    """Under pdb's class or ours; the program is run with breakpoints alone."""
    output = io.StringIO()
    debugger = make(stdin=io.StringIO("continue\n" * 10), stdout=output, nosigint=True, readrc=False)
    breakpoint = set_break(debugger, situation)
    result = {}

    def program():
        result["nanoseconds"] = fastest(module.loop)
        if situation == "ignore":
            breakpoint.ignore = 0
        elif situation == "hits":
            breakpoint.hit_condition = None
        elif situation == "log":
            breakpoint.log_text = None
        before = output.getvalue().count("value = index + first")
        module.loop(1, True)
        result["stops"] = output.getvalue().count("value = index + first") - before

    debugger.runcall(program)
    return result


def measure_pdb(situation, module):
    import pdb
    # The command line's backend where there are two.
    backend = {"backend": "monitoring"} if sys.version_info >= (3, 14) else {}

    def set_break(debugger, situation):
        return _set_break(debugger, situation, module)
    return run_pdb_like(lambda **options: pdb.Pdb(**options, **backend), set_break, situation, module)


def measure_brixdebug(situation, module):
    import brixdebug
    from brixdebug.conditions import HitCondition, LogText

    def set_break(debugger, situation):
        breakpoint = _set_break(debugger, situation, module)
        if situation == "hits":
            breakpoint.hit_condition = HitCondition.parse("== %d" % FAR)
        elif situation == "log":
            breakpoint.log_text = LogText(LOG)
        return breakpoint
    return run_pdb_like(brixdebug.Debugger, set_break, situation, module)


def _set_break(debugger, situation, module):
    condition = CONDITION if situation in ("condition", "log") else None
    error = debugger.set_break(module.__file__, LINE, cond=condition)
    assert error is None, error
    breakpoint = debugger.get_breaks(module.__file__, LINE)[-1]
    if situation == "ignore":
        breakpoint.ignore = FAR
    return breakpoint


def measure_debugpy(situation, module):
    """Through its own adapter; debug_client.py sets the breakpoint, and prints the line of each stop and each text."""
    import debugpy
    debugpy.configure(subProcess=False)
    _, port = debugpy.listen(("127.0.0.1", 0), in_process_debug_adapter=True)
    wanted = {"condition": (CONDITION,), "hits": ("", "== %d" % (PASSES * MEASUREMENTS + 1)), "log": (CONDITION, "", LOG)}
    client = subprocess.Popen([sys.executable, "-S", os.path.join(os.path.dirname(__file__), "debug_client.py"), str(port),
                               module.__file__, str(LINE), *wanted[situation]], stdout=subprocess.PIPE, text=True)
    debugpy.wait_for_client()
    result = {"nanoseconds": fastest(module.loop)}
    module.loop(1, True)
    first = client.stdout.readline()
    client.terminate()
    result["stops"] = (first + client.communicate()[0]).split().count(str(LINE))
    return result


def main():
    name, situation = sys.argv[1:]
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "measured.py")
        with open(path, "w", encoding="utf-8") as file:
            file.write(LOOP)
        sys.path.insert(0, folder)
        module = importlib.import_module("measured")
        plain, time_of = fastest(module.loop), time_of_eval()
        result = {"brixdebug": measure_brixdebug, "pdb": measure_pdb, "debugpy": measure_debugpy}[name](situation, module)
    result["nanoseconds"] -= plain
    result["eval"] = time_of
    print(json.dumps(result))


if __name__ == "__main__":
    main()
