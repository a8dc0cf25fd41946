// What the lab's own daemon has of the lab, and how a process that cannot be had is told.

#include "lab/DaemonRun.h"

#include "lab/RootFolder.h"
#include "support/Eventually.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
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

// Leaves room for so many more descriptors than there are.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t more) {
        const int lowest = fcntl(STDIN_FILENO, F_DUPFD, 0);
        close(lowest);
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit few{static_cast<rlim_t>(lowest) + more, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit before_{};
};

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
    for (const rlim_t room : {0, 2}) {
        lab::DaemonRun run(root, nullptr, OSTLER_BINARY_DIR "/tests/lab_onlooker");
        try {
            const FewDescriptors few(room + 1); // one to look into the program with
            run.start({});
            FAIL() << "no error";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(std::strerror(EMFILE)), std::string::npos)
                << error.what();
        }
        EXPECT_EQ(openDescriptors(), before);
    }
}

} // namespace
