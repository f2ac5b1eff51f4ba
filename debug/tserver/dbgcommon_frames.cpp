// Accessors of frames and tracebacks.

#include "dbgcommon_internal.h"

static PyFrameObject* as_frame(PyObject* obj)
{
    return reinterpret_cast<PyFrameObject*>(obj);
}

static PyObject* as_object(void* obj)
{
    return static_cast<PyObject*>(obj);
}

int is_frame_object(PyObject* obj)
{
    return XPy_IsInstance(obj, api.PyFrame_Type_ptr);
}

// ---- Links and facts ----

PyObject* get_frame_back(PyObject* frame)
{
    static tNameCache f_back = {"f_back", nullptr};
    if (is_frame_object(frame)) {
        PyObject* back = as_object(api.PyFrame_GetBack(as_frame(frame)));
        if (!back && api.PyErr_Occurred())
            log_and_clear("Exception in get_frame_back()\n");
        return back;
    }
    XPyOwned back(get_cached_attr(frame, &f_back));
    if (!back)
        log_and_clear("Exception in get_frame_back()\n");
    return back.borrow() == api.Py_None ? nullptr : back.detach();
}

int get_frame_lineno(PyObject* frame)
{
    return api.PyFrame_GetLineNumber(as_frame(frame));
}

PyObject* get_frame_code(PyObject* frame)
{
    return as_object(api.PyFrame_GetCode(as_frame(frame)));
}

PyObject* get_frame_generator(PyObject* frame)
{
    return api.PyFrame_GetGenerator(as_frame(frame));
}

PyObject* get_frame_builtins(PyObject* frame)
{
    return api.PyFrame_GetBuiltins(as_frame(frame));
}

PyObject* get_frame_globals(PyObject* frame)
{
    static tNameCache f_globals = {"f_globals", nullptr};
    if (is_frame_object(frame))
        return api.PyFrame_GetGlobals(as_frame(frame));
    PyObject* globals = get_cached_attr(frame, &f_globals);
    if (!globals)
        log_and_clear("Exception in get_frame_globals()\n");
    return globals;
}

PyObject* get_frame_locals(PyObject* frame)
{
    static tNameCache f_locals = {"f_locals", nullptr};
    PyObject* locals;
    if (is_frame_object(frame))
        locals = api.PyFrame_GetLocals(as_frame(frame));
    else
        locals = get_cached_attr(frame, &f_locals);
    if (!locals && api.PyErr_Occurred())
        log_and_clear("Exception in get_frame_locals()\n");
    return locals;
}

int get_frame_iblock(PyObject* frame)
{
    void* iblock = XPy_GetFieldAddress(frame, api.frame_offsets.iblock);
    return iblock ? *static_cast<int32_t*>(iblock) : -1;
}

// ---- The trace function ----

PyObject* borrow_frame_trace(PyObject* frame)
{
    static tNameCache f_trace = {"f_trace", nullptr};
    if (is_frame_object(frame) && api.frame_offsets.trace != -1)
        return *static_cast<PyObject**>(XPy_GetFieldAddress(frame, api.frame_offsets.trace));
    PyObject* trace = borrow_attrib(frame, &f_trace);
    return trace == api.Py_None ? nullptr : trace;
}

void set_frame_trace(PyObject* frame, PyObject* func)
{
    static tNameCache f_trace = {"f_trace", nullptr};
    void* field = XPy_GetFieldAddress(frame, api.frame_offsets.trace);
    if (field) {
        PyObject** trace = static_cast<PyObject**>(field);
        XPy_ClearField(trace);
        *trace = XPy_NewRef(func);
        return;
    }
    PyObject* name = borrow_cached_name(&f_trace);
    if (!name || api.PyObject_SetAttr(frame, name, func ? func : api.Py_None) < 0)
        log_and_clear("Exception raised when setting f_trace on frame");
}

int is_frame_trace_lines_supported(void)
{
    return api.major_version >= 3 && api.minor_version >= 7;
}

int set_frame_trace_lines(PyObject* frame, int flag)
{
    static tNameCache f_trace_lines = {"f_trace_lines", nullptr};
    if (!is_frame_trace_lines_supported())
        return 0;
    PyObject* name = borrow_cached_name(&f_trace_lines);
    int result = name ? api.PyObject_SetAttr(frame, name, flag ? api.Py_True : api.Py_False) : -1;
    if (result < 0)
        log_and_clear("Exception in set_frame_trace_lines()\n");
    return result;
}

// ---- The frame's code ----

PyObject* get_frame_filename(PyObject* frame)
{
    XPyOwned code(get_frame_code(frame));
    return code ? get_code_filename(code.borrow()) : nullptr;
}

PyObject* get_frame_code_name(PyObject* frame)
{
    static tNameCache co_name = {"co_name", nullptr};
    XPyOwned code(get_frame_code(frame));
    if (!code)
        return XPy_NewRef(api.Py_None);  // Kept: get_frame_filename answers null here
    PyObject* name = get_cached_attr(code.borrow(), &co_name);
    if (!name)
        log_and_clear("Exception in get_frame_code_name()\n");
    return name;
}

// ---- The stack ----

int is_outermost_frame(PyObject* frame)
{
    XPyOwned back(get_frame_back(frame));
    return !back;
}

int get_stack_depth(PyThreadState* tstate)
{
    int depth = 0;
    XPyOwned frame(get_thread_state_frame(tstate ? tstate : api.PyThreadState_Get()));
    while (frame) {
        depth++;
        frame.reset(get_frame_back(frame.borrow()));
    }
    return depth;
}

// ---- Suspended generators ----

static int has_stack_top(PyObject* frame)
{
    void* field = XPy_GetFieldAddress(frame, api.frame_offsets.stacktop);
    if (!field)
        return 0;
    void* stacktop = *static_cast<void**>(field);
    do_dprintf(kLogCore, "STACKTOP OF FRAME: %x\n", static_cast<int>(reinterpret_cast<intptr_t>(stacktop)));
    return stacktop != nullptr;
}

static int has_suspended_state(PyObject* frame)
{
    void* field = XPy_GetFieldAddress(frame, api.frame_offsets.state);
    if (!field)
        return 0;
    int state = *static_cast<int8_t*>(field);
    do_dprintf(kLogCore, "STATE OF FRAME: %i\n", state);
    return static_cast<uint8_t>(state + 1) <= 1;  // Kept: -1 and 0 count as suspended
}

static int has_suspended_generator(PyObject* frame)
{
    XPyOwned generator(get_frame_generator(frame));
    int suspended = 0;
    if (generator)
        suspended = get_generator_suspended(generator.borrow());
    else if (api.PyErr_Occurred())
        suspended = -1;
    if (suspended >= 0)
        return suspended;
    log_and_clear("Failure in get_frame_suspended_generator()\n");
    return 0;
}

int get_frame_suspended_generator(PyObject* frame)
{
    if (!is_frame_object(frame))
        return 0;
    if (api.major_version < 3 || api.minor_version <= 9)  // PYVERSIONS
        return has_stack_top(frame);
    if (api.minor_version == 10)
        return has_suspended_state(frame);
    return has_suspended_generator(frame);
}

// ---- Tracebacks ----

static tNameCache tb_frame = {"tb_frame", nullptr};

PyObject* get_traceback_frame(PyObject* tb)
{
    XPyOwned frame(get_cached_attr(tb, &tb_frame));
    if (!frame)
        log_and_clear("Exception in get_traceback_frame()\n");
    return is_frame_object(frame.borrow()) ? frame.detach() : nullptr;
}

PyObject* borrow_traceback_frame(PyObject* tb)
{
    return borrow_attrib(tb, &tb_frame);
}

PyObject* borrow_traceback_next(PyObject* tb)
{
    static tNameCache tb_next = {"tb_next", nullptr};
    return borrow_attrib(tb, &tb_next);
}
