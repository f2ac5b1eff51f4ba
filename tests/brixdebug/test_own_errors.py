"""What may go wrong inside the debugger, and what an exception of it is to the program: nothing, or just what bdb makes it."""

import re
import sys
import textwrap
import unittest

from host_support import check_child, run_child, scratch_folder
from session import Session, line_of, run_session, write_program


class OwnErrorsTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, *texts):
        self.program = write_program(self.folder, "".join(map(textwrap.dedent, texts)))

    def check(self, *texts, expected, status=0):
        self.write(*texts)
        child = run_child(self.program, cwd=self.folder)
        self.assertEqual((child.stdout, child.returncode), (textwrap.dedent(expected), status), child.stderr)
        return child.stderr


# A program with a breakpoint on a line that it passes four times, twice in another thread; it ends with status 3.
PROGRAM = """\
    import sys, threading
    def function(n):
        result = n + 1                       # line
        return result
    print([function(n) for n in range(2)])
    thread = threading.Thread(target=lambda: print([function(n) for n in range(2)]))
    thread.start()
    thread.join()
    sys.exit(3)
    """


class OwnErrorTest(OwnErrorsTestCase):
    """Errors of the debugger's own: the program goes on as if nothing had happened, the log says what did."""

    BREAK = {
        "the hook for new code": """
            from brixdebug.monitor import monitor
            monitor.break_lines._remember_name = lambda record: 1 / 0
            """,
        "the hook for new threads": """
            from brixdebug.monitor import monitor
            monitor.suspension._give_lock = lambda record: 1 / 0
            """,
        "the name of a thread": """
            from brixdebug.suspension import Suspension
            Suspension.thread_name = staticmethod(lambda thread_id: 1 / 0)
            """,
        "the policy": """
            from brixdebug.suspension import Suspension
            Suspension._debug_policy = lambda self, thread_id: 1 / 0
            """,
        "the callback for lines": """
            from brixdebug.reporting import Reporter
            Reporter._line = lambda self, frame: 1 / 0
            """,
        "the second callback itself": """
            from brixdebug import reporting
            reporting.Reporter._failed = lambda self, error: 1 / 0
            reporting.Reporter._line = lambda self, frame: 1 / 0
            """,
        "the callback for calls": """
            from brixdebug.reporting import Reporter
            Reporter._is_call_wanted = lambda self, debugger, frame: 1 / 0
            """,
        "the decision": """
            from brixdebug import engine
            engine.Bdb.break_here = lambda self, frame: 1 / 0
            """,
        "the prompt": """
            import pdb
            pdb.Pdb.interaction = lambda *args: 1 / 0
            """,
        "the end of the event": """
            from brixdebug.monitor import Monitor
            Monitor.settle = lambda self: 1 / 0
            """,
    }

    def write_breaker(self, text):
        return write_program(self.folder, BREAKER + textwrap.dedent(text) + "start()\n", "breaker.py")

    def test_the_program_runs_as_it_would(self):
        for what, text in self.BREAK.items():
            with self.subTest(what):
                self.write(PROGRAM)
                breaker = self.write_breaker(text)
                line = line_of(self.program, "line")
                child = run_child(breaker, self.program, str(line), cwd=self.folder)
                self.assertEqual(child.returncode, 3, child.stderr)
                output = "".join(re.findall(r"\[1, 2\]\n", child.stdout))
                self.assertEqual(output, "[1, 2]\n[1, 2]\n", child.stdout)
                self.assertIn("ZeroDivisionError", child.stderr + (self.folder / "log").read_text(), child.stdout)

    def test_shown_once_to_the_user_and_each_time_in_the_log(self):
        self.write(PROGRAM)
        breaker = self.write_breaker(self.BREAK["the decision"])
        child = run_child(breaker, self.program, str(line_of(self.program, "line")), cwd=self.folder)
        self.assertEqual(child.stdout.count("An error of the debugger's own"), 1)
        self.assertEqual((self.folder / "log").read_text().count("ZeroDivisionError: division by zero"), 4)
        self.assertEqual(child.stderr, "")

    def test_without_a_log_reported_once(self):
        self.write("""\
            import brixdebug
            from brixdebug import engine
            engine.Bdb.break_here = lambda self, frame: 1 / 0
            debugger = brixdebug.Debugger()
            def function():
                return 1                         # line
            debugger.set_break(__file__, 6)
            debugger.reset()
            debugger.stop_states.own().run_freely()
            debugger.start_trace()
            print([function() for _ in range(3)])
            debugger.stop_trace()
            """)
        child = run_child(self.program)
        self.assertEqual((child.stdout.count("An error of the debugger's own"), child.stdout.count("[1, 1, 1]"),
                          child.stderr.count("ZeroDivisionError: "), child.returncode), (1, 1, 1, 0), child.stderr)


# Breaks something of the debugger, and runs a program under it with a breakpoint: BREAKER PROGRAM LINE.
BREAKER = textwrap.dedent("""\
    import os, sys
    program, line = sys.argv[1:]
    import brixdebug
    from brixdebug import log
    log.open_log(os.path.join(os.path.dirname(program), "log"), ["all"])
    debugger = brixdebug.Debugger(stdin=open(os.devnull))
    debugger.set_break(program, int(line))
    debugger.do_EOF = lambda arg: debugger.do_continue("")
    with open(program) as file:
        code = compile(file.read(), program, "exec")
    debugger.reset()
    debugger.stop_states.own().run_freely()
    sys.argv[:] = [program]
    def start():
        debugger.start_trace()
        exec(code, {"__name__": "__main__", "__file__": program})
    """)


class BdbExceptionTest(OwnErrorsTestCase):
    """An exception of a user_ method lands in the program, at the very line, as with bdb."""

    SUBCLASS = """\
        import sys, bdb
        if sys.argv[1] == "stock":
            base = bdb.Bdb
        else:
            from brixdebug import engine
            base = engine.Bdb
        class Debugger(base):
            when, error, seen = None, None, ()
            def user_line(self, frame): self.event("line", frame)
            def user_call(self, frame, _): self.event("call", frame)
            def user_return(self, frame, value): self.event("return", frame)
            def user_exception(self, frame, info): self.event("exception", frame)
            def event(self, name, frame):
                if frame.f_code.co_filename != __file__ or frame.f_code.co_name == "<module>":
                    self.set_step()
                    return
                self.seen += ((name, frame.f_code.co_name, frame.f_lineno),)
                if (name, frame.f_code.co_name, len(self.seen)) == self.when or (name, frame.f_code.co_name) == self.when:
                    if self.error is None:
                        self.set_quit()
                    else:
                        raise self.error
                else:
                    self.set_step()
        """

    SESSION = """\
        import traceback
        executed = []
        def function(n):
            executed.append("first")
            executed.append("second")
            if n:
                raise LookupError(n)
            return 5
        def generate():
            executed.append("begin")
            yield 1
            executed.append("end")
        def one_line(): executed.append("one"); return 1
        def caller(n):
            try:
                function(n)
            except LookupError:
                executed.append("handled")
            one_line()
            for each in generate():
                executed.append(each)
        def session(when, error, n):
            debugger = Debugger()
            debugger.when, debugger.error = when, error
            try:
                debugger.runcall(caller, n)
            except BaseException as error:
                lines = [(frame.name, frame.lineno) for frame in traceback.extract_tb(error.__traceback__)
                         if frame.filename == __file__ and frame.name != "event" and "user_" not in frame.name]
                print(type(error).__name__, error, lines)
            print(when, executed, debugger.seen[-1:], sys.gettrace())
            del executed[:]
        for when in (("line", "function"), ("call", "function"), ("return", "function"), ("line", "one_line"),
                     ("line", "caller"), ("line", "generate"), ("return", "generate"), ("call", "one_line"),
                     ("exception", "function")):
            for error in ValueError("mine"), KeyboardInterrupt(), SystemExit(4), None, LookupError("l"):
                session(when, error, when[0] == "exception")
        """

    def test_same_as_with_bdb(self):
        self.write(self.SUBCLASS, self.SESSION)
        outputs = []
        for kind in "stock", "engine":
            child = run_child(self.program, kind)
            self.assertEqual((child.returncode, child.stderr), (0, ""))
            outputs.append(child.stdout.splitlines())
        self.assertEqual(outputs[1], outputs[0])
        self.assertGreater(len(outputs[0]), 45)


class ConditionTest(OwnErrorsTestCase):

    def session(self, module, *commands):
        child = run_session("-m", module, self.program, commands=commands, cwd=self.folder)
        return child.returncode, child.stdout.replace("brixdebug", "pdb"), child.stderr

    def test_conditions_that_raise(self):
        """They stop, as with pdb, whatever they raise; the program does not see it."""
        self.write("""\
            import sys
            def leave(error):
                raise error
            def function(n):
                return n                         # line
            print([function(n) for n in range(3)])
            """)
        for condition in "1 / 0", "leave(SystemExit(5))", "leave(KeyboardInterrupt)", "no_such_name", "n == 1", "n ==":
            with self.subTest(condition):
                commands = ["break 5, " + condition, "continue", "p n", "continue", "continue", "continue", "quit"]
                ours, stock = self.session("brixdebug", *commands), self.session("pdb", *commands)
                self.assertEqual(ours[1:], stock[1:])
                # A text that `eval` runs and that raises KeyboardInterrupt ends pdb as by the signal.
                self.assertEqual(ours[0], 0)

    def test_condition_runs_unwatched(self):
        """It may call what has a breakpoint, start threads and wait for them."""
        self.write("""\
            import threading
            def helper():
                return True                      # helper
            def in_thread():
                found = []
                thread = threading.Thread(target=lambda: found.append(1))
                thread.start()
                thread.join()
                return found
            def function(n):
                return n                         # line
            print([function(n) for n in range(3)])
            """)
        session = Session(self, "-m", "brixdebug", self.program)
        session.prompt()
        session.do("break 3")
        session.do("break 11, helper() and in_thread() and n == 1")
        self.assertIn("-> return n ", session.do("continue"))
        self.assertEqual(session.do("p n"), "1\n")
        self.assertIn("[0, 1, 2]\n", session.do("continue"))
        session.end("quit")


class SignalTest(OwnErrorsTestCase):
    """What the handler of a signal raises belongs to the program, wherever the debugger was at that moment."""

    def test_no_exception_of_a_handler_is_lost(self):
        """A timer interrupts a loop whose every pass evaluates a condition, most of the time in the debugger's own code.

        In a debugger with a prompt an error of its own would not reach the program: it must be told apart."""
        for debugger in ("Engine()", "brixdebug.Debugger(stdout=output)"):
            with self.subTest(debugger):
                self.check("""\
                    import io, signal
                    import brixdebug
                    from brixdebug import engine
                    class Alarm(Exception): pass
                    class Engine(engine.Bdb):
                        def user_line(self, frame):
                            raise AssertionError
                    count = 0
                    def handler(*args):
                        global count
                        count += 1
                        raise Alarm
                    def loop():
                        n = 0
                        while True:
                            n += 1
                    output = io.StringIO()
                    debugger = %s
                    debugger.stop_states.own().run_freely()
                    debugger.set_break(__file__, 16, cond="n < 0")
                    debugger.start_trace()
                    signal.signal(signal.SIGVTALRM, handler)
                    caught = 0
                    while caught < 200:
                        try:
                            signal.setitimer(signal.ITIMER_VIRTUAL, 0.0005 + caught * 1e-6)
                            loop()
                        except Alarm:
                            caught += 1
                    print(caught == count, repr(output.getvalue()))
                    debugger.stop_trace()
                    """ % debugger, expected="True ''\n")

    def test_interrupt_of_a_thread_that_waits_to_report(self):
        """It reports its stop first: neither the stop nor the exception is lost."""
        self.check("""\
            import signal, threading, os
            from brixdebug import engine
            from brixdebug.monitor import monitor
            main_id = threading.get_ident()
            stops = []
            class Debugger(engine.Bdb):
                def user_line(self, frame):
                    stops.append(frame.f_lineno)
                    if frame.f_lineno == OTHER:
                        inside.set()
                        while main_id not in monitor.turn.waiting_thread_ids:
                            pass
                        while not handled:       # one that comes just before the wait does not interrupt it
                            signal.pthread_kill(main_id, signal.SIGINT)
                    self.set_continue()
            handled = []
            def handler(*args):
                if not handled:
                    handled.append(1)
                    raise KeyboardInterrupt("mine")
            signal.signal(signal.SIGINT, handler)
            inside = threading.Event()
            def other():
                here = 1
            def mine():
                here = 2
                return "not reached"
            OTHER, MINE = other.__code__.co_firstlineno + 1, mine.__code__.co_firstlineno + 1
            debugger = Debugger()
            debugger.set_break(__file__, OTHER)
            debugger.set_break(__file__, MINE)
            debugger.stop_states.own().run_freely()
            debugger.start_trace()
            thread = threading.Thread(target=other)
            thread.start()
            inside.wait()
            try:
                print(mine())
            except KeyboardInterrupt as error:
                print(error, stops == [OTHER, MINE])
            thread.join()
            debugger.stop_trace()
            """, expected="mine True\n")

    def test_interrupt_of_a_held_thread(self):
        self.check("""\
            import signal, threading, os
            import brixdebug
            from brixdebug.monitor import monitor
            main_id = threading.get_ident()
            handled = []
            def handler(*args):
                if not handled:
                    handled.append(1)
                    raise KeyboardInterrupt("mine")
            signal.signal(signal.SIGINT, handler)
            class Debugger(brixdebug.Debugger):
                def interaction(self, *args, **kwargs):
                    with monitor.turn.lock, monitor.suspension.others_held():
                        while not monitor.suspension.is_waiting(main_id):
                            pass
                        before = rounds
                        while not handled:       # one that comes just before the wait does not interrupt it
                            signal.pthread_kill(main_id, signal.SIGINT)
                        print("held", rounds == before)
                    self.set_continue()
            def other():
                here = 1
            debugger = Debugger()
            debugger.set_break(__file__, other.__code__.co_firstlineno + 1)
            debugger.stop_states.own().run_freely()
            debugger.start_trace()
            rounds = 0
            def count():                         # up to 3.13 what is raised at a loop's jump passes by the handlers around it
                global rounds
                while not handled:
                    rounds += 1
            thread = threading.Thread(target=other)
            try:
                thread.start()
                count()
                print("not reached")
            except KeyboardInterrupt as error:
                print(error)
            thread.join()
            debugger.stop_trace()
            """, expected="held True\nmine\n")

    @unittest.skipUnless(getattr(sys, "_is_gil_enabled", lambda: True)(), "no lock decides which thread runs next")
    def test_a_thread_that_has_been_let_go_is_not_held_before_it_has_run(self):
        """It wakes from the last time that it was held while the next has begun already."""
        self.check("""\
            import sys, threading, time
            import brixdebug
            from brixdebug.monitor import monitor
            main_id = threading.get_ident()
            is_waiting, others_held = monitor.suspension.is_waiting, monitor.suspension.others_held
            class Debugger(brixdebug.Debugger):
                def interaction(self, *args, **kwargs):
                    with monitor.turn.lock:
                        with others_held():
                            while not is_waiting(main_id):
                                pass
                            before = rounds
                            sys.setswitchinterval(1000)
                        with others_held():
                            seen = is_waiting(main_id), rounds == before
                            sys.setswitchinterval(0.005)
                            while not is_waiting(main_id):
                                time.sleep(0)    # its wait for this thread is still the long one
                        print(seen)
                    self.set_continue()
            def other():
                global go
                here = 1
                go = False
            debugger = Debugger()
            debugger.set_break(__file__, other.__code__.co_firstlineno + 2)
            debugger.stop_states.own().run_freely()
            debugger.start_trace()
            go, rounds = True, 0
            thread = threading.Thread(target=other)
            thread.start()
            while go:
                rounds += 1
            thread.join()
            debugger.stop_trace()
            """, expected="(False, True)\n")


if __name__ == "__main__":
    unittest.main()
