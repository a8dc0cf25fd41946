// Both readers of names over any message, starting anywhere in it. The first two bytes are the offset.

#include "dns/DNSPacket.h"
#include "fuzz/FuzzInput.h"
#include "gp/GPLog.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t headerSize = 12;

void check(bool holds) {
    if (!holds) std::abort();
}

// On the heap and no larger than the message, so that a step out of it is seen.
void readByPointer(const std::string& message, std::size_t offset) {
    std::vector<char> bytes(message.begin(), message.end());
    char* const begin = bytes.data();
    std::vector<char> name(dnsNameBufferSize);
    char* position = begin + offset;
    unsigned short nameOffset = 0;
    const bool read = readName(position, name.data(), begin, nameOffset, begin, begin + bytes.size());
    check(position >= begin && position <= begin + bytes.size());
    check(read || position == begin + offset);
    check(std::memchr(name.data(), 0, name.size()) != nullptr);
}

void readByIndex(const std::string& data, int offset) {
    std::vector<unsigned char> bytes(data.begin(), data.end());
    const int limit = static_cast<int>(bytes.size());
    int position = offset;
    char* domain = parseDomain(bytes.data(), &position, limit);
    check(position == offset || (position > 0 && position <= limit));
    check(!domain || position != offset);
    std::free(domain);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A folder that cannot be: the readers' messages go nowhere.
    setLogDirectory("/dev/null");
    fuzzing::FuzzInput input(data, size);
    std::size_t offset = input.byte();
    offset = offset << 8 | input.byte();
    const std::string message = input.rest().substr(0, 65535);
    if (offset < message.size()) readByPointer(message, offset);
    if (message.size() >= headerSize)
        readByIndex(message.substr(headerSize), static_cast<int>(offset) - static_cast<int>(headerSize));
    return 0;
}
