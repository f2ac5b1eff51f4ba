// Accessors of thread states.

#include "dbgcommon_internal.h"

// ---- The current thread state ----

// Functions outside the binding table that tell, on any thread and without an exception or an abort, whether it has a
// thread state and holds the interpreter lock. Looked up once; the interpreter stays for the life of the process.
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

// A field of a thread state, or null where start-up found no layout: apart from the link to the next state, which is
// not read here, no field stands at offset 0.
template <typename T>
static T* find_field(PyThreadState* tstate, Py_ssize_t offset)
{
    return offset > 0 ? static_cast<T*>(XPy_GetFieldAddress(tstate, offset)) : nullptr;
}

PyObject* get_thread_state_frame(PyThreadState* tstate)
{
    return reinterpret_cast<PyObject*>(api.PyThreadState_GetFrame(tstate));
}

// The interpreter's own record of the running frame begins with the code object. PYVERSIONS: from 3.12 on; the low
// bits of that word are marks of the interpreter from 3.14 on. Where it were otherwise, the word would be no such
// address.
bool is_surely_running(PyThreadState* tstate, PyObject* code)
{
    static constexpr uintptr_t kMarks = 7;
    bool is_known = api.major_version == 3 && api.minor_version >= 12 && api.tstate_offsets.cframe > 0;
    void* frame = is_known ? XPy_GetFieldAddress(tstate, api.tstate_offsets.cframe) : nullptr;
    if (frame)
        frame = *static_cast<void**>(frame);
    if (frame && api.minor_version == 12)
        frame = *static_cast<void**>(XPy_GetFieldAddress(frame, api.cframe_offsets.current_frame));
    return frame && (*static_cast<uintptr_t*>(frame) & ~kMarks) == reinterpret_cast<uintptr_t>(code);
}

PyObject* borrow_thread_state_traceobj(PyThreadState* tstate)
{
    PyObject** traceobj = find_field<PyObject*>(tstate, api.tstate_offsets.c_traceobj);
    return traceobj ? *traceobj : nullptr;
}

PyInterpreterState* borrow_thread_state_interp(PyThreadState* tstate)
{
    return api.PyThreadState_GetInterpreter(tstate);
}

uint64_t get_thread_state_thread_id(PyThreadState* tstate)
{
    uint64_t* thread_id = find_field<uint64_t>(tstate, api.tstate_offsets.thread_id);
    return thread_id ? *thread_id : 0;
}

int get_thread_state_use_tracing(PyThreadState* tstate)
{
    int32_t* use_tracing = find_field<int32_t>(tstate, api.tstate_offsets.use_tracing);
    return use_tracing ? *use_tracing : 1;
}

void set_thread_state_use_tracing(PyThreadState* tstate, int value)
{
    if (int32_t* use_tracing = find_field<int32_t>(tstate, api.tstate_offsets.use_tracing))
        *use_tracing = value;
}

int get_thread_state_tracing(PyThreadState* tstate)
{
    int32_t* tracing = find_field<int32_t>(tstate, api.tstate_offsets.tracing);
    return tracing ? *tracing : 0;
}

int get_thread_state_what_event(PyThreadState* tstate)
{
    int32_t* what_event = find_field<int32_t>(tstate, api.tstate_offsets.what_event);
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
