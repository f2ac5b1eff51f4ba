"""Debug a program that nobody here wrote: the standard library's web server, one thread per request.

    python3 examples/debug_session.py --module-dir build

Starts `python -m brixdebug -m http.server`, types the commands of a session and
prints what a user would see.  The requests come from this script.
"""

import argparse
import http.server
import inspect
import os
import selectors
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

_HOST_DIR = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "debug", "host")

PROMPT = "(Pdb) "
_TEXT = "Hello from the debugged server.\n"
_SECONDS = 60              # that any one step may take


class SessionError(Exception):
    """The session went another way than it should; the text is for the user."""


class Session:
    """A debugger in a child process: its prompt is waited for, then a command typed."""

    def __init__(self, arguments, module_dir, cwd, show=print):
        self._show = show
        show("$ python -m brixdebug " + " ".join(arguments))
        path = os.pathsep.join([os.path.abspath(module_dir), _HOST_DIR])
        self._process = subprocess.Popen(
            [sys.executable, "-m", "brixdebug", *arguments], cwd=cwd, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            env={**os.environ, "PYTHONPATH": path})
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._process.stdout, selectors.EVENT_READ)

    def output(self):
        """What the debugger writes up to its next prompt."""
        text = ""
        deadline = time.monotonic() + _SECONDS
        while not text.endswith(PROMPT):
            if not self._selector.select(timeout=deadline - time.monotonic()):
                raise SessionError("no prompt within %d seconds, only:\n%s" % (_SECONDS, text))
            data = os.read(self._process.stdout.fileno(), 4096)
            if not data:
                raise SessionError("the debugger ended; its last words:\n" + text)
            text += data.decode(errors="replace")
        self._show(text.removesuffix(PROMPT), end="")
        return text

    def type(self, command):
        """Type one command; the answer is read by `output`."""
        self._show(PROMPT + command)
        self._process.stdin.write(command.encode() + b"\n")
        self._process.stdin.flush()

    def ask(self, command):
        self.type(command)
        return self.output()

    def end(self):
        """End the debugger and its program."""
        self._selector.close()
        self._process.terminate()
        try:
            self._process.communicate(timeout=_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.communicate()


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


def fetch_in_background(url):
    """Ask for `url` in a thread until the server is up; the thread's `answer` is the text got."""
    def fetch():
        deadline = time.monotonic() + _SECONDS
        while time.monotonic() < deadline:
            try:
                with urllib.request.urlopen(url, timeout=_SECONDS) as answer:
                    thread.answer = answer.read().decode()
                return
            except ConnectionError:
                time.sleep(0.02)
            except OSError as error:
                if not isinstance(getattr(error, "reason", None), ConnectionError):
                    thread.answer = str(error)
                    return
                time.sleep(0.02)

    thread = threading.Thread(target=fetch, daemon=True)
    thread.answer = None
    thread.start()
    return thread


def line_in(function, text):
    """The number of the first line of `function` that holds `text`."""
    lines, first = inspect.getsourcelines(function)
    return first + next(index for index, line in enumerate(lines) if text in line)


def run_session(module_dir, show=print):
    port = free_port()
    line = line_in(http.server.SimpleHTTPRequestHandler.send_head, "translate_path")
    with tempfile.TemporaryDirectory() as folder:
        with open(os.path.join(folder, "hello.txt"), "w", encoding="utf-8") as file:
            file.write(_TEXT)
        session = Session(["-m", "http.server", "--bind", "127.0.0.1", str(port)], module_dir,
                          folder, show)
        try:
            session.output()
            session.ask("break %s:%d" % (http.server.__file__, line))
            request = fetch_in_background("http://127.0.0.1:%d/hello.txt" % port)
            if "send_head()" not in session.ask("continue"):
                raise SessionError("the breakpoint was not hit")
            session.ask("threads")
            session.ask("p self.path, self.client_address[0]")
            session.ask("next")
            session.ask("p path")
            session.ask("clear 1")
            session.type("continue")
            request.join(_SECONDS)
            if request.answer != _TEXT:
                raise SessionError("the request was answered with %r" % request.answer)
            show("\n# The client has its answer: %r" % request.answer)
        finally:
            session.end()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--module-dir", default="build",
                        help="folder that holds optmonitoring.so (default: %(default)s)")
    arguments = parser.parse_args()
    if sys.version_info < (3, 12):
        sys.exit("brixdebug needs Python 3.12 or later; this is %d.%d" % sys.version_info[:2])
    try:
        run_session(arguments.module_dir)
    except SessionError as error:
        sys.exit("error: %s" % error)


if __name__ == "__main__":
    main()
