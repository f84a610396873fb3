#pragma once

// What the robustness tests do as a host between jumps: decode until a
// picture covers the target, and pass what was decoded through both caches.

#include <MolvaneAV/DecodedAudio.h>
#include <MolvaneAV/DecodedVideo.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <utility>
#include <vector>

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

// Both caches as a host feeds them: each picture lasts one step and an end
// marker stretches the last one to the media's end; the audio cache keeps a
// second either side of what arrives. Then the device takes one buffer from
// playTime for each {speed, volume}: it must fill it whole and write nothing
// past it.
inline void FeedCaches(DecodedVideo& video, DecodedAudio& audio, const Decoded& decoded, int64_t step,
                       int64_t mediaEnd, int64_t playTime, int channels, int rate,
                       std::initializer_list<std::pair<double, double>> fills)
{
    for (const auto& frame : decoded.video) {
        const int64_t start = frame->startTime;
        if (!frame->data) {
            if (const auto last = video.LastFrame())
                video.OverrideLastFrameEndTime(std::max(last->startTime + step, mediaEnd) - 1);
            continue;
        }
        frame->endTime = start + step - 1;
        video.AppendFrame(frame);
        video.UpdateCache(start, std::max(mediaEnd, step), true, true);
        video.GetFrame(start, -1), video.GetFrame(start, 1); // neighbours of any list, without a crash
        const auto shown = video.GetFrame(start, 0);
        EXPECT_TRUE(!shown || (shown->startTime <= start && start <= shown->endTime)) << "picture at " << start;
    }
    for (const auto& frame : decoded.audio) {
        audio.AppendFrame(frame);
        audio.UpdateCache(frame->startTime - 1000000, frame->endTime + 1000000);
    }
    constexpr int kFrames = 512, kGuard = 16;
    for (const auto& [speed, volume] : fills) {
        std::vector<int16_t> buffer(size_t(kFrames + kGuard) * channels, 0x5A5A);
        EXPECT_EQ(audio.PaFillBuffer(buffer.data(), kFrames, channels, rate, playTime, volume, speed != 1.0, speed),
                  kFrames);
        EXPECT_TRUE(std::all_of(buffer.end() - kGuard * channels, buffer.end(), [](int16_t v) { return v == 0x5A5A; }));
        playTime += int64_t(kFrames) * 1000000 / rate;
    }
}

} // namespace molvane::test
