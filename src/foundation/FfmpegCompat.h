#pragma once

// The one place that knows which FFmpeg version we build against. Calls
// whose form differs between FFmpeg 4 and 5.1 (or that 5.1 deprecates) go
// through here, so the rest of the library reads as FFmpeg-4-era code and a
// later FFmpeg needs changes in this file only.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <cstdint>

#if defined(__GNUC__)
#  define MOLVANE_PUSH_NO_DEPRECATED \
     _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wdeprecated-declarations\"")
#  define MOLVANE_POP_NO_DEPRECATED _Pragma("GCC diagnostic pop")
#else
#  define MOLVANE_PUSH_NO_DEPRECATED
#  define MOLVANE_POP_NO_DEPRECATED
#endif

namespace molvane::compat {

// FFmpeg 5 made the codec look-ups return const pointers.
#if LIBAVCODEC_VERSION_MAJOR >= 59
using Codec = const AVCodec;
#else
using Codec = AVCodec;
#endif

// av_init_packet is deprecated since FFmpeg 5 (packets should come from
// av_packet_alloc), yet a caller-allocated packet still needs its fields set.
inline void InitPacket(AVPacket* packet)
{
    MOLVANE_PUSH_NO_DEPRECATED
    av_init_packet(packet);
    MOLVANE_POP_NO_DEPRECATED
}

// Channel count and layout mask of a decoder context; FFmpeg 5.1 moved them
// into AVChannelLayout and deprecated the old fields.
inline int ChannelCount(const AVCodecContext* context)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(59, 24, 100)
    return context->ch_layout.nb_channels;
#else
    return context->channels;
#endif
}

inline uint64_t ChannelLayoutMask(const AVCodecContext* context)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(59, 24, 100)
    return context->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? context->ch_layout.u.mask : 0;
#else
    return context->channel_layout;
#endif
}

inline uint64_t DefaultChannelLayout(int channels)
{
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 28, 100)
    AVChannelLayout layout;
    av_channel_layout_default(&layout, channels);
    const uint64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    av_channel_layout_uninit(&layout);
    return mask;
#else
    return static_cast<uint64_t>(av_get_default_channel_layout(channels));
#endif
}

inline int ChannelCount(const AVFrame* frame)
{
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 28, 100)
    return frame->ch_layout.nb_channels;
#else
    return frame->channels;
#endif
}

// Input and output channel layouts of a resampler, as layout masks. FFmpeg 4
// took them as the integer options "in_channel_layout"/"out_channel_layout";
// FFmpeg 5.1 keeps those (deprecated) beside the AVChannelLayout options, and
// later versions drop them.
inline void SetResamplerChannelLayouts(SwrContext* resampler, uint64_t inLayout, uint64_t outLayout)
{
#if LIBSWRESAMPLE_VERSION_MAJOR < 5
    av_opt_set_int(resampler, "in_channel_layout", static_cast<int64_t>(inLayout), 0);
    av_opt_set_int(resampler, "out_channel_layout", static_cast<int64_t>(outLayout), 0);
#else
    AVChannelLayout in = {};
    AVChannelLayout out = {};
    av_channel_layout_from_mask(&in, inLayout);
    av_channel_layout_from_mask(&out, outLayout);
    av_opt_set_chlayout(resampler, "in_chlayout", &in, 0);
    av_opt_set_chlayout(resampler, "out_chlayout", &out, 0);
    av_channel_layout_uninit(&in);
    av_channel_layout_uninit(&out);
#endif
}

// The stream's display matrix (nine int32 values), or null. FFmpeg 4 also
// exported it as the "rotate" metadata tag; FFmpeg 5 only as side data.
inline const int32_t* DisplayMatrix(const AVStream* stream)
{
    MOLVANE_PUSH_NO_DEPRECATED
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    MOLVANE_POP_NO_DEPRECATED
    if (data == nullptr || size < 9 * sizeof(int32_t))
        return nullptr;
    return reinterpret_cast<const int32_t*>(data);
}

} // namespace molvane::compat
