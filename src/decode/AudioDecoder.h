#pragma once

#include <MolvaneAV/DecodedFrames.h>

extern "C" {
#include <libavutil/rational.h>
}

#include <QList>

#include <cstdint>
#include <memory>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

// Turns packets of an opened audio decoder into interleaved int16
// DecodedAudioFrame records at the stream's own rate, with at most
// AvGlobals::maxAudioOutputChannels channels (0 or less: no cap). The
// decoder context belongs to the caller.
class AudioDecoder
{
public:
    AudioDecoder();
    ~AudioDecoder();
    AudioDecoder(const AudioDecoder&) = delete;
    AudioDecoder& operator=(const AudioDecoder&) = delete;

    // False only for a null context; a resampler that cannot initialise
    // leaves the built-in converter in charge.
    bool Setup(AVCodecContext* codecContext, const AVRational& timeBase, int32_t channels, uint64_t channelLayout,
               int32_t sampleRate, int32_t sampleFormat);
    // Appends one record per frame the packet yields; an empty packet drains
    // the decoder.
    void Decode(AVPacket* packet, QList<std::shared_ptr<DecodedAudioFrame>>& frames);
    void Reset();

    int32_t OutputChannels() const { return outputChannels; }

private:
    void ConvertFrame(DecodedAudioFrame& record, int samples);
    void ConvertBuiltIn(DecodedAudioFrame& record, int samples) const;

    AVCodecContext* codecContext;
    AVFrame* frame;
    SwrContext* resampler;
    bool resamplerReady;
    double microsecondsPerTick;
    int32_t inputChannels;
    int32_t outputChannels;
    int32_t sampleFormat;
    int32_t sampleRate;
};
