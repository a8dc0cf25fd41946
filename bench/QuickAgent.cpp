#include "bench/QuickAgent.h"

#include "agent/OstComm.h"
#include "lab/AgentFrame.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

namespace bench {
namespace {

void sendAll(int socket, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t size = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size <= 0) return;
        sent += static_cast<std::size_t>(size);
    }
}

} // namespace

void takeFrames(std::string& held, const std::function<void(std::uint32_t, std::uint32_t)>& take) {
    std::size_t at = 0;
    while (held.size() - at >= lab::agentFrameHeaderSize) {
        const char* const frame = held.data() + at;
        const std::size_t length = platform::readBig32(frame);
        if (length < lab::agentFrameHeaderSize) throw std::runtime_error("no frame");
        if (held.size() - at < length) break;
        take(platform::readBig32(frame + 4), platform::readBig32(frame + 8));
        at += length;
    }
    held.erase(0, at);
}

bool receiveMore(int socket, std::string& held) {
    char buffer[65536];
    const ssize_t size = recv(socket, buffer, sizeof buffer, 0);
    if (size <= 0) return false;
    held.append(buffer, static_cast<std::size_t>(size));
    return true;
}

QuickAgent::QuickAgent(bool silent) : wakeUp_(eventfd(0, EFD_CLOEXEC)), silent_(silent) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!lab::listenOnLoopback(listener_, OstComm::agentPort))
        throw std::runtime_error("the agent's port is taken");
    std::thread([this] { serve(); }).detach();
}

void QuickAgent::setSilent(bool silent) {
    silent_ = silent;
    eventfd_write(wakeUp_, 1);
}

void QuickAgent::serve() {
    for (;;) {
        pollfd waited[] = {{listener_, POLLIN, 0}, {wakeUp_, POLLIN, 0}, {link_, POLLIN, 0}};
        if (poll(waited, 3, -1) < 0) continue;
        if (waited[0].revents) {
            if (link_ >= 0) close(link_);
            link_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int on = 1;
            setsockopt(link_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            held_.clear();
            answers_.clear();
            continue;
        }
        eventfd_t woken = 0;
        if (waited[1].revents) eventfd_read(wakeUp_, &woken);
        if (link_ >= 0 && waited[2].revents) readLink();
        if (!silent_) flush();
    }
}

void QuickAgent::readLink() {
    if (!receiveMore(link_, held_)) {
        close(link_);
        link_ = -1;
        return;
    }
    takeFrames(held_, [this](std::uint32_t type, std::uint32_t sequence) {
        if (type != lab::policyFrame) return;
        ++questions_;
        note(sequence);
        answers_ += lab::agentFrame(lab::policyFrame, sequence, "{}");
    });
}

void QuickAgent::note(std::uint32_t sequence) {
    if (sequence >= numbersSeen_.size()) numbersSeen_.resize(2 * std::size_t{sequence} + 1);
    if (numbersSeen_[sequence]) ++numbersDrawnTwice_;
    numbersSeen_[sequence] = true;
}

void QuickAgent::flush() {
    if (answers_.empty() || link_ < 0) return;
    sendAll(link_, answers_);
    answers_.clear();
}

const std::string questionBody = R"({"url":"http://www.example.org/page/1234567"})";

int connectedToAgent() {
    const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(OstComm::agentPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(made, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("nobody listens at the agent's port");
    return made;
}

RawClient::RawClient() : socket_(connectedToAgent()) {}

Cost RawClient::ask(long count, int inFlight, std::vector<double>& times) {
    return costOf(count, [&] {
        std::vector<double> sentAt(static_cast<std::size_t>(count));
        std::string held;
        long sent = 0;
        const auto sendOne = [&] {
            sentAt[static_cast<std::size_t>(sent)] = secondsNow();
            sendAll(socket_,
                    lab::agentFrame(lab::policyFrame, static_cast<std::uint32_t>(sent++), questionBody));
        };
        while (sent < std::min<long>(inFlight, count))
            sendOne();
        for (long answered = 0; answered < count;) {
            if (!receiveMore(socket_, held)) throw std::runtime_error("the agent has hung up");
            takeFrames(held, [&](std::uint32_t, std::uint32_t sequence) {
                times.push_back(secondsNow() - sentAt[sequence]);
                ++answered;
                if (sent < count) sendOne();
            });
        }
    });
}

} // namespace bench
