// CPerThread: the record of one thread, its construction, registry, hooks and policy.

#include <limits.h>

#include <initializer_list>

#include "optmonitoring_docs.h"
#include "optmonitoring_internal.h"

static constexpr int kLinenoNotPerThread = 3682;

CPerThreadBody* need_per_thread(tModuleState* m, PyObject* obj)
{
    if (!XPy_IsInstance(obj, as_type(m->CPerThread))) {
        api.PyErr_SetString(api.PyExc_TypeError, "the object is not a CPerThread");
        return nullptr;
    }
    return per_thread_body(obj, as_type(m->CPerThread));
}

// ---- Class attributes ----

static tClassAttr per_thread_dict = {{"_fPerThreadDict", nullptr}, {nullptr, 0}, nullptr, 0};
tClassAttr gDebugPolicyCallback = {{"_fDebugPolicyCallback", nullptr}, {nullptr, 0}, nullptr, 0};
static tClassAttr new_per_thread_created_callback = {
    {"_fNewPerThreadCreatedCallback", nullptr}, {nullptr, 0}, nullptr, 0};
tClassAttr gGetThreadNameCallback = {{"_fGetThreadNameCallback", nullptr}, {nullptr, 0}, nullptr, 0};

PyObject* CPerThread_get_fPerThreadDict(tModuleState* m)
{
    return get_class_attr_or_make(m->CPerThread, &per_thread_dict, api.PyDict_New);
}

static int clear_hooks(tModuleState* m)
{
    for (tClassAttr* hook : {&gDebugPolicyCallback, &new_per_thread_created_callback, &gGetThreadNameCallback}) {
        if (set_class_attr(m->CPerThread, hook, api.Py_None) < 0)
            return -1;
    }
    return 0;
}

int CPerThread_ClsInit(tModuleState* m)
{
    XPyOwned dict(api.PyDict_New());
    if (!dict || set_class_attr(m->CPerThread, &per_thread_dict, dict.borrow()) < 0 || clear_hooks(m) < 0)
        return -1;
    PyObject* builtins = api.PyEval_GetBuiltins();
    PyObject* object_class = builtins ? api.PyDict_GetItemString(builtins, "object") : nullptr;
    if (!object_class) {
        if (!api.PyErr_Occurred())
            api.PyErr_SetString(api.PyExc_RuntimeError, "the builtins have no \"object\"");
        return -1;
    }
    m->_gThreadStateDictKey = api.PyObject_CallNoArgs(object_class);
    return m->_gThreadStateDictKey ? 0 : -1;
}

int CPerThread_ClsReset(tModuleState* m)
{
    if (CPerThread_ClearPerThreadForCurrentThread(m) != 0) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "the thread's storage slot could not be cleared");
        return -1;
    }
    PyObject* tstate_dict = api.PyThreadState_GetDict();
    if (tstate_dict && m->_gThreadStateDictKey && api.PyObject_DelItem(tstate_dict, m->_gThreadStateDictKey) < 0)
        api.PyErr_Clear();
    XPyOwned dict(CPerThread_get_fPerThreadDict(m));
    XPyOwned cleared(dict ? api.PyObject_CallMethod(dict.borrow(), "clear", nullptr) : nullptr);
    return cleared ? clear_hooks(m) : -1;
}

// ---- Construction ----

static PyObject* CreateThreadingLock(tModuleState* m)
{
    PyObject* lock = nullptr;
    if (m->threading_mod)
        lock = api.PyObject_CallMethod(m->threading_mod, "Lock", nullptr);
    else
        api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring has been cleared");
    return lock ? lock : fail_null(m->dp, "Exception in CreateThreadingLock()\n");
}

// Where several threads may miss a thread's record at once: enters this one in the registry. 1: another one is there,
// 0: it is in, -1 with an exception pending.
static int register_announced(tModuleState* m, PyObject* self, PyObject* thread_id, tAnnounced* announced)
{
    XPyOwned dict(CPerThread_get_fPerThreadDict(m));
    XPyOwned registered;
    if (!dict || enter_unless_present(dict.borrow(), thread_id, self, registered.out()) < 0)
        return -1;
    if (registered.borrow() == self)
        return 0;
    announced->set_late();
    return 1;
}

static int CPerThread_RegisterPerThread_direct(tModuleState* m, PyObject* self, CPerThreadBody* body)
{
    static const char kFailure[] = "Exception in CPerThread_RegisterPerThread_direct()\n";
    if (CPerThread_TryRegisterThreadStateDictCapsule_direct(m, self) < 0)
        return fail_int(m->dp, kFailure);
    XPyOwned dict(CPerThread_get_fPerThreadDict(m));
    XPyOwned id(dict ? XPy_NewRefOfMember(self, &body->fThreadId) : nullptr);
    if (id && api.PyObject_SetItem(dict.borrow(), id.borrow(), self) == 0)
        return 0;
    report_failure(m->dp, kFailure);
    return -1;
}

// Takes the capsule of a record that could not be registered out of this thread's dict again.
static void withdraw_capsule(tModuleState* m, CPerThreadBody* body)
{
    PyObject* tstate_dict = body->capsule_ptr ? api.PyThreadState_GetDict() : nullptr;
    if (!tstate_dict)
        return;
    XPyHeldError held;
    if (api.PyObject_DelItem(tstate_dict, m->_gThreadStateDictKey) < 0)
        api.PyErr_Clear();
}

// ADD-MEMBER: its initial value, here or in init_inner() if making it can fail.
static void set_initial_values(tModuleState* m, PyObject* module, CPerThreadBody* body, PyObject* thread_id)
{
    body->mod = XPy_NewRef(module);
    body->mod_state = m;
    body->fThreadId = XPy_NewRef(thread_id);
    body->fSteppingEventsNeeded = 0;
    body->fOuterMostFrame = new_none();
    body->fStopFrame = new_none();
    body->fDontStopLinenoRange = new_none();
    body->fReturnFrame = new_none();
    body->fStopAtNextLine = XPy_NewRef(api.Py_False);
    body->fDebugPolicy = -1;
    body->fCheckSuspendLock = 0;
    body->fThreadName = new_none();
    body->fExitingWithException = 0;
}

static int init_inner(tModuleState* m, PyObject* self, CPerThreadBody* body, PyObject* thread_id)
{
    PyObject* module = borrow_module_of(self);
    if (!module)
        return -1;
    if (body->mod) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "CPerThread is already initialized");
        return -1;
    }
    clear_object_members(self);  // what the host set before
    set_initial_values(m, module, body, thread_id);
    body->fSuspendLock = CreateThreadingLock(m);
    if (!body->fSuspendLock)
        return -1;
    body->fSteppingCodeObjects = api.PySet_New(nullptr);
    if (!body->fSteppingCodeObjects)
        return -1;
    tAnnounced* announced = tAnnounced::take(thread_id);
    int is_late = announced ? register_announced(m, self, thread_id, announced) : 0;
    if (is_late > 0)
        return CPerThread_Clear_direct(m, self);  // nobody has seen it
    if (is_late < 0 || CPerThread_RegisterPerThread_direct(m, self, body) < 0) {
        withdraw_capsule(m, body);
        return -1;
    }
    return CallNewObjectCallback_direct(m->dp, m->CPerThread, &new_per_thread_created_callback, self);
}

static int CPerThread_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CPerThreadBody* body = m ? per_thread_body(self, borrow_defining_class(self)) : nullptr;
    if (!body)
        return -1;
    PyObject* thread_id;
    if (refuse_keywords(self, kwargs, "CPerThread") < 0 ||
        !api.PyArg_ParseTuple(args, "O:CPerThread.__init__", &thread_id) || init_inner(m, self, body, thread_id) < 0)
        return fail_int(m->dp, "Exception in CPerThread.__init__\n");
    return 0;
}

static void CPerThread_finalize(PyObject* self)
{
    XPyHeldError held;
    CPerThreadBody* body = per_thread_body(self, borrow_defining_class(self));
    tModuleState* m = body ? body->mod_state : nullptr;
    // While the capsule owns a reference, the record is not dying: somebody has called __del__() on it. Clearing it
    // would leave a capsule that leads to a record which it does not hold.
    bool is_held = body && body->capsule_ptr;
    if (!is_held && CPerThread_Clear_direct(m, self) < 0)
        clear_failure(dp_of(m), "Exception in CPerThread_finalize()\n");
}

bool CPerThread_HasOwnFinalizer(PyObject* per_thread)
{
    void* finalizer = api.PyType_GetSlot(XPy_BorrowTypeInline(per_thread), kSlotTpFinalize);
    return finalizer == reinterpret_cast<void*>(CPerThread_finalize);
}

// ---- Look-up ----

// A call of the class; where another thread registers a record of the same id first, that one. [new] or null.
static PyObject* create_missing(tModuleState* m, PyObject* dict, PyObject* thread_id)
{
    for (;;) {
        tAnnounced announced(thread_id);
        XPyOwned made(api.PyObject_CallOneArg(m->CPerThread, thread_id));
        if (!announced.is_late())
            return made.detach();
        made.reset(nullptr);
        int found = get_item_if_present(dict, thread_id, made.out());
        if (found != 0)
            return found < 0 || !need_per_thread(m, made.borrow()) ? nullptr : made.detach();
    }
}

static PyObject* slow_get_inner(tModuleState* m, PyObject* thread_id, PyObject* create)
{
    XPyOwned key;
    if (thread_id == api.Py_None) {
        key.reset(api.PyLong_FromLongLong(static_cast<long long>(api.PyThread_get_thread_ident())));
        if (!key)
            return nullptr;
    } else {
        if (api.PyLong_AsLongLong(thread_id) == -1 && api.PyErr_Occurred())
            return nullptr;
        key.reset(XPy_NewRef(thread_id));
    }
    XPyOwned dict(CPerThread_get_fPerThreadDict(m));
    if (!dict)
        return nullptr;
    XPyOwned per_thread;
    int found = get_item_if_present(dict.borrow(), key.borrow(), per_thread.out());
    if (found < 0)
        return nullptr;
    if (found)
        return need_per_thread(m, per_thread.borrow()) ? per_thread.detach() : nullptr;
    int is_wanted = get_istrue(create);
    if (is_wanted < 0)
        return nullptr;
    return is_wanted ? create_missing(m, dict.borrow(), key.borrow()) : new_none();
}

static PyObject* CPerThread_SlowGetPerThread_direct(tModuleState* m, PyObject* thread_id, PyObject* create)
{
    PyObject* per_thread = slow_get_inner(m, thread_id, create);
    return per_thread ? per_thread : fail_null(m->dp, "Exception in CPerThread_SlowGetPerThread_direct ()\n");
}

static PyObject* get_current(tModuleState* m, PyObject* create)
{
    XPyOwned per_thread(CPerThread_FastGetExistingPerThreadFromPyTss(m));
    if (!per_thread || per_thread.borrow() != api.Py_None)
        return per_thread.detach();
    per_thread.reset(CPerThread_GetExistingPerThreadFromThreadStateDict(m));
    if (!per_thread)
        return nullptr;
    if (per_thread.borrow() == api.Py_None) {
        per_thread.reset(CPerThread_SlowGetPerThread_direct(m, api.Py_None, create));
        if (!per_thread || per_thread.borrow() == api.Py_None)
            return per_thread.detach();
        if (CPerThread_TryRegisterThreadStateDictCapsule_direct(m, per_thread.borrow()) < 0)
            return nullptr;
    }
    if (CPerThread_StorePerThreadForCurrentThreadInPyTss_direct(m, per_thread.borrow()) < 0)
        return nullptr;
    return per_thread.detach();
}

PyObject* CPerThread_GetPerThread_direct(tModuleState* m, PyObject* thread_id, PyObject* create)
{
    if (!m->CPerThread || !m->_gPyTssKey) {
        api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring is not loaded");
        return nullptr;
    }
    return thread_id == api.Py_None ? get_current(m, create)
                                    : CPerThread_SlowGetPerThread_direct(m, thread_id, create);
}

static PyObject* get_for_callback(tModuleState* m)
{
    XPyOwned per_thread(CPerThread_FastGetExistingPerThreadFromPyTss(m));
    if (per_thread.borrow() == api.Py_None)
        per_thread.reset(CPerThread_GetPerThread_direct(m, api.Py_None, api.Py_True));
    if (!per_thread || per_thread.borrow() == api.Py_None)
        return per_thread.detach();
    CPerThreadBody* body = per_thread_body(per_thread.borrow(), as_type(m->CPerThread));
    if (XPy_Load(&body->fThreadName) == api.Py_None && CPerThread_FindThreadName_direct(m, per_thread.borrow()) < 0)
        return nullptr;
    return per_thread.detach();
}

PyObject* CInitialCallback_GetPerThreadCalledFromCallback(tModuleState* m)
{
    PyObject* per_thread = get_for_callback(m);
    return per_thread ? per_thread : fail_null(m->dp, "CInitialCallback_GetPerThreadCalledFromCallback() failed\n");
}

// ---- Debug policy and thread name ----

static PyObject* CPerThread_get_fDebugPolicyCallback(tModuleState* m)
{
    PyObject* callback = get_class_attr_or_make(m->CPerThread, &gDebugPolicyCallback, make_none);
    return callback ? callback : fail_null(m->dp, "Exception in CPerThread_get_fDebugPolicyCallback()\n");
}

static int ask_debug_policy(tModuleState* m, PyObject* per_thread, CPerThreadBody* body, PyObject* callback)
{
    XPyOwned thread_id(XPy_NewRefOfMember(per_thread, &body->fThreadId));
    DO_DP_TWO_REPRS(m->dp, m->dp->initial_monitoring_callbacks,
                    "CPerThread_GetDebugPolicy_direct(): calling %s (per_thread.fThreadId=%s)\n", callback,
                    thread_id.borrow());
    XPyOwned result(do_one_arg_call(callback, thread_id ? thread_id.borrow() : api.Py_None));
    if (!result)
        return -1;
    Py_ssize_t policy = py_int_as_ssize_t(result.borrow());
    if (policy == -1 && api.PyErr_Occurred())
        return -1;
    if (policy < INT_MIN || policy > INT_MAX) {
        api.PyErr_SetString(api.PyExc_OverflowError, "the debug policy does not fit into an int");
        return -1;
    }
    XPy_Store(&body->fDebugPolicy, static_cast<int>(policy));
    DO_DP(m->dp->initial_monitoring_callbacks,
          "CPerThread_GetDebugPolicy_direct(): policy returned is %i (per_thread.fThreadId=%s)\n",
          XPy_Load(&body->fDebugPolicy), get_dprintf_repr_str2(m->dp, thread_id.borrow()));
    return XPy_Load(&body->fDebugPolicy);
}

static int get_debug_policy_inner(tModuleState* m, PyObject* per_thread)
{
    if (!XPy_IsInstance(per_thread, as_type(m->CPerThread))) {
        api._PyErr_BadInternalCall(kSourceName, kLinenoNotPerThread);
        return -1;
    }
    CPerThreadBody* body = per_thread_body(per_thread, as_type(m->CPerThread));
    int known = body ? XPy_Load(&body->fDebugPolicy) : -1;
    if (!body || known != -1)
        return known;
    XPyOwned callback(CPerThread_get_fDebugPolicyCallback(m));
    if (!callback)
        return -1;
    return callback.borrow() == api.Py_None ? 1 : ask_debug_policy(m, per_thread, body, callback.borrow());
}

int CPerThread_GetDebugPolicy_direct(tModuleState* m, PyObject* per_thread)
{
    int policy = get_debug_policy_inner(m, per_thread);
    if (policy == -1 && api.PyErr_Occurred())
        return fail_int(m->dp, "Exception in CPerThread_GetDebugPolicy_direct()\n");
    return policy;
}

static int find_thread_name_inner(tModuleState* m, PyObject* per_thread)
{
    CPerThreadBody* body = need_per_thread(m, per_thread);
    if (!body)
        return -1;
    if (XPy_Load(&body->fThreadName) != api.Py_None)
        return 0;
    XPyOwned callback(get_class_attr(m->CPerThread, &gGetThreadNameCallback));
    if (!callback)
        return -1;
    if (callback.borrow() == api.Py_None)
        return 0;
    XPyOwned name(do_one_arg_call(callback.borrow(), per_thread));
    if (!name)
        return -1;
    XPy_SetMember(per_thread, &body->fThreadName, name.borrow());
    return 0;
}

int CPerThread_FindThreadName_direct(tModuleState* m, PyObject* per_thread)
{
    int result = find_thread_name_inner(m, per_thread);
    return result < 0 ? fail_int(m->dp, "Exception in CPerThread_FindThreadName_direct()\n") : result;
}

// ---- Class methods ----

static PyObject* CPerThread_GetPerThread(PyObject*, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                         PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject *thread_id, *create;
    const tFastArgInfo infos[] = {{"thread_id", 0, api.Py_None, &thread_id},
                                  {"create", 1, api.Py_True, &create},
                                  {nullptr, 0, nullptr, nullptr}};
    PyObject* per_thread = nullptr;
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) == 0)
        per_thread = CPerThread_GetPerThread_direct(m, thread_id, create);
    return per_thread ? per_thread : fail_null(m->dp, "Exception in CPerThread_GetPerThread()\n");
}

static PyObject* get_all_inner(tModuleState* m)
{
    XPyOwned dict(CPerThread_get_fPerThreadDict(m));
    return dict ? api.PyDict_Values(dict.borrow()) : nullptr;
}

static PyObject* CPerThread_GetAllPerThreads_direct(tModuleState* m)
{
    PyObject* all = get_all_inner(m);
    return all ? all : fail_null(m->dp, "Exception in CPerThread_GetAllPerThreads_direct()\n");
}

static PyObject* CPerThread_GetAllPerThreads(PyObject*, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                             PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* all = nullptr;
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) == 0)
        all = CPerThread_GetAllPerThreads_direct(m);
    return all ? all : fail_null(m->dp, "Exception in CPerThread_GetAllPerThreads()\n");
}

// Makes every registered record ask for its policy again.
static int forget_policies(tModuleState* m)
{
    XPyOwned all(get_all_inner(m));
    Py_ssize_t count = all ? api.PyList_Size(all.borrow()) : -1;
    for (Py_ssize_t i = 0; i < count; i++) {
        CPerThreadBody* body = need_per_thread(m, api.PyList_GetItem(all.borrow(), i));
        if (!body)
            return -1;
        XPy_Store(&body->fDebugPolicy, -1);
    }
    return count < 0 ? -1 : 0;
}

static int CPerThread_SetDebugPolicyCallback_direct(tModuleState* m, PyObject* callback)
{
    if (set_class_attr(m->CPerThread, &gDebugPolicyCallback, callback) < 0 || forget_policies(m) < 0)
        return fail_int(m->dp, "Exception in CPerThread_SetDebugPolicyCallback_direct()\n");
    return 0;
}

static int CPerThread_SetNewPerThreadCreatedCallback_direct(tModuleState* m, PyObject* callback)
{
    if (set_class_attr(m->CPerThread, &new_per_thread_created_callback, callback) < 0)
        return fail_int(m->dp, "Exception in CPerThread_SetNewPerThreadCreatedCallback_direct()\n");
    return 0;
}

static int CPerThread_SetGetThreadNameCallback_direct(tModuleState* m, PyObject* callback)
{
    if (set_class_attr(m->CPerThread, &gGetThreadNameCallback, callback) < 0)
        return fail_int(m->dp, "Exception in CPerThread_SetGetThreadNameCallback_direct()\n");
    return 0;
}

static PyObject* CPerThread_SetDebugPolicyCallback(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                   Py_ssize_t nargs, PyObject* kwnames)
{
    return call_hook_setter(cls, args, nargs, kwnames, CPerThread_SetDebugPolicyCallback_direct,
                            "Exception in CPerThread_SetDebugPolicyCallback()\n");
}

static PyObject* CPerThread_SetNewPerThreadCreatedCallback(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                           Py_ssize_t nargs, PyObject* kwnames)
{
    return call_hook_setter(cls, args, nargs, kwnames, CPerThread_SetNewPerThreadCreatedCallback_direct,
                            "Exception in CPerThread_SetNewPerThreadCreatedCallback()\n");
}

static PyObject* CPerThread_SetGetThreadNameCallback(PyObject*, PyTypeObject* cls, PyObject* const* args,
                                                     Py_ssize_t nargs, PyObject* kwnames)
{
    return call_hook_setter(cls, args, nargs, kwnames, CPerThread_SetGetThreadNameCallback_direct,
                            "Exception in CPerThread_SetGetThreadNameCallback()\n");
}

// ---- Instance methods ----

static PyObject* CPerThread_GetDebugPolicy(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                           PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    int policy = -1;
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) == 0)
        policy = CPerThread_GetDebugPolicy_direct(m, self);
    PyObject* result = policy == -1 && api.PyErr_Occurred() ? nullptr : py_int_from_ssize_t(policy);
    return result ? result : fail_null(m->dp, "Exception in CPerThread_GetDebugPolicy()\n");
}

static PyObject* CPerThread_FindThreadName(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                           PyObject* kwnames)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* result = nullptr;
    if (get_fastargs(kNoArguments, args, static_cast<size_t>(nargs), kwnames) == 0 &&
        CPerThread_FindThreadName_direct(m, self) == 0)
        result = py_int_from_ssize_t(0);
    return result ? result : fail_null(m->dp, "Exception in CPerThread_FindThreadName()\n");
}

// ---- The class ----

static PyMethodDef kMethods[] = {
    {"GetPerThread", AS_METHOD(CPerThread_GetPerThread), kMethClass, kDocCPerThread_GetPerThread},
    {"GetAllPerThreads", AS_METHOD(CPerThread_GetAllPerThreads), kMethClass, kDocCPerThread_GetAllPerThreads},
    {"SetDebugPolicyCallback", AS_METHOD(CPerThread_SetDebugPolicyCallback), kMethClass,
     kDocCPerThread_SetDebugPolicyCallback},
    {"SetNewPerThreadCreatedCallback", AS_METHOD(CPerThread_SetNewPerThreadCreatedCallback), kMethClass,
     kDocCPerThread_SetNewPerThreadCreatedCallback},
    {"SetGetThreadNameCallback", AS_METHOD(CPerThread_SetGetThreadNameCallback), kMethClass,
     kDocCPerThread_SetGetThreadNameCallback},
    {"GetDebugPolicy", AS_METHOD(CPerThread_GetDebugPolicy), kMethInstance, kDocCPerThread_GetDebugPolicy},
    {"FindThreadName", AS_METHOD(CPerThread_FindThreadName), kMethInstance, kDocCPerThread_FindThreadName},
    {nullptr, nullptr, 0, nullptr},
};

// ADD-MEMBER: its row. A dying record releases its objects in the order of the rows.
static PyMemberDef kMembers[] = {
    MEMBER(CPerThread, mod, kMemberObject, kMemberReadOnly),
    MEMBER(CPerThread, fThreadId, kMemberObject, kMemberReadOnly),
    MEMBER(CPerThread, fSteppingEventsNeeded, kMemberBool, 0),
    MEMBER(CPerThread, fOuterMostFrame, kMemberObject, 0),
    MEMBER(CPerThread, fStopFrame, kMemberObject, 0),
    MEMBER(CPerThread, fDontStopLinenoRange, kMemberObject, 0),
    MEMBER(CPerThread, fReturnFrame, kMemberObject, 0),
    MEMBER(CPerThread, fStopAtNextLine, kMemberObject, 0),
    MEMBER(CPerThread, fDebugPolicy, kMemberInt, 0),
    MEMBER(CPerThread, fSuspendLock, kMemberObject, 0),
    MEMBER(CPerThread, fCheckSuspendLock, kMemberInt, 0),
    MEMBER(CPerThread, fThreadName, kMemberObject, kMemberReadOnly),
    MEMBER(CPerThread, fExitingWithException, kMemberInt, 0),
    MEMBER(CPerThread, fSteppingCodeObjects, kMemberObject, 0),
    {nullptr, 0, 0, 0, nullptr},
};

static PyType_Slot kSlots[] = {CLASS_SLOTS(CPerThread)};

static PyType_Spec kSpec = {"optmonitoring.CPerThread", sizeof(CPerThreadBody), 0, kTypeBaseType, kSlots};

tClassInfo kPerThreadClass = {"CPerThread", &kSpec, kMembers, &gPerThreadBodyOffset};
