#include "support/ClosedOnExec.h"

#include <fcntl.h>
#include <sys/socket.h>

namespace testsupport {
namespace {

// Not at once with the call that makes it: a program that is started in between has it.
int marked(int descriptor) {
    if (descriptor >= 0) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    return descriptor;
}

} // namespace

int streamSocket() { return marked(socket(AF_INET, SOCK_STREAM, 0)); }

int acceptedSocket(int listener) { return marked(accept(listener, nullptr, nullptr)); }

} // namespace testsupport
