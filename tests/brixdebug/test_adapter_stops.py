"""Stops under the debug adapter: breakpoints, steps, pauses, and looking at values."""

import os
import unittest

from dap_client import AdapterTestCase
from session import line_of

THREADS = """\
    import threading

    def work(n):
        total = n + 1
        return total                    # work

    def main():
        result = work(1)                # call
        return result                   # after

    thread = threading.Thread(target=work, args=(10,), name="worker")
    thread.start()
    thread.join()
    main()
    print("done")                       # last
"""


class BreakpointTest(AdapterTestCase):
    def test_breakpoint_holds_in_every_thread(self):
        path = self.program(THREADS)
        client = self.client()
        line = line_of(path, "work")
        client.launch(path, {path: [line]})
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual(stop["hitBreakpointIds"], [client.breakpoints[path][0]["id"]])
        names = {each["id"]: each["name"] for each in client.ask("threads")["threads"]}
        self.assertEqual((names[1], names[stop["threadId"]]), ("MainThread", "worker"))
        self.assertEqual(client.place(stop["threadId"]), ("work", line))
        client.go_on()
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual(stop["threadId"], 1)
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_threads_are_numbered_in_the_order_of_their_start(self):
        path = self.program("""\
            import threading
            begun, go = threading.Barrier(4), threading.Event()
            def work():
                begun.wait()
                go.wait()
            threads = [threading.Thread(target=work, name="worker %d" % n) for n in range(3)]
            for each in threads:
                each.start()
            begun.wait()
            x = 1                       # here
            go.set()
        """, "several.py")
        client = self.client()
        client.launch(path, {path: [line_of(path, "here")]})
        client.wait_for_stop("breakpoint")
        self.assertEqual(client.ask("threads")["threads"], [
            {"id": 1, "name": "MainThread"}, *({"id": n + 2, "name": "worker %d" % n} for n in range(3))])
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_line_without_a_statement_moves_on_to_the_next(self):
        path = self.program("def f():\n    # a comment\n\n    x = 1\n    return x\nf()\n# the end\n")
        client = self.client()
        client.launch(path, {path: [2, 7]})
        first, last = client.breakpoints[path]
        self.assertEqual((first["verified"], first["line"]), (True, 4))
        self.assertEqual((last["verified"], last["message"]), (False, "no statement begins on this line or after it"))
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], 4)

    def test_condition(self):
        path = self.program("for i in range(10):\n    x = i\n")
        client = self.client()
        client.launch(path, {path: [{"line": 2, "condition": "i == 7"}]})
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual(client.evaluate("i", stop["frame"]["id"]), "7")
        client.go_on()
        client.finish()

    def test_condition_that_is_none_is_said(self):
        path = self.program("x = 1\n")
        client = self.client()
        client.launch(path, {path: [{"line": 1, "condition": "x ="}]})
        row, = client.breakpoints[path]
        self.assertFalse(row["verified"])
        self.assertEqual(row["message"], "invalid syntax")
        client.finish()

    def test_hit_condition_counts_hits_with_a_true_condition(self):
        path = self.program("for i in range(20):\n    x = i\n")
        for hit_condition, stops in (("3", ["4"]), ("==2", ["2"]), ("% 4", ["6", "14"]), (">= 9", ["16", "18"]),
                                     ("> 9", ["18"]), ("<2", ["0"]), ("<= 2", ["0", "2"])):
            with self.subTest(hit_condition):
                client = self.client()
                client.launch(path, {path: [{"line": 2, "condition": "i % 2 == 0", "hitCondition": hit_condition}]})
                for value in stops:
                    stop = client.wait_for_stop("breakpoint")
                    self.assertEqual(client.evaluate("i", stop["frame"]["id"]), value)
                    client.go_on()
                self.assertEqual(client.finish(), 0)

    def test_hit_condition_that_is_none_is_said(self):
        path = self.program("x = 1\n")
        client = self.client()
        client.launch(path, {path: [{"line": 1, "hitCondition": "often"}]})
        row, = client.breakpoints[path]
        self.assertFalse(row["verified"])
        self.assertTrue(row["message"].startswith("hit condition expected: "), row)
        self.assertEqual(client.finish(), 0)

    def test_log_point_prints_and_does_not_stop(self):
        path = self.program("for i in range(3):\n    x = i\n")
        client = self.client()
        client.launch(path, {path: [{"line": 2, "logMessage": "i is {i}, {{and}} {1/0} {nothing}", "condition": "i"}]})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["console"], "".join(
            "i is %d, {and} <ZeroDivisionError: division by zero> <NameError: name 'nothing' is not defined>\n" % i
            for i in (1, 2)))

    def test_breakpoints_are_replaced_while_the_program_runs_and_while_it_stands(self):
        path = self.program("""\
            import time
            def f():
                x = 1                   # first
                y = 2                   # second
            running = True
            while running:
                f()
                time.sleep(0.01)
        """)
        client = self.client()
        client.launch(path)
        client.set_breakpoints(path, [line_of(path, "first")])
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], line_of(path, "first"))
        client.set_breakpoints(path, [line_of(path, "second")])
        client.go_on()
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], line_of(path, "second"))
        client.set_breakpoints(path, [])
        client.evaluate("globals().update(running=False)", client.frames(1)[0]["id"])
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_file_that_is_not_there(self):
        client = self.client()
        client.launch(self.program("pass"), {"/no/such/file.py": [1]})
        row, = client.breakpoints["/no/such/file.py"]
        self.assertEqual((row["verified"], row["message"]),
                         (False, "there is no file /no/such/file.py where the program runs"))
        client.finish()

    def test_lines_that_can_have_one(self):
        path = self.program("def f(a):\n    # no\n    x = (a +\n         f(2))\n    return x\n")
        client = self.client()
        client.launch(path, stopOnEntry=True)
        rows = client.ask("breakpointLocations", source={"path": str(path)}, line=1, endLine=5)["breakpoints"]
        self.assertEqual([row["line"] for row in rows], [1, 3, 4, 5])


class ExceptionTest(AdapterTestCase):
    TEXT = """\
        import threading
        def fail(n):
            if n:
                fail(n - 1)
            raise KeyError("inner") if n else ValueError("on purpose")      # raise
        def guarded():
            try:
                fail(1)
            except ValueError:
                pass
        def worker():
            try:
                fail(0)
            except ValueError as error:
                error.add_note("a note")
                raise RuntimeError("outer") from error        # outer
        guarded()
        thread = threading.Thread(target=worker, name="worker")
        thread.start()
        thread.join()
        fail(0)
    """

    def launched(self, **asked):
        path = self.program(self.TEXT)
        client = self.client()
        client.ask("initialize", adapterID="x")
        begun = client.send("launch", program=str(path), console="internalConsole")
        client.wait_for("initialized")
        self.rows = client.ask("setExceptionBreakpoints", **asked)["breakpoints"]
        client.ask("configurationDone")
        client.wait_for_answer(begun)
        return client

    def test_uncaught_stops_where_a_thread_would_end_with_its_stack(self):
        client = self.launched(filters=["uncaught"])
        stop = client.wait_for_stop("exception")
        names = {each["id"]: each["name"] for each in client.ask("threads")["threads"]}
        self.assertEqual((names[stop["threadId"]], stop["text"], stop["frame"]["name"]), ("worker", "RuntimeError", "worker"))
        info = client.ask("exceptionInfo", threadId=stop["threadId"])
        self.assertEqual((info["exceptionId"], info["description"], info["breakMode"]), ("RuntimeError", "outer", "unhandled"))
        inner, = info["details"]["innerException"]
        self.assertEqual((inner["typeName"], inner["message"]), ("ValueError", "on purpose\na note"))
        self.assertNotIn("brixdebug/dap", info["details"]["stackTrace"])
        client.go_on()
        stop = client.wait_for_stop("exception")
        self.assertEqual([(each["name"], each["line"]) for each in client.frames(1)], [("fail", 5), ("<module>", 21)])
        self.assertEqual(client.evaluate("n", stop["frame"]["id"]), "0")
        client.go_on()
        self.assertEqual(client.finish(), 1)
        self.assertIn("RuntimeError: outer", client.output["stderr"])
        self.assertTrue(client.output["stderr"].endswith("ValueError: on purpose\n"), client.output["stderr"])

    def test_raised_stops_once_for_each_exception(self):
        client = self.launched(filters=[], filterOptions=[{"filterId": "raised", "condition": "ValueError"}])
        for _ in range(3):
            stop = client.wait_for_stop("exception")
            self.assertEqual((stop["text"], stop["frame"]["name"]), ("ValueError", "fail"))
            self.assertEqual(client.ask("exceptionInfo", threadId=stop["threadId"])["breakMode"], "always")
            client.go_on()
        self.assertEqual(client.finish(), 1)

    def test_filters_that_are_none_are_said(self):
        client = self.launched(filters=["often"], filterOptions=[{"filterId": "raised", "condition": "if x ="}])
        self.assertEqual([(row["verified"], row["message"]) for row in self.rows], [
            (False, "there is no filter 'often'"), (False, "invalid condition x =: invalid syntax")])
        self.assertEqual(client.finish(), 1)


class StepTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        self.path = self.program(THREADS)
        self.line = {name: line_of(self.path, name) for name in ("work", "call", "after", "last")}

    def stopped_client(self, name):
        client = self.client()
        client.launch(self.path, {self.path: [self.line[name]]})
        client.wait_for_stop("breakpoint")
        return client

    def test_next_in_and_out(self):
        client = self.stopped_client("call")
        client.go_on("stepIn")
        self.assertEqual(client.wait_for_stop("step")["frame"]["name"], "work")
        client.go_on("next")
        self.assertEqual(client.wait_for_stop("step")["frame"]["line"], self.line["work"])
        client.go_on("stepOut")
        stop = client.wait_for_stop("step")
        self.assertEqual(stop["frame"]["line"], self.line["call"])
        self.assertEqual(client.locals(stop["frame"]["id"])["(return) work"]["value"], "2")
        client.go_on("next")
        self.assertEqual(client.wait_for_stop("step")["frame"]["line"], self.line["after"])
        client.go_on("next")                 # off the end: back in the caller
        self.assertEqual(client.wait_for_stop("step")["frame"]["name"], "<module>")
        client.go_on("next")
        self.assertEqual(client.wait_for_stop("step")["frame"]["line"], self.line["last"])
        client.go_on("next")
        self.assertEqual(client.finish(), 0)

    def test_step_off_a_raise_goes_on_in_the_handler(self):
        path = self.program("""\
            def fail():
                raise ValueError            # raise
            try:
                fail()
            except ValueError:
                x = 1
        """, "raising.py")
        client = self.client()
        client.launch(path, {path: [line_of(path, "raise")]})
        client.wait_for_stop("breakpoint")
        places = []
        for _ in range(3):
            client.go_on("next")
            places.append(client.wait_for_stop("step")["frame"]["line"])
        self.assertEqual(places, [4, 5, 6])

    def test_goto(self):
        path = self.program("x = 1\nx = 2\nx = 3\nprint(x)\n")
        client = self.client()
        client.launch(path, {path: [2]})
        client.wait_for_stop("breakpoint")
        target, = client.ask("gotoTargets", source={"path": str(path)}, line=4)["targets"]
        client.ask("goto", threadId=1, targetId=target["id"])
        self.assertEqual(client.wait_for_stop("goto")["frame"]["line"], 4)
        client.go_on()
        client.finish()
        self.assertEqual(client.output["stdout"], "1\n")

    def test_goto_leaves_no_function(self):
        path = self.program("def f():\n    return 1\nx = f()\nx = 2\n")
        client = self.client()
        client.launch(path, {path: [4]})
        client.wait_for_stop("breakpoint")
        target, = client.ask("gotoTargets", source={"path": str(path)}, line=2)["targets"]
        self.assertEqual(client.refused("goto", threadId=1, targetId=target["id"]),
                         "cannot go to line 2: it is not in <module>, where the thread stands")
        self.assertEqual(client.place(1), ("<module>", 4))

    def test_pause_finds_threads_in_python_and_in_c_code_and_steps_each(self):
        path = self.program("""\
            import threading, time
            done = False
            def spin():
                while not done:
                    pass
            def main():
                print("ready")
                time.sleep(1000)
            threading.Thread(target=spin, name="spinner", daemon=True).start()
            main()
        """, "pausing.py")
        client = self.client()
        client.launch(path)
        while "ready" not in client.output.get("stdout", ""):
            client.take()
        client.ask("pause", threadId=1)
        stop = client.wait_for_stop("pause")
        self.assertEqual((stop["threadId"], stop["frame"]["name"]), (1, "main"))
        spinner = next(each["id"] for each in client.ask("threads")["threads"] if each["name"] == "spinner")
        self.assertEqual(client.place(spinner)[0], "spin")
        client.go_on("next", spinner)
        self.assertEqual(client.wait_for_stop("step")["threadId"], spinner)
        client.go_on()
        client.ask("disconnect")


class ValuesTest(AdapterTestCase):
    def at_end_of(self, text):
        path = self.program(text + "\nend_of_program = 1\n")
        client = self.client()
        client.launch(path, {path: [len(path.read_text().splitlines())]})
        self.frame_id = client.wait_for_stop("breakpoint")["frame"]["id"]
        return client

    def test_lists_and_dicts_are_paged(self):
        client = self.at_end_of("big = list(range(100000))\npairs = {'k%d' % n: n for n in range(5000)}")
        rows = client.locals(self.frame_id)
        self.assertEqual((rows["big"]["indexedVariables"], rows["big"]["type"]), (100000, "list"))
        page = client.variables(rows["big"]["variablesReference"], filter="indexed", start=99990, count=20)
        self.assertEqual([(name, row["value"], row["evaluateName"]) for name, row in page.items()],
                         [(str(n), str(n), "big[%d]" % n) for n in range(99990, 100000)])
        page = client.variables(rows["pairs"]["variablesReference"], filter="indexed", start=2, count=1)
        self.assertEqual([(name, row["value"], row["evaluateName"]) for name, row in page.items()],
                         [("'k2'", "2", "pairs['k2']")])
        self.assertLess(len(rows["big"]["value"]), 1100)

    def test_hostile_values_are_shown_as_what_they_are(self):
        client = self.at_end_of("""\
            import time
            class Slow:
                def __repr__(self):
                    time.sleep(1000)
            class Bad:
                def __repr__(self):
                    raise ValueError("no")
            class Deep:
                def __repr__(self):
                    return repr(Deep())
            slow, bad, deep = Slow(), Bad(), Deep()
            own = []
            own.append(own)
            huge = 1 << 10000000
            after = "shown all the same"
        """.replace("            ", ""))
        rows = client.locals(self.frame_id)
        self.assertEqual(rows["slow"]["value"], "<Slow: its repr has not ended after 1 s>")
        self.assertEqual(rows["bad"]["value"], "<Bad: its repr raised ValueError: no>")
        self.assertRegex(rows["deep"]["value"], "^<Deep: its repr raised RecursionError: ")
        self.assertEqual(rows["own"]["value"], "[[...]]")
        self.assertEqual(rows["huge"]["value"], "<int of about 3010301 digits>")
        self.assertEqual(rows["after"]["value"], "'shown all the same'")

    def test_values_that_lie_hide_nothing(self):
        client = self.at_end_of("""\
            class Liar:
                def __getattribute__(self, name):
                    raise KeyError(name)
            class Long(dict):
                def __len__(self):
                    return 10 ** 12
            class Short(list):
                def __len__(self):
                    return 0
                def __getitem__(self, index):
                    raise KeyError(index)
            liar, long, short = Liar(), Long(a=1), Short([1, 2])
            after = "shown all the same"
        """.replace("            ", ""))
        rows = client.locals(self.frame_id)
        self.assertRegex(rows["liar"]["value"], "Liar object at")
        self.assertEqual(rows["after"]["value"], "'shown all the same'")
        self.assertEqual([rows[name]["indexedVariables"] for name in ("long", "short")], [1, 2])
        page = client.variables(rows["short"]["variablesReference"], filter="indexed", start=1, count=5)
        self.assertEqual([(name, row["value"]) for name, row in page.items()], [("1", "2")])

    def test_fields_of_a_named_tuple_are_shown_by_their_names(self):
        client = self.at_end_of("import collections\npair = collections.namedtuple('Pair', 'left right')(1, 'two')")
        rows = client.variables(client.locals(self.frame_id)["pair"]["variablesReference"])
        self.assertEqual([(rows[name]["value"], rows[name]["evaluateName"]) for name in ("left", "right")],
                         [("1", "pair.left"), ("'two'", "pair.right")])

    def test_properties_are_calls_that_the_user_asks_for(self):
        client = self.at_end_of("""\
            class Thing:
                calls = 0
                def __init__(self):
                    self.kept = 5
                @property
                def asked(self):
                    Thing.calls += 1
                    return "answer"
            thing = Thing()
        """.replace("            ", ""))
        rows = client.variables(client.locals(self.frame_id)["thing"]["variablesReference"])
        self.assertEqual(rows["kept"]["value"], "5")
        self.assertTrue(rows["asked"]["presentationHint"]["lazy"])
        self.assertEqual(client.evaluate("Thing.calls", self.frame_id), "0")
        answer = client.variables(rows["asked"]["variablesReference"])
        self.assertEqual([row["value"] for row in answer.values()], ["'answer'"])

    def test_evaluate_expressions_statements_and_errors(self):
        client = self.at_end_of("numbers = [1, 2]")
        self.assertEqual(client.evaluate("sum(numbers)", self.frame_id, "watch"), "3")
        self.assertEqual(client.evaluate("numbers.append(3)", self.frame_id), "")
        self.assertEqual(client.evaluate("total = sum(numbers)", self.frame_id), "")
        self.assertEqual(client.evaluate("total", self.frame_id), "6")
        self.assertEqual(client.refused("evaluate", expression="1/0", frameId=self.frame_id),
                         "ZeroDivisionError: division by zero")
        self.assertEqual(client.refused("evaluate", expression="nothing", frameId=self.frame_id, context="hover"),
                         "NameError: name 'nothing' is not defined")

    def test_set_variable_and_expression(self):
        client = self.at_end_of("numbers = [1, 2]\npairs = {'a': 1}\nname = 'old'")
        scope = client.ask("scopes", frameId=self.frame_id)["scopes"][0]["variablesReference"]
        rows = client.variables(scope)
        self.assertEqual(client.ask("setVariable", variablesReference=scope, name="name", value="'new'")["value"], "'new'")
        client.ask("setVariable", variablesReference=rows["numbers"]["variablesReference"], name="1", value="20")
        client.ask("setVariable", variablesReference=rows["pairs"]["variablesReference"], name="'a'", value="10")
        client.ask("setExpression", expression="pairs['b']", value="30", frameId=self.frame_id)
        self.assertEqual(client.evaluate("name, numbers, pairs", self.frame_id), "('new', [1, 20], {'a': 10, 'b': 30})")
        self.assertEqual(client.refused("setVariable", variablesReference=scope, name="name", value="1 +"),
                         "SyntaxError: invalid syntax (<expression>, line 1)")

    def test_what_was_set_in_a_function_holds_in_the_program(self):
        path = self.program("""\
            def work(other):
                first, second, third = 1, 2, 3
                def inner():
                    return third
                here = True                 # here
                print(first, second, inner(), other)
            def outer(own):
                work("other")
                print(own)
            outer(1)
        """, "holding.py")
        client = self.client()
        client.launch(path, {path: [line_of(path, "here")]})
        client.wait_for_stop("breakpoint")
        inner, outer = client.frames(1)[:2]
        client.evaluate("own = 40", outer["id"])
        scope = client.ask("scopes", frameId=inner["id"])["scopes"][0]["variablesReference"]
        for name, value in (("second", "20"), ("third", "30")):
            client.ask("setVariable", variablesReference=scope, name=name, value=value)
        client.evaluate("first = 100", inner["id"])          # the last word: nothing is looked at after it
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "100 20 30 other\n40\n")

    def test_completions(self):
        client = self.at_end_of("numbers = [1]")
        targets = client.ask("completions", text="x = numbers.app", column=16, frameId=self.frame_id)["targets"]
        self.assertEqual(targets, [{"label": "append", "start": 12, "length": 3}])

    def test_memory(self):
        client = self.at_end_of("data = bytes(range(256))")
        row = client.locals(self.frame_id)["data"]
        body = client.ask("readMemory", memoryReference=row["memoryReference"], offset=250, count=10)
        self.assertEqual(body, {"address": "0xfa", "data": "+vv8/f7/", "unreadableBytes": 4})

    def test_modules_whose_load_is_put_off_are_not_loaded(self):
        client = self.at_end_of("""\
            import importlib.util, sys
            spec = importlib.util.find_spec("colorsys")
            spec.loader = importlib.util.LazyLoader(spec.loader)
            lazy = sys.modules["colorsys"] = importlib.util.module_from_spec(spec)
            spec.loader.exec_module(lazy)
            sys.modules["none"], sys.modules["odd"] = None, type("Odd", (), {"__file__": []})()
        """.replace("            ", ""))
        names = [row["name"] for row in client.ask("modules", {})["modules"]]
        self.assertIn("colorsys", names)
        paths = [row["path"] for row in client.ask("loadedSources")["sources"]]
        self.assertTrue([path for path in paths if path.endswith("/colorsys.py")])
        self.assertEqual(client.evaluate("type(lazy).__name__", self.frame_id), "'_LazyModule'")

    def test_pipe_is_no_source_to_wait_for(self):
        client = self.at_end_of("x = 1")
        pipe = self.folder / "pipe.py"
        os.mkfifo(pipe)
        for path in pipe, "/dev/zero":
            self.assertFalse(client.set_breakpoints(path, [1])[0]["verified"])
            self.assertEqual(client.ask("breakpointLocations", source={"path": str(path)}, line=1)["breakpoints"], [])

    def test_numbers_of_an_earlier_stop_are_refused(self):
        client = self.at_end_of("x = 1")
        scope = client.ask("scopes", frameId=self.frame_id)["scopes"][0]["variablesReference"]
        client.go_on("next")
        client.wait_for("exited")
        self.assertNotEqual(scope, 0)


if __name__ == "__main__":
    unittest.main()
