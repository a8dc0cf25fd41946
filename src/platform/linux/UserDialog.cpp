#include "platform/UserDialog.h"

#include "platform/Clock.h"
#include "platform/DialogSlots.h"
#include "platform/linux/DialogProgram.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace platform {

// A slot for one dialog. Its event descriptor is never closed, so a cancel may come at any time.
struct UserNotification {
    std::atomic<bool> taken;
    std::atomic<int> cancelEvent; // descriptor plus 1; 0 before the first use
    double timeout;
    DialogProgram program;
};

namespace {

UserNotification slots[dialogSlotCount];

// Makes the event that a cancel raises, or takes what an earlier dialog left of it.
bool readyEvent(UserNotification& slot) {
    if (slot.cancelEvent == 0) slot.cancelEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) + 1;
    if (slot.cancelEvent == 0) return false;
    std::uint64_t raised = 0;
    while (read(slot.cancelEvent - 1, &raised, sizeof raised) > 0) {
    }
    return true;
}

// Milliseconds that the dialog may stay; below 0 without limit. Nobody can answer a dialog that no program
// shows, so that one ends at once where others would stay for ever.
int stayMilliseconds(const UserNotification& slot) {
    if (slot.timeout <= 0) return slot.program.isRunning() ? -1 : 0;
    constexpr double longest = 1000000;
    const int seconds = static_cast<int>(slot.timeout < longest ? slot.timeout : longest);
    return static_cast<int>(clock().eventWaitLimit(seconds > 0 ? seconds : 1) / 1000);
}

class DesktopDialog final : public UserDialog {
public:
    UserNotification* create(double timeout, unsigned long,
                             const NotificationDictionary& dictionary) override {
        UserNotification* slot = takeSlot(slots);
        if (!slot) return nullptr;
        if (!readyEvent(*slot)) {
            slot->taken = false;
            return nullptr;
        }
        slot->timeout = timeout;
        slot->program.start(dictionary);
        return slot;
    }

    bool receiveResponse(UserNotification* notification, unsigned long& responseFlags) override {
        responseFlags = notificationCancelResponse;
        if (!notification) return false;
        pollfd waited[2] = {{notification->cancelEvent - 1, POLLIN, 0},
                            {notification->program.answerDescriptor(), POLLIN, 0}};
        // A descriptor of -1, without a program, is one that poll leaves out.
        int ready = 0;
        do {
            ready = poll(waited, 2, stayMilliseconds(*notification));
        } while (ready < 0 && errno == EINTR);
        if (ready > 0 && waited[0].revents == 0) responseFlags = notification->program.answer();
        notification->program.stop();
        return true;
    }

    void cancel(UserNotification* notification) override {
        if (!notification || notification->cancelEvent == 0) return;
        const std::uint64_t one = 1;
        // Full only when it is raised already.
        [[maybe_unused]] const ssize_t written = write(notification->cancelEvent - 1, &one, sizeof one);
    }

    void release(UserNotification* notification) override {
        if (!notification) return;
        notification->program.stop();
        notification->taken = false;
    }
};

DesktopDialog desktopDialog;

} // namespace

Service<UserDialog> userDialogService{&desktopDialog};

} // namespace platform
