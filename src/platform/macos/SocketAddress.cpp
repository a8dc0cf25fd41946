#include "platform/SocketAddress.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdint>

namespace platform {

sockaddr_in internetAddress(in_addr address, int port) {
    sockaddr_in record{};
    record.sin_len = sizeof record;
    record.sin_family = AF_INET;
    record.sin_port = htons(static_cast<std::uint16_t>(port));
    record.sin_addr = address;
    return record;
}

} // namespace platform
