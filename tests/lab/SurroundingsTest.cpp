// What the lab puts around the daemon: its clock, its names, its console, its folder.

#include "lab/EmptyConsole.h"
#include "lab/OfflineNames.h"
#include "lab/PlayedClock.h"
#include "lab/Policy.h"
#include "lab/RootFolder.h"
#include "lab/WorldServer.h"

#include "support/ForkedChild.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

using lab::InputError;
using lab::PlayedClock;
using lab::RootFolder;

TEST(PlayedClock, StandsAtTheTimeThatIsPlayed) {
    PlayedClock clock;
    clock.set(1700000000999999);
    EXPECT_EQ(clock.microseconds(), 1700000000999999);
    EXPECT_EQ(clock.seconds(), 1700000000);
}

TEST(PlayedClock, IsSharedWithProcessesThatAreForkedAfterwards) {
    PlayedClock clock;
    clock.set(5);
    EXPECT_EQ(testsupport::answerOfChild([&] {
                  const std::string seen = std::to_string(clock.microseconds());
                  clock.set(7);
                  return seen;
              }),
              "5");
    EXPECT_EQ(clock.microseconds(), 7);
}

TEST(PlayedClock, IsNeitherSetNorCutShortThroughItsMemory) {
    PlayedClock clock;
    clock.set(5);
    const std::int64_t other = 7;

    EXPECT_LT(ftruncate(clock.memory(), 0), 0);
    EXPECT_LT(pwrite(clock.memory(), &other, sizeof other, 0), 0);
    EXPECT_EQ(mmap(nullptr, sizeof other, PROT_READ | PROT_WRITE, MAP_SHARED, clock.memory(), 0), MAP_FAILED);
    clock.set(6);
    EXPECT_EQ(clock.microseconds(), 6);
}

TEST(PlayedClock, ASleepEndsWhenItsTimeHasBeenPlayed) {
    PlayedClock clock;
    std::atomic<bool> awake{false};
    std::thread sleeper([&] {
        clock.sleepSeconds(1000);
        clock.sleepMicroseconds(900000000);
        awake = true;
    });
    for (std::int64_t played = 0; !awake; played += 100000000) {
        clock.set(played);
        std::this_thread::yield();
    }
    sleeper.join();
}

TEST(PlayedClock, ASleepEndsInRealTimeWhereNoTimeIsPlayed) {
    PlayedClock clock;
    clock.sleepMicroseconds(30000);
    EXPECT_EQ(clock.microseconds(), 0);
}

TEST(PlayedClock, WaitsForEventsAreLimitedInRealTime) { EXPECT_EQ(PlayedClock().eventWaitLimit(5), 5000000); }

TEST(OfflineNames, LocalhostAndNumericAddressesResolve) {
    platform::HostEntry entry;
    ASSERT_TRUE(lab::offlineNames().gethostbyname("localhost", entry));
    EXPECT_EQ(entry.addresses.at(0), std::string("\x7f\0\0\x01", 4));
    ASSERT_TRUE(lab::offlineNames().gethostbyname2("localhost", AF_INET6, entry));
    EXPECT_EQ(entry.addresses.at(0), std::string(15, '\0') + "\x01");
    ASSERT_TRUE(lab::offlineNames().gethostbyname("10.1.2.3", entry));
    EXPECT_EQ(entry.officialName, "10.1.2.3");
}

TEST(OfflineNames, EveryOtherNameFailsAtOnce) {
    platform::HostEntry entry;
    EXPECT_FALSE(lab::offlineNames().gethostbyname("www.example.org", entry));
    EXPECT_FALSE(lab::offlineNames().gethostbyname2("10.1.2.3", AF_INET6, entry));
}

TEST(EmptyConsole, NobodySitsAtIt) {
    char name[100] = "";
    EXPECT_FALSE(lab::emptyConsole().copyName(name, sizeof name));
    EXPECT_NE(lab::emptyConsole().create("watch", [](const void*, const void*, void*) {}), nullptr);
}

TEST(RootFolder, ATemporaryOneGoesWithItsObject) {
    std::string path;
    {
        const RootFolder root("");
        path = root.path();
        root.configure(false, 64);
        EXPECT_TRUE(fs::is_directory(path + "/var/run/fernhill"));
        EXPECT_LE(path.size(), 60u);
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(RootFolder, AGivenOneIsMadeAndKept) {
    const testsupport::TemporaryFolder folder;
    { const RootFolder root(folder.file("a/b")); }
    EXPECT_TRUE(fs::is_directory(folder.file("a/b/Library/Logs")));
}

TEST(RootFolder, HoldsASilentKextload) {
    const RootFolder root("");
    EXPECT_EQ(std::system((root.programs() + "/kextload | grep -q .").c_str()), 1 << 8);
    EXPECT_EQ(access((root.programs() + "/kextload").c_str(), X_OK), 0);
}

TEST(RootFolder, APathOf60BytesIsTheLongest) {
    const testsupport::TemporaryFolder folder;
    ASSERT_LT(folder.path().size(), 50u);
    const std::string longest = folder.file(std::string(59 - folder.path().size(), 'r'));
    { const RootFolder root(longest); }
    EXPECT_TRUE(fs::is_directory(longest));
    try {
        const RootFolder root(longest + "r");
        FAIL() << "no error";
    } catch (const InputError& error) {
        EXPECT_EQ(error.what(),
                  longest + "r: a scratch folder's path has at most 60 bytes; choose a shorter one");
    }
    EXPECT_FALSE(fs::exists(longest + "r"));
}

TEST(RootFolder, ATemporaryFolderThatIsTooLongLeavesNothingBehind) {
    const testsupport::TemporaryFolder folder;
    const std::string place = folder.file(std::string(50, 't'));
    fs::create_directories(place);
    setenv("TMPDIR", place.c_str(), 1);
    EXPECT_THROW(RootFolder(""), InputError);
    EXPECT_TRUE(fs::is_empty(place));
    setenv("TMPDIR", folder.file("none").c_str(), 1);
    EXPECT_THROW(RootFolder(""), InputError);
}

TEST(RootFolder, APlaceWhereNoFolderCanBeIsAnError) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("file"), "");
    EXPECT_THROW(RootFolder(folder.file("file/root")), InputError);
}

TEST(RootFolder, TheOutputsTailIsItsLast2000Bytes) {
    const RootFolder root("");
    EXPECT_EQ(root.outputTail(), "");
    testsupport::writeAll(root.output(), std::string(3000, 'a') + "end");
    EXPECT_EQ(root.outputTail(), std::string(1997, 'a') + "end");
}

TEST(RootFolder, TheOutputsTailSteersNoTerminal) {
    const RootFolder root("");
    testsupport::writeAll(root.output(), "a\x1b[31m\tb\r\n");
    EXPECT_EQ(root.outputTail(), "a?[31m\tb?\n");
    testsupport::writeAll(root.output(), "a\xc2\x9b"
                                         "31m\tb\n");
    EXPECT_EQ(root.outputTail(), "a??31m\tb\n");
}

TEST(WorldServer, TakesThePlaceOfWhatAKilledProcessOfTheSameNumberLeftBehind) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("world"), "");
    EXPECT_NO_THROW(lab::WorldServer(folder.file("world")));
}

} // namespace
