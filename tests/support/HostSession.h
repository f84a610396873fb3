#pragma once

// What the robustness tests do as a host after a jump: decode until a
// picture covers the target.

#include "support/TestMedia.h"

namespace molvane::test {

// Decodes into `got` until a picture covers target (a picture lasts one
// step) or maxCalls packet calls were made; that picture, or null.
inline std::shared_ptr<DecodedVideoFrame> DecodeUntilShown(MediaInstance& instance, int64_t target, int64_t step,
                                                           int maxCalls, Decoded& got)
{
    while (got.calls < maxCalls && instance.HasPacket()) {
        const int before = got.video.size();
        instance.DecodePacket(got.audio, got.video, target);
        ++got.calls;
        for (int i = before; i < got.video.size(); ++i) {
            if (got.video[i]->data && got.video[i]->startTime <= target && target < got.video[i]->startTime + step)
                return got.video[i];
        }
    }
    return nullptr;
}

} // namespace molvane::test
