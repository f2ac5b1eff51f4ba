// Reports of the pending exception, and the one function through which the module reports a failure.

#include "dbgcommon.h"
#include "dprintf_internal.h"

static constexpr int kMaxNestedTracing = 2;  // a report is not made from within other logging

// Takes a normalised pending exception, holding it until it is put back.
struct tFetchedException {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
};

// The program must not be left with the log as its sys.stderr: where memory ran out, this is tried once more.
static void put_stderr_back(PyObject* program_stderr)
{
    for (int tries = 0; tries < 2 && api.PySys_SetObject("stderr", program_stderr) < 0; tries++)
        api.PyErr_Clear();
}

// The program's sys.stderr. [new]; null where there is none
static PyObject* get_stderr(void)
{
    if (!gIsLockOff)
        return XPy_NewRef(api.PySys_GetObject("stderr"));
    // what is borrowed from the module might be replaced by another thread before it is held
    XPyOwned sys(get_imported_module("sys"));
    PyObject* program_stderr = sys ? api.PyObject_GetAttrString(sys.borrow(), "stderr") : nullptr;
    if (!program_stderr)
        api.PyErr_Clear();
    return program_stderr;
}

// Displays the exception with sys.stderr sent to the channel's file; false when there is no sys.stderr to exchange.
static bool display_on_channel(tSingleDPData* channel, const tFetchedException& exception)
{
    XPyOwned program_stderr(get_stderr());
    if (!program_stderr || program_stderr.borrow() == api.Py_None)
        return false;
    // A channel without a Python file has nowhere to show it; None keeps the exception off the native stream, where
    // Python 2 then only notes that there is no sys.stderr.
    XPyOwned file(XPy_NewRefUnder(&gLogLock, &channel->file_obj));
    if (!file)
        file.reset(XPy_NewRef(api.Py_None));
    // Where it cannot display an exception, the interpreter writes about it to the native stream, which is the
    // program's.
    if (refuses_texts(file.borrow()))
        return true;
    if (api.PySys_SetObject("stderr", file.borrow()) < 0) {
        api.PyErr_Clear();  // displayed now, it would appear among the program's own output
        return true;
    }
    api.PyErr_Display(exception.type, exception.value, exception.traceback);
    api.PyErr_Clear();
    put_stderr_back(program_stderr.borrow());
    return true;
}

static void log_exception(tSingleDPData* channel)
{
    if (!channel || !api.PyErr_Occurred())
        return;
    PyThreadState* tstate = borrow_current_thread_state_or_null();
    if (!tstate || get_thread_state_tracing(tstate) >= kMaxNestedTracing || is_producing(channel))
        return;
    if (!begin_message(channel))
        return;
    increment_thread_state_tracing(tstate);
    tFetchedException exception;
    api.PyErr_Fetch(&exception.type, &exception.value, &exception.traceback);
    if (XPy_Load(&gDPrintfFile))
        do_dprintf(kLogCore, "EXCEPTION IN DEBUG TRACER:\n");
    api.PyErr_NormalizeException(&exception.type, &exception.value, &exception.traceback);
    bool displayed = display_on_channel(channel, exception);
    api.PyErr_Restore(exception.type, exception.value, exception.traceback);
    decrement_thread_state_tracing(tstate);
    if (displayed)
        end_message(channel);
    // Kept: without a sys.stderr the count stays at 1 and the channel is silent from then on.
}

void do_dlogexception(void)
{
    if (!XPy_Load(&gDPrintfFile))
        return;
    init_dp_data(&gUnsafeGlobalDPData, 0);
    log_exception(&gUnsafeGlobalDPData.shared_single_dp_data);
}

void do_dp_logexception(tSingleDPData* channel)
{
    log_exception(channel);
}

// ---- Failure reports ----

XPY_COLD void report_failure(tDPData* data, const char* text)
{
    tSingleDPData* channel = data ? XPy_Load(&data->internal_failures) : nullptr;
    if (!channel)
        return;
    do_dp(channel, "%s", text);
    do_dp_logexception(channel);
}

XPY_COLD PyObject* fail_null(tDPData* data, const char* text)
{
    report_failure(data, text);
    return nullptr;
}

XPY_COLD int fail_int(tDPData* data, const char* text)
{
    report_failure(data, text);
    return -1;
}

XPY_COLD void clear_failure(tDPData* data, const char* text)
{
    report_failure(data, text);
    api.PyErr_Clear();
}
