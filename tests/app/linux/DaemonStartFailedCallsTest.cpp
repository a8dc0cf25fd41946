// The start of the whole daemon, up to its first verdict, with one system call of its threads failing, each call in turn.

#include "agent/OstComm.h"
#include "app/Daemon.h"
#include "lab/ExtensionStandIn.h"
#include "packet/PacketFilter.h"
#include "platform/Clock.h"
#include "platform/HardwareRegistry.h"
#include "platform/HostPaths.h"
#include "platform/KernelControl.h"
#include "support/AgentProcess.h"
#include "support/CapturedLog.h"
#include "support/ChildNotes.h"
#include "support/DirectoryTools.h"
#include "support/Eventually.h"
#include "support/PacketBuilder.h"
#include "support/PlayedConsoleUser.h"
#include "support/PlayedNames.h"
#include "support/PlayedNetworkChanges.h"
#include "support/ProcessDescriptors.h"
#include "support/ProgramSymbols.h"
#include "support/ScratchRoot.h"
#include "support/TestChild.h"
#include "support/ThreadStarts.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using platform::HostPaths;
using testsupport::eventually;

namespace {

// What can become of a request for a page.
constexpr char passed[] = "passes";
constexpr char notHeard[] = "nobody hears: no outbound listener";
constexpr char noReader[] = "held: the link's reader could not be started";
constexpr char noQuestion[] = "held: the question's thread could not be started";

using ThreadFunction = void* (*)(void*);

// What became of the threads that were asked for.
class Threads {
public:
    static int start(pthread_t* thread, const pthread_attr_t* attributes, ThreadFunction function,
                     void* argument) {
        all().note(function, true);
        auto* started = new Started{function, argument};
        const int result = testsupport::startThread(thread, attributes, run, started);
        if (result == 0) return 0;
        delete started;
        all().note(function, false);
        std::lock_guard<std::mutex> lock(all().mutex_);
        all().failed_ = function;
        return result;
    }

    static bool wasAskedFor(ThreadFunction function) {
        std::lock_guard<std::mutex> lock(all().mutex_);
        return all().lives_.count(function) != 0;
    }

    // Whether it was asked for and is not there, or no more.
    static bool isGone(ThreadFunction function) {
        std::lock_guard<std::mutex> lock(all().mutex_);
        const auto found = all().lives_.find(function);
        return found != all().lives_.end() && !found->second;
    }

    // The one that could not be started; null for none.
    static ThreadFunction failed() {
        std::lock_guard<std::mutex> lock(all().mutex_);
        return all().failed_;
    }

private:
    struct Started {
        ThreadFunction function;
        void* argument;
    };

    static Threads& all() {
        static auto& only = *new Threads;
        return only;
    }

    static void* run(void* argument) {
        const std::unique_ptr<Started> started(static_cast<Started*>(argument));
        void* result = started->function(started->argument);
        all().note(started->function, false);
        return result;
    }

    void note(ThreadFunction function, bool lives) {
        std::lock_guard<std::mutex> lock(mutex_);
        lives_[function] = lives;
    }

    std::mutex mutex_;
    std::map<ThreadFunction, bool> lives_;
    ThreadFunction failed_ = nullptr;
};

class FixedRegistry final : public platform::HardwareRegistry {
public:
    std::string platformUUID() override { return "11111111-2222-3333-4444-555555555555"; }
};

// The daemon on threads of this process, and the extension in front of it. This thread only looks on.
class StartedDaemon {
public:
    StartedDaemon() {
        installServices();
        std::filesystem::create_directories(
            std::filesystem::path(HostPaths::inboundControlSocket()).parent_path());
        extension_.listen();
        options_.emplace([this] {
            extension_.start();
            pause();
        });
        testsupport::playThreadStarts(Threads::start);
    }

    void start() {
        std::thread([this] { status_ = daemonStart(); }).detach();
    }

    // Its exit status once it has ended by itself, as it does without an inbound control.
    int status() const { return status_; }

    // Whether the log tells why the control of that name, "INPUT" or "OUTPUT", could not be set up.
    bool tellsWhyWithout(const std::string& name) const {
        for (const std::string& text :
             {"Error: failed to open " + name, std::string("ERROR: Could not get ID"),
              "Error: System connect " + name, std::string("Aborting: FernhillKernel error")})
            if (log_.countContaining(text) > 0) return true;
        return false;
    }

    // Whether it comes so far that packets are answered, or to its end. A listener of the outbound side may be missing.
    bool isUp() {
        return eventually([this] {
            if (status_ != running) return true;
            if (!Threads::wasAskedFor(reportAppStatsThread))
                return false; // for which there is an inbound control
            const bool hasControls = extension_.waitForDaemon(0) || Threads::isGone(outboundListenThread);
            return hasControls && passes(lab::Direction::in, packetWithoutUrl);
        });
    }

    // What becomes of a page's request on a connection from that port.
    std::string verdictOn(const std::string& host, int port) {
        if (Threads::isGone(outboundListenThread)) {
            EXPECT_TRUE(Threads::failed() == outboundListenThread || tellsWhyWithout("OUTPUT"));
            return notHeard;
        }
        const std::string request = testsupport::PacketBuilder::ipv4()
                                        .from("10.0.0.2", port)
                                        .payload("GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n")
                                        .bytes();
        const bool hadFailed = Threads::failed() != nullptr;
        std::string held;
        const bool settled = eventually([&] {
            if (passes(lab::Direction::out, {request.begin(), request.end()})) return true;
            held = whyHeld(hadFailed);
            return !held.empty();
        });
        EXPECT_TRUE(settled) << "neither a verdict nor a state that a rule describes, after:\n" << told();
        return held.empty() ? passed : held;
    }

    // Ends the process as the system does.
    [[noreturn]] static void end() {
        kill(getpid(), SIGTERM);
        for (;;)
            pause();
    }

    static constexpr int running = -1;

private:
    void installServices() {
        names_.answer("localhost", AF_INET, {"127.0.0.1"});
        names_.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
        names_.install();
        console_.seat("alice");
        console_.install();
        network_.install();
        platform::hardwareRegistryService.install(registry_);
        platform::clockService.install(platform::clockService.backend());
        platform::kernelControlService.install(platform::kernelControlService.backend());
    }

    // A packet that is not answered is one whose result could not be sent, or one whose answer comes late.
    bool passes(lab::Direction direction, const std::vector<char>& packet) {
        const auto result = extension_.present(direction, packet, 1000);
        if (!result) {
            hasUnanswered_ = true;
        } else if (hasUnanswered_) {
            EXPECT_TRUE(log_.countContaining("Error sending") == 1 || !extension_.hasOnlyAnswered());
        }
        return result && result->result == resultPass;
    }

    // All that the log tells.
    std::string told() const {
        std::string text;
        for (const std::string& message : log_.messages())
            text += message + '\n';
        return text;
    }

    // The two states in which a question is never answered, and its connection held: for all of them, or for the one at
    // which a thread could not be started.
    static std::string whyHeld(bool hadFailed) {
        const ThreadFunction failed = Threads::failed();
        if (!failed) return "";
        if (failed == responseThread) return noReader;
        const std::string name = testsupport::programFunctions()[reinterpret_cast<std::uintptr_t>(failed)];
        return !hadFailed && name.find("workThread") != std::string::npos ? noQuestion : "";
    }

    static const std::vector<char> packetWithoutUrl;

    testsupport::CapturedLog& log_ = *new testsupport::CapturedLog;
    testsupport::PlayedNames& names_ = *new testsupport::PlayedNames;
    testsupport::PlayedConsoleUser& console_ = *new testsupport::PlayedConsoleUser;
    testsupport::PlayedNetworkChanges& network_ = *new testsupport::PlayedNetworkChanges;
    FixedRegistry& registry_ = *new FixedRegistry;
    lab::ExtensionStandIn& extension_ = *new lab::ExtensionStandIn(HostPaths::root());
    std::optional<testsupport::EndlessChild> options_;
    std::atomic<int> status_{running};
    bool hasUnanswered_ = false;
};

// No packet of TCP, so that it passes at once.
const std::vector<char> StartedDaemon::packetWithoutUrl = {0x45, 0, 0,  20, 0, 0, 0,  0, 64, 17,
                                                           0,    0, 10, 0,  0, 2, 10, 0, 0,  9};

std::optional<std::string> allow(const lab::AgentFrame& question) {
    return lab::agentFrame(lab::policyFrame, question.sequence, "{}");
}

constexpr long shares = 6;

class DaemonStartFailedCalls : public testsupport::CallsFailIn<testing::TestWithParam<long>> {
protected:
    DaemonStartFailedCalls() { tools_.programs().add("kextload", "exit 0"); }

    // The start up to the answer to the first question, and a second one behind the failure. Ends with the daemon.
    void startAndAsk() const {
        StartedDaemon daemon;
        testsupport::beginCalls(testsupport::CallsOf::otherThreads);
        daemon.start();
        ASSERT_TRUE(daemon.isUp());
        if (daemon.status() != StartedDaemon::running) {
            EXPECT_EQ(daemon.status(), 1);
            EXPECT_TRUE(daemon.tellsWhyWithout("INPUT"));
            return;
        }
        const std::string first = daemon.verdictOn("first", 50001);
        testsupport::endCalls();
        if (HasFailure()) return; // a second wait in vain would last longer than the process may
        // A question that has no thread costs one slot of thirty, and no other.
        EXPECT_EQ(daemon.verdictOn("second", 50002), first == noQuestion ? passed : first);
        expectNoDescriptorLeftOver();
        if (!HasFailure()) StartedDaemon::end();
    }

    testsupport::ScratchRoot root_;
    testsupport::DirectoryTools tools_;
    const testsupport::AgentProcess agent_{allow};
    const testsupport::ChildNotes descriptors_{}; // of a start without a failure

private:
    // A connection and its two queues for a reconnect, a control that could not be connected, or, by rule, the two pipes
    // of a command that was over before its program had been seen.
    void expectNoDescriptorLeftOver() const {
        const auto open = [] { return testsupport::descriptorsOf(getpid()).size(); };
        if (descriptors_.seen().empty()) {
            descriptors_.add(std::to_string(open()));
            return;
        }
        const std::size_t most = std::stoul(*descriptors_.seen().begin()) + 4;
        EXPECT_TRUE(eventually([&] { return open() <= most; })) << open();
    }
};

TEST_P(DaemonStartFailedCalls, LeaveItFilteringOrInAStateThatARuleDescribesAndItEndsInOrder) {
    EXPECT_GE(testsupport::failEachCall([this] { startAndAsk(); }, {GetParam(), shares}), 20);
}

INSTANTIATE_TEST_SUITE_P(Share, DaemonStartFailedCalls, testing::Range(0L, shares));

} // namespace
