// Connections that the world holds back.

#include "machost/world/Network.h"
#include "machost/world/World.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace machost::world {
namespace {

struct HeldBack {
    Line line;
    const sockaddr_storage address;
    const socklen_t length;
    const std::function<void(int)> released;
};

struct Table {
    std::mutex lock;
    std::map<int, std::shared_ptr<HeldBack>> held;
};

Table& table() {
    static auto& one = *new Table;
    return one;
}

Words questionOf(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = "";
    std::uint16_t port = 0;
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 place{};
        std::memcpy(&place, &address, sizeof place);
        inet_ntop(AF_INET6, &place.sin6_addr, text, sizeof text);
        port = place.sin6_port;
    } else {
        sockaddr_in place{};
        std::memcpy(&place, &address, sizeof place);
        inet_ntop(AF_INET, &place.sin_addr, text, sizeof text);
        port = place.sin_port;
    }
    return {"connect", text, std::to_string(ntohs(port))};
}

// Connects under the table's lock, so that the descriptor is still the one that was asked about.
void awaitRelease(int descriptor, const std::shared_ptr<HeldBack>& held) {
    held->line.next();
    int error = 0;
    {
        const std::lock_guard<std::mutex> guard(table().lock);
        const auto found = table().held.find(descriptor);
        if (found == table().held.end() || found->second != held) return;
        table().held.erase(found);
        if (connect(descriptor, reinterpret_cast<const sockaddr*>(&held->address), held->length) != 0)
            error = errno;
    }
    held->released(error);
}

} // namespace

bool connectLate(int descriptor, const sockaddr_storage& address, socklen_t length,
                 const std::function<void(int error)>& released) {
    Line line(questionOf(address));
    if (Answer::of(line.next()).kind != Answer::yes) return false;
    auto held = std::make_shared<HeldBack>(HeldBack{std::move(line), address, length, released});
    {
        const std::lock_guard<std::mutex> guard(table().lock);
        table().held[descriptor] = held;
    }
    std::thread(awaitRelease, descriptor, held).detach();
    return true;
}

bool isHeldBack(int descriptor) {
    const std::lock_guard<std::mutex> guard(table().lock);
    return table().held.count(descriptor) != 0;
}

void forgetHeldBack(int descriptor) {
    std::shared_ptr<HeldBack> held;
    const std::lock_guard<std::mutex> guard(table().lock);
    const auto found = table().held.find(descriptor);
    if (found == table().held.end()) return;
    held = found->second;
    table().held.erase(found);
    held->line.hangUp();
}

std::unique_lock<std::mutex> lockHeldBack() { return std::unique_lock(table().lock); }

} // namespace machost::world
