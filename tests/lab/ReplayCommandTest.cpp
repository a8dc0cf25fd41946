// fernhill-lab's arguments, its exit statuses, and what it says when something cannot be used.

#include "lab/LabCaptures.h"
#include "lab/LabRun.h"
#include "support/Eventually.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using labtest::addExchange;
using labtest::CaptureWriter;
using labtest::LabRun;
using labtest::linesOf;
using labtest::runLab;
using labtest::Talk;
using testsupport::readAll;
using testsupport::writeAll;

class ReplayCommandTest : public testing::Test {
protected:
    ReplayCommandTest() {
        CaptureWriter writer(capture_);
        addExchange(writer, 0, Talk(50000), labtest::get("www.example.org"));
        writeAll(policy_, "allow *\n");
    }

    LabRun replay(const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments = {"replay", capture_, "--policy", policy_};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runLab(arguments);
    }

    // One that takes the lab far longer than it takes a test to kill the daemon.
    void givenALongCapture() const {
        CaptureWriter writer(capture_);
        for (int i = 0; i < longCapture; ++i)
            addExchange(writer, i, Talk(10000 + i % 50000), "no request at all");
    }

    static constexpr int longCapture = 3000; // exchanges

    // Nothing but one line on standard error that begins so, and status 2.
    static void expectRefused(const LabRun& run, const std::string& beginning) {
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err.rfind("fernhill-lab: " + beginning, 0), 0u) << run.err;
        EXPECT_EQ(linesOf(run.err).size(), 1u) << run.err;
    }

    testsupport::TemporaryFolder folder_;
    const std::string capture_ = folder_.file("test.pcap");
    const std::string policy_ = folder_.file("test.policy");
};

TEST_F(ReplayCommandTest, EndsWithStatus0WhenEveryRecordWasAnswered) {
    const LabRun run = replay();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("and left 0 without an answer"), std::string::npos) << run.out;
}

TEST_F(ReplayCommandTest, JsonToStandardOutputComesWithoutTheTable) {
    const LabRun run = replay({"--json", "-"});
    EXPECT_EQ(run.status, 0);
    const auto lines = linesOf(run.out);
    EXPECT_EQ(lines.size(), 6u);
    for (const std::string& line : lines)
        EXPECT_TRUE(nlohmann::json::accept(line)) << line;
}

TEST_F(ReplayCommandTest, AskedUrlsAreWrittenOneALine) {
    EXPECT_EQ(replay({"--asked", folder_.file("asked")}).status, 0);
    EXPECT_EQ(readAll(folder_.file("asked")), "http://www.example.org/\n");
}

TEST_F(ReplayCommandTest, AGivenRootIsKeptWithConfigurationLogAndOutput) {
    const LabRun run = replay({"--root", folder_.file("root"), "--bof", "on"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("are in " + folder_.file("root")), std::string::npos);
    EXPECT_NE(readAll(folder_.file("root/Library/twsys/fernhill.xml")).find("<BlockOnFailure>true"),
              std::string::npos);
    EXPECT_NE(readAll(folder_.file("root/daemon-output.txt")).find("Ostler Interceptor Started"),
              std::string::npos);
    EXPECT_FALSE(fs::is_empty(folder_.file("root/Library/Logs/TarnwickSystems")));
    // The same root serves again.
    EXPECT_EQ(replay({"--root", folder_.file("root")}).status, 0);
}

TEST_F(ReplayCommandTest, WithoutARootNothingIsLeftBehind) {
    const std::string place = folder_.file("t");
    fs::create_directories(place);
    setenv("TMPDIR", place.c_str(), 1);
    EXPECT_EQ(replay().status, 0);
    EXPECT_TRUE(fs::is_empty(place));
}

TEST_F(ReplayCommandTest, ARootOfMoreThan60BytesIsRefused) {
    const std::string root = folder_.file(std::string(60, 'r'));
    expectRefused(replay({"--root", root}), root + ": a scratch folder's path has at most 60 bytes");
}

TEST_F(ReplayCommandTest, UnusableArgumentsEndWithStatus2) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"play"},
                                               {"replay"},
                                               {"replay", capture_},
                                               {"replay", "--policy", policy_},
                                               {"replay", capture_, "--policy", policy_, "--bof", "maybe"},
                                               {"replay", capture_, "--policy", policy_, "--speed", "2"}}) {
        const LabRun run = runLab(arguments);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(arguments);
        EXPECT_NE(run.err, "");
    }
}

TEST_F(ReplayCommandTest, HelpIsNoError) {
    const LabRun run = runLab({"replay", "--help"});
    EXPECT_EQ(run.status, 0);
    for (const char* option : {"--policy", "--json", "--asked", "--bof", "--root"})
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
}

TEST_F(ReplayCommandTest, ACaptureThatIsNotThereIsRefused) {
    fs::remove(capture_);
    expectRefused(replay(), capture_ + ": No such file");
}

TEST_F(ReplayCommandTest, ATruncatedCaptureIsRefusedWithThePacketsNumber) {
    const std::string whole = readAll(capture_);
    writeAll(capture_, whole.substr(0, whole.size() - 1));
    expectRefused(replay(), capture_ + ": packet 6: truncated");
}

TEST_F(ReplayCommandTest, AFileThatIsNoCaptureIsRefused) {
    writeAll(capture_, "hello, this is just a text of some length");
    expectRefused(replay(), capture_ + ": unknown file format");
}

TEST_F(ReplayCommandTest, AnUnknownLinkTypeIsRefused) {
    { CaptureWriter(capture_, 105).add(0, "x"); }
    expectRefused(replay(), capture_ + ": link type 105");
}

TEST_F(ReplayCommandTest, ABrokenPolicyLineIsRefusedWithItsNumber) {
    writeAll(policy_, "allow *\nblock everything\n");
    expectRefused(replay(), policy_ + ":2: a rule 'block' reads: block PATTERN REDIRECT-URL");
}

TEST_F(ReplayCommandTest, APolicyThatCannotBeReadIsRefused) {
    fs::remove(policy_);
    expectRefused(replay(), policy_ + ": the policy file cannot be read");
    fs::create_directory(policy_);
    expectRefused(replay(), policy_ + ": the policy is a folder");
}

TEST_F(ReplayCommandTest, OutputThatCannotBeWrittenIsRefused) {
    expectRefused(replay({"--json", folder_.file("none/json")}),
                  folder_.file("none/json") + ": No such file");
    expectRefused(replay({"--asked", folder_.file("none/asked")}),
                  folder_.file("none/asked") + ": No such file");
    expectRefused(replay({"--json", "/dev/full"}), "/dev/full: it cannot be written");
    expectRefused(replay({"--asked", "/dev/full"}), "/dev/full: it cannot be written");
}

TEST_F(ReplayCommandTest, ADaemonThatDiesEndsTheReplayWithStatus1AndARowForEachPacket) {
    givenALongCapture();
    const std::string json = folder_.file("json");
    const LabRun run = runLab({"replay", capture_, "--policy", policy_, "--json", json}, [&](pid_t lab) {
        // Rows come once the daemon answers.
        ASSERT_TRUE(testsupport::eventually([&] { return fs::exists(json) && fs::file_size(json) > 0; }));
        const pid_t daemon = labtest::awaitDaemonOf(lab);
        ASSERT_NE(daemon, 0);
        kill(daemon, SIGKILL);
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.rfind("fernhill-lab: the daemon has ended (signal 9); it wrote:\n", 0), 0u) << run.err;
    const auto rows = linesOf(readAll(json));
    EXPECT_EQ(rows.size(), longCapture * 6u);
    EXPECT_NE(rows.back().find(R"("result":null,"presented":0)"), std::string::npos) << rows.back();
}

TEST_F(ReplayCommandTest, ADaemonThatDiesAtTheStartEndsTheReplayWithStatus1) {
    givenALongCapture();
    const LabRun run = runLab({"replay", capture_, "--policy", policy_}, [](pid_t lab) {
        const pid_t daemon = labtest::awaitDaemonOf(lab);
        ASSERT_NE(daemon, 0);
        kill(daemon, SIGKILL);
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.rfind("fernhill-lab: the daemon ", 0), 0u) << run.err;
}

} // namespace
