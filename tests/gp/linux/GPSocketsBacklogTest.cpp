// What a listening socket was made with, which Linux tells.

#include "gp/GPSockets.h"

#include "gp/GPData.h"
#include "gp/Owned.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/TestChild.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <thread>

namespace {

void waitForTheEnd(GPSockets* client) { const auto data = Owned<GPData>::adopt(client->readData()); }

// The backlog of this process's listening socket on that port; -1 when there is none yet.
int backlogOf(int port) {
    for (int descriptor = 3; descriptor < 64; ++descriptor) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        tcp_info info{};
        socklen_t infoLength = sizeof info;
        if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
        if (ntohs(address.sin_port) != port) continue;
        if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &infoLength) != 0) continue;
        if (info.tcpi_state == TCP_LISTEN) return static_cast<int>(info.tcpi_sacked);
    }
    return -1;
}

TEST(GPSocketsListener, TheBacklogIsTheDefaultTimeout) {
    EXPECT_TRUE(testsupport::passesInChild([] {
        GPSockets::setDefaultTimeout(7);
        const int port = testsupport::freePort();
        std::thread([port] {
            testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
            GPSockets listener;
            listener.setPort(port);
            listener.listenConnection(waitForTheEnd, 1);
        }).detach();
        const testsupport::Peer client = testsupport::connectTo(port);
        EXPECT_EQ(backlogOf(port), 7);
    }));
}

} // namespace
