// molvane-probe as a user runs it, checked against ffprobe's view of the
// same files where ffprobe is installed.

#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

using namespace molvane::test;

namespace {

struct ProcessResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

ProcessResult Execute(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    ProcessResult run;
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return run;
    run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

ProcessResult ProbeTool(const QStringList& arguments)
{
    return Execute(QStringLiteral(MOLVANE_PROBE_PATH), arguments);
}

QJsonArray ProbeJson(const QStringList& files, bool image = false)
{
    QStringList arguments{QStringLiteral("--json")};
    if (image)
        arguments << QStringLiteral("--image");
    const ProcessResult run = ProbeTool(arguments + files);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(run.out, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << run.out.toStdString();
    return document.array();
}

// Our streams by container index, video and audio together.
QMap<int, QJsonObject> StreamsByIndex(const QJsonObject& file)
{
    QMap<int, QJsonObject> streams;
    for (const char* key : {"videoStreams", "audioStreams"}) {
        for (const QJsonValue stream : file.value(QLatin1String(key)).toArray()) {
            QJsonObject object = stream.toObject();
            object.insert(QStringLiteral("kind"), qstrcmp(key, "videoStreams") == 0 ? "video" : "audio");
            streams.insert(object.value(QStringLiteral("index")).toInt(), object);
        }
    }
    return streams;
}

} // namespace

TEST(ProbeTool, JsonHasOneObjectPerFileWithTheRecordsMembers)
{
    const Fixture& movie = GetFixture(FixtureId::H264AacMp4);
    const Fixture& audio = GetFixture(FixtureId::WavS16Stereo);
    const QJsonArray files = ProbeJson({movie.path, audio.path});
    ASSERT_EQ(files.size(), 2);

    const QJsonObject first = files[0].toObject();
    EXPECT_EQ(first.value("filePath").toString(), movie.path);
    EXPECT_GT(first.value("duration").toDouble(), 0.0);
    ASSERT_EQ(first.value("videoStreams").toArray().size(), 1);
    const QJsonObject video = first.value("videoStreams").toArray()[0].toObject();
    for (const char* key : {"index", "codecName", "width", "height", "pixelAspectRatio", "startTime", "frameStep",
                            "frameRate", "numFrames", "decoderDelay", "isValid", "metadata"})
        EXPECT_TRUE(video.contains(QLatin1String(key))) << key;
    EXPECT_EQ(video.value("codecName").toString(), QStringLiteral("h264"));
    EXPECT_EQ(video.value("frameRate").toDouble(), 25.0);
    EXPECT_EQ(video.value("frameStep").toInt(), 40000);
    EXPECT_EQ(video.value("numFrames").toInt(), movie.streams[0].frameCount);

    const QJsonObject second = files[1].toObject();
    EXPECT_TRUE(second.value("videoStreams").toArray().isEmpty());
    ASSERT_EQ(second.value("audioStreams").toArray().size(), 1);
    const QJsonObject sound = second.value("audioStreams").toArray()[0].toObject();
    for (const char* key : {"index", "codecName", "channelCount", "channelLayout", "isPlanar", "bytesPerSample",
                            "sampleRate", "sampleFormat", "isValid", "metadata"})
        EXPECT_TRUE(sound.contains(QLatin1String(key))) << key;
    EXPECT_EQ(sound.value("channelCount").toInt(), 2);
    EXPECT_EQ(sound.value("channelLayout").toInt(), 3);
    EXPECT_EQ(sound.value("bytesPerSample").toInt(), 2);
}

TEST(ProbeTool, TextShowsDurationStreamsAndRotation)
{
    const ProcessResult run = ProbeTool({GetFixture(FixtureId::Rotated90).path, GetFixture(FixtureId::WavSixChannels).path});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QString text = QString::fromUtf8(run.out);
    EXPECT_TRUE(text.contains(QRegularExpression(QStringLiteral("duration: \\d\\d:\\d\\d:\\d\\d\\.\\d\\d"))));
    EXPECT_TRUE(text.contains(QStringLiteral("rotation 90"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("6 channels"))) << text.toStdString();
}

TEST(ProbeTool, ImageFlagMarksStills)
{
    const QJsonArray files = ProbeJson({GetFixture(FixtureId::PngStill).path}, true);
    ASSERT_EQ(files.size(), 1);
    const QJsonObject file = files[0].toObject();
    EXPECT_TRUE(file.value("isImage").toBool());
    EXPECT_EQ(file.value("duration").toInt(), -1);
    const QJsonObject video = file.value("videoStreams").toArray()[0].toObject();
    EXPECT_EQ(video.value("numFrames").toInt(), 1);
    EXPECT_EQ(video.value("frameRate").toDouble(), -1.0);
}

TEST(ProbeTool, FailsWithTheLibrarysMessage)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath(QStringLiteral("missing.mp4"));
    const ProcessResult run = ProbeTool({GetFixture(FixtureId::WavU8).path, missing});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(QString::fromUtf8(run.err).contains(QStringLiteral("File not found: %1").arg(missing)))
        << run.err.toStdString();
    // The readable file is still described.
    EXPECT_TRUE(QString::fromUtf8(run.out).contains(GetFixture(FixtureId::WavU8).path));

    EXPECT_EQ(ProbeTool({}).exitCode, 2);
}

TEST(ProbeTool, AgreesWithFfprobeOnEveryFixture)
{
    const QString ffprobe = QStandardPaths::findExecutable(QStringLiteral("ffprobe"));
    if (ffprobe.isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";

    for (FixtureId id : AllFixtures()) {
        const Fixture& fixture = GetFixture(id);
        SCOPED_TRACE(fixture.name.toStdString());
        const QJsonArray ours = ProbeJson({fixture.path}, fixture.isImage);
        ASSERT_EQ(ours.size(), 1);
        const QMap<int, QJsonObject> streams = StreamsByIndex(ours[0].toObject());

        const ProcessResult run = Execute(ffprobe, {"-v", "error", "-show_streams", "-show_format", "-of", "json", fixture.path});
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        const QJsonObject theirs = QJsonDocument::fromJson(run.out).object();

        int decodable = 0;
        for (const QJsonValue value : theirs.value("streams").toArray()) {
            const QJsonObject stream = value.toObject();
            const QString type = stream.value("codec_type").toString();
            if (type != QLatin1String("video") && type != QLatin1String("audio"))
                continue;
            ++decodable;
            const int index = stream.value("index").toInt();
            ASSERT_TRUE(streams.contains(index)) << "stream " << index;
            const QJsonObject mine = streams.value(index);
            EXPECT_EQ(mine.value("kind").toString(), type);
            EXPECT_EQ(mine.value("codecName").toString(), stream.value("codec_name").toString());
            if (type == QLatin1String("video")) {
                EXPECT_EQ(mine.value("width").toInt(), stream.value("width").toInt());
                EXPECT_EQ(mine.value("height").toInt(), stream.value("height").toInt());
            } else {
                EXPECT_EQ(mine.value("sampleRate").toInt(), stream.value("sample_rate").toString().toInt());
                EXPECT_EQ(mine.value("channelCount").toInt(), stream.value("channels").toInt());
            }
        }
        EXPECT_EQ(streams.size(), decodable);

        const QJsonObject format = theirs.value("format").toObject();
        if (!fixture.isImage && format.contains("duration")) {
            const double seconds = format.value("duration").toString().toDouble();
            EXPECT_NEAR(ours[0].toObject().value("duration").toDouble(), seconds * 1e6, 1.0);
        }
    }
}
