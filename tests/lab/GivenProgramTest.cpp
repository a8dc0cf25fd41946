// Replays with a build of the daemon that the lab is given in place of its own.

#include "lab/DaemonRun.h"
#include "lab/LabGivenProgram.h"
#include "lab/Namespaces.h"
#include "lab/RootFolder.h"
#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;

using labtest::GivenProgram;
using labtest::LabRun;
using testsupport::readAll;
using testsupport::writeAll;

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

TEST_F(GivenProgram, HasFewOfRootsRightsAndNoneOfTheLabsThings) {
    const LabRun run = replay({"--program", onlooker_});

    for (const char* line :
         {"CapPrm:\t00000000000004fb\n", "CapEff:\t00000000000004fb\n", "CapBnd:\t00000000000004fb\n",
          "NoNewPrivs:\t1\n", "descriptors 0 1 2\n", "mount: Operation not permitted\n",
          "chroot: Operation not permitted\n", "users of its own: Operation not permitted\n",
          "/dev/null: seen\n", "/dev/kmsg: unseen\n", "/dev/mem: unseen\n", "/usr: nosuid nodev\n",
          "/tmp: nosuid nodev\n", "/Library: nosuid nodev\n", "/var/run/fernhill: nosuid nodev\n",
          "/proc: nosuid nodev\n", "/tmp holds 64 MB\n", "/run holds 64 MB\n", "/dev/shm holds 64 MB\n"})
        EXPECT_NE(run.err.find(line), std::string::npos) << line << "is missing in:\n" << run.err;
}

TEST_F(GivenProgram, SeesItsOwnProcessesAlone) {
    if (std::system("unshare --user --map-root-user --pid --fork --mount-proc true 2> /dev/null") != 0)
        GTEST_SKIP() << "this system grants nobody a view of his own processes";
    const LabRun run = replay({"--program", onlooker_});

    EXPECT_NE(run.err.find("processes 2\n"), std::string::npos) << run.err;
}

TEST_F(GivenProgram, InheritsNoneOfTheLabsRights) {
    if (getuid() != 0) GTEST_SKIP() << "only root has rights that a program could inherit";
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &header, rights), 0);
    for (__user_cap_data_struct& half : rights)
        half.inheritable = half.permitted;
    ASSERT_EQ(syscall(SYS_capset, &header, rights), 0);
    const LabRun run = replay({"--program", onlooker_});

    for (const char* line : {"CapInh:\t0000000000000000\n", "CapPrm:\t00000000000004fb\n"})
        EXPECT_NE(run.err.find(line), std::string::npos) << line << "is missing in:\n" << run.err;
}

TEST_F(GivenProgram, CannotWriteToItsFileWhereItsFolderIsNotShown) {
    const std::string volume = "/usr/local/bin", program = volume + "/unruly";
    ASSERT_TRUE(lab::unshareAsRoot(CLONE_NEWNS));
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("volume", volume.c_str(), "tmpfs", 0, nullptr), 0);
    fs::copy(unruly_, program);
    setenv("OSTLER_UNRULY", "writes to itself", 1);
    const LabRun run = replay({"--program", program});

    EXPECT_NE(run.err.find("Read-only file system\n"), std::string::npos) << run.err;
    EXPECT_TRUE(readAll(program) == readAll(unruly_)) << "it has been written to";
    umount2(volume.c_str(), MNT_DETACH);
}

TEST_F(GivenProgram, FindsItsLibraryBelowTmp) {
    fs::copy(borrowed_, folder_.file("liblab_borrowed.so"));
    setenv("LD_LIBRARY_PATH", folder_.path().c_str(), 1);
    const LabRun run = replay({"--program", borrower_});

    EXPECT_NE(run.err.find("the word is borrowed\n"), std::string::npos) << run.err;
}

TEST_F(GivenProgram, LiesWhereItsPathHasBlanksOrIsALinkOrIsRelative) {
    fs::copy(onlooker_, folder_.file("a build of mine"));
    fs::create_symlink("a build of mine", folder_.file("link"));
    fs::current_path(folder_.path());

    for (const std::string& path :
         {folder_.file("a build of mine"), std::string("link"), std::string("./link")})
        EXPECT_NE(replay({"--program", path}).err.find("word -logecho\n"), std::string::npos) << path;
}

TEST_F(GivenProgram, HasItsRootInATemporaryFolderByAnyPath) {
    const std::string name = fs::path(folder_.path()).filename();
    fs::create_directories(folder_.file(name));
    fs::create_directory(folder_.file("below"));
    fs::create_directory_symlink(folder_.file(name), folder_.file("link"));
    fs::current_path(folder_.file("below"));
    for (const std::string& place : {"../" + name, folder_.file("link"), std::string("/proc/self/cwd")}) {
        setenv("TMPDIR", place.c_str(), 1);
        const LabRun run = replay({"--program", fernhill_});
        EXPECT_EQ(run.status, 0) << place << ": " << run.err;
    }
    EXPECT_FALSE(fs::exists("/" + name)) << "made where the view should have been";
    EXPECT_TRUE(fs::is_empty(folder_.file(name)));
}

TEST_F(GivenProgram, IsNotRunWithAPipeForTheNamesOfHosts) {
    const std::string root = folder_.file("root");
    fs::create_directories(root + "/etc");
    ASSERT_EQ(mkfifo((root + "/etc/hosts").c_str(), 0600), 0);
    const LabRun run = replay({"--root", root, "--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + root +
                           "/etc/hosts: it is no regular file; remove it, or give another folder\n");
}

TEST_F(GivenProgram, IsNotRunInARootWithALinkInIt) {
    const std::string root = folder_.file("root"), elsewhere = folder_.file("elsewhere");
    fs::create_directories(root + "/Library");
    fs::create_directory(elsewhere);
    fs::create_directory_symlink(elsewhere, root + "/Library/Logs");
    const LabRun run = replay({"--root", root, "--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + root +
                           "/Library/Logs: a link lies there or on the way, and none is followed; remove it, "
                           "or give another folder\n");
    EXPECT_TRUE(fs::is_empty(elsewhere));
}

// False where no limit can be set.
bool allowNoMoreNamespaces() {
    const std::string user = "0 " + std::to_string(getuid()) + " 1",
                      group = "0 " + std::to_string(getgid()) + " 1";
    if (unshare(CLONE_NEWUSER) != 0) return false;
    writeAll("/proc/self/setgroups", "deny");
    writeAll("/proc/self/uid_map", user);
    writeAll("/proc/self/gid_map", group);
    writeAll("/proc/sys/user/max_ipc_namespaces", "0");
    return readAll("/proc/sys/user/max_ipc_namespaces") == "0\n";
}

constexpr char noNamespaces[] =
    "a program of this system needs namespaces of mounts, processes and IPC: all that "
    "user.max_*_namespaces allows are in use; raise it with sysctl";

TEST_F(GivenProgram, IsNotRunWithoutTheNamespacesThatAreAllInUse) {
    if (!allowNoMoreNamespaces()) GTEST_SKIP() << "this user can set no limit of namespaces";
    const LabRun run = replay({"--program", onlooker_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + onlooker_ + ": it cannot be run: " + noNamespaces + "\n");
}

TEST_F(GivenProgram, IsRefusedForItsOwnReasonWhateverTheLabHasNotOpened) {
    if (!allowNoMoreNamespaces()) GTEST_SKIP() << "this user can set no limit of namespaces";
    const lab::RootFolder root("");
    lab::DaemonRun run(root, nullptr, onlooker_);
    run.start({-1});
    ASSERT_TRUE(testsupport::eventually([&] { return !run.running(); }));

    EXPECT_EQ(run.refusal(), noNamespaces);
}

TEST_F(GivenProgram, ThatIsSetuidRunsAsItsUserAtThePlayedTime) {
    if (getuid() != 0) GTEST_SKIP() << "only root can make a setuid program of another user";
    const std::string program = folder_.file("setuid");
    fs::copy(onlooker_, program);
    ASSERT_EQ(chown(program.c_str(), 65534, 65534), 0);
    ASSERT_EQ(chmod(program.c_str(), 06755), 0);
    const LabRun run = replay({"--program", program});

    EXPECT_NE(run.err.find("time 1700000000\n"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Uid:\t0\t0\t0\t0\n"), std::string::npos) << run.err;
}

TEST_F(GivenProgram, LeavesNothingOnThisMachine) {
    const std::string root = folder_.file("root");
    replay({"--root", root, "--program", onlooker_});

    EXPECT_TRUE(fs::exists(root + "/Library/Logs/of-the-onlooker"));
    for (const char* folder : {"", "/etc", "/tmp"})
        EXPECT_FALSE(fs::exists(std::string(folder) + "/of-the-onlooker")) << folder;
    EXPECT_FALSE(fs::exists("/of-the-onlooker-only"));
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(root))
        names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"Library", "bin", "daemon-output.txt", "usr", "var"}));
}

} // namespace
