#include "bench/Turns.h"

#include <algorithm>
#include <ctime>
#include <vector>

namespace bench {
namespace {

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

template <class Field>
double medianOf(const std::vector<Cost>& costs, Field field) {
    std::vector<double> values;
    for (const Cost& cost : costs)
        values.push_back(cost.*field);
    return median(values);
}

Cost medians(const std::vector<Cost>& costs) {
    return {medianOf(costs, &Cost::wall), medianOf(costs, &Cost::processor)};
}

} // namespace

double secondsNow() { return secondsOf(CLOCK_MONOTONIC); }

double processorSeconds(int process) {
    clockid_t clock{};
    return clock_getcpuclockid(process, &clock) == 0 ? secondsOf(clock) : 0;
}

Cost costOf(long count, const std::function<void()>& run) {
    const double processor = secondsOf(CLOCK_THREAD_CPUTIME_ID);
    const double wall = secondsNow();
    run();
    const auto operations = static_cast<double>(count);
    return {(secondsNow() - wall) / operations,
            (secondsOf(CLOCK_THREAD_CPUTIME_ID) - processor) / operations};
}

Comparison inTurns(const Side& own, const Side& reference, int rounds) {
    own();
    reference();
    std::vector<Cost> owns;
    std::vector<Cost> references;
    std::vector<Cost> ratios;
    for (int round = 0; round < rounds; ++round) {
        const bool ownFirst = round % 2 == 0;
        const Cost first = ownFirst ? own() : reference();
        const Cost second = ownFirst ? reference() : own();
        const Cost& mine = ownFirst ? first : second;
        const Cost& other = ownFirst ? second : first;
        owns.push_back(mine);
        references.push_back(other);
        ratios.push_back({mine.wall / other.wall, mine.processor / other.processor});
    }
    return {medians(owns), medians(references), medians(ratios), rounds};
}

} // namespace bench
