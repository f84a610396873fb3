#pragma once

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/Export.h>

#include <QVector>

#include <cstdint>
#include <memory>

// The ring of frame slots that both frame caches embed: frames ordered by
// start time, pushed and popped at both ends in constant time, found by a
// binary search over the (possibly wrapped) ring. A second slot vector takes
// over the frames of a cleared list so they can be released a few at a time.
//
// Layouts: empty (firstIndex = lastIndex = -1); straight (firstIndex <=
// lastIndex); wrapped (lastIndex < firstIndex: firstIndex..capacity-1, then
// 0..lastIndex). Slots outside the list are empty.
template <typename Frame>
class MOLVANEAV_EXPORT TimeOrderedFrameList
{
public:
    using FramePtr = std::shared_ptr<Frame>;

    FramePtr FirstFrame() const;
    FramePtr LastFrame() const;
    int GetFrameCount() const;
    int GetMaxFrameCount() const;
    int64_t GetSize() const;
    int64_t GetStartTime() const;
    int64_t GetEndTime() const;

protected:
    explicit TimeOrderedFrameList(int capacity);

    // Slot of the frame covering time (start and end included), or -1.
    int GetFrameIndex(int64_t time) const;
    int GetFrameIndexBinarySearch(int64_t time, int low, int high) const;
    void PopBack();
    void PopFront();
    void UpdateStartEndTimes();
    // Retires the active vector and activates the other, emptied.
    void ClearList();
    // Empties both vectors at once.
    void ForceClearList();
    // Releases up to two slots of the retired vector.
    void ReleaseRetiredSlots();
    // The frames in time order from slot 0 of a vector of slotCount slots;
    // the caller installs it with InstallSlots (the audio cache under its
    // lock). GrownSlots gives 1.5 times the capacity.
    QVector<FramePtr> RepackedSlots(int slotCount) const;
    QVector<FramePtr> GrownSlots() const;
    void InstallSlots(QVector<FramePtr> slots);
    // Ring steps shared by the pushes.
    int SlotAfter(int slot) const;
    int SlotBefore(int slot) const;
    bool IsWrapped() const;
    static int64_t SizeOf(const Frame& frame);

    QVector<FramePtr> frameBuffers[2];
    int32_t activeBuffer;
    int32_t retiredBuffer;
    int32_t retiredReleaseIndex;
    int32_t firstIndex;
    int32_t lastIndex;
    int64_t startTime;
    int64_t endTime;
    int64_t totalSize;
};

extern template class TimeOrderedFrameList<DecodedVideoFrame>;
extern template class TimeOrderedFrameList<DecodedAudioFrame>;
