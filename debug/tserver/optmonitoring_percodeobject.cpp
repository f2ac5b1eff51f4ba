// CPerCodeObject: the record of one code object, its construction and look-up.

#include "optmonitoring_docs.h"
#include "optmonitoring_fastpath_internal.h"
#include "optmonitoring_percodeobject_internal.h"

tClassAttr gNewPerCodeObjectCreatedCallback = {
    {"_fNewPerCodeObjectCreatedCallback", nullptr}, {nullptr, 0}, nullptr, 0};

int check_code_object(PyObject* obj)
{
    if (XPy_IsInstance(obj, api.PyCode_Type_ptr))
        return 0;
    api.PyErr_SetString(api.PyExc_TypeError, "code_object must be a PyCodeObject");
    return -1;
}

CPerCodeObjectBody* need_per_code_object(tModuleState* m, PyObject* obj)
{
    if (!XPy_IsInstance(obj, as_type(m->CPerCodeObject))) {
        api.PyErr_SetString(api.PyExc_TypeError, "the object is not a CPerCodeObject");
        return nullptr;
    }
    return per_code_object_body(obj, as_type(m->CPerCodeObject));
}

// ---- Construction ----

PyObject* get_death_callback(PyObject* self)
{
    static tNameCache cb_code_object_dealloc = {"_cb_code_object_dealloc", nullptr};
    return get_cached_attr(self, &cb_code_object_dealloc);
}

int set_code_weak_ref(PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* death_callback)
{
    XPyOwned on_death(death_callback);
    XPyOwned weak_ref(on_death ? api.PyWeakref_NewRef(code, on_death.borrow()) : nullptr);
    if (!weak_ref)
        return -1;
    if (XPY_UNLIKELY(gIsLockOff))
        set_shared_member(self, &body->fCodeObjectWeakRef, weak_ref.borrow());
    else
        XPy_MoveToField(&body->fCodeObjectWeakRef, weak_ref.detach());
    return 0;
}

// The interpreter lock is asked for once: a first event pays for each question.
template <bool kIsLockOff>
static void fill_body(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* frame, tPathnames* names)
{
    auto set = [self](PyObject** field, PyObject* value) {
        kIsLockOff ? set_shared_member(self, field, value) : XPy_SetField(field, value);
    };
    PyObject* canonical = names->canonical.borrow();
    set(&body->fCanonicalPathname, canonical);
    if (kIsLockOff)
        set(&body->fPathnameToReport, names->to_report.borrow());
    else
        XPy_MoveToField(&body->fPathnameToReport, names->to_report.detach());
    XPyOwned held(kIsLockOff ? new_internal_table(m) : nullptr);
    PyObject* internal_table = kIsLockOff ? held.borrow() : m->_gInternalPathnameDict;
    bool is_internal = IsInternalPathname(m->dp, internal_table, canonical);
    set(&body->fIsInternal, is_internal ? api.Py_True : api.Py_False);
    set(&body->fEnabledBpLinenos, api.Py_None);
    body->fSteppingEventsNeededCount = 0;
    body->fReturnEventsNeededCount = 0;
    body->fUpdatePathnameNeeded = frame == api.Py_None;
}

void undo_record_start(PyObject* self)
{
    XPyHeldError held;
    clear_object_members(self);
}

// Takes a record that could not be registered apart again: its weak reference would keep it alive for nothing.
static void undo_construction(tModuleState* m, PyObject* self, PyObject* code)
{
    XPyHeldError held;
    CPerCodeObject_LeaveSlot(m, self, code);
    if (CPerCodeObject_RemoveFromPerFile_direct(m, self) < 0)
        api.PyErr_Clear();
    clear_object_members(self);
}

int construct_record(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame,
                     tPathnames* names)
{
    bool is_started =
        (names->canonical || find_pathnames(m, code, frame, names) == 0) &&
        (body->fCodeObjectWeakRef || set_code_weak_ref(self, body, code, get_death_callback(self)) == 0);
    int is_late = 0;
    if (XPY_UNLIKELY(is_started && gIsLockOff)) {
        fill_body<true>(m, self, body, frame, names);
        is_late = CPerCodeObject_ClaimSlot(m, self, code);
    } else if (is_started) {
        fill_body<false>(m, self, body, frame, names);
    }
    if (!is_started || is_late != 0) {
        undo_record_start(self);
        return is_late > 0 ? 0 : -1;
    }
    if (CPerCodeObject_AddToPerFile_direct(m, self) < 0) {
        XPyHeldError held;
        CPerCodeObject_LeaveSlot(m, self, code);
        undo_record_start(self);
        return -1;
    }
    if (CPerCodeObject_RegisterPerCodeObject_direct(m, self, code) < 0) {
        undo_construction(m, self, code);
        return -1;
    }
    return CallNewObjectCallback_direct(m->dp, m->CPerCodeObject, &gNewPerCodeObjectCreatedCallback, self);
}

static int init_inner(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame)
{
    if (check_code_object(code) < 0)
        return -1;
    if (body->fCodeObjectWeakRef) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "CPerCodeObject is already initialized");
        return -1;
    }
    tPathnames names;
    return construct_record(m, self, body, code, frame, &names);
}

const char kPerCodeObjectInitFailure[] = "Exception in CPerCodeObject.__init__\n";

int CPerCodeObject_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CPerCodeObjectBody* body = m ? per_code_object_body(self, borrow_defining_class(self)) : nullptr;
    PyObject *code, *frame;
    if (!body || refuse_keywords(self, kwargs, "CPerCodeObject") < 0 ||
        !api.PyArg_ParseTuple(args, "OO:CPerCodeObject.__init__", &code, &frame))
        return -1;
    return init_inner(m, self, body, code, frame) < 0 ? fail_int(m->dp, kPerCodeObjectInitFailure) : 0;
}

// Puts NEW_LINES [steals] where events look; what was there is released when none can be looking into it any more.
static void replace_held_lines(CPerCodeObjectBody* body, PyObject* new_lines)
{
    XPyOwned old(__atomic_exchange_n(borrow_held_lines(body), new_lines, __ATOMIC_ACQ_REL));
    if (old)
        wait_for_readers();
}

XPY_COLD void CPerCodeObject_HoldLines(CPerCodeObjectBody* body, PyObject* linenos)
{
    PyObject* held = __atomic_load_n(borrow_held_lines(body), __ATOMIC_ACQUIRE);
    bool can_be_held = linenos && XPy_BorrowTypeInline(linenos) == gLinenoPeek.set_type;
    PyObject* wanted = can_be_held ? linenos : nullptr;
    if (wanted != held)
        replace_held_lines(body, XPy_NewRef(wanted));
}

void CPerCodeObject_MakeRoomForHeldLines(void)
{
    if (gIsLockOff)
        kPerCodeObjectClass.spec->basicsize += static_cast<int>(sizeof(PyObject*));
}

static void CPerCodeObject_finalize(PyObject* self)
{
    CPerCodeObjectBody* body = gIsLockOff ? per_code_object_body(self, borrow_defining_class(self)) : nullptr;
    if (body)
        replace_held_lines(body, nullptr);
    clear_object_members(self);
}

// ---- Look-up ----

PyObject* CPerCodeObject_Create_direct(tModuleState* m, PyObject* code, PyObject* frame)
{
    XPyOwned record(do_two_arg_call(m->CPerCodeObject, code, frame));
    bool is_usable = record && (record.borrow() == api.Py_None || need_per_code_object(m, record.borrow()));
    return is_usable ? record.detach() : nullptr;
}

PyObject* CPerCodeObject_CreateMissing(tModuleState* m, PyObject* code, PyObject* frame)
{
    while (gIsLockOff) {
        tAnnounced announced(code);
        XPyOwned made(CPerCodeObject_Create_direct(m, code, frame));
        if (!announced.is_late())
            return made.detach();
        PyObject* winner;
        if (CPerCodeObject_GetFromSlot(m, code, &winner) < 0 || winner)
            return winner;
        // whoever was first has failed: it is this thread's turn again
    }
    return CPerCodeObject_Create_direct(m, code, frame);
}

static PyObject* get_per_code_object_inner(tModuleState* m, PyObject* code, PyObject* create, PyObject* frame)
{
    if (!m->CPerCodeObject) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring is not loaded");
        return nullptr;
    }
    if (check_code_object(code) < 0)
        return nullptr;
    XPyOwned record(CPerCodeObject_GetExistingPerCodeObject_direct(m, code));
    if (!record)
        return nullptr;
    if (record.borrow() == api.Py_None) {
        int is_wanted = get_istrue(create);
        if (is_wanted <= 0)
            return is_wanted < 0 ? nullptr : new_none();
        return CPerCodeObject_CreateMissing(m, code, frame);
    }
    CPerCodeObjectBody* body = per_code_object_body(record.borrow(), as_type(m->CPerCodeObject));
    if (frame != api.Py_None && body->fUpdatePathnameNeeded &&
        CPerCodeObject_UpdatePathnameFromFrame_direct(m, record.borrow(), frame) < 0)
        return nullptr;
    return record.detach();
}

PyObject* CPerCodeObject_GetPerCodeObject_direct(tModuleState* m, PyObject* code, PyObject* create, PyObject* frame)
{
    PyObject* record = get_per_code_object_inner(m, code, create, frame);
    return record ? record : fail_null(m->dp, "Exception in CPerCodeObject_GetPerCodeObject_direct()\n");
}

// ---- Refinement from a frame ----

static int move_to_file(tModuleState* m, PyObject* record, CPerCodeObjectBody* body, PyObject* canonical)
{
    XPyOwned before(XPy_NewRefOfMember(record, &body->fCanonicalPathname));
    int differs = api.PyObject_RichCompareBool(canonical, before.borrow(), kPyNe);
    if (differs <= 0)
        return differs;
    if (CPerCodeObject_RemoveFromPerFile_direct(m, record) < 0)
        return -1;
    XPy_SetMember(record, &body->fCanonicalPathname, canonical);
    return CPerCodeObject_AddToPerFile_direct(m, record);
}

static int update_pathname_inner(tModuleState* m, PyObject* record, PyObject* frame)
{
    CPerCodeObjectBody* body = need_per_code_object(m, record);
    if (!body)
        return -1;
    XPyOwned weak_ref(XPy_NewRefOfMember(record, &body->fCodeObjectWeakRef));
    XPyOwned code(weak_ref ? api.PyObject_CallNoArgs(weak_ref.borrow()) : nullptr);
    if (!code)
        api.PyErr_Clear();
    if (!XPy_IsInstance(code.borrow(), api.PyCode_Type_ptr))
        return 0;  // the code object is dead
    // Kept: the record itself is passed where the code object is expected, so the update fails. With it fails every
    // look-up with a frame when the record was made without one.
    XPyOwned to_report(CPerCodeObject_GetPathnameToUse_direct(m, record, frame, 0));
    XPyOwned canonical(to_report ? CPerCodeObject_GetPathnameToUse_direct(m, record, frame, 1) : nullptr);
    if (!canonical)
        return -1;
    XPy_SetMember(record, &body->fPathnameToReport, to_report.borrow());
    return move_to_file(m, record, body, canonical.borrow());
}

int CPerCodeObject_UpdatePathnameFromFrame_direct(tModuleState* m, PyObject* per_code_object, PyObject* frame)
{
    if (update_pathname_inner(m, per_code_object, frame) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject_UpdatePathnameFromFrame_direct()\n");
    return 0;
}

// ---- Methods ----

static PyObject* CPerCodeObject_GetPerCodeObject(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                 Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject *code, *create, *frame;
    const tFastArgInfo infos[] = {{"code_object", 0, nullptr, &code},
                                  {"create", 1, api.Py_True, &create},
                                  {"frame", 2, api.Py_None, &frame},
                                  {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0)
        return fail_null(m->dp, "Exception in CPerCodeObject_GetPerCodeObject()\n");
    return CPerCodeObject_GetPerCodeObject_direct(m, code, create, frame);
}

// Kept: both texts name the class of another record.
static int CPerCodeObject_SetNewPerCodeObjectCreatedCallback_direct(tModuleState* m, PyObject* callback)
{
    if (set_class_attr(m->CPerCodeObject, &gNewPerCodeObjectCreatedCallback, callback) < 0)
        return fail_int(m->dp, "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback_direct()\n");
    return 0;
}

static PyObject* CPerCodeObject_SetNewPerCodeObjectCreatedCallback(PyObject*, PyTypeObject* cls,
                                                                   PyObject* const* args, Py_ssize_t nargs,
                                                                   PyObject* kwnames)
{
    return call_hook_setter(cls, args, nargs, kwnames, CPerCodeObject_SetNewPerCodeObjectCreatedCallback_direct,
                            "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback()\n");
}

static PyObject* CPerCodeObject_cb_code_object_dealloc(PyObject* self, PyTypeObject* cls, PyObject* const* args,
                                                       Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m) {
        api.PyErr_Clear();  // the collector has taken the class apart; a weak reference's callback has no caller
        return new_none();
    }
    PyObject* weak_ref;
    const tFastArgInfo infos[] = {{"weak_ref", 0, nullptr, &weak_ref}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0)
        return fail_null(m->dp, "Exception in CPerCodeObject_cb_code_object_dealloc()\n");
    if (CPerCodeObject_cb_code_object_dealloc_direct(m, self) < 0)
        clear_failure(m->dp, "Exception in CPerCodeObject_cb_code_object_dealloc()\n");
    return new_none();
}

// ---- The class's methods ----

static constexpr int kDeathCallback = 2;  // its place in the table

static PyMethodDef kMethods[] = {
    {"GetPerCodeObject", AS_METHOD(CPerCodeObject_GetPerCodeObject), kMethClass, kDocCPerCodeObject_GetPerCodeObject},
    {"SetNewPerCodeObjectCreatedCallback", AS_METHOD(CPerCodeObject_SetNewPerCodeObjectCreatedCallback), kMethClass,
     kDocCPerCodeObject_SetNewPerCodeObjectCreatedCallback},
    {"_cb_code_object_dealloc", AS_METHOD(CPerCodeObject_cb_code_object_dealloc), kMethInstance,
     kDocCPerCodeObject_cb_code_object_dealloc},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* make_death_callback(PyObject* self, PyTypeObject* cls)
{
    return api.PyCMethod_New(&kMethods[kDeathCallback], self, nullptr, cls);
}

// ---- The class ----

static PyMemberDef kMembers[] = {
    MEMBER(CPerCodeObject, fCodeObjectWeakRef, kMemberObject, kMemberReadOnly),
    MEMBER(CPerCodeObject, fCanonicalPathname, kMemberObject, kMemberReadOnly),
    MEMBER(CPerCodeObject, fPathnameToReport, kMemberObject, kMemberReadOnly),
    MEMBER(CPerCodeObject, fIsInternal, kMemberObject, kMemberReadOnly),
    MEMBER(CPerCodeObject, fEnabledBpLinenos, kMemberObject, 0),
    MEMBER(CPerCodeObject, fSteppingEventsNeededCount, kMemberSsize, 0),
    MEMBER(CPerCodeObject, fReturnEventsNeededCount, kMemberSsize, 0),
    {nullptr, 0, 0, 0, nullptr},
};

static PyType_Slot kSlots[] = {CLASS_SLOTS(CPerCodeObject)};

static PyType_Spec kSpec = {"optmonitoring.CPerCodeObject", sizeof(CPerCodeObjectBody), 0, kTypeBaseType, kSlots};

tClassInfo kPerCodeObjectClass = {"CPerCodeObject", &kSpec, kMembers, &gPerCodeObjectBodyOffset};
