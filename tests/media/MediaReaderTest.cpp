// What probing finds in every kind of test file, and how it fails.

#include <MolvaneAV/MediaReader.h>

#include "support/DecodeSummary.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <QTemporaryDir>

using namespace molvane::test;

namespace {

// The record as a host reads it: container duration ("unprobed" when it is
// not initialized), then one entry per stream.
QString Describe(const MediaInfo& info)
{
    QStringList parts{info.IsInitialized() ? QString::number(info.duration) : QStringLiteral("unprobed")};
    for (const VideoStream& s : info.GetVideoStreams()) {
        parts << (s.isValid ? QStringLiteral("v%1 %2 %3x%4 sar%5 %6fps %7us %8f @%9")
                                  .arg(s.index).arg(s.codecName).arg(s.width).arg(s.height)
                                  .arg(double(s.pixelAspectRatio)).arg(s.frameRate).arg(s.frameStep)
                                  .arg(s.numFrames).arg(s.startTime)
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

TEST(MediaReader, ProbesEveryFileToWhatItsRecipeMadeOrFailsWithOneMessage)
{
    // Made here, in a folder whose name checks that paths reach FFmpeg as
    // UTF-8: a copy whose H.264 and PCM codec ids no decoder knows (renamed
    // at the same length, so the file stays valid); nine pictures in 0.4 s
    // at 25 fps, the sixth left out; one picture; 0.4 s of pictures with 1 s
    // of sound; sources that cannot be read.
    QTemporaryDir dir;
    const QString made = dir.filePath(QStringLiteral("Fête 日本 ✓/"));
    WriteFile(made + "unknown.mkv", ReadFile("multi_stream.mkv")
                                        .replace("V_MPEG4/ISO/AVC", "V_QQQQQQQQQQQQQ")
                                        .replace("A_PCM/INT/LIT", "A_QQQQQQQQQQQ"));
    RunFfmpeg({"-f", "lavfi", "-i", "testsrc2=s=64x48:r=25,trim=end_frame=10,select='not(eq(n\\,5))'", "-c:v",
               "mpeg4", "-fps_mode", "passthrough", made + "gap.mp4"});
    RunFfmpeg({"-f", "lavfi", "-i", "testsrc2=s=64x48:r=25:d=0.4", "-f", "lavfi", "-i", "sine=d=1", "-c:v", "mpeg4",
               made + "short_picture.mp4", "-map", "0", "-frames:v", "1", "-c:v", "mpeg4", made + "one_picture.mkv"});
    WriteFile(made + "garbage.mkv", QByteArray(4096, 'G'));
    QDir().mkpath(made + "a folder.mp4");
    const QString mp2 = "a1 mp2 2ch 0x3 48000Hz s16p planar 2B", h264 = "v0 h264 320x240 sar1 25fps 40000us ";
    const QString unreadable = "unprobed [critical] Failed to open input for parsing: <file> (code ";
    // File, probed as an image, the record and what was logged ("<file>" for its absolute path).
    const std::tuple<const char*, bool, QString> rows[] = {
        {"h264_aac.mp4", false, "2000000; " + h264 + "50f @0; a1 aac 2ch 0x3 48000Hz fltp planar 4B"},
        // A duration with a remainder rounds the count up; the program
        // stream's preload puts the first picture at 0.54 s.
        {"mpeg1.mpg", false, "2016000; v0 mpeg1video 320x240 sar1 25fps 40000us 51f @540000; " + mp2},
        {"late_start.ts", false, "2016000; " + h264 + "51f @10000000; " + mp2},
        {"negative_start.ts", false,
         "2000000; " + h264 + "50f @0 [info] INFO: Video stream (0) start time is less than 0. Skipping negative "
                              "frames: negative_start.ts (-80000)"},
        {"multi_stream.mkv", false,
         "2000000; " + h264 + "50f @0; v1 mpeg4 160x120 sar1 25fps 40000us 50f @0; "
                              "a2 pcm_s16le 2ch 0x3 48000Hz s16 packed 2B"},
        // The other streams are still probed; the broken ones keep default records.
        {"unknown.mkv", false,
         "2000000; v-1 invalid; v1 mpeg4 160x120 sar1 25fps 40000us 50f @0; a-1 invalid [critical] Video decoder "
         "not found. [critical] Audio decoder not found."},
        // 2,002,000 µs in 33,366 µs steps makes 61 frames; the declared 60 is one off and wins.
        {"ntsc.mp4", false, "2002000; v0 h264 320x240 sar1 29.97fps 33366us 60f @0"},
        // The average rate, not the stream's real 25, and the declared count.
        {"gap.mp4", false, "400000; v0 mpeg4 64x48 sar1 22.5fps 44444us 9f @0"},
        // Counted from the duration: a count it does not declare (Matroska
        // declares none), one far from it (the sound lasts longer).
        {"one_picture.mkv", false, "40000; v0 mpeg4 64x48 sar1 25fps 40000us 1f @0"},
        {"short_picture.mp4", false,
         "1000000; v0 mpeg4 64x48 sar1 25fps 40000us 25f @0; a1 aac 1ch 0x4 44100Hz fltp planar 4B"},
        {"not there.mp4", false, "unprobed [critical] File not found: <file>"},
        {"u8_stereo.wav", false, "1000000; a0 pcm_u8 2ch 0x3 22050Hz u8 packed 1B"},
        {"garbage.mkv", false, unreadable + "-1094995529: Invalid data found when processing input)"},
        {"a folder.mp4", false, unreadable + "-21: Is a directory)"},
        // No duration: the frame timing keeps its defaults.
        {"no_packets.mp4", false, "-1; v0 h264 320x240 sar1 0fps 0us 0f @0"},
        // Images get no timeline and are not decoded: a late start stays unseen.
        {"late_start.ts", true, "-1; v0 h264 320x240 sar1 -1fps -1us 1f @0; " + mp2},
        // Stream 1's only picture lies just past the 250 packets the start-time probe reads.
        {"probe_window.mkv", false,
         "2592000; v0 mjpeg 64x48 sar1 25fps 40000us 65f @2480000; v1 mjpeg 64x48 sar1 25fps 40000us 65f @0; "
         "a2 pcm_s16le 1ch 0x4 8000Hz s16 packed 2B"},
    };
    // One record, re-probed as a host may: each probe replaces the streams
    // of the last and a failure leaves none; the host's entries stay. It
    // points at the source by a relative path, the messages by the absolute.
    auto info = std::make_shared<MediaInfo>(QString());
    info->metadata.insert(QStringLiteral("host"), QStringLiteral("kept"));
    for (const auto& [name, isImage, record] : rows) {
        SCOPED_TRACE(std::string(name) + (isImage ? " as image" : ""));
        const QString path = QFileInfo::exists(MediaPath(name)) ? MediaPath(name) : made + name;
        info->filePath = QDir::current().relativeFilePath(path);
        info->isImage = isImage;
        LogCapture log;
        const bool parsed = MediaReader::ParseMedia(info);
        EXPECT_EQ(parsed, info->IsInitialized());
        QString outcome = Describe(*info);
        for (int i = 0; i < log.Messages().size(); ++i)
            outcome += QString(" [%1] %2").arg(log.Types()[i] == QtInfoMsg ? "info" : "critical", log.Messages()[i]);
        EXPECT_EQ(outcome.replace(path, "<file>"), record) << outcome.toStdString();
        EXPECT_EQ(info->metadata.value(QStringLiteral("host")), QStringLiteral("kept"));
    }
}
