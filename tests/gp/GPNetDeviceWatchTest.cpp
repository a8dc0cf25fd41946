// The callback on changes of the network.

#include "gp/GPNetDevice.h"
#include "gp/GPThread.h"
#include "support/Patience.h"
#include "support/PlayedNetworkChanges.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using testsupport::PlayedNetworkChanges;

// What the callback saw. Never destroyed, since the watch's thread outlives the test.
struct Calls {
    std::mutex mutex;
    std::condition_variable moved;
    std::vector<std::thread::id> threads;
    int inside = 0;
    int mostInside = 0;
    bool mayReturn = true;

    void waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(moved.wait_for(lock, testsupport::patience, [&] { return threads.size() >= count; }));
    }
};

Calls& calls() {
    static auto* seen = new Calls;
    return *seen;
}

void noteChange() {
    std::unique_lock<std::mutex> lock(calls().mutex);
    calls().threads.push_back(std::this_thread::get_id());
    calls().mostInside = std::max(calls().mostInside, ++calls().inside);
    calls().moved.notify_all();
    calls().moved.wait(lock, [] { return calls().mayReturn; });
    --calls().inside;
}

PlayedNetworkChanges& playedChanges() {
    static auto* changes = new PlayedNetworkChanges;
    changes->install();
    return *changes;
}

TEST(GPNetDeviceWatch, CallsBackOnAThreadOfItsOwnForEachChange) {
    PlayedNetworkChanges& changes = playedChanges();
    EXPECT_TRUE(GPNetDevice::registerIPChanges(noteChange, true));
    changes.change();
    calls().waitFor(1);
    EXPECT_NE(calls().threads[0], std::this_thread::get_id());
    EXPECT_EQ(changes.name(), "createIPAddressListChangeCallback");
    EXPECT_EQ(changes.created(), 1);
}

TEST(GPNetDeviceWatch, NoChangeIsNoCall) {
    PlayedNetworkChanges& changes = playedChanges();
    GPNetDevice::registerIPChanges(noteChange, true);
    ASSERT_TRUE(changes.waitUntilDelivered());
    EXPECT_TRUE(calls().threads.empty());
}

TEST(GPNetDeviceWatch, ASecondChangeDuringTheCallbackIsDeliveredAfterItReturnsOnTheSameThread) {
    PlayedNetworkChanges& changes = playedChanges();
    calls().mayReturn = false;
    GPNetDevice::registerIPChanges(noteChange, true);
    changes.change();
    calls().waitFor(1);
    changes.change();
    {
        std::lock_guard<std::mutex> lock(calls().mutex);
        EXPECT_EQ(calls().threads.size(), 1u);
        calls().mayReturn = true;
        calls().moved.notify_all();
    }
    calls().waitFor(2);
    EXPECT_EQ(calls().mostInside, 1);
    EXPECT_EQ(calls().threads[0], calls().threads[1]);
}

TEST(GPNetDeviceWatch, AWatchThatCannotBeMadeStaysSilent) {
    PlayedNetworkChanges& changes = playedChanges();
    changes.refuse();
    EXPECT_TRUE(GPNetDevice::registerIPChanges(noteChange, false));
    EXPECT_EQ(changes.created(), 1);
    EXPECT_EQ(changes.released(), 0);
}

TEST(GPNetDeviceWatch, InTheForegroundItDoesNotReturnWhileTheWatchRuns) {
    PlayedNetworkChanges& changes = playedChanges();
    int called[2];
    ASSERT_EQ(pipe(called), 0);
    static int toParent;
    toParent = called[1];
    const pid_t child = fork();
    if (child == 0) {
        changes.change();
        GPNetDevice::registerIPChanges(
            [] {
                if (write(toParent, "c", 1) != 1) _exit(2);
            },
            false);
        if (write(toParent, "r", 1) != 1) _exit(3);
        _exit(1);
    }
    close(called[1]);
    char byte = 0;
    EXPECT_EQ(read(called[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'c');
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "the child came back from the watch";
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    EXPECT_EQ(read(called[0], &byte, 1), 0);
    close(called[0]);
}

TEST(GPNetDeviceWatch, IsReleasedOnceTheThreadsAreToldToEnd) {
    PlayedNetworkChanges& changes = playedChanges();
    changes.change();
    EXPECT_TRUE(GPNetDevice::registerIPChanges([] { threadKeepGoing = 0; }, false));
    EXPECT_EQ(changes.released(), 1);
}

} // namespace
