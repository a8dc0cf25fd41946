// The calls that set a TLS connection up, which this system's library answers without a difference.

#include "gp/GPSockets.h"

#include "platform/SecureTransport.h"
#include "support/LoopbackPeer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string calls;
platform::SSLContextRef ofHandshake = nullptr;
platform::SSLContextRef released = nullptr;

} // namespace

// The tests are linked with --wrap of all.
extern "C" {

platform::OSStatus
__real__ZN8platform24SSLSetProtocolVersionMinEPNS_10SSLContextEi(platform::SSLContextRef context,
                                                                 int version);
platform::OSStatus __real__ZN8platform12SSLHandshakeEPNS_10SSLContextE(platform::SSLContextRef context);

platform::OSStatus
__wrap__ZN8platform24SSLSetProtocolVersionMinEPNS_10SSLContextEi(platform::SSLContextRef context,
                                                                 int version) {
    calls += "least version " + std::to_string(version) + " ";
    return __real__ZN8platform24SSLSetProtocolVersionMinEPNS_10SSLContextEi(context, version);
}

platform::OSStatus __wrap__ZN8platform12SSLHandshakeEPNS_10SSLContextE(platform::SSLContextRef context) {
    ofHandshake = context;
    if (calls.find("handshake") == std::string::npos) calls += "handshake ";
    return __real__ZN8platform12SSLHandshakeEPNS_10SSLContextE(context);
}

void __real__ZN8platform17SSLReleaseContextEPNS_10SSLContextE(platform::SSLContextRef context);

void __wrap__ZN8platform17SSLReleaseContextEPNS_10SSLContextE(platform::SSLContextRef context) {
    released = context;
    __real__ZN8platform17SSLReleaseContextEPNS_10SSLContextE(context);
}

} // extern "C"

namespace {

TEST(GPSocketsTlsSetUp, AnyVersionIsTakenAndThatSaidBeforeTheHandshakeAndTheContextReleasedAtTheEnd) {
    testsupport::Peer mine, peer;
    testsupport::connectedPair(mine, peer);
    peer.close(); // ends the handshake
    GPSockets socket;
    socket.openConnection(mine.handOver());

    EXPECT_TRUE(socket.openSSLConnection());

    EXPECT_EQ(calls, "least version 6 handshake ");
    socket.closeSSLConnection();
    EXPECT_EQ(released, ofHandshake);
}

} // namespace
