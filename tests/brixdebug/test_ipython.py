"""IPython's prompt on the debugger: `--ipython`, and `brixdebug.set_trace()` in a program that IPython runs."""

import re
import unittest

import session
import third_party
from host_support import run_child, scratch_folder
from session import Session, line_of, write_program

IPYTHON = "ipython>=9,<10"

PROGRAM = """\
    import threading, time
    def work():
        while go:
            time.sleep(0.001)
    def function(number):
        total = number + 1
        return total                         # here
    go = True
    thread = threading.Thread(target=work)
    thread.start()
    try:
        print("got", function(41))
    finally:
        go = False
    """


class IPythonTest(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        self.folder = scratch_folder(self)
        home = str(self.folder)
        self.environment = {"PYTHONPATH": third_party.python_path(third_party.folder(IPYTHON)), "HOME": home,
                            "IPYTHONDIR": home, "PYTHONWARNINGS": "ignore"}
        self.program = write_program(self.folder, PROGRAM)
        prompt, session.PROMPT = session.PROMPT, "ipdb> "
        self.addCleanup(setattr, session, "PROMPT", prompt)

    def start(self, *arguments):
        started = Session(self, *arguments, cwd=self.folder, terminal=True, **self.environment)
        started.prompt()
        return started

    def do(self, started, command):
        """What the command prints; the prompt of IPython draws itself anew while a line is typed."""
        started.write(command.encode() + b"\r")
        return re.sub(r"\x1b\[[\d;?]*[a-zA-Z]", "", started.prompt())

    def test_command_line(self):
        started = self.start("-m", "brixdebug", "--ipython", self.program)
        self.do(started, "break %d" % line_of(self.program, "here"))
        self.assertIn("function()", self.do(started, "continue"))
        self.assertIn("42", self.do(started, "p total"))
        threads = self.do(started, "threads")
        self.assertRegex(threads, r"1 +at the prompt +MainThread")
        self.assertRegex(threads, r"2 +\w+ +Thread-\d+ \(work\)")
        self.assertNotIn("  3 ", threads)
        started.write(b"continue\r")
        started.wait_for("got 42")
        started.prompt()
        started.write(b"quit\r")
        self.assertEqual(started.end()[1], 0)

    def test_completion(self):
        """It runs in a thread that the prompt starts, which is not held with the program's."""
        started = self.start("-m", "brixdebug", "--ipython", self.program)
        self.do(started, "break %d" % line_of(self.program, "here"))
        self.do(started, "continue")
        for before in "p 1", "set hold-others off", "set hold-others on":
            self.do(started, before)
            started.write(b"fu\t")
            started.wait_for("n")
            self.assertIn("<function function at ", self.do(started, ""))
        started.write(b"quit\r")
        self.assertEqual(started.end()[1], 0)

    def test_program_under_ipython(self):
        program = write_program(self.folder, """\
            import brixdebug
            def function(number):
                brixdebug.set_trace()
                return number
            print("got", function(41))
            """, "calls.py")
        started = self.start("-m", "IPython", "--colors=nocolor", "--no-banner", program)
        self.assertIn("41", self.do(started, "p number"))
        self.assertNotIn("History", self.do(started, "threads"))
        self.assertIn("IPythonDebugger", self.do(started, "p __import__('brixdebug.monitor').monitor.monitor.debugger"))
        started.write(b"continue\r")
        started.wait_for("got 41")
        self.assertEqual(started.end()[1], 0)

    def test_interrupt(self):
        started = self.start("-m", "brixdebug", "--ipython", self.program)
        started.write(b"while True: print('run' + 'ning', flush=True)\r")
        started.wait_for("running")
        started.interrupt()
        started.prompt()
        self.assertIn("49", self.do(started, "p 7 * 7"))
        started.write(b"quit\r")
        self.assertEqual(started.end()[1], 0)


class WithoutIPythonTest(unittest.TestCase):

    def test_error(self):
        program = write_program(scratch_folder(self), PROGRAM)
        child = run_child("-c", "import sys; sys.modules['IPython'] = None; import brixdebug; brixdebug.main()", "--ipython", program)
        self.assertEqual((child.returncode, child.stdout), (1, ""))
        self.assertIn("brixdebug: error: --ipython needs IPython: ", child.stderr)


if __name__ == "__main__":
    unittest.main()
