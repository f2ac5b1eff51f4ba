"""What the Python tests share: loading the module, reading its log, children, leaks, monitoring tools.

The environment variable OPTMONITORING_DIR names the folder of the built module. Runs on every interpreter from 2.7
on; only the parts that need the loaded module need `sys.monitoring`.
"""

import contextlib
import ctypes
import gc
import os
import subprocess
import sys
import sysconfig
import unittest
import warnings

HERE = os.path.dirname(os.path.abspath(__file__))
HOST_DIR = os.path.join(HERE, "stand_ins")
DEFAULT_MASK = 84           # the module's and the process-wide mask of a fresh import
HEAD_LINE = "EXCEPTION IN DEBUG TRACER:\n"
FREE_THREADED = bool(sysconfig.get_config_var("Py_GIL_DISABLED"))
# PYVERSIONS
CAN_DO_WITHOUT_LOCK = FREE_THREADED and (3, 13, 5) <= sys.version_info[:3] < (3, 14) and os.uname().machine == "x86_64"
WILL_LOCK_BE_OFF = FREE_THREADED and os.environ.get("PYTHON_GIL") in (("0", "", None) if CAN_DO_WITHOUT_LOCK else ("0",))
DEBUG_BUILD = hasattr(sys, "gettotalrefcount")

needs_monitoring = unittest.skipUnless(hasattr(sys, "monitoring"), "this interpreter has no sys.monitoring")

if FREE_THREADED and sys.version_info < (3, 14):
    # PYVERSIONS: free-threaded 3.13 makes code objects, classes and modules immortal as soon as a second thread starts:
    # they would never die, and their counts would never change
    import _testinternalcapi
    _testinternalcapi.suppress_immortalization(True)


# ---- The module ----

# read once: some programs that use this go to another folder
MODULE_DIR = os.path.abspath(os.environ.get("OPTMONITORING_DIR") or os.path.join(HERE, "..", "..", "build"))


def module_dir():
    return MODULE_DIR


def is_lock_off():
    """Whether threads run at the same time. After the module is loaded: where it needs the lock it has it switched on."""
    return FREE_THREADED and not sys._is_gil_enabled()


def module_file():
    return os.path.join(module_dir(), "optmonitoring.so")


def add_paths():
    """Make the built module and the stand-in host importable."""
    for folder in (HOST_DIR, module_dir()):
        if folder not in sys.path:
            sys.path.insert(0, folder)


def load():
    """The module under test."""
    add_paths()
    import optmonitoring
    return optmonitoring


def library():
    """The module's shared object, for its visible symbols; calls keep the interpreter lock."""
    return ctypes.PyDLL(module_file())


def process_mask():
    """The process-wide log mask as a ctypes variable: read and set its `value`."""
    return ctypes.c_int.in_dll(library(), "gDPrintfMask")


# ---- The log ----

class LogFile(object):
    """A log file that records what is written and each flush, in order."""

    def __init__(self):
        self.events = []        # ("write", text) and ("flush",)

    def write(self, text):
        self.events.append(("write", text))
        return len(text)

    def flush(self):
        self.events.append(("flush",))

    @property
    def writes(self):
        return [event[1] for event in self.events if event[0] == "write"]

    def getvalue(self):
        return "".join(self.writes)

    @property
    def lines(self):
        """The log's lines with their line ends."""
        return self.getvalue().splitlines(True)

    @property
    def failures(self):
        """The failure lines alone: what stands in front of each exception report."""
        return [line for line in self.lines if line.startswith(("Exception in ", "Failure in "))]

    def clear(self):
        del self.events[:]


@contextlib.contextmanager
def logging_to(mask, process_wide_mask=DEFAULT_MASK, log=None):
    """Log to a `LogFile` with the module's mask; no file and the default masks afterwards."""
    optmonitoring = load()
    log = LogFile() if log is None else log
    process_mask().value = process_wide_mask
    optmonitoring.set_dprintf_file(log, -1, 0)
    optmonitoring.set_dprintf_mask(mask)
    try:
        yield log
    finally:
        optmonitoring.set_dprintf_file(None, -1, 0)
        optmonitoring.set_dprintf_mask(DEFAULT_MASK)
        process_mask().value = DEFAULT_MASK


def get_mask():
    """The module's log mask, found by writing to single domains: no getter works. Needs a log that is open."""
    optmonitoring = load()
    mask = 0
    for bit in range(31):
        called = []

        def text():
            called.append(1)
            return ""

        optmonitoring.dprintf(1 << bit, text)
        if called:
            mask |= 1 << bit
    return mask


# ---- The interpreter's own exceptions ----

def error_text(action):
    """The text of the exception that the action raises; the interpreter's own texts differ between versions."""
    try:
        action()
    except Exception as e:
        return str(e)
    raise AssertionError("no exception was raised")


NOT_A_KEY = error_text(lambda: {}[[]])          # a list looked up in a dict
NOT_AN_ELEMENT = error_text(lambda: [] in {1})  # a list looked up in a set
DIVISION_BY_ZERO = error_text(lambda: 1 // 0)


# ---- Children ----

# Where the module needs the lock a free-threaded interpreter switches it on and says so on standard error; nothing else
# is hidden.
LOCK_WARNING = "The global interpreter lock (GIL) has been enabled to load module 'optmonitoring'"
CHILD_OPTIONS = ["-W", "ignore:%s:RuntimeWarning" % LOCK_WARNING] if FREE_THREADED and not CAN_DO_WITHOUT_LOCK else []


def run_child(script, *arguments, **options):
    """Exit status, standard output and standard error of a child interpreter.

    SCRIPT is the name of a file of this folder (ending in .py) or source text. The child can import `support`, the
    module under test and the stand-in host. Options: `path`, the folders to make importable in place of these;
    `environment`, variables to add.
    """
    path = options.pop("path", [module_dir(), HOST_DIR, HERE])
    environment = dict(os.environ, OPTMONITORING_DIR=module_dir(), PYTHONPATH=os.pathsep.join(path),
                       PYTHONDONTWRITEBYTECODE="1")
    environment.update(options.pop("environment", {}))
    if options:
        raise TypeError("unknown options: %s" % ", ".join(sorted(options)))
    if script.endswith(".py") and "\n" not in script:
        command = [sys.executable] + CHILD_OPTIONS + [os.path.join(HERE, script)]
    else:
        command = [sys.executable] + CHILD_OPTIONS + ["-c", script]
    child = subprocess.Popen(command + [str(argument) for argument in arguments], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, universal_newlines=True, env=environment)
    out, err = child.communicate()
    return child.returncode, out, err


def check_child(test, script, *arguments, **options):
    """Standard output of a child that has to end with status 0 and a silent standard error."""
    status, out, err = run_child(script, *arguments, **options)
    test.assertEqual((status, err), (0, ""), "child failed, it printed:\n" + out)
    return out


# ---- Leaks ----

# free-threaded interpreters give the memory of what one collection found back in a later one
COLLECTIONS = 3 if FREE_THREADED else 1


def bury_code():
    """To be called after the last reference to a code object has gone, when that death is to be seen.

    Free-threaded interpreters put off the counting of references to code objects: only the collector finds them dead.
    """
    if FREE_THREADED:
        gc.collect()


def total_instances(cls):
    """A number that grows by one with each live instance of the class; compare two of them.

    Instances of the module's classes are not known to the garbage collector, but each holds a reference to its
    class.
    """
    gc.collect()
    return sys.getrefcount(cls)


def references(objects):
    """The references to each object of a new list besides the list's and that of one variable of the caller.

    Tells counts apart from what a call adds: newer interpreters pass a variable's object without counting it.
    """
    alone = object()
    measure = [alone]
    counts = [sys.getrefcount(each) for each in measure + objects]
    return [count - counts[0] for count in counts[1:]]


def resident_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def allocated_blocks():
    """Memory blocks in use, or tracked objects where the interpreter does not count blocks."""
    if hasattr(sys, "_clear_type_cache"):
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            sys._clear_type_cache()         # fills up slowly and holds names
    for _ in range(COLLECTIONS):
        gc.collect()
    return sys.getallocatedblocks() if hasattr(sys, "getallocatedblocks") else len(gc.get_objects())


def repeat(action, count=200, warm_up=50):
    """Growth in memory blocks over COUNT calls, after some calls that fill caches."""
    if FREE_THREADED:
        warm_up = max(warm_up, count)       # how much a collection leaves for later depends on how much it has found
    for _ in range(warm_up):
        action()
    before = allocated_blocks()
    for _ in range(count):
        action()
    return allocated_blocks() - before


def assert_no_leak(test, action, count=200, warm_up=50, slack=20, rounds=3):
    """A leak of one block a call shows as COUNT blocks in every round; caches stop growing in one of them."""
    if FREE_THREADED:
        slack = max(slack, count // 2)      # the memory of what a collection has found comes back late, in lumps
    growths = []
    while len(growths) < rounds:
        growths.append(repeat(action, count, warm_up))
        if growths[-1] < slack:
            return
    test.fail("blocks over %d calls, round by round: %s" % (count, growths))


# ---- Monitoring ----

class MonitoringTool(object):
    """One tool id with its callbacks and events."""

    def __init__(self, tool_id):
        self.tool_id = tool_id
        self._callback_events = []
        self._codes = []

    def on(self, event, callback):
        """Register a callback; returns the one it replaces."""
        self._callback_events.append(event)
        return sys.monitoring.register_callback(self.tool_id, event, callback)

    def set_events(self, events):
        sys.monitoring.set_events(self.tool_id, events)

    def set_local_events(self, code, events):
        self._codes.append(code)
        sys.monitoring.set_local_events(self.tool_id, code, events)

    def close(self):
        self.set_events(0)
        for code in self._codes:
            sys.monitoring.set_local_events(self.tool_id, code, 0)
        for event in self._callback_events:
            sys.monitoring.register_callback(self.tool_id, event, None)
        sys.monitoring.restart_events()
        sys.monitoring.free_tool_id(self.tool_id)


@contextlib.contextmanager
def monitoring_tool(callbacks=None, events=0, tool_id=3, name="optmonitoring tests"):
    """A tool with the callbacks {event: callable} and the global events; everything is undone afterwards."""
    sys.monitoring.use_tool_id(tool_id, name)
    tool = MonitoringTool(tool_id)
    try:
        for event, callback in (callbacks or {}).items():
            tool.on(event, callback)
        tool.set_events(events)
        yield tool
    finally:
        tool.close()
