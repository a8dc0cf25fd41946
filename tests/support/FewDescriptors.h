#pragma once

// Takes nearly all descriptors that a process may have away from it.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace testsupport {

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

} // namespace testsupport
