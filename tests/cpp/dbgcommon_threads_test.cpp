// Accessors of thread states.

#include <thread>

#include "log_test_support.h"

namespace {

int gTraceCalls;
PyObject* gTraceObj;
int gSetTraceCalls;

int count_trace_calls(PyObject* obj, PyFrameObject*, int, PyObject*)
{
    gTraceCalls++;
    gTraceObj = obj;
    return 0;
}

int set_trace_raises(PyThreadState*, Py_tracefunc, PyObject*)
{
    gSetTraceCalls++;
    api.PyErr_SetString(api.PyExc_RuntimeError, "refused");
    return -7;
}

int set_trace_fails_silently(PyThreadState*, Py_tracefunc, PyObject*)
{
    gSetTraceCalls++;
    return 5;
}

class DbgcommonThreads : public tHostedTest
{
  protected:
    void SetUp() override
    {
        tHostedTest::SetUp();
        gTraceCalls = 0;
        gTraceObj = nullptr;
        gSetTraceCalls = 0;
    }

    void TearDown() override
    {
        if (fOther)
            finish_other_thread();
        tHostedTest::TearDown();
    }

    // Starts a Python thread that waits; fOther is its state until finish_other_thread().
    void start_other_thread()
    {
        run("import threading\n"
            "ready, go = threading.Event(), threading.Event()\n"
            "def work(): pass\n"
            "def body():\n"
            "    native(threading.current_thread().ident)\n"
            "    ready.set()\n"
            "    go.wait()\n"
            "    work()\n");
        native_hook() = [&](PyObject* ident) {
            fOther = tstate();
            fOtherIdent = py_int_as_ssize_t(ident);
        };
        run("thread = threading.Thread(target=body)\nthread.start()\nready.wait()");
        ASSERT_NE(fOther, nullptr);
        ASSERT_NE(fOther, tstate());
    }

    void finish_other_thread()
    {
        run("go.set()\nthread.join()");
        fOther = nullptr;
    }

    // Another thread's trace function can be set on these.
    static bool can_set_other()
    {
        return api.major_version == 3 && api.minor_version >= 10 && api.minor_version <= 12;
    }

    PyThreadState* fOther = nullptr;
    Py_ssize_t fOtherIdent = 0;
};

// ---- The current thread state ----

TEST_F(DbgcommonThreads, OwnThreadHasItsState)
{
    EXPECT_EQ(borrow_current_thread_state_or_null(), api.PyThreadState_Get());
}

TEST_F(DbgcommonThreads, ForeignThreadHasNoState)
{
    PyThreadState* found = tstate();
    std::thread other([&] { found = borrow_current_thread_state_or_null(); });
    other.join();
    EXPECT_EQ(found, nullptr);
}

TEST_F(DbgcommonThreads, ThreadWithoutTheInterpreterLockHasNoUsableState)
{
    PyThreadState *without = tstate(), *with = nullptr, *own = nullptr;
    PyThreadState* saved = api.PyEval_SaveThread();
    PyThreadState* released = borrow_current_thread_state_or_null();
    std::thread other([&] {
        PyGILState_STATE state = api.PyGILState_Ensure();
        own = api.PyThreadState_Get();
        with = borrow_current_thread_state_or_null();
        PyThreadState* inner = api.PyEval_SaveThread();
        without = borrow_current_thread_state_or_null();
        api.PyEval_RestoreThread(inner);
        api.PyGILState_Release(state);
    });
    other.join();
    api.PyEval_RestoreThread(saved);
    EXPECT_EQ(released, nullptr);
    EXPECT_EQ(with, own);
    EXPECT_EQ(without, nullptr);
}

TEST_F(DbgcommonThreads, BeforeStartUpThereIsNoState)
{
    tSwapped<int> initialized(api.initialized, 0);
    EXPECT_EQ(borrow_current_thread_state_or_null(), nullptr);
}

// ---- Fields ----

TEST_F(DbgcommonThreads, CurrentFrameIsTheCallersFrame)
{
    XPyOwned frame;
    native_hook() = [&](PyObject* expected) {
        frame.reset(get_thread_state_frame(tstate()));
        EXPECT_EQ(frame.borrow(), expected);
        expect_balanced({expected}, [&] { XPyOwned again(get_thread_state_frame(tstate())); });
    };
    run("def f(): native(sys._getframe())\nf()");
    EXPECT_TRUE(frame);
}

TEST_F(DbgcommonThreads, ThreadWithoutFramesHasNone)
{
    PyThreadState* fresh = api.PyThreadState_New(api.PyThreadState_GetInterpreter(tstate()));
    EXPECT_EQ(get_thread_state_frame(fresh), nullptr);
    EXPECT_EQ(get_stack_depth(fresh), 0);
    EXPECT_EQ(borrow_thread_state_traceobj(fresh), nullptr);
    EXPECT_EQ(get_thread_state_tracing(fresh), 0);
    api.PyThreadState_Clear(fresh);
    api.PyThreadState_Delete(fresh);
}

TEST_F(DbgcommonThreads, TraceObjectIsThePythonTraceFunction)
{
    EXPECT_EQ(borrow_thread_state_traceobj(tstate()), nullptr);
    run("def tracer(frame, event, arg): return None\nsys.settrace(tracer)");
    EXPECT_EQ(borrow_thread_state_traceobj(tstate()), var("tracer"));
    run("sys.settrace(None)");
    EXPECT_EQ(borrow_thread_state_traceobj(tstate()), nullptr);
}

TEST_F(DbgcommonThreads, AllThreadsShareTheInterpreter)
{
    start_other_thread();
    EXPECT_NE(borrow_thread_state_interp(tstate()), nullptr);
    EXPECT_EQ(borrow_thread_state_interp(tstate()), borrow_thread_state_interp(fOther));
    bool found = false;
    PyThreadState* state = api.PyInterpreterState_ThreadHead(borrow_thread_state_interp(tstate()));
    for (; state; state = *static_cast<PyThreadState**>(XPy_GetFieldAddress(state, api.tstate_offsets.next)))
        found = found || state == tstate();
    EXPECT_TRUE(found);
}

TEST_F(DbgcommonThreads, ThreadIdIsTheOneThatPythonKnows)
{
    start_other_thread();
    EXPECT_EQ(static_cast<Py_ssize_t>(get_thread_state_thread_id(fOther)), fOtherIdent);
    EXPECT_EQ(static_cast<long>(get_thread_state_thread_id(tstate())), eval_int("threading.current_thread().ident"));
}

TEST_F(DbgcommonThreads, UseTracingIsAFieldUpTo39AndElseAlwaysOne)
{
    if (since_python3(10)) {
        EXPECT_EQ(api.tstate_offsets.use_tracing, -1);
        set_thread_state_use_tracing(tstate(), 0);
        EXPECT_EQ(get_thread_state_use_tracing(tstate()), 1);
        return;
    }
    EXPECT_EQ(get_thread_state_use_tracing(tstate()), 0);
    run("def tracer(frame, event, arg): return None\nsys.settrace(tracer)");
    EXPECT_EQ(get_thread_state_use_tracing(tstate()), 1);
    run("sys.settrace(None)");
    EXPECT_EQ(get_thread_state_use_tracing(tstate()), 0);
    set_thread_state_use_tracing(tstate(), 5);
    EXPECT_EQ(get_thread_state_use_tracing(tstate()), 5);
    set_thread_state_use_tracing(tstate(), 0);
    EXPECT_EQ(get_thread_state_use_tracing(tstate()), 0);
}

// A record in place of a thread state, for fields at chosen offsets.
struct tFakeThreadState {
    PyObject* object;
    uint64_t wide;
    int32_t narrow[2];
};

TEST_F(DbgcommonThreads, FieldsAreReadAtTheirOffsetsWithTheirWidths)
{
    tFakeThreadState fake = {api.Py_None, 0x123456789abcdef0u, {-3, 9}};
    PyThreadState* state = reinterpret_cast<PyThreadState*>(&fake);
    XPy_ThreadStateOffsets offsets = api.tstate_offsets;
    offsets.thread_id = offsetof(tFakeThreadState, wide);
    offsets.use_tracing = offsetof(tFakeThreadState, narrow);
    offsets.tracing = offsetof(tFakeThreadState, narrow) + 4;
    offsets.what_event = offsetof(tFakeThreadState, narrow);
    tSwapped<XPy_ThreadStateOffsets> swapped(api.tstate_offsets, offsets);
    EXPECT_EQ(get_thread_state_thread_id(state), 0x123456789abcdef0u);
    EXPECT_EQ(get_thread_state_use_tracing(state), -3);
    EXPECT_EQ(get_thread_state_tracing(state), 9);
    EXPECT_EQ(get_thread_state_what_event(state), -3);
    set_thread_state_use_tracing(state, 4);
    EXPECT_EQ(fake.narrow[0], 4);
    EXPECT_EQ(fake.narrow[1], 9);
}

TEST_F(DbgcommonThreads, NothingIsReadWhereStartUpFoundNoLayout)
{
    for (Py_ssize_t unknown : {0, -1}) {
        XPy_ThreadStateOffsets offsets;
        offsets.next = offsets.interp = offsets.frame = offsets.c_tracefunc = offsets.c_traceobj = unknown;
        offsets.thread_id = offsets.tracing = offsets.use_tracing = offsets.cframe = offsets.what_event = unknown;
        PyThreadState* state = tstate();
        tSwapped<XPy_ThreadStateOffsets> swapped(api.tstate_offsets, offsets);
        PyThreadState* unreadable = nullptr;
        EXPECT_EQ(borrow_thread_state_traceobj(unreadable), nullptr);
        EXPECT_EQ(get_thread_state_thread_id(unreadable), 0u);
        EXPECT_EQ(get_thread_state_use_tracing(unreadable), 1);
        EXPECT_EQ(get_thread_state_tracing(unreadable), 0);
        EXPECT_EQ(get_thread_state_what_event(unreadable), -1);
        set_thread_state_use_tracing(unreadable, 1);
        EXPECT_EQ(get_thread_state_use_tracing(state), 1);
    }
}

TEST_F(DbgcommonThreads, EventIsKnownFrom312On)
{
    int inside = -99;
    EXPECT_EQ(get_thread_state_what_event(tstate()), -1);
    native_hook() = [&](PyObject*) { inside = get_thread_state_what_event(tstate()); };
    run("def f(): pass\ndef tracer(frame, event, arg): native(None)\nsys.settrace(tracer)\nf()\nsys.settrace(None)");
    EXPECT_EQ(inside, since_python3(12) ? 0 : -1);  // 0: the start of a function
}

// ---- The tracing counter ----

TEST_F(DbgcommonThreads, CounterIsRaisedAndLowered)
{
    int before = get_thread_state_tracing(tstate());
    increment_thread_state_tracing(tstate());
    EXPECT_EQ(get_thread_state_tracing(tstate()), before + 1);
    increment_thread_state_tracing(tstate());
    EXPECT_EQ(get_thread_state_tracing(tstate()), before + 2);
    decrement_thread_state_tracing(tstate());
    decrement_thread_state_tracing(tstate());
    EXPECT_EQ(get_thread_state_tracing(tstate()), before);
}

int gEnters, gLeaves;
PyThreadState* gEntered;

TEST_F(DbgcommonThreads, AddCallsTheEntryOncePerStep)
{
    gEnters = gLeaves = 0;
    gEntered = nullptr;
    PyThreadState* state = tstate();
    {
        tSwapped<decltype(api.PyThreadState_EnterTracing)> enter(api.PyThreadState_EnterTracing,
                                                                 [](PyThreadState* t) {
                                                                     gEnters++;
                                                                     gEntered = t;
                                                                 });
        tSwapped<decltype(api.PyThreadState_LeaveTracing)> leave(api.PyThreadState_LeaveTracing,
                                                                 [](PyThreadState*) { gLeaves++; });
        add_to_thread_state_tracing(state, 0);
        EXPECT_EQ(gEnters + gLeaves, 0);
        add_to_thread_state_tracing(state, 3);
        EXPECT_EQ(gEnters, 3);
        EXPECT_EQ(gEntered, state);
        add_to_thread_state_tracing(state, -2);
        EXPECT_EQ(gEnters, 3);
        EXPECT_EQ(gLeaves, 2);
    }
    int before = get_thread_state_tracing(state);
    add_to_thread_state_tracing(state, 4);
    EXPECT_EQ(get_thread_state_tracing(state), before + 4);
    add_to_thread_state_tracing(state, -4);
    EXPECT_EQ(get_thread_state_tracing(state), before);
}

TEST_F(DbgcommonThreads, RaisedCounterStopsTracing)
{
    run("calls = []\ndef tracer(frame, event, arg): calls.append(frame.f_code.co_name)\ndef f(): pass\n"
        "def g(): pass\nsys.settrace(tracer)");
    increment_thread_state_tracing(tstate());
    XPyOwned quiet(api.PyObject_CallNoArgs(var("f")));
    decrement_thread_state_tracing(tstate());
    XPyOwned traced(api.PyObject_CallNoArgs(var("g")));
    run("sys.settrace(None)");
    EXPECT_EQ(eval_text("'f' in calls"), "False");
    EXPECT_EQ(eval_text("'g' in calls"), "True");
}

// ---- The trace function ----

TEST_F(DbgcommonThreads, OwnTraceFunctionIsSetAndRemoved)
{
    run("obj = Plain()\ndef f(): pass");
    Py_ssize_t before = count_of(var("obj"));
    EXPECT_EQ(set_thread_state_trace_cfunc(tstate(), count_trace_calls, var("obj")), 0);
    XPyOwned traced(api.PyObject_CallNoArgs(var("f")));
    EXPECT_EQ(borrow_thread_state_traceobj(tstate()), var("obj"));
    EXPECT_EQ(set_thread_state_trace_cfunc(tstate(), nullptr, nullptr), 0);
    EXPECT_GT(gTraceCalls, 0);
    EXPECT_EQ(gTraceObj, var("obj"));
    EXPECT_EQ(count_of(var("obj")), before);
    int calls = gTraceCalls;
    XPyOwned untraced(api.PyObject_CallNoArgs(var("f")));
    EXPECT_EQ(gTraceCalls, calls);
}

TEST_F(DbgcommonThreads, OtherThreadsTraceFunctionIsSetOn310To312Only)
{
    run("obj = Plain()");
    start_other_thread();
    int result = set_thread_state_trace_cfunc(fOther, count_trace_calls, var("obj"));
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(borrow_thread_state_traceobj(fOther), can_set_other() ? var("obj") : nullptr);
    EXPECT_EQ(borrow_thread_state_traceobj(tstate()), nullptr);
    finish_other_thread();
    EXPECT_EQ(result, can_set_other() ? 0 : -1);
    EXPECT_EQ(gTraceCalls > 0, can_set_other());
    EXPECT_EQ(gTraceObj, can_set_other() ? var("obj") : nullptr);
}

TEST_F(DbgcommonThreads, FailureForAnotherThreadIsLoggedAndCleared)
{
    start_other_thread();
    open_log();
    tSwapped<decltype(api._PyEval_SetTrace)> raising(api._PyEval_SetTrace, set_trace_raises);
    int result = set_thread_state_trace_cfunc(fOther, count_trace_calls, nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(result, can_set_other() ? -7 : -1);
    EXPECT_EQ(gSetTraceCalls, can_set_other() ? 1 : 0);  // elsewhere the interpreter is not asked
    EXPECT_EQ(logged(), can_set_other() ? "_PyEval_SetTrace raised exception\nRuntimeError: refused\n" : "");
}

TEST_F(DbgcommonThreads, FailureWithoutAnExceptionIsReturnedOnly)
{
    start_other_thread();
    open_log();
    tSwapped<decltype(api._PyEval_SetTrace)> failing(api._PyEval_SetTrace, set_trace_fails_silently);
    EXPECT_EQ(set_thread_state_trace_cfunc(fOther, count_trace_calls, nullptr), can_set_other() ? 5 : -1);
    EXPECT_EQ(logged(), "");
}

TEST_F(DbgcommonThreads, VersionDecidesAboutOtherThreads)
{
    start_other_thread();
    tSwapped<decltype(api._PyEval_SetTrace)> failing(api._PyEval_SetTrace, set_trace_fails_silently);
    for (int minor : {9, 10, 11, 12, 13, 14}) {
        gSetTraceCalls = 0;
        tSwapped<int> pretended_major(api.major_version, 3);
        tSwapped<int> pretended(api.minor_version, minor);
        bool can = minor >= 10 && minor <= 12;
        EXPECT_EQ(set_thread_state_trace_cfunc(fOther, count_trace_calls, nullptr), can ? 5 : -1) << minor;
        EXPECT_EQ(gSetTraceCalls, can ? 1 : 0) << minor;
    }
}

TEST_F(DbgcommonThreads, FailureIsClearedWithoutALogToo)
{
    start_other_thread();
    tSwapped<decltype(api._PyEval_SetTrace)> raising(api._PyEval_SetTrace, set_trace_raises);
    EXPECT_NE(set_thread_state_trace_cfunc(fOther, count_trace_calls, nullptr), 0);
    EXPECT_EQ(take_exception(), "");
}

}  // namespace
