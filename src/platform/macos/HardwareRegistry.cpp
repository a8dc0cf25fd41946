#include "platform/HardwareRegistry.h"

#include "platform/macos/CFOwned.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

namespace platform {
namespace {

class IOKitRegistry final : public HardwareRegistry {
public:
    std::string platformUUID() override {
        const io_registry_entry_t root = IORegistryEntryFromPath(kIOMasterPortDefault, "IOService:/");
        if (root == IO_OBJECT_NULL) return {};
        const auto value = CFOwned<CFTypeRef>::adopt(
            IORegistryEntryCreateCFProperty(root, CFSTR(kIOPlatformUUIDKey), kCFAllocatorDefault, 0));
        IOObjectRelease(root);
        if (!value || CFGetTypeID(value.get()) != CFStringGetTypeID()) return {};
        char text[128] = "";
        if (!CFStringGetCString(static_cast<CFStringRef>(value.get()), text, sizeof text,
                                kCFStringEncodingUTF8))
            return {};
        return text;
    }
};

IOKitRegistry ioKitRegistry;

} // namespace

Service<HardwareRegistry> hardwareRegistryService{&ioKitRegistry};

} // namespace platform
