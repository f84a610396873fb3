// What probing finds in every kind of test file, and how it fails.

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include "support/DecodeSummary.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/samplefmt.h>
}

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <map>

using namespace molvane::test;

namespace {

// The record as a host reads it: container duration, then one entry per stream.
QString Describe(const MediaInfo& info)
{
    QStringList parts{QString::number(info.duration)};
    for (const VideoStream& s : info.GetVideoStreams()) {
        const QString rotate = s.metadata.value(QStringLiteral("rotate"));
        parts << (s.isValid ? QStringLiteral("v%1 %2 %3x%4 sar%5 %6fps %7us %8f @%9%10")
                                  .arg(s.index).arg(s.codecName).arg(s.width).arg(s.height)
                                  .arg(double(s.pixelAspectRatio)).arg(s.frameRate).arg(s.frameStep)
                                  .arg(s.numFrames).arg(s.startTime).arg(rotate.isEmpty() ? "" : " rotate" + rotate)
                            : QStringLiteral("v%1 invalid").arg(s.index));
    }
    for (const AudioStream& s : info.GetAudioStreams()) {
        parts << (s.isValid ? QStringLiteral("a%1 %2 %3ch 0x%4 %5Hz %6 %7 %8B")
                                  .arg(s.index).arg(s.codecName).arg(s.channelCount).arg(s.channelLayout, 0, 16)
                                  .arg(s.sampleRate).arg(av_get_sample_fmt_name(AVSampleFormat(s.sampleFormat)))
                                  .arg(s.isPlanar ? "planar" : "packed").arg(s.bytesPerSample)
                            : QStringLiteral("a%1 invalid").arg(s.index));
    }
    return parts.join(QStringLiteral("; "));
}

} // namespace

TEST(MediaReader, ProbesEveryTestFileToWhatItsRecipeMade)
{
    const QString mp2 = QStringLiteral("a1 mp2 2ch 0x3 48000Hz s16p planar 2B");
    const QString h264 = QStringLiteral("v0 h264 320x240 sar1 25fps 40000us ");
    const struct Case {
        const char* name;
        bool isImage;
        QString record;
        QStringList log = {};
        // Made here instead: a copy whose H.264 and PCM codec ids no decoder
        // knows ("unknown"), or what the ffmpeg program makes with these arguments.
        QStringList made = {};
    } cases[] = {
        {"h264_aac.mp4", false, "2000000; " + h264 + "50f @0; a1 aac 2ch 0x3 48000Hz fltp planar 4B"},
        {"mpeg4.mp4", false, "2000000; v0 mpeg4 320x240 sar1 25fps 40000us 50f @0"},
        // A duration with a remainder rounds the count up; the program
        // stream's preload puts the first picture at 0.54 s.
        {"mpeg1.mpg", false, "2016000; v0 mpeg1video 320x240 sar1 25fps 40000us 51f @540000; " + mp2},
        {"late_start.ts", false, "2016000; " + h264 + "51f @10000000; " + mp2},
        {"negative_start.ts", false, "2000000; " + h264 + "50f @0",
         {"INFO: Video stream (0) start time is less than 0. Skipping negative frames: negative_start.ts (-80000)"}},
        {"multi_stream.mkv", false,
         "2000000; " + h264 + "50f @0; v1 mpeg4 160x120 sar1 25fps 40000us 50f @0; "
                              "a2 pcm_s16le 2ch 0x3 48000Hz s16 packed 2B"},
        // The other streams are still probed; the broken ones keep default records.
        {"multi_stream.mkv", false, "2000000; v-1 invalid; v1 mpeg4 160x120 sar1 25fps 40000us 50f @0; a-1 invalid",
         {"Video decoder not found.", "Audio decoder not found."}, {"unknown"}},
        // 2,002,000 µs in 33,366 µs steps makes 61 frames; the declared 60 is one off and wins.
        {"ntsc.mp4", false, "2002000; v0 h264 320x240 sar1 29.97fps 33366us 60f @0"},
        // Nine pictures in 0.4 s at 25 fps, the sixth left out: the average
        // rate, not the stream's real 25, and the declared count.
        {"gap.mp4", false, "400000; v0 mpeg4 64x48 sar1 22.5fps 44444us 9f @0", {},
         {"-f", "lavfi", "-i", "testsrc2=s=64x48:r=25,trim=end_frame=10,select='not(eq(n\\,5))'", "-c:v", "mpeg4",
          "-fps_mode", "passthrough"}},
        {"anamorphic.mp4", false, "1000000; v0 h264 720x576 sar1.42222 25fps 40000us 25f @0"},
        {"rotated_90.mp4", false, "1000000; " + h264 + "25f @0 rotate90"},
        {"s16_stereo.wav", false, "1500000; a0 pcm_s16le 2ch 0x3 48000Hz s16 packed 2B"},
        {"u8_stereo.wav", false, "1000000; a0 pcm_u8 2ch 0x3 22050Hz u8 packed 1B"},
        {"float_stereo.wav", false, "1000000; a0 pcm_f32le 2ch 0x3 44100Hz flt packed 4B"},
        {"six_channels.wav", false, "1000000; a0 pcm_s16le 6ch 0x3f 48000Hz s16 packed 2B"},
        {"quad.wav", false, "100000; a0 pcm_s16le 4ch 0x33 48000Hz s16 packed 2B"},
        // No duration: the frame timing keeps its defaults.
        {"no_packets.mp4", false, "-1; v0 h264 320x240 sar1 0fps 0us 0f @0"},
        // Images get no timeline and are not decoded: a late start stays unseen.
        {"still.png", true, "-1; v0 png 320x240 sar1 -1fps -1us 1f @0"},
        {"late_start.ts", true, "-1; v0 h264 320x240 sar1 -1fps -1us 1f @0; " + mp2},
        // Its two pictures come out only when the end of the file drains the decoder.
        {"tagged.mkv", false,
         "1080000; v0 h264 160x120 sar1 25fps 40000us 27f @1000000; a1 pcm_s16le 1ch 0x4 48000Hz s16 packed 2B"},
        // Stream 1's only picture lies just past the 250 packets the start-time probe reads.
        {"probe_window.mkv", false,
         "2592000; v0 mjpeg 64x48 sar1 25fps 40000us 65f @2480000; v1 mjpeg 64x48 sar1 25fps 40000us 65f @0; "
         "a2 pcm_s16le 1ch 0x4 8000Hz s16 packed 2B"},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.isImage ? " as image" : "") + (c.made.isEmpty() ? "" : " made here"));
        QString path = MediaPath(QString::fromLatin1(c.name));
        if (c.made == QStringList{"unknown"}) {
            // Same-length ids keep the file valid; the folder's name checks
            // that paths reach FFmpeg as UTF-8.
            path = WriteFile(dir.filePath(QStringLiteral("Fête 日本 ✓/unknown codecs.mkv")),
                             ReadFile(path).replace("V_MPEG4/ISO/AVC", "V_QQQQQQQQQQQQQ")
                                 .replace("A_PCM/INT/LIT", "A_QQQQQQQQQQQ"));
        } else if (!c.made.isEmpty()) {
            RunFfmpeg(c.made + QStringList(path = dir.filePath(c.name)));
        }
        auto info = std::make_shared<MediaInfo>(path);
        info->isImage = c.isImage;
        info->metadata.insert(QStringLiteral("host"), QStringLiteral("kept"));
        LogCapture log;
        // Probing the same record again replaces its streams.
        for (int pass = 0; pass < 2; ++pass)
            ASSERT_TRUE(MediaReader::ParseMedia(info));
        EXPECT_EQ(Describe(*info), c.record);
        EXPECT_TRUE(info->IsInitialized() && info->GetDuration() == info->duration);
        EXPECT_EQ(info->metadata.value(QStringLiteral("host")), QStringLiteral("kept"));
        EXPECT_EQ(log.Messages(), c.log + c.log);
        for (int i = 0; i < log.Types().size(); ++i)
            EXPECT_EQ(log.Types()[i], log.Messages()[i].startsWith("INFO:") ? QtInfoMsg : QtCriticalMsg);
    }
    // Container and stream tags reach the record.
    auto info = Probe(QStringLiteral("tagged.mkv"));
    EXPECT_EQ(QStringList({info->metadata.value("title"), info->GetVideoStreams()[0].metadata.value("language"),
                           info->GetAudioStreams()[0].metadata.value("title")}),
              QStringList({"Fête d'été", "fra", "Commentary"}));
}

TEST(MediaReader, UnreadableSourceFailsWithOneMessageAndLeavesAnEmptyRecord)
{
    const QString invalid = QStringLiteral("Failed to open input for parsing: %1 (code -1094995529: Invalid data "
                                           "found when processing input)");
    const QByteArray movie = ReadFile(QStringLiteral("h264_aac.mp4"));
    const struct {
        const char* name;
        QByteArray bytes; // written as a file unless null; a name ending in / is made a folder
        QString message;
    } cases[] = {
        {"Fête 日本/not there.mp4", QByteArray(), QStringLiteral("File not found: %1")},
        {"empty.mp4", QByteArray(""), invalid},
        {"garbage.mkv", QByteArray(4096, 'G'), invalid},
        {"first half.mp4", movie.left(movie.size() / 2), invalid}, // its index was at the end
        {"a folder.mp4/", QByteArray(),
         QStringLiteral("Failed to open input for parsing: %1 (code -21: Is a directory)")},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString path = QDir::cleanPath(dir.filePath(QString::fromUtf8(c.name)));
        if (!c.bytes.isNull())
            WriteFile(path, c.bytes);
        if (QByteArray(c.name).endsWith('/'))
            QDir().mkpath(path);
        // A record probed before, pointed at the source by a relative path:
        // the message names the absolute one.
        auto info = Probe(QStringLiteral("h264_aac.mp4"));
        info->filePath = QDir::current().relativeFilePath(path);
        LogCapture log;
        EXPECT_FALSE(MediaReader::ParseMedia(info));
        EXPECT_FALSE(info->IsInitialized() || info->GetNumVideoStreams() + info->GetNumAudioStreams() > 0);
        EXPECT_EQ(log.Messages(), QStringList{c.message.arg(path)});
    }
}

TEST(MediaReader, ReadsEveryPacketThenLeavesABlankOne)
{
    auto info = std::make_shared<MediaInfo>(MediaPath(QStringLiteral("multi_stream.mkv")));
    AVFormatContext* context = nullptr;
    EXPECT_FALSE(MediaReader::OpenInput(nullptr, &context) || MediaReader::OpenInput(info, nullptr));
    ASSERT_TRUE(MediaReader::OpenInput(info, &context));
    EXPECT_FALSE(MediaReader::GetPacket(context, nullptr));
    AVPacket* packet = av_packet_alloc();
    std::map<int, int> packets;
    for (; MediaReader::GetPacket(context, packet); av_packet_unref(packet))
        ++packets[packet->stream_index];
    EXPECT_TRUE(packet->data == nullptr && packet->size == 0 && packet->stream_index == -1);
    // 50 pictures in each video stream, 96,000 samples in 1024-sample packets, 4 cues.
    EXPECT_EQ(packets, (std::map<int, int>{{0, 50}, {1, 50}, {2, 94}, {3, 4}}));
    av_packet_free(&packet);
    MediaReader::CloseInput(&context);
    EXPECT_EQ(context, nullptr);
}
