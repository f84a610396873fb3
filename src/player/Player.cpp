#include <MolvaneAV/Player.h>

#include <MolvaneAV/DecodedAudio.h>
#include <MolvaneAV/DecodedVideo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/MediaReader.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace molvane {

namespace {

using VideoList = QList<std::shared_ptr<DecodedVideoFrame>>;
using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;

constexpr int64_t kSecond = 1000000;
// A still has no end of its own: it covers everything after it.
constexpr int64_t kForever = int64_t(1) << 60;
// Audio the decoder keeps ahead of the play position when there is no video.
constexpr int64_t kAudioAhead = 2 * kSecond;
// Bounds on the calls of one exact seek or one backward chunk, so that a
// broken file ends in a missing frame, never in a hang.
constexpr int kMaxCallsPerJob = 20000;
// A jump in the audio frames' times that the device fill corrects (µs).
constexpr int64_t kDriftCorrected = 10000;
// What the decoder holds of its own (reference pictures, one per thread), in
// pictures of the cache's size: its planes are half as large.
constexpr int64_t kDecoderPictures = 11;
// Pictures kept before the target of an exact seek, for stepping back.
constexpr int kTrailingPictures = 3;

// The first audio frame after an open or a seek can come out short (an MP3
// decoder trims its priming samples) but keeps its packet's time: its true
// start is where it ends just before its successor begins.
int64_t TrueStart(const DecodedAudioFrame& first, const DecodedAudioFrame& next)
{
    const bool gap = first.endTime + 1 < next.startTime && first.startTime < next.startTime;
    return gap ? next.startTime - 1 - (first.endTime - first.startTime) : first.startTime;
}

} // namespace

struct Player::Impl {
    explicit Impl(int64_t budget) : requestedBudget(budget), budget(budget) {}

    // Set by Open before the thread starts, read-only afterwards.
    std::shared_ptr<MediaInfo> info;
    bool isImage = false;
    bool hasVideo = false, hasAudio = false;
    const int64_t requestedBudget;
    int64_t streamStart = 0, step = 40000, budget;
    int channels = 0, sampleRate = 0;
    bool largeSeekOffset = false;
    // Audio records keep their stream's times; the clock counts from the
    // first picture (or, without video, from the first sound).
    int64_t audioOffset = 0;
    int64_t chunkFrames = 8; // pictures a backward chunk holds before they go into the cache

    MediaInstance instance; // the decoding thread's alone once it runs
    DecodedAudio audio;     // locks itself

    mutable std::mutex mutex; // guards everything below
    std::condition_variable wake, progress;
    DecodedVideo video;
    std::thread thread;
    bool quit = false, idle = false;
    double position = 0.0, speed = 0.0;
    std::optional<int64_t> seekTo;
    // 0 while unknown (a stream without a duration): then the end decoding
    // finds sets it.
    int64_t duration = 0;
    int64_t mediaEnd = 0;       // end of the video known so far
    bool endReached = false;    // the last picture is in the cache
    bool startReached = false;  // nothing lies before the oldest cached picture
    int64_t startReachedAt = 0; // its start then
    bool audioInStep = true;    // the audio cache follows forward decoding
    bool audioEnded = false;    // the input has no more packets
    bool instanceAtNewest = true;
    VideoList drained; // pictures of the final drain waiting for room in the cache
    std::shared_ptr<DecodedAudioFrame> heldAudio; // a first frame waiting for its successor
    bool holdFirstAudio = true;
    Stats stats;
    std::set<int64_t> timeJumps; // where the audio frames' times jump

    void Run();
    void ExactSeek(int64_t target, std::unique_lock<std::mutex>& lock);
    void DecodeForward(std::unique_lock<std::mutex>& lock);
    void DecodeChunkBefore(int64_t start, std::unique_lock<std::mutex>& lock);
    bool DecodeCall(VideoList& video, AudioList& audio, int64_t target, std::unique_lock<std::mutex>& lock);
    void Reposition(int64_t time);
    void AppendForward(const std::shared_ptr<DecodedVideoFrame>& frame);
    void AppendAudio(const AudioList& frames);
    void PushAudio(std::shared_ptr<DecodedAudioFrame> frame);
    void ClearCaches();
    int64_t Now() const { return int64_t(position); }
    int64_t LastPosition() const { return duration > 0 ? duration - 1 : kForever; }
    void EndFound(int64_t end)
    {
        if (duration <= 0)
            duration = end + 1;
    }
    bool Covers(int64_t time) const { return video.GetFrame(time, 0) != nullptr; }
    void Wake()
    {
        idle = false;
        wake.notify_all();
    }
};

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
    if (d.hasVideo) {
        VideoStream stream;
        info->GetVideoStream(d.instance.GetActiveVideoStreamIndex(), stream);
        d.streamStart = stream.startTime;
        // Attached pictures (cover art) come with a rate of 90 kHz: no real step.
        d.step = stream.frameStep >= 1000 ? stream.frameStep : 40000;
        // Pictures come out at their display width, which a broken aspect
        // ratio must not carry beyond what rows of int can hold.
        const float scaled = float(stream.width) * (isImage ? 1.0f : stream.pixelAspectRatio);
        const int width = scaled >= 1.0f && scaled < float(INT32_MAX / 4) ? int(scaled) : 1;
        const int64_t frameBytes = (int64_t(width) * 3 + 3) / 4 * 4 * std::max(1, stream.height);
        // The budget holds the decoder's own pictures (about eleven of ours),
        // the backward chunk being decoded (up to half of the rest: the
        // longer a chunk, the less often reverse play pays for a decode from
        // the key frame) and the cache. Fewer than 30 cached frames always
        // ask for more ahead, which would stop reverse play: the cache holds
        // at least 33.
        const int64_t frames = std::max<int64_t>(d.requestedBudget / frameBytes, 54) - kDecoderPictures;
        d.chunkFrames = std::min(frames / 2, frames - 33);
        d.budget = (frames - d.chunkFrames) * frameBytes;
        d.video.SetMaxCacheSize(d.budget, width, std::max(1, stream.height), 3);
    }
    const int64_t duration = isImage ? imageDuration : std::max<int64_t>(0, info->GetDuration());
    d.audioOffset = d.hasVideo ? d.streamStart : 0;
    if (!d.hasVideo && d.hasAudio) {
        // Where the sound starts, once the first frame has its true time.
        QList<std::shared_ptr<DecodedAudioFrame>> sounds;
        QList<std::shared_ptr<DecodedVideoFrame>> none;
        for (int calls = 0; calls < 100 && sounds.size() < 2 && d.instance.HasPacket(); ++calls)
            d.instance.DecodePacket(sounds, none, -1);
        if (!sounds.isEmpty()) {
            const auto& first = *sounds[0];
            d.audioOffset = sounds.size() > 1 ? TrueStart(first, *sounds[1]) : first.startTime;
        }
        d.instance.CloseInput();
    }
    d.audio.SetMaxFrameCount(256);
    std::lock_guard<std::mutex> lock(d.mutex);
    d.quit = false;
    d.duration = duration;
    d.position = 0.0;
    d.speed = 0.0;
    d.mediaEnd = d.isImage || d.duration <= 0 ? kForever : std::max(d.duration, d.step);
    d.stats = Stats();
    d.timeJumps.clear();
    d.stats.videoCacheBudget = d.budget;
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
    d.hasVideo = d.hasAudio = false;
}

std::shared_ptr<const MediaInfo> Player::Info() const { return impl->info; }
bool Player::HasVideo() const { return impl->hasVideo; }
bool Player::HasAudio() const { return impl->hasAudio; }
int64_t Player::Duration() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->duration;
}
int64_t Player::FrameStep() const { return impl->step; }
int Player::AudioChannels() const { return impl->channels; }
int Player::AudioSampleRate() const { return impl->sampleRate; }

int64_t Player::Position() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->Now();
}

double Player::Speed() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->speed;
}

void Player::SetSpeed(double speed)
{
    Impl& d = *impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    // Starting to play forwards after standing or reversing: the fill finds
    // its place by time again, in audio that only forward decoding caches;
    // where that is gone, an exact seek brings it back.
    if (speed > 0.0 && d.speed <= 0.0 && d.hasAudio && !d.seekTo) {
        const int64_t now = d.Now() + d.audioOffset;
        if (d.audioInStep && d.audio.GetFrameCount() > 0 && d.audio.GetStartTime() <= now &&
            now <= d.audio.GetEndTime())
            d.audio.FlushPaBuffer();
        else
            d.seekTo = d.Now();
    }
    d.speed = speed;
    d.Wake();
}

void Player::Advance(int64_t wallMicros)
{
    Impl& d = *impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    d.position = std::clamp(d.position + d.speed * double(wallMicros), 0.0, double(d.LastPosition()));
    d.Wake();
}

void Player::Seek(int64_t position)
{
    Impl& d = *impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    d.position = double(std::clamp<int64_t>(position, 0, d.LastPosition()));
    // Within the cache a jump only moves the clock; the fill finds its
    // place by time again. Standing or backwards no sound plays: playing
    // forwards again brings it back (SetSpeed).
    if (!d.seekTo && d.Covers(d.Now()) && (!d.hasAudio || d.audioInStep || d.speed <= 0.0))
        d.audio.FlushPaBuffer();
    else
        d.seekTo = d.Now();
    d.Wake();
}

void Player::StepFrames(int count)
{
    Impl& d = *impl;
    std::shared_ptr<DecodedVideoFrame> target;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.speed = 0.0;
        target = d.video.GetFrame(d.Now(), count);
    }
    if (target) {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.position = double(target->startTime);
        d.Wake();
    } else {
        Seek(Position() + int64_t(count) * d.step);
    }
}

std::shared_ptr<DecodedVideoFrame> Player::FrameAt(int64_t time) const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->video.GetFrame(time, 0);
}

std::shared_ptr<DecodedVideoFrame> Player::WaitFrameAt(int64_t time)
{
    Impl& d = *impl;
    std::unique_lock<std::mutex> lock(d.mutex);
    if (!d.hasVideo)
        return nullptr;
    d.Wake();
    d.progress.wait(lock, [&] { return d.quit || (!d.seekTo && (d.Covers(time) || d.idle)); });
    return d.seekTo ? nullptr : d.video.GetFrame(time, 0);
}

void Player::WaitAudio(int64_t time)
{
    Impl& d = *impl;
    std::unique_lock<std::mutex> lock(d.mutex);
    if (!d.hasAudio)
        return;
    d.Wake();
    // Until a jump is done, what the cache holds belongs to the old position.
    d.progress.wait(lock, [&] {
        return d.quit || (!d.seekTo && (d.idle || d.audioEnded || d.audio.GetEndTime() >= time + d.audioOffset));
    });
}

bool Player::FillAudio(int16_t* out, int frames, double volume)
{
    Impl& d = *impl;
    int64_t now = 0, last = 0;
    double speed = 0.0;
    bool heldAtEnd = false, soundEnded = false;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        now = d.Now() + d.audioOffset;
        last = d.LastPosition() + d.audioOffset;
        speed = d.speed;
        // The buffers before reached the end: a fill by time would play the
        // last frame's tail again.
        heldAtEnd = d.Now() >= d.LastPosition();
        soundEnded = d.audioEnded;
    }
    if (!d.hasAudio || speed <= 0.0 || heldAtEnd) {
        std::fill(out, out + int64_t(frames) * std::max(1, d.channels), int16_t(0));
        return d.hasAudio && speed > 0.0; // past the end silence is all there is
    }
    const int64_t span = int64_t(frames) * kSecond / d.sampleRate;
    // Past the end of the sound silence is all there is, not a gap.
    const bool covered = d.audio.GetFrameCount() > 0 && d.audio.GetStartTime() <= now &&
                         (d.audio.GetEndTime() >= std::min(now + span, last) || soundEnded);
    d.audio.PaFillBuffer(out, frames, d.channels, d.sampleRate, now, volume, false, speed);
    return covered;
}

Player::Stats Player::GetStats() const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    return impl->stats;
}

Player::CacheFill Player::GetCacheFill() const
{
    const Impl& d = *impl;
    std::lock_guard<std::mutex> lock(d.mutex);
    CacheFill fill;
    fill.bytes = d.video.GetSize();
    const int count = d.video.GetFrameCount();
    if (count == 0)
        return fill;
    const int64_t now = d.Now();
    if (!d.Covers(now)) {
        (d.video.GetStartTime() > now ? fill.framesAhead : fill.framesBehind) = count;
        return fill;
    }
    // The largest offset that still finds a frame, by bisection.
    int low = 0, high = count;
    while (low + 1 < high) {
        const int middle = (low + high) / 2;
        (d.video.GetFrame(now, middle) ? low : high) = middle;
    }
    fill.framesAhead = low;
    fill.framesBehind = count - 1 - low;
    return fill;
}

// ---------------------------------------------------------------------------
// The decoding thread

void Player::Impl::Run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!quit) {
        if (seekTo) {
            const int64_t target = *seekTo;
            ExactSeek(target, lock);
            if (seekTo == target)
                seekTo.reset();
            progress.notify_all();
            continue;
        }
        const int64_t now = Now();
        if (hasVideo) {
            video.UpdateCache(now, mediaEnd, speed != 0.0, speed >= 0.0);
            // Keep the audio from the cached pictures and the play position
            // on: sound decoded ahead of the pictures is not decoded again.
            audio.UpdateCache(std::min(now, video.GetStartTime()) + audioOffset - kSecond, kForever);
            // Frames dropped at either end take the reached end with them.
            const auto newest = video.LastFrame(), oldest = video.FirstFrame();
            if (endReached && !isImage && (!newest || newest->endTime < mediaEnd)) {
                endReached = false;
                instanceAtNewest = false;
            }
            if (startReached && (!oldest || oldest->startTime > startReachedAt))
                startReached = false;
            if (video.CanCacheForwards() && !endReached) {
                DecodeForward(lock);
                continue;
            }
            if (video.CanCacheBackwards() && video.GetStartTime() > 0 && !startReached) {
                DecodeChunkBefore(video.GetStartTime(), lock);
                continue;
            }
        } else if (hasAudio && !audioEnded &&
                   (audio.GetFrameCount() == 0 || audio.GetEndTime() < now + audioOffset + kAudioAhead)) {
            audio.UpdateCache(now + audioOffset - kSecond, now + audioOffset + 2 * kAudioAhead);
            DecodeForward(lock);
            continue;
        }
        idle = true;
        progress.notify_all();
        wake.wait(lock, [&] { return quit || !idle; });
    }
    progress.notify_all();
}

// One DecodePacket outside the lock; false when the input has no more packets.
bool Player::Impl::DecodeCall(VideoList& videoFrames, AudioList& audioFrames, int64_t target,
                              std::unique_lock<std::mutex>& lock)
{
    lock.unlock();
    const auto begin = std::chrono::steady_clock::now();
    const bool more = instance.HasPacket();
    if (more)
        instance.DecodePacket(audioFrames, videoFrames, target);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    lock.lock();
    stats.decodeSeconds += spent.count();
    for (const auto& frame : videoFrames) {
        if (frame->data != nullptr) {
            ++stats.decodedPictures;
            stats.decodedMicros += step;
        }
    }
    if (!hasVideo) {
        for (const auto& frame : audioFrames)
            stats.decodedMicros += frame->endTime - frame->startTime + 1;
    }
    return more;
}

void Player::Impl::ClearCaches()
{
    drained.clear();
    video.Clear();
    audio.Clear();
    audio.FlushPaBuffer();
    heldAudio.reset();
    holdFirstAudio = true;
    endReached = audioEnded = startReached = false;
    mediaEnd = isImage || duration <= 0 ? kForever : std::max(duration, step);
}

// Positions the input so that the next picture decoded is the first at or
// after time's key frame; at or before 0 the file is reopened, since a seek
// to 0 can land past the first picture.
void Player::Impl::Reposition(int64_t time)
{
    if (time <= 0 || isImage)
        instance.CloseInput();
    else
        instance.Seek(time + streamStart);
}

void Player::Impl::ExactSeek(int64_t target, std::unique_lock<std::mutex>& lock)
{
    ClearCaches();
    audioInStep = true;
    ++stats.seeks;
    int64_t early = largeSeekOffset ? kSecond : 0;
    for (;;) {
        lock.unlock();
        Reposition(target - early);
        lock.lock();
        holdFirstAudio = true;
        bool first = true, landedLate = false;
        // The latest picture too early to keep: it covers the target when
        // the next one starts after it (a long frame).
        std::shared_ptr<DecodedVideoFrame> before;
        for (int calls = 0; calls < kMaxCallsPerJob && !quit && seekTo == target; ++calls) {
            VideoList pictures;
            AudioList sounds;
            // The library leaves the pictures far before the target
            // unconverted. Not too far: the filter ends a drain at the first
            // picture it drops, and the pictures a decoder holds back for the
            // drain must all come out.
            const int64_t unconverted = target - early - std::max(kSecond * 2, 24 * step);
            const bool more = DecodeCall(pictures, sounds, std::max<int64_t>(-1, unconverted), lock);
            if (!landedLate)
                AppendAudio(sounds);
            for (const auto& picture : pictures) {
                // A first picture after the target, or the end of the
                // stream before any picture: the seek landed too late.
                if (first && (!picture->data || picture->startTime > target) && target - early > 0) {
                    landedLate = true;
                    break;
                }
                first = false;
                // Playing backwards, the pictures before the target come next:
                // keep what a backward chunk would hold, decoded already.
                const int64_t trailing = speed < 0.0 ? chunkFrames : kTrailingPictures;
                if (picture->data && picture->status == 0 && picture->startTime < target - trailing * step) {
                    before = picture;
                    continue;
                }
                if (before && video.GetFrameCount() == 0 && (!picture->data || picture->startTime > target))
                    AppendForward(before);
                before.reset();
                AppendForward(picture);
            }
            progress.notify_all();
            if (landedLate || !more || (!hasVideo && audio.GetEndTime() >= target + audioOffset + kAudioAhead) ||
                (hasVideo && (endReached || video.IsCacheFull() ||
                              (Covers(target) && video.GetEndTime() > target + step))))
                break;
        }
        if (!landedLate)
            break;
        // The seek landed after the target: no picture may be shown that
        // does not cover it, so go further back and decode again.
        ClearCaches();
        ++stats.reseeks;
        early = early == 0 ? kSecond : 2 * early;
    }
    instanceAtNewest = true;
}

void Player::Impl::DecodeForward(std::unique_lock<std::mutex>& lock)
{
    if (!instanceAtNewest) {
        // A backward chunk moved the input: go back to the newest picture.
        drained.clear();
        const int64_t newest = video.LastFrame() ? video.LastFrame()->startTime : Now();
        lock.unlock();
        Reposition(newest - (largeSeekOffset ? kSecond : 0));
        lock.lock();
        instanceAtNewest = true;
    }
    VideoList pictures = std::exchange(drained, VideoList());
    bool more = true;
    if (pictures.isEmpty()) {
        AudioList sounds;
        more = DecodeCall(pictures, sounds, -1, lock);
        AppendAudio(sounds);
    }
    for (int i = 0; i < pictures.size(); ++i) {
        // The drain at the end gives every picture held back at once: take
        // what the cache's policy makes room for and keep the rest until
        // there is room; the decoder holds none of its own any more.
        if (i > 0 && pictures[i]->data && video.IsCacheFull()) {
            video.UpdateCache(Now(), mediaEnd, speed != 0.0, speed >= 0.0);
            if (!video.CanCacheForwards()) {
                drained = pictures.mid(i);
                progress.notify_all();
                return;
            }
        }
        AppendForward(pictures[i]);
    }
    if (!more) {
        endReached = audioEnded = true;
        if (heldAudio)
            PushAudio(std::exchange(heldAudio, nullptr));
        mediaEnd = video.GetFrameCount() > 0 ? video.GetEndTime() : mediaEnd;
        if (!hasVideo && audio.GetFrameCount() > 0)
            EndFound(audio.GetEndTime() - audioOffset);
    }
    progress.notify_all();
}

void Player::Impl::AppendForward(const std::shared_ptr<DecodedVideoFrame>& picture)
{
    if (picture->data == nullptr) {
        // The end of the stream: the last picture lasts to the media's end.
        if (const auto last = video.LastFrame()) {
            const int64_t end = isImage ? kForever : std::max(last->startTime + step, duration) - 1;
            video.OverrideLastFrameEndTime(end);
            mediaEnd = end;
            EndFound(end);
        }
        endReached = true;
        audioEnded = true;
        if (heldAudio)
            PushAudio(std::exchange(heldAudio, nullptr));
        return;
    }
    // Pictures before the cached range would be stretched over the gap to
    // it; a size-change placeholder has no picture to show.
    if ((video.GetFrameCount() > 0 && picture->startTime < video.GetStartTime()) || picture->status != 0)
        return;
    picture->endTime = isImage ? kForever : picture->startTime + step - 1;
    video.AppendFrame(picture);
    if (isImage) {
        endReached = true;
        mediaEnd = kForever;
    }
    stats.largestFrameBytes = std::max<int64_t>(stats.largestFrameBytes, picture->size);
    stats.peakVideoCacheBytes = std::max(stats.peakVideoCacheBytes, video.GetSize());
}

void Player::Impl::AppendAudio(const AudioList& frames)
{
    for (const auto& frame : frames) {
        if (holdFirstAudio) {
            // Held until its successor shows where it truly starts.
            holdFirstAudio = false;
            heldAudio = frame;
            continue;
        }
        if (heldAudio) {
            const int64_t start = TrueStart(*heldAudio, *frame);
            heldAudio->endTime += start - heldAudio->startTime;
            heldAudio->startTime = start;
            PushAudio(std::exchange(heldAudio, nullptr));
        }
        PushAudio(frame);
    }
}

void Player::Impl::PushAudio(std::shared_ptr<DecodedAudioFrame> frame)
{
    const auto newest = audio.LastFrame();
    audio.AppendFrame(frame);
    if (!newest || audio.LastFrame() != frame || newest->sampleRate <= 0)
        return;
    // The device fill plays samples back to back and corrects the clock by
    // skipping or repeating samples where the frames' times say otherwise.
    const int64_t expected = newest->startTime + int64_t(newest->samplesPerChannel) * kSecond / newest->sampleRate;
    // A place decoded again after a jump counts once.
    if (std::abs(frame->startTime - expected) > kDriftCorrected && timeJumps.insert(frame->startTime).second)
        ++stats.driftCorrections;
}

void Player::Impl::DecodeChunkBefore(int64_t start, std::unique_lock<std::mutex>& lock)
{
    instanceAtNewest = false;
    drained.clear();
    audioInStep = false;
    // A chunk costs a decode from the key frame before it: make it as long
    // as its share of the budget holds, so that long GOPs are paid for less
    // often.
    for (int64_t chunk = chunkFrames * step;; chunk *= 2) {
        const int64_t from = std::max<int64_t>(0, start - chunk);
        lock.unlock();
        Reposition(from - (largeSeekOffset && from > 0 ? kSecond : 0));
        lock.lock();
        VideoList pictures;
        for (int calls = 0; calls < kMaxCallsPerJob && !quit && !seekTo; ++calls) {
            VideoList out;
            AudioList ignored; // reverse play is silent
            // The library leaves the pictures before the chunk unconverted.
            const bool more = DecodeCall(out, ignored, from, lock);
            bool past = !more;
            for (const auto& picture : out) {
                past = past || picture->data == nullptr || picture->startTime >= start;
                if (!past && picture->status == 0 && picture->startTime + step > 0 &&
                    picture->startTime >= from - step) {
                    // Only the newest pictures before start fit the chunk's share.
                    if (pictures.size() >= chunkFrames)
                        pictures.removeFirst();
                    pictures.append(picture);
                }
            }
            if (past)
                break;
        }
        if (quit || seekTo || start != video.GetStartTime())
            return;
        startReached = pictures.isEmpty();
        startReachedAt = start;
        if (!pictures.isEmpty() || from == 0) {
            // Newest first: each lands just before the oldest cached one, as
            // long as the cache's policy makes room for it.
            for (auto it = pictures.rbegin(); it != pictures.rend(); ++it) {
                video.UpdateCache(Now(), mediaEnd, speed != 0.0, speed >= 0.0);
                if (!video.CanCacheBackwards() && video.GetFrameCount() > 0)
                    break;
                (*it)->endTime = (*it)->startTime + step - 1;
                video.AppendFrame(*it);
                stats.peakVideoCacheBytes = std::max(stats.peakVideoCacheBytes, video.GetSize());
            }
            progress.notify_all();
            return;
        }
    }
}

} // namespace molvane
