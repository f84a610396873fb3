#include <MolvaneAV/MediaInstance.h>

#include <MolvaneAV/AvGlobals.h>
#include <MolvaneAV/Logger.h>
#include <MolvaneAV/MediaReader.h>

#include "decode/AudioDecoder.h"
#include "decode/VideoDecoder.h"
#include "foundation/FfmpegCompat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace {

void FreeCodecContext(AVCodecContext* context)
{
    avcodec_free_context(&context);
}

void CloseFormatContext(AVFormatContext* context)
{
    MediaReader::CloseInput(&context);
}

void FreePacket(AVPacket* packet)
{
    av_packet_free(&packet);
}

// Output channels after the host's cap; 0 or less means no cap.
int CappedChannels(int channels)
{
    const int cap = AvGlobals::maxAudioOutputChannels;
    return cap > 0 && cap < channels ? cap : channels;
}

int RotationFromMetadata(const VideoStream& stream)
{
    const QString value = stream.metadata.value(QStringLiteral("rotate"));
    if (value.isNull())
        return 0;
    bool ok = false;
    const int degrees = value.toInt(&ok, 10);
    return ok ? degrees : 0;
}

// Logs why av_find_best_stream found no stream; kind is "audio" or "video".
void LogStreamSearchFailure(const char* kind, int result)
{
    if (result == AVERROR_STREAM_NOT_FOUND)
        Logger::GetInstance()->Error(QStringLiteral("Failed to find %1 stream (Stream not found)").arg(kind).toUtf8().constData());
    else if (result == AVERROR_DECODER_NOT_FOUND)
        Logger::GetInstance()->Error(QStringLiteral("Failed to find %1 stream (Decoder not found)").arg(kind).toUtf8().constData());
    else
        Logger::GetInstance()->Error(QStringLiteral("Failed to find %1 stream index: %2").arg(kind).arg(result));
}

// Drops one reference: the field forgets the object, the owner frees it if
// no copy refers to it any more.
template <typename T>
void Release(T*& field, std::shared_ptr<T>& owner)
{
    field = nullptr;
    owner.reset();
}

} // namespace

MediaInstance::MediaInstance()
    : formatContext(nullptr),
      audioCodecContext(nullptr),
      videoCodecContext(nullptr),
      packet(nullptr),
      hasPacket(false),
      endOfFile(false),
      requiresLargeSeekOffset(false),
      audioStreamIndex(-1),
      videoStreamIndex(-1),
      channelCount(0),
      sampleRate(0),
      bytesPerSample(0),
      isPlanar(false),
      audioDecoder(nullptr),
      videoDecoder(nullptr)
{
}

MediaInstance::MediaInstance(const MediaInstance& other) = default;
MediaInstance& MediaInstance::operator=(const MediaInstance& other) = default;

MediaInstance::~MediaInstance()
{
    Shutdown();
}

void MediaInstance::CreateConverters()
{
    audioDecoderOwner = std::make_shared<AudioDecoder>();
    audioDecoder = audioDecoderOwner.get();
    videoDecoderOwner = std::make_shared<VideoDecoder>();
    videoDecoder = videoDecoderOwner.get();
}

void MediaInstance::CreatePacket()
{
    packetOwner.reset(av_packet_alloc(), FreePacket);
    packet = packetOwner.get();
    hasPacket = false;
}

bool MediaInstance::Initialize(std::weak_ptr<MediaInfo> info, int64_t)
{
    // A second Initialize starts afresh; copies keep what they share.
    if (packet != nullptr || formatContext != nullptr)
        Shutdown();

    CreateConverters();
    const std::shared_ptr<MediaInfo> source = info.lock();
    if (!source || !source->IsInitialized()) {
        Logger::GetInstance()->Error(QStringLiteral("Media info not initialized."));
        return false;
    }

    CreatePacket();
    mediaInfo = info;
    for (const VideoStream& stream : source->GetVideoStreams()) {
        if (stream.codecName == QLatin1String("mpeg1video"))
            requiresLargeSeekOffset = true;
    }
    return true;
}

bool MediaInstance::OpenInput()
{
    const std::shared_ptr<MediaInfo> info = mediaInfo.lock();
    if (!info) {
        Logger::GetInstance()->Error("Attempted to decode media that does not exist.");
        return false;
    }
    if (packet == nullptr || audioDecoder == nullptr || videoDecoder == nullptr) {
        Logger::GetInstance()->Error(QStringLiteral("Media info not initialized."));
        return false;
    }
    // Converters shared with a copy stay with the copy; set up our own.
    if (audioDecoderOwner.use_count() > 1 || videoDecoderOwner.use_count() > 1)
        CreateConverters();

    if (!MediaReader::OpenInput(info, &formatContext))
        return false;
    formatOwner.reset(formatContext, CloseFormatContext);

    if (!info->IsImage())
        avformat_find_stream_info(formatContext, nullptr);

    if (info->GetNumAudioStreams() > 0 && !OpenAudio(*info))
        return false;
    if (info->GetNumVideoStreams() < 1)
        return true;
    return OpenVideo(*info);
}

bool MediaInstance::OpenAudio(MediaInfo& info)
{
    molvane::compat::Codec* decoder = nullptr;
    audioStreamIndex = av_find_best_stream(formatContext, AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (audioStreamIndex < 0) {
        LogStreamSearchFailure("audio", audioStreamIndex);
        return false;
    }
    const AVStream* stream = formatContext->streams[audioStreamIndex];

    audioCodecOwner.reset(avcodec_alloc_context3(nullptr), FreeCodecContext);
    audioCodecContext = audioCodecOwner.get();
    int result = audioCodecContext != nullptr ? avcodec_parameters_to_context(audioCodecContext, stream->codecpar)
                                              : AVERROR(ENOMEM);
    if (result < 0) {
        Release(audioCodecContext, audioCodecOwner);
        Logger::GetInstance()->Error("Failed to create audio codec context.", result);
        return false;
    }
    result = avcodec_open2(audioCodecContext, decoder, nullptr);
    if (result < 0) {
        Logger::GetInstance()->Error("Failed to open audio decoder.", result);
        return false;
    }

    AudioStream record;
    info.GetAudioStream(audioStreamIndex, record);
    if (!record.isValid) {
        Logger::GetInstance()->Error("Audio stream invalid or not found.");
        return false;
    }
    channelCount = record.channelCount;
    sampleRate = record.sampleRate;
    bytesPerSample = record.bytesPerSample;
    isPlanar = record.isPlanar;
    audioDecoder->Setup(audioCodecContext, stream->time_base, record.channelCount, record.channelLayout,
                        record.sampleRate, record.sampleFormat);
    return true;
}

bool MediaInstance::OpenVideo(MediaInfo& info)
{
    molvane::compat::Codec* decoder = nullptr;
    videoStreamIndex = av_find_best_stream(formatContext, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    if (videoStreamIndex < 0) {
        LogStreamSearchFailure("video", videoStreamIndex);
        return false;
    }
    const AVStream* stream = formatContext->streams[videoStreamIndex];

    videoCodecOwner.reset(avcodec_alloc_context3(nullptr), FreeCodecContext);
    videoCodecContext = videoCodecOwner.get();
    const int result = videoCodecContext != nullptr
        ? avcodec_parameters_to_context(videoCodecContext, stream->codecpar)
        : AVERROR(ENOMEM);
    if (result < 0) {
        Release(videoCodecContext, videoCodecOwner);
        Logger::GetInstance()->Error("Failed to create video codec context.", result);
        return false;
    }
    videoCodecContext->thread_count = 0;
    if (avcodec_open2(videoCodecContext, decoder, nullptr) < 0) {
        Logger::GetInstance()->Error("Failed to open video decoder.");
        return false;
    }

    VideoStream record;
    info.GetVideoStream(videoStreamIndex, record);
    if (!record.isValid) {
        Logger::GetInstance()->Error("Video stream invalid or not found.");
        return false;
    }
    videoDecoder->Setup(videoCodecContext, stream->time_base, record.width, record.height, record.pixelAspectRatio,
                        record.startTime, record.frameRate, RotationFromMetadata(record), info.IsImage(),
                        info.IsLinearColorSpace());
    return true;
}

void MediaInstance::CloseInput()
{
    const bool sharedWithCopy = packetOwner.use_count() > 1 || audioDecoderOwner.use_count() > 1 ||
                                videoDecoderOwner.use_count() > 1;
    if (sharedWithCopy) {
        // A copy still decodes with the packet and converters: leave them
        // to it and carry on with fresh ones.
        if (packet != nullptr)
            CreatePacket();
        if (audioDecoder != nullptr || videoDecoder != nullptr)
            CreateConverters();
    } else {
        ReleasePacket();
        if (audioDecoder != nullptr)
            audioDecoder->Reset();
        if (videoDecoder != nullptr)
            videoDecoder->Reset();
    }
    Release(audioCodecContext, audioCodecOwner);
    Release(videoCodecContext, videoCodecOwner);
    Release(formatContext, formatOwner);
}

void MediaInstance::Shutdown()
{
    // Dropping the references frees what no copy still uses: the packet with
    // its contents, the converters, the decoders and the demuxer.
    hasPacket = false;
    Release(packet, packetOwner);
    Release(audioDecoder, audioDecoderOwner);
    Release(videoDecoder, videoDecoderOwner);
    Release(audioCodecContext, audioCodecOwner);
    Release(videoCodecContext, videoCodecOwner);
    Release(formatContext, formatOwner);
}

int MediaInstance::GetActiveAudioStreamIndex() const
{
    return audioStreamIndex;
}

int MediaInstance::GetActiveVideoStreamIndex() const
{
    return videoStreamIndex;
}

int MediaInstance::GetBytesPerSample() const
{
    return bytesPerSample;
}

int MediaInstance::GetChannelCount() const
{
    return channelCount;
}

int MediaInstance::GetOutputChannelCount() const
{
    return CappedChannels(channelCount);
}

int MediaInstance::GetSampleRate() const
{
    return sampleRate;
}

bool MediaInstance::IsPlaner() const
{
    return isPlanar;
}

bool MediaInstance::IsEndOfFile() const
{
    return endOfFile;
}

std::weak_ptr<MediaInfo> MediaInstance::GetMediaInfo() const
{
    return mediaInfo;
}

bool MediaInstance::IsAudioMatched(std::shared_ptr<MediaInstance> other)
{
    if (!other)
        return false;
    return CappedChannels(channelCount) == CappedChannels(other->channelCount) && sampleRate == other->sampleRate &&
           bytesPerSample == other->bytesPerSample && isPlanar == other->isPlanar;
}

void MediaInstance::ReleasePacket()
{
    if (hasPacket && packet != nullptr)
        av_packet_unref(packet);
    hasPacket = false;
}

void MediaInstance::ReadNextPacket()
{
    ReleasePacket();
    // A copy sharing the packet may have read into it since this instance
    // last did; the read below overwrites it, so release that first.
    if (packet != nullptr)
        av_packet_unref(packet);
    const bool ok = MediaReader::GetPacket(formatContext, packet);
    hasPacket = true;
    endOfFile = !ok;
}

bool MediaInstance::HasPacket()
{
    if (formatContext == nullptr) {
        if (!OpenInput())
            return false;
        ReadNextPacket();
    }
    return hasPacket;
}

void MediaInstance::DecodePacket(QList<std::shared_ptr<DecodedAudioFrame>>& audioFrames,
                                 QList<std::shared_ptr<DecodedVideoFrame>>& videoFrames, int64_t targetTime)
{
    // Without a waiting packet there is nothing to decode; in particular the
    // end-of-stream packet is never decoded twice.
    if (!hasPacket || packet == nullptr || audioDecoder == nullptr || videoDecoder == nullptr)
        return;

    do {
        const int streamIndex = packet->stream_index;
        if (streamIndex < 0 || streamIndex == audioStreamIndex)
            audioDecoder->Decode(packet, audioFrames);
        if (streamIndex < 0 || streamIndex == videoStreamIndex)
            videoDecoder->Decode(packet, videoFrames, targetTime);
        ReleasePacket();
        if (!endOfFile)
            ReadNextPacket();
    } while (audioStreamIndex >= 0 && hasPacket && packet->stream_index == audioStreamIndex);
}

void MediaInstance::ClearPacket()
{
    ReleasePacket();
}

void MediaInstance::PrepareNextPacket(bool force)
{
    ReleasePacket();
    if (endOfFile && !force)
        return;
    if (formatContext != nullptr && packet != nullptr)
        ReadNextPacket();
}

bool MediaInstance::IsAudioPacket() const
{
    return audioStreamIndex >= 0 && hasPacket && packet != nullptr && packet->stream_index == audioStreamIndex;
}

void MediaInstance::SetDecoderFrameRate(double frameRate)
{
    if (videoDecoder != nullptr)
        videoDecoder->SetFrameRate(frameRate);
}

void MediaInstance::Seek(int64_t time)
{
    const std::shared_ptr<MediaInfo> info = mediaInfo.lock();
    if (info && info->IsImage()) {
        // A drained image decoder takes no further packet: start over.
        CloseInput();
        if (!OpenInput())
            return;
    } else {
        if (formatContext == nullptr && !OpenInput())
            return;

        int result = 0;
        if (time == 0) {
            // Index -1 for a source without video: the container's own start.
            result = av_seek_frame(formatContext, videoStreamIndex, 0, AVSEEK_FLAG_BACKWARD);
        } else {
            // Sources without video position by their audio stream.
            const int streamIndex = videoStreamIndex >= 0 ? videoStreamIndex : audioStreamIndex;
            const AVRational timeBase =
                streamIndex >= 0 ? formatContext->streams[streamIndex]->time_base : AVRational{1, AV_TIME_BASE};
            const int64_t target = av_rescale_q(time, AVRational{1, 1000000}, timeBase);
            result = avformat_seek_file(formatContext, streamIndex, 0, target, target, AVSEEK_FLAG_FRAME);
        }
        // A refused positioning leaves everything as it was: the waiting
        // packet and the decoders go on from where they were.
        if (result < 0) {
            Logger::GetInstance()->Error(QStringLiteral("Seek Failed."), result);
            return;
        }
        // A failed open can leave a context that never opened; flushing
        // one reads decoder state that does not exist.
        if (videoCodecContext != nullptr && avcodec_is_open(videoCodecContext))
            avcodec_flush_buffers(videoCodecContext);
        if (audioCodecContext != nullptr && avcodec_is_open(audioCodecContext))
            avcodec_flush_buffers(audioCodecContext);
    }
    ReadNextPacket();
}

bool MediaInstance::RequiresLargeSeekOffset() const
{
    return requiresLargeSeekOffset;
}
