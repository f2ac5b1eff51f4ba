// The failure path of an event: the exception is reported to the host and goes no further.
//
// The reported exception stays the thread's handled one (Kept), so the interpreter makes it the context of whatever
// the next event raises: a chain without end, in which each exception keeps all earlier ones alive. That one link is
// the module's doing and is cut; a context that code of the host or the program gave an exception stays.
//
// The two are distinguished by the addresses of the exceptions that were left here; a reference would keep them
// alive. Another exception may have got such an address since, so its traceback is looked at too. An exception that
// code is handling has the frame of its handler there, which still runs, unless the program has changed the
// traceback. What was left here was raised in frames that have ended.

#include <string.h>

#include "optmonitoring_internal.h"

static constexpr int kMostContexts = 1000;  // read of one exception; the program can make a chain that is a ring

// ---- What was left as the handled exception ----

static constexpr int kMostLeft = 1024;        // one for each thread, generator and coroutine in which an event failed
static PyObject* left_exceptions[kMostLeft];  // addresses alone, the latest first; null: free
tSharedLock gLeftExceptionsLock;

static int find_left(PyObject* exception)  // kMostLeft: not there
{
    int at = 0;
    while (at < kMostLeft && left_exceptions[at] != exception)
        at++;
    return at;
}

static void remember_left(PyObject* exception)
{
    XPyLocked locked(&gLeftExceptionsLock);
    int at = find_left(exception);
    int moved = at < kMostLeft ? at : kMostLeft - 1;
    memmove(left_exceptions + 1, left_exceptions, static_cast<size_t>(moved) * sizeof *left_exceptions);
    left_exceptions[0] = exception;
}

static void forget_left(PyObject* exception)
{
    XPyLocked locked(&gLeftExceptionsLock);
    int at = find_left(exception);
    if (at == kMostLeft)
        return;
    int behind = kMostLeft - 1 - at;
    memmove(left_exceptions + at, left_exceptions + at + 1, static_cast<size_t>(behind) * sizeof *left_exceptions);
    left_exceptions[kMostLeft - 1] = nullptr;
}

// Where all places are taken, any may have been forgotten.
static bool is_perhaps_left(PyObject* exception)
{
    XPyLocked locked(&gLeftExceptionsLock);
    return find_left(exception) < kMostLeft || left_exceptions[kMostLeft - 1];
}

// ---- Contexts and tracebacks ----

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

// Cuts the link from EXCEPTION to HANDLED if an earlier event left HANDLED as the handled one.
static int cut_link_if_left(PyObject* exception, PyObject* handled)
{
    if (!handled || handled == exception || !is_perhaps_left(handled))
        return 0;
    int by_code = is_handled_by_code(handled);
    return by_code == 0 ? cut_link(exception, handled) : by_code < 0 ? -1 : 0;
}

// The reference count of EXCEPTION, asked of the interpreter where this build keeps none at one place (it is
// free-threaded). -1: unknown. No exception is pending, before or after.
static Py_ssize_t get_refcnt(PyObject* exception)
{
    Py_ssize_t count = XPy_GetRefCnt(exception);
    if (count != -1)
        return count;
    PyObject* borrowed = api.PySys_GetObject("getrefcount");
    XPyOwned getrefcount(borrowed ? XPy_NewRef(borrowed) : nullptr);
    // Its argument is borrowed here: it counts one less than a call in Python would.
    XPyOwned answer(getrefcount ? api.PyObject_CallFunctionObjArgs(getrefcount.borrow(), exception, nullptr)
                                : nullptr);
    count = answer ? api.PyLong_AsSsize_t(answer.borrow()) : -1;
    if (count == -1)
        api.PyErr_Clear();
    return count;
}

// Makes EXCEPTION the handled one, which it stays.
static void leave_as_handled(PyObject* exception)
{
    XPyOwned handled(api.PyErr_GetHandledException());
    if (cut_link_if_left(exception, handled.borrow()) < 0)
        api.PyErr_Clear();                     // out of memory: it stays linked, nothing else is lost
    api.PyErr_SetHandledException(exception);  // Kept: not put back afterwards
    // A count of 1 is ours alone: it dies now, and its address may become another exception's.
    if (handled && get_refcnt(handled.borrow()) == 1)
        forget_left(handled.borrow());
    remember_left(exception);
}

// ---- The report ----

static void call_log_exception(tModuleState* m, PyObject* exception)
{
    leave_as_handled(exception);
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
