"""Watches: a thread stops when a value has changed."""

import unittest

from host_support import check_child, scratch_folder
from session import line_of, run_session, write_program

PROGRAM = """\
    import sys, threading
    COUNT = 0
    class Account:
        def __init__(self):
            self.balance = 1                     # init
        def add(self, amount):
            self.balance += amount               # add
            return self.balance
    def inner(depth):
        total = depth
        if depth:
            inner(depth - 1)
        total += 100                             # total
        total += 0
        return total                             # return
    def items():
        found = []
        for each in "ab":
            found.append(each)                   # append
        def change():
            nonlocal found
            found = None                         # nonlocal
        change()
        found = 1                                # found
    def fail():
        number = 1
        number = 2                               # number
        raise KeyError(number)                   # raise
    def numbers():
        value = 0                                # generator
        while value < 2:
            value += 1                           # value
            yield value
    account = Account()                          # account
    def in_thread(target, *arguments):
        thread = threading.Thread(target=target, args=arguments, name="other")
        thread.start()
        thread.join()
    def main():
        global COUNT
        inner(2)                                 # inner
        items()
        try:
            fail()
        except KeyError:
            pass
        print(list(numbers()))
        COUNT = 5                                # count
        in_thread(account.add, 7)
        account.add(0)
        account.add(1)
        print("end", account.balance)
    main()                                       # main
"""


class WatchTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.path = write_program(scratch_folder(self), PROGRAM)

    def at(self, mark):
        return "%s:%d" % (self.path, line_of(self.path, mark))

    def place(self, mark, function):
        return "%s(%d)%s()" % (self.path, line_of(self.path, mark), function)

    def session(self, *commands):
        child = run_session("-m", "brixdebug", self.path, commands=commands)
        self.assertEqual(child.stderr, "")
        output, _, _ = child.stdout.replace("(Pdb) ", "").partition("The program finished and will be restarted")
        return output.splitlines()

    def changes(self, *commands):
        """(old, new, place) of each stop."""
        lines = self.session(*commands)
        return [(lines[index + 1].partition("Old value: ")[2], lines[index + 2].partition("New value: ")[2],
                 lines[index + 3].partition("Changed by ")[2])
                for index in range(len(lines) - 3) if lines[index + 1].startswith("Old value: ")]

    def test_a_local_name_in_its_call_alone(self):
        commands = ["tbreak inner", "c", "n", "watch total", "c", "p depth, total", "c", "q"]
        lines = self.session(*commands)
        self.assertIn("Watch 2: total, now 2 (in this function, until inner() ends)", lines)
        self.assertEqual(self.changes(*commands), [("2", "102", self.place("total", "inner"))])
        self.assertIn("(2, 102)", lines)
        self.assertIn("Watch 2 has ended with the call of inner(): total, last 102", lines)
        self.assertIn("end 9", lines)

    def test_a_global_name_after_a_restart(self):
        """It is looked at again once it is there, which is no change."""
        commands = ["tbreak main", "c", "watch COUNT", "watch account.balance", "c", "restart", "c", "c", "c", "q"]
        lines = run_session("-m", "brixdebug", self.path, commands=commands).stdout.splitlines()
        values = [line.partition(" value: ")[2] for line in lines if " value: " in line]
        self.assertEqual(values, ["0", "5"] + ["0", "5", "1", "8", "8", "9"])

    def test_quit_and_restart_leave_the_line_that_is_reached_undone(self):
        program = write_program(self.path.parent, """\
            COUNT = 0
            def main():
                global COUNT
                COUNT += 1
                print("not reached")
            main()
            """, "counts.py")
        for command in "quit", "restart":
            with self.subTest(command):
                child = run_session("-m", "brixdebug", program, commands=["tbreak main", "c", "watch COUNT", "c", command, "q"])
                self.assertIn("New value: 1", child.stdout)
                self.assertNotIn("(Pdb) not reached", child.stdout)

    def test_a_name_that_is_not_bound_yet(self):
        self.assertEqual(self.changes("tbreak inner", "c", "watch total", "c", "c", "q")[0],
                         ("<NameError: name 'total' is not defined>", "2",
                          "%s(%d)inner()" % (self.path, line_of(self.path, "total") - 3)))

    def test_a_call_that_ends_by_an_exception(self):
        lines = self.session("tbreak fail", "c", "watch number", "c", "c", "c", "q")
        self.assertIn("Watch 2 has ended with the call of fail(): number, last 2", lines)

    def test_a_generator(self):
        changes = self.changes("tbreak %s" % self.at("generator"), "c", "n", "watch value", "c", "c", "c", "q")
        self.assertEqual(changes, [("0", "1", self.place("value", "numbers")), ("1", "2", self.place("value", "numbers"))])

    def test_a_container_that_is_changed_and_a_name_that_is_shared(self):
        changes = self.changes("tbreak items", "c", "n", "watch found", "c", "c", "c", "c", "q")
        self.assertEqual(changes, [("[]", "['a']", self.place("append", "items")),
                                   ("['a']", "['a', 'b']", self.place("append", "items")),
                                   ("['a', 'b']", "None", self.place("nonlocal", "change")),
                                   ("None", "1", self.place("found", "items"))])

    def test_a_condition(self):
        changes = self.changes("tbreak items", "c", "n", "watch found if len(found) == 2", "c", "q")
        self.assertEqual(changes, [("['a']", "['a', 'b']", self.place("append", "items"))])

    def test_an_attribute_in_all_threads(self):
        commands = ["tbreak %s" % self.at("main"), "c", "watch account.balance", "c", "threads", "c", "c", "q"]
        self.assertEqual(self.changes(*commands), [("1", "8", self.place("add", "add")), ("8", "9", self.place("add", "add"))])
        lines = self.session(*commands)
        self.assertIn("Watch 2: account.balance, now 1 (in all threads)", lines)
        self.assertTrue([line for line in lines if line.startswith(">") and "at the prompt  other " in line], lines)

    def test_an_attribute_of_a_local_name_outlives_its_call(self):
        commands = ["tbreak %s" % self.at("init"), "c", "n", "watch self.balance", "c", "c", "c", "q"]
        self.assertEqual(self.changes(*commands), [("1", "8", self.place("add", "add")), ("8", "9", self.place("add", "add"))])

    def test_a_global_name(self):
        self.assertEqual(self.changes("tbreak %s" % self.at("main"), "c", "watch COUNT", "c", "c", "q"),
                         [("0", "5", self.place("count", "main"))])

    def test_what_the_user_changes_is_no_change(self):
        changes = self.changes("tbreak %s" % self.at("total"), "c", "watch total", "!total = 7", "c", "q")
        self.assertEqual(changes, [("7", "107", self.place("total", "inner"))])

    def test_numbers_and_lists(self):
        lines = self.session("break items", "watch COUNT", "watch account", "info watches", "disable 2", "clear 3", "watch",
                             "unwatch 1", "unwatch 7", "unwatch", "watch", "watch 1 +", "c", "p found", "q")
        first = lines.index("Num Type         Disp Enb  What")
        self.assertEqual(lines[first + 1:first + 3], ["2   watch        keep yes  COUNT", "3   watch        keep yes  account"])
        self.assertIn("2   watch        keep no   COUNT", lines)
        self.assertIn("Deleted watch 3 on account", lines)
        self.assertIn("*** Number 1 is no watch (see info watches)", lines)
        self.assertIn("*** Breakpoint number 7 out of range", lines)
        self.assertIn("Deleted watch 2 on COUNT", lines)
        self.assertIn("No watches.", lines)
        self.assertTrue([line for line in lines if line.startswith("*** Invalid expression 1 +: ")], lines)

    def test_hits_ignore_condition_and_commands_take_its_number(self):
        lines = self.session("tbreak items", "c", "n", "watch found", "ignore 2 1", "commands 2", "p 'seen', found", "end",
                             "c", "info watches", "q")
        self.assertIn("('seen', ['a', 'b'])", lines)
        self.assertIn("\twatch already hit 2 times", lines)

    def test_breakpoints_and_watches_are_in_one_list(self):
        lines = self.session("break items", "watch COUNT", "break", "q")
        self.assertIn("2   watch        keep yes  COUNT", lines)
        self.assertTrue(lines[lines.index("2   watch        keep yes  COUNT") - 1].startswith("1   breakpoint   keep yes   at "))

    def test_a_watch_is_over_when_its_object_is_gone(self):
        path = write_program(scratch_folder(self), """\
            import gc
            class Thing:
                pass
            def use():
                thing = Thing()
                thing.value = 1
                return 1                         # use
            use()
            gc.collect()                         # what pdb has kept of the first stop
            print("end")                         # end
        """)
        child = run_session("-m", "brixdebug", path, commands=[
            "tbreak %d" % line_of(path, "use"), "c", "watch thing.value", "tbreak %d" % (line_of(path, "end") - 1), "c", "c", "q"])
        self.assertIn("Watch 2 has ended, its object is gone: thing.value, last 1\n", child.stdout)
        self.assertIn("end\n", child.stdout)


class CostTest(unittest.TestCase):
    def test_a_local_name_needs_nothing_outside_its_function(self):
        path = write_program(scratch_folder(self), """\
            import sys
            from brixdebug.engine import Bdb
            from brixdebug.watching import Watch

            def other():
                return sum(range(3))

            def watched():
                value = 1
                other()
                value = 2
                return value

            class Debugger(Bdb):
                stops = []
                def user_line(self, frame):
                    if frame.f_lineno == watched.__code__.co_firstlineno + 2:
                        self.add_watch(Watch("value", frame, frame.f_locals))
                        self.stops.append(None)
                    self.set_continue()
                def user_watch(self, frame, changes):
                    for each in changes:
                        self.stops.append((str(each.old), str(each.new), each.line - watched.__code__.co_firstlineno))
                    monitoring = sys.monitoring
                    self.stops += [monitoring.get_local_events(tool, other.__code__) | monitoring.get_events(tool)
                                   & monitoring.events.LINE for tool in range(6) if monitoring.get_tool(tool)]

            debugger = Debugger()
            debugger.set_break(__file__, watched.__code__.co_firstlineno + 2)
            debugger.runcall(watched)
            print(debugger.stops)
        """)
        self.assertEqual(check_child(self, path), "[None, ('1', '2', 3), 0, 0]\n")


if __name__ == "__main__":
    unittest.main()
