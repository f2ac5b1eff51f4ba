// CPerCodeObject: the record of one code object, its pathnames, construction and look-up.

#include <string.h>
#include <strings.h>

#include "optmonitoring_internal.h"

static constexpr int kLinenoNoPathname = 1784;

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

// ---- Pathname to use ----

// The value of "__file__" in the frame's globals [new]; None when absent, null with an exception pending.
static PyObject* get_frame_dunder_file(PyObject* frame)
{
    XPyOwned globals(get_frame_globals(frame));
    if (!globals)
        return new_none();
    XPyOwned key(api.PyUnicode_FromString("__file__"));
    if (!key)
        return nullptr;
    PyObject* file = api.PyObject_GetItem(globals.borrow(), key.borrow());
    if (file)
        return file;
    return clear_if_raised(api.PyExc_KeyError) ? new_none() : nullptr;
}

// NAME without the last letter of a compiled-file suffix. [new]
static PyObject* without_compiled_suffix(PyObject* name)
{
    Py_ssize_t length;
    const char* text = need_utf8(name, &length);
    if (!text)
        return nullptr;
    if (length > 4 && strcasecmp(text + length - 4, ".pyc") == 0)
        return api.PyUnicode_FromStringAndSize(text, length - 1);
    return XPy_NewRef(name);
}

// The name of the code's source file [new], and its kind, which stays that of the code's own filename.
static PyObject* get_source_name(tModuleState* m, PyObject* code, PyObject* frame, int* kind)
{
    XPyOwned name(get_code_filename(code));
    if (!name)
        return nullptr;
    *kind = GetPathnameKind_direct(m->dp, name.borrow());
    if (*kind < 0)
        return nullptr;
    if (*kind == kFrozenImportLibPathname && is_frame_object(frame)) {
        XPyOwned file(get_frame_dunder_file(frame));
        if (!file)
            return nullptr;
        if (file.borrow() != api.Py_None)
            name.reset(file.detach());
    }
    return without_compiled_suffix(name.borrow());
}

static PyObject* get_absolute_name(tModuleState* m, PyObject* name)
{
    Py_ssize_t length;
    const char* text = need_utf8(name, &length);
    if (!text)
        return nullptr;
    if (length == 0) {
        api.PyErr_SetString(api.PyExc_ValueError, "pathname cannot be empty");
        return nullptr;
    }
    tFileOpsData* file_ops = need_file_ops(m);
    const char* absolute = file_ops ? get_absname(file_ops, text) : nullptr;
    if (!absolute) {
        if (!api.PyErr_Occurred())
            api.PyErr_SetString(api.PyExc_RuntimeError, "get_absname() returned NULL without setting the exception");
        return nullptr;
    }
    return strcmp(absolute, text) == 0 ? XPy_NewRef(name) : api.PyUnicode_FromString(absolute);
}

static PyObject* find_canonical_inner(tModuleState* m, PyObject* name)
{
    tFileOpsData* file_ops = need_file_ops(m);
    if (!file_ops)
        return nullptr;
    XPyOwned known(lookup_canonical_pathname_pystr(file_ops, name, nullptr));
    if (!known || known.borrow() != api.Py_None)
        return known.detach();
    XPyOwned checksum(get_checksum_for_pathname(file_ops, name));
    file_ops = need_file_ops(m);  // the host's callback may have reset the module
    if (!checksum || !file_ops)
        return nullptr;
    return register_canonical_pathname_pystr(file_ops, name, checksum.borrow());
}

static PyObject* find_canonical_pathname(tModuleState* m, PyObject* name)
{
    PyObject* canonical = find_canonical_inner(m, name);
    return canonical ? canonical : fail_null(m->dp, "Failure in find_canonical_pathname()\n");
}

static PyObject* get_pathname_inner(tModuleState* m, PyObject* code, PyObject* frame, int16_t canonical)
{
    if (check_code_object(code) < 0)
        return nullptr;
    int kind;
    XPyOwned name(get_source_name(m, code, frame, &kind));
    if (!name)
        return nullptr;
    if (kind == kRegularPathname)
        return canonical ? find_canonical_pathname(m, name.borrow()) : get_absolute_name(m, name.borrow());
    if (kind == kPseudoPathname && canonical)
        return new_none();
    return name.detach();
}

PyObject* CPerCodeObject_GetPathnameToUse_direct(tModuleState* m, PyObject* code, PyObject* frame, int16_t canonical)
{
    PyObject* pathname = get_pathname_inner(m, code, frame, canonical);
    if (!pathname && !api.PyErr_Occurred())
        api._PyErr_BadInternalCall(kSourceName, kLinenoNoPathname);
    return pathname;
}

// ---- Construction ----

// Fills the body; the weak reference's callback keeps the record alive until its code object dies.
static int fill_body(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame)
{
    XPyOwned to_report(CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 0));
    XPyOwned canonical(to_report ? CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 1) : nullptr);
    if (!canonical)
        return -1;
    XPyOwned on_death(api.PyObject_GetAttrString(self, "_cb_code_object_dealloc"));
    XPyOwned weak_ref(on_death ? api.PyWeakref_NewRef(code, on_death.borrow()) : nullptr);
    if (!weak_ref)
        return -1;
    XPy_SetField(&body->fCodeObjectWeakRef, weak_ref.borrow());
    XPy_SetField(&body->fCanonicalPathname, canonical.borrow());
    XPy_SetField(&body->fPathnameToReport, to_report.borrow());
    bool is_internal = IsInternalPathname(m->dp, m->_gInternalPathnameDict, canonical.borrow());
    XPy_SetField(&body->fIsInternal, is_internal ? api.Py_True : api.Py_False);
    XPy_SetField(&body->fEnabledBpLinenos, api.Py_None);
    body->fSteppingEventsNeededCount = 0;
    body->fReturnEventsNeededCount = 0;
    body->fUpdatePathnameNeeded = frame == api.Py_None;
    return 0;
}

// Takes a record that could not be registered apart again: its weak reference would keep it alive for nothing.
static void undo_construction(tModuleState* m, PyObject* self)
{
    XPyHeldError held;
    if (CPerCodeObject_RemoveFromPerFile_direct(m, self) < 0)
        api.PyErr_Clear();
    clear_object_members(self);
}

static int init_inner(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame)
{
    if (check_code_object(code) < 0)
        return -1;
    if (body->fCodeObjectWeakRef) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "CPerCodeObject is already initialized");
        return -1;
    }
    if (fill_body(m, self, body, code, frame) < 0 || CPerCodeObject_AddToPerFile_direct(m, self) < 0) {
        XPyHeldError held;
        clear_object_members(self);
        return -1;
    }
    if (CPerCodeObject_RegisterPerCodeObject_direct(m, self, code) < 0) {
        undo_construction(m, self);
        return -1;
    }
    return CallNewObjectCallback_direct(m->dp, m->CPerCodeObject, kNewPerCodeObjectCreatedCallback, self);
}

static int CPerCodeObject_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CPerCodeObjectBody* body = m ? per_code_object_body(self, borrow_defining_class(self)) : nullptr;
    PyObject *code, *frame;
    if (!body || refuse_keywords(kwargs, "CPerCodeObject") < 0 ||
        !api.PyArg_ParseTuple(args, "OO:CPerCodeObject.__init__", &code, &frame))
        return -1;
    if (init_inner(m, self, body, code, frame) < 0)
        return fail_int(m->dp, "Exception in CPerCodeObject.__init__\n");
    return 0;
}

static void CPerCodeObject_finalize(PyObject* self)
{
    clear_object_members(self);
}

// ---- Look-up ----

static PyObject* create_record(tModuleState* m, PyObject* code, PyObject* frame)
{
    return do_two_arg_call(m->CPerCodeObject, code, frame);
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
        return create_record(m, code, frame);
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
    int differs = api.PyObject_RichCompareBool(canonical, body->fCanonicalPathname, kPyNe);
    if (differs <= 0)
        return differs;
    if (CPerCodeObject_RemoveFromPerFile_direct(m, record) < 0)
        return -1;
    XPy_SetField(&body->fCanonicalPathname, canonical);
    return CPerCodeObject_AddToPerFile_direct(m, record);
}

static int update_pathname_inner(tModuleState* m, PyObject* record, PyObject* frame)
{
    CPerCodeObjectBody* body = need_per_code_object(m, record);
    if (!body)
        return -1;
    XPyOwned code(body->fCodeObjectWeakRef ? api.PyObject_CallNoArgs(body->fCodeObjectWeakRef) : nullptr);
    if (!code)
        api.PyErr_Clear();
    if (!XPy_IsInstance(code.borrow(), api.PyCode_Type_ptr))
        return 0;  // the code object is dead
    // Kept: the record itself is passed where the code object is expected, so that the update, and with it every
    // look-up with a frame of a record that was made without one, fails.
    XPyOwned to_report(CPerCodeObject_GetPathnameToUse_direct(m, record, frame, 0));
    XPyOwned canonical(to_report ? CPerCodeObject_GetPathnameToUse_direct(m, record, frame, 1) : nullptr);
    if (!canonical)
        return -1;
    XPy_SetField(&body->fPathnameToReport, to_report.borrow());
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
    if (set_class_hook(m->CPerCodeObject, kNewPerCodeObjectCreatedCallback, callback) < 0)
        return fail_int(m->dp, "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback_direct()\n");
    return 0;
}

static PyObject* CPerCodeObject_SetNewPerCodeObjectCreatedCallback(PyObject*, PyTypeObject* cls,
                                                                   PyObject* const* args, Py_ssize_t nargs,
                                                                   PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* callback;
    const tFastArgInfo infos[] = {{"callback", 0, nullptr, &callback}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0 ||
        CPerCodeObject_SetNewPerCodeObjectCreatedCallback_direct(m, callback) < 0)
        return fail_null(m->dp, "Exception in CPerThread_SetNewPerCodeObjectCreatedCallback()\n");
    return new_none();
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

// ---- The class ----

static PyMethodDef kMethods[] = {
    {"GetPerCodeObject", AS_METHOD(CPerCodeObject_GetPerCodeObject), kMethClass, nullptr},
    {"SetNewPerCodeObjectCreatedCallback", AS_METHOD(CPerCodeObject_SetNewPerCodeObjectCreatedCallback), kMethClass,
     nullptr},
    {"_cb_code_object_dealloc", AS_METHOD(CPerCodeObject_cb_code_object_dealloc), kMethInstance, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

#define MEMBER(name, type, flags)                                       \
    {                                                                   \
#name, type, offsetof(CPerCodeObjectBody, name), flags, nullptr \
    }
static PyMemberDef kMembers[] = {
    MEMBER(fCodeObjectWeakRef, kMemberObject, kMemberReadOnly),
    MEMBER(fCanonicalPathname, kMemberObject, kMemberReadOnly),
    MEMBER(fPathnameToReport, kMemberObject, kMemberReadOnly),
    MEMBER(fIsInternal, kMemberObject, kMemberReadOnly),
    MEMBER(fEnabledBpLinenos, kMemberObject, 0),
    MEMBER(fSteppingEventsNeededCount, kMemberSsize, 0),
    MEMBER(fReturnEventsNeededCount, kMemberSsize, 0),
    {nullptr, 0, 0, 0, nullptr},
};
#undef MEMBER

static PyType_Slot kSlots[] = {CLASS_SLOTS(CPerCodeObject)};

static PyType_Spec kSpec = {"optmonitoring.CPerCodeObject", sizeof(CPerCodeObjectBody), 0, kTypeBaseType, kSlots};

tClassInfo kPerCodeObjectClass = {"CPerCodeObject", &kSpec, kMembers, &gPerCodeObjectBodyOffset};
