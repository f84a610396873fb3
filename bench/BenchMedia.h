#pragma once

// Clips for the benchmarks, written by the ffmpeg program from lavfi sources
// with one encoder thread and bit-exact muxing, into a folder that lasts as
// long as the process.

#include <QString>
#include <QStringList>

namespace molvane::bench {

// The clip NAME, written by `ffmpeg ARGS... PATH` on first use; exits the
// process with ffmpeg's message if that fails.
QString MakeClip(const QString& name, const QStringList& args);

// A moving 25 fps test picture of WIDTHxHEIGHT, FRAMES long, as lavfi input arguments.
QStringList VideoInput(int width, int height, int frames);

// A quiet 48 kHz stereo sine of SAMPLEFRAMES, as lavfi input arguments.
QStringList AudioInput(long long sampleFrames);

} // namespace molvane::bench
