// Runs the hosted C++ tests inside an interpreter, which loads this library through ctypes.PyDLL and calls
// run_hosted_tests with the interpreter lock held:  run_hosted_tests("NAME-PATTERN or empty", "XML report or empty").

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "xpy_c_api.h"

// Starts the binding layer up before the first test; without it no test runs.
class tStartedUp : public ::testing::Environment
{
  public:
    void SetUp() override { ASSERT_EQ(XPy_Initialize(), 0); }
};

XPY_EXPORT int run_hosted_tests(const char* filter, const char* report)
{
    std::vector<std::string> words = {"hosted_tests"};
    if (filter && *filter)
        words.push_back(std::string("--gtest_filter=") + filter);
    if (report && *report)
        words.push_back(std::string("--gtest_output=xml:") + report);
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    ::testing::InitGoogleTest(&argc, argv.data());
    ::testing::AddGlobalTestEnvironment(new tStartedUp);
    return RUN_ALL_TESTS();
}
