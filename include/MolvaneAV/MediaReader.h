#pragma once

#include <MolvaneAV/Export.h>
#include <MolvaneAV/MediaInfo.h>

#include <QMap>
#include <QString>

#include <cstddef>
#include <memory>

struct AVDictionary;
struct AVFormatContext;
struct AVPacket;

// Probing of media sources, and the demuxer operations that decoding shares.
class MOLVANEAV_EXPORT MediaReader
{
public:
    MediaReader();
    ~MediaReader();
    MediaReader& operator=(const MediaReader& other);

    // Opens the container named by info's path. *context must be null or
    // preallocated; it is null again after a failure. Reads no stream info.
    static bool OpenInput(std::shared_ptr<MediaInfo> info, AVFormatContext** context);
    // Fills info from the file. True when the container opened and its
    // stream information was found, whatever became of single streams.
    static bool ParseMedia(std::shared_ptr<MediaInfo> info);
    // Reads the next packet. On end of input or error the packet is left
    // blank (no data, size 0, stream index -1) and the result is false.
    static bool GetPacket(AVFormatContext* context, AVPacket* packet);
    // Closes and frees the demuxer; *context becomes null. Null is accepted.
    static void CloseInput(AVFormatContext** context);

private:
    static bool ParseVideoProperties(std::shared_ptr<MediaInfo> info, AVFormatContext* context, size_t streamIndex);
    static bool ParseAudioProperties(std::shared_ptr<MediaInfo> info, AVFormatContext* context, size_t streamIndex);
    static void ParseMetadata(AVDictionary* dictionary, QMap<QString, QString>& map);
};
