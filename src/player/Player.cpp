#include "PlayerImpl.h"

#include "foundation/FfmpegGuards.h"

#include <MolvaneAV/Logger.h>
#include <MolvaneAV/MediaReader.h>

#include <algorithm>
#include <climits>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/cpu.h>
}

namespace molvane {

namespace {

// The decoder's own pictures, in ours. FFmpeg's automatic threading runs
// one frame thread more than there are cores, at most 16.
int64_t DecoderPictures()
{
    const int threads = std::min(av_cpu_count() + 1, 16);
    return kDecoderPictures + 5 * std::max(0, threads - 3) / 2;
}

// What the container's header says and the library's records do not, read
// as any host may.
struct ContainerFacts {
    bool attachedPicture = false; // the stream is cover art
    // Streams with times that may jump (MPEG-TS, MPEG-PS) have no index: a
    // seek searches by time and can land after the key frame before its
    // target, where the pictures up to the next key frame are lost.
    bool seeksByTime = false;
    // The video's key frames from the container's index (µs of the stream,
    // sorted); empty when it has none.
    std::vector<int64_t> keyFrames;
};

ContainerFacts ReadContainerFacts(const QString& path, int videoStreamIndex)
{
    AVFormatContext* opened = nullptr;
    const std::string url = path.toStdString();
    if (avformat_open_input(&opened, url.c_str(), nullptr, nullptr) < 0)
        return {};
    const InputContextPtr input(opened);
    ContainerFacts facts;
    facts.attachedPicture = videoStreamIndex >= 0 && videoStreamIndex < int(input->nb_streams) &&
                            (input->streams[videoStreamIndex]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    facts.seeksByTime = (input->iformat->flags & AVFMT_TS_DISCONT) != 0;
    if (videoStreamIndex >= 0 && videoStreamIndex < int(input->nb_streams) && !facts.seeksByTime) {
        AVStream* const stream = input->streams[videoStreamIndex];
        const int entries = avformat_index_get_entries_count(stream);
        for (int i = 0; i < entries; ++i) {
            const AVIndexEntry* entry = avformat_index_get_entry(stream, i);
            if (entry && (entry->flags & AVINDEX_KEYFRAME) && entry->timestamp != AV_NOPTS_VALUE)
                facts.keyFrames.push_back(av_rescale_q(entry->timestamp, stream->time_base, {1, 1000000}));
        }
        std::sort(facts.keyFrames.begin(), facts.keyFrames.end());
    }
    return facts;
}

// The picture of a cover, decoded as a still: a movie's decoder would hold
// it back until the end of the sound.
std::shared_ptr<DecodedVideoFrame> DecodeCover(const MediaInfo& info)
{
    auto still = std::make_shared<MediaInfo>(info);
    still->isImage = true;
    still->audioStreams.clear();
    MediaInstance instance;
    std::shared_ptr<DecodedVideoFrame> cover;
    QList<std::shared_ptr<DecodedAudioFrame>> sounds;
    QList<std::shared_ptr<DecodedVideoFrame>> pictures;
    if (instance.Initialize(still, 0)) {
        for (int calls = 0; calls < 100 && !cover && instance.HasPacket(); ++calls) {
            instance.DecodePacket(sounds, pictures, -1);
            for (const auto& picture : pictures)
                cover = !cover && picture->data && picture->status == 0 ? picture : cover;
        }
    }
    instance.Shutdown();
    return cover;
}

} // namespace

Player::Player(int64_t videoCacheBytes) : impl(std::make_unique<Impl>(videoCacheBytes)) {}

Player::~Player()
{
    Close();
}

bool Player::Open(const QString& path, bool isImage, int64_t imageDuration)
{
    Close();
    auto info = std::make_shared<MediaInfo>(path);
    info->isImage = isImage;
    if (!MediaReader::ParseMedia(info))
        return false;
    Impl& d = *impl;
    // A fresh instance: one that decoded another file keeps its stream indexes.
    d.instance = MediaInstance();
    if (!d.instance.Initialize(info, 0) || !d.instance.HasPacket())
        return false;
    // A container of other streams (data, subtitles) or of none; a still
    // needs a picture.
    if (d.instance.GetActiveVideoStreamIndex() < 0 && (isImage || d.instance.GetActiveAudioStreamIndex() < 0)) {
        d.instance.Shutdown();
        Logger::GetInstance()->Error(isImage ? QStringLiteral("No picture to show.")
                                             : QStringLiteral("No audio or video stream to play."));
        return false;
    }
    d.info = info;
    d.isImage = isImage;
    d.streamStart = 0;
    d.step = 40000;
    d.budget = d.requestedBudget;
    d.hasVideo = d.instance.GetActiveVideoStreamIndex() >= 0;
    d.hasAudio = d.instance.GetActiveAudioStreamIndex() >= 0 && !isImage;
    d.channels = d.hasAudio ? d.instance.GetOutputChannelCount() : 0;
    d.sampleRate = d.hasAudio ? d.instance.GetSampleRate() : 0;
    d.largeSeekOffset = d.instance.RequiresLargeSeekOffset();
    d.instanceInfo = info;
    d.switchesWithoutPicture = 0;
    d.passFromStart = true;
    d.passHadPicture = d.passHadSound = false;
    d.plannedFrameBytes = 0;
    d.chunkSeconds = 0.0;
    if (d.hasVideo) {
        VideoStream stream;
        d.videoStreamIndex = d.instance.GetActiveVideoStreamIndex();
        info->GetVideoStream(d.videoStreamIndex, stream);
        d.streamStart = stream.startTime;
        // Attached pictures (cover art) come with a rate of 90 kHz: no real step.
        d.step = stream.frameStep >= 1000 ? stream.frameStep : 40000;
        d.pixelAspect = stream.pixelAspectRatio;
        d.probedWidth = stream.width;
        d.probedHeight = stream.height;
        d.PlanBudget(stream.width, stream.height);
    }
    ContainerFacts facts = isImage ? ContainerFacts() : ReadContainerFacts(path, d.videoStreamIndex);
    // Seeking a second early lands on a key frame before the target.
    d.largeSeekOffset = d.largeSeekOffset || (d.hasVideo && facts.seeksByTime);
    d.keyFrames = std::move(facts.keyFrames);
    for (int64_t& key : d.keyFrames)
        key -= d.streamStart;
    d.secondsPerPicture = 0.0;
    d.cover.reset();
    if (d.hasVideo && d.hasAudio && facts.attachedPicture) {
        // Cover art: shown for the whole sound from its start, while the
        // instance decodes the sound alone, as in a file without video.
        d.cover = DecodeCover(*info);
        if (d.cover)
            d.cover->startTime = 0, d.cover->endTime = kForever;
        auto sound = std::make_shared<MediaInfo>(*info);
        sound->videoStreams.clear();
        d.instance.Shutdown();
        d.instance = MediaInstance();
        if (!d.instance.Initialize(sound, 0) || !d.instance.HasPacket())
            return false;
        d.instanceInfo = sound;
        d.hasVideo = false;
        d.streamStart = 0;
        d.step = 40000;
    }
    int64_t duration = isImage ? imageDuration : std::max<int64_t>(0, info->GetDuration());
    d.audioOffset = d.hasVideo ? d.streamStart : 0;
    if (!d.hasVideo && d.hasAudio) {
        d.audioOffset = d.SoundStart();
        // A length the sound goes past is unknown: it plays to its end,
        // which decoding finds, as in a stream without a duration.
        if (duration > 0 && d.SoundPastEnd(d.audioOffset + duration))
            duration = 0;
    }
    d.audio.SetMaxFrameCount(256);
    std::lock_guard<std::mutex> lock(d.mutex);
    d.quit = false;
    d.duration = duration;
    d.position = 0.0;
    d.speed = 0.0;
    d.mediaEnd = d.UnfoundEnd();
    d.stats = Stats();
    d.timeJumps.clear();
    d.stats.videoCacheBudget = d.budget;
    d.openPictureStart = -1;
    d.noPictures = false;
    d.landBy = -1;
    d.resumeEarly = 0;
    d.landingSounds.clear();
    d.seekTo.reset();
    d.endReached = d.audioEnded = d.startReached = false;
    d.instanceAtNewest = d.audioInStep = true;
    d.holdFirstAudio = true;
    d.thread = std::thread([&d] { d.Run(); });
    return true;
}

void Player::Close()
{
    Impl& d = *impl;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.quit = true;
        d.Wake();
    }
    if (d.thread.joinable())
        d.thread.join();
    d.instance.Shutdown();
    std::lock_guard<std::mutex> lock(d.mutex);
    d.video.ForceClear();
    d.audio.ForceClear();
    d.heldAudio.reset();
    d.drained.clear();
    d.info.reset();
    d.instanceInfo.reset();
    d.cover.reset();
    d.hasVideo = d.hasAudio = false;
    d.keyFrames.clear();
}

// The budget holds the decoder's own pictures (thirteen of ours on two cores)
// and, in all the rest, the cache together with the backward chunk being
// decoded: a chunk is only as long as the room the cache leaves it, and the
// longer it is, the less often reverse play pays for a decode from the key
// frame. Fewer than 30 cached frames always ask for more ahead, which would
// stop reverse play: the budget holds at least 42. Empties the video cache.
void Player::Impl::PlanBudget(int width, int height)
{
    const int64_t frameBytes = FrameBytes(width, height), decoderPictures = DecoderPictures();
    cacheFrames = std::max<int64_t>(requestedBudget / frameBytes, 42 + decoderPictures) - decoderPictures;
    budget = cacheFrames * frameBytes;
    plannedFrameBytes = frameBytes;
    // The cache is full once no picture of this size fits: it counts bytes
    // before adding one, and smaller pictures (a size change) would let one
    // more in past the budget.
    video.SetMaxCacheSize(budget - frameBytes + 1, int(frameBytes / 3 / std::max(1, height)), std::max(1, height), 3);
    openPictureStart = -1;
    stats.videoCacheBudget = std::max(stats.videoCacheBudget, budget);
}

// RGB24 bytes of one picture of a source size, at its display width.
int64_t Player::Impl::FrameBytes(int width, int height) const
{
    // A broken aspect ratio must not carry the width beyond what rows of
    // int can hold.
    const float scaled = float(width) * (isImage ? 1.0f : pixelAspect);
    const int displayWidth = scaled >= 1.0f && scaled < float(INT32_MAX / 4) ? int(scaled) : 1;
    return (int64_t(displayWidth) * 3 + 3) / 4 * 4 * std::max(1, height);
}

std::shared_ptr<const MediaInfo> Player::Info() const { return impl->info; }
bool Player::HasVideo() const { return impl->hasVideo || impl->cover; }
bool Player::HasAudio() const { return impl->hasAudio; }
int64_t Player::Duration() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->duration;
}
int64_t Player::FrameStep() const { return impl->step; }
int Player::AudioChannels() const { return impl->channels; }
int Player::AudioSampleRate() const { return impl->sampleRate; }

Player::Stats Player::GetStats() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->stats;
}

} // namespace molvane
