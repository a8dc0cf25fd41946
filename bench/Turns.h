#pragma once

// Measuring in turns: what is measured and what it is held against run one after the other, again and again, in
// changing order. The ratio is the median of the ratios of all rounds, so that a machine whose speed drifts, or that
// others use, moves both sides alike.

#include <functional>

namespace bench {

// What one operation took, in seconds: time that passed, and processor time of those who did it.
struct Cost {
    double wall = 0;
    double processor = 0;
};

// Runs one side's share of a round and tells the cost of one operation in it.
using Side = std::function<Cost()>;

// Medians over all rounds; the ratios are own by reference.
struct Comparison {
    Cost own;
    Cost reference;
    Cost ratio;
    int rounds = 0;
};

// Both sides run once in front, uncounted.
Comparison inTurns(const Side& own, const Side& reference, int rounds);

// The cost of one of `count` operations that `run` does on this thread.
Cost costOf(long count, const std::function<void()>& run);

// Now, in seconds from some fixed moment.
double secondsNow();

// Processor seconds of a process and its threads.
double processorSeconds(int process);

// Keeps the compiler from dropping what made this value.
template <class Value>
void keep(const Value& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

} // namespace bench
