// The media record's accessors on records built by hand, as probing or a host
// could leave them.

#include <MolvaneAV/MediaInfo.h>

#include <gtest/gtest.h>

#include <limits>

TEST(MediaInfo, StartsUnprobedWithAnIdentityOfItsOwn)
{
    MediaInfo source(QStringLiteral("relative/dir/clip one.mp4"));
    EXPECT_EQ(source.GetFileName(), QStringLiteral("clip one.mp4"));
    EXPECT_FALSE(source.IsInitialized() || source.IsImage() || source.IsLinearColorSpace() || source.GetDuration());
    EXPECT_TRUE(source.GetSourceID().isNull());
    EXPECT_FALSE(source.GetID().isNull() || source.GetID() == MediaInfo(source.filePath).GetID());
}

TEST(MediaInfo, TimingAnswersFromTheFirstVideoStreamOnly)
{
    // Whether the source is an image, the rotate tags of its video streams
    // ("" for none); read back as duration, start, frames, step, rate,
    // width x height, rotated.
    const std::tuple<bool, QStringList, const char*> rows[] = {
        {false, {}, "181000000 0 0 0 0 0x0 no"},
        {true, {}, "181000000 0 0 0 0 0x0 no"},
        {false, {"", "90"}, "181000000 120000 250 33366 29.97 640x360 no"},
        {true, {"270"}, "-1 0 250 -1 -1 640x360 yes"},
        // Only a quarter turn either way counts as rotated.
        {false, {"90"}, "181000000 120000 250 33366 29.97 640x360 yes"},
        {false, {"180"}, "181000000 120000 250 33366 29.97 640x360 no"},
    };
    for (const auto& [isImage, rotates, timing] : rows) {
        MediaInfo info(QStringLiteral("/m.mkv"));
        info.duration = 181000000;
        info.isImage = isImage;
        for (int i = 0; i < rotates.size(); ++i) {
            VideoStream stream; // as probing leaves it; images get no timeline
            stream.width = 640 + i;
            stream.height = 360 + i;
            stream.frameStep = isImage ? -1 : 33366 + i;
            stream.frameRate = isImage ? -1.0 : 29.97 + i;
            stream.numFrames = 250 + i;
            stream.startTime = 120000 + i;
            if (!rotates[i].isEmpty())
                stream.metadata.insert(QStringLiteral("rotate"), rotates[i]);
            info.videoStreams.append(stream);
        }
        EXPECT_EQ(QStringLiteral("%1 %2 %3 %4 %5 %6x%7 %8")
                      .arg(info.GetDuration()).arg(info.GetStartTime()).arg(info.GetNumFrames())
                      .arg(info.GetFrameStep()).arg(info.GetFrameRate()).arg(info.GetVideoWidth())
                      .arg(info.GetVideoHeight()).arg(info.IsVideoRotated() ? "yes" : "no"),
                  QLatin1String(timing));
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
