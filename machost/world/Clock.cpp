#include "machost/world/Clock.h"

#include "machost/world/World.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <string>

namespace machost::world {
namespace {

std::int64_t read(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void sleepReally(std::int64_t microseconds) {
    timespec left{microseconds / 1000000, microseconds % 1000000 * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// The memory in which a world may keep its time, in microseconds; null where it does not.
const std::atomic<std::int64_t>* mapTime() {
    Line line({"clock"});
    int memory = -1;
    const auto answer = line.next(memory);
    if (memory < 0) return nullptr;
    struct stat found {};
    if (fstat(memory, &found) != 0 || found.st_size < static_cast<off_t>(sizeof(std::atomic<std::int64_t>)))
        endOverNonsense("a clock's memory without room for the time");
    void* mapped = mmap(nullptr, sizeof(std::atomic<std::int64_t>), PROT_READ, MAP_SHARED, memory, 0);
    close(memory);
    return mapped == MAP_FAILED ? nullptr : static_cast<const std::atomic<std::int64_t>*>(mapped);
}

const std::atomic<std::int64_t>* sharedTime() {
    static const std::atomic<std::int64_t>* const time = mapTime();
    return time;
}

// Whether the world has said that it plays no clock, which it does not take back.
std::atomic<bool> isReal{false};

// The played answer's words; nothing where the clock is this machine's.
std::optional<Words> askClock(const Words& question) {
    if (isReal) return std::nullopt;
    Answer answer = ask(question);
    if (answer.kind == Answer::yes) return std::move(answer.words);
    isReal = true;
    return std::nullopt;
}

std::optional<std::int64_t> askTime(const Words& question) {
    const std::optional<Words> words = askClock(question);
    if (!words) return std::nullopt;
    return numberIn(words->empty() ? "" : words->front());
}

} // namespace

std::int64_t now() {
    if (const auto* time = sharedTime()) return *time;
    const auto played = askTime({"now"});
    return played ? *played : read(CLOCK_REALTIME);
}

void sleep(std::int64_t microseconds) {
    if (!askClock({"sleep", std::to_string(microseconds)})) sleepReally(microseconds);
}

// Worlds play whole seconds alone, as the program asks for them.
std::int64_t eventLimit(std::int64_t microseconds) {
    if (microseconds < 1000000) return microseconds;
    return askTime({"event-limit", std::to_string(microseconds / 1000000)}).value_or(microseconds);
}

std::int64_t monotonic() { return read(CLOCK_MONOTONIC); }

} // namespace machost::world
