#include "platform/ProgramName.h"

#include <gtest/gtest.h>

namespace {

TEST(ProgramName, IsTheLastComponentOfTheProgramsPath) {
    EXPECT_STREQ(platform::programName(), "platform_tests");
}

} // namespace
