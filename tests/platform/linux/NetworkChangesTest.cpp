// The watch of this system, in a network namespace of a child's own.

#include "platform/NetworkChanges.h"
#include "support/Patience.h"
#include "support/TracedCalls.h"

#include "support/ManualClock.h"
#include "support/NetworkNamespace.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <arpa/inet.h>
#include <linux/ipv6.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr int noNamespace = 77;

int changes = 0;

bool giveLoopbackAddress(const char* printed) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, printed, &address.sin_addr);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    const bool done = ioctl(socket, SIOCSIFADDR, &request) == 0;
    close(socket);
    return done;
}

bool addIPv6LoopbackAddress(const char* printed) {
    const int socket = ::socket(AF_INET6, SOCK_DGRAM, 0);
    in6_ifreq request{};
    inet_pton(AF_INET6, printed, &request.ifr6_addr);
    request.ifr6_prefixlen = 128;
    request.ifr6_ifindex = static_cast<int>(if_nametoindex("lo"));
    const bool done = ioctl(socket, SIOCSIFADDR, &request) == 0;
    close(socket);
    return done;
}

// How many messages this system could not deliver to sockets of this namespace.
long lostMessages() {
    std::ifstream list("/proc/net/netlink");
    std::string line;
    std::getline(list, line); // the columns' names
    long lost = 0;
    while (std::getline(list, line)) {
        std::istringstream columns(line);
        std::string word;
        for (int column = 0; column < 9 && columns >> word; ++column) {
        }
        lost += std::atol(word.c_str());
    }
    return lost;
}

// Runs `story` in a namespace of its own and answers its exit status; blocks for ever when the story does.
template <class Story>
int inNamespace(Story story) {
    const pid_t child = testsupport::forkAlone();
    if (child == 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) _exit(noNamespace);
        alarm(testsupport::patience.count());
        _exit(story());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

int watchTwoChanges() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { ++changes; }, error);
    if (!watch || error != 0) return 1;
    if (!giveLoopbackAddress("10.9.8.7")) return 2;
    while (changes == 0)
        system.run(watch);
    const int before = changes;
    if (!giveLoopbackAddress("10.9.8.6")) return 3;
    while (changes == before)
        system.run(watch);
    system.release(watch);
    return 0;
}

TEST(NetworkChanges, OfThisSystemCallBackWhenAnAddressChanges) {
    const int status = inNamespace(watchTwoChanges);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

int watchAnIPv6Address() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { ++changes; }, error);
    if (!watch || error != 0) return 1;
    if (!addIPv6LoopbackAddress("2001:db8::7")) return noNamespace; // a system without IPv6
    while (changes == 0)
        system.run(watch);
    system.release(watch);
    return 0;
}

TEST(NetworkChanges, OfThisSystemCallBackWhenAnIPv6AddressChanges) {
    const int status = inNamespace(watchAnIPv6Address);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace with IPv6 can be made here";
    EXPECT_EQ(status, 0);
}

int loseMessages() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { ++changes; }, error);
    if (!watch || error != 0) return 1;
    for (int number = 0; lostMessages() == 0; ++number) {
        if (number == 100) return 2;
        for (int at = 1; at < 100; ++at)
            if (!giveLoopbackAddress(("10.9." + std::to_string(number) + "." + std::to_string(at)).c_str()))
                return 3;
    }
    system.run(watch); // hears of the loss before anything else
    if (changes != 1) return 4;
    system.run(watch);
    return changes == 2 ? 0 : 5;
}

TEST(NetworkChanges, OfThisSystemCallBackWhenMessagesWereLost) {
    const int status = inNamespace(loseMessages);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

int watchOtherMessages() {
    const int socket = dup(0);
    close(socket); // the lowest number, which the watch gets
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { _exit(4); }, error);
    if (!watch) return 1;
    struct {
        nlmsghdr header;
        ifinfomsg links;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (send(socket, &request, sizeof request, 0) != sizeof request) return 2;
    system.run(watch);
    char more = 0;
    const bool hadLinks = recv(socket, &more, 1, MSG_DONTWAIT) == 1; // the dump's end behind them
    system.release(watch);
    return hadLinks ? 0 : 3;
}

TEST(NetworkChanges, OfThisSystemStaySilentAboutOtherMessages) {
    const int status = inNamespace(watchOtherMessages);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

TEST(NetworkChanges, OfThisSystemThatCannotBeWatchedTellTheErrorAndLeaveNoDescriptor) {
    if (!testsupport::canFailCalls())
        GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    int error = 0;
    platform::NetworkChanges::Watch* watch = nullptr;
    const long failures =
        testsupport::failEachCallOf([] {},
                                    [&] {
                                        watch = platform::systemNetworkChanges().create(
                                            "name", [] {}, error);
                                        if (watch) platform::systemNetworkChanges().release(watch);
                                    },
                                    [&] {
                                        const bool isTold =
                                            watch ? error == 0 : error == EMFILE || error == EADDRINUSE;
                                        EXPECT_TRUE(isTold) << error;
                                    });
    EXPECT_GE(failures, 2);
}

int watchOverAClosedSocket() {
    testsupport::ManualClock& clock = testsupport::ManualClock::installed();
    clock.letSleepsPass(true);
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    const int socket = dup(0);
    close(socket); // the lowest number, which the watch gets
    auto* watch = system.create(
        "name", [] { _exit(4); }, error);
    if (!watch || close(socket) != 0) return 1;
    system.run(watch);
    return clock.sleptMicroseconds() == 1000000 ? 0 : 2;
}

TEST(NetworkChanges, OfThisSystemWaitASecondBehindAnErrorThatWouldComeBackAtOnce) {
    const int status = inNamespace(watchOverAClosedSocket);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

int watchWithTheLowestDescriptor() {
    close(0);
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { ++changes; }, error);
    if (!watch || error != 0) return 1;
    if (!giveLoopbackAddress("10.9.8.7")) return 2;
    while (changes == 0)
        system.run(watch);
    return 0;
}

TEST(NetworkChanges, OfThisSystemCanHaveTheDescriptorZero) {
    const int status = inNamespace(watchWithTheLowestDescriptor);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

int releaseAWatch() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    const int lowest = dup(0);
    close(lowest);
    auto* watch = system.create(
        "name", [] {}, error);
    system.release(watch);
    const int afterwards = dup(0);
    return watch && afterwards == lowest ? 0 : 1;
}

TEST(NetworkChanges, OfThisSystemGiveTheirDescriptorBack) {
    const int status = inNamespace(releaseAWatch);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

int watchNothing() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { _exit(4); }, error);
    if (!watch) return 1;
    alarm(0);
    // Ends the wait: no address changed, so only the signal's interruption returns. It comes again and again, since
    // the first can be there before the wait.
    struct sigaction silent {};
    silent.sa_handler = [](int) {};
    sigaction(SIGALRM, &silent, nullptr);
    ualarm(20000, 20000);
    system.run(watch);
    system.release(watch);
    return 0;
}

TEST(NetworkChanges, OfThisSystemStaySilentWithoutAChange) {
    const int status = inNamespace(watchNothing);
    if (status == noNamespace) GTEST_SKIP() << "no network namespace can be made here";
    EXPECT_EQ(status, 0);
}

} // namespace
