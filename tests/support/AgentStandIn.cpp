#include "support/AgentStandIn.h"

#include "agent/OstComm.h"
#include "platform/ByteOrder.h"
#include "platform/ClosedOnExec.h"
#include "support/FixedPorts.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace testsupport {
namespace {

constexpr auto patience = std::chrono::seconds(5);

int listenOnLoopback() {
    const int listener = platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(OstComm::agentPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 16) != 0)
        throw std::runtime_error("the agent's port is not free");
    return listener;
}

} // namespace

AgentStandIn::AgentStandIn() {
    claimFixedPorts();
    listener_ = listenOnLoopback();
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

std::string AgentStandIn::frame(std::uint32_t type, std::uint32_t sequence, const std::string& body) {
    return frameOfLength(static_cast<std::uint32_t>(12 + body.size()), type, sequence, body);
}

std::string AgentStandIn::frameOfLength(std::uint32_t length, std::uint32_t type, std::uint32_t sequence,
                                        const std::string& body) {
    char header[12];
    platform::writeBig32(header, length);
    platform::writeBig32(header + 4, type);
    platform::writeBig32(header + 8, sequence);
    return std::string(header, sizeof header) + body;
}

void AgentStandIn::reply(std::uint32_t sequence, const std::string& body) {
    sendBytes(frame(1, sequence, body));
}

void AgentStandIn::push(const std::string& body) { sendBytes(frame(5, 0x70000000, body)); }

void AgentStandIn::sendBytes(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    sendLocked(bytes);
}

void AgentStandIn::closeConnection() {
    std::lock_guard<std::mutex> lock(mutex_);
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
    listener_ = listenOnLoopback();
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
    char bytes[65536];
    const ssize_t count = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
        disconnected_ = true;
        dropConnection();
    }
    if (count <= 0) return;
    held_.append(bytes, static_cast<std::size_t>(count));
    takeFrames();
}

void AgentStandIn::takeFrames() {
    while (held_.size() >= 12) {
        const std::size_t length = platform::readBig32(held_.data());
        if (length < 12) {
            ADD_FAILURE() << "a frame of " << length << " bytes came";
            dropConnection();
            return;
        }
        if (held_.size() < length) return;
        Frame frame{platform::readBig32(held_.data() + 4), platform::readBig32(held_.data() + 8),
                    held_.substr(12, length - 12), held_.substr(0, length)};
        held_.erase(0, length);
        if (frame.type == 1 && policy_) {
            if (const auto answer = policy_(frame.body))
                sendLocked(AgentStandIn::frame(1, frame.sequence, *answer));
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
