"""Where a thread goes next under the debug adapter: other lines, its function anew, one call of several, its end."""

import unittest

from dap_client import AdapterTestCase
from session import line_of

PROGRAM = """\
    def first(n):
        return n + 1                    # first

    def second(n):
        return n * 2                    # second

    class Thing:
        def method(self, n):
            return n                    # method

    def work(n):
        n += 1                          # begin
        for each in (1, 2):
            n += each                   # loop
        return second(first(Thing().method(n)))     # calls

    def other():
        return [
            first(1),                   # several
            second(2),
        ]

    def main():
        print("worked", work(1))
        other()
        work(1)

    main()
"""


class MoveTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        self.path = self.program(PROGRAM)

    def line(self, mark):
        return line_of(self.path, mark)

    def stopped_at(self, mark):
        client = self.client()
        client.launch(self.path, {self.path: [self.line(mark)]})
        self.stop = client.wait_for_stop("breakpoint")
        client.set_breakpoints(self.path, [])
        return client

    def goto(self, client, line, path=None):
        target, = client.ask("gotoTargets", source={"path": str(path or self.path)}, line=line)["targets"]
        return {"threadId": self.stop["threadId"], "targetId": target["id"]}

    def test_goto(self):
        client = self.stopped_at("begin")
        client.ask("goto", self.goto(client, self.line("calls")))
        self.assertEqual(client.wait_for_stop("goto")["frame"]["line"], self.line("calls"))
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "worked 4\n")

    def test_goto_outside_of_the_function_is_refused(self):
        client = self.stopped_at("begin")
        self.assertRegex(client.refused("goto", self.goto(client, self.line("second"))),
                         "^cannot go to line %d: " % self.line("second"))
        elsewhere = self.program("\n" * (self.line("calls") - 1) + "x = 1\n", "elsewhere.py")
        self.assertEqual(client.refused("goto", self.goto(client, self.line("calls"), elsewhere)),
                         "cannot go to line %d of another file: work() is in %s" % (self.line("calls"), self.path))
        self.assertEqual(client.refused("goto", threadId=1, targetId=99), "there is no such target")
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_function_starts_again_with_the_variables_that_it_has(self):
        client = self.stopped_at("loop")
        inner, outer = client.frames(1)[:2]
        self.assertEqual((inner["canRestart"], outer["canRestart"]), (True, False))
        self.assertEqual(client.refused("restartFrame", frameId=outer["id"]),
                         "only the function that the thread has stopped in can go on at another line")
        client.ask("restartFrame", frameId=inner["id"])
        stop = client.wait_for_stop("restart")
        self.assertEqual((stop["frame"]["line"], client.evaluate("n", stop["frame"]["id"])), (self.line("begin"), "2"))
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "worked 14\n")

    def test_calls_of_a_line_can_be_chosen(self):
        for label, name in (("Thing().method", "Thing.method"), ("first", "first"), ("second", "second")):
            with self.subTest(label):
                client = self.stopped_at("calls")
                targets = client.ask("stepInTargets", frameId=self.stop["frame"]["id"])["targets"]
                self.assertEqual([each["label"] for each in targets], ["Thing", "Thing().method", "first", "second"])
                target = next(each for each in targets if each["label"] == label)
                client.ask("stepIn", threadId=1, targetId=target["id"])
                self.assertEqual(client.wait_for_stop("step")["frame"]["name"], name)
                client.go_on("stepOut")
                self.assertEqual(client.wait_for_stop("step")["frame"]["line"], self.line("calls"))
                client.go_on()
                self.assertEqual(client.finish(), 0)

    def test_call_that_does_not_come(self):
        client = self.stopped_at("calls")
        targets = client.ask("stepInTargets", frameId=self.stop["frame"]["id"])["targets"]
        target = next(each for each in targets if each["label"] == "Thing")       # a class without code for that
        client.ask("stepIn", threadId=1, targetId=target["id"])
        self.assertEqual(client.wait_for_stop("step")["frame"]["name"], "main")

    def test_steps_of_single_instructions_are_refused(self):
        client = self.stopped_at("begin")
        self.assertEqual(client.refused("next", threadId=1, granularity="instruction"),
                         "steps go from line to line; those of single instructions are not supported")
        client.go_on()
        self.assertEqual(client.finish(), 0)


class TerminateThreadsTest(AdapterTestCase):
    TEXT = """\
        import threading, time
        done = []
        barrier = threading.Barrier(2)
        def spin(name):
            try:
                barrier.wait()
                while True:
                    pass                # spin
            finally:
                done.append(name)
        threads = [threading.Thread(target=spin, args=(name,), name=name) for name in ("one", "two")]
        for each in threads:
            each.start()
        for each in threads:
            each.join()
        print("ended", sorted(done))
    """

    def test_threads_end_as_by_sys_exit(self):
        path = self.program(self.TEXT)
        client = self.client()
        client.launch(path, {path: [line_of(path, "spin")]})
        stop = client.wait_for_stop("breakpoint")
        client.set_breakpoints(path, [])
        numbers = {each["name"]: each["id"] for each in client.ask("threads")["threads"]}
        self.assertEqual(client.refused("terminateThreads", threadIds=[1]),
                         "the main thread ends with the program: terminate ends both")
        self.assertEqual(client.refused("terminateThreads", threadIds=[99]), "there is no thread 99")
        # The one that has stopped, and one that is held.
        client.ask("terminateThreads", threadIds=[stop["threadId"]])
        other = "two" if numbers["one"] == stop["threadId"] else "one"
        client.ask("terminateThreads", threadIds=[numbers[other]])
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual((client.output["stdout"], client.output.get("stderr")), ("ended ['one', 'two']\n", None))


if __name__ == "__main__":
    unittest.main()
