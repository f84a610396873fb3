// WriteMedia: one encode-and-mux path for every fixture and every mediaSpec a test
// makes up.

#include "support/FfmpegPtr.h"
#include "support/MediaFixtures.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

namespace molvane::test {

namespace {

struct WriteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void Fail(const QString& what, int err = 0)
{
    throw WriteError((err ? what + ": " + AvErrorText(err) : what).toStdString());
}

void Check(int ret, const QString& what)
{
    if (ret < 0)
        Fail(what, ret);
}

template <typename T>
T* Checked(T* p, const QString& what)
{
    if (!p)
        Fail(what, AVERROR(ENOMEM));
    return p;
}

const AVCodec* FindEncoder(const QString& name)
{
    const AVCodec* codec = avcodec_find_encoder_by_name(name.toUtf8().constData());
    if (!codec)
        Fail("no encoder named " + name);
    return codec;
}

void FillOptions(Dictionary& dict, const std::map<std::string, std::string>& options)
{
    for (const auto& [key, value] : options)
        dict.Set(key.c_str(), value.c_str());
}

// Opens `enc` with the caller's options, refusing options nobody took so a
// misspelt option cannot silently change a fixture.
void OpenEncoder(AVCodecContext* enc, const AVCodec* codec,
                 const std::map<std::string, std::string>& options)
{
    Dictionary dict;
    FillOptions(dict, options);
    // Frame threads and thread pools make output depend on timing.
    enc->thread_count = 1;
    enc->flags |= AV_CODEC_FLAG_BITEXACT;
    if (qstrcmp(codec->name, "libx265") == 0 && !dict.Has("x265-params"))
        dict.Set("x265-params", "pools=none:frame-threads=1:log-level=error");
    Check(avcodec_open2(enc, codec, dict.Slot()), QString("cannot open encoder ") + codec->name);
    const QString left = dict.Leftover();
    if (!left.isEmpty())
        Fail(QString("encoder %1 does not take option(s) %2").arg(codec->name, left));
}

// Drains every packet `enc` has ready into the muxer, moved by `offset`
// (encoder time base). Encoders always count from 0: some (x264) take
// timestamps below their starting point for a reordering error.
void WritePackets(AVFormatContext* oc, AVCodecContext* enc, AVStream* st, AVPacket* pkt,
                  int64_t offset)
{
    for (;;) {
        const int ret = avcodec_receive_packet(enc, pkt);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF)
            return;
        Check(ret, "encoding failed");
        if (pkt->pts != AV_NOPTS_VALUE)
            pkt->pts += offset;
        if (pkt->dts != AV_NOPTS_VALUE)
            pkt->dts += offset;
        av_packet_rescale_ts(pkt, enc->time_base, st->time_base);
        pkt->stream_index = st->index;
        Check(av_interleaved_write_frame(oc, pkt), "cannot write packet");
    }
}

void Encode(AVFormatContext* oc, AVCodecContext* enc, AVStream* st, AVPacket* pkt,
            const AVFrame* frame, int64_t offset)
{
    Check(avcodec_send_frame(enc, frame), "encoder refused a frame");
    WritePackets(oc, enc, st, pkt, offset);
}

// One stream being written: it knows when its next unit is due and how to
// produce it.
class Track
{
public:
    virtual ~Track() = default;
    bool Done() const { return done_; }
    // Time of the next unit, for interleaving.
    virtual int64_t NextTime() const = 0;
    virtual AVRational TimeBase() const = 0;
    // Writes the next unit, or flushes and finishes when there is none.
    virtual void Step(AVFormatContext* oc, AVPacket* pkt) = 0;

protected:
    bool done_ = false;
};

class VideoTrack : public Track
{
public:
    VideoTrack(AVFormatContext* oc, const VideoSpec& mediaSpec) : spec_(mediaSpec)
    {
        if (mediaSpec.rateNum <= 0 || mediaSpec.rateDen <= 0 || mediaSpec.frames < 0)
            Fail("bad frame rate or frame count");
        if (mediaSpec.frames > kMaxFrameIndex + 1)
            Fail("more frames than the index code can number");
        codec_ = FindEncoder(mediaSpec.encoder);
        if (codec_->type != AVMEDIA_TYPE_VIDEO)
            Fail(mediaSpec.encoder + " is not a video encoder");
        globalHeader_ = oc->oformat->flags & AVFMT_GLOBALHEADER;
        if (!mediaSpec.sizeChanges.empty() && globalHeader_)
            Fail("size changes need a container with in-band codec headers");
        for (const SizeChange& change : mediaSpec.sizeChanges) {
            if (change.atFrame <= 0 || change.atFrame >= mediaSpec.frames)
                Fail("a size change must fall inside the clip");
        }
        Open(mediaSpec.width, mediaSpec.height);

        stream_ = Checked(avformat_new_stream(oc, nullptr), "cannot add stream");
        Check(avcodec_parameters_from_context(stream_->codecpar, enc_.get()), "codec parameters");
        stream_->time_base = enc_->time_base;
        stream_->avg_frame_rate = enc_->framerate;
        stream_->sample_aspect_ratio = enc_->sample_aspect_ratio;
        if (mediaSpec.rotateClockwise) {
            auto* matrix = reinterpret_cast<int32_t*>(av_stream_new_side_data(
                stream_, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
            Checked(matrix, "display matrix");
            // This FFmpeg's setter takes the clockwise angle; readers get it
            // back counter-clockwise (-90 for 90).
            av_display_rotation_set(matrix, mediaSpec.rotateClockwise);
        }
        done_ = mediaSpec.frames == 0;
    }

    int64_t NextTime() const override { return spec_.firstPts + next_; }
    AVRational TimeBase() const override { return enc_->time_base; }

    void Step(AVFormatContext* oc, AVPacket* pkt) override
    {
        if (next_ == spec_.frames) {
            Encode(oc, enc_.get(), stream_, pkt, nullptr, spec_.firstPts);
            done_ = true;
            return;
        }
        for (const SizeChange& change : spec_.sizeChanges) {
            if (change.atFrame == next_) {
                Encode(oc, enc_.get(), stream_, pkt, nullptr, spec_.firstPts);
                Open(change.width, change.height);
            }
        }
        Check(av_frame_make_writable(canvas_.get()), "frame buffer");
        PaintFrameIndex(next_, canvas_->data, canvas_->linesize, canvas_->width, canvas_->height);
        AVFrame* frame = canvas_.get();
        if (sws_) {
            Check(av_frame_make_writable(converted_.get()), "frame buffer");
            sws_scale(sws_.get(), canvas_->data, canvas_->linesize, 0, canvas_->height,
                      converted_->data, converted_->linesize);
            frame = converted_.get();
        }
        frame->pts = next_;
        ++next_;
        Encode(oc, enc_.get(), stream_, pkt, frame, spec_.firstPts);
    }

private:
    static FramePtr NewFrame(AVPixelFormat format, int width, int height)
    {
        FramePtr frame(Checked(av_frame_alloc(), "frame"));
        frame->format = format;
        frame->width = width;
        frame->height = height;
        Check(av_frame_get_buffer(frame.get(), 0), "frame buffer");
        return frame;
    }

    AVPixelFormat InputFormat() const
    {
        if (spec_.pixFmt != AV_PIX_FMT_NONE)
            return spec_.pixFmt;
        const AVPixelFormat* formats = codec_->pix_fmts;
        if (!formats)
            return AV_PIX_FMT_YUV420P;
        for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
            if (*f == AV_PIX_FMT_YUV420P)
                return *f;
        }
        return formats[0];
    }

    void Open(int width, int height)
    {
        if (width < 16 || height < 16)
            Fail("pictures smaller than 16x16 cannot carry the frame index");
        enc_.reset(Checked(avcodec_alloc_context3(codec_), "codec context"));
        AVCodecContext* c = enc_.get();
        c->width = width;
        c->height = height;
        c->pix_fmt = InputFormat();
        c->time_base = AVRational{spec_.rateDen, spec_.rateNum};
        c->framerate = AVRational{spec_.rateNum, spec_.rateDen};
        // Intra-only coders (MJPEG, PNG, ...) refuse B-frames rather than ignore them.
        const AVCodecDescriptor* desc = avcodec_descriptor_get(codec_->id);
        if (!desc || !(desc->props & AV_CODEC_PROP_INTRA_ONLY)) {
            c->gop_size = spec_.gop;
            c->max_b_frames = spec_.maxBFrames;
        }
        c->sample_aspect_ratio = AVRational{spec_.sarNum, spec_.sarDen};
        if (globalHeader_)
            c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        OpenEncoder(c, codec_, spec_.options);

        canvas_ = NewFrame(AV_PIX_FMT_YUV420P, width, height);
        sws_.reset();
        converted_.reset();
        if (c->pix_fmt != AV_PIX_FMT_YUV420P) {
            converted_ = NewFrame(c->pix_fmt, width, height);
            sws_.reset(Checked(sws_getContext(width, height, AV_PIX_FMT_YUV420P, width, height,
                                              c->pix_fmt,
                                              SWS_BICUBIC | SWS_BITEXACT | SWS_ACCURATE_RND,
                                              nullptr, nullptr, nullptr),
                               QString("no conversion to ") + av_get_pix_fmt_name(c->pix_fmt)));
        }
    }

    const VideoSpec& spec_;
    const AVCodec* codec_ = nullptr;
    bool globalHeader_ = false;
    CodecContextPtr enc_;
    AVStream* stream_ = nullptr;
    FramePtr canvas_;
    FramePtr converted_;
    SwsContextPtr sws_;
    int next_ = 0;
};

// Stores one sample in whatever layout and format the frame has.
void StoreSample(AVFrame* frame, int index, int channel, const AudioSpec& mediaSpec, int64_t n)
{
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int channels = frame->ch_layout.nb_channels;
    const int bytes = av_get_bytes_per_sample(format);
    uint8_t* p = av_sample_fmt_is_planar(format)
                     ? frame->extended_data[channel] + static_cast<ptrdiff_t>(index) * bytes
                     : frame->extended_data[0] +
                           (static_cast<ptrdiff_t>(index) * channels + channel) * bytes;

    // A quiet sine with a different pitch per channel when not positional.
    constexpr double kTwoPi = 6.283185307179586;
    const double wave =
        0.25 * std::sin(kTwoPi * 220.0 * (channel + 1) * static_cast<double>(n) / mediaSpec.sampleRate);
    const int16_t s16 = mediaSpec.positional ? PositionSample(n, channel)
                                        : static_cast<int16_t>(std::lrint(wave * 32767));
    const float flt = mediaSpec.positional ? PositionSampleFloat(n, channel) : static_cast<float>(wave);

    switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8: {
        const uint8_t v = mediaSpec.positional ? PositionSampleU8(n, channel)
                                          : static_cast<uint8_t>(128 + std::lrint(wave * 127));
        *p = v;
        break;
    }
    case AV_SAMPLE_FMT_S16: *reinterpret_cast<int16_t*>(p) = s16; break;
    case AV_SAMPLE_FMT_S32: *reinterpret_cast<int32_t*>(p) = static_cast<int32_t>(s16) * 65536; break;
    case AV_SAMPLE_FMT_S64: *reinterpret_cast<int64_t*>(p) = static_cast<int64_t>(s16) << 48; break;
    case AV_SAMPLE_FMT_FLT: *reinterpret_cast<float*>(p) = flt; break;
    case AV_SAMPLE_FMT_DBL: *reinterpret_cast<double*>(p) = flt; break;
    default: Fail(QString("sample format %1 not supported").arg(av_get_sample_fmt_name(format)));
    }
}

class AudioTrack : public Track
{
public:
    AudioTrack(AVFormatContext* oc, const AudioSpec& mediaSpec) : spec_(mediaSpec)
    {
        if (mediaSpec.sampleRate <= 0 || mediaSpec.channels <= 0 || mediaSpec.sampleFrames < 0)
            Fail("bad audio parameters");
        const AVCodec* codec = FindEncoder(mediaSpec.encoder);
        if (codec->type != AVMEDIA_TYPE_AUDIO)
            Fail(mediaSpec.encoder + " is not an audio encoder");
        enc_.reset(Checked(avcodec_alloc_context3(codec), "codec context"));
        AVCodecContext* c = enc_.get();
        c->sample_rate = mediaSpec.sampleRate;
        av_channel_layout_default(&c->ch_layout, mediaSpec.channels);
        c->sample_fmt = mediaSpec.sampleFormat != AV_SAMPLE_FMT_NONE ? mediaSpec.sampleFormat
                        : codec->sample_fmts                    ? codec->sample_fmts[0]
                                                                : AV_SAMPLE_FMT_S16;
        c->time_base = AVRational{1, mediaSpec.sampleRate};
        if (oc->oformat->flags & AVFMT_GLOBALHEADER)
            c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        OpenEncoder(c, codec, mediaSpec.options);

        const bool anySize = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) || c->frame_size <= 0;
        chunk_ = anySize ? 1024 : c->frame_size;
        if (!anySize && !(codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) &&
            mediaSpec.sampleFrames % chunk_ != 0)
            Fail(QString("%1 needs whole frames of %2 samples").arg(mediaSpec.encoder).arg(chunk_));

        frame_.reset(Checked(av_frame_alloc(), "frame"));
        frame_->format = c->sample_fmt;
        frame_->sample_rate = c->sample_rate;
        Check(av_channel_layout_copy(&frame_->ch_layout, &c->ch_layout), "channel layout");
        frame_->nb_samples = chunk_;
        Check(av_frame_get_buffer(frame_.get(), 0), "frame buffer");

        stream_ = Checked(avformat_new_stream(oc, nullptr), "cannot add stream");
        Check(avcodec_parameters_from_context(stream_->codecpar, c), "codec parameters");
        stream_->time_base = c->time_base;
        done_ = mediaSpec.sampleFrames == 0;
    }

    int64_t NextTime() const override { return spec_.firstSample + next_; }
    AVRational TimeBase() const override { return enc_->time_base; }

    void Step(AVFormatContext* oc, AVPacket* pkt) override
    {
        if (next_ == spec_.sampleFrames) {
            Encode(oc, enc_.get(), stream_, pkt, nullptr, spec_.firstSample);
            done_ = true;
            return;
        }
        Check(av_frame_make_writable(frame_.get()), "frame buffer");
        frame_->nb_samples = static_cast<int>(std::min<int64_t>(chunk_, spec_.sampleFrames - next_));
        for (int i = 0; i < frame_->nb_samples; ++i) {
            for (int c = 0; c < spec_.channels; ++c)
                StoreSample(frame_.get(), i, c, spec_, next_ + i);
        }
        frame_->pts = next_;
        next_ += frame_->nb_samples;
        Encode(oc, enc_.get(), stream_, pkt, frame_.get(), spec_.firstSample);
    }

private:
    const AudioSpec& spec_;
    CodecContextPtr enc_;
    AVStream* stream_ = nullptr;
    FramePtr frame_;
    int chunk_ = 0;
    int64_t next_ = 0;
};

// SubRip cues written as packets straight away: there is nothing to encode.
class SubtitleTrack : public Track
{
public:
    SubtitleTrack(AVFormatContext* oc, int cues) : cues_(cues)
    {
        if (avformat_query_codec(oc->oformat, AV_CODEC_ID_SUBRIP, FF_COMPLIANCE_NORMAL) != 1)
            Fail(QString("muxer %1 does not take SubRip").arg(oc->oformat->name));
        stream_ = Checked(avformat_new_stream(oc, nullptr), "cannot add stream");
        stream_->codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
        stream_->codecpar->codec_id = AV_CODEC_ID_SUBRIP;
        stream_->time_base = TimeBase();
        done_ = cues == 0;
    }

    int64_t NextTime() const override { return int64_t{500} * next_; }
    AVRational TimeBase() const override { return AVRational{1, 1000}; }

    void Step(AVFormatContext* oc, AVPacket* pkt) override
    {
        const QByteArray text = "Cue " + QByteArray::number(next_ + 1);
        Check(av_new_packet(pkt, text.size()), "packet");
        std::copy(text.begin(), text.end(), pkt->data);
        pkt->pts = pkt->dts = NextTime();
        pkt->duration = 400;
        pkt->flags |= AV_PKT_FLAG_KEY;
        av_packet_rescale_ts(pkt, TimeBase(), stream_->time_base);
        pkt->stream_index = stream_->index;
        Check(av_interleaved_write_frame(oc, pkt), "cannot write packet");
        done_ = ++next_ == cues_;
    }

private:
    int cues_;
    AVStream* stream_ = nullptr;
    int next_ = 0;
};

void Write(const MediaSpec& mediaSpec, const QString& path)
{
    AVFormatContext* raw = nullptr;
    const QByteArray container = mediaSpec.container.toUtf8();
    const QByteArray file = path.toUtf8();
    Check(avformat_alloc_output_context2(&raw, nullptr, container.constData(), file.constData()),
          "no muxer named " + mediaSpec.container);
    OutputContextPtr oc(raw);
    oc->flags |= AVFMT_FLAG_BITEXACT;

    std::vector<std::unique_ptr<Track>> tracks;
    for (const VideoSpec& v : mediaSpec.video)
        tracks.push_back(std::make_unique<VideoTrack>(oc.get(), v));
    for (const AudioSpec& a : mediaSpec.audio)
        tracks.push_back(std::make_unique<AudioTrack>(oc.get(), a));
    if (mediaSpec.subtitleCues > 0)
        tracks.push_back(std::make_unique<SubtitleTrack>(oc.get(), mediaSpec.subtitleCues));
    if (tracks.empty())
        Fail("no streams to write");

    if (!(oc->oformat->flags & AVFMT_NOFILE))
        Check(avio_open(&oc->pb, file.constData(), AVIO_FLAG_WRITE), "cannot create " + path);
    Dictionary muxerOptions;
    FillOptions(muxerOptions, mediaSpec.muxerOptions);
    Check(avformat_write_header(oc.get(), muxerOptions.Slot()), "cannot write header");
    const QString left = muxerOptions.Leftover();
    if (!left.isEmpty())
        Fail(QString("muxer %1 does not take option(s) %2").arg(oc->oformat->name, left));

    PacketPtr pkt(Checked(av_packet_alloc(), "packet"));
    for (;;) {
        // Feed the stream that is furthest behind, as a player would need it.
        Track* next = nullptr;
        for (const auto& t : tracks) {
            if (!t->Done() && (!next || av_compare_ts(t->NextTime(), t->TimeBase(), next->NextTime(),
                                                      next->TimeBase()) < 0))
                next = t.get();
        }
        if (!next)
            break;
        next->Step(oc.get(), pkt.get());
    }
    Check(av_write_trailer(oc.get()), "cannot finish file");
    if (!(oc->oformat->flags & AVFMT_NOFILE))
        Check(avio_closep(&oc->pb), "cannot close " + path);
}

} // namespace

#if defined(__has_feature)
#  if __has_feature(address_sanitizer)
#    define MOLVANE_TEST_ASAN 1
#  endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(MOLVANE_TEST_ASAN)
// libx265 keeps a few allocations from every encoder it opens; they are its
// own, not ours, and would fail every test that writes H.265 under LSan.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libx265.so\n";
}
#endif

bool WriteMedia(const MediaSpec& mediaSpec, const QString& path, QString* error)
{
    try {
        Write(mediaSpec, path);
        return true;
    } catch (const WriteError& e) {
        if (error)
            *error = QString("%1: %2").arg(path, QString::fromStdString(e.what()));
        return false;
    }
}

} // namespace molvane::test
