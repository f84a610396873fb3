// The converters behind MediaInstance, judged by what they deliver for whole
// files: pictures byte for byte against the ffmpeg program's RGB24 (a sweep
// of widths and pixel formats), the linear-light gamma, and every audio
// sample against ffmpeg's int16 conversion of the same file.

#include "support/DecodeSummary.h"

#include <algorithm>
#include <array>
#include <cmath>

using namespace molvane::test;

namespace {

// Index of the first byte where ours differs from expected; -1 when none does.
int FirstDifference(const QByteArray& ours, const QByteArray& expected)
{
    const auto at = std::mismatch(ours.begin(), ours.end(), expected.begin(), expected.end());
    return at.first == ours.end() && at.second == expected.end() ? -1 : int(at.first - ours.begin());
}

// Valgrind is slow: under it, fewer rows, still through every converter path.
const bool memcheck = qEnvironmentVariableIsSet("MOLVANE_MEMCHECK");

} // namespace

TEST(VideoConverter, PicturesMatchTheFfmpegProgramByteForByte)
{
    // The ffmpeg program scales with bilinear alone, the picture's own colour
    // matrix and range, no pictures dropped or repeated. Widening by the
    // pixel aspect: 320 at 4:3 gives 426. File, width, as linear light.
    QList<std::tuple<QString, int, bool>> rows = {
        {"h264_aac.mp4", 320, true},
        {"widened_10bit.mkv", 426, false},
        {"tone_cover1400.mp3", 1400, false}, // a JPEG cover
    };
    // The converter sweep: NAME.done lists the extension and the widths of
    // its clips, NAME_WIDTH.EXTENSION, each beside NAME_WIDTH.rgb. Under
    // valgrind, a width whose rows need padding (3 × width mod 4) and an odd
    // tail for the scaler, small and large.
    for (const QString name : {"sweep_yuv420p", "sweep_yuvj420p", "sweep_yuv422p_bt709", "sweep_yuv444p_bt709_full",
                               "sweep_yuv420p10le_bt2020"}) {
        const QList<QByteArray> fields = ReadFile(name + ".done").simplified().split(' ');
        for (const QByteArray& width : fields.mid(1)) {
            if (!memcheck || width == "13" || width == "1366")
                rows.append({QString("%1_%2.%3").arg(name, width, fields[0]), width.toInt(), false});
        }
    }
    ASSERT_GT(rows.size(), memcheck ? 5 * 2 : 5 * 72);
    // Linear-light sources encode every byte with a 2.2 gamma.
    std::array<char, 256> gamma{};
    for (int i = 0; i < 256; ++i)
        gamma[i] = char(std::lround(255.0 * std::pow(i / 255.0, 1.0 / 2.2)));
    for (const auto& [file, width, linear] : rows) {
        SCOPED_TRACE((file + (linear ? " as linear light" : "")).toStdString());
        auto info = Probe(file);
        info->isLinearColorSpace = linear;
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        VideoRecords pictures = DecodeAll(instance).video;
        if (!pictures.isEmpty() && pictures.last()->data == nullptr)
            pictures.removeLast(); // the end-of-stream marker
        ASSERT_FALSE(pictures.isEmpty());
        const int height = pictures.front()->height, rowBytes = 3 * width, stride = RowStride(width);
        const QString stem = file.startsWith("sweep") ? file.left(file.lastIndexOf('.')) : file;
        const QByteArray reference = ReadFile(stem + ".rgb");
        ASSERT_EQ(reference.size(), int(pictures.size()) * rowBytes * height);
        for (int p = 0; p < pictures.size(); ++p) {
            const DecodedVideoFrame& picture = *pictures[p];
            ASSERT_EQ(std::tuple(picture.width, picture.height, picture.size, picture.isLinearColorSpace),
                      std::tuple(width, height, stride * height, linear));
            QByteArray ours, padding, expected = reference.mid(p * rowBytes * height, rowBytes * height);
            for (int y = 0; y < height; ++y) {
                ours.append(reinterpret_cast<const char*>(picture.data) + y * stride, rowBytes);
                padding.append(reinterpret_cast<const char*>(picture.data) + y * stride + rowBytes, stride - rowBytes);
            }
            for (char& byte : expected)
                byte = linear ? gamma[uint8_t(byte)] : byte;
            const int at = FirstDifference(ours, expected);
            ASSERT_EQ(at, -1) << "picture " << p << ", row " << at / rowBytes << ", byte " << at % rowBytes;
            ASSERT_EQ(padding.count('\0'), padding.size()) << "picture " << p;
        }
    }
}

TEST(AudioConverter, EverySampleArrivesAsInterleavedInt16UnderTheChannelCap)
{
    // A cap of 0, the value before the host sets one, means no cap. Where the
    // resampler refuses the layout (nine channels), the built-in converter
    // keeps the first channels and scales floats by 32767, truncating: a
    // value v / 32768 with v > 0 comes out as v - 1. File, channel cap,
    // channels delivered, ffmpeg's arguments for the same, scaled by 32767.
    const QStringList firstTwo = {"-af", "pan=stereo|c0=c0|c1=c1"};
    const std::tuple<const char*, int, int, QStringList, bool> rows[] = {
        {"float_stereo.wav", 0, 2, {}, false},
        {"six_channels.wav", 2, 2, {"-ac", "2"}, false},
        {"nine_float.wav", 2, 2, firstTwo, true},
        {"u8_stereo.wav", 0, 2, {}, false},
        {"six_channels.wav", 0, 6, {}, false},
        {"six_channels.wav", 8, 6, {}, false},
        {"six_channels.wav", 4, 4, {"-ac", "4"}, false},
        {"nine_s16.wav", 2, 2, firstTwo, false},
        {"format_change.mkv", 0, 2, {}, false},
    };
    // Under valgrind the first three: resampled, remixed, and converted by our own loop.
    for (int row = 0; row < (memcheck ? 3 : int(std::size(rows))); ++row) {
        const auto& [file, cap, channels, ffmpegArgs, scaledBy32767] = rows[row];
        SCOPED_TRACE(std::string(file) + " capped at " + std::to_string(cap));
        ChannelCap setting(cap);
        MediaInstance instance;
        const auto info = Probe(file);
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded decoded = DecodeAll(instance);
        ASSERT_EQ(instance.GetOutputChannelCount(), channels);
        const int rate = instance.GetSampleRate();
        QByteArray ours;
        int64_t position = 0;
        for (const auto& record : decoded.audio) {
            ASSERT_EQ(std::tuple(record->sampleCount, record->bufferSampleCount, record->sampleRate,
                                 record->continuityTag),
                      std::tuple(record->samplesPerChannel * channels, record->sampleCount, rate, -1));
            // Times follow the samples (Matroska keeps milliseconds); the end
            // is the last microsecond covered.
            EXPECT_NEAR(double(record->startTime), position * 1e6 / rate, 1000.0);
            EXPECT_NEAR(double(record->endTime), record->startTime + record->samplesPerChannel * 1e6 / rate - 1, 1.0);
            ours.append(reinterpret_cast<const char*>(record->samples), record->sampleCount * 2);
            position += record->samplesPerChannel;
        }
        QByteArray expected =
            RunFfmpeg(QStringList{"-i", MediaPath(file)} + ffmpegArgs + QStringList{"-f", "s16le", "-"});
        auto* values = reinterpret_cast<int16_t*>(expected.data());
        for (int i = 0; scaledBy32767 && i < expected.size() / 2; ++i)
            values[i] = int16_t(values[i] > 0 ? values[i] - 1 : values[i]);
        const int at = FirstDifference(ours, expected);
        EXPECT_EQ(at, -1) << "sample frame " << at / 2 / channels << ", channel " << at / 2 % channels << " of "
                          << ours.size() / 2 / channels << " against " << expected.size() / 2 / channels;
    }
}
