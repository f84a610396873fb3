// Cost of one device fill: DecodedAudio::PaFillBuffer of 256 stereo sample
// frames at 48 kHz from a cache of 1024-frame records, play continuing from
// call to call as a device callback drives it, at normal speed and at 1.5,
// against a memcpy of the same 1 KiB (the floor of any fill). Also printed:
// the fill's share of the 5.33 ms the buffer lasts, which should stay well
// under 0.5 % so the callback never risks an underrun.

#include <MolvaneAV/DecodedAudio.h>

#include "RatioReporter.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kBufferFrames = 256;
constexpr int kRecordFrames = 1024;
constexpr int kRecords = 200; // about 4.3 s of audio
constexpr double kBufferSeconds = double(kBufferFrames) / kRate;

// Seconds per call of each fill benchmark's longest run, for the share.
std::map<std::string, double>& SecondsPerCall()
{
    static std::map<std::string, double> seconds;
    return seconds;
}

void Fill(benchmark::State& state, double speed, const char* name)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(kRecords + 8);
    const int64_t recordMicroseconds = int64_t(kRecordFrames) * 1000000 / kRate;
    for (int r = 0; r < kRecords; ++r) {
        const int64_t start = r * recordMicroseconds;
        auto record = std::make_shared<DecodedAudioFrame>(kRecordFrames * kChannels, kRecordFrames, kRate, start,
                                                          start + recordMicroseconds - 1);
        for (int i = 0; i < kRecordFrames * kChannels; ++i)
            record->samples[i] = static_cast<int16_t>((r * 131 + i * 7) % 20000 - 10000);
        cache.AppendFrame(std::move(record));
    }
    // Start over a little before the cached audio runs out; one fill in
    // several hundred then looks its place up by time.
    const double sourcePerCall = kBufferFrames * speed;
    const int callsPerPass = int((kRecords - 2) * kRecordFrames / sourcePerCall);

    std::vector<int16_t> buffer(size_t(kBufferFrames) * kChannels);
    int call = 0;
    int64_t calls = 0;
    const Clock::time_point begin = Clock::now();
    for (auto _ : state) {
        const bool restart = call == 0;
        const auto playTime = static_cast<long long>(call * sourcePerCall * 1000000.0 / kRate);
        benchmark::DoNotOptimize(
            cache.PaFillBuffer(buffer.data(), kBufferFrames, kChannels, kRate, playTime, 0.8, restart, speed));
        benchmark::ClobberMemory();
        call = call + 1 == callsPerPass ? 0 : call + 1;
        ++calls;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (calls > 0 && state.iterations() >= int64_t(1000))
        SecondsPerCall()[name] = seconds / double(calls);
    state.SetBytesProcessed(int64_t(state.iterations()) * kBufferFrames * kChannels * int64_t(sizeof(int16_t)));
}

void FillNormalSpeed(benchmark::State& state)
{
    Fill(state, 1.0, "speed 1.0");
}

void FillSpeed1_5(benchmark::State& state)
{
    Fill(state, 1.5, "speed 1.5");
}

// The same bytes copied: from a source as long as the cache's audio, so the
// copy walks memory the way the fill does.
void Memcpy(benchmark::State& state)
{
    std::vector<int16_t> source(size_t(kRecords) * kRecordFrames * kChannels, 1);
    std::vector<int16_t> buffer(size_t(kBufferFrames) * kChannels);
    const size_t bytes = buffer.size() * sizeof(int16_t);
    const size_t positions = source.size() / buffer.size() - 1;
    size_t at = 0;
    for (auto _ : state) {
        std::memcpy(buffer.data(), source.data() + at * buffer.size(), bytes);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
        at = at + 1 == positions ? 0 : at + 1;
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

BENCHMARK(Memcpy);
BENCHMARK(FillNormalSpeed);
BENCHMARK(FillSpeed1_5);

} // namespace

int main(int argc, char** argv)
{
    const int result = molvane::bench::RunWithRatios(
        argc, argv,
        {{"fill of 256 frames / memcpy of 1 KiB (speed 1.0)", "FillNormalSpeed", "Memcpy"},
         {"fill of 256 frames / memcpy of 1 KiB (speed 1.5)", "FillSpeed1_5", "Memcpy"},
         {"fill at speed 1.5 / fill at speed 1.0", "FillSpeed1_5", "FillNormalSpeed"}});
    std::printf("\nShare of the %.3f ms a 256-frame buffer lasts at 48 kHz (target < 0.5 %%):\n",
                kBufferSeconds * 1e3);
    for (const auto& [name, seconds] : SecondsPerCall())
        std::printf("  fill at %-10s  %.4f %%  (%.3f us per call)\n", name.c_str(), 100.0 * seconds / kBufferSeconds,
                    seconds * 1e6);
    return result;
}
