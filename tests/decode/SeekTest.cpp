// Seeking as a host does it: Seek(T), then DecodePacket with T as the target
// until a picture covers T. That picture must be the one a plain decode from
// the front shows at T, whatever the codec, container, start time or the
// direction of the jump. Also the trailing-picture limit, stills, audio-only
// sources and refused seeks.

#include "support/DecodeSummary.h"

#include <MolvaneAV/Settings.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>

#include <algorithm>
#include <tuple>
#include <vector>

using namespace molvane::test;

namespace {

// The pictures one seek delivers with a target, up to the one that covers
// it; without a target, the first `count`, or what the first call delivers
// when count is negative. A negative seek reopens the input
// instead: the way back to the very first picture where a seek to 0 can land
// past it.
VideoRecords SeekAndDecode(MediaInstance& instance, int64_t seek, int64_t target, int count = 1000)
{
    if (seek < 0)
        instance.CloseInput();
    else
        instance.Seek(seek);
    VideoRecords delivered;
    for (int calls = 0; calls < (count < 0 ? 1 : 1000) && instance.HasPacket(); ++calls) {
        Decoded decoded;
        instance.DecodePacket(decoded.audio, decoded.video, target);
        for (const auto& frame : decoded.video) {
            if (delivered.size() == count || (target >= 0 && (!frame->data || frame->startTime > target)))
                return delivered;
            delivered.push_back(frame);
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
    const std::pair<const char*, bool> clips[] = {
        {"h264_aac.mp4", false},  {"hevc_open_gop.mkv", false},      {"hevc_open_gop.mp4", true},
        {"vp8.webm", false},      {"vp9.webm", false},               {"mpeg1.mpg", false},
        {"late_start.ts", false}, {"negative_start_gop10.ts", true}, {"ntsc.mp4", false},
        {"multi_stream.mkv", false},
    };
    const int trailing = Settings::maxTrailingFramesAfterSeek;
    for (const auto& [file, seekEarly] : clips) {
        SCOPED_TRACE(file);
        MediaInstance instance;
        const auto info = Probe(file);
        ASSERT_TRUE(instance.Initialize(info, 0));
        const VideoRecords plain = DecodeAll(instance).video;
        ASSERT_EQ(Pictures(plain), "0-" + std::to_string(plain.size() - 2) + " end");
        std::vector<int64_t> starts; // of painted index i
        for (int i = 0; i + 1 < plain.size(); ++i)
            starts.push_back(plain[i]->startTime);
        const int count = int(starts.size());
        const double frame = 1e6 / plain[0]->frameRate;
        // The start, then every other picture from time 0 on in an order that
        // jumps both ways, at targets well inside the picture. The last
        // pictures come out of the draining decoder, where what the trailing
        // limit lets through is not settled yet; they are left out.
        std::vector<int64_t> targets = {0};
        for (int k = 0; k < count; k += 2) {
            if (const int position = k * 7 % count; starts[position] >= 0 && position < count - 8)
                targets.push_back(starts[position] + int64_t(frame / 2));
        }
        for (const int64_t target : targets) {
            const int expected = int(std::upper_bound(starts.begin(), starts.end(), target) - starts.begin()) - 1;
            const int64_t seek = seekEarly || instance.RequiresLargeSeekOffset() ? target - 1000000 : target;
            const QList<int> delivered = PaintedIndexes(SeekAndDecode(instance, seek, target));
            ASSERT_FALSE(delivered.empty()) << "T=" << target;
            EXPECT_EQ(delivered.back(), expected) << "T=" << target << ", got " << testing::PrintToString(delivered);
            ASSERT_GE(delivered.front(), 0) << "T=" << target;
            EXPECT_GE(double(starts[delivered.front()]), target - trailing * frame - 1) << "T=" << target;
        }
    }
}

TEST(Seek, DeliversWhatTheTrailingLimitLetsThroughAtTheTickTheStreamCounts)
{
    // Rows of one file share an instance, jumping both ways. h264_aac.mp4 has
    // key frames at pictures 0 and 25, so more pictures lead to each target
    // than the limit lets through; picture P covers P × 40 ms + 20 ms.
    // File, trailing limit, seek, target, pictures wanted without a target, what comes.
    const int all = 1000;
    const std::tuple<const char*, int, int64_t, int64_t, int, const char*> rows[] = {
        {"h264_aac.mp4", 6, 500000, 500000, all, "7-12"},
        {"h264_aac.mp4", 6, 1500000, 1500000, all, "32-37"},
        {"h264_aac.mp4", 1, 300000, 300000, all, "7"},
        {"h264_aac.mp4", 1, 1820000, 1820000, all, "45"},
        {"h264_aac.mp4", 6, 1300000, 1300000, all, "27-32"},
        // Past the end every picture is dropped, and the drop that meets the
        // drain ends the call: no end-of-stream marker either.
        {"h264_aac.mp4", 6, 1900000, 5000000, all, ""},
        // WebM counts milliseconds; picture 30 is the key frame at 1.2 s.
        {"vp8.webm", 6, 1199600, -1, 1, "30"},
        {"vp8.webm", 6, 1199400, -1, 1, "0"},
        {"vp8.webm", 6, 1200400, -1, 1, "30"},
        // A still shows its picture at once and again after every seek, never
        // a marker; the trailing limit drops it for a target a second on.
        {"still.png", 6, -1, -1, -1, "0"},
        {"still.png", 6, 5000000, -1, all, "0"},
        {"still.png", 6, 40000, -1, -1, "0"},
        {"still.png", 6, 0, 1000000, all, ""},
        {"still.png", 6, 0, -1, all, "0"},
    };
    const int saved = Settings::maxTrailingFramesAfterSeek;
    MediaInstance instance;
    std::shared_ptr<MediaInfo> info;
    QString file;
    for (const auto& [name, limit, seek, target, count, pictures] : rows) {
        SCOPED_TRACE(testing::Message() << name << " seek " << seek << " target " << target);
        if (file != name) {
            file = name;
            ASSERT_TRUE(instance.Initialize(info = Probe(file, file.endsWith(".png")), 0));
        }
        Settings::maxTrailingFramesAfterSeek = limit;
        const VideoRecords delivered = SeekAndDecode(instance, seek, target, count);
        Settings::maxTrailingFramesAfterSeek = saved;
        EXPECT_EQ(Pictures(delivered), pictures);
        for (const auto& still : file.endsWith(".png") ? delivered : VideoRecords()) {
            EXPECT_EQ(std::tuple(still->width, still->height, still->startTime, still->frameRate),
                      std::tuple(320, 240, int64_t(0), Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE));
        }
    }
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
    // Damaged pictures are concealed from the picture decoded last, which
    // a skipped one would have been: there only the pictures and their
    // times must stay.
    for (const QString file : {"long_gop.mp4", "hevc_aac_854x480.ts", "h264_aac.mp4", "ntsc.mp4", "hevc_open_gop.mkv",
                               "mpeg1.mpg", "mpeg2.ts", "mpeg4.mp4", "vp8.webm", "vp9.webm", "vp9_2pass.webm",
                               "size_change.ts", "ad_break.ts", "long_gop_damaged.mp4"}) {
        SCOPED_TRACE(file.toStdString());
        const bool damaged = file.contains("damaged");
        const auto record = [damaged](const DecodedVideoFrame& frame) {
            const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(frame.data), frame.size);
            return Record(frame.data ? frame.startTime : -1, frame.width, frame.height, frame.status,
                          damaged ? QByteArray() : QCryptographicHash::hash(bytes, QCryptographicHash::Md5));
        };
        MediaInstance instance;
        const auto info = Probe(file);
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
        std::vector<int64_t> targets = {starts.back() + int64_t(5 * frame)};
        for (int back : {count / 2, 8, 6, 4, 3, 2, 1})
            targets.push_back(starts[count - back] + int64_t(frame / 2));
        for (const int64_t target : targets) {
            const double threshold = double(target) - Settings::maxTrailingFramesAfterSeek * frame;
            std::vector<Record> expected, delivered;
            for (size_t call = 0; call < calls.size(); ++call) {
                for (const Record& r : calls[call]) {
                    const bool dropped = std::get<0>(r) >= 0 && double(std::get<0>(r)) < threshold;
                    if (dropped && call + 1 == calls.size())
                        break;
                    if (!dropped)
                        expected.push_back(r);
                }
            }
            instance.CloseInput();
            for (const auto& picture : DecodeAll(instance, target).video)
                delivered.push_back(record(*picture));
            EXPECT_TRUE(delivered == expected) << "T=" << target << ": " << delivered.size() << " records, not "
                                               << expected.size();
        }
    }
}

TEST(Seek, AudioOnlySourceLandsJustBeforeTheTargetWithMatchingSamples)
{
    MediaInstance instance;
    const auto info = Probe("s16_stereo.wav");
    ASSERT_TRUE(instance.Initialize(info, 0));
    // The first seek opens the input. Forwards, backwards, to the start and
    // to odd microseconds.
    for (int64_t target : {1200000, 333333, 0, 1000001, 20833}) {
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
            for (int i = 0; i < record->samplesPerChannel; ++i, ++next)
                ASSERT_EQ(SamplePosition(record->samples + 2 * i, 2), next) << "record at " << record->startTime;
        }
    }
    // Opus in WebM starts at -7 ms: a seek to 0 goes by the container's start.
    for (const char* file : {"opus.webm", "s16_stereo.wav"}) {
        const auto info = Probe(file);
        ASSERT_TRUE(instance.Initialize(info, 0));
        const int records = DecodeAll(instance).audio.size();
        instance.Seek(0);
        EXPECT_EQ(DecodeAll(instance).audio.size(), records) << file;
        EXPECT_GT(records, 20) << file;
    }
}

TEST(Seek, RefusedSeekIsLoggedAndDecodingGoesOnFromWhereItWas)
{
    for (const auto& [file, pictures] : {std::pair{"h264_aac.mp4", "0-49 end"}, {"vp9.webm", "0-74 end"}}) {
        SCOPED_TRACE(file);
        MediaInstance instance;
        const auto info = Probe(file);
        ASSERT_TRUE(instance.Initialize(info, 0));
        const VideoRecords before = DecodeAll(instance, -1, 10).video;
        LogCapture log;
        instance.Seek(-1000000);
        ASSERT_EQ(log.Messages().size(), 1);
        EXPECT_TRUE(log.Messages()[0].startsWith("Seek Failed. (code ")) << log.Messages()[0].toStdString();
        EXPECT_EQ(log.Types(), QList<QtMsgType>{QtCriticalMsg});
        EXPECT_EQ(Pictures(before + DecodeAll(instance).video), pictures);
    }
}
