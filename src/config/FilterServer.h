#pragma once

// One filter server: its name, what kind of server it is, the last address it resolved to, and whether it is
// marked down. Configuration's server list owns the records; a record that was listed once stays alive for
// the rest of the run, so any thread may keep the pointer. The lock guards the timer and the type probe; all
// else is a plain read or write.

#include "gp/GPObject.h"
#include "gp/ThreadSafety.h"

#include <atomic>
#include <cstdint>

class GPMutex;
class GPTimer;

enum ServerType : std::int32_t {
    ServerTypeUnknown = 0, // not probed yet
    ServerTypeOrdinary = 1,
    ServerTypeIIS = 2, // names itself "Microsoft-IIS..."
};

class FilterServer : public GPObject {
public:
    // A new server is of the ordinary kind, active, without an address. The name is copied.
    explicit FilterServer(const char* serverName);
    explicit FilterServer(GPString* serverName);
    ~FilterServer() override;

    // The name, borrowed.
    GPString* getName() const { return name_.load(std::memory_order_acquire); }

    // Stores a copy; an empty text for null. The earlier name stays valid and is not released.
    void setName(GPString* serverName);

    // The text of the name, borrowed; null if there is no name.
    const char* getUrl() const;

    // Whether the name is exactly `other`; false for null.
    bool nameEquals(const char* other) const;

    ServerType getServerType() const { return serverType_.load(std::memory_order_relaxed); }
    void setServerType(ServerType type) { serverType_.store(type, std::memory_order_relaxed); }

    // The last resolved IPv4 address in host order; 0 for none.
    unsigned getIPAddr() const { return ipAddr_.load(std::memory_order_relaxed); }
    void setIPAddr(unsigned address) { ipAddr_.store(address, std::memory_order_relaxed); }

    // The down timer, borrowed; null while the server is not marked down.
    GPTimer* getTimer() const { return timer_.load(std::memory_order_acquire); }

    // Stores the timer, whose reference passes to the server, and releases the one before it.
    void setTimer(GPTimer* timer) EXCLUDES(mutex_);

    // Marks the server down since `timer`, whose reference passes to the server.
    void setDownState(GPTimer* timer) EXCLUDES(mutex_);

    // Marks the server active again and drops the timer.
    void removeDownState() EXCLUDES(mutex_);

    // The server's own lock, for the type probe. Not recursive; the three timer operations take it as well.
    void lock() ACQUIRE(mutex_);
    void unlock() RELEASE(mutex_);

    // Whether the server answered the HTTPS probe.
    bool isUseHttps() const { return useHttps_.load(std::memory_order_relaxed); }
    void setUseHttps(bool https) { useHttps_.store(https, std::memory_order_relaxed); }

    // False while the server is marked down.
    bool isActive() const { return active_.load(std::memory_order_relaxed); }
    void setActive(bool active) { active_.store(active, std::memory_order_relaxed); }

    GPString* className() override;

private:
    std::atomic<GPString*> name_;
    std::atomic<ServerType> serverType_{ServerTypeOrdinary};
    std::atomic<unsigned> ipAddr_{0};
    std::atomic<bool> active_{true};
    GPMutex* mutex_;
    std::atomic<GPTimer*> timer_{nullptr};
    std::atomic<bool> useHttps_{false};
};
