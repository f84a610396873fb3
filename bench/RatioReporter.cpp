#include "RatioReporter.h"

#include <cstdio>
#include <map>

namespace molvane::bench {

namespace {

class RecordingReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0)
                seconds_[run.benchmark_name()] = run.real_accumulated_time / double(run.iterations);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    const std::map<std::string, double>& Seconds() const { return seconds_; }

private:
    std::map<std::string, double> seconds_;
};

} // namespace

int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\nRatios (same run):\n");
    for (const Ratio& ratio : ratios) {
        const auto subject = reporter.Seconds().find(ratio.subject);
        const auto baseline = reporter.Seconds().find(ratio.baseline);
        if (subject == reporter.Seconds().end() || baseline == reporter.Seconds().end() || baseline->second <= 0) {
            std::printf("  %-48s  not measured\n", ratio.label.c_str());
            continue;
        }
        std::printf("  %-48s  %.3f x  (%.3f ms / %.3f ms)\n", ratio.label.c_str(), subject->second / baseline->second,
                    subject->second * 1e3, baseline->second * 1e3);
    }
    return 0;
}

} // namespace molvane::bench
