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

// Interleaved int16 samples of a file as the ffmpeg program decodes them.
QByteArray Pcm(const QString& path)
{
    return RunFfmpeg({"-i", path, "-map", "0:a:0", "-f", "s16le", "-"});
}

} // namespace

TEST(PlayTool, EveryTickShowsThePictureThatCoversItsPlayTime)
{
    // Clips of 25 fps: the picture covering t starts at t rounded down to 40 ms,
    // up to the last picture, which lasts to the end.
    const struct {
        const char* file;
        QStringList arguments;
        qint64 lastStart;
        int minTicks;
        int seeksMadeAgain = -1; // -1: as many as the container needs
    } cases[] = {
        {"h264_aac.mp4", {}, 1960000, 50},
        {"h264_aac.mp4", {"--speed", "2"}, 1960000, 25},
        // The pictures of the final drain wait for room in a full cache.
        {"h264_aac.mp4", {"--start", "0.7", "--cache-mb", "1"}, 1960000, 32},
        {"h264_aac.mp4", {"--speed", "-1"}, 1960000, 49},
        {"h264_aac.mp4", {"--start", "1.9"}, 1960000, 2},
        // Closed GOPs in MP4: every jump lands before its target the first time.
        {"h264_aac.mp4", {"--seek-every", "0.2"}, 1960000, 50, 0},
        {"vp9.webm", {"--speed", "-1", "--cache-mb", "1"}, 2960000, 74},
        {"hevc_open_gop.mp4", {"--seek-every", "0.2"}, 2960000, 75},
        {"h264_open_gop.mp4", {"--seek-every", "0.2"}, 2960000, 75},
        {"still.png", {"--image", "--duration", "1"}, 0, 25},
        {"hevc_open_gop.mkv", {"--speed", "-1", "--seek-every", "0.1"}, 2960000, 74},
        {"mpeg1.mpg", {"--seek-every", "0.3"}, 1960000, 50},
        {"late_start.ts", {"--seek-every", "0.2"}, 1960000, 50},
        {"negative_start_gop10.ts", {"--seek-every", "0.2"}, 2880000, 75},
        // No duration in the file: it plays until its end is found.
        {"open_ended.mkv", {}, 1960000, 50},
    };
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE((c.file + (" " + c.arguments.join(' '))).toStdString());
        const Outputs run = Play(dir.path(), QStringList{MediaPath(c.file)} + c.arguments);
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        ASSERT_GE(run.ticks.size(), c.minTicks);
        for (const auto& tick : run.ticks) {
            const qint64 expected = std::min(tick[0] / 40000 * 40000, c.lastStart);
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
    // A jump into the last audio frame: it is heard to the source's end.
    ASSERT_EQ(Play(dir.path(), {MediaPath("s16_stereo.wav"), "--start", "1.494"}).exitCode, 0);
    EXPECT_TRUE(Pcm(dir.filePath("audio.wav")).contains(Pcm(MediaPath("s16_stereo.wav")).right(100 * 4)));
}

TEST(PlayTool, AFileThatCannotBePlayedEndsWithTheLibrarysMessage)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath("missing.mp4");
    const Outputs run = Play(dir.filePath("out"), {missing});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains("File not found: " + missing)) << run.err.toStdString();
}
