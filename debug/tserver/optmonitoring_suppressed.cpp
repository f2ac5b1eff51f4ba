// The failure path of an event: what was raised is reported to the host and goes no further.
//
// The reported exception stays the thread's handled one (Kept), so the interpreter makes it the context of whatever
// the next event raises: a chain without end, in which each exception keeps all earlier ones alive. That one link is
// the module's doing and is cut; a context that code of the host or the program gave an exception stays.
//
// The two are told apart without remembering anything, which would keep exceptions alive as well: an exception that
// code handles has passed, on its way to the handler, through the frame of the handler, which still runs and is in
// its traceback. What was left here was raised in frames that have ended.

#include "optmonitoring_internal.h"

static constexpr int kMostContexts = 1000;  // read of one exception; more: a ring, which the program can tie

// An attribute of exceptions as their base class has it, so that no class of the program takes part. [new] or null.
static PyObject* get_base_attr(PyObject* exception, tNameCache* name)
{
    XPyOwned descriptor(get_cached_attr(api.PyExc_BaseException, name));
    return descriptor ? api.PyObject_CallMethod(descriptor.borrow(), "__get__", "O", exception) : nullptr;
}

static tNameCache context_name = {"__context__", nullptr};

static int cut_context(PyObject* exception)
{
    XPyOwned descriptor(get_cached_attr(api.PyExc_BaseException, &context_name));
    XPyOwned cut(descriptor ? api.PyObject_CallMethod(descriptor.borrow(), "__set__", "OO", exception, api.Py_None)
                            : nullptr);
    return cut ? 0 : -1;
}

// The frames of the exception's traceback as a set. [new] or null.
static PyObject* get_traceback_frames(PyObject* exception)
{
    static tNameCache traceback_name = {"__traceback__", nullptr};
    XPyOwned first(get_base_attr(exception, &traceback_name));
    XPyOwned frames(first ? api.PySet_New(nullptr) : nullptr);
    PyObject* entry = frames ? first.borrow() : nullptr;
    for (; entry && entry != api.Py_None; entry = borrow_traceback_next(entry)) {
        XPyOwned frame(get_traceback_frame(entry));
        if (!frame || api.PySet_Add(frames.borrow(), frame.borrow()) < 0)
            return nullptr;
    }
    return frames.detach();
}

// Whether a frame that runs on this thread has handled the exception: 1, 0, or -1 with an exception pending.
static int is_handled_by_code(PyObject* exception)
{
    XPyOwned frames(get_traceback_frames(exception));
    Py_ssize_t size = frames ? api.PySet_Size(frames.borrow()) : -1;
    if (size <= 0)
        return static_cast<int>(size);
    XPyOwned frame(get_thread_state_frame(api.PyThreadState_Get()));
    while (frame) {
        int is_there = api.PySet_Contains(frames.borrow(), frame.borrow());
        if (is_there != 0)
            return is_there;
        frame.reset(get_frame_back(frame.borrow()));
    }
    return 0;
}

// Cuts the link to LEFT in the contexts of EXCEPTION.
static int cut_link(PyObject* exception, PyObject* left)
{
    XPyOwned current(XPy_NewRef(exception));
    for (int i = 0; i < kMostContexts && current.borrow() != api.Py_None; i++) {
        XPyOwned context(get_base_attr(current.borrow(), &context_name));
        if (!context)
            return -1;
        if (context.borrow() == left)
            return cut_context(current.borrow());
        current.reset(context.detach());
    }
    return 0;
}

// Parts the exception from the one that an earlier event left as the handled one.
static int part_from_left(PyObject* exception)
{
    XPyOwned handled(api.PyErr_GetHandledException());
    if (!handled || handled.borrow() == exception)
        return 0;
    int by_code = is_handled_by_code(handled.borrow());
    return by_code == 0 ? cut_link(exception, handled.borrow()) : by_code < 0 ? -1 : 0;
}

// ---- The report ----

static void call_log_exception(tModuleState* m, PyObject* exception)
{
    if (part_from_left(exception) < 0)
        api.PyErr_Clear();                     // without memory it stays linked: nothing else is lost
    api.PyErr_SetHandledException(exception);  // Kept: not put back afterwards
    XPyOwned log_exception(XPy_NewRef(m->_LogException));
    XPyOwned result(do_two_arg_call(log_exception.borrow(), api.Py_None, api.Py_True));
    if (!result)
        clear_failure(m->dp, "LogException() failed and exception suppressed\n");
}

XPY_COLD void CallLogExceptionWithCurrentRaisedException(tModuleState* m)
{
    XPyOwned exception(api.PyErr_GetRaisedException());
    if (!m->_LogException)
        return;
    if (exception)
        call_log_exception(m, exception.borrow());
    else
        clear_failure(m->dp,
                      "CallLogExceptionWithCurrentRaisedException(): PyErr_GetRaisedException() returned NULL\n");
}
