// The converters behind MediaInstance, judged by what they deliver for whole
// files: pictures byte for byte against the ffmpeg program's RGB24 (a sweep
// of widths and pixel formats, and clips as phones and the web make them), the
// linear-light gamma, the size-change placeholder, and every audio sample
// against ffmpeg's int16 conversion of the same file.

#include "support/TestMedia.h"

#include <MolvaneAV/AvGlobals.h>

#include <gtest/gtest.h>

#include <QFile>

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

struct PictureCase {
    QString file;
    QString reference; // the ffmpeg program's RGB24 of it, written with the test media
    int width;
    bool linear = false;
};

// Every clip of the converter sweep that the test media holds (NAME.done
// lists the extension and the widths).
QList<PictureCase> SweepCases()
{
    QList<PictureCase> cases;
    for (const char* name : {"sweep_yuv420p", "sweep_yuvj420p", "sweep_yuv422p_bt709", "sweep_yuv444p_bt709_full",
                             "sweep_yuv420p10le_bt2020"}) {
        QFile done(MediaPath(QString(name) + ".done"));
        EXPECT_TRUE(done.open(QIODevice::ReadOnly)) << name;
        const QList<QByteArray> fields = done.readAll().simplified().split(' ');
        for (int i = 1; i < fields.size(); ++i) {
            const QString stem = QString("%1_%2").arg(name, fields[i]);
            cases.append({stem + "." + fields[0], stem + ".rgb", fields[i].toInt()});
        }
    }
    return cases;
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

    // The ffmpeg program scales with bilinear alone, the picture's own colour
    // matrix and range, no pictures dropped or repeated. Widening by the
    // pixel aspect: 720 at 64:45 gives 1024, 320 at 4:3 gives 426.
    QList<PictureCase> cases = {
        {"h264_aac.mp4", "h264_aac.mp4.rgb", 320},
        {"h264_aac.mp4", "h264_aac.mp4.rgb", 320, true},
        {"anamorphic.mp4", "anamorphic.mp4.rgb", 1024},
        {"widened_10bit.mkv", "widened_10bit.mkv.rgb", 426},
        {"phone_1080x720.mp4", "phone_1080x720.mp4.rgb", 1080}, // BT.709, full range
        {"hevc_854x480.ts", "hevc_854x480.ts.rgb", 854},
        {"hdr10_bt2020.mkv", "hdr10_bt2020.mkv.rgb", 320}, // 10-bit BT.2020, no tone mapping
        {"tone_cover1400.mp3", "tone_cover1400.mp3.rgb", 1400}, // a JPEG cover
        // libdav1d refuses packets until its pictures are taken out: none is lost.
        {"av1_aom.mkv", "av1_aom.mkv.rgb", 320},
        {"vp9_2pass.webm", "vp9_2pass.webm.rgb", 161},
    };
    cases += SweepCases();
    ASSERT_GT(cases.size(), 5 * 72);
    // Valgrind cannot run libdav1d's assembly.
    const bool memcheck = qEnvironmentVariableIsSet("MOLVANE_MEMCHECK");
    for (const PictureCase& c : cases) {
        if (memcheck && c.file.startsWith("av1"))
            continue;
        SCOPED_TRACE((c.file + (c.linear ? " as linear light" : "")).toStdString());
        auto info = Probe(c.file);
        info->isLinearColorSpace = c.linear;
        QList<std::shared_ptr<DecodedVideoFrame>> pictures = DecodeFile(info).video;
        if (!pictures.isEmpty() && pictures.last()->data == nullptr)
            pictures.removeLast(); // the end-of-stream marker
        ASSERT_FALSE(pictures.isEmpty());
        const int height = pictures.front()->height, rowBytes = 3 * c.width, stride = RowStride(c.width);
        QFile referenceFile(MediaPath(c.reference));
        ASSERT_TRUE(referenceFile.open(QIODevice::ReadOnly));
        const QByteArray reference = referenceFile.readAll();
        ASSERT_EQ(reference.size(), int(pictures.size()) * rowBytes * height);
        for (int p = 0; p < pictures.size(); ++p) {
            const DecodedVideoFrame& picture = *pictures[p];
            ASSERT_EQ(std::tuple(picture.width, picture.height, picture.size, picture.isLinearColorSpace),
                      std::tuple(c.width, height, stride * height, c.linear));
            QByteArray ours, padding, expected = reference.mid(int(p) * rowBytes * height, rowBytes * height);
            for (int y = 0; y < height; ++y) {
                ours.append(reinterpret_cast<const char*>(picture.data) + y * stride, rowBytes);
                padding.append(reinterpret_cast<const char*>(picture.data) + y * stride + rowBytes, stride - rowBytes);
            }
            for (char& byte : expected)
                byte = char(c.linear ? gamma[uint8_t(byte)] : uint8_t(byte));
            const int at = FirstDifference(ours, expected);
            ASSERT_EQ(at, -1) << "picture " << p << ", row " << at / rowBytes << ", byte " << at % rowBytes;
            ASSERT_EQ(padding.count('\0'), padding.size()) << "picture " << p;
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
