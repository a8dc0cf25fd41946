#pragma once

// A watch of the network that the test moves: each change is delivered on the watch's thread.

#include "platform/NetworkChanges.h"

#include <condition_variable>
#include <mutex>
#include <string>

namespace testsupport {

class PlayedNetworkChanges final : public platform::NetworkChanges {
public:
    // Puts this service in force for the rest of the process; it must live as long.
    void install() { platform::networkChangesService.install(*this); }

    // Has the next watches fail to be made.
    void refuse() { refuses_ = true; }

    // One change of the network. The watch's thread is not waited for.
    void change();

    // Blocks until the watch waits for a change and has none left to deliver; false after the tests' patience.
    bool waitUntilDelivered();

    // The name that the watch was made with, how often one was asked for, and how often one was released.
    std::string name() const;
    int created() const;
    int released() const;

    Watch* create(const char* name, void (*changed)(), int& error) override;
    void run(Watch* watch) override;
    void release(Watch* watch) override;

private:
    mutable std::mutex mutex_;
    std::condition_variable moved_;
    std::string name_;
    void (*changed_)() = nullptr;
    int created_ = 0;
    int released_ = 0;
    int ahead_ = 0;
    bool waits_ = false;
    bool refuses_ = false;
};

} // namespace testsupport
