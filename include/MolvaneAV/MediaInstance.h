#pragma once

#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/Export.h>
#include <MolvaneAV/MediaInfo.h>

#include <QList>

#include <cstdint>
#include <memory>

struct AVCodecContext;
struct AVFormatContext;
struct AVPacket;
class AudioDecoder;
class VideoDecoder;

// Decodes one probed media source into DecodedVideoFrame and
// DecodedAudioFrame records. The input opens lazily on the first HasPacket
// or Seek. A host's loop:
//
//   instance.Initialize(info, 0);
//   while (instance.HasPacket())
//       instance.DecodePacket(audio, video, -1);
//
// ends with an end-of-stream marker (null data) in the video list. After
// Seek(T), pass T as targetTime to drop frames well before it.
//
// Copies share the demuxer, decoders, packet and converters; each object is
// released when the last copy that refers to it lets go. One thread at a
// time per instance and its copies.
class MOLVANEAV_EXPORT MediaInstance
{
public:
    MediaInstance();
    MediaInstance(const MediaInstance& other);
    MediaInstance& operator=(const MediaInstance& other);
    ~MediaInstance();

    // Prepares decoding of a probed source; opens nothing yet. value is the
    // host's and unused by the library.
    bool Initialize(std::weak_ptr<MediaInfo> info, int64_t value);
    // Closes the demuxer and decoders; the next HasPacket or Seek reopens.
    void CloseInput();
    // Closes and releases everything; Initialize is needed again.
    void Shutdown();

    int GetActiveAudioStreamIndex() const;
    int GetActiveVideoStreamIndex() const;
    int GetBytesPerSample() const;
    int GetChannelCount() const;
    // Channels of the decoded audio: the stream's, capped by
    // AvGlobals::maxAudioOutputChannels when that is above 0.
    int GetOutputChannelCount() const;
    int GetSampleRate() const;
    bool IsPlaner() const;
    bool IsEndOfFile() const;
    std::weak_ptr<MediaInfo> GetMediaInfo() const;
    // Same output channel count, rate, sample size and planarity.
    bool IsAudioMatched(std::shared_ptr<MediaInstance> other);

    // True while a packet waits to be decoded; opens the input on first use.
    bool HasPacket();
    // Decodes the waiting packet and every audio packet right after it.
    // targetTime >= 0 (µs) drops video frames more than
    // Settings::maxTrailingFramesAfterSeek frames before it.
    void DecodePacket(QList<std::shared_ptr<DecodedAudioFrame>>& audioFrames,
                      QList<std::shared_ptr<DecodedVideoFrame>>& videoFrames, int64_t targetTime);
    void ClearPacket();
    bool IsAudioPacket() const;
    void SetDecoderFrameRate(double frameRate);

    // Moves decoding to time (µs); the next packets come from the key frame
    // at or before it. Stills are reopened instead.
    void Seek(int64_t time);
    // The source has MPEG-1 video, whose seeks land late: hosts seek earlier.
    bool RequiresLargeSeekOffset() const;

private:
    bool OpenInput();
    void PrepareNextPacket(bool force);
    void ReadNextPacket();
    void ReleasePacket();
    bool OpenAudio(MediaInfo& info);
    bool OpenVideo(MediaInfo& info);
    void CreateConverters();
    void CreatePacket();

    std::weak_ptr<MediaInfo> mediaInfo;
    AVFormatContext* formatContext;
    AVCodecContext* audioCodecContext;
    AVCodecContext* videoCodecContext;
    AVPacket* packet;
    bool hasPacket;
    bool endOfFile;
    bool requiresLargeSeekOffset;
    int32_t audioStreamIndex;
    int32_t videoStreamIndex;
    int32_t channelCount;
    int32_t sampleRate;
    int32_t bytesPerSample;
    bool isPlanar;
    AudioDecoder* audioDecoder;
    VideoDecoder* videoDecoder;

    // Owners of the objects above, shared with copies: an object is freed
    // when the last instance referring to it lets go, never twice.
    std::shared_ptr<AVFormatContext> formatOwner;
    std::shared_ptr<AVCodecContext> audioCodecOwner;
    std::shared_ptr<AVCodecContext> videoCodecOwner;
    std::shared_ptr<AVPacket> packetOwner;
    std::shared_ptr<AudioDecoder> audioDecoderOwner;
    std::shared_ptr<VideoDecoder> videoDecoderOwner;
};
