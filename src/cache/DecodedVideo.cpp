#include <MolvaneAV/DecodedVideo.h>

#include <MolvaneAV/Settings.h>

#include <limits>

namespace {

// A tiny frame size with a huge budget would ask for absurd slot counts;
// beyond this, list growth adds slots as frames arrive.
constexpr int64_t kMaxPresizedSlots = 1 << 20;

// Frames wanted ahead of (and behind) the play position, as shares of the
// budget, for the direction of motion and against it.
constexpr float kLeadingShare = 0.4f;
constexpr float kTrailingShare = 0.1f;

// Below this many frames, forward decoding always pays off.
constexpr int kFewFrames = 30;

} // namespace

DecodedVideo::DecodedVideo()
    : TimeOrderedFrameList<DecodedVideoFrame>(static_cast<int>(minFrameCapacity)),
      lastUpdateTime(0),
      movingForward(true),
      maxCacheSize(0),
      canCacheForwards(false),
      canCacheBackwards(false)
{
}

DecodedVideo::DecodedVideo(const DecodedVideo& other) = default;
DecodedVideo& DecodedVideo::operator=(const DecodedVideo& other) = default;
DecodedVideo::~DecodedVideo() = default;

bool DecodedVideo::CanCacheForwards() const
{
    return canCacheForwards;
}

bool DecodedVideo::CanCacheBackwards() const
{
    return canCacheBackwards;
}

bool DecodedVideo::IsCacheFull() const
{
    return totalSize >= maxCacheSize || GetFrameCount() >= GetMaxFrameCount();
}

int64_t DecodedVideo::GetMaxCacheSize() const
{
    return maxCacheSize;
}

void DecodedVideo::Clear()
{
    ClearList();
}

void DecodedVideo::ForceClear()
{
    ForceClearList();
}

void DecodedVideo::SetMaxCacheSize(int64_t maxBytes, int frameWidth, int frameHeight, int bytesPerPixel)
{
    if (maxBytes < 0 || frameWidth < 0 || frameHeight < 0 || bytesPerPixel < 0)
        return;
    maxCacheSize = maxBytes;

    const int64_t frameBytes = static_cast<int64_t>(frameWidth) * frameHeight * bytesPerPixel;
    int64_t slots = 0;
    if (frameBytes > 0) {
        const float wanted = static_cast<float>(maxBytes / frameBytes) * 1.2f;
        slots = wanted < static_cast<float>(kMaxPresizedSlots) ? static_cast<int64_t>(wanted) : kMaxPresizedSlots;
    }
    if (slots < minFrameCapacity)
        slots = minFrameCapacity;

    Clear();
    frameBuffers[activeBuffer].resize(static_cast<int>(slots));
}

void DecodedVideo::PushBack(std::shared_ptr<DecodedVideoFrame> frame)
{
    if (lastIndex < 0) {
        firstIndex = lastIndex = 0;
    } else {
        frameBuffers[activeBuffer][lastIndex]->endTime = frame->startTime - 1;
        lastIndex = SlotAfter(lastIndex);
    }
    // A full ring gives up its oldest frame.
    if (frameBuffers[activeBuffer].at(lastIndex))
        PopFront();
    totalSize += SizeOf(*frame);
    frameBuffers[activeBuffer][lastIndex] = std::move(frame);
}

void DecodedVideo::PushFront(std::shared_ptr<DecodedVideoFrame> frame)
{
    if (firstIndex < 0) {
        firstIndex = lastIndex = 0;
    } else {
        frame->endTime = startTime - 1;
        firstIndex = SlotBefore(firstIndex);
    }
    if (frameBuffers[activeBuffer].at(firstIndex))
        PopBack();
    totalSize += SizeOf(*frame);
    frameBuffers[activeBuffer][firstIndex] = std::move(frame);
}

void DecodedVideo::AppendFrame(std::shared_ptr<DecodedVideoFrame> frame)
{
    ReleaseRetiredSlots();
    if (!frame) {
        Clear();
        return;
    }

    std::shared_ptr<DecodedVideoFrame> oldest = FirstFrame();
    std::shared_ptr<DecodedVideoFrame> newest = LastFrame();

    // No pixels (the end-of-stream marker among them): only the newest
    // frame's end can move.
    if (frame->data == nullptr) {
        if (newest && frame->endTime > newest->startTime)
            newest->endTime = frame->endTime;
        UpdateStartEndTimes();
        return;
    }

    if (frame->startTime < 0) {
        if (frame->endTime < 0)
            return;
        frame->startTime = 0;
    }

    if (firstIndex < 0 || GetFrameCount() == 0) {
        // Absorb timestamp rounding at the very start of a stream.
        if (frame->startTime - Settings::ROUNDING_ERROR_EXTRA_TIME <= 0)
            frame->startTime = 0;
        PushBack(std::move(frame));
        UpdateStartEndTimes();
        return;
    }

    if (frame->startTime == oldest->startTime || frame->startTime == newest->startTime)
        return;

    // Grow while one slot is still free, so the ring never fills up.
    if (GetFrameCount() == GetMaxFrameCount() - 1) {
        InstallSlots(GrownSlots());
        oldest = FirstFrame();
        newest = LastFrame();
    }

    if (frame->startTime > newest->startTime) {
        PushBack(std::move(frame));
        UpdateStartEndTimes();
    } else if (frame->startTime >= startTime) {
        // Inside the cached range: never inserted.
        return;
    } else {
        PushFront(std::move(frame));
        UpdateStartEndTimes();
    }
}

void DecodedVideo::GetDirectionalCacheSizes(int64_t time, int64_t& aheadSize, int64_t& behindSize)
{
    aheadSize = 0;
    behindSize = 0;
    const int count = GetFrameCount();
    const QVector<std::shared_ptr<DecodedVideoFrame>>& slots = frameBuffers[activeBuffer];
    for (int n = 0, slot = firstIndex; n < count; ++n, slot = SlotAfter(slot)) {
        const DecodedVideoFrame& frame = *slots.at(slot);
        if (frame.startTime < time)
            behindSize += frame.size;
        else
            aheadSize += frame.size;
    }
}

void DecodedVideo::UpdateCache(int64_t playTime, int64_t mediaEndTime, bool isPlaying, bool playingForward)
{
    const bool full = IsCacheFull();
    int64_t ahead = 0;
    int64_t behind = 0;
    GetDirectionalCacheSizes(playTime, ahead, behind);
    canCacheForwards = false;
    canCacheBackwards = false;

    if (playTime != lastUpdateTime)
        movingForward = playTime > lastUpdateTime;

    const float budget = static_cast<float>(maxCacheSize);
    const auto aheadQuota = static_cast<int64_t>(budget * (movingForward ? kLeadingShare : kTrailingShare));
    const auto behindQuota = static_cast<int64_t>(budget * (movingForward ? kTrailingShare : kLeadingShare));
    const float trailingLimit = budget * Settings::maxTrailingCacheWhilePlaying;
    const bool playingForwards = isPlaying && playingForward;
    const bool moreAfter = endTime < mediaEndTime;
    const bool moreBefore = startTime > 0;

    enum class Direction { None, Forward, Backward };
    Direction direction = Direction::None;
    // A handful of frames always calls for more ahead, full or not: a host
    // that plays in reverse keeps its budget above that many frames.
    const bool fewFrames = GetFrameCount() < kFewFrames;
    if (moreAfter && (playingForwards || GetFrameCount() == 0 || fewFrames || endTime < playTime))
        direction = Direction::Forward;
    else if (moreBefore && isPlaying && !playingForward)
        direction = Direction::Backward;
    else if (moreAfter && ahead < aheadQuota)
        direction = Direction::Forward;
    else if (moreBefore && behind < behindQuota && !playingForwards)
        direction = Direction::Backward;

    switch (direction) {
    case Direction::Forward:
        // When full, recycle the oldest frame only if enough trails behind.
        if (full) {
            if (static_cast<float>(behind) < trailingLimit)
                return;
            PopFront();
        }
        canCacheForwards = true;
        break;
    case Direction::Backward:
        if (full) {
            if (static_cast<float>(ahead) < trailingLimit)
                return;
            PopBack();
        }
        canCacheBackwards = true;
        break;
    case Direction::None:
        if (full)
            return;
        canCacheForwards = moreAfter;
        break;
    }
    lastUpdateTime = playTime;
}

std::shared_ptr<DecodedVideoFrame> DecodedVideo::GetFrame(int64_t time, int frameOffset) const
{
    if (firstIndex < 0 || GetFrameCount() <= 0 || time < startTime || time > endTime)
        return nullptr;
    int slot = GetFrameIndex(time);
    // No frame covers the time (a dropped frame inside the range): no
    // neighbour can be told either.
    if (slot < 0)
        return nullptr;

    // Step along the ring within the list: past the newest or the oldest
    // frame there is nothing, even where free slots would lead round to
    // the other end.
    for (int64_t step = 0; step < frameOffset; ++step) {
        if (slot == lastIndex)
            return nullptr;
        slot = SlotAfter(slot);
    }
    for (int64_t step = 0; step < -static_cast<int64_t>(frameOffset); ++step) {
        if (slot == firstIndex)
            return nullptr;
        slot = SlotBefore(slot);
    }
    return frameBuffers[activeBuffer].at(slot);
}

std::shared_ptr<DecodedVideoFrame> DecodedVideo::GetFrameAtIndex(int slot) const
{
    if (slot < 0 || slot >= GetMaxFrameCount())
        return nullptr;
    return frameBuffers[activeBuffer].at(slot);
}

void DecodedVideo::OverrideLastFrameEndTime(int64_t newEndTime)
{
    const std::shared_ptr<DecodedVideoFrame> newest = LastFrame();
    if (!newest)
        return;
    newest->endTime = newEndTime;
    endTime = newEndTime;
}

int DecodedVideo::GetNextFrameIndex(int slot) const
{
    const int next = slot + 1;
    if (next == firstIndex)
        return -1;
    if (next >= GetMaxFrameCount())
        return lastIndex >= 0 ? 0 : -1;
    return next >= firstIndex || next <= lastIndex ? next : -1;
}

int DecodedVideo::GetPreviousFrameIndex(int slot) const
{
    const int previous = slot - 1;
    if (previous == lastIndex)
        return -1;
    if (previous < 0)
        return IsWrapped() ? GetMaxFrameCount() - 1 : -1;
    return previous >= firstIndex || previous <= lastIndex ? previous : -1;
}
