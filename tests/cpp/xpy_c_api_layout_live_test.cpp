// The offsets of a real interpreter, checked against what its objects hold.

#include <dlfcn.h>
#include <pthread.h>

#include "dbgcommon.h"
#include "hosted_support.h"
#include "optmonitoring_percodeobject_internal.h"
#include "xpy_c_api_internal.h"

class LiveLayout : public HostedTest
{
  protected:
    template <typename T>
    static T read(const void* record, Py_ssize_t offset)
    {
        EXPECT_NE(offset, -1);
        return offset == -1 ? T() : *static_cast<const T*>(XPy_GetFieldAddress(record, offset));
    }
};

TEST_F(LiveLayout, TypeStandsInTheObjectHeader)
{
    XPyOwned list(eval_python("[1]"));
    EXPECT_EQ(read<PyTypeObject*>(list.borrow(), api.pyobject_offsets.type), api.PyList_Type_ptr);
    EXPECT_EQ(read<PyTypeObject*>(api.PyExc_KeyError, api.pyobject_offsets.type), api.PyType_Type_ptr);
    EXPECT_TRUE(XPy_IsInstance(list.borrow(), api.PyList_Type_ptr));
    EXPECT_FALSE(XPy_IsInstance(list.borrow(), api.PyTuple_Type_ptr));
    EXPECT_TRUE(XPy_IsInstance(api.Py_True, api.PyBool_Type_ptr));
}

TEST_F(LiveLayout, TypeObjectFieldsAreWhatPythonSees)
{
    XPyOwned type(eval_python("type('CSlots', (dict,), {'__slots__': ('a', 'b', 'c')})"));
    XPyOwned basicsize(api.PyObject_GetAttrString(type.borrow(), "__basicsize__"));
    XPyOwned flags(api.PyObject_GetAttrString(type.borrow(), "__flags__"));
    const XPy_TypeObjectOffsets& offsets = api.typeobject_offsets;
    EXPECT_EQ(read<Py_ssize_t>(type.borrow(), offsets.tp_basicsize), int_of(basicsize.borrow()));
    EXPECT_EQ(read<long>(type.borrow(), offsets.tp_flags), int_of(flags.borrow()));
    EXPECT_EQ(read<PyTypeObject*>(type.borrow(), offsets.tp_base), api.PyDict_Type_ptr);
    if (is_py3(8)) {
        PyObject* function_type = reinterpret_cast<PyObject*>(api.PyFunction_Type_ptr);
        Py_ssize_t vectorcall = read<Py_ssize_t>(function_type, offsets.tp_vectorcall_offset);
        XPyOwned size(api.PyObject_GetAttrString(function_type, "__basicsize__"));
        EXPECT_GT(vectorcall, 16);
        EXPECT_LT(vectorcall, int_of(size.borrow()));
    }
    EXPECT_EQ(api.max_align, 8);
}

TEST_F(LiveLayout, FrameFieldsAreWhatPythonSees)
{
    XPyOwned scope(
        run_python("import sys\n"
                   "def trace(frame, event, arg): return trace\n"
                   "def inner():\n"
                   "    frame = sys._getframe()\n"
                   "    frame.f_trace = trace\n"
                   "    for i in [1]:\n"
                   "        yield frame\n"
                   "def outer():\n"
                   "    generator = inner()\n"
                   "    return next(generator), generator\n"
                   "frame, generator = outer()\n"));
    PyObject* frame = api.PyDict_GetItemString(scope.borrow(), "frame");
    PyObject* trace = api.PyDict_GetItemString(scope.borrow(), "trace");
    const XPy_FrameOffsets& offsets = api.frame_offsets;
    if (is_py3(11)) {
        const Py_ssize_t* all = &offsets.lineno;
        for (int i = 0; i < 10; i++)
            EXPECT_EQ(all[i], -1) << i;
        return;
    }
    auto attribute = [&](const char* name) {
        XPyOwned value(api.PyObject_GetAttrString(frame, name));
        return value.borrow();  // the frame holds it too
    };
    EXPECT_EQ(read<PyObject*>(frame, offsets.code), attribute("f_code"));
    EXPECT_EQ(read<PyObject*>(frame, offsets.builtins), attribute("f_builtins"));
    EXPECT_EQ(read<PyObject*>(frame, offsets.globals), attribute("f_globals"));
    EXPECT_EQ(read<PyObject*>(frame, offsets.locals), attribute("f_locals"));
    EXPECT_EQ(read<PyObject*>(frame, offsets.trace), trace);
    EXPECT_EQ(read<PyObject*>(frame, offsets.back), nullptr) << "a suspended generator has no caller";
    EXPECT_EQ(offsets.stacktop == -1, is_py3(10));
    EXPECT_EQ(offsets.state == -1, !is_py3(10));
    if (is_py3(10)) {
        EXPECT_EQ(read<signed char>(frame, offsets.state), -1) << "suspended";
    } else {
        EXPECT_NE(read<void*>(frame, offsets.stacktop), nullptr) << "set while suspended";
    }
    EXPECT_EQ(read<int>(frame, offsets.iblock), is_py3(8) ? 0 : 1) << "loops are blocks before 3.8";

    XPyOwned with_back(eval_python("(lambda: __import__('sys')._getframe())()"));
    XPyOwned back(api.PyObject_GetAttrString(with_back.borrow(), "f_back"));
    EXPECT_EQ(read<PyObject*>(with_back.borrow(), offsets.back),
              back.borrow() == api.Py_None ? nullptr : back.borrow());
}

TEST_F(LiveLayout, FrameLineIsTheTracedOne)
{
    if (is_py3(11)) {
        GTEST_SKIP() << "no frame fields, tested above";
    }
    XPyOwned scope(
        run_python("import sys\n"
                   "frames = []\n"
                   "def trace(frame, event, arg):\n"
                   "    if event == 'line' and not frames:\n"
                   "        frames.append(frame)\n"
                   "        look(frame)\n"
                   "    return trace\n"
                   "def traced():\n"
                   "    x = 1\n"
                   "    return x\n"));
    static long long gRawLine;
    gRawLine = -1;
    static PyMethodDef kLook = {"look",
                                [](PyObject*, PyObject* frame) {
                                    gRawLine = read<int>(frame, api.frame_offsets.lineno);
                                    return XPy_NewRef(api.Py_None);
                                },
                                8 /* one argument */, nullptr};
    XPyOwned look(api.PyCFunction_NewEx(&kLook, nullptr, nullptr));
    api.PyDict_SetItemString(scope.borrow(), "look", look.borrow());
    XPyOwned done(
        run_python("sys.settrace(trace)\n"
                   "try: traced()\n"
                   "finally: sys.settrace(None)\n",
                   scope.borrow()));
    EXPECT_EQ(gRawLine, 9) << "valid while the frame is traced";
}

// ---- What short cuts read ----

// A version that these tables do not name works, but slowly: nothing else would tell.
TEST_F(LiveLayout, EveryVersionWithTheFilterHasTheShortcutsLayouts)
{
    bool is_expected = is_py3(12), is_free_threaded = api.pyobject_offsets.refcnt == -1;
    EXPECT_EQ(gShortcutOffsets.frame_code != -1, is_expected);
    for (bool is_shared : {false, true}) {
        const XPy_ShortcutOffsets& offsets = is_shared ? gSharedShortcutOffsets : gShortcutOffsets;
        for (Py_ssize_t offset :
             {offsets.set_mask, offsets.set_table, offsets.int_tag, offsets.int_digit, offsets.type_version})
            EXPECT_EQ(offset != -1, is_expected && is_shared == is_free_threaded);
    }
}

TEST_F(LiveLayout, ShortcutsReadSetsIntsAndTypes)
{
    bool is_free_threaded = api.pyobject_offsets.refcnt == -1;
    const XPy_ShortcutOffsets& offsets = is_free_threaded ? gSharedShortcutOffsets : gShortcutOffsets;
    if (!is_py3(12))
        GTEST_SKIP() << "nothing is read in place, tested above";
    ASSERT_NE(offsets.set_table, -1);
    ASSERT_NE(offsets.int_tag, -1);
    ASSERT_NE(offsets.type_version, -1);
    XPyOwned scope(
        run_python("lines, frozen = {8}, frozenset((8,))\nnumber = 70007\n"
                   "class Changing: pass\n"
                   "Changing.first = 1\nChanging.first\n"));
    struct tEntry {
        PyObject* key;
        Py_ssize_t hash;
    };
    for (const char* name : {"lines", "frozen"}) {
        PyObject* lines = api.PyDict_GetItemString(scope.borrow(), name);
        EXPECT_EQ(read<size_t>(lines, offsets.set_mask), 7u);
        const tEntry* table = read<tEntry*>(lines, offsets.set_table);
        EXPECT_EQ(table[0].hash, 8);
        EXPECT_EQ(table[1].key, nullptr);
    }
    PyObject* number = api.PyDict_GetItemString(scope.borrow(), "number");
    EXPECT_EQ(read<uint64_t>(number, offsets.int_tag) & ~4ull, 8u) << "one digit, positive";
    EXPECT_EQ(read<uint32_t>(number, offsets.int_digit), 70007u);
    PyObject* changing = api.PyDict_GetItemString(scope.borrow(), "Changing");
    EXPECT_NE(read<uint32_t>(changing, offsets.type_version), 0u);
    XPyOwned changed(run_python("Changing.first = 2\n", scope.borrow()));
    EXPECT_EQ(read<uint32_t>(changing, offsets.type_version), 0u);
}

TEST_F(LiveLayout, RunningCodeIsFoundWithoutAFrameObject)
{
    XPyOwned frame(get_thread_state_frame(api.PyThreadState_Get()));
    ASSERT_TRUE(frame);
    XPyOwned code(get_frame_code(frame.borrow()));
    EXPECT_EQ(is_surely_running(api.PyThreadState_Get(), code.borrow()), is_py3(12));
    EXPECT_FALSE(is_surely_running(api.PyThreadState_Get(), frame.borrow()));
}

TEST_F(LiveLayout, ThreadStateOffsetsStayZeroWithoutALayout)
{
    const XPy_ThreadStateOffsets zero = {};
    EXPECT_EQ(memcmp(&api.tstate_offsets, &zero, sizeof zero) == 0, !has_thread_state_layout());
}

TEST_F(LiveLayout, ThreadStateHoldsThreadInterpreterAndNeighbour)
{
    if (!has_thread_state_layout()) {
        GTEST_SKIP() << "no thread-state layout for this version: all offsets are 0, tested above";
    }
    PyThreadState* tstate = api.PyThreadState_Get();
    const XPy_ThreadStateOffsets& offsets = api.tstate_offsets;
    EXPECT_EQ(read<unsigned long>(tstate, offsets.thread_id), api.PyThread_get_thread_ident());
    EXPECT_EQ(read<void*>(tstate, offsets.next), static_cast<void*>(api.PyThreadState_Next(tstate)));
    PyInterpreterState* interp = read<PyInterpreterState*>(tstate, offsets.interp);
    EXPECT_EQ(api.PyThreadState_GetInterpreter(tstate), interp);
    PyThreadState* other = api.PyThreadState_New(interp);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(api.PyInterpreterState_ThreadHead(interp), other);
    EXPECT_EQ(read<PyThreadState*>(other, offsets.next), api.PyThreadState_Next(other));
    EXPECT_EQ(read<PyThreadState*>(other, offsets.next), tstate);
    EXPECT_EQ(read<PyInterpreterState*>(other, offsets.interp), interp);
    api.PyThreadState_Clear(other);
    api.PyThreadState_Delete(other);
}

TEST_F(LiveLayout, ThreadStateHoldsTheTraceFunctionItsObjectAndTheNesting)
{
    if (!has_thread_state_layout()) {
        GTEST_SKIP() << "no thread-state layout for this version: all offsets are 0, tested above";
    }
    static PyThreadState* gTState;
    static int gTracing, gUseTracing, gWhatEvent, gCalls;
    static PyObject* gTraceObject;
    struct tTracer {
        static int trace(PyObject* obj, PyFrameObject*, int what, PyObject*)
        {
            const XPy_ThreadStateOffsets& offsets = api.tstate_offsets;
            if (gCalls++ == 0) {
                gTracing = read<int>(gTState, offsets.tracing);
                gUseTracing = offsets.use_tracing == -1 ? -1 : read<int>(gTState, offsets.use_tracing);
                gWhatEvent = offsets.what_event == -1 ? -1 : read<int>(gTState, offsets.what_event);
                gTraceObject = read<PyObject*>(gTState, offsets.c_traceobj);
                EXPECT_EQ(obj, gTraceObject);
                EXPECT_EQ(what, 0) << "a call";
                EXPECT_EQ(read<Py_tracefunc>(gTState, offsets.c_tracefunc), &tTracer::trace);
            }
            return 0;
        }
    };
    gTState = api.PyThreadState_Get();
    gCalls = 0;
    EXPECT_EQ(read<int>(gTState, api.tstate_offsets.tracing), 0);
    XPyOwned marker(eval_python("['marker']"));
    XPyOwned function(eval_python("lambda: None"));
    api.PyEval_SetTrace(tTracer::trace, marker.borrow());
    XPyOwned result(api.PyObject_CallNoArgs(function.borrow()));
    EXPECT_EQ(read<Py_tracefunc>(gTState, api.tstate_offsets.c_tracefunc), &tTracer::trace);
    api.PyEval_SetTrace(nullptr, nullptr);
    EXPECT_GT(gCalls, 0);
    EXPECT_EQ(gTraceObject, marker.borrow());
    EXPECT_EQ(gTracing, 1) << "inside a hook";
    EXPECT_EQ(gUseTracing, is_py3(10) ? -1 : 0) << "off inside a hook, no such field from 3.10 on";
    EXPECT_EQ(api.tstate_offsets.what_event == -1, !is_py3(12));
    EXPECT_EQ(gWhatEvent, is_py3(12) ? 0 : -1) << "the event of a function's start";
    if (is_py3(12)) {
        EXPECT_EQ(read<int>(gTState, api.tstate_offsets.what_event), -1) << "no event outside a hook";
    }
    EXPECT_EQ(read<int>(gTState, api.tstate_offsets.tracing), 0);
    EXPECT_EQ(read<void*>(gTState, api.tstate_offsets.c_tracefunc), nullptr);
    EXPECT_EQ(read<void*>(gTState, api.tstate_offsets.c_traceobj), nullptr);
}

TEST_F(LiveLayout, FrameOfTheThreadStateIsKnownUpTo3Dot10)
{
    if (!has_thread_state_layout()) {
        GTEST_SKIP() << "no thread-state layout for this version: all offsets are 0, tested above";
    }
    const XPy_ThreadStateOffsets& offsets = api.tstate_offsets;
    if (is_py3(11)) {
        EXPECT_EQ(offsets.frame, -1);
        EXPECT_NE(offsets.cframe, -1);
        EXPECT_NE(read<void*>(api.PyThreadState_Get(), offsets.cframe), nullptr);
    } else {
        XPyOwned frame(eval_python("__import__('sys')._getframe().f_back"));
        EXPECT_EQ(offsets.cframe, -1);
        EXPECT_EQ(read<PyObject*>(api.PyThreadState_Get(), offsets.frame), frame.borrow());
    }
    EXPECT_EQ(api.cframe_offsets.current_frame, is_py3(10, 11) ? 8 : is_py3(12, 12) ? 0 : -1);
}

TEST_F(LiveLayout, EvalFrameFieldHoldsTheInterpretersDefault)
{
    Py_ssize_t offset = api.interpreter_state_offsets.eval_frame;
    EXPECT_EQ(offset == -1, !is_py3(6, 8));
    if (offset == -1)
        return;
    PyInterpreterState* interp = api.PyThreadState_GetInterpreter(api.PyThreadState_Get());
    EXPECT_EQ(read<void*>(interp, offset), dlsym(RTLD_DEFAULT, "_PyEval_EvalFrameDefault"));
    EXPECT_NE(read<void*>(interp, offset), nullptr);
}
