// The video frame cache on synthetic frames: the ring's layouts (straight and
// wrapped, several capacities), growth, the staged release of cleared frames,
// look-ups by time and by neighbour, the budget decisions of UpdateCache, and
// a long random run checked step by step against a plain sorted-map model.

#include <MolvaneAV/DecodedVideo.h>
#include <MolvaneAV/Settings.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <ostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

// Failures name frames by their times, not their bytes.
static void PrintTo(const DecodedVideoFrame& frame, std::ostream* out)
{
    *out << "frame " << frame.startTime << ".." << frame.endTime;
}

namespace {

using FramePtr = std::shared_ptr<DecodedVideoFrame>;

constexpr int64_t kStep = 40000; // 25 fps
constexpr int kBytes = 16;       // pixels are irrelevant here; keep them cheap
constexpr int64_t kFarEnd = 1000000000;

FramePtr MakeFrame(int64_t start, int64_t end, int size = kBytes, uint8_t fill = 0x5A)
{
    const std::vector<uint8_t> bytes(size_t(size), fill);
    auto frame = std::make_shared<DecodedVideoFrame>(bytes.data(), size, 4, 4, start, 25.0, 0, false);
    frame->endTime = end;
    return frame;
}

FramePtr MakeFrame(int64_t start)
{
    return MakeFrame(start, start + kStep - 1);
}

// A record without pixels (what the end-of-stream marker is) ending at end.
FramePtr NoPixels(int64_t end)
{
    auto frame = std::make_shared<DecodedVideoFrame>();
    frame->endTime = end;
    return frame;
}

// count frames of kStep each from start, appended at the back.
std::vector<FramePtr> AppendRun(DecodedVideo& cache, int64_t start, int count)
{
    std::vector<FramePtr> frames;
    for (int i = 0; i < count; ++i) {
        frames.push_back(MakeFrame(start + i * kStep));
        cache.AppendFrame(frames.back());
    }
    return frames;
}

std::vector<std::weak_ptr<DecodedVideoFrame>> Weak(const std::vector<FramePtr>& frames)
{
    return {frames.begin(), frames.end()};
}

// Every frame is found by GetFrameIndex and GetFrame at its first, middle and
// last microsecond, in the slot GetFrameAtIndex reads back; consecutive frames
// sit in consecutive slots of the ring. Returns the slots in time order.
std::vector<int> ExpectFoundInOrder(const DecodedVideo& cache, const std::vector<FramePtr>& frames)
{
    std::vector<int> slots;
    for (size_t i = 0; i < frames.size(); ++i) {
        const FramePtr& frame = frames[i];
        const int slot = cache.GetFrameIndex(frame->startTime);
        EXPECT_GE(slot, 0) << "frame " << i << " at " << frame->startTime;
        EXPECT_EQ(cache.GetFrameAtIndex(slot), frame) << "frame " << i;
        EXPECT_EQ(cache.GetFrameIndex(frame->endTime), slot) << "frame " << i;
        EXPECT_EQ(cache.GetFrameIndex((frame->startTime + frame->endTime) / 2), slot) << "frame " << i;
        EXPECT_EQ(cache.GetFrame(frame->startTime, 0), frame) << "frame " << i;
        EXPECT_EQ(cache.GetFrame(frame->endTime, 0), frame) << "frame " << i;
        if (i > 0) {
            EXPECT_EQ(slot, (slots.back() + 1) % cache.GetMaxFrameCount()) << "frame " << i;
        }
        slots.push_back(slot);
    }
    if (!frames.empty()) {
        EXPECT_EQ(cache.FirstFrame(), frames.front());
        EXPECT_EQ(cache.LastFrame(), frames.back());
        EXPECT_EQ(cache.GetFrameIndex(frames.front()->startTime - 1), -1);
        EXPECT_EQ(cache.GetFrameIndex(frames.back()->endTime + 1), -1);
        EXPECT_EQ(cache.GetFrame(frames.front()->startTime - 1, 0), nullptr);
        EXPECT_EQ(cache.GetFrame(frames.back()->endTime + 1, 0), nullptr);
    }
    return slots;
}

// Builds a list around an anchor frame by pushing `front` frames before it
// and `back` after it, alternately, with varied durations. Returns the
// frames in time order, with the times the cache gave them.
std::vector<FramePtr> BuildAroundAnchor(DecodedVideo& cache, int front, int back, std::mt19937& random)
{
    std::uniform_int_distribution<int64_t> duration(1, 80000);
    std::vector<FramePtr> frames;
    const int64_t anchor = 50000000;
    frames.push_back(MakeFrame(anchor, anchor + duration(random)));
    cache.AppendFrame(frames.back());
    for (int f = 0, b = 0; f < front || b < back;) {
        if (f < front && (b >= back || random() % 2 == 0)) {
            const int64_t start = frames.front()->startTime - duration(random);
            frames.insert(frames.begin(), MakeFrame(start, start)); // its end is the cache's to set
            cache.AppendFrame(frames.front());
            ++f;
        } else {
            const int64_t start = frames.back()->startTime + duration(random);
            frames.push_back(MakeFrame(start, start + duration(random)));
            cache.AppendFrame(frames.back());
            ++b;
        }
    }
    return frames;
}

// A cache with the given budget in bytes and the slot count that budget
// gives for kBytes frames (at least the minimum).
void SetBudget(DecodedVideo& cache, int64_t bytes)
{
    cache.SetMaxCacheSize(bytes, kBytes, 1, 1);
}

// ---------------------------------------------------------------------------
// Ring layouts

TEST(DecodedVideoRing, NewCacheIsEmptyWithTwentyFiveSlots)
{
    DecodedVideo cache;
    EXPECT_EQ(cache.GetMaxFrameCount(), 25);
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    EXPECT_EQ(cache.GetStartTime(), 0);
    EXPECT_EQ(cache.GetEndTime(), 0);
    EXPECT_EQ(cache.FirstFrame(), nullptr);
    EXPECT_EQ(cache.LastFrame(), nullptr);
    for (int64_t time : {int64_t(-1), int64_t(0), int64_t(1), kStep, kFarEnd})
        EXPECT_EQ(cache.GetFrameIndex(time), -1) << time;
    EXPECT_EQ(cache.GetFrame(0, 0), nullptr);
    EXPECT_TRUE(cache.IsCacheFull()) << "no budget yet";
}

TEST(DecodedVideoRing, BackPushesCloseTheGapToEachNewFrame)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 10);
    // Durations that do not meet: each frame still ends where the next begins.
    frames.push_back(MakeFrame(400000 + 123456, 400000 + 123456 + 999));
    cache.AppendFrame(frames.back());
    ASSERT_EQ(cache.GetFrameCount(), 11);
    EXPECT_EQ(frames[9]->endTime, 400000 + 123456 - 1);
    EXPECT_EQ(cache.GetEndTime(), 400000 + 123456 + 999);
    EXPECT_EQ(cache.GetSize(), 11 * kBytes);
    const std::vector<int> slots = ExpectFoundInOrder(cache, frames);
    EXPECT_EQ(slots.front(), 0);
}

TEST(DecodedVideoRing, WrappedListsOfSeveralCapacitiesAreSearchedByTime)
{
    std::mt19937 random(7);
    // Budgets giving 25 (the default), 30, 60 and 255 slots.
    for (int64_t budgetFrames : {int64_t(-1), int64_t(25), int64_t(50), int64_t(213)}) {
        DecodedVideo probe;
        if (budgetFrames >= 0)
            SetBudget(probe, budgetFrames * kBytes);
        const int capacity = probe.GetMaxFrameCount();
        const int most = capacity - 2; // anchor + most frames stay below the growth point
        const std::vector<std::pair<int, int>> splits = {
            {most, 0}, {1, most - 1}, {most / 2, most - most / 2}, {3, 5}, {most - 1, 1}};
        for (const auto& [front, back] : splits) {
            SCOPED_TRACE("capacity " + std::to_string(capacity) + ", " + std::to_string(front) + " before, " +
                         std::to_string(back) + " after");
            DecodedVideo cache;
            if (budgetFrames >= 0)
                SetBudget(cache, budgetFrames * kBytes);
            const std::vector<FramePtr> frames = BuildAroundAnchor(cache, front, back, random);
            ASSERT_EQ(cache.GetMaxFrameCount(), capacity) << "no growth below capacity - 1 frames";
            ASSERT_EQ(cache.GetFrameCount(), int(frames.size()));
            EXPECT_EQ(cache.GetStartTime(), frames.front()->startTime);
            EXPECT_EQ(cache.GetEndTime(), frames.back()->endTime);
            for (size_t i = 0; i + 1 < frames.size(); ++i)
                ASSERT_EQ(frames[i]->endTime, frames[i + 1]->startTime - 1) << "frame " << i;
            const std::vector<int> slots = ExpectFoundInOrder(cache, frames);
            EXPECT_GT(slots.front(), slots.back()) << "the list should wrap past the vector's end";

            // Neighbours across the wrap, and nothing past either end.
            const int n = int(frames.size());
            for (int i = 0; i < n; ++i) {
                const int64_t t = frames[i]->startTime;
                for (int offset = -3; offset <= 3; ++offset) {
                    const int j = i + offset;
                    const FramePtr expected = j >= 0 && j < n ? frames[j] : nullptr;
                    ASSERT_EQ(cache.GetFrame(t, offset), expected) << "frame " << i << " offset " << offset;
                }
            }
            EXPECT_EQ(cache.GetFrame(frames.front()->startTime, n - 1), frames.back());
            EXPECT_EQ(cache.GetFrame(frames.back()->endTime, -(n - 1)), frames.front());
            EXPECT_EQ(cache.GetFrame(frames.front()->startTime, n), nullptr);
            EXPECT_EQ(cache.GetFrame(frames.back()->endTime, -n), nullptr);
        }
    }
}

TEST(DecodedVideoRing, DroppedFrameLeavesAGapThatNoOffsetCrosses)
{
    std::mt19937 random(11);
    DecodedVideo cache; // no budget: every UpdateCache that decodes forwards drops the oldest
    std::vector<FramePtr> frames = BuildAroundAnchor(cache, 8, 8, random);
    const FramePtr dropped = frames.front();
    cache.UpdateCache(frames.back()->startTime, kFarEnd, true, true);
    ASSERT_EQ(cache.GetFrameCount(), 16);
    ASSERT_EQ(cache.FirstFrame(), frames[1]);
    EXPECT_EQ(cache.GetStartTime(), dropped->startTime) << "the drop leaves the list times alone";

    // A frame before the (unchanged) list start goes to the front and ends
    // where the list started: the dropped frame's time is now a hole.
    const FramePtr earlier = MakeFrame(dropped->startTime - 30000, 0);
    cache.AppendFrame(earlier);
    ASSERT_EQ(cache.GetFrameCount(), 17);
    EXPECT_EQ(earlier->endTime, dropped->startTime - 1);
    EXPECT_EQ(cache.GetStartTime(), earlier->startTime);
    for (int64_t t : {dropped->startTime, dropped->endTime, (dropped->startTime + dropped->endTime) / 2}) {
        EXPECT_EQ(cache.GetFrameIndex(t), -1) << t;
        for (int offset = -3; offset <= 3; ++offset)
            EXPECT_EQ(cache.GetFrame(t, offset), nullptr) << t << " offset " << offset;
    }
    // Neighbours step over the hole: they count frames, not time.
    EXPECT_EQ(cache.GetFrame(earlier->endTime, 1), frames[1]);
    EXPECT_EQ(cache.GetFrame(frames[1]->startTime, -1), earlier);
    frames.front() = earlier;
    ExpectFoundInOrder(cache, frames);
}

TEST(DecodedVideoRing, BackPushesWrapOnceTheOldestFramesAreDropped)
{
    DecodedVideo cache;
    SetBudget(cache, 25 * kBytes); // 30 slots
    ASSERT_EQ(cache.GetMaxFrameCount(), 30);
    std::vector<FramePtr> frames = AppendRun(cache, 0, 28);
    // Full by size: each forward update drops the oldest, then one more goes in.
    for (int i = 0; i < 20; ++i) {
        cache.UpdateCache(frames.back()->startTime, kFarEnd, true, true);
        ASSERT_TRUE(cache.CanCacheForwards()) << i;
        frames.erase(frames.begin());
        frames.push_back(MakeFrame(frames.back()->startTime + kStep));
        cache.AppendFrame(frames.back());
    }
    ASSERT_EQ(cache.GetMaxFrameCount(), 30);
    ASSERT_EQ(cache.GetFrameCount(), 28);
    const std::vector<int> slots = ExpectFoundInOrder(cache, frames);
    EXPECT_EQ(slots.front(), 20);
    EXPECT_EQ(slots.back(), 17);
    EXPECT_EQ(cache.GetFrame(frames[9]->startTime, 1), frames[10]) << "slot 29 to slot 0";
    EXPECT_EQ(cache.GetFrame(frames[10]->startTime, -1), frames[9]) << "slot 0 to slot 29";
}

// ---------------------------------------------------------------------------
// Growth

TEST(DecodedVideoGrowth, TwentyFourFramesInTwentyFiveSlotsGrowInTimeOrder)
{
    std::mt19937 random(3);
    DecodedVideo cache;
    std::vector<FramePtr> frames = BuildAroundAnchor(cache, 10, 13, random);
    ASSERT_EQ(cache.GetFrameCount(), 24);
    ASSERT_EQ(cache.GetMaxFrameCount(), 25);

    // Neither a known start nor a record without pixels makes room.
    cache.AppendFrame(MakeFrame(frames.front()->startTime));
    cache.AppendFrame(MakeFrame(frames.back()->startTime));
    cache.AppendFrame(NoPixels(frames.back()->endTime + 5));
    EXPECT_EQ(cache.GetMaxFrameCount(), 25);
    EXPECT_EQ(cache.GetFrameCount(), 24);

    frames.push_back(MakeFrame(frames.back()->endTime + 1));
    cache.AppendFrame(frames.back());
    ASSERT_EQ(cache.GetMaxFrameCount(), 37);
    ASSERT_EQ(cache.GetFrameCount(), 25);
    for (int slot = 0; slot < 37; ++slot)
        EXPECT_EQ(cache.GetFrameAtIndex(slot), slot < 25 ? frames[slot] : nullptr) << "slot " << slot;
    ExpectFoundInOrder(cache, frames);

    // On to 36 frames, then 37 slots grow to 55.
    while (cache.GetFrameCount() < 36) {
        frames.push_back(MakeFrame(frames.back()->startTime + kStep));
        cache.AppendFrame(frames.back());
    }
    EXPECT_EQ(cache.GetMaxFrameCount(), 37);
    frames.insert(frames.begin(), MakeFrame(frames.front()->startTime - kStep));
    cache.AppendFrame(frames.front());
    ASSERT_EQ(cache.GetMaxFrameCount(), 55);
    ASSERT_EQ(cache.GetFrameCount(), 37);
    const std::vector<int> slots = ExpectFoundInOrder(cache, frames);
    EXPECT_EQ(slots.front(), 54) << "re-packed from slot 0, then pushed before it";
    EXPECT_EQ(slots[1], 0);
    EXPECT_EQ(cache.GetSize(), 37 * kBytes);
}

// ---------------------------------------------------------------------------
// Clearing and releasing

TEST(DecodedVideoRelease, ClearReleasesTheRetiredSlotsTwoPerAppend)
{
    DecodedVideo cache;
    auto weak = Weak(AppendRun(cache, 0, 30)); // grows to 37 slots, frames in slots 0..29
    ASSERT_EQ(cache.GetMaxFrameCount(), 37);

    cache.Clear();
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    EXPECT_EQ(cache.GetStartTime(), 0);
    EXPECT_EQ(cache.GetEndTime(), 0);
    EXPECT_EQ(cache.GetMaxFrameCount(), 25) << "the other vector never grew";
    EXPECT_EQ(cache.GetFrame(kStep, 0), nullptr);
    for (const auto& frame : weak)
        ASSERT_FALSE(frame.expired()) << "released at once";

    // Released from the vector's end, two slots per append, whatever the
    // append does with its frame (from the third on, every other one repeats
    // the newest start and is dropped).
    std::vector<FramePtr> kept;
    for (int append = 1; append <= 19; ++append) {
        auto frame = MakeFrame(5000000 + (append / 2) * kStep);
        if (append % 2 == 0)
            kept.push_back(frame);
        cache.AppendFrame(frame);
        for (int slot = 0; slot < 30; ++slot)
            ASSERT_EQ(weak[slot].expired(), slot >= 37 - 2 * append) << "slot " << slot << " after " << append;
    }
    EXPECT_EQ(cache.GetFrameCount(), 10);
    EXPECT_EQ(cache.GetFrame(kept.front()->startTime, 0), kept.front());
}

TEST(DecodedVideoRelease, SecondClearReleasesTheFirstRetiredFramesAtOnce)
{
    DecodedVideo cache;
    auto first = Weak(AppendRun(cache, 0, 18)); // slots 0..17
    cache.Clear();
    auto second = Weak(AppendRun(cache, 0, 3)); // releases retired slots 24..19, all empty
    for (const auto& frame : first)
        ASSERT_FALSE(frame.expired());
    cache.Clear();
    for (const auto& frame : first)
        EXPECT_TRUE(frame.expired());
    for (const auto& frame : second)
        EXPECT_FALSE(frame.expired()) << "retired now, released later";

    // An empty pointer clears like Clear: the frames appended since are
    // retired, the retired ones go at once.
    std::vector<std::weak_ptr<DecodedVideoFrame>> third;
    for (int i = 0; i < 11; ++i) {
        auto frame = MakeFrame(i * kStep);
        third.push_back(frame);
        cache.AppendFrame(frame);
    }
    for (const auto& frame : second)
        EXPECT_FALSE(frame.expired()) << "slots 0..2 are released last";
    cache.AppendFrame(nullptr);
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetFrame(0, 0), nullptr);
    for (const auto& frame : second)
        EXPECT_TRUE(frame.expired());
    for (const auto& frame : third)
        EXPECT_FALSE(frame.expired());
}

TEST(DecodedVideoRelease, ForceClearReleasesEverythingAtOnce)
{
    DecodedVideo cache;
    auto retired = Weak(AppendRun(cache, 0, 30));
    cache.Clear();
    auto active = Weak(AppendRun(cache, 0, 5));
    cache.ForceClear();
    for (const auto& frame : retired)
        EXPECT_TRUE(frame.expired());
    for (const auto& frame : active)
        EXPECT_TRUE(frame.expired());
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetSize(), 0);
    EXPECT_EQ(cache.GetEndTime(), 0);
    EXPECT_EQ(cache.GetFrame(0, 0), nullptr);
    EXPECT_EQ(cache.GetFrameAtIndex(0), nullptr);
}

TEST(DecodedVideoRelease, FramesHeldElsewhereOutliveTheCache)
{
    DecodedVideo cache;
    std::vector<FramePtr> held;
    for (int i = 0; i < 6; ++i) {
        held.push_back(MakeFrame(i * kStep, i * kStep + kStep - 1, 4096, uint8_t(0x10 + i)));
        cache.AppendFrame(held.back());
    }
    cache.UpdateCache(held.back()->startTime, kFarEnd, true, true); // no budget: drops the oldest
    ASSERT_EQ(cache.FirstFrame(), held[1]);
    cache.ForceClear();
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(held[i].use_count(), 1);
        ASSERT_NE(held[i]->data, nullptr);
        EXPECT_EQ(held[i]->data[0], 0x10 + i);
        EXPECT_EQ(held[i]->data[4095], 0x10 + i);
    }
}

TEST(DecodedVideoCopy, CopiesShareFramesButNotLaterChanges)
{
    DecodedVideo original;
    SetBudget(original, 40 * kBytes);
    auto frames = AppendRun(original, 400000, 10);

    DecodedVideo copy(original);
    DecodedVideo assigned;
    assigned = original;
    for (const DecodedVideo* other : {&copy, &assigned}) {
        EXPECT_EQ(other->GetFrameCount(), 10);
        EXPECT_EQ(other->GetMaxCacheSize(), 40 * kBytes);
        EXPECT_EQ(other->GetMaxFrameCount(), original.GetMaxFrameCount());
        EXPECT_EQ(other->GetFrame(frames[3]->startTime, 0), frames[3]) << "the same frame object";
    }
    const std::weak_ptr<DecodedVideoFrame> first = frames.front();
    frames.clear();

    original.ForceClear();
    EXPECT_FALSE(first.expired());
    EXPECT_EQ(copy.GetFrameCount(), 10);
    EXPECT_EQ(copy.GetFrame(400000, 0), first.lock());

    copy.AppendFrame(MakeFrame(0));
    EXPECT_EQ(copy.GetFrameCount(), 11);
    EXPECT_EQ(assigned.GetFrameCount(), 10);
    EXPECT_EQ(assigned.GetStartTime(), 400000);
    EXPECT_EQ(assigned.GetFrame(0, 0), nullptr);
    EXPECT_EQ(original.GetFrameCount(), 0);
}

// ---------------------------------------------------------------------------
// What AppendFrame keeps

TEST(DecodedVideoAppend, FirstFrameWithinRoundingStartsAtZero)
{
    const int64_t limit = Settings::ROUNDING_ERROR_EXTRA_TIME;
    ASSERT_EQ(limit, 1000);
    {
        DecodedVideo cache;
        auto frame = MakeFrame(limit, 50000);
        cache.AppendFrame(frame);
        EXPECT_EQ(frame->startTime, 0);
        EXPECT_EQ(cache.GetStartTime(), 0);
        EXPECT_EQ(cache.GetFrame(0, 0), frame);
    }
    {
        DecodedVideo cache;
        auto frame = MakeFrame(limit + 1, 50000);
        cache.AppendFrame(frame);
        EXPECT_EQ(frame->startTime, limit + 1);
        EXPECT_EQ(cache.GetFrame(limit, 0), nullptr);
        EXPECT_EQ(cache.GetFrame(limit + 1, 0), frame);
    }
    {
        // Only the first frame of a list: a later one keeps its time.
        DecodedVideo cache;
        cache.AppendFrame(MakeFrame(0));
        auto second = MakeFrame(500);
        cache.AppendFrame(second);
        EXPECT_EQ(second->startTime, 500);
        EXPECT_EQ(cache.GetFrameCount(), 2);
        // Again after clearing.
        cache.Clear();
        auto again = MakeFrame(700, 9000);
        cache.AppendFrame(again);
        EXPECT_EQ(again->startTime, 0);
    }
}

TEST(DecodedVideoAppend, NegativeStarts)
{
    DecodedVideo cache;
    cache.AppendFrame(MakeFrame(-5000, -1));
    EXPECT_EQ(cache.GetFrameCount(), 0) << "ends before 0: dropped";
    auto straddling = MakeFrame(-5000, 10000);
    cache.AppendFrame(straddling);
    ASSERT_EQ(cache.GetFrameCount(), 1);
    EXPECT_EQ(straddling->startTime, 0);
    EXPECT_EQ(straddling->endTime, 10000);
    EXPECT_EQ(cache.GetEndTime(), 10000);
    EXPECT_EQ(cache.GetFrame(0, 0), straddling);

    // Before a list that starts later: moved to 0 and pushed at the front.
    DecodedVideo later;
    auto frames = AppendRun(later, 40000, 3);
    auto early = MakeFrame(-5000, 10000);
    later.AppendFrame(early);
    ASSERT_EQ(later.GetFrameCount(), 4);
    EXPECT_EQ(early->startTime, 0);
    EXPECT_EQ(early->endTime, 39999);
    EXPECT_EQ(later.GetFrame(39999, 0), early);
    EXPECT_EQ(later.GetFrame(0, 1), frames[0]);
    // A second one would also start at 0: a known start.
    later.AppendFrame(MakeFrame(-1, 5));
    EXPECT_EQ(later.GetFrameCount(), 4);
}

TEST(DecodedVideoAppend, KnownStartsAndStartsInsideTheRangeAreDropped)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 5);
    for (int64_t start : {frames.front()->startTime, frames.back()->startTime, frames[2]->startTime, int64_t(60000),
                          int64_t(1)}) {
        auto frame = MakeFrame(start, start + 7);
        cache.AppendFrame(frame);
        EXPECT_EQ(frame.use_count(), 1) << start << " was stored";
        EXPECT_EQ(frame->endTime, start + 7) << start << " was changed";
    }
    EXPECT_EQ(cache.GetFrameCount(), 5);
    EXPECT_EQ(cache.GetSize(), 5 * kBytes);
    EXPECT_EQ(cache.GetFrame(60000, 0), frames[1]);
    EXPECT_EQ(frames[1]->endTime, 79999);
    ExpectFoundInOrder(cache, frames);
}

TEST(DecodedVideoAppend, RecordsWithoutPixelsOnlyExtendTheNewestFrame)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 50); // newest starts at 1,960,000
    const int64_t newestStart = frames.back()->startTime;
    ASSERT_EQ(newestStart, 1960000);

    cache.AppendFrame(std::make_shared<DecodedVideoFrame>()); // the end-of-stream marker: ends at 0
    cache.AppendFrame(NoPixels(newestStart));                 // not after the newest's start
    EXPECT_EQ(cache.GetEndTime(), newestStart + kStep - 1);
    EXPECT_EQ(frames.back()->endTime, newestStart + kStep - 1);

    auto marker = NoPixels(5000000);
    cache.AppendFrame(marker);
    EXPECT_EQ(marker.use_count(), 1) << "never stored";
    EXPECT_EQ(cache.GetFrameCount(), 50);
    EXPECT_EQ(frames.back()->endTime, 5000000);
    EXPECT_EQ(cache.GetEndTime(), 5000000);
    EXPECT_EQ(cache.GetFrame(4999999, 0), frames.back());
    EXPECT_EQ(cache.GetFrame(5000000, 0), frames.back());
    EXPECT_EQ(cache.GetFrame(5000001, 0), nullptr);
    EXPECT_EQ(cache.GetFrame(5000000, -1), frames[48]);

    DecodedVideo empty;
    empty.AppendFrame(NoPixels(5000000));
    EXPECT_EQ(empty.GetFrameCount(), 0);
    EXPECT_EQ(empty.GetEndTime(), 0);
}

TEST(DecodedVideoAppend, OverriddenEndIsServedUpToTheNewEnd)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 5); // newest 160000..199999
    cache.OverrideLastFrameEndTime(1000000);
    EXPECT_EQ(cache.GetEndTime(), 1000000);
    EXPECT_EQ(frames.back()->endTime, 1000000);
    EXPECT_EQ(cache.GetFrame(999999, 0), frames.back());
    EXPECT_EQ(cache.GetFrame(1000000, 0), frames.back());
    EXPECT_EQ(cache.GetFrame(1000001, 0), nullptr);
    EXPECT_EQ(cache.GetFrame(500000, -4), frames.front());
    EXPECT_EQ(cache.GetFrame(500000, 1), nullptr);
    // The next frame after it cuts it short again.
    auto next = MakeFrame(1200000);
    cache.AppendFrame(next);
    EXPECT_EQ(frames.back()->endTime, 1199999);
    EXPECT_EQ(cache.GetFrame(1199999, 1), next);

    DecodedVideo empty;
    empty.OverrideLastFrameEndTime(1000000);
    EXPECT_EQ(empty.GetEndTime(), 0);
    EXPECT_EQ(empty.GetFrame(0, 0), nullptr);
}

TEST(DecodedVideoAppend, NeighboursAtTheEnds)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 3);
    EXPECT_EQ(cache.GetFrame(0, -1), nullptr);
    EXPECT_EQ(cache.GetFrame(0, 1), frames[1]);
    EXPECT_EQ(cache.GetFrame(0, 2), frames[2]);
    EXPECT_EQ(cache.GetFrame(0, 3), nullptr);
    EXPECT_EQ(cache.GetFrame(119999, 1), nullptr);
    EXPECT_EQ(cache.GetFrame(119999, -2), frames[0]);
    EXPECT_EQ(cache.GetFrame(119999, -3), nullptr);
    EXPECT_EQ(cache.GetFrame(120000, 0), nullptr);
    EXPECT_EQ(cache.GetFrame(120000, -1), nullptr) << "outside the list: nothing, whatever the offset";
    EXPECT_EQ(cache.GetFrame(-1, 1), nullptr);
}

TEST(DecodedVideoAppend, StepsPastTheNewestFrameFindNothingWhenTheListStartsAtSlotZero)
{
    // Straight lists from slot 0: a fresh one, and one just re-packed by growth.
    DecodedVideo cache;
    auto frames = AppendRun(cache, 0, 23); // slots 0..22 of 25
    const int64_t newest = frames.back()->startTime;
    for (int offset = 1; offset <= 5; ++offset)
        EXPECT_EQ(cache.GetFrame(newest, offset), nullptr) << "offset " << offset;
    EXPECT_EQ(cache.GetFrame(frames.front()->startTime, 25), nullptr);

    frames = AppendRun(cache, newest + kStep, 2); // grows: 25 frames in slots 0..24 of 37
    ASSERT_EQ(cache.GetMaxFrameCount(), 37);
    for (int offset = 1; offset <= 14; ++offset)
        EXPECT_EQ(cache.GetFrame(frames.back()->startTime, offset), nullptr) << "offset " << offset;
}

// ---------------------------------------------------------------------------
// Budget

TEST(DecodedVideoBudget, SetMaxCacheSizeSizesTheRing)
{
    DecodedVideo cache;
    cache.SetMaxCacheSize(1000000000, 1920, 1080, 3);
    EXPECT_EQ(cache.GetMaxCacheSize(), 1000000000);
    EXPECT_EQ(cache.GetMaxFrameCount(), 192);
    cache.SetMaxCacheSize(100000000, 1920, 1080, 3);
    EXPECT_EQ(cache.GetMaxCacheSize(), 100000000);
    EXPECT_EQ(cache.GetMaxFrameCount(), 25);
    cache.SetMaxCacheSize(1000000000, 0, 1080, 3);
    EXPECT_EQ(cache.GetMaxFrameCount(), 25);

    // It also empties the cache.
    cache.SetMaxCacheSize(2000000000, 1920, 1080, 3);
    ASSERT_EQ(cache.GetMaxFrameCount(), 385);
    AppendRun(cache, 0, 40);
    EXPECT_EQ(cache.GetMaxFrameCount(), 385) << "no growth needed";
    for (auto args : {std::vector<int64_t>{-1, 1920, 1080, 3}, {1000, -1, 1080, 3}, {1000, 1920, -1, 3},
                      {1000, 1920, 1080, -1}}) {
        cache.SetMaxCacheSize(args[0], int(args[1]), int(args[2]), int(args[3]));
        EXPECT_EQ(cache.GetMaxCacheSize(), 2000000000) << "negative arguments change nothing";
        EXPECT_EQ(cache.GetMaxFrameCount(), 385);
        EXPECT_EQ(cache.GetFrameCount(), 40);
    }
    cache.SetMaxCacheSize(3 * kBytes, kBytes, 1, 1);
    EXPECT_EQ(cache.GetFrameCount(), 0);
    EXPECT_EQ(cache.GetEndTime(), 0);
}

TEST(DecodedVideoBudget, FullByBytes)
{
    DecodedVideo cache;
    SetBudget(cache, 10 * kBytes);
    EXPECT_FALSE(cache.IsCacheFull());
    AppendRun(cache, 0, 9);
    EXPECT_FALSE(cache.IsCacheFull());
    cache.AppendFrame(MakeFrame(9 * kStep));
    EXPECT_EQ(cache.GetSize(), 10 * kBytes);
    EXPECT_TRUE(cache.IsCacheFull());
}

TEST(DecodedVideoBudget, NoBudgetDropsTheOldestGoingForwardAndTheNewestGoingBack)
{
    DecodedVideo cache;
    auto frames = AppendRun(cache, 400000, 5);
    cache.UpdateCache(frames[2]->startTime, kFarEnd, true, true);
    EXPECT_TRUE(cache.CanCacheForwards());
    EXPECT_FALSE(cache.CanCacheBackwards());
    EXPECT_EQ(cache.GetFrameCount(), 4);
    EXPECT_EQ(cache.FirstFrame(), frames[1]);
    EXPECT_EQ(cache.GetSize(), 4 * kBytes);
    EXPECT_EQ(cache.GetStartTime(), 400000) << "not refreshed by the drop";
    EXPECT_EQ(cache.GetFrame(400000, 0), nullptr);
    EXPECT_EQ(cache.GetFrame(440000, -1), nullptr);

    // Playing backwards with nothing after the cache: the newest goes.
    const int64_t end = cache.GetEndTime();
    cache.UpdateCache(frames[2]->startTime, end, true, false);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_TRUE(cache.CanCacheBackwards());
    EXPECT_EQ(cache.GetFrameCount(), 3);
    EXPECT_EQ(cache.LastFrame(), frames[3]);
    EXPECT_EQ(cache.GetEndTime(), end);
    EXPECT_EQ(cache.GetFrame(frames[4]->startTime, 0), nullptr);
    EXPECT_EQ(cache.GetFrame(frames[3]->startTime, 1), nullptr);
}

TEST(DecodedVideoBudget, FullCacheKeepsWhatTrailsTooLittle)
{
    DecodedVideo cache;
    SetBudget(cache, 20 * kBytes);
    auto frames = AppendRun(cache, 0, 20); // full; a quarter of the budget is 5 frames
    cache.UpdateCache(frames[4]->startTime, kFarEnd, true, true); // 4 behind
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_FALSE(cache.CanCacheBackwards());
    EXPECT_EQ(cache.GetFrameCount(), 20);
    cache.UpdateCache(frames[5]->startTime, kFarEnd, true, true); // 5 behind: one goes
    EXPECT_TRUE(cache.CanCacheForwards());
    EXPECT_EQ(cache.GetFrameCount(), 19);
    cache.UpdateCache(frames[5]->startTime, kFarEnd, true, true); // below the budget: nothing to drop
    EXPECT_TRUE(cache.CanCacheForwards());
    EXPECT_EQ(cache.GetFrameCount(), 19);

    cache.AppendFrame(MakeFrame(20 * kStep)); // full again, 4 behind
    cache.UpdateCache(frames[5]->startTime, kFarEnd, true, true);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_EQ(cache.GetFrameCount(), 20);
    cache.UpdateCache(frames[15]->startTime, kFarEnd, true, true); // 14 behind: still one per call
    EXPECT_TRUE(cache.CanCacheForwards());
    EXPECT_EQ(cache.GetFrameCount(), 19);
    EXPECT_EQ(cache.FirstFrame(), frames[2]);
}

// ---------------------------------------------------------------------------
// Which way to decode

class DecodedVideoDirection : public testing::Test
{
protected:
    // Room for 100 frames: neither full nor near it.
    void SetUp() override { SetBudget(cache, 100 * kBytes); }

    DecodedVideo cache;
};

TEST_F(DecodedVideoDirection, PlayingForwardBeforeTheEndCachesForwards)
{
    AppendRun(cache, 0, 10);
    cache.UpdateCache(1000000, 10000000, true, true);
    EXPECT_TRUE(cache.CanCacheForwards());
    EXPECT_FALSE(cache.CanCacheBackwards());
    EXPECT_EQ(cache.GetFrameCount(), 10);
}

TEST_F(DecodedVideoDirection, PlayingBackwardWithEnoughFramesCachesBackwards)
{
    auto frames = AppendRun(cache, 400000, 40);
    cache.UpdateCache(frames[20]->startTime, 10000000, true, false);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_TRUE(cache.CanCacheBackwards());
    // Few frames: forwards first, whatever the direction of play.
    DecodedVideo few;
    SetBudget(few, 100 * kBytes);
    AppendRun(few, 400000, 29);
    few.UpdateCache(800000, 10000000, true, false);
    EXPECT_TRUE(few.CanCacheForwards());
    EXPECT_FALSE(few.CanCacheBackwards());
    // Past the end of the cache: forwards too.
    cache.UpdateCache(frames.back()->endTime + 1, 10000000, true, false);
    EXPECT_TRUE(cache.CanCacheForwards());
}

TEST_F(DecodedVideoDirection, EqualPlayTimeKeepsTheDirectionOfMotion)
{
    // 40 frames, paused: the quotas decide. 20 ahead and 20 behind of a
    // 100-frame budget: under the 40 % ahead when moving forward, under the
    // 40 % behind when moving back.
    auto frames = AppendRun(cache, 400000, 40);
    const int64_t middle = frames[20]->startTime;
    cache.UpdateCache(middle, 10000000, false, false);
    EXPECT_TRUE(cache.CanCacheForwards()) << "moved forward from 0";
    cache.UpdateCache(middle, 10000000, false, false);
    EXPECT_TRUE(cache.CanCacheForwards()) << "no motion: still forward";
    cache.UpdateCache(middle - 1, 10000000, false, false);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_TRUE(cache.CanCacheBackwards()) << "moved back";
    cache.UpdateCache(middle - 1, 10000000, false, false);
    EXPECT_TRUE(cache.CanCacheBackwards()) << "no motion: still back";
    EXPECT_FALSE(cache.CanCacheForwards());
}

TEST_F(DecodedVideoDirection, EarlyReturnLeavesTheLastPlayTime)
{
    // A budget of 40 frames; the play time of an update that returns early
    // (full, too little behind) must not be remembered.
    DecodedVideo full;
    SetBudget(full, 40 * kBytes);
    auto frames = AppendRun(full, 400000, 39);
    full.UpdateCache(frames[30]->startTime, kFarEnd, false, false); // not full: remembered
    EXPECT_TRUE(full.CanCacheForwards());
    frames.push_back(MakeFrame(frames.back()->startTime + kStep));
    full.AppendFrame(frames.back());
    ASSERT_TRUE(full.IsCacheFull());
    full.UpdateCache(frames[4]->startTime, kFarEnd, true, true); // 4 of 10 needed behind: early return
    EXPECT_FALSE(full.CanCacheForwards());
    ASSERT_EQ(full.GetFrameCount(), 40);

    // Paused at frame 10 with nothing after the cache: 10 frames behind is
    // under the 40 % quota when moving back from frame 30 (backwards, and the
    // newest frame goes), over the 10 % one when moving forward from frame 4.
    full.UpdateCache(frames[10]->startTime, full.GetEndTime(), false, false);
    EXPECT_TRUE(full.CanCacheBackwards());
    EXPECT_FALSE(full.CanCacheForwards());
    EXPECT_EQ(full.GetFrameCount(), 39);
    EXPECT_EQ(full.LastFrame(), frames[38]);
}

TEST_F(DecodedVideoDirection, NothingBeforeOrAfterMeansNeither)
{
    auto frames = AppendRun(cache, 0, 10);
    cache.UpdateCache(frames[5]->startTime, cache.GetEndTime(), true, false);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_FALSE(cache.CanCacheBackwards());
    cache.UpdateCache(frames[5]->startTime, cache.GetEndTime(), false, true);
    EXPECT_FALSE(cache.CanCacheForwards());
    EXPECT_FALSE(cache.CanCacheBackwards());
    EXPECT_EQ(cache.GetFrameCount(), 10);
}

// ---------------------------------------------------------------------------
// Model: a sorted map following the cache's rules, fed the same random steps

class ReferenceCache
{
public:
    struct Entry {
        int64_t end = 0;
        FramePtr frame;
    };

    // Reads the frame's values before the cache rewrites them.
    void Append(const FramePtr& frame)
    {
        if (!frame) {
            Clear();
            return;
        }
        int64_t start = frame->startTime;
        const int64_t end = frame->endTime;
        if (frame->data == nullptr) {
            if (!frames_.empty() && end > frames_.rbegin()->first)
                frames_.rbegin()->second.end = end;
            Refresh();
            return;
        }
        if (start < 0) {
            if (end < 0)
                return;
            start = 0;
        }
        if (frames_.empty()) {
            frames_[start <= Settings::ROUNDING_ERROR_EXTRA_TIME ? 0 : start] = {end, frame};
            Refresh();
            return;
        }
        if (start == frames_.begin()->first || start == frames_.rbegin()->first)
            return;
        if (Count() == capacity_[active_] - 1)
            capacity_[active_] = int(float(capacity_[active_]) * 1.5f);
        if (start > frames_.rbegin()->first) {
            frames_.rbegin()->second.end = start - 1;
            frames_[start] = {end, frame};
        } else if (start >= start_) {
            return;
        } else {
            frames_[start] = {start_ - 1, frame};
        }
        Refresh();
    }

    void Clear()
    {
        frames_.clear();
        active_ = 1 - active_;
        start_ = end_ = 0;
    }

    void ForceClear()
    {
        frames_.clear();
        start_ = end_ = 0;
    }

    void SetMaxCacheSize(int64_t bytes, int width, int height, int bytesPerPixel)
    {
        if (bytes < 0 || width < 0 || height < 0 || bytesPerPixel < 0)
            return;
        budget_ = bytes;
        const int64_t frameBytes = int64_t(width) * height * bytesPerPixel;
        const int slots = frameBytes > 0 ? int(float(bytes / frameBytes) * 1.2f) : 0;
        Clear();
        capacity_[active_] = std::max(slots, 25);
    }

    void OverrideLastFrameEndTime(int64_t end)
    {
        if (frames_.empty())
            return;
        frames_.rbegin()->second.end = end;
        end_ = end;
    }

    bool IsFull() const { return Size() >= budget_ || Count() >= capacity_[active_]; }

    void UpdateCache(int64_t playTime, int64_t mediaEnd, bool playing, bool forward)
    {
        const bool full = IsFull();
        int64_t ahead = 0;
        int64_t behind = 0;
        for (const auto& [start, entry] : frames_)
            (start >= playTime ? ahead : behind) += entry.frame->size;
        canForwards_ = canBackwards_ = false;
        if (playTime != lastUpdate_)
            movingForward_ = playTime > lastUpdate_;
        const auto aheadQuota = int64_t(double(budget_) * (movingForward_ ? 0.4 : 0.1));
        const auto behindQuota = int64_t(double(budget_) * (movingForward_ ? 0.1 : 0.4));
        // Compared as behind < budget / 4.
        auto belowTrailingLimit = [&](int64_t bytes) { return 4 * bytes < budget_; };
        const bool playingForward = playing && forward;
        const bool moreAfter = end_ < mediaEnd;
        const bool moreBefore = start_ > 0;

        enum { None, Forward, Backward } direction = None;
        // Fewer than 30 frames call for more ahead only while there is room.
        if (moreAfter && (playingForward || Count() == 0 || (Count() < 30 && !full) || end_ < playTime))
            direction = Forward;
        else if (moreBefore && playing && !forward)
            direction = Backward;
        else if (moreAfter && ahead < aheadQuota)
            direction = Forward;
        else if (moreBefore && behind < behindQuota && !playingForward)
            direction = Backward;

        if (direction == Forward) {
            if (full) {
                if (belowTrailingLimit(behind))
                    return;
                if (!frames_.empty())
                    frames_.erase(frames_.begin());
            }
            canForwards_ = true;
        } else if (direction == Backward) {
            if (full) {
                if (belowTrailingLimit(ahead))
                    return;
                if (!frames_.empty())
                    frames_.erase(std::prev(frames_.end()));
            }
            canBackwards_ = true;
        } else {
            if (full)
                return;
            canForwards_ = moreAfter;
        }
        lastUpdate_ = playTime;
    }

    // Frame covering time, ignoring the list times.
    const FramePtr* Covering(int64_t time) const
    {
        auto it = frames_.upper_bound(time);
        if (it == frames_.begin())
            return nullptr;
        --it;
        return time <= it->second.end ? &it->second.frame : nullptr;
    }

    FramePtr Get(int64_t time, int offset) const
    {
        if (frames_.empty() || time < start_ || time > end_ || !Covering(time))
            return nullptr;
        auto it = std::prev(frames_.upper_bound(time));
        for (; offset > 0; --offset) {
            if (++it == frames_.end())
                return nullptr;
        }
        for (; offset < 0; ++offset) {
            if (it == frames_.begin())
                return nullptr;
            --it;
        }
        return it->second.frame;
    }

    int Count() const { return int(frames_.size()); }
    int64_t Size() const
    {
        int64_t size = 0;
        for (const auto& item : frames_)
            size += item.second.frame->size;
        return size;
    }
    // The list times lag behind after UpdateCache drops a frame.
    bool TimesAreStale() const
    {
        if (frames_.empty())
            return start_ != 0 || end_ != 0;
        return start_ != frames_.begin()->first || end_ != frames_.rbegin()->second.end;
    }

    const std::map<int64_t, Entry>& Frames() const { return frames_; }
    int64_t Start() const { return start_; }
    int64_t End() const { return end_; }
    int Capacity() const { return capacity_[active_]; }
    int64_t Budget() const { return budget_; }
    bool CanForwards() const { return canForwards_; }
    bool CanBackwards() const { return canBackwards_; }

private:
    void Refresh()
    {
        start_ = frames_.empty() ? 0 : frames_.begin()->first;
        end_ = frames_.empty() ? 0 : frames_.rbegin()->second.end;
    }

    std::map<int64_t, Entry> frames_;
    int64_t start_ = 0;
    int64_t end_ = 0;
    int capacity_[2] = {25, 25};
    int active_ = 0;
    int64_t budget_ = 0;
    int64_t lastUpdate_ = 0;
    bool movingForward_ = true;
    bool canForwards_ = false;
    bool canBackwards_ = false;
};

void ExpectSameState(const DecodedVideo& cache, const ReferenceCache& model)
{
    ASSERT_EQ(cache.GetFrameCount(), model.Count());
    ASSERT_EQ(cache.GetStartTime(), model.Start());
    ASSERT_EQ(cache.GetEndTime(), model.End());
    ASSERT_EQ(cache.GetSize(), model.Size());
    ASSERT_EQ(cache.GetMaxFrameCount(), model.Capacity());
    ASSERT_EQ(cache.GetMaxCacheSize(), model.Budget());
    ASSERT_EQ(cache.IsCacheFull(), model.IsFull());
    const auto& frames = model.Frames();
    ASSERT_EQ(cache.FirstFrame(), frames.empty() ? nullptr : frames.begin()->second.frame);
    ASSERT_EQ(cache.LastFrame(), frames.empty() ? nullptr : frames.rbegin()->second.frame);
    for (const auto& [start, entry] : frames) {
        ASSERT_EQ(entry.frame->startTime, start);
        ASSERT_EQ(entry.frame->endTime, entry.end) << "frame at " << start;
    }
}

void ExpectSameAnswer(const DecodedVideo& cache, const ReferenceCache& model, int64_t time, int offset)
{
    ASSERT_EQ(cache.GetFrame(time, offset), model.Get(time, offset)) << "GetFrame(" << time << ", " << offset << ")";
    const FramePtr* covering = model.Covering(time);
    const int slot = cache.GetFrameIndex(time);
    if (!covering) {
        ASSERT_EQ(slot, -1) << "GetFrameIndex(" << time << ")";
    } else {
        ASSERT_GE(slot, 0) << "GetFrameIndex(" << time << ")";
        ASSERT_EQ(cache.GetFrameAtIndex(slot), *covering) << "GetFrameIndex(" << time << ")";
    }
}

TEST(DecodedVideoModel, RandomStepsAgreeWithASortedMap)
{
    std::mt19937_64 random(20240611);
    auto uniform = [&](int64_t low, int64_t high) { return std::uniform_int_distribution<int64_t>(low, high)(random); };

    DecodedVideo cache;
    ReferenceCache model;
    int stored = 0;
    int growths = 0;
    int wrapped = 0;
    int updates = 0;
    int64_t playTime = 0; // kept now and then: an unchanged play time keeps the direction
    for (int step = 0; step < 30000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const auto& frames = model.Frames();
        const bool empty = frames.empty();
        const int64_t oldest = empty ? 0 : frames.begin()->first;
        const int64_t newest = empty ? 0 : frames.rbegin()->first;
        const int64_t newestEnd = empty ? 0 : frames.rbegin()->second.end;
        const int size = int(uniform(1, 64));
        FramePtr frame;
        bool append = true;

        const int64_t kind = uniform(0, 999);
        if (kind < 320) { // after the newest (or a first frame near 0)
            const int64_t start = empty ? uniform(-2000, 3000) : newest + uniform(1, 90000);
            frame = MakeFrame(start, start + uniform(0, 90000), size);
        } else if (kind < 470) { // before the list
            const int64_t start = model.Start() - uniform(1, 120000);
            frame = MakeFrame(start, start + uniform(0, 60000), size);
        } else if (kind < 510) { // a known start
            const int64_t start = uniform(0, 1) ? oldest : newest;
            frame = MakeFrame(start, start + kStep, size);
        } else if (kind < 550) { // inside the range
            const int64_t start = newest > model.Start() ? uniform(model.Start(), newest - 1) : newest;
            frame = MakeFrame(start, start + kStep, size);
        } else if (kind < 590) { // negative
            const int64_t start = -uniform(1, 100000);
            frame = MakeFrame(start, uniform(-100000, 100000), size);
        } else if (kind < 650) { // no pixels: before the newest's start or past its end
            if (model.TimesAreStale()) {
                append = false; // whether the list times refresh without an extension is left open
            } else {
                frame = NoPixels(uniform(0, 1) ? newest - uniform(0, 50000)
                                               : std::max(newest, newestEnd) + uniform(1, 500000));
            }
        } else if (kind < 660) {
            append = false;
            cache.Clear();
            model.Clear();
        } else if (kind < 663) {
            append = false;
            cache.ForceClear();
            model.ForceClear();
        } else if (kind < 666) {
            frame = nullptr; // an empty pointer clears
        } else if (kind < 670) {
            append = false;
            const int64_t bytes = uniform(-10, 4000);
            const int width = int(uniform(-1, 8));
            const int height = int(uniform(0, 8));
            const int depth = int(uniform(1, 4));
            cache.SetMaxCacheSize(bytes, width, height, depth);
            model.SetMaxCacheSize(bytes, width, height, depth);
        } else if (kind < 685) {
            append = false;
            if (!empty) {
                const int64_t end = newest + uniform(0, 200000);
                cache.OverrideLastFrameEndTime(end);
                model.OverrideLastFrameEndTime(end);
            }
        } else if (kind < 800) {
            append = false;
            if (uniform(0, 4) != 0)
                playTime = std::max<int64_t>(0, uniform(model.Start() - 100000, model.End() + 100000));
            const int64_t mediaEnd = model.End() + uniform(-100000, 400000);
            const bool playing = uniform(0, 3) != 0;
            const bool forward = uniform(0, 1) != 0;
            ASSERT_EQ(cache.IsCacheFull(), model.IsFull());
            cache.UpdateCache(playTime, mediaEnd, playing, forward);
            model.UpdateCache(playTime, mediaEnd, playing, forward);
            ASSERT_EQ(cache.CanCacheForwards(), model.CanForwards())
                << "UpdateCache(" << playTime << ", " << mediaEnd << ", " << playing << ", " << forward << ")";
            ASSERT_EQ(cache.CanCacheBackwards(), model.CanBackwards())
                << "UpdateCache(" << playTime << ", " << mediaEnd << ", " << playing << ", " << forward << ")";
            updates += model.CanForwards() || model.CanBackwards() ? 1 : 0;
        } else {
            append = false; // look-ups only
        }
        if (append) {
            const int capacity = model.Capacity();
            model.Append(frame);
            cache.AppendFrame(frame);
            growths += model.Capacity() > capacity ? 1 : 0;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectSameState(cache, model));
        stored = std::max(stored, cache.GetFrameCount());
        if (!frames.empty() &&
            cache.GetFrameIndex(frames.begin()->first) > cache.GetFrameIndex(frames.rbegin()->first))
            ++wrapped;

        // Look-ups: random times around the list and every edge of a frame.
        for (int q = 0; q < 4; ++q) {
            int64_t time = uniform(model.Start() - 50000, model.End() + 50000);
            if (q % 2 == 1 && !frames.empty()) {
                auto it = frames.begin();
                std::advance(it, uniform(0, int64_t(frames.size()) - 1));
                const int64_t edges[] = {it->first, it->first - 1, it->second.end, it->second.end + 1};
                time = edges[uniform(0, 3)];
            }
            ASSERT_NO_FATAL_FAILURE(ExpectSameAnswer(cache, model, time, int(uniform(-3, 3))));
        }
    }
    // The run reached the layouts it is meant to cover.
    EXPECT_GE(stored, 40);
    EXPECT_GE(growths, 20);
    EXPECT_GE(wrapped, 3000);
    EXPECT_GE(updates, 1000);
}

} // namespace
