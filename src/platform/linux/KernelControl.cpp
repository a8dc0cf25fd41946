// Kernel controls played by Unix sockets, so that any program can stand in for the extension. A control is a
// listening SOCK_SEQPACKET socket at a fixed path; its options are served at the same path with ".options"
// behind it, a connection for each call:
//
//   daemon:  u32 operation (1 set, 2 get), u32 option, u32 length, then the value if it sets one
//   answer:  i32 status (0 or an errno), u32 length, then the value if one was asked for
//
// All little-endian, one message each way.

#include "platform/KernelControl.h"
#include "platform/HostPaths.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace platform {
namespace {

enum Operation : std::uint32_t { setOperation = 1, getOperation = 2 };

struct OptionRequest {
    std::uint32_t operation;
    std::uint32_t option;
    std::uint32_t length;
};

struct OptionAnswer {
    std::int32_t status;
    std::uint32_t length;
};

// The controls that an extension can register; their position plus one is their id.
const char* controlPath(std::uint32_t id) {
    if (id == 1) return HostPaths::inboundControlSocket();
    if (id == 2) return HostPaths::outboundControlSocket();
    return nullptr;
}

bool isNamed(const char* path, const char* name) {
    const char* slash = std::strrchr(path, '/');
    return slash && std::strcmp(slash + 1, name) == 0;
}

// Leaves an error number in errno and answers as a failed system call does.
int failWith(int error) {
    errno = error;
    return -1;
}

int connectTo(int socket, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return failWith(ENAMETOOLONG);
    path.copy(address.sun_path, path.size());
    const auto* general = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket, general, sizeof address);
}

// A descriptor that is closed at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return descriptor_; }

private:
    int descriptor_;
};

// Where the options of the control behind a connected socket are served.
int optionsPath(int socket, std::string& path) {
    sockaddr_un peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return -1;
    path.assign(peer.sun_path, strnlen(peer.sun_path, sizeof peer.sun_path));
    path += ".options";
    return 0;
}

// One option call: the request with its value goes out, the answer with its value comes in.
int callOption(int socket, const OptionRequest& request, const void* value, void* result, socklen_t* room) {
    std::string path;
    if (optionsPath(socket, path) != 0) return -1;
    const Descriptor connection(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (connection.get() < 0) return -1;
    if (connectTo(connection.get(), path) != 0) return -1;

    std::vector<char> message(sizeof request + (value ? request.length : 0));
    std::memcpy(message.data(), &request, sizeof request);
    if (value) std::memcpy(message.data() + sizeof request, value, request.length);
    if (::send(connection.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) return -1;

    message.resize(sizeof(OptionAnswer) + (room ? *room : 0));
    const ssize_t received = ::recv(connection.get(), message.data(), message.size(), 0);
    if (received < 0) return -1;
    if (received < static_cast<ssize_t>(sizeof(OptionAnswer))) return failWith(EPROTO);
    OptionAnswer answer{};
    std::memcpy(&answer, message.data(), sizeof answer);
    if (answer.status != 0) return failWith(answer.status);
    if (room) {
        const auto came = static_cast<socklen_t>(received - static_cast<ssize_t>(sizeof answer));
        *room = std::min(came, answer.length);
        std::memcpy(result, message.data() + sizeof answer, *room);
    }
    return 0;
}

class SocketKernelControl final : public KernelControl {
public:
    int open() override { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); }

    int controlId(int, const char* name, std::uint32_t& id) override {
        for (std::uint32_t candidate = 1; const char* path = controlPath(candidate); ++candidate) {
            struct stat status {};
            if (!isNamed(path, name)) continue;
            if (stat(path, &status) != 0) return -1;
            id = candidate;
            return 0;
        }
        return failWith(ENOENT);
    }

    int connect(int socket, std::uint32_t id) override {
        const char* path = controlPath(id);
        return path ? connectTo(socket, path) : failWith(EINVAL);
    }

    int setOption(int socket, int option, const void* value, socklen_t length) override {
        const OptionRequest request{setOperation, static_cast<std::uint32_t>(option), length};
        return callOption(socket, request, value, nullptr, nullptr);
    }

    int getOption(int socket, int option, void* value, socklen_t& length) override {
        const OptionRequest request{getOperation, static_cast<std::uint32_t>(option), length};
        return callOption(socket, request, nullptr, value, &length);
    }
};

SocketKernelControl socketKernelControl;

} // namespace

Service<KernelControl> kernelControlService{&socketKernelControl};

} // namespace platform
