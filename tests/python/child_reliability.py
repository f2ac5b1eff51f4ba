"""Failures around the module: no memory, hooks and log files that misbehave, an interpreter that is taken apart."""

import _testcapi
import builtins
import gc
import importlib
import io
import os
import sys
import tempfile
import threading

import support
from child_cases import assert_filter_works, attempt, case, main, needs, new_program, times, watch
from state import new_module

ERRORS = (ValueError, KeyError, AttributeError, StopIteration, SystemExit, KeyboardInterrupt, GeneratorExit,
          MemoryError, RecursionError)
ODD_RESULTS = (None, True, -1, 2 ** 31, 2 ** 64, -2 ** 63 - 1, 1.5, "x", "\ud800", b"x", (), [], {}, object(), len)


def run_program(module, mask=1023):
    """A program with events in this thread and in a new one, everything logged; its results stay right."""
    log = support.LogFile()
    module.set_dprintf_file(log, -1, 0)
    module.set_dprintf_mask(mask)
    results = []

    def work():
        function, generator = new_program()
        with watch(module, function, lambda *args: None):
            results.append((function(1), list(generator()), function(2)))
            attempt(module.CPerFile.GetPerFile, function.__code__.co_filename)

    work()
    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    assert results == [(1, [1, 2], 2)] * 2, results
    return log


# ---- Hooks ----

def hooks_of(module):
    """The name of each hook and how it is set."""
    return {
        "policy": module.CPerThread.SetDebugPolicyCallback,
        "thread name": module.CPerThread.SetGetThreadNameCallback,
        "new thread": module.CPerThread.SetNewPerThreadCreatedCallback,
        "new code object": module.CPerCodeObject.SetNewPerCodeObjectCreatedCallback,
        "new file": module.CPerFile.SetNewPerFileCreatedCallback,
        "checksum": module.set_checksum_callback,
    }


def with_each_hook(module, behaviours, mask=1023):
    """The program runs with each hook behaving in each way, and the filter works again afterwards."""
    for name in hooks_of(module):
        for behave in behaviours:
            module.reset()
            hooks_of(module)[name](behave)
            run_program(module, mask)
    for set_hook in hooks_of(module).values():
        set_hook(None)
    module.reset()
    assert_filter_works(module)


def raising(error):
    def hook(*args):
        raise error("hook")
    return hook


@case
def hooks_that_raise(module):
    with_each_hook(module, [raising(error) for error in ERRORS])


@case
def hooks_that_return_nonsense(module):
    with_each_hook(module, [lambda *args, result=result: result for result in ODD_RESULTS])


@case
def hooks_that_are_none(module):
    with_each_hook(module, ODD_RESULTS)


@case
def hooks_that_call_back(module):
    busy = []

    def call_everything(given):
        if busy:
            return None
        busy.append(given)
        for call in (module.CPerThread.GetPerThread, module.CPerThread.GetAllPerThreads, module.CPerFile.GetAllPerFiles,
                     module.GetNonInternalFrame):
            attempt(call)
        attempt(module.CPerThread.GetPerThread, given)
        attempt(module.CPerFile.GetPerFile, "/nowhere/%s.py" % id(given))
        attempt(module.CPerCodeObject.GetPerCodeObject, new_program()[0].__code__)
        attempt(module.IsInternalFrame, sys._getframe())
        attempt(module.get_canonical_pathname, "/nowhere/a.py", "sum")
        attempt(lambda: given.GetDebugPolicy())
        attempt(lambda: given.FindThreadName())
        attempt(lambda: given.UpdateChecksum())
        busy.clear()
        return "sum"

    with_each_hook(module, [call_everything])


@case
def hooks_that_reset(module):
    with_each_hook(module, [lambda given: module.reset()])


@case
def hooks_that_delete_what_they_were_given(module):
    def delete(given):
        for cls, registry in (("CPerThread", "_fPerThreadDict"), ("CPerCodeObject", "_fPerCodeObjectDict"),
                              ("CPerFile", "_fPerFilesDict"), ("CPerFile", "_fByChecksum")):
            getattr(getattr(module, cls), registry).clear()
        attempt(lambda: given.__del__())
        del given
        gc.collect()

    with_each_hook(module, [delete])


@case
def hooks_that_replace_the_registries(module):
    def replace(given):
        module.CPerThread._fPerThreadDict = {}
        module.CPerCodeObject._fPerCodeObjectDict = {}
        module.CPerFile._fPerFilesDict = {}
        module.CPerFile._fByChecksum = {}
        gc.collect()

    with_each_hook(module, [replace])


@case
def hooks_that_replace_themselves(module):
    def behave(given):
        for set_hook in hooks_of(module).values():
            attempt(set_hook, behave if given is None else None)

    with_each_hook(module, [behave])


def recurse_without_end(given):
    """With neither "*args" in its calls (3.15 has no limit for them) nor in its arguments (3.13.0 has none)."""
    return recurse_without_end(given)


@case
def hooks_that_recurse_without_end(module):
    with_each_hook(module, [recurse_without_end], 0)


@case
def hooks_that_start_threads(module):
    def start(given):
        thread = threading.Thread(target=lambda: None)
        thread.start()
        thread.join()

    with_each_hook(module, [start])


# ---- The second callback ----

def seconds(module):
    yield from (raising(error) for error in ERRORS)
    yield from (lambda *args, result=result: result for result in (None, 1, "x", object()))
    yield from (5, None, "not callable", object())

    def unregister(*args):
        for event in ("PY_START", "LINE", "PY_RETURN"):
            sys.monitoring.register_callback(3, getattr(sys.monitoring.events, event), None)
        gc.collect()

    yield unregister
    yield lambda *args: module.reset()
    yield lambda code, *args: module.CInitialCallback(32, len, 1).Callback(code, *args)
    yield lambda code, *args: module.CPerCodeObject._fPerCodeObjectDict.clear()

    yield lambda *args: recurse_without_end(args)


@case
def second_callbacks_that_misbehave(module):
    for second in seconds(module):
        for mask in (0, 1023):
            module.set_dprintf_file(support.LogFile(), -1, 0)
            module.set_dprintf_mask(mask)
            function, _ = new_program()
            with watch(module, function, second):
                assert [function(n) for n in range(3)] == [0, 1, 2]
    assert_filter_works(module)


@case
def second_callbacks_of_generators_that_misbehave(module):
    names = ("PY_START", "PY_YIELD", "PY_RESUME", "PY_RETURN")
    for second in seconds(module):
        _, generator = new_program()
        with watch(module, generator, second, names):
            assert list(generator()) == [1, 2]
    assert_filter_works(module)


# ---- The host's log functions ----

def host_functions(module_of):
    yield from (raising(error) for error in ERRORS)
    yield from (lambda *args, result=result: result for result in ODD_RESULTS)
    yield from (5, None, "not callable")
    yield lambda *args: module_of[0].reset()
    nested = []

    def fail_again(*args):
        if not nested:
            nested.append(1)
            module_of[0].CInitialCallback(32, raising(ValueError), 1).Callback(new_program()[0].__code__)
            nested.clear()

    yield fail_again

    yield lambda *args: recurse_without_end(args)


@case
def log_functions_that_misbehave(module):
    from brixbase import dlog
    module_of = []
    for function in host_functions(module_of):
        dlog.Log = dlog.LogException = function
        module_of[:] = [new_module()]
        module_of[0].set_dprintf_file(support.LogFile(), -1, 0)
        program, _ = new_program()
        with watch(module_of[0], program, raising(ValueError)):
            assert [program(n) for n in range(3)] == [0, 1, 2]
        assert_filter_works(module_of[0])


# ---- Log files ----

class OddFile(object):
    """A log file that does something else."""

    def __init__(self, write=lambda text: None, flush=lambda: None):
        self.write = write
        self.flush = flush


def odd_files(module):
    for error in ERRORS:
        yield OddFile(raising(error))
        yield OddFile(flush=raising(error))
    yield OddFile(lambda text: module.dprintf(1023, "again: " + text))
    yield OddFile(flush=lambda: module.dprintf(1023, "again\n"))
    yield OddFile(lambda text: module.set_dprintf_file(None, -1, 0))
    yield OddFile(flush=lambda: module.set_dprintf_file(OddFile(), -1, 0))
    yield OddFile(lambda text: module.set_dprintf_mask(0))
    yield OddFile(lambda text: module.CPerThread.GetAllPerThreads())
    yield OddFile(lambda text: module.CPerCodeObject.GetPerCodeObject(new_program()[0].__code__))
    yield OddFile(lambda text: sys.exit(3))
    yield OddFile(lambda text: sys.__dict__.pop("stderr", None))
    yield from (5, "no file", object(), io.StringIO, len)
    closed = io.StringIO()
    closed.close()
    yield closed
    closing = io.StringIO()
    yield OddFile(lambda text: (closing.close(), closing.write(text)))
    path = tempfile.mktemp()
    with open(path, "w") as stream:
        os.unlink(path)
        os.close(os.dup(stream.fileno()))
        yield stream
        descriptor = stream.fileno()
        saved = os.dup(descriptor)
        os.close(descriptor)        # behind its back
        yield stream
        os.dup2(saved, descriptor)
        os.close(saved)
    with open("/dev/full", "w") as stream:
        yield stream
        attempt(stream.close)


@case
def log_files_that_misbehave(module):
    stderr = sys.stderr
    for log in odd_files(module):
        for mask in (64, 1023):
            function, generator = new_program()
            module.set_dprintf_file(log, -1, 0)
            module.set_dprintf_mask(mask)
            with watch(module, function, raising(ValueError)):
                assert [function(n) for n in range(3)] == [0, 1, 2]
            assert list(generator()) == [1, 2]
            attempt(module.CPerFile.GetPerFile, [])
            attempt(module.get_canonical_pathname, "relative.py")
            attempt(module.dprintf, 1023, "text")
            module.set_dprintf_file(None, -1, 0)
            sys.stderr = stderr
    assert_filter_works(module)


@case
def log_files_dropped_while_they_write(module):
    """The last reference to the file goes while it is being written to, and its end writes to the log."""
    class Mortal(object):
        def write(self, text):
            module.set_dprintf_file(None, -1, 0)

        def flush(self):
            pass

        def __del__(self):
            module.dprintf(1023, "last words\n")
            module.set_dprintf_file(support.LogFile(), -1, 0)

    for mask in (64, 256, 1023):
        module.set_dprintf_mask(mask)
        for _ in range(10):
            module.set_dprintf_file(Mortal(), -1, 0)
            module.dprintf(1023, "text\n")
            attempt(module.CPerFile.GetPerFile, [])
        module.set_dprintf_file(None, -1, 0)
    assert_filter_works(module)


@case
def log_files_that_reset(module):
    """The file tables are replaced in the middle of an operation on them."""
    names = ("relative.py", "a/../b.py", "/nowhere/../c.pyc")
    for number in range(20):
        for name in names:
            name = name.replace(".py", "%d.py" % number)
            for call in (module.get_canonical_pathname, module.register_canonical_pathname,
                         module.lookup_canonical_pathname,
                         lambda name: module.CPerCodeObject(compile("1", name, "exec"), None)):
                module.set_dprintf_file(OddFile(lambda text: module.reset()), -1, 0)
                module.set_dprintf_mask(module.kLogFilenames)
                attempt(call, name)
    module.reset()
    assert_filter_works(module)


@case
def log_files_that_reset_while_a_repr_is_kept(module):
    """A repr without UTF-8 is reported to the log, whose write drops the buffer that waits for the text."""
    class Odd(object):
        def __repr__(self):
            return "\ud800"

        def __call__(self, *args):
            return 1

    logged = []

    def write(text):
        logged.append(text)
        module.reset()
        spoil.extend(bytearray(b"x" * 4001) for _ in range(8))

    for _ in range(20):
        spoil = []
        module.set_dprintf_file(OddFile(write), -1, 0)
        module.set_dprintf_mask(module.kLogInitialMonitoringCallbacks | module.kLogFilenames)
        module.CInitialCallback(32, Odd(), 1).Callback(new_program()[0].__code__, 1)
    assert logged
    module.set_dprintf_file(None, -1, 0)
    assert_filter_works(module)


@case
def reprs_that_reset(module):
    """The buffers of the log are dropped while a message with two of them is made."""
    class Policy(object):
        def __call__(self, thread_id):
            return 1

        def __repr__(self):
            module.reset()
            spoil.extend(bytearray(b"x" * 4001) for _ in range(8))
            return "policy"

    spoil = []
    for _ in range(20):
        log = support.LogFile()
        module.CPerThread.SetDebugPolicyCallback(Policy())
        record = module.CPerThread.GetPerThread()
        record.fDebugPolicy = -1
        module.set_dprintf_file(log, -1, 0)
        module.set_dprintf_mask(module.kLogInitialMonitoringCallbacks)
        attempt(record.GetDebugPolicy)
        module.set_dprintf_file(log, -1, 0)
        module.set_dprintf_mask(module.kLogInitialMonitoringCallbacks)
        module.CInitialCallback(32, Policy(), 1).Callback(new_program()[0].__code__, 1)
        assert "xxxx" not in log.getvalue(), log.getvalue()
        del spoil[:]
    module.set_dprintf_file(None, -1, 0)
    assert_filter_works(module)


@case
def log_files_whose_end_sets_another(module):
    """Nothing that was set in between is left over."""
    class Mortal(support.LogFile):
        def __del__(self):
            module.set_dprintf_file(support.LogFile(), -1, 0)

    for _ in range(3):
        module.set_dprintf_file(Mortal(), -1, 0)
        module.set_dprintf_file(None, -1, 0)
    module.set_dprintf_file(None, -1, 0)
    gc.collect()
    left = [each for each in gc.get_objects() if type(each) is support.LogFile]
    assert not left, left


@case
def failures_that_follow_each_other(module):
    """Each is reported to the host alone and leaves nothing of the earlier ones."""
    from brixbase import dlog
    callback = module.CInitialCallback(32, raising(ValueError), 1).Callback
    code = new_program()[0].__code__
    for _ in range(50):
        callback(code, 1)
        dlog.forget()
    length, error = 0, sys.exc_info()[1]
    while error is not None:
        length, error = length + 1, error.__context__
    assert length <= 2, "%d exceptions are kept alive" % length


@case
def masks_of_any_value(module):
    for mask in (0, -1, 1, 2 ** 31 - 1, -2 ** 31, 1024, 63):
        run_program(module, mask)
    assert_filter_works(module)


# ---- The interpreter taken apart ----

@case
def stderr_missing(module):
    stderr = sys.stderr
    for value in (None, 5, OddFile(raising(SystemExit))):
        sys.stderr = value
        run_program(module)
        function, _ = new_program()
        with watch(module, function, raising(ValueError)):
            assert function(1) == 1
    del sys.stderr          # a new thread cannot be made without it
    function, _ = new_program()
    with watch(module, function, raising(ValueError)):
        value = function(1)
    sys.stderr = stderr
    assert value == 1
    assert_filter_works(module)


@case
def modules_missing(module):
    modules, kept = sys.modules, dict(sys.modules)
    sys.modules.clear()
    module.reset()
    run_program(module)
    sys.modules.update(kept)
    for value in ({}, None, 5):
        sys.modules = value
        attempt(module.reset)
        function, _ = new_program()
        with watch(module, function, raising(ValueError)):
            assert function(1) == 1
        sys.modules = modules
    del sys.modules
    attempt(module.reset)
    sys.modules = modules
    assert_filter_works(module)


@case
def threading_reloaded_and_emptied(module):
    run_program(module)
    importlib.reload(threading)
    run_program(module)
    assert_filter_works(module)
    lock = threading.Lock
    for value in (5, raising(SystemExit), lambda: None, object):
        threading.Lock = value
        record = attempt(module.CPerThread, 5)
        module.CPerThread._fPerThreadDict.clear()
    del threading.Lock
    assert isinstance(attempt(module.CPerThread, 5), AttributeError)
    threading.Lock = lock
    module.reset()
    assert_filter_works(module)
    del record


@case
def builtins_taken_apart(module):
    kept = dict(vars(builtins))
    for name in ("object", "dict", "set", "open", "__import__", "KeyError", "repr", "str"):
        delattr(builtins, name)
    function, _ = new_program.__globals__["new_program"]()
    with watch(module, function, lambda *args: None):
        value = function(1)
    attempt(module.reset)
    vars(builtins).update(kept)
    assert value == 1
    assert_filter_works(module)


@case
def monitoring_taken_apart(module):
    monitoring, function = sys.monitoring, new_program()[0]
    with watch(module, function, lambda *args: None):
        del sys.monitoring
        assert function(1) == 1
        module.reset()
        assert function(2) == 2
        sys.monitoring = monitoring
    assert_filter_works(module)


@case
def host_package_gone(module):
    for name in [name for name in sys.modules if name.startswith("brixbase")]:
        del sys.modules[name]
    gc.collect()
    function, _ = new_program()
    with watch(module, function, raising(ValueError)):
        assert function(1) == 1
    assert_filter_works(module)


# ---- No memory ----

def without_memory(module, make_action, limit=times(60, 400)):
    """The action with its Nth allocation failing, and with all from the Nth on, for each N."""
    from brixbase import dlog
    # the debug builds of 3.14 and 3.15 end when a list, here that of the stand-in host, cannot grow
    dlog.LogException.__code__ = (lambda *args: None).__code__
    for stop in (1, 0):
        for number in range(1, limit):
            action = make_action()
            _testcapi.set_nomemory(number, stop and number + stop)
            try:
                action()
            except BaseException:
                pass
            finally:
                _testcapi.remove_mem_hooks()
    assert_filter_works(module)


def silently(function):
    """Without what the interpreter says of exceptions in places where it can only ignore them."""
    def run(module):
        sys.unraisablehook = lambda unraisable: None
        function(module)
        sys.unraisablehook = sys.__unraisablehook__
    run.__name__ = function.__name__
    run.__module__ = function.__module__
    run.__doc__ = function.__doc__
    return run


needs_nomemory = needs(hasattr(_testcapi, "set_nomemory"), "this interpreter cannot be kept from memory")


def callback_of(module, event="LINE"):
    return module.CInitialCallback(getattr(sys.monitoring.events, event), lambda *args: None, 1).Callback


@case
@needs_nomemory
@silently
def no_memory_for_a_first_event(module):
    callback = callback_of(module)

    def make():
        code = new_program()[0].__code__
        return lambda: callback(code, 2)

    without_memory(module, make)


@case
@needs_nomemory
@silently
def no_memory_for_a_first_event_with_the_log_on(module):
    module.set_dprintf_file(OddFile(), -1, 0)
    module.set_dprintf_mask(1023)
    callback = callback_of(module)

    def make():
        code = new_program()[0].__code__
        return lambda: callback(code, 2)

    without_memory(module, make)
    module.set_dprintf_file(None, -1, 0)


@case
@needs_nomemory
@silently
def no_memory_for_an_event_with_breakpoints(module):
    callback = callback_of(module)
    code = new_program()[0].__code__
    record = module.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
    record.fEnabledBpLinenos = {2, 1000}
    without_memory(module, lambda: lambda: [callback(code, line) for line in (1, 2, 1000)])
    assert module.CPerCodeObject.GetPerCodeObject(code, False) is record


@case
@needs_nomemory
@silently
def no_memory_for_failures(module):
    callback = module.CInitialCallback(sys.monitoring.events.LINE, raising(ValueError), 1).Callback
    code = new_program()[0].__code__
    without_memory(module, lambda: lambda: callback(code, 1))


@case
@needs_nomemory
@silently
def no_memory_for_a_thread_record(module):
    def make():
        module.reset()
        return module.CPerThread.GetPerThread

    without_memory(module, make)


@case
@needs_nomemory
@silently
def no_memory_for_a_file_record(module):
    module.set_checksum_callback(lambda name: name[-5:])

    def make():
        name = "/nowhere/%d.py" % id(object())
        return lambda: module.CPerFile.GetPerFile(name).UpdateChecksum()

    without_memory(module, make)


@case
@needs_nomemory
@silently
def no_memory_for_names_and_frames(module):
    frame = sys._getframe()

    def make():
        return lambda: (module.get_canonical_pathname("relative.py"), module.IsInternalFrame(frame),
                        module.GetNonInternalFrame(1), module.GetPathnameKind("x"),
                        module.CPerThread.GetAllPerThreads(), module.dprintf(1023, "text"))

    without_memory(module, make)


@case
@needs_nomemory
@silently
def no_memory_for_a_reset(module):
    def make():
        run_program(module)
        return module.reset

    without_memory(module, make, times(30, 100))
    module.reset()


@case
@needs_nomemory
@silently
def no_memory_for_a_death(module):
    def make():
        holder = [compile("pass", "/nowhere/death.py", "exec")]
        module.CPerCodeObject.GetPerCodeObject(holder[0], True, sys._getframe())
        return holder.clear

    without_memory(module, make, times(30, 100))
    gc.collect()


@case
@needs_nomemory
@silently
def no_memory_for_another_module(module):
    import state

    def make():
        module_file = support.module_file()
        spec = importlib.util.spec_from_file_location("optmonitoring", module_file)
        del module_file
        return lambda: state._imp.exec_dynamic(state._imp.create_dynamic(spec))

    without_memory(module, make, times(40, 60))


if __name__ == "__main__":
    sys.exit(main(globals()))
