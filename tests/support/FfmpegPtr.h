#pragma once

// Owning handles for the FFmpeg objects the test helpers and tests use, so an
// early return or a failed assertion never leaks (the suite runs under LSan).

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <QString>

#include <memory>

namespace molvane::test {

struct InputContextDeleter {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct OutputContextDeleter {
    void operator()(AVFormatContext* p) const
    {
        if (p->pb && p->oformat && !(p->oformat->flags & AVFMT_NOFILE))
            avio_closep(&p->pb);
        avformat_free_context(p);
    }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct FrameDeleter {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsContextDeleter {
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};
struct SwrContextDeleter {
    void operator()(SwrContext* p) const { swr_free(&p); }
};

using InputContextPtr = std::unique_ptr<AVFormatContext, InputContextDeleter>;
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsContextPtr = std::unique_ptr<SwsContext, SwsContextDeleter>;
using SwrContextPtr = std::unique_ptr<SwrContext, SwrContextDeleter>;

// An AVDictionary that frees itself; pass Slot() to calls that take
// AVDictionary** and may replace it.
class Dictionary
{
public:
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    ~Dictionary() { av_dict_free(&dict_); }

    void Set(const char* key, const char* value) { av_dict_set(&dict_, key, value, 0); }
    bool Has(const char* key) const { return av_dict_get(dict_, key, nullptr, 0) != nullptr; }
    AVDictionary** Slot() { return &dict_; }
    // Keys nobody consumed, comma separated; empty when all were used.
    QString Leftover() const
    {
        QString keys;
        const AVDictionaryEntry* e = nullptr;
        while ((e = av_dict_get(dict_, "", e, AV_DICT_IGNORE_SUFFIX)))
            keys += (keys.isEmpty() ? "" : ", ") + QString::fromUtf8(e->key);
        return keys;
    }

private:
    AVDictionary* dict_ = nullptr;
};

inline QString AvErrorText(int err)
{
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, buf, sizeof buf);
    return QString::fromUtf8(buf);
}

} // namespace molvane::test
