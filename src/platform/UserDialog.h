#pragma once

// Dialogs on the console user's screen, with the words of CFUserNotification.

#include "platform/Service.h"

#include <string>
#include <utility>
#include <vector>

namespace platform {

// A dialog that was created and not yet released. Its memory outlives it, see UserDialog::cancel.
struct UserNotification;

// The keys of a dialog's dictionary.
enum class NotificationKey {
    alertHeader,          // kCFUserNotificationAlertHeaderKey
    alertMessage,         // kCFUserNotificationAlertMessageKey
    defaultButtonTitle,   // kCFUserNotificationDefaultButtonTitleKey
    alternateButtonTitle, // kCFUserNotificationAlternateButtonTitleKey
};

using NotificationDictionary = std::vector<std::pair<NotificationKey, std::string>>;

// Alert levels, kCFUserNotification…AlertLevel.
constexpr unsigned long notificationNoteAlertLevel = 1;

// What the two low bits of the response flags say.
constexpr unsigned long notificationResponseMask = 3;
constexpr unsigned long notificationDefaultResponse = 0;
constexpr unsigned long notificationAlternateResponse = 1;
constexpr unsigned long notificationCancelResponse = 3; // cancelled or timed out

class UserDialog {
public:
    // Shows a dialog and returns at once; it goes away by itself after `timeout` seconds (0 or less: never).
    // The caller releases the result, which is null when no dialog could be made.
    virtual UserNotification* create(double timeout, unsigned long flags,
                                     const NotificationDictionary& dictionary) = 0;

    // Blocks until the dialog has ended and says how. False, with the flags of a cancelled dialog, for null.
    // One thread at a time for one dialog.
    virtual bool receiveResponse(UserNotification* notification, unsigned long& responseFlags) = 0;

    // Ends a dialog from any thread or from a signal handler; the blocked receiveResponse returns. Does
    // nothing for null and for a dialog that has ended or was released meanwhile.
    virtual void cancel(UserNotification* notification) = 0;

    // Takes the dialog away, if it is still there, and gives it back. Null is allowed.
    virtual void release(UserNotification* notification) = 0;

protected:
    ~UserDialog() = default;
};

extern Service<UserDialog> userDialogService;

inline UserDialog& userDialog() { return userDialogService.get(); }

} // namespace platform
