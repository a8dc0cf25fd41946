// The removal of a folder that others may still change, or whose rest this process cannot reach.

#include "lab/FilesBelow.h"
#include "lab/RootFolder.h"

#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>

namespace {

namespace fs = std::filesystem;

using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::writeAll;

// What happens, once, in front of the removal of a file "now" from this folder.
std::function<void(const fs::path& folder)> meanwhile;

// Whether a removal has named no folder.
bool fromNowhere = false;

} // namespace

extern "C" int __real_unlinkat(int folder, const char* name, int flags);
extern "C" int __wrap_unlinkat(int folder, const char* name, int flags) {
    fromNowhere |= folder < 0 && folder != AT_FDCWD;
    if (std::string(name) == "now")
        if (const auto happens = std::exchange(meanwhile, nullptr))
            happens(fs::read_symlink("/proc/self/fd/" + std::to_string(folder)));
    return __real_unlinkat(folder, name, flags);
}

namespace {

class RemovalOfAFolder : public testing::Test {
protected:
    void SetUp() override { getrlimit(RLIMIT_NOFILE, &before_); }
    void TearDown() override {
        setrlimit(RLIMIT_NOFILE, &before_);
        meanwhile = nullptr;
    }

    void letNothingMoreBeOpened() const {
        const rlimit none{0, before_.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }

    bool removed(const std::string& but = "") const {
        return lab::removeAllIn(lab::Descriptor(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                                but);
    }

    const TemporaryFolder folder_;
    const std::string root_ = folder_.file("root");

private:
    rlimit before_{};
};

TEST_F(RemovalOfAFolder, TakesAllThatIsInItButOneName) {
    for (const char* name : {"/now", "/one/now", "/one/two/now", "/kept", "/three/kept"})
        writeAll(root_ + name, "");
    EXPECT_TRUE(removed("kept"));
    fs::remove(root_ + "/kept");
    EXPECT_TRUE(fs::is_empty(root_));
}

TEST_F(RemovalOfAFolder, TakesNothingBesideAFolderThatIsMovedOutOfItMeanwhile) {
    const std::string elsewhere = folder_.file("elsewhere");
    for (const char* name : {"/one", "/other"}) {
        writeAll(root_ + name + "/now", "");
        writeAll(elsewhere + name + "/mine", "kept");
    }
    meanwhile = [&](const fs::path& folder) { fs::rename(folder, elsewhere + "/moved"); };

    EXPECT_FALSE(removed());
    EXPECT_EQ(readAll(elsewhere + "/one/mine"), "kept");
    EXPECT_EQ(readAll(elsewhere + "/other/mine"), "kept");
    EXPECT_TRUE(fs::exists(elsewhere + "/moved"));
}

TEST_F(RemovalOfAFolder, TakesNothingOfWhatIsMountedInIt) {
    const std::string elsewhere = folder_.file("elsewhere"), place = root_ + "/place";
    writeAll(elsewhere + "/mine", "kept");
    fs::create_directories(place);
    writeAll(root_ + "/now", "");
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(elsewhere.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) != 0)
        GTEST_SKIP() << "a mount of one's own needs the superuser";

    EXPECT_FALSE(removed());
    EXPECT_TRUE(fs::exists(elsewhere + "/mine"));
    EXPECT_FALSE(fs::exists(root_ + "/now"));
    umount2(place.c_str(), MNT_DETACH);
}

TEST_F(RemovalOfAFolder, OfATemporaryRootTakesWhatIsWrittenIntoItMeanwhile) {
    setenv("TMPDIR", folder_.path().c_str(), 1);
    {
        const lab::RootFolder root("");
        writeAll(root.path() + "/Library/Logs/now", "");
        meanwhile = [](const fs::path& folder) { writeAll(folder / "late", ""); };
    }
    EXPECT_FALSE(meanwhile);
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(RemovalOfAFolder, IsNoneWhereItCannotBeListed) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker needs descriptors of its own";
    writeAll(root_ + "/now", "");
    lab::Descriptor folder(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    letNothingMoreBeOpened();

    EXPECT_FALSE(lab::removeAllIn(std::move(folder), ""));
    EXPECT_TRUE(fs::exists(root_ + "/now"));
    EXPECT_FALSE(lab::removeAllIn(lab::Descriptor(), ""));
}

TEST_F(RemovalOfAFolder, EndsWhereTheWayBackUpCannotBeOpened) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker needs descriptors of its own";
    writeAll(root_ + "/inner/now", "");
    meanwhile = [this](const fs::path&) { letNothingMoreBeOpened(); };
    fromNowhere = false;

    EXPECT_FALSE(removed());
    EXPECT_FALSE(fromNowhere) << "something has been removed from a folder that is not open";
    EXPECT_TRUE(fs::exists(root_ + "/inner"));
}

} // namespace
