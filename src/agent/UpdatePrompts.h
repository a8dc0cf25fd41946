#pragma once

// Updates that the agent names: the state that the agent link looks at, and the thread that it starts. The
// link decides whether an update begins; what it consists of happens on the update thread.

#include "gp/GPObject.h"
#include "platform/UserDialog.h"

#include <atomic>
#include <cstdint>

// 1 from the start of an update to its end. It holds off a second update, and clearing it stops the first.
extern std::atomic<std::uint8_t> updating;

// The dialog on screen, or null. They let another thread take the dialog away.
extern std::atomic<platform::UserNotification*> notifyUpdatePopUp;
extern std::atomic<platform::UserNotification*> notifyUpdatingPopUp;

// Carries the update's address to the update thread, which frees the text and releases the object.
class THREADPARAMETERS : public GPObject {
public:
    // Makes a heap copy of the address.
    explicit THREADPARAMETERS(const char* address);

    char* url; // from new[]; whoever takes the object over frees it
};

// Thread function: takes over a THREADPARAMETERS and carries the update out.
void* updateThread(void* parameters);
