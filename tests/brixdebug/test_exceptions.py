"""Stops at exceptions: where they are raised, and where they would end a thread."""

import re
import unittest

from host_support import scratch_folder
from session import line_of, run_session, write_program

WORKER = """\
    import concurrent.futures, sys, threading

    class Trouble(ValueError):
        pass

    def fail(number):
        value = number * 2
        raise Trouble("number %d" % number)      # raise

    def middle(number):
        fail(number)                             # call

    def run(*numbers):
        threads = [threading.Thread(target=middle, args=(each,), name="worker %d" % each) for each in numbers]
        for thread in threads:
            thread.start()
            thread.join()
"""


class Case(unittest.TestCase):
    def program(self, text, more=WORKER):
        self.path = write_program(scratch_folder(self), more)
        with self.path.open("a") as file:
            file.write(text)
        return self.path

    def session(self, text, *commands, more=WORKER):
        child = run_session("-m", "brixdebug", self.program(text, more), commands=commands)
        self.child = child
        # What a second run prints is not of interest.
        output, _, _ = child.stdout.replace("(Pdb) ", "").partition("The program finished and will be restarted")
        return output.splitlines()

    def place(self, mark, function):
        return "> %s(%d)%s()" % (self.path, line_of(self.path, mark), function)


class UncaughtTest(Case):
    def test_a_worker_stops_post_mortem_from_the_start(self):
        lines = self.session('run(3)\nprint("end")\n', "c", "p value", "up", "p number", "threads", "c", "q")
        self.assertIn("Uncaught exception in thread 2 (worker 3). Entering post mortem debugging", lines)
        self.assertIn("Trouble: number 3", lines)
        self.assertIn(self.place("raise", "fail"), lines)
        self.assertIn("6", lines)
        self.assertIn(self.place("call", "middle"), lines)
        self.assertIn("3", lines)
        self.assertTrue([line for line in lines if line.startswith("> 2   at the prompt  worker 3")], lines)
        self.assertIn("end", lines)
        self.assertIn("Exception in thread worker 3:", self.child.stderr)

    def test_each_worker_once(self):
        lines = self.session('run(1, 2)\nprint("end")\n', "c", "c", "c", "q")
        self.assertEqual([re.sub("thread [0-9]+", "thread N", line) for line in lines if line.startswith("Uncaught")],
                         ["Uncaught exception in thread N (worker 1). Entering post mortem debugging",
                          "Uncaught exception in thread N (worker 2). Entering post mortem debugging"])

    def test_a_program_with_a_hook_of_its_own(self):
        lines = self.session('threading.excepthook = lambda args: print("hook", args.exc_value)\nrun(1)\n', "c", "p value", "c", "q")
        self.assertLess(lines.index("2"), lines.index("hook number 1"))

    BARE_THREAD = """
import _thread
ended = threading.Semaphore(0)
class End:
    def __del__(self):
        ended.release()
def bare(number):
    end = End()
    middle(number)
def begin(number):
    _thread.start_new_thread(bare, (number,))
    ended.acquire()
"""

    def test_a_thread_that_threading_has_not_started(self):
        lines = self.session(self.BARE_THREAD + 'begin(4)\nbegin(5)\nprint("end")\n', "c", "p value", "up", "up", "p number", "threads", "c",
                             "catch off", "c", "q")
        self.assertRegex("\n".join(lines), r"Uncaught exception in thread \d \(thread \d+\)\. Entering post mortem debugging\nTrouble: number 4\n")
        self.assertIn(self.place("call", "middle"), lines)
        self.assertIn("4", lines)
        self.assertEqual(len([line for line in lines if "at the prompt" in line]), 1, lines)
        self.assertEqual(lines[-1], "end")
        self.assertEqual(self.child.stderr.count("in thread started by"), 2)

    def test_quit_in_a_thread_that_threading_has_not_started(self):
        lines = self.session(self.BARE_THREAD + 'begin(4)\nprint("end")\n', "c", "q")
        self.assertIn("Trouble: number 4", lines)
        self.assertNotIn("end", lines)
        self.assertEqual((self.child.returncode, self.child.stderr), (0, ""))

    def test_quit(self):
        lines = self.session('run(1)\nprint("end")\n', "c", "q")
        self.assertIn("Uncaught exception in thread 2 (worker 1). Entering post mortem debugging", lines)
        self.assertNotIn("end", lines)
        self.assertEqual(self.child.stderr, "")

    def test_what_is_kept_is_caught(self):
        lines = self.session("""
def guarded():
    try:
        fail(1)
    except ValueError:
        pass
async def task():
    fail(2)
async def tasks():
    import asyncio
    await asyncio.gather(task(), return_exceptions=True)
def leave():
    sys.exit(3)
import asyncio
for each in guarded, leave, lambda: asyncio.run(tasks()):
    thread = threading.Thread(target=each)
    thread.start()
    thread.join()
with concurrent.futures.ThreadPoolExecutor() as pool:
    print(repr(pool.submit(fail, 3).exception()))
""", "c", "q")
        self.assertIn("Trouble('number 3')", lines)
        self.assertFalse([line for line in lines if line.startswith("Uncaught")], lines)
        self.assertEqual(self.child.stderr, "")

    def test_the_main_thread_is_as_in_pdb(self):
        lines = self.session("middle(5)\n", "c", "p value", "q")
        self.assertIn("Uncaught exception. Entering post mortem debugging", lines)
        self.assertIn("10", lines)

    def test_off(self):
        lines = self.session('run(3)\nprint("end")\n', "catch off", "catch", "c", "q")
        self.assertIn("catch off", lines)
        self.assertFalse([line for line in lines if line.startswith("Uncaught")], lines)
        self.assertIn("end", lines)

    def test_of_a_class_and_with_a_condition(self):
        for rule, stops in [("uncaught KeyError", 0), ("uncaught Trouble", 2), ("uncaught ValueError if number == 2", 1),
                            ("uncaught if $_exception.args[0].endswith('1')", 1)]:
            with self.subTest(rule=rule):
                lines = self.session("run(1, 2)\n", "catch " + rule, "c", "c", "c", "q")
                self.assertEqual(len([line for line in lines if line.startswith("Uncaught exception in")]), stops)

    def test_in_a_session_that_the_program_began(self):
        path = self.program('import brixdebug\nbrixdebug.set_trace()\nrun(3)\nprint("end")\n')
        child = run_session(path, commands=["catch uncaught", "c", "p value", "c"])
        self.assertIn("Uncaught exception in thread 2 (worker 3). Entering post mortem debugging", child.stdout)
        self.assertIn("(Pdb) 6\n", child.stdout)
        self.assertTrue(child.stdout.endswith("end\n"), child.stdout)


class RaisedTest(Case):
    def test_once_where_it_is_raised(self):
        lines = self.session("""
def outer():
    try:
        middle(4)
    except ValueError:
        print("caught")
outer()
""", "catch raised", "c", "p value", "where", "c", "q")
        self.assertIn("Trouble: number 4", lines)
        self.assertEqual(len([line for line in lines if line.startswith("Trouble: ")]), 1)
        self.assertIn("8", lines)
        self.assertIn(self.place("raise", "fail"), lines)
        self.assertIn("caught", lines)

    def test_in_every_thread_and_then_uncaught(self):
        lines = self.session("run(6)\n", "catch Trouble", "catch", "c", "p value", "c", "c", "q")
        self.assertEqual([line for line in lines if line.startswith("catch ")], ["catch uncaught", "catch raised Trouble"])
        self.assertEqual(lines.count("Trouble: number 6"), 2)
        self.assertIn("12", lines)

    def test_stepping_goes_on_from_there(self):
        lines = self.session("""
def outer():
    try:
        fail(1)
    except ValueError:
        pass                                     # pass
outer()
""", "catch raised Trouble", "c", "return", "q")
        self.assertIn(self.place("raise", "fail") + "->None", lines)

    def test_of_a_class(self):
        text = """
for name in "nothing", "missing":
    try:
        {}[name] if name == "missing" else int(name)
    except (KeyError, ValueError):
        pass
"""
        for rule, shown in [("KeyError", ["KeyError: 'missing'"]), ("LookupError", ["KeyError: 'missing'"]),
                            ("raised ValueError", ["ValueError: invalid literal for int() with base 10: 'nothing'"]),
                            ("raised if name == 'missing'", ["KeyError: 'missing'"]), ("OSError", [])]:
            with self.subTest(rule=rule):
                lines = self.session(text, "catch " + rule, "c", "c", "c", "q")
                self.assertEqual([line for line in lines if "Error: " in line], shown)

    def test_ends_of_generators_are_no_stops(self):
        lines = self.session("""
def numbers():
    yield 1
for each in numbers():
    pass
try:
    next(iter(()))
except StopIteration:
    print("end of it")
g = numbers(); next(g); g.close()
""", "catch raised", "c", "q")
        self.assertIn("end of it", lines)
        self.assertNotIn("StopIteration", lines)

    def test_one_of_these_by_name(self):
        lines = self.session("""
try:
    next(iter(()))
except StopIteration:
    pass
""", "catch raised StopIteration", "c", "q")
        self.assertIn("StopIteration", lines)

    def test_raised_again_is_no_new_stop(self):
        lines = self.session("""
def again():
    try:
        fail(1)
    except ValueError as error:
        kept = error
    try:
        raise kept
    except ValueError:
        pass
    try:
        fail(2)
    except ValueError:
        raise
try:
    again()
except ValueError:
    print("end")
""", "catch Trouble", "c", "c", "c", "q")
        self.assertEqual([line for line in lines if line.startswith("Trouble: ")],
                         ["Trouble: number 1", "Trouble: number 2"])
        self.assertIn("end", lines)

    def test_a_new_one_with_an_old_traceback(self):
        """As libraries wrap one exception in another."""
        lines = self.session("""
class Wrapped(Exception):
    pass
def wrap():
    try:
        fail(1)
    except ValueError as error:
        raise Wrapped("new").with_traceback(error.__traceback__) from error
try:
    wrap()
except Wrapped:
    print("end")
""", "catch raised", "c", "c", "c", "q")
        self.assertEqual([line for line in lines if line.startswith(("Trouble: ", "Wrapped: "))],
                         ["Trouble: number 1", "Wrapped: new"])

    def test_a_class_that_is_not_known_yet(self):
        lines = self.session("""
import json
try:
    json.loads("{")
except ValueError:
    print("end")
""", "catch json.JSONDecodeError", "c", "p doc", "c", "q")
        self.assertIn("json.JSONDecodeError is no name here: its class is found by it when one is raised.", lines)
        self.assertTrue([line for line in lines if line.startswith("json.decoder.JSONDecodeError: ")], lines)

    def test_nonsense_is_an_error_when_it_is_typed(self):
        for text, error in [("catch raised 3", "Invalid catch: the name of an exception class expected, not 3"),
                            ("catch KeyError when x", "Invalid catch: 'if' expected before when x"),
                            ("catch KeyError if", "Invalid catch: 'if' expected before if"),
                            ("catch raised if", "Invalid catch: a condition is expected after 'if'"),
                            ("catch len", "Invalid catch: len is not an exception class")]:
            with self.subTest(text=text):
                self.assertIn("*** " + error, self.session("pass\n", text, "q"))
        lines = self.session("pass\n", "catch raised if 1 +", "q")
        self.assertTrue([line for line in lines if line.startswith("*** Invalid catch: invalid condition 1 +: ")], lines)

    def test_costs_nothing_when_it_is_off(self):
        lines = self.session("""
def events():
    monitoring = sys.monitoring
    return sum(monitoring.get_events(tool) & monitoring.events.RAISE for tool in range(6) if monitoring.get_tool(tool))
print("raise events:", events())                 # first
print("raise events:", events() != 0)            # second
""", "tbreak 25", "catch raised KeyError", "catch off", "c", "c", "q")
        self.assertIn("raise events: 0", lines)


if __name__ == "__main__":
    unittest.main()
