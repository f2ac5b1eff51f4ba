// Accessors of attributes, generators, code objects, modules, texts and calls.

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include "failing_malloc.h"
#include "log_test_support.h"

namespace {

PyObject* get_attr_raises(PyObject*, PyObject*)
{
    api.PyErr_SetString(api.PyExc_ValueError, "refused");
    return nullptr;
}

PyObject* construct_raises(const char*)
{
    api.PyErr_SetString(api.PyExc_ValueError, "no text");
    return nullptr;
}

class DbgcommonObjects : public tHostedTest
{
  protected:
    // The running generation's text constructor.
    static auto& constructor() { return api.major_version < 3 ? api.PyString_FromString : api.PyUnicode_FromString; }
};

// ---- Attributes ----

TEST_F(DbgcommonObjects, CachedNameIsMadeOnceAndKept)
{
    tNameCache cache = {"some_name", nullptr};
    PyObject* name = borrow_cached_name(&cache);
    EXPECT_EQ(text_of(name), "some_name");
    EXPECT_EQ(borrow_cached_name(&cache), name);
    EXPECT_EQ(cache.name, name);
    EXPECT_EQ(count_of(name), 1);
    XPy_ClearField(&cache.name);
    tSwapped<PyObject* (*)(const char*)> failing(constructor(), construct_raises);
    EXPECT_EQ(borrow_cached_name(&cache), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: no text");
}

TEST_F(DbgcommonObjects, BorrowedAttributeBelongsToItsOwner)
{
    tNameCache cache = {"field", nullptr};
    run("obj = Plain()\nobj.field = value = Plain()");
    Py_ssize_t before = count_of(var("value"));
    EXPECT_EQ(borrow_attrib(var("obj"), &cache), var("value"));
    EXPECT_EQ(count_of(var("value")), before);
    expect_balanced({var("value"), var("obj"), cache.name}, [&] { borrow_attrib(var("obj"), &cache); });
    run("obj.field = None");
    EXPECT_EQ(borrow_attrib(var("obj"), &cache), api.Py_None);
    XPy_ClearField(&cache.name);
}

TEST_F(DbgcommonObjects, ValueThatOnlyWeHoldIsAFailure)
{
    if (!sees_only_references())
        GTEST_SKIP() << kNoCount;
    tNameCache cache = {"field", nullptr};
    run("class Fresh(object):\n    @property\n    def field(self): return Dying()\n"
        "class Dying(object):\n    def __del__(self): dead.append(1)\n"
        "fresh, dead = Fresh(), []");
    EXPECT_EQ(borrow_attrib(var("fresh"), &cache), nullptr);
    EXPECT_EQ(eval_int("len(dead)"), 1);
    open_log();
    EXPECT_EQ(borrow_attrib(var("fresh"), &cache), nullptr);
    EXPECT_EQ(eval_int("len(dead)"), 2);
    EXPECT_EQ(logged(), "borrow_attrib failed\n");
    set_dprintf_mask(kLogCore);
    EXPECT_EQ(borrow_attrib(var("fresh"), &cache), nullptr);
    EXPECT_EQ(logged(), "");
    XPy_ClearField(&cache.name);
}

TEST_F(DbgcommonObjects, FailedReadTakesTheSamePath)
{
    tNameCache cache = {"field", nullptr};
    tSwapped<decltype(api.PyObject_GetAttr)> raising(api.PyObject_GetAttr, get_attr_raises);
    EXPECT_EQ(borrow_attrib(api.Py_None, &cache), nullptr);
    EXPECT_EQ(take_exception(), "");
    open_log();
    EXPECT_EQ(borrow_attrib(api.Py_None, &cache), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "borrow_attrib failed\nValueError: refused\n");
    XPy_ClearField(&cache.name);
}

TEST_F(DbgcommonObjects, TruthOfObjects)
{
    run("class Bad(object):\n    def __bool__(self): raise ValueError('no truth')\n    __nonzero__ = __bool__\n"
        "bad, full, empty = Bad(), [1], []");
    EXPECT_EQ(get_istrue(api.Py_True), 1);
    EXPECT_EQ(get_istrue(api.Py_False), 0);
    EXPECT_EQ(get_istrue(api.Py_None), 0);
    EXPECT_EQ(get_istrue(var("full")), 1);
    EXPECT_EQ(get_istrue(var("empty")), 0);
    EXPECT_EQ(get_istrue(var("bad")), -1);
    EXPECT_EQ(take_exception(), "ValueError: no truth");
}

TEST_F(DbgcommonObjects, BoolAttributeAnswersItsTruth)
{
    PyObject* cache = nullptr;
    run("class Bad(object):\n    def __bool__(self): raise ValueError('no truth')\n    __nonzero__ = __bool__\n"
        "obj = Plain()");
    struct {
        const char* value;
        int truth;
    } rows[] = {{"True", 1}, {"False", 0}, {"None", 0}, {"5", 1}, {"0", 0}, {"[]", 0}, {"'x'", 1}};
    for (const auto& row : rows) {
        run(std::string("obj.flag = ") + row.value);
        EXPECT_EQ(get_bool_attrib(var("obj"), "flag", &cache), row.truth) << row.value;
    }
    EXPECT_EQ(text_of(cache), "flag");
    run("obj.flag = bad = Bad()");
    EXPECT_EQ(get_bool_attrib(var("obj"), "flag", &cache), -1);
    EXPECT_EQ(take_exception(), "ValueError: no truth");
    run("del obj.flag");
    EXPECT_EQ(get_bool_attrib(var("obj"), "flag", &cache), -1);
    EXPECT_EQ(take_exception(), "AttributeError: 'Plain' object has no attribute 'flag'");
    run("obj.flag = kept = [1]");
    expect_balanced({var("kept"), var("bad"), cache}, [&] {
        run("obj.flag = kept");
        get_bool_attrib(var("obj"), "flag", &cache);
        run("obj.flag = bad");
        get_bool_attrib(var("obj"), "flag", &cache);
        api.PyErr_Clear();
        run("obj.flag = True");
        get_bool_attrib(var("obj"), "flag", &cache);
    });
    XPy_ClearField(&cache);
    tSwapped<PyObject* (*)(const char*)> failing(constructor(), construct_raises);
    EXPECT_EQ(get_bool_attrib(var("obj"), "flag", &cache), -1);
    EXPECT_EQ(take_exception(), "ValueError: no text");
    EXPECT_EQ(cache, nullptr);
}

// ---- Generators and coroutines ----

TEST_F(DbgcommonObjects, SuspendedGeneratorIsAskedThroughItsAttribute)
{
    run("def gen():\n    yield 1\n    native(g)\n    yield 2\ng = gen()");
    if (!since_python3(11)) {  // no such attribute there
        EXPECT_EQ(get_generator_suspended(var("g")), -1);
        EXPECT_EQ(take_exception().substr(0, 16), "AttributeError: ");
        return;
    }
    int running = -5;
    native_hook() = [&](PyObject* g) { running = get_generator_suspended(g); };
    EXPECT_EQ(get_generator_suspended(var("g")), 0);
    run("next(g)");
    EXPECT_EQ(get_generator_suspended(var("g")), 1);
    run("next(g)");
    EXPECT_EQ(running, 0);
    expect_balanced({var("g")}, [&] { get_generator_suspended(var("g")); });
    run("list(g)");
    EXPECT_EQ(get_generator_suspended(var("g")), 0);
}

TEST_F(DbgcommonObjects, SuspendedCoroutineIsAskedThroughItsAttribute)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 has no coroutines";
    run("exec('''import types\n@types.coroutine\ndef pause(): yield\nasync def coro(): await pause()\n''', "
        "globals())\n"
        "c = coro()");
    if (since_python3(11)) {
        EXPECT_EQ(get_generator_suspended(var("c")), 0);
        run("c.send(None)");
        EXPECT_EQ(get_generator_suspended(var("c")), 1);
        XPyOwned frame(eval("c.cr_frame"));
        EXPECT_EQ(get_frame_suspended_generator(frame.borrow()), 1);
    } else {
        run("c.send(None)");
        EXPECT_EQ(get_generator_suspended(var("c")), -1);
        EXPECT_EQ(take_exception(), "AttributeError: 'coroutine' object has no attribute 'cr_suspended'");
    }
    run("c.close()");
}

TEST_F(DbgcommonObjects, OtherObjectsAreNeverSuspended)
{
    run("like = Plain()\nlike.gi_suspended = like.cr_suspended = True");
    EXPECT_EQ(get_generator_suspended(var("like")), 0);
    EXPECT_EQ(get_generator_suspended(api.Py_None), 0);
    if (since_python3(6)) {
        run("exec('async def agen(): yield 1', globals())\na = agen()");
        EXPECT_EQ(get_generator_suspended(var("a")), 0);
    }
}

TEST_F(DbgcommonObjects, TypesDecideAndMissingTypesSkipTheirTest)
{
    run("class Gen(object):\n    gi_suspended, cr_suspended = True, False\n"
        "class Coro(object):\n    gi_suspended, cr_suspended = False, True\n"
        "class Sub(Gen): pass\ng, c, s = Gen(), Coro(), Sub()");
    tSwapped<PyTypeObject*> gen(api.PyGen_Type_ptr, XPy_BorrowType(var("g")));
    tSwapped<PyTypeObject*> coro(api.PyCoro_Type_ptr, XPy_BorrowType(var("c")));
    EXPECT_EQ(get_generator_suspended(var("g")), 1);
    EXPECT_EQ(get_generator_suspended(var("s")), 1);
    EXPECT_EQ(get_generator_suspended(var("c")), 1);
    {
        tSwapped<PyTypeObject*> no_gen(api.PyGen_Type_ptr, nullptr);
        EXPECT_EQ(get_generator_suspended(var("g")), 0);
        EXPECT_EQ(get_generator_suspended(var("c")), 1);
    }
    tSwapped<PyTypeObject*> no_coro(api.PyCoro_Type_ptr, nullptr);
    EXPECT_EQ(get_generator_suspended(var("g")), 1);
    EXPECT_EQ(get_generator_suspended(var("c")), 0);
}

// ---- Code objects ----

TEST_F(DbgcommonObjects, FactsOfACodeObject)
{
    run("exec_as('code.py', '\\n\\n\\ndef run(): pass\\n')\ncode = run.__code__");
    PyObject* code = var("code");
    EXPECT_EQ(text_of(borrow_code_name(code)), "run");
    EXPECT_EQ(borrow_code_name(code), XPyOwned(eval("code.co_name")).borrow());
    EXPECT_EQ(text_of(borrow_code_filename(code)), "code.py");
    EXPECT_EQ(borrow_code_filename(code), XPyOwned(eval("code.co_filename")).borrow());
    XPyOwned name(get_code_name(code));
    XPyOwned filename(get_code_filename(code));
    EXPECT_EQ(name.borrow(), borrow_code_name(code));
    EXPECT_EQ(filename.borrow(), borrow_code_filename(code));
    EXPECT_EQ(get_code_firstlineno(code), 4);
    expect_balanced({code, name.borrow(), filename.borrow()}, [&] {
        borrow_code_name(code);
        borrow_code_filename(code);
        XPyOwned again(get_code_name(code));
        XPyOwned again_filename(get_code_filename(code));
        get_code_firstlineno(code);
    });
}

TEST_F(DbgcommonObjects, NameThatNobodyElseHoldsIsNotHandedOut)
{
    if (!sees_only_references())
        GTEST_SKIP() << kNoCount;
    run("class Code(object):\n"
        "    @property\n    def co_name(self): return ''.join(['fresh', 'name'])\n"
        "    @property\n    def co_filename(self): return ''.join(['fresh', 'file'])\n"
        "code = Code()");
    open_log();
    EXPECT_EQ(borrow_code_name(var("code")), nullptr);
    EXPECT_EQ(logged(), "borrow_attrib failed\n");
    EXPECT_EQ(borrow_code_filename(var("code")), nullptr);
    EXPECT_EQ(logged(), "borrow_attrib failed\n");
    EXPECT_EQ(get_code_name(var("code")), nullptr);
    EXPECT_EQ(logged(), "borrow_attrib failed\n");
    XPyOwned filename(get_code_filename(var("code")));  // a new reference may be handed out
    EXPECT_EQ(text_of(filename.borrow()), "freshfile");
}

TEST_F(DbgcommonObjects, CodeWithoutItsAttributesGivesNull)
{
    open_log(kLogInternalFailures);
    tSwapped<decltype(api.PyObject_GetAttr)> raising(api.PyObject_GetAttr, get_attr_raises);
    EXPECT_EQ(borrow_code_name(api.Py_None), nullptr);
    EXPECT_EQ(borrow_code_filename(api.Py_None), nullptr);
    EXPECT_EQ(get_code_name(api.Py_None), nullptr);
    EXPECT_EQ(get_code_filename(api.Py_None), nullptr);
    EXPECT_EQ(take_exception(), "");
    logged();
    EXPECT_EQ(get_code_firstlineno(api.Py_None), -1);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "get_code_firstlinenoValueError: refused\n");
}

TEST_F(DbgcommonObjects, FirstLineOfMinusOneIsNoFailure)
{
    run("code = Plain()\ncode.co_firstlineno = -1\nbad = Plain()\nbad.co_firstlineno = 'x'");
    open_log();
    EXPECT_EQ(get_code_firstlineno(var("code")), -1);
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(get_code_firstlineno(var("bad")), -1);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged().substr(0, 31), "get_code_firstlinenoTypeError: ");
    run("huge = Plain()\nhuge.co_firstlineno = value = 10 ** 30");
    EXPECT_EQ(get_code_firstlineno(var("huge")), -1);
    EXPECT_EQ(take_exception(), "");
    logged();
    expect_balanced({var("value")}, [&] {
        get_code_firstlineno(var("huge"));
        run("log.take()");
    });
}

// ---- Numbers ----

TEST_F(DbgcommonObjects, NumbersGoToPythonAndBack)
{
    for (Py_ssize_t value : {Py_ssize_t(0), Py_ssize_t(-1), INTPTR_MAX, INTPTR_MIN}) {
        XPyOwned number(py_int_from_ssize_t(value));
        EXPECT_EQ(py_int_as_ssize_t(number.borrow()), value);
    }
    XPyOwned small(py_int_from_ssize_t(7));
    set_var("small", small.borrow());
    EXPECT_EQ(eval_text("type(small) is int"), "True");
    EXPECT_EQ(py_int_as_ssize_t(XPyOwned(eval("'x'")).borrow()), -1);
    EXPECT_EQ(take_exception().substr(0, 11), "TypeError: ");
}

// ---- Modules and functions by name ----

TEST_F(DbgcommonObjects, ImportedModuleIsTheEntryOfSysModules)
{
    XPyOwned sys(get_imported_module("sys"));
    EXPECT_EQ(sys.borrow(), var("sys"));
    run("sys.modules['odd one'] = odd = Plain()");
    EXPECT_EQ(XPyOwned(get_imported_module("odd one")).borrow(), var("odd"));
    run("del sys.modules['odd one']");
    EXPECT_EQ(get_imported_module("odd one"), nullptr);
    EXPECT_EQ(take_exception(), "KeyError: 'odd one'");
    expect_balanced({var("sys"), XPyOwned(eval("sys.modules")).borrow()}, [&] {
        XPyOwned again(get_imported_module("sys"));
        get_imported_module("odd one");
        api.PyErr_Clear();
    });
}

TEST_F(DbgcommonObjects, WithoutModulesOrNameThereIsNoImportedModule)
{
    {
        tSwapped<decltype(api.PySys_GetObject)> none(api.PySys_GetObject, [](auto) -> PyObject* { return nullptr; });
        EXPECT_EQ(get_imported_module("sys"), nullptr);
    }
    tSwapped<PyObject* (*)(const char*)> failing(constructor(), construct_raises);
    EXPECT_EQ(get_imported_module("sys"), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: no text");
}

TEST_F(DbgcommonObjects, FunctionsAreLookedUpInTheProcess)
{
    EXPECT_EQ(lookup_python_function("PyDict_New"), reinterpret_cast<void*>(api.PyDict_New));
    EXPECT_EQ(lookup_python_function("PyDict_NoSuchFunction"), nullptr);
    tSwapped<const char*> image(api.dll_ptr, "/no/such/image.so");
    EXPECT_EQ(XPy_LookupPythonFunction("PyDict_New"), nullptr);
    EXPECT_EQ(lookup_python_function("PyDict_New"), reinterpret_cast<void*>(api.PyDict_New));
}

// ---- Texts ----

TEST_F(DbgcommonObjects, TextOfAStringBelongsToIt)
{
    run("plain = 'plain'\nutext = u'text'\nwide = u'caf\\xe9'\nempty = ''");
    EXPECT_STREQ(_pystring_to_c_string(var("plain")), "plain");
    EXPECT_EQ(_pystring_to_c_string(var("plain")), _pystring_to_c_string(var("plain")));
    EXPECT_STREQ(_pystring_to_c_string(var("utext")), "text");
    EXPECT_STREQ(_pystring_to_c_string(var("empty")), "");
    if (api.major_version < 3) {
        EXPECT_EQ(_pystring_to_c_string(var("wide")), nullptr);  // no ASCII form
    } else {
        EXPECT_STREQ(_pystring_to_c_string(var("wide")), "caf\xc3\xa9");
    }
    EXPECT_EQ(take_exception(), "");
    expect_balanced({var("utext"), var("wide")}, [&] {
        _pystring_to_c_string(var("utext"));
        _pystring_to_c_string(var("wide"));
    });
}

TEST_F(DbgcommonObjects, TextWithoutUtf8FormIsLoggedInItsPrintableForm)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 asks for the bytes of a string";
    run("lone = u'a\\ud800'");
    EXPECT_EQ(_pystring_to_c_string(var("lone")), nullptr);
    EXPECT_EQ(take_exception(), "");
    open_log(kLogFilenames);
    EXPECT_EQ(_pystring_to_c_string(var("lone")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "FAILURE: Could not convert unicode to UTF-8: 'a\\ud800'");
    EXPECT_EQ(_pystring_to_c_string(api.Py_None), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "FAILURE: Could not convert unicode to UTF-8: None");
    set_dprintf_mask(kLogCore);
    EXPECT_EQ(_pystring_to_c_string(var("lone")), nullptr);
    EXPECT_EQ(logged(), "");
}

TEST_F(DbgcommonObjects, TextWhoseReprHasNoUtf8FormEither)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 asks for the bytes of a string";
    run("class Evil(str):\n    def __repr__(self): return self\nevil = Evil(u'a\\ud800')");
    open_log(kLogFilenames);
    EXPECT_EQ(_pystring_to_c_string(var("evil")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "FAILURE: Could not convert unicode to UTF-8: (NULL)");
    EXPECT_STREQ(dprint_check_pystr(var("evil")), "(NULL)");
    run("class Loud(str):\n    def __repr__(self): raise ValueError\nloud = Loud(u'a\\ud800')\nlog.take()");
    EXPECT_EQ(_pystring_to_c_string(var("loud")), nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "FAILURE: Could not convert unicode to UTF-8: (NULL)");
}

TEST_F(DbgcommonObjects, ReprOfATextWithoutUtf8FormLogsNothingNested)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 asks for the bytes of a string";
    run("class Evil(str):\n    def __repr__(self):\n        native(self)\n        return 'shown'\n"
        "evil = Evil(u'a\\ud800')");
    open_log(kLogFilenames);
    int calls = 0;
    native_hook() = [&](PyObject* self) {
        calls++;
        EXPECT_EQ(get_thread_state_tracing(tstate()), fTracing + 1);
        do_dprintf(kLogFilenames, "nested\n");
        if (calls < 10) {
            EXPECT_EQ(_pystring_to_c_string(self), nullptr);
        }
    };
    EXPECT_EQ(_pystring_to_c_string(var("evil")), nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(logged(), "FAILURE: Could not convert unicode to UTF-8: shown");
}

TEST_F(DbgcommonObjects, CopyOfATextIsTheCallers)
{
    run("text = 'copied'\nnumber = 5");
    char* copy = _pystring_to_c_string_copy(var("text"));
    EXPECT_STREQ(copy, "copied");
    EXPECT_NE(copy, _pystring_to_c_string(var("text")));
    free(copy);
    EXPECT_EQ(_pystring_to_c_string_copy(var("number")), nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(DbgcommonObjects, CopyThatCannotBeAllocatedIsLogged)
{
    run("text = 'copied'");
    open_log(kLogFilenames);
    tHeapWatch watch(1);
    char* copy = _pystring_to_c_string_copy(var("text"));
    watch.stop();
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(watch.requested(1), 7u);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(logged(), "FAILURE: Out of memory copying string: copied");
}

TEST_F(DbgcommonObjects, StringsAreEqualWhenTheirTextsAre)
{
    run("class Sub(str): pass\n"
        "a, b, u, s, other, prefix = 'abc', ''.join(['ab', 'c']), u'abc', Sub('abc'), 'abd', 'ab'\n"
        "raw, number, cut, cut2 = b'abc', 5, 'ab\\0c', 'ab\\0d'");
    EXPECT_EQ(string_objects_equal(var("a"), var("a")), 1);
    EXPECT_EQ(string_objects_equal(var("a"), var("b")), 1);
    EXPECT_EQ(string_objects_equal(var("a"), var("u")), 1);
    EXPECT_EQ(string_objects_equal(var("s"), var("u")), 1);
    EXPECT_EQ(string_objects_equal(var("a"), var("other")), 0);
    EXPECT_EQ(string_objects_equal(var("a"), var("prefix")), 0);
    EXPECT_EQ(string_objects_equal(var("cut"), var("cut2")), 1);  // C strings end at the first zero
    EXPECT_EQ(string_objects_equal(var("cut"), var("prefix")), 1);
    EXPECT_EQ(string_objects_equal(var("a"), var("raw")), api.major_version < 3 ? 1 : 0);
    open_log(kLogFilenames);
    EXPECT_EQ(string_objects_equal(var("number"), var("number")), 0);
    EXPECT_EQ(string_objects_equal(var("a"), var("number")), 0);
    EXPECT_EQ(string_objects_equal(var("number"), var("a")), 0);
    EXPECT_EQ(string_objects_equal(api.Py_None, var("a")), 0);
    EXPECT_EQ(logged(), "");  // what is no string is not asked for its text
}

TEST_F(DbgcommonObjects, StringsWithoutATextAreNotEqual)
{
    run("a = 'abc'\nbad = u'caf\\xe9' if sys.version_info[0] < 3 else u'\\ud800'");
    EXPECT_EQ(string_objects_equal(var("bad"), var("a")), 0);
    EXPECT_EQ(string_objects_equal(var("a"), var("bad")), 0);
    EXPECT_EQ(string_objects_equal(var("bad"), var("bad")), 0);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(DbgcommonObjects, ObjectsAreComparedByPython)
{
    run("class Bad(object):\n    def __eq__(self, other): raise ValueError('no order')\n    __hash__ = None\n"
        "a, b, c, bad, other = [1], [1], [2], Bad(), Bad()");
    EXPECT_EQ(pyobjects_equal(var("a"), var("b")), 1);
    EXPECT_EQ(pyobjects_equal(var("a"), var("c")), 0);
    EXPECT_EQ(pyobjects_equal(var("bad"), var("bad")), 1);
    EXPECT_EQ(pyobjects_equal(var("bad"), var("other")), -1);
    EXPECT_EQ(take_exception(), "ValueError: no order");
}

// ---- Calls ----

TEST_F(DbgcommonObjects, CallsPassTheirArgumentsInOrder)
{
    run("def echo(*args): return list(args)\na, b, c = Plain(), Plain(), Plain()");
    XPyOwned one(do_one_arg_call(var("echo"), var("a")));
    set_var("one", one.borrow());
    EXPECT_EQ(eval_text("one == [a]"), "True");
    XPyOwned two(do_two_arg_call(var("echo"), var("a"), var("b")));
    set_var("two", two.borrow());
    EXPECT_EQ(eval_text("two == [a, b]"), "True");
    XPyOwned three(do_three_arg_call(var("echo"), var("a"), var("b"), var("c")));
    set_var("three", three.borrow());
    EXPECT_EQ(eval_text("three == [a, b, c]"), "True");
    expect_balanced({var("a"), var("b"), var("c"), var("echo")}, [&] {
        XPyOwned first(do_one_arg_call(var("echo"), var("a")));
        XPyOwned second(do_two_arg_call(var("echo"), var("a"), var("b")));
        XPyOwned third(do_three_arg_call(var("echo"), var("a"), var("b"), var("c")));
    });
}

TEST_F(DbgcommonObjects, FailedCallLeavesItsExceptionPending)
{
    run("def fail(*args): raise ValueError(len(args))\na = Plain()");
    EXPECT_EQ(do_one_arg_call(var("fail"), var("a")), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: 1");
    EXPECT_EQ(do_two_arg_call(var("fail"), var("a"), var("a")), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: 2");
    EXPECT_EQ(do_three_arg_call(var("fail"), var("a"), var("a"), var("a")), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: 3");
    Py_ssize_t before = count_of(var("a"));
    tSwapped<decltype(api.PyTuple_New)> none(api.PyTuple_New, [](Py_ssize_t) -> PyObject* {
        api.PyErr_SetString(api.PyExc_MemoryError, "no tuple");
        return nullptr;
    });
    EXPECT_EQ(do_one_arg_call(var("fail"), var("a")), nullptr);
    EXPECT_EQ(do_two_arg_call(var("fail"), var("a"), var("a")), nullptr);
    EXPECT_EQ(do_three_arg_call(var("fail"), var("a"), var("a"), var("a")), nullptr);
    EXPECT_EQ(take_exception(), "MemoryError: no tuple");
    EXPECT_EQ(count_of(var("a")), before);
}

}  // namespace
