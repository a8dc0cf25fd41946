#include "lab/divert/SegmentSender.h"

#include "lab/divert/LabNetwork.h"
#include "lab/divert/Tools.h"

#include <fmt/format.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lab {

SegmentSender::SegmentSender() {
    const int families[] = {AF_INET, AF_INET6};
    for (int i = 0; i < 2; ++i) {
        sockets_[i] = socket(families[i], SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
        if (sockets_[i] < 0 || setsockopt(sockets_[i], SOL_SOCKET, SO_MARK, &ownMark, sizeof ownMark) != 0)
            throw UnavailableError(fmt::format("divert: no raw socket: {}", std::strerror(errno)));
    }
}

SegmentSender::~SegmentSender() {
    for (const int descriptor : sockets_)
        close(descriptor);
}

void SegmentSender::send(const Endpoint& destination, const std::vector<char>& packet) const {
    if (destination.address.size() == 16) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        std::memcpy(&address.sin6_addr, destination.address.data(), sizeof address.sin6_addr);
        sendto(sockets_[1], packet.data(), packet.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
               sizeof address);
        return;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, destination.address.data(), sizeof address.sin_addr);
    sendto(sockets_[0], packet.data(), packet.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
           sizeof address);
}

} // namespace lab
