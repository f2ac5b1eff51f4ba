"""Threads that catch what is to end them: `quit` ends the program all the same."""

import re
import unittest

from host_support import scratch_folder
from session import run_session, write_program


class CaughtQuitTest(unittest.TestCase):
    """`quit` ends the program also where this catches every Exception; what it does at its end it does."""

    def ended(self, program, *commands):
        folder = scratch_folder(self)
        child = run_session("-m", "brixdebug", write_program(folder, program), cwd=folder,
                            commands=[*commands, "continue", "quit"])
        self.assertEqual(child.returncode, 0)
        self.assertEqual(re.sub("^Task exception was never retrieved\n(.+\n)+", "", child.stderr), "")
        self.assertNotIn("post mortem", child.stdout)
        return [line for line in child.stdout.replace("(Pdb) ", "").splitlines() if line[:2] not in ("> ", "->")]

    def test_in_a_loop(self):
        printed = self.ended("""\
            import contextlib
            @contextlib.contextmanager
            def resource():
                try:
                    yield
                finally:
                    print("closing")
                    print("closed")
            def step():
                here = 1
            def work():
                while True:
                    try:
                        with resource():
                            step()
                    except Exception as error:
                        print("caught", type(error).__name__)
            try:
                work()
                print("not reached")
            finally:
                for number in range(3):
                    print("end", number)
            """, "break 10")
        self.assertEqual(printed[1:], ["closing", "closed", "caught BdbQuit", "end 0", "end 1", "end 2"])

    def test_main_thread_that_waits_in_c_code(self):
        """It runs other code than the thread in which the user quits, and gets its end in the handler of a signal."""
        self.ended("""\
            import threading, time
            def work():
                here = 1
                time.sleep(1000)
            threading.Thread(target=work).start()
            while True:
                try:
                    time.sleep(1000)
                except Exception as error:
                    print("caught", type(error).__name__)
            """, "break 3")

    def test_what_a_daemon_thread_does_for_others_at_the_end(self):
        """It serves until the interpreter ends it, as without a debugger; other threads end."""
        printed = self.ended("""\
            import queue, threading
            asked, answers = queue.Queue(), queue.Queue()
            def serve():
                while True:
                    try:
                        answers.put(asked.get() * 2)
                    except Exception as error:
                        print("caught", type(error).__name__)
            def work():
                try:
                    while True:
                        started.set()
                finally:
                    asked.put(1)
            started = threading.Event()
            server = threading.Thread(target=serve, daemon=True)
            worker = threading.Thread(target=work)
            server.start()
            worker.start()
            started.wait()
            try:
                here = 1
            finally:
                worker.join()
                print("worker:", answers.get())
                asked.put(2)
                print("main:", answers.get())
            """, "break 22")
        self.assertEqual(printed[1:], ["worker: 2", "main: 4"])

    def test_quit_in_a_daemon_thread_that_catches_it(self):
        printed = self.ended("""\
            import threading
            def step():
                here = 1
            def work():
                while True:
                    try:
                        step()
                    except Exception as error:
                        print("caught", type(error).__name__)
            thread = threading.Thread(target=work, daemon=True)
            try:
                thread.start()
                thread.join()
            finally:
                thread.join()
            """, "break 3")
        self.assertEqual(printed[1:], ["caught BdbQuit"])

    def test_in_loops_inside_of_each_other(self):
        printed = self.ended("""\
            def step():
                here = 1
            def work():
                while True:
                    try:
                        while True:
                            try:
                                step()
                            except Exception:
                                pass
                    except Exception:
                        pass
                    finally:
                        outer.add("outer")
                        outer.add("whole")
            outer = set()
            try:
                work()
            finally:
                print(sorted(outer))
            """, "break 2")
        self.assertEqual(printed[1:], ["['outer', 'whole']"])

    def test_another_exception_in_its_place(self):
        printed = self.ended("""\
            import sys
            def step():
                here = 1
            try:
                step()
            except Exception as error:
                raise ValueError("in its place") from error
            """, "break 3")
        self.assertEqual(printed[1:], [])

    def test_unittest_and_a_task_of_asyncio(self):
        for program, line in ("""\
            import asyncio
            async def handle():
                here = 1
            async def main():
                task = asyncio.create_task(handle())
                try:
                    for _ in range(10):
                        await asyncio.sleep(0)
                    print("not reached")
                finally:
                    print("end of main")
            asyncio.run(main())
            """, "end of main"), ("""\
            import asyncio
            async def handle():
                here = 1
            async def main():
                try:
                    await asyncio.gather(asyncio.wait_for(handle(), 5), asyncio.sleep(1000))
                    print("not reached")
                finally:
                    print("end of main")
            asyncio.run(main())
            """, "end of main"), ("""\
            import asyncio
            async def handle():
                here = 1
            async def serve():
                try:
                    asyncio.get_running_loop().create_task(handle())
                    await asyncio.Event().wait()
                finally:
                    print("end of serve")
            asyncio.run(serve())
            """, "end of serve"), ("""\
            import unittest
            class Test(unittest.TestCase):
                def test_1(self): here = 1
                def test_2(self): print("not reached")
                def tearDown(self): print("torn down")
            unittest.main()
            """, None):
            with self.subTest(program):
                printed = self.ended(program, "break 3")
                self.assertNotIn("not reached", printed)
                self.assertTrue(line is None or line in printed, printed)

    def test_at_a_try_inside_of_another_block(self):
        # what is raised at the very line of a `try` has no handlers, not even those of the blocks around it
        printed = self.ended("""\
            import contextlib
            def step():
                pass
            def work():
                with contextlib.closing(End()):
                    while True:
                        try:
                            step()
                        except ValueError:
                            pass
            class End:
                def close(self):
                    print("end of work")
            work()
            """, "break 7")
        self.assertEqual(printed[1:], ["end of work"])

    def test_at_a_try_on_one_line_inside_of_another_block(self):
        # the call of that line is not made any more
        for line in "try: print('not reached')", "try: here = 1; print('not reached')", "try: here = seen.append(1)":
            for handler in ("except ValueError: pass", "finally: print('end of try')"):
                with self.subTest(line, handler=handler):
                    printed = self.ended("""\
                        import contextlib
                        seen = []
                        def work():
                            with contextlib.closing(End()):
                                try:
                                    while True:
                                        %s
                                        %s
                                finally:
                                    print("end of loop", seen)
                        class End:
                            def close(self):
                                print("end of work")
                        work()
                        """ % (line, handler), "break 7")
                    self.assertEqual(printed[1:], ["end of try"] * ("finally" in handler) + ["end of loop []", "end of work"])

    def test_in_a_worker_and_beside_one(self):
        program = """\
            import contextlib, sys, threading
            def step(number):
                here = number
            class End:
                def __init__(self, number):
                    self.number = number
                def close(self):
                    sys.stdout.write("end of %d\\n" % self.number)    # in one piece, beside another thread
            def work(number):
                with contextlib.closing(End(number)):
                    both.wait()
                    while True:
                        try:
                            step(number)
                        except Exception as error:
                            pass
            both = threading.Barrier(2)
            thread = threading.Thread(target=work, args=(1,))
            thread.start()
            work(2)
            """
        for commands in ["break 3, number == 1"], ["break 3, number == 2"]:
            self.assertEqual(sorted(self.ended(program, *commands)[1:]), ["end of 1", "end of 2"])


if __name__ == "__main__":
    unittest.main()
