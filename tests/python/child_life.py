"""Life and death in numbers: code objects, threads, forks, modules; in the end nothing is left over."""

import _testcapi
import gc
import os
import sys
import threading

import support
from child_cases import assert_filter_works, attempt, case, main, new_program, times, watch

CLASSES = ("CPerThread", "CPerCodeObject", "CPerFile")


def everything(module, second, names=("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")):
    """All events of all code, but for LINE, which is dear where it is on for all code."""
    numbers = {name: getattr(sys.monitoring.events, name) for name in names}
    tool = support.monitoring_tool({number: module.CInitialCallback(number, second, 1).Callback
                                    for number in numbers.values()},
                                   sum(number for name, number in numbers.items() if name != "LINE"))
    return tool


def counts(module):
    gc.collect()
    return {name: support.total_instances(getattr(module, name)) for name in CLASSES}


def assert_flat(module, action, rounds, slack=4 << 20):
    """Neither records nor memory grow with what the action does; its first rounds fill caches."""
    for _ in range(3):
        action()
        counts(module), support.resident_bytes()        # which are watched as well
    before, resident = counts(module), support.resident_bytes()
    for _ in range(rounds):
        action()
    after = counts(module)
    # free-threaded interpreters bury late
    leeway = 50 if support.FREE_THREADED else 0
    assert all(after[name] <= before[name] + leeway for name in before), (before, after)
    grown = support.resident_bytes() - resident
    assert grown < slack + 2000 * rounds * support.FREE_THREADED, "%d bytes more" % grown


def in_threads(work, count=16):
    failures = []

    def run():
        try:
            work()
        except BaseException as e:
            failures.append(e)

    threads = [threading.Thread(target=run) for _ in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures, failures


# ---- Code objects and threads ----

@case
def code_objects_of_16_threads(module):
    """Made, run and dropped, with the collector at work all the time."""
    gc.set_threshold(50, 5, 5)

    def work():
        for number in range(times(4, 60)):
            function, generator = new_program("/nowhere/shared_%d.py" % (number % 3))
            assert function(3) == 3 and list(generator()) == [1, 2]

    with everything(module, lambda *args: None):
        assert_flat(module, lambda: in_threads(work), times(6, 60))
    assert_filter_works(module)


@case
def threads_that_come_and_go(module):
    seen = set()

    def work():
        seen.add(threading.get_ident())
        new_program("/nowhere/shared.py")[0]()

    with everything(module, lambda *args: None):
        assert_flat(module, lambda: in_threads(work, 8), times(40, 800))
    assert len(seen) < times(40, 800) * 8, "no thread id was used again"
    gc.collect()
    assert set(module.CPerThread._fPerThreadDict) <= {threading.get_ident()}, module.CPerThread._fPerThreadDict


@case
def native_threads_for_one_call(module):
    function, _ = new_program()
    calls = []

    def work():
        calls.append(function(1))

    with everything(module, lambda *args: None):
        assert_flat(module, lambda: _testcapi.call_in_temporary_c_thread(work), times(100, 3000))
    assert set(calls) == {1}
    assert set(module.CPerThread._fPerThreadDict) <= {threading.get_ident()}


@case
def breakpoints_of_16_threads(module):
    """Each thread sees each of its own stops, whatever the others do."""
    stops = {}
    with everything(module, lambda code, *args: stops.setdefault(code, []).append(args[0]), ("LINE",)):
        # code objects of equal text are equal keys: each thread has a text of its own
        in_threads_with_own_text(lambda number: work_with_text(module, number, stops))


def work_with_text(module, number, stops):
    for _ in range(times(5, 200)):
        namespace = {}
        exec(compile("def f(n):\n    a = n + %d\n    return a\n" % number, "/nowhere/own.py", "exec"), namespace)
        function = namespace["f"]
        module.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe()).fEnabledBpLinenos = {2}
        sys.monitoring.set_local_events(3, function.__code__, sys.monitoring.events.LINE)
        assert function(7) == 7 + number
        assert stops.pop(function.__code__) == [2]


def in_threads_with_own_text(work_of, count=16):
    numbers = iter(range(count))
    lock = threading.Lock()

    def work():
        with lock:
            number = next(numbers)
        work_of(number)

    in_threads(work, count)


@case
def reset_in_the_middle_of_everything(module):
    stop = threading.Event()
    failures = []

    def work():
        while not stop.is_set():
            function, generator = new_program()
            if (function(3), list(generator())) != (3, [1, 2]):
                failures.append("wrong result")
            attempt(module.CPerThread.GetPerThread)
            attempt(module.get_canonical_pathname, "/nowhere/%d.py" % id(function))
            attempt(module.CPerFile.GetAllPerFiles)

    threads = [threading.Thread(target=work) for _ in range(8)]
    with everything(module, lambda *args: None):
        for thread in threads:
            thread.start()
        for _ in range(times(100, 3000)):
            module.reset()
            module.set_checksum_callback(lambda name: name[:12])
        stop.set()
        for thread in threads:
            thread.join()
    assert not failures
    module.reset()
    assert_filter_works(module)


# ---- Forks ----

def child_that(action):
    """Runs the action in a forked child, which has to end well."""
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            action()
            status = 0
        finally:
            os._exit(status)
    assert os.waitpid(pid, 0)[1] == 0


@case
def forks_with_many_threads(module):
    import warnings
    warnings.simplefilter("ignore", DeprecationWarning)
    go, ready = threading.Event(), threading.Barrier(17)

    def work():
        new_program()[0]()
        ready.wait()
        go.wait()

    def in_child():
        module.UpdateThisProcessPid()
        gc.collect()
        assert_filter_works_under_way(module)
        module.reset()
        assert_filter_works_under_way(module)

    with everything(module, lambda *args: None):
        threads = [threading.Thread(target=work) for _ in range(16)]
        for thread in threads:
            thread.start()
        ready.wait()
        for _ in range(times(10, 100)):
            child_that(in_child)
        go.set()
        for thread in threads:
            thread.join()
    assert_filter_works(module)


def assert_filter_works_under_way(module):
    """The filter works where its callbacks are registered already."""
    for work in (lambda: new_program()[0](3), lambda: list(new_program()[1]())):
        work()
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
    assert module.CPerThread.GetPerThread().fThreadId == threading.get_ident()


@case
def fork_with_a_suspended_thread(module):
    import warnings
    warnings.simplefilter("ignore", DeprecationWarning)
    function, _ = new_program()
    known, entered, done = threading.Event(), threading.Event(), threading.Event()
    go = threading.Event()

    def work():
        module.CPerThread.GetPerThread()
        known.set()
        go.wait()
        entered.set()
        function(1)
        done.set()

    with watch(module, function, lambda *args: None) as callbacks:
        thread = threading.Thread(target=work)
        thread.start()
        known.wait()
        record = module.CPerThread.GetPerThread(thread.ident, False)
        record.fSuspendLock.acquire()
        record.fCheckSuspendLock = 1
        for callback in callbacks.values():
            callback.fAnySuspendThread = 1
        go.set()
        entered.wait()
        for _ in range(5):
            child_that(lambda: (module.UpdateThisProcessPid(), function(1), module.reset(), function(2), gc.collect()))
        assert not done.is_set(), "the thread was not held"
        record.fSuspendLock.release()
        thread.join()
    assert done.is_set()


# ---- The module again and again ----

@case
def module_imported_250_times(module):
    """Each import is a module of its own; the 254 extra indexes of an interpreter bound their number."""
    del module
    gc.collect()
    for number in range(times(60, 250)):
        sys.modules.pop("optmonitoring", None)
        copy = support.load()
        if number % 10 == 0:
            function, _ = new_program()
            with watch(copy, function, lambda *args: None):
                assert function(2) == 2
        copy.CPerFile.GetPerFile("/nowhere/%d.py" % number)
        copy.reset()
        if number == 9:
            gc.collect()
            resident = support.resident_bytes()
    del copy
    gc.collect()
    grown = support.resident_bytes() - resident
    assert grown < 12 << 20, "%d bytes more" % grown
    assert_filter_works(support.load())


if __name__ == "__main__":
    sys.exit(main(globals()))
