// reset(): back to the state after exec, for a new debug session.

#include "optmonitoring_internal.h"

// The same where other threads use the tables meanwhile: the new ones are there before the old ones go.
static int exchange_file_tables(tModuleState* m)
{
    tFileOpsData* made = create_file_ops_data(m->dp);
    tFileOpsData* old = replace_file_ops_data(&m->file_ops_data, made);
    if (old)
        destroy_file_ops_data(old);
    CPerCodeObject_ForgetFindings(m);
    if (made)
        return 0;
    api.PyErr_NoMemory();
    return -1;
}

static int replace_file_tables(tModuleState* m)
{
    if (gIsLockOff)
        return exchange_file_tables(m);
    while (tFileOpsData* old = m->file_ops_data) {  // what its end runs may reset the module, which makes a new one
        m->file_ops_data = nullptr;
        destroy_file_ops_data(old);
    }
    CPerCodeObject_ForgetFindings(m);
    m->file_ops_data = create_file_ops_data(m->dp);
    if (m->file_ops_data)
        return 0;
    api.PyErr_NoMemory();
    return -1;
}

static int reset_inner(tModuleState* m)
{
    if (!m->dp || !m->CPerThread) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring has been cleared");
        return -1;
    }
    clear_dp_data(m->dp);
    set_dp_data_mask(m->dp, 0);
    XPy_Store(&m->_gThisProcessPid, api.cached_pid);
    if (replace_file_tables(m) < 0)
        return -1;
    XPyOwned internal_table(new_internal_table(m));
    XPyOwned cleared(api.PyObject_CallMethod(internal_table.borrow(), "clear", nullptr));
    if (!cleared || CPerFile_ClsReset(m) < 0 || CPerCodeObject_ClsReset(m) < 0)
        return -1;
    return CPerThread_ClsReset(m);
}

PyObject* optmonitoring_reset(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) < 0 || reset_inner(m) < 0)
        return fail_null(m->dp, "Exception in optmonitoring_reset\n");
    return new_none();
}
