"""Tests that pytest runs, debugged in each of the ways that there are, with its capture on; and unittest's runner."""

import sys
import unittest

import third_party
from host_support import run_child, scratch_folder
from session import Session, line_of, write_program

STOPS_AT_CALL = sys.version_info >= (3, 13)        # before that `set_trace` stops at the line after it

TESTS = """\
    import pytest

    def helper(n):
        result = n + 1                       # helper
        return result

    @pytest.fixture
    def seven():
        value = 7
        print("in the fixture")              # fixture
        yield value
        value = 0                            # after

    def test_one(seven):
        print("in the test")
        text = "one"                         # one
        print("still in the test")
        assert helper(seven) == 8

    @pytest.mark.parametrize("n", [1, 2])
    def test_two(n):
        assert helper(n) == n + 1            # two

    def test_captures(capsys):
        print("captured")
        text = "captures"                    # captures
        print("more")
        assert capsys.readouterr().out == "captured\\nmore\\n"
    """

STOPPING = """\
    def test_first():
        print("printed before")
        first = 1
        CALL                                 # first
        print("printed after")
        assert first == 1

    def test_second(capfd):
        second = 2
        print("captured")
        CALL                                 # second
        assert capfd.readouterr().out == "captured\\n"

    def test_third():
        third = 3
        CALL                                 # third
        assert third == 3
    """

FAILING = """\
    def test_fails():
        number = 5
        assert number == 6                   # fails

    def test_other():
        pass
    """


def setUpModule():
    global PYTEST
    PYTEST = third_party.folder(third_party.PYTEST, third_party.XDIST)


class PytestTestCase(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text, name="test_program.py"):
        self.program = write_program(self.folder, text, name)
        return self.program

    def session(self, *arguments, **environment):
        """pytest on the program; `-m brixdebug` among the arguments comes before it."""
        before = [each for each in ("-m", "brixdebug") if "brixdebug" in arguments]
        options = [each for each in arguments if each != "brixdebug"]
        return Session(self, *before, "-m", "pytest", "-q", "-p", "no:cacheprovider", *options, self.program.name,
                       cwd=self.folder, PYTHONPATH=third_party.python_path(PYTEST), **environment)

    def place(self, mark, function):
        """Where the debugger stops for a call on the marked line."""
        line = line_of(self.program, mark)
        return "> %s(%d)%s()" % (self.program, line if STOPS_AT_CALL else line + 1, function)

    def break_place(self, mark, function):
        return "> %s(%d)%s()" % (self.program, line_of(self.program, mark), function)


class BreakpointTest(PytestTestCase):
    """`python -m brixdebug -m pytest`, and breakpoints set at the prompt."""

    def start(self, *marks, arguments=()):
        session = self.session("brixdebug", *arguments)
        session.prompt()
        for mark in marks:
            self.assertIn("Breakpoint", session.do("break %s:%d" % (self.program, line_of(self.program, mark))))
        return session

    def check_all_pass(self, session, passed):
        printed = session.do("continue")
        self.assertIn("%d passed" % passed, printed)
        self.assertIn("Exit status: 0", printed)
        self.assertEqual(session.end("quit")[1], 0)
        return printed

    def test_in_fixture_test_and_function(self):
        """With each kind of capture, and without one: what the tests print is theirs."""
        self.write(TESTS)
        for capture in "fd", "sys", "no", "tee-sys":
            with self.subTest(capture):
                session = self.start("fixture", "one", "helper", "after", arguments=["--capture=" + capture])
                self.assertIn(self.break_place("fixture", "seven"), session.do("continue"))
                self.assertEqual(session.do("p value"), "7\n")
                self.assertIn(self.break_place("one", "test_one"), session.do("continue"))
                self.assertEqual(session.do("p seven"), "7\n")
                self.assertIn(self.break_place("helper", "helper"), session.do("continue"))
                self.assertIn("test_one()\n", session.do("where"))
                self.assertEqual(session.do("print(n)"), "7\n")
                self.assertIn(self.break_place("after", "seven"), session.do("continue"))
                for n in (1, 2):
                    self.assertIn(self.break_place("helper", "helper"), session.do("continue"))
                    self.assertEqual(session.do("p n"), "%d\n" % n)
                self.check_all_pass(session, 4)

    def test_capture_goes_on_after_the_stop(self):
        self.write(TESTS)
        session = self.start("fixture", "one")
        session.do("continue")
        session.do("continue")
        printed = self.check_all_pass(session, 4)
        self.assertNotIn("still in the test", printed)
        self.assertNotIn("\nin the fixture\n", session.seen)

    def test_between_two_tests(self):
        """pytest shows its progress there, and keeps standard input to itself all the same."""
        self.write(TESTS)
        hooks = write_program(self.folder, """\
            def pytest_runtest_logreport(report):
                text = "%s of %s" % (report.when, report.nodeid)
                return None                  # between
            """, "conftest.py")
        for capture in "fd", "sys", "no":
            with self.subTest(capture):
                session = self.start(arguments=["--capture=" + capture])
                session.do("break %s:%d" % (hooks, line_of(hooks, "between")))
                for when, shown in ("setup", ""), ("call", "."):
                    printed = session.do("continue")
                    self.assertIn("> %s(%d)pytest_runtest_logreport()" % (hooks, line_of(hooks, "between")), printed)
                    if capture != "no":
                        self.assertEqual(printed.partition("\n")[0], shown)
                    self.assertEqual(session.do("p text"), "'%s of test_program.py::test_one'\n" % when)
                session.do("clear 1")
                printed = self.check_all_pass(session, 4)
                if capture != "no":
                    self.assertNotIn("still in the test", printed)
                    self.assertRegex(printed, r"^\.{3} +\[100%\]\n4 passed")

    def test_what_is_printed_while_stepping_is_seen(self):
        self.write(TESTS)
        session = self.start("one")
        session.do("continue")
        session.do("next")
        self.assertIn("still in the test\n", session.do("next"))
        self.check_all_pass(session, 4)

    def test_a_test_that_looks_at_what_is_captured(self):
        """A stop takes nothing of it away and puts nothing into it."""
        self.write(TESTS)
        session = self.start("captures")
        self.assertIn(self.break_place("captures", "test_captures"), session.do("continue"))
        self.assertEqual(session.do("print('at the prompt')"), "at the prompt\n")
        self.check_all_pass(session, 4)

    def test_with_parameters(self):
        self.write(TESTS)
        session = self.start()
        session.do("break %s:%d, n == 2" % (self.program, line_of(self.program, "two")))
        self.assertIn(self.break_place("two", "test_two"), session.do("continue"))
        self.assertEqual(session.do("p n"), "2\n")
        self.check_all_pass(session, 4)

    def test_quit(self):
        """The run ends: no other test is begun, and none is said to have failed."""
        self.write(TESTS)
        session = self.start("one")
        session.do("continue")
        printed, status = session.end("quit")
        self.assertNotIn("BdbQuit", printed)
        self.assertNotIn("passed", printed)
        self.assertNotIn("failed", printed)
        self.assertEqual(status, 0)

    def test_calls_in_the_tests(self):
        """`breakpoint()` beside a breakpoint: the session's own displays and breakpoints go on."""
        self.write(STOPPING.replace("CALL", "breakpoint()"))
        session = self.session("brixdebug")
        session.prompt()
        self.assertIn(self.place("first", "test_first"), session.do("continue"))
        self.assertEqual(session.do("p first"), "1\n")
        self.assertIn("MainThread", session.do("threads"))
        self.assertIn(self.place("second", "test_second"), session.do("continue"))
        session.do("break %s:%d" % (self.program, line_of(self.program, "third") - 1))
        self.assertIn("test_third()", session.do("continue"))
        self.assertIn(self.place("third", "test_third"), session.do("continue"))
        self.assertEqual(session.do("p third"), "3\n")
        self.check_all_pass(session, 3)

    def test_quit_beside_threads(self):
        """In the test and in a thread of it: pytest ends the run by itself, the test cleans up, and no thread reports."""
        self.write("""\
            import threading
            def work(begun, end):
                begun.set()
                end.wait()                   # waits
                here = 1                     # worker
            def test_one():
                begun, end = threading.Event(), threading.Event()
                thread = threading.Thread(target=work, args=(begun, end))
                thread.start()
                begun.wait()
                try:
                    here = 1                 # test
                    if WORKER:
                        end.set()
                        thread.join()
                finally:
                    end.set()                # end
                    thread.join()
            def test_two():
                pass
            """)
        text = self.program.read_text()
        for mark in "test", "worker":
            with self.subTest(mark):
                self.program.write_text(text.replace("WORKER", str(mark == "worker")))
                session = self.start(mark)
                self.assertIn(self.break_place(mark, "test_one" if mark == "test" else "work"), session.do("continue"))
                printed, status = session.end("quit")
                self.assertIn("Exit: Quitting debugger", printed)
                for noise in "BdbQuit", "ERROR", "passed", "failed", "restarted":
                    self.assertNotIn(noise, printed)
                self.assertEqual(status, 0)

    def test_quit_at_calls_in_the_tests(self):
        """pytest makes a debugger of its own there; its end is the session's."""
        self.write(STOPPING.replace("CALL", "breakpoint()"))
        for command in "quit", "EOF":
            with self.subTest(command):
                session = self.session("brixdebug")
                session.prompt()
                self.assertIn(self.place("first", "test_first"), session.do("continue"))
                printed, status = session.end(command)
                self.assertNotIn("restarted", printed)
                self.assertNotIn("passed", printed)
                self.assertEqual(status, 0)

    def test_on_a_terminal(self):
        self.write(TESTS)
        session = Session(self, "-m", "brixdebug", "-m", "pytest", "-q", "-p", "no:cacheprovider", self.program.name,
                          cwd=self.folder, terminal=True, PYTHONPATH=third_party.python_path(PYTEST))
        session.prompt()
        session.do("break %s:%d" % (self.program, line_of(self.program, "one")))
        self.assertIn(self.break_place("one", "test_one"), session.do("continue"))
        session.do("next")
        self.assertEqual(session.do("p text"), "'one'\n")
        self.check_all_pass(session, 4)


class CallTest(PytestTestCase):
    """pytest by itself: calls in the tests, and its own options."""

    def check_stops(self, session):
        self.assertIn(self.place("first", "test_first"), session.prompt())
        self.assertIn("MainThread", session.do("threads"))           # a command that pdb has not
        self.assertEqual(session.do("print(first)"), "1\n")
        if STOPS_AT_CALL:
            session.do("next")
        self.assertIn("printed after\n", session.do("next"))
        self.assertIn(self.place("second", "test_second"), session.do("continue"))
        self.assertIn(self.place("third", "test_third"), session.do("continue"))
        self.assertEqual(session.do("p third"), "3\n")
        printed, status = session.end("continue")
        self.assertIn("3 passed", printed)
        self.assertEqual(status, 0)

    def test_environment_variable(self):
        self.write(STOPPING.replace("CALL", "breakpoint()"))
        self.check_stops(self.session(PYTHONBREAKPOINT="brixdebug.set_trace"))

    def test_call(self):
        self.write(STOPPING.replace("CALL", "import brixdebug; brixdebug.set_trace()"))
        self.check_stops(self.session())

    def test_call_with_other_kinds_of_capture(self):
        self.write(STOPPING.replace("CALL", "import brixdebug; brixdebug.set_trace()"))
        for capture in "sys", "no", "tee-sys":
            with self.subTest(capture):
                self.check_stops(self.session("--capture=" + capture))

    def test_class(self):
        self.write(STOPPING.replace("CALL", "breakpoint()"))
        self.check_stops(self.session("--pdbcls=brixdebug:Debugger"))

    def test_what_is_printed_before_is_shown_with_a_failure(self):
        """The capture goes on where it was."""
        self.write("""\
            import brixdebug
            def test_fails():
                print("printed before")
                brixdebug.set_trace()
                print("printed after")
                assert False
            """)
        session = self.session()
        self.assertNotIn("printed before", session.prompt())
        printed, status = session.end("continue")
        self.assertIn("Captured stdout call", printed)
        self.assertIn("\nprinted before\nprinted after\n", printed)
        self.assertEqual(status, 1)

    def test_quit(self):
        """As from pytest's own prompt: the run ends, and no test is said to have failed."""
        for name, call, arguments in (("call", "import brixdebug; brixdebug.set_trace()", ()),
                                      ("class", "breakpoint()", ["--pdbcls=brixdebug:Debugger"])):
            with self.subTest(name):
                self.write(STOPPING.replace("CALL", call))
                session = self.session(*arguments)
                session.prompt()
                printed, status = session.end("quit")
                self.assertIn("Quitting debugger", printed)
                self.assertNotIn("failed", printed)
                self.assertNotIn("error of the debugger's own", printed)
                self.assertEqual(status, 2)

    def test_trace(self):
        self.write(STOPPING.replace("CALL", "pass"))
        session = self.session("--trace", "--pdbcls=brixdebug:Debugger", "-k", "first or third")
        self.assertIn("test_first()", session.prompt())
        self.assertIn("printed before\n", session.do("next") + session.do("next"))
        self.assertIn("test_third()", session.do("continue"))
        printed, status = session.end("continue")
        self.assertIn("2 passed", printed)
        self.assertEqual(status, 0)

    def test_post_mortem(self):
        self.write(FAILING)
        session = self.session("-x", "--pdb", "--pdbcls=brixdebug:Debugger")
        self.assertIn(self.break_place("fails", "test_fails"), session.prompt())
        self.assertEqual(session.do("p number"), "5\n")
        printed, status = session.end("continue")
        self.assertIn("1 failed", printed)
        self.assertEqual(status, 1)
        session = self.session("-x", "--pdb", "--pdbcls=brixdebug:Debugger")
        session.prompt()
        self.assertEqual(session.end("quit")[1], 2)

    def test_post_mortem_under_the_command_line(self):
        self.write(FAILING)
        session = self.session("brixdebug", "-x", "--pdb")
        session.prompt()
        self.assertIn(self.break_place("fails", "test_fails"), session.do("continue"))
        self.assertEqual(session.do("p number"), "5\n")
        self.assertIn("MainThread", session.do("threads"))
        self.assertIn("1 failed", session.do("continue"))
        self.assertIn(self.break_place("fails", "test_fails"), session.do("continue"))
        printed, status = session.end("quit")
        self.assertNotIn("restarted", printed)
        self.assertEqual(status, 0)

    def test_thread_of_a_test(self):
        self.write("""\
            import threading
            def test_thread():
                results = []
                def worker():
                    number = 8
                    breakpoint()             # worker
                    results.append(number)
                thread = threading.Thread(target=worker)
                thread.start()
                thread.join()
                assert results == [9]
            """)
        session = self.session(PYTHONBREAKPOINT="brixdebug.set_trace")
        self.assertIn(self.place("worker", "worker"), session.prompt())
        session.do("number = 9")
        printed, status = session.end("continue")
        self.assertIn("1 passed", printed)
        self.assertEqual(status, 0)

    def test_outside_of_a_test(self):
        """At the import of a test's module, when pytest collects it."""
        self.write("""\
            import brixdebug
            here = 1
            brixdebug.set_trace()            # import
            def test_nothing():
                pass
            """)
        session = self.session()
        self.assertIn(self.place("import", "<module>"), session.prompt())
        self.assertEqual(session.do("p here"), "1\n")
        printed, status = session.end("continue")
        self.assertIn("1 passed", printed)
        self.assertEqual(status, 0)


class WorkersTest(PytestTestCase):
    """pytest-xdist: its workers have no terminal."""

    def outcome(self, *arguments, **environment):
        return run_child("-m", "pytest", "-q", "-p", "no:cacheprovider", *arguments, self.program.name, cwd=self.folder,
                         input="", PYTHONPATH=third_party.python_path(PYTEST), **environment)

    def test_options_are_refused(self):
        self.write(FAILING)
        child = self.outcome("-n", "1", "--pdb", "--pdbcls=brixdebug:Debugger")
        self.assertIn("--pdb is incompatible with distributing tests", child.stdout + child.stderr)
        self.assertEqual(child.returncode, 4)

    def test_call_is_refused(self):
        for call, environment in (("import brixdebug; brixdebug.set_trace()", {}),
                                  ("breakpoint()", {"PYTHONBREAKPOINT": "brixdebug.set_trace"})):
            with self.subTest(call):
                self.write("def test_one():\n    %s\n\ndef test_two():\n    pass\n" % call)
                child = self.outcome("-n", "1", **environment)
                self.assertIn("NoTerminal: this is a worker of pytest-xdist, without a terminal: run pytest with -n 0",
                              child.stdout)
                self.assertIn("1 failed, 1 passed", child.stdout)

    def test_without_workers(self):
        self.write(STOPPING.replace("CALL", "breakpoint()"))
        session = self.session("-n", "0", PYTHONBREAKPOINT="brixdebug.set_trace")
        self.assertIn(self.place("first", "test_first"), session.prompt())


class UnittestTest(PytestTestCase):
    """The standard runner, which takes nothing away."""

    def test_breakpoints_and_calls(self):
        self.write("""\
            import unittest
            class Case(unittest.TestCase):
                def setUp(self):
                    self.number = 3          # setup
                def test_one(self):
                    number = self.number
                    breakpoint()             # call
                    self.assertEqual(number, 3)
            """)
        session = Session(self, "-m", "brixdebug", "-m", "unittest", "test_program", cwd=self.folder)
        session.prompt()
        session.do("break %s:%d" % (self.program, line_of(self.program, "setup")))
        self.assertIn(self.break_place("setup", "setUp"), session.do("continue"))
        self.assertIn(self.place("call", "test_one"), session.do("continue"))
        self.assertEqual(session.do("p number"), "3\n")
        self.assertIn("\nOK\n", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)


if __name__ == "__main__":
    unittest.main()
