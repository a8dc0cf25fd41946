// What a user without rights can reach of the daemon on the same machine. Each is tried by a process of such a user
// beside a running daemon.

#include "app/DaemonWorld.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/ShippedProgram.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int nobody = 65534;

class DaemonLocalUsers : public DaemonWorld {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "another user than the daemon's needs the superuser";
        umask(022);                                    // as launchd has it
        fs::permissions(root.path(), fs::perms(0755)); // as a machine's root is
        startDaemon();
        agent->awaitFrame(3);
        agent->awaitFrame(3);
        ASSERT_TRUE(awaitConfigurationOf("alice"));
    }

    bool awaitConfigurationOf(const std::string& user) const {
        return testsupport::eventually([&] { return configuration().find(user) != std::string::npos; });
    }

    // What the deed answers as a user without rights: 0 for success, or an error number.
    template <class Deed>
    static int asNobody(Deed deed) {
        const pid_t child = fork();
        if (child == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) _exit(255);
            _exit(deed());
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    static int tryToOpen(const std::string& path, int flags) {
        return asNobody([&] { return open(path.c_str(), flags | O_CLOEXEC, 0644) >= 0 ? 0 : errno; });
    }

    static int tryToTakeAway(const std::string& path) {
        return asNobody([&] { return unlink(path.c_str()) == 0 ? 0 : errno; });
    }

    static int tryToMakeIn(const std::string& folder) {
        return tryToOpen(folder + "/of-mine", O_WRONLY | O_CREAT);
    }

    std::string ofDaemon(const std::string& name) const {
        return "/proc/" + std::to_string(daemon->process()) + "/" + name;
    }

    std::string settings() const { return root.path() + "/Library/twsys"; }
    std::string logs() const { return root.path() + "/Library/Logs/TarnwickSystems"; }
    std::string log() const { return logs() + "/fernhill0-1.log"; }

    // Ports on which a socket of the process is listened at, or bound without a peer.
    static std::set<std::string> openPortsOf(pid_t process) {
        std::set<std::string> inodes;
        for (const auto& [number, what] : testsupport::descriptorsOf(process))
            if (what.rfind("socket:[", 0) == 0) inodes.insert(what.substr(8, what.size() - 9));
        std::set<std::string> ports;
        for (const char* table : {"tcp", "tcp6", "udp", "udp6"}) {
            std::ifstream lines(std::string("/proc/net/") + table);
            for (std::string line; std::getline(lines, line);) {
                std::istringstream words(line);
                std::string place, local, remote, state, queues, timer, retries, user, wait, inode;
                words >> place >> local >> remote >> state >> queues >> timer >> retries >> user >> wait >>
                    inode;
                const bool hasNoPeer = remote.size() > 5 && remote.substr(remote.size() - 5) == ":0000";
                if (hasNoPeer && inodes.count(inode) != 0) ports.insert(table + (" " + local));
            }
        }
        return ports;
    }
};

} // namespace

TEST_F(DaemonLocalUsers, SettingsCanBeReadAndNotChanged) {
    const std::string file = root.configurationFile();
    EXPECT_EQ(tryToOpen(file, O_RDONLY), 0);
    EXPECT_EQ(tryToOpen(file, O_WRONLY), EACCES);
    EXPECT_EQ(tryToTakeAway(file), EACCES);
    EXPECT_EQ(tryToMakeIn(settings()), EACCES); // so no debug or override file either
}

TEST_F(DaemonLocalUsers, SettingsThatWereMadeRootsOwnStaySo) {
    fs::permissions(root.configurationFile(), fs::perms(0600));
    daemon->changeConsoleUser("bob");
    ASSERT_TRUE(awaitConfigurationOf("bob"));
    EXPECT_EQ(tryToOpen(root.configurationFile(), O_RDONLY), EACCES);
}

TEST_F(DaemonLocalUsers, TheLogCanBeReadAndNotChanged) {
    EXPECT_EQ(tryToOpen(log(), O_RDONLY), 0);
    EXPECT_EQ(tryToOpen(log(), O_WRONLY | O_APPEND), EACCES);
    EXPECT_EQ(tryToTakeAway(log()), EACCES);
    EXPECT_EQ(tryToMakeIn(logs()), EACCES);
    fs::permissions(logs(), fs::perms(0700));
    EXPECT_EQ(tryToOpen(log(), O_RDONLY), EACCES);
}

TEST_F(DaemonLocalUsers, ALogFolderThatIsOpenToAllLetsThemSilenceTheLogAndWriteNowhereElse) {
    fs::permissions(logs(), fs::perms(0777)); // as the installation makes it
    const std::string precious = root.path() + "/precious";
    testsupport::writeAll(precious, "precious");
    EXPECT_EQ(tryToTakeAway(log()), 0);
    EXPECT_EQ(asNobody([&] { return symlink(precious.c_str(), log().c_str()) == 0 ? 0 : errno; }), 0);
    daemon->changeConsoleUser("bob");
    ASSERT_TRUE(awaitConfigurationOf("bob"));
    EXPECT_NE(agent->awaitFrame(3).body.find("bob"), std::string::npos);
    EXPECT_EQ(testsupport::readAll(precious), "precious");
    fs::remove(log());
    daemon->changeConsoleUser("carol");
    EXPECT_TRUE(daemon->awaitLog("cachedUserName() <carol>"));
}

TEST_F(DaemonLocalUsers, TheProcessCannotBeEndedHaltedNorLookedInto) {
    const pid_t process = daemon->process();
    for (const int signal : {SIGTERM, SIGINT, SIGKILL, SIGSTOP, SIGHUP})
        EXPECT_EQ(asNobody([&] { return kill(process, signal) == 0 ? 0 : errno; }), EPERM) << signal;
    EXPECT_EQ(asNobody([&] { return ptrace(PTRACE_ATTACH, process, nullptr, nullptr) == 0 ? 0 : errno; }),
              EPERM);
    for (const char* name : {"mem", "environ", "maps"})
        EXPECT_EQ(tryToOpen(ofDaemon(name), O_RDONLY), EACCES) << name;
    EXPECT_EQ(asNobody([&] { return access(ofDaemon("fd/0").c_str(), F_OK) == 0 ? 0 : errno; }), EACCES);
}

TEST_F(DaemonLocalUsers, NoPortIsOpenedForThem) {
    EXPECT_EQ(openPortsOf(getpid()),
              std::set<std::string>{"tcp 0100007F:0D80"}); // the agent's, which this process plays
    EXPECT_EQ(openPortsOf(daemon->process()), std::set<std::string>());
}

TEST_F(DaemonLocalUsers, TheAgentsPortIsRootsOnlyWhileItsAgentListens) {
    const auto listenAtTheAgentsPort = [] {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(3456);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const bool bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        return bound && listen(listener, 1) == 0 ? 0 : errno;
    };
    EXPECT_EQ(asNobody(listenAtTheAgentsPort), EADDRINUSE);
    agent->stopListening();
    agent->closeConnection();
    EXPECT_TRUE(testsupport::eventually([&] { return asNobody(listenAtTheAgentsPort) == 0; }));
}

TEST_F(DaemonLocalUsers, TheCommandLineOfAProgramThatTheDaemonRunsHoldsNoMoreThanTheUsersName) {
    daemon->changeConsoleUser("bob");
    agent->awaitFrame(3);
    for (const std::string& call : tools.calls())
        EXPECT_TRUE(call.rfind("kextload ", 0) == 0 || call.rfind("dsconfigad", 0) == 0 ||
                    call.rfind("dscl /", 0) == 0)
            << call;
    EXPECT_FALSE(tools.calls().empty());
}

TEST_F(DaemonLocalUsers, NothingThatTheDaemonMakesIsWritableForThem) {
    daemon->changeConsoleUser("bob");
    ASSERT_TRUE(awaitConfigurationOf("bob"));
    for (const std::string& folder : {settings(), logs()})
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const auto rights = entry.status().permissions();
            EXPECT_EQ(rights & (fs::perms::group_write | fs::perms::others_write), fs::perms::none)
                << entry.path();
        }
}

TEST_F(DaemonLocalUsers, TheProgramsSwitchesChangeNothingWhenTheyRunIt) {
    if (!testsupport::macProgram().empty())
        GTEST_SKIP() << "machost makes a socket below the root, which they may not";
    if (testsupport::threadsChecked)
        GTEST_SKIP() << "a child forked beside a thread can start none under this checker";
    const std::string before = configuration();
    const int ended = asNobody([]() -> int {
        if (chdir("/") != 0) return 1;
        testsupport::becomeShippedProgram({"/usr/local/bin/fernhill", "-l=true", "-ll=255"});
    });
    EXPECT_EQ(ended, 0); // as for every switch, whether it worked or not
    EXPECT_EQ(configuration(), before);
    EXPECT_FALSE(daemon->logs("verbose mode is updated"));
}
