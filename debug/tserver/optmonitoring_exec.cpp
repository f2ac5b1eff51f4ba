// The module's exec step, which fills the state, and its clearing.

#include <string.h>

#include <initializer_list>

#include "optmonitoring_docs.h"
#include "optmonitoring_internal.h"

// ---- sys.monitoring ----

struct tEventId {
    const char* event;
    const char* constant;
    int tModuleState::*field;
};

static const tEventId kEventIds[] = {
    {"LINE", "kPyLineEventId", &tModuleState::kPyLineEventId},
    {"PY_START", "kPyStartEventId", &tModuleState::kPyStartEventId},
    {"PY_RETURN", "kPyReturnEventId", &tModuleState::kPyReturnEventId},
    {"PY_YIELD", "kPyYieldEventId", &tModuleState::kPyYieldEventId},
    {"PY_RESUME", "kPyResumeEventId", &tModuleState::kPyResumeEventId},
};

static int publish_event_id(PyObject* module, tModuleState* m, PyObject* events, const tEventId& row)
{
    XPyOwned event(api.PyObject_GetAttrString(events, row.event));
    if (!event)
        return -1;
    Py_ssize_t id = py_int_as_ssize_t(event.borrow());
    if (id == -1 && api.PyErr_Occurred())
        return -1;
    m->*row.field = static_cast<int>(id);
    return api.PyObject_SetAttrString(module, row.constant, event.borrow());
}

static int read_monitoring(PyObject* module, tModuleState* m)
{
    PyObject* borrowed = api.PySys_GetObject("monitoring");
    if (!borrowed) {
        api.PyErr_SetString(api.PyExc_AttributeError, "No sys.monitoring attribute");
        return -1;
    }
    XPyOwned monitoring(XPy_NewRef(borrowed));
    m->monitoring_disabled = api.PyObject_GetAttrString(monitoring.borrow(), "DISABLE");
    if (!m->monitoring_disabled)
        return -1;
    XPyOwned events(api.PyObject_GetAttrString(monitoring.borrow(), "events"));
    if (!events)
        return -1;
    for (const tEventId& row : kEventIds) {
        if (publish_event_id(module, m, events.borrow(), row) < 0)
            return -1;
    }
    return 0;
}

// ---- The log, the file tables and the classes ----

static int create_tables(tModuleState* m)
{
    m->dp = create_dp_data();
    m->file_ops_data = m->dp ? create_file_ops_data(m->dp) : nullptr;
    if (!m->file_ops_data) {
        api.PyErr_NoMemory();
        return -1;
    }
    m->threading_mod = api.PyImport_ImportModule("threading");
    return m->threading_mod ? 0 : -1;
}

struct tClassStep {
    const tClassInfo* info;
    const char* doc;
    PyObject* tModuleState::*field;
    int (*class_init)(tModuleState* m);  // null: none
    const char* failure;                 // of class_init
};

static const tClassStep kClassSteps[] = {
    {&kInitialCallbackClass, kDocCInitialCallback, &tModuleState::CInitialCallback, nullptr, nullptr},
    {&kPerCodeObjectClass, kDocCPerCodeObject, &tModuleState::CPerCodeObject, CPerCodeObject_ClsInit,
     "Exception in CPerCodeObject_ClsInit\n"},
    {&kPerFileClass, kDocCPerFile, &tModuleState::CPerFile, CPerFile_ClsInit, "Exception in CPerFile_ClsInit\n"},
    {&kPerThreadClass, kDocCPerThread, &tModuleState::CPerThread, CPerThread_ClsInit,
     "Exception in CPerThread_ClsInit\n"},
};

// An attribute, not a slot: only people read it, the interpreter does not.
static int set_doc(PyObject* cls, const char* doc)
{
    XPyOwned text(api.PyUnicode_FromString(doc));
    return text ? api.PyObject_SetAttrString(cls, "__doc__", text.borrow()) : -1;
}

static int create_classes(PyObject* module, tModuleState* m)
{
    for (const tClassStep& step : kClassSteps) {
        m->*step.field = api.PyType_FromModuleAndSpec(module, step.info->spec, nullptr);
        if (!(m->*step.field) || set_doc(m->*step.field, step.doc) < 0)
            return -1;
        if (step.class_init && step.class_init(m) < 0)
            return fail_int(m->dp, step.failure);
        if (api.PyObject_SetAttrString(module, step.info->attribute, m->*step.field) < 0)
            return -1;
    }
    return 0;
}

static int request_code_extra_index(tModuleState* m)
{
    m->code_object_extra_index = static_cast<int>(api._PyEval_RequestCodeExtraIndex(FreeCodeObjectExtra));
    if (m->code_object_extra_index > 0) {
        // Others have used extra slots before, or a module of this kind that was loaded before: the array of a code
        // object's slots may have to move, which no event may read without a lock then.
        XPy_Store(&gMayReadSlots, false);
        wait_for_readers();
    }
    if (m->code_object_extra_index != -1)
        return 0;
    if (!api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_RuntimeError, "No code object extra index available");
    return -1;
}

// ---- Constants ----

struct tConstant {
    const char* name;
    int value;
};

static const tConstant kConstants[] = {
    {"kLogOther", kLogOther},
    {"kLogFilenames", kLogFilenames},
    {"kLogCore", kLogCore},
    {"kLogBreakpoints", kLogBreakpoints},
    {"kLogExceptions", kLogExceptions},
    {"kLogIO", kLogIO},
    {"kLogInternalFailures", kLogInternalFailures},
    {"kLogThreading", kLogThreading},
    {"kLogInitialMonitoringCallbacks", kLogInitialMonitoringCallbacks},
    {"kLogSecondMonitoringCallbacks", kLogSecondMonitoringCallbacks},
    {"kRegularPathname", kRegularPathname},
    {"kFrozenImportLibPathname", kFrozenImportLibPathname},
    {"kPseudoPathname", kPseudoPathname},
    {"kBrixShellPathname", kBrixShellPathname},
};

static int publish_constants(PyObject* module)
{
    for (const tConstant& constant : kConstants) {
        XPyOwned value(py_int_from_ssize_t(constant.value));
        if (!value || api.PyObject_SetAttrString(module, constant.name, value.borrow()) < 0)
            return -1;
    }
    return 0;
}

// ---- The host's log functions and the storage key ----

static int import_host_log(tModuleState* m)
{
    XPyOwned dlog(api.PyImport_ImportModule("brixbase.dlog"));
    if (!dlog)
        return -1;
    m->_Log = api.PyObject_GetAttrString(dlog.borrow(), "Log");
    if (!m->_Log)
        return -1;
    m->_LogException = api.PyObject_GetAttrString(dlog.borrow(), "LogException");
    return m->_LogException ? 0 : -1;
}

static int create_storage_key(tModuleState* m)
{
    m->_gPyTssKey = api.PyThread_tss_alloc();
    if (!m->_gPyTssKey) {
        api.PyErr_NoMemory();
        return -1;
    }
    if (api.PyThread_tss_create(m->_gPyTssKey) == 0)
        return 0;
    if (!api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_RuntimeError, "No thread-specific storage key available");
    return -1;
}

// ---- Exec and clear ----

static int exec_inner(PyObject* module, tModuleState* m)
{
    if (read_monitoring(module, m) < 0 || create_tables(m) < 0 || create_classes(module, m) < 0 ||
        request_code_extra_index(m) < 0)
        return -1;
    m->_gInternalPathnameDict = api.PyDict_New();
    if (!m->_gInternalPathnameDict)
        return -1;
    m->save_and_restore_errno = 1;
    m->_gThisProcessPid = api.cached_pid;
    if (publish_constants(module) < 0 || import_host_log(m) < 0)
        return -1;
    return create_storage_key(m);
}

int optmonitoring_exec(PyObject* module)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    if (!m) {
        if (!api.PyErr_Occurred())
            api.PyErr_SetString(api.PyExc_SystemError, "optmonitoring: the module has no state");
        return -1;
    }
    memset(m, 0, sizeof *m);
    CPerCodeObject_ForgetFindings(m);
    if (exec_inner(module, m) == 0)
        return 0;
    // The interpreter drops a module that failed here without clearing it.
    XPyHeldError held;
    optmonitoring_mod_clear(module);
    return -1;
}

tFileOpsData* need_file_ops(tModuleState* m, const tFileOpsUse& use)
{
    if (use.data())
        return use.data();
    bool was_cleared = !m->dp;
    api.PyErr_SetString(api.PyExc_RuntimeError, was_cleared
                                                    ? "optmonitoring has been cleared"
                                                    : "optmonitoring has no file tables; reset() makes new ones");
    return nullptr;
}

// Takes a pointer out of its field.
template <typename T>
static T* take(T** field)
{
    T* old = *field;
    *field = nullptr;
    return old;
}

int optmonitoring_mod_clear(PyObject* module)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    if (!m)
        return 0;
    if (m->dp)
        DO_DP(m->dp->core, "In optmonitoring_mod_clear\n");
    if (tFileOpsData* file_ops = take(&m->file_ops_data))
        destroy_file_ops_data(file_ops);
    CPerCodeObject_ForgetFindings(m);
    free_dp_data(take(&m->dp));
    for (PyObject* tModuleState::*field :
         {&tModuleState::CInitialCallback, &tModuleState::monitoring_disabled, &tModuleState::threading_mod,
          &tModuleState::CPerCodeObject, &tModuleState::CPerFile, &tModuleState::CPerThread,
          &tModuleState::_gInternalPathnameDict, &tModuleState::_Log, &tModuleState::_LogException})
        XPy_ClearField(&(m->*field));
    if (Py_tss_t* key = take(&m->_gPyTssKey))
        api.PyThread_tss_free(key);
    XPy_ClearField(&m->_gThreadStateDictKey);
    return 0;
}
