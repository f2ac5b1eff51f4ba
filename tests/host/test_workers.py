"""`breakpoint()` in a process of multiprocessing: it has a terminal, whatever has become of its `sys.stdin`, or says why not."""

import subprocess
import sys
import unittest

from host_support import CHILD_SECONDS, child_environment, scratch_folder
from session import Session, line_of, write_program

STOPS_AT_CALL = sys.version_info >= (3, 13)        # before that `set_trace` stops at the line after it

PROGRAM = """\
    import multiprocessing, sys
    def work(n):
        before = n + 1
        breakpoint()                         # call
        return before
    def run():
        print("result", work(1), flush=True)
    if __name__ == "__main__":
        context = multiprocessing.get_context(sys.argv[1])
        process = context.Process(target=run)
        process.start()
        process.join()
        print("status", process.exitcode)
    """

METHODS = "fork", "spawn", "forkserver"


class WorkerTest(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)
        self.program = write_program(self.folder, PROGRAM)

    def test_terminal_of_the_parent(self):
        line = line_of(self.program, "call")
        place = "> %s(%d)work()" % (self.program, line if STOPS_AT_CALL else line + 1)
        for method in METHODS:
            for terminal in True, False:
                if method == "forkserver":     # its server has the null device as standard input, and hands that on
                    continue
                with self.subTest(method=method, terminal=terminal):
                    session = Session(self, self.program, method, cwd=self.folder, terminal=terminal,
                                      PYTHONBREAKPOINT="brixdebug.set_trace")
                    self.assertIn(place, session.prompt())
                    session.do("before = 7")
                    self.assertEqual(session.do("p n, before"), "(1, 7)\n")
                    self.assertEqual(session.end("continue")[0].splitlines()[-2:], ["result 7", "status 0"])

    def test_without_a_terminal(self):
        """An exception at the call; pdb would have ended the process without a word."""
        for method in METHODS:
            with self.subTest(method=method):
                child = subprocess.run([sys.executable, self.program, method], cwd=self.folder, stdin=subprocess.DEVNULL,
                                       capture_output=True, text=True, timeout=CHILD_SECONDS,
                                       env=child_environment(PYTHONBREAKPOINT="brixdebug.set_trace"))
                self.assertEqual(child.stdout, "status 1\n", child.stderr)
                self.assertIn("NoTerminal: this process of multiprocessing has no terminal", child.stderr)


if __name__ == "__main__":
    unittest.main()
