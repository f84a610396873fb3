// Arbitrary bytes as a media file, handled as a host handles a file from a
// user: probed as a movie and as a still, then decoded under a call budget,
// with a few seeks whose targets come from the last bytes of the input and
// decoding after each. Nothing may crash, hang, leak or read out of bounds.
//
//   decode_media_fuzz -max_len=65536 -timeout=10 corpus/
//
// scripts/fuzz.sh seeds the corpus with the test media and runs it.

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

extern "C" {
#include <libavutil/log.h>
}

#include <QList>
#include <QLoggingCategory>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <unistd.h>

namespace {

constexpr int kWholeBudget = 400; // DecodePacket calls for the first pass
constexpr int kSeekBudget = 40;   // and after each seek
constexpr int kSeeks = 3;

// A broken record is a library fault, not an input fault: stop right here.
void Require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void CheckPictures(const QList<std::shared_ptr<DecodedVideoFrame>>& video, bool image)
{
    for (const auto& frame : video) {
        if (frame->data == nullptr) {
            Require(!image && frame->size == 0); // only movies end with a marker
            continue;
        }
        if (frame->status == 1)
            continue;
        // Every picture is packed RGB24 rows rounded up to 4 bytes; touching
        // the last byte lets ASan see a record shorter than it claims.
        Require(frame->width > 0 && frame->height > 0);
        Require(int64_t(frame->size) == int64_t((3 * frame->width + 3) / 4 * 4) * frame->height);
        volatile uint8_t last = frame->data[frame->size - 1];
        (void)last;
    }
}

void CheckSamples(const QList<std::shared_ptr<DecodedAudioFrame>>& audio)
{
    for (const auto& frame : audio) {
        Require(frame->sampleCount >= 0 && frame->sampleCount <= frame->bufferSampleCount);
        Require(frame->startTime <= frame->endTime + 1);
        if (frame->bufferSampleCount > 0) {
            volatile int16_t last = frame->samples[frame->bufferSampleCount - 1];
            (void)last;
        }
    }
}

void Decode(MediaInstance& instance, int budget, int64_t target, bool image)
{
    QList<std::shared_ptr<DecodedAudioFrame>> audio;
    QList<std::shared_ptr<DecodedVideoFrame>> video;
    int calls = 0;
    for (; calls < budget && instance.HasPacket(); ++calls)
        instance.DecodePacket(audio, video, target);
    CheckPictures(video, image);
    CheckSamples(audio);
}

void Play(const std::string& path, bool image, const uint8_t* tail)
{
    auto info = std::make_shared<MediaInfo>(QString::fromStdString(path));
    info->isImage = image;
    const bool parsed = MediaReader::ParseMedia(info);
    Require(parsed == info->IsInitialized());
    if (!parsed) {
        Require(info->GetAudioStreams().isEmpty() && info->GetVideoStreams().isEmpty());
        return;
    }
    MediaInstance instance;
    if (!instance.Initialize(info, 0))
        return;
    Decode(instance, kWholeBudget, -1, image);

    // A header can claim any length; seek within a sane range around it.
    const int64_t duration = std::clamp<int64_t>(info->GetDuration(), 1, int64_t(3600) * 1000000);
    for (int seek = 0; seek < kSeeks; ++seek) {
        // 0 is the start, 255 lies past the end.
        const int64_t target = tail[seek] == 0 ? 0 : duration * tail[seek] / 250;
        instance.Seek(target);
        Decode(instance, kSeekBudget, image ? -1 : target, image);
        if (seek == 1) {
            // A copy shares the open input; both must keep working and
            // release it once.
            MediaInstance copy(instance);
            copy.Seek(target / 2);
            Decode(copy, kSeekBudget, image ? -1 : target / 2, image);
        }
    }
    instance.CloseInput();
    Decode(instance, 2, -1, image); // reopens
    instance.Shutdown();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    av_log_set_level(AV_LOG_QUIET);
    QLoggingCategory::setFilterRules(QStringLiteral("molvane.av=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A file in memory-backed storage when there is one: the library only
    // opens paths.
    static const std::string path =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/molvane-fuzz-" +
        std::to_string(getpid()) + ".bin";
    static const struct Remover {
        ~Remover() { unlink(path.c_str()); }
    } remover;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);

    uint8_t tail[kSeeks] = {0, 128, 255};
    for (size_t i = 0; i < std::min<size_t>(size, kSeeks); ++i)
        tail[i] = data[size - 1 - i];
    for (const bool image : {false, true})
        Play(path, image, tail);
    return 0;
}
