// Start-up against a stand-in interpreter that lacks what each test takes away, and what needs no interpreter at all.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dprintf.h"
#include "gtest/gtest.h"
#include "hosted_support.h"
#include "loader_watch.h"
#include "stub_image.h"
#include "xpy_c_api_internal.h"

// ---- The fixture ----

static const std::vector<std::string> kEntryPoints = {"Py_InitModule4_64", "Py_InitModule4TraceRefs_64",
                                                      "PyModule_Create2", "PyModule_Create2TraceRefs"};

static std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// What a build of the given entry point does not export. Python 3 builds here are not free-threaded.
static std::vector<std::string> only(const std::string& entry_point)
{
    std::vector<std::string> absent = {"_Py_GetThreadLocal_Addr"};
    for (const std::string& name : kEntryPoints) {
        if (name != entry_point)
            absent.push_back(name);
    }
    return absent;
}

static const std::vector<std::string> kRelease3 = only("PyModule_Create2");
static const std::vector<std::string> kRelease2 = only("Py_InitModule4_64");

class StartUp : public ::testing::Test
{
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { set_dprintf_file(nullptr, -1, nullptr); }

    static void reset() { memset(static_cast<void*>(&global_XPy_C_API_Data), 0, sizeof global_XPy_C_API_Data); }

    // Starts up against the image; the result, and in fErrors what went to standard error, in fLog the native log.
    int start(const tStubImage& image)
    {
        gLoaderWatch = {};
        FILE* log = tmpfile();
        set_dprintf_file(nullptr, fileno(log), nullptr);
        tCapturedFd errors;
        gLoaderWatch.watching = true;
        int result = XPy_InitializeWithDllPtr(image.path());
        gLoaderWatch.watching = false;
        fErrors = errors.text();
        set_dprintf_file(nullptr, -1, nullptr);
        char text[4096] = "";
        rewind(log);
        text[fread(text, 1, sizeof text - 1, log)] = '\0';
        fLog = text;
        fclose(log);
        return result;
    }

    int start_version(const tStubImage& image, int major, int minor)
    {
        reset();
        image.state().version[0] = major;
        image.state().version[1] = minor;
        return start(image);
    }

    std::string fErrors;
    std::string fLog;

  private:
    tSavedTable fSavedTable;
};

template <typename T>
static void* address(T entry)
{
    void* result;
    static_assert(sizeof entry == sizeof result, "entries are pointers");
    memcpy(&result, &entry, sizeof result);
    return result;
}

// ---- A filled table ----

static void expect_exceptions_and_types(const tStubImage& image, int major)
{
#define LISTED_EXC(exception) \
    EXPECT_EQ(api.exception, *static_cast<PyObject**>(image.symbol(#exception))) << #exception;
#include "xpy_c_api_entry_list.inc"
    enum { Always, Maybe, Python2 };
#define LISTED_TYPE(entry, name, presence)                                  \
    {                                                                       \
        const void* expected = image.symbol(#name);                         \
        if (presence == Python2 && major != 2)                              \
            expected = nullptr;                                             \
        if (major == 2 && strcmp(#name, "PyBytes_Type") == 0)               \
            expected = image.symbol("PyString_Type");                       \
        EXPECT_EQ(static_cast<const void*>(api.entry), expected) << #entry; \
    }
#include "xpy_c_api_entry_list.inc"
    EXPECT_STREQ(api.Py_FileSystemDefaultEncoding, "stub-encoding");
    EXPECT_EQ(static_cast<void*>(api.Py_None), image.symbol("_Py_NoneStruct"));
    EXPECT_EQ(static_cast<void*>(api.Py_True), image.symbol("_Py_TrueStruct"));
    EXPECT_EQ(static_cast<void*>(api.Py_False), image.symbol(major == 2 ? "_Py_ZeroStruct" : "_Py_FalseStruct"));
}

static void expect_functions(const tStubImage& image, int major)
{
    enum { Always, Maybe, Fallback, Python2, Python3 };
#define LISTED_FN(entry, presence)                                                           \
    {                                                                                        \
        std::string name = #entry;                                                           \
        const void* expected = image.symbol(#entry);                                         \
        if ((presence == Python2 && major != 2) || (presence == Python3 && major != 3))      \
            expected = nullptr;                                                              \
        else if (name == "Py_InitModule")                                                    \
            expected = image.symbol("Py_InitModule4_64");                                    \
        else if (major == 2 && (name == "PyBytes_AsString" || name == "PyBytes_FromString")) \
            expected = image.symbol(("PyString" + name.substr(7)).c_str());                  \
        else if (major == 2 && name == "PyBytes_Size")                                       \
            expected = image.symbol("PyString_Size");                                        \
        else if (major == 2 && name == "PyEval_SetTraceAllThreads")                          \
            expected = address(&Backup_PyEval_SetTraceAllThreads);                           \
        else if (major == 3 && name == "PyMapping_Values")                                   \
            expected = nullptr;                                                              \
        EXPECT_EQ(static_cast<const void*>(address(api.entry)), expected) << name;           \
    }
#include "xpy_c_api_entry_list.inc"
}

TEST_F(StartUp, FillsEveryEntryOfAPython3)
{
    tStubImage image(kRelease3);
    ASSERT_EQ(start(image), 0);
    EXPECT_EQ(fErrors, "");
    expect_functions(image, 3);
    expect_exceptions_and_types(image, 3);
    EXPECT_EQ(api.initialized, 1);
    EXPECT_EQ(api.failed_to_initialize, 0);
    EXPECT_EQ(api.major_version, 3);
    EXPECT_EQ(api.minor_version, 12);
    EXPECT_EQ(api.micro_version, 1);
    EXPECT_EQ(api.api_version, 1013);
    EXPECT_EQ(XPy_GetMajorVersion(), 3);
    EXPECT_EQ(XPy_GetMinorVersion(), 12);
    EXPECT_EQ(api.pydebug_build, 0);
    EXPECT_EQ(api.can_update_refcount_directly, 1);
    EXPECT_EQ(api.cached_pid, getpid());
    EXPECT_STREQ(api.dll_ptr, image.path());
    EXPECT_EQ(image.state().live_references, 0);
}

TEST_F(StartUp, FillsEveryEntryOfAPython2)
{
    tStubImage image(kRelease2);
    image.state().refuses_int_as_long = 1;
    ASSERT_EQ(start_version(image, 2, 7), 0);
    EXPECT_EQ(fErrors, "");
    expect_functions(image, 2);
    expect_exceptions_and_types(image, 2);
    EXPECT_EQ(api.major_version, 2);
    EXPECT_EQ(api.minor_version, 7);
    EXPECT_EQ(api.api_version, 1013);
    EXPECT_EQ(api.refcnt_is_32bit, 0);
    EXPECT_EQ(api.can_update_refcount_directly, 1);
}

TEST_F(StartUp, EachLookUpOpensTheImageLazilyAndGloballyAndClosesItAgain)
{
    tStubImage image(kRelease3);
    ASSERT_EQ(start(image), 0);
    EXPECT_GT(gLoaderWatch.opens, 236);
    EXPECT_EQ(gLoaderWatch.opens, gLoaderWatch.closes);
    EXPECT_EQ(gLoaderWatch.unusual_flags, 0);
}

TEST_F(StartUp, CountWordIs32BitsWideFrom3Dot12On)
{
    tStubImage image(kRelease3);
    EXPECT_EQ(start_version(image, 3, 11), 0);
    EXPECT_EQ(api.refcnt_is_32bit, 0);
    EXPECT_EQ(start_version(image, 3, 12), 0);
    EXPECT_EQ(api.refcnt_is_32bit, 1);
}

TEST_F(StartUp, EarlyPython3HasNoModuleAddFunctions)
{
    tStubImage image(kRelease3 + std::vector<std::string>{"PyModule_AddFunctions"});
    EXPECT_EQ(start_version(image, 3, 4), 0);
    EXPECT_EQ(start_version(image, 3, 5), -1);
    EXPECT_EQ(fErrors, "GetPtr() failed for PyModule_AddFunctions\n");
}

// ---- Second names and fallbacks ----

static const std::vector<std::string> kSecondNames = {"Py_IsFinalizing",
                                                      "PyUnstable_Code_GetExtra",
                                                      "PyUnstable_Code_SetExtra",
                                                      "PyUnstable_Eval_RequestCodeExtraIndex",
                                                      "PyUnicode_AsUTF8",
                                                      "PyUnicodeUCS2_AsUTF8",
                                                      "PyUnicodeUCS4_AsUTF8",
                                                      "_PyUnicodeUCS2_AsString",
                                                      "_PyUnicodeUCS4_AsString",
                                                      "PyUnicodeUCS2_AsUTF8AndSize",
                                                      "PyUnicodeUCS4_AsUTF8AndSize"};

static const std::vector<std::string> kFallbackNames = {
#define LISTED_FN(entry, presence)
#define LISTED_FALLBACK(entry, backup) #entry,
#include "xpy_c_api_entry_list.inc"
};

TEST_F(StartUp, InstallsAFallbackForEachFunctionThatIsMissing)
{
    tStubImage image(kRelease3 + kFallbackNames + kSecondNames);
    image.state().version[1] = 11;
    // without PyInt_FromLong in the table, the version can be read only with the fallbacks' own look-ups
    ASSERT_EQ(start(image), 0);
    EXPECT_EQ(fErrors, "");
#define LISTED_FN(entry, presence)
#define LISTED_FALLBACK(entry, backup) EXPECT_EQ(address(api.entry), address(&backup)) << #entry;
#include "xpy_c_api_entry_list.inc"
    EXPECT_EQ(api.minor_version, 11);
}

TEST_F(StartUp, LeavesOptionalEntriesNull)
{
    tStubImage image(kRelease3 + std::vector<std::string>{
                                     "PyModuleDef_Init", "_PyMutex_LockSlow", "_PyMutex_UnlockSlow", "PyMutex_Lock",
                                     "PyMutex_Unlock", "PyVectorcall_NARGS", "PyVectorcall_Call",
                                     "PyObject_Vectorcall", "_PyInterpreterState_GetEvalFrameFunc",
                                     "_PyInterpreterState_SetEvalFrameFunc", "PyGen_Type", "PyCoro_Type",
                                     "PyCallable_Type", "PyMapping_Values"});
    ASSERT_EQ(start(image), 0);
    EXPECT_EQ(fErrors, "");
    EXPECT_EQ(api.PyModuleDef_Init, nullptr);
    EXPECT_EQ(api._PyMutex_LockSlow, nullptr);
    EXPECT_EQ(api._PyMutex_UnlockSlow, nullptr);
    EXPECT_EQ(api.PyMutex_Lock, nullptr);
    EXPECT_EQ(api.PyMutex_Unlock, nullptr);
    EXPECT_EQ(api.PyVectorcall_NARGS, nullptr);
    EXPECT_EQ(api.PyVectorcall_Call, nullptr);
    EXPECT_EQ(api.PyObject_Vectorcall, nullptr);
    EXPECT_EQ(api._PyInterpreterState_GetEvalFrameFunc, nullptr);
    EXPECT_EQ(api._PyInterpreterState_SetEvalFrameFunc, nullptr);
    EXPECT_EQ(api.PyGen_Type_ptr, nullptr);
    EXPECT_EQ(api.PyCoro_Type_ptr, nullptr);
    EXPECT_EQ(api.PyCallable_Type_ptr, nullptr);
}

TEST_F(StartUp, TriesTheSecondNameOfARenamedFunction)
{
    tStubImage image(kRelease3 + std::vector<std::string>{"_Py_IsFinalizing", "_PyCode_GetExtra", "_PyCode_SetExtra",
                                                          "_PyEval_RequestCodeExtraIndex", "_PyUnicode_AsString",
                                                          "_PyUnicodeUCS2_AsString", "_PyUnicodeUCS4_AsString"});
    ASSERT_EQ(start(image), 0);
    EXPECT_EQ(address(api._Py_IsFinalizing), image.symbol("Py_IsFinalizing"));
    EXPECT_EQ(address(api._PyCode_GetExtra), image.symbol("PyUnstable_Code_GetExtra"));
    EXPECT_EQ(address(api._PyCode_SetExtra), image.symbol("PyUnstable_Code_SetExtra"));
    EXPECT_EQ(address(api._PyEval_RequestCodeExtraIndex), image.symbol("PyUnstable_Eval_RequestCodeExtraIndex"));
    EXPECT_EQ(address(api._PyUnicode_AsString), image.symbol("PyUnicode_AsUTF8"));
}

TEST_F(StartUp, SetTraceAllThreadsIsRequiredFrom3Dot12On)
{
    tStubImage image(kRelease3 + std::vector<std::string>{"PyEval_SetTraceAllThreads"});
    EXPECT_EQ(start_version(image, 3, 11), 0);
    EXPECT_EQ(api.PyEval_SetTraceAllThreads, Backup_PyEval_SetTraceAllThreads);
    EXPECT_EQ(start_version(image, 3, 12), -1);
    EXPECT_EQ(fErrors, "GetPtr() failed for PyEval_SetTraceAllThreads\n");
}

// ---- Unicode variants ----

static const char* const kUnicodeSuffixes[] = {"_Contains",          "_AsEncodedString", "_FromEncodedObject",
                                               "_FromFormatV",       "_FromFormat",      "_FromString",
                                               "_FromStringAndSize", "_FromWideChar"};

static std::vector<std::string> unicode_names(const std::string& variant)
{
    std::vector<std::string> names = {"_PyUnicode" + variant + "_AsString", "PyUnicode" + variant + "_AsUTF8AndSize"};
    for (const char* suffix : kUnicodeSuffixes)
        names.push_back("PyUnicode" + variant + suffix);
    return names;
}

static void expect_unicode_variant(const tStubImage& image, const std::string& variant)
{
    auto symbol = [&](const char* suffix) { return image.symbol(("PyUnicode" + variant + suffix).c_str()); };
    EXPECT_EQ(address(api._PyUnicode_AsString), image.symbol(("_PyUnicode" + variant + "_AsString").c_str()));
    EXPECT_EQ(address(api.PyUnicode_AsUTF8AndSize), symbol("_AsUTF8AndSize"));
    EXPECT_EQ(address(api.PyUnicode_Contains), symbol("_Contains"));
    EXPECT_EQ(address(api.PyUnicode_AsEncodedString), symbol("_AsEncodedString"));
    EXPECT_EQ(address(api.PyUnicode_FromEncodedObject), symbol("_FromEncodedObject"));
    EXPECT_EQ(address(api.PyUnicode_FromFormatV), symbol("_FromFormatV"));
    EXPECT_EQ(address(api.PyUnicode_FromFormat), symbol("_FromFormat"));
    EXPECT_EQ(address(api.PyUnicode_FromString), symbol("_FromString"));
    EXPECT_EQ(address(api.PyUnicode_FromStringAndSize), symbol("_FromStringAndSize"));
    EXPECT_EQ(address(api.PyUnicode_FromWideChar), symbol("_FromWideChar"));
    EXPECT_NE(api.PyUnicode_FromWideChar, nullptr);
}

TEST_F(StartUp, NarrowUnicodeNamesAreTriedBeforeWideOnes)
{
    tStubImage narrow(kRelease2 + unicode_names(""));
    ASSERT_EQ(start_version(narrow, 2, 7), 0);
    expect_unicode_variant(narrow, "UCS2");
    tStubImage wide(kRelease2 + unicode_names("") + unicode_names("UCS2"));
    ASSERT_EQ(start_version(wide, 2, 7), 0);
    expect_unicode_variant(wide, "UCS4");
}

TEST_F(StartUp, MissingUnicodeFunctionIsNamedByItsSuffix)
{
    for (const char* suffix : kUnicodeSuffixes) {
        std::string s = suffix;
        tStubImage image(kRelease3 +
                         std::vector<std::string>{"PyUnicode" + s, "PyUnicodeUCS2" + s, "PyUnicodeUCS4" + s});
        reset();
        EXPECT_EQ(start(image), -1);
        EXPECT_EQ(fErrors, "GetUnicodeFunction() failed for: " + s + "\n");
        EXPECT_EQ(api.initialized, 0);
        EXPECT_EQ(api.failed_to_initialize, 0);
    }
}

// ---- Failures ----

TEST_F(StartUp, EveryRequiredSymbolThatIsMissingIsNamedAndALaterCallSucceeds)
{
    std::vector<std::string> required = {"_Py_NoneStruct", "_Py_TrueStruct", "_Py_FalseStruct",
                                         "Py_FileSystemDefaultEncoding", "PyDict_GetItemWithError"};
    enum { Always, Maybe, Fallback, Python2, Python3 };
#define LISTED_FN(entry, presence)                                                   \
    if (presence == Always && std::string(#entry).compare(0, 10, "PyUnicode_") != 0) \
        required.push_back(#entry);
#define LISTED_EXC(exception) required.push_back(#exception);
#define LISTED_TYPE(entry, symbol, presence) \
    if (presence == Always)                  \
        required.push_back(#symbol);
#include "xpy_c_api_entry_list.inc"
    EXPECT_EQ(required.size(), 5u + 144 + 22 + 16);
    tStubImage complete(kRelease3);
    for (const std::string& name : required) {
        tStubImage image(kRelease3 + std::vector<std::string>{name});
        reset();
        EXPECT_EQ(start(image), -1) << name;
        EXPECT_EQ(fErrors, "GetPtr() failed for " + name + "\n");
        EXPECT_NE(fLog.find("XPy_InitializeGlobalData() failed\n"), std::string::npos) << name;
        EXPECT_EQ(api.initialized, 0);
        EXPECT_EQ(api.failed_to_initialize, 0);
        EXPECT_EQ(start(complete), 0) << name;
        EXPECT_EQ(api.initialized, 1);
    }
}

TEST_F(StartUp, Python2RequiresItsOwnFunctions)
{
    enum { Always, Maybe, Fallback, Python2, Python3 };
    std::vector<std::string> required = {"_Py_ZeroStruct", "PyClass_Type", "PyString_Type"};
#define LISTED_FN(entry, presence) \
    if (presence == Python2)       \
        required.push_back(#entry);
#include "xpy_c_api_entry_list.inc"
    EXPECT_EQ(required.size(), 3u + 16);
    for (const std::string& name : required) {
        if (name == "Py_InitModule")
            continue;  // found under its two real names
        tStubImage image(kRelease2 + std::vector<std::string>{name});
        EXPECT_EQ(start_version(image, 2, 7), -1) << name;
        EXPECT_EQ(fErrors, "GetPtr() failed for " + name + "\n");
    }
}

TEST_F(StartUp, WithoutAModuleEntryPointItFailsForGoodAndLooksNothingUpAgain)
{
    tStubImage image(kEntryPoints);
    EXPECT_EQ(start(image), -1);
    EXPECT_EQ(fErrors, "Failed to find module init function\n");
    EXPECT_EQ(fLog, "XPy_InitializeGlobalData() failed\n");
    EXPECT_EQ(api.failed_to_initialize, 1);
    EXPECT_EQ(api.initialized, 0);

    tStubImage complete(kRelease3);
    EXPECT_EQ(start(complete), -1);
    EXPECT_EQ(gLoaderWatch.opens, 0);
    EXPECT_EQ(fErrors, "");
    EXPECT_STREQ(api.dll_ptr, image.path());
}

TEST_F(StartUp, AfterFailingForGoodRaisesOnlyWithWhatTheTableHolds)
{
    tStubImage image(kRelease3);
    api.failed_to_initialize = 1;
    EXPECT_EQ(start(image), -1);
    EXPECT_EQ(image.state().format_calls, 0);

    api.PyExc_ImportError = *static_cast<PyObject**>(image.symbol("PyExc_ImportError"));
    EXPECT_EQ(start(image), -1);
    EXPECT_EQ(image.state().format_calls, 0);

    void* format = image.symbol("PyErr_Format");
    void* occurred = image.symbol("PyErr_Occurred");
    memcpy(&api.PyErr_Format, &format, sizeof format);
    memcpy(&api.PyErr_Occurred, &occurred, sizeof occurred);
    image.state().pending = 1;
    EXPECT_EQ(start(image), -1);
    EXPECT_EQ(image.state().format_calls, 0) << "an earlier error stays visible";

    image.state().pending = 0;
    EXPECT_EQ(start(image), -1);
    EXPECT_EQ(image.state().format_calls, 1);
    EXPECT_STREQ(image.state().formatted_text, "Unable to init XPy");
    EXPECT_EQ(image.state().formatted_exception, static_cast<void*>(api.PyExc_ImportError));
}

TEST_F(StartUp, AnImageThatCannotBeOpenedFailsForGood)
{
    tCapturedFd errors;
    EXPECT_EQ(XPy_InitializeWithDllPtr("/nonexistent/libpython.so"), -1);
    EXPECT_EQ(errors.text(), "Failed to find module init function\n");
    EXPECT_EQ(api.failed_to_initialize, 1);
}

TEST_F(StartUp, InAProcessWithoutAnInterpreterItFailsQuietlyAfterOneMessage)
{
    tCapturedFd errors;
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(errors.text(), "Failed to find module init function\n");
    EXPECT_EQ(api.dll_ptr, nullptr);
}

TEST_F(StartUp, SecondSuccessfulCallLooksNothingUp)
{
    tStubImage image(kRelease3), other(kRelease3);
    ASSERT_EQ(start(image), 0);
    api.PyDict_New = nullptr;
    EXPECT_EQ(start(other), 0);
    EXPECT_EQ(gLoaderWatch.opens, 0);
    EXPECT_EQ(api.PyDict_New, nullptr);
    EXPECT_STREQ(api.dll_ptr, image.path());
    EXPECT_EQ(other.state().version_reads, 0);
}

// ---- Version numbers ----

TEST_F(StartUp, UnreadableVersionIsReportedPrintedAndSurvived)
{
    tStubImage image(kRelease3);
    image.state().lacks_version_info = 1;
    EXPECT_EQ(start(image), 0);
    EXPECT_EQ(fErrors,
              "Unable to get version numbers\n"
              "Cannot find tstate fields for this python version\n");
    EXPECT_EQ(image.state().print_calls, 1);
    EXPECT_EQ(api.major_version, -1);
    EXPECT_EQ(api.initialized, 1);
    EXPECT_EQ(api.PyInt_AsLong, nullptr);
    EXPECT_EQ(static_cast<void*>(api.Py_False), image.symbol("_Py_FalseStruct"));
    EXPECT_EQ(api.pyobject_offsets.type, 8);
}

TEST_F(StartUp, EachUnreadableVersionItemLeavesMinusOne)
{
    for (int item = 0; item < 3; item++) {
        tStubImage image(kRelease3);
        image.state().failing_item = item;
        reset();
        EXPECT_EQ(start(image), 0);
        EXPECT_EQ(fErrors.substr(0, 30), "Unable to get version numbers\n");
        EXPECT_EQ(image.state().print_calls, 1);
        EXPECT_EQ(item == 0 ? api.major_version : item == 1 ? api.minor_version : api.micro_version, -1);
        EXPECT_EQ(image.state().live_references, 0);
    }
}

TEST_F(StartUp, UnreadableApiVersionIsReportedToo)
{
    tStubImage image(kRelease3);
    image.state().lacks_api_version = 1;
    EXPECT_EQ(start(image), 0);
    EXPECT_EQ(fErrors, "Unable to get version numbers\n");
    EXPECT_EQ(image.state().print_calls, 1);
    EXPECT_EQ(api.minor_version, 12);
    EXPECT_EQ(api.api_version, -1);
}

TEST_F(StartUp, VersionWithoutAThreadStateTableStartsUpWithZeroOffsets)
{
    tStubImage image(kRelease3);
    EXPECT_EQ(start_version(image, 3, 99), 0);
    EXPECT_EQ(fErrors, "Cannot find tstate fields for this python version\n");
    const XPy_ThreadStateOffsets zero = {};
    EXPECT_EQ(memcmp(&api.tstate_offsets, &zero, sizeof zero), 0);
    EXPECT_EQ(api.initialized, 1);
}

// ---- Builds ----

TEST_F(StartUp, EntryPointsAreProbedInOrder)
{
    static const struct {
        int major;
        int debug;
    } kFound[] = {{2, 0}, {2, 1}, {3, 0}, {3, 1}};
    std::vector<std::string> absent = {"_Py_GetThreadLocal_Addr"};
    for (int i = 0; i < 4; i++) {
        tStubImage image(absent);
        ASSERT_EQ(start_version(image, kFound[i].major, 7), 0);
        EXPECT_EQ(api.pydebug_build, kFound[i].debug) << kEntryPoints[i];
        void* entry_point = image.symbol(kEntryPoints[i].c_str());
        EXPECT_EQ(address(api.Py_InitModule), kFound[i].major == 2 ? entry_point : nullptr);
        EXPECT_EQ(address(api.PyModule_Create2), kFound[i].major == 3 ? entry_point : nullptr);
        absent.push_back(kEntryPoints[i]);
    }
}

TEST_F(StartUp, DebugBuildAddsTheListLinksToTheHeaderAndNeverUpdatesDirectly)
{
    tStubImage image(only("PyModule_Create2TraceRefs"));
    ASSERT_EQ(start_version(image, 3, 14), 0);
    EXPECT_EQ(api.pydebug_build, 1);
    EXPECT_EQ(api.pyobject_offsets.refcnt, 16);
    EXPECT_EQ(api.pyobject_offsets.overflow, 20);
    EXPECT_EQ(api.pyobject_offsets.flags, 22);
    EXPECT_EQ(api.pyobject_offsets.type, 24);
    EXPECT_EQ(api.pyobject_offsets.mutex, -1);
    EXPECT_EQ(api.can_update_refcount_directly, 0);
    EXPECT_EQ(api.refcnt_is_32bit, 1);
    EXPECT_EQ(api.typeobject_offsets.tp_basicsize, 16 + 32);
}

TEST_F(StartUp, FreeThreadedBuildHasNoCountOffset)
{
    std::vector<std::string> absent = kRelease3;
    absent.erase(std::find(absent.begin(), absent.end(), "_Py_GetThreadLocal_Addr"));
    tStubImage image(absent);
    ASSERT_EQ(start_version(image, 3, 13), 0);
    EXPECT_EQ(api.pyobject_offsets.refcnt, -1);
    EXPECT_EQ(api.pyobject_offsets.type, 24);
    EXPECT_EQ(api.pyobject_offsets.mutex, 10);
    EXPECT_EQ(api.pyobject_offsets.overflow, -1);
    EXPECT_EQ(api.pyobject_offsets.flags, -1);
    EXPECT_EQ(api.can_update_refcount_directly, 0);
    char line[100];
    snprintf(line, sizeof line, "IsFreeThreadingBuild(): c_func_ptr = %p\n", image.symbol("_Py_GetThreadLocal_Addr"));
    EXPECT_EQ(fLog.substr(0, strlen(line)), line);
    EXPECT_NE(fLog.find("FindInitFunction() succeeded major_version = 3, free_t_build = 1, pydebug_build = 0\n"),
              std::string::npos);
}

TEST_F(StartUp, ThreadLocalAddressMakesNoPython2FreeThreaded)
{
    tStubImage image(std::vector<std::string>{});
    ASSERT_EQ(start_version(image, 2, 7), 0);
    EXPECT_EQ(api.pyobject_offsets.refcnt, 0);
    EXPECT_EQ(fLog.find("IsFreeThreadingBuild"), std::string::npos);
}

// ---- The native log ----

TEST_F(StartUp, LogsItsStepsInOrder)
{
    tStubImage image(kRelease3);
    ASSERT_EQ(start(image), 0);
    EXPECT_EQ(fLog,
              "IsFreeThreadingBuild(): c_func_ptr = (nil)\n"
              "FindInitFunction() succeeded major_version = 3, free_t_build = 0, pydebug_build = 0\n"
              "pyobject_offsets: refcnt=0 type=8 mutex=-1 overflow=-1 flags=-1\n"
              "XPy_InitializeGlobalData() succeeded\n"
              "typeobject: tp_basicsize offset = 32, tp_vectorcall_offset offset = 56, max_align = 8\n");
}

TEST_F(StartUp, LogsADebugPython2)
{
    tStubImage image(only("Py_InitModule4TraceRefs_64"));
    ASSERT_EQ(start_version(image, 2, 7), 0);
    EXPECT_EQ(fLog,
              "FindInitFunction() succeeded major_version = 2, free_t_build = 0, pydebug_build = 1\n"
              "pyobject_offsets: refcnt=16 type=24 mutex=-1 overflow=-1 flags=-1\n"
              "XPy_InitializeGlobalData() succeeded\n"
              "typeobject: tp_basicsize offset = 48, tp_vectorcall_offset offset = 72, max_align = 8\n");
}

// ---- Failing on purpose ----

TEST_F(StartUp, FailOnImportLeavesTheTableAloneAndAnswersMinusOne)
{
    tStubImage image(kRelease3);
    api.dll_ptr = image.path();  // where a missing PyErr_Format is looked up
    EXPECT_EQ(XPy_DbgSetFailOnImport(1), 0);
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(XPy_DbgSetFailOnImport(0), 1);
    EXPECT_EQ(XPy_DbgSetFailOnImport(0), 0);
    EXPECT_EQ(image.state().format_calls, 1);
    EXPECT_STREQ(image.state().formatted_text, "Unable to init XPy");
    EXPECT_EQ(image.state().formatted_exception, *static_cast<void**>(image.symbol("PyExc_ImportError")));
    EXPECT_EQ(image.state().version_reads, 0);
    EXPECT_EQ(api.initialized, 0);
    EXPECT_EQ(api.failed_to_initialize, 0);
    EXPECT_EQ(api.PyDict_New, nullptr);
}

TEST_F(StartUp, ImportErrorIsNotRaisedOverAPendingOne)
{
    tStubImage image(kRelease3);
    api.dll_ptr = image.path();
    image.state().pending = 1;
    XPy_TryToRaiseImportError();
    EXPECT_EQ(image.state().format_calls, 0);
    image.state().pending = 0;
    XPy_TryToRaiseImportError();
    EXPECT_EQ(image.state().format_calls, 1);
}

TEST_F(StartUp, ImportErrorNeedsBothTheFunctionAndTheException)
{
    for (const char* name : {"PyErr_Format", "PyExc_ImportError"}) {
        tStubImage image(kRelease3 + std::vector<std::string>{name});
        reset();
        api.dll_ptr = image.path();
        XPy_TryToRaiseImportError();
        EXPECT_EQ(image.state().format_calls, 0);
    }
}

// ---- The process id ----

TEST_F(StartUp, ForkHandlerIsRegisteredOnceAndRefreshesTheChildsPid)
{
    tStubImage image(kRelease3);
    for (int i = 0; i < 3; i++) {
        reset();
        ASSERT_EQ(start(image), 0);
    }
    EXPECT_EQ(gAtForkCalls, 2) << "the first call is refused, the second accepted, and there is no third";
    pid_t parent = getpid();
    EXPECT_EQ(api.cached_pid, parent);
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0)
        _exit(api.cached_pid == getpid() && api.initialized && api.PyDict_New ? 17 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 17);
    EXPECT_EQ(api.cached_pid, parent);
}

// ---- Small exported functions ----

TEST_F(StartUp, LooksFunctionsUpByNameInTheTablesImage)
{
    tStubImage image(kRelease3);
    ASSERT_EQ(start(image), 0);
    tCapturedFd errors;
    EXPECT_EQ(XPy_LookupPythonFunction("PyUnicode_AsUTF8"), image.symbol("PyUnicode_AsUTF8"));
    EXPECT_EQ(XPy_LookupPythonFunction("Py_NoSuchFunction"), nullptr);
    EXPECT_EQ(errors.text(), "");
}
