// Cost of the video cache's operations as the cache grows from 25 to 250 and
// 2,500 frames. Appends at either end and look-ups by time must stay flat
// (or logarithmic): the ring pushes in constant time and searches by
// bisection. UpdateCache adds up the bytes on each side of the play position
// and is linear by design. Frames carry 16-byte buffers so that only the
// cache's own work is measured. Printed per operation, side by side, with
// each size's ratio to the 25-frame cache of the same run.

#include <MolvaneAV/DecodedVideo.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using FramePtr = std::shared_ptr<DecodedVideoFrame>;

constexpr int64_t kStep = 40000;
constexpr int kBytes = 16;
constexpr int kSizes[] = {25, 250, 2500};
// Appends are timed in batches that double the cache; this many per size.
constexpr int64_t kAppendsPerSize = 1000000;
constexpr int kTimes = 4096;

FramePtr MakeFrame(int64_t start)
{
    static const uint8_t bytes[kBytes] = {};
    auto frame = std::make_shared<DecodedVideoFrame>(bytes, kBytes, 4, 4, start, 25.0, 0, false);
    frame->endTime = start + kStep - 1;
    return frame;
}

// Budget and slots for three times `frames` frames: no growth while a batch
// doubles the cache, and never full.
void Reserve(DecodedVideo& cache, int frames)
{
    cache.SetMaxCacheSize(int64_t(3) * frames * kBytes, kBytes, 1, 1);
}

// A cache of n frames, then n more appended at the back (or the front):
// only those n appends are timed, and reported per append. Refilling and
// making the frames are not.
void Append(benchmark::State& state, int n, bool atBack)
{
    const int64_t base = int64_t(1) << 40; // room before the list for front pushes
    DecodedVideo cache;
    Reserve(cache, n);
    std::vector<FramePtr> batch;
    for (auto _ : state) {
        cache.ForceClear();
        for (int i = 0; i < n; ++i)
            cache.AppendFrame(MakeFrame(base + i * kStep));
        batch.clear();
        for (int i = 0; i < n; ++i)
            batch.push_back(MakeFrame(atBack ? base + (n + i) * kStep : base - (i + 1) * kStep));

        const auto start = std::chrono::steady_clock::now();
        for (const FramePtr& frame : batch)
            cache.AppendFrame(frame);
        const auto stop = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count() / n);
    }
    if (cache.GetFrameCount() != 2 * n || cache.GetMaxFrameCount() < 2 * n + 1)
        state.SkipWithError("the batch did not land in the cache as planned");
}

// n frames around an anchor, half pushed before it: a wrapped ring.
void FillWrapped(DecodedVideo& cache, int n)
{
    Reserve(cache, n);
    const int64_t anchor = int64_t(1) << 40;
    cache.AppendFrame(MakeFrame(anchor));
    for (int i = 1; i < n; ++i)
        cache.AppendFrame(MakeFrame(i % 2 ? anchor - (i + 1) / 2 * kStep : anchor + i / 2 * kStep));
}

std::vector<int64_t> RandomTimes(const DecodedVideo& cache)
{
    std::mt19937_64 random(5);
    std::uniform_int_distribution<int64_t> within(cache.GetStartTime(), cache.GetEndTime());
    std::vector<int64_t> times(kTimes);
    for (int64_t& time : times)
        time = within(random);
    return times;
}

void FindByTime(benchmark::State& state, int n)
{
    DecodedVideo cache;
    FillWrapped(cache, n);
    const std::vector<int64_t> times = RandomTimes(cache);
    for (int64_t time : times) {
        if (!cache.GetFrame(time, 0)) {
            state.SkipWithError("a time inside the cache found nothing");
            return;
        }
    }
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(cache.GetFrame(times[i++ % kTimes], 0));
}

void Update(benchmark::State& state, int n)
{
    DecodedVideo cache;
    FillWrapped(cache, n);
    const std::vector<int64_t> times = RandomTimes(cache);
    const int64_t mediaEnd = cache.GetEndTime() + 1000000;
    size_t i = 0;
    for (auto _ : state) {
        cache.UpdateCache(times[i++ % kTimes], mediaEnd, true, true);
        benchmark::DoNotOptimize(cache.CanCacheForwards());
    }
    if (cache.GetFrameCount() != n)
        state.SkipWithError("the cache dropped frames");
}

class TableReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0)
                seconds_[run.run_name.function_name] = run.real_accumulated_time / double(run.iterations);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void PrintTable(const std::vector<std::string>& operations) const
    {
        std::printf("\nPer operation, ns (same run)     %10s %10s %10s   %8s %9s\n", "25", "250", "2500", "250/25",
                    "2500/25");
        for (const std::string& operation : operations) {
            double ns[3] = {0, 0, 0};
            bool measured = true;
            for (int s = 0; s < 3; ++s) {
                const auto found = seconds_.find(operation + "/" + std::to_string(kSizes[s]));
                measured = measured && found != seconds_.end() && found->second > 0;
                ns[s] = measured ? found->second * 1e9 : 0;
            }
            if (!measured) {
                std::printf("  %-30s not measured\n", operation.c_str());
                continue;
            }
            std::printf("  %-30s %10.1f %10.1f %10.1f   %7.2fx %8.2fx\n", operation.c_str(), ns[0], ns[1], ns[2],
                        ns[1] / ns[0], ns[2] / ns[0]);
        }
    }

private:
    std::map<std::string, double> seconds_;
};

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> operations = {"AppendFrame at the back", "AppendFrame at the front",
                                                 "GetFrame at a random time", "UpdateCache (linear)"};
    for (int n : kSizes) {
        const std::string size = "/" + std::to_string(n);
        benchmark::RegisterBenchmark((operations[0] + size).c_str(), Append, n, true)
            ->UseManualTime()
            ->Iterations(kAppendsPerSize / n);
        benchmark::RegisterBenchmark((operations[1] + size).c_str(), Append, n, false)
            ->UseManualTime()
            ->Iterations(kAppendsPerSize / n);
        benchmark::RegisterBenchmark((operations[2] + size).c_str(), FindByTime, n);
        benchmark::RegisterBenchmark((operations[3] + size).c_str(), Update, n);
    }

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    reporter.PrintTable(operations);
    return 0;
}
