// What the tests of the log and of the accessors share: a wire that keeps writes apart, stand-ins for table entries,
// a clean process-wide log, and (hosted) the fixture that runs Python snippets in a namespace of its own.

#ifndef OPTMONITORING_TESTS_LOG_TEST_SUPPORT_H
#define OPTMONITORING_TESTS_LOG_TEST_SUPPORT_H

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "dbgcommon.h"
#include "dprintf.h"
#include "gtest/gtest.h"
#include "reference_count.h"

// A descriptor to write to; each write arrives as one message.
class tWire
{
  public:
    tWire()
    {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fEnds) != 0)
            abort();
    }
    ~tWire()
    {
        close(fEnds[0]);
        close(fEnds[1]);
    }
    tWire(const tWire&) = delete;
    tWire& operator=(const tWire&) = delete;

    int writer() const { return fEnds[1]; }

    // The messages that arrived since the last call.
    std::vector<std::string> take()
    {
        std::vector<std::string> messages;
        std::string buffer(1 << 16, '\0');
        for (;;) {
            ssize_t length = recv(fEnds[0], &buffer[0], buffer.size(), 0);
            if (length <= 0)
                return messages;
            messages.push_back(buffer.substr(0, static_cast<size_t>(length)));
        }
    }

  private:
    int fEnds[2];
};

using tTexts = std::vector<std::string>;

// Puts a value into a place until the end of the scope.
template <typename T>
class tSwapped
{
  public:
    tSwapped(T& place, T value) : fPlace(place), fOld(place) { place = value; }
    ~tSwapped() { fPlace = fOld; }
    tSwapped(const tSwapped&) = delete;
    tSwapped& operator=(const tSwapped&) = delete;

  private:
    T& fPlace;
    T fOld;
};

// The process-wide log without outputs and with its initial mask.
inline void reset_log()
{
    set_dprintf_file(nullptr, -1, nullptr);
    set_dprintf_mask(kDefaultLogMask);
    gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count = 0;
}

#ifdef HOSTED_TESTS

// True on 3.MINOR and later.
inline bool since_python3(int minor)
{
    return api.major_version >= 3 && api.minor_version >= minor;
}

// The function behind `native` in the namespace of the running test.
inline std::function<void(PyObject*)>& native_hook()
{
    static std::function<void(PyObject*)> hook;
    return hook;
}

inline PyObject* call_native_hook(PyObject*, PyObject* arg)
{
    if (native_hook())
        native_hook()(arg);
    return api.PyErr_Occurred() ? nullptr : XPy_NewRef(api.Py_None);
}

class tHostedTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        static constexpr int kMethO = 8;
        static PyMethodDef native = {"native", call_native_hook, kMethO, nullptr};
        ASSERT_EQ(XPy_Initialize(), 0);
        ASSERT_EQ(api.PyErr_Occurred(), nullptr);
        reset_log();
        fTracing = get_thread_state_tracing(tstate());
        fGlobals = api.PyDict_New();
        api.PyDict_SetItemString(fGlobals, "__builtins__", api.PyEval_GetBuiltins());
        XPyOwned function(api.PyCFunction_NewEx(&native, nullptr, nullptr));
        set_var("native", function.borrow());
        run(R"(
import gc, sys, weakref

class Log(object):
    def __init__(self):
        self.parts = []
        self.flushes = 0
    def write(self, text):
        self.parts.append(text)
    def flush(self):
        self.flushes += 1
    def take(self):
        text = ''.join(self.parts)
        del self.parts[:]
        return text

class Plain(object):
    pass

def exec_as(filename, source):
    exec(compile(source, filename, 'exec'), globals())

def live():
    gc.collect()
    blocks = getattr(sys, 'getallocatedblocks', None)
    return blocks() if blocks else len(gc.get_objects())
)");
    }

    void TearDown() override
    {
        EXPECT_EQ(take_exception(), "") << "an exception was left pending";
        native_hook() = nullptr;
        reset_log();
        EXPECT_EQ(get_thread_state_tracing(tstate()), fTracing);
        if (fGlobals)
            run("sys.settrace(None)\nglobals().clear()");
        XPy_ClearField(&fGlobals);
    }

    static PyThreadState* tstate() { return api.PyThreadState_Get(); }

    // Runs SOURCE as a module body.
    void run(const std::string& source)
    {
        static constexpr int kFileInput = 257;
        XPyOwned result(api.PyRun_String(source.c_str(), kFileInput, fGlobals, fGlobals));
        if (!result) {
            ADD_FAILURE() << "snippet failed: " << source;
            api.PyErr_Print();
        }
    }

    // The value of an expression. [new]
    PyObject* eval(const std::string& expression)
    {
        static constexpr int kEvalInput = 258;
        PyObject* result = api.PyRun_String(expression.c_str(), kEvalInput, fGlobals, fGlobals);
        if (!result) {
            ADD_FAILURE() << "expression failed: " << expression;
            api.PyErr_Print();
        }
        return result;
    }

    static std::string text_of(PyObject* str)
    {
        const char* text = api.major_version < 3 ? api.PyString_AsString(str) : api._PyUnicode_AsString(str);
        return text ? text : "<no text>";
    }

    std::string eval_text(const std::string& expression)
    {
        XPyOwned result(eval("str(" + expression + ")"));
        return result ? text_of(result.borrow()) : "<failed>";
    }

    long eval_int(const std::string& expression)
    {
        XPyOwned result(eval("int(" + expression + ")"));
        return result ? static_cast<long>(py_int_as_ssize_t(result.borrow())) : -999;
    }

    PyObject* var(const char* name)  // [borrowed]
    {
        PyObject* value = api.PyDict_GetItemString(fGlobals, name);
        if (!value)
            ADD_FAILURE() << "no variable " << name;
        return value;
    }

    void set_var(const char* name, PyObject* value) { api.PyDict_SetItemString(fGlobals, name, value); }

    // Opens the process-wide log on the Python object NAME, made as EXPRESSION.
    void open_log(int mask = kDefaultLogMask, const char* name = "log", const char* expression = "Log()")
    {
        run(std::string(name) + " = " + expression);
        set_dprintf_file(var(name), -1, nullptr);
        set_dprintf_mask(mask);
    }

    std::string logged(const std::string& name = "log") { return eval_text(name + ".take()"); }

    static void raise_value_error(const char* text) { api.PyErr_SetString(api.PyExc_ValueError, text); }

    // "Type: text" of the pending exception, which is cleared; "" without one.
    std::string take_exception()
    {
        if (!api.PyErr_Occurred())
            return "";
        PyObject *type, *value, *traceback;
        api.PyErr_Fetch(&type, &value, &traceback);
        api.PyErr_NormalizeException(&type, &value, &traceback);
        set_var("_taken", value);
        XPy_ClearField(&type);
        XPy_ClearField(&value);
        XPy_ClearField(&traceback);
        std::string text = eval_text("type(_taken).__name__ + ': ' + str(_taken)");
        run("del _taken");  // with its traceback, which would keep objects alive
        return text;
    }

    // Runs STEP 1000 times: the counts of OBJECTS stay and nothing is left on the heap.
    void expect_balanced(std::initializer_list<PyObject*> objects, const std::function<void()>& step)
    {
        static constexpr int kRepeats = 1000;
        static constexpr int kBatches = 3;  // the interpreter's caches grow in jumps, a leak in every batch
        for (int i = 0; i < 50; i++)
            step();
        long least_growth = kRepeats;
        for (int batch = 0; batch < kBatches && least_growth >= kRepeats / 2; batch++) {
            long live_before = eval_int("live()");
            std::vector<Py_ssize_t> before = counts_of(objects);
            for (int i = 0; i < kRepeats; i++)
                step();
            EXPECT_EQ(before, counts_of(objects));
            least_growth = std::min(least_growth, eval_int("live()") - live_before);
        }
        EXPECT_LT(least_growth, kRepeats / 2);
    }

    static std::vector<Py_ssize_t> counts_of(std::initializer_list<PyObject*> objects)
    {
        std::vector<Py_ssize_t> counts;
        for (PyObject* object : objects)
            counts.push_back(count_of(object));
        return counts;
    }

    PyObject* fGlobals = nullptr;
    int fTracing = 0;
};

#endif
#endif
