#pragma once
#include <MolvaneAV/DecodedFrames.h>
#include <QList>
#include <QString>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

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

// The lowest and highest sample of each stretch of a sound, per channel: what
// a waveform shows, in at most twice kMaxColumns columns however long the
// sound (neighbouring columns merge as it grows).
class Envelope
{
public:
    static constexpr int64_t kMaxColumns = 1600;
    explicit Envelope(int channels) : channels(channels) {}
    void Add(const int16_t* interleaved, int frames);
    int Channels() const { return channels; }
    int64_t Columns() const { return int64_t(lows.size()) / channels; }
    int Low(int64_t column, int channel) const { return lows[size_t(column * channels + channel)]; }
    int High(int64_t column, int channel) const { return highs[size_t(column * channels + channel)]; }

private:
    int channels;
    int64_t perColumn = 1, inLast = 0; // sample frames per column, and in the last one
    std::vector<int16_t> lows, highs;
};

// A picture of a waveform (one lane per channel, low to high per pixel column), PNG.
bool WriteWaveform(const QString& path, const Envelope& envelope, QString* error);

// Time as "HH:MM:SS.mmm" from microseconds (negative as 00:00:00.000).
QString FormatTime(int64_t micros);
