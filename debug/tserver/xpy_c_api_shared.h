// What several threads share where no interpreter lock keeps them apart: on a free-threaded interpreter that the
// module does not have switch its lock on.
//
// With the lock, everything here is the plain load or store that it stands for. Without it, a pointer that another
// thread may replace is read together with a reference to what it points at, and replaced in one step. A field of an
// object goes under that object's own lock, as the interpreter does it for members; what has no object goes under a
// lock of its own. Nothing that may run code of the program is done under either: what is replaced is released
// afterwards.
//
// The interpreter stops all threads before it forks, and it stops a thread only where that waits or runs Python code,
// so nothing is half done in a child; a child that native code forks may find other threads in the middle of reads.

#ifndef OPTMONITORING_XPY_C_API_SHARED_H
#define OPTMONITORING_XPY_C_API_SHARED_H

#include "xpy_c_api_readers.h"

// Whether threads may run at the same time. Written once, at start-up; the interpreter may have its lock on
// nevertheless, where another module needs it.
extern bool gIsLockOff;

// Whether events may read code objects' extra slots without a lock.
extern bool gMayReadSlots;

// Once per process, after the binding layer has started up. Whether all is there that the module relies on where the
// lock is off, on an interpreter and a processor on which that has been proved by tests: the module may then say that
// it does not need the lock.
bool init_shared(void);

// ---- Locks ----

// The interpreter's mutex: one byte, which starts as 0.
struct tSharedLock {
    uint8_t bits;
};

// Holds a lock to the end of the scope.
class XPyLocked
{
  public:
    explicit XPyLocked(tSharedLock* lock) : fLock(gIsLockOff ? lock : nullptr)
    {
        if (XPY_UNLIKELY(fLock))
            api.PyMutex_Lock(reinterpret_cast<PyMutex*>(fLock));
    }
    ~XPyLocked()
    {
        if (XPY_UNLIKELY(fLock))
            api.PyMutex_Unlock(reinterpret_cast<PyMutex*>(fLock));
    }
    XPyLocked(const XPyLocked&) = delete;
    XPyLocked& operator=(const XPyLocked&) = delete;

  private:
    tSharedLock* fLock;
};

// Holds an object's own lock to the end of the scope. Only where the interpreter lock is off.
class XPyObjectLocked
{
  public:
    explicit XPyObjectLocked(PyObject* obj);
    ~XPyObjectLocked();
    XPyObjectLocked(const XPyObjectLocked&) = delete;
    XPyObjectLocked& operator=(const XPyObjectLocked&) = delete;

  private:
    uintptr_t fSection[4];  // the interpreter's record of the section, which has two words
};

// ---- Object members ----

// What a member of OWNER holds. [new]; null stays null
PyObject* new_ref_of_shared_member(PyObject* owner, PyObject* const* field);

// The same without a lock, where whoever replaces the member waits for its readers.
PyObject* new_ref_of_read_member(PyObject* owner, PyObject* const* field);

// Empties it; returns what was there [new].
PyObject* take_shared_member(PyObject* owner, PyObject** field);

// Puts a new reference to VALUE there and releases what was there.
void set_shared_member(PyObject* owner, PyObject** field, PyObject* value);

static inline PyObject* XPy_NewRefOfMember(PyObject* owner, PyObject* const* field)
{
    return XPY_UNLIKELY(gIsLockOff) ? new_ref_of_shared_member(owner, field) : XPy_NewRef(*field);
}

static inline void XPy_SetMember(PyObject* owner, PyObject** field, PyObject* value)
{
    if (XPY_UNLIKELY(gIsLockOff))
        set_shared_member(owner, field, value);
    else
        XPy_SetField(field, value);
}

// ---- Dictionaries ----

// Enters VALUE under KEY unless there is one; *RESULT [new] is what is there then. 1: there was one, 0: there was
// none, -1 with an exception pending. Only where the interpreter lock is off.
int XPy_EnterUnlessPresent(PyObject* dict, PyObject* key, PyObject* value, PyObject** result);

// ---- Other fields, under a lock ----

PyObject* XPy_NewRefUnder(tSharedLock* lock, PyObject* const* field);  // [new]; null stays null
void XPy_SetFieldUnder(tSharedLock* lock, PyObject** field, PyObject* value);

#endif
