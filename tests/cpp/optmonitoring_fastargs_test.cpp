// What no fast-call method uses yet: keyword-only descriptors, gaps between positions, and borrowed results.

#include <string>

#include "hosted_support.h"
#include "optmonitoring_internal.h"

namespace {

constexpr size_t kOffsetFlag = static_cast<size_t>(1) << 63;

class FastArgs : public HostedTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(0, XPy_Initialize());
        if (api.major_version < 3)
            GTEST_SKIP() << "Python 2 has no fast calls";
        HostedTest::SetUp();
        scope.reset(run_python("first, second, third = ['1'], ['2'], ['3']\nfallback = ['0']\n"));
        ASSERT_TRUE(scope);
        first = api.PyDict_GetItemString(scope.borrow(), "first");
        second = api.PyDict_GetItemString(scope.borrow(), "second");
        third = api.PyDict_GetItemString(scope.borrow(), "third");
        fallback = api.PyDict_GetItemString(scope.borrow(), "fallback");
    }
    void TearDown() override
    {
        scope.reset(nullptr);
        if (api.major_version >= 3)
            HostedTest::TearDown();
    }

    // "" when the arguments are accepted, else the exception.
    std::string parse(const tFastArgInfo* infos, PyObject* const* args, size_t nargsf, const char* names = nullptr)
    {
        XPyOwned kwnames(names ? eval_python(names) : nullptr);
        int result = get_fastargs(infos, args, nargsf, kwnames.borrow());
        EXPECT_EQ(result == 0 ? 0 : -1, result);
        EXPECT_EQ(result == -1, api.PyErr_Occurred() != nullptr);
        return take_error();
    }

    XPyOwned scope;
    PyObject *first = nullptr, *second = nullptr, *third = nullptr, *fallback = nullptr;  // [borrowed] from scope
    PyObject *a = nullptr, *b = nullptr;                                                  // results [borrowed]
};

TEST_F(FastArgs, KeywordOnlyArgumentIsNeverFilledByPosition)
{
    const tFastArgInfo infos[] = {{"a", 0, nullptr, &a}, {"b", -1, fallback, &b}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first, second};
    EXPECT_EQ("", parse(infos, args, 1));
    EXPECT_EQ(first, a);
    EXPECT_EQ(fallback, b);
    EXPECT_EQ("TypeError: Excess positional arguments passed to function", parse(infos, args, 2));
    EXPECT_EQ("", parse(infos, args, 1, "('b',)"));
    EXPECT_EQ(second, b);
}

TEST_F(FastArgs, RequiredKeywordOnlyArgument)
{
    const tFastArgInfo infos[] = {{"b", -1, nullptr, &b}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first};
    EXPECT_EQ("TypeError: argument is missing", parse(infos, args, 0));
    EXPECT_EQ("TypeError: argument is missing", parse(infos, args, 1));
    EXPECT_EQ("", parse(infos, args, 0, "('b',)"));
    EXPECT_EQ(first, b);
}

TEST_F(FastArgs, OnlyKeywordOnlyArgumentsTakeNoPositionalValue)
{
    const tFastArgInfo infos[] = {{"b", -5, fallback, &b}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first};
    EXPECT_EQ("", parse(infos, args, 0));
    EXPECT_EQ("TypeError: Excess positional arguments passed to function", parse(infos, args, 1));
}

TEST_F(FastArgs, DescriptorsInAnyOrderOfPositions)
{
    const tFastArgInfo infos[] = {{"b", 1, nullptr, &b}, {"a", 0, nullptr, &a}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first, second, third};
    EXPECT_EQ("", parse(infos, args, 2));
    EXPECT_EQ(first, a);
    EXPECT_EQ(second, b);
    EXPECT_EQ("TypeError: Excess positional arguments passed to function", parse(infos, args, 3));
    EXPECT_EQ("", parse(infos, args, 1, "('b',)"));
    EXPECT_EQ(first, a);
    EXPECT_EQ(second, b);
}

TEST_F(FastArgs, OffsetFlagIsNoPartOfTheCount)
{
    const tFastArgInfo infos[] = {{"a", 0, nullptr, &a}, {"b", 1, fallback, &b}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first, second};
    EXPECT_EQ("", parse(infos, args, 1 | kOffsetFlag, "('b',)"));
    EXPECT_EQ(first, a);
    EXPECT_EQ(second, b);
    EXPECT_EQ("TypeError: argument is missing", parse(infos, args, 0 | kOffsetFlag));
}

TEST_F(FastArgs, ValuesAndDefaultsAreBorrowed)
{
    const tFastArgInfo infos[] = {{"a", 0, nullptr, &a}, {"b", 1, fallback, &b}, {nullptr, 0, nullptr, nullptr}};
    PyObject* args[] = {first};
    long long of_first = refcount_of(first), of_fallback = refcount_of(fallback);
    EXPECT_EQ("", parse(infos, args, 1));
    EXPECT_EQ("", parse(infos, args, 0, "('a',)"));
    EXPECT_EQ(fallback, b);
    EXPECT_EQ(of_first, refcount_of(first));
    EXPECT_EQ(of_fallback, refcount_of(fallback));
}

TEST_F(FastArgs, DefaultOfAnEarlierArgumentIsStoredBeforeALaterOneFails)
{
    const tFastArgInfo infos[] = {{"a", 0, fallback, &a}, {"b", 1, nullptr, &b}, {nullptr, 0, nullptr, nullptr}};
    EXPECT_EQ("TypeError: argument is missing", parse(infos, nullptr, 0));
    EXPECT_EQ(fallback, a);
    EXPECT_EQ(nullptr, b);
}

TEST_F(FastArgs, NoDescriptorsAndNoArguments)
{
    const tFastArgInfo infos[] = {{nullptr, 0, nullptr, nullptr}};
    EXPECT_EQ("", parse(infos, nullptr, 0));
    EXPECT_EQ("", parse(infos, nullptr, 0, "()"));
}

}  // namespace
