#pragma once

// Base of the tests around the settings' locks: the locks themselves, by what takes them, and a machine with one network
// interface and no name that resolves.

#include "config/Configuration.h"
#include "filter/FilterQuery.h"
#include "gp/GPDate.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/HeldLocks.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <future>
#include <string>
#include <utility>

namespace testsupport {

class SettingsLocksWorld : public SettingsWorld {
protected:
    SettingsLocksWorld() {
        names_.install();
        interfaces_.install();
        interfaces_.show(EntryBuilder().link("en0", "\x02\x11\x22\x33\x44\x55").ipv4("en0", "192.0.2.1"));
    }

    // Runs the same on two threads that both wait at a lock before the first of them gets it.
    template <class Operation>
    static auto bothAt(const GPMutex* lock, Operation operation) {
        const_cast<GPMutex*>(lock)->lock();
        const WatchedLock watched(lock);
        auto one = std::async(std::launch::async, operation);
        auto other = std::async(std::launch::async, operation);
        EXPECT_TRUE(watched.awaitWaiters(2));
        const_cast<GPMutex*>(lock)->unlock();
        return std::pair(one.get(), other.get());
    }

    static const GPMutex* lockOf(FilterServer* server) {
        return firstLockOf([server] {
            server->lock();
            server->unlock();
        });
    }

    static const GPMutex* serverLock() {
        return firstLockOf([] {
            FilterQuery::lockServers();
            FilterQuery::unlockServers();
        });
    }

    static void setTime(const char* text) {
        Configuration::setCheckInTimeStamp(Owned<GPString>::adopt(new GPString(text)).get());
    }

    static bool hasTime() { return bool(Owned<GPDate>::adopt(Configuration::checkInTimeStamp())); }

    const GPMutex* mutex = firstLockOf([] { Configuration::saveConfig(true); });
    const GPMutex* valuesMutex = firstLockOf([] { hasTime(); });

private:
    // Both outlive the test, as a background thread may.
    PlayedNames& names_ = *new PlayedNames;
    PlayedInterfaces& interfaces_ = *new PlayedInterfaces;
};

} // namespace testsupport
