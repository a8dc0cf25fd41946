#include "platform/linux/LdapWords.h"

#include "platform/Directory.h"

#include <gtest/gtest.h>

using namespace platform;

using Names = std::vector<std::string>;

TEST(LdapWords, ARecordsNameDependsOnItsType) {
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, kODAttributeTypeRecordName), Names{"uid"});
    EXPECT_EQ(ldapAttributes(kODRecordTypeGroups, kODAttributeTypeRecordName), Names{"cn"});
    EXPECT_EQ(ldapAttributes(kODRecordTypeComputers, kODAttributeTypeRecordName), Names{"cn"});
}

TEST(LdapWords, AGroupsRealNameIsTheBestThatThereIs) {
    EXPECT_EQ(ldapAttributes(kODRecordTypeGroups, "dsAttrTypeStandard:RealName"),
              (Names{"apple-group-realname", "displayName", "cn"}));
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, "dsAttrTypeStandard:RealName"), Names{"cn"});
}

TEST(LdapWords, StandardAttributesHaveTheUsualNames) {
    const std::string type = kODRecordTypeUsers;
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:UniqueID"), Names{"uidNumber"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:PrimaryGroupID"), Names{"gidNumber"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:GroupMembership"), Names{"memberUid"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:NFSHomeDirectory"), Names{"homeDirectory"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:UserShell"), Names{"loginShell"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:EMailAddress"), Names{"mail"});
    EXPECT_EQ(ldapAttributes(type, "dsAttrTypeStandard:PrimaryNTDomain"), Names{"sambaDomainName"});
}

TEST(LdapWords, ANativeAttributeKeepsItsName) {
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, "dsAttrTypeNative:memberOf"), Names{"memberOf"});
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, "dsAttrTypeNative:distinguishedName"),
              (Names{"distinguishedName", "entryDN"}));
}

TEST(LdapWords, OtherAttributesHaveNone) {
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, "dsAttrTypeStandard:OriginalNodeName"), Names{});
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, "dsAttrTypeNative:"), Names{});
    EXPECT_EQ(ldapAttributes(kODRecordTypeUsers, ""), Names{});
}

TEST(LdapFilter, AsksForTheTypeAndTheValue) {
    EXPECT_EQ(ldapFilter(kODRecordTypeUsers, kODAttributeTypeRecordName, "alice"),
              "(&(|(objectClass=posixAccount)(objectClass=inetOrgPerson))(|(uid=alice)))");
    EXPECT_EQ(ldapFilter(kODRecordTypeGroups, "dsAttrTypeStandard:RealName", "sales"),
              "(&(|(objectClass=posixGroup)(objectClass=groupOfNames)(objectClass=apple-group))"
              "(|(apple-group-realname=sales)(displayName=sales)(cn=sales)))");
}

TEST(LdapFilter, IsNoneForWhatLdapDoesNotKnow) {
    EXPECT_EQ(ldapFilter("dsRecTypeStandard:Printers", kODAttributeTypeRecordName, "a"), "");
    EXPECT_EQ(ldapFilter(kODRecordTypeUsers, "dsAttrTypeStandard:OriginalNodeName", "a"), "");
}

TEST(LdapFilter, EscapesWhatHasAMeaningInIt) {
    EXPECT_EQ(escapedForFilter("alice"), "alice");
    EXPECT_EQ(escapedForFilter("a*(b)\\c"), "a\\2a\\28b\\29\\5cc");
    EXPECT_EQ(escapedForFilter(std::string("a\0b", 3)), "a\\00b");
    EXPECT_EQ(escapedForFilter("m\xC3\xBCller"), "m\xC3\xBCller");
}
