// The server-name reader over a buffer of exactly the size that it is told.

#include "packet/TCPPacket.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> payload(data, data + size);
    char name[255] = "";
    const bool found = sslDomain(payload.data(), static_cast<int>(size), name, sizeof name);
    if (!found && name[0] != '\0') std::abort();
    if (std::memchr(name, '\0', sizeof name) == nullptr) std::abort();
    return 0;
}
