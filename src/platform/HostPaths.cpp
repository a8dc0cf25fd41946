#include "platform/HostPaths.h"

#include <atomic>
#include <cstring>
#include <string>

namespace platform {
namespace {

constexpr std::size_t longestRoot = 60;

char rootText[longestRoot + 1];

// A path that was asked for while there is a root. Never freed.
struct RootedPath {
    const char* documented;
    std::string text;
    RootedPath* next;
};

std::atomic<RootedPath*> rootedPaths{nullptr};

// The documented path, or the same behind the root once there is one. Takes no lock, since a forked child may ask.
const char* behindRoot(const char* documented) {
    if (!rootText[0]) return documented;
    RootedPath* first = rootedPaths;
    for (const RootedPath* path = first; path; path = path->next)
        if (path->documented == documented) return path->text.c_str();
    auto* path = new RootedPath{documented, std::string(rootText) + documented, first};
    while (!rootedPaths.compare_exchange_weak(path->next, path)) {
    }
    return path->text.c_str();
}

} // namespace

bool HostPaths::setRoot(const char* directory) {
    const std::size_t length = std::strlen(directory);
    if (length > longestRoot) return false;
    std::memcpy(rootText, directory, length + 1);
    return true;
}

const char* HostPaths::root() { return rootText; }

const char* HostPaths::settingsDirectory() { return behindRoot("/Library/twsys"); }
const char* HostPaths::configurationFile() { return behindRoot("/Library/twsys/fernhill.xml"); }
const char* HostPaths::debugFile() { return behindRoot("/Library/twsys/debug.xml"); }
const char* HostPaths::ldapFile() { return behindRoot("/Library/twsys/ldap.xml"); }
const char* HostPaths::oemMarkerFile() { return behindRoot("/system/bin/fernhill_oem.xml"); }
const char* HostPaths::siblingPreferences() {
    return behindRoot("/Library/Preferences/com.tarnwicksystems.lanternguide.plist");
}

const char* HostPaths::logDirectory() { return behindRoot("/Library/Logs/TarnwickSystems"); }

const char* HostPaths::kernelExtension() { return behindRoot("/Library/Extensions/FernhillKext.kext"); }
const char* HostPaths::inboundControlSocket() { return behindRoot("/var/run/fernhill/twFernhill_inkext"); }
const char* HostPaths::outboundControlSocket() { return behindRoot("/var/run/fernhill/twFernhill_outkext"); }

const char* HostPaths::hostsFile() { return behindRoot("/etc/hosts"); }
const char* HostPaths::hostsRecordFile() { return behindRoot("/etc/hostsDnsRemaps"); }
const char* HostPaths::hostsWorkFile() { return behindRoot("/etc/hostsTmp"); }
const char* HostPaths::hostsUnfinishedFile() { return behindRoot("/etc/hostsUnfinished"); }

const char* HostPaths::updateHelper() { return behindRoot("/usr/local/bin/fernhillupdate"); }
const char* HostPaths::updateCopyHelper() { return behindRoot("/usr/local/bin/fernhillupdatecopy"); }

const char* HostPaths::updateDirectory() { return behindRoot("/usr/local/etc/"); }
const char* HostPaths::updatePackage() { return behindRoot("/usr/local/etc/OstlerUpdate.dmg"); }

const char* HostPaths::packageDirectory() { return behindRoot("/tmp/tw"); }

const char* HostPaths::dsconfigad() { return behindRoot("/usr/sbin/dsconfigad"); }
const char* HostPaths::likewiseStatus() { return behindRoot("/opt/likewise/bin/lw-get-status"); }
const char* HostPaths::adinfo() { return behindRoot("/usr/bin/adinfo"); }
const char* HostPaths::ldapConfigurations() {
    return behindRoot("/Library/Preferences/OpenDirectory/Configurations/LDAPv3");
}

const char* HostPaths::bulwarkdDefinition() {
    return behindRoot("/Library/LaunchDaemons/com.tarnwicksystems.bulwarkd.plist");
}
const char* HostPaths::twproxyDefinition() {
    return behindRoot("/Library/LaunchDaemons/com.tarnwicksystems.twproxy.plist");
}
const char* HostPaths::ostlerjsDefinition() {
    return behindRoot("/Library/LaunchDaemons/com.tarnwicksystems.ostlerjs.plist");
}
const char* HostPaths::fernhillDefinition() {
    return behindRoot("/Library/LaunchDaemons/com.tarnwicksystems.fernhill.plist");
}
const char* HostPaths::restartServicesDefinition() {
    return behindRoot("/usr/local/bin/com.tarnwicksystems.restartservices.plist");
}

const char* HostPaths::helperDirectory() { return behindRoot("/usr/local/etc"); }
const char* HostPaths::rootmint() { return behindRoot("/usr/local/bin/rootmint"); }
const char* HostPaths::mintroot() { return behindRoot("/usr/local/bin/mintroot"); }

const char* HostPaths::ldapClientFile() { return behindRoot("/etc/ldap/ldap.conf"); }

} // namespace platform
