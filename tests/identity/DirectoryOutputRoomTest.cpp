// What is known of the directory stays for the run of the daemon; what its tools have said does not.

#include "identity/DirectoryOutput.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace {

constexpr std::size_t much = 100000;

// Bytes that a reader asks for when it finds that answer in the output.
long roomOf(GPString* (*reader)(const GPString*), const std::string& output, const char* answer) {
    const GPString text(output.c_str());
    const testsupport::AllocationCounter allocations;
    const auto found = Owned<GPString>::adopt(reader(&text));
    const long bytes = allocations.bytes();
    EXPECT_TRUE(found);
    EXPECT_STREQ(found ? found->cstr() : nullptr, answer);
    return bytes;
}

} // namespace

TEST(DirectoryOutput, TakesItsRoomAlongWhenItGoes) {
    const std::string lines(much, '\n');
    EXPECT_LT(roomOf(netLogonDomain, "AuthenticationAuthority: ;NetLogon;CORP\n" + lines, "CORP"), 1000);
    EXPECT_LT(roomOf(likewiseDomain, lines + "[Domain: CORP]" + lines, "CORP"), 1000);
    EXPECT_LT(roomOf(adinfoDomain, lines + "NTLM NAME = CORP" + lines, "CORP"), 1000);

    testing::internal::CaptureStdout();
    const long room = roomOf(distinguishedName, lines + "distinguishedName: CN=A\n", "CN=A");
    testing::internal::GetCapturedStdout();
    EXPECT_LT(room, 5000);
}
