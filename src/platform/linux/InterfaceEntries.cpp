#include "platform/InterfaceEntries.h"

#include "platform/linux/InterfaceEntryLayout.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace platform {
namespace {

class AddressList final : public InterfaceEntries {
public:
    int open() override { return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); }

    bool list(int, char* buffer, int& length) override {
        ifaddrs* addresses = nullptr;
        if (getifaddrs(&addresses) != 0) return false;
        const auto entries = entriesInBSDForm(addresses);
        freeifaddrs(addresses);
        int used = 0;
        for (const std::string& one : entries) {
            const int size = static_cast<int>(one.size());
            if (size > length - used) break;
            // NOLINTNEXTLINE(bugprone-not-null-terminated-result): an entry has its length in front
            std::memcpy(buffer + used, one.data(), one.size());
            used += size;
        }
        length = used;
        return true;
    }

    void close(int socket) override { ::close(socket); }
};

AddressList addressList;

} // namespace

Service<InterfaceEntries> interfaceEntriesService{&addressList};

InterfaceEntries& systemInterfaceEntries() { return addressList; }

} // namespace platform
