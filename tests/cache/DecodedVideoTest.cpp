// The video frame cache against a sorted map that follows its rules through
// a long random run (ring layouts and growth, placement, UpdateCache's
// decisions and drops, look-ups with offsets, both clears), plus what the map
// does not show: decisions at their exact limits, the sizing of the ring and
// when cleared frames are released.

#include <MolvaneAV/DecodedVideo.h>
#include <MolvaneAV/Settings.h>

#include <gtest/gtest.h>

#include <array>
#include <iterator>
#include <map>
#include <random>
#include <tuple>
#include <vector>

namespace {

using FramePtr = std::shared_ptr<DecodedVideoFrame>;

FramePtr MakeFrame(int64_t start, int64_t end, int size = 16)
{
    const std::vector<uint8_t> bytes(size_t(size), 0x5A);
    auto frame = std::make_shared<DecodedVideoFrame>(bytes.data(), size, 4, 4, start, 25.0, 0, false);
    frame->endTime = end;
    return frame;
}

// The cache's rules over a sorted map: the end each frame must have, the list
// times (left stale by UpdateCache's drops) and the slots of both vectors.
struct Model {
    std::map<int64_t, std::pair<int64_t, FramePtr>> frames; // start -> end, frame
    int64_t start = 0, end = 0, budget = 0, lastUpdate = 0;
    int capacity[2] = {25, 25}, active = 0;
    bool movingForward = true, forwards = false, backwards = false;

    int Count() const { return int(frames.size()); }
    int64_t Size() const
    {
        int64_t size = 0;
        for (const auto& item : frames)
            size += item.second.second->size;
        return size;
    }
    bool Full() const { return Size() >= budget || Count() >= capacity[active]; }
    void Refresh()
    {
        start = frames.empty() ? 0 : frames.begin()->first;
        end = frames.empty() ? 0 : frames.rbegin()->second.first;
    }
    void Clear(bool force)
    {
        frames.clear();
        active = force ? active : 1 - active;
        Refresh();
    }
    // Without a frame size the ring gets the least slots; a negative argument changes nothing.
    void SetMaxCacheSize(int64_t bytes, int width, int height, int depth)
    {
        if (bytes >= 0 && width >= 0 && height >= 0 && depth >= 0)
            budget = bytes, Clear(false), capacity[active] = 25;
    }

    // Reads the frame's times before the cache rewrites them.
    void Append(const FramePtr& frame)
    {
        if (!frame)
            return Clear(false);
        const int64_t s = std::max<int64_t>(frame->startTime, 0), e = frame->endTime;
        if (!frame->data) {
            if (!frames.empty() && e > frames.rbegin()->first)
                frames.rbegin()->second.first = e;
        } else if (frame->startTime < 0 && e < 0) {
            return;
        } else if (frames.empty()) {
            frames[s <= Settings::ROUNDING_ERROR_EXTRA_TIME ? 0 : s] = {e, frame};
        } else {
            if (s == frames.begin()->first || s == frames.rbegin()->first)
                return;
            if (Count() == capacity[active] - 1)
                capacity[active] = capacity[active] * 3 / 2;
            if (s > frames.rbegin()->first)
                frames.rbegin()->second.first = s - 1, frames[s] = {e, frame};
            else if (s < start)
                frames[s] = {start - 1, frame};
            else
                return; // inside the cached range
        }
        Refresh();
    }

    void Update(int64_t play, int64_t mediaEnd, bool playing, bool forward)
    {
        const bool full = Full();
        int64_t ahead = 0, behind = 0;
        for (const auto& [s, entry] : frames)
            (s < play ? behind : ahead) += entry.second->size;
        forwards = backwards = false;
        if (play != lastUpdate)
            movingForward = play > lastUpdate;
        const int64_t aheadQuota = movingForward ? budget * 2 / 5 : budget / 10;
        const int64_t behindQuota = movingForward ? budget / 10 : budget * 2 / 5;
        const bool forwardPlay = playing && forward, moreAfter = end < mediaEnd, moreBefore = start > 0;
        int direction = 0; // 1 forwards, -1 backwards
        if (moreAfter && (forwardPlay || frames.empty() || Count() < 30 || end < play))
            direction = 1;
        else if (moreBefore && playing && !forward)
            direction = -1;
        else if (moreAfter && ahead < aheadQuota)
            direction = 1;
        else if (moreBefore && behind < behindQuota && !forwardPlay)
            direction = -1;
        if (full) {
            // Room comes from the trailing side, and only while it holds enough.
            const int64_t trailing = direction > 0 ? behind : ahead;
            if (direction == 0 || float(trailing) < float(budget) * Settings::maxTrailingCacheWhilePlaying)
                return;
            if (!frames.empty())
                frames.erase(direction > 0 ? frames.begin() : std::prev(frames.end()));
        }
        forwards = direction > 0 || (direction == 0 && moreAfter);
        backwards = direction < 0;
        lastUpdate = play;
    }

    FramePtr Covering(int64_t time) const
    {
        const auto it = frames.upper_bound(time);
        return it == frames.begin() || time > std::prev(it)->second.first ? nullptr : std::prev(it)->second.second;
    }
    FramePtr Get(int64_t time, int offset) const
    {
        if (time < start || time > end || !Covering(time))
            return nullptr;
        const auto index = std::distance(frames.begin(), frames.upper_bound(time)) - 1 + offset;
        return index < 0 || index >= Count() ? nullptr : std::next(frames.begin(), index)->second.second;
    }
};

void ExpectSameState(const DecodedVideo& cache, const Model& model)
{
    const auto& frames = model.frames;
    ASSERT_EQ(std::make_tuple(cache.GetFrameCount(), cache.GetStartTime(), cache.GetEndTime(), cache.GetSize(),
                              cache.GetMaxFrameCount(), cache.GetMaxCacheSize(), cache.IsCacheFull()),
              std::make_tuple(model.Count(), model.start, model.end, model.Size(), model.capacity[model.active],
                              model.budget, model.Full()));
    ASSERT_EQ(cache.FirstFrame(), frames.empty() ? nullptr : frames.begin()->second.second);
    ASSERT_EQ(cache.LastFrame(), frames.empty() ? nullptr : frames.rbegin()->second.second);
    for (const auto& [start, entry] : frames)
        ASSERT_EQ(std::make_pair(entry.second->startTime, entry.second->endTime), std::make_pair(start, entry.first));
}

TEST(DecodedVideo, FollowsItsRulesThroughThirtyThousandRandomSteps)
{
    std::mt19937_64 random(20240611);
    auto uniform = [&](int64_t low, int64_t high) { return std::uniform_int_distribution<int64_t>(low, high)(random); };
    DecodedVideo cache;
    Model model;
    const auto& frames = model.frames;
    int64_t playTime = 0;
    int size = 16; // one size per budget, as in a clip
    int wrapped = 0, recycled = 0;
    for (int step = 0; step < 30000; ++step) {
        SCOPED_TRACE(step);
        const int64_t newest = frames.empty() ? 0 : frames.rbegin()->first;
        const int64_t kind = uniform(0, 999), start = uniform(0, 1) ? model.start : newest;
        const int64_t inside = uniform(std::min(model.start, newest), newest);
        FramePtr frame;
        if (kind < 320) // after the newest, or a first frame around 0
            frame = frames.empty() ? MakeFrame(start + uniform(-2000, 3000), start + uniform(0, 90000), size)
                                   : MakeFrame(newest + uniform(1, 90000), newest + uniform(90000, 180000), size);
        else if (kind < 470) // before the list
            frame = MakeFrame(model.start - uniform(60001, 120000), model.start - uniform(0, 60000), size);
        else if (kind < 550) // a known start, or one inside the range
            frame = MakeFrame(kind < 510 ? start : inside, newest + 40000, size);
        else if (kind < 590)
            frame = MakeFrame(-uniform(1, 100000), uniform(-100000, 100000), size);
        else if (kind < 650) { // no pixels: ends before the newest's start or later
            frame = std::make_shared<DecodedVideoFrame>();
            frame->endTime = newest + uniform(-50000, 500000);
        }
        if (frame || kind < 652) {
            cache.AppendFrame(frame); // an empty pointer clears
            model.Append(frame);
        } else if (kind < 658) {
            kind < 654 ? cache.ForceClear() : cache.Clear();
            model.Clear(kind < 654);
        } else if (kind < 661) {
            size = 8 * int(uniform(1, 8));
            const int64_t bytes = size * uniform(-1, 60);
            const int width = int(uniform(-1, 0)), height = int(uniform(-1, 0)), depth = int(uniform(-1, 0)) + 4;
            cache.SetMaxCacheSize(bytes, width, height, depth);
            model.SetMaxCacheSize(bytes, width, height, depth);
        } else if (kind < 685 && !frames.empty()) {
            const int64_t end = newest + uniform(0, 200000);
            cache.OverrideLastFrameEndTime(end);
            model.frames.rbegin()->second.first = model.end = end;
        } else if (kind >= 685 && kind < 800) {
            if (uniform(0, 1) && !frames.empty()) // on a frame's start, or anywhere around the list
                playTime = std::next(frames.begin(), uniform(0, model.Count() - 1))->first;
            else if (uniform(0, 3) != 0)
                playTime = std::max<int64_t>(0, uniform(model.start - 100000, model.end + 100000));
            const int64_t mediaEnd = model.end + uniform(-100000, 400000);
            const bool playing = uniform(0, 3) != 0, forward = uniform(0, 1) != 0;
            const int count = model.Count();
            cache.UpdateCache(playTime, mediaEnd, playing, forward);
            model.Update(playTime, mediaEnd, playing, forward);
            ASSERT_EQ(std::make_pair(cache.CanCacheForwards(), cache.CanCacheBackwards()),
                      std::make_pair(model.forwards, model.backwards))
                << "UpdateCache(" << playTime << ", " << mediaEnd << ", " << playing << ", " << forward << ")";
            recycled += model.Count() < count ? 1 : 0;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectSameState(cache, model));
        if (!frames.empty())
            wrapped += cache.GetFrameIndex(frames.begin()->first) > cache.GetFrameIndex(frames.rbegin()->first) ? 1 : 0;
        // Look-ups around the list and on the edges of its frames.
        for (int q = 0; q < 4; ++q) {
            int64_t time = uniform(model.start - 50000, model.end + 50000);
            if (q % 2 == 1 && !frames.empty()) {
                const auto it = std::next(frames.begin(), uniform(0, model.Count() - 1));
                time = uniform(0, 1) ? it->first - uniform(0, 1) : it->second.first + uniform(0, 1);
            }
            const int offset = int(uniform(-3, 3)), slot = cache.GetFrameIndex(time);
            ASSERT_EQ(cache.GetFrame(time, offset), model.Get(time, offset)) << time << " " << offset;
            ASSERT_EQ(cache.GetFrameAtIndex(slot), model.Covering(time)) << time;
            ASSERT_EQ(slot < 0, model.Covering(time) == nullptr) << time;
        }
    }
    // The run reached wrapped rings and full caches that recycle frames.
    EXPECT_GT(wrapped, 3000);
    EXPECT_GT(recycled, 300);
}

TEST(DecodedVideo, UpdateCacheTurnsBackwardsAtThirtyFramesAndRecyclesOnlyPastTheTrailingLimit)
{
    // {frames, budget in frames, play time at frame, playing forward} ->
    // {forwards, backwards, frames left}. Frames of 100 bytes, 40000 µs
    // apart from 1 s; more media before and after.
    using Row = std::array<int, 7>;
    for (const Row& c : {Row{29, 48, 20, 0, 1, 0, 29}, {30, 48, 20, 0, 0, 1, 30},
                         // Fewer than 30 frames want more ahead even when full; a budget of 0 is always full.
                         {20, 20, 10, 0, 1, 0, 19}, {5, 0, 2, 0, 1, 0, 4},
                         // Full: the trailing side gives a frame up from a quarter of the budget (the default limit).
                         {40, 40, 3, 1, 0, 0, 40}, {40, 40, 10, 1, 1, 0, 39}, {40, 40, 31, 0, 0, 0, 40},
                         {40, 40, 30, 0, 0, 1, 39}}) {
        DecodedVideo cache;
        cache.SetMaxCacheSize(c[1] * 100, 10, 10, 1);
        for (int64_t start = 1000000; start < 1000000 + c[0] * 40000; start += 40000)
            cache.AppendFrame(MakeFrame(start, start + 39999, 100));
        cache.UpdateCache(1000000 + c[2] * 40000, 9000000, true, c[3] == 1);
        EXPECT_EQ(std::make_tuple(cache.CanCacheForwards(), cache.CanCacheBackwards(), cache.GetFrameCount()),
                  std::make_tuple(c[4] == 1, c[5] == 1, c[6]))
            << testing::PrintToString(c);
    }
}

TEST(DecodedVideo, SetMaxCacheSizeGivesSlotsForOnePointTwoTimesTheFramesThatFit)
{
    DecodedVideo cache;
    for (const auto& [bytes, slots] : {std::pair{1000000000, 192}, {100000000, 25}, {2000000000, 385}}) {
        cache.SetMaxCacheSize(bytes, 1920, 1080, 3);
        EXPECT_EQ(cache.GetMaxFrameCount(), slots) << bytes;
    }
}

TEST(DecodedVideo, ClearedFramesGoTwoSlotsPerAppendAndForceClearTakesAllAtOnce)
{
    DecodedVideo cache;
    std::vector<std::weak_ptr<DecodedVideoFrame>> cleared;
    for (int64_t start = 0; start < 30 * 40000; start += 40000) { // grows to 37 slots, frames in slots 0..29
        cache.AppendFrame(MakeFrame(start, start + 39999));
        cleared.push_back(cache.LastFrame());
    }
    cache.Clear();
    EXPECT_EQ(cache.GetMaxFrameCount(), 25) << "the other vector never grew";
    // From the retired vector's last slot down, two per append, slot 0 too.
    for (int append = 1; append <= 19; ++append) {
        cache.AppendFrame(MakeFrame(append * 40000, append * 40000 + 39999));
        for (int slot = 0; slot < 30; ++slot)
            ASSERT_EQ(cleared[slot].expired(), slot >= 37 - 2 * append) << "slot " << slot << " after " << append;
    }
    const std::weak_ptr<DecodedVideoFrame> kept = cache.FirstFrame();
    cache.Clear();
    EXPECT_FALSE(kept.expired());
    cache.ForceClear();
    EXPECT_TRUE(kept.expired());
}

} // namespace
