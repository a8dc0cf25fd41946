#include "support/AgentProcess.h"

#include "agent/OstComm.h"
#include "platform/ClosedOnExec.h"
#include "support/FixedPorts.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <thread>

namespace testsupport {
namespace {

int listenAsAgent() {
    claimFixedPorts();
    const int listener = platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0);
    if (!lab::listenOnLoopback(listener, OstComm::agentPort))
        throw std::runtime_error("the agent's port is not free");
    return listener;
}

void serve(int connection, const AgentProcess::Answers& answers) {
    lab::AgentFrameReader held;
    char bytes[4096];
    for (ssize_t count; (count = recv(connection, bytes, sizeof bytes, 0)) > 0;) {
        held.add(bytes, static_cast<std::size_t>(count));
        for (lab::AgentFrame frame; held.next(frame) == lab::AgentFrameReader::Found::frame;) {
            if (frame.type != lab::policyFrame) continue;
            const auto answer = answers(frame);
            if (!answer) {
                close(connection);
                return;
            }
            static_cast<void>(send(connection, answer->data(), answer->size(), MSG_NOSIGNAL));
        }
    }
    close(connection);
}

void serveAll(int listener, const AgentProcess::Answers& answers) {
    for (int connection; (connection = accept(listener, nullptr, nullptr)) >= 0;)
        std::thread(serve, connection, answers).detach();
}

} // namespace

AgentProcess::AgentProcess(const Answers& answers)
    : listener_(listenAsAgent()), child_([&] { serveAll(listener_, answers); }) {
    close(listener_);
}

} // namespace testsupport
