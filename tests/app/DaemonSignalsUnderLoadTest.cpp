// The daemon is told to end in the midst of its work: users change, child processes come and go, and all that
// it says goes to the log. scripts/prove-ends runs these tests as often as it is told.

#include "app/DaemonWorld.h"
#include "platform/ByteOrder.h"
#include "support/PacketBuilder.h"
#include "support/Patience.h"
#include "support/ShippedProgram.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <new>
#include <pthread.h>
#include <random>
#include <stdexcept>
#include <sys/mman.h>
#include <thread>

namespace {

constexpr std::size_t sourcePort = 20; // behind an IP header without options
constexpr int patience = 1000;         // real milliseconds that a packet's answer may take

// A signal that the next fork of this process, or of one that it forks, sends to the process that forks: with the
// C library's locks on their way into its hands.
class SignalAtFork {
public:
    SignalAtFork() {
        void* memory =
            mmap(nullptr, sizeof *armed, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
        armed = new (memory) std::atomic<int>(0);
        if (pthread_atfork(send, nullptr, nullptr) != 0) throw std::runtime_error("forks do not tell");
    }

    void arm(int signal) { *armed = signal; }

private:
    static void send() {
        if (const int signal = armed->exchange(0)) kill(getpid(), signal);
    }

    static inline std::atomic<int>* armed = nullptr;
};

class DaemonSignalsUnderLoad : public DaemonWorld {
protected:
    ~DaemonSignalsUnderLoad() override {
        over_ = true;
        for (std::thread& load : loads_)
            load.join();
    }

    // Traffic in both directions, until the fixture goes, and users who come; all of it is logged.
    void loadTheDaemon() {
        givenConfiguration(
            "<Fernhill><VerboseLogging>true</VerboseLogging><LogLevel>255</LogLevel></Fernhill>");
        prepare();
        agent->answerPolicy([](const std::string&) { return "{}"; });
        daemon->start("the first");
        ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
        agent->awaitFrame(3);
        agent->awaitFrame(3);
        for (lab::Direction direction : {lab::Direction::in, lab::Direction::out})
            loads_.emplace_back([this, direction] { present(direction); });
        daemon->changeConsoleUser("the second");
        agent->awaitFrame(3);
        EXPECT_TRUE(testsupport::eventually([this] { return presented_[0] > 10 && presented_[1] > 10; }));
    }

    // The signal comes while the look at a new user's directory is being forked.
    void expectAnEndAtAForkBy(int signal) {
        if (!testsupport::macProgram().empty()) GTEST_SKIP() << "only this build's own forks can be met";
        loadTheDaemon();
        atFork_.arm(signal);
        daemon->changeConsoleUser("the last");
        EXPECT_EQ(daemon->awaitEnd(), 0);
    }

    // The signal comes at any moment behind that change.
    void expectAnEndAtAnyMomentBy(int signal) {
        loadTheDaemon();
        std::random_device chance;
        const std::chrono::microseconds delay(std::uniform_int_distribution<int>(0, 5000)(chance));
        daemon->changeConsoleUser("the last");
        std::this_thread::sleep_for(delay);
        daemon->signal(signal);
        EXPECT_EQ(daemon->awaitEnd(), 0);
    }

private:
    // One new connection's request after the other, or packets of a peer.
    void present(lab::Direction direction) {
        const bool out = direction == lab::Direction::out;
        auto built =
            testsupport::PacketBuilder::ipv4().payload("GET / HTTP/1.1\r\nHost: a.example.org\r\n\r\n");
        const std::string bytes = (out ? built : built.reversed()).bytes();
        std::vector<char> packet(bytes.begin(), bytes.end());
        for (std::atomic<int>& number = presented_[out]; !over_ && extension->connected(); ++number) {
            platform::writeBig16(&packet[sourcePort], static_cast<std::uint16_t>(number));
            extension->present(direction, packet, patience);
        }
    }

    SignalAtFork atFork_;
    std::atomic<bool> over_{false};
    std::atomic<int> presented_[2] = {{0}, {0}};
    std::vector<std::thread> loads_;
};

} // namespace

TEST_F(DaemonSignalsUnderLoad, SigtermAtAForkEndsTheDaemon) { expectAnEndAtAForkBy(SIGTERM); }

TEST_F(DaemonSignalsUnderLoad, SigintAtAForkEndsTheDaemon) { expectAnEndAtAForkBy(SIGINT); }

TEST_F(DaemonSignalsUnderLoad, SigtermEndsTheDaemonAtAnyMoment) { expectAnEndAtAnyMomentBy(SIGTERM); }

TEST_F(DaemonSignalsUnderLoad, SigintEndsTheDaemonAtAnyMoment) { expectAnEndAtAnyMomentBy(SIGINT); }
