"""Children of a debugged program: free of the debugger, unless the user wants to follow them."""

import unittest

from host_support import check_child, scratch_folder
from session import Session, line_of, run_session, write_program


class ForkTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def write(self, text):
        self.program = write_program(self.folder, text)

    def place(self, mark):
        return "> %s(%d)" % (self.program, line_of(self.program, mark))

    def start(self, *breakpoints, follow=False):
        # From 3.12 on the interpreter warns of a fork while there are threads.
        session = Session(self, "-W", "ignore::DeprecationWarning", "-m", "brixdebug", self.program)
        session.prompt()
        for mark in breakpoints:
            session.do("break %d" % line_of(self.program, mark))
        if follow:
            self.assertEqual(session.do("set follow-fork on"), "")
        return session

    def check_output(self, session, output):
        printed = session.do("continue")
        self.assertEqual(printed.partition("The program finished and will be restarted\n")[0], output)
        self.assertEqual(session.end("quit")[1], 0)


CHILD_HITS = """\
    import os, sys
    def hit(n):
        return n + 1                         # line
    hit(1)
    pid = os.fork()
    if pid == 0:
        hit(2)
        sys.stdout.write("child\\n")
        sys.stdout.flush()
        os._exit(hit(6))
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    hit(3)
    print("status", status)
    """


class FreeChildTest(ForkTestCase):

    def test_breakpoints_do_not_stop_it(self):
        self.write(CHILD_HITS)
        session = self.start("line")
        self.assertIn(self.place("line"), session.do("continue"))
        self.assertIn("1", session.do("p n"))
        printed = session.do("continue")
        self.assertIn("child\n" + self.place("line"), printed)
        self.assertEqual(session.do("p n"), "3\n")
        self.check_output(session, "status 7\n")

    def test_child_of_a_stepped_line(self):
        self.write("""\
            import os
            def child():
                os._exit(3)
            def fork():
                pid = os.fork()
                if pid == 0:
                    child()
                return pid
            pid = fork()                         # fork
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = self.start("fork")
        session.do("continue")
        for _ in range(20):
            printed = session.do("step")
            if "status 3" in printed:
                break
            self.assertNotIn("child", printed)
        self.assertIn("status 3\n", printed)
        session.end("quit")

    def test_nothing_is_switched_on_in_it(self):
        self.write("""\
            import os, sys
            def hit():
                return 1                         # line
            hit()
            pid = os.fork()
            if pid == 0:
                hit()
                tools = [sys.monitoring.get_tool(number) for number in range(6)]
                os._exit(0 if tools == [None] * 6 else 1)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = self.start("line")
        session.do("continue")
        self.check_output(session, "status 0\n")

    def test_exceptions_and_threads_of_the_child(self):
        self.write("""\
            import os, sys, threading
            def hit(n):
                return n                         # line
            pid = os.fork()
            if pid == 0:
                seen = []
                thread = threading.Thread(target=lambda: seen.append(hit(5)))
                thread.start()
                thread.join()
                try:
                    hit(None) + 1
                except TypeError:
                    seen.append(6)
                os._exit(sum(seen))
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = self.start("line")
        self.check_output(session, "status 11\n")

    def test_fork_in_another_thread_while_all_reach_breakpoints(self):
        """Whatever lock another thread has at that moment, the child does not wait for it."""
        self.write("""\
            import os, sys, threading
            go = True
            def hit():
                return 1                         # line
            def run():
                while go:
                    hit()
            def fork():
                for n in range(20):
                    pid = os.fork()
                    if pid == 0:
                        hit()
                        os._exit(7)
                    if os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) != 7:
                        print("wrong status")
            threads = [threading.Thread(target=run) for _ in range(4)]
            for thread in threads: thread.start()
            forker = threading.Thread(target=fork)
            forker.start()
            forker.join()
            go = False
            for thread in threads: thread.join()
            print("done")
            """)
        session = self.start()
        session.do("break %d, False" % line_of(self.program, "line"))
        self.check_output(session, "done\n")

    def test_child_never_waits_for_a_lock_of_the_debugger(self):
        """Each of its locks is held by another thread while the program forks."""
        for follow in False, True:
            with self.subTest(follow=follow):
                out = self.forks_with_all_locks_held(follow)
                self.assertEqual(out, "child\nstatus 4\n")

    def forks_with_all_locks_held(self, follow):
        self.write("""\
            import _thread, os, sys
            from brixbase import dlog
            from brixdebug import engine
            from brixdebug.monitor import monitor

            class Debugger(engine.Bdb):
                follows_fork = FOLLOW
                stops = 0
                def user_line(self, frame):
                    self.stops += 1
                    self.set_continue()

            def hit():
                return 1                         # line

            def hold():
                monitor.switches.lock.acquire()
                monitor.turn.lock.acquire()
                dlog.logger.handlers[0].lock.acquire()
                taken.release()
                wait.acquire()
                dlog.logger.handlers[0].lock.release()
                monitor.turn.lock.release()
                monitor.switches.lock.release()
                given.release()

            debugger = Debugger()
            debugger.set_break(__file__, hit.__code__.co_firstlineno + 1)
            debugger.reset()
            debugger.botframe = sys._getframe()
            debugger.set_continue()
            debugger.start_trace()
            hit()
            os.fork() or os._exit(0)             # all that runs at a fork has run
            taken, wait, given = _thread.allocate_lock(), _thread.allocate_lock(), _thread.allocate_lock()
            taken.acquire(), wait.acquire(), given.acquire()
            _thread.start_new_thread(hold, ())
            taken.acquire()
            pid = os.fork()
            if pid == 0:
                before = debugger.stops
                hit()
                dlog.LogException("nothing")
                debugger.set_break(__file__, 1)
                debugger.stop_trace()
                os.write(1, b"child\\n")
                os._exit(4 if debugger.stops - before == FOLLOW else 5)
            wait.release()
            given.acquire()
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            debugger.stop_trace()
            """.replace("FOLLOW", str(follow)))
        child = run_session("-W", "ignore", self.program)
        self.assertEqual(child.returncode, 0, child.stderr)
        return child.stdout

    def test_child_that_debugs_itself(self):
        """The debugger was only loaded when the program forked."""
        self.write("""\
            import os, sys
            import brixdebug
            pid = os.fork()
            if pid == 0:
                brixdebug.set_trace()
                here = 1                         # here
                os._exit(5)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = Session(self, self.program)
        session.prompt()
        self.assertIn("here = 1", session.seen + session.do("next"))
        self.assertEqual(session.end("continue"), ("status 5\n", 0))


class FollowedChildTest(ForkTestCase):

    def test_it_stops_in_the_child(self):
        self.write(CHILD_HITS)
        session = self.start("line", follow=True)
        session.do("continue")
        self.assertIn(self.place("line"), session.do("continue"))
        self.assertEqual(session.do("p n"), "2\n")
        self.assertIn("child\n" + self.place("line"), session.do("continue"))
        self.assertEqual(session.do("p n"), "6\n")
        self.assertIn(self.place("line"), session.do("continue"))      # the parent again
        self.assertEqual(session.do("p n"), "3\n")
        self.check_output(session, "status 7\n")

    def test_stepping_goes_on_in_the_child(self):
        self.write("""\
            import os
            pid = os.fork() or os.fork
            if pid is os.fork:
                first = 1                        # first
                second = 2                       # second
                os._exit(second)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            """)
        session = self.start("first", follow=True)
        self.assertIn(self.place("first"), session.do("continue"))
        self.assertIn(self.place("second"), session.do("next"))
        self.check_output(session, "status 2\n")

    def test_fork_at_the_prompt(self):
        """The child is at the prompt as its parent is; here it goes first."""
        self.write("""\
            import os
            def fork():
                pid = os.fork()
                if pid:
                    os.waitpid(pid, 0)
                return pid
            def hit():
                return 1                         # line
            here = 1                             # here
            hit()
            hit()
            print("end of", "child" if here == 0 else "parent", flush=True)
            if here == 0:
                os._exit(0)
            """)
        session = self.start("here", "line", follow=True)
        self.assertIn(self.place("here"), session.do("continue"))
        session.do("next")
        session.do("!here = fork()")
        for process in "child", "parent":
            for _ in range(2):
                self.assertIn(self.place("line"), session.do("continue"))
            printed = session.do("continue")
            self.assertIn("end of " + process, printed)
        self.assertEqual(session.end("quit")[1], 0)

    def test_set_follow_fork(self):
        self.write("pass\n")
        session = self.start()
        self.assertEqual(session.do("set follow-fork"), "*** set follow-fork on, or off; it is off\n")
        self.assertEqual(session.do("set follow-fork on"), "")
        self.assertEqual(session.do("set follow-fork maybe"), "*** set follow-fork on, or off; it is on\n")
        self.assertEqual(session.do("set follow-fork off"), "")
        self.assertEqual(session.do("set follow-fork x"), "*** set follow-fork on, or off; it is off\n")
        self.assertEqual(session.do("set([1])"), "{1}\n")
        session.do("set = 5")
        self.assertEqual(session.do("p set"), "5\n")
        self.assertIn("set follow-fork on|off", session.do("help set"))
        session.end("quit")


class OtherWaysTest(ForkTestCase):

    def test_multiprocessing_with_fork(self):
        self.write("""\
            import multiprocessing, sys
            def work(n):
                return n * n                     # line
            if __name__ == "__main__":
                context = multiprocessing.get_context("fork")
                with context.Pool(2) as pool:
                    print(pool.map(work, [2, 3]))
                process = context.Process(target=sys.exit, args=(6,))
                process.start()
                process.join()
                print("status", process.exitcode, work(4))
            """)
        session = self.start("line")
        self.assertIn("[4, 9]\n" + self.place("line"), session.do("continue"))
        self.assertEqual(session.do("p n"), "4\n")
        self.check_output(session, "status 6 16\n")

    def test_followed_child_of_multiprocessing(self):
        """It has no standard input of its own; the prompt reads the debugger's."""
        self.write("""\
            import multiprocessing, sys
            def work(n):
                sys.exit(n)                      # line
            if __name__ == "__main__":
                process = multiprocessing.get_context("fork").Process(target=work, args=(3,))
                process.start()
                process.join()
                print("status", process.exitcode)
            """)
        session = self.start("line", follow=True)
        self.assertIn(self.place("line"), session.do("continue"))
        self.assertEqual(session.do("p n"), "3\n")
        session.do("!n = 8")
        self.check_output(session, "status 8\n")

    def test_subprocess(self):
        self.write("""\
            import subprocess, sys, os
            def before():
                os.environ["SEEN"] = "yes"       # line
            code = "import os, sys; print(os.environ.get('SEEN')); sys.exit(4)"
            print(subprocess.run([sys.executable, "-c", code], preexec_fn=before).returncode, flush=True)
            print(subprocess.run([sys.executable, "-c", code]).returncode)
            """)
        session = self.start("line")
        self.check_output(session, "yes\n4\nNone\n4\n")

    def test_spawned_process(self):
        self.write("""\
            import multiprocessing
            def work(n):
                return n * n                     # line
            if __name__ == "__main__":
                with multiprocessing.get_context("spawn").Pool(1) as pool:
                    print(pool.map(work, [2, 3]))
            """)
        session = self.start("line")
        self.check_output(session, "[4, 9]\n")


if __name__ == "__main__":
    unittest.main()
