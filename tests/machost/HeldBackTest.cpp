// Connections that a played world holds back, and the kernel's controls, called as the program calls them.

#include "lab/WorldAnswers.h"
#include "lab/WorldServer.h"
#include "machost/MacQueueWords.h"
#include "machost/Settings.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <thread>

namespace {

using namespace machosttest;

// <netinet/in.h> of the Mac, with its error numbers.
struct Address {
    std::uint8_t length = 16, family = 2;
    std::uint16_t port = 0;
    std::uint32_t address = htonl(INADDR_LOOPBACK);
    char zero[8] = {};
};
constexpr int wouldBlock = 35, inProgress = 36, wrongType = 41, notConnected = 57, refused = 61;

class HeldBack : public testing::Test {
protected:
    HeldBack() {
        EXPECT_EQ(pipe(letGo), 0);
        testsupport::ManualClock::installed().setEventWait(5000000, false);
        lab::holdConnectionsBack(listener->port(), letGo[0]);
        machost::settings().world = folder.file("world");
        // Never taken down: it answers until the process ends.
        auto& server = *new lab::WorldServer(folder.file("world"));
        std::thread([&server] { server.serve(getpid(), [] { return false; }); }).detach();
        queue = played<int()>("_kqueue")();
        client = makeClient();
    }
    ~HeldBack() override { played<int(int)>("_close")(client); }

    int makeClient() const {
        const int made = played<int(int, int, int)>("_socket")(2, SOCK_STREAM, 0);
        played<int(int, int, ...)>("_fcntl")(made, 4, 4L); // F_SETFL, O_NONBLOCK
        Address address;
        address.port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(played<int(int, const Address*, socklen_t)>("_connect")(made, &address, sizeof address),
                  -1);
        EXPECT_EQ(programError(), inProgress);
        return made;
    }

    void release() const { EXPECT_EQ(write(letGo[1], "x", 1), 1); }

    // The first event within five seconds, or of now; its filter is 0 for none.
    Event wait(std::int64_t seconds) const {
        const Event watched[] = {{static_cast<std::uint64_t>(client), readFilter, add, 0, 0, nullptr},
                                 {static_cast<std::uint64_t>(client), writeFilter, add, 0, 0, nullptr}};
        Event found;
        waitAt(queue, watched, 2, seconds, found);
        return found;
    }

    ssize_t send() const {
        return played<ssize_t(int, const void*, std::size_t, int)>("_send")(client, "x", 1, 0);
    }

    testsupport::TemporaryFolder folder;
    std::optional<testsupport::LoopbackListener> listener{std::in_place};
    const int port = listener->port();
    int letGo[2];
    int queue = -1;
    int client = -1;
};

TEST_F(HeldBack, AConnectionIsStillConnectingForEveryCall) {
    char byte = 0;
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(programError(), notConnected);
    EXPECT_EQ(played<ssize_t(int, const void*, std::size_t)>("_write")(client, "x", 1), -1);
    EXPECT_EQ(programError(), notConnected);
    EXPECT_EQ(played<ssize_t(int, void*, std::size_t, int)>("_recv")(client, &byte, 1, 0), -1);
    EXPECT_EQ(programError(), wouldBlock);
    EXPECT_EQ(played<ssize_t(int, void*, std::size_t)>("_read")(client, &byte, 1), -1);
    EXPECT_EQ(programError(), wouldBlock);
    EXPECT_EQ(wait(0).filter, 0);
}

TEST_F(HeldBack, AConnectionIsMadeAndToldOfOnceItIsLetGo) {
    EXPECT_EQ(wait(0).filter, 0);
    release();
    const Event event = wait(5);
    EXPECT_EQ(event.filter, writeFilter);
    EXPECT_EQ(event.flags & ended, 0);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(listener->accept().read(1), "x");
}

TEST_F(HeldBack, AConnectionThatIsRefusedThenIsToldOfAsThat) {
    EXPECT_EQ(wait(0).filter, 0);
    listener.reset();
    release();
    const Event event = wait(5);
    EXPECT_NE(event.filter, 0);
    EXPECT_EQ(event.flags & ended, ended);
    EXPECT_EQ(event.filterFlags, static_cast<std::uint32_t>(refused));
}

TEST_F(HeldBack, AConnectionOfADescriptorThatWasClosedIsNotMade) {
    played<int(int)>("_close")(client);
    client = makeClient();
    release();
    EXPECT_EQ(wait(5).filter, writeFilter);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(listener->accept().read(1), "x");
}

// <sys/kern_control.h>
struct ControlInfo {
    std::uint32_t id;
    char name[96];
};
struct ControlAddress {
    std::uint8_t length = 32, family = 32;
    std::uint16_t kind = 2;
    std::uint32_t id = 0, unit = 0, reserved[5] = {};
};

class PlayedControl : public testing::Test {
protected:
    PlayedControl() {
        machost::settings().root = folder.path();
        std::filesystem::create_directories(folder.path() + "/var/run/fernhill");
    }

    void serve(int type) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = folder.path() + "/var/run/fernhill/control";
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int server = socket(AF_UNIX, type, 0);
        ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        if (type != SOCK_DGRAM) {
            ASSERT_EQ(listen(server, 1), 0);
        }
    }

    // 0, or the error of a connection by a socket of that type.
    static int connectBy(int type) {
        const int client = played<int(int, int, int)>("_socket")(32, type, 2);
        ControlInfo info{0, "control"};
        EXPECT_EQ(played<int(int, unsigned long, ...)>("_ioctl")(client, 0xc0644e03UL, &info), 0);
        ControlAddress address;
        address.id = info.id;
        const int result =
            played<int(int, const ControlAddress*, socklen_t)>("_connect")(client, &address, sizeof address);
        const int error = programError();
        played<int(int)>("_close")(client);
        return result == 0 ? 0 : error;
    }

    testsupport::TemporaryFolder folder;
};

TEST_F(PlayedControl, ThatIsRegisteredForStreamsTakesStreamsAlone) {
    serve(SOCK_SEQPACKET);
    EXPECT_EQ(connectBy(SOCK_STREAM), 0);
    EXPECT_EQ(connectBy(SOCK_DGRAM), wrongType);
}

TEST_F(PlayedControl, ThatIsNotRegisteredForStreamsRefusesThem) {
    serve(SOCK_DGRAM);
    EXPECT_EQ(connectBy(SOCK_STREAM), wrongType);
    EXPECT_EQ(connectBy(SOCK_DGRAM), 0);
}

} // namespace
