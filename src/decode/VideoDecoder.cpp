#include "decode/VideoDecoder.h"

#include <MolvaneAV/Logger.h>
#include <MolvaneAV/Settings.h>

#include "foundation/Time.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <cmath>
#include <cstring>

namespace {

// Encodes linear-light values with a 2.2 gamma for display.
const std::array<uint8_t, 256>& GammaTable()
{
    static const std::array<uint8_t, 256> table = [] {
        std::array<uint8_t, 256> values{};
        for (size_t i = 0; i < values.size(); ++i)
            values[i] = static_cast<uint8_t>(std::lround(255.0 * std::pow(static_cast<double>(i) / 255.0, 1.0 / 2.2)));
        return values;
    }();
    return table;
}

bool IsEmpty(const AVPacket* packet)
{
    return packet->data == nullptr && packet->size == 0;
}

// Widths beyond this cannot describe an RGB24 row in an int.
constexpr int32_t kMaxOutputWidth = 0x3FFFFFFF / 3;

} // namespace

VideoDecoder::VideoDecoder()
    : codecContext(nullptr),
      microsecondsPerTick(0.0),
      outputWidth(1),
      startOffset(0),
      frameRate(0.0),
      frameDuration(0.0),
      sourceWidth(1),
      sourceHeight(1),
      lastFrameTime(0.0),
      rotation(0),
      isImage(false),
      isLinearColorSpace(false),
      frame(nullptr),
      rgbFrame(nullptr),
      rgbBuffer(nullptr),
      rgbBufferSize(0),
      scaler(nullptr)
{
}

VideoDecoder::~VideoDecoder()
{
    Reset();
    sws_freeContext(scaler);
}

void VideoDecoder::SetFrameRate(double rate)
{
    if (rate == frameRate)
        return;
    if (Settings::MIN_IMAGE_SEQUENCE_FRAME_RATE <= rate && rate <= Settings::MAX_IMAGE_SEQUENCE_FRAME_RATE)
        frameRate = rate;
    else
        frameRate = Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE;
    frameDuration = 1.0 / frameRate * 1000000.0;
}

bool VideoDecoder::Setup(AVCodecContext* context, const AVRational& timeBase, int32_t width, int32_t height,
                         float pixelAspectRatio, int64_t offset, double rate, int32_t degrees, bool image,
                         bool linearColorSpace)
{
    if (context == nullptr)
        return false;

    // Set up again without a Reset in between: release the old buffers.
    Reset();
    codecContext = context;
    startOffset = offset;
    microsecondsPerTick = molvane::MicrosecondsPerTick(timeBase.num, timeBase.den);
    SetFrameRate(rate);
    rotation = degrees;
    isImage = image;
    isLinearColorSpace = linearColorSpace;
    frame = av_frame_alloc();
    rgbFrame = av_frame_alloc();

    const float scaledWidth = static_cast<float>(width) * (isImage ? 1.0f : pixelAspectRatio);
    outputWidth = scaledWidth > 0.0f && scaledWidth < static_cast<float>(kMaxOutputWidth)
        ? static_cast<int32_t>(scaledWidth)
        : 0;
    // FFmpeg rounds each row up to this alignment, which makes every row 3 ×
    // width bytes rounded up to a multiple of 4.
    const int alignment = ((4 - (3 * outputWidth) % 4) % 4) + 1;
    rgbBufferSize = av_image_get_buffer_size(AV_PIX_FMT_RGB24, outputWidth, height, alignment);
    if (rgbBufferSize > 0)
        rgbBuffer = static_cast<uint8_t*>(av_mallocz(static_cast<size_t>(rgbBufferSize)));

    if (frame == nullptr || rgbFrame == nullptr || rgbBuffer == nullptr ||
        av_image_fill_arrays(rgbFrame->data, rgbFrame->linesize, rgbBuffer, AV_PIX_FMT_RGB24, outputWidth, height,
                             alignment) < 0) {
        codecContext = nullptr;
        av_frame_free(&frame);
        av_frame_free(&rgbFrame);
        av_freep(&rgbBuffer);
        rgbBufferSize = 0;
        return false;
    }
    sourceWidth = width;
    sourceHeight = height;
    return true;
}

void VideoDecoder::Reset()
{
    codecContext = nullptr;
    av_frame_free(&frame);
    av_frame_free(&rgbFrame);
    av_freep(&rgbBuffer);
}

void VideoDecoder::Decode(AVPacket* packet, QList<std::shared_ptr<DecodedVideoFrame>>& frames, int64_t targetTime)
{
    if (codecContext == nullptr || packet == nullptr)
        return;

    const bool endOfStream = IsEmpty(packet);
    bool draining = false;

    int result = avcodec_send_packet(codecContext, packet);
    if (result < 0 && result != AVERROR_EOF) {
        Logger::GetInstance()->Error("Error decoding video packet.");
        return;
    }
    // A decoder that is already drained takes nothing more; that is no error.
    bool receive = result != AVERROR_EOF;

    for (;;) {
        if (receive) {
            result = avcodec_receive_frame(codecContext, frame);
            if (result >= 0) {
                const bool goOn = ConvertPicture(frames, targetTime);
                av_frame_unref(frame);
                // Also while draining: the pictures held back and the marker
                // are then left to a later call, if the host makes one.
                if (!goOn)
                    return;
            } else if (result == AVERROR_EOF) {
                if (!isImage)
                    frames.append(std::make_shared<DecodedVideoFrame>());
                return;
            } else if (result == AVERROR(EAGAIN)) {
                // A draining decoder never asks for more input; if one does,
                // waiting would never end.
                if (draining)
                    return;
            } else {
                Logger::GetInstance()->Error("Error decoding video packet.");
                return;
            }
        }

        if (draining) {
            receive = true;
        } else if (endOfStream || isImage) {
            // An image is one packet: drain at once so its picture comes out now.
            avcodec_send_packet(codecContext, nullptr);
            draining = true;
            receive = true;
        } else {
            return;
        }
    }
}

bool VideoDecoder::ConvertPicture(QList<std::shared_ptr<DecodedVideoFrame>>& frames, int64_t targetTime)
{
    int64_t startTime = 0;
    if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
        const double time = static_cast<double>(frame->best_effort_timestamp) * microsecondsPerTick -
                            static_cast<double>(startOffset);
        startTime = molvane::TruncateToInt64(time);
        lastFrameTime = static_cast<double>(startTime);
    } else {
        const double time = lastFrameTime + frameDuration;
        startTime = molvane::TruncateToInt64(time);
        lastFrameTime = time;
    }

    if (targetTime >= 0 &&
        static_cast<double>(targetTime) - Settings::maxTrailingFramesAfterSeek * frameDuration >
            static_cast<double>(startTime))
        return false;

    // The picture's own size and format, not the context's: under frame
    // threading the context can already describe a later packet.
    const int width = frame->width;
    const int height = frame->height;
    if (width != sourceWidth || height != sourceHeight) {
        const uint8_t zero = 0;
        auto placeholder = std::make_shared<DecodedVideoFrame>(&zero, 1, width, height, startTime, frameRate, rotation,
                                                               isLinearColorSpace);
        placeholder->status = 1;
        frames.append(std::move(placeholder));
        return false;
    }

    scaler = sws_getCachedContext(scaler, width, height, static_cast<AVPixelFormat>(frame->format), outputWidth,
                                  height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (scaler == nullptr) {
        Logger::GetInstance()->Error("Error decoding video packet.");
        return true;
    }
    // Scale straight into the record's own buffer: copying a converted
    // picture costs as much again as a tenth of the decode. Its layout is
    // the one rgbFrame describes; the row padding the scaler leaves alone
    // is zeroed so records depend on the picture alone.
    auto record = std::make_shared<DecodedVideoFrame>(nullptr, 0, outputWidth, height, startTime, frameRate,
                                                      rotation, isLinearColorSpace);
    record->data = new uint8_t[static_cast<size_t>(rgbBufferSize)];
    record->size = rgbBufferSize;
    uint8_t* const planes[4] = {record->data, nullptr, nullptr, nullptr};
    const int stride = rgbFrame->linesize[0];
    const int strides[4] = {stride, 0, 0, 0};
    sws_scale(scaler, frame->data, frame->linesize, 0, height, planes, strides);
    const int rowBytes = 3 * outputWidth;
    if (stride > rowBytes) {
        for (int row = 0; row < height; ++row)
            std::memset(record->data + static_cast<size_t>(row) * stride + rowBytes, 0,
                        static_cast<size_t>(stride - rowBytes));
    }
    if (isLinearColorSpace) {
        const auto& gamma = GammaTable();
        for (int32_t i = 0; i < record->size; ++i)
            record->data[i] = gamma[record->data[i]];
    }
    frames.append(std::move(record));
    return true;
}
