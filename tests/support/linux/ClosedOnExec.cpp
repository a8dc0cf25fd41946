#include "support/ClosedOnExec.h"

#include <sys/socket.h>

namespace testsupport {

int streamSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

int acceptedSocket(int listener) { return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); }

} // namespace testsupport
