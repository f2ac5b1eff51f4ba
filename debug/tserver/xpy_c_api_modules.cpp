// Modules on every interpreter from one definition, and the frame-evaluation hook where it exists.

#include <stdio.h>
#include <stdlib.h>

#include "xpy_c_api_internal.h"

static constexpr size_t kModuleDefBytes = 2048;  // more than any interpreter's definition
static constexpr size_t kMaxSlotPairs = 5;       // four slots and the end mark

// Slot ids of the interpreter.
static constexpr int kSlotCreate = 1;
static constexpr int kSlotExec = 2;
static constexpr int kSlotMultipleInterpreters = 3;
static constexpr int kSlotGil = 4;

// PYVERSIONS: the first 3.x minor version with multi-phase loading, the multiple-interpreters and the GIL slot.
static constexpr int kFirstMinorMultiPhase = 5;
static constexpr int kFirstMinorMultipleInterpreters = 12;
static constexpr int kFirstMinorGilSlot = 13;

// From 3.15 on a free-threaded interpreter accepts only definitions that carry this mark in the flags of their
// header.
static constexpr int kFirstMinorDefinitionMark = 15;
static constexpr uint16_t kStaticallyAllocated = 4;

struct tModuleSlot {
    int slot;
    void* value;
};

// Stores VALUE in the definition's field; false, with the miss reported, when the layout has no such field.
template <typename T>
static bool set_def_field(void* def, const char* field, T value)
{
    static_assert(sizeof value == 8, "every field of the definition is 8 bytes wide");
    Py_ssize_t offset = FindFieldOffset(field, py3_mod_def_fields);
    if (offset == -1)
        return false;
    *static_cast<T*>(XPy_GetFieldAddress(def, offset)) = value;
    return true;
}

// Fills SLOTS; false when the definition is to have no slot array.
static bool fill_slots(const XPyModuleDef* def, tModuleSlot* slots)
{
    size_t count = 0;
    auto add = [&](int slot, void* value) { slots[count++] = {slot, value}; };
    if (def->m_create)
        add(kSlotCreate, reinterpret_cast<void*>(def->m_create));
    if (def->m_exec)
        add(kSlotExec, reinterpret_cast<void*>(def->m_exec));
    if (def->m_no_gil_support_flag != 0 && api.minor_version >= kFirstMinorGilSlot)
        add(kSlotGil, reinterpret_cast<void*>(static_cast<intptr_t>(def->m_no_gil_support_flag)));
    else if (count == 0)
        return false;
    if (api.minor_version >= kFirstMinorMultipleInterpreters)
        add(kSlotMultipleInterpreters, reinterpret_cast<void*>(static_cast<intptr_t>(def->m_multiple_interp_flag)));
    slots[count] = {0, nullptr};
    return true;
}

static void mark_definition(void* def)
{
    bool free_threaded = api.pyobject_offsets.mutex != -1;
    if (!free_threaded || api.minor_version < kFirstMinorDefinitionMark)
        return;
    Py_ssize_t offset = FindFieldOffsetMissingOk("ob_flags", free_t_pyobject_fields);
    if (api.pydebug_build)
        offset += kTraceRefsHeader;
    *static_cast<uint16_t*>(XPy_GetFieldAddress(def, offset)) = kStaticallyAllocated;
}

PyModuleDef* XPy_CreatePy3ModuleDef(const XPyModuleDef* def)
{
    // Both live as long as the process: the interpreter keeps pointers into them.
    void* py_def = calloc(1, kModuleDefBytes);
    tModuleSlot* slots = static_cast<tModuleSlot*>(calloc(kMaxSlotPairs, sizeof(tModuleSlot)));
    if (!py_def || !slots) {
        free(py_def);
        free(slots);
        return nullptr;
    }
    mark_definition(py_def);
    PyModuleDef* result = static_cast<PyModuleDef*>(py_def);
    if (!set_def_field(py_def, "m_name", def->m_name) || !set_def_field(py_def, "m_doc", def->m_doc) ||
        !set_def_field(py_def, "m_size", def->m_size) || !set_def_field(py_def, "m_methods", def->m_methods))
        return nullptr;  // NOLINT(clang-analyzer-unix.Malloc): a defect of the tables, and no import works then
    if (api.minor_version < kFirstMinorMultiPhase) {
        if (def->m_create)
            fputs("Setting multi-phase module loading functions not supported before 3.5", stderr);
        return result;
    }
    if (!set_def_field(py_def, "m_traverse", def->m_traverse) || !set_def_field(py_def, "m_clear", def->m_clear) ||
        !set_def_field(py_def, "m_free", def->m_free))
        return nullptr;
    if (!fill_slots(def, slots))
        return result;
    return set_def_field(py_def, "m_slots", slots) ? result : nullptr;
}

PyObject* XPy_InitModule(const char* name, PyMethodDef* methods)
{
    XPyModuleDef def = {};
    def.m_name = name;
    def.m_size = -1;
    def.m_methods = methods;
    if (!api.initialized && XPy_Initialize() != 0)
        return nullptr;
    if (api.major_version < 3)
        return api.Py_InitModule(name, methods, nullptr, nullptr, api.api_version);
    PyModuleDef* py_def = XPy_CreatePy3ModuleDef(&def);
    return py_def ? api.PyModule_Create2(py_def, api.api_version) : api.PyErr_NoMemory();
}

PyObject* XPyModuleDef_Init(const XPyModuleDef* def)
{
    if (!api.initialized && XPy_Initialize() != 0)
        return nullptr;
    PyModuleDef* py_def = XPy_CreatePy3ModuleDef(def);
    return py_def ? api.PyModuleDef_Init(py_def) : api.PyErr_NoMemory();
}

// ---- The frame-evaluation hook ----

static PyInterpreterState* borrow_current_interpreter(void)
{
    PyThreadState* tstate = api.PyThreadState_Get();
    if (!tstate)
        return nullptr;
    auto interp = XPy_FindThreadStateField<PyInterpreterState*>(tstate, api.tstate_offsets.interp);
    return interp ? *interp : nullptr;
}

// The field in the interpreter state, or null where this version has none (3.6 to 3.8 have it).
static XPy_EvalFrameFunc* find_eval_frame_field(void)
{
    PyInterpreterState* interp =
        api.interpreter_state_offsets.eval_frame == -1 ? nullptr : borrow_current_interpreter();
    if (!interp)
        return nullptr;
    return static_cast<XPy_EvalFrameFunc*>(XPy_GetFieldAddress(interp, api.interpreter_state_offsets.eval_frame));
}

XPy_EvalFrameFunc XPy_GetEvalFrameFunctionNoThreadState(void)
{
    XPy_EvalFrameFunc* field = find_eval_frame_field();
    return field ? *field : nullptr;
}

int XPy_SetEvalFrameFunctionNoThreadState(XPy_EvalFrameFunc func)
{
    XPy_EvalFrameFunc* field = find_eval_frame_field();
    if (!field)
        return -1;
    *field = func;
    return 0;
}

static bool is_with_thread_state_version(void)
{
    return api.major_version == 3 && (api.minor_version == 9 || api.minor_version == 10);
}

static bool is_interpreter_frame_version(void)
{
    return api.major_version == 3 && api.minor_version == 11;
}

static XPy_EvalFrameFunc get_through_entry(bool applies)
{
    if (!applies || !api._PyInterpreterState_GetEvalFrameFunc)
        return nullptr;
    PyInterpreterState* interp = borrow_current_interpreter();
    return interp ? api._PyInterpreterState_GetEvalFrameFunc(interp) : nullptr;
}

static int set_through_entry(bool applies, XPy_EvalFrameFunc func)
{
    if (!applies || !api._PyInterpreterState_SetEvalFrameFunc)
        return -1;
    PyInterpreterState* interp = borrow_current_interpreter();
    if (!interp)
        return -1;
    api._PyInterpreterState_SetEvalFrameFunc(interp, func);
    return 0;
}

static bool has_eval_frame_entries(void)
{
    return api._PyInterpreterState_GetEvalFrameFunc && api._PyInterpreterState_SetEvalFrameFunc;
}

XPy_EvalFrameFunc XPy_GetEvalFrameFunctionWithThreadState(void)
{
    return get_through_entry(is_with_thread_state_version());
}

int XPy_SetEvalFrameFunctionWithThreadState(XPy_EvalFrameFunc func)
{
    return set_through_entry(is_with_thread_state_version(), func);
}

XPy_EvalFrameFunc XPy_GetEvalFrameFunctionPyInterpreterFrame(void)
{
    return get_through_entry(is_interpreter_frame_version());
}

int XPy_SetEvalFrameFunctionPyInterpreterFrame(XPy_EvalFrameFunc func)
{
    return set_through_entry(is_interpreter_frame_version(), func);
}

bool XPy_SupportsEvalFunctionWithThreadState(void)
{
    return is_with_thread_state_version() && has_eval_frame_entries();
}

bool XPy_SupportsEvalFunctionPyInterpreterFrame(void)
{
    return is_interpreter_frame_version() && has_eval_frame_entries();
}
