// molvane-play --window as a program, on the private desktop of desktop.sh:
// the picture it leaves on screen, and its sound as the sound server played
// it, recorded from the sink's monitor. The clip's sound is positional PCM:
// every recorded sample frame says which source frame it is, which finds the
// alignment and checks every sample at once.

#include "Pictures.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

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

Outcome Play(const QStringList& arguments, const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(MOLVANE_PLAY_PATH), QStringList{"--window"} + arguments);
    Outcome run;
    if (process.waitForFinished(300000) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.errLines = QString::fromUtf8(process.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    run.summary = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    return run;
}

QList<QList<qint64>> Csv(const QString& path)
{
    QList<QList<qint64>> rows;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    file.readLine(); // header
    while (!file.atEnd()) {
        QList<qint64> row;
        for (const QByteArray& field : file.readLine().trimmed().split(','))
            row << field.toLongLong();
        rows << row;
    }
    return rows;
}

// Source positions of interleaved stereo s16 sample frames; -1 for silence
// or anything that is not a source frame.
std::vector<int64_t> Positions(const QByteArray& pcm)
{
    std::vector<int64_t> positions(size_t(pcm.size()) / 4);
    const auto* samples = reinterpret_cast<const int16_t*>(pcm.constData());
    for (size_t i = 0; i < positions.size(); ++i) {
        const bool silent = samples[2 * i] == 0 && samples[2 * i + 1] == 0;
        positions[i] = silent ? -1 : SamplePosition(samples + 2 * i, 2);
    }
    return positions;
}

} // namespace

TEST(WindowTool, LeavesTheFrameOfItsStartOnScreen)
{
    const struct {
        const char* start;
        int expected;
    } cases[] = {{"0", 0}, {"0.5", 12}, {"1.21", 30}, {"2.5", 62}};
    QTemporaryDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.start);
        const Outcome run = Play({MediaPath("av_positional.mkv"), "--start", c.start, "--speed", "0", "--duration", "0.3",
                              "--no-sound", "--out", dir.path()});
        ASSERT_EQ(run.exitCode, 0) << run.errLines.join('\n').toStdString();
        const QImage grab(dir.filePath("window.png"));
        EXPECT_EQ(IndexIn(grab, PictureBox(grab)), c.expected);
    }
}

TEST(WindowTool, TheServerPlaysTheSourcesSoundInStepWithThePicture)
{
    QTemporaryDir dir;
    // Recording first, into a file that the reader never lets fill a pipe.
    // At the reader's low latency the null sink delivers in small steps;
    // the first bytes show that it runs.
    const QString recording = dir.filePath("recorded.raw");
    QProcess recorder;
    recorder.setStandardOutputFile(recording);
    recorder.start("parec", {"-d", qEnvironmentVariable("MOLVANE_TEST_SINK") + ".monitor", "--latency-msec=10",
                             "--format=s16le", "--rate=48000", "--channels=2", "--raw"});
    ASSERT_TRUE(recorder.waitForStarted());
    while (QFileInfo(recording).size() == 0 && recorder.state() == QProcess::Running)
        QThread::msleep(10);

    const Outcome run = Play({MediaPath("av_positional.mkv"), "--quit-at-end", "--out", dir.path()});
    ASSERT_EQ(run.exitCode, 0) << run.errLines.join('\n').toStdString();
    EXPECT_TRUE(run.summary["sound_device"].toBool());
    EXPECT_TRUE(run.errLines.isEmpty()) << run.errLines.join('\n').toStdString();
    // What was queued on the server when the program ended: half a second of
    // recording after it is more than the sink's latency.
    const qint64 after = QFileInfo(recording).size() + kRate * 4 / 2;
    while (QFileInfo(recording).size() < after && recorder.state() == QProcess::Running)
        QThread::msleep(10);
    recorder.kill();
    recorder.waitForFinished();
    QFile file(recording);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray recorded = file.readAll();

    // Played: runs of consecutive source frames, in order, each sample equal
    // to the source's. A gap is only allowed where the device ran dry.
    const std::vector<int64_t> heard = Positions(recorded);
    int64_t previous = -1, covered = 0, foreign = 0;
    bool inOrder = true;
    for (size_t i = 0; i < heard.size(); ++i) {
        const auto* samples = reinterpret_cast<const int16_t*>(recorded.constData()) + 2 * i;
        if (heard[i] < 0) {
            foreign += samples[0] != 0 || samples[1] != 0 ? 1 : 0;
            continue;
        }
        inOrder = inOrder && heard[i] > previous;
        covered += previous >= 0 && heard[i] == previous + 1 ? 1 : 0;
        previous = heard[i];
    }
    EXPECT_EQ(foreign, 0);
    EXPECT_TRUE(inOrder);
    // All of the 3 s but what a start-up or a late buffer may lose.
    EXPECT_GE(covered, 144000 * 95 / 100);
    EXPECT_EQ(previous, 143999);

    // The picture against the sound: at each tick, the sound the device
    // played then, as the buffers' device times and the samples written say.
    const QList<QList<qint64>> ticks = Csv(dir.filePath("ticks.csv")); // device µs, play µs, frame, late
    const QList<QList<qint64>> buffers = Csv(dir.filePath("buffers.csv")); // dac µs, first frame, play µs, frames
    const std::vector<int64_t> sent = Positions(RunFfmpeg({"-i", dir.filePath("audio.wav"), "-f", "s16le", "-"}));
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
        offsets.push_back(double(tick[1]) - double(sent[size_t(at)]) * 1e6 / kRate);
    }
    // A loaded machine can stall the server for seconds; a second of ticks
    // between stalls is enough to measure.
    ASSERT_GE(offsets.size(), 60u);
    std::vector<double> sizes(offsets.size());
    std::transform(offsets.begin(), offsets.end(), sizes.begin(), [](double o) { return std::abs(o); });
    std::sort(sizes.begin(), sizes.end());
    // A busy machine may deliver a buffer late; most ticks still agree.
    EXPECT_LE(sizes[sizes.size() / 2], 20000.0);
    EXPECT_LE(sizes[sizes.size() * 9 / 10], 20000.0);
}

TEST(WindowTool, WithoutASoundServerItSaysSoOnceAndPlaysOnItsOwnClock)
{
    QTemporaryDir dir;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PULSE_SERVER", "unix:" + dir.filePath("no-server"));
    const Outcome run = Play({MediaPath("av_positional.mkv"), "--quit-at-end", "--out", dir.path()}, environment);
    ASSERT_EQ(run.exitCode, 0);
    ASSERT_EQ(run.errLines.size(), 1) << run.errLines.join('\n').toStdString();
    EXPECT_TRUE(run.errLines[0].startsWith("molvane-play: no sound: ")) << run.errLines[0].toStdString();
    EXPECT_FALSE(run.summary["sound_device"].toBool());
    // The clock ran to the end: every frame of the clip went by.
    const QList<QList<qint64>> ticks = Csv(dir.filePath("ticks.csv"));
    ASSERT_FALSE(ticks.isEmpty());
    EXPECT_EQ(ticks.last()[2], 74 * 40000);
}

TEST(WindowTool, WithoutADisplayItSaysSoOnceAndExits)
{
    const struct {
        const char* display;
        const char* says;
    } cases[] = {{nullptr, "DISPLAY is not set"}, {":999", "cannot connect to the display :999"}};
    for (const auto& c : cases) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove("DISPLAY");
        if (c.display)
            environment.insert("DISPLAY", c.display);
        const Outcome run = Play({MediaPath("av_positional.mkv")}, environment);
        EXPECT_EQ(run.exitCode, 1);
        ASSERT_EQ(run.errLines.size(), 1);
        EXPECT_TRUE(run.errLines[0].startsWith("molvane-play: --window needs a display: ") &&
                    run.errLines[0].contains(c.says))
            << run.errLines[0].toStdString();
    }
}
