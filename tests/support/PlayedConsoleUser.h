#pragma once

// A console that the test plays: it says who sits there, and delivers each change on the watch's thread.
// Nobody sits there at first.

#include "platform/ConsoleUser.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

namespace testsupport {

class PlayedConsoleUser final : public platform::ConsoleUser {
public:
    // Puts this service in force for the rest of the process; it must live as long.
    void install() { platform::consoleUserService.install(*this); }

    // Who sits there from now on. Nobody is told.
    void seat(const std::string& name);
    void leave();

    // Has no session made from now on.
    void refuse() { refuses_ = true; }

    // One notice of a change, for the watch's thread, which is not waited for.
    void notify();

    // Blocks until the watch's run loop has no notice left to deliver; false after the tests' patience.
    bool waitUntilDelivered();

    // Has the run loop end.
    void endLoop();

    // The name of the session, and how many there are now.
    std::string sessionName() const;
    int sessions() const;

    // Whether a run loop has run.
    bool hasLooped() const;

    // How often somebody asked who is there.
    int asked() const;

    bool copyName(char* buffer, std::size_t size) override;
    Watch* create(const char* name, Callback changed) override;
    void run(Watch* watch) override;
    void release(Watch* watch) override;

private:
    mutable std::mutex mutex_; // guards everything below
    std::condition_variable moved_;
    std::optional<std::string> name_;
    std::string sessionName_;
    Callback changed_ = nullptr;
    int sessions_ = 0;
    int asked_ = 0;
    int notices_ = 0;
    bool waits_ = false;
    bool looped_ = false;
    bool ends_ = false;
    bool refuses_ = false;
};

} // namespace testsupport
