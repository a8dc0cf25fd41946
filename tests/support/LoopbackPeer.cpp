#include "support/LoopbackPeer.h"
#include "support/Patience.h"

#include "platform/ClosedOnExec.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <utility>

namespace testsupport {
namespace {

sockaddr_in loopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket that has the port to itself; for 0 the system chooses one.
int bindToLoopback(int& port) {
    const int descriptor = platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopbackAddress(port);
    socklen_t length = sizeof address;
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0)
        throw std::runtime_error("no port " + std::to_string(port));
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return descriptor;
}

bool waitReadable(int descriptor) {
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, patienceMilliseconds) == 1;
}

} // namespace

Peer::Peer(Peer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Peer& Peer::operator=(Peer&& other) noexcept {
    if (this != &other) {
        close();
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

bool Peer::send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool Peer::readMore(std::string& bytes, std::size_t atMost) {
    char buffer[4096];
    if (!waitReadable(descriptor_)) return false;
    const ssize_t count = ::recv(descriptor_, buffer, std::min(atMost, sizeof buffer), 0);
    if (count <= 0) return false;
    bytes.append(buffer, static_cast<std::size_t>(count));
    return true;
}

std::string Peer::read(std::size_t count) {
    std::string bytes;
    while (bytes.size() < count && readMore(bytes, count - bytes.size())) {
    }
    return bytes;
}

std::string Peer::readUntil(const std::string& marker) {
    std::string bytes;
    while (bytes.find(marker) == std::string::npos && readMore(bytes, 1)) {
    }
    return bytes;
}

std::string Peer::readAll() {
    std::string bytes;
    while (readMore(bytes, 4096)) {
    }
    return bytes;
}

void Peer::close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
}

void Peer::reset() {
    const linger hard{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close();
}

int Peer::handOver() { return std::exchange(descriptor_, -1); }

LoopbackListener::LoopbackListener(int port) {
    port_ = port;
    descriptor_ = bindToLoopback(port_);
    if (listen(descriptor_, 16) != 0) throw std::runtime_error("no listening socket");
}

LoopbackListener::~LoopbackListener() { ::close(descriptor_); }

Peer LoopbackListener::accept() {
    if (!waitReadable(descriptor_)) return Peer();
    return Peer(platform::closedOnExecAccept(descriptor_, nullptr, nullptr));
}

int freePort() {
    int port = 0;
    bindToLoopback(port); // never closed
    return port;
}

Peer connectTo(int port) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        Peer peer(platform::closedOnExecSocket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in address = loopbackAddress(port);
        if (connect(peer.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return peer;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return Peer();
}

void connectedPair(Peer& first, Peer& second) {
    LoopbackListener listener;
    second = connectTo(listener.port());
    first = listener.accept();
}

} // namespace testsupport
