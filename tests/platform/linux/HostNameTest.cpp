#include "platform/HostName.h"

#include "support/NetworkNamespace.h"
#include "support/TestChild.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>

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

TEST(HostName, OfThisSystemIsNoneWhereTheKernelDoesNotTell) {
    if (!testsupport::canFailCalls())
        GTEST_SKIP() << "no child can be traced here, or a checker needs its calls";
    std::optional<std::string> name;
    const long failures = testsupport::failEachCallOf([] {}, [&] { name = system().currentHostName(); },
                                                      [&] { EXPECT_NE(name.value_or("none"), ""); });
    EXPECT_EQ(failures, 1);
}

TEST(HomeDirectory, OfAUserWithoutAnAccountIsTheRoot) {
    if (getuid() != 0) GTEST_SKIP() << "needs to become another user";
    EXPECT_TRUE(testsupport::passesInChild([] {
        constexpr uid_t nobodys = 64999;
        if (getpwuid(nobodys)) return; // somebody's here
        ASSERT_EQ(setuid(nobodys), 0);
        EXPECT_EQ(system().homeDirectory(), "/");
    }));
}
