"""A client of the debug adapter, as an editor is one: requests, responses, events.

    client = Client(test, "-m", "brixdebug.dap")
    client.launch(program, breakpoints={program: [3]})
    stopped = client.wait_for("stopped")

What the adapter may not do fails the test at once: an answer to what nobody asked, a second answer, a number that
does not grow, an event that the protocol does not know.

With DAP_TRAFFIC in the environment, the name of a folder, each session is written to a file of its own there, a line for
each message; `tests/editors/check_traffic.js` holds them against the protocol's schema.
"""

import contextlib
import itertools
import json
import os
import queue
import socket
import subprocess
import sys
import threading
import unittest

from host_support import LOCK_WARNING, SESSION_SECONDS, child_environment, scratch_folder
from session import write_program


EVENTS = {"breakpoint", "capabilities", "continued", "exited", "initialized", "invalidated", "loadedSource", "memory",
          "module", "output", "process", "progressEnd", "progressStart", "progressUpdate", "stopped", "terminated", "thread"}


class Traffic:
    """What both sides say, in a file, if somebody wants to have it."""

    _numbers = itertools.count()

    def __init__(self, title):
        folder = os.environ.get("DAP_TRAFFIC")
        self._lock = threading.Lock()
        self._file = None
        if folder:
            os.makedirs(folder, exist_ok=True)
            name = "%s-%d-%d.jsonl" % (title, os.getpid(), next(self._numbers))
            self._file = open(os.path.join(folder, name), "w", encoding="utf-8")

    def add(self, side, message):
        with self._lock:
            if self._file is not None:
                self._file.write(json.dumps({"from": side, "message": message}) + "\n")

    def close(self):
        with self._lock:
            if self._file is not None:
                self._file.close()
                self._file = None


class Client:
    """See the module's text.  `connection`: a socket to use in place of a process."""

    def __init__(self, test, *arguments, cwd=None, connection=None, **environment):
        self._test = test
        self.process = None
        if connection is None:
            command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, *map(str, arguments)]
            self.process = subprocess.Popen(command, cwd=cwd, env=child_environment(**environment), stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self._in, self._out = self.process.stdin, self.process.stdout
        else:
            self._in, self._out = connection.makefile("wb"), connection.makefile("rb")
        self._connection = connection
        self._traffic = Traffic(test.id())
        test.addCleanup(self._traffic.close)
        self._seq = 0
        self._last_seq = 0
        self._asked = {}                     # seq -> command
        self._answers = {}                   # seq -> response
        self.events = []                     # those that nobody has waited for yet
        self.output = {}                     # category -> text so far
        self.output_places = []              # path and line of the output that has them
        self.on_request = {}                 # command of a reverse request -> function of its arguments -> body
        self._messages = queue.Queue()
        threading.Thread(target=self._read_all, daemon=True).start()
        test.addCleanup(self.close)

    def close(self):
        if self.process is None:
            with contextlib.suppress(OSError):                   # the other end has closed it
                self._connection.shutdown(socket.SHUT_RDWR)      # its files keep it open
            self._connection.close()
            return
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for file in (self._in, self._out, self.process.stderr):
            try:
                file.close()
            except BrokenPipeError:
                pass

    # -- messages ------------------------------------------------------------------------------

    def _read_all(self):
        try:
            while True:
                length = None
                while (line := self._out.readline().strip()):
                    name, _, value = line.partition(b":")
                    if name == b"Content-Length":
                        length = int(value)
                if length is None:
                    break
                message = json.loads(self._out.read(length))
                self._traffic.add("adapter", message)
                self._messages.put(message)
        except (OSError, ValueError):
            pass
        self._messages.put(None)

    def send_raw(self, data):
        self._in.write(data)
        self._in.flush()

    def send_message(self, message):
        data = json.dumps(message).encode()
        self._traffic.add("client", message)
        self.send_raw(b"Content-Length: %d\r\n\r\n%s" % (len(data), data))

    def send(self, command, arguments=None, **more):
        """Its number; `wait_for_answer` takes it."""
        self._seq += 1
        message = {"seq": self._seq, "type": "request", "command": command}
        if arguments is not None or more:
            message["arguments"] = {**(arguments or {}), **more}
        self._asked[self._seq] = command
        self.send_message(message)
        return self._seq

    def send_any(self, command, arguments):
        """`send` with what may be nonsense."""
        self._seq += 1
        self._asked[self._seq] = command
        self.send_message({"seq": self._seq, "type": "request", "command": command, "arguments": arguments})
        return self._seq

    def record_nothing(self):
        """From now on: what is sent is no longer what the protocol allows."""
        self._traffic.close()

    def take(self):
        """Take in one message; False at the end of the stream."""
        try:
            message = self._messages.get(timeout=SESSION_SECONDS)
        except queue.Empty:
            self._test.fail("the adapter says nothing; events: %s" % [each["event"] for each in self.events])
        if message is None:
            return False
        self._test.assertEqual(message["seq"], self._last_seq + 1)
        self._last_seq = message["seq"]
        if message["type"] == "response":
            self._test.assertEqual(message["command"], self._asked.pop(message["request_seq"]))
            self._answers[message["request_seq"]] = message
        elif message["type"] == "event":
            self._test.assertIn(message["event"], EVENTS)
            if message["event"] == "output":
                body = message["body"]
                self.output[body["category"]] = self.output.get(body["category"], "") + body["output"]
                if "source" in body:
                    self.output_places.append((body["source"]["path"], body["line"]))
            else:
                self.events.append(message)
        else:
            self._answer_reverse(message)
        return True

    def _answer_reverse(self, message):
        handler = self.on_request.get(message["command"])
        response = {"seq": 0, "type": "response", "request_seq": message["seq"], "command": message["command"]}
        if handler is None:
            response.update(success=False, message="this editor does not do that", body={})
        else:
            try:
                response.update(success=True, body=handler(message["arguments"]))
            except Exception as error:
                response.update(success=False, message=str(error), body={})
        self._seq += 1
        self.send_message({**response, "seq": self._seq})

    def wait_for_answer(self, seq):
        while seq not in self._answers:
            if not self.take():
                self._test.fail("the adapter ended without an answer to request %d; %s" % (seq, self.stderr()))
        return self._answers.pop(seq)

    def ask(self, command, arguments=None, **more):
        """The body of the answer; the request has to succeed."""
        answer = self.wait_for_answer(self.send(command, arguments, **more))
        self._test.assertTrue(answer["success"], answer)
        return answer.get("body")

    def refused(self, command, arguments=None, **more):
        """The text of the answer; the request has to fail."""
        answer = self.wait_for_answer(self.send(command, arguments, **more))
        self._test.assertFalse(answer["success"], answer)
        return answer["body"]["error"]["variables"]["text"]

    def wait_for(self, name):
        """The body of the next event of that name; those before it stay for others."""
        while True:
            for index, event in enumerate(self.events):
                if event["event"] == name:
                    return self.events.pop(index).get("body", {})
            if not self.take():
                self._test.fail("the adapter ended without the event %s; %s" % (name, self.stderr()))

    def stderr(self):
        if self.process is None:
            return ""
        self.process.kill()
        return self.process.stderr.read().decode()

    def wait_for_end(self):
        """All that is still said, up to the end of the stream."""
        while self.take():
            pass

    # -- what most sessions do -------------------------------------------------------------------

    def begin(self, request, arguments, breakpoints=(), **initialize):
        """initialize, launch or attach, breakpoints (path -> lines or protocol's objects), configurationDone."""
        self.capabilities = self.ask("initialize", {"adapterID": "brixdebug", "pathFormat": "path", **initialize})
        begun = self.send(request, arguments)
        self.wait_for("initialized")
        self.breakpoints = {}
        for path, wanted in dict(breakpoints).items():
            self.breakpoints[path] = self.set_breakpoints(path, wanted)
        self.ask("configurationDone")
        answer = self.wait_for_answer(begun)
        self._test.assertTrue(answer["success"], answer)

    def launch(self, program, breakpoints=(), initialize=None, **arguments):
        self.begin("launch", {"program": str(program), "console": "internalConsole", **arguments}, breakpoints,
                   **(initialize or {}))

    def set_breakpoints(self, path, wanted):
        rows = [{"line": each} if isinstance(each, int) else each for each in wanted]
        return self.ask("setBreakpoints", source={"path": str(path)}, breakpoints=rows)["breakpoints"]

    def wait_for_stop(self, reason):
        """The event, with the innermost frame of its thread under "frame"."""
        event = self.wait_for("stopped")
        self._test.assertEqual(event["reason"], reason, event)
        event["frame"] = self.frames(event["threadId"])[0]
        return event

    def frames(self, thread_id):
        return self.ask("stackTrace", threadId=thread_id)["stackFrames"]

    def place(self, thread_id):
        """Function and line of the innermost frame."""
        frame = self.frames(thread_id)[0]
        return frame["name"], frame["line"]

    def go_on(self, command="continue", thread_id=1):
        return self.ask(command, threadId=thread_id)

    def evaluate(self, expression, frame_id=None, context="repl"):
        arguments = {"expression": expression, "context": context}
        if frame_id is not None:
            arguments["frameId"] = frame_id
        return self.ask("evaluate", arguments)["result"]

    def variables(self, reference, **arguments):
        """Name -> row."""
        rows = self.ask("variables", variablesReference=reference, **arguments)["variables"]
        return {row["name"]: row for row in rows}

    def locals(self, frame_id):
        return self.variables(self.ask("scopes", frameId=frame_id)["scopes"][0]["variablesReference"])

    def finish(self):
        """The program's exit status, once it has ended."""
        status = self.wait_for("exited")["exitCode"]
        self.wait_for("terminated")
        self.ask("disconnect")
        self.wait_for_end()
        return status


class AdapterTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = scratch_folder(self)

    def program(self, text, name="program.py"):
        return write_program(self.folder, text, name)

    def client(self, **options):
        return Client(self, "-m", "brixdebug.dap", **options)
