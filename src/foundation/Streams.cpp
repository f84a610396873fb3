#include <MolvaneAV/AudioStream.h>
#include <MolvaneAV/VideoStream.h>

VideoStream::VideoStream()
    : isValid(false),
      index(-1),
      width(0),
      height(0),
      pixelAspectRatio(1.0f),
      startTime(0),
      frameStep(0),
      frameRate(0.0),
      numFrames(0),
      decoderDelay(0)
{
}

VideoStream::VideoStream(const VideoStream& other) = default;
VideoStream& VideoStream::operator=(const VideoStream& other) = default;
VideoStream::~VideoStream() = default;

AudioStream::AudioStream()
    : isValid(false),
      index(-1),
      channelCount(0),
      channelLayout(0),
      isPlanar(false),
      bytesPerSample(0),
      sampleRate(0),
      sampleFormat(-1)
{
}

AudioStream::AudioStream(const AudioStream& other) = default;
AudioStream& AudioStream::operator=(const AudioStream& other) = default;
AudioStream::~AudioStream() = default;
