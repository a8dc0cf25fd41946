// A program in the daemon's place that asks the agent without end: a replay ends all the same.

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
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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

[[noreturn]] void beRestless() {
    const int controls[] = {connectedTo(1), connectedTo(2)}, link = connectedToAgent();
    const std::string question = lab::agentFrame(1, 1, R"({"url":"http://a/"})");
    char answers[65536];
    for (;;) {
        pollfd waiting[] = {{controls[0], POLLIN, 0}, {controls[1], POLLIN, 0}, {link, POLLIN | POLLOUT, 0}};
        if (poll(waiting, 3, -1) < 0) _exit(1);
        for (int i = 0; i < 2; ++i)
            if (waiting[i].revents) answerRecord(controls[i]);
        if (waiting[2].revents & POLLIN) recv(link, answers, sizeof answers, MSG_DONTWAIT);
        if (waiting[2].revents & POLLOUT) send(link, question.data(), question.size(), MSG_NOSIGNAL);
    }
}

TEST(AReplay, EndsWithAProgramThatAsksWithoutEnd) {
    labtest::useRealServices();
    const testsupport::TemporaryFolder folder;
    {
        labtest::CaptureWriter writer(folder.file("made.pcap"));
        labtest::addExchange(writer, 0, labtest::Talk(50000), labtest::get("a.example"));
    }
    const lab::RootFolder root("");
    lab::PlayedClock clock;
    lab::ExtensionStandIn extension(root.path());
    lab::PolicyAgent agent(lab::Policy::parse("allow *", "policy"), false);
    lab::DaemonRun program(root, &clock, {}, beRestless);
    extension.listen();
    agent.listen();
    std::vector<int> foreign = extension.descriptors();
    for (const int descriptor : agent.descriptors())
        foreign.push_back(descriptor);
    program.start(foreign);
    extension.start();
    agent.start();
    ASSERT_TRUE(extension.waitForDaemon(testsupport::patienceMilliseconds));
    ASSERT_TRUE(agent.waitUntil([](const auto& counters) { return counters.answers > 100; },
                                testsupport::patienceMilliseconds));
    lab::JsonReport json("");
    lab::TableReport table(nullptr);
    lab::Replay replay(extension, agent, program, clock, json, table, nullptr);
    replay.setPatience(300);

    EXPECT_TRUE(replay.play(folder.file("made.pcap"), lab::survey(folder.file("made.pcap"))));
    EXPECT_EQ(replay.totals().unanswered, 0);
    EXPECT_GT(replay.totals().unsettled, 0);
}

} // namespace
