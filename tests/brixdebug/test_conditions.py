"""Breakpoints that stop at some of their hits alone, and those that log in place of stopping."""

import textwrap
import unittest

from host_support import check_child, scratch_folder
from session import line_of, run_session, write_program

LOOP = """\
    import sys
    LIMIT = 1
    def work(count):
        total = 0
        for index in range(count):
            total += index               # here
        return total                     # end
    print("done", work(int(sys.argv[1])))
"""


class StatementTest(unittest.TestCase):
    def test_place_of_a_statement_keeps_no_code_alive(self):
        check_child(self, write_program(scratch_folder(self), """\
            import gc, weakref
            from brixdebug.statements import offset_in
            code = compile("a = 1; b = 2", "program.py", "exec")
            assert offset_in(code, (1, 7, 1, 12)) > offset_in(code, (1, 0, 1, 5))
            reference = weakref.ref(code)
            del code
            gc.collect()                     # on a free-threaded interpreter no code dies before
            assert reference() is None
            """))


class CommandsTest(unittest.TestCase):
    def setUp(self):
        self.path = write_program(scratch_folder(self), LOOP)
        self.here, self.end = line_of(self.path, "here"), line_of(self.path, "end")

    def session(self, *commands, count=10):
        """What is printed, line by line, but for the prompt."""
        child = run_session("-m", "brixdebug", self.path, count, commands=commands)
        self.assertEqual(child.stderr, "")
        return child.stdout.replace("(Pdb) ", "").splitlines()

    def values(self, *commands, count=10):
        """The numbers printed by `p index` and `p total` at the stops."""
        return [int(line) for line in self.session(*commands, count=count) if line.isdigit()]

    def test_hit_number(self):
        self.assertEqual(self.values("break %d" % self.here, "hits 1 == 4", "c", "p index", "c", "q"), [3])

    def test_from_a_hit_on(self):
        self.assertEqual(self.values("break %d" % self.here, "hits 1 >= 9", "c", "p index", "c", "p index", "c", "q"),
                         [8, 9])

    def test_each_nth_hit(self):
        self.assertEqual(self.values("break %d" % self.here, "hits 1 % 4", "c", "p index", "c", "p index", "c", "q"),
                         [3, 7])

    def test_hits_are_counted_where_the_condition_is_true(self):
        commands = ["break %d, index %% 2" % self.here, "hits 1 == 3", "c", "p index", "c", "q"]
        self.assertEqual(self.values(*commands), [5])

    def test_ignore_counts_the_hits_that_are_left(self):
        commands = ["break %d" % self.here, "hits 1 % 2", "ignore 1 2", "c", "p index", "c", "p index", "clear 1", "c", "q"]
        self.assertEqual(self.values(*commands), [5, 7])

    def test_each_hit_again(self):
        commands = ["break %d" % self.here, "hits 1 == 100", "hits 1", "c", "p index", "q"]
        self.assertEqual(self.values(*commands), [0])

    def test_hits_are_counted_anew_when_the_program_begins_again(self):
        commands = ["break %d" % self.here, "hits 1 == 4", "c", "p index", "run 10", "c", "p index", "q"]
        self.assertEqual(self.values(*commands), [3, 3])

    def test_nonsense_is_an_error_when_it_is_typed(self):
        for text, error in [("hits 1 = 3", "hit condition expected: == N, >= N, <= N, > N, < N or % N"),
                            ("hits 1 sometimes", "hit condition expected: == N, >= N, <= N, > N, < N or % N"),
                            ("hits 1 % 0", "hits are counted from 1"),
                            ("hits 7 == 1", "Breakpoint number 7 out of range"),
                            ("hits", "A breakpoint number and a hit condition are expected: hits NUMBER == N")]:
            with self.subTest(text=text):
                self.assertIn("*** " + error, self.session("break %d" % self.here, text, "q"))

    def test_listed(self):
        lines = self.session("break %d, index" % self.here, "hits 1 % 3", "dprintf %d, sum {total}" % self.end, "break", "q")
        self.assertEqual(lines[-5:], ["1   breakpoint   keep yes   at %s:%d" % (self.path, self.here),
                                      "\tstop only if index", "\tstop only at hits % 3",
                                      "2   breakpoint   keep yes   at %s:%d" % (self.path, self.end), "\tlog sum {total}"])

    def test_log_in_place_of_stopping(self):
        lines = self.session("dprintf %d, at {index}: {total:03d}, {{}} and {LIMIT!r}" % self.here, "c", "q", count=3)
        self.assertIn("at 0: 000, {} and 1", lines)
        self.assertIn("at 1: 000, {} and 1", lines)
        self.assertIn("at 2: 001, {} and 1", lines)
        self.assertIn("done 3", lines)
        self.assertNotIn("> %s(%d)work()" % (self.path, self.here), lines)

    def test_a_failing_expression_shows_its_error_and_loses_nothing_else(self):
        lines = self.session("dprintf %d, {index} {missing} {1 // index} {total}" % self.here, "c", "q", count=2)
        self.assertIn("0 <NameError: name 'missing' is not defined> <ZeroDivisionError: integer division or modulo by zero> 0"
                      .replace("integer division or modulo by zero", self.division_text()), lines)
        self.assertIn("1 <NameError: name 'missing' is not defined> 1 0", lines)

    @staticmethod
    def division_text():
        try:
            return 1 // 0
        except ZeroDivisionError as error:
            return str(error)

    def test_breakpoint_in_a_condition_or_a_text_does_nothing(self):
        for command in ("break %d, breakpoint()", "dprintf %d, {breakpoint()}"):
            with self.subTest(command=command):
                lines = self.session(command % self.here, "tbreak %d" % self.end, "c", "p total", "c", "q", count=3)
                self.assertIn("3", lines)

    def test_logs_of_a_function(self):
        lines = self.session("dprintf work, count is {count}", "c", "q", count=3)
        self.assertIn("count is 3", lines)

    def test_log_with_condition_and_hits(self):
        commands = ["dprintf %d, odd {index}" % self.here, "condition 1 index % 2", "hits 1 >= 3", "c", "q"]
        self.assertEqual([line for line in self.session(*commands) if line.startswith("odd")], ["odd 5", "odd 7", "odd 9"])

    def test_a_breakpoint_behind_a_log_on_its_line_stops(self):
        commands = ["dprintf %d, seen {index}" % self.here, "break %d, index == 2" % self.here, "c", "p index", "q"]
        lines = self.session(*commands)
        self.assertEqual([line for line in lines if line.startswith("seen")], ["seen 0", "seen 1", "seen 2"])
        self.assertIn("2", lines)

    def test_nonsense_texts_are_errors_when_they_are_typed(self):
        for text, error in [("dprintf %d" % self.here, "A place and a text are expected: dprintf LOCATION, TEXT"),
                            ("dprintf %d, {index" % self.here, "Invalid text: '{' without '}': {index"),
                            ("dprintf %d, index}" % self.here,
                             "Invalid text: '}' without '{' (a brace itself is written twice)"),
                            ("dprintf nowhere, x", "The specified object 'nowhere' is not a function or was not found "
                             "along sys.path.")]:
            with self.subTest(text=text):
                self.assertIn("*** " + error, self.session(text, "q"))
        lines = self.session("dprintf %d, {two words}" % self.here, "q")
        self.assertTrue([line for line in lines if line.startswith("*** Invalid text: ")], lines)


ENGINE = """\
    import threading
    from brixdebug.engine import Bdb, Breakpoint

    def work(count):
        for index in range(count):
            value = index                # here

    class Counter(Bdb):
        stops = 0
        def user_line(self, frame):
            self.stops += frame.f_code is work.__code__
            self.set_continue()

    debugger = Counter()
    line = work.__code__.co_firstlineno + 2

    def call(target, *arguments):
        target(*arguments)               # here a session begins, which is no stop of a breakpoint

    def traced(target, *arguments):
        debugger.runcall(call, target, *arguments)

    def in_threads(count, times):
        threads = [threading.Thread(target=work, args=(times,)) for _ in range(count)]
        for thread in threads: thread.start()
        for thread in threads: thread.join()
"""


class EngineTest(unittest.TestCase):
    def run_engine(self, text):
        path = write_program(scratch_folder(self), textwrap.dedent(ENGINE) + textwrap.dedent(text))
        return check_child(self, path)

    def test_hits_of_several_threads_are_counted_exactly(self):
        for condition, setting, shown, expected in (
                ("index < 0", "", "breakpoint.hits, debugger.stops", "20000 0"),
                (None, "breakpoint.ignore = 15000", "breakpoint.ignore, debugger.stops", "0 5000"),
                (None, "breakpoint.hit_condition = HitCondition.parse('% 5000')", "debugger.stops", "4")):
            with self.subTest(setting or condition):
                out = self.run_engine("""
                    import sys
                    from brixdebug.conditions import HitCondition
                    sys.setswitchinterval(1e-6)
                    debugger.set_break(__file__, line, cond={!r})
                    breakpoint = Breakpoint.bpbynumber[1]
                    {}
                    traced(in_threads, 4, 5000)
                    print({})
                """.format(condition, setting, shown))
                self.assertEqual(out, expected + "\n")

    def test_a_condition_is_evaluated_once_for_a_hit(self):
        out = self.run_engine("""
            seen = []
            def note(value, result):
                seen.append(value)
                if result is None:
                    raise KeyError(value)
                return result
            debugger.set_break(__file__, line, cond="note(index, [False, True, None][index % 3])")
            traced(work, 6)
            print(seen, debugger.stops, Breakpoint.bpbynumber[1].hits)
        """)
        self.assertEqual(out, "[0, 1, 2, 3, 4, 5] 4 6\n")

    def test_a_condition_may_be_changed_and_name_anything(self):
        out = self.run_engine("""
            LIMIT = 3
            def inner(count):
                unbound = [1, 2]
                def deep():
                    for index in range(count):
                        value = index, unbound
                return deep
            line = inner.__code__.co_firstlineno + 4
            def stops(condition):
                debugger.stops = 0
                class Inner(Counter):
                    def user_line(self, frame):
                        self.stops += frame.f_code.co_name == "deep"
                        self.set_continue()
                own = Inner()
                for each in list(Breakpoint.bpbynumber):
                    if each: each.deleteMe()
                own.clear_all_breaks()
                print(own.set_break(__file__, line, cond=condition) or "", end="")
                own.runcall(call, inner(5))
                return own.stops
            print(stops("index == LIMIT"), stops("index in unbound"), stops("len(unbound) == count - 3"),
                  stops("any(each == 2 for each in unbound)"), stops("'index' in locals() and index > 2"),
                  stops("(double := index * 2) > 6"), stops(" index == 0"), stops("missing"), stops("value[0] == 1"))
        """)
        self.assertEqual(out, "1 2 5 5 2 1 1 5 2\n")

    def test_a_breakpoint_that_is_cleared_while_a_thread_waits_does_not_stop_it(self):
        out = self.run_engine("""
            class Clearer(Bdb):
                stops = 0
                def user_line(self, frame):
                    if frame.f_code is work.__code__:
                        self.stops += 1
                        self.clear_all_breaks()
                    self.set_continue()
            own = Clearer()
            own.set_break(__file__, line)
            own.runcall(in_threads, 8, 200)
            print(own.stops)
        """)
        self.assertEqual(out, "1\n")

    def test_a_class_that_decides_itself_is_asked(self):
        out = self.run_engine("""
            class Own(Counter):
                asked = 0
                def break_here(self, frame):
                    self.asked += frame.f_code is work.__code__
                    return super().break_here(frame)
            own = Own()
            own.set_break(__file__, line, cond="index == 3")
            own.runcall(call, work, 5)
            print(own.asked > 4, own.stops)
        """)
        self.assertEqual(out, "True 1\n")


if __name__ == "__main__":
    unittest.main()
