#include "platform/NetworkChanges.h"

#include "platform/Clock.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace platform {

struct NetworkChanges::Watch {
    int socket;
    void (*changed)();
};

namespace {

constexpr int bufferSize = 16384;

// Whether one of the messages adds or removes an address.
bool holdsAddressChange(char* messages, unsigned length) {
    auto* message = reinterpret_cast<nlmsghdr*>(messages);
    for (; NLMSG_OK(message, length); message = NLMSG_NEXT(message, length))
        if (message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_DELADDR) return true;
    return false;
}

// The socket's queue stands for the run loop: what comes during a call waits in it.
class RouteMessages final : public NetworkChanges {
public:
    Watch* create(const char*, void (*changed)(), int& error) override {
        const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        sockaddr_nl groups{};
        groups.nl_family = AF_NETLINK;
        groups.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
        if (socket >= 0 && bind(socket, reinterpret_cast<sockaddr*>(&groups), sizeof groups) == 0) {
            error = 0;
            return new Watch{socket, changed};
        }
        error = errno;
        if (socket >= 0) ::close(socket);
        return nullptr;
    }

    // Delivers one batch of messages as one call.
    void run(Watch* watch) override {
        alignas(nlmsghdr) char messages[bufferSize];
        const ssize_t received = recv(watch->socket, messages, sizeof messages, 0);
        if (received < 0) {
            // Messages that found no room were lost: one of them may have been an address.
            if (errno == ENOBUFS) watch->changed();
            // Anything else would come back at once.
            else if (errno != EINTR)
                clock().sleepSeconds(1);
            return;
        }
        if (holdsAddressChange(messages, static_cast<unsigned>(received))) watch->changed();
    }

    void release(Watch* watch) override {
        ::close(watch->socket);
        delete watch;
    }
};

RouteMessages routeMessages;

} // namespace

Service<NetworkChanges> networkChangesService{&routeMessages};

NetworkChanges& systemNetworkChanges() { return routeMessages; }

} // namespace platform
