"""Threads that do everything at once under the filter, for as long as asked: a free-threaded interpreter without its lock
must survive it, and so must every other.

    PYTHON_GIL=0 OPTMONITORING_DIR=BUILD PYTHON child_storm.py SECONDS [WEATHER...]

runs each kind of weather for an equal part of the time, all of them by default, and prints what it counted.
"""

import collections
import faulthandler
import gc
import itertools
import os
import random
import signal
import sys
import tempfile
import threading
import traceback
import warnings

import support

THREADS = 8
ROUND = 50          # new things that all threads come to
TOOL = 3
NAMES = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
CHILD = 10          # seconds for a forked child
GRACE = 60          # seconds after the end until threads that do not end are shown
kinds = {}


def weather(function):
    """One kind: called by each thread until the end, with the storm and the thread's own random numbers."""
    kinds[function.__name__] = function
    return function


class Storm:
    """The filter with all its events, the functions that all threads run, and what they count."""

    def __init__(self):
        self.om = support.load()
        self.counts = collections.Counter()
        self.number = itertools.count()
        self.seen = itertools.count()
        self.errors = []
        self.over = threading.Event()
        self.shared = [self.program("/nowhere/shared_%d.py" % n) for n in range(4)]
        self.ended = [self.program("/nowhere/ended_%d.py" % n) for n in range(4)]   # whose records are
        self.events = {name: getattr(sys.monitoring.events, name) for name in NAMES}

    def second(self, code, *args):
        next(self.seen)

    def program(self, filename, text="pass"):
        """A function of its own, a generator and a nested function; line 3 is the body of the loop."""
        namespace = {}
        exec(compile("def run(count):\n"
                     "    for n in range(count):\n"
                     "        m = n\n"
                     "    return [each for each in items(count)]\n"
                     "def items(count):\n"
                     "    for n in range(count):\n"
                     "        yield (lambda: n)()\n"
                     "%s\n" % text, filename, "exec"), namespace)
        return namespace["run"], namespace["items"]

    def record(self, function):
        return self.om.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe())

    def watch_lines(self, function):
        sys.monitoring.set_local_events(TOOL, function.__code__, self.events["LINE"])

    def expect(self, holds, text):
        """What a reset may put an end to in the middle."""
        assert holds or self.kind == "everything", text

    def work(self, kind, seed):
        chance = random.Random(seed)
        try:
            while not self.over.is_set():
                kinds[kind](self, chance)
                self.counts[kind] += 1      # about: threads may count at the same time
        except threading.BrokenBarrierError:
            pass                            # another thread has come to its end
        except BaseException as e:
            self.errors.append((kind, e))
            self.over.set()
        self.barrier.abort()

    def blow(self, kind, seconds):
        """All threads at it; whoever fails ends it."""
        self.over.clear()
        self.kind, self.barrier = kind, threading.Barrier(THREADS)
        threads = [threading.Thread(target=self.work, args=(kind, "%s %d" % (kind, n))) for n in range(THREADS)]
        for thread in threads:
            thread.start()
        self.over.wait(seconds)
        self.over.set()
        for thread in threads:
            thread.join()


# ---- The kinds ----

@weather
def code(storm, chance):
    """Code objects are made, run and dropped; many are equal."""
    text = "pass" if chance.random() < 0.5 else "x = %d" % next(storm.number)
    run, items = storm.program("/nowhere/made_%d.py" % chance.randrange(3), text)
    if chance.random() < 0.2:
        storm.watch_lines(run)
    assert run(3) == [0, 1, 2], "a program's own result"
    if chance.random() < 0.3:
        storm.record(items)
    if chance.random() < 0.02:
        gc.collect()


@weather
def first(storm, chance):
    """All threads come to the same new code objects, threads and files at the same time."""
    if storm.barrier.wait() == 0:
        storm.fresh = [(storm.program("/nowhere/fresh.py", "x = %d" % next(storm.number))[0], "/nowhere/%d" % next(storm.number))
                       for _ in range(ROUND)]
        storm.known = {}
    storm.barrier.wait()
    for run, name in storm.fresh:
        assert run(1) == [0], "a program's own result"
        record, file = storm.record(run), storm.om.CPerFile.GetPerFile(name)
        assert storm.known.setdefault(run, record) is record, "two records of one code object"
        assert storm.known.setdefault(name, file) is file, "two records of one file"
    storm.barrier.wait()
    if chance.random() < 0.1:
        gc.collect()


@weather
def shared(storm, chance):
    """New code objects are run for the first time by all threads at once, from a ring that each renews."""
    n = chance.randrange(len(storm.shared))
    if chance.random() < 0.1:
        storm.shared[n] = storm.program("/nowhere/shared_%d.py" % n)
    run, items = storm.shared[n]
    assert run(3) == [0, 1, 2], "a program's own result"
    record = storm.record(run)
    assert record.fCodeObjectWeakRef() is run.__code__, "the record of another code object"
    assert storm.record(run) is record, "two records of one code object"


@weather
def breakpoints(storm, chance):
    """Lines are set, added and taken away while the code runs."""
    run, items = chance.choice(storm.shared)
    record = storm.record(run)
    what = chance.randrange(6)
    if what == 0:
        kind = chance.choice((set, frozenset))
        record.fEnabledBpLinenos = kind(chance.randrange(1, 9) for _ in range(chance.randrange(6)))
    elif what == 1:
        record.fEnabledBpLinenos = None
    elif what == 2:
        lines = record.fEnabledBpLinenos
        if isinstance(lines, set):
            lines.add(chance.randrange(1, 60))
            lines.discard(chance.randrange(1, 60))
    elif what == 3:
        record.fSteppingEventsNeededCount = chance.randrange(2)
        record.fReturnEventsNeededCount = chance.randrange(2)
    else:
        storm.watch_lines(run)
    assert run(2) == [0, 1], "a program's own result"


@weather
def records(storm, chance):
    """Records are replaced and ended by hand while the code runs that they belong to."""
    run, items = chance.choice(storm.ended)
    what = chance.randrange(20)
    if what == 0 and storm.kind != "everything":    # the threads would miss theirs
        for each in storm.om.CPerThread.GetAllPerThreads():
            each.__del__()
    elif what == 1:
        storm.record(run).__del__()
    elif what < 6:
        try:
            record = storm.om.CPerCodeObject(run.__code__, sys._getframe())
            record.fEnabledBpLinenos = frozenset((2, chance.randrange(3, 99)))
        except AttributeError as e:
            assert str(e) == "fCodeObjectWeakRef", e    # another thread has ended the record before it was registered
    else:
        storm.watch_lines(run)
    assert run(2) == [0, 1], "a program's own result"


@weather
def threads(storm, chance):
    """Threads come and go; they are found, named, stepped and held while they do."""
    def short():
        storm.shared[0][0](2)
        own = storm.om.CPerThread.GetPerThread()
        storm.expect(own is storm.om.CPerThread.GetPerThread(), "two records of one thread")
        storm.expect(own.fThreadId == threading.get_ident(), "the record of another thread")
        storm.shared[1][0](2)
    some = [threading.Thread(target=short) for _ in range(2)]
    for thread in some:
        thread.start()
    for each in storm.om.CPerThread.GetAllPerThreads():
        each.fSteppingEventsNeeded = chance.random() < 0.2
        each.fOuterMostFrame = sys._getframe()
        each.fOuterMostFrame = None
        try:
            each.GetDebugPolicy()
        except ValueError:
            pass                            # the policy of `failures`
    for thread in some:
        thread.join()


@weather
def files(storm, chance):
    """Names are found and registered, and file records made."""
    om, number = storm.om, chance.randrange(40)
    name = "/nowhere/%d/../name_%d.py" % (number, number)
    assert om.get_canonical_pathname(name) == name, "another name"
    om.register_canonical_pathname("relative_%d.py" % next(storm.number), "sum%d" % (number % 5))
    om.lookup_canonical_pathname(__file__)
    record = om.CPerFile.GetPerFile("/nowhere/file_%d" % (next(storm.number) // 16))
    storm.expect(om.CPerFile.GetPerFile(record.fCanonicalPathname) is record, "two records of one file")
    om.SetInternalPathnameDict({"/nowhere/internal.py": None})
    om.GetNonInternalFrame()
    om.CPerFile.GetAllPerFiles()


@weather
def log(storm, chance):
    """The log is switched on and off, and written by all."""
    om, what = storm.om, chance.randrange(8)
    if what == 0:
        om.set_dprintf_file(tempfile.TemporaryFile("w") if chance.random() < 0.5 else None, -1, 0)
    elif what == 1:
        om.set_dprintf_mask(chance.choice((0, 64, 1023)))
    om.dprintf(4, lambda: "text\n")
    storm.shared[0][0](2)


@weather
def failures(storm, chance):
    """Hooks, policies and second callbacks raise and are replaced."""
    om = storm.om

    def fails(*args):
        raise ValueError("on purpose")

    om.CPerThread.SetDebugPolicyCallback(chance.choice((None, fails, lambda *args: 1)))
    om.CPerThread.SetGetThreadNameCallback(chance.choice((None, fails, lambda *args: "name")))
    om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(chance.choice((None, lambda *args: None)))
    run = storm.program("/nowhere/failing_%d.py" % next(storm.number))[0]
    assert run(2) == [0, 1], "a program's own result"


@weather
def resets(storm, chance):
    """The module is put back to its start while events come in."""
    if chance.random() < 0.05:
        storm.om.reset()
    code(storm, chance)


@weather
def forks(storm, chance):
    """Children run code under the filter and end."""
    if chance.random() > 0.1:
        return shared(storm, chance)
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            signal.alarm(CHILD)     # the watchdog of faulthandler is a thread, which no child has
            storm.om.UpdateThisProcessPid()
            storm.program("/nowhere/child.py")[0](3)
            storm.shared[0][0](3)
            storm.om.get_canonical_pathname("/nowhere/child_%d.py" % next(storm.number))
            status = 0
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(status)
    status = os.waitpid(pid, 0)[1]
    # seen rarely, at the lock of a dictionary of the storm's own: docs/reliability.md
    storm.counts["children that waited for ever"] += status == signal.SIGALRM
    assert status in (0, signal.SIGALRM), "a child failed: %d" % status


@weather
def everything(storm, chance):
    """One of the others each time, but for the one that all threads take part in."""
    kinds[chance.choice([name for name in kinds if name not in ("first", "everything")])](storm, chance)


# ---- The program ----

def main(words):
    faulthandler.enable()
    warnings.simplefilter("ignore")     # of forks with threads
    seconds = float(words.pop(0))
    storm = Storm()
    names = words or list(kinds)
    callbacks = {number: storm.om.CInitialCallback(number, storm.second, 1).Callback for number in storm.events.values()}
    with support.monitoring_tool(callbacks, sum(storm.events.values()) - storm.events["LINE"], TOOL):
        for name in names:
            faulthandler.dump_traceback_later(seconds / len(names) + GRACE, exit=True)
            storm.blow(name, seconds / len(names))
            if storm.errors:
                break
    faulthandler.cancel_dump_traceback_later()
    if storm.errors:
        raise storm.errors[0][1]
    print(dict(+storm.counts), next(storm.seen))


if __name__ == "__main__":
    main(sys.argv[1:])
