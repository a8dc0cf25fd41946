#include "packet/PacketFilter.h"

#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "platform/HostPaths.h"
#include "support/AllocationCounter.h"
#include "support/Await.h"
#include "support/CapturedLog.h"
#include "support/ForkedChild.h"
#include "support/ManualClock.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedKernelControl.h"
#include "support/PlayedNames.h"
#include "support/PlayedNetworkChanges.h"
#include "support/ScratchRoot.h"
#include "support/StandInPrograms.h"
#include "support/ThreadStarts.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

using testsupport::CapturedLog;
using testsupport::ManualClock;
using testsupport::PlayedKernelControl;

namespace {

class PacketFilterStart : public testing::Test {
protected:
    PacketFilterStart() {
        clock_.letSleepsPass(true); // GPTask waits for its child by the clock
        extension_.install();
        network_->install();
    }

    testsupport::ScratchRoot root_;
    CapturedLog log_;
    testsupport::StandInPrograms programs_;
    ManualClock& clock_ = ManualClock::installed();
    PlayedKernelControl& extension_ = testsupport::lastingKernelControl();
    testsupport::PlayedNetworkChanges* network_ = new testsupport::PlayedNetworkChanges;
};

// Until the polling thread, the only one that sleeps, has gone to sleep that often.
void awaitSleep(ManualClock& clock, int times) {
    EXPECT_TRUE(testsupport::comesTrue([&] { return clock.sleptMicroseconds() >= times * 10000000; }));
}

void pollStatistics(PlayedKernelControl& extension) {
    extension.install();
    auto* parameters = new CONTROLSOCKETTHREADPARAMETERS;
    parameters->socket = 42;
    std::thread(reportAppStatsThread, parameters).detach();
}

} // namespace

TEST_F(PacketFilterStart, ASilentKextloadCountsAsLoaded) {
    programs_.add("kextload", "exit 0");

    EXPECT_TRUE(PacketFilter::addRules());

    EXPECT_EQ(std::vector<std::string>{std::string("kextload ") + platform::HostPaths::kernelExtension()},
              programs_.calls());
    EXPECT_TRUE(log_.messages().empty());
}

TEST_F(PacketFilterStart, WhenVerboseALoadedExtensionIsToldOf) {
    Configuration::setVerboseMode(true);
    programs_.add("kextload", "exit 0");

    EXPECT_TRUE(PacketFilter::addRules());

    EXPECT_TRUE(log_.holds("Loaded FernhillKext module."));
}

TEST_F(PacketFilterStart, WhateverKextloadPrintsCountsAsFailure) {
    for (const char* text : {"fine", "error", "failed", "ailed error"}) {
        programs_.add("kextload", std::string("printf '") + text + "'");

        EXPECT_FALSE(PacketFilter::addRules()) << text;

        EXPECT_TRUE(log_.holds(std::string("[ERROR]: error loading FernhillKext: ") + text));
    }
}

TEST_F(PacketFilterStart, RemoveRulesDoesNothingAndAnswersTrue) {
    EXPECT_TRUE(PacketFilter::removeRules());
    EXPECT_TRUE(programs_.calls().empty());
}

TEST_F(PacketFilterStart, WithoutTheExtensionTheProcessNeverEndsAndStartsNoListener) {
    programs_.add("kextload", "echo no");
    EXPECT_TRUE(testsupport::neverEnds([] { PacketFilter::start(); }));

    EXPECT_EQ(0, log_.countContaining("Starting OSX System Interface"));
}

TEST_F(PacketFilterStart, WithoutTheExtensionTheProcessSleepsTenSecondsAtATime) {
    programs_.add("kextload", "echo no");
    std::thread([] { PacketFilter::start(); }).detach();
    ASSERT_TRUE(network_->waitUntilDelivered()); // the loading has come to its end
    clock_.letSleepsPass(false);
    ASSERT_TRUE(clock_.waitForSleepers(1));
    const std::int64_t slept = clock_.sleptMicroseconds();

    clock_.advance(9999999);
    std::this_thread::yield();
    EXPECT_EQ(slept, clock_.sleptMicroseconds());
    clock_.advance(1);

    while (clock_.sleptMicroseconds() == slept)
        std::this_thread::yield();
    EXPECT_EQ(slept + 10000000, clock_.sleptMicroseconds());
}

TEST_F(PacketFilterStart, TheNetworkIsWatchedWhateverTheLoadingGave) {
    programs_.add("kextload", "echo no");

    std::thread([] { PacketFilter::start(); }).detach();

    EXPECT_TRUE(network_->waitUntilDelivered());
    EXPECT_EQ(1, network_->created());
}

// What had been run by the time that each of the threads was started.
testsupport::StandInPrograms* programsOfStart = nullptr;
std::vector<std::size_t> callsAtStarts;

int startAndNoteCalls(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                      void* argument) {
    callsAtStarts.push_back(programsOfStart->calls().size());
    return testsupport::startThread(thread, attributes, function, argument);
}

TEST_F(PacketFilterStart, TheExtensionIsLoadedBeforeTheNetworkIsWatched) {
    programs_.add("kextload", "exit 0");
    extension_.refuseSockets();
    programsOfStart = &programs_;
    testsupport::playThreadStarts(startAndNoteCalls);

    EXPECT_TRUE(PacketFilter::start());

    testsupport::playThreadStarts(nullptr);
    EXPECT_EQ((std::vector<std::size_t>{1, 1}), callsAtStarts) << "the watch and the outbound listener";
    EXPECT_TRUE(network_->waitUntilDelivered());
}

TEST_F(PacketFilterStart, AddRulesLeavesNothingBehind) {
    programs_.add("kextload", "exit 0");
    PacketFilter::addRules();
    const auto left = [] {
        const testsupport::AllocationCounter allocations;
        PacketFilter::addRules();
        return allocations.left();
    };
    EXPECT_EQ(0, left());

    programs_.add("kextload", "echo no");
    left();
    EXPECT_EQ(0, left());
}

TEST_F(PacketFilterStart, DisabledFilteringIsSaidAndTheStartGoesOn) {
    Configuration::setFilteringDisabled(true);
    programs_.add("kextload", "exit 0");
    extension_.answerVersion(7);

    EXPECT_TRUE(PacketFilter::start());

    EXPECT_TRUE(log_.holds("FILTERING IS DISABLED"));
    EXPECT_EQ(1, log_.countContaining("Starting OSX System Interface: INPUT"));
}

TEST_F(PacketFilterStart, WhenVerboseTheExtensionVersionBuiltForIsToldOf) {
    Configuration::setVerboseMode(true);
    programs_.add("kextload", "exit 0");
    extension_.refuseSockets();

    EXPECT_TRUE(PacketFilter::start());

    EXPECT_TRUE(log_.holds("Built with FernhillKernel version 0.0.1"));
}

TEST_F(PacketFilterStart, BothListenersAreConnected) {
    programs_.add("kextload", "exit 0");

    std::thread([] { PacketFilter::start(); }).detach();

    EXPECT_NE(-1, extension_.waitForControl("twFernhill_inkext"));
    EXPECT_NE(-1, extension_.waitForControl("twFernhill_outkext"));
}

TEST_F(PacketFilterStart, WithoutTheOutboundControlTheInboundSideRunsOn) {
    programs_.add("kextload", "exit 0");
    extension_.forget("twFernhill_outkext");

    EXPECT_TRUE(testsupport::neverEnds([] { PacketFilter::start(); }));

    EXPECT_TRUE(log_.holds("ERROR: Could not get ID for FernhillKernel. Make sure it is installed."));
}

TEST(ReportAppStats, TheFirstPollComesAfter300Seconds) {
    CapturedLog log;
    PlayedKernelControl& extension = testsupport::lastingKernelControl();
    ManualClock& clock = ManualClock::installed();
    pollStatistics(extension);
    ASSERT_TRUE(clock.waitForSleepers(1));
    EXPECT_EQ(0, extension.statisticsReads());

    for (int second = 0; second < 300; second += 10) {
        EXPECT_EQ(0, extension.statisticsReads()) << "at " << second << " seconds";
        clock.advanceSeconds(10);
        if (second < 290) {
            ASSERT_TRUE(clock.waitForSleepers(1));
        }
    }

    ASSERT_TRUE(extension.waitForStatistics(1));
    EXPECT_EQ(2000u, extension.statisticsLength());
    EXPECT_EQ("here is the buffer to work from", extension.statisticsBuffer());
}

TEST(ReportAppStats, TheThreadReleasesItsArgument) {
    testsupport::lastingKernelControl().install();
    auto* parameters = new CONTROLSOCKETTHREADPARAMETERS;
    parameters->retain();

    std::thread(reportAppStatsThread, parameters).detach();

    ASSERT_TRUE(ManualClock::installed().waitForSleepers(1));
    EXPECT_EQ(2, parameters->retainonly());
    parameters->releaseonly();
    parameters->release();
}

TEST(ReportAppStats, EachPollIsDue300SecondsAfterTheOneBefore) {
    CapturedLog log;
    PlayedKernelControl& extension = testsupport::lastingKernelControl();
    ManualClock& clock = ManualClock::installed();
    pollStatistics(extension);
    ASSERT_TRUE(clock.waitForSleepers(1));
    clock.advanceSeconds(300);
    ASSERT_TRUE(extension.waitForStatistics(1));
    awaitSleep(clock, 2);
    EXPECT_EQ(1, extension.statisticsReads());

    clock.advanceSeconds(300);

    EXPECT_TRUE(extension.waitForStatistics(2));
    EXPECT_EQ(2000u, extension.statisticsLength());
}

TEST(ReportAppStats, ALatePollIsFollowedByTheNext300SecondsAfterIt) {
    CapturedLog log;
    PlayedKernelControl& extension = testsupport::lastingKernelControl();
    ManualClock& clock = ManualClock::installed();
    pollStatistics(extension);
    awaitSleep(clock, 1);
    clock.advanceSeconds(305);
    ASSERT_TRUE(extension.waitForStatistics(1));
    awaitSleep(clock, 2);

    clock.advanceSeconds(299);
    awaitSleep(clock, 3);
    EXPECT_EQ(1, extension.statisticsReads());
    clock.advanceSeconds(10);
    EXPECT_TRUE(extension.waitForStatistics(2));
}

TEST(ReportAppStats, APollLeavesNothingBehind) {
    static std::atomic<long> left[3];
    static std::atomic<int> polls{0};
    class CountingControl final : public platform::KernelControl {
    public:
        int open() override { return -1; }
        int controlId(int, const char*, std::uint32_t&) override { return -1; }
        int connect(int, std::uint32_t) override { return -1; }
        int setOption(int, int, const void*, socklen_t) override { return -1; }
        int getOption(int, int, void*, socklen_t&) override {
            static testsupport::AllocationCounter allocations; // of the polling thread
            const int poll = polls;
            if (poll < 3) left[poll] = allocations.left();
            ++polls;
            return 0;
        }
    };
    static CountingControl control;
    platform::kernelControlService.install(control);
    ManualClock& clock = ManualClock::installed();
    auto* parameters = new CONTROLSOCKETTHREADPARAMETERS;
    parameters->socket = 42;
    std::thread(reportAppStatsThread, parameters).detach();
    awaitSleep(clock, 1);
    for (int poll = 0; poll < 3; ++poll) {
        clock.advanceSeconds(300);
        ASSERT_TRUE(testsupport::comesTrue([&] { return polls > poll; }));
        awaitSleep(clock, poll + 2);
    }

    EXPECT_EQ(left[1], left[2]);
}

TEST(IpChanges, AChangeIsToldOfWhenVerbose) {
    testsupport::ScratchRoot root;
    CapturedLog log;
    testsupport::PlayedInterfaces interfaces;
    interfaces.install();
    Configuration::setVerboseMode(true);

    ipChangesCallback();

    EXPECT_TRUE(log.holds("ip change detected"));
}

TEST(IpChanges, AChangeGivesTheMachineItsIdentifierOnceThereIsANetwork) {
    testsupport::ScratchRoot root;
    CapturedLog log;
    testsupport::PlayedInterfaces interfaces;
    interfaces.install();
    interfaces.show(
        testsupport::EntryBuilder().link("en0", "\x02\x42\xac\x11\x01\x02").ipv4("en0", "10.0.0.2"));

    ipChangesCallback();

    EXPECT_EQ(1, log.countContaining("Generated UUID '"));
}

TEST(IpChanges, AChangeHasTheServersLookedUpAnew) {
    testsupport::ScratchRoot root;
    CapturedLog log;
    testsupport::PlayedInterfaces interfaces;
    interfaces.install();
    auto& names = *new testsupport::PlayedNames; // the look-up's thread can outlive the test
    names.install();
    names.answer("localhost", AF_INET, {"203.0.113.9"});
    Configuration::addServerName("localhost", false);
    ASSERT_EQ(nullptr, FilterIPAddresses::getCurrentIPAddresses());

    ipChangesCallback();

    FilterIPAddresses* snapshot = nullptr;
    ASSERT_TRUE(
        testsupport::comesTrue([&] { return snapshot = FilterIPAddresses::getCurrentIPAddresses(); }));
    EXPECT_EQ(0xcb007109u, snapshot->addresses[0]);
    snapshot->release();
}

TEST(IpChanges, AChangeEndsASuspensionOfFiltering) {
    testsupport::ScratchRoot root;
    CapturedLog log;
    testsupport::PlayedInterfaces interfaces;
    interfaces.install();
    FilterQuery::setFilteringDisabled(true);

    ipChangesCallback();

    EXPECT_FALSE(FilterQuery::isFilteringDisabled());
    EXPECT_TRUE(log.holds("filtering is enabled, fernhill is outside the network"));
}
