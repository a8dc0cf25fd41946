// The search in Open Directory from end to end: this system's backend against a real directory server.

#include "config/Configuration.h"
#include "identity/UserInfo.h"
#include "platform/HardwareRegistry.h"
#include "platform/HostPaths.h"
#include "support/DirectoryWorld.h"
#include "support/SlapdServer.h"

using namespace platform;
using testsupport::accountEntry;
using testsupport::computerEntry;
using testsupport::groupEntry;
using testsupport::SlapdServer;

namespace {

// No machine has local accounts of these names.
constexpr char user[] = "fernhill-alice";
constexpr char otherUser[] = "fernhill-bob";

std::string everything() {
    const std::string both = "memberUid: fernhill-bob\nmemberUid: fernhill-alice\n";
    return accountEntry(user, 5001) + accountEntry(otherUser, 5002) + groupEntry("sales", 2001, both) +
           groupEntry("wheel", 999, both) + groupEntry("admins", 2002, "memberUid: fernhill-bob\n") +
           groupEntry("staff", 1000, "memberUid: fernhill-alice\n") + computerEntry("mac01") +
           computerEntry("mac02");
}

class OpenDirectoryServer : public testsupport::DirectoryWorld {
protected:
    OpenDirectoryServer() {
        directoryService.install(directoryService.backend());
        Configuration::setCachedUserName(user);
        useServer(server);
    }

    // Has the machine's settings lead to that server.
    static void useServer(const SlapdServer& used) {
        testsupport::writeAll(HostPaths::ldapClientFile(), used.clientSettings());
    }

    SlapdServer server{everything()};
};

class NoRegistry final : public HardwareRegistry {
public:
    std::string platformUUID() override { return {}; }
};

} // namespace

TEST_F(OpenDirectoryServer, KnowsUserGroupsAndComputer) {
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), user);
    EXPECT_EQ(shown(found.userDN), "uid=fernhill-alice,dc=example,dc=com");
    EXPECT_EQ(found.groups,
              (Texts{"sales", "cn=sales,dc=example,dc=com", "staff", "cn=staff,dc=example,dc=com"}));
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_EQ(shown(found.computerDN), "cn=mac01,dc=example,dc=com");
    EXPECT_EQ(shown(found.userFormat), "directory");
    EXPECT_EQ(shown(found.userOU), "(none)");
}

TEST_F(OpenDirectoryServer, IsTheNodeThatTheUsersRecordNames) {
    logEverything();
    search();
    EXPECT_TRUE(log.holds("Selecting OD Domain " + server.nodeName() + ". "));
    EXPECT_TRUE(log.holds("ODSearch results: (uid=fernhill-alice,dc=example,dc=com). "));
}

TEST_F(OpenDirectoryServer, FillsTheProcessesUserInfo) {
    hardwareRegistryService.install(*new NoRegistry);
    UserInfo::loadUserInfo();
    EXPECT_STREQ(UserInfo::getUserName(), user);
    EXPECT_STREQ(UserInfo::getUserDN(), "uid=fernhill-alice,dc=example,dc=com");
    EXPECT_STREQ(UserInfo::getComputerName(), "mac01");
    EXPECT_EQ(usrInfo->groups->size(), 4u);
}

TEST_F(OpenDirectoryServer, AUserWhoIsNotThereGetsTheLocalInfo) {
    logEverything();
    Configuration::setCachedUserName("fernhill-carol");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "fernhill-carol");
    EXPECT_EQ(shown(found.userDN), "(none)");
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_EQ(shown(found.computerDN), "(none)");
    EXPECT_TRUE(log.holds("Selecting node name: " + server.nodeName() + ". "));
}

TEST_F(OpenDirectoryServer, AComputerThatIsNotThereHasTheHostsName) {
    host.host = "mac03.example.com";
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.computerName), "mac03.example");
    EXPECT_EQ(shown(found.computerDN), "(none)");
}

TEST_F(OpenDirectoryServer, AUserWithoutGroupsHasAnEmptyList) {
    const SlapdServer lonely(accountEntry(user, 5001) + groupEntry("sales", 2001, ""));
    useServer(lonely);
    search();
    EXPECT_EQ(shown(found.userDN), "uid=fernhill-alice,dc=example,dc=com");
    EXPECT_EQ(found.groups, Texts{});
}

TEST_F(OpenDirectoryServer, AStarInAUserNameIsNoWildcard) {
    Configuration::setCachedUserName("fernhill-*");
    search();
    EXPECT_EQ(shown(found.username), "fernhill-*");
    EXPECT_EQ(shown(found.userDN), "(none)");
}

TEST_F(OpenDirectoryServer, ThatIsGoneFailsTheSearch) {
    server.stop();
    const Ends ends = search();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0], "failure: Can't contact LDAP server");
}

TEST_F(OpenDirectoryServer, ThatNobodyNamesLeavesTheUserLocal) {
    testsupport::writeAll(HostPaths::ldapClientFile(), "# nothing set\n");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), user);
    EXPECT_EQ(shown(found.userDN), "(none)");
}
