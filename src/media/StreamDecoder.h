#pragma once

#include "foundation/FfmpegGuards.h"

struct AVStream;

namespace molvane {

// What to say when a stream's decoder cannot be opened; the property
// readers word their failures differently, the start-time probe says
// nothing (null messages).
struct OpenFailureMessages {
    const char* noContext = nullptr;
    const char* noDecoder = nullptr;
    const char* notOpened = nullptr;
};

// Opens the decoder of one container stream on a context of its own. Null,
// with the matching message logged, when any step fails.
CodecContextPtr OpenStreamDecoder(const AVStream* stream, bool decoderChoosesThreads,
                                  const OpenFailureMessages& messages = {});

} // namespace molvane
