"""Tools that a program has beside the debugger see what they see without it: tracers, profilers, monitoring tools, coverage.

Each program runs plainly first, then debugged in several ways; what its tool has noted has to be the same.
"""

import importlib.util
import json
import unittest

import third_party
from host_support import check_child, scratch_folder
from session import line_of, run_session, write_program

# What is watched. `start` and `stop` come from the tool.
WORK = """\
    import sys, threading

    def leaf(n):
        value = n * 2                        # leaf
        return value

    def loop(count):
        total = 0
        for n in range(count):
            total += leaf(n)                 # loop
        return total

    def numbers(count):
        for n in range(count):
            yield n                          # yield

    def catches():
        try:
            fails(0)
        except ZeroDivisionError:
            pass                             # handler
        return sum(n for n in numbers(3))

    def fails(n):
        return 1 / n

    def work():
        first = loop(3)                      # work
        second = catches()
        third = [leaf(n) for n in (1, 2)]
        return first, second, third

    def everything():
        work()
        loop(2)                              # again
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
        work()
    """

RUN = """
    begin()
    everything()
    end()
    import json
    with open(sys.argv[1], "x") as stream:   # what the first run has noted
        json.dump(NOTED, stream)
    """

NOTE = """
    NOTED = {}
    def note(code, *what):
        if code.co_filename == __file__ and code.co_name not in ("<module>", "begin", "end"):
            is_main = threading.current_thread() is threading.main_thread()
            NOTED.setdefault("main" if is_main else "worker", []).append([code.co_name, *what])
    """

TRACER = NOTE + """
    def trace(frame, event, arg):
        note(frame.f_code, event, frame.f_lineno)
        FRAME
        return trace
    def begin():
        threading.settrace(trace)
        sys.settrace(trace)
    def end():
        sys.settrace(None)
    """

TOOLS = {
    "a tracer": TRACER.replace("FRAME", ""),
    "a tracer without lines": TRACER.replace("FRAME", "frame.f_trace_lines = False"),
    "a tracer of opcodes": TRACER.replace("FRAME", "frame.f_trace_opcodes = True"),
    "a tracer that looks at the frame": TRACER.replace(
        "FRAME", "note(frame.f_code, frame.f_trace is not None, frame.f_trace_lines, frame.f_trace_opcodes)"),
    "a tracer that leaves some functions alone": TRACER.replace("FRAME", "if frame.f_code.co_name == 'leaf': return None"),
    "a profiler": NOTE + """
    def profile(frame, event, arg):
        note(frame.f_code, event, frame.f_lineno, getattr(arg, "__name__", None) if event[0] == "c" else None)
    def begin():
        threading.setprofile(profile)
        sys.setprofile(profile)
    def end():
        sys.setprofile(None)
    """,
    "a monitoring tool": NOTE + """
    M = sys.monitoring
    NAMES = ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "PY_UNWIND", "LINE", "RAISE", "EXCEPTION_HANDLED", "CALL", "JUMP")
    def begin():
        M.use_tool_id(5, "watching")
        for name in NAMES:
            def callback(code, number, *rest, name=name):
                note(code, name, number)
            M.register_callback(5, getattr(M.events, name), callback)
        M.set_events(5, sum(getattr(M.events, name) for name in NAMES))
    def end():
        M.set_events(5, 0)
        M.free_tool_id(5)
    """,
    "a monitoring tool that switches places off": NOTE + """
    M = sys.monitoring
    NAMES = ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE", "CALL")
    def begin():
        M.use_tool_id(5, "watching")
        for name in NAMES:
            def callback(code, number, *rest, name=name):
                note(code, name, number)
                return M.DISABLE
            M.register_callback(5, getattr(M.events, name), callback)
        M.set_events(5, sum(getattr(M.events, name) for name in NAMES))
    def end():
        M.set_events(5, 0)
        M.free_tool_id(5)
    """,
    "a monitoring tool that looks at some code and switches places off": NOTE + """
    M = sys.monitoring
    def begin():
        M.use_tool_id(1, "watching")
        def callback(code, number):
            note(code, number)
            return M.DISABLE
        M.register_callback(1, M.events.LINE, callback)
        for function in (leaf, loop, numbers, catches):
            M.set_local_events(1, function.__code__, M.events.LINE)
    def end():
        M.free_tool_id(1)
    """,
}

SOME_CODE = "a monitoring tool that looks at some code and switches places off"

# How the program is debugged: commands for the prompt; a mark is where a breakpoint is set.
WAYS = {
    "not stopped": ["continue"],
    "a breakpoint that is never reached": ["break fails, n == 5", "continue"],
    "breakpoints": ["break leaf", "break yield", "break handler"] + ["continue"] * 60,
    "a condition": ["break loop, n == 1"] + ["continue"] * 20,
    "steps": ["break work", "continue"] + ["step"] * 150 + ["clear", "continue"],
    "next": ["break work", "continue"] + ["next"] * 20 + ["continue"] + ["next"] * 5 + ["clear", "continue"],
    "steps, returns and until": ["break leaf", "continue"] + ["return", "step", "step", "until", "up", "next"] * 8
                                + ["clear"] + ["continue"],
    "steps and free runs by turns": ["break loop"] + ["continue", "step", "next"] * 15 + ["clear", "continue"],
    "breakpoints that come and go": ["break loop", "continue", "break leaf", "continue", "clear 1", "continue",
                                     "tbreak yield", "continue", "continue", "clear 2", "break again", "continue", "clear",
                                     "continue"],
}


JOINING_WAY = "steps, returns and until"          # steps in a function that the tool had for itself before


class OtherToolsTestCase(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)

    def commands(self, way):
        """With lines for the marks of the program; `clear` asks whether all are meant."""
        result = list(way)
        for place, each in enumerate(result):
            words = each.replace(",", " ,").split()
            if words[0] in ("break", "tbreak"):
                try:
                    words[1] = str(line_of(self.program, words[1]))
                except AssertionError:
                    pass
                result[place] = " ".join(words)
        result = [part for each in result for part in ([each, "y"] if each == "clear" else [each])]
        return result + ["continue"] * 5 + ["quit"]


class RecordingTest(OtherToolsTestCase):

    def plainly(self):
        result = self.folder / "plain.json"
        check_child(self, self.program, result)
        return json.loads(result.read_text())

    def debugged(self, way):
        result = self.folder / "debugged.json"
        result.unlink(missing_ok=True)
        child = run_session("-m", "brixdebug", self.program, result, commands=self.commands(way), cwd=self.folder)
        self.assertTrue(result.exists(), child.stdout + child.stderr)
        self.assertNotIn("error of the debugger's own", child.stdout)
        return json.loads(result.read_text()), child.stdout

    def check_tool(self, name, *ways):
        self.program = write_program(self.folder, WORK + TOOLS[name] + RUN)
        plain = self.plainly()
        self.assertGreater(len(plain["main"]), 10)
        for way in ways or WAYS:
            with self.subTest(way):
                noted, printed = self.debugged(WAYS[way])
                self.assertEqual(noted, plain, printed)


def _test_of(name):
    def test(self):
        self.check_tool(name)
    return test


    def test_a_tool_that_is_joined_in_some_code(self):
        """The interpreter makes its table of tools anew when a second one wants lines of a code object: what the first
        had switched off there is reported once more, and no oftener."""
        self.check_tool(SOME_CODE, *(way for way in WAYS if way != JOINING_WAY))
        plain = self.plainly()
        noted, printed = self.debugged(WAYS[JOINING_WAY])
        everything = [tuple(each) for name in noted for each in noted[name]]
        self.assertEqual(set(everything), {tuple(each) for name in plain for each in plain[name]}, printed)
        plainly = [tuple(each) for name in plain for each in plain[name]]
        self.assertEqual([each for each in everything if everything.count(each) > plainly.count(each) + 1], [])


for _name in TOOLS:
    if _name == SOME_CODE:
        continue
    setattr(RecordingTest, "test_" + _name.replace(" ", "_"), _test_of(_name))


# coverage has none of its compiled cores for free-threaded 3.13
CORES = ("pytrace", "sysmon") if third_party.VERSION == "3.13t" else ("ctrace", "pytrace", "sysmon")


@unittest.skipUnless(importlib.util.find_spec("_sqlite3"), "this interpreter comes without sqlite3, which coverage needs")
class CoverageTest(OtherToolsTestCase):
    """coverage, in all its cores: the lines that it counts are those of a run without the debugger."""

    @classmethod
    def setUpClass(cls):
        global COVERAGE
        COVERAGE = third_party.folder(third_party.COVERAGE)

    def lines(self, core, *before, commands=()):
        """Those that one run has executed, and what it printed; `before` stands between the interpreter and coverage."""
        data = self.folder / "data"
        data.unlink(missing_ok=True)
        surroundings = {"COVERAGE_CORE": core, "PYTHONPATH": third_party.python_path(COVERAGE), "COVERAGE_FILE": str(data)}
        child = run_session(*before, "-m", "coverage", "run", self.program, commands=commands, cwd=self.folder, **surroundings)
        self.assertTrue(data.exists(), child.stdout + child.stderr)
        report = self.folder / "report.json"
        check_child(self, "-m", "coverage", "json", "-q", "--pretty-print", "-o", report, cwd=self.folder, **surroundings)
        return json.loads(report.read_text())["files"][self.program.name]["executed_lines"], child.stdout

    def test_lines(self):
        self.program = write_program(self.folder, WORK + "\n    everything()\n")
        for core in CORES:
            plain, _ = self.lines(core)
            self.assertIn(line_of(self.program, "handler"), plain)
            for way in ("breakpoints", "steps", "next", "steps and free runs by turns"):
                with self.subTest(core=core, way=way):
                    commands = [each.replace("break ", "break %s:" % self.program) if each[6:].isdigit() else each
                                for each in self.commands(WAYS[way])]
                    noted, printed = self.lines(core, "-m", "brixdebug", commands=commands)
                    self.assertIn("> %s(" % self.program, printed)
                    self.assertEqual(noted, plain, printed)


if __name__ == "__main__":
    unittest.main()
