#include "PlayerImpl.h"

#include <algorithm>

namespace molvane {

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
    // forwards again brings it back (SetSpeed). On the newest picture, whose
    // end is still a guess, the picture for the new time is the next one
    // decoded at most: WaitFrameAt waits for it.
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

std::shared_ptr<DecodedVideoFrame> Player::FrameAt(int64_t time, bool* settled) const
{
    std::lock_guard<std::mutex> lock(impl->mutex);
    auto frame = impl->cover ? impl->cover : impl->video.GetFrame(time, 0);
    if (settled)
        *settled = impl->Settled(frame);
    return frame;
}

std::shared_ptr<DecodedVideoFrame> Player::WaitFrameAt(int64_t time)
{
    Impl& d = *impl;
    std::unique_lock<std::mutex> lock(d.mutex);
    if (d.cover)
        return d.cover;
    if (!d.hasVideo)
        return nullptr;
    d.Wake();
    // The newest picture may end before time: its successor decides.
    d.progress.wait(lock, [&] { return d.quit || !d.hasVideo || (!d.seekTo && (d.Settled(time) || d.idle)); });
    return d.seekTo || !d.hasVideo ? nullptr : d.video.GetFrame(time, 0);
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

} // namespace molvane
