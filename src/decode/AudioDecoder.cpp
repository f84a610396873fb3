#include "decode/AudioDecoder.h"

#include <MolvaneAV/AvGlobals.h>

#include "foundation/FfmpegCompat.h"
#include "foundation/Time.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <cmath>
#include <cstring>

namespace {

bool IsEmpty(const AVPacket* packet)
{
    return packet->data == nullptr && packet->size == 0;
}

// A draining decoder that keeps failing would otherwise be asked forever.
constexpr int kMaxFailedReceivesWhileDraining = 16;

int16_t ConvertSample(const uint8_t* source, int bytes)
{
    switch (bytes) {
    case 1:
        return static_cast<int16_t>((static_cast<int>(*source) - 128) * 256);
    case 2: {
        int16_t value;
        std::memcpy(&value, source, sizeof(value));
        return value;
    }
    case 4: {
        float value;
        std::memcpy(&value, source, sizeof(value));
        const float scaled = value * 32767.0f;
        // Beyond full scale the value wraps, as the low 16 bits of the int;
        // only what an int cannot hold at all becomes silence.
        if (!(std::fabs(scaled) < 2147483648.0f))
            return 0;
        return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(static_cast<int32_t>(scaled))));
    }
    default:
        return 0;
    }
}

} // namespace

AudioDecoder::AudioDecoder()
    : codecContext(nullptr),
      frame(nullptr),
      resampler(nullptr),
      resamplerReady(false),
      microsecondsPerTick(0.0),
      inputChannels(0),
      outputChannels(0),
      sampleFormat(-1),
      sampleRate(0)
{
}

AudioDecoder::~AudioDecoder()
{
    Reset();
}

bool AudioDecoder::Setup(AVCodecContext* context, const AVRational& timeBase, int32_t channels,
                         uint64_t channelLayout, int32_t rate, int32_t format)
{
    if (context == nullptr)
        return false;

    // Set up again without a Reset in between: release the old buffers.
    Reset();
    codecContext = context;
    frame = av_frame_alloc();
    resampler = swr_alloc();
    inputChannels = outputChannels = channels;
    sampleFormat = format;
    sampleRate = rate;
    microsecondsPerTick = molvane::MicrosecondsPerTick(timeBase.num, timeBase.den);

    // A cap of 0 or less is no cap: the host has not asked for one.
    const int cap = AvGlobals::maxAudioOutputChannels;
    uint64_t outputLayout = channelLayout;
    if (cap > 0 && channels > cap) {
        outputLayout = molvane::compat::DefaultChannelLayout(cap);
        outputChannels = cap;
    }

    resamplerReady = false;
    if (resampler != nullptr) {
        molvane::compat::SetResamplerChannelLayouts(resampler, channelLayout, outputLayout);
        av_opt_set_int(resampler, "in_sample_rate", rate, 0);
        av_opt_set_int(resampler, "out_sample_rate", rate, 0);
        av_opt_set_sample_fmt(resampler, "in_sample_fmt", static_cast<AVSampleFormat>(format), 0);
        av_opt_set_sample_fmt(resampler, "out_sample_fmt", AV_SAMPLE_FMT_S16, 0);
        resamplerReady = swr_init(resampler) >= 0;
    }
    return true;
}

void AudioDecoder::Reset()
{
    codecContext = nullptr;
    av_frame_free(&frame);
    swr_free(&resampler);
}

void AudioDecoder::Decode(AVPacket* packet, QList<std::shared_ptr<DecodedAudioFrame>>& frames)
{
    if (codecContext == nullptr || packet == nullptr || frame == nullptr)
        return;

    int64_t startTime = 0;
    if (packet->pts != AV_NOPTS_VALUE)
        startTime = molvane::TruncateToInt64(static_cast<double>(packet->pts) * microsecondsPerTick);

    const bool endOfStream = IsEmpty(packet);
    bool draining = false;
    int failedReceives = 0;

    bool receive = avcodec_send_packet(codecContext, packet) >= 0;
    for (;;) {
        if (receive) {
            const int result = avcodec_receive_frame(codecContext, frame);
            if (result >= 0) {
                const int samples = frame->nb_samples;
                const double duration =
                    static_cast<double>(samples) / static_cast<double>(codecContext->sample_rate) * 1000000.0;
                const int64_t endTime = molvane::TruncateToInt64(duration - 1.0 + static_cast<double>(startTime));
                auto record = std::make_shared<DecodedAudioFrame>(samples * outputChannels, samples, sampleRate,
                                                                  startTime, endTime);
                ConvertFrame(*record, samples);
                frames.append(std::move(record));

                // The frame's byte length read as interleaved 16-bit audio.
                const double bytesPerSecond = static_cast<double>(molvane::compat::ChannelCount(codecContext)) *
                                              static_cast<double>(codecContext->sample_rate) * 2.0;
                startTime = molvane::TruncateToInt64(static_cast<double>(frame->linesize[0]) / bytesPerSecond *
                                                         1000000.0 +
                                                     static_cast<double>(startTime));
                av_frame_unref(frame);
                continue;
            }
            if (result == AVERROR_EOF)
                return;
            if (draining && ++failedReceives > kMaxFailedReceivesWhileDraining)
                return;
        }

        if (draining) {
            receive = true;
        } else if (endOfStream) {
            avcodec_send_packet(codecContext, nullptr);
            draining = true;
            receive = true;
        } else {
            return;
        }
    }
}

void AudioDecoder::ConvertFrame(DecodedAudioFrame& record, int samples)
{
    // Both converters read inputChannels planes or channels; a frame with
    // fewer would be read past its end, so it stays silent.
    if (molvane::compat::ChannelCount(frame) != inputChannels)
        return;

    if (codecContext->sample_fmt != sampleFormat) {
        sampleFormat = codecContext->sample_fmt;
        av_opt_set_sample_fmt(resampler, "in_sample_fmt", static_cast<AVSampleFormat>(sampleFormat), 0);
        resamplerReady = swr_init(resampler) >= 0;
    }

    if (resamplerReady) {
        uint8_t* output = reinterpret_cast<uint8_t*>(record.samples);
        swr_convert(resampler, &output, samples, const_cast<const uint8_t**>(frame->extended_data), samples);
    } else {
        ConvertBuiltIn(record, samples);
    }
}

void AudioDecoder::ConvertBuiltIn(DecodedAudioFrame& record, int samples) const
{
    const auto format = static_cast<AVSampleFormat>(codecContext->sample_fmt);
    const int bytes = av_get_bytes_per_sample(format);
    const int planes = av_sample_fmt_is_planar(format) ? inputChannels : 1;
    if (bytes <= 0 || planes <= 0 || inputChannels <= 0 || (bytes != 1 && bytes != 2 && bytes != 4))
        return;

    const int64_t bytesPerPlane = static_cast<int64_t>(samples) * inputChannels * bytes / planes;
    int16_t* output = record.samples;
    int16_t* const end = record.samples + record.bufferSampleCount;
    int channel = 0;
    for (int64_t offset = 0; offset < bytesPerPlane; offset += bytes) {
        for (int plane = 0; plane < planes; ++plane) {
            if (channel < outputChannels && output < end)
                *output++ = ConvertSample(frame->extended_data[plane] + offset, bytes);
            if (++channel == inputChannels)
                channel = 0;
        }
    }
}
