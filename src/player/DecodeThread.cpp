#include "PlayerImpl.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace molvane {

void Player::Impl::Run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!quit) {
        if (noPictures && hasVideo) {
            // Decoding went from the start of the stream to its end without
            // a picture: the file plays as sound alone, from the clock on,
            // which then counts from the first sound.
            hasVideo = false;
            // The same pass brought no sound either: nothing is left to play.
            hasAudio = hasAudio && passHadSound;
            ClearCaches();
            if (hasAudio) {
                lock.unlock();
                const int64_t soundStart = SoundStart();
                lock.lock();
                audioOffset = soundStart;
                seekTo = Now();
            }
            progress.notify_all();
            continue;
        }
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
            // An empty cache at the end found nothing up to it: decoding
            // again would find nothing again.
            const auto newest = video.LastFrame(), oldest = video.FirstFrame();
            if (endReached && !isImage && newest && newest->endTime < mediaEnd) {
                endReached = false;
                instanceAtNewest = false;
            }
            if (startReached && (!oldest || oldest->startTime > startReachedAt))
                startReached = false;
            if (speed < 0.0 && video.GetFrameCount() > 0 && now <= video.GetEndTime()) {
                // Playing backwards, the next chunk starts when what is left
                // to show lasts as long as its decode.
                if (video.GetStartTime() > 0 && !startReached &&
                    FramesBefore(now) <= FramesShownDuringChunk(speed)) {
                    DecodeChunkBefore(video.GetStartTime(), lock);
                    continue;
                }
            } else if (video.CanCacheForwards() && !endReached) {
                DecodeForward(lock);
                continue;
            } else if (video.CanCacheBackwards() && video.GetStartTime() > 0 && !startReached) {
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
    bool ended = !more;
    for (const auto& frame : videoFrames) {
        passHadPicture = passHadPicture || frame->data != nullptr;
        ended = ended || frame->data == nullptr;
        if (frame->data != nullptr && frame->status == 0) {
            ++stats.decodedPictures;
            stats.decodedMicros += step;
        }
    }
    if (!hasVideo) {
        for (const auto& frame : audioFrames)
            stats.decodedMicros += frame->endTime - frame->startTime + 1;
    }
    if (ended && hasVideo && !isImage && passFromStart && !passHadPicture)
        noPictures = true;
    passHadSound = passHadSound || !audioFrames.isEmpty();
    if (!more && !hasVideo && passFromStart && !passHadSound)
        hasAudio = false;
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
    openPictureStart = -1;
    landBy = -1;
    resumeEarly = 0;
    landingSounds.clear();
    mediaEnd = UnfoundEnd();
}

// Positions the input so that the next picture decoded is the first at or
// after time's key frame; at or before 0 the file is reopened, since a seek
// to 0 can land past the first picture.
void Player::Impl::Reposition(int64_t time)
{
    passFromStart = time <= 0 || isImage;
    passHadPicture = passHadSound = false;
    if (passFromStart)
        instance.CloseInput();
    else
        instance.Seek(time + streamStart);
}

// Sets the input up for the size of a placeholder the cache wants, to be
// repositioned by the caller. False when it gives up on that size: the
// picture is then missing, and instanceAtNewest false when the input was
// set up again for the old size, at the start. Pictures larger than any
// before split the budget again, which empties the caches: the play
// position is decoded again.
bool Player::Impl::FollowSizeChange(const DecodedVideoFrame& placeholder, std::unique_lock<std::mutex>& lock)
{
    if (placeholder.width < 1 || placeholder.height < 1 || switchesWithoutPicture >= kMaxSizeSwitches)
        return false;
    ++switchesWithoutPicture;
    std::shared_ptr<MediaInfo> sized = info;
    if (placeholder.width != probedWidth || placeholder.height != probedHeight) {
        sized = std::make_shared<MediaInfo>(*info);
        for (VideoStream& stream : sized->videoStreams) {
            if (stream.index == videoStreamIndex) {
                stream.width = placeholder.width;
                stream.height = placeholder.height;
            }
        }
    }
    lock.unlock();
    // One decoder at a time: the budget counts the pictures of one.
    instance.Shutdown();
    instance = MediaInstance();
    const bool ready = instance.Initialize(sized, 0);
    if (!ready) {
        // The instance holds the record weakly: without the old one set up
        // again it would end as if the stream did.
        instance = MediaInstance();
        instance.Initialize(instanceInfo, 0);
    }
    lock.lock();
    if (!ready) {
        instanceAtNewest = false;
        drained.clear();
        return false;
    }
    instanceInfo = sized;
    instanceAtNewest = false;
    drained.clear();
    // Smaller pictures fit the split made for larger ones.
    if (FrameBytes(placeholder.width, placeholder.height) > plannedFrameBytes) {
        PlanBudget(placeholder.width, placeholder.height);
        ClearCaches();
        if (!seekTo)
            seekTo = Now();
    }
    return true;
}

void Player::Impl::ExactSeek(int64_t target, std::unique_lock<std::mutex>& lock)
{
    ClearCaches();
    audioInStep = true;
    ++stats.seeks;
    int64_t early = largeSeekOffset ? kSecond : hasVideo ? 0 : kAudioPreroll;
    // Playing backwards, the pictures before the target come next: keep
    // what the cache holds besides the frames to turn round on, decoded
    // already.
    const int64_t trailing =
        speed < 0.0 ? std::max<int64_t>(kTrailingPictures, cacheFrames - cacheFrames * 3 / 8 - 2)
                    : kTrailingPictures;
    const auto begin = std::chrono::steady_clock::now();
    bool handedOn = false; // to forward decoding, after a change of size
    for (bool again = true; again && !handedOn;) {
        again = false;
        lock.unlock();
        Reposition(target - early);
        lock.lock();
        instanceAtNewest = true;
        holdFirstAudio = true;
        bool first = true, landedLate = false;
        // The latest picture too early to keep: it covers the target when
        // the next one starts after it (a long frame).
        std::shared_ptr<DecodedVideoFrame> before;
        int calls = 0;
        for (; calls < kMaxCallsPerJob && !quit && seekTo == target && !again && !handedOn; ++calls) {
            VideoList pictures;
            AudioList sounds;
            const bool more = DecodeCall(pictures, sounds, ConvertFrom(target - early, trailing), lock);
            if (!landedLate)
                AppendAudio(sounds);
            for (const auto& picture : pictures) {
                // A first picture after the place sought, or the end of the
                // stream before any picture: the seek landed too late. A
                // search by time (MPEG-TS) can land on any picture, past the
                // key frame the pictures up to the target need. Sound alone
                // has no picture to wait for.
                if (hasVideo && first && (!picture->data || picture->startTime > target - early) &&
                    target - early > 0) {
                    landedLate = true;
                    break;
                }
                first = false;
                if (picture->data && picture->startTime < target - trailing * step) {
                    before = picture;
                    continue;
                }
                auto append = [&](const std::shared_ptr<DecodedVideoFrame>& next) {
                    if (AppendForward(next))
                        return true;
                    const bool ready = FollowSizeChange(*next, lock);
                    if (!ready && instanceAtNewest)
                        return true; // missing, the input goes on
                    // Set up for the new size: forward decoding goes on from
                    // the newest cached picture, or the whole pass again
                    // when none is left. Set up again for the old size, the
                    // pass would meet the same failure: forward decoding
                    // goes on from the play position.
                    if (ready && video.GetFrameCount() == 0) {
                        ClearCaches();
                        again = true;
                    } else {
                        handedOn = true;
                    }
                    return false;
                };
                if (before && video.GetFrameCount() == 0 && (!picture->data || picture->startTime > target) &&
                    !append(std::exchange(before, nullptr)))
                    break;
                before.reset();
                if (!append(picture))
                    break;
            }
            // The input ended before any picture, without even the end
            // marker (the seek went past the last packet): too late as well.
            if (!more && hasVideo && first && target - early > 0)
                landedLate = true;
            // Until a picture comes, keep only the sound the fill needs at
            // the target: a video that never decodes would bring all of it.
            if (hasVideo && first)
                audio.UpdateCache(target + audioOffset - kSecond, target + audioOffset + 2 * kAudioAhead);
            progress.notify_all();
            if (landedLate || again || handedOn || !more ||
                (!hasVideo && audio.GetEndTime() >= target + audioOffset + kAudioAhead) ||
                (hasVideo && (endReached || video.IsCacheFull() ||
                              (Covers(target) && video.GetEndTime() > target + step))))
                break;
        }
        // The bound reached before any picture: a video that never decodes
        // is only recognised by a pass from the start, so back off as when
        // landing late.
        if (calls == kMaxCallsPerJob && hasVideo && first && target - early > 0 && !quit && seekTo == target)
            landedLate = true;
        if (!landedLate)
            continue;
        // The seek landed after the target: no picture may be shown that
        // does not cover it, so go further back and decode again.
        ClearCaches();
        ++stats.reseeks;
        early = early == 0 ? kSecond : 2 * early;
        again = true;
    }
    instanceAtNewest = !handedOn;
    // A seek decodes from a key frame, as a backward chunk does: the best
    // guess of what the first chunk costs.
    chunkSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (!keyFrames.empty())
        secondsPerPicture = chunkSeconds / double((target - KeyFrameBefore(target - early)) / step + 1);
}

void Player::Impl::DecodeForward(std::unique_lock<std::mutex>& lock)
{
    if (!instanceAtNewest) {
        // A backward chunk or a change of size moved the input: go back to
        // the newest picture.
        drained.clear();
        landingSounds.clear();
        const int64_t newest = video.LastFrame() ? video.LastFrame()->startTime : Now();
        const int64_t from = newest - resumeEarly - (largeSeekOffset ? kSecond : 0);
        lock.unlock();
        Reposition(from);
        lock.lock();
        landBy = from > 0 ? newest : -1;
        instanceAtNewest = true;
    }
    VideoList pictures = std::exchange(drained, VideoList());
    bool more = true;
    if (pictures.isEmpty()) {
        AudioList sounds;
        // Resuming, the pictures up to the newest cached one are decoded
        // only to reach it: the library need not convert them.
        more = DecodeCall(pictures, sounds, landBy >= 0 ? ConvertFrom(landBy, 0) : -1, lock);
        if (landBy >= 0)
            landingSounds += sounds;
        else
            AppendAudio(sounds);
    }
    if (landBy >= 0 && (!pictures.isEmpty() || !more)) {
        // Some seeks (MPEG-TS) land after the key frame, and the pictures
        // before the first one out would be missing: the first must come
        // by the newest cached picture, else go further back.
        const bool late = pictures.isEmpty() || !pictures[0]->data || pictures[0]->startTime > landBy;
        landBy = -1;
        if (late) {
            resumeEarly = resumeEarly == 0 ? kSecond : 2 * resumeEarly;
            instanceAtNewest = false;
            progress.notify_all();
            return;
        }
        resumeEarly = 0;
        AppendAudio(std::exchange(landingSounds, AudioList()));
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
        // After a change of size the rest comes again from the input set
        // up for it.
        if (!AppendForward(pictures[i]) && FollowSizeChange(*pictures[i], lock)) {
            progress.notify_all();
            return;
        }
    }
    if (!more) {
        StreamEnded();
        mediaEnd = video.GetFrameCount() > 0 ? video.GetEndTime() : mediaEnd;
        if (!hasVideo && audio.GetFrameCount() > 0)
            EndFound(audio.GetEndTime() - audioOffset);
    }
    progress.notify_all();
}

// The input has no more packets: what is cached is all there is, and the
// held first sound has no successor to wait for.
void Player::Impl::StreamEnded()
{
    endReached = audioEnded = true;
    openPictureStart = -1;
    if (heldAudio)
        PushAudio(std::exchange(heldAudio, nullptr));
}

// Appends a picture decoded forwards. False for a size-change placeholder
// the cache would take: the input must be set up for its size, and what
// came after it decoded again.
bool Player::Impl::AppendForward(const std::shared_ptr<DecodedVideoFrame>& picture)
{
    if (picture->data == nullptr) {
        // The end of the stream: the last picture lasts to the media's end.
        if (const auto last = video.LastFrame()) {
            const int64_t end = isImage ? kForever : std::max(last->startTime + step, duration) - 1;
            video.OverrideLastFrameEndTime(end);
            mediaEnd = end;
            EndFound(end);
        }
        StreamEnded();
        return true;
    }
    const auto newest = video.LastFrame();
    if (picture->status != 0) {
        if (newest && picture->startTime <= newest->startTime)
            return true; // cached already, in its own size
        // It is the newest picture's successor, whatever its size.
        if (newest && newest->startTime == openPictureStart) {
            video.OverrideLastFrameEndTime(picture->startTime - 1);
            openPictureStart = -1;
        }
        return false;
    }
    // Pictures before the cached range would be stretched over the gap to it.
    if (video.GetFrameCount() > 0 && picture->startTime < video.GetStartTime())
        return true;
    picture->endTime = isImage ? kForever : picture->startTime + step - 1;
    video.AppendFrame(picture);
    if (video.LastFrame() == picture) {
        openPictureStart = isImage ? -1 : picture->startTime;
        switchesWithoutPicture = 0;
    }
    if (isImage) {
        endReached = true;
        mediaEnd = kForever;
    }
    stats.largestFrameBytes = std::max<int64_t>(stats.largestFrameBytes, picture->size);
    stats.peakVideoCacheBytes = std::max(stats.peakVideoCacheBytes, video.GetSize());
    stats.peakPictureBytes = std::max(stats.peakPictureBytes, video.GetSize());
    return true;
}

// The library leaves the pictures before the kept ones unconverted, and
// those of them that nothing refers to undecoded. Near the end of the
// stream it may not reach the drain, which the filter ends at the first
// picture it drops: the pictures a decoder holds back must all come out.
int64_t Player::Impl::ConvertFrom(int64_t time, int64_t kept) const
{
    const bool nearEnd = duration <= 0 || time + 2 * kSecond + 24 * step >= duration;
    const int64_t margin = nearEnd ? std::max(2 * kSecond, (kept + 24) * step) : (kept + 1) * step;
    return std::max<int64_t>(-1, time - margin);
}

// Playing backwards: what is shown while the next chunk decodes. It ends
// where the cache begins and reaches back about half of it; the first one
// after a jump decodes the whole GOP before when the jump's key frame is
// close, which the index foretells.
int64_t Player::Impl::FramesShownDuringChunk(double atSpeed) const
{
    const int64_t start = video.GetStartTime();
    return FramesShownDuring(std::max(chunkSeconds, DecodeSeconds(start - cacheFrames / 2 * step, start)), atSpeed);
}

int64_t Player::Impl::FramesToTurnOn() const
{
    // Without an index, going back to the newest frame may cost as much
    // as a chunk.
    if (keyFrames.empty() || secondsPerPicture <= 0.0)
        return std::min(FramesShownDuringChunk(1.0), cacheFrames * 3 / 8);
    // The more frames are kept, the further the newest may lie from its key
    // frame: a few rounds settle it.
    int64_t keep = 0;
    for (int round = 0; round < 3; ++round) {
        const int64_t newest = Now() + keep * step;
        keep = FramesShownDuring(DecodeSeconds(newest, newest), 1.0);
    }
    return std::min(keep, cacheFrames * 3 / 8);
}

// A quarter more than foretold, and a few frames more. What is shown while
// a chunk decodes leaves the cache as it goes, before the chunk's pictures
// come: it may take up to half of it.
int64_t Player::Impl::FramesShownDuring(double seconds, double atSpeed) const
{
    const double perSecond = std::abs(atSpeed) * double(kSecond) / double(step);
    const int64_t frames = int64_t(std::ceil(perSecond * seconds * 1.25)) + 4;
    return std::min(frames, cacheFrames / 2);
}

double Player::Impl::DecodeSeconds(int64_t from, int64_t until) const
{
    if (keyFrames.empty() || secondsPerPicture <= 0.0)
        return 0.0;
    return double(std::max<int64_t>(0, until - KeyFrameBefore(from)) / step + 1) * secondsPerPicture;
}

int64_t Player::Impl::KeyFrameBefore(int64_t time) const
{
    // An index may give a key frame's decoding time, which comes a few
    // frames before its picture's: counting from later errs on the safe side.
    const int64_t slack = kKeyFrameSlack * step;
    const auto after = std::upper_bound(keyFrames.begin(), keyFrames.end(), time - slack);
    return after == keyFrames.begin() ? 0 : std::max<int64_t>(0, *(after - 1) + slack);
}

int Player::Impl::FramesBefore(int64_t now) const
{
    if (!Covers(now))
        return now < video.GetStartTime() ? 0 : video.GetFrameCount();
    // The largest offset back that still finds a frame, by bisection.
    int low = 0, high = video.GetFrameCount();
    while (low + 1 < high) {
        const int middle = (low + high) / 2;
        (video.GetFrame(now, -middle) ? low : high) = middle;
    }
    return low;
}

void Player::Impl::DropFramesAfter(int64_t now, int64_t keep)
{
    const auto last = video.GetFrame(std::max(now, video.GetStartTime()), int(keep));
    if (!last || last == video.LastFrame())
        return;
    // The cache drops from its far end only one frame at a time, and only
    // when full: build it again from the frames kept.
    VideoList kept;
    for (auto frame = video.FirstFrame(); frame; frame = video.GetFrame(frame->startTime, 1)) {
        kept.append(frame);
        if (frame == last)
            break;
    }
    if (video.LastFrame()->startTime == openPictureStart)
        openPictureStart = -1;
    video.ForceClear();
    for (const auto& frame : kept)
        video.AppendFrame(frame);
}

void Player::Impl::DecodeChunkBefore(int64_t start, std::unique_lock<std::mutex>& lock)
{
    instanceAtNewest = false;
    drained.clear();
    audioInStep = false;
    // A chunk costs a decode from the key frame before it: make it as long
    // as the room the cache leaves, so that long GOPs are paid for less
    // often. Playing backwards, the cache keeps what is shown while it
    // decodes and the frames to turn round on, at 1×; otherwise the frames
    // ahead that the cache's policy asks for.
    const bool backwards = speed < 0.0;
    // The frames to turn round on stay all the while: at most 3/8 of the
    // cache, so that the chunk gets at least a quarter of it. Paused, the
    // frames kept must not be so few that the cache asks for more ahead
    // before it takes the chunk: it would be decoded only to be dropped.
    const int64_t keep =
        backwards ? FramesToTurnOn() : std::max<int64_t>(cacheFrames / 2, kFewCachedFrames);
    DropFramesAfter(Now(), keep);
    // Played backwards, what is left to show is shown while the chunk
    // decodes: the chunk is planned for the room that leaves, and takes what
    // the cache has given up by the time its pictures come.
    const int64_t planned = std::max<int64_t>(
        1, cacheFrames - (backwards ? std::min<int64_t>(video.GetFrameCount(), keep + 1) : video.GetFrameCount()));
    const auto begin = std::chrono::steady_clock::now();
    ++stats.backwardChunks;
    for (int64_t chunk = planned * step;; chunk *= 2) {
        const int64_t from = std::max<int64_t>(0, start - chunk);
        lock.unlock();
        Reposition(from - (largeSeekOffset && from > 0 ? kSecond : 0));
        lock.lock();
        VideoList pictures; // size-change placeholders among them
        // Turned to forward play, the frames kept give the time to go back
        // to the newest of them, not to finish the chunk first.
        const auto turned = [&] { return backwards && speed > 0.0; };
        for (int calls = 0; calls < kMaxCallsPerJob && !quit && !seekTo && !turned(); ++calls) {
            VideoList out;
            AudioList ignored; // reverse play is silent
            // The library leaves the pictures before the chunk unconverted.
            const bool more = DecodeCall(out, ignored, from, lock);
            if (backwards)
                DropFramesAfter(Now(), keep);
            const int64_t room = std::max<int64_t>(1, cacheFrames - video.GetFrameCount());
            bool past = !more;
            for (const auto& picture : out) {
                past = past || picture->data == nullptr || picture->startTime >= start;
                if (!past && picture->startTime + step > 0 && picture->startTime >= from - step)
                    pictures.append(picture);
            }
            // Only the newest pictures before start fit the room.
            while (pictures.size() > room)
                pictures.removeFirst();
            int64_t held = video.GetSize();
            for (const auto& picture : pictures)
                held += picture->size;
            stats.peakPictureBytes = std::max(stats.peakPictureBytes, held);
            if (past)
                break;
        }
        if (quit || seekTo || turned() || start != video.GetStartTime())
            return;
        // The costliest chunk since the last jump: going back past a key
        // frame, the next chunk decodes the whole GOP before it.
        const double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        chunkSeconds = std::max(chunkSeconds, spent);
        if (!keyFrames.empty())
            secondsPerPicture = spent / double((start - KeyFrameBefore(from)) / step + 1);
        startReached = pictures.isEmpty();
        startReachedAt = start;
        if (!pictures.isEmpty() || from == 0) {
            // Newest first: each lands just before the oldest cached one.
            // Played backwards all of them fit; otherwise as long as the
            // cache's policy makes room for them. The newest ends where the
            // oldest cached picture starts.
            int64_t successor = start;
            bool appended = false, switched = false;
            for (auto it = pictures.rbegin(); it != pictures.rend(); ++it) {
                if ((*it)->status != 0) {
                    // The older pictures have another size: the next chunk
                    // decodes them with the input set up for it.
                    if ((switched = FollowSizeChange(**it, lock)))
                        break;
                    continue;
                }
                if (!backwards) {
                    video.UpdateCache(Now(), mediaEnd, speed != 0.0, speed >= 0.0);
                    if (!video.CanCacheBackwards() && video.GetFrameCount() > 0)
                        break;
                }
                (*it)->endTime = successor - 1;
                successor = (*it)->startTime;
                video.AppendFrame(*it);
                appended = true;
                switchesWithoutPicture = 0;
                stats.peakVideoCacheBytes = std::max(stats.peakVideoCacheBytes, video.GetSize());
            }
            // Only pictures of a size the input cannot be set up for:
            // nothing before start can be shown.
            const auto showable = [](const auto& picture) { return picture->status == 0; };
            if (!appended && !switched && std::none_of(pictures.begin(), pictures.end(), showable))
                startReached = true;
            progress.notify_all();
            return;
        }
    }
}

} // namespace molvane
