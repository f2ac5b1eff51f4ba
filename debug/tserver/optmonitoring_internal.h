// Shared by the files of the monitoring unit alone: words of the interpreter's tables, and failure report helpers.

#ifndef OPTMONITORING_OPTMONITORING_INTERNAL_H
#define OPTMONITORING_OPTMONITORING_INTERNAL_H

#include "dbgcommon.h"
#include "optmonitoring.h"

static constexpr const char* kSourceName = "optmonitoring";  // named in bad-internal-call errors

// Method flags.
static constexpr int kMethVarargs = 0x1;
static constexpr int kMethVarargsKeywords = 0x3;
static constexpr int kMethFast = 0x82;       // fast call with keywords
static constexpr int kMethInstance = 0x282;  // and with the defining class
static constexpr int kMethClass = 0x292;     // and called on the class

// Member types and flags.
static constexpr int kMemberInt = 1;
static constexpr int kMemberBool = 14;
static constexpr int kMemberObject = 16;  // AttributeError when unset
static constexpr int kMemberSsize = 19;
static constexpr int kMemberReadOnly = 1;

// Type slots and flags.
static constexpr int kSlotTpClear = 51;
static constexpr int kSlotTpInit = 60;
static constexpr int kSlotTpMethods = 64;
static constexpr int kSlotTpMembers = 72;
static constexpr int kSlotTpFinalize = 80;
static constexpr unsigned int kTypeBaseType = 1u << 10;

static constexpr int kPyNe = 3;  // operator code of inequality

// The descriptor list of a function without arguments.
static constexpr tFastArgInfo kNoArguments[] = {{nullptr, 0, nullptr, nullptr}};

// Class attribute with the host's hook for new code-object records.
static constexpr const char* kNewPerCodeObjectCreatedCallback = "_fNewPerCodeObjectCreatedCallback";

// A fast method of an instance or a class.
typedef PyObject* (*tDefiningClassMethod)(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                          PyObject* kwnames);

// A method's function for its table; a macro, so that the tables are constants and need no start-up code.
#define AS_METHOD(function) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(function))

static inline tDPData* dp_of(tModuleState* m)
{
    return m ? m->dp : nullptr;
}

// None as the result of a method. [new]
static inline PyObject* new_none(void)
{
    return XPy_NewRef(api.Py_None);
}

// The body of one of our own instances behind its known class.
static inline CPerThreadBody* per_thread_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerThreadBody>(obj, cls, &gPerThreadBodyOffset);
}
static inline CPerCodeObjectBody* per_code_object_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerCodeObjectBody>(obj, cls, &gPerCodeObjectBodyOffset);
}
static inline CPerFileBody* per_file_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerFileBody>(obj, cls, &gPerFileBodyOffset);
}
static inline CInitialCallbackBody* initial_callback_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CInitialCallbackBody>(obj, cls, &gInitialCallbackBodyOffset);
}

// ---- The roads of the callback, inline ----
// They take what is ready and leave everything else, failures included, to the functions that find out why it is not.

// The record in the code object's extra slot [borrowed] if it needs no refinement, else null.
static inline PyObject* borrow_ready_record(tModuleState* m, PyObject* code)
{
    void* extra = nullptr;
    if (XPY_UNLIKELY(api._PyCode_GetExtra(code, m->code_object_extra_index, &extra) < 0)) {
        api.PyErr_Clear();
        return nullptr;
    }
    PyObject* record = static_cast<PyObject*>(extra);
    if (XPY_UNLIKELY(!record || gPerCodeObjectBodyOffset == -1))
        return nullptr;
    bool is_ready = !per_code_object_body(record, as_type(m->CPerCodeObject))->fUpdatePathnameNeeded;
    return XPY_LIKELY(is_ready) ? record : nullptr;
}

// The record behind this thread's storage slot [borrowed] if it is not stale and has its name, else null.
static inline PyObject* borrow_ready_per_thread(tModuleState* m)
{
    _tPyTssData* pair = static_cast<_tPyTssData*>(api.PyThread_tss_get(m->_gPyTssKey));
    if (XPY_UNLIKELY(!pair || !pair->fPerThreadPtr || pair->fThreadStatePtr != api.PyThreadState_Get()))
        return nullptr;
    bool has_name = per_thread_body(pair->fPerThreadPtr, as_type(m->CPerThread))->fThreadName != api.Py_None;
    return XPY_LIKELY(has_name) ? pair->fPerThreadPtr : nullptr;
}

#endif
