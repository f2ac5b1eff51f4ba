"""One thread goes on under the debug adapter while all others stay where they are."""

import os
import time
import unittest

from dap_client import AdapterTestCase
from host_support import SESSION_SECONDS
from session import line_of

PROGRAM = """\
    import threading
    started = threading.Barrier(3)
    running = True
    counts = {"one": 0, "two": 0}

    def count(name):
        started.wait()
        while running:
            counts[name] += 1           # count
            last = counts[name]         # last

    def ends():
        for n in range(3):
            x = n                       # ends

    threads = [threading.Thread(target=count, args=(name,), name=name) for name in counts]
    for each in threads:
        each.start()
    started.wait()
    short = threading.Thread(target=ends, name="short")
    short.start()
    for each in threads:
        each.join()
    print("end")
"""


class SingleThreadTest(AdapterTestCase):
    def stopped_at(self, mark):
        self.path = self.program(PROGRAM)
        client = self.client()
        client.launch(self.path, {self.path: [line_of(self.path, mark)]})
        self.stop = client.wait_for_stop("breakpoint")
        client.set_breakpoints(self.path, [])
        self.threads = {each["name"]: each["id"] for each in client.ask("threads")["threads"]}
        self.names = {number: name for name, number in self.threads.items()}
        return client

    def counts(self, client):
        """Of both threads, read where the main thread stands: it has no part in this."""
        frame = client.frames(1)[-1]["id"]
        return eval(client.evaluate("counts", frame, "watch"))

    def end(self, client):
        client.evaluate("globals().update(running=False)", client.frames(1)[-1]["id"])
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "end\n")

    def other(self):
        return self.threads["two" if self.names[self.stop["threadId"]] == "one" else "one"]

    def test_steps_of_one_thread(self):
        client = self.stopped_at("count")
        own = self.names[self.stop["threadId"]]
        other = self.names[self.other()]
        before = self.counts(client)
        for _ in range(9):
            client.ask("next", threadId=self.stop["threadId"], singleThread=True)
            self.assertEqual(client.wait_for_stop("step")["threadId"], self.stop["threadId"])
        after = self.counts(client)
        self.assertEqual((after[own] - before[own], after[other] - before[other]), (3, 0))
        for _ in range(3):
            client.ask("next", threadId=self.other(), singleThread=True)
            self.assertEqual(client.wait_for_stop("step")["threadId"], self.other())
        last = self.counts(client)
        self.assertEqual(last[own], after[own])
        self.assertLessEqual(last[other], after[other] + 2)
        self.end(client)

    def test_one_thread_goes_on_and_the_others_can_be_looked_at(self):
        client = self.stopped_at("count")
        other, own = self.other(), self.stop["threadId"]
        body = client.ask("continue", threadId=own, singleThread=True)
        self.assertEqual(body, {"allThreadsContinued": False})
        place = client.place(other)
        before = self.counts(client)
        while self.counts(client)[self.names[own]] < before[self.names[own]] + 1000:
            pass
        self.assertEqual(self.counts(client)[self.names[other]], before[self.names[other]])
        self.assertEqual(client.place(other), place)
        self.assertEqual(client.refused("stackTrace", threadId=own), "thread %d is running" % own)
        client.ask("pause", threadId=own)
        stop = client.wait_for_stop("pause")
        self.assertEqual(stop["threadId"], own)
        self.assertEqual(self.counts(client)[self.names[other]], before[self.names[other]])
        self.end(client)

    def test_others_follow_one_by_one_or_all_together(self):
        client = self.stopped_at("count")
        other, own = self.other(), self.stop["threadId"]
        client.ask("continue", threadId=own, singleThread=True)
        before = self.counts(client)
        self.assertEqual(client.ask("continue", threadId=other, singleThread=True), {"allThreadsContinued": False})
        while self.counts(client)[self.names[other]] < before[self.names[other]] + 1000:
            pass
        self.assertEqual(client.ask("continue", threadId=1), {"allThreadsContinued": True})
        self.assertEqual(client.refused("stackTrace", threadId=1), "the program is running")
        client.ask("pause", threadId=1)
        client.wait_for_stop("pause")
        self.end(client)

    def test_all_go_on_when_the_only_one_has_ended(self):
        client = self.stopped_at("ends")
        self.assertEqual(self.names[self.stop["threadId"]], "short")
        client.ask("continue", threadId=self.stop["threadId"], singleThread=True)
        self.assertEqual(client.wait_for("continued")["allThreadsContinued"], True)
        client.ask("pause", threadId=1)
        client.wait_for_stop("pause")
        self.end(client)

    def test_breakpoint_that_another_had_reached_comes_when_it_goes_on(self):
        client = self.stopped_at("ends")
        client.set_breakpoints(self.path, [line_of(self.path, "last")])
        for _ in range(2):
            client.ask("next", threadId=self.stop["threadId"], singleThread=True)
            self.assertEqual(client.wait_for_stop("step")["threadId"], self.stop["threadId"])
        client.go_on()
        self.assertIn(self.names[client.wait_for_stop("breakpoint")["threadId"]], ("one", "two"))
        client.set_breakpoints(self.path, [])
        self.end(client)

    def test_client_that_leaves_lets_all_go(self):
        client = self.stopped_at("ends")
        client.evaluate("globals().update(running=False)", client.frames(1)[-1]["id"])
        client.ask("continue", threadId=self.other(), singleThread=True)
        client.ask("disconnect", terminateDebuggee=False)
        client.wait_for_end()
        process_id = client.wait_for("process")["systemProcessId"]
        deadline = time.monotonic() + SESSION_SECONDS
        while time.monotonic() < deadline:           # nobody is left who could tell
            try:
                os.kill(process_id, 0)
            except ProcessLookupError:
                return
            time.sleep(0.01)
        self.fail("the program has not ended")


if __name__ == "__main__":
    unittest.main()
