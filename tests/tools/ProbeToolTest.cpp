// molvane-probe as a user runs it: JSON and text descriptions, --image, and
// the exit status and message of a failure.

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

using namespace molvane::test;

namespace {

ProgramRun ProbeTool(const QStringList& arguments) { return RunProgram(MOLVANE_PROBE_PATH, arguments); }

QJsonArray ProbeJson(const QStringList& arguments, int exitCode = 0)
{
    const ProgramRun run = ProbeTool(QStringList{"--json"} + arguments);
    EXPECT_EQ(run.exitCode, exitCode) << run.err.toStdString();
    return QJsonDocument::fromJson(run.out).array();
}

// The value at a path of object keys and array positions ("0/videoStreams/0/width").
QJsonValue At(QJsonValue value, const QString& path)
{
    for (const QString& step : path.split(QLatin1Char('/')))
        value = value.isArray() ? value.toArray().at(step.toInt()) : value.toObject().value(step);
    return value;
}

} // namespace

TEST(ProbeTool, JsonHoldsEveryFilesRecordWithItsTags)
{
    const QStringList movies{MediaPath("tagged.mkv"), MediaPath("quad.wav"), MediaPath("anamorphic.mp4")};
    const QJsonObject runs{{"movies", ProbeJson(movies)},
                           {"image", ProbeJson({QStringLiteral("--image"), MediaPath("still.png")})}};
    ASSERT_EQ(runs["movies"].toArray().size(), 3);
    ASSERT_EQ(runs["image"].toArray().size(), 1);
    const std::pair<const char*, QJsonValue> cases[] = {
        {"movies/0/filePath", movies[0]}, {"movies/0/duration", 1080000}, {"movies/0/isImage", false},
        {"movies/0/metadata/title", QStringLiteral("Fête d'été")},
        {"movies/0/videoStreams/0/metadata/language", "fra"}, {"movies/0/videoStreams/0/codecName", "h264"},
        {"movies/0/videoStreams/0/startTime", 1000000}, {"movies/0/videoStreams/0/frameRate", 25.0},
        {"movies/0/videoStreams/0/frameStep", 40000}, {"movies/0/videoStreams/0/numFrames", 27},
        {"movies/0/videoStreams/0/isValid", true}, {"movies/0/audioStreams/0/index", 1},
        {"movies/0/audioStreams/0/metadata/title", "Commentary"}, {"movies/1/videoStreams", QJsonArray()},
        {"movies/1/audioStreams/0/codecName", "pcm_s16le"}, {"movies/1/audioStreams/0/channelCount", 4},
        {"movies/1/audioStreams/0/channelLayout", 0x33}, {"movies/1/audioStreams/0/sampleRate", 48000},
        {"movies/1/audioStreams/0/sampleFormat", 1 /* AV_SAMPLE_FMT_S16 */},
        {"movies/1/audioStreams/0/isPlanar", false}, {"movies/1/audioStreams/0/bytesPerSample", 2},
        {"movies/2/videoStreams/0/width", 720},
        {"movies/2/videoStreams/0/pixelAspectRatio", double(float(64.0 / 45.0))},
        {"image/0/isImage", true}, {"image/0/duration", -1}, {"image/0/videoStreams/0/codecName", "png"},
        {"image/0/videoStreams/0/frameRate", -1}, {"image/0/videoStreams/0/numFrames", 1},
    };
    for (const auto& [path, value] : cases)
        EXPECT_EQ(At(runs, path), value) << path;
}

TEST(ProbeTool, TextShowsDurationTagsAndStreams)
{
    const ProgramRun run = ProbeTool({MediaPath("rotated_90.mp4"), MediaPath("quad.wav"), MediaPath("tagged.mkv")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    for (const char* line : {
             "rotated_90.mp4\n  duration: 00:00:01.00 (1000000 us)\n",
             "\n  video stream 0: h264, 320x240, pixel aspect 1.0000, rotation 90, 25 fps, frame step 40000 us, "
             "25 frames, start 0 us, decoder delay ",
             "quad.wav\n  duration: 00:00:00.10 (100000 us)\n"
             "  audio stream 0: pcm_s16le, 4 channels (layout 0x33), 48000 Hz, s16 interleaved, 2 bytes per sample\n",
             "\n  title: Fête d'été\n",
             "\n    language: fra\n",
             "\n  video stream 0: h264, 160x120, pixel aspect 1.0000, rotation 0, 25 fps, frame step 40000 us, "
             "27 frames, start 1000000 us, ",
         })
        EXPECT_TRUE(run.out.contains(line)) << line << "\nin:\n" << run.out.toStdString();
}

TEST(ProbeTool, FailureExitsWithOneAndTheLibrarysMessage)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath(QStringLiteral("missing.mp4"));
    // The readable file is still described.
    const QJsonArray files = ProbeJson({MediaPath("u8_stereo.wav"), missing}, 1);
    ASSERT_EQ(files.size(), 1);
    EXPECT_EQ(At(files, QStringLiteral("0/audioStreams/0/codecName")), QJsonValue("pcm_u8"));

    const ProgramRun run = ProbeTool({missing});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.isEmpty()) << run.out.toStdString();
    EXPECT_TRUE(run.err.contains(QStringLiteral("File not found: %1\n").arg(QFileInfo(missing).absoluteFilePath())))
        << run.err.toStdString();
    EXPECT_EQ(ProbeTool({}).exitCode, 2); // usage
}
