"""What a user waits for at the prompt, as ratios to `pdb`: the start, and `next` from a script.

    python3 bench/session_cost.py --module-dir build [--repeats N] [--json FILE]

For the interpreter that runs it (3.12 or later).  Each session is a process of its own that reads its commands from a
pipe; `brixdebug` and `pdb` take turns, and the figures are those of the processor, the least of all turns.  A session
proves that it did its work: the child counts the prompts.
"""

import argparse
import json
import os
import resource
import subprocess
import sys
import tempfile

_HERE = os.path.dirname(os.path.abspath(__file__))
_HOST_DIR = os.path.join(os.path.dirname(_HERE), "debug", "host")

STEPS = 10_000
PROGRAM = """\
def work(rounds):
    total = 0
    for index in range(rounds):
        total += index
    return total

work(1_000_000)
"""
# situation -> commands before what is measured, how many times `next`
SITUATIONS = {
    "start": ([], 0),
    "next": (["step", "step"], STEPS),
    "next, a breakpoint elsewhere": (["break 5", "step", "step"], STEPS),
}
DEBUGGERS = ("pdb", "brixdebug")


def run_session(module_dir, debugger, script, commands):
    """Processor seconds of one session; raises when it did not prompt for each command."""
    path = os.pathsep.join([os.path.abspath(module_dir), _HOST_DIR])
    environment = {**os.environ, "PYTHONPATH": path, "NO_COLOR": "1", "TERM": "dumb"}
    environment.pop("PYTHONDONTWRITEBYTECODE", None)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    child = subprocess.run([sys.executable, "-m", debugger, script], env=environment, capture_output=True, text=True,
                           input="".join(command + "\n" for command in commands))
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if child.stdout.count("(Pdb)") < len(commands):
        raise SystemExit("error: %s gave up:\n%s" % (debugger, (child.stdout + child.stderr)[-2000:]))
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def measure(module_dir, repeats):
    """{situation: {debugger: least seconds}}; those of `next` without the start."""
    least = {situation: dict.fromkeys(DEBUGGERS, float("inf")) for situation in SITUATIONS}
    with tempfile.TemporaryDirectory() as folder:
        script = os.path.join(folder, "program.py")
        with open(script, "w", encoding="utf-8") as file:
            file.write(PROGRAM)
        for _ in range(repeats):
            for situation, (commands, steps) in SITUATIONS.items():
                for debugger in DEBUGGERS:
                    seconds = run_session(module_dir, debugger, script, commands + ["next"] * steps + ["quit"])
                    least[situation][debugger] = min(least[situation][debugger], seconds)
    for situation, (_, steps) in SITUATIONS.items():
        if steps:
            for debugger in DEBUGGERS:
                least[situation][debugger] -= least["start"][debugger]
    return least


def show(least):
    print("At the prompt, %s" % sys.version.split()[0])
    for situation, by_debugger in least.items():
        steps = SITUATIONS[situation][1]
        unit, factor = ("us a step", 1e6 / steps) if steps else ("ms", 1e3)
        print("%-30s%s   ratio to pdb %.2f" % (
            situation, "".join("%12s %7.1f %s" % (debugger, seconds * factor, unit)
                               for debugger, seconds in by_debugger.items()),
            by_debugger["brixdebug"] / by_debugger["pdb"]))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module-dir", default="build",
                        help="folder that holds optmonitoring.so (default: %(default)s)")
    parser.add_argument("--repeats", type=int, default=5, help="turns (default: %(default)s)")
    parser.add_argument("--json", help="write the seconds to this file too")
    arguments = parser.parse_args()
    if sys.version_info < (3, 12):
        sys.exit("error: Python 3.12 or later is needed; this is %d.%d" % sys.version_info[:2])
    least = measure(arguments.module_dir, arguments.repeats)
    show(least)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump({"python": sys.version, "seconds": least}, file, indent=1)


if __name__ == "__main__":
    main()
