#pragma once

// The rows of the table: each is written as one line of JSON as soon as it is known. scripts/bench lays them out.

#include "bench/Turns.h"

#include <optional>
#include <string>

namespace bench {

// How much is done: everything, or each row just once, to see that it runs.
struct Effort {
    bool quick = false;

    int rounds(int wanted = 15) const { return quick ? 1 : wanted; }
    long count(long wanted) const { return quick ? (wanted + 19) / 20 : wanted; }
};

struct Goal {
    enum class Kind { atMost, atLeast };
    Kind kind;
    double limit;

    bool isMetBy(double ratio) const { return kind == Kind::atMost ? ratio <= limit : ratio >= limit; }
};

inline Goal atMost(double limit) { return {Goal::Kind::atMost, limit}; }
inline Goal atLeast(double limit) { return {Goal::Kind::atLeast, limit}; }

struct Names {
    std::string what;
    std::string reference;
};

// Costs. "At least" judges how many operations there are a second, "at most" what one takes; the second goal is for
// the processor time.
void row(const Names& names, const Comparison& measured, Goal goal, std::optional<Goal> processor = {});

// Costs that nobody set a goal for.
void row(const Names& names, const Comparison& measured);

// Two values of that unit.
void row(const Names& names, const std::string& unit, double own, double reference, Goal goal);

} // namespace bench
