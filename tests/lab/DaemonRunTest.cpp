// What the lab's own daemon has of the lab, and how a process that cannot be had is told.

#include "lab/DaemonRun.h"

#include "lab/RootFolder.h"
#include "support/Eventually.h"
#include "support/FewDescriptors.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

using testsupport::eventually;

std::string openDescriptors() {
    std::string numbers;
    for (int i = 0; i < 1024; ++i)
        if (fcntl(i, F_GETFD) >= 0) numbers += std::to_string(i) + " ";
    return numbers;
}

TEST(ARunOfTheDaemon, GivesItNoDescriptorOfTheLabs) {
    const lab::RootFolder root("");
    lab::DaemonRun run(root, nullptr, {}, [] {
        const std::string numbers = openDescriptors();
        _exit(write(STDOUT_FILENO, numbers.data(), numbers.size()) > 0 ? 0 : 1);
    });
    const std::string before = openDescriptors();
    run.start({});
    ASSERT_TRUE(eventually([&] { return !run.running(); }));
    run.stop();

    EXPECT_EQ(root.outputTail(), before);
}

TEST(ARunOfTheDaemon, ThatHasNoPipesSaysWhyAndKeepsNone) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker needs descriptors of its own";
    const lab::RootFolder root("");
    const std::string before = openDescriptors();
    for (const rlim_t room : {0, 2, 4, 6}) {
        lab::DaemonRun run(root, nullptr, OSTLER_BINARY_DIR "/tests/lab_onlooker");
        try {
            const testsupport::FewDescriptors few(room + 1); // one to look into the program with
            run.start({});
            FAIL() << "no error";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(std::strerror(EMFILE)), std::string::npos)
                << room << ": " << error.what();
        }
        EXPECT_EQ(openDescriptors(), before) << room;
    }
}

} // namespace
