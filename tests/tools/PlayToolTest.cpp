// molvane-play as a user runs it, on clips like those users own, judged
// against what FFmpeg itself decodes from them: every display tick shows the
// latest picture FFmpeg decodes at or before the tick's play time, whatever
// the speed, direction, start or jumps; the sound the device received is
// FFmpeg's decode of the source; the video cache stays within its budget.

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>

using namespace molvane::test;

namespace {

// Longer than any of these clips can take, even under a sanitizer: past it
// the program hangs.
constexpr int kHangMillis = 60000;
// Sound expectations: none to hear (silence), or not judged.
constexpr int kSilence = -1, kUnjudged = -2;

QByteArray Ffprobe(const QString& path, const char* stream, const char* entries)
{
    const ProgramRun run = RunProgram("ffprobe", {"-v", "error", "-select_streams", stream, "-show_entries",
                                                  entries, "-of", "csv=p=0", path});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    return run.out;
}

// Microseconds per tick of a stream's time base; 0 without the stream. A
// transport stream lists its streams once more under its program.
double MicrosPerTick(const QString& path, const char* stream)
{
    const QList<QByteArray> parts = Ffprobe(path, stream, "stream=time_base").split('\n').value(0).split('/');
    return parts.size() == 2 ? parts[0].toDouble() / parts[1].toDouble() * 1000000.0 : 0.0;
}

// Start times of the pictures FFmpeg decodes from the first video stream,
// timed as the library times them: ticks × time base in µs, truncated,
// counted from the first picture (or from 0 when that lies before 0), never
// before 0. Cover art has no time: it starts with the sound, at 0. Sorted.
QList<qint64> PictureStarts(const QString& path)
{
    const double microsPerTick = MicrosPerTick(path, "v:0");
    QList<double> stamps;
    bool untimed = false;
    // Key frames end in a comma and a blank line, where their side data goes.
    for (const QByteArray& line : Ffprobe(path, "v:0", "frame=best_effort_timestamp").split('\n')) {
        const QByteArray field = line.split(',').value(0);
        bool isNumber = false;
        const qint64 ts = field.toLongLong(&isNumber);
        untimed = untimed || field == "N/A";
        if (isNumber)
            stamps << double(ts) * microsPerTick;
    }
    std::sort(stamps.begin(), stamps.end());
    QList<qint64> starts;
    if (untimed && stamps.isEmpty())
        starts << 0;
    const double origin = stamps.isEmpty() ? 0.0 : std::max(0.0, double(int64_t(stamps[0])));
    for (const double stamp : stamps)
        starts << std::max<int64_t>(0, int64_t(stamp - origin));
    return starts;
}

// The picture shown at t: the latest starting at or before it; -1 when none does.
qint64 Covering(const QList<qint64>& starts, qint64 t)
{
    const auto after = std::upper_bound(starts.begin(), starts.end(), t);
    return after == starts.begin() ? -1 : *(after - 1);
}

// Interleaved int16 samples of the first sound of a file as FFmpeg decodes them.
QByteArray Pcm(const QString& path)
{
    return RunFfmpeg({"-i", path, "-map", "0:a:0?", "-f", "s16le", "-"});
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
    QJsonObject summary;
    QList<QList<qint64>> ticks; // play_time_us, frame_start_us, late
    QByteArray heard;           // the samples of audio.wav
    int rate = 0, channels = 1;
};

Played Play(const QString& out, const QStringList& arguments)
{
    Played run;
    run.program = RunProgram(MOLVANE_PLAY_PATH, arguments + QStringList{"--out", out}, kHangMillis);
    run.summary = QJsonDocument::fromJson(run.program.out).object();
    if (run.program.exitCode != 0)
        return run;
    run.ticks = ReadCsv(out + "/ticks.csv");
    // The muxer writes the canonical header: "fmt " at 12, "data" after it.
    QFile wav(out + "/audio.wav");
    EXPECT_TRUE(wav.open(QIODevice::ReadOnly));
    const QByteArray bytes = wav.readAll();
    run.channels = qFromLittleEndian<quint16>(bytes.constData() + 22);
    run.rate = int(qFromLittleEndian<quint32>(bytes.constData() + 24));
    run.heard = bytes.mid(bytes.indexOf("data", 36) + 8);
    return run;
}

bool Has(const QStringList& arguments, const char* option) { return arguments.contains(QLatin1String(option)); }

} // namespace

TEST(PlayTool, EachTickShowsFfmpegsPictureAndTheDeviceGetsFfmpegsSound)
{
    const struct {
        const char* file;
        QStringList arguments;
        // Sample frames of FFmpeg's decode before the first picture, which
        // play from 0 does not reach; or kSilence, kUnjudged.
        int soundLead;
        int seeksMadeAgain = -1; // -1: as many as the container needs
        // Milliseconds of FFmpeg's decode that play as they come; 0: all of
        // it. Past them the frames' times say otherwise, and the fill follows
        // the times.
        int soundMillis = 0;
        int driftCorrections = 0; // then the sound is not compared
    } rows[] = {
        {"h264_aac.mp4", {}, 0},
        {"h264_aac.mp4", {"--speed", "2"}, kUnjudged},
        // The pictures of the final drain wait for room in a full cache. AAC
        // decoded afresh after a jump can differ in the last bit.
        {"h264_aac.mp4", {"--start", "0.7", "--cache-mb", "1"}, kUnjudged},
        {"h264_aac.mp4", {"--start", "1.9"}, kUnjudged},
        {"h264_aac.mp4", {"--speed", "-1"}, 0},
        {"h264_aac.mp4", {"--start", "1", "--speed", "0", "--duration", "0.2"}, kSilence}, // standing: silence
        // Closed GOPs in MP4: every jump lands before its target the first time.
        {"h264_aac.mp4", {"--seek-every", "0.2"}, 0, 0},
        {"vp9.webm", {"--speed", "-1", "--cache-mb", "1"}, kUnjudged},
        {"hevc_open_gop.mp4", {"--seek-every", "0.2"}, kUnjudged},
        {"h264_open_gop.mp4", {"--seek-every", "0.2"}, kUnjudged},
        {"hevc_open_gop.mkv", {"--speed", "-1", "--seek-every", "0.1"}, kUnjudged},
        {"mpeg1.mpg", {"--seek-every", "0.3"}, kUnjudged},
        {"late_start.ts", {"--seek-every", "0.2"}, kUnjudged},
        {"negative_start_gop10.ts", {"--seek-every", "0.2"}, kUnjudged},
        {"still.png", {"--image", "--duration", "1"}, kSilence},
        // No duration in the file: it plays until its end is found.
        {"open_ended.mkv", {}, kSilence},
        // Frames 33 or 34 ms long in millisecond times against a step of
        // 33.3 or 33.4 ms: the newest picture ends only where the next starts.
        {"vp8_2997.webm", {}, 0},
        {"vp8_2997.webm", {"--speed", "-1", "--cache-mb", "1"}, 0},
        {"vp8_2997.webm", {"--seek-every", "0.2"}, 0},
        // Opus: the first frame (after the encoder's delay) ends at the
        // second packet's 14 ms; the first picture is at 7 ms.
        {"vp9_30.webm", {}, 312},
        {"vp9_30.webm", {"--speed", "-1"}, 312},
        {"vp9_30.webm", {"--seek-every", "0.2"}, 312},
        // The first picture at 21 ms, the second AAC frame's time.
        {"hevc_2997.mkv", {}, 1024},
        {"hevc_2997.mkv", {"--speed", "-1", "--seek-every", "0.1"}, 1024},
        {"hevc_2997.mkv", {"--seek-every", "0.2"}, 1024},
        // 320x240, 480x360, 320x240: the larger size splits the budget again.
        // Each part's sound runs 8 ms into the next one's times: past the
        // first join a jump places sound by its times, 8 ms from where it
        // lies in the decode.
        {"ad_break.ts", {}, 481, -1, 1000},
        {"ad_break.ts", {"--speed", "-1"}, 481, -1, 1000},
        {"ad_break.ts", {"--seek-every", "0.2"}, 481, -1, 1000},
        {"ad_break.ts", {"--speed", "-1", "--seek-every", "0.1", "--cache-mb", "1"}, 481, -1, 1000},
        // RGB24 rows of 3240 bytes; then fragments, which keep no edit list:
        // the pictures start at 80 ms, and so does the sound after its first
        // (priming) frame at 0.
        {"h264_1080x720.mp4", {}, 0},
        {"h264_1080x720_frag.mp4", {}, 1024},
        {"h264_1080x720_frag.mp4", {"--seek-every", "0.2"}, 1024},
        {"hevc_aac_854x480.ts", {}, 1024}, // sound from 21.3 ms before the first picture
        {"hevc_aac_854x480.ts", {"--seek-every", "0.2"}, 1024},
        {"av1_aom.mkv", {}, kSilence},
        {"vp9_161x121.webm", {}, kSilence},
        {"vp9_2pass.webm", {}, kSilence},
        {"bt709_full.mp4", {}, 0},
        {"bt2020_10bit.mkv", {}, kSilence},
        // Cover art: the picture is shown all along, the sound is heard from its start.
        {"cover.mp3", {}, 0},
        {"cover.mp3", {"--speed", "-1"}, 0},
        {"cover.mp3", {"--seek-every", "0.2"}, 0},
        {"cover.flac", {}, 0},
        {"cover.m4a", {}, 0},
        {"tone_cover1400.mp3", {}, 0},
        // Sound alone, or longer than the pictures.
        {"tone.mp3", {}, 0}, // its first frame comes out short
        {"s16_stereo.wav", {}, 0},
        {"positional_6s.wav", {"--duration", "7"}, 0}, // past the end, held there: silence
        {"multi_stream.mkv", {}, 0},
        {"short_video.mkv", {}, 0},
        {"audio_jump.mkv", {}, 0, -1, 0, 1}, // the fill repeats samples where the times jump
        // The container says 23 ms, the sound lasts 232 ms: all of it is heard.
        {"short_claim.ts", {}, 0},
        // No picture decodes: the sound plays alone, from its start.
        {"undecodable_with_sound.webm", {}, 0},
        // Jumps near the end of sound alone: decoding reaches the end of the
        // input without a picture, which is no sign of a seek landing late.
        // Before it plays as sound, the search for a picture backs off twice,
        // to the start.
        {"undecodable_with_sound.webm", {"--start", "1.9"}, 0, 2},
        {"s16_stereo.wav", {"--start", "1.494"}, 0, 0}, // into the last audio frame
        {"tone.mp3", {"--start", "1.9"}, 0, 0},
    };
    QTemporaryDir dir;
    std::map<QString, std::pair<QList<qint64>, QByteArray>> decoded; // by FFmpeg, per file
    for (const auto& row : rows) {
        SCOPED_TRACE((row.file + (" " + row.arguments.join(' '))).toStdString());
        const QString path = MediaPath(row.file);
        if (!decoded.count(path))
            decoded[path] = {PictureStarts(path), row.soundLead >= 0 ? Pcm(path) : QByteArray()};
        // Named, not bound: a lambda below captures them (clang 14).
        const QList<qint64>& starts = decoded[path].first;
        const QByteArray& pcm = decoded[path].second;
        const Played run = Play(dir.path(), QStringList{path} + row.arguments);
        ASSERT_EQ(run.program.exitCode, 0) << "-1: crashed or hung; " << run.program.err.toStdString();
        ASSERT_FALSE(run.ticks.isEmpty());
        const auto wrong = std::find_if(run.ticks.begin(), run.ticks.end(), [&](const QList<qint64>& t) {
            return t.value(1) != Covering(starts, t.value(0)) || t.value(2) != 0;
        });
        EXPECT_TRUE(wrong == run.ticks.end())
            << "tick at " << wrong->value(0) << " shows " << wrong->value(1) << " (late " << wrong->value(2)
            << "), FFmpeg's picture starts at " << Covering(starts, wrong->value(0));
        const bool backwards = row.arguments.join(' ').contains("--speed -1");
        const bool jumping = Has(row.arguments, "--seek-every");
        // The end is reached: forwards the last picture shows, backwards it shows first.
        if (!starts.isEmpty() && !jumping && (backwards || !Has(row.arguments, "--speed"))) {
            EXPECT_EQ((backwards ? run.ticks.first() : run.ticks.last()).value(1), starts.last());
        }
        EXPECT_EQ(run.summary["ticks"].toInt(), run.ticks.size());
        EXPECT_EQ(run.summary["late_ticks"].toInt(), 0);
        if (row.seeksMadeAgain >= 0) {
            EXPECT_EQ(run.summary["seeks_made_again"].toInt(), row.seeksMadeAgain);
        }
        EXPECT_EQ(run.summary["drift_corrections"].toInt(), row.driftCorrections);
        // Never more than one picture over the budget.
        EXPECT_LE(run.summary["peak_video_cache_bytes"].toDouble(),
                  run.summary["video_cache_budget_bytes"].toDouble() + run.summary["largest_frame_bytes"].toDouble());

        const int frameBytes = 2 * run.channels;
        const QByteArray source =
            pcm.mid(std::max(0, row.soundLead) * frameBytes,
                    row.soundMillis > 0 ? int(int64_t(row.soundMillis) * run.rate / 1000 * frameBytes) : -1);
        if (row.soundLead == kUnjudged || row.driftCorrections > 0)
            continue;
        EXPECT_EQ(run.summary["silent_audio_buffers"].toInt(), 0); // counts only sound that should have played
        if (row.soundLead == kSilence || backwards) {
            EXPECT_EQ(run.heard.count('\0'), run.heard.size());
            continue;
        }
        if (Has(row.arguments, "--start")) {
            EXPECT_TRUE(run.heard.contains(source.right(100 * frameBytes))) << "heard to the source's end";
        } else if (!jumping) {
            const int common = int(std::min(run.heard.size(), source.size()));
            EXPECT_GE(common, source.size() * 97 / 100) << "heard " << run.heard.size() / frameBytes << " of "
                                                        << source.size() / frameBytes << " frames";
            const auto differs = std::mismatch(run.heard.begin(), run.heard.begin() + common, source.begin()).first;
            EXPECT_EQ(differs - run.heard.begin(), common) << "first differing sample frame";
            if (row.soundMillis == 0) { // then silence
                EXPECT_EQ(run.heard.mid(common).count('\0'), run.heard.size() - common);
            }
        } else {
            // Each tick's buffer is the source at the tick's play time, placed
            // as precisely as the container's times place sound. Every tick
            // lasts as long in samples.
            const int64_t tick =
                std::llround(double(run.heard.size() / frameBytes) * 1e6 / run.rate / run.ticks.size());
            const int slack = int(MicrosPerTick(path, "a:0") / 2 * run.rate / 1000000) + 1;
            int jumpedTo = 0; // ticks checked after a jump
            for (int i = 0; i < run.ticks.size(); ++i) {
                const int64_t from = i * tick * run.rate / 1000000, to = (i + 1) * tick * run.rate / 1000000;
                const int64_t at = run.ticks[i][0] * run.rate / 1000000;
                if ((at + to - from + slack) * frameBytes > source.size())
                    continue; // past the end of the sound
                ASSERT_TRUE(SoundNear(run.heard.mid(int(from * frameBytes), int((to - from) * frameBytes)), source,
                                      at, slack, run.channels))
                    << "the sound of tick " << i << " at " << run.ticks[i][0] << " is not the source's";
                jumpedTo += run.ticks[i][0] != i * tick ? 1 : 0;
            }
            EXPECT_GT(jumpedTo, 0);
        }
        if (QByteArray(row.file) == "tone.mp3" && row.arguments.isEmpty()) {
            // Without pictures, frames.png is the waveform: the tone leaves
            // the first lane's zero line in every pixel column of its length.
            const QImage waveform(dir.filePath("frames.png"));
            ASSERT_FALSE(waveform.isNull());
            const int zero = waveform.height() / 2 / 2; // two channels
            const auto drawn = [&](int x, int y) { return qGreen(waveform.pixel(x, y)) > 150; };
            for (int x = 0; x < int(int64_t(waveform.width()) * source.size() / run.heard.size()); ++x)
                ASSERT_TRUE(drawn(x, zero - 1) || drawn(x, zero + 1)) << "column " << x;
        }
    }
}

TEST(PlayTool, AFileThatCannotBePlayedEndsWithAMessage)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath("missing.mp4"), undecodable = MediaPath("undecodable.webm"),
                  silent = MediaPath("broken_sound_live.mka"), nothing = MediaPath("undecodable_all.mkv");
    const struct {
        QStringList arguments;
        int exitCode;
        QString message;
    } cases[] = {
        {{missing}, 1, "File not found: " + missing},
        // Every picture fails to decode: the end comes, not an endless wait.
        {{undecodable}, 1, "no picture of " + undecodable + " could be decoded"},
        {{undecodable, "--speed", "-1"}, 1, "no picture of " + undecodable + " could be decoded"},
        {{nothing}, 1, "no picture of " + nothing + " could be decoded\n"}, // nor any sound to play
        {{MediaPath("subtitles_only.mkv")}, 1, "No audio or video stream to play."},
        // Without a length it would play on for ever: the missing sound ends it (the
        // duration only bounds a failure of this test).
        {{silent, "--duration", "60"}, 1, "no sound of " + silent + " could be decoded"},
        {{missing, "--speed", "x"}, 2, "--speed takes a number; 0 needs --duration"},
        {{missing, "--speed", "0"}, 2, "--speed takes a number; 0 needs --duration"},
    };
    for (const auto& c : cases) {
        const Played run = Play(dir.filePath("out"), c.arguments);
        EXPECT_EQ(run.program.exitCode, c.exitCode) << run.program.err.toStdString();
        EXPECT_TRUE(run.program.err.contains(c.message)) << run.program.err.toStdString();
    }
}
