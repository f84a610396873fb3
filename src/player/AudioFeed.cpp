#include "PlayerImpl.h"

#include <algorithm>
#include <cstdlib>

namespace molvane {

int64_t TrueStart(const DecodedAudioFrame& first, const DecodedAudioFrame& next)
{
    const bool gap = first.endTime + 1 < next.startTime && first.startTime < next.startTime;
    return gap ? next.startTime - 1 - (first.endTime - first.startTime) : first.startTime;
}

// Where the sound starts, once the first frame has its true time. Decodes
// from the start of the input and leaves it closed.
int64_t Player::Impl::SoundStart()
{
    int64_t start = 0;
    QList<std::shared_ptr<DecodedAudioFrame>> sounds;
    QList<std::shared_ptr<DecodedVideoFrame>> pictures;
    instance.CloseInput();
    for (int calls = 0; calls < 100 && sounds.size() < 2 && instance.HasPacket(); ++calls)
        instance.DecodePacket(sounds, pictures, -1);
    if (!sounds.isEmpty())
        start = sounds.size() > 1 ? TrueStart(*sounds[0], *sounds[1]) : sounds[0]->startTime;
    instance.CloseInput();
    return start;
}

// Whether sound starts after end (in the stream's times): some containers
// only estimate their length, and an MPEG-TS whose sound lies in one PES
// claims the length of its first frame. Leaves the input closed.
bool Player::Impl::SoundPastEnd(int64_t end)
{
    QList<std::shared_ptr<DecodedAudioFrame>> sounds;
    QList<std::shared_ptr<DecodedVideoFrame>> pictures;
    instance.Seek(end);
    bool past = false;
    for (int calls = 0; calls < 100 && !past && instance.HasPacket(); ++calls) {
        instance.DecodePacket(sounds, pictures, -1);
        past = std::any_of(sounds.begin(), sounds.end(), [&](const auto& sound) { return sound->startTime > end; });
    }
    instance.CloseInput();
    return past;
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
    stats.peakAudioCacheBytes = std::max<int64_t>(stats.peakAudioCacheBytes, audio.GetSize() * sizeof(int16_t));
    if (!newest || audio.LastFrame() != frame || newest->sampleRate <= 0)
        return;
    // The device fill plays samples back to back and corrects the clock by
    // skipping or repeating samples where the frames' times say otherwise.
    const int64_t expected = newest->startTime + int64_t(newest->samplesPerChannel) * kSecond / newest->sampleRate;
    // A place decoded again after a jump counts once.
    if (std::abs(frame->startTime - expected) > kDriftCorrected && timeJumps.insert(frame->startTime).second)
        ++stats.driftCorrections;
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

} // namespace molvane
