#pragma once

#include <MolvaneAV/Export.h>

#include <QString>

#include <cstdint>

// Library-wide functions and values that need no media object.
class MOLVANEAV_EXPORT AvGlobals
{
public:
    // Upper bound on the audio output channels of every MediaInstance, read
    // at each use. 0 (the value at load) or less means "no cap": output keeps
    // the stream's own channel count, so a host that never sets it still gets
    // sound. Set it before opening media; writes are not synchronised.
    static int maxAudioOutputChannels;

    // Wall-clock time in microseconds since the Unix epoch.
    static int64_t GetTime();

    // True when the decoder short name denotes a still-image format
    // (dpx, exr, mjpeg, png, targa, tiff), ignoring letter case.
    static bool IsImageFormat(const QString& name);

    AvGlobals& operator=(const AvGlobals& other);
};
