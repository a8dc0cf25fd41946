// Replays with a build of the daemon that the lab is given in place of its own.

#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "lab/Namespaces.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using labtest::addExchange;
using labtest::CaptureWriter;
using labtest::LabRun;
using labtest::runLab;
using labtest::Talk;
using testsupport::readAll;
using testsupport::writeAll;

class GivenProgram : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers' library must be the first of a program";
        if (!mayHaveMounts()) GTEST_SKIP() << "this user may have no mount namespace";
        CaptureWriter writer(capture_);
        addExchange(writer, 0, Talk(50000), labtest::get("allowed.example"));
        addExchange(writer, 40, Talk(50001), labtest::get("blocked.example"));
        addExchange(writer, 200, Talk(50001, true), labtest::get("blocked.example"));
        writeAll(policy_, "block http://blocked.example* http://localhost:6543/why\nallow *\n");
    }

    static bool mayHaveMounts() {
        const pid_t child = fork();
        if (child == 0) _exit(lab::unshareAsRoot(CLONE_NEWNS) ? 0 : 1);
        int status = 0;
        return waitpid(child, &status, 0) == child && status == 0;
    }

    LabRun replay(const std::vector<std::string>& options) {
        std::vector<std::string> arguments = {"replay", capture_, "--policy", policy_};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runLab(arguments);
    }

    testsupport::TemporaryFolder folder_;
    const std::string capture_ = folder_.file("made.pcap");
    const std::string policy_ = folder_.file("rules.policy");
    const std::string fernhill_ = OSTLER_BINARY_DIR "/src/fernhill";
    const std::string onlooker_ = OSTLER_BINARY_DIR "/tests/lab_onlooker";
};

TEST_F(GivenProgram, OfThisSystemDecidesAsTheLabsOwn) {
    const LabRun own = replay({"--json", folder_.file("own")});
    const LabRun given = replay({"--json", folder_.file("given"), "--program", fernhill_});

    EXPECT_EQ(own.status, 0) << own.err;
    EXPECT_EQ(given.status, 0) << given.err;
    EXPECT_EQ(given.out.find("did not get through in time"), std::string::npos) << given.out;
    EXPECT_NE(readAll(folder_.file("given")).find("redirect"), std::string::npos);
    EXPECT_EQ(readAll(folder_.file("given")), readAll(folder_.file("own")));
}

TEST_F(GivenProgram, WritesItsLogBelowTheRootAtThePlayedTime) {
    const std::string root = folder_.file("root");
    const LabRun given = replay({"--root", root, "--program", fernhill_});

    EXPECT_EQ(given.status, 0) << given.err;
    const std::string log = readAll(root + "/Library/Logs/TarnwickSystems/fernhill0-1.log");
    EXPECT_NE(log.find("Nov 14 "), std::string::npos) << log.substr(0, 400);
    EXPECT_NE(log.find(" 2023]"), std::string::npos);
}

TEST_F(GivenProgram, SeesThisMachineForReadingOnly) {
    const LabRun run = replay({"--program", onlooker_});

    EXPECT_EQ(run.status, 1);
    for (const char* line :
         {"word fernhill\nword -logecho\n", "time 1700000000\n",
          "/usr/of-the-onlooker: Read-only file system\n", "/var/of-the-onlooker: Read-only file system\n",
          "/of-the-onlooker-only: written\n", "/etc/of-the-onlooker: written\n",
          "/tmp/of-the-onlooker: written\n", "/Library/Logs/of-the-onlooker: written\n", "localhost: known\n",
          "host-without-an-address.example: unknown\n", "preload unseen\n"})
        EXPECT_NE(run.err.find(line), std::string::npos) << line << "is missing in:\n" << run.err;
}

TEST_F(GivenProgram, LeavesNothingOnThisMachine) {
    const std::string root = folder_.file("root");
    replay({"--root", root, "--program", onlooker_});

    EXPECT_TRUE(fs::exists(root + "/Library/Logs/of-the-onlooker"));
    for (const char* folder : {"", "/etc", "/tmp"})
        EXPECT_FALSE(fs::exists(std::string(folder) + "/of-the-onlooker")) << folder;
    EXPECT_FALSE(fs::exists("/of-the-onlooker-only"));
    EXPECT_FALSE(fs::exists(root + "/view"));
}

TEST_F(GivenProgram, ThatIsNoProgramIsRefusedByName) {
    const LabRun run = replay({"--program", policy_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + policy_ +
                           ": it is neither a Mach-O file for x86-64 nor a program of this system\n");
}

TEST_F(GivenProgram, ThatIsAPipeIsRefusedAtOnce) {
    const std::string pipe = folder_.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const LabRun run = replay({"--program", pipe});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + pipe + ": it is no regular file\n");
}

TEST_F(GivenProgram, LinkedWithoutLibrariesIsRefused) {
    writeAll(folder_.file("static"), readAll(fernhill_).replace(0x20, 8, std::string(8, '\0')));

    EXPECT_EQ(replay({"--program", folder_.file("static")}).status, 2);
}

} // namespace
