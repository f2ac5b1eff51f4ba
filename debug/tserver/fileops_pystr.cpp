// The registry's face towards Python: names and checksums as string objects, and the host's checksum callback.

#include <string.h>

#include "dbgcommon.h"
#include "fileops_internal.h"

// ---- Conversions ----

static Py_ssize_t string_bytes(PyObject* str)
{
    Py_ssize_t length = -1;
    if (api.major_version < 3)
        return api.PyString_Size(str);
    api.PyUnicode_AsUTF8AndSize(str, &length);
    return length;
}

// The text of a string object [borrowed from it]; null with an exception pending.
static const char* text_of(PyObject* str)
{
    bool is_string = XPy_IsInstance(str, api.PyUnicode_Type_ptr) || XPy_IsInstance(str, api.PyString_Type_ptr);
    if (!is_string) {
        api.PyErr_SetString(api.PyExc_TypeError, "pathname must be a string");
        return nullptr;
    }
    const char* text = _pystring_to_c_string(str);
    if (!text) {
        api.PyErr_SetString(api.PyExc_ValueError, "pathname cannot be converted to UTF-8");
        return nullptr;
    }
    if (static_cast<size_t>(string_bytes(str)) != strlen(text)) {
        api.PyErr_SetString(api.PyExc_ValueError, "pathname has an embedded null character");
        return nullptr;
    }
    return text;
}

// The text of a checksum [borrowed from it]; null where there is none. A checksum only helps to find a name: one that
// is no text counts as none, or the host's mistake would leave its files without records.
static const char* checksum_text(PyObject* checksum)
{
    if (!checksum || checksum == api.Py_None)
        return nullptr;
    const char* text = text_of(checksum);
    if (!text)
        api.PyErr_Clear();
    return text;
}

static bool is_in_angle_brackets(const char* name)
{
    size_t length = strlen(name);
    return length > 0 && name[0] == '<' && name[length - 1] == '>';
}

static PyObject* new_string(const char* text)
{
    return api.major_version < 3 ? api.PyBytes_FromString(text) : api.PyUnicode_FromString(text);
}

// ---- Look-up and registration ----

PyObject* lookup_canonical_pathname_pystr(tFileOpsData* data, PyObject* pathname, PyObject* checksum)
{
    static const char kFailure[] = "Failure in get_canonical_pathname_pystr()\n";
    tFileOpsUse use(data);
    const char* name = text_of(pathname);
    if (!name)
        return fail_null(data->dp, kFailure);
    if (is_in_angle_brackets(name))
        return XPy_NewRef(pathname);
    const char* canonical = lookup_canonical_pathname(data, name, checksum_text(checksum));
    if (canonical)
        return new_string(canonical);
    if (api.PyErr_Occurred())
        return fail_null(data->dp, kFailure);
    return XPy_NewRef(api.Py_None);
}

PyObject* register_canonical_pathname_pystr(tFileOpsData* data, PyObject* pathname, PyObject* checksum)
{
    tFileOpsUse use(data);
    const char* name = text_of(pathname);
    if (!name)
        return nullptr;
    if (is_in_angle_brackets(name))
        return new_string(name);
    const char* canonical = register_canonical_pathname(data, name, checksum_text(checksum), nullptr);
    if (!canonical)
        return api.PyErr_Occurred() ? nullptr : XPy_NewRef(api.Py_None);
    DO_FILENAMES(data, "Registered canonical in register_canonical_pathname_pystr()\n");
    DO_FILENAMES(data, "  pathname=%s\n", name);
    DO_FILENAMES(data, "  canonical=%s\n", canonical);
    return new_string(canonical);
}

// ---- Checksums ----

int set_checksum_callback(tFileOpsData* data, PyObject* callable)
{
    XPy_SetFieldUnder(&gFileTablesLock, &data->checksum_callback, callable);
    return 0;
}

PyObject* get_checksum_callback(const tFileOpsData* data)
{
    return XPy_NewRefUnder(&gFileTablesLock, &data->checksum_callback);
}

PyObject* get_checksum_for_pathname(tFileOpsData* data, PyObject* pathname)
{
    XPyOwned callback(get_checksum_callback(data));
    if (!callback || callback.borrow() == api.Py_None)
        return XPy_NewRef(api.Py_None);
    tDPData* dp = data->dp;  // the callback may reset the module, which replaces the record but not its log
    PyObject* checksum = do_one_arg_call(callback.borrow(), pathname);
    if (checksum)
        return checksum;
    clear_failure(dp, "Failure in get_checksum_for_pathname()\n");
    return XPy_NewRef(api.Py_None);
}
