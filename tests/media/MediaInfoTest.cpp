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
    EXPECT_EQ(source.GetFileName(), QStringLiteral("clip one.mp4"));
    EXPECT_FALSE(source.IsInitialized() || source.IsImage() || source.IsLinearColorSpace() || source.GetDuration());
    EXPECT_TRUE(source.GetSourceID().isNull());
    EXPECT_FALSE(source.GetID().isNull() || source.GetID() == MediaInfo(source.filePath).GetID());
    source.sourceId = QUuid::createUuid();
    source.metadata.insert(QStringLiteral("title"), QStringLiteral("x"));
    source.videoStreams.append(MakeVideo(0, 40000, 25.0));
    MediaInfo assigned(QStringLiteral("/other.wav"));
    assigned = source;
    for (MediaInfo copy : {MediaInfo(source), assigned}) {
        EXPECT_TRUE(copy.GetID() == source.GetID() && copy.GetSourceID() == source.GetSourceID());
        EXPECT_TRUE(copy.GetFilePath() == source.filePath && copy.metadata == source.metadata);
        EXPECT_EQ(copy.GetNumVideoStreams(), 1);
    }
}

TEST(MediaInfo, TimingAnswersFromTheFirstVideoStreamOnly)
{
    // Read back as: duration, start, frames, step, rate, width x height, rotated.
    const struct {
        bool isImage;
        QList<VideoStream> video;
        const char* timing;
    } cases[] = {
        {false, {}, "181000000 0 0 0 0 0x0 no"},
        {true, {}, "181000000 0 0 0 0 0x0 no"},
        {false, {MakeVideo(3, 33366, 29.97), MakeVideo(5, 40000, 25.0, "90")},
         "181000000 120003 253 33366 29.97 643x363 no"},
        {true, {MakeVideo(0, -1, -1.0, "270")}, "-1 0 250 -1 -1 640x360 yes"},
        // Only a quarter turn either way counts as rotated.
        {false, {MakeVideo(0, 40000, 25.0, "90")}, "181000000 120000 250 40000 25 640x360 yes"},
        {false, {MakeVideo(0, 40000, 25.0, "180")}, "181000000 120000 250 40000 25 640x360 no"},
        {false, {MakeVideo(0, 40000, 25.0, "-90")}, "181000000 120000 250 40000 25 640x360 no"},
        {false, {MakeVideo(0, 40000, 25.0, " 90")}, "181000000 120000 250 40000 25 640x360 no"},
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
                  QLatin1String(c.timing));
        EXPECT_DOUBLE_EQ(info.GetDurationInSeconds(), double(info.GetDuration()) / 1e6);
    }
}

TEST(MediaInfo, DurationTextRoundsToHundredthsWithUncappedHours)
{
    const std::pair<int64_t, const char*> cases[] = {
        {3723456789, "01:02:03.46"}, {59996000, "00:01:00.00"}, {59994999, "00:00:59.99"}, {0, "00:00:00.00"},
        {-1, "00:00:00.00"}, {360000000000, "100:00:00.00"},
        {int64_t(std::numeric_limits<int>::max()) * 1000000, "596523:14:07.00"},
        // Beyond 32-bit seconds and below zero there is no wrapped text.
        {std::numeric_limits<int64_t>::max(), "00:00:00.00"}, {-5000000, "00:00:00.00"},
    };
    for (const auto& [duration, text] : cases) {
        MediaInfo info(QStringLiteral("/clip.mov"));
        info.duration = duration;
        EXPECT_EQ(info.GetDurationAsString(), QLatin1String(text)) << duration;
    }
}
