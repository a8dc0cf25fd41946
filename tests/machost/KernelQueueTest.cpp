// Kernel queues as the Mac has them, called as the program calls them.

#include "machost/MacQueueWords.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace {

using namespace machosttest;
using machosttest::remove; // not the C library's

class KernelQueue : public testing::Test {
protected:
    KernelQueue() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        queue = played<int()>("_kqueue")();
    }
    ~KernelQueue() override {
        close(ends[0]);
        if (ends[1] >= 0) close(ends[1]);
        played<int(int)>("_close")(queue);
    }

    // Makes a change and takes what is there at once.
    int change(int descriptor, std::int16_t filter, std::uint16_t flags) {
        const Event wanted{static_cast<std::uint64_t>(descriptor), filter, flags, 0, 0, nullptr};
        return wait(&wanted, 1);
    }

    int look() { return wait(nullptr, 0); }

    int wait(const Event* changes, int count) { return waitAt(queue, changes, count, 0, found); }

    void send(const std::string& bytes) {
        EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int ends[2] = {-1, -1};
    int queue = -1;
    Event found{};
};

TEST_F(KernelQueue, TellsHowManyBytesWait) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add), 1);
    EXPECT_EQ(found.ident, static_cast<std::uint64_t>(ends[0]));
    EXPECT_EQ(found.filter, readFilter);
    EXPECT_EQ(found.data, 4);
    EXPECT_EQ(found.flags & (ended | error), 0);
}

TEST_F(KernelQueue, TellsOfTheSameBytesAgainUnlessItIsCleared) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add), 1);
    EXPECT_EQ(look(), 1);
}

TEST_F(KernelQueue, OnceClearedTellsOnlyOfNewBytes) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add | clear), 1);
    EXPECT_EQ(look(), 0);
    send("more");
    EXPECT_EQ(look(), 1);
    EXPECT_EQ(found.data, 8);
}

TEST_F(KernelQueue, ADispatchedEventIsDisabledAndAddAloneDoesNotEnableItAgain) {
    EXPECT_EQ(change(ends[0], writeFilter, add | dispatch), 1);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(change(ends[0], writeFilter, add | dispatch), 0);
    EXPECT_EQ(change(ends[0], writeFilter, enable | dispatch), 1);
}

TEST_F(KernelQueue, TellsTheEndWithTheBytesThatAreLeft) {
    send("rest");
    close(ends[1]);
    ends[1] = -1;
    EXPECT_EQ(change(ends[0], readFilter, add), 1);
    EXPECT_EQ(found.flags & ended, ended);
    EXPECT_EQ(found.data, 4);
}

TEST_F(KernelQueue, TellsAChangeThatCannotBeAsAnEvent) {
    EXPECT_EQ(change(1000, readFilter, add), 1);
    EXPECT_EQ(found.flags, add | error);
    EXPECT_EQ(found.data, 9); // EBADF
    EXPECT_EQ(change(ends[0], readFilter, remove), 1);
    EXPECT_EQ(found.data, 2); // ENOENT
}

TEST_F(KernelQueue, ForgetsADescriptorThatIsClosed) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add), 1);
    const int copy = dup(ends[0]);
    played<int(int)>("_close")(ends[0]);
    EXPECT_EQ(look(), 0);
    ends[0] = copy;
}

TEST_F(KernelQueue, DisablesWhatIsToBeEnabledAtOnceAndRemovesWhatIsToBeAdded) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add | enable | disable), 0);
    EXPECT_EQ(change(ends[0], readFilter, enable), 1);
    EXPECT_EQ(change(ends[0], readFilter, add | remove), 0);
    EXPECT_EQ(look(), 0);
    EXPECT_EQ(change(ends[0], readFilter, add | remove), 1);
    EXPECT_EQ(found.data, 2); // ENOENT
}

TEST_F(KernelQueue, TellsEventsAndErrorsWithTheFlagsThatWereGiven) {
    send("four");
    EXPECT_EQ(change(ends[0], readFilter, add | enable), 1);
    EXPECT_EQ(found.flags, add | enable);
    EXPECT_EQ(change(-1, readFilter, add | clear), 1);
    EXPECT_EQ(found.flags, add | clear | error);
}

TEST_F(KernelQueue, TakesTheUsersPointerOfEveryChange) {
    send("four");
    int one = 0, other = 0;
    const auto ident = static_cast<std::uint64_t>(ends[0]);
    const Event first{ident, readFilter, add, 0, 0, &one}, second{ident, readFilter, enable, 0, 0, &other};
    EXPECT_EQ(wait(&first, 1), 1);
    EXPECT_EQ(found.user, &one);
    EXPECT_EQ(wait(&second, 1), 1);
    EXPECT_EQ(found.user, &other);
}

TEST_F(KernelQueue, LooksAtTheLimitInFrontOfTheChanges) {
    send("four");
    const Event wanted{static_cast<std::uint64_t>(ends[0]), readFilter, add, 0, 0, nullptr};
    const auto kevent = played<int(int, const Event*, int, Event*, int, const Limit*)>("_kevent");
    for (const Limit& limit : {Limit{-1, 0}, Limit{100000001, 0}, Limit{0, 1000000000}}) {
        EXPECT_EQ(kevent(queue, &wanted, 1, &found, 1, &limit), -1);
        EXPECT_EQ(programError(), 22);
    }
    EXPECT_EQ(look(), 0);
    const Limit negative{-1, 0};
    EXPECT_EQ(kevent(ends[0], nullptr, 0, &found, 1, &negative), -1);
    EXPECT_EQ(programError(), 22); // before it is seen that this is no queue
}

TEST_F(KernelQueue, RefusesWhatIsNoQueueAndANegativeLimit) {
    const Limit negative{-1, 0};
    const auto kevent = played<int(int, const Event*, int, Event*, int, const Limit*)>("_kevent");
    EXPECT_EQ(kevent(ends[0], nullptr, 0, &found, 1, nullptr), -1);
    EXPECT_EQ(programError(), 9);
    EXPECT_EQ(kevent(queue, nullptr, 0, &found, 1, &negative), -1);
    EXPECT_EQ(programError(), 22);
}

// The Mac's socket address begins with its length.
struct Address {
    std::uint8_t length = 16, family = 2;
    std::uint16_t port = 0;
    std::uint32_t address = htonl(INADDR_LOOPBACK);
    char zero[8] = {};
};

TEST(PlayedSockets, ARefusalOnThisMachineComesLaterToASocketThatDoesNotBlock) {
    // A port that was bound and let go again.
    sockaddr_in host{};
    host.sin_family = AF_INET;
    host.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof host;
    const int holder = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&host), length), 0);
    ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr*>(&host), &length), 0);

    const int client = played<int(int, int, int)>("_socket")(2, SOCK_STREAM, 0);
    played<int(int, int, ...)>("_fcntl")(client, 4, 4L); // F_SETFL, O_NONBLOCK
    Address address;
    address.port = host.sin_port;
    EXPECT_EQ(played<int(int, const Address*, socklen_t)>("_connect")(client, &address, sizeof address), -1);
    EXPECT_EQ(*played<int*()>("___error")(), 36); // EINPROGRESS

    int pending = 0;
    socklen_t size = sizeof pending;
    EXPECT_EQ(
        played<int(int, int, int, void*, socklen_t*)>("_getsockopt")(client, 0xffff, 0x1007, &pending, &size),
        0);
    EXPECT_EQ(pending, 61); // ECONNREFUSED
    close(holder);
    played<int(int)>("_close")(client);
}

} // namespace
