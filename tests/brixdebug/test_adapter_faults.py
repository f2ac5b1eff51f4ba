"""Much of everything, and nonsense: the adapter answers, stays bounded and loses nothing."""

import random
import unittest

from dap_client import AdapterTestCase
from host_support import check_child
from session import line_of


class MuchTest(AdapterTestCase):
    def test_a_thousand_breakpoints(self):
        path = self.program("reached = 0\n" + "reached += 1\n" * 1000 + "print(reached)\n")
        client = self.client()
        client.launch(path, {path: list(range(2, 1002))})
        rows = client.breakpoints[path]
        self.assertEqual([(row["verified"], row["line"]) for row in rows], [(True, n) for n in range(2, 1002)])
        self.assertEqual(len({row["id"] for row in rows}), 1000)
        for line in 2, 3, 4:
            self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], line)
            client.go_on()
        client.wait_for_stop("breakpoint")
        last = client.set_breakpoints(path, [1001])[0]
        client.go_on()
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual((stop["frame"]["line"], stop["hitBreakpointIds"]), (1001, [last["id"]]))
        client.go_on()
        self.assertEqual((client.finish(), client.output["stdout"]), (0, "1000\n"))

    def test_five_hundred_threads(self):
        path = self.program("""\
            import threading
            go_on, here = threading.Event(), threading.Barrier(501)
            done = []
            def work(number):
                here.wait()
                go_on.wait()
                done.append(number)                  # done
            threads = [threading.Thread(target=work, args=(n,), name="worker %d" % n) for n in range(500)]
            for thread in threads:
                thread.start()
            here.wait()
            stop = 1                                 # stop
            go_on.set()
            for thread in threads:
                thread.join()
            print(len(done))
        """)
        client = self.client()
        client.launch(path, {path: [line_of(path, "stop")]})
        stop = client.wait_for_stop("breakpoint")
        names = {row["id"]: row["name"] for row in client.ask("threads")["threads"]}
        self.assertEqual(sorted(names.values()), sorted(["MainThread"] + ["worker %d" % n for n in range(500)]))
        for number, name in names.items():
            inner = [frame["name"] for frame in client.frames(number)]
            self.assertIn("<module>" if name == "MainThread" else "work", inner)
        client.set_breakpoints(path, [line_of(path, "done")])
        client.go_on(thread_id=stop["threadId"])
        stopped = set()
        for _ in range(500):                         # each of them stops, and none twice
            stop = client.wait_for_stop("breakpoint")
            stopped.add(names[stop["threadId"]])
            client.go_on(thread_id=stop["threadId"])
        self.assertEqual(len(stopped), 500)
        self.assertEqual((client.finish(), client.output["stdout"]), (0, "500\n"))

    def test_burst_of_output(self):
        path = self.program("""\
            import os, sys
            for n in range(100000):
                print("line", n)
            print("end", file=sys.stderr, flush=True)
            sys.stdout.flush()
            os._exit(3)
        """)
        client = self.client()
        client.launch(path)
        self.assertEqual(client.finish(), 3)
        self.assertEqual(client.output["stdout"], "".join("line %d\n" % n for n in range(100000)))
        self.assertEqual(client.output["stderr"], "end\n")

    def test_tree_of_a_million(self):
        path = self.program("""\
            big = list(range(10**6))
            deep = [[n, [n, [n]]] for n in range(1000)]
            deep.append(deep)
            stop = 1                                 # stop
        """)
        client = self.client()
        client.launch(path, {path: [line_of(path, "stop")]})
        stop = client.wait_for_stop("breakpoint")
        rows = client.locals(stop["frame"]["id"])
        self.assertEqual((rows["big"]["indexedVariables"], rows["deep"]["indexedVariables"]), (10**6, 1001))
        page = client.variables(rows["big"]["variablesReference"], filter="indexed", start=10**6 - 2, count=100)
        self.assertEqual([(name, row["value"]) for name, row in page.items()],
                         [("999998", "999998"), ("999999", "999999")])
        reference, depth = rows["deep"]["variablesReference"], 0
        while depth < 300:                           # around in its ring
            page = client.variables(reference, filter="indexed", start=1000, count=1)
            reference, depth = page["1000"]["variablesReference"], depth + 1
        self.assertEqual(page["1000"]["indexedVariables"], 1001)
        client.go_on()
        self.assertEqual(client.finish(), 0)


class NonsenseTest(AdapterTestCase):
    """Requests that are well framed and mean nothing are answered, each once; the session goes on."""

    SEED, COUNT = 20261122, 10000
    SHOW_COMMANDS = "from brixdebug.dap.program import HANDLERS; print(*HANDLERS)"
    # After these the program does not stand where it stood.
    # ADD-REQUEST: its name in NOT_SENT if the program goes on, and names of new arguments in NAMES.
    NOT_SENT = {"continue", "disconnect", "next", "stepIn", "stepOut", "terminate"}
    NAMES = {"threadId": 1, "frameId": 1, "variablesReference": 1, "source": {"path": "/nowhere.py"}, "line": 1, "lines": [1],
             "breakpoints": [{"line": 1}], "expression": "1", "context": "hover", "start": 0, "count": 1, "filters": ["raised"],
             "filterOptions": [{"filterId": "raised", "condition": "ValueError"}], "targetId": 1, "name": "stop", "value": "1",
             "text": "sto", "column": 1, "sourceReference": 1, "memoryReference": "1", "offset": 0, "startFrame": 0,
             "levels": 1, "filter": "indexed", "format": {"hex": True}, "requestId": 1, "dataId": "1",
             "data": "MQ==", "threadIds": [1]}
    WRONG = [None, True, -1, 0, 2**70, -2**70, 1.5, "", "x" * 5000, "\ud800", "\x00", [], [[]], [None], {}, {"a": {}}, [{}] * 50]

    def commands(self):
        """All that the adapter has but for NOT_SENT."""
        there = set(check_child(self, "-c", self.SHOW_COMMANDS).split())
        self.assertEqual(self.NOT_SENT - there, set())
        return sorted(there - self.NOT_SENT)

    def mutated(self, values):
        """A random choice of arguments, of which some are wrong."""
        chosen = self.random.sample(sorted(self.NAMES), self.random.randrange(8))
        arguments = {name: self.NAMES[name] for name in chosen}
        for name in chosen:
            if self.random.random() < 0.4:
                arguments[name] = self.random.choice(values)
        return self.random.choice([arguments] * 20 + values)

    def nonsense(self, commands):
        command = self.random.choice(commands * 5 + ["nonsense", "", "x" * 5000, "__class__"])
        return command, self.mutated(self.WRONG)

    def test_random_and_mutated_requests(self):
        self.random = random.Random(self.SEED)
        commands = self.commands()
        path = self.program("value = 1\nstop = 2            # stop\nprint(value)\n")
        client = self.client()
        client.launch(path, {path: [line_of(path, "stop")]})
        stop = client.wait_for_stop("breakpoint")
        client.record_nothing()
        for _ in range(0, self.COUNT, 100):
            asked = [client.send_any(*self.nonsense(commands)) for _ in range(100)]
            for seq in asked:
                answer = client.wait_for_answer(seq)
                self.assertIn(answer["success"], (True, False), answer)
        client.ask("setExceptionBreakpoints", filters=[])
        client.set_breakpoints(path, [])
        frame = client.frames(stop["threadId"])[0]
        self.assertEqual((frame["name"], frame["source"]["path"]), ("<module>", str(path)))
        self.assertEqual(client.evaluate("1 + 1", frame["id"]), "2")
        client.go_on()
        self.assertEqual(client.finish(), 0)


if __name__ == "__main__":
    unittest.main()
