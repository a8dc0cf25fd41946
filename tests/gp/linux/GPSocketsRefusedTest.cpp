// Sockets whose system calls the kernel refuses.

#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/Owned.h"
#include "support/CapturedLog.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/SystemCallFailure.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace {

using testsupport::CapturedLog;
using testsupport::failSystemCall;
using testsupport::ManualClock;
using testsupport::passesInChild;
using testsupport::Peer;

void waitForTheEnd(GPSockets* client) { const auto data = Owned<GPData>::adopt(client->readData()); }

TEST(GPSocketsRefused, OpenConnectionWithoutASocketFailsWithALogLine) {
    EXPECT_TRUE(passesInChild([] {
        const CapturedLog log;
        testsupport::PlayedNames names;
        names.answer("agent.test", AF_INET, {"127.0.0.1"});
        names.install();
        ASSERT_TRUE(failSystemCall(SYS_socket, EMFILE, AF_INET));
        GPSockets socket(80, "agent.test");
        EXPECT_FALSE(socket.openConnection());
        EXPECT_TRUE(log.holds("socket openConnection socket error -1"));
    }));
}

TEST(GPSocketsRefused, WithoutAQueueNothingIsReadOrWritten) {
    EXPECT_TRUE(passesInChild([] {
        Peer mine, peer;
        testsupport::connectedPair(mine, peer);
        fcntl(mine.descriptor(), F_SETFL, O_NONBLOCK);
        GPSockets socket;
        socket.openConnection(mine.handOver());
        ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
        ASSERT_TRUE(failSystemCall(SYS_epoll_create1, EMFILE, EPOLL_CLOEXEC));
        testing::internal::CaptureStdout();
        EXPECT_EQ(socket.readData(), nullptr);
        EXPECT_FALSE(socket.writeData("x", 1));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "this is no time-out";
        EXPECT_EQ(socket.error(), 0);
    }));
}

TEST(GPSocketsRefused, ATlsReadThatFindsNothingThereIsAGracefulClose) {
    EXPECT_TRUE(passesInChild([] {
        Peer mine, peer;
        testsupport::connectedPair(mine, peer);
        const int descriptor = mine.descriptor();
        ASSERT_TRUE(failSystemCall(SYS_read, ENOENT, static_cast<unsigned>(descriptor)));
        const auto connection = static_cast<std::intptr_t>(descriptor);
        char buffer[16];
        std::size_t length = 9;
        EXPECT_EQ(GPSockets::readFromSSLSocket(reinterpret_cast<const void*>(connection), buffer, &length),
                  -9805);
        EXPECT_EQ(length, 0u);
    }));
}

TEST(GPSocketsRefused, AListenerWithoutASocketFails) {
    EXPECT_TRUE(passesInChild([] {
        ASSERT_TRUE(failSystemCall(SYS_socket, EMFILE, AF_INET));
        GPSockets listener(8080, "127.0.0.1");
        EXPECT_FALSE(listener.listenConnection(waitForTheEnd, 1));
    }));
}

TEST(GPSocketsRefused, SocketListenWithoutAQueueFails) {
    EXPECT_TRUE(passesInChild([] {
        testsupport::LoopbackListener real;
        GPSockets listener;
        listener.openConnection(dup(real.descriptor()));
        ASSERT_TRUE(failSystemCall(SYS_epoll_create1, EMFILE, EPOLL_CLOEXEC));
        EXPECT_FALSE(listener.socketListen(waitForTheEnd, 3));
    }));
}

} // namespace
