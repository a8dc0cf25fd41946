#include "lab/PlayedClock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>
#include <thread>

namespace lab {
namespace {

// How often a sleeping thread looks at the played time.
constexpr std::int64_t glance = 20000;

// Whoever is given the memory can read it, and not cut it short beneath the lab.
constexpr int sealed = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;

} // namespace

PlayedClock::PlayedClock(std::int64_t haste)
    : memory_(memfd_create("played clock", MFD_CLOEXEC | MFD_ALLOW_SEALING)), haste_(haste) {
    void* memory = MAP_FAILED;
    if (ftruncate(memory_, sizeof *now_) == 0)
        memory = mmap(nullptr, sizeof *now_, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0);
    if (memory == MAP_FAILED || fcntl(memory_, F_ADD_SEALS, sealed) != 0)
        throw std::runtime_error("no shared memory for the played clock");
    now_ = new (memory) std::atomic<std::int64_t>(0);
}

PlayedClock::~PlayedClock() {
    munmap(now_, sizeof *now_);
    close(memory_);
}

void PlayedClock::sleepFor(std::int64_t microseconds) {
    const std::int64_t due = *now_ + microseconds;
    for (std::int64_t left = microseconds / haste_; left > 0 && *now_ < due; left -= glance)
        std::this_thread::sleep_for(std::chrono::microseconds(std::min(left, glance)));
}

} // namespace lab
