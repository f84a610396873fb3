#include <MolvaneAV/MediaReader.h>

#include <MolvaneAV/Logger.h>

#include "foundation/FfmpegCompat.h"
#include "foundation/FfmpegGuards.h"
#include "media/StartTimeProbe.h"
#include "media/StreamDecoder.h"

#include <QFileInfo>

#include <cmath>
#include <string>

using molvane::CodecContextPtr;
using molvane::OpenStreamDecoder;
using molvane::InputContextPtr;

namespace {

struct FrameTiming {
    double frameRate = 0.0;
    int64_t frameStep = 0;
};

// The rate rounded to three decimals and the frame length it gives. False
// when the rate yields no positive frame step (0/x, x/0, rates below 0.0005
// or above 1,000,000 fps): such a stream keeps the record's defaults.
bool TimingFromRate(AVRational rate, FrameTiming& timing)
{
    if (rate.num == 0 || rate.den == 0)
        return false;
    const double rounded = static_cast<double>(rate.num) / static_cast<double>(rate.den) * 1000.0 + 0.5;
    if (!(rounded >= 1.0) || rounded >= 2147483648.0)
        return false;
    const double frameRate = static_cast<int32_t>(rounded) / 1000.0;
    const int64_t frameStep = static_cast<int64_t>(1.0 / frameRate * 1000000.0);
    if (frameStep <= 0)
        return false;
    timing.frameRate = frameRate;
    timing.frameStep = frameStep;
    return true;
}

// FFmpeg 4 turned a display matrix into the "rotate" tag (clockwise degrees);
// FFmpeg 5 keeps only the matrix, so rebuild the tag for hosts and decoding.
void AddRotateTag(const AVStream* stream, QMap<QString, QString>& metadata)
{
    const QString key = QStringLiteral("rotate");
    if (metadata.contains(key))
        return;
    const int32_t* matrix = molvane::compat::DisplayMatrix(stream);
    if (matrix == nullptr)
        return;
    const double counterClockwise = av_display_rotation_get(matrix);
    if (std::isnan(counterClockwise))
        return;
    long degrees = std::lround(-counterClockwise) % 360;
    if (degrees < 0)
        degrees += 360;
    metadata.insert(key, QString::number(degrees));
}

} // namespace

MediaReader::MediaReader() = default;
MediaReader::~MediaReader() = default;

MediaReader& MediaReader::operator=(const MediaReader&)
{
    return *this;
}

bool MediaReader::OpenInput(std::shared_ptr<MediaInfo> info, AVFormatContext** context)
{
    if (!info || context == nullptr)
        return false;

    const QFileInfo fileInfo(info->GetFilePath());
    const QString absolutePath = fileInfo.absoluteFilePath();
    if (!fileInfo.exists()) {
        Logger::GetInstance()->Error(QStringLiteral("File not found: %1").arg(absolutePath));
        return false;
    }

    const std::string url = absolutePath.toStdString();
    const int result = avformat_open_input(context, url.c_str(), nullptr, nullptr);
    if (result < 0) {
        Logger::GetInstance()->Error(QStringLiteral("Failed to open input for parsing: %1").arg(absolutePath), result);
        return false;
    }
    return true;
}

bool MediaReader::ParseMedia(std::shared_ptr<MediaInfo> info)
{
    if (!info)
        return false;

    info->initialized = false;
    info->audioStreams.clear();
    info->videoStreams.clear();

    AVFormatContext* opened = nullptr;
    if (!OpenInput(info, &opened))
        return false;
    InputContextPtr context(opened);

    const int result = avformat_find_stream_info(context.get(), nullptr);
    if (result < 0) {
        context.reset();
        Logger::GetInstance()->Error(
            QStringLiteral("Failed to find stream information for \"%1\"").arg(info->GetFileName()), result);
        return false;
    }

    info->duration = context->duration > 0 ? context->duration : -1;
    ParseMetadata(context->metadata, info->metadata);

    for (size_t i = 0; i < context->nb_streams; ++i) {
        switch (context->streams[i]->codecpar->codec_type) {
        case AVMEDIA_TYPE_AUDIO:
            info->audioStreams.append(AudioStream());
            ParseAudioProperties(info, context.get(), i);
            break;
        case AVMEDIA_TYPE_VIDEO:
            info->videoStreams.append(VideoStream());
            ParseVideoProperties(info, context.get(), i);
            break;
        default:
            break;
        }
    }

    // An image has no timeline and is probed without reading a packet; the
    // start times of movies come from their first decoded frames.
    if (info->isImage)
        info->duration = -1;
    else
        molvane::ProbeStartTimes(*info, context.get());

    context.reset();
    info->initialized = true;
    return true;
}

bool MediaReader::GetPacket(AVFormatContext* context, AVPacket* packet)
{
    if (packet == nullptr)
        return false;
    if (context != nullptr && av_read_frame(context, packet) >= 0)
        return true;

    // End of input and read errors look the same to callers: a blank packet
    // that drains the decoders.
    molvane::compat::InitPacket(packet);
    packet->data = nullptr;
    packet->size = 0;
    packet->stream_index = -1;
    return false;
}

void MediaReader::CloseInput(AVFormatContext** context)
{
    if (context != nullptr)
        avformat_close_input(context);
}

bool MediaReader::ParseVideoProperties(std::shared_ptr<MediaInfo> info, AVFormatContext* context, size_t streamIndex)
{
    if (info->videoStreams.isEmpty() || streamIndex >= context->nb_streams)
        return false;
    const AVStream* stream = context->streams[streamIndex];

    const CodecContextPtr codecContext = OpenStreamDecoder(
        stream, true, {"Failed to get video codec context.", "Video decoder not found.", "Failed to open video codec."});
    if (!codecContext)
        return false;

    VideoStream& record = info->videoStreams.last();
    record.index = static_cast<int>(streamIndex);
    record.codecName = QString::fromUtf8(codecContext->codec->name);
    record.width = codecContext->width;
    record.height = codecContext->height;
    const AVRational aspect = codecContext->sample_aspect_ratio;
    const float pixelAspect = aspect.den != 0
        ? static_cast<float>(static_cast<double>(aspect.num) / static_cast<double>(aspect.den))
        : 1.0f;
    record.pixelAspectRatio = pixelAspect > 0.0f ? pixelAspect : 1.0f;
    ParseMetadata(stream->metadata, record.metadata);
    AddRotateTag(stream, record.metadata);

    if (info->isImage) {
        info->duration = -1;
        record.numFrames = 1;
        record.frameRate = -1.0;
        record.frameStep = -1;
    } else if (info->duration > 0) {
        const AVRational rate = stream->avg_frame_rate.num != 0 ? stream->avg_frame_rate : stream->r_frame_rate;
        FrameTiming timing;
        if (TimingFromRate(rate, timing)) {
            record.frameRate = timing.frameRate;
            record.frameStep = timing.frameStep;
            int64_t frames = info->duration / timing.frameStep;
            if (info->duration % timing.frameStep > 0)
                ++frames;
            // Trust the container's count when it differs only by rounding.
            if (stream->nb_frames > 0 && (stream->nb_frames == frames + 1 || stream->nb_frames == frames - 1))
                frames = stream->nb_frames;
            record.numFrames = frames;
        }
    }

    record.decoderDelay = codecContext->delay;
    record.isValid = true;
    return true;
}

bool MediaReader::ParseAudioProperties(std::shared_ptr<MediaInfo> info, AVFormatContext* context, size_t streamIndex)
{
    if (info->audioStreams.isEmpty() || streamIndex >= context->nb_streams)
        return false;
    const AVStream* stream = context->streams[streamIndex];

    const CodecContextPtr codecContext = OpenStreamDecoder(
        stream, false, {"Failed to get audio codec.", "Audio decoder not found.", "Failed to open audio codec."});
    if (!codecContext)
        return false;

    AudioStream& record = info->audioStreams.last();
    const int channels = molvane::compat::ChannelCount(codecContext.get());
    const uint64_t layout = molvane::compat::ChannelLayoutMask(codecContext.get());
    const AVSampleFormat format = codecContext->sample_fmt;
    record.index = static_cast<int>(streamIndex);
    record.codecName = QString::fromUtf8(codecContext->codec->name);
    record.channelCount = channels;
    record.channelLayout = layout != 0 ? layout : molvane::compat::DefaultChannelLayout(channels);
    record.isPlanar = av_sample_fmt_is_planar(format) != 0;
    record.bytesPerSample = av_get_bytes_per_sample(format);
    record.sampleRate = codecContext->sample_rate;
    record.sampleFormat = format;
    record.isValid = true;
    ParseMetadata(stream->metadata, record.metadata);
    return true;
}

void MediaReader::ParseMetadata(AVDictionary* dictionary, QMap<QString, QString>& map)
{
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr)
        map.insert(QString::fromUtf8(entry->key), QString::fromUtf8(entry->value));
}
