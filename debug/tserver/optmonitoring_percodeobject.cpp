// CPerCodeObject: the record of one code object, its pathnames, construction and look-up.

#include <string.h>
#include <strings.h>

#include "optmonitoring_docs.h"
#include "optmonitoring_internal.h"

static constexpr int kLinenoNoPathname = 1784;

tClassAttr gNewPerCodeObjectCreatedCallback = {{"_fNewPerCodeObjectCreatedCallback", nullptr}, {nullptr, 0}, nullptr};

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
    if (!file_ops)
        return nullptr;
    tFileOpsUse use(file_ops);
    const char* absolute = get_absname(file_ops, text);
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
    file_ops = need_file_ops(m);  // the log's file may have reset the module
    if (!file_ops)
        return nullptr;
    if (!known || known.borrow() != api.Py_None)
        return known.detach();
    XPyOwned checksum(get_checksum_for_pathname(file_ops, name));
    file_ops = need_file_ops(m);  // the host's callback may have reset the module
    if (!checksum || !file_ops)
        return nullptr;
    XPyOwned registered(register_canonical_pathname_pystr(file_ops, name, checksum.borrow()));
    if (registered.borrow() != api.Py_None)
        return registered.detach();
    // A record without a canonical name would miss its file's breakpoints for good. The absolute name was to be had,
    // so what was missing is memory.
    api.PyErr_NoMemory();
    return nullptr;
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

static PyObject* fail_without_pathname(void)
{
    if (!api.PyErr_Occurred())
        api._PyErr_BadInternalCall(kSourceName, kLinenoNoPathname);
    return nullptr;
}

PyObject* CPerCodeObject_GetPathnameToUse_direct(tModuleState* m, PyObject* code, PyObject* frame, int16_t canonical)
{
    PyObject* pathname = get_pathname_inner(m, code, frame, canonical);
    return pathname ? pathname : fail_without_pathname();
}

// ---- Both names of a code object ----
// Once found, the names of a regular file stay what they are for as long as the file tables live: an absolute name, a
// stat result and a registration are never taken back. So they are kept by the code's own file name, and the code
// objects of a file that has been seen share them.

struct tPathnames {
    XPyOwned to_report;
    XPyOwned canonical;
};

// The names found, by the code's own file name: pairs of the name to report (None: the file name itself) and the
// canonical name. The keys are exact strs, so that looking one up runs no code of the program. One dict for the
// process is enough: a second module in it starts over.
struct tKnownPathnames {
    tModuleState* owner;
    PyObject* dict;           // [owned], null: none
    PyObject* last_filename;  // the name found last [owned], null: none; code of one file mostly comes in a row
    PyObject* last_pair;      // its pair [owned]
};
static tKnownPathnames known_pathnames;

static tClassMark plainly_constructed;  // the class makes records as its own functions do, nobody's else

static void drop_known_pathnames(void)
{
    XPy_ClearField(&known_pathnames.last_filename);
    XPy_ClearField(&known_pathnames.last_pair);
    XPy_ClearField(&known_pathnames.dict);
}

void CPerCodeObject_ForgetFindings(tModuleState* m)
{
    plainly_constructed.cls = nullptr;
    if (known_pathnames.owner == m)
        drop_known_pathnames();
}

// The module's dict of known names [borrowed], made on first use; null with an exception pending.
static PyObject* borrow_known_pathnames(tModuleState* m)
{
    if (known_pathnames.owner != m)
        drop_known_pathnames();
    known_pathnames.owner = m;
    if (!known_pathnames.dict)
        known_pathnames.dict = api.PyDict_New();
    return known_pathnames.dict;
}

// The pair of a file name [borrowed]; null, and nothing pending, when it is not known.
static PyObject* borrow_known_pair(tModuleState* m, PyObject* filename)
{
    if (!known_pathnames.dict || known_pathnames.owner != m)
        return nullptr;
    if (filename == known_pathnames.last_filename)
        return known_pathnames.last_pair;
    if (XPy_BorrowTypeInline(filename) != api.PyUnicode_Type_ptr)
        return nullptr;
    PyObject* pair = api.PyDict_GetItemWithError(known_pathnames.dict, filename);
    if (pair) {
        XPy_SetField(&known_pathnames.last_filename, filename);
        XPy_SetField(&known_pathnames.last_pair, pair);
    } else if (api.PyErr_Occurred()) {
        api.PyErr_Clear();
    }
    return pair;
}

static bool find_known_pathnames(tModuleState* m, PyObject* filename, tPathnames* names)
{
    PyObject* pair = borrow_known_pair(m, filename);
    if (!pair)
        return false;
    PyObject* to_report = api.PyTuple_GetItem(pair, 0);
    names->to_report.reset(XPy_NewRef(to_report == api.Py_None ? filename : to_report));
    names->canonical.reset(XPy_NewRef(api.PyTuple_GetItem(pair, 1)));
    return true;
}

static PyObject* make_pair(PyObject* first, PyObject* second)
{
    XPyOwned pair(api.PyTuple_New(2));
    bool is_filled = pair && api.PyTuple_SetItem(pair.borrow(), 0, XPy_NewRef(first)) == 0 &&
                     api.PyTuple_SetItem(pair.borrow(), 1, XPy_NewRef(second)) == 0;
    return is_filled ? pair.detach() : nullptr;
}

// Keeps the names of a regular file in KNOWN; a failure to do so costs nothing but time.
static void keep_pathnames(tModuleState* m, PyObject* known, PyObject* filename, const tPathnames& names)
{
    bool is_kept = XPy_BorrowTypeInline(filename) == api.PyUnicode_Type_ptr &&
                   XPy_BorrowTypeInline(names.canonical.borrow()) == api.PyUnicode_Type_ptr &&
                   GetPathnameKind_direct(m->dp, filename) == kRegularPathname;
    if (!is_kept) {
        api.PyErr_Clear();  // of a kind that could not be told
        return;
    }
    PyObject* to_report = names.to_report.borrow();
    XPyOwned pair(make_pair(to_report == filename ? api.Py_None : to_report, names.canonical.borrow()));
    if (!pair || api.PyDict_SetItem(known, filename, pair.borrow()) < 0)
        api.PyErr_Clear();
}

// The pathname to report and the canonical one; -1 with an exception pending.
static int find_pathnames(tModuleState* m, PyObject* code, PyObject* frame, tPathnames* names)
{
    XPyOwned filename(get_code_filename(code));
    if (!filename) {
        fail_without_pathname();
        return -1;
    }
    if (find_known_pathnames(m, filename.borrow(), names))
        return 0;
    XPyOwned known(XPy_NewRef(borrow_known_pathnames(m)));
    if (!known)
        return -1;
    names->to_report.reset(CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 0));
    if (names->to_report)
        names->canonical.reset(CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 1));
    if (!names->canonical)
        return -1;
    if (known.borrow() == known_pathnames.dict)  // the host's callback may have reset the module
        keep_pathnames(m, known.borrow(), filename.borrow(), *names);
    return 0;
}

// ---- Construction ----

static PyObject* get_death_callback(PyObject* self)
{
    static tNameCache cb_code_object_dealloc = {"_cb_code_object_dealloc", nullptr};
    return get_cached_attr(self, &cb_code_object_dealloc);
}

// Sets the weak reference, whose callback [steals], perhaps null, keeps the record alive until its code object dies.
static int set_weak_ref(CPerCodeObjectBody* body, PyObject* code, PyObject* death_callback)
{
    XPyOwned on_death(death_callback);
    XPyOwned weak_ref(on_death ? api.PyWeakref_NewRef(code, on_death.borrow()) : nullptr);
    if (!weak_ref)
        return -1;
    XPy_SetField(&body->fCodeObjectWeakRef, weak_ref.borrow());
    return 0;
}

static void fill_body(tModuleState* m, CPerCodeObjectBody* body, PyObject* frame, const tPathnames& names)
{
    PyObject* canonical = names.canonical.borrow();
    XPy_SetField(&body->fCanonicalPathname, canonical);
    XPy_SetField(&body->fPathnameToReport, names.to_report.borrow());
    bool is_internal = IsInternalPathname(m->dp, m->_gInternalPathnameDict, canonical);
    XPy_SetField(&body->fIsInternal, is_internal ? api.Py_True : api.Py_False);
    XPy_SetField(&body->fEnabledBpLinenos, api.Py_None);
    body->fSteppingEventsNeededCount = 0;
    body->fReturnEventsNeededCount = 0;
    body->fUpdatePathnameNeeded = frame == api.Py_None;
}

// Takes a half-made record apart: its weak reference, if it has one, would keep it alive for nothing.
static void undo_start(PyObject* self)
{
    XPyHeldError held;
    clear_object_members(self);
}

// Takes a record that could not be registered apart again: its weak reference would keep it alive for nothing.
static void undo_construction(tModuleState* m, PyObject* self)
{
    XPyHeldError held;
    if (CPerCodeObject_RemoveFromPerFile_direct(m, self) < 0)
        api.PyErr_Clear();
    clear_object_members(self);
}

// Makes a record out of SELF, which may have its weak reference already, and whose NAMES may be known already.
static int construct(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame,
                     tPathnames* names)
{
    bool is_started = (names->canonical || find_pathnames(m, code, frame, names) == 0) &&
                      (body->fCodeObjectWeakRef || set_weak_ref(body, code, get_death_callback(self)) == 0);
    if (is_started)
        fill_body(m, body, frame, *names);
    if (!is_started || CPerCodeObject_AddToPerFile_direct(m, self) < 0) {
        undo_start(self);
        return -1;
    }
    if (CPerCodeObject_RegisterPerCodeObject_direct(m, self, code) < 0) {
        undo_construction(m, self);
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
    return construct(m, self, body, code, frame, &names);
}

static const char kInitFailure[] = "Exception in CPerCodeObject.__init__\n";

static int CPerCodeObject_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CPerCodeObjectBody* body = m ? per_code_object_body(self, borrow_defining_class(self)) : nullptr;
    PyObject *code, *frame;
    if (!body || refuse_keywords(self, kwargs, "CPerCodeObject") < 0 ||
        !api.PyArg_ParseTuple(args, "OO:CPerCodeObject.__init__", &code, &frame))
        return -1;
    return init_inner(m, self, body, code, frame) < 0 ? fail_int(m->dp, kInitFailure) : 0;
}

static void CPerCodeObject_finalize(PyObject* self)
{
    clear_object_members(self);
}

// ---- Look-up ----

PyObject* CPerCodeObject_Create_direct(tModuleState* m, PyObject* code, PyObject* frame)
{
    XPyOwned record(do_two_arg_call(m->CPerCodeObject, code, frame));
    bool is_usable = record && (record.borrow() == api.Py_None || need_per_code_object(m, record.borrow()));
    return is_usable ? record.detach() : nullptr;
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
        return CPerCodeObject_Create_direct(m, code, frame);
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
    if (set_class_attr(m->CPerCodeObject, &gNewPerCodeObjectCreatedCallback, callback) < 0)
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

// ---- The first event of a code object ----
// What a call of the class does, without the call, while nobody has replaced the class's construction. The record's
// own weak reference serves to find out that no other record is registered: the hash of a code object, which costs
// more than the rest of a look-up, is then computed once.

typedef PyObject* (*tNew)(PyTypeObject*, PyObject*, PyObject*);

static tNew make_instance;  // its __new__ then

// The death callback, if it is what the record's attribute is. [new], or null, perhaps with an exception pending.
static PyObject* make_death_callback(PyObject* self, PyTypeObject* cls)
{
    return api.PyCMethod_New(&kMethods[kDeathCallback], self, nullptr, cls);
}

static bool has_plain_death_callback(PyObject* self, PyTypeObject* cls)
{
    XPyOwned ours(make_death_callback(self, cls));
    XPyOwned theirs(ours ? get_death_callback(self) : nullptr);
    return ours && theirs && XPy_BorrowTypeInline(ours.borrow()) == XPy_BorrowTypeInline(theirs.borrow()) &&
           api.PyObject_RichCompareBool(ours.borrow(), theirs.borrow(), kPyEq) == 1;
}

static PyObject* make_blank(PyTypeObject* cls)
{
    XPyOwned no_args(api.PyTuple_New(0));
    return no_args ? make_instance(cls, no_args.borrow(), nullptr) : nullptr;
}

// Finds out whether the class constructs plainly, and marks it so.
XPY_COLD static void examine_class(PyTypeObject* cls)
{
    void* make = api.PyType_GetSlot(cls, kSlotTpNew);
    make_instance = reinterpret_cast<tNew>(make);
    bool is_plain = api.PyType_GetSlot(cls, kSlotTpInit) == reinterpret_cast<void*>(CPerCodeObject_init) &&
                    make == api.PyType_GetSlot(borrow_base(cls), kSlotTpNew);
    XPyOwned sample(is_plain ? make_blank(cls) : nullptr);
    if (sample && has_plain_death_callback(sample.borrow(), cls))
        mark_class(&plainly_constructed, cls);
}

// An instance [new]; null, perhaps with an exception pending, when construction was replaced.
static PyObject* make_plain_instance(PyTypeObject* cls)
{
    if (XPY_UNLIKELY(!is_as_marked(&plainly_constructed, cls))) {
        plainly_constructed.cls = nullptr;
        if (gTypeVersionOffset != -1)
            examine_class(cls);
    }
    return plainly_constructed.cls ? make_blank(cls) : nullptr;
}

// Whether the registry surely has no record of this code object; an exception may be pending if not.
static bool is_surely_unregistered(tModuleState* m, CPerCodeObjectBody* body, PyObject* code)
{
    XPyOwned dict(CPerCodeObject_GetPlainRegistry(m));
    if (!dict)
        return false;
    XPyOwned other;
    int found = api.PyDict_Contains(dict.borrow(), body->fCodeObjectWeakRef);
    if (found <= 0)
        return found == 0;
    if (api.PyDict_GetItemRef(dict.borrow(), body->fCodeObjectWeakRef, other.out()) <= 0)
        return false;
    CPerCodeObjectBody* other_body = need_per_code_object(m, other.borrow());
    return other_body && CPerCodeObject_BelongsTo(other_body, code) == 0;
}

// An instance with its weak reference, for a code object that surely has no record. [new], or null and nothing
// pending.
static PyObject* start_record(tModuleState* m, PyObject* code)
{
    PyTypeObject* cls = as_type(m->CPerCodeObject);
    XPyOwned self(make_plain_instance(cls));
    CPerCodeObjectBody* body = self ? per_code_object_body(self.borrow(), cls) : nullptr;
    if (body && set_weak_ref(body, code, make_death_callback(self.borrow(), cls)) == 0 &&
        is_surely_unregistered(m, body, code))
        return self.detach();
    api.PyErr_Clear();
    if (self)
        undo_start(self.borrow());
    return nullptr;
}

PyObject* get_running_frame(void)
{
    PyObject* frame = get_thread_state_frame(api.PyThreadState_Get());
    return frame || api.PyErr_Occurred() ? frame : new_none();
}

// The frame for the record of CODE. [new] Of a record whose names are known, nothing is asked but whether there is
// one, which anything but None answers.
static PyObject* get_frame_for(PyObject* code, const tPathnames& names)
{
    if (names.canonical && is_surely_running(api.PyThreadState_Get(), code))
        return XPy_NewRef(api.Py_True);
    return get_running_frame();
}

bool CPerCodeObject_CreateShortly(tModuleState* m, PyObject* code, PyObject** record)
{
    void* extra = nullptr;
    bool is_first = api._PyCode_GetExtra(code, m->code_object_extra_index, &extra) == 0 && !extra;
    XPyOwned filename(is_first ? get_code_filename(code) : nullptr);
    tPathnames names;
    if (filename)
        find_known_pathnames(m, filename.borrow(), &names);
    XPyOwned frame(filename ? get_frame_for(code, names) : nullptr);
    XPyOwned self(frame ? start_record(m, code) : nullptr);
    if (!self) {
        api.PyErr_Clear();
        return false;
    }
    CPerCodeObjectBody* body = per_code_object_body(self.borrow(), as_type(m->CPerCodeObject));
    bool is_made = construct(m, self.borrow(), body, code, frame.borrow(), &names) == 0;
    *record = is_made ? self.detach() : fail_null(m->dp, kInitFailure);
    return true;
}

// ---- The class ----

#define MEMBER(name, type, flags)                                                         \
    {                                                                                     \
#name, type, offsetof(CPerCodeObjectBody, name), flags, kDocCPerCodeObject_##name \
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
