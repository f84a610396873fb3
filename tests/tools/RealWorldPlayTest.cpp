// molvane-play on clips like those users own (millisecond times at 29.97 fps,
// odd and wide picture sizes, cover art, transport streams, tagged colours,
// damaged packets), judged against what FFmpeg itself decodes from them: the
// picture each tick shows is the latest FFmpeg decodes at or before the tick,
// and the sound the device received is FFmpeg's decode of the source.

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdint>

using namespace molvane::test;

namespace {

// Longer than any of these clips can take, even under a sanitizer: past it
// the program hangs.
constexpr int kHangMillis = 60000;

QByteArray Ffprobe(const QStringList& args)
{
    QProcess process;
    process.start(QStringLiteral("ffprobe"), QStringList{"-v", "error"} + args);
    EXPECT_TRUE(process.waitForFinished(300000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput();
}

// Interleaved int16 samples of the first sound of a file as FFmpeg decodes them.
QByteArray Pcm(const QString& path)
{
    return RunFfmpeg({"-i", path, "-map", "0:a:0?", "-f", "s16le", "-"});
}

// Microseconds per tick of a stream's time base; 0 without the stream.
double MicrosPerTick(const QString& path, const char* stream)
{
    // A transport stream lists its streams once more under its program.
    const QByteArray base = Ffprobe({"-select_streams", stream, "-show_entries", "stream=time_base", "-of",
                                     "csv=p=0", path})
                                .split('\n')
                                .value(0);
    const QList<QByteArray> parts = base.split('/');
    return parts.size() == 2 ? parts[0].toDouble() / parts[1].toDouble() * 1000000.0 : 0.0;
}

// Start times of the pictures FFmpeg decodes from the first video stream,
// timed as the library times them: ticks × time base in µs, truncated,
// counted from the first picture (or from 0 when that lies before 0). Cover
// art has no time: it starts with the sound, at 0.
QList<qint64> PictureStarts(const QString& path)
{
    const double microsPerTick = MicrosPerTick(path, "v:0");
    QList<qint64> starts;
    double origin = -1.0;
    const QByteArray frames = Ffprobe(
        {"-select_streams", "v:0", "-show_entries", "frame=best_effort_timestamp", "-of", "csv=p=0", path});
    for (const QByteArray& line : frames.split('\n')) {
        // Key frames end in a comma and a blank line, where their side data goes.
        const QByteArray field = line.split(',').value(0);
        bool isNumber = false;
        const qint64 ts = field.toLongLong(&isNumber);
        if (field == "N/A" && starts.isEmpty())
            origin = 0.0, starts << 0;
        if (!isNumber)
            continue;
        if (origin < 0.0)
            origin = double(std::max<int64_t>(0, int64_t(double(ts) * microsPerTick)));
        starts << int64_t(double(ts) * microsPerTick - origin);
    }
    std::sort(starts.begin(), starts.end());
    return starts;
}

// The picture shown at t: the latest starting at or before it; -1 when none does.
qint64 Covering(const QList<qint64>& starts, qint64 t)
{
    const auto after = std::upper_bound(starts.begin(), starts.end(), t);
    return after == starts.begin() ? -1 : *(after - 1);
}

// Whether a buffer is the source from sample frame at, give or take slack
// frames. After a jump the decoders start afresh (AAC's noise substitution,
// Opus's state), which moves a sample by at most 1.
bool SoundNear(const QByteArray& buffer, const QByteArray& source, int64_t at, int slack, int channels)
{
    const auto* heard = reinterpret_cast<const int16_t*>(buffer.constData());
    const auto* from = reinterpret_cast<const int16_t*>(source.constData());
    const int64_t count = buffer.size() / 2, available = source.size() / 2;
    for (int64_t start = std::max<int64_t>(0, at - slack) * channels;
         start <= (at + slack) * channels && start + count <= available; start += channels) {
        int64_t i = 0;
        while (i < count && std::abs(heard[i] - from[start + i]) <= 1)
            ++i;
        if (i == count)
            return true;
    }
    return false;
}

struct Played {
    ProgramRun program;
    QList<QList<qint64>> ticks; // play_time_us, frame_start_us, late
    QByteArray heard;           // s16le of audio.wav
    int rate = 0, channels = 0;
};

Played Play(const QString& out, const QStringList& arguments)
{
    Played run;
    run.program = RunProgram(QStringLiteral(MOLVANE_PLAY_PATH), arguments + QStringList{"--out", out}, kHangMillis);
    if (run.program.exitCode != 0)
        return run;
    run.ticks = ReadCsv(out + "/ticks.csv");
    const QList<QByteArray> format = Ffprobe({"-show_entries", "stream=sample_rate,channels", "-of", "csv=p=0",
                                              out + "/audio.wav"})
                                         .trimmed()
                                         .split(',');
    run.rate = format.value(0).toInt();
    run.channels = format.value(1).toInt();
    run.heard = Pcm(out + "/audio.wav");
    return run;
}

} // namespace

TEST(RealWorldPlay, EachTickShowsFfmpegsPictureAndTheDeviceGetsFfmpegsSound)
{
    const struct {
        const char* file;
        int exitCode;
        const char* message; // on stderr, when the exit code is 1
        // Sample frames of FFmpeg's decode before the first picture, which
        // play from 0 does not reach; -1 without sound.
        int soundLead;
        // Milliseconds of FFmpeg's decode that play as they come; 0: all of
        // it. Past them the frames' times say otherwise, and the fill follows
        // the times.
        int soundMillis = 0;
    } rows[] = {
        // 29.97 fps in millisecond times: pictures start at 0, 33, 67, 100 ms...
        {"vp8_2997.webm", 0, "", 0},
        // Opus: the first frame (after the encoder's delay) ends at the
        // second packet's 14 ms; the first picture is at 7 ms.
        {"vp9_30.webm", 0, "", 312},
        // The first picture at 21 ms, the second AAC frame's time.
        {"hevc_2997.mkv", 0, "", 1024},
        {"h264_1080x720.mp4", 0, "", 0},
        // Fragments keep no edit list: the pictures start at 80 ms, and so
        // does the sound after its first (priming) frame at 0.
        {"h264_1080x720_frag.mp4", 0, "", 1024},
        {"hevc_aac_854x480.ts", 0, "", 1024}, // sound from 21.3 ms before the first picture
        {"av1_aom.mkv", 0, "", -1},
        {"vp9_161x121.webm", 0, "", -1},
        {"vp9_2pass.webm", 0, "", -1},
        // Cover art: the picture is shown all along, the sound is heard from its start.
        {"cover.flac", 0, "", 0},
        {"cover.mp3", 0, "", 0},
        {"tone_cover1400.mp3", 0, "", 0},
        {"cover.m4a", 0, "", 0},
        // 320x240, 480x360, 320x240. Each part's sound runs 8 ms into the
        // next one's times: past the first join a jump places sound by its
        // times, 8 ms from where it lies in the decode.
        {"ad_break.ts", 0, "", 481, 1000},
        {"undecodable.webm", 1, "could be decoded", -1},
        {"undecodable_with_sound.webm", 0, "", 0}, // the sound plays alone, from its start
        {"bt709_full.mp4", 0, "", 0},
        {"bt2020_10bit.mkv", 0, "", -1},
        // The container says 23 ms, the sound lasts 232 ms: all of it is heard.
        {"short_claim.ts", 0, "", 0},
    };
    const struct {
        const char* name;
        QStringList arguments;
    } modes[] = {{"forwards", {}}, {"backwards", {"--speed", "-1"}}, {"jumping", {"--seek-every", "0.2"}}};
    QTemporaryDir dir;
    for (const auto& row : rows) {
        const QString path = MediaPath(row.file);
        const QList<qint64> starts = PictureStarts(path);
        const QByteArray pcm = row.soundLead >= 0 ? Pcm(path) : QByteArray();
        int64_t tick = 0; // wall time of a tick, from the forward run
        for (const auto& mode : modes) {
            SCOPED_TRACE(std::string(row.file) + " " + mode.name);
            const Played run = Play(dir.path(), QStringList{path} + mode.arguments);
            EXPECT_EQ(run.program.exitCode, row.exitCode) << "-1: crashed or hung; " << run.program.err.toStdString();
            if (run.program.exitCode == -1)
                break; // the other modes would wait as long
            if (row.exitCode == 1) {
                EXPECT_TRUE(run.program.err.contains(row.message)) << run.program.err.toStdString();
                EXPECT_FALSE(run.program.err.trimmed().isEmpty());
            }
            if (run.program.exitCode != 0 || run.ticks.isEmpty())
                continue;
            // Every tick, and the end reached: forwards the last picture shows,
            // backwards it shows first.
            const auto wrong = std::find_if(run.ticks.begin(), run.ticks.end(), [&](const QList<qint64>& t) {
                return t.value(1) != Covering(starts, t.value(0)) || t.value(2) != 0;
            });
            EXPECT_TRUE(wrong == run.ticks.end())
                << "tick at " << wrong->value(0) << " shows " << wrong->value(1) << " (late " << wrong->value(2)
                << "), FFmpeg's picture starts at " << Covering(starts, wrong->value(0));
            if (!starts.isEmpty() && mode.arguments.isEmpty()) {
                EXPECT_EQ(run.ticks.last().value(1), starts.last());
            }
            if (!starts.isEmpty() && mode.arguments.value(1) == "-1") {
                EXPECT_EQ(run.ticks.first().value(1), starts.last());
            }

            const int frameBytes = 2 * std::max(1, run.channels);
            const QByteArray source =
                pcm.mid(std::max(0, row.soundLead) * frameBytes,
                        row.soundMillis > 0 ? int(int64_t(row.soundMillis) * run.rate / 1000 * frameBytes) : -1);
            if (row.soundLead < 0 || mode.arguments.value(1) == "-1") {
                // Without sound, or backwards: silence.
                EXPECT_EQ(run.heard.count('\0'), run.heard.size());
            } else if (mode.arguments.isEmpty()) {
                tick = run.ticks.size() > 1 ? run.ticks[1][0] - run.ticks[0][0] : 0;
                const int common = int(std::min(run.heard.size(), source.size()));
                EXPECT_GE(common, source.size() * 97 / 100) << "heard " << run.heard.size() / frameBytes
                                                             << " of " << source.size() / frameBytes << " frames";
                const int differs = int(std::mismatch(run.heard.begin(), run.heard.begin() + common, source.begin())
                                            .first -
                                        run.heard.begin());
                EXPECT_EQ(differs, common) << "first differing sample frame " << differs / frameBytes;
                if (row.soundMillis == 0) {
                    EXPECT_EQ(run.heard.mid(common).count('\0'), run.heard.size() - common); // then silence
                }
            } else if (tick > 0) {
                // Each tick's buffer is the source at the tick's play time,
                // placed as precisely as the container's times place sound.
                const int slack = int(MicrosPerTick(path, "a:0") / 2 * run.rate / 1000000) + 1;
                int jumpedTo = 0; // ticks checked after a jump
                for (int i = 0; i < run.ticks.size(); ++i) {
                    const int64_t from = i * tick * run.rate / 1000000, to = (i + 1) * tick * run.rate / 1000000;
                    const int64_t at = run.ticks[i][0] * run.rate / 1000000;
                    if ((at + to - from + slack) * frameBytes > source.size())
                        continue; // past the end of the sound
                    if (!SoundNear(run.heard.mid(int(from * frameBytes), int((to - from) * frameBytes)), source,
                                   at, slack, run.channels)) {
                        ADD_FAILURE() << "the sound of tick " << i << " at " << run.ticks[i][0] << " is not the source's";
                        break;
                    }
                    jumpedTo += run.ticks[i][0] != i * tick ? 1 : 0;
                }
                EXPECT_GT(jumpedTo, 0);
            }
        }
    }
}
