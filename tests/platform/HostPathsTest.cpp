#include "platform/HostPaths.h"

#include <gtest/gtest.h>

#include <string>

using platform::HostPaths;

TEST(HostPaths, WithoutARootThePathsAreTheDocumentedOnes) {
    EXPECT_STREQ("", HostPaths::root());
    EXPECT_STREQ("/Library/twsys/fernhill.xml", HostPaths::configurationFile());
    EXPECT_STREQ("/Library/Logs/TarnwickSystems", HostPaths::logDirectory());
    EXPECT_STREQ("/etc/hosts", HostPaths::hostsFile());
    EXPECT_STREQ("/etc/hostsDnsRemaps", HostPaths::hostsRecordFile());
    EXPECT_STREQ("/etc/hostsTmp", HostPaths::hostsWorkFile());
    EXPECT_STREQ("/etc/hostsUnfinished", HostPaths::hostsUnfinishedFile());
    EXPECT_STREQ("/usr/local/etc/", HostPaths::updateDirectory());
    EXPECT_STREQ("/usr/local/etc/OstlerUpdate.dmg", HostPaths::updatePackage());
    EXPECT_STREQ("/tmp/tw", HostPaths::packageDirectory());
    EXPECT_STREQ("/Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist",
                 HostPaths::bulwarkdDefinition());
    EXPECT_STREQ("/Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist", HostPaths::twproxyDefinition());
    EXPECT_STREQ("/Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist",
                 HostPaths::ostlerjsDefinition());
    EXPECT_STREQ("/Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist",
                 HostPaths::fernhillDefinition());
    EXPECT_STREQ("/usr/local/bin/com.tarnwicksystems.restartservices.plist",
                 HostPaths::restartServicesDefinition());
    EXPECT_STREQ("/usr/local/etc", HostPaths::helperDirectory());
    EXPECT_STREQ("/usr/local/bin/rootmint", HostPaths::rootmint());
    EXPECT_STREQ("/usr/local/bin/mintroot", HostPaths::mintroot());
    EXPECT_STREQ("/usr/sbin/dsconfigad", HostPaths::dsconfigad());
    EXPECT_STREQ("/opt/likewise/bin/lw-get-status", HostPaths::likewiseStatus());
    EXPECT_STREQ("/usr/bin/adinfo", HostPaths::adinfo());
    EXPECT_STREQ("/Library/Preferences/OpenDirectory/Configurations/LDAPv3", HostPaths::ldapConfigurations());
    EXPECT_STREQ("/etc/ldap/ldap.conf", HostPaths::ldapClientFile());
}

TEST(HostPaths, ARootStandsInFrontOfEveryPath) {
    ASSERT_TRUE(HostPaths::setRoot("/tmp/scratch"));

    EXPECT_STREQ("/tmp/scratch", HostPaths::root());
    EXPECT_STREQ("/tmp/scratch/Library/twsys", HostPaths::settingsDirectory());
    EXPECT_STREQ("/tmp/scratch/usr/local/bin/fernhillupdate", HostPaths::updateHelper());
}

TEST(HostPaths, ARootOfSixtyBytesIsTaken) {
    const std::string root = "/" + std::string(59, 'r');

    EXPECT_TRUE(HostPaths::setRoot(root.c_str()));
    EXPECT_EQ(root + "/Library/twsys", HostPaths::settingsDirectory());
}

TEST(HostPaths, ALongerRootIsRefusedAndChangesNothing) {
    const std::string root = "/" + std::string(60, 'r');

    EXPECT_FALSE(HostPaths::setRoot(root.c_str()));
    EXPECT_STREQ("/Library/twsys", HostPaths::settingsDirectory());
}
