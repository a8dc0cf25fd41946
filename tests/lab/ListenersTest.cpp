// What the lab's listeners say where there is no socket for them.

#include "lab/AgentFrame.h"
#include "lab/ExtensionStandIn.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

TEST(Listeners, OfTheAgentAreRefusedForTheReasonThatThereIsNoSocket) {
    errno = EMFILE;
    EXPECT_FALSE(lab::listenOnLoopback(-1, 3456));
    EXPECT_EQ(errno, EMFILE);
}

TEST(Listeners, OfTheExtensionAreRefusedForTheReasonThatThereIsNoSocket) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checker wants descriptors of its own";
    const testsupport::TemporaryFolder folder;
    lab::ExtensionStandIn extension(folder.path());
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    std::string problem;
    try {
        extension.listen();
    } catch (const std::runtime_error& error) {
        problem = error.what();
    }
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_NE(problem.find(std::strerror(EMFILE)), std::string::npos) << problem;
}
