"""The debug adapter starts programs for an editor, and ends them."""

import os
import signal
import subprocess
import sys
import unittest

from dap_client import AdapterTestCase


class LaunchTest(AdapterTestCase):
    def test_program_runs_with_arguments_folder_and_environment(self):
        path = self.program("""\
            import os, sys
            print(sys.argv, os.getcwd(), os.environ["GIVEN"], os.environ.get("HOME"), __name__, __file__)
        """)
        client = self.client()
        client.launch(path, args=["one", "two words"], cwd=str(self.folder), env={"GIVEN": "yes", "HOME": None})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "%s %s yes None __main__ %s\n" % (
            [str(path), "one", "two words"], self.folder, path))

    def test_arguments_in_one_text_are_split_as_a_shell_does(self):
        client = self.client()
        client.launch(self.program("import sys; print(sys.argv[1:])"), args="-a 'b c' d")
        client.finish()
        self.assertEqual(client.output["stdout"], "['-a', 'b c', 'd']\n")

    def test_module_and_code(self):
        self.program("import sys; print(__name__, __spec__.name, sys.argv[1:])", "some_module.py")
        client = self.client()
        client.begin("launch", {"module": "some_module", "args": ["x"], "cwd": str(self.folder), "console": "internalConsole"})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "__main__ some_module ['x']\n")
        client = self.client()
        client.begin("launch", {"code": ["import sys", "sys.exit(3)"], "console": "internalConsole"})
        self.assertEqual(client.finish(), 3)

    def test_command_line_that_a_server_runs_anew(self):
        text = "import sys; print(sys.orig_argv[1:])"
        path = self.program(text, "some_module.py")
        for arguments, words in (({"program": str(path)}, [str(path)]), ({"module": "some_module"}, ["-m", "some_module"]),
                                 ({"code": text}, ["-c", text])):
            with self.subTest(arguments):
                client = self.client()
                client.begin("launch", {**arguments, "args": ["x", "-m"], "pythonArgs": ["-X", "utf8"], "cwd": str(self.folder),
                                        "console": "internalConsole"})
                self.assertEqual(client.finish(), 0)
                self.assertEqual(client.output["stdout"], "%s\n" % ["-X", "utf8", *words, "x", "-m"])

    def test_environment_file(self):
        (self.folder / "vars").write_text("# a comment\nexport FIRST='a b'\nSECOND=two # trailing\n\nTHIRD=\"x\\ny\"\n")
        client = self.client()
        client.launch(self.program("import os; print([os.environ[n] for n in ('FIRST', 'SECOND', 'THIRD')])"),
                      envFile=str(self.folder / "vars"))
        client.finish()
        self.assertEqual(client.output["stdout"], "['a b', 'two', 'x\\ny']\n")

    def test_program_has_the_globals_that_it_has_without_a_debugger(self):
        path = self.program("print(sorted(globals()))")
        (self.folder / "folder").mkdir()
        self.program("print(sorted(globals()))", "folder/__main__.py")
        for arguments, command in (({"program": str(path)}, [path]), ({"program": str(self.folder / "folder")}, ["folder"]),
                                   ({"module": "program"}, ["-m", "program"])):
            with self.subTest(arguments):
                plain = subprocess.run([sys.executable, *command], cwd=self.folder, capture_output=True, text=True, check=True)
                client = self.client()
                client.begin("launch", {**arguments, "cwd": str(self.folder), "console": "internalConsole"})
                self.assertEqual(client.finish(), 0)
                self.assertEqual(client.output["stdout"], plain.stdout)

    def test_stop_on_entry(self):
        path = self.program("first = 1\nsecond = 2\n")
        client = self.client()
        client.launch(path, stopOnEntry=True)
        self.assertEqual(client.wait_for_stop("entry")["frame"]["line"], 1)
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_uncaught_exception_ends_with_1_and_a_traceback_of_the_program_alone(self):
        path = self.program("def fail():\n    raise ValueError('on purpose')\nfail()\n")
        client = self.client()
        client.launch(path)
        self.assertEqual(client.finish(), 1)
        text = client.output["stderr"]
        self.assertTrue(text.startswith('Traceback (most recent call last):\n  File "%s", line 3, in <module>\n' % path), text)
        self.assertTrue(text.endswith("ValueError: on purpose\n"), text)
        self.assertNotIn("/dap/", text)

    def test_program_killed_by_a_signal(self):
        client = self.client()
        client.launch(self.program("import os; os.kill(os.getpid(), 9)"))
        self.assertEqual(client.finish(), 128 + signal.SIGKILL)

    def test_output_of_the_program_is_whole_and_in_order(self):
        client = self.client()
        client.launch(self.program("""\
            import os
            for n in range(20000):
                print("line", n, "\\u20ac")
            os.write(1, b"\\xff raw\\n")
        """))
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"],
                         "".join("line %d \u20ac\n" % n for n in range(20000)) + "\ufffd raw\n")

    def test_what_was_printed_before_a_stop_is_shown_before_it(self):
        path = self.program("print('before')\nx = 1\n")
        client = self.client()
        client.launch(path, {path: [2]})
        client.wait_for("stopped")
        self.assertEqual(client.output["stdout"], "before\n")

    def test_wrong_arguments_are_named(self):
        path = str(self.program("pass"))
        for arguments, text in (
                ({}, "launch needs one of 'program', 'module' and 'code'"),
                ({"program": path, "module": "x"}, "launch needs one of 'program', 'module' and 'code'; "
                                                   "given are 'program' and 'module'"),
                ({"program": 7}, "'program' must be a string, not 7"),
                ({"program": path, "args": {"a": 1}}, "'args' must be a list of strings, not {'a': 1}"),
                ({"program": path, "console": "window"}, "'console' must be one of internalConsole, integratedTerminal, "
                                                         "externalTerminal, not 'window'"),
                ({"program": path, "env": ["A=1"]}, "'env' must be an object of names and strings, not ['A=1']"),
                ({"program": path, "stopOnEntry": "yes"}, "'stopOnEntry' must be true or false, not 'yes'"),
                ({"program": path, "python": "a", "pythonPath": "b"}, "'pythonPath' is an older name for 'python': one of them is "
                                                                      "enough"),
                ({"program": path, "consoleTitle": 1}, "'consoleTitle' must be a string, not 1"),
                ({"program": path, "sudo": True}, "'sudo' is not supported: start the program with `sudo python -m brixdebug "
                                                  "--listen PORT PROGRAM` in a terminal, and attach to it"),
                ({"program": "/no/such.py"}, "'program' does not exist: /no/such.py"),
                ({"program": path, "cwd": "/no/such"}, "'cwd' is no folder: /no/such"),
                ({"program": path, "envFile": "/no/such"}, "'envFile' cannot be read: [Errno 2] No such file or directory: "
                                                           "'/no/such'")):
            with self.subTest(arguments):
                client = self.client()
                client.ask("initialize", adapterID="x")
                self.assertEqual(client.refused("launch", {"console": "internalConsole", **arguments}), text)
                client.ask("disconnect")
                client.wait_for_end()

    def test_arguments_without_a_meaning_are_said_once(self):
        client = self.client()
        client.launch(self.program("pass"), django=True, debugOptions=["Django"], name="x", __sessionId="1", justMyCode=False)
        client.finish()
        self.assertEqual(client.output["console"], "These settings have no effect here: debugOptions, django\n")

    def test_attach_without_a_place(self):
        for arguments, text in (
                ({}, "attach needs one of 'connect', 'listen' and 'processId'"),
                ({"host": "localhost"}, "'host' needs 'port'"),
                ({"connect": {"port": 1}, "port": 2},
                 "attach needs one of 'connect', 'listen' and 'processId'; given are 'connect' and 'port'"),
                ({"connect": {"port": 1}, "listen": {"port": 2}},
                 "attach needs one of 'connect', 'listen' and 'processId'; given are 'connect' and 'listen'")):
            with self.subTest(arguments):
                client = self.client()
                client.ask("initialize", adapterID="x")
                self.assertEqual(client.refused("attach", arguments), text)

    def test_python_that_does_not_start_is_said(self):
        client = self.client()
        client.ask("initialize", adapterID="x")
        text = client.refused("launch", program=str(self.program("pass")), console="internalConsole", python="/no/python")
        self.assertEqual(text, "cannot start /no/python: [Errno 2] No such file or directory: '/no/python'")

    def test_terminal_of_the_editor(self):
        path = self.program("import sys\nx = 1\nsys.exit(4)\n")
        client = self.client()
        asked = []

        def run(arguments):
            asked.append(arguments)
            environment = {**os.environ, **arguments["env"]}
            self.terminal = subprocess.Popen(arguments["args"], cwd=arguments["cwd"], env=environment)
            return {"processId": self.terminal.pid}

        client.on_request["runInTerminal"] = run
        client.launch(path, {path: [2]}, console="integratedTerminal", cwd=str(self.folder), consoleTitle="My program",
                      initialize={"supportsRunInTerminalRequest": True})
        self.assertEqual((asked[0]["kind"], asked[0]["cwd"], asked[0]["title"]),
                         ("integrated", str(self.folder), "My program"))
        client.wait_for_stop("breakpoint")
        client.go_on()
        self.assertEqual(client.finish(), 4)
        self.assertEqual(self.terminal.wait(), 4)

    def test_refused_terminal_is_a_refused_launch(self):
        client = self.client()
        client.ask("initialize", adapterID="x", supportsRunInTerminalRequest=True)
        text = client.refused("launch", program=str(self.program("pass")), console="externalTerminal")
        self.assertEqual(text, "the editor could not open a terminal: this editor does not do that")

    def test_restart_runs_the_program_again(self):
        path = self.program("import os\nprint(os.getpid())\nx = 1\n")
        client = self.client()
        client.launch(path, {path: [3]})
        client.wait_for_stop("breakpoint")
        client.ask("restart")
        client.wait_for("initialized")
        client.set_breakpoints(path, [3])
        client.ask("configurationDone")
        client.wait_for_stop("breakpoint")
        client.go_on()
        self.assertEqual(client.finish(), 0)
        first, second = client.output["stdout"].split()
        self.assertNotEqual(first, second)


class EndTest(AdapterTestCase):
    SLEEPER = "import os, time\nprint(os.getpid())\nx = 1\ntime.sleep(1000)\n"

    def process_of(self, client):
        return int(client.wait_for("process")["systemProcessId"])

    def assert_gone(self, process_id):
        for _ in range(2000):
            try:
                with open("/proc/%d/stat" % process_id) as file:
                    if file.read().rpartition(")")[2].split()[0] == "Z":
                        return
            except (FileNotFoundError, ProcessLookupError):     # the second one: it ends as the file is read
                return
            subprocess.run(["sleep", "0.01"])
        self.fail("process %d lives" % process_id)

    def test_disconnect_ends_what_was_launched(self):
        client = self.client()
        client.launch(self.program(self.SLEEPER))
        process_id = self.process_of(client)
        client.ask("disconnect")
        client.wait_for_end()
        self.assert_gone(process_id)

    def test_editor_that_dies_leaves_no_program(self):
        path = self.program(self.SLEEPER)
        for lines in ((), (3,)):
            with self.subTest(lines):
                client = self.client()
                client.launch(path, {path: lines})
                process_id = self.process_of(client)
                if lines:
                    client.wait_for_stop("breakpoint")
                client.process.stdin.close()
                self.assert_gone(process_id)

    def test_killed_adapter_leaves_no_program(self):
        client = self.client()
        client.launch(self.program(self.SLEEPER))
        process_id = self.process_of(client)
        client.process.kill()
        self.assert_gone(process_id)

    def test_editor_that_goes_while_the_program_starts_leaves_nothing(self):
        os.mkfifo(self.folder / "go")
        python = self.folder / "python"
        python.write_text("#!/bin/sh\necho $$ > %s/pid\nread line < %s/go\n" % (self.folder, self.folder))
        python.chmod(0o755)
        for way in ("disconnect", "death"):
            with self.subTest(way):
                client = self.client(TMPDIR=str(self.folder))
                client.ask("initialize", adapterID="x")
                request = client.send("launch", code="x = 1", python=str(python), console="internalConsole")
                for _ in range(2000):
                    if (self.folder / "pid").exists() and (self.folder / "pid").read_text():
                        break
                    subprocess.run(["sleep", "0.01"])
                process_id = int((self.folder / "pid").read_text())
                (self.folder / "pid").unlink()
                if way == "disconnect":
                    client.ask("disconnect")
                    self.assertFalse(client.wait_for_answer(request)["success"])
                client.process.stdin.close()
                self.assertEqual(client.process.wait(60), 0)
                self.assert_gone(process_id)
                self.assertEqual([each for each in os.listdir(self.folder) if each.startswith("brixdebug-")], [])

    def test_terminate_lets_the_program_clean_up(self):
        client = self.client()
        client.launch(self.program("""\
            import signal, sys, time
            def clean_up(*_):
                print("cleaned up")
                sys.exit(7)
            signal.signal(signal.SIGTERM, clean_up)
            print("ready", flush=True)
            time.sleep(1000)
        """))
        while "ready" not in client.output.get("stdout", ""):
            client.take()
        client.ask("terminate")
        self.assertEqual(client.finish(), 7)
        self.assertEqual(client.output["stdout"], "ready\ncleaned up\n")


class RequestTest(AdapterTestCase):
    def test_requests_in_the_wrong_state(self):
        client = self.client()
        self.assertEqual(client.refused("threads"), "the first request has to be initialize, not threads")
        client.ask("initialize", adapterID="x")
        self.assertEqual(client.refused("initialize", adapterID="x"), "initialize comes once")
        self.assertEqual(client.refused("threads"), "there is no program yet: launch or attach comes first")

    def test_wrong_types_are_refused_and_the_session_goes_on(self):
        path = self.program("x = 1\n")
        client = self.client()
        client.launch(path, stopOnEntry=True)
        client.wait_for_stop("entry")
        for command, arguments, text in (
                ("stackTrace", {"threadId": "1"}, "stackTrace: 'threadId' has to be an integer, not '1'"),
                ("stackTrace", {}, "stackTrace: the argument 'threadId' is missing"),
                ("stackTrace", {"threadId": 99}, "there is no thread 99"),
                ("variables", {"variablesReference": 99999}, "variable 99999 is gone: the program has gone on"),
                ("evaluate", {"expression": 1}, "evaluate: 'expression' has to be a string, not 1"),
                ("setBreakpoints", {"source": 5}, "setBreakpoints: 'source' has to be an object, not 5"),
                ("setBreakpoints", {"source": {}}, "the source has no path"),
                ("next", {"threadId": True}, "next: 'threadId' has to be an integer, not True"),
                ("nonsense", {}, "nonsense is not supported")):
            with self.subTest(command=command, arguments=arguments):
                self.assertEqual(client.refused(command, arguments), text)
        client.go_on()
        self.assertEqual(client.finish(), 0)

    def test_garbage_from_the_editor_ends_the_adapter_and_the_program(self):
        client = self.client()
        client.launch(self.program("import time; time.sleep(1000)"))
        client.send_raw(b"Content-Length: 4\r\n\r\nnull")
        client.wait_for_end()
        self.assertEqual(client.process.wait(60), 0)
        self.assertEqual(client.process.stderr.read(), b"brixdebug.dap: the client: a message that is no JSON object\n")


if __name__ == "__main__":
    unittest.main()
