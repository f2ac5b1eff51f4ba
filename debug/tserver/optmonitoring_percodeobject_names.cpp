// The two pathnames of a code object: the one to report and the canonical one.

#include <string.h>
#include <strings.h>

#include "optmonitoring_percodeobject_internal.h"

static constexpr int kLinenoNoPathname = 1784;

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
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    if (!file_ops)
        return nullptr;
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
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    if (!file_ops)
        return nullptr;
    XPyOwned known(lookup_canonical_pathname_pystr(file_ops, name, nullptr));
    tFileOpsUse use_again(&m->file_ops_data);  // the log's file may have reset the module
    file_ops = need_file_ops(m, use_again);
    if (!file_ops)
        return nullptr;
    if (!known || known.borrow() != api.Py_None)
        return known.detach();
    XPyOwned checksum(get_checksum_for_pathname(file_ops, name));
    tFileOpsUse use_now(&m->file_ops_data);  // the host's callback may have reset the module
    file_ops = need_file_ops(m, use_now);
    if (!checksum || !file_ops)
        return nullptr;
    XPyOwned registered(register_canonical_pathname_pystr(file_ops, name, checksum.borrow()));
    if (registered.borrow() != api.Py_None)
        return registered.detach();
    // A record without a canonical name would never get its file's breakpoints. The absolute name could be found, so
    // memory ran out.
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

// The names found, by the code's own file name: pairs of the name to report (None: the file name itself) and the
// canonical name. The keys are exact strs, so that looking one up runs no code of the program. They lie beside
// the module's state, whose fields are published; one dict for the process is enough: a second module in it starts
// over.
struct tKnownPathnames {
    tModuleState* owner;
    PyObject* dict;  // [owned], null: none
    // The name found last [owned], null: none. Code of one file mostly comes in a row: comparing addresses then
    // replaces a look-up.
    PyObject* last_filename;
    PyObject* last_pair;  // its pair [owned]
};
static tKnownPathnames known_pathnames;
tSharedLock gKnownPathnamesLock;

static bool is_owner(const tModuleState* m)
{
    return XPy_Load(&known_pathnames.owner) == m;
}

static void drop_known_pathnames(void)
{
    if (!gIsLockOff) {
        XPy_ClearField(&known_pathnames.last_filename);
        XPy_ClearField(&known_pathnames.last_pair);
    }
    XPy_SetFieldUnder(&gKnownPathnamesLock, &known_pathnames.dict, nullptr);
}

void forget_known_pathnames(tModuleState* m)
{
    if (is_owner(m))
        drop_known_pathnames();
}

// The module's dict of known names [new], made on first use; null with an exception pending.
static PyObject* new_known_pathnames(tModuleState* m)
{
    if (!is_owner(m)) {
        drop_known_pathnames();
        XPy_Store(&known_pathnames.owner, m);
    }
    PyObject* known = XPy_NewRefUnder(&gKnownPathnamesLock, &known_pathnames.dict);
    if (known)
        return known;
    XPyOwned made(api.PyDict_New());
    if (made)
        XPy_SetFieldUnder(&gKnownPathnamesLock, &known_pathnames.dict, made.borrow());
    return made.detach();
}

// The pair of a file name [borrowed]; null, and nothing pending, when it is not known.
static PyObject* borrow_known_pair(tModuleState* m, PyObject* filename)
{
    if (!known_pathnames.dict || !is_owner(m))
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

// The same where other threads change what is known: without the name found last. [new]
static PyObject* get_shared_known_pair(tModuleState* m, PyObject* filename)
{
    XPyOwned known(is_owner(m) ? XPy_NewRefUnder(&gKnownPathnamesLock, &known_pathnames.dict) : nullptr);
    PyObject* pair = nullptr;
    if (known && XPy_BorrowTypeInline(filename) == api.PyUnicode_Type_ptr &&
        api.PyDict_GetItemRef(known.borrow(), filename, &pair) < 0)
        api.PyErr_Clear();
    return pair;
}

static inline bool take_pathnames(PyObject* pair, PyObject* filename, tPathnames* names)
{
    if (!pair)
        return false;
    PyObject* to_report = api.PyTuple_GetItem(pair, 0);
    names->to_report.reset(XPy_NewRef(to_report == api.Py_None ? filename : to_report));
    names->canonical.reset(XPy_NewRef(api.PyTuple_GetItem(pair, 1)));
    return true;
}

bool find_known_pathnames(tModuleState* m, PyObject* filename, tPathnames* names)
{
    if (XPY_LIKELY(!gIsLockOff))
        return take_pathnames(borrow_known_pair(m, filename), filename, names);
    XPyOwned pair(get_shared_known_pair(m, filename));
    return take_pathnames(pair.borrow(), filename, names);
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
        api.PyErr_Clear();  // the kind may not have been found
        return;
    }
    PyObject* to_report = names.to_report.borrow();
    XPyOwned pair(make_pair(to_report == filename ? api.Py_None : to_report, names.canonical.borrow()));
    if (!pair || api.PyDict_SetItem(known, filename, pair.borrow()) < 0)
        api.PyErr_Clear();
}

int find_pathnames(tModuleState* m, PyObject* code, PyObject* frame, tPathnames* names)
{
    XPyOwned filename(get_code_filename(code));
    if (!filename) {
        fail_without_pathname();
        return -1;
    }
    if (find_known_pathnames(m, filename.borrow(), names))
        return 0;
    XPyOwned known(new_known_pathnames(m));
    if (!known)
        return -1;
    names->to_report.reset(CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 0));
    if (names->to_report)
        names->canonical.reset(CPerCodeObject_GetPathnameToUse_direct(m, code, frame, 1));
    if (!names->canonical)
        return -1;
    if (known.borrow() == XPy_Load(&known_pathnames.dict))  // the host's callback may have reset the module
        keep_pathnames(m, known.borrow(), filename.borrow(), *names);
    return 0;
}
