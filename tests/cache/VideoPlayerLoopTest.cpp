// The video cache in a player's loop on real decoding: a host decodes a
// generated clip with MediaInstance into a DecodedVideo with a budget of a
// few frames, plays it forward, plays it backwards from the end (seeking a
// GOP before the oldest cached frame for the frames before it) and scrubs to
// random times. At every position the cache must serve the picture a plain
// front-to-back decode shows there, within its budget. Two set-ups: the
// catalogue clip (2 s) with room for 15 frames, and a 6 s clip with room for
// 40, where frames come and go many times over.

#include <MolvaneAV/DecodedVideo.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QList>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <ostream>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace molvane::test;

static void PrintTo(const DecodedVideoFrame& frame, std::ostream* out)
{
    *out << "frame " << frame.startTime << ".." << frame.endTime;
}

namespace {

using FramePtr = std::shared_ptr<DecodedVideoFrame>;
using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;
using VideoList = QList<FramePtr>;

// Far more calls than the clip has packets: a pump that never ends fails
// instead of hanging the run.
constexpr int kMaxCalls = 5000;
// Far more cache updates per play position than a sane exchange needs.
constexpr int kMaxUpdatesPerPosition = 200;
constexpr int kGop = 25;

struct Setup {
    std::string name;
    int frames = 0;         // in the clip
    int64_t budgetFrames = 0;
};

std::ostream& operator<<(std::ostream& out, const Setup& setup)
{
    return out << setup.name;
}

// The catalogue clip, or one like it but longer, written once per process.
QString ClipPath(const Setup& setup)
{
    if (setup.frames == 50)
        return GetFixture(FixtureId::H264AacMp4).path;
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    const QString path = QDir(FixtureDirectory()).absoluteFilePath(QString::fromStdString(setup.name) + ".mp4");
    static std::map<QString, bool> written;
    if (!written[path]) {
        MediaSpec mediaSpec = FixtureSpec(FixtureId::H264AacMp4);
        mediaSpec.video[0].frames = setup.frames;
        mediaSpec.video[0].gop = kGop;
        mediaSpec.audio[0].sampleFrames = int64_t(setup.frames) * 1920;
        QString error;
        if (!WriteMedia(mediaSpec, path, &error))
            throw std::runtime_error("cannot write " + setup.name + ": " + error.toStdString());
        written[path] = true;
    }
    return path;
}

// What a plain front-to-back decode shows.
struct Timeline {
    std::vector<int64_t> starts;
    std::vector<int> indices;
    int64_t frameDuration = 0;
    int frameBytes = 0;
    int width = 0;
    int height = 0;

    int64_t End() const { return starts.back() + frameDuration - 1; }
    // Position of the picture shown at time, -1 before the first.
    int PositionAt(int64_t time) const
    {
        return int(std::upper_bound(starts.begin(), starts.end(), time) - starts.begin()) - 1;
    }
};

Timeline DecodeFromTheFront(const std::shared_ptr<MediaInfo>& info)
{
    Timeline timeline;
    MediaInstance instance;
    if (!instance.Initialize(info, 0))
        return timeline;
    AudioList audio;
    VideoList video;
    for (int calls = 0; calls < kMaxCalls && instance.HasPacket(); ++calls) {
        instance.DecodePacket(audio, video, -1);
        audio.clear();
    }
    for (const FramePtr& frame : video) {
        if (frame->data == nullptr)
            continue;
        timeline.starts.push_back(frame->startTime);
        timeline.indices.push_back(PaintedIndex(*frame));
        timeline.frameBytes = frame->size;
        timeline.width = frame->width;
        timeline.height = frame->height;
    }
    if (timeline.starts.size() > 1)
        timeline.frameDuration = timeline.starts[1] - timeline.starts[0];
    return timeline;
}

class VideoPlayerLoop : public testing::TestWithParam<Setup>
{
protected:
    void SetUp() override
    {
        info_ = std::make_shared<MediaInfo>(ClipPath(GetParam()));
        ASSERT_TRUE(MediaReader::ParseMedia(info_));
        static std::map<std::string, Timeline> timelines;
        auto found = timelines.find(GetParam().name);
        if (found == timelines.end())
            found = timelines.emplace(GetParam().name, DecodeFromTheFront(info_)).first;
        timeline_ = &found->second;
        const int frames = GetParam().frames;
        ASSERT_EQ(int(timeline_->starts.size()), frames);
        ASSERT_TRUE(std::is_sorted(timeline_->starts.begin(), timeline_->starts.end()));
        ASSERT_EQ(timeline_->frameDuration, 40000);
        for (int i = 0; i < frames; ++i)
            ASSERT_EQ(timeline_->indices[size_t(i)], i) << "the clip paints its frame numbers";
    }

    std::shared_ptr<MediaInfo> info_;
    const Timeline* timeline_ = nullptr;
};

// A host: decodes on demand what the cache asks for, forwards from after the
// newest cached frame, backwards a GOP at a time before the oldest.
class Host
{
public:
    Host(std::shared_ptr<MediaInfo> info, const Timeline& timeline, int64_t budgetFrames) : timeline_(timeline)
    {
        EXPECT_TRUE(instance_.Initialize(info, 0));
        budget_ = budgetFrames * timeline.frameBytes;
        cache_.SetMaxCacheSize(budget_, timeline.width, timeline.height, 3);
    }

    const DecodedVideo& Cache() const { return cache_; }
    int Appended() const { return appended_; }
    int Seeks() const { return seeks_; }

    // One play position: let the cache decide, decode what it asks for until
    // it asks for nothing, then check what it serves.
    void ShowAt(int64_t position, bool playing, bool forward)
    {
        int forwards = 0;
        int backwards = 0;
        for (int update = 0;; ++update) {
            ASSERT_LT(update, kMaxUpdatesPerPosition)
                << "the cache keeps asking for frames at " << position << ": " << forwards << " times after, "
                << backwards << " times before its " << cache_.GetFrameCount() << " frames";
            cache_.UpdateCache(position, timeline_.End(), playing, forward);
            if (cache_.CanCacheForwards()) {
                ++forwards;
                if (!AppendNext(position))
                    break;
            } else if (cache_.CanCacheBackwards()) {
                ++backwards;
                if (!PrependPrevious())
                    break;
            } else {
                break;
            }
        }
        ExpectShows(position);
    }

    // Jumps to position: a fresh cache unless it holds the picture already
    // and keep is set.
    void ScrubTo(int64_t position, bool keep, bool force)
    {
        if (!keep || !cache_.GetFrame(position, 0)) {
            if (force)
                cache_.ForceClear();
            else
                cache_.Clear();
            followsNewest_ = false;
        }
        ShowAt(position, false, true);
    }

    void ExpectShows(int64_t position)
    {
        const int expected = timeline_.PositionAt(position);
        const FramePtr frame = cache_.GetFrame(position, 0);
        ASSERT_NE(frame, nullptr) << "nothing at " << position;
        EXPECT_EQ(PaintedIndex(*frame), timeline_.indices[size_t(expected)]) << "at " << position;
        EXPECT_EQ(frame->startTime, timeline_.starts[size_t(expected)]) << "at " << position;
        const FramePtr next = cache_.GetFrame(position, 1);
        if (next) {
            ASSERT_LT(expected + 1, int(timeline_.starts.size())) << "a frame after the last at " << position;
            EXPECT_EQ(PaintedIndex(*next), timeline_.indices[size_t(expected + 1)]) << "after " << position;
        }
        const FramePtr previous = cache_.GetFrame(position, -1);
        if (previous) {
            ASSERT_GT(expected, 0) << "a frame before the first at " << position;
            EXPECT_EQ(PaintedIndex(*previous), timeline_.indices[size_t(expected - 1)]) << "before " << position;
        }
    }

private:
    // The next record the instance delivers, with the end time the host
    // gives it; null when the input is exhausted.
    FramePtr Decode(int64_t target)
    {
        for (int calls = 0; pending_.isEmpty(); ++calls) {
            if (calls >= kMaxCalls || !instance_.HasPacket())
                return nullptr;
            instance_.DecodePacket(audio_, pending_, target);
            audio_.clear();
        }
        FramePtr frame = pending_.takeFirst();
        // Frames end where the next one starts; the end-of-stream marker
        // stretches the last one to the end of the clip.
        frame->endTime = frame->data ? frame->startTime + timeline_.frameDuration - 1 : timeline_.End();
        return frame;
    }

    void Seek(int64_t time)
    {
        instance_.Seek(time);
        pending_.clear();
        ++seeks_;
    }

    void Append(const FramePtr& frame)
    {
        cache_.AppendFrame(frame);
        if (frame->data)
            ++appended_;
        EXPECT_LE(cache_.GetSize(), budget_ + timeline_.frameBytes) << "after appending " << frame->startTime;
    }

    // Appends the frame after the newest cached one (or the one covering
    // position in an empty cache); false when there is none.
    bool AppendNext(int64_t position)
    {
        const FramePtr newest = cache_.LastFrame();
        // The decoder follows the newest frame only while the cache still
        // ends with what it last delivered: a dropped newest frame means the
        // next one to fetch lies earlier than the decoder stands.
        if (followsNewest_ && (!newest || newest->startTime != lastAppended_))
            followsNewest_ = false;
        if (!followsNewest_) {
            const int64_t from = newest ? newest->startTime : position;
            Seek(from);
            target_ = from;
            followsNewest_ = true;
        }
        for (;;) {
            const FramePtr frame = Decode(target_);
            if (!frame)
                return false;
            // What a seek brings before the newest frame is cached already.
            if (frame->data && newest && frame->startTime <= newest->startTime)
                continue;
            Append(frame);
            if (frame->data)
                lastAppended_ = frame->startTime;
            return true;
        }
    }

    // Prepends the frame before the oldest cached one; false when there is
    // none.
    bool PrependPrevious()
    {
        const FramePtr oldest = cache_.FirstFrame();
        if (!oldest)
            return false;
        const int64_t before = oldest->startTime;
        if (before > chunkLimit_ || chunk_.empty()) {
            // A GOP earlier, decoded up to the oldest frame.
            const int64_t from = std::max<int64_t>(0, before - kGop * timeline_.frameDuration);
            Seek(from);
            followsNewest_ = false;
            chunk_.clear();
            for (FramePtr frame = Decode(from); frame && frame->data && frame->startTime < before;
                 frame = Decode(from))
                chunk_.push_back(frame);
            chunkLimit_ = before;
        }
        while (!chunk_.empty() && chunk_.back()->startTime >= before)
            chunk_.pop_back();
        if (chunk_.empty())
            return false;
        const FramePtr frame = chunk_.back();
        chunk_.pop_back();
        chunkLimit_ = frame->startTime;
        Append(frame);
        return true;
    }

    const Timeline& timeline_;
    MediaInstance instance_;
    DecodedVideo cache_;
    int64_t budget_ = 0;
    AudioList audio_;
    VideoList pending_;
    bool followsNewest_ = false;
    int64_t lastAppended_ = -1;
    int64_t target_ = -1;
    // Decoded frames before the oldest cached one, in time order: every
    // frame from the first up to (not including) chunkLimit_.
    std::vector<FramePtr> chunk_;
    int64_t chunkLimit_ = -1;
    int appended_ = 0;
    int seeks_ = 0;
};

TEST_P(VideoPlayerLoop, ForwardPlayShowsEveryFrameOnce)
{
    const Timeline& timeline = *timeline_;
    Host host(info_, timeline, GetParam().budgetFrames);
    for (int64_t position = 0; position <= timeline.End(); position += timeline.frameDuration / 2) {
        SCOPED_TRACE(position);
        ASSERT_NO_FATAL_FAILURE(host.ShowAt(position, true, true));
    }
    EXPECT_EQ(host.Appended(), GetParam().frames) << "every frame decoded and cached once";
    EXPECT_EQ(host.Seeks(), 1);
    EXPECT_EQ(host.Cache().GetEndTime(), timeline.End());
    EXPECT_LE(host.Cache().GetFrameCount(), GetParam().budgetFrames + 1);
}

TEST_P(VideoPlayerLoop, ReversePlayFromTheEndShowsEveryFrame)
{
    const Timeline& timeline = *timeline_;
    Host host(info_, timeline, GetParam().budgetFrames);
    ASSERT_NO_FATAL_FAILURE(host.ScrubTo(timeline.starts.back(), false, false));
    for (int64_t position = timeline.End(); position >= 0; position -= timeline.frameDuration / 2) {
        SCOPED_TRACE(position);
        ASSERT_NO_FATAL_FAILURE(host.ShowAt(position, true, false));
    }
    // Each GOP decoded about once for the way back, not once per frame.
    EXPECT_LE(host.Seeks(), GetParam().frames / kGop + 2);
}

TEST_P(VideoPlayerLoop, ScrubbingToRandomTimesShowsTheFrameThere)
{
    const Timeline& timeline = *timeline_;
    Host host(info_, timeline, GetParam().budgetFrames);
    std::mt19937 random(99);
    std::uniform_int_distribution<int64_t> anywhere(0, timeline.End());
    for (int scrub = 0; scrub < 40; ++scrub) {
        const int64_t position = anywhere(random);
        SCOPED_TRACE("scrub " + std::to_string(scrub) + " to " + std::to_string(position));
        const bool keep = random() % 2 == 0;
        ASSERT_NO_FATAL_FAILURE(host.ScrubTo(position, keep, random() % 4 == 0));
        // Then play a few frames one way or the other.
        const bool forward = random() % 2 == 0;
        const int64_t step = forward ? timeline.frameDuration : -timeline.frameDuration;
        int64_t at = position;
        for (int frame = 0; frame < 6 && at + step >= 0 && at + step <= timeline.End(); ++frame) {
            at += step;
            ASSERT_NO_FATAL_FAILURE(host.ShowAt(at, true, forward)) << "playing on to " << at;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, VideoPlayerLoop,
                         testing::Values(Setup{"two_seconds_15_frames", 50, 15},
                                         Setup{"six_seconds_40_frames", 150, 40}),
                         [](const testing::TestParamInfo<Setup>& info) { return info.param.name; });

} // namespace
