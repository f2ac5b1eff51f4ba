"""Importing the module: the one test file for every interpreter from 2.7 on. Each import happens in a child."""

import os
import shutil
import sys
import tempfile
import unittest

import support

HAS_MONITORING = hasattr(sys, "monitoring")
only_without_monitoring = unittest.skipIf(HAS_MONITORING, "this interpreter has sys.monitoring")
NO_MONITORING = "AttributeError: No sys.monitoring attribute\n"

# Defines attempt(): imports once and prints what came of it.
ATTEMPT = """
import ctypes, sys
import support

def attempt(show=True):
    try:
        import optmonitoring
    except Exception as e:
        result = "%s: %s" % (type(e).__name__, e)
    else:
        result = "imported"
    if show:
        print(result)
    return "optmonitoring" in sys.modules

if "no host" in sys.argv:
    sys.path.remove(support.HOST_DIR)
"""

# Defines measure(action, count): whether memory blocks stayed in number, and the growth in bytes over COUNT calls.
MEASURE = """
def measure(action, count):
    for _ in range(count):
        action()
    before, resident = support.allocated_blocks(), support.resident_bytes()
    for _ in range(count):
        action()
    growth, resident = support.allocated_blocks() - before, support.resident_bytes() - resident
    return growth < count // 2 or growth, resident      # a block an attempt would be COUNT
"""

# What one attempt may keep for good: the definition that the interpreter was given.
DEFINITION_BYTES = 4096


class ImportTest(unittest.TestCase):

    def attempt(self, source, *arguments):
        return support.check_child(self, ATTEMPT + source, *arguments)


class AnyInterpreterTest(ImportTest):
    """What holds with and without sys.monitoring."""

    EXPECTED = "imported\n" if HAS_MONITORING else NO_MONITORING

    def test_start_up_that_fails_is_an_import_error_and_may_be_tried_again(self):
        out = self.attempt("""
library = ctypes.PyDLL(support.module_file())
print(library.XPy_DbgSetFailOnImport(1))
print(attempt())
print(attempt())
print(library.XPy_DbgSetFailOnImport(0))
attempt()
""")
        failed = "ImportError: Unable to init XPy\nFalse\n"
        self.assertEqual(out, "0\n" + failed + failed + "1\n" + self.EXPECTED)

    def test_start_up_that_fails_does_not_leak(self):
        out = self.attempt(MEASURE + """
ctypes.PyDLL(support.module_file()).XPy_DbgSetFailOnImport(1)
steady, resident = measure(lambda: attempt(False), 500)
print(steady)
print(resident < 1 << 20 or resident)
""")
        self.assertEqual(out, "True\nTrue\n")

    def test_binding_knows_the_interpreter_afterwards(self):
        out = self.attempt("""
attempt(False)
library = ctypes.PyDLL(support.module_file())
print((library.XPy_GetMajorVersion(), library.XPy_GetMinorVersion()) == sys.version_info[:2])
""")
        self.assertEqual(out, "True\n")

    def test_import_changes_nothing_in_the_process(self):
        out = self.attempt("""
attempt()
print(sys.gettrace(), sys.getprofile())
if hasattr(sys, "monitoring"):
    print([sys.monitoring.get_tool(i) for i in range(6)])
""")
        tools = "[None, None, None, None, None, None]\n" if HAS_MONITORING else ""
        self.assertEqual(out, self.EXPECTED + ("None None\n" if sys.version_info[0] > 2 else "(None, None)\n") + tools)

    def test_loading_the_file_without_importing_it_is_harmless(self):
        out = self.attempt("""
library = ctypes.PyDLL(support.module_file())
print(hasattr(library, "PyInit_optmonitoring"), hasattr(library, "initoptmonitoring"))
""")
        self.assertEqual(out.count("True"), 2)


@only_without_monitoring
class WithoutMonitoringTest(ImportTest):
    """Interpreters without sys.monitoring refuse the module."""

    def test_import_fails_and_leaves_no_module(self):
        self.assertEqual(self.attempt("print(attempt())"), NO_MONITORING + "False\n")

    def test_host_is_not_looked_for(self):
        self.assertEqual(self.attempt("print(attempt())\nprint('brixbase' in sys.modules)", "no host"),
                         NO_MONITORING + "False\nFalse\n")

    def test_every_further_attempt_fails_alike(self):
        self.assertEqual(self.attempt("print([attempt() for _ in range(3)])"),
                         NO_MONITORING * 3 + "[False, False, False]\n")

    def test_failed_imports_do_not_leak(self):
        out = self.attempt(MEASURE + """
steady, resident = measure(lambda: attempt(False), 500)
print(steady)
print(resident < 500 * %d + (1 << 20) or resident)
""" % DEFINITION_BYTES)
        self.assertEqual(out, "True\nTrue\n")

    def test_interpreter_works_on_and_ends_well(self):
        status, out, err = support.run_child("""
import sys
try:
    import optmonitoring
except AttributeError:
    print(sum(range(1000)))
import threading
thread = threading.Thread(target=sys.stdout.write, args=("thread",))
thread.start()
thread.join()
sys.exit(3)
""")
        self.assertEqual((status, out, err), (3, "499500\nthread", ""))


@support.needs_monitoring
class WithMonitoringTest(ImportTest):
    """Interpreters with sys.monitoring load the module."""

    def test_import_works_and_gives_one_module(self):
        out = self.attempt("""
print(attempt())
import optmonitoring as first
import optmonitoring as second
print(first is second is sys.modules["optmonitoring"], first.__file__ == support.module_file(), first.__name__)
""")
        self.assertEqual(out, "imported\nTrue\nTrue True optmonitoring\n")

    def test_missing_sys_monitoring_is_an_attribute_error(self):
        self.assertEqual(self.attempt("del sys.monitoring\nprint(attempt())"), NO_MONITORING + "False\n")

    def test_import_after_a_failed_one(self):
        out = self.attempt("kept = sys.monitoring\ndel sys.monitoring\nattempt()\nsys.monitoring = kept\nattempt()")
        self.assertEqual(out, NO_MONITORING + "imported\n")

    def test_host_package_is_needed(self):
        out = self.attempt("print(attempt())\nsys.path.append(support.HOST_DIR)\nprint(attempt())", "no host")
        self.assertEqual(out, "ModuleNotFoundError: No module named 'brixbase'\nFalse\nimported\nTrue\n")

    def with_dlog(self, source):
        """What an import prints with this text as brixbase/dlog.py, None: without the file."""
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        package = os.path.join(folder, "brixbase")
        os.mkdir(package)
        for name, text in [("__init__.py", ""), ("dlog.py", source)]:
            if text is not None:
                with open(os.path.join(package, name), "w") as f:
                    f.write(text)
        return self.attempt("sys.path.append(sys.argv[2])\nprint(attempt())", "no host", folder)

    def test_host_log_module_is_needed(self):
        self.assertEqual(self.with_dlog(None), "ModuleNotFoundError: No module named 'brixbase.dlog'\nFalse\n")

    def test_both_host_functions_are_needed(self):
        self.assertEqual(self.with_dlog("LogException = None"),
                         "AttributeError: module 'brixbase.dlog' has no attribute 'Log'\nFalse\n")
        self.assertEqual(self.with_dlog("Log = None"),
                         "AttributeError: module 'brixbase.dlog' has no attribute 'LogException'\nFalse\n")

    def test_any_values_are_taken_for_the_host_functions(self):
        self.assertEqual(self.with_dlog("Log = None; LogException = 1"), "imported\nTrue\n")

    def test_exception_of_the_host_module_comes_through(self):
        self.assertEqual(self.with_dlog("raise ValueError('not now')"), "ValueError: not now\nFalse\n")

    def test_host_functions_are_not_called_by_the_import(self):
        self.assertEqual(self.with_dlog("def Log(*args): raise SystemExit\nLogException = Log"), "imported\nTrue\n")

    def test_host_module_that_calls_back_while_it_is_imported(self):
        self.assertEqual(self.with_dlog(
            "import sys\n"
            "module = sys.modules['optmonitoring']\n"
            "code = compile('x = 1', '/nowhere/early.py', 'exec')\n"
            "module.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe()).fEnabledBpLinenos = set()\n"
            "callback = module.CInitialCallback(module.kPyStartEventId, None, 1)\n"
            "assert callback.Callback(code, 0) is None\n"
            "Log = LogException = None\n"), "imported\nTrue\n")

    def test_import_again_makes_a_module_of_its_own(self):
        out = self.attempt("""
import optmonitoring as first
del sys.modules["optmonitoring"]
import optmonitoring as second
print(first is second, first.CPerThread is second.CPerThread)
record = first.CPerThread.GetPerThread()
print(second.CPerThread.GetPerThread() is record, type(record) is first.CPerThread)
print(first.CPerFile.__basicsize__ == second.CPerFile.__basicsize__)
""")
        self.assertEqual(out, "False False\nFalse True\nTrue\n")

    def test_second_start_adds_no_object_head(self):
        out = self.attempt("""
import optmonitoring, state
library = ctypes.PyDLL(support.module_file())
library.PyInit_optmonitoring.restype = ctypes.c_void_p      # borrowed
names = ["CInitialCallback", "CPerFile", "CPerCodeObject", "CPerThread"]
sizes = [getattr(optmonitoring, name).__basicsize__ for name in names]
for _ in range(3):
    library.PyInit_optmonitoring()
print(sizes == [object.__basicsize__ + size for size in (48, 32, 72 if support.is_lock_off() else 64, 136)])
print(sizes == [getattr(state.new_module(), name).__basicsize__ for name in names])
""")
        self.assertEqual(out, "True\nTrue\n")

    @unittest.skipIf(os.sysconf("SC_THREAD_KEYS_MAX") < 254, "the C library runs out of thread-specific storage keys first")
    def test_import_fails_when_the_extra_indexes_are_used_up(self):
        out = self.attempt("""
count = 0
while True:
    try:
        import optmonitoring
    except RuntimeError as e:
        print(count, e, "optmonitoring" in sys.modules)
        break
    count += 1
    del sys.modules["optmonitoring"]
print(attempt())
""")
        message = "No code object extra index available"
        self.assertEqual(out, "254 %s False\nRuntimeError: %s\nFalse\n" % (message, message))

    def test_first_module_works_on_when_the_extra_indexes_are_used_up(self):
        out = self.attempt("""
import optmonitoring as first
for _ in range(254):
    sys.modules.pop("optmonitoring", None)
    attempt(False)
code = compile("pass", "<x>", "exec")
record = first.CPerCodeObject.GetPerCodeObject(code)
print(first.CPerCodeObject.GetPerCodeObject(code) is record)
del code, record
support.bury_code()
print(len(first.CPerCodeObject._fPerCodeObjectDict))
""")
        self.assertEqual(out, "True\n0\n")

    def test_import_fails_when_the_storage_keys_are_used_up(self):
        out = self.attempt("""
attempt()
del sys.modules["optmonitoring"]
create = ctypes.CDLL(None).pthread_key_create
keys = []
while True:
    key = ctypes.c_uint()
    if create(ctypes.byref(key), None):
        break
    keys.append(key)
print(len(keys) > 100)
print(attempt())
ctypes.CDLL(None).pthread_key_delete(keys.pop())
print(attempt())
""")
        self.assertEqual(out, "imported\nTrue\nRuntimeError: No thread-specific storage key available\nFalse\n"
                              "imported\nTrue\n")

    def test_imports_that_fail_early_do_not_leak(self):
        out = self.attempt(MEASURE + """
del sys.monitoring
steady, resident = measure(lambda: attempt(False), 500)
print(steady)
print(resident < 500 * %d + (1 << 20) or resident)
""" % DEFINITION_BYTES)
        self.assertEqual(out, "True\nTrue\n")

    def test_imports_that_fail_late_do_not_leak(self):
        # a missing host package fails after everything else was made, and each attempt uses up an extra index
        out = self.attempt(MEASURE + """
counts = sys.getrefcount(sys.monitoring.DISABLE)
import threading
threading_count = sys.getrefcount(threading)
steady, resident = measure(lambda: attempt(False), 120)
print(steady)
print(resident < 120 * 2 * %d + (1 << 20) or resident)
print(sys.getrefcount(sys.monitoring.DISABLE) - counts, sys.getrefcount(threading) - threading_count)
""" % DEFINITION_BYTES, "no host")
        self.assertEqual(out, "True\nTrue\n0 0\n")

    def test_isolated_interpreter_refuses_the_module(self):
        out = self.attempt("""
try:
    import _interpreters as interpreters
except ImportError:
    import _xxsubinterpreters as interpreters
attempt()
sys.stdout.flush()        # the other interpreter has a buffer of its own
interpreter = interpreters.create()
text = '''
import sys
sys.path[:] = %r
try:
    import optmonitoring
except ImportError as e:
    print(e, "optmonitoring" in sys.modules, flush=True)
''' % (sys.path,)
result = interpreters.run_string(interpreter, text)
print(result)
interpreters.destroy(interpreter)
import optmonitoring
print(optmonitoring.GetPathnameKind("<x>"))
""")
        self.assertEqual(out, "imported\n"
                              "module optmonitoring does not support loading in subinterpreters False\n"
                              "None\n4\n")

    def test_interpreter_ends_well_with_everything_in_use(self):
        status, out, err = support.run_child("""
import sys, threading
import support
m = support.load()
log = support.LogFile()
m.set_dprintf_file(log, -1, 0)
m.set_dprintf_mask(1023)
m.SetInternalPathnameDict({"/x.py": 1})
m.set_checksum_callback(lambda name: "sum")
records = [m.CPerThread.GetPerThread(), m.CPerFile.GetPerFile("/a.py"),
           m.CPerCodeObject.GetPerCodeObject(compile("pass", "/b.py", "exec"))]
thread = threading.Thread(target=m.CPerThread.GetPerThread)
thread.start()
thread.join()
start = sys.monitoring.events.PY_START
callback = m.CInitialCallback(start, lambda *args: None, 1)
sys.monitoring.use_tool_id(3, "end")
sys.monitoring.register_callback(3, start, callback.Callback)
sys.monitoring.set_events(3, start)
(lambda: 0)()
sys.exit(3)
""", environment={"PYTHONMALLOC": "debug"})
        self.assertEqual((status, out, err), (3, "", ""))

    def test_interpreter_ends_well_with_a_native_log_file(self):
        status, out, err = support.run_child("""
import sys
import support
m = support.load()
m.set_dprintf_file(sys.stdout, 1, 0)
m.set_dprintf_mask(1023)
m.CPerThread.GetPerThread()
m.dprintf(4, "text\\n")
""", environment={"PYTHONMALLOC": "debug"})
        self.assertEqual((status, err), (0, ""))
        self.assertIn("text\n", out)


if __name__ == "__main__":
    unittest.main()
