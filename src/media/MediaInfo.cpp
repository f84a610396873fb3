#include <MolvaneAV/MediaInfo.h>

#include <QChar>
#include <QFileInfo>

#include <limits>

MediaInfo::MediaInfo(const QString& path)
    : filePath(path),
      initialized(false),
      id(QUuid::createUuid()),
      sourceId(),
      duration(0),
      isImage(false),
      isLinearColorSpace(false)
{
}

MediaInfo::MediaInfo(const MediaInfo& other) = default;
MediaInfo& MediaInfo::operator=(const MediaInfo& other) = default;
MediaInfo::~MediaInfo() = default;

void MediaInfo::DebugPrint() const
{
}

QString MediaInfo::GetFilePath()
{
    return filePath;
}

QString MediaInfo::GetFileName()
{
    return QFileInfo(filePath).fileName();
}

const QUuid& MediaInfo::GetID() const
{
    return id;
}

const QUuid& MediaInfo::GetSourceID() const
{
    return sourceId;
}

bool MediaInfo::IsInitialized() const
{
    return initialized;
}

bool MediaInfo::IsImage() const
{
    return isImage;
}

bool MediaInfo::IsLinearColorSpace() const
{
    return isLinearColorSpace;
}

int MediaInfo::GetNumAudioStreams() const
{
    return audioStreams.size();
}

int MediaInfo::GetNumVideoStreams() const
{
    return videoStreams.size();
}

const QList<AudioStream>& MediaInfo::GetAudioStreams() const
{
    return audioStreams;
}

const QList<VideoStream>& MediaInfo::GetVideoStreams() const
{
    return videoStreams;
}

void MediaInfo::GetAudioStream(int index, AudioStream& out) const
{
    for (const AudioStream& stream : audioStreams) {
        if (stream.index == index) {
            out = stream;
            return;
        }
    }
}

void MediaInfo::GetVideoStream(int index, VideoStream& out) const
{
    for (const VideoStream& stream : videoStreams) {
        if (stream.index == index) {
            out = stream;
            return;
        }
    }
}

int64_t MediaInfo::GetDuration() const
{
    if (isImage && !videoStreams.isEmpty())
        return videoStreams.first().frameStep;
    return duration;
}

double MediaInfo::GetDurationInSeconds() const
{
    return static_cast<double>(GetDuration()) / 1000000.0;
}

int64_t MediaInfo::GetStartTime() const
{
    if (isImage || videoStreams.isEmpty())
        return 0;
    return videoStreams.first().startTime;
}

double MediaInfo::GetFrameRate() const
{
    return videoStreams.isEmpty() ? 0.0 : videoStreams.first().frameRate;
}

int64_t MediaInfo::GetFrameStep() const
{
    return videoStreams.isEmpty() ? 0 : videoStreams.first().frameStep;
}

int64_t MediaInfo::GetNumFrames() const
{
    return videoStreams.isEmpty() ? 0 : videoStreams.first().numFrames;
}

int MediaInfo::GetVideoWidth() const
{
    return videoStreams.isEmpty() ? 0 : videoStreams.first().width;
}

int MediaInfo::GetVideoHeight() const
{
    return videoStreams.isEmpty() ? 0 : videoStreams.first().height;
}

bool MediaInfo::IsVideoRotated() const
{
    if (videoStreams.isEmpty())
        return false;
    const QString rotate = videoStreams.first().metadata.value(QStringLiteral("rotate"));
    return rotate == QLatin1String("90") || rotate == QLatin1String("270");
}

QString MediaInfo::GetDurationAsString()
{
    int64_t d = GetDuration();
    // Round to the hundredth unless that would overflow.
    if (d <= std::numeric_limits<int64_t>::max() - 5000)
        d += 5000;

    // Beyond 32-bit whole seconds (about 68 years) and below zero there is no
    // meaningful text; show zero rather than a wrapped value.
    if (d < 0 || d / 1000000 > std::numeric_limits<int>::max())
        d = 0;

    const int totalSeconds = static_cast<int>(d / 1000000);
    const int64_t remainder = d - static_cast<int64_t>(totalSeconds) * 1000000;
    const int totalMinutes = totalSeconds / 60;
    const int hours = totalMinutes / 60;
    const int minutes = totalMinutes - 60 * hours;
    const int seconds = totalSeconds - 60 * totalMinutes;
    const int hundredths = static_cast<int>(remainder * 100 / 1000000);

    const QChar zero('0');
    return QStringLiteral("%1:%2:%3.%4")
        .arg(hours, 2, 10, zero)
        .arg(minutes, 2, 10, zero)
        .arg(seconds, 2, 10, zero)
        .arg(hundredths, 2, 10, zero);
}
