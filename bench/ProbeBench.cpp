// Cost of probing: ParseMedia against FFmpeg's own open + stream-info on the
// same file, and on a 10-minute clip against a 10-second clip of the same
// encoding (opening must not grow with the length of the file).

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include "BenchMedia.h"
#include "RatioReporter.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <memory>

namespace {

// H.264 + AAC in MP4, as phones and editors write it, at a small size so the
// ten-minute clip is quick to make.
QString Clip(int seconds)
{
    using namespace molvane::bench;
    return MakeClip(QStringLiteral("clip_%1s.mp4").arg(seconds),
                    VideoInput(160, 96, seconds * 25) + AudioInput(seconds * 48000LL) +
                        QStringList{"-c:v", "libx264", "-preset", "ultrafast", "-g", "50", "-bf", "2", "-c:a", "aac"});
}

void ParseMedia(benchmark::State& state, int seconds)
{
    const QString path = Clip(seconds);
    for (auto _ : state) {
        auto info = std::make_shared<MediaInfo>(path);
        if (!MediaReader::ParseMedia(info))
            state.SkipWithError("ParseMedia failed");
    }
}

void OpenAndFindStreamInfo(benchmark::State& state, int seconds)
{
    const std::string path = Clip(seconds).toStdString();
    for (auto _ : state) {
        AVFormatContext* context = nullptr;
        if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0 ||
            avformat_find_stream_info(context, nullptr) < 0)
            state.SkipWithError("FFmpeg could not open the clip");
        avformat_close_input(&context);
    }
}

BENCHMARK_CAPTURE(OpenAndFindStreamInfo, 10s, 10)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ParseMedia, 10s, 10)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OpenAndFindStreamInfo, 600s, 600)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ParseMedia, 600s, 600)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return molvane::bench::RunWithRatios(argc, argv,
        {{"ParseMedia / open+find_stream_info (10 s clip)", "ParseMedia/10s", "OpenAndFindStreamInfo/10s"},
         {"ParseMedia / open+find_stream_info (10 min clip)", "ParseMedia/600s", "OpenAndFindStreamInfo/600s"},
         {"ParseMedia 10-minute / 10-second clip", "ParseMedia/600s", "ParseMedia/10s"},
         {"open+find_stream_info 10-minute / 10-second clip", "OpenAndFindStreamInfo/600s",
          "OpenAndFindStreamInfo/10s"}});
}
