"""Forked children of a debugged program: those that run free see no prompt, however they end; those that are followed share
the terminal in order."""

import os
import signal
import unittest

from host_support import run_child, scratch_folder
from session import Session, line_of, run_session, write_program

FORK_WARNING = ("-W", "ignore::DeprecationWarning")        # of a fork while there are threads

ENDS = {
    "sys.exit(3)": 3,
    "sys.exit('a text')": 1,
    "sys.exit()": 0,
    "pass": 0,
    "os._exit(3)": 3,
    "1 / 0": 1,
    "raise KeyboardInterrupt": -signal.SIGINT,
}


class ProcessTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text):
        self.program = write_program(self.folder, text)

    def place(self, mark):
        return "> %s(%d)" % (self.program, line_of(self.program, mark))

    def run_commands(self, *commands):
        return run_session(*FORK_WARNING, "-m", "brixdebug", self.program, commands=commands)


class EndOfFreeChildTest(ProcessTestCase):

    def write_end(self, end):
        self.write("""\
            import atexit, os, sys
            pid = os.fork()
            if pid == 0:
                atexit.register(print, "at exit")
                print("child")
                END
            else:
                print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """.replace("END", end))

    def test_child_ends_as_without_a_debugger(self):
        for end, status in ENDS.items():
            with self.subTest(end=end):
                self.write_end(end)
                plain = run_child(*FORK_WARNING, self.program)
                self.assertIn("status %d\n" % status, plain.stdout)
                ended = self.run_commands("continue", "quit")
                self.assertEqual(ended.stdout.count("(Pdb) "), 2, ended.stdout)
                self.assertEqual(ended.stdout.count("The program finished"), 1, ended.stdout)
                output = ended.stdout.partition("(Pdb) ")[2].partition("The program finished")[0]
                self.assertEqual((output, ended.stderr), (plain.stdout, plain.stderr))

    def test_childs_own_excepthook_is_called(self):
        self.write("""\
            import os, sys
            pid = os.fork()
            if pid == 0:
                def hook(kind, error, traceback):
                    print("hook", kind.__name__, traceback.tb_frame.f_code.co_name, traceback.tb_next)
                sys.excepthook = hook
                1 / 0
            os.waitpid(pid, 0)
            """)
        ended = self.run_commands("continue", "quit")
        self.assertIn("hook ZeroDivisionError <module> None\n", ended.stdout)

    def test_child_of_a_function_of_the_program(self):
        """The child leaves through code that was stepped, and past a breakpoint."""
        self.write("""\
            import os, sys
            def fork():
                return os.fork()
            def end():
                sys.exit(4)                      # end
            pid = fork()                         # fork
            if pid == 0:
                end()
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        ended = self.run_commands("break %d" % line_of(self.program, "end"), "until %d" % line_of(self.program, "fork"),
                                  "next", "continue", "quit")
        self.assertIn("status 4\n", ended.stdout)
        self.assertEqual(ended.stdout.count(self.place("end")), 0, ended.stdout)
        self.assertEqual(ended.stdout.count("(Pdb) "), 5, ended.stdout)

    def test_child_forked_at_the_prompt(self):
        self.write("""\
            import os, sys
            pid = None
            here = 1                             # here
            if pid == 0:
                os.write(1, b"child\\n")
                sys.exit(5)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = Session(self, *FORK_WARNING, "-m", "brixdebug", self.program)
        session.prompt()
        session.do("until %d" % line_of(self.program, "here"))
        session.do("pid = os.fork()")
        self.assertIn("status 5\n", session.do("continue"))
        self.assertEqual(session.seen.count("child\n"), 1)
        self.assertEqual(session.end("quit"), ("", 0))

    def test_interrupt_is_the_childs_own(self):
        """Ctrl-C reaches all processes of a terminal; a free child does with it what it does without a debugger."""
        self.write("""\
            import os, signal, time
            def fork(handle):
                pid = os.fork()
                if pid == 0:
                    handle()
                    os.kill(os.getpid(), signal.SIGINT)
                    os._exit(7)
                return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
            def exit_6(*args):
                os._exit(6)
            print("default", fork(lambda: None))
            print("handler", fork(lambda: signal.signal(signal.SIGINT, exit_6)))
            """)
        ended = self.run_commands("continue", "quit")
        self.assertIn("default %d\n" % -signal.SIGINT, ended.stdout)
        self.assertIn("handler 6\n", ended.stdout)
        self.assertNotIn("Program interrupted", ended.stdout)

    def test_multiprocessing(self):
        self.write("""\
            import multiprocessing, sys
            from concurrent.futures import ProcessPoolExecutor
            def work(n):
                return n * n                     # line
            if __name__ == "__main__":
                for method in "fork", "forkserver", "spawn":
                    context = multiprocessing.get_context(method)
                    with ProcessPoolExecutor(2, mp_context=context) as executor:
                        print(method, list(executor.map(work, [2, 3])))
                    process = context.Process(target=sys.exit, args=(6,))
                    process.start()
                    process.join()
                    print(method, process.exitcode)
            """)
        ended = self.run_commands("break %d" % line_of(self.program, "line"), "continue", "quit")
        self.assertEqual(ended.stdout.count("(Pdb) "), 3, ended.stdout)
        for method in "fork", "forkserver", "spawn":
            self.assertIn("%s [4, 9]\n%s 6\n" % (method, method), ended.stdout)

    def test_quit_ends_prefork_workers_with_their_parent(self):
        """As a web server does it: the parent waits in a loop, and ends its workers when it ends."""
        self.write("""\
            import os, signal, sys
            workers = []
            signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
            def worker():
                os.write(write, b"x")
                signal.sigwait([signal.SIGTERM])
                sys.exit(0)
            read, write = os.pipe()
            def serve():
                for _ in range(2):
                    pid = os.fork()
                    if pid == 0:
                        try:
                            worker()
                        finally:
                            os.write(1, b"worker ends\\n")
                    workers.append(pid)
                    os.read(read, 1)
                try:
                    here = 1                     # serving
                except Exception:
                    sys.exit(1)
                finally:
                    for pid in workers:
                        os.kill(pid, signal.SIGTERM)
                        os.waitpid(pid, 0)
            serve()
            """)
        session = Session(self, *FORK_WARNING, "-m", "brixdebug", self.program)
        session.prompt()
        session.do("break %d" % line_of(self.program, "serving"))
        self.assertIn(self.place("serving"), session.do("continue"))
        printed, status = session.end("quit")
        self.assertEqual((printed.count("worker ends\n"), status), (2, 0))
        self.assertNotIn("(Pdb) ", printed)


if __name__ == "__main__":
    unittest.main()
