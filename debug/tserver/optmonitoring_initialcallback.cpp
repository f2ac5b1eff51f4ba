// CInitialCallback: receives every monitoring event and decides, cheapest test first, whether it matters.
//
// There are two paths: the fast path, a verdict without effects, and the full path, which takes the steps one by one.
// Whatever the fast path leaves undecided starts over in the full path, so a step may be changed where it stands; a
// fast test of the same question is changed with it, or says kUndecided. tests/python/test_both_paths.py compares the
// two over random states.
//
// Exceptions never leave Callback: a failed event is logged, handed to the host's LogException, and answered None.

#include <errno.h>

#include "optmonitoring_docs.h"
#include "optmonitoring_fastpath_internal.h"

static constexpr int kLinenoCallbackNoArgs = 4236;

// ---- The context of one call ----

static inline void CInitialCallback_Callback_SaveErrno(CInitialCallback_Callback_Ctx* ctx)
{
    if (ctx->m->save_and_restore_errno && !ctx->errno_was_saved) {
        ctx->saved_errno = errno;
        ctx->errno_was_saved = 1;
    }
}

static inline void put_errno_back(const CInitialCallback_Callback_Ctx* ctx)
{
    if (ctx->saved_errno != 0)  // Kept: a saved 0 is not written back
        errno = ctx->saved_errno;
}

static inline void CInitialCallback_Callback_Ctx_finish(CInitialCallback_Callback_Ctx* ctx)
{
    put_errno_back(ctx);
    if (!ctx->per_code_object && !ctx->per_thread && !ctx->lineno_obj)
        return;
    XPy_ClearField(&ctx->per_code_object);
    XPy_ClearField(&ctx->per_thread);
    XPy_ClearField(&ctx->lineno_obj);
    put_errno_back(ctx);  // what died may have run code
}

// The failure path's report. Nothing is pending afterwards.
XPY_COLD static void suppress_failure(tModuleState* m)
{
    report_failure(m->dp, "CInitialCallback_Callback() failed and exception suppressed\n");
    CallLogExceptionWithCurrentRaisedException(m);
}

// Calls the second callback with exactly the arguments received. [new], or null with an exception pending.
static inline PyObject* call_second(PyObject* second, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    if (XPY_UNLIKELY(!second)) {
        api.PyErr_SetString(api.PyExc_AttributeError, "_fSecondCallback");
        return nullptr;
    }
    if (XPY_LIKELY(api.PyObject_Vectorcall != nullptr))
        return api.PyObject_Vectorcall(second, args, static_cast<size_t>(nargs), kwnames);
    return api.PyObject_VectorcallDict(second, args, static_cast<size_t>(nargs), nullptr);
}

// The same where another thread may take the second callback away, which waits for its readers.
static inline PyObject* call_shared_second(PyObject* self, const CInitialCallbackBody* body, PyObject* const* args,
                                           Py_ssize_t nargs, PyObject* kwnames)
{
    XPyOwned second(new_ref_of_read_member(self, &body->fSecondCallback));
    return call_second(second.borrow(), args, nargs, kwnames);
}

// The breakpoint lines that alone decide a LINE event [borrowed], because nothing else could need it; else null.
template <bool kIsShared>
static inline PyObject* borrow_deciding_lines(tModuleState* m, const CInitialCallbackBody* body,
                                              const CPerCodeObjectBody* record, Py_ssize_t nargs)
{
    if (body->_fEventId != m->kPyLineEventId || nargs == 1 || read_number<kIsShared>(&body->fAnySuspendThread) ||
        read_number<kIsShared>(&body->fSteppingEventsNeededEveryThread) ||
        read_number<kIsShared>(&record->fSteppingEventsNeededCount) != 0)
        return nullptr;
    PyObject* linenos = borrow_field<kIsShared>(&record->fEnabledBpLinenos);
    return linenos == api.Py_None ? nullptr : linenos;
}

// The line number of a LINE event, else None. [borrowed]
static inline PyObject* borrow_lineno(tModuleState* m, const CInitialCallbackBody* body, PyObject* const* args,
                                      Py_ssize_t nargs)
{
    bool has_line = body->_fEventId == m->kPyLineEventId && nargs != 1;
    return has_line ? args[1] : api.Py_None;
}

// ---- The full path: its steps in their order ----

// What a step says: go on, the event is answered, or the step failed with an exception pending.
enum tStep { kGoOn, kAnswered, kFailed };

// One event on the full path.
struct tEvent {
    CInitialCallback_Callback_Ctx ctx;
    PyObject* self;
    CInitialCallbackBody* body;
    PyObject* const* args;
    Py_ssize_t nargs;
    PyObject* kwnames;
    PyObject* answer;  // [owned], set by the step that answers
};

static tStep answer_with(tEvent* event, PyObject* answer)
{
    event->answer = XPy_NewRef(answer);
    return kAnswered;
}

static const char kEventText[] = "Initial callback called for %s\n second callback is %s\n";

// Where another thread may take the second callback away while it is displayed.
XPY_COLD static void log_shared_event(tEvent* event)
{
    tDPData* dp = event->ctx.m->dp;
    if (!XPy_Load(&dp->initial_monitoring_callbacks))
        return;
    XPyOwned second(new_ref_of_read_member(event->self, &event->body->fSecondCallback));
    DO_DP_TWO_REPRS(dp, dp->initial_monitoring_callbacks, kEventText, event->args[0], second.borrow());
}

// An event without arguments fails; one whose first argument is not a code object is switched off.
static tStep check_arguments(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    if (event->nargs < 1) {
        api._PyErr_BadInternalCall(kSourceName, kLinenoCallbackNoArgs);
        return kFailed;
    }
    if (!XPy_IsInstance(event->args[0], api.PyCode_Type_ptr)) {
        DO_DP(m->dp->initial_monitoring_callbacks,
              "Initial callback -- first arg %s is not a PyCodeObject; returning DISABLE\n",
              get_dprintf_repr_str1(m->dp, event->args[0]));
        return answer_with(event, m->monitoring_disabled);
    }
    if (XPY_UNLIKELY(gIsLockOff))
        log_shared_event(event);
    else
        DO_DP_TWO_REPRS(m->dp, m->dp->initial_monitoring_callbacks, kEventText, event->args[0],
                        event->body->fSecondCallback);
    return kGoOn;
}

// Makes the record of a code object seen for the first time, or refines one that was made without a frame.
XPY_COLD static PyObject* create_or_update_record(tModuleState* m, PyObject* code, XPyOwned* existing)
{
    XPyOwned frame(get_running_frame());
    if (!frame)
        return nullptr;
    if (existing->borrow() == api.Py_None) {
        XPyOwned record(CPerCodeObject_CreateMissing(m, code, frame.borrow()));
        return record && need_per_code_object(m, record.borrow()) ? record.detach() : nullptr;
    }
    if (CPerCodeObject_UpdatePathnameFromFrame_direct(m, existing->borrow(), frame.borrow()) < 0)
        return nullptr;
    return existing->detach();
}

static PyObject* get_record_inner(tModuleState* m, PyObject* code)
{
    if (!gIsLockOff) {
        PyObject* ready = borrow_ready_record<false>(m, code);
        if (ready)
            return XPy_NewRef(ready);
        PyObject* made;
        if (CPerCodeObject_TryCreate(m, code, &made))
            return made;
    }
    XPyOwned record(CPerCodeObject_GetExistingPerCodeObject_direct(m, code));
    if (!record)
        return nullptr;
    if (record.borrow() != api.Py_None &&
        !per_code_object_body(record.borrow(), as_type(m->CPerCodeObject))->fUpdatePathnameNeeded)
        return record.detach();
    return create_or_update_record(m, code, &record);
}

static tStep CInitialCallback_GetPerCodeObjectCalledFromCallback(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    event->ctx.per_code_object = get_record_inner(m, event->args[0]);
    if (event->ctx.per_code_object)
        return kGoOn;
    report_failure(m->dp, "CInitialCallback_GetPerCodeObjectCalledFromCallback() failed\n");
    return kFailed;
}

XPY_COLD static tStep answer_internal(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    PyObject* answer = api.Py_None;
    if (event->body->fCanReturnDisable) {
        DO_DP(m->dp->initial_monitoring_callbacks, "Disabling monitoring callbacks for %s\n",
              get_dprintf_repr_str1(m->dp, event->ctx.per_code_object));
        answer = m->monitoring_disabled;
    } else {
        DO_DP(m->dp->initial_monitoring_callbacks, "Ignoring callback for %s\n",
              get_dprintf_repr_str1(m->dp, event->ctx.per_code_object));
    }
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- return after check internal: %s\n",
          get_dprintf_repr_str1(m->dp, answer));
    return answer_with(event, answer);
}

// Answers events of the debugger's own code. A subclass's record is not asked.
static tStep CInitialCallback_Callback_CheckInternal(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    PyTypeObject* cls = as_type(m->CPerCodeObject);
    if (XPy_BorrowTypeInline(event->ctx.per_code_object) != cls)
        return kGoOn;
    PyObject* flag = XPy_Load(&per_code_object_body(event->ctx.per_code_object, cls)->fIsInternal);
    int is_internal = flag ? get_istrue(flag) : 0;
    if (is_internal < 0) {
        report_failure(m->dp, "CInitialCallback_Callback_CheckInternal() failed\n");
        return kFailed;
    }
    return is_internal ? answer_internal(event) : kGoOn;
}

// CHANGE-ANSWER: a line without a breakpoint while no thread steps or is held, full path.
// Answers LINE events on lines without a breakpoint, before any per-thread work.
static tStep check_breakpoint_lines(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    CPerCodeObjectBody* record = per_code_object_body(event->ctx.per_code_object, as_type(m->CPerCodeObject));
    XPyOwned linenos;  // hashing and comparing may run code that replaces it, as another thread may
    if (XPY_UNLIKELY(gIsLockOff)) {
        linenos.reset(new_ref_of_shared_member(event->ctx.per_code_object, &record->fEnabledBpLinenos));
        CPerCodeObject_HoldLines(record, linenos.borrow());
        if (!borrow_deciding_lines<true>(m, event->body, record, event->nargs))
            return kGoOn;
    } else {
        linenos.reset(XPy_NewRef(borrow_deciding_lines<false>(m, event->body, record, event->nargs)));
    }
    if (!linenos || linenos.borrow() == api.Py_None)
        return kGoOn;
    int has_breakpoint = api.PySet_Contains(linenos.borrow(), event->args[1]);
    if (has_breakpoint < 0)
        return kFailed;
    return has_breakpoint ? kGoOn : answer_with(event, api.Py_None);
}

static tStep find_per_thread(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    PyObject* ready = gIsLockOff ? nullptr : borrow_ready_per_thread<false>(m);
    event->ctx.per_thread = ready ? XPy_NewRef(ready) : CInitialCallback_GetPerThreadCalledFromCallback(m);
    return event->ctx.per_thread ? kGoOn : kFailed;
}

static tStep CInitialCallback_Callback_CheckDebugPolicy(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    if (event->ctx.per_thread == api.Py_None) {
        DO_DP(m->dp->initial_monitoring_callbacks,
              "CInitialCallback_Callback_CheckDebugPolicy(): per_thread is None\n");
        return kGoOn;
    }
    int policy = XPy_Load(&per_thread_body(event->ctx.per_thread, as_type(m->CPerThread))->fDebugPolicy);
    if (policy == -1)
        policy = CPerThread_GetDebugPolicy_direct(m, event->ctx.per_thread);
    if (policy == -1 && api.PyErr_Occurred()) {
        report_failure(m->dp, "CInitialCallback_Callback_CheckDebugPolicy() failed\n");
        return kFailed;
    }
    if (policy != 0)
        return kGoOn;
    DO_DP(m->dp->initial_monitoring_callbacks, "CInitialCallback_Callback_CheckDebugPolicy(): debug_policy is 0\n");
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- return after debug policy check: %s\n",
          get_dprintf_repr_str1(m->dp, api.Py_None));
    return answer_with(event, api.Py_None);
}

// The thread id for the log; -1 when it is no number.
static int thread_id_for_log(PyObject* obj)
{
    Py_ssize_t thread_id = obj ? py_int_as_ssize_t(obj) : -1;
    if (thread_id == -1 && api.PyErr_Occurred())
        api.PyErr_Clear();
    return static_cast<int>(thread_id);
}

// Passes the thread through its suspend lock: it blocks for as long as somebody else holds the lock.
//
// A lock that stayed taken would hold the thread for ever at its next event, and one released twice might be somebody
// else's by then. So `release` is called exactly once, and what its call has to allocate, its name and the method
// bound to the lock, is made before `acquire`.
XPY_COLD static int pass_suspend_lock(tModuleState* m, PyObject* per_thread, CPerThreadBody* body)
{
    static tNameCache acquire_name = {"acquire", nullptr};
    static tNameCache release_name = {"release", nullptr};
    XPyOwned id(XPy_NewRefOfMember(per_thread, &body->fThreadId));  // for the log
    DO_DP(m->dp->threading, "fCheckSuspendLock is true; acquiring fSuspendLock: thread_id=%i\n",
          thread_id_for_log(id.borrow()));
    XPyOwned lock(XPy_NewRefOfMember(per_thread, &body->fSuspendLock));
    if (!lock) {
        api.PyErr_SetString(api.PyExc_AttributeError, "fSuspendLock");
        return -1;
    }
    XPyOwned acquire(get_cached_attr(lock.borrow(), &acquire_name));
    XPyOwned release(acquire ? get_cached_attr(lock.borrow(), &release_name) : nullptr);
    XPyOwned acquired(release ? api.PyObject_CallNoArgs(acquire.borrow()) : nullptr);
    if (!acquired)
        return -1;
    DO_DP(m->dp->threading, "acquired fSuspendLock: thread_id=%s\n", get_dprintf_repr_str1(m->dp, id.borrow()));
    XPyOwned released(api.PyObject_CallNoArgs(release.borrow()));
    if (!released)
        return -1;
    DO_DP(m->dp->threading, "released fSuspendLock: thread_id=%s\n", get_dprintf_repr_str1(m->dp, id.borrow()));
    return 0;
}

static tStep CInitialCallback_SuspendIfNeeded_direct(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    if (!XPy_Load(&event->body->fAnySuspendThread) || event->ctx.per_thread == api.Py_None)
        return kGoOn;
    CPerThreadBody* body = per_thread_body(event->ctx.per_thread, as_type(m->CPerThread));
    if (!XPy_Load(&body->fCheckSuspendLock) || pass_suspend_lock(m, event->ctx.per_thread, body) == 0)
        return kGoOn;
    report_failure(m->dp, "CInitialCallback_SuspendIfNeeded_direct() failed\n");
    return kFailed;
}

static tStep check_skip(tEvent* event)
{
    tModuleState* m = event->ctx.m;
    event->ctx.lineno_obj = XPy_NewRef(borrow_lineno(m, event->body, event->args, event->nargs));
    int skip = CInitialCallback_SkipSecondCallback_direct(&event->ctx, event->body, event->args[0]);
    if (skip <= 0)
        return skip < 0 ? kFailed : kGoOn;
    DO_DP(m->dp->initial_monitoring_callbacks, "Initial callback -- skipping second callback\n");
    return answer_with(event, api.Py_None);
}

static tStep call_second_callback(tEvent* event)
{
    DO_DP(event->ctx.m->dp->initial_monitoring_callbacks, "Initial callback -- invoking second callback\n");
    event->answer = XPY_UNLIKELY(gIsLockOff)
                        ? call_shared_second(event->self, event->body, event->args, event->nargs, event->kwnames)
                        : call_second(event->body->fSecondCallback, event->args, event->nargs, event->kwnames);
    return event->answer ? kAnswered : kFailed;
}

// CHANGE-ANSWER: any event: a step of the full path, and the fast test of the same question in decide_fast().
static inline tStep run_steps(tEvent* event)
{
    tStep step = check_arguments(event);
    if (step == kGoOn)
        step = CInitialCallback_GetPerCodeObjectCalledFromCallback(event);
    if (step == kGoOn)
        step = CInitialCallback_Callback_CheckInternal(event);
    if (step == kGoOn)
        step = check_breakpoint_lines(event);
    if (step == kGoOn)
        step = find_per_thread(event);
    if (step == kGoOn)
        step = CInitialCallback_Callback_CheckDebugPolicy(event);
    if (step == kGoOn)
        step = CInitialCallback_SuspendIfNeeded_direct(event);
    if (step == kGoOn)
        step = check_skip(event);
    return step == kGoOn ? call_second_callback(event) : step;
}

// The interpreter does not hold the callback that it calls: code of the program that runs here, or another thread
// while this one waits for its suspend lock, may unregister it and drop the instance, so it is held. errno is kept
// from the beginning: making a record examines files.
__attribute__((noinline)) static PyObject* decide_fully(PyObject* self, tModuleState* m, CInitialCallbackBody* body,
                                                        PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    tEvent event = {{m, nullptr, nullptr, nullptr, 0, 0}, self, body, args, nargs, kwnames, nullptr};
    CInitialCallback_Callback_SaveErrno(&event.ctx);
    XPy_InlineIncRef(self);
    switch (run_steps(&event)) {
        case kGoOn:  // the last step answers or fails
        case kAnswered:
            break;
        case kFailed:
            suppress_failure(m);
            event.answer = new_none();
    }
    XPy_InlineDecRef(self);
    CInitialCallback_Callback_Ctx_finish(&event.ctx);
    return event.answer;
}

// ---- The fast path ----

// Its verdict: the answer, or that the event goes to the second callback, or that the full path has to find out.
enum tVerdict { kUndecided, kAnswerNone, kAnswerDisable, kForward };

// From the policy on, where this thread's record is ready.
template <bool kIsShared>
static inline tVerdict decide_fast_for_thread(tModuleState* m, const CInitialCallbackBody* body,
                                              const CPerCodeObjectBody* record, PyObject* const* args,
                                              Py_ssize_t nargs)
{
    PyObject* per_thread = borrow_ready_per_thread<kIsShared>(m);
    if (XPY_UNLIKELY(!per_thread))
        return kUndecided;
    const CPerThreadBody* thread = per_thread_body(per_thread, as_type(m->CPerThread));
    int policy = read_number<kIsShared>(&thread->fDebugPolicy);
    if (policy == 0)
        return kAnswerNone;
    bool must_ask = policy == -1 && !is_surely_off<kIsShared>(&gDebugPolicyCallback, m->CPerThread);
    bool may_be_held =
        read_number<kIsShared>(&body->fAnySuspendThread) && read_number<kIsShared>(&thread->fCheckSuspendLock);
    if (XPY_UNLIKELY(must_ask || may_be_held))
        return kUndecided;
    if (XPY_UNLIKELY(!is_known_event(m, body->_fEventId)))
        return kForward;
    tSkipReason reason =
        find_skip_reason<kIsShared>(m, body->_fEventId, thread, record, borrow_lineno(m, body, args, nargs));
    if (reason == kNothingNeedsIt)
        return kAnswerNone;
    return reason == kLineMayHaveBreakpoint ? kUndecided : kForward;
}

// CHANGE-ANSWER: any event: the fast test of a step, or kUndecided.
// A verdict without effects: it logs nothing, holds nothing and runs no code of the program. What it borrows is held
// by the code object's slot and the thread's dict, which nothing can change meanwhile; where kIsShared, who changes
// them waits for it.
template <bool kIsShared>
__attribute__((always_inline)) static inline tVerdict decide_fast(tModuleState* m, const CInitialCallbackBody* body,
                                                                  PyObject* const* args, Py_ssize_t nargs)
{
    if (XPY_UNLIKELY(nargs < 1 || XPy_BorrowTypeInline(args[0]) != api.PyCode_Type_ptr))
        return kUndecided;
    PyObject* record = borrow_ready_record<kIsShared>(m, args[0]);
    if (XPY_UNLIKELY(!record || read_number<kIsShared>(&m->dp->initial_monitoring_callbacks)))
        return kUndecided;
    const CPerCodeObjectBody* record_body = per_code_object_body(record, as_type(m->CPerCodeObject));
    PyObject* flag = borrow_field<kIsShared>(&record_body->fIsInternal);
    if (XPY_UNLIKELY(flag != api.Py_False)) {
        bool is_internal = flag == api.Py_True && XPy_BorrowTypeInline(record) == as_type(m->CPerCodeObject);
        return !is_internal ? kUndecided : body->fCanReturnDisable ? kAnswerDisable : kAnswerNone;
    }
    PyObject* linenos = borrow_deciding_lines<kIsShared>(m, body, record_body, nargs);
    if (linenos) {
        tLinenoFound found = find_lineno_of<kIsShared>(record_body, linenos, args[1]);
        // CHANGE-ANSWER: a line without a breakpoint while no thread steps or is held, fast path.
        if (XPY_LIKELY(found == kLinenoAbsent))
            return kAnswerNone;
        if (found == kLinenoOpen)
            return kUndecided;
    }
    return decide_fast_for_thread<kIsShared>(m, body, record_body, args, nargs);
}

// Calls the second callback; its exception is reported and answered None.
static inline PyObject* call_second_or_report(tModuleState* m, PyObject* second, PyObject* const* args,
                                              Py_ssize_t nargs, PyObject* kwnames)
{
    PyObject* result = call_second(second, args, nargs, kwnames);
    if (XPY_LIKELY(result != nullptr))
        return result;
    suppress_failure(m);
    return new_none();
}

// An event that the host is to see.
__attribute__((noinline)) static PyObject* forward(PyObject* self, tModuleState* m, CInitialCallbackBody* body,
                                                   PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, 0, 0};
    CInitialCallback_Callback_SaveErrno(&ctx);
    XPy_InlineIncRef(self);  // as in decide_fully()
    PyObject* result = call_second_or_report(m, body->fSecondCallback, args, nargs, kwnames);
    XPy_InlineDecRef(self);
    CInitialCallback_Callback_Ctx_finish(&ctx);
    return result;
}

// What an event for the host needs of the instance, which another thread may drop meanwhile.
struct tForwarding {
    PyObject* second;  // [owned]
    PyObject* module;  // [owned]
};

// decide_fast() without the interpreter lock; undecided where this thread cannot be a reader. Sets *FORWARDING where
// the event goes to the second callback.
static inline tVerdict decide_fast_reading(tModuleState* m, const CInitialCallbackBody* body, PyObject* const* args,
                                           Py_ssize_t nargs, tForwarding* forwarding)
{
    XPyReading reading;
    if (!reading)
        return kUndecided;
    tVerdict verdict = decide_fast<true>(m, body, args, nargs);
    if (verdict != kForward)
        return verdict;
    PyObject* second = borrow_field<true>(&body->fSecondCallback);
    if (!second || !body->mod)
        return kUndecided;  // a half-made instance, which the full path holds
    *forwarding = {XPy_NewRef(second), XPy_NewRef(body->mod)};
    return kForward;
}

// forward() without the interpreter lock. The instance is not held: its count would be one that all threads write.
// Once a second thread has run, the interpreter keeps modules, and functions of modules and classes, for ever and
// counts no references to them.
__attribute__((noinline)) static PyObject* forward_shared(const tForwarding* forwarding, tModuleState* m,
                                                          PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames)
{
    CInitialCallback_Callback_Ctx ctx = {m, nullptr, nullptr, nullptr, 0, 0};
    CInitialCallback_Callback_SaveErrno(&ctx);
    XPyOwned second(forwarding->second);
    XPyOwned module(forwarding->module);
    PyObject* result = call_second_or_report(m, second.borrow(), args, nargs, kwnames);
    second.reset(nullptr);
    module.reset(nullptr);
    CInitialCallback_Callback_Ctx_finish(&ctx);
    return result;
}

// ---- The callback ----

// None as an answer. [new]; it is immortal wherever events are filtered, from 3.12 on, and needs no count.
static inline PyObject* answer_none(void)
{
    return api.Py_None;
}

template <bool kIsShared>
static PyObject* CInitialCallback_Callback(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                           Py_ssize_t nargs, PyObject* kwnames);

// The first event of a process, whose body is yet to be found, and events of half-made instances and cleared modules.
template <bool kIsShared>
XPY_COLD static PyObject* start_slowly(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                       Py_ssize_t nargs, PyObject* kwnames)
{
    CInitialCallbackBody* body = initial_callback_body(self, defining_class);
    if (body && !body->mod_state)
        body->mod_state = static_cast<tModuleState*>(api.PyType_GetModuleState(defining_class));
    if (!body || !body->mod_state || !body->mod_state->dp) {
        api.PyErr_Clear();  // the module has been cleared or is being taken apart
        return new_none();
    }
    return CInitialCallback_Callback<kIsShared>(self, defining_class, args, nargs, kwnames);
}

// The method that events call. kIsShared: where no interpreter lock keeps others from replacing what it reads.
template <bool kIsShared>
static PyObject* CInitialCallback_Callback(PyObject* self, PyTypeObject* defining_class, PyObject* const* args,
                                           Py_ssize_t nargs, PyObject* kwnames)
{
    Py_ssize_t offset = gInitialCallbackBodyOffset;
    if (XPY_UNLIKELY(offset == -1))
        return start_slowly<kIsShared>(self, defining_class, args, nargs, kwnames);
    CInitialCallbackBody* body = reinterpret_cast<CInitialCallbackBody*>(reinterpret_cast<char*>(self) + offset);
    tModuleState* m = body->mod_state;  // that of the defining class, as construction found it
    if (XPY_UNLIKELY(!m || !m->dp))
        return start_slowly<kIsShared>(self, defining_class, args, nargs, kwnames);
    if (XPY_UNLIKELY(api.cached_pid != read_number<kIsShared>(&m->_gThisProcessPid)))
        return answer_none();  // a forked child whose host has not taken it over
    tForwarding forwarding;
    switch (kIsShared ? decide_fast_reading(m, body, args, nargs, &forwarding)
                      : decide_fast<false>(m, body, args, nargs)) {
        case kAnswerNone:
            return answer_none();
        case kAnswerDisable:
            return XPy_NewRef(m->monitoring_disabled);
        case kForward:
            return kIsShared ? forward_shared(&forwarding, m, args, nargs, kwnames)
                             : forward(self, m, body, args, nargs, kwnames);
        case kUndecided:
            break;
    }
    return decide_fully(self, m, body, args, nargs, kwnames);
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
    XPyOwned second;  // released after events that have just read it hold it
    CInitialCallbackBody* body = gIsLockOff ? initial_callback_body(self, borrow_defining_class(self)) : nullptr;
    if (body) {
        second.reset(take_shared_member(self, &body->fSecondCallback));
        wait_for_readers();
    }
    clear_object_members(self);
}

static PyMethodDef kMethods[] = {
    {"Callback", AS_METHOD(CInitialCallback_Callback<false>), kMethInstance, kDocCInitialCallback_Callback},
    {nullptr, nullptr, 0, nullptr},
};

static PyMemberDef kMembers[] = {
    NAMED_MEMBER("_mod", CInitialCallback, mod, kMemberObject, kMemberReadOnly),
    NAMED_MEMBER("_fSecondCallback", CInitialCallback, fSecondCallback, kMemberObject, kMemberReadOnly),
    NAMED_MEMBER("_fCanReturnDisable", CInitialCallback, fCanReturnDisable, kMemberInt, kMemberReadOnly),
    MEMBER(CInitialCallback, fAnySuspendThread, kMemberInt, 0),
    MEMBER(CInitialCallback, fSteppingEventsNeededEveryThread, kMemberInt, 0),
    {nullptr, 0, 0, 0, nullptr},
};

void CInitialCallback_ChooseCallback(void)
{
    if (gIsLockOff)
        kMethods[0].ml_meth = AS_METHOD(CInitialCallback_Callback<true>);
}

static PyType_Slot kSlots[] = {CLASS_SLOTS(CInitialCallback)};

static PyType_Spec kSpec = {"optmonitoring.CInitialCallback", sizeof(CInitialCallbackBody), 0, kTypeBaseType, kSlots};

tClassInfo kInitialCallbackClass = {"CInitialCallback", &kSpec, kMembers, &gInitialCallbackBodyOffset};
