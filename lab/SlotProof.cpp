#include "lab/SlotProof.h"

#include "filter/FilterQuery.h"
#include "gp/GPThreadPool.h"
#include "lab/DrawnNumbers.h"
#include "lab/PrivateNetwork.h"
#include "lab/Stage.h"
#include "packet/SysctlResult.h"
#include "platform/ByteOrder.h"

#include <fmt/format.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace lab {
namespace {

using std::chrono::steady_clock;

constexpr int slots = FilterQuery::queryThreads;

// How long nothing may come to its end before the slots count as lost.
constexpr std::chrono::seconds patience{30};
constexpr int ownMilliseconds = 30000;

// Operations that may be open in the pool, since each can have a thread on its way out; and questions between two moves
// of time.
constexpr long mostOpen = 300;
constexpr long questionsAtOnce = 100;

// How long slots beyond those that are expected have to show.
constexpr int surplusMilliseconds = 500;

// Behind the longest life of a record.
constexpr std::int64_t recordMicroseconds = 121 * std::int64_t{1000000};

// Two processes that do nothing but keep the processors busy.
class Hogs {
public:
    Hogs() {
        const pid_t lab = getpid();
        for (pid_t& hog : hogs_) {
            hog = fork();
            if (hog < 0) throw std::runtime_error("no process to keep the machine busy");
            if (hog > 0) continue;
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            while (getppid() == lab)
                ;
            _exit(0);
        }
    }
    ~Hogs() {
        for (pid_t hog : hogs_) {
            kill(hog, SIGKILL);
            waitpid(hog, nullptr, 0);
        }
    }

    Hogs(const Hogs&) = delete;
    Hogs& operator=(const Hogs&) = delete;

private:
    std::array<pid_t, 2> hogs_{};
};

// A count that other threads raise.
class Progress {
public:
    void advance() { ++count_; }
    long count() const { return count_; }

    // Waits until there are so many; false when nothing has come for too long.
    bool reaches(long wanted) const {
        long seen = count_;
        auto limit = steady_clock::now() + patience;
        while (count_ < wanted) {
            if (steady_clock::now() > limit && count_ == seen) return false;
            if (count_ != seen) {
                seen = count_;
                limit = steady_clock::now() + patience;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

private:
    std::atomic<long> count_{0};
};

// What the operations of the pool tell. They can outlive the proof where slots are lost.
struct PoolTale {
    Progress done;
    Progress begun;
    std::atomic<bool> mayEnd{false};
};

PoolTale poolTale;

void doNothing(void*) { poolTale.done.advance(); }

void occupySlot(void*) {
    poolTale.begun.advance();
    while (!poolTale.mayEnd)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// How many operations can be under way at once.
long liveSlotsOf(GPThreadPool& pool) {
    for (int i = 0; i < slots; ++i)
        pool.addOperation(occupySlot, nullptr);
    poolTale.begun.reaches(slots);
    poolTale.mayEnd = true;
    return poolTale.begun.count();
}

bool provePool(long operations) {
    static auto& pool = *new GPThreadPool(slots); // as in the daemon, never released
    for (long i = 0; i < operations; ++i) {
        if (i % mostOpen == 0 && !poolTale.done.reaches(i - mostOpen)) break;
        pool.addOperation(doNothing, nullptr);
    }
    const bool done = poolTale.done.reaches(operations);
    const long live = liveSlotsOf(pool);
    fmt::print("pool    {} operations, {} done, {} of {} slots live\n", operations, poolTale.done.count(),
               live, slots);
    return done && live == slots;
}

// A request for a page of that host, from a connection of its own.
std::vector<char> requestFor(const std::string& host, long number) {
    constexpr std::size_t ipHeader = 20;
    constexpr std::size_t tcpHeader = 20;
    const std::string text = "GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
    std::vector<char> packet(ipHeader + tcpHeader + text.size(), 0);
    std::copy(text.begin(), text.end(), packet.begin() + ipHeader + tcpHeader);
    packet[0] = 0x45; // version 4, a header of five words
    platform::writeBig16(&packet[2], static_cast<std::uint16_t>(packet.size()));
    packet[8] = 64;
    packet[9] = 6; // TCP
    platform::writeBig32(&packet[12], 0x0a000002);
    platform::writeBig32(&packet[16], 0x5db8d822);
    platform::writeBig16(&packet[ipHeader], static_cast<std::uint16_t>(1024 + number % 60000));
    platform::writeBig16(&packet[ipHeader + 2], 80);
    packet[ipHeader + 12] = 0x50; // a header of five words
    packet[ipHeader + 13] = 0x18; // PSH, ACK
    return packet;
}

constexpr char hostStart[] = "http://h";

// The daemon with its stand-ins, and the questions that go through it.
class DaemonProof {
public:
    explicit DaemonProof(const SlotOptions& options)
        : options_(options), stage_("", Policy::parse("silent http://occupy*\nallow *\n", "policy"), now_) {
        stage_.root.configure(false, 0);
        stage_.agent.setNumbers(options.numberOf);
        stage_.agent.setConduct([this](std::uint32_t number, const std::string& url) {
            if (url.rfind(hostStart, 0) == 0)
                numbers_.note(number, std::strtol(url.c_str() + sizeof hostStart - 1, nullptr, 10));
            return std::nullopt;
        });
        if (!stage_.raise())
            throw std::runtime_error("the daemon did not come up:\n" + stage_.root.outputTail());
    }

    bool prove() {
        const long questions = options_.questions;
        for (long asked = 0; asked < questions; asked += questionsAtOnce) {
            const long until = std::min(questions, asked + questionsAtOnce);
            for (long number = asked; number < until; ++number)
                present(number);
            if (!answersReach(until)) break;
            countAstray(numbers_.takeShared());
            passTime();
        }
        const PolicyAgent::Counters counters = stage_.agent.counters();
        stage_.agent.takeQuestions();
        const long live = liveSlots();
        fmt::print("daemon  {} questions, {} asked, {} answered, {} under a number drawn twice, "
                   "{} of {} slots live, {} wait under such a number\n",
                   questions, counters.questions, counters.answers, shared_, live, slots, astray_);
        return counters.answers == questions && live + astray_ == slots;
    }

private:
    // What the daemon says to that question's request.
    int present(long number, const std::string& host) {
        const auto result =
            stage_.extension.present(Direction::out, requestFor(host, number), ownMilliseconds);
        if (!result) throw std::runtime_error("the daemon answers no packets");
        return result->result;
    }
    int present(long number) { return present(number, "h" + std::to_string(number) + ".example.org"); }

    bool answersReach(long count) {
        long seen = -1;
        for (;;) {
            stage_.agent.takeQuestions();
            const auto reached = [count](const auto& counters) { return counters.answers >= count; };
            if (stage_.agent.waitUntil(reached, ownMilliseconds)) return true;
            const long now = stage_.agent.counters().answers;
            if (now == seen) return false;
            seen = now;
        }
    }

    // Of answered questions that shared a number: those whose request is held all the same wait for ever.
    void countAstray(const std::vector<long>& shared) {
        shared_ += static_cast<long>(shared.size());
        const auto limit = steady_clock::now() + std::chrono::milliseconds(options_.patienceMilliseconds);
        for (const long number : shared) {
            int result = present(number);
            while (result == resultHold && steady_clock::now() < limit) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                result = present(number);
            }
            if (result == resultHold) ++astray_;
        }
    }

    // How many questions that the agent leaves open come to it.
    long liveSlots() {
        passTime();
        const long before = stage_.agent.counters().questions;
        for (int i = 0; i < slots; ++i)
            present(i, "occupy" + std::to_string(i) + ".example.org");
        // So long for each question: all together take as long as a busy machine makes them.
        const auto awaitMore = [&](long wanted, int milliseconds) {
            for (long count = before; count < before + wanted; count = stage_.agent.counters().questions) {
                const auto more = [count](const auto& counters) { return counters.questions > count; };
                if (!stage_.agent.waitUntil(more, milliseconds)) return;
            }
        };
        awaitMore(slots - astray_, options_.patienceMilliseconds);
        if (astray_ > 0) awaitMore(slots, surplusMilliseconds);
        return stage_.agent.counters().questions - before;
    }

    void passTime() { stage_.clock.set(now_ += recordMicroseconds); }

    const SlotOptions& options_;
    std::int64_t now_ = 1500000000 * std::int64_t{1000000};
    DrawnNumbers numbers_;
    long shared_ = 0; // questions whose number another had
    long astray_ = 0; // of these, those that wait for ever
    Stage stage_;
};

} // namespace

int proveSlots(const SlotOptions& options) {
    enterPrivateNetwork();
    DaemonProof daemon(options);
    const Hogs hogs;
    const bool daemonHolds = daemon.prove();
    std::fflush(stdout); // the other takes minutes
    const bool poolHolds = provePool(options.operations);
    return daemonHolds && poolHolds ? 0 : 1;
}

} // namespace lab
