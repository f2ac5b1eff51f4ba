"""`breakpoint()` in a child of a program: it has a terminal, whatever has become of its `sys.stdin`, or says why not.

Under the command line a child that is not followed goes on, and says that once.
"""

import subprocess
import sys
import unittest

from host_support import CHILD_SECONDS, child_environment, scratch_folder
from session import Session, line_of, write_program

STOPS_AT_CALL = sys.version_info >= (3, 13)        # before that `set_trace` stops at the line after it

PROGRAM = """\
    import multiprocessing, sys
    def work(n):
        before = n + 1
        breakpoint()                         # call
        return before
    def run():
        print("result", work(1), flush=True)
    if __name__ == "__main__":
        context = multiprocessing.get_context(sys.argv[1])
        process = context.Process(target=run)
        process.start()
        process.join()
        print("status", process.exitcode)
    """

METHODS = "fork", "spawn", "forkserver"


class WorkerTest(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)
        self.program = write_program(self.folder, PROGRAM)

    def test_terminal_of_the_parent(self):
        line = line_of(self.program, "call")
        place = "> %s(%d)work()" % (self.program, line if STOPS_AT_CALL else line + 1)
        for method in METHODS:
            for terminal in True, False:
                with self.subTest(method=method, terminal=terminal):
                    session = Session(self, self.program, method, cwd=self.folder, terminal=terminal,
                                      PYTHONBREAKPOINT="brixdebug.set_trace")
                    self.assertIn(place, session.prompt())
                    session.do("before = 7")
                    self.assertEqual(session.do("p n, before"), "(1, 7)\n")
                    self.assertEqual(session.end("continue")[0].splitlines()[-2:], ["result 7", "status 0"])

    def test_without_a_terminal(self):
        """An exception at the call; pdb would have ended the process without a word."""
        for method in METHODS:
            with self.subTest(method=method):
                child = subprocess.run([sys.executable, self.program, method], cwd=self.folder, stdin=subprocess.DEVNULL,
                                       capture_output=True, text=True, timeout=CHILD_SECONDS, start_new_session=True,
                                       env=child_environment(PYTHONBREAKPOINT="brixdebug.set_trace"))
                self.assertEqual(child.stdout, "status 1\n", child.stderr)
                self.assertIn("NoTerminal: this process of multiprocessing has no terminal", child.stderr)


# A function of the program in a child, each way that a program has to start one.
STARTS = """\
    import multiprocessing, os, pdb, subprocess, sys
    from concurrent.futures import ProcessPoolExecutor
    def work(n):
        before = n + 1
        CALL                                 # call
        return before
    def end(n):
        os._exit(work(n))
    def main(way):
        if way == "subprocess":
            status = subprocess.run([sys.executable, "-c", "import program; program.end(1)"]).returncode
        elif way == "os.fork":
            status = os.waitstatus_to_exitcode(os.waitpid(os.fork() or end(1), 0)[1])
        elif way.endswith("executor"):
            context = multiprocessing.get_context(way.split()[0])
            with ProcessPoolExecutor(1, mp_context=context) as executor:
                status = executor.submit(work, 1).result()
        else:
            process = multiprocessing.get_context(way).Process(target=end, args=(1,))
            process.start()
            process.join()
            status = process.exitcode
        print("status", status, flush=True)
    if __name__ == "__main__":
        main(sys.argv[1])
    """
FORKED = "os.fork", "fork", "fork executor"
STARTED_ANEW = "spawn", "forkserver", "spawn executor", "forkserver executor", "subprocess"
CALLS = "breakpoint()", "pdb.set_trace()", "pdb.Pdb().set_trace()", "import brixdebug; brixdebug.set_trace()"


class CommandLineTest(unittest.TestCase):

    def start(self, way, call="breakpoint()", commands=(), arguments=(), **environment):
        folder = scratch_folder(self)
        self.program = write_program(folder, STARTS.replace("CALL  ", call + "  "))
        session = Session(self, "-W", "ignore::DeprecationWarning", *arguments, "-m", "brixdebug", self.program, way,
                          cwd=folder, **environment)
        session.prompt()
        for command in commands:
            session.do(command)
        return session

    def check_passed_by(self, session):
        printed = session.do("continue")
        self.assertIsNone(session.prompting_pid)
        self.assertRegex(printed, r"^brixdebug: process \d+ is not followed: it runs on where it calls the debugger\.  To have "
                         r'it stop there, give the command "set follow-fork on" before it is started\.\nstatus 2\n'
                         r"The program finished and will be restarted\n")
        self.assertEqual(session.end("quit")[1], 0)

    def test_not_followed(self):
        for way in FORKED + STARTED_ANEW:
            with self.subTest(way):
                self.check_passed_by(self.start(way))

    def test_all_calls_of_a_forked_child(self):
        for call in CALLS:
            with self.subTest(call):
                self.check_passed_by(self.start("os.fork", call))

    def test_passed_by_is_said_once(self):
        self.check_passed_by(self.start("subprocess", "[breakpoint() for _ in range(3)]"))

    def test_followed(self):
        for way in FORKED + STARTED_ANEW:
            for terminal in False, True:
                with self.subTest(way, terminal=terminal):
                    session = self.start(way, commands=["set follow-fork on"], terminal=terminal)
                    line = line_of(self.program, "call")
                    printed = session.do("continue")
                    self.assertIsNotNone(session.prompting_pid)
                    self.assertIn("> %s(%d)work()" % (self.program, line if STOPS_AT_CALL else line + 1), printed)
                    self.assertEqual(session.do("import os; os.getpid()"), "%d\n" % session.prompting_pid)
                    rows = session.do("info processes")
                    self.assertIn("\n  %-8d" % session.process.pid, rows)
                    self.assertIn("\n> %-8d" % session.prompting_pid, rows)
                    session.do("before = 7")
                    self.assertIn("status 7\n", session.do("continue"))
                    self.assertIsNone(session.prompting_pid)
                    self.assertEqual(session.end("quit")[1], 0)

    def test_followed_no_longer(self):
        for way in "os.fork", "subprocess":
            with self.subTest(way):
                self.check_passed_by(self.start(way, commands=["set follow-fork on", "set follow-fork off"]))

    def test_children_of_a_child(self):
        """What a followed child forks is followed."""
        folder = scratch_folder(self)
        program = write_program(folder, """\
            import os, subprocess, sys
            def work():
                here = os.getpid()
                if os.fork() == 0:
                    os._exit(inner())
                return os.waitstatus_to_exitcode(os.wait()[1])
            def inner():
                return 7                         # inner
            if __name__ == "__main__":
                code = "import program; breakpoint(); import os; os._exit(program.work())"
                print("status", subprocess.run([sys.executable, "-c", code]).returncode)
            """)
        session = Session(self, "-W", "ignore::DeprecationWarning", "-m", "brixdebug", program, cwd=folder)
        session.prompt()
        session.do("set follow-fork on")
        session.do("continue")
        child = session.prompting_pid
        self.assertEqual(session.do("set follow-fork"), "*** set follow-fork on, or off; it is on\n")
        session.do("break program:%d" % line_of(program, "inner"))
        self.assertIn("inner()", session.do("continue"))
        self.assertNotIn(session.prompting_pid, (None, child))
        self.assertIn("status 7\n", session.do("continue"))
        self.assertIsNone(session.prompting_pid)
        self.assertEqual(session.end("quit")[1], 0)

    def test_restart(self):
        """Nothing of the first run is in the way of the second."""
        session = self.start("subprocess", "print(os.environ['PYTHONBREAKPOINT'], flush=True)",
                             commands=["set follow-fork on"])
        for _ in range(2):
            self.assertIn("brixdebug.children.stop\nstatus 2\n", session.do("continue"))
        session.end("quit")

    def test_variable_of_the_user(self):
        """It says what `breakpoint()` is, in children as elsewhere."""
        for value, status in ("0", 2), ("sys.exit", 0):
            with self.subTest(value):
                session = self.start("subprocess", commands=["set follow-fork on"], PYTHONBREAKPOINT=value)
                self.assertEqual(session.do("continue").partition("The program")[0], "status %d\n" % status)
                session.end("quit")

    def test_variable_of_the_user_that_is_ours(self):
        """A started child comes to the prompt, in its turn; a forked one is a copy of what is not to be followed."""
        session = self.start("subprocess", PYTHONBREAKPOINT="brixdebug.set_trace")
        self.assertIn("work()", session.do("continue"))
        self.assertIsNotNone(session.prompting_pid)
        self.assertIn("status 2\n", session.do("continue"))
        session.end("quit")
        self.check_passed_by(self.start("os.fork", PYTHONBREAKPOINT="brixdebug.set_trace"))

    def test_the_programs_own_function(self):
        """What the program puts in the place of `pdb.set_trace` is called by `breakpoint()` in the debugged process."""
        folder = scratch_folder(self)
        program = write_program(folder, """\
            import pdb
            def own():
                print("own")
            pdb.set_trace = own
            breakpoint()
            """)
        session = Session(self, "-m", "brixdebug", program)
        session.prompt()
        self.assertIn("own\nThe program finished", session.do("continue"))
        session.end("quit")

    def test_without_a_terminal(self):
        folder = scratch_folder(self)
        program = write_program(folder, STARTS.replace("CALL", "breakpoint()"))
        for way in "os.fork", "fork", "spawn", "forkserver", "subprocess":
            with self.subTest(way):
                child = subprocess.run([sys.executable, "-W", "ignore", "-m", "brixdebug", "-c", "set follow-fork on",
                                        "-c", "continue", program, way], cwd=folder, stdin=subprocess.DEVNULL,
                                       start_new_session=True, capture_output=True, text=True, timeout=CHILD_SECONDS,
                                       env=child_environment())
                self.assertIn("status 1\n", child.stdout, child.stderr)
                self.assertRegex(child.stderr, "NoTerminal: this process(?: of multiprocessing)? has no terminal: its standard "
                                 "input, like that of the process that started it, is the null device")


if __name__ == "__main__":
    unittest.main()
