#include "bench/Groups.h"

#include "support/HostileInputs.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <malloc.h>
#include <vector>

namespace bench {
namespace {

constexpr std::size_t largest = 4u << 20;

// More than any cache holds.
constexpr std::size_t beyondCaches = 96u << 20;

// Both sizes of a text are read in the same state of the machine. Else the ratio of some pair tells where the processor's
// caches end, or the memory that the allocator keeps from one reading to the next: what 4 MB left behind is enough for 2 MB.
void startAfresh() {
    static std::vector<char> other(beyondCaches);
    malloc_trim(0);
    for (std::size_t at = 0; at < other.size(); at += 64)
        ++other[at];
}

// All large pieces of memory are taken from the system and given back to it, whatever was freed before.
void keepNoMemory() {
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    mallopt(M_TRIM_THRESHOLD, 128 << 10);
}

// A side that reads the input, often enough for the clock to tell.
Side reading(std::function<void()> read) {
    const double once = costOf(1, read).wall;
    const long times = std::max(1L, std::min(10L, static_cast<long>(0.002 / once)));
    return [read = std::move(read), times] {
        Cost all;
        for (long i = 0; i < times; ++i) {
            startAfresh();
            const Cost one = costOf(1, read);
            all.wall += one.wall / static_cast<double>(times);
            all.processor += one.processor / static_cast<double>(times);
        }
        return all;
    };
}

} // namespace

void hostileRows(const Effort& effort) {
    const std::size_t size = effort.quick ? largest / 16 : largest;
    keepNoMemory();
    for (const auto& input : testsupport::hostileInputs()) {
        const Comparison measured =
            inTurns(reading(input.make(size)), reading(input.make(size / 2)), effort.rounds());
        row({"hostile, " + input.name + " of 4 MB", "of 2 MB"}, measured, atMost(2.2));
    }
}

void hostileCurves(const Effort& effort) {
    keepNoMemory();
    const std::size_t last = effort.quick ? largest / 16 : largest;
    for (const auto& input : testsupport::hostileInputs()) {
        nlohmann::ordered_json points = nlohmann::ordered_json::array();
        for (std::size_t size = 1 << 14; size <= last; size *= 4) {
            const Side side = reading(input.make(size));
            std::vector<double> times;
            for (int round = 0; round < effort.rounds(5); ++round)
                times.push_back(side().processor);
            std::sort(times.begin(), times.end());
            points.push_back({size, times[times.size() / 2]});
        }
        const nlohmann::ordered_json line = {{"curve", "hostile"}, {"name", input.name}, {"points", points}};
        std::puts(line.dump().c_str());
    }
    std::fflush(stdout);
}

} // namespace bench
