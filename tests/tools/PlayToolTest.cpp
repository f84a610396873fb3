// molvane-play as a user runs it, judged by its outputs: every display tick
// shows the picture that covers its play time, whatever the speed, direction,
// start or jumps; the sound the device received is the source's own decode;
// the video cache stays within its budget.

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <iterator>

using namespace molvane::test;

namespace {

struct Outputs {
    int exitCode = -1;
    QString err;
    QJsonObject summary;
    QList<QList<qint64>> ticks; // play_time_us, frame_start_us, late
};

Outputs Play(const QString& out, const QStringList& arguments)
{
    const ProgramRun program = RunProgram(QStringLiteral(MOLVANE_PLAY_PATH), arguments + QStringList{"--out", out});
    Outputs run{program.exitCode, program.err, QJsonDocument::fromJson(program.out).object(), {}};
    if (run.exitCode == 0) {
        QByteArray header;
        run.ticks = ReadCsv(out + "/ticks.csv", &header);
        EXPECT_EQ(header, QByteArray("play_time_us,frame_start_us,late\n"));
    }
    return run;
}

// Start of every picture of a file's first video stream as the ffmpeg
// program times it, the way the library does: the timestamp in µs less the
// first picture's (or less nothing, when that is negative), truncated, and
// no earlier than 0. Sorted.
QList<qint64> FrameStarts(const QString& path)
{
    const ProgramRun probe = RunProgram("ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                                    "stream=time_base:frame=best_effort_timestamp", "-of",
                                                    "default=noprint_wrappers=1", path});
    EXPECT_EQ(probe.exitCode, 0) << probe.err.toStdString();
    double microsPerTick = 0.0;
    QList<qint64> stamps;
    for (const QByteArray& line : probe.out.split('\n')) {
        const QList<QByteArray> field = line.trimmed().split('=');
        if (field.value(0) == "time_base") {
            const QList<QByteArray> fraction = field.value(1).split('/');
            microsPerTick = fraction.value(0).toDouble() / fraction.value(1).toDouble() * 1000000.0;
        } else if (field.value(0) == "best_effort_timestamp" && field.value(1) != "N/A") {
            stamps << field.value(1).toLongLong();
        }
    }
    std::sort(stamps.begin(), stamps.end());
    QList<qint64> starts;
    const qint64 first = stamps.isEmpty() ? 0 : std::max<qint64>(0, qint64(double(stamps[0]) * microsPerTick));
    for (const qint64 stamp : stamps)
        starts << std::max<qint64>(0, qint64(double(stamp) * microsPerTick - double(first)));
    return starts;
}

// Interleaved int16 samples of a file as the ffmpeg program decodes them.
QByteArray Pcm(const QString& path)
{
    return RunFfmpeg({"-i", path, "-map", "0:a:0", "-f", "s16le", "-"});
}

} // namespace

TEST(PlayTool, EveryTickShowsThePictureThatCoversItsPlayTime)
{
    // The picture covering t is the last to start at or before t, as the
    // ffmpeg program times them; the last picture lasts to the end.
    const struct {
        const char* file;
        QStringList arguments;
        int minTicks;
        int seeksMadeAgain = -1; // -1: as many as the container needs
    } cases[] = {
        {"h264_aac.mp4", {}, 50},
        {"h264_aac.mp4", {"--speed", "2"}, 25},
        // The pictures of the final drain wait for room in a full cache.
        {"h264_aac.mp4", {"--start", "0.7", "--cache-mb", "1"}, 32},
        {"h264_aac.mp4", {"--speed", "-1"}, 49},
        {"h264_aac.mp4", {"--start", "1.9"}, 2},
        // Closed GOPs in MP4: every jump lands before its target the first time.
        {"h264_aac.mp4", {"--seek-every", "0.2"}, 50, 0},
        {"vp9.webm", {"--speed", "-1", "--cache-mb", "1"}, 74},
        {"hevc_open_gop.mp4", {"--seek-every", "0.2"}, 75},
        {"h264_open_gop.mp4", {"--seek-every", "0.2"}, 75},
        {"still.png", {"--image", "--duration", "1"}, 25},
        {"hevc_open_gop.mkv", {"--speed", "-1", "--seek-every", "0.1"}, 74},
        {"mpeg1.mpg", {"--seek-every", "0.3"}, 50},
        {"late_start.ts", {"--seek-every", "0.2"}, 50},
        {"negative_start_gop10.ts", {"--seek-every", "0.2"}, 75},
        // No duration in the file: it plays until its end is found.
        {"open_ended.mkv", {}, 50},
        // Pictures 33 or 34 ms long against a step of 33.3 or 33.4 ms: the
        // newest picture ends only where the next one starts.
        {"vp9_30fps.webm", {}, 60},
        {"vp9_30fps.webm", {"--speed", "-1"}, 60},
        {"vp9_30fps.webm", {"--seek-every", "0.2"}, 60},
        {"vp8_ntsc.webm", {}, 60},
        {"vp8_ntsc.webm", {"--speed", "-1", "--cache-mb", "1"}, 60},
        {"vp8_ntsc.webm", {"--seek-every", "0.2"}, 60},
        {"hevc_ntsc.mkv", {}, 60},
        {"hevc_ntsc.mkv", {"--speed", "-1"}, 60},
        {"hevc_ntsc.mkv", {"--speed", "-1", "--seek-every", "0.1"}, 60},
        // The picture size changes twice; the larger one splits the budget again.
        {"ad_break.ts", {}, 75},
        {"ad_break.ts", {"--speed", "-1"}, 75},
        {"ad_break.ts", {"--seek-every", "0.2"}, 75},
        {"ad_break.ts", {"--speed", "-1", "--seek-every", "0.1", "--cache-mb", "1"}, 75},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE((c.file + (" " + c.arguments.join(' '))).toStdString());
        const QList<qint64> starts = FrameStarts(MediaPath(c.file));
        ASSERT_FALSE(starts.isEmpty());
        const Outputs run = Play(dir.path(), QStringList{MediaPath(c.file)} + c.arguments);
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        ASSERT_GE(run.ticks.size(), c.minTicks);
        for (const auto& tick : run.ticks) {
            const qint64 expected = *std::prev(std::upper_bound(starts.begin(), starts.end(), tick[0]));
            ASSERT_EQ(tick[1], expected) << "tick at " << tick[0];
            ASSERT_EQ(tick[2], 0);
        }
        EXPECT_EQ(run.summary["ticks"].toInt(), run.ticks.size());
        EXPECT_EQ(run.summary["late_ticks"].toInt(), 0);
        EXPECT_GT(run.summary["decode_speed_x_realtime"].toDouble(), 0.0);
        if (c.seeksMadeAgain >= 0) {
            EXPECT_EQ(run.summary["seeks_made_again"].toInt(), c.seeksMadeAgain);
        }
        // Never more than one picture over the budget.
        EXPECT_LE(run.summary["peak_video_cache_bytes"].toDouble(),
                  run.summary["video_cache_budget_bytes"].toDouble() + run.summary["largest_frame_bytes"].toDouble());
    }
}

TEST(PlayTool, TheDeviceReceivesTheSourcesOwnSoundSampleForSample)
{
    QTemporaryDir dir;
    const struct {
        const char* file;
        int driftCorrections;
    } cases[] = {
        {"tone.mp3", 0}, // its first frame comes out short
        {"s16_stereo.wav", 0},
        {"h264_aac.mp4", 0},
        {"multi_stream.mkv", 0},
        {"short_video.mkv", 0}, // sound lasting longer than the pictures
        {"audio_jump.mkv", 1},  // the fill repeats samples where the times jump
        {"undecodable_with_sound.webm", 0}, // no picture: the sound plays alone
    };
    for (const auto& [file, driftCorrections] : cases) {
        SCOPED_TRACE(file);
        const Outputs run = Play(dir.path(), {MediaPath(file)});
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        EXPECT_EQ(run.summary["drift_corrections"].toInt(), driftCorrections);
        EXPECT_EQ(run.summary["silent_audio_buffers"].toInt(), 0);
        if (driftCorrections > 0)
            continue;
        const QByteArray heard = Pcm(dir.filePath("audio.wav")), source = Pcm(MediaPath(file));
        const int common = int(std::min(heard.size(), source.size()));
        EXPECT_GE(common, source.size() * 97 / 100);
        EXPECT_TRUE(heard.left(common) == source.left(common));
        // Past the end of the source only silence.
        EXPECT_EQ(heard.mid(common).count('\0'), heard.size() - common);
        if (QByteArray(file) != "tone.mp3")
            continue;
        // Without pictures, frames.png is the waveform: the tone leaves the
        // first lane's zero line in every pixel column of its length.
        const QImage waveform(dir.filePath("frames.png"));
        ASSERT_FALSE(waveform.isNull());
        const int zero = waveform.height() / 2 / 2; // two channels
        const auto drawn = [&](int x, int y) { return qGreen(waveform.pixel(x, y)) > 150; };
        for (int x = 0; x < int(int64_t(waveform.width()) * common / heard.size()); ++x) {
            ASSERT_TRUE(drawn(x, zero - 1) || drawn(x, zero + 1)) << "column " << x;
        }
    }
    // Jumps near the end of sound alone: decoding reaches the end of the
    // input without a picture, which is no sign of a seek landing late.
    const struct {
        const char* file;
        const char* start;
        int seeksMadeAgain;
    } jumps[] = {
        {"s16_stereo.wav", "1.494", 0}, // into the last audio frame
        {"tone.mp3", "1.9", 0},
        // Before it plays as sound, the search for a picture backs off
        // twice, to the start.
        {"undecodable_with_sound.webm", "1.9", 2},
    };
    for (const auto& [file, start, seeksMadeAgain] : jumps) {
        SCOPED_TRACE(std::string(file) + " from " + start);
        const Outputs run = Play(dir.path(), {MediaPath(file), "--start", start});
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        EXPECT_EQ(run.summary["seeks_made_again"].toInt(), seeksMadeAgain);
        // Heard to the source's end.
        EXPECT_TRUE(Pcm(dir.filePath("audio.wav")).contains(Pcm(MediaPath(file)).right(100 * 4)));
    }
}

TEST(PlayTool, AFileThatCannotBePlayedEndsWithAMessage)
{
    QTemporaryDir dir;
    const struct {
        QString file;
        QString message;
    } cases[] = {
        {dir.filePath("missing.mp4"), "File not found: " + dir.filePath("missing.mp4")},
        // Every picture fails to decode: the end comes, not an endless wait.
        {MediaPath("undecodable.webm"), "no picture of " + MediaPath("undecodable.webm") + " could be decoded"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file.toStdString());
        for (const QStringList& arguments : {QStringList{}, QStringList{"--speed", "-1"}}) {
            const Outputs run = Play(dir.filePath("out"), QStringList{c.file} + arguments);
            EXPECT_EQ(run.exitCode, 1);
            EXPECT_TRUE(run.err.contains(c.message)) << run.err.toStdString();
        }
    }
}
