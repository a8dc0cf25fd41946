#pragma once

// Who sits at the machine: a store of the system's state that names the console user, a session that watches
// that name, and the run loop that delivers its calls.

#include "platform/Service.h"

#include <cstddef>

namespace platform {

class ConsoleUser {
public:
    // A session that watches the console user.
    struct Watch;

    // What a change calls. The arguments are the store's own; no caller looks at them.
    using Callback = void (*)(const void* store, const void* changedKeys, void* info);

    // Writes the console user's name, as the system stores it, and a NUL into `buffer`. False when nobody is
    // at the console and when the name does not fit into `size` bytes. Any thread.
    virtual bool copyName(char* buffer, std::size_t size) = 0;

    // Makes a session of that name whose key, the console user's, leads to `changed`. Null when there can be
    // none. Changes are kept from now on and delivered by `run`.
    virtual Watch* create(const char* name, Callback changed) = 0;

    // Adds the session to the calling thread's run loop and runs the loop, which calls `changed` on this
    // thread, one call at a time. Blocks until the loop ends; the session is out of it then.
    virtual void run(Watch* watch) = 0;

    // Ends the session and frees it.
    virtual void release(Watch* watch) = 0;

protected:
    ~ConsoleUser() = default;
};

extern Service<ConsoleUser> consoleUserService;

inline ConsoleUser& consoleUser() { return consoleUserService.get(); }

} // namespace platform
