#include "platform/HostPaths.h"

#include "support/GuardedBytes.h"

#include <gtest/gtest.h>

#include <string>

using platform::HostPaths;

namespace {

struct Row {
    const char* (*path)();
    const char* documented;
};

constexpr Row rows[] = {
    {HostPaths::settingsDirectory, "/Library/twsys"},
    {HostPaths::configurationFile, "/Library/twsys/fernhill.xml"},
    {HostPaths::debugFile, "/Library/twsys/debug.xml"},
    {HostPaths::ldapFile, "/Library/twsys/ldap.xml"},
    {HostPaths::oemMarkerFile, "/system/bin/fernhill_oem.xml"},
    {HostPaths::siblingPreferences, "/Library/Preferences/com.tarnwicksystems.lanternguide.plist"},
    {HostPaths::logDirectory, "/Library/Logs/TarnwickSystems"},
    {HostPaths::kernelExtension, "/Library/Extensions/FernhillKext.kext"},
    {HostPaths::inboundControlSocket, "/var/run/fernhill/twFernhill_inkext"},
    {HostPaths::outboundControlSocket, "/var/run/fernhill/twFernhill_outkext"},
    {HostPaths::hostsFile, "/etc/hosts"},
    {HostPaths::hostsRecordFile, "/etc/hostsDnsRemaps"},
    {HostPaths::hostsWorkFile, "/etc/hostsTmp"},
    {HostPaths::hostsUnfinishedFile, "/etc/hostsUnfinished"},
    {HostPaths::updateHelper, "/usr/local/bin/fernhillupdate"},
    {HostPaths::updateCopyHelper, "/usr/local/bin/fernhillupdatecopy"},
    {HostPaths::updateDirectory, "/usr/local/etc/"},
    {HostPaths::updatePackage, "/usr/local/etc/OstlerUpdate.dmg"},
    {HostPaths::packageDirectory, "/tmp/tw"},
    {HostPaths::dsconfigad, "/usr/sbin/dsconfigad"},
    {HostPaths::likewiseStatus, "/opt/likewise/bin/lw-get-status"},
    {HostPaths::adinfo, "/usr/bin/adinfo"},
    {HostPaths::ldapConfigurations, "/Library/Preferences/OpenDirectory/Configurations/LDAPv3"},
    {HostPaths::bulwarkdDefinition, "/Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist"},
    {HostPaths::twproxyDefinition, "/Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist"},
    {HostPaths::ostlerjsDefinition, "/Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist"},
    {HostPaths::fernhillDefinition, "/Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist"},
    {HostPaths::restartServicesDefinition, "/usr/local/bin/com.tarnwicksystems.restartservices.plist"},
    {HostPaths::helperDirectory, "/usr/local/etc"},
    {HostPaths::rootmint, "/usr/local/bin/rootmint"},
    {HostPaths::mintroot, "/usr/local/bin/mintroot"},
    {HostPaths::ldapClientFile, "/etc/ldap/ldap.conf"},
};

} // namespace

TEST(HostPaths, WithoutARootThePathsAreTheDocumentedOnes) {
    EXPECT_STREQ("", HostPaths::root());
    for (const Row& row : rows)
        EXPECT_STREQ(row.documented, row.path());
}

TEST(HostPaths, ARootStandsInFrontOfEveryPath) {
    ASSERT_TRUE(HostPaths::setRoot("/tmp/scratch"));

    EXPECT_STREQ("/tmp/scratch", HostPaths::root());
    for (const Row& row : rows)
        EXPECT_EQ(std::string("/tmp/scratch") + row.documented, row.path());
}

TEST(HostPaths, TheTextOfAPathStaysTheSame) {
    ASSERT_TRUE(HostPaths::setRoot("/tmp/scratch"));
    for (const Row& row : rows)
        EXPECT_EQ(row.path(), row.path());
}

TEST(HostPaths, ARootOfSixtyBytesIsTaken) {
    const std::string root = "/" + std::string(59, 'r');

    EXPECT_TRUE(HostPaths::setRoot(root.c_str()));
    EXPECT_EQ(root + "/Library/twsys", HostPaths::settingsDirectory());
}

TEST(HostPaths, NothingBehindTheTextOfARootIsRead) {
    const std::string root = "/tmp/scratch";
    const testsupport::GuardedBytes text(root + '\0');

    EXPECT_TRUE(HostPaths::setRoot(reinterpret_cast<const char*>(text.data())));
    EXPECT_EQ(root, HostPaths::root());
}

TEST(HostPaths, ALongerRootIsRefusedAndChangesNothing) {
    const std::string root = "/" + std::string(60, 'r');

    EXPECT_FALSE(HostPaths::setRoot(root.c_str()));
    EXPECT_STREQ("/Library/twsys", HostPaths::settingsDirectory());
}
