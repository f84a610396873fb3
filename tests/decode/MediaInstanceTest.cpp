// MediaInstance as a host drives it: opening failures with their messages,
// audio matching under the channel cap, and the lifecycle of instances and
// their copies.

#include "support/DecodeSummary.h"

#include <QTemporaryDir>

#include <functional>

using namespace molvane::test;

namespace {

// The files the process holds open ("fd") or its threads ("task").
int Held(const char* what)
{
    return int(QDir(QStringLiteral("/proc/self/") + what).count());
}

} // namespace

TEST(MediaInstanceOpen, FailsWithTheMessageOfWhatIsMissing)
{
    // A codec id renamed at the same length after probing leaves a stream no
    // decoder claims (or, for Vorbis, a set-up header it refuses; Theora
    // finds the set-up headers of MPEG-4); an empty id means the file is gone.
    const std::tuple<const char*, QByteArray, QByteArray, QString> rows[] = {
        {"h264_aac.mp4", "", "", "File not found: "},
        {"multi_stream.mkv", "A_PCM/INT/LIT", "A_QQQQQQQQQQQ", "Failed to find audio stream (Decoder not found)"},
        {"multi_stream.mkv", "V_MPEG4/ISO/", "V_QQQQQ/ISO/", "Failed to find video stream (Decoder not found)"},
        {"multi_stream.mkv", "MPEG4/ISO/AVC", QByteArray("THEORA\0\0\0\0\0\0\0", 13), "Failed to open video decoder."},
        // Opens half-way: the audio context exists but never opened.
        {"vorbis.webm", "\x05vorbis", "\x05vorbiQ",
         "Failed to open audio decoder. (code -1094995529: Invalid data found when processing input)"},
    };
    for (const auto& [file, id, renamed, message] : rows) {
        SCOPED_TRACE(message.toStdString());
        QTemporaryDir dir;
        const QByteArray bytes = ReadFile(file);
        ASSERT_TRUE(bytes.contains(id));
        const QString copy = WriteFile(dir.filePath(file), bytes);
        const auto info = Probe(copy);
        WriteFile(copy, QByteArray(bytes).replace(id, renamed));
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        ASSERT_TRUE(!id.isEmpty() || QFile::remove(copy));
        LogCapture log;
        EXPECT_FALSE(instance.HasPacket());
        EXPECT_EQ(log.Messages(), QStringList(message + (id.isEmpty() ? copy : QString())));
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
    for (const auto& [cap, sixMatchesStereo] : {std::pair{0, false}, {2, true}, {4, false}}) {
        ChannelCap setting(cap);
        EXPECT_EQ(six->IsAudioMatched(stereo), sixMatchesStereo) << "cap " << cap;
        EXPECT_TRUE(!stereo->IsAudioMatched(aac) && aac->IsAudioMatched(aac) && !six->IsAudioMatched(nullptr));
    }
}

TEST(MediaInstanceLifecycle, ClosingReopensFromTheStartAndReleasesTheFile)
{
    const int openFiles = Held("fd"), threads = Held("task");
    MediaInstance instance;
    const auto info = Probe("h264_aac.mp4");
    ASSERT_TRUE(instance.Initialize(info, 0));
    ASSERT_EQ(Pictures(DecodeAll(instance, -1, 20).video).substr(0, 2), "0-");
    instance.CloseInput();
    instance.CloseInput();
    EXPECT_EQ(Held("fd"), openFiles);
    EXPECT_EQ(Held("task"), threads); // the decoders' threads end with them
    EXPECT_EQ(Pictures(DecodeAll(instance).video), "0-49 end");
    // A cleared packet is gone until a seek reads again; past the end, a
    // seek leaves the end behind.
    instance.Seek(0);
    instance.ClearPacket();
    instance.ClearPacket();
    EXPECT_FALSE(instance.HasPacket() || instance.IsEndOfFile());
    instance.Seek(0);
    EXPECT_EQ(Pictures(DecodeAll(instance).video), "0-49 end");
    instance.Seek(0);
    EXPECT_TRUE(!instance.IsEndOfFile() && instance.HasPacket());
    // Shutdown lets go of it all, and whatever comes after it is safe.
    instance.Shutdown();
    instance.Shutdown();
    instance.CloseInput();
    EXPECT_EQ(Held("fd"), openFiles);
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
