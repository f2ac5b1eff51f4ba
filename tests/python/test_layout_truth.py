"""The structure offsets of the started-up module against the interpreter itself.

Once against the interpreter's own headers, through tools/dump_layout, where they are present; and always against live
objects, read at the computed offsets. Runs on every interpreter from 2.7 on.
"""
import ctypes
import json
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import threading
import types
import unittest

import support

VERSION = sys.version_info[:2]
FREE_THREADED = bool(sysconfig.get_config_var("Py_GIL_DISABLED"))
DUMP_LAYOUT = os.path.join(support.HERE, os.pardir, os.pardir, "tools", "dump_layout")
NO_HEADERS = 3              # exit status of tools/dump_layout
MISSING = -1                # the offset of a field that the running interpreter does not have

LONG_AGO, FOR_EVER = (0, 0), (99, 99)

# PYVERSIONS: where start-up deliberately does not leave the header's offset. First and last version, both included.
BY_DESIGN = {
    ("frame_offsets", "lineno"): ((3, 11), FOR_EVER, MISSING, "frames are read through functions from 3.11 on"),
    ("frame_offsets", "trace"): ((3, 11), FOR_EVER, MISSING, "frames are read through functions from 3.11 on"),
    ("frame_offsets", "back"): ((3, 11), FOR_EVER, MISSING, "frames are read through functions from 3.11 on"),
    ("interpreter_state_offsets", "eval_frame"): ((3, 9), FOR_EVER, MISSING, "functions get and set it from 3.9 on"),
    ("tstate_offsets", "cframe"): ((3, 10), (3, 10), MISSING, "3.10 has both; the frame itself is the shorter way"),
    # Kept: the offset of another field, which nothing reads, since 3.10's thread state has no cframe offset
    ("cframe_offsets", "current_frame"): ((3, 10), (3, 10), 8, "3.10's record has no such field"),
}


# ---- The module's record ----

def offsets(names):
    class Offsets(ctypes.Structure):
        _fields_ = [(name, ctypes.c_ssize_t) for name in names.split()]
    return Offsets


class ApiData(ctypes.Structure):
    """The leading fields of XPy_C_API_Data."""
    _fields_ = [(name, ctypes.c_int) for name in (
        "initialized", "failed_to_initialize", "major_version", "minor_version", "micro_version", "api_version",
        "pydebug_build", "can_update_refcount_directly", "refcnt_is_32bit", "cached_pid")] + [
        ("dll_ptr", ctypes.c_char_p),
        ("pyobject_offsets", offsets("refcnt type mutex overflow flags")),
        ("tstate_offsets", offsets("next interp frame c_tracefunc c_traceobj thread_id tracing use_tracing cframe "
                                   "what_event")),
        ("frame_offsets", offsets("lineno code builtins trace iblock locals globals back stacktop state")),
        ("interpreter_state_offsets", offsets("eval_frame")),
        ("cframe_offsets", offsets("current_frame")),
        ("typeobject_offsets", offsets("tp_basicsize tp_vectorcall_offset tp_flags tp_base")),
        ("max_align", ctypes.c_ssize_t),
    ]


OFFSET_RECORDS = [name for name, kind in ApiData._fields_ if name.endswith("_offsets")]


class ModuleDef(ctypes.Structure):
    """XPyModuleDef."""
    _fields_ = [("m_name", ctypes.c_char_p), ("m_doc", ctypes.c_char_p), ("m_size", ctypes.c_ssize_t),
                ("m_methods", ctypes.c_void_p), ("m_create", ctypes.c_void_p), ("m_exec", ctypes.c_void_p),
                ("m_multiple_interp_flag", ctypes.c_int), ("m_no_gil_support_flag", ctypes.c_int),
                ("m_traverse", ctypes.c_void_p), ("m_clear", ctypes.c_void_p), ("m_free", ctypes.c_void_p)]


LIBRARY = support.library()
LIBRARY.XPy_Initialize.restype = ctypes.c_int
if LIBRARY.XPy_Initialize() != 0:
    raise ImportError("the module's start-up failed")
API = ApiData.in_dll(LIBRARY, "global_XPy_C_API_Data")


def function(library, name, result, *parameters):
    found = getattr(library, name)
    found.restype = result
    found.argtypes = parameters
    return found


def python_function(name, result, *parameters):
    return function(ctypes.pythonapi, name, result, *parameters)


POINTER = ctypes.c_void_p
current_thread_state = python_function("PyThreadState_Get", POINTER)
own_thread_id = python_function("PyThread_get_thread_ident", ctypes.c_ulong)


def pointer_at(address):
    return POINTER.from_address(address).value


def int_at(address):
    return ctypes.c_int.from_address(address).value


class LayoutTest(unittest.TestCase):
    def present(self, record, field, address):
        """The address of a field that this interpreter has, in the structure at this address."""
        offset = getattr(getattr(API, record), field)
        self.assertGreaterEqual(offset, 0, "%s.%s" % (record, field))
        return address + offset

    def has(self, record, field, expected):
        """Whether the field exists; an offset where there should be none, or none, is a failure."""
        offset = getattr(getattr(API, record), field)
        self.assertEqual(offset != MISSING, expected, "%s.%s is %d" % (record, field, offset))
        return expected

    def tstate(self, field):
        return self.present("tstate_offsets", field, current_thread_state())


# ---- (a) The headers ----

def dump_layout(*arguments):
    """(exit status, answer or error text) of the tool, for this interpreter unless the arguments name one."""
    python3 = sys.executable if VERSION >= (3, 6) else "python3"
    process = subprocess.Popen([python3, DUMP_LAYOUT, "--json"] + list(arguments or [sys.executable]),
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
    output, errors = process.communicate()
    return process.returncode, json.loads(output) if process.returncode == 0 else errors


def dump_or_skip(*arguments):
    status, answer = dump_layout(*arguments)
    if status == NO_HEADERS:
        raise unittest.SkipTest("headers of this interpreter are not present")
    if status != 0:
        raise AssertionError(answer)
    return answer


class ToolTest(unittest.TestCase):
    def stand_in(self, **changes):
        """The path of an interpreter that answers the tool's question as this one does, but for the changes."""
        paths = sysconfig.get_paths()
        answer = dict({"version": list(sys.version_info[:3]), "include": paths["include"],
                       "platinclude": paths["platinclude"], "debug": hasattr(sys, "gettotalrefcount"),
                       "tracerefs": hasattr(sys, "getobjects"), "freethreaded": FREE_THREADED}, **changes)
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        path = os.path.join(folder, "python")
        with open(path, "w") as stream:
            stream.write("#!/bin/sh\necho '%s'\n" % json.dumps(answer))
        os.chmod(path, 0o755)
        return path

    def test_absent_headers_have_a_status_of_their_own(self):
        status, errors = dump_layout(self.stand_in(include="/nowhere"))
        self.assertEqual(status, NO_HEADERS)
        self.assertEqual(errors, "dump_layout: the headers of this interpreter are not present: "
                                 "no Python.h in /nowhere\n")

    def test_headers_of_another_build_are_refused(self):
        dump_or_skip()
        for changes in {"version": [VERSION[0], VERSION[1], 99]}, {"freethreaded": not FREE_THREADED}:
            status, errors = dump_layout(self.stand_in(**changes))
            self.assertEqual(status, 1)
            self.assertIn("not of this interpreter, which is ", errors)

    def test_what_the_compiler_makes_is_run_by_the_emulator(self):
        expected = dump_or_skip()
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        emulator, calls = os.path.join(folder, "emulator"), os.path.join(folder, "calls")
        with open(emulator, "w") as stream:
            stream.write("#!/bin/sh\necho \"$1\" >> %s\nshift\nexec \"$@\"\n" % calls)
        os.chmod(emulator, 0o755)
        before = os.environ.get("EMULATOR", "")
        os.environ["EMULATOR"] = "%s word %s" % (emulator, before)
        try:
            self.assertEqual(dump_or_skip(), expected)
        finally:
            os.environ["EMULATOR"] = before
        with open(calls) as stream:
            self.assertEqual(stream.read(), "word\n")

    def test_rows_of_the_thread_state_end_with_the_thread_id(self):
        rows = dump_or_skip("--rows", sys.executable)["rows"]
        self.assertEqual(rows[0], ["next" if VERSION < (3, 0) else "prev", 8])
        self.assertEqual(rows[-1], ["thread_id", 8])
        self.assertEqual([size for name, size in rows if name == "tracing"], [4])


class HeaderTest(LayoutTest):
    @classmethod
    def setUpClass(cls):
        cls.real = dump_or_skip()["records"]

    def real_offset(self, record, field):
        place = self.real[record][field]
        return place["offset"] if place else MISSING

    def test_each_offset_is_the_headers_one_or_stated(self):
        differences = []
        for record in OFFSET_RECORDS:
            self.assertEqual(set(self.real[record]), {name for name, _ in getattr(API, record)._fields_})
            for field in self.real[record]:
                expected = real = self.real_offset(record, field)
                first, last, stated, reason = BY_DESIGN.get((record, field), (FOR_EVER, LONG_AGO, None, ""))
                if first <= VERSION <= last:
                    expected = stated
                    self.assertNotEqual(real, stated, "%s.%s needs no statement: %s" % (record, field, reason))
                ours = getattr(getattr(API, record), field)
                if ours != expected:
                    differences.append("%s.%s: start-up says %d, the headers say %d, expected %d" % (
                        record, field, ours, real, expected))
        self.assertEqual(differences, [])

    def test_count_width_matches_the_header(self):
        count = self.real["pyobject_offsets"]["refcnt"]
        if count is None:
            self.assertTrue(FREE_THREADED)
        elif VERSION >= (3, 14):
            self.assertEqual((count["size"], API.refcnt_is_32bit), (4, 1))
        else:  # 3.12 and 3.13 use the lower half of a wide member
            self.assertEqual((count["size"], API.refcnt_is_32bit), (8, int(VERSION >= (3, 12))))

    def test_widths_of_the_fields_read_in_place(self):
        for record in OFFSET_RECORDS:
            for field, place in self.real[record].items():
                if place is None or (record, field) == ("pyobject_offsets", "refcnt"):
                    continue
                expected = {"mutex": 1, "overflow": 2, "flags": 2, "tracing": 4, "use_tracing": 4, "what_event": 4,
                            "lineno": 4, "iblock": 4, "state": 1}.get(field, 8)
                self.assertEqual(place["size"], expected, "%s.%s" % (record, field))

    def test_module_definition_is_laid_out_as_in_the_header(self):
        real = self.real["module_definition"]
        if VERSION < (3, 0):
            self.assertEqual(set(real.values()), {None})
            return
        given, address = new_module_def()
        for field in "m_name", "m_doc", "m_size", "m_methods", "m_traverse", "m_clear", "m_free":
            self.assertEqual(pointer_at(address + real[field]["offset"]), raw_field(given, field), field)
        slots = pointer_at(address + real["m_slots"]["offset"])
        self.assertEqual((int_at(slots), pointer_at(slots + 8)), (2, given.m_exec))  # the exec slot
        for field in "m_base.m_init", "m_base.m_index", "m_base.m_copy":
            self.assertIsNone(pointer_at(address + real[field]["offset"]), field)


def new_module_def():
    """(what was asked for, the address of the definition laid out for this interpreter). Nothing calls into it."""
    given = ModuleDef(m_name=b"name", m_doc=b"doc", m_size=48, m_methods=0x1000, m_exec=0x2000, m_traverse=0x3000,
                      m_clear=0x4000, m_free=0x5000, m_multiple_interp_flag=1)
    create = function(LIBRARY, "XPy_CreatePy3ModuleDef", POINTER, ctypes.POINTER(ModuleDef))
    return given, create(ctypes.byref(given))


def raw_field(structure, name):
    return pointer_at(ctypes.addressof(structure) + getattr(type(structure), name).offset)


# ---- (b) Live objects ----

class ObjectHeaderTest(LayoutTest):
    def count(self, obj):
        kind = ctypes.c_uint32 if API.refcnt_is_32bit else ctypes.c_ssize_t
        return kind.from_address(self.present("pyobject_offsets", "refcnt", id(obj))).value

    def test_count_follows_the_references(self):
        if not self.has("pyobject_offsets", "refcnt", not FREE_THREADED):
            return
        obj = ["referenced"]
        before = self.count(obj)
        holder = [obj] * 1000
        self.assertEqual(self.count(obj) - before, 1000)
        del holder[:300]
        self.assertEqual(self.count(obj) - before, 700)
        del holder
        self.assertEqual(self.count(obj), before)

    def test_type_is_at_its_offset(self):
        for obj in [], "text", 1.5, self, type(self), None:
            self.assertEqual(pointer_at(self.present("pyobject_offsets", "type", id(obj))), id(type(obj)))

    def test_mutex_is_held_while_a_list_is_sorted(self):
        if not self.has("pyobject_offsets", "mutex", FREE_THREADED):
            return
        items = [1]
        mutex = ctypes.c_uint8.from_address(self.present("pyobject_offsets", "mutex", id(items)))
        seen = []
        items.sort(key=lambda _: seen.append(mutex.value))
        self.assertEqual((seen, mutex.value), ([1], 0))

    def test_flags_tell_a_static_object_from_an_allocated_one(self):
        expected = VERSION >= (3, 14) and not FREE_THREADED
        self.has("pyobject_offsets", "overflow", expected)
        if not self.has("pyobject_offsets", "flags", expected):
            return
        statically_allocated = 4
        for obj, flag in (int, statically_allocated), (None, statically_allocated), (["allocated"], 0):
            flags = ctypes.c_uint16.from_address(self.present("pyobject_offsets", "flags", id(obj))).value
            self.assertEqual(flags & statically_allocated, flag)
        obj = ["allocated"]
        overflow = self.present("pyobject_offsets", "overflow", id(obj))
        self.assertEqual(ctypes.c_uint16.from_address(overflow).value, 0)

    def test_tracing_build_has_the_longer_header(self):
        self.assertEqual(API.pydebug_build, int(hasattr(sys, "getobjects")))
        self.assertEqual(API.max_align, 8)


class TypeObjectTest(LayoutTest):
    def at(self, kind, field):
        return self.present("typeobject_offsets", field, id(kind))

    def test_basicsize_flags_and_base_are_what_the_type_says(self):
        class Derived(dict):
            pass

        for kind in object, int, dict, type, BaseException, Derived:
            self.assertEqual(pointer_at(self.at(kind, "tp_basicsize")), kind.__basicsize__)
            flags = ctypes.c_ulong.from_address(self.at(kind, "tp_flags")).value
            self.assertEqual(flags, kind.__flags__ & (2 ** 64 - 1))
            base = pointer_at(self.at(kind, "tp_base"))
            self.assertEqual(base, id(kind.__base__) if kind.__base__ else None)

    def test_vectorcall_offset_leads_to_the_objects_function(self):
        kind = types.FunctionType
        value = pointer_at(self.at(kind, "tp_vectorcall_offset"))
        self.assertIsNone(pointer_at(self.at(object, "tp_vectorcall_offset")))
        if VERSION < (3, 8):  # there the slot prints: Python 2's list has one, nothing in 3.x
            slot = pointer_at(self.at(list, "tp_vectorcall_offset"))
            self.assertEqual((value, slot is not None), (None, VERSION < (3, 0)))
        elif VERSION < (3, 11):  # no exported function tells it
            self.assertTrue(0 < value < kind.__basicsize__)
            self.assertIsNotNone(pointer_at(id(dump_layout) + value))
        else:
            vectorcall = python_function("PyVectorcall_Function", POINTER, ctypes.py_object)(dump_layout)
            self.assertEqual(pointer_at(id(dump_layout) + value), vectorcall)


class ThreadStateTest(LayoutTest):
    def test_thread_id_is_the_current_threads(self):
        ids = []

        def read():
            field = ctypes.c_ulong.from_address(self.tstate("thread_id"))
            ids.append((field.value, own_thread_id()))

        read()
        other = threading.Thread(target=read)
        other.start()
        other.join()
        self.assertEqual([found for found, _ in ids], [own for _, own in ids])
        self.assertEqual(len(set(ids)), 2)

    def test_next_and_interp_agree_with_the_interpreters_functions(self):
        head = python_function("PyInterpreterState_Head", POINTER)
        thread_head = python_function("PyInterpreterState_ThreadHead", POINTER, POINTER)
        following = python_function("PyThreadState_Next", POINTER, POINTER)
        started, release = threading.Semaphore(0), threading.Event()
        own_states = [current_thread_state()]

        def stay():
            own_states.append(current_thread_state())
            started.release()
            release.wait()

        threads = [threading.Thread(target=stay) for _ in range(3)]
        try:
            for thread in threads:
                thread.start()
                started.acquire()
            interp = pointer_at(self.tstate("interp"))
            self.assertEqual(interp, head())
            if VERSION >= (3, 9):
                of_state = python_function("PyThreadState_GetInterpreter", POINTER, POINTER)
                self.assertEqual(interp, of_state(current_thread_state()))
            state, walked = thread_head(interp), []
            while state:
                walked.append(state)
                self.assertEqual(pointer_at(self.present("tstate_offsets", "interp", state)), interp)
                after = pointer_at(self.present("tstate_offsets", "next", state))
                self.assertEqual(after, following(state))
                state = after
            self.assertEqual(len(own_states), 4)
            self.assertTrue(set(own_states) <= set(walked))
        finally:
            release.set()
            for thread in threads:
                thread.join()

    def test_current_frame_is_the_running_functions(self):
        frames_are_objects = VERSION <= (3, 10)
        self.has("tstate_offsets", "frame", frames_are_objects)
        self.has("tstate_offsets", "cframe", not frames_are_objects)
        if frames_are_objects:
            found = POINTER.from_address(self.tstate("frame")).value
            self.assertEqual(found, id(sys._getframe()))
            return
        # no Python frame may stand between the reading and this one
        field = self.tstate("cframe")
        if self.has("cframe_offsets", "current_frame", VERSION <= (3, 12)):
            record = POINTER.from_address(field).value
            field = self.present("cframe_offsets", "current_frame", record)
        frame = POINTER.from_address(field).value
        own_function = ThreadStateTest.__dict__["test_current_frame_is_the_running_functions"]
        # an internal frame starts with its function, from 3.12 on with its code, whose low bits may be a tag
        expected = own_function if VERSION == (3, 11) else own_function.__code__
        self.assertEqual(POINTER.from_address(frame).value & ~7, id(expected))


def with_trace(hook, action):
    """What the action answers while the hook traces."""
    previous = sys.gettrace()
    sys.settrace(hook)
    try:
        return action()
    finally:
        sys.settrace(previous)


class TraceTest(LayoutTest):
    def setUp(self):
        previous = sys.gettrace()
        sys.settrace(None)
        self.addCleanup(sys.settrace, previous)

    def test_trace_function_and_object_follow_settrace(self):
        def hook(*event):
            return None

        self.assertIsNone(pointer_at(self.tstate("c_traceobj")))
        self.assertIsNone(pointer_at(self.tstate("c_tracefunc")))
        sys.settrace(hook)
        obj, func = pointer_at(self.tstate("c_traceobj")), pointer_at(self.tstate("c_tracefunc"))
        sys.settrace(None)
        self.assertEqual(obj, id(hook))
        self.assertIsNotNone(func)
        self.assertIsNone(pointer_at(self.tstate("c_traceobj")))
        self.assertIsNone(pointer_at(self.tstate("c_tracefunc")))

    def test_trace_function_is_the_one_that_was_installed(self):
        kind = ctypes.PYFUNCTYPE(ctypes.c_int, POINTER, POINTER, ctypes.c_int, POINTER)
        hook = kind(lambda *event: 0)
        install = python_function("PyEval_SetTrace", None, POINTER, POINTER)
        address = ctypes.cast(hook, POINTER).value
        install(address, id(self))
        found = pointer_at(self.tstate("c_tracefunc")), pointer_at(self.tstate("c_traceobj"))
        install(None, None)
        self.assertEqual(found, (address, id(self)))

    def test_tracing_counts_the_running_hook(self):
        tracing = ctypes.c_int.from_address(self.tstate("tracing"))
        seen = []
        self.assertEqual(tracing.value, 0)
        with_trace(lambda *event: seen.append(tracing.value), lambda: None)
        self.assertTrue(seen)
        self.assertEqual(set(seen), {1})
        self.assertEqual(tracing.value, 0)

    def test_use_tracing_is_on_outside_the_hook_and_off_inside(self):
        if not self.has("tstate_offsets", "use_tracing", VERSION <= (3, 9)):
            return
        use_tracing = ctypes.c_int.from_address(self.tstate("use_tracing"))
        seen = []
        self.assertEqual(use_tracing.value, 0)
        outside = with_trace(lambda *event: seen.append(use_tracing.value), lambda: use_tracing.value)
        self.assertEqual((outside, set(seen)), (1, {0}))

    def test_what_event_is_the_event_of_the_running_hook(self):
        if not self.has("tstate_offsets", "what_event", VERSION >= (3, 12)):
            return
        what_event = ctypes.c_int.from_address(self.tstate("what_event"))
        seen = []

        def hook(frame, event, argument):
            seen.append((event, what_event.value))
            return hook

        before = what_event.value
        with_trace(hook, lambda: None)
        events = sys.monitoring.events
        number = {name: value.bit_length() - 1 for name, value in
                  (("call", events.PY_START), ("line", events.LINE), ("return", events.PY_RETURN))}
        self.assertEqual(seen[:3], [(name, number[name]) for name in ("call", "line", "return")])
        self.assertEqual((before, what_event.value), (-1, -1))


@unittest.skipIf(VERSION >= (3, 11), "frames are read through functions from 3.11 on")
class FrameTest(LayoutTest):
    def at(self, frame, field):
        return self.present("frame_offsets", field, id(frame))

    def test_objects_of_a_known_frame(self):
        def known(frame):
            frame.f_trace = known
            return frame

        frame = known(sys._getframe())
        local_names = frame.f_locals
        for field in "code", "builtins", "globals", "back", "trace":
            self.assertEqual(pointer_at(self.at(frame, field)), id(getattr(frame, "f_" + field)), field)
        self.assertEqual(pointer_at(self.at(frame, "locals")), id(local_names))

    def test_line_number_while_a_hook_runs(self):
        seen = []

        def hook(frame, event, argument):
            seen.append((int_at(self.at(frame, "lineno")), frame.f_lineno, event))
            return hook

        def traced():
            first = 1
            return first

        with_trace(hook, traced)
        first_line = traced.__code__.co_firstlineno
        lines = [(found, line) for found, line, event in seen if event == "line" and line > first_line][:2]
        self.assertEqual(lines, [(first_line + 1,) * 2, (first_line + 2,) * 2])

    def test_iblock_counts_the_open_blocks(self):
        depth = []

        def note():
            depth.append(int_at(self.at(sys._getframe(1), "iblock")))

        note()
        try:
            note()
            try:
                note()
            finally:
                pass
        finally:
            pass
        note()
        self.assertEqual([each - depth[0] for each in depth], [0, 1, 2, 0])
        self.assertEqual(depth[0], 0)

    def test_stack_top_lies_inside_a_suspended_frame(self):
        if not self.has("frame_offsets", "stacktop", VERSION <= (3, 9)):
            return
        generator = (item for item in [1, 2])
        next(generator)
        frame = generator.gi_frame
        top = pointer_at(self.at(frame, "stacktop"))
        self.assertTrue(id(frame) + self.last_offset() < top <= id(frame) + sys.getsizeof(frame), hex(top))
        running = sys._getframe()
        self.assertIsNone(pointer_at(self.at(running, "stacktop")))

    def last_offset(self):
        return max(getattr(API.frame_offsets, name) for name, _ in API.frame_offsets._fields_)

    def test_state_follows_a_generators_life(self):
        if not self.has("frame_offsets", "state", VERSION == (3, 10)):
            return
        states = []

        def note(frame):
            states.append(ctypes.c_int8.from_address(self.at(frame, "state")).value)

        def body():
            note(sys._getframe())
            yield

        generator = body()
        frame = generator.gi_frame
        note(frame)
        next(generator)
        note(frame)
        self.assertEqual(list(generator), [])
        note(frame)
        created, executing, suspended, returned = -2, 0, -1, 1
        self.assertEqual(states, [created, executing, suspended, returned])


@unittest.skipUnless(VERSION >= (3, 11), "frame fields are read in place up to 3.10")
class NoFrameFieldsTest(LayoutTest):
    def test_no_field_has_an_offset(self):
        fields = [getattr(API.frame_offsets, name) for name, _ in API.frame_offsets._fields_]
        self.assertEqual(fields, [MISSING] * 10)


class EvalFrameTest(LayoutTest):
    # PYVERSIONS: the family that serves a version
    FAMILIES = {"NoThreadState": ((3, 6), (3, 8)), "WithThreadState": ((3, 9), (3, 10)),
                "PyInterpreterFrame": ((3, 11), (3, 11))}

    def test_function_is_read_and_put_back(self):
        self.has("interpreter_state_offsets", "eval_frame", (3, 6) <= VERSION <= (3, 8))
        for family, (first, last) in self.FAMILIES.items():
            get = function(LIBRARY, "XPy_GetEvalFrameFunction" + family, POINTER)
            put = function(LIBRARY, "XPy_SetEvalFrameFunction" + family, ctypes.c_int, POINTER)
            if first <= VERSION <= last:
                default = ctypes.cast(ctypes.pythonapi._PyEval_EvalFrameDefault, POINTER).value
                self.assertEqual(get(), default, family)
                self.assertEqual(put(default), 0, family)
                self.assertEqual((lambda: get())(), default, family)
            else:
                self.assertEqual((get(), put(None)), (None, -1), family)


class ModuleDefinitionTest(LayoutTest):
    def test_interpreter_accepts_the_definition(self):
        if VERSION < (3, 0):
            self.assertFalse(hasattr(ctypes.pythonapi, "PyModuleDef_Init"))
            return
        address = new_module_def()[1]
        initialised = python_function("PyModuleDef_Init", POINTER, POINTER)
        self.assertEqual(initialised(address), address)
        kind = pointer_at(self.present("pyobject_offsets", "type", address))
        expected = ctypes.addressof(ctypes.c_char.in_dll(ctypes.pythonapi, "PyModuleDef_Type"))
        self.assertEqual(kind, expected)


if __name__ == "__main__":
    unittest.main()
