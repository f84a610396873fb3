#include "support/TestMedia.h"

#include <MolvaneAV/MediaReader.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QLoggingCategory>
#include <QFile>
#include <QProcess>

#include <mutex>

namespace molvane::test {

QString MediaPath(const QString& name)
{
    return QDir::isAbsolutePath(name) ? name : QStringLiteral(MOLVANE_TEST_MEDIA_DIR "/") + name;
}

std::shared_ptr<MediaInfo> Probe(const QString& name, bool isImage)
{
    auto info = std::make_shared<MediaInfo>(MediaPath(name));
    info->isImage = isImage;
    EXPECT_TRUE(MediaReader::ParseMedia(info)) << name.toStdString();
    return info;
}

int PaintedIndex(const DecodedVideoFrame& frame)
{
    const int width = frame.width, height = frame.height;
    if (frame.data == nullptr || width < 32 || height < 32)
        return -1;
    // Mean brightness around the centre of a code block, away from its edges.
    auto mean = [&](int cx, int cy) {
        long sum = 0, count = 0;
        for (int y = cy - height / 64; y <= cy + height / 64; ++y) {
            for (int x = cx - width / 64; x <= cx + width / 64; ++x, count += 3) {
                const uint8_t* p = frame.data + y * RowStride(width) + 3 * x;
                sum += p[0] + p[1] + p[2];
            }
        }
        return sum / count;
    };
    int index = 0;
    for (int bit = 0; bit < 16; ++bit) {
        const int cx = width * (2 * bit + 1) / 32;
        const long top = mean(cx, height * 13 / 32), bottom = mean(cx, height * 19 / 32);
        if ((top > 176) == (bottom > 176) || (top < 80) == (bottom < 80))
            return -1; // not one light and one dark block: no code here
        index = 2 * index + (top > 176 ? 1 : 0);
    }
    return index;
}

int64_t SamplePosition(const int16_t* sampleFrame, int channels)
{
    if (sampleFrame[0] < 0 || (channels > 1 && sampleFrame[1] < 0))
        return -1;
    const int64_t n = sampleFrame[0] + (channels > 1 ? int64_t(sampleFrame[1]) << 15 : 0);
    for (int c = 2; c < channels; ++c) {
        if (sampleFrame[c] != (n + 4096 * c) % 32768)
            return -1;
    }
    return n;
}

Decoded DecodeAll(MediaInstance& instance, int64_t targetTime, int maxCalls)
{
    Decoded decoded;
    while (decoded.calls < maxCalls && instance.HasPacket()) {
        instance.DecodePacket(decoded.audio, decoded.video, targetTime);
        ++decoded.calls;
    }
    return decoded;
}

ProgramRun RunProgram(const QString& program, const QStringList& arguments, int timeoutMillis,
                      const QProcessEnvironment* environment)
{
    QProcess process;
    QProcessEnvironment inherited = environment ? *environment : QProcessEnvironment::systemEnvironment();
    // The leak checker preloaded into the test programs is for our code: the
    // system's programs (ffmpeg, ffprobe) run without it, at their own speed.
    if (!QDir::isAbsolutePath(program))
        inherited.remove(QStringLiteral("LD_PRELOAD"));
    process.setProcessEnvironment(inherited);
    process.start(program, arguments);
    ProgramRun run;
    if (process.waitForFinished(timeoutMillis) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QByteArray RunFfmpeg(const QStringList& args)
{
    const ProgramRun run = RunProgram(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-v", "error"} + args);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    return run.out;
}

QList<QList<qint64>> ReadCsv(const QString& path)
{
    QList<QList<qint64>> rows;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    file.readLine(); // the header
    while (!file.atEnd()) {
        QList<qint64> row;
        for (const QByteArray& field : file.readLine().trimmed().split(','))
            row << field.toLongLong();
        rows << row;
    }
    return rows;
}

namespace {
std::mutex logMutex;
LogCapture* logTarget = nullptr;
QtMessageHandler previousHandler = nullptr;
} // namespace

void CollectLog(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    std::lock_guard<std::mutex> lock(logMutex);
    if (logTarget && context.category && qstrcmp(context.category, "molvane.av") == 0)
        logTarget->messages_.append(message), logTarget->types_.append(type);
}

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(logMutex);
    logTarget = this;
    previousHandler = qInstallMessageHandler(CollectLog);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(logMutex);
    qInstallMessageHandler(previousHandler);
    logTarget = nullptr;
}

} // namespace molvane::test
