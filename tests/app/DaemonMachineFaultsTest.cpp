// The daemon on a machine that has run out of disk, descriptors or threads, or whose folders are not what they were.

#include "app/Daemon.h"
#include "app/FaultsWorld.h"
#include "support/Sanitizers.h"
#include "support/ShippedProgram.h"
#include "support/ThreadStarts.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

using testsupport::eventually;

namespace {

constexpr int page = 40000;

class DaemonMachineFaults : public FaultsWorld {
protected:
    // The daemon does what does not need what is missing: it tells the agent of a new user and has a page asked about.
    void expectFilteringToGoOn(const std::string& user, int port) {
        daemon->changeConsoleUser(user);
        EXPECT_NE(agent->awaitFrame(3).body.find(user), std::string::npos);
        expectAPageToPass(port);
        EXPECT_TRUE(answersBothDirections());
    }

    // And does the rest again once it is there.
    void expectTheRestToComeBack(const std::string& user) {
        daemon->changeConsoleUser(user);
        agent->awaitFrame(3);
        EXPECT_TRUE(daemon->awaitLog("cachedUserName() <" + user + ">"));
        EXPECT_TRUE(eventually([&] { return stores(user); })) << configuration();
    }

    // Starts what was prepared, without a look at its log.
    void startOn() {
        daemon->start();
        ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
        agent->awaitFrame(3);
        agent->awaitFrame(3);
    }

    // Whether the configuration is whole and has that user.
    bool stores(const std::string& user) const {
        const std::string content = configuration();
        return content.find("<CachedUserName>" + user + "</CachedUserName>") != std::string::npos &&
               content.find("</Fernhill>") != std::string::npos;
    }

    std::string logs() const { return root.path() + "/Library/Logs/TarnwickSystems"; }
};

// Everything that the daemon writes lies on a small disk of its own.
class DaemonDiskFaults : public DaemonMachineFaults {
protected:
    void SetUp() override {
        fs::create_directories(library);
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("disk", library.c_str(), "tmpfs", 0, "size=256k,mode=755") != 0)
            GTEST_SKIP() << "a disk of one's own needs the superuser";
        mounted = true;
        fs::create_directories(library + "/twsys");
    }
    ~DaemonDiskFaults() override {
        if (mounted) umount2(library.c_str(), MNT_DETACH);
    }

    void fillTheDisk() const {
        const int file = open(filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string kilobyte(1024, 'x');
        while (write(file, kilobyte.data(), kilobyte.size()) > 0) {
        }
        EXPECT_EQ(errno, ENOSPC);
        close(file);
    }
    void freeTheDisk() const { fs::remove(filler()); }

    void makeTheDisk(bool writable) const {
        EXPECT_EQ(
            mount(nullptr, library.c_str(), nullptr, MS_REMOUNT | (writable ? 0 : MS_RDONLY), "size=256k"),
            0);
    }

    const std::string library = root.path() + "/Library";

private:
    std::string filler() const { return library + "/filler"; }

    bool mounted = false;
};

// The number of the next descriptor that a process may have is bounded from outside.
class DaemonDescriptorFaults : public DaemonMachineFaults {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "a checker needs descriptors of its own";
        if (!testsupport::macProgram().empty()) GTEST_SKIP() << "machost needs descriptors of its own";
    }

    void allowDescriptors(rlim_t count) {
        rlimit limit{};
        ASSERT_EQ(prlimit(daemon->process(), RLIMIT_NOFILE, nullptr, &limit), 0);
        limit.rlim_cur = count;
        ASSERT_EQ(prlimit(daemon->process(), RLIMIT_NOFILE, &limit, nullptr), 0);
    }

    static constexpr rlim_t none = 3;
    static constexpr rlim_t enough = 256;
};

// No thread can be had while the test says so.
class DaemonThreadFaults : public DaemonMachineFaults {
protected:
    DaemonThreadFaults() {
        void* memory =
            mmap(nullptr, sizeof *refusal, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
        refusal = new (memory) testsupport::ThreadRefusal;
        surroundings = [this] {
            playClock();
            testsupport::refuseThreadsBy(*refusal);
        };
    }

    void SetUp() override {
        if (!testsupport::macProgram().empty())
            GTEST_SKIP() << "only this build's own threads can be refused";
        startListening();
    }

    static void refuseThreads(bool refuse) { refusal->inForce = refuse; }

    // Whether the daemon has come, or comes, to a start of this thread that is refused.
    static bool hasBeenRefused(void* (*function)(void*)) {
        return eventually([function] { return refusal->hasMet(function); });
    }

private:
    static inline testsupport::ThreadRefusal* refusal = nullptr; // in memory that the daemon shares
};

} // namespace

TEST_F(DaemonDiskFaults, AFullDiskCostsTheLogAndTheSettingsOfThatTimeAndNothingElse) {
    startListening();
    fillTheDisk();
    expectFilteringToGoOn("bob", page);
    freeTheDisk();
    expectTheRestToComeBack("carol");
}

TEST_F(DaemonDiskFaults, AFileSystemThatIsReadOnlyCostsTheSame) {
    startListening();
    EXPECT_TRUE(eventually([&] { return stores("alice"); }));
    makeTheDisk(false);
    expectFilteringToGoOn("bob", page);
    EXPECT_TRUE(stores("alice"));
    EXPECT_FALSE(daemon->logs("<bob>"));
    makeTheDisk(true);
    expectTheRestToComeBack("carol");
}

TEST_F(DaemonDiskFaults, ADaemonThatStartsOnAReadOnlyFileSystemFilters) {
    prepare();
    makeTheDisk(false);
    startOn();
    expectFilteringToGoOn("bob", page);
    makeTheDisk(true);
    fs::create_directories(logs()); // which only a start makes
    expectTheRestToComeBack("carol");
}

TEST_F(DaemonMachineFaults, WithoutItsFoldersTheDaemonFilters) {
    prepare();
    fs::remove_all(root.path() + "/Library");
    startOn();
    expectFilteringToGoOn("bob", page);
    EXPECT_FALSE(fs::exists(root.path() + "/Library"));
    fs::create_directories(logs());
    fs::create_directories(root.path() + "/Library/twsys");
    expectTheRestToComeBack("carol");
}

TEST_F(DaemonMachineFaults, ALogFolderThatVanishesCostsTheLogUntilSomebodyMakesIt) {
    startListening();
    fs::remove_all(logs());
    expectFilteringToGoOn("bob", page);
    EXPECT_FALSE(fs::exists(logs()));
    fs::create_directories(logs());
    expectTheRestToComeBack("carol");
    EXPECT_FALSE(daemon->logs("<bob>"));
}

TEST_F(DaemonDescriptorFaults, WithoutADescriptorTheLinkThatStandsGoesOn) {
    startListening();
    expectAPageToPass(page - 1); // so that the reader has its queue
    allowDescriptors(none);
    expectFilteringToGoOn("bob", page);
    allowDescriptors(enough);
    expectTheRestToComeBack("carol");
    EXPECT_FALSE(daemon->logs("<bob>"));
}

TEST_F(DaemonDescriptorFaults, ALinkThatIsLostWithoutADescriptorIsDeadAndPagesPass) {
    startListening();
    expectAPageToPass(page - 1); // so that the reader has its queue
    allowDescriptors(none);
    agent->closeConnection();
    // A question that comes between the reader's one wake-up and the loss of its socket waits for ever, by rule.
    EXPECT_TRUE(eventually([&] { return readers() == 0; }));
    EXPECT_TRUE(comesToPass(page));
    allowDescriptors(enough);
    EXPECT_TRUE(comesToPass(page + 1));
    EXPECT_TRUE(daemon->awaitLog("OstComm getPolicyCommand no socket."));
    EXPECT_TRUE(answersBothDirections());
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(DaemonThreadFaults, AQuestionWithoutAThreadIsNeverSentAndItsPageStaysHeld) {
    refuseThreads(true);
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_TRUE(answersBothDirections());
    refuseThreads(false);
    // The next question has a thread, and the one before stays lost.
    EXPECT_EQ(verdictOf(page + 1), resultHold);
    agent->reply(agent->awaitFrame(1).sequence, "{}");
    EXPECT_TRUE(comesToPass(page + 1));
    EXPECT_EQ(verdictOf(page), resultHold);
}

TEST_F(DaemonThreadFaults, WithThirtyQuestionsWithoutAThreadNothingIsAskedAnyMore) {
    refuseThreads(true);
    for (int port = page; port < page + 30; ++port)
        EXPECT_EQ(verdictOf(port), resultHold);
    refuseThreads(false);
    EXPECT_EQ(verdictOf(page + 30), resultHold);
    daemon->changeConsoleUser("bob");
    EXPECT_EQ(agent->awaitFrame().type, 3u); // and no question in front of it
    EXPECT_TRUE(answersBothDirections());
    EXPECT_EQ(queryThreads(), 0);
}

TEST_F(DaemonThreadFaults, AUserWhoComesMeanwhileIsStoredAndNotReported) {
    refuseThreads(true);
    daemon->changeConsoleUser("bob");
    EXPECT_TRUE(hasBeenRefused(setUserLogonThread));
    EXPECT_TRUE(stores("bob"));
    refuseThreads(false);
    daemon->changeConsoleUser("carol");
    EXPECT_NE(agent->awaitFrame(3).body.find("carol"), std::string::npos);
}

TEST_F(DaemonThreadFaults, ALinkThatIsMadeAnewHasNobodyWhoReads) {
    EXPECT_TRUE(eventually([&] { return readers() == 1; }));
    refuseThreads(true);
    agent->closeConnection();
    agent->awaitFrame(3);
    // The old reader starts the new one, and ends.
    EXPECT_TRUE(eventually([&] { return readers() == 0; }));
    refuseThreads(false);
    const std::uint32_t number = ask(page);
    agent->reply(number, "{}");
    EXPECT_EQ(verdictOf(page), resultHold);
    EXPECT_TRUE(eventually([&] { return unreadOnTheLink() > 0; }));
}
