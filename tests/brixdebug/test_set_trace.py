"""The ways into the debugger from inside a program: `breakpoint()`, `set_trace`, and whatever `pdb` has for that.

Under the debugger they are the debugger's own, in every thread; a program that takes `breakpoint()` for itself keeps it.
"""

import pdb
import sys
import unittest

from host_support import check_child, run_child, scratch_folder
from session import Session, line_of, run_session, write_program

STOPS_AT_CALL = sys.version_info >= (3, 13)        # before that `set_trace` stops at the line after it


class EntryTestCase(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text):
        self.program = write_program(self.folder, text)
        return self.program

    def place(self, mark, function="function"):
        """Where the debugger stops for a call on the marked line."""
        line = line_of(self.program, mark)
        return "> %s(%d)%s()" % (self.program, line if STOPS_AT_CALL else line + 1, function)

    def break_place(self, mark, function="function"):
        return "> %s(%d)%s()" % (self.program, line_of(self.program, mark), function)

    def start(self, *breakpoints, **environment):
        session = Session(self, "-m", "brixdebug", self.program, **environment)
        session.prompt()
        for mark in breakpoints:
            session.do("break %d" % line_of(self.program, mark))
        return session

    def check_end(self, session, printed=""):
        """The program goes on to its end, and prints."""
        self.assertEqual(session.do("continue").partition("The program finished and will be restarted\n")[0], printed)
        self.assertEqual(session.end("quit")[1], 0)


ENTRY = """\
    import pdb, threading
    def function(n):
        before = n + 1                       # line
        CALL                                 # call
        after = before + 1
        return after                         # last
    for _ in range(2):
        function(1)
    thread = threading.Thread(target=function, args=(2,))
    thread.start()
    thread.join()
    print("end")
    """

CALLS = {
    "breakpoint()": "breakpoint()",
    "pdb.set_trace()": "pdb.set_trace()",
    "a name that was imported": "from pdb import set_trace; set_trace()",
    "an object of pdb's class": "pdb.Pdb().set_trace()",
    "an object of a class derived from pdb's": "type('Derived', (pdb.Pdb,), {})().set_trace()",
    "brixdebug.set_trace()": "import brixdebug; brixdebug.set_trace()",
}


class CommandLineTest(EntryTestCase):

    def test_each_way_in_beside_a_breakpoint(self):
        """In both threads each stops once, knows the breakpoint, and lets the program go on to the next stop."""
        for name, call in CALLS.items():
            with self.subTest(name):
                self.write(ENTRY.replace("CALL", call))
                session = self.start("last")
                for n in (1, 1, 2):
                    self.assertIn(self.place("call"), session.do("continue"))
                    self.assertEqual(session.do("p before"), "%d\n" % (n + 1))
                    self.assertIn(self.break_place("last"), session.do("continue"))
                self.assertIn("hit 3 times", session.do("break"))
                self.check_end(session, "end\n")

    def test_each_way_in_without_a_breakpoint(self):
        for name, call in CALLS.items():
            with self.subTest(name):
                self.write(ENTRY.replace("CALL", call))
                session = self.start()
                for n in (1, 1, 2):
                    self.assertIn(self.place("call"), session.do("continue"))
                    self.assertEqual(session.do("p before"), "%d\n" % (n + 1))
                self.check_end(session, "end\n")

    def test_quit_at_each_way_in_ends_the_session(self):
        for name, call in CALLS.items():
            with self.subTest(name):
                self.write(ENTRY.replace("CALL", call))
                session = self.start()
                session.do("continue")
                self.assertEqual(session.end("quit"), ("", 0))

    def test_it_is_the_same_session(self):
        """What was displayed, named and set before is there after a stop at `breakpoint()`."""
        self.write(ENTRY.replace("CALL", "breakpoint()"))
        session = self.start("line")
        session.do("continue")
        session.do("alias bb p before * 100")
        session.send("commands 1")
        session.wait_for("(com) ")
        session.send("p 'reached'")
        session.wait_for("(com) ")
        session.do("end")
        self.assertIn(self.place("call"), session.do("continue"))
        self.assertEqual(session.do("bb"), "200\n")
        printed = session.do("continue")
        self.assertIn("'reached'", printed)
        self.assertIn(self.break_place("line"), printed)

    def test_breakpoint_set_at_such_a_stop_holds_in_other_threads(self):
        self.write(ENTRY.replace("CALL", "if n == 1: breakpoint()"))
        session = self.start()
        session.do("continue")
        session.do("tbreak %d" % line_of(self.program, "last"))
        self.assertIn(self.break_place("last"), session.do("continue"))
        session.do("break %d" % line_of(self.program, "last"))
        session.do("continue")
        self.assertIn(self.break_place("last"), session.do("continue"))
        self.assertIn(self.break_place("last"), session.do("continue"))
        self.assertEqual(session.do("p n"), "2\n")
        self.check_end(session, "end\n")

    def test_one_set_by_an_object_of_pdbs_class_outlives_it(self):
        """The debugger of the command line knows it, also when the program runs again."""
        self.write("""\
            import pdb
            def function(n):
                return n                     # line
            pdb.Pdb().set_trace()            # call
            function(1)
            """)
        session = self.start()
        self.assertIn(self.place("call", "<module>"), session.do("continue"))
        session.do("break %d" % line_of(self.program, "line"))
        self.assertIn(self.break_place("line"), session.do("continue"))
        self.assertIn("The program finished and will be restarted\n", session.do("continue"))
        self.assertIn("breakpoint", session.do("break"))
        session.do("continue")
        session.do("clear 1")
        self.check_end(session)

    def test_stepping_from_there(self):
        self.write(ENTRY.replace("CALL", "breakpoint()"))
        session = self.start("line")
        session.do("continue")
        session.do("continue")
        if STOPS_AT_CALL:
            session.do("next")
        session.do("next")
        self.assertIn(self.break_place("last"), session.do("p 1") + session.do("where"))
        session.do("clear 1")
        self.assertIn("--Return--", session.do("next"))
        self.assertIn("<module>", session.do("next"))

    def test_at_the_prompt_it_does_nothing(self):
        """A function with `breakpoint()` that is called at the prompt: the prompt stays what it was."""
        self.write("""\
            def inner():
                breakpoint()
                return 5
            def function(n):
                return n                     # line
            function(1)
            """)
        session = self.start("line")
        session.do("continue")
        self.assertEqual(session.do("p inner()"), "5\n")
        self.assertIn(self.break_place("line"), session.do("where"))
        self.assertEqual(session.do("p n"), "1\n")
        self.check_end(session)

    def test_in_a_condition_it_does_nothing(self):
        self.write("""\
            def inner():
                breakpoint()
                return True
            def function(n):
                return n                     # line
            function(1)
            """)
        session = self.start()
        session.do("break %d, inner()" % line_of(self.program, "line"))
        self.assertIn(self.break_place("line"), session.do("continue"))
        self.check_end(session)

    def test_another_threads_prompt_is_not_disturbed(self):
        """A thread that comes to `breakpoint()` while another is at the prompt stops after it."""
        self.write("""\
            import threading
            gate = threading.Event()
            def worker():
                gate.wait()
                here = "worker"
                breakpoint()                 # call
                return here
            thread = threading.Thread(target=worker)
            thread.start()
            def function(n):
                return n                     # line
            function(1)
            thread.join()
            """)
        session = self.start("line")
        session.do("continue")
        session.do("gate.set()")
        for _ in range(20):
            self.assertEqual(session.do("p n"), "1\n")
        self.assertIn(self.break_place("line"), session.do("where"))
        self.assertIn(self.place("call", "worker"), session.do("continue"))
        self.assertEqual(session.do("p here"), "'worker'\n")
        self.check_end(session)

    def test_header_and_commands(self):
        self.write("""\
            import pdb
            pdb.set_trace(header="Here we are")
            done = 1
            """)
        session = self.start()
        self.assertIn("Here we are\n", session.do("continue"))
        self.check_end(session)
        if sys.version_info >= (3, 14):
            self.write("""\
                value = 6
                breakpoint(commands=["p value * 7", "c"])
                done = 1
                """)
            self.assertIn("42\n", self.start().do("continue"))

    @unittest.skipIf(sys.version_info < (3, 14), "pdb.set_trace_async came with 3.14")
    def test_set_trace_async(self):
        self.write("""\
            import asyncio, pdb
            async def other():
                return 41
            async def function():
                await pdb.set_trace_async()  # call
                return 1
            asyncio.run(function())
            print("end")
            """)
        session = self.start()
        self.assertIn("function()", session.do("continue"))
        session.do("answer = 1 + await other()")
        self.assertEqual(session.do("p answer"), "42\n")
        self.check_end(session, "end\n")

    def test_post_mortem_of_the_program(self):
        self.write("""\
            import pdb
            def function(n):
                return 1 / n                 # line
            try:
                function(0)
            except ZeroDivisionError as error:
                pdb.post_mortem(error.__traceback__)
            print("end")
            """)
        session = self.start()
        session.do("break %d" % line_of(self.program, "line"))
        session.do("continue")
        self.assertIn(self.break_place("line"), session.do("continue"))
        self.assertEqual(session.do("p n"), "0\n")
        self.assertIn("There is no thread 9", session.do("thread 9"))
        self.check_end(session, "end\n")


class RespectTest(EntryTestCase):
    """What a program or a user decides about `breakpoint()` holds."""

    def outcome(self, text, **environment):
        self.write(text)
        return run_session("-m", "brixdebug", self.program, commands=["continue", "quit"], cwd=self.folder, **environment)

    def test_switched_off(self):
        child = self.outcome("breakpoint()\nprint('end')\n", PYTHONBREAKPOINT="0")
        self.assertIn("(Pdb) end\n", child.stdout)

    def test_another_function(self):
        child = self.outcome("breakpoint('one', 2)\nprint('end')\n", PYTHONBREAKPOINT="builtins.print")
        self.assertIn("(Pdb) one 2\nend\n", child.stdout)

    def test_one_that_cannot_be_imported(self):
        child = self.outcome("breakpoint()\nprint('end')\n", PYTHONBREAKPOINT="no.such")
        self.assertIn("(Pdb) end\n", child.stdout)
        self.assertIn('Ignoring unimportable $PYTHONBREAKPOINT: "no.such"', child.stderr)

    def test_a_hook_of_the_program(self):
        child = self.outcome("""\
            import sys
            sys.breakpointhook = lambda *args, **keywords: print("hook", args, keywords)
            breakpoint(1, two=2)
            print("end", sys.__breakpointhook__ is sys.breakpointhook)
            """)
        self.assertIn("(Pdb) hook (1,) {'two': 2}\nend False\n", child.stdout)

    def test_the_hook_is_the_interpreters(self):
        child = self.outcome("""\
            import sys
            print(sys.breakpointhook is sys.__breakpointhook__)
            """)
        self.assertIn("(Pdb) True\n", child.stdout)

    def test_the_environment(self):
        """One variable more, for children: it says what `breakpoint()` does in them."""
        program = "import os\nprint(sorted(os.environ.items() - {('PYTHONBREAKPOINT', 'brixdebug.children.pass_by')}))\n"
        debugged = self.outcome(program + "print('PYTHONBREAKPOINT' in os.environ)\n")
        plain = run_child("-c", program, NO_COLOR="1", TERM="dumb")
        self.assertIn("(Pdb) %sTrue\n" % plain.stdout, debugged.stdout)

    def test_a_function_of_another_in_pdb(self):
        """Who has put a function of its own into `pdb` keeps it."""
        child = self.outcome("""\
            import pdb
            pdb.set_trace = lambda: print("mine")
            import brixdebug
            breakpoint()
            def function():
                brixdebug.set_trace()
                breakpoint()
            function()
            """)
        self.assertIn("(Pdb) mine\n", child.stdout)


class LibraryTest(EntryTestCase):
    """`set_trace` in a program that was started without the debugger."""

    def test_after_the_first_stop_pdb_is_the_debuggers(self):
        """Two debuggers cannot share the process: the tool ids are taken while a breakpoint is set."""
        self.write("""\
            import brixdebug, pdb
            def function(n):
                return n                     # line
            brixdebug.set_trace()            # first
            function(1)
            pdb.set_trace()                  # second
            function(2)
            breakpoint()                     # third
            print("end")
            """)
        session = Session(self, self.program)
        self.assertIn(self.place("first", "<module>"), session.prompt())
        session.do("break %d" % line_of(self.program, "line"))
        self.assertIn(self.break_place("line"), session.do("continue"))
        self.assertIn(self.place("second", "<module>"), session.do("continue"))
        self.assertIn("hit 1 time", session.do("break"))
        self.assertIn(self.break_place("line"), session.do("continue"))
        self.assertIn(self.place("third", "<module>"), session.do("continue"))
        self.assertEqual(session.end("continue"), ("end\n", 0))

    def test_two_threads_at_once(self):
        """Each of them stops, though both asked before there was a debugger, and neither had stopped when both had asked."""
        write_program(self.folder, """\
            import brixdebug, time
            from brixdebug import internal
            internal.add_internal_file(__file__)          # no stop in the code that has them meet
            made, entered = [], []
            def wait(done):
                done.append(1)
                while len(done) < 2:
                    time.sleep(0.001)
            class Meeting:
                init, set_trace = brixdebug.Debugger.__init__, brixdebug.Debugger.set_trace
            def init(self, *args, **keywords):
                Meeting.init(self, *args, **keywords)
                wait(made)
            def set_trace(self, *args, **keywords):
                Meeting.set_trace(self, *args, **keywords)
                wait(entered)
            brixdebug.Debugger.__init__, brixdebug.Debugger.set_trace = init, set_trace
            """, "meeting.py")
        self.write("""\
            import brixdebug, meeting, threading
            def function():
                brixdebug.set_trace()            # call
                return None
            threads = [threading.Thread(target=function) for _ in range(2)]
            for each in threads: each.start()
            for each in threads: each.join()
            print("end")
            """)
        child = run_session(self.program, commands=["continue"] * 2)
        self.assertEqual((child.stdout.count(self.place("call")), child.stdout[-4:]), (2, "end\n"), child.stderr)

    def test_import_changes_nothing(self):
        printed = check_child(self, "-c", "import pdb; before = dict(vars(pdb)); import brixdebug; "
                                          "print(vars(pdb) == before)")
        self.assertEqual(printed, "True\n")

    def test_environment_variable(self):
        self.write(ENTRY.replace("CALL", "breakpoint()"))
        session = Session(self, self.program, PYTHONBREAKPOINT="brixdebug.set_trace")
        self.assertIn(self.place("call"), session.prompt())
        self.assertIn("MainThread", session.do("threads"))
        for _ in range(2):
            self.assertIn(self.place("call"), session.do("continue"))
        self.assertEqual(session.end("continue"), ("end\n", 0))

    def test_other_functions_in_pdbs_place(self):
        """As pytest does it: what stands in `pdb` when the debugger is imported is not what it is derived from."""
        self.write("""\
            import pdb
            class Other:
                @classmethod
                def set_trace(cls, *args, **keywords): print("other")
            pdb.set_trace = Other.set_trace
            import brixdebug
            def function():
                brixdebug.set_trace()        # call
                pdb.set_trace()
            function()
            """)
        session = Session(self, self.program)
        self.assertIn(self.place("call"), session.prompt())
        self.assertEqual(session.end("continue"), ("other\n", 0))


class ExportsTest(unittest.TestCase):

    def exported(self, expression):
        return check_child(self, "-c", "import pdb, brixdebug; print(%s)" % expression).strip()

    def test_what_pdb_exports(self):
        self.assertEqual(self.exported("[name for name in pdb.__all__ if name not in brixdebug.__all__ "
                                       "or not hasattr(brixdebug, name)]"), "[]")

    def test_all_names_exist_and_have_texts(self):
        self.assertEqual(self.exported("[name for name in brixdebug.__all__ if not getattr(brixdebug, name).__doc__ "
                                       "and name not in ('runctx',)]"), "[]")

    def test_the_class(self):
        self.assertEqual(self.exported("brixdebug.Pdb is brixdebug.Debugger, issubclass(brixdebug.Pdb, pdb.Pdb)"),
                         "True True")

    def test_set_trace_async(self):
        self.assertEqual(self.exported("hasattr(brixdebug, 'set_trace_async') == hasattr(pdb, 'set_trace_async')"), "True")

    @unittest.skipUnless(hasattr(pdb, "set_default_backend"), "pdb's backends came with 3.14")
    def test_backends(self):
        """They are pdb's own switch: it says what `pdb` uses, never what this debugger does."""
        self.assertEqual(self.exported("brixdebug.set_default_backend('monitoring'), pdb.get_default_backend(), "
                                       "brixdebug.get_default_backend(), brixdebug.Pdb(readrc=False).backend"),
                         "None monitoring monitoring monitoring")
        child = run_child("-c", "import brixdebug; brixdebug.set_default_backend('nonsense')")
        self.assertIn("ValueError: Invalid backend: nonsense", child.stderr)


if __name__ == "__main__":
    unittest.main()
