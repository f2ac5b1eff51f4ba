"""Runs one path of a monitoring event many times, and proves at the end that it was this path.

    OPTMONITORING_DIR=BUILD PYTHON event_paths.py VARIANT COUNT [PASSES [WARM_UP]]
    PYTHON event_paths.py --list

A variant is a way to watch a hot loop of COUNT turns: not at all, with rivals written in Python, or with the filter,
one variant for each way an event can be answered.  The measured passes run below a function of the interpreter's that
nothing else calls, so that instructions can be counted there alone; a warm-up of WARM_UP turns runs before them and
outside of it.  Where that is no use, in new threads, instructions are the difference between two COUNTs: everything
outside of the loop costs the same for every COUNT and in every run.  So the collector is off, and the process ends
without tearing anything down.  Little is imported: under valgrind the interpreter's start takes the time.

Prints blank-separated names and values: `events`, those of one pass; `seconds` of processor time of the fastest pass;
`pid` where it was another process that ran the loop.  Exit status 0; 1 when the variant did not do its work; 77 when
this interpreter cannot run it.

variants.py says what is compared with what.  debugpy, a peer, is measured where it is installed: among the
interpreter's packages, or in the folder BENCH_DEBUGPY, in which `{version}` stands for 3.14 and the like.
"""

import _thread
import gc
import operator
import os
import sys
import time

from event_watch import (END_LINE, EVENTS, HERE, LINE, RESUME, RETURN, START, TOOL, TURN_LINES, YIELD, Failed, Filter,
                         Recorder, bare_callback, callee, check, line_loop, lines_of, replace_callback, watch)

SKIPPED = 77
DEBUG_CLIENT = os.path.join(HERE, "debug_client.py")
NEW_FILE = "/nonexistent/program_%d.py"


class Skipped(Exception):
    """This interpreter cannot run the variant."""


class Enclosed:
    """The loop below a function of the interpreter that nothing else calls: instructions can be counted there alone."""

    def __init__(self, loop):
        self.loop = loop

    def __matmul__(self, count):
        return self.loop(count)


# ---- Variants ----
# A variant is a generator: it sets up until its `yield`, which may give a loop other than the kind's own; the measured
# passes run there, and their number, with the warm-up, is sent in; then it proves.
#
# A loop may have `prepare`, which gets ready for a pass and is not measured.  One with `seconds`, its own time of the
# last pass, runs below the counted function by itself.

VARIANTS = {}     # name -> (kind, generator function)


def variant(kind, name=None):
    def register(function):
        VARIANTS[name or function.__name__] = kind, function
        return function
    return register


def _untraced():
    check(sys.gettrace() is None and sys.monitoring.get_tool(TOOL) is None, "something is watching")
    yield
    check(sys.gettrace() is None and sys.monitoring.get_tool(TOOL) is None, "something was watching")


for _name, _kind in (("none", LINE), ("none_call", START), ("none_generator", YIELD)):
    variant(_kind, _name)(_untraced)


def _floor(kind, callback=None):
    def floor():
        floor_callback = callback or bare_callback(kind)
        watch(kind, floor_callback)
        yield
        recorder = Recorder()
        replace_callback(kind, floor_callback, recorder)
        kind.loop(2)
        check(len(recorder.seen) >= 2 * kind.per_turn, "only %d events of 2 turns came", len(recorder.seen))
    return floor


for _name, _kind in (("floor", LINE), ("floor_start", START), ("floor_return", RETURN), ("floor_yield", YIELD),
                     ("floor_resume", RESUME)):
    variant(_kind, _name)(_floor(_kind))


@variant(LINE)
def py_noop():
    def callback(code, line):
        pass
    yield from _floor(LINE, callback)()


@variant(LINE)
def py_filter():
    """What a host without native code would write: breakpoint lines by file (hashing a code object is slow)."""
    breakpoints = {line_loop.__code__.co_filename: {END_LINE}}
    seen = []

    def callback(code, line):
        lines = breakpoints.get(code.co_filename)
        if lines is not None and line in lines:
            seen.append(line)
    watch(LINE, callback)
    passes = yield
    check(seen == [END_LINE] * passes, "reported %r in %d passes", seen, passes)


@variant(LINE)
def settrace():
    lines = []

    def trace(frame, event, arg):
        return trace

    def recording(frame, event, arg):
        if event == "line":
            lines.append(frame.f_lineno)
        return recording

    def loop(count, function=trace):
        sys.settrace(function)
        result = line_loop(count)
        sys.settrace(None)
        return result
    yield loop
    loop(2, recording)
    check(lines == lines_of(2), "the trace function saw %r", lines)


def _bdb(**options):
    import bdb

    class Debugger(bdb.Bdb):
        stops = []

        def user_line(self, frame):
            if frame.f_lineno == END_LINE:
                self.stops.append(frame.f_lineno)
            self.set_continue()

    debugger = Debugger(**options)
    error = debugger.set_break(line_loop.__code__.co_filename, END_LINE)
    check(not error, "%s", error)
    passes = yield lambda count: debugger.runcall(line_loop, count)
    check(debugger.stops == [END_LINE] * passes, "stopped at %r in %d passes", debugger.stops, passes)


@variant(LINE)
def bdb():
    yield from _bdb()


@variant(LINE)
def bdb_monitoring():
    if sys.version_info < (3, 14):
        raise Skipped("bdb has no monitoring backend before 3.14")
    yield from _bdb(backend="monitoring")


def _import_debugpy():
    import site
    folder = os.environ.get("BENCH_DEBUGPY", "").replace("{version}", "%d.%d" % sys.version_info[:2])
    sys.path.extend(filter(None, [folder] + site.getsitepackages()))
    os.environ["PYDEVD_DISABLE_FILE_VALIDATION"] = "1"      # no word about frozen modules
    try:
        import debugpy as module
    except ImportError:
        raise Skipped("not installed") from None
    return module


@variant(LINE)
def debugpy():
    """A breakpoint whose condition does not hold until the passes are over: a stop takes longer than a pass."""
    module = _import_debugpy()
    import subprocess
    module.configure(subProcess=False)
    _, port = module.listen(("127.0.0.1", 0), in_process_debug_adapter=True)
    client = subprocess.Popen([sys.executable, "-S", DEBUG_CLIENT, str(port), line_loop.__code__.co_filename,
                               str(END_LINE), "count == 3"], stdout=subprocess.PIPE, text=True)
    module.wait_for_client()
    yield lambda count: line_loop(count)
    line_loop(3)
    client.terminate()
    stops = client.communicate()[0].split()
    check(stops == [str(END_LINE)], "stopped at %r", stops)


# ---- Variants of the filter: LINE ----

@variant(LINE)
def line_off():
    """The common path: a line without a breakpoint, answered before the thread's record is looked for."""
    f = Filter(LINE)
    f.watch()
    f.prove((yield), [END_LINE])


@variant(LINE)
def line_on():
    f = Filter(LINE, c_second=True, lines=TURN_LINES)
    f.watch()
    yield
    f.prove_forwarded(2, TURN_LINES * 2 + TURN_LINES[:1])


@variant(LINE)
def line_skip_thread():
    """A line without a breakpoint while stepping is on somewhere: the decision is made with the thread's record."""
    f = Filter(LINE)
    f.callback.fSteppingEventsNeededEveryThread = 1
    f.watch()
    f.prove((yield), [END_LINE])
    f.thread.fSteppingEventsNeeded = True         # the path goes by this record
    f.prove_reports(2, lines_of(2))


@variant(LINE)
def step_thread():
    """Stepping in this thread: forwarded."""
    f = Filter(LINE, c_second=True)
    f.callback.fSteppingEventsNeededEveryThread = 1
    f.thread.fSteppingEventsNeeded = True
    f.watch()
    yield
    f.prove_forwarded(2, lines_of(2))


@variant(LINE)
def step_code():
    """Stepping in this code object: forwarded."""
    f = Filter(LINE, c_second=True)
    f.record.fSteppingEventsNeededCount = 1
    f.watch()
    yield
    f.prove_forwarded(2, lines_of(2))


@variant(LINE)
def policy_0():
    """A thread that is not debugged, while stepping is on somewhere."""
    f = Filter(LINE, policy=0)
    f.callback.fSteppingEventsNeededEveryThread = 1
    f.watch()
    f.prove((yield), [])
    f.thread.fDebugPolicy = 1
    f.prove_reports(2, [END_LINE])
    f.thread.fSteppingEventsNeeded = True         # every line's event came as far as the policy
    f.prove_reports(2, lines_of(2))


@variant(LINE)
def any_suspend():
    """Some thread is to be suspended, not this one."""
    f = Filter(LINE)
    f.callback.fAnySuspendThread = 1
    f.watch()
    f.prove((yield), [END_LINE])

    class Lock:
        passed = 0

        def acquire(self):
            self.passed += 1

        def release(self):
            pass

    f.thread.fSuspendLock = lock = Lock()
    f.thread.fCheckSuspendLock = 1
    f.prove_reports(2, [END_LINE])
    check(lock.passed == len(lines_of(2)), "the lock was passed %d times", lock.passed)


@variant(LINE)
def internal_disable():
    """The debugger's own code: each location is switched off at its first event."""
    f = Filter(LINE, internal=True)
    f.watch()
    f.prove((yield), [])
    check(f.record.fIsInternal is True, "the code is not internal")
    f.prove_places_alive(False)


@variant(LINE)
def internal_none():
    """The debugger's own code where locations may not be switched off."""
    f = Filter(LINE, internal=True, can_return_disable=0)
    f.watch()
    f.prove((yield), [])
    check(f.record.fIsInternal is True, "the code is not internal")
    f.prove_places_alive(True)


def _without_name_hook(function):
    def unnamed():
        Filter.has_name_hook = False
        yield from function()
    return unnamed


for _function in (line_skip_thread, step_thread, policy_0):
    variant(LINE, _function.__name__ + "_no_hook")(_without_name_hook(_function))


def _table_size(lines):
    """How many entries the table of a copy of the set has."""
    return (sys.getsizeof(set(lines)) - sys.getsizeof(set())) // 16 or 8    # 8 are in the set itself


def _breakpoints(size, collide):
    """A set of lines none of which is passed in the loop; all or none of those lines share their place in its table."""
    table = _table_size(set(range(size)))
    lines = {END_LINE} | {line + table for line in TURN_LINES if collide}
    free = (number for number in range(1000, sys.maxsize, 3)
            if all((number - line) % table for line in TURN_LINES))
    while len(lines) < size:
        lines.add(next(free))
    sharing = sum(any((number - line) % table == 0 for number in lines) for line in TURN_LINES)
    check(_table_size(lines) == table and sharing == len(TURN_LINES) * collide,
          "%d lines in a table of %d, not %d", sharing, _table_size(lines), table)
    return lines


def _line_off_many(size, collide):
    def line_off_many():
        f = Filter(LINE, lines=_breakpoints(size, collide))
        check(len(f.record.fEnabledBpLinenos) == size, "not %d lines", size)
        f.watch()
        f.prove((yield), [END_LINE])
    return line_off_many


for _size in (5, 100, 10000):
    variant(LINE, "line_collides_%d" % _size)(_line_off_many(_size, True))
    variant(LINE, "line_off_%d" % _size)(_line_off_many(_size, False))


WARM_UP_IN_CHILD = 500  # turns
measured_pid = None     # where it is not this process


class ForkLoop:
    """The loop in a forked child, which proves there what it did and sends back its own time."""

    def __init__(self, f):
        self.filter = f
        self.seconds = None

    def _run_in_child(self, count, pipe):
        line_loop(WARM_UP_IN_CHILD)
        before = time.process_time()
        turns = Enclosed(line_loop) @ count
        os.write(pipe, repr(time.process_time() - before).encode())
        check(turns == count, "%d turns in the child", turns)
        self.filter.prove(1, [])
        self.filter.om.UpdateThisProcessPid()
        self.filter.prove_reports(2, [END_LINE])

    def __call__(self, count):
        global measured_pid
        out, into = os.pipe()
        measured_pid = os.fork()
        if measured_pid == 0:
            exit_with(lambda: self._run_in_child(count, into))
        os.close(into)
        answer = os.read(out, 100)
        os.close(out)
        status = os.waitstatus_to_exitcode(os.waitpid(measured_pid, 0)[1])
        check(status == 0, "the child ended with status %d", status)
        self.seconds = float(answer)
        return count


@variant(LINE)
def fork_child():
    """A forked child whose host has not taken it over."""
    f = Filter(LINE)
    f.watch()
    yield ForkLoop(f)
    check(f.seen == [], "the parent reported %r", f.seen)
    f.prove_reports(2, [END_LINE])


# ---- Variants of the filter: the other kinds ----

def _skipped(kind):
    def skipped():
        f = Filter(kind)
        f.watch()
        f.prove((yield), [])
        f.thread.fSteppingEventsNeeded = True
        kind.loop(3)
        check(len(f.seen) >= 3, "while stepping, only %d events of 3 turns were reported", len(f.seen))
    return skipped


for _name, _kind in (("start_skipped", START), ("return_skipped", RETURN), ("yield_skipped", YIELD),
                     ("resume_skipped", RESUME)):
    variant(_kind, _name)(_skipped(_kind))


# ---- First events ----

PROVED = 20     # functions; proving all of them would cost the more the higher COUNT is


class FirstEvents:
    """A loop over COUNT functions that never ran before; making them is a part of every COUNT, in the floor as well."""

    def __init__(self, new_files, callback=None):
        self.new_files = new_files
        self.callback = callback
        self.functions = []     # of the last pass
        self.made = 0           # in all passes

    def _make(self, number):
        code = callee.__code__.replace(co_name="callee_%d" % number,
                                       co_filename=NEW_FILE % (number if self.new_files else 0))
        return type(callee)(code, {})

    def prepare(self, count):
        self.functions = [self._make(self.made + i) for i in range(count)]
        self.made += count
        if not self.callback:
            return
        watch(START, self.callback)
        for function in self.functions:
            sys.monitoring.set_local_events(TOOL, function.__code__, EVENTS.PY_START)

    def __call__(self, count):
        for function in self.functions:
            function()
        return count

    def prove_events(self, seen):
        """With the recorder of `seen` as callback, the functions still have their events."""
        for function in self.functions[-PROVED:]:
            function()
        check(len(seen) == PROVED, "%d events of %d functions came", len(seen), PROVED)


def _first_untraced(new_files):
    def untraced():
        yield FirstEvents(new_files)
        check(sys.monitoring.get_tool(TOOL) is None, "something was watching")
    return untraced


def _first_floor(new_files):
    def floor():
        loop = FirstEvents(new_files, operator.is_)
        yield loop
        recorder = Recorder()
        replace_callback(START, operator.is_, recorder)
        loop.prove_events(recorder.seen)
    return floor


def _first_event(new_files):
    def first_event():
        f = Filter(START, c_second=True)
        files = len(f.om.CPerFile.GetAllPerFiles())
        loop = FirstEvents(new_files, f.callback.Callback)
        yield loop
        get = f.om.CPerCodeObject.GetPerCodeObject
        records = {get(function.__code__, False) for function in loop.functions[-PROVED:]}
        check(None not in records and len(records) == PROVED, "%d records for %d code objects", len(records), PROVED)
        new = len(f.om.CPerFile.GetAllPerFiles()) - files
        expected = loop.made if new_files else 1
        check(new == expected, "%d new files, expected %d", new, expected)
        f.prove_quiet()
        f.record_forwarded()
        loop.prove_events(f.seen)       # a record without breakpoint lines forwards
    return first_event


for _suffix, _new_files in (("same_file", False), ("new_file", True)):
    variant(START, "none_first_" + _suffix)(_first_untraced(_new_files))
    variant(START, "floor_first_" + _suffix)(_first_floor(_new_files))
    variant(START, "first_event_" + _suffix)(_first_event(_new_files))


def _run_threads(count):
    """Threads that raise one event each, one after the other."""
    done = _thread.allocate_lock()
    done.acquire()

    def run():
        try:
            callee()
        finally:
            done.release()
    for _ in range(count):
        _thread.start_new_thread(run, ())
        done.acquire()
    return count


@variant(START)
def none_thread():
    yield _run_threads
    check(sys.monitoring.get_tool(TOOL) is None, "something was watching")


@variant(START)
def floor_thread():
    watch(START, operator.is_)
    yield _run_threads
    recorder = Recorder()
    replace_callback(START, operator.is_, recorder)
    _run_threads(3)
    check(len(recorder.seen) == 3, "%d events of 3 threads came", len(recorder.seen))


@variant(START)
def new_thread():
    """A thread's first event, with the life and death of its record; the host's two hooks are C functions."""
    f = Filter(START)
    f.om.CPerThread.SetDebugPolicyCallback(operator.truth)
    f.om.CPerThread.SetGetThreadNameCallback(operator.attrgetter("fThreadId"))
    f.watch()
    yield _run_threads
    found = []
    done = _thread.allocate_lock()
    done.acquire()

    def run():
        try:
            found.append(f.om.CPerThread.GetPerThread(None, False))
            callee()
            record = f.om.CPerThread.GetPerThread(None, False)
            if record is not None:
                found.extend((record.fDebugPolicy, record.fThreadName == _thread.get_ident()))
        finally:
            done.release()
    _thread.start_new_thread(run, ())
    done.acquire()
    check(found == [None, 1, True], "a thread's record before and after its event: %r", found)
    check(f.seen == [], "reported %r", f.seen)
    f.record.fSteppingEventsNeededCount = 1
    _run_threads(3)
    check(len(f.seen) == 3, "while stepping, %d events of 3 threads were reported", len(f.seen))


# ---- Running ----

def run_pass(loop, count, counted=True):
    """Seconds of one pass."""
    if hasattr(loop, "prepare"):
        loop.prepare(count)
    has_own = hasattr(loop, "seconds")
    enclosed = Enclosed(loop)
    before = time.process_time()
    turns = enclosed @ count if counted and not has_own else loop(count)
    seconds = time.process_time() - before
    check(turns == count, "%r turns instead of %d", turns, count)
    return loop.seconds if has_own else seconds


def run(name, count, passes=1, warm_up=0):
    kind, function = VARIANTS[name]
    gc.disable()
    steps = function()
    loop = next(steps) or kind.loop
    if warm_up:
        run_pass(loop, warm_up, counted=False)
    seconds = [run_pass(loop, count) for _ in range(passes)]
    try:
        steps.send(passes + bool(warm_up))
        raise Failed("the variant did not end")
    except StopIteration:
        pass
    if loop is kind.loop and sys.monitoring.get_tool(TOOL):
        kind.prove_events()
    print("events", count * kind.per_turn)
    print("seconds", min(seconds))
    if measured_pid:
        print("pid", measured_pid)


def exit_with(function):
    """Run and end the process at once: the end of an interpreter costs the more the more it holds."""
    status = 0
    try:
        function()
    except Skipped as reason:
        print("skipped: %s" % reason)
        status = SKIPPED
    except Failed as reason:
        print("event_paths.py %s: %s" % (" ".join(sys.argv[1:]), reason), file=sys.stderr)
        status = 1
    except BaseException:
        sys.excepthook(*sys.exc_info())
        status = 1
    sys.stdout.flush()
    sys.stderr.flush()
    os._exit(status)


def main(arguments):
    if arguments == ["--list"]:
        print("\n".join(VARIANTS))
        return
    numbers = arguments[1:]
    if len(numbers) not in (1, 2, 3) or arguments[0] not in VARIANTS or not all(n.isdecimal() for n in numbers):
        sys.exit("usage: event_paths.py VARIANT COUNT [PASSES [WARM_UP]] | --list")
    exit_with(lambda: run(arguments[0], *map(int, numbers)))


if __name__ == "__main__":
    main(sys.argv[1:])
