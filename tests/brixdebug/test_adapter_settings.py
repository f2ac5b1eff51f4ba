"""What a client's configuration changes: whose code is stepped, what is printed where, what is written to a file."""

import json
import os
import re
import socket
import subprocess
import sys
import unittest

from dap_client import AdapterTestCase, Client
from host_support import LOCK_WARNING, child_environment, run_child
from session import line_of, write_program

LIBRARY = """\
    def apply(function):
        try:
            return function()
        except ValueError:
            return None
"""

PROGRAM = """\
    import sys
    sys.path.insert(0, "FOLDER")
    import library
    from helpers import inner

    def own():
        raise ValueError("seen")        # own

    def main():
        library.apply(own)              # apply
        inner.twice(2)                  # twice
        return 1                        # end

    main()
"""


class OwnCodeTest(AdapterTestCase):
    def setUp(self):
        super().setUp()
        packages = self.folder / "environment" / "site-packages"
        packages.mkdir(parents=True)
        self.library = write_program(packages, LIBRARY, "library.py")
        (self.folder / "helpers").mkdir()
        write_program(self.folder / "helpers", "", "__init__.py")
        self.inner = write_program(self.folder / "helpers", "def twice(n):\n    return 2 * n\n", "inner.py")
        self.path = self.program(PROGRAM.replace("FOLDER", str(packages)))

    def functions_stepped_into(self, **settings):
        """The function that each `stepIn` from the two calls of `main` ends in."""
        found = []
        for mark in ("apply", "twice"):
            client = self.client()
            client.launch(self.path, {self.path: [line_of(self.path, mark)]}, **settings)
            client.wait_for_stop("breakpoint")
            client.go_on("stepIn")
            found.append(client.wait_for_stop("step")["frame"]["name"])
            client.ask("disconnect")
        return found

    def test_libraries_are_passed_by_unless_they_are_asked_for(self):
        self.assertEqual(self.functions_stepped_into(), ["own", "twice"])
        self.assertEqual(self.functions_stepped_into(justMyCode=False), ["apply", "twice"])

    def test_rules_go_first(self):
        for rules, functions in (
                ([{"module": "library", "include": True}], ["apply", "twice"]),
                ([{"path": "**/site-packages/library.py", "include": True}], ["apply", "twice"]),
                ([{"path": str(self.folder / "environment"), "include": True}], ["apply", "twice"]),
                ([{"path": "inner.py", "include": False}], ["own", "main"]),
                ([{"module": "helpers", "include": False}], ["own", "main"]),
                ([{"module": "helpers.inner", "include": True}, {"module": "helpers", "include": False}], ["own", "twice"])):
            with self.subTest(rules):
                self.assertEqual(self.functions_stepped_into(rules=rules), functions)

    def test_rules_hold_where_all_code_is_ones_own(self):
        self.assertEqual(self.functions_stepped_into(justMyCode=False, rules=[{"module": "helpers", "include": False}]),
                         ["apply", "main"])

    def test_frames_of_libraries_are_shown_as_such(self):
        client = self.client()
        client.launch(self.path, {self.path: [line_of(self.path, "own")]})
        stop = client.wait_for_stop("breakpoint")
        own, library = client.frames(stop["threadId"])[:2]
        self.assertEqual((own["name"], own.get("presentationHint")), ("own", None))
        self.assertEqual((library["name"], library["presentationHint"]), ("apply", "subtle"))
        self.assertEqual(library["source"], {"name": "library.py", "path": str(self.library),
                                             "presentationHint": "deemphasize"})

    def test_breakpoint_in_a_library_holds(self):
        client = self.client()
        client.launch(self.path, {self.library: [3]})
        self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["name"], "apply")


class OutputTest(AdapterTestCase):
    TEXT = """\
        import os, sys
        print("to output", sys.stdout.isatty(), os.write(1, b"") == 0)
        print("to error", file=sys.stderr)
        for n in range(3000):
            sys.stdout.write("line %d\\n" % n)
        x = 1                           # stop
        print("end")
    """

    def run_in_terminal(self, **settings):
        path = self.program(self.TEXT)
        client = self.client()

        def run(arguments):
            self.terminal = subprocess.Popen(arguments["args"], env={**os.environ, **arguments["env"]},
                                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            return {}

        client.on_request["runInTerminal"] = run
        client.launch(path, {path: [line_of(path, "stop")]}, console="integratedTerminal",
                      initialize={"supportsRunInTerminalRequest": True}, **settings)
        client.wait_for_stop("breakpoint")
        self.before_stop = dict(client.output)
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.printed, _ = self.terminal.communicate()
        return client

    LINES = "to output False True\n" + "".join("line %d\n" % n for n in range(3000))

    def test_terminal_keeps_the_output_and_the_client_gets_a_copy(self):
        client = self.run_in_terminal(redirectOutput=True)
        self.assertEqual(self.before_stop, {"stdout": self.LINES, "stderr": "to error\n"})
        self.assertEqual(client.output["stdout"], self.LINES + "end\n")
        self.assertEqual(self.printed, self.LINES + "end\n")

    def test_terminal_alone_has_the_output_unless_it_is_redirected(self):
        client = self.run_in_terminal()
        self.assertEqual(client.output, {})
        self.assertEqual(self.printed, self.LINES + "end\n")

    def test_output_that_is_not_wanted_goes_to_the_adapters_own(self):
        path = self.program("import sys\nprint('one', flush=True)\nprint('two', file=sys.stderr)\n")
        client = self.client()
        client.launch(path, redirectOutput=False)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output, {})
        self.assertEqual(client.process.stderr.read(), b"one\ntwo\n")

    def test_attached_program_prints_as_before_once_the_client_has_gone(self):
        path = self.program("""\
            import sys
            x = 1                       # first
            print("shown")
            print(type(sys.stdout).__name__, "write" in vars(sys.stdout), file=sys.stderr)
            x = 2                       # second
            print("write" in vars(sys.stdout), file=sys.stderr)
        """)
        command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", "brixdebug", "--listen", "0",
                   "--wait-for-client", str(path)]
        with subprocess.Popen(command, env=child_environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as served:
            port = int(served.stderr.readline().rpartition(":")[2])
            client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
            client.begin("attach", {"redirectOutput": True}, {path: [line_of(path, "first"), line_of(path, "second")]})
            client.wait_for_stop("breakpoint")
            client.go_on()
            client.wait_for_stop("breakpoint")
            self.assertEqual(client.output, {"stdout": "shown\n", "stderr": "TextIOWrapper True\n"})
            client.ask("disconnect")
            client.wait_for_end()
            self.assertEqual(served.communicate(), ("shown\n", "TextIOWrapper True\nFalse\n"))


class TrafficTest(AdapterTestCase):
    def messages(self, path):
        rows = []
        for line in path.read_text().splitlines():
            match = re.match(r"\d\d:\d\d:\d\d\.\d{3} (<-|->) (.*)$", line)
            message = json.loads(match[2])
            rows.append((match[1], message.get("command") or message["event"]))
        return rows

    def test_all_messages_are_written(self):
        target = self.folder / "traffic.log"
        client = self.client()
        client.launch(self.program("pass"), logToFile=str(target))
        client.finish()
        self.assertEqual(client.process.wait(60), 0)
        rows = self.messages(target)
        self.assertEqual(rows[:2], [("<-", "initialize"), ("->", "initialize")])
        self.assertEqual(rows[-2:], [("<-", "disconnect"), ("->", "disconnect")])
        self.assertEqual([row for row in rows if row[1] == "launch"], [("<-", "launch"), ("->", "launch")])
        self.assertEqual(target.stat().st_mode & 0o777, 0o600)
        self.assertEqual(client.output["console"], "The messages of this session are written to %s\n" % target)

    def test_secret_is_not_written(self):
        target = self.folder / "traffic.log"
        client = self.client()
        client.ask("initialize", adapterID="x")
        client.refused("attach", connect={"port": 1}, secret="very secret", logToFile=str(target))
        text = target.read_text()
        self.assertIn('"secret": "..."', text)
        self.assertNotIn("very secret", text)

    def test_secret_of_a_child_is_not_written(self):
        target = self.folder / "traffic.log"
        client = self.client()
        client.launch(self.program("import subprocess, sys\nsubprocess.run([sys.executable, '-c', 'pass'])\n"),
                      logToFile=str(target))
        client.finish()
        secret = re.search(r'attach with .* and "secret": "([^"]+)"', client.output["console"])[1]
        text = target.read_text()
        self.assertIn(r'and \"secret\": \"...\"', text)
        self.assertNotIn(secret, text)

    def test_file_of_its_own(self):
        client = self.client()
        client.launch(self.program("pass"), logToFile=True)
        client.finish()
        path = re.match("The messages of this session are written to (.*)\n$", client.output["console"])[1]
        self.addCleanup(os.unlink, path)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)

    def test_file_that_cannot_be_written(self):
        client = self.client()
        client.ask("initialize", adapterID="x")
        self.assertEqual(client.refused("launch", program=str(self.program("pass")), logToFile="/no/such/folder/x.log"),
                         "'logToFile' cannot be written: [Errno 2] No such file or directory: '/no/such/folder/x.log'")


class LogTest(AdapterTestCase):
    def check(self, target, path):
        text = target.read_text()
        self.assertIn("lines to stop at in <module>() of %s:1: 2\n" % path, text)
        self.assertIn("breakpoint 1 at %s:2 reached" % path, text)

    def test_log_of_a_program_that_the_adapter_starts(self):
        target = self.folder / "debug.log"
        path = self.program("import os\nprint('BRIXDEBUG' in str(os.environ))\n")
        client = Client(self, "-m", "brixdebug.dap", "--log", target, "--log-domains", "breakpoints")
        client.launch(path, {path: [2]})
        client.wait_for_stop("breakpoint")
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "False\n")
        self.check(target, path)

    def test_log_of_a_program_that_waits_for_an_editor(self):
        target = self.folder / "debug.log"
        path = self.program("x = 1\nx = 2\n")
        log = ["--log", str(target), "--log-domains", "breakpoints"]
        for options in ([*log, "--listen", "0"], ["--listen", "0", *log]):
            with self.subTest(options):
                target.write_text("")
                command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, "-m", "brixdebug", *options,
                           "--wait-for-client", str(path)]
                with subprocess.Popen(command, env=child_environment(), stderr=subprocess.PIPE, text=True) as served:
                    port = int(served.stderr.readline().rpartition(":")[2])
                    client = Client(self, connection=socket.create_connection(("127.0.0.1", port)))
                    client.begin("attach", {}, {path: [2]})
                    client.wait_for_stop("breakpoint")
                    client.go_on()
                    self.assertEqual(served.wait(), 0)
                self.check(target, path)

    def test_log_that_cannot_be_is_said(self):
        for options, text in ((["--log", "/no/such/x"], "[Errno 2] No such file or directory: '/no/such/x'"),
                              (["--log-domains", "io"], "--log-domains goes with --log FILE"),
                              (["--log", os.devnull, "--log-domains", "nonsense"], "unknown log domain 'nonsense'; known: ")):
            for command in (["brixdebug.dap"], ["brixdebug", "--listen", "0"]):
                with self.subTest(options=options, command=command):
                    child = run_child("-m", *command, *options, *(["x.py"] if command[1:] else []))
                    self.assertNotEqual(child.returncode, 0)
                    self.assertIn("error: " + text, child.stderr)


if __name__ == "__main__":
    unittest.main()
