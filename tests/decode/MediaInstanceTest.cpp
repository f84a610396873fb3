// MediaInstance as a host drives it: the packet pump over the generated
// files, opening failures with their messages, the audio properties under the
// channel cap, and the lifecycle of instances and their copies.

#include "support/DecodeSummary.h"

#include <QTemporaryDir>

#include <functional>

using namespace molvane::test;

namespace {

// Files the process holds open; -1 where the system does not tell.
int OpenFiles()
{
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    return descriptors.exists() ? int(descriptors.count()) : -1;
}

// A file's active streams and source audio, then everything an instance
// decodes of it without a target: the pictures, what they all share (size,
// rate, rotation; RGB24 records with padded rows) and the first one's start,
// or the first that breaks the pattern, each starting a frame after the last
// (as far as the rate, rounded to 0.001 fps, tells: 0.05 µs a frame).
std::string Pump(const QString& file)
{
    MediaInstance instance;
    const auto info = Probe(file);
    EXPECT_TRUE(instance.Initialize(info, 0));
    EXPECT_TRUE(instance.HasPacket());
    if (instance.GetActiveAudioStreamIndex() < 0 || instance.GetActiveVideoStreamIndex() < 0) {
        EXPECT_EQ(instance.IsAudioPacket(), instance.GetActiveVideoStreamIndex() < 0) << file.toStdString();
    }
    QString text = QString("a%1 v%2 %3ch %4Hz %5B%6%7;")
                       .arg(instance.GetActiveAudioStreamIndex()).arg(instance.GetActiveVideoStreamIndex())
                       .arg(instance.GetChannelCount()).arg(instance.GetSampleRate()).arg(instance.GetBytesPerSample())
                       .arg(instance.IsPlaner() ? " planar" : "")
                       .arg(instance.RequiresLargeSeekOffset() ? " early" : "");
    Decoded decoded;
    for (; instance.HasPacket() && decoded.calls < 10000; ++decoded.calls) {
        instance.DecodePacket(decoded.audio, decoded.video, -1);
        // The audio packets behind the decoded one went along with it.
        EXPECT_FALSE(instance.IsAudioPacket());
    }
    EXPECT_TRUE(instance.IsEndOfFile());
    // Nothing waits any more, so nothing more comes.
    instance.DecodePacket(decoded.audio, decoded.video, -1);
    text += " " + QString::fromStdString(Pictures(decoded.video));
    QString first;
    for (int i = 0; i + 1 < decoded.video.size(); ++i) {
        const DecodedVideoFrame& p = *decoded.video[i];
        const QString shared = QString(" %1x%2 %3fps %4°").arg(p.width).arg(p.height).arg(p.frameRate).arg(p.rotation);
        const bool record = p.size == RowStride(p.width) * p.height && p.status == 0 && !p.isLinearColorSpace;
        const double late = double(p.startTime - decoded.video[0]->startTime) - i * 1e6 / p.frameRate;
        if (i > 0 && (!record || shared != first || std::abs(late) > 1.0 + i * 0.05))
            return (text + QString(" not %1: %2 %3").arg(i).arg(shared).arg(late)).toStdString();
        if (i == 0)
            text += (first = shared) + QString(" from %1").arg(p.startTime);
    }
    return text.toStdString();
}

} // namespace

TEST(MediaInstancePump, DeliversEveryPictureOnceInOrderAtItsTimeThenOneMarker)
{
    const char* const h264 = "0-49 end 320x240 25fps 0° from 0";
    const std::pair<const char*, std::string> cases[] = {
        {"h264_aac.mp4", std::string("a1 v0 2ch 48000Hz 4B planar; ") + h264},
        {"mpeg4.mp4", std::string("a-1 v0 0ch 0Hz 0B; ") + h264},
        {"mpeg1.mpg", std::string("a1 v0 2ch 48000Hz 2B planar early; ") + h264},
        {"late_start.ts", std::string("a1 v0 2ch 48000Hz 2B planar; ") + h264},
        // Pictures before the stream's zero keep their negative times.
        {"negative_start.ts", "a-1 v0 0ch 0Hz 0B; 0-49 end 320x240 25fps 0° from -80000"},
        {"ntsc.mp4", "a-1 v0 0ch 0Hz 0B; 0-59 end 320x240 29.97fps 0° from 0"},
        {"anamorphic.mp4", "a-1 v0 0ch 0Hz 0B; 0-24 end 1024x576 25fps 0° from 0"},
        {"rotated_90.mp4", "a-1 v0 0ch 0Hz 0B; 0-24 end 320x240 25fps 90° from 0"},
        // The larger of two pictures; the subtitles reach no converter.
        {"multi_stream.mkv", std::string("a2 v0 2ch 48000Hz 2B; ") + h264},
        {"no_packets.mp4", "a-1 v0 0ch 0Hz 0B; end"},
        {"u8_stereo.wav", "a0 v-1 2ch 22050Hz 1B; "},
        {"six_channels.wav", "a0 v-1 6ch 48000Hz 2B; "},
    };
    for (const auto& [file, expected] : cases)
        EXPECT_EQ(Pump(file), expected) << file;
}

TEST(MediaInstanceOpen, FailsWithTheMessageOfWhatIsMissing)
{
    // A codec id renamed at the same length leaves a stream no decoder claims
    // (or, for Vorbis, a set-up header it refuses); an empty id means the
    // file is gone after probing.
    const struct {
        const char* file;
        QByteArray codecId, renamed;
        const char* message;
    } cases[] = {
        {"h264_aac.mp4", "", "", "File not found: "},
        {"multi_stream.mkv", "A_PCM/INT/LIT", "A_QQQQQQQQQQQ", "Failed to find audio stream (Decoder not found)"},
        {"multi_stream.mkv", "V_MPEG4/ISO/", "V_QQQQQ/ISO/", "Failed to find video stream (Decoder not found)"},
        // Opens half-way: the audio context exists but never opened.
        {"vorbis.webm", "\x05vorbis", "\x05vorbiQ",
         "Failed to open audio decoder. (code -1094995529: Invalid data found when processing input)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        QTemporaryDir dir;
        const QByteArray bytes = ReadFile(c.file);
        ASSERT_TRUE(bytes.contains(c.codecId));
        const QString copy = WriteFile(dir.filePath(c.file), QByteArray(bytes).replace(c.codecId, c.renamed));
        MediaInstance instance;
        const auto info = Probe(copy);
        ASSERT_TRUE(instance.Initialize(info, 0));
        ASSERT_TRUE(!c.codecId.isEmpty() || QFile::remove(copy));
        LogCapture log;
        EXPECT_FALSE(instance.HasPacket());
        EXPECT_EQ(log.Messages(), QStringList(c.message + (c.codecId.isEmpty() ? copy : QString())));
        // Whatever was left half open, later calls are safe and show no picture.
        instance.Seek(500000);
        instance.Seek(0);
        EXPECT_TRUE(DecodeAll(instance, -1, 200).video.isEmpty());
    }
    // Nor does an expired or unprobed source open.
    LogCapture log;
    MediaInstance instance;
    const std::weak_ptr<MediaInfo> expired = Probe("h264_aac.mp4");
    EXPECT_FALSE(instance.Initialize(expired, 0) || instance.HasPacket());
    EXPECT_FALSE(instance.Initialize(std::make_shared<MediaInfo>(MediaPath("h264_aac.mp4")), 0));
    EXPECT_EQ(log.Messages(), QStringList({"Media info not initialized.",
                                           "Attempted to decode media that does not exist.",
                                           "Media info not initialized."}));
}

TEST(MediaInstanceOpen, AudioMatchesUnderTheChannelCap)
{
    const auto open = [](const char* file) {
        auto instance = std::make_shared<MediaInstance>();
        EXPECT_TRUE(instance->Initialize(Probe(file), 0) && instance->HasPacket()) << file;
        return instance;
    };
    const auto aac = open("h264_aac.mp4"), stereo = open("s16_stereo.wav"), six = open("six_channels.wav");
    // A cap of 0, the value before the host sets one, means no cap. Float
    // planar never matches 16-bit interleaved of the same channels and rate.
    for (const auto& [cap, sixOutput, sixMatchesStereo] : {std::tuple{0, 6, false}, {2, 2, true}, {4, 4, false},
                                                           {8, 6, false}}) {
        ChannelCap setting(cap);
        EXPECT_EQ(std::tuple(six->GetChannelCount(), six->GetOutputChannelCount(), stereo->GetOutputChannelCount(),
                             six->IsAudioMatched(stereo)),
                  std::tuple(6, sixOutput, std::min(2, sixOutput), sixMatchesStereo)) << "cap " << cap;
        EXPECT_TRUE(!stereo->IsAudioMatched(aac) && aac->IsAudioMatched(aac) && !six->IsAudioMatched(nullptr));
    }
}

TEST(MediaInstanceLifecycle, ClosingReopensFromTheStartAndReleasesTheFile)
{
    const int openFiles = OpenFiles();
    MediaInstance instance;
    const auto info = Probe("h264_aac.mp4");
    ASSERT_TRUE(instance.Initialize(info, 0));
    ASSERT_EQ(Pictures(DecodeAll(instance, -1, 20).video).substr(0, 2), "0-");
    instance.CloseInput();
    instance.CloseInput();
    EXPECT_EQ(OpenFiles(), openFiles);
    EXPECT_EQ(Pictures(DecodeAll(instance).video), "0-49 end");
    // A cleared packet is gone until a seek reads again; past the end, a
    // seek leaves the end behind.
    instance.Seek(0);
    ASSERT_TRUE(instance.HasPacket());
    instance.ClearPacket();
    instance.ClearPacket();
    EXPECT_FALSE(instance.HasPacket() || instance.IsEndOfFile());
    instance.Seek(0);
    EXPECT_EQ(Pictures(DecodeAll(instance).video), "0-49 end");
    EXPECT_TRUE(instance.IsEndOfFile());
    instance.Seek(0);
    EXPECT_TRUE(!instance.IsEndOfFile() && instance.HasPacket());
    // Initialize again starts afresh on another source; Shutdown lets go of
    // it all, and whatever comes after it is safe.
    const auto other = Probe("mpeg4.mp4");
    ASSERT_TRUE(instance.Initialize(other, 0));
    EXPECT_EQ(Pictures(DecodeAll(instance).video), "0-49 end");
    instance.Shutdown();
    instance.Shutdown();
    instance.CloseInput();
    EXPECT_EQ(OpenFiles(), openFiles);
    Decoded none;
    instance.DecodePacket(none.audio, none.video, -1);
    EXPECT_TRUE(!instance.HasPacket() && none.video.isEmpty() && none.audio.isEmpty());
}

// A copy shares the open input, packet and converters: it goes on decoding
// where the original stopped, whatever becomes of the original.
TEST(MediaInstanceLifecycle, CopyDecodesTheRestWhateverBecomesOfTheOriginal)
{
    auto info = Probe("h264_aac.mp4");
    const std::function<void(std::unique_ptr<MediaInstance>&)> fates[] = {
        [](auto& original) { original.reset(); },
        [](auto& original) { original->CloseInput(); },
        [](auto& original) { original->Shutdown(); },
        [](auto& original) { *original = MediaInstance(); },
    };
    for (size_t fate = 0; fate < std::size(fates); ++fate) {
        auto original = std::make_unique<MediaInstance>();
        ASSERT_TRUE(original->Initialize(info, 0));
        const Decoded first = DecodeAll(*original, -1, 20);
        auto copy = std::make_unique<MediaInstance>(*original);
        MediaInstance survivor;
        survivor = *copy;
        copy.reset();
        fates[fate](original);
        EXPECT_EQ(Pictures(first.video + DecodeAll(survivor).video), "0-49 end") << "fate " << fate;
        // A closed original opens the file afresh, on objects of its own.
        if (fate == 1) {
            EXPECT_EQ(Pictures(DecodeAll(*original).video), "0-49 end");
        }
    }
}
