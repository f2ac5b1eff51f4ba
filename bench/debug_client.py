"""The client of a debug adapter.

    python3 debug_client.py PORT FILE LINE CONDITION [HIT_CONDITION [LOG_MESSAGE]]

Speaks the Debug Adapter Protocol with the adapter on the port of this machine: sets one breakpoint, prints the line of
every stop, or of every message that is logged, and lets the program go on.  What is empty is left out: a breakpoint without
a condition stops always.  A stop is printed before the program goes on, so
that a program whose code goes on finds its line printed.  Ends when the adapter closes the connection.

adapter_cost.py talks through the same class to adapters that it starts.
"""

import json
import socket
import sys

CONNECT_TIMEOUT = 60        # seconds


class Client:
    def __init__(self, reader, writer):
        """Binary files, `writer` without a buffer."""
        self.reader, self.writer = reader, writer
        self.sequence = 0
        self.waiting = []           # events that came while an answer was waited for

    def send(self, command, **arguments):
        self.sequence += 1
        body = json.dumps({"seq": self.sequence, "type": "request", "command": command, "arguments": arguments})
        data = body.encode()
        self.writer.write(b"Content-Length: %d\r\n\r\n%s" % (len(data), data))
        return self.sequence

    def read(self):
        """The next message; None at the end."""
        length = None
        while True:
            line = self.reader.readline()
            if not line:
                return None
            if line == b"\r\n":
                return json.loads(self.reader.read(length))
            name, _, value = line.partition(b":")
            if name.lower() == b"content-length":
                length = int(value)

    def request(self, command, **arguments):
        return self.answer_to(self.send(command, **arguments), command)

    def answer_to(self, sequence, command):
        """The body of the answer to what `send` has sent."""
        while True:
            message = self.read()
            if message is None:
                raise SystemExit("debug_client.py: the adapter left before it answered %s" % command)
            if message["type"] == "event":
                self.waiting.append(message)
            elif message.get("request_seq") == sequence:
                if not message["success"]:
                    raise SystemExit("debug_client.py: %s failed: %s" % (command, message.get("message")))
                return message.get("body")

    def next_event(self, wanted):
        """The next event of this name; None at the end."""
        while True:
            message = self.waiting.pop(0) if self.waiting else self.read()
            if message is None:
                return None
            if message["type"] == "event" and message["event"] == wanted:
                return message

    def begin(self, command, arguments, path, line, condition=None, hit_condition=None, log_message=None):
        """A session with one breakpoint: launch or attach, up to the end of the configuration."""
        self.request("initialize", adapterID="bench", pathFormat="path", linesStartAt1=True, columnsStartAt1=True,
                     supportsVariableType=True, supportsVariablePaging=True)
        begun = self.send(command, **arguments)          # answered only after the configuration
        if self.next_event("initialized") is None:
            raise SystemExit("debug_client.py: %s failed" % command)
        wanted = {"condition": condition, "hitCondition": hit_condition, "logMessage": log_message}
        breakpoint = {"line": line, **{name: text for name, text in wanted.items() if text}}
        answer = self.request("setBreakpoints", source={"path": path}, breakpoints=[breakpoint])
        if not answer["breakpoints"][0]["verified"]:
            raise SystemExit("debug_client.py: the breakpoint was refused: %s" % answer)
        self.request("configurationDone")
        return begun


def run(port, path, line, condition, hit_condition="", log_message=""):
    connection = socket.create_connection(("127.0.0.1", port), CONNECT_TIMEOUT)
    connection.settimeout(None)
    client = Client(connection.makefile("rb"), connection.makefile("wb", buffering=0))
    client.begin("attach", {"justMyCode": False}, path, line, condition, hit_condition, log_message)
    if log_message:
        print_logged(client, line, log_message.partition("{")[0])
    while True:
        event = client.next_event("stopped")
        if event is None:
            return
        thread = event["body"]["threadId"]
        frames = client.request("stackTrace", threadId=thread, startFrame=0, levels=1)["stackFrames"]
        print(frames[0]["line"], flush=True)
        client.request("continue", threadId=thread)


def print_logged(client, line, begin):
    event = client.next_event("output")
    while event is not None:
        if begin in event["body"]["output"]:
            print(line, flush=True)
        event = client.next_event("output")


if __name__ == "__main__":
    run(int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), *sys.argv[4:])
