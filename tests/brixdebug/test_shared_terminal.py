"""Processes that are debugged at one terminal: one prompt at a time, in the order of their stops."""

import contextlib
import glob
import os
import re
import signal
import textwrap
import unittest

from host_support import HAS_READLINE, check_child, needs_readline, run_child, scratch_folder
from session import Session, line_of, write_program

# Each child waits for a letter in its pipe before it comes to the breakpoint, and ends with the status N + 4.
CHILDREN = """\
    import os, select
    from brixdebug import sharing
    sharing.SECONDS = PATIENCE
    def hit(n):
        here = n
        there = here + 4                     # line
        return there
    pipes = [os.pipe() for _ in range(3)]
    answers = os.pipe()
    def go(n):
        os.write(pipes[n][1], b"x")
    pids = []
    for n in range(3):
        pid = os.fork()
        if pid == 0:
            os.read(pipes[n][0], 1)
            os._exit(hit(n))
        pids.append(pid)
    print("pids", *pids, flush=True)
    go(0)
    print("statuses", *[os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) for pid in pids])
    """
FOREVER, A_SECOND = 10000.0, 1.0


class SharedTerminalTest(unittest.TestCase):

    def start(self, text=CHILDREN, patience=FOREVER, terminal=False):
        """A session whose first child is at the prompt; the others have not come to the breakpoint."""
        self.program = write_program(scratch_folder(self), text.replace("PATIENCE", repr(patience)))
        session = Session(self, "-W", "ignore::DeprecationWarning", "-m", "brixdebug", self.program, terminal=terminal)
        session.prompt()
        session.do("break %d" % line_of(self.program, "line"))
        session.do("set follow-fork on")
        printed = session.do("continue")
        self.pids = list(map(int, re.search("pids (.*)", printed)[1].split()))
        self.addCleanup(self.kill_children)
        self.place = "%s(%d)hit()" % (self.program, line_of(self.program, "line"))
        self.assertIn("> " + self.place, printed)
        self.assertEqual(session.prompting_pid, self.pids[0])
        while len(self.rows(session)[0]) < 4:
            pass                              # a child that has just been forked is not there yet
        return session

    def kill_children(self):
        """Those that a failed test has left."""
        for pid in self.pids:
            with contextlib.suppress(OSError), open("/proc/%d/cmdline" % pid, "rb") as file:
                if os.fsencode(self.program) in file.read():
                    os.kill(pid, signal.SIGKILL)

    def rows(self, session):
        """{pid: (parent, state, program, place)} and the marked one."""
        lines = session.do("info processes").splitlines()
        self.assertEqual(lines[0].split(), ["Pid", "Parent", "State", "Program", "Place"])
        rows = {}
        for line in lines[1:]:
            mark, pid, parent, state, program, place = re.fullmatch(
                r"([> ]) (\d+) +(\d+) +(\w+(?: \w+)*) +(\S+) +(\S*)", line).groups()
            rows[int(pid)] = (int(parent), state, program, place)
            if mark == ">":
                marked = int(pid)
        return rows, marked

    def let_come(self, session, *numbers):
        """Have these children come to the breakpoint, one after the other."""
        for n in numbers:
            session.do("go(%d)" % n)
            self.wait_for_state(session, self.pids[n], "waiting")

    def wait_for_state(self, session, pid, state):
        session.do_until("info processes", "%-8d%-8d%s " % (pid, session.process.pid, state))

    def end(self, session, statuses):
        printed = session.do("continue")
        self.assertIn("The program finished", printed)
        self.assertIsNone(session.prompting_pid)
        self.assertIn("statuses %s\n" % statuses, printed, session.seen)
        self.assertEqual(session.end("quit")[1], 0)

    def test_in_the_order_of_their_stops(self):
        for terminal in False, True:
            with self.subTest(terminal=terminal):
                session = self.start(terminal=terminal)
                self.let_come(session, 2, 1)
                for n in 2, 1:
                    printed = session.do("continue")
                    self.assertIn("> " + self.place, printed)
                    self.assertEqual(session.prompting_pid, self.pids[n])
                    self.assertEqual(session.do("p n"), "%d\n" % n)
                self.end(session, "4 5 6")

    def test_info_processes(self):
        session = self.start()
        parent = session.process.pid
        self.let_come(session, 1)
        rows, marked = self.rows(session)
        self.assertEqual(marked, self.pids[0])
        self.assertEqual(rows, {
            parent: (os.getpid(), "running", "program.py", ""),
            self.pids[0]: (parent, "at the prompt", "program.py", self.place),
            self.pids[1]: (parent, "waiting", "program.py", self.place),
            self.pids[2]: (parent, "running", "program.py", "")})
        self.let_come(session, 2)
        session.do("continue")
        self.assertEqual(self.rows(session)[1], self.pids[1])
        session.do_until("info processes", "%d" % self.pids[1])
        session.do("continue")
        self.end(session, "4 5 6")

    def test_process(self):
        session = self.start()
        self.let_come(session, 1, 2)
        printed = session.do("process %d" % self.pids[2])
        self.assertIn("> " + self.place, printed)
        self.assertEqual((session.prompting_pid, session.do("p n")), (self.pids[2], "2\n"))
        rows, marked = self.rows(session)
        self.assertEqual(marked, self.pids[2])
        self.assertEqual([rows[pid][1] for pid in self.pids], ["waiting", "waiting", "at the prompt"])
        # Back to the first, which says again where it is.
        printed = session.do("process %d" % self.pids[0])
        self.assertEqual(session.prompting_pid, self.pids[0])
        self.assertEqual(printed, "> %s\n-> there = here + 4                     # line\n" % self.place)
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[1])
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[2])
        self.end(session, "4 5 6")

    def test_errors_of_process(self):
        session = self.start()
        for argument, message in {
                "": "Process id expected (see info processes)",
                "x": "Process id expected (see info processes)",
                "0": "There is no process 0 here (see info processes)",
                "%d" % self.pids[0]: "Process %d is the one at the prompt" % self.pids[0],
                "%d" % self.pids[1]: "Process %d is running: it gets the prompt when it stops" % self.pids[1]}.items():
            self.assertEqual(session.do("process " + argument), "*** %s\n" % message)
        self.assertEqual(session.do("process = 5"), "")
        self.assertEqual(session.do("process"), "5\n")
        self.let_come(session, 1, 2)
        session.do("continue"), session.do("continue")
        self.end(session, "4 5 6")

    def test_alone(self):
        session = Session(self, "-m", "brixdebug", write_program(scratch_folder(self), "here = 1\n"))
        session.prompt()
        rows, marked = self.rows(session)
        self.assertEqual((list(rows), marked), ([session.process.pid], session.process.pid))
        self.assertEqual(rows[marked][1:3], ("at the prompt", "program.py"))
        self.assertIn("the one at the prompt", session.do("process %d" % marked))
        session.end("quit")

    def test_process_that_is_killed_at_its_prompt(self):
        """The next one has the terminal, which shows what is typed."""
        for terminal in False, True:
            with self.subTest(terminal=terminal):
                session = self.start(terminal=terminal)
                self.let_come(session, 1, 2)
                for n in 0, 1:
                    session.wait_until_asleep(session.prompting_pid)
                    os.kill(self.pids[n], signal.SIGKILL)
                    session.prompt()
                    self.assertEqual(session.prompting_pid, self.pids[n + 1])
                    session.send("p n + 100")
                    self.assertEqual("p n + 100\n%d\n" % (n + 101) if terminal else "%d\n" % (n + 101), session.prompt())
                self.end(session, "-9 -9 6")

    def test_process_that_is_killed_while_it_waits(self):
        session = self.start()
        self.let_come(session, 1, 2)
        os.kill(self.pids[1], signal.SIGKILL)
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[2])
        self.assertEqual(set(self.rows(session)[0]), {session.process.pid, self.pids[2]})
        self.end(session, "4 -9 6")

    def test_step_keeps_the_terminal(self):
        session = self.start()
        self.let_come(session, 1, 2)
        for command, answer in ("next", "return there"), ("step", "--Return--"):
            self.assertIn(answer, session.do(command))
            self.assertEqual(session.prompting_pid, self.pids[0])
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[1])
        session.do("continue")
        self.end(session, "4 5 6")

    def test_step_that_takes_long_does_not(self):
        session = self.start(CHILDREN.replace("here + 4 ", "here + four(n) ").replace("def hit", """\
def four(n):
        return 4 if n else len(os.read(pipes[0][0], 4))
    def hit"""), patience=A_SECOND)
        self.let_come(session, 1)
        session.do("next")
        self.assertEqual(session.prompting_pid, self.pids[1])
        self.assertEqual(self.rows(session)[0][self.pids[0]][1], "running")
        self.let_come(session, 2)
        session.do("os.write(pipes[0][1], b'wxyz')")
        self.wait_for_state(session, self.pids[0], "waiting")
        for n in 2, 0:
            session.do("continue")
            self.assertEqual(session.prompting_pid, self.pids[n])
        self.assertEqual(session.do("p there"), "4\n")
        self.end(session, "4 5 6")

    def test_expression_that_takes_long(self):
        """It may wait for what another process does at its own stop."""
        session = self.start(patience=A_SECOND)
        self.let_come(session, 1, 2)
        session.do("os.read(answers[0], 1)")
        self.assertEqual(session.prompting_pid, self.pids[1])
        self.assertEqual(self.rows(session)[0][self.pids[0]][1], "evaluating")
        session.do("os.write(answers[1], b'y')")
        self.wait_for_state(session, self.pids[0], "waiting")
        # It was the first to stop.
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[0])
        self.assertIn("b'y'\n", session.seen)
        session.do("continue")
        self.assertEqual(session.prompting_pid, self.pids[2])
        self.end(session, "4 5 6")

    def test_interrupt_is_for_the_process_at_the_prompt(self):
        """Ctrl-C reaches all processes of the terminal."""
        session = self.start(terminal=True)
        self.let_come(session, 1)
        if HAS_READLINE:                         # else the line that is dropped is the terminal's, which keeps it here
            os.write(session._in, b"p 12345")
            session.wait_for("p 12345")
        session.interrupt_at_prompt()
        session.prompt()
        self.assertEqual(session.prompting_pid, self.pids[0])
        states = {pid: row[1] for pid, row in self.rows(session)[0].items()}
        self.assertEqual(states, {session.process.pid: "running", self.pids[0]: "at the prompt",
                                  self.pids[1]: "waiting", self.pids[2]: "running"})
        self.let_come(session, 2)
        for n in 1, 2:
            session.do("continue")
            self.assertEqual(session.prompting_pid, self.pids[n])
        self.assertNotIn("Program interrupted", session.seen)
        self.end(session, "4 5 6")

    def test_interrupt_of_programs_that_run(self):
        """All of them stop, and come to the prompt one after the other."""
        session = self.start(terminal=True)
        session.send("continue")
        while os.path.exists("/proc/%d" % self.pids[0]):
            pass                              # its parent has to see that it has ended
        session.interrupt_in_c_code()
        session.prompt()
        stopped = {session.prompting_pid}
        states = "at the prompt", "waiting", "waiting"
        while sorted(row[1] for row in self.rows(session)[0].values()) != list(states):
            pass
        for pid in session.process.pid, *self.pids[1:]:
            if pid != (session.prompting_pid or session.process.pid):
                session.do("process %d" % pid)
                stopped.add(session.prompting_pid)
        self.assertEqual(stopped, {None, *self.pids[1:]})
        for pid in self.pids[1:]:
            os.kill(pid, signal.SIGKILL)
        if session.prompting_pid is not None:
            session.prompt()
        self.end(session, "4 -9 -9")

    def test_other_threads_of_a_process_that_waits(self):
        """A worker thread comes to the breakpoint; its process waits for the terminal, and Ctrl-C there changes nothing."""
        session = self.start(CHILDREN.replace(
            "os._exit(hit(n))", "import threading; seen = []; t = threading.Thread(target=lambda: seen.append(hit(n))); "
            "t.start(); t.join(); os._exit(seen[0])"), terminal=True)
        self.let_come(session, 1)
        session.interrupt_sleeping(self.pids[1])
        self.let_come(session, 2)
        session.wait_until_asleep(self.pids[0])
        os.kill(self.pids[0], signal.SIGINT)  # at its prompt, which may have ended when its main thread gets to run
        for n in 1, 2:
            session.do("continue")
            self.assertEqual((session.prompting_pid, session.do("p n")), (self.pids[n], "%d\n" % n))
        self.end(session, "4 5 6")

    def test_interrupt_just_before_an_expression_and_just_after_it(self):
        """By then or never: what is done then for the other processes is done whole."""
        session = self.start(CHILDREN.replace("pipes = [", """\
from brixdebug.monitor import monitor
    evaluation = monitor.suspension.evaluation
    def interrupt_in(name):
        real = getattr(evaluation, name)
        def interrupted():
            setattr(evaluation, name, real)
            evaluation.interrupt()
            real()
        setattr(evaluation, name, interrupted)
    pipes = [""", 1))
        session.do("interrupt_in('on_begin')")
        self.assertEqual(session.do("p 5 * 5"), "--KeyboardInterrupt--\n")
        self.assertEqual(session.do("interrupt_in('on_end')"), "")
        self.assertEqual(session.do("p 5 * 5"), "25\n")
        self.assertEqual(set(self.rows(session)[0]), {session.process.pid, *self.pids})
        self.let_come(session, 1, 2)
        session.do("continue"), session.do("continue")
        self.end(session, "4 5 6")

    def test_signal_handler_that_raises_in_a_process_that_waits(self):
        """The stop is not lost for it, nor the exception, which is raised when the program goes on."""
        session = self.start(CHILDREN.replace("pipes = [", """\
import signal
    def handler(*signal_and_frame):
        os.write(answers[1], b"!")
        raise TimeoutError
    def guarded(n):
        try:
            return hit(n)
        except TimeoutError:
            return 77
    signal.signal(signal.SIGALRM, handler)
    pipes = [""", 1).replace("_exit(hit", "_exit(guarded"))
        self.let_come(session, 1, 2)
        for _ in range(5):
            os.kill(self.pids[1], signal.SIGALRM)
            self.assertEqual(session.do("os.read(answers[0], 1)"), "b'!'\n")
        for n in 1, 2:
            session.do("continue")
            self.assertEqual((session.prompting_pid, session.do("p n")), (self.pids[n], "%d\n" % n))
        self.end(session, "4 77 6")

    def test_child_of_a_child(self):
        program = write_program(scratch_folder(self), """\
            import os
            def hit():
                return 1                     # line
            child = os.fork()
            if child == 0:
                hit()
                grandchild = os.fork()
                hit()
                if grandchild:
                    os.waitpid(grandchild, 0)
                os._exit(0)
            os.waitpid(child, 0)
            """)
        session = Session(self, "-W", "ignore::DeprecationWarning", "-m", "brixdebug", program)
        session.prompt()
        session.do("break %d" % line_of(program, "line"))
        session.do("set follow-fork on")
        names = []
        for _ in range(3):
            session.do("continue")
            names.append(session.prompting_pid)
            self.assertEqual(session.do("p os.getpid()"), "%d\n" % names[-1])
        self.assertEqual(len(set(names)), 2, "a child twice, and its child: %s" % names)
        self.assertIn("The program finished", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)

    @needs_readline
    def test_completion_of_a_process(self):
        program = write_program(scratch_folder(self), """\
            import os
            pid = os.fork()
            if pid == 0:
                child = 1                    # line
                os._exit(0)
            os.waitpid(pid, 0)
            """)
        session = Session(self, "-W", "ignore::DeprecationWarning", "-m", "brixdebug", program, terminal=True,
                          TERM="xterm", PYTHON_BASIC_REPL="1", NO_COLOR="1")
        session.prompt()
        session.do("break %d" % line_of(program, "line"))
        session.do("set follow-fork on")
        session.do("continue")
        session.write(b"process \t\n")
        self.assertIn("Process %d is running: it gets the prompt when it stops" % session.process.pid, session.prompt())
        session.do("continue")
        self.assertEqual(session.end("quit")[1], 0)

    def test_program_without_a_name(self):
        session = self.start(CHILDREN.replace("os._exit(hit", "import sys; sys.argv[:1] = [[None], [1]][n % 2]; os._exit(hit"))
        self.let_come(session, 1, 2)
        for n in 1, 2:
            session.do("continue")
            self.assertEqual((session.prompting_pid, session.do("p n")), (self.pids[n], "%d\n" % n))
        self.end(session, "4 5 6")

    def test_process_that_can_open_no_more_files(self):
        """It goes on running, and the others have their prompts."""
        session = self.start(CHILDREN.replace("os._exit(hit(n))", "status = hit(n); os.read(pipes[n][0], 1); os._exit(status)"))
        self.let_come(session, 1, 2)
        session.do("import resource")
        session.do("resource.setrlimit(resource.RLIMIT_NOFILE, (0, 0))")
        for n in 1, 2:
            session.do("continue")
            self.assertEqual((session.prompting_pid, session.do("p n")), (self.pids[n], "%d\n" % n))
        session.do("go(0), go(1), go(2)")
        self.end(session, "4 5 6")

    def test_nothing_is_left_behind(self):
        session = self.start(terminal=True)
        def files():
            return [name for folder in ("/dev/shm", "/tmp")
                    for name in glob.glob("%s/brixdebug-%d/%d-*" % (folder, os.geteuid(), session.process.pid))]
        self.assertEqual(len(files()), 1)
        self.let_come(session, 1, 2)
        session.do("continue"), session.do("continue")
        self.end(session, "4 5 6")
        self.assertEqual(files(), [])


class ProgramThatCallsTest(unittest.TestCase):
    """Children of a program that calls the debugger itself: nobody is the parent of them all."""

    PROGRAM = """\
        import brixdebug, os
        pipes = [os.pipe() for _ in range(2)]
        pids = []
        for n in range(2):
            pid = os.fork()
            if pid == 0:
                os.read(pipes[n][0], 1)
                brixdebug.set_trace()
                here = n
                os._exit(n + 4)
            pids.append(pid)
        print("pids", *pids, flush=True)
        os.write(pipes[0][1], b"x")
        print("statuses", *[os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) for pid in pids])
        """

    def test_prompts_in_order(self):
        program = write_program(scratch_folder(self), self.PROGRAM)
        session = Session(self, program)
        pids = list(map(int, re.search("pids (.*)", session.prompt())[1].split()))
        self.assertIsNone(session.prompting_pid)      # there is no other
        session.do("os.write(pipes[1][1], b'x')")
        session.do_until("info processes", "waiting")
        self.assertEqual(session.prompting_pid, None)
        session.do("continue")
        self.assertEqual((session.prompting_pid, session.do("p n")), (pids[1], "1\n"))
        printed, status = session.end("continue")
        self.assertEqual((printed, status), ("statuses 4 5\n", 0))

    def test_child_of_a_session(self):
        """The session of the parent is not the child's, which has one of its own."""
        program = write_program(scratch_folder(self), """\
            import brixdebug, os
            brixdebug.set_trace()
            here = 1
            pid = os.fork()
            if pid == 0:
                brixdebug.set_trace()
                child = 1
                os._exit(child)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
            end = 1                              # end
            """)
        session = Session(self, "-W", "ignore::DeprecationWarning", program)
        session.prompt()
        end = line_of(program, "end")
        session.do("break %d" % end)
        printed = session.do("continue")
        self.assertEqual(session.do("p pid"), "0\n", printed)
        session.do("!answer = 5")
        self.assertEqual(session.do("p answer"), "5\n")
        self.assertIn("program.py(%d)" % end, session.do("continue"))
        self.assertEqual(session.end("continue"), ("", 0))
        self.assertIn("status 1\n", session.seen)


class RosterTest(unittest.TestCase):
    """The file by which the processes find each other, in folders of the test's own."""

    PRELUDE = """\
        import os
        from brixdebug import roster, sharing
        roster._FOLDERS = %r
        paths = [os.path.join(each, "brixdebug-%%d" %% os.geteuid()) for each in roster._FOLDERS]
        sharing = sharing.sharing
        """

    def write(self, text):
        folders = [str(scratch_folder(self)) for _ in range(2)]
        return write_program(scratch_folder(self), textwrap.dedent(self.PRELUDE) % folders + textwrap.dedent(text))

    def lines(self, text):
        return check_child(self, self.write(text), input="").splitlines()

    def test_umask(self):
        """The folder can be entered, now and by every later process."""
        self.assertEqual(self.lines("""\
            os.umask(0o177)
            sharing.join()
            print(oct(os.stat(paths[0]).st_mode & 0o777), len(os.listdir(paths[0])))
            """), ["0o700 1"])

    def test_folder_that_is_not_ours(self):
        """Nothing is written there, and all look in the same other place."""
        self.assertEqual(self.lines("""\
            os.mkdir(paths[0])
            os.chmod(paths[0], 0o777)
            sharing.join()
            sharing.expect_others()
            print(os.listdir(paths[0]), len(os.listdir(paths[1])), os.path.exists(sharing._expected))
            """), ["[] 1 True"])

    def test_folder_that_somebody_puts_in_the_place_of_ours(self):
        for kind in "os.mkdir(paths[0]); os.chmod(paths[0], 0o777)", "os.symlink(paths[0] + '-none', paths[0])", \
                "os.mkdir(paths[1]); os.symlink(paths[1], paths[0])":
            with self.subTest(kind):
                self.assertEqual(self.lines("""\
                    sharing.join()
                    for name in os.listdir(paths[0]):
                        os.unlink(os.path.join(paths[0], name))
                    os.rmdir(paths[0])
                    %s
                    print(sharing.rows(), sharing.is_on)
                    print([os.listdir(path) for path in paths if os.path.isdir(path)])
                    """ % kind)[0], "[] False")

    def test_file_of_another_container(self):
        """Its process ids are not ours, so nobody here can say that none of its processes lives."""
        self.assertEqual(self.lines("""\
            os.mkdir(paths[0], 0o700)
            end = "-%d" % os.stat("/proc/self/ns/pid").st_ino
            for name in "1-terminal-34816-12", "1-terminal-34816" + end:
                open(os.path.join(paths[0], name), "w").close()
            sharing.join()
            print(*sorted(name for name in os.listdir(paths[0]) if "terminal" in name))
            """), ["1-terminal-34816-12"])

    def test_process_id_that_is_used_again(self):
        """The row of the process that was killed at its prompt is not the new one's."""
        self.assertEqual(self.lines("""\
            sharing.join()
            def edit(rows):
                rows[os.getpid()].began -= 1
                rows[os.getpid()].state = "at the prompt"
            sharing._change(edit)
            sharing.begin_prompt("here")
            print(*[(row.state, row.is_alive()) for row in sharing.rows()])
            """), ["('at the prompt', True)"])

    def test_change_inside_of_a_change(self):
        """By the handler of a signal: both hold."""
        self.assertEqual(self.lines("""\
            import signal
            sharing.join()
            def inner(rows):
                rows[os.getpid()].name = "inner"
                rows[1] = roster.Row(1, roster.begin_of(1), 0, "running")
            signal.signal(signal.SIGUSR1, lambda *args: sharing._change(inner))
            def outer(rows):
                signal.raise_signal(signal.SIGUSR1)
                rows[os.getpid()].place = "outer"
            sharing._change(outer)
            for row in sharing.rows():
                print(row.pid == os.getpid(), row.name, row.place)
            """), ["False  ", "True inner outer"])

    def test_change_inside_of_one_that_begins_or_ends(self):
        for name in "open", "fstat", "pread", "ftruncate", "close":
            with self.subTest(name):
                self.assertEqual(self.lines("""\
                    import signal
                    sharing.join()
                    def inner(rows):
                        rows[1] = roster.Row(1, roster.begin_of(1), 0, "running")
                    signal.signal(signal.SIGUSR1, lambda *args: sharing._change(inner))
                    real = os.NAME
                    def with_signal(*args):
                        os.NAME = real
                        result = real(*args)
                        signal.raise_signal(signal.SIGUSR1)
                        return result
                    def outer(rows):
                        rows[os.getpid()].place = "outer"
                    os.NAME = with_signal
                    sharing._change(outer)
                    print([row.place for row in sharing.rows()])
                    """.replace("NAME", name)), ["['', 'outer']"])

    FORKED = """\
        import fcntl, glob, threading
        begun, parent = threading.Event(), os.getpid()
        def wait():
            if os.getpid() == parent:
                begun.set()
                threading.Event().wait()
        CHANGE
        threading.Thread(target=change, daemon=True).start()
        begun.wait()
        if os.fork() == 0:
            while os.getppid() == parent:
                os.sched_yield()
            with open(*glob.glob(paths[0] + "/*")) as file:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            sharing.join()
            print(sharing.is_on, flush=True)
            os._exit(0)
        os.kill(parent, 9)
        """

    def test_fork_in_the_middle_of_a_change_of_another_thread(self):
        """The parent is killed then: its lock is not the child's."""
        for change in """\
                sharing.join()
                change = lambda: sharing._change(lambda rows: wait())
                """, """\
                real, change = roster._read, sharing.join
                roster._read = lambda descriptor: (wait(), real(descriptor))[1]
                """:
            with self.subTest(change):
                text = textwrap.dedent(self.FORKED).replace("CHANGE\n", textwrap.dedent(change))
                child = run_child("-W", "ignore::DeprecationWarning", self.write(text), input="")
                self.assertEqual((child.stdout, child.stderr), ("True\n", ""))

    def test_fork_by_a_handler_in_the_middle_of_a_change(self):
        """The change is the parent's, and the child's own where it is followed."""
        for is_followed in False, True:
            with self.subTest(is_followed=is_followed):
                self.assertEqual(self.lines("""\
                    import signal, warnings
                    warnings.simplefilter("ignore")
                    sharing.join()
                    parent, child = os.getpid(), None
                    def fork(*args):
                        global child
                        child = os.fork()
                        if child == 0 and %s:
                            sharing.join()
                    signal.signal(signal.SIGUSR1, fork)
                    def outer(rows):
                        if child is None:
                            signal.raise_signal(signal.SIGUSR1)
                        rows[os.getpid()].place = "edited"
                    sharing._change(outer)
                    if child == 0:
                        print("child", sharing.is_on, flush=True)
                        os.read(0, 1)
                        os._exit(0)
                    os.waitpid(child, 0)
                    print([(row.pid == parent, row.place) for row in sharing.rows()])
                    """ % is_followed), ["child %s" % is_followed, "[(True, 'edited')]"])


class ReloaderTest(unittest.TestCase):
    """A program that starts itself anew with the whole command line: a session in the other."""

    PROGRAM = """\
        import os, subprocess, sys
        if "IN_CHILD" not in os.environ:
            os.environ["IN_CHILD"] = "1"
            arguments = [sys.executable, *sys.orig_argv[1:]]
            print("status", subprocess.call(arguments, close_fds=False))
        else:
            read, write = os.pipe()
            print("serving", os.getpid(), flush=True)
            os.read(read, 1)                     # server
        """

    CHANGING = """\
        import os, subprocess, sys
        runs = int(os.environ.get("RUNS", 0))
        if not runs:
            status = 3
            while status == 3:
                runs += 1
                os.environ["RUNS"] = str(runs)
                status = subprocess.call([sys.executable, *sys.orig_argv[1:]], close_fds=False)
            sys.exit(status)
        place = "server"                         # served
        if runs < 4:
            sys.exit(3 if runs < 3 else END)
        """

    def test_end_of_the_server(self):
        """It ends as it does without the debugger: with the status that has the reloader start the next."""
        for end, status in ("7", "7"), ("None", "0"):
            with self.subTest(end):
                program = write_program(scratch_folder(self), self.CHANGING.replace("END", end))
                line = line_of(program, "served")
                session = Session(self, "-m", "brixdebug", "-c", "break %d" % line, "-c", "continue", program, terminal=True)
                children = set()
                for _ in range(3):
                    self.assertIn("> %s(%d)<module>()" % (program, line), session.prompt())
                    children.add(session.prompting_pid)
                    session.send("continue")
                self.assertIn("Exit status: %s\n" % status, session.prompt())
                self.assertIsNone(session.prompting_pid)
                self.assertEqual(len(children - {None}), 3)
                self.assertEqual(session.seen.count("Exit status"), 1)
                self.assertEqual(session.end("quit")[1], 0)

    def start(self):
        program = write_program(scratch_folder(self), self.PROGRAM)
        session = Session(self, "-m", "brixdebug", "-c", "continue", program, terminal=True)
        session.wait_for("serving ")
        return session, int(session.wait_for("\n"))

    def interrupt(self, session, child):
        session.wait_until_asleep()
        session.wait_until_asleep(child)
        session.interrupt()

    def test_interrupt(self):
        """Both stop, and have the prompt one after the other."""
        session, child = self.start()
        self.interrupt(session, child)
        session.prompt()
        self.assertIn(session.prompting_pid, (None, child))
        first = session.prompting_pid
        session.do_until("info processes", "waiting")
        session.do("process %d" % (session.process.pid if first == child else child))
        self.assertEqual({first, session.prompting_pid}, {None, child})
        if session.prompting_pid is None:
            session.do("process %d" % child)
        self.assertIn("os.read(read, 1)", session.do("list"))
        os.kill(child, signal.SIGKILL)
        session.prompt()
        self.assertIn("status -9\n", session.do("continue"))
        self.assertEqual(session.end("quit")[1], 0)

    def test_quit_ends_the_server(self):
        session, child = self.start()
        self.interrupt(session, child)
        session.prompt()
        session.do_until("info processes", "waiting")
        if session.prompting_pid == child:
            session.do("process %d" % session.process.pid)
        self.assertEqual(session.end("quit")[1], 0)
        with open("/proc/%d/stat" % child) if os.path.exists("/proc/%d" % child) else open(os.devnull) as file:
            self.assertIn(file.read().rpartition(")")[2].split()[:1], ([], ["Z"]))


if __name__ == "__main__":
    unittest.main()
