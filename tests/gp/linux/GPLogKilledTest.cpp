// The process is killed between any two system calls of a line that makes the log move on.

#include "gp/GPLog.h"

#include "support/TemporaryFolder.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

using testsupport::readAll;
using testsupport::writeAll;

namespace {

class GPLogKilled : public testing::Test {
protected:
    GPLogKilled() {
        setLogName("log");
        setLogDirectory(folder_.path().c_str());
        setMaxLogSize(1);
        setMaxLogCount(3);
    }

    void SetUp() override {
        if (!testsupport::canTrace()) GTEST_SKIP() << "no child can be traced here";
    }

    std::string file(int index) const { return folder_.file("log0" + std::to_string(index) + ".log"); }

    void fill() const {
        for (int index = -1; index <= 2; ++index)
            writeAll(file(index), std::string(2000, static_cast<char>('b' + index)) + "\n");
        writeAll(file(3), "e");
        for (int walk = 0; walk < 4; ++walk)
            logs("to the highest index");
    }

    // The letters that the files begin with, the lowest index first; '.' for a file that is not there.
    std::string files() const {
        std::string letters;
        for (int index = -1; index <= 3; ++index)
            letters += (readAll(file(index)) + '.').front();
        return letters;
    }

    testsupport::TemporaryFolder folder_;
};

TEST_F(GPLogKilled, InARotationLosesTheOldestFileAloneAndTheNextStartGoesOnInTheNewest) {
    std::set<std::string> seen;
    const long kills = testsupport::killAtEachCall(
        [this] {
            fill();
            testsupport::beginCalls();
            logs(std::string(2000, 'e').c_str());
            testsupport::endCalls();
        },
        [&](const testsupport::TracedEnd&) {
            const std::string left = files();
            seen.insert(left);
            for (const char kept : {'a', 'c', 'd', 'e'})
                EXPECT_NE(left.find(kept), std::string::npos) << left;
            // The first lines of a start walk through the full files; where a move was cut off, into the gap.
            EXPECT_TRUE(testsupport::passesInChild([] {
                for (int line = 0; line < 6; ++line)
                    logs("next start");
            }));
            std::string all;
            for (int index = -1; index <= 3; ++index)
                all += readAll(file(index));
            EXPECT_NE(all.find("]: next start\n"), std::string::npos);
            EXPECT_NE(all.find("ccc"), std::string::npos) << left;
            EXPECT_NE(all.find("ddd"), std::string::npos) << left;
        });
    EXPECT_GE(kills, 8);
    EXPECT_EQ(seen, (std::set<std::string>{"abcde", "a.cde", "ac.de", "acd.e", "acde."}));
}

} // namespace
