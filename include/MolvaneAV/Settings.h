#pragma once

#include <MolvaneAV/Export.h>

// Tuning values read at each use. The writable ones may be changed by the
// host between calls; nothing synchronises a write with a reader.
class MOLVANEAV_EXPORT Settings
{
public:
    // A first frame placed in an empty video cache at or before this time
    // (µs) starts at 0: absorbs timestamp rounding at the start of a stream.
    static const int ROUNDING_ERROR_EXTRA_TIME;

    // Share of the video cache budget that frames behind the play position
    // must hold before one of them is recycled while playing.
    static float maxTrailingCacheWhilePlaying;

    // After a seek to T, frames before T - this many frame durations are not
    // delivered: enough to show the frame covering T and a few before it.
    static int maxTrailingFramesAfterSeek;

    // Frame rates (fps) accepted for timing frames without timestamps; the
    // default stands in for anything outside, such as an image's -1.
    static const double MIN_IMAGE_SEQUENCE_FRAME_RATE;
    static const double MAX_IMAGE_SEQUENCE_FRAME_RATE;
    static const double DEFAULT_IMAGE_SEQUENCE_FRAME_RATE;
};
