// Locks and references where no interpreter lock keeps threads apart.

#include "xpy_c_api_shared.h"

bool gIsLockOff;
bool gMayReadSlots;

// Functions outside the binding table, which are needed here alone.
static void (*begin_section)(void* section, PyObject* obj);  // PyCriticalSection_Begin
static void (*end_section)(void* section);                   // PyCriticalSection_End
static int (*set_default)(PyObject* dict, PyObject* key, PyObject* value, PyObject** result);  // PyDict_SetDefaultRef

template <typename T>
static bool find_function(const char* name, T** function)
{
    *function = reinterpret_cast<T*>(XPy_LookupPythonFunction(name));
    return *function != nullptr;
}

// What the user of the interpreter has said about its lock: 1: on, 0: off, -1: nothing. The lock is on at any rate
// while a module loads, and goes off again if that can do without.
static int get_wanted_lock(void)
{
    PyObject* borrowed = api.PySys_GetObject("flags");
    XPyOwned flags(XPy_NewRef(borrowed));
    XPyOwned wanted(flags ? api.PyObject_GetAttrString(flags.borrow(), "gil") : nullptr);
    long long value = wanted && wanted.borrow() != api.Py_None ? api.PyLong_AsLongLong(wanted.borrow()) : -1;
    api.PyErr_Clear();
    return static_cast<int>(value);
}

// The versions on which storms of threads have been run. The interpreter stores the array of a code object's extra
// slots behind what is in it with plain stores, which this processor keeps in order. PYVERSIONS
static bool is_proved(void)
{
#ifdef __x86_64__
    static constexpr uint32_t kFirst = 0x030d05f0, kEnd = 0x030e0000;
    void* version = XPy_LookupPythonFunction("Py_Version");
    return version && *static_cast<const uint64_t*>(version) >= kFirst &&
           *static_cast<const uint64_t*>(version) < kEnd;
#else
    return false;
#endif
}

bool init_shared(void)
{
    if (api.pyobject_offsets.mutex == -1)
        return false;
    bool has_all =
        api.PyMutex_Lock && api.PyMutex_Unlock && find_function("PyCriticalSection_Begin", &begin_section) &&
        find_function("PyCriticalSection_End", &end_section) && find_function("PyDict_SetDefaultRef", &set_default);
    bool can_do_without = has_all && is_proved();
    int wanted = get_wanted_lock();
    bool is_off = has_all && (can_do_without ? wanted != 1 : wanted == 0);
    if (is_off)
        init_readers();
    gIsLockOff = is_off;
    gMayReadSlots = can_do_without && is_off;
    return can_do_without;
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

PyObject* new_ref_of_read_member(PyObject* owner, PyObject* const* field)
{
    XPyReading reading;
    if (!reading)
        return new_ref_of_shared_member(owner, field);
    return XPy_NewRef(__atomic_load_n(field, __ATOMIC_ACQUIRE));
}

PyObject* take_shared_member(PyObject* owner, PyObject** field)
{
    XPyObjectLocked locked(owner);
    return __atomic_exchange_n(field, nullptr, __ATOMIC_ACQ_REL);
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
    XPy_Store(field, XPy_NewRef(value));
}
