// Descriptors, whatever they stand for.

#include "machost/libsystem/Controls.h"
#include "machost/libsystem/Errors.h"
#include "machost/libsystem/FileLayouts.h"
#include "machost/libsystem/Library.h"
#include "machost/libsystem/Queues.h"
#include "machost/libsystem/SocketState.h"
#include "machost/world/Network.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace machost::libsystem {
namespace {

int playedClose(int descriptor) {
    const ErrorScope scope;
    forgetQueue(descriptor);
    forgetWatches(descriptor);
    forgetDescriptor(descriptor);
    return close(descriptor);
}

int playedDup2(int from, int to) {
    const ErrorScope scope;
    if (from != to) {
        forgetQueue(to);
        forgetWatches(to);
        forgetDescriptor(to);
    }
    return dup2(from, to);
}

int macFlags(int host) {
    int flags = host & mac::accessMode;
    if (host & O_NONBLOCK) flags |= mac::nonBlocking;
    if (host & O_APPEND) flags |= mac::append;
    if (host & O_ASYNC) flags |= mac::async;
    return flags;
}

int hostFlags(long flags) {
    int host = static_cast<int>(flags & mac::accessMode);
    if (flags & mac::nonBlocking) host |= O_NONBLOCK;
    if (flags & mac::append) host |= O_APPEND;
    if (flags & mac::async) host |= O_ASYNC;
    return host;
}

int playedFcntl(int descriptor, int command, ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    switch (command) {
        case mac::duplicate:
            return fcntl(descriptor, F_DUPFD, static_cast<int>(argument));
        case mac::duplicateCloseOnExec:
            return fcntl(descriptor, F_DUPFD_CLOEXEC, static_cast<int>(argument));
        case mac::getDescriptorFlags:
            return fcntl(descriptor, F_GETFD);
        case mac::setDescriptorFlags:
            return fcntl(descriptor, F_SETFD, static_cast<int>(argument) & FD_CLOEXEC);
        case mac::getFlags: {
            const int flags = fcntl(descriptor, F_GETFL);
            return flags < 0 ? flags : macFlags(flags);
        }
        case mac::setFlags:
            return fcntl(descriptor, F_SETFL, hostFlags(argument));
        default:
            errno = EINVAL;
            return -1;
    }
}

int listInterfaces(mac::InterfaceList& list) {
    const std::string entries = world::interfaceEntries();
    const auto length = static_cast<std::size_t>(std::max(list.length, 0));
    // An entry that does not fit whole, or has no more than a record's room, is left out with those behind it.
    constexpr std::size_t recordSize = mac::interfaceNameSize + sizeof(mac::Address);
    std::size_t whole = 0;
    while (whole + mac::interfaceNameSize < entries.size()) {
        const auto address = static_cast<std::uint8_t>(entries[whole + mac::interfaceNameSize]);
        const std::size_t size =
            mac::interfaceNameSize + std::max<std::size_t>(address, sizeof(mac::Address));
        if (length - whole <= recordSize || size > std::min(length, entries.size()) - whole) break;
        whole += size;
    }
    std::memcpy(list.room, entries.data(), whole);
    list.length = static_cast<std::int32_t>(whole);
    return 0;
}

int playedIoctl(int descriptor, unsigned long request, ...) {
    const ErrorScope scope;
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    switch (request) {
        case mac::requestWaiting:
            return ioctl(descriptor, FIONREAD, argument);
        case mac::requestNonBlocking:
            return ioctl(descriptor, FIONBIO, argument);
        case mac::requestControlInfo:
            if (socketState(descriptor).control)
                return controlInfo(*static_cast<mac::ControlInfo*>(argument));
            break;
        case mac::requestInterfaceList:
            return listInterfaces(*static_cast<mac::InterfaceList*>(argument));
        default:
            break;
    }
    errno = fcntl(descriptor, F_GETFD) < 0 ? EBADF : ENOTTY;
    return -1;
}

// Numbers of events are alike in both systems where the program uses them.
int playedPoll(pollfd* descriptors, std::uint32_t count, int milliseconds) {
    static_assert(POLLIN == 1 && POLLPRI == 2 && POLLOUT == 4 && POLLERR == 8 && POLLHUP == 16 &&
                  POLLNVAL == 32);
    const ErrorScope scope;
    return poll(descriptors, count, milliseconds);
}

int playedPipe(int* ends) {
    const ErrorScope scope;
    return pipe(ends);
}

} // namespace

const ImportTable& descriptorImports() {
    static const auto& table = *new ImportTable{
        function("_close", playedClose, "kern_descrip.c of xnu"),
        function("_dup2", playedDup2, "kern_descrip.c of xnu"),
        function("_fcntl", playedFcntl, "kern_descrip.c of xnu, its older commands"),
        function("_ioctl", playedIoctl, "sys_generic.c, kern_control.c and bsd/net/if.c of xnu"),
        function("_poll", playedPoll, "sys_generic.c of xnu"),
        function("_pipe", playedPipe, "sys_pipe.c of xnu"),
    };
    return table;
}

} // namespace machost::libsystem
