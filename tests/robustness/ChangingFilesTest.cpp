// Files that change under the library while a host uses them: a path that
// names a folder, a file deleted or cut between probing and the first
// packet, a file replaced between two jumps. Each case records what the
// library answered and logged at every step; nothing may crash.

#include <MolvaneAV/MediaReader.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <functional>

using namespace molvane::test;

namespace {

constexpr int64_t kStep = 40000;

using Change = std::function<void(const QString& path)>;

// Another file under the path: the open demuxer keeps the old, unlinked inode.
Change ReplaceBy(const char* clip)
{
    return [clip](const QString& path) { QFile::remove(path), QFile::copy(MediaPath(clip), path); };
}

struct Case {
    const char* name;
    const char* clip; // copied to the path first; null: the path is a folder
    Change beforeOpen, betweenSeeks;
    const char* expected; // what the host saw at each step, as Play tells it
};

const Case kCases[] = {
    {"folder", nullptr, {}, {}, "refused: Failed to open input for parsing: %1"},
    {"deleted before the first packet", "h264_aac.mp4", [](const QString& p) { QFile::remove(p); }, {},
     "probed; not opened: File not found: %1"},
    {"cut to nothing before the first packet", "h264_aac.mp4", [](const QString& p) { QFile::resize(p, 0); }, {},
     "probed; not opened: Failed to open input for parsing: %1"},
    // A transport stream cut in half still opens and ends early.
    {"cut in half before the first packet", "mpeg2.ts",
     [](const QString& p) { QFile::resize(p, QFileInfo(p).size() / 2); }, {},
     "probed; opened; ended with its marker; jump after the change: no picture; reopened"},
    // Only a reopening meets the new file, whose streams are not the probed ones.
    {"replaced by a WAV between two jumps", "h264_aac.mp4", {}, ReplaceBy("s16_stereo.wav"),
     "probed; opened; ended with its marker; jump after the change: landed; "
     "not reopened: Audio stream invalid or not found."},
    {"replaced by another movie between two jumps", "h264_aac.mp4", {}, ReplaceBy("mpeg4.mp4"),
     "probed; opened; ended with its marker; jump after the change: landed; "
     "not reopened: Failed to find audio stream (Stream not found)"},
    // Same inode, other bytes: the open demuxer reads them at its old offsets.
    {"overwritten in place between two jumps", "mpeg2.ts", {},
     [](const QString& p) {
         QFile source(MediaPath("mpeg1.mpg")), target(p);
         source.open(QIODevice::ReadOnly), target.open(QIODevice::WriteOnly | QIODevice::Truncate);
         target.write(source.readAll());
     },
     "probed; opened; ended with its marker; jump after the change: no picture; reopened"},
};

// Probes, opens, decodes to the end, jumps, reopens, with the case's changes
// in between; tells what each step gave up to the first refusal, with what
// the refusing step logged: the path as %1, FFmpeg codes left off.
QString Play(const Case& c, const QString& path)
{
    LogCapture log;
    const auto refusal = [&](const char* step) {
        QStringList messages = log.Messages();
        for (QString& message : messages) {
            message.replace(QFileInfo(path).absoluteFilePath(), QStringLiteral("%1"));
            message = message.left(message.indexOf(QStringLiteral(" (code ")));
        }
        return QString(step) + ": " + messages.join(QStringLiteral(" | "));
    };
    auto info = std::make_shared<MediaInfo>(path);
    if (!MediaReader::ParseMedia(info))
        return refusal("refused");
    if (c.beforeOpen)
        c.beforeOpen(path);
    MediaInstance instance;
    instance.Initialize(info, 0);
    if (!instance.HasPacket()) {
        const QString told = refusal("probed; not opened");
        instance.Seek(kStep); // tries to open again: refused again
        return told;
    }
    const Decoded whole = DecodeAll(instance, -1, 2000);
    const bool marker = !instance.HasPacket() && !whole.video.isEmpty() && !whole.video.last()->data;
    // A jump to picture `index` lands when that picture comes within 60 packet calls.
    const auto lands = [&](int index) {
        instance.Seek(index * kStep);
        return PaintedIndexes(DecodeAll(instance, index * kStep, 60).video).contains(index);
    };
    lands(8);
    if (c.betweenSeeks)
        c.betweenSeeks(path);
    QString told = QString("probed; opened; ") + (marker ? "ended with its marker" : "no end marker") +
                   "; jump after the change: " + (lands(16) ? "landed" : "no picture");
    log.Clear();
    instance.CloseInput();
    told += instance.HasPacket() ? QString("; reopened") : "; " + refusal("not reopened");
    DecodeAll(instance, -1, 2000);
    return told;
}

TEST(ChangingFiles, TheHostGetsARefusalAndOneMessageNeverACrash)
{
    for (const Case& c : kCases) {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("media"));
        ASSERT_TRUE(dir.isValid() && (c.clip ? QFile::copy(MediaPath(c.clip), path) : QDir().mkdir(path)));
        EXPECT_EQ(Play(c, path).toStdString(), c.expected) << c.name;
    }
}

} // namespace
