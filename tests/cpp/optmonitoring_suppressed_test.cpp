// The report of a failed event that has no exception to report.

#include "fileops_hosted_support.h"
#include "optmonitoring_internal.h"

namespace {

using SuppressedException = FileOpsHostedTest;

TEST_F(SuppressedException, MissingExceptionIsLogged)
{
    if (api.major_version < 3 || api.minor_version < 12)
        GTEST_SKIP() << "events are filtered from 3.12 on";
    tModuleState m = {};
    m.dp = dp;
    m._LogException = borrow_global("recording");
    CallLogExceptionWithCurrentRaisedException(&m);
    EXPECT_EQ("CallLogExceptionWithCurrentRaisedException(): PyErr_GetRaisedException() returned NULL\n", take_log());
    EXPECT_TRUE(is_true("calls == []"));
}

}  // namespace
