#pragma once

// Plays the console user: dialogs appear here, and the test presses their buttons. A dialog stays until it is
// answered, timed out or cancelled.

#include "platform/UserDialog.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

namespace testsupport {

class PlayedDialogs final : public platform::UserDialog {
public:
    struct Shown {
        double timeout = 0;
        unsigned long flags = 0;
        platform::NotificationDictionary dictionary;

        // The text under a key; "(none)" without one.
        std::string text(platform::NotificationKey key) const;
        std::string header() const { return text(platform::NotificationKey::alertHeader); }
    };

    // Makes this the service for the rest of the process. Never destroyed, since threads may use it to the end.
    static PlayedDialogs& install();

    // Blocks until so many dialogs have been shown in all and answers what the last of them showed; the test
    // fails when they do not come.
    Shown await(int count);

    // How many dialogs have been shown in all, and how many of those were given back.
    int shown();
    int released();

    // Ends the dialog on screen with these response flags.
    void answer(unsigned long responseFlags);

    // Lets the time of the dialog on screen run out: the played clock moves by its time-out.
    void timeOut();

    // From now on every dialog ends as soon as it is shown, with these flags; so does the one on screen.
    void answerAll(unsigned long responseFlags);

    // From now on no dialog can be made.
    void makeNone();

    platform::UserNotification* create(double timeout, unsigned long flags,
                                       const platform::NotificationDictionary& dictionary) override;
    bool receiveResponse(platform::UserNotification* notification, unsigned long& responseFlags) override;
    void cancel(platform::UserNotification* notification) override;
    void release(platform::UserNotification* notification) override;

private:
    struct Dialog {
        Shown shown;
        bool ended = false;
        bool released = false;
        unsigned long response = 0;
    };

    static Dialog* dialogOf(platform::UserNotification* notification);
    void end(Dialog& dialog, unsigned long response);

    std::mutex mutex_; // guards everything below
    std::condition_variable changed_;
    std::deque<Dialog> dialogs_;
    bool answersAll_ = false;
    bool makesNone_ = false;
    unsigned long answerToAll_ = 0;
};

} // namespace testsupport
