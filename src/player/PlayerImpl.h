#pragma once

// The engine's private state, shared by the files of src/player/: Player.cpp
// (open, close, the facade), Clock.cpp (position, speed, jumps and the frame
// shown), DecodeThread.cpp (what the decoding thread decodes next) and
// AudioFeed.cpp (the audio cache and the device fill).

#include <MolvaneAV/DecodedAudio.h>
#include <MolvaneAV/DecodedVideo.h>
#include <MolvaneAV/MediaInstance.h>
#include <MolvaneAV/Player.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

namespace molvane {

using VideoList = QList<std::shared_ptr<DecodedVideoFrame>>;
using AudioList = QList<std::shared_ptr<DecodedAudioFrame>>;

inline constexpr int64_t kSecond = 1000000;
// A still has no end of its own: it covers everything after it.
inline constexpr int64_t kForever = int64_t(1) << 60;
// Audio the decoder keeps ahead of the play position when there is no video.
inline constexpr int64_t kAudioAhead = 2 * kSecond;
// Bounds on the calls of one exact seek or one backward chunk, so that a
// broken file ends in a missing frame, never in a hang.
inline constexpr int kMaxCallsPerJob = 20000;
// A jump in the audio frames' times that the device fill corrects (µs).
inline constexpr int64_t kDriftCorrected = 10000;
// What the decoder holds of its own (reference pictures, one per thread), in
// pictures of the cache's size: its planes are half as large. Two more for
// the allocator's slack, which grows over a long run of backward chunks:
// measured at 1080p with the three frame threads of two cores, 30 s
// backwards; each further thread holds about two and a half more.
inline constexpr int64_t kDecoderPictures = 13;
// Sound decoded before the target of a jump in a file without video: the
// first frames after a decoder's flush come out wrong (AAC's overlap, MP3's
// bit reservoir; Opus asks for 80 ms).
inline constexpr int64_t kAudioPreroll = 100000;
// Frames by which an index's key-frame time may precede its picture's (the
// decoding order of B-frames).
inline constexpr int kKeyFrameSlack = 4;
// Pictures kept before the target of an exact seek, for stepping back.
inline constexpr int kTrailingPictures = 3;
// Size changes followed in a row without a picture coming out: beyond
// that, a decoder that keeps changing its mind gives missing pictures
// rather than an endless round of reopening.
inline constexpr int kMaxSizeSwitches = 4;
// Fewer cached frames than this always make the video cache ask for more
// ahead, whatever else it holds.
inline constexpr int kFewCachedFrames = 30;

// The first audio frame after an open or a seek can come out short (an MP3
// decoder trims its priming samples) but keeps its packet's time: its true
// start is where it ends just before its successor begins.
int64_t TrueStart(const DecodedAudioFrame& first, const DecodedAudioFrame& next);

struct Player::Impl {
    explicit Impl(int64_t budget) : requestedBudget(budget), budget(budget) {}

    // Set by Open before the thread starts, read-only afterwards.
    std::shared_ptr<MediaInfo> info;
    bool isImage = false;
    const int64_t requestedBudget;
    int64_t streamStart = 0, step = 40000;
    int channels = 0, sampleRate = 0;
    bool largeSeekOffset = false;
    int videoStreamIndex = -1;
    float pixelAspect = 1.0f;
    int probedWidth = 0, probedHeight = 0;

    // Cleared by the decoding thread when the video yields no picture from
    // the start of the stream to its end: the file then plays as sound.
    std::atomic<bool> hasVideo{false};
    // Cleared likewise when, without pictures, the sound yields none from
    // the start to the end: there is nothing to play.
    std::atomic<bool> hasAudio{false};
    // Cover art: the picture a container attaches to sound, shown for the
    // whole of it while the sound alone is decoded and drives the clock.
    std::shared_ptr<DecodedVideoFrame> cover;

    // The decoding thread's alone once it runs.
    MediaInstance instance;
    // The library converts pictures of the size it was set up with: after a
    // change of size the instance decodes with a copy of the probed record
    // that carries the new one.
    std::shared_ptr<MediaInfo> instanceInfo;
    int64_t plannedFrameBytes = 0; // the picture size the budget was split for
    int64_t budget;                // the cache's and the backward chunk's share
    int64_t cacheFrames = 42;      // pictures of the planned size that share fits
    // Wall time of the costliest backward chunk since the last jump: what is
    // shown while the next one decodes is cached before it starts.
    double chunkSeconds = 0.0;
    // The video's key frames by the container's index, empty without one;
    // with them, the wall time per picture decoded from a key frame, as the
    // last jump or chunk took it (0 while unknown), foretells what a decode
    // costs before it is made.
    std::vector<int64_t> keyFrames;
    double secondsPerPicture = 0.0;
    int switchesWithoutPicture = 0;
    // Whether the input's last repositioning went to the start of the
    // stream, and whether a picture (of any size) or a sound came out since.
    bool passFromStart = true, passHadPicture = false, passHadSound = false;

    DecodedAudio audio; // locks itself

    mutable std::mutex mutex; // guards everything below
    std::condition_variable wake, progress;
    DecodedVideo video;
    std::thread thread;
    bool quit = false, idle = false;
    double position = 0.0, speed = 0.0;
    std::optional<int64_t> seekTo;
    // 0 while unknown (a stream without a duration): then the end decoding
    // finds sets it.
    int64_t duration = 0;
    int64_t mediaEnd = 0;       // end of the video known so far
    bool endReached = false;    // the last picture is in the cache
    bool startReached = false;  // nothing lies before the oldest cached picture
    int64_t startReachedAt = 0; // its start then
    bool audioInStep = true;    // the audio cache follows forward decoding
    bool audioEnded = false;    // the input has no more packets
    bool instanceAtNewest = true;
    // After forward decoding moved the input back to the newest picture, the
    // first picture out must start by landBy (-1: no check pending); till
    // then its sound waits. resumeEarly: how much further back to go.
    int64_t landBy = -1, resumeEarly = 0;
    AudioList landingSounds;
    // The newest picture decoded forwards ends where its successor starts;
    // until that or the end of the stream comes, its end is a guess
    // (start + step). Its start while so, else -1.
    int64_t openPictureStart = -1;
    bool noPictures = false; // a pass from the start reached the end without one
    // Audio records keep their stream's times; the clock counts from the
    // first picture (or, without pictures, from the first sound).
    int64_t audioOffset = 0;
    VideoList drained; // pictures of the final drain waiting for room in the cache
    std::shared_ptr<DecodedAudioFrame> heldAudio; // a first frame waiting for its successor
    bool holdFirstAudio = true;
    Stats stats;
    std::set<int64_t> timeJumps; // where the audio frames' times jump

    void Run();
    void ExactSeek(int64_t target, std::unique_lock<std::mutex>& lock);
    void DecodeForward(std::unique_lock<std::mutex>& lock);
    void DecodeChunkBefore(int64_t start, std::unique_lock<std::mutex>& lock);
    // The target that has the library convert the pictures from kept
    // frames before time on.
    int64_t ConvertFrom(int64_t time, int64_t kept) const;
    // Playing backwards: frames shown while the next chunk decodes, at speed.
    int64_t FramesShownDuringChunk(double speed) const;
    // Playing backwards: frames to keep after now, so that a turn to forward
    // play shows them while the input goes back to the newest of them.
    int64_t FramesToTurnOn() const;
    // Frames shown at speed while a decode of so many seconds runs, with a
    // margin; at most half the cache.
    int64_t FramesShownDuring(double seconds, double speed) const;
    // The seconds a decode from the key frame before from up to until takes,
    // by the index; 0 without one or before any measure.
    double DecodeSeconds(int64_t from, int64_t until) const;
    int64_t KeyFrameBefore(int64_t time) const;
    // Cached frames before the one at now (all when now lies after them).
    int FramesBefore(int64_t now) const;
    // Drops the cached frames more than keep frames after the one at now.
    void DropFramesAfter(int64_t now, int64_t keep);
    bool DecodeCall(VideoList& video, AudioList& audio, int64_t target, std::unique_lock<std::mutex>& lock);
    void Reposition(int64_t time);
    bool AppendForward(const std::shared_ptr<DecodedVideoFrame>& frame);
    bool FollowSizeChange(const DecodedVideoFrame& placeholder, std::unique_lock<std::mutex>& lock);
    int64_t FrameBytes(int width, int height) const;
    void PlanBudget(int width, int height);
    void AppendAudio(const AudioList& frames);
    void PushAudio(std::shared_ptr<DecodedAudioFrame> frame);
    int64_t SoundStart();
    bool SoundPastEnd(int64_t end);
    void ClearCaches();
    void StreamEnded();
    int64_t Now() const { return int64_t(position); }
    int64_t LastPosition() const { return duration > 0 ? duration - 1 : kForever; }
    // mediaEnd before decoding reaches the end: the whole length, at least
    // one picture long.
    int64_t UnfoundEnd() const { return isImage || duration <= 0 ? kForever : std::max(duration, step); }
    void EndFound(int64_t end)
    {
        if (duration <= 0)
            duration = end + 1;
    }
    bool Covers(int64_t time) const { return video.GetFrame(time, 0) != nullptr; }
    // The cache holds the frame for time, and knows where it ends.
    bool Settled(const std::shared_ptr<DecodedVideoFrame>& frame) const
    {
        return frame && (frame->startTime != openPictureStart || frame != video.LastFrame());
    }
    bool Settled(int64_t time) const { return Settled(video.GetFrame(time, 0)); }
    void Wake()
    {
        idle = false;
        wake.notify_all();
    }
};

} // namespace molvane
