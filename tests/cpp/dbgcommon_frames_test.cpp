// Accessors of frames and tracebacks.

#include "log_test_support.h"

namespace {

// In place of a frame object, for fields at chosen offsets: the frame test reads the type only.
struct tFakeFrame {
    tFakeFrame()
    {
        *static_cast<PyTypeObject**>(XPy_GetFieldAddress(header, api.pyobject_offsets.type)) = api.PyFrame_Type_ptr;
    }
    PyObject* header[8] = {};  // more than any build's
    PyObject* trace = nullptr;
    void* stacktop = nullptr;
    int32_t iblock = 0;
    int8_t state = 0;
    PyObject* object() { return reinterpret_cast<PyObject*>(this); }
};

int set_attr_raises(PyObject*, PyObject*, PyObject*)
{
    api.PyErr_SetString(api.PyExc_ValueError, "refused");
    return -1;
}

PyObject* get_attr_raises(PyObject*, PyObject*)
{
    api.PyErr_SetString(api.PyExc_ValueError, "refused");
    return nullptr;
}

PyCodeObject* gStandInCode;

PyCodeObject* give_stand_in_code(PyFrameObject*)
{
    return reinterpret_cast<PyCodeObject*>(XPy_NewRef(reinterpret_cast<PyObject*>(gStandInCode)));
}

class DbgcommonFrames : public tHostedTest
{
  protected:
    void SetUp() override
    {
        tHostedTest::SetUp();
        run("exec_as('frames.py', 'def inner(a):\\n  b = a\\n  return sys._getframe()\\n'\n"
            "        'def outer():\\n  global caller\\n  caller = sys._getframe()\\n  return inner(3)\\n')\n"
            "frame = outer()\n");
        fFrame = var("frame");
    }

    PyObject* fFrame = nullptr;
};

// ---- Links and facts ----

TEST_F(DbgcommonFrames, FrameTestLooksAtTheType)
{
    EXPECT_EQ(is_frame_object(fFrame), 1);
    EXPECT_EQ(is_frame_object(api.Py_None), 0);
    EXPECT_EQ(is_frame_object(nullptr), 0);
}

TEST_F(DbgcommonFrames, BackOfAFrameIsItsCaller)
{
    native_hook() = [&](PyObject* frame) {
        XPyOwned back(get_frame_back(frame));
        EXPECT_EQ(back.borrow(), var("here"));
        expect_balanced({frame, var("here")}, [&] { XPyOwned again(get_frame_back(frame)); });
    };
    run("def f(): native(sys._getframe())\ndef g():\n    global here\n    here = sys._getframe()\n    f()\ng()\n");
}

TEST_F(DbgcommonFrames, BackOfTheOutermostFrameIsNull)
{
    run("outermost = sys._getframe()\nwhile outermost.f_back: outermost = outermost.f_back");
    EXPECT_EQ(get_frame_back(var("outermost")), nullptr);
    EXPECT_EQ(is_outermost_frame(var("outermost")), 1);
    int inner = -1;
    native_hook() = [&](PyObject* frame) { inner = is_outermost_frame(frame); };
    run("def f(): native(sys._getframe())\nf()\n");
    EXPECT_EQ(inner, 0);
}

TEST_F(DbgcommonFrames, BackOfAnotherObjectIsItsAttribute)
{
    run("target = Plain()\nlike = Plain()\nlike.f_back = target\nlast = Plain()\nlast.f_back = None");
    XPyOwned back(get_frame_back(var("like")));
    EXPECT_EQ(back.borrow(), var("target"));
    EXPECT_EQ(is_outermost_frame(var("like")), 0);
    EXPECT_EQ(get_frame_back(var("last")), nullptr);
    EXPECT_EQ(is_outermost_frame(var("last")), 1);
    expect_balanced({var("target"), var("like"), var("last"), api.Py_None}, [&] {
        XPyOwned again(get_frame_back(var("like")));
        get_frame_back(var("last"));
        is_outermost_frame(var("like"));
    });
}

TEST_F(DbgcommonFrames, FailuresOfBackAreCleared)
{
    run("bare = Plain()");
    EXPECT_EQ(get_frame_back(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    tSwapped<decltype(api.PyFrame_GetBack)> raising(api.PyFrame_GetBack, [](PyFrameObject*) -> PyFrameObject* {
        api.PyErr_SetString(api.PyExc_RuntimeError, "refused");
        return nullptr;
    });
    EXPECT_EQ(get_frame_back(fFrame), nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(DbgcommonFrames, LineAndCodeAreThoseOfTheFrame)
{
    EXPECT_EQ(get_frame_lineno(fFrame), 3);
    EXPECT_EQ(get_frame_lineno(var("caller")), 7);
    XPyOwned code(get_frame_code(fFrame));
    EXPECT_EQ(code.borrow(), XPyOwned(eval("inner.__code__")).borrow());
    expect_balanced({fFrame, code.borrow()}, [&] { XPyOwned again(get_frame_code(fFrame)); });
}

TEST_F(DbgcommonFrames, GlobalsAndBuiltinsAreThoseOfTheFrame)
{
    XPyOwned globals(get_frame_globals(fFrame));
    EXPECT_EQ(globals.borrow(), fGlobals);
    XPyOwned builtins(get_frame_builtins(fFrame));
    EXPECT_EQ(builtins.borrow(), XPyOwned(eval("frame.f_builtins")).borrow());
    expect_balanced({fGlobals, builtins.borrow()}, [&] {
        XPyOwned again(get_frame_globals(fFrame));
        XPyOwned again_builtins(get_frame_builtins(fFrame));
    });
}

TEST_F(DbgcommonFrames, LocalsOfAFrameHoldItsVariables)
{
    XPyOwned kept(eval("frame.f_locals"));  // older interpreters fill the frame's dictionary only now
    XPyOwned locals(get_frame_locals(fFrame));
    ASSERT_TRUE(locals);
    set_var("found", locals.borrow());
    EXPECT_EQ(eval_text("sorted(dict(found).items())"), "[('a', 3), ('b', 3)]");
    expect_balanced({fFrame}, [&] { XPyOwned again(get_frame_locals(fFrame)); });
}

TEST_F(DbgcommonFrames, GlobalsAndLocalsOfAnotherObjectAreItsAttributes)
{
    run("like = Plain()\nlike.f_globals = g = Plain()\nlike.f_locals = l = Plain()\nbare = Plain()");
    EXPECT_EQ(XPyOwned(get_frame_globals(var("like"))).borrow(), var("g"));
    EXPECT_EQ(XPyOwned(get_frame_locals(var("like"))).borrow(), var("l"));
    EXPECT_EQ(get_frame_globals(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(get_frame_locals(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    expect_balanced({var("g"), var("l")}, [&] {
        XPyOwned globals(get_frame_globals(var("like")));
        XPyOwned locals(get_frame_locals(var("like")));
    });
}

TEST_F(DbgcommonFrames, GeneratorOfAFrameIsKnownFrom311On)
{
    run("def gen(): yield 1\ng = gen()\nnext(g)\ngframe = g.gi_frame");
    XPyOwned generator(get_frame_generator(var("gframe")));
    EXPECT_EQ(generator.borrow(), since_python3(11) ? var("g") : nullptr);
    XPyOwned none(get_frame_generator(fFrame));
    EXPECT_EQ(none.borrow(), since_python3(14) ? api.Py_None : nullptr);
}

TEST_F(DbgcommonFrames, BlockDepthIsAFieldUpTo310)
{
    run("def gen():\n    yield 0\n    try:\n        yield 1\n    finally:\n        pass\n"
        "g = gen()\nnext(g)\ngframe = g.gi_frame");
    EXPECT_EQ(get_frame_iblock(var("gframe")), since_python3(11) ? -1 : 0);
    run("next(g)");
    EXPECT_EQ(get_frame_iblock(var("gframe")), since_python3(11) ? -1 : 1);
    tFakeFrame fake;
    fake.iblock = -70000;
    tSwapped<Py_ssize_t> offset(api.frame_offsets.iblock, offsetof(tFakeFrame, iblock));
    EXPECT_EQ(get_frame_iblock(fake.object()), -70000);
}

// ---- The trace function ----

TEST_F(DbgcommonFrames, TraceFunctionIsSetReplacedAndRemoved)
{
    for (bool by_attribute : {false, true}) {
        // with the offset unknown every interpreter goes through the attribute
        tSwapped<Py_ssize_t> offset(api.frame_offsets.trace, by_attribute ? -1 : api.frame_offsets.trace);
        run("def first(): pass\ndef second(): pass");
        Py_ssize_t before = count_of(var("first"));
        EXPECT_EQ(borrow_frame_trace(fFrame), nullptr);
        set_frame_trace(fFrame, var("first"));
        EXPECT_EQ(borrow_frame_trace(fFrame), var("first"));
        EXPECT_EQ(eval_text("frame.f_trace is first"), "True");
        EXPECT_EQ(count_of(var("first")), before + 1);
        set_frame_trace(fFrame, var("second"));
        EXPECT_EQ(borrow_frame_trace(fFrame), var("second"));
        EXPECT_EQ(count_of(var("first")), before);
        set_frame_trace(fFrame, nullptr);
        EXPECT_EQ(borrow_frame_trace(fFrame), nullptr);
        EXPECT_EQ(eval_text("frame.f_trace"), "None");
        EXPECT_EQ(count_of(var("second")), before);
        expect_balanced({var("first"), var("second"), fFrame}, [&] {
            set_frame_trace(fFrame, var("first"));
            set_frame_trace(fFrame, var("second"));
            set_frame_trace(fFrame, nullptr);
        });
    }
}

TEST_F(DbgcommonFrames, TraceFieldIsClearedBeforeTheOldFunctionIsReleased)
{
    tFakeFrame fake;
    tSwapped<Py_ssize_t> offset(api.frame_offsets.trace, offsetof(tFakeFrame, trace));
    run("class Dying(object):\n    def __del__(self): native(None)\nobj = Plain()");
    fake.trace = eval("Dying()");
    PyObject* seen = fFrame;
    native_hook() = [&](PyObject*) { seen = fake.trace; };
    Py_ssize_t before = count_of(var("obj"));
    set_frame_trace(fake.object(), var("obj"));
    EXPECT_EQ(seen, nullptr);
    EXPECT_EQ(fake.trace, var("obj"));
    EXPECT_EQ(borrow_frame_trace(fake.object()), var("obj"));
    EXPECT_EQ(count_of(var("obj")), before + 1);
    set_frame_trace(fake.object(), nullptr);
    EXPECT_EQ(fake.trace, nullptr);
    EXPECT_EQ(borrow_frame_trace(fake.object()), nullptr);
}

TEST_F(DbgcommonFrames, RemovedTraceFunctionIsTheAttributeNone)
{
    tSwapped<Py_ssize_t> offset(api.frame_offsets.trace, -1);
    run("like = Plain()\nlike.f_trace = 5");
    set_frame_trace(var("like"), nullptr);
    EXPECT_EQ(eval_text("like.__dict__"), "{'f_trace': None}");
}

TEST_F(DbgcommonFrames, FailureToSetTheTraceFunctionIsLoggedAndCleared)
{
    tSwapped<Py_ssize_t> offset(api.frame_offsets.trace, -1);
    tSwapped<decltype(api.PyObject_SetAttr)> raising(api.PyObject_SetAttr, set_attr_raises);
    set_frame_trace(fFrame, api.Py_None);
    EXPECT_EQ(take_exception(), "");
    open_log();
    set_frame_trace(fFrame, nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "Exception raised when setting f_trace on frameValueError: refused\n");
}

TEST_F(DbgcommonFrames, TraceFunctionOfAnotherObjectIsItsAttribute)
{
    run("def tracer(): pass\n"
        "like = Plain()\nlike.f_trace = tracer\nunset = Plain()\nunset.f_trace = None\nbare = Plain()");
    EXPECT_EQ(borrow_frame_trace(var("like")), var("tracer"));
    EXPECT_EQ(borrow_frame_trace(var("unset")), nullptr);
    expect_balanced({var("tracer"), api.Py_None}, [&] {
        borrow_frame_trace(var("like"));
        borrow_frame_trace(var("unset"));
    });
    open_log();
    EXPECT_EQ(borrow_frame_trace(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "borrow_attrib failed\nAttributeError: 'Plain' object has no attribute 'f_trace'\n");
}

TEST_F(DbgcommonFrames, TraceFunctionThatOnlyWeHoldIsNotHandedOut)
{
    if (!sees_only_references())
        GTEST_SKIP() << kNoCount;
    run("class Fresh(object):\n    @property\n    def f_trace(self): return Plain()\nfresh = Fresh()\n");
    expect_balanced({api.Py_None}, [&] { borrow_frame_trace(var("fresh")); });
    open_log();
    EXPECT_EQ(borrow_frame_trace(var("fresh")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "borrow_attrib failed\n");
}

TEST_F(DbgcommonFrames, TraceLinesAreSwitchedFrom37On)
{
    EXPECT_EQ(is_frame_trace_lines_supported(), since_python3(7) ? 1 : 0);
    EXPECT_EQ(set_frame_trace_lines(fFrame, 0), 0);
    EXPECT_EQ(eval_text("getattr(frame, 'f_trace_lines', 'no such attribute')"),
              since_python3(7) ? "False" : "no such attribute");
    EXPECT_EQ(set_frame_trace_lines(fFrame, 7), 0);
    EXPECT_EQ(eval_text("getattr(frame, 'f_trace_lines', 'no such attribute')"),
              since_python3(7) ? "True" : "no such attribute");
    run("like = Plain()");
    EXPECT_EQ(set_frame_trace_lines(var("like"), 1), 0);
    EXPECT_EQ(eval_text("like.__dict__"), since_python3(7) ? "{'f_trace_lines': True}" : "{}");
    tSwapped<decltype(api.PyObject_SetAttr)> raising(api.PyObject_SetAttr, set_attr_raises);
    EXPECT_EQ(set_frame_trace_lines(fFrame, 1), since_python3(7) ? -1 : 0);
    EXPECT_EQ(take_exception(), "");
    open_log();
    EXPECT_EQ(set_frame_trace_lines(fFrame, 1), since_python3(7) ? -1 : 0);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), since_python3(7) ? "Exception in set_frame_trace_lines()\nValueError: refused\n" : "");
}

// ---- The frame's code ----

TEST_F(DbgcommonFrames, FileAndNameAreThoseOfTheCode)
{
    XPyOwned filename(get_frame_filename(fFrame));
    XPyOwned name(get_frame_code_name(fFrame));
    EXPECT_EQ(text_of(filename.borrow()), "frames.py");
    EXPECT_EQ(text_of(name.borrow()), "inner");
    expect_balanced({fFrame, filename.borrow(), name.borrow()}, [&] {
        XPyOwned again(get_frame_filename(fFrame));
        XPyOwned again_name(get_frame_code_name(fFrame));
    });
}

TEST_F(DbgcommonFrames, KeepsTheDifferentAnswersForAFrameWithoutCode)
{
    gStandInCode = nullptr;
    tSwapped<decltype(api.PyFrame_GetCode)> stand_in(api.PyFrame_GetCode, give_stand_in_code);
    EXPECT_EQ(get_frame_filename(fFrame), nullptr);
    XPyOwned name(get_frame_code_name(fFrame));
    EXPECT_EQ(name.borrow(), api.Py_None);
}

TEST_F(DbgcommonFrames, CodeWithoutNamesGivesNullAndNoException)
{
    run("bare = Plain()");
    gStandInCode = reinterpret_cast<PyCodeObject*>(var("bare"));
    tSwapped<decltype(api.PyFrame_GetCode)> stand_in(api.PyFrame_GetCode, give_stand_in_code);
    EXPECT_EQ(get_frame_filename(fFrame), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(get_frame_code_name(fFrame), nullptr);
    EXPECT_EQ(take_exception(), "");
    expect_balanced({var("bare")}, [&] {
        get_frame_filename(fFrame);
        get_frame_code_name(fFrame);
    });
}

// ---- The stack ----

TEST_F(DbgcommonFrames, StackDepthCountsTheFrames)
{
    std::vector<int> depths, expected;
    native_hook() = [&](PyObject* depth) {
        expected.push_back(static_cast<int>(py_int_as_ssize_t(depth)));
        depths.push_back(get_stack_depth(tstate()));
        EXPECT_EQ(get_stack_depth(nullptr), depths.back());
    };
    run("def depth():\n    frame, n = sys._getframe(), 0\n    while frame: frame, n = frame.f_back, n + 1\n    "
        "return n\n"
        "def down(n):\n    native(depth() - 1)\n    if n: down(n - 1)\n"
        "down(5)");
    EXPECT_EQ(depths.size(), 6u);
    EXPECT_EQ(depths, expected);
    native_hook() = [&](PyObject* frame) { expect_balanced({frame}, [&] { get_stack_depth(nullptr); }); };
    run("native(sys._getframe())");
}

// ---- Suspended generators ----

TEST_F(DbgcommonFrames, OrdinaryAndOtherObjectsAreNoSuspendedGenerators)
{
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
    EXPECT_EQ(get_frame_suspended_generator(api.Py_None), 0);
    run("def gen(): yield 1\ng = gen()\nnext(g)");
    EXPECT_EQ(get_frame_suspended_generator(var("g")), 0);
}

TEST_F(DbgcommonFrames, SuspendedGeneratorFrameIsRecognised)
{
    int running = -1;
    native_hook() = [&](PyObject* frame) { running = get_frame_suspended_generator(frame); };
    run("def gen():\n    yield 1\n    native(sys._getframe())\n    yield 2\n"
        "g = gen()\ngframe = g.gi_frame\nfresh = gen()\nfresh_frame = fresh.gi_frame");
    // before its first step the old stack pointer is set already
    EXPECT_EQ(get_frame_suspended_generator(var("fresh_frame")), since_python3(10) ? 0 : 1);
    run("next(g)");
    EXPECT_EQ(get_frame_suspended_generator(var("gframe")), 1);
    run("next(g)");
    EXPECT_EQ(running, api.major_version == 3 && api.minor_version == 10 ? 1 : 0);  // Kept: 3.10 counts running ones
    EXPECT_EQ(get_frame_suspended_generator(var("gframe")), 1);
    expect_balanced({var("g"), var("gframe")}, [&] { get_frame_suspended_generator(var("gframe")); });
    run("list(g)");
    EXPECT_EQ(get_frame_suspended_generator(var("gframe")), 0);
}

TEST_F(DbgcommonFrames, StackPointerDecidesUpTo39)
{
    open_log();
    tFakeFrame fake;
    {
        tSwapped<int> pretended(api.minor_version, api.major_version < 3 ? 7 : 9);
        tSwapped<Py_ssize_t> offset(api.frame_offsets.stacktop, offsetof(tFakeFrame, stacktop));
        EXPECT_EQ(get_frame_suspended_generator(fake.object()), 0);
        fake.stacktop = reinterpret_cast<void*>(0x1a2b3c);
        EXPECT_EQ(get_frame_suspended_generator(fake.object()), 1);
        tSwapped<Py_ssize_t> unknown(api.frame_offsets.stacktop, -1);
        EXPECT_EQ(get_frame_suspended_generator(fake.object()), 0);
    }
    EXPECT_EQ(logged(), "STACKTOP OF FRAME: 0\nSTACKTOP OF FRAME: 1a2b3c\n");
}

TEST_F(DbgcommonFrames, KeepsMinusOneAndZeroAsTheSuspendedStatesOf310)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "the rule of 3.10 cannot be reached with Python 2's text functions";
    tFakeFrame fake;
    tSwapped<int> pretended(api.minor_version, 10);
    {
        tSwapped<Py_ssize_t> offset(api.frame_offsets.state, offsetof(tFakeFrame, state));
        for (int state = -128; state < 128; state++) {
            fake.state = static_cast<int8_t>(state);
            EXPECT_EQ(get_frame_suspended_generator(fake.object()), state == -1 || state == 0) << state;
        }
        open_log();
        fake.state = -2;
        get_frame_suspended_generator(fake.object());
        fake.state = 1;
        get_frame_suspended_generator(fake.object());
        EXPECT_EQ(logged(), "STATE OF FRAME: -2\nSTATE OF FRAME: 1\n");
    }
    tSwapped<Py_ssize_t> unknown(api.frame_offsets.state, -1);
    fake.state = -1;
    EXPECT_EQ(get_frame_suspended_generator(fake.object()), 0);
    EXPECT_EQ(logged(), "");
}

PyObject* gStandInGenerator;

TEST_F(DbgcommonFrames, GeneratorDecidesFrom311On)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "the rule of 3.11 cannot be reached with Python 2's text functions";
    // stands in for the generator's own attribute where the running interpreter lacks it
    run("state = True\nclass Gen(object):\n    @property\n    def gi_suspended(self): return state\ng = Gen()");
    PyTypeObject* type = XPy_BorrowType(var("g"));
    tSwapped<PyTypeObject*> pretended_type(api.PyGen_Type_ptr, type);
    tSwapped<int> pretended(api.minor_version, 11);
    tSwapped<decltype(api.PyFrame_GetGenerator)> stand_in(
        api.PyFrame_GetGenerator, [](PyFrameObject*) { return XPy_NewRef(gStandInGenerator); });
    gStandInGenerator = nullptr;
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
    gStandInGenerator = api.Py_None;
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
    gStandInGenerator = var("g");
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 1);
    run("state = False");
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
    expect_balanced({var("g")}, [&] { get_frame_suspended_generator(fFrame); });
}

TEST_F(DbgcommonFrames, FailedGeneratorTestIsLoggedAndCleared)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "the rule of 3.11 cannot be reached with Python 2's text functions";
    run("def gen(): yield 1\ng = gen()");
    gStandInGenerator = var("g");
    Py_ssize_t before = count_of(gStandInGenerator);
    open_log();
    tSwapped<int> pretended(api.minor_version, 11);
    {
        tSwapped<decltype(api.PyFrame_GetGenerator)> stand_in(
            api.PyFrame_GetGenerator, [](PyFrameObject*) { return XPy_NewRef(gStandInGenerator); });
        tSwapped<decltype(api.PyObject_GetAttr)> raising(api.PyObject_GetAttr, get_attr_raises);
        EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
        EXPECT_EQ(take_exception(), "");
        EXPECT_EQ(logged(), "Failure in get_frame_suspended_generator()\nValueError: refused\n");
        EXPECT_EQ(count_of(gStandInGenerator), before);
    }
    tSwapped<decltype(api.PyFrame_GetGenerator)> raising(api.PyFrame_GetGenerator, [](PyFrameObject*) -> PyObject* {
        api.PyErr_SetString(api.PyExc_ValueError, "no generator");
        return nullptr;
    });
    EXPECT_EQ(get_frame_suspended_generator(fFrame), 0);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "Failure in get_frame_suspended_generator()\nValueError: no generator\n");
}

// ---- Tracebacks ----

TEST_F(DbgcommonFrames, TracebackLinksAreReadThroughItsAttributes)
{
    run("def fail(): raise ValueError\n"
        "try: fail()\nexcept ValueError: tb = sys.exc_info()[2]\n"
        "outer_frame, next_tb, inner_frame = tb.tb_frame, tb.tb_next, tb.tb_next.tb_frame");
    EXPECT_EQ(XPyOwned(get_traceback_frame(var("tb"))).borrow(), var("outer_frame"));
    EXPECT_EQ(borrow_traceback_frame(var("tb")), var("outer_frame"));
    EXPECT_EQ(borrow_traceback_next(var("tb")), var("next_tb"));
    EXPECT_EQ(borrow_traceback_frame(var("next_tb")), var("inner_frame"));
    EXPECT_EQ(borrow_traceback_next(var("next_tb")), api.Py_None);  // the attribute as it is
    expect_balanced({var("outer_frame"), var("next_tb"), var("tb")}, [&] {
        XPyOwned frame(get_traceback_frame(var("tb")));
        borrow_traceback_frame(var("tb"));
        borrow_traceback_next(var("tb"));
    });
    run("del tb, next_tb, outer_frame, inner_frame");
}

TEST_F(DbgcommonFrames, TracebackWithoutAFrameGivesNull)
{
    run("like = Plain()\nlike.tb_frame = obj = Plain()\nbare = Plain()");
    Py_ssize_t before = count_of(var("obj"));
    EXPECT_EQ(get_traceback_frame(var("like")), nullptr);
    EXPECT_EQ(count_of(var("obj")), before);
    EXPECT_EQ(borrow_traceback_frame(var("like")), var("obj"));
    EXPECT_EQ(get_traceback_frame(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    open_log();
    EXPECT_EQ(borrow_traceback_next(var("bare")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "borrow_attrib failed\nAttributeError: 'Plain' object has no attribute 'tb_next'\n");
}

}  // namespace
