"""Attaching to a process that runs already, by its number."""

import os
import shutil
import subprocess
import sys
import unittest

from dap_client import AdapterTestCase
from host_support import child_environment
from session import line_of


@unittest.skipUnless(hasattr(sys, "remote_exec") or shutil.which("gdb"), "attaching takes gdb before Python 3.14")
class ProcessTest(AdapterTestCase):
    def start(self):
        self.path = self.program("""\
            import os, sys
            hooks = sys.breakpointhook, sys.excepthook
            path, running = list(sys.path), True
            def tick():
                return 1                # tick
            print("ready", flush=True)
            if os.path.exists("wait"):
                print("read", sys.stdin.readline().strip(), flush=True)
            while running:
                tick()
            print(hooks == (sys.breakpointhook, sys.excepthook), path == sys.path,
                  [sys.monitoring.get_tool(number) for number in range(6)])
        """)
        self.process = subprocess.Popen([sys.executable, self.path], cwd=self.folder, env=child_environment(PYTHONPATH=""),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        for end in (self.process.stdin.close, self.process.stdout.close, self.process.wait, self.process.kill):
            self.addCleanup(end)
        self.assertEqual(self.process.stdout.readline(), "ready\n")
        return self.process.pid

    def attach(self, process_id):
        client = self.client()
        client.begin("attach", {"processId": process_id}, {self.path: [line_of(self.path, "tick")]})
        event = client.wait_for("process")
        self.assertEqual((event["systemProcessId"], event["startMethod"]), (self.process.pid, "attach"))
        return client, client.wait_for_stop("breakpoint")

    def test_clients_come_and_go_and_leave_nothing_behind(self):
        process_id = self.start()
        for number in (process_id, str(process_id)):
            client, stop = self.attach(number)
            self.assertEqual(stop["frame"]["name"], "tick")
            self.assertEqual(client.evaluate("__import__('sys').breakpointhook == hooks[0]", stop["frame"]["id"]), "False")
            if number != process_id:
                client.evaluate("globals().update(running=False)", stop["frame"]["id"])
            client.ask("disconnect")
            client.wait_for_end()
        self.assertEqual(self.process.stdout.read(), "True True [None, None, None, None, None, None]\n")
        self.assertEqual(self.process.wait(60), 0)

    def test_second_client_is_refused(self):
        process_id = self.start()
        first, stop = self.attach(process_id)
        first.set_breakpoints(self.path, [])
        first.go_on()
        second = self.client()
        second.ask("initialize", adapterID="x")
        self.assertEqual(second.refused("attach", processId=process_id),
                         "process %d is being debugged already" % process_id)
        second.wait_for("terminated")
        first.set_breakpoints(self.path, [line_of(self.path, "tick")])
        first.wait_for_stop("breakpoint")

    def test_process_that_is_not_there(self):
        gone = subprocess.Popen(["true"])
        gone.wait()
        client = self.client()
        client.ask("initialize", adapterID="x")
        self.assertEqual(client.refused("attach", processId=gone.pid), "there is no process %d" % gone.pid)
        client.wait_for("terminated")

    def test_other_arguments_beside_the_number(self):
        client = self.client()
        client.ask("initialize", adapterID="x")
        self.assertEqual(client.refused("attach", processId=1, connect=5678),
                         "attach needs one of 'connect', 'listen' and 'processId'; given are 'connect' and 'processId'")

    @unittest.skipUnless(hasattr(sys, "remote_exec"), "gdb gets into a process that waits")
    def test_process_that_waits(self):
        (self.folder / "wait").touch()
        process_id = self.start()
        client = self.client(TMPDIR=str(self.folder))
        client.ask("initialize", adapterID="x")
        request = client.send("attach", processId=process_id)
        while "does not answer" not in client.output.get("console", ""):
            client.take()
        client.ask("disconnect")
        self.assertEqual(client.wait_for_answer(request)["message"], "process %d has not answered" % process_id)
        client.wait_for_end()
        self.assertEqual(client.process.wait(60), 0)
        self.assertEqual([each for each in os.listdir(self.folder) if each.startswith("brixdebug-")], [])
        # What has been given up does not happen later.
        self.process.stdin.write("on\n")
        self.process.stdin.flush()
        self.assertEqual(self.process.stdout.readline(), "read on\n")
        client, stop = self.attach(process_id)
        client.ask("disconnect")


if __name__ == "__main__":
    unittest.main()
