// The watch of this system, in a network namespace of a child's own.

#include "platform/NetworkChanges.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

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

// Runs `story` in a namespace of its own and answers its exit status; blocks for ever when the story does.
template <class Story>
int inNamespace(Story story) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) _exit(noNamespace);
        alarm(5);
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

int watchNothing() {
    platform::NetworkChanges& system = platform::systemNetworkChanges();
    int error = -1;
    auto* watch = system.create(
        "name", [] { _exit(4); }, error);
    if (!watch) return 1;
    alarm(0);
    // Ends the wait: no address changed, so only the signal's interruption returns.
    struct sigaction silent {};
    silent.sa_handler = [](int) {};
    sigaction(SIGALRM, &silent, nullptr);
    ualarm(20000, 0);
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
