"""The demonstration host runs real programs under the filter and cleans up after itself.

The environment variable OPTMONITORING_DIR names the folder of the built module.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
EXAMPLES = os.path.join(ROOT, "examples")
HOST_DIR = os.path.join(ROOT, "debug", "host")       # has the brixbase that the examples use
DEMO = os.path.join(EXAMPLES, "filter_demo.py")
EVENTS = ["LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"]
HAS_MONITORING = hasattr(sys, "monitoring")

# Runs the demonstration inside a program that has done something first.
RUN_MAIN = """
import sys
sys.path[:0] = %r
import filter_demo
%%s
status = filter_demo.main(sys.argv[1:])
%%s
sys.exit(status)
""" % [EXAMPLES, HOST_DIR]


def module_dir():
    folder = os.environ.get("OPTMONITORING_DIR")
    if not folder:
        raise AssertionError("set OPTMONITORING_DIR to the folder of the built module")
    return folder


def run_child(*arguments):
    """Exit status, standard output and standard error of a child interpreter."""
    # A free-threaded interpreter warns that it turns its lock on for the module.
    command = [sys.executable, "-W", "ignore:The global interpreter lock:RuntimeWarning"]
    child = subprocess.Popen(command + list(arguments), stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, universal_newlines=True)
    out, err = child.communicate()
    return child.returncode, out, err


def run_demo(*arguments):
    return run_child(DEMO, "--module-dir", module_dir(), *arguments)


def run_main_with(before, after, *arguments):
    return run_child("-c", RUN_MAIN % (before, after), "--module-dir", module_dir(),
                     *arguments)


class ParsedReport(object):
    """One program's part of the printed report."""

    def __init__(self, text):
        self.title = re.match(r"== (.*) ==", text).group(1)
        self.thread = re.search(r"^Stops in thread (.*)$", text, re.M).group(1)
        self.hits = {}             # function: number of stops
        self.shown = {}            # function: [(line, local, value)]
        self.more = {}
        self.results = {}
        function = None
        for line in text.splitlines():
            place = re.match(r"  \S+\.py:(\d+) (\S+): (.*)$", line)
            stop = re.match(r"    (\d+)\. line (\d+) in (\S+?)(?:, (\w+) = (.*))?$", line)
            result = re.match(r"    result (\d+): (.*)$", line)
            more = re.match(r"    and (\d+) more stops$", line)
            if place:
                function = place.group(2)
                words = place.group(3).split()
                self.hits[function] = 0 if words[0] == "never" else int(words[0])
                self.shown[function] = []
                self.results[function] = []
                self.more[function] = 0
                breakpoint_line = place.group(1)
            elif stop:
                assert stop.group(2, 3) == (breakpoint_line, function), line
                self.shown[function].append(stop.group(4, 5))
            elif result:
                self.results[function].append(result.group(2))
            elif more:
                self.more[function] = int(more.group(1))
        self.counts = {}           # event: [reported, disabled, ignored, forwarded]
        for name in EVENTS + ["all"]:
            row = re.search(r"^  %s +(\d+) +(\d+) +(\d+) +(\d+)$" % name, text, re.M)
            self.counts[name] = [int(number) for number in row.groups()]
        self.output = re.search(
            r"^Output: (\d+) bytes, unchanged under the filter \(sha256 [0-9a-f]{16}\.\.\.\)$",
            text, re.M)


@unittest.skipUnless(HAS_MONITORING, "the interpreter has no sys.monitoring")
class ReportTest(unittest.TestCase):
    """One run of every program; the tests read its report."""

    @classmethod
    def setUpClass(cls):
        cls.status, cls.out, cls.err = run_demo()
        cls.reports = [ParsedReport(part) for part in
                       re.findall(r"^== .*?(?=^== |\Z)", cls.out, re.M | re.S)]

    def test_exit_status_is_0_and_nothing_is_reported_as_wrong(self):
        self.assertEqual((self.status, self.err), (0, ""))

    def test_every_program_has_its_report(self):
        self.assertEqual([report.title for report in self.reports],
                         ["python -m json.tool characters.json",
                          "python -m tokenize _pydecimal.py",
                          "python -m ast typing.py, ast.unparse"])

    def test_the_thread_has_the_name_that_the_callback_gave(self):
        self.assertEqual({report.thread for report in self.reports}, {"MainThread"})

    def test_first_stops_show_the_values_of_the_programs_data(self):
        shown = self.reports[0].shown
        self.assertEqual(shown["_iterencode_dict"],
                         [("key", "'modules'"), ("key", "'entities'"), ("key", "'characters'")])
        modules = sorted(sys.stdlib_module_names)
        self.assertEqual(shown["_iterencode_list"],
                         [("value", repr(name)) for name in modules[:3]])
        shown = self.reports[2].shown["_format"]
        self.assertEqual(shown[0], ("cls", "<class 'ast.Module'>"))

    def test_every_default_breakpoint_is_reached(self):
        self.assertEqual([sorted(report.hits) for report in self.reports],
                         [["_iterencode_dict", "_iterencode_list", "decode", "main"],
                          ["_generate_tokens_from_c_tokenizer", "detect_encoding"],
                          ["_format", "unparse", "visit"]])
        for report in self.reports:
            for function, hits in report.hits.items():
                self.assertGreater(hits, 0, function)
        # Called once by the program, whatever its source looks like.
        self.assertEqual(self.reports[0].hits["decode"], 1)
        self.assertEqual(self.reports[0].hits["main"], 1)
        self.assertEqual(self.reports[2].hits["unparse"], 1)

    def test_shown_and_unshown_stops_add_up(self):
        for report in self.reports:
            for function, hits in report.hits.items():
                self.assertEqual(len(report.shown[function]), min(hits, 3), function)
                self.assertEqual(report.more[function], hits - len(report.shown[function]))

    def test_return_value_is_shown_where_it_was_asked_for(self):
        results = self.reports[1].results
        self.assertEqual(len(results["detect_encoding"]), 1)
        self.assertTrue(results["detect_encoding"][0].startswith("('utf-8', ["), results)
        self.assertEqual(results["_generate_tokens_from_c_tokenizer"], [])

    def test_disabled_ignored_and_forwarded_make_all_events(self):
        for report in self.reports:
            for name, (reported, disabled, ignored, forwarded) in report.counts.items():
                self.assertEqual(reported, disabled + ignored + forwarded, name)
            self.assertEqual(report.counts["all"],
                             [sum(report.counts[name][column] for name in EVENTS)
                              for column in range(4)])

    def test_line_events_reach_python_only_at_breakpoints(self):
        for report in self.reports:
            self.assertEqual(report.counts["LINE"][3], sum(report.hits.values()))
            self.assertGreater(report.counts["LINE"][2], 0)     # lines between them

    def test_return_events_reach_python_only_where_asked_for(self):
        self.assertEqual(self.reports[0].counts["PY_RETURN"][3], 0)
        self.assertEqual(self.reports[1].counts["PY_RETURN"][3], 1)
        self.assertGreaterEqual(self.reports[2].counts["PY_RETURN"][3],
                                self.reports[2].hits["_format"])
        for report in self.reports:
            for name in ("PY_START", "PY_YIELD", "PY_RESUME"):
                self.assertEqual(report.counts[name][3], 0, name)

    def test_internal_code_is_disabled(self):
        for report in self.reports:
            self.assertGreater(report.counts["PY_START"][1], 0)
            # All of it ran in an earlier run too: restart_events() has armed it again.
            self.assertGreater(report.counts["PY_RETURN"][1], 0)
            self.assertEqual(report.counts["LINE"][1], 0)

    def test_output_is_unchanged(self):
        for report in self.reports:
            self.assertGreater(int(report.output.group(1)), 100000)


@unittest.skipUnless(HAS_MONITORING, "the interpreter has no sys.monitoring")
class OptionsTest(unittest.TestCase):

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)

    def test_quiet_prints_one_line_for_the_chosen_program(self):
        status, out, err = run_demo("--program", "tokenize", "--quiet")
        self.assertEqual((status, err), (0, ""))
        numbers = re.match(
            r"python -m tokenize _pydecimal\.py: (\d+) stops at 2 breakpoints; (\d+) events, "
            r"(\d+) disabled, (\d+) ignored, (\d+) forwarded; output of (\d+) bytes unchanged\n\Z",
            out)
        self.assertTrue(numbers, out)
        stops, events, disabled, ignored, forwarded, _ = map(int, numbers.groups())
        self.assertEqual(events, disabled + ignored + forwarded)
        self.assertEqual(forwarded, stops + 1)       # and one return value

    def test_break_takes_the_place_of_the_default_breakpoints(self):
        status, out, err = run_demo("--program", "json", "--break",
                                    "json/decoder.py:JSONDecoder.raw_decode",
                                    "--break", "encoder.py:JSONEncoder.encode")
        self.assertEqual((status, err), (0, ""))
        report = ParsedReport(out[out.index("=="):])
        self.assertEqual(report.hits, {"raw_decode": 1, "encode": 0})
        self.assertEqual(report.counts["LINE"][3], 1)
        self.assertIn("encode: never reached\n", out)

    def test_break_at_a_line_number(self):
        import json.decoder
        with open(json.decoder.__file__) as source:
            lines = source.read().splitlines()
        line = 1 + next(index for index, text in enumerate(lines) if "self.raw_decode(" in text)
        status, out, err = run_demo("--program", "json",
                                    "--break", "json/decoder.py:%d" % line)
        self.assertEqual((status, err), (0, ""))
        self.assertIn("  json/decoder.py:%d decode: 1 stop\n    1. line %d in decode, self = "
                      % (line, line), out)

    def test_break_in_a_frozen_module_is_reached(self):
        status, out, err = run_demo("--program", "json", "--break", "runpy.py:_run_module_code")
        self.assertEqual((status, err), (0, ""))
        report = ParsedReport(out[out.index("=="):])
        self.assertEqual(report.hits["_run_module_code"], 1)

    def test_log_has_the_stops_and_no_failures(self):
        log = os.path.join(self.folder, "host.log")
        status, _, err = run_demo("--program", "tokenize", "--log", log)
        self.assertEqual((status, err), (0, ""))
        with open(log) as file:
            lines = file.read().splitlines()
        stops = [line for line in lines if line.startswith("stop at ")]
        functions = [line.rpartition(" in ")[2] for line in stops]
        tokens = "_generate_tokens_from_c_tokenizer"
        self.assertEqual(functions, ["detect_encoding", tokens, tokens, tokens] * 2)
        self.assertEqual([line for line in lines if "Exception" in line or "Fail" in line], [])

    def test_help_names_the_options(self):
        status, out, _ = run_child(DEMO, "--help")
        self.assertEqual(status, 0)
        for option in ("--module-dir", "--program", "--break", "--log", "--quiet"):
            self.assertIn(option, out)


@unittest.skipUnless(HAS_MONITORING, "the interpreter has no sys.monitoring")
class ErrorsTest(unittest.TestCase):

    def check(self, result, status, message):
        self.assertEqual(result, (status, "", "filter_demo: " + message + "\n"))

    def test_folder_without_the_module(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(os.rmdir, folder)
        self.check(run_child(DEMO, "--module-dir", folder), 2,
                   "no optmonitoring module in %s\n"
                   "Build it first, or name its folder with --module-dir DIR." % folder)

    def test_module_that_cannot_be_loaded(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        with open(os.path.join(folder, "optmonitoring.so"), "w") as file:
            file.write("not a library")
        status, out, err = run_child(DEMO, "--module-dir", folder)
        self.assertEqual((status, out), (2, ""))
        self.assertTrue(err.startswith(
            "filter_demo: cannot load the optmonitoring module in %s: ImportError: " % folder), err)

    def test_unknown_program(self):
        status, out, err = run_demo("--program", "nosuch")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("invalid choice: 'nosuch'", err)

    def test_breakpoint_without_a_place(self):
        self.check(run_demo("--program", "json", "--break", "encoder.py"), 2,
                   "--break encoder.py: expected FILE_SUFFIX:FUNCTION_OR_LINE")

    def test_breakpoint_in_an_unknown_file(self):
        self.check(run_demo("--program", "json", "--break", "nosuch.py:main"), 2,
                   "no imported source file ends with 'nosuch.py'")

    def test_breakpoint_in_an_unknown_function(self):
        import json.encoder
        self.check(run_demo("--program", "json", "--break", "json/encoder.py:nosuch"), 2,
                   "no function 'nosuch' in %s" % json.encoder.__file__)

    def test_breakpoint_on_a_line_without_code(self):
        import json.encoder
        self.check(run_demo("--program", "json", "--break", "json/encoder.py:999999"), 2,
                   "no code on line 999999 of %s" % json.encoder.__file__)

    def test_breakpoint_in_the_hosts_own_code(self):
        self.check(run_demo("--program", "json", "--break", "filter_host.py:stop"), 2,
                   "no imported source file ends with 'filter_host.py'")

    def test_same_breakpoint_twice(self):
        place = "json/decoder.py:JSONDecoder.decode"
        status, _, err = run_demo("--program", "json", "--break", place, "--break", place)
        self.assertEqual(status, 2)
        self.assertIn("filter_demo: there is a breakpoint at ", err)

    def test_tool_id_in_use(self):
        result = run_main_with(
            "sys.monitoring.use_tool_id(sys.monitoring.DEBUGGER_ID, 'another debugger')",
            "assert sys.monitoring.get_tool(sys.monitoring.DEBUGGER_ID) == 'another debugger'",
            "--program", "json", "--quiet")
        self.check(result, 2,
                   "the monitoring tool id 0 (sys.monitoring.DEBUGGER_ID) is taken by "
                   "'another debugger'; stop that debugger first")

    def test_second_callback_that_raises_is_reported_to_the_host(self):
        status, out, err = run_main_with(
            "import filter_host\n"
            "def fails(self, code, line): raise LookupError('from the second callback')\n"
            "filter_host.FilterHost._on_line = fails\n",
            "", "--program", "json", "--quiet", "--break", "json/decoder.py:JSONDecoder.decode")
        self.assertEqual((status, out), (1, ""))
        reports = err.split("Exception (suppressed)\n")[1:]
        self.assertEqual(len(reports), 2)       # the run under the filter and the counted one
        for report in reports:
            self.assertTrue(report.startswith("Traceback (most recent call last):\n"), report)
            self.assertEqual(report.count("\nLookupError: from the second callback\n"), 1)
        self.assertIn("filter_demo: python -m json.tool characters.json: "
                      "2 exceptions were kept from the program; see the log\n", err)

    def test_changed_output_is_noticed(self):
        status, out, err = run_main_with(
            "import filter_host, real_programs\n"
            "run_module = real_programs._run_module\n"
            "def chatty(name, path):\n"
            "    if sys.monitoring.get_tool(0): print('more')\n"
            "    run_module(name, path)\n"
            "real_programs._run_module = chatty\n",
            "", "--program", "json", "--quiet")
        self.assertEqual((status, out), (1, ""))
        self.assertIn("the output under the filter differs from the plain one\n", err)
        self.assertIn("the output while counting differs from the plain one\n", err)


@unittest.skipUnless(HAS_MONITORING, "the interpreter has no sys.monitoring")
class CleanUpTest(unittest.TestCase):

    def test_nothing_is_left_behind(self):
        status, out, err = run_main_with(
            "import glob, tempfile\n"
            "tempfile.tempdir = tempfile.mkdtemp()\n"
            "folders = lambda: glob.glob(tempfile.tempdir + '/*')\n",
            "monitoring, tool = sys.monitoring, sys.monitoring.DEBUGGER_ID\n"
            "print(monitoring.get_tool(tool), folders())\n"
            "import os; os.rmdir(tempfile.tempdir)\n"
            "import json.encoder, optmonitoring as om\n"
            "monitoring.use_tool_id(tool, 'check')\n"
            "def all_code(code):\n"
            "    nested = [c for c in code.co_consts if hasattr(c, 'co_code')]\n"
            "    return [code] + [inner for c in nested for inner in all_code(c)]\n"
            "print(monitoring.get_events(tool))\n"
            "print({code.co_name: monitoring.get_local_events(tool, code)\n"
            "       for code in all_code(json.encoder._make_iterencode.__code__)\n"
            "       if code.co_name in ('_iterencode_list', '_iterencode_dict')})\n"
            "print([monitoring.register_callback(tool, event, None) for event in (\n"
            "    om.kPyLineEventId, om.kPyStartEventId, om.kPyReturnEventId,\n"
            "    om.kPyYieldEventId, om.kPyResumeEventId)])\n"
            "print(om.CPerCodeObject._fNewPerCodeObjectCreatedCallback,\n"
            "      om.CPerThread._fDebugPolicyCallback, om.CPerThread._fGetThreadNameCallback)\n"
            "files = {file.fCanonicalPathname: file for file in om.CPerFile.GetAllPerFiles()}\n"
            "encoder = files[json.encoder.__file__]\n"
            "print(encoder.fBpSetByLineno, {name for record in encoder.fKnownPerCodeObjects\n"
            "    for name in record.fEnabledBpLinenos})\n",
            "--program", "json", "--quiet")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.splitlines()[1:], [
            "None []", "0", "{'_iterencode_list': 0, '_iterencode_dict': 0}",
            "[None, None, None, None, None]", "None None None", "{} set()"])

    def test_a_second_session_in_the_same_process_sees_the_same(self):
        status, out, err = run_main_with(
            "assert filter_demo.main(sys.argv[1:]) == 0", "", "--program", "ast", "--quiet")
        self.assertEqual((status, err), (0, ""))
        # All but the events that the interpreter's own housekeeping adds at its own times.
        first, second = [re.sub(r"\d+ events, |\d+ ignored, ", "", line)
                         for line in out.splitlines()]
        self.assertEqual(first, second)


@unittest.skipIf(HAS_MONITORING, "the interpreter has sys.monitoring")
class OldInterpreterTest(unittest.TestCase):

    def test_message_names_the_version_needed(self):
        status, out, err = run_child(DEMO)
        self.assertEqual((status, out), (2, ""))
        self.assertTrue(err.startswith(
            "filter_demo: the event filter needs Python 3.12 or later (sys.monitoring); "
            "this is Python %d.%d, %s.\n" % (sys.version_info[:2] + (sys.executable,))), err)
        self.assertIn("python3.12 ", err)


if __name__ == "__main__":
    unittest.main()
