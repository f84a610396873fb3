#pragma once

#include <MolvaneAV/AudioStream.h>
#include <MolvaneAV/Export.h>
#include <MolvaneAV/VideoStream.h>

#include <QList>
#include <QMap>
#include <QString>
#include <QUuid>

#include <cstdint>

// Description of one media source: a movie, an audio file, or a still image
// or image sequence. MediaReader::ParseMedia fills it; afterwards it is
// read-only. Timing accessors answer from the main video stream, the first
// entry of videoStreams. Times are microseconds.
class MOLVANEAV_EXPORT MediaInfo
{
public:
    explicit MediaInfo(const QString& path);
    MediaInfo(const MediaInfo& other);
    MediaInfo& operator=(const MediaInfo& other);
    ~MediaInfo();

    void DebugPrint() const;

    QString GetFilePath();
    QString GetFileName();
    const QUuid& GetID() const;
    const QUuid& GetSourceID() const;
    bool IsInitialized() const;
    bool IsImage() const;
    bool IsLinearColorSpace() const;

    int GetNumAudioStreams() const;
    int GetNumVideoStreams() const;
    const QList<AudioStream>& GetAudioStreams() const;
    const QList<VideoStream>& GetVideoStreams() const;
    // Look up by container stream index; out is left untouched when no
    // stream has that index.
    void GetAudioStream(int index, AudioStream& out) const;
    void GetVideoStream(int index, VideoStream& out) const;

    int64_t GetDuration() const;
    double GetDurationInSeconds() const;
    int64_t GetStartTime() const;
    double GetFrameRate() const;
    int64_t GetFrameStep() const;
    int64_t GetNumFrames() const;
    int GetVideoWidth() const;
    int GetVideoHeight() const;
    bool IsVideoRotated() const;
    // "hh:mm:ss.cc", hours not capped.
    QString GetDurationAsString();

    QString filePath;
    bool initialized;
    QUuid id;
    QUuid sourceId;
    int64_t duration;
    bool isImage;                  // set by the host before probing
    bool isLinearColorSpace;       // set by the host
    QMap<QString, QString> metadata;
    QList<AudioStream> audioStreams;
    QList<VideoStream> videoStreams;
};
