// Checks that the generated media are what the catalogue says they are.
// Every later test trusts these files, so they are checked against plain
// FFmpeg decoding and, when it is installed, against the ffprobe tool.

#include "support/FfmpegPtr.h"
#include "support/MediaFixtures.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cmath>
#include <future>
#include <optional>
#include <random>
#include <set>

namespace molvane::test {
namespace {

class QuietFfmpeg : public ::testing::Environment
{
public:
    void SetUp() override { av_log_set_level(AV_LOG_ERROR); }
};
const auto* const kQuiet = ::testing::AddGlobalTestEnvironment(new QuietFfmpeg);

std::string Name(FixtureId id)
{
    return FixtureName(id).toStdString();
}

} // namespace

// Failure messages name the fixture instead of dumping its bytes.
void PrintTo(FixtureId id, std::ostream* os)
{
    *os << Name(id);
}

namespace {

// ---------------------------------------------------------------------------
// Plain FFmpeg decoding of a whole file

enum class Scale { Native, DisplayAspect, Half };

struct DecodedStream {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    int64_t count = 0;            // video frames, audio sample frames, subtitle packets
    std::vector<int> indices;     // video: ReadFrameIndex of each frame, output order
    std::vector<std::pair<int, int>> sizes; // video: decoded size of each frame
    std::set<int> pixelFormats;   // video: formats the decoder output
    std::optional<int64_t> firstTimeUs; // best-effort time of the first frame
    int sampleFormat = -1;        // audio: decoder output format
    int channels = 0;
    std::vector<int16_t> s16;     // audio: everything, converted to interleaved s16
};

struct Decoded {
    int64_t packets = 0;
    std::vector<DecodedStream> streams;
};

QString ErrorText(const QString& what, int err)
{
    return what + ": " + AvErrorText(err);
}

class FileDecoder
{
public:
    FileDecoder(const QString& path, Scale scale) : scale_(scale)
    {
        AVFormatContext* raw = nullptr;
        const int err = avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr);
        if (err < 0)
            throw std::runtime_error(ErrorText("open " + path, err).toStdString());
        input_.reset(raw);
        if (const int e = avformat_find_stream_info(input_.get(), nullptr); e < 0)
            throw std::runtime_error(ErrorText("stream info", e).toStdString());
        for (unsigned i = 0; i < input_->nb_streams; ++i)
            AddStream(input_->streams[i]);
    }

    Decoded Run()
    {
        PacketPtr pkt(av_packet_alloc());
        FramePtr frame(av_frame_alloc());
        while (av_read_frame(input_.get(), pkt.get()) >= 0) {
            ++result_.packets;
            Stream& s = streams_[pkt->stream_index];
            if (s.decoder)
                Feed(s, pkt.get(), frame.get());
            else
                ++result_.streams[pkt->stream_index].count;
            av_packet_unref(pkt.get());
        }
        for (Stream& s : streams_) {
            if (s.decoder)
                Feed(s, nullptr, frame.get());
        }
        return std::move(result_);
    }

private:
    struct Stream {
        AVStream* stream = nullptr;
        CodecContextPtr decoder;
        SwsContextPtr sws;
        SwrContextPtr swr;
    };

    void AddStream(AVStream* st)
    {
        DecodedStream out;
        out.type = st->codecpar->codec_type;
        Stream s;
        s.stream = st;
        if (out.type == AVMEDIA_TYPE_VIDEO || out.type == AVMEDIA_TYPE_AUDIO) {
            const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
            if (!codec)
                throw std::runtime_error("no decoder");
            s.decoder.reset(avcodec_alloc_context3(codec));
            avcodec_parameters_to_context(s.decoder.get(), st->codecpar);
            s.decoder->pkt_timebase = st->time_base;
            if (const int e = avcodec_open2(s.decoder.get(), codec, nullptr); e < 0)
                throw std::runtime_error(ErrorText("open decoder", e).toStdString());
        }
        streams_.push_back(std::move(s));
        result_.streams.push_back(std::move(out));
    }

    void Feed(Stream& s, const AVPacket* pkt, AVFrame* frame)
    {
        if (avcodec_send_packet(s.decoder.get(), pkt) < 0)
            return; // a broken packet shows up as a missing frame
        while (avcodec_receive_frame(s.decoder.get(), frame) >= 0) {
            DecodedStream& out = result_.streams[s.stream->index];
            if (!out.firstTimeUs && frame->best_effort_timestamp != AV_NOPTS_VALUE)
                out.firstTimeUs = av_rescale_q(frame->best_effort_timestamp, s.stream->time_base,
                                               AVRational{1, 1000000});
            if (out.type == AVMEDIA_TYPE_VIDEO)
                TakeVideo(s, frame, out);
            else
                TakeAudio(s, frame, out);
            av_frame_unref(frame);
        }
    }

    void TakeVideo(Stream& s, const AVFrame* frame, DecodedStream& out)
    {
        ++out.count;
        out.sizes.emplace_back(frame->width, frame->height);
        out.pixelFormats.insert(frame->format);
        int w = frame->width, h = frame->height;
        if (scale_ == Scale::DisplayAspect && frame->sample_aspect_ratio.num > 0)
            w = static_cast<int>(av_rescale(w, frame->sample_aspect_ratio.num,
                                            frame->sample_aspect_ratio.den));
        else if (scale_ == Scale::Half)
            w /= 2, h /= 2;
        s.sws.reset(sws_getCachedContext(s.sws.release(), frame->width, frame->height,
                                         static_cast<AVPixelFormat>(frame->format), w, h,
                                         AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr));
        std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
        uint8_t* dst[4] = {rgb.data()};
        int dstStride[4] = {w * 3};
        sws_scale(s.sws.get(), frame->data, frame->linesize, 0, frame->height, dst, dstStride);
        out.indices.push_back(ReadFrameIndex(rgb.data(), w, h, w * 3));
    }

    void TakeAudio(Stream& s, const AVFrame* frame, DecodedStream& out)
    {
        out.count += frame->nb_samples;
        out.sampleFormat = frame->format;
        out.channels = frame->ch_layout.nb_channels;
        if (!s.swr) {
            SwrContext* swr = nullptr;
            AVChannelLayout layout = frame->ch_layout; // this FFmpeg wants it non-const
            swr_alloc_set_opts2(&swr, &layout, AV_SAMPLE_FMT_S16, frame->sample_rate, &layout,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate,
                                0, nullptr);
            s.swr.reset(swr);
            if (!swr || swr_init(swr) < 0)
                throw std::runtime_error("no s16 conversion");
        }
        const size_t at = out.s16.size();
        out.s16.resize(at + static_cast<size_t>(frame->nb_samples) * out.channels);
        uint8_t* dst = reinterpret_cast<uint8_t*>(out.s16.data() + at);
        const int n = swr_convert(s.swr.get(), &dst, frame->nb_samples,
                                  const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
        out.s16.resize(at + static_cast<size_t>(std::max(n, 0)) * out.channels);
    }

    Scale scale_;
    InputContextPtr input_;
    std::vector<Stream> streams_;
    Decoded result_;
};

Decoded DecodeFile(const QString& path, Scale scale = Scale::Native)
{
    return FileDecoder(path, scale).Run();
}

// First position where the frame indices are not 0, 1, 2, ...; -1 when none.
int FirstOutOfSequence(const std::vector<int>& indices)
{
    for (size_t i = 0; i < indices.size(); ++i) {
        if (indices[i] != static_cast<int>(i))
            return static_cast<int>(i);
    }
    return -1;
}

// First sample frame whose s16 value is not what the positional code puts
// there; -1 when all match.
int64_t FirstPositionMismatch(const DecodedStream& s, const ExpectedStream& e)
{
    const int64_t frames = static_cast<int64_t>(s.s16.size()) / std::max(s.channels, 1);
    const bool u8 = e.sampleFormat == AV_SAMPLE_FMT_U8 || e.sampleFormat == AV_SAMPLE_FMT_U8P;
    for (int64_t n = 0; n < frames; ++n) {
        const int16_t* frame = s.s16.data() + n * s.channels;
        if (u8) {
            for (int c = 0; c < s.channels; ++c) {
                if (frame[c] != ExpectedS16FromU8(PositionSampleU8(n, c)))
                    return n;
            }
        } else if (PositionOfSampleFrame(frame, s.channels) != n) {
            return n;
        }
    }
    return -1;
}

// ---------------------------------------------------------------------------
// What a prober sees, from libavformat or from ffprobe

struct ProbedStream {
    QString type; // "video", "audio", "subtitle", "data"
    QString codec;
    int width = 0, height = 0;
    int sarNum = 0, sarDen = 1;
    int rateNum = 0, rateDen = 0;
    int channels = 0, sampleRate = 0;
    std::optional<int64_t> startUs;
    std::optional<int64_t> declaredFrames;
    std::optional<double> rotation; // counter-clockwise degrees
};

struct Probed {
    QString formatName;
    std::optional<int64_t> durationUs;
    std::vector<ProbedStream> streams;
};

QString KindName(StreamKind kind)
{
    switch (kind) {
    case StreamKind::Video: return "video";
    case StreamKind::Audio: return "audio";
    case StreamKind::Subtitle: return "subtitle";
    case StreamKind::Data: return "data";
    }
    return {};
}

Probed ProbeWithLibavformat(const QString& path)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.toUtf8().constData(), nullptr, nullptr) < 0)
        throw std::runtime_error("cannot open " + path.toStdString());
    InputContextPtr input(raw);
    avformat_find_stream_info(input.get(), nullptr);

    Probed p;
    p.formatName = input->iformat->name;
    if (input->duration != AV_NOPTS_VALUE)
        p.durationUs = input->duration;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream* st = input->streams[i];
        const AVCodecParameters* par = st->codecpar;
        ProbedStream s;
        s.type = av_get_media_type_string(par->codec_type);
        s.codec = avcodec_get_name(par->codec_id);
        s.width = par->width;
        s.height = par->height;
        const AVRational sar = av_guess_sample_aspect_ratio(input.get(), const_cast<AVStream*>(st), nullptr);
        s.sarNum = sar.num;
        s.sarDen = sar.den;
        s.rateNum = st->avg_frame_rate.num;
        s.rateDen = st->avg_frame_rate.den;
        s.channels = par->ch_layout.nb_channels;
        s.sampleRate = par->sample_rate;
        if (st->start_time != AV_NOPTS_VALUE)
            s.startUs = av_rescale_q(st->start_time, st->time_base, AVRational{1, 1000000});
        if (st->nb_frames > 0)
            s.declaredFrames = st->nb_frames;
        if (const uint8_t* m = av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, nullptr))
            s.rotation = av_display_rotation_get(reinterpret_cast<const int32_t*>(m));
        p.streams.push_back(s);
    }
    return p;
}

QString FfprobePath()
{
    return QStandardPaths::findExecutable("ffprobe");
}

std::optional<int64_t> SecondsToUs(const QJsonValue& v)
{
    bool ok = false;
    const double seconds = v.toString().toDouble(&ok);
    if (!ok)
        return std::nullopt;
    return std::llround(seconds * 1e6);
}

Probed ProbeWithFfprobe(const QString& ffprobe, const QString& path)
{
    QProcess process;
    process.start(ffprobe, {"-v", "error", "-show_streams", "-show_format", "-of", "json", path});
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        throw std::runtime_error("ffprobe failed: " + process.readAllStandardError().toStdString());
    const QJsonObject root = QJsonDocument::fromJson(process.readAllStandardOutput()).object();

    Probed p;
    const QJsonObject format = root["format"].toObject();
    p.formatName = format["format_name"].toString();
    p.durationUs = SecondsToUs(format["duration"]);
    for (const QJsonValue& value : root["streams"].toArray()) {
        const QJsonObject o = value.toObject();
        ProbedStream s;
        s.type = o["codec_type"].toString();
        s.codec = o["codec_name"].toString();
        s.width = o["width"].toInt();
        s.height = o["height"].toInt();
        const QStringList sar = o["sample_aspect_ratio"].toString().split(':');
        if (sar.size() == 2) {
            s.sarNum = sar[0].toInt();
            s.sarDen = sar[1].toInt();
        }
        const QStringList rate = o["avg_frame_rate"].toString().split('/');
        if (rate.size() == 2) {
            s.rateNum = rate[0].toInt();
            s.rateDen = rate[1].toInt();
        }
        s.channels = o["channels"].toInt();
        s.sampleRate = o["sample_rate"].toString().toInt();
        s.startUs = SecondsToUs(o["start_time"]);
        if (o.contains("nb_frames"))
            s.declaredFrames = o["nb_frames"].toString().toLongLong();
        for (const QJsonValue& sd : o["side_data_list"].toArray()) {
            if (sd.toObject()["side_data_type"].toString() == "Display Matrix")
                s.rotation = sd.toObject()["rotation"].toDouble();
        }
        p.streams.push_back(s);
    }
    return p;
}

// Durations from muxers that pad or round may be off by up to a frame.
constexpr int64_t kDurationToleranceUs = 50000;
// Stream start times pass through 90 kHz or millisecond time bases.
constexpr int64_t kStartToleranceUs = 1000;

void ExpectMatchesCatalogue(const Probed& p, const Fixture& f)
{
    EXPECT_EQ(p.formatName, f.formatName);
    if (f.durationUs < 0) {
        EXPECT_FALSE(p.durationUs.has_value()) << "duration " << *p.durationUs;
    } else {
        ASSERT_TRUE(p.durationUs.has_value());
        EXPECT_NEAR(*p.durationUs, f.durationUs, kDurationToleranceUs);
    }

    ASSERT_EQ(p.streams.size(), f.streams.size());
    for (size_t i = 0; i < f.streams.size(); ++i) {
        SCOPED_TRACE("stream " + std::to_string(i));
        const ProbedStream& s = p.streams[i];
        const ExpectedStream& e = f.streams[i];
        EXPECT_EQ(s.type, KindName(e.kind));
        EXPECT_EQ(s.codec, e.codecName);
        if (e.kind == StreamKind::Video) {
            EXPECT_EQ(s.width, e.width);
            EXPECT_EQ(s.height, e.height);
            // No stored aspect reads as 0:1 or not at all.
            EXPECT_EQ(s.sarNum, e.sarNum);
            if (e.sarNum) {
                EXPECT_EQ(s.sarDen, e.sarDen);
            }
            if (e.rateNum) {
                EXPECT_EQ(int64_t{s.rateNum} * e.rateDen, int64_t{e.rateNum} * s.rateDen)
                    << s.rateNum << "/" << s.rateDen;
            }
            if (f.hasPackets && !f.isImage) {
                ASSERT_TRUE(s.startUs.has_value());
                EXPECT_NEAR(*s.startUs, e.firstPtsUs, kStartToleranceUs);
            }
            if (s.declaredFrames && f.hasPackets) {
                EXPECT_EQ(*s.declaredFrames, e.frameCount);
            }
            if (e.rotate.isEmpty()) {
                EXPECT_TRUE(!s.rotation || *s.rotation == 0.0) << *s.rotation;
            } else {
                ASSERT_TRUE(s.rotation.has_value());
                EXPECT_DOUBLE_EQ(-*s.rotation, e.rotate.toDouble());
            }
        } else if (e.kind == StreamKind::Audio) {
            EXPECT_EQ(s.channels, e.channels);
            EXPECT_EQ(s.sampleRate, e.sampleRate);
        }
    }
}

// ---------------------------------------------------------------------------
// Frame index code on raw pictures

class Picture
{
public:
    Picture(int width, int height)
        : width_(width), height_(height), yuv_(av_frame_alloc())
    {
        yuv_->format = AV_PIX_FMT_YUV420P;
        yuv_->width = width;
        yuv_->height = height;
        av_frame_get_buffer(yuv_.get(), 0);
    }
    void Paint(int index) { PaintFrameIndex(index, yuv_->data, yuv_->linesize, width_, height_); }
    void Fill(uint8_t y) // uniform grey or black
    {
        for (int row = 0; row < height_; ++row)
            memset(yuv_->data[0] + row * yuv_->linesize[0], y, width_);
        for (int p = 1; p < 3; ++p) {
            for (int row = 0; row < (height_ + 1) / 2; ++row)
                memset(yuv_->data[p] + row * yuv_->linesize[p], 128, (width_ + 1) / 2);
        }
    }
    uint8_t* Luma(int x, int y) { return yuv_->data[0] + y * yuv_->linesize[0] + x; }
    // Reads the index after scaling to w x h.
    int ReadAt(int w, int h) const
    {
        SwsContextPtr sws(sws_getContext(width_, height_, AV_PIX_FMT_YUV420P, w, h, AV_PIX_FMT_RGB24,
                                         SWS_BICUBIC, nullptr, nullptr, nullptr));
        std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
        uint8_t* dst[4] = {rgb.data()};
        int stride[4] = {w * 3};
        sws_scale(sws.get(), yuv_->data, yuv_->linesize, 0, height_, dst, stride);
        return ReadFrameIndex(rgb.data(), w, h, w * 3);
    }
    int Read() const { return ReadAt(width_, height_); }

private:
    int width_, height_;
    FramePtr yuv_;
};

TEST(FrameIndexCode, ReadsBackEveryBitPatternAtCommonSizes)
{
    const std::vector<std::pair<int, int>> sizes = {{320, 240}, {160, 120}, {720, 576},
                                                    {1920, 1080}, {64, 48}};
    const std::vector<int> indices = {0, 1, 2, 0x5555, 0xAAAA, 12345, 0x8000, kMaxFrameIndex};
    for (const auto& [w, h] : sizes) {
        Picture picture(w, h);
        for (int index : indices) {
            picture.Paint(index);
            EXPECT_EQ(picture.Read(), index) << w << "x" << h;
        }
    }
}

TEST(FrameIndexCode, SurvivesScalingInEitherDirection)
{
    Picture picture(720, 576);
    for (int index : {0, 7, 1000, 0xF0F0, kMaxFrameIndex}) {
        picture.Paint(index);
        EXPECT_EQ(picture.ReadAt(1024, 576), index);
        EXPECT_EQ(picture.ReadAt(360, 288), index);
        EXPECT_EQ(picture.ReadAt(1920, 1080), index);
        EXPECT_EQ(picture.ReadAt(176, 144), index);
    }
}

TEST(FrameIndexCode, PicturesWithoutTheCodeAreUnreadable)
{
    Picture picture(320, 240);
    picture.Fill(16);
    EXPECT_EQ(picture.Read(), -1) << "black";
    picture.Fill(235);
    EXPECT_EQ(picture.Read(), -1) << "white";
    picture.Fill(128);
    EXPECT_EQ(picture.Read(), -1) << "grey";

    // One block of the complement row forced to agree with the code row.
    picture.Paint(0x1234);
    for (int y = 240 * 8 / 16; y < 240 * 11 / 16; ++y) {
        for (int x = 0; x < 320 / 16; ++x)
            *picture.Luma(x, y) = 16; // bit 15 is 0: its code block is black too
    }
    EXPECT_EQ(picture.Read(), -1) << "damaged complement";

    std::mt19937 random(42);
    std::vector<uint8_t> noise(320 * 240 * 3);
    for (uint8_t& v : noise)
        v = static_cast<uint8_t>(random());
    EXPECT_EQ(ReadFrameIndex(noise.data(), 320, 240, 320 * 3), -1) << "noise";
    EXPECT_EQ(ReadFrameIndex(nullptr, 320, 240, 320 * 3), -1);
    EXPECT_EQ(ReadFrameIndex(noise.data(), 8, 8, 8 * 3), -1) << "too small";
}

TEST(FrameIndexCode, NeighbouringFramesDifferOutsideTheCode)
{
    // The background must move, or motion search and frame comparisons
    // would see the same picture every frame.
    Picture a(320, 240), b(320, 240);
    a.Paint(10);
    b.Paint(10);
    EXPECT_EQ(*a.Luma(5, 5), *b.Luma(5, 5));
    b.Paint(11);
    int differing = 0;
    for (int y = 0; y < 60; ++y) {
        for (int x = 0; x < 320; ++x)
            differing += *a.Luma(x, y) != *b.Luma(x, y);
    }
    EXPECT_GT(differing, 320 * 60 / 2);
}

// ---------------------------------------------------------------------------
// Positional audio values

TEST(PositionalAudio, SampleFramesGiveBackTheirPosition)
{
    const std::vector<int64_t> positions = {0, 1, 0x7FFF, 0x8000, 0x12345, 48000 * 600 + 17,
                                            (int64_t{1} << 30) - 1};
    for (int channels = 2; channels <= 8; ++channels) {
        for (int64_t n : positions) {
            std::vector<int16_t> frame(channels);
            for (int c = 0; c < channels; ++c)
                frame[c] = PositionSample(n, c);
            EXPECT_EQ(PositionOfSampleFrame(frame.data(), channels), n) << channels << " channels";
        }
    }
    const int16_t mono = PositionSample(0x8005, 0);
    EXPECT_EQ(PositionOfSampleFrame(&mono, 1), 5) << "mono keeps n mod 32768";
}

TEST(PositionalAudio, FramesThatDoNotAgreeAreRejected)
{
    int16_t frame[6];
    for (int c = 0; c < 6; ++c)
        frame[c] = PositionSample(1000, c);
    frame[4] ^= 1;
    EXPECT_EQ(PositionOfSampleFrame(frame, 6), -1);
    const int16_t negative[2] = {-5, 0};
    EXPECT_EQ(PositionOfSampleFrame(negative, 2), -1);
    const int16_t silence[6] = {};
    EXPECT_EQ(PositionOfSampleFrame(silence, 6), -1);
}

TEST(PositionalAudio, FloatValuesConvertBackExactly)
{
    for (int64_t n = 0; n < 70000; n += 7) {
        for (int c = 0; c < 6; ++c)
            ASSERT_EQ(ExpectedS16FromFloat(PositionSampleFloat(n, c)), PositionSample(n, c)) << n;
    }
}

// ---------------------------------------------------------------------------
// Every catalogue fixture

class FixtureTest : public ::testing::TestWithParam<FixtureId>
{
protected:
    const Fixture& fixture() const { return GetFixture(GetParam()); }
};

TEST_P(FixtureTest, DecodesToTheFramesAndSamplesWritten)
{
    const Fixture& f = fixture();
    const Decoded d = DecodeFile(f.path);
    ASSERT_EQ(d.streams.size(), f.streams.size());
    EXPECT_EQ(d.packets > 0, f.hasPackets) << d.packets << " packets";

    for (size_t i = 0; i < f.streams.size(); ++i) {
        SCOPED_TRACE("stream " + std::to_string(i));
        const ExpectedStream& e = f.streams[i];
        const DecodedStream& s = d.streams[i];
        switch (e.kind) {
        case StreamKind::Video:
            EXPECT_EQ(s.count, e.frameCount);
            EXPECT_EQ(FirstOutOfSequence(s.indices), -1)
                << "frame indices: " << ::testing::PrintToString(s.indices);
            for (const auto& [w, h] : s.sizes) {
                EXPECT_EQ(w, e.width);
                EXPECT_EQ(h, e.height);
            }
            if (e.frameCount > 0 && !f.isImage) {
                ASSERT_TRUE(s.firstTimeUs.has_value());
                EXPECT_NEAR(*s.firstTimeUs, e.firstPtsUs, kStartToleranceUs);
            }
            break;
        case StreamKind::Audio:
            EXPECT_EQ(s.sampleFormat, e.sampleFormat)
                << av_get_sample_fmt_name(static_cast<AVSampleFormat>(s.sampleFormat));
            EXPECT_EQ(s.channels, e.channels);
            if (e.positional) {
                EXPECT_EQ(s.count, e.frameCount);
                EXPECT_EQ(FirstPositionMismatch(s, e), -1);
            } else {
                // Lossy coders add priming and fill their last frame; edit
                // lists trim the priming but not the fill.
                EXPECT_GE(s.count, e.frameCount);
                EXPECT_LE(s.count, e.frameCount + 2048);
            }
            break;
        case StreamKind::Subtitle:
        case StreamKind::Data:
            EXPECT_EQ(s.count, e.frameCount);
            break;
        }
    }
}

TEST_P(FixtureTest, ProbesAsCatalogued)
{
    ExpectMatchesCatalogue(ProbeWithLibavformat(fixture().path), fixture());
}

TEST_P(FixtureTest, FfprobeAgreesWithTheCatalogue)
{
    const QString ffprobe = FfprobePath();
    if (ffprobe.isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    ExpectMatchesCatalogue(ProbeWithFfprobe(ffprobe, fixture().path), fixture());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, FixtureTest, ::testing::ValuesIn(AllFixtures()),
                         [](const auto& info) { return Name(info.param); });

// ---------------------------------------------------------------------------
// Particular fixtures

TEST(FixtureCatalogue, NamesAndFilesAreDistinct)
{
    std::set<QString> names, paths;
    for (FixtureId id : AllFixtures()) {
        const Fixture& f = GetFixture(id);
        EXPECT_TRUE(names.insert(f.name).second) << f.name.toStdString();
        EXPECT_TRUE(paths.insert(f.path).second) << f.path.toStdString();
        EXPECT_TRUE(f.path.startsWith(FixtureDirectory()));
        EXPECT_TRUE(QFile::exists(f.path));
    }
}

TEST(FixtureCatalogue, ConcurrentRequestsShareOneFile)
{
    std::vector<std::future<const Fixture*>> requests;
    for (int i = 0; i < 4; ++i)
        requests.push_back(std::async(std::launch::async, [] { return &GetFixture(FixtureId::Rotated90); }));
    const Fixture* first = requests[0].get();
    for (size_t i = 1; i < requests.size(); ++i)
        EXPECT_EQ(requests[i].get(), first);
}

TEST(FixtureContent, AnamorphicFramesReadAtDisplayWidth)
{
    const Fixture& f = GetFixture(FixtureId::Anamorphic);
    const Decoded d = DecodeFile(f.path, Scale::DisplayAspect);
    ASSERT_EQ(d.streams.size(), 1u);
    EXPECT_EQ(d.streams[0].count, 25);
    EXPECT_EQ(FirstOutOfSequence(d.streams[0].indices), -1)
        << ::testing::PrintToString(d.streams[0].indices);
}

TEST(FixtureContent, FramesReadAtHalfSize)
{
    for (FixtureId id : {FixtureId::H264AacMp4, FixtureId::Anamorphic, FixtureId::Mpeg1Ps}) {
        const Decoded d = DecodeFile(GetFixture(id).path, Scale::Half);
        ASSERT_FALSE(d.streams.empty());
        EXPECT_EQ(d.streams[0].count, GetFixture(id).streams[0].frameCount);
        EXPECT_EQ(FirstOutOfSequence(d.streams[0].indices), -1)
            << Name(id) << ": " << ::testing::PrintToString(d.streams[0].indices);
    }
}

TEST(FixtureContent, NegativeStartKeepsItsEarlyFrames)
{
    // The two frames before 0 must reach the decoder, not be cut or hidden.
    const Decoded d = DecodeFile(GetFixture(FixtureId::NegativeStart).path);
    ASSERT_EQ(d.streams.size(), 1u);
    ASSERT_FALSE(d.streams[0].indices.empty());
    ASSERT_TRUE(d.streams[0].firstTimeUs.has_value());
    EXPECT_EQ(*d.streams[0].firstTimeUs, -80000);
    EXPECT_EQ(d.streams[0].indices.front(), 0);
}

// ---------------------------------------------------------------------------
// The writer beyond the catalogue

QByteArray ReadAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class DeterminismTest : public ::testing::TestWithParam<FixtureId>
{
};

TEST_P(DeterminismTest, SameSpecGivesTheSameBytes)
{
    QTemporaryDir dir;
    const Fixture& f = GetFixture(GetParam());
    const QString again = dir.filePath("again" + f.path.mid(f.path.lastIndexOf('.')));
    QString error;
    ASSERT_TRUE(WriteMedia(FixtureSpec(GetParam()), again, &error)) << error.toStdString();
    const QByteArray original = ReadAll(f.path);
    ASSERT_FALSE(original.isEmpty());
    EXPECT_TRUE(original == ReadAll(again)) << "files differ";
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DeterminismTest,
                         ::testing::Values(FixtureId::H264AacMp4, FixtureId::MultiStreamMkv,
                                           FixtureId::Mpeg1Ps, FixtureId::PngStill),
                         [](const auto& info) { return Name(info.param); });

struct WriterCase {
    const char* name;
    const char* container;
    const char* extension;
    const char* encoder;
    AVPixelFormat pixFmt;
    AVPixelFormat decodedFormat;
    std::map<std::string, std::string> options;
};

void PrintTo(const WriterCase& c, std::ostream* os)
{
    *os << c.name;
}

class EncoderPathTest : public ::testing::TestWithParam<WriterCase>
{
};

TEST_P(EncoderPathTest, FramesKeepTheirIndexThroughEncoderAndFormat)
{
    const WriterCase& c = GetParam();
    if (!avcodec_find_encoder_by_name(c.encoder))
        GTEST_SKIP() << c.encoder << " is not in this FFmpeg";
    VideoSpec v;
    v.encoder = c.encoder;
    v.width = 192;
    v.height = 144;
    v.frames = 12;
    v.gop = 6;
    v.pixFmt = c.pixFmt;
    v.options = c.options;
    MediaSpec mediaSpec;
    mediaSpec.container = c.container;
    mediaSpec.video = {v};
    QTemporaryDir dir;
    const QString path = dir.filePath(QString("clip") + c.extension);
    QString error;
    ASSERT_TRUE(WriteMedia(mediaSpec, path, &error)) << error.toStdString();

    const Decoded d = DecodeFile(path);
    ASSERT_EQ(d.streams.size(), 1u);
    EXPECT_EQ(d.streams[0].count, 12);
    EXPECT_EQ(FirstOutOfSequence(d.streams[0].indices), -1)
        << ::testing::PrintToString(d.streams[0].indices);
    EXPECT_EQ(d.streams[0].pixelFormats, std::set<int>{c.decodedFormat});
}

INSTANTIATE_TEST_SUITE_P(
    Encoders, EncoderPathTest,
    ::testing::Values(
        WriterCase{"x264_10bit", "matroska", ".mkv", "libx264", AV_PIX_FMT_YUV420P10LE,
                   AV_PIX_FMT_YUV420P10LE, {{"preset", "ultrafast"}}},
        WriterCase{"x264_444", "mp4", ".mp4", "libx264", AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUV444P,
                   {{"preset", "ultrafast"}}},
        WriterCase{"x265", "mp4", ".mp4", "libx265", AV_PIX_FMT_NONE, AV_PIX_FMT_YUV420P,
                   {{"preset", "ultrafast"}}},
        WriterCase{"vp8", "webm", ".webm", "libvpx", AV_PIX_FMT_NONE, AV_PIX_FMT_YUV420P,
                   {{"deadline", "realtime"}, {"b", "1M"}}},
        WriterCase{"vp9", "webm", ".webm", "libvpx-vp9", AV_PIX_FMT_NONE, AV_PIX_FMT_YUV420P,
                   {{"deadline", "realtime"}, {"cpu-used", "8"}, {"b", "1M"}}},
        WriterCase{"mjpeg", "avi", ".avi", "mjpeg", AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUVJ420P, {}},
        WriterCase{"ffv1_rgb", "matroska", ".mkv", "ffv1", AV_PIX_FMT_BGR0, AV_PIX_FMT_BGR0, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MediaWriter, EncoderRestartsAtNewSizes)
{
    VideoSpec v;
    v.frames = 30;
    v.sizeChanges = {{10, 256, 192}, {20, 160, 128}};
    MediaSpec mediaSpec;
    mediaSpec.container = "mpegts";
    mediaSpec.video = {v};
    QTemporaryDir dir;
    const QString path = dir.filePath("sizes.ts");
    QString error;
    ASSERT_TRUE(WriteMedia(mediaSpec, path, &error)) << error.toStdString();

    const Decoded d = DecodeFile(path);
    ASSERT_EQ(d.streams.size(), 1u);
    const DecodedStream& s = d.streams[0];
    EXPECT_EQ(FirstOutOfSequence(s.indices), -1) << ::testing::PrintToString(s.indices);
    ASSERT_EQ(s.sizes.size(), 30u);
    EXPECT_EQ(s.sizes[9], std::make_pair(320, 240));
    EXPECT_EQ(s.sizes[10], std::make_pair(256, 192));
    EXPECT_EQ(s.sizes[19], std::make_pair(256, 192));
    EXPECT_EQ(s.sizes[20], std::make_pair(160, 128));
}

TEST(MediaWriter, AudioStartsWhereAsked)
{
    AudioSpec a;
    a.encoder = "pcm_s16le";
    a.positional = true;
    a.sampleFrames = 4800;
    a.firstSample = 24000; // 0.5 s
    MediaSpec mediaSpec;
    mediaSpec.container = "matroska";
    mediaSpec.audio = {a};
    QTemporaryDir dir;
    const QString path = dir.filePath("late.mka");
    QString error;
    ASSERT_TRUE(WriteMedia(mediaSpec, path, &error)) << error.toStdString();
    const Decoded d = DecodeFile(path);
    ASSERT_EQ(d.streams.size(), 1u);
    ASSERT_TRUE(d.streams[0].firstTimeUs.has_value());
    EXPECT_EQ(*d.streams[0].firstTimeUs, 500000);
    EXPECT_EQ(d.streams[0].count, 4800);
}

TEST(MediaWriter, RefusesWhatItCannotWriteFaithfully)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("bad.mkv");
    auto refused = [&](const MediaSpec& mediaSpec) {
        QString error;
        const bool ok = WriteMedia(mediaSpec, path, &error);
        return !ok && !error.isEmpty();
    };

    MediaSpec unknownEncoder;
    unknownEncoder.container = "matroska";
    unknownEncoder.video = {VideoSpec{}};
    unknownEncoder.video[0].encoder = "no-such-encoder";
    EXPECT_TRUE(refused(unknownEncoder));

    MediaSpec misspeltOption = unknownEncoder;
    misspeltOption.video[0].encoder = "libx264";
    misspeltOption.video[0].options = {{"presett", "fast"}};
    EXPECT_TRUE(refused(misspeltOption));

    MediaSpec partialFrame;
    partialFrame.container = "matroska";
    partialFrame.audio = {AudioSpec{}};
    partialFrame.audio[0].encoder = "mp2";
    partialFrame.audio[0].sampleFrames = 1000;
    EXPECT_TRUE(refused(partialFrame)) << "mp2 cannot end on a short frame";

    MediaSpec subtitlesInWav;
    subtitlesInWav.container = "wav";
    subtitlesInWav.audio = {AudioSpec{}};
    subtitlesInWav.audio[0].encoder = "pcm_s16le";
    subtitlesInWav.subtitleCues = 2;
    EXPECT_TRUE(refused(subtitlesInWav));

    MediaSpec sizeChangeWithGlobalHeaders = unknownEncoder;
    sizeChangeWithGlobalHeaders.video[0].encoder = "libx264";
    sizeChangeWithGlobalHeaders.video[0].sizeChanges = {{10, 160, 120}};
    EXPECT_TRUE(refused(sizeChangeWithGlobalHeaders));
}

} // namespace
} // namespace molvane::test
