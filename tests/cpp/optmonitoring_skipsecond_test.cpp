// The skip decision where the thread's record is missing and cannot be fetched.

#include "fileops_hosted_support.h"
#include "log_test_support.h"
#include "optmonitoring_internal.h"

namespace {

using SkipSecond = FileOpsHostedTest;

TEST_F(SkipSecond, MissingThreadRecordFailsTheDecision)
{
    if (api.major_version < 3)
        GTEST_SKIP() << "Python 2 cannot load the module";
    tSwapped<Py_ssize_t> offset(gPerCodeObjectBodyOffset, 0);  // the record is not looked at
    set_dp_data_mask(dp, kLogInternalFailures | kLogInitialMonitoringCallbacks);
    tModuleState m = {};
    m.dp = dp;
    m.kPyStartEventId = 1;
    CInitialCallbackBody body = {};
    body._fEventId = 1;
    CInitialCallback_Callback_Ctx ctx = {&m, nullptr, api.Py_None, api.Py_None, 0, 0};
    EXPECT_EQ(-1, CInitialCallback_SkipSecondCallback_direct(&ctx, &body, api.Py_None));
    EXPECT_EQ("RuntimeError: optmonitoring is not loaded", take_error());
    EXPECT_EQ(std::string("  CInitialCallback.SkipSecondCallback(): event id 1; "
                          "CInitialCallback_GetPerThreadCalledFromCallback() failed\n") +
                  kReport + "RuntimeError: optmonitoring is not loaded\nno per_thread, returning -1\n",
              take_log());
}

}  // namespace
