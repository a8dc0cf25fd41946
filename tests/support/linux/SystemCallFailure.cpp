#include "support/SystemCallFailure.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cstddef>

namespace testsupport {

bool failSystemCall(int number, int error, unsigned argument, unsigned place) {
    const auto at =
        static_cast<unsigned>(offsetof(seccomp_data, args) + place * sizeof seccomp_data::args[0]);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, at),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) == 0;
}

} // namespace testsupport
