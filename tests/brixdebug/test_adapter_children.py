"""Children of a debugged program: each has a session of its own, and breakpoints hold in it from its first line."""

import json
import os
import signal
import subprocess
import sys
import unittest

from dap_client import AdapterTestCase
from host_support import check_child, child_environment
from session import line_of


class ChildrenTestCase(AdapterTestCase):

    def editor(self, **options):
        """A client that starts a session for each child that it is asked to; `children` are their configurations."""
        client = self.client(**options)
        client.children = []

        def start(arguments):
            self.assertEqual(arguments["request"], "attach")
            client.children.append(arguments["configuration"])

        client.on_request["startDebugging"] = start
        return client

    def launch(self, program, marks=(), **arguments):
        self.breakpoints = {program: [line_of(program, mark) for mark in marks]}
        client = self.editor()
        client.launch(program, self.breakpoints, {"supportsStartDebuggingRequest": True}, **arguments)
        return client

    def child(self, parent, number=0, **initialize):
        """The session of the child that the client was asked for as the `number`th."""
        while len(parent.children) <= number:
            self.assertTrue(parent.take(), "the adapter ended")
        client = self.editor()
        client.configuration = parent.children[number]
        client.begin("attach", client.configuration, self.breakpoints, supportsStartDebuggingRequest=True, **initialize)
        client.process_id = client.wait_for("process")["systemProcessId"]
        return client

    def leave(self, client):
        client.go_on()
        client.wait_for("terminated")
        client.ask("disconnect")
        client.wait_for_end()


class ForkTest(ChildrenTestCase):

    def test_forked_child_has_a_session(self):
        program = self.program("""\
            import os
            pid = os.fork()
            if pid == 0:
                own = os.getpid()           # first
                os._exit(3)
            status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
            print("status", status)         # parent
        """)
        client = self.launch(program, ["first", "parent"])
        child = self.child(client)
        self.assertEqual(child.configuration["name"], "program.py, process %d" % child.process_id)
        self.assertEqual((child.configuration["type"], child.configuration["request"]), ("brixdebug", "attach"))
        stop = child.wait_for_stop("breakpoint")
        self.assertEqual(stop["frame"]["line"], line_of(program, "first"))
        self.leave(child)
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual(child.process_id, int(client.evaluate("pid", stop["frame"]["id"])))
        client.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status 3\n")

    def test_exception_of_a_signal_handler_while_the_child_waits(self):
        program = self.program("""\
            import os, signal, sys
            def handle(*_):
                raise ValueError("on purpose")
            signal.signal(signal.SIGUSR1, handle)
            try:
                pid = os.fork()
                if pid == 0:
                    os._exit(0)
            except ValueError as error:
                names = []
                traceback = error.__traceback__
                while traceback is not None:
                    names.append(traceback.tb_frame.f_code.co_name)
                    traceback = traceback.tb_next
                print(error, names[0], names[-1], flush=True)
                os._exit(3)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
        """)
        client = self.launch(program)
        while not client.children:
            client.take()
        os.kill(int(client.children[0]["name"].rpartition(" ")[2]), signal.SIGUSR1)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "on purpose <module> handle\nstatus 3\n")

    def test_signal_that_does_not_wake_the_child_that_waits(self):
        """It came just before the wait began, or another thread took it: the handler is called soon all the same."""
        printed = check_child(self, "-c", """if True:
            import _thread, signal, threading, types
            from brixdebug.dap.children import Family
            configured = threading.Event()
            family = Family(types.SimpleNamespace(configured=configured, session=None, has_visitors=False))
            def handle(*_):
                raise ValueError("on purpose")
            signal.signal(signal.SIGUSR1, handle)
            threading.Timer(0.2, _thread.interrupt_main, [signal.SIGUSR1]).start()
            late = threading.Timer(20, configured.set)
            late.start()
            try:
                family._wait()
            except ValueError as error:
                print(error, configured.is_set())
            late.cancel()
        """)
        self.assertEqual(printed, "on purpose False\n")

    def test_threads_of_the_debugger_are_no_reason_for_a_warning(self):
        program = self.program("""\
            import os, sys, threading
            def fork():
                pid = os.fork()
                if pid == 0:
                    os._exit(0)
                os.wait()
            fork()
            print("then", file=sys.stderr, flush=True)
            wait = threading.Event()
            threading.Thread(target=wait.wait).start()
            fork()
            wait.set()
        """)
        client = self.launch(program, subProcess=False, pythonArgs=["-W", "always"])
        self.assertEqual(client.finish(), 0)
        before, _, after = client.output["stderr"].partition("then\n")
        self.assertEqual(before, "")
        self.assertRegex(after, r"DeprecationWarning: This process \(pid=\d+\) is multi-threaded")


class NewProcessTest(ChildrenTestCase):

    def test_subprocess_has_a_session_and_does_not_notice(self):
        worker = self.program("""\
            import os, sys
            names = sorted(name for name in os.environ if "BRIX" in name)
            here = 1                        # first
            print(sys.argv, names, os.environ.get("PYTHONPATH"), "sitecustomize" in sys.modules, os.environ["GIVEN"])
            print([each for each in sys.path if "brixdebug" in each.split(os.sep) or "host" in each.split(os.sep)])
            sys.exit(5)
        """, "worker.py")
        program = self.program("""\
            import os, subprocess, sys
            before = dict(os.environ)
            ended = subprocess.run([sys.executable, "worker.py", "one", "two"], env={**before, "GIVEN": "yes"},
                                   stdout=subprocess.PIPE, text=True)
            print(ended.stdout, ended.returncode, dict(os.environ) == before)
        """)
        client = self.launch(program, cwd=str(self.folder), env={"PYTHONPATH": "/nowhere"})
        self.breakpoints = {worker: [line_of(worker, "first")]}
        child = self.child(client)
        self.assertEqual(child.configuration["name"], "worker.py, process %d" % child.process_id)
        self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["line"], line_of(worker, "first"))
        self.leave(child)
        self.assertEqual(client.finish(), 0)
        # some systems' interpreters have one of their own
        unwatched = subprocess.run([sys.executable, "-c", "import sys; print('sitecustomize' in sys.modules)"],
                                   stdout=subprocess.PIPE, text=True, check=True, env=child_environment()).stdout.strip()
        self.assertEqual(client.output["stdout"],
                         "['worker.py', 'one', 'two'] [] /nowhere %s yes\n[]\n 5 True\n" % unwatched)

    def launch_worker(self, way, *before):
        """A program that starts a worker in a way: the client of the program, and the one of the worker, stopped."""
        worker = self.program("""\
            import sys
            here = 1                        # first
            print("worker", sys.argv[1:], flush=True)
            sys.exit(4)
        """, "worker.py")
        worker.write_text("#!%s\n%s" % (sys.executable, worker.read_text()))
        worker.chmod(0o755)
        program = self.program("""\
            import os, subprocess, sys
            def wait(pid):
                return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
            def replaced(function, *arguments):
                pid = os.fork()
                if pid == 0:
                    function(*arguments)
                return wait(pid)
            python, call = sys.executable, subprocess.call
            status = WAY
            print("status", status)
        """.replace("WAY", way))
        client = self.launch(program, cwd=str(self.folder))
        self.breakpoints = {worker: [line_of(worker, "first")]}
        for number, name in enumerate(before):
            child = self.child(client, number)
            self.assertEqual(child.configuration["name"], "%s, process %d" % (name, child.process_id))
            child.wait_for("terminated")
            child.ask("disconnect")
        child = self.child(client, len(before))
        self.assertEqual(child.configuration["name"], "worker.py, process %d" % child.process_id)
        self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["line"], line_of(worker, "first"))
        return client, child

    def test_every_way_to_start_a_program(self):
        for way, *before in (("call([python, '-X', 'utf8', 'worker.py', 'x'])",),
                             ("call(['./worker.py', 'x'])",),
                             ("call([python, 'worker.py', 'x'], preexec_fn=os.getpid)",),
                             ("call([python, 'worker.py', 'x'], close_fds=False)",),
                             ("call('exec %s worker.py x' % python, shell=True)",),
                             ("wait(os.posix_spawn(python, [python, 'worker.py', 'x'], os.environ))",),
                             ("os.spawnl(os.P_WAIT, python, python, 'worker.py', 'x')",),
                             ("replaced(os.execv, python, [python, 'worker.py', 'x'])", "program.py"),
                             ("replaced(os.execlp, python, python, 'worker.py', 'x')", "program.py")):
            with self.subTest(way):
                client, child = self.launch_worker(way, *before)
                self.leave(child)
                self.assertEqual(client.finish(), 0)
                self.assertEqual(client.output["stdout"], "worker ['x']\nstatus 4\n")

    def test_other_programs_get_the_environment_as_it_is(self):
        program = self.program("""\
            import os, subprocess
            text = subprocess.run(["env", "-0"], stdout=subprocess.PIPE).stdout
            print(dict(each.split(b"=", 1) for each in text.split(b"\\0") if each) == dict(os.environb))
        """)
        client = self.launch(program)
        self.assertEqual(client.finish(), 0)
        self.assertEqual((client.output["stdout"], client.children), ("True\n", []))

    def test_sitecustomize_of_the_program(self):
        self.program("import sys; sys.customized = __name__, __file__", "sitecustomize.py")
        worker = self.program("import sys; print(sys.customized, sys.modules['sitecustomize'].__file__)", "worker.py")
        program = self.program("import subprocess, sys; subprocess.call([sys.executable, %r])" % str(worker))
        client = self.launch(program, env={"PYTHONPATH": str(self.folder)})
        child = self.child(client)
        child.wait_for("terminated")
        self.assertEqual(client.finish(), 0)
        path = str(self.folder / "sitecustomize.py")
        self.assertEqual(client.output["stdout"], "('sitecustomize', %r) %s\n" % (path, path))

    def test_isolated_interpreter_runs_alone(self):
        worker = self.program("import os; print([name for name in os.environ if 'BRIX' in name])", "worker.py")
        program = self.program("import subprocess, sys; subprocess.call([sys.executable, '-uI', %r])" % str(worker))
        client = self.launch(program)
        self.assertEqual(client.finish(), 0)
        self.assertEqual((client.output["stdout"], client.children), ("[]\n", []))

    def test_uncaught_exception_and_breakpoint_function_in_a_new_process(self):
        worker = self.program("""\
            breakpoint()
            here = 1                        # after
            raise ValueError("on purpose")  # raise
        """, "worker.py")
        program = self.program("import subprocess, sys; print(subprocess.call([sys.executable, %r]))" % str(worker))
        client = self.launch(program)
        self.breakpoints = {}
        child = self.child(client)
        self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["line"], line_of(worker, "after"))
        child.ask("setExceptionBreakpoints", filters=["uncaught"])
        child.go_on()
        self.assertEqual(child.wait_for_stop("exception")["frame"]["line"], line_of(worker, "raise"))
        self.leave(child)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "1\n")
        plain = subprocess.run([sys.executable, worker], env={**os.environ, "PYTHONBREAKPOINT": "0"}, capture_output=True,
                               text=True)
        self.assertEqual(client.output["stderr"], plain.stderr)


class MultiprocessingTest(ChildrenTestCase):

    def check(self, method, before, name):
        """`before`: names of processes in which there is nothing to stop at; `name`: that of the workers."""
        program = self.program("""\
            import multiprocessing, os, sys
            def work(number):
                sys.exit(number)                # work
            if __name__ == "__main__":
                context = multiprocessing.get_context(sys.argv[1])
                processes = [context.Process(target=work, args=(number,)) for number in range(2)]
                for each in processes:
                    each.start()
                for each in processes:
                    each.join()
                print([each.exitcode for each in processes])
        """)
        client = self.launch(program, ["work"], args=[method])
        first = [self.child(client, number) for number in range(len(before))]
        for number in range(len(first), len(first) + 2):
            child = self.child(client, number)
            self.assertEqual(child.configuration["name"], "%s, process %d" % (name, child.process_id))
            self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["name"], "work")
            self.leave(child)
        self.assertEqual([child.configuration["name"].partition(",")[0] for child in first], before)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "[0, 1]\n")
        self.assertEqual(client.output.get("stderr", ""), "")

    def test_fork(self):
        self.check("fork", [], "program.py")

    def test_spawn(self):
        self.check("spawn", [], "multiprocessing")

    def test_forkserver(self):
        self.check("forkserver", ["multiprocessing"], "multiprocessing")

    def test_executor(self):
        program = self.program("""\
            import concurrent.futures, multiprocessing, sys
            def work(number):
                return number + 1               # work
            if __name__ == "__main__":
                context = multiprocessing.get_context("spawn")
                with concurrent.futures.ProcessPoolExecutor(1, context) as executor:
                    print(list(executor.map(work, [1, 2])))
        """)
        client = self.launch(program, ["work"])
        child = self.child(client)
        for _ in range(2):
            self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["name"], "work")
            child.go_on()
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "[2, 3]\n")


class WayTest(ChildrenTestCase):
    """However the parent came to its client."""

    TEXT = """\
        import os
        pid = os.fork()
        if pid == 0:
            here = 1                            # child
            os._exit(3)
        print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
    """

    def test_parent_in_a_terminal(self):
        program = self.program(self.TEXT)
        client = self.editor()

        def run(arguments):
            self.terminal = subprocess.Popen(arguments["args"], cwd=arguments["cwd"], env={**os.environ, **arguments["env"]},
                                             stdout=subprocess.PIPE, text=True)
            self.addCleanup(self.terminal.stdout.close)
            return {"processId": self.terminal.pid}

        client.on_request["runInTerminal"] = run
        self.breakpoints = {program: [line_of(program, "child")]}
        client.launch(program, self.breakpoints, console="integratedTerminal",
                      initialize={"supportsRunInTerminalRequest": True, "supportsStartDebuggingRequest": True})
        child = self.child(client)
        child.wait_for_stop("breakpoint")
        self.leave(child)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(self.terminal.stdout.read(), "status 3\n")
        self.assertEqual(self.terminal.wait(60), 0)

    def test_parent_that_listens(self):
        program = self.program(self.TEXT)
        served = subprocess.Popen([sys.executable, "-m", "brixdebug", "--listen", "0", "--wait-for-client", str(program)],
                                  env=child_environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        for end in (served.stdout.close, served.stderr.close, served.wait, served.kill):
            self.addCleanup(end)
        port = int(served.stderr.readline().rpartition(":")[2])
        client = self.editor()
        self.breakpoints = {program: [line_of(program, "child")]}
        client.begin("attach", {"connect": {"port": port}}, self.breakpoints, supportsStartDebuggingRequest=True)
        child = self.child(client)
        child.wait_for_stop("breakpoint")
        child.process.kill()                 # the child was not launched for it, and goes on
        client.wait_for("terminated")
        self.assertEqual(served.stdout.read(), "status 3\n")
        self.assertEqual(served.wait(60), 0)


class ClientTest(ChildrenTestCase):
    """What the client does, and does not do."""

    FORK = """\
        import os, sys
        pid = os.fork()
        if pid == 0:
            here = 1                            # child
            breakpoint()
            os._exit(3)
        print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
        sys.stdout.flush()
        last = 1                                # last
    """

    def test_children_are_not_wanted(self):
        program = self.program(self.FORK)
        client = self.launch(program, ["child"], subProcess=False)
        self.assertEqual(client.finish(), 0)
        self.assertEqual((client.output["stdout"], client.children), ("status 3\n", []))

    def test_children_are_not_wanted_new_process(self):
        worker = self.program("here = 1\nbreakpoint()\n", "worker.py")
        program = self.program("import subprocess, sys; print(subprocess.call([sys.executable, %r]))" % str(worker))
        client = self.editor()
        client.launch(program, {worker: [1]}, {"supportsStartDebuggingRequest": True}, subProcess=False)
        self.assertEqual(client.finish(), 0)
        self.assertEqual((client.output["stdout"], client.children), ("0\n", []))

    def test_client_that_cannot_start_sessions_is_told_how_to_attach(self):
        program = self.program("""\
            import os, sys
            pid = os.fork()
            if pid == 0:
                sys.stdin.readline()            # goes on when the client has attached
                here = 1                        # child
                os._exit(3)
            print("status", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
        """.replace("sys.stdin.readline()", "open('go').close()"))
        os.mkfifo(self.folder / "go")
        client = self.client()
        client.launch(program, {program: [line_of(program, "child")]}, cwd=str(self.folder))
        while "can be debugged" not in client.output.get("console", ""):
            client.take()
        line = client.output["console"].partition("program.py, process ")[2]
        process_id, _, rest = line.partition(" can be debugged too: attach with ")
        child = self.client()
        child.begin("attach", json.loads("{%s}" % rest.replace(" and ", ", ")), {program: [line_of(program, "child")]})
        self.assertEqual(child.wait_for("process")["systemProcessId"], int(process_id))
        with open(self.folder / "go", "w"):
            self.assertEqual(child.wait_for_stop("breakpoint")["frame"]["line"], line_of(program, "child"))
        self.leave(child)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status 3\n")

    def test_client_refuses(self):
        program = self.program(self.FORK)
        client = self.client()

        def refuse(arguments):
            raise ValueError("not now")

        client.on_request["startDebugging"] = refuse
        client.launch(program, {program: [line_of(program, "child")]}, {"supportsStartDebuggingRequest": True})
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status 3\n")

    def test_client_leaves_a_child(self):
        program = self.program(self.FORK)
        client = self.launch(program, ["child"])
        child = self.child(client)
        child.wait_for_stop("breakpoint")
        child.ask("disconnect")
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status 3\n")

    def test_client_dies_before_the_child_is_configured(self):
        program = self.program(self.FORK)
        client = self.launch(program, ["child"])
        while not client.children:
            client.take()
        child = self.editor()
        child.ask("initialize", adapterID="x")
        child.send("attach", client.children[0])
        child.wait_for("initialized")
        child.process.kill()
        # It was launched for a client, and ends without one.
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status -%d\n" % signal.SIGTERM)

    def test_child_killed_by_a_signal(self):
        program = self.program(self.FORK)
        client = self.launch(program, ["child"])
        child = self.child(client)
        child.wait_for_stop("breakpoint")
        os.kill(child.process_id, signal.SIGKILL)
        child.wait_for("terminated")
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "status -9\n")

    def test_grandchild_of_a_child_that_has_gone(self):
        program = self.program("""\
            import os
            reading, writing = os.pipe()
            if os.fork() == 0:
                if os.fork():
                    os._exit(0)
                here = 1                        # daemon
                os.write(writing, b"done")
                os._exit(0)
            os.wait()
            print(os.read(reading, 4))
        """)
        client = self.launch(program, ["daemon"])
        self.child(client, 0).wait_for("terminated")
        daemon = self.child(client, 1)
        self.assertEqual(daemon.wait_for_stop("breakpoint")["frame"]["line"], line_of(program, "daemon"))
        self.leave(daemon)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "b'done'\n")


if __name__ == "__main__":
    unittest.main()
