#pragma once

// Updates that the agent names: the download, the dialogs that ask the console user, and the thread that
// carries an update out. The agent link decides whether an update begins and can stop it.

#include "gp/GPObject.h"
#include "platform/UserDialog.h"

#include <atomic>
#include <cstdint>

// 1 from the start of an update to its end. It holds off a second update, and clearing it stops the first.
extern std::atomic<std::uint8_t> updating;

// 1 while a download runs. There is one for the process: two downloads at a time would confuse one another.
extern std::atomic<std::uint8_t> runTask;

// The dialog on screen, or null. They let another thread take the dialog away.
extern std::atomic<platform::UserNotification*> notifyUpdatePopUp;
extern std::atomic<platform::UserNotification*> notifyUpdatingPopUp;

// The dictionaries of the dialogs, as parallel tables. The first pair makes the update dialog; the others are
// kept for a confirmation that nothing shows and for a countdown that builds its own.
extern const platform::NotificationKey keys[4];
extern const char* const values[4];
extern const platform::NotificationKey updatedKeys[3];
extern const char* const updatedValues[3];
extern const platform::NotificationKey updatingKeys[3];
extern const char* const updatingValues[3];

// Carries the update's address to the update thread, which frees the text and releases the object.
class THREADPARAMETERS : public GPObject {
public:
    // Makes a heap copy of the address.
    explicit THREADPARAMETERS(const char* address);

    // cppcheck-suppress unsafeClassCanLeak // the update thread frees it
    char* url; // from new[]; whoever takes the object over frees it
};

// Thread function: takes over a THREADPARAMETERS and carries the update out, from the download to the end of
// the update program. Runs for hours; ends early when `updating` is cleared or the download fails.
void* updateThread(void* parameters);

// Thread function: clears the ready mark and runs the update program. Nothing starts it.
void* updateNowThread(void* unused);

// Shows the update dialog for that many seconds (0 or less: until it is answered) and blocks until it has
// ended. True for "Update Now".
bool updatePopUp(int seconds);

// Shows a countdown dialog for one minute and blocks until it has ended. True for any press.
bool updatingPopUp(int minutes);

// Fetches a file into the update directory, under the last component of the URL's path, in place of what
// stands there. Blocks until the download has ended. One at a time.
bool downloadFileFromUrl(const char* url);
