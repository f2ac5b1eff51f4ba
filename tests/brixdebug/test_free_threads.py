"""Eight threads that run at the same time: on a free-threaded interpreter, with its lock off.

What is said here of stops, counts and steps holds with the lock as well, where other modules test it; here nothing but the
debugger's own locks keeps threads apart.
"""

import collections
import sysconfig
import textwrap
import unittest

from dap_client import AdapterTestCase
from host_support import check_child, scratch_folder
from session import Session, line_of, write_program

LOCK_OFF = {"PYTHON_GIL": "0"}
THREADS = 8
needs_free_threads = unittest.skipUnless(sysconfig.get_config_var("Py_GIL_DISABLED"), "this interpreter is not free-threaded")

# Of every child: a debugger that counts its stops, by thread and line, and threads that run `work`.
PRELUDE = """\
    import bdb, collections, sys, threading
    from brixdebug import engine
    from brixdebug.conditions import HitCondition
    from brixdebug.monitor import monitor

    assert not sys._is_gil_enabled()

    class Debugger(engine.Bdb):
        def __init__(self):
            super().__init__()
            self.stops = collections.Counter()
            self.on_stop = lambda frame: self.set_continue()
        def user_line(self, frame):
            self.stops[threading.current_thread().name, frame.f_lineno] += 1
            self.on_stop(frame)
        def begin(self):
            self.reset()
            self.botframe = sys._getframe(1)
            self.set_continue()
            self.start_trace()
        def per_thread(self, line):
            return {name: self.stops[name, line] for name in NAMES}

    def lines_of(function):
        return sorted({line for _, _, line in function.__code__.co_lines() if line})

    def start(work, *arguments):
        threads = [threading.Thread(target=work, args=(name, *arguments), name=name, daemon=True) for name in NAMES]
        for each in threads: each.start()
        return threads

    def join(threads):
        for each in threads: each.join()

    def wait_for_rounds(rounds):
        # until each thread has gone ten times more through its loop
        before = dict(rounds)
        while any(rounds[name] < before[name] + 10 for name in NAMES):
            pass

    NAMES = ["worker %d" % number for number in range(8)]
    debugger = Debugger()
    """


@needs_free_threads
class EngineTest(unittest.TestCase):
    def check(self, text):
        """The child's assertions hold, and it ends silently."""
        self.folder = scratch_folder(self)
        program = write_program(self.folder, textwrap.dedent(PRELUDE) + textwrap.dedent(text))
        self.assertEqual(check_child(self, program, cwd=self.folder, **LOCK_OFF), "")

    def test_thread_whose_frames_of_ours_are_just_ending_is_found(self):
        """For a moment they have no frame behind them; a generator's that does not run has none either."""
        self.check("""\
            from brixdebug import colors, suspension
            debugger.begin()
            debugger.set_break(__file__, lines_of(join)[-1])
            frame = colors._colored_parts("").gi_frame
            assert frame.f_back is None
            look, looks = sys._current_frames, []
            def current_frames():
                looks.append(look())
                return {each: frame for each in looks[0]} if len(looks) < 3 else looks[-1]
            sys._current_frames = current_frames
            found = suspension.debugged_frames()
            assert list(found) == [threading.get_ident()], found
            assert len(looks) == 3, looks
            debugger.stop_trace()
            """)

    def test_frame_that_has_just_ended_on_its_thread(self):
        """It is there without its code object, and with the frames behind it."""
        self.check("""\
            import types
            from brixdebug.suspension import _add_records
            records, own = {}, sys._getframe()
            _add_records(types.SimpleNamespace(f_code=None, f_back=own), records)
            assert [each.fCodeObjectWeakRef() for each in records] == [own.f_code]
            """)

    def test_code_that_a_thread_comes_back_to(self):
        """Nobody walks over the frames of a thread that runs: it finds its own code, that of its callers too.  No line is
        reported after that."""
        self.check("""\
            import optmonitoring
            E = sys.monitoring.events
            begun, go = threading.Event(), threading.Lock()
            go.acquire()
            def work(name):
                inner()
                passed = 1
            def inner():
                begun.set()
                go.acquire()
                passed = 2
                go.acquire()
                passed = 3
            debugger.on_stop = lambda frame: debugger.set_continue()
            debugger.begin()
            thread = threading.Thread(target=work, args=("",))
            thread.start()
            begun.wait()
            line = lines_of(work)[-1]
            assert debugger.set_break(__file__, line) is None
            assert optmonitoring.CPerCodeObject.GetPerCodeObject(work.__code__, False) is None
            go.release()
            while optmonitoring.CPerCodeObject.GetPerCodeObject(work.__code__, False) is None: pass
            while sys.monitoring.get_events(4) & E.LINE: pass
            go.release()
            thread.join()
            assert [each[1] for each in debugger.stops] == [line], debugger.stops
            debugger.stop_trace()
            """)

    def test_lines_are_in_what_threads_look_into_without_a_lock(self):
        self.check("""\
            import optmonitoring
            def work():
                passed = 1
                again = 2
            line = lines_of(work)[1]
            seen = []
            def on_stop(frame):
                seen.append(optmonitoring.CPerCodeObject.GetPerCodeObject(work.__code__).fEnabledBpLinenos)
                debugger.set_continue() if seen[1:] else debugger.set_next(frame)
            debugger.on_stop = on_stop
            debugger.begin()
            debugger.set_break(__file__, line)
            work()
            debugger.stop_trace()
            # where no thread steps the lines without a breakpoint are switched off
            assert seen[0] is None and type(seen[1]) is frozenset and seen[1:] == [{line}], seen
            """)

    def test_each_hit_in_each_thread_is_a_stop(self):
        self.check("""\
            def work(name):
                for n in range(100):
                    passed = n
            line = lines_of(work)[-1]
            debugger.begin()
            assert debugger.set_break(__file__, line) is None
            join(start(work))
            debugger.stop_trace()
            assert debugger.per_thread(line) == dict.fromkeys(NAMES, 100), debugger.stops
            assert bdb.Breakpoint.bpbynumber[1].hits == 800
            """)

    def test_counts_are_exact_where_each_thread_has_code_of_its_own(self):
        """What is one breakpoint then is reached by all at the same time, with no lock of a code object between them."""
        self.check("""\
            import pathlib
            path = pathlib.Path(__file__).with_name("work.py")
            path.write_text("for n in range(2000):\\n    passed = n\\n    again = n\\n    third = n\\n")
            debugger.begin()
            debugger.set_break(str(path), 2, cond="n < 0")
            debugger.set_break(str(path), 3, cond="n % 2 == 0", hit_condition=HitCondition.parse("% 1000"))
            debugger.set_break(str(path), 4, cond="n % 10 == 0")
            bdb.Breakpoint.bpbynumber[3].ignore = 1590
            ready = threading.Barrier(8)
            def work(name):
                code = compile(path.read_text(), str(path), "exec")
                ready.wait()
                exec(code, {})
            join(start(work))
            debugger.stop_trace()
            never, counted, ignored = bdb.Breakpoint.bpbynumber[1:]
            by_line = collections.Counter()
            for (name, line), times in debugger.stops.items():
                by_line[line] += times
            assert (never.hits, counted.hits, counted.true_hits, ignored.hits) == (16000, 16000, 8000, 16000), \\
                (never.hits, counted.hits, counted.true_hits, ignored.hits)
            assert by_line == {3: 8, 4: 10}, by_line
            """)

    def test_breakpoints_that_are_set_and_cleared_while_all_run(self):
        """Each thread stops at each of them, and at none that has been cleared."""
        self.check("""\
            go, here = True, threading.Event()
            rounds = dict.fromkeys(NAMES, 0)
            def work(name):
                while go:
                    a = 1
                    b = 2
                    c = 3
                    d = 4
                    e = 5
                    rounds[name] += 1
            def stopped(frame):
                if all(debugger.per_thread(wanted).values()):
                    here.set()
                debugger.set_continue()
            debugger.on_stop = stopped
            debugger.begin()
            threads = start(work)
            cleared = {}
            for _ in range(3):
                for wanted in lines_of(work)[2:]:
                    for name in NAMES:
                        debugger.stops.pop((name, wanted), None)
                    here.clear()
                    assert debugger.set_break(__file__, wanted) is None
                    assert here.wait(250), (wanted, debugger.per_thread(wanted))
                    debugger.clear_break(__file__, wanted)
                    cleared[wanted] = debugger.per_thread(wanted)
            wait_for_rounds(rounds)
            assert {line: debugger.per_thread(line) for line in cleared} == cleared
            go = False
            join(threads)
            debugger.stop_trace()
            """)

    def test_threads_that_begin_and_end_meanwhile(self):
        self.check("""\
            def once(number):
                passed = number
            def work(name):
                for number in range(40):
                    thread = threading.Thread(target=once, args=(number,), name=name)
                    thread.start()
                    thread.join()
            line = lines_of(once)[-1]
            debugger.begin()
            debugger.set_break(__file__, line)
            join(start(work))
            debugger.stop_trace()
            assert debugger.per_thread(line) == dict.fromkeys(NAMES, 40), debugger.stops
            """)

    def test_one_thread_is_stepped_while_seven_go_on(self):
        self.check("""\
            go, rounds, seen = True, dict.fromkeys(NAMES, 0), []
            def work(name):
                while go:
                    rounds[name] += 1
                    second = 2
            def stepped(frame):
                if not seen:
                    debugger.clear_break(__file__, first)
                seen.append((threading.current_thread().name, frame.f_lineno))
                if len(seen) <= 60:
                    debugger.set_next(frame)
                else:
                    done.set()
                    debugger.set_continue()
            debugger.on_stop = stepped
            done = threading.Event()
            debugger.begin()
            threads = start(work)
            loop, first, second = lines_of(work)[1:]
            debugger.set_break(__file__, first, cond="name == 'worker 3'")
            assert done.wait(250), seen
            wait_for_rounds(rounds)
            go = False
            join(threads)
            debugger.stop_trace()
            steps = [first, second, loop] * 21
            assert seen == [("worker 3", line) for line in steps[:61]], seen
            """)

    def test_all_stand_while_one_is_stopped(self):
        self.check("""\
            go, rounds, moved = True, dict.fromkeys(NAMES, 0), []
            def work(name):
                while go:
                    rounds[name] += 1
                    last = rounds[name]
            def hold(frame):
                with monitor.suspension.others_held():
                    own = threading.get_ident()
                    while not all(monitor.suspension.is_waiting(each.ident) for each in threads if each.ident != own):
                        pass
                    before = dict(rounds)
                    sum(range(100000))
                    moved.append(rounds != before)
                debugger.set_continue()
            ended = threading.Event()
            debugger.on_stop = lambda frame: (hold(frame), len(moved) == 10 and ended.set())
            debugger.begin()
            threads = [threading.Thread(target=work, args=(name,), name=name, daemon=True) for name in NAMES]
            for each in threads: each.start()
            line = lines_of(work)[-1]
            debugger.set_break(__file__, line)
            assert ended.wait(250), moved
            debugger.clear_break(__file__, line)
            wait_for_rounds(rounds)
            go = False
            join(threads)
            debugger.stop_trace()
            assert not any(moved), moved
            """)


HITS = """\
    import sys, threading
    assert not sys._is_gil_enabled()
    go, hits, ready = True, {}, threading.Barrier(8)
    def work(number):
        ready.wait()
        for n in range(5):
            hits[number] = n + 1            # line
    def turn():
        while go:
            turned = 1                      # turn
    def run(*names_and_targets):
        threads = [threading.Thread(target=target, args=arguments) for target, *arguments in names_and_targets]
        for each in threads: each.start()
        for each in threads: each.join()
    run(*((work, number) for number in range(8)))
    print("all", sorted(hits.values()))     # all
    run(*((turn,) for number in range(8)))
    """


@needs_free_threads
class PromptTest(unittest.TestCase):
    def setUp(self):
        self.program = write_program(scratch_folder(self), HITS)

    def line(self, mark):
        return line_of(self.program, mark)

    def test_stops_in_threads_that_run(self):
        session = Session(self, "-m", "brixdebug", self.program, **LOCK_OFF)
        session.prompt()
        session.do("break %d" % self.line("line"))
        found = collections.Counter()
        for _ in range(5 * THREADS):
            self.assertIn("(%d)work()" % self.line("line"), session.do("continue"))
            found[session.do("p number").strip()] += 1
        self.assertEqual(found, {str(number): 5 for number in range(THREADS)})
        session.do("clear 1")
        session.do("break %d" % self.line("turn"))
        self.assertIn("all [5, 5, 5, 5, 5, 5, 5, 5]", session.do("continue"))
        for _ in range(20):
            self.assertIn("(%d)turn()" % self.line("turn"), session.do("continue"))
        session.do("clear 2")
        session.do("!globals().update(go=False)")
        self.assertIn("The program finished", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)


COUNTS = """\
    import sys, threading
    assert not sys._is_gil_enabled()
    running, counts, ready = True, [0] * 8, threading.Barrier(9)
    def count(number):
        ready.wait()
        while running:                      # loop
            counts[number] += 1             # count
            last = counts[number]           # last
    threads = [threading.Thread(target=count, args=(number,), name="counter %d" % number) for number in range(8)]
    for each in threads:
        each.start()
    ready.wait()
    for each in threads:
        each.join()
    print("end")
    """


@needs_free_threads
class AdapterTest(AdapterTestCase):
    def test_each_hit_in_each_thread_is_a_stop(self):
        path = self.program(HITS.replace("run(*((turn,) for number in range(8)))\n", ""))
        client = self.client(**LOCK_OFF)
        client.launch(path, {path: [line_of(path, "line")]})
        found = collections.Counter()
        for _ in range(5 * THREADS):
            stop = client.wait_for_stop("breakpoint")
            self.assertEqual(stop["frame"]["line"], line_of(path, "line"))
            found[client.locals(stop["frame"]["id"])["number"]["value"]] += 1
            client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(found, {str(number): 5 for number in range(THREADS)})
        self.assertEqual(client.output["stdout"], "all [5, 5, 5, 5, 5, 5, 5, 5]\n")

    def counts(self, client):
        return eval(client.evaluate("counts", client.frames(1)[-1]["id"], "watch"))

    def test_breakpoints_that_come_and_go_and_steps_of_each_thread_alone(self):
        path = self.program(COUNTS)
        client = self.client(**LOCK_OFF)
        client.launch(path)
        for mark in ("count", "last") * 4:
            client.set_breakpoints(path, [line_of(path, mark)])
            self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], line_of(path, mark))
            client.set_breakpoints(path, [])
            client.go_on()
        client.ask("pause", threadId=1)
        client.wait_for_stop("pause")
        numbers = {each["name"]: each["id"] for each in client.ask("threads")["threads"]}
        for _ in range(2):
            for number in range(THREADS):
                thread_id = numbers["counter %d" % number]
                counts = []
                for _ in range(4):           # from where it was held to a line, and once through the loop
                    client.ask("next", threadId=thread_id, singleThread=True)
                    self.assertEqual(client.wait_for_stop("step")["threadId"], thread_id)
                    counts.append(self.counts(client))
                expected = list(counts[0])
                expected[number] += 1
                self.assertEqual(counts[-1], expected)
        for number in [*range(THREADS)] * 2:     # the others go on too, and are held again
            thread_id = numbers["counter %d" % number]
            line, count = client.frames(thread_id)[0]["line"], self.counts(client)[number]
            client.ask("next", threadId=thread_id)
            stop = client.wait_for_stop("step")
            self.assertEqual(stop["threadId"], thread_id)
            lines = [line_of(path, mark) for mark in ("loop", "count", "last")]
            self.assertEqual((stop["frame"]["line"], self.counts(client)[number]),
                             (lines[(lines.index(line) + 1) % 3], count + (line == lines[1])))
        client.evaluate("globals().update(running=False)", client.frames(1)[-1]["id"])
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "end\n")


if __name__ == "__main__":
    unittest.main()
