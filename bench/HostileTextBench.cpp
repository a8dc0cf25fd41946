// What texts cost that were made to be slow, at 256 KB and at 1 MB: where the steps are in proportion to the text,
// four times the text takes about four times as long.

#include "support/HostileInputs.h"

#include <benchmark/benchmark.h>

#include <cstddef>

namespace {

const bool registered = [] {
    for (const auto& input : testsupport::hostileInputs()) {
        const auto run = [&input](benchmark::State& state) {
            const auto read = input.make(static_cast<std::size_t>(state.range(0)));
            for (auto _ : state)
                read();
        };
        benchmark::RegisterBenchmark(("Hostile/" + input.name).c_str(), run)
            ->Arg(1 << 18)
            ->Arg(1 << 20)
            ->MinTime(0.05);
    }
    return true;
}();

} // namespace
