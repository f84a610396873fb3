// A long session on one H.264 clip as a player lives it: hundreds of
// jumps with decoding after each, both caches filled and emptied, the
// instance shut down and set up again, copies made and dropped. Every jump
// must still land on the right picture, LeakSanitizer must find nothing,
// and memory must stop growing once the session is warm.

#include "support/HostSession.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include <unistd.h>

using namespace molvane::test;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// The leak checks need repetition, not length: every periodic step below
// comes round at least five times.
constexpr int kSeeks = 500;
constexpr int kWarmUp = 50;
constexpr int kGop = 25;
constexpr int kCallsPerSeek = 80; // one GOP with B-frames needs about 30

int64_t ResidentBytes()
{
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr)
        return -1;
    const bool read = std::fscanf(statm, "%ld %ld", &pages, &resident) == 2;
    std::fclose(statm);
    return read ? int64_t(resident) * sysconf(_SC_PAGESIZE) : -1;
}

TEST(Soak, HundredsOfJumpsLandOnTheirPictureAndMemoryStaysFlat)
{
    const auto info = Probe("soak_h264.mp4");
    const int64_t step = info->GetFrameStep();
    const int64_t frames = info->GetNumFrames();
    ASSERT_EQ(step, 40000);
    ASSERT_EQ(frames, 250);

    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    DecodedVideo video;
    video.SetMaxCacheSize(48LL * RowStride(320) * 240, 320, 240, 3);
    DecodedAudio audio;
    audio.SetMaxFrameCount(64);
    std::mt19937 random(4242u);

    int64_t warmResident = 0;
    for (int seek = 0; seek < kSeeks; ++seek) {
        if (seek == kWarmUp)
            warmResident = ResidentBytes();
        // Inside a picture's first half, so that each jump has one right
        // answer: the positioning rounds to the stream's ticks, and a target
        // within half a tick of a key frame lands on it. Not in the last
        // GOP: there the final drain starts before the target, and a frame
        // the trailing filter drops ends it, pictures and end marker with it.
        const int64_t index = int64_t(random() % uint32_t(frames - kGop));
        const int64_t target = index * step + int64_t(random() % uint32_t(step / 2));
        instance.Seek(target);

        Decoded got;
        const auto covering = DecodeUntilShown(instance, target, step, kCallsPerSeek, got);
        ASSERT_TRUE(covering) << "jump " << seek << " to " << target << ": no picture after " << got.calls << " calls";
        ASSERT_LE(got.video.first()->startTime, target) << "jump " << seek << " landed late";
        ASSERT_EQ(PaintedIndex(*covering), index) << "jump " << seek << " to " << target;

        FeedCaches(video, audio, got, step, frames * step, target, 2, 48000, {{seek % 3 ? 1.0 : 2.0, 1.0}});

        if (seek % 10 == 9)
            video.Clear(), audio.Clear();
        if (seek % 25 == 24)
            video.ForceClear(), audio.ForceClear();
        if (seek % 100 == 99) {
            instance.Shutdown();
            ASSERT_TRUE(instance.Initialize(info, 0));
        }
        if (seek % 50 == 49) {
            // A copy taken at the end of the input reads into the packet
            // the two share, and goes away with a packet still waiting.
            instance.Seek((frames - 3) * step);
            DecodeAll(instance, -1, kCallsPerSeek);
            ASSERT_FALSE(instance.HasPacket());
            MediaInstance copy(instance);
            copy.Seek(target);
            DecodeAll(copy, target, 3);
            MediaInstance assigned;
            assigned = copy;
        }
    }
    ASSERT_GT(warmResident, 0);
    // Not under ASan, whose quarantine holds freed memory back. 5 % plus
    // 8 MiB of slack for allocator and page-cache noise.
    if (!kSanitized) {
        EXPECT_LT(ResidentBytes(), warmResident + warmResident / 20 + 8 * 1048576) << "from " << warmResident;
    }
}

} // namespace
