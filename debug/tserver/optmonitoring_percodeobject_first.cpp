// The first event of a code object.
//
// What a call of the class does, without the call, while nobody has replaced the class's construction. The record's
// own weak reference serves to find out that no other record is registered: the hash of a code object, which costs
// more than the rest of a look-up, is then computed once.

#include "optmonitoring_percodeobject_internal.h"

typedef PyObject* (*tNew)(PyTypeObject*, PyObject*, PyObject*);

static tClassMark plainly_constructed;  // nobody has replaced the class's construction
static tNew make_instance;              // its __new__ then

void CPerCodeObject_ForgetFindings(tModuleState* m)
{
    forget_mark(&plainly_constructed);
    forget_known_pathnames(m);
}

static bool has_plain_death_callback(PyObject* self, PyTypeObject* cls)
{
    XPyOwned ours(make_death_callback(self, cls));
    XPyOwned theirs(ours ? get_death_callback(self) : nullptr);
    return ours && theirs && XPy_BorrowTypeInline(ours.borrow()) == XPy_BorrowTypeInline(theirs.borrow()) &&
           api.PyObject_RichCompareBool(ours.borrow(), theirs.borrow(), kPyEq) == 1;
}

static PyObject* make_blank(PyTypeObject* cls)
{
    static PyObject* no_args;  // kept: there is one empty tuple, which lives as long as the interpreter
    if (XPY_UNLIKELY(!no_args))
        no_args = api.PyTuple_New(0);
    return no_args ? make_instance(cls, no_args, nullptr) : nullptr;
}

// Marks the class if nobody has replaced how it makes records.
XPY_COLD static void examine_class(PyTypeObject* cls)
{
    void* make = api.PyType_GetSlot(cls, kSlotTpNew);
    make_instance = reinterpret_cast<tNew>(make);
    bool is_plain = api.PyType_GetSlot(cls, kSlotTpInit) == reinterpret_cast<void*>(CPerCodeObject_init) &&
                    make == api.PyType_GetSlot(borrow_base(cls), kSlotTpNew);
    XPyOwned sample(is_plain ? make_blank(cls) : nullptr);
    if (sample && has_plain_death_callback(sample.borrow(), cls))
        mark_class(&plainly_constructed, cls);
}

// An instance [new]; null, perhaps with an exception pending, when construction was replaced.
static PyObject* make_plain_instance(PyTypeObject* cls)
{
    if (XPY_UNLIKELY(!is_as_marked(&plainly_constructed, cls))) {
        plainly_constructed.cls = nullptr;
        if (gShortcutOffsets.type_version != -1)
            examine_class(cls);
    }
    return plainly_constructed.cls ? make_blank(cls) : nullptr;
}

// Whether the registry surely has no record of this code object; an exception may be pending if not.
static bool is_surely_unregistered(tModuleState* m, CPerCodeObjectBody* body, PyObject* code)
{
    XPyOwned dict(CPerCodeObject_GetPlainRegistry(m));
    if (!dict)
        return false;
    XPyOwned other;
    int found = api.PyDict_Contains(dict.borrow(), body->fCodeObjectWeakRef);
    if (found <= 0)
        return found == 0;
    if (api.PyDict_GetItemRef(dict.borrow(), body->fCodeObjectWeakRef, other.out()) <= 0)
        return false;
    CPerCodeObjectBody* other_body = need_per_code_object(m, other.borrow());
    return other_body && CPerCodeObject_BelongsTo(other.borrow(), other_body, code) == 0;
}

// An instance with its weak reference, for a code object that surely has no record. [new], or null and nothing
// pending.
static PyObject* start_record(tModuleState* m, PyObject* code)
{
    PyTypeObject* cls = as_type(m->CPerCodeObject);
    XPyOwned self(make_plain_instance(cls));
    CPerCodeObjectBody* body = self ? per_code_object_body(self.borrow(), cls) : nullptr;
    if (body && set_code_weak_ref(self.borrow(), body, code, make_death_callback(self.borrow(), cls)) == 0 &&
        is_surely_unregistered(m, body, code))
        return self.detach();
    api.PyErr_Clear();
    if (self)
        undo_record_start(self.borrow());
    return nullptr;
}

PyObject* get_running_frame(void)
{
    PyObject* frame = get_thread_state_frame(api.PyThreadState_Get());
    return frame || api.PyErr_Occurred() ? frame : new_none();
}

bool is_surely_running(PyThreadState* tstate, PyObject* code)
{
    static constexpr uintptr_t kMarks = 7;  // low bits, which the interpreter uses from 3.14 on
    if (gShortcutOffsets.frame_code == -1)
        return false;
    void** frame = XPy_FindThreadStateField<void*>(tstate, api.tstate_offsets.cframe);
    if (frame && *frame && api.cframe_offsets.current_frame != -1)
        frame = static_cast<void**>(XPy_GetFieldAddress(*frame, api.cframe_offsets.current_frame));
    if (!frame || !*frame)
        return false;
    // Plain loads will do: this thread itself wrote the frame's address and its code.
    uintptr_t word = *static_cast<uintptr_t*>(XPy_GetFieldAddress(*frame, gShortcutOffsets.frame_code));
    return (word & ~kMarks) == reinterpret_cast<uintptr_t>(code);
}

bool CPerCodeObject_TryCreate(tModuleState* m, PyObject* code, PyObject** record)
{
    void* extra = nullptr;
    bool is_first = api._PyCode_GetExtra(code, m->code_object_extra_index, &extra) == 0 && !extra;
    XPyOwned filename(is_first ? get_code_filename(code) : nullptr);
    tPathnames names;
    if (filename)
        find_known_pathnames(m, filename.borrow(), &names);
    bool needs_frame = !names.canonical || !is_surely_running(api.PyThreadState_Get(), code);
    XPyOwned frame(filename && needs_frame ? get_running_frame() : nullptr);
    XPyOwned self(filename && (frame || !needs_frame) ? start_record(m, code) : nullptr);
    if (!self) {
        api.PyErr_Clear();
        return false;
    }
    CPerCodeObjectBody* body = per_code_object_body(self.borrow(), as_type(m->CPerCodeObject));
    bool is_made = construct_record(m, self.borrow(), body, code, frame.borrow(), &names) == 0;
    *record = is_made ? self.detach() : fail_null(m->dp, kPerCodeObjectInitFailure);
    return true;
}
