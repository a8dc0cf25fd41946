#pragma once

// The console of a daemon in another process: whoever forked it says who sits there.

#include "platform/ConsoleUser.h"

#include <atomic>
#include <string>

namespace life {

class SharedConsole final : public platform::ConsoleUser {
public:
    // Made before the fork; both processes then have it. Nobody sits there.
    SharedConsole();
    ~SharedConsole();

    SharedConsole(const SharedConsole&) = delete;
    SharedConsole& operator=(const SharedConsole&) = delete;

    // In the process that forked: the user of that number, or nobody for 0, sits there, and the watch is told.
    void seat(int number);

    static std::string nameOf(int number) { return "user" + std::to_string(number); }

    bool copyName(char* buffer, std::size_t size) override;
    Watch* create(const char* name, Callback changed) override;
    void run(Watch* watch) override;
    void release(Watch* watch) override;

private:
    std::atomic<int>* seated_; // in memory that both share
    int notices_[2];
    Callback changed_ = nullptr;
};

} // namespace life
