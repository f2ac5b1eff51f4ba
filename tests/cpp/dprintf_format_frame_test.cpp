// The text that names a frame's position.

#include "log_test_support.h"

namespace {

using DprintfFrameText = tHostedTest;

TEST_F(DprintfFrameText, NullFrameHasItsOwnText)
{
    EXPECT_STREQ(get_dprintf_frame_str1(nullptr), "<NULL>");
}

TEST_F(DprintfFrameText, FrameTextNamesLineFunctionFileAndFirstLine)
{
    run("exec_as('/src/app.py', '\\n' * 9 + 'def run():\\n  pass\\n  return sys._getframe()\\n')\nframe = run()");
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 12 of run (/src/app.py: 10)");
    const char* text = get_dprintf_frame_str1(nullptr);
    EXPECT_EQ(get_dprintf_frame_str1(var("frame")), text);  // one buffer for all
    XPyOwned code(eval("run.__code__"));
    expect_balanced({var("frame"), code.borrow()}, [&] { get_dprintf_frame_str1(var("frame")); });
}

TEST_F(DprintfFrameText, FrameTextEndsAfter4000Characters)
{
    run("exec_as('f.py', 'def ' + 'n' * 5000 + '(): return sys._getframe()\\nframe = ' + 'n' * 5000 + '()')");
    EXPECT_EQ(get_dprintf_frame_str1(var("frame")), "line 1 of " + std::string(3990, 'n'));
    run("exec_as('f' * 3980, 'def run(): return sys._getframe()\\nframe = run()')");
    EXPECT_EQ(get_dprintf_frame_str1(var("frame")), "line 1 of run (" + std::string(3980, 'f') + ": 1)");
    run("exec_as('f' * 3982, 'def run(): return sys._getframe()\\nframe = run()')");
    EXPECT_EQ(get_dprintf_frame_str1(var("frame")), "line 1 of run (" + std::string(3982, 'f') + ": 1");
}

TEST_F(DprintfFrameText, FrameTextHidesANonAsciiFileNameFromALogFile)
{
    run("exec_as('caf\\xc3\\xa9.py' if sys.version_info[0] < 3 else 'caf\\xe9.py',\n"
        "        'def run(): return sys._getframe()\\nframe = run()')");
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of run (caf\xc3\xa9.py: 1)");
    open_log();
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of run ((non-ascii string): 1)");
}

PyObject* gStandInCode;

PyCodeObject* give_stand_in_code(PyFrameObject*)
{
    return reinterpret_cast<PyCodeObject*>(XPy_NewRef(gStandInCode));
}

TEST_F(DprintfFrameText, FrameTextEndsAfterTheLineWhenTheNameIsOursAlone)
{
    if (!sees_only_references())
        GTEST_SKIP() << kNoCount;
    run("class Code(object):\n"
        "    co_filename = 'f.py'\n"
        "    co_firstlineno = 1\n"
        "    @property\n"
        "    def co_name(self): return ''.join(['fresh', 'name'])\n"
        "code = Code()\nexec_as('f.py', 'def run(): return sys._getframe()\\nframe = run()')");
    gStandInCode = var("code");
    tSwapped<decltype(api.PyFrame_GetCode)> stand_in(api.PyFrame_GetCode, give_stand_in_code);
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of ");
    open_log();
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of ");
    EXPECT_EQ(logged(), "borrow_attrib failed\nFailure in append_code_static_str()\n");
}

TEST_F(DprintfFrameText, FrameTextEndsAfterTheLineWithoutCode)
{
    run("exec_as('f.py', 'def run(): return sys._getframe()\\nframe = run()')");
    open_log();
    gStandInCode = nullptr;
    tSwapped<decltype(api.PyFrame_GetCode)> stand_in(api.PyFrame_GetCode, give_stand_in_code);
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of ");
    EXPECT_EQ(logged(), "Failure in append_code_static_str()\n");
}

TEST_F(DprintfFrameText, FrameTextKeepsThePendingException)
{
    run("code = Plain()\nexec_as('f.py', 'def run(): return sys._getframe()\\nframe = run()')");
    raise_value_error("mine");
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of run (f.py: 1)");
    EXPECT_EQ(take_exception(), "ValueError: mine");
    gStandInCode = var("code");
    tSwapped<decltype(api.PyFrame_GetCode)> stand_in(api.PyFrame_GetCode, give_stand_in_code);
    raise_value_error("mine");
    EXPECT_STREQ(get_dprintf_frame_str1(var("frame")), "line 1 of ");
    EXPECT_EQ(take_exception(), "ValueError: mine");
}

}  // namespace
