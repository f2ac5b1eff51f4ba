"""Clients that go, and programs that end, in each state of a session: nothing hangs, and nothing stays."""

import os
import signal
import socket
import subprocess
import sys
import threading
import unittest

from dap_client import Client
from host_support import LOCK_WARNING, child_environment
from session import line_of
from test_adapter_process_faults import FaultsTestCase

# What a client does before it goes, each after the one before.
BEFORE_THE_STOP = ["nothing", "initialized", "begun"]
AT_THE_STOP = ["stopped", "computes", "sleeps", "waits for a thread", "steps"]

MARK = "open(%r, 'w').close()"
EVALUATED = {
    "computes": "%s\nwhile True: pass",
    "sleeps": "%s\n__import__('time').sleep(1000)",
    "waits for a thread": "%s\nlock.acquire()",
    "steps": "slow = True",
}


class GoneTestCase(FaultsTestCase):
    TEXT = """\
        import os, threading, time
        lock = threading.Lock()
        lock.acquire()
        slow = False
        running = True
        def tick():
            if slow:
                open("reached", "w").close()
                time.sleep(1000)
        while running:
            tick()                          # tick
            time.sleep(0.005)
    """

    def wait_for_file(self, path):
        for _ in range(6000):
            if path.exists():
                path.unlink()
                return
            threading.Event().wait(0.01)
        self.fail("the program does not come to %s" % path)

    def bring_to(self, client, state, request, arguments, program):
        """Have `client` do what comes before `state`."""
        if state == "nothing":
            return
        client.ask("initialize", adapterID="x")
        if state == "initialized":
            return
        client.send(request, arguments)
        client.wait_for("initialized")
        if state == "begun":
            return
        client.set_breakpoints(program, [line_of(program, "tick")])
        client.ask("configurationDone")
        frame_id = client.wait_for_stop("breakpoint")["frame"]["id"]
        if state == "steps":
            client.evaluate(EVALUATED[state], frame_id)
            client.set_breakpoints(program, [])
            client.send("next", threadId=1)
            self.wait_for_file(self.folder / "reached")
        elif state != "stopped":
            mark = self.folder / "mark"
            client.send("evaluate", expression=EVALUATED[state] % MARK % str(mark), frameId=frame_id, context="repl")
            self.wait_for_file(mark)


class LaunchedTest(GoneTestCase):
    def test_program_ends_with_its_client(self):
        program = self.program(self.TEXT)
        for state in BEFORE_THE_STOP + AT_THE_STOP:
            for way in ("closed", "killed"):
                with self.subTest(state=state, way=way):
                    client = self.editor()
                    self.bring_to(client, state, "launch", {
                        "program": str(program), "console": "internalConsole", "cwd": str(self.folder),
                        "env": {"BRIXDEBUG_TEST": str(self.folder)}}, program)
                    if way == "closed":
                        client.process.stdin.close()
                        self.assertEqual(client.process.wait(60), 0)
                    else:
                        client.process.kill()
                    self.assert_none_is_left()


class AttachedTest(GoneTestCase):
    def test_program_goes_on_and_takes_the_next_client(self):
        program = self.program(self.TEXT)
        command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", "brixdebug", "--listen", "0", str(program)]
        served = subprocess.Popen(command, cwd=self.folder, stderr=subprocess.PIPE, text=True,
                                  env=child_environment(BRIXDEBUG_TEST=str(self.folder)))
        self.addCleanup(served.stderr.close)
        self.addCleanup(served.wait)
        self.addCleanup(served.kill)
        port = int(served.stderr.readline().rpartition(":")[2])
        for state in BEFORE_THE_STOP + ["stopped", "computes", "sleeps", "waits for a thread"]:
            with self.subTest(state):
                connection = socket.create_connection(("127.0.0.1", port))
                client = Client(self, connection=connection)
                self.bring_to(client, state, "attach", {}, program)
                connection.shutdown(socket.SHUT_WR)
                while client.take():         # up to the end: the program has noticed
                    pass
                client.close()
        client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
        client.begin("attach", {}, {program: [line_of(program, "tick")]})
        frame_id = client.wait_for_stop("breakpoint")["frame"]["id"]
        client.evaluate("running = False", frame_id)
        client.set_breakpoints(program, [])
        client.go_on()
        client.wait_for_end()
        self.assertEqual(served.wait(60), 0)


class ProgramTest(GoneTestCase):
    ENDS = {"os._exit(5)": 5, "os.kill(os.getpid(), 9)": 128 + signal.SIGKILL, "os.abort()": 128 + signal.SIGABRT,
            "threading.Thread(target=os._exit, args=(6,)).start(); time.sleep(1000)": 6}

    def test_program_ends_while_it_evaluates(self):
        program = self.program(self.TEXT)
        for end, status in self.ENDS.items():
            with self.subTest(end):
                client = self.launch(program, ["tick"])
                frame_id = client.wait_for_stop("breakpoint")["frame"]["id"]
                self.assertEqual(client.refused("evaluate", expression=end, frameId=frame_id, context="repl"), "the program has ended")
                self.assertEqual(client.finish(), status)
                self.assertEqual(client.process.wait(60), 0)
                self.assert_none_is_left()


class ChildTest(GoneTestCase):
    def test_child_whose_client_goes_before_the_child_has_begun(self):
        """Who has said nothing was nobody; a child of a program that is nothing without its editor ends with its own client."""
        program = self.program("""\
            import os
            pid = os.fork()
            if pid == 0:
                os._exit(7)
            print(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
        """)
        for state, status in ("nothing", 7), ("initialized", 7), ("begun", -signal.SIGTERM):
            with self.subTest(state):
                client = self.launch(program)
                while not client.children:
                    self.assertTrue(client.take())
                configuration = client.children[0]
                connection = socket.create_connection(tuple(configuration["connect"].values()))
                self.bring_to(Client(self, connection=connection), state, "attach", configuration, program)
                connection.shutdown(socket.SHUT_RDWR)
                connection.close()
                if state != "begun":
                    child = Client(self, connection=socket.create_connection(tuple(configuration["connect"].values())))
                    child.begin("attach", configuration)
                    child.wait_for_end()
                self.assertEqual(client.finish(), 0)
                self.assertEqual(client.output["stdout"], "%d\n" % status)
                self.assert_none_is_left()


if __name__ == "__main__":
    unittest.main()
