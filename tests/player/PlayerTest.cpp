// The engine driven as a window would drive it: the presentation asks for
// the frame at each tick on one thread while a device thread fills audio
// buffers, through speed changes, jumps and frame steps. Every picture
// shown must be the one painted for its time.

#include <MolvaneAV/Player.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace molvane::test;

TEST(Player, ShowsThePaintedFrameOfEveryTickWhileADeviceThreadFillsAudio)
{
    molvane::Player player(8 << 20); // a small budget: the cache recycles all the time
    ASSERT_TRUE(player.Open(MediaPath("h264_aac.mp4")));
    ASSERT_TRUE(player.HasVideo() && player.HasAudio());
    EXPECT_EQ(player.Duration(), 2000000);
    std::atomic<bool> stop{false};
    std::atomic<int> buffers{0};
    std::thread device([&] {
        std::vector<int16_t> buffer(512 * 2);
        while (!stop) {
            player.FillAudio(buffer.data(), 512, 1.0);
            ++buffers;
            std::this_thread::yield();
        }
    });
    // {speed, start, ticks}: forwards, backwards from the end, fast, a jump back.
    for (const auto& [speed, start, ticks] : {std::tuple{1.0, 0, 50}, {-1.0, 1999999, 49}, {2.0, 400000, 20},
                                              {1.0, 1500000, 12}, {-2.0, 1000000, 12}}) {
        SCOPED_TRACE(testing::Message() << "speed " << speed << " from " << start);
        player.Seek(start);
        player.SetSpeed(speed);
        for (int tick = 0; tick < ticks; ++tick) {
            const int64_t now = player.Position();
            const auto frame = player.WaitFrameAt(now);
            ASSERT_TRUE(frame) << "at " << now;
            ASSERT_EQ(PaintedIndex(*frame), int(now / 40000)) << "at " << now;
            player.Advance(40000);
        }
    }
    // Frame steps from a paused picture land exactly one picture away.
    player.Seek(420000);
    ASSERT_TRUE(player.WaitFrameAt(420000));
    for (const auto& [step, index] : {std::pair{1, 11}, {1, 12}, {-1, 11}, {-1, 10}}) {
        player.StepFrames(step);
        EXPECT_EQ(player.Speed(), 0.0);
        const auto frame = player.WaitFrameAt(player.Position());
        ASSERT_TRUE(frame);
        EXPECT_EQ(PaintedIndex(*frame), index);
    }
    stop = true;
    device.join();
    EXPECT_GT(buffers, 0);
    EXPECT_LE(player.GetStats().peakVideoCacheBytes,
              player.GetStats().videoCacheBudget + player.GetStats().largestFrameBytes);

    // Paused at 0, the cache (42 pictures) cannot reach 1.9 s: waiting for it gives up.
    player.Seek(0);
    ASSERT_TRUE(player.WaitFrameAt(0));
    EXPECT_EQ(player.WaitFrameAt(1900000), nullptr);
    // The same engine opens another file and shows its pictures.
    ASSERT_TRUE(player.Open(MediaPath("mpeg4.mp4")));
    EXPECT_FALSE(player.HasAudio());
    player.Seek(1000000);
    const auto frame = player.WaitFrameAt(1000000);
    ASSERT_TRUE(frame);
    EXPECT_EQ(PaintedIndex(*frame), 25);
    // From the end backwards, past what the budget keeps, then forwards again:
    // the pictures dropped at the end are decoded again.
    player.Seek(1990000);
    for (const auto& [speed, ticks] : {std::pair{-1.0, 35}, {1.0, 35}}) {
        player.SetSpeed(speed);
        for (int tick = 0; tick < ticks; ++tick, player.Advance(40000)) {
            const auto shown = player.WaitFrameAt(player.Position());
            ASSERT_TRUE(shown) << "speed " << speed << " at " << player.Position();
            ASSERT_EQ(PaintedIndex(*shown), int(player.Position() / 40000));
        }
    }
    // Tick by tick with the decoding thread at rest after each (waiting for
    // a frame out of reach returns then): the full cache recycles one picture
    // a tick, and the pictures of the final drain come in as room appears.
    ASSERT_TRUE(player.Open(MediaPath("h264_aac.mp4")));
    EXPECT_EQ(player.WaitFrameAt(1900000), nullptr); // the cache full from 0 on
    // The newest cached picture ends where its successor, not decoded yet,
    // starts: until then its end is a guess, and a display is told so.
    const int newest = player.GetCacheFill().framesAhead;
    for (const auto& [time, index, known] : {std::tuple{newest * 40000 - 1, newest - 1, true},
                                             {newest * 40000, newest, false}, {newest * 40000 + 39999, newest, false}}) {
        bool settled = !known;
        const auto cached = player.FrameAt(time, &settled);
        ASSERT_TRUE(cached) << "at " << time;
        EXPECT_EQ(PaintedIndex(*cached), index);
        EXPECT_EQ(settled, known) << "at " << time;
    }
    player.Seek(700000);
    player.SetSpeed(1.0);
    for (int64_t now = 700000; now < 2000000; now += 40000, player.Advance(40000)) {
        EXPECT_EQ(player.WaitFrameAt(now + 2000000), nullptr);
        const auto shown = player.FrameAt(now);
        ASSERT_TRUE(shown) << "at " << now;
        ASSERT_EQ(PaintedIndex(*shown), int(now / 40000));
    }
    // Paused after playing backwards, a jump inside the cache only moves the
    // clock: no sound plays that would need an exact seek.
    player.SetSpeed(-1.0);
    for (int tick = 0; tick < 30; ++tick, player.Advance(40000))
        ASSERT_TRUE(player.WaitFrameAt(player.Position()));
    player.SetSpeed(0.0);
    EXPECT_EQ(player.WaitFrameAt(-1), nullptr); // decoding at rest
    const int seeks = player.GetStats().seeks;
    player.Seek(player.Position() + 80000);
    const auto back = player.WaitFrameAt(player.Position());
    ASSERT_TRUE(back);
    EXPECT_EQ(PaintedIndex(*back), int(player.Position() / 40000));
    EXPECT_EQ(player.GetStats().seeks, seeks);
    // Played straight after Open, with no jump first, a stream that does not
    // say how long it is decodes on past its first picture.
    ASSERT_TRUE(player.Open(MediaPath("open_ended.mkv")));
    player.SetSpeed(1.0);
    player.Advance(1000000);
    const auto later = player.WaitFrameAt(1000000);
    ASSERT_TRUE(later);
    EXPECT_EQ(PaintedIndex(*later), 25);
}

TEST(Player, SoundEndsInSilenceWhileTheClockIsHeldAtTheEnd)
{
    // Positional PCM: each sample frame says which source frame it is.
    for (const char* file : {"s16_stereo.wav", "multi_stream.mkv"}) {
        SCOPED_TRACE(file);
        molvane::Player player;
        ASSERT_TRUE(player.Open(MediaPath(file)));
        const int rate = player.AudioSampleRate(), channels = player.AudioChannels();
        const int64_t lastFrame = player.Duration() * rate / 1000000 - 1;
        player.SetSpeed(1.0);
        std::vector<int16_t> buffer(size_t(480 * channels));
        int64_t previous = -1, silentAfterEnd = 0;
        // Buffers of 10 ms to well past the end, as a device keeps asking.
        for (int i = 0; i < int(player.Duration() / 10000) + 20; ++i) {
            player.WaitAudio(player.Position() + 20000);
            const bool filled = player.FillAudio(buffer.data(), 480, 1.0);
            // Held at the end, silence is all there is to play: not a gap.
            if (player.Position() == player.Duration() - 1) {
                EXPECT_TRUE(filled) << "buffer " << i;
            }
            for (int f = 0; f < 480; ++f) {
                const int16_t* sample = buffer.data() + f * channels;
                if (previous == lastFrame) {
                    silentAfterEnd += sample[0] == 0 && sample[1] == 0 ? 1 : 0;
                    continue;
                }
                const int64_t position = SamplePosition(sample, channels);
                ASSERT_EQ(position, previous + 1) << "buffer " << i;
                previous = position;
            }
            player.Advance(10000);
        }
        EXPECT_EQ(previous, lastFrame);
        EXPECT_GE(silentAfterEnd, 20 * 480);
    }
}

TEST(Player, PlaysOneLongGopBackwardsFromItsEndWithinASmallBudget)
{
    // 200 pictures after a single key frame, 42 of them in the budget: each
    // backward chunk decodes from the start of the file, so the chunks must
    // be long, and the pictures they hold must fit the budget with the cache.
    const int64_t budget = 54 * 320 * 240 * 3;
    molvane::Player player(budget);
    // {start, speed, ticks}: backwards to the first picture, forwards again
    // after reversing, and fast backwards from the end.
    for (const auto& [start, speed, ticks] :
         {std::tuple{7999999, -1.0, 200}, {6000000, -1.0, 40}, {-1, 1.0, 60}, {7999999, -4.0, 50}}) {
        SCOPED_TRACE(testing::Message() << "speed " << speed << " from " << start);
        if (start == 7999999) {
            ASSERT_TRUE(player.Open(MediaPath("long_gop.mp4")));
        }
        if (start >= 0)
            player.Seek(start);
        player.SetSpeed(speed);
        const molvane::Player::Stats before = player.GetStats();
        for (int tick = 0; tick < ticks; ++tick, player.Advance(40000)) {
            const int64_t now = player.Position();
            const auto frame = player.WaitFrameAt(now);
            ASSERT_TRUE(frame) << "at " << now;
            ASSERT_EQ(PaintedIndex(*frame), int(now / 40000)) << "at " << now;
        }
        const molvane::Player::Stats after = player.GetStats();
        EXPECT_EQ(after.reseeks, 0);
        EXPECT_LE(after.peakPictureBytes, after.videoCacheBudget);
        EXPECT_GE(after.peakPictureBytes, after.peakVideoCacheBytes);
        EXPECT_EQ(after.videoCacheBudget, budget - 12 * 320 * 240 * 3); // the decoder holds the rest
        // Chunks of at least 20 of the 42 pictures, however long the last
        // one took; none forwards.
        EXPECT_LE(after.backwardChunks - before.backwardChunks, speed < 0.0 ? int(ticks * -speed) / 20 + 1 : 0);
    }
}
