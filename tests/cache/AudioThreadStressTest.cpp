// The decoding side and the device callback on two threads, as a host runs
// them: one thread appends (now and then in front, on known starts, before 0,
// without samples, from other runs), trims, clears and changes the slot
// count, while the other fills a fixed number of buffers at changing speeds,
// with restarts. Every frame holds a pattern that the fill cannot make up, so
// anything in a buffer but silence or that pattern is a read of freed,
// unwritten or misplaced memory. Built with ThreadSanitizer it also checks
// the locking.

#include <MolvaneAV/DecodedAudio.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int kRate = 48000, kBuffer = 256;

// Left 1000..20999, right its complement: never silence, and a sample frame
// read from one channel over or from the wrong frame breaks the pair.
std::shared_ptr<DecodedAudioFrame> PatternFrame(uint32_t sequence, int64_t start, int frames, int tag)
{
    auto frame = std::make_shared<DecodedAudioFrame>(2 * frames, frames, kRate, start,
                                                     start + int64_t(frames) * 1000000 / kRate - 1);
    for (int i = 0; i < frames; ++i) {
        frame->samples[2 * i] = int16_t(1000 + (sequence * 7919u + uint32_t(i)) % 20000u);
        frame->samples[2 * i + 1] = int16_t(~frame->samples[2 * i]);
    }
    frame->continuityTag = tag;
    return frame;
}

TEST(AudioThreadStress, FillsStayWholeAndCleanWhileTheDecodingSideChangesTheCache)
{
    // The play head, the steps and the stop travel relaxed, so that only the
    // cache's own locking orders the two threads for ThreadSanitizer.
    constexpr auto relaxed = std::memory_order_relaxed;
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    uint32_t sequence = 0;
    int64_t next = 0;
    for (; next < 1000000; next += 1024 * 1000000 / kRate) // the first second, before the fills start
        cache.AppendFrame(PatternFrame(sequence++, next, 1024, -1));
    std::atomic<long long> playhead{0};
    std::atomic<int> steps{0};
    std::atomic<bool> stop{false};
    // The decoding side: random work around the play head, counting its steps.
    std::thread decoder([&] {
        std::mt19937 random(20240611);
        // The first buffer is filled from the second cached before: on a
        // loaded machine this thread could otherwise clear it first.
        while (playhead.load(relaxed) == 0)
            std::this_thread::yield();
        for (; !stop.load(relaxed); steps.fetch_add(1, relaxed)) {
            const long long now = playhead.load(relaxed);
            next = std::max<int64_t>(next, now); // fell behind: a host would seek ahead
            const unsigned pick = random() % 1000;
            const int frames = int(random() % 6) * 400, tag = int(random() % 3) - 1;
            if (pick < 800 && next <= now + 1000000) { // after the newest, sometimes with a gap or an overlap
                cache.AppendFrame(PatternFrame(sequence++, next, frames, tag));
                next += int64_t(frames) * 1000000 / kRate + (pick < 200 ? int64_t(random() % 30000) - 10000 : 0);
            } else if (pick < 830) { // in front, on top of what is cached, or before 0
                const int64_t start = now - int64_t(random() % 200000) + (pick < 820 ? 50000 : -now);
                cache.AppendFrame(PatternFrame(sequence++, start, frames, tag));
            } else if (pick < 855) {
                pick < 840 ? cache.Clear() : pick < 850 ? cache.AppendFrame(nullptr) : cache.ForceClear();
                next = now;
            } else if (pick < 880) {
                cache.SetMaxFrameCount(int(random() % 48)); // 0 drops appends until the next change
            } else {
                cache.UpdateCache(now - int64_t(random() % 100000), now + int64_t(random() % 1000000));
            }
        }
    });
    const double speeds[] = {1.0, 1.0, 1.0, 1.5, 0.5, 2.0, 1.01};
    long long playTime = 0;
    int badFrames = 0;
    for (int call = 0; call < 4000; ++call) {
        const double speed = speeds[call / 200 % 7];
        if (call % 150 == 149)
            cache.FlushPaBuffer();
        std::vector<int16_t> buffer(2 * kBuffer, 0x7A7A);
        EXPECT_EQ(cache.PaFillBuffer(buffer.data(), kBuffer, 2, kRate, playTime, 1.0, call % 100 == 99, speed),
                  kBuffer);
        // The first second is cached: no silence in the first buffer.
        for (int n = 0; n < 2 * kBuffer; n += 2) {
            const int16_t left = buffer[n], right = buffer[n + 1];
            badFrames += (left || right || call == 0) && !(left >= 1000 && left < 21000 && right == int16_t(~left));
        }
        playTime += static_cast<long long>(kBuffer * speed * 1000000.0 / kRate);
        playhead.store(playTime, relaxed);
        // Each buffer lasts a few steps of the other side, however the threads are scheduled.
        for (const int due = steps.load(relaxed) + 8; steps.load(relaxed) < due;)
            std::this_thread::yield();
    }
    stop.store(true, relaxed);
    decoder.join();
    EXPECT_EQ(badFrames, 0) << "sample frames neither silence nor appended audio";
}

} // namespace
