"""Expressions at the prompt that need another thread get it, and no thread is there for that afterwards."""

import unittest

from host_support import scratch_folder
from session import Session, line_of, write_program

LET_GO = "The expression has not ended after one second: the other threads run until it ends.\n"
WAITS = "Thread %s (%s) waits at %s(%d)double() for its turn at the prompt. If the expression needs it: Ctrl-C, then continue.\n"

PROGRAM = """\
    import functools, logging, threading, time
    from concurrent.futures import ThreadPoolExecutor
    def double(n):
        return n + n                         # double
    def keep_lock():
        with lock:
            owned.set()
            while not leave:
                pass
    def log():
        global is_inside
        handler.acquire()
        is_inside = True
        while not leave:
            pass
        handler.release()
    def spin():
        global turns
        while not stop:
            turns += 1
    lock, owned, leave, stop, is_inside = threading.Lock(), threading.Event(), False, False, False
    turns = 0
    handler = logging.StreamHandler()
    logging.getLogger().addHandler(handler)
    executor = ThreadPoolExecutor(2)
    executor.submit(double, 1).result()
    def start(*functions):
        for function in functions:
            threading.Thread(target=function, daemon=True).start()
    def prompt():
        here = 1                             # here
    START
    print("done")
    stop = leave = True
    executor.shutdown()
    """


class EvaluationTest(unittest.TestCase):

    def begin(self, start="prompt()", terminal=False):
        folder = scratch_folder(self)
        self.program = write_program(folder, PROGRAM.replace("START", start))
        session = Session(self, "-m", "brixdebug", self.program, terminal=terminal)
        session.prompt()
        session.do("break %d" % line_of(self.program, "here"))
        self.assertIn("> %s(%d)prompt()" % (self.program, line_of(self.program, "here")), session.do("continue"))
        return session

    def finish(self, session):
        printed = session.do("continue")
        self.assertEqual(printed.partition("The program finished")[0], "done\n")
        self.assertEqual(session.end("quit")[1], 0)

    def names_of_threads(self, session):
        return session.do("p sorted(thread.name.partition('-')[0] for thread in threading.enumerate()), "
                          "len(__import__('brixdebug.suspension').suspension.debugged_frames())")

    def test_result_of_a_future(self):
        session = self.begin()
        before = self.names_of_threads(session)
        for _ in range(3):
            printed = session.do("executor.submit(double, 4).result()")
            self.assertEqual(printed.replace(LET_GO, ""), "8\n")
        self.assertEqual(self.names_of_threads(session), before)
        self.finish(session)

    def test_lock_of_a_held_thread(self):
        session = self.begin("start(keep_lock); owned.wait(); prompt()")
        session.do_until("threads", "held")
        self.assertEqual(session.do("globals().update(leave=True)"), "")
        self.assertEqual(session.do("p lock.acquire(), 'got it'"), LET_GO + "(True, 'got it')\n")
        self.finish(session)

    def test_thread_that_is_started_and_joined(self):
        session = self.begin()
        printed = session.do("t = threading.Thread(target=double, args=(2,)); t.start(); t.join(); print('joined')")
        self.assertEqual(printed.replace(LET_GO, ""), "joined\n")
        self.finish(session)

    def test_logging_while_a_held_thread_is_inside_the_handler(self):
        session = self.begin("start(log)\nwhile not is_inside: pass\nprompt()".replace("\n", "\n    "))
        session.do_until("threads", "held")
        self.assertEqual(session.do("globals().update(leave=True)"), "")
        self.assertEqual(session.do("logging.error('a text')"), LET_GO + "a text\n")
        self.finish(session)

    def test_console_of_interact(self):
        session = self.begin(terminal=True)
        session.send("interact")
        session.wait_for(">>> ")
        session.send("executor.submit(double, 5).result()")
        self.assertEqual(session.wait_for(">>> ").replace(LET_GO, "").splitlines()[1:], ["10"])
        session.end_input()
        session.prompt()
        self.assertEqual(session.do("p 1 + 1"), "2\n")
        session.end("quit")

    def test_quick_and_slow_expressions_hold_the_others(self):
        """What needs nobody ends before the others are let go, and they stand still again afterwards."""
        session = self.begin("start(spin)\nwhile not turns: pass\nprompt()".replace("\n", "\n    "))
        session.do_until("threads", "held")
        turns = session.do("p turns")
        for _ in range(20):
            self.assertEqual(session.do("p turns"), turns)
        self.assertEqual(session.do("time.sleep(1.2)"), LET_GO)
        session.do_until("threads", "held")
        later = session.do("p turns")
        self.assertGreater(int(later), int(turns))
        for _ in range(20):
            self.assertEqual(session.do("p turns"), later)
        self.finish(session)

    def test_breakpoints_of_others_come_afterwards_once_each(self):
        session = self.begin("prompt(); executor.submit(double, 7).result(); prompt()")
        session.do("break %d" % line_of(self.program, "double"))
        session.do("f = [executor.submit(double, n) for n in (1, 2)]")
        session.send("time.sleep(1.5)")
        self.assertEqual(session.wait_for(LET_GO), "")
        printed = session.prompt()
        self.assertEqual({self.waiting(session, number) for number in ("2", "3")}, set(printed.splitlines(True)))
        stops, places = [], []
        for _ in range(4):
            place = session.do("continue")
            places.append(place)
            stops.append(session.do("p n") if "double()" in place else place.rpartition("/")[2])
        prompt = "program.py(%d)prompt()\n-> here = 1                             # here\n" % line_of(self.program, "here")
        self.assertEqual(sorted(stops), ["1\n", "2\n", "7\n", prompt])
        last = session.do("continue")
        self.assertIn("The program finished", last)
        self.assertEqual("".join([*places, last]).count("done\n"), 1)      # of whoever stopped last, the main thread or not
        self.assertEqual(session.end("quit")[1], 0)

    def waiting(self, session, number):
        name = next(line.split()[2] for line in session.do("threads").splitlines() if line[2:].startswith(number))
        return WAITS % (number, name, self.program, line_of(self.program, "double"))

    def test_expression_that_needs_a_thread_at_a_breakpoint_of_its_own(self):
        # the main thread goes on at the end, and prints nothing beside the other's prompt
        session = self.begin("prompt(); executor.shutdown()", terminal=True)
        session.do("break %d" % line_of(self.program, "double"))
        session.do("f = executor.submit(double, 3)")
        for _ in range(2):                    # it comes to its breakpoint meanwhile, and it is there already
            session.send("f.result()")
            session.wait_for(LET_GO)
            session.wait_for("for its turn at the prompt. If the expression needs it: Ctrl-C, then continue.\n")
            session.interrupt_at_prompt()
            self.assertIn("*** KeyboardInterrupt", session.prompt())
        self.assertIn("double()", session.do("continue"))
        self.assertEqual(session.do("p n"), "3\n")
        session.end("quit")

    def test_expression_that_needs_a_thread_at_its_own_call_of_the_debugger(self):
        session = self.begin(terminal=True)
        session.do("globals().update(call=lambda n: (breakpoint(), n + 1)[1])")
        session.send("executor.submit(call, 3).result()")
        session.wait_for(LET_GO)
        session.wait_for("for its turn at the prompt. If the expression needs it: Ctrl-C, then continue.\n")
        session.interrupt_at_prompt()
        self.assertIn("*** KeyboardInterrupt", session.prompt())
        self.assertIn("<lambda>()", session.do("continue"))
        session.end("quit")

    def test_others_that_are_all_inside_c_code(self):
        session = self.begin("start(functools.partial(time.sleep, 1000)); prompt()")
        self.assertEqual(session.do("time.sleep(1.2)"), LET_GO)
        self.assertEqual(session.do("set hold-others off"), "")
        self.assertEqual(session.do("time.sleep(1.2)"), "")
        session.end("quit")

    def test_interrupt_ends_it(self):
        session = self.begin(terminal=True)
        session.do("break %d" % line_of(self.program, "double"))
        for _ in range(2):
            session.send("executor.submit(double, 3).result()")
            session.wait_for(LET_GO)
            session.interrupt_at_prompt()
            self.assertIn("*** KeyboardInterrupt", session.prompt())
        self.assertEqual(session.do("p 1 + 1"), "2\n")
        session.end("quit")

    def test_interrupt_ends_it_in_another_thread(self):
        session = self.begin("executor.submit(prompt).result()", terminal=True)
        for wait in "all(iter(lambda: 1, 0))", "threading.Event().wait()", "executor.submit(spin).result()":
            session.send("print('has', 'begun'); " + wait)
            session.wait_for("has begun\n")
            session.interrupt_at_prompt()     # once the main thread is in its wait: before, it may miss it
            self.assertIn("*** KeyboardInterrupt", session.prompt())
        session.do("globals().update(stop=True)")
        self.assertEqual(session.do("p 1 + 1"), "2\n")
        session.end("quit")

    def test_thread_that_is_looked_at_is_looked_at_again(self):
        session = self.begin("start(keep_lock); owned.wait(); prompt()")
        listed = session.do_until("threads", "held")
        number = next(line for line in listed.splitlines() if "held" in line).split()[0]
        self.assertIn("keep_lock()", session.do("thread " + number))
        session.do("globals().update(leave=True)")
        printed = session.do("time.sleep(1.5)")
        self.assertIn(LET_GO + "The thread that was looked at has ended.\n> %s(%d)prompt()" % (
            self.program, line_of(self.program, "here")), printed)
        self.finish(session)

    def test_others_are_never_held(self):
        session = self.begin("start(spin)\nwhile not turns: pass\nprompt()".replace("\n", "\n    "))
        session.do_until("threads", "held")
        self.assertEqual(session.do("set hold-others"), "*** set hold-others on, or off; it is on\n")
        turns = session.do("p turns")
        self.assertEqual(session.do("set hold-others off"), "")
        while session.do("p turns") == turns:
            pass
        self.assertNotIn("held", session.do("threads"))
        self.assertEqual(session.do("executor.submit(double, 4).result()"), "8\n")
        self.assertEqual(session.do("set hold-others on"), "")
        session.do_until("threads", "held")
        turns = session.do("p turns")
        self.assertEqual(session.do("p turns"), turns)
        self.finish(session)


class VariablesTest(unittest.TestCase):
    """The variables of a stop live as long as their call: no cycle of the debugger's frames keeps them."""

    PROGRAM = """\
        import gc, threading, weakref
        gc.disable()
        class Thing: pass
        def use():
            global reference
            thing = Thing()
            reference = weakref.ref(thing)
            number = 5
            number += 1                          # line
        end = threading.Event()
        thread = threading.Thread(target=end.wait, daemon=True)
        if HAS_THREAD:
            thread.start()
        use()
        print("alive" if reference() else "gone")
        end.set()
        """

    def test_after_an_expression(self):
        for has_thread in False, True:
            for command in "p number", "!other = 1", "p 1/0", "next":
                with self.subTest(command, has_thread=has_thread):
                    program = write_program(scratch_folder(self), self.PROGRAM.replace("HAS_THREAD", str(has_thread)))
                    session = Session(self, "-m", "brixdebug", program)
                    session.prompt()
                    session.do("break %d" % line_of(program, "line"))
                    session.do("continue")
                    session.do(command)
                    self.assertTrue(session.do("continue").startswith("gone\n"))
                    session.end("quit")

    def test_after_commands_of_a_breakpoint(self):
        program = write_program(scratch_folder(self), self.PROGRAM.replace("HAS_THREAD", "False"))
        session = Session(self, "-m", "brixdebug", program)
        session.prompt()
        session.do("break %d" % line_of(program, "line"))
        session.do("commands 1\np number\ncontinue")
        printed = session.do("continue")
        self.assertIn("5\n", printed)
        self.assertIn("gone\n", printed)
        session.end("quit")


if __name__ == "__main__":
    unittest.main()
