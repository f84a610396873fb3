// The decoding side and the device callback on two threads, as a host runs
// them: one thread appends frames in time order (now and then in front, as
// duplicates, before time 0 or without samples), trims, clears and resizes
// the cache, while the other fills 256-frame buffers every few hundred
// microseconds at changing speeds, with restarts. Every value a frame holds
// follows a pattern the fill cannot make up, so a buffer holding anything
// but silence or appended values shows a read of freed, unwritten or
// misaligned memory. Built with ThreadSanitizer it also checks the locking.
//
// Runs for MOLVANE_STRESS_MS milliseconds (2500 by default).

#include <MolvaneAV/DecodedAudio.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kBufferFrames = 256;

// Left channel 1000..20999, right its bitwise complement: never 0, and a
// sample frame read from the wrong place (one channel over, another frame's
// tail) breaks the pair.
int16_t PatternLeft(uint32_t sequence, int i)
{
    return static_cast<int16_t>(1000 + (sequence * 7919u + uint32_t(i)) % 20000u);
}

bool IsPatternPair(int16_t left, int16_t right)
{
    if (left == 0 && right == 0)
        return true; // silence, or the padding of a stitched frame
    return left >= 1000 && left < 21000 && right == static_cast<int16_t>(~left);
}

std::shared_ptr<DecodedAudioFrame> PatternFrame(uint32_t sequence, int64_t start, int frames, int tag)
{
    const int64_t end = start + int64_t(frames) * 1000000 / kRate - 1;
    auto frame = std::make_shared<DecodedAudioFrame>(frames * kChannels, frames, kRate, start, end);
    for (int i = 0; i < frames; ++i) {
        frame->samples[2 * i] = PatternLeft(sequence, i);
        frame->samples[2 * i + 1] = static_cast<int16_t>(~frame->samples[2 * i]);
    }
    frame->continuityTag = tag;
    return frame;
}

std::chrono::milliseconds RunTime()
{
    const char* text = std::getenv("MOLVANE_STRESS_MS");
    const long value = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    return std::chrono::milliseconds(value > 0 ? value : 2500);
}

struct DecoderCounts {
    int appends = 0;
    int trims = 0;
    int clears = 0;
    int resizes = 0;
};

// The decoding side: keeps up to about a second ahead of the play position,
// trims behind it, and now and then starts over or changes the slot count.
void Decode(DecodedAudio& cache, const std::atomic<bool>& stop, const std::atomic<long long>& playhead,
            DecoderCounts& counts)
{
    std::mt19937 random(20240611);
    uint32_t sequence = 0;
    int64_t next = 0;
    while (!stop.load(std::memory_order_relaxed)) {
        const long long now = playhead.load(std::memory_order_relaxed);
        if (next < now)
            next = now; // fell behind: decoding would seek ahead
        if (next > now + 1000000) {
            cache.UpdateCache(now - 50000, now + 1000000);
            ++counts.trims;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        const unsigned pick = random() % 1000;
        const int lengths[] = {0, 256, 480, 1024, 1152, 2048};
        const int frames = lengths[random() % 6];
        const int tag = int(random() % 3) - 1;
        if (pick < 800) {
            cache.AppendFrame(PatternFrame(sequence++, next, frames, tag));
            next += int64_t(frames) * 1000000 / kRate + (random() % 4 == 0 ? int64_t(random() % 30000) - 10000 : 0);
            ++counts.appends;
        } else if (pick < 880) {
            cache.UpdateCache(now - int64_t(random() % 100000), now + int64_t(random() % 1000000));
            ++counts.trims;
        } else if (pick < 900) {
            // In front of what is cached, or on top of it: placed or dropped.
            const int64_t start = now - int64_t(random() % 200000) + 50000;
            cache.AppendFrame(PatternFrame(sequence++, start, frames, tag));
            ++counts.appends;
        } else if (pick < 910) {
            cache.AppendFrame(PatternFrame(sequence++, -int64_t(random() % 40000), frames, tag));
            ++counts.appends;
        } else if (pick < 930) {
            if (random() % 2 == 0)
                cache.Clear();
            else
                cache.AppendFrame(nullptr);
            next = now;
            ++counts.clears;
        } else if (pick < 935) {
            cache.ForceClear();
            next = now;
            ++counts.clears;
        } else if (pick < 960) {
            // Including 0 (appends dropped until the next resize) and 1.
            cache.SetMaxFrameCount(int(random() % 48));
            ++counts.resizes;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
        }
    }
}

TEST(AudioThreadStress, FillWhileTheDecodingSideAppendsTrimsAndClears)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    std::atomic<bool> stop{false};
    std::atomic<long long> playhead{0};
    DecoderCounts counts;
    std::thread decoder(Decode, std::ref(cache), std::cref(stop), std::cref(playhead), std::ref(counts));

    std::mt19937 random(7);
    const double speeds[] = {1.0, 1.0, 1.0, 1.5, 0.5, 2.0, 1.01};
    std::vector<int16_t> buffer(size_t(kBufferFrames) * kChannels);
    long long playTime = 0;
    int64_t calls = 0;
    int64_t sounding = 0;
    int64_t badCalls = 0;
    int64_t badFrames = 0;
    std::string firstBad;
    const auto deadline = std::chrono::steady_clock::now() + RunTime();
    double speed = 1.0;
    while (std::chrono::steady_clock::now() < deadline) {
        if (random() % 200 == 0)
            speed = speeds[random() % 7];
        const bool reset = random() % 100 == 0;
        if (random() % 150 == 0)
            cache.FlushPaBuffer();
        std::fill(buffer.begin(), buffer.end(), int16_t(0x7A7A));
        const int written =
            cache.PaFillBuffer(buffer.data(), kBufferFrames, kChannels, kRate, playTime, 1.0, reset, speed);
        ++calls;
        if (written != kBufferFrames)
            ++badCalls;
        for (int n = 0; n < kBufferFrames; ++n) {
            const int16_t left = buffer[2 * n];
            const int16_t right = buffer[2 * n + 1];
            if (!IsPatternPair(left, right)) {
                if (badFrames++ == 0) {
                    std::ostringstream text;
                    text << "call " << calls << " sample frame " << n << ": (" << left << ", " << right << ")";
                    firstBad = text.str();
                }
            } else if (left != 0) {
                ++sounding;
            }
        }
        playTime += static_cast<long long>(kBufferFrames * speed * 1000000.0 / kRate);
        playhead.store(playTime, std::memory_order_relaxed);
        std::this_thread::sleep_for(std::chrono::microseconds(100 + random() % 400));
    }
    stop = true;
    decoder.join();

    EXPECT_EQ(badCalls, 0) << "fills that did not return the frame count, of " << calls;
    EXPECT_EQ(badFrames, 0) << "sample frames neither silence nor appended audio; first: " << firstBad;
    // The run means something only if the fill played audio and the other
    // side did all of its kinds of work.
    EXPECT_GT(calls, 200);
    EXPECT_GT(sounding, calls * kBufferFrames / 10) << "sounding sample frames of " << calls * kBufferFrames;
    EXPECT_GT(counts.appends, 100);
    EXPECT_GT(counts.trims, 10);
    EXPECT_GT(counts.clears, 2);
    EXPECT_GT(counts.resizes, 2);
    std::printf("%lld fills, %.0f%% sounding; %d appends, %d trims, %d clears, %d resizes\n",
                static_cast<long long>(calls), 100.0 * double(sounding) / double(calls * kBufferFrames),
                counts.appends, counts.trims, counts.clears, counts.resizes);
}

} // namespace
