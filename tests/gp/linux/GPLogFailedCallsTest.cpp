// Lines of the log of which one system call fails, each call in turn.

#include "gp/GPLog.h"

#include "support/ProcessDescriptors.h"
#include "support/TemporaryFolder.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

using testsupport::beginCalls;
using testsupport::descriptorsOf;
using testsupport::endCalls;
using testsupport::readAll;
using testsupport::writeAll;

namespace {

class GPLogFailedCalls : public testing::Test {
protected:
    GPLogFailedCalls() {
        setLogName("log");
        setLogDirectory(folder_.path().c_str());
        setMaxLogSize(1);
        setMaxLogCount(3);
    }

    void SetUp() override {
        if (!testsupport::canFailCalls())
            GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    }

    std::string file(const std::string& index) const { return folder_.file("log0" + index + ".log"); }

    // Every file is full, as far as the highest index, and tells by a letter which it was.
    void fill(const std::string& last) const {
        for (const std::string index : {"-1", "0", "1", "2"})
            writeAll(file(index), std::string(2000, letter(index)) + "\n");
        writeAll(file("3"), last);
        for (int walk = 0; walk < 4; ++walk)
            logs("to the highest index");
    }

    static char letter(const std::string& index) { return static_cast<char>('b' + std::stoi(index)); }

    // The letters that the files begin with, the lowest index first; '.' for a file that is not there.
    std::string files() const {
        std::string letters;
        for (const std::string index : {"-1", "0", "1", "2", "3"})
            letters += (readAll(file(index)) + '.').front();
        return letters;
    }

    testsupport::TemporaryFolder folder_;
};

TEST_F(GPLogFailedCalls, OfALineLoseThatLineAloneAndKeepNoLockNorDescriptor) {
    makeLogThreadSafe();
    const long failures = testsupport::failEachCall([&] {
        std::filesystem::remove(file("-1"));
        logs("before");
        const auto descriptors = descriptorsOf(getpid());
        beginCalls();
        logs("between");
        endCalls();
        EXPECT_EQ(descriptorsOf(getpid()), descriptors);
        logs("behind");
        const std::string text = readAll(file("-1"));
        EXPECT_NE(text.find("]: before\n"), std::string::npos) << text;
        EXPECT_NE(text.find("]: behind\n"), std::string::npos) << text;
        EXPECT_EQ(text.find("between") != std::string::npos, text.find("]: between\n") != std::string::npos);
    });
    EXPECT_GE(failures, 4);
}

TEST_F(GPLogFailedCalls, OfARotationCostAtMostOneFileBesideTheOldest) {
    const long failures = testsupport::failEachCall([&] {
        fill("e");
        ASSERT_EQ(files(), "abcde");
        const auto descriptors = descriptorsOf(getpid());
        beginCalls();
        logs(std::string(2000, 'e').c_str());
        endCalls();
        EXPECT_EQ(descriptorsOf(getpid()), descriptors);
        // Moved on, or not; and where one move fails, the next writes over what was left in its place.
        const std::set<std::string> possible = {"acde.", "abcde", "a.de.", "ac.e.", "acd.e"};
        EXPECT_EQ(possible.count(files()), 1u) << files();
    });
    EXPECT_GE(failures, 8);
}

} // namespace
