"""Breakpoints of the debug adapter that are no lines: functions by name, statements inside a line."""

import unittest

from dap_client import AdapterTestCase
from session import line_of, write_program

MAIN = """\
    import sys
    sys.path.insert(0, "FOLDER")

    def plain(n):
        "A docstring."
        return n                        # plain

    class Thing:
        def method(self):
            return plain(1)             # method

    def decorator(function):
        return function

    @decorator
    def decorated():
        return 2                        # decorated

    async def coroutine():
        return 3                        # coroutine

    def one_line(): return 4            # one line

    def outer():
        def nested():
            return 5                    # nested
        return nested()

    def late():
        import imported
        imported.work()
        imported.Worker().work()

    Thing().method()
    decorated()
    try:
        coroutine().send(None)
    except StopIteration:
        pass
    one_line()
    outer()
    late()
"""

IMPORTED = """\
    import json

    def work():
        return json.dumps([])           # work

    class Worker:
        def work(self):
            return 1                    # Worker.work
"""


class FunctionBreakpointTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        self.imported = write_program(self.folder, IMPORTED, "imported.py")
        self.path = self.program(MAIN.replace("FOLDER", str(self.folder)))

    def launched(self, *wanted, **settings):
        client = self.client()
        client.ask("initialize", adapterID="x")
        begun = client.send("launch", program=str(self.path), console="internalConsole", **settings)
        client.wait_for("initialized")
        rows = [{"name": each} if isinstance(each, str) else each for each in wanted]
        self.rows = client.ask("setFunctionBreakpoints", breakpoints=rows)["breakpoints"]
        client.ask("configurationDone")
        client.wait_for_answer(begun)
        return client

    def stops(self, *wanted, **settings):
        """(function, marked line) of each stop, to the end."""
        marks = {(str(path), line_of(path, mark)): mark for path, names in (
            (self.path, ("plain", "method", "decorated", "coroutine", "one line", "nested")),
            (self.imported, ("work", "Worker.work"))) for mark in names}
        client = self.launched(*wanted, **settings)
        found = []
        while True:
            while not any(each["event"] in ("stopped", "exited") for each in client.events):
                client.take()
            if any(each["event"] == "exited" for each in client.events):
                break
            stop = client.wait_for_stop("function breakpoint")
            frame = stop["frame"]
            found.append(marks.get((frame["source"]["path"], frame["line"]), frame["name"]))
            self.hit_ids = stop["hitBreakpointIds"]
            client.go_on()
        self.assertEqual(client.finish(), 0)
        self.events = [each["body"] for each in client.events if each["event"] == "breakpoint"]
        return found

    def test_stops_at_the_first_line_of_functions_with_the_name(self):
        self.assertEqual(self.stops("plain"), ["plain"])
        row, = self.rows
        self.assertEqual((row["verified"], row["line"], row["source"]["path"]),
                         (True, line_of(self.path, "plain") - 2, str(self.path)))
        self.assertEqual(self.hit_ids, [row["id"]])
        self.assertEqual(self.events, [])

    def test_methods_nested_decorated_and_short_functions_and_coroutines(self):
        self.assertEqual(self.stops("Thing.method", "decorated", "coroutine", "one_line", "outer.nested"),
                         ["method", "decorated", "coroutine", "one line", "nested"])
        self.assertEqual([row["verified"] for row in self.rows], [True] * 5)
        self.assertEqual(self.stops("method", "nested", "program.plain", "__main__.decorated"),
                         ["method", "plain", "decorated", "nested"])

    def test_function_of_a_module_that_is_imported_later(self):
        self.assertEqual(self.stops("imported.work"), ["work"])
        row, = self.rows
        self.assertEqual((row["verified"], row["reason"], row["message"]),
                         (False, "pending", "no function of this name has been loaded so far"))
        event, = self.events
        self.assertEqual(event["reason"], "changed")
        self.assertEqual((event["breakpoint"]["id"], event["breakpoint"]["verified"], event["breakpoint"]["source"]["path"]),
                         (row["id"], True, str(self.imported)))

    def test_name_alone_is_every_function_of_that_name_in_ones_own_code(self):
        self.assertEqual(self.stops("work"), ["work", "Worker.work"])
        self.assertEqual(self.stops("Worker.work"), ["Worker.work"])
        self.assertEqual(self.stops("imported.Worker.work"), ["Worker.work"])
        self.assertEqual(self.stops("dumps"), [])

    def test_function_of_a_library_by_its_module_and_not_where_the_debugger_calls_it(self):
        self.assertEqual(self.stops("json.dumps"), ["dumps"])

    def test_condition_and_hits(self):
        self.assertEqual(self.stops({"name": "plain", "condition": "n == 1"}), ["plain"])
        self.assertEqual(self.stops({"name": "plain", "condition": "n == 2"}), [])
        self.assertEqual(self.stops({"name": "plain", "hitCondition": "2"}), [])

    def test_what_is_no_name_is_said(self):
        client = self.launched("not a name", {"name": "plain", "condition": "x ="})
        self.assertEqual([(row["verified"], row["message"]) for row in self.rows], [
            (False, "the name of a function expected, such as name, Class.method or module.name"),
            (False, "invalid syntax")])
        self.assertEqual(client.finish(), 0)

    def test_replaced_ones_hold_no_longer(self):
        client = self.launched("method")
        client.wait_for_stop("function breakpoint")
        client.ask("setFunctionBreakpoints", breakpoints=[{"name": "nested"}])
        client.go_on()
        self.assertEqual(client.wait_for_stop("function breakpoint")["frame"]["name"], "outer.<locals>.nested")
        client.ask("setFunctionBreakpoints", breakpoints=[])
        client.go_on()
        self.assertEqual(client.finish(), 0)


COLUMNS = """\
    def work(n):
        a = n; b = a + 1; c = [a, b]     # three
        for i in range(2): d = i; e = d  # loop
        if a: e = 7                      # if
        f\u00fc = "\U0001f600\u20ac"; g = a   # wide
        return c

    work(1); work(2)                     # calls
    print("end")
"""


class ColumnTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        self.path = self.program(COLUMNS)
        self.lines = self.path.read_text().splitlines()

    def place(self, mark, text):
        """Line and column, from 1, of a text on a marked line."""
        number = line_of(self.path, mark)
        return number, self.lines[number - 1].index(text) + 1

    def stop_at(self, mark, text, **more):
        line, column = self.place(mark, text)
        client = self.client()
        client.launch(self.path, {self.path: [{"line": line, "column": column, **more}]})
        self.row, = client.breakpoints[self.path]
        return client

    def test_places_that_can_have_one(self):
        client = self.client()
        client.launch(self.path, stopOnEntry=True)
        rows = client.ask("breakpointLocations", source={"path": str(self.path)}, line=2, endLine=5)["breakpoints"]
        found = [(row["line"], row.get("column")) for row in rows]
        self.assertEqual(found, [
            (2, None), self.place("three", "b = "), self.place("three", "c = "),
            (3, None), self.place("loop", "d = "), self.place("loop", "e = "),
            (4, None), self.place("if", "e = "),
            (5, None), (5, self.place("wide", "g = ")[1] + 1)])       # in units of UTF-16

    def test_stop_before_the_statement(self):
        client = self.stop_at("three", "c = ")
        self.assertEqual((self.row["verified"], self.row["column"]), (True, self.place("three", "c = ")[1]))
        for n in (1, 2):
            stop = client.wait_for_stop("breakpoint")
            self.assertEqual(stop["hitBreakpointIds"], [self.row["id"]])
            self.assertEqual((stop["frame"]["line"], stop["frame"]["column"]), self.place("three", "c = "))
            names = client.locals(stop["frame"]["id"])
            self.assertEqual((names["a"]["value"], names["b"]["value"], "c" in names), (str(n), str(n + 1), False))
            client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_column_inside_a_statement_is_that_statement(self):
        line, column = self.place("three", "+ 1")
        client = self.client()
        client.launch(self.path, {self.path: [{"line": line, "column": column}]})
        self.assertEqual(client.breakpoints[self.path][0]["column"], self.place("three", "b = ")[1])
        names = client.locals(client.wait_for_stop("breakpoint")["frame"]["id"])
        self.assertEqual(("a" in names, "b" in names), (True, False))

    def test_first_statement_is_the_line(self):
        client = self.stop_at("three", "a = n")
        self.assertNotIn("column", self.row)
        self.assertNotIn("a", client.locals(client.wait_for_stop("breakpoint")["frame"]["id"]))

    def test_each_pass_of_a_loop_with_a_condition(self):
        client = self.stop_at("loop", "e = ", condition="i == 1")
        for _ in range(2):
            stop = client.wait_for_stop("breakpoint")
            self.assertEqual(client.evaluate("i, d", stop["frame"]["id"]), "(1, 1)")
            client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_statement_that_is_not_reached_and_one_that_logs(self):
        client = self.stop_at("if", "e = ", condition="False")
        self.assertEqual(client.finish(), 0)
        client = self.stop_at("loop", "e = ", logMessage="i is {i}")
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["console"], "i is 0\ni is 1\n" * 2)

    def test_step_on_and_into_from_the_middle_of_a_line(self):
        client = self.stop_at("calls", "work(2)")
        client.wait_for_stop("breakpoint")
        client.go_on("stepIn")
        stop = client.wait_for_stop("step")
        self.assertEqual((stop["frame"]["name"], client.evaluate("n", stop["frame"]["id"])), ("work", "2"))
        client.go_on("stepOut")
        client.wait_for_stop("step")
        client.go_on("next")
        self.assertEqual(client.wait_for_stop("step")["frame"]["line"], line_of(self.path, "calls") + 1)

    def test_code_without_columns_has_lines_alone(self):
        client = self.client()
        line, column = self.place("three", "c = ")
        client.launch(self.path, {self.path: [{"line": line, "column": column}]}, pythonArgs=["-X", "no_debug_ranges"])
        row, = client.breakpoints[self.path]
        self.assertEqual((row["verified"], row["line"], "column" in row), (True, line, False))
        self.assertNotIn("a", client.locals(client.wait_for_stop("breakpoint")["frame"]["id"]))

    def test_line_and_statement_together(self):
        line, column = self.place("three", "b = ")
        client = self.client()
        client.launch(self.path, {self.path: [line, {"line": line, "column": column}]})
        ids = [row["id"] for row in client.breakpoints[self.path]]
        found = []
        for _ in range(4):
            found += client.wait_for_stop("breakpoint")["hitBreakpointIds"]
            client.go_on()
        self.assertEqual(found, ids * 2)
        self.assertEqual(client.finish(), 0)


if __name__ == "__main__":
    unittest.main()
