// Locks and references where no interpreter lock keeps threads apart.

#include "xpy_c_api_shared.h"

bool gIsLockOff;

// Functions outside the binding table, which are needed here alone.
static void (*begin_section)(void* section, PyObject* obj);  // PyCriticalSection_Begin
static void (*end_section)(void* section);                   // PyCriticalSection_End
static int (*set_default)(PyObject* dict, PyObject* key, PyObject* value, PyObject** result);  // PyDict_SetDefaultRef

// Whether the interpreter lock is on, as it is for good while a module loads that does not say that it can do
// without; only the user can keep it off.
static bool is_lock_on(void)
{
    PyObject* borrowed = api.PySys_GetObject("_is_gil_enabled");
    XPyOwned is_enabled(XPy_NewRef(borrowed));
    XPyOwned answer(is_enabled ? api.PyObject_CallNoArgs(is_enabled.borrow()) : nullptr);
    if (!answer)
        api.PyErr_Clear();
    return answer.borrow() != api.Py_False;
}

void init_shared(void)
{
    if (api.pyobject_offsets.mutex == -1)
        return;
    begin_section = reinterpret_cast<void (*)(void*, PyObject*)>(XPy_LookupPythonFunction("PyCriticalSection_Begin"));
    end_section = reinterpret_cast<void (*)(void*)>(XPy_LookupPythonFunction("PyCriticalSection_End"));
    set_default = reinterpret_cast<decltype(set_default)>(XPy_LookupPythonFunction("PyDict_SetDefaultRef"));
    bool has_all = api.PyMutex_Lock && api.PyMutex_Unlock && begin_section && end_section && set_default;
    gIsLockOff = has_all && !is_lock_on();
}

XPyObjectLocked::XPyObjectLocked(PyObject* obj) : fSection()
{
    begin_section(fSection, obj);
}

XPyObjectLocked::~XPyObjectLocked()
{
    end_section(fSection);
}

PyObject* new_ref_of_shared_member(PyObject* owner, PyObject* const* field)
{
    XPyObjectLocked locked(owner);
    return XPy_NewRef(__atomic_load_n(field, __ATOMIC_RELAXED));
}

void set_shared_member(PyObject* owner, PyObject** field, PyObject* value)
{
    XPyOwned old;
    XPyObjectLocked locked(owner);
    *old.out() = __atomic_exchange_n(field, XPy_NewRef(value), __ATOMIC_RELEASE);
}

int XPy_EnterUnlessPresent(PyObject* dict, PyObject* key, PyObject* value, PyObject** result)
{
    return set_default(dict, key, value, result);
}

PyObject* XPy_NewRefUnder(tSharedLock* lock, PyObject* const* field)
{
    XPyLocked locked(lock);
    return XPy_NewRef(*field);
}

void XPy_SetFieldUnder(tSharedLock* lock, PyObject** field, PyObject* value)
{
    XPyOwned old;
    XPyLocked locked(lock);
    *old.out() = *field;
    *field = XPy_NewRef(value);
}
