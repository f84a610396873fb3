#pragma once

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/Export.h>
#include <MolvaneAV/TimeOrderedFrameList.h>

#include <cstdint>
#include <memory>

// Decoded video frames around the play position within a byte budget. The
// host appends what it decodes, calls UpdateCache with the play position
// and then decodes forwards while CanCacheForwards, or the frames before the
// oldest one while CanCacheBackwards; GetFrame serves the frame to show.
// Frame times are rewritten in place: each frame ends where the next begins.
// No lock: every call, reading ones included, must be serialised.
class MOLVANEAV_EXPORT DecodedVideo : public TimeOrderedFrameList<DecodedVideoFrame>
{
public:
    // Default slot count of both slot vectors, and the least that
    // SetMaxCacheSize gives.
    static constexpr int64_t minFrameCapacity = 25;

    DecodedVideo();
    DecodedVideo(const DecodedVideo& other);
    DecodedVideo& operator=(const DecodedVideo& other);
    ~DecodedVideo();

    using TimeOrderedFrameList<DecodedVideoFrame>::GetFrameIndex;

    // Stores a frame before the oldest or after the newest one; frames
    // inside the cached range or with a known start are dropped. An empty
    // pointer clears; a frame without pixels only extends the newest frame.
    void AppendFrame(std::shared_ptr<DecodedVideoFrame> frame);
    // Decides the direction worth decoding at playTime and drops at most one
    // trailing frame to make room for it.
    void UpdateCache(int64_t playTime, int64_t mediaEndTime, bool isPlaying, bool playingForward);
    bool CanCacheForwards() const;
    bool CanCacheBackwards() const;
    bool IsCacheFull() const;
    // Sets the budget and empties the cache, with slots for 1.2 times the
    // frames of the given size that fit.
    void SetMaxCacheSize(int64_t maxBytes, int frameWidth, int frameHeight, int bytesPerPixel);
    int64_t GetMaxCacheSize() const;
    // The frame covering time, or the one frameOffset frames later (or
    // earlier, when negative); empty when there is none.
    std::shared_ptr<DecodedVideoFrame> GetFrame(int64_t time, int frameOffset) const;
    std::shared_ptr<DecodedVideoFrame> GetFrameAtIndex(int slot) const;
    void OverrideLastFrameEndTime(int64_t newEndTime);
    void Clear();
    void ForceClear();

private:
    void GetDirectionalCacheSizes(int64_t time, int64_t& aheadSize, int64_t& behindSize);
    int GetNextFrameIndex(int slot) const;
    int GetPreviousFrameIndex(int slot) const;
    void PushBack(std::shared_ptr<DecodedVideoFrame> frame);
    void PushFront(std::shared_ptr<DecodedVideoFrame> frame);

    int64_t lastUpdateTime;
    bool movingForward;
    int64_t maxCacheSize;
    bool canCacheForwards;
    bool canCacheBackwards;
};
