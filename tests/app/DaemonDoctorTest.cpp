// What fernhill-doctor says of a daemon that is well, and of one in each fault that an administrator meets.

#include "app/DaemonWorld.h"
#include "support/Await.h"
#include "support/Sanitizers.h"
#include "support/ShippedProgram.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// One run of the doctor.
struct Diagnosis {
    int status = -1;
    std::string output;
    nlohmann::json checks;

    // Whether a check found something in that state whose words have the text.
    bool tells(const std::string& state, const std::string& check, const std::string& text = "") const {
        return std::any_of(checks.begin(), checks.end(), [&](const nlohmann::json& entry) {
            return entry["state"] == state && entry["check"] == check &&
                   entry["found"].get<std::string>().find(text) != std::string::npos;
        });
    }
};

// A listener on the agent's port that belongs to a user without rights.
class StrangersAgent {
public:
    StrangersAgent() {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        process_ = fork();
        if (process_ == 0) listenForEver(ready[1]);
        close(ready[1]);
        char told = 0;
        EXPECT_EQ(read(ready[0], &told, 1), 1);
        close(ready[0]);
    }
    ~StrangersAgent() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    StrangersAgent(const StrangersAgent&) = delete;
    StrangersAgent& operator=(const StrangersAgent&) = delete;

private:
    [[noreturn]] static void listenForEver(int ready) {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(3456);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (setuid(65534) ||
            bind(listener, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) ||
            listen(listener, 4) || write(ready, "r", 1) != 1)
            _exit(1);
        for (;;)
            pause();
    }

    pid_t process_;
};

class DaemonDoctor : public DaemonWorld {
protected:
    void SetUp() override {
        if (getuid() != 0) GTEST_SKIP() << "the doctor looks into root's processes";
    }

    Diagnosis diagnose() const {
        Diagnosis diagnosis;
        diagnosis.output = run("--json", diagnosis.status);
        const nlohmann::json report = nlohmann::json::parse(diagnosis.output, nullptr, false);
        EXPECT_FALSE(report.is_discarded()) << diagnosis.output;
        if (report.is_discarded()) return diagnosis;
        EXPECT_EQ(report["status"], diagnosis.status);
        diagnosis.checks = report["checks"];
        return diagnosis;
    }

    // What the doctor prints when it looks at this test's daemon, or at another process.
    std::string run(const std::string& options, int& status) const {
        return run(options, status, daemon->process());
    }
    std::string run(const std::string& options, int& status, pid_t process) const {
        const std::string command =
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin '" OSTLER_TEST_DATA "/../tools/fernhill-doctor' --pid " +
            std::to_string(process) + " --root '" + root.path() + "' " + options + " 2>&1";
        FILE* stream = popen(command.c_str(), "r");
        std::string text;
        std::array<char, 4096> part;
        for (std::size_t got; (got = fread(part.data(), 1, part.size(), stream)) > 0;)
            text.append(part.data(), got);
        status = WEXITSTATUS(pclose(stream));
        return text;
    }

    // A daemon with both channels and its link.
    void startWhole() {
        startDaemon();
        agent->awaitFrame(3);
        ASSERT_TRUE(daemon->awaitLog("setUserLogonCommand send success"));
        // Both listeners have asked the extension what they ask at their start.
        ASSERT_TRUE(answers(lab::Direction::in));
        ASSERT_TRUE(answers(lab::Direction::out));
    }

    // A page's request from that port, which the agent is asked about.
    void ask(int port) {
        const std::string packet = testsupport::PacketBuilder::ipv4()
                                       .from("10.0.0.2", port)
                                       .payload("GET / HTTP/1.1\r\nHost: page.test\r\n\r\n")
                                       .bytes();
        extension->present(lab::Direction::out, std::vector<char>(packet.begin(), packet.end()),
                           testsupport::patienceMilliseconds);
    }

    static std::string inFull(const Diagnosis& diagnosis) { return diagnosis.checks.dump(1); }
};

// Each file below a folder with its size, times and rights.
std::map<std::string, std::string> stateOf(const std::string& folder) {
    std::map<std::string, std::string> state;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        state[entry.path()] = std::to_string(entry.file_size()) + " " +
                              std::to_string(entry.last_write_time().time_since_epoch().count()) + " " +
                              std::to_string(static_cast<unsigned>(entry.status().permissions()));
    }
    return state;
}

} // namespace

TEST_F(DaemonDoctor, ADaemonThatIsWellIsWellInEveryCheck) {
    startWhole();
    const Diagnosis diagnosis = diagnose();
    EXPECT_EQ(diagnosis.status, 0) << inFull(diagnosis);
    for (const char* check :
         {"running", "channel", "agent", "link", "threads", "descriptors", "log", "rights", "configuration"})
        EXPECT_TRUE(diagnosis.tells("well", check)) << check << inFull(diagnosis);
}

TEST_F(DaemonDoctor, TheTableHasARowForEachFindingAndItsRemedyBelow) {
    startWhole();
    agent->stopListening();
    int status = -1;
    const std::string table = run("", status);
    EXPECT_EQ(status, 2);
    EXPECT_NE(table.find("ok      running         process "), std::string::npos) << table;
    EXPECT_NE(table.find("BROKEN  agent           nobody listens on 127.0.0.1 port 3456"), std::string::npos)
        << table;
    EXPECT_NE(table.find("\n                        -> start the agent"), std::string::npos) << table;
}

TEST_F(DaemonDoctor, ItChangesNoFile) {
    startWhole();
    daemon->signal(SIGSTOP); // whose own log would go on
    siginfo_t allThreadsStand{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon->process()), &allThreadsStand, WSTOPPED | WNOWAIT), 0);
    const auto before = stateOf(root.path());
    EXPECT_EQ(diagnose().status, 0);
    EXPECT_EQ(stateOf(root.path()), before);
}

TEST_F(DaemonDoctor, AnEndedDaemonIsBroken) {
    startWhole();
    const pid_t process = daemon->process();
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->awaitEnd(), 0);
    int status = -1;
    const std::string table = run("", status, process);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(table.find("BROKEN  running         no process fernhill"), 0u) << table;
}

TEST_F(DaemonDoctor, AnAbsentAgentIsBrokenAndSoIsTheLink) {
    prepare(8, false).start();
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    const Diagnosis diagnosis = diagnose();
    EXPECT_EQ(diagnosis.status, 2);
    EXPECT_TRUE(diagnosis.tells("broken", "agent", "nobody listens")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "link")) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, AnAgentThatIsNotRootsWantsAttention) {
    prepare(8, false).start("");
    ASSERT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds));
    const StrangersAgent stranger;
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("attention", "agent", "nobody ")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "agent", "is not root's")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "link", "no link to the agent, though it listens"))
        << inFull(diagnosis);
}

TEST_F(DaemonDoctor, ThirtyQuestionsWithoutAnAnswerAreBroken) {
    if (!testsupport::macProgram().empty()) GTEST_SKIP() << "machost has threads of its own";
    startWhole();
    for (int i = 0; i < 30; ++i) {
        ask(40000 + i);
        agent->awaitFrame(1);
    }
    // A thread of short life may still be at its end, and the thread checker has two of its own.
    const std::string count = testsupport::threadsChecked ? "32" : "30";
    Diagnosis diagnosis;
    EXPECT_TRUE(testsupport::comesTrue([&] {
        diagnosis = diagnose();
        return diagnosis.tells("broken", "threads", count + " beyond the 8 that are always there");
    })) << inFull(diagnosis);
    EXPECT_EQ(diagnosis.status, 2);
}

TEST_F(DaemonDoctor, AnExtensionThatHasGoneIsBrokenInTheChannelsAndTheLog) {
    startWhole();
    extension.reset();
    ASSERT_TRUE(daemon->awaitLog("bytes received -- IGNORED"));
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("broken", "extension", "not loaded")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "channel", "inbound")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "channel", "outbound")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "log", "the extension went away under the daemon"))
        << inFull(diagnosis);
}

TEST_F(DaemonDoctor, AnExtensionThatDidNotLoadIsBroken) {
    tools.programs().add("kextload", "echo failed");
    prepare().start();
    ASSERT_TRUE(daemon->awaitLog("[ERROR]: error loading FernhillKext"));
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("broken", "log", "the extension did not load. 1 times")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "channel", "inbound")) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, FilteringThatSleepsIsBroken) {
    givenConfiguration("<Fernhill><FilteringDisabled>true</FilteringDisabled></Fernhill>");
    startWhole();
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("broken", "configuration", "FilteringDisabled is stored"))
        << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("broken", "log", "has put filtering to sleep")) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, WhatTheNextSaveWouldDropWantsAttention) {
    startWhole();
    givenConfiguration("<Fernhill><!-- mine "
                       "--><Proxy>a</Proxy><Users><alice>x</alice></Users><Colour>b</Colour></Fernhill>");
    const Diagnosis diagnosis = diagnose();
    EXPECT_EQ(diagnosis.status, 1) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "configuration", "does not know: Proxy Colour"))
        << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "configuration", "drops the comments")) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, FoldersThatOthersCanWriteToWantAttention) {
    startWhole();
    const std::string logs = root.path() + "/Library/Logs/TarnwickSystems";
    ASSERT_EQ(chmod(logs.c_str(), 0777), 0);
    fs::create_directories(root.path() + "/tmp");
    fs::create_directory_symlink("/nonexistent", root.path() + "/tmp/tw");
    fs::create_hard_link(logs + "/fernhill0-1.log", root.path() + "/second");
    const Diagnosis diagnosis = diagnose();
    EXPECT_EQ(diagnosis.status, 1) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "rights", "others may write to " + logs + ":"))
        << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "rights", "/tmp/tw is no folder")) << inFull(diagnosis);
    EXPECT_TRUE(diagnosis.tells("attention", "rights", "no regular file with one name")) << inFull(diagnosis);
}

// What lies in such a folder may be somebody's, so that a change of rights alone would hand it to root.
TEST_F(DaemonDoctor, AFolderOfPackagesThatOthersCanWriteToIsToBeRemoved) {
    startWhole();
    const std::string packages = root.path() + "/tmp/tw";
    fs::create_directories(packages);
    ASSERT_EQ(chmod(packages.c_str(), 0777), 0);
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("attention", "rights", "others may write to " + packages))
        << inFull(diagnosis);
    EXPECT_NE(diagnosis.output.find("rm -rf '" + packages + "'"), std::string::npos) << inFull(diagnosis);
    EXPECT_EQ(diagnosis.output.find("chmod go-w '" + packages), std::string::npos) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, AProgramOfRootsThatOthersCanWriteToIsToBeInstalledAnew) {
    startWhole();
    const std::string helper = root.path() + "/usr/local/bin/fernhillupdate";
    fs::create_directories(root.path() + "/usr/local/bin");
    testsupport::writeAll(helper, "");
    ASSERT_EQ(chmod(helper.c_str(), 0777), 0);
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("attention", "rights", "others may write to " + helper)) << inFull(diagnosis);
    EXPECT_NE(diagnosis.output.find("install it anew"), std::string::npos) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, ALineOfTheLogCannotSpeakForTheDoctor) {
    startWhole();
    const std::string log = root.path() + "/Library/Logs/TarnwickSystems/fernhill0-1.log";
    // With the time of the start, since older lines are those of another daemon.
    const std::string text = testsupport::readAll(log);
    const std::size_t start = text.rfind('[', text.find("Ostler Interceptor Started"));
    const std::string stamp = text.substr(start, text.find("]: ", start) - start);
    std::ofstream(log, std::ios::app) << stamp + "]: WARNING: Socket open error in OstComm.\"},\t\x1b[2J\\\n";
    const Diagnosis diagnosis = diagnose();
    EXPECT_TRUE(diagnosis.tells("broken", "log", "OstComm.\"}, [2J\\")) << inFull(diagnosis);
}

TEST_F(DaemonDoctor, WordsThatItDoesNotKnowEndWithStatusThree) {
    startWhole();
    int status = -1;
    EXPECT_EQ(run("--jason", status), "fernhill-doctor: what is --jason? --help tells what there is\n");
    EXPECT_EQ(status, 3);
}
