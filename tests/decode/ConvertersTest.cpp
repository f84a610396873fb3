// The converters behind MediaInstance, judged by what they deliver for whole
// files: pictures byte for byte against the ffmpeg program's RGB24, the
// linear-light gamma, the size-change placeholder, and every audio sample
// against ffmpeg's int16 conversion of the same file.

#include "support/TestMedia.h"

#include <MolvaneAV/AvGlobals.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>

using namespace molvane::test;

namespace {

// Index of the first byte where ours differs from expected; -1 when none does.
int FirstDifference(const QByteArray& ours, const QByteArray& expected)
{
    const auto at = std::mismatch(ours.begin(), ours.end(), expected.begin(), expected.end());
    return at.first == ours.end() && at.second == expected.end() ? -1 : int(at.first - ours.begin());
}

Decoded DecodeFile(const std::shared_ptr<MediaInfo>& info)
{
    MediaInstance instance;
    EXPECT_TRUE(instance.Initialize(info, 0));
    return DecodeAll(instance);
}

} // namespace

TEST(VideoConverter, PicturesMatchTheFfmpegProgramByteForByte)
{
    // Linear-light sources encode every byte with a 2.2 gamma.
    std::array<uint8_t, 256> gamma{};
    for (int i = 0; i < 256; ++i)
        gamma[i] = uint8_t(std::lround(255.0 * std::pow(i / 255.0, 1.0 / 2.2)));
    ASSERT_EQ((std::array<int, 5>{gamma[0], gamma[1], gamma[64], gamma[128], gamma[254]}),
              (std::array<int, 5>{0, 21, 136, 186, 255}));

    struct Case {
        const char* file;
        int width;
        bool linear;
    };
    // Widening by the pixel aspect: 720 at 64:45 gives 1024, 320 at 4:3 gives
    // 426, whose rows are padded from 1278 to 1280 bytes.
    for (const Case& c : {Case{"h264_aac.mp4", 320, false}, Case{"anamorphic.mp4", 1024, false},
                          Case{"widened_10bit.mkv", 426, false}, Case{"h264_aac.mp4", 320, true}}) {
        SCOPED_TRACE(std::string(c.file) + (c.linear ? " as linear light" : ""));
        auto info = Probe(c.file);
        info->isLinearColorSpace = c.linear;
        QList<std::shared_ptr<DecodedVideoFrame>> pictures = DecodeFile(info).video;
        ASSERT_FALSE(pictures.isEmpty());
        pictures.removeLast(); // the end-of-stream marker
        const int height = pictures.front()->height;
        // The ffmpeg program runs the same swscale conversion when told the
        // same: bilinear alone, swscale's default BT.601 matrix (the filter
        // would follow colour tags the library does not read), and no
        // pictures dropped or repeated.
        const QByteArray reference = RunFfmpeg(
            {"-i", MediaPath(c.file), "-map", "0:v:0", "-vf",
             QString("scale=%1:%2:flags=bilinear:in_color_matrix=bt601").arg(c.width).arg(height), "-fps_mode",
             "passthrough", "-pix_fmt", "rgb24", "-f", "rawvideo", "-"});
        const int rowBytes = 3 * c.width;
        ASSERT_EQ(reference.size(), int(pictures.size()) * rowBytes * height);
        for (int p = 0; p < pictures.size(); ++p) {
            const DecodedVideoFrame& picture = *pictures[p];
            ASSERT_EQ(std::tuple(picture.width, picture.height, picture.size, picture.isLinearColorSpace),
                      std::tuple(c.width, height, RowStride(c.width) * height, c.linear));
            QByteArray ours, expected = reference.mid(int(p) * rowBytes * height, rowBytes * height);
            for (int y = 0; y < height; ++y)
                ours.append(reinterpret_cast<const char*>(picture.data) + y * RowStride(c.width), rowBytes);
            for (char& byte : expected)
                byte = char(c.linear ? gamma[uint8_t(byte)] : uint8_t(byte));
            const int at = FirstDifference(ours, expected);
            ASSERT_EQ(at, -1) << "picture " << p << ", row " << at / rowBytes << ", byte " << at % rowBytes;
        }
    }
}

TEST(VideoConverter, PicturesOfAnotherSizeBecomePlaceholders)
{
    // Ten pictures at 320x240, the size decoding was set up for, then ten at 256x144.
    const Decoded decoded = DecodeFile(Probe("size_change.ts"));
    ASSERT_GT(decoded.video.size(), 11);
    EXPECT_EQ(PaintedIndexes(decoded.video.mid(0, 10)), QList<int>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    // A placeholder ends its call, also while draining: no marker follows.
    EXPECT_EQ(decoded.video.last()->status, 1);
    for (int i = 10; i < decoded.video.size(); ++i) {
        const DecodedVideoFrame& placeholder = *decoded.video[i];
        ASSERT_EQ(std::tuple(placeholder.status, placeholder.size, placeholder.width, placeholder.height,
                             placeholder.frameRate),
                  std::tuple(1, 1, 256, 144, 25.0)) << "record " << i;
        EXPECT_EQ(placeholder.data[0], 0);
        EXPECT_GT(placeholder.startTime, decoded.video[i - 1]->startTime);
    }
}

TEST(AudioConverter, EverySampleArrivesAsInterleavedInt16)
{
    struct Case {
        const char* file;
        int cap, channels;
        QStringList ffmpegArgs;
        // Maps the value of ffmpeg's conversion to the one expected.
        int (*expected)(int);
    };
    const auto same = [](int value) { return value; };
    // Where the resampler refuses the layout (nine channels), the built-in
    // converter keeps the first channels and scales floats by 32767,
    // truncating: a value v / 32768 with v > 0 comes out as v - 1.
    const auto scaledBy32767 = [](int value) { return value > 0 ? value - 1 : value; };
    const QStringList firstTwo = {"-af", "pan=stereo|c0=c0|c1=c1"};
    const Case cases[] = {
        {"s16_stereo.wav", 0, 2, {}, same},
        {"u8_stereo.wav", 0, 2, {}, same},
        {"float_stereo.wav", 0, 2, {}, same},
        {"six_channels.wav", 0, 6, {}, same},
        {"six_channels.wav", 2, 2, {"-ac", "2"}, same},
        {"nine_s16.wav", 2, 2, firstTwo, same},
        {"nine_float.wav", 2, 2, firstTwo, scaledBy32767},
        {"format_change.mkv", 0, 2, {}, same},
        {"multi_stream.mkv", 0, 2, {"-map", "0:a"}, same},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " capped at " + std::to_string(c.cap));
        ChannelCap cap(c.cap);
        auto info = Probe(c.file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded decoded = DecodeAll(instance);
        ASSERT_EQ(instance.GetOutputChannelCount(), c.channels);
        const int rate = instance.GetSampleRate();
        QByteArray ours;
        int64_t position = 0;
        for (const auto& record : decoded.audio) {
            ASSERT_EQ(record->sampleCount, record->samplesPerChannel * c.channels);
            ASSERT_EQ(record->bufferSampleCount, record->sampleCount);
            EXPECT_EQ(record->sampleRate, rate);
            EXPECT_EQ(record->continuityTag, -1);
            // Times follow the samples (Matroska keeps milliseconds); the end
            // is the last microsecond covered.
            EXPECT_NEAR(double(record->startTime), position * 1e6 / rate, 1000.0);
            EXPECT_NEAR(double(record->endTime), record->startTime + record->samplesPerChannel * 1e6 / rate - 1, 1.0);
            ours.append(reinterpret_cast<const char*>(record->samples), record->sampleCount * 2);
            position += record->samplesPerChannel;
        }
        QByteArray expected =
            RunFfmpeg(QStringList{"-i", MediaPath(c.file)} + c.ffmpegArgs + QStringList{"-f", "s16le", "-"});
        auto* values = reinterpret_cast<int16_t*>(expected.data());
        for (int i = 0; i < expected.size() / 2; ++i)
            values[i] = int16_t(c.expected(values[i]));
        const int at = FirstDifference(ours, expected);
        EXPECT_EQ(at, -1) << "sample frame " << at / 2 / c.channels << ", channel " << at / 2 % c.channels << " of "
                          << ours.size() / 2 / c.channels << " against " << expected.size() / 2 / c.channels;
    }
}
