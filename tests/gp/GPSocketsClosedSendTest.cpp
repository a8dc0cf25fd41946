#include "gp/GPSockets.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

TEST(GPSocketsClosedSend, ASendAfterACloseFailsAndDoesNotReachWhoeverHasTheNumberNow) {
    int first[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, first), 0);
    GPSockets sockets;
    ASSERT_TRUE(sockets.openConnection(first[0]));
    ASSERT_TRUE(sockets.send("a", 1));
    sockets.closeConnection();
    int second[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, second), 0);
    const int reused = second[0] == first[0] ? second[0] : dup2(second[0], first[0]);
    ASSERT_EQ(reused, first[0]);
    EXPECT_FALSE(sockets.send("b", 1));
    EXPECT_EQ(errno, EBADF);
    char byte = 0;
    EXPECT_EQ(recv(second[1], &byte, 1, MSG_DONTWAIT), -1);
}
