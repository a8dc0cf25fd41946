// Namespaces of the lab's own where the machine refuses them half-way.

#include "lab/Namespaces.h"

#include <gtest/gtest.h>

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Without the rights by which root needs no namespace of users.
bool giveRightsUp() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

TEST(NamespacesAsRoot, ChangeNothingWhereTheUserCannotBeNamed) {
    const pid_t child = fork();
    if (child == 0) {
        if (!lab::unshareAsRoot(CLONE_NEWNS) ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("nothing", "/proc", "tmpfs", 0, nullptr) != 0 || !giveRightsUp())
            _exit(77);
        const uid_t user = getuid();
        const bool had = lab::unshareAsRoot(CLONE_NEWNET);
        _exit(!had && getuid() == user ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "this user may mount nothing";

    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
