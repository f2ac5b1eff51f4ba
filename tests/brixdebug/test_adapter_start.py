"""What a session with an editor loads before the program runs, and `pdb` in such a program."""

import subprocess
import sys
import unittest
import zipfile

from dap_client import AdapterTestCase
from host_support import LOCK_WARNING, check_child, child_environment, run_child
from session import without_addresses

# Each of these takes longer to be imported than the program's own start; pdb loads most of them from 3.14 on.
NOT_FOR_THE_PROGRAM = "pdb", "asyncio", "argparse", "tempfile", "zipfile", "urllib.parse", "brixdebug.debugger"
NOT_FOR_THE_ADAPTER = *NOT_FOR_THE_PROGRAM, "optmonitoring", "logging", "traceback", "inspect", "dataclasses", "secrets"
CALLS_OF_PDB = ("import pdb; pdb.set_trace()", "from pdb import set_trace; set_trace()",
                "import pdb; pdb.Pdb().set_trace()", "from pdb import Pdb; Pdb().set_trace()",
                "import brixdebug; brixdebug.Pdb().set_trace()")
LOADED = "import sys; print([name for name in %r if name in sys.modules])"


class LoadedModulesTest(AdapterTestCase):
    def test_program_has_what_a_session_needs_alone(self):
        client = self.client()
        client.launch(self.program(LOADED % (NOT_FOR_THE_PROGRAM,)))
        client.finish()
        self.assertEqual(client.output["stdout"], "[]\n")

    def test_program_that_waits_for_an_editor_has_little_more(self):
        path = self.program(LOADED % (NOT_FOR_THE_PROGRAM,))
        child = run_child("-m", "brixdebug", "--listen", "0", path)
        self.assertEqual(child.stdout, "['argparse']\n")
        self.assertRegex(child.stderr, r"\Abrixdebug: listening at 127\.0\.0\.1:\d+\n\Z")

    def test_adapter_has_what_a_launch_needs_alone(self):
        printed = check_child(self, "-c", "import brixdebug.dap.__main__; " + LOADED % (NOT_FOR_THE_ADAPTER,))
        self.assertEqual(printed, "[]\n")

    def test_what_the_package_exports_is_loaded_when_it_is_asked_for(self):
        printed = check_child(self, "-c", """if 1:
            import sys, brixdebug
            print("brixdebug.debugger" in sys.modules, set(brixdebug.__all__) <= set(dir(brixdebug)))
            from brixdebug import *
            print(Pdb is Debugger is brixdebug.Debugger, Debugger.__module__, brixdebug.listen.__module__)
            try:
                brixdebug.nothing
            except AttributeError as error:
                print(error)
        """)
        self.assertEqual(printed, "False True\nTrue brixdebug.debugger brixdebug.dap.program\n"
                                  "module 'brixdebug' has no attribute 'nothing'\n")


class PdbTest(AdapterTestCase):
    def test_its_calls_stop_in_the_editor(self):
        for call in CALLS_OF_PDB:
            with self.subTest(call):
                client = self.client()
                client.launch(self.program("first = 1\n%s\nafter = 1\n" % call))
                self.assertEqual(client.wait_for_stop("breakpoint")["frame"]["line"], 3)
                client.go_on()
                self.assertEqual((client.finish(), client.output), (0, {}))

    def test_its_calls_stop_in_every_thread(self):
        client = self.client()
        client.launch(self.program("""\
            import pdb, threading

            def work(call):
                call()
                return 1

            for call in pdb.set_trace, lambda: pdb.Pdb(nosigint=True).set_trace(__import__("sys")._getframe(1)):
                thread = threading.Thread(target=work, args=(call,))
                thread.start()
                thread.join()
        """))
        for _ in range(2):
            stopped = client.wait_for_stop("breakpoint")
            self.assertEqual((stopped["frame"]["name"], stopped["frame"]["line"]), ("work", 5))
            self.assertNotEqual(stopped["threadId"], 1)
            client.go_on()
        self.assertEqual((client.finish(), client.output), (0, {}))

    @unittest.skipIf(sys.version_info < (3, 14), "pdb.set_trace_async came with 3.14")
    def test_awaited_calls_stop_in_the_editor(self):
        client = self.client()
        client.launch(self.program("""\
            import asyncio, pdb

            async def work():
                await pdb.set_trace_async()
                await pdb.Pdb().set_trace_async()
                return 1

            asyncio.run(work())
        """))
        for line in 5, 6:
            stopped = client.wait_for_stop("breakpoint")
            self.assertEqual((stopped["frame"]["name"], stopped["frame"]["line"]), ("work", line))
            client.go_on()
        self.assertEqual((client.finish(), client.output), (0, {}))

    def test_its_calls_do_nothing_at_a_stop(self):
        client = self.client()
        client.launch(self.program("import pdb\nbreakpoint()\nafter = 1\n"))
        stopped = client.wait_for_stop("breakpoint")
        for call in "pdb.set_trace()", "pdb.Pdb().set_trace()":
            self.assertEqual(client.evaluate(call, stopped["frame"]["id"]), "")
        client.go_on()
        self.assertEqual((client.finish(), client.output), (0, {}))

    def test_import_leaves_nothing_behind(self):
        text = """\
            import sys
            import pdb
            print(sys.meta_path, pdb.__loader__, pdb.__spec__.loader is pdb.__loader__, pdb.__spec__.origin)
        """
        path = self.program(text)
        plain = check_child(self, str(path))
        client = self.client()
        client.launch(path)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(without_addresses(client.output["stdout"]), without_addresses(plain))

    def test_module_is_found_by_name_alone(self):
        path = self.program("""\
            import importlib.util, runpy
            spec = importlib.util.find_spec("pdb")
            print(spec.origin == spec.loader.get_filename("pdb"), "set_trace" in spec.loader.get_source("pdb"))
            print("set_trace" in runpy.run_module("pdb"))
        """)
        client = self.client()
        client.launch(path)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "True True\nTrue\n")

    def test_nothing_waits_for_it_when_the_editor_has_left(self):
        path = self.program("""\
            import brixdebug, sys, time
            print(brixdebug.listen(0), file=sys.stderr, flush=True)
            brixdebug.wait_for_client()
            waited = [each for each in sys.meta_path if type(each).__module__.startswith("brixdebug")]
            brixdebug.breakpoint()
            while waited[0] in sys.meta_path:
                time.sleep(0.01)
            print("the end")
        """)
        command = [sys.executable, "-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING, str(path)]
        with subprocess.Popen(command, env=child_environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as served:
            port = int(served.stderr.readline().rpartition(":")[2])
            client = self.client()
            client.begin("attach", {"connect": {"port": port}})
            client.wait_for_stop("breakpoint")
            client.ask("disconnect")
            self.assertEqual(served.communicate(), ("the end\n", ""))


class ProgramsFileTest(AdapterTestCase):
    def test_zip_file_that_ends_in_a_comment(self):
        path = self.folder / "program.py"
        with zipfile.ZipFile(path, "w") as archive:
            archive.writestr("__main__.py", "print('from the archive')\n")
            archive.comment = b"x" * 60_000
        client = self.client()
        client.launch(path)
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "from the archive\n")

    def test_text_in_which_a_zip_file_would_end(self):
        client = self.client()
        client.launch(self.program("print('a program')  # PK\5\6\n"))
        self.assertEqual(client.finish(), 0)
        self.assertEqual(client.output["stdout"], "a program\n")


if __name__ == "__main__":
    unittest.main()
