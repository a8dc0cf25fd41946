#include "platform/ClosedOnExec.h"

namespace platform {

int closedOnExecSocket(int domain, int type, int protocol) {
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

int closedOnExecAccept(int listener, sockaddr* address, socklen_t* length) {
    return ::accept4(listener, address, length, SOCK_CLOEXEC);
}

} // namespace platform
