#include "lab/PrivateNetwork.h"

#include "lab/Namespaces.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace lab {

bool enterPrivateNetwork() {
    if (!unshareAsRoot(CLONE_NEWNET)) return false;
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = ioctl(control, SIOCSIFFLAGS, &loopback) == 0;
    close(control);
    return up;
}

} // namespace lab
