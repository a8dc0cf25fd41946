// A library that is loaded in front of a program of this system. Its output goes out by lines, so that the lab sees each
// as it comes. The time and the sleeps of its clock are the lab's played ones, from the memory whose descriptor the
// environment names; without that variable they are the machine's.

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

const std::atomic<std::int64_t>* played = nullptr;

// As the lab's own clock sleeps: until the length has been played, or a tenth of it has really passed.
constexpr std::int64_t glance = 20000;
constexpr std::int64_t haste = 10;

// The programs that this one starts have the machine's time.
[[gnu::constructor]] void comeBetween() {
    unsetenv("LD_PRELOAD");
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char* number = std::getenv("OSTLER_PLAYED_CLOCK");
    if (!number) return;
    const int descriptor = static_cast<int>(std::strtol(number, nullptr, 10));
    void* memory = mmap(nullptr, sizeof *played, PROT_READ, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) std::abort();
    played = static_cast<const std::atomic<std::int64_t>*>(memory);
    close(descriptor);
    unsetenv("OSTLER_PLAYED_CLOCK");
}

template <typename Function>
Function* machines(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void sleepFor(std::int64_t microseconds) {
    const std::int64_t due = *played + microseconds;
    for (std::int64_t left = microseconds / haste; left > 0 && *played < due; left -= glance) {
        const timespec pause = {0, static_cast<long>(std::min(left, glance)) * 1000};
        nanosleep(&pause, nullptr);
    }
}

} // namespace

extern "C" {

int gettimeofday(timeval* time, void* zone) noexcept {
    if (!played) return machines<int(timeval*, void*)>("gettimeofday")(time, zone);
    const std::int64_t now = *played;
    time->tv_sec = now / 1000000;
    time->tv_usec = now % 1000000;
    return 0;
}

time_t time(time_t* place) noexcept {
    if (!played) return machines<time_t(time_t*)>("time")(place);
    const time_t now = *played / 1000000;
    if (place) *place = now;
    return now;
}

int usleep(useconds_t microseconds) {
    if (!played) return machines<int(useconds_t)>("usleep")(microseconds);
    sleepFor(microseconds);
    return 0;
}

unsigned sleep(unsigned seconds) {
    if (!played) return machines<unsigned(unsigned)>("sleep")(seconds);
    sleepFor(std::int64_t{seconds} * 1000000);
    return 0;
}

} // extern "C"
