"""Expressions under the debug adapter: long ones, those that need other threads, cancelled ones, whole values."""

import os
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

    def test_wait_in_c_code_of_the_main_thread_is_cancelled(self):
        client = self.stopped(supportsProgressReporting=True)
        client.evaluate("import time, signal; held = threading.Lock(); held.acquire()", self.frame_id)
        for text in ("time.sleep(1000)", "held.acquire()", "[held.acquire() for _ in 'x']"):
            running = client.send("evaluate", expression=text, frameId=self.frame_id, context="repl")
            client.wait_for("progressStart")
            client.ask("cancel", requestId=running)
            self.assertEqual(client.wait_for_answer(running)["message"], "cancelled")
            self.assertEqual(client.evaluate("1 + 1", self.frame_id), "2")
        self.assertEqual(client.evaluate("signal.getsignal(signal.SIGURG) is signal.SIG_DFL", self.frame_id), "False")
        self.assertNotIn("The expression that was cancelled", client.output["console"])
        self.finish(client)

    def test_wait_in_c_code_of_another_thread_ends_by_itself(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        path = self.program("""\
            import threading
            def work():
                x = 1                           # here
            thread = threading.Thread(target=work)
            thread.start()
            thread.join()
        """, "waits.py")
        client = self.client()
        client.launch(path, {path: [line_of(path, "here")]}, {"supportsProgressReporting": True})
        stop = client.wait_for_stop("breakpoint")
        frame_id, thread_id = stop["frame"]["id"], stop["threadId"]
        running = client.send("evaluate", expression="open(%r).read()" % str(fifo), frameId=frame_id, context="repl")
        waiting = client.send("evaluate", expression="1", frameId=frame_id, context="repl")
        client.wait_for("progressStart")
        client.ask("cancel", requestId=running)
        self.assertEqual(client.wait_for_answer(running)["message"], "cancelled")
        stuck = "an expression that was cancelled has not ended: it is inside C code that cannot be interrupted"
        self.assertEqual(client.wait_for_answer(waiting)["message"], stuck)
        self.assertEqual(client.output["console"].splitlines()[-1],
                         "The expression that was cancelled is inside C code that cannot be interrupted. "
                         "Until it comes back, requests that need its thread are refused.")
        for command in ("continue", "next"):
            self.assertEqual(client.refused(command, threadId=thread_id), stuck)
        self.assertEqual(client.place(thread_id), ("work", line_of(path, "here")))
        fifo.write_text("")
        while not client.output["console"].endswith("The expression that was cancelled has ended.\n"):
            self.assertTrue(client.take())
        self.assertEqual(client.evaluate("1", frame_id), "1")
        self.assertEqual(client.evaluate("thread.is_alive()", frame_id), "True")
        client.go_on(thread_id=thread_id)
        self.assertEqual(client.finish(), 0)

    def test_session_with_an_expression_that_does_not_end_can_be_left(self):
        client = self.stopped(supportsProgressReporting=True)
        client.evaluate("import ctypes; lock, mutex = ctypes.CDLL(None).pthread_mutex_lock, ctypes.create_string_buffer(64)",
                        self.frame_id)
        running = client.send("evaluate", expression="lock(mutex), lock(mutex)", frameId=self.frame_id)
        waiting = client.send("evaluate", expression="1", frameId=self.frame_id)
        client.wait_for("progressStart")
        client.ask("cancel", requestId=running)
        self.assertEqual(client.wait_for_answer(running)["message"], "cancelled")
        self.assertFalse(client.wait_for_answer(waiting)["success"])
        client.ask("disconnect", terminateDebuggee=True)
        self.assertEqual(client.process.wait(60), 0)

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
