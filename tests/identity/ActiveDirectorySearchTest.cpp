// The search in Active Directory, against a directory that the test plays.

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "identity/DSQuery.h"
#include "support/DirectoryWorld.h"

#include <algorithm>

using namespace platform;

namespace {

constexpr char corp[] = "/Active Directory/CORP/All Domains";

class ActiveDirectorySearch : public testsupport::DirectoryWorld {
protected:
    // The stored relay name of alice, and its format, with a slash between; a slash alone without a relay.
    static std::string relay() {
        return std::string(Configuration::getLastRelayUser("alice")->cstr()) + "/" +
               Configuration::getLastRelayUserFormat("alice")->cstr();
    }
};

} // namespace

TEST_F(ActiveDirectorySearch, FillsTheInfoFromUserAndComputer) {
    givenUser(corp, {{"PrimaryNTDomain", {"CORP", "OTHER"}},
                     {"distinguishedName", {"CN=alice,DC=corp"}},
                     {"memberOf", {"CN=Staff,DC=corp", "CN=Sales,DC=corp"}}});
    givenComputer(corp, {{"name", {"MAC01"}}, {"distinguishedName", {"CN=MAC01,DC=corp"}}});
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.username), "alice");
    EXPECT_EQ(shown(found.userDN), "CORP"); // the NT domain, for all its name
    EXPECT_EQ(shown(found.userOU), "CN=alice,DC=corp");
    EXPECT_EQ(found.groups, (Texts{"CN=Staff,DC=corp", "CN=Sales,DC=corp"}));
    EXPECT_EQ(shown(found.computerName), "MAC01");
    EXPECT_EQ(shown(found.computerDN), "CN=MAC01,DC=corp");
    EXPECT_EQ(shown(found.computerOU), "(none)");
    EXPECT_EQ(shown(found.computerUUID), "(none)");
}

TEST_F(ActiveDirectorySearch, AsksForItsAttributesInTheirOrder) {
    givenUser(corp);
    givenComputer(corp);
    search();
    EXPECT_EQ(
        directory.detailQuestions(),
        (Texts{"record alice: dsAttrTypeStandard:AppleMetaNodeLocation dsAttrTypeStandard:OriginalNodeName",
               "record alice: dsAttrTypeNative:userPrincipalName dsAttrTypeStandard:EMailAddress "
               "dsAttrTypeStandard:RecordName dsAttrTypeStandard:PrimaryNTDomain "
               "dsAttrTypeNative:distinguishedName dsAttrTypeNative:memberOf",
               "record mac01: dsAttrTypeNative:distinguishedName dsAttrTypeNative:name"}));
    EXPECT_EQ(directory.queries().size(), 3u);
}

TEST_F(ActiveDirectorySearch, KeepsItsLog) {
    logEverything();
    givenUser(corp);
    givenComputer(corp);
    search();
    for (const char* line : {"processADResults for user.", "ADSearch userInfo results: (record alice). ",
                             "ADSearch searchComputerInfo mac01.local results: (record mac01). ",
                             "processADResults for computer."})
        EXPECT_TRUE(log.holds(line)) << line;
}

TEST_F(ActiveDirectorySearch, WithoutLogLevelOneItLogsNothingAndAsksForNoDescription) {
    givenUser(corp);
    givenComputer(corp);
    search();
    EXPECT_EQ(log.countContaining("AD"), 0);
    EXPECT_EQ(directory.descriptionsAsked(), 0);
}

TEST_F(ActiveDirectorySearch, AComputerThatIsNotThereHasTheHostsNameInFull) {
    givenUser(corp);
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.computerName), "mac01.local");
    EXPECT_EQ(shown(found.computerDN), "(none)");
}

TEST_F(ActiveDirectorySearch, AFailedComputerSearchDoesNotFailTheSearch) {
    logEverything();
    givenUser(corp, {{"distinguishedName", {"CN=alice,DC=corp"}}});
    directory.failQueries(kODRecordTypeComputers, "connection lost");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(shown(found.userOU), "CN=alice,DC=corp");
    EXPECT_EQ(shown(found.computerName), "mac01.local");
    EXPECT_TRUE(log.holds("Failed to resolve computer information."));
}

TEST_F(ActiveDirectorySearch, AFailedComputerSearchIsLoggedAtLogLevelOneAlone) {
    givenUser(corp);
    directory.failQueries(kODRecordTypeComputers, "connection lost");
    EXPECT_EQ(search(), Ends{"success"});
    EXPECT_EQ(log.countContaining("Failed"), 0);
}

TEST_F(ActiveDirectorySearch, AUserRecordWithoutDetailsIsAFailureAndTheSearchGoesOn) {
    // The node comes from the list of names: this record does not tell it either.
    directory.addMute(corp, kODRecordTypeUsers, {{"RecordName", {"alice"}}}, "no details");
    givenComputer(corp, {{"name", {"MAC01"}}});
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    EXPECT_TRUE(log.holds("Failed to process Active Directory results.")); // without log level 1
    EXPECT_EQ(shown(found.username), "(none)");
    EXPECT_EQ(shown(found.computerName), "MAC01");
}

TEST_F(ActiveDirectorySearch, TheRecordsAreLoggedAheadOfWhatTheyLack) {
    logEverything();
    directory.addMute(corp, kODRecordTypeUsers, {{"RecordName", {"alice"}}}, "no details");
    search();
    const Texts lines = log.messages();
    const auto failed = std::find(lines.begin(), lines.end(), "Failed to process Active Directory results.");
    ASSERT_NE(failed, lines.end());
    EXPECT_NE(std::find(lines.begin(), failed, "ADSearch userInfo results: (record alice). "), failed);
}

TEST_F(ActiveDirectorySearch, AComputerRecordWithoutDetailsIsAFailureAndThenASuccess) {
    givenUser(corp);
    directory.addMute(corp, kODRecordTypeComputers, {{"RecordName", {"mac01"}}}, "no details");
    EXPECT_EQ(search(), (Ends{"failure: no details", "success"}));
    EXPECT_EQ(shown(found.username), "alice");
    EXPECT_EQ(shown(found.computerName), "mac01.local");
}

// The relay name.

TEST_F(ActiveDirectorySearch, AUserWithAUpnGetsTheFormatEmailAndARelayEntryWithTheUpn) {
    givenUser(corp, {{"userPrincipalName", {"alice@corp.example.com", "second"}},
                     {"EMailAddress", {"alice@example.com"}},
                     {"PrimaryNTDomain", {"CORP"}}});
    search();
    EXPECT_EQ(shown(found.userFormat), "email");
    EXPECT_EQ(relay(), "alice@corp.example.com/email");
    EXPECT_EQ(shown(found.userDN), "CORP");
}

TEST_F(ActiveDirectorySearch, AUserWithAMailAddressGetsTheFormatEmailAndARelayEntryWithIt) {
    givenUser(corp, {{"EMailAddress", {"alice@example.com"}}, {"PrimaryNTDomain", {"CORP"}}});
    search();
    EXPECT_EQ(shown(found.userFormat), "email");
    EXPECT_EQ(relay(), "alice@example.com/email");
}

TEST_F(ActiveDirectorySearch, AUserWithOnlyDomainAndNameGetsARelayNameOfBothAndTheFormatDirectory) {
    givenUser(corp, {{"PrimaryNTDomain", {"CORP"}}});
    search();
    EXPECT_EQ(shown(found.userFormat), "directory");
    EXPECT_EQ(relay(), "CORP\\alice/directory");
}

TEST_F(ActiveDirectorySearch, AUserWithoutAMailAttributeOrDomainGetsNoRelayEntry) {
    givenUser(corp, {{"distinguishedName", {"CN=alice,DC=corp"}}});
    givenComputer(corp, {{"name", {"MAC01"}}, {"distinguishedName", {"CN=MAC01,DC=corp"}}});
    search();
    EXPECT_EQ(shown(found.userFormat), "directory");
    EXPECT_EQ(relay(), "/");
    EXPECT_EQ(log.countContaining("Configuration::setLastRelay"), 0);
}

TEST_F(ActiveDirectorySearch, AnAddressThatReadsLikeTheRecordNameIsARelayAllTheSame) {
    givenUser(corp, {{"EMailAddress", {"alice"}}});
    search();
    EXPECT_EQ(relay(), "alice/email");
}

TEST_F(ActiveDirectorySearch, TheRelayIsStoredUnderTheRecordsFirstName) {
    givenUser(corp, {{"RecordName", {"asmith", "alice"}}, {"PrimaryNTDomain", {"CORP"}}});
    search();
    EXPECT_EQ(shown(found.username), "asmith");
    EXPECT_EQ(relay(), "/");
    EXPECT_STREQ(Configuration::getLastRelayUser("asmith")->cstr(), "CORP\\asmith");
}

TEST_F(ActiveDirectorySearch, LooksUpTheLastRelayOfTheUserWithoutUsingIt) {
    Configuration::setLastRelay("alice", "old", "old");
    logEverything();
    givenUser(corp);
    search();
    EXPECT_TRUE(log.holds("Configuration::getLastRelayUser looking for alice"));
    EXPECT_EQ(relay(), "old/old");
}

// The records themselves.

TEST_F(ActiveDirectorySearch, OnlyTheFirstRecordOfAKindCounts) {
    testsupport::PlayedDirectory other;
    other.add(corp, kODRecordTypeGroups, {{"RecordName", {"group"}}, {"name", {"group"}}});
    other.add(corp, kODRecordTypeUsers, {{"RecordName", {"x", "first"}}});
    other.add(corp, kODRecordTypeUsers, {{"RecordName", {"y"}}, {"PrimaryNTDomain", {"SECOND"}}});
    other.add(corp, kODRecordTypeComputers, {{"name", {"one"}}});
    other.addMute(corp, kODRecordTypeComputers, {{"name", {"two"}}}, "no details");
    DSQuery::sharedDSQuery()->processADResults(other.records(), &found);
    EXPECT_EQ(shown(found.username), "x");
    EXPECT_EQ(shown(found.userDN), "(none)");
    EXPECT_EQ(shown(found.computerName), "one");
    EXPECT_EQ(log.countContaining("Failed"), 0);
}

TEST_F(ActiveDirectorySearch, ARecordWithoutANameGetsNoRelayEntry) {
    testsupport::PlayedDirectory other;
    other.add(corp, kODRecordTypeUsers, {{"PrimaryNTDomain", {"CORP"}}});
    DSQuery::sharedDSQuery()->processADResults(other.records(), &found);
    EXPECT_EQ(shown(found.username), "(none)");
    EXPECT_EQ(shown(found.userDN), "CORP");
    EXPECT_EQ(log.countContaining("Configuration::setLastRelay"), 0);
}

TEST_F(ActiveDirectorySearch, NoRecordsChangeNothing) {
    found.username = "before";
    found.computerName = "before";
    DSQuery::sharedDSQuery()->processADResults({}, &found);
    EXPECT_EQ(shown(found.username), "before");
    EXPECT_EQ(shown(found.computerName), "before");
}

TEST_F(ActiveDirectorySearch, AnAttributeWithoutValuesIsNone) {
    givenUser(corp,
              {{"userPrincipalName", {}}, {"EMailAddress", {}}, {"PrimaryNTDomain", {}}, {"memberOf", {}}});
    search();
    EXPECT_EQ(shown(found.userDN), "(none)");
    EXPECT_FALSE(found.groups);
    EXPECT_EQ(relay(), "/");
}
