#include "support/RefusingServices.h"

#include "platform/NameLookup.h"
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

RefusingNameLookup refusingNameLookup;

} // namespace

void installRefusingServices() {
    platform::clockService.install(ManualClock::installed());
    platform::nameLookupService.install(refusingNameLookup);
}

} // namespace testsupport
