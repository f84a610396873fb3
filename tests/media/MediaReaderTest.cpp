#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include "support/LogCapture.h"
#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/samplefmt.h>
}

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <bitset>
#include <cmath>
#include <memory>

using namespace molvane::test;

namespace {

std::shared_ptr<MediaInfo> TryProbe(const QString& path, bool isImage = false, bool* ok = nullptr)
{
    auto info = std::make_shared<MediaInfo>(path);
    info->isImage = isImage;
    const bool result = MediaReader::ParseMedia(info);
    if (ok != nullptr)
        *ok = result;
    return info;
}

std::shared_ptr<MediaInfo> ProbeFixture(FixtureId id)
{
    const Fixture& fixture = GetFixture(id);
    bool ok = false;
    auto info = TryProbe(fixture.path, fixture.isImage, &ok);
    EXPECT_TRUE(ok) << fixture.name.toStdString();
    return info;
}

QString Absolute(const QString& path)
{
    return QFileInfo(path).absoluteFilePath();
}

void ExpectFailedRecord(const MediaInfo& info)
{
    EXPECT_FALSE(info.IsInitialized());
    EXPECT_EQ(info.GetNumAudioStreams(), 0);
    EXPECT_EQ(info.GetNumVideoStreams(), 0);
}

// The record as probing must fill it for a stream the fixture wrote.
void ExpectVideo(const VideoStream& stream, const ExpectedStream& expected, const Fixture& fixture)
{
    SCOPED_TRACE(fixture.name.toStdString() + " video stream " + std::to_string(stream.index));
    EXPECT_TRUE(stream.isValid);
    EXPECT_EQ(stream.codecName, expected.codecName);
    EXPECT_EQ(stream.width, expected.width);
    EXPECT_EQ(stream.height, expected.height);
    const double aspect = expected.sarNum > 0 && expected.sarDen > 0 ? double(expected.sarNum) / expected.sarDen : 1.0;
    EXPECT_NEAR(stream.pixelAspectRatio, aspect, 1e-6);
    EXPECT_EQ(stream.metadata.value(QStringLiteral("rotate")), expected.rotate);

    if (fixture.isImage) {
        EXPECT_EQ(stream.frameRate, -1.0);
        EXPECT_EQ(stream.frameStep, -1);
        EXPECT_EQ(stream.numFrames, 1);
        return;
    }
    if (!fixture.hasPackets || expected.rateNum <= 0)
        return;
    const double rate = std::trunc(double(expected.rateNum) / expected.rateDen * 1000.0 + 0.5) / 1000.0;
    EXPECT_DOUBLE_EQ(stream.frameRate, rate);
    EXPECT_EQ(stream.frameStep, int64_t(1.0 / rate * 1000000.0));
    // The count follows the container duration: rounding may add one frame
    // where the container declares no count to take it back, and containers
    // that start their duration at 0 leave out frames before 0.
    const int64_t step = int64_t(1.0 / rate * 1000000.0);
    const int64_t framesBeforeZero = expected.firstPtsUs < 0 ? -expected.firstPtsUs / step : 0;
    EXPECT_GE(stream.numFrames, expected.frameCount - framesBeforeZero - 1);
    EXPECT_LE(stream.numFrames, expected.frameCount + 1);
}

void ExpectAudio(const AudioStream& stream, const ExpectedStream& expected, const Fixture& fixture)
{
    SCOPED_TRACE(fixture.name.toStdString() + " audio stream " + std::to_string(stream.index));
    EXPECT_TRUE(stream.isValid);
    EXPECT_EQ(stream.codecName, expected.codecName);
    EXPECT_EQ(stream.channelCount, expected.channels);
    EXPECT_EQ(stream.sampleRate, expected.sampleRate);
    EXPECT_EQ(stream.sampleFormat, expected.sampleFormat);
    const auto format = static_cast<AVSampleFormat>(stream.sampleFormat);
    EXPECT_EQ(stream.isPlanar, av_sample_fmt_is_planar(format) != 0);
    EXPECT_EQ(stream.bytesPerSample, av_get_bytes_per_sample(format));
    EXPECT_EQ(int(std::bitset<64>(stream.channelLayout).count()), expected.channels);
}

} // namespace

TEST(MediaReader, ProbesEveryFixtureToItsStatedProperties)
{
    for (FixtureId id : AllFixtures()) {
        const Fixture& fixture = GetFixture(id);
        SCOPED_TRACE(fixture.name.toStdString());
        LogCapture log;
        auto info = ProbeFixture(id);
        for (const auto& record : log.Records())
            EXPECT_EQ(record.type, QtInfoMsg) << record.message.toStdString();
        EXPECT_TRUE(info->IsInitialized());

        int video = 0;
        int audio = 0;
        for (size_t i = 0; i < fixture.streams.size(); ++i) {
            const ExpectedStream& expected = fixture.streams[i];
            if (expected.kind == StreamKind::Video) {
                ASSERT_LT(video, info->GetNumVideoStreams());
                const VideoStream& stream = info->GetVideoStreams()[video++];
                EXPECT_EQ(stream.index, int(i));
                ExpectVideo(stream, expected, fixture);
            } else if (expected.kind == StreamKind::Audio) {
                ASSERT_LT(audio, info->GetNumAudioStreams());
                const AudioStream& stream = info->GetAudioStreams()[audio++];
                EXPECT_EQ(stream.index, int(i));
                ExpectAudio(stream, expected, fixture);
            }
        }
        EXPECT_EQ(info->GetNumVideoStreams(), video);
        EXPECT_EQ(info->GetNumAudioStreams(), audio);

        if (fixture.isImage || fixture.durationUs < 0) {
            EXPECT_EQ(info->duration, -1);
        } else {
            // Muxers pad the last frame or packet differently; 50 ms covers all.
            EXPECT_NEAR(double(info->duration), double(fixture.durationUs), 50000.0);
        }
    }
}

TEST(MediaReader, ImageIsProbedWithoutTiming)
{
    auto info = ProbeFixture(FixtureId::PngStill);
    ASSERT_EQ(info->GetNumVideoStreams(), 1);
    const VideoStream& stream = info->GetVideoStreams()[0];
    EXPECT_EQ(stream.codecName, QStringLiteral("png"));
    EXPECT_EQ(info->duration, -1);
    EXPECT_EQ(info->GetDuration(), -1);
    EXPECT_EQ(info->GetNumFrames(), 1);
    EXPECT_EQ(info->GetStartTime(), 0);
    EXPECT_EQ(stream.startTime, 0);
}

TEST(MediaReader, DeclaredFrameCountWinsOnlyWhenOffByOne)
{
    // At 30000/1001 the 33,366 µs step is shorter than a real frame, so the
    // duration leaves a remainder and the computed count is one too many; the
    // container's declared count takes it back.
    auto ntsc = ProbeFixture(FixtureId::Ntsc2997);
    ASSERT_GE(ntsc->GetNumVideoStreams(), 1);
    EXPECT_DOUBLE_EQ(ntsc->GetFrameRate(), 29.97);
    EXPECT_EQ(ntsc->GetFrameStep(), 33366);
    EXPECT_EQ(ntsc->GetNumFrames(), GetFixture(FixtureId::Ntsc2997).streams[0].frameCount);

    // Audio outlasting the video by a second stretches the container
    // duration; the declared 25 frames are then far off and the count
    // follows the duration.
    MediaSpec mediaSpec;
    mediaSpec.container = QStringLiteral("mp4");
    VideoSpec video;
    video.frames = 25;
    mediaSpec.video.push_back(video);
    AudioSpec sound;
    sound.encoder = QStringLiteral("aac");
    sound.sampleFrames = 2 * 48000;
    mediaSpec.audio.push_back(sound);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("long_audio.mp4"));
    ASSERT_TRUE(WriteMedia(mediaSpec, path));

    auto info = TryProbe(path);
    ASSERT_EQ(info->GetNumVideoStreams(), 1);
    ASSERT_GE(info->duration, 2000000);
    EXPECT_EQ(info->GetNumFrames(), (info->duration + 39999) / 40000);
    EXPECT_NE(info->GetNumFrames(), 25);
}

TEST(MediaReader, RebuildsTheRotateTagFromTheDisplayMatrix)
{
    auto rotated = ProbeFixture(FixtureId::Rotated90);
    EXPECT_EQ(rotated->GetVideoStreams()[0].metadata.value(QStringLiteral("rotate")), QStringLiteral("90"));
    EXPECT_TRUE(rotated->IsVideoRotated());
    // Width and height stay as stored; the host combines them with the flag.
    EXPECT_EQ(rotated->GetVideoWidth(), GetFixture(FixtureId::Rotated90).streams[0].width);

    auto plain = ProbeFixture(FixtureId::H264AacMp4);
    EXPECT_FALSE(plain->GetVideoStreams()[0].metadata.contains(QStringLiteral("rotate")));
    EXPECT_FALSE(plain->IsVideoRotated());
}

TEST(MediaReader, ReprobingReplacesStreamsAndKeepsHostMetadata)
{
    auto info = std::make_shared<MediaInfo>(GetFixture(FixtureId::MultiStreamMkv).path);
    info->metadata.insert(QStringLiteral("host-note"), QStringLiteral("kept"));
    ASSERT_TRUE(MediaReader::ParseMedia(info));
    const int videoStreams = info->GetNumVideoStreams();
    const int audioStreams = info->GetNumAudioStreams();
    ASSERT_TRUE(MediaReader::ParseMedia(info));

    EXPECT_TRUE(info->IsInitialized());
    EXPECT_EQ(info->GetNumVideoStreams(), videoStreams);
    EXPECT_EQ(info->GetNumAudioStreams(), audioStreams);
    EXPECT_EQ(info->metadata.value(QStringLiteral("host-note")), QStringLiteral("kept"));

    // The same record pointed at a file that has gone: cleared, not stale.
    QTemporaryDir dir;
    const QString gone = dir.filePath(QStringLiteral("gone.mkv"));
    ASSERT_TRUE(QFile::copy(info->filePath, gone));
    info->filePath = gone;
    ASSERT_TRUE(MediaReader::ParseMedia(info));
    ASSERT_TRUE(QFile::remove(gone));
    EXPECT_FALSE(MediaReader::ParseMedia(info));
    ExpectFailedRecord(*info);
}

TEST(MediaReader, StreamWithoutDecoderKeepsADefaultRecord)
{
    // Renaming the Matroska codec ids (same length, so the file stays valid)
    // leaves streams that no decoder claims.
    QByteArray bytes = ReadAll(GetFixture(FixtureId::MultiStreamMkv).path);
    const QByteArray videoId("V_MPEG4/ISO/AVC");
    const QByteArray audioId = bytes.contains("A_AAC") ? QByteArray("A_AAC") : QByteArray("A_PCM/INT/LIT");
    ASSERT_TRUE(bytes.contains(videoId));
    ASSERT_TRUE(bytes.contains(audioId));
    bytes.replace(videoId, "V_" + QByteArray(videoId.size() - 2, 'Q'));
    bytes.replace(audioId, "A_" + QByteArray(audioId.size() - 2, 'Q'));
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("unknown codecs.mkv"));
    WriteAll(path, bytes);

    LogCapture log;
    bool ok = false;
    auto info = TryProbe(path, false, &ok);
    ASSERT_TRUE(ok);
    EXPECT_TRUE(info->IsInitialized());
    EXPECT_TRUE(log.Messages().contains(QStringLiteral("Video decoder not found.")));
    EXPECT_TRUE(log.Messages().contains(QStringLiteral("Audio decoder not found.")));

    ASSERT_EQ(info->GetNumVideoStreams(), 2);
    EXPECT_FALSE(info->GetVideoStreams()[0].isValid);
    EXPECT_EQ(info->GetVideoStreams()[0].index, -1);
    EXPECT_TRUE(info->GetVideoStreams()[1].isValid);
    ASSERT_EQ(info->GetNumAudioStreams(), 1);
    EXPECT_FALSE(info->GetAudioStreams()[0].isValid);
}

TEST(MediaReader, MissingFileIsReportedWithItsAbsolutePath)
{
    QTemporaryDir dir;
    const QString relative = QDir::current().relativeFilePath(dir.filePath(QStringLiteral("nothing here.mp4")));
    LogCapture log;
    bool ok = true;
    auto info = TryProbe(relative, false, &ok);

    EXPECT_FALSE(ok);
    ExpectFailedRecord(*info);
    EXPECT_EQ(log.Messages(), QStringList({QStringLiteral("File not found: %1").arg(Absolute(relative))}));
}

TEST(MediaReader, UnreadableInputsFailCleanly)
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("a folder.mp4"));
    ASSERT_TRUE(QDir().mkpath(folder));
    const QString empty = dir.filePath(QStringLiteral("empty.mp4"));
    WriteAll(empty, QByteArray());
    const QString noise = dir.filePath(QStringLiteral("noise.mkv"));
    QByteArray random(64 * 1024, '\0');
    uint32_t state = 12345;
    for (char& byte : random) {
        state = state * 1103515245u + 12345u;
        byte = char(state >> 24);
    }
    WriteAll(noise, random);

    for (const QString& path : {folder, empty, noise}) {
        SCOPED_TRACE(path.toStdString());
        LogCapture log;
        bool ok = true;
        auto info = TryProbe(path, false, &ok);
        EXPECT_FALSE(ok);
        ExpectFailedRecord(*info);
        ASSERT_EQ(log.Messages().size(), 1);
        EXPECT_TRUE(log.Messages()[0].startsWith(
            QStringLiteral("Failed to open input for parsing: %1 (code -").arg(Absolute(path))))
            << log.Messages()[0].toStdString();
    }
}

TEST(MediaReader, TruncatedFilesNeverCrash)
{
    const QByteArray whole = ReadAll(GetFixture(FixtureId::H264AacMp4).path);
    QTemporaryDir dir;
    for (int percent : {1, 10, 50, 90, 99}) {
        SCOPED_TRACE(percent);
        const QString path = dir.filePath(QStringLiteral("cut_%1.mp4").arg(percent));
        WriteAll(path, whole.left(whole.size() * percent / 100));
        LogCapture log;
        bool ok = false;
        auto info = TryProbe(path, false, &ok);
        // Either it fails with a message and an empty record, or it probes
        // what it could; never a half-filled failure.
        if (ok) {
            EXPECT_TRUE(info->IsInitialized());
        } else {
            ExpectFailedRecord(*info);
            EXPECT_FALSE(log.Messages().isEmpty());
        }
    }
}

TEST(MediaReader, PathsWithSpacesAndNonAsciiLetters)
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("Fête de l'été 2026/日本語 dir"));
    ASSERT_TRUE(QDir().mkpath(folder));
    const QString path = folder + QStringLiteral("/Ünïcödé clip ✓.mp4");
    ASSERT_TRUE(QFile::copy(GetFixture(FixtureId::H264AacMp4).path, path));

    bool ok = false;
    auto info = TryProbe(path, false, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(info->GetFileName(), QStringLiteral("Ünïcödé clip ✓.mp4"));
    EXPECT_EQ(info->GetNumVideoStreams(), 1);
    EXPECT_EQ(info->GetNumAudioStreams(), 1);
}

TEST(MediaReader, FileWithoutReadPermission)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("locked.mp4"));
    ASSERT_TRUE(QFile::copy(GetFixture(FixtureId::H264AacMp4).path, path));
    ASSERT_TRUE(QFile::setPermissions(path, QFileDevice::WriteOwner));
    QFile probe(path);
    if (probe.open(QIODevice::ReadOnly))
        GTEST_SKIP() << "this user reads files without read permission (root)";

    LogCapture log;
    bool ok = true;
    auto info = TryProbe(path, false, &ok);
    EXPECT_FALSE(ok);
    ExpectFailedRecord(*info);
    EXPECT_EQ(log.Messages(),
              QStringList({QStringLiteral("Failed to open input for parsing: %1 (code -13: Permission denied)")
                               .arg(Absolute(path))}));
}

TEST(MediaReader, PacketsRunOutIntoABlankPacket)
{
    const Fixture& fixture = GetFixture(FixtureId::H264AacMp4);
    auto info = std::make_shared<MediaInfo>(fixture.path);
    AVFormatContext* context = nullptr;
    ASSERT_TRUE(MediaReader::OpenInput(info, &context));
    ASSERT_NE(context, nullptr);
    EXPECT_FALSE(MediaReader::GetPacket(context, nullptr));

    AVPacket* packet = av_packet_alloc();
    std::vector<int64_t> perStream(context->nb_streams, 0);
    while (MediaReader::GetPacket(context, packet)) {
        ASSERT_GE(packet->stream_index, 0);
        ASSERT_LT(packet->stream_index, int(context->nb_streams));
        ++perStream[size_t(packet->stream_index)];
        av_packet_unref(packet);
    }
    EXPECT_EQ(packet->data, nullptr);
    EXPECT_EQ(packet->size, 0);
    EXPECT_EQ(packet->stream_index, -1);
    EXPECT_FALSE(MediaReader::GetPacket(context, packet));
    EXPECT_EQ(packet->stream_index, -1);
    EXPECT_EQ(perStream[0], fixture.streams[0].frameCount);
    av_packet_free(&packet);

    MediaReader::CloseInput(&context);
    EXPECT_EQ(context, nullptr);
    MediaReader::CloseInput(&context);
}

TEST(MediaReader, FailedOpenLeavesNoContext)
{
    QTemporaryDir dir;
    const QString empty = dir.filePath(QStringLiteral("empty.mkv"));
    WriteAll(empty, QByteArray());
    LogCapture log;
    AVFormatContext* context = nullptr;
    EXPECT_FALSE(MediaReader::OpenInput(std::make_shared<MediaInfo>(empty), &context));
    EXPECT_EQ(context, nullptr);
    EXPECT_FALSE(MediaReader::OpenInput(std::make_shared<MediaInfo>(dir.filePath("missing.mkv")), &context));
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(log.Messages().size(), 2);
}
