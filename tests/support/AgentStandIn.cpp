#include "support/AgentStandIn.h"

#include "agent/OstComm.h"
#include "platform/ClosedOnExec.h"
#include "support/FixedPorts.h"
#include "support/Patience.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {
namespace {

int makeListener() {
    const int listener = platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0);
    if (!lab::listenOnLoopback(listener, OstComm::agentPort))
        throw std::runtime_error("the agent's port is not free");
    return listener;
}

} // namespace

AgentStandIn::AgentStandIn() {
    claimFixedPorts();
    listener_ = makeListener();
    if (pipe(wake_) != 0) throw std::runtime_error("no pipe");
    thread_ = std::thread([this] { serve(); });
}

AgentStandIn::~AgentStandIn() {
    close(wake_[1]);
    thread_.join();
    dropConnection();
    close(wake_[0]);
    if (listener_ >= 0) close(listener_);
}

void AgentStandIn::answerPolicy(Policy policy) {
    std::lock_guard<std::mutex> lock(mutex_);
    policy_ = std::move(policy);
}

AgentStandIn::Frame AgentStandIn::awaitFrame() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, patience, [this] { return !frames_.empty(); })) {
        ADD_FAILURE() << "no frame came";
        return {};
    }
    Frame frame = frames_.front();
    frames_.pop_front();
    return frame;
}

AgentStandIn::Frame AgentStandIn::awaitFrame(std::uint32_t type) {
    for (;;) {
        Frame frame = awaitFrame();
        if (frame.type == type || frame.bytes.empty()) return frame;
    }
}

void AgentStandIn::awaitConnections(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, patience, [&] { return accepted_ >= count; }))
        ADD_FAILURE() << "only " << accepted_ << " connections came";
}

void AgentStandIn::awaitDisconnect() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, patience, [&] { return disconnected_; }))
        ADD_FAILURE() << "no connection has ended";
}

void AgentStandIn::reply(std::uint32_t sequence, const std::string& body) {
    sendBytes(frame(lab::policyFrame, sequence, body));
}

void AgentStandIn::push(const std::string& body) {
    sendBytes(frame(lab::configurationFrame, 0x70000000, body));
}

void AgentStandIn::sendBytes(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    sendLocked(bytes);
}

void AgentStandIn::closeConnection() {
    std::lock_guard<std::mutex> lock(mutex_);
    // The poll on the other thread would keep it alive for its time.
    shutdown(connection_, SHUT_RDWR);
    dropConnection();
}

void AgentStandIn::resetConnection() {
    std::lock_guard<std::mutex> lock(mutex_);
    const linger atOnce = {1, 0};
    setsockopt(connection_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    dropConnection();
}

void AgentStandIn::stopListening() {
    std::lock_guard<std::mutex> lock(mutex_);
    // The poll on the other thread keeps a listener alive that is merely closed.
    shutdown(listener_, SHUT_RD);
    close(listener_);
    listener_ = -1;
}

void AgentStandIn::listenAgain() {
    std::lock_guard<std::mutex> lock(mutex_);
    listener_ = makeListener();
}

void AgentStandIn::serve() {
    for (;;) {
        pollfd waited[3] = {{wake_[0], POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            waited[1].fd = listener_;
            waited[2].fd = connection_;
        }
        // The limit lets a connection that the test has closed drop out of the set.
        poll(waited, 3, 20);
        if (waited[0].revents != 0) return;
        if (waited[1].revents != 0) accept();
        if (waited[2].revents != 0) receive();
    }
}

void AgentStandIn::accept() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (listener_ < 0) return;
    dropConnection();
    connection_ = platform::closedOnExecAccept(listener_, nullptr, nullptr);
    ++accepted_;
    changed_.notify_all();
}

void AgentStandIn::receive() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (connection_ < 0) return;
    char bytes[65536];
    const ssize_t count = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
        disconnected_ = true;
        dropConnection();
    }
    if (count <= 0) return;
    held_.add(bytes, static_cast<std::size_t>(count));
    takeFrames();
}

void AgentStandIn::takeFrames() {
    using Found = lab::AgentFrameReader::Found;
    for (;;) {
        Frame frame;
        const Found found = held_.next(frame);
        if (found == Found::noFrame) {
            ADD_FAILURE() << "a length came that no frame has";
            dropConnection();
        }
        if (found != Found::frame) return;
        if (frame.type == lab::policyFrame && policy_) {
            if (const auto answer = policy_(frame.body))
                sendLocked(AgentStandIn::frame(lab::policyFrame, frame.sequence, *answer));
        }
        frames_.push_back(std::move(frame));
        changed_.notify_all();
    }
}

void AgentStandIn::dropConnection() {
    if (connection_ >= 0) close(connection_);
    connection_ = -1;
    held_.clear();
    changed_.notify_all();
}

void AgentStandIn::sendLocked(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(connection_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<std::size_t>(count);
    }
}

} // namespace testsupport
