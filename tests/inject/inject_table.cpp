// Wrappers of the binding table's entries, generated from its list. Start-up gets them from the loader in place of
// the interpreter's functions; entries filled otherwise (second names, fallbacks) are wrapped when it is done. The
// link routes the module's start-up here:
//
//     -Wl,--wrap=XPy_Initialize

#include <string.h>

#include <type_traits>

#include "inject.h"

static XPy_C_API_Data gReal;  // what the wrappers call

enum tEntry {
#define XPY_FN(result, entry, parameters, range) kEntry_##entry,
#define XPY_FN_OPT(result, entry, parameters, range) kEntry_##entry,
#define XPY_FN_OR(result, entry, parameters, range, fallback) kEntry_##entry,
#define XPY_FN_NEED_OR(result, entry, parameters, range, fallback) kEntry_##entry,
#define XPY_FN_UNICODE(result, entry, parameters, range, prefix, suffix) kEntry_##entry,
#define XPY_FN_UNICODE_OR(result, entry, parameters, range, prefix, suffix, fallback) kEntry_##entry,
#define XPY_FN_FOUND(result, entry, parameters) kEntry_##entry,
#include "xpy_c_api_entries.inc"
    kEntryCount,
};

// ---- How entries fail ----

enum tFailure {
    kRaises,   // null or -1, with an exception
    kZero,     // 0, with an exception
    kIsQuiet,  // null or -1, and no exception
    kNever,
};

struct tSpecialEntry {
    tEntry entry;
    tFailure failure;
};

// Entries that do not fail as their result's type suggests: pointers and signed numbers raise, the rest never fails.
static constexpr tSpecialEntry kSpecialEntries[] = {
    {kEntry_PyArg_ParseTuple, kZero},
    {kEntry_PyArg_ParseTupleAndKeywords, kZero},

    {kEntry_PyDict_GetItem, kIsQuiet},
    {kEntry_PyDict_GetItemString, kIsQuiet},
    {kEntry_PyFrame_GetBack, kIsQuiet},
    {kEntry_PyFrame_GetBuiltins, kIsQuiet},
    {kEntry_PyFrame_GetCode, kIsQuiet},
    {kEntry_PyFrame_GetGenerator, kIsQuiet},
    {kEntry_PyFrame_GetGlobals, kIsQuiet},
    {kEntry_PySys_GetObject, kIsQuiet},
    {kEntry_PyThreadState_GetDict, kIsQuiet},
    {kEntry_PyThreadState_GetFrame, kIsQuiet},
    {kEntry_PyThread_tss_alloc, kIsQuiet},
    {kEntry_PyThread_tss_create, kIsQuiet},
    {kEntry_PyThread_tss_set, kIsQuiet},
    {kEntry__PyEval_RequestCodeExtraIndex, kIsQuiet},

    {kEntry_PyCallable_Check, kNever},
    {kEntry_PyDict_Next, kNever},
    {kEntry_PyDict_Size, kNever},  // of an exact dict
    {kEntry_PyErr_Format, kNever},
    {kEntry_PyErr_GetHandledException, kNever},
    {kEntry_PyErr_GetRaisedException, kNever},
    {kEntry_PyErr_GivenExceptionMatches, kNever},
    {kEntry_PyErr_NoMemory, kNever},
    {kEntry_PyErr_Occurred, kNever},
    {kEntry_PyEval_SaveThread, kNever},
    {kEntry_PyFrame_GetLineNumber, kNever},
    {kEntry_PyInterpreterState_ThreadHead, kNever},
    {kEntry_PyList_GetItem, kNever},  // of a list of the module's own, within its size
    {kEntry_PyList_Size, kNever},
    {kEntry_PyModule_GetState, kNever},
    {kEntry_PyThreadState_Get, kNever},
    {kEntry_PyThreadState_GetInterpreter, kNever},
    {kEntry_PyThreadState_New, kNever},
    {kEntry_PyThreadState_Next, kNever},
    {kEntry_PyThread_acquire_lock, kNever},
    {kEntry_PyThread_acquire_lock_timed, kNever},
    {kEntry_PyThread_allocate_lock, kNever},
    {kEntry_PyThread_tss_get, kNever},
    {kEntry_PyType_GetSlot, kNever},
    {kEntry_PyType_IsSubtype, kNever},
    {kEntry_PyVectorcall_NARGS, kNever},
    {kEntry_Py_AddPendingCall, kNever},
    {kEntry_Py_AtExit, kNever},
    {kEntry_Py_GetRecursionLimit, kNever},
    {kEntry__PyInterpreterState_GetEvalFrameFunc, kNever},
    {kEntry__PyObject_GetDictPtr, kNever},
    {kEntry__Py_IsFinalizing, kNever},
};

// Entries that can do what the module asks of them with no memory left.
static constexpr tEntry kNeedNoMemory[] = {
    kEntry_PyCapsule_GetPointer,
    kEntry_PyCapsule_SetDestructor,
    kEntry_PyDict_Contains,
    kEntry_PyDict_DelItem,
    kEntry_PyDict_GetItem,
    kEntry_PyDict_GetItemRef,
    kEntry_PyDict_GetItemWithError,
    kEntry_PyDict_Pop,
    kEntry_PyLong_AsLongLong,
    kEntry_PyLong_AsSsize_t,
    kEntry_PyObject_DelItem,
    kEntry_PyObject_GetAttr,
    kEntry_PyObject_GetTypeData,
    kEntry_PyObject_IsTrue,
    kEntry_PyObject_RichCompareBool,
    kEntry_PySet_Contains,
    kEntry_PySet_Discard,
    kEntry_PySet_Size,
    kEntry_PySys_GetObject,
    kEntry_PyThreadState_GetDict,
    kEntry_PyTuple_GetItem,
    kEntry_PyTuple_SetItem,
    kEntry_PyTuple_Size,
    kEntry_PyType_GetModule,
    kEntry_PyType_GetModuleState,
    kEntry__PyCode_GetExtra,
    kEntry__PyCode_SetExtra,
};

static constexpr bool needs_memory(int entry)
{
    for (tEntry other : kNeedNoMemory) {
        if (other == entry)
            return false;
    }
    return true;
}

template <typename R>
static constexpr tFailure failure_of(int entry)
{
    for (const tSpecialEntry& special : kSpecialEntries) {
        if (special.entry == entry)
            return special.failure;
    }
    bool is_number = std::is_integral<R>::value && std::is_signed<R>::value;
    return std::is_pointer<R>::value || is_number ? kRaises : kNever;
}

// What an interpreter function does with its arguments when it fails: results by reference are cleared, and stolen
// references released all the same.
template <int Entry, typename... A>
static void settle_arguments(A... args)
{
    if constexpr (Entry == kEntry_PyTuple_SetItem || Entry == kEntry_PyList_SetItem) {
        PyObject* stolen = nullptr;
        ((stolen = [](auto arg) -> PyObject* {
             if constexpr (std::is_same<decltype(arg), PyObject*>::value)
                 return arg;
             return nullptr;
         }(args)),
         ...);  // the last argument
        if (stolen)
            gReal.Py_DecRef(stolen);
    }
    if constexpr (Entry == kEntry_PyDict_GetItemRef || Entry == kEntry_PyDict_Pop ||
                  Entry == kEntry_PyIter_NextItem) {
        auto clear = [](auto arg) {
            if constexpr (std::is_same<decltype(arg), PyObject**>::value) {
                if (arg)
                    *arg = nullptr;
            }
        };
        (clear(args), ...);
    }
}

static const char* name_of(int entry);
static int gFailures[kEntryCount];

// Counts a call of an entry, as one of it and as one of all; true when it must fail.
static bool is_entry_to_fail(int entry)
{
    const char* name = name_of(entry);
    bool fails = is_to_fail(kInterpreterCalls, name, needs_memory(entry)) || is_to_fail(entry, name);
    gFailures[entry] += fails;
    return fails;
}

template <typename R, int Entry>
static R fail(void)
{
    constexpr tFailure kFailure = failure_of<R>(Entry);
    if constexpr (kFailure != kIsQuiet)
        raise_injected();
    if constexpr (std::is_pointer<R>::value)
        return nullptr;
    else
        return static_cast<R>(kFailure == kZero ? 0 : -1);
}

// ---- The wrappers ----

template <typename F, F XPy_C_API_Data::*Field, int Entry>
struct tWrapper;

template <typename R, typename... A, R (*XPy_C_API_Data::*Field)(A...), int Entry>
struct tWrapper<R (*)(A...), Field, Entry> {
    static constexpr bool kCanFail = failure_of<R>(Entry) != kNever;
    static R call(A... args)
    {
        if constexpr (kCanFail) {
            if (is_entry_to_fail(Entry)) {
                settle_arguments<Entry>(args...);
                return fail<R, Entry>();
            }
        }
        return (gReal.*Field)(args...);
    }
    static void* get() { return kCanFail ? reinterpret_cast<void*>(call) : nullptr; }
};

// Functions with "..." are passed on by hand, those that the module calls and that can fail.
template <typename R, typename... A, R (*XPy_C_API_Data::*Field)(A..., ...), int Entry>
struct tWrapper<R (*)(A..., ...), Field, Entry> {
    static void* get() { return nullptr; }
};

// Takes the variable arguments as pointers, as many as any call of the module has; a call with fewer leaves the rest
// undefined, and nobody looks at them.
#define TAKE_POINTERS(last)             \
    void* p[4];                         \
    va_list taken;                      \
    va_start(taken, last);              \
    for (void*& pointer : p)            \
        pointer = va_arg(taken, void*); \
    va_end(taken)

static int call_PyArg_ParseTuple(PyObject* args, const char* format, ...)
{
    TAKE_POINTERS(format);
    if (is_entry_to_fail(kEntry_PyArg_ParseTuple))
        return fail<int, kEntry_PyArg_ParseTuple>();
    return gReal.PyArg_ParseTuple(args, format, p[0], p[1], p[2], p[3]);
}

static int call_PyArg_ParseTupleAndKeywords(PyObject* args, PyObject* kwargs, const char* format, char** names, ...)
{
    TAKE_POINTERS(names);
    if (is_entry_to_fail(kEntry_PyArg_ParseTupleAndKeywords))
        return fail<int, kEntry_PyArg_ParseTupleAndKeywords>();
    return gReal.PyArg_ParseTupleAndKeywords(args, kwargs, format, names, p[0], p[1], p[2], p[3]);
}

static PyObject* call_PyObject_CallMethod(PyObject* obj, const char* name, const char* format, ...)
{
    TAKE_POINTERS(format);
    if (is_entry_to_fail(kEntry_PyObject_CallMethod))
        return fail<PyObject*, kEntry_PyObject_CallMethod>();
    return gReal.PyObject_CallMethod(obj, name, format, p[0], p[1], p[2], p[3]);
}

struct tHandWritten {
    tEntry entry;
    void* wrapper;
};

static const tHandWritten kHandWritten[] = {
    {kEntry_PyArg_ParseTuple, reinterpret_cast<void*>(call_PyArg_ParseTuple)},
    {kEntry_PyArg_ParseTupleAndKeywords, reinterpret_cast<void*>(call_PyArg_ParseTupleAndKeywords)},
    {kEntry_PyObject_CallMethod, reinterpret_cast<void*>(call_PyObject_CallMethod)},
};

// ---- The list ----

struct tRow {
    const char* name;
    size_t offset;
    void* (*get_wrapper)(void);  // null: none was generated
};

#define ROW(entry)                            \
    {#entry, offsetof(XPy_C_API_Data, entry), \
     tWrapper<decltype(XPy_C_API_Data::entry), &XPy_C_API_Data::entry, kEntry_##entry>::get},
#define XPY_FN(result, entry, parameters, range) ROW(entry)
#define XPY_FN_OPT(result, entry, parameters, range) ROW(entry)
#define XPY_FN_OR(result, entry, parameters, range, fallback) ROW(entry)
#define XPY_FN_NEED_OR(result, entry, parameters, range, fallback) ROW(entry)
#define XPY_FN_UNICODE(result, entry, parameters, range, prefix, suffix) ROW(entry)
#define XPY_FN_UNICODE_OR(result, entry, parameters, range, prefix, suffix, fallback) ROW(entry)
#define XPY_FN_FOUND(result, entry, parameters) ROW(entry)
static const tRow kRows[] = {
#include "xpy_c_api_entries.inc"
};

static const char* name_of(int entry)
{
    return kRows[entry].name;
}

static void* wrapper_of(int entry)
{
    for (const tHandWritten& row : kHandWritten) {
        if (row.entry == entry)
            return row.wrapper;
    }
    return kRows[entry].get_wrapper();
}

static void** field_of(XPy_C_API_Data* table, int entry)
{
    return reinterpret_cast<void**>(reinterpret_cast<char*>(table) + kRows[entry].offset);
}

void* wrap_symbol(const char* name, void* ptr)
{
    for (int entry = 0; entry < kEntryCount; entry++) {
        void* wrapper = strcmp(name_of(entry), name) == 0 ? wrapper_of(entry) : nullptr;
        if (wrapper) {
            *field_of(&gReal, entry) = ptr;
            return wrapper;
        }
    }
    return ptr;
}

static void wrap_table(void)
{
    for (int entry = 0; entry < kEntryCount; entry++) {
        void** field = field_of(&global_XPy_C_API_Data, entry);
        void* wrapper = wrapper_of(entry);
        if (*field && wrapper && *field != wrapper) {
            *field_of(&gReal, entry) = *field;
            *field = wrapper;
        } else if (!wrapper) {
            *field_of(&gReal, entry) = *field;  // the wrappers' own calls
        }
    }
}

extern "C" int __real_XPy_Initialize(void);
extern "C" int __wrap_XPy_Initialize(void)
{
    int result = __real_XPy_Initialize();
    if (result == 0)
        wrap_table();
    return result;
}

// ---- For the tests ----

int inject_entry_count(void)
{
    return kEntryCount;
}

const char* inject_entry_name(int entry)
{
    return name_of(entry);
}

int inject_entry_can_fail(int entry)
{
    return wrapper_of(entry) != nullptr;
}

int inject_entry_failures(int entry)
{
    return gFailures[entry];
}
