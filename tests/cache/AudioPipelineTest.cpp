// Real audio the whole way: the positional 16-bit stereo WAV fixture probed,
// decoded with MediaInstance into DecodedAudio, then played out in device
// buffers with the play position advancing as a device clock would. Every
// source sample frame carries its position, so a sample frame that is lost,
// repeated or shifted at a frame boundary names itself.

#include <MolvaneAV/DecodedAudio.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QList>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace molvane::test;

namespace {

using FramePtr = std::shared_ptr<DecodedAudioFrame>;

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int64_t kSourceFrames = 72000; // 1.5 s

QList<FramePtr> DecodeFixture()
{
    const Fixture& fixture = GetFixture(FixtureId::WavS16Stereo);
    auto info = std::make_shared<MediaInfo>(fixture.path);
    EXPECT_TRUE(MediaReader::ParseMedia(info));
    MediaInstance instance;
    EXPECT_TRUE(instance.Initialize(info, 0));
    QList<FramePtr> audio;
    QList<std::shared_ptr<DecodedVideoFrame>> video;
    for (int calls = 0; instance.HasPacket() && calls < 100000; ++calls)
        instance.DecodePacket(audio, video, -1);
    return audio;
}

// What a buffer of the fill holds, one entry per sample frame: the source
// position, or -1 for silence (sample frame 0 reads as silence too, being
// all zeros).
std::vector<int64_t> Positions(const std::vector<int16_t>& interleaved)
{
    std::vector<int64_t> positions;
    for (size_t n = 0; n < interleaved.size(); n += kChannels) {
        const bool silent = interleaved[n] == 0 && interleaved[n + 1] == 0;
        positions.push_back(silent ? -1 : PositionOfSampleFrame(&interleaved[n], kChannels));
    }
    return positions;
}

struct Playback {
    std::vector<int16_t> samples; // interleaved, every buffer in turn
    int bufferFrames = 0;
    int buffers = 0;
};

// Decodes the fixture into a cache, then fills `buffer`-frame buffers from
// play position 0 until one comes back wholly silent after the audio. The
// play position is the source time the output has reached: it runs at
// `speed` times the device clock.
Playback Play(double speed, int buffer)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(64);
    const QList<FramePtr> frames = DecodeFixture();
    int64_t decoded = 0;
    for (const FramePtr& frame : frames) {
        decoded += frame->samplesPerChannel;
        cache.AppendFrame(frame);
    }
    EXPECT_EQ(decoded, kSourceFrames);
    EXPECT_EQ(cache.GetFrameCount(), frames.size());

    Playback playback;
    playback.bufferFrames = buffer;
    std::vector<int16_t> out(size_t(buffer) * kChannels);
    const int limit = int(kSourceFrames * 2 / buffer / speed) + 10;
    for (bool sounded = false; playback.buffers < limit; ++playback.buffers) {
        const auto playTime =
            static_cast<long long>(double(playback.buffers) * buffer * speed * 1000000.0 / kRate);
        std::fill(out.begin(), out.end(), int16_t(0x7A7A));
        EXPECT_EQ(cache.PaFillBuffer(out.data(), buffer, kChannels, kRate, playTime, 1.0, false, speed), buffer);
        playback.samples.insert(playback.samples.end(), out.begin(), out.end());
        bool silent = true;
        for (const int16_t value : out)
            silent = silent && value == 0;
        if (silent && sounded)
            break;
        sounded = sounded || !silent;
    }
    return playback;
}

std::string Name(int64_t position)
{
    return position < 0 ? std::string("silence") : "source " + std::to_string(position);
}

// Compares the played positions with the expected source positions, then
// silence to the end; names the first difference.
testing::AssertionResult PlaysInOrder(const Playback& playback, const std::vector<int64_t>& expected)
{
    const std::vector<int64_t> played = Positions(playback.samples);
    for (size_t n = 0; n < played.size(); ++n) {
        // Source sample frame 0 is all zeros, so it reads as silence.
        const int64_t want = n < expected.size() ? (expected[n] == 0 ? -1 : expected[n]) : -1;
        if (played[n] != want)
            return testing::AssertionFailure() << "output sample frame " << n << " (buffer "
                                               << n / playback.bufferFrames << ") holds " << Name(played[n])
                                               << ", expected " << Name(want);
    }
    if (played.size() < expected.size())
        return testing::AssertionFailure() << "only " << played.size() << " sample frames played, expected "
                                           << expected.size() << " before the silence";
    return testing::AssertionSuccess();
}

TEST(AudioPipeline, DecodedFramesCarryTheWholeSourceInOrder)
{
    const QList<FramePtr> frames = DecodeFixture();
    ASSERT_FALSE(frames.isEmpty());
    int64_t position = 0;
    for (const FramePtr& frame : frames) {
        ASSERT_EQ(frame->sampleRate, kRate);
        ASSERT_EQ(frame->sampleCount, frame->samplesPerChannel * kChannels);
        EXPECT_EQ(frame->startTime, position * 1000000 / kRate);
        for (int i = 0; i < frame->samplesPerChannel; ++i, ++position) {
            ASSERT_EQ(frame->samples[2 * i], PositionSample(position, 0)) << "source " << position;
            ASSERT_EQ(frame->samples[2 * i + 1], PositionSample(position, 1)) << "source " << position;
        }
    }
    EXPECT_EQ(position, kSourceFrames);
}

TEST(AudioPipeline, NormalSpeedPlaysEverySampleFrameOnce)
{
    std::vector<int64_t> expected;
    for (int64_t n = 0; n < kSourceFrames; ++n)
        expected.push_back(n);
    // 441 moves the decoder's frame boundaries around inside the buffers.
    for (const int buffer : {256, 441}) {
        SCOPED_TRACE("buffers of " + std::to_string(buffer));
        EXPECT_TRUE(PlaysInOrder(Play(1.0, buffer), expected));
    }
}

TEST(AudioPipeline, DoubleSpeedPlaysEveryOtherSampleFrame)
{
    std::vector<int64_t> expected;
    for (int64_t n = 0; n < kSourceFrames; n += 2)
        expected.push_back(n);
    for (const int buffer : {256, 441}) {
        SCOPED_TRACE("buffers of " + std::to_string(buffer));
        EXPECT_TRUE(PlaysInOrder(Play(2.0, buffer), expected));
    }
}

TEST(AudioPipeline, HalfSpeedPlaysEverySampleFrameTwiceButTheFirst)
{
    std::vector<int64_t> expected{0};
    for (int64_t n = 1; n < kSourceFrames; ++n) {
        expected.push_back(n);
        expected.push_back(n);
    }
    for (const int buffer : {256, 441}) {
        SCOPED_TRACE("buffers of " + std::to_string(buffer));
        EXPECT_TRUE(PlaysInOrder(Play(0.5, buffer), expected));
    }
}

} // namespace
