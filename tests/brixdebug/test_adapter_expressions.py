"""Expressions under the debug adapter: long ones, those that need other threads, cancelled ones, whole values."""

import unittest

from dap_client import AdapterTestCase
from session import line_of

PROGRAM = """\
    import queue, threading, time
    jobs, results = queue.Queue(), queue.Queue()
    ended = False

    def worker():
        while (job := jobs.get()) is not None:
            results.put(job * 2)

    def ask(value):
        jobs.put(value)
        return results.get()

    def spin():
        global ended
        try:
            while True:
                pass
        finally:
            ended = True

    class Large:
        def __repr__(self):
            return "x" * 3000000

    thread = threading.Thread(target=worker, name="worker")
    thread.start()
    assert ask(1) == 2
    nested = [[[[[[["deep"]]]]]]]
    many = list(range(5000))
    data = bytearray(b"abc")
    fixed = b"abc"
    large = Large()
    text = "a 'text'\\n" * 20000
    end = 1                             # stop
    jobs.put(None)
"""


class ExpressionTest(AdapterTestCase):
    def stopped(self, **supports):
        path = self.program(PROGRAM)
        client = self.client()
        client.launch(path, {path: [line_of(path, "stop")]}, initialize=supports)
        self.frame_id = client.wait_for_stop("breakpoint")["frame"]["id"]
        return client

    def finish(self, client):
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_expression_that_needs_another_thread(self):
        client = self.stopped(supportsInvalidatedEvent=True)
        self.assertEqual(client.evaluate("ask(21)", self.frame_id), "42")
        self.assertEqual(client.wait_for("invalidated"), {"areas": ["all"]})
        self.assertEqual(client.output["console"], "The other threads run until this has been evaluated.\n")
        self.finish(client)

    def test_running_expression_is_cancelled(self):
        client = self.stopped(supportsProgressReporting=True)
        running = client.send("evaluate", expression="spin()", frameId=self.frame_id, context="repl")
        waiting = client.send("evaluate", expression="many.clear()", frameId=self.frame_id, context="repl")
        started = client.wait_for("progressStart")
        self.assertEqual(started, {"progressId": "request %d" % running, "requestId": running, "cancellable": True,
                                   "title": "Evaluating spin()"})
        client.ask("cancel", requestId=waiting)
        client.ask("cancel", requestId=running)
        for seq in (running, waiting):
            answer = client.wait_for_answer(seq)
            self.assertEqual((answer["success"], answer["message"]), (False, "cancelled"))
        self.assertEqual(client.wait_for("progressEnd"), {"progressId": "request %d" % running})
        self.assertEqual(client.evaluate("ended, len(many)", self.frame_id), "(True, 5000)")
        self.finish(client)

    def test_progress_is_cancelled(self):
        client = self.stopped(supportsProgressReporting=True)
        running = client.send("evaluate", expression="spin()", frameId=self.frame_id, context="repl")
        client.ask("cancel", progressId=client.wait_for("progressStart")["progressId"])
        self.assertEqual(client.wait_for_answer(running)["message"], "cancelled")
        client.ask("cancel", requestId=running)              # answered already
        self.finish(client)

    def test_progress_is_for_clients_that_show_it(self):
        client = self.stopped()
        self.assertEqual(client.evaluate("ask(1)", self.frame_id), "2")
        client.evaluate("x = 1", self.frame_id)
        self.assertEqual({each["event"] for each in client.events} & {"progressStart", "progressEnd", "invalidated"}, set())
        self.finish(client)

    def test_clipboard_gets_whole_values(self):
        client = self.stopped()
        copied = {name: client.evaluate(name, self.frame_id, "clipboard") for name in ("nested", "many", "large", "text")}
        self.assertEqual(copied["nested"], "[[[[[[['deep']]]]]]]")
        self.assertEqual(copied["many"], repr(list(range(5000))))
        self.assertEqual(copied["large"], "x" * 3000000)
        self.assertEqual(copied["text"], "a 'text'\n" * 20000)
        for name in ("many", "text"):
            self.assertLess(len(client.evaluate(name, self.frame_id, "watch")), 1100)
        self.finish(client)

    def test_memory_that_may_have_changed(self):
        client = self.stopped(supportsMemoryEvent=True, supportsInvalidatedEvent=True)
        rows = client.locals(self.frame_id)
        self.assertIn("memoryReference", rows["fixed"])
        client.evaluate("data[0] = 120", self.frame_id)
        self.assertEqual(client.wait_for("invalidated"), {"areas": ["variables"]})
        reference = rows["data"]["memoryReference"]
        self.assertEqual(client.wait_for("memory"), {"memoryReference": reference, "offset": 0, "count": 3})
        self.assertEqual(client.ask("readMemory", memoryReference=reference, count=3)["data"], "eGJj")
        self.assertEqual([each for each in client.events if each["event"] == "memory"], [])
        self.finish(client)


if __name__ == "__main__":
    unittest.main()
