// The module's entry points, its definition and its smallest functions.

#include <limits.h>
#include <pthread.h>

#include <initializer_list>

#include "optmonitoring_internal.h"

static const char kDocSetDPrintfFile[] =
    "Set the dprintf file. Args are (file_obj, fileno, win32_handle), Invalid fileno is -1; invalid win32_handle is "
    "0";
static const char kDocDPrintfMask[] = "Set the dprintf mask -- use bitwise or'd (|'d) kLog* constants";
static const char kDocDPrintf[] =
    "dprintf(domain: int, s: str | callable) -- writes s to dprintf log if enabled for given domain. The s arg mayy "
    "be a callback to be called if domain is enabled; callable will be called w/o args and needs to return a str";

static PyMethodDef kMethods[] = {
    {"lookup_canonical_pathname", AS_METHOD(lookup_canonical_pathname_wrap), kMethVarargsKeywords, nullptr},
    {"register_canonical_pathname", AS_METHOD(register_canonical_pathname_wrap), kMethVarargsKeywords, nullptr},
    {"set_dprintf_file", AS_METHOD(set_dprintf_file_wrap), kMethVarargs, kDocSetDPrintfFile},
    {"set_dprintf_mask", AS_METHOD(set_dprintf_mask_wrap), kMethVarargs, kDocDPrintfMask},
    {"get_dprintf_mask", AS_METHOD(get_dprintf_mask_wrap), kMethVarargs, kDocDPrintfMask},  // Kept: the setter's text
    {"dprintf", AS_METHOD(dprintf_wrap), kMethVarargsKeywords, kDocDPrintf},
    {"get_canonical_pathname", AS_METHOD(get_canonical_pathname_wrap), kMethVarargsKeywords, nullptr},
    {"set_checksum_callback", AS_METHOD(set_checksum_callback_wrap), kMethVarargsKeywords, nullptr},
    {"get_checksum_callback", AS_METHOD(get_checksum_callback_wrap), kMethVarargsKeywords, nullptr},
    {"SetInternalPathnameDict", AS_METHOD(SetInternalPathnameDict), kMethFast, nullptr},
    {"IsInternalFrame", AS_METHOD(IsInternalFrame), kMethFast, nullptr},
    {"GetNonInternalFrame", AS_METHOD(GetNonInternalFrame), kMethFast, nullptr},
    {"GetPathnameKind", AS_METHOD(GetPathnameKind), kMethFast, nullptr},
    {"UpdateThisProcessPid", AS_METHOD(UpdateThisProcessPid), kMethFast, nullptr},
    {"AddToThreadStateTracing", AS_METHOD(AddToThreadStateTracing), kMethFast, nullptr},
    {"reset", AS_METHOD(optmonitoring_reset), kMethFast, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

static constexpr int kGilNotUsed = 1;  // the GIL slot's value

static XPyModuleDef module_def = {
    "optmonitoring",
    nullptr,  // no doc
    sizeof(tModuleState),
    kMethods,
    nullptr,  // no create function
    optmonitoring_exec,
    0,        // not supported in interpreters with a lock of their own
    0,        // no GIL slot, unless start-up finds that the module can do without the lock
    nullptr,  // no traverse
    optmonitoring_mod_clear,
    nullptr,  // no free
};

// ---- Start-up ----

static int16_t one_time_init_complete;
static int call_count;

// Makes body-relative sizes and offsets absolute, which fits the classes to this build's object head.
static void add_object_head(void)
{
    int head = static_cast<int>(api.pyobject_offsets.type) + static_cast<int>(sizeof(void*));
    const tClassInfo* const classes[] = {&kInitialCallbackClass, &kPerFileClass, &kPerCodeObjectClass,
                                         &kPerThreadClass};
    for (const tClassInfo* info : classes) {
        info->spec->basicsize += head;
        for (PyMemberDef* member = info->members; member->name; member++)
            member->offset += head;
    }
}

// A thread that waits for a lock may have been given it when another one forks: in the child it never gives it back.
static void begin_child(void)
{
    for (tSharedLock* lock :
         {&gLogLock, &gFileTablesLock, &gInternalTableLock, &gKnownPathnamesLock, &gLeftExceptionsLock, &gPairsLock})
        lock->bits = 0;
    forget_other_readers();
}

// What is otherwise made when it is first needed, perhaps by several threads at once; false when out of memory.
static bool begin_shared_state(void)
{
    static bool is_begun;
    if (!gIsLockOff || is_begun)
        return true;
    init_dp_data(&gUnsafeGlobalDPData, 0);
    borrow_current_thread_state_or_null();
    is_begun = pthread_atfork(nullptr, nullptr, begin_child) == 0;
    return is_begun;
}

// The definition as an object; interpreters that cannot load in two phases have no sys.monitoring either.
// Definitions are never freed, so one serves all imports.
static PyObject* init_module_def(void)
{
    static PyObject* definition;  // borrowed: no object of the heap
    if (!api.PyModuleDef_Init) {
        api.PyErr_SetString(api.PyExc_AttributeError, "No sys.monitoring attribute");
        return nullptr;
    }
    if (!definition)
        definition = XPyModuleDef_Init(&module_def);
    return definition;
}

PyObject* PyInit_optmonitoring(void)
{
    if (one_time_init_complete)
        return init_module_def();
    if (XPy_Initialize() != 0)
        return nullptr;
    call_count++;
    if (call_count == 1) {
        add_object_head();
        if (init_shared())
            module_def.m_no_gil_support_flag = kGilNotUsed;
        CInitialCallback_ChooseCallback();
        CPerCodeObject_MakeRoomForHeldLines();
        init_lineno_peek();
        init_class_versions();
    }
    if (!begin_shared_state())
        return api.PyErr_NoMemory();
    one_time_init_complete = 1;
    return init_module_def();
}

void initoptmonitoring(void)
{
    PyInit_optmonitoring();
}

// ---- Functions on the process and the thread ----

PyObject* UpdateThisProcessPid(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) < 0)
        return fail_null(m->dp, "Exception in UpdateThisProcessPid\n");
    XPy_Store(&m->_gThisProcessPid, api.cached_pid);
    return new_none();
}

// Whether the interpreter aborts when the tracing counter is taken below 0: a debug build, which alone has this
// function.
static bool aborts_below_zero(void)
{
    return XPy_LookupPythonFunction("_Py_NegativeRefcount") != nullptr;
}

static bool is_tracing_in_range(long long tracing)
{
    return tracing >= INT_MIN && tracing <= INT_MAX && (tracing >= 0 || !aborts_below_zero());
}

static int add_to_tracing_inner(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    PyObject* count_obj;
    const tFastArgInfo infos[] = {{"count", 0, nullptr, &count_obj}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0)
        return -1;
    Py_ssize_t count = py_int_as_ssize_t(count_obj);
    if (count == -1 && api.PyErr_Occurred())
        return -1;
    PyThreadState* tstate = api.PyThreadState_Get();
    long long result;
    if (__builtin_add_overflow(count, get_thread_state_tracing(tstate), &result) || !is_tracing_in_range(result)) {
        api.PyErr_SetString(api.PyExc_OverflowError, "the tracing counter would leave its range");
        return -1;
    }
    add_to_thread_state_tracing(tstate, count);
    return 0;
}

PyObject* AddToThreadStateTracing(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyModule_GetState(module));
    if (add_to_tracing_inner(args, nargs, kwnames) < 0)
        return fail_null(m->dp, "Exception in AddToThreadStateTracing\n");
    return new_none();
}
