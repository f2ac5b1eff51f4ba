"""Who comes to the adapter's doors and does not leave by himself, says nonsense, or is not who he seems to be."""

import json
import os
import select
import socket
import subprocess
import sys
import time
import unittest

from dap_client import AdapterTestCase, Client
from host_support import HOST_DIR, LOCK_WARNING, child_environment, module_dir
from session import line_of

sys.path[:0] = [module_dir(), str(HOST_DIR)]

from brixdebug.dap.heritage import STARTUP_FOLDER, VARIABLE, Heritage  # noqa: E402
from brixdebug.dap.wire import Wire, WireError  # noqa: E402

INITIALIZE = {"seq": 1, "type": "request", "command": "initialize", "arguments": {"adapterID": "x"}}


def framed(message):
    data = json.dumps(message).encode()
    return b"Content-Length: %d\r\n\r\n%s" % (len(data), data)


class DoorTest(AdapterTestCase):
    """A program that lets in who knows a secret, and an adapter that does."""

    def start(self, *command):
        secret = self.folder / "secret"
        secret.write_text("open sesame")
        secret.chmod(0o600)
        self.served = subprocess.Popen(
            [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", *command[:3],
             "--secret-file", str(secret), *command[3:]],
            env=child_environment(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        for end in (self.served.stdout.close, self.served.wait, self.served.kill):
            self.addCleanup(end)
        return int(self.served.stdout.readline().rpartition(":")[2])

    def program_port(self):
        self.is_adapter = False
        self.path = self.program("""\
            import time
            while True:
                time.sleep(0.005)           # here
        """)
        return self.start("brixdebug", "--listen", "0", str(self.path))

    def adapter_port(self):
        self.is_adapter = True
        self.path = self.program("x = 1             # here\n")
        return self.start("brixdebug.dap", "--port", "0")

    def stranger(self, port):
        return Client(self, connection=self.connection(port))

    def connection(self, port):
        connection = socket.create_connection(("127.0.0.1", port))
        self.addCleanup(connection.close)
        return connection

    def assert_owner_gets_in(self, port):
        client = self.stranger(port)
        if self.is_adapter:
            client.launch(self.path, {self.path: [line_of(self.path, "here")]}, secret="open sesame")
        else:
            client.begin("attach", {"secret": "open sesame"}, {self.path: [line_of(self.path, "here")]})
        client.wait_for_stop("breakpoint")

    def talk_until_dropped(self, connection, answers):
        """Say events without end; `answers`: take what is said to it."""
        event = framed({"seq": 2, "type": "request", "command": "threads"}) * 100
        connection.sendall(framed(INITIALIZE))
        connection.setblocking(False)
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            readable, writable, _ = select.select([connection] if answers else [], [connection], [], 1)
            try:
                if readable and not connection.recv(1 << 16):
                    return
                if writable:
                    connection.send(event)
            except BlockingIOError:
                pass
            except OSError:
                return
        self.fail("a stranger that talks is never dropped")

    def test_program_gives_one_try(self):
        port = self.program_port()
        stranger = self.stranger(port)
        stranger.ask("initialize", adapterID="x")
        stranger.refused("attach", {"secret": "wrong"})
        stranger.wait_for_end()
        self.assertEqual(stranger.output, {})        # it was not sent away for taking too long
        self.assert_owner_gets_in(port)

    def test_who_talks_without_end_is_dropped(self):
        for open_door in (self.program_port, self.adapter_port):
            with self.subTest(open_door.__name__):
                port = open_door()
                self.talk_until_dropped(self.connection(port), answers=True)
                self.assert_owner_gets_in(port)

    def test_who_does_not_listen_keeps_nobody_out(self):
        for open_door in (self.program_port, self.adapter_port):
            with self.subTest(open_door.__name__):
                port = open_door()
                for connection in [self.connection(port) for _ in range(1 if self.is_adapter else 8)]:
                    self.talk_until_dropped(connection, answers=False)
                self.assert_owner_gets_in(port)

    def test_wrong_types(self):
        for open_door in (self.program_port, self.adapter_port):
            with self.subTest(open_door.__name__):
                port = open_door()
                stranger = self.stranger(port)
                stranger.wait_for_answer(stranger.send_any("initialize", [1]))
                stranger.close()
                stranger = self.stranger(port)
                stranger.ask("initialize", adapterID="x")
                stranger.wait_for_answer(stranger.send_any("disconnect", [1]))
                stranger.close()
                self.assert_owner_gets_in(port)


class AnswerTest(AdapterTestCase):
    """Every request has one answer, whatever becomes of it."""

    def test_host_that_cannot_be(self):
        client = self.client()
        client.ask("initialize", adapterID="x")
        self.assertIn("cannot connect to %s:1: " % ("a" * 300), client.refused("attach", connect={"host": "a" * 300, "port": 1}))

    def test_terminal_that_is_nonsense(self):
        client = self.client()
        client.record_nothing()
        client.on_request["runInTerminal"] = lambda arguments: [1]
        client.ask("initialize", adapterID="x", supportsRunInTerminalRequest=True)
        self.assertIn("launch failed: AttributeError: ",
                      client.refused("launch", program=str(self.program("x = 1\n")), console="integratedTerminal"))

    def test_request_after_the_end(self):
        path = self.program("""\
            def tick():
                return 1                # here
            while "stops" not in globals():
                tick()
        """)
        served = subprocess.Popen([sys.executable, "-m", "brixdebug", "--listen", "0", path], env=child_environment(),
                                  stderr=subprocess.PIPE, text=True)
        for end in (served.stderr.close, served.wait, served.kill):
            self.addCleanup(end)
        client = self.client()
        client.begin("attach", {"connect": {"port": int(served.stderr.readline().rpartition(":")[2])}},
                     {path: [line_of(path, "here")]})
        stop = client.wait_for_stop("breakpoint")
        client.evaluate("globals().update(stops=True)", stop["frame"]["id"])
        client.go_on()
        client.wait_for("terminated")
        self.assertEqual(client.refused("threads"), "the program has ended")

    def test_numbers_of_requests_begin_where_the_client_wants(self):
        """What the adapter asks of the program is no answer to the client's own requests."""
        path = self.program("import time\ntime.sleep(1000)\n")

        def open_terminal(arguments):
            self.terminal = subprocess.Popen(arguments["args"], env=child_environment(**arguments["env"]))
            self.addCleanup(self.terminal.wait)
            self.addCleanup(self.terminal.kill)
            return {"processId": self.terminal.pid}

        client = self.client()
        client.on_request["runInTerminal"] = open_terminal
        client._seq = -1
        client.launch(path, console="integratedTerminal", initialize={"supportsRunInTerminalRequest": True})
        client.ask("terminate")
        client.wait_for("terminated")


class EndTest(AdapterTestCase):
    """A program that cannot write out what it has printed ends all the same."""

    def test_streams(self):
        for text in ("sys.stdout = None", "sys.stdout.close()", "sys.stdout = Endless()"):
            for way in ("disconnect", "terminate"):
                with self.subTest(text, way=way):
                    path = self.program("""\
                        import sys, time
                        class Endless:
                            def flush(self):
                                time.sleep(1000)
                        %s
                        while True:
                            time.sleep(0.005)           # here
                    """ % text)
                    served = subprocess.Popen([sys.executable, "-m", "brixdebug", "--listen", "0", path],
                                              env=child_environment(), stderr=subprocess.PIPE, text=True)
                    for end in (served.stderr.close, served.wait, served.kill):
                        self.addCleanup(end)
                    port = int(served.stderr.readline().rpartition(":")[2])
                    client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
                    client.begin("attach", {}, {path: [line_of(path, "here")]})
                    client.wait_for_stop("breakpoint")
                    if way == "terminate":
                        client.ask("terminate")
                    else:
                        client.ask("disconnect", terminateDebuggee=True)
                    served.wait(30)


class LeavingTest(AdapterTestCase):
    def test_clients_leave_no_descriptors(self):
        path = self.program("""\
            import gc, os
            gc.disable()
            def tick():
                return 1                # here
            while True:
                tick()
        """)
        served = subprocess.Popen([sys.executable, "-m", "brixdebug", "--listen", "0", path], env=child_environment(),
                                  stderr=subprocess.PIPE, text=True)
        for end in (served.stderr.close, served.wait, served.kill):
            self.addCleanup(end)
        port = int(served.stderr.readline().rpartition(":")[2])
        counts = []
        for _ in range(4):
            client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
            client.begin("attach", {}, {path: [line_of(path, "here")]})
            stop = client.wait_for_stop("breakpoint")
            counts.append(client.evaluate("len(os.listdir('/proc/self/fd'))", stop["frame"]["id"]))
            client.ask("disconnect")
            client.wait_for_end()
        self.assertEqual(counts[1:], counts[:1] * 3)


class ImpostorTest(AdapterTestCase):
    """Who is taken for somebody else."""

    def test_program_cannot_have_the_editor_start_anything(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        client = self.client()
        seen = []
        for command in ("runInTerminal", "startDebugging"):
            client.on_request[command] = lambda arguments: seen.append(arguments)
        client.ask("initialize", adapterID="x")
        client.send("attach", connect={"port": listener.getsockname()[1]})
        connection, _ = listener.accept()
        self.addCleanup(connection.close)
        program = Wire(connection.fileno(), connection.fileno(), connection)
        self.assertEqual([program.read(60)["command"] for _ in range(2)], ["initialize", "attach"])
        child = {"request": "attach", "connect": {"port": 1}}
        for command, arguments in (
                ("runInTerminal", {"cwd": "/", "args": ["true"]}), ("startDebugging", None), ("startDebugging", []),
                ("startDebugging", {"request": "launch", "configuration": {"program": "x"}}),
                ("startDebugging", {"request": "launch", "configuration": child}),
                ("startDebugging", {"request": "attach", "configuration": {**child, "request": "launch"}}),
                ("startDebugging", {"request": "attach", "configuration": {"request": "attach", "processId": 1}}),
                ("somethingElse", {})):
            with self.subTest(command, arguments=arguments):
                program.request(command, arguments)
                self.assertFalse(program.read(60)["success"])
        program.request("startDebugging", {"request": "attach", "configuration": child})
        while not seen:
            client.take()
        self.assertTrue(program.read(60)["success"])
        self.assertEqual(seen, [{"request": "attach", "configuration": child}])

    @unittest.skipIf(os.geteuid(), "only root can be somebody else")
    def test_another_user_at_the_place_of_a_parent_that_has_gone(self):
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind("")
        os.seteuid(65534)
        try:
            listener.listen()
        finally:
            os.seteuid(0)
        desk = listener.getsockname()[1:].decode(), "token"
        heritage = Heritage([desk], "127.0.0.1", ends_program=False, prints_to_client=False)
        child = subprocess.Popen([sys.executable, "-c", "print(1)"], stdout=subprocess.PIPE, text=True, env=child_environment(
            **{VARIABLE: heritage.to_text(), "PYTHONPATH": STARTUP_FOLDER}))
        for end in (child.stdout.close, child.wait, child.kill):
            self.addCleanup(end)
        connection, _ = listener.accept()
        with connection:
            self.assertEqual(connection.recv(1), b"")        # it is told no secret
        self.assertEqual(child.stdout.read(), "1\n")


class DeskTest(AdapterTestCase):
    """The socket at which children ask for sessions: its name can be seen by all users of the machine."""

    def setUp(self):
        super().setUp()
        path = self.program("""\
            import subprocess, sys
            child = subprocess.Popen([sys.executable, "-c", "input()"], stdin=subprocess.PIPE)
            x = 1                           # here
            def start_child():
                return subprocess.run([sys.executable, "-c", "print(4 + 5)"], stdout=subprocess.PIPE).stdout
        """)
        self.client = self.client()
        self.client.launch(path, {path: [line_of(path, "here")]}, showReturnValue=False)
        self.process_id = self.client.wait_for("process")["systemProcessId"]
        self.frame_id = self.client.wait_for_stop("breakpoint")["frame"]["id"]
        child_id = self.client.evaluate("child.pid", self.frame_id)
        with open("/proc/%s/environ" % child_id, "rb") as file:
            variables = dict(each.split(b"=", 1) for each in file.read().split(b"\0") if each)
        (self.name, _), = json.loads(variables[VARIABLE.encode()])["desks"]

    def count_threads(self):
        return len(os.listdir("/proc/%d/task" % self.process_id))

    def come(self, count):
        found = []
        for _ in range(count):
            connection = socket.socket(socket.AF_UNIX)
            self.addCleanup(connection.close)
            connection.connect("\0" + self.name)
            found.append(connection)
        return found

    def test_who_says_nothing_gets_a_bounded_number_of_threads(self):
        before = self.count_threads()
        self.come(100)
        while self.count_threads() < before + 32:
            self.client.ask("threads")
        for _ in range(50):
            self.client.ask("threads")
            self.assertLessEqual(self.count_threads(), before + 32)

    @unittest.skipIf(os.geteuid(), "only root can be somebody else")
    def test_other_users_do_not_keep_children_out(self):
        before = self.count_threads()
        os.seteuid(65534)
        try:
            others = self.come(20)
        finally:
            os.seteuid(0)
        poll = select.poll()
        for each in others:
            poll.register(each, select.POLLIN)
        sent_away = set()
        while len(sent_away) < 16:
            self.assertLessEqual(self.count_threads(), before + 4)
            for descriptor, _ in poll.poll(100):
                poll.unregister(descriptor)
                sent_away.add(descriptor)
        self.assertEqual(poll.poll(0), [])
        self.come(10)
        self.client.ask("evaluate", expression="child.communicate(b'1')", frameId=self.frame_id)


class ListenTest(AdapterTestCase):
    def test_what_cannot_be_is_refused_and_nothing_listens(self):
        path = self.program("""\
            import brixdebug
            def refused(*arguments, **more):
                try:
                    return brixdebug.listen(*arguments, **more)
                except Exception as error:
                    return "%s: %s" % (type(error).__name__, error)
            print(refused("x"))
            print(refused(("127.0.0.1", 0, 0)))
            print(refused(0, secret=""))
            print(refused(0, secret=5))
            print(refused("0.0.0.0:0"))
            print(refused("192.0.2.1:0", secret="x").partition(":")[0])
            print(brixdebug.is_client_connected())
            try:
                brixdebug.wait_for_client()
            except RuntimeError as error:
                print(error)
            print(refused(0).rpartition(":")[0])
            for address in (0, "x", "0.0.0.0:0"):
                print(refused(address))
        """)
        done = subprocess.run([sys.executable, str(path)], env=child_environment(), capture_output=True, text=True, timeout=60)
        listens = "RuntimeError: this program listens for an editor already"
        self.assertEqual(done.stdout.splitlines(), [
            "ValueError: a port is a number from 0 to 65535, not 'x'; write [HOST:]PORT or unix:PATH",
            "ValueError: an address is (host, port), not ('127.0.0.1', 0, 0)",
            "ValueError: a secret is a text that is not empty",
            "ValueError: a secret is a text that is not empty",
            "ValueError: 0.0.0.0:0 can be reached from other machines: give a secret",
            "OSError", "False", "there is nothing to wait for: call listen() first",
            "127.0.0.1", listens, listens, listens])


class StalledClientTest(AdapterTestCase):
    def test_program_goes_on_without_a_client_that_reads_nothing(self):
        path = self.program("""\
            import brixdebug
            from brixdebug.dap import beginning
            beginning.CLIENT_SECONDS = 1
            print(brixdebug.listen(0), flush=True)
            brixdebug.wait_for_client()
            text = "x" * 10000
            for n in range(3000):
                y = 1                       # here
            print("done")
        """)
        served = subprocess.Popen([sys.executable, str(path)], env=child_environment(), stdout=subprocess.PIPE, text=True)
        for end in (served.stdout.close, served.wait, served.kill):
            self.addCleanup(end)
        port = int(served.stdout.readline().rpartition(":")[2])
        connection = socket.create_connection(("127.0.0.1", port))
        client = Wire(connection.fileno(), connection.fileno(), connection)
        client.request("initialize", {"adapterID": "x"})
        client.request("attach", {})
        client.request("setBreakpoints", {"source": {"path": str(path)}, "breakpoints": [
            {"line": line_of(path, "here"), "logMessage": "{n} {text}"}]})
        client.request("configurationDone", {})
        served.wait(60)
        self.assertEqual(served.stdout.read(), "done\n")
        numbers = []
        while True:                          # what had been said before is not lost
            try:
                message = client.read()
            except WireError:
                break
            if message is None:
                break
            if message.get("event") == "output":
                numbers.append(int(message["body"]["output"].split()[0]))
        self.assertEqual(numbers, list(range(len(numbers))))
        self.assertGreater(len(numbers), 10)


if __name__ == "__main__":
    unittest.main()
