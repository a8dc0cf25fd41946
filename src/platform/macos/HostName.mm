#include "platform/HostName.h"

#include "platform/macos/FoundationText.h"

namespace platform {
namespace {

class FoundationHostName final : public HostName {
public:
    std::optional<std::string> currentHostName() override {
        @autoreleasepool {
            NSString* name = [NSHost currentHost].name;
            if (!name) return std::nullopt;
            return plainText(name);
        }
    }

    std::string homeDirectory() override {
        @autoreleasepool {
            return plainText(NSHomeDirectory());
        }
    }
};

FoundationHostName foundationHostName;

} // namespace

Service<HostName> hostNameService{&foundationHostName};

} // namespace platform
