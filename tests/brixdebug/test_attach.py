"""`brixdebug -p PID`: the prompt of a program that runs already, at the terminal of who attaches."""

import os
import shutil
import signal
import socket
import subprocess
import sys
import unittest

from host_support import child_environment, run_child, scratch_folder
from session import Session, line_of, write_program

HAS_REMOTE_EXEC = hasattr(sys, "remote_exec")

PROGRAM = """\
    import os, sys, threading
    stop = sys.argv[1]
    def step(name):
        here = name                          # here
    def work():
        while not os.access(stop, os.F_OK):
            step("worker")
    thread = threading.Thread(target=work, name="worker")
    thread.start()
    print("ready", flush=True)
    while not os.access(stop, os.F_OK):
        step("main")                         # main
    thread.join()
    print("tools", [sys.monitoring.get_tool(number) for number in range(6)])
    print("read", sys.stdin.read())
    """

SLEEPER = """\
    import os
    print("ready", flush=True)
    print("read", os.read(0, 100))
    for n in range(1000):
        n += 1
    print("end")
    """


@unittest.skipUnless(HAS_REMOTE_EXEC or shutil.which("gdb"), "attaching takes gdb before Python 3.14")
class AttachTest(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)
        self.stop = self.folder / "stop"

    def start(self, text=PROGRAM, **environment):
        self.program = write_program(self.folder, text)
        self.process = subprocess.Popen([sys.executable, self.program, self.stop], text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=child_environment(PYTHONPATH="", **environment))
        self.addCleanup(self.kill)
        self.assertEqual(self.process.stdout.readline(), "ready\n")

    def kill(self):
        self.process.kill()
        self.process.communicate()

    def finish(self, text="its own\n"):
        """What the program prints to its own streams once it may end, and its exit status."""
        self.stop.touch()
        out, err = self.process.communicate(text, timeout=60)
        return out, err, self.process.returncode

    def attach(self, *options, terminal=False):
        return Session(self, "-m", "brixdebug", *options, "-p", str(self.process.pid), terminal=terminal)

    def check_goes_on(self):
        self.assertEqual(self.finish(), ("tools %s\nread its own\n\n" % ([None] * 6), "", 0))

    def test_stops_in_the_program_and_in_all_its_threads(self):
        self.start()
        session = self.attach()
        self.assertRegex(session.prompt(), r"(?m)^> %s\(\d+\)(<module>|step)\(" % self.program)
        where = session.do("where")
        self.assertNotIn("attach", where)
        self.assertNotIn("<string>", where)
        self.assertIn("worker", session.do("threads"))
        session.do("break %s:%d" % (self.program, line_of(self.program, "here")))
        seen = set()
        while len(seen) < 2:
            self.assertIn("> %s(%d)step()" % (self.program, line_of(self.program, "here")), session.do("continue"))
            seen.add(session.do("p name"))
        self.assertEqual(seen, {"'main'\n", "'worker'\n"})
        self.assertEqual(session.end("quit"), ("Detached: process %d goes on.\n" % self.process.pid, 0))
        self.check_goes_on()

    def test_attached_again_and_again(self):
        self.start()
        for _ in range(3):
            session = self.attach("-c", "break %s:%d" % (self.program, line_of(self.program, "main")),
                                  "-c", "continue")
            self.assertIn("> %s(%d)<module>()" % (self.program, line_of(self.program, "main")), session.prompt())
            self.assertIn("> %s(" % self.program, session.do("next"))
            session.end("detach")
        self.check_goes_on()

    def test_what_is_typed_prints_and_reads_here(self):
        self.start()
        session = self.attach()
        session.prompt()
        self.assertEqual(session.do("print('printed')"), "printed\n")
        session.send("line = input('more? ')")
        session.wait_for("more? ")
        session.send("text")
        session.prompt()
        self.assertEqual(session.do("p line"), "'text'\n")
        self.assertIn("cannot be restarted", session.do("run"))
        session.do("break %s:%d" % (self.program, line_of(self.program, "here")))
        session.send("clear")
        session.wait_for("Clear all breaks? ")
        session.send("y")
        self.assertIn("Deleted breakpoint", session.prompt())
        session.send("interact")
        session.wait_for(">>> ")
        session.send("len(line)")
        self.assertEqual(session.wait_for(">>> "), "4\n")
        session.send("exit()")
        session.prompt()
        session.end("quit")
        self.check_goes_on()

    def test_terminal_that_goes_away(self):
        """The prompt is closed, or the program runs to a breakpoint, when whoever attached is killed."""
        self.start()
        stop = "break %s:%d" % (self.program, line_of(self.program, "here"))
        for commands in [], [stop, "continue"]:
            session = self.attach()
            session.prompt()
            for command in commands:
                session.do(command)
            session.process.kill()
            session.process.wait()
        self.check_goes_on()

    def test_program_ends(self):
        self.start()
        session = self.attach()
        session.prompt()
        session.send("continue")
        self.stop.touch()
        self.process.communicate("", timeout=60)
        self.assertEqual(session.end(), ("Process %d has ended.\n" % self.process.pid, 0))

    def test_interrupt_stops_the_program(self):
        self.start()
        session = self.attach(terminal=True)
        session.prompt()
        session.do("sys.runs = []")
        session.do("break %s:%d, (sys.runs or sys.runs.append(print('runs', flush=True))) and 0"
                   % (self.program, line_of(self.program, "main")))
        session.send("continue")
        self.assertEqual(self.process.stdout.readline(), "runs\n")
        session.interrupt_at_prompt()
        self.assertIn("Program interrupted.", session.prompt())
        self.assertIn("> %s(" % self.program, session.do("where"))
        session.send("while True: pass")
        session.wait_for("pass\n")
        session.interrupt_at_prompt()
        self.assertIn("KeyboardInterrupt", session.prompt())
        session.end("quit")
        self.check_goes_on()

    def test_interrupts_are_the_programs_own_afterwards(self):
        self.start()
        session = self.attach()
        session.prompt()
        session.end("quit")
        self.process.send_signal(signal.SIGINT)
        self.stop.touch()
        self.assertIn("KeyboardInterrupt", self.process.communicate("", timeout=60)[1])

    def test_second_attachment_is_refused(self):
        self.start()
        session = self.attach()
        session.prompt()
        session.send("continue")
        ended = run_child("-m", "brixdebug", "-p", str(self.process.pid))
        self.assertEqual((ended.returncode, ended.stderr),
                         (1, "brixdebug: error: process %d is being debugged already\n" % self.process.pid))
        session.process.kill()
        self.check_goes_on_after_use()

    def check_goes_on_after_use(self):
        out, err, status = self.finish()
        self.assertEqual((out.splitlines()[-2:], err, status), (["read its own", ""], "", 0))

    def test_program_that_waits_in_c(self):
        self.start(SLEEPER)
        session = self.attach(terminal=True)
        session.wait_for("Process %d does not answer: its main thread is inside C code" % self.process.pid)
        session.wait_for("Ctrl-C gives up.\n")
        session.interrupt_at_prompt()
        self.assertEqual(session.end()[1], 1)
        self.assertIn("Given up.", session.seen)
        self.assertEqual(self.finish(), ("read b'its own\\n'\nend\n", "", 0))

    def test_program_that_waits_in_c_for_a_moment(self):
        self.start(SLEEPER)
        session = self.attach()
        session.wait_for("Ctrl-C gives up.\n")
        self.process.stdin.write("line\n")
        self.process.stdin.flush()
        self.assertIn("> %s(" % self.program, session.prompt())
        session.end("quit")
        self.assertEqual(self.finish(""), ("read b'line\\n'\nend\n", "", 0))


class RefusalTest(unittest.TestCase):

    def check_refused(self, text, *arguments, **environment):
        ended = run_child("-m", "brixdebug", *arguments, **environment)
        self.assertEqual((ended.returncode, ended.stdout), (1, ""))
        self.assertIn("brixdebug: error: " + text, ended.stderr)

    def test_no_process(self):
        child = subprocess.Popen([sys.executable, "-c", ""])
        child.wait()
        self.check_refused("there is no process %d\n" % child.pid, "-p", str(child.pid))

    def test_options(self):
        ended = run_child("-m", "brixdebug", "-p", "x")
        self.assertEqual(ended.returncode, 2)
        ended = run_child("-m", "brixdebug", "-p", "1", "script.py")
        self.assertEqual(ended.returncode, 2)

    def sleeper(self, *command, **environment):
        child = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=child_environment(**environment))

        def end():
            child.kill()
            child.communicate()
        self.addCleanup(end)
        return child

    @unittest.skipUnless(HAS_REMOTE_EXEC, "there is nothing that refuses")
    def test_process_that_refuses(self):
        child = self.sleeper(sys.executable, "-c", "print(flush=True); input()", PYTHON_DISABLE_REMOTE_DEBUG="1")
        child.stdout.readline()
        self.check_refused("process %d cannot be attached: Remote debugging is not enabled" % child.pid, "-p", str(child.pid))

    @unittest.skipUnless(HAS_REMOTE_EXEC or shutil.which("gdb"), "attaching takes gdb before Python 3.14")
    def test_process_that_is_no_python(self):
        child = self.sleeper("/bin/cat")
        self.check_refused("process %d " % child.pid, "-p", str(child.pid))

    @unittest.skipIf(HAS_REMOTE_EXEC, "gdb is not needed")
    def test_without_gdb(self):
        child = self.sleeper(sys.executable, "-c", "input()")
        self.check_refused("attaching takes gdb with Python %d.%d" % sys.version_info[:2], "-p", str(child.pid), PATH="/nowhere")

    def test_nobody_else_gets_to_the_socket(self):
        """The folder is closed to other users, and another process of this one is sent away."""
        code = """
import os, socket, subprocess, sys
from brixdebug import attach
with attach._private_folder(os.getpid()) as folder:
    print(oct(os.stat(folder).st_mode & 0o777), flush=True)
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(folder + "/socket")
        server.listen(2)
        server.settimeout(60)
        connect = "import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); print(s.recv(1))"
        other = subprocess.Popen([sys.executable, "-c", connect, folder + "/socket"])
        import threading
        def come():
            own.connect(folder + "/socket")
        own = socket.socket(socket.AF_UNIX)
        threading.Thread(target=lambda: (other.wait(), come())).start()
        end = attach._wait(os.getpid(), server, print)
        print("let in", attach._peer(end) == os.getpid(), other.returncode)
print(os.path.exists(folder))
"""
        ended = run_child("-c", code)
        self.assertEqual((ended.stdout, ended.stderr), ("0o700\nb''\nlet in True 0\nFalse\n", ""))


if __name__ == "__main__":
    unittest.main()
