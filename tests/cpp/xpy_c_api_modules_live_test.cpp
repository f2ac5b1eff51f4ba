// Modules and the frame-evaluation hook of a real interpreter.

#include <dlfcn.h>

#include <string>

#include "hosted_support.h"
#include "xpy_c_api_internal.h"

class LiveModules : public HostedTest
{
};

static constexpr int kNoArguments = 4;  // method flag

static PyObject* answer(PyObject*, PyObject*)
{
    return api.PyLong_FromLongLong(42);
}

static PyMethodDef gMethods[] = {{"answer", answer, kNoArguments, "the answer"}, {nullptr, nullptr, 0, nullptr}};

TEST_F(LiveModules, SinglePhaseModuleHasItsNameAndMethods)
{
    PyObject* module = XPy_InitModule("xpy_single", gMethods);
    ASSERT_NE(module, nullptr) << take_error();
    EXPECT_STREQ(api.PyModule_GetName(module), "xpy_single");
    XPyOwned result(api.PyObject_CallMethod(module, "answer", nullptr));
    EXPECT_EQ(int_of(result.borrow()), 42);
    XPyOwned doc(api.PyObject_GetAttrString(module, "__doc__"));
    EXPECT_EQ(doc.borrow(), api.Py_None);
    if (api.major_version == 3)
        XPy_DoDecRef(module);
}

// A module function of the interpreter, which reference-tracing builds rename.
static void* find_module_function(const std::string& name)
{
    void* function = XPy_LookupPythonFunction(name.c_str());
    return function ? function : XPy_LookupPythonFunction((name + "TraceRefs").c_str());
}

static int gExecs;
static void* gState;

TEST_F(LiveModules, MultiPhaseModuleIsExecutedWithItsState)
{
    if (!is_py3(5)) {
        GTEST_SKIP() << "Python 2 has single-phase modules only";
    }
    XPyModuleDef def = {};
    def.m_name = "xpy_multi";
    def.m_doc = "about it";
    def.m_size = 100;
    def.m_methods = gMethods;
    def.m_exec = [](PyObject* module) {
        gExecs++;
        gState = api.PyModule_GetState(module);
        return 0;
    };
    def.m_multiple_interp_flag = 1;
    def.m_no_gil_support_flag = 1;
    gExecs = 0;
    PyObject* py_def = XPyModuleDef_Init(&def);
    ASSERT_NE(py_def, nullptr) << take_error();
    auto from_def =
        reinterpret_cast<PyObject* (*)(PyObject*, PyObject*, int)>(find_module_function("PyModule_FromDefAndSpec2"));
    auto exec_def = reinterpret_cast<int (*)(PyObject*, PyObject*)>(find_module_function("PyModule_ExecDef"));
    ASSERT_TRUE(from_def && exec_def);
    XPyOwned spec(eval_python("__import__('importlib.machinery').machinery.ModuleSpec('xpy_multi', None)"));
    XPyOwned module(from_def(py_def, spec.borrow(), api.api_version));
    ASSERT_TRUE(module) << take_error();
    EXPECT_EQ(exec_def(module.borrow(), py_def), 0) << take_error();
    EXPECT_EQ(gExecs, 1);
    EXPECT_NE(gState, nullptr);
    EXPECT_EQ(api.PyModule_GetState(module.borrow()), gState);
    XPyOwned doc(api.PyObject_GetAttrString(module.borrow(), "__doc__"));
    EXPECT_EQ(text_of(doc.borrow()), "about it");
    XPyOwned result(api.PyObject_CallMethod(module.borrow(), "answer", nullptr));
    EXPECT_EQ(int_of(result.borrow()), 42);
}

TEST_F(LiveModules, CreateFunctionMakesTheModule)
{
    if (!is_py3(5)) {
        GTEST_SKIP() << "Python 2 has single-phase modules only";
    }
    XPyModuleDef def = {};
    def.m_name = "xpy_created";
    static PyObject* gCreated;
    def.m_create = [](PyObject* spec, PyModuleDef*) {
        XPyOwned name(api.PyObject_GetAttrString(spec, "name"));
        gCreated = api.PyModule_New(text_of(name.borrow()).c_str());
        return gCreated;
    };
    PyObject* py_def = XPyModuleDef_Init(&def);
    ASSERT_NE(py_def, nullptr) << take_error();
    auto from_def =
        reinterpret_cast<PyObject* (*)(PyObject*, PyObject*, int)>(find_module_function("PyModule_FromDefAndSpec2"));
    XPyOwned spec(eval_python("__import__('importlib.machinery').machinery.ModuleSpec('xpy_by_spec', None)"));
    XPyOwned module(from_def(py_def, spec.borrow(), api.api_version));
    ASSERT_TRUE(module) << take_error();
    EXPECT_EQ(module.borrow(), gCreated);
    EXPECT_STREQ(api.PyModule_GetName(module.borrow()), "xpy_by_spec");
}

// ---- The frame-evaluation hook ----

static int gEvaluations;

static void* default_eval()
{
    static void* function = dlsym(RTLD_DEFAULT, "_PyEval_EvalFrameDefault");
    return function;
}

static PyObject* eval_with_frame(PyFrameObject* frame, int throwflag)
{
    gEvaluations++;
    return reinterpret_cast<PyObject* (*)(PyFrameObject*, int)>(default_eval())(frame, throwflag);
}

static PyObject* eval_with_thread_state(PyThreadState* tstate, void* frame, int throwflag)
{
    gEvaluations++;
    return reinterpret_cast<PyObject* (*)(PyThreadState*, void*, int)>(default_eval())(tstate, frame, throwflag);
}

struct tFamily {
    const char* name;
    XPy_EvalFrameFunc (*get)();
    int (*set)(XPy_EvalFrameFunc);
    int first, last;  // minor versions
    void* own;
};

static const tFamily kFamilies[] = {
    {"field", XPy_GetEvalFrameFunctionNoThreadState, XPy_SetEvalFrameFunctionNoThreadState, 6, 8,
     reinterpret_cast<void*>(eval_with_frame)},
    {"thread state", XPy_GetEvalFrameFunctionWithThreadState, XPy_SetEvalFrameFunctionWithThreadState, 9, 10,
     reinterpret_cast<void*>(eval_with_thread_state)},
    {"interpreter frame", XPy_GetEvalFrameFunctionPyInterpreterFrame, XPy_SetEvalFrameFunctionPyInterpreterFrame, 11,
     11, reinterpret_cast<void*>(eval_with_thread_state)},
};

TEST_F(LiveModules, FrameEvaluationIsReplacedAndRestoredWhereItsFamilyApplies)
{
    XPyOwned function(eval_python("lambda: 5"));
    for (const tFamily& family : kFamilies) {
        if (!is_py3(family.first, family.last)) {
            EXPECT_EQ(family.get(), nullptr) << family.name;
            EXPECT_EQ(family.set(family.own), -1) << family.name;
            EXPECT_EQ(take_error(), "");
            continue;
        }
        ASSERT_EQ(family.get(), default_eval()) << family.name;
        gEvaluations = 0;
        EXPECT_EQ(family.set(family.own), 0);
        EXPECT_EQ(family.get(), family.own);
        {
            XPyOwned result(api.PyObject_CallNoArgs(function.borrow()));
            EXPECT_EQ(int_of(result.borrow()), 5);
        }
        EXPECT_EQ(gEvaluations, 1);
        EXPECT_EQ(family.set(default_eval()), 0);
        EXPECT_EQ(family.get(), default_eval());
        XPyOwned result(api.PyObject_CallNoArgs(function.borrow()));
        EXPECT_EQ(gEvaluations, 1);
    }
    EXPECT_EQ(XPy_SupportsEvalFunctionWithThreadState(), is_py3(9, 10));
    EXPECT_EQ(XPy_SupportsEvalFunctionPyInterpreterFrame(), is_py3(11, 11));
}
