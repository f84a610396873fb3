#pragma once

// The player engine: one object per open file, driving the library as a
// host does. It owns a MediaInstance, a DecodedVideo and a DecodedAudio, and
// the decoding thread that keeps both caches filled around the play position,
// forwards or backwards as the video cache's answers say. The host moves the
// clock, asks for the frame to show at each display tick and fills its audio
// device from the engine. Open and Close must not overlap other calls; every
// other member may be called from any thread.

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/Export.h>
#include <MolvaneAV/MediaInfo.h>

#include <QString>

#include <cstdint>
#include <memory>

namespace molvane {

class MOLVANEAV_EXPORT Player
{
public:
    struct Stats {
        int64_t videoCacheBudget = 0;       // bytes, the largest the cache was given
        int64_t peakVideoCacheBytes = 0;    // largest cache size after an append
        // Largest size of the cache and the backward chunk being decoded together.
        int64_t peakPictureBytes = 0;
        int64_t largestFrameBytes = 0;
        // Largest size of the audio cache after an append: the sound kept
        // around the play position, not all that was decoded.
        int64_t peakAudioCacheBytes = 0;
        int64_t decodedPictures = 0;
        int64_t decodedMicros = 0;          // media time of the pictures (or audio) decoded
        double decodeSeconds = 0.0;         // wall time spent inside the library's decoding calls
        int seeks = 0;                      // exact seeks, and the seeks made again because one landed late
        int reseeks = 0;
        int backwardChunks = 0;             // decodes from a key frame for the pictures before the cache
        // Places where the times of the audio frames decoded forwards jump,
        // which the device fill corrects by skipping or repeating samples.
        int driftCorrections = 0;
    };

    explicit Player(int64_t videoCacheBytes = int64_t(512) << 20);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // Probes the file and starts decoding at 0, paused. False after the
    // library logged why: it cannot be read, or has no audio or video
    // stream (no video stream for a still). A still is shown for imageDuration.
    bool Open(const QString& path, bool isImage = false, int64_t imageDuration = 5000000);
    void Close();

    std::shared_ptr<const MediaInfo> Info() const;
    // False for a file whose video yields no picture from the start of the
    // stream to its end, once decoding has found that out; it then plays as
    // sound alone. True for cover art (a picture the container attaches to
    // sound): the sound drives the clock, and every time shows the cover.
    bool HasVideo() const;
    // False, likewise, for sound that yields nothing when played from the
    // start of the stream to its end, once the pictures are known to yield
    // none (or there are none): nothing is left to play.
    bool HasAudio() const;
    // µs from the first frame to the end of the media; 0 while unknown (no
    // length in the file, or sound that goes on past it) until decoding finds the end.
    int64_t Duration() const;
    int64_t FrameStep() const;
    int AudioChannels() const;              // of the decoded audio, 0 without audio
    int AudioSampleRate() const;

    // The clock.
    int64_t Position() const;
    double Speed() const;
    void SetSpeed(double speed);            // 0 pauses, negative plays backwards
    void Advance(int64_t wallMicros);       // position += speed × wallMicros, held at 0 and the end
    void Seek(int64_t position);            // exact: the next frame shown covers position
    void StepFrames(int count);             // pauses and moves count frames from the one shown

    // The frame the cache holds for time now, or null. Its pixels, size and
    // startTime stay as they are; its endTime belongs to the engine, which
    // moves it while the frame is cached. settled says whether its end is
    // known: the newest picture decoded ends where its successor starts, and
    // until that comes a later frame may be the one for time.
    std::shared_ptr<DecodedVideoFrame> FrameAt(int64_t time, bool* settled = nullptr) const;
    // Waits until the cache holds the frame for time with its end known, or
    // decoding cannot bring it.
    std::shared_ptr<DecodedVideoFrame> WaitFrameAt(int64_t time);
    // Waits until the audio cache reaches time, or decoding cannot bring more.
    void WaitAudio(int64_t time);

    // One audio device buffer at the play position: interleaved int16 of
    // AudioChannels() at AudioSampleRate(); silence when paused or backwards.
    // Returns true when the cache had audio for it.
    bool FillAudio(int16_t* out, int frames, double volume);

    Stats GetStats() const;

    // The video cache around the play position, for a status display.
    struct CacheFill {
        int64_t bytes = 0;
        int framesAhead = 0;   // after the frame covering the position
        int framesBehind = 0;  // before it
    };
    CacheFill GetCacheFill() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace molvane
