// Directory tools that are missing, silent, talkative or foreign leave the plain user name and nothing worse.

#include "identity/UserAuth.h"
#include "platform/HostPaths.h"
#include "support/ForkedChild.h"
#include "support/IdentityWorld.h"

using platform::HostPaths;

namespace {

enum class Kind { activeDirectory, likewise, adinfo, ldap, ldapWithUser };

class BrokenDirectoryTools : public testsupport::IdentityWorld, public testing::WithParamInterface<Kind> {
protected:
    // Makes the machine one of that kind, whose last tool prints `output`.
    void machineWhoseToolPrints(const std::string& output) {
        switch (GetParam()) {
            case Kind::activeDirectory:
                tools.dsconfigadPrints(output.empty() ? "bound" : output);
                return tools.dsclPrints("AuthenticationAuthority", output);
            case Kind::likewise:
                return tools.likewisePrints(output);
            case Kind::adinfo:
                return tools.adinfoPrints(output);
            case Kind::ldap:
                tools.configureLdap();
                return tools.dsclPrints("distinguishedName", output);
            case Kind::ldapWithUser:
                return tools.writeOverride("<Ldap><User>admin</User></Ldap>" + output);
        }
    }

    static void expectThePlainName() {
        testing::internal::CaptureStdout();
        queryUserName("alice");
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_STREQ(UserAuth::userName(), "alice");
        EXPECT_EQ(UserAuth::netbiosNames(nullptr), nullptr);
        EXPECT_TRUE(printed.empty() || printed == "find is: -1\n") << printed;
    }
};

std::string nameOf(const testing::TestParamInfo<Kind>& kind) {
    const char* names[] = {"ActiveDirectory", "Likewise", "Adinfo", "Ldap", "LdapWithUser"};
    return names[static_cast<int>(kind.param)];
}

} // namespace

INSTANTIATE_TEST_SUITE_P(OfKind, BrokenDirectoryTools,
                         testing::Values(Kind::activeDirectory, Kind::likewise, Kind::adinfo, Kind::ldap,
                                         Kind::ldapWithUser),
                         nameOf);

TEST_P(BrokenDirectoryTools, ThatPrintNothingLeaveThePlainName) {
    machineWhoseToolPrints("");
    expectThePlainName();
}

TEST_P(BrokenDirectoryTools, ThatCannotBeRunLeaveThePlainName) {
    machineWhoseToolPrints("");
    setenv("PATH", "/usr/bin:/bin", 1); // where there is no dscl
    if (GetParam() == Kind::activeDirectory) tools.breakTool(HostPaths::dsconfigad());
    if (GetParam() == Kind::likewise) tools.breakTool(HostPaths::likewiseStatus());
    if (GetParam() == Kind::adinfo) tools.breakTool(HostPaths::adinfo());
    expectThePlainName();
}

TEST_P(BrokenDirectoryTools, ThatPrint65535BytesLeaveThePlainName) {
    machineWhoseToolPrints(std::string(65535, 'x'));
    expectThePlainName();
}

TEST_P(BrokenDirectoryTools, ThatPrint65535BytesOfOpenMarksLeaveThePlainName) {
    std::string output = "AuthenticationAuthority: [Domain: NTLM NAME distinguishedName: a: ";
    while (output.size() < 65535)
        output += "[Domain: NTLM NAME   =\t;NetLogon ";
    machineWhoseToolPrints(output.substr(0, 65535));
    expectThePlainName();
}

TEST_P(BrokenDirectoryTools, ThatPrintAnotherLanguageLeaveThePlainName) {
    machineWhoseToolPrints("\xC3\x9C"
                           "berpr\xC3\xBC"
                           "fung: Dom\xC3\xA4"
                           "ne nicht gefunden\nNTLM-Name: CORP\n");
    expectThePlainName();
}

TEST_P(BrokenDirectoryTools, ThatPrintBytesOfNoTextLeaveThePlainName) {
    std::string output("\xFF\xFE\0;NetLogon;CORP\n", 17);
    for (int byte = 0; byte < 256; ++byte)
        output += static_cast<char>(byte);
    machineWhoseToolPrints(output);
    expectThePlainName();
}

using EndlessDirectoryTool = testsupport::IdentityWorld;

TEST_F(EndlessDirectoryTool, AnOutputOfAMultipleOf4096BytesBlocksTheQuery) {
    tools.likewisePrints(std::string(8192, 'x'));
    EXPECT_TRUE(testsupport::neverEnds([] { queryUserName("alice"); }));
    tools.likewisePrints(std::string(8191, 'x'));
    EXPECT_TRUE(testsupport::comesToItsEnd([] { queryUserName("alice"); }));
}
