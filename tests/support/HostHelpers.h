#pragma once

// Small pieces that tests acting as a host share: probing a file, reading
// a record's painted frame index, raw file access and the channel cap.

#include <MolvaneAV/AvGlobals.h>
#include <MolvaneAV/DecodedFrames.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include "support/MediaFixtures.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QString>

#include <memory>

namespace molvane::test {

// Probes path the way a host does; a failure fails the calling test.
inline std::shared_ptr<MediaInfo> Probe(const QString& path, bool isImage = false)
{
    auto info = std::make_shared<MediaInfo>(path);
    info->isImage = isImage;
    EXPECT_TRUE(MediaReader::ParseMedia(info)) << path.toStdString();
    return info;
}

inline std::shared_ptr<MediaInfo> Probe(FixtureId id)
{
    const Fixture& fixture = GetFixture(id);
    return Probe(fixture.path, fixture.isImage);
}

// Bytes per RGB24 row of a record: 3 × width rounded up to a multiple of 4.
inline int RowStride(int width)
{
    return (3 * width + 3) / 4 * 4;
}

inline int PaintedIndex(const DecodedVideoFrame& frame)
{
    return ReadFrameIndex(frame.data, frame.width, frame.height, RowStride(frame.width));
}

inline QByteArray ReadAll(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

inline void WriteAll(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    ASSERT_EQ(file.write(bytes), bytes.size());
}

// Sets AvGlobals::maxAudioOutputChannels for a scope.
class ChannelCap
{
public:
    explicit ChannelCap(int cap) : previous_(AvGlobals::maxAudioOutputChannels)
    {
        AvGlobals::maxAudioOutputChannels = cap;
    }
    ~ChannelCap() { AvGlobals::maxAudioOutputChannels = previous_; }
    ChannelCap(const ChannelCap&) = delete;
    ChannelCap& operator=(const ChannelCap&) = delete;

private:
    int previous_;
};

} // namespace molvane::test
