// Temporary folders of labs, and what becomes of those whose lab was killed.

#include "lab/ConfigCheck.h"
#include "lab/Descriptor.h"
#include "lab/Namespaces.h"
#include "lab/Policy.h"
#include "lab/RootFolder.h"
#include "support/Eventually.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace {

namespace fs = std::filesystem;

using testsupport::eventually;
using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::writeAll;

// What happens, once, behind the making of a temporary folder.
std::function<void(const std::string&)> meanwhile;

// Whether this process does, as the system tells.
bool waitsForALock() {
    std::ifstream locks("/proc/locks");
    const std::string process = " " + std::to_string(getpid()) + " ";
    for (std::string line; std::getline(locks, line);)
        if (line.find("-> FLOCK") != std::string::npos && line.find(process) != std::string::npos)
            return true;
    return false;
}

} // namespace

extern "C" char* __real_mkdtemp(char* path);
extern "C" char* __wrap_mkdtemp(char* path) {
    char* const made = __real_mkdtemp(path);
    if (const auto happens = std::exchange(meanwhile, nullptr)) happens(made);
    return made;
}

namespace {

class AbandonedFolder : public testing::Test {
protected:
    void SetUp() override { setenv("TMPDIR", folder_.path().c_str(), 1); }

    // The folder of a lab that ends without ending it.
    std::string abandoned() {
        const pid_t child = fork();
        if (child == 0) {
            new lab::RootFolder("");
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        return fs::directory_iterator(folder_.path())->path();
    }

    const TemporaryFolder folder_;
};

TEST_F(AbandonedFolder, GoesWhenTheNextOneIsMade) {
    const std::string path = abandoned();
    ASSERT_TRUE(fs::exists(path + "/bin/kextload"));
    const lab::RootFolder next("");

    EXPECT_FALSE(fs::exists(path));
}

TEST_F(AbandonedFolder, IsNoneThatIsInUse) {
    const lab::RootFolder one(""), other("");

    EXPECT_TRUE(fs::exists(one.programs()));
    EXPECT_TRUE(fs::exists(other.programs()));
}

TEST_F(AbandonedFolder, IsNoneOfAnotherNameOrOrigin) {
    const std::string other = folder_.file("fernhill-backup");
    writeAll(other + "/mine", "kept");
    fs::create_directory_symlink(other, folder_.file("fernhill-linked"));
    const std::string longer = folder_.file("fernhill-longer-name");
    writeAll(longer + "/.of-fernhill-lab", "");
    for (const std::string& path : {other, longer})
        ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    const lab::RootFolder next("");

    EXPECT_EQ(readAll(other + "/mine"), "kept");
    EXPECT_TRUE(fs::exists(longer));
}

TEST_F(AbandonedFolder, OfAnotherUserStays) {
    if (getuid() != 0) GTEST_SKIP() << "only root can make another user's folder";
    const std::string path = abandoned();
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    const lab::RootFolder next("");

    EXPECT_TRUE(fs::exists(path));
}

TEST_F(AbandonedFolder, IsTheEmptyOneOfALabThatWasKilledAtOnce) {
    const std::string path = folder_.file("fernhill-abcdef");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    const lab::RootFolder next("");

    EXPECT_FALSE(fs::exists(path));
}

TEST_F(AbandonedFolder, IsNoneThatOthersMayLookInto) {
    const std::string path = folder_.file("fernhill-abcdef");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(chmod(path.c_str(), 0750), 0);
    const lab::RootFolder next("");

    EXPECT_TRUE(fs::exists(path));
}

TEST_F(AbandonedFolder, IsNoneThatALabHasMadeAndNotYetLocked) {
    std::string first;
    meanwhile = [&](const std::string& path) {
        first = path;
        const lab::RootFolder other("");
        EXPECT_FALSE(fs::exists(path)) << "it has been taken for an abandoned one";
    };
    const lab::RootFolder root("");

    EXPECT_NE(root.path(), first);
    EXPECT_TRUE(fs::exists(root.programs() + "/kextload"));
}

TEST_F(AbandonedFolder, IsWaitedForWhileAnotherLabLooksAtIt) {
    std::thread other;
    meanwhile = [&](const std::string& path) {
        const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(folder, LOCK_EX), 0);
        other = std::thread([folder] {
            EXPECT_TRUE(eventually(waitsForALock));
            close(folder);
        });
    };
    std::optional<lab::RootFolder> root;
    EXPECT_NO_THROW(root.emplace(""));
    other.join();
}

TEST_F(AbandonedFolder, ThatAnotherProcessAlwaysTakesANewOneForIsNotMadeForEver) {
    const std::function<void(const std::string&)> removed = [&](const std::string& path) {
        fs::remove(path);
        meanwhile = removed;
    };
    meanwhile = removed;
    std::string refusal;
    try {
        const lab::RootFolder root("");
    } catch (const lab::InputError& error) {
        refusal = error.what();
    }
    EXPECT_EQ(refusal, fs::canonical(folder_.path()).string() +
                           ": no scratch folder can be made there (another process removes it); name another "
                           "folder in TMPDIR");
}

TEST_F(AbandonedFolder, IsStillOneWhenItsRemovalHasNotComeToItsEnd) {
    const pid_t child = fork();
    if (child == 0) {
        if (!lab::unshareAsRoot(CLONE_NEWNS) ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            _exit(77);
        {
            const lab::RootFolder root("");
            for (const char* kept : {"/Library/Logs", "/var/run", "/bin", "/usr"})
                if (mount("kept", (root.path() + kept).c_str(), "tmpfs", 0, nullptr) != 0) _exit(77);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) GTEST_SKIP() << "this user may mount nothing";
    const std::string path = fs::directory_iterator(folder_.path())->path();
    ASSERT_TRUE(fs::exists(path + "/Library/Logs"));
    EXPECT_TRUE(fs::exists(path + "/.of-fernhill-lab"));
    const lab::RootFolder next("");

    EXPECT_FALSE(fs::exists(path));
}

TEST_F(AbandonedFolder, GoesThoughItHasMoreFoldersInEachOtherThanMayBeOpen) {
    const std::string path = abandoned();
    lab::Descriptor folder(open((path + "/Library/Logs").c_str(), O_PATH | O_CLOEXEC));
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(mkdirat(folder, "deeper", 0700), 0);
        folder = lab::Descriptor(openat(folder, "deeper", O_PATH | O_CLOEXEC));
    }
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit fewer = {64, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &fewer);
    { const lab::RootFolder next(""); }
    setrlimit(RLIMIT_NOFILE, &before);

    EXPECT_FALSE(fs::exists(path));
}

TEST_F(AbandonedFolder, GoesThoughItsUserMayNotLookIntoItsFolders) {
    const pid_t child = fork();
    if (child == 0) {
        if (getuid() == 0 && (chown(folder_.path().c_str(), 65534, 65534) != 0 || setuid(65534) != 0))
            _exit(77);
        {
            const lab::RootFolder root("");
            fs::create_directories(root.path() + "/Library/Logs/closed/inner");
            chmod((root.path() + "/Library/Logs/closed").c_str(), 0);
            chmod((root.path() + "/Library/Logs").c_str(), 0500);
        }
        _exit(fs::is_empty(folder_.path()) ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 77 << 8) GTEST_SKIP() << "this user cannot become another";
    EXPECT_EQ(status, 0) << "the folder is still there";
}

TEST_F(AbandonedFolder, IsNoneOfACheckThatIsAskedToEnd) {
    writeAll(folder_.file("fernhill.xml"), "<Fernhill/>");
    const std::string place = folder_.file("place");
    fs::create_directory(place);
    setenv("TMPDIR", place.c_str(), 1);
    const pid_t child = fork();
    if (child == 0) {
        meanwhile = [](const std::string&) { kill(getpid(), SIGTERM); };
        lab::checkConfiguration(folder_.file("fernhill.xml"));
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);

    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_TRUE(fs::is_empty(place));
}

TEST(PlaceOfTemporaryFolders, IsTheMachinesWhereNoneIsNamed) {
    setenv("TMPDIR", "", 1);
    const lab::RootFolder root("");

    EXPECT_EQ(fs::path(root.path()).parent_path(), fs::canonical("/tmp"));
}

TEST(PlaceOfTemporaryFolders, IsNamedWithTheWayOutWhereItIsNone) {
    const TemporaryFolder folder;
    setenv("TMPDIR", folder.file("none").c_str(), 1);
    try {
        const lab::RootFolder root("");
        FAIL() << "no error";
    } catch (const lab::InputError& error) {
        EXPECT_EQ(error.what(), folder.file("none") +
                                    ": No such file or directory; name a folder that is there "
                                    "in TMPDIR, or unset it");
    }

    writeAll(folder.file("file"), "");
    setenv("TMPDIR", folder.file("file").c_str(), 1);
    try {
        const lab::RootFolder root("");
        FAIL() << "no error";
    } catch (const lab::InputError& error) {
        EXPECT_EQ(error.what(), folder.file("file") + ": no scratch folder can be made there (Not a "
                                                      "directory); name another folder in TMPDIR");
    }
}

} // namespace
