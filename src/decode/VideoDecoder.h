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
struct SwsContext;

// Turns packets of an opened video decoder into RGB24 DecodedVideoFrame
// records at the picture's display width, timed in microseconds from the
// stream's first frame. The decoder context belongs to the caller.
class VideoDecoder
{
public:
    VideoDecoder();
    ~VideoDecoder();
    VideoDecoder(const VideoDecoder&) = delete;
    VideoDecoder& operator=(const VideoDecoder&) = delete;

    // Only on a fresh or reset converter. False when codecContext is null or
    // the picture buffer cannot be described; Decode then does nothing.
    bool Setup(AVCodecContext* codecContext, const AVRational& timeBase, int32_t width, int32_t height,
               float pixelAspectRatio, int64_t startOffset, double frameRate, int32_t rotation, bool isImage,
               bool isLinearColorSpace);
    // Sends one packet (an empty one drains the decoder) and appends at most
    // one picture, or all remaining ones and an end-of-stream marker when
    // draining a movie. A decoder that refuses the packet until its waiting
    // pictures are taken out gives those first, so such a call can append
    // more. targetTime >= 0 drops frames more than
    // Settings::maxTrailingFramesAfterSeek frames before it, and leaves such
    // frames that no other refers to undecoded.
    void Decode(AVPacket* packet, QList<std::shared_ptr<DecodedVideoFrame>>& frames, int64_t targetTime);
    // Forgets the context and frees the frames and buffer; keeps the scaler.
    void Reset();
    void SetFrameRate(double frameRate);

private:
    // False when the call's video work ends with this picture: it was
    // dropped by the trailing-frame filter, or stood in for by a size-change
    // placeholder.
    bool ConvertPicture(QList<std::shared_ptr<DecodedVideoFrame>>& frames, int64_t targetTime);
    // Whether the pictures of packet would all be dropped by the
    // trailing-frame filter of targetTime.
    bool SkipsPicturesOf(const AVPacket* packet, int64_t targetTime) const;
    // Gives the scaler the picture's own colour matrix and range.
    void ApplyColorspace();

    AVCodecContext* codecContext;
    double microsecondsPerTick;
    int32_t outputWidth;
    int64_t startOffset;
    double frameRate;
    double frameDuration;
    int32_t sourceWidth;
    int32_t sourceHeight;
    double lastFrameTime;
    int32_t rotation;
    bool isImage;
    bool isLinearColorSpace;
    AVFrame* frame;
    AVFrame* rgbFrame;
    uint8_t* rgbBuffer;
    int32_t rgbBufferSize;
    SwsContext* scaler;
    // The scaler's target: rows wider than the record's and a padded end,
    // since FFmpeg's converters write whole blocks of pixels.
    int32_t scaledStride;
};
