#pragma once

// Base of the tests of server addresses: settings of the test's own, names that it plays, and the waits for
// the threads that look names up.

#include "config/FilterIPAddresses.h"
#include "gp/Owned.h"
#include "support/ManualClock.h"
#include "support/Objects.h"
#include "support/Patience.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sys/socket.h>
#include <thread>

namespace testsupport {

// Played names behind a gate: while it is shut, look-ups wait at it.
class GatedNames final : public platform::NameLookup {
public:
    PlayedNames played;

    void shut() {
        std::lock_guard lock(mutex_);
        open_ = false;
    }

    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        moved_.notify_all();
    }

    // Blocks until that many look-ups have come to the gate in all; false after the tests' patience.
    bool waitForArrivals(int count) {
        std::unique_lock lock(mutex_);
        return moved_.wait_for(lock, patience, [&] { return arrived_ >= count; });
    }

    bool gethostbyname2(const char* name, int family, platform::HostEntry& entry) override {
        {
            std::unique_lock lock(mutex_);
            ++arrived_;
            moved_.notify_all();
            moved_.wait(lock, [this] { return open_; });
        }
        return played.gethostbyname2(name, family, entry);
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }

private:
    std::mutex mutex_;
    std::condition_variable moved_;
    bool open_ = true;
    int arrived_ = 0;
};

class AddressesWorld : public SettingsWorld {
protected:
    AddressesWorld() { platform::nameLookupService.install(gate); }

    void resolves(const std::string& name, const std::string& address) {
        gate.played.answer(name, AF_INET, {address});
    }

    void stopsResolving(const std::string& name) { gate.played.forget(name, AF_INET); }

    std::size_t lookups() const { return gate.played.asked().size(); }

    static Owned<FilterIPAddresses> build() { return Owned<FilterIPAddresses>::adopt(buildIPaddresses()); }

    static Owned<FilterIPAddresses> current() {
        return Owned<FilterIPAddresses>::adopt(FilterIPAddresses::getCurrentIPAddresses());
    }

    // Blocks until the threads have begun sleeps of that many seconds in all; false after the tests' patience.
    static bool waitUntilSlept(std::int64_t seconds) {
        return waitUntil([=] { return ManualClock::installed().sleptMicroseconds() >= seconds * 1000000; });
    }

    // Blocks until the condition holds; false after the tests' patience.
    template <class Condition>
    static bool waitUntil(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

    static std::int64_t sleptSeconds() { return ManualClock::installed().sleptMicroseconds() / 1000000; }

    // One notice and the one pass that it starts, up to the second that its task sleeps because a server of
    // the list does not resolve.
    static bool rebuildOnce() {
        const std::int64_t before = sleptSeconds();
        FilterIPAddresses::notifyIPchanges();
        return waitUntilSlept(before + 1);
    }

    // References that exist on a snapshot.
    static int references(FilterIPAddresses* snapshot) { return testsupport::references(snapshot); }

    // Threads of the system under test look names up for the rest of the process.
    GatedNames& gate = *new GatedNames;
};

} // namespace testsupport
