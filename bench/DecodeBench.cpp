// Cost of video conversion: VideoDecoder's loop (one record per picture)
// against the bare FFmpeg loop it wraps, send/receive plus sws_scale to RGB24
// with the same flags and no records, on the same packets held in memory;
// and against the ffmpeg program decoding the same clip to RGB24.

#include "decode/VideoDecoder.h"

#include <MolvaneAV/MediaReader.h>

#include "BenchMedia.h"
#include "RatioReporter.h"
#include "foundation/FfmpegGuards.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using molvane::CodecContextPtr;
using molvane::FramePtr;
using molvane::InputContextPtr;
using molvane::PacketPtr;

constexpr int kFrames = 300;

// A 1080p H.264 clip and its video packets, read into memory once so the
// timed loops decode rather than read the file.
struct Clip {
    std::string path;
    AVCodecParameters* parameters = nullptr;
    AVRational timeBase{1, 1};
    double frameRate = 0.0;
    std::vector<PacketPtr> packets;

    Clip()
    {
        using namespace molvane::bench;
        path = MakeClip(QStringLiteral("clip_1080p.mp4"),
                        VideoInput(1920, 1080, kFrames) +
                            QStringList{"-c:v", "libx264", "-preset", "ultrafast", "-g", "50", "-bf", "2"})
                   .toStdString();

        AVFormatContext* opened = nullptr;
        if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0)
            Fail("cannot open the clip");
        InputContextPtr input(opened);
        if (avformat_find_stream_info(input.get(), nullptr) < 0)
            Fail("no stream info");
        const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (index < 0)
            Fail("no video stream");
        const AVStream* stream = input->streams[index];
        parameters = avcodec_parameters_alloc();
        avcodec_parameters_copy(parameters, stream->codecpar);
        timeBase = stream->time_base;
        frameRate = av_q2d(stream->avg_frame_rate);
        for (;;) {
            PacketPtr packet(av_packet_alloc());
            if (av_read_frame(input.get(), packet.get()) < 0)
                break;
            if (packet->stream_index == index)
                packets.push_back(std::move(packet));
        }
    }
    ~Clip() { avcodec_parameters_free(&parameters); }

    [[noreturn]] static void Fail(const std::string& what)
    {
        std::fprintf(stderr, "%s\n", what.c_str());
        std::exit(1);
    }

    // Thread count left at FFmpeg's default, as playback opens decoders.
    CodecContextPtr OpenDecoder() const
    {
        const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
        CodecContextPtr context(avcodec_alloc_context3(codec));
        if (!context || avcodec_parameters_to_context(context.get(), parameters) < 0 ||
            avcodec_open2(context.get(), codec, nullptr) < 0)
            return nullptr;
        return context;
    }
};

const Clip& TheClip()
{
    static const Clip clip;
    return clip;
}

void SetFrameRateCounter(benchmark::State& state, int64_t pictures)
{
    state.counters["frames/s"] =
        benchmark::Counter(double(pictures) * double(state.iterations()), benchmark::Counter::kIsRate);
}

// The library's loop: every packet through Decode, then the blank packet
// that ends the input. Records are let go after each call, as a bounded
// cache would, so memory stays flat across 300 pictures of 6 MB.
void VideoDecoderLoop(benchmark::State& state)
{
    const Clip& clip = TheClip();
    int64_t pictures = 0;
    for (auto _ : state) {
        CodecContextPtr context = clip.OpenDecoder();
        VideoDecoder converter;
        if (!context || !converter.Setup(context.get(), clip.timeBase, clip.parameters->width,
                                         clip.parameters->height, 1.0f, 0, clip.frameRate, 0, false, false)) {
            state.SkipWithError("cannot set up the decoder");
            break;
        }
        QList<std::shared_ptr<DecodedVideoFrame>> records;
        pictures = 0;
        for (const PacketPtr& packet : clip.packets) {
            converter.Decode(packet.get(), records, -1);
            pictures += records.size();
            records.clear();
        }
        PacketPtr end(av_packet_alloc());
        MediaReader::GetPacket(nullptr, end.get());
        converter.Decode(end.get(), records, -1);
        pictures += records.size() - 1; // the end marker
        if (pictures != kFrames) {
            state.SkipWithError("wrong picture count");
            break;
        }
    }
    SetFrameRateCounter(state, pictures);
}

// The floor: what any RGB24 consumer of FFmpeg must do at least. With
// copy, each picture is also copied into a buffer of its own, as a record
// holds it, to tell that cost from the converter's.
void BareFfmpegLoop(benchmark::State& state, bool copy)
{
    const Clip& clip = TheClip();
    const int width = clip.parameters->width;
    const int height = clip.parameters->height;
    int64_t pictures = 0;
    for (auto _ : state) {
        CodecContextPtr context = clip.OpenDecoder();
        FramePtr frame(av_frame_alloc());
        uint8_t* rgb[4] = {};
        int rgbLinesize[4] = {};
        const int rgbSize = av_image_alloc(rgb, rgbLinesize, width, height, AV_PIX_FMT_RGB24, 4);
        if (!context || !frame || rgbSize < 0) {
            state.SkipWithError("cannot set up the decoder");
            break;
        }
        SwsContext* scaler = nullptr;
        pictures = 0;
        auto receive = [&] {
            while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
                scaler = sws_getCachedContext(scaler, frame->width, frame->height, AVPixelFormat(frame->format),
                                              width, height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr,
                                              nullptr);
                sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, rgb, rgbLinesize);
                if (copy) {
                    std::unique_ptr<uint8_t[]> held(new uint8_t[size_t(rgbSize)]);
                    std::memcpy(held.get(), rgb[0], size_t(rgbSize));
                    benchmark::DoNotOptimize(held.get());
                }
                benchmark::DoNotOptimize(rgb[0][0]);
                ++pictures;
            }
        };
        for (const PacketPtr& packet : clip.packets) {
            avcodec_send_packet(context.get(), packet.get());
            receive();
        }
        avcodec_send_packet(context.get(), nullptr);
        receive();
        sws_freeContext(scaler);
        av_freep(&rgb[0]);
        if (pictures != kFrames) {
            state.SkipWithError("wrong picture count");
            break;
        }
    }
    SetFrameRateCounter(state, pictures);
}

// The ffmpeg program as a subprocess, timed on a steady clock. It reads the
// file and starts a process each time, and picks its own decoder threads
// and scaler flags unless told.
void FfmpegProgram(benchmark::State& state, const std::string& options)
{
    const Clip& clip = TheClip();
    const std::string command = "ffmpeg -nostdin -v error " + options + " -i '" + clip.path + "' " +
                                (options.empty() ? "" : "-sws_flags bilinear ") + "-pix_fmt rgb24 -f null -";
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const int status = std::system(command.c_str());
        const auto end = std::chrono::steady_clock::now();
        if (status != 0) {
            state.SkipWithError(("failed: " + command).c_str());
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    SetFrameRateCounter(state, kFrames);
}

BENCHMARK_CAPTURE(BareFfmpegLoop, scale_only, false)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BareFfmpegLoop, scale_and_copy, true)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(VideoDecoderLoop)->Unit(benchmark::kMillisecond)->Iterations(3);
// As an RGB24 conversion is usually asked of it.
BENCHMARK_CAPTURE(FfmpegProgram, default, std::string())
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseManualTime();
// Matched to our loop: one decoder thread, one filter thread, bilinear.
BENCHMARK_CAPTURE(FfmpegProgram, matched, std::string("-threads 1 -filter_threads 1"))
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseManualTime();

} // namespace

int main(int argc, char** argv)
{
    av_log_set_level(AV_LOG_ERROR); // the encoder's banner would bury the table
    return molvane::bench::RunWithRatios(
        argc, argv,
        {{"VideoDecoder loop / bare decode+sws_scale (target <= 1.05)", "VideoDecoderLoop/iterations:3",
          "BareFfmpegLoop/scale_only/iterations:3"},
         {"VideoDecoder loop / bare loop + one copy per picture", "VideoDecoderLoop/iterations:3",
          "BareFfmpegLoop/scale_and_copy/iterations:3"},
         {"VideoDecoder loop / ffmpeg -pix_fmt rgb24 -f null", "VideoDecoderLoop/iterations:3",
          "FfmpegProgram/default/iterations:3/manual_time"},
         {"VideoDecoder loop / same, 1 thread, bilinear", "VideoDecoderLoop/iterations:3",
          "FfmpegProgram/matched/iterations:3/manual_time"}});
}
