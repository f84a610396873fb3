// A long session on one H.264 clip as a player lives it: hundreds of jumps
// with decoding after each, the instance shut down and set up again now and
// then. Every jump must still land on the right picture, and memory must stop
// growing once the session is warm: memory the library still holds, which
// LeakSanitizer does not count as leaked, must not pile up.

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

int64_t ResidentBytes()
{
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    const bool read = statm && std::fscanf(statm, "%ld %ld", &pages, &resident) == 2;
    if (statm)
        std::fclose(statm);
    return read ? int64_t(resident) * sysconf(_SC_PAGESIZE) : -1;
}

TEST(Soak, HundredsOfJumpsLandOnTheirPictureAndMemoryStaysFlat)
{
    constexpr int kSeeks = 200, kWarmUp = 40, kGop = 25, kStep = 40000, kFrames = 250;
    const auto info = Probe("soak_h264.mp4");
    ASSERT_EQ(info->GetFrameStep(), kStep);
    ASSERT_EQ(info->GetNumFrames(), kFrames);
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    std::mt19937 random(4242u);
    int64_t warmResident = 0;
    for (int seek = 0; seek < kSeeks; ++seek) {
        if (seek == kWarmUp)
            warmResident = ResidentBytes();
        if (seek % 50 == 49) {
            instance.Shutdown();
            ASSERT_TRUE(instance.Initialize(info, 0));
        }
        // Inside a picture's first half, so that each jump has one right
        // answer: the positioning rounds to the stream's ticks, and a target
        // within half a tick of a key frame lands on it. Not in the last
        // GOP: there the final drain starts before the target, and a frame
        // the trailing filter drops ends it, pictures and end marker with it.
        const int index = int(random() % uint32_t(kFrames - kGop));
        const int64_t target = int64_t(index) * kStep + int64_t(random() % uint32_t(kStep / 2));
        instance.Seek(target);
        Decoded got;
        const auto shown = DecodeUntilShown(instance, target, kStep, 80, got); // a GOP with B-frames needs ~30
        const int landed = shown ? PaintedIndex(*shown) : -1;
        ASSERT_EQ(landed, index) << "jump " << seek << " to " << target << " after " << got.calls << " calls";
        ASSERT_LE(got.video.first()->startTime, target) << "jump " << seek << " landed late";
    }
    ASSERT_GT(warmResident, 0);
    // Not under ASan, whose quarantine holds freed memory back. 5 % plus
    // 8 MiB of slack for allocator and page-cache noise.
    if (!kSanitized)
        EXPECT_LT(ResidentBytes(), warmResident + warmResident / 20 + 8 * 1048576) << "from " << warmResident;
}

} // namespace
