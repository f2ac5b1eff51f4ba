// Fallbacks: what stands in the table where the interpreter lacks a function, each with that function's signature.
//
// A fallback does the job another way, or reports that the function is unavailable and returns its failure value.

#include <stdio.h>

#include "xpy_c_api_internal.h"

static constexpr const char* kSourceName = "xpy_c_api";
static constexpr int kLinenoNotUnicode = 1875;

// ---- Those that only report ----

enum tReportRule { kSilent, kRaises };

static void report_gone(const char* text, tReportRule rule)
{
    fputs(text, stderr);
    if (rule == kRaises)
        api.PyErr_SetString(api.PyExc_RuntimeError, text);
}

#define XPY_GONE(result, fallback, parameters, text, raises, value) \
    extern "C" result fallback parameters                           \
    {                                                               \
        report_gone(text, raises);                                  \
        return value;                                               \
    }
#include "xpy_c_api_gone.inc"

// ---- Numbers and calls ----

Py_ssize_t Backup_PyLong_AsSsize_t(PyObject* obj)
{
    return static_cast<Py_ssize_t>(api.PyLong_AsLongLong(obj));
}

PyObject* Backup_PyLong_FromSsize_t(Py_ssize_t value)
{
    return api.PyInt_FromLong(value);
}

PyObject* Backup_PyObject_CallNoArgs(PyObject* callable)
{
    return api.PyObject_CallObject(callable, nullptr);
}

PyObject* Backup_PyObject_CallOneArg(PyObject* callable, PyObject* arg)
{
    XPyOwned args(api.PyTuple_New(1));
    if (!args || api.PyTuple_SetItem(args.borrow(), 0, XPy_NewRef(arg)) < 0)
        return nullptr;
    return api.PyObject_CallObject(callable, args.borrow());
}

// ---- Dictionaries and iterators ----

// PyDict_GetItemWithError where it exists. Python 2 has only the look-up that swallows its errors.
static PyObject* borrow_dict_item(PyObject* dict, PyObject* key)
{
    return api.PyDict_GetItemWithError ? api.PyDict_GetItemWithError(dict, key) : api.PyDict_GetItem(dict, key);
}

int Backup_PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** result)
{
    PyObject* item = borrow_dict_item(dict, key);
    *result = XPy_NewRef(item);
    if (item)
        return 1;
    return api.PyErr_Occurred() ? -1 : 0;
}

int Backup_PyDict_Pop(PyObject* dict, PyObject* key, PyObject** result)
{
    if (result)
        *result = nullptr;
    PyObject* borrowed = borrow_dict_item(dict, key);
    if (!borrowed)
        return api.PyErr_Occurred() ? -1 : 0;
    XPyOwned item(XPy_NewRef(borrowed));
    if (api.PyDict_DelItem(dict, key) < 0)
        return -1;
    if (result)
        *result = item.detach();
    return 1;
}

int Backup_PyIter_NextItem(PyObject* iter, PyObject** item)
{
    *item = api.PyIter_Next(iter);
    if (*item)
        return 1;
    return api.PyErr_Occurred() ? -1 : 0;
}

// ---- Errors and finalization ----

void Backup_PyErr_FormatUnraisable(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    XPyOwned message(api.PyUnicode_FromFormatV(format, args));
    va_end(args);
    api.PyErr_WriteUnraisable(message.borrow());
}

int Backup__Py_IsFinalizing(void)
{
    return 0;
}

// ---- Frames ----

// The object pointer at OFFSET with a new reference; null when the offset is unknown or the field is null.
static PyObject* get_object_field(const void* record, Py_ssize_t offset)
{
    void* field = XPy_GetFieldAddress(record, offset);
    return field ? XPy_NewRef(*static_cast<PyObject**>(field)) : nullptr;
}

int Backup_PyFrame_GetLineNumber(PyFrameObject* frame)
{
    XPyOwned lineno(api.PyObject_GetAttrString(reinterpret_cast<PyObject*>(frame), "f_lineno"));
    Py_ssize_t value = -1;
    if (lineno)
        value = api.PyInt_AsSsize_t ? api.PyInt_AsSsize_t(lineno.borrow()) : api.PyLong_AsSsize_t(lineno.borrow());
    if (!lineno || (value == -1 && api.PyErr_Occurred()))
        api.PyErr_Clear();
    return static_cast<int>(value);
}

PyFrameObject* Backup_PyFrame_GetBack(PyFrameObject* frame)
{
    if (api.frame_offsets.back == -1) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "PyFrame_GetBack not available and frame_offsets.back not set");
        return nullptr;
    }
    return reinterpret_cast<PyFrameObject*>(get_object_field(frame, api.frame_offsets.back));
}

PyCodeObject* Backup_PyFrame_GetCode(PyFrameObject* frame)
{
    return reinterpret_cast<PyCodeObject*>(get_object_field(frame, api.frame_offsets.code));
}

PyObject* Backup_PyFrame_GetBuiltins(PyFrameObject* frame)
{
    return get_object_field(frame, api.frame_offsets.builtins);
}

PyObject* Backup_PyFrame_GetGlobals(PyFrameObject* frame)
{
    return get_object_field(frame, api.frame_offsets.globals);
}

PyObject* Backup_PyFrame_GetLocals(PyFrameObject* frame)
{
    return get_object_field(frame, api.frame_offsets.locals);
}

PyObject* Backup_PyFrame_GetGenerator(PyFrameObject*)
{
    return nullptr;
}

// ---- Thread states ----

PyFrameObject* Backup_PyThreadState_GetFrame(PyThreadState* tstate)
{
    PyObject** frame = XPy_FindThreadStateField<PyObject*>(tstate, api.tstate_offsets.frame);
    return reinterpret_cast<PyFrameObject*>(frame ? XPy_NewRef(*frame) : nullptr);
}

PyInterpreterState* Backup_PyThreadState_GetInterpreter(PyThreadState* tstate)
{
    auto interp = XPy_FindThreadStateField<PyInterpreterState*>(tstate, api.tstate_offsets.interp);
    if (interp)
        return *interp;
    fputs("Backup_PyThreadState_GetInterpreter called\n", stderr);
    return nullptr;
}

// 3.8 alone wants the runtime state in front of the thread state.
static void init_thread_state_3d8(PyThreadState* tstate)
{
    typedef void (*tInit3d8)(void*, PyThreadState*);
    void* runtime = XPy_LookupPythonFunction("_PyRuntime");
    if (runtime)
        reinterpret_cast<tInit3d8>(reinterpret_cast<void*>(api._PyThreadState_Init))(runtime, tstate);
}

void Backup_PyThreadState_SetCurrent(PyThreadState* tstate)
{
    if (api.major_version == 3 && api.minor_version == 8)
        init_thread_state_3d8(tstate);
    else if (api.major_version < 3 || api.minor_version <= 10)
        api._PyThreadState_Init(tstate);
}

// Installs the thread's trace function again, which makes 3.10 recompute its cached use-tracing flag.
static void reinstall_trace_function(PyThreadState* tstate)
{
    void* func = XPy_GetFieldAddress(tstate, api.tstate_offsets.c_tracefunc);
    Py_tracefunc c_tracefunc = *static_cast<Py_tracefunc*>(func);
    XPyOwned traceobj(get_object_field(tstate, api.tstate_offsets.c_traceobj));
    api.PyEval_SetTrace(c_tracefunc, traceobj.borrow());
}

static void change_tracing(PyThreadState* tstate, int change)
{
    if (api.major_version >= 3 && api.minor_version >= 11)
        return;  // the interpreter has the real function there
    int32_t* tracing = XPy_FindThreadStateField<int32_t>(tstate, api.tstate_offsets.tracing);
    if (!tracing)
        return;
    int32_t before = *tracing;
    *tracing = before + change;
    if (api.major_version == 3 && api.minor_version == 10 && (before == 0 || *tracing == 0))
        reinstall_trace_function(tstate);
}

void Backup_PyThreadState_EnterTracing(PyThreadState* tstate)
{
    change_tracing(tstate, 1);
}

void Backup_PyThreadState_LeaveTracing(PyThreadState* tstate)
{
    change_tracing(tstate, -1);
}

// ---- Text and type data ----

const char* Backup_PyUnicode_AsString(PyObject* str)
{
    if (!XPy_IsInstance(str, api.PyUnicode_Type_ptr)) {
        api._PyErr_BadInternalCall(kSourceName, kLinenoNotUnicode);
        return nullptr;
    }
    XPyOwned args(api.PyTuple_New(1));
    if (!args || api.PyTuple_SetItem(args.borrow(), 0, XPy_NewRef(str)) < 0)
        return nullptr;
    const char* text = nullptr;
    return api.PyArg_ParseTuple(args.borrow(), "s", &text) ? text : nullptr;
}

void* Backup_PyObject_GetTypeData(PyObject* obj, PyTypeObject* type)
{
    const XPy_TypeObjectOffsets& offsets = api.typeobject_offsets;
    PyTypeObject* base = *static_cast<PyTypeObject**>(XPy_GetFieldAddress(type, offsets.tp_base));
    Py_ssize_t size = *static_cast<Py_ssize_t*>(XPy_GetFieldAddress(base, offsets.tp_basicsize));
    Py_ssize_t aligned = (size + api.max_align - 1) / api.max_align * api.max_align;
    return reinterpret_cast<char*>(obj) + aligned;
}
