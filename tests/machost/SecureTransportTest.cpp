// Secure Transport's states and answers, called as the program calls them, with a server of the test's own behind it.

#include "machost/Imports.h"
#include "machost/objects/Object.h"
#include "support/TlsServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>

namespace {

using machost::Held;
using machost::ObjectRef;
using testsupport::TlsServer;

template <class Function>
Function* played(const char* symbol) {
    return reinterpret_cast<Function*>(const_cast<void*>(machost::findImport("", symbol)->address));
}

// <Security/SecureTransport.h> and MacErrors.h
using Status = std::int32_t;
constexpr Status ioError = -36, parameterError = -50, badRequest = -909, wouldBlock = -9803,
                 closedGraceful = -9805, closedAbort = -9806, chainInvalid = -9807, closedNoNotify = -9816,
                 illegalParameter = -9830;

// What the session reads from and writes to. Its own answers come in place of the socket's while they are set.
struct Link {
    int descriptor = -1;
    Status readAnswer = 0, writeAnswer = 0;
    std::size_t mostAtOnce = ~std::size_t{0}; // of bytes; behind them the link would block
};

Status readLink(const void* connection, void* bytes, std::size_t* count) {
    const Link& link = *static_cast<const Link*>(connection);
    const std::size_t wanted = *count;
    *count = 0;
    if (link.readAnswer) return link.readAnswer;
    const ssize_t came = recv(link.descriptor, bytes, std::min(wanted, link.mostAtOnce), MSG_WAITALL);
    if (came <= 0) return closedGraceful;
    *count = static_cast<std::size_t>(came);
    return *count == wanted ? 0 : wouldBlock;
}

Status writeLink(const void* connection, const void* bytes, std::size_t* count) {
    const Link& link = *static_cast<const Link*>(connection);
    const std::size_t wanted = *count;
    *count = 0;
    if (link.writeAnswer && link.writeAnswer != wouldBlock) return link.writeAnswer;
    const std::size_t part = link.writeAnswer ? std::min<std::size_t>(wanted, 3) : wanted;
    if (send(link.descriptor, bytes, part, MSG_NOSIGNAL) != static_cast<ssize_t>(part)) return ioError;
    *count = part;
    return link.writeAnswer;
}

class SecureTransport : public testing::Test {
protected:
    // A context whose link leads to a server that has this conversation.
    void connectTo(TlsServer::Conversation conversation) {
        server.emplace(certificate, std::move(conversation));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(server->port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        link.descriptor = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(link.descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        context = Held::adopt(played<ObjectRef(const void*, int, int)>("_SSLCreateContext")(nullptr, 1, 0));
        ASSERT_EQ(played<Status(const void*, decltype(&readLink), decltype(&writeLink))>("_SSLSetIOFuncs")(
                      context.get(), readLink, writeLink),
                  0);
        played<Status(const void*, const void*)>("_SSLSetConnection")(context.get(), &link);
    }

    ~SecureTransport() override { hangUp(); }

    void hangUp() {
        if (link.descriptor >= 0) close(link.descriptor);
        link.descriptor = -1;
    }

    Status handshake() const { return played<Status(const void*)>("_SSLHandshake")(context.get()); }
    Status closeSession() const { return played<Status(const void*)>("_SSLClose")(context.get()); }

    Status write(const std::string& bytes) {
        moved = 99;
        return played<Status(const void*, const void*, std::size_t, std::size_t*)>("_SSLWrite")(
            context.get(), bytes.data(), bytes.size(), &moved);
    }

    Status read() {
        char room[64];
        moved = 99;
        const Status status = played<Status(const void*, void*, std::size_t, std::size_t*)>("_SSLRead")(
            context.get(), room, sizeof room, &moved);
        text.assign(room, moved);
        return status;
    }

    testsupport::Certificate certificate{"server"};
    Link link;
    Held context;
    std::size_t moved = 0;
    std::string text;

    // Goes first, when the link has been closed.
    std::optional<TlsServer> server;
};

class TrustedTransport : public SecureTransport {
protected:
    TrustedTransport() { certificate.trust(); }
};

TEST_F(TrustedTransport, AHandshakeThatCannotWriteYetGoesOnWithTheFirstWrite) {
    std::string heard;
    connectTo([&](SSL* session) { heard = testsupport::tlsReadUntil(session, "."); });
    EXPECT_EQ(write("early."), badRequest);
    link.writeAnswer = ioError; // as a socket has it that is still connecting
    EXPECT_EQ(handshake(), ioError);
    link.writeAnswer = 0;
    EXPECT_EQ(write("question."), 0);
    EXPECT_EQ(moved, 9u);
    hangUp();
    EXPECT_TRUE(server->finish());
    EXPECT_EQ(heard, "question.");
}

TEST_F(TrustedTransport, TakesAllBytesOnceNoOlderOnesWait) {
    std::string heard;
    connectTo([&](SSL* session) { heard = testsupport::tlsReadUntil(session, "."); });
    ASSERT_EQ(handshake(), 0);
    link.writeAnswer = wouldBlock;
    EXPECT_EQ(write("first "), wouldBlock);
    EXPECT_EQ(moved, 6u);
    EXPECT_EQ(write("second "), wouldBlock);
    EXPECT_EQ(moved, 0u);
    link.writeAnswer = ioError; // while the older bytes go out, which does not close the session
    EXPECT_EQ(write("third "), ioError);
    link.writeAnswer = 0;
    EXPECT_EQ(write("last."), 0);
    hangUp();
    server->finish();
    EXPECT_EQ(heard, "first last.");
}

TEST_F(TrustedTransport, AWriteThatFailsBehindTheQueueClosesTheSession) {
    connectTo([](SSL*) {});
    ASSERT_EQ(handshake(), 0);
    link.writeAnswer = ioError;
    EXPECT_EQ(write("question."), ioError);
    link.writeAnswer = 0;
    EXPECT_EQ(write("again."), closedAbort);
    EXPECT_EQ(read(), closedAbort);
    EXPECT_EQ(handshake(), closedAbort);
}

TEST_F(TrustedTransport, PutsRecordsTogetherThatComeInParts) {
    connectTo([](SSL* session) {
        testsupport::tlsSend(session, "answer.");
        testsupport::tlsReadUntil(session, ".");
    });
    link.mostAtOnce = 7;
    Status status = wouldBlock;
    while (status == wouldBlock)
        status = handshake();
    ASSERT_EQ(status, 0);
    int waits = 0;
    for (; (status = read()) == wouldBlock; ++waits)
        EXPECT_EQ(moved, 0u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text, "answer.");
    EXPECT_GT(waits, 2);
}

TEST_F(TrustedTransport, AnOrderlyEndIsToldAndAnswered) {
    int ended = 0;
    connectTo([&](SSL* session) {
        SSL_shutdown(session);
        ended = SSL_shutdown(session); // 1 once the client has said the same
    });
    ASSERT_EQ(handshake(), 0);
    EXPECT_EQ(read(), closedGraceful);
    EXPECT_EQ(moved, 0u);
    EXPECT_EQ(write("more"), closedGraceful);
    hangUp();
    server->finish();
    EXPECT_EQ(ended, 1);
}

TEST_F(TrustedTransport, AnEndWithoutNoticeIsAnAbort) {
    connectTo([](SSL*) {});
    ASSERT_EQ(handshake(), 0);
    EXPECT_EQ(read(), closedAbort);
    EXPECT_EQ(read(), closedAbort);
    EXPECT_EQ(write("more"), closedAbort);
}

TEST_F(TrustedTransport, AReadersWordInsideARecordIsToldAsItStandsAndOfNoNoticeLeavesTheSessionOpen) {
    connectTo([](SSL* session) {
        testsupport::tlsSend(session, "answer.");
        testsupport::tlsReadUntil(session, ".");
    });
    ASSERT_EQ(handshake(), 0);
    link.mostAtOnce = 5;
    EXPECT_EQ(read(), wouldBlock); // the record's head, and five bytes of it
    link.readAnswer = closedNoNotify;
    EXPECT_EQ(read(), closedNoNotify);
    link = {link.descriptor};
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(text, "answer.");
}

TEST_F(TrustedTransport, TheEndIsSaidAndAStreamThatIsGoneIsNoErrorThen) {
    int ended = 0;
    connectTo([&](SSL* session) {
        char byte = 0;
        ended = SSL_get_error(session, SSL_read(session, &byte, 1));
    });
    ASSERT_EQ(handshake(), 0);
    EXPECT_EQ(closeSession(), 0);
    EXPECT_EQ(read(), closedGraceful);
    hangUp();
    server->finish();
    EXPECT_EQ(ended, SSL_ERROR_ZERO_RETURN);
}

TEST_F(TrustedTransport, AStreamThatIsGoneIsNoErrorAtTheEnd) {
    connectTo([](SSL*) {});
    ASSERT_EQ(handshake(), 0);
    link.writeAnswer = ioError;
    EXPECT_EQ(closeSession(), 0);
    EXPECT_EQ(handshake(), closedGraceful);
}

TEST_F(SecureTransport, AChainThatNobodyTrustsIsInvalid) {
    testsupport::trustNobody();
    connectTo([](SSL*) {});
    EXPECT_EQ(handshake(), chainInvalid);
    hangUp();
    EXPECT_FALSE(server->finish());
}

TEST_F(TrustedTransport, RefusesWhatItCannotTake) {
    connectTo([](SSL*) {});
    const auto setMinimum = played<Status(const void*, int)>("_SSLSetProtocolVersionMin");
    EXPECT_EQ(setMinimum(context.get(), 8), 0);
    EXPECT_EQ(setMinimum(context.get(), 6), illegalParameter); // all versions
    EXPECT_EQ(setMinimum(nullptr, 8), parameterError);
    EXPECT_EQ(played<Status(const void*)>("_SSLHandshake")(nullptr), parameterError);
    hangUp();
}

} // namespace
