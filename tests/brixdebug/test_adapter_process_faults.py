"""Programs, children and editors that end in the middle of anything: nothing hangs, nothing is lost, nothing stays."""

import os
import signal
import socket
import subprocess
import unittest

from dap_client import Client
from session import line_of
from test_adapter_children import ChildrenTestCase


class FaultsTestCase(ChildrenTestCase):

    def setUp(self):
        super().setUp()
        self.marker = ("BRIXDEBUG_TEST=%s" % self.folder).encode()
        self.addCleanup(self.kill_all)

    def launch(self, program, marks=(), **arguments):
        return super().launch(program, marks, env={"BRIXDEBUG_TEST": str(self.folder)}, **arguments)

    def processes(self):
        """Those of the program that run."""
        found = []
        for name in os.listdir("/proc"):
            try:
                with open("/proc/%s/environ" % name, "rb") as file:
                    if self.marker in file.read().split(b"\0"):
                        found.append(int(name))
            except OSError:                  # no process, or it has just ended
                pass
        return found

    def kill_all(self):
        for process_id in self.processes():
            os.kill(process_id, signal.SIGKILL)

    def assert_none_is_left(self):
        for _ in range(3000):
            if not self.processes():
                return
            subprocess.run(["sleep", "0.01"])
        self.fail("left: %s" % [open("/proc/%d/cmdline" % each).read().split("\0") for each in self.processes()])


class ProgramTest(FaultsTestCase):
    ENDS = {
        "sys.exit(3)": 3,
        "os._exit(4)": 4,
        "os.kill(os.getpid(), signal.SIGTERM)": 128 + signal.SIGTERM,
        "os.kill(os.getpid(), signal.SIGSEGV)": 128 + signal.SIGSEGV,
        "os.execlp('sh', 'sh', '-c', 'echo replaced; exit 5')": 5,
        "os.execl(sys.executable, sys.executable, '-c', 'print(\"replaced\"); raise SystemExit(6)')": 6,
        "threading.Thread(target=os._exit, args=(7,)).start(); threading.Event().wait()": 7,
    }

    def test_program_ends_itself(self):
        for end, status in self.ENDS.items():
            for step in ("continue", "next"):
                with self.subTest(end=end, step=step):
                    program = self.program("""\
                        import os, signal, sys, threading
                        print("lines\\n" * 1000, flush=True)
                        END                         # end
                    """.replace("END", end))
                    client = self.launch(program, ["end"])
                    client.wait_for_stop("breakpoint")
                    client.go_on(step)
                    self.assertEqual(client.finish(), status)
                    self.assertEqual(client.process.wait(60), 0)
                    text = "lines\n" * 1000 + "\n" + ("replaced\n" if "replaced" in end else "")
                    self.assertEqual(client.output["stdout"], text)
                    self.assert_none_is_left()

    def test_program_closes_all_files_that_it_finds(self):
        """As daemons do.  What it opens then is its own, and it ends as it wants to."""
        program = self.program("""\
            import os
            first = os.open("first", os.O_RDWR | os.O_CREAT)
            breakpoint()
            os.closerange(3, 2000)          # close
            numbers = [os.open("file %d" % number, os.O_RDWR | os.O_CREAT) for number in range(600)]
            for number in numbers:
                os.write(number, b"x")
            os.write(1, b"%d %d" % (first, numbers == list(range(3, 603))))
            os._exit(3)
        """)
        client = self.launch(program, cwd=str(self.folder), subProcess=False)
        client.wait_for_stop("breakpoint")
        client.go_on()
        self.assertEqual(client.finish(), 3)
        self.assertEqual(client.output["stdout"], "3 1")
        for number in range(600):
            self.assertEqual((self.folder / ("file %d" % number)).read_text(), "x")

    def test_program_is_killed(self):
        program = self.program("import time\nx = 1   # stop\ntime.sleep(1000)\n")
        for state in ("waits", "stopped", "runs"):
            with self.subTest(state):
                client = self.editor()
                client.ask("initialize", adapterID="x")
                request = client.send("launch", {"program": str(program), "console": "internalConsole"})
                process_id = client.wait_for("process")["systemProcessId"]
                if state != "waits":
                    client.set_breakpoints(program, [2])
                    client.ask("configurationDone")
                    self.assertTrue(client.wait_for_answer(request)["success"])
                    client.wait_for_stop("breakpoint")
                if state == "runs":
                    client.go_on()
                os.kill(process_id, signal.SIGKILL)
                self.assertEqual(client.finish(), 128 + signal.SIGKILL)
                self.assertEqual(client.process.wait(60), 0)


class ManyChildrenTest(FaultsTestCase):
    BOMB = """\
        import os
        pids = []
        for number in range(200):
            pid = os.fork()
            if pid == 0:
                os.write(1, b"child\\n")
                os._exit(number % 7)
            pids.append(pid)
        print([os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) for pid in pids])
    """
    OUTPUT = "%s" % [number % 7 for number in range(200)]

    def check_output(self, client):
        lines = client.output["stdout"].splitlines()
        self.assertEqual((lines.count("child"), lines[-1], len(lines)), (200, self.OUTPUT, 201))
        self.assert_none_is_left()

    def test_two_hundred_children_that_are_not_wanted(self):
        client = self.launch(self.program(self.BOMB), subProcess=False)
        self.assertEqual(client.finish(), 0)
        self.check_output(client)

    def test_two_hundred_children_that_are_refused(self):
        program = self.program(self.BOMB)
        client = self.editor()

        def refuse(arguments):
            client.children.append(arguments["configuration"])
            raise ValueError("too many")

        client.on_request["startDebugging"] = refuse
        client.launch(program, (), {"supportsStartDebuggingRequest": True})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(len(client.children), 200)
        self.check_output(client)

    def test_two_hundred_children_with_sessions(self):
        program = self.program(self.BOMB)
        client = self.launch(program)
        alone = 0
        for number in range(200):
            while len(client.children) <= number:
                self.assertTrue(client.take())
            configuration = client.children[number]
            try:
                child = Client(self, connection=socket.create_connection(tuple(configuration["connect"].values())))
            except ConnectionRefusedError:   # the machine is slow, and this one has been given up
                alone += 1
                continue
            child.begin("attach", configuration)
            child.wait_for("process")
            child.wait_for_end()
            child.close()
        self.assertEqual(client.finish(), 0)
        self.check_output(client)
        self.assertEqual(client.output.get("console", "").count("goes on without the debugger"), alone)


class EditorTest(FaultsTestCase):
    TEXT = """\
        import os, signal, sys, time
        signal.signal(signal.SIGTERM, signal.SIG_IGN if sys.argv[1] == "ignores" else signal.SIG_DFL)
        pid = os.fork()
        here = 1                            # both
        time.sleep(1000)
    """

    def end_all(self, clients, way):
        self.assertEqual(len(self.processes()), 2)
        for client in clients:
            if way == "closed":
                client.process.stdin.close()
            else:
                client.process.kill()
        self.assert_none_is_left()

    def test_editor_dies(self):
        for way in ("closed", "killed"):
            for state in ("child waits", "child stopped", "both run"):
                with self.subTest(way=way, state=state):
                    program = self.program(self.TEXT)
                    client = self.launch(program, ["both"], args=["dies"])
                    clients = [client]
                    client.wait_for_stop("breakpoint")
                    while not client.children:
                        client.take()
                    if state != "child waits":
                        clients.append(self.child(client))
                        clients[1].wait_for_stop("breakpoint")
                    if state == "both run":
                        for each in clients:
                            each.go_on()
                    self.end_all(clients, way)

    def test_editor_dies_and_neither_the_program_nor_its_child_wants_to_end(self):
        program = self.program(self.TEXT)
        client = self.launch(program, ["both"], args=["ignores"], subProcess=False)
        client.wait_for_stop("breakpoint")
        self.end_all([client], "killed")


if __name__ == "__main__":
    unittest.main()
