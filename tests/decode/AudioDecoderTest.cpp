// AudioDecoder on real FFmpeg decoders: files made at test time for whole
// streams, and packets made in memory for sample values and timestamps no
// writer produces. PCM files carry the position of every sample frame, so a
// sample that is lost, repeated or converted wrongly shows where it went.

#include "decode/AudioDecoder.h"

#include <MolvaneAV/AvGlobals.h>

#include "support/FfmpegPtr.h"
#include "support/HostHelpers.h"
#include "support/MediaFixtures.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstring>
#include <functional>
#include <sstream>
#include <vector>

using namespace molvane::test;

namespace {

using Records = QList<std::shared_ptr<DecodedAudioFrame>>;

// swresample refuses a layout mask of 0, so AudioDecoder falls back to its
// built-in converter; conversions that differ show which one ran.
constexpr uint64_t kUnusableLayout = 0;

// Sets the channel cap for one scope.
uint64_t LayoutMask(const AVChannelLayout& layout)
{
    if (layout.order == AV_CHANNEL_ORDER_NATIVE)
        return layout.u.mask;
    AVChannelLayout fallback;
    av_channel_layout_default(&fallback, layout.nb_channels);
    const uint64_t mask = fallback.u.mask;
    av_channel_layout_uninit(&fallback);
    return mask;
}

// The first audio stream of a file with its decoder open.
struct OpenedAudio {
    InputContextPtr input;
    CodecContextPtr codec;
    int stream = -1;
    AVRational timeBase{1, 1};

    int Channels() const { return codec->ch_layout.nb_channels; }
    uint64_t Layout() const { return LayoutMask(codec->ch_layout); }

    // The next packet of the audio stream; false at the end of the file.
    bool Read(AVPacket* packet)
    {
        while (av_read_frame(input.get(), packet) >= 0) {
            if (packet->stream_index == stream)
                return true;
            av_packet_unref(packet);
        }
        return false;
    }
};

testing::AssertionResult OpenAudio(const QString& path, OpenedAudio& audio)
{
    AVFormatContext* input = nullptr;
    if (int err = avformat_open_input(&input, path.toUtf8().constData(), nullptr, nullptr); err < 0)
        return testing::AssertionFailure() << "cannot open " << path.toStdString() << ": "
                                           << AvErrorText(err).toStdString();
    audio.input.reset(input);
    if (avformat_find_stream_info(input, nullptr) < 0)
        return testing::AssertionFailure() << "no stream information in " << path.toStdString();
    const AVCodec* decoder = nullptr;
    audio.stream = av_find_best_stream(input, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (audio.stream < 0 || decoder == nullptr)
        return testing::AssertionFailure() << "no decodable audio in " << path.toStdString();
    const AVStream* stream = input->streams[audio.stream];
    audio.timeBase = stream->time_base;
    audio.codec.reset(avcodec_alloc_context3(decoder));
    if (!audio.codec || avcodec_parameters_to_context(audio.codec.get(), stream->codecpar) < 0 ||
        avcodec_open2(audio.codec.get(), decoder, nullptr) < 0)
        return testing::AssertionFailure() << "cannot open the " << decoder->name << " decoder";
    return testing::AssertionSuccess();
}

// Setup as decoding a probed stream does it; layout 0 forces the built-in
// converter.
bool SetupFor(AudioDecoder& decoder, const OpenedAudio& audio, uint64_t layout)
{
    return decoder.Setup(audio.codec.get(), audio.timeBase, audio.Channels(), layout, audio.codec->sample_rate,
                         audio.codec->sample_fmt);
}

bool SetupFor(AudioDecoder& decoder, const OpenedAudio& audio)
{
    return SetupFor(decoder, audio, audio.Layout());
}

// Every packet of the stream, then the blank packet that drains the decoder.
Records DecodeAll(AudioDecoder& decoder, OpenedAudio& audio, int* drainedRecords = nullptr)
{
    Records records;
    PacketPtr packet(av_packet_alloc());
    while (audio.Read(packet.get())) {
        decoder.Decode(packet.get(), records);
        av_packet_unref(packet.get());
    }
    const int beforeDrain = records.size();
    PacketPtr blank(av_packet_alloc());
    decoder.Decode(blank.get(), records);
    if (drainedRecords != nullptr)
        *drainedRecords = records.size() - beforeDrain;
    return records;
}

// The records' samples end to end, after checking each record's own counts.
std::vector<int16_t> Joined(const Records& records, int channels, int sampleRate)
{
    std::vector<int16_t> all;
    for (int i = 0; i < records.size(); ++i) {
        const DecodedAudioFrame& r = *records[i];
        SCOPED_TRACE("record " + std::to_string(i));
        EXPECT_GT(r.samplesPerChannel, 0);
        EXPECT_EQ(r.sampleCount, r.samplesPerChannel * channels);
        EXPECT_EQ(r.bufferSampleCount, r.sampleCount);
        EXPECT_EQ(r.sampleRate, sampleRate);
        EXPECT_EQ(r.continuityTag, -1);
        all.insert(all.end(), r.samples, r.samples + r.bufferSampleCount);
    }
    return all;
}

using ExpectedSample = std::function<int(int64_t n, int channel)>;

// Compares interleaved output with the value every sample frame must have;
// reports the count and the first difference rather than one line per sample.
testing::AssertionResult EverySampleIs(const std::vector<int16_t>& samples, int channels, int64_t frames,
                                       const ExpectedSample& expected)
{
    if (samples.size() != static_cast<size_t>(frames * channels))
        return testing::AssertionFailure() << "got " << samples.size() << " samples, expected " << frames << " x "
                                           << channels;
    int64_t differences = 0;
    std::ostringstream first;
    for (int64_t n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c) {
            const int got = samples[static_cast<size_t>(n * channels + c)];
            const int want = expected(n, c);
            if (got != want && differences++ == 0)
                first << "sample frame " << n << " channel " << c << ": got " << got << ", expected " << want;
        }
    }
    if (differences > 0)
        return testing::AssertionFailure() << differences << " samples differ; first at " << first.str();
    return testing::AssertionSuccess();
}

QString Write(const QTemporaryDir& dir, const QString& name, const MediaSpec& mediaSpec)
{
    const QString path = dir.filePath(name);
    QString error;
    EXPECT_TRUE(WriteMedia(mediaSpec, path, &error)) << error.toStdString();
    return path;
}

// Lossless WavPack keeps the encoder's sample format when decoding: planar
// s16, s32 or float, a format no WAV decoder produces.
QString WritePlanarWavPack(const QTemporaryDir& dir, AVSampleFormat format, int channels, int64_t frames,
                           const QString& name)
{
    MediaSpec mediaSpec;
    mediaSpec.container = QStringLiteral("wv");
    AudioSpec audio;
    audio.encoder = QStringLiteral("wavpack");
    audio.sampleFormat = format;
    audio.channels = channels;
    audio.sampleFrames = frames;
    audio.positional = true;
    mediaSpec.audio.push_back(audio);
    return Write(dir, name, mediaSpec);
}

// A PCM decoder fed with packets made in memory.
struct MemoryDecoder {
    CodecContextPtr codec;
    int channels = 0;

    testing::AssertionResult Open(const char* name, int channelCount, int sampleRate)
    {
        const AVCodec* decoder = avcodec_find_decoder_by_name(name);
        if (decoder == nullptr)
            return testing::AssertionFailure() << "no decoder " << name;
        codec.reset(avcodec_alloc_context3(decoder));
        av_channel_layout_default(&codec->ch_layout, channelCount);
        codec->sample_rate = sampleRate;
        if (avcodec_open2(codec.get(), decoder, nullptr) < 0)
            return testing::AssertionFailure() << "cannot open " << name;
        channels = channelCount;
        return testing::AssertionSuccess();
    }

    bool Setup(AudioDecoder& decoder, AVRational timeBase, uint64_t layout) const
    {
        return decoder.Setup(codec.get(), timeBase, channels, layout, codec->sample_rate, codec->sample_fmt);
    }
    bool Setup(AudioDecoder& decoder, AVRational timeBase) const
    {
        return Setup(decoder, timeBase, LayoutMask(codec->ch_layout));
    }
};

PacketPtr MakePacket(const void* data, size_t size, int64_t pts)
{
    PacketPtr packet(av_packet_alloc());
    if (av_new_packet(packet.get(), static_cast<int>(size)) == 0)
        std::memcpy(packet->data, data, size);
    packet->pts = pts;
    packet->dts = pts;
    return packet;
}

template <typename T>
PacketPtr MakePacket(const std::vector<T>& values, int64_t pts)
{
    return MakePacket(values.data(), values.size() * sizeof(T), pts);
}

// One packet through a fresh AudioDecoder; the samples of all its records.
std::vector<int16_t> ConvertOnce(const MemoryDecoder& memory, uint64_t layout, const PacketPtr& packet)
{
    AudioDecoder decoder;
    EXPECT_TRUE(memory.Setup(decoder, {1, memory.codec->sample_rate}, layout));
    Records records;
    decoder.Decode(packet.get(), records);
    return Joined(records, decoder.OutputChannels(), memory.codec->sample_rate);
}

template <typename T>
std::vector<T> Interleave(const std::vector<T>& values, int channels)
{
    std::vector<T> out;
    for (const T& v : values)
        for (int c = 0; c < channels; ++c)
            out.push_back(v);
    return out;
}

// What plain FFmpeg decoding gives: every frame including those a flush
// releases, converted to interleaved s16 by swresample at the same layout.
struct PlainDecoding {
    std::vector<int16_t> samples;
    int64_t sampleFrames = 0;
    int framesFromFlush = 0;
};

testing::AssertionResult DecodePlain(const QString& path, PlainDecoding& out)
{
    OpenedAudio audio;
    if (auto opened = OpenAudio(path, audio); !opened)
        return opened;
    SwrContext* raw = nullptr;
    AVChannelLayout layout;
    av_channel_layout_copy(&layout, &audio.codec->ch_layout);
    const int rate = audio.codec->sample_rate;
    swr_alloc_set_opts2(&raw, &layout, AV_SAMPLE_FMT_S16, rate, &layout, audio.codec->sample_fmt, rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    SwrContextPtr swr(raw);
    if (!swr || swr_init(swr.get()) < 0)
        return testing::AssertionFailure() << "reference resampler failed";

    const int channels = audio.Channels();
    FramePtr frame(av_frame_alloc());
    auto receive = [&](bool flushing) {
        while (avcodec_receive_frame(audio.codec.get(), frame.get()) >= 0) {
            const size_t at = out.samples.size();
            out.samples.resize(at + static_cast<size_t>(frame->nb_samples * channels));
            uint8_t* target = reinterpret_cast<uint8_t*>(out.samples.data() + at);
            swr_convert(swr.get(), &target, frame->nb_samples, const_cast<const uint8_t**>(frame->extended_data),
                        frame->nb_samples);
            out.sampleFrames += frame->nb_samples;
            if (flushing)
                ++out.framesFromFlush;
            av_frame_unref(frame.get());
        }
    };
    PacketPtr packet(av_packet_alloc());
    while (audio.Read(packet.get())) {
        avcodec_send_packet(audio.codec.get(), packet.get());
        av_packet_unref(packet.get());
        receive(false);
    }
    avcodec_send_packet(audio.codec.get(), nullptr);
    receive(true);
    return testing::AssertionSuccess();
}

int FromU8(int64_t n, int c)
{
    return ExpectedS16FromU8(PositionSampleU8(n, c));
}

int FromFloat(int64_t n, int c)
{
    return ExpectedS16FromFloat(PositionSampleFloat(n, c));
}

// The built-in converter scales floats by 32767 and truncates, where
// swresample scales by 32768 and rounds: a positional value P > 0 (stored
// as P / 32768) comes out one step lower.
int FromFloatBuiltIn(int64_t n, int c)
{
    const int position = PositionSample(n, c);
    return position > 0 ? position - 1 : 0;
}

} // namespace

// ---------------------------------------------------------------------------
// Setup

TEST(AudioDecoder, SetupRefusesOnlyANullContext)
{
    AudioDecoder decoder;
    EXPECT_FALSE(decoder.Setup(nullptr, {1, 48000}, 2, AV_CH_LAYOUT_STEREO, 48000, AV_SAMPLE_FMT_S16));
    Records records;
    PacketPtr blank(av_packet_alloc());
    decoder.Decode(blank.get(), records);
    EXPECT_TRUE(records.isEmpty());

    MemoryDecoder memory;
    ASSERT_TRUE(memory.Open("pcm_s16le", 2, 48000));
    AudioDecoder working;
    EXPECT_TRUE(memory.Setup(working, {1, 48000}));
    // Also when the resampler cannot start: the built-in converter takes over.
    AudioDecoder fallback;
    EXPECT_TRUE(memory.Setup(fallback, {1, 48000}, kUnusableLayout));
    EXPECT_EQ(fallback.OutputChannels(), 2);

    // Reset: nothing decodes until set up again.
    const std::vector<int16_t> values = {100, -100, 200, -200, 300, -300};
    working.Reset();
    working.Decode(MakePacket(values, 0).get(), records);
    EXPECT_TRUE(records.isEmpty());
    ASSERT_TRUE(memory.Setup(working, {1, 48000}));
    working.Decode(MakePacket(values, 0).get(), records);
    EXPECT_EQ(Joined(records, 2, 48000), values);
}

TEST(AudioDecoder, SettingUpAgainReplacesTheFormerSetup)
{
    // No Reset in between: the second setup's time base and converter rule
    // (LSan would report the first one's buffers if they were dropped).
    MemoryDecoder memory;
    ASSERT_TRUE(memory.Open("pcm_f32le", 2, 48000));
    AudioDecoder decoder;
    ASSERT_TRUE(memory.Setup(decoder, {1, 48000}));
    ASSERT_TRUE(memory.Setup(decoder, {1, 1000}, kUnusableLayout));
    Records records;
    decoder.Decode(MakePacket(Interleave(std::vector<float>{0.5f, 1.5f}, 2), 250).get(), records);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0]->startTime, 250000);
    EXPECT_EQ(Joined(records, 2, 48000), Interleave<int16_t>({16383, -16386}, 2));
}

// ---------------------------------------------------------------------------
// Whole files through swresample

TEST(AudioDecoder, S16StereoIsBitExactGaplessAndContinuouslyTimed)
{
    const Fixture& fixture = GetFixture(FixtureId::WavS16Stereo);
    const int64_t frames = fixture.streams[0].frameCount;
    OpenedAudio audio;
    ASSERT_TRUE(OpenAudio(fixture.path, audio));
    AudioDecoder decoder;
    ASSERT_TRUE(SetupFor(decoder, audio));
    EXPECT_EQ(decoder.OutputChannels(), 2);

    const Records records = DecodeAll(decoder, audio);
    ASSERT_GT(records.size(), 1);
    EXPECT_TRUE(EverySampleIs(Joined(records, 2, 48000), 2, frames, PositionSample));

    int64_t position = 0;
    for (int i = 0; i < records.size(); ++i) {
        const DecodedAudioFrame& r = *records[i];
        SCOPED_TRACE("record " + std::to_string(i));
        ASSERT_EQ(PositionOfSampleFrame(r.samples, 2), position);
        // Times are truncated from doubles, so a whole microsecond may come
        // out one lower.
        EXPECT_NEAR(r.startTime, position * 1000000 / 48000, 1);
        EXPECT_NEAR(r.endTime, (position + r.samplesPerChannel) * 1000000 / 48000 - 1, 1);
        if (i > 0) {
            EXPECT_NEAR(r.startTime, records[i - 1]->endTime + 1, 1);
        }
        position += r.samplesPerChannel;
    }
    EXPECT_EQ(position, frames);
}

TEST(AudioDecoder, ChannelCapMixesDownOnlyStreamsAboveIt)
{
    const Fixture& fixture = GetFixture(FixtureId::WavSixChannels);
    const int64_t frames = fixture.streams[0].frameCount;

    // No cap (0 or below), or a cap the stream stays within: all six
    // channels come through untouched.
    for (int cap : {0, -1, 6, 8}) {
        SCOPED_TRACE("cap " + std::to_string(cap));
        ChannelCap scoped(cap);
        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(fixture.path, audio));
        ASSERT_EQ(audio.Channels(), 6);
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio));
        EXPECT_EQ(decoder.OutputChannels(), 6);
        EXPECT_TRUE(EverySampleIs(Joined(DecodeAll(decoder, audio), 6, 48000), 6, frames, PositionSample));
    }

    // Below the stream's count: a real downmix to the cap's default layout
    // (three channels are 2.1, not 3.0), sample for sample what swresample
    // makes of the same input.
    for (int cap : {3, 2, 1}) {
        SCOPED_TRACE("cap " + std::to_string(cap));
        ChannelCap scoped(cap);
        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(fixture.path, audio));
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio));
        EXPECT_EQ(decoder.OutputChannels(), cap);
        const std::vector<int16_t> mixed = Joined(DecodeAll(decoder, audio), cap, 48000);
        ASSERT_EQ(mixed.size(), static_cast<size_t>(frames * cap));

        std::vector<int16_t> input;
        for (int64_t n = 0; n < frames; ++n)
            for (int c = 0; c < 6; ++c)
                input.push_back(PositionSample(n, c));
        AVChannelLayout out;
        av_channel_layout_default(&out, cap);
        SwrContext* raw = nullptr;
        swr_alloc_set_opts2(&raw, &out, AV_SAMPLE_FMT_S16, 48000, &audio.codec->ch_layout, AV_SAMPLE_FMT_S16, 48000,
                            0, nullptr);
        SwrContextPtr swr(raw);
        ASSERT_TRUE(swr && swr_init(swr.get()) >= 0);
        std::vector<int16_t> reference(mixed.size());
        uint8_t* target = reinterpret_cast<uint8_t*>(reference.data());
        const uint8_t* source = reinterpret_cast<const uint8_t*>(input.data());
        ASSERT_EQ(swr_convert(swr.get(), &target, static_cast<int>(frames), &source, static_cast<int>(frames)),
                  frames);
        EXPECT_TRUE(EverySampleIs(mixed, cap, frames, [&](int64_t n, int c) {
            return reference[static_cast<size_t>(n * cap + c)];
        }));
        // Mixed, not cut: the front channels alone would not give this.
        EXPECT_FALSE(EverySampleIs(mixed, cap, frames, PositionSample));
    }
}

TEST(AudioDecoder, ResamplerConvertsEverySampleFormat)
{
    // s16p and fltp go through the resampler in the format-change test.
    QTemporaryDir dir;
    struct Case {
        QString path;
        AVSampleFormat format;
        int rate;
        int64_t frames;
        ExpectedSample value;
    };
    const Case cases[] = {
        {GetFixture(FixtureId::WavU8).path, AV_SAMPLE_FMT_U8, 22050, GetFixture(FixtureId::WavU8).streams[0].frameCount,
         FromU8},
        {GetFixture(FixtureId::WavFloat).path, AV_SAMPLE_FMT_FLT, 44100,
         GetFixture(FixtureId::WavFloat).streams[0].frameCount, FromFloat},
        {WritePlanarWavPack(dir, AV_SAMPLE_FMT_S32P, 2, 30000, "s32p.wv"), AV_SAMPLE_FMT_S32P, 48000, 30000,
         PositionSample},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(av_get_sample_fmt_name(c.format));
        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(c.path, audio));
        ASSERT_EQ(audio.codec->sample_fmt, c.format);
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio));
        EXPECT_TRUE(EverySampleIs(Joined(DecodeAll(decoder, audio), 2, c.rate), 2, c.frames, c.value));
    }
}

TEST(AudioDecoder, ResamplerClipsWhereTheBuiltInConverterWraps)
{
    MemoryDecoder memory;
    ASSERT_TRUE(memory.Open("pcm_f32le", 2, 48000));
    const std::vector<float> values = {0.5f, -0.5f, 1.0f, -1.0f, 1.5f, -1.5f, 2.0f, 0.0f};
    const PacketPtr packet = MakePacket(Interleave(values, 2), 0);

    const std::vector<int16_t> resampled = ConvertOnce(memory, LayoutMask(memory.codec->ch_layout), packet);
    EXPECT_EQ(resampled, Interleave<int16_t>({16384, -16384, 32767, -32768, 32767, -32768, 32767, 0}, 2));

    // f × 32767 truncated to an int, keeping its low 16 bits:
    // 1.5 → 49150 → -16386, -1.5 → -49150 → 16386, 2.0 → 65534 → -2.
    const std::vector<int16_t> builtIn = ConvertOnce(memory, kUnusableLayout, packet);
    EXPECT_EQ(builtIn, Interleave<int16_t>({16383, -16383, 32767, -32767, -16386, 16386, -2, 0}, 2));
}

// ---------------------------------------------------------------------------
// The built-in converter

TEST(AudioDecoder, BuiltInConverterMapsU8AndFloat)
{
    {
        SCOPED_TRACE("u8");
        // A cap of one tells the converters apart for u8, where both map
        // values alike: swresample would mix both channels, the built-in
        // converter keeps the first.
        ChannelCap cap(1);
        const Fixture& fixture = GetFixture(FixtureId::WavU8);
        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(fixture.path, audio));
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio, kUnusableLayout));
        ASSERT_EQ(decoder.OutputChannels(), 1);
        const std::vector<int16_t> samples = Joined(DecodeAll(decoder, audio), 1, 22050);
        EXPECT_TRUE(EverySampleIs(samples, 1, fixture.streams[0].frameCount, FromU8));
        // Channel 0 holds n & 0xFF: 0, 128 and 255 at those sample frames.
        ASSERT_GT(samples.size(), 255u);
        EXPECT_EQ(samples[0], -32768);
        EXPECT_EQ(samples[128], 0);
        EXPECT_EQ(samples[255], 32512);
    }
    {
        SCOPED_TRACE("float");
        const Fixture& fixture = GetFixture(FixtureId::WavFloat);
        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(fixture.path, audio));
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio, kUnusableLayout));
        const std::vector<int16_t> samples = Joined(DecodeAll(decoder, audio), 2, 44100);
        EXPECT_TRUE(EverySampleIs(samples, 2, fixture.streams[0].frameCount, FromFloatBuiltIn));
        // Sample frame 16384 holds 0.5 on channel 0.
        ASSERT_EQ(PositionSampleFloat(16384, 0), 0.5f);
        ASSERT_GT(samples.size(), 2u * 16384);
        EXPECT_EQ(samples[2 * 16384], 16383);
    }
}

TEST(AudioDecoder, BuiltInConverterReadsFourByteSamplesAsFloatAndSilencesWiderOnes)
{
    // s32 has four bytes too, so its bits are read as a float: 0x3F000000 is
    // 0.5f. swresample takes it as the integer it is (top 16 bits, rounded).
    {
        MemoryDecoder memory;
        ASSERT_TRUE(memory.Open("pcm_s32le", 2, 48000));
        ASSERT_EQ(memory.codec->sample_fmt, AV_SAMPLE_FMT_S32);
        // 0xBE800000 is -0.25f; 0x00010000 a denormal float, 9.2e-41.
        const std::vector<uint32_t> values = {0x3F000000u, 0xBE800000u, 0u, 0x00010000u};
        const PacketPtr packet = MakePacket(Interleave(values, 2), 0);
        EXPECT_EQ(ConvertOnce(memory, LayoutMask(memory.codec->ch_layout), packet),
                  Interleave<int16_t>({0x3F00, -0x4180, 0, 1}, 2));
        EXPECT_EQ(ConvertOnce(memory, kUnusableLayout, packet), Interleave<int16_t>({16383, -8191, 0, 0}, 2));
    }
    // Eight-byte samples have no built-in mapping: silence, not garbage.
    {
        MemoryDecoder memory;
        ASSERT_TRUE(memory.Open("pcm_f64le", 2, 48000));
        ASSERT_EQ(memory.codec->sample_fmt, AV_SAMPLE_FMT_DBL);
        const std::vector<double> values = {0.5, -0.25, 1.0};
        const PacketPtr packet = MakePacket(Interleave(values, 2), 0);
        EXPECT_EQ(ConvertOnce(memory, LayoutMask(memory.codec->ch_layout), packet),
                  Interleave<int16_t>({16384, -8192, 32767}, 2));
        EXPECT_EQ(ConvertOnce(memory, kUnusableLayout, packet), std::vector<int16_t>(6, 0));
    }
}

TEST(AudioDecoder, BuiltInConverterKeepsTheFirstChannelsUpToTheCap)
{
    // Planar six channels, cap 3 (interleaved input: the u8 case above).
    ChannelCap cap(3);
    QTemporaryDir dir;
    const int64_t frames = 20000;
    OpenedAudio audio;
    ASSERT_TRUE(OpenAudio(WritePlanarWavPack(dir, AV_SAMPLE_FMT_S16P, 6, frames, "six.wv"), audio));
    ASSERT_EQ(audio.Channels(), 6);
    AudioDecoder decoder;
    ASSERT_TRUE(SetupFor(decoder, audio, kUnusableLayout));
    EXPECT_EQ(decoder.OutputChannels(), 3);
    EXPECT_TRUE(EverySampleIs(Joined(DecodeAll(decoder, audio), 3, 48000), 3, frames, PositionSample));
}

// ---------------------------------------------------------------------------
// Times

TEST(AudioDecoder, RecordTimesComeFromThePacket)
{
    MemoryDecoder memory;
    ASSERT_TRUE(memory.Open("pcm_s16le", 2, 48000));
    const std::vector<int16_t> values(2 * 1024, 100);

    struct Case {
        const char* what;
        AVRational timeBase;
        int64_t pts;
        int64_t start;
        int64_t end;
    };
    // 1024 sample frames at 48 kHz last 21,333.3 µs; the end is the last
    // microsecond they cover.
    const Case cases[] = {
        {"pts at 0.5 s in samples", {1, 48000}, 24000, 500000, 521332},
        {"pts at 0.5 s in 90 kHz ticks", {1, 90000}, 45000, 500000, 521332},
        {"no pts", {1, 48000}, AV_NOPTS_VALUE, 0, 21332},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AudioDecoder decoder;
        ASSERT_TRUE(memory.Setup(decoder, c.timeBase));
        Records records;
        decoder.Decode(MakePacket(values, c.pts).get(), records);
        ASSERT_EQ(records.size(), 1);
        EXPECT_EQ(records[0]->startTime, c.start);
        EXPECT_EQ(records[0]->endTime, c.end);
        EXPECT_EQ(records[0]->samplesPerChannel, 1024);
        EXPECT_EQ(records[0]->sampleCount, 2048);
        EXPECT_EQ(records[0]->sampleRate, 48000);
    }
}

TEST(AudioDecoder, LaterFramesOfOnePacketAdvanceByTheFrameBytes)
{
    // The MPEG audio decoders take one frame per call and keep the rest of
    // the packet, so a packet holding two MP2 frames yields two frames.
    QTemporaryDir dir;
    MediaSpec mediaSpec;
    mediaSpec.container = QStringLiteral("mp2");
    AudioSpec mp2;
    mp2.encoder = QStringLiteral("mp2");
    mp2.sampleFrames = 1152 * 4;
    mediaSpec.audio.push_back(mp2);
    OpenedAudio audio;
    ASSERT_TRUE(OpenAudio(Write(dir, QStringLiteral("two.mp2"), mediaSpec), audio));
    ASSERT_EQ(audio.codec->sample_fmt, AV_SAMPLE_FMT_S16P);
    ASSERT_EQ(audio.Channels(), 2);
    ASSERT_EQ(audio.codec->sample_rate, 48000);
    std::vector<uint8_t> bytes;
    PacketPtr packet(av_packet_alloc());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(audio.Read(packet.get()));
        bytes.insert(bytes.end(), packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }

    // How long plain decoding says each frame's first plane is.
    std::vector<int> linesizes;
    {
        OpenedAudio plain;
        ASSERT_TRUE(OpenAudio(dir.filePath(QStringLiteral("two.mp2")), plain));
        FramePtr frame(av_frame_alloc());
        ASSERT_EQ(avcodec_send_packet(plain.codec.get(), MakePacket(bytes, 0).get()), 0);
        while (avcodec_receive_frame(plain.codec.get(), frame.get()) >= 0) {
            linesizes.push_back(frame->linesize[0]);
            av_frame_unref(frame.get());
        }
    }
    ASSERT_EQ(linesizes.size(), 2u);

    AudioDecoder decoder;
    ASSERT_TRUE(decoder.Setup(audio.codec.get(), {1, 48000}, 2, AV_CH_LAYOUT_STEREO, 48000, AV_SAMPLE_FMT_S16P));
    Records records;
    decoder.Decode(MakePacket(bytes, 48000).get(), records);
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0]->startTime, 1000000);
    EXPECT_EQ(records[0]->endTime, 1000000 + 24000 - 1);
    // The step is the first plane's bytes read as interleaved 16-bit stereo,
    // which for planar input is not the frame's 24 ms.
    const int64_t step = int64_t(linesizes[0]) * 1000000 / (2 * 48000 * 2);
    EXPECT_NEAR(records[1]->startTime, 1000000 + step, 1);
    EXPECT_EQ(records[1]->endTime, records[1]->startTime + 24000 - 1);
    for (const auto& record : records) {
        EXPECT_EQ(record->samplesPerChannel, 1152);
        EXPECT_EQ(record->sampleCount, 2304);
    }
}

// ---------------------------------------------------------------------------
// Draining

TEST(AudioDecoder, BlankPacketDrainsTheFramesTheDecoderHeldBack)
{
    QTemporaryDir dir;
    // WMA holds its last frame until flushed. This FFmpeg's AAC decoder
    // holds none back, but its totals must match all the same.
    struct Case {
        const char* container;
        const char* encoder;
        const char* file;
        int64_t sampleFrames;
        bool holdsBack;
    };
    const Case cases[] = {
        {"asf", "wmav2", "drain.wma", 2048 * 24, true},
        {"mp4", "aac", "drain.m4a", 48000, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.encoder);
        MediaSpec mediaSpec;
        mediaSpec.container = c.container;
        AudioSpec sound;
        sound.encoder = c.encoder;
        sound.sampleFrames = c.sampleFrames;
        mediaSpec.audio.push_back(sound);
        const QString path = Write(dir, c.file, mediaSpec);

        PlainDecoding plain;
        ASSERT_TRUE(DecodePlain(path, plain));
        if (c.holdsBack) {
            ASSERT_GT(plain.framesFromFlush, 0) << "the decoder no longer holds frames back";
        }

        OpenedAudio audio;
        ASSERT_TRUE(OpenAudio(path, audio));
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, audio));
        int drained = 0;
        const Records records = DecodeAll(decoder, audio, &drained);
        EXPECT_EQ(drained, plain.framesFromFlush);
        const std::vector<int16_t> samples = Joined(records, audio.Channels(), audio.codec->sample_rate);
        EXPECT_EQ(int64_t(samples.size()) / audio.Channels(), plain.sampleFrames);
        EXPECT_TRUE(samples == plain.samples) << "decoded samples differ from plain decoding";

        // A drained decoder stays quiet.
        Records after;
        PacketPtr blank(av_packet_alloc());
        decoder.Decode(blank.get(), after);
        EXPECT_TRUE(after.isEmpty());
    }
}

// ---------------------------------------------------------------------------
// Sample format changes

TEST(AudioDecoder, SampleFormatChangeMidStreamReinitialisesTheResampler)
{
    // WavPack picks the sample format per block, so blocks of a 16-bit file
    // followed by blocks of a float file make one decoder switch from s16p
    // to fltp mid-stream.
    QTemporaryDir dir;
    const int64_t frames = 30000;
    const QString integer = WritePlanarWavPack(dir, AV_SAMPLE_FMT_S16P, 2, frames, "int.wv");
    const QString floating = WritePlanarWavPack(dir, AV_SAMPLE_FMT_FLTP, 2, frames, "float.wv");

    for (bool builtIn : {false, true}) {
        SCOPED_TRACE(builtIn ? "built-in converter" : "resampler");
        OpenedAudio first;
        OpenedAudio second;
        ASSERT_TRUE(OpenAudio(integer, first));
        ASSERT_TRUE(OpenAudio(floating, second));
        ASSERT_EQ(first.codec->sample_fmt, AV_SAMPLE_FMT_S16P);
        AudioDecoder decoder;
        ASSERT_TRUE(SetupFor(decoder, first, builtIn ? kUnusableLayout : first.Layout()));

        Records records;
        PacketPtr packet(av_packet_alloc());
        while (first.Read(packet.get())) {
            decoder.Decode(packet.get(), records);
            av_packet_unref(packet.get());
        }
        const int integerRecords = records.size();
        while (second.Read(packet.get())) {
            decoder.Decode(packet.get(), records);
            av_packet_unref(packet.get());
        }
        ASSERT_EQ(first.codec->sample_fmt, AV_SAMPLE_FMT_FLTP) << "the decoder did not switch formats";

        const std::vector<int16_t> before = Joined(records.mid(0, integerRecords), 2, 48000);
        const std::vector<int16_t> after = Joined(records.mid(integerRecords), 2, 48000);
        EXPECT_TRUE(EverySampleIs(before, 2, frames, PositionSample));
        const ExpectedSample floatValue = builtIn ? ExpectedSample(FromFloatBuiltIn) : ExpectedSample(PositionSample);
        EXPECT_TRUE(EverySampleIs(after, 2, frames, floatValue));
    }
}

TEST(AudioDecoder, FramesInAnotherFormatThanSetUpForAreConvertedFromTheirOwn)
{
    // Setup is told float, the decoder delivers s16: the first frame already
    // counts as a format change.
    MemoryDecoder memory;
    ASSERT_TRUE(memory.Open("pcm_s16le", 2, 48000));
    AudioDecoder decoder;
    ASSERT_TRUE(decoder.Setup(memory.codec.get(), {1, 48000}, 2, AV_CH_LAYOUT_STEREO, 48000, AV_SAMPLE_FMT_FLT));
    const std::vector<int16_t> values = {1, -1, 12345, -12345, 32767, -32768};
    Records records;
    decoder.Decode(MakePacket(values, 0).get(), records);
    EXPECT_EQ(Joined(records, 2, 48000), values);
}
