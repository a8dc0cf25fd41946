// Commands of which one system call of the parent fails, each call in turn.

#include "gp/GPTask.h"

#include "support/ManualClock.h"
#include "support/ProcessDescriptors.h"
#include "support/Taken.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

using testsupport::beginCalls;
using testsupport::descriptorsOf;
using testsupport::endCalls;
using testsupport::taken;

TEST(GPTaskFailedCalls, GiveTheOutputOrNothingAndKeepNoDescriptor) {
    if (!testsupport::canFailCalls())
        GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    testsupport::ManualClock::installed().letSleepsPass(true);
    const long failures = testsupport::failEachCall([] {
        const auto descriptors = descriptorsOf(getpid());
        beginCalls();
        const std::string output = taken(GPTask::task("/bin/echo hello", true, false));
        endCalls();
        EXPECT_TRUE(output == "hello\n" || output == "(null)") << output;
        EXPECT_EQ(descriptorsOf(getpid()), descriptors);
        EXPECT_EQ(taken(GPTask::task("/bin/echo again", true, false)), "again\n");
    });
    EXPECT_GE(failures, 10);
}
