"""A debugger's child process that a test talks to, command by command.

    session = Session(test, "-m", "brixdebug", script)
    session.do("break 3")              what is printed up to the next prompt
    session.do_until("threads", "held")
    session.end("quit")                what is printed up to the end, and the exit status

Nothing here sleeps in place of a condition: each wait is for text, or for the end of the child, and has an end itself.
"""

import itertools
import os
import pty
import re
import select
import signal
import subprocess
import sys
import textwrap
import time

from host_support import LOCK_WARNING, SESSION_SECONDS, child_environment, run_child

PROMPT = "(Pdb) "
SHOWN = 3000             # characters of a failed session
MOST_LOCK_SECONDS = 0.03     # a thread that waits for the interpreter lock wakes more often than that


class Session:
    """See the module's text.  `terminal`: the child has a terminal of its own."""

    def __init__(self, test, *arguments, cwd=None, terminal=False, **environment):
        self._test = test
        self._terminal = terminal
        self._unread = ""
        self.seen = ""                       # all that the child printed
        self.prompting_pid = None            # the process that the last prompt names; None: the parent's
        command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, *map(str, arguments)]
        environment = child_environment(**{"NO_COLOR": "1", "TERM": "dumb", "PYTHON_HISTORY": os.devnull, **environment})
        if terminal:
            self._in, child_end = pty.openpty()
            _keep_output(child_end)
            self._out = self._in
            self.process = subprocess.Popen(command, cwd=cwd, env=environment, stdin=child_end, stdout=child_end,
                                            stderr=child_end, start_new_session=True, preexec_fn=_take_terminal)
            self.terminal_name = os.ttyname(child_end)
            os.close(child_end)
        else:
            self.process = subprocess.Popen(command, cwd=cwd, env=environment, stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0)
            self._in, self._out = self.process.stdin.fileno(), self.process.stdout.fileno()
        test.addCleanup(self._close)

    def _close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        if self._terminal:
            os.close(self._in)
        else:
            self.process.stdin.close()
            self.process.stdout.close()

    # -- reading ---------------------------------------------------------------------------

    def wait_for(self, text):
        """What is printed before `text`, which is read too."""
        return self._wait_for(re.compile(re.escape(text)))[0]

    def _wait_for(self, pattern):
        deadline = time.monotonic() + SESSION_SECONDS
        found = pattern.search(self._unread)
        while found is None:
            if not self._read_some(deadline):
                self._test.fail("%r did not come; the session so far:\n%s" % (pattern.pattern, self.seen[-SHOWN:]))
            found = pattern.search(self._unread)
        before, self._unread = self._unread[:found.start()], self._unread[found.end():]
        return before, found

    def _read_some(self, deadline):
        readable, _, _ = select.select([self._out], [], [], max(0, deadline - time.monotonic()))
        if not readable:
            return False
        try:
            data = os.read(self._out, 65536)
        except OSError:                      # a terminal whose last user has gone
            data = b""
        text = data.decode("utf-8", "replace").replace("\r\n", "\n")
        self._unread += text
        self.seen += text
        return bool(data)

    def prompt(self):
        """What is printed up to the next prompt."""
        name, end = re.fullmatch(r"(.*\w)(\W+)", PROMPT).groups()
        before, found = self._wait_for(re.compile(r"%s(?: (\d+))?%s" % (re.escape(name), re.escape(end))))
        self.prompting_pid = found[1] and int(found[1])
        return before

    # -- writing ---------------------------------------------------------------------------

    def send(self, line):
        self.write(line.encode() + b"\n")

    def write(self, data):
        os.write(self._in, data)

    def end_input(self):
        """Ctrl-D; for a child with a terminal."""
        os.write(self._in, b"\x04")

    def do(self, command):
        """What the command prints up to the next prompt."""
        self.send(command)
        printed = self.prompt()
        # A terminal shows what is typed.
        return printed.partition("\n")[2] if self._terminal else printed

    def do_until(self, command, text, times=None):
        """Give the command over and over until it prints `text`, or something of which `text` is true.

        So often at most, or for as long as a session may be silent.
        """
        deadline = time.monotonic() + SESSION_SECONDS
        for number in itertools.count():
            if times is None and time.monotonic() > deadline or number == times:
                break
            printed = self.do(command)
            if text(printed) if callable(text) else text in printed:
                return printed
        self._test.fail("%r never came from %r; the session so far:\n%s" % (text, command, self.seen[-SHOWN:]))

    def end(self, command=None):
        """Give the command; what the child prints up to its end, and its exit status."""
        if command is not None:
            self.send(command)
        deadline = time.monotonic() + SESSION_SECONDS
        while self._read_some(deadline):
            pass
        try:
            status = self.process.wait(max(1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            self._test.fail("the child does not end; the session so far:\n" + self.seen[-SHOWN:])
        printed, self._unread = self._unread, ""
        return printed, status

    def interrupt_at_prompt(self):
        """Ctrl-C once the child waits for input: between its prompt's last letter and that wait an interpreter takes note
        of a signal, and looks at its note only when the wait ends."""
        self._wait_until_main_thread_sleeps(pid=self.prompting_pid)
        self.interrupt()

    def wait_until_asleep(self, pid=None):
        """Until the main thread waits in C code; of the process PID, where there are several."""
        self._wait_until_main_thread_sleeps(pid=pid)

    def interrupt_in_c_code(self, times=1):
        """Ctrl-C, TIMES in a row, once the main thread waits in C code."""
        self._wait_until_main_thread_sleeps()
        for _ in range(times):
            self.interrupt()

    def interrupt_sleeping(self, pid=None):
        """An interrupt of a child whose main thread sleeps in C code, up to where it has dealt with it and sleeps again.

        PID: of a child's own child.
        """
        sleeps = self._wait_until_main_thread_sleeps(pid=pid)
        os.kill(pid or self.process.pid, signal.SIGINT)
        self._wait_until_main_thread_sleeps(sleeps, pid)

    def _wait_until_main_thread_sleeps(self, sleeps_before=-1, pid=None):
        """How often it has gone to sleep; more than SLEEPS_BEFORE.  PID: of a child's own child."""
        pid = pid or self.process.pid
        deadline = time.monotonic() + SESSION_SECONDS
        seen = None
        while time.monotonic() < deadline:
            with open("/proc/%d/task/%d/status" % (pid, pid)) as file:
                status = dict(line.split(":\t", 1) for line in file.read().splitlines() if ":\t" in line)
            sleeps = int(status["voluntary_ctxt_switches"])
            # A thread that waits for the interpreter lock sleeps too, but for some milliseconds at a time.
            if status["State"].startswith("S") and sleeps > sleeps_before and sleeps == seen:
                return sleeps
            seen = sleeps
            select.select([], [], [], MOST_LOCK_SECONDS)
        self._test.fail("the child's main thread does not sleep; the session so far:\n" + self.seen[-SHOWN:])

    def interrupt(self):
        """What Ctrl-C does."""
        if self._terminal:
            os.write(self._in, b"\x03")
        else:
            self.process.send_signal(signal.SIGINT)


def _keep_output(terminal):
    """A Ctrl-C does not throw away what the child has printed and the test has not yet read."""
    import termios
    modes = termios.tcgetattr(terminal)
    modes[3] |= termios.NOFLSH
    termios.tcsetattr(terminal, termios.TCSANOW, modes)


def _take_terminal():
    import fcntl
    import termios
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


def write_program(folder, text, name="program.py"):
    path = folder / name
    path.write_text(textwrap.dedent(text))
    return path


def line_of(path, mark):
    """The number of the line that ends with `# mark`."""
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if line.endswith("# " + mark):
            return number
    raise AssertionError("no line of %s is marked %r" % (path, mark))


def run_session(*arguments, commands=(), cwd=None, **environment):
    """A child that reads all its commands from a pipe: the ended process."""
    return run_child(*arguments, input="".join(command + "\n" for command in commands), cwd=cwd, NO_COLOR="1",
                     TERM="dumb", **environment)


def without_addresses(text):
    return re.sub(r"0x[0-9a-f]+", "0x", text)
