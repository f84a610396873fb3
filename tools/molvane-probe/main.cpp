// molvane-probe: describes media files the way MolvaneAV sees them.
//
//   molvane-probe [--json] [--image] FILE...
//
// Prints duration, container metadata and every audio and video stream.
// --json prints a JSON array with one object per file, keyed by the record
// members. --image marks the files as stills. Exits 1 when any file could
// not be probed; the library's message goes to stderr.

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTextStream>

#include <cstdio>
#include <memory>

namespace {

QJsonObject ToJson(const QMap<QString, QString>& map)
{
    QJsonObject object;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        object.insert(it.key(), it.value());
    return object;
}

QJsonObject ToJson(const VideoStream& stream)
{
    return QJsonObject{
        {"index", stream.index},
        {"codecName", stream.codecName},
        {"width", stream.width},
        {"height", stream.height},
        {"pixelAspectRatio", static_cast<double>(stream.pixelAspectRatio)},
        {"startTime", static_cast<qint64>(stream.startTime)},
        {"frameStep", static_cast<qint64>(stream.frameStep)},
        {"frameRate", stream.frameRate},
        {"numFrames", static_cast<qint64>(stream.numFrames)},
        {"decoderDelay", stream.decoderDelay},
        {"isValid", stream.isValid},
        {"metadata", ToJson(stream.metadata)},
    };
}

QJsonObject ToJson(const AudioStream& stream)
{
    return QJsonObject{
        {"index", stream.index},
        {"codecName", stream.codecName},
        {"channelCount", stream.channelCount},
        {"channelLayout", static_cast<qint64>(stream.channelLayout)},
        {"isPlanar", stream.isPlanar},
        {"bytesPerSample", stream.bytesPerSample},
        {"sampleRate", stream.sampleRate},
        {"sampleFormat", stream.sampleFormat},
        {"isValid", stream.isValid},
        {"metadata", ToJson(stream.metadata)},
    };
}

QJsonObject ToJson(MediaInfo& info)
{
    QJsonArray video;
    for (const VideoStream& stream : info.GetVideoStreams())
        video.append(ToJson(stream));
    QJsonArray audio;
    for (const AudioStream& stream : info.GetAudioStreams())
        audio.append(ToJson(stream));
    return QJsonObject{
        {"filePath", info.filePath},
        {"duration", static_cast<qint64>(info.duration)},
        {"isImage", info.isImage},
        {"metadata", ToJson(info.metadata)},
        {"videoStreams", video},
        {"audioStreams", audio},
    };
}

void PrintMetadata(QTextStream& out, const QMap<QString, QString>& map, const char* indent)
{
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        out << indent << it.key() << ": " << it.value() << '\n';
}

QString SampleFormatName(int format)
{
    const char* name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(format));
    return name != nullptr ? QString::fromLatin1(name) : QStringLiteral("unknown");
}

void PrintText(QTextStream& out, MediaInfo& info)
{
    out << info.filePath << '\n';
    out << "  duration: " << info.GetDurationAsString() << " (" << info.duration << " us)\n";
    PrintMetadata(out, info.metadata, "  ");
    for (const VideoStream& s : info.GetVideoStreams()) {
        out << "  video stream " << s.index << ": ";
        if (!s.isValid) {
            out << "not decodable\n";
            continue;
        }
        out << s.codecName << ", " << s.width << "x" << s.height
            << ", pixel aspect " << QString::number(s.pixelAspectRatio, 'f', 4)
            << ", rotation " << s.metadata.value(QStringLiteral("rotate"), QStringLiteral("0"))
            << ", " << s.frameRate << " fps, frame step " << s.frameStep << " us, "
            << s.numFrames << " frames, start " << s.startTime << " us, decoder delay "
            << s.decoderDelay << '\n';
        PrintMetadata(out, s.metadata, "    ");
    }
    for (const AudioStream& s : info.GetAudioStreams()) {
        out << "  audio stream " << s.index << ": ";
        if (!s.isValid) {
            out << "not decodable\n";
            continue;
        }
        out << s.codecName << ", " << s.channelCount << " channels (layout 0x"
            << QString::number(s.channelLayout, 16) << "), " << s.sampleRate << " Hz, "
            << SampleFormatName(s.sampleFormat) << (s.isPlanar ? " planar" : " interleaved")
            << ", " << s.bytesPerSample << " bytes per sample\n";
        PrintMetadata(out, s.metadata, "    ");
    }
}

int Usage()
{
    std::fputs("usage: molvane-probe [--json] [--image] FILE...\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    bool json = false;
    bool image = false;
    QStringList files;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == QLatin1String("--json"))
            json = true;
        else if (arg == QLatin1String("--image"))
            image = true;
        else if (arg == QLatin1String("--help") || arg == QLatin1String("-h"))
            return Usage();
        else
            files << arg;
    }
    if (files.isEmpty())
        return Usage();

    QTextStream out(stdout);
    QJsonArray documents;
    int status = 0;
    for (const QString& file : files) {
        auto info = std::make_shared<MediaInfo>(file);
        info->isImage = image;
        if (!MediaReader::ParseMedia(info)) {
            status = 1;
            continue;
        }
        if (json)
            documents.append(ToJson(*info));
        else
            PrintText(out, *info);
    }
    if (json)
        out << QJsonDocument(documents).toJson(QJsonDocument::Indented);
    return status;
}
