// The video frame cache on synthetic frames: growth, the staged release of
// cleared frames, copies, neighbour look-ups and budget sizing by hand; the
// rest (ring layouts, AppendFrame's rules, UpdateCache's decisions) by a long
// random run checked step by step against a plain sorted-map model.

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
// Neighbours

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
