// Helpers of the tests of the binding layer, and of every test that runs inside an interpreter.

#ifndef OPTMONITORING_TESTS_HOSTED_SUPPORT_H
#define OPTMONITORING_TESTS_HOSTED_SUPPORT_H

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "xpy_c_api.h"

// Collects what is written to one descriptor (2: standard error) from construction to text().
class tCapturedFd
{
  public:
    explicit tCapturedFd(int fd = 2) : fFd(fd)
    {
        fflush(stderr);
        fflush(stdout);
        fSaved = dup(fFd);
        fFile = tmpfile();
        dup2(fileno(fFile), fFd);
    }
    ~tCapturedFd() { restore(); }
    tCapturedFd(const tCapturedFd&) = delete;
    tCapturedFd& operator=(const tCapturedFd&) = delete;

    // Everything written so far. Ends the collection.
    std::string text()
    {
        restore();
        std::string result;
        char buffer[4096];
        rewind(fFile);
        size_t count;
        while ((count = fread(buffer, 1, sizeof buffer, fFile)) > 0)
            result.append(buffer, count);
        fclose(fFile);
        fFile = nullptr;
        return result;
    }

  private:
    void restore()
    {
        if (fSaved == -1)
            return;
        fflush(stderr);
        fflush(stdout);
        dup2(fSaved, fFd);
        close(fSaved);
        fSaved = -1;
    }

    int fFd;
    int fSaved;
    FILE* fFile;
};

// Puts the binding table back as it was.
class tSavedTable
{
  public:
    tSavedTable() : fSaved(global_XPy_C_API_Data) {}
    ~tSavedTable() { global_XPy_C_API_Data = fSaved; }
    tSavedTable(const tSavedTable&) = delete;
    tSavedTable& operator=(const tSavedTable&) = delete;

  private:
    XPy_C_API_Data fSaved;
};

// ---- Only inside an interpreter ----

// Text of a str (either generation's) or of any other object's str(). "<null>" for null.
inline std::string text_of(PyObject* obj)
{
    if (!obj)
        return "<null>";
    XPyOwned str_type(XPy_NewRef(api.major_version == 2 ? reinterpret_cast<PyObject*>(api.PyString_Type_ptr)
                                                        : reinterpret_cast<PyObject*>(api.PyUnicode_Type_ptr)));
    XPyOwned str(api.PyObject_CallOneArg(str_type.borrow(), obj));
    if (!str) {
        api.PyErr_Clear();
        return "<str failed>";
    }
    const char* text =
        api.major_version == 2 ? api.PyString_AsString(str.borrow()) : api._PyUnicode_AsString(str.borrow());
    return text ? text : "<no text>";
}

// "TypeName: text" of the pending exception, which is cleared; "" when nothing is pending.
inline std::string take_error()
{
    if (!api.PyErr_Occurred())
        return "";
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    api.PyErr_Fetch(&type, &value, &traceback);
    api.PyErr_NormalizeException(&type, &value, &traceback);
    XPyOwned owned_type(type), owned_value(value), owned_traceback(traceback);
    XPyOwned name(api.PyObject_GetAttrString(type, "__name__"));
    return text_of(name.borrow()) + ": " + text_of(value);
}

// Runs statements in a fresh namespace, which is returned [new]; null with the test failed.
inline PyObject* run_python(const char* code, PyObject* globals = nullptr)
{
    constexpr int kFileInput = 257;
    PyObject* scope = globals ? XPy_NewRef(globals) : api.PyDict_New();
    if (!globals)
        api.PyDict_SetItemString(scope, "__builtins__", api.PyEval_GetBuiltins());
    XPyOwned done(api.PyRun_String(code, kFileInput, scope, scope));
    if (!done) {
        ADD_FAILURE() << take_error() << " in:\n" << code;
        XPy_DoDecRef(scope);
        return nullptr;
    }
    return scope;
}

// Value of an expression [new]; null with the test failed.
inline PyObject* eval_python(const char* expression, PyObject* globals = nullptr)
{
    std::string code = std::string("_value = (") + expression + ")\n";
    XPyOwned scope(run_python(code.c_str(), globals));
    return scope ? XPy_NewRef(api.PyDict_GetItemString(scope.borrow(), "_value")) : nullptr;
}

inline long long int_of(PyObject* obj)
{
    long long value = obj ? api.PyLong_AsLongLong(obj) : -1;
    if (api.major_version == 2 && api.PyErr_Occurred()) {
        api.PyErr_Clear();
        value = api.PyInt_AsLong(obj);
    }
    return value;
}

// The interpreter's own count of OBJ, the caller's pointer not counted.
inline long long refcount_of(PyObject* obj)
{
    XPyOwned function(eval_python("__import__('sys').getrefcount"));
    XPyOwned count(api.PyObject_CallOneArg(function.borrow(), obj));
    return int_of(count.borrow());
}

// Every test starts and ends with no exception pending.
class HostedTest : public ::testing::Test
{
  protected:
    void SetUp() override { EXPECT_EQ(take_error(), ""); }
    void TearDown() override { EXPECT_EQ(take_error(), ""); }
    // PYVERSIONS: the last version with a thread-state layout
    static bool has_thread_state_layout() { return !is_py3(16); }
    static bool is_py3(int first, int last = 1000)
    {
        return api.major_version == 3 && api.minor_version >= first && api.minor_version <= last;
    }
};

#endif
