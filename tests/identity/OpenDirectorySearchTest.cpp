// The search in Open Directory, against a directory that the test plays.

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "identity/DSQuery.h"
#include "support/DirectoryWorld.h"

using namespace platform;

namespace {

constexpr char ldap[] = "/LDAPv3/ldap.example.com";

class OpenDirectorySearch : public testsupport::DirectoryWorld {
protected:
    void givenGroup(const std::string& id, DirectoryDetails details) {
        details.insert({{"GroupMembership", {"alice"}}, {"PrimaryGroupID", {id}}});
        directory.add(ldap, kODRecordTypeGroups, details);
    }

    // A group of this name with everything that it needs.
    void givenWholeGroup(const std::string& id, const std::string& name) {
        givenGroup(id, {{"RecordName", {name}},
                        {"RealName", {name + " people", "second"}},
                        {"AppleMetaRecordName", {"cn=" + name}}});
    }
};

} // namespace

TEST_F(OpenDirectorySearch, FillsTheInfoFromUserGroupsAndComputer) {
    givenUser(ldap, {{"AppleMetaRecordName", {"uid=alice,dc=x"}}, {"EMailAddress", {"alice@example.com"}}});
    givenWholeGroup("1001", "sales");
    givenComputer(
        ldap, {{"RecordName", {"mac01.example.com", "mac01"}}, {"AppleMetaRecordName", {"cn=mac01,dc=x"}}});
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "alice");
    EXPECT_EQ(shown(found.userDN), "uid=alice,dc=x");
    EXPECT_EQ(shown(found.userOU), "(none)");
    EXPECT_EQ(found.groups, (Texts{"sales people", "cn=sales"}));
    EXPECT_EQ(shown(found.computerName), "mac01.example");
    EXPECT_EQ(shown(found.computerDN), "cn=mac01,dc=x");
    EXPECT_EQ(shown(found.userFormat), "directory");
}

TEST_F(OpenDirectorySearch, AsksForUserGroupsAndComputerInThisOrder) {
    givenUser(ldap);
    givenWholeGroup("1001", "sales");
    givenComputer(ldap);
    search();
    EXPECT_EQ(
        directory.detailQuestions(),
        (Texts{"record alice: dsAttrTypeStandard:AppleMetaNodeLocation dsAttrTypeStandard:OriginalNodeName",
               "record alice: dsAttrTypeStandard:AppleMetaRecordName dsAttrTypeStandard:RecordName",
               "record sales: dsAttrTypeStandard:AppleMetaRecordName dsAttrTypeStandard:RealName "
               "dsAttrTypeStandard:PrimaryGroupID",
               "record mac01: dsAttrTypeStandard:AppleMetaRecordName dsAttrTypeStandard:RecordName"}));
    const std::string place = ldap;
    EXPECT_EQ(
        directory.queries(),
        (Texts{
            "/Search dsRecTypeStandard:Users dsAttrTypeStandard:RecordName=alice dsAttributesStandardAll 0",
            place + " dsRecTypeStandard:Users dsAttrTypeStandard:RecordName=alice dsAttributesAll 1",
            place + " dsRecTypeStandard:Groups dsAttrTypeStandard:GroupMembership=alice dsAttributesAll 0",
            place + " dsRecTypeStandard:Computers dsAttrTypeStandard:RecordName=mac01 dsAttributesAll 1"}));
}

TEST_F(OpenDirectorySearch, KeepsItsLog) {
    logEverything();
    givenUser(ldap);
    givenWholeGroup("1001", "sales");
    search();
    for (const char* line :
         {"Process Open Directory info.", "ODSearch results: (record alice). ",
          "searchODMembership results: (record sales). ", "Seeing Group name: sales people. "})
        EXPECT_TRUE(log.holds(line)) << line;
}

TEST_F(OpenDirectorySearch, WithoutLogLevelOneItLogsNothingAndAsksForNoDescription) {
    givenUser(ldap);
    givenWholeGroup("1001", "sales");
    search();
    EXPECT_EQ(log.countContaining("OD"), 0);
    EXPECT_EQ(log.countContaining("Open Directory"), 0);
    EXPECT_EQ(log.countContaining("Seeing"), 0);
    EXPECT_EQ(directory.descriptionsAsked(), 0);
}

TEST_F(OpenDirectorySearch, StoresNoRelay) {
    givenUser(ldap, {{"EMailAddress", {"alice@example.com"}}, {"userPrincipalName", {"alice@x"}}});
    search();
    EXPECT_STREQ(Configuration::getLastRelayUser("alice")->cstr(), "");
}

TEST_F(OpenDirectorySearch, AComputerThatIsNotThereHasTheHostsNameWithoutItsExtension) {
    givenUser(ldap);
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_EQ(shown(found.computerDN), "(none)");
}

TEST_F(OpenDirectorySearch, AFailedComputerSearchDoesNotFailTheSearch) {
    logEverything();
    givenUser(ldap);
    givenWholeGroup("1001", "sales");
    directory.failQueries(kODRecordTypeComputers, "connection lost");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(found.groups, (Texts{"sales people", "cn=sales"}));
    EXPECT_EQ(shown(found.computerName), "mac01");
    EXPECT_TRUE(log.holds("Failed to resolve computer information."));
}

TEST_F(OpenDirectorySearch, AFailedMembershipSearchEndsTheSearchWithWhatIsKnown) {
    logEverything();
    givenUser(ldap, {{"AppleMetaRecordName", {"uid=alice,dc=x"}}});
    givenComputer(ldap, {{"AppleMetaRecordName", {"cn=mac01,dc=x"}}});
    directory.failQueries(kODRecordTypeGroups, "connection lost");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.userDN), "uid=alice,dc=x");
    EXPECT_FALSE(found.groups);
    EXPECT_EQ(shown(found.computerDN), "(none)");
    EXPECT_TRUE(log.holds("Failed to resolve group membership."));
    EXPECT_EQ(log.countContaining("Failed to resolve computer"), 0);
}

TEST_F(OpenDirectorySearch, AUserRecordWithoutDetailsIsAFailureAndTheSearchGoesOn) {
    logEverything();
    directory.addMute(ldap, kODRecordTypeUsers, {{"RecordName", {"alice"}}}, "no details");
    givenWholeGroup("1001", "sales");
    givenComputer(ldap);
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    EXPECT_TRUE(log.holds("Failed to process Open Directory results."));
    EXPECT_EQ(shown(found.username), "(none)");
    EXPECT_EQ(found.groups, (Texts{"sales people", "cn=sales"}));
    EXPECT_EQ(shown(found.computerName), "mac01");
}

TEST_F(OpenDirectorySearch, AComputerRecordWithoutDetailsIsAFailureAndThenASuccess) {
    givenUser(ldap);
    directory.addMute(ldap, kODRecordTypeComputers, {{"RecordName", {"mac01"}}}, "no details");
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    EXPECT_EQ(shown(found.computerName), "mac01");
}

TEST_F(OpenDirectorySearch, ItsFailuresAreLoggedAtLogLevelOneAlone) {
    directory.addMute(ldap, kODRecordTypeUsers, {{"RecordName", {"alice"}}}, "no details");
    directory.failQueries(kODRecordTypeComputers, "connection lost");
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    directory.failQueries(kODRecordTypeGroups, "connection lost");
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    EXPECT_EQ(log.countContaining("Failed"), 0);
}

// Groups.

TEST_F(OpenDirectorySearch, AGroupWithId999IsDroppedAndOneWithId1000IsKept) {
    givenUser(ldap);
    givenWholeGroup("999", "system");
    givenWholeGroup("1000", "staff");
    search();
    EXPECT_EQ(found.groups, (Texts{"staff people", "cn=staff"}));
}

TEST_F(OpenDirectorySearch, GroupIdsAreReadAsFarAsTheyAreNumbers) {
    givenUser(ldap);
    givenWholeGroup("-1000", "negative");
    givenWholeGroup("many", "word");
    givenWholeGroup("", "blank");
    givenWholeGroup("1000x", "tail");
    givenWholeGroup("99999999999999999999999", "huge");
    search();
    EXPECT_EQ(found.groups, (Texts{"tail people", "cn=tail", "huge people", "cn=huge"}));
}

TEST_F(OpenDirectorySearch, GroupIdsAreReadInBaseTen) {
    givenUser(ldap);
    givenWholeGroup("0x1000", "hexadecimal");
    givenWholeGroup("01000", "padded");
    givenWholeGroup("0777", "small");
    search();
    EXPECT_EQ(found.groups, (Texts{"padded people", "cn=padded"}));
}

TEST_F(OpenDirectorySearch, GroupsThatLackAnAttributeAreDropped) {
    givenUser(ldap);
    givenGroup("1001", {{"RecordName", {"a"}}, {"RealName", {"A"}}});
    givenGroup("1002", {{"RecordName", {"b"}}, {"AppleMetaRecordName", {"cn=b"}}});
    directory.add(ldap, kODRecordTypeGroups,
                  {{"GroupMembership", {"alice"}}, {"RealName", {"C"}}, {"AppleMetaRecordName", {"cn=c"}}});
    givenGroup("1004", {{"RecordName", {"d"}}, {"RealName", {}}, {"AppleMetaRecordName", {"cn=d"}}});
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(found.groups, Texts{});
}

TEST_F(OpenDirectorySearch, AGroupWithoutDetailsIsDroppedAndNoFailure) {
    givenUser(ldap);
    directory.addMute(ldap, kODRecordTypeGroups,
                      {{"GroupMembership", {"alice"}}, {"PrimaryGroupID", {"1001"}}}, "no details");
    givenWholeGroup("1002", "sales");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(found.groups, (Texts{"sales people", "cn=sales"}));
}

TEST_F(OpenDirectorySearch, AUserWithoutGroupsHasAnEmptyList) {
    givenUser(ldap);
    search();
    EXPECT_EQ(found.groups, Texts{});
}

TEST_F(OpenDirectorySearch, OnlyTheFirstRecordOfAKindCounts) {
    testsupport::PlayedDirectory other;
    other.add(ldap, kODRecordTypeGroups, {{"RecordName", {"group"}}, {"AppleMetaRecordName", {"cn=group"}}});
    other.add(ldap, kODRecordTypeUsers, {{"RecordName", {"x", "first"}}});
    other.add(ldap, kODRecordTypeUsers, {{"RecordName", {"y"}}, {"AppleMetaRecordName", {"uid=y"}}});
    other.add(ldap, kODRecordTypeComputers, {{"RecordName", {"one"}}});
    other.addMute(ldap, kODRecordTypeComputers, {{"RecordName", {"two"}}}, "no details");
    DSQuery::sharedDSQuery()->processODResults(other.records(), &found);
    EXPECT_EQ(shown(found.username), "x");
    EXPECT_EQ(shown(found.userDN), "(none)");
    EXPECT_EQ(shown(found.computerName), "one");
    EXPECT_EQ(shown(found.computerDN), "(none)");
    EXPECT_EQ(log.countContaining("Failed"), 0);
}

TEST_F(OpenDirectorySearch, TheUsersRecordsSetTheHostsNameAndTheComputersReplaceIt) {
    DSQuery::sharedDSQuery()->processODResults({}, &found);
    EXPECT_EQ(shown(found.computerName), "mac01");
    host.host = std::nullopt;
    DSQuery::sharedDSQuery()->processODResults({}, &found);
    EXPECT_EQ(shown(found.computerName), "(none)");
    EXPECT_EQ(shown(found.username), "(none)");
    testsupport::PlayedDirectory other;
    other.add(ldap, kODRecordTypeComputers, {{"RecordName", {"mac01.corp.example.com"}}});
    DSQuery::sharedDSQuery()->processODResults(other.records(), &found);
    EXPECT_EQ(shown(found.computerName), "mac01.corp.example");
}
