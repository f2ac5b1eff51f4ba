// The debug policy of what is no thread's record.

#include "fileops_hosted_support.h"
#include "optmonitoring_internal.h"

namespace {

using PerThread = FileOpsHostedTest;

TEST_F(PerThread, PolicyOfAnotherObjectIsAnInternalError)
{
    static const char kError[] = "SystemError: optmonitoring:3682: bad argument to internal function";
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 cannot load the module";
    tModuleState m = {};
    m.dp = dp;
    m.CPerThread = reinterpret_cast<PyObject*>(api.PyDict_Type_ptr);
    EXPECT_EQ(-1, CPerThread_GetDebugPolicy_direct(&m, api.Py_None));
    EXPECT_EQ(kError, take_error());
    EXPECT_EQ(std::string("Exception in CPerThread_GetDebugPolicy_direct()\n") + kReport + kError + "\n", take_log());
}

}  // namespace
