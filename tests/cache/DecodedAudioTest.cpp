// DecodedAudio as the decoding side and the device callback drive it:
// placement and stitching of frames, trimming, slots and growth, and the
// device fill with its start offset, volume, speed change, restarts and
// drift correction. Every sample frame of a test frame carries the frame's
// id and its own index, so a fill's output shows where each value came from.

#include <MolvaneAV/DecodedAudio.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using FramePtr = std::shared_ptr<DecodedAudioFrame>;
using Samples = std::vector<int16_t>; // interleaved stereo

constexpr int kRate = 48000;
constexpr int kChannels = 2;
// What a fill must overwrite: no test frame holds it.
constexpr int16_t kUnwritten = 0x7A7A;
constexpr int kIdStride = 2048;

// Sample frame i of frame `id`: left counts up from id * 2048 + 1, right is
// its negation, so a shifted or swapped channel shows too. Never 0.
int16_t Left(int id, int i)
{
    return static_cast<int16_t>(id * kIdStride + i + 1);
}

// Last microsecond of `frames` sample frames from start, as the decoder
// computes it.
int64_t EndOf(int64_t start, int frames)
{
    return start + int64_t(frames) * 1000000 / kRate - 1;
}

FramePtr MakeFrame(int id, int64_t start, int frames, int tag = -1)
{
    auto frame = std::make_shared<DecodedAudioFrame>(frames * kChannels, frames, kRate, start, EndOf(start, frames));
    for (int i = 0; i < frames; ++i) {
        frame->samples[2 * i] = Left(id, i);
        frame->samples[2 * i + 1] = static_cast<int16_t>(-Left(id, i));
    }
    frame->continuityTag = tag;
    return frame;
}

// Frames 0..count-1 of `frames` sample frames each, back to back from time 0
// (each starts right after the previous one's last microsecond).
void AppendBackToBack(DecodedAudio& cache, int count, int frames)
{
    const int64_t step = int64_t(frames) * 1000000 / kRate;
    for (int id = 0; id < count; ++id)
        cache.AppendFrame(MakeFrame(id, id * step, frames));
}

Samples Fill(DecodedAudio& cache, int frames, long long playTime, double speed = 1.0, bool reset = false,
             double volume = 1.0)
{
    Samples out(size_t(frames) * kChannels, kUnwritten);
    EXPECT_EQ(cache.PaFillBuffer(out.data(), frames, kChannels, kRate, playTime, volume, reset, speed), frames);
    return out;
}

// Sample frames first .. first + count - 1 of frame id, as stored.
Samples Span(int id, int first, int count)
{
    Samples out;
    for (int i = first; i < first + count; ++i) {
        out.push_back(Left(id, i));
        out.push_back(static_cast<int16_t>(-Left(id, i)));
    }
    return out;
}

// Whole frames of 480 sample frames, one after the other.
Samples Whole(std::initializer_list<int> ids)
{
    Samples out;
    for (const int id : ids) {
        const Samples span = Span(id, 0, 480);
        out.insert(out.end(), span.begin(), span.end());
    }
    return out;
}

Samples Repeated(int16_t left, int16_t right, int count)
{
    Samples out;
    for (int k = 0; k < count; ++k) {
        out.push_back(left);
        out.push_back(right);
    }
    return out;
}

Samples Silence(int count)
{
    return Repeated(0, 0, count);
}

Samples Cat(std::initializer_list<Samples> parts)
{
    Samples out;
    for (const Samples& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

std::string Describe(int16_t left, int16_t right)
{
    std::ostringstream text;
    text << "(" << left << ", " << right << ")";
    if (left == 0 && right == 0)
        text << " silence";
    else if (left > 0 && right == -left)
        text << " frame " << (left - 1) / kIdStride << " sample " << (left - 1) % kIdStride;
    else if (left == kUnwritten || right == kUnwritten)
        text << " never written";
    return text.str();
}

// Names the first differing sample frame and where both values came from.
testing::AssertionResult SameSamples(const Samples& actual, const Samples& expected)
{
    if (actual.size() != expected.size())
        return testing::AssertionFailure() << "got " << actual.size() / kChannels << " sample frames, expected "
                                           << expected.size() / kChannels;
    for (size_t n = 0; n < actual.size(); n += kChannels) {
        if (actual[n] != expected[n] || actual[n + 1] != expected[n + 1])
            return testing::AssertionFailure()
                   << "sample frame " << n / kChannels << " of " << actual.size() / kChannels << " is "
                   << Describe(actual[n], actual[n + 1]) << ", expected " << Describe(expected[n], expected[n + 1]);
    }
    return testing::AssertionSuccess();
}

// ---------------------------------------------------------------------------
// Placement

TEST(DecodedAudioPlacement, DropsEveryFrameUntilSlotsAreSet)
{
    DecodedAudio cache;
    EXPECT_EQ(cache.GetMaxFrameCount(), 0);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    EXPECT_FALSE(cache.FirstFrame());
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Silence(256)));

    cache.SetMaxFrameCount(0);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_EQ(cache.GetFrameCount(), 0);

    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_EQ(cache.GetFrameCount(), 1);
    EXPECT_EQ(cache.GetSize(), 960);
    EXPECT_TRUE(SameSamples(Fill(cache, 480, 0), Span(0, 0, 480)));
}

TEST(DecodedAudioPlacement, PlacesAtEitherEndAndDropsTheRest)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(16);
    const FramePtr a = MakeFrame(1, 100000, 480);
    const FramePtr b = MakeFrame(2, 200000, 480);
    const FramePtr c = MakeFrame(3, 50000, 480);
    cache.AppendFrame(a);
    EXPECT_EQ(cache.GetStartTime(), 100000);
    EXPECT_EQ(cache.GetEndTime(), 109999);
    cache.AppendFrame(b);
    cache.AppendFrame(c);
    ASSERT_EQ(cache.GetFrameCount(), 3);
    EXPECT_EQ(cache.FirstFrame(), c);
    EXPECT_EQ(cache.LastFrame(), b);
    // Neighbours meet: each ends 1 µs before the next begins.
    EXPECT_EQ(c->endTime, 99999);
    EXPECT_EQ(a->endTime, 199999);
    EXPECT_EQ(cache.GetStartTime(), 50000);
    EXPECT_EQ(cache.GetEndTime(), 209999);

    // Between the ends, or on the start of the first or last frame: dropped,
    // and the frames already there keep their times.
    cache.AppendFrame(MakeFrame(4, 150000, 480));
    cache.AppendFrame(MakeFrame(5, 50000, 960, 7));
    cache.AppendFrame(MakeFrame(6, 200000, 960, 7));
    cache.AppendFrame(MakeFrame(7, 100000, 960, 7));
    EXPECT_EQ(cache.GetFrameCount(), 3);
    EXPECT_EQ(cache.FirstFrame(), c);
    EXPECT_EQ(cache.LastFrame(), b);
    EXPECT_EQ(b->endTime, 209999);
    EXPECT_EQ(b->samplesPerChannel, 480);
    EXPECT_EQ(cache.GetSize(), 3 * 960);
    EXPECT_EQ(cache.GetStartTime(), 50000);
    EXPECT_EQ(cache.GetEndTime(), 209999);

    EXPECT_TRUE(SameSamples(Fill(cache, 1500, 50000), Cat({Whole({3, 1, 2}), Silence(60)})));
}

TEST(DecodedAudioPlacement, ClampsNegativeStartsAndDropsFramesEndingBeforeZero)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(1, -20000, 480)); // ends at -10001
    EXPECT_EQ(cache.GetFrameCount(), 0);

    const FramePtr straddling = MakeFrame(2, -5000, 480);
    cache.AppendFrame(straddling);
    ASSERT_EQ(cache.GetFrameCount(), 1);
    EXPECT_EQ(straddling->startTime, 0);
    EXPECT_EQ(cache.GetStartTime(), 0);
    EXPECT_EQ(cache.GetEndTime(), 4999);
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(2, 0, 256)));
}

TEST(DecodedAudioPlacement, EmptyFrameClearsTheCacheAndRestartsTheFill)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    AppendBackToBack(cache, 4, 480);
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(0, 0, 256)));

    cache.AppendFrame(nullptr);
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    EXPECT_EQ(cache.GetStartTime(), 0);
    EXPECT_EQ(cache.GetEndTime(), 0);
    EXPECT_FALSE(cache.FirstFrame());
    EXPECT_FALSE(cache.LastFrame());

    // Decoding starts over at the same times: the fill finds frame 2 by
    // time instead of going on from where it was.
    AppendBackToBack(cache, 4, 480);
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 20000), Span(2, 0, 256)));
}

// ---------------------------------------------------------------------------
// Stitching

TEST(DecodedAudioStitching, DifferentRunsPadTheLastFrameUpToTheNextSameRunOnlyMovesTheEnd)
{
    // 20000 µs of gap is 960 sample frames at 48 kHz.
    for (const auto& [nextTag, padded] : {std::pair{2, 960}, std::pair{1, 0}}) {
        SCOPED_TRACE(nextTag);
        DecodedAudio cache;
        cache.SetMaxFrameCount(8);
        auto last = std::make_shared<DecodedAudioFrame>(2048, 1024, kRate, 0, 999);
        last->continuityTag = 1;
        cache.AppendFrame(last);
        cache.AppendFrame(MakeFrame(1, 21000, 1024, nextTag));
        EXPECT_EQ(last->samplesPerChannel, 1024 + padded);
        EXPECT_EQ(last->sampleCount, 2 * (1024 + padded));
        EXPECT_EQ(last->bufferSampleCount, 2048);
        EXPECT_EQ(last->endTime, 20999);
        EXPECT_EQ(cache.GetSize(), 4096 + 2 * padded);
        EXPECT_EQ(cache.GetEndTime(), EndOf(21000, 1024));
    }
}

TEST(DecodedAudioStitching, OverlapCutsTheLastFrameShortAndPlaysOnlyItsStart)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    const FramePtr last = MakeFrame(0, 0, 1024, 1);
    last->endTime = 29999;
    cache.AppendFrame(last);
    cache.AppendFrame(MakeFrame(1, 20000, 480, 2));
    // 10000 µs of overlap is 480 sample frames.
    EXPECT_EQ(last->samplesPerChannel, 544);
    EXPECT_EQ(last->sampleCount, 1088);
    EXPECT_EQ(last->endTime, 19999);
    EXPECT_EQ(cache.GetSize(), 1088 + 960);

    EXPECT_TRUE(SameSamples(Fill(cache, 1100, 0), Cat({Span(0, 0, 544), Span(1, 0, 480), Silence(76)})));
}

TEST(DecodedAudioStitching, PaddingBeyondTheStoredSamplesPlaysAsSilence)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    const FramePtr first = MakeFrame(0, 0, 480, 1);
    cache.AppendFrame(first);
    cache.AppendFrame(MakeFrame(1, 20000, 480, 2));
    ASSERT_EQ(first->samplesPerChannel, 960);
    ASSERT_EQ(first->bufferSampleCount, 960);

    EXPECT_TRUE(SameSamples(Fill(cache, 1500, 0), Cat({Span(0, 0, 480), Silence(480), Span(1, 0, 480), Silence(60)})));
}

TEST(DecodedAudioStitching, FrontFrameIsPaddedUpToTheCachedStart)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(1, 100000, 480, 1));
    const FramePtr front = MakeFrame(0, 0, 480, 2);
    cache.AppendFrame(front);
    // 90000 µs up to the cached start: 4320 more sample frames.
    EXPECT_EQ(front->samplesPerChannel, 4800);
    EXPECT_EQ(front->sampleCount, 9600);
    EXPECT_EQ(front->endTime, 99999);
    EXPECT_EQ(cache.GetSize(), 960 + 9600);
    EXPECT_EQ(cache.GetStartTime(), 0);

    // The gap runs to 1 µs before the cached start: 124999 µs, 5999.952
    // sample frames, truncated.
    DecodedAudio other;
    other.SetMaxFrameCount(8);
    other.AppendFrame(MakeFrame(1, 200000, 480, 1));
    const FramePtr early = MakeFrame(0, 65001, 480, 2); // ends at 75000
    other.AppendFrame(early);
    EXPECT_EQ(early->samplesPerChannel, 480 + 5999);
    EXPECT_EQ(early->endTime, 199999);

    // A start clamped to 0 is the first frame's start again: dropped.
    cache.AppendFrame(MakeFrame(2, -1, 480, 1));
    EXPECT_EQ(cache.GetFrameCount(), 2);
    EXPECT_EQ(front->endTime, 99999);
}

TEST(DecodedAudioStitching, FramesWithoutSamplesAreNeverStitched)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    auto empty = std::make_shared<DecodedAudioFrame>(0, 0, kRate, 0, 9999);
    empty->continuityTag = 1;
    cache.AppendFrame(empty);
    cache.AppendFrame(MakeFrame(1, 30000, 480, 2));
    EXPECT_EQ(empty->samplesPerChannel, 0);
    EXPECT_EQ(empty->sampleCount, 0);
    EXPECT_EQ(empty->endTime, 29999);

    DecodedAudio other;
    other.SetMaxFrameCount(8);
    other.AppendFrame(MakeFrame(1, 100000, 480, 1));
    auto silentFront = std::make_shared<DecodedAudioFrame>(0, 0, kRate, 0, 9999);
    silentFront->continuityTag = 2;
    other.AppendFrame(silentFront);
    EXPECT_EQ(other.GetFrameCount(), 2);
    EXPECT_EQ(silentFront->samplesPerChannel, 0);
    EXPECT_EQ(silentFront->endTime, 99999);
    EXPECT_EQ(other.GetSize(), 960);
    // Nothing to play in it: the fill passes on to the next frame.
    EXPECT_TRUE(SameSamples(Fill(other, 480, 0), Span(1, 0, 480)));
}

// ---------------------------------------------------------------------------
// Trimming

TEST(DecodedAudioTrim, KeepsFramesTouchingTheBounds)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(16);
    AppendBackToBack(cache, 10, 480); // frame k covers k * 10000 .. k * 10000 + 9999
    cache.UpdateCache(29999, 70000);
    ASSERT_EQ(cache.GetFrameCount(), 6);
    EXPECT_EQ(cache.FirstFrame()->startTime, 20000);
    EXPECT_EQ(cache.LastFrame()->startTime, 70000);
    EXPECT_EQ(cache.GetSize(), 6 * 960);
    // The recorded times stay until the next append.
    EXPECT_EQ(cache.GetStartTime(), 0);
    EXPECT_EQ(cache.GetEndTime(), 99999);
    // Front placement goes by the recorded start: 10000 is not before it.
    cache.AppendFrame(MakeFrame(11, 10000, 480));
    EXPECT_EQ(cache.GetFrameCount(), 6);
    EXPECT_EQ(cache.FirstFrame()->startTime, 20000);

    cache.AppendFrame(MakeFrame(10, 100000, 480));
    EXPECT_EQ(cache.GetStartTime(), 20000);
    EXPECT_EQ(cache.GetEndTime(), 109999);

    EXPECT_TRUE(SameSamples(Fill(cache, 480, 25000), Cat({Span(2, 240, 240), Span(3, 0, 240)})));
}

TEST(DecodedAudioTrim, CanEmptyTheCacheAndStartAgain)
{
    DecodedAudio cache;
    cache.UpdateCache(0, 100); // no slots, nothing to do
    cache.SetMaxFrameCount(4);
    cache.UpdateCache(0, 100);
    AppendBackToBack(cache, 3, 480);
    cache.UpdateCache(1000000, 2000000);
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    cache.AppendFrame(MakeFrame(5, 500000, 480));
    EXPECT_EQ(cache.GetFrameCount(), 1);
    EXPECT_EQ(cache.GetStartTime(), 500000);
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 500000), Span(5, 0, 256)));
}

TEST(DecodedAudioTrim, TrimsAWrappedRing)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    // Three at the back, then four in front of them: the ring wraps.
    for (int id = 4; id < 7; ++id)
        cache.AppendFrame(MakeFrame(id, id * 10000, 480));
    for (int id = 3; id >= 0; --id)
        cache.AppendFrame(MakeFrame(id, id * 10000, 480));
    ASSERT_EQ(cache.GetFrameCount(), 7);
    cache.UpdateCache(15000, 45000);
    ASSERT_EQ(cache.GetFrameCount(), 4);
    EXPECT_EQ(cache.FirstFrame()->startTime, 10000);
    EXPECT_EQ(cache.LastFrame()->startTime, 40000);
    EXPECT_TRUE(SameSamples(Fill(cache, 2000, 10000),
                            Cat({Whole({1, 2, 3, 4}), Silence(80)})));
    // Found by time in either part of the ring.
    EXPECT_TRUE(SameSamples(Fill(cache, 240, 45000, 1.0, true), Span(4, 240, 240)));
    EXPECT_TRUE(SameSamples(Fill(cache, 240, 35000, 1.0, true), Span(3, 240, 240)));
}

// ---------------------------------------------------------------------------
// Slots and growth

TEST(DecodedAudioSlots, OneSlotActsAsTwo)
{
    DecodedAudio one;
    DecodedAudio two;
    one.SetMaxFrameCount(1);
    two.SetMaxFrameCount(2);
    EXPECT_EQ(one.GetMaxFrameCount(), 2);
    for (int id = 0; id < 4; ++id) {
        one.AppendFrame(MakeFrame(id, id * 10000, 480));
        two.AppendFrame(MakeFrame(id, id * 10000, 480));
        EXPECT_EQ(one.GetFrameCount(), id + 1);
        EXPECT_EQ(one.GetMaxFrameCount(), two.GetMaxFrameCount()) << "after frame " << id;
    }
    EXPECT_TRUE(SameSamples(Fill(one, 1920, 0), Whole({0, 1, 2, 3})));
}

TEST(DecodedAudioSlots, GrowsByHalfWhenOneSlotIsLeft)
{
    for (const auto& [slots, grown] : {std::pair{4, 6}, std::pair{5, 7}}) {
        SCOPED_TRACE(slots);
        DecodedAudio cache;
        cache.SetMaxFrameCount(slots);
        AppendBackToBack(cache, slots - 1, 480);
        EXPECT_EQ(cache.GetMaxFrameCount(), slots);
        // Duplicates are turned away before any growth.
        cache.AppendFrame(MakeFrame(9, 0, 480));
        cache.AppendFrame(MakeFrame(9, (slots - 2) * 10000, 480));
        EXPECT_EQ(cache.GetMaxFrameCount(), slots);
        cache.AppendFrame(MakeFrame(slots - 1, (slots - 1) * 10000, 480));
        EXPECT_EQ(cache.GetMaxFrameCount(), grown);
        ASSERT_EQ(cache.GetFrameCount(), slots);
        Samples expected;
        for (int id = 0; id < slots; ++id)
            expected = Cat({expected, Span(id, 0, 480)});
        EXPECT_TRUE(SameSamples(Fill(cache, 480 * slots, 0), expected));
    }
}

TEST(DecodedAudioSlots, GrowthMakesTheFillFindItsPlaceByTime)
{
    // Without growth the fill would go on where it stopped (frame 0).
    DecodedAudio tight;
    tight.SetMaxFrameCount(4);
    AppendBackToBack(tight, 3, 480);
    EXPECT_TRUE(SameSamples(Fill(tight, 256, 0), Span(0, 0, 256)));
    tight.AppendFrame(MakeFrame(3, 30000, 480));
    ASSERT_EQ(tight.GetMaxFrameCount(), 6);
    EXPECT_TRUE(SameSamples(Fill(tight, 256, 20000), Span(2, 0, 256)));
}

TEST(DecodedAudioSlots, ResizingKeepsTheFramesInOrderAndRestartsTheFill)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(1, 10000, 480));
    cache.AppendFrame(MakeFrame(2, 20000, 480));
    cache.AppendFrame(MakeFrame(0, 0, 480)); // wrapped
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(0, 0, 256)));

    // Fewer slots than frames: all are kept, with one slot to spare.
    cache.SetMaxFrameCount(2);
    EXPECT_EQ(cache.GetMaxFrameCount(), 4);
    ASSERT_EQ(cache.GetFrameCount(), 3);
    EXPECT_EQ(cache.FirstFrame()->startTime, 0);
    EXPECT_EQ(cache.LastFrame()->startTime, 20000);
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 10000), Span(1, 0, 256)));

    cache.SetMaxFrameCount(10);
    EXPECT_EQ(cache.GetMaxFrameCount(), 10);
    EXPECT_EQ(cache.GetFrameCount(), 3);
    EXPECT_TRUE(SameSamples(Fill(cache, 1500, 0), Cat({Whole({0, 1, 2}), Silence(60)})));

    // Appends and trims carry on in the re-packed ring.
    cache.AppendFrame(MakeFrame(3, 30000, 480));
    cache.UpdateCache(10000, 40000);
    EXPECT_EQ(cache.GetFrameCount(), 3);
    EXPECT_TRUE(SameSamples(Fill(cache, 1440, 10000, 1.0, true), Whole({1, 2, 3})));
}

TEST(DecodedAudioSlots, ClearedFramesAreReleasedTwoSlotsPerAppend)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    std::vector<std::weak_ptr<DecodedAudioFrame>> held;
    for (int id = 0; id < 3; ++id) {
        FramePtr frame = MakeFrame(id, id * 10000, 480);
        held.push_back(frame);
        cache.AppendFrame(std::move(frame)); // slots 0, 1, 2
    }
    cache.Clear();
    EXPECT_EQ(cache.GetFrameCount(), 0);
    for (const auto& frame : held)
        EXPECT_FALSE(frame.expired());

    cache.AppendFrame(MakeFrame(7, 0, 480)); // releases slots 3 and 2
    EXPECT_FALSE(held[0].expired());
    EXPECT_FALSE(held[1].expired());
    EXPECT_TRUE(held[2].expired());
    cache.AppendFrame(MakeFrame(8, 10000, 480)); // slots 1 and 0
    EXPECT_TRUE(held[0].expired());
    EXPECT_TRUE(held[1].expired());
    EXPECT_EQ(cache.GetFrameCount(), 2);
}

TEST(DecodedAudioSlots, ForceClearAndDestructionReleaseEverything)
{
    std::vector<std::weak_ptr<DecodedAudioFrame>> held;
    {
        DecodedAudio cache;
        cache.SetMaxFrameCount(4);
        for (int id = 0; id < 3; ++id) {
            FramePtr frame = MakeFrame(id, id * 10000, 480);
            held.push_back(frame);
            cache.AppendFrame(std::move(frame));
        }
        cache.Clear(); // into the retired slots
        cache.ForceClear();
        for (const auto& frame : held)
            EXPECT_TRUE(frame.expired());

        FramePtr frame = MakeFrame(9, 0, 480);
        held.push_back(frame);
        cache.AppendFrame(std::move(frame));
        EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(9, 0, 256)));
    }
    EXPECT_TRUE(held.back().expired());
}

// ---------------------------------------------------------------------------
// Device fill

TEST(DecodedAudioFill, StartsInsideTheFrameAtPlayTimeThenGoesOnWhateverTheTime)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(0, 0, 1024));
    // 10000 µs into the frame is sample frame 480.
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 10000), Span(0, 480, 256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(0, 736, 256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 16, 999999), Span(0, 992, 16)));
    // Past the newest frame: silence.
    EXPECT_TRUE(SameSamples(Fill(cache, 100, 0), Cat({Span(0, 1008, 16), Silence(84)})));
}

TEST(DecodedAudioFill, IsSilentBeforeAndAfterTheCachedAudio)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(0, 100000, 480));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 50000), Silence(256)));
    // Silence before the audio does not fix a position: the fill finds the
    // frame once the play time reaches it.
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 99999), Silence(256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 100000), Span(0, 0, 256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 200000, 1.0, true), Silence(256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 110000), Silence(256)));
}

TEST(DecodedAudioFill, FramesAppendedAfterRunningOutArePlayed)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_TRUE(SameSamples(Fill(cache, 400, 0), Span(0, 0, 400)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 8333), Cat({Span(0, 400, 80), Silence(176)})));
    cache.AppendFrame(MakeFrame(1, 10000, 480));
    cache.AppendFrame(MakeFrame(2, 20000, 480));
    // The device has moved on into frame 1 meanwhile.
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 13666), Span(1, 175, 256)));
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Cat({Span(1, 431, 49), Span(2, 0, 207)})));
}

TEST(DecodedAudioFill, FramesAppendedWhilePlayingAreReachedInTurn)
{
    // The decoding side keeps two frames ahead in four slots, trimming what
    // has played: the ring wraps and never grows, and the fill walks on
    // slot by slot.
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    cache.AppendFrame(MakeFrame(1, 10000, 480));
    EXPECT_TRUE(SameSamples(Fill(cache, 720, 0), Cat({Span(0, 0, 480), Span(1, 0, 240)})));
    for (int id = 2; id < 7; ++id) {
        SCOPED_TRACE(id);
        cache.UpdateCache((id - 1) * 10000, 1000000);
        cache.AppendFrame(MakeFrame(id, id * 10000, 480));
        ASSERT_EQ(cache.GetFrameCount(), 2);
        EXPECT_EQ(cache.GetMaxFrameCount(), 4);
        const long long playTime = (id - 1) * 10000 + 5000;
        EXPECT_TRUE(SameSamples(Fill(cache, 480, playTime), Cat({Span(id - 1, 240, 240), Span(id, 0, 240)})));
    }
}

TEST(DecodedAudioFill, ScalesByVolumeWithClippingAndTruncation)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    const FramePtr frame = MakeFrame(0, 0, 4);
    const int16_t values[] = {20000, -20000, 1001, -1001, 3, -3, 32767, -32768};
    std::copy(std::begin(values), std::end(values), frame->samples);
    cache.AppendFrame(frame);

    const Samples doubled = Fill(cache, 4, 0, 1.0, true, 2.0);
    EXPECT_EQ(doubled, (Samples{32767, -32768, 2002, -2002, 6, -6, 32767, -32768}));
    const Samples halved = Fill(cache, 4, 0, 1.0, true, 0.5);
    EXPECT_EQ(halved, (Samples{10000, -10000, 500, -500, 1, -1, 16383, -16384}));
    const Samples muted = Fill(cache, 4, 0, 1.0, true, 0.0);
    EXPECT_EQ(muted, Silence(4));
}

TEST(DecodedAudioFill, RejectsUnusableRequests)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_TRUE(SameSamples(Fill(cache, 100, 0), Span(0, 0, 100)));
    Samples buffer(512, kUnwritten);
    EXPECT_EQ(cache.PaFillBuffer(nullptr, 256, 2, kRate, 0, 1.0, false, 1.0), 0);
    EXPECT_EQ(cache.PaFillBuffer(buffer.data(), 0, 2, kRate, 0, 1.0, false, 1.0), 0);
    EXPECT_EQ(cache.PaFillBuffer(buffer.data(), -5, 2, kRate, 0, 1.0, false, 1.0), 0);
    EXPECT_EQ(cache.PaFillBuffer(buffer.data(), 256, 0, kRate, 0, 1.0, false, 1.0), 0);
    EXPECT_EQ(buffer, Samples(512, kUnwritten));

    for (const auto& [rate, speed] : {std::pair{0, 1.0}, std::pair{-1, 1.0}, std::pair{kRate, 0.0},
                                      std::pair{kRate, -1.0}}) {
        Samples out(512, kUnwritten);
        EXPECT_EQ(cache.PaFillBuffer(out.data(), 256, 2, rate, 0, 1.0, false, speed), 256);
        EXPECT_EQ(out, Silence(256)) << "rate " << rate << " speed " << speed;
    }
    // None of that moved the fill.
    EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(0, 100, 256)));
}

TEST(DecodedAudioFill, RestartsFindThePlaceByTimeAgain)
{
    const std::vector<std::pair<const char*, std::function<void(DecodedAudio&)>>> restarts = {
        {"reset flag", nullptr},
        {"FlushPaBuffer", [](DecodedAudio& cache) { cache.FlushPaBuffer(); }},
        {"Clear", [](DecodedAudio& cache) { cache.Clear(); AppendBackToBack(cache, 4, 480); }},
        {"ForceClear", [](DecodedAudio& cache) { cache.ForceClear(); AppendBackToBack(cache, 4, 480); }},
        {"SetMaxFrameCount", [](DecodedAudio& cache) { cache.SetMaxFrameCount(12); }},
    };
    for (const auto& [name, restart] : restarts) {
        SCOPED_TRACE(name);
        DecodedAudio cache;
        cache.SetMaxFrameCount(8);
        AppendBackToBack(cache, 4, 480);
        EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Span(0, 0, 256)));
        EXPECT_TRUE(SameSamples(Fill(cache, 256, 25000), Cat({Span(0, 256, 224), Span(1, 0, 32)})));
        if (restart)
            restart(cache);
        // 25000 µs is sample frame 240 of frame 2.
        const bool reset = restart == nullptr;
        EXPECT_TRUE(SameSamples(Fill(cache, 256, 25000, 1.0, reset), Cat({Span(2, 240, 240), Span(3, 0, 16)})));
        EXPECT_TRUE(SameSamples(Fill(cache, 256, 0), Cat({Span(3, 16, 256)})));
    }
}

// ---------------------------------------------------------------------------
// Speed

// Three frames of 1000 sample frames back to back; source sample frame g is
// sample g % 1000 of frame g / 1000.
constexpr int kSpeedFrameLength = 1000;
constexpr int kSpeedSource = 3 * kSpeedFrameLength;

Samples SourceFrames(const std::vector<int>& order)
{
    Samples out;
    for (const int g : order) {
        out.push_back(Left(g / kSpeedFrameLength, g % kSpeedFrameLength));
        out.push_back(static_cast<int16_t>(-Left(g / kSpeedFrameLength, g % kSpeedFrameLength)));
    }
    return out;
}

// Everything the fill gives from the start of the source at the given speed,
// in buffers of `buffer` sample frames, up to and including the first buffer
// that lies wholly past the source.
Samples PlayAll(double speed, int buffer, int outputFrames)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(8);
    AppendBackToBack(cache, 3, kSpeedFrameLength);
    Samples all;
    const int calls = outputFrames / buffer + 2;
    for (int call = 0; call < calls; ++call) {
        // Only the first call's time counts: later ones go on from there,
        // and once past the source, nothing is cached at this time.
        const long long playTime = call == 0 ? 0 : 10000000;
        all = Cat({all, Fill(cache, buffer, playTime, speed)});
    }
    return all;
}

void ExpectSpeed(double speed, const std::vector<int>& order)
{
    for (const int buffer : {int(order.size()) + 100, 256, 7}) {
        SCOPED_TRACE("buffers of " + std::to_string(buffer) + " sample frames");
        const Samples all = PlayAll(speed, buffer, int(order.size()));
        const Samples expected = SourceFrames(order);
        ASSERT_GE(all.size(), expected.size());
        EXPECT_TRUE(SameSamples(Samples(all.begin(), all.begin() + expected.size()), expected));
        EXPECT_TRUE(SameSamples(Samples(all.begin() + expected.size(), all.end()),
                                Silence(int(all.size() - expected.size()) / kChannels)));
    }
}

TEST(DecodedAudioSpeed, FastDropsAndSlowRepeatsSampleFrames)
{
    // 2.0 plays every other, 1.5 drops every third, 0.5 plays each twice
    // but the first.
    std::vector<int> doubled, oneAndAHalf, half{0};
    for (int g = 0; g < kSpeedSource; ++g) {
        if (g % 2 == 0)
            doubled.push_back(g);
        if (g % 3 != 2)
            oneAndAHalf.push_back(g);
        if (g > 0)
            half.insert(half.end(), {g, g});
    }
    ExpectSpeed(2.0, doubled);
    ExpectSpeed(1.5, oneAndAHalf);
    ExpectSpeed(0.5, half);
}

TEST(DecodedAudioSpeed, CountsFromOneFrameOf1024)
{
    struct Case {
        double speed;
        int written;
        int last; // source sample frame written last
    };
    for (const Case& c : {Case{2.0, 512, 1022}, Case{1.5, 683, 1023}, Case{0.5, 2047, 1023}}) {
        const double speed = c.speed;
        const int written = c.written;
        SCOPED_TRACE(speed);
        DecodedAudio cache;
        cache.SetMaxFrameCount(4);
        cache.AppendFrame(MakeFrame(0, 0, 1024));
        const Samples out = Fill(cache, 2100, 0, speed);
        int sound = 0;
        while (sound < 2100 && out[2 * sound] != 0)
            ++sound;
        EXPECT_EQ(sound, written);
        EXPECT_TRUE(SameSamples(Samples(out.begin() + 2 * sound, out.end()), Silence(2100 - sound)));
        EXPECT_EQ(out[2 * (written - 1)], Left(0, c.last));
    }
}

TEST(DecodedAudioSpeed, RestartForgetsTheDroppingRhythm)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    // Two written: the next source sample frame is due to be dropped.
    EXPECT_TRUE(SameSamples(Fill(cache, 2, 0, 1.5), SourceFrames({0, 1})));
    EXPECT_TRUE(SameSamples(Fill(cache, 3, 0, 1.5, true), SourceFrames({0, 1, 3})));
    cache.FlushPaBuffer();
    EXPECT_TRUE(SameSamples(Fill(cache, 3, 0, 1.5), SourceFrames({0, 1, 3})));
}

// ---------------------------------------------------------------------------
// Drift correction

// Twelve frames of 960 sample frames (20 ms) back to back from 0. Call 0
// plays frame 0 from time 0; call k >= 1 asks for 960 sample frames at
// frame k's start + offsets[k - 1], so each call fetches one frame right at
// its beginning and measures the given offset. Returns each call's output.
std::vector<Samples> PlayWithDrift(const std::vector<long long>& offsets, double speed = 1.0, double volume = 1.0)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(16);
    AppendBackToBack(cache, 12, 960);
    std::vector<Samples> calls{Fill(cache, 960, 0, speed, false, volume)};
    for (size_t k = 1; k <= offsets.size(); ++k)
        calls.push_back(Fill(cache, 960, 20000 * static_cast<long long>(k) + offsets[k - 1], speed, false, volume));
    return calls;
}

void ExpectUntouched(const std::vector<Samples>& calls, size_t from, size_t to)
{
    for (size_t k = from; k <= to && k < calls.size(); ++k)
        EXPECT_TRUE(SameSamples(calls[k], Span(int(k), 0, 960))) << "call " << k;
}

TEST(DecodedAudioDrift, FiveMeasurementsBeyondTheThresholdSkipOrHold)
{
    const Samples held = Repeated(Left(5, 0), static_cast<int16_t>(-Left(5, 0)), 576);
    struct Case {
        std::vector<long long> offsets;
        Samples fifth; // call 5's output; empty: untouched
    };
    const Case cases[] = {
        // Average 15000 µs behind: 720 sample frames of frame 5 skipped.
        {{15000, 15000, 15000, 15000, 15000}, Cat({Span(5, 720, 240), Span(6, 0, 720)})},
        {{10001, 10001, 10001, 10001, 10001}, Cat({Span(5, 480, 480), Span(6, 0, 480)})},
        // 10000 is beyond tolerance, so it joins the average: 18000 µs.
        {{10000, 20000, 20000, 20000, 20000}, Cat({Span(5, 864, 96), Span(6, 0, 864)})},
        // Ahead: 576 copies of frame 5's first sample frame, then the frame.
        {{-12000, -12000, -12000, -12000, -12000}, Cat({held, Span(5, 0, 384)})},
        // Within tolerance starts the count over.
        {{20000, 20000, 20000, 20000, 9999, 20000, 20000, 20000, 20000}, {}},
        // Exactly on the threshold: measured, not corrected, count restarts.
        {{10000, 10000, 10000, 10000, 10000, 15000, 15000, 15000, 15000}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.offsets));
        const auto calls = PlayWithDrift(c.offsets);
        ExpectUntouched(calls, 0, c.fifth.empty() ? 9 : 4);
        if (!c.fifth.empty()) {
            EXPECT_TRUE(SameSamples(calls[5], c.fifth));
        }
    }
}

TEST(DecodedAudioDrift, HeldBackCopiesIgnoreTheVolume)
{
    const auto calls = PlayWithDrift({-12000, -12000, -12000, -12000, -12000}, 1.0, 0.5);
    Samples expected = Repeated(Left(5, 0), static_cast<int16_t>(-Left(5, 0)), 576);
    for (int i = 0; i < 384; ++i) {
        expected.push_back(static_cast<int16_t>(Left(5, i) / 2));
        expected.push_back(static_cast<int16_t>(-Left(5, i) / 2));
    }
    EXPECT_TRUE(SameSamples(calls[5], expected));
}

TEST(DecodedAudioDrift, OnlyAtNormalSpeed)
{
    const auto calls = PlayWithDrift({15000, 15000, 15000, 15000, 15000, 15000, 15000, 15000, 15000}, 1.01);
    // About one sample frame in a hundred is dropped; a correction would
    // skip the first 700 or so sample frames of a frame outright.
    std::vector<std::vector<bool>> seen(12, std::vector<bool>(960, false));
    for (const Samples& call : calls) {
        for (size_t n = 0; n < call.size(); n += 2) {
            if (call[n] > 0)
                seen[(call[n] - 1) / kIdStride][(call[n] - 1) % kIdStride] = true;
        }
    }
    for (int id = 1; id < 9; ++id) {
        int early = 0;
        for (int i = 0; i < 700; ++i)
            early += seen[id][i] ? 1 : 0;
        EXPECT_GE(early, 680) << "frame " << id;
    }
}

} // namespace
