// CPerFile: the record of one source file, kept by canonical pathname and by checksum.

#include "optmonitoring_docs.h"
#include "optmonitoring_internal.h"

// ---- Class attributes ----

static tClassAttr per_files_dict = {{"_fPerFilesDict", nullptr}, {nullptr, 0}, nullptr, 0};
static tClassAttr by_checksum = {{"_fByChecksum", nullptr}, {nullptr, 0}, nullptr, 0};
static tClassAttr new_per_file_created_callback = {
    {"_fNewPerFileCreatedCallback", nullptr}, {nullptr, 0}, nullptr, 0};

static int set_new_dict(PyObject* cls, tClassAttr* attribute)
{
    XPyOwned dict(api.PyDict_New());
    return dict ? set_class_attr(cls, attribute, dict.borrow()) : -1;
}

int CPerFile_ClsInit(tModuleState* m)
{
    if (set_new_dict(m->CPerFile, &per_files_dict) < 0 || set_new_dict(m->CPerFile, &by_checksum) < 0)
        return -1;
    return set_class_attr(m->CPerFile, &new_per_file_created_callback, api.Py_None);
}

static int clear_class_dict(PyObject* cls, tClassAttr* attribute)
{
    XPyOwned dict(read_class_attr(cls, &attribute->name));
    XPyOwned cleared(dict ? api.PyObject_CallMethod(dict.borrow(), "clear", nullptr) : nullptr);
    return cleared ? 0 : -1;
}

int CPerFile_ClsReset(tModuleState* m)
{
    if (clear_class_dict(m->CPerFile, &per_files_dict) < 0 || clear_class_dict(m->CPerFile, &by_checksum) < 0)
        return -1;
    return set_class_attr(m->CPerFile, &new_per_file_created_callback, api.Py_None);
}

// ---- The index by checksum ----

// Without the interpreter lock one thread may take an emptied set out of the index while another adds a record to it:
// both look again afterwards.
static int put_back_if_used(PyObject* index, PyObject* checksum, PyObject* set)
{
    if (api.PySet_Size(set) == 0)
        return 0;
    XPyOwned entered;
    if (enter_unless_present(index, checksum, set, entered.out()) < 0)
        return -1;
    if (entered.borrow() == set)
        return 0;
    XPyOwned updated(api.PyObject_CallMethod(entered.borrow(), "update", "O", set));
    return updated ? 0 : -1;
}

// Takes the record out of a set of the index, and an emptied set out of the index.
static int discard_from_set(PyObject* index, PyObject* checksum, PyObject* set, PyObject* per_file)
{
    if (api.PySet_Discard(set, per_file) < 0)
        return -1;
    Py_ssize_t left = api.PySet_Size(set);
    if (left != 0)
        return left < 0 ? -1 : 0;
    if (!gIsLockOff)
        return api.PyObject_DelItem(index, checksum);
    return delete_item_if_present(index, checksum) < 0 ? -1 : put_back_if_used(index, checksum, set);
}

int CPerFile_UpdateByChecksum_direct(tModuleState* m, PyObject* per_file, PyObject* checksum, int16_t remove)
{
    CPerFileBody* body = per_file_body(per_file, as_type(m->CPerFile));
    if (!body)
        return -1;
    XPyOwned key(checksum == api.Py_None ? XPy_NewRefOfMember(per_file, &body->fChecksum) : XPy_NewRef(checksum));
    if (!key || key.borrow() == api.Py_None)
        return 0;  // files without a checksum are not indexed
    XPyOwned index(read_class_attr(m->CPerFile, &by_checksum.name));
    if (!index)
        return -1;
    XPyOwned set;
    if (get_item_if_present(index.borrow(), key.borrow(), set.out()) < 0)
        api.PyErr_Clear();  // any failed look-up counts as absent; an unusable key fails below
    if (remove)
        return set ? discard_from_set(index.borrow(), key.borrow(), set.borrow(), per_file) : 0;
    if (!set) {
        XPyOwned made(api.PySet_New(nullptr));
        if (!made || enter_unless_present(index.borrow(), key.borrow(), made.borrow(), set.out()) < 0)
            return -1;
    }
    if (api.PySet_Add(set.borrow(), per_file) < 0)
        return -1;
    return gIsLockOff ? put_back_if_used(index.borrow(), key.borrow(), set.borrow())
                      : 0;  // it was taken out meanwhile
}

// ---- Construction ----

static PyObject* get_checksum(tModuleState* m, PyObject* pathname)
{
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    return file_ops ? get_checksum_for_pathname(file_ops, pathname) : nullptr;
}

static int replace_field(PyObject* self, PyObject** field, PyObject* new_ref)
{
    XPyOwned owned(new_ref);
    if (!owned)
        return -1;
    XPy_SetMember(self, field, owned.borrow());
    return 0;
}

static int init_inner(tModuleState* m, PyObject* self, CPerFileBody* body, PyObject* pathname)
{
    XPy_SetMember(self, &body->fCanonicalPathname, pathname);
    if (replace_field(self, &body->fBpSetByLineno, api.PyDict_New()) < 0 ||
        replace_field(self, &body->fKnownPerCodeObjects, api.PySet_New(nullptr)) < 0 ||
        replace_field(self, &body->fChecksum, get_checksum(m, pathname)) < 0)
        return -1;
    return CPerFile_UpdateByChecksum_direct(m, self, api.Py_None, 0);
}

static int CPerFile_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CPerFileBody* body = m ? per_file_body(self, borrow_defining_class(self)) : nullptr;
    PyObject* pathname;
    if (!body || refuse_keywords(self, kwargs, "CPerFile") < 0 ||
        !api.PyArg_ParseTuple(args, "O:CPerFile.__init__", &pathname))
        return -1;
    return init_inner(m, self, body, pathname) < 0 ? fail_int(m->dp, "Exception in CPerFile.__init__\n") : 0;
}

static void CPerFile_finalize(PyObject* self)
{
    clear_object_members(self);
}

// ---- Look-up ----

// Takes a record that another thread was faster than out of the index again.
static void forget_late(PyObject* cls, PyObject* per_file)
{
    XPyHeldError held;
    tModuleState* m = state_of_class(as_type(cls));
    if (!m || CPerFile_UpdateByChecksum_direct(m, per_file, api.Py_None, 1) < 0)
        api.PyErr_Clear();
}

static PyObject* create_per_file(tDPData* dp, PyObject* cls, PyObject* dict, PyObject* pathname)
{
    XPyOwned per_file(api.PyObject_CallOneArg(cls, pathname));
    XPyOwned entered;
    if (!per_file || enter_unless_present(dict, pathname, per_file.borrow(), entered.out()) < 0)
        return nullptr;
    if (entered.borrow() != per_file.borrow()) {
        forget_late(cls, per_file.borrow());
        return entered.detach();
    }
    if (CallNewObjectCallback_direct(dp, cls, &new_per_file_created_callback, per_file.borrow()) < 0)
        return nullptr;
    return per_file.detach();
}

static PyObject* get_per_file_inner(tDPData* dp, PyObject* cls, PyObject* pathname, PyObject* create)
{
    XPyOwned dict(get_class_attr(cls, &per_files_dict));
    if (!dict)
        return nullptr;
    PyObject* per_file;
    int found = get_item_if_present(dict.borrow(), pathname, &per_file);
    if (found != 0)
        return found < 0 ? nullptr : per_file;
    int is_wanted = api.PyObject_IsTrue(create);
    if (is_wanted < 0)
        return nullptr;
    return is_wanted ? create_per_file(dp, cls, dict.borrow(), pathname) : new_none();
}

PyObject* CPerFile_GetPerFile_direct(tDPData* dp, PyObject* per_file_class, PyObject* pathname, PyObject* create)
{
    PyObject* per_file = get_per_file_inner(dp, per_file_class, pathname, create);
    return per_file ? per_file : fail_null(dp, "Exception in CPerFile_GetPerFile_direct()\n");
}

// ---- Class methods ----

static PyObject* CPerFile_GetPerFile(PyObject*, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                     PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject *pathname, *create;
    const tFastArgInfo infos[] = {
        {"pathname", 0, nullptr, &pathname}, {"create", 1, api.Py_True, &create}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0)
        return fail_null(m->dp, "Exception in CPerFile_GetPerFile()\n");
    return CPerFile_GetPerFile_direct(m->dp, reinterpret_cast<PyObject*>(cls), pathname, create);
}

static PyObject* get_set_for_checksum_inner(PyTypeObject* cls, PyObject* checksum)
{
    XPyOwned index(read_class_attr(reinterpret_cast<PyObject*>(cls), &by_checksum.name));
    if (!index)
        return nullptr;
    PyObject* set;
    int found = get_item_if_present(index.borrow(), checksum, &set);
    if (found != 0)
        return found < 0 ? nullptr : set;
    return api.PySet_New(nullptr);
}

static PyObject* CPerFile_GetPerFileSetForChecksum(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                   Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* checksum;
    const tFastArgInfo infos[] = {{"checksum", 0, nullptr, &checksum}, {nullptr, 0, nullptr, nullptr}};
    PyObject* set = nullptr;
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) == 0)
        set = get_set_for_checksum_inner(cls, checksum);
    // Kept: the text names another function.
    return set ? set : fail_null(m->dp, "Exception in CPerFile_GetPerFileForChecksum()\n");
}

static PyObject* get_all_inner(PyTypeObject* cls)
{
    XPyOwned dict(read_class_attr(reinterpret_cast<PyObject*>(cls), &per_files_dict.name));
    return dict ? api.PyDict_Values(dict.borrow()) : nullptr;
}

static PyObject* CPerFile_GetAllPerFiles(PyObject*, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                         PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* all = nullptr;
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) == 0)
        all = get_all_inner(cls);
    return all ? all : fail_null(m->dp, "Exception in CPerFile_GetAllPerFiles()\n");
}

static int set_new_per_file_created_callback(tModuleState* m, PyObject* callback)
{
    return set_class_attr(m->CPerFile, &new_per_file_created_callback, callback);
}

static PyObject* CPerFile_SetNewPerFileCreatedCallback(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                       Py_ssize_t nargs, PyObject* kwnames)
{
    // Kept: the text names another function.
    return call_hook_setter(cls, args, nargs, kwnames, set_new_per_file_created_callback,
                            "Exception in CPerFile_GetPerFile()\n");
}

// ---- Instance methods ----

static int update_checksum_inner(tModuleState* m, PyObject* self, CPerFileBody* body)
{
    XPyOwned pathname(XPy_NewRefOfMember(self, &body->fCanonicalPathname));
    if (!pathname) {
        api.PyErr_SetString(api.PyExc_AttributeError, "fCanonicalPathname");
        return -1;
    }
    XPyOwned checksum(get_checksum(m, pathname.borrow()));
    if (!checksum)
        return -1;
    XPyOwned old(XPy_NewRefOfMember(self, &body->fChecksum));
    if (!old)
        old.reset(new_none());
    int differs = api.PyObject_RichCompareBool(checksum.borrow(), old.borrow(), kPyNe);
    if (differs <= 0)
        return differs;
    // Kept: the record is added under the old checksum and taken out under the new one.
    if (CPerFile_UpdateByChecksum_direct(m, self, old.borrow(), 0) < 0)
        return -1;
    XPy_SetMember(self, &body->fChecksum, checksum.borrow());
    return CPerFile_UpdateByChecksum_direct(m, self, checksum.borrow(), 1);
}

static PyObject* CPerFile_UpdateChecksum(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                         PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    CPerFileBody* body = m ? per_file_body(self, cls) : nullptr;
    if (!body)
        return nullptr;
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) < 0 ||
        update_checksum_inner(m, self, body) < 0)
        return fail_null(m->dp, "Exception in CPerFile.UpdateChecksum\n");
    return new_none();
}

// ---- The class ----

static PyMethodDef kMethods[] = {
    {"GetPerFile", AS_METHOD(CPerFile_GetPerFile), kMethClass, kDocCPerFile_GetPerFile},
    {"GetPerFileSetForChecksum", AS_METHOD(CPerFile_GetPerFileSetForChecksum), kMethClass,
     kDocCPerFile_GetPerFileSetForChecksum},
    {"GetAllPerFiles", AS_METHOD(CPerFile_GetAllPerFiles), kMethClass, kDocCPerFile_GetAllPerFiles},
    {"SetNewPerFileCreatedCallback", AS_METHOD(CPerFile_SetNewPerFileCreatedCallback), kMethClass,
     kDocCPerFile_SetNewPerFileCreatedCallback},
    {"UpdateChecksum", AS_METHOD(CPerFile_UpdateChecksum), kMethInstance, kDocCPerFile_UpdateChecksum},
    {nullptr, nullptr, 0, nullptr},
};

static PyMemberDef kMembers[] = {
    MEMBER(CPerFile, fCanonicalPathname, kMemberObject, kMemberReadOnly),
    MEMBER(CPerFile, fBpSetByLineno, kMemberObject, kMemberReadOnly),
    MEMBER(CPerFile, fKnownPerCodeObjects, kMemberObject, kMemberReadOnly),
    MEMBER(CPerFile, fChecksum, kMemberObject, kMemberReadOnly),
    {nullptr, 0, 0, 0, nullptr},
};

static PyType_Slot kSlots[] = {CLASS_SLOTS(CPerFile)};

static PyType_Spec kSpec = {"optmonitoring.CPerFile", sizeof(CPerFileBody), 0, kTypeBaseType, kSlots};

tClassInfo kPerFileClass = {"CPerFile", &kSpec, kMembers, &gPerFileBodyOffset};
