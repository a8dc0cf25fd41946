#include "platform/KernelControl.h"

#include "platform/ClosedOnExec.h"
#include "platform/ControlLayout.h"

#include <sys/types.h>

#include <sys/ioctl.h>
#include <sys/kern_control.h>
#include <sys/sys_domain.h>

#include <cstddef>

namespace platform {
namespace {

// The extension's side is fixed and goes by the number: a socket of type 1, which is a stream here.
constexpr int controlSocketType = SOCK_STREAM;

static_assert(PF_SYSTEM == 32 && controlSocketType == 1 && SYSPROTO_CONTROL == 2);
static_assert(CTLIOCGINFO == 0xc0644e03);

// The system's own records are the ones that are sent.
static_assert(AF_SYSTEM == control::familySystem && AF_SYS_CONTROL == control::systemAddressControl);
static_assert(sizeof(ctl_info) == sizeof(ControlInfo) &&
              offsetof(ctl_info, ctl_id) == offsetof(ControlInfo, id) &&
              sizeof(ctl_info::ctl_id) == sizeof(ControlInfo::id) &&
              offsetof(ctl_info, ctl_name) == offsetof(ControlInfo, name) &&
              sizeof(ctl_info::ctl_name) == sizeof(ControlInfo::name));
static_assert(sizeof(sockaddr_ctl) == sizeof(ControlAddress) &&
              offsetof(sockaddr_ctl, sc_len) == offsetof(ControlAddress, length) &&
              offsetof(sockaddr_ctl, sc_family) == offsetof(ControlAddress, family) &&
              offsetof(sockaddr_ctl, ss_sysaddr) == offsetof(ControlAddress, systemAddress) &&
              sizeof(sockaddr_ctl::ss_sysaddr) == sizeof(ControlAddress::systemAddress) &&
              offsetof(sockaddr_ctl, sc_id) == offsetof(ControlAddress, id) &&
              offsetof(sockaddr_ctl, sc_unit) == offsetof(ControlAddress, unit) &&
              sizeof(sockaddr_ctl::sc_unit) == sizeof(ControlAddress::unit));

class SystemKernelControl final : public KernelControl {
public:
    int open() override { return closedOnExecSocket(PF_SYSTEM, controlSocketType, SYSPROTO_CONTROL); }

    int controlId(int socket, const char* name, std::uint32_t& id) override {
        ControlInfo request = controlRequest(name);
        if (ioctl(socket, CTLIOCGINFO, &request) != 0) return -1;
        id = request.id;
        return 0;
    }

    int connect(int socket, std::uint32_t id) override {
        const ControlAddress address = controlAddress(id);
        return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
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
