// Test programs' main: FFmpeg's encoders chatter on every fixture they write,
// which buries test failures; keep its errors only unless asked for more.

extern "C" {
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    if (std::getenv("MOLVANE_FFMPEG_LOG") == nullptr)
        av_log_set_level(AV_LOG_ERROR);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
