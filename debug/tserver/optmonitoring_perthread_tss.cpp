// How a thread reaches its record, and how the record dies with its thread.
//
// Life of a record: the registry dict holds it; the dict of the thread's state holds a capsule that owns another
// reference; the thread's storage slot holds a (record, thread state) pair without a reference. When the thread state
// goes, its dict releases the capsule, whose destructor takes the record out of the registry and clears it, which
// also detaches the pair. Slots belong to threads of the operating system and outlive a thread state, so every use
// compares the pair's thread state with the current one; a pair whose record is gone holds nulls and is freed when
// its thread next looks.

#include <stdlib.h>

#include "optmonitoring_internal.h"

// ---- The thread-specific pair ----
// A pair is made, used and freed by its own thread. The end of a record makes the pair that leads to it stale, and
// may come from any thread: where the interpreter lock is off, which pair belongs to which record is read and changed
// under gPairsLock.

tSharedLock gPairsLock;

static _tPyTssData* current_pair(tModuleState* m)
{
    return m->_gPyTssKey ? static_cast<_tPyTssData*>(api.PyThread_tss_get(m->_gPyTssKey)) : nullptr;
}

int CPerThread_ClearPerThreadForCurrentThread(tModuleState* m)
{
    _tPyTssData* pair = current_pair(m);
    if (!pair)
        return 0;
    if (api.PyThread_tss_set(m->_gPyTssKey, nullptr) != 0)
        return -1;
    XPyLocked locked(&gPairsLock);
    if (pair->fPerThreadPtr)
        per_thread_body(pair->fPerThreadPtr, as_type(m->CPerThread))->_fPyTssData = nullptr;
    free(pair);
    return 0;
}

// Makes the record's pair, if it has one, lead nowhere, and sets *PAIR to it: its own thread frees it.
static void take_pair(CPerThreadBody* body, _tPyTssData** pair)
{
    XPyLocked locked(&gPairsLock);
    *pair = body->_fPyTssData;
    body->_fPyTssData = nullptr;
    if (!*pair)
        return;
    __atomic_store_n(&(*pair)->fPerThreadPtr, nullptr, __ATOMIC_RELEASE);
    XPy_Store(&(*pair)->fThreadStatePtr, static_cast<PyThreadState*>(nullptr));
}

// The record that this thread's pair leads to [new], or null. Another thread may be ending it.
static PyObject* new_ref_of_record(const _tPyTssData* pair)
{
    XPyLocked locked(&gPairsLock);
    PyObject* record = XPy_Load(&pair->fPerThreadPtr);
    return XPy_NewRef(record);
}

PyObject* CPerThread_FastGetExistingPerThreadFromPyTss(tModuleState* m)
{
    _tPyTssData* pair = current_pair(m);
    if (!pair)
        return new_none();
    XPyOwned record(new_ref_of_record(pair));
    if (record && XPy_Load(&pair->fThreadStatePtr) == api.PyThreadState_Get())
        return record.detach();
    if (CPerThread_ClearPerThreadForCurrentThread(m) < 0) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "the thread's storage slot could not be cleared");
        return nullptr;
    }
    return new_none();
}

// Whether this thread's own dict holds the record, by its capsule.
static bool is_held_by_this_thread(tModuleState* m, CPerThreadBody* body)
{
    PyObject* dict = body->capsule_ptr ? api.PyThreadState_GetDict() : nullptr;
    XPyOwned capsule;
    if (dict && api.PyDict_GetItemRef(dict, m->_gThreadStateDictKey, capsule.out()) < 0)
        api.PyErr_Clear();
    return capsule && capsule.borrow() == body->capsule_ptr;
}

int CPerThread_StorePerThreadForCurrentThreadInPyTss_direct(tModuleState* m, PyObject* per_thread)
{
    CPerThreadBody* body = need_per_thread(m, per_thread);
    if (!body)
        return -1;
    // Without a capsule nothing holds the record for the thread: where the program has replaced the finalizer its
    // death would pass the pair by; and without the interpreter lock it might die, or be given to another thread,
    // while the pair is being used.
    bool is_safe =
        gIsLockOff ? is_held_by_this_thread(m, body) : body->capsule_ptr || CPerThread_HasOwnFinalizer(per_thread);
    if (!is_safe)
        return CPerThread_ClearPerThreadForCurrentThread(m);
    _tPyTssData* pair = nullptr;
    if (CPerThread_ClearPerThreadForCurrentThread(m) == 0)
        pair = static_cast<_tPyTssData*>(malloc(sizeof(_tPyTssData)));
    if (!pair) {
        api.PyErr_NoMemory();
        return -1;
    }
    pair->fPerThreadPtr = per_thread;
    pair->fThreadStatePtr = api.PyThreadState_Get();
    if (api.PyThread_tss_set(m->_gPyTssKey, pair) != 0) {
        free(pair);
        api.PyErr_NoMemory();
        return -1;
    }
    // A record that another thread state of the same id used before leaves that thread's pair stale.
    _tPyTssData* stale;
    take_pair(body, &stale);
    XPyLocked locked(&gPairsLock);
    body->_fPyTssData = pair;
    return 0;
}

// Detaches the pair that points at a dying record.
static int CPerThread_DetachPyTssData_direct(tModuleState* m, CPerThreadBody* body)
{
    _tPyTssData* pair;
    take_pair(body, &pair);
    if (!pair)
        return 0;
    if (gIsLockOff && !(m && current_pair(m) == pair))
        wait_for_readers();  // the thread whose pair it is may be reading the record
    if (!m)
        return 0;  // a record without a state was entered by hand: its thread's slot may still lead to the pair
    if (!m->_gPyTssKey) {
        free(pair);  // the key is gone, and nothing else leads to the pair
        return 0;
    }
    if (current_pair(m) != pair)
        return 0;  // its own thread finds it stale and frees it
    if (api.PyThread_tss_set(m->_gPyTssKey, nullptr) != 0)
        return fail_int(m->dp, "Failure in CPerThread_DetachPyTssData_direct()\n");
    free(pair);
    return 0;
}

// ---- The capsule in the thread state's dict ----

static PyObject* borrow_tstate_dict(void)
{
    PyObject* dict = api.PyThreadState_GetDict();
    if (!dict && !api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_RuntimeError, "No PyThreadState dict");
    return dict;
}

PyObject* CPerThread_GetExistingPerThreadFromThreadStateDict(tModuleState* m)
{
    PyObject* dict = borrow_tstate_dict();
    if (!dict)
        return nullptr;
    PyObject* capsule = nullptr;
    int found = api.PyDict_GetItemRef(dict, m->_gThreadStateDictKey, &capsule);
    XPyOwned owned(capsule);
    if (found < 0)
        return nullptr;
    if (!capsule)
        return new_none();
    return XPy_NewRef(static_cast<PyObject*>(api.PyCapsule_GetPointer(capsule, nullptr)));
}

static void CPerThread_CapsuleDestructor(PyObject* capsule)
{
    XPyHeldError held;
    if (api.PyCapsule_SetDestructor(capsule, nullptr) < 0)
        api.PyErr_Clear();
    PyObject* per_thread = static_cast<PyObject*>(api.PyCapsule_GetPointer(capsule, nullptr));
    if (per_thread) {
        CPerThreadBody* body = per_thread_body(per_thread, borrow_defining_class(per_thread));
        tModuleState* m = body->mod_state;
        // capsule_ptr stays until the registry has let go: code that runs there cannot register the record again.
        if (m && CPerThread_DiscardPerThread_direct(m, per_thread) < 0)
            report_failure(m->dp, "Exception in CPerThread_CapsuleDestructor()\n");
        api.PyErr_Clear();
        body->capsule_ptr = nullptr;
        CPerThread_DetachPyTssData_direct(body->mod_state, body);
        XPy_DoDecRef(per_thread);  // the capsule's reference
    }
    api.PyErr_Clear();
}

static int register_capsule_inner(tModuleState* m, PyObject* per_thread, CPerThreadBody* body)
{
    PyObject* dict = borrow_tstate_dict();
    if (!dict)
        return -1;
    XPyOwned capsule(api.PyCapsule_New(per_thread, nullptr, CPerThread_CapsuleDestructor));
    if (!capsule)
        return -1;
    XPy_DoIncRef(per_thread);  // owned by the capsule from now on
    body->capsule_ptr = capsule.borrow();
    if (api.PyObject_SetItem(dict, m->_gThreadStateDictKey, capsule.borrow()) == 0)
        return 0;
    body->capsule_ptr = nullptr;
    api.PyCapsule_SetDestructor(capsule.borrow(), nullptr);
    XPy_DoDecRef(per_thread);
    return -1;
}

static int CPerThread_RegisterThreadStateDictCapsule_direct(tModuleState* m, PyObject* per_thread,
                                                            CPerThreadBody* body)
{
    if (register_capsule_inner(m, per_thread, body) < 0)
        return fail_int(m->dp, "Exception in CPerThread_RegisterThreadStateDictCapsule_direct()\n");
    return 0;
}

static int try_register_inner(tModuleState* m, PyObject* per_thread)
{
    CPerThreadBody* body = need_per_thread(m, per_thread);
    if (!body)
        return -1;
    if (body->capsule_ptr)
        return 0;
    XPyOwned id(XPy_NewRefOfMember(per_thread, &body->fThreadId));
    long long thread_id = id ? api.PyLong_AsLongLong(id.borrow()) : 0;
    if (thread_id == -1 && api.PyErr_Occurred())
        return fail_int(m->dp, "Exception in CPerThread_RegisterThreadStateDictCapsule_direct()\n");
    if (static_cast<unsigned long>(thread_id) != api.PyThread_get_thread_ident())
        return 0;  // only the thread itself registers its capsule
    return CPerThread_RegisterThreadStateDictCapsule_direct(m, per_thread, body);
}

int CPerThread_TryRegisterThreadStateDictCapsule_direct(tModuleState* m, PyObject* per_thread)
{
    if (try_register_inner(m, per_thread) < 0)
        return fail_int(m->dp, "Failure in CPerThread_TryRegisterThreadStateDictCapsule_direct()\n");
    return 0;
}

// ---- Death ----

static int discard_inner(tModuleState* m, PyObject* per_thread, CPerThreadBody* body)
{
    XPyOwned id(m->CPerThread ? XPy_NewRefOfMember(per_thread, &body->fThreadId) : nullptr);
    if (id) {
        XPyOwned dict(CPerThread_get_fPerThreadDict(m));
        if (!dict)
            return -1;
        XPyOwned found(api.PyObject_GetItem(dict.borrow(), id.borrow()));
        if (!found && !clear_if_raised(api.PyExc_KeyError))
            return -1;
        // gone meanwhile, where another thread clears the registry
        if (found && api.PyObject_DelItem(dict.borrow(), id.borrow()) < 0 &&
            !(gIsLockOff && clear_if_raised(api.PyExc_KeyError)))
            return -1;
    }
    body->capsule_ptr = nullptr;
    return CPerThread_Clear_direct(m, per_thread);
}

int CPerThread_DiscardPerThread_direct(tModuleState* m, PyObject* per_thread)
{
    CPerThreadBody* body = per_thread_body(per_thread, borrow_defining_class(per_thread));
    if (discard_inner(m, per_thread, body) < 0)
        return fail_int(m->dp, "Exception in CPerThread_DiscardPerThread_direct()\n");
    return 0;
}

// Detaches the capsule, whose later release then does nothing, and releases the reference that it held. All callers
// come after the capsule has let go. Clearing a record does not rely on that: a capsule left behind would lead to a
// record that it no longer holds.
static int detach_capsule(PyObject* per_thread, CPerThreadBody* body)
{
    PyObject* capsule = body->capsule_ptr;
    if (!capsule)
        return 0;
    if (gIsLockOff)
        return 0;  // the record's thread has registered it just now: it holds the record
    body->capsule_ptr = nullptr;
    int result = api.PyCapsule_SetDestructor(capsule, nullptr);
    XPy_DoDecRef(per_thread);
    return result;
}

static int clear_inner(tModuleState* m, PyObject* per_thread)
{
    CPerThreadBody* body = per_thread_body(per_thread, borrow_defining_class(per_thread));
    if (!body || detach_capsule(per_thread, body) < 0)
        return -1;
    CPerThread_DetachPyTssData_direct(m, body);
    body->mod_state = nullptr;
    clear_object_members(per_thread);
    return 0;
}

int CPerThread_Clear_direct(tModuleState* m, PyObject* per_thread)
{
    return clear_inner(m, per_thread) < 0 ? fail_int(dp_of(m), "Exception in CPerThread_Clear_direct()\n") : 0;
}
