// Pathname kinds, the internal pathname table, and the frames that the user is to see.

#include <string.h>

#include "optmonitoring_internal.h"

static const char kFrozenPrefix[] = "<frozen";
static const char kBrixShellPrefix[] = "x-brixide-python-shell://";

// ---- Kinds ----

const char* need_utf8(PyObject* str, Py_ssize_t* length)
{
    const char* text = api.PyUnicode_AsUTF8AndSize(str, length);
    if (text && static_cast<size_t>(*length) != strlen(text)) {
        api.PyErr_SetString(api.PyExc_ValueError, "pathname has an embedded null character");
        return nullptr;
    }
    return text;
}

static int classify(const char* text, Py_ssize_t length)
{
    if (length == 0)
        return kPseudoPathname;
    if (text[0] == '<' && text[length - 1] == '>')
        return strncmp(text, kFrozenPrefix, sizeof kFrozenPrefix - 1) == 0 ? kFrozenImportLibPathname
                                                                           : kPseudoPathname;
    return strncmp(text, kBrixShellPrefix, sizeof kBrixShellPrefix - 1) == 0 ? kBrixShellPathname : kRegularPathname;
}

int GetPathnameKind_direct(tDPData* dp, PyObject* pathname)
{
    Py_ssize_t length;
    const char* text = api.PyUnicode_AsUTF8AndSize(pathname, &length);
    return text ? classify(text, length) : fail_int(dp, "Exception in GetPathnameKind_direct\n");
}

PyObject* GetPathnameKind(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    PyObject* pathname;
    const tFastArgInfo infos[] = {{"pathname", 0, nullptr, &pathname}, {nullptr, 0, nullptr, nullptr}};
    int kind = -1;
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) == 0)
        kind = GetPathnameKind_direct(m->dp, pathname);
    return kind < 0 ? fail_null(m->dp, "Exception in GetPathnameKind\n") : py_int_from_ssize_t(kind);
}

// ---- Internal pathnames ----

tSharedLock gInternalTableLock;

PyObject* new_internal_table(tModuleState* m)
{
    return XPy_NewRefUnder(&gInternalTableLock, &m->_gInternalPathnameDict);
}

int IsInternalPathname(tDPData* dp, PyObject* internal_table, PyObject* pathname)
{
    if (pathname == api.Py_None)
        return 0;
    if (!XPy_IsInstance(pathname, api.PyUnicode_Type_ptr)) {
        if (dp && dp->internal_failures)
            do_dp(dp->internal_failures, "IsInternalPathname() called with non-str instance: %s\n",
                  get_dprintf_repr_str1(dp, pathname));
        return 0;
    }
    if (!XPy_IsInstance(internal_table, api.PyDict_Type_ptr))
        return 0;
    XPyOwned table(XPy_NewRef(internal_table));  // comparing names may run code that replaces the table
    int is_key = api.PyDict_Contains(table.borrow(), pathname);
    if (is_key < 0)
        api.PyErr_Clear();
    return is_key == 1;
}

PyObject* SetInternalPathnameDict(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    PyObject* d;
    const tFastArgInfo infos[] = {{"d", 0, nullptr, &d}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0)
        return fail_null(m->dp, "Exception in SetInternalPathnameDict\n");
    XPy_SetFieldUnder(&gInternalTableLock, &m->_gInternalPathnameDict, d);
    return new_none();
}

// ---- Internal frames ----

static int is_internal_frame_inner(tModuleState* m, PyObject* frame)
{
    if (!is_frame_object(frame))
        return 0;
    XPyOwned code(get_frame_code(frame));
    if (!code) {
        if (!api.PyErr_Occurred())
            api.PyErr_SetString(api.PyExc_RuntimeError, "the frame has no code object");
        return -1;
    }
    XPyOwned record(CPerCodeObject_GetPerCodeObject_direct(m, code.borrow(), api.Py_True, frame));
    if (!record)
        return -1;
    if (record.borrow() != api.Py_None) {
        CPerCodeObjectBody* body = per_code_object_body(record.borrow(), as_type(m->CPerCodeObject));
        XPyOwned is_internal(XPy_NewRefOfMember(record.borrow(), &body->fIsInternal));
        return is_internal ? get_istrue(is_internal.borrow()) : 0;
    }
    XPyOwned pathname(CPerCodeObject_GetPathnameToUse_direct(m, code.borrow(), frame, 1));
    XPyOwned internal_table(pathname ? new_internal_table(m) : nullptr);
    return pathname ? IsInternalPathname(m->dp, internal_table.borrow(), pathname.borrow()) : -1;
}

int IsInternalFrame_direct(tModuleState* m, PyObject* frame)
{
    int is_internal = is_internal_frame_inner(m, frame);
    return is_internal < 0 ? fail_int(m->dp, "Exception in IsInternalFrame_direct\n") : is_internal;
}

PyObject* IsInternalFrame(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    PyObject* frame;
    const tFastArgInfo infos[] = {{"frame", 0, nullptr, &frame}, {nullptr, 0, nullptr, nullptr}};
    int is_internal = -1;
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) == 0)
        is_internal = IsInternalFrame_direct(m, frame);
    if (is_internal < 0)
        return fail_null(m->dp, "Exception in IsInternalFrame\n");
    return XPy_NewRef(is_internal ? api.Py_True : api.Py_False);
}

// Moves out of internal frames. A frame that cannot be classified counts as internal, so that the walk goes on past
// it; what went wrong there is in the log.
static void skip_internal_frames(tModuleState* m, XPyOwned* frame)
{
    while (*frame) {
        int is_internal = IsInternalFrame_direct(m, frame->borrow());
        if (is_internal == 0)
            return;
        if (is_internal < 0)
            api.PyErr_Clear();
        frame->reset(get_frame_back(frame->borrow()));
    }
}

static PyObject* get_non_internal_inner(tModuleState* m, PyObject* back_count)
{
    Py_ssize_t count = back_count == api.Py_None ? 0 : py_int_as_ssize_t(back_count);
    if (count == -1 && api.PyErr_Occurred())
        return nullptr;
    XPyOwned frame(get_thread_state_frame(api.PyThreadState_Get()));
    skip_internal_frames(m, &frame);
    for (; frame && count > 0; count--) {
        frame.reset(get_frame_back(frame.borrow()));
        skip_internal_frames(m, &frame);
    }
    return frame ? frame.detach() : new_none();
}

PyObject* GetNonInternalFrame_direct(tModuleState* m, PyObject* back_count)
{
    PyObject* frame = get_non_internal_inner(m, back_count);
    return frame ? frame : fail_null(m->dp, "Exception in GetNonInternalFrame_direct\n");
}

PyObject* GetNonInternalFrame(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    PyObject* back_count;
    const tFastArgInfo infos[] = {{"back_count", 0, api.Py_None, &back_count}, {nullptr, 0, nullptr, nullptr}};
    PyObject* frame = nullptr;
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) == 0)
        frame = GetNonInternalFrame_direct(m, back_count);
    return frame ? frame : fail_null(m->dp, "Exception in GetNonInternalFrame\n");
}
