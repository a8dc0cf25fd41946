// How a run ends with a build that the lab is given: with the program, with the lab, and with nothing left of either.

#include "lab/DaemonRun.h"
#include "lab/EndingSignals.h"
#include "lab/LabGivenProgram.h"
#include "lab/OutputLines.h"
#include "lab/RootFolder.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using labtest::GivenProgram;
using labtest::LabRun;
using labtest::processesOf;
using testsupport::eventually;

class EndOfAProgram : public GivenProgram {
protected:
    void SetUp() override {
        GivenProgram::SetUp();
        if (IsSkipped()) return;
        fs::copy(unruly_, program_);
        fs::create_directory(temporary_);
        setenv("TMPDIR", temporary_.c_str(), 1);
    }

    // Replays with a program that stays whatever it is sent, and sends the lab this signal.
    LabRun killedBy(int signal) {
        setenv("OSTLER_UNRULY", "lingers", 1);
        return replay({"--program", program_}, [&](pid_t lab) {
            EXPECT_TRUE(eventually([&] { return lingers(); }));
            EXPECT_TRUE(eventually([&] { return processesOf(program_) == 2; }));
            kill(lab, signal);
        });
    }

    bool lingers() const { return holds("Library/Logs/lingers"); }

    // Whether the lab's folder has such a file.
    bool holds(const std::string& name) const {
        for (const fs::directory_entry& folder : fs::directory_iterator(temporary_))
            if (fs::exists(folder.path() / name)) return true;
        return false;
    }

    const std::string program_ = fs::canonical(folder_.path()).string() + "/unruly";
    const std::string temporary_ = folder_.file("t");
};

// A child of the daemon that outlives it with its output open.
struct Outliving {
    std::atomic<pid_t> process;
    std::atomic<bool> over;
};

TEST(OutputOfADaemon, IsNotWaitedForBehindItsEnd) {
    const lab::RootFolder root("");
    void* const shared =
        mmap(nullptr, sizeof(Outliving), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Outliving* const child = new (shared) Outliving{};
    lab::DaemonRun run(root, nullptr, {}, [&] {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, 0);
            child->process = getpid();
            sleep(20);
            child->over = true;
            _exit(0);
        }
        while (child->process == 0)
            sched_yield();
        const std::string last = "the last\n";
        _exit(write(STDOUT_FILENO, last.data(), last.size()) > 0 ? 7 : 8);
    });
    run.start({});
    ASSERT_TRUE(eventually([&] { return !run.running(); }));
    run.stop();

    EXPECT_EQ(run.ending(), "status 7");
    EXPECT_EQ(root.outputTail(), "the last\n");
    EXPECT_FALSE(child->over) << "the child has been waited for";
    kill(child->process, SIGKILL);
    munmap(shared, sizeof(Outliving));
}

TEST(OutputOfADaemon, ThatHasNoLinesIsTakenByItsFirstMegabyte) {
    std::vector<std::size_t> lengths;
    lab::OutputLines lines([&](const std::string& line) { lengths.push_back(line.size()); });
    const std::string piece(65536, 'x');
    for (int i = 0; i < 1600; ++i)
        lines.add(piece.data(), piece.size());
    lines.add("\nshort\n", 7);

    EXPECT_EQ(lengths, (std::vector<std::size_t>{1 << 20, 5}));
}

TEST_F(EndOfAProgram, EndsTheChildThatItLeaves) {
    setenv("OSTLER_UNRULY", "leaves a child", 1);
    const LabRun run = replay({"--program", program_});

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("unruly: leaves a child\n"), std::string::npos) << run.err;
    EXPECT_EQ(processesOf(program_), 0);
}

TEST_F(EndOfAProgram, EndsTheDaemonThatItLeaves) {
    setenv("OSTLER_UNRULY", "leaves a daemon", 1);
    const LabRun run = replay({"--program", program_});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(processesOf(program_), 0);
}

TEST_F(EndOfAProgram, ByAProgramThatIsDeletedMeanwhileIsNone) {
    setenv("OSTLER_UNRULY", "lingers", 1);
    const LabRun run = replay({"--program", program_}, [&](pid_t lab) {
        EXPECT_TRUE(eventually([&] { return lingers(); }));
        fs::remove(program_);
        EXPECT_EQ(kill(labtest::awaitDaemonOf(lab), SIGKILL), 0);
    });

    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("unruly: lingers\n"), std::string::npos) << run.err;
    EXPECT_EQ(processesOf(program_ + " (deleted)"), 0);
}

TEST_F(EndOfAProgram, ComesWithTheSignalThatEndsTheLabAndLeavesNoFolder) {
    signal(SIGHUP, SIG_DFL); // which nohup has ignored
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const LabRun run = killedBy(signal);

        EXPECT_EQ(run.signal, signal);
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(fs::is_empty(temporary_)) << signal;
        EXPECT_TRUE(eventually([&] { return processesOf(program_) == 0; })) << signal;
    }
}

TEST_F(EndOfAProgram, ComesBeforeItsFolderIsRemovedInWhichItsChildrenWrite) {
    setenv("OSTLER_UNRULY", "leaves writers", 1);
    const LabRun run = replay({"--program", program_}, [&](pid_t lab) {
        EXPECT_TRUE(eventually([&] { return holds("Library/Logs/of-1-300"); }));
        kill(lab, SIGTERM);
    });

    EXPECT_EQ(run.signal, SIGTERM);
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(fs::is_empty(temporary_));
    EXPECT_TRUE(eventually([&] { return processesOf(program_) == 0; }));
}

TEST_F(EndOfAProgram, ComesWithALabThatIsKilledWhoseFolderTheNextOneRemoves) {
    EXPECT_EQ(killedBy(SIGKILL).signal, SIGKILL);

    EXPECT_TRUE(eventually([&] { return processesOf(program_) == 0; }));
    EXPECT_FALSE(fs::is_empty(temporary_));
    EXPECT_EQ(replay({}).status, 0);
    EXPECT_TRUE(fs::is_empty(temporary_));
}

TEST(SignalsThatEndTheLab, AreWaitingWhileItIsMadeAndEndItAfterwards) {
    const pid_t child = fork();
    if (child == 0) {
        auto signals = std::make_unique<lab::EndingSignals>();
        kill(getpid(), SIGTERM);
        signals.reset();
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST(SignalsThatEndTheLab, StayIgnoredWhereTheyAre) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGHUP, SIG_IGN);
        const lab::EndingSignals signals;
        const lab::EndingWatch watch([] {});
        kill(getpid(), SIGHUP);
        _exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
}

} // namespace
