// VideoDecoder driven by real FFmpeg decoders on files made at test time:
// which pictures come out of which call, their times, their pixels against
// the ffmpeg program's, and the special records (end marker, size-change
// placeholder).

#include "decode/VideoDecoder.h"

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/MediaReader.h>
#include <MolvaneAV/Settings.h>

#include "support/FfmpegPtr.h"
#include "support/LogCapture.h"
#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cmath>
#include <cstring>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

using namespace molvane::test;

namespace {

using Records = QList<std::shared_ptr<DecodedVideoFrame>>;

constexpr int64_t kNoTarget = -1;

// Bytes per RGB24 row: 3 × width rounded up to a multiple of 4.
int Stride(int width)
{
    return (3 * width + 3) / 4 * 4;
}

bool IsMarker(const DecodedVideoFrame& r)
{
    return r.data == nullptr && r.size == 0 && r.width == 0 && r.height == 0 && r.startTime == 0 &&
           r.frameRate == 0.0 && r.rotation == 0 && !r.isLinearColorSpace && r.status == 0;
}

int FirstDifference(const uint8_t* a, const uint8_t* b, int size)
{
    for (int k = 0; k < size; ++k) {
        if (a[k] != b[k])
            return k;
    }
    return -1;
}

std::string Logged(const LogCapture& log)
{
    return log.Messages().join(" | ").toStdString();
}

int IndexOf(const DecodedVideoFrame& r)
{
    return ReadFrameIndex(r.data, r.width, r.height, Stride(r.width));
}

// The first video stream of a file and a decoder opened on it the way the
// library's readers open video decoders (thread count chosen by FFmpeg).
struct Source {
    InputContextPtr input;
    CodecContextPtr decoder;
    AVStream* stream = nullptr;

    // Next packet of this stream; false at the end of the file.
    bool Next(AVPacket* packet)
    {
        while (av_read_frame(input.get(), packet) >= 0) {
            if (packet->stream_index == stream->index)
                return true;
            av_packet_unref(packet);
        }
        return false;
    }
    float PixelAspect() const
    {
        const AVRational sar = stream->codecpar->sample_aspect_ratio;
        return sar.num > 0 && sar.den > 0 ? float(double(sar.num) / sar.den) : 1.0f;
    }
    double FrameRate() const { return stream->avg_frame_rate.den ? av_q2d(stream->avg_frame_rate) : -1.0; }
};

void Open(const QString& path, Source& source, int threads = 0)
{
    AVFormatContext* input = nullptr;
    ASSERT_GE(avformat_open_input(&input, path.toUtf8().constData(), nullptr, nullptr), 0) << path.toStdString();
    source.input.reset(input);
    ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
    const int index = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    ASSERT_GE(index, 0);
    source.stream = input->streams[index];
    const AVCodec* codec = avcodec_find_decoder(source.stream->codecpar->codec_id);
    ASSERT_NE(codec, nullptr);
    source.decoder.reset(avcodec_alloc_context3(codec));
    ASSERT_GE(avcodec_parameters_to_context(source.decoder.get(), source.stream->codecpar), 0);
    source.decoder->thread_count = threads;
    ASSERT_GE(avcodec_open2(source.decoder.get(), codec, nullptr), 0);
}

bool SetUpFor(VideoDecoder& converter, const Source& source, int64_t startOffset, int rotation = 0,
              bool isImage = false, bool linear = false)
{
    return converter.Setup(source.decoder.get(), source.stream->time_base, source.decoder->width,
                           source.decoder->height, source.PixelAspect(), startOffset, source.FrameRate(), rotation,
                           isImage, linear);
}

struct Decoded {
    Records records;              // everything appended, marker included
    std::vector<int> perPacket;   // records appended by each packet's call
    int fromDrain = 0;            // records appended by the closing empty packet
};

// Every packet of the stream, then the blank packet the reader leaves at the
// end of input.
Decoded DecodeAll(VideoDecoder& converter, Source& source, int64_t targetTime = kNoTarget)
{
    Decoded out;
    PacketPtr packet(av_packet_alloc());
    while (source.Next(packet.get())) {
        const int before = out.records.size();
        converter.Decode(packet.get(), out.records, targetTime);
        out.perPacket.push_back(out.records.size() - before);
        av_packet_unref(packet.get());
    }
    EXPECT_FALSE(MediaReader::GetPacket(nullptr, packet.get()));
    const int before = out.records.size();
    converter.Decode(packet.get(), out.records, targetTime);
    out.fromDrain = out.records.size() - before;
    return out;
}

// Files written once per process for the cases the catalogue lacks.
QString Custom(const QString& name, const MediaSpec& mediaSpec)
{
    static QTemporaryDir folder;
    const QString path = folder.filePath(name);
    if (!QFileInfo::exists(path)) {
        QString error;
        if (!WriteMedia(mediaSpec, path, &error))
            ADD_FAILURE() << "cannot write " << name.toStdString() << ": " << error.toStdString();
    }
    return path;
}

MediaSpec OneVideo(const char* container, const VideoSpec& video)
{
    MediaSpec mediaSpec;
    mediaSpec.container = container;
    mediaSpec.video.push_back(video);
    return mediaSpec;
}

// A raw RGB24 stream without a container: each packet is one picture and
// comes out of the decoder at once, with exactly the packet's timestamp.
struct RawRgb {
    CodecContextPtr decoder;
    int width = 0, height = 0;

    RawRgb(int w, int h) : width(w), height(h)
    {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_RAWVIDEO);
        decoder.reset(avcodec_alloc_context3(codec));
        decoder->width = w;
        decoder->height = h;
        decoder->pix_fmt = AV_PIX_FMT_RGB24;
        if (avcodec_open2(decoder.get(), codec, nullptr) < 0)
            decoder.reset();
    }
    // Sets up for µs timestamps, starting at 0.
    bool SetUp(VideoDecoder& converter, double frameRate, float pixelAspect = 1.0f, bool linear = false)
    {
        return converter.Setup(decoder.get(), AVRational{1, 1000000}, width, height, pixelAspect, 0, frameRate, 0,
                               false, linear);
    }
    static PacketPtr Packet(const std::vector<uint8_t>& bytes, int64_t pts)
    {
        PacketPtr packet(av_packet_alloc());
        if (av_new_packet(packet.get(), int(bytes.size())) == 0)
            std::memcpy(packet->data, bytes.data(), bytes.size());
        packet->pts = packet->dts = pts;
        return packet;
    }
    // Bytes counting up row after row, wrapping at 256 (no padding).
    std::vector<uint8_t> Picture() const
    {
        std::vector<uint8_t> bytes(size_t(3 * width * height));
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = uint8_t(i);
        return bytes;
    }
    Records Decode(VideoDecoder& converter, int64_t pts, int64_t target = kNoTarget) const
    {
        Records records;
        converter.Decode(Packet(Picture(), pts).get(), records, target);
        return records;
    }
};

// While in scope, glibc fills the memory it hands out with a pattern of
// the caller's choice, so a byte a converter never writes reads differently
// for two converters rather than as whatever the heap happened to hold.
// (ASan's allocator ignores this and fills with its own constant.)
class AllocationPattern
{
public:
    explicit AllocationPattern(int byte)
    {
#ifdef __GLIBC__
        mallopt(M_PERTURB, byte);
#endif
    }
    ~AllocationPattern()
    {
#ifdef __GLIBC__
        mallopt(M_PERTURB, 0);
#endif
    }
    AllocationPattern(const AllocationPattern&) = delete;
    AllocationPattern& operator=(const AllocationPattern&) = delete;
};

// Restores the setting when the test ends, however it ends.
struct TrailingFramesGuard {
    int saved = Settings::maxTrailingFramesAfterSeek;
    ~TrailingFramesGuard() { Settings::maxTrailingFramesAfterSeek = saved; }
};

// ---------------------------------------------------------------------------
// Frame identity and timing on catalogue files

struct IdentityCase {
    const char* name;
    FixtureId id;
    int rotation;
};

void PrintTo(const IdentityCase& c, std::ostream* os)
{
    *os << c.name;
}

class FrameIdentity : public testing::TestWithParam<IdentityCase>
{
};

TEST_P(FrameIdentity, EveryPictureInOrderAtItsTimeThenOneMarker)
{
    const Fixture& fixture = GetFixture(GetParam().id);
    const ExpectedStream& expected = fixture.streams.front();
    ASSERT_EQ(expected.kind, StreamKind::Video);
    Source source;
    ASSERT_NO_FATAL_FAILURE(Open(fixture.path, source));
    VideoDecoder converter;
    ASSERT_TRUE(SetUpFor(converter, source, expected.firstPtsUs, GetParam().rotation));

    LogCapture log;
    const Decoded decoded = DecodeAll(converter, source);
    EXPECT_EQ(Logged(log), "");

    ASSERT_FALSE(decoded.records.isEmpty());
    ASSERT_TRUE(IsMarker(*decoded.records.last()));
    const int pictures = decoded.records.size() - 1;
    ASSERT_EQ(pictures, expected.frameCount);

    const double sar = expected.sarNum > 0 ? double(expected.sarNum) / expected.sarDen : 1.0;
    const int width = int(std::lround(expected.width * sar));
    const double frameUs = 1e6 * expected.rateDen / expected.rateNum;
    for (int i = 0; i < pictures; ++i) {
        const DecodedVideoFrame& r = *decoded.records[i];
        SCOPED_TRACE("picture " + std::to_string(i));
        ASSERT_NE(r.data, nullptr);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.width, width);
        EXPECT_EQ(r.height, expected.height);
        EXPECT_EQ(r.size, Stride(width) * expected.height);
        EXPECT_EQ(IndexOf(r), i);
        EXPECT_NEAR(double(r.startTime), i * frameUs, 1.0);
        EXPECT_DOUBLE_EQ(r.frameRate, double(expected.rateNum) / expected.rateDen);
        EXPECT_EQ(r.rotation, GetParam().rotation);
        EXPECT_FALSE(r.isLinearColorSpace);
    }

    // One picture per call at most; the reordering delay holds the first
    // ones back, so the first packet yields nothing and the drain delivers
    // the held pictures before the marker.
    for (size_t p = 0; p < decoded.perPacket.size(); ++p)
        EXPECT_LE(decoded.perPacket[p], 1) << "packet " << p;
    EXPECT_EQ(decoded.perPacket.front(), 0);
    EXPECT_GE(decoded.fromDrain, 2);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, FrameIdentity,
                         testing::Values(IdentityCase{"h264_bframes_mp4", FixtureId::H264AacMp4, 0},
                                         IdentityCase{"mpeg4_mp4", FixtureId::Mpeg4Mp4, 0},
                                         IdentityCase{"mpeg1_ps", FixtureId::Mpeg1Ps, 0},
                                         IdentityCase{"late_start_ts", FixtureId::LateStartTs, 0},
                                         IdentityCase{"negative_start_ts", FixtureId::NegativeStart, 0},
                                         IdentityCase{"ntsc_2997_mp4", FixtureId::Ntsc2997, 0},
                                         IdentityCase{"anamorphic_mp4", FixtureId::Anamorphic, 0},
                                         IdentityCase{"rotated_90_mp4", FixtureId::Rotated90, 90}),
                         [](const testing::TestParamInfo<IdentityCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------
// Pixels against the ffmpeg program

struct PixelCase {
    const char* name;
    QString (*path)();
};

QString H264Path() { return GetFixture(FixtureId::H264AacMp4).path; }
QString AnamorphicPath() { return GetFixture(FixtureId::Anamorphic).path; }
QString TenBitPath()
{
    VideoSpec v;
    v.frames = 10;
    v.pixFmt = AV_PIX_FMT_YUV420P10LE;
    v.sarNum = 4; // 320 → 426 wide: scaled, and rows need padding
    v.sarDen = 3;
    return Custom("h264_10bit.mkv", OneVideo("matroska", v));
}
QString Yuv444Path()
{
    VideoSpec v;
    v.frames = 10;
    v.pixFmt = AV_PIX_FMT_YUV444P;
    return Custom("h264_444.mkv", OneVideo("matroska", v));
}
QString MjpegPath()
{
    VideoSpec v;
    v.encoder = "mjpeg";
    v.frames = 10;
    v.pixFmt = AV_PIX_FMT_YUVJ420P;
    return Custom("mjpeg_full_range.mkv", OneVideo("matroska", v));
}

void PrintTo(const PixelCase& c, std::ostream* os)
{
    *os << c.name;
}

class PixelAccuracy : public testing::TestWithParam<PixelCase>
{
};

// The ffmpeg program's scale filter runs the same swscale conversion when
// told the same: flags=bilinear alone (the program's default is bicubic,
// and adding accurate_rnd or full_chroma_int changes the 4:2:0 results);
// in_color_matrix=bt601 pins swscale's default matrix, where the filter
// would otherwise follow colour tags the library does not read. The range
// follows the picture in both (full for MJPEG's yuvj420p). fps_mode
// passthrough keeps it from duplicating or dropping pictures.
TEST_P(PixelAccuracy, RowsMatchTheFfmpegProgramByteForByte)
{
    const QString ffmpeg = QStandardPaths::findExecutable("ffmpeg");
    if (ffmpeg.isEmpty())
        GTEST_SKIP() << "the ffmpeg program is not installed";
    const QString path = GetParam().path();
    Source source;
    ASSERT_NO_FATAL_FAILURE(Open(path, source));
    VideoDecoder converter;
    ASSERT_TRUE(SetUpFor(converter, source, 0));
    Decoded decoded = DecodeAll(converter, source);
    ASSERT_FALSE(decoded.records.isEmpty());
    decoded.records.removeLast(); // the marker
    ASSERT_FALSE(decoded.records.isEmpty());
    const int width = decoded.records.front()->width;
    const int height = decoded.records.front()->height;

    QProcess process;
    process.start(ffmpeg, {"-nostdin", "-v", "error", "-i", path, "-map", "0:v:0", "-vf",
                           QString("scale=%1:%2:flags=bilinear:in_color_matrix=bt601").arg(width).arg(height),
                           "-fps_mode", "passthrough", "-pix_fmt", "rgb24", "-f", "rawvideo", "-"});
    ASSERT_TRUE(process.waitForFinished(120000));
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    const QByteArray reference = process.readAllStandardOutput();
    const int rowBytes = 3 * width;
    ASSERT_EQ(reference.size(), qsizetype(decoded.records.size()) * rowBytes * height);

    for (int f = 0; f < decoded.records.size(); ++f) {
        const DecodedVideoFrame& r = *decoded.records[f];
        ASSERT_EQ(r.width, width);
        ASSERT_EQ(r.height, height);
        ASSERT_EQ(r.size, Stride(width) * height);
        const char* expected = reference.constData() + qsizetype(f) * rowBytes * height;
        for (int y = 0; y < height; ++y) {
            const uint8_t* ours = r.data + y * Stride(width);
            const uint8_t* theirs = reinterpret_cast<const uint8_t*>(expected) + y * rowBytes;
            if (std::memcmp(ours, theirs, size_t(rowBytes)) != 0) {
                int x = 0;
                while (ours[x] == theirs[x])
                    ++x;
                FAIL() << "picture " << f << " row " << y << " byte " << x << ": " << int(ours[x]) << " vs "
                       << int(theirs[x]);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, PixelAccuracy,
                         testing::Values(PixelCase{"h264_yuv420p", &H264Path},
                                         PixelCase{"h264_yuv420p10_widened", &TenBitPath},
                                         PixelCase{"h264_yuv444p", &Yuv444Path},
                                         PixelCase{"mjpeg_full_range", &MjpegPath},
                                         PixelCase{"anamorphic_720_to_1024", &AnamorphicPath}),
                         [](const testing::TestParamInfo<PixelCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------
// Special records

TEST(VideoDecoderSizeChange, PicturesOfAnotherSizeBecomePlaceholders)
{
    VideoSpec v;
    v.frames = 30;
    v.sizeChanges = {{10, 256, 144}, {20, 320, 240}};
    const QString path = Custom("size_change.ts", OneVideo("mpegts", v));
    Source source;
    ASSERT_NO_FATAL_FAILURE(Open(path, source));
    const int64_t startUs = av_rescale_q(source.stream->start_time, source.stream->time_base, {1, 1000000});
    VideoDecoder converter;
    ASSERT_TRUE(SetUpFor(converter, source, startUs));

    const Decoded decoded = DecodeAll(converter, source);
    ASSERT_EQ(decoded.records.size(), 31);
    EXPECT_TRUE(IsMarker(*decoded.records.last()));
    for (int i = 0; i < 30; ++i) {
        const DecodedVideoFrame& r = *decoded.records[i];
        SCOPED_TRACE("picture " + std::to_string(i));
        EXPECT_NEAR(double(r.startTime), i * 40000.0, 1.0);
        ASSERT_NE(r.data, nullptr);
        if (i >= 10 && i < 20) {
            EXPECT_EQ(r.status, 1);
            EXPECT_EQ(r.size, 1);
            EXPECT_EQ(r.data[0], 0);
            EXPECT_EQ(r.width, 256);
            EXPECT_EQ(r.height, 144);
        } else {
            // Back at the size decoding was set up for: real pictures again.
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(r.size, Stride(320) * 240);
            EXPECT_EQ(IndexOf(r), i);
        }
    }
}

TEST(VideoDecoderImage, PictureComesOutOfItsOwnCallUnscaledUnfilteredAndWithoutMarker)
{
    const Fixture& fixture = GetFixture(FixtureId::PngStill);
    Source source;
    ASSERT_NO_FATAL_FAILURE(Open(fixture.path, source));
    VideoDecoder converter;
    // Images ignore the pixel aspect and have no rate (-1).
    ASSERT_TRUE(converter.Setup(source.decoder.get(), source.stream->time_base, 320, 240, 2.0f, 0, -1.0, 0, true,
                                false));
    PacketPtr packet(av_packet_alloc());
    ASSERT_TRUE(source.Next(packet.get()));

    LogCapture log;
    Records records;
    // A still has no timeline: a target far after it does not drop it.
    converter.Decode(packet.get(), records, 10000000);
    ASSERT_EQ(records.size(), 1);
    const DecodedVideoFrame& r = *records.front();
    EXPECT_EQ(r.width, 320);
    EXPECT_EQ(r.height, 240);
    EXPECT_EQ(r.size, Stride(320) * 240);
    EXPECT_EQ(r.startTime, 0);
    EXPECT_EQ(r.status, 0);
    EXPECT_DOUBLE_EQ(r.frameRate, Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE);
    EXPECT_EQ(IndexOf(r), 0);

    // The decoder was drained: a further packet is refused without a word.
    converter.Decode(packet.get(), records, kNoTarget);
    EXPECT_EQ(records.size(), 1);
    EXPECT_EQ(Logged(log), "");
}

// ---------------------------------------------------------------------------
// Geometry, gamma, timing

TEST(VideoDecoderSetup, RefusesNullDecoderAndThenIgnoresPackets)
{
    VideoDecoder converter;
    EXPECT_FALSE(converter.Setup(nullptr, AVRational{1, 25}, 320, 240, 1.0f, 0, 25.0, 0, false, false));
    Records records;
    converter.Decode(RawRgb::Packet(std::vector<uint8_t>(16, 0), 0).get(), records, kNoTarget);
    EXPECT_TRUE(records.isEmpty());
}

TEST(VideoDecoderSetup, RowsArePaddedToFourBytesAndDependOnThePictureAlone)
{
    const int strides[] = {12, 16, 20, 24};
    for (int width = 4; width <= 7; ++width) {
        SCOPED_TRACE("width " + std::to_string(width));
        RawRgb raw(width, 3);
        ASSERT_TRUE(raw.decoder);
        VideoDecoder first, second;
        {
            AllocationPattern pattern(0x11);
            ASSERT_TRUE(raw.SetUp(first, 25.0));
        }
        {
            AllocationPattern pattern(0x22);
            ASSERT_TRUE(raw.SetUp(second, 25.0));
        }
        const Records a = raw.Decode(first, 0);
        const Records b = raw.Decode(second, 0);
        ASSERT_EQ(a.size(), 1);
        ASSERT_EQ(b.size(), 1);
        const DecodedVideoFrame& r = *a.front();
        EXPECT_EQ(r.width, width);
        EXPECT_EQ(r.height, 3);
        ASSERT_EQ(r.size, strides[width - 4] * 3);
        // An RGB24 source at the output size is copied: each row must start
        // where the padded layout says.
        const std::vector<uint8_t> source = raw.Picture();
        for (int y = 0; y < 3; ++y)
            EXPECT_EQ(std::memcmp(r.data + y * strides[width - 4], source.data() + y * 3 * width, size_t(3 * width)),
                      0) << "row " << y;
        // Padding included: a record must not carry leftover heap bytes.
        ASSERT_EQ(b.front()->size, r.size);
        const int k = FirstDifference(b.front()->data, r.data, r.size);
        EXPECT_EQ(k, -1) << "byte " << k % strides[width - 4] << " of row " << k / strides[width - 4] << ": "
                         << int(r.data[k]) << " vs " << int(b.front()->data[k]);
    }
}

TEST(VideoDecoderSetup, PixelAspectWidensTruncatingTheWidth)
{
    RawRgb raw(5, 2);
    ASSERT_TRUE(raw.decoder);
    VideoDecoder converter;
    ASSERT_TRUE(raw.SetUp(converter, 25.0, 1.5f)); // 7.5 → 7
    Records records = raw.Decode(converter, 0);
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records.front()->width, 7);
    EXPECT_EQ(records.front()->height, 2);
    EXPECT_EQ(records.front()->size, 24 * 2);
}

TEST(VideoDecoderGamma, LinearLightBytesGoThroughTheTable)
{
    // 5 pixels make 15-byte rows padded to 16; 18 rows hold every byte value.
    RawRgb raw(5, 18);
    ASSERT_TRUE(raw.decoder);
    VideoDecoder plain, linear;
    {
        AllocationPattern pattern(0x11);
        ASSERT_TRUE(raw.SetUp(plain, 25.0, 1.0f, false));
    }
    {
        AllocationPattern pattern(0x22);
        ASSERT_TRUE(raw.SetUp(linear, 25.0, 1.0f, true));
    }
    const Records a = raw.Decode(plain, 0);
    const Records b = raw.Decode(linear, 0);
    ASSERT_EQ(a.size(), 1);
    ASSERT_EQ(b.size(), 1);
    ASSERT_EQ(a.front()->size, 16 * 18);
    ASSERT_EQ(b.front()->size, a.front()->size);
    EXPECT_FALSE(a.front()->isLinearColorSpace);
    EXPECT_TRUE(b.front()->isLinearColorSpace);

    uint8_t table[256];
    for (int i = 0; i < 256; ++i)
        table[i] = uint8_t(std::lround(255.0 * std::pow(i / 255.0, 1.0 / 2.2)));
    // Anchors worked out by hand, so a wrong exponent in both places shows.
    EXPECT_EQ(table[1], 21);
    EXPECT_EQ(table[64], 136);
    EXPECT_EQ(table[128], 186);
    EXPECT_EQ(table[254], 255);

    // Every byte, row padding included.
    const uint8_t* in = a.front()->data;
    const uint8_t* out = b.front()->data;
    int mismatches = 0;
    for (int k = 0; k < a.front()->size; ++k) {
        if (out[k] != table[in[k]] && mismatches++ < 5)
            ADD_FAILURE() << "byte " << k << ": " << int(in[k]) << " → " << int(out[k]) << ", table says "
                          << int(table[in[k]]);
    }
    EXPECT_EQ(mismatches, 0);
    // Source byte v sits at row v / 15, column v % 15.
    for (int v : {0, 1, 64, 128, 254, 255})
        EXPECT_EQ(out[v / 15 * 16 + v % 15], table[v]) << "value " << v;
}

TEST(VideoDecoderTrailing, FramesTooFarBeforeTheTargetAreDropped)
{
    TrailingFramesGuard guard;
    Settings::maxTrailingFramesAfterSeek = 3;
    RawRgb raw(16, 16);
    ASSERT_TRUE(raw.decoder);
    VideoDecoder converter;
    ASSERT_TRUE(raw.SetUp(converter, 25.0));

    // 1,000,000 − 3 × 40,000 = 880,000: anything earlier is dropped.
    EXPECT_TRUE(raw.Decode(converter, 879999, 1000000).isEmpty());
    Records kept = raw.Decode(converter, 880000, 1000000);
    ASSERT_EQ(kept.size(), 1);
    EXPECT_EQ(kept.front()->startTime, 880000);
    EXPECT_EQ(raw.Decode(converter, 0, kNoTarget).size(), 1);

    // Read at each use.
    Settings::maxTrailingFramesAfterSeek = 1;
    EXPECT_TRUE(raw.Decode(converter, 959999, 1000000).isEmpty());
    EXPECT_EQ(raw.Decode(converter, 960000, 1000000).size(), 1);
}

// At the end of the stream no later call would fetch what a drop leaves
// behind, so the drain skips the dropped pictures and goes on.
TEST(VideoDecoderTrailing, DrainSkipsDroppedPicturesAndStillEndsWithTheMarker)
{
    TrailingFramesGuard guard;
    Settings::maxTrailingFramesAfterSeek = 3;
    Source source;
    // One thread: the held-back pictures are then just the reordering delay.
    ASSERT_NO_FATAL_FAILURE(Open(GetFixture(FixtureId::H264AacMp4).path, source, 1));
    VideoDecoder converter;
    ASSERT_TRUE(SetUpFor(converter, source, 0));

    Records records;
    PacketPtr packet(av_packet_alloc());
    while (source.Next(packet.get())) {
        converter.Decode(packet.get(), records, kNoTarget);
        av_packet_unref(packet.get());
    }
    const int delivered = records.size();
    ASSERT_LE(delivered, 48) << "the drain must hold at least two pictures";

    // Picture `delivered` falls before the trailing window, the next one is
    // the first inside it.
    const int64_t target = (delivered + 1) * 40000 + 3 * 40000;
    MediaReader::GetPacket(nullptr, packet.get());
    converter.Decode(packet.get(), records, target);
    ASSERT_EQ(records.size(), 50); // 49 pictures, one dropped, and the marker
    for (int i = delivered; i < 49; ++i)
        EXPECT_EQ(IndexOf(*records[i]), i + 1);
    EXPECT_TRUE(IsMarker(*records.last()));
}

TEST(VideoDecoderTiming, FrameRateIsClampedAndTimesPicturesWithoutTimestamps)
{
    RawRgb raw(16, 16);
    ASSERT_TRUE(raw.decoder);
    VideoDecoder converter;
    ASSERT_TRUE(raw.SetUp(converter, 0.5)); // below 1 fps: 24

    struct Step {
        double setRate;   // 0: leave the rate alone
        int64_t pts;      // AV_NOPTS_VALUE: no timestamp
        int64_t startTime;
        double frameRate;
    };
    const Step steps[] = {
        {0, 0, 0, 24.0},
        {0, AV_NOPTS_VALUE, 41666, 24.0},
        {2000, 100000, 100000, 24.0}, // above 1000 fps: 24
        {0, AV_NOPTS_VALUE, 141666, 24.0},
        {30, 200000, 200000, 30.0},
        {0, AV_NOPTS_VALUE, 233333, 30.0},
        {1000, 300000, 300000, 1000.0}, // both ends of the range are accepted
        {0, AV_NOPTS_VALUE, 301000, 1000.0},
        {1, 400000, 400000, 1.0},
        {0, AV_NOPTS_VALUE, 1400000, 1.0},
        {25, 2000000, 2000000, 25.0},
        {0, AV_NOPTS_VALUE, 2040000, 25.0},
        {0, AV_NOPTS_VALUE, 2080000, 25.0},
        {0, AV_NOPTS_VALUE, 2120000, 25.0},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE("expecting " + std::to_string(step.startTime));
        if (step.setRate != 0)
            converter.SetFrameRate(step.setRate);
        const Records records = raw.Decode(converter, step.pts);
        ASSERT_EQ(records.size(), 1);
        EXPECT_EQ(records.front()->startTime, step.startTime);
        EXPECT_DOUBLE_EQ(records.front()->frameRate, step.frameRate);
    }
}

// ---------------------------------------------------------------------------
// Decoder errors

TEST(VideoDecoderErrors, TruncatedRawPictureIsLoggedAndTheNextOneDecodes)
{
    RawRgb raw(16, 16);
    ASSERT_TRUE(raw.decoder);
    VideoDecoder converter;
    ASSERT_TRUE(raw.SetUp(converter, 25.0));
    LogCapture log;
    Records records;
    converter.Decode(RawRgb::Packet(std::vector<uint8_t>(100, 7), 0).get(), records, kNoTarget);
    EXPECT_TRUE(records.isEmpty());
    EXPECT_EQ(Logged(log), "Error decoding video packet.");
    EXPECT_EQ(raw.Decode(converter, 40000).size(), 1);
    EXPECT_EQ(log.Messages().size(), 1);
}

// Garbage to H.264: its first four bytes, read as a NAL unit length, run past
// the packet. With one thread the call that sent it reports it; with frame
// threads (as the library's readers open decoders) a later call does. Either
// way it is said once and the real stream after it decodes whole.
TEST(VideoDecoderErrors, GarbageBeforeAnH264StreamIsLoggedOnceAndTheStreamDecodes)
{
    for (int threads : {1, 0}) {
        SCOPED_TRACE("thread_count " + std::to_string(threads));
        Source source;
        ASSERT_NO_FATAL_FAILURE(Open(GetFixture(FixtureId::H264AacMp4).path, source, threads));
        VideoDecoder converter;
        ASSERT_TRUE(SetUpFor(converter, source, 0));
        LogCapture log;
        Records records;
        converter.Decode(RawRgb::Packet(std::vector<uint8_t>(64, 0xFF), 0).get(), records, kNoTarget);
        EXPECT_TRUE(records.isEmpty());
        if (threads == 1) {
            EXPECT_EQ(Logged(log), "Error decoding video packet.");
        }

        const Decoded decoded = DecodeAll(converter, source);
        ASSERT_EQ(decoded.records.size(), 51);
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(IndexOf(*decoded.records[i]), i);
        EXPECT_TRUE(IsMarker(*decoded.records.last()));
        EXPECT_EQ(Logged(log), "Error decoding video packet.");
    }
}

} // namespace
