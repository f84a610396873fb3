// Seeking as a host does it: Seek(T), then DecodePacket with T as the target
// until a picture covers T. That picture must be the one a plain decode from
// the front shows at T, whatever the codec, container, start time or the
// direction of the jump. Also the trailing-picture limit, stills, audio-only
// sources and refused seeks.

#include "support/TestMedia.h"

#include <MolvaneAV/Settings.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>

#include <algorithm>
#include <tuple>
#include <vector>

using namespace molvane::test;

namespace {

struct TrailingLimit {
    explicit TrailingLimit(int frames) { Settings::maxTrailingFramesAfterSeek = frames; }
    ~TrailingLimit() { Settings::maxTrailingFramesAfterSeek = saved; }
    const int saved = Settings::maxTrailingFramesAfterSeek;
};

// Painted indexes of the pictures one seek delivers, in order, up to the one
// that covers target. A negative seekTime reopens the input instead: the way
// back to the very first picture where a seek to 0 can land past it.
std::vector<int> SeekAndDecode(MediaInstance& instance, int64_t target, int64_t seekTime)
{
    if (seekTime < 0)
        instance.CloseInput();
    else
        instance.Seek(seekTime);
    std::vector<int> delivered;
    Decoded decoded;
    for (int calls = 0; calls < 1000 && instance.HasPacket(); ++calls) {
        decoded.video.clear();
        instance.DecodePacket(decoded.audio, decoded.video, target);
        for (const auto& frame : decoded.video) {
            if (frame->data == nullptr || frame->startTime > target)
                return delivered;
            delivered.push_back(PaintedIndex(*frame));
        }
    }
    return delivered;
}

} // namespace

TEST(Seek, EveryTargetShowsThePictureThatAPlainDecodeShowsThere)
{
    // Hosts seek a second early where RequiresLargeSeekOffset says so, and
    // where the demuxer cannot land on a key frame that precedes T in display
    // order: MP4 searches the decode timeline (open GOPs), MPEG-TS bisects by
    // timestamp and lands on any packet.
    struct Clip {
        const char* file;
        bool seekEarly;
    };
    const Clip clips[] = {
        {"h264_aac.mp4", false}, {"hevc_open_gop.mkv", false},       {"hevc_open_gop.mp4", true},
        {"vp8.webm", false},     {"vp9.webm", false},                {"mpeg1.mpg", false},
        {"late_start.ts", false}, {"negative_start_gop10.ts", true}, {"ntsc.mp4", false},
        {"multi_stream.mkv", false},
    };
    const int trailing = Settings::maxTrailingFramesAfterSeek;
    for (const Clip& clip : clips) {
        SCOPED_TRACE(clip.file);
        auto info = Probe(clip.file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded plain = DecodeAll(instance);
        std::vector<int64_t> starts; // of painted index i
        for (const auto& frame : plain.video) {
            ASSERT_EQ(PaintedIndex(*frame), frame->data ? int(starts.size()) : -1);
            if (frame->data != nullptr)
                starts.push_back(frame->startTime);
        }
        const int count = int(starts.size());
        ASSERT_GT(count, 40);
        const double frame = 1e6 / plain.video[0]->frameRate;

        // The start, then every picture from time 0 on in an order that jumps
        // both ways, at targets well inside the picture. The last pictures
        // come out of the draining decoder, where what the trailing limit
        // lets through is not settled yet; they are left out.
        std::vector<int64_t> targets = {0};
        for (int k = 0; k < count; ++k) {
            const int position = k * 7 % count;
            if (starts[position] >= 0 && position < count - 8)
                targets.push_back(starts[position] + int64_t(frame / 2));
        }
        for (const int64_t target : targets) {
            const int expected = int(std::upper_bound(starts.begin(), starts.end(), target) - starts.begin()) - 1;
            const bool early = clip.seekEarly || instance.RequiresLargeSeekOffset();
            const std::vector<int> delivered =
                SeekAndDecode(instance, target, early ? target - 1000000 : target);
            ASSERT_FALSE(delivered.empty()) << "T=" << target;
            EXPECT_EQ(delivered.back(), expected)
                << "T=" << target << ", delivered " << testing::PrintToString(delivered);
            ASSERT_GE(delivered.front(), 0) << "T=" << target;
            EXPECT_GE(double(starts[delivered.front()]), target - trailing * frame - 1) << "T=" << target;
        }
    }
}

TEST(Seek, PicturesBeforeTheTargetFollowTheTrailingLimit)
{
    auto info = Probe("h264_aac.mp4");
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    // Key frames at pictures 0 and 25: the decoder has more pictures before
    // each target than either limit lets through.
    for (int limit : {1, 6}) {
        TrailingLimit setting(limit);
        for (int position : {12, 37, 7, 45, 32}) {
            const int64_t target = position * 40000 + 20000;
            std::vector<int> expected;
            for (int index = position - limit + 1; index <= position; ++index)
                expected.push_back(index);
            EXPECT_EQ(SeekAndDecode(instance, target, target), expected)
                << "limit " << limit << ", T=" << target;
        }
    }
    // Past the end every picture is dropped, and the drop that meets the
    // drain ends the call: no end-of-stream marker either.
    instance.Seek(1900000);
    EXPECT_TRUE(DecodeAll(instance, 5000000).video.isEmpty());
}

TEST(Seek, LeadInPicturesNothingReferencesGoUndecodedWithoutChangingARecord)
{
    // Pictures the trailing limit drops, and that no other picture refers
    // to, are not decoded at all. Every record delivered must stay as if
    // they were: the same pictures, bytes, times, size-change placeholders
    // and end-of-stream marker, with targets in the middle, in the drain at
    // the end and past it. The reference is a decode without a target, cut
    // as the filter cuts: a dropped picture ends a drain, and its marker.
    using Record = std::tuple<int64_t, int, int, int, QByteArray>; // start, width, height, status, digest
    const auto record = [](const DecodedVideoFrame& frame) {
        const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(frame.data), frame.size);
        return Record(frame.data ? frame.startTime : -1, frame.width, frame.height, frame.status,
                      QCryptographicHash::hash(bytes, QCryptographicHash::Md5));
    };
    const auto timing = [](Record r) { return std::get<4>(r) = QByteArray(), r; };
    // Damaged pictures are concealed from the picture decoded last, which
    // a skipped one would have been: there only the pictures and their
    // times must stay.
    for (const QString file : {"long_gop.mp4", "hevc_aac_854x480.ts", "h264_aac.mp4", "ntsc.mp4", "hevc_open_gop.mkv",
                               "mpeg1.mpg", "mpeg2.ts", "mpeg4.mp4", "vp8.webm", "vp9.webm", "vp9_2pass.webm",
                               "size_change.ts", "ad_break.ts", "long_gop_damaged.mp4"}) {
        SCOPED_TRACE(file.toStdString());
        const bool damaged = file.contains("damaged");
        auto info = Probe(file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        std::vector<std::vector<Record>> calls; // the records of each call, without a target
        std::vector<int64_t> starts;
        double frame = 0.0;
        while (instance.HasPacket()) {
            Decoded decoded;
            instance.DecodePacket(decoded.audio, decoded.video, -1);
            calls.emplace_back();
            for (const auto& picture : decoded.video) {
                calls.back().push_back(record(*picture));
                if (picture->data)
                    starts.push_back(picture->startTime), frame = 1e6 / picture->frameRate;
            }
        }
        const int count = int(starts.size());
        ASSERT_GT(count, 12);
        std::vector<int64_t> targets;
        for (int back : {count / 2, 8, 6, 4, 3, 2, 1})
            targets.push_back(starts[count - back] + int64_t(frame / 2));
        targets.push_back(starts.back() + int64_t(5 * frame));
        int differing = 0;
        for (const int64_t target : targets) {
            const double threshold = double(target) - Settings::maxTrailingFramesAfterSeek * frame;
            std::vector<Record> expected;
            for (size_t call = 0; call < calls.size(); ++call) {
                const bool drain = call + 1 == calls.size();
                for (const Record& r : calls[call]) {
                    const bool dropped = std::get<0>(r) >= 0 && double(std::get<0>(r)) < threshold;
                    if (dropped && drain)
                        break;
                    if (!dropped)
                        expected.push_back(r);
                }
            }
            instance.CloseInput();
            std::vector<Record> delivered;
            for (const auto& picture : DecodeAll(instance, target).video)
                delivered.push_back(record(*picture));
            if (damaged) {
                std::transform(delivered.begin(), delivered.end(), delivered.begin(), timing);
                std::transform(expected.begin(), expected.end(), expected.begin(), timing);
            }
            differing += delivered != expected;
            EXPECT_EQ(delivered.size(), expected.size()) << "T=" << target;
        }
        EXPECT_EQ(differing, 0);
    }
}

TEST(Seek, StillShowsItsPictureAgainAfterEverySeekAndNeverAMarker)
{
    auto info = Probe("still.png", true);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    for (int64_t time : {-1, 0, 5000000, 40000, 0}) {
        SCOPED_TRACE(time);
        if (time >= 0)
            instance.Seek(time);
        const Decoded decoded = DecodeAll(instance, -1, 100);
        ASSERT_EQ(PaintedIndexes(decoded.video), QList<int>{0});
        const DecodedVideoFrame& still = *decoded.video[0];
        EXPECT_EQ(std::tuple(still.width, still.height, still.startTime, still.frameRate),
                  std::tuple(320, 240, int64_t(0), Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE));
    }
    // The trailing limit holds for stills too: a target a second on drops it.
    instance.Seek(0);
    EXPECT_TRUE(DecodeAll(instance, 1000000).video.isEmpty());
}

TEST(Seek, AudioOnlySourceLandsJustBeforeTheTargetWithMatchingSamples)
{
    auto info = Probe("s16_stereo.wav");
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    // The first seek opens the input. Forwards, backwards, to the start and
    // to odd microseconds.
    for (int64_t target : {250000, 1200000, 333333, 0, 1000001, 20833, 1450000, 700000}) {
        SCOPED_TRACE(target);
        instance.Seek(target);
        Decoded decoded;
        for (int calls = 0; calls < 8 && instance.HasPacket() && decoded.audio.size() < 2; ++calls)
            instance.DecodePacket(decoded.audio, decoded.video, target);
        ASSERT_GE(decoded.audio.size(), 2);
        EXPECT_TRUE(decoded.video.isEmpty());
        EXPECT_LE(decoded.audio[0]->startTime, target);
        EXPECT_GE(decoded.audio[0]->startTime, target - 50000);
        // Records follow each other, each starting at the time of its first sample.
        int64_t next = SamplePosition(decoded.audio[0]->samples, 2);
        for (const auto& record : decoded.audio) {
            EXPECT_NEAR(double(record->startTime), next * 1e6 / 48000, 1.0);
            for (int i = 0; i < record->samplesPerChannel; ++i, ++next) {
                ASSERT_EQ(SamplePosition(record->samples + 2 * i, 2), next) << "record at " << record->startTime;
            }
        }
    }
}

TEST(Seek, RefusedSeekIsLoggedAndDecodingGoesOnFromWhereItWas)
{
    for (const char* file : {"h264_aac.mp4", "multi_stream.mkv", "vp9.webm"}) {
        SCOPED_TRACE(file);
        auto info = Probe(file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded plain = DecodeAll(instance);
        instance.CloseInput();
        Decoded before = DecodeAll(instance, -1, 10);
        LogCapture log;
        instance.Seek(-1000000);
        ASSERT_EQ(log.Messages().size(), 1);
        EXPECT_TRUE(log.Messages()[0].startsWith("Seek Failed. (code ")) << log.Messages()[0].toStdString();
        EXPECT_EQ(log.Types(), QList<QtMsgType>{QtCriticalMsg});
        EXPECT_EQ(PaintedIndexes(before.video + DecodeAll(instance).video), PaintedIndexes(plain.video));
    }
}

TEST(Seek, RoundsTheTimeToTheNearestTickOfTheStream)
{
    // WebM counts milliseconds; picture 30 is the key frame at 1.2 s.
    auto info = Probe("vp8.webm");
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    for (const auto& [time, firstPicture] : {std::pair{1199600, 30}, {1199400, 0}, {1200400, 30}}) {
        instance.Seek(time);
        EXPECT_EQ(PaintedIndexes(DecodeAll(instance, -1, 3).video).value(0), firstPicture) << time;
    }
}

TEST(Seek, ToZeroOnAnAudioOnlySourceDecodesItAllAgain)
{
    // Opus in WebM starts at -7 ms: the seek goes by the container's start.
    for (const char* file : {"opus.webm", "s16_stereo.wav"}) {
        SCOPED_TRACE(file);
        auto info = Probe(file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const int records = DecodeAll(instance).audio.size();
        ASSERT_GT(records, 20);
        instance.Seek(0);
        EXPECT_EQ(DecodeAll(instance).audio.size(), records);
    }
}
