#include "BenchMedia.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace molvane::bench {

QString MakeClip(const QString& name, const QStringList& args)
{
    static QTemporaryDir folder;
    const QString path = folder.filePath(name);
    if (QFile::exists(path))
        return path;
    const QStringList exact{"-fflags", "+bitexact", "-flags:v", "+bitexact", "-flags:a", "+bitexact",
                            "-map_metadata", "-1", "-threads", "1"};
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-v", "error", "-y"} + args + exact + QStringList{path});
    if (!ffmpeg.waitForFinished(-1) || ffmpeg.exitStatus() != QProcess::NormalExit || ffmpeg.exitCode() != 0) {
        std::fprintf(stderr, "cannot write %s: %s%s\n", qPrintable(path), qPrintable(ffmpeg.errorString()),
                     ffmpeg.readAllStandardError().constData());
        std::exit(1);
    }
    return path;
}

QStringList VideoInput(int width, int height, int frames)
{
    return {"-f", "lavfi", "-i",
            QStringLiteral("testsrc2=s=%1x%2:r=25,trim=end_frame=%3,format=yuv420p").arg(width).arg(height).arg(frames)};
}

QStringList AudioInput(long long sampleFrames)
{
    return {"-f", "lavfi", "-i",
            QStringLiteral("sine=f=440:r=48000,volume=0.3,aformat=channel_layouts=stereo,atrim=end_sample=%1")
                .arg(sampleFrames)};
}

} // namespace molvane::bench
