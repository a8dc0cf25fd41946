#include "app/AdministrativeCommands.h"

#include "agent/Updater.h"
#include "config/Configuration.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/GPTask.h"
#include "gp/Owned.h"
#include "packet/PacketFilter.h"
#include "packet/TCPPacket.h"
#include "platform/ChildProcess.h"
#include "platform/HostPaths.h"

#include <cstdio>

using platform::HostPaths;

namespace {

// What the device report resolves when it is given no name.
constexpr const char* wellKnownHost = "www.apple.com";

// Runs a command, which it takes over, and waits for it. What it prints and whether it worked is not looked at.
void run(GPString* command) {
    const auto owned = Owned<GPString>::adopt(command);
    if (GPString* output = GPTask::task(owned->cstr(), true, false)) output->release();
}

// The same through the shell, with the command's output on this program's own.
void runInShell(GPString* command) {
    const auto owned = Owned<GPString>::adopt(command);
    std::fflush(stdout);
    platform::runShellCommand(owned->cstr());
}

void printMacAddress() {
    const auto addresses = Owned<GPArray>::adopt(GPNetDevice::macAddresses(GPIPTypeAny));
    if (addresses && addresses->count() > 0)
        std::printf("the Mac address: %s\n", static_cast<GPString*>(addresses->objectAtIndex(0))->cstr());
    else
        std::printf("no Mac addresses avaliable"); // the next line runs on behind it
}

void printResolution(const char* host, bool isGiven) {
    if (TCPPacket::resolve(host) != 0)
        std::printf("successfully resolved the host\n");
    else if (isGiven)
        std::printf("unable to resolve: %s\n", host);
    else
        std::printf("unable to resolve the host\n");
}

} // namespace

void loadDaemon(const char* path) { run(GPString::format("launchctl load %s", path)); }

// No shell runs here, so nothing fills the console user's name in: the words go to sudo as they stand.
void loadAgent(const char* path) {
    run(GPString::format("sudo -u $(stat -f%%Su /dev/console) launchctl load %s", path));
}

void unloadDaemon(const char* path) { run(GPString::format("launchctl unload %s", path)); }

void unloadDaemons() {
    setLogEcho(true);
    for (const char* definition : {HostPaths::bulwarkdDefinition(), HostPaths::twproxyDefinition(),
                                   HostPaths::ostlerjsDefinition(), HostPaths::fernhillDefinition()})
        run(GPString::format("launchctl unload %s", definition));
    PacketFilter::removeRules();
    logs("unloaded daemons; removed rules.");
}

void reloadDaemons() {
    setLogEcho(true);
    logs("running reloadDaemon...\n");
    runInShell(GPString::format("launchctl unload %s", HostPaths::restartServicesDefinition()));
    runInShell(GPString::format("launchctl load %s", HostPaths::restartServicesDefinition()));
}

void rebootMachine() { run(new GPString("launchctl reboot system")); }

void completeUpdate(GPString* name) {
    if (name->length() > 0 && Updater::finishUpdate(name->cstr()))
        logf("successfully updated to version: %s", Updater::versionString());
    else
        logs("unable to complete the update");
}

void printDeviceReport(GPString* host) {
    std::printf("Device output:\n");
    std::printf("the UUID: %s\n", Configuration::machineGUID());
    printMacAddress();
    printResolution(host ? host->cstr() : wellKnownHost, host != nullptr);
    std::printf("version is: ");
}

void installDaemons() {
    setLogEcho(true);
    run(GPString::format("mkdir %s", HostPaths::helperDirectory()));
    run(GPString::format("%s -dir %s", HostPaths::rootmint(), HostPaths::helperDirectory()));
    run(GPString::format("mkdir %s", HostPaths::logDirectory()));
    run(GPString::format("chown root:wheel %s", HostPaths::logDirectory()));
    run(GPString::format("chmod ugo+rwx %s", HostPaths::logDirectory()));
    run(new GPString(HostPaths::mintroot()));
    // In an order of their own, not that of the unloading.
    for (const char* definition : {HostPaths::bulwarkdDefinition(), HostPaths::ostlerjsDefinition(),
                                   HostPaths::fernhillDefinition(), HostPaths::twproxyDefinition()})
        run(GPString::format("launchctl load %s", definition));
}
