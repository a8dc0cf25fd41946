// Sockets. TCP and UDP are this system's own; what differs is numbers, forms, and what a call answers on a socket that
// is still connecting.

#include "machost/libsystem/Controls.h"
#include "machost/libsystem/Errors.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/Queues.h"
#include "machost/libsystem/SocketAddresses.h"
#include "machost/libsystem/SocketState.h"
#include "machost/world/Network.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cstring>

namespace machost::libsystem {
namespace {

int playedSocket(int family, int type, int protocol) {
    const ErrorScope scope;
    if (family == mac::familySystem) {
        if (protocol == mac::systemControl) return openControl(type);
        errno = EPROTONOSUPPORT;
        return -1;
    }
    const int host = hostFamily(family);
    if (host < 0 || host == AF_UNIX) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const int descriptor = socket(host, type, protocol);
    if (descriptor >= 0) forgetDescriptor(descriptor);
    return descriptor;
}

bool isNonBlocking(int descriptor) { return fcntl(descriptor, F_GETFL) & O_NONBLOCK; }

// On the Mac a refusal on this machine comes after the call has come back, so a socket that does not block is told of
// it later. Any other failure leaves the socket as if nothing had been asked.
int laterRefusal(int descriptor) {
    if (errno == EINPROGRESS) return -1;
    SocketState state = socketState(descriptor);
    if (errno == ECONNREFUSED && isNonBlocking(descriptor)) {
        state.pendingError = ECONNREFUSED;
        errno = EINPROGRESS;
    } else {
        state.unconnected = true;
    }
    const int error = errno;
    setSocketState(descriptor, state);
    errno = error;
    return -1;
}

// A connection that was held back has been let go: who waits for the socket sees what became of it.
void noteRelease(int descriptor, int error) {
    if (error != 0 && error != EINPROGRESS) {
        SocketState state = socketState(descriptor);
        state.pendingError = error;
        setSocketState(descriptor, state);
    }
    rearmWatches(descriptor);
}

int playedConnect(int descriptor, const mac::Address* address, socklen_t length) {
    const ErrorScope scope;
    if (address->family == mac::familySystem) {
        mac::AddressControl control{};
        std::memcpy(&control, address, std::min<std::size_t>(length, sizeof control));
        return connectControl(descriptor, control, length);
    }
    sockaddr_storage host{};
    socklen_t hostLength = 0;
    if (!hostAddress(address, length, host, hostLength)) return laterRefusal(descriptor);
    // Only a socket that does not block is ever held back.
    const auto released = [descriptor](int error) { noteRelease(descriptor, error); };
    if (isNonBlocking(descriptor) && world::connectLate(descriptor, host, hostLength, released)) {
        errno = EINPROGRESS;
        return -1;
    }
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&host), hostLength) == 0) return 0;
    return laterRefusal(descriptor);
}

int playedBind(int descriptor, const mac::Address* address, socklen_t length) {
    const ErrorScope scope;
    sockaddr_storage host{};
    socklen_t hostLength = 0;
    if (!hostAddress(address, length, host, hostLength)) return -1;
    return bind(descriptor, reinterpret_cast<const sockaddr*>(&host), hostLength);
}

int playedAccept(int descriptor, mac::Address* address, socklen_t* length) {
    const ErrorScope scope;
    sockaddr_storage host{};
    socklen_t hostLength = sizeof host;
    const int accepted = accept(descriptor, reinterpret_cast<sockaddr*>(&host), &hostLength);
    if (accepted < 0) return -1;
    forgetDescriptor(accepted);
    macAddress(host, address, length);
    // The Mac's new socket blocks as the listener does; this system's blocks always.
    if (isNonBlocking(descriptor)) fcntl(accepted, F_SETFL, fcntl(accepted, F_GETFL) | O_NONBLOCK);
    return accepted;
}

bool isConnecting(int descriptor) {
    if (world::isHeldBack(descriptor)) return true;
    tcp_info information{};
    socklen_t length = sizeof information;
    return getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &information, &length) == 0 &&
           information.tcpi_state == TCP_SYN_SENT;
}

int hostFlags(int mac) {
    int flags = mac & (mac::outOfBand | mac::peek);
    if (mac & mac::waitAll) flags |= MSG_WAITALL;
    if (mac & mac::dontWait) flags |= MSG_DONTWAIT;
    return flags;
}

// Who writes to a socket that is still connecting is told there that it is not connected.
bool refuseWriting(int descriptor) {
    const SocketState state = socketState(descriptor);
    if (state.control) return false;
    if (!state.unconnected && !isConnecting(descriptor)) return false;
    errno = ENOTCONN;
    return true;
}

// Who reads from it waits, as here; what is held back does not block.
bool refuseReading(int descriptor) {
    const bool held = world::isHeldBack(descriptor);
    if (!held && !socketState(descriptor).unconnected) return false;
    errno = held ? EAGAIN : ENOTCONN;
    return true;
}

ssize_t playedSend(int descriptor, const void* bytes, std::size_t length, int flags) {
    const ErrorScope scope;
    if (refuseWriting(descriptor)) return -1;
    const int quiet = socketState(descriptor).noSignal ? MSG_NOSIGNAL : 0;
    return send(descriptor, bytes, length, hostFlags(flags) | quiet);
}

ssize_t playedRecv(int descriptor, void* bytes, std::size_t length, int flags) {
    const ErrorScope scope;
    if (refuseReading(descriptor)) return -1;
    return recv(descriptor, bytes, length, hostFlags(flags));
}

ssize_t playedRead(int descriptor, void* bytes, std::size_t length) {
    const ErrorScope scope;
    if (refuseReading(descriptor)) return -1;
    return read(descriptor, bytes, length);
}

ssize_t playedWrite(int descriptor, const void* bytes, std::size_t length) {
    const ErrorScope scope;
    if (refuseWriting(descriptor)) return -1;
    const bool quiet = socketState(descriptor).noSignal;
    return quiet ? send(descriptor, bytes, length, MSG_NOSIGNAL) : write(descriptor, bytes, length);
}

// This system's number of an option at the level of sockets; -1 for one that is not played.
int hostOption(int mac) {
    struct Option {
        int mac;
        int host;
    };
    constexpr Option options[] = {{mac::reuseAddress, SO_REUSEADDR}, {mac::keepAlive, SO_KEEPALIVE},
                                  {mac::broadcast, SO_BROADCAST},    {mac::reusePort, SO_REUSEPORT},
                                  {mac::sendBuffer, SO_SNDBUF},      {mac::receiveBuffer, SO_RCVBUF},
                                  {mac::pendingError, SO_ERROR},     {mac::socketType, SO_TYPE}};
    for (const Option& option : options)
        if (option.mac == mac) return option.host;
    return -1;
}

// Options of TCP that both systems have under one number.
bool isSharedTcpOption(int level, int option) { return level == IPPROTO_TCP && option == TCP_NODELAY; }

int playedSetsockopt(int descriptor, int level, int option, const void* value, socklen_t length) {
    const ErrorScope scope;
    SocketState state = socketState(descriptor);
    if (state.control && level == mac::systemControl)
        return setControlOption(descriptor, option, value, length);
    if (isSharedTcpOption(level, option)) return setsockopt(descriptor, level, option, value, length);
    if (level == mac::socketLevel && option == mac::noSignal && length >= sizeof(int)) {
        int on = 0;
        std::memcpy(&on, value, sizeof on);
        state.noSignal = on != 0;
        setSocketState(descriptor, state);
        return 0;
    }
    const int host = level == mac::socketLevel ? hostOption(option) : -1;
    if (host < 0) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return setsockopt(descriptor, SOL_SOCKET, host, value, length);
}

int takePendingError(int descriptor, void* value, socklen_t* length) {
    int error = 0;
    socklen_t size = sizeof error;
    if (*length < sizeof error) {
        errno = EINVAL;
        return -1;
    }
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return -1;
    SocketState state = socketState(descriptor);
    if (error == 0) error = state.pendingError;
    if (state.pendingError) {
        state.pendingError = 0;
        setSocketState(descriptor, state);
    }
    error = macError(error);
    std::memcpy(value, &error, *length = sizeof error);
    return 0;
}

int playedGetsockopt(int descriptor, int level, int option, void* value, socklen_t* length) {
    const ErrorScope scope;
    if (socketState(descriptor).control && level == mac::systemControl)
        return getControlOption(descriptor, option, value, length);
    if (isSharedTcpOption(level, option)) return getsockopt(descriptor, level, option, value, length);
    if (level == mac::socketLevel && option == mac::pendingError)
        return takePendingError(descriptor, value, length);
    const int host = level == mac::socketLevel ? hostOption(option) : -1;
    if (host < 0) {
        errno = ENOPROTOOPT;
        return -1;
    }
    return getsockopt(descriptor, SOL_SOCKET, host, value, length);
}

} // namespace

const ImportTable& socketImports() {
    constexpr const char* calls = "uipc_syscalls.c of xnu";
    constexpr const char* tcp = "uipc_socket.c and tcp_usrreq.c of xnu";
    static const auto& table = *new ImportTable{
        function("_socket", playedSocket, "uipc_syscalls.c and kern_control.c of xnu"),
        function("_connect", playedConnect, tcp),
        function("_bind", playedBind, calls),
        function("_listen", translated<&listen>, calls),
        function("_accept", playedAccept, calls),
        function("_shutdown", translated<&shutdown>, calls),
        function("_send", playedSend, tcp),
        function("_recv", playedRecv, tcp),
        function("_read", playedRead, tcp),
        function("_write", playedWrite, tcp),
        function("_setsockopt", playedSetsockopt, "uipc_socket.c and kern_control.c of xnu"),
        function("_getsockopt", playedGetsockopt, "uipc_socket.c and kern_control.c of xnu"),
    };
    return table;
}

} // namespace machost::libsystem
