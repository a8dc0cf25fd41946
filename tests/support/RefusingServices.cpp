#include "support/RefusingServices.h"

#include "platform/HardwareRegistry.h"
#include "platform/NameLookup.h"
#include "platform/UserDialog.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

namespace testsupport {
namespace {

class RefusingNameLookup final : public platform::NameLookup {
public:
    bool gethostbyname2(const char* name, int, platform::HostEntry&) override {
        ADD_FAILURE() << "nobody played the look-up of " << name;
        return false;
    }

    bool gethostbyname(const char* name, platform::HostEntry&) override {
        ADD_FAILURE() << "nobody played the look-up of " << name;
        return false;
    }
};

class RefusingRegistry final : public platform::HardwareRegistry {
public:
    std::string platformUUID() override {
        ADD_FAILURE() << "nobody played the hardware registry";
        return {};
    }
};

class RefusingDialog final : public platform::UserDialog {
public:
    platform::UserNotification* create(double, unsigned long,
                                       const platform::NotificationDictionary&) override {
        ADD_FAILURE() << "nobody played the dialogs";
        return nullptr;
    }

    bool receiveResponse(platform::UserNotification*, unsigned long& responseFlags) override {
        ADD_FAILURE() << "nobody played the dialogs";
        responseFlags = platform::notificationCancelResponse;
        return false;
    }

    void cancel(platform::UserNotification*) override { ADD_FAILURE() << "nobody played the dialogs"; }

    void release(platform::UserNotification*) override { ADD_FAILURE() << "nobody played the dialogs"; }
};

RefusingNameLookup refusingNameLookup;
RefusingRegistry refusingRegistry;
RefusingDialog refusingDialog;

} // namespace

void installRefusingServices() {
    platform::clockService.install(ManualClock::installed());
    platform::nameLookupService.install(refusingNameLookup);
    platform::hardwareRegistryService.install(refusingRegistry);
    platform::userDialogService.install(refusingDialog);
}

} // namespace testsupport
