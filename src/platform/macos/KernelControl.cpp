#include "platform/KernelControl.h"

#include <sys/types.h>

#include <sys/ioctl.h>
#include <sys/kern_control.h>
#include <sys/sys_domain.h>

#include <cstddef>
#include <cstring>

namespace platform {
namespace {

// The extension's side is fixed and goes by the number: a socket of type 1, which is a stream here.
constexpr int controlSocketType = SOCK_STREAM;

static_assert(PF_SYSTEM == 32 && controlSocketType == 1 && SYSPROTO_CONTROL == 2);
static_assert(CTLIOCGINFO == 0xc0644e03);
static_assert(AF_SYSTEM == 32 && AF_SYS_CONTROL == 2);
static_assert(sizeof(ctl_info) == 100 && offsetof(ctl_info, ctl_id) == 0 && sizeof(ctl_info::ctl_id) == 4 &&
              offsetof(ctl_info, ctl_name) == 4 && sizeof(ctl_info::ctl_name) == 96);
static_assert(sizeof(sockaddr_ctl) == 32 && offsetof(sockaddr_ctl, sc_len) == 0 &&
              offsetof(sockaddr_ctl, sc_family) == 1 && offsetof(sockaddr_ctl, ss_sysaddr) == 2 &&
              offsetof(sockaddr_ctl, sc_id) == 4 && offsetof(sockaddr_ctl, sc_unit) == 8);

class SystemKernelControl final : public KernelControl {
public:
    int open() override { return ::socket(PF_SYSTEM, controlSocketType, SYSPROTO_CONTROL); }

    int controlId(int socket, const char* name, std::uint32_t& id) override {
        ctl_info info{};
        std::strncpy(info.ctl_name, name, sizeof info.ctl_name);
        if (ioctl(socket, CTLIOCGINFO, &info) != 0) return -1;
        id = info.ctl_id;
        return 0;
    }

    int connect(int socket, std::uint32_t id) override {
        sockaddr_ctl address{};
        address.sc_len = sizeof address;
        address.sc_family = AF_SYSTEM;
        address.ss_sysaddr = AF_SYS_CONTROL;
        address.sc_id = id;
        address.sc_unit = 0;
        const auto* general = reinterpret_cast<const sockaddr*>(&address);
        return ::connect(socket, general, sizeof address);
    }

    int setOption(int socket, int option, const void* value, socklen_t length) override {
        return setsockopt(socket, SYSPROTO_CONTROL, option, value, length);
    }

    int getOption(int socket, int option, void* value, socklen_t& length) override {
        return getsockopt(socket, SYSPROTO_CONTROL, option, value, &length);
    }
};

SystemKernelControl systemKernelControl;

} // namespace

Service<KernelControl> kernelControlService{&systemKernelControl};

} // namespace platform
