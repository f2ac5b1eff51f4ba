"""Variables that are assigned at the prompt hold, in whichever frame and thread: also where the interpreter copies them."""

import unittest

from host_support import scratch_folder
from session import Session, line_of, write_program

PROGRAM = """\
    import threading
    is_over = False
    has_begun = threading.Event()
    def work():
        n = 1
        def inner():
            return n
        has_begun.set()
        while not is_over:
            pass                             # loop
        print("worker", inner(), n)

    def outer(k):
        def close():
            return k
        inner(3)
        print("outer", k, close())

    def inner(here):
        return here                          # inner

    thread = threading.Thread(target=work)
    thread.start()
    has_begun.wait()
    outer(5)
    is_over = True
    thread.join()
    """


class AssignmentTest(unittest.TestCase):

    def start(self):
        self.program = write_program(scratch_folder(self), PROGRAM)
        session = Session(self, "-m", "brixdebug", self.program)
        session.prompt()
        session.do("break %d" % line_of(self.program, "inner"))
        session.do("continue")
        return session

    def test_in_another_threads_frame(self):
        session = self.start()
        session.do_until("threads", "held")
        session.do("thread 2")
        session.do("!n = 77")
        self.assertEqual(session.do("p n"), "77\n")
        session.do("thread 1")
        self.assertEqual(session.do("p here"), "3\n")
        session.do("thread 2")
        self.assertEqual(session.do("p n"), "77\n")
        self.assertIn("worker 77 77\n", session.do("continue"))

    def test_in_a_calling_frame(self):
        session = self.start()
        session.do("up")
        session.do("k = 6")
        session.do("down")
        self.assertEqual(session.do("p here"), "3\n")
        session.do("up")
        self.assertEqual(session.do("p k"), "6\n")
        self.assertIn("outer 6 6\n", session.do("continue"))

    def test_in_the_frame_that_stopped(self):
        session = self.start()
        session.do("here = 9")
        session.do("up")
        session.do("down")
        self.assertEqual(session.do("p here"), "9\n")
        self.assertIn("->9\n", session.do("next"))

    def test_stop_in_a_comprehension_of_a_module_changes_nothing(self):
        program = write_program(scratch_folder(self), """\
            class Body:
                rows = [
                    n * 2                        # here
                    for n in range(2)]
            rows = [
                n * 3                            # there
                for n in range(2)]
            print(rows, Body.rows)
        """)
        session = Session(self, "-m", "brixdebug", program)
        session.prompt()
        for mark in ("here", "there"):
            session.do("break %d" % line_of(program, mark))
        for _ in range(4):
            self.assertIn("-> n * ", session.do("continue"))
        self.assertIn("[0, 3] [0, 2]\n", session.do("continue"))


if __name__ == "__main__":
    unittest.main()
