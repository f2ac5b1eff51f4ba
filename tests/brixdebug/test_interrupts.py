"""Ctrl-C: wherever the program is, it stops there, and nothing of what it prints is lost.

The sessions have a terminal, where Ctrl-C is a real signal, and streams that are buffered as usual.
"""

import re
import sys
import unittest

from host_support import scratch_folder
from session import Session, line_of, write_program

INTERRUPTED = "Program interrupted. (Use 'cont' to resume)."


class InterruptTestCase(unittest.TestCase):

    maxDiff = None

    def start(self, text, *commands, terminal=True):
        self.folder = scratch_folder(self)
        self.program = write_program(self.folder, text)
        session = Session(self, "-m", "brixdebug", self.program, cwd=self.folder, terminal=terminal, PYTHONUNBUFFERED="")
        session.prompt()
        for command in commands:
            session.do(command)
        return session

    def assertInterrupted(self, printed, function):
        """It stopped in FUNCTION of the program."""
        self.assertIn(INTERRUPTED, printed)
        self.assertNotIn("Traceback", printed)
        self.assertRegex(printed, r"> \S+\.py\(\d+\)%s\(\)" % function)

    def settle(self, session):
        """The second of two interrupts may still be on its way to the prompt, and take one line with it."""
        if "first answer" not in session.do("p 'first' + ' answer'"):
            session.send("p 'second' + ' answer'")
            while "second answer" not in session.prompt():
                pass

    def end(self, session):
        self.assertEqual(session.end("quit")[1], 0)


class PromptOfAWorkerTest(InterruptTestCase):
    """Ctrl-C at the prompt of another thread than the main one is for that prompt."""

    def test_main_thread_that_cannot_look_at_it(self):
        """It has begun to wait for a lock, in C code that no signal ends: it looks when it has the lock."""
        session = self.start("""\
            import ctypes, functools, sys, threading
            libc = ctypes.CDLL(None)
            mutex = ctypes.create_string_buffer(64)
            class Gate:
                acquire = release = locked = __exit__ = print
                __enter__ = functools.partial(libc.pthread_mutex_lock, mutex)
            Gate.__enter__()
            condition = threading.Condition(Gate)
            main = threading.get_ident()
            def work():
                while sys._current_frames()[main].f_code is not threading.Condition.__enter__.__code__:
                    pass
                here = 1                         # line
                libc.pthread_mutex_unlock(mutex)
            threading.Thread(target=work).start()
            condition.__enter__()
            print("entered")
            """, terminal=True)
        session.do("break %d" % line_of(self.program, "line"))
        self.assertIn("work()", session.do("continue"))
        session.interrupt_sleeping()
        printed = session.do("continue")
        self.assertNotIn(INTERRUPTED, printed)
        self.assertIn("entered\n", printed)
        self.assertIn("The program finished", printed)
        self.end(session)

    def test_main_thread_that_looks_at_it_as_the_prompt_ends(self):
        session = self.start("""\
            import threading
            from brixdebug.monitor import monitor
            interruption = monitor.debugger.interruption
            take_knock, go_on, begun = interruption.take_knock, threading.Event(), threading.Event()
            def look():
                interruption.take_knock = take_knock
                go_on.wait()
                return take_knock()
            def work():
                begun.wait()
                here = 1                         # line
                go_on.set()
            thread = threading.Thread(target=work)
            thread.start()
            interruption.take_knock = look
            begun.set()
            thread.join()
            def wait():
                print("joined", flush=True)
                go_on.clear()
                go_on.wait()
            wait()
            """)
        session.do("break %d" % line_of(self.program, "line"))
        self.assertIn("work()", session.do("continue"))
        session.interrupt_sleeping()
        session.send("continue")
        self.assertNotIn(INTERRUPTED, session.wait_for("joined\n"))
        session.interrupt_in_c_code()            # the next one is looked at anew
        self.assertInterrupted(session.prompt(), "wait")
        self.end(session)

    INSIDE = """\
        import threading, brixdebug
        from brixdebug.monitor import monitor
        evaluation = monitor.suspension.evaluation
        try:
            1 / 0
        except ZeroDivisionError as error:
            failed = error.__traceback__
        def come():
            raise KeyboardInterrupt
        def look(interrupt):
            real = evaluation.on_end
            def on_end():
                evaluation.on_end = real
                interrupt()
                real()
            evaluation.on_end = on_end
            brixdebug.post_mortem(failed)
        def work():
            here = 1                         # line
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
        print("joined")
        """

    def begin_inside(self):
        session = self.start(self.INSIDE)
        session.do("break %d" % line_of(self.program, "line"))
        self.assertIn("work()", session.do("continue"))
        return session

    def test_prompt_inside_an_expression(self):
        """Neither as that prompt begins nor at it: its own commands are not to be broken off."""
        session = self.begin_inside()
        self.assertIn("<module>()", session.do("look(evaluation.interrupt)"))
        session.interrupt_sleeping()
        self.assertEqual(session.do("p 'typed'"), "'typed'\n")
        session.send("all(iter(lambda: not print('run' + 'ning', flush=True), 0))")
        session.wait_for("running")
        session.interrupt()
        self.assertIn("*** KeyboardInterrupt", session.prompt())
        self.assertEqual(session.do("quit"), "")
        self.assertIn("joined\n", session.do("continue"))
        self.end(session)

    def test_prompt_inside_an_expression_that_does_not_come_to_begin(self):
        """One that still comes ends the expression, and the threads go on afterwards."""
        session = self.begin_inside()
        self.assertEqual(session.do("look(come)"), "*** KeyboardInterrupt\n")
        self.assertEqual(session.do("p 'typed'"), "'typed'\n")
        self.assertIn("joined\n", session.do("continue"))
        self.end(session)

    def test_thread_that_knocks_is_not_the_programs(self):
        session = self.start("""\
            import signal, threading
            known, knocks, knock = {threading.get_ident()}, threading.Event(), threading.Event()
            standard = signal.getsignal
            def getsignal(number):
                if threading.get_ident() not in known:
                    knocks.set()
                    knock.wait()
                return standard(number)
            def work():
                known.add(threading.get_ident())
                print("waiting", flush=True)
                knocks.wait()
                here = 1                         # line
            signal.getsignal = getsignal
            thread = threading.Thread(target=work, name="worker")
            thread.start()
            thread.join()
            """)
        session.do("break %d" % line_of(self.program, "line"))
        session.send("continue")
        session.wait_for("waiting\n")
        session.interrupt_in_c_code()
        self.assertIn("work()", session.prompt())
        listed = session.do("threads")
        self.assertEqual((listed.count("\n"), "getsignal" in listed), (3, False), listed)     # one is the title
        session.do("knock.set()")
        self.assertInterrupted(session.do("continue"), "join" if sys.version_info >= (3, 13) else "_wait_for_tstate_lock")
        self.assertIn("The program finished", session.do("continue"))
        self.end(session)


class BlockedTest(InterruptTestCase):
    """The program waits in C code: it stops there."""

    def check(self, statement, release, preparation="pass", terminal=True, function="wait"):
        """RELEASE is typed at the prompt, and lets STATEMENT end."""
        for times in 1, 2:
            with self.subTest(statement, times=times):
                session = self.start("""\
                    import os, select, sys, threading, time
                    %s
                    def wait():
                        print("waiting", flush=True)
                        %s
                        return "waited"
                    print(wait())
                    """ % (preparation, statement), terminal=terminal)
                session.send("continue")
                session.wait_for("waiting\n")
                session.interrupt_in_c_code(times)
                self.assertInterrupted(session.prompt(), function)
                self.settle(session)
                self.assertIn("wait()\n", session.do("where"))
                self.assertIn("MainThread", session.do("threads"))
                session.do(release)
                self.assertIn("waited\n", session.do("continue"))
                self.end(session)

    def test_lock(self):
        self.check("lock.acquire()", "lock.release()", "lock = threading.Lock(); lock.acquire()")
        self.check("with lock: pass", "lock.release()", "lock = threading.Lock(); lock.acquire()")

    def test_join_of_a_thread(self):
        self.check("thread.join()", "__import__('__main__').event.set()",
                   "event = threading.Event(); thread = threading.Thread(target=event.wait); thread.start()",
                   function="_wait_for_tstate_lock" if sys.version_info < (3, 13) else "join")

    def test_sleep(self):
        self.check("time.sleep(1)", "p 1")

    def test_read_and_select(self):
        self.check("os.read(ends[0], 1)", "os.write(ends[1], b'1')", "ends = os.pipe()")
        self.check("select.select([ends[0]], [], [])", "os.write(ends[1], b'1')", "ends = os.pipe()")

    def test_without_a_terminal(self):
        self.check("os.read(ends[0], 1)", "os.write(ends[1], b'1')", "ends = os.pipe()", terminal=False)

    def test_import_that_waits(self):
        for times in 1, 2:
            with self.subTest(times=times):
                session = self.start("""\
                    import os, sys
                    sys.ends = os.pipe()
                    sys.path.insert(0, os.getcwd())
                    import slow
                    print("imported", slow.here)
                    """)
                write_program(self.folder, """\
                    import os, sys
                    print("waiting", flush=True)
                    os.read(sys.ends[0], 1)
                    here = 5
                    """, "slow.py")
                session.send("continue")
                session.wait_for("waiting\n")
                session.interrupt_in_c_code(times)
                self.assertInterrupted(session.prompt(), "<module>")
                self.settle(session)
                self.assertIn("slow.py(3)", session.do("where"))
                session.do("os.write(sys.ends[1], b'1')")
                self.assertIn("imported 5\n", session.do("continue"))
                self.end(session)

    def test_steps_go_on_from_there(self):
        session = self.start("""\
            import os
            ends = os.pipe()
            def wait():
                print("waiting", flush=True)
                os.read(ends[0], 1)
                here = 1
                return here
            wait()
            print("end")
            """)
        session.send("continue")
        session.wait_for("waiting\n")
        session.interrupt_in_c_code()
        self.assertIn("-> os.read(ends[0], 1)", session.prompt())
        session.do("os.write(ends[1], b'1')")
        self.assertIn("-> here = 1", session.do("next"))
        self.assertIn("-> return here", session.do("step"))
        session.do("break 9")
        self.assertIn("-> print(\"end\")", session.do("continue"))
        self.end(session)

    def test_assignment_and_quit(self):
        session = self.start("""\
            import os
            ends = os.pipe()
            def wait():
                n = 1
                print("waiting", flush=True)
                try:
                    os.read(ends[0], 1)
                finally:
                    print("n is", n)
            wait()
            """)
        session.send("continue")
        session.wait_for("waiting\n")
        session.interrupt_in_c_code()
        session.prompt()
        session.do("!n = 5")
        printed, status = session.end("quit")
        self.assertIn("n is 5\n", printed)
        self.assertNotIn("Traceback", printed)
        self.assertEqual(status, 0)

    def test_several_times(self):
        session = self.start("""\
            import os
            ends = os.pipe()
            print("waiting", flush=True)
            os.read(ends[0], 1)
            print("end")
            """)
        session.send("continue")
        session.wait_for("waiting\n")
        for _ in range(3):
            session.interrupt_in_c_code()
            self.assertIn(INTERRUPTED, session.prompt())
            session.send("continue")
            session.wait_for("continue\n")
        session.interrupt_in_c_code()
        session.prompt()
        session.do("os.write(ends[1], b'1')")
        self.assertIn("end\n", session.do("continue"))
        self.end(session)


class InputTest(InterruptTestCase):
    """The program reads a line where the prompt reads its commands."""

    PROGRAM = """\
        def ask():
            name = input("name? ")
            return name
        print("hello", ask())
        """

    def check(self, times, terminal):
        session = self.start(self.PROGRAM, terminal=terminal)
        session.send("continue")
        session.wait_for("name? ")
        session.interrupt_in_c_code(times)
        self.assertInterrupted(session.prompt(), "ask")
        self.settle(session)
        self.assertIn("49", session.do("p 7 * 7"))
        session.send("continue")
        if terminal:
            session.wait_for("continue\n")
        session.interrupt_in_c_code()
        self.assertInterrupted(session.prompt(), "ask")
        session.send("continue")
        if terminal:
            session.wait_for("continue\n")
            session.wait_until_asleep()
        session.send("Ada")
        self.assertIn("hello Ada\n", session.prompt())
        self.end(session)

    def test_terminal(self):
        for times in 1, 2:
            with self.subTest(times=times):
                self.check(times, True)

    def test_pipe(self):
        for times in 1, 2:
            with self.subTest(times=times):
                self.check(times, False)


class OutputTest(InterruptTestCase):
    """The program writes to the stream that the prompt writes to."""

    def check(self, statement, rounds=6):
        """Every line comes once, in order, whenever the program is interrupted."""
        session = self.start("""\
            import sys
            def write():
                n = 0
                while go:
                    n += 1
                    %s
                return n
            go = True
            print("wrote", write())
            """ % statement, terminal=False)          # a terminal drops what it has not shown yet at Ctrl-C
        for number in range(rounds):
            session.send("continue")
            session.wait_for(">")            # after the command's own echo
            for _ in range(1 + number % 2):
                session.interrupt()
            self.assertInterrupted(session.prompt(), "write")
            self.settle(session)
        session.do("!globals().update(go=False)")
        printed = session.do("continue")
        count = int(re.search(r"wrote (\d+)", printed)[1])
        numbers = [int(each) for each in re.findall(r"<(\d+)>", session.seen)]
        self.assertTrue(numbers == list(range(1, count + 1)), "lines are lost, doubled or out of order")
        self.end(session)

    def test_print(self):
        self.check("print('<%d>' % n)")

    def test_print_with_flush(self):
        self.check("print('<%d>' % n, flush=True)")

    def test_write_to_the_buffer(self):
        self.check("sys.stdout.buffer.write(b'<%d>\\n' % n); sys.stdout.flush()")

    def test_writes_without_flush(self):
        self.check("sys.stdout.write('<%d> ' % n)")


class BusyTest(InterruptTestCase):
    """The program, or the debugger, is at work."""

    def check(self, session, function, rounds=4, last="end\n"):
        for number in range(rounds):
            session.send("continue")
            session.wait_for("<busy>")
            session.interrupt()
            if number % 2:
                session.interrupt()
            self.assertInterrupted(session.prompt(), function)
            self.settle(session)
        session.do("__import__('sys').go.clear()")
        self.assertIn(last, session.do("continue"))
        self.end(session)

    def test_python_code(self):
        self.check(self.start("""\
            import sys
            def work():
                n = 0
                while sys.go:
                    n += 1
                    if n % 1000 == 1: print("<busy>", flush=True)
            sys.go = [1]
            work()
            print("end")
            """), "work")

    def test_c_code_that_calls_python_code(self):
        self.check(self.start("""\
            import sys
            def key(n):
                if n % 1000 == 1: print("<busy>", flush=True)
                return -n
            def work():
                while sys.go:
                    sorted(range(5000), key=key)
            sys.go = [1]
            work()
            print("end")
            """), "(key|work)")

    def test_c_code_that_calls_nothing(self):
        self.check(self.start("""\
            import re, sys
            pattern = re.compile("(a*)*b")
            def work():
                while sys.go:
                    print("<busy>", flush=True)
                    pattern.match("a" * 18)
            sys.go = [1]
            work()
            print("end")
            """), "work")

    def test_imports(self):
        self.check(self.start("""\
            import sys
            sys.go = [1]
            sys.dont_write_bytecode = True
            def work():
                while sys.go:
                    print("<busy>", flush=True)
                    for name in "colorsys", "this_is_no_module", "sndhdr_no_module":
                        sys.modules.pop(name, None)
                        try:
                            __import__(name)
                        except ImportError:
                            pass
            work()
            print("end")
            """), r"(work|<module>)")

    def test_the_debuggers_own_code(self):
        """Most of the time it evaluates a condition."""
        self.check(self.start("""\
            import sys
            def work():
                n = 0
                while sys.go:
                    n += 1
                    if n % 100 == 1: print("<busy>", flush=True)
            sys.go = [1]
            work()
            print("end")
            """, "break 5, n < 0"), "work")

    def test_a_condition_that_does_not_end(self):
        session = self.start("""\
            import threading
            lock = threading.Lock()
            def condition():
                print("<busy>", flush=True)
                with lock:
                    return False
            def work():
                print("work")
            lock.acquire()
            work()
            print("end")
            """, "break 8, condition()")
        session.send("continue")
        session.wait_for("<busy>")
        session.interrupt_in_c_code()
        self.assertInterrupted(session.prompt(), "condition")
        session.do("lock.release()")
        self.assertIn("end\n", session.do("continue"))
        self.end(session)

    def test_while_stepping(self):
        """The function that `next` steps over takes long: it is stopped in, and no exception comes into it."""
        session = self.start("""\
            import os
            ends = os.pipe()
            def work():
                print("<busy>", flush=True)
                os.read(ends[0], 1)
            work()
            print("end")
            """, "next", "next", "next")
        for command in "next", "until", "return":
            session.send(command)
            session.wait_for("<busy>" if command == "next" else command + "\n")
            session.interrupt_in_c_code()
            self.assertInterrupted(session.prompt(), "work")
            session.do("up")
        session.do("os.write(ends[1], b'1')")
        self.assertIn("end\n", session.do("continue"))
        self.end(session)

    def test_no_exception_reaches_the_program(self):
        session = self.start("""\
            import sys
            sys.go = [1]
            def work():
                try:
                    while sys.go:
                        print("<busy>", flush=True)
                except BaseException as error:
                    print("got", repr(error))
            work()
            print("end")
            """)
        self.check(session, "work", rounds=10)
        self.assertNotIn("got ", session.seen.partition("work()\n")[2])


class PromptTest(InterruptTestCase):

    def test_handler_that_never_ends_after_quit(self):
        """A handler that has caught `quit` and stays in itself is left to Ctrl-C."""
        session = self.start("""\
            import time
            try:
                here = 1
            except BaseException:
                print("caught", flush=True)
                while True:
                    time.sleep(1000)
            """)
        session.do("next")
        session.do("next")
        session.send("quit")
        session.wait_for("caught")
        session.interrupt_in_c_code()
        self.assertEqual(session.end()[1], 0)

    def test_at_the_prompt(self):
        session = self.start("print('end')\n")
        for times in 1, 2:
            session.interrupt_in_c_code(times)
            self.assertIn("--KeyboardInterrupt--", session.prompt())
            self.settle(session)
        session.send("while True: print('run' + 'ning', flush=True)")
        session.wait_for("running")
        session.interrupt()
        session.interrupt()
        self.settle(session)
        self.assertIn("end\n", session.do("continue"))
        self.end(session)

    def test_the_programs_own_handler(self):
        """It is neither called for the prompt nor lost."""
        session = self.start("""\
            import signal
            def handler(*args): print("handler called")
            signal.signal(signal.SIGINT, handler)
            here = 1
            print("end")
            """, "next", "next", "next")
        session.interrupt_in_c_code()
        self.assertIn("--KeyboardInterrupt--", session.prompt())
        self.settle(session)
        self.assertNotIn("handler called", session.seen.partition("def handler")[2].partition("\n")[2])
        self.end(session)

    def test_at_a_standard_prompt_that_the_program_opens(self):
        session = self.start("""\
            import pdb, sys
            standard = next(each for each in pdb.Pdb.__mro__ if each.__module__ == "pdb")
            def ask():
                debugger = standard()
                debugger.reset()
                debugger.prompt = "(Pdb) "
                debugger.interaction(sys._getframe(), None)
            ask()
            ask()
            print("end")
            """, "next", "next", "next", "break 10")
        for command in "next", "continue":        # of ours, with which the program comes there
            self.assertIn("ask()\n", session.do(command))
            session.interrupt_in_c_code()
            self.assertIn("--KeyboardInterrupt--", session.prompt())
            self.settle(session)
            session.do("next")
        self.end(session)

    def test_in_a_command_loop_of_the_programs_own(self):
        session = self.start("""\
            import cmd, time
            class Shell(cmd.Cmd):
                def do_work(self, arg):
                    print("working")
                    while True: time.sleep(0.001)
            shell = Shell()
            shell.cmdqueue = ["work"]
            shell.cmdloop()
            """)
        session.send("continue")
        session.wait_for("working")
        session.interrupt()
        self.assertInterrupted(session.prompt(), "do_work")
        self.end(session)

    def test_given_back_at_the_end_of_the_session(self):
        self.folder = scratch_folder(self)
        program = write_program(self.folder, """\
            import brixdebug, signal
            def function():
                return 1
            before = signal.getsignal(signal.SIGINT)
            brixdebug.runcall(function)
            print("the same:", signal.getsignal(signal.SIGINT) == before)
            try:
                1 / 0
            except ZeroDivisionError as error:
                brixdebug.post_mortem(error.__traceback__)
            print("the same:", signal.getsignal(signal.SIGINT) == before)
            """)
        session = Session(self, program, terminal=True)
        session.prompt()
        session.send("return")
        session.prompt()
        session.send("continue")
        session.wait_for("the same: True\n")
        session.prompt()
        session.send("quit")
        session.wait_for("the same: True\n")
        self.assertEqual(session.end()[1], 0)


if __name__ == "__main__":
    unittest.main()
