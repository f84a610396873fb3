#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <utility>
#include <vector>

namespace molvane::bench {

// A ratio to print after the run: time of `subject` over time of `baseline`,
// both benchmark names as Google Benchmark prints them.
struct Ratio {
    std::string label;
    std::string subject;
    std::string baseline;
};

// Runs the registered benchmarks with the console reporter, then prints each
// ratio from the mean real time per iteration of the two runs.
int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

} // namespace molvane::bench
