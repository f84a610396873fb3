// A long session on one H.264 clip as a player lives it: hundreds of jumps
// with decoding after each, the instance shut down and set up again now and
// then. Memory must stop growing once the session is warm: what the library
// piles up but still holds is no leak to LeakSanitizer.

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include <unistd.h>

using namespace molvane::test;

namespace {

int64_t ResidentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = -1;
    statm >> pages >> resident;
    return int64_t(resident) * sysconf(_SC_PAGESIZE);
}

TEST(Soak, HundredsOfJumpsWithDecodingLeaveMemoryFlat)
{
    const auto info = Probe("soak_h264.mp4");
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    std::mt19937 random(4242u);
    int64_t warmResident = 0;
    for (int seek = 0; seek < 200; ++seek) {
        if (seek == 40)
            warmResident = ResidentBytes();
        if (seek % 50 == 49) {
            instance.Shutdown();
            ASSERT_TRUE(instance.Initialize(info, 0));
        }
        const int64_t target = int64_t(random() % uint32_t(info->GetDuration()));
        instance.Seek(target);
        EXPECT_FALSE(DecodeAll(instance, target, 30).video.isEmpty()) << "jump " << seek << " to " << target;
    }
#if !defined(__SANITIZE_ADDRESS__) && !(defined(__has_feature) && __has_feature(address_sanitizer))
    // Not under ASan, whose quarantine holds freed memory back. 5 % plus
    // 8 MiB of slack for allocator and page-cache noise.
    EXPECT_LT(ResidentBytes(), warmResident + warmResident / 20 + 8 * 1048576) << "from " << warmResident;
#endif
}

} // namespace
