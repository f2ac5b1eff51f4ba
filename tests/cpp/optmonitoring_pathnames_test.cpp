// The internal pathname table asked with names that no code object has.

#include <string>

#include "fileops_hosted_support.h"
#include "optmonitoring_internal.h"

namespace {

// A record whose internal_failures channel writes to a Python object.
class InternalPathname : public FileOpsHostedTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(0, XPy_Initialize());
        if (api.major_version < 3)
            GTEST_SKIP() << "Python 2 cannot load the module";
        FileOpsHostedTest::SetUp();
        table.reset(eval_python("{'/a.py': 1, None: 1, 42: 1, b'/b.py': 1}"));
        ASSERT_TRUE(table);
    }
    void TearDown() override
    {
        table.reset(nullptr);
        if (api.major_version >= 3)
            FileOpsHostedTest::TearDown();
    }

    // The answer for the value of an expression.
    int ask(const char* expression, PyObject* other_table = nullptr)
    {
        XPyOwned pathname(eval_python(expression));
        return IsInternalPathname(dp, other_table ? other_table : table.borrow(), pathname.borrow());
    }

    XPyOwned table;
};

TEST_F(InternalPathname, StrThatIsAKeyIsInternal)
{
    EXPECT_EQ(1, ask("u'/a.py'"));
    EXPECT_EQ(1, ask("type('Name', (type(u''),), {})(u'/a.py')"));
    EXPECT_EQ(0, ask("u'/A.py'"));
    EXPECT_EQ(0, ask("u''"));
    EXPECT_EQ("", take_log());
}

TEST_F(InternalPathname, NoneIsNotInternalAndNotLogged)
{
    EXPECT_EQ(0, ask("None"));
    EXPECT_EQ("", take_log());
}

TEST_F(InternalPathname, OtherValuesAreNotInternalAndLogged)
{
    EXPECT_EQ(0, ask("42"));
    EXPECT_EQ("IsInternalPathname() called with non-str instance: 42\n", take_log());
    EXPECT_EQ(0, ask("['/a.py']"));
    EXPECT_EQ("IsInternalPathname() called with non-str instance: ['/a.py']\n", take_log());
}

TEST_F(InternalPathname, OtherValuesAreSilentWithoutTheFailuresDomain)
{
    set_dp_data_mask(dp, kLogFilenames | kLogCore);
    EXPECT_EQ(0, ask("42"));
    EXPECT_EQ("", take_log());
}

TEST_F(InternalPathname, WithoutALogNothingIsWritten)
{
    XPyOwned pathname(eval_python("42"));
    EXPECT_EQ(0, IsInternalPathname(nullptr, table.borrow(), pathname.borrow()));
    EXPECT_EQ("", take_log());
}

TEST_F(InternalPathname, TableThatIsNoDictHoldsNothing)
{
    EXPECT_EQ(0, ask("u'/a.py'", api.Py_None));
    XPyOwned list(eval_python("[u'/a.py']"));
    EXPECT_EQ(0, ask("u'/a.py'", list.borrow()));
    XPyOwned pathname(eval_python("u'/a.py'"));
    EXPECT_EQ(0, IsInternalPathname(dp, nullptr, pathname.borrow()));
    EXPECT_EQ("", take_log());
}

TEST_F(InternalPathname, ErrorsOfTheLookUpAreSwallowed)
{
    XPyOwned names(run_python(R"(
class Name(str):
    def __hash__(self):
        return hash('/a.py')
    def __eq__(self, other):
        raise ValueError('compared')
table = {Name('x'): 1}
)"));
    EXPECT_EQ(0, ask("'/a.py'", api.PyDict_GetItemString(names.borrow(), "table")));
    EXPECT_EQ(nullptr, api.PyErr_Occurred());
    EXPECT_EQ("", take_log());
}

}  // namespace
