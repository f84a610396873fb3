#pragma once

// What the tests share as a host of the library: the media that
// make_test_media.sh wrote, the frame index painted into every picture, the
// position carried by every PCM sample, and the library's log.

#include <MolvaneAV/AvGlobals.h>
#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaInstance.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>

class QProcessEnvironment;

namespace molvane::test {

// A file of the test media by name ("h264_aac.mp4"); absolute paths pass through.
QString MediaPath(const QString& name);

// Probes a file as a host does; a failure fails the calling test.
std::shared_ptr<MediaInfo> Probe(const QString& name, bool isImage = false);

// Bytes per RGB24 row of a record: 3 × width rounded up to a multiple of 4.
inline int RowStride(int width) { return (3 * width + 3) / 4 * 4; }

// Frame index painted into a record's picture; -1 when it carries none.
int PaintedIndex(const DecodedVideoFrame& frame);

// Position n of one interleaved sample frame of positional PCM (converted to
// int16); -1 when its channels do not agree on one position.
int64_t SamplePosition(const int16_t* sampleFrame, int channels);

// Everything one decoding loop yields.
struct Decoded {
    QList<std::shared_ptr<DecodedAudioFrame>> audio;
    QList<std::shared_ptr<DecodedVideoFrame>> video;
    int calls = 0;
};

// HasPacket / DecodePacket until the input ends or maxCalls calls were made.
Decoded DecodeAll(MediaInstance& instance, int64_t targetTime = -1, int maxCalls = 100000);

// Standard output of the ffmpeg program run with args; fails the test if it fails.
QByteArray RunFfmpeg(const QStringList& args);

// Sets AvGlobals::maxAudioOutputChannels for a scope.
struct ChannelCap {
    explicit ChannelCap(int cap) { AvGlobals::maxAudioOutputChannels = cap; }
    ~ChannelCap() { AvGlobals::maxAudioOutputChannels = saved; }
    const int saved = AvGlobals::maxAudioOutputChannels;
};

// One of our programs run to its end: its exit status (-1 when it crashed
// or hung), stdout and stderr.
struct ProgramRun {
    int exitCode = -1;
    QByteArray out;
    QString err;
};
// Killed after timeoutMillis, which only a hang takes. The environment
// defaults to the test's own.
ProgramRun RunProgram(const QString& program, const QStringList& arguments, int timeoutMillis = 300000,
                      const QProcessEnvironment* environment = nullptr);

// The rows of integers of a CSV file below its header line.
QList<QList<qint64>> ReadCsv(const QString& path);

// Collects what the library logs in its category while in scope.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    QStringList Messages() const { return messages_; }
    QList<QtMsgType> Types() const { return types_; }
    void Clear() { messages_.clear(), types_.clear(); }

private:
    friend void CollectLog(QtMsgType, const QMessageLogContext&, const QString&);
    QStringList messages_;
    QList<QtMsgType> types_;
};

} // namespace molvane::test
