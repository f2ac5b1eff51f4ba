// How a per-code-object record is tied to its code object, its file and the registry, and how it goes.
//
// Life of a record: the code object's extra slot owns a reference, the registry dict another under a weak reference
// to the code object, and that weak reference's callback, a bound method, a third, so the record lives until its code
// object dies. Then the interpreter frees the slot (FreeCodeObjectExtra) and afterwards calls the weak reference
// back; both run the same death steps, of which the second finds nothing to do. The code object is already dead at
// both times and is not touched.
//
// On a free-threaded interpreter it is the collector that finds a code object dead. The order is then reversed, and
// the collector leaves the callback inside the weak reference it has called back: weak reference, callback and record
// would hold each other for ever, so the freed slot takes the callback away.

#include "optmonitoring_internal.h"

static constexpr int kLinenoAddNotPerFile = 2031;
static constexpr int kLinenoRemoveNotPerFile = 2080;

// ---- The record's file ----

// The file's record [new], made when absent; null with an exception pending.
static PyObject* get_per_file(tModuleState* m, PyObject* canonical, int lineno)
{
    XPyOwned per_file(CPerFile_GetPerFile_direct(m->dp, m->CPerFile, canonical, api.Py_True));
    if (per_file && !XPy_IsInstance(per_file.borrow(), as_type(m->CPerFile))) {
        api._PyErr_BadInternalCall(kSourceName, lineno);
        return nullptr;
    }
    return per_file.detach();
}

// The same as need_per_code_object(), quicker for what is no subclass's.
static inline CPerCodeObjectBody* need_record(tModuleState* m, PyObject* obj)
{
    if (XPY_LIKELY(XPy_BorrowTypeInline(obj) == as_type(m->CPerCodeObject)))
        return per_code_object_body(obj, as_type(m->CPerCodeObject));
    return need_per_code_object(m, obj);
}

// Adds the record to, or discards it from, its file's known records.
static int change_per_file(tModuleState* m, PyObject* record, int (*change)(PyObject*, PyObject*), int lineno)
{
    CPerCodeObjectBody* body = need_record(m, record);
    if (!body)
        return -1;
    XPyOwned canonical(XPy_NewRefOfMember(record, &body->fCanonicalPathname));
    if (!canonical || canonical.borrow() == api.Py_None)
        return 0;
    XPyOwned per_file(get_per_file(m, canonical.borrow(), lineno));
    CPerFileBody* file_body = per_file ? per_file_body(per_file.borrow(), as_type(m->CPerFile)) : nullptr;
    if (!file_body)
        return -1;
    XPyOwned known(XPy_NewRefOfMember(per_file.borrow(), &file_body->fKnownPerCodeObjects));
    if (!known) {
        api.PyErr_SetString(api.PyExc_AttributeError, "fKnownPerCodeObjects");
        return -1;
    }
    return change(known.borrow(), record) < 0 ? -1 : 0;
}

int CPerCodeObject_AddToPerFile_direct(tModuleState* m, PyObject* per_code_object)
{
    if (change_per_file(m, per_code_object, api.PySet_Add, kLinenoAddNotPerFile) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject_AddToPerFile_direct\n");
    return 0;
}

int CPerCodeObject_RemoveFromPerFile_direct(tModuleState* m, PyObject* per_code_object)
{
    if (change_per_file(m, per_code_object, api.PySet_Discard, kLinenoRemoveNotPerFile) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject_RemoveFromPerFile_direct\n");
    return 0;
}

// ---- The registry ----

static tClassAttr per_code_object_dict = {{"_fPerCodeObjectDict", nullptr}, {nullptr, 0}, nullptr, 0};

PyObject* CPerCodeObject_get_fPerCodeObjectDict(tModuleState* m)
{
    PyObject* dict = get_class_attr_or_make(m->CPerCodeObject, &per_code_object_dict, api.PyDict_New);
    return dict ? dict : fail_null(m->dp, "Exception in CPerCodeObject_get_fPerCodeObjectDict()\n");
}

PyObject* CPerCodeObject_GetPlainRegistry(tModuleState* m)
{
    XPyOwned dict(get_class_attr(m->CPerCodeObject, &per_code_object_dict));
    bool is_plain = dict && is_plain_dict(dict.borrow());
    return is_plain ? dict.detach() : nullptr;
}

int CPerCodeObject_ClsInit(tModuleState* m)
{
    XPyOwned dict(api.PyDict_New());
    if (!dict || set_class_attr(m->CPerCodeObject, &per_code_object_dict, dict.borrow()) < 0)
        return -1;
    return set_class_attr(m->CPerCodeObject, &gNewPerCodeObjectCreatedCallback, api.Py_None);
}

int CPerCodeObject_ClsReset(tModuleState* m)
{
    XPyOwned dict(CPerCodeObject_get_fPerCodeObjectDict(m));
    XPyOwned cleared(dict ? api.PyObject_CallMethod(dict.borrow(), "clear", nullptr) : nullptr);
    return cleared ? set_class_attr(m->CPerCodeObject, &gNewPerCodeObjectCreatedCallback, api.Py_None) : -1;
}

// Code objects of equal text are equal, and so are the weak references to them. An entry is kept under its own
// record's weak reference, or the death of one code object would take away the record of another.
static int enter_under_own_key(PyObject* dict, PyObject* key, PyObject* record)
{
    if (is_plain_dict(dict)) {
        Py_ssize_t before = api.PyDict_Size(dict);
        if (api.PyDict_SetItem(dict, key, record) < 0)
            return -1;
        if (api.PyDict_Size(dict) > before)
            return 0;  // there was none of an equal code object
    }
    XPyOwned held(XPy_NewRef(key));  // what the registry runs may end the record
    return delete_item_if_present(dict, key) < 0 ? -1 : api.PyObject_SetItem(dict, key, record);
}

static int enter_in_registry(tModuleState* m, PyObject* record, CPerCodeObjectBody* body)
{
    XPyOwned dict(CPerCodeObject_get_fPerCodeObjectDict(m));
    if (!dict)
        return -1;
    XPyOwned held;
    PyObject* key;
    if (XPY_UNLIKELY(gIsLockOff)) {
        held.reset(new_ref_of_shared_member(record, &body->fCodeObjectWeakRef));
        key = held.borrow();
    } else {
        key = body->fCodeObjectWeakRef;
    }
    if (key)
        return enter_under_own_key(dict.borrow(), key, record);
    api.PyErr_SetString(api.PyExc_AttributeError, "fCodeObjectWeakRef");
    return -1;
}

// ---- The extra slot ----
// The interpreter frees what it replaces in a slot before it stores the new value, and does both without a lock. So
// where the interpreter lock is off, each change of the slot takes the code object's own lock, as do look-ups, and
// what is replaced is kept until that is given back and no event can be reading it any more.

uint32_t gSlotChanges;
static thread_local void* kept_extra;  // being replaced on this thread: not to be freed yet

static int get_from_slot(tModuleState* m, PyObject* code, PyObject** record)
{
    void* extra = nullptr;
    int result = api._PyCode_GetExtra(code, m->code_object_extra_index, &extra);
    *record = XPy_NewRef(static_cast<PyObject*>(extra));
    return result < 0 ? -1 : 0;
}

int CPerCodeObject_GetFromSlot(tModuleState* m, PyObject* code, PyObject** record)
{
    if (!gIsLockOff)
        return get_from_slot(m, code, record);
    XPyObjectLocked locked(code);
    return get_from_slot(m, code, record);
}

// What is to happen to a slot.
enum tSlotChange { kReplace, kFill, kEmpty };  // set in any case; set if empty; empty if the record is there

// Changes the slot in one step; *OLD [steals from the slot] is what was replaced. 1: changed, 0: not, -1 with an
// exception pending.
static int change_slot(tModuleState* m, PyObject* record, PyObject* code, tSlotChange change, void** old)
{
    XPyObjectLocked locked(code);
    void* extra = nullptr;
    if (api._PyCode_GetExtra(code, m->code_object_extra_index, &extra) < 0)
        return -1;
    bool is_there = extra == record;
    if (change == kEmpty ? !is_there : is_there || (change == kFill && extra))
        return 0;
    PyObject* value = change == kEmpty ? nullptr : XPy_NewRef(record);  // owned by the slot
    kept_extra = extra;
    // The interpreter's store is a plain one: what is in the record is in order before it.
    __atomic_fetch_add(&gSlotChanges, 1, __ATOMIC_ACQ_REL);
    int result = api._PyCode_SetExtra(code, m->code_object_extra_index, value);
    kept_extra = nullptr;
    if (result < 0) {
        if (value)
            XPy_DoDecRef(value);  // which the caller holds
        return -1;
    }
    *old = extra;
    return 1;
}

static int change_slot_and_free(tModuleState* m, PyObject* record, PyObject* code, tSlotChange change)
{
    void* old = nullptr;
    int result = change_slot(m, record, code, change, &old);
    if (old)
        wait_for_readers();
    FreeCodeObjectExtra(old);
    return result;
}

int CPerCodeObject_ClaimSlot(tModuleState* m, PyObject* record, PyObject* code)
{
    tAnnounced* announced = m->code_object_extra_index == -1 ? nullptr : tAnnounced::take(code);
    if (!announced)
        return 0;
    int result = change_slot_and_free(m, record, code, kFill);
    if (result == 0)
        announced->set_late();
    return result < 0 ? -1 : result == 0;
}

void CPerCodeObject_LeaveSlot(tModuleState* m, PyObject* record, PyObject* code)
{
    void* old = nullptr;
    if (!gIsLockOff || m->code_object_extra_index == -1)
        return;
    if (change_slot(m, record, code, kEmpty, &old) < 0)
        api.PyErr_Clear();
    if (!old)
        return;
    wait_for_readers();
    XPy_DoDecRef(static_cast<PyObject*>(old));  // which the caller holds and takes apart
}

static int store_in_extra_slot(tModuleState* m, PyObject* record, PyObject* code)
{
    if (m->code_object_extra_index == -1)
        return 0;
    if (gIsLockOff)
        return change_slot_and_free(m, record, code, kReplace) < 0 ? -1 : 0;
    XPy_DoIncRef(record);  // owned by the slot
    if (api._PyCode_SetExtra(code, m->code_object_extra_index, record) == 0)
        return 0;
    XPy_DoDecRef(record);
    return -1;
}

int CPerCodeObject_RegisterPerCodeObject_direct(tModuleState* m, PyObject* per_code_object, PyObject* code)
{
    CPerCodeObjectBody* body = need_record(m, per_code_object);
    if (!body || store_in_extra_slot(m, per_code_object, code) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject_RegisterPerCodeObject_direct()\n");
    if (enter_in_registry(m, per_code_object, body) == 0)
        return 0;
    report_failure(m->dp, "Exception in CPerCodeObject_RegisterPerCodeObject_direct()\n");
    if (m->code_object_extra_index != -1 && !gIsLockOff) {  // there the caller makes the record leave the slot
        XPyHeldError held;
        if (api._PyCode_SetExtra(code, m->code_object_extra_index, nullptr) < 0)  // frees the slot's reference
            api.PyErr_Clear();
    }
    return -1;
}

int CPerCodeObject_BelongsTo(PyObject* record, CPerCodeObjectBody* body, PyObject* code)
{
    XPyOwned weak_ref(XPy_NewRefOfMember(record, &body->fCodeObjectWeakRef));
    if (!weak_ref)
        return 0;
    XPyOwned referent(api.PyObject_CallNoArgs(weak_ref.borrow()));
    return referent ? referent.borrow() == code : -1;
}

static PyObject* find_in_registry(tModuleState* m, PyObject* code)
{
    XPyOwned dict(CPerCodeObject_get_fPerCodeObjectDict(m));
    XPyOwned key(dict ? api.PyWeakref_NewRef(code, nullptr) : nullptr);
    if (!key)
        return nullptr;
    XPyOwned record;
    int found = get_item_if_present(dict.borrow(), key.borrow(), record.out());
    if (found <= 0)
        return found < 0 ? nullptr : new_none();
    CPerCodeObjectBody* body = need_per_code_object(m, record.borrow());
    int belongs = body ? CPerCodeObject_BelongsTo(record.borrow(), body, code) : -1;
    if (belongs < 0)
        return nullptr;
    return belongs ? record.detach() : new_none();
}

static PyObject* get_existing_inner(tModuleState* m, PyObject* code)
{
    if (check_code_object(code) < 0)
        return nullptr;
    if (m->code_object_extra_index != -1) {
        PyObject* record;
        if (CPerCodeObject_GetFromSlot(m, code, &record) < 0 || record)
            return record;
    }
    return find_in_registry(m, code);
}

PyObject* CPerCodeObject_GetExistingPerCodeObject_direct(tModuleState* m, PyObject* code)
{
    PyObject* record = get_existing_inner(m, code);
    return record ? record : fail_null(m->dp, "Exception in CPerCodeObject_GetExistingPerCodeObject_direct()\n");
}

// ---- Death ----

static int death_steps(tModuleState* m, PyObject* record)
{
    if (!m->CPerCodeObject || !m->CPerFile)
        return 0;  // the module has been cleared, and its registries with it
    CPerCodeObjectBody* body = need_per_code_object(m, record);
    if (!body || CPerCodeObject_RemoveFromPerFile_direct(m, record) < 0)
        return -1;
    XPyOwned dict(CPerCodeObject_get_fPerCodeObjectDict(m));
    if (!dict)
        return -1;
    XPyOwned key(XPy_NewRefOfMember(record, &body->fCodeObjectWeakRef));
    return key ? delete_item_if_present(dict.borrow(), key.borrow()) : 0;
}

int CPerCodeObject_cb_code_object_dealloc_direct(tModuleState* m, PyObject* per_code_object)
{
    if (death_steps(m, per_code_object) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject_cb_code_object_dealloc_direct()\n");
    return 0;
}

// Takes the callback away from the record's weak reference, which stays what it is otherwise: dead, or alive when the
// slot was freed for another record.
static void drop_callback(tModuleState* m, PyObject* record)
{
    CPerCodeObjectBody* body = need_per_code_object(m, record);
    XPyOwned weak_ref(body ? XPy_NewRefOfMember(record, &body->fCodeObjectWeakRef) : nullptr);
    XPyOwned code(weak_ref ? api.PyObject_CallNoArgs(weak_ref.borrow()) : nullptr);
    if (!code)
        return;
    if (code.borrow() != api.Py_None) {
        XPyOwned without_callback(api.PyWeakref_NewRef(code.borrow(), nullptr));
        if (without_callback)
            XPy_SetMember(record, &body->fCodeObjectWeakRef, without_callback.borrow());
        return;
    }
    typedef int (*tClear)(PyObject*);
    void* slot = api.PyType_GetSlot(XPy_BorrowTypeInline(weak_ref.borrow()), kSlotTpClear);
    if (slot)
        reinterpret_cast<tClear>(slot)(weak_ref.borrow());
}

void FreeCodeObjectExtra(void* extra)
{
    if (!extra || extra == kept_extra || !borrow_current_thread_state_or_null())
        return;
    PyObject* record = static_cast<PyObject*>(extra);
    XPyHeldError held;
    XPyOwned owned;  // released when everything else is done
    tModuleState* m = state_of(record);
    if (m && CPerCodeObject_cb_code_object_dealloc_direct(m, record) < 0) {
        clear_failure(m->dp, "Clearing exception in FreeCodeObjectExtra()\n");
    } else {
        api.PyErr_Clear();  // a class that the collector has taken apart has no state: nothing to remove from
        owned.reset(record);
    }
    bool free_threaded = api.pyobject_offsets.mutex != -1;
    if (m && free_threaded) {
        drop_callback(m, record);
        api.PyErr_Clear();
    }
}
