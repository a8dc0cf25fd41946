// The local accounts of this system, and account files that are played in a mount namespace of a child's own.

#include "platform/linux/LocalAccounts.h"

#include "support/NetworkNamespace.h"
#include "support/Patience.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

using namespace platform;

namespace {

constexpr int noNamespace = 77;

using Names = std::vector<std::string>;

DirectoryRecords find(const char* type, const char* attribute, const std::string& value, int limit = 0) {
    DirectoryQueryTerms terms;
    terms.recordType = type;
    terms.attribute = attribute;
    terms.queryValue = value;
    terms.maximumResults = limit;
    DirectoryRecords records;
    DirectoryError error;
    EXPECT_TRUE(LocalAccounts().find(terms, records, error));
    return records;
}

Names values(const DirectoryRecords& records, const char* attribute) {
    Names all;
    for (const auto& record : records) {
        DirectoryDetails details;
        DirectoryError error;
        EXPECT_TRUE(record->recordDetailsForAttributes({attribute}, details, error));
        all.insert(all.end(), details[attribute].begin(), details[attribute].end());
    }
    return all;
}

Names namesOf(const DirectoryRecords& records) { return values(records, kODAttributeTypeRecordName); }

bool writeLine(const char* path, const std::string& line) {
    return static_cast<bool>((std::ofstream(path) << line).flush());
}

bool enterNamespace() {
    const std::string user = "0 " + std::to_string(getuid()) + " 1";
    const std::string group = "0 " + std::to_string(getgid()) + " 1";
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeLine("/proc/self/setgroups", "deny") &&
           writeLine("/proc/self/uid_map", user) && writeLine("/proc/self/gid_map", group);
}

bool putInPlaceOf(const char* file, const std::string& other) {
    return mount(other.c_str(), file, nullptr, MS_BIND, nullptr) == 0;
}

// Runs `story` on a machine with these accounts and groups and answers its exit status.
template <class Story>
int onMachineWith(const std::string& accounts, const std::string& groups, Story story) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("passwd"), accounts);
    testsupport::writeAll(folder.file("group"), groups);
    testsupport::writeAll(folder.file("nsswitch"), "passwd: files\ngroup: files\n");
    std::fflush(nullptr);
    const pid_t child = testsupport::forkAlone();
    if (child == 0) {
        alarm(testsupport::patience.count());
        if (!enterNamespace() || !putInPlaceOf("/etc/passwd", folder.file("passwd")) ||
            !putInPlaceOf("/etc/group", folder.file("group")) ||
            !putInPlaceOf("/etc/nsswitch.conf", folder.file("nsswitch")))
            _exit(noNamespace);
        story();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

void expectPassed(int status) {
    if (status == noNamespace) GTEST_SKIP() << "no mount namespace can be made here";
    EXPECT_EQ(status, 0);
}

const std::string accounts = "root:x:0:0:root:/root:/bin/sh\n"
                             "alice:x:1001:100:Alice Smith,Room 1,,:/home/shared:/bin/bash\n"
                             "bob:x:1002:100::/home/shared:/bin/sh\n";

} // namespace

TEST(LocalAccounts, KnowTheSuperuser) {
    const DirectoryRecords found = find(kODRecordTypeUsers, kODAttributeTypeRecordName, "root");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->recordType(), kODRecordTypeUsers);
    EXPECT_EQ(found[0]->description(), "/Local/Default root");
    EXPECT_EQ(values(found, "dsAttrTypeStandard:UniqueID"), Names{"0"});
    EXPECT_EQ(values(found, "dsAttrTypeStandard:AppleMetaNodeLocation"), Names{"/Local/Default"});
    EXPECT_EQ(values(found, "dsAttrTypeStandard:OriginalNodeName"), Names{});
}

TEST(LocalAccounts, KnowTheSuperusersGroup) {
    const DirectoryRecords found = find(kODRecordTypeGroups, kODAttributeTypeRecordName, "root");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->recordType(), kODRecordTypeGroups);
    EXPECT_EQ(values(found, "dsAttrTypeStandard:PrimaryGroupID"), Names{"0"});
}

TEST(LocalAccounts, DoNotKnowEverybody) {
    EXPECT_TRUE(find(kODRecordTypeUsers, kODAttributeTypeRecordName, "fernhill-nobody").empty());
    EXPECT_TRUE(find(kODRecordTypeUsers, kODAttributeTypeRecordName, "").empty());
    EXPECT_TRUE(find(kODRecordTypeGroups, kODAttributeTypeRecordName, "fernhill-nobody").empty());
    EXPECT_TRUE(find(kODRecordTypeComputers, kODAttributeTypeRecordName, "root").empty());
}

TEST(LocalAccounts, AreFoundByTheirAttributes) {
    expectPassed(onMachineWith(accounts, "root:x:0:\n", [] {
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, kODAttributeTypeNFSHomeDirectory, "/home/shared")),
                  (Names{"alice", "bob"}));
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, kODAttributeTypeNFSHomeDirectory, "/home/shared", 1)),
                  Names{"alice"});
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, "dsAttrTypeStandard:UniqueID", "1002")), Names{"bob"});
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, "dsAttrTypeStandard:UserShell", "/bin/bash")),
                  Names{"alice"});
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, "dsAttrTypeStandard:PrimaryGroupID", "100")),
                  (Names{"alice", "bob"}));
        EXPECT_EQ(namesOf(find(kODRecordTypeUsers, "dsAttrTypeStandard:OriginalNodeName", "")), Names{});
    }));
}

TEST(LocalAccounts, HaveTheirRealNameInFrontOfTheFirstComma) {
    expectPassed(onMachineWith(accounts, "root:x:0:\n", [] {
        EXPECT_EQ(values(find(kODRecordTypeUsers, kODAttributeTypeRecordName, "alice"),
                         "dsAttrTypeStandard:RealName"),
                  Names{"Alice Smith"});
        EXPECT_EQ(values(find(kODRecordTypeUsers, kODAttributeTypeRecordName, "bob"),
                         "dsAttrTypeStandard:RealName"),
                  Names{""});
    }));
}

TEST(LocalAccounts, AreFoundInTheirGroups) {
    const std::string groups = "root:x:0:\nsales:x:1001:bob,alice\nstaff:x:50:alice\nadmins:x:1002:bob\n";
    expectPassed(onMachineWith(accounts, groups, [] {
        const auto found = find(kODRecordTypeGroups, kODAttributeTypeGroupMembership, "alice");
        EXPECT_EQ(namesOf(found), (Names{"sales", "staff"}));
        EXPECT_EQ(values(found, "dsAttrTypeStandard:RealName"), (Names{"sales", "staff"}));
        EXPECT_EQ(values(found, "dsAttrTypeStandard:PrimaryGroupID"), (Names{"1001", "50"}));
        EXPECT_EQ(values(found, kODAttributeTypeGroupMembership), (Names{"bob", "alice", "alice"}));
        EXPECT_EQ(namesOf(find(kODRecordTypeGroups, kODAttributeTypeGroupMembership, "carol")), Names{});
    }));
}

TEST(LocalAccounts, AreFoundUpToTheLimitOfGroupsToo) {
    const std::string groups = "root:x:0:\nsales:x:1001:alice\nstaff:x:50:alice\n";
    expectPassed(onMachineWith(accounts, groups, [] {
        EXPECT_EQ(namesOf(find(kODRecordTypeGroups, kODAttributeTypeGroupMembership, "alice", 1)),
                  Names{"sales"});
    }));
}

TEST(LocalAccounts, MayHaveLongEntries) {
    const std::string longName(5000, 'n');
    expectPassed(onMachineWith("root:x:0:0:" + longName + ":/root:/bin/sh\n", "root:x:0:\n", [&] {
        EXPECT_EQ(values(find(kODRecordTypeUsers, kODAttributeTypeRecordName, "root"),
                         "dsAttrTypeStandard:RealName"),
                  Names{longName});
    }));
}

TEST(LocalAccounts, OfALineThatHasNoMoreThanAPlusHaveEmptyTexts) {
    // Files that once asked for the network's accounts may still end so.
    expectPassed(onMachineWith(accounts + "+\n", "root:x:0:\n+\n", [] {
        const auto found = find(kODRecordTypeUsers, "dsAttrTypeStandard:UniqueID", "0");
        EXPECT_EQ(namesOf(found), (Names{"root", "+"}));
        EXPECT_EQ(values(found, "dsAttrTypeStandard:UserShell"), (Names{"/bin/sh", ""}));
        EXPECT_EQ(values(found, kODAttributeTypeNFSHomeDirectory), (Names{"/root", ""}));
        EXPECT_EQ(namesOf(find(kODRecordTypeGroups, "dsAttrTypeStandard:PrimaryGroupID", "0")),
                  (Names{"root", "+"}));
    }));
}
