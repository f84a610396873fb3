#pragma once

// Small, deterministic media files made at test time with FFmpeg's own
// encoders and muxers, plus the facts that probing and decoding each of them
// must find. Every video frame carries its own index in its pixels and PCM
// audio can carry the position of every sample frame, so tests can tell which
// frame or sample they got back, not just that they got something.

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include <QString>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace molvane::test {

// ---------------------------------------------------------------------------
// Catalogue of ready-made files

enum class StreamKind { Video, Audio, Subtitle, Data };

// What probing one stream must find.
struct ExpectedStream {
    StreamKind kind = StreamKind::Video;
    QString codecName;            // codec name as FFmpeg reports it (avcodec_get_name):
                                  // "h264", "aac", "pcm_s16le", "subrip", ...
    int width = 0, height = 0;    // video, as coded (before rotation or aspect correction)
    int sarNum = 0, sarDen = 1;   // sample aspect ratio as stored, 0/1 when none is stored
    int rateNum = 0, rateDen = 1; // video: frame rate given to the muxer (the expected
                                  // avg_frame_rate); 0/1 when there is none (stills)
    int64_t frameCount = 0;       // video: frames written; audio: sample frames written;
                                  // subtitle: cues written
    int64_t firstPtsUs = 0;       // video: presentation time (µs) of the first frame as
                                  // the demuxer reports it
    QString rotate;               // clockwise rotation "90"/"180"/"270", empty for none
    int channels = 0, sampleRate = 0;
    int sampleFormat = -1;        // audio: AVSampleFormat the default decoder outputs
    bool positional = false;      // audio: PCM carrying PositionSample*() values
};

struct Fixture {
    QString name;                 // short id, e.g. "h264_aac_mp4"
    QString path;                 // absolute path of the generated file
    QString formatName;           // demuxer name list as ffprobe's format_name shows it
    bool isImage = false;         // a still picture
    int64_t durationUs = 0;       // container duration (µs), approximate where muxers
                                  // pad; -1 when the container declares none
    std::vector<ExpectedStream> streams; // in container order
    bool hasPackets = true;
};

enum class FixtureId {
    H264AacMp4,     // H.264 (B-frames) 320x240 25 fps 50 frames + AAC stereo 48 kHz, MP4
    Mpeg4Mp4,       // MPEG-4 Part 2 320x240 25 fps 50 frames, MP4, video only
    Mpeg1Ps,        // MPEG-1 video 320x240 25 fps + MP2, MPEG program stream
    LateStartTs,    // MPEG-TS, H.264 + MP2, everything starts at 10 s
    MultiStreamMkv, // Matroska: H.264 320x240, MPEG-4 160x120, PCM, SubRip
    NegativeStart,  // MPEG-TS, H.264, first frame at -80 ms
    Ntsc2997,       // H.264 at 30000/1001, 60 frames, MP4 (declares nb_frames)
    Anamorphic,     // H.264 720x576 with sample aspect 64:45, MP4
    Rotated90,      // H.264 320x240 in MP4 with a display matrix: rotate 90 clockwise
    WavS16Stereo,   // pcm_s16le stereo 48 kHz, 1.5 s, positional
    WavU8,          // pcm_u8 stereo 22050 Hz, 1 s, positional (u8 mapping)
    WavFloat,       // pcm_f32le stereo 44100 Hz, 1 s, positional (float mapping)
    WavSixChannels, // pcm_s16le 5.1 48 kHz, 1 s, positional
    PngStill,       // one 320x240 RGB PNG picture
    NoPackets,      // MP4 (fragmented, header only): one H.264 320x240 stream, no packets
};

// Made on first use, once per process, then cached; safe to call from any
// thread. Throws std::runtime_error when FFmpeg cannot write the file.
const Fixture& GetFixture(FixtureId id);
std::vector<FixtureId> AllFixtures();
// The fixture's short id, without making the file (for test names).
QString FixtureName(FixtureId id);
// Folder the fixtures go to; removed at exit unless MOLVANE_KEEP_FIXTURES is
// set, in which case its path is printed to stderr and it is kept.
QString FixtureDirectory();

// ---------------------------------------------------------------------------
// Generic writer

struct SizeChange {
    int atFrame = 0;              // first frame with the new size
    int width = 0, height = 0;
};

struct VideoSpec {
    QString encoder = "libx264";  // FFmpeg encoder name
    int width = 320, height = 240;
    int rateNum = 25, rateDen = 1;
    int frames = 50;              // 0 writes a stream without packets
    int gop = 25;
    int maxBFrames = 2;
    // Encoder input format; NONE picks yuv420p when the encoder takes it, else
    // the encoder's first format. Frames are painted in yuv420p and converted.
    AVPixelFormat pixFmt = AV_PIX_FMT_NONE;
    int sarNum = 0, sarDen = 1;   // stored sample aspect ratio, 0/1 for none
    int64_t firstPts = 0;         // timestamp of frame 0 in frame units, may be negative
    int rotateClockwise = 0;      // 90/180/270: display matrix side data on the stream
    // Options for avcodec_open2: encoder private ones (crf, preset, ...) and
    // generic ones (b, g, flags, ...). An option nobody takes is an error.
    std::map<std::string, std::string> options;
    // Restart the encoder at new sizes mid-stream. Only for containers that
    // carry codec headers in-band (mpegts, mpeg, raw streams).
    std::vector<SizeChange> sizeChanges;
};

struct AudioSpec {
    QString encoder = "aac";
    int sampleRate = 48000;
    int channels = 2;             // default layout for the count (6 -> 5.1)
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_NONE; // encoder input; NONE: encoder's first
    int64_t sampleFrames = 96000;
    int64_t firstSample = 0;      // timestamp of sample frame 0, in samples
    // true: samples carry their position (PositionSample*); false: a quiet
    // sine per channel. Fixed-frame encoders without a short last frame (mp2,
    // ...) need sampleFrames to be whole frames.
    bool positional = false;
    std::map<std::string, std::string> options;
};

struct MediaSpec {
    QString container;            // muxer name: mp4, matroska, mpegts, mpeg, wav, webm, image2, ...
    std::vector<VideoSpec> video;
    std::vector<AudioSpec> audio;
    int subtitleCues = 0;         // SubRip cues "Cue 1", "Cue 2", ...: 400 ms every 500 ms
    std::map<std::string, std::string> muxerOptions; // avformat_write_header options
};

// Streams are written in order: video, then audio, then subtitles. Encoders
// run single-threaded with bit-exact flags, so the same mediaSpec gives the same
// bytes on every run.
bool WriteMedia(const MediaSpec& mediaSpec, const QString& path, QString* error = nullptr);

// The mediaSpec a catalogue fixture is written from.
MediaSpec FixtureSpec(FixtureId id);

// ---------------------------------------------------------------------------
// Frame identity
//
// The middle of the picture holds two rows of 16 blocks spanning the full
// width: the top row is the index in binary, most significant bit left, white
// for 1; the row below is its complement. Rows cover 5/16..8/16 and 8/16..11/16
// of the height; block i covers i/16..(i+1)/16 of the width. The rest is a
// gradient moving with the index. Reading samples the block centres by
// relative position, so it survives lossy coding and scaling in either
// direction; the complement row makes a picture without the code read as -1.

constexpr int kMaxFrameIndex = 0xFFFF;

// Paints frame `index` (0..kMaxFrameIndex) into a yuv420p picture (BT.601,
// limited range). planes/strides as in AVFrame::data/linesize.
void PaintFrameIndex(int index, uint8_t* const planes[3], const int strides[3], int width,
                     int height);
// Index painted in an RGB24 picture, -1 when the code is not readable.
int ReadFrameIndex(const uint8_t* rgb24, int width, int height, int strideBytes);

// ---------------------------------------------------------------------------
// Audio identity
//
// Value of sample frame n, channel c, as the writer stores it for each encoder
// input format (planar and packed alike):
//   s16:        PositionSample(n, c)
//                 c = 0: n & 0x7FFF; c = 1: (n >> 15) & 0x7FFF;
//                 c >= 2: (n + c * 0x1000) & 0x7FFF.  Never negative.
//   s32 / s64:  PositionSample(n, c) shifted to the top 16 bits
//   flt / dbl:  PositionSampleFloat(n, c) = PositionSample(n, c) / 32768, exact
//   u8:         PositionSampleU8(n, c) = (n + 37 * c) & 0xFF
// Converting to s16 the way swresample does gives ExpectedS16FromFloat /
// ExpectedS16FromU8 of those values; for float and the wider integers that is
// PositionSample(n, c) again, so PositionOfSampleFrame recovers n. Mono keeps
// only n mod 32768.

int16_t PositionSample(int64_t n, int channel);
float PositionSampleFloat(int64_t n, int channel);
uint8_t PositionSampleU8(int64_t n, int channel);
int16_t ExpectedS16FromFloat(float f); // lrintf(f * 32768), clipped
int16_t ExpectedS16FromU8(uint8_t v);  // (v - 128) << 8
// n of one interleaved s16 sample frame; -1 when the channels do not agree
// with any position.
int64_t PositionOfSampleFrame(const int16_t* interleaved, int channels);

} // namespace molvane::test
