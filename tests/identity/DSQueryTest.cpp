// Which node is searched, and how a search ends.

#include "identity/DSQuery.h"

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "platform/HostName.h"
#include "support/DirectoryWorld.h"
#include "support/Objects.h"

using namespace platform;

namespace {

constexpr char local[] = "/Local/Default";
constexpr char corp[] = "/Active Directory/CORP/All Domains";
constexpr char ldap[] = "/LDAPv3/ldap.example.com";

class DSQueryTest : public testsupport::DirectoryWorld {
protected:
    int select() {
        node = nullptr;
        return DSQuery::sharedDSQuery()->selectNode(node);
    }

    // Which node was selected: the users found there tell.
    std::string selectedNode() {
        if (!node) return "(null)";
        DirectoryError error;
        DirectoryQueryTerms terms;
        terms.recordType = kODRecordTypeUsers;
        terms.attribute = kODAttributeTypeRecordName;
        DirectoryRecords records;
        directory.queryWithNode(node, terms, error)->resultsAllowingPartial(false, records, error);
        const std::string last = directory.queries().back();
        return last.substr(0, last.find(" dsRecType"));
    }

    DirectoryNodeRef node;
};

} // namespace

TEST_F(DSQueryTest, IsOneObjectWithoutAClassNameOfItsOwn) {
    const testsupport::PoolScope pool;
    EXPECT_EQ(DSQuery::sharedDSQuery(), DSQuery::sharedDSQuery());
    EXPECT_STREQ(DSQuery::sharedDSQuery()->className()->cstr(), "GPObject");
    EXPECT_TRUE(DSQuery::sharedDSQuery()->isInstanceOf("GPObject"));
}

// The node.

TEST_F(DSQueryTest, AsksTheSearchNodeForAllRecordsOfTheCachedUser) {
    directory.addNode(local);
    select();
    EXPECT_EQ(directory.queries(),
              Texts{"/Search dsRecTypeStandard:Users dsAttrTypeStandard:RecordName=alice "
                    "dsAttributesStandardAll 0"});
}

TEST_F(DSQueryTest, AUserOfAnLdapNodeSelectsOpenDirectory) {
    logEverything();
    givenUser(ldap, {{"AppleMetaNodeLocation", {ldap, corp}}});
    EXPECT_EQ(select(), 1);
    EXPECT_EQ(selectedNode(), ldap);
    EXPECT_TRUE(log.holds("Selecting OD Domain /LDAPv3/ldap.example.com. "));
    EXPECT_EQ(
        directory.detailQuestions(),
        Texts{"record alice: dsAttrTypeStandard:AppleMetaNodeLocation dsAttrTypeStandard:OriginalNodeName"});
}

TEST_F(DSQueryTest, AUserOfAnyOtherNodeSelectsActiveDirectory) {
    logEverything();
    givenUser(corp);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(selectedNode(), corp);
    EXPECT_TRUE(log.holds("Selecting AD Domain /Active Directory/CORP/All Domains. "));
}

TEST_F(DSQueryTest, OnlyTheUsersFirstRecordCounts) {
    givenUser(corp);
    givenUser(ldap);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(selectedNode(), corp);
}

TEST_F(DSQueryTest, AMobileAccountUsesTheOriginalNodeName) {
    directory.addNode(ldap);
    directory.addNode(corp);
    givenUser(local, {{"OriginalNodeName", {corp, ldap}}});
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(selectedNode(), corp);
}

TEST_F(DSQueryTest, TheOriginalNodeNameOfANetworkRecordIsNotLookedAt) {
    givenUser(ldap, {{"OriginalNodeName", {corp}}});
    EXPECT_EQ(select(), 1);
    EXPECT_EQ(selectedNode(), ldap);
}

TEST_F(DSQueryTest, ALocalUserLeavesTheChoiceToTheNodeNames) {
    logEverything();
    givenUser(local);
    directory.addNode("/Contacts");
    directory.addNode(ldap);
    directory.addNode(corp);
    EXPECT_EQ(select(), 1);
    EXPECT_EQ(selectedNode(), ldap);
    const Texts lines = {
        "selectNode nodeNames: (/Local/Default, /Contacts, /LDAPv3/ldap.example.com, /Active "
        "Directory/CORP/All Domains). ",
        "Checking node name: /Local/Default. ", "Checking node name: /Contacts. ",
        "Checking node name: /LDAPv3/ldap.example.com. ", "Selecting node name: /LDAPv3/ldap.example.com. "};
    for (const std::string& line : lines)
        EXPECT_TRUE(log.holds(line)) << line;
    EXPECT_EQ(log.countContaining("Checking node name"), 3);
    EXPECT_EQ(log.countContaining("Selecting OD Domain"), 0);
}

TEST_F(DSQueryTest, TheFirstFittingNodeNameCountsWhateverItsKind) {
    directory.addNode(corp);
    directory.addNode(ldap);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(selectedNode(), corp);
}

TEST_F(DSQueryTest, ANodeNameWithBothMarksIsActiveDirectory) {
    directory.addNode("/LDAPv3/All Domains");
    EXPECT_EQ(select(), 0);
}

TEST_F(DSQueryTest, ANodeNameIsNoActiveDirectoryWithoutAllDomains) {
    directory.addNode("/Active Directory/CORP");
    EXPECT_EQ(select(), 2);
}

TEST_F(DSQueryTest, WithNoNetworkDirectoryTheKindIsLocalAndThereIsNoNode) {
    directory.addNode(local);
    node = std::make_shared<DirectoryNode>();
    EXPECT_EQ(DSQuery::sharedDSQuery()->selectNode(node), 2);
    EXPECT_EQ(node, nullptr);
}

TEST_F(DSQueryTest, ARecordWithoutALocationLeavesTheChoiceToTheNodeNames) {
    directory.add(local, kODRecordTypeUsers, {{"RecordName", {"alice"}}, {"OriginalNodeName", {corp}}});
    directory.addNode(ldap);
    EXPECT_EQ(select(), 1);
}

TEST_F(DSQueryTest, ARecordWithoutDetailsLeavesTheChoiceToTheNodeNames) {
    directory.addMute(corp, kODRecordTypeUsers,
                      {{"RecordName", {"alice"}}, {"AppleMetaNodeLocation", {ldap}}}, "no details");
    EXPECT_EQ(select(), 0);
}

TEST_F(DSQueryTest, NoSearchNodeLeavesTheChoiceToTheNodeNames) {
    givenUser(corp);
    directory.takeAwaySearchNode();
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(directory.queries(), Texts{});
}

TEST_F(DSQueryTest, NodeNamesThatCannotBeHadLeaveTheUserLocal) {
    logEverything();
    directory.addNode(corp);
    directory.failNodeNames();
    EXPECT_EQ(select(), 2);
    EXPECT_TRUE(log.holds("selectNode nodeNames: (). "));
}

TEST_F(DSQueryTest, WithoutACachedUserTheNodeNamesDecide) {
    Configuration::setCachedUserName(nullptr);
    givenUser(corp);
    EXPECT_EQ(select(), 0);
    EXPECT_EQ(directory.detailQuestions(), Texts{});
}

TEST_F(DSQueryTest, ANodeThatDoesNotOpenKeepsItsKind) {
    givenUser(ldap);
    directory.closeNode(ldap);
    EXPECT_EQ(select(), 1);
    EXPECT_EQ(node, nullptr);
}

TEST_F(DSQueryTest, TheChoiceIsLoggedAtLogLevelOneAlone) {
    directory.addNode(corp);
    select();
    givenUser(ldap);
    select();
    EXPECT_EQ(log.countContaining("electing"), 0);
    EXPECT_EQ(log.countContaining("node name"), 0);
}

// The ends of a search.

TEST_F(DSQueryTest, WithNoNetworkDirectoryTheInfoHoldsTheCachedNameAndTheShortHostName) {
    directory.addNode(local);
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "alice");
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_EQ(shown(found.userFormat), "directory");
    EXPECT_EQ(shown(found.userDN), "(none)");
    EXPECT_EQ(shown(found.userOU), "(none)");
    EXPECT_EQ(shown(found.computerDN), "(none)");
    EXPECT_EQ(shown(found.computerOU), "(none)");
    EXPECT_EQ(shown(found.computerUUID), "(none)");
    EXPECT_FALSE(found.groups);
    EXPECT_EQ(directory.queries().size(), 1u);
}

TEST_F(DSQueryTest, WithNobodyAndNoHostNameTheLocalInfoIsEmpty) {
    Configuration::setCachedUserName(nullptr);
    host.host = std::nullopt;
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "(none)");
    EXPECT_EQ(shown(found.computerName), "(none)");
}

TEST_F(DSQueryTest, AUserWhoIsNotInTheDirectoryGetsTheLocalInfo) {
    logEverything();
    directory.addNode(ldap);
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "alice");
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_TRUE(log.holds("starting search for user info alice. "));
    EXPECT_TRUE(log.holds("No user information found in Directory Server for username: alice. Sending local "
                          "login information..."));
    EXPECT_EQ(log.countContaining("search searchUserInfo results"), 0);
}

// Tells what the log held when it was asked.
class WitnessedHostName final : public platform::HostName {
public:
    explicit WitnessedHostName(const testsupport::CapturedLog& log) : log_(log) {}
    std::optional<std::string> currentHostName() override {
        seen = log_.messages();
        return "mac01.local";
    }
    std::string homeDirectory() override { return ""; }

    std::vector<std::string> seen;

private:
    const testsupport::CapturedLog& log_;
};

TEST_F(DSQueryTest, ThatAUserIsNotInTheDirectoryIsLoggedAheadOfTheLocalInfo) {
    static WitnessedHostName witness(log);
    platform::hostNameService.install(witness);
    logEverything();
    directory.addNode(ldap);
    search();
    ASSERT_FALSE(witness.seen.empty());
    EXPECT_EQ(witness.seen.back(),
              "No user information found in Directory Server for username: alice. Sending local "
              "login information...");
}

TEST_F(DSQueryTest, AFailedUserSearchIsAFailure) {
    logEverything();
    givenUser(corp);
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    EXPECT_EQ(search(), Ends{"failure: connection lost"});
    EXPECT_TRUE(log.holds("Failed to lookup user info."));
}

TEST_F(DSQueryTest, ASearchOnANodeThatDoesNotOpenIsAFailure) {
    givenUser(ldap);
    directory.closeNode(ldap);
    EXPECT_EQ(search(), Ends{"failure: no node to query"});
    EXPECT_EQ(log.countContaining("Failed to lookup"), 0);
}

TEST_F(DSQueryTest, TheUsersRecordsAreLoggedAtLogLevelOne) {
    logEverything();
    givenUser(ldap);
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_TRUE(log.holds("search searchUserInfo results: (record alice). "));
}

TEST_F(DSQueryTest, CallbacksThatAreNotSetAreNotCalled) {
    DSQuery::sharedDSQuery()->search(nullptr, nullptr);
    givenUser(corp);
    DSQuery::sharedDSQuery()->search(nullptr, nullptr);
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    DSQuery::sharedDSQuery()->search(nullptr, nullptr);
    EXPECT_EQ(directory.queries().size(), 1u + 3u + 2u);
}

TEST_F(DSQueryTest, TheCallbacksOfTheLastSearchStay) {
    search();
    EXPECT_TRUE(DSQuery::sharedDSQuery()->success);
    EXPECT_TRUE(DSQuery::sharedDSQuery()->failure);
    DSQuery::sharedDSQuery()->success = nullptr;
    DSQuery::sharedDSQuery()->failure = nullptr;
}

// Group names.

TEST_F(DSQueryTest, SimpleGroupNamesAreFollowedByTheGroupItself) {
    EXPECT_EQ(DSQuery::convertSimpleGroupName({"cn=staff,dc=x", "cn=,dc=y"}, "CORP"),
              (Texts{"CORP\\staff", "cn=staff,dc=x", "CORP\\", "cn=,dc=y"}));
    EXPECT_EQ(DSQuery::convertSimpleGroupName({}, "CORP"), Texts{});
}

TEST_F(DSQueryTest, GroupsOfAnotherFormHaveNoSimpleName) {
    EXPECT_EQ(
        DSQuery::convertSimpleGroupName({"cn=staff", "CN=staff,dc=x", "ou=cn=staff,dc=x", "", "cn"}, "CORP"),
        Texts{});
}

TEST_F(DSQueryTest, ASimpleGroupNameEndsAtItsFirstComma) {
    EXPECT_EQ(DSQuery::convertSimpleGroupName({"cn=staff,ou=groups,dc=x"}, "CORP"),
              (Texts{"CORP\\staff", "cn=staff,ou=groups,dc=x"}));
}
