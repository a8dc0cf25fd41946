// What this system's TLS does beyond the words: whom it trusts, and that a handshake fails for good.

#include "platform/SecureTransport.h"

#include "support/LoopbackPeer.h"
#include "support/TlsServer.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

using namespace platform;
using testsupport::Certificate;
using testsupport::Peer;
using testsupport::TlsServer;

// What the transfer functions get: the descriptor, how many bytes they move at most in one call, and whether nothing
// can be sent.
struct Wire {
    int descriptor = -1;
    std::size_t atMost = 4096;
    bool isFull = false;
};

OSStatus statusOf(ssize_t moved, std::size_t asked, std::size_t* length) {
    *length = moved > 0 ? static_cast<std::size_t>(moved) : 0;
    if (moved == 0) return errSSLClosedGraceful;
    if (moved < 0) return errno == EAGAIN ? errSSLWouldBlock : ioErr;
    return *length == asked ? noErr : errSSLWouldBlock;
}

OSStatus readWire(SSLConnectionRef connection, void* data, std::size_t* length) {
    const auto& wire = *static_cast<const Wire*>(connection);
    const std::size_t asked = *length;
    return statusOf(recv(wire.descriptor, data, std::min(asked, wire.atMost), MSG_DONTWAIT), asked, length);
}

OSStatus writeWire(SSLConnectionRef connection, const void* data, std::size_t* length) {
    const auto& wire = *static_cast<const Wire*>(connection);
    const std::size_t asked = *length;
    if (wire.isFull) {
        *length = 0;
        return errSSLWouldBlock;
    }
    return statusOf(send(wire.descriptor, data, std::min(asked, wire.atMost), MSG_DONTWAIT | MSG_NOSIGNAL),
                    asked, length);
}

class SecureTransport : public testing::Test {
protected:
    SecureTransport() : certificate_("server.test") {
        certificate_.trust();
        SSLSetIOFuncs(context(), readWire, writeWire);
        SSLSetConnection(context(), &wire_);
    }
    ~SecureTransport() override { SSLReleaseContext(context_); }

    SSLContextRef context() {
        if (!context_) context_ = SSLCreateContext(kSSLClientSide, kSSLStreamType);
        return context_;
    }

    void connect(const TlsServer& server) {
        connection_ = testsupport::connectTo(server.port());
        wire_.descriptor = connection_.descriptor();
    }

    // Goes on with the handshake until it is over.
    OSStatus shakeHands() {
        OSStatus status = errSSLWouldBlock;
        while (status == errSSLWouldBlock)
            status = SSLHandshake(context());
        return status;
    }

    OSStatus write(const std::string& text) {
        OSStatus status = errSSLWouldBlock;
        std::size_t total = 0;
        while (status == errSSLWouldBlock) {
            std::size_t processed = 0;
            status = SSLWrite(context(), text.data() + total, text.size() - total, &processed);
            total += processed;
        }
        return status;
    }

    // Reads until `text_` has `count` bytes or something other than waiting is due.
    OSStatus read(std::size_t count) {
        OSStatus status = errSSLWouldBlock;
        while (status == errSSLWouldBlock && text_.size() < count) {
            char buffer[256];
            std::size_t processed = 0;
            status = SSLRead(context(), buffer, std::min(sizeof buffer, count - text_.size()), &processed);
            text_.append(buffer, processed);
        }
        return status;
    }

    Certificate certificate_;
    Wire wire_;
    Peer connection_;
    std::string text_;
    SSLContextRef context_ = nullptr;
};

void echoLine(SSL* session) {
    testsupport::tlsSend(session, testsupport::tlsReadUntil(session, "\n"));
    SSL_shutdown(session);
}

TEST_F(SecureTransport, ServesClientStreamsOnly) {
    EXPECT_EQ(SSLCreateContext(kSSLServerSide, kSSLStreamType), nullptr);
    EXPECT_EQ(SSLCreateContext(kSSLClientSide, kSSLDatagramType), nullptr);
    SSLReleaseContext(nullptr);
}

TEST_F(SecureTransport, TakesAnyVersionAsTheLowest) {
    EXPECT_EQ(SSLSetProtocolVersionMin(context(), kSSLProtocolAll), noErr);
}

TEST_F(SecureTransport, TakesNoLowestVersionButThatOfAll) {
    EXPECT_EQ(SSLSetProtocolVersionMin(context(), kSSLProtocolAll + 1), errSSLProtocol);
}

TEST_F(SecureTransport, AnAnswerThatIsNoneIsAFailureOfTheProtocolThoughNothingCanBeSaidOfIt) {
    Peer other;
    testsupport::connectedPair(connection_, other);
    wire_.descriptor = connection_.descriptor();
    ASSERT_EQ(SSLHandshake(context()), errSSLWouldBlock);
    wire_.isFull = true;
    other.send(
        std::string("\x16\x03\x03\x00\x04\x0e\x00\x00\x00", 9)); // the end of a hello in the place of one
    EXPECT_EQ(SSLHandshake(context()), errSSLProtocol);
    EXPECT_EQ(SSLHandshake(context()), errSSLClosedAbort);
}

TEST_F(SecureTransport, ManyContextsUseUpNoNumbersOfTheLibrary) {
    SSLReleaseContext(SSLCreateContext(kSSLClientSide, kSSLStreamType));
    const int before = BIO_get_new_index();
    for (int i = 0; i < 3; ++i)
        SSLReleaseContext(SSLCreateContext(kSSLClientSide, kSSLStreamType));
    EXPECT_EQ(BIO_get_new_index(), before + 1);
}

TEST_F(SecureTransport, TheHandshakeMustBeCalledAgainUntilThePeerHasAnswered) {
    Peer quiet;
    testsupport::connectedPair(connection_, quiet);
    wire_.descriptor = connection_.descriptor();
    EXPECT_EQ(SSLHandshake(context()), errSSLWouldBlock);
    EXPECT_EQ(SSLHandshake(context()), errSSLWouldBlock);
}

TEST_F(SecureTransport, MovesTextBothWaysAndEndsGracefully) {
    TlsServer server(certificate_, echoLine);
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    EXPECT_EQ(SSLHandshake(context()), noErr) << "once more does no harm";
    EXPECT_EQ(write("there and back\n"), noErr);
    EXPECT_EQ(read(15), noErr);
    EXPECT_EQ(text_, "there and back\n");
    EXPECT_EQ(read(16), errSSLClosedGraceful);
    EXPECT_EQ(read(16), errSSLClosedGraceful);
}

TEST_F(SecureTransport, WorksOverFunctionsThatMoveOneByteAtATime) {
    TlsServer server(certificate_, echoLine);
    connect(server);
    wire_.atMost = 1;
    ASSERT_EQ(shakeHands(), noErr);
    EXPECT_EQ(write("there and back\n"), noErr);
    EXPECT_EQ(read(15), noErr);
    EXPECT_EQ(text_, "there and back\n");
}

TEST_F(SecureTransport, AWriteThatWouldBlockCanGoOnFromACopyOfItsText) {
    TlsServer server(certificate_, echoLine);
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    const std::string text = "there and back\n";
    const std::string copy = text;
    std::size_t processed = 7;
    wire_.isFull = true;
    EXPECT_EQ(SSLWrite(context(), text.data(), text.size(), &processed), errSSLWouldBlock);
    EXPECT_EQ(processed, 0u);
    wire_.isFull = false;
    EXPECT_EQ(SSLWrite(context(), copy.data(), copy.size(), &processed), noErr);
    EXPECT_EQ(read(text.size()), noErr);
    EXPECT_EQ(text_, text);
}

TEST_F(SecureTransport, AReadWithNothingThereWouldBlock) {
    TlsServer server(certificate_, echoLine);
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    char byte = 0;
    std::size_t processed = 7;
    EXPECT_EQ(SSLRead(context(), &byte, 1, &processed), errSSLWouldBlock);
    EXPECT_EQ(processed, 0u);
    write("\n");
}

TEST_F(SecureTransport, AReadOfOneByteGivesIt) {
    TlsServer server(certificate_, [](SSL* session) {
        testsupport::tlsSend(session, "a");
        testsupport::tlsReadUntil(session, "\n");
    });
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    EXPECT_EQ(read(1), noErr);
    EXPECT_EQ(text_, "a");
    connection_.close(); // the server waits for its end
}

TEST_F(SecureTransport, AReadOfMoreThanIsThereGivesWhatIsThereAndWouldBlock) {
    TlsServer server(certificate_, [](SSL* session) {
        testsupport::tlsSend(session, "abc");
        testsupport::tlsReadUntil(session, "\n");
    });
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    char buffer[10];
    std::size_t processed = 0;
    OSStatus status = noErr;
    do
        status = SSLRead(context(), buffer, sizeof buffer, &processed);
    while (processed == 0 && status == errSSLWouldBlock);
    EXPECT_EQ(status, errSSLWouldBlock);
    EXPECT_EQ(std::string(buffer, processed), "abc");
    write("\n");
}

TEST_F(SecureTransport, AnUntrustedChainFailsTheHandshakeAndAllThatFollows) {
    const Certificate other("other.test");
    TlsServer server(other, echoLine);
    connect(server);
    EXPECT_EQ(shakeHands(), errSSLXCertChainInvalid);
    EXPECT_EQ(SSLHandshake(context()), errSSLClosedAbort);
    EXPECT_EQ(write("x"), errSSLClosedAbort);
    EXPECT_EQ(read(1), errSSLClosedAbort);
}

TEST_F(SecureTransport, NothingIsMovedBeforeTheHandshake) {
    EXPECT_EQ(write("x"), errSSLClosedAbort);
    EXPECT_EQ(read(1), errSSLClosedAbort);
}

TEST_F(SecureTransport, WithoutTransferFunctionsTheHandshakeFails) {
    SSLSetIOFuncs(context(), nullptr, nullptr);
    EXPECT_EQ(SSLHandshake(context()), errSSLProtocol);
    EXPECT_EQ(SSLHandshake(context()), errSSLClosedAbort);
}

TEST_F(SecureTransport, TheTransferFunctionsStatusEndsTheHandshake) {
    Peer quiet;
    testsupport::connectedPair(connection_, quiet);
    wire_.descriptor = connection_.descriptor();
    ASSERT_EQ(SSLHandshake(context()), errSSLWouldBlock);
    quiet.close();
    EXPECT_NE(shakeHands(), noErr);
    EXPECT_EQ(SSLHandshake(context()), errSSLClosedAbort);
}

TEST_F(SecureTransport, APeerThatLeavesWithoutAWordIsAGracefulCloseOfTheTransfer) {
    TlsServer server(certificate_, [](SSL*) {});
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    server.finish();
    EXPECT_EQ(read(1), errSSLClosedGraceful);
}

TEST_F(SecureTransport, AWriteThatTheTransferRefusesFailsWithItsStatusAndForGood) {
    TlsServer server(certificate_, [](SSL*) {});
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    SSLSetIOFuncs(context(), readWire, [](SSLConnectionRef, const void*, std::size_t* length) -> OSStatus {
        *length = 0;
        return ioErr;
    });
    EXPECT_EQ(write("x"), ioErr);
    EXPECT_EQ(write("x"), errSSLClosedAbort);
}

TEST_F(SecureTransport, CloseTellsThePeerAndRefusesWhatFollows) {
    int end = SSL_ERROR_NONE;
    TlsServer server(certificate_, [&](SSL* session) {
        char byte = 0;
        end = SSL_get_error(session, SSL_read(session, &byte, 1));
    });
    connect(server);
    ASSERT_EQ(shakeHands(), noErr);
    EXPECT_EQ(SSLClose(context()), noErr);
    server.finish();
    EXPECT_EQ(end, SSL_ERROR_ZERO_RETURN);
    EXPECT_EQ(write("x"), errSSLClosedAbort);
}

} // namespace
