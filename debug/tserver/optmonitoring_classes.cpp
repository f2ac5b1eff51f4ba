// What the four classes share: their bodies, members, hooks and the way back to the module.

#include "optmonitoring_internal.h"

Py_ssize_t gInitialCallbackBodyOffset = -1;
Py_ssize_t gPerThreadBodyOffset = -1;
Py_ssize_t gPerCodeObjectBodyOffset = -1;
Py_ssize_t gPerFileBodyOffset = -1;

// ---- From an instance to its class, body and module ----

static PyTypeObject* borrow_base(PyTypeObject* type)
{
    return *static_cast<PyTypeObject**>(XPy_GetFieldAddress(type, api.typeobject_offsets.tp_base));
}

PyTypeObject* borrow_defining_class(PyObject* obj)
{
    // A subclass made in Python has no module of its own; ours is the class right below `object`, because it is the
    // one that gives the instances their layout.
    PyTypeObject* type = XPy_BorrowTypeInline(obj);
    for (PyTypeObject* base = borrow_base(type); base && borrow_base(base); base = borrow_base(base))
        type = base;
    return type;
}

PyObject* borrow_module_of(PyObject* obj)
{
    return api.PyType_GetModule(borrow_defining_class(obj));
}

tModuleState* state_of_class(PyTypeObject* cls)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyType_GetModuleState(cls));
    if (!m && !api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_SystemError, "optmonitoring: the class has no module state");
    if (!m || m->dp)
        return m;
    // The classes outlive a module that was cleared, for instance after a failed import.
    api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring has been cleared");
    return nullptr;
}

tModuleState* state_of(PyObject* obj)
{
    return state_of_class(borrow_defining_class(obj));
}

void* find_body(PyObject* obj, PyTypeObject* cls, Py_ssize_t* body_offset)
{
    void* body = api.PyObject_GetTypeData(obj, cls);
    if (body)
        *body_offset = static_cast<char*>(body) - reinterpret_cast<char*>(obj);
    else if (!api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_SystemError, "optmonitoring: the object has no body");
    return body;
}

void clear_object_members(PyObject* obj)
{
    void* slot = api.PyType_GetSlot(borrow_defining_class(obj), kSlotTpMembers);
    for (PyMemberDef* member = static_cast<PyMemberDef*>(slot); member && member->name; member++) {
        if (member->type == kMemberObject)
            XPy_ClearField(reinterpret_cast<PyObject**>(reinterpret_cast<char*>(obj) + member->offset));
    }
}

// ---- Class attributes ----

bool clear_if_raised(PyObject* exception)
{
    PyObject* raised = api.PyErr_Occurred();
    if (!raised || !api.PyErr_GivenExceptionMatches(raised, exception))
        return false;
    api.PyErr_Clear();
    return true;
}

int set_class_hook(PyObject* cls, const char* attribute, PyObject* callback)
{
    return api.PyObject_SetAttrString(cls, attribute, callback);
}

PyObject* make_none(void)
{
    return new_none();
}

PyObject* get_class_attr_or_make(PyObject* cls, const char* attribute, PyObject* (*make)(void))
{
    PyObject* value = api.PyObject_GetAttrString(cls, attribute);
    if (value || !clear_if_raised(api.PyExc_AttributeError))
        return value;
    XPyOwned made(make());
    if (!made || api.PyObject_SetAttrString(cls, attribute, made.borrow()) < 0)
        return nullptr;
    return made.detach();
}

// ---- The new-record hook ----

static int call_new_object_callback(PyObject* callback, PyObject* new_object)
{
    PyThreadState* tstate = api.PyThreadState_Get();
    add_to_thread_state_tracing(tstate, 1);  // the hook's own code is not to be monitored
    XPyOwned result(do_one_arg_call(callback, new_object));
    add_to_thread_state_tracing(tstate, -1);
    return result ? 0 : -1;
}

int CallNewObjectCallback_direct(tDPData* dp, PyObject* cls, const char* attribute, PyObject* new_object)
{
    XPyOwned callback(api.PyObject_GetAttrString(cls, attribute));
    if (callback.borrow() == api.Py_None)
        return 0;
    if (!callback || call_new_object_callback(callback.borrow(), new_object) < 0)
        return fail_int(dp, "Exception in CallNewObjectCallback_direct\n");
    return 0;
}

int refuse_keywords(PyObject* kwargs, const char* class_name)
{
    if (!kwargs || api.PyDict_Size(kwargs) == 0)
        return 0;
    api.PyErr_Format(api.PyExc_TypeError, "%s() takes no keyword arguments", class_name);
    return -1;
}
