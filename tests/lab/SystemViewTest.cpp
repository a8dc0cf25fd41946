// Where a given program's view can be made, and what of the machine and of a kept root it is made from.

#include "lab/SystemView.h"

#include "lab/LabGivenProgram.h"
#include "lab/Namespaces.h"
#include "lab/RootFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

using labtest::GivenProgram;
using labtest::LabRun;
using testsupport::readAll;
using testsupport::writeAll;

class ViewOfAProgram : public GivenProgram {
protected:
    void SetUp() override {
        GivenProgram::SetUp();
        if (IsSkipped()) return;
        ASSERT_TRUE(lab::unshareAsRoot(CLONE_NEWNS));
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    }

    void mountVolume() { ASSERT_EQ(mount("volume", volume_.c_str(), "tmpfs", 0, nullptr), 0); }

    const std::string volume_ = "/usr/local/bin";
};

// For this process and all that it starts.
void refuse(unsigned call, unsigned error) {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {4, steps};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(ViewOfAProgram, LeavesTheMachineUnwrittenWhereItsRootStays) {
    mountVolume();
    const std::string program = volume_ + "/unruly";
    fs::copy(unruly_, program);
    refuse(SYS_pivot_root, EINVAL); // as where the machine's root is the kernel's first file system
    setenv("OSTLER_UNRULY", "writes to itself", 1);
    const LabRun run = replay({"--program", program});

    EXPECT_NE(run.err.find("Read-only file system\n"), std::string::npos) << run.err;
    EXPECT_TRUE(readAll(program) == readAll(unruly_)) << "it has been written to";
    const LabRun other = replay({"--program", onlooker_});
    for (const char* line : {"/Library/Logs/of-the-onlooker: written\n", "/dev/null: seen\n",
                             "/usr/of-the-onlooker: Read-only file system\n"})
        EXPECT_NE(other.err.find(line), std::string::npos) << line << "is missing in:\n" << other.err;
}

TEST_F(ViewOfAProgram, CannotBeMadeInAChrootWhoseFolderIsNoMount) {
    const lab::RootFolder root("");
    const std::string words = folder_.file("words");
    const pid_t child = fork();
    if (child == 0) {
        std::ofstream told(words);
        if (chroot(folder_.path().c_str()) != 0) _exit(1);
        try {
            lab::enterView(root, onlooker_, {});
        } catch (const std::exception& error) {
            told << error.what() << std::flush;
        }
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(readAll(words),
              "the lab runs in a chroot whose folder is no mount, so that it can give no program a "
              "view of its own; mount that folder at its own place (mount --bind)");
}

TEST_F(ViewOfAProgram, HasNoNamesFromAFileWithoutEnd) {
    const std::string root = folder_.file("root");
    fs::create_directories(root + "/etc");
    writeAll(root + "/etc/hosts", "");
    // More than the lab has memory for, and no more than scripts/mutants lets a file have.
    fs::resize_file(root + "/etc/hosts", std::uintmax_t{2} << 30);
    rlimit memory{};
    ASSERT_EQ(getrlimit(RLIMIT_DATA, &memory), 0);
    memory.rlim_cur = 1 << 30;
    ASSERT_EQ(setrlimit(RLIMIT_DATA, &memory), 0);
    const LabRun run = replay({"--root", root, "--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + onlooker_ + ": it cannot be run: " + root +
                           "/etc/hosts: it is longer than a megabyte; give another folder\n");
}

TEST_F(ViewOfAProgram, HasForReadingOnlyWhatTheMachineHasSoInAKeptRoot) {
    const std::string root = folder_.file("root"), logs = root + "/Library/Logs";
    fs::create_directories(logs);
    ASSERT_EQ(mount(logs.c_str(), logs.c_str(), nullptr, MS_BIND, nullptr), 0);
    mount_attr forReading{MOUNT_ATTR_RDONLY, 0, 0, 0};
    ASSERT_EQ(mount_setattr(AT_FDCWD, logs.c_str(), 0, &forReading, sizeof forReading), 0);
    const LabRun run = replay({"--root", root, "--program", onlooker_});

    EXPECT_NE(run.err.find("/Library/Logs/of-the-onlooker: Read-only file system\n"), std::string::npos)
        << run.err;
    EXPECT_TRUE(fs::is_empty(logs));
    umount2(logs.c_str(), MNT_DETACH);
}

TEST_F(ViewOfAProgram, CannotBeMadeByAKernelThatCannotMakeMountsReadOnly) {
    refuse(SYS_mount_setattr, ENOSYS);
    const LabRun run = replay({"--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + onlooker_ +
                           ": it cannot be run: this kernel cannot show a program the machine for reading "
                           "only (it has no mount_setattr); take Linux 5.12 or a later one\n");
}

TEST_F(ViewOfAProgram, CannotBeMadeOfAMachineWithoutAFolderForItsPrograms) {
    ASSERT_EQ(mount("empty", "/usr/local", "tmpfs", MS_RDONLY, nullptr), 0);
    const LabRun run = replay({"--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err,
              "fernhill-lab: " + onlooker_ +
                  ": it cannot be run: this machine has no folder /usr/local/bin, in whose place the "
                  "program is to see the lab's; make it (mkdir -p)\n");
    umount2("/usr/local", MNT_DETACH);
}

TEST_F(ViewOfAProgram, IsNotMadeOfARootThatItWouldCoverWithItself) {
    mountVolume();
    ASSERT_EQ(mount("run", "/run", "tmpfs", 0, nullptr), 0);
    for (const std::string& root : {volume_ + "/kept", std::string("/run/fernhill/kept")}) {
        const LabRun run = replay({"--root", root, "--program", onlooker_});

        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err,
                  "fernhill-lab: " + onlooker_ + ": it cannot be run: " + root +
                      ": a program in the lab has a folder of the lab's there; give another folder\n");
        EXPECT_TRUE(fs::is_empty(root + "/usr/local/bin"));
        EXPECT_FALSE(fs::exists(root + "/var/run/fernhill/kept"));
    }
    umount2("/run", MNT_DETACH);
}

} // namespace
