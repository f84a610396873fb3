#include <MolvaneAV/AvGlobals.h>

#include <gtest/gtest.h>

TEST(AvGlobals, ChannelCapIsZeroWhenLoadedAndImageFormatsMatchWholeNamesInAnyCase)
{
    EXPECT_EQ(AvGlobals::maxAudioOutputChannels, 0);
    for (const char* name : {"PNG", "png", "Targa", "dpx", "EXR", "MJPEG", "tiff"})
        EXPECT_TRUE(AvGlobals::IsImageFormat(QString::fromLatin1(name))) << name;
    for (const char* name : {"", "jpg", "tif", "h264", "png ", "apng", "mjpegb"})
        EXPECT_FALSE(AvGlobals::IsImageFormat(QString::fromLatin1(name))) << '"' << name << '"';
}
