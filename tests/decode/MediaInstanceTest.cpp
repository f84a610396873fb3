// MediaInstance as a host drives it: the packet pump over every generated
// file, opening failures, the lifecycle, copies and the channel cap.

#include <MolvaneAV/AvGlobals.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

#include "support/LogCapture.h"
#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <memory>

using namespace molvane::test;

namespace {

using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;
using VideoList = QList<std::shared_ptr<DecodedVideoFrame>>;

struct Decoded {
    AudioList audio;
    VideoList video;
    int calls = 0;
};

Decoded DecodeAll(MediaInstance& instance, int64_t targetTime = -1)
{
    Decoded decoded;
    while (instance.HasPacket() && decoded.calls < 100000) {
        instance.DecodePacket(decoded.audio, decoded.video, targetTime);
        ++decoded.calls;
    }
    return decoded;
}

std::vector<int> PaintedIndexes(const VideoList& video)
{
    std::vector<int> indexes;
    for (const auto& frame : video) {
        if (frame->data != nullptr)
            indexes.push_back(ReadFrameIndex(frame->data, frame->width, frame->height, RowStride(frame->width)));
    }
    return indexes;
}

int Markers(const VideoList& video)
{
    int markers = 0;
    for (const auto& frame : video)
        markers += frame->data == nullptr ? 1 : 0;
    return markers;
}

// Interleaved s16 sample frames of all records, in order.
std::vector<int64_t> SamplePositions(const AudioList& audio, int channels)
{
    std::vector<int64_t> positions;
    for (const auto& record : audio) {
        for (int i = 0; i + channels <= record->sampleCount; i += channels)
            positions.push_back(PositionOfSampleFrame(record->samples + i, channels));
    }
    return positions;
}

} // namespace

TEST(MediaInstancePump, DeliversEveryPaintedFrameOnceInOrderThenOneMarker)
{
    for (FixtureId id : AllFixtures()) {
        const Fixture& fixture = GetFixture(id);
        SCOPED_TRACE(fixture.name.toStdString());
        auto info = Probe(id);
        MediaInstance instance;
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded decoded = DecodeAll(instance);
        EXPECT_FALSE(instance.HasPacket());
        EXPECT_TRUE(instance.IsEndOfFile());

        int64_t videoFrames = 0;
        for (const ExpectedStream& stream : fixture.streams) {
            if (stream.kind == StreamKind::Video) {
                videoFrames = stream.frameCount;
                break;
            }
        }
        if (info->GetNumVideoStreams() == 0) {
            EXPECT_TRUE(decoded.video.isEmpty());
            continue;
        }

        const std::vector<int> indexes = PaintedIndexes(decoded.video);
        std::vector<int> expected;
        for (int i = 0; i < (fixture.hasPackets ? int(videoFrames) : 0); ++i)
            expected.push_back(i);
        EXPECT_EQ(indexes, expected);
        // A still is never followed by a marker; a movie by exactly one, last.
        if (fixture.isImage) {
            EXPECT_EQ(Markers(decoded.video), 0);
        } else {
            EXPECT_EQ(Markers(decoded.video), 1);
            ASSERT_FALSE(decoded.video.isEmpty());
            EXPECT_EQ(decoded.video.last()->data, nullptr);
        }
        // Times count from the first frame and rise with the painted index.
        for (int i = 1; i < decoded.video.size(); ++i) {
                if (decoded.video[i]->data != nullptr) {
                EXPECT_GT(decoded.video[i]->startTime, decoded.video[i - 1]->startTime);
            }
        }
        // Frames before 0 keep their negative times; the caches deal with them.
        if (!decoded.video.isEmpty() && decoded.video.first()->data != nullptr && !fixture.isImage) {
            const int64_t firstPts = fixture.streams[0].firstPtsUs;
            EXPECT_EQ(decoded.video.first()->startTime, firstPts < 0 ? firstPts : 0);
        }
    }
}

TEST(MediaInstancePump, DeliversEveryPositionalSampleOnce)
{
    for (FixtureId id : {FixtureId::WavS16Stereo, FixtureId::WavSixChannels, FixtureId::MultiStreamMkv}) {
        const Fixture& fixture = GetFixture(id);
        SCOPED_TRACE(fixture.name.toStdString());
        const ExpectedStream* audio = nullptr;
        for (const ExpectedStream& stream : fixture.streams) {
            if (stream.kind == StreamKind::Audio)
                audio = &stream;
        }
        ASSERT_NE(audio, nullptr);
        ASSERT_TRUE(audio->positional);

        MediaInstance instance;
        auto info = Probe(id);
        ASSERT_TRUE(instance.Initialize(info, 0));
        const Decoded decoded = DecodeAll(instance);
        EXPECT_EQ(instance.GetOutputChannelCount(), audio->channels);
        const std::vector<int64_t> positions = SamplePositions(decoded.audio, audio->channels);
        ASSERT_EQ(int64_t(positions.size()), audio->frameCount);
        for (size_t n = 0; n < positions.size(); ++n)
            ASSERT_EQ(positions[n], int64_t(n)) << "sample frame " << n;

        // Records follow each other without gaps in time either, up to the
        // container's clock (Matroska keeps milliseconds).
        for (int i = 1; i < decoded.audio.size(); ++i)
            EXPECT_NEAR(double(decoded.audio[i]->startTime), double(decoded.audio[i - 1]->endTime + 1), 1000.0);
    }
}

TEST(MediaInstancePump, DecodesOnlyTheActiveStreams)
{
    const Fixture& fixture = GetFixture(FixtureId::MultiStreamMkv);
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::MultiStreamMkv);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    const Decoded decoded = DecodeAll(instance);

    // The best video stream is the larger picture; the second video stream
    // and the subtitles reach no converter.
    EXPECT_EQ(instance.GetActiveVideoStreamIndex(), 0);
    EXPECT_EQ(instance.GetActiveAudioStreamIndex(), 2);
    for (const auto& frame : decoded.video) {
        if (frame->data != nullptr) {
            EXPECT_EQ(frame->width, fixture.streams[0].width);
            EXPECT_EQ(frame->height, fixture.streams[0].height);
        }
    }
    EXPECT_EQ(int64_t(PaintedIndexes(decoded.video).size()), fixture.streams[0].frameCount);
}

TEST(MediaInstancePump, OneCallTakesTheWaitingPacketAndTheAudioBehindIt)
{
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::H264AacMp4);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    AudioList audio;
    VideoList video;
    int calls = 0;
    while (instance.HasPacket()) {
        instance.DecodePacket(audio, video, -1);
        ++calls;
        // Audio is never left waiting after a call: it went along with the
        // packet before it.
        if (instance.HasPacket()) {
            EXPECT_FALSE(instance.IsAudioPacket());
        }
    }
    // One call per video packet plus the end: the audio rode along.
    EXPECT_LE(calls, 50 + 2);
    EXPECT_FALSE(instance.IsAudioPacket());
}

TEST(MediaInstancePump, FileWithoutPacketsYieldsOnlyTheMarker)
{
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::NoPackets);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    ASSERT_TRUE(instance.HasPacket());
    AudioList audio;
    VideoList video;
    instance.DecodePacket(audio, video, -1);
    EXPECT_FALSE(instance.HasPacket());
    ASSERT_EQ(video.size(), 1);
    EXPECT_EQ(video[0]->data, nullptr);
    EXPECT_TRUE(audio.isEmpty());

    // Nothing waits any more: a further call decodes nothing.
    instance.DecodePacket(audio, video, -1);
    EXPECT_EQ(video.size(), 1);
}

TEST(MediaInstancePump, RecordsCarryRotationAndLinearLight)
{
    MediaInstance rotated;
    auto rotatedInfo = Probe(FixtureId::Rotated90);
    ASSERT_TRUE(rotated.Initialize(rotatedInfo, 0));
    const Decoded decoded = DecodeAll(rotated);
    ASSERT_GT(decoded.video.size(), 1);
    EXPECT_EQ(decoded.video[0]->rotation, 90);
    EXPECT_FALSE(decoded.video[0]->isLinearColorSpace);

    auto info = Probe(FixtureId::H264AacMp4);
    info->isLinearColorSpace = true;
    MediaInstance linear;
    ASSERT_TRUE(linear.Initialize(info, 0));
    const Decoded gamma = DecodeAll(linear);
    ASSERT_GT(gamma.video.size(), 1);
    EXPECT_TRUE(gamma.video[0]->isLinearColorSpace);
}

TEST(MediaInstanceOpen, RefusesAnExpiredOrUnprobedSource)
{
    LogCapture log;
    MediaInstance expired;
    std::weak_ptr<MediaInfo> gone;
    {
        auto info = Probe(FixtureId::H264AacMp4);
        gone = info;
    }
    EXPECT_FALSE(expired.Initialize(gone, 0));
    EXPECT_FALSE(expired.HasPacket());

    auto unprobed = std::make_shared<MediaInfo>(GetFixture(FixtureId::H264AacMp4).path);
    MediaInstance fresh;
    EXPECT_FALSE(fresh.Initialize(unprobed, 0));

    EXPECT_EQ(log.Messages(), QStringList({QStringLiteral("Media info not initialized."),
                                           QStringLiteral("Attempted to decode media that does not exist."),
                                           QStringLiteral("Media info not initialized.")}));
}

TEST(MediaInstanceOpen, FileGoneAfterProbingFailsWithTheReadersMessage)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("moved away.mp4"));
    ASSERT_TRUE(QFile::copy(GetFixture(FixtureId::H264AacMp4).path, path));
    auto info = Probe(path);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    ASSERT_TRUE(QFile::remove(path));

    LogCapture log;
    EXPECT_FALSE(instance.HasPacket());
    EXPECT_EQ(log.Messages(), QStringList({QStringLiteral("File not found: %1").arg(path)}));
}

TEST(MediaInstanceOpen, AudioWithoutDecoderFailsTheOpenAlthoughVideoWouldOpen)
{
    // Renaming the audio codec id (same length) leaves a stream no decoder
    // claims, while the video stays decodable.
    QFile source(GetFixture(FixtureId::MultiStreamMkv).path);
    ASSERT_TRUE(source.open(QIODevice::ReadOnly));
    QByteArray bytes = source.readAll();
    const QByteArray audioId("A_PCM/INT/LIT");
    ASSERT_TRUE(bytes.contains(audioId));
    bytes.replace(audioId, "A_" + QByteArray(audioId.size() - 2, 'Q'));
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("no audio decoder.mkv"));
    QFile target(path);
    ASSERT_TRUE(target.open(QIODevice::WriteOnly));
    target.write(bytes);
    target.close();

    auto info = Probe(path);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    LogCapture log;
    EXPECT_FALSE(instance.HasPacket());
    EXPECT_TRUE(log.Messages().contains(QStringLiteral("Failed to find audio stream (Decoder not found)")))
        << log.Messages().join('\n').toStdString();
    EXPECT_LT(instance.GetActiveAudioStreamIndex(), 0);
}

TEST(MediaInstanceOpen, StreamsAndAudioPropertiesOfTheActiveStreams)
{
    MediaInstance video;
    auto videoInfo = Probe(FixtureId::Mpeg4Mp4);
    ASSERT_TRUE(video.Initialize(videoInfo, 0));
    ASSERT_TRUE(video.HasPacket());
    EXPECT_EQ(video.GetActiveAudioStreamIndex(), -1);
    EXPECT_EQ(video.GetActiveVideoStreamIndex(), 0);
    EXPECT_EQ(video.GetChannelCount(), 0);
    EXPECT_EQ(video.GetSampleRate(), 0);
    EXPECT_FALSE(video.IsAudioPacket());

    MediaInstance sound;
    auto soundInfo = Probe(FixtureId::WavU8);
    ASSERT_TRUE(sound.Initialize(soundInfo, 0));
    ASSERT_TRUE(sound.HasPacket());
    EXPECT_EQ(sound.GetActiveVideoStreamIndex(), -1);
    EXPECT_EQ(sound.GetActiveAudioStreamIndex(), 0);
    EXPECT_EQ(sound.GetChannelCount(), 2);
    EXPECT_EQ(sound.GetSampleRate(), 22050);
    EXPECT_EQ(sound.GetBytesPerSample(), 1);
    EXPECT_FALSE(sound.IsPlaner());
    EXPECT_TRUE(sound.IsAudioPacket());

    EXPECT_TRUE(MediaInstance().RequiresLargeSeekOffset() == false);
    MediaInstance mpeg1;
    auto mpeg1Info = Probe(FixtureId::Mpeg1Ps);
    ASSERT_TRUE(mpeg1.Initialize(mpeg1Info, 0));
    EXPECT_TRUE(mpeg1.RequiresLargeSeekOffset());
    EXPECT_FALSE(video.RequiresLargeSeekOffset());
}

TEST(MediaInstanceOpen, ChannelCapOfZeroMeansNoCap)
{
    auto six = Probe(FixtureId::WavSixChannels);
    auto stereo = Probe(FixtureId::WavS16Stereo);
    auto a = std::make_shared<MediaInstance>();
    auto b = std::make_shared<MediaInstance>();
    ASSERT_TRUE(a->Initialize(six, 0));
    ASSERT_TRUE(b->Initialize(stereo, 0));
    ASSERT_TRUE(a->HasPacket());
    ASSERT_TRUE(b->HasPacket());

    {
        ChannelCap cap(0);
        EXPECT_EQ(a->GetChannelCount(), 6);
        EXPECT_EQ(a->GetOutputChannelCount(), 6);
        EXPECT_FALSE(a->IsAudioMatched(b));
    }
    {
        ChannelCap cap(2);
        EXPECT_EQ(a->GetOutputChannelCount(), 2);
        EXPECT_EQ(b->GetOutputChannelCount(), 2);
        EXPECT_TRUE(a->IsAudioMatched(b));
        EXPECT_FALSE(a->IsAudioMatched(nullptr));
    }
    {
        // The cap applies to decoding too: records of an instance opened
        // under it hold two channels per sample frame.
        ChannelCap cap(2);
        MediaInstance capped;
        ASSERT_TRUE(capped.Initialize(six, 0));
        const Decoded decoded = DecodeAll(capped);
        ASSERT_FALSE(decoded.audio.isEmpty());
        EXPECT_EQ(decoded.audio[0]->sampleCount, decoded.audio[0]->samplesPerChannel * 2);
    }
}

TEST(MediaInstanceLifecycle, ClosingTwiceAndShuttingDownTwiceDoNothingMore)
{
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::H264AacMp4);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    ASSERT_TRUE(instance.HasPacket());
    instance.CloseInput();
    instance.CloseInput();
    instance.ClearPacket();
    instance.ClearPacket();
    instance.Shutdown();
    instance.Shutdown();
    EXPECT_FALSE(instance.HasPacket());
    instance.SetDecoderFrameRate(30.0);
    AudioList audio;
    VideoList video;
    instance.DecodePacket(audio, video, -1);
    EXPECT_TRUE(video.isEmpty());
}

TEST(MediaInstanceLifecycle, ReopeningAfterCloseDecodesFromTheStartAgain)
{
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::H264AacMp4);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    AudioList audio;
    VideoList video;
    for (int i = 0; i < 20 && instance.HasPacket(); ++i)
        instance.DecodePacket(audio, video, -1);
    ASSERT_FALSE(PaintedIndexes(video).empty());

    instance.CloseInput();
    const Decoded again = DecodeAll(instance);
    const std::vector<int> indexes = PaintedIndexes(again.video);
    ASSERT_EQ(indexes.size(), 50u);
    EXPECT_EQ(indexes.front(), 0);
    EXPECT_EQ(indexes.back(), 49);

    // Initialize again on the same instance starts afresh too.
    instanceInfo = Probe(FixtureId::Mpeg4Mp4);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    EXPECT_EQ(PaintedIndexes(DecodeAll(instance).video).size(), 50u);
}

TEST(MediaInstanceLifecycle, CopiesShareAndAreReleasedInAnyOrder)
{
    auto info = Probe(FixtureId::H264AacMp4);
    // Every order of copying, assigning, closing and destroying; ASan and
    // LSan report a double free or a leak.
    for (int order = 0; order < 6; ++order) {
        SCOPED_TRACE(order);
        auto original = std::make_unique<MediaInstance>();
        ASSERT_TRUE(original->Initialize(info, 0));
        ASSERT_TRUE(original->HasPacket());
        AudioList audio;
        VideoList video;
        original->DecodePacket(audio, video, -1);

        auto copy = std::make_unique<MediaInstance>(*original);
        MediaInstance assigned;
        assigned = *copy;
        EXPECT_EQ(copy->GetActiveVideoStreamIndex(), original->GetActiveVideoStreamIndex());
        EXPECT_TRUE(copy->HasPacket());

        switch (order) {
        case 0:
            original.reset();
            copy.reset();
            break;
        case 1:
            copy.reset();
            original.reset();
            break;
        case 2:
            original->CloseInput();
            copy->Shutdown();
            break;
        case 3:
            assigned.Shutdown();
            original.reset();
            break;
        case 4:
            assigned = MediaInstance();
            copy->CloseInput();
            break;
        case 5:
            original->Shutdown();
            assigned = *copy;
            copy.reset();
            break;
        }
        // Whoever is left still decodes to the end without touching freed
        // memory.
        for (MediaInstance* survivor : {original.get(), copy.get(), &assigned}) {
            if (survivor == nullptr)
                continue;
            int calls = 0;
            while (survivor->HasPacket() && calls++ < 10000)
                survivor->DecodePacket(audio, video, -1);
        }
    }
}

TEST(MediaInstancePump, PrepareAndClearControlTheWaitingPacket)
{
    MediaInstance instance;
    auto instanceInfo = Probe(FixtureId::WavU8);
    ASSERT_TRUE(instance.Initialize(instanceInfo, 0));
    ASSERT_TRUE(instance.HasPacket());
    instance.ClearPacket();
    EXPECT_FALSE(instance.HasPacket());
    EXPECT_FALSE(instance.IsEndOfFile());

    // A seek reads again after a clear.
    instance.Seek(0);
    EXPECT_TRUE(instance.HasPacket());
    const Decoded decoded = DecodeAll(instance);
    EXPECT_EQ(SamplePositions(decoded.audio, 2).size(), 22050u);
    EXPECT_TRUE(instance.IsEndOfFile());

    // Past the end, a seek to the start leaves the end behind.
    instance.Seek(0);
    EXPECT_FALSE(instance.IsEndOfFile());
    EXPECT_TRUE(instance.HasPacket());
}
