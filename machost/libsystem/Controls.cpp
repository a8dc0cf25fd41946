#include "machost/libsystem/Controls.h"

#include "machost/Settings.h"
#include "machost/libsystem/SocketState.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace machost::libsystem {
namespace {

constexpr const char* folder = "/var/run/fernhill/";

int fail(int error) {
    errno = error;
    return -1;
}

// The ids that were given to names, in the order in which the names were first asked for.
class KnownControls {
public:
    std::uint32_t idOf(const std::string& name) {
        const std::lock_guard<std::mutex> guard(lock_);
        const auto found = std::find(names_.begin(), names_.end(), name);
        const auto id = static_cast<std::uint32_t>(found - names_.begin() + 1);
        if (found == names_.end()) names_.push_back(name);
        return id;
    }

    // Empty for an id that was not given.
    std::string nameOf(std::uint32_t id) {
        const std::lock_guard<std::mutex> guard(lock_);
        return id == 0 || id > names_.size() ? std::string() : names_[id - 1];
    }

    std::unique_lock<std::mutex> hold() { return std::unique_lock(lock_); }

private:
    std::mutex lock_;
    std::vector<std::string> names_;
};

KnownControls& controls() {
    static auto& one = *new KnownControls;
    return one;
}

std::string pathOf(const std::string& name) { return settings().root + folder + name; }

int connectTo(int descriptor, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return fail(ENAMETOOLONG);
    path.copy(address.sun_path, path.size());
    return connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

struct Request {
    std::uint32_t operation, option, length;
};

struct Answer {
    std::int32_t status;
    std::uint32_t length;
};

struct Connection {
    explicit Connection(const std::string& path)
        : descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        connected = descriptor >= 0 && connectTo(descriptor, path) == 0;
    }
    ~Connection() {
        const int before = errno;
        if (descriptor >= 0) close(descriptor);
        errno = before;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int descriptor;
    bool connected = false;
};

// Sends the request and gives the answer's bytes, value included; empty with errno set when there is none.
std::vector<char> call(int descriptor, const Request& request, const void* value, std::size_t room) {
    const std::string name = controls().nameOf(socketState(descriptor).controlId);
    if (name.empty()) {
        fail(ENOTCONN);
        return {};
    }
    const Connection connection(pathOf(name) + ".options");
    if (!connection.connected) return {};
    std::vector<char> message(sizeof request + (value ? request.length : 0));
    std::memcpy(message.data(), &request, sizeof request);
    if (value) std::memcpy(message.data() + sizeof request, value, request.length);
    if (send(connection.descriptor, message.data(), message.size(), MSG_NOSIGNAL) < 0) return {};
    message.resize(sizeof(Answer) + room);
    const ssize_t count = recv(connection.descriptor, message.data(), message.size(), 0);
    if (count < 0) return {};
    message.resize(static_cast<std::size_t>(count));
    Answer answer{};
    if (message.size() < sizeof answer) {
        fail(EPROTO);
        return {};
    }
    std::memcpy(&answer, message.data(), sizeof answer);
    if (answer.status == 0) return message;
    fail(answer.status);
    return {};
}

} // namespace

std::unique_lock<std::mutex> lockControls() { return controls().hold(); }

int openControl(int type) {
    if (type != SOCK_STREAM && type != SOCK_DGRAM) return fail(EPROTOTYPE);
    // A control that is registered for the other kind refuses the connection.
    const int descriptor = socket(AF_UNIX, type == SOCK_STREAM ? SOCK_SEQPACKET : SOCK_DGRAM, 0);
    if (descriptor < 0) return -1;
    SocketState state;
    state.control = true;
    setSocketState(descriptor, state);
    return descriptor;
}

int controlInfo(mac::ControlInfo& info) {
    info.name[sizeof info.name - 1] = 0;
    if (!info.name[0]) return fail(EINVAL);
    struct stat found {};
    if (stat(pathOf(info.name).c_str(), &found) != 0) return fail(ENOENT);
    info.id = controls().idOf(info.name);
    return 0;
}

int connectControl(int descriptor, const mac::AddressControl& address, socklen_t length) {
    SocketState state = socketState(descriptor);
    if (!state.control || length != sizeof address) return fail(EINVAL);
    const std::string name = controls().nameOf(address.id);
    if (name.empty()) return fail(ENOENT);
    if (connectTo(descriptor, pathOf(name)) != 0) return -1;
    state.controlId = address.id;
    setSocketState(descriptor, state);
    return 0;
}

int setControlOption(int descriptor, int option, const void* value, socklen_t length) {
    const Request request{1, static_cast<std::uint32_t>(option), length};
    return call(descriptor, request, value, 0).empty() ? -1 : 0;
}

int getControlOption(int descriptor, int option, void* value, socklen_t* length) {
    const Request request{2, static_cast<std::uint32_t>(option), *length};
    const std::vector<char> message = call(descriptor, request, nullptr, *length);
    if (message.empty()) return -1;
    Answer answer{};
    std::memcpy(&answer, message.data(), sizeof answer);
    const std::size_t came = std::min<std::size_t>({message.size() - sizeof answer, answer.length, *length});
    std::memcpy(value, message.data() + sizeof answer, came);
    *length = static_cast<socklen_t>(came);
    return 0;
}

} // namespace machost::libsystem
