#include "platform/HardwareRegistry.h"

#include "platform/linux/HardwareUuid.h"

#include <string>

namespace platform {
namespace {

class LinuxRegistry final : public HardwareRegistry {
public:
    std::string platformUUID() override {
        return hardwareUuid("/sys/class/dmi/id/product_uuid", "/etc/machine-id");
    }
};

LinuxRegistry linuxRegistry;

} // namespace

Service<HardwareRegistry> hardwareRegistryService{&linuxRegistry};

} // namespace platform
