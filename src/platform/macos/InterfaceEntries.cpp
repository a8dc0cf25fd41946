#include "platform/InterfaceEntries.h"

#include "platform/ClosedOnExec.h"

#include <sys/types.h>

#include <sys/socket.h>

#include <net/if.h>
#include <net/if_dl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>

namespace platform {
namespace {

// The system's own entries are the form that the header tells.
static_assert(offsetof(ifreq, ifr_name) == 0 && sizeof(ifreq::ifr_name) == entry::nameSize);
static_assert(offsetof(ifreq, ifr_ifru) == entry::nameSize);
static_assert(sizeof(ifreq) == entry::nameSize + entry::smallestAddress);
static_assert(sizeof(sockaddr) == entry::smallestAddress);
static_assert(offsetof(sockaddr, sa_len) == entry::lengthAt && sizeof(sockaddr::sa_len) == 1);
static_assert(offsetof(sockaddr, sa_family) == entry::familyAt && sizeof(sockaddr::sa_family) == 1);
static_assert(AF_INET == entry::familyIPv4 && AF_LINK == entry::familyLink && AF_INET6 == entry::familyIPv6);
static_assert(offsetof(sockaddr_in, sin_addr) == entry::addressIPv4At);
static_assert(offsetof(sockaddr_in6, sin6_addr) == entry::addressIPv6At);
static_assert(offsetof(sockaddr_dl, sdl_nlen) == entry::linkNameLengthAt &&
              sizeof(sockaddr_dl::sdl_nlen) == 1);
static_assert(offsetof(sockaddr_dl, sdl_alen) == entry::linkAddressLengthAt &&
              sizeof(sockaddr_dl::sdl_alen) == 1);
static_assert(offsetof(sockaddr_dl, sdl_data) == entry::linkDataAt);

class ConfigurationList final : public InterfaceEntries {
public:
    int open() override { return closedOnExecSocket(AF_INET, SOCK_DGRAM, 0); }

    bool list(int socket, char* buffer, int& length) override {
        ifconf request{};
        request.ifc_len = length;
        request.ifc_buf = buffer;
        if (ioctl(socket, SIOCGIFCONF, &request) < 0) return false;
        length = request.ifc_len;
        return true;
    }

    void close(int socket) override { ::close(socket); }
};

ConfigurationList configurationList;

} // namespace

Service<InterfaceEntries> interfaceEntriesService{&configurationList};

InterfaceEntries& systemInterfaceEntries() { return configurationList; }

} // namespace platform
