#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

namespace {

using testsupport::connectTo;
using testsupport::EndlessChild;
using testsupport::freePort;
using testsupport::ManualClock;
using testsupport::Peer;

// Answers a request with what the accepted object knows, and closes.
void describeClient(GPSockets* client) {
    const auto request = Owned<GPString>::adopt(client->readString());
    const auto answer = Owned<GPString>::adopt(GPString::format(
        "%s from %s port %d ssl %d address %s", request ? request->cstr() : "(null)", client->server(),
        client->port(), client->useSSL(), client->IPAddress() ? client->IPAddress() : "(null)"));
    client->writeData(answer.get());
}

void serve(int port, void (*callback)(GPSockets*), int count) {
    ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    GPSockets listener;
    listener.setPort(port);
    listener.listenConnection(callback, count);
}

TEST(GPSocketsListener, WithoutAHostServesOn127001AndHandsClientsToTheCallback) {
    const int port = freePort();
    const EndlessChild server([port] { serve(port, describeClient, 3); });
    for (int i = 0; i < 2; ++i) {
        Peer client = connectTo(port);
        client.send("hello");
        EXPECT_EQ(client.readAll(),
                  "hello from 127.0.0.1 port " + std::to_string(port) + " ssl 0 address (null)");
    }
}

void waitForTheEnd(GPSockets* client) { const auto data = Owned<GPData>::adopt(client->readData()); }

TEST(GPSocketsListener, ServesSeveralClientsAtOnce) {
    const int port = freePort();
    const EndlessChild server([port] {
        GPSockets::setDefaultTimeout(0);
        serve(
            port,
            [](GPSockets* client) {
                client->writeData("hi", 2);
                waitForTheEnd(client);
            },
            2);
    });
    Peer first = connectTo(port);
    EXPECT_EQ(first.read(2), "hi");
    Peer second = connectTo(port);
    EXPECT_EQ(second.read(2), "hi") << "the first still holds its thread";
}

TEST(GPSocketsListener, ServingThatEndsIsNoFailure) {
    GPSockets listener;
    listener.setPort(freePort());
    EXPECT_TRUE(listener.listenConnection(waitForTheEnd, 0)) << "without room for an event it serves nobody";
    EXPECT_STREQ(listener.server(), "127.0.0.1");
    GPSockets everywhere(freePort(), "0.0.0.0");
    EXPECT_TRUE(everywhere.listenConnection(waitForTheEnd, 0));
    EXPECT_STREQ(everywhere.server(), "0.0.0.0");
}

TEST(GPSocketsListener, APortWhoseLastConnectionStillLingersIsTakenAtOnce) {
    const int port = freePort();
    {
        testsupport::LoopbackListener earlier(port);
        Peer client = connectTo(port);
        Peer accepted = earlier.accept();
        accepted.close(); // the end that closes first lingers
        client.readAll();
    }
    GPSockets listener(port, "127.0.0.1");
    EXPECT_TRUE(listener.listenConnection(waitForTheEnd, 0));
}

TEST(GPSocketsListener, APortInUseFails) {
    const testsupport::LoopbackListener other;
    GPSockets listener(other.port(), "127.0.0.1");
    EXPECT_FALSE(listener.listenConnection(waitForTheEnd, 1));
}

TEST(GPSocketsListener, ADatagramSocketCannotListen) {
    GPSockets listener(freePort(), "127.0.0.1");
    listener.useUDP(true);
    EXPECT_FALSE(listener.listenConnection(waitForTheEnd, 1));
}

TEST(GPSocketsListener, AnAddressOfAnotherMachineCannotBeBound) {
    GPSockets listener(freePort(), "192.0.2.1");
    EXPECT_FALSE(listener.listenConnection(waitForTheEnd, 1));
}

TEST(GPSocketsListener, AcceptedClientsTakeTheListenersTlsSetting) {
    const int port = freePort();
    const EndlessChild server([port] {
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        GPSockets listener(port, "127.0.0.1");
        listener.setUseSSL(true);
        listener.listenConnection(
            [](GPSockets* client) { client->send(client->useSSL() ? "yes" : "no!", 3); }, 1);
    });
    EXPECT_EQ(connectTo(port).readAll(), "yes");
}

TEST(GPSocketsListener, SocketListenEndsWithFalseOnAnErrorEvent) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        close(0);
        GPSockets withoutSocket;
        EXPECT_FALSE(withoutSocket.socketListen(waitForTheEnd, 3));
    }));
}

TEST(GPSocketsListener, AListenersQueueMayHaveTheNumberZero) {
    auto real = std::make_unique<testsupport::LoopbackListener>();
    const int port = real->port();
    const EndlessChild server([&real] {
        GPSockets listener;
        listener.openConnection(real->descriptor());
        close(0);
        listener.socketListen(waitForTheEnd, 1);
    });
    real.reset();
    for (int i = 0; i < 2; ++i) {
        Peer client = connectTo(port);
        char byte;
        EXPECT_EQ(recv(client.descriptor(), &byte, 1, 0), 0) << "taken and let go: there is no pool for it";
    }
}

TEST(GPSocketsListener, SocketListenWithoutRoomForAnEventEndsAtOnce) {
    testsupport::LoopbackListener real;
    GPSockets listener;
    listener.openConnection(dup(real.descriptor()));
    EXPECT_FALSE(listener.socketListen(waitForTheEnd, 0));
    EXPECT_FALSE(listener.socketListen(waitForTheEnd, -1));
}

} // namespace
