"""The host's log: what the module and the host write, and that the program's own logging stays apart."""

import re
import textwrap
import unittest

from host_support import check_child, scratch_folder


class LogTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)
        self.log = self.folder / "host.log"

    def run_script(self, *texts):
        """Standard output of a child that runs the texts; `LOG` names the log file there."""
        script = self.folder / "script.py"
        script.write_text("LOG = %r\n" % str(self.log) + "".join(map(textwrap.dedent, texts)))
        return check_child(self, script)


class ThreadsTest(LogTestCase):

    def test_no_line_is_lost_where_threads_log_at_once(self):
        self.run_script("""\
            import sys, threading
            from brixdebug import log
            log.open_log(LOG, ["breakpoints"])
            sys.setswitchinterval(1e-6)
            def work(number):
                for n in range(2000):
                    log.breakpoints(lambda: "%d: %d\\n" % (number, n))
            threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            log.close_log()
            """)
        lines = self.log.read_text().splitlines()
        for number in map(str, range(4)):
            self.assertEqual([line for line in lines if line.startswith(number)],
                             ["%s: %d" % (number, n) for n in range(2000)])


class DlogTest(LogTestCase):

    def logged(self, text):
        """What the text writes to a log that is a text file."""
        self.run_script("""\
            from brixbase import dlog
            log_file = open(LOG, "w")
            dlog.SetLogFile(log_file)
            """, text, """
            dlog.SetLogFile(None)
            log_file.close()
            """)
        return self.log.read_text()

    def test_log_writes_the_arguments_as_one_line(self):
        self.assertEqual(self.logged("dlog.Log('stop at', 3, None)\ndlog.Log()\n"), "stop at 3 None\n\n")

    def test_percent_signs_are_text(self):
        self.assertEqual(self.logged("dlog.Log('100%', '%s %d')"), "100% %s %d\n")

    def test_exception_is_reported_with_its_traceback(self):
        text = self.logged("""\
            try:
                {}["key"]
            except KeyError:
                dlog.LogException("here", False)
                dlog.LogException(None, True)
                dlog.LogException()
            assert dlog.GetExceptionCount() == 3
            """)
        headlines = re.findall(r"^(Exception.*)\nTraceback \(most recent call last\):\n(?:  .*\n)+KeyError: 'key'$",
                               text, re.M)
        self.assertEqual(headlines, ["Exception in here", "Exception (suppressed)", "Exception"])

    def test_report_ends_at_an_exception_that_was_reported_before(self):
        text = self.logged("""\
            try:
                raise ValueError("first")
            except ValueError:
                dlog.LogException(None, True)
                try:
                    raise KeyError("second")
                except KeyError:
                    dlog.LogException(None, True)
            """)
        self.assertEqual((text.count("ValueError: first"), text.count("KeyError: 'second'")), (1, 1))
        self.assertNotIn("During handling", text)

    def test_context_that_was_not_reported_stays(self):
        text = self.logged("""\
            try:
                try:
                    raise ValueError("first")
                finally:
                    raise KeyError("second")
            except KeyError:
                dlog.LogException(None, True)
            """)
        self.assertIn("ValueError: first\n\nDuring handling", text)

    def test_exception_of_a_class_without_attributes_is_reported(self):
        text = self.logged("""\
            class Frozen(Exception):
                def __setattr__(self, name, value):
                    raise AttributeError("frozen")
            try:
                raise Frozen("all the same")
            except Frozen:
                dlog.LogException(None, True)
            """)
        self.assertIn("Frozen: all the same\n", text)

    def test_ring_of_contexts_is_reported(self):
        text = self.logged("""\
            try:
                raise ValueError("one")
            except ValueError as one:
                two = KeyError("two")
                two.__context__ = one
                one.__context__ = two
                dlog.LogException(None, True)
            """)
        self.assertIn("ValueError: one\n", text)

    def test_nothing_is_raised_by_what_cannot_be_written(self):
        out = self.run_script("""\
            from brixbase import dlog
            class Bad:
                def __str__(self):
                    raise RuntimeError
                def write(self, text):
                    print("asked to write")
                    raise OSError("full")
            dlog.Log(Bad())
            dlog.SetLogFile(Bad())
            dlog.Log("text")
            try:
                1 // 0
            except ZeroDivisionError:
                dlog.LogException(Bad(), True)
                dlog.LogException(None, True)
            print(dlog.GetExceptionCount())
            """)
        self.assertEqual(out, "asked to write\nasked to write\n2\n")

    def test_standard_error_is_looked_up_at_each_line(self):
        out = self.run_script("""\
            import contextlib, io, sys
            from brixbase import dlog
            with contextlib.redirect_stderr(io.StringIO()) as first:
                dlog.Log("to the first")
            with contextlib.redirect_stderr(None):
                dlog.Log("to nobody")
            with contextlib.redirect_stderr(io.StringIO()) as second:
                dlog.Log("to the second")
            print(repr(first.getvalue()), repr(second.getvalue()))
            """)
        self.assertEqual(out, "'to the first\\n' 'to the second\\n'\n")

    def test_program_cannot_switch_the_log_off_and_does_not_see_it(self):
        out = self.run_script("""\
            import contextlib, io, logging, logging.config
            from brixbase import dlog
            root = io.StringIO()
            logging.basicConfig(stream=root, level=0)
            logging.config.dictConfig({"version": 1, "root": {"level": "DEBUG"}})
            logging.disable(logging.CRITICAL)
            logging.setLogRecordFactory(lambda *args, **keywords: print("program's factory"))
            log = io.StringIO()
            dlog.SetLogFile(log)
            dlog.Log("a line")
            print(repr(log.getvalue()), repr(root.getvalue()))
            print([name for name in logging.root.manager.loggerDict if "brix" in name])
            """)
        self.assertEqual(out, "'a line\\n' ''\n[]\n")

    def test_thread_that_logs_is_not_entered_among_the_programs_threads(self):
        out = self.run_script("""\
            import _thread, io, threading
            from brixbase import dlog
            log = io.StringIO()
            dlog.SetLogFile(log)
            done = _thread.allocate_lock()
            done.acquire()
            def body():
                dlog.Log("from a thread")
                done.release()
            _thread.start_new_thread(body, ())
            done.acquire()
            print(repr(log.getvalue()), len(threading.enumerate()))
            """)
        self.assertEqual(out, "'from a thread\\n' 1\n")

    def test_forked_child_does_not_wait_for_a_lock_of_another_thread(self):
        out = self.run_script("""\
            import os, sys, threading, warnings
            from brixbase import dlog
            warnings.simplefilter("ignore", DeprecationWarning)      # of a fork with threads
            writing, go_on = threading.Event(), threading.Event()
            class Slow:
                def write(self, text):
                    writing.set()
                    go_on.wait()
                def flush(self):
                    pass
            dlog.SetLogFile(Slow())
            thread = threading.Thread(target=dlog.Log, args=("held",))
            thread.start()
            writing.wait()
            child = os.fork()
            if child == 0:
                dlog.SetLogFile(sys.stdout)
                dlog.Log("from the child")
                os._exit(0)
            print("child ended with", os.waitpid(child, 0)[1], flush=True)
            go_on.set()
            thread.join()
            """)
        self.assertEqual(out, "from the child\nchild ended with 0\n")


class OpenLogTest(LogTestCase):

    PRELUDE = """\
        import optmonitoring
        from brixbase import dlog
        from brixdebug import log
        """

    def run_script(self, text):
        return super().run_script(self.PRELUDE, text)

    def test_module_and_host_write_to_one_file_in_order(self):
        self.run_script("""\
            log.open_log(LOG)
            dlog.Log("from the host")
            optmonitoring.dprintf(optmonitoring.kLogCore, "from the module\\n")
            dlog.Log("and again: \\u00fc \\udc80")
            log.close_log()
            """)
        self.assertEqual(self.log.read_text(encoding="utf-8"),
                         "from the host\nfrom the module\nand again: \u00fc \\udc80\n")

    def test_each_domain_name_lets_its_own_messages_through(self):
        names = ["Other", "Filenames", "Core", "Breakpoints", "Exceptions", "IO", "InternalFailures", "Threading",
                 "InitialMonitoringCallbacks", "SecondMonitoringCallbacks"]
        domains = ["other", "filenames", "core", "breakpoints", "exceptions", "io", "internal_failures", "threading",
                   "initial", "second"]
        self.run_script("""\
            for domain in %r:
                log.open_log(LOG, [domain])
                for name in %r:
                    optmonitoring.dprintf(getattr(optmonitoring, "kLog" + name), domain + ": " + name + "\\n")
            log.close_log()
            """ % (domains, names))
        lines = [line for line in self.log.read_text().splitlines() if re.match(r"\w+: \w+$", line)]
        self.assertEqual(lines, ["%s: %s" % pair for pair in zip(domains, names)])

    def test_all_is_every_domain_and_no_domain_is_the_modules_default(self):
        out = self.run_script("""\
            constants = [name for name in dir(optmonitoring) if name.startswith("kLog")]
            print(len(constants), log.domain_mask(["all"]) == sum(getattr(optmonitoring, name) for name in constants))
            print(log.domain_mask(log.DEFAULT_DOMAINS))
            """)
        self.assertEqual(out, "10 True\n84\n")

    def test_names_are_taken_from_a_text(self):
        out = self.run_script("print(log.parse_domains(' core,filenames , ,io'), log.parse_domains(''))")
        self.assertEqual(out, "('core', 'filenames', 'io') ()\n")

    def test_unknown_domains_are_named_with_the_known_ones(self):
        out = self.run_script("""\
            log.open_log(LOG)
            try:
                log.open_log(LOG + ".other", ["core", "cor", "file"])
            except ValueError as error:
                print(error)
            dlog.Log("still open")
            """)
        self.assertEqual(out, "unknown log domain 'cor', 'file'; known: other, filenames, core, breakpoints, "
                              "exceptions, io, internal_failures, threading, initial, second, all\n")
        self.assertEqual(self.log.read_text(), "still open\n")
        self.assertEqual([path.name for path in self.folder.iterdir() if "log" in path.name], ["host.log"])

    def test_file_that_cannot_be_written_is_an_error_and_the_log_stays(self):
        out = self.run_script("""\
            log.open_log(LOG)
            try:
                log.open_log(LOG + "/no/folder")
            except OSError as error:
                print(type(error).__name__)
            dlog.Log("still open")
            """)
        self.assertEqual((out, self.log.read_text()), ("NotADirectoryError\n", "still open\n"))

    def test_what_the_file_had_is_kept(self):
        self.log.write_text("before\n")
        self.run_script("log.open_log(LOG)\ndlog.Log('after')\n")
        self.assertEqual(self.log.read_text(), "before\nafter\n")

    def test_closed_log_writes_nothing_more(self):
        out = self.run_script("""\
            import contextlib, io
            log.close_log()
            log.open_log(LOG, ["all"])
            log.close_log()
            optmonitoring.dprintf(optmonitoring.kLogCore, "too late\\n")
            optmonitoring.get_canonical_pathname("/no/such/file.py")
            with contextlib.redirect_stderr(io.StringIO()) as stderr:
                dlog.Log("to standard error again")
            print(repr(stderr.getvalue()))
            log.close_log()
            """)
        self.assertEqual(out, "'to standard error again\\n'\n")
        self.assertNotIn("too late", self.log.read_text())

    def test_nothing_waits_in_a_buffer(self):
        self.run_script("""\
            import os
            log.open_log(LOG)
            dlog.Log("from the host")
            optmonitoring.dprintf(optmonitoring.kLogCore, "from the module\\n")
            if os.fork() == 0:
                dlog.Log("from the child")
                os._exit(0)
            os.wait()
            os._exit(0)
            """)
        self.assertEqual(self.log.read_text(), "from the host\nfrom the module\nfrom the child\n")

    def test_program_that_closes_all_descriptors_goes_on(self):
        out = self.run_script("""\
            import os
            log.open_log(LOG)
            os.closerange(3, 64)
            dlog.Log("lost")
            optmonitoring.dprintf(optmonitoring.kLogCore, "lost too\\n")
            log.close_log()
            print("went on")
            """)
        self.assertEqual(out, "went on\n")


if __name__ == "__main__":
    unittest.main()
