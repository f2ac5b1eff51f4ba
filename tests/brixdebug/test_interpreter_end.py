"""The end of the interpreter, which takes the modules apart while the program's last destructors run.

They run as without a debugger, whatever is still switched on.
"""

import sys
import unittest

from host_support import scratch_folder
from session import line_of, run_session, write_program

# Something keeps the main module, so its names go after those of the debugger's modules.
LATE = """\
    import sys, brixdebug
    sys.keeps = sys.modules["__main__"]
    class Late:
        def __del__(self):
            x = 1                                # late
            print("late", x, flush=True)
    late = Late()
    """

# A thread that the interpreter stops for good before it gets what `quit` raises in it: a tool that is asked between
# the debugger's own two keeps it.
KEPT_THREAD = """\
    import _thread, sys, threading, brixdebug
    class Late:
        def __del__(self):
            1 / 0
    sys.keeps, late = sys.modules["__main__"], Late()
    begun, kept, go, forever, ending = threading.Event(), threading.Event(), threading.Lock(), threading.Lock(), []
    go.acquire(), forever.acquire()
    def keep(code, line):
        if ending:
            kept.set()
            forever.acquire()
    def work():
        begun.set()
        go.acquire()
        x = 1
    TOOL_ID = sys.monitoring.COVERAGE_ID
    sys.monitoring.use_tool_id(TOOL_ID, "between")
    sys.monitoring.register_callback(TOOL_ID, sys.monitoring.events.LINE, keep)
    sys.monitoring.set_local_events(TOOL_ID, work.__code__, sys.monitoring.events.LINE)
    _thread.start_new_thread(work, ())
    begun.wait()
    try:
        here = 1                                 # here
    finally:
        ending.append(1)
        go.release()
        kept.wait()
    """

# Threads that are stopped for good wherever they are, and code that runs after that: new, and at a breakpoint.
DAEMONS = """\
    import sys, threading, brixdebug
    ready = threading.Barrier(25)
    def forever():
        ready.wait()
        while True:
            x = 1                                # loop
    class Late:
        def __del__(self):
            names = {}
            exec("def function(n): return n", names)
            for n in range(20):
                x = names["function"](n)         # late
    brixdebug.set_trace()
    for _ in range(24):
        threading.Thread(target=forever, daemon=True).start()
    sys.keeps, late = sys.modules["__main__"], [Late() for _ in range(30)]
    ready.wait()
    """
# An exit handler that runs after the debugger's own, while a daemon thread passes a logpoint.
LOGPOINT = """\
    import atexit, threading
    passed, goes_on = [], True
    @atexit.register
    def late():
        global goes_on
        before = len(passed)
        while len(passed) < before + 3: pass
        goes_on = False
        thread.join()
    import brixdebug
    def work():
        while goes_on:
            number = len(passed)
            passed.append(number)                # log
    brixdebug.set_trace()
    thread = threading.Thread(target=work, daemon=True)
    thread.start()
    """
# Without the lock about one session in four did not end when the debugger was asked then.
DAEMON_SESSIONS = 1 if getattr(sys, "_is_gil_enabled", lambda: True)() else 12


class InterpreterEndTest(unittest.TestCase):

    def run_program(self, text, mark, commands, *, as_command=False):
        folder = scratch_folder(self)
        path = write_program(folder, text)
        begin = ("-m", "brixdebug", path) if as_command else (path,)
        return run_session(*begin, cwd=folder, commands=["break %d" % line_of(path, mark), *commands])

    def test_destructor_with_a_breakpoint(self):
        """Its code is known, so it has events; nobody can be asked any longer."""
        child = self.run_program(LATE + """
    brixdebug.set_trace()
    Late()
    print("end")
    """, "late", ["continue", "continue"])
        self.assertEqual((child.stderr, child.returncode), ("", 0))
        self.assertEqual(child.stdout.splitlines()[-3:], ["(Pdb) late 1", "end", "late 1"])

    def test_thread_that_never_gets_what_ends_it(self):
        """And what the program's own destructor reports then is shown as ever."""
        child = self.run_program(KEPT_THREAD, "here", ["continue", "quit"], as_command=True)
        self.assertEqual(child.returncode, 0)
        self.assertRegex(child.stderr, r"\AException ignored [^\n]*__del__[^\n]*\nTraceback [^\n]*\n"
                                       r"  File [^\n]*program.py[^\n]*\n(    [^\n]*\n)*"
                                       r"ZeroDivisionError: division by zero\n\Z")

    def test_daemon_threads_that_loop_at_a_breakpoint(self):
        """What they hold when the interpreter stops them is never given back; nobody waits for it."""
        for _ in range(DAEMON_SESSIONS):
            folder = scratch_folder(self)
            path = write_program(folder, DAEMONS)
            breaks = ["break %d, False" % line_of(path, mark) for mark in ("loop", "late")]
            child = run_session(path, cwd=folder, commands=[*breaks, "continue"], ASAN_OPTIONS="detect_leaks=0")
            self.assertEqual((child.returncode, child.stderr), (0, ""), child.stdout)

    def test_logpoint_of_a_daemon_thread_while_exit_handlers_run(self):
        folder = scratch_folder(self)
        path = write_program(folder, LOGPOINT)
        child = run_session(path, cwd=folder, commands=["dprintf %d, at {number}" % line_of(path, "log"), "continue"])
        self.assertEqual((child.returncode, child.stderr), (0, ""))
        lines = child.stdout.replace("(Pdb) ", "").splitlines()
        numbers = [line for line in lines if line.startswith("at ")]
        self.assertGreaterEqual(len(numbers), 3)
        self.assertEqual(numbers, ["at %d" % number for number in range(len(numbers))])

    def test_tool_that_has_taken_the_debuggers_id(self):
        """The debugger has nothing to wait for, and another tool works while exit handlers run."""
        folder = scratch_folder(self)
        child = run_session(write_program(folder, """\
            import atexit, sys
            begun = []
            def function(): pass
            @atexit.register
            def late():
                function()
                print([code.co_name for code in begun])
            import brixdebug
            brixdebug.set_trace()
            here = 1
            sys.monitoring.use_tool_id(sys.monitoring.DEBUGGER_ID, "other")
            sys.monitoring.register_callback(sys.monitoring.DEBUGGER_ID, sys.monitoring.events.PY_START,
                                             lambda code, offset: begun.append(code))
            sys.monitoring.set_local_events(sys.monitoring.DEBUGGER_ID, function.__code__, sys.monitoring.events.PY_START)
            """), cwd=folder, commands=["continue"])
        self.assertEqual((child.returncode, child.stderr), (0, ""))
        self.assertEqual(child.stdout.splitlines()[-1], "(Pdb) ['function']")


if __name__ == "__main__":
    unittest.main()
