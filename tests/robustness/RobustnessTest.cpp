// The library's promise on bad input: no crash, no hang. Damaged copies of
// small clips of every container and codec the library meets, played as a
// host plays them; files that change under the library while a host uses
// them (a path that names a folder, a file deleted or cut between probing and
// the first packet, a file replaced between two jumps). What each damaged
// copy or change gave is recorded in a table, so a change in how the library
// copes shows in review.

#include <MolvaneAV/MediaReader.h>

#include "support/DecodeSummary.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <functional>
#include <random>
#include <regex>
#include <string>

using namespace molvane::test;

namespace {

using Bytes = QByteArray;
constexpr int64_t kStep = 40000; // one picture at 25 fps
constexpr int kSecond = 1000000;

// Damage d of a file: intact; cut at 10%, 50%, 90%; 40 bit flips past the
// first 10%; a sixteenth zeroed in the middle; the first 64 bytes zeroed; a
// tenth from a third on spliced in twice. The flips use only the raw engine
// output: distributions differ between standard libraries.
Bytes Damage(Bytes b, int d)
{
    std::mt19937 random(20240615u);
    const int n = b.size();
    if (d >= 1 && d <= 3)
        return b.left(n * (4 * d - 3) / 10);
    for (int flip = 0; d == 4 && flip < 40; ++flip) {
        const int at = n / 10 + int(random() % uint32_t(n - n / 10));
        b[at] = char(b[at] ^ (1 << (random() % 8)));
    }
    return d == 5   ? b.replace(n / 2, n / 16, Bytes(n / 16, 0))
           : d == 6 ? b.replace(0, 64, Bytes(64, 0))
           : d == 7 ? b.insert(n / 3, b.mid(n / 3, n / 10))
                    : b;
}

// Per clip, as a pattern, what each damage gave in the order above:
// "refused" when probing or opening fails, else "pictures/sample frames" of
// the whole-file decode.
const std::pair<const char*, const char*> kOutcomes[] = {
    // The index is at the end of this MP4: every cut loses it, and the splice
    // moves it away from where the header says. The bit flips break the last
    // packet; with frame threads its error comes out of the final drain and
    // ends it, so the last two pictures and the end marker are lost on two or
    // more cores (45) but not on one (47).
    {"h264_aac.mp4", "50/96256 refused refused refused 4[57]/87040 47/90112 refused refused"},
    {"hevc_open_gop.mkv", "75/0 0/0 29/0 69/0 74/0 59/0 refused 75/0"},
    // The flips hit the Vorbis setup header: the audio decoder cannot open.
    {"vp9_vorbis.webm", "25/44608 refused 8/13888 24/42560 refused 21/38464 refused 19/33344"},
    {"mpeg2.ts", "25/48384 4/2304 13/23040 25/43776 25/48384 22/43776 25/48384 27/52992"},
    {"mpeg1.mpg", "50/96768 10/4608 37/36864 50/81792 50/96768 48/88704 38/96768 55/104832"},
    {"s16_stereo.wav", "0/72000 0/7190 0/35994 0/64798 0/72000 0/72000 refused 0/72000"},
    // A broken start loses the frame that tells the encoder delay and padding:
    // nothing is trimmed then.
    {"tone.mp3", "0/88200 0/8111 0/43823 0/80687 0/88200 0/81839 0/89856 0/95663"},
};

std::string Play(const QString& path)
{
    auto info = std::make_shared<MediaInfo>(path);
    MediaInstance instance;
    if (!MediaReader::ParseMedia(info) || !instance.Initialize(info, 0) || !instance.HasPacket())
        return "refused";
    const Decoded whole = DecodeAll(instance, -1, 5000); // packet calls; no intact clip needs a hundred
    EXPECT_FALSE(instance.HasPacket()) << path.toStdString() << ": no end after " << whole.calls << " packet calls";
    // A picture whose bytes disagree with its size is not counted.
    const auto pictures = std::count_if(whole.video.begin(), whole.video.end(), [](const auto& frame) {
        return frame->data && (frame->status || frame->size == RowStride(frame->width) * frame->height);
    });
    int64_t samples = 0;
    for (const auto& frame : whole.audio)
        samples += frame->samplesPerChannel;
    // A broken header can claim any length: keep the seek targets sane.
    const int64_t duration = std::clamp<int64_t>(info->GetDuration(), 0, 3600LL * kSecond);
    for (const int64_t target : {int64_t(0), duration / 2, duration - kSecond / 10, duration + kSecond}) {
        instance.Seek(target);
        DecodeAll(instance, target, 40);
    }
    return std::to_string(pictures) + "/" + std::to_string(samples);
}

TEST(DamagedMedia, EveryDamagedCopyEndsWithinItsBudgetAndGivesItsRecordedOutcome)
{
    LogCapture quiet; // broken input makes the library complain; the table is what counts
    QTemporaryDir dir;
    for (const auto& [clip, expected] : kOutcomes) {
        const Bytes original = ReadFile(clip);
        std::string outcomes;
        for (int d = 0; d < 8; ++d) {
            const QString copy = dir.filePath(QString::number(d) + "_" + clip);
            outcomes += (d ? " " : "") + Play(WriteFile(copy, Damage(original, d)));
        }
        EXPECT_TRUE(std::regex_match(outcomes, std::regex(expected))) << clip << ": " << outcomes;
    }
}

using Change = std::function<void(const QString& path)>;

// Another file's bytes under the path: in a new file, while the open demuxer
// keeps the old, unlinked inode; or written in place, where the open demuxer
// reads them at its old offsets.
Change ReplaceBy(const char* clip, bool inPlace = false)
{
    return [=](const QString& path) {
        if (!inPlace)
            QFile::remove(path);
        WriteFile(path, ReadFile(clip));
    };
}

struct Case {
    const char* name;
    const char* clip; // copied to the path first; null: the path is a folder
    Change beforeOpen, betweenSeeks;
    const char* expected; // what the host saw at each step, as PlayChanging tells it
};

const Case kCases[] = {
    {"folder", nullptr, {}, {}, "refused: Failed to open input for parsing: %1"},
    {"deleted before the first packet", "h264_aac.mp4", [](const QString& p) { QFile::remove(p); }, {},
     "probed; not opened: File not found: %1"},
    {"cut to nothing before the first packet", "h264_aac.mp4", [](const QString& p) { QFile::resize(p, 0); }, {},
     "probed; not opened: Failed to open input for parsing: %1"},
    // Only a reopening meets the new file, whose streams are not the probed ones.
    {"replaced by a WAV between two jumps", "h264_aac.mp4", {}, ReplaceBy("s16_stereo.wav"),
     "probed; opened; ended with its marker; jump after the change: landed; "
     "not reopened: Audio stream invalid or not found."},
    {"replaced by another movie between two jumps", "h264_aac.mp4", {}, ReplaceBy("mpeg4.mp4"),
     "probed; opened; ended with its marker; jump after the change: landed; "
     "not reopened: Failed to find audio stream (Stream not found)"},
    {"overwritten in place between two jumps", "mpeg2.ts", {}, ReplaceBy("mpeg1.mpg", true),
     "probed; opened; ended with its marker; jump after the change: no picture; reopened"},
};

// Probes, opens, decodes to the end, jumps, reopens, with the case's changes
// in between; tells what each step gave up to the first refusal, with what
// the refusing step logged: the path as %1, FFmpeg codes left off.
QString PlayChanging(const Case& c, const QString& path)
{
    LogCapture log;
    const auto refusal = [&](const char* step) {
        QString told = step + (": " + log.Messages().join(QStringLiteral(" | ")));
        told.replace(QFileInfo(path).absoluteFilePath(), QStringLiteral("%1"));
        return told.remove(QRegularExpression(QStringLiteral(R"( \(code [^|]*\))")));
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
        const auto video = DecodeAll(instance, index * kStep, 60).video;
        return std::any_of(video.begin(), video.end(), [&](const auto& p) { return PaintedIndex(*p) == index; });
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
        EXPECT_EQ(PlayChanging(c, path).toStdString(), c.expected) << c.name;
    }
}

} // namespace
