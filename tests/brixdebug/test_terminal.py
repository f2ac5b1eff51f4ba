"""The prompt as people type at it: how sessions end and begin again, what is listed, completed and coloured."""

import os
import re
import subprocess
import sys
import unittest

from host_support import child_environment, needs_readline, run_child, scratch_folder
from session import Session, run_session, write_program

ENDLESS_WORKER = """\
import threading, time
def work():
    while True:
        time.sleep(0.001)
"""


class TerminalTestCase(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text, name="program.py"):
        self.program = write_program(self.folder, text, name)
        return self.program

    def start(self, text, *commands, terminal=False, **environment):
        self.write(text)
        session = Session(self, "-m", "brixdebug", self.program, cwd=self.folder, terminal=terminal, **environment)
        session.prompt()
        for command in commands:
            session.do(command)
        return session

    def run_commands(self, text, *commands):
        self.write(text)
        return run_session("-m", "brixdebug", self.program, commands=commands, cwd=self.folder)

    def assertQuiet(self, child):
        self.assertEqual((child.returncode, child.stderr), (0, ""), child.stdout)


class LostInputTest(TerminalTestCase):

    MESSAGE = "*** Standard input is closed: no command can be read\n"

    def run_closed(self, *arguments):
        command = [sys.executable, "-m", "brixdebug", *arguments, str(self.program)]
        return subprocess.run(["sh", "-c", 'exec "$@" <&-', "sh", *command], capture_output=True, text=True, timeout=60,
                              cwd=self.folder, env=child_environment())

    def test_closed_from_the_start(self):
        self.write("print('end')\n")
        for arguments in [], ["-c", "break 1", "-c", "continue"]:
            with self.subTest(arguments):
                child = self.run_closed(*arguments)
                self.assertEqual(child.returncode, 1)
                self.assertEqual((child.stdout + child.stderr).count(self.MESSAGE), 1)
                self.assertNotIn("Traceback", child.stdout + child.stderr)
                self.assertLessEqual(child.stdout.count("end\n"), 1)

    def test_closed_by_the_program(self):
        child = self.run_commands("import sys\nsys.stdin.close()\nhere = 1\nprint('end')\n", "break 3", "continue")
        self.assertEqual(child.returncode, 1)
        self.assertEqual((child.stdout + child.stderr).count(self.MESSAGE), 1)
        self.assertNotIn("Traceback", child.stdout + child.stderr)

    def test_program_that_calls_the_debugger(self):
        """As with pdb: the error is the program's."""
        self.write("import brixdebug, sys\nsys.stdin.close()\nbrixdebug.set_trace()\nhere = 1\nprint('end')\n")
        child = run_child(self.program)
        self.assertEqual(child.returncode, 1)
        self.assertIn("ValueError: I/O operation on closed file", child.stderr)
        self.assertNotIn("end\n", child.stdout)


class RestartTest(TerminalTestCase):

    def test_in_a_worker(self):
        for wait in "thread.join()", "done.acquire()", "while not done.locked(): pass":
            with self.subTest(wait):
                session = self.start("""\
                    import sys, threading
                    print("begun with", sys.argv[1:])
                    done = threading.Lock()
                    def work():
                        here = 1
                        return here
                    if len(sys.argv) == 1:
                        done.acquire()
                    thread = threading.Thread(target=work)
                    thread.start()
                    if len(sys.argv) == 1:
                        %s
                    thread.join()
                    print("end")
                    """ % wait.replace("done.locked", "False.__bool__"), "break 5")
                self.assertIn("begun with []\n", session.do("continue"))
                self.assertIn("work()", session.do("where"))
                printed = session.do("restart a b")
                self.assertIn("Restarting %s with arguments:\n\ta b\n" % self.program, printed)
                self.assertNotIn("Traceback", printed)
                self.assertIn("begun with ['a', 'b']\n", session.do("continue"))
                self.assertIn("work()", session.do("where"))
                self.assertIn("end\n", session.do("continue"))
                self.assertEqual(session.end("quit")[1], 0)
                self.assertNotIn("BdbQuit", session.seen)


class QuitTest(TerminalTestCase):

    def test_post_mortem_while_another_thread_lives(self):
        for daemon in True, False:
            with self.subTest(daemon=daemon):
                child = self.run_commands(
                    ENDLESS_WORKER + "threading.Thread(target=work, daemon=%s).start()\n1 / 0\n" % daemon,
                    "continue", "quit")
                self.assertEqual(child.returncode, 0)
                self.assertEqual(child.stdout.count("program.py(1)<module>()"), 1)
                self.assertEqual((child.stdout + child.stderr).count("Traceback"), 1)

    def test_post_mortem_alone(self):
        child = self.run_commands("1 / 0\n", "continue", "quit")
        self.assertEqual((child.returncode, child.stdout.count("program.py(1)<module>()")), (0, 2))

    def test_restart_after_the_end_of_the_program(self):
        child = self.run_commands("import sys\nprint(sys.argv[1:])\n1 / 0\n", "continue", "restart a", "continue", "quit")
        self.assertEqual(child.returncode, 0)
        self.assertIn("['a']\n", child.stdout)

    def test_workers_of_an_executor(self):
        child = self.run_commands("""\
            import concurrent.futures, threading
            def work(n):
                return n
            with concurrent.futures.ThreadPoolExecutor(4) as executor:
                print(sum(executor.map(work, range(10))))
                here = 1
            """, "break 6", "continue", "quit")
        self.assertQuiet(child)

    def test_in_a_worker_while_the_main_thread_waits_for_ever(self):
        session = self.start("""\
            import os, threading
            ends = os.pipe()
            def work():
                here = 1
            threading.Thread(target=work).start()
            os.read(ends[0], 1)
            """, "break 4")
        self.assertIn("work()", session.do("continue"))
        printed, status = session.end("quit")
        self.assertEqual(status, 0)
        self.assertNotIn("Traceback", printed)


class ThreadsTest(TerminalTestCase):

    def places(self, printed):
        return re.findall(r"^[> ] (\d+) .*?(\S+) +\S*?([^/ ]+\.py|<[^>]*>)\((\d+)\)(\S+)\(\)$", printed, re.MULTILINE)

    def test_numbered_in_the_order_of_their_start(self):
        session = self.start("""\
            import threading
            event = threading.Event()
            threads = [threading.Thread(target=event.wait, name="T%d" % n) for n in range(12)]
            for each in threads: each.start()
            here = 1
            event.set()
            """, "break 5", "continue")
        names = [row.split()[-2] for row in session.do("info threads").splitlines()[2:]]
        self.assertEqual(names, ["T%d" % n for n in range(12)])
        session.do("continue")
        session.end("quit")

    def test_post_mortem(self):
        """The thread that raised is shown where it did, and not in the debugger's own frames."""
        child = self.run_commands(ENDLESS_WORKER + """\
threading.Thread(target=work, name="W", daemon=True).start()
def fail():
    1 / 0
fail()
""", "continue", "threads", "thread 2", "thread 1", "quit")
        rows = [line for line in child.stdout.splitlines() if re.match(r"(\(Pdb\) )?[> ] \d", line)]
        self.assertEqual(len(rows), 2, child.stdout + child.stderr)
        self.assertRegex(rows[0], r"> 1   at the prompt  MainThread +\S*program\.py\(7\)fail\(\)$")
        self.assertRegex(rows[1], r"  2   \w+ +W ")
        self.assertRegex(child.stdout, r"\(Pdb\) > \S*program\.py\(7\)fail\(\)\n-> 1 / 0\n\(Pdb\) $")


class WhereTest(TerminalTestCase):

    PROGRAM = """\
        import threading
        def function():
            breakpoint()
            number = 1
            return number
        function()
        thread = threading.Thread(target=function)
        thread.start()
        thread.join()
        1 / 0                                    # fail
        """

    def names(self, shown):
        return [re.sub(r".*/|\(\d+\)", "", line[2:]) for line in shown.splitlines() if line.endswith(")") and line[2:3] in "/<"]

    def test_it_shows_the_program_alone(self):
        """Not what runs it, at whatever it stops."""
        session = self.start(self.PROGRAM, "break 5")
        self.assertEqual(self.names(session.do("where")), ["program.py<module>()"])
        for _ in range(2):
            session.do("continue")
            self.assertEqual(self.names(session.do("where")), ["program.py<module>()", "program.pyfunction()"])
        self.assertIn("<module>()", session.do("up"))
        self.assertEqual(session.do("up"), "*** Oldest frame\n")
        self.assertEqual(self.names(session.do_until("continue", "function()") and session.do("where")),
                         ["threading.py_bootstrap()", "threading.py_bootstrap_inner()", "threading.pyrun()", "program.pyfunction()"])
        died = session.do_until("continue", "post mortem")
        self.assertEqual(re.findall(r'  File "(?:.*/)?(.*)", line', died), ["program.py"])
        self.assertEqual(self.names(session.do("where")), ["program.py<module>()"])
        self.assertEqual(session.do("up"), "*** Oldest frame\n")
        session.end("quit")


class NamesTest(TerminalTestCase):

    def test_variables_and_commands_of_one_name(self):
        """A bare name that is no command by itself is the variable; else a line says which it is."""
        child = self.run_commands("""\
            threads, thread, info = ["my threads"], "my thread", {"my": "info"}
            def function():
                dprintf = "my dprintf"
                return dprintf
            function()
            """, "threads", "break 4", "continue", "threads", "thread", "info", "dprintf", "info threads", "thread 1",
            "threads[0]", "threads = 5", "!threads", "quit")
        self.assertQuiet(child)
        answers = child.stdout.split("(Pdb) ")
        self.assertTrue(answers[1].startswith("  Num State"), answers[1])
        self.assertTrue(answers[4].startswith("(the command; the program's variable is !threads)\n  Num State"), answers[4])
        self.assertEqual(answers[5:8], ["'my thread'\n", "{'my': 'info'}\n", "'my dprintf'\n"])
        self.assertTrue(answers[8].startswith("  Num State"), answers[8])
        self.assertEqual(answers[10:13], ["'my threads'\n", "", "5\n"])


class CommandLineOptionsTest(TerminalTestCase):

    def test_help(self):
        for option in "--help", "-h":
            child = run_child("-m", "brixdebug", "-c", "p 1", option)
            self.assertEqual((child.returncode, child.stderr), (0, ""))
            self.assertTrue(child.stdout.startswith("usage: brixdebug [OPTION]... SCRIPT"), child.stdout)
            for text in "--log FILE", "--log-domains", "-c, --command", "-m MODULE", "internal_failures", "--version":
                self.assertIn(text, child.stdout)
            self.assertNotIn("pyfile", child.stdout)

    def test_version(self):
        child = run_child("-m", "brixdebug", "--version")
        self.assertEqual((child.returncode, child.stderr), (0, ""))
        self.assertRegex(child.stdout, r"^brixdebug \d+\.\d+\.\d+ on Python %s\n$" % re.escape(sys.version.split()[0]))

    def test_options_of_the_program_are_its_own(self):
        self.write("import sys\nprint(sys.argv[1:])\n")
        for arguments in [self.program], ["-c", "next", self.program]:
            child = run_session("-m", "brixdebug", *arguments, "--help", "--version", commands=["continue", "quit"],
                                cwd=self.folder)
            self.assertIn("['--help', '--version']\n", child.stdout)


class LineTest(TerminalTestCase):
    """With a terminal: completion and colours."""

    PROGRAM = """\
        def function(number):
            total_of_it = number + 1             # here
            return total_of_it
        function(41)
        """

    def complete(self, session, text):
        """What the line has become after TAB, as its value shows."""
        os.write(session._in, text.encode() + b"\t\n")
        return session.prompt()

    @needs_readline
    def test_completion(self):
        session = self.start(self.PROGRAM, "break 3", "continue", terminal=True, TERM="xterm", PYTHON_BASIC_REPL="1")
        self.assertIn("42\n", self.complete(session, "p total_o"))
        self.assertIn("42\n", self.complete(session, "total_o"))
        self.assertIn("Num", self.complete(session, "info thr"))
        session.end("quit")

    @needs_readline
    def test_completion_inside_expressions(self):
        session = self.start(self.PROGRAM, "break 3", "continue", terminal=True, TERM="xterm", PYTHON_BASIC_REPL="1")
        session.do("table = {'key': [total_of_it, 2]}")
        for typed, shown in {
                "p 1 + total_o": "43\n", "p -1-total_o": "-43\n", "!total_o": "42\n", "total_o": "42\n",
                "whatis total_o": "<class 'int'>\n", "p [each for each in tabl": "['key']",
                "p table['key'].inde": "<built-in method index of list object",
                "p table['key'][0].bit_l": "<built-in method bit_length of int object",
                "p function(1).bit_l": "AttributeError: 'int' object has no attribute 'bit_l'"}.items():
            with self.subTest(typed):
                closing = "]" if " for " in typed else ""
                os.write(session._in, typed.encode() + b"\t" + closing.encode() + b"\n")
                self.assertIn(shown, session.prompt())
        session.end("quit")

    @needs_readline
    def test_completion_of_arguments(self):
        session = self.start(self.PROGRAM, "break 3", "continue", terminal=True, TERM="xterm", PYTHON_BASIC_REPL="1")
        session.do("class ProgramError(Exception): pass")
        for typed, command, shown in [
                ("set follow-fork o\tn", "set follow-fork", "it is on"),
                ("set hold\t of\t", "set hold-others", "it is off"),
                ("set just-\t on", "set just-my-code", "it is on"),
                ("catch off", "catch", "catch off"),
                ("catch unc\t", "catch", "catch uncaught\n"),
                ("catch rai\t ZeroDiv\t i\t numb\t", "catch", "catch raised ZeroDivisionError if number"),
                ("catch ProgramE\t", "catch", "catch raised ProgramError"),
                ("condition 1 total_o\t", "break", "stop only if total_of_it"),
                ("hits 1 =\t 3", "break", "stop only at hits == 3"),
                ("watch total_o\t if numb\t", "info wat\t", "total_of_it\n\tstop only if number"),
                ("unwatch 2\t", "info watches", "No watches."),
                ("thread 1\t", "threads", "> 1"),
                ("dprintf functi\t, a text", "break", "at "),
                ]:
            with self.subTest(typed):
                session.do(typed)
                self.assertIn(shown, session.do(command))
        session.end("quit")

    def test_settings_that_are_not(self):
        session = self.start(self.PROGRAM)
        known = "*** set follow-fork, set hold-others, set just-my-code is what there is\n"
        for command, shown in {
                "set fol on": known, "set follow": known,
                "set": "set follow-fork off\nset hold-others on\nset just-my-code off\n",
                "set([1])": "{1}\n", "set is not None": "True\n", "set if 1 else 2": "<class 'set'>\n"}.items():
            with self.subTest(command):
                self.assertEqual(session.do(command), shown)
        session.end("quit")

    def test_colors(self):
        session = self.start(self.PROGRAM, terminal=True, NO_COLOR="", TERM="xterm", PYTHON_BASIC_REPL="1")
        self.assertIn("\x1b[", session.do("next"))
        listed = session.do("list")
        self.assertIn("\x1b[", listed)
        self.assertIn("  2  \t    total_of_it = number + 1             # here\n", re.sub(r"\x1b\[[\d;]*m", "", listed))
        session.end("quit")

    def test_no_colors_where_they_are_not_wanted(self):
        for environment in {"NO_COLOR": "1", "TERM": "xterm"}, {"NO_COLOR": "", "TERM": "dumb"}:
            with self.subTest(environment):
                session = self.start(self.PROGRAM, terminal=True, PYTHON_BASIC_REPL="1", **environment)
                self.assertNotIn("\x1b[3", session.do("list"))
                session.end("quit")
        self.assertNotIn("\x1b[", self.run_commands(self.PROGRAM, "list", "quit").stdout)


class ReplacedOutputTest(TerminalTestCase):
    """The program has put something of its own in the place of `sys.stdout`: the prompt does not go through it."""

    PROGRAM = """\
        import sys, threading
        lock, begun, done, written = threading.Lock(), threading.Event(), [], []
        class Output:
            def write(self, text):
                with lock:
                    written.append(text)
            def flush(self):
                pass
        def work():
            begun.wait()
            value = 7
            done.append(value)                   # worker
        standard, sys.stdout = sys.stdout, Output()
        thread = threading.Thread(target=work)
        thread.start()
        with lock:
            begun.set()
            while not done:
                pass
        thread.join()
        print("end")
        sys.stdout = standard
        print(written)
        """

    def test_it_needs_a_lock_of_a_held_thread(self):
        for terminal in False, True:
            with self.subTest(terminal=terminal):
                session = self.start(self.PROGRAM, "break 12", terminal=terminal)
                self.assertIn("> %s(12)work()" % self.program, session.do("continue"))
                self.assertEqual(session.do("p value"), "7\n")
                session.do_until("threads", "held")
                self.assertIn("['end', '\\n']\n", session.do("continue"))
                self.assertEqual(session.end("quit")[1], 0)

    def test_it_is_none(self):
        session = self.start("import sys\nstandard, sys.stdout = sys.stdout, None\nn = 7\nsys.stdout = standard\n",
                             "break 3", "continue")
        self.assertEqual(session.do("p n if False else 8"), "8\n")
        session.do("next")
        self.assertEqual(session.do("p n"), "7\n")
        session.do("continue")
        self.assertEqual(session.end("quit")[1], 0)


class WarningsTest(TerminalTestCase):

    def test_they_name_the_users_line(self):
        self.write("""\
            def main():
                file = open("/dev/null")
                file = 1
                file = 2
                file = 3
            main()
            """)
        for commands in ["step", "step"] + ["next"] * 6, ["break 4", "continue", "next", "next", "next"]:
            with self.subTest(commands):
                child = run_session("-W", "always", "-m", "brixdebug", self.program, commands=commands + ["quit"],
                                    cwd=self.folder)
                self.assertIn("program.py:3: ResourceWarning: unclosed file", child.stderr)

    @unittest.skipUnless(sys.version_info < (3, 13), "from 3.13 on a variable can be deleted")
    def test_a_deleted_variable(self):
        self.write("""\
            def function():
                deleted = 1
                print("next")
                return deleted
            print(function())
            """)
        for command in "del deleted", "!del deleted":
            child = run_session("-W", "always", "-m", "brixdebug", self.program, cwd=self.folder,
                                commands=["break 3", "continue", command, "continue", "quit"])
            self.assertIn("program.py:3: RuntimeWarning: assigning None to unbound local 'deleted'\n", child.stderr)
            self.assertNotIn("compat.py", child.stderr)
            self.assertIn("next\nNone\n", child.stdout)
        child = run_session("-W", "error", "-m", "brixdebug", self.program, cwd=self.folder,
                            commands=["break 3", "continue", "del deleted", "continue", "quit"])
        self.assertEqual(child.stderr, "")
        self.assertIn("next\nNone\n", child.stdout)


if __name__ == "__main__":
    unittest.main()
