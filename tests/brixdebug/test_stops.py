"""The host's engine stops exactly where bdb on sys.settrace stops.

Each program of `programs` runs twice for every session, each time in a forked process and a folder of its own: once under
`bdb.Bdb` on `sys.settrace`, once under the engine. The stops, the program's output, its end and the breakpoints' counts
have to be the same. Breakpoints are the comments "# stop" in a program's files:

    # stop             stop if EXPRESSION         stop once          a temporary one
    # stop after N     N passes are ignored       stop function      on the function of that line; may be "once"

Where bdb itself goes wrong, the expected stops are those of a class derived from it that says what is right
(`SamefileBdb` of stop_recorder.py), still on `sys.settrace`.
"""

import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import unittest

from host_support import HERE, child_environment, scratch_folder
from stop_recorder import STOPS_LIMIT

PROGRAMS = HERE / "programs"
SECONDS = 120

# What is done at the stops: see `commands` and `cycle` in stop_recorder.py. With "break" the marked breakpoints are set.
SESSIONS = {
    "step": {"cycle": ["step"]},
    "next": {"cycle": ["next"]},
    "step_and_return": {"cycle": ["step", "step", "step", "return"]},
    "step_and_until": {"cycle": ["step", "step", "until"]},
    "breakpoints": {"break": True},
    "breakpoints_and_next": {"break": True, "cycle": ["continue", "next", "next"], "commands": ["continue"]},
    "breakpoints_and_step": {"break": True, "cycle": ["step", "step", "step", "continue"], "commands": ["continue"]},
    "breakpoints_and_until": {"break": True, "cycle": ["until", "continue"], "commands": ["continue"]},
    "breakpoints_and_return": {"break": True, "cycle": ["return", "step", "continue"], "commands": ["continue"]},
}
LOCALS = ["n", "name", "total", "result", "error", "self", "value", "x"]

MARK = re.compile(r"# stop(?P<function> function)?(?P<once> once)?( after (?P<ignore>\d+))?( if (?P<condition>.*))?$")


def marked_breakpoints(folder):
    found = []
    for path in sorted(folder.rglob("*.py")):
        if path.is_symlink():
            continue
        lines = path.read_text().splitlines()
        for number, line in enumerate(lines, 1):
            mark = MARK.search(line)
            if mark:
                found.append(breakpoint_of(mark, str(path.relative_to(folder)), number, line))
    return found


def breakpoint_of(mark, file, number, line):
    breakpoint = {"file": file, "line": number, "temporary": bool(mark["once"]),
                  "ignore": int(mark["ignore"] or 0), "condition": mark["condition"]}
    if mark["function"]:
        breakpoint["function"] = re.search(r"def (\w+)", line)[1]
    return breakpoint


def copy_program(program, folder):
    """The program's file or folder, copied; the name of the file to run."""
    source = PROGRAMS / program
    if source.is_dir():
        shutil.copytree(source, folder)
        return next(name for name in ("main.py", "io.py") if (folder / name).exists())
    folder.mkdir()
    shutil.copy(source.with_suffix(".py"), folder)
    return program + ".py"


class StopsTestCase(unittest.TestCase):

    maxDiff = 4000

    def check(self, program, session, oracle="settrace", prepare=None):
        """Run both, compare, and give back what the engine's run had."""
        folder = scratch_folder(self)
        expected, seen = self.record({base: self.prepare(folder / base, base, program, dict(session), prepare)
                                      for base in (oracle, "engine")})
        self.assertLess(len(expected["stops"]), STOPS_LIMIT)
        first = next((at for at, pair in enumerate(zip(expected["stops"], seen["stops"])) if pair[0] != pair[1]),
                     min(len(expected["stops"]), len(seen["stops"])))
        around = slice(max(first - 3, 0), first + 6)
        self.assertEqual(seen["stops"][around], expected["stops"][around],
                         "engine (first) and %s differ from stop %d on, of %d and %d" % (
                             oracle, first, len(seen["stops"]), len(expected["stops"])))
        self.assertEqual(seen, expected)
        return seen

    def prepare(self, folder, base, program, session, prepare):
        """The files of a session in this new folder's parent: the session's own, and where its result and its output go."""
        session["program"] = copy_program(program, folder)
        if prepare is not None:
            prepare(folder)
        if session.pop("break", False):
            session["breakpoints"] = marked_breakpoints(folder)
        session.update(base=base, folder=str(folder), locals=LOCALS)
        files = [folder.with_suffix(suffix) for suffix in (".session", ".result", ".output")]
        files[0].write_text(json.dumps(session))
        files[2].touch()
        return files

    def record(self, sessions):
        """Run the sessions, {base: files}, and give back their results."""
        statuses = recorder.run([[str(file) for file in files] for files in sessions.values()])
        ends = {base: (status, files[2].read_text()[:2000]) for (base, files), status in zip(sessions.items(), statuses)}
        self.assertEqual(ends, {base: (0, "") for base in sessions})
        return [json.loads(files[1].read_text()) for files in sessions.values()]


class Recorder:
    """The process of stop_recorder.py, which all tests share."""

    def __init__(self):
        self.process = None

    def run(self, sessions):
        """The exit statuses of sessions, each a list of files; "hung" for all when one does not end or the recorder dies."""
        if self.process is None:
            self.process = subprocess.Popen(
                [sys.executable, "-W", "ignore::RuntimeWarning", HERE / "stop_recorder.py"], stdin=subprocess.PIPE,
                stdout=subprocess.PIPE, text=True, env=child_environment(), start_new_session=True)
        print(json.dumps(sessions), file=self.process.stdin, flush=True)
        ready, _, _ = select.select([self.process.stdout], [], [], SECONDS)
        answer = self.process.stdout.readline() if ready else ""
        if not answer:
            self.end()
        return json.loads(answer) if answer else ["hung"] * len(sessions)

    def end(self):
        """End it, and sessions that run."""
        if self.process is not None:
            with self.process:
                os.killpg(self.process.pid, signal.SIGKILL)
            self.process = None


recorder = Recorder()
tearDownModule = recorder.end


class SameStopsTest(StopsTestCase):
    """Every program that bdb itself gets right, with every session."""


def add_tests(program, names=SESSIONS):
    for name in names:
        def test(self, session=SESSIONS[name]):
            seen = self.check(program, session)
            self.assertTrue(seen["stops"])
        setattr(SameStopsTest, "test_%s__%s" % (program, name), test)


for each in ("recursion", "generators", "coroutines", "one_liners", "blocks", "exceptions", "classes", "functions",
             "compiled", "reloaded", "library_names", "relative", "deleted"):
    add_tests(each)


def lines_stopped_at(seen):
    return ["%s:%d" % (file, line) for event, file, line, *_ in seen["stops"] if event == "line"]


class CommandsTest(StopsTestCase):
    """Breakpoints that come and go while the program runs."""

    def test_breakpoint_set_in_a_running_function(self):
        seen = self.check("recursion", {"commands": ["break recursion.py 6;continue", "break recursion.py 8;continue"]})
        self.assertEqual(lines_stopped_at(seen)[1:4], ["recursion.py:6", "recursion.py:8", "recursion.py:8"])

    def test_cleared_breakpoint_is_not_hit(self):
        seen = self.check("recursion", {"commands": ["break recursion.py 6;break recursion.py 5;continue",
                                                     "clear recursion.py 5;continue", "clear recursion.py 6;continue"]})
        self.assertEqual(lines_stopped_at(seen), ["recursion.py:1", "recursion.py:5", "recursion.py:6"])

    def test_disabled_breakpoint_is_hit_again_once_enabled(self):
        self.check("recursion", {"commands": ["break recursion.py 5;continue", "disable 1;break recursion.py 8;continue",
                                              "enable 1;continue", "continue"]})

    def test_breakpoint_in_code_that_ran_before(self):
        """Events of that code have been switched off by then."""
        seen = self.check("recursion", {"break": False, "breakpoints": [{"file": "recursion.py", "line": 26}],
                                        "commands": ["continue", "next", "break recursion.py 5;continue"]})
        self.assertEqual(lines_stopped_at(seen)[1:3], ["recursion.py:26", "recursion.py:27"])
        self.assertIn("recursion.py:5", lines_stopped_at(seen)[3:])

    def test_until_a_line(self):
        for line in (1, 30, 35, 1000):
            with self.subTest(line):
                self.check("generators", {"breakpoints": [{"file": "generators.py", "line": 41}],
                                          "commands": ["continue", "until %d" % line]})

    def test_quit_ends_the_program(self):
        for number in (0, 1, 7):
            with self.subTest(number):
                self.check("blocks", {"commands": ["step"] * number + ["quit"]})

    def test_quit_in_a_generator_runs_what_is_left_to_run(self):
        seen = self.check("generators", {"breakpoints": [{"file": "generators.py", "line": 7}],
                                         "commands": ["continue", "quit"]})
        self.assertEqual(seen["output"], "")

    def test_breakpoint_in_code_that_is_no_file(self):
        seen = self.check("compiled", {"break": True, "commands": ["continue", "break <program known> 2;continue"]})
        self.assertIn("<program known>:2", lines_stopped_at(seen))


class ThreadsTest(StopsTestCase):
    """A breakpoint holds in every thread; on sys.settrace that takes threading.settrace."""

    def test_breakpoints_in_threads_that_run_one_after_another(self):
        seen = self.check("threads", {"break": True, "threads": True})
        self.assertEqual(lines_stopped_at(seen)[1:].count("threads.py:6"), 4)

    def test_breakpoint_set_after_the_function_ran_in_another_thread(self):
        seen = self.check("threads", {"breakpoints": [{"file": "threads.py", "line": 17}], "threads": True,
                                      "commands": ["continue", "continue", "break threads.py 6;continue"]})
        self.assertIn("threads.py:6", lines_stopped_at(seen))


class FilesTest(StopsTestCase):
    """A breakpoint belongs to a file, whatever it is called, and to no other file."""

    def test_breakpoint_in_one_of_two_files_with_the_same_text(self):
        for folder, times in (("a", 2), ("b", 1)):
            with self.subTest(folder):
                seen = self.check("twins", {"breakpoints": [{"file": folder + "/mod.py", "line": 2}],
                                            "commands": ["continue"]})
                self.assertEqual(lines_stopped_at(seen)[1:], [folder + "/mod.py:2"] * times)

    def test_stepping_through_files_with_the_same_text(self):
        for cycle in (["step"], ["step", "next"]):
            with self.subTest(cycle):
                self.check("twins", {"cycle": cycle})

    # bdb knows a file by its absolute name only; the expected stops are those of SamefileBdb.

    @staticmethod
    def make_links(folder):
        os.symlink("real.py", folder / "soft.py")
        os.link(folder / "real.py", folder / "hard.py")
        os.symlink("folder", folder / "linked_folder")

    def check_links(self, file, stops):
        seen = self.check("links", {"breakpoints": [{"file": file, "line": 2}], "commands": ["continue"]},
                          oracle="samefile", prepare=self.make_links)
        self.assertEqual(lines_stopped_at(seen)[1:], stops)

    REAL = ["real.py:2", "soft.py:2", "hard.py:2", "folder/../real.py:2"]
    INSIDE = ["linked_folder/inside.py:2", "folder/inside.py:2"]

    def test_breakpoint_through_the_name_that_was_there_first(self):
        self.check_links("real.py", self.REAL)

    def test_breakpoint_through_a_symbolic_link(self):
        self.check_links("soft.py", self.REAL)

    def test_breakpoint_through_a_hard_link(self):
        self.check_links("hard.py", self.REAL)

    def test_breakpoint_through_a_linked_folder(self):
        self.check_links("linked_folder/inside.py", self.INSIDE)

    def test_breakpoint_in_the_folder_behind_the_link(self):
        self.check_links("folder/inside.py", self.INSIDE)

    def test_stepping_through_links(self):
        self.check("links", {"cycle": ["step"]}, oracle="samefile", prepare=self.make_links)


if __name__ == "__main__":
    unittest.main()
