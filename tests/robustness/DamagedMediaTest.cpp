// Damaged copies of small clips of every container and codec the library
// meets, played as a host plays them: probe, decode to the end under a packet
// budget, seek around, and pass everything through both frame caches. None
// may crash or run away; what each copy gives is recorded in one table, so a
// change in how the library copes with broken input shows in review.

#include <MolvaneAV/MediaReader.h>

#include "support/HostSession.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

using namespace molvane::test;

namespace {

using Bytes = QByteArray;
constexpr int kBudget = 5000; // packet calls; no intact clip needs a hundred
constexpr int kSecond = 1000000;

// Each damage draws from its own generator with a fixed seed. Only the raw
// engine output is used: distributions differ between standard libraries.
struct Damage {
    const char* name;
    Bytes (*apply)(Bytes bytes, std::mt19937& random);
};
const Damage kDamages[] = {
    {"intact", [](Bytes b, std::mt19937&) { return b; }},
    {"cut at 10%", [](Bytes b, std::mt19937&) { return b.left(b.size() / 10); }},
    {"cut at 50%", [](Bytes b, std::mt19937&) { return b.left(b.size() / 2); }},
    {"cut at 90%", [](Bytes b, std::mt19937&) { return b.left(b.size() * 9 / 10); }},
    {"40 bit flips past the first 10%",
     [](Bytes b, std::mt19937& random) {
         for (int flip = 0; flip < 40; ++flip) {
             const int at = b.size() / 10 + int(random() % uint32_t(b.size() - b.size() / 10));
             b[at] = char(b[at] ^ (1 << (random() % 8)));
         }
         return b;
     }},
    {"a sixteenth zeroed in the middle",
     [](Bytes b, std::mt19937&) { return b.replace(b.size() / 2, b.size() / 16, Bytes(b.size() / 16, 0)); }},
    {"first 64 bytes zeroed", [](Bytes b, std::mt19937&) { return b.replace(0, 64, Bytes(64, 0)); }},
    {"first 256 bytes random",
     [](Bytes b, std::mt19937& random) {
         for (int i = 0; i < 256; ++i)
             b[i] = char(random());
         return b;
     }},
    {"a tenth from a third on spliced in twice",
     [](Bytes b, std::mt19937&) { return b.insert(b.size() / 3, b.mid(b.size() / 3, b.size() / 10)); }},
};
constexpr size_t kDamageCount = std::size(kDamages);

// What each copy gave: "refused" when probing or opening fails, else the
// pictures with data and the sample frames of the whole-file decode. Columns
// follow kDamages: intact; cut at 10%, 50%, 90%; bit flips; zeroed middle;
// zeroed start; random start; spliced. A null entry is played but not compared.
struct Outcomes {
    const char* clip;
    std::array<const char*, kDamageCount> outcomes;
};
const Outcomes kOutcomes[] = {
    // The index is at the end of this MP4: every cut loses it, and the splice
    // moves it away from where the header says. The bit flips break the last
    // packet; with frame threads its error comes out of the final drain and
    // ends it, so the last two pictures and the end marker are lost on two or
    // more cores (45 pictures) but not on one (47): not compared.
    {"h264_aac.mp4",
     {"50 pictures, 96256 samples", "refused", "refused", "refused", nullptr, "47 pictures, 90112 samples", "refused",
      "refused", "refused"}},
    {"hevc_open_gop.mkv",
     {"75 pictures, 0 samples", "0 pictures, 0 samples", "29 pictures, 0 samples", "69 pictures, 0 samples",
      "74 pictures, 0 samples", "59 pictures, 0 samples", "refused", "refused", "75 pictures, 0 samples"}},
    // The flips hit the Vorbis setup header: the audio decoder cannot open.
    {"vp9_vorbis.webm",
     {"25 pictures, 44608 samples", "refused", "8 pictures, 13888 samples", "24 pictures, 42560 samples", "refused",
      "21 pictures, 38464 samples", "refused", "refused", "19 pictures, 33344 samples"}},
    {"mpeg2.ts",
     {"25 pictures, 48384 samples", "4 pictures, 2304 samples", "13 pictures, 23040 samples",
      "25 pictures, 43776 samples", "25 pictures, 48384 samples", "22 pictures, 43776 samples",
      "25 pictures, 48384 samples", "25 pictures, 48384 samples", "27 pictures, 52992 samples"}},
    {"mpeg1.mpg",
     {"50 pictures, 96768 samples", "10 pictures, 4608 samples", "37 pictures, 36864 samples",
      "50 pictures, 81792 samples", "50 pictures, 96768 samples", "48 pictures, 88704 samples",
      "38 pictures, 96768 samples", "38 pictures, 96768 samples", "55 pictures, 104832 samples"}},
    {"s16_stereo.wav",
     {"0 pictures, 72000 samples", "0 pictures, 7190 samples", "0 pictures, 35994 samples",
      "0 pictures, 64798 samples", "0 pictures, 72000 samples", "0 pictures, 72000 samples", "refused", "refused",
      "0 pictures, 72000 samples"}},
    // A broken start loses the frame that tells the encoder delay and padding:
    // nothing is trimmed then.
    {"tone.mp3",
     {"0 pictures, 88200 samples", "0 pictures, 8111 samples", "0 pictures, 43823 samples",
      "0 pictures, 80687 samples", "0 pictures, 88200 samples", "0 pictures, 81839 samples",
      "0 pictures, 89856 samples", "0 pictures, 88704 samples", "0 pictures, 95663 samples"}},
};

// Both caches fed as a host feeds them, and buffers taken at a few speeds and volumes.
void PassThroughCaches(const Decoded& decoded, int64_t step, int64_t duration, int channels, int rate)
{
    DecodedVideo video;
    const auto& first = decoded.video.isEmpty() ? nullptr : decoded.video.first();
    const int width = first ? std::max(1, first->width) : 1, height = first ? std::max(1, first->height) : 1;
    video.SetMaxCacheSize(32LL * RowStride(width) * height, width, height, 3);
    DecodedAudio audio;
    audio.SetMaxFrameCount(256);
    FeedCaches(video, audio, decoded, step, duration, audio.GetStartTime(), std::max(1, channels), std::max(8000, rate),
               {{1.0, 1.0}, {2.0, 0.5}, {0.5, 1.5}, {1.0, 0.25}});
}

std::string Play(const QString& path)
{
    auto info = std::make_shared<MediaInfo>(path);
    MediaInstance instance;
    if (!MediaReader::ParseMedia(info) || !instance.Initialize(info, 0) || !instance.HasPacket())
        return "refused";
    VideoStream stream;
    info->GetVideoStream(instance.GetActiveVideoStreamIndex(), stream);
    // A broken header can claim any length: keep the seek targets sane.
    const int64_t step = stream.frameStep > 0 ? stream.frameStep : 40000;
    const int64_t duration = std::clamp<int64_t>(info->GetDuration(), 0, 3600LL * kSecond);
    const auto feed = [&](const Decoded& decoded) {
        PassThroughCaches(decoded, step, duration, instance.GetOutputChannelCount(), instance.GetSampleRate());
    };
    const Decoded whole = DecodeAll(instance, -1, kBudget);
    EXPECT_FALSE(instance.HasPacket()) << "no end after " << whole.calls << " packet calls";
    // Counted before the caches, which rewrite times and sample counts in place.
    int pictures = 0, placeholders = 0;
    int64_t samples = 0;
    for (const auto& frame : whole.video) {
        EXPECT_TRUE(!frame->data || frame->status || frame->size == RowStride(frame->width) * frame->height);
        pictures += frame->data ? 1 : 0;
        placeholders += frame->status == 1 ? 1 : 0;
    }
    for (const auto& frame : whole.audio)
        samples += frame->samplesPerChannel;
    feed(whole);
    for (const int64_t target : {int64_t(0), duration / 2, duration - kSecond / 10, duration + kSecond}) {
        instance.Seek(target);
        feed(DecodeAll(instance, target, 40));
    }
    return std::to_string(pictures) + " pictures, " + std::to_string(samples) + " samples" +
           (placeholders ? ", " + std::to_string(placeholders) + " size changes" : "");
}

TEST(DamagedMedia, EveryDamagedCopyEndsWithinItsBudgetAndGivesItsRecordedOutcome)
{
    LogCapture quiet; // broken input makes the library complain; the table is what counts
    for (const Outcomes& row : kOutcomes) {
        QFile file(MediaPath(row.clip));
        QTemporaryDir dir;
        ASSERT_TRUE(file.open(QIODevice::ReadOnly) && dir.isValid());
        const Bytes original = file.readAll();
        std::string actualRow;
        bool differs = false;
        for (size_t d = 0; d < kDamageCount; ++d) {
            SCOPED_TRACE(std::string(row.clip) + ", " + kDamages[d].name);
            std::mt19937 random(20240611u + unsigned(d));
            QFile damaged(dir.filePath(QString::number(d) + "_" + row.clip));
            ASSERT_TRUE(damaged.open(QIODevice::WriteOnly) && damaged.write(kDamages[d].apply(original, random)) > 0);
            damaged.close();
            const std::string outcome = Play(damaged.fileName());
            actualRow += "\"" + outcome + "\", ";
            differs |= row.outcomes[d] && outcome != row.outcomes[d];
        }
        EXPECT_FALSE(differs) << row.clip << "'s row now reads {" << actualRow << "}";
    }
}

} // namespace
