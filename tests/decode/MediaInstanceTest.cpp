// MediaInstance as a host drives it: the packet pump over the generated
// files, opening failures with their messages, the audio properties under the
// channel cap, and the lifecycle of instances and their copies.

#include "support/TestMedia.h"

#include <MolvaneAV/AvGlobals.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <functional>
#include <tuple>
#include <vector>

using namespace molvane::test;

namespace {

// Painted indexes 0 .. count - 1, then the end-of-stream marker.
QList<int> WholeMovie(int count)
{
    QList<int> indexes;
    for (int i = 0; i < count; ++i)
        indexes << i;
    return indexes << -2;
}

// Files the process holds open; -1 where the system does not tell.
int OpenFiles()
{
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    return descriptors.exists() ? int(descriptors.count()) : -1;
}

} // namespace

TEST(MediaInstancePump, DeliversEveryPictureOnceInOrderAtItsTimeThenOneMarker)
{
    struct Case {
        const char* file;
        int pictures, width, height;
        double frameRate, frameLength;
        int64_t firstStart;
        int rotation;
    };
    const Case cases[] = {
        {"h264_aac.mp4", 50, 320, 240, 25.0, 40000, 0, 0},
        {"mpeg4.mp4", 50, 320, 240, 25.0, 40000, 0, 0},
        {"mpeg1.mpg", 50, 320, 240, 25.0, 40000, 0, 0},
        {"late_start.ts", 50, 320, 240, 25.0, 40000, 0, 0},
        // Pictures before the stream's zero keep their negative times.
        {"negative_start.ts", 50, 320, 240, 25.0, 40000, -80000, 0},
        {"ntsc.mp4", 60, 320, 240, 29.97, 1001e6 / 30000, 0, 0},
        {"anamorphic.mp4", 25, 1024, 576, 25.0, 40000, 0, 0},
        {"rotated_90.mp4", 25, 320, 240, 25.0, 40000, 0, 90},
        // The larger of two pictures; the subtitles reach no converter.
        {"multi_stream.mkv", 50, 320, 240, 25.0, 40000, 0, 0},
        {"no_packets.mp4", 0, 320, 240, 25.0, 40000, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        auto info = Probe(c.file);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        Decoded decoded;
        for (; instance.HasPacket() && decoded.calls < 10000; ++decoded.calls) {
            instance.DecodePacket(decoded.audio, decoded.video, -1);
            // The audio packets behind the decoded one went along with it.
            EXPECT_FALSE(instance.IsAudioPacket());
        }
        EXPECT_TRUE(instance.IsEndOfFile());
        // Nothing waits any more, so nothing more comes.
        instance.DecodePacket(decoded.audio, decoded.video, -1);
        ASSERT_EQ(PaintedIndexes(decoded.video), WholeMovie(c.pictures));
        for (int i = 0; i < c.pictures; ++i) {
            const DecodedVideoFrame& p = *decoded.video[i];
            ASSERT_EQ(std::tuple(p.width, p.height, p.size, p.frameRate, p.rotation, p.status, p.isLinearColorSpace),
                      std::tuple(c.width, c.height, RowStride(c.width) * c.height, c.frameRate, c.rotation, 0, false))
                << "picture " << i;
            ASSERT_NEAR(double(p.startTime), double(c.firstStart) + i * c.frameLength, 1.0) << "picture " << i;
        }
    }
}

TEST(MediaInstanceOpen, RefusesAnExpiredOrUnprobedSource)
{
    std::weak_ptr<MediaInfo> expired = Probe("h264_aac.mp4");
    LogCapture log;
    MediaInstance instance;
    EXPECT_FALSE(instance.Initialize(expired, 0));
    EXPECT_FALSE(instance.HasPacket());
    MediaInstance unprobed;
    EXPECT_FALSE(unprobed.Initialize(std::make_shared<MediaInfo>(MediaPath("h264_aac.mp4")), 0));
    EXPECT_EQ(log.Messages(), QStringList({"Media info not initialized.",
                                           "Attempted to decode media that does not exist.",
                                           "Media info not initialized."}));
}

TEST(MediaInstanceOpen, FailsWithTheMessageOfWhatIsMissing)
{
    // A codec id renamed at the same length leaves a stream no decoder claims
    // (or, for Vorbis, a set-up header it refuses).
    struct Case {
        const char* file;
        QByteArray codecId, renamed;
        const char* message;
    };
    const Case cases[] = {
        {"h264_aac.mp4", "", "", "File not found: "},
        {"multi_stream.mkv", "A_PCM/INT/LIT", "A_QQQQQQQQQQQ", "Failed to find audio stream (Decoder not found)"},
        {"multi_stream.mkv", "V_MPEG4/ISO/", "V_QQQQQ/ISO/", "Failed to find video stream (Decoder not found)"},
        // Opens half-way: the audio context exists but never opened.
        {"vorbis.webm", "\x05vorbis", "\x05vorbiQ",
         "Failed to open audio decoder. (code -1094995529: Invalid data found when processing input)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        QFile source(MediaPath(c.file));
        ASSERT_TRUE(source.open(QIODevice::ReadOnly));
        QByteArray bytes = source.readAll();
        ASSERT_TRUE(bytes.contains(c.codecId));
        bytes.replace(c.codecId, c.renamed);
        QTemporaryDir dir;
        QFile copy(dir.filePath(QStringLiteral("copy of ") + c.file));
        ASSERT_TRUE(copy.open(QIODevice::WriteOnly));
        copy.write(bytes);
        copy.close();

        auto info = Probe(copy.fileName());
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const bool fileGone = c.codecId.isEmpty();
        if (fileGone) {
            ASSERT_TRUE(copy.remove());
        }
        LogCapture log;
        EXPECT_FALSE(instance.HasPacket());
        EXPECT_EQ(log.Messages(), QStringList(c.message + (fileGone ? copy.fileName() : QString())));
        // Whatever was left half open, later calls are safe and show no picture.
        instance.Seek(500000);
        instance.Seek(0);
        EXPECT_TRUE(DecodeAll(instance, -1, 200).video.isEmpty());
    }
}

TEST(MediaInstanceOpen, ReportsTheActiveStreamsAndTheSourceAudioPropertiesUnderTheChannelCap)
{
    struct Case {
        const char* file;
        int audio, video, channels, sampleRate, bytesPerSample;
        bool planar, largeSeekOffset;
    };
    const Case cases[] = {
        {"mpeg4.mp4", -1, 0, 0, 0, 0, false, false},
        {"u8_stereo.wav", 0, -1, 2, 22050, 1, false, false},
        {"multi_stream.mkv", 2, 0, 2, 48000, 2, false, false},
        {"mpeg1.mpg", 1, 0, 2, 48000, 2, true, true},
        {"h264_aac.mp4", 1, 0, 2, 48000, 4, true, false},
        {"s16_stereo.wav", 0, -1, 2, 48000, 2, false, false},
        {"six_channels.wav", 0, -1, 6, 48000, 2, false, false},
    };
    std::vector<std::shared_ptr<MediaInstance>> instances;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        auto info = Probe(c.file);
        instances.push_back(std::make_shared<MediaInstance>());
        MediaInstance& instance = *instances.back();
        ASSERT_TRUE(instance.Initialize(info, 0));
        ASSERT_TRUE(instance.HasPacket());
        EXPECT_EQ(std::tuple(instance.GetActiveAudioStreamIndex(), instance.GetActiveVideoStreamIndex(),
                             instance.GetChannelCount(), instance.GetSampleRate(), instance.GetBytesPerSample(),
                             instance.IsPlaner(), instance.RequiresLargeSeekOffset()),
                  std::tuple(c.audio, c.video, c.channels, c.sampleRate, c.bytesPerSample, c.planar,
                             c.largeSeekOffset));
        if (c.audio < 0 || c.video < 0) {
            EXPECT_EQ(instance.IsAudioPacket(), c.video < 0);
        }
    }

    const auto aac = instances[4], stereo = instances[5], six = instances[6];
    struct Cap {
        int cap, sixOutput;
        bool sixMatchesStereo;
    };
    // A cap of 0, the value before the host sets one, means no cap.
    for (const Cap& c : {Cap{0, 6, false}, Cap{2, 2, true}, Cap{4, 4, false}, Cap{8, 6, false}}) {
        SCOPED_TRACE(c.cap);
        ChannelCap cap(c.cap);
        EXPECT_EQ(six->GetChannelCount(), 6);
        EXPECT_EQ(six->GetOutputChannelCount(), c.sixOutput);
        EXPECT_EQ(stereo->GetOutputChannelCount(), std::min(2, c.sixOutput));
        EXPECT_EQ(six->IsAudioMatched(stereo), c.sixMatchesStereo);
        // Same channels and rate, but float planar against 16-bit interleaved.
        EXPECT_FALSE(stereo->IsAudioMatched(aac));
        EXPECT_TRUE(aac->IsAudioMatched(aac));
        EXPECT_FALSE(six->IsAudioMatched(nullptr));
    }
}

TEST(MediaInstanceLifecycle, ClosingReopensFromTheStartAndReleasesTheFile)
{
    auto info = Probe("h264_aac.mp4");
    const int openFiles = OpenFiles();
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    ASSERT_FALSE(PaintedIndexes(DecodeAll(instance, -1, 20).video).isEmpty());
    instance.CloseInput();
    instance.CloseInput();
    EXPECT_EQ(OpenFiles(), openFiles);
    EXPECT_EQ(PaintedIndexes(DecodeAll(instance).video), WholeMovie(50));

    // A cleared packet is gone until a seek reads again; past the end, a
    // seek leaves the end behind.
    instance.Seek(0);
    ASSERT_TRUE(instance.HasPacket());
    instance.ClearPacket();
    instance.ClearPacket();
    EXPECT_FALSE(instance.HasPacket());
    EXPECT_FALSE(instance.IsEndOfFile());
    instance.Seek(0);
    EXPECT_EQ(PaintedIndexes(DecodeAll(instance).video), WholeMovie(50));
    EXPECT_TRUE(instance.IsEndOfFile());
    instance.Seek(0);
    EXPECT_FALSE(instance.IsEndOfFile());
    EXPECT_TRUE(instance.HasPacket());

    // Initialize again starts afresh on another source.
    auto other = Probe("mpeg4.mp4");
    ASSERT_TRUE(instance.Initialize(other, 0));
    EXPECT_EQ(PaintedIndexes(DecodeAll(instance).video), WholeMovie(50));
    instance.Shutdown();
    instance.Shutdown();
    EXPECT_EQ(OpenFiles(), openFiles);
    EXPECT_FALSE(instance.HasPacket());
    Decoded none;
    instance.DecodePacket(none.audio, none.video, -1);
    EXPECT_TRUE(none.video.isEmpty() && none.audio.isEmpty());
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
        SCOPED_TRACE(fate);
        auto original = std::make_unique<MediaInstance>();
        ASSERT_TRUE(original->Initialize(info, 0));
        const Decoded first = DecodeAll(*original, -1, 20);
        auto copy = std::make_unique<MediaInstance>(*original);
        MediaInstance survivor;
        survivor = *copy;
        copy.reset();
        fates[fate](original);
        EXPECT_EQ(PaintedIndexes(first.video + DecodeAll(survivor).video), WholeMovie(50));
        // A closed original opens the file afresh, on objects of its own.
        if (fate == 1) {
            EXPECT_EQ(PaintedIndexes(DecodeAll(*original).video), WholeMovie(50));
        }
    }
}
