#include "platform/HostName.h"

#include "support/NetworkNamespace.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

platform::HostName& system() { return platform::hostNameService.backend(); }

} // namespace

TEST(HostName, OfThisSystemIsTheKernelsOwn) {
    char name[256] = "";
    ASSERT_EQ(gethostname(name, sizeof name), 0);
    EXPECT_EQ(system().currentHostName(), name);
}

TEST(HostName, OfThisSystemMayBeMissing) {
    const pid_t child = testsupport::forkAlone();
    if (child == 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWUTS) != 0 || sethostname("", 0) != 0) _exit(77);
        _exit(system().currentHostName() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no namespace for host names can be made here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(HomeDirectory, OfThisSystemIsTheAccountsAndNotTheEnvironments) {
    setenv("HOME", "/elsewhere", 1);
    const passwd* account = getpwuid(geteuid());
    if (!account) GTEST_SKIP() << "this user has no account";
    EXPECT_EQ(system().homeDirectory(), account->pw_dir);
}
