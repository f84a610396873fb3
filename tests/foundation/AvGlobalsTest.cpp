#include <MolvaneAV/AvGlobals.h>

#include <gtest/gtest.h>

#include <QDateTime>

// Nothing else in this program writes the cap, so it still holds its value
// from load time.
TEST(AvGlobals, ChannelCapIsZeroWhenLoaded)
{
    EXPECT_EQ(AvGlobals::maxAudioOutputChannels, 0);
}

TEST(AvGlobals, ImageFormatsMatchWholeNamesInAnyCase)
{
    for (const char* name : {"PNG", "png", "Targa", "dpx", "EXR", "MJPEG", "tiff", "Png"})
        EXPECT_TRUE(AvGlobals::IsImageFormat(QString::fromLatin1(name))) << name;
    for (const char* name : {"", "jpg", "jpeg", "tif", "tga", "bmp", "h264", "png ", " png", "apng", "mjpegb"})
        EXPECT_FALSE(AvGlobals::IsImageFormat(QString::fromLatin1(name))) << '"' << name << '"';
}

TEST(AvGlobals, ClockIsWallClockMicroseconds)
{
    const int64_t before = QDateTime::currentMSecsSinceEpoch() * 1000;
    const int64_t now = AvGlobals::GetTime();
    const int64_t after = QDateTime::currentMSecsSinceEpoch() * 1000 + 1000;
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}
