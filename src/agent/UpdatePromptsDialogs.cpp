#include "agent/UpdatePrompts.h"

#include "gp/GPLog.h"
#include "gp/GPString.h"

#include <atomic>
#include <cstddef>

using platform::NotificationDictionary;
using platform::NotificationKey;

std::atomic<platform::UserNotification*> notifyUpdatePopUp{nullptr};
std::atomic<platform::UserNotification*> notifyUpdatingPopUp{nullptr};

const NotificationKey keys[4] = {NotificationKey::alertHeader, NotificationKey::alertMessage,
                                 NotificationKey::defaultButtonTitle, NotificationKey::alternateButtonTitle};
const char* const values[4] = {
    "Ostler has an update for you",
    "Your device needs to be updated with the latest features and performance improvements.", "Update Now",
    "Update Later"};

const NotificationKey updatedKeys[3] = {NotificationKey::alertHeader, NotificationKey::alertMessage,
                                        NotificationKey::defaultButtonTitle};
const char* const updatedValues[3] = {"Ostler has been updated",
                                      "Your device has been updated with the latest improvements.", "Ok"};

const NotificationKey updatingKeys[3] = {NotificationKey::alertHeader, NotificationKey::alertMessage,
                                         NotificationKey::defaultButtonTitle};
const char* const updatingValues[3] = {
    "Ostler has an update for you in %d minutes",
    "Your device needs to be updated with the latest features and performance improvements.", "Update Now"};

namespace {

constexpr int countdownSeconds = 60;

// Shows a dialog, with its handle in `handle` as long as it is there. True for the default button; nothing
// else that can become of a dialog is looked at.
bool ask(int seconds, const NotificationDictionary& dictionary,
         std::atomic<platform::UserNotification*>& handle) {
    platform::UserDialog& dialogs = platform::userDialog();
    platform::UserNotification* dialog =
        dialogs.create(seconds, platform::notificationNoteAlertLevel, dictionary);
    handle = dialog;
    unsigned long response = platform::notificationCancelResponse;
    dialogs.receiveResponse(dialog, response);
    dialogs.release(dialog);
    handle = nullptr;
    return (response & platform::notificationResponseMask) == platform::notificationDefaultResponse;
}

// Its user never releases it: ten short texts for an update at the most.
GPString* countdownHeader(int minutes) {
    return minutes < 2 ? GPString::format("Ostler has an update for you in %d minute", minutes)
                       : GPString::format("Ostler has an update for you in %d minutes", minutes);
}

} // namespace

bool updatePopUp(int seconds) {
    NotificationDictionary dictionary;
    for (std::size_t i = 0; i < 4; ++i)
        dictionary.emplace_back(keys[i], values[i]);
    if (!ask(seconds, dictionary, notifyUpdatePopUp)) return false;
    logf("updatePopUp seeing Update Now click");
    return true;
}

bool updatingPopUp(int minutes) {
    NotificationDictionary dictionary;
    dictionary.emplace_back(NotificationKey::alertHeader, countdownHeader(minutes)->cstr());
    dictionary.emplace_back(NotificationKey::alertMessage,
                            "Your device needs to be updated with the latest improvements and to avoid "
                            "potential performance issues. A system restart may be required.");
    // Without a second button any press means yes.
    dictionary.emplace_back(NotificationKey::defaultButtonTitle, "Update Now");
    if (!ask(countdownSeconds, dictionary, notifyUpdatingPopUp)) return false;
    logf("updatingPopUp seeing Update Now click");
    return true;
}
