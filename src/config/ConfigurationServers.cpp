// The list of filter servers, the current one, its rotation, and the marking down of servers.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterServer.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"

#include <atomic>
#include <cstring>

namespace {

ConfigurationState& state = configurationState;

// Failures within this many microseconds of the first count once.
constexpr long long downBurst = 3000000;

constexpr std::size_t shortestName = 3;

Owned<GPArray> serverSnapshot() { return Owned<GPArray>::adopt(state.serversArray->getArray()); }

FilterServer* serverAt(const Owned<GPArray>& servers, int index) {
    return static_cast<FilterServer*>(servers->objectAtIndex(index));
}

// The first active server in [from, end), or -1.
int findActive(const Owned<GPArray>& servers, int from, int end) {
    for (int i = from; i < end; ++i)
        if (serverAt(servers, i)->isActive()) return i;
    return -1;
}

// Where the rotation goes from index `current`: forward, then round, else it stays.
int nextActive(const Owned<GPArray>& servers, int current) {
    int chosen = findActive(servers, current + 1, servers->count());
    if (chosen < 0) chosen = findActive(servers, 0, current);
    return chosen < 0 ? current : chosen;
}

// The current server if it has that name, else the listed one; null if there is none.
FilterServer* reportedServer(const char* name) {
    FilterServer* current = Configuration::getCurrentServer();
    if (current && current->nameEquals(name)) return current;
    return Configuration::getFilterServer(name);
}

void markServersDirty() {
    state.bIsDirty = true;
    state.bServersDirty = true;
}

} // namespace

void setCurrentServer(FilterServer* server) { state.cachedServer.store(server, std::memory_order_release); }

void clearCurrentServer() { setCurrentServer(nullptr); }

FilterServer* Configuration::getCurrentServer() {
    if (FilterServer* current = state.cachedServer.load(std::memory_order_acquire)) return current;
    Owned<GPArray> servers = serverSnapshot();
    if (servers->count() == 0) return nullptr;
    const int active = findActive(servers, 0, servers->count());
    FilterServer* chosen = serverAt(servers, active < 0 ? 0 : active);
    FilterServer* none = nullptr;
    // Another thread may have chosen meanwhile; its choice stays current, and this one is answered anyway.
    state.cachedServer.compare_exchange_strong(none, chosen, std::memory_order_acq_rel);
    return chosen;
}

void Configuration::resetCurrentServer() {
    clearCurrentServer();
    getCurrentServer();
}

bool Configuration::hasCurrentServer() {
    return state.cachedServer.load(std::memory_order_acquire) != nullptr;
}

FilterServer* Configuration::getFilterServer(const char* nameOrIndex) {
    if (!nameOrIndex) return nullptr;
    int index = -1;
    if (std::strlen(nameOrIndex) < shortestName) {
        GPString number(nameOrIndex);
        index = number.intValue();
    }
    Owned<GPArray> servers = serverSnapshot();
    for (int i = 0; i < servers->count(); ++i) {
        FilterServer* server = serverAt(servers, i);
        if (i == index || server->nameEquals(nameOrIndex)) return server;
    }
    return nullptr;
}

bool Configuration::checkCurrentServer() {
    FilterServer* current = getCurrentServer();
    if (!current) return false;
    Owned<GPArray> servers = serverSnapshot();
    if (servers->count() == 0) return false;
    for (int i = 0; i < servers->count(); ++i) {
        FilterServer* server = serverAt(servers, i);
        if (server == current || server->nameEquals(current->getUrl())) return false;
    }
    if (isVerbose()) logf("Removing current server: %s from the config.", current->getUrl());
    resetCurrentServer();
    markServersDirty();
    return true;
}

const char* Configuration::serverName() {
    FilterServer* current = getCurrentServer();
    return current ? current->getUrl() : nullptr;
}

bool Configuration::addServerName(const char* name, bool save) { return addServerName(name, save, false); }

bool Configuration::addServerName(const char* name, bool save, bool replaceAll) {
    if (!name || !*name) return false;
    if (replaceAll) {
        state.serversArray->removeAll();
    } else if (getFilterServer(name)) {
        if (isVerbose()) logf("Server %s already present; not adding it.", name);
        return false;
    }
    auto server = Owned<FilterServer>::adopt(new FilterServer(name));
    if (!state.serversArray->addObject(server.get())) {
        logf("Failed to add server: %s to the config.", name);
        return false;
    }
    markServersDirty();
    if (save) saveConfig(true);
    if (isVerbose()) logf("Added server: %s to the config.", name);
    return true;
}

bool Configuration::removeServerName(const char* nameOrIndex, bool save) {
    if (!nameOrIndex || !*nameOrIndex) return false;
    FilterServer* server = getFilterServer(nameOrIndex);
    if (!server) {
        if (isVerbose()) logf("Server %s not present; not removing it.", nameOrIndex);
        return false;
    }
    // Never given back: another thread may still use the pointer.
    server->retain();
    if (state.cachedServer.load(std::memory_order_acquire) == server) clearCurrentServer();
    if (!state.serversArray->removeObject(server)) {
        if (isVerbose()) logf("Failed to remove server %s from the config.", nameOrIndex);
        return false;
    }
    markServersDirty();
    if (save) saveConfig(true);
    if (isVerbose()) logf("Removed server %s from the config.", nameOrIndex);
    return true;
}

bool Configuration::removeAllServers(bool save) {
    state.serversArray->removeAll();
    markServersDirty();
    if (save) saveConfig(true);
    return true;
}

FilterServer* Configuration::nextServer() {
    FilterServer* current = getCurrentServer();
    if (!current) return nullptr;
    Owned<GPArray> servers = serverSnapshot();
    if (servers->count() < 2) return current;
    const int index = servers->indexOfObject(current);
    if (index < 0) return current;
    FilterServer* next = serverAt(servers, nextActive(servers, index));
    if (next == current) return current;
    {
        GPMutexLock lock(state.mutex);
        setCurrentServer(next);
    }
    if (!isBalanced() && isVerbose()) logf("switched to backup server: %s\n", next->getUrl());
    return next;
}

void Configuration::addDownServer(const char* name) {
    FilterServer* server = reportedServer(name);
    if (!server) return;
    if (!server->getTimer()) {
        auto* timer = new GPTimer;
        timer->restart();
        server->setDownState(timer);
        logf("server: %s is down", server->getUrl());
        return;
    }
    bool counted = false;
    server->lock();
    // Under the lock the timer cannot go while it is read; it may have gone just before.
    GPTimer* timer = server->getTimer();
    if (timer && timer->elapsedTime() > downBurst) {
        timer->incrementRetry();
        counted = true;
    }
    server->unlock();
    if (counted) logf("server: %s is still down", server->getUrl());
}

void Configuration::removeDownServer(const char* name) {
    if (FilterServer* server = reportedServer(name)) server->removeDownState();
}

int Configuration::removeDownServers() { return 0; }

GPArray* Configuration::serverNames() { return state.serversArray->getArray(); }
