// Files that are open while a program is started: a pipe stands for the file, so that reading and writing it take
// as long as the test wants.

#include "gp/GPFilesystem.h"
#include "support/Await.h"
#include "support/ProcessDescriptors.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

class GPFilesystemInheritanceTest : public testing::Test {
protected:
    GPFilesystemInheritanceTest() { EXPECT_EQ(mkfifo(path().c_str(), 0600), 0); }

    std::string path() const { return folder_.file("pipe"); }

    static int waiting(int end) {
        int bytes = 0;
        EXPECT_EQ(ioctl(end, FIONREAD, &bytes), 0);
        return bytes;
    }

    // Whether a program that is started now has the pipe.
    bool isInherited() const {
        for (const auto& [number, target] : testsupport::handedDown())
            if (target == path()) return true;
        return false;
    }

private:
    testsupport::TemporaryFolder folder_;
};

} // namespace

TEST_F(GPFilesystemInheritanceTest, AFileThatIsReadIsNotInheritedByAProgram) {
    std::thread reading([this] {
        char bytes[2];
        long length = sizeof bytes;
        EXPECT_TRUE(readFile(path().c_str(), bytes, length, 0, true));
    });
    const int end = open(path().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(write(end, "x", 1), 1);
    EXPECT_TRUE(testsupport::comesTrue([&] { return waiting(end) == 0; }));
    EXPECT_FALSE(isInherited());
    close(end);
    reading.join();
}

TEST_F(GPFilesystemInheritanceTest, AFileThatIsWrittenIsNotInheritedByAProgram) {
    for (const bool truncate : {false, true}) {
        const std::string content(200000, 'x'); // more than the pipe takes
        std::thread writing([&] {
            EXPECT_TRUE(
                writeFile(path().c_str(), content.data(), static_cast<long>(content.size()), true, truncate));
        });
        const int end = open(path().c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_TRUE(testsupport::comesTrue([&] { return waiting(end) > 0; }));
        EXPECT_FALSE(isInherited());
        char bytes[4096];
        while (read(end, bytes, sizeof bytes) > 0) {
        }
        close(end);
        writing.join();
    }
}
