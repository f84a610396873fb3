#pragma once

#include <MolvaneAV/MediaInfo.h>

struct AVFormatContext;

namespace molvane {

// Finds the time of the first decodable frame of every valid video stream
// of info, reading at most the first 250 packets of the open demuxer once,
// and stores it as the stream record's startTime. Times come from the same
// VideoDecoder that playback uses, so both agree.
void ProbeStartTimes(MediaInfo& info, AVFormatContext* context);

} // namespace molvane
