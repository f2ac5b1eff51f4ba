// Accessors of thread states.

#include "dbgcommon_internal.h"

// ---- The current thread state ----

// Functions outside the binding table that say of the calling thread, without an exception or an abort, whether it
// has a thread state and holds the interpreter lock. Looked up once; the interpreter stays for the life of the
// process.
struct tThreadStateProbe {
    bool looked_up;
    PyThreadState* (*this_thread_state)(void);  // PyGILState_GetThisThreadState
    int (*gil_check)(void);                     // PyGILState_Check, not in Python 2
    PyThreadState** current;                    // _PyThreadState_Current, Python 2
};

static tThreadStateProbe probe;

XPY_COLD static void look_up_probe(void)
{
    void* get = XPy_LookupPythonFunction("PyGILState_GetThisThreadState");
    void* check = XPy_LookupPythonFunction("PyGILState_Check");
    probe.this_thread_state = reinterpret_cast<PyThreadState* (*)(void)>(get);
    probe.gil_check = reinterpret_cast<int (*)(void)>(check);
    probe.current =
        check ? nullptr : static_cast<PyThreadState**>(XPy_LookupPythonFunction("_PyThreadState_Current"));
    probe.looked_up = true;
}

PyThreadState* borrow_current_thread_state_or_null(void)
{
    if (!api.initialized)
        return nullptr;
    if (!probe.looked_up)
        look_up_probe();
    PyThreadState* own = probe.this_thread_state ? probe.this_thread_state() : nullptr;
    if (!own)
        return nullptr;
    if (probe.gil_check)
        return probe.gil_check() ? api.PyThreadState_Get() : nullptr;
    return probe.current && *probe.current != own ? nullptr : own;
}

// ---- Fields ----

PyObject* get_thread_state_frame(PyThreadState* tstate)
{
    return reinterpret_cast<PyObject*>(api.PyThreadState_GetFrame(tstate));
}

PyObject* borrow_thread_state_traceobj(PyThreadState* tstate)
{
    PyObject** traceobj = XPy_FindThreadStateField<PyObject*>(tstate, api.tstate_offsets.c_traceobj);
    return traceobj ? *traceobj : nullptr;
}

PyInterpreterState* borrow_thread_state_interp(PyThreadState* tstate)
{
    return api.PyThreadState_GetInterpreter(tstate);
}

uint64_t get_thread_state_thread_id(PyThreadState* tstate)
{
    uint64_t* thread_id = XPy_FindThreadStateField<uint64_t>(tstate, api.tstate_offsets.thread_id);
    return thread_id ? *thread_id : 0;
}

int get_thread_state_use_tracing(PyThreadState* tstate)
{
    int32_t* use_tracing = XPy_FindThreadStateField<int32_t>(tstate, api.tstate_offsets.use_tracing);
    return use_tracing ? *use_tracing : 1;
}

void set_thread_state_use_tracing(PyThreadState* tstate, int value)
{
    if (int32_t* use_tracing = XPy_FindThreadStateField<int32_t>(tstate, api.tstate_offsets.use_tracing))
        *use_tracing = value;
}

int get_thread_state_tracing(PyThreadState* tstate)
{
    int32_t* tracing = XPy_FindThreadStateField<int32_t>(tstate, api.tstate_offsets.tracing);
    return tracing ? *tracing : 0;
}

int get_thread_state_what_event(PyThreadState* tstate)
{
    int32_t* what_event = XPy_FindThreadStateField<int32_t>(tstate, api.tstate_offsets.what_event);
    return what_event ? *what_event : -1;
}

// ---- The tracing counter and the trace function ----

void increment_thread_state_tracing(PyThreadState* tstate)
{
    api.PyThreadState_EnterTracing(tstate);
}

void decrement_thread_state_tracing(PyThreadState* tstate)
{
    api.PyThreadState_LeaveTracing(tstate);
}

void add_to_thread_state_tracing(PyThreadState* tstate, Py_ssize_t n)
{
    for (; n > 0; n--)
        increment_thread_state_tracing(tstate);
    for (; n < 0; n++)
        decrement_thread_state_tracing(tstate);
}

int set_thread_state_trace_cfunc(PyThreadState* tstate, Py_tracefunc func, PyObject* obj)
{
    if (tstate == api.PyThreadState_Get()) {
        api.PyEval_SetTrace(func, obj);
        return 0;
    }
    if (api.major_version != 3 || api.minor_version < 10 || api.minor_version > 12)  // PYVERSIONS
        return -1;
    int result = api._PyEval_SetTrace(tstate, func, obj);
    if (result != 0 && api.PyErr_Occurred())
        log_and_clear("_PyEval_SetTrace raised exception\n");
    return result;
}
