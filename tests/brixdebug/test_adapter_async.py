"""Tasks of asyncio under the debug adapter: who awaits whom."""

import unittest

from dap_client import AdapterTestCase
from session import line_of

PROGRAM = """\
    import asyncio, threading

    async def leaf(kind):
        await asyncio.sleep(0)
        return kind                             # leaf

    async def middle():
        inside = "middle"
        await asyncio.create_task(leaf("task"), name="leaf")            # awaits task

    async def main():
        await asyncio.create_task(middle(), name="middle")              # awaits middle
        await asyncio.gather(asyncio.create_task(leaf("gather"), name="leaf"), asyncio.sleep(0))        # gathers
        async with asyncio.TaskGroup() as group:
            group.create_task(leaf("group"), name="leaf")
        await asyncio.wait([asyncio.create_task(leaf("wait"), name="leaf")])            # waits
        await leaf("none")

    def run():
        asyncio.run(main())

    THREAD
"""


class AwaitingTest(AdapterTestCase):
    def stacks(self, start):
        """For each stop: what is awaited by whom, and the user's own frames there."""
        self.path = self.program(PROGRAM.replace("THREAD", start))
        client = self.client()
        client.launch(self.path, {self.path: [line_of(self.path, "leaf")]})
        found = {}
        for _ in range(5):
            stop = client.wait_for_stop("breakpoint")
            frames = client.frames(stop["threadId"])
            self.assertEqual((frames[0]["name"], frames[0]["line"]), ("leaf", line_of(self.path, "leaf")))
            labels = [index for index, each in enumerate(frames) if each.get("presentationHint") == "label"]
            kind = client.evaluate("kind", frames[0]["id"])
            found[kind] = [(frames[index]["name"], [
                (each["name"], each["line"]) for each in frames[index + 1:]
                if each.get("source", {}).get("path") == str(self.path)]) for index in labels]
            if kind == "'task'":
                self.assertEqual(client.locals(frames[labels[0] + 1]["id"])["inside"]["value"], "'middle'")
                self.assertEqual([each["id"] for each in client.frames(stop["threadId"])], [each["id"] for each in frames])
            client.go_on()
        self.assertEqual(client.finish(), 0)
        return found

    def check(self, start):
        found = self.stacks(start)
        middle, main = (("middle", line_of(self.path, "awaits task")), ("main", line_of(self.path, "awaits middle")))
        self.assertEqual(found["'task'"], [("leaf is awaited by middle", [middle, main]),
                                           ("middle is awaited by Task-1", [main])])
        self.assertEqual(found["'gather'"], [("leaf is awaited by Task-1", [("main", line_of(self.path, "gathers"))])])
        (text, frames), = found["'group'"]
        self.assertEqual((text, [name for name, _ in frames]), ("leaf is awaited by Task-1", ["main"]))
        self.assertEqual(found["'wait'"], [("leaf is awaited by Task-1", [("main", line_of(self.path, "waits"))])])
        self.assertEqual(found["'none'"], [])

    def test_loop_of_the_main_thread(self):
        self.check("run()")

    def test_loop_of_another_thread(self):
        self.check("thread = threading.Thread(target=run); thread.start(); thread.join()")


if __name__ == "__main__":
    unittest.main()
