#pragma once
#include <MolvaneAV/DecodedFrames.h>
#include <QList>
#include <QString>
#include <cstdint>
#include <memory>
#include <utility>

// Writes int16 interleaved PCM to a WAV file through FFmpeg's wav muxer (pcm_s16le, bit-exact: the file
// depends on the samples alone).
class WavWriter
{
public:
    WavWriter();
    ~WavWriter();                       // closes if still open
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;
    bool Open(const QString& path, int channels, int sampleRate, QString* error);
    void Write(const int16_t* interleaved, int frames);   // any number of sample frames per call
    bool Close(QString* error);         // writes the trailer; false with a reason on failure
private:
    struct State;
    std::unique_ptr<State> state;
};

// A 4x4 sheet of thumbnails (at most 16; fewer leave cells empty), each labelled with the time it was shown.
// Applies each frame's `rotation` (clockwise degrees) and keeps its aspect. PNG through Qt (QImage/QPainter).
bool WriteContactSheet(const QString& path, const QList<std::pair<int64_t, std::shared_ptr<DecodedVideoFrame>>>& shown,
                       QString* error);

// A picture of the waveform of int16 interleaved samples (one lane per channel, min/max per pixel column), PNG.
bool WriteWaveform(const QString& path, const int16_t* interleaved, int64_t frames, int channels, QString* error);

// Time as "HH:MM:SS.mmm" from microseconds (negative as 00:00:00.000).
QString FormatTime(int64_t micros);
