#pragma once

// A replaceable operating-system service: one slot for each service class. The slot is set at compile time
// to the backend of this system, so that it serves objects that are built before main. A test swaps a
// service for the life of its process, before any other thread runs.

#include <atomic>

namespace platform {

template <class Interface>
class Service {
public:
    constexpr explicit Service(Interface* backend) : backend_(backend), current_(backend) {}

    // The service in force; never null. Any thread.
    Interface& get() const { return *current_.load(std::memory_order_acquire); }

    // Puts another implementation in force, which must live as long as the process.
    void install(Interface& replacement) { current_.store(&replacement, std::memory_order_release); }

    // The backend of this system, whatever is in force.
    Interface& backend() const { return *backend_; }

private:
    Interface* const backend_;
    std::atomic<Interface*> current_;
};

} // namespace platform
