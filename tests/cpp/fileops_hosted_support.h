// The file-identity unit inside an interpreter: a record whose log is a Python object.

#ifndef OPTMONITORING_TESTS_FILEOPS_HOSTED_SUPPORT_H
#define OPTMONITORING_TESTS_FILEOPS_HOSTED_SUPPORT_H

#include "fileops.h"
#include "fileops_test_support.h"
#include "hosted_support.h"
#include "reference_count.h"

constexpr char kFileOpsHelpers[] = R"(
import gc, sys, traceback
gc.collect()
gc.disable()  # what it frees would disturb the counts
class Log(object):
    def __init__(self):
        self.parts = []
    def write(self, text):
        self.parts.append(text)
    def flush(self):
        pass
    def take(self):
        text = ''.join(self.parts)
        del self.parts[:]
        return text
log = Log()
calls = []
answer = 'sum'
def recording(*arguments, **keywords):
    calls.append((arguments, keywords))
    return answer
exec(compile("def raising(pathname):\n    raise ValueError('boom')\n", '/no/such/callbacks.py', 'exec'))
def interrupting(pathname):
    raise KeyboardInterrupt()
)";

// A record whose filenames and internal_failures channels write to a Python object.
class FileOpsHostedTest : public HostedTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(0, XPy_Initialize());
        HostedTest::SetUp();
        scope.reset(run_python(kFileOpsHelpers));
        ASSERT_TRUE(scope);
        log.reset(XPy_NewRef(borrow_global("log")));
        dp = create_dp_data();
        ASSERT_NE(nullptr, dp);
        set_dp_data_mask(dp, kLogFilenames | kLogInternalFailures);
        set_dp_data_file_obj(dp, log.borrow(), -1, nullptr);
        set_dprintf_file(log.borrow(), -1, nullptr);
        data = create_file_ops_data(dp);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ("", take_log());
    }
    void TearDown() override
    {
        if (data)
            destroy_file_ops_data(data);
        set_dprintf_file(nullptr, -1, nullptr);
        free_dp_data(dp);
        log.reset(nullptr);
        run_python("gc.enable()", scope.borrow());
        scope.reset(nullptr);
        HostedTest::TearDown();
    }

    PyObject* borrow_global(const char* name) { return api.PyDict_GetItemString(scope.borrow(), name); }
    std::string take_log()
    {
        XPyOwned text(api.PyObject_CallMethod(log.borrow(), "take", nullptr));
        return text_of(text.borrow());
    }
    // The truth of a Python expression over the helpers.
    bool is_true(const std::string& expression)
    {
        XPyOwned value(eval_python(expression.c_str(), scope.borrow()));
        return value && api.PyObject_IsTrue(value.borrow()) == 1;
    }

    // A string object of its own. [new]
    static PyObject* str(const std::string& text)
    {
        return api.major_version < 3 ? api.PyString_FromStringAndSize(text.data(), text.size())
                                     : api.PyUnicode_FromStringAndSize(text.data(), text.size());
    }
    // Results as texts; null is "(raised) " and the exception, which is cleared; None is "(none)".
    std::string outcome(PyObject* result)
    {
        XPyOwned owned(result);
        if (!result)
            return "(raised) " + take_error();
        if (result == api.Py_None)
            return "(none)";
        PyTypeObject* str_type = api.major_version < 3 ? api.PyString_Type_ptr : api.PyUnicode_Type_ptr;
        EXPECT_TRUE(XPy_IsInstance(result, str_type));
        return text_of(result);
    }
    std::string lookup(const std::string& name)
    {
        XPyOwned pathname(str(name));
        return outcome(lookup_canonical_pathname_pystr(data, pathname.borrow(), nullptr));
    }
    std::string lookup(const std::string& name, const std::string& checksum)
    {
        XPyOwned pathname(str(name)), sum(str(checksum));
        return outcome(lookup_canonical_pathname_pystr(data, pathname.borrow(), sum.borrow()));
    }
    std::string register_name(const std::string& name)
    {
        XPyOwned pathname(str(name));
        return outcome(register_canonical_pathname_pystr(data, pathname.borrow(), nullptr));
    }
    std::string register_name(const std::string& name, const std::string& checksum)
    {
        XPyOwned pathname(str(name)), sum(str(checksum));
        return outcome(register_canonical_pathname_pystr(data, pathname.borrow(), sum.borrow()));
    }
    void set_pending() { api.PyErr_SetString(api.PyExc_ValueError, "pending"); }

    XPyOwned scope;
    XPyOwned log;
    tDPData* dp = nullptr;
    tFileOpsData* data = nullptr;
    tTempTree tree;
};

constexpr char kReport[] = "EXCEPTION IN DEBUG TRACER:\n";
inline const std::string kPendingReport = std::string(kReport) + "ValueError: pending\n";

inline std::string registered_lines(const std::string& pathname, const std::string& canonical)
{
    return "Registered canonical in register_canonical_pathname_pystr()\n  pathname=" + pathname +
           "\n  canonical=" + canonical + "\n";
}

#endif
