#include "identity/UserInfo.h"

#include "gp/GPString.h"
#include "platform/HardwareRegistry.h"
#include "support/DirectoryWorld.h"
#include "support/Objects.h"

using namespace platform;

namespace {

constexpr char corp[] = "/Active Directory/CORP/All Domains";

class PlayedRegistry final : public HardwareRegistry {
public:
    std::string platformUUID() override {
        formatWhenAsked = usrInfo->userFormat;
        nameWhenAsked = usrInfo->username;
        return uuid;
    }

    std::string uuid = "564D0000-0000-0000-0000-000000000001";
    DirectoryText formatWhenAsked;
    DirectoryText nameWhenAsked;
};

class UserInfoTest : public testsupport::DirectoryWorld {
protected:
    UserInfoTest() { hardwareRegistryService.install(registry); }

    // A text of the accessors; "(null)" for null.
    static std::string text(const char* value) { return value ? value : "(null)"; }

    // The messages from the first of the listing on.
    Texts listing() const {
        Texts lines;
        for (const std::string& line : log.messages())
            if (!lines.empty() || line == "UserInfo AD/OD Information:") lines.push_back(line);
        return lines;
    }

    PlayedRegistry& registry = *new PlayedRegistry;
};

} // namespace

TEST_F(UserInfoTest, IsEmptyBeforeItIsLoaded) {
    const testsupport::PoolScope pool;
    ASSERT_NE(usrInfo, nullptr);
    EXPECT_STREQ(usrInfo->className()->cstr(), "GPObject");
    EXPECT_TRUE(usrInfo->isInstanceOf("GPObject"));
    for (const auto accessor : {UserInfo::getUserName, UserInfo::getUserDN, UserInfo::getUserOU,
                                UserInfo::getComputerName, UserInfo::getComputerDN, UserInfo::getComputerOU,
                                UserInfo::getUserFormatType, UserInfo::getComputerUUID})
        EXPECT_EQ(accessor(), nullptr);
}

TEST_F(UserInfoTest, IsACopyOfWhatTheSearchFound) {
    givenUser(corp, {{"userPrincipalName", {"alice@corp.example.com"}},
                     {"PrimaryNTDomain", {"CORP"}},
                     {"distinguishedName", {"CN=alice"}},
                     {"memberOf", {"CN=Staff,DC=corp"}}});
    givenComputer(corp, {{"name", {"MAC01"}}, {"distinguishedName", {"CN=MAC01"}}});
    UserInfo::loadUserInfo();
    EXPECT_EQ(text(UserInfo::getUserName()), "alice");
    EXPECT_EQ(text(UserInfo::getUserDN()), "CORP");
    EXPECT_EQ(text(UserInfo::getUserOU()), "CN=alice");
    EXPECT_EQ(text(UserInfo::getComputerName()), "MAC01");
    EXPECT_EQ(text(UserInfo::getComputerDN()), "CN=MAC01");
    EXPECT_EQ(text(UserInfo::getComputerOU()), "(null)");
    EXPECT_EQ(text(UserInfo::getUserFormatType()), "email");
    EXPECT_EQ(text(UserInfo::getComputerUUID()), "564D0000-0000-0000-0000-000000000001");
    EXPECT_EQ(usrInfo->groups, Texts{"CN=Staff,DC=corp"});
}

TEST_F(UserInfoTest, ASecondLoadReplacesEverythingButTheIdentifierOfTheComputer) {
    usrInfo->userDN = "old";
    usrInfo->userOU = "old";
    usrInfo->computerDN = "old";
    usrInfo->computerOU = "old";
    usrInfo->groups = Texts{"old"};
    UserInfo::loadUserInfo(); // the user is local now
    EXPECT_EQ(text(UserInfo::getUserName()), "alice");
    EXPECT_EQ(text(UserInfo::getUserDN()), "(null)");
    EXPECT_EQ(text(UserInfo::getUserOU()), "(null)");
    EXPECT_EQ(text(UserInfo::getComputerDN()), "(null)");
    EXPECT_EQ(text(UserInfo::getComputerOU()), "(null)");
    EXPECT_FALSE(usrInfo->groups);
}

TEST_F(UserInfoTest, AFailedLoadKeepsWhatWasKnownAndSetsFormatAndIdentifier) {
    logEverything();
    givenUser(corp);
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    usrInfo->username = "bob";
    usrInfo->userFormat = "email";
    UserInfo::loadUserInfo();
    EXPECT_EQ(text(UserInfo::getUserName()), "bob");
    EXPECT_EQ(text(UserInfo::getUserFormatType()), "directory");
    EXPECT_EQ(text(UserInfo::getComputerUUID()), "564D0000-0000-0000-0000-000000000001");
    EXPECT_TRUE(log.holds("UserInfo: connection lost"));
    EXPECT_TRUE(log.holds("UserInfo lookup failed."));
    EXPECT_FALSE(log.holds("Finished DSQuery."));
}

TEST_F(UserInfoTest, AFailedLoadIsLoggedAtLogLevelOneAlone) {
    givenUser(corp);
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    UserInfo::loadUserInfo();
    EXPECT_EQ(log.countContaining("UserInfo"), 0);
}

TEST_F(UserInfoTest, TheComputersIdentifierIsReadWhenTheSearchHasEnded) {
    givenUser(corp, {{"EMailAddress", {"alice@example.com"}}});
    UserInfo::loadUserInfo();
    EXPECT_EQ(registry.nameWhenAsked, "alice");
    EXPECT_EQ(registry.formatWhenAsked, "email");
}

TEST_F(UserInfoTest, AComputerWithoutAnIdentifierHasNone) {
    registry.uuid.clear();
    UserInfo::loadUserInfo();
    EXPECT_EQ(UserInfo::getComputerUUID(), nullptr);
}

TEST_F(UserInfoTest, IsListedInTheLogAtLogLevelOne) {
    logEverything();
    givenUser(corp, {{"PrimaryNTDomain", {"CORP"}},
                     {"distinguishedName", {"CN=alice"}},
                     {"memberOf", {"CN=Staff", "CN=Sales"}}});
    UserInfo::loadUserInfo();
    EXPECT_TRUE(log.holds("Finished DSQuery."));
    EXPECT_EQ(listing(), (Texts{"UserInfo AD/OD Information:", "Username: alice", "User DN: CORP",
                                "User Distinguished Name: CN=alice", "User Groups: (CN=Staff, CN=Sales)",
                                "Computer Name: mac01.local", "Computer DN: (null)"}));
}

TEST_F(UserInfoTest, IsNotListedWithoutLogLevelOne) {
    UserInfo::loadUserInfo();
    EXPECT_EQ(listing(), Texts{});
    EXPECT_FALSE(log.holds("Finished DSQuery."));
}

TEST_F(UserInfoTest, AListingOfNothingSaysSo) {
    DSInfo nothing;
    logInfo(&nothing);
    EXPECT_EQ(listing(), (Texts{"UserInfo AD/OD Information:", "Username: (null)", "User DN: (null)",
                                "User Distinguished Name: (null)", "User Groups: (null)",
                                "Computer Name: (null)", "Computer DN: (null)"}));
}
