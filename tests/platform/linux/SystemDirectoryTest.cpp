// The directory of this system: its nodes and queries, against a real directory server.

#include "platform/Directory.h"

#include "platform/HostPaths.h"
#include "support/AllocationCounter.h"
#include "support/LoopbackPeer.h"
#include "support/ScratchRoot.h"
#include "support/SlapdServer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <thread>

using namespace platform;
using testsupport::accountEntry;
using testsupport::computerEntry;
using testsupport::groupEntry;
using testsupport::SlapdServer;
using testsupport::writeAll;

namespace {

constexpr char uniqueId[] = "dsAttrTypeStandard:UniqueID";
constexpr char location[] = "dsAttrTypeStandard:AppleMetaNodeLocation";

using Names = std::vector<std::string>;

class SystemDirectory : public testing::Test {
protected:
    static Directory& system() { return directoryService.backend(); }

    static void givenSettings(const std::string& text) { writeAll(HostPaths::ldapClientFile(), text); }

    static Names nodeNames() {
        Names names;
        DirectoryError error;
        EXPECT_TRUE(system().nodeNames(names, error));
        return names;
    }

    static DirectoryQueryTerms terms(const std::string& type, const std::string& attribute,
                                     const std::string& value) {
        DirectoryQueryTerms result;
        result.recordType = type;
        result.attribute = attribute;
        result.queryValue = value;
        return result;
    }

    // The records' names in order, "error: " and its text for a failure.
    static Names found(const DirectoryNodeRef& node, const DirectoryQueryTerms& wanted,
                       bool partial = false) {
        DirectoryError error;
        const auto query = system().queryWithNode(node, wanted, error);
        if (!query) return {"no query: " + error.description};
        query->setDelegate({});
        DirectoryRecords records;
        if (!query->resultsAllowingPartial(partial, records, error)) {
            EXPECT_TRUE(records.empty());
            return {"error: " + error.description};
        }
        Names names;
        for (const auto& record : records) {
            EXPECT_EQ(record->recordType(), wanted.recordType);
            names.push_back(values(*record, kODAttributeTypeRecordName).at(0));
        }
        return names;
    }

    static Names values(const DirectoryRecord& record, const std::string& attribute) {
        DirectoryDetails details;
        DirectoryError error;
        EXPECT_TRUE(record.recordDetailsForAttributes({attribute}, details, error));
        return details[attribute];
    }

    // The only record that fits.
    static std::shared_ptr<const DirectoryRecord> only(const DirectoryNodeRef& node,
                                                       const DirectoryQueryTerms& wanted) {
        DirectoryError error;
        DirectoryRecords records;
        system().queryWithNode(node, wanted, error)->resultsAllowingPartial(false, records, error);
        return records.size() == 1 ? records[0] : throw std::runtime_error("not one record");
    }

    static DirectoryNodeRef named(const std::string& name) {
        DirectoryError error;
        return system().nodeWithName(name, error);
    }

    static DirectoryNodeRef everything() {
        DirectoryError error;
        return system().nodeWithType(kODNodeTypeAuthentication, error);
    }

    testsupport::ScratchRoot root;
};

class SystemDirectoryWithServer : public SystemDirectory {
protected:
    SystemDirectoryWithServer() { givenSettings(server.clientSettings()); }

    DirectoryNodeRef node() { return named(server.nodeName()); }

    SlapdServer server{accountEntry("fernhill-alice", 5001) + accountEntry("fernhill-bob", 5002) +
                           accountEntry("root", 5003) +
                           groupEntry("sales", 2001, "memberUid: fernhill-alice\nmemberUid: fernhill-bob\n") +
                           groupEntry("staff", 2002, "memberUid: fernhill-alice\n") + computerEntry("mac01"),
                       "sizelimit 2\n"};
};

} // namespace

// Nodes.

TEST_F(SystemDirectory, WithoutLdapSettingsThereAreTheLocalNodesAlone) {
    EXPECT_EQ(nodeNames(), (Names{"/Search", "/Local/Default"}));
    EXPECT_NE(named("/Search"), nullptr);
    EXPECT_NE(named("/Local/Default"), nullptr);
    EXPECT_NE(everything(), nullptr);
}

TEST_F(SystemDirectory, LdapSettingsAddANodeOfTheirServersName) {
    givenSettings("URI ldap://ldap.example.com\nBASE dc=x\n");
    EXPECT_EQ(nodeNames(), (Names{"/Search", "/Local/Default", "/LDAPv3/ldap.example.com"}));
    EXPECT_NE(named("/LDAPv3/ldap.example.com"), nullptr);
}

TEST_F(SystemDirectory, ANodeOfAnotherNameOrTypeIsNotThere) {
    DirectoryError error;
    EXPECT_EQ(system().nodeWithName("/LDAPv3/ldap.example.com", error), nullptr);
    EXPECT_EQ(error.description, "no node /LDAPv3/ldap.example.com");
    EXPECT_EQ(system().nodeWithType(0x2205, error), nullptr);
    EXPECT_EQ(error.description, "no node of this type");
}

TEST_F(SystemDirectory, ANodeOfAnotherServerThanTheSettingsNameIsNotThere) {
    givenSettings("URI ldap://ldap.example.com\nBASE dc=x\n");
    DirectoryError error;
    EXPECT_EQ(system().nodeWithName("/LDAPv3/other.example.com", error), nullptr);
    EXPECT_EQ(error.description, "no node /LDAPv3/other.example.com");
}

TEST_F(SystemDirectory, AQueryNeedsANodeAndAKnownMatch) {
    DirectoryQueryTerms wanted = terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "root");
    EXPECT_EQ(found(nullptr, wanted), Names{"no query: no node to query"});
    wanted.matchType = 0x2002;
    EXPECT_EQ(found(named("/Local/Default"), wanted), Names{"no query: no search of this kind"});
}

// The directory server.

TEST_F(SystemDirectoryWithServer, FindsAUserByName) {
    const auto record = only(node(), terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "fernhill-alice"));
    EXPECT_EQ(record->description(), "uid=fernhill-alice,dc=example,dc=com");
    EXPECT_EQ(values(*record, kODAttributeTypeRecordName), Names{"fernhill-alice"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:RealName"), Names{"The user fernhill-alice"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:EMailAddress"), Names{"fernhill-alice@example.com"});
    EXPECT_EQ(values(*record, uniqueId), Names{"5001"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:PrimaryGroupID"), Names{"5001"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:UserShell"), Names{"/bin/sh"});
    EXPECT_EQ(values(*record, kODAttributeTypeNFSHomeDirectory), Names{"/home/fernhill-alice"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:AppleMetaRecordName"),
              Names{"uid=fernhill-alice,dc=example,dc=com"});
    EXPECT_EQ(values(*record, location), Names{server.nodeName()});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:OriginalNodeName"), Names{});
}

TEST_F(SystemDirectoryWithServer, GivesNativeAttributesByTheirLdapNames) {
    const auto record = only(node(), terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "fernhill-alice"));
    EXPECT_EQ(values(*record, "dsAttrTypeNative:objectClass"), (Names{"inetOrgPerson", "posixAccount"}));
    EXPECT_EQ(values(*record, "dsAttrTypeNative:sn"), Names{"fernhill-alice"});
    EXPECT_EQ(values(*record, "dsAttrTypeNative:distinguishedName"),
              Names{"uid=fernhill-alice,dc=example,dc=com"});
}

TEST_F(SystemDirectoryWithServer, GivesItsOwnAttributesWhenAllAreAskedForAlone) {
    DirectoryQueryTerms wanted = terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "fernhill-alice");
    wanted.returnAttributes = kODAttributeTypeStandardOnly;
    const auto record = only(node(), wanted);
    EXPECT_EQ(values(*record, uniqueId), Names{"5001"});
    EXPECT_EQ(values(*record, "dsAttrTypeNative:distinguishedName"), Names{});
}

TEST_F(SystemDirectoryWithServer, FindsGroupsByTheirMembers) {
    const auto byMember = [](const char* member) {
        return terms(kODRecordTypeGroups, kODAttributeTypeGroupMembership, member);
    };
    EXPECT_EQ(found(node(), byMember("fernhill-alice")), (Names{"sales", "staff"}));
    const auto record = only(node(), byMember("fernhill-bob"));
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:RealName"), Names{"sales"});
    EXPECT_EQ(values(*record, "dsAttrTypeStandard:PrimaryGroupID"), Names{"2001"});
    EXPECT_EQ(values(*record, kODAttributeTypeGroupMembership), (Names{"fernhill-alice", "fernhill-bob"}));
}

TEST_F(SystemDirectoryWithServer, FindsAComputerByName) {
    EXPECT_EQ(found(node(), terms(kODRecordTypeComputers, kODAttributeTypeRecordName, "mac01")),
              Names{"mac01"});
    EXPECT_EQ(found(node(), terms(kODRecordTypeComputers, kODAttributeTypeRecordName, "sales")), Names{});
}

TEST_F(SystemDirectoryWithServer, FindsNothingByWhatLdapDoesNotKnow) {
    EXPECT_EQ(found(node(), terms("dsRecTypeStandard:Printers", kODAttributeTypeRecordName, "a")), Names{});
    EXPECT_EQ(found(node(), terms(kODRecordTypeUsers, "dsAttrTypeStandard:OriginalNodeName", "a")), Names{});
    EXPECT_EQ(found(node(), terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "")), Names{});
}

TEST_F(SystemDirectoryWithServer, OurOwnLimitIsNoFailure) {
    DirectoryQueryTerms wanted =
        terms(kODRecordTypeGroups, kODAttributeTypeGroupMembership, "fernhill-alice");
    wanted.maximumResults = 1;
    EXPECT_EQ(found(node(), wanted), Names{"sales"});
}

TEST_F(SystemDirectoryWithServer, ItsLimitIsAFailureUnlessPartOfTheRecordsWillDo) {
    DirectoryQueryTerms wanted = terms(kODRecordTypeUsers, "dsAttrTypeNative:objectClass", "posixAccount");
    EXPECT_EQ(found(node(), wanted), Names{"error: Size limit exceeded"});
    EXPECT_EQ(found(node(), wanted, true), (Names{"fernhill-alice", "fernhill-bob"}));
}

TEST_F(SystemDirectoryWithServer, ThatIsGoneIsAFailureOfItsNodeAlone) {
    const DirectoryNodeRef before = node();
    server.stop();
    const auto wanted = terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "root");
    EXPECT_EQ(found(before, wanted), Names{"error: Can't contact LDAP server"});
    EXPECT_EQ(found(before, wanted, true), Names{"error: Can't contact LDAP server"});
    EXPECT_EQ(found(everything(), wanted), Names{"root"});
}

TEST_F(SystemDirectoryWithServer, ASearchLeavesNothingBehind) {
    const auto search = [this] {
        EXPECT_EQ(found(node(), terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "fernhill-bob")),
                  Names{"fernhill-bob"});
        found(node(), terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "nobody-of-that-name"));
    };
    search();
    search();
    const testsupport::AllocationCounter allocations;
    search();
    EXPECT_EQ(allocations.left(), 0);
}

TEST_F(SystemDirectoryWithServer, IsSearchedBehindTheLocalAccounts) {
    DirectoryQueryTerms wanted = terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "root");
    DirectoryError error;
    DirectoryRecords records;
    system().queryWithNode(everything(), wanted, error)->resultsAllowingPartial(false, records, error);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(values(*records[0], location), Names{"/Local/Default"});
    EXPECT_EQ(values(*records[1], location), Names{server.nodeName()});
    wanted.maximumResults = 1;
    EXPECT_EQ(only(everything(), wanted)->description(), "/Local/Default root");
}

TEST_F(SystemDirectory, ASettingsFileWithAForeignAddressIsAFailureOfItsNode) {
    givenSettings("URI nonsense://host\nBASE dc=x\n");
    const auto wanted = terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "root");
    EXPECT_EQ(found(named("/LDAPv3/host"), wanted), Names{"error: Bad parameter to an ldap routine"});
}

TEST_F(SystemDirectory, AServerThatTalksNonsenseIsAFailureOfItsNode) {
    std::signal(SIGPIPE, SIG_IGN); // as the daemon does
    testsupport::LoopbackListener listener;
    givenSettings("URI ldap://127.0.0.1:" + std::to_string(listener.port()) + "\nBASE dc=x\n");
    const DirectoryNodeRef node = named(nodeNames().back());
    std::thread other([&] {
        testsupport::Peer peer = listener.accept();
        peer.read(2);
        peer.send("HTTP/1.0 400 Bad Request\r\n\r\n");
    });
    const Names ends = found(node, terms(kODRecordTypeUsers, kODAttributeTypeRecordName, "root"));
    other.join();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].rfind("error: ", 0), 0u) << ends[0];
}
