#include "platform/HostPaths.h"

#include <cstring>

namespace platform {
namespace {

constexpr std::size_t longestRoot = 60;
constexpr std::size_t longestPath = 120;

char rootText[longestRoot + 1];

// One path: the documented text, and the same behind the root once there is one.
class HostPath {
public:
    constexpr explicit HostPath(const char* documented) : documented_(documented) {}

    const char* text() {
        if (!rootText[0]) return documented_;
        return rooted_;
    }

    void putBehindRoot() {
        std::strcpy(rooted_, rootText);
        std::strcat(rooted_, documented_);
    }

private:
    const char* documented_;
    char rooted_[longestRoot + longestPath + 1] = {};
};

HostPath settingsDirectoryPath("/Library/twsys");
HostPath configurationFilePath("/Library/twsys/fernhill.xml");
HostPath debugFilePath("/Library/twsys/debug.xml");
HostPath ldapFilePath("/Library/twsys/ldap.xml");
HostPath oemMarkerFilePath("/system/bin/fernhill_oem.xml");
HostPath siblingPreferencesPath("/Library/Preferences/com.tarnwicksystems.lanternguide.plist");
HostPath logDirectoryPath("/Library/Logs/TarnwickSystems");
HostPath kernelExtensionPath("/Library/Extensions/FernhillKext.kext");
HostPath inboundControlSocketPath("/var/run/fernhill/twFernhill_inkext");
HostPath outboundControlSocketPath("/var/run/fernhill/twFernhill_outkext");
HostPath hostsFilePath("/etc/hosts");
HostPath hostsRecordFilePath("/etc/hostsDnsRemaps");
HostPath hostsWorkFilePath("/etc/hostsTmp");
HostPath hostsUnfinishedFilePath("/etc/hostsUnfinished");
HostPath updateHelperPath("/usr/local/bin/fernhillupdate");
HostPath updateCopyHelperPath("/usr/local/bin/fernhillupdatecopy");
HostPath updateDirectoryPath("/usr/local/etc/");
HostPath updatePackagePath("/usr/local/etc/OstlerUpdate.dmg");
HostPath packageDirectoryPath("/tmp/tw");
HostPath dsconfigadPath("/usr/sbin/dsconfigad");
HostPath likewiseStatusPath("/opt/likewise/bin/lw-get-status");
HostPath adinfoPath("/usr/bin/adinfo");
HostPath ldapConfigurationsPath("/Library/Preferences/OpenDirectory/Configurations/LDAPv3");
HostPath ldapClientFilePath("/etc/ldap/ldap.conf");

HostPath bulwarkdDefinitionPath("/Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist");
HostPath twproxyDefinitionPath("/Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist");
HostPath ostlerjsDefinitionPath("/Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist");
HostPath fernhillDefinitionPath("/Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist");
HostPath restartServicesDefinitionPath("/usr/local/bin/com.tarnwicksystems.restartservices.plist");
HostPath helperDirectoryPath("/usr/local/etc");
HostPath rootmintPath("/usr/local/bin/rootmint");
HostPath mintrootPath("/usr/local/bin/mintroot");

HostPath* const allPaths[] = {
    &settingsDirectoryPath,
    &configurationFilePath,
    &debugFilePath,
    &ldapFilePath,
    &oemMarkerFilePath,
    &siblingPreferencesPath,
    &logDirectoryPath,
    &kernelExtensionPath,
    &updateDirectoryPath,
    &updatePackagePath,
    &packageDirectoryPath,
    &inboundControlSocketPath,
    &outboundControlSocketPath,
    &hostsFilePath,
    &hostsRecordFilePath,
    &hostsWorkFilePath,
    &hostsUnfinishedFilePath,
    &updateHelperPath,
    &updateCopyHelperPath,
    &dsconfigadPath,
    &likewiseStatusPath,
    &adinfoPath,
    &ldapConfigurationsPath,
    &bulwarkdDefinitionPath,
    &twproxyDefinitionPath,
    &ostlerjsDefinitionPath,
    &fernhillDefinitionPath,
    &restartServicesDefinitionPath,
    &helperDirectoryPath,
    &rootmintPath,
    &mintrootPath,
    &ldapClientFilePath,
};

} // namespace

bool HostPaths::setRoot(const char* directory) {
    if (std::strlen(directory) > longestRoot) return false;
    std::strcpy(rootText, directory);
    for (HostPath* path : allPaths)
        path->putBehindRoot();
    return true;
}

const char* HostPaths::root() { return rootText; }

const char* HostPaths::settingsDirectory() { return settingsDirectoryPath.text(); }
const char* HostPaths::configurationFile() { return configurationFilePath.text(); }
const char* HostPaths::debugFile() { return debugFilePath.text(); }
const char* HostPaths::ldapFile() { return ldapFilePath.text(); }
const char* HostPaths::oemMarkerFile() { return oemMarkerFilePath.text(); }
const char* HostPaths::siblingPreferences() { return siblingPreferencesPath.text(); }
const char* HostPaths::logDirectory() { return logDirectoryPath.text(); }
const char* HostPaths::kernelExtension() { return kernelExtensionPath.text(); }
const char* HostPaths::inboundControlSocket() { return inboundControlSocketPath.text(); }
const char* HostPaths::outboundControlSocket() { return outboundControlSocketPath.text(); }
const char* HostPaths::hostsFile() { return hostsFilePath.text(); }
const char* HostPaths::hostsRecordFile() { return hostsRecordFilePath.text(); }
const char* HostPaths::hostsWorkFile() { return hostsWorkFilePath.text(); }
const char* HostPaths::hostsUnfinishedFile() { return hostsUnfinishedFilePath.text(); }
const char* HostPaths::updateHelper() { return updateHelperPath.text(); }
const char* HostPaths::updateCopyHelper() { return updateCopyHelperPath.text(); }
const char* HostPaths::updateDirectory() { return updateDirectoryPath.text(); }
const char* HostPaths::updatePackage() { return updatePackagePath.text(); }
const char* HostPaths::packageDirectory() { return packageDirectoryPath.text(); }

const char* HostPaths::dsconfigad() { return dsconfigadPath.text(); }
const char* HostPaths::likewiseStatus() { return likewiseStatusPath.text(); }
const char* HostPaths::adinfo() { return adinfoPath.text(); }
const char* HostPaths::ldapClientFile() { return ldapClientFilePath.text(); }
const char* HostPaths::ldapConfigurations() { return ldapConfigurationsPath.text(); }

const char* HostPaths::bulwarkdDefinition() { return bulwarkdDefinitionPath.text(); }
const char* HostPaths::twproxyDefinition() { return twproxyDefinitionPath.text(); }
const char* HostPaths::ostlerjsDefinition() { return ostlerjsDefinitionPath.text(); }
const char* HostPaths::fernhillDefinition() { return fernhillDefinitionPath.text(); }
const char* HostPaths::restartServicesDefinition() { return restartServicesDefinitionPath.text(); }

const char* HostPaths::helperDirectory() { return helperDirectoryPath.text(); }
const char* HostPaths::rootmint() { return rootmintPath.text(); }
const char* HostPaths::mintroot() { return mintrootPath.text(); }

} // namespace platform
