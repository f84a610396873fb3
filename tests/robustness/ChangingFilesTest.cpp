// Files that change under the library while a host uses them: a path that
// names a folder, a file deleted, cut or made unreadable between probing and
// the first packet, a file replaced between two jumps. Each case records
// what the library answered and logged at every step; nothing may crash.

#include <MolvaneAV/MediaReader.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDataStream>
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

// What the host saw at each step; a step after a refusal is not taken.
// Messages are the first logged at that step, the path written as %1 and
// the FFmpeg code left off.
struct Outcome {
    bool parsed = false, opened = false, reopened = false;
    QString parseLog, openLog, reopenLog;
    bool endedWithMarker = false; // the whole pass ended with the end marker
    int landedOn = -2;            // picture index at the jump after the change (-1: none)
};

bool operator==(const Outcome& a, const Outcome& b)
{
    return a.parsed == b.parsed && a.opened == b.opened && a.reopened == b.reopened && a.parseLog == b.parseLog &&
           a.openLog == b.openLog && a.reopenLog == b.reopenLog && a.endedWithMarker == b.endedWithMarker &&
           a.landedOn == b.landedOn;
}

QDataStream& operator<<(QDataStream& out, const Outcome& o)
{
    return out << o.parsed << o.opened << o.reopened << o.parseLog << o.openLog << o.reopenLog << o.endedWithMarker
               << o.landedOn;
}

QDataStream& operator>>(QDataStream& in, Outcome& o)
{
    return in >> o.parsed >> o.opened >> o.reopened >> o.parseLog >> o.openLog >> o.reopenLog >> o.endedWithMarker >>
           o.landedOn;
}

void PrintTo(const Outcome& o, std::ostream* out)
{
    *out << "{parsed " << o.parsed << " \"" << o.parseLog.toStdString() << "\", opened " << o.opened << " \""
         << o.openLog.toStdString() << "\", marker " << o.endedWithMarker << ", landed on " << o.landedOn
         << ", reopened " << o.reopened << " \"" << o.reopenLog.toStdString() << "\"}";
}

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
    Outcome expected;
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

const Change kNone;
const Case kCases[] = {
    {"folder", nullptr, false, kNone, kNone, kNone,
     {false, false, false, "Failed to open input for parsing: %1", "", "", false, -2}},
    {"deleted before the first packet", "h264_aac.mp4", false, kNone, [](const QString& p) { QFile::remove(p); }, kNone,
     {true, false, false, "", "File not found: %1", "", false, -2}},
    {"cut to nothing before the first packet", "h264_aac.mp4", false, kNone,
     [](const QString& p) { Truncate(p, 0); }, kNone,
     {true, false, false, "", "Failed to open input for parsing: %1", "", false, -2}},
    // A transport stream cut in half still opens and ends early.
    {"cut in half before the first packet", "mpeg2.ts", false, kNone,
     [](const QString& p) { Truncate(p, QFileInfo(p).size() / 2); }, kNone,
     {true, true, true, "", "", "", true, -1}},
    // The open demuxer keeps reading the file it opened; only a reopening
    // meets the new one, whose streams are not the probed ones.
    {"replaced by a WAV between two jumps", "h264_aac.mp4", false, kNone, kNone,
     [](const QString& p) { Replace(p, "s16_stereo.wav"); },
     {true, true, false, "", "", "Audio stream invalid or not found.", true, 16}},
    {"replaced by another movie between two jumps", "h264_aac.mp4", false, kNone, kNone,
     [](const QString& p) { Replace(p, "mpeg4.mp4"); },
     {true, true, false, "", "", "Failed to find audio stream (Stream not found)", true, 16}},
    {"overwritten in place between two jumps", "mpeg2.ts", false, kNone, kNone,
     [](const QString& p) { Overwrite(p, "mpeg1.mpg"); },
     {true, true, true, "", "", "", true, -1}},
    {"unreadable", "h264_aac.mp4", true, [](const QString& p) { QFile::setPermissions(p, {}); }, kNone, kNone,
     {false, false, false, "Failed to open input for parsing: %1", "", "", false, -2}},
    {"made unreadable before the first packet", "h264_aac.mp4", true, kNone,
     [](const QString& p) { QFile::setPermissions(p, {}); }, kNone,
     {true, false, false, "", "Failed to open input for parsing: %1", "", false, -2}},
};

QString FirstMessage(LogCapture& log, const QString& path)
{
    QString message = log.Messages().value(0);
    log.Clear();
    message.replace(QFileInfo(path).absoluteFilePath(), QStringLiteral("%1"));
    return message.left(message.indexOf(QStringLiteral(" (code ")));
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

Outcome Play(const Case& c, const QString& path)
{
    Outcome o;
    LogCapture log;
    if (c.beforeParse)
        c.beforeParse(path);
    auto info = std::make_shared<MediaInfo>(path);
    o.parsed = MediaReader::ParseMedia(info);
    o.parseLog = FirstMessage(log, path);
    if (!o.parsed)
        return o;
    if (c.beforeOpen)
        c.beforeOpen(path);
    MediaInstance instance;
    instance.Initialize(info, 0);
    o.opened = instance.HasPacket();
    o.openLog = FirstMessage(log, path);
    if (!o.opened) {
        instance.Seek(kStep); // tries to open again: refused as quietly
        return o;
    }
    const Decoded whole = DecodeAll(instance, -1, 2000);
    o.endedWithMarker = !instance.HasPacket() && !whole.video.isEmpty() && !whole.video.last()->data;
    LandOn(instance, 8);
    if (c.betweenSeeks)
        c.betweenSeeks(path);
    o.landedOn = LandOn(instance, 16);
    log.Clear();
    instance.CloseInput();
    o.reopened = instance.HasPacket();
    o.reopenLog = FirstMessage(log, path);
    DecodeAll(instance, -1, 2000);
    return o;
}

// Runs a case as the unprivileged user in a child process and reads its
// outcome back; false when this process cannot become that user.
bool PlayAsNobody(const Case& c, const QString& path, Outcome& outcome)
{
    int channel[2];
    if (pipe(channel) != 0)
        return false;
    const pid_t child = fork();
    if (child == 0) {
        ::close(channel[0]);
        QByteArray bytes;
        const bool dropped = setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
        if (dropped) {
            QDataStream out(&bytes, QIODevice::WriteOnly);
            out << Play(c, path);
        }
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
    QDataStream in(bytes);
    in >> outcome;
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

    Outcome outcome;
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
    EXPECT_EQ(outcome, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, ChangingFiles, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) {
                             std::string name = info.param.name;
                             for (char& ch : name)
                                 ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             return name;
                         });

} // namespace
