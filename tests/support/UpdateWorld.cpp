#include "support/UpdateWorld.h"

#include "agent/OstComm.h"
#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "platform/FileManager.h"
#include "platform/HostPaths.h"
#include "platform/UrlSession.h"
#include "support/Await.h"
#include "support/Patience.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

namespace testsupport {
namespace {

// The text of an element in a configuration file.
std::string markIn(const std::string& text) {
    const std::string open = "<UpdateReady>";
    const auto at = text.find(open);
    if (at == std::string::npos) return "(none)";
    const auto begin = at + open.size();
    return text.substr(begin, text.find('<', begin) - begin);
}

} // namespace

UpdateWorld::UpdateWorld() {
    setenv("TZ", "TEST-2", 1); // two hours ahead of universal time
    tzset();
    platform::urlSessionService.install(platform::urlSessionService.backend());
    platform::fileManagerService.install(platform::fileManagerService.backend());
    std::filesystem::create_directories(platform::HostPaths::updateDirectory());
    addHelper(platform::HostPaths::updateHelper(), "update");
    addHelper(platform::HostPaths::updateCopyHelper(), "copy");
    Configuration::setLogLevel(1);
    link.startAgent();
    OstComm::Instance();
    link.agent().awaitFrame(); // the agent has taken the connection
    link.awaitLog("OstComm responseThread starting");
    clock.letSleepsPass(false);
    clock.setEventWait(patienceMicroseconds, false);
}

void UpdateWorld::addHelper(const char* path, const std::string& name) const {
    const std::string seen = link.root.path() + "/seen";
    writeAll(path, "#!/bin/sh\ncp '" + link.root.configurationFile() + "' '" + seen + "'\necho run >> '" +
                       link.root.path() + "/" + name + "-runs'\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

void UpdateWorld::push(const std::string& url) {
    link.agent().push(R"({"bypass_on_failure":true,"update_url":")" + url + R"(","other":1})");
}

void UpdateWorld::settle() {
    EXPECT_TRUE(clock.waitForSleepers(1));
    clock.advanceSeconds(300);
}

int UpdateWorld::secondsUntilSix() {
    const std::time_t now = clock.seconds();
    std::tm day{};
    localtime_r(&now, &day);
    return 18 * 3600 - (day.tm_hour * 3600 + day.tm_min * 60 + day.tm_sec);
}

bool UpdateWorld::hasEnded() {
    // The line of the download is written behind the flag's setting.
    return comesTrue(
        [this] { return link.log.countContaining("updateThread downloading") > 0 && updating == 0; });
}

std::string UpdateWorld::package(const std::string& name) const {
    return platform::HostPaths::updateDirectory() + name;
}

std::string UpdateWorld::readyMark() const { return markIn(readAll(link.root.configurationFile())); }

int UpdateWorld::runsOf(const std::string& name) const {
    return static_cast<int>(readAll(link.root.path() + "/" + name + "-runs").size() / 4);
}

int UpdateWorld::updateRuns() const { return runsOf("update"); }

int UpdateWorld::updateCopyRuns() const { return runsOf("copy"); }

std::string UpdateWorld::markSeen() const { return markIn(readAll(link.root.path() + "/seen")); }

} // namespace testsupport
