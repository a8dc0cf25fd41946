#include "platform/ConsoleUser.h"

#include "platform/macos/CFOwned.h"

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

namespace platform {

struct ConsoleUser::Watch {
    ConsoleUser::Callback changed = nullptr;
    CFOwned<SCDynamicStoreRef> store;
};

namespace {

void storeChanged(SCDynamicStoreRef store, CFArrayRef changedKeys, void* watch) {
    static_cast<ConsoleUser::Watch*>(watch)->changed(store, changedKeys, nullptr);
}

// An array with the console user's key alone.
CFOwned<CFArrayRef> watchedKeys() {
    const auto key = CFOwned<CFStringRef>::adopt(SCDynamicStoreKeyCreateConsoleUser(kCFAllocatorDefault));
    const void* keys[] = {key.get()};
    return CFOwned<CFArrayRef>::adopt(
        CFArrayCreate(kCFAllocatorDefault, keys, key ? 1 : 0, &kCFTypeArrayCallBacks));
}

class StoreConsoleUser final : public ConsoleUser {
public:
    bool copyName(char* buffer, std::size_t size) override {
        const auto name =
            CFOwned<CFStringRef>::adopt(SCDynamicStoreCopyConsoleUser(nullptr, nullptr, nullptr));
        return name && CFStringGetFileSystemRepresentation(name.get(), buffer, static_cast<CFIndex>(size));
    }

    Watch* create(const char* name, Callback changed) override {
        const auto keys = watchedKeys();
        const auto storeName = CFOwned<CFStringRef>::adopt(
            CFStringCreateWithCString(kCFAllocatorDefault, name, kCFStringEncodingUTF8));
        if (!keys || !storeName) return nullptr;

        auto* watch = new Watch;
        watch->changed = changed;
        SCDynamicStoreContext context = {0, watch, nullptr, nullptr, nullptr};
        watch->store = CFOwned<SCDynamicStoreRef>::adopt(
            SCDynamicStoreCreate(kCFAllocatorDefault, storeName.get(), storeChanged, &context));
        if (!watch->store) {
            release(watch);
            return nullptr;
        }
        SCDynamicStoreSetNotificationKeys(watch->store.get(), keys.get(), nullptr);
        return watch;
    }

    void run(Watch* watch) override {
        const auto source = CFOwned<CFRunLoopSourceRef>::adopt(
            SCDynamicStoreCreateRunLoopSource(kCFAllocatorDefault, watch->store.get(), 0));
        if (!source) return;
        CFRunLoopAddSource(CFRunLoopGetCurrent(), source.get(), kCFRunLoopDefaultMode);
        CFRunLoopRun();
        CFRunLoopSourceInvalidate(source.get());
    }

    void release(Watch* watch) override { delete watch; }
};

StoreConsoleUser storeConsoleUser;

} // namespace

Service<ConsoleUser> consoleUserService{&storeConsoleUser};

} // namespace platform
