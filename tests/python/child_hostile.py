"""What a program that is not trusted may do to the module's visible attributes. Nothing of it may end the process."""

import _testcapi
import copy
import gc
import itertools
import operator
import pickle
import sys
import threading
import types
import weakref

import support
from child_cases import attempt, case, main, new_program
from filter_support import EVENT_NAMES, event_id

# ADD-MEMBER: its name.
FIELDS = {
    "CInitialCallback": ("_mod", "_fSecondCallback", "_fCanReturnDisable", "fAnySuspendThread",
                         "fSteppingEventsNeededEveryThread"),
    "CPerThread": ("mod", "fThreadId", "fSteppingEventsNeeded", "fOuterMostFrame", "fStopFrame",
                   "fDontStopLinenoRange", "fReturnFrame", "fStopAtNextLine", "fDebugPolicy", "fSuspendLock",
                   "fCheckSuspendLock", "fThreadName", "fExitingWithException", "fSteppingCodeObjects"),
    "CPerCodeObject": ("fCodeObjectWeakRef", "fCanonicalPathname", "fPathnameToReport", "fIsInternal",
                       "fEnabledBpLinenos", "fSteppingEventsNeededCount", "fReturnEventsNeededCount"),
    "CPerFile": ("fCanonicalPathname", "fBpSetByLineno", "fKnownPerCodeObjects", "fChecksum"),
}
REGISTRIES = [("CPerThread", "_fPerThreadDict"), ("CPerCodeObject", "_fPerCodeObjectDict"),
              ("CPerFile", "_fPerFilesDict"), ("CPerFile", "_fByChecksum")]
HOOKS = [("CPerThread", "_fDebugPolicyCallback"), ("CPerThread", "_fNewPerThreadCreatedCallback"),
         ("CPerThread", "_fGetThreadNameCallback"), ("CPerCodeObject", "_fNewPerCodeObjectCreatedCallback"),
         ("CPerFile", "_fNewPerFileCreatedCallback")]
METHODS = {
    "CInitialCallback": ("Callback",),
    "CPerThread": ("GetPerThread", "GetAllPerThreads", "SetDebugPolicyCallback", "SetNewPerThreadCreatedCallback",
                   "SetGetThreadNameCallback", "GetDebugPolicy", "FindThreadName"),
    "CPerCodeObject": ("GetPerCodeObject", "SetNewPerCodeObjectCreatedCallback", "_cb_code_object_dealloc"),
    "CPerFile": ("GetPerFile", "GetPerFileSetForChecksum", "GetAllPerFiles", "SetNewPerFileCreatedCallback",
                 "UpdateChecksum"),
}
FUNCTIONS = ("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname",
             "set_dprintf_file", "set_dprintf_mask", "get_dprintf_mask", "dprintf", "set_checksum_callback",
             "get_checksum_callback", "SetInternalPathnameDict", "IsInternalFrame", "GetNonInternalFrame",
             "GetPathnameKind", "UpdateThisProcessPid", "reset")


# ---- Odd objects ----

class Evil(object):
    """Raises wherever the interpreter asks something of it."""

    def _refuse(self, *args, **keywords):
        raise ZeroDivisionError("evil")

    (__bool__, __hash__, __eq__, __ne__, __lt__, __iter__, __len__, __getitem__, __setitem__, __delitem__, __contains__,
     __int__, __index__, __float__, __str__, __repr__, __call__, __enter__, __exit__) = (_refuse,) * 19

    def __getattr__(self, name):
        raise ZeroDivisionError("evil")


class OddStr(str):
    def __hash__(self):
        return 7

    def __eq__(self, other):
        raise ZeroDivisionError("evil")


class OddInt(int):
    def __hash__(self):
        raise ZeroDivisionError("evil")

    def __index__(self):
        return "no number"


def odd_objects(module):
    yield from (None, True, 0, -1, 1, 2 ** 31, -2 ** 63, 2 ** 64, 2 ** 4000, 1.5, float("nan"), 1j)
    yield from ("", "x", "\0", "\ud800", "<", "<>", "<frozen", "a" * 100000, OddStr("x"), b"", b"\xff", bytearray(b"x"))
    yield from ((), [], {}, set(), frozenset([1]), {1: 2}, [None] * 3, OddInt(3), Evil(), Evil, object(), type, int)
    yield from (module, module.CPerThread, len, sys, sys._getframe(), sys._getframe().f_code, lambda *a, **k: a,
                threading.Lock(), memoryview(b"x"), range(3), NotImplemented, ..., slice(1), weakref.ref(Evil))
    for name in METHODS:
        cls = getattr(module, name)
        yield cls.__new__(cls)
        yield type("Sub" + name, (cls,), {}).__new__(cls)


# ---- What the module does all day ----

def _exercise_methods(module, function):
    code = function.__code__
    callback = attempt(module.CInitialCallback, event_id("LINE"), lambda *args: None, 1)
    attempt(setattr, callback, "fAnySuspendThread", 1)
    for args in ((), (42,), (code,), (code, 1), (code, 2), (code, object()), (code, Evil(), 3)):
        attempt(lambda: callback.Callback(*args))
    record = attempt(module.CPerThread.GetPerThread)
    for name in ("GetDebugPolicy", "FindThreadName"):
        attempt(lambda: getattr(record, name)())
    attempt(module.CPerThread.GetPerThread, 12345)
    attempt(module.CPerThread.GetPerThread, 12345, False)
    attempt(module.CPerThread.GetAllPerThreads)
    attempt(module.CPerThread.SetDebugPolicyCallback, None)
    attempt(module.CPerCodeObject.GetPerCodeObject, code)
    attempt(module.CPerCodeObject.GetPerCodeObject, code, True, sys._getframe())
    per_file = attempt(module.CPerFile.GetPerFile, "/nowhere/exercise.py")
    attempt(lambda: per_file.UpdateChecksum())
    attempt(module.CPerFile.GetAllPerFiles)
    attempt(module.CPerFile.GetPerFileSetForChecksum, "checksum")
    attempt(module.IsInternalFrame, sys._getframe())
    attempt(module.GetNonInternalFrame, 1)
    attempt(module.get_canonical_pathname, "/nowhere/exercise.py", None)
    attempt(module.dprintf, 1023, "text\n")


def _exercise_events(module):
    functions = new_program()
    record = attempt(module.CPerCodeObject.GetPerCodeObject, functions[0].__code__, True, sys._getframe())
    attempt(setattr, record, "fEnabledBpLinenos", {2})
    callbacks = {event_id(name): module.CInitialCallback(event_id(name), lambda *args: None, 1)
                 for name in EVENT_NAMES}
    for callback in callbacks.values():
        callback.fAnySuspendThread = 1
    with support.monitoring_tool({event: callback.Callback for event, callback in callbacks.items()}) as tool:
        for function in functions:
            tool.set_local_events(function.__code__, sum(callbacks))
        for _ in range(2):
            functions[0]()
            list(functions[1]())


def exercise(module):
    """Along every path of the module, in this thread, a new one, and one that is not Python's. Errors are fine."""
    def work():
        _exercise_methods(module, new_program()[0])
        attempt(_exercise_events, module)

    work()
    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    _testcapi.call_in_temporary_c_thread(work)
    gc.collect()


def logged(module, mask=1023):
    """A log of everything, kept by the module."""
    log = support.LogFile()
    module.set_dprintf_file(log, -1, 0)
    module.set_dprintf_mask(mask)
    return log


# ---- Members ----

def _set_members(module, make, fields, extra=()):
    for value in odd_objects(module):
        record = make()
        for name in fields:
            attempt(setattr, record, name, value)
        for name, wanted in extra:
            attempt(setattr, record, name, wanted)
        yield record
    record = make()
    for name in fields:
        attempt(delattr, record, name)
    for name, wanted in extra:
        attempt(setattr, record, name, wanted)
    yield record


@case
def members_of_callbacks(module):
    code = new_program()[0].__code__
    for record in _set_members(module, lambda: module.CInitialCallback(event_id("LINE"), 5, 1),
                               FIELDS["CInitialCallback"]):
        attempt(record.Callback, code, 1)


@case
def members_of_thread_records(module):
    callback = module.CInitialCallback(event_id("LINE"), lambda *args: None, 1)
    callback.fAnySuspendThread = 1
    code = new_program()[0].__code__
    for _ in _set_members(module, module.CPerThread.GetPerThread, FIELDS["CPerThread"],
                          [("fCheckSuspendLock", 1), ("fDebugPolicy", -1)]):
        attempt(callback.Callback, code, 1)
    exercise(module)


@case
def members_of_code_records(module):
    callbacks = [module.CInitialCallback(event_id(name), lambda *args: None, 1) for name in EVENT_NAMES]
    code = new_program()[0].__code__
    for _ in _set_members(module, lambda: module.CPerCodeObject.GetPerCodeObject(code), FIELDS["CPerCodeObject"]):
        for callback in callbacks:
            for line in (1, 2, Evil(), OddInt(2), "x", [], 2 ** 70, -1):
                attempt(callback.Callback, code, line)


@case
def members_of_file_records(module):
    for record in _set_members(module, lambda: module.CPerFile.GetPerFile("/nowhere/a.py"), FIELDS["CPerFile"]):
        attempt(record.UpdateChecksum)


@case
def descriptors_of_other_classes(module):
    records = [module.CPerThread(5), module.CPerFile("/a.py"), module.CInitialCallback(1, 2, 3), Evil(), 5, module]
    for cls, names in FIELDS.items():
        for name in names:
            descriptor = getattr(module, cls).__dict__[name]
            for record in records:
                attempt(descriptor.__get__, record)
                attempt(descriptor.__set__, record, None)
                attempt(descriptor.__delete__, record)
    exercise(module)


# ---- Registries ----

class Sabotage(dict):
    """A registry that does something else first."""

    def __init__(self, action, *args):
        super().__init__(*args)
        self.action = action

    def _first(name):
        def method(self, *args):
            self.action(name)
            return getattr(super(Sabotage, self), name)(*args)
        return method

    __getitem__, __setitem__, __delitem__, clear, values = map(
        _first, ("__getitem__", "__setitem__", "__delitem__", "clear", "values"))


@case
def registries_of_other_types(module):
    for value in odd_objects(module):
        for cls, name in REGISTRIES:
            setattr(getattr(module, cls), name, value)
        exercise_briefly(module)
    exercise(module)
    attempt(module.reset)


def exercise_briefly(module):
    _exercise_methods(module, new_program()[0])
    thread = threading.Thread(target=attempt, args=(module.CPerThread.GetPerThread,))
    thread.start()
    thread.join()


@case
def registries_deleted(module):
    for cls, name in REGISTRIES + HOOKS:
        attempt(delattr, getattr(module, cls), name)
        exercise(module)
        attempt(module.reset)


class Anything(dict):
    """A registry that has one value under every key."""

    def __init__(self, value):
        super().__init__()
        self.value = value

    def __getitem__(self, key):
        return self.value


@case
def registries_with_odd_values(module):
    for value in odd_objects(module):
        for cls, name in REGISTRIES:
            setattr(getattr(module, cls), name, Anything(value))
        exercise_briefly(module)
    exercise(module)


@case
def registries_with_the_records_of_others(module):
    other = []
    thread = threading.Thread(target=lambda: other.append(module.CPerThread.GetPerThread()))
    thread.start()
    thread.join()
    for record in other + [module.CPerThread(5)]:
        module.CPerThread._fPerThreadDict = Anything(record)
        exercise(module)
    module.CPerThread._fPerThreadDict = {}
    del other[:], record
    exercise(module)


@case
def registries_that_raise(module):
    for error in (ValueError, KeyError, SystemExit, KeyboardInterrupt, GeneratorExit, MemoryError, RecursionError):
        def action(name):
            raise error("sabotage")
        for cls, name in REGISTRIES:
            setattr(getattr(module, cls), name, Sabotage(action))
        exercise(module)
        attempt(module.reset)


@case
def registries_that_reset(module):
    for cls, name in REGISTRIES:
        setattr(getattr(module, cls), name, Sabotage(lambda name: name != "clear" and module.reset()))
    exercise(module)


@case
def registries_that_hold_the_last_of_a_code_object(module):
    """The code dies with the registry that is replaced, and its death asks for that registry."""
    for cls, name in REGISTRIES:
        owner = getattr(module, cls)
        for _ in range(5):
            code = new_program()[0].__code__
            module.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
            setattr(owner, name, {})
            exercise_briefly(module)            # the module has seen it
            getattr(owner, name)["code"] = code
            del code
            gc.collect()
            setattr(owner, name, {})
            made = [{} for _ in range(200)]
            assert len(set(map(id, made))) == len(made), "two dicts are one"
        attempt(module.reset)
    exercise(module)


@case
def registries_that_call_the_module(module):
    depth = []

    def action(name):
        if not depth:
            depth.append(name)
            try:
                _exercise_methods(module, new_program()[0])
            finally:
                depth.pop()

    for cls, name in REGISTRIES:
        setattr(getattr(module, cls), name, Sabotage(action))
    exercise_briefly(module)
    attempt(module.reset)


@case
def registries_that_lose_everything(module):
    """Each use of a registry replaces all of them, which drops every record that only they hold."""
    def action(name):
        for cls, attribute in REGISTRIES:
            setattr(getattr(module, cls), attribute, Sabotage(action))
        gc.collect()

    action(None)
    exercise(module)
    attempt(module.reset)


class Ending(dict):
    """A registry that ends a record while it is entered: before, where the record's code object leads to it, and then."""

    def __init__(self, module):
        super().__init__()
        self.module = module

    def __delitem__(self, key):
        if isinstance(key, weakref.ref) and key() is not None:
            record = self.module.CPerCodeObject.GetPerCodeObject(key(), False)
            del key                              # the record has the last reference
            record.__del__()
        raise KeyError

    def __setitem__(self, key, record):
        super().__setitem__(key, record)
        if hasattr(record, "__del__"):
            record.__del__()


@case
def registries_that_end_the_records_that_are_entered(module):
    for cls, name in REGISTRIES:
        setattr(getattr(module, cls), name, Ending(module))
        exercise_briefly(module)
    exercise(module)
    attempt(module.reset)


class EndingWhenRead:
    """In place of a registry: reading the attribute ends the record that the code object leads to."""

    def __init__(self, module, code):
        self.module, self.code = module, code
        self.is_read = False

    def __get__(self, *_):
        if self.is_read:
            return {}
        self.is_read = True
        try:
            record = self.module.CPerCodeObject.GetPerCodeObject(self.code, False)
            if record is not None:
                record.__del__()
        finally:
            self.is_read = False
        return {}


@case
def registries_whose_reading_ends_the_record(module):
    code = new_program()[0].__code__
    module.CPerCodeObject._fPerCodeObjectDict = EndingWhenRead(module, code)
    try:
        module.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
    except AttributeError as error:
        assert str(error) == "fCodeObjectWeakRef", error
    else:
        raise AssertionError("a record without its weak reference was registered")
    exercise(module)
    attempt(module.reset)


# ---- Construction ----

SUBCLASS_TABLES = [{}, {"__slots__": ()}, {"__slots__": ("extra",)}, {"__slots__": ("__dict__", "__weakref__")}]


@case
def objects_without_init(module):
    for name, methods in METHODS.items():
        for table in [None] + SUBCLASS_TABLES:
            cls = getattr(module, name)
            cls = cls if table is None else type("Sub", (cls,), dict(table))
            half = cls.__new__(cls)
            for field in FIELDS[name]:
                attempt(getattr, half, field)
                attempt(setattr, half, field, half)
            for method in methods:
                for args in ((), (None,), (half,), (new_program()[0].__code__, 1)):
                    attempt(getattr(half, method), *args)
            del half
    exercise(module)


@case
def half_made_objects_in_the_registries(module):
    def records():
        for name in METHODS:
            cls = getattr(module, name)
            yield cls.__new__(cls)
    for record in records():
        module.CPerThread._fPerThreadDict[threading.get_ident()] = record
        function, _ = new_program()
        module.CPerCodeObject._fPerCodeObjectDict[weakref.ref(function.__code__)] = record
        module.CPerFile._fPerFilesDict[function.__code__.co_filename] = record
        _exercise_methods(module, function)
    del record
    exercise(module)


@case
def init_twice(module):
    code = new_program()[0].__code__
    arguments = {"CInitialCallback": (1, len, 1), "CPerThread": (threading.get_ident(),),
                 "CPerCodeObject": (code, None), "CPerFile": ("/a.py",)}
    for name, args in arguments.items():
        cls = getattr(module, name)
        for each in [cls] + [type("Sub", (cls,), dict(table)) for table in SUBCLASS_TABLES]:
            record = each(*args)
            for _ in range(5):
                attempt(record.__init__, *args)
                attempt(record.__init__)
                attempt(record.__init__, *args, key=1)
                for value in odd_objects(module):
                    attempt(record.__init__, *[value] * len(args))
    exercise(module)


@case
def init_of_another_class(module):
    for names in itertools.permutations(METHODS, 2):
        first, second = (getattr(module, name) for name in names)
        half = first.__new__(first)
        attempt(second.__init__, half, 1)
        attempt(second.__new__, first)
        for method in METHODS[names[1]]:
            attempt(second.__dict__[method].__get__, half)
            attempt(getattr(second, method), half, half)
    exercise(module)


@case
def init_within_init(module):
    """Code that construction runs constructs the same object again."""
    def again(*args):
        for record in list(made):
            attempt(record.__init__, *arguments)
        return "checksum"

    class PerThread(module.CPerThread):
        def __new__(cls, *args):
            made.append(super().__new__(cls))
            return made[-1]

    class PerFile(module.CPerFile):
        __new__ = PerThread.__dict__["__new__"]

    class PerCodeObject(module.CPerCodeObject):
        def __new__(cls, *args):
            made.append(super().__new__(cls))
            return made[-1]

        def __getattribute__(self, name):
            if len(made) < 5:
                made.append(self)
                again()
            return super().__getattribute__(name)

    made, arguments = [], (threading.get_ident(),)
    real_lock, threading.Lock = threading.Lock, again
    attempt(PerThread, *arguments)
    threading.Lock = real_lock
    module.set_checksum_callback(again)
    made, arguments = [], ("/a.py",)
    attempt(PerFile, *arguments)
    made, arguments = [], (new_program()[0].__code__, None)
    attempt(PerCodeObject, *arguments)
    made, arguments = [], (new_program()[0].__code__, None)
    attempt(PerCodeObject, new_program()[0].__code__, None)
    del made
    exercise(module)


@case
def new_that_returns_something_else(module):
    """Calls of a class give what its `__new__` gives."""
    for value in odd_objects(module):
        for name in METHODS:
            getattr(module, name).__new__ = lambda cls, *args: value
        exercise_briefly(module)
        attempt(_exercise_events_without_callbacks, module)
    exercise(module)


def _exercise_events_without_callbacks(module):
    """Events of new code objects with a callback that was made before."""
    for callback in callbacks_made_before:
        for args in ((new_program()[0].__code__, 1), (new_program()[1].__code__,)):
            attempt(callback.Callback, *args)
    attempt(module.IsInternalFrame, sys._getframe())
    attempt(module.GetNonInternalFrame)
    exec(compile("import sys\nattempt(module.IsInternalFrame, sys._getframe())", "/nowhere/frame.py", "exec"),
         {"module": module, "attempt": attempt})


callbacks_made_before = []


def _make_callbacks(module):
    callbacks_made_before[:] = [module.CInitialCallback(event_id(name), lambda *args: None, 1)
                                for name in EVENT_NAMES]


@case
def new_of_code_records_that_returns_something_else(module):
    _make_callbacks(module)
    for value in odd_objects(module):
        module.CPerCodeObject.__new__ = lambda cls, *args: value
        _exercise_events_without_callbacks(module)
    exercise(module)


@case
def new_of_thread_records_that_returns_something_else(module):
    _make_callbacks(module)
    for value in odd_objects(module):
        module.CPerThread.__new__ = lambda cls, *args: value
        _exercise_events_without_callbacks(module)
        exercise_briefly(module)
    exercise(module)


@case
def new_of_file_records_that_returns_something_else(module):
    _make_callbacks(module)
    for value in odd_objects(module):
        module.CPerFile.__new__ = lambda cls, *args: value
        _exercise_events_without_callbacks(module)
        exercise_briefly(module)
    exercise(module)


@case
def metaclass_that_returns_something_else(module):
    for value in odd_objects(module):
        class Meta(type):
            def __call__(cls, *args):
                return value
        _make_callbacks(module)
        for name in ("CPerThread", "CPerFile", "CPerCodeObject"):
            attempt(setattr, getattr(module, name), "__class__", Meta)
        _exercise_events_without_callbacks(module)
        exercise_briefly(module)
        for name in ("CPerThread", "CPerFile", "CPerCodeObject"):
            attempt(setattr, getattr(module, name), "__class__", type)
    exercise(module)


@case
def metaclass_that_refuses(module):
    class Meta(type):
        def __getattribute__(cls, name):
            raise ZeroDivisionError("evil")

        def __setattr__(cls, name, value):
            raise ZeroDivisionError("evil")
    _make_callbacks(module)
    for name in METHODS:
        attempt(setattr, getattr(module, name), "__class__", Meta)
    _exercise_events_without_callbacks(module)
    attempt(module.reset)
    exercise_briefly(module)
    exercise(module)


@case
def init_that_does_nothing(module):
    _make_callbacks(module)
    for name in METHODS:
        getattr(module, name).__init__ = lambda self, *args: None
    for _ in range(3):
        _exercise_events_without_callbacks(module)
        exercise(module)


@case
def subclasses_in_the_registries(module):
    code = new_program()[0].__code__
    for table in SUBCLASS_TABLES:
        records = [type("Sub", (getattr(module, name),), dict(table))(*args)
                   for name, args in (("CPerThread", (threading.get_ident(),)), ("CPerFile", (code.co_filename,)),
                                      ("CPerCodeObject", (code, None)))]
        exercise(module)
        del records
        exercise(module)


@case
def classes_of_objects_changed(module):
    for name in METHODS:
        cls = getattr(module, name)
        for table in SUBCLASS_TABLES:
            sub = type("Sub", (cls,), dict(table))
            half = cls.__new__(cls)
            attempt(setattr, half, "__class__", sub)
            for other in METHODS:
                attempt(setattr, half, "__class__", getattr(module, other))
            attempt(setattr, sub, "__bases__", (object,))
            attempt(setattr, sub, "__bases__", (module.CPerFile,))
            attempt(setattr, cls, "__bases__", (sub,))
    record = module.CPerThread.GetPerThread()
    attempt(setattr, record, "__class__", type("Empty", (module.CPerThread,), {"__slots__": ()}))
    del record
    exercise(module)


@case
def mro_that_lies(module):
    for name in METHODS:
        cls = getattr(module, name)

        class Meta(type):
            def mro(self):
                return [self, cls, object]
        fake = attempt(Meta, "Fake", (object,), {})
        if isinstance(fake, type):
            for method in METHODS[name]:
                attempt(getattr(cls, method), fake())
            module.CPerThread._fPerThreadDict = Anything(fake())
            exercise_briefly(module)


@case
def copies(module):
    records = [module.CPerThread.GetPerThread(), module.CPerFile.GetPerFile("/a.py"),
               module.CInitialCallback(1, len, 1), module.CPerCodeObject.GetPerCodeObject(new_program()[0].__code__)]
    records += [type("Sub", (type(record),), {}).__new__(type("Sub2", (type(record),), {})) for record in records
                if not attempt(lambda: None)]
    for record in records:
        for action in (copy.copy, copy.deepcopy, pickle.dumps, operator.methodcaller("__reduce_ex__", 2),
                       operator.methodcaller("__reduce_ex__", 4), operator.methodcaller("__sizeof__"), repr, hash):
            result = attempt(action, record)
            for method in METHODS.get(type(record).__name__, ()):
                attempt(lambda: getattr(result, method)())
    exercise(module)


# ---- Destruction ----

@case
def del_called_by_hand(module):
    function, _ = new_program()
    record = module.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe())
    per_file = module.CPerFile.GetPerFile(function.__code__.co_filename)
    thread = module.CPerThread.GetPerThread()
    callback = module.CInitialCallback(event_id("LINE"), len, 1)
    for each in (record, per_file, thread, callback):
        for _ in range(3):
            each.__del__()
            attempt(callback.Callback, function.__code__, 1)
            exercise(module)
    del record, per_file, thread, callback, each, function
    exercise(module)


@case
def del_that_does_nothing(module):
    """Records die without what the module does at their death."""
    _make_callbacks(module)
    for name in METHODS:
        getattr(module, name).__del__ = lambda self: None
    _lose_thread_records(module, module.CPerThread)


@case
def del_of_a_subclass_that_does_nothing(module):
    _make_callbacks(module)
    for table in SUBCLASS_TABLES:
        _lose_thread_records(module, type("Sub", (module.CPerThread,), dict(table, __del__=lambda self: None)))


def _lose_thread_records(module, cls):
    """This thread's records die where only the registry holds them, and the thread looks for its record again."""
    def work():
        for thread_id in (12345, threading.get_ident()):
            for _ in range(3):
                module.CPerThread._fPerThreadDict = {threading.get_ident(): cls(thread_id)}
                attempt(module.CPerThread.GetPerThread)
                module.CPerThread._fPerThreadDict = {}
                gc.collect()
                fill = [cls.__new__(cls) for _ in range(100)]
                del fill
                _exercise_events_without_callbacks(module)
                exercise_briefly(module)
        for record in (cls.__new__(cls),):
            module.CPerThread._fPerThreadDict = {threading.get_ident(): record}
            attempt(module.CPerThread.GetPerThread)
            del record
            module.CPerThread._fPerThreadDict = {}
        _exercise_events_without_callbacks(module)

    work()
    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    _testcapi.call_in_temporary_c_thread(work)


@case
def records_that_come_back_to_life(module):
    kept = []
    for name, args in (("CPerThread", (threading.get_ident(),)), ("CPerFile", ("/a.py",)),
                       ("CPerCodeObject", (new_program()[0].__code__, None)), ("CInitialCallback", (1, len, 1))):
        cls = type("Sub", (getattr(module, name),), {"__del__": lambda self: kept.append(self)})
        attempt(cls, *args)
        exercise(module)
        attempt(module.reset)
        for record in kept:
            for method in METHODS[name]:
                attempt(getattr(record, method), new_program()[0].__code__)
        del kept[:]
    exercise(module)


@case
def death_callback_called_by_hand(module):
    function, _ = new_program()
    record = module.CPerCodeObject.GetPerCodeObject(function.__code__, True, sys._getframe())
    for value in odd_objects(module):
        attempt(record._cb_code_object_dealloc, value)
    attempt(record.fCodeObjectWeakRef.__callback__, record.fCodeObjectWeakRef)
    _exercise_methods(module, function)
    del function
    exercise(module)


@case
def methods_deleted(module):
    for name, methods in METHODS.items():
        for method in methods + FIELDS[name] + ("__init__", "__del__"):
            attempt(delattr, getattr(module, name), method)
    attempt(_exercise_events_without_callbacks, module)
    attempt(exercise, module)


# ---- Arguments ----

def _calls(module):
    """Every callable of the module, but for one that counts as far as its argument says."""
    for name in FUNCTIONS:
        yield getattr(module, name)
    for name, methods in METHODS.items():
        cls = getattr(module, name)
        yield cls
        for record in (cls.__new__(cls), type("Sub", (cls,), {}).__new__(type("Sub", (cls,), {}))) \
                if name != "CPerThread" else (cls.__new__(cls), cls(5)):
            for method in methods:
                yield getattr(record, method)


@case
def calls_with_any_arguments(module):
    calls = list(_calls(module))
    for call in calls:
        attempt(call)
        for value in odd_objects(module):
            attempt(call, value)
            attempt(call, value, value)
            attempt(call, value, value, value)
            for keyword in ("thread_id", "create", "callback", "pathname", "checksum", "code_object", "frame", "s",
                            "domain", "d", "back_count", "\ud800", ""):
                attempt(call, **{keyword: value})
                attempt(call, value, **{keyword: value})
        attempt(call, *range(1000))
        attempt(call, **{str(number): number for number in range(1000)})
    exercise(module)


@case
def callback_with_any_arguments(module):
    code = new_program()[0].__code__
    for number in (event_id("LINE"), event_id("PY_START"), event_id("PY_RETURN"), 0, -1, 99):
        callback = module.CInitialCallback(number, lambda *args, **keywords: None, 1)
        record = module.CPerCodeObject.GetPerCodeObject(code, True, None)
        for lines in (None, set(), {1, 2}, frozenset([3]), 5, Evil()):
            record.fEnabledBpLinenos = lines
            for value in odd_objects(module):
                attempt(callback.Callback, value)
                attempt(callback.Callback, code, value)
                attempt(callback.Callback, code, value, value, value, key=value)
                attempt(callback.Callback, key=value)


@case
def tracing_counter_moved_too_far(module):
    for count in (-1, -1, -5, 3, -3, 0, True, -100, 100):
        attempt(module.AddToThreadStateTracing, count)
    for value in odd_objects(module):
        if not isinstance(value, int):
            attempt(module.AddToThreadStateTracing, value)


@case
def huge_numbers_for_the_tracing_counter(module):
    for count in (2 ** 62, -2 ** 62, 2 ** 31, -2 ** 31 - 1, 2 ** 64):
        attempt(module.AddToThreadStateTracing, count)


@case
def callbacks_registered_half_made(module):
    function, generator = new_program()
    callbacks = {}
    for name in EVENT_NAMES:
        callbacks[event_id(name)] = module.CInitialCallback.__new__(module.CInitialCallback).Callback
    with support.monitoring_tool(callbacks) as tool:
        tool.set_local_events(function.__code__, sum(callbacks))
        tool.set_local_events(generator.__code__, sum(callbacks))
        assert function(3) == 3
        assert list(generator()) == [1, 2]


@case
def callback_that_loses_itself(module):
    """The second callback drops the last reference to the object that called it."""
    function, _ = new_program()
    start = event_id("PY_START")

    def second(*args):
        sys.monitoring.register_callback(3, start, None)
        del holder[:]
        gc.collect()

    for _ in range(20):
        holder = [module.CInitialCallback(start, second, 1)]
        with support.monitoring_tool({start: holder[0].Callback}) as tool:
            tool.set_local_events(function.__code__, start)
            function()
    second = None
    exercise(module)


# ---- The module itself ----

@case
def module_taken_apart(module):
    _make_callbacks(module)
    alive = types.SimpleNamespace(**vars(module))
    for name in list(vars(module)):
        attempt(delattr, module, name)
    _exercise_events_without_callbacks(alive)
    for name in list(sys.modules):
        if name.startswith(("optmonitoring", "brixbase")):
            del sys.modules[name]
    gc.collect()
    exercise(alive)


@case
def internal_table_of_any_type(module):
    for value in odd_objects(module):
        module.SetInternalPathnameDict(value)
        exercise_briefly(module)
        attempt(module.reset)


@case
def thread_state_dict_found_by_the_collector(module):
    record = module.CPerThread.GetPerThread()
    capsules = [each for each in gc.get_objects() if isinstance(each, dict) and "PyCapsule" in
                [type(value).__name__ for value in list(each.values())]]
    for thread_dict in capsules:
        keys = [key for key, value in list(thread_dict.items())
                if type(key) is object and type(value).__name__ == "PyCapsule"]
        for key in keys:
            capsule = thread_dict[key]
            for value in odd_objects(module):
                thread_dict[key] = value
                exercise_briefly(module)
                attempt(module.reset)
                exercise_briefly(module)
            thread_dict[key] = capsule
            exercise(module)
    del record
    exercise(module)


# ---- The interpreter around it ----

@case
def frames_of_other_types(module):
    for value in odd_objects(module):
        function, _ = new_program()
        attempt(module.CPerCodeObject.GetPerCodeObject, function.__code__, True, value)
        attempt(module.CPerCodeObject, function.__code__, value)
        frozen = function.__code__.replace(co_filename="<frozen nowhere>")
        attempt(module.CPerCodeObject.GetPerCodeObject, frozen, True, value)


@case
def file_names_of_any_kind(module):
    for name in ("", "\0", "\ud800", "x\0y", "<", "<\ud800>", "<frozen \0>", "a" * 100000, "/" * 5000, "../" * 3000,
                 OddStr("/odd.py"), "\U0010ffff.py", "x.pyc", ".pyc", "/", "."):
        function, _ = new_program()
        for table in ({}, {"__file__": 5}, {"__file__": "\ud800.pyc"}, {"__file__": Evil()}):
            code = attempt(function.__code__.replace, co_filename=name)
            frame = attempt(eval, "(lambda: __import__('sys')._getframe())()", dict(table))
            attempt(module.CPerCodeObject.GetPerCodeObject, code, True, frame)
            attempt(module.IsInternalFrame, frame)
        for call in (module.lookup_canonical_pathname, module.register_canonical_pathname,
                     module.get_canonical_pathname, module.GetPathnameKind, module.CPerFile.GetPerFile):
            attempt(call, name)
            attempt(call, name, name)
    exercise(module)


if __name__ == "__main__":
    sys.exit(main(globals()))
