#include "lab/ExtensionStandIn.h"

#include "lab/Policy.h"
#include "platform/ByteOrder.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace lab {
namespace {

constexpr std::size_t recordHeaderSize = 24;
constexpr std::size_t largestRecord = 65535;
constexpr const char* controlNames[2] = {"twFernhill_inkext", "twFernhill_outkext"};

enum Option : std::uint32_t { logLevelOption = 70, versionOption = 201, statisticsOption = 224 };
constexpr std::uint32_t getOperation = 2;
constexpr std::uint32_t largestStatistics = 2000;

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(fmt::format("{}: too long for a socket's name", path));
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        throw InputError(
            fmt::format("{}: {}; remove it, or give another folder", path, std::strerror(errno)));
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0) throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 16) != 0) {
        const int error = errno;
        close(listener);
        throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(error)));
    }
    return listener;
}

int sideOf(Direction direction) { return direction == Direction::in ? 0 : 1; }

bool waitReadable(int descriptor, int milliseconds) {
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, milliseconds) == 1;
}

int millisecondsUntil(std::chrono::steady_clock::time_point limit) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

// False with EAGAIN when whoever is to read it has made no room by then.
bool sendBefore(std::chrono::steady_clock::time_point limit, int channel, const char* bytes,
                std::size_t count) {
    int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
    while (send(channel, bytes, count, flags) < 0) {
        const int left = millisecondsUntil(limit);
        if (errno != EINTR && (errno != EAGAIN || left == 0)) return false;
        const timeval time = {left / 1000, left % 1000 * 1000L};
        // No time at all would be all the time.
        flags = left == 0 ? MSG_NOSIGNAL | MSG_DONTWAIT : MSG_NOSIGNAL;
        if (setsockopt(channel, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) != 0) return false;
    }
    return true;
}

} // namespace

ExtensionStandIn::ExtensionStandIn(std::string root, std::int32_t version)
    : root_(std::move(root)), version_(version) {}

ExtensionStandIn::~ExtensionStandIn() { stop(); }

void ExtensionStandIn::listen() {
    for (int i = 0; i < 2; ++i) {
        const std::string path = root_ + "/var/run/fernhill/" + controlNames[i];
        listeners_[i] = listenAt(path);
        optionListeners_[i] = listenAt(path + ".options");
    }
    wakeUp_ = eventfd(0, EFD_CLOEXEC);
}

void ExtensionStandIn::start() { thread_ = std::thread(&ExtensionStandIn::serveOptions, this); }

bool ExtensionStandIn::waitForDaemon(int milliseconds) {
    for (int i = 0; i < 2; ++i) {
        if (channels_[i] >= 0) continue;
        if (!waitReadable(listeners_[i], milliseconds)) return false;
        channels_[i] = accept4(listeners_[i], nullptr, nullptr, SOCK_CLOEXEC);
        if (channels_[i] < 0) return false;
    }
    return true;
}

std::optional<sysctl_result> ExtensionStandIn::present(Direction direction, const std::vector<char>& packet,
                                                       int milliseconds, RecordForm form) {
    const int side = sideOf(direction);
    const int channel = channels_[side];
    std::vector<char>& record = records_[side];
    const std::uint64_t id = nextId_++;
    record.assign(recordHeaderSize, 0);
    platform::writeNative(record.data(), id);
    const std::size_t room = largestRecord - recordHeaderSize;
    record.insert(record.end(), packet.begin(),
                  packet.begin() + static_cast<std::ptrdiff_t>(std::min(packet.size(), room)));
    const Time limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    if (!sendRecord(channel, record, form, limit)) {
        if (errno != EAGAIN) connected_ = false;
        return {};
    }
    return awaitResult(channel, id, limit);
}

bool ExtensionStandIn::sendRecord(int channel, const std::vector<char>& record, RecordForm form, Time limit) {
    const std::size_t first = form == RecordForm::whole ? record.size() : recordHeaderSize;
    if (!sendBefore(limit, channel, record.data(), first)) return false;
    return first == record.size() || sendBefore(limit, channel, record.data() + first, record.size() - first);
}

bool ExtensionStandIn::sendBytes(Direction direction, const std::vector<char>& bytes) {
    return send(channels_[sideOf(direction)], bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
}

std::optional<sysctl_result> ExtensionStandIn::awaitAnyResult(Direction direction, int milliseconds) {
    const int channel = channels_[sideOf(direction)];
    sysctl_result result{};
    if (!waitReadable(channel, milliseconds) || recv(channel, &result, sizeof result, 0) != sizeof result)
        return {};
    return result;
}

// Records that come too late for an earlier packet are passed over.
std::optional<sysctl_result> ExtensionStandIn::awaitResult(int channel, std::uint64_t id, Time limit) {
    do {
        if (!waitReadable(channel, millisecondsUntil(limit))) continue; // the time is over, or a signal came
        sysctl_result result{};
        const ssize_t count = recv(channel, &result, sizeof result, 0);
        if (count <= 0) connected_ = false;
        if (count != sizeof result) return {};
        std::uint64_t answered = 0;
        std::memcpy(&answered, &result.packetId, sizeof answered);
        if (answered == id) return result;
        hasStrays_ = true;
    } while (std::chrono::steady_clock::now() < limit);
    return {};
}

bool ExtensionStandIn::hasOnlyAnswered() const {
    return !hasStrays_ && !waitReadable(channels_[0], 0) && !waitReadable(channels_[1], 0);
}

void ExtensionStandIn::stop() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        if (write(wakeUp_, &one, sizeof one) == sizeof one) thread_.join();
    }
    for (int* descriptors : {listeners_, optionListeners_, channels_}) {
        for (int i = 0; i < 2; ++i) {
            if (descriptors[i] >= 0) close(descriptors[i]);
            descriptors[i] = -1;
        }
    }
    if (wakeUp_ >= 0) close(wakeUp_);
    wakeUp_ = -1;
}

std::vector<int> ExtensionStandIn::descriptors() const {
    return {listeners_[0], listeners_[1], optionListeners_[0], optionListeners_[1], wakeUp_};
}

void ExtensionStandIn::serveOptions() {
    for (;;) {
        pollfd waiting[] = {
            {wakeUp_, POLLIN, 0}, {optionListeners_[0], POLLIN, 0}, {optionListeners_[1], POLLIN, 0}};
        if (poll(waiting, 3, -1) < 0 && errno != EINTR) return;
        if (waiting[0].revents) return;
        for (int i = 1; i < 3; ++i) {
            if (!waiting[i].revents) continue;
            const int client = accept4(waiting[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            answerOption(client);
            close(client);
        }
    }
}

void ExtensionStandIn::answerOption(int client) const {
    char request[4096];
    if (!waitReadable(client, 1000) || recv(client, request, sizeof request, 0) < 12) return;
    const auto operation = platform::readNative<std::uint32_t>(request);
    const auto option = platform::readNative<std::uint32_t>(request + 4);
    const auto length = platform::readNative<std::uint32_t>(request + 8);

    std::string value;
    std::int32_t status = 0;
    if (operation == getOperation && option == versionOption) {
        value.assign(reinterpret_cast<const char*>(&version_), sizeof version_);
    } else if (operation == getOperation && option == statisticsOption) {
        value.assign(std::min(length, largestStatistics), '\0');
    } else if (option != logLevelOption) {
        status = ENOPROTOOPT;
    }
    std::string answer(8, '\0');
    platform::writeNative(&answer[0], status);
    platform::writeNative(&answer[4], static_cast<std::uint32_t>(value.size()));
    answer += value;
    send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
}

} // namespace lab
