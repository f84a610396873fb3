// The fixture catalogue: for each file, how to write it and what probing it
// must find. The expectations are stated independently of the specs on
// purpose, so a writer that drops a setting shows up as a mismatch.

#include "support/MediaFixtures.h"

#include <QDir>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace molvane::test {

namespace {

const QString kMp4Format = "mov,mp4,m4a,3gp,3g2,mj2";
const QString kMatroskaFormat = "matroska,webm";

struct Entry {
    FixtureId id;
    QString extension;
    MediaSpec mediaSpec;
    Fixture expected; // everything but the path
};

VideoSpec Video(const char* encoder, int width, int height, int frames)
{
    VideoSpec v;
    v.encoder = encoder;
    v.width = width;
    v.height = height;
    v.frames = frames;
    return v;
}

AudioSpec Audio(const char* encoder, int sampleRate, int channels, int64_t sampleFrames)
{
    AudioSpec a;
    a.encoder = encoder;
    a.sampleRate = sampleRate;
    a.channels = channels;
    a.sampleFrames = sampleFrames;
    return a;
}

AudioSpec PositionalPcm(const char* encoder, int sampleRate, int channels, int64_t sampleFrames)
{
    AudioSpec a = Audio(encoder, sampleRate, channels, sampleFrames);
    a.positional = true;
    return a;
}

ExpectedStream VideoStream(const char* codec, int width, int height, int64_t frames,
                           int rateNum = 25, int rateDen = 1)
{
    ExpectedStream s;
    s.kind = StreamKind::Video;
    s.codecName = codec;
    s.width = width;
    s.height = height;
    s.frameCount = frames;
    s.rateNum = rateNum;
    s.rateDen = rateDen;
    return s;
}

ExpectedStream AudioStream(const char* codec, int sampleRate, int channels, AVSampleFormat decoded,
                           int64_t sampleFrames, bool positional = false)
{
    ExpectedStream s;
    s.kind = StreamKind::Audio;
    s.codecName = codec;
    s.sampleRate = sampleRate;
    s.channels = channels;
    s.sampleFormat = decoded;
    s.frameCount = sampleFrames;
    s.positional = positional;
    return s;
}

ExpectedStream WithSar(ExpectedStream s, int num, int den)
{
    s.sarNum = num;
    s.sarDen = den;
    return s;
}

ExpectedStream StartingAt(ExpectedStream s, int64_t firstPtsUs)
{
    s.firstPtsUs = firstPtsUs;
    return s;
}

MediaSpec MakeMedia(const char* container, std::vector<VideoSpec> video, std::vector<AudioSpec> audio)
{
    MediaSpec s;
    s.container = container;
    s.video = std::move(video);
    s.audio = std::move(audio);
    return s;
}

Fixture Expect(const char* name, const QString& format, int64_t durationUs,
               std::vector<ExpectedStream> streams)
{
    Fixture f;
    f.name = name;
    f.formatName = format;
    f.durationUs = durationUs;
    f.streams = std::move(streams);
    return f;
}

std::vector<Entry> BuildCatalogue()
{
    std::vector<Entry> entries;
    auto add = [&](FixtureId id, const char* extension, MediaSpec mediaSpec, Fixture expected) {
        entries.push_back(Entry{id, extension, std::move(mediaSpec), std::move(expected)});
    };

    {
        MediaSpec s = MakeMedia("mp4", {Video("libx264", 320, 240, 50)}, {Audio("aac", 48000, 2, 96000)});
        add(FixtureId::H264AacMp4, ".mp4", s,
            Expect("h264_aac_mp4", kMp4Format, 2000000,
                   {VideoStream("h264", 320, 240, 50),
                    AudioStream("aac", 48000, 2, AV_SAMPLE_FMT_FLTP, 96000)}));
    }
    {
        VideoSpec v = Video("mpeg4", 320, 240, 50);
        v.options = {{"b", "1M"}};
        MediaSpec s = MakeMedia("mp4", {v}, {});
        add(FixtureId::Mpeg4Mp4, ".mp4", s,
            Expect("mpeg4_mp4", kMp4Format, 2000000,
                   {WithSar(VideoStream("mpeg4", 320, 240, 50), 1, 1)}));
    }
    {
        VideoSpec v = Video("mpeg1video", 320, 240, 50);
        v.gop = 12;
        // A floor on the quantiser keeps the sharp code edges from
        // overflowing MPEG-1's coefficient range.
        v.options = {{"b", "1M"}, {"qmin", "5"}};
        MediaSpec s = MakeMedia("mpeg", {v}, {Audio("mp2", 48000, 2, 1152 * 84)});
        // The muxer delays everything by its 0.5 s preload, and by one more
        // frame so the B-frame reordering delay keeps decode times positive.
        add(FixtureId::Mpeg1Ps, ".mpg", s,
            Expect("mpeg1_ps", "mpeg", 2016000,
                   {StartingAt(WithSar(VideoStream("mpeg1video", 320, 240, 50), 1, 1), 540000),
                    AudioStream("mp2", 48000, 2, AV_SAMPLE_FMT_S16P, 1152 * 84)}));
    }
    {
        VideoSpec v = Video("libx264", 320, 240, 50);
        v.firstPts = 250; // 10 s at 25 fps
        AudioSpec a = Audio("mp2", 48000, 2, 1152 * 84);
        a.firstSample = 480000;
        MediaSpec s = MakeMedia("mpegts", {v}, {a});
        add(FixtureId::LateStartTs, ".ts", s,
            Expect("late_start_ts", "mpegts", 2016000,
                   {StartingAt(VideoStream("h264", 320, 240, 50), 10000000),
                    AudioStream("mp2", 48000, 2, AV_SAMPLE_FMT_S16P, 1152 * 84)}));
    }
    {
        MediaSpec s = MakeMedia("matroska",
                    {Video("libx264", 320, 240, 50), Video("mpeg4", 160, 120, 50)},
                    {PositionalPcm("pcm_s16le", 48000, 2, 96000)});
        s.video[1].options = {{"b", "500k"}};
        s.subtitleCues = 4;
        ExpectedStream cues;
        cues.kind = StreamKind::Subtitle;
        cues.codecName = "subrip";
        cues.frameCount = 4;
        add(FixtureId::MultiStreamMkv, ".mkv", s,
            Expect("multi_stream_mkv", kMatroskaFormat, 2000000,
                   {VideoStream("h264", 320, 240, 50),
                    WithSar(VideoStream("mpeg4", 160, 120, 50), 1, 1),
                    AudioStream("pcm_s16le", 48000, 2, AV_SAMPLE_FMT_S16, 96000, true), cues}));
    }
    {
        // MPEG-TS stores times modulo 2^33; starting just below the wrap, the
        // demuxer reads them back as negative. Matroska's demuxer drops
        // negative times and MP4's edit lists hide them, so neither will do.
        VideoSpec v = Video("libx264", 320, 240, 50);
        v.firstPts = -2;
        MediaSpec s = MakeMedia("mpegts", {v}, {});
        // Left alone, the muxer shifts everything up to 0.
        s.muxerOptions = {{"avoid_negative_ts", "disabled"}};
        add(FixtureId::NegativeStart, ".ts", s,
            Expect("negative_start_ts", "mpegts", 2000000,
                   {StartingAt(VideoStream("h264", 320, 240, 50), -80000)}));
    }
    {
        VideoSpec v = Video("libx264", 320, 240, 60);
        v.rateNum = 30000;
        v.rateDen = 1001;
        v.gop = 30;
        MediaSpec s = MakeMedia("mp4", {v}, {});
        add(FixtureId::Ntsc2997, ".mp4", s,
            Expect("ntsc_2997_mp4", kMp4Format, 2002000,
                   {VideoStream("h264", 320, 240, 60, 30000, 1001)}));
    }
    {
        VideoSpec v = Video("libx264", 720, 576, 25);
        v.sarNum = 64;
        v.sarDen = 45;
        MediaSpec s = MakeMedia("mp4", {v}, {});
        add(FixtureId::Anamorphic, ".mp4", s,
            Expect("anamorphic_mp4", kMp4Format, 1000000,
                   {WithSar(VideoStream("h264", 720, 576, 25), 64, 45)}));
    }
    {
        VideoSpec v = Video("libx264", 320, 240, 25);
        v.rotateClockwise = 90;
        MediaSpec s = MakeMedia("mp4", {v}, {});
        ExpectedStream e = VideoStream("h264", 320, 240, 25);
        e.rotate = "90";
        add(FixtureId::Rotated90, ".mp4", s, Expect("rotated_90_mp4", kMp4Format, 1000000, {e}));
    }
    {
        MediaSpec s = MakeMedia("wav", {}, {PositionalPcm("pcm_s16le", 48000, 2, 72000)});
        add(FixtureId::WavS16Stereo, ".wav", s,
            Expect("wav_s16_stereo", "wav", 1500000,
                   {AudioStream("pcm_s16le", 48000, 2, AV_SAMPLE_FMT_S16, 72000, true)}));
    }
    {
        MediaSpec s = MakeMedia("wav", {}, {PositionalPcm("pcm_u8", 22050, 2, 22050)});
        add(FixtureId::WavU8, ".wav", s,
            Expect("wav_u8", "wav", 1000000,
                   {AudioStream("pcm_u8", 22050, 2, AV_SAMPLE_FMT_U8, 22050, true)}));
    }
    {
        MediaSpec s = MakeMedia("wav", {}, {PositionalPcm("pcm_f32le", 44100, 2, 44100)});
        add(FixtureId::WavFloat, ".wav", s,
            Expect("wav_float", "wav", 1000000,
                   {AudioStream("pcm_f32le", 44100, 2, AV_SAMPLE_FMT_FLT, 44100, true)}));
    }
    {
        MediaSpec s = MakeMedia("wav", {}, {PositionalPcm("pcm_s16le", 48000, 6, 48000)});
        add(FixtureId::WavSixChannels, ".wav", s,
            Expect("wav_six_channels", "wav", 1000000,
                   {AudioStream("pcm_s16le", 48000, 6, AV_SAMPLE_FMT_S16, 48000, true)}));
    }
    {
        MediaSpec s = MakeMedia("image2", {Video("png", 320, 240, 1)}, {});
        s.muxerOptions = {{"update", "1"}}; // one file, no sequence pattern
        ExpectedStream e = VideoStream("png", 320, 240, 1, 0, 1);
        Fixture f = Expect("png_still", "png_pipe", -1, {e});
        f.isImage = true;
        add(FixtureId::PngStill, ".png", s, f);
    }
    {
        // A fragmented-MP4 header with no fragments. This FFmpeg's Matroska
        // and NUT demuxers refuse files without packets, and plain MP4 leaves
        // empty tracks out.
        MediaSpec s = MakeMedia("mp4", {Video("libx264", 320, 240, 0)}, {});
        s.muxerOptions = {{"movflags", "empty_moov"}};
        Fixture f = Expect("no_packets_mp4", kMp4Format, -1,
                           {VideoStream("h264", 320, 240, 0)});
        f.hasPackets = false;
        add(FixtureId::NoPackets, ".mp4", s, f);
    }
    return entries;
}

const std::vector<Entry>& Catalogue()
{
    static const std::vector<Entry> entries = BuildCatalogue();
    return entries;
}

const Entry& Find(FixtureId id)
{
    for (const Entry& e : Catalogue()) {
        if (e.id == id)
            return e;
    }
    throw std::invalid_argument("fixture id missing from the catalogue");
}

} // namespace

QString FixtureDirectory()
{
    static const std::unique_ptr<QTemporaryDir> dir = [] {
        auto d = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/molvane-fixtures-XXXXXX");
        if (!d->isValid())
            throw std::runtime_error("cannot create the fixture folder: " + d->errorString().toStdString());
        if (qEnvironmentVariableIsSet("MOLVANE_KEEP_FIXTURES")) {
            d->setAutoRemove(false);
            std::fprintf(stderr, "MOLVANE_KEEP_FIXTURES: fixtures kept in %s\n",
                         qPrintable(d->path()));
        }
        return d;
    }();
    return dir->path();
}

std::vector<FixtureId> AllFixtures()
{
    std::vector<FixtureId> ids;
    for (const Entry& e : Catalogue())
        ids.push_back(e.id);
    return ids;
}

QString FixtureName(FixtureId id)
{
    return Find(id).expected.name;
}

MediaSpec FixtureSpec(FixtureId id)
{
    return Find(id).mediaSpec;
}

const Fixture& GetFixture(FixtureId id)
{
    // One lock for all: fixtures are made one at a time, and a thread asking
    // for one being made waits for it rather than writing it again.
    static std::mutex mutex;
    static std::map<FixtureId, Fixture> made;
    std::lock_guard<std::mutex> lock(mutex);
    if (auto it = made.find(id); it != made.end())
        return it->second;

    const Entry& entry = Find(id);
    Fixture fixture = entry.expected;
    fixture.path = QDir(FixtureDirectory()).absoluteFilePath(fixture.name + entry.extension);
    QString error;
    if (!WriteMedia(entry.mediaSpec, fixture.path, &error))
        throw std::runtime_error("cannot make fixture " + fixture.name.toStdString() + ": " +
                                 error.toStdString());
    return made.emplace(id, std::move(fixture)).first->second;
}

} // namespace molvane::test
