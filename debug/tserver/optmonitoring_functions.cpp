// Module functions for the host: the canonical-name registry, checksums and the log, thin wraps around C operations.

#include "optmonitoring_internal.h"

static tModuleState* state_of_module(PyObject* module)
{
    return static_cast<tModuleState*>(api.PyModule_GetState(module));
}

// The module's log; null with an exception pending after a clear.
static tDPData* need_log(PyObject* module)
{
    tDPData* dp = state_of_module(module)->dp;
    if (!dp)
        api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring has been cleared");
    return dp;
}

// ---- Canonical names ----

// Parses the arguments that the three name functions share; false with an exception pending.
static bool parse_name_arguments(PyObject* args, PyObject* kwargs, const char* format, PyObject** pathname,
                                 PyObject** checksum)
{
    static const char* const kKeywords[] = {"pathname", "checksum", nullptr};
    *checksum = nullptr;
    return api.PyArg_ParseTupleAndKeywords(args, kwargs, format, const_cast<char**>(kKeywords), pathname, checksum);
}

PyObject* lookup_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    PyObject *pathname, *checksum;
    if (!parse_name_arguments(args, kwargs, "O|O:lookup_canonical_pathname", &pathname, &checksum))
        return nullptr;
    tModuleState* m = state_of_module(module);
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    return file_ops ? lookup_canonical_pathname_pystr(file_ops, pathname, checksum) : nullptr;
}

PyObject* register_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    PyObject *pathname, *checksum;
    if (!parse_name_arguments(args, kwargs, "O|O:register_canonical_pathname", &pathname, &checksum))
        return nullptr;
    tModuleState* m = state_of_module(module);
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    return file_ops ? register_canonical_pathname_pystr(file_ops, pathname, checksum) : nullptr;
}

static PyObject* get_canonical_inner(tModuleState* m, PyObject* pathname, PyObject* checksum)
{
    int kind = GetPathnameKind_direct(m->dp, pathname);
    if (kind < 0)
        return nullptr;
    if (kind == kPseudoPathname)
        return new_none();
    if (kind != kRegularPathname)
        return XPy_NewRef(pathname);
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    if (!file_ops)
        return nullptr;
    XPyOwned known(lookup_canonical_pathname_pystr(file_ops, pathname, checksum));
    if (!known || known.borrow() != api.Py_None)
        return known.detach();
    tFileOpsUse use_now(&m->file_ops_data);  // the log's file may have reset the module
    file_ops = need_file_ops(m, use_now);
    if (!file_ops)
        return nullptr;
    return register_canonical_pathname_pystr(file_ops, pathname, checksum);
}

PyObject* get_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of_module(module);
    PyObject *pathname, *checksum;
    if (!parse_name_arguments(args, kwargs, "O|O:get_canonical_pathname", &pathname, &checksum))
        return nullptr;
    PyObject* canonical = get_canonical_inner(m, pathname, checksum);
    return canonical ? canonical : fail_null(m->dp, "Failure in get_canonical_pathname()\n");
}

// ---- The checksum callback ----

PyObject* set_checksum_callback_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    static const char* const kKeywords[] = {"callback", nullptr};
    tModuleState* m = state_of_module(module);
    PyObject* callback;
    if (!api.PyArg_ParseTupleAndKeywords(args, kwargs, "O:set_checksum_callback", const_cast<char**>(kKeywords),
                                         &callback))
        return nullptr;
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    if (!file_ops || set_checksum_callback(file_ops, callback) != 0)
        return fail_null(m->dp, "Failure in set_checksum_callback()\n");
    return new_none();
}

PyObject* get_checksum_callback_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    static const char* const kKeywords[] = {nullptr};
    if (!api.PyArg_ParseTupleAndKeywords(args, kwargs, ":get_checksum_callback", const_cast<char**>(kKeywords)))
        return nullptr;
    tModuleState* m = state_of_module(module);
    tFileOpsUse use(&m->file_ops_data);
    tFileOpsData* file_ops = need_file_ops(m, use);
    return file_ops ? get_checksum_callback(file_ops) : nullptr;
}

// ---- The log ----

PyObject* set_dprintf_file_wrap(PyObject* module, PyObject* args)
{
    PyObject* file_obj;
    Py_ssize_t fileno, win32_handle;
    if (!api.PyArg_ParseTuple(args, "Onn:set_dprintf_file", &file_obj, &fileno, &win32_handle))
        return nullptr;
    set_dprintf_file(file_obj, static_cast<int>(fileno), reinterpret_cast<void*>(win32_handle));
    tDPData* dp = need_log(module);
    if (!dp)
        return nullptr;
    set_dp_data_file_obj(dp, file_obj, static_cast<int>(fileno), reinterpret_cast<void*>(win32_handle));
    return new_none();
}

PyObject* set_dprintf_mask_wrap(PyObject* module, PyObject* args)
{
    int mask;
    if (!api.PyArg_ParseTuple(args, "i:set_dprintf_mask", &mask))
        return nullptr;
    tDPData* dp = need_log(module);
    if (!dp)
        return nullptr;
    set_dp_data_mask(dp, mask);
    return new_none();
}

PyObject* get_dprintf_mask_wrap(PyObject* module, PyObject* args)
{
    // Kept: without a leading colon the parser reads the letters as format units, and every call is a TypeError.
    if (!api.PyArg_ParseTuple(args, "get_dprintf_mask"))
        return nullptr;
    tDPData* dp = need_log(module);
    return dp ? py_int_from_ssize_t(get_dp_data_mask(dp)) : nullptr;
}

// Writes a str to the log's shared channel; -1 with an exception pending.
static int write_to_log(tModuleState* m, PyObject* str)
{
    const char* text = api.PyUnicode_AsUTF8AndSize(str, nullptr);
    if (!text)
        return -1;
    if (m->dp)  // the callable may have cleared the module
        do_dp(&m->dp->shared_single_dp_data, "%s", text);
    return 0;
}

static int dprintf_inner(tModuleState* m, int domain, PyObject* s)
{
    bool has_output = m->dp && (valid_dp_py_file(m->dp) || valid_dp_native_file(m->dp));
    if (!has_output || !(domain & get_dp_data_mask(m->dp)))
        return 0;
    if (XPy_IsInstance(s, api.PyUnicode_Type_ptr))
        return write_to_log(m, s);
    if (api.PyCallable_Check(s)) {
        XPyOwned text(api.PyObject_CallNoArgs(s));
        if (!text)
            return -1;
        if (XPy_IsInstance(text.borrow(), api.PyUnicode_Type_ptr))
            return write_to_log(m, text.borrow());
    }
    api.PyErr_SetString(api.PyExc_TypeError, "s must be a string or a callable that returns a string");
    return -1;
}

PyObject* dprintf_wrap(PyObject* module, PyObject* args, PyObject* kwargs)
{
    static const char* const kKeywords[] = {"domain", "s", nullptr};
    int domain;
    PyObject* s;
    if (!api.PyArg_ParseTupleAndKeywords(args, kwargs, "iO:dprintf", const_cast<char**>(kKeywords), &domain, &s))
        return nullptr;
    tModuleState* m = state_of_module(module);
    if (dprintf_inner(m, domain, s) < 0)
        return fail_null(m->dp, "Failure in dprintf_wrap()\n");
    return new_none();
}
