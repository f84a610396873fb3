// molvane-play --window as a program, on the private desktop of desktop.sh:
// the picture it leaves on screen, and its sound as the sound server played
// it, recorded from the sink's monitor. The clip's sound is positional PCM:
// every recorded sample frame says which source frame it is, which finds the
// alignment and checks every sample at once.

#include "Pictures.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <vector>

using namespace molvane::test;

namespace {

constexpr int kRate = 48000;

struct Outcome {
    int exitCode = -1;
    QStringList errLines;
    QJsonObject summary;
};

Outcome Play(const QStringList& arguments,
             const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    const ProgramRun run = RunProgram(MOLVANE_PLAY_PATH, QStringList{"--window"} + arguments, 300000, &environment);
    return {run.exitCode, run.err.split('\n', Qt::SkipEmptyParts), QJsonDocument::fromJson(run.out).object()};
}

// Source positions of interleaved stereo s16 sample frames; -1 for silence,
// -2 for anything that is not a source frame.
std::vector<int64_t> Positions(const QByteArray& pcm)
{
    std::vector<int64_t> positions(size_t(pcm.size()) / 4);
    const auto* samples = reinterpret_cast<const int16_t*>(pcm.constData());
    for (size_t i = 0; i < positions.size(); ++i) {
        const bool silent = samples[2 * i] == 0 && samples[2 * i + 1] == 0;
        const int64_t position = SamplePosition(samples + 2 * i, 2);
        positions[i] = silent ? -1 : position < 0 ? -2 : position;
    }
    return positions;
}

struct Played {
    int64_t covered = 0; // frames that follow their source predecessor
    int64_t last = -1;   // the last source position
    int64_t foreign = 0; // frames that are neither silence nor a source frame
    bool inOrder = true;
};

Played Runs(const std::vector<int64_t>& positions)
{
    Played run;
    for (const int64_t position : positions) {
        if (position == -2) {
            ++run.foreign;
            continue;
        }
        if (position < 0)
            continue;
        run.inOrder = run.inOrder && position > run.last;
        run.covered += run.last >= 0 && position == run.last + 1 ? 1 : 0;
        run.last = position;
    }
    return run;
}

} // namespace

TEST(WindowTool, TheServerPlaysTheSourcesSoundInStepWithThePicture)
{
    QTemporaryDir dir;
    // Recording first, into a file that the reader never lets fill a pipe.
    // The program plays out what it queued before it ends.
    const QString recording = dir.filePath("recorded.raw");
    QProcess recorder;
    recorder.setStandardOutputFile(recording);
    recorder.start("parec", {"-d", qEnvironmentVariable("MOLVANE_TEST_SINK") + ".monitor", "--latency-msec=10",
                             "--format=s16le", "--rate=48000", "--channels=2", "--raw"});
    ASSERT_TRUE(recorder.waitForStarted());
    const Outcome run = Play({MediaPath("av_positional.mkv"), "--quit-at-end", "--out", dir.path()});
    ASSERT_EQ(run.exitCode, 0) << run.errLines.join('\n').toStdString();
    EXPECT_TRUE(run.summary["sound_device"].toBool());
    EXPECT_TRUE(run.errLines.isEmpty()) << run.errLines.join('\n').toStdString();
    recorder.kill();
    recorder.waitForFinished();
    QFile file(recording);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray recorded = file.readAll();

    // What the device received is the whole source, in order; what the
    // server played is source frames only, in order, each sample equal to
    // the source's, in runs broken only where a stalled server dropped some.
    const std::vector<int64_t> sent = Positions(RunFfmpeg({"-i", dir.filePath("audio.wav"), "-f", "s16le", "-"}));
    const Played device = Runs(sent), server = Runs(Positions(recorded));
    EXPECT_TRUE(device.inOrder && server.inOrder);
    EXPECT_EQ(device.foreign + server.foreign, 0);
    EXPECT_GE(device.covered, 144000 * 99 / 100);
    EXPECT_EQ(device.last, 143999);
    EXPECT_GE(server.covered, kRate); // at least a second played as sent

    // The picture against the sound: at each tick, the sound the device
    // played then, as the buffers' device times and the samples written say.
    const QList<QList<qint64>> ticks = ReadCsv(dir.filePath("ticks.csv")); // device µs, play µs, frame, late
    const QList<QList<qint64>> buffers = ReadCsv(dir.filePath("buffers.csv")); // dac µs, first frame, play µs, frames
    std::vector<double> offsets;
    for (const auto& tick : ticks) {
        // The buffer being played at the tick, unless the device stood between two.
        const auto next = std::upper_bound(buffers.begin(), buffers.end(), tick[0],
                                           [](qint64 t, const QList<qint64>& b) { return t < b[0]; });
        if (next == buffers.begin() || next == buffers.end())
            continue;
        const QList<qint64>& buffer = *(next - 1);
        const int64_t length = buffer[3] * 1000000 / kRate;
        if ((*next)[0] - buffer[0] > 2 * length)
            continue;
        const int64_t at = buffer[1] + std::min<int64_t>(buffer[3] - 1, (tick[0] - buffer[0]) * kRate / 1000000);
        if (at < 0 || at >= int64_t(sent.size()) || sent[size_t(at)] < 0)
            continue;
        offsets.push_back(std::abs(double(tick[1]) - double(sent[size_t(at)]) * 1e6 / kRate));
    }
    // A loaded machine can stall the server for seconds; a second of ticks
    // between stalls is enough to measure. A busy machine may deliver a
    // buffer late; most ticks still agree.
    ASSERT_GE(offsets.size(), 60u);
    std::sort(offsets.begin(), offsets.end());
    EXPECT_LE(offsets[offsets.size() * 9 / 10], 20000.0);
}

TEST(WindowTool, WithoutADeviceItSaysSoOnce)
{
    // Without a sound server it plays on its own clock from the start
    // position to the end, whose frame stays on screen. Without a display
    // it exits.
    QTemporaryDir dir;
    const struct {
        const char* variable;
        QString value; // empty: unset
        int exitCode;
        QString says;
    } cases[] = {
        {"PULSE_SERVER", "unix:" + dir.filePath("no-server"), 0, "molvane-play: no sound: "},
        {"DISPLAY", "", 1, "molvane-play: --window needs a display: no display (DISPLAY is not set)"},
        {"DISPLAY", ":999", 1, "molvane-play: --window needs a display: cannot connect to the display :999"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.variable + (" " + c.value.toStdString()));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(c.variable);
        if (!c.value.isEmpty())
            environment.insert(c.variable, c.value);
        const QStringList arguments{"--start", "1.21", "--quit-at-end", "--out", dir.path()};
        const Outcome run = Play(QStringList{MediaPath("av_positional.mkv")} + arguments, environment);
        EXPECT_EQ(run.exitCode, c.exitCode);
        ASSERT_EQ(run.errLines.size(), 1) << run.errLines.join('\n').toStdString();
        EXPECT_TRUE(run.errLines[0].startsWith(c.says)) << run.errLines[0].toStdString();
        if (c.exitCode != 0)
            continue;
        EXPECT_FALSE(run.summary["sound_device"].toBool());
        const QList<QList<qint64>> ticks = ReadCsv(dir.filePath("ticks.csv"));
        ASSERT_FALSE(ticks.isEmpty());
        EXPECT_EQ(ticks.first()[2], 30 * 40000);
        EXPECT_EQ(ticks.last()[2], 74 * 40000);
        const QImage grab(dir.filePath("window.png"));
        EXPECT_EQ(IndexIn(grab, PictureBox(grab)), 74);
    }
}
