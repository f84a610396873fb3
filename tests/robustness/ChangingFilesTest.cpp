// Files that change under the library while a host uses them: a path that
// names a folder, a file deleted, cut or made unreadable between probing and
// the first packet, a file replaced between two jumps. Each case records
// what the library answered and logged at every step; nothing may crash.

#include <MolvaneAV/MediaReader.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cctype>
#include <functional>
#include <ostream>

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace molvane::test;

namespace {

constexpr int64_t kStep = 40000;

using Change = std::function<void(const QString& path)>;

void Replace(const QString& path, const QString& clip)
{
    const QString next = path + ".next";
    QFile::copy(MediaPath(clip), next);
    ::rename(QFile::encodeName(next).constData(), QFile::encodeName(path).constData());
}

// Same inode, other bytes: the open demuxer reads them at its old offsets.
void Overwrite(const QString& path, const QString& clip)
{
    QFile source(MediaPath(clip)), target(path);
    source.open(QIODevice::ReadOnly);
    target.open(QIODevice::WriteOnly | QIODevice::Truncate);
    target.write(source.readAll());
}

void Truncate(const QString& path, qint64 size)
{
    ::truncate(QFile::encodeName(path).constData(), size);
}

struct Case {
    const char* name;
    const char* clip;  // copied to the path first; null: the path is a folder
    bool asNobody;     // run by an unprivileged user, where root would read anyway
    Change beforeParse, beforeOpen, betweenSeeks;
    // What the host saw at each step, as Play tells it.
    const char* expected;
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

const Change kNone;
const Case kCases[] = {
    {"folder", nullptr, false, kNone, kNone, kNone,
     "refused: Failed to open input for parsing: %1"},
    {"deleted before the first packet", "h264_aac.mp4", false, kNone, [](const QString& p) { QFile::remove(p); }, kNone,
     "probed; not opened: File not found: %1"},
    {"cut to nothing before the first packet", "h264_aac.mp4", false, kNone,
     [](const QString& p) { Truncate(p, 0); }, kNone,
     "probed; not opened: Failed to open input for parsing: %1"},
    // A transport stream cut in half still opens and ends early.
    {"cut in half before the first packet", "mpeg2.ts", false, kNone,
     [](const QString& p) { Truncate(p, QFileInfo(p).size() / 2); }, kNone,
     "probed; opened; ended with its marker; jump after the change: no picture; reopened"},
    // The open demuxer keeps reading the file it opened; only a reopening
    // meets the new one, whose streams are not the probed ones.
    {"replaced by a WAV between two jumps", "h264_aac.mp4", false, kNone, kNone,
     [](const QString& p) { Replace(p, "s16_stereo.wav"); },
     "probed; opened; ended with its marker; jump after the change: 16; not reopened: Audio stream invalid or not found."},
    {"replaced by another movie between two jumps", "h264_aac.mp4", false, kNone, kNone,
     [](const QString& p) { Replace(p, "mpeg4.mp4"); },
     "probed; opened; ended with its marker; jump after the change: 16; not reopened: Failed to find audio stream (Stream not found)"},
    {"overwritten in place between two jumps", "mpeg2.ts", false, kNone, kNone,
     [](const QString& p) { Overwrite(p, "mpeg1.mpg"); },
     "probed; opened; ended with its marker; jump after the change: no picture; reopened"},
    {"unreadable", "h264_aac.mp4", true, [](const QString& p) { QFile::setPermissions(p, {}); }, kNone, kNone,
     "refused: Failed to open input for parsing: %1"},
    {"made unreadable before the first packet", "h264_aac.mp4", true, kNone,
     [](const QString& p) { QFile::setPermissions(p, {}); }, kNone,
     "probed; not opened: Failed to open input for parsing: %1"},
};

// What was logged since the last call, the path as %1, FFmpeg codes left off.
QString Logged(LogCapture& log, const QString& path)
{
    QStringList messages = log.Messages();
    log.Clear();
    for (QString& message : messages) {
        message.replace(QFileInfo(path).absoluteFilePath(), QStringLiteral("%1"));
        message = message.left(message.indexOf(QStringLiteral(" (code ")));
    }
    return messages.join(QStringLiteral(" | "));
}

// Seeks to the start of picture `index` and decodes until a picture covers
// it; the painted index of that picture, or -1.
int LandOn(MediaInstance& instance, int index)
{
    instance.Seek(index * kStep);
    Decoded got;
    while (got.calls < 60 && instance.HasPacket()) {
        const int before = got.video.size();
        instance.DecodePacket(got.audio, got.video, index * kStep);
        ++got.calls;
        for (int i = before; i < got.video.size(); ++i) {
            const auto& frame = got.video[i];
            if (frame->data && frame->startTime <= index * kStep && index * kStep < frame->startTime + kStep)
                return PaintedIndex(*frame);
        }
    }
    return -1;
}

// Probes, opens, decodes to the end, jumps, reopens, with the case's changes
// in between; tells what each step gave up to the first refusal, with what
// the refusing step logged.
QString Play(const Case& c, const QString& path)
{
    LogCapture log;
    const auto refusal = [&](const char* step) { return QString(step) + ": " + Logged(log, path); };
    if (c.beforeParse)
        c.beforeParse(path);
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
    LandOn(instance, 8);
    if (c.betweenSeeks)
        c.betweenSeeks(path);
    const int landed = LandOn(instance, 16);
    QString told = QString("probed; opened; ") + (marker ? "ended with its marker" : "no end marker") +
                   "; jump after the change: " + (landed < 0 ? QString("no picture") : QString::number(landed));
    log.Clear();
    instance.CloseInput();
    told += instance.HasPacket() ? QString("; reopened") : "; " + refusal("not reopened");
    DecodeAll(instance, -1, 2000);
    return told;
}

// Runs a case as the unprivileged user in a child process and reads its
// outcome back; false when this process cannot become that user.
bool PlayAsNobody(const Case& c, const QString& path, QString& outcome)
{
    int channel[2];
    if (pipe(channel) != 0)
        return false;
    const pid_t child = fork();
    if (child == 0) {
        ::close(channel[0]);
        const bool dropped = setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
        const QByteArray bytes = dropped ? Play(c, path).toUtf8() : QByteArray();
        ::write(channel[1], bytes.constData(), size_t(bytes.size()));
        _exit(dropped ? 0 : 1);
    }
    ::close(channel[1]);
    QByteArray bytes;
    char chunk[4096];
    for (ssize_t n; (n = ::read(channel[0], chunk, sizeof chunk)) > 0;)
        bytes.append(chunk, int(n));
    ::close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || bytes.isEmpty())
        return false;
    outcome = QString::fromUtf8(bytes);
    return true;
}

class ChangingFiles : public testing::TestWithParam<Case>
{
};

TEST_P(ChangingFiles, TheHostGetsARefusalAndOneMessageNeverACrash)
{
    const Case& c = GetParam();
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("media"));
    if (c.clip)
        ASSERT_TRUE(QFile::copy(MediaPath(c.clip), path));
    else
        ASSERT_TRUE(QDir().mkdir(path));

    QString outcome;
    if (!c.asNobody) {
        outcome = Play(c, path);
    } else if (geteuid() != 0) {
        outcome = Play(c, path); // permissions already bind this user
    } else {
        // The other user owns the file, to change its mode, and reaches it.
        ASSERT_EQ(::chown(QFile::encodeName(path).constData(), 65534, 65534), 0);
        QFile::setPermissions(dir.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                              QFileDevice::ReadOther | QFileDevice::ExeOther);
        if (!PlayAsNobody(c, path, outcome))
            GTEST_SKIP() << "cannot run as an unprivileged user here; root reads every file";
    }
    EXPECT_EQ(outcome.toStdString(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, ChangingFiles, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) {
                             std::string name = info.param.name;
                             for (char& ch : name)
                                 ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             return name;
                         });

} // namespace
