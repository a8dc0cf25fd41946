#include "platform/linux/LdapNode.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

using namespace platform;

namespace {

// The settings in a file of this content, "uri|base"; "(none)" without any.
std::string settingsIn(const std::string& content) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("ldap.conf"), content);
    const auto settings = readLdapSettings(folder.file("ldap.conf"));
    return settings ? settings->uri + "|" + settings->base : "(none)";
}

std::string nameOf(const char* uri) { return LdapNode({uri, "dc=x"}).name(); }

} // namespace

TEST(LdapSettings, AreTheUriAndBaseLines) {
    EXPECT_EQ(
        settingsIn(
            "#\n# LDAP Defaults\n#\n\nBASE\tdc=example,dc=com\nURI\tldap://a ldap://b:666\nSIZELIMIT 12\n"),
        "ldap://a ldap://b:666|dc=example,dc=com");
    EXPECT_EQ(settingsIn("  uri ldap://a \r\n  Base  dc=x, dc=y  \t\r\n"), "ldap://a|dc=x, dc=y");
}

TEST(LdapSettings, OfTheLastLinesCount) {
    EXPECT_EQ(settingsIn("URI ldap://a\nURI ldap://b\nBASE dc=x\nBASE dc=y"), "ldap://b|dc=y");
}

TEST(LdapSettings, AreNoneWithoutBothLines) {
    EXPECT_EQ(settingsIn(""), "(none)");
    EXPECT_EQ(settingsIn("URI ldap://a\n"), "(none)");
    EXPECT_EQ(settingsIn("BASE dc=x\n"), "(none)");
    EXPECT_EQ(settingsIn("URI\nBASE dc=x\n"), "(none)");
    EXPECT_EQ(settingsIn("#URI ldap://a\n#BASE dc=x\n"), "(none)");
    EXPECT_FALSE(readLdapSettings("/nonexistent/ldap.conf"));
}

TEST(LdapNode, IsNamedByTheHostOfItsFirstAddress) {
    EXPECT_EQ(nameOf("ldap://ldap.example.com"), "/LDAPv3/ldap.example.com");
    EXPECT_EQ(nameOf("ldaps://ldap.example.com:636/"), "/LDAPv3/ldap.example.com:636");
    EXPECT_EQ(nameOf("ldap://first ldap://second"), "/LDAPv3/first");
    EXPECT_EQ(nameOf("ldap://first,ldap://second"), "/LDAPv3/first");
    EXPECT_EQ(nameOf("host"), "/LDAPv3/host");
    EXPECT_EQ(nameOf("ldap://"), "/LDAPv3/");
}
