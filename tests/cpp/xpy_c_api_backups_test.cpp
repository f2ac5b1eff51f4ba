// Every fallback that does the job another way, called directly inside an interpreter, whether or not that
// interpreter has the real function.

#include <dlfcn.h>

#include <string>

#include "hosted_support.h"
#include "xpy_c_api_internal.h"

class Backups : public HostedTest
{
  private:
    tSavedTable fSavedTable;
};

static void set_version(int major, int minor)
{
    api.major_version = major;
    api.minor_version = minor;
}

// Count of a fresh object, for differences only.
class tCounted
{
  public:
    explicit tCounted(PyObject* obj) : fObj(obj), fBefore(refcount_of(obj)) {}
    long long added() const { return refcount_of(fObj) - fBefore; }

  private:
    PyObject* fObj;
    long long fBefore;
};

// ---- Numbers and calls ----

TEST_F(Backups, SsizeTIsReadAsALongLong)
{
    XPyOwned number(api.PyLong_FromLongLong(-1234567890123));
    EXPECT_EQ(Backup_PyLong_AsSsize_t(number.borrow()), -1234567890123);
    XPyOwned text(eval_python("'text'"));
    EXPECT_EQ(Backup_PyLong_AsSsize_t(text.borrow()), -1);
    EXPECT_EQ(take_error().substr(0, 9), "TypeError");
}

TEST_F(Backups, SsizeTBecomesAPython2Int)
{
    static long gValue;
    if (api.major_version != 2) {
        api.PyInt_FromLong = [](long value) {
            gValue = value;
            return api.PyLong_FromLongLong(value);
        };
    }
    XPyOwned number(Backup_PyLong_FromSsize_t(-77));
    EXPECT_EQ(int_of(number.borrow()), -77);
    if (api.major_version == 2) {
        XPyOwned is_int(eval_python("int"));
        EXPECT_EQ(reinterpret_cast<PyObject*>(XPy_BorrowType(number.borrow())), is_int.borrow());
    } else {
        EXPECT_EQ(gValue, -77);
    }
}

TEST_F(Backups, CallNoArgsCalls)
{
    XPyOwned function(eval_python("lambda *args: args"));
    XPyOwned result(Backup_PyObject_CallNoArgs(function.borrow()));
    EXPECT_EQ(text_of(result.borrow()), "()");
    XPyOwned failing(eval_python("lambda: {}['no']"));
    EXPECT_EQ(Backup_PyObject_CallNoArgs(failing.borrow()), nullptr);
    EXPECT_EQ(take_error(), "KeyError: 'no'");
}

TEST_F(Backups, CallOneArgCallsAndLeavesTheArgumentsCount)
{
    XPyOwned function(eval_python("lambda *args: (len(args), args[0])"));
    XPyOwned arg(eval_python("['arg']"));
    tCounted counted(arg.borrow());
    {
        XPyOwned result(Backup_PyObject_CallOneArg(function.borrow(), arg.borrow()));
        EXPECT_EQ(text_of(result.borrow()), "(1, ['arg'])");
        EXPECT_EQ(counted.added(), 1) << "held by the result alone";
    }
    EXPECT_EQ(counted.added(), 0);
    XPyOwned failing(eval_python("lambda arg: {}['no']"));
    EXPECT_EQ(Backup_PyObject_CallOneArg(failing.borrow(), arg.borrow()), nullptr);
    EXPECT_EQ(take_error(), "KeyError: 'no'");
    EXPECT_EQ(counted.added(), 0);
}

// ---- Dictionaries and iterators ----

TEST_F(Backups, DictGetItemRefAnswersFoundAbsentOrFailed)
{
    XPyOwned dict(eval_python("{'key': ['value']}"));
    XPyOwned key(eval_python("'key'")), absent(eval_python("'absent'")), unhashable(eval_python("[]"));
    PyObject* value = api.PyDict_GetItemString(dict.borrow(), "key");
    tCounted counted(value);
    PyObject* result = nullptr;
    EXPECT_EQ(Backup_PyDict_GetItemRef(dict.borrow(), key.borrow(), &result), 1);
    EXPECT_EQ(result, value);
    EXPECT_EQ(counted.added(), 1);
    XPy_DoDecRef(value);
    EXPECT_EQ(Backup_PyDict_GetItemRef(dict.borrow(), absent.borrow(), &result), 0);
    EXPECT_EQ(result, nullptr);
    result = value;
    int failed = Backup_PyDict_GetItemRef(dict.borrow(), unhashable.borrow(), &result);
    EXPECT_EQ(result, nullptr);
    if (api.major_version == 2) {
        EXPECT_EQ(failed, 0) << "this generation's look-up swallows errors";
    } else {
        EXPECT_EQ(failed, -1);
        EXPECT_EQ(take_error().substr(0, 10), "TypeError:");
    }
}

TEST_F(Backups, DictPopRemovesAndHandsTheValueOver)
{
    XPyOwned dict(eval_python("{'key': ['value'], 'other': 1}"));
    XPyOwned key(eval_python("'key'")), unhashable(eval_python("[]"));
    PyObject* value = api.PyDict_GetItemString(dict.borrow(), "key");
    tCounted counted(value);
    PyObject* result = nullptr;
    EXPECT_EQ(Backup_PyDict_Pop(dict.borrow(), key.borrow(), &result), 1);
    EXPECT_EQ(result, value);
    EXPECT_EQ(counted.added(), 0) << "the dictionary's reference is now the caller's";
    EXPECT_EQ(api.PyDict_Size(dict.borrow()), 1);
    XPy_DoDecRef(value);

    result = api.Py_None;
    EXPECT_EQ(Backup_PyDict_Pop(dict.borrow(), key.borrow(), &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(take_error(), "");
    result = api.Py_None;
    int failed = Backup_PyDict_Pop(dict.borrow(), unhashable.borrow(), &result);
    EXPECT_EQ(result, nullptr);
    if (api.major_version == 2) {
        EXPECT_EQ(failed, 0) << "this generation's look-up swallows errors";
    } else {
        EXPECT_EQ(failed, -1);
        EXPECT_EQ(take_error().substr(0, 10), "TypeError:");
    }
    EXPECT_EQ(api.PyDict_Size(dict.borrow()), 1);
}

TEST_F(Backups, DictPopWithoutAResultRemovesAndReleases)
{
    XPyOwned dict(eval_python("{'key': ['value']}"));
    XPyOwned key(eval_python("'key'"));
    XPyOwned value(XPy_NewRef(api.PyDict_GetItemString(dict.borrow(), "key")));
    tCounted counted(value.borrow());
    EXPECT_EQ(Backup_PyDict_Pop(dict.borrow(), key.borrow(), nullptr), 1);
    EXPECT_EQ(counted.added(), -1);
    EXPECT_EQ(api.PyDict_Size(dict.borrow()), 0);
    EXPECT_EQ(Backup_PyDict_Pop(dict.borrow(), key.borrow(), nullptr), 0);
}

TEST_F(Backups, DictPopThatCannotDeleteFailsAndKeepsNothing)
{
    XPyOwned dict(eval_python("{'key': ['value']}"));
    XPyOwned key(eval_python("'key'"));
    tCounted counted(api.PyDict_GetItemString(dict.borrow(), "key"));
    api.PyDict_DelItem = [](PyObject*, PyObject*) {
        api.PyErr_SetString(api.PyExc_ValueError, "refused");
        return -1;
    };
    PyObject* result = api.Py_None;
    EXPECT_EQ(Backup_PyDict_Pop(dict.borrow(), key.borrow(), &result), -1);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(take_error(), "ValueError: refused");
    EXPECT_EQ(counted.added(), 0);
}

TEST_F(Backups, IterNextItemAnswersAnItemTheEndOrAFailure)
{
    XPyOwned iterator(eval_python("(10 // n for n in (5, 0))"));
    PyObject* item = nullptr;
    EXPECT_EQ(Backup_PyIter_NextItem(iterator.borrow(), &item), 1);
    EXPECT_EQ(int_of(item), 2);
    XPy_ClearField(&item);
    item = api.Py_None;
    EXPECT_EQ(Backup_PyIter_NextItem(iterator.borrow(), &item), -1);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(take_error().substr(0, 18), "ZeroDivisionError:");
    item = api.Py_None;
    EXPECT_EQ(Backup_PyIter_NextItem(iterator.borrow(), &item), 0);
    EXPECT_EQ(item, nullptr);
}

// ---- Errors and finalization ----

TEST_F(Backups, FormatUnraisableHandsTheFormattedMessageToTheInterpreter)
{
    static std::string gMessage;
    static PyObject* gMessageObject;
    static long long gCount;
    gMessage = "";
    void (*real_write)(PyObject*) = api.PyErr_WriteUnraisable;
    api.PyErr_WriteUnraisable = [](PyObject* message) {
        gMessageObject = XPy_NewRef(message);
        gMessage = text_of(message);
        gCount = refcount_of(message);
    };
    Backup_PyErr_FormatUnraisable("value %d of %s", 7, "this");
    EXPECT_EQ(gMessage, "value 7 of this");
    EXPECT_EQ(refcount_of(gMessageObject), gCount - 1) << "released afterwards";
    XPy_ClearField(&gMessageObject);

    api.PyErr_WriteUnraisable = real_write;
    XPyOwned scope(
        run_python("import sys\n"
                   "class Stream(object):\n"
                   "    def __init__(self): self.text = ''\n"
                   "    def write(self, text): self.text += text\n"
                   "    def flush(self): pass\n"
                   "stream, saved = Stream(), sys.stderr\n"
                   "sys.stderr = stream\n"));
    api.PyErr_SetString(api.PyExc_KeyError, "lost");
    Backup_PyErr_FormatUnraisable("in %s", "here");
    EXPECT_EQ(take_error(), "") << "written, not pending";
    XPyOwned restored(run_python("sys.stderr = saved\ntext = stream.text\n", scope.borrow()));
    std::string text = text_of(api.PyDict_GetItemString(scope.borrow(), "text"));
    EXPECT_NE(text.find("in here"), std::string::npos) << text;
    EXPECT_NE(text.find("KeyError"), std::string::npos) << text;
}

TEST_F(Backups, IsFinalizingAnswersNo)
{
    EXPECT_EQ(Backup__Py_IsFinalizing(), 0);
}

// ---- Frames ----

static PyFrameObject* as_frame(void* record)
{
    return static_cast<PyFrameObject*>(record);
}

TEST_F(Backups, FrameFieldsAreReadAtTheirOffsetsWithANewReference)
{
    XPyOwned values[] = {XPyOwned(eval_python("[0]")), XPyOwned(eval_python("[1]")), XPyOwned(eval_python("[2]")),
                         XPyOwned(eval_python("[3]")), XPyOwned(eval_python("[4]"))};
    static PyObject* (*const kGetters[])(PyFrameObject*) = {
        [](PyFrameObject* frame) { return reinterpret_cast<PyObject*>(Backup_PyFrame_GetBack(frame)); },
        [](PyFrameObject* frame) { return reinterpret_cast<PyObject*>(Backup_PyFrame_GetCode(frame)); },
        Backup_PyFrame_GetBuiltins, Backup_PyFrame_GetGlobals, Backup_PyFrame_GetLocals};
    Py_ssize_t* const kOffsets[] = {&api.frame_offsets.back, &api.frame_offsets.code, &api.frame_offsets.builtins,
                                    &api.frame_offsets.globals, &api.frame_offsets.locals};
    PyObject* record[6] = {};
    for (int i = 0; i < 5; i++) {
        record[i + 1] = values[i].borrow();
        *kOffsets[i] = 8 * (i + 1);
    }
    for (int i = 0; i < 5; i++) {
        tCounted counted(record[i + 1]);
        {
            XPyOwned result(kGetters[i](as_frame(record)));
            EXPECT_EQ(result.borrow(), record[i + 1]) << i;
            EXPECT_EQ(counted.added(), 1) << i;
        }
        EXPECT_EQ(counted.added(), 0) << i;
        record[i + 1] = nullptr;
        EXPECT_EQ(kGetters[i](as_frame(record)), nullptr) << i;
        *kOffsets[i] = -1;
        tCapturedFd errors;
        EXPECT_EQ(kGetters[i](as_frame(record)), nullptr) << i;
        EXPECT_EQ(errors.text(), "") << i;
        EXPECT_EQ(take_error(),
                  i == 0 ? "RuntimeError: PyFrame_GetBack not available and frame_offsets.back not set" : "");
    }
}

TEST_F(Backups, FrameFieldsOfALiveFrameAreItsAttributes)
{
    XPyOwned scope(
        run_python("import sys\n"
                   "def inner(): return sys._getframe()\n"
                   "def outer(): return inner()\n"
                   "frame = outer()\n"));
    PyObject* frame = api.PyDict_GetItemString(scope.borrow(), "frame");
    XPyOwned code(reinterpret_cast<PyObject*>(Backup_PyFrame_GetCode(as_frame(frame))));
    XPyOwned globals(Backup_PyFrame_GetGlobals(as_frame(frame)));
    XPyOwned builtins(Backup_PyFrame_GetBuiltins(as_frame(frame)));
    if (is_py3(11)) {
        EXPECT_EQ(code.borrow(), nullptr);
        EXPECT_EQ(Backup_PyFrame_GetBack(as_frame(frame)), nullptr);
        EXPECT_EQ(take_error(), "RuntimeError: PyFrame_GetBack not available and frame_offsets.back not set");
        return;
    }
    XPyOwned back(reinterpret_cast<PyObject*>(Backup_PyFrame_GetBack(as_frame(frame))));
    XPyOwned f_code(api.PyObject_GetAttrString(frame, "f_code"));
    XPyOwned f_globals(api.PyObject_GetAttrString(frame, "f_globals"));
    XPyOwned f_builtins(api.PyObject_GetAttrString(frame, "f_builtins"));
    XPyOwned f_back(api.PyObject_GetAttrString(frame, "f_back"));
    EXPECT_EQ(code.borrow(), f_code.borrow());
    EXPECT_EQ(globals.borrow(), f_globals.borrow());
    EXPECT_EQ(builtins.borrow(), f_builtins.borrow());
    EXPECT_EQ(back ? back.borrow() : api.Py_None, f_back.borrow());
}

TEST_F(Backups, FrameGeneratorIsNull)
{
    XPyOwned frame(eval_python("__import__('sys')._getframe()"));
    EXPECT_EQ(Backup_PyFrame_GetGenerator(as_frame(frame.borrow())), nullptr);
}

TEST_F(Backups, LineNumberIsTheAttributesValue)
{
    XPyOwned frame(eval_python("__import__('sys')._getframe()"));
    XPyOwned lineno(api.PyObject_GetAttrString(frame.borrow(), "f_lineno"));
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(as_frame(frame.borrow())), int_of(lineno.borrow()));
    XPyOwned scope(
        run_python("class Frame(object):\n"
                   "    def __init__(self, lineno): self.f_lineno = lineno\n"
                   "line, text, huge = Frame(4321), Frame('x'), Frame(10 ** 30)\n"));
    auto frame_named = [&](const char* name) { return as_frame(api.PyDict_GetItemString(scope.borrow(), name)); };
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(frame_named("line")), 4321);
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(frame_named("text")), -1);
    EXPECT_EQ(take_error(), "");
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(frame_named("huge")), -1);
    EXPECT_EQ(take_error(), "");
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(as_frame(api.Py_None)), -1) << "no such attribute";
    EXPECT_EQ(take_error(), "");
}

// ---- Thread states ----

static PyThreadState* as_tstate(void* record)
{
    return static_cast<PyThreadState*>(record);
}

TEST_F(Backups, ThreadStatesFrameIsReadWithANewReference)
{
    XPyOwned frame(eval_python("['frame']"));
    PyObject* record[] = {nullptr, nullptr, frame.borrow()};
    api.tstate_offsets.frame = 16;
    tCounted counted(frame.borrow());
    {
        XPyOwned result(reinterpret_cast<PyObject*>(Backup_PyThreadState_GetFrame(as_tstate(record))));
        EXPECT_EQ(result.borrow(), frame.borrow());
        EXPECT_EQ(counted.added(), 1);
    }
    record[2] = nullptr;
    EXPECT_EQ(Backup_PyThreadState_GetFrame(as_tstate(record)), nullptr);
    record[0] = frame.borrow();
    for (Py_ssize_t unknown : {-1, 0}) {
        api.tstate_offsets.frame = unknown;
        tCapturedFd errors;
        EXPECT_EQ(Backup_PyThreadState_GetFrame(as_tstate(record)), nullptr);
        EXPECT_EQ(errors.text(), "");
    }
}

TEST_F(Backups, ThreadStatesInterpreterIsReadWithoutAReference)
{
    int interpreter = 0;  // no object
    void* record[] = {&interpreter, &interpreter};
    api.tstate_offsets.interp = 8;
    EXPECT_EQ(static_cast<void*>(Backup_PyThreadState_GetInterpreter(as_tstate(record))), &interpreter);
    for (Py_ssize_t unknown : {-1, 0}) {
        api.tstate_offsets.interp = unknown;
        tCapturedFd errors;
        EXPECT_EQ(Backup_PyThreadState_GetInterpreter(as_tstate(record)), nullptr);
        EXPECT_EQ(errors.text(), "Backup_PyThreadState_GetInterpreter called\n");
    }
}

TEST_F(Backups, LiveThreadStatesInterpreterIsTheInterpreters)
{
    PyThreadState* tstate = api.PyThreadState_Get();
    tCapturedFd errors;
    PyInterpreterState* interp = Backup_PyThreadState_GetInterpreter(tstate);
    EXPECT_EQ(errors.text(), has_thread_state_layout() ? "" : "Backup_PyThreadState_GetInterpreter called\n");
    EXPECT_EQ(interp, has_thread_state_layout() ? api.PyThreadState_GetInterpreter(tstate) : nullptr);
    XPyOwned frame(reinterpret_cast<PyObject*>(Backup_PyThreadState_GetFrame(tstate)));
    XPyOwned expected(eval_python("__import__('sys')._getframe().f_back"));
    EXPECT_EQ(frame.borrow(), is_py3(11) ? nullptr : expected.borrow());
}

TEST_F(Backups, SetCurrentInitializesTheThreadStateUpTo3Dot10)
{
    static PyThreadState* gInitialized;
    api._PyThreadState_Init = [](PyThreadState* tstate) { gInitialized = tstate; };
    void* record[1];
    static const struct {
        int major, minor;
        bool initializes;
    } kVersions[] = {{2, 7, true}, {2, 12, true}, {3, 0, true}, {3, 10, true}, {3, 11, false}, {3, 14, false}};
    for (const auto& version : kVersions) {
        gInitialized = nullptr;
        set_version(version.major, version.minor);
        Backup_PyThreadState_SetCurrent(as_tstate(record));
        EXPECT_EQ(gInitialized, version.initializes ? as_tstate(record) : nullptr) << version.minor;
    }
}

TEST_F(Backups, SetCurrentOfALiveThreadStateIsHarmless)
{
    if (is_py3(11))
        GTEST_SKIP() << "from 3.11 on the fallback does nothing, tested above";
    Backup_PyThreadState_SetCurrent(api.PyThreadState_Get());  // 3.8's function wants the runtime as well
    XPyOwned answer(eval_python("6 * 7"));
    EXPECT_EQ(api.PyLong_AsLongLong(answer.borrow()), 42);
}

// ---- Tracing ----

struct tTracedThread {
    int32_t before, tracing, after, filler;
    Py_tracefunc c_tracefunc;
    PyObject* c_traceobj;
};

static tTracedThread gThread;
static int gSetTraces;
static int32_t gTracingAtSetTrace;
static PyObject* gSetObject;
static Py_tracefunc gSetFunction;
static long long gCountAtSetTrace;

static int trace_function(PyObject*, PyFrameObject*, int, PyObject*)
{
    return 0;
}

class BackupTracing : public Backups
{
  protected:
    void SetUp() override
    {
        Backups::SetUp();
        gThread = {11, 0, 22, 0, trace_function, nullptr};
        gSetTraces = 0;
        api.tstate_offsets.tracing = offsetof(tTracedThread, tracing);
        api.tstate_offsets.c_tracefunc = offsetof(tTracedThread, c_tracefunc);
        api.tstate_offsets.c_traceobj = offsetof(tTracedThread, c_traceobj);
        api.PyEval_SetTrace = [](Py_tracefunc func, PyObject* obj) {
            gSetTraces++;
            gTracingAtSetTrace = gThread.tracing;
            gSetFunction = func;
            gSetObject = obj;
            gCountAtSetTrace = obj ? XPy_GetRefCnt(obj) : 0;
        };
    }
    static void enter() { Backup_PyThreadState_EnterTracing(as_tstate(&gThread)); }
    static void leave() { Backup_PyThreadState_LeaveTracing(as_tstate(&gThread)); }
};

TEST_F(BackupTracing, OnlyCountsBefore3Dot10)
{
    static const int kVersions[][2] = {{2, 7}, {3, 0}, {3, 6}, {3, 9}};
    int real_major = api.major_version, real_minor = api.minor_version;
    for (const auto& version : kVersions) {
        set_version(version[0], version[1]);
        enter();
        EXPECT_EQ(gThread.tracing, 1);
        enter();
        EXPECT_EQ(gThread.tracing, 2);
        leave();
        leave();
        EXPECT_EQ(gThread.tracing, 0);
    }
    EXPECT_EQ(gSetTraces, 0);
    EXPECT_EQ(gThread.before, 11);
    EXPECT_EQ(gThread.after, 22);
    set_version(real_major, real_minor);
}

TEST_F(BackupTracing, On3Dot10ReinstallsTheTraceFunctionWhenTheCountMovesBetweenZeroAndOne)
{
    int real_major = api.major_version, real_minor = api.minor_version;
    XPyOwned object(eval_python("['trace']"));
    gThread.c_traceobj = object.borrow();
    Py_ssize_t count = XPy_GetRefCnt(object.borrow());
    set_version(3, 10);
    enter();
    EXPECT_EQ(gSetTraces, 1);
    EXPECT_EQ(gTracingAtSetTrace, 1) << "the counter first";
    EXPECT_EQ(gSetFunction, trace_function);
    EXPECT_EQ(gSetObject, object.borrow());
    if (count != -1) {
        EXPECT_EQ(gCountAtSetTrace, count + 1) << "held during the call";
        EXPECT_EQ(XPy_GetRefCnt(object.borrow()), count);
    }
    enter();
    EXPECT_EQ(gThread.tracing, 2);
    EXPECT_EQ(gSetTraces, 1);
    leave();
    EXPECT_EQ(gSetTraces, 1);
    leave();
    EXPECT_EQ(gThread.tracing, 0);
    EXPECT_EQ(gSetTraces, 2);
    EXPECT_EQ(gTracingAtSetTrace, 0);

    gThread.tracing = -1;
    enter();
    EXPECT_EQ(gSetTraces, 3) << "the new value is 0";
    leave();
    EXPECT_EQ(gSetTraces, 4) << "the old value was 0";
    set_version(real_major, real_minor);
}

TEST_F(BackupTracing, On3Dot10ATraceFunctionWithoutObjectIsReinstalledWithoutOne)
{
    set_version(3, 10);
    gSetObject = api.Py_None;
    enter();
    EXPECT_EQ(gSetTraces, 1);
    EXPECT_EQ(gSetFunction, trace_function);
    EXPECT_EQ(gSetObject, nullptr);
}

TEST_F(BackupTracing, From3Dot11OnDoesNothing)
{
    for (int minor : {11, 12, 14}) {
        set_version(3, minor);
        enter();
        EXPECT_EQ(gThread.tracing, 0);
        leave();
        EXPECT_EQ(gThread.tracing, 0);
    }
    EXPECT_EQ(gSetTraces, 0);
}

TEST_F(Backups, EnteredTracingSilencesALiveTraceFunction)
{
    if (is_py3(11)) {
        GTEST_SKIP() << "the interpreter has the real functions; the fallbacks do nothing, as tested above";
    }
    static int gCalls;
    struct tTracer {
        static int trace(PyObject*, PyFrameObject*, int, PyObject*)
        {
            gCalls++;
            return 0;
        }
    };
    PyThreadState* tstate = api.PyThreadState_Get();
    XPyOwned function(eval_python("lambda: None"));
    XPyOwned marker(eval_python("['marker']"));
    api.PyEval_SetTrace(tTracer::trace, marker.borrow());
    Backup_PyThreadState_EnterTracing(tstate);
    gCalls = 0;
    XPyOwned silent(api.PyObject_CallNoArgs(function.borrow()));
    int calls_inside = gCalls;
    Backup_PyThreadState_LeaveTracing(tstate);
    XPyOwned traced(api.PyObject_CallNoArgs(function.borrow()));
    int calls_after = gCalls;
    api.PyEval_SetTrace(nullptr, nullptr);
    EXPECT_EQ(calls_inside, 0);
    EXPECT_GT(calls_after, 0);
}

// ---- Text and type data ----

TEST_F(Backups, UnicodeTextIsExtracted)
{
    XPyOwned text(eval_python("u'plain text'"));
    EXPECT_STREQ(Backup_PyUnicode_AsString(text.borrow()), "plain text");
    XPyOwned subtype(eval_python("type('CText', (type(u''),), {})(u'of a subtype')"));
    tCounted counted(subtype.borrow());
    EXPECT_STREQ(Backup_PyUnicode_AsString(subtype.borrow()), "of a subtype");
    EXPECT_EQ(counted.added(), 0);
}

TEST_F(Backups, TextOfAnotherTypeIsABadCallOfALineThatDoesNotChange)
{
    for (const char* expression : {"7", "b'bytes'", "None"}) {
        XPyOwned obj(eval_python(expression));
        EXPECT_EQ(Backup_PyUnicode_AsString(obj.borrow()), nullptr);
        EXPECT_EQ(take_error(), "SystemError: xpy_c_api:1875: bad argument to internal function") << expression;
    }
}

TEST_F(Backups, TextThatIsNoCStringFails)
{
    XPyOwned text(eval_python("u'a\\0b'"));
    EXPECT_EQ(Backup_PyUnicode_AsString(text.borrow()), nullptr);
    EXPECT_NE(take_error(), "");
}

TEST_F(Backups, TypeDataFollowsTheAlignedBase)
{
    struct tType {
        void* filler;
        Py_ssize_t tp_basicsize;
        tType* tp_base;
    };
    api.typeobject_offsets.tp_basicsize = offsetof(tType, tp_basicsize);
    api.typeobject_offsets.tp_base = offsetof(tType, tp_base);
    tType base = {nullptr, 24, nullptr};
    tType type = {nullptr, 777, &base};
    char record[64];
    auto data_offset = [&](Py_ssize_t basicsize, Py_ssize_t max_align) {
        base.tp_basicsize = basicsize;
        api.max_align = max_align;
        void* data =
            Backup_PyObject_GetTypeData(reinterpret_cast<PyObject*>(record), reinterpret_cast<PyTypeObject*>(&type));
        return static_cast<char*>(data) - record;
    };
    EXPECT_EQ(data_offset(24, 16), 32);
    EXPECT_EQ(data_offset(24, 8), 24);
    EXPECT_EQ(data_offset(32, 16), 32);
    EXPECT_EQ(data_offset(17, 8), 24);
}
