#include "support/PlayedDialogs.h"

#include "support/Patience.h"

#include "support/ManualClock.h"

#include <gtest/gtest.h>

namespace testsupport {

std::string PlayedDialogs::Shown::text(platform::NotificationKey key) const {
    for (const auto& [entryKey, entryText] : dictionary) {
        if (entryKey == key) return entryText;
    }
    return "(none)";
}

PlayedDialogs& PlayedDialogs::install() {
    static auto* dialogs = new PlayedDialogs;
    platform::userDialogService.install(*dialogs);
    return *dialogs;
}

PlayedDialogs::Shown PlayedDialogs::await(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto wanted = static_cast<std::size_t>(count);
    if (!changed_.wait_for(lock, patience, [&] { return dialogs_.size() >= wanted; })) {
        ADD_FAILURE() << "dialogs shown: " << dialogs_.size() << " instead of " << count;
        return {};
    }
    EXPECT_EQ(dialogs_.size(), wanted);
    return dialogs_.back().shown;
}

int PlayedDialogs::shown() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(dialogs_.size());
}

int PlayedDialogs::released() {
    std::lock_guard<std::mutex> lock(mutex_);
    int count = 0;
    for (const Dialog& dialog : dialogs_)
        count += dialog.released;
    return count;
}

void PlayedDialogs::answer(unsigned long responseFlags) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (dialogs_.empty() || dialogs_.back().ended) {
        ADD_FAILURE() << "no dialog is on screen";
        return;
    }
    end(dialogs_.back(), responseFlags);
}

void PlayedDialogs::timeOut() {
    double timeout = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!dialogs_.empty()) timeout = dialogs_.back().shown.timeout;
    }
    if (timeout > 0) ManualClock::installed().advanceSeconds(static_cast<std::int64_t>(timeout));
    answer(platform::notificationCancelResponse);
}

void PlayedDialogs::answerAll(unsigned long responseFlags) {
    std::lock_guard<std::mutex> lock(mutex_);
    answersAll_ = true;
    answerToAll_ = responseFlags;
    if (!dialogs_.empty() && !dialogs_.back().ended) end(dialogs_.back(), responseFlags);
}

void PlayedDialogs::makeNone() {
    std::lock_guard<std::mutex> lock(mutex_);
    makesNone_ = true;
}

platform::UserNotification* PlayedDialogs::create(double timeout, unsigned long flags,
                                                  const platform::NotificationDictionary& dictionary) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (makesNone_) return nullptr;
    dialogs_.push_back({{timeout, flags, dictionary}, answersAll_, false, answerToAll_});
    changed_.notify_all();
    return reinterpret_cast<platform::UserNotification*>(&dialogs_.back());
}

bool PlayedDialogs::receiveResponse(platform::UserNotification* notification, unsigned long& responseFlags) {
    responseFlags = platform::notificationCancelResponse;
    if (!notification) return false;
    std::unique_lock<std::mutex> lock(mutex_);
    Dialog* dialog = dialogOf(notification);
    changed_.wait(lock, [&] { return dialog->ended; });
    responseFlags = dialog->response;
    return true;
}

void PlayedDialogs::cancel(platform::UserNotification* notification) {
    std::lock_guard<std::mutex> lock(mutex_);
    Dialog* dialog = dialogOf(notification);
    if (!dialog->ended) end(*dialog, platform::notificationCancelResponse);
}

void PlayedDialogs::release(platform::UserNotification* notification) {
    if (!notification) return;
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_FALSE(dialogOf(notification)->released);
    dialogOf(notification)->released = true;
    changed_.notify_all();
}

PlayedDialogs::Dialog* PlayedDialogs::dialogOf(platform::UserNotification* notification) {
    return reinterpret_cast<Dialog*>(notification);
}

void PlayedDialogs::end(Dialog& dialog, unsigned long response) {
    dialog.ended = true;
    dialog.response = response;
    changed_.notify_all();
}

} // namespace testsupport
