// Messages formatted and written by the interpreter, and the texts of the repr buffers.

#include <string.h>

#include <thread>

#include "log_test_support.h"

namespace {

// A stand-in formatter or constructor that raises.
PyObject* raise_in_formatter(const char*, va_list)
{
    api.PyErr_SetString(api.PyExc_ValueError, "bad format");
    return nullptr;
}

PyObject* (*gRealConstructor)(const char*);
int gFailuresLeft;

// A text constructor whose first calls raise.
PyObject* fail_then_construct(const char* text)
{
    if (gFailuresLeft-- <= 0)
        return gRealConstructor(text);
    api.PyErr_SetString(api.PyExc_ValueError, "no text");
    return nullptr;
}

class DprintfFormat : public tHostedTest
{
  protected:
    void SetUp() override
    {
        tHostedTest::SetUp();
        fData = create_dp_data();
        run("own = Log()");
        set_dp_data_file_obj(fData, var("own"), -1, nullptr);
    }
    void TearDown() override
    {
        free_dp_data(fData);
        tHostedTest::TearDown();
    }

    tSingleDPData* channel() { return &fData->shared_single_dp_data; }
    static tSingleDPData* process_channel() { return &gUnsafeGlobalDPData.shared_single_dp_data; }
    static int tracing() { return get_thread_state_tracing(tstate()); }

    // The running generation's formatter and text constructor.
    static auto& formatter() { return api.major_version < 3 ? api.PyString_FromFormatV : api.PyUnicode_FromFormatV; }
    static auto& constructor() { return api.major_version < 3 ? api.PyString_FromString : api.PyUnicode_FromString; }

    // Opens the log on an object whose write hands its text to the native hook first.
    void open_calling_log()
    {
        run("class Calling(Log):\n"
            "    def write(self, text):\n"
            "        Log.write(self, text)\n"
            "        native(text)\n");
        open_log(kDefaultLogMask, "log", "Calling()");
    }

    tDPData* fData = nullptr;
};

// ---- do_dp ----

TEST_F(DprintfFormat, ChannelMessageGoesToTheProcessWideFileAndIsFlushed)
{
    open_log();
    do_dp(channel(), "%s has %d of %zd\n", "it", -3, static_cast<Py_ssize_t>(7));
    EXPECT_EQ(logged(), "it has -3 of 7\n");
    EXPECT_EQ(eval_int("log.flushes"), 1);
    EXPECT_EQ(logged("own"), "");
    EXPECT_EQ(eval_int("own.flushes"), 0);
}

TEST_F(DprintfFormat, MessageIsWrittenRawAndAsOneText)
{
    open_log();
    do_dp(channel(), "'quoted'\n");
    EXPECT_EQ(eval_text("log.parts"), "[\"'quoted'\\n\"]");
}

TEST_F(DprintfFormat, ObjectConversionsOfTheInterpreterWork)
{
    open_log();
    run("thing = [1, 'a']");
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2's formatter has no object conversions";
    do_dp(channel(), "%R %S %A\n", var("thing"), var("thing"), var("thing"));
    EXPECT_EQ(logged(), "[1, 'a'] [1, 'a'] [1, 'a']\n");
}

void forward_to_v(tSingleDPData* to, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    do_dp_v(to, format, args);
    va_end(args);
}

TEST_F(DprintfFormat, ArgumentListFormWritesTheSame)
{
    open_log();
    forward_to_v(channel(), "%s=%i\n", "x", 5);
    EXPECT_EQ(logged(), "x=5\n");
}

TEST_F(DprintfFormat, NullChannelWritesNothing)
{
    open_log();
    do_dp(nullptr, "lost\n");
    EXPECT_EQ(logged(), "");
}

TEST_F(DprintfFormat, ChannelOnlyGatesAndItsOwnOutputsGetNothing)
{
    tWire wire;
    set_dp_data_file_obj(fData, var("own"), wire.writer(), nullptr);
    do_dp(channel(), "lost\n");
    EXPECT_EQ(logged("own"), "");
    EXPECT_EQ(wire.take(), tTexts());
    open_log(0);  // a module channel does not ask the process-wide mask
    do_dp(channel(), "written\n");
    EXPECT_EQ(logged(), "written\n");
    EXPECT_EQ(wire.take(), tTexts());
}

TEST_F(DprintfFormat, BusyChannelWritesNothing)
{
    open_log();
    channel()->in_dprint_count = 1;
    do_dp(channel(), "lost\n");
    EXPECT_EQ(channel()->in_dprint_count, 1);
    EXPECT_EQ(logged(), "");
}

TEST_F(DprintfFormat, MacroEvaluatesItsArgumentsOnlyForAnOpenChannel)
{
    open_log();
    int evaluated = 0;
    DO_DP(fData->threading, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    DO_DP(fData->core, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(logged(), "1\n");
}

TEST_F(DprintfFormat, CountersAreRaisedWhileWritingAndRestored)
{
    open_calling_log();
    int before = tracing(), tracing_inside = -1, count_inside = -1, process_count_inside = -1;
    native_hook() = [&](PyObject*) {
        tracing_inside = tracing();
        count_inside = channel()->in_dprint_count;
        process_count_inside = process_channel()->in_dprint_count;
    };
    do_dp(channel(), "x\n");
    EXPECT_EQ(tracing_inside, before + 1);
    EXPECT_EQ(count_inside, 1);
    EXPECT_EQ(process_count_inside, 0);
    EXPECT_EQ(tracing(), before);
    EXPECT_EQ(channel()->in_dprint_count, 0);
    do_dprintf(kLogCore, "y\n");
    EXPECT_EQ(tracing_inside, before + 1);
    EXPECT_EQ(process_count_inside, 1);
    EXPECT_EQ(count_inside, 0);
    EXPECT_EQ(tracing(), before);
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
}

TEST_F(DprintfFormat, LogCallsAreNotTraced)
{
    open_log();
    run("events = []\n"
        "def tracer(frame, event, arg):\n"
        "    events.append((frame.f_code.co_name, event))\n"
        "def probe():\n    pass\n"
        "class Shown(object):\n    def __repr__(self): return 'shown'\n"
        "shown = Shown()\nprobe_it = compile('probe()', 'x', 'exec')\n"
        "sys.settrace(tracer)\n");
    do_dp(channel(), "a\n");
    do_dprintf(kLogCore, "b\n");
    do_dprintf_repr(kLogCore, "<", var("shown"), ">\n");
    get_dprintf_repr_str1(fData, var("shown"));
    raise_value_error("x");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: x");
    run("probe()\nsys.settrace(None)");
    EXPECT_EQ(eval_text("[e for e in events if e[0] in ('write', 'flush', '__repr__')]"), "[]");
    EXPECT_EQ(eval_text("('probe', 'call') in events"), "True");  // tracing itself went on
    EXPECT_EQ(logged(), "a\nb\n<shown>\nEXCEPTION IN DEBUG TRACER:\n");
}

TEST_F(DprintfFormat, NestedCallsOnTheSameChannelWriteNothing)
{
    open_calling_log();
    native_hook() = [&](PyObject*) {
        do_dp(channel(), "nested\n");
        EXPECT_STREQ(get_dprintf_repr_str1(fData, api.Py_None),
                     "fill_str_with_repr() failed: in_dprint_count is not 0");
    };
    do_dp(channel(), "outer\n");
    EXPECT_EQ(logged(), "outer\n");
    native_hook() = [&](PyObject*) {
        do_dprintf(kLogCore, "nested\n");
        do_dprintf_repr(kLogCore, "nested ", api.Py_None, "\n");
        do_dlogexception();
    };
    do_dprintf(kLogCore, "outer\n");
    EXPECT_EQ(logged(), "outer\n");
}

TEST_F(DprintfFormat, NestedCallFromFlushWritesNothing)
{
    run("class Flushing(Log):\n    def flush(self): native(None)");
    open_log(kDefaultLogMask, "log", "Flushing()");
    int flushes = 0;
    native_hook() = [&](PyObject*) {
        flushes++;
        do_dp(channel(), "nested\n");
    };
    do_dp(channel(), "outer\n");
    EXPECT_EQ(flushes, 1);
    EXPECT_EQ(logged(), "outer\n");
}

TEST_F(DprintfFormat, NestedCallFromAReprInTheFormatterWritesNothing)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2's formatter calls no repr";
    open_log();
    run("class Shown(object):\n    def __repr__(self):\n        native(None)\n        return 'shown'\nshown = "
        "Shown()");
    native_hook() = [&](PyObject*) { do_dp(channel(), "nested\n"); };
    do_dp(channel(), "%R\n", var("shown"));
    EXPECT_EQ(logged(), "shown\n");
}

TEST_F(DprintfFormat, NestedCallFromAReprForABufferWritesNothing)
{
    open_log();
    run("class Shown(object):\n    def __repr__(self):\n        native(None)\n        return 'shown'\nshown = "
        "Shown()");
    int tracing_inside = -1, count_inside = -1;
    native_hook() = [&](PyObject*) {
        tracing_inside = tracing();
        count_inside = channel()->in_dprint_count;
        do_dp(channel(), "nested\n");
        EXPECT_STREQ(get_dprintf_repr_str2(fData, api.Py_None),
                     "fill_str_with_repr() failed: in_dprint_count is not 0");
    };
    int before = tracing();
    do_dp(channel(), "%s\n", get_dprintf_repr_str1(fData, var("shown")));
    EXPECT_EQ(logged(), "shown\n");
    EXPECT_EQ(tracing_inside, before + 1);
    EXPECT_EQ(count_inside, 1);
    EXPECT_EQ(tracing(), before);
    EXPECT_EQ(channel()->in_dprint_count, 0);
}

TEST_F(DprintfFormat, NestedCallFromTheReprOfAProcessWideMessageWritesNothing)
{
    open_log();
    run("class Shown(object):\n    def __repr__(self):\n        native(None)\n        return 'shown'\nshown = "
        "Shown()");
    native_hook() = [&](PyObject*) {
        do_dprintf(kLogCore, "nested\n");
        do_dprintf_repr(kLogCore, "nested ", var("shown"), "\n");
    };
    do_dprintf_repr(kLogCore, "<", var("shown"), ">\n");
    EXPECT_EQ(logged(), "<shown>\n");
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
}

TEST_F(DprintfFormat, ReprThatRaisesFreesItsChannel)
{
    open_log();
    run("class Loud(object):\n    def __repr__(self): raise ValueError('no repr')\nloud = Loud()");
    get_dprintf_repr_str1(fData, var("loud"));
    do_dprintf_repr(kLogCore, "<", var("loud"), ">\n");
    EXPECT_EQ(channel()->in_dprint_count, 0);
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
}

TEST_F(DprintfFormat, CallOnAnotherChannelIsNotNested)
{
    open_calling_log();
    native_hook() = [&](PyObject*) { do_dprintf(kLogCore, "other\n"); };
    do_dp(channel(), "outer\n");
    EXPECT_EQ(logged(), "outer\nother\n");
}

TEST_F(DprintfFormat, PendingExceptionSurvivesUntouched)
{
    run("class Failing(Log):\n    def write(self, text): raise KeyError(text)");
    for (const char* file : {"Log()", "Failing()"}) {
        open_log(kDefaultLogMask, "log", file);
        run("class Loud(object):\n    def __repr__(self): raise TypeError('loud')\nloud = Loud()");
        raise_value_error("mine");
        do_dp(channel(), "a\n");
        do_dprintf(kLogCore, "b\n");
        do_dprintf_repr(kLogCore, "", api.Py_None, "c\n");
        do_dprintf_repr(kLogCore, "", var("loud"), "d\n");
        get_dprintf_repr_str1(fData, api.Py_None);
        get_dprintf_repr_str2(fData, var("loud"));
        EXPECT_EQ(take_exception(), "ValueError: mine");
    }
}

TEST_F(DprintfFormat, PendingExceptionKeepsItsThreeObjects)
{
    open_log();
    run("error = ValueError('mine')\ntry: raise KeyError\nexcept KeyError: tb = sys.exc_info()[2]");
    XPyOwned value(XPy_NewRef(var("error")));
    PyObject* traceback = XPy_NewRef(var("tb"));
    api.PyErr_Restore(XPy_NewRef(api.PyExc_ValueError), XPy_NewRef(value.borrow()), traceback);
    do_dp(channel(), "a\n");
    PyObject *kept_type, *kept_value, *kept_traceback;
    api.PyErr_Fetch(&kept_type, &kept_value, &kept_traceback);
    EXPECT_EQ(kept_type, api.PyExc_ValueError);
    EXPECT_EQ(kept_value, value.borrow());
    EXPECT_EQ(kept_traceback, traceback);
    XPy_ClearField(&kept_type);
    XPy_ClearField(&kept_value);
    XPy_ClearField(&kept_traceback);
}

// ---- Failing files ----

TEST_F(DprintfFormat, FailedWriteIsClearedAndTheFileFlushed)
{
    run("class Failing(Log):\n    def write(self, text): raise KeyError(text)");
    open_log(kDefaultLogMask, "log", "Failing()");
    do_dp(channel(), "a\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(eval_int("log.flushes"), 1);
    EXPECT_EQ(channel()->in_dprint_count, 0);
}

TEST_F(DprintfFormat, FailedFlushIsCleared)
{
    run("class Failing(Log):\n    def flush(self): raise KeyError('flush')");
    open_log(kDefaultLogMask, "log", "Failing()");
    do_dp(channel(), "a\n");
    do_dprintf(kLogCore, "b\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "a\nb\n");
}

TEST_F(DprintfFormat, ObjectThatIsNoFileIsHarmless)
{
    open_log(kDefaultLogMask, "log", "object()");
    do_dp(channel(), "a\n");
    do_dprintf(kLogCore, "b\n");
    EXPECT_EQ(take_exception(), "");
}

TEST_F(DprintfFormat, ResultOfFlushIsReleased)
{
    run("result = Plain()\nclass Answering(Log):\n    def flush(self): return result");
    open_log(kDefaultLogMask, "log", "Answering()");
    expect_balanced({var("result"), var("log")}, [&] {
        do_dp(channel(), "%s\n", "text");
        run("log.take()");
    });
}

TEST_F(DprintfFormat, FileReplacedWhileItWritesIsFlushedAndThenReleased)
{
    run("class Replaced(Log):\n"
        "    def write(self, text): native(None)\n"
        "    def flush(self): seen.append('flush')\n"
        "    def __del__(self): seen.append('del')\n"
        "seen = []\nsecond = Log()\n");
    native_hook() = [&](PyObject*) { set_dprintf_file(var("second"), -1, nullptr); };
    set_dprintf_file(XPyOwned(eval("Replaced()")).borrow(), -1, nullptr);
    do_dp(channel(), "first\n");
    EXPECT_EQ(eval_text("seen"), "['flush', 'del']");
    do_dp(channel(), "second\n");
    EXPECT_EQ(logged("second"), "second\n");
}

TEST_F(DprintfFormat, FileTakenAwayWhileItWritesIsReleased)
{
    run("class Removed(Log):\n"
        "    def write(self, text): native(None)\n"
        "    def __del__(self): seen.append('del')\n"
        "seen = []\n");
    native_hook() = [&](PyObject*) { set_dprintf_file(nullptr, -1, nullptr); };
    set_dprintf_file(XPyOwned(eval("Removed()")).borrow(), -1, nullptr);
    do_dprintf(kLogCore, "x\n");
    EXPECT_EQ(eval_text("seen"), "['del']");
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
}

// ---- Failing formatters ----

TEST_F(DprintfFormat, MissingFormatterIsNamed)
{
    open_log();
    tSwapped<PyObject* (*)(const char*, va_list)> none(formatter(), nullptr);
    do_dp(channel(), "x %d\n", 1);
    do_dprintf(kLogCore, "y\n");
    EXPECT_EQ(logged(),
              "DPRINTF error: PyUnicode_FromFormatV is NULL\nDPRINTF error: PyUnicode_FromFormatV is NULL\n");
}

TEST_F(DprintfFormat, MissingConstructorToo)
{
    open_log();
    {
        tSwapped<PyObject* (*)(const char*, va_list)> none(formatter(), nullptr);
        tSwapped<PyObject* (*)(const char*)> no_constructor(constructor(), nullptr);
        do_dp(channel(), "x\n");
    }
    EXPECT_EQ(logged(), "DPRINTF error: no way to make a string\n");
}

TEST_F(DprintfFormat, FormatterThatRaisesIsReportedAndReplaced)
{
    open_log();
    tSwapped<PyObject* (*)(const char*, va_list)> raising(formatter(), raise_in_formatter);
    do_dp(channel(), "x\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "ValueError: bad format\nDPRINTF error: exception while formatting string\n");
    do_dprintf(kLogCore, "y\n");  // the process-wide report is guarded by the call itself
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "DPRINTF error: exception while formatting string\n");
}

TEST_F(DprintfFormat, SecondRemarkWhenTheFirstCannotBeMade)
{
    open_log();
    {
        tSwapped<PyObject* (*)(const char*, va_list)> raising(formatter(), raise_in_formatter);
        gRealConstructor = constructor();
        gFailuresLeft = 1;
        tSwapped<PyObject* (*)(const char*)> failing(constructor(), fail_then_construct);
        do_dprintf(kLogCore, "x\n");
    }
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "DPRINTF error: unable to create output string\n");
}

TEST_F(DprintfFormat, NothingIsWrittenWhenNoRemarkCanBeMade)
{
    open_log();
    int before = tracing();
    {
        tSwapped<PyObject* (*)(const char*, va_list)> raising(formatter(), raise_in_formatter);
        gRealConstructor = constructor();
        gFailuresLeft = 2;
        tSwapped<PyObject* (*)(const char*)> failing(constructor(), fail_then_construct);
        raise_value_error("mine");
        do_dprintf(kLogCore, "x\n");
    }
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(eval_int("log.flushes"), 0);
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
    EXPECT_EQ(tracing(), before);
}

// ---- do_dprintf and do_dprintf_repr ----

TEST_F(DprintfFormat, ProcessWideMessageNeedsOneBitOfTheMask)
{
    open_log(kLogCore | kLogThreading);
    do_dprintf(kLogIO, "lost\n");
    do_dprintf(kLogIO | kLogThreading, "%s\n", "written");
    do_dprintf_repr(kLogIO, "lost", api.Py_None, "\n");
    EXPECT_EQ(logged(), "written\n");
}

TEST_F(DprintfFormat, ProcessWideMessageNeedsAFile)
{
    tWire wire;
    set_dprintf_file(nullptr, wire.writer(), nullptr);
    run("class Shown(object):\n    def __repr__(self):\n        native(None)\n        return 'shown'\nshown = "
        "Shown()");
    int reprs = 0;
    native_hook() = [&](PyObject*) { reprs++; };
    do_dprintf(kLogCore, "lost\n");
    do_dprintf_repr(kLogCore, "lost", var("shown"), "\n");
    EXPECT_EQ(reprs, 0);
    EXPECT_EQ(wire.take(), tTexts());
}

TEST_F(DprintfFormat, ProcessWideMessageInitialisesTheRecord)
{
    run("file = Log()");
    clear_dp_data(&gUnsafeGlobalDPData);
    gUnsafeGlobalDPData = tDPData();
    {
        tSwapped<PyObject*> file(gDPrintfFile, var("file"));
        do_dprintf(kLogCore, "x\n");
    }
    EXPECT_EQ(logged("file"), "x\n");
    EXPECT_EQ(gUnsafeGlobalDPData.initialized, 1);
}

TEST_F(DprintfFormat, BusyProcessWideChannelWritesNothing)
{
    open_log();
    process_channel()->in_dprint_count = 1;
    do_dprintf(kLogCore, "lost\n");
    do_dprintf_repr(kLogCore, "lost", api.Py_None, "\n");
    EXPECT_EQ(process_channel()->in_dprint_count, 1);
    EXPECT_EQ(logged(), "");
}

TEST_F(DprintfFormat, ReprIsWrittenBetweenPrefixAndSuffix)
{
    open_log();
    run("thing = ['a', 1]");
    do_dprintf_repr(kLogCore, "thing=", var("thing"), ";\n");
    do_dprintf_repr(kLogCore, "null=", nullptr, ";\n");
    EXPECT_EQ(logged(), "thing=['a', 1];\nnull=<NULL>;\n");
    expect_balanced({var("thing")}, [&] {
        do_dprintf_repr(kLogCore, "", var("thing"), "\n");
        run("log.take()");
    });
}

TEST_F(DprintfFormat, NonAsciiReprIsReplaced)
{
    run("class Shown(object):\n"
        "    def __repr__(self): return b'\\xc3\\xa9' if sys.version_info[0] < 3 else u'\\xe9'\n"
        "shown = Shown()");
    open_log();
    do_dprintf_repr(kLogCore, "<", var("shown"), ">\n");
    EXPECT_EQ(logged(), "<(non-ascii string)>\n");
}

TEST_F(DprintfFormat, ReprThatRaisesIsReported)
{
    open_log();
    run("exec_as('loud.py', 'class Loud(object):\\n  def __repr__(self):\\n    raise ValueError(\"no repr\")\\n')\n"
        "loud = Loud()");
    raise_value_error("mine");
    do_dprintf_repr(kLogCore, "<", var("loud"), ">\n");
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(logged(),
              "exception getting repr in DPRINTF_REPR\n"
              "Traceback (most recent call last):\n"
              "  File \"loud.py\", line 3, in __repr__\n"
              "ValueError: no repr\n");
    expect_balanced({var("loud")}, [&] {
        do_dprintf_repr(kLogCore, "<", var("loud"), ">\n");
        run("log.take()");
    });
}

TEST_F(DprintfFormat, ReprThatRaisesIsReportedWhileTheThreadIsUntracedOnce)
{
    open_log();
    run("class Loud(object):\n    def __repr__(self): raise ValueError('no repr')\nloud = Loud()");
    int before = tracing();
    ASSERT_LE(before, 1);
    add_to_thread_state_tracing(tstate(), 1 - before);
    do_dprintf_repr(kLogCore, "<", var("loud"), ">\n");
    add_to_thread_state_tracing(tstate(), before - 1);
    EXPECT_EQ(eval_text("log.parts[0]"), "exception getting repr in DPRINTF_REPR\n");
    EXPECT_EQ(eval_text("''.join(log.parts).endswith('ValueError: no repr\\n')"), "True");
    EXPECT_EQ(tracing(), before);
}

// ---- Threads ----

TEST_F(DprintfFormat, ThreadWithoutAStateWritesNothing)
{
    open_log();
    std::string first, second;
    std::thread other([&] {
        do_dp(channel(), "lost\n");
        do_dprintf(kLogCore, "lost\n");
        do_dprintf_repr(kLogCore, "lost", nullptr, "\n");
        first = get_dprintf_repr_str1(fData, api.Py_None);
        second = get_dprintf_repr_str2(fData, api.Py_None);
    });
    other.join();
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(channel()->in_dprint_count, 0);
    EXPECT_EQ(first, "fill_str_with_repr() failed: tstate is NULL");
    EXPECT_EQ(second, "fill_str_with_repr() failed: tstate is NULL");
}

// ---- Repr buffers ----

TEST_F(DprintfFormat, TwoReprsFitIntoOneMessage)
{
    open_log();
    run("a = ['a']\nb = ['b']");
    const char* first = get_dprintf_repr_str1(fData, var("a"));
    const char* second = get_dprintf_repr_str2(fData, var("b"));
    EXPECT_EQ(first, fData->_repr_str1);
    EXPECT_EQ(second, fData->_repr_str2);
    do_dp(channel(), "%s %s\n", first, second);
    EXPECT_EQ(logged(), "['a'] ['b']\n");
    expect_balanced({var("a")}, [&] { get_dprintf_repr_str1(fData, var("a")); });
}

TEST_F(DprintfFormat, ReprTextEndsAfter4000Characters)
{
    run("fits = 'x' * 3998\nlonger = 'x' * 3999\nhuge = 'x' * 100000");
    EXPECT_EQ(get_dprintf_repr_str1(fData, var("fits")), "'" + std::string(3998, 'x') + "'");
    EXPECT_EQ(get_dprintf_repr_str1(fData, var("longer")), "'" + std::string(3999, 'x'));
    EXPECT_EQ(get_dprintf_repr_str2(fData, var("huge")), "'" + std::string(3999, 'x'));
}

TEST_F(DprintfFormat, BusyChannelGivesNoRepr)
{
    channel()->in_dprint_count = 1;
    EXPECT_STREQ(get_dprintf_repr_str1(fData, api.Py_None), "fill_str_with_repr() failed: in_dprint_count is not 0");
    EXPECT_STREQ(get_dprintf_repr_str2(fData, api.Py_None), "fill_str_with_repr() failed: in_dprint_count is not 0");
}

TEST_F(DprintfFormat, ReprThatRaisesIsNamedInTheBuffer)
{
    run("class Loud(object):\n    def __repr__(self): raise ValueError('no repr')\nloud = Loud()");
    EXPECT_STREQ(get_dprintf_repr_str1(fData, var("loud")), "exception getting repr in fill_str_with_repr()");
    EXPECT_STREQ(get_dprintf_repr_str2(fData, var("loud")), "exception getting repr in fill_str_with_repr()");
    EXPECT_EQ(take_exception(), "");
}

TEST_F(DprintfFormat, ClearedRecordHasNoReprBuffers)
{
    clear_dp_data(fData);
    EXPECT_STREQ(get_dprintf_repr_str1(fData, api.Py_None), "get_dprintf_repr_str1() failure: _repr_str1 is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(fData, api.Py_None), "<error generating repr: no buffer available>");
}

TEST_F(DprintfFormat, ReprThatClearsTheRecordWritesIntoNoFreedBuffer)
{
    run("class Clearing(object):\n    def __repr__(self):\n        native(None)\n        return 'shown'\n"
        "clearing = Clearing()");
    native_hook() = [&](PyObject*) { clear_dp_data(fData); };
    EXPECT_STREQ(get_dprintf_repr_str1(fData, var("clearing")),
                 "get_dprintf_repr_str1() failure: _repr_str1 is NULL");
    init_dp_data(fData, 1);
    EXPECT_STREQ(get_dprintf_repr_str2(fData, var("clearing")), "<error generating repr: no buffer available>");
}

TEST_F(DprintfFormat, NonAsciiReprIsKeptWithoutALogFile)
{
    run("class Shown(object):\n"
        "    def __repr__(self): return b'\\xc3\\xa9' if sys.version_info[0] < 3 else u'\\xe9'\n"
        "shown = Shown()");
    EXPECT_STREQ(get_dprintf_repr_str1(fData, var("shown")), "\xc3\xa9");
    open_log();
    EXPECT_STREQ(get_dprintf_repr_str1(fData, var("shown")), "(non-ascii string)");
}

}  // namespace
