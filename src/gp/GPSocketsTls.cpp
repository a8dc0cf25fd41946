// The TLS side of GPSockets: the handshake, reading and writing over the context, and the two functions that
// the context moves its bytes with.

#include "gp/GPLog.h"
#include "gp/GPSockets.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace {

int descriptorOf(platform::SSLConnectionRef connection) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(connection) & 0x7fffffff);
}

} // namespace

bool GPSockets::openSSLConnection() {
    if (socket_ == 0) return false;
    sslContext_ = platform::SSLCreateContext(platform::kSSLClientSide, platform::kSSLStreamType);
    if (!sslContext_) return true;
    platform::SSLSetIOFuncs(sslContext_, readFromSSLSocket, writeToSSLSocket);
    platform::SSLSetConnection(
        sslContext_, reinterpret_cast<platform::SSLConnectionRef>(static_cast<std::intptr_t>(socket_)));
    platform::SSLSetProtocolVersionMin(sslContext_, platform::kSSLProtocolAll);
    // Spins without a wait, and takes whatever status ends it: a failed handshake shows in the reads alone.
    while (platform::SSLHandshake(sslContext_) == platform::errSSLWouldBlock) {
    }
    return true;
}

void GPSockets::closeSSLConnection() {
    if (!sslContext_) return;
    platform::SSLClose(sslContext_);
    platform::SSLReleaseContext(sslContext_);
    sslContext_ = nullptr;
}

long GPSockets::sslRead(char* bytes, long length) {
    if (length <= 0 || !sslContext_) return 0;
    long total = 0;
    auto status = platform::errSSLWouldBlock;
    // Spins, at full load, until everything asked for is there or the connection ends.
    while (status == platform::errSSLWouldBlock && total < length) {
        std::size_t processed = 0;
        status = platform::SSLRead(sslContext_, bytes + total, static_cast<std::size_t>(length - total),
                                   &processed);
        total += static_cast<long>(processed);
    }
    return total;
}

bool GPSockets::sslWrite(const char* bytes, long length) {
    if (length <= 0 || !sslContext_) return true;
    long total = 0;
    auto status = platform::errSSLWouldBlock;
    while (status == platform::errSSLWouldBlock && total < length) {
        std::size_t processed = 0;
        status = platform::SSLWrite(sslContext_, bytes + total, static_cast<std::size_t>(length - total),
                                    &processed);
        total += static_cast<long>(processed);
    }
    return true;
}

platform::OSStatus GPSockets::readFromSSLSocket(platform::SSLConnectionRef connection, void* data,
                                                std::size_t* length) {
    const std::size_t asked = *length;
    const ssize_t moved = ::read(descriptorOf(connection), data, asked);
    *length = moved > 0 ? static_cast<std::size_t>(moved) : 0;
    if (moved > 0) return *length == asked ? platform::noErr : platform::errSSLWouldBlock;
    if (moved == 0) return platform::errSSLClosedGraceful;
    switch (errno) {
        case ENOENT:
            return platform::errSSLClosedGraceful;
        case ECONNRESET:
            return platform::errSSLClosedAbort;
        case EAGAIN:
            return platform::errSSLWouldBlock;
        default:
            logf("readFromSSLSocket returned error %d", errno);
            return platform::ioErr;
    }
}

platform::OSStatus GPSockets::writeToSSLSocket(platform::SSLConnectionRef connection, const void* data,
                                               std::size_t* length) {
    const std::size_t asked = *length;
    const ssize_t moved = ::write(descriptorOf(connection), data, asked);
    *length = moved > 0 ? static_cast<std::size_t>(moved) : 0;
    if (moved > 0) return *length == asked ? platform::noErr : platform::errSSLWouldBlock;
    if (moved == 0) return platform::errSSLClosedGraceful;
    return errno == EAGAIN ? platform::errSSLWouldBlock : platform::ioErr;
}
