#include "platform/ClosedOnExec.h"

#include "platform/macos/DescriptorMark.h"

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>

namespace platform {
namespace {

pthread_mutex_t makingMutex = PTHREAD_MUTEX_INITIALIZER;

void holdForks() { pthread_mutex_lock(&makingMutex); }

void letForksGo() { pthread_mutex_unlock(&makingMutex); }

// A child gets a new lock: the old one would go to the first thread that waited for it, which the child does not have.
void renew() { pthread_mutex_init(&makingMutex, nullptr); }

} // namespace

DescriptorMaking::DescriptorMaking() {
    static const int registered = pthread_atfork(holdForks, letForksGo, renew);
    static_cast<void>(registered);
    holdForks();
}

DescriptorMaking::~DescriptorMaking() { letForksGo(); }

int markedClosedOnExec(int descriptor) {
    const int error = errno;
    if (descriptor >= 0) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    errno = error;
    return descriptor;
}

int closedOnExecSocket(int domain, int type, int protocol) {
    const DescriptorMaking making;
    return markedClosedOnExec(::socket(domain, type, protocol));
}

// Can block, so forks are not held off meanwhile.
int closedOnExecAccept(int listener, sockaddr* address, socklen_t* length) {
    return markedClosedOnExec(::accept(listener, address, length));
}

} // namespace platform
