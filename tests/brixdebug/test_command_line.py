"""The command line and the functions that start a session: what `pdb` does and says, `brixdebug` does and says.

Sessions run twice, under `python -m pdb` and under `python -m brixdebug`; what they print, with the one name in place
of the other, and their exit statuses have to be the same.
"""

import os
import re
import subprocess
import sys
import termios
import unittest

from host_support import child_environment, run_child, scratch_folder
from session import PROMPT, Session, line_of, run_session, without_addresses, write_program


class CommandLineTestCase(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text, name="program.py"):
        self.program = write_program(self.folder, text, name)
        return self.program

    def outcome(self, module, *arguments, commands=(), **environment):
        child = run_session(*(each.replace("MODULE", module) if isinstance(each, str) else each for each in arguments),
                            commands=commands, cwd=self.folder, **environment)
        return (child.returncode, self.same_words(child.stdout), self.same_words(child.stderr))

    @staticmethod
    def same_words(text):
        text = re.sub(r"\d{12,}", "N", without_addresses(text.replace("brixdebug", "pdb")))
        # With pdb a stack begins with its own frames, and what it runs a script by.
        text = re.sub(r"  (\S*/(b|p)db\.py|<frozen runpy>)\(\d+\)\w+\(\)\n(->.*\n)?", "", text)
        text = re.sub(r"  <string>\(1\)<module>\(\)(->None)?\n", "", text)
        # Its tracebacks show them too, and other versions of the debuggers' own files.
        text = re.sub(r'(  File "[^"]*(pdb|bdb|runpy|cmd)[^"]*", line .*\n(    .*\n)*)+', "  OWN FRAMES\n", text)
        return re.sub(r'  OWN FRAMES\n  File "<string>", line 1, in <module>\n', "", text)

    def assertSame(self, *arguments, commands=(), **environment):
        """The outcome, which is the same under both; arguments after `-m MODULE`."""
        return self.assertSameProgram("-m", "MODULE", *arguments, commands=commands, **environment)

    def assertSameProgram(self, *arguments, commands=(), **environment):
        stock = self.outcome("pdb", *arguments, commands=commands, **environment)
        ours = self.outcome("brixdebug", *arguments, commands=commands, **environment)
        self.assertEqual(ours, stock)
        return ours


PROGRAM = """\
    import sys
    def function(n):
        # no code here
        total = n + 1
        return total

    print(sys.argv[1:], __name__)
    result = function(1)
    print(result)
    """


class ArgumentsTest(CommandLineTestCase):

    def test_script_with_arguments(self):
        self.write(PROGRAM)
        status, stdout, _ = self.assertSame(self.program, "a", "b", commands=["continue", "quit"])
        self.assertIn("['a', 'b'] __main__\n2\nThe program finished and will be restarted\n", stdout)
        self.assertEqual(status, 0)

    def test_options_of_the_program(self):
        """They are the program's, on 3.13 too, whose pdb refuses them; a module's like a script's."""
        self.write(PROGRAM)
        for arguments in ["-a", "b"], ["one", "--two=3", "-4"], ["-mx", "-v"], ["run", "--", "-x"], ["-h"], \
                ["a", "--help", "-c", "x", "-p", "1"]:
            for before in [str(self.program)], ["-c", "p 1", str(self.program)], ["-m", "program"]:
                with self.subTest(arguments=arguments, before=before):
                    child = run_session("-m", "brixdebug", *before, *arguments, commands=["continue", "quit"], cwd=self.folder)
                    self.assertIn("%s __main__\n2\n" % arguments, child.stdout, child.stderr)
                    self.assertEqual(child.returncode, 0)

    def test_commands(self):
        self.write(PROGRAM)
        for arguments in (["-c", "break 5", "-c", "continue", "-c", "p total", "-c", "quit"],
                          ["--command", "until 8", "--command=p 5", "-c", "quit"], ["-cquit"]):
            with self.subTest(arguments):
                self.assertSame(*arguments, self.program, "x")

    def test_module(self):
        self.write(PROGRAM)
        (self.folder / "package").mkdir()
        write_program(self.folder / "package", "", "__init__.py")
        write_program(self.folder / "package", "print('package')\n", "__main__.py")
        for arguments in (["-m", "program", "arg"], ["-c", "break 5", "-c", "c", "-m", "program"],
                          ["-m", "package"], ["-m", "no_such_module"], ["-m", "package.no_such"], ["-m"]):
            with self.subTest(arguments):
                self.assertSame(*arguments, commands=["continue", "where", "continue", "quit"])

    def test_module_of_the_current_folder_with_the_installed_command(self):
        """The command is a script in a folder of its own: `-m` finds what `python -m` does."""
        self.write("import sys\nprint(sys.path[0])\n")
        (self.folder / "bin").mkdir()
        command = write_program(self.folder / "bin", "import brixdebug\nbrixdebug.main()\n", "brixdebug")
        found = run_session(command, "-m", "program", commands=["continue", "quit"], cwd=self.folder)
        self.assertEqual((found.returncode, found.stderr), (0, ""))
        self.assertIn(PROMPT + str(self.folder) + "\n", found.stdout)
        safe = run_session("-P", command, "-m", "program", commands=["continue", "quit"], cwd=self.folder)
        self.assertEqual((safe.returncode, safe.stdout), (1, "ImportError: No module named program\n"))

    def test_wrong_command_lines(self):
        self.write(PROGRAM)
        for arguments in ([], ["no_such_script.py"], ["."], ["--no-such-option", self.program], ["-c"]):
            with self.subTest(arguments):
                stock = self.outcome("pdb", "-m", "MODULE", *arguments)
                ours = self.outcome("brixdebug", "-m", "MODULE", *arguments)
                # From 3.14 on the message begins with how the program was called, and pdb has its own name there.
                self.assertEqual(ours[0], stock[0])
                self.assertEqual(self.last_lines(ours), self.last_lines(stock))

    def last_lines(self, outcome):
        return [re.sub(r"^(usage: )?\S*(python[\d.]* -m )?pdb(\.py)?:? ", "", text.strip().split("\n")[-1])
                for text in outcome[1:]]

    def test_help(self):
        status, stdout, _ = self.outcome("brixdebug", "-m", "MODULE", "--help")
        self.assertEqual(status, 0)
        self.assertIn("-m", stdout)

    def test_own_files_are_refused(self):
        """They never stop: a session on them would restart for ever."""
        import bdb
        for arguments in ["-m", "pdb"], ["-m", "brixdebug"], ["-m", "bdb"], [bdb.__file__], ["-m", "pdb", "x.py"]:
            with self.subTest(arguments):
                child = run_session("-m", "brixdebug", *arguments, commands=["continue"] * 3, cwd=self.folder)
                self.assertEqual((child.returncode, child.stderr), (2, ""), child.stdout)
                self.assertRegex(child.stdout, r"^\*\*\* Cannot debug \S+: it is the debugger's own code\n$")

    def test_older_interpreters_and_a_missing_module_are_told_of(self):
        environment = child_environment()
        paths = environment["PYTHONPATH"].split(os.pathsep)
        child = subprocess.run([sys.executable, "-c", "import brixdebug"], capture_output=True, text=True,
                               env=dict(environment, PYTHONPATH=os.pathsep.join(paths[1:])))
        self.assertIn("ImportError: brixdebug needs the module optmonitoring (the file optmonitoring.so); "
                      "put the folder that holds it on PYTHONPATH", child.stderr)


class SessionTest(CommandLineTestCase):

    def test_breakpoints_that_cannot_be(self):
        self.write(PROGRAM)
        os.symlink("/no/such/file", self.folder / "broken.py")
        (self.folder / "folder.py").mkdir()
        for commands in (
                ["break 3", "break 6", "break 99", "break no_such.py:1", "break broken.py:1", "break folder.py:1"],
                ["break no_such_function", "break function.no", "break 5, 1 +", "tbreak 3", "clear 9", "clear program.py:3"],
                ["disable 4", "ignore x", "condition 7 a", "break program.py:x", "until 1", "jump 99", "commands 5"]):
            with self.subTest(commands):
                self.assertSame(self.program, commands=commands + ["break", "continue", "quit"])

    def test_session_of_everyday_commands(self):
        self.write(PROGRAM)
        self.assertSame(self.program, commands=[
            "break function", "break program.py:9, result > 1", "tbreak 8", "break", "continue", "step", "step", "args",
            "where", "up", "down", "list", "list 1, 3", "longlist", "source function", "whatis n", "p n", "pp locals()['n']",
            "!n = 5", "display n", "next", "p total", "return", "next", "retval", "undisplay", "continue", "p result",
            "commands 2", "p result * 2", "end", "clear 1", "y", "interact_no", "alias pn p n", "pn", "unalias pn",
            "restart a b", "continue", "quit"])

    def test_assignment_reaches_the_program(self):
        self.write("""\
            def function(n):
                m = 1
                def inner():
                    return n
                return n, m, inner()
            print(function(1))
            """)
        _, stdout, _ = self.assertSame(self.program, commands=[
            "break 5", "continue", "!n = 8", "!m = 9", "p n, m", "step", "where", "continue", "quit"])
        self.assertIn("(8, 9, 8)", stdout)

    def test_empty_line_repeats(self):
        self.write(PROGRAM)
        self.assertSame(self.program, commands=["next", "", "", "p 1", "", "quit"])

    def test_source_changed_after_it_was_loaded(self):
        self.write("""\
            import os, time
            def change():
                with open(__file__, "a") as file:
                    file.write("# changed\\n")
                os.utime(__file__, (1, 1))
            change()
            here = 1
            here = 2
            """)
        text = self.program.read_text()
        outcomes = []
        for module in "pdb", "brixdebug":
            self.program.write_text(text)
            outcomes.append(self.outcome(module, "-m", "MODULE", self.program,
                                         commands=["next"] * 4 + ["list", "next", "quit"]))
        self.assertEqual(outcomes[1], outcomes[0])
        if sys.version_info >= (3, 13):
            self.assertIn("was edited", outcomes[1][1])

    def test_file_that_cannot_be_read(self):
        """The code is there, its text is not."""
        self.write("""\
            import os, gone
            os.remove(gone.__file__)
            gone.function()
            """)
        outcomes = []
        for module in "pdb", "brixdebug":
            write_program(self.folder, "def function():\n    here = 1\n    return here\n", "gone.py")
            outcomes.append(self.outcome(module, "-m", "MODULE", self.program, commands=[
                "next", "next", "break gone.py:3", "break gone.function", "step", "list", "longlist", "step", "p here", "break",
                "next", "where", "return", "quit"]))
        self.assertEqual(outcomes[1], outcomes[0])

    def test_ends_of_the_program(self):
        for text in ("import sys; sys.exit(5)", "raise SystemExit", "1 / 0", "x = (", "import no_such_module",
                     "raise KeyboardInterrupt", "import sys; sys.exit('bye')", "pass", "\x00", "# coding: no-such\npass"):
            with self.subTest(text):
                self.write(text)
                self.assertSame(self.program, commands=["continue", "continue", "quit"])

    def test_end_of_input(self):
        self.write(PROGRAM)
        for commands in [], ["next"], ["continue"], ["break 5", "continue"]:
            with self.subTest(commands):
                self.assertSame(self.program, commands=commands)

    def test_post_mortem_of_the_command_line(self):
        self.write("""\
            def function(n):
                return 1 / n
            function(0)
            """)
        commands = ["continue", "where", "p n", "up", "next", "continue", "quit"]
        if sys.version_info >= (3, 13):
            self.assertSame(self.program, commands=commands)
            return
        # pdb of 3.12 runs the program once more after that quit.
        ours, stock = [self.outcome(module, "-m", "MODULE", self.program, commands=commands) for module in ("brixdebug", "pdb")]
        self.assertEqual(ours[1], stock[1].rpartition("Post mortem debugger finished.")[0])
        self.assertEqual(ours[2], stock[2])

    def test_recursive_debugger(self):
        self.write(PROGRAM)
        self.assertSame(self.program, commands=["next", "next", "debug function(7)", "step", "step", "step", "p n", "continue",
                                                "p 1", "debug 1 +", "continue", "quit"])

    def test_exceptions_at_the_prompt(self):
        self.write(PROGRAM)
        self.assertSame(self.program, commands=["1 / 0", "p x", "!import no_such", "raise SystemExit(3)",
                                                "raise KeyboardInterrupt", "next", "quit"])


class FunctionsTest(CommandLineTestCase):
    """What a program calls."""

    def check(self, text, *commands, **environment):
        self.write(text)
        outcomes = []
        for module in "pdb", "brixdebug":
            self.write(text.replace("MODULE", module))
            outcomes.append(self.outcome(module, self.program, commands=commands, **environment))
        self.assertEqual(*reversed(outcomes))
        return outcomes[1]

    def test_set_trace(self):
        text = """\
            import MODULE, threading
            def function(n):
                MODULE.set_trace()
                return n
            print(function(1))
            print("end")
            """
        for commands in (["continue"], ["next", "next", "next", "continue"], ["quit"], [], ["step"] * 12,
                         ["where", "up", "p n", "return", "next", "continue"], ["break 6", "continue", "continue"]):
            with self.subTest(commands):
                self.check(text, *commands)

    def test_set_trace_twice(self):
        self.check("""\
            import MODULE
            for n in range(3):
                MODULE.set_trace()
                here = n
            print("end")
            """, "p n", "continue", "p n", "break 4", "continue", "p n", "continue", "clear 1", "continue")

    def test_breakpoint_function(self):
        text = """\
            def function(n):
                breakpoint()
                return n
            print(function(1))
            """
        self.write(text)
        outcomes = [self.outcome(module, self.program, commands=["p n", "next", "continue"],
                                 PYTHONBREAKPOINT=module + ".set_trace") for module in ("pdb", "brixdebug")]
        self.assertEqual(outcomes[1], outcomes[0])
        self.assertIn("function()", outcomes[1][1])
        child = run_session(self.program, commands=["p __import__('sys').modules.get('brixdebug')", "continue"],
                            PYTHONBREAKPOINT="brixdebug.set_trace")
        self.assertIn("<module 'brixdebug'", child.stdout)

    def test_post_mortem(self):
        self.check("""\
            import MODULE, sys
            def function(n):
                return 1 / n
            try:
                function(0)
            except ZeroDivisionError as error:
                MODULE.post_mortem(error.__traceback__)
                sys.last_value = sys.last_exc = error
                sys.last_traceback = error.__traceback__
            MODULE.pm()
            try:
                MODULE.post_mortem()
            except ValueError as error:
                print(error)
            print(sys.monitoring.get_tool(0), sys.monitoring.get_tool(4))
            """, "p n", "where", "up", "quit", "p n", "quit")

    def test_run_runeval_runcall(self):
        self.check("""\
            import MODULE
            def function(n):
                total = n + 1
                return total
            scope = {"function": function}
            MODULE.run("x = function(1)", scope)
            print(scope["x"])
            print(MODULE.runeval("function(2)", scope))
            print(MODULE.runcall(function, 3))
            MODULE.runctx("y = function(4)", scope, scope)
            print(scope["y"])
            """, "step", "step", "p n", "next", "next", "continue", "next", "continue", "next", "next", "continue", "continue")

    def test_quit_in_run(self):
        self.check("""\
            import MODULE
            print(MODULE.runeval("1 + 1"))
            try:
                print(MODULE.runcall(lambda: 5))
            except BaseException as error:
                print(type(error))
            print("end")
            """, "quit", "quit")


class TerminalTest(CommandLineTestCase):
    """With a terminal, where Ctrl-C is a real signal."""

    def start(self, text):
        self.write(text)
        return Session(self, "-m", "brixdebug", self.program, terminal=True)

    LOOP = """\
        import time
        def loop():
            while go:
                print("running", flush=True)
                time.sleep(0.001)
            return 1
        go = True
        loop()
        print("end")
        """

    def test_interrupt_while_running(self):
        session = self.start(self.LOOP)
        session.prompt()
        for _ in range(3):
            session.send("continue")
            session.wait_for("running")
            session.interrupt()
            self.assertIn("Program interrupted. (Use 'cont' to resume).", session.prompt())
            self.assertRegex(session.do("where"), r"loop\(\)")
            self.assertIn("True", session.do("p go"))
        session.do("!globals().update(go=False)")
        self.assertIn("end", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)

    def test_interrupt_in_a_loop_that_evaluates_a_condition(self):
        """Most of the time the program is in the debugger's own code."""
        session = self.start("""\
            def loop():
                n = 0
                while go:
                    n += 1                       # line
                    if n % 100 == 1: print("running", flush=True)
                return "left"
            go = True
            print(loop())
            """)
        session.prompt()
        session.do("break 4, n < 0")
        for _ in range(5):
            session.send("continue")
            session.wait_for("running")
            session.interrupt()
            printed = session.prompt()
            self.assertIn("Program interrupted. (Use 'cont' to resume).", printed)
            self.assertIn("loop()", printed)
        session.do("!globals().update(go=False)")
        self.assertIn("left", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)

    def test_interrupt_at_the_prompt(self):
        session = self.start(self.LOOP)
        session.prompt()
        session.interrupt_at_prompt()
        self.assertIn("--KeyboardInterrupt--", session.prompt())
        session.send("while True: print('run' + 'ning', flush=True)")
        session.wait_for("running")
        session.interrupt()
        self.assertRegex(session.prompt(), "KeyboardInterrupt")
        self.assertIn("7", session.do("p 7"))
        session.end("quit")

    def test_interrupt_at_the_prompt_of_another_thread(self):
        """It is not the main thread that the user means, and this one does not die of it."""
        session = self.start("""\
            import threading
            def other():
                here = 1                         # other
                return here
            thread = threading.Thread(target=other)
            thread.start()
            thread.join()
            print("end")
            """)
        session.prompt()
        session.do("break 3")
        self.assertIn("other()", session.do("continue"))
        for _ in range(3):
            session.interrupt_sleeping()
        self.assertIn("7", session.do("p 7"))
        self.assertIn("end", session.do("continue"))
        session.end("quit")

    def test_interrupt_while_another_thread_runs(self):
        """The main thread stops; at the prompt the other is held."""
        session = self.start("""\
            import threading, time
            go, rounds = True, 0
            def count():
                global rounds
                while go:
                    rounds += 1
            thread = threading.Thread(target=count)
            thread.start()
            print("running", flush=True)
            while go:
                time.sleep(0.001)
            thread.join()
            print("end")
            """)
        session.prompt()
        session.send("continue")
        session.wait_for("running")
        session.interrupt()
        session.prompt()
        session.do_until("threads", " held ")
        before = session.do("p rounds")
        self.assertEqual(session.do("p rounds"), before)
        session.do("!globals().update(go=False)")
        self.assertIn("end", session.do("continue"))
        session.end("quit")

    def test_the_terminal_is_left_as_it_was(self):
        for commands in (["quit"], ["continue", "quit"], ["p 5", "\x04"]):
            with self.subTest(commands):
                session = self.start("print('end')\n")
                terminal = os.open(session.terminal_name, os.O_RDWR | os.O_NOCTTY)
                self.addCleanup(os.close, terminal)
                before = self.modes(terminal)
                session.prompt()
                for command in commands[:-1]:
                    session.do(command)
                os.write(session._in, commands[-1].encode() + (b"" if commands[-1] == "\x04" else b"\n"))
                session.process.wait(60)
                self.assertEqual(self.modes(terminal), before)

    @staticmethod
    def modes(terminal):
        return termios.tcgetattr(terminal)


class LogTest(CommandLineTestCase):

    def log_of(self, *arguments, commands=("continue", "quit")):
        log = self.folder / "brix.log"
        log.unlink(missing_ok=True)
        child = run_session("-m", "brixdebug", *(str(each).replace("LOG", str(log)) for each in arguments),
                            commands=commands, cwd=self.folder)
        self.assertEqual((child.returncode, child.stderr), (0, ""), child.stdout)
        return log.read_text()

    def test_forms_of_the_options(self):
        self.write(PROGRAM)
        for options in (["--log", "LOG"], ["--log=LOG"], ["--log", "LOG", "--log-domains", "all"],
                        ["--log-domains=core,breakpoints", "--log=LOG"], ["-c", "p 1", "--log", "LOG", "-c", "p 2"]):
            with self.subTest(options):
                self.log_of(*options, self.program, commands=["break 5", "continue", "continue", "quit"])
                self.assertTrue((self.folder / "brix.log").exists())
        self.assertIn("[] __main__", self.outcome("brixdebug", "-m", "MODULE", "--log=/dev/null", self.program,
                                                  commands=["continue"])[1])

    def test_options_of_the_program_are_its_own(self):
        self.write(PROGRAM)
        for arguments in ([self.program, "--log", "x"], [self.program, "a", "--log=x", "--log-domains", "y"],
                          ["-m", "program", "--log", "x"], ["-c", "next", "-m", "program", "--log", "x"]):
            with self.subTest(arguments):
                # 3.13's first pdb refuses a program with options that it does not know itself.
                status, printed, errors = self.outcome("brixdebug", "-m", "MODULE", *arguments, commands=["continue", "quit"])
                own = arguments[arguments.index("program") + 1:] if "program" in arguments else arguments[1:]
                self.assertIn("%s __main__\n" % own, printed)
                self.assertEqual((status, errors), (0, ""))
                self.assertFalse((self.folder / "x").exists())

    def test_errors(self):
        self.write(PROGRAM)
        known = "other, filenames, core, breakpoints, exceptions, io, internal_failures, threading, initial, second, all"
        for options, message in (
                (["--log-domains", "core", self.program], "--log-domains goes with --log FILE"),
                (["--log", "x", "--log-domains", "core,nonsense,more", self.program],
                 "unknown log domain 'nonsense', 'more'; known: " + known),
                (["--log"], "--log needs a value"),
                (["--log", "x", "--log-domains"], "--log-domains needs a value"),
                (["--log", "/no/such/folder/x", self.program], "[Errno 2] No such file or directory: '/no/such/folder/x'")):
            with self.subTest(options):
                child = run_session("-m", "brixdebug", *options, cwd=self.folder)
                self.assertEqual((child.returncode, child.stdout, child.stderr),
                                 (1, "", "brixdebug: error: %s\n" % message))

    def test_the_program_prints_what_it_would(self):
        self.write(PROGRAM)
        commands = ["break 5, n == 1", "break 4", "continue", "step", "continue", "continue", "quit"]
        without = self.outcome("brixdebug", "-m", "MODULE", self.program, commands=commands)
        self.assertEqual(self.outcome("brixdebug", "-m", "MODULE", "--log", "brix.log", "--log-domains", "all", self.program,
                                      commands=commands), without)
        self.assertGreater((self.folder / "brix.log").stat().st_size, 10000)

    def test_why_a_breakpoint_was_hit_or_not(self):
        write_program(self.folder, "def never():\n    return 1\n", "other.py")
        self.write("""\
            def function(n):
                return n                         # line
            def unused():
                return 2                         # unused
            for n in range(3): function(n)
            for n in range(3): function(5)
            """)
        log = self.log_of("--log", "LOG", "--log-domains", "breakpoints", self.program, commands=[
            "break 2, n == 1", "break 4", "break other.py:2", "break %s:400" % "program.py",
            "continue", "disable 1", "break 2", "ignore 4 2", "break 2, 1 / 0", "ignore 5 2", "continue", "condition 5",
            "break bdb:Bdb.reset", "continue", "quit"])
        place = "%s:2 reached in function()" % self.program
        for text in ("lines to stop at in function() of %s:1: 2\n" % self.program,
                     "no code that ran so far is on line 4 of %s\n" % self.program,
                     "no code that ran so far is on line 2 of %s\n" % (self.folder / "other.py"),
                     "breakpoint 1 at %s: its condition is false\n" % place,
                     "breakpoint 1 at %s: stop\n" % place,
                     "breakpoint 1 at %s: it is disabled\n" % place,
                     "breakpoint 4 at %s: ignored, 1 to go\n" % place,
                     "breakpoint 4 at %s: ignored, 0 to go\n" % place,
                     "breakpoint 5 at %s: stop; its condition raised\n" % place):
            with self.subTest(text):
                self.assertIn(text, log)
        self.assertNotIn("lines to stop at in unused()", log)

    def test_internal_code_and_own_threads(self):
        self.write("""\
            import bdb, _thread
            from brixdebug.monitor import monitor
            done = _thread.allocate_lock()
            def own():
                monitor.suspension.adopt_thread()
                done.release()
            done.acquire()
            _thread.start_new_thread(own, ())
            done.acquire()
            bdb.Breakpoint.clearBreakpoints
            """)
        import bdb
        line = bdb.Bdb.reset.__code__.co_firstlineno + 3
        log = self.log_of("--log", "LOG", "--log-domains", "breakpoints", self.program, commands=[
            "import bdb", "break bdb.Bdb.trace_dispatch", "continue", "quit"])
        self.assertRegex(log, r"Bdb\.trace_dispatch\(\) of \S*bdb\.py:\d+ is the debugger's own code: no breakpoint holds there\n")
        self.assertRegex(log, r"\nthread \d+ is the debugger's own: no breakpoint holds there\n")

    def test_function_breakpoint(self):
        self.write("""\
            def function(n):
                first = n
                return first
            function(1), function(2)
            """)
        log = self.log_of("--log", "LOG", "--log-domains", "breakpoints", self.program,
                          commands=["tbreak function", "continue", "continue", "quit"])
        self.assertIn("breakpoint 1 at %s:2 reached in function(): stop\n" % self.program, log)


if __name__ == "__main__":
    unittest.main()
