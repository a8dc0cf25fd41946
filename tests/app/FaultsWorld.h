#pragma once

// The world of a whole daemon in which something breaks. The clock is played: a second that the daemon sleeps takes a
// millisecond at most, and records grow old when the test says so. A page is known by the port that it is asked from.

#include "app/DaemonWorld.h"
#include "lab/PlayedClock.h"
#include "lab/WorldAnswers.h"
#include "platform/Clock.h"
#include "support/ProcessDescriptors.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

class FaultsWorld : public DaemonWorld {
protected:
    FaultsWorld() {
        clock.set(now);
        surroundings = [this] { playClock(); };
    }

    void playClock() {
        platform::clockService.install(clock);
        lab::shareClockMemory(clock.memory());
    }

    void advanceSeconds(std::int64_t seconds) { clock.set(now += seconds * 1000000); }

    // The daemon with its link and no question open.
    void startLinked() {
        startDaemon();
        agent->awaitFrame(3);
        agent->awaitFrame(3);
        ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    }

    // The same with its start over: both listeners have what they ask the extension for at their beginning, each time
    // over a connection of its own.
    void startListening() {
        startLinked();
        ASSERT_TRUE(answersBothDirections());
    }

    static std::vector<char> requestFrom(int port) {
        const std::string bytes = testsupport::PacketBuilder::ipv4()
                                      .from("10.0.0.2", port)
                                      .payload("GET / HTTP/1.1\r\nHost: page-" + std::to_string(port) +
                                               ".test\r\nAccept: */*\r\nConnection: keep-alive\r\n\r\n")
                                      .bytes();
        return {bytes.begin(), bytes.end()};
    }

    // The result for the page's request, which starts a question when the daemon knows nothing of the page; -1 for none.
    int verdictOf(int port) {
        const auto result =
            extension->present(lab::Direction::out, requestFrom(port), testsupport::patienceMilliseconds);
        return result ? result->result : -1;
    }

    // Asks for the page; the number of the agent's question.
    std::uint32_t ask(int port) {
        EXPECT_EQ(verdictOf(port), resultHold);
        return agent->awaitFrame(1).sequence;
    }

    bool comesToPass(int port) {
        return testsupport::eventually([&] { return verdictOf(port) == resultPass; });
    }

    // A page is asked about, answered and let go.
    void expectAPageToPass(int port) {
        agent->reply(ask(port), "{}");
        EXPECT_TRUE(comesToPass(port)) << port;
    }

    bool answersBothDirections() { return answers(lab::Direction::in) && answers(lab::Direction::out); }

    // Whether the daemon has taken in, or comes to take in, all that the agent has sent.
    static bool hasReadAll() {
        return testsupport::eventually([] { return unreadOnTheLink() == 0; });
    }

    // Bytes that lie in the daemon's ends of its connections to the agent.
    static unsigned long unreadOnTheLink() {
        std::ifstream table("/proc/net/tcp");
        unsigned long bytes = 0;
        for (std::string line; std::getline(table, line);) {
            unsigned port = 0;
            unsigned long unread = 0;
            if (std::sscanf(line.c_str(), " %*d: %*8x:%*4x %*8x:%4x %*2x %*8x:%8lx", &port, &unread) == 2 &&
                port == agentPort)
                bytes += unread;
        }
        return bytes;
    }

    long queryThreads() const { return threadsThatRun("workThread"); }
    long readers() const { return threadsThatRun("responseThread"); }

    // How many descriptors the daemon has, or how many of a kind.
    long descriptors(const std::string& kind = "") const {
        const testsupport::DescriptorList open = testsupport::descriptorsOf(daemon->process());
        return std::count_if(open.begin(), open.end(),
                             [&](const auto& entry) { return entry.second.rfind(kind, 0) == 0; });
    }

    // How many sockets the daemon has that are none of this machine's own (those that an option call of the extension
    // has for its time, say): its links to the agent, as long as nothing else asks the network.
    long linkSockets() const {
        std::set<std::string> local;
        std::ifstream table("/proc/" + std::to_string(daemon->process()) + "/net/unix");
        for (std::string line; std::getline(table, line);) {
            char inode[32];
            if (std::sscanf(line.c_str(), "%*s %*s %*s %*s %*s %*s %31s", inode) == 1)
                local.insert("socket:[" + std::string(inode) + "]");
        }
        const testsupport::DescriptorList open = testsupport::descriptorsOf(daemon->process());
        return std::count_if(open.begin(), open.end(), [&](const auto& entry) {
            return entry.second.rfind("socket:", 0) == 0 && local.count(entry.second) == 0;
        });
    }

    static constexpr std::int64_t haste = 1000;
    lab::PlayedClock clock{haste};
    std::int64_t now = 1794635810LL * 1000000; // 2026-11-14 05:56:50 UTC

private:
    long threadsThatRun(const std::string& function) const {
        const auto threads = daemon->threads().living();
        return std::count_if(threads.begin(), threads.end(),
                             [&](const auto& thread) { return thread.function == function; });
    }

    static constexpr unsigned agentPort = 3456;
};
