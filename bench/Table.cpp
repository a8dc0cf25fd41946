#include "bench/Table.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace bench {
namespace {

using Json = nlohmann::ordered_json;

const char* word(const Goal& goal) { return goal.kind == Goal::Kind::atMost ? "at most" : "at least"; }

Json shown(const Goal& goal) { return {{"kind", word(goal)}, {"limit", goal.limit}}; }

void write(const Json& line) {
    std::puts(line.dump().c_str());
    std::fflush(stdout);
}

Json costs(const Names& names, const Comparison& measured) {
    return {{"what", names.what},
            {"reference", names.reference},
            {"unit", "s"},
            {"own", measured.own.wall},
            {"referenceValue", measured.reference.wall},
            {"ratio", measured.ratio.wall},
            {"ownProcessor", measured.own.processor},
            {"referenceProcessor", measured.reference.processor},
            {"processorRatio", measured.ratio.processor},
            {"rounds", measured.rounds}};
}

} // namespace

void row(const Names& names, const Comparison& measured, Goal goal, std::optional<Goal> processor) {
    Json line = costs(names, measured);
    const double ratio = goal.kind == Goal::Kind::atLeast ? 1 / measured.ratio.wall : measured.ratio.wall;
    line["ratio"] = ratio;
    line["goal"] = shown(goal);
    if (processor) line["processorGoal"] = shown(*processor);
    line["met"] = goal.isMetBy(ratio) && (!processor || processor->isMetBy(measured.ratio.processor));
    write(line);
}

void row(const Names& names, const Comparison& measured) { write(costs(names, measured)); }

void row(const Names& names, const std::string& unit, double own, double reference, Goal goal) {
    const double ratio = own / reference;
    write({{"what", names.what},
           {"reference", names.reference},
           {"unit", unit},
           {"own", own},
           {"referenceValue", reference},
           {"ratio", ratio},
           {"goal", shown(goal)},
           {"met", goal.isMetBy(ratio)}});
}

} // namespace bench
