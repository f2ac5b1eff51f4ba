"""What a stop leaves behind: the program's objects go when it lets go of them, without the cyclic garbage collector."""

import subprocess
import sys
import unittest

from host_support import scratch_folder
from session import line_of, run_session, write_program

# Prints after each part which objects have gone; the parts are what the sessions stop in.
PROGRAM = """\
    import gc, threading, weakref
    import other

    gc.disable()
    gone, references = [], []

    class Thing:
        pass

    class Error(Exception):
        pass

    def note(thing, name):
        references.append(weakref.ref(thing, lambda reference: gone.append(name)))
        return thing

    def inner(given):
        own = note(Thing(), "own")
        here = 1                                 # inner
        return given

    def fail(given):
        local = note(Thing(), "local")
        raise note(Error(), "error")             # raise

    def work(kind):
        thing = note(Thing(), "thing")
        try:
            kind(thing)                          # call
        except Error:
            pass
        return note(Thing(), "result")

    def show(part):
        print("after %s:" % part, *sorted(set(gone)))
        gone.clear()

    def main():
        other.call(work, inner)
        show("inner")
        other.call(work, fail)
        show("fail")
        other.in_thread(work, inner)
        show("thread")
        threading.excepthook = lambda args: None
        other.in_thread(fail, note(Thing(), "thing"))
        show("uncaught")

    main()
    """
OTHER = """\
    import threading

    def call(function, argument):
        mine = 1
        function(argument)

    def in_thread(*what):
        thread = threading.Thread(target=call, args=what)
        thread.start()
        thread.join()
    """
PARTS = ["after inner: own result thing", "after fail: error local result thing", "after thread: own result thing",
         "after uncaught: error local thing"]

# What is typed; each ends in the middle of a run, or with one that went to the end.
SESSIONS = {
    "stops": ["catch off", "break {inner}", "c", "p own", "pp given", "!x = own", "args", "c", "where", "c"],
    "conditions": ["catch off", "break {inner}, own", "dprintf {call}, {{thing}}", "c", "c", "c"],
    "commands": ["catch off", "break {inner}", "commands 1", "silent", "up", "p kind", "end", "c", "c", "c"],
    "up and down": ["catch off", "break {inner}", "c", "up", "p thing", "down", "up", "up", "p mine", "c", "up", "c"],
    "return values": ["catch off", "break {inner}", "c", "r", "retval", "up", "up", "c", "r", "p $_retval", "c"],
    "steps": ["catch off", "break {inner}", "c", "n", "n", "n", "n", "n", "c", "s", "s", "s", "s", "c"],
    "steps past an exception": ["catch off", "break {call}", "c", "n", "n", "n", "c", "n", "n", "p $_exception", "n", "n",
                                "c", "n", "c"],
    "steps out of an exception": ["catch off", "break {raise}", "c", "s", "s", "s", "s", "c", "s", "s", "c"],
    "raised": ["catch off", "catch raised", "c", "where", "p $_exception", "up", "p thing", "up", "c", "c"],
    "chained": ["catch off", "catch raised", "c", "exceptions", "exceptions 0", "c", "c"],
    "uncaught": ["c", "where", "p local", "up", "p $_exception", "c"],
    "watches": ["catch off", "break {inner}", "c", "watch own", "watch given", "clear 1", "c"],
    "displays": ["catch off", "break {inner}", "c", "display own", "undisplay own", "c", "display own", "undisplay", "c"],
    "other threads": ["catch off", "break {inner}", "c", "c", "threads", "thread 1", "where", "up", "up", "thread 2", "c"],
    "debug": ["catch off", "break {inner}", "c", "debug len([own])", "c", "c", "debug vars(own)", "s", "c", "c"],
    "debug that ends early": ["catch off", "break {inner}", "c", "debug other.call(id, own)", "s", "n", "p mine", "q", "c",
                              "debug other.call(id, own)", "s", "q", "c"],
}


class LeftoversTest(unittest.TestCase):

    maxDiff = None

    def setUp(self):
        folder = scratch_folder(self)
        write_program(folder, OTHER, "other.py")
        self.program = write_program(folder, PROGRAM)

    def parts(self, text):
        return [line.replace("(Pdb) ", "") for line in text.splitlines() if line.replace("(Pdb) ", "").startswith("after ")]

    def test_without_a_debugger(self):
        plain = subprocess.run([sys.executable, self.program], capture_output=True, text=True)
        self.assertEqual((plain.stdout.splitlines(), plain.stderr), (PARTS, ""))

    def test_sessions(self):
        lines = {mark: line_of(self.program, mark) for mark in ("inner", "call", "raise")}
        for name, commands in SESSIONS.items():
            with self.subTest(name):
                child = run_session("-m", "brixdebug", self.program,
                                    commands=[each.format(**lines) for each in commands] + ["q"])
                self.assertEqual(self.parts(child.stdout), PARTS, child.stdout + child.stderr)
                self.assertNotIn("dis.py", child.stdout)      # which the debugger asks for lines


class PostMortemTest(unittest.TestCase):
    """The program has ended of an exception, and begins again."""

    def test_restart(self):
        folder = scratch_folder(self)
        program = write_program(folder, """\
            import gc, sys, weakref
            gc.disable()
            print("gone:", *sorted(getattr(sys, "gone", ["nothing"])))
            gone = sys.gone = []
            class Error(Exception):
                pass
            def note(error):
                sys.references = [weakref.ref(error, lambda reference, gone=gone: gone.append("error"))]
                return error
            def fail():
                raise note(Error())
            def call():
                fail()
            call()
            """)
        child = run_session("-m", "brixdebug", program, commands=["c", "where", "up", "p gone", "c", "c", "q", "q"])
        self.assertIn("gone: nothing\n", child.stdout)
        self.assertIn("gone: error\n", child.stdout)


if __name__ == "__main__":
    unittest.main()
