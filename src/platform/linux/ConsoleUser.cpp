// The console user is the one whose session is in front on the first seat, as the login manager tells.

#include "platform/ConsoleUser.h"

#include "platform/Clock.h"
#include "platform/linux/AccountLookup.h"

#include <poll.h>
#include <pwd.h>
#include <systemd/sd-login.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace platform {

struct ConsoleUser::Watch {
    ConsoleUser::Callback changed = nullptr;
    sd_login_monitor* monitor = nullptr; // owned; null until the login manager is there
};

namespace {

constexpr const char* firstSeat = "seat0";

// Between two looks for a login manager that does not run yet.
constexpr unsigned secondsToNextTry = 10;

// Whether the session is a user's own, and not the one of a log-in screen. The superuser's is an early one.
bool isUsersSession(const char* session) {
    char* kind = nullptr;
    const bool isUsers = sd_session_get_class(session, &kind) >= 0 &&
                         (std::strcmp(kind, "user") == 0 || std::strcmp(kind, "user-early") == 0);
    std::free(kind);
    return isUsers;
}

bool activeUser(uid_t& user) {
    char* session = nullptr;
    const bool isActive =
        sd_seat_get_active(firstSeat, &session, &user) >= 0 && session && isUsersSession(session);
    std::free(session);
    return isActive;
}

// The account's name; empty when there is no such account.
std::string accountName(uid_t user) {
    passwd account{};
    std::vector<char> space;
    const auto byNumber = [&](auto... out) { return getpwuid_r(user, out...); };
    return lookUpAccount(account, space, byNumber) ? account.pw_name : std::string();
}

// Blocks until something happens at the seats. False when nothing has: an interruption, or, after a second, a wait
// that fails and might do so again at once.
bool waitForSeats(sd_login_monitor* monitor) {
    pollfd waited = {sd_login_monitor_get_fd(monitor), POLLIN, 0};
    const int ready = poll(&waited, 1, -1);
    if (ready > 0 && (waited.revents & POLLIN) != 0) return true;
    if (ready >= 0 || errno != EINTR) clock().sleepSeconds(1);
    return false;
}

class SeatConsoleUser final : public ConsoleUser {
public:
    bool copyName(char* buffer, std::size_t size) override {
        uid_t user = 0;
        if (!activeUser(user)) return false;
        const std::string name = accountName(user);
        if (name.empty() || name.size() >= size) return false;
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        return true;
    }

    // Without a login manager the session is made all the same, and waits for one.
    Watch* create(const char*, Callback changed) override {
        auto* watch = new Watch;
        watch->changed = changed;
        openMonitor(watch);
        return watch;
    }

    void run(Watch* watch) override {
        if (!watch->monitor) {
            while (!openMonitor(watch))
                clock().sleepSeconds(secondsToNextTry);
            watch->changed(watch, nullptr, nullptr);
        }
        for (;;) {
            if (!waitForSeats(watch->monitor)) continue;
            sd_login_monitor_flush(watch->monitor);
            watch->changed(watch, nullptr, nullptr);
        }
    }

    void release(Watch* watch) override {
        sd_login_monitor_unref(watch->monitor);
        delete watch;
    }

private:
    static bool openMonitor(Watch* watch) { return sd_login_monitor_new("seat", &watch->monitor) >= 0; }
};

SeatConsoleUser seatConsoleUser;

} // namespace

Service<ConsoleUser> consoleUserService{&seatConsoleUser};

} // namespace platform
