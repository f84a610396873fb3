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

#include <algorithm>
#include <array>
#include <climits>
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

// FFmpeg's converters write up to 16 pixels at a time and drop the last
// block of a row that its stride cannot hold: scale into rows of whole
// blocks, aligned for its vector stores, with room after the last one.
constexpr int kScalerPixelBlock = 16;
constexpr int kScalerAlignment = 64;
constexpr int kScalerTailPadding = 64;

int ScaledStride(int32_t width)
{
    const int64_t pixels = (int64_t(width) + kScalerPixelBlock - 1) / kScalerPixelBlock * kScalerPixelBlock;
    const int64_t stride = (3 * pixels + kScalerAlignment - 1) / kScalerAlignment * kScalerAlignment;
    return stride <= INT32_MAX ? int(stride) : 0;
}

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
      scaler(nullptr),
      scaledStride(0)
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
    // width bytes rounded up to a multiple of 4: the records' layout.
    const int alignment = ((4 - (3 * outputWidth) % 4) % 4) + 1;
    rgbBufferSize = av_image_get_buffer_size(AV_PIX_FMT_RGB24, outputWidth, height, alignment);
    scaledStride = ScaledStride(outputWidth);
    const int64_t scaledBytes = int64_t(scaledStride) * std::max(height, 0) + kScalerTailPadding;
    // Left uncleared: pictures whose rows fit the records never touch it,
    // and a 1080p buffer would otherwise take 6 MB of resident memory.
    if (rgbBufferSize > 0 && scaledStride > 0 && scaledBytes <= INT32_MAX)
        rgbBuffer = static_cast<uint8_t*>(av_malloc(static_cast<size_t>(scaledBytes)));

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
    rgbFrame->linesize[0] = scaledStride;
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
    // A picture that the trailing-frame filter drops and that no other
    // picture refers to need not be decoded at all: the lead-in of an exact
    // seek is mostly such pictures. The decoder reads the setting per packet.
    codecContext->skip_frame = SkipsPicturesOf(packet, targetTime) ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;

    int result = avcodec_send_packet(codecContext, packet);
    // A decoder may refuse a packet until the pictures waiting in it are
    // taken out: take them, then offer the packet again. A receive can also
    // only move input on inside the decoder (the halves of a VP9 superframe
    // under frame threading) and give nothing; that is progress too, but
    // never twice in a row.
    bool idleReceive = false;
    while (result == AVERROR(EAGAIN)) {
        const int received = avcodec_receive_frame(codecContext, frame);
        if (received >= 0) {
            ConvertPicture(frames, targetTime);
            av_frame_unref(frame);
            idleReceive = false;
        } else if (received != AVERROR(EAGAIN) || idleReceive) {
            result = received == AVERROR(EAGAIN) ? AVERROR_BUG : received;
            break;
        } else {
            idleReceive = true;
        }
        result = avcodec_send_packet(codecContext, packet);
    }
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

bool VideoDecoder::SkipsPicturesOf(const AVPacket* packet, int64_t targetTime) const
{
    if (targetTime < 0 || isImage || packet->pts == AV_NOPTS_VALUE)
        return false;
    // Only where a picture nothing refers to leaves no trace in the decoder.
    // A VP8 or VP9 frame that refreshes no reference can still carry
    // probabilities that later frames decode with.
    switch (codecContext->codec_id) {
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_HEVC:
    case AV_CODEC_ID_MPEG1VIDEO:
    case AV_CODEC_ID_MPEG2VIDEO:
    case AV_CODEC_ID_MPEG4:
        break;
    default:
        return false;
    }
    // Wholly before the threshold: the picture's time is guessed from its
    // packet, so it must end there, not merely start before it.
    const double start = static_cast<double>(packet->pts) * microsecondsPerTick - static_cast<double>(startOffset);
    return start + frameDuration <=
           static_cast<double>(targetTime) - Settings::maxTrailingFramesAfterSeek * frameDuration;
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
    ApplyColorspace();
    auto record = std::make_shared<DecodedVideoFrame>(nullptr, 0, outputWidth, height, startTime, frameRate,
                                                      rotation, isLinearColorSpace);
    const size_t recordStride = static_cast<size_t>(rgbBufferSize / std::max(height, 1));
    if (outputWidth % kScalerPixelBlock == 0 && recordStride == static_cast<size_t>(scaledStride)) {
        // Rows of whole blocks without padding (widths of multiples of 64,
        // as most movies have): the converter writes into the record itself,
        // with room for its vector stores' tail, which saves a copy of every
        // picture.
        record->data = new uint8_t[static_cast<size_t>(rgbBufferSize) + kScalerTailPadding];
        record->size = rgbBufferSize;
        uint8_t* const planes[4] = {record->data, nullptr, nullptr, nullptr};
        const int strides[4] = {scaledStride, 0, 0, 0};
        sws_scale(scaler, frame->data, frame->linesize, 0, height, planes, strides);
    } else {
        sws_scale(scaler, frame->data, frame->linesize, 0, height, rgbFrame->data, rgbFrame->linesize);
        // The record keeps the rows in its own layout; the padding of each row is zero.
        record->data = new uint8_t[static_cast<size_t>(rgbBufferSize)];
        record->size = rgbBufferSize;
        const size_t rowBytes = static_cast<size_t>(3 * outputWidth);
        for (int row = 0; row < height; ++row) {
            uint8_t* const target = record->data + row * recordStride;
            std::memcpy(target, rgbBuffer + static_cast<size_t>(row) * scaledStride, rowBytes);
            std::memset(target + rowBytes, 0, recordStride - rowBytes);
        }
    }
    if (isLinearColorSpace) {
        const auto& gamma = GammaTable();
        for (int32_t i = 0; i < record->size; ++i)
            record->data[i] = gamma[record->data[i]];
    }
    frames.append(std::move(record));
    return true;
}

void VideoDecoder::ApplyColorspace()
{
    int* inverseTable = nullptr;
    int* table = nullptr;
    int sourceFull = 0, destinationFull = 0, brightness = 0, contrast = 0, saturation = 0;
    if (sws_getColorspaceDetails(scaler, &inverseTable, &sourceFull, &table, &destinationFull, &brightness, &contrast,
                                 &saturation) < 0)
        return;
    // The picture's matrix, BT.601 when it names none; its range when it
    // names one, else what the scaler takes from the pixel format.
    const int matrix = frame->colorspace;
    const int* coefficients =
        sws_getCoefficients(matrix >= 1 && matrix <= 10 && matrix != AVCOL_SPC_YCGCO ? matrix : SWS_CS_ITU601);
    const int full = frame->color_range == AVCOL_RANGE_UNSPECIFIED ? sourceFull
                                                                    : frame->color_range == AVCOL_RANGE_JPEG;
    // Telling the scaler rebuilds its tables: only when they differ. The
    // cached scaler may have been made anew at the same address, so ask it.
    if (full == sourceFull && std::equal(coefficients, coefficients + 4, inverseTable))
        return;
    sws_setColorspaceDetails(scaler, coefficients, full, coefficients, destinationFull, brightness, contrast,
                             saturation);
}
