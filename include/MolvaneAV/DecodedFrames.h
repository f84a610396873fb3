#pragma once

#include <MolvaneAV/Export.h>

#include <QString>

#include <cstdint>

// One decoded, converted frame each. Records are made by the library inside
// std::make_shared, travel by std::shared_ptr and are never copied; the last
// holder to let go releases the buffer, on any thread.

// Interleaved signed 16-bit sound, channel by channel within each sample frame.
struct MOLVANEAV_EXPORT DecodedAudioFrame
{
    // A silent (zero-filled) buffer of sampleCount values.
    DecodedAudioFrame(int32_t sampleCount, int32_t samplesPerChannel, int32_t sampleRate, int64_t startTime,
                      int64_t endTime);
    ~DecodedAudioFrame();
    DecodedAudioFrame(const DecodedAudioFrame&) = delete;
    DecodedAudioFrame& operator=(const DecodedAudioFrame&) = delete;

    int16_t* samples;            // owned, bufferSampleCount values
    int32_t sampleCount;         // values the record stands for; the audio cache may change it
    int32_t bufferSampleCount;   // length of samples; positions beyond it read as silence
    int32_t sampleRate;
    int32_t samplesPerChannel;   // sample frames
    int64_t startTime;           // µs, first sample frame
    int64_t endTime;             // µs, last microsecond covered (inclusive)
    int32_t continuityTag;       // -1 unless the host tags neighbouring records
};

// Packed RGB24 picture, rows top to bottom, each row 3 × width bytes rounded
// up to a multiple of 4. Two special records: the end-of-stream marker (data
// null, everything 0) follows the last frame of a movie; the size-change
// placeholder (one zero byte, status 1, the new width and height) stands in
// for a picture whose size differs from the one decoding was set up for.
struct MOLVANEAV_EXPORT DecodedVideoFrame
{
    // The end-of-stream marker.
    DecodedVideoFrame();
    // Copies size bytes from source; size < 1 leaves data null.
    DecodedVideoFrame(const uint8_t* source, int32_t size, int32_t width, int32_t height, int64_t startTime,
                      double frameRate, int32_t rotation, bool isLinearColorSpace);
    ~DecodedVideoFrame();
    DecodedVideoFrame(const DecodedVideoFrame&) = delete;
    DecodedVideoFrame& operator=(const DecodedVideoFrame&) = delete;

    uint8_t* data;               // owned, or null when size < 1
    int32_t size;
    int32_t width;
    int32_t height;
    int64_t startTime;           // µs from the stream's first frame
    int64_t endTime;             // µs, set by the video cache
    double frameRate;
    int32_t rotation;            // clockwise degrees from the "rotate" tag
    bool isLinearColorSpace;     // pixels went through the gamma table
    int32_t status;              // 0 ordinary, 1 size-change placeholder
    QString userText;            // the host's; the library leaves it empty
};
