"""The operations that are walked: module functions, the classes' constructors and methods, and the callback's paths.

Every run starts from a reset module in which nothing is known, so that walks can be repeated without growth.
"""

import ctypes
import os
import shutil
import sys
import tempfile
import threading

import inject_support
from inject_support import Injected, Scenario, support

import state                                                    # noqa: E402
from filter_support import event_id, forget_handled_exception, new_function     # noqa: E402

ALL_MASKS = 1023
LOOK_UPS_IN_DICTS = {"PyDict_Contains", "PyDict_GetItemWithError"}


class Quiet(object):
    """A log that keeps nothing."""

    def write(self, text):
        return len(text)

    def flush(self):
        pass


class Gate(object):
    """A suspend lock that does not hold its thread for ever when it is not released."""

    def __init__(self):
        self.lock = threading.Lock()

    def acquire(self):
        if not self.lock.acquire(timeout=0.05):
            raise RuntimeError("the suspend lock was not released")

    def release(self):
        self.lock.release()


# ---- The state between runs ----

IN_DPRINT_COUNT = 40        # bytes from a log record to the count of messages in the making


def _rearm_log(om):
    """A log that could not report an exception because there was no sys.stderr stays silent; make it speak again."""
    library = inject_support.lib
    for record in (state.state_of(om).dp, ctypes.addressof(ctypes.c_int.in_dll(library, "gUnsafeGlobalDPData"))):
        ctypes.c_int.from_address(record + IN_DPRINT_COUNT).value = 0


def start(om, log):
    """A reset module, with everything logged or nothing."""
    om.reset()
    _rearm_log(om)
    if log:
        support.process_mask().value = ALL_MASKS
        om.set_dprintf_file(Quiet(), -1, 0)
        om.set_dprintf_mask(ALL_MASKS)


def end(om, dlog, inputs):
    inputs.clear()
    dlog.forget()
    forget_handled_exception()
    support.process_mask().value = support.DEFAULT_MASK
    om.set_dprintf_file(None, -1, 0)
    support.bury_code()
    om.reset()


def faults_of_registries(om):
    """What is wrong with the registries: half-made records, entries that lead nowhere; None when nothing is."""
    try:
        return _find_faults(om)
    except Exception as e:
        return "registries: %r" % e


def _find_faults(om):
    codes, files = om.CPerCodeObject, om.CPerFile
    for weak_ref, record in list(codes._fPerCodeObjectDict.items()):
        if record.fCodeObjectWeakRef is not weak_ref:
            return "a record is kept under another's weak reference"
        code = weak_ref()
        if code is None or codes.GetPerCodeObject(code, False) is not record:
            return "a code object does not lead to its record"
        name = record.fCanonicalPathname
        if name is not None and record not in files._fPerFilesDict[name].fKnownPerCodeObjects:
            return "a file does not know its record"
    records = set(map(id, codes._fPerCodeObjectDict.values()))
    for name, per_file in list(files._fPerFilesDict.items()):
        if per_file.fCanonicalPathname != name or not isinstance(per_file.fBpSetByLineno, dict):
            return "a half-made file"
        if any(id(record) not in records for record in per_file.fKnownPerCodeObjects):
            return "a file knows a record that is not registered"
    for thread_id, per_thread in list(om.CPerThread._fPerThreadDict.items()):
        if per_thread.fThreadId != thread_id or not per_thread.fSuspendLock:
            return "a half-made thread"
        per_thread.fSteppingCodeObjects, per_thread.fThreadName, per_thread.mod
    return None


# ---- What may come of a failure ----

# how the interpreter speaks of a function that breaks its rules
RULES_BROKEN = ("without setting an exception", "with an exception set", "without exception")


# what names without a text are refused with
NO_TEXT = ("cannot be converted to UTF-8", "has an embedded null character")


def judge_error(error):
    if isinstance(error, (Injected, MemoryError)):
        return None
    if isinstance(error, ValueError) and str(error).endswith(NO_TEXT):
        return None
    if isinstance(error, (RuntimeError, SystemError)) and not any(rule in str(error) for rule in RULES_BROKEN):
        return None
    return "an exception of its own"


def judge_function(tolerated=()):
    """Either the exception, or the answer, or one that is as good."""
    def judge(outcome, inputs, expected):
        if outcome.error is not None:
            return judge_error(outcome.error)
        if outcome.value == expected or outcome.value in tolerated:
            return None
        return "an answer of its own"
    return judge


class Scenarios(object):
    """Makes the scenarios of one loaded module, with the log on or off. To be closed."""

    def __init__(self, om, dlog, log):
        self.om, self.dlog, self.log = om, dlog, log
        self.folder = tempfile.mkdtemp()
        self.names = [os.path.join(self.folder, name) for name in ("a.py", "b.py")]
        for name in self.names:
            with open(name, "w") as stream:
                stream.write("pass\n")
        self.link = os.path.join(self.folder, "link.py")
        os.link(self.names[0], self.link)
        self.number = 0

    def close(self):
        shutil.rmtree(self.folder)

    def scenario(self, name, act, prepare=None, judge=None, later=lambda outcome, answer: False):
        def fresh():
            start(self.om, self.log)
            inputs = {}
            if prepare:
                prepare(inputs)
            return inputs

        def settle(inputs):
            end(self.om, self.dlog, inputs)

        return Scenario(name + (", logged" if self.log else ""), fresh, act, settle, judge or judge_function(),
                        later)

    # ---- Things ----

    def code(self, filename=None):
        return new_function(filename=filename or self.names[0]).__code__

    def callback(self, event, second, can_disable=1):
        number = event if isinstance(event, int) else event_id(event)
        return self.om.CInitialCallback(number, second, can_disable)

    # ---- Module functions ----

    def functions(self):
        om, (a, b), link = self.om, self.names, self.link

        def register_a(inputs):
            om.register_canonical_pathname(a, "sum")

        def frame(inputs):
            inputs["frame"] = new_function("import sys\ndef f():\n    return sys._getframe()\n", filename=a)()

        def relative(inputs):
            folder = os.getcwd()
            os.chdir(self.folder)
            try:
                return om.get_canonical_pathname("a.py")
            finally:
                os.chdir(folder)

        as_absent = judge_function([None])
        as_alone = judge_function([None, link, b])

        def stays_alone(outcome, answer):       # a file that could not be examined when it was registered
            return answer == link

        yield self.scenario("look up an unknown name", lambda i: om.lookup_canonical_pathname(a, "sum"))
        yield self.scenario("look up by name", lambda i: om.lookup_canonical_pathname(a), register_a, as_absent)
        yield self.scenario("look up by identity", lambda i: om.lookup_canonical_pathname(link), register_a, as_absent)
        yield self.scenario("look up by checksum", lambda i: om.lookup_canonical_pathname(b, "sum"), register_a,
                            as_absent)
        yield self.scenario("register", lambda i: om.register_canonical_pathname(a, "sum"), None, as_absent)
        yield self.scenario("register a link", lambda i: om.register_canonical_pathname(link), register_a, as_alone,
                            stays_alone)
        yield self.scenario("register a duplicate", lambda i: om.register_canonical_pathname(b, "sum"), register_a,
                            as_alone)
        yield self.scenario("get a canonical name", lambda i: om.get_canonical_pathname(link), register_a, as_alone,
                            stays_alone)
        yield self.scenario("get a canonical name of a relative one", relative, None, as_absent)
        yield self.scenario("set the checksum callback", lambda i: om.set_checksum_callback(len))
        yield self.scenario("get the checksum callback", lambda i: om.get_checksum_callback())
        yield self.scenario("set the log file", lambda i: om.set_dprintf_file(Quiet(), -1, 0))
        yield self.scenario("set the log mask", lambda i: om.set_dprintf_mask(64))
        yield self.scenario("write to the log", lambda i: om.dprintf(1, "text"))
        yield self.scenario("write to the log by a callable", lambda i: om.dprintf(1, lambda: "text"))
        yield self.scenario("kind of a pathname", lambda i: om.GetPathnameKind("<frozen x>"))
        yield self.scenario("set the internal pathnames", lambda i: om.SetInternalPathnameDict({a: 1}))
        yield self.scenario("update the process id", lambda i: om.UpdateThisProcessPid())
        yield self.scenario("add to the tracing counter", lambda i: om.AddToThreadStateTracing(0))
        yield self.scenario("is a frame internal", lambda i: om.IsInternalFrame(i["frame"]), frame)
        # frames that cannot be classified are walked over
        yield self.scenario("get a frame", lambda i: om.GetNonInternalFrame() is not None, None,
                            judge_function([True, False]))
        yield self.scenario("reset", lambda i: om.reset(), register_a)

    # ---- The classes ----

    def _fields(self, record):
        return record and (record.fCanonicalPathname, record.fPathnameToReport, record.fIsInternal,
                           record.fEnabledBpLinenos)

    def classes(self):
        om, (a, b) = self.om, self.names

        def code(inputs):
            inputs["code"] = self.code()
            inputs["frame"] = sys._getframe()

        def known_code(inputs):
            code(inputs)
            self.keep(inputs)

        def hooks(inputs):
            om.CPerThread.SetDebugPolicyCallback(lambda thread_id: 1)
            om.CPerThread.SetGetThreadNameCallback(lambda per_thread: "name")
            om.CPerThread.SetNewPerThreadCreatedCallback(lambda per_thread: None)
            om.CPerFile.SetNewPerFileCreatedCallback(lambda per_file: None)
            om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: None)
            om.set_checksum_callback(os.path.basename)

        def hooks_and_code(inputs):
            hooks(inputs)
            code(inputs)

        def per_thread(inputs):
            hooks(inputs)
            inputs["thread"] = om.CPerThread.GetPerThread()

        def per_file(inputs):
            inputs["file"] = om.CPerFile.GetPerFile(a)
            om.set_checksum_callback(os.path.basename)

        def get_record(inputs):
            return self._fields(om.CPerCodeObject.GetPerCodeObject(inputs["code"], True, inputs["frame"]))

        def record_of_pseudo_file(inputs):
            inputs["code"] = self.code("<string>")
            inputs["frame"] = sys._getframe()

        def update_checksum(inputs):
            inputs["file"].UpdateChecksum()
            return inputs["file"].fChecksum

        def get_policy(inputs):
            inputs["thread"].fDebugPolicy = -1
            return inputs["thread"].GetDebugPolicy()

        def find_name(inputs):
            return inputs["thread"].FindThreadName(), inputs["thread"].fThreadName

        def get_file(inputs):
            per_file = om.CPerFile.GetPerFile(a)
            checksum = per_file.fChecksum
            if checksum is not None and per_file not in om.CPerFile.GetPerFileSetForChecksum(checksum):
                return "not found by its checksum"
            return per_file.fCanonicalPathname, checksum

        def get_thread(inputs):
            return om.CPerThread.GetPerThread().fDebugPolicy

        def construct_code(inputs):
            if inputs.get("record"):        # made, but its hook failed
                return True
            om.CPerCodeObject(inputs["code"], inputs["frame"])
            return True

        # a checksum that fails counts as none
        no_checksum = judge_function([(a, None)])
        yield self.scenario("CPerCodeObject()", construct_code, code)
        yield self.scenario("record of a code object", get_record, code)
        yield self.scenario("record of a code object, hooked", get_record, hooks_and_code)
        yield self.scenario("record of a pseudo file", get_record, record_of_pseudo_file)
        yield self.scenario("existing record", get_record, known_code)
        yield self.scenario("no record", lambda i: om.CPerCodeObject.GetPerCodeObject(i["code"], False), code)
        yield self.scenario("record of a file", get_file)
        yield self.scenario("record of a file, hooked", get_file, hooks, no_checksum,
                            lambda outcome, answer: answer == (a, None))
        yield self.scenario("update a checksum", update_checksum, per_file, judge_function([None]))
        yield self.scenario("files by checksum", lambda i: om.CPerFile.GetPerFileSetForChecksum("x"))
        yield self.scenario("all files", lambda i: len(om.CPerFile.GetAllPerFiles()), per_file)
        yield self.scenario("record of this thread", get_thread)
        yield self.scenario("record of this thread, hooked", get_thread, hooks)
        yield self.scenario("record of another thread", lambda i: om.CPerThread.GetPerThread(12345).fThreadId)
        yield self.scenario("all threads", lambda i: len(om.CPerThread.GetAllPerThreads()), per_thread)
        yield self.scenario("policy of a thread", get_policy, per_thread)
        yield self.scenario("name of a thread", find_name, per_thread)
        yield self.scenario("CInitialCallback()", lambda i: om.CInitialCallback(1, len, 1)._fCanReturnDisable)
        for cls, setter in (("CPerThread", "SetDebugPolicyCallback"), ("CPerThread", "SetGetThreadNameCallback"),
                            ("CPerThread", "SetNewPerThreadCreatedCallback"),
                            ("CPerFile", "SetNewPerFileCreatedCallback"),
                            ("CPerCodeObject", "SetNewPerCodeObjectCreatedCallback")):
            yield self.scenario(setter, lambda i, c=cls, s=setter: getattr(getattr(om, c), s)(len), per_thread)

    def keep(self, inputs, **fields):
        """The code object's record, with these fields set."""
        record = self.om.CPerCodeObject.GetPerCodeObject(inputs["code"], True, sys._getframe())
        for name, value in fields.items():
            setattr(record, name, value)

    # ---- The callback's paths ----

    def events(self):
        """Each scenario's act answers with what the callback answered and whether the second callback was called."""
        om, dlog, a = self.om, self.dlog, self.names[0]

        def event(name, kind, second=None, can_disable=1, line=3, suspend=0, known=True, thread=True, hooks=False,
                  internal=False, filename=None, ready=lambda inputs: None, **fields):
            def prepare(inputs):
                if hooks:
                    om.CPerThread.SetDebugPolicyCallback(lambda thread_id: 1)
                    om.CPerThread.SetGetThreadNameCallback(lambda per_thread: "name")
                    om.CPerThread.SetNewPerThreadCreatedCallback(lambda per_thread: None)
                    om.CPerFile.SetNewPerFileCreatedCallback(lambda per_file: None)
                    om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: None)
                    om.set_checksum_callback(os.path.basename)
                if internal:
                    om.SetInternalPathnameDict({a: 1})
                inputs["code"] = self.code(filename)
                inputs["seen"] = []
                answer = second or (lambda *args: None)

                def second_callback(*args):
                    inputs["seen"].append(args[1:])
                    return answer(*args)

                inputs["callback"] = self.callback(kind, second_callback, can_disable)
                inputs["callback"].fAnySuspendThread = suspend
                if known:
                    self.keep(inputs, **fields)
                if thread:
                    inputs["thread"] = om.CPerThread.GetPerThread()
                    inputs["thread"].fCheckSuspendLock = suspend
                    inputs["thread"].fSuspendLock = Gate()
                ready(inputs)

            def act(inputs):
                del inputs["seen"][:]
                dlog.forget()
                answer = inputs["callback"].Callback(inputs["code"], line)
                return answer, len(inputs["seen"]), len(dlog.exception_calls)

            return self.scenario(name, act, prepare, judge_event(dlog), later)

        def later(outcome, answer):
            # a record made without a frame cannot be refined, and an internal name that could not be looked up is not one
            if "PyThreadState_GetFrame" in outcome.names:
                return answer == (None, 0, 1)
            if "PyObject_CallNoArgs" in outcome.names:      # the call of the suspend lock's release never reached it
                return answer == (None, 0, 1)
            return LOOK_UPS_IN_DICTS.intersection(outcome.names) and answer == (None, 1, 0)

        def fail(*args):
            raise ValueError("the host's own")

        def not_debugged(inputs):
            inputs["thread"].fDebugPolicy = 0

        yield event("first event of a code object", "LINE", known=False)
        yield event("first event of a code object, hooked", "LINE", known=False, hooks=True)
        yield event("first event of a thread", "LINE", thread=False)
        yield event("first event of a thread, hooked", "LINE", thread=False, hooks=True)
        yield event("first event of all, hooked", "PY_START", known=False, thread=False, hooks=True)
        yield event("first event of internal code", "LINE", known=False, internal=True)
        yield event("first event of internal code, not disabled", "LINE", can_disable=0, known=False, internal=True)
        yield event("first event of a pseudo file", "LINE", known=False, filename="<string>")
        yield event("internal code", "LINE", internal=True)
        yield event("a line without a breakpoint", "LINE", fEnabledBpLinenos={7})
        yield event("a line that the set has to tell", "LINE", fEnabledBpLinenos={3 + 8}, line=3)
        yield event("a line with a breakpoint", "LINE", fEnabledBpLinenos={3})
        yield event("a start", "PY_START", fEnabledBpLinenos=set())
        yield event("a return that is needed", "PY_RETURN", fEnabledBpLinenos=set(), fReturnEventsNeededCount=1)
        yield event("a step", "PY_YIELD", fSteppingEventsNeededCount=1)
        yield event("a thread that is not debugged", "LINE", ready=not_debugged)
        yield event("a suspended thread", "LINE", suspend=1, fEnabledBpLinenos={3})
        yield event("a suspended thread's first event", "LINE", suspend=1, known=False, thread=False)
        yield event("a host that answers DISABLE", "PY_RESUME", second=lambda *args: sys.monitoring.DISABLE)
        yield event("a host that fails", "LINE", second=fail)
        yield event("no code object", "LINE", ready=lambda inputs: inputs.update(code=[]))


def judge_event(dlog):
    """A failed event is answered None and reported once; otherwise the event has its answer."""
    def judge(outcome, inputs, expected):
        if outcome.error is not None:
            return "an exception left the callback"
        answer, seen, reports = outcome.value
        if outcome.value == expected:
            return None
        if answer is not None:
            return "an answer of its own"
        if reports > 1:
            return "reported more than once"
        # the report itself may be what failed
        if not reports and not seen and expected[2] == 0 and outcome.failed == 1:
            return "the event was missed without a report"
        if reports:
            args, handled = dlog.exception_calls[0]
            if args != (None, True) or judge_error(handled) and str(handled) != "the host's own":
                return "reported as %r with %r" % (args, handled)
        return None
    return judge
