#include "agent/UpdatePrompts.h"

#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "gp/GPDate.h"
#include "gp/GPLog.h"
#include "gp/Owned.h"
#include "platform/ChildProcess.h"
#include "platform/Clock.h"
#include "platform/HostPaths.h"

#include <cstdio>
#include <cstring>

using platform::HostPaths;

std::atomic<std::uint8_t> updating{0};

namespace {

constexpr unsigned settlingSeconds = 300;
constexpr int deadlineHour = 18;
constexpr unsigned pollSeconds = 10;
constexpr int countdownMinutes = 10;

// Neither a missing program nor a failing one is reported, and nothing marks the machine as ready again.
void runUpdate() {
    const char* helper = HostPaths::updateHelper();
    Configuration::setUpdateReady(false);
    std::printf("cmd is %s", helper);
    std::fflush(stdout);
    platform::runShellCommand(helper);
}

// Sleeps the full time, however old the reader of the agent link is already.
void settle() {
    const auto settled = Owned<GPDate>::adopt(OstComm::responseThreadStarted());
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    if (settled && now->compareDate(settled.get()) < 0) platform::clock().sleepSeconds(settlingSeconds);
}

// This evening, local time, which may have passed.
Owned<GPDate> makeDeadline() {
    auto deadline = Owned<GPDate>::adopt(GPDate::now());
    deadline->setHour(deadlineHour);
    deadline->setMinute(0);
    deadline->setSecond(0);
    return deadline;
}

// Negative when the deadline has passed.
int secondsUntil(GPDate* deadline) {
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    const long microseconds = static_cast<long>(deadline->clockTime() - now->clockTime());
    return static_cast<int>(microseconds / 1000000);
}

// Whether the deadline has been passed by a whole second.
bool hasPassed(GPDate* deadline) {
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    return deadline->compareDate(now.get()) < 0;
}

// Shows one dialog a minute. True when the update is to run: after a press, or when the count ran to its end,
// since the user's silence does not stop the update.
bool countDown() {
    for (int minutes = countdownMinutes; minutes >= 1; --minutes) {
        if (updatingPopUp(minutes)) return true;
        if (!updating) return false;
    }
    return true;
}

// Asks the user and waits for the evening. True when the update is to run, false when it was stopped.
bool isToRun(GPDate* deadline, int seconds) {
    if (!updating) return false;
    if (updatePopUp(seconds)) return true;
    while (updating) {
        if (Configuration::isLogLevel(1)) logf("updateThread updatingpopup time check");
        if (!hasPassed(deadline)) {
            platform::clock().sleepSeconds(pollSeconds);
            continue;
        }
        if (updating && countDown()) return true;
    }
    return false;
}

// Downloads what the parameters name and frees them.
bool fetch(THREADPARAMETERS* parameters) {
    const auto owned = Owned<THREADPARAMETERS>::adopt(parameters);
    const char* package = HostPaths::updatePackage();
    if (Configuration::isLogLevel(1))
        logf("updateThread downloading the file: %s to: %s\n", owned->url, package);
    const bool fetched = downloadFileFromUrl(owned->url);
    if (!fetched && Configuration::isLogLevel(1))
        logf("updateThread unable to download the file: %s to: %s\n", owned->url, package);
    delete[] owned->url;
    return fetched;
}

} // namespace

// cppcheck-suppress noDestructor // the text outlives the object: the update thread frees it
THREADPARAMETERS::THREADPARAMETERS(const char* address) : url(new char[std::strlen(address) + 1]) {
    std::memcpy(url, address, std::strlen(address) + 1);
}

void* updateThread(void* parameters) {
    logf("updateThread entry");
    updating = 1;
    if (fetch(static_cast<THREADPARAMETERS*>(parameters))) {
        settle();
        Configuration::setUpdateReady(true);
        const auto deadline = makeDeadline();
        const int seconds = secondsUntil(deadline.get());
        if (isToRun(deadline.get(), seconds)) runUpdate();
    }
    updating = 0;
    return nullptr;
}

void* updateNowThread(void*) {
    runUpdate();
    return nullptr;
}
