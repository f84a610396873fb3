#include <MolvaneAV/DecodedFrames.h>

#include <algorithm>
#include <cstring>

DecodedAudioFrame::DecodedAudioFrame(int32_t sampleCount, int32_t samplesPerChannel, int32_t sampleRate,
                                     int64_t startTime, int64_t endTime)
    : samples(new int16_t[static_cast<size_t>(std::max(sampleCount, 0))]()),
      sampleCount(std::max(sampleCount, 0)),
      bufferSampleCount(std::max(sampleCount, 0)),
      sampleRate(sampleRate),
      samplesPerChannel(samplesPerChannel),
      startTime(startTime),
      endTime(endTime),
      continuityTag(-1)
{
}

DecodedAudioFrame::~DecodedAudioFrame()
{
    delete[] samples;
    samples = nullptr;
}

DecodedVideoFrame::DecodedVideoFrame()
    : data(nullptr),
      size(0),
      width(0),
      height(0),
      startTime(0),
      endTime(0),
      frameRate(0.0),
      rotation(0),
      isLinearColorSpace(false),
      status(0)
{
}

DecodedVideoFrame::DecodedVideoFrame(const uint8_t* source, int32_t size, int32_t width, int32_t height,
                                     int64_t startTime, double frameRate, int32_t rotation, bool isLinearColorSpace)
    : data(nullptr),
      size(size),
      width(width),
      height(height),
      startTime(startTime),
      endTime(0),
      frameRate(frameRate),
      rotation(rotation),
      isLinearColorSpace(isLinearColorSpace),
      status(0)
{
    if (size >= 1) {
        // The copy covers every byte; zero-filling first would only cost time
        // on every picture.
        if (source != nullptr) {
            data = new uint8_t[static_cast<size_t>(size)];
            std::memcpy(data, source, static_cast<size_t>(size));
        } else {
            data = new uint8_t[static_cast<size_t>(size)]();
        }
    }
}

DecodedVideoFrame::~DecodedVideoFrame()
{
    delete[] data;
    data = nullptr;
}
