#include "platform/linux/LdapNode.h"

#include "support/Await.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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

TEST(LdapSettings, AreReadFromAFileThatNoProgramInherits) {
    const testsupport::TemporaryFolder folder;
    const std::string pipe = folder.file("ldap.conf"); // so that reading takes as long as the test wants
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::thread reading([&] { EXPECT_TRUE(readLdapSettings(pipe)); });
    const int end = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    const std::string text = "URI ldap://a\nBASE dc=x\n";
    EXPECT_EQ(write(end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    int waiting = -1;
    EXPECT_TRUE(testsupport::comesTrue([&] { return ioctl(end, FIONREAD, &waiting) == 0 && waiting == 0; }));
    for (const auto& [number, target] : testsupport::handedDown())
        EXPECT_NE(target, pipe);
    close(end);
    reading.join();
}

TEST(LdapSettings, StandInAFileOfAnyLength) {
    const std::string ends = "\nURI ldap://a\nBASE dc=x\n";
    for (const std::size_t length : {4095, 4096, 4097, 8192, 20000})
        EXPECT_EQ(settingsIn(std::string(length - ends.size(), '#') + ends), "ldap://a|dc=x") << length;
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

TEST(LdapNode, NamesTheLibraryThatCannotBeLoaded) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need descriptors of their own";
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    DirectoryQueryTerms terms;
    terms.recordType = platform::kODRecordTypeUsers;
    terms.attribute = platform::kODAttributeTypeRecordName;
    platform::DirectoryRecords records;
    platform::DirectoryError error;
    EXPECT_FALSE(platform::LdapNode({"ldap://127.0.0.1:1", "dc=example"}).find(terms, records, error));
    EXPECT_NE(error.description.find("libldap"), std::string::npos) << error.description;

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(platform::LdapNode({"ldap://127.0.0.1:1", "dc=example"}).find(terms, records, error));
    EXPECT_EQ(error.description.find("libldap"), std::string::npos) << error.description;
}
