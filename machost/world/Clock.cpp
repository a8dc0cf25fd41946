#include "machost/world/Clock.h"

#include "machost/world/World.h"

#include <time.h>

#include <cerrno>
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

} // namespace

std::int64_t now() {
    const Answer answer = ask({"now"});
    return answer.kind == Answer::yes && !answer.words.empty() ? std::stoll(answer.words[0])
                                                               : read(CLOCK_REALTIME);
}

void sleep(std::int64_t microseconds) {
    if (ask({"sleep", std::to_string(microseconds)}).kind == Answer::real) sleepReally(microseconds);
}

std::int64_t eventLimit(std::int64_t microseconds) {
    const Answer answer = ask({"event-limit", std::to_string(microseconds / 1000000)});
    return answer.kind == Answer::yes && !answer.words.empty() ? std::stoll(answer.words[0]) : microseconds;
}

std::int64_t monotonic() { return read(CLOCK_MONOTONIC); }

} // namespace machost::world
