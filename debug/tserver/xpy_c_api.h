// The binding layer: the interpreter's C API, found by name in the running process.
//
// The module is never linked to the Python runtime. Every interpreter function, exception and type that it uses
// is an entry of global_XPy_C_API_Data, filled once by XPy_Initialize. After that call has returned 0, required
// entries and entries with a fallback are never null, the version numbers are set, and the offset records say
// where the interpreter structures of this very build keep their fields (-1: no such field).
//
// Reference rules in this and the other headers: [new] the caller owns the reference, [borrowed] somebody else
// does, [steals] the callee takes it over. All functions need the interpreter lock unless they say otherwise.

#ifndef OPTMONITORING_XPY_C_API_H
#define OPTMONITORING_XPY_C_API_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <wchar.h>

#define XPY_EXPORT extern "C" __attribute__((visibility("default")))
#define XPY_COLD __attribute__((cold, noinline))
#define XPY_LIKELY(x) __builtin_expect(!!(x), 1)
#define XPY_UNLIKELY(x) __builtin_expect(!!(x), 0)

// The interpreter's types, as far as pointers to them and the few records we fill need them.
#ifdef Py_PYTHON_H
#error "xpy_c_api.h stands in for the interpreter's own header; include one of them"
#endif

typedef ssize_t Py_ssize_t;
typedef struct _object PyObject;
typedef struct _typeobject PyTypeObject;
typedef struct _ts PyThreadState;
typedef struct _is PyInterpreterState;
typedef struct _frame PyFrameObject;
typedef struct PyCodeObject PyCodeObject;
typedef struct PyModuleDef PyModuleDef;
typedef struct PyGetSetDef PyGetSetDef;
typedef struct PyMutex PyMutex;
typedef struct _Py_tss_t Py_tss_t;
typedef void* PyThread_type_lock;
typedef enum { PyGILState_LOCKED, PyGILState_UNLOCKED } PyGILState_STATE;
typedef void (*PyCapsule_Destructor)(PyObject*);
typedef int (*Py_tracefunc)(PyObject*, PyFrameObject*, int, PyObject*);
typedef PyObject* (*PyCFunction)(PyObject*, PyObject*);

struct PyMethodDef {
    const char* ml_name;
    PyCFunction ml_meth;
    int ml_flags;
    const char* ml_doc;
};

struct PyMemberDef {
    const char* name;
    int type;
    Py_ssize_t offset;
    int flags;
    const char* doc;
};

struct PyType_Slot {
    int slot;
    void* pfunc;
};

struct PyType_Spec {
    const char* name;
    int basicsize;
    int itemsize;
    unsigned int flags;
    PyType_Slot* slots;
};

typedef void (*XPy_FreeFunc)(void*);
typedef void* XPy_EvalFrameFunc;  // the frame-evaluation function; its parameters differ between versions

// Where a table entry is looked up. PYVERSIONS
enum tPythonRange {
    kAnyPython,
    kPython2,
    kPython3,
    kPython3d5,   // 3.5 and later
    kPython3d12,  // 3.12 and later
};

// Byte offsets; -1: the running interpreter has no such field.
struct XPy_PyObjectOffsets {
    Py_ssize_t refcnt;
    Py_ssize_t type;
    Py_ssize_t mutex;
    Py_ssize_t overflow;
    Py_ssize_t flags;
};

// Byte offsets in a thread state. On a version without a table all stay 0 and nothing is read through them.
struct XPy_ThreadStateOffsets {
    Py_ssize_t next;
    Py_ssize_t interp;
    Py_ssize_t frame;
    Py_ssize_t c_tracefunc;
    Py_ssize_t c_traceobj;
    Py_ssize_t thread_id;
    Py_ssize_t tracing;
    Py_ssize_t use_tracing;
    Py_ssize_t cframe;  // from 3.13 on the current frame itself
    Py_ssize_t what_event;
};

struct XPy_FrameOffsets {
    Py_ssize_t lineno;
    Py_ssize_t code;
    Py_ssize_t builtins;
    Py_ssize_t trace;
    Py_ssize_t iblock;
    Py_ssize_t locals;
    Py_ssize_t globals;
    Py_ssize_t back;
    Py_ssize_t stacktop;
    Py_ssize_t state;
};

struct XPy_InterpreterStateOffsets {
    Py_ssize_t eval_frame;
};

struct XPy_CFrameOffsets {
    Py_ssize_t current_frame;
};

struct XPy_TypeObjectOffsets {
    Py_ssize_t tp_basicsize;
    Py_ssize_t tp_vectorcall_offset;
    Py_ssize_t tp_flags;
    Py_ssize_t tp_base;
};

// The binding table. Written by start-up only (cached_pid also in a forked child), read without locks.
struct XPy_C_API_Data {
    int initialized;                   // 1 once start-up has succeeded; final
    int failed_to_initialize;          // 1 once start-up has failed for good
    int major_version;                 // sys.version_info[0]
    int minor_version;                 // sys.version_info[1]
    int micro_version;                 // sys.version_info[2]
    int api_version;                   // sys.api_version
    int pydebug_build;                 // 1: reference-tracing build, object headers are 16 bytes longer
    int can_update_refcount_directly;  // 1: counts may be changed in the object header
    int refcnt_is_32bit;               // 1: the count word is 32 bits wide, negative means immortal
    pid_t cached_pid;                  // refreshed in the child after fork
    const char* dll_ptr;               // image of every look-up; null: the process's global namespace
    XPy_PyObjectOffsets pyobject_offsets;
    XPy_ThreadStateOffsets tstate_offsets;
    XPy_FrameOffsets frame_offsets;
    XPy_InterpreterStateOffsets interpreter_state_offsets;
    XPy_CFrameOffsets cframe_offsets;
    XPy_TypeObjectOffsets typeobject_offsets;
    Py_ssize_t max_align;  // alignment unit of the interpreter's structures, bytes

#define XPY_FN(result, entry, parameters, range) result(*entry) parameters;
#define XPY_FN_OPT(result, entry, parameters, range) result(*entry) parameters;
#define XPY_FN_OR(result, entry, parameters, range, fallback) result(*entry) parameters;
#define XPY_FN_NEED_OR(result, entry, parameters, range, fallback) result(*entry) parameters;
#define XPY_FN_UNICODE(result, entry, parameters, range, prefix, suffix) result(*entry) parameters;
#define XPY_FN_UNICODE_OR(result, entry, parameters, range, prefix, suffix, fallback) result(*entry) parameters;
#define XPY_FN_FOUND(result, entry, parameters) result(*entry) parameters;
#include "xpy_c_api_entries.inc"

    PyObject* Py_None;
    PyObject* Py_True;
    PyObject* Py_False;
    const char* Py_FileSystemDefaultEncoding;

#define XPY_EXC(exception) PyObject* exception;
#define XPY_TYPE(type, range) PyTypeObject* type##_ptr;
#define XPY_TYPE_OPT(type, range) PyTypeObject* type##_ptr;
#include "xpy_c_api_entries.inc"
};

extern "C" __attribute__((visibility("default"))) XPy_C_API_Data global_XPy_C_API_Data;

static constexpr XPy_C_API_Data& api = global_XPy_C_API_Data;

// ---- Start-up (xpy_c_api_init.cpp) ----

// Fills the table from the running process. 0, or -1 (or another non-zero value) with ImportError "Unable to init
// XPy" pending unless an exception was pending already. The first thing the module's initialisation calls.
XPY_EXPORT int XPy_Initialize(void);

// Fills the table by look-ups in the image named DLL (null: the process). 0 on success, at once when already done;
// non-zero on failure; a later call may succeed unless failed_to_initialize is set.
XPY_EXPORT int XPy_InitializeWithDllPtr(const char* dll);

// Address of a symbol in the table's image, null when absent. Silent.
XPY_EXPORT void* XPy_LookupPythonFunction(const char* name);

XPY_EXPORT int XPy_GetMajorVersion(void);
XPY_EXPORT int XPy_GetMinorVersion(void);

// Makes the next XPy_Initialize fail on purpose while VALUE is non-zero. Returns the previous value.
XPY_EXPORT int XPy_DbgSetFailOnImport(int value);

// Child handler of fork: refreshes cached_pid. Needs no interpreter lock.
XPY_EXPORT void XPy_OnForkInChild(void);

// Raises ImportError "Unable to init XPy" if the interpreter allows it and nothing is pending.
XPY_EXPORT void XPy_TryToRaiseImportError(void);

// ---- The log of code without module state (xpy_c_api_init.cpp, over dprintf.h) ----

// Hands FILE [borrowed], a descriptor (-1: none) and a native handle's text to a fresh process-wide log. 1, or 0 when
// start-up has not succeeded yet.
XPY_EXPORT int XPy_SetDPrintfFile(PyObject* file, int fileno, const char* win32_handle);

// Sends the process-wide log to a descriptor alone. Returns 1. Needs no started-up table.
XPY_EXPORT int XPy_SetDPrintfNativeFile(int fileno, const char* win32_handle);

// Sets the process-wide mask and returns the previous one. Needs no started-up table.
XPY_EXPORT int XPy_SetDPrintfMask(int mask);

// ---- References ----

// Changes a reference count, in the header where this build allows it, else through the interpreter; a count that
// would reach zero always goes through Py_DecRef. OBJ must not be null.
XPY_EXPORT void XPy_DoIncRef(PyObject* obj);
XPY_EXPORT void XPy_DoDecRef(PyObject* obj);

// The same through the interpreter's Py_IncRef and Py_DecRef, unconditionally.
XPY_EXPORT void XPy_CallIncRef(PyObject* obj);
XPY_EXPORT void XPy_CallDecRef(PyObject* obj);

// Type of OBJ [borrowed], or null with an exception pending.
XPY_EXPORT PyTypeObject* XPy_BorrowType(PyObject* obj);

// 1 equal, 0 different, -1 with an exception pending.
XPY_EXPORT int XPy_PyObjectsEqual(PyObject* a, PyObject* b);

// Address of the field at OFFSET, or null when the offset is -1.
static inline void* XPy_GetFieldAddress(const void* obj, Py_ssize_t offset)
{
    return offset == -1 ? nullptr : const_cast<char*>(static_cast<const char*>(obj)) + offset;
}

// Address of a thread state's field, or null where there is none. On a version without a table the offsets are 0,
// where only the link to the next state stands, which is not read through this.
template <typename T>
static inline T* XPy_FindThreadStateField(PyThreadState* tstate, Py_ssize_t offset)
{
    return offset > 0 ? static_cast<T*>(XPy_GetFieldAddress(tstate, offset)) : nullptr;
}

// True when the object's count is never written. Needs a known refcnt offset to say yes.
static inline bool XPy_IsImmortal(const PyObject* obj)
{
    const void* count = XPy_GetFieldAddress(obj, api.pyobject_offsets.refcnt);
    return count && api.refcnt_is_32bit && *static_cast<const int32_t*>(count) < 0;
}

// The reference count, or -1 where this build keeps none at a known place.
static inline Py_ssize_t XPy_GetRefCnt(const PyObject* obj)
{
    const void* count = XPy_GetFieldAddress(obj, api.pyobject_offsets.refcnt);
    if (!count)
        return -1;
    return api.refcnt_is_32bit ? static_cast<Py_ssize_t>(*static_cast<const uint32_t*>(count))
                               : *static_cast<const Py_ssize_t*>(count);
}

// The primitives above, inline: reading and writing the count costs less than a call.
static inline void XPy_InlineIncRef(PyObject* obj)
{
    if (XPY_UNLIKELY(!api.can_update_refcount_directly)) {
        api.Py_IncRef(obj);
        return;
    }
    void* count = reinterpret_cast<char*>(obj) + api.pyobject_offsets.refcnt;
    if (XPY_LIKELY(api.refcnt_is_32bit)) {
        uint32_t word = *static_cast<uint32_t*>(count);
        if (static_cast<int32_t>(word) >= 0)
            *static_cast<uint32_t*>(count) = word + 1;
    } else {
        ++*static_cast<int64_t*>(count);
    }
}

static inline void XPy_InlineDecRef(PyObject* obj)
{
    if (XPY_LIKELY(api.can_update_refcount_directly)) {
        void* count = reinterpret_cast<char*>(obj) + api.pyobject_offsets.refcnt;
        if (XPY_LIKELY(api.refcnt_is_32bit)) {
            int32_t word = *static_cast<int32_t*>(count);
            if (word < 0)
                return;
            if (XPY_LIKELY(word > 1)) {
                *static_cast<int32_t*>(count) = word - 1;
                return;
            }
        } else if (*static_cast<int64_t*>(count) > 1) {
            --*static_cast<int64_t*>(count);
            return;
        }
    }
    api.Py_DecRef(obj);
}

// Sets an owned field to null, then releases what it held.
template <typename T>
static inline void XPy_ClearField(T** field)
{
    PyObject* old = reinterpret_cast<PyObject*>(*field);
    *field = nullptr;
    if (old)
        XPy_InlineDecRef(old);
}

// A field that several threads read and write at the same time, where either value is right: the plain load or store
// that it is with the interpreter lock.
template <typename T>
static inline T XPy_Load(const T* field)
{
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

template <typename T>
static inline void XPy_Store(T* field, T value)
{
    __atomic_store_n(field, value, __ATOMIC_RELAXED);
}

// OBJ with a new reference taken; null stays null. [new]
static inline PyObject* XPy_NewRef(PyObject* obj)
{
    if (obj)
        XPy_InlineIncRef(obj);
    return obj;
}

// Puts a new reference to VALUE into an owned field, then releases what the field held.
static inline void XPy_SetField(PyObject** field, PyObject* value)
{
    PyObject* old = *field;
    *field = XPy_NewRef(value);
    if (old)
        XPy_InlineDecRef(old);
}

// Puts VALUE [steals] into an owned field, then releases what the field held.
static inline void XPy_MoveToField(PyObject** field, PyObject* value)
{
    PyObject* old = *field;
    *field = value;
    if (old)
        XPy_InlineDecRef(old);
}

// One local strong reference; move-only.
class XPyOwned
{
  public:
    explicit XPyOwned(PyObject* new_ref = nullptr) : fPtr(new_ref) {}  // takes over a [new] reference
    XPyOwned(XPyOwned&& other) noexcept : fPtr(other.detach()) {}
    XPyOwned(const XPyOwned&) = delete;
    XPyOwned& operator=(const XPyOwned&) = delete;
    ~XPyOwned() { XPy_ClearField(&fPtr); }
    PyObject* borrow() const { return fPtr; }  // [borrowed]
    PyObject* detach()                         // [new], the caller owns it now
    {
        PyObject* p = fPtr;
        fPtr = nullptr;
        return p;
    }
    void reset(PyObject* new_ref)  // takes over a [new] reference, releases the old one
    {
        PyObject* old = fPtr;
        fPtr = new_ref;
        if (old)
            XPy_InlineDecRef(old);
    }
    PyObject** out() { return &fPtr; }  // for calls that store a [new] reference; only while empty
    explicit operator bool() const { return fPtr != nullptr; }

  private:
    PyObject* fPtr;
};

// Holds the pending exception, if any, while other code runs that may raise, and puts it back at the end of the
// scope.
class XPyHeldError
{
  public:
    XPyHeldError() { api.PyErr_Fetch(&fType, &fValue, &fTraceback); }
    ~XPyHeldError() { api.PyErr_Restore(fType, fValue, fTraceback); }
    XPyHeldError(const XPyHeldError&) = delete;
    XPyHeldError& operator=(const XPyHeldError&) = delete;

  private:
    PyObject* fType = nullptr;
    PyObject* fValue = nullptr;
    PyObject* fTraceback = nullptr;
};

// Type of OBJ, read in its header. [borrowed]
static inline PyTypeObject* XPy_BorrowTypeInline(PyObject* obj)
{
    return *reinterpret_cast<PyTypeObject**>(reinterpret_cast<char*>(obj) + api.pyobject_offsets.type);
}

// True when the type of OBJ is TYPE or derives from it. Null arguments: false.
static inline bool XPy_IsInstance(PyObject* obj, PyTypeObject* type)
{
    if (!obj || !type)
        return false;
    PyTypeObject* own = XPy_BorrowTypeInline(obj);
    return own == type || api.PyType_IsSubtype(own, type);
}

// ---- Structure layouts (xpy_c_api_layout.cpp) ----

// One row of a layout table; a null name ends the table. Sizes in bytes; "<PyObject_HEAD>" and "<PyObject_VAR_HEAD>"
// stand for the running interpreter's object header, whatever size they carry; -1 is a nested structure not yet
// sized.
struct XPy_FieldWithSize {
    const char* name;
    Py_ssize_t size;
};

// Offset of the named field, or the size of all fields when NAME is null; -1 when not found. Silent.
XPY_EXPORT Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* table);

// The same, and writes a miss to standard error.
XPY_EXPORT Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* table);

// Size of all fields without tail padding, or -1.
XPY_EXPORT Py_ssize_t FindSizeOfAllFields(const XPy_FieldWithSize* table);

// Sets the size of the named row; nothing when the name is absent.
XPY_EXPORT void SetFieldSize(XPy_FieldWithSize* table, const char* name, Py_ssize_t size);

// Byte offsets that only short cuts read; -1: unknown, and the full path is taken.
struct XPy_ShortcutOffsets {
    Py_ssize_t set_mask;      // sets: number of entries less one
    Py_ssize_t set_table;     // address of the entries
    Py_ssize_t int_tag;       // ints: sign and number of digits
    Py_ssize_t int_digit;     // the lowest digit
    Py_ssize_t type_version;  // type objects: a number that each change of the type takes away
    Py_ssize_t frame_code;    // the interpreter's own record of a running frame: its code object
};
extern XPy_ShortcutOffsets gShortcutOffsets;  // but for frame_code -1 on a free-threaded build

// The same fields of a free-threaded build, where only what cannot change is read in place; -1 on all others.
extern XPy_ShortcutOffsets gSharedShortcutOffsets;

// ---- Modules (xpy_c_api_modules.cpp) ----

// Version-neutral module definition.
struct XPyModuleDef {
    const char* m_name;
    const char* m_doc;
    Py_ssize_t m_size;  // bytes of per-module state; -1 for single-phase modules
    PyMethodDef* m_methods;
    PyObject* (*m_create)(PyObject* spec, PyModuleDef* def);
    int (*m_exec)(PyObject* module);
    int m_multiple_interp_flag;
    int m_no_gil_support_flag;  // 0: no GIL slot
    int (*m_traverse)(PyObject* module, int (*visit)(PyObject*, void*), void* arg);
    int (*m_clear)(PyObject* module);
    void (*m_free)(void* module);
};

// A module definition laid out for the running interpreter, or null. It lives as long as the process.
XPY_EXPORT PyModuleDef* XPy_CreatePy3ModuleDef(const XPyModuleDef* def);

// A single-phase module, or null with an exception pending. [new] on Python 3, [borrowed] on Python 2.
XPY_EXPORT PyObject* XPy_InitModule(const char* name, PyMethodDef* methods);

// The definition as the object that a multi-phase entry point returns [borrowed], or null with an exception pending.
XPY_EXPORT PyObject* XPyModuleDef_Init(const XPyModuleDef* def);

// The interpreter's frame-evaluation function, per family of versions: getters answer null, setters -1 where the
// family does not apply; setters answer 0 after installing what they were given. No exceptions.
XPY_EXPORT XPy_EvalFrameFunc XPy_GetEvalFrameFunctionNoThreadState(void);
XPY_EXPORT int XPy_SetEvalFrameFunctionNoThreadState(XPy_EvalFrameFunc func);
XPY_EXPORT XPy_EvalFrameFunc XPy_GetEvalFrameFunctionWithThreadState(void);
XPY_EXPORT int XPy_SetEvalFrameFunctionWithThreadState(XPy_EvalFrameFunc func);
XPY_EXPORT XPy_EvalFrameFunc XPy_GetEvalFrameFunctionPyInterpreterFrame(void);
XPY_EXPORT int XPy_SetEvalFrameFunctionPyInterpreterFrame(XPy_EvalFrameFunc func);
XPY_EXPORT bool XPy_SupportsEvalFunctionWithThreadState(void);
XPY_EXPORT bool XPy_SupportsEvalFunctionPyInterpreterFrame(void);

#endif
