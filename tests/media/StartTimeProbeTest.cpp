// The start time ParseMedia finds for each video stream: the time of the
// stream's first decoded frame, looked for in the first 250 packets of the
// file. Expected times come from the fixtures' stated first frames and from
// decoding the same files with plain FFmpeg.

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include "support/FfmpegPtr.h"
#include "support/LogCapture.h"
#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <map>
#include <memory>

using namespace molvane::test;

namespace {

constexpr int kProbeWindow = 250; // packets ParseMedia reads at most

const VideoStream* StreamWithIndex(const MediaInfo& info, int index)
{
    for (const VideoStream& stream : info.GetVideoStreams()) {
        if (stream.index == index)
            return &stream;
    }
    return nullptr;
}

// What plain FFmpeg decoding of one stream finds: its first frame's time and
// whether that frame only came out when the decoder was flushed at the end.
struct FirstFrame {
    int64_t timeUs = 0;
    bool fromFlush = false;
};

testing::AssertionResult DecodeFirstFrame(const QString& path, int streamIndex, FirstFrame& first)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr) < 0)
        return testing::AssertionFailure() << "cannot open " << path.toStdString();
    InputContextPtr input(raw);
    if (avformat_find_stream_info(input.get(), nullptr) < 0 || streamIndex >= int(input->nb_streams))
        return testing::AssertionFailure() << "no stream " << streamIndex;
    const AVStream* stream = input->streams[streamIndex];
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    CodecContextPtr decoder(avcodec_alloc_context3(codec));
    if (codec == nullptr || avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0)
        return testing::AssertionFailure() << "no decoder for stream " << streamIndex;
    decoder->thread_count = 1;
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0)
        return testing::AssertionFailure() << "cannot open the decoder of stream " << streamIndex;

    FramePtr frame(av_frame_alloc());
    auto received = [&](bool flushing) {
        if (avcodec_receive_frame(decoder.get(), frame.get()) < 0)
            return false;
        first.timeUs = av_rescale_q(frame->best_effort_timestamp, stream->time_base, {1, 1000000});
        first.fromFlush = flushing;
        return true;
    };
    PacketPtr packet(av_packet_alloc());
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        const bool ours = packet->stream_index == streamIndex;
        if (ours)
            avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        if (ours && received(false))
            return testing::AssertionSuccess();
    }
    avcodec_send_packet(decoder.get(), nullptr);
    if (received(true))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "stream " << streamIndex << " yields no frame";
}

// Position in the file's packet order of each stream's first packet.
std::map<int, int> FirstPacketPositions(const QString& path)
{
    std::map<int, int> positions;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr) < 0) {
        ADD_FAILURE() << "cannot open " << path.toStdString();
        return positions;
    }
    InputContextPtr input(raw);
    PacketPtr packet(av_packet_alloc());
    for (int position = 0; av_read_frame(input.get(), packet.get()) >= 0; ++position) {
        positions.emplace(packet->stream_index, position);
        av_packet_unref(packet.get());
    }
    return positions;
}

// The probe truncates a double product where plain decoding rounds, so a
// whole microsecond may come out one lower.
void ExpectStartsAtFirstFrame(const MediaInfo& info, const QString& path, int index)
{
    SCOPED_TRACE("stream " + std::to_string(index));
    const VideoStream* stream = StreamWithIndex(info, index);
    ASSERT_NE(stream, nullptr);
    FirstFrame first;
    ASSERT_TRUE(DecodeFirstFrame(path, index, first));
    ASSERT_GE(first.timeUs, 0);
    EXPECT_NEAR(double(stream->startTime), double(first.timeUs), 1.0);
}

QString Write(const QTemporaryDir& dir, const QString& name, const MediaSpec& mediaSpec)
{
    const QString path = dir.filePath(name);
    QString error;
    EXPECT_TRUE(WriteMedia(mediaSpec, path, &error)) << error.toStdString();
    return path;
}

// Small pictures keep the long files quick to make.
VideoSpec SmallVideo(const char* encoder, int frames, int64_t firstPts)
{
    VideoSpec video;
    video.encoder = encoder;
    video.width = 160;
    video.height = 120;
    video.frames = frames;
    video.firstPts = firstPts;
    if (QByteArray(encoder) == "mpeg4")
        video.options = {{"b", "300k"}};
    return video;
}

// Two video streams starting at 0.4 s (H.264) and 0.8 s (MPEG-4).
QString WriteStaggeredStarts(const QTemporaryDir& dir)
{
    MediaSpec mediaSpec;
    mediaSpec.container = QStringLiteral("matroska");
    mediaSpec.video = {SmallVideo("libx264", 20, 10), SmallVideo("mpeg4", 20, 20)};
    return Write(dir, QStringLiteral("staggered.mkv"), mediaSpec);
}

} // namespace

TEST(StartTimeProbe, NegativeFirstFrameStartsAtZeroWithOneMessage)
{
    const Fixture& fixture = GetFixture(FixtureId::NegativeStart);
    ASSERT_LT(fixture.streams[0].firstPtsUs, 0);
    LogCapture log;
    auto info = Probe(fixture.path);
    ASSERT_EQ(info->GetNumVideoStreams(), 1);
    const VideoStream& stream = info->GetVideoStreams()[0];
    EXPECT_TRUE(stream.isValid);
    EXPECT_EQ(stream.startTime, 0);

    const auto records = log.Records();
    ASSERT_EQ(records.size(), 1) << log.Messages().join('\n').toStdString();
    EXPECT_EQ(records[0].type, QtInfoMsg);
    EXPECT_EQ(records[0].message,
              QStringLiteral("INFO: Video stream (%1) start time is less than 0. Skipping negative frames: %2 (%3)")
                  .arg(stream.index)
                  .arg(QFileInfo(fixture.path).fileName())
                  .arg(fixture.streams[0].firstPtsUs));
    EXPECT_EQ(records[0].message, QStringLiteral("INFO: Video stream (0) start time is less than 0. Skipping "
                                                 "negative frames: negative_start_ts.ts (-80000)"));
}

TEST(StartTimeProbe, LateTransportStreamStartsAtItsFirstFrame)
{
    const Fixture& fixture = GetFixture(FixtureId::LateStartTs);
    LogCapture log;
    auto info = Probe(fixture.path);
    ASSERT_EQ(info->GetNumVideoStreams(), 1);
    EXPECT_EQ(info->GetVideoStreams()[0].startTime, fixture.streams[0].firstPtsUs);
    EXPECT_EQ(info->GetStartTime(), fixture.streams[0].firstPtsUs);
    ExpectStartsAtFirstFrame(*info, fixture.path, info->GetVideoStreams()[0].index);
    EXPECT_TRUE(log.Records().isEmpty()) << log.Messages().join('\n').toStdString();
}

TEST(StartTimeProbe, EveryVideoStreamGetsItsOwnStart)
{
    {
        SCOPED_TRACE("multi-stream fixture");
        const Fixture& fixture = GetFixture(FixtureId::MultiStreamMkv);
        auto info = Probe(fixture.path);
        ASSERT_EQ(info->GetNumVideoStreams(), 2);
        for (const VideoStream& stream : info->GetVideoStreams()) {
            EXPECT_EQ(stream.startTime, fixture.streams[size_t(stream.index)].firstPtsUs);
            ExpectStartsAtFirstFrame(*info, fixture.path, stream.index);
        }
    }
    {
        SCOPED_TRACE("streams starting at 0.4 s and 0.8 s");
        QTemporaryDir dir;
        const QString path = WriteStaggeredStarts(dir);
        auto info = Probe(path);
        ASSERT_EQ(info->GetNumVideoStreams(), 2);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 400000);
        EXPECT_EQ(info->GetVideoStreams()[1].startTime, 800000);
        ExpectStartsAtFirstFrame(*info, path, 0);
        ExpectStartsAtFirstFrame(*info, path, 1);
    }
}

TEST(StartTimeProbe, FramesHeldBackUntilTheEndStillGiveTheStart)
{
    {
        SCOPED_TRACE("H.264 with B-frames and AAC in MP4");
        const Fixture& fixture = GetFixture(FixtureId::H264AacMp4);
        auto info = Probe(fixture.path);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, fixture.streams[0].firstPtsUs);
        ExpectStartsAtFirstFrame(*info, fixture.path, 0);
    }
    {
        // Two frames with B-frame reordering: the decoder gives nothing back
        // before the blank packet at the end of the file flushes it.
        SCOPED_TRACE("two frames from 1 s");
        QTemporaryDir dir;
        MediaSpec mediaSpec;
        mediaSpec.container = QStringLiteral("matroska");
        mediaSpec.video = {SmallVideo("libx264", 2, 25)};
        const QString path = Write(dir, QStringLiteral("held_back.mkv"), mediaSpec);
        FirstFrame first;
        ASSERT_TRUE(DecodeFirstFrame(path, 0, first));
        ASSERT_TRUE(first.fromFlush) << "the decoder released a frame before the end; nothing is held back";

        auto info = Probe(path);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 1000000);
        ExpectStartsAtFirstFrame(*info, path, 0);
    }
}

TEST(StartTimeProbe, ImagesAreNotProbed)
{
    {
        SCOPED_TRACE("PNG still");
        LogCapture log;
        auto info = Probe(GetFixture(FixtureId::PngStill).path, true);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 0);
        EXPECT_TRUE(log.Records().isEmpty()) << log.Messages().join('\n').toStdString();
    }
    // Movies flagged as images show that no packet was decoded: probed, the
    // first would start at 10 s and the second would log its negative start.
    {
        SCOPED_TRACE("late start flagged as image");
        auto info = Probe(GetFixture(FixtureId::LateStartTs).path, true);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 0);
    }
    {
        SCOPED_TRACE("negative start flagged as image");
        LogCapture log;
        auto info = Probe(GetFixture(FixtureId::NegativeStart).path, true);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 0);
        EXPECT_TRUE(log.Records().isEmpty()) << log.Messages().join('\n').toStdString();
    }
}

TEST(StartTimeProbe, OnlyTheFirst250PacketsAreSearched)
{
    // Audio in small packets fills the file: the stream starting at 3 s
    // sends its first packets near the end of the window, the one starting
    // at 4 s only after it.
    QTemporaryDir dir;
    MediaSpec mediaSpec;
    mediaSpec.container = QStringLiteral("matroska");
    mediaSpec.video = {SmallVideo("libx264", 125, 0), SmallVideo("libx264", 10, 100), SmallVideo("libx264", 10, 75)};
    AudioSpec sound;
    sound.encoder = QStringLiteral("pcm_s16le");
    sound.sampleFrames = 5 * 48000;
    mediaSpec.audio.push_back(sound);
    const QString path = Write(dir, QStringLiteral("late_in_file.mkv"), mediaSpec);

    const std::map<int, int> firstPackets = FirstPacketPositions(path);
    ASSERT_EQ(firstPackets.size(), 4u);
    ASSERT_GE(firstPackets.at(1), kProbeWindow);
    ASSERT_LT(firstPackets.at(1), kProbeWindow + 50);
    ASSERT_LT(firstPackets.at(2), kProbeWindow - 10);
    ASSERT_GE(firstPackets.at(2), kProbeWindow - 50);
    FirstFrame late;
    ASSERT_TRUE(DecodeFirstFrame(path, 1, late));
    ASSERT_EQ(late.timeUs, 4000000);

    auto info = Probe(path);
    ASSERT_EQ(info->GetNumVideoStreams(), 3);
    const VideoStream* beyond = StreamWithIndex(*info, 1);
    ASSERT_NE(beyond, nullptr);
    EXPECT_TRUE(beyond->isValid);
    EXPECT_EQ(beyond->startTime, 0);
    ExpectStartsAtFirstFrame(*info, path, 0);
    ExpectStartsAtFirstFrame(*info, path, 2);
    EXPECT_EQ(StreamWithIndex(*info, 2)->startTime, 3000000);
}

TEST(StartTimeProbe, StreamWithoutFramesBeforeTheEndGetsZero)
{
    {
        SCOPED_TRACE("stream without packets beside one starting at 0.4 s");
        QTemporaryDir dir;
        MediaSpec mediaSpec;
        mediaSpec.container = QStringLiteral("matroska");
        mediaSpec.video = {SmallVideo("libx264", 0, 0), SmallVideo("libx264", 10, 10)};
        const QString path = Write(dir, QStringLiteral("empty_stream.mkv"), mediaSpec);
        LogCapture log;
        auto info = Probe(path);
        ASSERT_EQ(info->GetNumVideoStreams(), 2);
        const VideoStream* empty = StreamWithIndex(*info, 0);
        ASSERT_NE(empty, nullptr);
        EXPECT_TRUE(empty->isValid);
        EXPECT_EQ(empty->startTime, 0);
        EXPECT_EQ(StreamWithIndex(*info, 1)->startTime, 400000);
        EXPECT_TRUE(log.Records().isEmpty()) << log.Messages().join('\n').toStdString();
    }
    {
        SCOPED_TRACE("file without packets");
        auto info = Probe(GetFixture(FixtureId::NoPackets).path);
        ASSERT_EQ(info->GetNumVideoStreams(), 1);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 0);
    }
}

TEST(StartTimeProbe, StreamWithoutDecoderIsSkipped)
{
    QTemporaryDir dir;
    QByteArray bytes = ReadAll(WriteStaggeredStarts(dir));
    // Same-length codec ids keep the file valid while no decoder claims them.
    const QByteArray h264("V_MPEG4/ISO/AVC");
    const QByteArray mpeg4("V_MPEG4/ISO/ASP");
    ASSERT_TRUE(bytes.contains(h264));
    ASSERT_TRUE(bytes.contains(mpeg4));
    {
        SCOPED_TRACE("first stream unknown");
        QByteArray patched = bytes;
        patched.replace(h264, "V_" + QByteArray(h264.size() - 2, 'Q'));
        const QString path = dir.filePath(QStringLiteral("unknown first.mkv"));
        WriteAll(path, patched);
        LogCapture log;
        auto info = Probe(path);
        EXPECT_EQ(log.Messages(), QStringList({QStringLiteral("Video decoder not found.")}));
        ASSERT_EQ(info->GetNumVideoStreams(), 2);
        EXPECT_FALSE(info->GetVideoStreams()[0].isValid);
        EXPECT_EQ(info->GetVideoStreams()[0].startTime, 0);
        ASSERT_TRUE(info->GetVideoStreams()[1].isValid);
        EXPECT_EQ(info->GetVideoStreams()[1].startTime, 800000);
    }
    {
        SCOPED_TRACE("both streams unknown");
        QByteArray patched = bytes;
        patched.replace(h264, "V_" + QByteArray(h264.size() - 2, 'Q'));
        patched.replace(mpeg4, "V_" + QByteArray(mpeg4.size() - 2, 'Q'));
        const QString path = dir.filePath(QStringLiteral("unknown both.mkv"));
        WriteAll(path, patched);
        LogCapture log;
        auto info = Probe(path);
        EXPECT_EQ(log.Messages().size(), 2);
        ASSERT_EQ(info->GetNumVideoStreams(), 2);
        for (const VideoStream& stream : info->GetVideoStreams()) {
            EXPECT_FALSE(stream.isValid);
            EXPECT_EQ(stream.startTime, 0);
        }
    }
}
