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
static constexpr int kSlotTpDescrGet = 54;
static constexpr int kSlotTpInit = 60;
static constexpr int kSlotTpMethods = 64;
static constexpr int kSlotTpNew = 65;
static constexpr int kSlotTpMembers = 72;
static constexpr int kSlotTpFinalize = 80;
static constexpr unsigned int kTypeBaseType = 1u << 10;

static constexpr int kPyEq = 2;  // operator codes of equality and inequality
static constexpr int kPyNe = 3;

// The descriptor list of a function without arguments.
static constexpr tFastArgInfo kNoArguments[] = {{nullptr, 0, nullptr, nullptr}};

// Class attribute with the host's hook for new code-object records.
extern tClassAttr gNewPerCodeObjectCreatedCallback;

// A fast method of an instance or a class.
typedef PyObject* (*tDefiningClassMethod)(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                          PyObject* kwnames);

// A method's function for its table; a macro, so that the tables are constants and need no start-up code.
#define AS_METHOD(function) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(function))

// The slots of one of the four classes.
#define CLASS_SLOTS(cls)                                                                                        \
    {kSlotTpMethods, kMethods}, {kSlotTpInit, reinterpret_cast<void*>(cls##_init)}, {kSlotTpMembers, kMembers}, \
        {kSlotTpFinalize, reinterpret_cast<void*>(cls##_finalize)}, {0, nullptr},

static inline tDPData* dp_of(tModuleState* m)
{
    return m ? m->dp : nullptr;
}

// Whether no operation on the mapping is one of the program's own.
static inline bool is_plain_dict(PyObject* mapping)
{
    return XPy_BorrowTypeInline(mapping) == api.PyDict_Type_ptr;
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
    if (XPY_UNLIKELY(!m->_gPyTssKey))
        return nullptr;  // the host's log module, imported before the key is made, calls back
    _tPyTssData* pair = static_cast<_tPyTssData*>(api.PyThread_tss_get(m->_gPyTssKey));
    if (XPY_UNLIKELY(!pair || !pair->fPerThreadPtr || pair->fThreadStatePtr != api.PyThreadState_Get()))
        return nullptr;
    bool has_name = per_thread_body(pair->fPerThreadPtr, as_type(m->CPerThread))->fThreadName != api.Py_None;
    return XPY_LIKELY(has_name) ? pair->fPerThreadPtr : nullptr;
}

// An entry of a set's table.
struct tSetEntry {
    PyObject* key;
    Py_ssize_t hash;
};

// True when LINENO is surely not in LINENOS; false leaves it open. Runs no code of the program.
static inline bool is_surely_absent(PyObject* linenos, PyObject* lineno)
{
    static constexpr uint64_t kOnePositiveDigit = 8;
    static constexpr uint64_t kStaticFlag = 4;  // of ints that live as long as the interpreter, 3.14 and later
    if (XPy_BorrowTypeInline(linenos) != gLinenoPeek.set_type || XPy_BorrowTypeInline(lineno) != api.PyLong_Type_ptr)
        return false;
    const char* number = reinterpret_cast<const char*>(lineno);
    uint64_t tag = *reinterpret_cast<const uint64_t*>(number + gLinenoPeek.int_tag);
    if ((tag & ~kStaticFlag) != kOnePositiveDigit)
        return false;
    size_t hash = *reinterpret_cast<const uint32_t*>(number + gLinenoPeek.int_digit);
    const char* set = reinterpret_cast<const char*>(linenos);
    size_t mask = *reinterpret_cast<const size_t*>(set + gLinenoPeek.set_mask);
    const tSetEntry* table = *reinterpret_cast<tSetEntry* const*>(set + gLinenoPeek.set_table);
    const tSetEntry* entry = table + (hash & mask);
    return !entry->key && entry->hash == 0;
}

// Why an event is, or is not, of interest.
enum tSkipReason {
    kUnknownEvent,
    kThreadIsStepping,
    kCodeIsStepping,
    kNoLineSet,
    kLineMayHaveBreakpoint,  // only the set can tell
    kReturnIsNeeded,
    kNothingNeedsIt,
};

// The part of the skip decision behind the line test.
static inline tSkipReason find_return_reason(const tModuleState* m, int event_id, const CPerCodeObjectBody* record)
{
    bool is_return = event_id == m->kPyReturnEventId || event_id == m->kPyYieldEventId;
    return is_return && record->fReturnEventsNeededCount != 0 ? kReturnIsNeeded : kNothingNeedsIt;
}

// The skip decision as far as it can be made without code of the program. THREAD may be null: no record of the
// thread.
static inline tSkipReason find_skip_reason(const tModuleState* m, int event_id, const CPerThreadBody* thread,
                                           const CPerCodeObjectBody* record, PyObject* lineno_obj)
{
    bool is_known = event_id == m->kPyStartEventId || event_id == m->kPyReturnEventId ||
                    event_id == m->kPyYieldEventId || event_id == m->kPyResumeEventId ||
                    event_id == m->kPyLineEventId;
    if (!is_known)
        return kUnknownEvent;
    if (thread && thread->fSteppingEventsNeeded)
        return kThreadIsStepping;
    if (record->fSteppingEventsNeededCount != 0)
        return kCodeIsStepping;
    PyObject* linenos = record->fEnabledBpLinenos;
    if (!linenos || linenos == api.Py_None)
        return kNoLineSet;
    bool has_line = event_id == m->kPyLineEventId && lineno_obj != api.Py_None;
    if (has_line && !is_surely_absent(linenos, lineno_obj))
        return kLineMayHaveBreakpoint;
    return find_return_reason(m, event_id, record);
}

#endif
