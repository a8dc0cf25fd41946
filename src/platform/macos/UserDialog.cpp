#include "platform/UserDialog.h"

#include "platform/DialogSlots.h"
#include "platform/macos/CFOwned.h"

#include <CoreFoundation/CoreFoundation.h>
#include <sched.h>

#include <atomic>

namespace platform {

// A slot for one dialog. `cancelling` counts the cancels under way, which the release of the dialog waits for.
struct UserNotification {
    std::atomic<bool> taken;
    std::atomic<CFUserNotificationRef> dialog;
    std::atomic<int> cancelling;
};

namespace {

UserNotification slots[dialogSlotCount];

CFStringRef keyName(NotificationKey key) {
    switch (key) {
        case NotificationKey::alertHeader:
            return kCFUserNotificationAlertHeaderKey;
        case NotificationKey::alertMessage:
            return kCFUserNotificationAlertMessageKey;
        case NotificationKey::defaultButtonTitle:
            return kCFUserNotificationDefaultButtonTitleKey;
        case NotificationKey::alternateButtonTitle:
            return kCFUserNotificationAlternateButtonTitleKey;
    }
    return kCFUserNotificationAlertMessageKey;
}

CFOwned<CFMutableDictionaryRef> makeDictionary(const NotificationDictionary& entries) {
    auto dictionary = CFOwned<CFMutableDictionaryRef>::adopt(CFDictionaryCreateMutable(
        kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    for (const auto& [key, text] : entries) {
        const auto value = CFOwned<CFStringRef>::adopt(
            CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8));
        if (dictionary && value) CFDictionaryAddValue(dictionary.get(), keyName(key), value.get());
    }
    return dictionary;
}

class ConsoleDialog final : public UserDialog {
public:
    UserNotification* create(double timeout, unsigned long flags,
                             const NotificationDictionary& entries) override {
        UserNotification* slot = takeSlot(slots);
        if (!slot) return nullptr;
        const auto dictionary = makeDictionary(entries);
        SInt32 error = 0;
        CFUserNotificationRef dialog =
            CFUserNotificationCreate(kCFAllocatorDefault, timeout, flags, &error, dictionary.get());
        slot->dialog = dialog;
        if (!dialog) slot->taken = false;
        return dialog ? slot : nullptr;
    }

    bool receiveResponse(UserNotification* notification, unsigned long& responseFlags) override {
        responseFlags = notificationCancelResponse;
        if (!notification) return false;
        CFOptionFlags flags = kCFUserNotificationCancelResponse;
        if (CFUserNotificationReceiveResponse(notification->dialog, 0, &flags) != 0) return false;
        responseFlags = flags;
        return true;
    }

    void cancel(UserNotification* notification) override {
        if (!notification) return;
        ++notification->cancelling;
        if (CFUserNotificationRef dialog = notification->dialog) CFUserNotificationCancel(dialog);
        --notification->cancelling;
    }

    void release(UserNotification* notification) override {
        if (!notification) return;
        CFUserNotificationRef dialog = notification->dialog.exchange(nullptr);
        while (notification->cancelling != 0)
            sched_yield();
        if (dialog) {
            CFUserNotificationCancel(dialog);
            CFRelease(dialog);
        }
        notification->taken = false;
    }
};

ConsoleDialog consoleDialog;

} // namespace

Service<UserDialog> userDialogService{&consoleDialog};

} // namespace platform
