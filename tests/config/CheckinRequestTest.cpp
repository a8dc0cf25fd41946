#include "config/CheckinRequest.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/KernelRelease.h"
#include "support/LivingObjects.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <string>

namespace {

std::string versionFor(const char* release) {
    const auto version = Owned<GPString>::adopt(systemVersion(release));
    return version ? version->cstr() : "(null)";
}

} // namespace

TEST(CheckinRequest, TheSystemsVersionIsFourBelowTheKernels) {
    EXPECT_EQ(versionFor("18.7.0"), "14.7");
    EXPECT_EQ(versionFor("16.0"), "12.0");
    EXPECT_EQ(versionFor("3.10.1.2"), "-1.10");
}

TEST(CheckinRequest, AReleaseWithoutADotHasNoVersion) {
    EXPECT_EQ(versionFor("18"), "(null)");
    EXPECT_EQ(versionFor(""), "(null)");
}

TEST(CheckinRequest, PartsThatAreNoNumbersCountAsMinusOne) { EXPECT_EQ(versionFor("a.b"), "-5.-1"); }

TEST(CheckinRequest, TheBuildNamesAHost) {
    const std::string host = checkinHost();
    EXPECT_FALSE(host.empty());
    EXPECT_EQ(host.find_first_of("/:? "), std::string::npos);
}

TEST(KernelRelease, IsTheOneOfTheRunningKernel) {
    utsname names{};
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(platform::kernelRelease(), names.release);
    EXPECT_NE(versionFor(platform::kernelRelease().c_str()), "(null)");
}

TEST(CheckinRequest, TheVersionsPartsAreGivenBack) {
    for (const char* release : {"18.7.0", "18"})
        EXPECT_EQ(testsupport::objectsLeftBy([release] { Owned<GPString>::adopt(systemVersion(release)); }),
                  0);
}
