// Reports of the pending exception, and the failure reports of the module's functions.

#include <thread>

#include "log_test_support.h"

namespace {

const char kHead[] = "EXCEPTION IN DEBUG TRACER:\n";

// Collects what is written to the native standard error.
class tNativeStderr
{
  public:
    tNativeStderr() : fSaved(dup(STDERR_FILENO)) { dup2(fWire.writer(), STDERR_FILENO); }
    ~tNativeStderr() { restore(); }
    tTexts restore()
    {
        if (fSaved != -1) {
            dup2(fSaved, STDERR_FILENO);
            close(fSaved);
            fSaved = -1;
        }
        return fWire.take();
    }

  private:
    tWire fWire;
    int fSaved;
};

// What an interpreter writes there when it shall display an exception on None.
tTexts note_of_none()
{
    return api.major_version < 3 ? tTexts({"lost sys.stderr\n"}) : tTexts();
}

class DprintfExceptions : public tHostedTest
{
  protected:
    void SetUp() override
    {
        tHostedTest::SetUp();
        fData = create_dp_data();
        run("own = Log()\nprogram_stderr = sys.stderr");
        set_dp_data_file_obj(fData, var("own"), -1, nullptr);
    }
    void TearDown() override
    {
        run("sys.stderr = program_stderr");
        free_dp_data(fData);
        tHostedTest::TearDown();
    }

    tSingleDPData* channel() { return &fData->shared_single_dp_data; }
    static tSingleDPData* process_channel() { return &gUnsafeGlobalDPData.shared_single_dp_data; }
    static int tracing() { return get_thread_state_tracing(tstate()); }

    tDPData* fData = nullptr;
};

// ---- On a module channel ----

TEST_F(DprintfExceptions, ChannelReportHasItsHeadInTheLogAndTheExceptionInTheChannelsFile)
{
    open_log();
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), kHead);
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
}

TEST_F(DprintfExceptions, TracebackIsShown)
{
    open_log();
    set_dp_data_file_obj(fData, var("log"), -1, nullptr);
    run("exec_as('boom.py', 'def inner():\\n  raise KeyError(3)\\ndef outer():\\n\\n  inner()\\n')\n");
    XPyOwned function(eval("outer"));
    XPyOwned result(api.PyObject_CallNoArgs(function.borrow()));
    ASSERT_FALSE(result);
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "KeyError: 3");
    EXPECT_EQ(logged(), std::string(kHead) +
                            "Traceback (most recent call last):\n"
                            "  File \"boom.py\", line 5, in outer\n"
                            "  File \"boom.py\", line 2, in inner\n"
                            "KeyError: 3\n");
}

TEST_F(DprintfExceptions, HeadNeedsTheCoreDomainOfTheProcessWideMask)
{
    open_log(kLogInternalFailures);
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
}

TEST_F(DprintfExceptions, ChannelReportNeedsNoProcessWideFile)
{
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
}

TEST_F(DprintfExceptions, ProgramsStderrIsPutBack)
{
    run("mine = Log()\nsys.stderr = mine");
    Py_ssize_t before = count_of(var("mine"));
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(api.PySys_GetObject("stderr"), var("mine"));
    EXPECT_EQ(count_of(var("mine")), before);
    EXPECT_EQ(logged("mine"), "");
}

TEST_F(DprintfExceptions, DisplayRunsWithTheChannelGuardedAndTracingRaised)
{
    run("class Watching(Log):\n    def write(self, text):\n        native(None)\nwatching = Watching()");
    set_dp_data_file_obj(fData, var("watching"), -1, nullptr);
    int before = tracing(), count_inside = -1, tracing_inside = -1, writes = 0;
    native_hook() = [&](PyObject*) {
        writes++;
        count_inside = channel()->in_dprint_count;
        tracing_inside = tracing();
        EXPECT_EQ(api.PySys_GetObject("stderr"), var("watching"));
    };
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_GE(writes, 1);
    EXPECT_EQ(count_inside, 1);
    EXPECT_EQ(tracing_inside, before + 1);
    EXPECT_EQ(channel()->in_dprint_count, 0);
    EXPECT_EQ(tracing(), before);
}

TEST_F(DprintfExceptions, ReportedExceptionIsPendingAndNormalised)
{
    raise_value_error("broken");
    do_dp_logexception(channel());
    PyObject *type, *value, *traceback;
    api.PyErr_Fetch(&type, &value, &traceback);
    EXPECT_EQ(type, api.PyExc_ValueError);
    EXPECT_TRUE(XPy_IsInstance(value, reinterpret_cast<PyTypeObject*>(api.PyExc_ValueError)));
    XPy_ClearField(&type);
    XPy_ClearField(&value);
    XPy_ClearField(&traceback);
}

TEST_F(DprintfExceptions, FileThatRaisesDuringTheDisplayIsHarmless)
{
    run("class Failing(Log):\n    def write(self, text): raise KeyError(text)\nfailing = Failing()");
    set_dp_data_file_obj(fData, var("failing"), -1, nullptr);
    raise_value_error("broken");
    tNativeStderr native;
    do_dp_logexception(channel());
    native.restore();  // newer interpreters name the object there
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(channel()->in_dprint_count, 0);
    EXPECT_EQ(api.PySys_GetObject("stderr"), var("program_stderr"));
}

TEST_F(DprintfExceptions, ChannelWithoutAPythonFileShowsTheExceptionNowhere)
{
    tWire wire;
    for (PyObject* file : {static_cast<PyObject*>(nullptr), api.Py_None}) {
        set_dp_data_file_obj(fData, file, wire.writer(), nullptr);
        raise_value_error("broken");
        tNativeStderr native;
        do_dp_logexception(channel());
        EXPECT_EQ(native.restore(), note_of_none());
        EXPECT_EQ(take_exception(), "ValueError: broken");
        EXPECT_EQ(wire.take(), tTexts());
        EXPECT_EQ(channel()->in_dprint_count, 0);
        EXPECT_EQ(api.PySys_GetObject("stderr"), var("program_stderr"));
    }
}

TEST_F(DprintfExceptions, NothingLeaks)
{
    open_log();
    run("error = ValueError('broken')");
    PyObject* type = api.PyExc_ValueError;
    expect_balanced({var("error"), var("own"), type}, [&] {
        api.PyErr_SetObject(api.PyExc_ValueError, var("error"));
        do_dp_logexception(channel());
        do_dlogexception();
        api.PyErr_Clear();
        run("own.take()\nlog.take()\nif hasattr(error, '__traceback__'): error.__traceback__ = None");
    });
}

// ---- When nothing is reported ----

TEST_F(DprintfExceptions, NullChannelReportsNothing)
{
    open_log();
    raise_value_error("broken");
    do_dp_logexception(nullptr);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), "");
}

TEST_F(DprintfExceptions, WithoutAPendingExceptionNothingIsReported)
{
    open_log();
    do_dp_logexception(channel());
    do_dlogexception();
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "");
}

TEST_F(DprintfExceptions, BusyChannelReportsNothing)
{
    open_log();
    channel()->in_dprint_count = 1;
    process_channel()->in_dprint_count = 1;
    raise_value_error("broken");
    do_dp_logexception(channel());
    do_dlogexception();
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(channel()->in_dprint_count, 1);
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "");
}

TEST_F(DprintfExceptions, TracingOfTwoOrMoreReportsNothing)
{
    open_log();
    int before = tracing();
    ASSERT_LE(before, 1);
    raise_value_error("broken");
    add_to_thread_state_tracing(tstate(), 2 - before);
    do_dp_logexception(channel());
    do_dlogexception();
    add_to_thread_state_tracing(tstate(), before - 2);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged("own") + logged(), "");
    raise_value_error("broken");
    add_to_thread_state_tracing(tstate(), 1 - before);
    do_dp_logexception(channel());
    add_to_thread_state_tracing(tstate(), before - 1);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
}

// Stands in for an interpreter that has an exception while this thread has no state.
PyObject* some_exception(void)
{
    return api.PyExc_ValueError;
}

TEST_F(DprintfExceptions, ThreadWithoutAStateReportsNothing)
{
    open_log();
    {
        tSwapped<decltype(api.PyErr_Occurred)> pending(api.PyErr_Occurred, some_exception);
        std::thread other([&] {
            do_dp_logexception(channel());
            do_dlogexception();
        });
        other.join();
    }
    EXPECT_EQ(channel()->in_dprint_count, 0);
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "");
}

// ---- Through the process-wide state ----

TEST_F(DprintfExceptions, ProcessWideReportIsTheExceptionWithoutItsHead)
{
    open_log();
    raise_value_error("broken");
    do_dlogexception();
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), "ValueError: broken\n");
    EXPECT_EQ(process_channel()->in_dprint_count, 0);
}

TEST_F(DprintfExceptions, ProcessWideReportNeedsAFileButNoMaskBit)
{
    open_log(0);
    raise_value_error("broken");
    do_dlogexception();
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), "ValueError: broken\n");
    set_dp_data_file_obj(&gUnsafeGlobalDPData, var("own"), -1, nullptr);
    {
        tSwapped<PyObject*> none(gDPrintfFile, nullptr);
        raise_value_error("broken");
        do_dlogexception();
    }
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged("own"), "");
}

TEST_F(DprintfExceptions, ProcessWideReportInitialisesTheRecord)
{
    clear_dp_data(&gUnsafeGlobalDPData);
    gUnsafeGlobalDPData = tDPData();
    raise_value_error("broken");
    {
        tSwapped<PyObject*> file(gDPrintfFile, var("own"));
        tNativeStderr native;
        do_dlogexception();
        EXPECT_EQ(native.restore(), note_of_none());  // the fresh record has no file of its own
    }
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(gUnsafeGlobalDPData.initialized, 1);
    EXPECT_EQ(logged("own"), "");
}

// ---- Without a sys.stderr ----

TEST_F(DprintfExceptions, KeepsAChannelSilentAfterAReportWithStderrNone)
{
    open_log();
    int before = tracing();
    run("sys.stderr = None");
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(tracing(), before);
    EXPECT_EQ(channel()->in_dprint_count, 1);
    EXPECT_EQ(logged(), kHead);  // written before the display
    EXPECT_EQ(logged("own"), "");
    EXPECT_EQ(api.PySys_GetObject("stderr"), api.Py_None);
    run("sys.stderr = program_stderr");
    do_dp(channel(), "lost\n");
    raise_value_error("again");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: again");
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "");
}

TEST_F(DprintfExceptions, KeepsAChannelSilentAfterAReportWithoutStderr)
{
    open_log();
    int before = tracing();
    run("del sys.stderr");
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(tracing(), before);
    EXPECT_EQ(channel()->in_dprint_count, 1);
    EXPECT_EQ(api.PySys_GetObject("stderr"), nullptr);
    EXPECT_EQ(logged("own"), "");
}

TEST_F(DprintfExceptions, KeepsTheProcessWideChannelSilentToo)
{
    open_log();
    run("sys.stderr = None");
    raise_value_error("broken");
    do_dlogexception();
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(process_channel()->in_dprint_count, 1);
    run("sys.stderr = program_stderr");
    do_dprintf(kLogCore, "lost\n");
    EXPECT_EQ(logged(), "");
}

// ---- Files that refuse a text ----

TEST_F(DprintfExceptions, OneRefusedTextDoesNotLoseTheReportThatFollows)
{
    run("class Interrupted(Log):\n"
        "    calls = 0\n"
        "    def write(self, text):\n"
        "        self.calls += 1\n"
        "        if self.calls == 1: raise KeyboardInterrupt\n"
        "        Log.write(self, text)\n");
    open_log(kLogInternalFailures, "log", "Interrupted()");
    set_dp_data_file_obj(fData, var("log"), -1, nullptr);
    raise_value_error("broken");
    report_failure(fData, "in f()\n");
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), "ValueError: broken\n");
}

TEST_F(DprintfExceptions, FileThatRefusesEverythingIsNotReportedToTheNativeStream)
{
    run("class Failing(Log):\n    def write(self, text): raise KeyError(text)");
    open_log(kLogInternalFailures, "log", "Failing()");
    set_dp_data_file_obj(fData, var("log"), -1, nullptr);
    tNativeStderr native;
    for (int i = 0; i < 3; i++) {
        raise_value_error("broken");
        report_failure(fData, "in f()\n");
        EXPECT_EQ(take_exception(), "ValueError: broken");
    }
    EXPECT_EQ(native.restore(), tTexts());
}

TEST_F(DprintfExceptions, FileInstalledByAWriteThatRaisesIsNotTakenForTheOneThatRefused)
{
    run("class Replacing(Log):\n    def write(self, text):\n        native(text)\n        raise KeyError(text)\n"
        "second = Log()");
    open_log(kLogInternalFailures, "log", "Replacing()");
    native_hook() = [&](PyObject*) { set_dprintf_file(var("second"), -1, nullptr); };
    do_dp(channel(), "first\n");
    EXPECT_FALSE(gDPrintfFileRefuses);
    set_dp_data_file_obj(fData, var("second"), -1, nullptr);
    raise_value_error("broken");
    do_dp_logexception(channel());
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged("second"), "ValueError: broken\n");
}

// ---- Failure reports ----

TEST_F(DprintfExceptions, FailureReportsWriteTextAndExceptionAndLeaveItPending)
{
    open_log();
    raise_value_error("broken");
    EXPECT_EQ(fail_null(fData, "in f() 100%s\n"), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), std::string("in f() 100%s\n") + kHead);
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
    raise_value_error("broken");
    EXPECT_EQ(fail_int(fData, "in g()\n"), -1);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    EXPECT_EQ(logged(), std::string("in g()\n") + kHead);
}

TEST_F(DprintfExceptions, ClearFailureReportsAndClears)
{
    open_log();
    raise_value_error("broken");
    clear_failure(fData, "in h()\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), std::string("in h()\n") + kHead);
    EXPECT_EQ(logged("own"), "ValueError: broken\n");
}

TEST_F(DprintfExceptions, FailureReportsNeedTheFailuresDomain)
{
    open_log();
    set_dp_data_mask(fData, kLogCore);
    raise_value_error("broken");
    report_failure(fData, "lost\n");
    EXPECT_EQ(fail_int(fData, "lost\n"), -1);
    EXPECT_EQ(fail_null(nullptr, "lost\n"), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: broken");
    raise_value_error("broken");
    clear_failure(nullptr, "lost\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(logged("own"), "");
}

}  // namespace
