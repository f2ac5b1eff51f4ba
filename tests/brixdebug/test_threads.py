"""The debugger and the threads of a program: who stops, who is held, and whose step it is."""

import re
import unittest

from host_support import check_child, scratch_folder
from session import Session, line_of, run_session, write_program


class ThreadsTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text, name="program.py"):
        self.program = write_program(self.folder, text, name)

    def start(self, *breakpoints):
        """The session at the program's first line, with breakpoints on the lines of these marks."""
        session = Session(self, "-m", "brixdebug", self.program)
        session.prompt()
        for mark in breakpoints:
            where, _, condition = mark.partition(" if ")
            self.assertIn("Breakpoint", session.do("break %d%s" % (
                line_of(self.program, where), ", " + condition if condition else "")))
        return session

    def assertStopped(self, printed, mark):
        self.assertIn("> %s(%d)" % (self.program, line_of(self.program, mark)), printed)

    def assertEnds(self, session, output, command="continue"):
        """The program ends by itself, and has printed `output` last."""
        self.assertRegex(session.do(command), "%s\nThe program finished and will be restarted\n"
                         % re.escape(output))
        self.assertEqual(session.end("quit")[1], 0)

    def wait_until_held(self, session, count):
        session.do_until("threads", lambda printed: printed.count(" held ") == count)

    @staticmethod
    def number_of(session, name):
        """The number that `threads` shows for the thread of that name."""
        return re.search(r"^[> ] (\d+) .*\b%s\b" % re.escape(name), session.do("threads"), re.M)[1]


HITS = """\
    import _thread, threading
    from concurrent.futures import ThreadPoolExecutor

    def hit(name):
        return name                          # line

    def in_thread(name):
        done = threading.Event()
        def run():
            hit(name)
            done.set()
        _thread.start_new_thread(run, ())
        done.wait()

    thread = threading.Thread(target=hit, args=("Thread",))
    thread.start()
    thread.join()
    in_thread("start_new_thread")
    with ThreadPoolExecutor(2) as pool:
        list(pool.map(hit, ["pool 1", "pool 2"]))
    hit("main")
    print("done")
    """


class BreakpointTest(ThreadsTestCase):

    def test_breakpoint_holds_in_every_kind_of_thread(self):
        self.write(HITS)
        session = self.start("line")
        names = []
        for _ in range(5):
            self.assertStopped(session.do("continue"), "line")
            names.append(session.do("p name").strip())
        self.assertEqual((names[:2], sorted(names[2:4]), names[4]),
                         (["'Thread'", "'start_new_thread'"], ["'pool 1'", "'pool 2'"], "'main'"))
        self.assertEnds(session, "done")

    def test_threads_that_run_already(self):
        """Each is in a loop that it entered before the breakpoint was set."""
        self.write("""\
            import _thread, threading
            go, rounds = True, {}
            def loop(name):
                while go:
                    rounds[name] = rounds.get(name, 0) + 1    # body
            def one_line(name):
                while go: rounds[name] = rounds.get(name, 0) + 1    # one line
            threads = [threading.Thread(target=loop, args=("loop",)),
                       threading.Thread(target=one_line, args=("one line",))]
            for thread in threads:
                thread.start()
            _thread.start_new_thread(loop, ("raw",))
            while len(rounds) < 3:
                pass
            ready = True                     # ready
            for thread in threads:
                thread.join()
            print("done")
            """)
        session = self.start("ready")
        self.assertStopped(session.do("continue"), "ready")
        session.do("clear 1")
        for mark, name in ("body", "loop"), ("body", "raw"), ("one line", "one line"):
            with self.subTest(name):
                session.do("break %d, name == %r" % (line_of(self.program, mark), name))
                self.assertStopped(session.do("continue"), mark)
                self.assertEqual(session.do("p name").strip(), repr(name))
                session.do("clear %d" % line_of(self.program, mark))
                session.do("clear %s:%d" % (self.program, line_of(self.program, mark)))
        session.do("!go = False")
        session.do("!import sys; sys.modules['__main__'].go = False")
        self.assertEnds(session, "done")

    def test_one_thread_reports_at_a_time_and_each_once(self):
        self.write("""\
            import threading
            barrier = threading.Barrier(4)
            def run(name):
                barrier.wait()
                here = name                  # line
            threads = [threading.Thread(target=run, args=(name,)) for name in range(4)]
            for thread in threads: thread.start()
            for thread in threads: thread.join()
            print("done")
            """)
        session = self.start("line")
        names = set()
        for _ in range(4):
            self.assertStopped(session.do("continue"), "line")
            names.add(session.do("p name").strip())
            self.assertEqual(session.do("threads").count("at the prompt"), 1)
        self.assertEqual(names, {"0", "1", "2", "3"})
        self.assertEnds(session, "done")

    def write_many(self):
        """50 threads pass the breakpoint 20 times each."""
        self.write("""\
            import threading
            def run():
                for n in range(20):
                    passed = n               # line
            threads = [threading.Thread(target=run) for _ in range(50)]
            for thread in threads: thread.start()
            for thread in threads: thread.join()
            print("done")                    # end
            """)

    def test_counts_of_many_threads_are_exact(self):
        """Every tenth pass fulfils the condition, and the first 90 of these are ignored."""
        self.write_many()
        session = self.start("line if n % 10 == 3")
        session.do("ignore 1 90")
        for _ in range(10):
            self.assertStopped(session.do("continue"), "line")
            self.assertIn(session.do("p n").strip(), ("3", "13"))
        self.assertEnds(session, "done")
        # `ignore` reports 1000 passes: each evaluated the condition.

    def test_every_pass_of_many_threads_is_counted(self):
        self.write_many()
        session = self.start("line if False", "end")
        self.assertStopped(session.do("continue"), "end")
        self.assertIn("breakpoint already hit 1000 times", session.do("break"))
        session.end("quit")


COUNTERS = """\
    import threading, _thread
    go, rounds = True, {"loop": 0, "one line": 0, "raw": 0}
    def loop():
        while go:
            rounds["loop"] += 1
    def one_line():
        while go: rounds["one line"] += 1
    def raw():
        while go:
            add("raw")
    def add(name):
        rounds[name] += 1
    def stop():
        global go
        go = False
    threads = [threading.Thread(target=loop, name="counter"), threading.Thread(target=one_line, name="liner")]
    for thread in threads:
        thread.start()
    _thread.start_new_thread(raw, ())
    while not all(rounds.values()):
        pass
    here = 1                                 # here
    before = sum(rounds.values())
    while sum(rounds.values()) == before: pass
    here = 3                                 # next
    stop()
    for thread in threads:
        thread.join()
    print("done")
    """


class HoldingTest(ThreadsTestCase):

    def assertStandStill(self, session):
        before = session.do("p rounds")
        for _ in range(3):
            session.do("p sum(range(100000))")       # time for the others, if they can go on
        self.assertEqual(session.do("p rounds"), before)
        return before

    def test_others_stand_still_and_go_on(self):
        self.write(COUNTERS)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        self.wait_until_held(session, 3)
        self.assertStandStill(session)
        session.do("next")
        session.do_until("next", "# next")           # they went on: the loop has ended
        self.wait_until_held(session, 3)
        self.assertStandStill(session)
        self.assertEnds(session, "done")

    def test_thread_that_is_started_meanwhile_is_held(self):
        """By the user, at the prompt, who need not wait for it."""
        for many in False, True:
            with self.subTest(many=many):
                self.write("""\
                    import threading
                    rounds, go = [0], True
                    def count():
                        while go:
                            rounds[0] += 1
                    def other():
                        while go:
                            pass
                    def begin(function):
                        thread = threading.Thread(target=function)
                        thread.start()
                        return thread
                    begin(lambda: None).join()
                    MANY and begin(other)
                    here = 1                         # here
                    while not rounds[0]:
                        pass
                    go = False
                    print("done")
                    """.replace("MANY", str(many)))
                session = self.start("here")
                self.assertStopped(session.do("continue"), "here")
                session.do("!begin(count)")
                self.wait_until_held(session, 1 + many)
                self.assertEqual(session.do("p rounds").strip(), "[0]")
                self.assertEnds(session, "done")

    def test_steps_from_a_pipe_arm_nothing_again(self):
        """A thread that is alone has nobody to hold."""
        self.write("""\
            from brixdebug.monitor import monitor
            here = 1                                 # here
            before = monitor.switches.epoch
            one = 1
            two = 2
            print(monitor.switches.epoch - before)
            """)
        session = self.start("here")
        session.do("continue")
        for _ in range(4):
            session.do("next")
        self.assertEqual(session.do("next").partition("\n")[0], "0")
        session.end("quit")

    def test_own_threads_of_a_debugger_are_not_debugged(self):
        """Not stopped, and not held."""
        self.write("""\
            import threading, _thread
            from brixdebug.monitor import monitor
            from brixdebug.suspension import own_thread_ids
            rounds, go = [0], True
            def own():
                monitor.suspension.adopt_thread()
                while go:
                    rounds[0] += 1                   # own
            thread = threading.Thread(target=own)
            thread.start()
            while not rounds[0]: pass
            here = 1                                 # here
            go = False
            thread.join()
            for _ in range(20):                      # some get the id that was its own
                thread = threading.Thread(target=print, args=("other",))
                thread.start()
                thread.join()
            print(own_thread_ids, "done")
            """)
        session = self.start("here", "own")
        self.assertStopped(session.do("continue"), "here")
        before = session.do("p rounds")
        for _ in range(2000):
            if session.do("p rounds") != before:
                break
        else:
            self.fail("the debugger's own thread stands still")
        self.assertEnds(session, "set() done")

    def test_thread_in_c_code_is_held_when_it_comes_back(self):
        self.write("""\
            import sys, threading, queue
            wake = queue.SimpleQueue()
            def wait():
                wake.get()
                back = 1
            thread = threading.Thread(target=wait, name="waiter", daemon=True)
            thread.start()
            while True:
                frame = sys._current_frames()[thread.ident]
                if (frame.f_code, frame.f_lineno) == (wait.__code__, wait.__code__.co_firstlineno + 1):
                    break
            here = 1                                 # here
            thread.join()
            print("done")
            """)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        self.assertRegex(session.do("threads"), r"running +waiter")
        session.do("!wake.put(1)")
        session.do_until("threads", " held ")
        self.assertEnds(session, "done")

    def test_thread_that_ends_at_the_prompt_keeps_no_other_back(self):
        """It was in C code and comes back to no event: it ends though it is held, and its record with it."""
        self.write("""\
            import _thread, threading, queue
            started, wake, rounds, go = threading.Event(), queue.SimpleQueue(), [0, 0], True
            def wait():
                started.set()
                wake.get()
            def count(number):
                while go:
                    rounds[number] += 1
            threads = [threading.Thread(target=count, args=(number,)) for number in range(2)]
            threads[0].start()
            _thread.start_new_thread(wait, ())
            started.wait()
            threads[1].start()
            here = 1                                 # here
            before = rounds[:]
            while rounds[0] == before[0] or rounds[1] == before[1]:
                pass
            go = False
            print("done")
            """)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        self.wait_until_held(session, 2)
        session.do("!wake.put(1)")
        session.do_until("p _thread._count()", "2\n")
        self.assertEnds(session, "done")


class CommandsTest(ThreadsTestCase):

    def at_prompt(self):
        self.write(COUNTERS)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        return session

    def test_threads_lists_number_state_name_and_place(self):
        session = self.at_prompt()
        self.wait_until_held(session, 3)
        lines = session.do("info threads").splitlines()
        self.assertEqual(lines[0].split(), ["Num", "State", "Name", "Place"])
        self.assertEqual(lines[1].split(None, 5), [">", "1", "at", "the", "prompt",
                         "MainThread           %s(%d)<module>()" % (self.program, line_of(self.program, "here"))])
        self.assertRegex("\n".join(lines), r"\n  \d +held +counter +%s\(\d\)loop\(\)" % re.escape(str(self.program)))
        self.assertRegex("\n".join(lines), r"\n  \d +held +thread \d+ +%s\(\d+\)(raw|add)\(\)"
                         % re.escape(str(self.program)))
        self.assertEqual(len(lines), 5)
        self.assertEnds(session, "done")

    def test_errors(self):
        session = self.at_prompt()
        for command, answer in (
                ("thread one", "*** Thread number expected (see threads)\n"),
                ("thread 99", "*** There is no thread 99 (see threads)\n"),
                ("threads 1", "*** The command takes no argument\n")):
            with self.subTest(command):
                self.assertEqual(session.do(command), answer)
        self.assertIn("List the program's threads", session.do("help threads"))
        self.assertIn("thread NUMBER", session.do("help thread"))
        self.assertEnds(session, "done")

    def test_names_of_the_program_come_first_where_it_is_an_expression(self):
        session = self.at_prompt()
        self.assertEqual(session.do("threads[0].name"), "'counter'\n")
        self.assertEqual(session.do("thread is threads[-1]").strip(), "*** Thread number expected (see threads)")
        session.do("thread = 5")
        self.assertEqual(session.do("p thread"), "5\n")
        session.do("thread += 1")
        self.assertEqual(session.do("p thread"), "6\n")
        session.end("quit")

    def test_thread_shows_the_stack_of_another(self):
        session = self.at_prompt()
        number = self.number_of(session, "counter")
        session.do_until("threads", "held           counter")
        self.assertRegex(session.do("thread " + number), r"\)loop\(\)\n")
        where = session.do("where")
        self.assertRegex(where, r"threading\.py\(\d+\)_bootstrap\(\)(.|\n)*\)loop\(\)")
        self.assertNotIn("<module>", where)
        self.assertRegex(session.do("threads"), r"\n> %s +held +counter" % number)
        self.assertIn("<module>", session.do("thread 1"))
        self.assertEnds(session, "done")

    def test_step_is_for_the_thread_that_is_looked_at(self):
        self.write("""\
            import threading
            go, ready = [True], threading.Event()
            def other():
                while go:
                    ready.set()                      # first
                    a = 1                            # second
                b = 2                                # after
            thread = threading.Thread(target=other, name="other")
            thread.start()
            ready.wait()
            here = 1                                 # here
            thread.join()                            # join
            print("done")
            """)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        session.do_until("threads", "held           other")
        session.do("thread " + self.number_of(session, "other"))
        for _ in range(4):
            printed = session.do("next")
            self.assertRegex(printed, r"> .*\)other\(\)\n")
        session.do("!go.clear()")
        session.do_until("next", "b = 2", 4)
        self.assertEnds(session, "done")

    def test_step_of_a_held_thread_goes_on_by_one_line(self):
        """From where it is held: the line has not run, or is in the middle of it."""
        self.write("""\
            import threading
            go, rounds = [True], dict.fromkeys("abc", 0)
            def other():
                name, n = threading.current_thread().name, 0
                while go:                                # loop
                    n += 1                               # first
                    n += 1                               # second
                    n += 1                               # third
                    rounds[name] += 1                    # round
            threads = [threading.Thread(target=other, name=name) for name in rounds]
            for each in threads: each.start()
            while min(rounds.values()) < 3:
                pass
            here = 1                                     # here
            for each in threads: each.join()
            print("done")
            """)
        session = self.start("here")
        self.assertStopped(session.do("continue"), "here")
        lines = [line_of(self.program, mark) for mark in ("loop", "first", "second", "third", "round")]
        for name in "abcabc":
            session.do_until("threads", lambda printed: not re.search(r"running +[abc] ", printed))
            line = int(re.search(r"program\.py\((\d+)\)other", session.do("thread " + self.number_of(session, name)))[1])
            n = int(session.do("p n"))
            for _ in range(3):
                n += line in lines[1:4]
                line = lines[(lines.index(line) + 1) % 5]
                self.assertIn("> %s(%d)other()" % (self.program, line), session.do("next"))
                self.assertEqual(session.do("p name, n"), "('%s', %d)\n" % (name, n))
        session.do("clear 1")
        session.do("!go.clear()")
        self.assertEnds(session, "done")


class StepTest(ThreadsTestCase):
    """A step belongs to the thread that it was asked for."""

    PROGRAM = """\
        import threading
        begin, passed = threading.Event(), threading.Event()
        def other():
            begin.wait()
            inside = 1                               # other
            passed.set()
        def call():
            begin.set()
            passed.wait()
            a = 1                                    # in call
            return a                                 # return
        thread = threading.Thread(target=other)
        thread.start()
        first = call()                               # call
        second = 2                                   # after
        thread.join()
        print("done")
        """

    def stop_in_other(self, command, *breakpoints):
        self.write(self.PROGRAM)
        session = self.start(*breakpoints, "other")
        printed = session.do("continue")
        for _ in range(1, len(breakpoints)):
            session.do("continue")
        self.assertStopped(printed, breakpoints[0])
        self.assertStopped(session.do(command), "other")
        return session

    def test_next_over_a_call_while_another_thread_stops(self):
        session = self.stop_in_other("next", "call")
        self.assertStopped(session.do("continue"), "after")
        self.assertEnds(session, "done")

    def test_until(self):
        self.write(self.PROGRAM)
        session = self.start("call", "other")
        session.do("continue")
        self.assertStopped(session.do("until %d" % line_of(self.program, "after")), "other")
        self.assertStopped(session.do("continue"), "after")
        self.assertEnds(session, "done")

    def test_return(self):
        self.write(self.PROGRAM)
        session = self.start("call", "other")
        self.assertStopped(session.do("continue"), "call")
        session.do("step")
        session.do("step")
        self.assertStopped(session.do("return"), "other")
        printed = session.do("continue")
        self.assertIn("--Return--", printed)
        self.assertStopped(printed, "return")
        self.assertEnds(session, "done")

    def test_next_in_both_threads(self):
        """Both steps are waited for, whichever thread gets there first."""
        self.write("""\
            import threading
            begin, one, two = threading.Event(), threading.Event(), threading.Event()
            def other():
                begin.wait()
                inside = 1                               # other
                two.set(), one.wait()                    # other waits
                inside = 3                               # other on
            def call():
                begin.set()
                two.wait(), one.set()
            thread = threading.Thread(target=other)
            thread.start()
            first = call()                               # call
            second = 2                                   # after
            thread.join()
            print("done")
            """)
        session = self.start("call", "other")
        self.assertStopped(session.do("continue"), "call")
        self.assertStopped(session.do("next"), "other")
        self.assertStopped(session.do("next"), "other waits")
        stops = {self.mark(session.do("next")), self.mark(session.do("continue"))}
        self.assertEqual(stops, {"other on", "after"})
        self.assertEnds(session, "done")

    def mark(self, printed):
        number = int(re.search(r"> .*\((\d+)\)", printed)[1])
        line = self.program.read_text().splitlines()[number - 1]
        return line.partition("# ")[2]

    def test_step_of_a_thread_that_has_ended_is_forgotten(self):
        """Thread ids are used again at once."""
        self.write("""\
            import threading
            ids = set()
            def run():
                ids.add(threading.get_ident())       # run
            def begin():
                thread = threading.Thread(target=run)
                thread.start()
                thread.join()
            def rest():
                for _ in range(20):
                    begin()
                print(len(ids) < 21, "done")
            begin(); rest()
            """)
        session = self.start("run")
        self.assertStopped(session.do("continue"), "run")
        session.do("clear 1")
        printed = session.do("next")
        for _ in range(30):
            if "done" in printed:
                break
            self.assertRegex(printed, r"--Return--\n> .*\)run\(\)->None|threading.py")
            printed = session.do("next")
        self.assertIn("True done\n", printed)
        session.end("quit")


class EndTest(ThreadsTestCase):

    def test_quit_in_another_thread_ends_the_program(self):
        self.write("""\
            import threading
            go = True
            def other():
                here = 1                             # other
            thread = threading.Thread(target=other)
            thread.start()
            while go:
                pass
            print("not reached")
            """)
        session = self.start("other")
        self.assertStopped(session.do("continue"), "other")
        printed, status = session.end("quit")
        self.assertEqual((printed, status), ("", 0))

    def test_quit_ends_all_threads(self):
        self.write(COUNTERS + "\n")
        session = self.start("here")
        session.do("continue")
        self.assertEqual(session.end("quit"), ("", 0))

    def test_quit_while_the_main_thread_waits_for_the_other(self):
        self.write("""\
            import threading
            def other():
                here = 1                             # other
            thread = threading.Thread(target=other)
            thread.start()
            thread.join()
            print("not reached")
            """)
        session = self.start("other")
        session.do("continue")
        self.assertEqual(session.end("quit"), ("", 0))

    def test_daemon_threads_at_the_end(self):
        """They run on while the interpreter ends, on a line with a breakpoint; one of them may stop there at last."""
        self.write("""\
            import threading, brixdebug
            ready = threading.Event()
            def forever():
                while True:
                    ready.set()                      # loop
            brixdebug.set_trace()
            for _ in range(3):
                threading.Thread(target=forever, daemon=True).start()
            ready.wait()
            """)
        for _ in range(5):
            # What a thread holds that the interpreter stops for good is never given back.
            child = run_session(self.program, commands=["break 5, False", "continue"], ASAN_OPTIONS="detect_leaks=0")
            self.assertEqual((child.returncode, child.stderr), (0, ""), child.stdout)

    def test_set_trace_in_a_thread_of_a_program_that_nobody_watched(self):
        self.write("""\
            import threading
            def other():
                import brixdebug; brixdebug.set_trace()
                here = 1                             # here
                here = 2                             # next
            thread = threading.Thread(target=other)
            thread.start()
            thread.join()
            print("done")
            """)
        session = Session(self, self.program)
        session.prompt()
        session.do_until("next", "here = 2", 3)
        self.assertEqual(session.end("continue"), ("done\n", 0))


class NamesTest(ThreadsTestCase):

    def test_names_of_threads(self):
        """The record has the name that `threading` knows, also of a thread that it did not start."""
        self.write("""\
            import _thread, threading, optmonitoring
            from brixdebug import engine
            names = {}
            class Debugger(engine.Bdb):
                def user_line(self, frame):
                    names[frame.f_locals["name"]] = optmonitoring.CPerThread.GetPerThread().fThreadName
                    self.set_continue()
            def function(name):
                return name
            debugger = Debugger()
            debugger.set_break(__file__, 9)
            debugger.stop_states.own().run_freely()
            debugger.start_trace()
            threads_before = threading.active_count()
            function("main")
            for name in "one", "two":
                thread = threading.Thread(target=function, args=(name,), name="thread " + name)
                thread.start()
                thread.join()
            done = _thread.allocate_lock()
            done.acquire()
            def raw():
                function("raw")
                names["id"] = _thread.get_ident()
                done.release()
            _thread.start_new_thread(raw, ())
            done.acquire()
            print(names["main"], names["one"], names["two"], names["raw"] == "thread %d" % names["id"])
            print(threading.active_count() - threads_before)
            debugger.stop_trace()
            """)
        self.assertEqual(check_child(self, self.program), "MainThread thread one thread two True\n0\n")


if __name__ == "__main__":
    unittest.main()
