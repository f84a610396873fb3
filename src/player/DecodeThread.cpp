#include "PlayerImpl.h"

#include <algorithm>
#include <chrono>

namespace molvane {

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
