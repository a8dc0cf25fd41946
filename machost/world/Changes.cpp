#include "machost/world/Changes.h"

#include "machost/world/World.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace machost::world {
namespace {

class PlayedWatch final : public Watch {
public:
    explicit PlayedWatch(Line line) : line_(std::move(line)) {}

    bool next() override { return line_.next().has_value(); }
    void end() override { line_.hangUp(); }

private:
    Line line_;
};

// A watch of a descriptor that becomes readable when something may have changed.
class DescriptorWatch : public Watch {
public:
    DescriptorWatch() : over_(eventfd(0, EFD_CLOEXEC)) {}
    ~DescriptorWatch() override { close(over_); }
    DescriptorWatch(const DescriptorWatch&) = delete;
    DescriptorWatch& operator=(const DescriptorWatch&) = delete;

    bool next() override {
        for (;;) {
            pollfd waited[] = {{over_, POLLIN, 0}, {descriptor(), POLLIN, 0}};
            if (poll(waited, 2, retryMilliseconds()) < 0) continue;
            if (waited[0].revents) return false;
            if (hasChanged()) return true;
        }
    }

    void end() override {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(over_, &one, sizeof one);
    }

protected:
    virtual int descriptor() = 0;

    // Takes what has come; whether that is a change.
    virtual bool hasChanged() = 0;

    // How long to wait at most before `hasChanged` looks again; below 0 for no limit.
    virtual int retryMilliseconds() { return -1; }

private:
    const int over_;
};

class SeatWatch final : public DescriptorWatch {
public:
    SeatWatch() { sd_login_monitor_new("seat", &monitor_); }
    ~SeatWatch() override { sd_login_monitor_unref(monitor_); }
    SeatWatch(const SeatWatch&) = delete;
    SeatWatch& operator=(const SeatWatch&) = delete;

private:
    static constexpr int secondsToNextTry = 10;

    int descriptor() override { return monitor_ ? sd_login_monitor_get_fd(monitor_) : -1; }

    // A login manager that comes late is a change in itself.
    bool hasChanged() override {
        if (!monitor_) return sd_login_monitor_new("seat", &monitor_) >= 0;
        sd_login_monitor_flush(monitor_);
        return true;
    }

    int retryMilliseconds() override { return monitor_ ? -1 : secondsToNextTry * 1000; }

    sd_login_monitor* monitor_ = nullptr;
};

class AddressWatch final : public DescriptorWatch {
public:
    explicit AddressWatch(int socket) : socket_(socket) {}
    ~AddressWatch() override { close(socket_); }
    AddressWatch(const AddressWatch&) = delete;
    AddressWatch& operator=(const AddressWatch&) = delete;

private:
    int descriptor() override { return socket_; }

    // Messages that found no room are lost; one of them may have told of an address.
    bool hasChanged() override {
        alignas(nlmsghdr) char messages[16384];
        const ssize_t count = recv(socket_, messages, sizeof messages, MSG_DONTWAIT);
        if (count < 0) return errno == ENOBUFS;
        auto left = static_cast<unsigned>(count);
        for (auto* message = reinterpret_cast<nlmsghdr*>(messages); NLMSG_OK(message, left);
             message = NLMSG_NEXT(message, left))
            if (message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_DELADDR) return true;
        return false;
    }

    const int socket_;
};

std::unique_ptr<Watch> watchAddresses(int& error) {
    const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (socket >= 0 && bind(socket, reinterpret_cast<sockaddr*>(&groups), sizeof groups) == 0)
        return std::make_unique<AddressWatch>(socket);
    error = errno;
    if (socket >= 0) close(socket);
    return nullptr;
}

// The user whose session is in front on the first seat, unless that is a log-in screen.
std::optional<std::string> seatUser() {
    char* session = nullptr;
    char* kind = nullptr;
    uid_t user = 0;
    const bool active = sd_seat_get_active("seat0", &session, &user) >= 0 && session &&
                        sd_session_get_class(session, &kind) >= 0 && std::strncmp(kind, "user", 4) == 0;
    std::free(session);
    std::free(kind);
    char room[16384];
    passwd account{};
    passwd* found = nullptr;
    if (!active || getpwuid_r(user, &account, room, sizeof room, &found) != 0 || !found) return std::nullopt;
    return found->pw_name;
}

// The played watch, if the world plays it; else null with `real` set, or null with an error.
std::unique_ptr<Watch> playedWatch(const char* topic, const std::string& name, bool& real, int& error) {
    Line line({topic, name});
    const Answer answer = Answer::of(line.next());
    real = answer.kind == Answer::real;
    if (real) return nullptr;
    if (answer.kind == Answer::yes) return std::make_unique<PlayedWatch>(std::move(line));
    error = answer.words.empty() ? 0 : static_cast<int>(numberIn(answer.words[0], 0, INT_MAX));
    return nullptr;
}

} // namespace

std::unique_ptr<Watch> watchConsole(const std::string& name, int& error) {
    bool real = false;
    std::unique_ptr<Watch> watch = playedWatch("watch-console", name, real, error);
    if (real) return std::make_unique<SeatWatch>();
    return watch;
}

std::unique_ptr<Watch> watchNetwork(const std::string& name, int& error) {
    bool real = false;
    std::unique_ptr<Watch> watch = playedWatch("watch-network", name, real, error);
    return real ? watchAddresses(error) : std::move(watch);
}

std::optional<std::string> consoleUser() {
    const Answer answer = ask({"console-user"});
    if (answer.kind == Answer::real) return seatUser();
    if (answer.kind == Answer::no || answer.words.empty()) return std::nullopt;
    return answer.words[0];
}

} // namespace machost::world
