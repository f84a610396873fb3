#include <MolvaneAV/DecodedAudio.h>

#include <QMutexLocker>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

using List = TimeOrderedFrameList<DecodedAudioFrame>;

namespace {

// Drift within this much of the play position is no drift (µs).
constexpr int64_t kDriftTolerance = 9999;
// Measurements averaged before a correction.
constexpr int32_t kDriftMeasurements = 5;
// An average beyond this is corrected (µs).
constexpr int64_t kDriftCorrectionThreshold = 10000;

int16_t Scaled(int16_t value, double volume)
{
    const double scaled = std::clamp(static_cast<double>(value) * volume, -32768.0, 32767.0);
    return static_cast<int16_t>(std::trunc(scaled));
}

// rate × microseconds / 1,000,000 sample frames, the product in int64. A
// span of years (a broken timestamp) saturates instead of overflowing.
int64_t SampleFrames(int64_t rate, int64_t microseconds)
{
    int64_t product = 0;
    if (!__builtin_mul_overflow(rate, microseconds, &product))
        return product / 1000000;
    return ((rate < 0) != (microseconds < 0) ? std::numeric_limits<int64_t>::min()
                                              : std::numeric_limits<int64_t>::max()) / 1000000;
}

int32_t ClampToInt32(int64_t value)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

// A frame's sample frames padded or cut by a gap to its neighbour; at most
// what keeps the values of all its channels countable in an int32.
int32_t StitchedCount(int32_t count, int32_t rate, int64_t gap, int32_t channels)
{
    const int64_t limit = std::numeric_limits<int32_t>::max() / std::max(channels, 1);
    return static_cast<int32_t>(std::clamp<int64_t>(count + SampleFrames(rate, gap), -limit, limit));
}

} // namespace

DecodedAudio::DecodedAudio()
    : TimeOrderedFrameList<DecodedAudioFrame>(0),
      paFrameIndex(-1),
      paSamples(nullptr),
      paFrameStart(0),
      paRemainingFrames(0),
      paDiffCounter(0),
      paDiffSum(0),
      paFlushCount(0),
      paSeenFlushCount(0),
      paSpeedAccumulator(0.0)
{
}

DecodedAudio::~DecodedAudio()
{
    ForceClear();
}

void DecodedAudio::SetMaxFrameCount(int count)
{
    QMutexLocker lock(&mutex);
    // Two slots are the least the ring works with.
    const int slots = count == 1 ? 2 : std::max(count, 0);
    const int frames = List::GetFrameCount();
    if (frames > 0) {
        // Keep the frames, in order from slot 0, with one slot to spare.
        InstallSlots(RepackedSlots(std::max(slots, frames + 1)));
        // The fill's slot index means nothing in the new vector.
        ++paFlushCount;
    } else {
        frameBuffers[activeBuffer].resize(slots);
    }
    frameBuffers[retiredBuffer].resize(slots);
}

void DecodedAudio::PushBack(std::shared_ptr<DecodedAudioFrame> frame)
{
    if (lastIndex < 0) {
        firstIndex = lastIndex = 0;
    } else {
        DecodedAudioFrame& last = *frameBuffers[activeBuffer][lastIndex];
        // Frames from different runs of audio are cut or padded to meet;
        // a frame without samples has no channel count to do it with.
        if (frame->continuityTag != last.continuityTag && last.samplesPerChannel > 0) {
            const int64_t gap = frame->startTime - last.endTime - 1;
            const int32_t channels = last.sampleCount / last.samplesPerChannel;
            const int32_t before = last.sampleCount;
            last.samplesPerChannel = StitchedCount(last.samplesPerChannel, last.sampleRate, gap, channels);
            last.sampleCount = last.samplesPerChannel * channels;
            totalSize += static_cast<int64_t>(last.sampleCount) - before;
        }
        last.endTime = frame->startTime - 1;
        lastIndex = SlotAfter(lastIndex);
    }
    totalSize += frame->sampleCount;
    frameBuffers[activeBuffer][lastIndex] = std::move(frame);
}

void DecodedAudio::PushFront(std::shared_ptr<DecodedAudioFrame> frame)
{
    if (firstIndex < 0) {
        firstIndex = lastIndex = 0;
    } else {
        const DecodedAudioFrame& first = *frameBuffers[activeBuffer][firstIndex];
        if (frame->continuityTag != first.continuityTag && frame->samplesPerChannel > 0) {
            const int64_t gap = startTime - frame->endTime - 1;
            const int32_t channels = frame->sampleCount / frame->samplesPerChannel;
            frame->samplesPerChannel = StitchedCount(frame->samplesPerChannel, frame->sampleRate, gap, channels);
            frame->sampleCount = frame->samplesPerChannel * channels;
        }
        frame->endTime = startTime - 1;
        firstIndex = SlotBefore(firstIndex);
    }
    totalSize += frame->sampleCount;
    frameBuffers[activeBuffer][firstIndex] = std::move(frame);
}

void DecodedAudio::AppendFrame(std::shared_ptr<DecodedAudioFrame> frame)
{
    QMutexLocker lock(&mutex);
    ReleaseRetiredSlots();
    if (List::GetMaxFrameCount() < 1)
        return;
    if (!frame) {
        ClearLocked();
        return;
    }
    if (frame->startTime < 0) {
        if (frame->endTime < 0)
            return;
        frame->startTime = 0;
    }
    if (firstIndex < 0 || List::GetFrameCount() == 0) {
        PushBack(std::move(frame));
        UpdateStartEndTimes();
        return;
    }

    const FramePtr oldest = List::FirstFrame();
    const FramePtr newest = List::LastFrame();
    if (frame->startTime == oldest->startTime || frame->startTime == newest->startTime)
        return;

    // Grow while one slot is still free; the fill's slot index then points
    // into the old vector, so it must find its place again.
    if (List::GetFrameCount() == List::GetMaxFrameCount() - 1) {
        InstallSlots(GrownSlots());
        ++paFlushCount;
    }

    if (frame->startTime > newest->startTime)
        PushBack(std::move(frame));
    else if (frame->startTime < startTime)
        PushFront(std::move(frame));
    UpdateStartEndTimes();
}

void DecodedAudio::UpdateCache(long long fromTime, long long toTime)
{
    QMutexLocker lock(&mutex);
    if (firstIndex < 0)
        return;
    while (List::FirstFrame() && List::FirstFrame()->endTime < fromTime)
        PopFront();
    while (List::LastFrame() && List::LastFrame()->startTime > toTime)
        PopBack();
}

void DecodedAudio::ClearLocked()
{
    ClearList();
    ++paFlushCount;
}

void DecodedAudio::ForceClearLocked()
{
    ForceClearList();
    ++paFlushCount;
}

void DecodedAudio::Clear()
{
    QMutexLocker lock(&mutex);
    ClearLocked();
}

void DecodedAudio::ForceClear()
{
    QMutexLocker lock(&mutex);
    ForceClearLocked();
}

void DecodedAudio::FlushPaBuffer()
{
    // Taken like every other call: a counter raised without it would be a
    // data race with the fill that reads it.
    QMutexLocker lock(&mutex);
    ++paFlushCount;
}

// The getters lock too: a host may read them on any thread while the
// decoding side appends or re-packs and the device callback fills.
DecodedAudio::FramePtr DecodedAudio::FirstFrame() const
{
    QMutexLocker lock(&mutex);
    return List::FirstFrame();
}

DecodedAudio::FramePtr DecodedAudio::LastFrame() const
{
    QMutexLocker lock(&mutex);
    return List::LastFrame();
}

int DecodedAudio::GetFrameCount() const
{
    QMutexLocker lock(&mutex);
    return List::GetFrameCount();
}

int DecodedAudio::GetMaxFrameCount() const
{
    QMutexLocker lock(&mutex);
    return List::GetMaxFrameCount();
}

int64_t DecodedAudio::GetSize() const
{
    QMutexLocker lock(&mutex);
    return List::GetSize();
}

int64_t DecodedAudio::GetStartTime() const
{
    QMutexLocker lock(&mutex);
    return List::GetStartTime();
}

int64_t DecodedAudio::GetEndTime() const
{
    QMutexLocker lock(&mutex);
    return List::GetEndTime();
}

void DecodedAudio::PaResetDiffCounter()
{
    paDiffCounter = 0;
    paDiffSum = 0;
}

bool DecodedAudio::IsInList(int slot) const
{
    if (firstIndex < 0 || slot < 0 || slot >= List::GetMaxFrameCount())
        return false;
    if (IsWrapped())
        return slot >= firstIndex || slot <= lastIndex;
    return slot >= firstIndex && slot <= lastIndex;
}

int DecodedAudio::GetNextFrameIndex(int slot) const
{
    if (slot < 0)
        return -1;
    const int next = slot + 1;
    if (next >= List::GetMaxFrameCount())
        return lastIndex >= 0 ? 0 : -1;
    return next >= firstIndex || next <= lastIndex ? next : -1;
}

int DecodedAudio::GetPreviousFrameIndex(int slot) const
{
    const int previous = slot - 1;
    if (previous < 0)
        return IsWrapped() ? List::GetMaxFrameCount() - 1 : -1;
    return previous >= firstIndex || previous <= lastIndex ? previous : -1;
}

bool DecodedAudio::FetchFrame(long long playTime, int sampleRate)
{
    const QVector<FramePtr>& slots = frameBuffers[activeBuffer];
    if (paFrameIndex == -1) {
        paFrameIndex = GetFrameIndex(playTime);
        const FramePtr frame = paFrameIndex >= 0 ? slots.at(paFrameIndex) : FramePtr();
        paCurrentFrame = frame;
        if (!frame)
            return false;
        paSamples = frame->samples;
        paFrameStart = frame->startTime;
        paRemainingFrames =
            ClampToInt32(frame->samplesPerChannel - SampleFrames(sampleRate, playTime - frame->startTime));
        return true;
    }

    const int next = paFrameIndex + 1 >= slots.size() ? 0 : paFrameIndex + 1;
    if (!IsInList(next) || !slots.at(next)) {
        // Past the newest frame: forget the position, so the next call
        // finds its frame by time. Walking on slot by slot instead would
        // pass over frames appended meanwhile and never play them.
        paCurrentFrame.reset();
        paSamples = nullptr;
        paFrameIndex = -1;
        return false;
    }
    paFrameIndex = next;
    paCurrentFrame = slots.at(next);
    paSamples = paCurrentFrame->samples;
    paFrameStart = paCurrentFrame->startTime;
    paRemainingFrames = paCurrentFrame->samplesPerChannel;
    return true;
}

int DecodedAudio::PaFillBuffer(short* buffer, int frameCount, int channelCount, int sampleRate,
                               long long playTime, double volume, bool reset, double speed)
{
    if (buffer == nullptr || frameCount < 1 || channelCount < 1)
        return 0;
    QMutexLocker lock(&mutex);

    int framesWritten = 0;
    const auto fillSilence = [&] {
        std::memset(buffer + static_cast<int64_t>(framesWritten) * channelCount, 0,
                    sizeof(short) * static_cast<size_t>(frameCount - framesWritten) * channelCount);
        return frameCount;
    };
    if (sampleRate < 1 || !(speed > 0.0))
        return fillSilence();

    // Negative steps drop source frames (faster), positive ones repeat them.
    const double step = speed > 1.0 ? 1.0 - speed : speed < 1.0 ? 1.0 / speed - 1.0 : 0.0;

    if (reset || paFlushCount != paSeenFlushCount) {
        paSeenFlushCount = paFlushCount;
        paCurrentFrame.reset();
        paFrameIndex = -1;
        paSamples = nullptr;
        paFrameStart = 0;
        paRemainingFrames = 0;
        paSpeedAccumulator = 0.0;
    }

    // A repeat only ever follows a write of the same call, so it copies
    // values inside this buffer; the accumulator carries over as it stands,
    // and a repeat owed when the last buffer filled goes to the next write.
    for (;;) {
        while (paRemainingFrames <= 0) {
            if (!FetchFrame(playTime, sampleRate))
                return fillSilence();
            if (speed == 1.0) {
                const auto sampleTime = static_cast<long long>(
                    static_cast<double>(framesWritten) / sampleRate * 1000000.0 + static_cast<double>(playTime));
                PaSyncAudio(buffer + static_cast<int64_t>(framesWritten) * channelCount, frameCount, sampleTime,
                            channelCount, sampleRate, framesWritten);
            }
            if (framesWritten >= frameCount)
                return framesWritten;
        }

        const DecodedAudioFrame& frame = *paCurrentFrame;
        int64_t read = static_cast<int64_t>(frame.sampleCount) - static_cast<int64_t>(paRemainingFrames) * channelCount;
        for (;;) {
            if (paSpeedAccumulator > -1.0) {
                short* out = buffer + static_cast<int64_t>(framesWritten) * channelCount;
                for (int c = 0; c < channelCount; ++c) {
                    // Past the array (a frame the stitching lengthened) is silence.
                    const int64_t at = read + c;
                    out[c] = at >= 0 && at < frame.bufferSampleCount ? Scaled(paSamples[at], volume) : 0;
                }
                ++framesWritten;
                paSpeedAccumulator += step;
            } else {
                paSpeedAccumulator += 1.0;
            }
            --paRemainingFrames;
            if (framesWritten >= frameCount)
                return framesWritten;

            while (paSpeedAccumulator > 1.0) {
                short* out = buffer + static_cast<int64_t>(framesWritten) * channelCount;
                std::memcpy(out, out - channelCount, sizeof(short) * static_cast<size_t>(channelCount));
                ++framesWritten;
                paSpeedAccumulator -= 1.0;
                if (framesWritten >= frameCount)
                    return framesWritten;
            }
            if (paRemainingFrames <= 0)
                break;
            read += channelCount;
        }
    }
}

void DecodedAudio::PaSyncAudio(short* buffer, int frameCount, long long sampleTime, int channelCount,
                               int sampleRate, int& framesWritten)
{
    // Saturated throughout: a frame whose broken timestamp lies centuries
    // away must not overflow the measurement.
    int64_t diff = 0;
    if (__builtin_sub_overflow(static_cast<int64_t>(sampleTime), paFrameStart, &diff))
        diff = paFrameStart < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    if (diff >= -kDriftTolerance && diff <= kDriftTolerance) {
        PaResetDiffCounter();
        return;
    }
    if (__builtin_add_overflow(paDiffSum, diff, &paDiffSum))
        paDiffSum = diff > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    if (++paDiffCounter < kDriftMeasurements)
        return;
    const int64_t average = paDiffSum / kDriftMeasurements;
    PaResetDiffCounter();
    if (average >= -kDriftCorrectionThreshold && average <= kDriftCorrectionThreshold)
        return;

    int64_t product = 0;
    const double scaled = __builtin_mul_overflow(static_cast<int64_t>(sampleRate), average, &product)
        ? (average < 0 ? -1e300 : 1e300)
        : static_cast<double>(product);
    const auto frames = static_cast<int32_t>(std::clamp(scaled / 1000000.0, -2147483647.0, 2147483647.0));
    if (frames >= 0) {
        // Audio behind the play position: skip ahead within this frame.
        paRemainingFrames = ClampToInt32(static_cast<int64_t>(paRemainingFrames) - frames);
        return;
    }
    // Audio ahead: hold it back by repeating its first sample frame.
    const bool hasFirst = paCurrentFrame && paCurrentFrame->bufferSampleCount >= channelCount;
    for (int32_t k = 0; k < -frames && framesWritten < frameCount; ++k) {
        short* out = buffer + static_cast<int64_t>(k) * channelCount;
        for (int c = 0; c < channelCount; ++c)
            out[c] = hasFirst ? paSamples[c] : 0;
        ++framesWritten;
    }
}
