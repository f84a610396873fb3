// Seeking with MediaInstance as a host does it: after Seek(T) and decoding
// with T as the target, the picture covering T must be the one a plain
// front-to-back decode shows at T, whatever the codec, container, start time
// or direction of the seek. Also stills, audio-only sources and seeks that
// the demuxer refuses.

#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>
#include <MolvaneAV/Settings.h>

#include "support/LogCapture.h"
#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace molvane::test;

namespace {

using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;
using VideoList = QList<std::shared_ptr<DecodedVideoFrame>>;

constexpr int64_t kSecond = 1000000;
// Far more calls than any clip here has packets: a pump that never ends
// fails the check instead of hanging the run.
constexpr int kMaxCalls = 20000;

// ---------------------------------------------------------------------------
// Clips: long enough and with short enough GOPs that most targets fall in
// the middle of a GOP, away from the key frame a seek lands on.

struct Clip {
    std::string name;
    QString extension;
    MediaSpec media;
    // Hosts seek a second early where RequiresLargeSeekOffset says so
    // (MPEG-1). This host does the same where the demuxer itself cannot land
    // on a key frame that precedes T in display order; see the clips.
    bool hostSeeksEarly = false;
};

VideoSpec Video(const char* encoder, int frames, int gop, std::map<std::string, std::string> options = {})
{
    VideoSpec v;
    v.encoder = encoder;
    v.width = 320;
    v.height = 240;
    v.frames = frames;
    v.gop = gop;
    v.options = std::move(options);
    return v;
}

AudioSpec Audio(const char* encoder, int64_t sampleFrames, int64_t firstSample = 0)
{
    AudioSpec a;
    a.encoder = encoder;
    a.sampleRate = 48000;
    a.channels = 2;
    a.sampleFrames = sampleFrames;
    a.firstSample = firstSample;
    return a;
}

std::vector<Clip> Clips()
{
    std::vector<Clip> clips;
    {
        Clip c{"h264_bframes_mp4", ".mp4", {}};
        c.media.container = "mp4";
        c.media.video = {Video("libx264", 150, 24)};
        c.media.audio = {Audio("aac", 150 * 1920)};
        clips.push_back(c);
    }
    {
        Clip c{"h264_bframes_mkv", ".mkv", {}};
        c.media.container = "matroska";
        c.media.video = {Video("libx264", 150, 30)};
        c.media.audio = {Audio("aac", 150 * 1920)};
        clips.push_back(c);
    }
    {
        // x265's default open GOPs: the pictures shown just before a CRA key
        // frame are decoded after it and reference the GOP before. Matroska
        // indexes presentation times, so its seeks land on the GOP before.
        Clip c{"h265_open_gop_mkv", ".mkv", {}};
        c.media.container = "matroska";
        c.media.video = {Video("libx265", 120, 24, {{"preset", "ultrafast"}})};
        c.media.video[0].maxBFrames = 3;
        clips.push_back(c);
    }
    {
        // FFmpeg 5.1's MP4 demuxer searches the decode timeline, so a target
        // among a CRA's leading pictures lands on the CRA, after which those
        // pictures cannot be decoded. Hosts must seek early here.
        Clip c{"h265_open_gop_mp4", ".mp4", {}};
        c.media.container = "mp4";
        c.media.video = {Video("libx265", 120, 24, {{"preset", "ultrafast"}})};
        c.media.video[0].maxBFrames = 3;
        c.hostSeeksEarly = true;
        clips.push_back(c);
    }
    {
        Clip c{"vp8_webm", ".webm", {}};
        c.media.container = "webm";
        c.media.video = {Video("libvpx", 150, 30, {{"cpu-used", "8"}})};
        clips.push_back(c);
    }
    {
        // libvpx-vp9 in good mode codes hidden alternate reference frames.
        Clip c{"vp9_webm", ".webm", {}};
        c.media.container = "webm";
        c.media.video = {Video("libvpx-vp9", 150, 30, {{"cpu-used", "8"}})};
        clips.push_back(c);
    }
    {
        // Open GOPs too: the B-frames shown before each I-frame are coded
        // after it. Same MP4 demuxer limit as for H.265, same host offset.
        Clip c{"mpeg4_open_gop_mp4", ".mp4", {}};
        c.media.container = "mp4";
        c.media.video = {Video("mpeg4", 150, 15, {{"b", "1M"}})};
        c.hostSeeksEarly = true;
        clips.push_back(c);
    }
    {
        Clip c{"mpeg1_ps", ".mpg", {}};
        c.media.container = "mpeg";
        c.media.video = {Video("mpeg1video", 150, 12, {{"b", "1M"}, {"qmin", "5"}})};
        c.media.audio = {Audio("mp2", 1152 * 250)};
        c.hostSeeksEarly = true;
        clips.push_back(c);
    }
    {
        // Everything starts at 10 s. Targets are not moved by the start
        // time, so every seek lands before the stream, at its beginning.
        VideoSpec v = Video("libx264", 125, 25);
        v.firstPts = 250;
        Clip c{"late_start_ts", ".ts", {}};
        c.media.container = "mpegts";
        c.media.video = {v};
        c.media.audio = {Audio("mp2", 1152 * 210, 480000)};
        clips.push_back(c);
    }
    {
        VideoSpec v = Video("libx264", 150, 30);
        v.rateNum = 30000;
        v.rateDen = 1001;
        Clip c{"ntsc_2997_mp4", ".mp4", {}};
        c.media.container = "mp4";
        c.media.video = {v};
        clips.push_back(c);
    }
    {
        // Times wrap below 0 (-80 ms), kept negative in the file. MPEG-TS
        // seeks by bisecting the file for a timestamp and lands on whatever
        // packet is there, rarely a key frame: the decoder then waits for the
        // next one. Hosts must seek early; GOPs well under a second make the
        // key frame after the landing come before T.
        VideoSpec v = Video("libx264", 150, 20);
        v.firstPts = -2;
        Clip c{"negative_start_ts", ".ts", {}};
        c.media.container = "mpegts";
        c.media.video = {v};
        c.media.muxerOptions = {{"avoid_negative_ts", "disabled"}};
        c.hostSeeksEarly = true;
        clips.push_back(c);
    }
    return clips;
}

const Clip& FindClip(const std::string& name)
{
    static const std::vector<Clip> clips = Clips();
    for (const Clip& clip : clips) {
        if (clip.name == name)
            return clip;
    }
    throw std::invalid_argument("no clip named " + name);
}

std::vector<std::string> ClipNames()
{
    std::vector<std::string> names;
    for (const Clip& clip : Clips())
        names.push_back(clip.name);
    return names;
}

// Written once per process, next to the catalogue fixtures.
QString ClipPath(const Clip& clip)
{
    static std::mutex mutex;
    static std::map<std::string, QString> written;
    std::lock_guard<std::mutex> lock(mutex);
    if (auto it = written.find(clip.name); it != written.end())
        return it->second;
    const QString path = QDir(FixtureDirectory()).absoluteFilePath(QString::fromStdString(clip.name) + clip.extension);
    QString error;
    if (!WriteMedia(clip.media, path, &error))
        throw std::runtime_error("cannot write " + clip.name + ": " + error.toStdString());
    return written.emplace(clip.name, path).first->second;
}

// ---------------------------------------------------------------------------
// What a plain decode from the front shows at each time

struct Picture {
    int64_t start = 0;
    int index = -1;
};

struct Timeline {
    std::vector<Picture> pictures; // in delivery order
    int64_t frameDuration = 0;     // µs, the usual gap between pictures

    int64_t First() const { return pictures.front().start; }
    // Last microsecond the last picture covers.
    int64_t End() const { return pictures.back().start + frameDuration - 1; }
    // Index shown at time, -1 before the first picture.
    int IndexAt(int64_t time) const
    {
        int index = -1;
        for (const Picture& picture : pictures) {
            if (picture.start > time)
                break;
            index = picture.index;
        }
        return index;
    }
};

Timeline DecodeFromTheFront(const std::shared_ptr<MediaInfo>& info)
{
    MediaInstance instance;
    Timeline timeline;
    if (!instance.Initialize(info, 0))
        return timeline;
    AudioList audio;
    VideoList video;
    for (int calls = 0; calls < kMaxCalls && instance.HasPacket(); ++calls) {
        instance.DecodePacket(audio, video, -1);
        audio.clear();
    }
    for (const auto& frame : video) {
        if (frame->data != nullptr)
            timeline.pictures.push_back({frame->startTime, PaintedIndex(*frame)});
    }
    std::vector<int64_t> gaps;
    for (size_t i = 1; i < timeline.pictures.size(); ++i)
        gaps.push_back(timeline.pictures[i].start - timeline.pictures[i - 1].start);
    if (!gaps.empty()) {
        std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
        timeline.frameDuration = gaps[gaps.size() / 2];
    }
    return timeline;
}

// Display positions (0-based) of the key frames of the first video stream,
// read from the container: the places where seeks are most likely to go
// wrong. Only used to pick targets.
std::set<int> KeyFramePositions(const QString& path)
{
    std::set<int> positions;
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return positions;
    avformat_find_stream_info(context, nullptr);
    const int video = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    std::vector<std::pair<int64_t, bool>> packets; // pts, key
    AVPacket* packet = av_packet_alloc();
    while (video >= 0 && av_read_frame(context, packet) >= 0) {
        if (packet->stream_index == video && packet->pts != AV_NOPTS_VALUE)
            packets.emplace_back(packet->pts, (packet->flags & AV_PKT_FLAG_KEY) != 0);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    std::sort(packets.begin(), packets.end());
    for (size_t i = 0; i < packets.size(); ++i) {
        if (packets[i].second)
            positions.insert(int(i));
    }
    return positions;
}

// First and last picture, the start of every picture around a key frame or
// a GOP boundary and the microsecond before it, and random times. Pictures
// before 0 (a negative start) are out of reach: Seek refuses negative times.
std::vector<int64_t> Targets(const Timeline& timeline, const std::set<int>& keyFrames, int gop, uint32_t seed)
{
    std::set<int64_t> targets;
    const int64_t first = std::max<int64_t>(0, timeline.First());
    const int count = int(timeline.pictures.size());
    auto addAround = [&](int position) {
        for (int p = position - 1; p <= position + 1; ++p) {
            if (p < 0 || p >= count)
                continue;
            targets.insert(timeline.pictures[p].start);
            if (p > 0)
                targets.insert(timeline.pictures[p].start - 1);
        }
    };
    for (int key : keyFrames)
        addAround(key);
    for (int position = gop; position < count; position += gop)
        addAround(position);
    targets.insert(first);
    targets.insert(timeline.pictures.back().start);
    targets.insert(timeline.End());

    std::mt19937 random(seed);
    const uint64_t span = uint64_t(timeline.End() - first + 1);
    for (int i = 0; i < 30; ++i)
        targets.insert(first + int64_t(uint64_t(random()) % span));
    return {targets.lower_bound(first), targets.end()};
}

// ---------------------------------------------------------------------------
// One seek as a host does it

struct Landing {
    bool covered = false;          // a picture at or before the target came
    Picture covering;              // the last such picture
    std::vector<Picture> delivered;
    bool reachedEnd = false;       // the marker came
};

Landing SeekAndDecode(MediaInstance& instance, int64_t target, int64_t seekTime)
{
    Landing landing;
    instance.Seek(seekTime);
    AudioList audio;
    VideoList video;
    bool done = false;
    for (int calls = 0; !done && calls < kMaxCalls && instance.HasPacket(); ++calls) {
        const int before = video.size();
        instance.DecodePacket(audio, video, target);
        audio.clear();
        for (int i = before; i < video.size() && !done; ++i) {
            const DecodedVideoFrame& frame = *video[i];
            if (frame.data == nullptr) {
                landing.reachedEnd = true;
                done = true;
                continue;
            }
            const Picture picture{frame.startTime, PaintedIndex(frame)};
            landing.delivered.push_back(picture);
            if (picture.start > target) {
                done = true;
            } else {
                landing.covered = true;
                landing.covering = picture;
            }
        }
    }
    return landing;
}

class TrailingFrames
{
public:
    explicit TrailingFrames(int frames) : previous_(Settings::maxTrailingFramesAfterSeek)
    {
        Settings::maxTrailingFramesAfterSeek = frames;
    }
    ~TrailingFrames() { Settings::maxTrailingFramesAfterSeek = previous_; }

private:
    int previous_;
};

struct Tally {
    int checked = 0;
    int backward = 0;
    std::vector<std::string> wrongPicture;
    std::vector<std::string> tooEarly;
};

std::string Describe(const std::vector<Picture>& pictures)
{
    if (pictures.empty())
        return "no picture";
    std::ostringstream out;
    for (size_t i = 0; i < pictures.size() && i < 8; ++i)
        out << (i ? " " : "") << pictures[i].index << "@" << pictures[i].start;
    if (pictures.size() > 8)
        out << " ...";
    return out.str();
}

// Seeks to every target in the given order on one instance, as a host
// scrubbing back and forth would.
void CheckTargets(MediaInstance& instance, const Timeline& timeline, const std::vector<int64_t>& targets,
                  bool seekEarly, const std::string& pass, Tally& tally)
{
    const int trailing = Settings::maxTrailingFramesAfterSeek;
    int64_t previous = -1;
    for (int64_t target : targets) {
        const int64_t seekTime = seekEarly || instance.RequiresLargeSeekOffset()
            ? std::max<int64_t>(0, target - kSecond)
            : target;
        const Landing landing = SeekAndDecode(instance, target, seekTime);
        ++tally.checked;
        tally.backward += target < previous ? 1 : 0;
        previous = target;

        std::ostringstream where;
        where << pass << " T=" << target << " (seek " << seekTime << ")";
        const int expected = timeline.IndexAt(target);
        if (!landing.covered) {
            tally.wrongPicture.push_back(where.str() + ": expected " + std::to_string(expected) +
                                         ", nothing at or before T; got " + Describe(landing.delivered) +
                                         (landing.reachedEnd ? ", then the end marker" : ", and no end marker"));
        } else if (landing.covering.index != expected) {
            tally.wrongPicture.push_back(where.str() + ": expected " + std::to_string(expected) + ", got " +
                                         std::to_string(landing.covering.index) + " (start " +
                                         std::to_string(landing.covering.start) + "); delivered " +
                                         Describe(landing.delivered));
        }

        // The covering picture may start up to one frame before T; anything
        // else older than the trailing allowance should have been dropped.
        // A few µs absorb the filter's fractional frame duration.
        const int64_t oldestAllowed = target - trailing * timeline.frameDuration - 2 * trailing;
        for (const Picture& picture : landing.delivered) {
            const bool isCovering = landing.covered && picture.start == landing.covering.start &&
                                    picture.index == landing.covering.index;
            if (picture.start < oldestAllowed && !isCovering) {
                tally.tooEarly.push_back(where.str() + ": delivered " + std::to_string(picture.index) + "@" +
                                         std::to_string(picture.start) + ", older than " +
                                         std::to_string(oldestAllowed));
                break;
            }
        }
    }
}

std::string Listing(const std::vector<std::string>& lines)
{
    std::ostringstream out;
    for (size_t i = 0; i < lines.size() && i < 12; ++i)
        out << "\n  " << lines[i];
    if (lines.size() > 12)
        out << "\n  ... " << lines.size() - 12 << " more";
    return out.str();
}

// A fixed seed per clip, the same on every run and standard library.
uint32_t SeedFor(const std::string& name)
{
    uint32_t hash = 2166136261u;
    for (unsigned char c : name)
        hash = (hash ^ c) * 16777619u;
    return hash;
}

class SeekAccuracy : public testing::TestWithParam<std::string>
{
};

// The truth every seek is held against: a decode from the front shows each
// painted index once, in order, with rising start times, one of them 0.
// Pictures stamped before 0 come first, at negative times.
void ExpectPlainTimeline(const Timeline& timeline, const VideoSpec& video)
{
    ASSERT_EQ(int(timeline.pictures.size()), video.frames);
    for (int i = 0; i < video.frames; ++i)
        ASSERT_EQ(timeline.pictures[i].index, i) << "position " << i;
    for (int i = 1; i < video.frames; ++i)
        ASSERT_GT(timeline.pictures[i].start, timeline.pictures[i - 1].start) << "position " << i;
    if (video.firstPts < 0) {
        EXPECT_LT(timeline.First(), 0);
        EXPECT_EQ(timeline.IndexAt(0), -video.firstPts);
        EXPECT_EQ(timeline.pictures[-video.firstPts].start, 0);
    } else {
        EXPECT_EQ(timeline.First(), 0);
    }
    EXPECT_GT(timeline.frameDuration, 0);
}

TEST_P(SeekAccuracy, PictureCoveringTheTargetMatchesAPlainDecode)
{
    const Clip& clip = FindClip(GetParam());
    const QString path = ClipPath(clip);
    auto info = Probe(path);
    ASSERT_TRUE(info->IsInitialized());

    const Timeline timeline = DecodeFromTheFront(info);
    ASSERT_NO_FATAL_FAILURE(ExpectPlainTimeline(timeline, clip.media.video[0]));

    const std::set<int> keyFrames = KeyFramePositions(path);
    const std::vector<int64_t> ascending =
        Targets(timeline, keyFrames, clip.media.video[0].gop, SeedFor(clip.name));
    ASSERT_GE(ascending.size(), 50u);
    std::vector<int64_t> descending(ascending.rbegin(), ascending.rend());
    std::vector<int64_t> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(20240611));

    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    Tally tally;
    CheckTargets(instance, timeline, ascending, clip.hostSeeksEarly, "ascending", tally);
    CheckTargets(instance, timeline, descending, clip.hostSeeksEarly, "descending", tally);
    CheckTargets(instance, timeline, shuffled, clip.hostSeeksEarly, "shuffled", tally);

    EXPECT_GE(tally.backward, int(ascending.size()));
    std::ostringstream keys;
    for (int key : keyFrames)
        keys << " " << key;
    EXPECT_TRUE(tally.wrongPicture.empty())
        << clip.name << ": " << tally.wrongPicture.size() << " of " << tally.checked
        << " seeks showed the wrong picture (pictures every " << timeline.frameDuration << " µs, key frames at"
        << keys.str() << ")" << Listing(tally.wrongPicture);
    EXPECT_TRUE(tally.tooEarly.empty()) << clip.name << ": " << tally.tooEarly.size() << " of " << tally.checked
                                        << " seeks delivered pictures the trailing limit excludes"
                                        << Listing(tally.tooEarly);
    std::printf("[ seeks    ] %s: %zu targets, %d seeks (%d backward), %zu wrong, %zu too early\n",
                clip.name.c_str(), ascending.size(), tally.checked, tally.backward, tally.wrongPicture.size(),
                tally.tooEarly.size());
}

INSTANTIATE_TEST_SUITE_P(Clips, SeekAccuracy, testing::ValuesIn(ClipNames()),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

// The limit is the host's to change: with one trailing frame only the frame
// before the covering one may come, and the covering one still does.
TEST(SeekTrailingLimit, FollowsTheSetting)
{
    const Clip& clip = FindClip("h264_bframes_mp4");
    auto info = Probe(ClipPath(clip));
    const Timeline timeline = DecodeFromTheFront(info);
    ASSERT_NO_FATAL_FAILURE(ExpectPlainTimeline(timeline, clip.media.video[0]));

    for (int trailing : {1, 6}) {
        SCOPED_TRACE("maxTrailingFramesAfterSeek " + std::to_string(trailing));
        TrailingFrames limit(trailing);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        // Picture starts well inside a GOP, so the decoder has more older
        // pictures to offer than either limit lets through.
        std::vector<int64_t> targets;
        const std::set<int> keys = KeyFramePositions(ClipPath(clip));
        for (int key : keys) {
            const int position = key + 10;
            const auto nextKey = keys.upper_bound(key);
            if (position < int(timeline.pictures.size()) && (nextKey == keys.end() || *nextKey > position))
                targets.push_back(timeline.pictures[position].start);
        }
        ASSERT_GE(targets.size(), 4u);
        Tally tally;
        CheckTargets(instance, timeline, targets, false, "limit", tally);
        EXPECT_TRUE(tally.wrongPicture.empty()) << Listing(tally.wrongPicture);
        EXPECT_TRUE(tally.tooEarly.empty()) << Listing(tally.tooEarly);

        // Exactly the allowance comes ahead of the covering picture: the
        // filter neither lets more through nor drops what hosts may show.
        for (int64_t target : targets) {
            const Landing landing = SeekAndDecode(instance, target, target);
            ASSERT_TRUE(landing.covered);
            const auto covering = std::find_if(landing.delivered.begin(), landing.delivered.end(),
                                               [&](const Picture& p) { return p.start == landing.covering.start; });
            EXPECT_EQ(covering - landing.delivered.begin(), trailing) << "T=" << target << ": "
                                                                      << Describe(landing.delivered);
        }
    }
}

// ---------------------------------------------------------------------------
// Stills, audio-only sources and refused seeks

TEST(SeekStill, ReopensAndShowsThePictureAgainNeverAMarker)
{
    const Fixture& fixture = GetFixture(FixtureId::PngStill);
    auto info = Probe(fixture.path, true);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));

    auto drain = [&](int64_t target) {
        VideoList video;
        AudioList audio;
        for (int calls = 0; calls < kMaxCalls && instance.HasPacket(); ++calls)
            instance.DecodePacket(audio, video, target);
        return video;
    };
    const VideoList first = drain(-1);
    ASSERT_EQ(first.size(), 1);
    ASSERT_NE(first[0]->data, nullptr);
    EXPECT_EQ(PaintedIndex(*first[0]), 0);

    for (int64_t time : {int64_t(0), 5 * kSecond, int64_t(40000), int64_t(0)}) {
        SCOPED_TRACE("Seek(" + std::to_string(time) + ")");
        instance.Seek(time);
        ASSERT_TRUE(instance.HasPacket());
        VideoList video;
        AudioList audio;
        instance.DecodePacket(audio, video, time);
        ASSERT_EQ(video.size(), 1) << "the still did not come back";
        ASSERT_NE(video[0]->data, nullptr) << "a marker instead of the picture";
        EXPECT_EQ(PaintedIndex(*video[0]), 0);
        EXPECT_EQ(video[0]->width, 320);
        EXPECT_EQ(video[0]->height, 240);
        // Whatever the pump does next, no marker and no second picture.
        const VideoList rest = drain(time);
        EXPECT_TRUE(rest.isEmpty()) << rest.size() << " more records, first data "
                                    << (rest.isEmpty() ? nullptr : static_cast<void*>(rest[0]->data));
    }
}

TEST(SeekAudioOnly, LandsJustBeforeTheTargetWithMatchingSamples)
{
    const Fixture& fixture = GetFixture(FixtureId::WavS16Stereo);
    auto info = Probe(fixture.path);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    const int rate = 48000;
    const int channels = 2;

    // Forwards, backwards, to the start and to odd microseconds.
    for (int64_t target : {int64_t(250000), int64_t(1200000), int64_t(333333), int64_t(0), int64_t(1000001),
                           int64_t(20833), int64_t(1450000), int64_t(700000)}) {
        SCOPED_TRACE("T=" + std::to_string(target));
        instance.Seek(target);
        AudioList audio;
        VideoList video;
        for (int calls = 0; calls < 8 && instance.HasPacket() && audio.size() < 2; ++calls)
            instance.DecodePacket(audio, video, target);
        EXPECT_TRUE(video.isEmpty());
        ASSERT_GE(audio.size(), 2);

        EXPECT_LE(audio[0]->startTime, target);
        EXPECT_GE(audio[0]->startTime, target - 50000);
        int64_t next = -1;
        for (const auto& record : audio) {
            ASSERT_EQ(record->sampleRate, rate);
            ASSERT_GT(record->samplesPerChannel, 0);
            const int64_t first = PositionOfSampleFrame(record->samples, channels);
            // The start time names the record's first sample frame.
            EXPECT_NEAR(double(first), double(record->startTime) * rate / kSecond, 1.0)
                << "record at " << record->startTime;
            if (next >= 0) {
                EXPECT_EQ(first, next) << "records are not contiguous";
            }
            for (int i = 0; i < record->samplesPerChannel; ++i) {
                const int64_t position = PositionOfSampleFrame(record->samples + i * channels, channels);
                if (position != first + i) {
                    ADD_FAILURE() << "sample frame " << i << " of the record at " << record->startTime
                                  << " carries position " << position << ", expected " << first + i;
                    break;
                }
            }
            next = first + record->samplesPerChannel;
        }
    }
}

// Raw H.264 carries no timestamps, so its demuxer cannot seek at all.
QString RawH264Path()
{
    static const QString path = [] {
        MediaSpec media;
        media.container = "h264";
        media.video = {Video("libx264", 60, 12)};
        const QString target = QDir(FixtureDirectory()).absoluteFilePath("raw_seek.h264");
        QString error;
        if (!WriteMedia(media, target, &error))
            throw std::runtime_error(error.toStdString());
        return target;
    }();
    return path;
}

std::vector<int> Indexes(const VideoList& video)
{
    std::vector<int> indexes;
    for (const auto& frame : video)
        indexes.push_back(frame->data == nullptr ? -2 : PaintedIndex(*frame));
    return indexes;
}

// Decodes part of the file, seeks where the demuxer refuses to go, then
// decodes the rest: the log names the failure and the pictures carry on
// from where they were, as if there had been no seek.
void ExpectRefusedSeekLeavesDecodingAlone(const std::shared_ptr<MediaInfo>& info, int64_t refusedTime,
                                          const QString& expectedMessagePrefix)
{
    MediaInstance plain;
    ASSERT_TRUE(plain.Initialize(info, 0));
    VideoList whole;
    AudioList audio;
    for (int calls = 0; calls < kMaxCalls && plain.HasPacket(); ++calls)
        plain.DecodePacket(audio, whole, -1);
    const std::vector<int> expected = Indexes(whole);
    ASSERT_GT(expected.size(), 30u);

    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    VideoList video;
    int calls = 0;
    for (; calls < kMaxCalls && instance.HasPacket() && video.size() < 20; ++calls)
        instance.DecodePacket(audio, video, -1);
    ASSERT_EQ(video.size(), 20);

    LogCapture log;
    instance.Seek(refusedTime);
    const QStringList messages = log.Messages();
    ASSERT_EQ(messages.size(), 1) << messages.join('\n').toStdString();
    EXPECT_TRUE(messages[0].startsWith(expectedMessagePrefix)) << messages[0].toStdString();
    EXPECT_TRUE(messages[0].endsWith(QLatin1String(")"))) << messages[0].toStdString();
    EXPECT_EQ(log.Records()[0].type, QtCriticalMsg);

    ASSERT_TRUE(instance.HasPacket()) << "the waiting packet is gone";
    for (; calls < kMaxCalls && instance.HasPacket(); ++calls)
        instance.DecodePacket(audio, video, -1);
    EXPECT_EQ(Indexes(video), expected);
}

TEST(SeekRefused, BeforeTheStartLogsAndDecodingCarriesOn)
{
    // No time before 0 can be reached: the demuxer refuses the range.
    auto info = Probe(ClipPath(FindClip("h264_bframes_mp4")));
    ExpectRefusedSeekLeavesDecodingAlone(info, -kSecond, QStringLiteral("Seek Failed. (code -1: "));
}

TEST(SeekRefused, DemuxerThatCannotSeekLogsAndDecodingCarriesOn)
{
    auto info = Probe(RawH264Path());
    ASSERT_TRUE(info->IsInitialized());
    ExpectRefusedSeekLeavesDecodingAlone(info, 3600 * kSecond, QStringLiteral("Seek Failed. (code "));
}

} // namespace
