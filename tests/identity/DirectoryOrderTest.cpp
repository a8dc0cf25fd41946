// The order of what a search tells its callbacks and what it logs, in one list.

#include "gp/GPLog.h"
#include "identity/DSQuery.h"
#include "support/DirectoryWorld.h"
#include "support/LivingObjects.h"

using namespace platform;

namespace {

constexpr char corp[] = "/Active Directory/CORP/All Domains";
constexpr char ldap[] = "/LDAPv3/ldap.example.com";

class DirectoryOrder : public testsupport::DirectoryWorld {
protected:
    DirectoryOrder() { logEverything(); }

    static void runSearch() {
        DSQuery::sharedDSQuery()->search([](DSInfo*) { logs("(success)"); },
                                         [](const DirectoryError&) { logs("(failure)"); });
    }

    // The calls back and the lines about failures, in their order.
    Texts ends() {
        runSearch();
        Texts lines;
        for (const std::string& line : log.messages())
            if (line[0] == '(' || line.rfind("Failed", 0) == 0) lines.push_back(line);
        return lines;
    }
};

} // namespace

TEST_F(DirectoryOrder, AFailedUserSearchIsToldBetweenTheQuerysLineAndItsOwn) {
    givenUser(corp);
    directory.failQueries(kODRecordTypeUsers, "lost");
    EXPECT_EQ(ends(),
              (Texts{"Failed to query Directory Server: lost", "(failure)", "Failed to lookup user info."}));
}

TEST_F(DirectoryOrder, AFailedComputerSearchIsLoggedBehindTheSuccess) {
    givenUser(corp);
    directory.failQueries(kODRecordTypeComputers, "lost");
    EXPECT_EQ(ends(), (Texts{"Failed to query Directory Server: lost", "(success)",
                             "Failed to resolve computer information."}));
}

TEST_F(DirectoryOrder, AFailedMembershipSearchIsLoggedBehindTheSuccess) {
    givenUser(ldap);
    directory.failQueries(kODRecordTypeGroups, "lost");
    EXPECT_EQ(ends(), (Texts{"Failed to query Directory Server: lost", "(success)",
                             "Failed to resolve group membership."}));
}

TEST_F(DirectoryOrder, AnActiveDirectoryRecordWithoutDetailsIsToldBeforeItIsLogged) {
    givenUser(corp);
    directory.addMute(corp, kODRecordTypeComputers, {{"RecordName", {"mac01"}}}, "mute");
    EXPECT_EQ(ends(), (Texts{"(failure)", "Failed to process Active Directory results.", "(success)"}));
}

TEST_F(DirectoryOrder, AnOpenDirectoryRecordWithoutDetailsIsToldBeforeItIsLogged) {
    givenUser(ldap);
    directory.addMute(ldap, kODRecordTypeComputers, {{"RecordName", {"mac01"}}}, "mute");
    EXPECT_EQ(ends(), (Texts{"(failure)", "Failed to process Open Directory results.", "(success)"}));
}

TEST_F(DirectoryOrder, NoSearchLeavesAnObject) {
    EXPECT_EQ(testsupport::objectsLeftBy(runSearch), 0);
    givenUser(ldap);
    givenComputer(ldap);
    EXPECT_EQ(testsupport::objectsLeftBy(runSearch), 0);
    directory.failQueries(kODRecordTypeGroups, "lost");
    EXPECT_EQ(testsupport::objectsLeftBy(runSearch), 0);
}

TEST_F(DirectoryOrder, NoActiveDirectorySearchLeavesAnObject) {
    givenUser(corp);
    givenComputer(corp);
    EXPECT_EQ(testsupport::objectsLeftBy(runSearch), 0);
    directory.failQueries(kODRecordTypeUsers, "lost");
    EXPECT_EQ(testsupport::objectsLeftBy(runSearch), 0);
}
