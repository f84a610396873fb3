#pragma once

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/Export.h>
#include <MolvaneAV/TimeOrderedFrameList.h>

#include <QMutex>

#include <cstdint>
#include <memory>

// Decoded audio of one playing source, in time order, and the fill of the
// audio device's buffers from it. The decoding side appends, trims and
// clears; the device callback calls PaFillBuffer. Every operation takes the
// cache's mutex, so the two sides may run on different threads.
//
// Neighbouring frames are stitched: each ends 1 µs before the next begins.
// The cache has no budget: the host trims it with UpdateCache.
class MOLVANEAV_EXPORT DecodedAudio : public TimeOrderedFrameList<DecodedAudioFrame>
{
public:
    DecodedAudio();
    ~DecodedAudio();
    DecodedAudio(const DecodedAudio&) = delete;
    DecodedAudio& operator=(const DecodedAudio&) = delete;

    // Slots for count frames (1 counts as 2); a cache holding frames keeps
    // them, re-packed in order. Until it is called, appended frames are
    // dropped.
    void SetMaxFrameCount(int count);
    // Places a frame after the newest or before the oldest one; an empty
    // pointer clears the cache.
    void AppendFrame(std::shared_ptr<DecodedAudioFrame> frame);
    // Drops frames ending before fromTime and starting after toTime.
    void UpdateCache(long long fromTime, long long toTime);
    void Clear();
    void ForceClear();
    // Makes the next fill find its place by time again.
    void FlushPaBuffer();

    // The list's state, read under the mutex like everything else.
    FramePtr FirstFrame() const;
    FramePtr LastFrame() const;
    int GetFrameCount() const;
    int GetMaxFrameCount() const;
    int64_t GetSize() const;
    int64_t GetStartTime() const;
    int64_t GetEndTime() const;

    // Fills frameCount interleaved sample frames of channelCount channels
    // from playTime (µs) on, at the given volume and speed; silence where
    // no audio is cached. Returns frameCount. Never waits for decoding.
    int PaFillBuffer(short* buffer, int frameCount, int channelCount, int sampleRate, long long playTime,
                     double volume, bool reset, double speed);

private:
    void PaSyncAudio(short* buffer, int frameCount, long long sampleTime, int channelCount, int sampleRate,
                     int& framesWritten);
    void PaResetDiffCounter();
    void PushBack(std::shared_ptr<DecodedAudioFrame> frame);
    void PushFront(std::shared_ptr<DecodedAudioFrame> frame);
    int GetNextFrameIndex(int slot) const;
    int GetPreviousFrameIndex(int slot) const;
    void ClearLocked();
    void ForceClearLocked();
    // Moves the fill to the next frame (by time without a position); false
    // when there is none.
    bool FetchFrame(long long playTime, int sampleRate);
    bool IsInList(int slot) const;

    std::shared_ptr<DecodedAudioFrame> paCurrentFrame;
    int32_t paFrameIndex;
    int16_t* paSamples;
    int64_t paFrameStart;
    int32_t paRemainingFrames;
    int32_t paDiffCounter;
    int64_t paDiffSum;
    int32_t paFlushCount;
    int32_t paSeenFlushCount;
    double paSpeedAccumulator;
    mutable QMutex mutex;
};
