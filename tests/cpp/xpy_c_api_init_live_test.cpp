// The binding table of a real interpreter.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "dprintf.h"
#include "hosted_support.h"
#include "xpy_c_api_internal.h"

class LiveTable : public HostedTest
{
};

template <typename T>
static void* address(T entry)
{
    void* result;
    static_assert(sizeof entry == sizeof result, "entries are pointers");
    memcpy(&result, &entry, sizeof result);
    return result;
}

static void* exported(const std::string& name)
{
    return dlsym(RTLD_DEFAULT, name.c_str());
}

// The interpreter's function that a table entry is to hold; null where there is none.
static void* find_function(const std::string& entry)
{
    static const char* const kOtherNames[][2] = {
        {"_Py_IsFinalizing", "Py_IsFinalizing"},
        {"_PyCode_GetExtra", "PyUnstable_Code_GetExtra"},
        {"_PyCode_SetExtra", "PyUnstable_Code_SetExtra"},
        {"_PyEval_RequestCodeExtraIndex", "PyUnstable_Eval_RequestCodeExtraIndex"},
        {"_PyUnicode_AsString", "PyUnicode_AsUTF8"},
        {"Py_InitModule", "Py_InitModule4_64"},
        {"PyModule_Create2", "PyModule_Create2TraceRefs"},
    };
    if (api.major_version == 2 && entry.compare(0, 8, "PyBytes_") == 0)
        return exported("PyString_" + entry.substr(8));
    if (void* function = exported(entry))
        return function;
    size_t unicode = entry.find("PyUnicode_");
    if (unicode != std::string::npos) {
        for (const char* variant : {"UCS2", "UCS4"}) {
            std::string name = entry;
            if (void* function = exported(name.insert(unicode + 9, variant)))
                return function;
        }
    }
    for (const auto& other : kOtherNames) {
        if (entry == other[0])
            return exported(other[1]);
    }
    return nullptr;
}

TEST_F(LiveTable, EachFunctionEntryIsTheInterpretersFunctionOrOurFallback)
{
    enum { Always, Maybe, Python2, Python3 };
    static const int kBindsHere[] = {1, 1, api.major_version == 2, api.major_version == 3};
#define LISTED_FN(entry, presence)                                               \
    {                                                                            \
        void* expected = kBindsHere[presence] ? find_function(#entry) : nullptr; \
        if (std::string(#entry) == "PyMapping_Values")                           \
            expected = nullptr; /* a macro in Python 2, and bound only there */  \
        EXPECT_EQ(address(api.entry), expected) << #entry;                       \
        if (presence != Maybe && kBindsHere[presence]) {                         \
            EXPECT_NE(address(api.entry), nullptr) << #entry;                    \
        }                                                                        \
    }
#define LISTED_FALLBACK(entry, backup)                                                   \
    {                                                                                    \
        void* expected = find_function(#entry);                                          \
        EXPECT_EQ(address(api.entry), expected ? expected : address(&backup)) << #entry; \
    }
#include "xpy_c_api_entry_list.inc"
}

TEST_F(LiveTable, DataEntriesAreTheInterpretersObjects)
{
    enum { Always, Maybe, Python2 };
#define LISTED_EXC(exception)                                                 \
    ASSERT_NE(exported(#exception), nullptr);                                 \
    EXPECT_EQ(api.exception, *static_cast<PyObject**>(exported(#exception))); \
    EXPECT_NE(api.exception, nullptr) << #exception;
#define LISTED_TYPE(entry, symbol, presence)                          \
    {                                                                 \
        std::string name = #symbol;                                   \
        if (api.major_version == 2 && name == "PyBytes_Type")         \
            name = "PyString_Type";                                   \
        bool bound = presence != Python2 || api.major_version == 2;   \
        void* expected = bound ? exported(name) : nullptr;            \
        EXPECT_EQ(static_cast<void*>(api.entry), expected) << #entry; \
        if (presence != Maybe && bound) {                             \
            EXPECT_NE(api.entry, nullptr) << #entry;                  \
        }                                                             \
    }
#include "xpy_c_api_entry_list.inc"
    XPyOwned none(eval_python("None")), yes(eval_python("True")), no(eval_python("False"));
    EXPECT_EQ(api.Py_None, none.borrow());
    EXPECT_EQ(api.Py_True, yes.borrow());
    EXPECT_EQ(api.Py_False, no.borrow());
    EXPECT_EQ(api.PyCallable_Type_ptr, nullptr);
    if (is_py3(6)) {
        EXPECT_NE(api.PyGen_Type_ptr, nullptr);
        EXPECT_NE(api.PyCoro_Type_ptr, nullptr);
        EXPECT_STREQ(api.Py_FileSystemDefaultEncoding,
                     *static_cast<char**>(exported("Py_FileSystemDefaultEncoding")));
    }
}

TEST_F(LiveTable, VersionFieldsEqualTheInterpretersOwn)
{
    XPyOwned sys(api.PyImport_ImportModule("sys"));
    XPyOwned major(eval_python("__import__('sys').version_info[0]"));
    XPyOwned minor(eval_python("__import__('sys').version_info[1]"));
    XPyOwned micro(eval_python("__import__('sys').version_info[2]"));
    XPyOwned api_version(eval_python("__import__('sys').api_version"));
    EXPECT_EQ(api.major_version, int_of(major.borrow()));
    EXPECT_EQ(api.minor_version, int_of(minor.borrow()));
    EXPECT_EQ(api.micro_version, int_of(micro.borrow()));
    EXPECT_EQ(api.api_version, int_of(api_version.borrow()));
    EXPECT_EQ(XPy_GetMajorVersion(), api.major_version);
    EXPECT_EQ(XPy_GetMinorVersion(), api.minor_version);
    EXPECT_EQ(api.initialized, 1);
    EXPECT_EQ(api.failed_to_initialize, 0);
    EXPECT_EQ(api.cached_pid, getpid());
    EXPECT_EQ(api.dll_ptr, nullptr);
}

TEST_F(LiveTable, BuildFlagsFollowTheInterpreter)
{
    bool trace_refs = exported("PyModule_Create2TraceRefs") || exported("Py_InitModule4TraceRefs_64");
    bool free_threaded = exported("_Py_GetThreadLocal_Addr") != nullptr;
    EXPECT_EQ(api.pydebug_build, trace_refs ? 1 : 0);
    EXPECT_EQ(api.refcnt_is_32bit, is_py3(12) ? 1 : 0);
    EXPECT_EQ(api.can_update_refcount_directly, !trace_refs && !free_threaded ? 1 : 0);
    EXPECT_EQ(api.pyobject_offsets.refcnt == -1, free_threaded);
}

TEST_F(LiveTable, SecondStartUpSucceedsAtOnce)
{
    tSavedTable saved;
    api.PyDict_New = nullptr;
    tCapturedFd errors;
    EXPECT_EQ(XPy_Initialize(), 0);
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(api.PyDict_New, nullptr);
}

TEST_F(LiveTable, StartingUpFromNothingGivesTheSameTable)
{
    tSavedTable saved;
    XPy_C_API_Data before = global_XPy_C_API_Data;
    memset(static_cast<void*>(&global_XPy_C_API_Data), 0, sizeof global_XPy_C_API_Data);
    tCapturedFd errors;
    EXPECT_EQ(XPy_Initialize(), 0);
    EXPECT_EQ(errors.text(), has_thread_state_layout() ? "" : "Cannot find tstate fields for this python version\n");
    EXPECT_EQ(memcmp(&before, &global_XPy_C_API_Data, sizeof before), 0);
}

TEST_F(LiveTable, FailOnImportRaisesImportErrorWithoutTouchingTheTable)
{
    XPy_C_API_Data before = global_XPy_C_API_Data;
    EXPECT_EQ(XPy_DbgSetFailOnImport(1), 0);
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(take_error(), "ImportError: Unable to init XPy");
    api.PyErr_SetString(api.PyExc_KeyError, "earlier");
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(take_error(), "KeyError: 'earlier'") << "an earlier error stays visible";
    EXPECT_EQ(XPy_DbgSetFailOnImport(0), 1);
    EXPECT_EQ(memcmp(&before, &global_XPy_C_API_Data, sizeof before), 0);
}

TEST_F(LiveTable, FailOnImportRaisesFromAnEmptyTable)
{
    {
        tSavedTable saved;
        memset(static_cast<void*>(&global_XPy_C_API_Data), 0, sizeof global_XPy_C_API_Data);
        XPy_DbgSetFailOnImport(1);
        EXPECT_EQ(XPy_Initialize(), -1);
        XPy_DbgSetFailOnImport(0);
        EXPECT_EQ(api.initialized, 0);
        EXPECT_EQ(api.PyDict_New, nullptr);
    }
    EXPECT_EQ(take_error(), "ImportError: Unable to init XPy");
}

TEST_F(LiveTable, StartUpThatFailedForGoodRaisesImportError)
{
    tSavedTable saved;
    api.initialized = 0;
    api.failed_to_initialize = 1;
    EXPECT_EQ(XPy_InitializeWithDllPtr(nullptr), -1);
    EXPECT_EQ(take_error(), "ImportError: Unable to init XPy");
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(take_error(), "ImportError: Unable to init XPy");
}

TEST_F(LiveTable, ForkRefreshesTheChildsCachedPid)
{
    pid_t parent = getpid();
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0)
        _exit(api.cached_pid == getpid() && getpid() != parent ? 17 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 17);
    EXPECT_EQ(api.cached_pid, parent);
}

TEST_F(LiveTable, LooksUpFunctionsOutsideTheTable)
{
    EXPECT_EQ(XPy_LookupPythonFunction("PyList_Sort"), exported("PyList_Sort"));
    EXPECT_NE(XPy_LookupPythonFunction("PyList_Sort"), nullptr);
    EXPECT_EQ(XPy_LookupPythonFunction("PyNo_Such"), nullptr);
}

// ---- References ----

static PyObject* new_object()
{
    return eval_python("type('CPlain', (object,), {})()");
}

TEST_F(LiveTable, CountsChangeByOneAndAreTheInterpretersOwn)
{
    XPyOwned obj(new_object());
    long long before = refcount_of(obj.borrow());
    XPy_DoIncRef(obj.borrow());
    XPy_DoIncRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before + 2);
    XPy_DoDecRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before + 1);
    XPy_CallIncRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before + 2);
    XPy_CallDecRef(obj.borrow());
    XPy_DoDecRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before);
    if (api.pyobject_offsets.refcnt != -1) {
        EXPECT_EQ(XPy_GetRefCnt(obj.borrow()), 1);
        EXPECT_FALSE(XPy_IsImmortal(obj.borrow()));
    }
}

TEST_F(LiveTable, LastReferenceDeallocatesInTheInterpreter)
{
    XPyOwned scope(
        run_python("import weakref\n"
                   "class C(object): pass\n"
                   "obj = C()\n"
                   "ref = weakref.ref(obj)\n"));
    PyObject* obj = XPy_NewRef(api.PyDict_GetItemString(scope.borrow(), "obj"));
    XPyOwned removed(run_python("del obj", scope.borrow()));
    XPyOwned alive(eval_python("ref() is not None", scope.borrow()));
    EXPECT_EQ(alive.borrow(), api.Py_True);
    static int gCalls;
    static void (*gRealDecRef)(PyObject*);
    gCalls = 0;
    gRealDecRef = api.Py_DecRef;
    {
        tSavedTable saved;
        api.Py_DecRef = [](PyObject* dying) {
            gCalls++;
            gRealDecRef(dying);
        };
        XPy_DoDecRef(obj);
    }
    EXPECT_EQ(gCalls, 1);
    XPyOwned dead(eval_python("ref() is None", scope.borrow()));
    EXPECT_EQ(dead.borrow(), api.Py_True);
}

TEST_F(LiveTable, ImmortalObjectsAreNeverWritten)
{
    if (!api.refcnt_is_32bit || api.pyobject_offsets.refcnt == -1) {
        EXPECT_FALSE(XPy_IsImmortal(api.Py_None));
        return;
    }
    ASSERT_TRUE(XPy_IsImmortal(api.Py_None));
    uint64_t* header = static_cast<uint64_t*>(XPy_GetFieldAddress(api.Py_None, api.pyobject_offsets.refcnt));
    uint64_t before = *header;
    for (int i = 0; i < 1000; i++)
        XPy_DoIncRef(api.Py_None);
    for (int i = 0; i < 3000; i++)
        XPy_DoDecRef(api.Py_None);
    EXPECT_EQ(*header, before);
}

TEST_F(LiveTable, WithoutDirectUpdatesTheInterpreterCounts)
{
    tSavedTable saved;
    api.can_update_refcount_directly = 0;
    XPyOwned obj(new_object());
    long long before = refcount_of(obj.borrow());
    XPy_DoIncRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before + 1);
    XPy_DoDecRef(obj.borrow());
    EXPECT_EQ(refcount_of(obj.borrow()), before);
}

TEST_F(LiveTable, BorrowedTypeIsTheObjectsTypeWithItsCountUnchanged)
{
    XPyOwned obj(new_object());
    PyObject* type = reinterpret_cast<PyObject*>(XPy_BorrowType(obj.borrow()));
    XPyOwned expected(api.PyObject_Type(obj.borrow()));
    EXPECT_EQ(type, expected.borrow());
    long long before = refcount_of(type);
    for (int i = 0; i < 10; i++)
        XPy_BorrowType(obj.borrow());
    EXPECT_EQ(refcount_of(type), before);
}

TEST_F(LiveTable, EqualityIsThePythonOne)
{
    XPyOwned a(eval_python("[1, 2]")), b(eval_python("[1, 2]")), c(eval_python("[1, 3]"));
    EXPECT_EQ(XPy_PyObjectsEqual(a.borrow(), b.borrow()), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(a.borrow(), c.borrow()), 0);
    XPyOwned bad(eval_python("type('CBad', (object,), {'__eq__': lambda self, other: 1 // 0})()"));
    EXPECT_EQ(XPy_PyObjectsEqual(bad.borrow(), a.borrow()), -1);
    EXPECT_EQ(take_error().substr(0, 18), "ZeroDivisionError:");
}

TEST_F(LiveTable, EqualityWithoutRichComparisonUsesTheOrder)
{
    if (api.major_version != 2) {
        GTEST_SKIP() << "the order exists in Python 2 only; stand-ins for it are tested without an interpreter";
    }
    tSavedTable saved;
    api.PyObject_RichCompareBool = nullptr;
    XPyOwned a(eval_python("[1, 2]")), b(eval_python("[1, 2]")), c(eval_python("[1, 3]"));
    EXPECT_EQ(XPy_PyObjectsEqual(a.borrow(), b.borrow()), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(a.borrow(), c.borrow()), 0) << "less is -1 without an error";
    EXPECT_EQ(XPy_PyObjectsEqual(c.borrow(), a.borrow()), 0);
    XPyOwned bad(eval_python("type('CBad', (object,), {'__cmp__': lambda self, other: 1 // 0})()"));
    EXPECT_EQ(XPy_PyObjectsEqual(bad.borrow(), a.borrow()), -1);
    EXPECT_EQ(take_error().substr(0, 18), "ZeroDivisionError:");
}

// ---- The log of code without module state ----

TEST_F(LiveTable, SetDPrintfFileKeepsTheFileAliveUntilItIsReplaced)
{
    XPyOwned file(new_object());
    long long before = refcount_of(file.borrow());
    EXPECT_EQ(XPy_SetDPrintfFile(file.borrow(), 9, nullptr), 1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.file_obj, file.borrow());
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, 9);
    EXPECT_GT(refcount_of(file.borrow()), before);
    EXPECT_EQ(XPy_SetDPrintfNativeFile(-1, nullptr), 1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.file_obj, nullptr);
    EXPECT_EQ(refcount_of(file.borrow()), before);
}

TEST_F(LiveTable, SetDPrintfFileBeforeStartUpIsRefused)
{
    tSavedTable saved;
    api.initialized = 0;
    FILE* log = tmpfile();
    EXPECT_EQ(XPy_SetDPrintfNativeFile(fileno(log), nullptr), 1);
    EXPECT_EQ(XPy_SetDPrintfFile(api.Py_None, 9, nullptr), 0);
    XPy_SetDPrintfNativeFile(-1, nullptr);
    char text[200] = "";
    rewind(log);
    text[fread(text, 1, sizeof text - 1, log)] = '\0';
    fclose(log);
    EXPECT_STREQ(text, "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
}
