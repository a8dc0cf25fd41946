// A program in the daemon's place that asks the agent without end, or answers nothing: a replay ends all the same.

#include "lab/AgentFrame.h"
#include "lab/DaemonRun.h"
#include "lab/ExtensionStandIn.h"
#include "lab/LabCaptures.h"
#include "lab/LabStage.h"
#include "lab/PlayedClock.h"
#include "lab/PolicyAgent.h"
#include "lab/Replay.h"
#include "lab/RootFolder.h"
#include "platform/KernelControl.h"
#include "support/Patience.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

int connectedTo(std::uint32_t control) {
    platform::KernelControl& controls = platform::kernelControlService.backend();
    const int socket = controls.open();
    if (controls.connect(socket, control) != 0) _exit(1);
    return socket;
}

int connectedToAgent() {
    const int link = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(lab::PolicyAgent::linkPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(link, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(1);
    return link;
}

// Holds the first packet, as if it had asked about it, and passes the others.
void answerRecord(int control) {
    static bool held = false;
    char record[65536];
    if (recv(control, record, sizeof record, 0) <= 0) _exit(0);
    sysctl_result result{};
    std::memcpy(&result.packetId, record, sizeof result.packetId);
    result.result = held ? resultPass : resultHold;
    result.urlSeen = held ? 0 : 1;
    held = true;
    send(control, &result, sizeof result, MSG_NOSIGNAL);
}

// What is no result ends the wait for one at once, without an answer.
void passEveryThird(int control, int place) {
    char record[65536];
    if (recv(control, record, sizeof record, 0) <= 0) _exit(0);
    sysctl_result result{};
    std::memcpy(&result.packetId, record, sizeof result.packetId);
    result.result = resultPass;
    send(control, &result, place % 3 == 0 ? sizeof result : 1, MSG_NOSIGNAL);
}

enum class Asks { always, afterEachAnswer };

[[noreturn]] void beRestless(Asks asks) {
    const int controls[] = {connectedTo(1), connectedTo(2)}, link = connectedToAgent();
    const std::string question = lab::agentFrame(1, 1, R"({"url":"http://a/"})");
    const auto ask = [&] { send(link, question.data(), question.size(), MSG_NOSIGNAL); };
    const short wanted = asks == Asks::always ? POLLIN | POLLOUT : POLLIN;
    char answers[65536];
    for (ask();;) {
        pollfd waiting[] = {{controls[0], POLLIN, 0}, {controls[1], POLLIN, 0}, {link, wanted, 0}};
        if (poll(waiting, 3, -1) < 0) _exit(1);
        for (int i = 0; i < 2; ++i)
            if (waiting[i].revents) answerRecord(controls[i]);
        const bool answered =
            (waiting[2].revents & POLLIN) && recv(link, answers, sizeof answers, MSG_DONTWAIT) > 0;
        if (asks == Asks::always ? waiting[2].revents & POLLOUT : answered) ask();
    }
}

[[noreturn]] void hang() {
    connectedTo(1), connectedTo(2), connectedToAgent();
    for (;;)
        pause();
}

class ARestlessProgram : public testing::Test {
protected:
    // Plays a small capture before such a program, under these rules.
    void replay(const std::string& policy, const std::function<void()>& conduct,
                int forAnswer = testsupport::patienceMilliseconds, bool asks = false) {
        labtest::useRealServices();
        const lab::RootFolder root("");
        lab::PlayedClock clock;
        lab::ExtensionStandIn extension(root.path());
        lab::PolicyAgent agent(lab::Policy::parse(policy, "policy"), false);
        lab::DaemonRun program(root, &clock, {}, conduct);
        extension.listen();
        agent.listen();
        std::vector<int> foreign = extension.descriptors();
        for (const int descriptor : agent.descriptors())
            foreign.push_back(descriptor);
        program.start(foreign);
        extension.start();
        agent.start();
        ASSERT_TRUE(extension.waitForDaemon(testsupport::patienceMilliseconds));
        if (asks) awaitAQuestion(agent);
        lab::JsonReport json("");
        lab::TableReport table(nullptr);
        lab::Replay replay(extension, agent, program, clock, json, table, nullptr);
        replay.setPatience(300, forAnswer);
        play(replay, program);
        running_ = program.running();
        program.stop();
        fault_ = replay.fault();
        totals_ = replay.totals();
        answers_ = agent.counters().answers;
    }

    lab::Totals totals_;
    long answers_ = 0;
    bool running_ = false;
    std::string fault_;

    // The same with a program that asks, once its first question has come: its way is not part of the replay's patience.
    void replayRestless(const std::string& policy, Asks asks) {
        replay(
            policy, [asks] { beRestless(asks); }, testsupport::patienceMilliseconds, true);
    }

private:
    static void awaitAQuestion(lab::PolicyAgent& agent) {
        EXPECT_TRUE(agent.waitUntil([](const auto& counters) { return counters.questions > 0; },
                                    testsupport::patienceMilliseconds));
    }

    void play(lab::Replay& replay, lab::DaemonRun& program) {
        const testsupport::TemporaryFolder folder;
        const std::string capture = folder.file("made.pcap");
        {
            labtest::CaptureWriter writer(capture);
            labtest::addExchange(writer, 0, labtest::Talk(50000), labtest::get("a.example"));
        }
        auto played =
            std::async(std::launch::async, [&] { return replay.play(capture, lab::survey(capture)); });
        if (played.wait_for(testsupport::patience) != std::future_status::ready) {
            kill(program.pid(), SIGKILL); // which ends the replay
            ADD_FAILURE() << "the program keeps the replay from its end";
        }
        played.get();
    }
};

TEST_F(ARestlessProgram, KeepsNoReplayFromItsEnd) {
    replayRestless("allow *", Asks::always);
    EXPECT_EQ(fault_, "");
    EXPECT_EQ(totals_.unanswered, 0);
    EXPECT_EQ(totals_.unsettled, 1);
}

TEST_F(ARestlessProgram, HasAsManySlowAnswersAsItHasHeldPackets) {
    for (const Asks asks : {Asks::always, Asks::afterEachAnswer}) {
        replayRestless("slow 5 *", asks);
        EXPECT_EQ(totals_.unanswered, 0);
        EXPECT_EQ(answers_, 1);
        EXPECT_GT(totals_.unsettled, 0);
    }
}

TEST_F(ARestlessProgram, ThatAnswersNothingIsPresentedThreePackets) {
    replay("allow *", hang, 100);
    EXPECT_EQ(totals_.unanswered, 3);
    EXPECT_EQ(totals_.presented, 3);
    EXPECT_EQ(totals_.notPresented, 3);
    EXPECT_TRUE(running_);
    EXPECT_EQ(fault_, "the daemon left 3 packets in a row without an answer, so no more were presented; "
                      "play it again and see, before it ends, what its threads wait in (gdb -p)");
}

TEST_F(ARestlessProgram, ThatAnswersEveryThirdPacketIsPresentedThemAll) {
    replay("allow *", [] {
        const int controls[] = {connectedTo(1), connectedTo(2)};
        connectedToAgent();
        for (int i = 0;;) {
            pollfd waiting[] = {{controls[0], POLLIN, 0}, {controls[1], POLLIN, 0}};
            if (poll(waiting, 2, -1) < 0) _exit(1);
            for (int side = 0; side < 2; ++side)
                if (waiting[side].revents) passEveryThird(controls[side], ++i);
        }
    });
    EXPECT_EQ(totals_.unanswered, 4);
    EXPECT_EQ(totals_.notPresented, 0);
    EXPECT_EQ(fault_, "");
}

} // namespace
