#pragma once

// TLS in the words of Secure Transport: a context that does its own input and output through two functions
// given to it, and never waits by itself. Names and status values are the system's.
//
// A context belongs to one thread at a time.

#include <cstddef>
#include <cstdint>

namespace platform {

struct SSLContext;
using SSLContextRef = SSLContext*;

// What the read and write functions get; the context only hands it through.
using SSLConnectionRef = const void*;

using OSStatus = std::int32_t;

inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus ioErr = -36;
inline constexpr OSStatus errSSLProtocol = -9800;
inline constexpr OSStatus errSSLWouldBlock = -9803;
inline constexpr OSStatus errSSLClosedGraceful = -9805;
inline constexpr OSStatus errSSLClosedAbort = -9806;
inline constexpr OSStatus errSSLXCertChainInvalid = -9807;
inline constexpr OSStatus errSSLInternal = -9810;

enum SSLProtocolSide { kSSLServerSide, kSSLClientSide };
enum SSLConnectionType { kSSLStreamType, kSSLDatagramType };

// Any version that the system's library speaks.
inline constexpr int kSSLProtocolAll = 6;

// Read up to, or write, `*length` bytes; `*length` becomes what was moved. errSSLWouldBlock with a count
// above 0 means that this much was moved and the rest must wait.
using SSLReadFunc = OSStatus (*)(SSLConnectionRef connection, void* data, std::size_t* length);
using SSLWriteFunc = OSStatus (*)(SSLConnectionRef connection, const void* data, std::size_t* length);

// A new context, or null. SSLReleaseContext gives it back. Only client streams are served. The peer's chain
// is checked against the system's default store of roots; no name is checked.
SSLContextRef SSLCreateContext(SSLProtocolSide side, SSLConnectionType type);
void SSLReleaseContext(SSLContextRef context);

OSStatus SSLSetIOFuncs(SSLContextRef context, SSLReadFunc read, SSLWriteFunc write);
OSStatus SSLSetConnection(SSLContextRef context, SSLConnectionRef connection);
OSStatus SSLSetProtocolVersionMin(SSLContextRef context, int version);

// Goes on with the handshake: errSSLWouldBlock as long as it must be called again.
//
// On the Mac a socket that is still connecting refuses the first write: the handshake answers ioErr and stays pending,
// and the first SSLWrite or SSLRead goes on with it, which is how HTTPS gets its handshake there. On Linux such a
// socket asks for another try, and ioErr ends the handshake for good.
OSStatus SSLHandshake(SSLContextRef context);

// Move up to, or all of, `length` bytes; `*processed` becomes the count moved, which can be above 0 with
// errSSLWouldBlock too. On the Mac they go on with a pending handshake first; on Linux they need a finished one, and
// answer errSSLClosedAbort without. Where they have failed for good, both answer that from then on.
OSStatus SSLRead(SSLContextRef context, void* data, std::size_t length, std::size_t* processed);
OSStatus SSLWrite(SSLContextRef context, const void* data, std::size_t length, std::size_t* processed);

// Tells the peer that no more will come. The connection itself stays open.
OSStatus SSLClose(SSLContextRef context);

} // namespace platform
