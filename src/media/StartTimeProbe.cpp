#include "media/StartTimeProbe.h"

#include <MolvaneAV/Logger.h>
#include <MolvaneAV/MediaReader.h>

#include "decode/VideoDecoder.h"
#include "foundation/FfmpegGuards.h"
#include "media/StreamDecoder.h"

#include <vector>

namespace molvane {

namespace {

constexpr int kMaxProbePackets = 250;

// The first packets of the container, ending in a blank packet when the
// input ran out before the limit.
std::vector<PacketPtr> ReadProbePackets(AVFormatContext* context)
{
    std::vector<PacketPtr> packets;
    for (int read = 0; read < kMaxProbePackets; ++read) {
        PacketPtr packet(av_packet_alloc());
        if (!packet)
            break;
        const bool ok = MediaReader::GetPacket(context, packet.get());
        packets.push_back(std::move(packet));
        if (!ok)
            break;
    }
    return packets;
}

// Decodes the stream's packets until the first frame; empty when none came.
QList<std::shared_ptr<DecodedVideoFrame>> FirstFrames(const VideoStream& stream, const MediaInfo& info,
                                                       AVFormatContext* context,
                                                       const std::vector<PacketPtr>& packets)
{
    QList<std::shared_ptr<DecodedVideoFrame>> frames;
    const AVStream* avStream = context->streams[stream.index];

    const CodecContextPtr codecContext = OpenStreamDecoder(avStream, false);
    if (!codecContext)
        return frames;

    VideoDecoder videoDecoder;
    videoDecoder.Setup(codecContext.get(), avStream->time_base, stream.width, stream.height, stream.pixelAspectRatio,
                       0, stream.frameRate, 0, info.isImage, info.isLinearColorSpace);
    for (const PacketPtr& packet : packets) {
        if (packet->stream_index != stream.index && packet->stream_index != -1)
            continue;
        videoDecoder.Decode(packet.get(), frames, -1);
        if (!frames.isEmpty())
            break;
    }
    videoDecoder.Reset();
    return frames;
}

} // namespace

void ProbeStartTimes(MediaInfo& info, AVFormatContext* context)
{
    const std::vector<PacketPtr> packets = ReadProbePackets(context);

    for (VideoStream& stream : info.videoStreams) {
        // A stream whose properties could not be read has no usable index.
        if (!stream.isValid || stream.index < 0 || stream.index >= static_cast<int>(context->nb_streams))
            continue;

        const auto frames = FirstFrames(stream, info, context, packets);
        if (frames.isEmpty())
            continue;
        // Without any picture the first record is the end-of-stream marker,
        // whose time is 0.
        const int64_t firstTime = frames.first()->startTime;
        if (firstTime < 0) {
            stream.startTime = 0;
            Logger::GetInstance()->Info(
                QStringLiteral("INFO: Video stream (%1) start time is less than 0. Skipping negative frames: %2 (%3)")
                    .arg(stream.index)
                    .arg(info.GetFileName())
                    .arg(firstTime));
        } else {
            stream.startTime = firstTime;
        }
    }
}

} // namespace molvane
