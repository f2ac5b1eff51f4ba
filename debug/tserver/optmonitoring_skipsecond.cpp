// The skip decision: whether neither stepping, breakpoints nor return events need this event.

#include "optmonitoring_fastpath_internal.h"

// The working set of one decision. The call's context and the interpreter hold what it borrows for longer than the
// decision lasts; it owns only a thread's record that it had to fetch itself.
struct CInitialCallback_SkipSecondCallback_locals {
    CInitialCallbackBody* body;
    PyObject* code;             // [borrowed]
    PyObject* per_code_object;  // [borrowed]
    CPerCodeObjectBody* per_code_object_body;
    PyObject* per_thread;  // [borrowed], or the same as fetched_per_thread
    CPerThreadBody* per_thread_body;
    PyObject* per_file;            // not consulted
    PyObject* lineno_obj;          // [borrowed]
    PyObject* fetched_per_thread;  // [owned], null: the context brought one
};

static void CInitialCallback_SkipSecondCallback_clear_frame(CInitialCallback_SkipSecondCallback_locals* locals)
{
    XPy_ClearField(&locals->fetched_per_thread);
}

#define LOG(...) DO_DP(m->dp->initial_monitoring_callbacks, __VA_ARGS__)

// Fetches the thread's record when the context brought none; -1 when that fails.
static int find_per_thread(tModuleState* m, CInitialCallback_SkipSecondCallback_locals* locals)
{
    if (!locals->per_thread) {
        locals->fetched_per_thread = CInitialCallback_GetPerThreadCalledFromCallback(m);
        locals->per_thread = locals->fetched_per_thread;
    }
    if (!locals->per_thread) {
        LOG("no per_thread, returning -1\n");
        return -1;
    }
    if (locals->per_thread != api.Py_None)
        locals->per_thread_body = per_thread_body(locals->per_thread, as_type(m->CPerThread));
    return 0;
}

// Whether a breakpoint is enabled on the event's line: 1, 0, or -1 with an exception pending.
static int has_breakpoint(tModuleState* m, PyObject* linenos, PyObject* lineno_obj)
{
    int contains = api.PySet_Contains(linenos, lineno_obj);
    if (contains < 0) {
        report_failure(m->dp, "Exception in CInitialCallback.SkipSecondCallback():\n");
        LOG("returning -1 due to failure\n");
    }
    return contains;
}

// What the log says of a reason, by tSkipReason; a line with a breakpoint is not remarked on.
static const char* const kReasonTexts[] = {
    "early return of False\n",
    "per_thread_body->fSteppingEventsNeeded is True, returning False\n",
    "per_code_object.fSteppingEventsNeededCount != 0, returning False\n",
    "per_code_object.fEnabledBpLinenos is None, returning False\n",
    nullptr,
    nullptr,
    "per_code_object.fReturnEventsNeededCount != 0, returning False\n",
    "returning True\n",
};

static int CInitialCallback_SkipSecondCallback_inner(tModuleState* m,
                                                     CInitialCallback_SkipSecondCallback_locals* locals)
{
    int event_id = locals->body->_fEventId;
    const CPerCodeObjectBody* record = locals->per_code_object_body;
    XPyOwned held_linenos;
    CPerCodeObjectBody held;
    if (gIsLockOff) {  // the decision is made over what the record holds now, which another thread may replace
        held_linenos.reset(XPy_NewRefOfMember(locals->per_code_object, &record->fEnabledBpLinenos));
        held.fEnabledBpLinenos = held_linenos.borrow();
        held.fSteppingEventsNeededCount = XPy_Load(&record->fSteppingEventsNeededCount);
        held.fReturnEventsNeededCount = XPy_Load(&record->fReturnEventsNeededCount);
        record = &held;
    }
    LOG("  CInitialCallback.SkipSecondCallback(): event id %i; ", event_id);
    tSkipReason reason = kUnknownEvent;
    if (is_known_event(m, event_id)) {
        if (find_per_thread(m, locals) < 0)
            return -1;
        reason = find_skip_reason<false>(m, event_id, locals->per_thread_body, record, locals->lineno_obj);
    }
    if (reason == kLineMayHaveBreakpoint) {
        XPyOwned linenos(XPy_NewRef(record->fEnabledBpLinenos));  // the look-up may run code that replaces it
        int contains = has_breakpoint(m, linenos.borrow(), locals->lineno_obj);
        if (contains != 0)
            return contains < 0 ? -1 : 0;
        reason = find_return_reason<false>(m, event_id, record);
    }
    if (kReasonTexts[reason])
        LOG("%s", kReasonTexts[reason]);
    return reason == kNothingNeedsIt;
}

int CInitialCallback_SkipSecondCallback_direct(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                               PyObject* code)
{
    tModuleState* m = ctx->m;
    CInitialCallback_SkipSecondCallback_locals locals = {};
    locals.body = body;
    locals.code = code;
    locals.per_code_object = ctx->per_code_object;
    locals.per_code_object_body = per_code_object_body(ctx->per_code_object, as_type(m->CPerCodeObject));
    locals.per_thread = ctx->per_thread;
    locals.lineno_obj = ctx->lineno_obj;
    int skip = CInitialCallback_SkipSecondCallback_inner(m, &locals);
    CInitialCallback_SkipSecondCallback_clear_frame(&locals);
    return skip;
}
