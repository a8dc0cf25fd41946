#include "gp/GPFilesystem.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <string>

TEST(GPFilesystemRoom, ANameThatStaysTakesNoneForThePathInFrontOfIt) {
    const std::string path = "/" + std::string(10000, 'x') + "/tool";
    GPFilesystem file(path.c_str());
    const testsupport::AllocationCounter allocations;
    EXPECT_STREQ(file.name(), "tool");
    EXPECT_LT(allocations.bytes(), 100);
}
