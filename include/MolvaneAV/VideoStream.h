#pragma once

#include <MolvaneAV/Export.h>

#include <QMap>
#include <QString>

#include <cstdint>

// Properties of one video stream of a source, as probing found them.
class MOLVANEAV_EXPORT VideoStream
{
public:
    VideoStream();
    VideoStream(const VideoStream& other);
    VideoStream& operator=(const VideoStream& other);
    ~VideoStream();

    bool isValid;              // false: not found, or probing it failed
    int index;                 // container stream index, -1 when unknown
    QString codecName;         // decoder short name
    int width;
    int height;
    float pixelAspectRatio;    // sample aspect ratio, 1.0 when unknown
    int64_t startTime;         // µs, time of the stream's first frame
    int64_t frameStep;         // µs, length of one frame
    double frameRate;          // fps, rounded to three decimals
    int64_t numFrames;
    int decoderDelay;          // frames the decoder holds back
    QMap<QString, QString> metadata;
};
