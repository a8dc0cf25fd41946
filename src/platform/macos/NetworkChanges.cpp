#include "platform/NetworkChanges.h"

#include "platform/macos/CFOwned.h"

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

namespace platform {

struct NetworkChanges::Watch {
    SCDynamicStoreRef store = nullptr;   // owned
    CFRunLoopSourceRef source = nullptr; // owned
    CFRunLoopRef runLoop = nullptr;      // borrowed: the run loop of the thread that made the watch
    void (*changed)() = nullptr;
};

namespace {

constexpr int errorWithoutCode = 1001;
constexpr int errorWithoutArray = -1;

int lastError() {
    const int code = SCError();
    return code == 0 ? errorWithoutCode : code;
}

void storeChanged(SCDynamicStoreRef, CFArrayRef, void* watch) {
    static_cast<NetworkChanges::Watch*>(watch)->changed();
}

// Has the store look at the IPv4 and IPv6 state of every network service. 0, or the error.
int setPatterns(SCDynamicStoreRef store) {
    const auto ipv4 = CFOwned<CFStringRef>::adopt(SCDynamicStoreKeyCreateNetworkServiceEntity(
        nullptr, kSCDynamicStoreDomainState, kSCCompAnyRegex, kSCEntNetIPv4));
    if (!ipv4) return lastError();
    const auto ipv6 = CFOwned<CFStringRef>::adopt(SCDynamicStoreKeyCreateNetworkServiceEntity(
        nullptr, kSCDynamicStoreDomainState, kSCCompAnyRegex, kSCEntNetIPv6));
    if (!ipv6) return lastError();
    const void* both[] = {ipv4.get(), ipv6.get()};
    const auto patterns = CFOwned<CFArrayRef>::adopt(CFArrayCreate(nullptr, both, 2, &kCFTypeArrayCallBacks));
    if (!patterns) return errorWithoutArray;
    return SCDynamicStoreSetNotificationKeys(store, nullptr, patterns.get()) ? 0 : lastError();
}

// Fills the watch; on failure it may be half full. 0, or the error.
int setUp(NetworkChanges::Watch* watch, const char* name) {
    const auto storeName =
        CFOwned<CFStringRef>::adopt(CFStringCreateWithCString(nullptr, name, kCFStringEncodingUTF8));
    SCDynamicStoreContext context = {0, watch, nullptr, nullptr, nullptr};
    watch->store = SCDynamicStoreCreate(nullptr, storeName.get(), storeChanged, &context);
    if (!watch->store) return lastError();
    if (const int error = setPatterns(watch->store)) return error;
    watch->source = SCDynamicStoreCreateRunLoopSource(nullptr, watch->store, 0);
    return watch->source ? 0 : lastError();
}

class StoreWatches final : public NetworkChanges {
public:
    Watch* create(const char* name, void (*changed)(), int& error) override {
        auto* watch = new Watch;
        watch->changed = changed;
        error = setUp(watch, name);
        if (error != 0) {
            release(watch);
            return nullptr;
        }
        watch->runLoop = CFRunLoopGetCurrent();
        CFRunLoopAddSource(watch->runLoop, watch->source, kCFRunLoopDefaultMode);
        return watch;
    }

    void run(Watch*) override { CFRunLoopRun(); }

    void release(Watch* watch) override {
        if (watch->runLoop) CFRunLoopRemoveSource(watch->runLoop, watch->source, kCFRunLoopDefaultMode);
        if (watch->store) CFRelease(watch->store);
        if (watch->source) CFRelease(watch->source);
        delete watch;
    }
};

StoreWatches storeWatches;

} // namespace

Service<NetworkChanges> networkChangesService{&storeWatches};

NetworkChanges& systemNetworkChanges() { return storeWatches; }

} // namespace platform
