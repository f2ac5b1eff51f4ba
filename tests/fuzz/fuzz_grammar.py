"""Random programs that use the module in every way it can be used from Python; no program may end the process.

    PYTHON fuzz_grammar.py [--seed N] [--seconds S | --programs N] [--steps N] [--threads N] [--only I,J,...] [--show]

A program is a sequence of steps made from a seed: records of all kinds with odd values in their fields, registries and
hooks replaced, callbacks called directly and through `sys.monitoring`, logs that fail or call the module back, names of
files that are none, threads, forks, resets. Each runs in a forked child, which has to end in the ordinary way, with
nothing on standard error. In the child:

  - code that is watched returns what it returns unwatched;
  - afterwards, with the program's own changes taken back, the filter stops where it is to stop, and nowhere else;
  - run again and again, the program holds no more memory (and, in debug builds, references) than before. That goes
    for every second program: the others also break what records need at their death, or put them into cycles.

With --threads so many programs of seeds of their own run at the same time, in a thread each. Those leave threads and
forks alone: what a program runs as an object dies may come while its thread has a lock of `threading`.

A step depends on the seed and its own number alone, so any part of a program can be run: a failing program is made
short by leaving steps out, and `--seed N --only I,J,...` runs what is left.
"""

import argparse
import array
import contextlib
import ctypes
import faulthandler
import gc
import json
import os
import random
import re
import signal
import sys
import tempfile
import threading
import time
import traceback
import types
import warnings

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))

import support
from child_cases import assert_filter_works, attempt, new_program
from child_hostile import FIELDS, HOOKS, METHODS, REGISTRIES, Anything, Evil, OddInt, OddStr, Sabotage, odd_objects
from filter_support import EVENT_NAMES, event_id

# What the interpreter says where the log's file, a program's own, fails only while an exception is displayed on it.
LOST_REPORT = re.compile(r"object address  : .*\n(object .*\n)*lost sys\.stderr\n")
SECONDS_PER_PROGRAM = int(os.environ.get("OPTMONITORING_CASE_SECONDS", 60))    # after which one that hangs is ended
choosing_a_tool = threading.RLock()        # code of the program may run meanwhile, and choose another
SEEDS_OF_A_THREAD = 10 ** 9      # even: a seed says by that what its program leaves alone
REPETITIONS = 8             # of a program, to see what it loses
MASK_OF_ALL = 1023
FUNCTIONS = ("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname",
             "get_dprintf_mask", "get_checksum_callback", "IsInternalFrame", "GetNonInternalFrame", "GetPathnameKind",
             "UpdateThisProcessPid", "SetInternalPathnameDict", "set_dprintf_file", "set_dprintf_mask")
FILENAMES = ("/nowhere/a.py", "/nowhere/a.pyc", "a.py", "../../../../../../a.py", "./x/../y.py", "", "<string>", "<",
             "<frozen importlib._bootstrap>", "<frozen", "x-brixide-python-shell://12", "/tmp", __file__, "\udcff.py",
             "a\0b", "/" * 300, "a/" * 3000, "\u20ac.py", OddStr("/nowhere/odd.py"))
ERRORS = (ValueError, KeyError, AttributeError, TypeError, MemoryError, RecursionError, SystemExit, KeyboardInterrupt,
          GeneratorExit, StopIteration)
SPECIAL_METHODS = ("__new__", "__init__", "__del__")
DEPTH = 3                   # of programs run by what a program hands out


# ---- What is random ----

def chosen(rng, pool):
    """One of these, None if there is none: what a program makes may be taken away meanwhile, as an object dies."""
    pool = list(pool)
    return rng.choice(pool) if pool else None


class Program(object):
    """The steps of one seed, and what they have made so far."""

    threads = 1                 # programs that run at the same time

    def __init__(self, module, seed, show=False):
        self.module = module
        self.seed = seed
        self.show = show
        self.depth = 0
        self.calls = 0
        self.is_gentle = seed % 2 == 0      # leaves alone what records need to die
        # but for code that outlives the program: a record lives as long as its code
        self.odd = [each for each in odd_objects(module) if not isinstance(each, types.CodeType)]
        self.things = []            # records, callbacks, and whatever else was made
        self.functions = [new_program()]

    def run(self, numbers):
        for number in numbers:
            self.step(random.Random("%s/%s" % (self.seed, number)), number)

    def step(self, rng, number=None):
        kind = rng.choices(STEPS, WEIGHTS)[0]
        if self.show and number is not None:
            print("  %s %s" % (number, kind.__name__), flush=True)
        if not (self.is_gentle and kind in (change_registry, change_special_method)):
            kind(self, rng)

    def settle(self):
        """Takes back what the program changed, apart from what its records keep."""
        for name in METHODS:
            cls = getattr(self.module, name)
            for special, original in self.original_methods[name].items():
                setattr(cls, special, original)
            # taking `__new__` away again would not do: the interpreter's own then refuses arguments
            if "__new__" in vars(cls):
                cls.__new__ = plain_new
        for cls, name in REGISTRIES:
            setattr(getattr(self.module, cls), name, {})
        for cls, name in HOOKS:
            setattr(getattr(self.module, cls), name, None)
        self.module.SetInternalPathnameDict({})
        self.module.set_dprintf_file(None, -1, 0)
        self.module.set_checksum_callback(None)
        self.module.reset()
        self.module.set_dprintf_mask(support.DEFAULT_MASK)
        support.process_mask().value = support.DEFAULT_MASK
        del self.things[:], self.functions[:]
        from brixbase import dlog
        dlog.forget()

    # ---- Values ----

    def value(self, rng):
        kind = rng.randrange(8)
        if kind < 3:
            return rng.choice(self.odd)
        if kind == 3 and self.things:
            return chosen(rng, self.things)
        if kind == 4:
            return rng.choice(FILENAMES)
        if kind == 5:
            return self.function(rng)[0].__code__
        if kind == 6:
            return self.callable(rng)
        return rng.choice([sys._getframe(), rng.randrange(-3, 10), {rng.randrange(4)}, {}, threading.get_ident()])

    def values(self, rng, most=3):
        return [self.value(rng) for _ in range(rng.randrange(most + 1))]

    def function(self, rng):
        return chosen(rng, self.functions) or new_program()

    def callable(self, rng):
        """A function of the program's: takes anything, may take a step, and answers or raises."""
        seed = rng.random()
        answer = rng.choice(self.odd + self.things[-3:] + [None] * 20)
        error = rng.choice(ERRORS) if rng.randrange(4) == 0 else None
        steps = rng.randrange(3) == 0

        def function(*args, **keywords):
            if steps and self.depth < DEPTH:
                self.nested_step(seed)
            if error:
                raise error("of the program")
            return answer
        return function

    def nested_step(self, seed):
        self.depth += 1
        self.calls += 1
        try:
            if self.calls < 200:
                attempt(self.step, random.Random(seed))
        finally:
            self.depth -= 1

    def keep(self, thing):
        if thing is not None and not isinstance(thing, BaseException):
            self.things.append(thing)


# ---- Steps ----

def call_function(program, rng):
    function = getattr(program.module, rng.choice(FUNCTIONS))
    keywords = {rng.choice(("pathname", "checksum", "frame", "callback", "d", "s")): program.value(rng)
                for _ in range(rng.choice((0, 0, 0, 1, 2)))}
    program.keep(attempt(function, *program.values(rng), **keywords))


def call_file_function(program, rng):
    name = rng.choice(("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname"))
    checksums = rng.choice(((), (None,), ("",), ("checksum",), ("\0",), (program.value(rng),)))
    attempt(getattr(program.module, name), rng.choice(FILENAMES), *checksums)


def call_method(program, rng):
    cls = rng.choice(list(METHODS))
    name = rng.choice(METHODS[cls])
    if program.is_gentle and name == "SetNewPerFileCreatedCallback":
        return
    target = chosen(rng, program.things) if rng.randrange(2) else None
    if target is None:
        target = getattr(program.module, cls)
    program.keep(attempt(lambda: getattr(target, name)(*program.values(rng))))


def make_record(program, rng):
    name = rng.choice(list(METHODS))
    cls = getattr(program.module, name)
    if rng.randrange(3) == 0:
        cls = attempt(type, "Sub", (cls,), {"__slots__": ()} if rng.randrange(2) else {})
    arguments = {"CInitialCallback": (event_id(rng.choice(EVENT_NAMES)), program.callable(rng), rng.randrange(2)),
                 "CPerThread": (rng.choice((threading.get_ident(), 5, -1, 2 ** 64 - 1)),),
                 "CPerCodeObject": (program.function(rng)[0].__code__, rng.choice((None, sys._getframe()))),
                 "CPerFile": (rng.choice(FILENAMES),)}[name]
    kind = rng.randrange(4)
    if kind == 0:
        program.keep(attempt(lambda: cls.__new__(cls)))
    elif kind == 1:
        program.keep(attempt(cls, *program.values(rng)))
    else:
        program.keep(attempt(cls, *arguments))


def get_record(program, rng):
    code = program.function(rng)[rng.randrange(2)].__code__
    program.keep(attempt(rng.choice((
        lambda: program.module.CPerThread.GetPerThread(),
        lambda: program.module.CPerThread.GetPerThread(None, False),
        lambda: program.module.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe()),
        lambda: program.module.CPerCodeObject.GetPerCodeObject(code),
        lambda: program.module.CPerFile.GetPerFile(rng.choice(FILENAMES))))))


def change_field(program, rng):
    target = chosen(rng, program.things)
    if target is None:
        target = program.module.CPerThread
    fields = FIELDS.get(type(target).__name__) or FIELDS[rng.choice(list(FIELDS))]
    name = rng.choice(fields)
    if program.is_gentle and name == "fKnownPerCodeObjects":
        return
    if rng.randrange(8) == 0:
        attempt(delattr, target, name)
    else:
        # a record in a cycle lives for ever: the collector does not know records
        any_value = rng.choice(program.odd) if program.is_gentle else program.value(rng)
        value = rng.choice((0, 1, 5, -1, None)) if rng.randrange(2) else any_value
        attempt(setattr, target, name, value)


def change_registry(program, rng):
    cls, name = rng.choice(REGISTRIES)
    cls = getattr(program.module, cls)
    function = program.callable(rng)
    value = rng.choice((program.value(rng), {}, Anything(program.value(rng)), Sabotage(function),
                        Sabotage(lambda name: program.module.reset() if program.depth < 1 else None)))
    if rng.randrange(6) == 0:
        attempt(delattr, cls, name)
    elif rng.randrange(3) == 0:
        attempt(lambda: getattr(cls, name).__setitem__(program.value(rng), program.value(rng)))
    else:
        attempt(setattr, cls, name, value)


def change_hook(program, rng):
    cls, name = rng.choice(HOOKS)
    if program.is_gentle and cls == "CPerFile":
        return
    hook = rng.choice((None, program.value(rng), program.callable(rng), program.callable(rng)))
    if rng.randrange(2):
        attempt(setattr, getattr(program.module, cls), name, hook)
    else:
        setter = "Set" + name[2:]
        attempt(lambda: getattr(getattr(program.module, cls), setter)(hook))


def change_special_method(program, rng):
    cls = getattr(program.module, rng.choice(list(METHODS)))
    attempt(setattr, cls, rng.choice(SPECIAL_METHODS), program.callable(rng))


class Log(support.LogFile):
    """A log file whose every part may do something of the program's."""

    def __init__(self, on_write, on_flush):
        super().__init__()
        self.on_write, self.on_flush = on_write, on_flush

    def write(self, text):
        self.on_write()
        return super().write(text)

    def flush(self):
        self.on_flush()


def nothing(*args):
    pass


def plain_new(cls, *args):
    return object.__new__(cls)


def change_log(program, rng):
    log = Log(rng.choice((nothing, nothing, program.callable(rng))),
              rng.choice((nothing, nothing, nothing, program.callable(rng))))
    fileno = rng.choice((-1, -1, program.devnull))
    attempt(program.module.set_dprintf_file, rng.choice((log, log, log, None, program.value(rng))), fileno, 0)
    attempt(program.module.set_dprintf_mask, rng.choice((MASK_OF_ALL, MASK_OF_ALL, 0, 64, rng.randrange(1024))))
    support.process_mask().value = rng.choice((MASK_OF_ALL, support.DEFAULT_MASK, 0))


def write_log(program, rng):
    attempt(program.module.dprintf, rng.choice((1, 4, MASK_OF_ALL, 0, -1)),
            rng.choice(("text\n", "%s%n", program.callable(rng), program.value(rng))))


def change_checksums(program, rng):
    hook = rng.choice((None, program.callable(rng), program.value(rng)))
    if program.is_gentle and hook is not None:
        hook = with_hashable_answers(hook)
    attempt(program.module.set_checksum_callback, hook)


def with_hashable_answers(hook):
    """The hook as a host has to write it: without a record of its file, a code object's own record cannot die."""
    def function(name):
        answer = hook(name)
        hash(answer)
        return answer
    return function


def change_internal_names(program, rng):
    names = {rng.choice(FILENAMES): 1 for _ in range(rng.randrange(4))}
    attempt(program.module.SetInternalPathnameDict, rng.choice((names, program.value(rng), Sabotage(nothing))))


def compile_program(program, rng):
    made = attempt(new_program, rng.choice((None, rng.choice(FILENAMES))))
    if isinstance(made, tuple):
        program.functions.append(made)


def forget_things(program, rng):
    for pool in (program.things, program.functions):
        if pool:
            del pool[rng.randrange(len(pool))]
    if rng.randrange(2):
        gc.collect()


def call_callback(program, rng):
    callback = attempt(program.module.CInitialCallback, event_id(rng.choice(EVENT_NAMES)), program.callable(rng),
                       rng.randrange(2))
    attempt(setattr, callback, "fAnySuspendThread", rng.randrange(2))
    attempt(setattr, callback, "fSteppingEventsNeededEveryThread", rng.randrange(2))
    code = program.function(rng)[rng.randrange(2)].__code__
    for _ in range(rng.randrange(1, 4)):
        line = rng.choice((1, 2, 3, 2 ** 70, -1, None, OddInt(2), Evil()))
        attempt(lambda: callback.Callback(*rng.choice(((code, line), (code,), tuple(program.values(rng))))))
    program.keep(callback)


def run_watched(program, rng):
    """A function and a generator under the filter give what they give unwatched, whatever the callbacks do."""
    function, generator = program.function(rng)
    callbacks = {}
    for name in EVENT_NAMES:
        made = attempt(program.module.CInitialCallback, event_id(name), program.callable(rng), rng.randrange(2))
        if type(made) is program.module.CInitialCallback and rng.randrange(4):
            attempt(setattr, made, "fAnySuspendThread", rng.randrange(2))
            callbacks[event_id(name)] = made
    record = attempt(program.module.CPerCodeObject.GetPerCodeObject, function.__code__, True, sys._getframe())
    attempt(setattr, record, "fEnabledBpLinenos", rng.choice(({2}, {2, 3}, set(), frozenset({3}), None)))
    with contextlib.ExitStack() as stack:
        with choosing_a_tool:
            tool_id = next((each for each in range(6) if sys.monitoring.get_tool(each) is None), None)
            if tool_id is None:
                return
            tool = stack.enter_context(support.monitoring_tool(
                {event: each.Callback for event, each in callbacks.items()}, tool_id=tool_id))
        tool.set_local_events(function.__code__, sum(callbacks))
        tool.set_local_events(generator.__code__, sum(callbacks))
        for _ in range(2):
            results = function(7), list(generator())
            assert results == (7, [1, 2]), "the watched program gives %r" % (results,)


def run_in_threads(program, rng):
    if Program.threads > 1:
        return
    seeds = [rng.random() for _ in range(rng.randrange(1, 4))]
    failures = []

    def work(seed):
        try:
            for number in range(3):
                program.step(random.Random("%s/%s" % (seed, number)))
        except AssertionError as error:
            failures.append(error)
        except BaseException:       # of the program
            pass

    program.depth += 1
    if program.depth <= DEPTH:
        threads = [threading.Thread(target=work, args=(seed,)) for seed in seeds]
        for thread in threads:
            attempt(thread.start)
        for thread in threads:
            attempt(thread.join)
    program.depth -= 1
    if failures:
        raise failures[0]


def fork(program, rng):
    if program.depth or Program.threads > 1 or threading.active_count() > 1:
        return
    pid = os.fork()
    if pid == 0:
        program.depth = DEPTH
        attempt(call_callback, program, rng)
        attempt(program.module.UpdateThisProcessPid)
        attempt(run_watched, program, rng)
        os._exit(0)
    assert os.waitpid(pid, 0)[1] == 0, "a forked child ended badly"


def raise_tracing(program, rng):
    count = rng.randrange(1, 4)
    attempt(program.module.AddToThreadStateTracing, count)
    attempt(call_callback, program, rng)
    attempt(program.module.AddToThreadStateTracing, -count)


def reset(program, rng):
    attempt(program.module.reset)


WEIGHED_STEPS = (
    (call_function, 6), (call_file_function, 4), (call_method, 8), (make_record, 8), (get_record, 8), (change_field, 14),
    (change_registry, 5), (change_hook, 5), (change_special_method, 1), (change_log, 5), (write_log, 2),
    (change_checksums, 2), (change_internal_names, 2), (compile_program, 4), (forget_things, 4), (call_callback, 10),
    (run_watched, 10), (run_in_threads, 3), (fork, 1), (raise_tracing, 1), (reset, 2),
)
STEPS = [step for step, _ in WEIGHED_STEPS]
WEIGHTS = [weight for _, weight in WEIGHED_STEPS]


# ---- In the child ----

def count_every_reference():
    """In debug builds: counts go through the interpreter, so that its total tells them. Null elsewhere."""
    if not hasattr(sys, "gettotalrefcount"):
        return None
    words = (ctypes.c_int * 8).in_dll(support.library(), "global_XPy_C_API_Data")
    words[7] = 0            # can_update_refcount_directly
    return sys.gettotalrefcount


def ignore_own_errors(unraisable):
    """What the program's functions raise as `__del__` is the program's own affair."""
    named = "%s %s" % (getattr(unraisable.object, "__qualname__", None), unraisable.err_msg)
    if "Program.callable.<locals>.function" not in named:
        sys.__unraisablehook__(unraisable)


def run_at_once(programs, numbers):
    failures = []

    def work(program):
        try:
            program.run(numbers)
        except BaseException as error:
            failures.append(error)

    threads = [threading.Thread(target=work, args=(program,)) for program in programs]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]


def run_program(module, seed, numbers, show):
    programs = [Program(module, seed + number * SEEDS_OF_A_THREAD, show) for number in range(Program.threads)]
    devnull = os.open(os.devnull, os.O_WRONLY)
    for program in programs:
        program.devnull = devnull
    if len(programs) == 1:
        programs[0].run(numbers)
    else:
        run_at_once(programs, numbers)
    programs[0].settle()
    os.close(devnull)


def find_loss(module, seed, numbers, total_references):
    """What every repetition of the program loses, as text, or None: whatever is lost by one is lost by all."""
    measures = {"blocks": support.allocated_blocks}
    if total_references:
        measures["references"] = total_references
    # made before, so that what is measured is not measured as well
    columns = {name: array.array("q", [0] * REPETITIONS) for name in measures}
    for i in range(REPETITIONS):
        run_program(module, seed, numbers, False)
        for name in measures:
            columns[name][i] = measures[name]()
    for name, column in columns.items():
        steps = [after - before for before, after in zip(column[2:], column[3:])]
        if min(steps) > 0:
            return "every repetition loses %s: %s" % (name, steps)
    return None


def child(module, seed, numbers, show):
    signal.alarm(SECONDS_PER_PROGRAM)
    faulthandler.enable()
    module.UpdateThisProcessPid()
    sys.setrecursionlimit(200)
    warnings.simplefilter("ignore")
    sys.unraisablehook = ignore_own_errors
    os.chdir(tempfile.gettempdir())
    total_references = count_every_reference()
    run_program(module, seed, numbers, show)
    assert_filter_works(module)
    if seed % 2 == 0 and not support.FREE_THREADED:     # which gives memory back late, in lumps
        loss = find_loss(module, seed, numbers, total_references)
        assert loss is None, loss


def outcome(module, seed, numbers, show=False):
    """What is wrong with the program, as text; empty when nothing is."""
    with tempfile.TemporaryFile() as errors:
        sys.stdout.flush()
        pid = os.fork()
        if pid == 0:
            os.dup2(errors.fileno(), 2)
            try:
                child(module, seed, numbers, show)
            except BaseException:
                traceback.print_exc()
                os._exit(1)
            raise Finished          # and on to an ordinary end of the interpreter
        _, status = os.waitpid(pid, 0)
        errors.seek(0)
        text = LOST_REPORT.sub("", errors.read().decode("utf-8", "replace"))
    return "status %s\n%s" % (status, text) if status or text else ""


class Finished(BaseException):
    """Unwinds the child out of the loop over programs."""


# ---- In the parent ----

def shorten(module, seed, numbers, attempts=60):
    """The steps that the failure needs: the shortest prefix, then without each step that is not needed."""
    numbers = list(numbers)
    low, high = 0, len(numbers)
    while low + 1 < high:
        middle = (low + high) // 2
        if outcome(module, seed, numbers[:middle]):
            high = middle
        else:
            low = middle
    numbers = numbers[:high]
    for number in list(numbers):
        rest = [each for each in numbers if each != number]
        attempts -= 1
        if attempts >= 0 and outcome(module, seed, rest):
            numbers = rest
    return numbers


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--programs", type=int)
    parser.add_argument("--steps", type=int, default=40)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--only", help="the numbers of the steps to run, of the one program of the seed")
    parser.add_argument("--show", action="store_true")
    parser.add_argument("--keep-going", action="store_true")
    parser.add_argument("--report")
    parser.add_argument("--interpreter", default="%d.%d.%d" % sys.version_info[:3])
    return parser.parse_args()


def seeds_of(options):
    first = random.randrange(10 ** 9) if options.seed is None else options.seed
    end = time.monotonic() + options.seconds
    count = 0
    while count < options.programs if options.programs else time.monotonic() < end:
        yield first + count
        count += 1


def run_all(module, options):
    """The numbers of programs that ran well and of those that did not."""
    passed = failed = 0
    for seed in seeds_of(options):
        numbers = range(options.steps)
        wrong = outcome(module, seed, numbers, options.show)
        if not wrong:
            passed += 1
            continue
        failed += 1
        needed = shorten(module, seed, numbers)
        print("--seed %d --only %s: %s" % (seed, ",".join(map(str, needed)), outcome(module, seed, needed) or wrong))
        if not options.keep_going:
            break
    return passed, failed


def main():
    options = parse_options()
    Program.threads = options.threads
    module = support.load()
    support.library()
    Program.original_methods = {name: {special: vars(getattr(module, name))[special]
                                       for special in ("__init__", "__del__")} for name in METHODS}
    if options.only is not None:
        wrong = outcome(module, options.seed, [int(number) for number in options.only.split(",")], options.show)
        print(wrong or "nothing is wrong")
        return 1 if wrong else 0
    passed, failed = run_all(module, options)
    print("%d programs of %d steps ran well, %d did not" % (passed, options.steps, failed))
    if options.report:
        with open(options.report, "w") as stream:
            json.dump({"interpreter": options.interpreter, "suite": "fuzz", "passed": 1 if not failed else 0,
                       "failed": 1 if failed else 0, "skipped": {}}, stream)
    return 1 if failed else 0


if __name__ == "__main__":
    try:
        status = main()
    except Finished:
        status = 0
    sys.exit(status)
