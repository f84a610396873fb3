// Cost of decoding through MediaInstance:
//  - a whole 1080p H.264 + AAC clip, against the bare FFmpeg floor on the
//    same file (demux, send/receive for both streams, RGB24 by swscale,
//    s16 by swresample, same decoder threads);
//  - random access on a 1080p clip with 250-frame GOPs: Seek(T) until the
//    picture covering T is held, for 100 fixed random targets, against
//    decoding one GOP from its key frame (what a key-frame seek must cost).

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

#include "BenchMedia.h"
#include "RatioReporter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

namespace {

using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;
using VideoList = QList<std::shared_ptr<DecodedVideoFrame>>;
using Clock = std::chrono::steady_clock;

constexpr int kRate = 25;
constexpr int kWholeFileFrames = 250;
constexpr int kLongGop = 250;
constexpr int kLongGopFrames = 2 * kLongGop;
constexpr int kSeeks = 100;

// 1080p H.264 at 25 fps in MP4 with a key frame every GOP frames, after the extra inputs and options.
QString FullHd(const QString& name, int frames, int gop, const QStringList& extra)
{
    using namespace molvane::bench;
    return MakeClip(name, VideoInput(1920, 1080, frames) + extra +
                              QStringList{"-c:v", "libx264", "-preset", "ultrafast", "-g", QString::number(gop),
                                          "-bf", "2"});
}

// Ten seconds of 1080p H.264 with stereo AAC, in MP4.
QString WholeFileClip()
{
    return FullHd(QStringLiteral("whole_file.mp4"), kWholeFileFrames, 50,
                  molvane::bench::AudioInput(kWholeFileFrames * 48000LL / kRate) + QStringList{"-c:a", "aac"});
}

// Two GOPs of 250 frames, video only.
QString LongGopClip()
{
    return FullHd(QStringLiteral("long_gop.mp4"), kLongGopFrames, kLongGop, {});
}

std::shared_ptr<MediaInfo> Probe(const QString& path)
{
    auto info = std::make_shared<MediaInfo>(path);
    if (!MediaReader::ParseMedia(info)) {
        std::fprintf(stderr, "cannot probe %s\n", qPrintable(path));
        std::exit(1);
    }
    return info;
}

// ---------------------------------------------------------------------------
// Whole file

// Processor time of the whole process, decoder threads included. Wall time
// on a shared machine mostly measures the neighbours; this much less so.
double ProcessCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// Per iteration, kept for the summary after the run.
double& InstanceCpuSeconds()
{
    static double seconds = 0.0;
    return seconds;
}

double& FloorCpuSeconds()
{
    static double seconds = 0.0;
    return seconds;
}

void MediaInstanceWholeFile(benchmark::State& state)
{
    const auto info = Probe(WholeFileClip());
    int64_t pictures = 0;
    int64_t audioRecords = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state) {
        MediaInstance instance;
        instance.Initialize(info, 0);
        AudioList audio;
        VideoList video;
        pictures = audioRecords = 0;
        while (instance.HasPacket()) {
            instance.DecodePacket(audio, video, -1);
            // A host hands the records on; keeping 1080p pictures around
            // would measure the allocator instead.
            for (const auto& frame : video)
                pictures += frame->data != nullptr ? 1 : 0;
            audioRecords += audio.size();
            audio.clear();
            video.clear();
        }
    }
    InstanceCpuSeconds() = (ProcessCpuSeconds() - cpuStart) / double(state.iterations());
    if (pictures != kWholeFileFrames)
        state.SkipWithError("not every picture was decoded");
    state.counters["pictures"] = double(pictures);
    state.counters["audio_records"] = double(audioRecords);
    state.counters["cpu_ms"] = InstanceCpuSeconds() * 1e3;
}

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

CodecContextPtr OpenDecoder(AVFormatContext* format, int stream, bool frameThreads)
{
    const AVCodec* codec = avcodec_find_decoder(format->streams[stream]->codecpar->codec_id);
    CodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context || avcodec_parameters_to_context(context.get(), format->streams[stream]->codecpar) < 0)
        return nullptr;
    if (frameThreads)
        context->thread_count = 0;
    if (avcodec_open2(context.get(), codec, nullptr) < 0)
        return nullptr;
    return context;
}

// The least any decoder of this file into RGB24 pictures and s16 sound
// has to do.
void FfmpegWholeFile(benchmark::State& state)
{
    const std::string path = WholeFileClip().toStdString();
    int64_t pictures = 0;
    int64_t audioFrames = 0;
    const double cpuStart = ProcessCpuSeconds();
    for (auto _ : state) {
        AVFormatContext* format = nullptr;
        if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0 ||
            avformat_find_stream_info(format, nullptr) < 0) {
            state.SkipWithError("FFmpeg could not open the clip");
            avformat_close_input(&format);
            return;
        }
        const int videoIndex = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        const int audioIndex = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        CodecContextPtr video = OpenDecoder(format, videoIndex, true);
        CodecContextPtr audio = OpenDecoder(format, audioIndex, false);
        const int width = video->width;
        const int height = video->height;
        const int stride = (3 * width + 3) / 4 * 4;
        std::vector<uint8_t> rgb(size_t(stride) * height);
        SwsContext* scaler = sws_getContext(width, height, video->pix_fmt, width, height, AV_PIX_FMT_RGB24,
                                            SWS_BILINEAR, nullptr, nullptr, nullptr);
        SwrContext* resampler = nullptr;
        swr_alloc_set_opts2(&resampler, &audio->ch_layout, AV_SAMPLE_FMT_S16, audio->sample_rate, &audio->ch_layout,
                            audio->sample_fmt, audio->sample_rate, 0, nullptr);
        swr_init(resampler);
        std::vector<int16_t> pcm;

        AVPacket* packet = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        pictures = audioFrames = 0;
        auto drain = [&](AVCodecContext* context, bool isVideo) {
            while (avcodec_receive_frame(context, frame) >= 0) {
                if (isVideo) {
                    uint8_t* planes[1] = {rgb.data()};
                    const int strides[1] = {stride};
                    sws_scale(scaler, frame->data, frame->linesize, 0, height, planes, strides);
                    benchmark::DoNotOptimize(rgb.data());
                    ++pictures;
                } else {
                    pcm.resize(size_t(frame->nb_samples) * frame->ch_layout.nb_channels);
                    uint8_t* out = reinterpret_cast<uint8_t*>(pcm.data());
                    swr_convert(resampler, &out, frame->nb_samples,
                                const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
                    benchmark::DoNotOptimize(pcm.data());
                    ++audioFrames;
                }
                av_frame_unref(frame);
            }
        };
        while (av_read_frame(format, packet) >= 0) {
            if (packet->stream_index == videoIndex && avcodec_send_packet(video.get(), packet) >= 0)
                drain(video.get(), true);
            else if (packet->stream_index == audioIndex && avcodec_send_packet(audio.get(), packet) >= 0)
                drain(audio.get(), false);
            av_packet_unref(packet);
        }
        avcodec_send_packet(video.get(), nullptr);
        drain(video.get(), true);
        avcodec_send_packet(audio.get(), nullptr);
        drain(audio.get(), false);

        av_frame_free(&frame);
        av_packet_free(&packet);
        swr_free(&resampler);
        sws_freeContext(scaler);
        avformat_close_input(&format);
    }
    FloorCpuSeconds() = (ProcessCpuSeconds() - cpuStart) / double(state.iterations());
    if (pictures != kWholeFileFrames)
        state.SkipWithError("not every picture was decoded");
    state.counters["pictures"] = double(pictures);
    state.counters["audio_records"] = double(audioFrames);
    state.counters["cpu_ms"] = FloorCpuSeconds() * 1e3;
}

// ---------------------------------------------------------------------------
// Random access

// Seconds per seek and per GOP, kept for the summary after the run.
std::vector<double>& SeekSeconds()
{
    static std::vector<double> seconds;
    return seconds;
}

double& GopSeconds()
{
    static double seconds = 0.0;
    return seconds;
}

std::vector<int64_t> SeekTargets(int64_t duration)
{
    std::mt19937 random(0x5EEC);
    std::vector<int64_t> targets;
    for (int i = 0; i < kSeeks; ++i)
        targets.push_back(int64_t(uint64_t(random()) % uint64_t(duration)));
    return targets;
}

// Seek(T) until the picture covering T is held: the next one starts after
// T, or the stream ends.
void SeekToCoveringPicture(benchmark::State& state)
{
    const auto info = Probe(LongGopClip());
    const std::vector<int64_t> targets = SeekTargets(int64_t(kLongGopFrames) * 1000000 / kRate);
    MediaInstance instance;
    instance.Initialize(info, 0);
    instance.HasPacket();
    SeekSeconds().clear();
    int missed = 0;
    size_t next = 0;
    for (auto _ : state) {
        const int64_t target = targets[next++ % targets.size()];
        const auto start = Clock::now();
        instance.Seek(target);
        AudioList audio;
        VideoList video;
        std::shared_ptr<DecodedVideoFrame> covering;
        bool done = false;
        while (!done && instance.HasPacket()) {
            const int before = video.size();
            instance.DecodePacket(audio, video, target);
            for (int i = before; i < video.size() && !done; ++i) {
                if (video[i]->data == nullptr || video[i]->startTime > target)
                    done = true;
                else
                    covering = video[i];
            }
        }
        SeekSeconds().push_back(std::chrono::duration<double>(Clock::now() - start).count());
        missed += covering ? 0 : 1;
    }
    if (missed > 0)
        state.SkipWithError("some seeks never delivered the picture covering their target");
}

// One whole GOP from its key frame, every picture converted, as playback
// after a seek to the end of a GOP would need.
void DecodeOneGop(benchmark::State& state)
{
    const auto info = Probe(LongGopClip());
    MediaInstance instance;
    instance.Initialize(info, 0);
    instance.HasPacket();
    double total = 0.0;
    int64_t pictures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        instance.Seek(0);
        AudioList audio;
        VideoList video;
        pictures = 0;
        while (pictures < kLongGop && instance.HasPacket()) {
            instance.DecodePacket(audio, video, -1);
            for (const auto& frame : video)
                pictures += frame->data != nullptr ? 1 : 0;
            video.clear();
        }
        total += std::chrono::duration<double>(Clock::now() - start).count();
    }
    if (pictures != kLongGop)
        state.SkipWithError("the GOP did not decode whole");
    GopSeconds() = total / double(state.iterations());
}

BENCHMARK(FfmpegWholeFile)->Unit(benchmark::kMillisecond)->Iterations(4);
BENCHMARK(MediaInstanceWholeFile)->Unit(benchmark::kMillisecond)->Iterations(4);
BENCHMARK(DecodeOneGop)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(SeekToCoveringPicture)->Unit(benchmark::kMillisecond)->Iterations(kSeeks);

void PrintWholeFileCpu()
{
    if (InstanceCpuSeconds() <= 0.0 || FloorCpuSeconds() <= 0.0)
        return;
    std::printf("\nWhole 1080p file, processor time of all threads:\n");
    std::printf("  MediaInstance / FFmpeg floor  %.3f x  (%.1f ms / %.1f ms)\n",
                InstanceCpuSeconds() / FloorCpuSeconds(), InstanceCpuSeconds() * 1e3, FloorCpuSeconds() * 1e3);
}

void PrintRandomAccess()
{
    std::vector<double> seconds = SeekSeconds();
    const double gop = GopSeconds();
    if (seconds.empty() || gop <= 0.0) {
        std::printf("\nRandom access: not measured\n");
        return;
    }
    double sum = 0.0;
    for (double s : seconds)
        sum += s;
    const double mean = sum / double(seconds.size());
    std::sort(seconds.begin(), seconds.end());
    const size_t rank = (seconds.size() * 95 + 99) / 100; // nearest rank
    const double p95 = seconds[std::max<size_t>(rank, 1) - 1];
    std::printf("\nRandom access, Seek(T) to the picture covering T (%zu seeks, 1080p, GOP %d):\n", seconds.size(),
                kLongGop);
    std::printf("  mean  %8.1f ms   %.3f x one GOP\n", mean * 1e3, mean / gop);
    std::printf("  p95   %8.1f ms   %.3f x one GOP\n", p95 * 1e3, p95 / gop);
    std::printf("  max   %8.1f ms   %.3f x one GOP\n", seconds.back() * 1e3, seconds.back() / gop);
    std::printf("  one GOP decoded sequentially: %.1f ms\n", gop * 1e3);
}

} // namespace

int main(int argc, char** argv)
{
    // The encoders making the clips report on every file; keep errors only.
    if (std::getenv("MOLVANE_FFMPEG_LOG") == nullptr)
        av_log_set_level(AV_LOG_ERROR);
    const int result = molvane::bench::RunWithRatios(
        argc, argv,
        {{"MediaInstance / FFmpeg floor (whole 1080p file)", "MediaInstanceWholeFile/iterations:4",
          "FfmpegWholeFile/iterations:4"},
         {"Seek to covering picture (mean) / one GOP", "SeekToCoveringPicture/iterations:100",
          "DecodeOneGop/iterations:3"}});
    PrintWholeFileCpu();
    PrintRandomAccess();
    return result;
}
