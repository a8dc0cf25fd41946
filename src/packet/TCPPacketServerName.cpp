#include "config/Configuration.h"
#include "gp/GPLog.h"
#include "packet/TCPPacket.h"
#include "platform/ByteOrder.h"

#include <cstring>

namespace {

// Positions in the first TLS record of a connection, which holds the ClientHello.
constexpr int recordType = 0;
constexpr int recordVersion = 1;
constexpr int recordLength = 3;
constexpr int handshakeType = 5;
constexpr int handshakeLength = 6;
constexpr int sessionIdLength = 43;
constexpr int shortestRecord = 5;
constexpr int shortestHello = 44;

constexpr int handshakeRecord = 22;
constexpr int clientHello = 1;
constexpr int serverNameExtension = 0;

// Positions in a server_name extension: behind type and length come the list's length, the name's type and
// the name's length. Of the latter only the low byte counts, and nothing in front of it is read.
constexpr int nameLengthLowByte = 8;
constexpr int nameText = 9;

int big16(const unsigned char* data, int at) { return platform::readBig16(data + at); }

// What a connection begins with: a hello that is too old to have extensions, one that is read on, or anything
// else.
enum class Opening { oldHello, hello, other };

Opening readOpening(const unsigned char* data, int size) {
    if (size < shortestRecord) return Opening::other;
    if (data[0] & 0x80) return data[2] == 1 && data[3] == 3 ? Opening::oldHello : Opening::other;
    if (data[recordType] != handshakeRecord) return Opening::other;
    const int major = data[recordVersion];
    const int minor = data[recordVersion + 1];
    if (major == 3 && minor == 0) return Opening::oldHello;
    if (size < shortestHello) return Opening::other;
    if (major != 3 || minor > 3 || data[handshakeType] != clientHello) return Opening::other;
    const int handshake = data[handshakeLength] << 16 | big16(data, handshakeLength + 1);
    return big16(data, recordLength) == handshake + 4 ? Opening::hello : Opening::other;
}

// Offset of the first extension of a hello, or 0 when the hello ends before it.
int firstExtension(const unsigned char* data, int size) {
    const int session = data[sessionIdLength];
    if (session + 46 > size) return 0;
    const int ciphers = big16(data, session + 44);
    if (session + 46 + ciphers + 2 > size) return 0;
    const int compressionLength = session + 46 + ciphers;
    const int compressions = data[compressionLength];
    if (compressionLength + compressions + 7 > size) return 0;
    return compressionLength + compressions + 3;
}

} // namespace

ServerNamePlace findServerName(const unsigned char* data, int size, int capacity) {
    const Opening opening = readOpening(data, size);
    if (opening == Opening::oldHello) return {ServerNamePlace::noPlace, 0};
    if (opening != Opening::hello) return {ServerNamePlace::nowhere, 0};

    int at = firstExtension(data, size);
    if (at == 0) return {ServerNamePlace::nowhere, 0};
    do {
        const int type = big16(data, at);
        const int length = big16(data, at + 2);
        int step = 4;
        if (type == serverNameExtension && length != 0) {
            if (at + nameText > size) break;
            const int nameLength = data[at + nameLengthLowByte];
            if (at + nameText + nameLength > size) break;
            if (nameLength < capacity) {
                if (Configuration::isLogLevel(16)) {
                    logf("--extracted SSL url: subjectlength=%d buflen=%d url=%.*s", nameLength, capacity,
                         nameLength, reinterpret_cast<const char*>(data) + at + nameText);
                }
                return {at + nameText, nameLength};
            }
            // Five bytes further than the extension reaches: what follows is read askew.
            step = 9;
        }
        at += step + length;
    } while (at + 4 <= size);
    return {ServerNamePlace::nowhere, 0};
}

bool sslDomain(const unsigned char* data, int size, char* out, int capacity) {
    const ServerNamePlace name = findServerName(data, size, capacity);
    if (name.offset == ServerNamePlace::nowhere) return false;
    if (name.offset == ServerNamePlace::noPlace) return true;
    std::memcpy(out, data + name.offset, static_cast<std::size_t>(name.length));
    out[name.length] = 0;
    return true;
}
