#include <MolvaneAV/TimeOrderedFrameList.h>

namespace {

// What a frame adds to the list's size: bytes of pixels, or sample values.
int64_t FrameSize(const DecodedVideoFrame& frame)
{
    return frame.size;
}

int64_t FrameSize(const DecodedAudioFrame& frame)
{
    return frame.sampleCount;
}

} // namespace

template <typename Frame>
TimeOrderedFrameList<Frame>::TimeOrderedFrameList(int capacity)
    : activeBuffer(0),
      retiredBuffer(1),
      retiredReleaseIndex(-1),
      firstIndex(-1),
      lastIndex(-1),
      startTime(0),
      endTime(0),
      totalSize(0)
{
    frameBuffers[0].resize(capacity);
    frameBuffers[1].resize(capacity);
}

template <typename Frame>
int64_t TimeOrderedFrameList<Frame>::SizeOf(const Frame& frame)
{
    return FrameSize(frame);
}

template <typename Frame>
typename TimeOrderedFrameList<Frame>::FramePtr TimeOrderedFrameList<Frame>::FirstFrame() const
{
    return firstIndex < 0 ? FramePtr() : frameBuffers[activeBuffer].at(firstIndex);
}

template <typename Frame>
typename TimeOrderedFrameList<Frame>::FramePtr TimeOrderedFrameList<Frame>::LastFrame() const
{
    return lastIndex < 0 ? FramePtr() : frameBuffers[activeBuffer].at(lastIndex);
}

template <typename Frame>
bool TimeOrderedFrameList<Frame>::IsWrapped() const
{
    return firstIndex >= 0 && lastIndex < firstIndex;
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::GetFrameCount() const
{
    if (firstIndex < 0)
        return 0;
    if (!IsWrapped())
        return lastIndex - firstIndex + 1;
    return GetMaxFrameCount() - firstIndex + 1 + lastIndex;
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::GetMaxFrameCount() const
{
    return frameBuffers[activeBuffer].size();
}

template <typename Frame>
int64_t TimeOrderedFrameList<Frame>::GetSize() const
{
    return totalSize;
}

template <typename Frame>
int64_t TimeOrderedFrameList<Frame>::GetStartTime() const
{
    return startTime;
}

template <typename Frame>
int64_t TimeOrderedFrameList<Frame>::GetEndTime() const
{
    return endTime;
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::GetFrameIndex(int64_t time) const
{
    const QVector<FramePtr>& slots = frameBuffers[activeBuffer];
    if (firstIndex < 0 || GetFrameCount() <= 0 || !slots.at(firstIndex) || !slots.at(lastIndex))
        return -1;
    if (!IsWrapped())
        return GetFrameIndexBinarySearch(time, firstIndex, lastIndex);

    // Wrapped: the older segment runs to the vector's end, the newer one
    // starts at slot 0.
    const FramePtr& oldest = slots.at(firstIndex);
    const FramePtr& endOfVector = slots.at(slots.size() - 1);
    if (!oldest || !endOfVector)
        return -1;
    if (oldest->startTime > time || endOfVector->endTime < time)
        return GetFrameIndexBinarySearch(time, 0, lastIndex);
    return GetFrameIndexBinarySearch(time, firstIndex, slots.size() - 1);
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::GetFrameIndexBinarySearch(int64_t time, int low, int high) const
{
    const QVector<FramePtr>& slots = frameBuffers[activeBuffer];
    while (low <= high) {
        const int mid = (low + high) / 2;
        const FramePtr& frame = slots.at(mid);
        if (!frame)
            return -1;
        if (time < frame->startTime)
            high = mid - 1;
        else if (time > frame->endTime)
            low = mid + 1;
        else
            return mid;
    }
    return -1;
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::SlotAfter(int slot) const
{
    return slot + 1 >= GetMaxFrameCount() ? 0 : slot + 1;
}

template <typename Frame>
int TimeOrderedFrameList<Frame>::SlotBefore(int slot) const
{
    return slot - 1 < 0 ? GetMaxFrameCount() - 1 : slot - 1;
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::PopFront()
{
    if (firstIndex < 0 || GetFrameCount() <= 0)
        return;
    FramePtr& slot = frameBuffers[activeBuffer][firstIndex];
    if (slot)
        totalSize -= SizeOf(*slot);
    slot.reset();
    if (firstIndex == lastIndex)
        firstIndex = lastIndex = -1;
    else
        firstIndex = SlotAfter(firstIndex);
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::PopBack()
{
    if (firstIndex < 0 || GetFrameCount() <= 0)
        return;
    FramePtr& slot = frameBuffers[activeBuffer][lastIndex];
    if (slot)
        totalSize -= SizeOf(*slot);
    slot.reset();
    if (firstIndex == lastIndex)
        firstIndex = lastIndex = -1;
    else
        lastIndex = SlotBefore(lastIndex);
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::UpdateStartEndTimes()
{
    if (GetFrameCount() > 0) {
        startTime = FirstFrame()->startTime;
        endTime = LastFrame()->endTime;
    } else {
        startTime = 0;
        endTime = 0;
    }
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::ClearList()
{
    retiredBuffer = activeBuffer;
    retiredReleaseIndex = frameBuffers[retiredBuffer].size() - 1;
    activeBuffer = (activeBuffer + 1) % 2;
    // The newly active vector was the retired one: what it still held goes now.
    frameBuffers[activeBuffer].fill(FramePtr());
    totalSize = 0;
    firstIndex = lastIndex = -1;
    UpdateStartEndTimes();
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::ForceClearList()
{
    frameBuffers[0].fill(FramePtr());
    frameBuffers[1].fill(FramePtr());
    totalSize = 0;
    firstIndex = lastIndex = -1;
    UpdateStartEndTimes();
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::ReleaseRetiredSlots()
{
    QVector<FramePtr>& retired = frameBuffers[retiredBuffer];
    // The retired vector may have lost slots since it was retired.
    if (retiredReleaseIndex >= retired.size())
        retiredReleaseIndex = retired.size() - 1;
    for (int handled = 0; handled < 2 && retiredReleaseIndex >= 0; ++handled) {
        retired[retiredReleaseIndex].reset();
        --retiredReleaseIndex;
    }
}

template <typename Frame>
QVector<typename TimeOrderedFrameList<Frame>::FramePtr> TimeOrderedFrameList<Frame>::RepackedSlots(int slotCount) const
{
    const QVector<FramePtr>& slots = frameBuffers[activeBuffer];
    QVector<FramePtr> repacked(slotCount);
    const int count = GetFrameCount();
    for (int n = 0, slot = firstIndex; n < count && n < repacked.size(); ++n, slot = SlotAfter(slot))
        repacked[n] = slots.at(slot);
    return repacked;
}

template <typename Frame>
QVector<typename TimeOrderedFrameList<Frame>::FramePtr> TimeOrderedFrameList<Frame>::GrownSlots() const
{
    return RepackedSlots(static_cast<int>(static_cast<float>(frameBuffers[activeBuffer].size()) * 1.5f));
}

template <typename Frame>
void TimeOrderedFrameList<Frame>::InstallSlots(QVector<FramePtr> slots)
{
    const int count = GetFrameCount();
    frameBuffers[activeBuffer] = std::move(slots);
    firstIndex = count > 0 ? 0 : -1;
    lastIndex = count - 1;
}

template class TimeOrderedFrameList<DecodedVideoFrame>;
template class TimeOrderedFrameList<DecodedAudioFrame>;
