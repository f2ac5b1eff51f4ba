"""Programs that let editors in: who may come, who may not, and that the program goes on."""

import errno
import random
import socket
import subprocess
import sys
import unittest

from dap_client import AdapterTestCase, Client
from host_support import LOCK_WARNING, child_environment
from session import line_of

DROPPED = errno.EPIPE, errno.ECONNRESET, errno.ENOTCONN      # at once


class AttachTest(AdapterTestCase):
    LOOP = """\
        import time
        running = True
        def tick():
            return 1                    # tick
        while running:
            tick()
            time.sleep(0.005)
    """

    INITIALIZE = b'{"seq": 1, "type": "request", "command": "initialize", "arguments": {"adapterID": "x"}}'

    def start(self, *options, text=LOOP):
        path = self.program(text, "served.py")
        command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", "brixdebug", *options, str(path)]
        self.served = subprocess.Popen(command, env=child_environment(), stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.served.stderr.close)
        self.addCleanup(self.served.wait)
        self.addCleanup(self.served.kill)
        return path

    def port(self):
        line = self.served.stderr.readline()
        self.assertRegex(line, r"^brixdebug: listening at 127\.0\.0\.1:\d+\n$")
        return int(line.rpartition(":")[2])

    def attach(self, client, path, port, **arguments):
        client.begin("attach", {"connect": {"host": "127.0.0.1", "port": port}, **arguments},
                     {path: [line_of(path, "tick")]})
        return client.wait_for_stop("breakpoint")

    def test_clients_come_and_go(self):
        path = self.start("--listen", "0")
        port = self.port()
        for way in ("disconnect", "death", "last"):
            with self.subTest(way):
                client = self.client()
                stop = self.attach(client, path, port)
                if way == "death":
                    client.process.kill()
                    continue
                if way == "last":
                    client.evaluate("globals().update(running=False)", stop["frame"]["id"])
                client.ask("disconnect")
                client.wait_for_end()
        self.assertEqual(self.served.wait(60), 0)

    def test_client_may_connect_directly(self):
        path = self.start("--listen", "0", "--wait-for-client")
        client = Client(self, connection=socket.create_connection(("127.0.0.1", self.port())))
        self.attach(client, path, 0, django=True)
        self.assertEqual(client.output, {"console": "These settings have no effect here: django\n"})
        client.ask("disconnect", terminateDebuggee=True)
        self.served.wait(60)

    def test_settings_without_effect_are_said_once(self):
        path = self.start("--listen", "0", "--wait-for-client")
        client = self.client()
        self.attach(client, path, self.port(), django=True, program="x")
        self.assertEqual(client.output, {"console": "These settings have no effect here: django, program\n"})
        client.ask("disconnect", terminateDebuggee=True)

    def test_second_client_is_refused(self):
        path = self.start("--listen", "0")
        port = self.port()
        first = self.client()
        self.attach(first, path, port)
        second = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
        second.wait_for_end()
        self.assertEqual(second.output, {"stderr": "Another client is connected to this program.\n"})
        self.assertEqual(first.evaluate("running"), "True")

    def test_strangers_are_dropped_and_the_program_goes_on(self):
        path = self.start("--listen", "0")
        port = self.port()
        for garbage in (b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", b"POST / HTTP/1.1\r\nContent-Length: %d\r\n\r\n%s" % (
                            len(self.INITIALIZE), self.INITIALIZE),
                        b"x" * 100000, b"Content-Length: 999999999999\r\n\r\n",
                        b"Content-Length: 5\r\n\r\n[1,2]", b"Content-Length: 3\r\n\r\n{}}", b"Content-Length: 50\r\n\r\n{"):
            with self.subTest(garbage[:40]):
                connection = socket.create_connection(("127.0.0.1", port))
                self.addCleanup(connection.close)
                try:
                    connection.sendall(garbage)
                    connection.shutdown(socket.SHUT_WR)
                    answer = b""
                    while (data := connection.recv(4096)):
                        answer += data
                    self.assertEqual(answer.count(b"Content-Length"), 1)
                    self.assertIn(b'"output": "brixdebug: ', answer)
                except OSError as error:
                    self.assertIn(error.errno, DROPPED)
        self.attach(self.client(), path, port)

    def test_mutated_first_messages(self):
        path = self.start("--listen", "0")
        port = self.port()
        chance = random.Random(20261122)
        for _ in range(300):
            data = bytearray(b"Content-Length: %d\r\n\r\n%s" % (len(self.INITIALIZE), self.INITIALIZE))
            for _ in range(chance.randrange(1, 6)):
                at = chance.randrange(len(data))
                data[at:at + chance.choice((0, 1, 1, 9))] = chance.randbytes(chance.choice((0, 1, 1, 9)))
            with socket.create_connection(("127.0.0.1", port)) as connection:
                connection.settimeout(60)
                try:
                    connection.sendall(data)
                    connection.shutdown(socket.SHUT_WR)
                    while connection.recv(4096):
                        pass
                except OSError as error:
                    self.assertIn(error.errno, DROPPED)
        self.attach(self.client(), path, port)

    def test_strangers_that_stay_keep_no_client_out(self):
        path = self.start("--listen", "0")
        port = self.port()
        strangers = [socket.create_connection(("127.0.0.1", port)) for _ in range(3)]
        for stranger in strangers:
            self.addCleanup(stranger.close)
        asking = Client(self, connection=strangers.pop())
        self.attach(self.client(), path, port)
        # Whoever says nothing, or not who he is, is sent away after a while.
        self.assertEqual(asking.refused("threads"), "the first request has to be initialize, not threads")
        asking.ask("initialize", adapterID="x")
        self.assertEqual(asking.refused("threads"), "launch or attach comes before threads")
        asking.wait_for_end()
        for stranger in strangers:
            self.assertIn(b"no whole message in time", stranger.makefile("rb").read())

    def test_second_client_that_attaches_at_the_same_time_is_refused(self):
        path = self.start("--listen", "0")
        port = self.port()
        second = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
        second.ask("initialize", adapterID="x")
        self.attach(self.client(), path, port)
        self.assertEqual(second.refused("attach", {}), "Another client is connected to this program.")
        second.wait_for_end()

    def test_secret(self):
        secret = self.folder / "secret"
        secret.write_text("open sesame\n")
        secret.chmod(0o600)
        path = self.start("--listen", "0", "--secret-file", str(secret))
        port = self.port()
        for given in ({}, {"secret": "wrong"}):
            client = self.client()
            client.ask("initialize", adapterID="x")
            text = client.refused("attach", {"connect": {"port": port}, **given})
            self.assertEqual(text, "this program lets in who gives its 'secret' in the arguments of attach")
            client.close()
        self.attach(self.client(), path, port, secret="open sesame")

    def test_stranger_does_not_end_the_program(self):
        secret = self.folder / "secret"
        secret.write_text("open sesame")
        secret.chmod(0o600)
        path = self.start("--listen", "0", "--secret-file", str(secret))
        port = self.port()
        stranger = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
        stranger.ask("initialize", adapterID="x")
        stranger.ask("disconnect", terminateDebuggee=True)
        stranger.wait_for_end()
        self.attach(self.client(), path, port, secret="open sesame")

    def test_secret_of_an_adapter(self):
        secret = self.folder / "secret"
        secret.write_text("open sesame")
        secret.chmod(0o600)
        path = self.program("x = 1\n")
        for host in ("127.0.0.1", "0.0.0.0"):
            command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", "brixdebug.dap",
                       "--port", host + ":0", "--secret-file", str(secret)]
            adapter = subprocess.Popen(command, env=child_environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                       text=True)
            for end in (adapter.stdout.close, adapter.stderr.close, adapter.wait, adapter.kill):
                self.addCleanup(end)
            port = int(adapter.stdout.readline().rpartition(":")[2])
            stranger = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
            stranger.ask("initialize", adapterID="x")
            for given in ({}, {"secret": "wrong"}):
                self.assertEqual(stranger.refused("launch", {"program": str(path), **given}),
                                 "this adapter serves who gives its 'secret' in the arguments of launch")
            stranger.close()
            client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
            client.launch(path, secret="open sesame")
            self.assertEqual(client.finish(), 0)
            self.assertEqual(adapter.wait(60), 0)

    def test_secret_that_is_printed(self):
        self.start("--listen", "0.0.0.0:0")
        line = self.served.stderr.readline()
        self.assertRegex(line, "^brixdebug: editors have to give this secret: [-_A-Za-z0-9]{32}\n$")
        self.assertRegex(self.served.stderr.readline(), r"^brixdebug: listening at 0\.0\.0\.0:\d+\n$")

    def test_secret_that_others_may_read_is_refused(self):
        secret = self.folder / "secret"
        secret.write_text("x")
        secret.chmod(0o644)
        self.start("--listen", "0", "--secret-file", str(secret))
        text = self.served.stderr.read()
        self.assertIn("error: others than its owner may read the secret in %s; chmod 600 it\n" % secret, text)
        self.assertEqual(self.served.wait(), 2)

    def test_unix_socket_is_its_owners_alone(self):
        address = self.folder / "socket"
        path = self.start("--listen", "unix:%s" % address)
        self.assertEqual(self.served.stderr.readline(), "brixdebug: listening at unix:%s\n" % address)
        self.assertEqual(address.stat().st_mode & 0o777, 0o600)
        client = self.client()
        client.begin("attach", {"connect": {"path": str(address)}}, {path: [line_of(path, "tick")]})
        client.wait_for_stop("breakpoint")

    def test_listen_in_code(self):
        path = self.program("""\
            import brixdebug
            print(brixdebug.listen(0), brixdebug.is_client_connected(), flush=True)
            brixdebug.wait_for_client()
            def stop_here():
                x = 1
                brixdebug.breakpoint()
                y = 2                       # stop
            stop_here()
            print(brixdebug.is_client_connected())
        """)
        child = subprocess.Popen([sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, str(path)],
                                 env=child_environment(), stdout=subprocess.PIPE, text=True)
        self.addCleanup(child.stdout.close)
        self.addCleanup(child.kill)
        address, connected = child.stdout.readline().split()
        self.assertEqual(connected, "False")
        client = self.client()
        client.begin("attach", {"connect": {"port": int(address.rpartition(":")[2])}})
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], line_of(path, "stop"))
        client.go_on()
        client.wait_for("terminated")
        self.assertEqual(child.stdout.read(), "True\n")
        self.assertEqual(child.wait(60), 0)

    def test_path_mappings(self):
        path = self.start("--listen", "0")
        client = self.client()
        client.begin("attach", {"connect": {"port": self.port()},
                                "pathMappings": [{"localRoot": "/editor/project", "remoteRoot": str(self.folder)}]},
                     {"/editor/project/served.py": [line_of(path, "tick")]})
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual(stop["frame"]["source"]["path"], "/editor/project/served.py")


if __name__ == "__main__":
    unittest.main()
