#pragma once

// What a policy query cannot do without, and nothing else: a new thread for each, its frame in one send under a lock, a
// semaphore on which it waits, and one reader that posts it. No record, no log, no text is read. Shows how much of a
// query's cost is the threads.

#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace bench {

class BareQueries {
public:
    static constexpr int slots = 30;

    // Connects to the agent's port and starts the reader. Throws when nobody listens.
    BareQueries();

    BareQueries(const BareQueries&) = delete;
    BareQueries& operator=(const BareQueries&) = delete;

    // Asks on a slot whose last question is answered.
    void send(std::size_t slot);
    bool isAnswered(std::size_t slot) const { return slots_[slot].answered; }

    // None is ever lost.
    [[noreturn]] void giveUp(std::size_t slot);

private:
    struct Slot {
        BareQueries* owner = nullptr;
        std::uint32_t number = 0;
        pthread_t thread{};
        sem_t reply{};
        std::atomic<bool> answered{true};
    };

    static void* query(void* slot);
    void read();

    int socket_ = -1;
    pthread_mutex_t sending_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t replies_ = PTHREAD_MUTEX_INITIALIZER;
    std::array<Slot, slots> slots_;
};

} // namespace bench
