#pragma once

#include <MolvaneAV/Export.h>

#include <QMap>
#include <QString>

#include <cstdint>

// Properties of one audio stream of a source, as probing found them.
class MOLVANEAV_EXPORT AudioStream
{
public:
    AudioStream();
    AudioStream(const AudioStream& other);
    AudioStream& operator=(const AudioStream& other);
    ~AudioStream();

    bool isValid;              // false: not found, or probing it failed
    int index;                 // container stream index, -1 when unknown
    QString codecName;         // decoder short name
    int channelCount;
    uint64_t channelLayout;    // FFmpeg channel layout mask
    bool isPlanar;
    int bytesPerSample;
    int sampleRate;            // Hz
    int sampleFormat;          // FFmpeg AVSampleFormat, -1 when unknown
    QMap<QString, QString> metadata;
};
