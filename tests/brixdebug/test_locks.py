"""Locks that are waited for at the interpreter's end: a daemon thread that has been ended never releases its own."""

import unittest

from host_support import check_child, scratch_folder
from session import Session, line_of, write_program


class LockAtEndTest(unittest.TestCase):
    """A lock that a daemon thread had when the interpreter ended it."""

    def test_nobody_waits_for_a_thread_that_was_ended(self):
        program = write_program(scratch_folder(self), """\
            import _thread, sys, threading
            is_over = False
            sys.is_finalizing = lambda: is_over
            from brixdebug.locks import LockAtEnd
            lock, has_it = LockAtEnd(_thread.RLock()), threading.Event()
            def work():
                with lock:
                    has_it.set()
                    threading.Event().wait()
            threading.Thread(target=work, daemon=True).start()
            has_it.wait()
            print(lock.acquire(blocking=False), lock._is_owned())
            threading.Timer(0.2, lambda: globals().update(is_over=True)).start()
            with lock:
                print("the end", is_over, lock._is_owned())
            """)
        self.assertEqual(check_child(self, program), "False False\nthe end True True\n")

    def test_code_that_runs_at_the_very_end_under_breakpoints(self):
        program = write_program(scratch_folder(self), """\
            import atexit, sys, threading
            is_over = False
            sys.is_finalizing = lambda: is_over
            go, has_them = threading.Event(), threading.Event()
            def late():                          # called after the debugger's own
                global is_over
                go.set()
                has_them.wait()
                is_over = True
                exec(compile("def last(): print('last')\\nlast()", sys.argv[0], "exec"))
            atexit.register(late)
            import brixdebug
            from brixdebug.monitor import monitor
            def work():
                go.wait()
                with monitor.turn.lock, monitor.switches.lock:
                    has_them.set()
                    threading.Event().wait()
            brixdebug.set_trace()
            threading.Thread(target=work, daemon=True).start()
            print("end")                         # line
            """)
        session = Session(self, program)
        session.prompt()
        session.do("break %d" % line_of(program, "line"))
        session.do("continue")
        self.assertEqual(session.end("continue"), ("end\nlast\n", 0))

    def test_it_is_the_lock_until_then(self):
        program = write_program(scratch_folder(self), """\
            import _thread, threading
            from brixdebug.locks import LockAtEnd
            lock = LockAtEnd(_thread.RLock())
            count = 0
            def work():
                global count
                for _ in range(200):
                    with lock, lock:
                        before = count
                        assert lock._is_owned()
                        count = before + 1
            threads = [threading.Thread(target=work) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            print(count, lock._is_owned())
            """)
        self.assertEqual(check_child(self, program), "800 False\n")


if __name__ == "__main__":
    unittest.main()
