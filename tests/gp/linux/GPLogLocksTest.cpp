// What the log does under its lock.

#include "gp/GPLog.h"

#include "support/AllocationCounter.h"
#include "support/FileCalls.h"
#include "support/LockCounter.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

class GPLogLocks : public testing::Test {
protected:
    void SetUp() override {
        if (testsupport::sanitized) GTEST_SKIP() << "the checkers need the place of the lock functions";
        setLogName("fernhill");
        setLogDirectory(folder_.path().c_str());
        setMaxLogSize(1);
        setMaxLogCount(1);
        logs("first");                        // the time zone is read
        logs(std::string(1100, 'a').c_str()); // goes on to index 0
        logs(std::string(1100, 'b').c_str()); // and to index 1
        logs("third");
    }
    void TearDown() override { setLogDirectory("/nonexistent"); }

    // The sizes of the files with an index, in its order.
    std::string sizes() const {
        std::string text;
        for (const char* name : {"fernhill00.log", "fernhill01.log"})
            text += (fs::exists(folder_.file(name)) ? std::to_string(fs::file_size(folder_.file(name)))
                                                    : "none") +
                    " ";
        return text;
    }

    // A line that is too much for the last file. The sizes behind each lock, and before its unlock.
    std::vector<std::pair<std::string, std::string>> holdsOfALineThatRotates() {
        std::vector<std::pair<std::string, std::string>> holds;
        testsupport::LockCounter locks;
        locks.behindEachLock([&] { holds.emplace_back(sizes(), ""); });
        locks.beforeEachUnlock([&] { holds.back().second = sizes(); });
        logs(std::string(1100, 'c').c_str());
        EXPECT_EQ(locks.held(), 0);
        return holds;
    }

    testsupport::TemporaryFolder folder_;
};

} // namespace

TEST_F(GPLogLocks, TheWriteAndTheRotationTakeTheLockInTwoHolds) {
    const auto without = holdsOfALineThatRotates();
    logs("again");
    makeLogThreadSafe();
    const std::string before = sizes();

    const auto with = holdsOfALineThatRotates();

    ASSERT_EQ(with.size(), without.size() + 2) << "the others belong to the time";
    const auto& write = with[with.size() - 2];
    const auto& rotation = with.back();
    EXPECT_EQ(write.first, before);
    EXPECT_NE(write.second, before);
    EXPECT_EQ(rotation.first, write.second) << "written whole, nothing moved yet";
    EXPECT_NE(rotation.second, rotation.first);
    EXPECT_EQ(rotation.second, sizes()) << "all files are moved by the end of the hold";
    EXPECT_NE(sizes().find("none"), std::string::npos) << "the last file has moved down";
}

TEST_F(GPLogLocks, ALineIsWrittenUnderTheLockOnceThereIsOne) {
    const auto heldAtWrites = [] {
        std::vector<long> held;
        testsupport::LockCounter locks;
        testsupport::FileCalls files;
        files.beforeEachFstat([&] { held.push_back(locks.held()); });
        logs("line");
        return held;
    };

    EXPECT_EQ(heldAtWrites(), std::vector<long>{0});
    makeLogThreadSafe();
    EXPECT_EQ(heldAtWrites(), std::vector<long>{1});
}

TEST_F(GPLogLocks, TheLockIsMadeOnce) {
    makeLogThreadSafe();
    const auto locksOfALine = [] {
        const testsupport::LockCounter locks;
        logs("line");
        return locks.count();
    };
    const long before = locksOfALine();
    const testsupport::AllocationCounter allocations;
    makeLogThreadSafe();
    EXPECT_EQ(allocations.count(), 0) << "another lock would let a line by that the first one holds up";
    EXPECT_EQ(locksOfALine(), before);
}
