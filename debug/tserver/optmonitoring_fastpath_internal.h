// The fast path's inline reads, for the files that decide on events alone.

#ifndef OPTMONITORING_OPTMONITORING_FASTPATH_INTERNAL_H
#define OPTMONITORING_OPTMONITORING_FASTPATH_INTERNAL_H

#include "optmonitoring_internal.h"

// ---- The order of reads ----
// Under the interpreter lock all reads here are plain loads, on processors that reorder loads (aarch64) as on those
// that do not (x86-64). What another thread has written is always seen, and seen whole:
//
// Callbacks run under the interpreter lock, and whoever writes what is read here holds that lock too. It is a
// mutex: its release publishes every write before it, and taking it orders every read behind it. A reader needs no
// order among its own loads, as nobody writes between them.
//
// Nothing here gives the lock up between two reads that belong together. A call that may (code of the program, a
// suspend lock) comes behind the verdict, or the decision starts over.
//
// The interpreter writes its own objects (sets, ints, types) under the same lock. A frame and a storage slot are
// this thread's own; offsets and constants are written by the import alone.
//
// Where a free-threaded interpreter leaves its lock off, the functions with kIsShared read as follows. The thread
// says that it is reading (XPyReading), and who takes away what is read here (a record out of its code object's slot
// or its thread's pair, a frozenset that a record holds for events) waits for its readers before letting go. So what
// is borrowed stays valid to the verdict. A pointer is read once, after what it leads to was written (acquire); a
// number is right before and after the change. None, True and False never die and are only compared.

// ---- A look into sets of line numbers (optmonitoring_linenos.cpp) ----

// Where exact sets and ints keep what the look needs, bytes; set_type is null where it is not possible.
struct tLinenoPeek {
    PyTypeObject* set_type;
    Py_ssize_t set_mask;
    Py_ssize_t set_table;
    Py_ssize_t int_tag;
    Py_ssize_t int_digit;
};
extern tLinenoPeek gLinenoPeek;

// An entry of a set's table.
struct tSetEntry {
    PyObject* key;
    Py_ssize_t hash;
};

// The number that is its own hash, of an exact int of one positive digit; 0 for any other object.
static inline size_t get_plain_lineno(PyObject* lineno)
{
    static constexpr uint64_t kOnePositiveDigit = 8;
    static constexpr uint64_t kStaticFlag = 4;  // of ints that live as long as the interpreter, 3.14 and later
    if (XPy_BorrowTypeInline(lineno) != api.PyLong_Type_ptr)
        return 0;
    const char* number = reinterpret_cast<const char*>(lineno);  // an int never changes once others can see it
    uint64_t tag = *reinterpret_cast<const uint64_t*>(number + gLinenoPeek.int_tag);
    if ((tag & ~kStaticFlag) != kOnePositiveDigit)
        return 0;
    return *reinterpret_cast<const uint32_t*>(number + gLinenoPeek.int_digit);
}

// The line is no member, is one, or only the interpreter's own look-up can find out.
enum tLinenoFound { kLinenoOpen, kLinenoAbsent, kLinenoPresent };

// Goes on behind the first entry when that is taken. HASH is not 0; MASK is the size of the table less one.
tLinenoFound find_lineno_behind(const tSetEntry* table, size_t mask, size_t hash);

// Looks for LINENO in LINENOS without running code of the program. Mostly the entry where the look-up begins is
// empty.
static inline tLinenoFound find_lineno(PyObject* linenos, PyObject* lineno)
{
    if (XPY_UNLIKELY(XPy_BorrowTypeInline(linenos) != gLinenoPeek.set_type))
        return kLinenoOpen;
    size_t hash = get_plain_lineno(lineno);
    if (XPY_UNLIKELY(hash == 0))  // entries that were never used have this hash too
        return kLinenoOpen;
    // Both loads must belong to one table: a growing set gets a new mask and a new table before its writer releases
    // the lock.
    const char* set = reinterpret_cast<const char*>(linenos);
    size_t mask = *reinterpret_cast<const size_t*>(set + gLinenoPeek.set_mask);
    const tSetEntry* table = *reinterpret_cast<tSetEntry* const*>(set + gLinenoPeek.set_table);
    if (XPY_LIKELY(!table[hash & mask].key))
        return kLinenoAbsent;
    return find_lineno_behind(table, mask, hash);
}

// ---- What is ready ----
// These take what is ready and leave everything else, failures included, to the functions that find out the reason.

// A field that another thread may replace where kIsShared.
template <bool kIsShared>
static inline PyObject* borrow_field(PyObject* const* field)
{
    return kIsShared ? __atomic_load_n(field, __ATOMIC_ACQUIRE) : *field;
}

template <bool kIsShared, typename T>
static inline T read_number(const T* field)
{
    return kIsShared ? XPy_Load(field) : *field;
}

// Counts what is put into slots: changed before, and read behind the look into a slot, it orders what the record
// holds.
extern uint32_t gSlotChanges;

// The record in the code object's extra slot [borrowed] if it needs no refinement, else null.
template <bool kIsShared>
static inline PyObject* borrow_ready_record(tModuleState* m, PyObject* code)
{
    void* extra = nullptr;
    if (kIsShared && !XPy_Load(&gMayReadSlots))
        return nullptr;
    if (XPY_UNLIKELY(api._PyCode_GetExtra(code, m->code_object_extra_index, &extra) < 0)) {
        api.PyErr_Clear();
        return nullptr;
    }
    if (kIsShared)
        (void)__atomic_load_n(&gSlotChanges, __ATOMIC_ACQUIRE);
    PyObject* record = static_cast<PyObject*>(extra);
    if (XPY_UNLIKELY(!record || gPerCodeObjectBodyOffset == -1))
        return nullptr;
    bool is_ready = !per_code_object_body(record, as_type(m->CPerCodeObject))->fUpdatePathnameNeeded;
    return XPY_LIKELY(is_ready) ? record : nullptr;
}

// Whether a hook is surely off: it was found so, and nobody has changed the class since.
template <bool kIsShared>
static inline bool is_surely_off(const tClassAttr* hook, PyObject* cls)
{
    if (kIsShared) {
        uint64_t state = __atomic_load_n(&hook->state_when_none, __ATOMIC_ACQUIRE);
        return state != 0 && state == get_class_state(as_type(cls));
    }
    return is_as_marked(&hook->mark, as_type(cls)) && hook->value == api.Py_None;
}

// The record behind this thread's storage slot [borrowed] if it is not stale and has its name, or nobody to give it
// one; else null.
template <bool kIsShared>
static inline PyObject* borrow_ready_per_thread(tModuleState* m)
{
    if (XPY_UNLIKELY(!m->_gPyTssKey))
        return nullptr;  // the host's log module, imported before the key is made, calls back
    // The slot is this thread's own; a record that dies elsewhere is marked in the pair under the lock.
    _tPyTssData* pair = static_cast<_tPyTssData*>(api.PyThread_tss_get(m->_gPyTssKey));
    PyObject* record = pair ? borrow_field<kIsShared>(&pair->fPerThreadPtr) : nullptr;
    if (XPY_UNLIKELY(!record || read_number<kIsShared>(&pair->fThreadStatePtr) != api.PyThreadState_Get()))
        return nullptr;
    PyObject* name = borrow_field<kIsShared>(&per_thread_body(record, as_type(m->CPerThread))->fThreadName);
    bool is_named = name != api.Py_None || is_surely_off<kIsShared>(&gGetThreadNameCallback, m->CPerThread);
    return XPY_LIKELY(is_named) ? record : nullptr;
}

// Why an event is, or is not, of interest.
enum tSkipReason {
    kUnknownEvent,
    kThreadIsStepping,
    kCodeIsStepping,
    kNoLineSet,
    kLineHasBreakpoint,
    kLineMayHaveBreakpoint,  // only the interpreter's own look-up can find out
    kReturnIsNeeded,
    kNothingNeedsIt,
};

// The part of the skip decision behind the line test.
template <bool kIsShared>
static inline tSkipReason find_return_reason(const tModuleState* m, int event_id, const CPerCodeObjectBody* record)
{
    bool is_return = event_id == m->kPyReturnEventId || event_id == m->kPyYieldEventId;
    return is_return && read_number<kIsShared>(&record->fReturnEventsNeededCount) != 0 ? kReturnIsNeeded
                                                                                       : kNothingNeedsIt;
}

// Whether the id is one of the five kinds; anything else goes to the second callback.
static inline bool is_known_event(const tModuleState* m, int event_id)
{
    return event_id == m->kPyLineEventId || event_id == m->kPyStartEventId || event_id == m->kPyReturnEventId ||
           event_id == m->kPyYieldEventId || event_id == m->kPyResumeEventId;
}

// find_lineno() in LINENOS, which the record has as its lines. What the record does not hold for this is left open:
// it holds it once the full path has seen it.
template <bool kIsShared>
static inline tLinenoFound find_lineno_of(const CPerCodeObjectBody* record, PyObject* linenos, PyObject* lineno)
{
    if (kIsShared && XPY_UNLIKELY(linenos != borrow_field<true>(borrow_held_lines(record))))
        return kLinenoOpen;
    return find_lineno(linenos, lineno);
}

// CHANGE-ANSWER: a line without a breakpoint while a thread steps or is held, both paths.
// The skip decision of a known event as far as it can be made without code of the program. THREAD may be null: no
// record of the thread. Not kIsShared where the caller holds the lines.
template <bool kIsShared>
static inline tSkipReason find_skip_reason(const tModuleState* m, int event_id, const CPerThreadBody* thread,
                                           const CPerCodeObjectBody* record, PyObject* lineno_obj)
{
    if (thread && read_number<kIsShared>(&thread->fSteppingEventsNeeded))
        return kThreadIsStepping;
    if (read_number<kIsShared>(&record->fSteppingEventsNeededCount) != 0)
        return kCodeIsStepping;
    PyObject* linenos = borrow_field<kIsShared>(&record->fEnabledBpLinenos);
    if (!linenos || linenos == api.Py_None)
        return kNoLineSet;
    if (event_id == m->kPyLineEventId && lineno_obj != api.Py_None) {
        tLinenoFound found = find_lineno_of<kIsShared>(record, linenos, lineno_obj);
        if (found != kLinenoAbsent)
            return found == kLinenoPresent ? kLineHasBreakpoint : kLineMayHaveBreakpoint;
    }
    return find_return_reason<kIsShared>(m, event_id, record);
}

#endif
