// CInitialCallback: receives every monitoring event and decides, cheapest test first, whether it matters.
//
// Exceptions never leave Callback: a failed event is logged, handed to the host's LogException, and answered None.

#include <errno.h>

#include "optmonitoring_docs.h"
#include "optmonitoring_fastpath_internal.h"

static constexpr int kLinenoCallbackNoArgs = 4236;

// What a step of the decision says: go on, the event is answered, or the step failed with an exception pending.
enum tStep { kGoOn, kAnswered, kFailed };

// None as an answer. [new]; it is immortal wherever events are filtered, from 3.12 on, and needs no count.
static inline PyObject* answer_none(void)
{
    return api.Py_None;
}

// ---- The context of one call ----

static void CInitialCallback_Callback_SaveErrno(CInitialCallback_Callback_Ctx* ctx)
{
    if (ctx->m->save_and_restore_errno && !ctx->errno_was_saved) {
        ctx->saved_errno = errno;
        ctx->errno_was_saved = 1;
    }
}

static void CInitialCallback_Callback_Ctx_finish(CInitialCallback_Callback_Ctx* ctx)
{
    if (ctx->saved_errno != 0)  // Kept: a saved 0 is not written back
        errno = ctx->saved_errno;
    XPy_ClearField(&ctx->per_code_object);
    XPy_ClearField(&ctx->per_thread);
    XPy_ClearField(&ctx->lineno_obj);
}

// Finishes the call with an answer [borrowed]; the result is [new].
static PyObject* finish_with(CInitialCallback_Callback_Ctx* ctx, PyObject* answer)
{
    XPy_DoIncRef(answer);
    CInitialCallback_Callback_Ctx_finish(ctx);
    return answer;
}

// ---- The failure path ----

XPY_COLD static PyObject* suppress_failure(CInitialCallback_Callback_Ctx* ctx)
{
    report_failure(ctx->m->dp, "CInitialCallback_Callback() failed and exception suppressed\n");
    CallLogExceptionWithCurrentRaisedException(ctx->m);
    return finish_with(ctx, api.Py_None);
}

// ---- Step by step ----

XPY_COLD static PyObject* answer_not_code(CInitialCallback_Callback_Ctx* ctx, PyObject* first)
{
    tModuleState* m = ctx->m;
    DO_DP(m->dp->initial_monitoring_callbacks,
          "Initial callback -- first arg %s is not a PyCodeObject; returning DISABLE\n",
          get_dprintf_repr_str1(m->dp, first));
    return finish_with(ctx, m->monitoring_disabled);
}

// Makes the record of a code object seen for the first time, or refines one that was made without a frame.
XPY_COLD static PyObject* create_or_update_record(tModuleState* m, PyObject* code, XPyOwned* existing)
{
    XPyOwned frame(get_running_frame());
    if (!frame)
        return nullptr;
    if (existing->borrow() == api.Py_None) {
        XPyOwned record(CPerCodeObject_Create_direct(m, code, frame.borrow()));
        return record && need_per_code_object(m, record.borrow()) ? record.detach() : nullptr;
    }
    if (CPerCodeObject_UpdatePathnameFromFrame_direct(m, existing->borrow(), frame.borrow()) < 0)
        return nullptr;
    return existing->detach();
}

static PyObject* get_record_inner(tModuleState* m, PyObject* code)
{
    XPyOwned record(CPerCodeObject_GetExistingPerCodeObject_direct(m, code));
    if (!record)
        return nullptr;
    if (record.borrow() != api.Py_None &&
        !per_code_object_body(record.borrow(), as_type(m->CPerCodeObject))->fUpdatePathnameNeeded)
        return record.detach();
    return create_or_update_record(m, code, &record);
}

static const char kNoRecord[] = "CInitialCallback_GetPerCodeObjectCalledFromCallback() failed\n";

static PyObject* CInitialCallback_GetPerCodeObjectCalledFromCallback(tModuleState* m, PyObject* code)
{
    PyObject* record = get_record_inner(m, code);
    return record ? record : fail_null(m->dp, kNoRecord);
}

XPY_COLD static PyObject* answer_internal(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body)
{
    tModuleState* m = ctx->m;
    PyObject* answer = api.Py_None;
    if (body->fCanReturnDisable) {
        DO_DP(m->dp->initial_monitoring_callbacks, "Disabling monitoring callbacks for %s\n",
              get_dprintf_repr_str1(m->dp, ctx->per_code_object));
        answer = m->monitoring_disabled;
    } else {
        DO_DP(m->dp->initial_monitoring_callbacks, "Ignoring callback for %s\n",
              get_dprintf_repr_str1(m->dp, ctx->per_code_object));
    }
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- return after check internal: %s\n",
          get_dprintf_repr_str1(m->dp, answer));
    return answer;
}

// Answers events of the debugger's own code. A subclass's record is not asked.
static tStep CInitialCallback_Callback_CheckInternal(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                                     PyObject** answer)
{
    PyTypeObject* cls = as_type(ctx->m->CPerCodeObject);
    if (XPy_BorrowTypeInline(ctx->per_code_object) != cls)
        return kGoOn;
    PyObject* flag = per_code_object_body(ctx->per_code_object, cls)->fIsInternal;
    int is_internal = flag ? get_istrue(flag) : 0;
    if (is_internal < 0) {
        report_failure(ctx->m->dp, "CInitialCallback_Callback_CheckInternal() failed\n");
        return kFailed;
    }
    if (!is_internal)
        return kGoOn;
    *answer = answer_internal(ctx, body);
    return kAnswered;
}

// The breakpoint lines that alone decide a LINE event [borrowed], because nothing else could want it; else null.
static inline PyObject* borrow_deciding_lines(tModuleState* m, CInitialCallbackBody* body, CPerCodeObjectBody* record,
                                              Py_ssize_t nargs)
{
    if (body->_fEventId != m->kPyLineEventId || nargs == 1 || body->fAnySuspendThread ||
        body->fSteppingEventsNeededEveryThread || record->fSteppingEventsNeededCount != 0)
        return nullptr;
    PyObject* linenos = record->fEnabledBpLinenos;
    return linenos == api.Py_None ? nullptr : linenos;
}

// Answers LINE events on lines without a breakpoint, before any per-thread work.
static tStep check_breakpoint_lines(PyObject* linenos, PyObject* lineno)
{
    XPyOwned held(XPy_NewRef(linenos));  // hashing and comparing may run code that replaces it
    int has_breakpoint = api.PySet_Contains(linenos, lineno);
    return has_breakpoint == 0 ? kAnswered : has_breakpoint < 0 ? kFailed : kGoOn;
}

static tStep CInitialCallback_Callback_CheckDebugPolicy(CInitialCallback_Callback_Ctx* ctx)
{
    tModuleState* m = ctx->m;
    if (ctx->per_thread == api.Py_None) {
        DO_DP(m->dp->initial_monitoring_callbacks,
              "CInitialCallback_Callback_CheckDebugPolicy(): per_thread is None\n");
        return kGoOn;
    }
    int policy = per_thread_body(ctx->per_thread, as_type(m->CPerThread))->fDebugPolicy;
    if (policy == -1)
        policy = CPerThread_GetDebugPolicy_direct(m, ctx->per_thread);
    if (policy == -1 && api.PyErr_Occurred()) {
        report_failure(m->dp, "CInitialCallback_Callback_CheckDebugPolicy() failed\n");
        return kFailed;
    }
    if (policy != 0)
        return kGoOn;
    DO_DP(m->dp->initial_monitoring_callbacks, "CInitialCallback_Callback_CheckDebugPolicy(): debug_policy is 0\n");
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- return after debug policy check: %s\n",
          get_dprintf_repr_str1(m->dp, api.Py_None));
    return kAnswered;
}

// The thread id for the log; -1 when it is no number.
static int thread_id_for_log(CPerThreadBody* body)
{
    Py_ssize_t thread_id = body->fThreadId ? py_int_as_ssize_t(body->fThreadId) : -1;
    if (thread_id == -1 && api.PyErr_Occurred())
        api.PyErr_Clear();
    return static_cast<int>(thread_id);
}

// Passes the thread through its suspend lock: it blocks for as long as somebody else holds the lock.
//
// A lock that stayed taken would hold the thread for ever at its next event, and one released twice might be somebody
// else's by then. So `release` is called exactly once, and everything that could run out of memory on the way to it,
// its name and the method bound to the lock, is made before `acquire`.
XPY_COLD static int pass_suspend_lock(tModuleState* m, CPerThreadBody* body)
{
    static tNameCache acquire_name = {"acquire", nullptr};
    static tNameCache release_name = {"release", nullptr};
    DO_DP(m->dp->threading, "fCheckSuspendLock is true; acquiring fSuspendLock: thread_id=%i\n",
          thread_id_for_log(body));
    XPyOwned lock(XPy_NewRef(body->fSuspendLock));
    if (!lock) {
        api.PyErr_SetString(api.PyExc_AttributeError, "fSuspendLock");
        return -1;
    }
    XPyOwned acquire(get_cached_attr(lock.borrow(), &acquire_name));
    XPyOwned release(acquire ? get_cached_attr(lock.borrow(), &release_name) : nullptr);
    XPyOwned acquired(release ? api.PyObject_CallNoArgs(acquire.borrow()) : nullptr);
    if (!acquired)
        return -1;
    DO_DP(m->dp->threading, "acquired fSuspendLock: thread_id=%s\n", get_dprintf_repr_str1(m->dp, body->fThreadId));
    XPyOwned released(api.PyObject_CallNoArgs(release.borrow()));
    if (!released)
        return -1;
    DO_DP(m->dp->threading, "released fSuspendLock: thread_id=%s\n", get_dprintf_repr_str1(m->dp, body->fThreadId));
    return 0;
}

XPY_COLD static tStep CInitialCallback_SuspendIfNeeded_direct(CInitialCallback_Callback_Ctx* ctx)
{
    tModuleState* m = ctx->m;
    CInitialCallback_Callback_SaveErrno(ctx);
    if (ctx->per_thread == api.Py_None)
        return kGoOn;
    CPerThreadBody* body = per_thread_body(ctx->per_thread, as_type(m->CPerThread));
    if (!body->fCheckSuspendLock || pass_suspend_lock(m, body) == 0)
        return kGoOn;
    report_failure(m->dp, "CInitialCallback_SuspendIfNeeded_direct() failed\n");
    return kFailed;
}

// Calls the second callback with exactly the arguments received. [new], or null with an exception pending. The
// instance, which the caller holds, holds the callback.
static inline PyObject* call_second(CInitialCallbackBody* body, PyObject* const* args, Py_ssize_t nargs,
                                    PyObject* kwnames)
{
    if (XPY_UNLIKELY(!body->fSecondCallback)) {
        api.PyErr_SetString(api.PyExc_AttributeError, "_fSecondCallback");
        return nullptr;
    }
    if (XPY_LIKELY(api.PyObject_Vectorcall != nullptr))
        return api.PyObject_Vectorcall(body->fSecondCallback, args, static_cast<size_t>(nargs), kwnames);
    return api.PyObject_VectorcallDict(body->fSecondCallback, args, static_cast<size_t>(nargs), nullptr);
}

static PyObject* call_second_callback(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                      PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    DO_DP(ctx->m->dp->initial_monitoring_callbacks, "Initial callback -- invoking second callback\n");
    CInitialCallback_Callback_SaveErrno(ctx);
    PyObject* result = call_second(body, args, nargs, kwnames);
    if (!result)
        return suppress_failure(ctx);
    CInitialCallback_Callback_Ctx_finish(ctx);
    return result;
}

// The event of a code object from its thread on.
static PyObject* decide_for_thread(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                   PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = ctx->m;
    PyObject* ready = borrow_ready_per_thread(m);
    ctx->per_thread = ready ? XPy_NewRef(ready) : CInitialCallback_GetPerThreadCalledFromCallback(m);
    if (!ctx->per_thread)
        return suppress_failure(ctx);
    tStep step = CInitialCallback_Callback_CheckDebugPolicy(ctx);
    if (step != kGoOn)
        return step == kAnswered ? finish_with(ctx, api.Py_None) : suppress_failure(ctx);
    if (XPY_UNLIKELY(body->fAnySuspendThread) && CInitialCallback_SuspendIfNeeded_direct(ctx) == kFailed)
        return suppress_failure(ctx);
    bool has_line = body->_fEventId == m->kPyLineEventId && nargs != 1;
    ctx->lineno_obj = XPy_NewRef(has_line ? args[1] : api.Py_None);
    int skip = CInitialCallback_SkipSecondCallback_direct(ctx, body, args[0]);
    if (skip < 0)
        return suppress_failure(ctx);
    if (!skip)
        return call_second_callback(ctx, body, args, nargs, kwnames);
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- skipping second callback\n");
    return finish_with(ctx, api.Py_None);
}

// The event of a code object from its record, which the context has, on.
static PyObject* decide_from_record(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                    PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tModuleState* m = ctx->m;
    PyObject* answer = nullptr;
    tStep step = CInitialCallback_Callback_CheckInternal(ctx, body, &answer);
    if (step != kGoOn)
        return step == kAnswered ? finish_with(ctx, answer) : suppress_failure(ctx);
    CPerCodeObjectBody* record = per_code_object_body(ctx->per_code_object, as_type(m->CPerCodeObject));
    PyObject* linenos = borrow_deciding_lines(m, body, record, nargs);
    step = linenos ? check_breakpoint_lines(linenos, args[1]) : kGoOn;
    if (step != kGoOn)
        return step == kAnswered ? finish_with(ctx, api.Py_None) : suppress_failure(ctx);
    return decide_for_thread(ctx, body, args, nargs, kwnames);
}

// The event of a code object, step by step; for those that the short road does not answer.
static PyObject* decide(tModuleState* m, CInitialCallbackBody* body, PyObject* const* args, Py_ssize_t nargs,
                        PyObject* kwnames)
{
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, 0, 0};
    DO_DP_TWO_REPRS(m->dp, m->dp->initial_monitoring_callbacks,
                    "Initial callback called for %s\n second callback is %s\n", args[0], body->fSecondCallback);
    ctx.per_code_object = CInitialCallback_GetPerCodeObjectCalledFromCallback(m, args[0]);
    return ctx.per_code_object ? decide_from_record(&ctx, body, args, nargs, kwnames) : suppress_failure(&ctx);
}

// The same from the thread on, for a record [borrowed] that has passed the earlier steps.
static PyObject* decide_with_record(tModuleState* m, CInitialCallbackBody* body, PyObject* record,
                                    PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, XPy_NewRef(record), nullptr, 0, 0};
    return decide_for_thread(&ctx, body, args, nargs, kwnames);
}

// A LINE event whose line may be among the breakpoint lines: the interpreter looks it up.
static PyObject* decide_by_line(tModuleState* m, CInitialCallbackBody* body, PyObject* linenos, PyObject* const* args,
                                Py_ssize_t nargs, PyObject* kwnames)
{
    tStep step = check_breakpoint_lines(linenos, args[1]);
    if (step == kAnswered)
        return XPy_NewRef(api.Py_None);
    if (step == kFailed) {
        CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, 0, 0};
        return suppress_failure(&ctx);
    }
    PyObject* record = borrow_ready_record(m, args[0]);  // the look-up may have run code that dropped it
    return record ? decide_with_record(m, body, record, args, nargs, kwnames) : decide(m, body, args, nargs, kwnames);
}

// An event that the host is to see, found so without a context; only errno is saved around the call.
__attribute__((noinline)) static PyObject* forward(PyObject* self, tModuleState* m, CInitialCallbackBody* body,
                                                   PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    XPy_InlineIncRef(self);
    int saved_errno = m->save_and_restore_errno ? errno : 0;
    PyObject* result = call_second(body, args, nargs, kwnames);
    if (XPY_UNLIKELY(!result)) {
        CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, saved_errno, 1};
        result = suppress_failure(&ctx);
    } else if (saved_errno != 0) {
        errno = saved_errno;
    }
    XPy_InlineDecRef(self);
    return result;
}

// Making records examines files, and hooks and look-ups run code, all of it before the steps that save errno
// themselves.
class tErrnoKept
{
  public:
    explicit tErrnoKept(tModuleState* m) : fSaved(m->save_and_restore_errno ? errno : 0) {}
    ~tErrnoKept()
    {
        if (fSaved != 0)
            errno = fSaved;
    }
    tErrnoKept(const tErrnoKept&) = delete;
    tErrnoKept& operator=(const tErrnoKept&) = delete;

  private:
    int fSaved;
};

// How far the short road has got with an event.
enum tShortRoad { kStepByStep, kByLine, kForThread, kForward, kAnsweredNone };

// Runs what may run code of the program. The interpreter does not hold the callback that it calls: such code, or
// another thread while this one waits for its suspend lock, may unregister it and drop the instance, so it is held
// here.
__attribute__((noinline)) static PyObject* decide_held(PyObject* self, tModuleState* m, CInitialCallbackBody* body,
                                                       PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                                                       tShortRoad road, PyObject* found)
{
    tErrnoKept errno_kept(m);
    XPyOwned held(XPy_NewRef(self));
    switch (road) {
        case kByLine:
            return decide_by_line(m, body, found, args, nargs, kwnames);
        case kForThread:
            return decide_with_record(m, body, found, args, nargs, kwnames);
        default:
            break;
    }
    return decide(m, body, args, nargs, kwnames);
}

// The policy, the suspend check and the skip decision, where this thread's record is ready and the answers are at
// hand. What is borrowed here is held by the code object's slot and the thread's dict, which no code of the program
// can change meanwhile.
static inline tShortRoad decide_for_ready_thread(tModuleState* m, CInitialCallbackBody* body,
                                                 CPerCodeObjectBody* record, PyObject* const* args, Py_ssize_t nargs)
{
    PyObject* per_thread = borrow_ready_per_thread(m);
    if (XPY_UNLIKELY(!per_thread))
        return kForThread;
    CPerThreadBody* thread = per_thread_body(per_thread, as_type(m->CPerThread));
    if (thread->fDebugPolicy == 0)
        return kAnsweredNone;
    bool must_ask = thread->fDebugPolicy == -1;
    bool may_suspend = body->fAnySuspendThread && thread->fCheckSuspendLock;
    if (XPY_UNLIKELY(must_ask || may_suspend))
        return kForThread;
    bool has_line = body->_fEventId == m->kPyLineEventId && nargs != 1;
    tSkipReason reason = find_skip_reason(m, body->_fEventId, thread, record, has_line ? args[1] : api.Py_None);
    if (reason == kNothingNeedsIt)
        return kAnsweredNone;
    return reason == kLineMayHaveBreakpoint ? kForThread : kForward;
}

// The short road: a record that is ready, no log, and no code of the program. What it does not answer goes on held.
__attribute__((always_inline)) static inline PyObject* decide_shortly(PyObject* self, tModuleState* m,
                                                                      CInitialCallbackBody* body, PyObject* record,
                                                                      PyObject* const* args, Py_ssize_t nargs,
                                                                      PyObject* kwnames)
{
    CPerCodeObjectBody* record_body = per_code_object_body(record, as_type(m->CPerCodeObject));
    if (XPY_UNLIKELY(record_body->fIsInternal != api.Py_False)) {
        bool is_internal =
            record_body->fIsInternal == api.Py_True && XPy_BorrowTypeInline(record) == as_type(m->CPerCodeObject);
        if (!is_internal)
            return decide_held(self, m, body, args, nargs, kwnames, kStepByStep, nullptr);
        return body->fCanReturnDisable ? XPy_NewRef(m->monitoring_disabled) : answer_none();
    }
    PyObject* linenos = borrow_deciding_lines(m, body, record_body, nargs);
    if (!linenos) {
        tShortRoad road = decide_for_ready_thread(m, body, record_body, args, nargs);
        if (road == kAnsweredNone)
            return answer_none();
        return road == kForward ? forward(self, m, body, args, nargs, kwnames)
                                : decide_held(self, m, body, args, nargs, kwnames, road, record);
    }
    if (XPY_LIKELY(is_surely_absent(linenos, args[1])))
        return answer_none();
    return decide_held(self, m, body, args, nargs, kwnames, kByLine, linenos);
}

// An event without a ready record, or with the log open. That of a code object seen for the first time gets its
// record and goes on along the short road.
__attribute__((noinline)) static PyObject* decide_first(PyObject* self, tModuleState* m, CInitialCallbackBody* body,
                                                        PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tErrnoKept errno_kept(m);
    XPyOwned held(XPy_NewRef(self));
    PyObject* made;
    if (m->dp->initial_monitoring_callbacks || !CPerCodeObject_CreateShortly(m, args[0], &made))
        return decide(m, body, args, nargs, kwnames);
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, made, nullptr, 0, 0};
    if (!made) {
        report_failure(m->dp, kNoRecord);
        return suppress_failure(&ctx);
    }
    bool is_ready = !per_code_object_body(made, as_type(m->CPerCodeObject))->fUpdatePathnameNeeded;
    if (!is_ready || m->dp->initial_monitoring_callbacks)  // the host's hook may have opened the log
        return decide_from_record(&ctx, body, args, nargs, kwnames);
    XPyOwned record(made);
    return decide_shortly(self, m, body, made, args, nargs, kwnames);
}

// ---- The callback ----

XPY_COLD static PyObject* answer_without_state(void)
{
    api.PyErr_Clear();  // the module has been cleared or is being taken apart
    return new_none();
}

// An event that carries no code object, or none at all.
XPY_COLD static PyObject* answer_odd_arguments(tModuleState* m, PyObject* const* args, Py_ssize_t nargs)
{
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, 0, 0};
    if (nargs >= 1)
        return answer_not_code(&ctx, args[0]);
    api._PyErr_BadInternalCall(kSourceName, kLinenoCallbackNoArgs);
    return suppress_failure(&ctx);
}

static PyObject* CInitialCallback_Callback(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                           Py_ssize_t nargs, PyObject* kwnames);

// The first event of a process, whose body is yet to be found, and events of half-made instances and cleared modules.
XPY_COLD static PyObject* start_slowly(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                       Py_ssize_t nargs, PyObject* kwnames)
{
    CInitialCallbackBody* body = initial_callback_body(self, defining_class);
    if (body && !body->mod_state)
        body->mod_state = static_cast<tModuleState*>(api.PyType_GetModuleState(defining_class));
    if (!body || !body->mod_state || !body->mod_state->dp)
        return answer_without_state();
    return CInitialCallback_Callback(self, defining_class, args, nargs, kwnames);
}

static PyObject* CInitialCallback_Callback(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                           Py_ssize_t nargs, PyObject* kwnames)
{
    Py_ssize_t offset = gInitialCallbackBodyOffset;
    if (XPY_UNLIKELY(offset == -1))
        return start_slowly(self, defining_class, args, nargs, kwnames);
    CInitialCallbackBody* body = reinterpret_cast<CInitialCallbackBody*>(reinterpret_cast<char*>(self) + offset);
    tModuleState* m = body->mod_state;  // that of the defining class, as construction found it
    if (XPY_UNLIKELY(!m || !m->dp))
        return start_slowly(self, defining_class, args, nargs, kwnames);
    if (XPY_UNLIKELY(api.cached_pid != m->_gThisProcessPid))
        return answer_none();  // a forked child whose host has not taken it over
    if (XPY_UNLIKELY(nargs < 1 || (XPy_BorrowTypeInline(args[0]) != api.PyCode_Type_ptr &&
                                   !XPy_IsInstance(args[0], api.PyCode_Type_ptr))))
        return answer_odd_arguments(m, args, nargs);
    PyObject* record = borrow_ready_record(m, args[0]);
    if (XPY_UNLIKELY(!record || m->dp->initial_monitoring_callbacks))
        return decide_first(self, m, body, args, nargs, kwnames);
    return decide_shortly(self, m, body, record, args, nargs, kwnames);
}

// ---- Construction and the class ----

static int CInitialCallback_init(PyObject* self, PyObject* args, PyObject* kwargs)
{
    tModuleState* m = state_of(self);
    CInitialCallbackBody* body = m ? initial_callback_body(self, borrow_defining_class(self)) : nullptr;
    int event_id, can_return_disable;
    PyObject* second_callback;
    if (!body || refuse_keywords(self, kwargs, "CInitialCallback") < 0 ||
        !api.PyArg_ParseTuple(args, "iOi:CInitialCallback.__init__", &event_id, &second_callback,
                              &can_return_disable))
        return -1;
    PyObject* module = borrow_module_of(self);
    if (!module)
        return -1;
    // Kept: a second __init__ overwrites without releasing.
    body->mod = XPy_NewRef(module);
    body->mod_state = m;
    body->_fEventId = event_id;
    body->fSecondCallback = XPy_NewRef(second_callback);
    body->fCanReturnDisable = can_return_disable;
    body->fAnySuspendThread = 0;
    body->fSteppingEventsNeededEveryThread = 0;
    return 0;
}

static void CInitialCallback_finalize(PyObject* self)
{
    clear_object_members(self);
}

static PyMethodDef kMethods[] = {
    {"Callback", AS_METHOD(CInitialCallback_Callback), kMethInstance, kDocCInitialCallback_Callback},
    {nullptr, nullptr, 0, nullptr},
};

#define MEMBER(name, field, type, flags)                                                       \
    {                                                                                          \
        name, type, offsetof(CInitialCallbackBody, field), flags, kDocCInitialCallback_##field \
    }
static PyMemberDef kMembers[] = {
    MEMBER("_mod", mod, kMemberObject, kMemberReadOnly),
    MEMBER("_fSecondCallback", fSecondCallback, kMemberObject, kMemberReadOnly),
    MEMBER("_fCanReturnDisable", fCanReturnDisable, kMemberInt, kMemberReadOnly),
    MEMBER("fAnySuspendThread", fAnySuspendThread, kMemberInt, 0),
    MEMBER("fSteppingEventsNeededEveryThread", fSteppingEventsNeededEveryThread, kMemberInt, 0),
    {nullptr, 0, 0, 0, nullptr},
};
#undef MEMBER

static PyType_Slot kSlots[] = {CLASS_SLOTS(CInitialCallback)};

static PyType_Spec kSpec = {"optmonitoring.CInitialCallback", sizeof(CInitialCallbackBody), 0, kTypeBaseType, kSlots};

tClassInfo kInitialCallbackClass = {"CInitialCallback", &kSpec, kMembers, &gInitialCallbackBodyOffset};
