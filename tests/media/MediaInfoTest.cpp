#include <MolvaneAV/MediaInfo.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

VideoStream MakeVideo(int index, int64_t frameStep = 40000, double frameRate = 25.0)
{
    VideoStream stream;
    stream.isValid = true;
    stream.index = index;
    stream.width = 640;
    stream.height = 360;
    stream.frameStep = frameStep;
    stream.frameRate = frameRate;
    stream.numFrames = 250;
    stream.startTime = 120000;
    return stream;
}

QString DurationText(int64_t duration)
{
    MediaInfo info(QStringLiteral("/media/clip.mov"));
    info.duration = duration;
    return info.GetDurationAsString();
}

} // namespace

TEST(MediaInfo, StartsUnprobedWithItsOwnIdentity)
{
    MediaInfo a(QStringLiteral("relative/dir/clip one.mp4"));
    MediaInfo b(QStringLiteral("relative/dir/clip one.mp4"));

    EXPECT_EQ(a.GetFilePath(), QStringLiteral("relative/dir/clip one.mp4"));
    EXPECT_EQ(a.GetFileName(), QStringLiteral("clip one.mp4"));
    EXPECT_FALSE(a.IsInitialized());
    EXPECT_EQ(a.duration, 0);
    EXPECT_FALSE(a.IsImage());
    EXPECT_FALSE(a.IsLinearColorSpace());
    EXPECT_TRUE(a.GetSourceID().isNull());
    EXPECT_FALSE(a.GetID().isNull());
    EXPECT_NE(a.GetID(), b.GetID());
}

TEST(MediaInfo, CopiesKeepIdentityAndContent)
{
    MediaInfo source(QStringLiteral("/a/b.mkv"));
    source.sourceId = QUuid::createUuid();
    source.duration = 5000000;
    source.metadata.insert(QStringLiteral("title"), QStringLiteral("x"));
    source.videoStreams.append(MakeVideo(0));

    const MediaInfo copy(source);
    MediaInfo assigned(QStringLiteral("/other.wav"));
    assigned = source;

    for (const MediaInfo* info : {&copy, static_cast<const MediaInfo*>(&assigned)}) {
        EXPECT_EQ(info->GetID(), source.GetID());
        EXPECT_EQ(info->GetSourceID(), source.GetSourceID());
        EXPECT_EQ(info->filePath, source.filePath);
        EXPECT_EQ(info->GetDuration(), 5000000);
        EXPECT_EQ(info->metadata, source.metadata);
        EXPECT_EQ(info->GetNumVideoStreams(), 1);
    }
}

TEST(MediaInfo, WithoutVideoTimingAccessorsAreZero)
{
    MediaInfo info(QStringLiteral("/music/song.flac"));
    info.duration = 181000000;
    AudioStream audio;
    audio.isValid = true;
    audio.index = 0;
    info.audioStreams.append(audio);

    EXPECT_EQ(info.GetFrameRate(), 0.0);
    EXPECT_EQ(info.GetFrameStep(), 0);
    EXPECT_EQ(info.GetNumFrames(), 0);
    EXPECT_EQ(info.GetVideoWidth(), 0);
    EXPECT_EQ(info.GetVideoHeight(), 0);
    EXPECT_EQ(info.GetStartTime(), 0);
    EXPECT_FALSE(info.IsVideoRotated());
    EXPECT_EQ(info.GetDuration(), 181000000);
    EXPECT_DOUBLE_EQ(info.GetDurationInSeconds(), 181.0);

    info.isImage = true;
    EXPECT_EQ(info.GetDuration(), 181000000);
}

TEST(MediaInfo, TimingComesFromTheFirstVideoStreamOnly)
{
    MediaInfo info(QStringLiteral("/m.mkv"));
    info.duration = 10000000;
    info.videoStreams.append(MakeVideo(3, 33366, 29.97));
    VideoStream second = MakeVideo(5, 40000, 25.0);
    second.width = 1920;
    second.metadata.insert(QStringLiteral("rotate"), QStringLiteral("90"));
    info.videoStreams.append(second);

    EXPECT_EQ(info.GetFrameStep(), 33366);
    EXPECT_EQ(info.GetFrameRate(), 29.97);
    EXPECT_EQ(info.GetNumFrames(), 250);
    EXPECT_EQ(info.GetVideoWidth(), 640);
    EXPECT_EQ(info.GetVideoHeight(), 360);
    EXPECT_EQ(info.GetStartTime(), 120000);
    EXPECT_EQ(info.GetDuration(), 10000000);
    EXPECT_FALSE(info.IsVideoRotated());
}

TEST(MediaInfo, ImageTimingComesFromItsFrameStep)
{
    MediaInfo info(QStringLiteral("/still.png"));
    info.isImage = true;
    info.duration = -1;
    VideoStream image = MakeVideo(0, -1, -1.0);
    image.numFrames = 1;
    info.videoStreams.append(image);

    EXPECT_EQ(info.GetDuration(), -1);
    EXPECT_EQ(info.GetStartTime(), 0);
    EXPECT_EQ(info.GetNumFrames(), 1);
    EXPECT_EQ(info.GetFrameRate(), -1.0);
    EXPECT_EQ(info.GetDurationAsString(), QStringLiteral("00:00:00.00"));
}

TEST(MediaInfo, RotationIsExactlyNinetyOrTwoSeventy)
{
    const struct {
        const char* value;
        bool rotated;
    } cases[] = {{"90", true}, {"270", true}, {"180", false}, {"0", false},
                 {"-90", false}, {"90.0", false}, {" 90", false}, {"", false}};
    for (const auto& c : cases) {
        MediaInfo info(QStringLiteral("/phone.mp4"));
        info.videoStreams.append(MakeVideo(0));
        info.videoStreams[0].metadata.insert(QStringLiteral("rotate"), QString::fromLatin1(c.value));
        EXPECT_EQ(info.IsVideoRotated(), c.rotated) << '"' << c.value << '"';
    }
    MediaInfo untagged(QStringLiteral("/phone.mp4"));
    untagged.videoStreams.append(MakeVideo(0));
    EXPECT_FALSE(untagged.IsVideoRotated());
}

TEST(MediaInfo, StreamLookupIsByContainerIndex)
{
    MediaInfo info(QStringLiteral("/m.mkv"));
    info.videoStreams.append(MakeVideo(0));
    info.videoStreams.append(MakeVideo(2));
    info.videoStreams[1].codecName = QStringLiteral("second");
    AudioStream audio;
    audio.index = 1;
    audio.sampleRate = 44100;
    info.audioStreams.append(audio);

    VideoStream out;
    out.codecName = QStringLiteral("untouched");
    info.GetVideoStream(7, out);
    EXPECT_EQ(out.codecName, QStringLiteral("untouched"));
    info.GetVideoStream(1, out);
    EXPECT_EQ(out.codecName, QStringLiteral("untouched"));
    info.GetVideoStream(2, out);
    EXPECT_EQ(out.codecName, QStringLiteral("second"));

    AudioStream audioOut;
    info.GetAudioStream(0, audioOut);
    EXPECT_EQ(audioOut.sampleRate, 0);
    info.GetAudioStream(1, audioOut);
    EXPECT_EQ(audioOut.sampleRate, 44100);
}

TEST(MediaInfo, DurationTextRoundsToHundredths)
{
    EXPECT_EQ(DurationText(3723456789), QStringLiteral("01:02:03.46"));
    EXPECT_EQ(DurationText(59996000), QStringLiteral("00:01:00.00"));
    EXPECT_EQ(DurationText(59994999), QStringLiteral("00:00:59.99"));
    EXPECT_EQ(DurationText(-1), QStringLiteral("00:00:00.00"));
    EXPECT_EQ(DurationText(0), QStringLiteral("00:00:00.00"));
    EXPECT_EQ(DurationText(360000000000), QStringLiteral("100:00:00.00"));
}

TEST(MediaInfo, DurationTextStaysReadableOutsideItsRange)
{
    EXPECT_EQ(DurationText(-5000000), QStringLiteral("00:00:00.00"));
    EXPECT_EQ(DurationText(std::numeric_limits<int64_t>::max()), QStringLiteral("00:00:00.00"));
    // The largest whole-second count a 32-bit int holds still prints.
    EXPECT_EQ(DurationText(int64_t(std::numeric_limits<int>::max()) * 1000000),
              QStringLiteral("596523:14:07.00"));
}
