#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/TlsServer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <future>
#include <string>

namespace {

using testsupport::CapturedLog;
using testsupport::Certificate;
using testsupport::LoopbackListener;
using testsupport::ManualClock;
using testsupport::Peer;
using testsupport::tlsReadUntil;
using testsupport::tlsSend;
using testsupport::TlsServer;

platform::SSLConnectionRef connectionOf(int descriptor) {
    return reinterpret_cast<platform::SSLConnectionRef>(static_cast<std::intptr_t>(descriptor));
}

// The two functions that a TLS context moves its bytes with, on one end of a connection.
class TlsTransfer : public testing::Test {
protected:
    TlsTransfer() {
        signal(SIGPIPE, SIG_IGN);
        testsupport::connectedPair(mine_, peer_);
        fcntl(mine_.descriptor(), F_SETFL, O_NONBLOCK);
    }

    platform::OSStatus read(std::size_t asked) {
        length_ = asked;
        return GPSockets::readFromSSLSocket(connectionOf(mine_.descriptor()), buffer_, &length_);
    }

    platform::OSStatus write(const std::string& bytes) {
        length_ = bytes.size();
        return GPSockets::writeToSSLSocket(connectionOf(mine_.descriptor()), bytes.data(), &length_);
    }

    // Until what the peer sent or did has arrived.
    void waitForThePeer() {
        char byte = 0;
        fcntl(mine_.descriptor(), F_SETFL, 0);
        recv(mine_.descriptor(), &byte, 1, MSG_PEEK);
        fcntl(mine_.descriptor(), F_SETFL, O_NONBLOCK);
    }

    Peer mine_;
    Peer peer_;
    char buffer_[64] = {};
    std::size_t length_ = 0;
};

TEST_F(TlsTransfer, AReadOfAsMuchAsAskedSucceeds) {
    peer_.send("12345");
    waitForThePeer();
    EXPECT_EQ(read(5), platform::noErr);
    EXPECT_EQ(length_, 5u);
    EXPECT_EQ(std::string(buffer_, 5), "12345");
}

TEST_F(TlsTransfer, AShortReadWouldBlockWithWhatWasRead) {
    peer_.send("12345");
    waitForThePeer();
    EXPECT_EQ(read(9), -9803);
    EXPECT_EQ(length_, 5u);
}

TEST_F(TlsTransfer, AReadOfAQuietPeerWouldBlockWithNothing) {
    EXPECT_EQ(read(9), -9803);
    EXPECT_EQ(length_, 0u);
}

TEST_F(TlsTransfer, AReadAtTheEndIsAGracefulClose) {
    peer_.close();
    waitForThePeer();
    EXPECT_EQ(read(9), -9805);
    EXPECT_EQ(length_, 0u);
}

TEST_F(TlsTransfer, AReadOfABrokenConnectionIsAnAbort) {
    peer_.reset();
    EXPECT_EQ(read(9), -9806);
    EXPECT_EQ(length_, 0u);
}

TEST_F(TlsTransfer, AnyOtherReadErrorIsAnInputErrorWithALogLine) {
    const CapturedLog log;
    mine_.close();
    EXPECT_EQ(read(9), -36);
    EXPECT_EQ(length_, 0u);
    EXPECT_TRUE(log.holds("readFromSSLSocket returned error " + std::to_string(EBADF)));
}

TEST_F(TlsTransfer, TheDescriptorIsTheLow31BitsOfTheConnection) {
    peer_.send("12345");
    waitForThePeer();
    length_ = 5;
    const auto marked = static_cast<std::uintptr_t>(mine_.descriptor()) | 0xffffffff80000000u;
    EXPECT_EQ(GPSockets::readFromSSLSocket(reinterpret_cast<const void*>(marked), buffer_, &length_), 0);
    length_ = 2;
    EXPECT_EQ(GPSockets::writeToSSLSocket(reinterpret_cast<const void*>(marked), "ok", &length_), 0);
    EXPECT_EQ(peer_.read(2), "ok");
}

TEST_F(TlsTransfer, AFullWriteSucceeds) {
    EXPECT_EQ(write("12345"), platform::noErr);
    EXPECT_EQ(length_, 5u);
    EXPECT_EQ(peer_.read(5), "12345");
}

TEST_F(TlsTransfer, AWriteOfOneByteSucceeds) {
    EXPECT_EQ(write("1"), platform::noErr);
    EXPECT_EQ(length_, 1u);
    EXPECT_EQ(peer_.read(1), "1");
}

TEST_F(TlsTransfer, AWriteOfAPartWouldBlockWithThatPartAndThenWithNothing) {
    const std::string block(16 * 1024 * 1024, 'x');
    EXPECT_EQ(write(block), -9803);
    EXPECT_GT(length_, 0u);
    EXPECT_LT(length_, block.size());
    while (write(block) == platform::errSSLWouldBlock && length_ > 0) {
    }
    EXPECT_EQ(write(block), -9803);
    EXPECT_EQ(length_, 0u);
}

TEST_F(TlsTransfer, AWriteOfNothingIsAGracefulClose) {
    EXPECT_EQ(write(""), -9805);
    EXPECT_EQ(length_, 0u);
}

TEST_F(TlsTransfer, AnyOtherWriteErrorIsAnOutputError) {
    mine_.close();
    EXPECT_EQ(write("12345"), -36);
    EXPECT_EQ(length_, 0u);
}

// A client over TLS to a server that the test plays at "server.test".
class GPSocketsTls : public testing::Test {
protected:
    GPSocketsTls() {
        signal(SIGPIPE, SIG_IGN);
        names_.answer("server.test", AF_INET, {"127.0.0.1"});
        names_.install();
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        testsupport::trustNobody();
    }

    bool open(int port) {
        socket_.setPort(port);
        socket_.setUseSSL(true);
        socket_.setServer("server.test");
        return socket_.openConnection();
    }

    // Reads until a read gives nothing.
    std::string readAll() {
        std::string all;
        while (const auto data = Owned<GPData>::adopt(socket_.readData()))
            all.append(data->bytes(), static_cast<std::size_t>(data->length()));
        return all;
    }

    testsupport::PlayedNames names_;
    GPSockets socket_;
};

void answerOnce(SSL* session) {
    const std::string request = tlsReadUntil(session, "\n");
    tlsSend(session, "you said " + request);
    SSL_shutdown(session);
}

TEST_F(GPSocketsTls, TalksToAServerWhoseCertificateIsTrusted) {
    const Certificate certificate("server.test");
    certificate.trust();
    TlsServer server(certificate, answerOnce);
    ASSERT_TRUE(open(server.port()));
    EXPECT_TRUE(socket_.writeData("hello\n", 6));
    EXPECT_EQ(readAll(), "you said hello\n");
    EXPECT_NE(socket_.error(), 0);
    EXPECT_TRUE(server.finish());
}

TEST_F(GPSocketsTls, DoesNotLookAtTheNameInTheCertificate) {
    const Certificate certificate("somebody.else.test");
    certificate.trust();
    TlsServer server(certificate, answerOnce);
    ASSERT_TRUE(open(server.port()));
    EXPECT_TRUE(socket_.writeData("hello\n", 6));
    EXPECT_EQ(readAll(), "you said hello\n");
}

TEST_F(GPSocketsTls, SpeaksTheOldestVersionsToo) {
    const Certificate certificate("server.test");
    certificate.trust();
    TlsServer server(certificate, answerOnce, TLS1_VERSION);
    ASSERT_TRUE(open(server.port()));
    EXPECT_TRUE(socket_.writeData("hello\n", 6));
    EXPECT_EQ(readAll(), "you said hello\n");
}

TEST_F(GPSocketsTls, AnUntrustedCertificateOpensAndShowsOnlyInTheReads) {
    const Certificate certificate("server.test");
    std::string received = "nothing";
    TlsServer server(certificate, [&](SSL* session) { received = tlsReadUntil(session, "\n"); });
    EXPECT_TRUE(open(server.port()));
    EXPECT_TRUE(socket_.sslWrite("secret\n", 7)) << "a TLS write is true whatever came of it";
    EXPECT_EQ(socket_.readData(), nullptr);
    socket_.closeConnection();
    server.finish();
    EXPECT_EQ(received.find("secret"), std::string::npos);
}

TEST_F(GPSocketsTls, APeerThatSpeaksNoTlsOpensAndShowsOnlyInTheReads) {
    LoopbackListener listener;
    auto played = std::async(std::launch::async, [&] {
        Peer peer = listener.accept();
        peer.read(5);
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
    });
    EXPECT_TRUE(open(listener.port()));
    played.get();
    EXPECT_EQ(socket_.readData(), nullptr);
    EXPECT_NE(socket_.error(), 0);
}

TEST_F(GPSocketsTls, APeerThatClosesDuringTheHandshakeEndsTheSpin) {
    LoopbackListener listener;
    auto played = std::async(std::launch::async, [&] { listener.accept().read(5); });
    EXPECT_TRUE(open(listener.port()));
    EXPECT_EQ(socket_.readData(), nullptr);
}

TEST_F(GPSocketsTls, ARefusedConnectionEndsTheSpin) {
    EXPECT_TRUE(open(testsupport::freePort()));
    EXPECT_FALSE(socket_.writeData("x", 1));
}

TEST_F(GPSocketsTls, MovesMoreThanTheSocketHoldsInBothDirections) {
    const Certificate certificate("server.test");
    certificate.trust();
    std::string sent;
    while (sent.size() < 3000000)
        sent += "line " + std::to_string(sent.size()) + " ";
    sent += "\n";
    std::string received;
    TlsServer server(certificate, [&](SSL* session) {
        received.resize(sent.size());
        std::size_t have = 0;
        while (have < sent.size()) {
            const int count = SSL_read(session, &received[have], static_cast<int>(sent.size() - have));
            if (count <= 0) break;
            have += static_cast<std::size_t>(count);
        }
        tlsSend(session, received);
        SSL_shutdown(session);
    });
    ASSERT_TRUE(open(server.port()));
    EXPECT_TRUE(socket_.writeData(sent.data(), static_cast<int>(sent.size())));
    EXPECT_TRUE(readAll() == sent);
    EXPECT_TRUE(received == sent);
}

TEST_F(GPSocketsTls, AReadGoesOnUntilAllThatWasAskedForIsThereOrTheConnectionEnds) {
    const Certificate certificate("server.test");
    certificate.trust();
    TlsServer server(certificate, [](SSL* session) {
        tlsSend(session, "hello");
        tlsSend(session, " you");
        tlsSend(session, " there");
        SSL_shutdown(session);
    });
    ASSERT_TRUE(open(server.port()));
    char bytes[100] = {};
    EXPECT_EQ(socket_.sslRead(bytes, 9), 9) << "each piece is a record of its own";
    EXPECT_STREQ(bytes, "hello you");
    EXPECT_EQ(socket_.sslRead(bytes, sizeof bytes), 6);
}

TEST_F(GPSocketsTls, WhatTheLibraryStillHoldsWhenAPeerLeavesWithoutAWordIsLost) {
    const Certificate certificate("server.test");
    certificate.trust();
    const std::string record(10000, 'a');
    TlsServer server(certificate, [&](SSL* session) { tlsSend(session, record); });
    ASSERT_TRUE(open(server.port()));
    // As a read does that was told of fewer bytes than have come by the time it takes them.
    char bytes[10];
    ASSERT_EQ(socket_.sslRead(bytes, sizeof bytes), 10);
    ASSERT_TRUE(server.finish());
    EXPECT_EQ(readAll(), "");
}

TEST_F(GPSocketsTls, ClosingTellsThePeer) {
    const Certificate certificate("server.test");
    certificate.trust();
    int end = SSL_ERROR_NONE;
    TlsServer server(certificate, [&](SSL* session) {
        char byte = 0;
        end = SSL_get_error(session, SSL_read(session, &byte, 1));
    });
    ASSERT_TRUE(open(server.port()));
    socket_.closeConnection();
    server.finish();
    EXPECT_EQ(end, SSL_ERROR_ZERO_RETURN);
}

TEST_F(GPSocketsTls, WithoutAContextNothingIsReadAndWritesAreTrue) {
    char byte = 0;
    GPSockets plain;
    EXPECT_EQ(plain.sslRead(&byte, 1), 0);
    EXPECT_TRUE(plain.sslWrite("x", 1));
}

TEST_F(GPSocketsTls, AReadOfNoBytesOrFewerIsZero) {
    const Certificate certificate("server.test");
    certificate.trust();
    TlsServer server(certificate, [](SSL*) {});
    ASSERT_TRUE(open(server.port()));
    char byte = 0;
    EXPECT_EQ(socket_.sslRead(&byte, 0), 0);
    EXPECT_EQ(socket_.sslRead(&byte, -5), 0);
    EXPECT_TRUE(socket_.sslWrite("x", -5));
}

} // namespace
