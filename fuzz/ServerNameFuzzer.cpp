// The server-name reader over a buffer of exactly the size that it is told, and the URL of a packet that holds the same
// bytes, held against a reading byte by byte.

#include "fuzz/ClientHelloMutator.h"
#include "fuzz/Require.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/TCPPacket.h"
#include "support/PlainPacket.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using fuzzing::require;

constexpr std::size_t headers = 40;

// An IPv4 packet with that payload.
std::vector<char> packetOf(const std::uint8_t* data, std::size_t size) {
    std::vector<char> packet(TCPPacket::packetRoom);
    const std::size_t length = headers + size;
    packet[0] = 0x45;
    packet[2] = static_cast<char>(length >> 8);
    packet[3] = static_cast<char>(length);
    packet[9] = 6;
    const char ends[] = {10, 0, 0, 2, 93, 1, 2, 3, 60, 0, 1, 3};
    std::copy(std::begin(ends), std::end(ends), packet.begin() + 12);
    packet[32] = 0x50;
    if (size > 0) std::memcpy(packet.data() + headers, data, size);
    return packet;
}

void compareUrls(const std::uint8_t* data, std::size_t size) {
    std::vector<char> packet = packetOf(data, size);
    std::vector<char> same = packet;
    const auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(packet.data()));
    require((url ? url->cstr() : std::string("(null)")) == testsupport::PlainPacket(same.data()).httpsUrl());
    require(packet == same);
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t room,
                                               unsigned seed) {
    return fuzzing::mutateClientHello(data, size, room, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> payload(data, data + size);
    char name[255] = "";
    const bool found = sslDomain(payload.data(), static_cast<int>(size), name, sizeof name);
    require(found || name[0] == '\0');
    require(std::memchr(name, '\0', sizeof name) != nullptr);
    compareUrls(data, std::min<std::size_t>(size, 65535 - headers));
    return 0;
}
