#include "app/Daemon.h"

#include "agent/OstComm.h"
#include "agent/Updater.h"
#include "config/Configuration.h"
#include "config/FilterCheck.h"
#include "config/FilterIPAddresses.h"
#include "gp/GPAlgorithm.h"
#include "gp/GPAutoReleasePool.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "identity/UserAuth.h"
#include "packet/PacketFilter.h"
#include "platform/ChildProcess.h"
#include "platform/EndSignals.h"
#include "platform/HostPaths.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

// Set by every logon report; nothing reads it.
std::atomic<bool> ipAddressesNeeded{false};

void setSignalDispositions() {
    for (int ignored : {SIGCHLD, SIGTSTP, SIGTTOU, SIGTTIN, SIGPIPE})
        std::signal(ignored, SIG_IGN);
    platform::handleEndSignals(signalHandler);
}

void runStagedUpdate() {
    if (!Configuration::isUpdateReady()) return;
    Configuration::setUpdateReady(false);
    const char* helper = platform::HostPaths::updateCopyHelper();
    std::printf("cmd is %s", helper);
    std::fflush(stdout);
    platform::runShellCommand(helper);
}

} // namespace

int daemonStart() {
    auto* pool = new GPAutoReleasePool;
    setSignalDispositions();
    logf("======================================");
    logf("Ostler Interceptor Started");
    logf("version: %s  (internal library version: %s)", Updater::versionString(),
         GPAlgorithm::GPLibVersion());
    Configuration::loadConfig();
    Configuration::loadRemoteServers();
    Configuration::checkDebugConfig();
    UserAuth::registerLoginChanges(loginChanged, true);
    Configuration::setOstlerEnabled(true);
    FilterCheck::setServerToLocalhost();
    FilterIPAddresses::startIPAddressManager();
    const int status = PacketFilter::start();
    pool->drain();
    return status;
}

void signalHandler(int signal) {
    if (signal != SIGTERM && signal != SIGINT) {
        std::printf("[SIGNALHANDLER] Unregistered signal: %d\n", signal);
        return;
    }
    OstComm::Instance()->clearPopups();
    if (signal == SIGINT) std::printf(" - SIGINT: %d\n", signal);
    if (signal == SIGTERM) {
        std::printf("\nSIGTERM: %d\n", signal);
        runStagedUpdate();
    }
    PacketFilter::removeRules();
    std::printf("Exit.");
    std::exit(0); // NOLINT(concurrency-mt-unsafe): the one thread that ends the process
}

void loginChanged(const char*) {
    logf("login changed");
    const auto name = Owned<GPString>::adopt(UserAuth::consoleName());
    if (!name) return;
    Configuration::setLocalUserName(name->cstr());
    Configuration::setCachedUserName(name->cstr());
    GPThread::taskOnBackground(setUserLogonThread, nullptr);
}

void* setUserLogonThread(void*) {
    const char* user = Configuration::cachedUserName();
    logf("setUserLogonThread Configuration::cachedUserName() <%s>", user ? user : "(null)");
    char source[] = "directory";
    // The name is read again: the wait for the link may have outlasted the user who was there before.
    OstComm::Instance()->setUserLogonCommand(const_cast<char*>(Configuration::cachedUserName()), source);
    ipAddressesNeeded = true;
    return nullptr;
}
