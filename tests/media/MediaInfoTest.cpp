// The media record's accessors on records built by hand, as probing or a host
// could leave them.

#include <MolvaneAV/MediaInfo.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

VideoStream MakeVideo(int index, int64_t frameStep, double frameRate, const char* rotate = nullptr)
{
    VideoStream stream;
    stream.isValid = true;
    stream.index = index;
    stream.width = 640 + index;
    stream.height = 360 + index;
    stream.frameStep = frameStep;
    stream.frameRate = frameRate;
    stream.numFrames = 250 + index;
    stream.startTime = 120000 + index;
    if (rotate != nullptr)
        stream.metadata.insert(QStringLiteral("rotate"), QString::fromLatin1(rotate));
    return stream;
}

} // namespace

TEST(MediaInfo, StartsUnprobedWithAnIdentityThatCopiesKeep)
{
    MediaInfo source(QStringLiteral("relative/dir/clip one.mp4"));
    EXPECT_EQ(source.GetFilePath(), QStringLiteral("relative/dir/clip one.mp4"));
    EXPECT_EQ(source.GetFileName(), QStringLiteral("clip one.mp4"));
    EXPECT_FALSE(source.IsInitialized() || source.IsImage() || source.IsLinearColorSpace());
    EXPECT_EQ(source.GetDuration(), 0);
    EXPECT_TRUE(source.GetSourceID().isNull());
    EXPECT_FALSE(source.GetID().isNull());
    EXPECT_NE(source.GetID(), MediaInfo(source.filePath).GetID());

    source.sourceId = QUuid::createUuid();
    source.metadata.insert(QStringLiteral("title"), QStringLiteral("x"));
    source.videoStreams.append(MakeVideo(0, 40000, 25.0));
    MediaInfo assigned(QStringLiteral("/other.wav"));
    assigned = source;
    for (const MediaInfo& copy : {MediaInfo(source), assigned}) {
        EXPECT_TRUE(copy.GetID() == source.GetID() && copy.GetSourceID() == source.GetSourceID());
        EXPECT_TRUE(copy.filePath == source.filePath && copy.metadata == source.metadata);
        EXPECT_EQ(copy.GetNumVideoStreams(), 1);
    }
}

TEST(MediaInfo, TimingAnswersFromTheFirstVideoStreamOnly)
{
    // Read back as: duration, start, frames, step, rate, width x height, rotated.
    const struct {
        const char* what;
        bool isImage;
        QList<VideoStream> video;
        const char* timing;
    } cases[] = {
        {"no video", false, {}, "181000000 0 0 0 0 0x0 no"},
        {"image without video", true, {}, "181000000 0 0 0 0 0x0 no"},
        {"movie", false, {MakeVideo(3, 33366, 29.97), MakeVideo(5, 40000, 25.0, "90")},
         "181000000 120003 253 33366 29.97 643x363 no"},
        {"image", true, {MakeVideo(0, -1, -1.0, "270")}, "-1 0 250 -1 -1 640x360 yes"},
    };
    for (const auto& c : cases) {
        MediaInfo info(QStringLiteral("/m.mkv"));
        info.duration = 181000000;
        info.isImage = c.isImage;
        info.videoStreams = c.video;
        EXPECT_EQ(QStringLiteral("%1 %2 %3 %4 %5 %6x%7 %8")
                      .arg(info.GetDuration()).arg(info.GetStartTime()).arg(info.GetNumFrames())
                      .arg(info.GetFrameStep()).arg(info.GetFrameRate()).arg(info.GetVideoWidth())
                      .arg(info.GetVideoHeight()).arg(info.IsVideoRotated() ? "yes" : "no"),
                  QLatin1String(c.timing)) << c.what;
        EXPECT_DOUBLE_EQ(info.GetDurationInSeconds(), double(info.GetDuration()) / 1e6);
    }
}

TEST(MediaInfo, OnlyNinetyAndTwoSeventyDegreesCountAsRotated)
{
    const QStringList rotated{"90", "270"};
    for (const char* value : {"90", "270", "180", "0", "-90", "90.0", " 90", "", static_cast<const char*>(nullptr)}) {
        MediaInfo info(QStringLiteral("/phone.mp4"));
        info.videoStreams.append(MakeVideo(0, 40000, 25.0, value));
        EXPECT_EQ(info.IsVideoRotated(), value != nullptr && rotated.contains(value)) << (value ? value : "no tag");
    }
}

TEST(MediaInfo, LooksStreamsUpByContainerIndexAndLeavesMissesUntouched)
{
    MediaInfo info(QStringLiteral("/m.mkv"));
    info.videoStreams = {MakeVideo(0, 40000, 25.0), MakeVideo(2, 40000, 25.0), MakeVideo(2, 20000, 50.0)};
    info.audioStreams = {AudioStream(), AudioStream()};
    info.audioStreams[1].index = 1;
    info.audioStreams[1].sampleRate = 44100;

    VideoStream video = MakeVideo(9, 1, 1.0);
    AudioStream sound;
    sound.sampleRate = 8000;
    for (int missing : {1, 7})
        info.GetVideoStream(missing, video);
    info.GetAudioStream(0, sound);
    EXPECT_TRUE(video.index == 9 && sound.sampleRate == 8000);
    info.GetVideoStream(2, video);
    info.GetAudioStream(1, sound);
    EXPECT_TRUE(video.index == 2 && video.frameStep == 40000); // the first of two with that index
    EXPECT_EQ(sound.sampleRate, 44100);
}

TEST(MediaInfo, DurationTextRoundsToHundredthsWithUncappedHours)
{
    const struct {
        int64_t duration;
        const char* text;
    } cases[] = {
        {3723456789, "01:02:03.46"}, {59996000, "00:01:00.00"}, {59994999, "00:00:59.99"}, {0, "00:00:00.00"},
        {-1, "00:00:00.00"}, {360000000000, "100:00:00.00"},
        {int64_t(std::numeric_limits<int>::max()) * 1000000, "596523:14:07.00"},
        // Beyond 32-bit seconds and below zero there is no wrapped text.
        {std::numeric_limits<int64_t>::max(), "00:00:00.00"}, {-5000000, "00:00:00.00"},
    };
    for (const auto& c : cases) {
        MediaInfo info(QStringLiteral("/clip.mov"));
        info.duration = c.duration;
        EXPECT_EQ(info.GetDurationAsString(), QLatin1String(c.text)) << c.duration;
    }
}
