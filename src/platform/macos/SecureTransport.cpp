#include "platform/SecureTransport.h"

#include <CoreFoundation/CoreFoundation.h>
#include <Security/SecureTransport.h>

#include <type_traits>

// The boundary's words are the system's own; a context is handed through as what it is there.

static_assert(std::is_same<platform::OSStatus, ::OSStatus>::value);
static_assert(std::is_same<platform::SSLReadFunc, ::SSLReadFunc>::value);
static_assert(std::is_same<platform::SSLWriteFunc, ::SSLWriteFunc>::value);
static_assert(platform::errSSLProtocol == ::errSSLProtocol);
static_assert(platform::errSSLWouldBlock == ::errSSLWouldBlock);
static_assert(platform::errSSLClosedGraceful == ::errSSLClosedGraceful);
static_assert(platform::errSSLClosedAbort == ::errSSLClosedAbort);
static_assert(platform::errSSLXCertChainInvalid == ::errSSLXCertChainInvalid);
static_assert(platform::errSSLInternal == ::errSSLInternal);
static_assert(static_cast<int>(platform::kSSLClientSide) == static_cast<int>(::kSSLClientSide));
static_assert(static_cast<int>(platform::kSSLStreamType) == static_cast<int>(::kSSLStreamType));

namespace platform {
namespace {

::SSLContextRef system(SSLContextRef context) { return reinterpret_cast<::SSLContextRef>(context); }

} // namespace

SSLContextRef SSLCreateContext(SSLProtocolSide side, SSLConnectionType type) {
    return reinterpret_cast<SSLContextRef>(::SSLCreateContext(
        kCFAllocatorDefault, static_cast<::SSLProtocolSide>(side), static_cast<::SSLConnectionType>(type)));
}

void SSLReleaseContext(SSLContextRef context) {
    if (context) CFRelease(system(context));
}

OSStatus SSLSetIOFuncs(SSLContextRef context, SSLReadFunc read, SSLWriteFunc write) {
    return ::SSLSetIOFuncs(system(context), read, write);
}

OSStatus SSLSetConnection(SSLContextRef context, SSLConnectionRef connection) {
    return ::SSLSetConnection(system(context), connection);
}

OSStatus SSLSetProtocolVersionMin(SSLContextRef context, int version) {
    return ::SSLSetProtocolVersionMin(system(context), static_cast<::SSLProtocol>(version));
}

OSStatus SSLHandshake(SSLContextRef context) { return ::SSLHandshake(system(context)); }

OSStatus SSLRead(SSLContextRef context, void* data, std::size_t length, std::size_t* processed) {
    return ::SSLRead(system(context), data, length, processed);
}

OSStatus SSLWrite(SSLContextRef context, const void* data, std::size_t length, std::size_t* processed) {
    return ::SSLWrite(system(context), data, length, processed);
}

OSStatus SSLClose(SSLContextRef context) { return ::SSLClose(system(context)); }

} // namespace platform
