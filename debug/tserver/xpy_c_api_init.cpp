// Start-up of the binding layer: identifies the interpreter and fills the table by look-ups by name.
//
// Messages go to standard error with the C library, because the interpreter's functions may be what is missing.

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "dprintf.h"
#include "xpy_c_api_internal.h"

XPy_C_API_Data global_XPy_C_API_Data;

static int gFailOnImport;      // debugging switch: makes XPy_Initialize fail on purpose
static int atfork_registered;  // the fork handler is registered once, however often start-up runs

static constexpr int kLoaderFlags = RTLD_LAZY | RTLD_GLOBAL;
static constexpr size_t kMaxUnicodeName = 4096;  // characters of a tried name
static constexpr int kPyEq = 2;                  // operator code of equality

void log_startup(const char* format, ...)
{
    if (!valid_dp_native_file(&gUnsafeGlobalDPData))
        return;
    va_list args;
    va_start(args, format);
    do_dp_no_py_v(&gUnsafeGlobalDPData.shared_single_dp_data, format, args);
    va_end(args);
}

// ---- Look-ups ----

// The symbol's address in the image, or null. No handle is kept: with a null image the loader answers from the
// process's global namespace, which holds the interpreter that imports us.
static void* GetPtrNullOk(const char* dll, const char* name)
{
    void* handle = dlopen(dll, kLoaderFlags);
    if (!handle)
        return nullptr;
    void* ptr = dlsym(handle, name);
    dlclose(handle);
    return ptr;
}

static void* GetPtr(const char* dll, const char* name)
{
    void* ptr = GetPtrNullOk(dll, name);
    if (!ptr)
        fprintf(stderr, "GetPtr() failed for %s\n", name);
    return ptr;
}

// Stores the value of a symbol that is itself a pointer variable; false, with the miss reported, when it is absent.
template <typename T>
static bool GetPtrVariableValue(const char* dll, const char* name, T** value)
{
    void* variable = GetPtr(dll, name);
    if (!variable)
        return false;
    *value = *static_cast<T**>(variable);
    return true;
}

// The Unicode function under its plain name or the one of an old narrow or wide build.
static void* GetUnicodeFunction(const char* dll, const char* suffix, const char* prefix, bool null_ok)
{
    static const char* const kVariants[] = {"", "UCS2", "UCS4"};
    char name[kMaxUnicodeName + 1];
    for (const char* variant : kVariants) {
        snprintf(name, sizeof name, "%sPyUnicode%s%s", prefix, variant, suffix);
        if (void* ptr = GetPtrNullOk(dll, name))
            return ptr;
    }
    if (!null_ok)
        fprintf(stderr, "GetUnicodeFunction() failed for: %s\n", suffix);
    return nullptr;
}

template <typename T>
static void store(T* entry, void* ptr)
{
    static_assert(sizeof(T) == sizeof ptr, "an entry is a plain pointer");
    memcpy(entry, &ptr, sizeof ptr);
}

// ---- The rows of the table ----

enum tEntryRule { kRequired, kOptional, kWithFallback, kRequiredOrFallback, kFoundBefore };

struct tEntryRow {
    const char* name;
    size_t offset;  // of the entry in the table
    tPythonRange range;
    tEntryRule rule;
    const char* unicode_prefix;  // null: looked up by its own name
    const char* unicode_suffix;
    void* fallback;
};

#define XPY_ROW(entry, range, rule, prefix, suffix, fallback) \
    {#entry, offsetof(XPy_C_API_Data, entry), range, rule, prefix, suffix, (void*)(fallback)},
#define XPY_FN(result, entry, parameters, range) XPY_ROW(entry, range, kRequired, nullptr, nullptr, nullptr)
#define XPY_FN_OPT(result, entry, parameters, range) XPY_ROW(entry, range, kOptional, nullptr, nullptr, nullptr)
#define XPY_FN_OR(result, entry, parameters, range, fallback) \
    XPY_ROW(entry, range, kWithFallback, nullptr, nullptr, fallback)
#define XPY_FN_NEED_OR(result, entry, parameters, range, fallback) \
    XPY_ROW(entry, range, kRequiredOrFallback, nullptr, nullptr, fallback)
#define XPY_FN_UNICODE(result, entry, parameters, range, prefix, suffix) \
    XPY_ROW(entry, range, kRequired, prefix, suffix, nullptr)
#define XPY_FN_UNICODE_OR(result, entry, parameters, range, prefix, suffix, fallback) \
    XPY_ROW(entry, range, kWithFallback, prefix, suffix, fallback)
#define XPY_FN_FOUND(result, entry, parameters) XPY_ROW(entry, kAnyPython, kFoundBefore, nullptr, nullptr, nullptr)
static const tEntryRow kFunctionRows[] = {
#include "xpy_c_api_entries.inc"
};
static_assert(sizeof kFunctionRows / sizeof kFunctionRows[0] == 236, "the table has 236 function entries");

// Second symbols of entries that interpreters renamed.
struct tAlsoRow {
    size_t offset;
    const char* symbol;  // null: by Unicode prefix and suffix
    const char* unicode_prefix;
    const char* unicode_suffix;
};

#define XPY_ALSO(entry, symbol) {offsetof(XPy_C_API_Data, entry), symbol, nullptr, nullptr},
#define XPY_ALSO_UNICODE(entry, prefix, suffix) {offsetof(XPy_C_API_Data, entry), nullptr, prefix, suffix},
static const tAlsoRow kAlsoRows[] = {
#include "xpy_c_api_entries.inc"
};

struct tDataRow {
    const char* name;
    size_t offset;
    tPythonRange range;
    tEntryRule rule;
};

#define XPY_EXC(exception) {#exception, offsetof(XPy_C_API_Data, exception), kAnyPython, kRequired},
static const tDataRow kExceptionRows[] = {
#include "xpy_c_api_entries.inc"
};
static_assert(sizeof kExceptionRows / sizeof kExceptionRows[0] == 22, "the table has 22 exception objects");

#define XPY_TYPE(type, range) {#type, offsetof(XPy_C_API_Data, type##_ptr), range, kRequired},
#define XPY_TYPE_OPT(type, range) {#type, offsetof(XPy_C_API_Data, type##_ptr), range, kOptional},
static const tDataRow kTypeRows[] = {
#include "xpy_c_api_entries.inc"
};
static_assert(sizeof kTypeRows / sizeof kTypeRows[0] == 21, "the table has 21 type objects");

template <typename T>
static T* entry_at(size_t offset)
{
    return reinterpret_cast<T*>(reinterpret_cast<char*>(&global_XPy_C_API_Data) + offset);
}

static bool is_in_range(tPythonRange range)  // PYVERSIONS
{
    bool py3 = api.major_version == 3;
    switch (range) {
        case kAnyPython:
            return true;
        case kPython2:
            return api.major_version == 2;
        case kPython3:
            return py3;
        case kPython3d5:
            return py3 && api.minor_version >= 5;
        case kPython3d12:
            return py3 && api.minor_version >= 12;
    }
    return false;
}

static void* look_up_second_name(size_t offset)
{
    for (const tAlsoRow& also : kAlsoRows) {
        if (also.offset != offset)
            continue;
        void* ptr = also.symbol ? GetPtrNullOk(api.dll_ptr, also.symbol)
                                : GetUnicodeFunction(api.dll_ptr, also.unicode_suffix, also.unicode_prefix, true);
        if (ptr)
            return ptr;
    }
    return nullptr;
}

// Looks one function up and stores it, its fallback, or null; false when a required one is missing.
static bool fill_function(const tEntryRow& row)
{
    if (row.rule == kFoundBefore)
        return true;
    bool wanted = is_in_range(row.range);
    bool required = wanted && (row.rule == kRequired || row.rule == kRequiredOrFallback);
    void* ptr = nullptr;
    if (wanted && row.unicode_suffix)
        ptr = GetUnicodeFunction(api.dll_ptr, row.unicode_suffix, row.unicode_prefix, !required);
    else if (wanted)
        ptr = required ? GetPtr(api.dll_ptr, row.name) : GetPtrNullOk(api.dll_ptr, row.name);
    if (!ptr && required)
        return false;
    if (!ptr && wanted)
        ptr = look_up_second_name(row.offset);
    if (!ptr)
        ptr = row.fallback;
    *entry_at<void*>(row.offset) = ptr;
    return true;
}

static bool fill_singletons_and_encoding(void)
{
    const char* dll = api.dll_ptr;
    const char* false_name = api.major_version == 2 ? "_Py_ZeroStruct" : "_Py_FalseStruct";
    api.Py_None = static_cast<PyObject*>(GetPtr(dll, "_Py_NoneStruct"));
    if (!api.Py_None)
        return false;
    api.Py_True = static_cast<PyObject*>(GetPtr(dll, "_Py_TrueStruct"));
    if (!api.Py_True)
        return false;
    api.Py_False = static_cast<PyObject*>(GetPtr(dll, false_name));
    return api.Py_False &&
           GetPtrVariableValue(dll, "Py_FileSystemDefaultEncoding", &api.Py_FileSystemDefaultEncoding);
}

static bool fill_exceptions(void)
{
    for (const tDataRow& row : kExceptionRows) {
        if (!GetPtrVariableValue(api.dll_ptr, row.name, entry_at<PyObject*>(row.offset)))
            return false;
    }
    return true;
}

static bool fill_types(void)
{
    for (const tDataRow& row : kTypeRows) {
        bool wanted = is_in_range(row.range);
        void* ptr = nullptr;
        if (wanted)
            ptr = row.rule == kRequired ? GetPtr(api.dll_ptr, row.name) : GetPtrNullOk(api.dll_ptr, row.name);
        if (wanted && !ptr && row.rule == kRequired)
            return false;
        *entry_at<void*>(row.offset) = ptr;
    }
    return true;
}

// Fills every entry in declaration order; false at the first required one that is missing.
static bool XPy_InitializeGlobalData(void)
{
    for (const tEntryRow& row : kFunctionRows) {
        if (!fill_function(row))
            return false;
    }
    if (!fill_singletons_and_encoding() || !fill_exceptions() || !fill_types())
        return false;
    if (api.major_version == 2) {
        api.PyBytes_AsString = api.PyString_AsString;
        api.PyBytes_FromString = api.PyString_FromString;
        api.PyBytes_Size = api.PyString_Size;
        api.PyBytes_Type_ptr = api.PyString_Type_ptr;
    }
    api.failed_to_initialize = 0;
    log_startup("XPy_InitializeGlobalData() succeeded\n");
    return true;
}

// ---- Identifying the interpreter ----

static bool IsFreeThreadingBuild(const char* dll)
{
    void* c_func_ptr = GetPtrNullOk(dll, "_Py_GetThreadLocal_Addr");
    log_startup("IsFreeThreadingBuild(): c_func_ptr = %p\n", c_func_ptr);
    return c_func_ptr != nullptr;
}

// Which module-creation entry point identifies which interpreter, in probing order.
struct tInitFunction {
    const char* name;
    int major_version;
    int pydebug_build;
};

static const tInitFunction kInitFunctions[] = {
    {"Py_InitModule4_64", 2, 0},
    {"Py_InitModule4TraceRefs_64", 2, 1},
    {"PyModule_Create2", 3, 0},
    {"PyModule_Create2TraceRefs", 3, 1},
};

// Stores the module-creation entry point and what it says of the interpreter; false when there is none.
static bool FindInitFunction(const char* dll, bool* free_threaded)
{
    for (const tInitFunction& candidate : kInitFunctions) {
        void* ptr = GetPtrNullOk(dll, candidate.name);
        if (!ptr)
            continue;
        api.major_version = candidate.major_version;
        *free_threaded = candidate.major_version == 3 && IsFreeThreadingBuild(dll);
        log_startup("FindInitFunction() succeeded major_version = %i, free_t_build = %i, pydebug_build = %i\n",
                    candidate.major_version, static_cast<int>(*free_threaded), candidate.pydebug_build);
        if (candidate.major_version == 2)
            store(&api.Py_InitModule, ptr);
        else
            store(&api.PyModule_Create2, ptr);
        api.pydebug_build = candidate.pydebug_build;
        return true;
    }
    api.failed_to_initialize = 1;
    fputs("Failed to find module init function\n", stderr);
    return false;
}

// The entries that reading the version numbers needs, and the interpreter's mutex functions.
static bool fill_early_entries(const char* dll)
{
    store(&api._PyMutex_LockSlow, GetPtrNullOk(dll, "_PyMutex_LockSlow"));
    store(&api._PyMutex_UnlockSlow, GetPtrNullOk(dll, "_PyMutex_UnlockSlow"));
    store(&api.PyMutex_Lock, GetPtrNullOk(dll, "PyMutex_Lock"));
    store(&api.PyMutex_Unlock, GetPtrNullOk(dll, "PyMutex_Unlock"));

    // Python 2's version numbers are of the small int type, which the long conversions refuse; and unreadable version
    // numbers are printed. Both are looked up again, as required entries, with the rest of the table.
    store(&api.PyInt_AsSsize_t, api.major_version < 3 ? GetPtrNullOk(dll, "PyInt_AsSsize_t") : nullptr);
    store(&api.PyErr_Print, GetPtrNullOk(dll, "PyErr_Print"));

    store(&api.Py_DecRef, GetPtr(dll, "Py_DecRef"));
    if (!api.Py_DecRef)
        return false;
    store(&api.PyErr_Occurred, GetPtr(dll, "PyErr_Occurred"));
    if (!api.PyErr_Occurred)
        return false;
    store(&api.PyLong_AsLongLong, GetPtrNullOk(dll, "PyLong_AsLongLong"));  // for the two fallbacks
    store(&api.PyInt_FromLong, GetPtrNullOk(dll, "PyInt_FromLong"));
    store(&api.PyLong_AsSsize_t, GetPtrNullOk(dll, "PyLong_AsSsize_t"));
    if (!api.PyLong_AsSsize_t)
        api.PyLong_AsSsize_t = Backup_PyLong_AsSsize_t;
    store(&api.PyLong_FromSsize_t, GetPtrNullOk(dll, "PyLong_FromSsize_t"));
    if (!api.PyLong_FromSsize_t)
        api.PyLong_FromSsize_t = Backup_PyLong_FromSsize_t;
    store(&api.PyObject_GetItem, GetPtr(dll, "PyObject_GetItem"));
    if (!api.PyObject_GetItem)
        return false;
    store(&api.PySys_GetObject, GetPtr(dll, "PySys_GetObject"));
    return api.PySys_GetObject != nullptr;
}

static int as_int(PyObject* number)
{
    if (!number)
        return -1;
    return static_cast<int>(api.PyInt_AsSsize_t ? api.PyInt_AsSsize_t(number) : api.PyLong_AsSsize_t(number));
}

static int GetItemAsInt(PyObject* sequence, Py_ssize_t index)
{
    PyObject* key = sequence ? api.PyLong_FromSsize_t(index) : nullptr;
    PyObject* item = key ? api.PyObject_GetItem(sequence, key) : nullptr;
    int value = as_int(item);
    if (item)
        api.Py_DecRef(item);
    if (key)
        api.Py_DecRef(key);
    return api.PyErr_Occurred() ? -1 : value;
}

// Reads one number of the version; false when that failed.
static bool read_version_item(PyObject* version_info, Py_ssize_t index, int* field)
{
    *field = GetItemAsInt(version_info, index);
    return version_info && !api.PyErr_Occurred();
}

static void InitVersionNumbers(void)
{
    PyObject* version_info = api.PySys_GetObject("version_info");
    if (read_version_item(version_info, 0, &api.major_version) &&
        read_version_item(version_info, 1, &api.minor_version) &&
        read_version_item(version_info, 2, &api.micro_version)) {
        api.api_version = as_int(api.PySys_GetObject("api_version"));
        if (api.api_version != -1)
            return;
    }
    fputs("Unable to get version numbers\n", stderr);
    if (api.PyErr_Print)
        api.PyErr_Print();
}

static void InitCachedPid(void)
{
    api.cached_pid = getpid();
    if (!atfork_registered && pthread_atfork(nullptr, nullptr, XPy_OnForkInChild) == 0)
        atfork_registered = 1;
}

// ---- Start-up ----

// The required steps up to the filled table; false at the first that fails.
static bool fill_table(const char* dll)
{
    api.dll_ptr = dll;
    bool free_threaded = false;
    if (!FindInitFunction(dll, &free_threaded))
        return false;
    api.can_update_refcount_directly = 0;
    api.refcnt_is_32bit = 0;
    if (!fill_early_entries(dll))
        return false;
    InitVersionNumbers();
    InitPyObjectOffsets(free_threaded);
    return XPy_InitializeGlobalData();
}

int XPy_InitializeWithDllPtr(const char* dll)
{
    if (api.failed_to_initialize) {
        if (api.PyErr_Format && api.PyExc_ImportError && !(api.PyErr_Occurred && api.PyErr_Occurred()))
            api.PyErr_Format(api.PyExc_ImportError, "Unable to init XPy");
        return -1;
    }
    if (api.initialized)
        return 0;
    if (!fill_table(dll)) {
        log_startup("XPy_InitializeGlobalData() failed\n");
        return -1;
    }
    InitTypeObjectOffsets();
    InitFrameOffsets();
    InitThreadStateOffsets();
    InitInterpreterStateOffsets();
    InitCFrameOffsets();
    InitShortcutOffsets();
    InitCachedPid();
    api.initialized = 1;
    api.refcnt_is_32bit = api.major_version == 3 && api.minor_version > 11;
    api.can_update_refcount_directly = !api.pydebug_build && api.pyobject_offsets.refcnt != -1;
    return 0;
}

void XPy_TryToRaiseImportError(void)
{
    if (!api.PyErr_Format)
        store(&api.PyErr_Format, GetPtrNullOk(api.dll_ptr, "PyErr_Format"));
    if (!api.PyExc_ImportError) {
        if (void* variable = GetPtrNullOk(api.dll_ptr, "PyExc_ImportError"))
            api.PyExc_ImportError = *static_cast<PyObject**>(variable);
    }
    if (!api.PyErr_Format || !api.PyExc_ImportError)
        return;
    if (!api.PyErr_Occurred)
        store(&api.PyErr_Occurred, GetPtrNullOk(api.dll_ptr, "PyErr_Occurred"));
    if (api.PyErr_Occurred && api.PyErr_Occurred())
        return;  // the earlier error stays visible
    api.PyErr_Format(api.PyExc_ImportError, "Unable to init XPy");
}

int XPy_Initialize(void)
{
    int result = -1;
    if (!gFailOnImport)
        result = XPy_InitializeWithDllPtr(nullptr);
    if (result != 0)
        XPy_TryToRaiseImportError();
    return result;
}

// ---- The small exported functions ----

void* XPy_LookupPythonFunction(const char* name)
{
    return GetPtrNullOk(api.dll_ptr, name);
}

int XPy_GetMajorVersion(void)
{
    return api.major_version;
}

int XPy_GetMinorVersion(void)
{
    return api.minor_version;
}

int XPy_DbgSetFailOnImport(int value)
{
    int previous = gFailOnImport;
    gFailOnImport = value;
    return previous;
}

void XPy_OnForkInChild(void)
{
    api.cached_pid = getpid();
}

int XPy_SetDPrintfFile(PyObject* file, int fileno, const char* win32_handle)
{
    if (!api.initialized) {
        log_startup("XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
        return 0;
    }
    set_dprintf_file(file, fileno, const_cast<char*>(win32_handle));
    return 1;
}

int XPy_SetDPrintfNativeFile(int fileno, const char* win32_handle)
{
    set_dprintf_file(nullptr, fileno, const_cast<char*>(win32_handle));
    return 1;
}

int XPy_SetDPrintfMask(int mask)
{
    init_dp_data(&gUnsafeGlobalDPData, 0);
    int previous = get_dp_data_mask(&gUnsafeGlobalDPData);
    set_dprintf_mask(mask);
    return previous;
}

// ---- References ----

PyTypeObject* XPy_BorrowType(PyObject* obj)
{
    PyObject* type = api.PyObject_Type(obj);
    if (type)
        api.Py_DecRef(type);  // the object keeps its type alive
    return reinterpret_cast<PyTypeObject*>(type);
}

int XPy_PyObjectsEqual(PyObject* a, PyObject* b)
{
    if (api.PyObject_RichCompareBool)
        return api.PyObject_RichCompareBool(a, b, kPyEq);
    int order = api.PyObject_Compare(a, b);
    if (order == -1 && api.PyErr_Occurred())
        return -1;
    return order == 0;
}

void XPy_CallIncRef(PyObject* obj)
{
    api.Py_IncRef(obj);
}

void XPy_CallDecRef(PyObject* obj)
{
    api.Py_DecRef(obj);
}

void XPy_DoIncRef(PyObject* obj)
{
    XPy_InlineIncRef(obj);
}

void XPy_DoDecRef(PyObject* obj)
{
    XPy_InlineDecRef(obj);
}
