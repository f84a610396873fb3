// The audio cache as the decoding side and the device callback drive it:
// placement and stitching, slots and their growth, the release of cleared
// frames, and the device fill with its position, restarts, volume, speed and
// drift correction; last, a decoded file played through it. Sample frame i
// of test frame `id` holds (id * 2048 + i + 1, its negation), so every value
// of a fill's output tells where it came from.

#include <MolvaneAV/DecodedAudio.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

using namespace molvane::test;

namespace {

using FramePtr = std::shared_ptr<DecodedAudioFrame>;
using Samples = std::vector<int16_t>; // interleaved stereo
constexpr int kRate = 48000;

// Sample frame i of frame id; id -1 is silence.
void Push(Samples& out, int id, int i)
{
    const auto value = int16_t(id < 0 ? 0 : id * 2048 + i + 1);
    out.insert(out.end(), {value, int16_t(-value)});
}

// {id, first, count}: sample frames first .. first + count - 1 of frame id.
using Span = std::array<int, 3>;

Samples Runs(const std::vector<Span>& spans)
{
    Samples out;
    for (const auto& [id, first, count] : spans) {
        for (int i = first; i < first + count; ++i)
            Push(out, id, i);
    }
    return out;
}

FramePtr MakeFrame(int id, int64_t start, int frames, int tag = -1)
{
    auto frame = std::make_shared<DecodedAudioFrame>(2 * frames, frames, kRate, start,
                                                     start + frames * int64_t(1000000) / kRate - 1);
    const Samples values = Runs({{id, 0, frames}});
    std::copy(values.begin(), values.end(), frame->samples);
    frame->continuityTag = tag;
    return frame;
}

Samples Fill(DecodedAudio& cache, int frames, long long playTime, double speed = 1.0, bool reset = false,
             double volume = 1.0)
{
    Samples out(2 * size_t(frames), 0x7A7A); // no test frame holds this value
    EXPECT_EQ(cache.PaFillBuffer(out.data(), frames, 2, kRate, playTime, volume, reset, speed), frames);
    return out;
}

// The output is the expected samples, then silence to its end.
testing::AssertionResult Plays(const Samples& actual, Samples expected)
{
    if (expected.size() > actual.size())
        return testing::AssertionFailure() << "only " << actual.size() / 2 << " sample frames";
    expected.resize(actual.size(), 0);
    for (size_t n = 0; n < actual.size(); n += 2) {
        if (actual[n] != expected[n] || actual[n + 1] != expected[n + 1])
            return testing::AssertionFailure() << "sample frame " << n / 2 << " is (" << actual[n] << ", "
                                               << actual[n + 1] << "), expected (" << expected[n] << ", "
                                               << expected[n + 1] << ")";
    }
    return testing::AssertionSuccess();
}

TEST(DecodedAudio, PlacesFramesAtEitherEndStitchesThemGrowsItsSlotsAndDropsTheRest)
{
    struct Case {
        const char* what;
        int slots; // set before the appends
        std::vector<std::array<int64_t, 4>> appends; // {id, start, sample frames, continuity tag}
        int count, capacity;
        int64_t start, end, size;
        std::vector<Span> plays;
    };
    const Case cases[] = {
        {"after the newest, before the oldest; dropped between them or on a known start", 8,
         {{1, 100000, 480, -1}, {2, 200000, 480, -1}, {3, 50000, 480, -1}, {4, 150000, 480, -1}, {5, 50000, 960, 7},
          {6, 200000, 960, 7}, {7, 100000, 960, 7}},
         3, 8, 50000, 209999, 3 * 960, {{3, 0, 480}, {1, 0, 480}, {2, 0, 480}}},
        {"a negative start becomes 0 unless the frame ends before 0", 8,
         {{1, -20000, 480, -1}, {2, -5000, 480, -1}, {3, -1, 480, -1}}, 1, 8, 0, 4999, 960, {{2, 0, 480}}},
        {"no slots drop every frame", 0, {{0, 0, 480, -1}, {1, 10000, 480, -1}}, 0, 0, 0, 0, 0, {}},
        {"one slot counts as two; with one left they grow by half", 1, {{0, 0, 480, -1}, {1, 10000, 480, -1}}, 2, 3,
         0, 19999, 1920, {{0, 0, 480}, {1, 0, 480}}},
        {"five slots grow to seven", 5,
         {{0, 0, 480, -1}, {1, 10000, 480, -1}, {2, 20000, 480, -1}, {3, 30000, 480, -1}, {4, 40000, 480, -1}}, 5, 7,
         0, 49999, 5 * 960, {{0, 0, 480}, {1, 0, 480}, {2, 0, 480}, {3, 0, 480}, {4, 0, 480}}},
        {"another run pads the newest frame up to its start", 8, {{0, 0, 480, 1}, {1, 30000, 480, 2}}, 2, 8, 0, 39999,
         2880 + 960, {{0, 0, 480}, {-1, 0, 960}, {1, 0, 480}}},
        {"another run overlapping cuts the newest frame short", 8, {{0, 0, 1440, 1}, {1, 20000, 480, 2}}, 2, 8, 0,
         29999, 1920 + 960, {{0, 0, 960}, {1, 0, 480}}},
        {"a frame of another run in front is padded up to the cached start", 8, {{1, 100000, 480, 1}, {0, 0, 480, 2}},
         2, 8, 0, 109999, 960 + 9600, {{0, 0, 480}, {-1, 0, 4320}, {1, 0, 480}}},
        {"frames without samples are kept but never stitched", 8,
         {{0, 50000, 0, 1}, {1, 60000, 480, 2}, {2, 0, 0, 3}}, 3, 8, 0, 69999, 960, {{1, 0, 480}}},
    };
    for (const Case& c : cases) {
        DecodedAudio cache;
        cache.SetMaxFrameCount(c.slots);
        for (const auto& [id, start, frames, tag] : c.appends)
            cache.AppendFrame(MakeFrame(int(id), start, int(frames), int(tag)));
        EXPECT_EQ(std::make_tuple(cache.GetFrameCount(), cache.GetMaxFrameCount(), cache.GetStartTime(),
                                  cache.GetEndTime(), cache.GetSize()),
                  std::make_tuple(c.count, c.capacity, c.start, c.end, c.size))
            << c.what;
        EXPECT_TRUE(Plays(Fill(cache, 6000, c.start), Runs(c.plays))) << c.what;
    }
}

TEST(DecodedAudio, ClearedFramesGoTwoSlotsPerAppendAndForceClearTakesTheRest)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    std::vector<std::weak_ptr<DecodedAudioFrame>> held;
    for (int id = 0; id < 3; ++id) { // slots 0, 1, 2
        cache.AppendFrame(MakeFrame(id, id * 10000, 480));
        held.push_back(cache.LastFrame());
    }
    cache.Clear();
    cache.AppendFrame(MakeFrame(7, 0, 480)); // releases slots 3 and 2
    EXPECT_TRUE(!held[0].expired() && !held[1].expired() && held[2].expired());
    cache.AppendFrame(nullptr); // clears too, and releases slots 1 and 0
    EXPECT_TRUE(held[0].expired() && held[1].expired());
    // The fill lets go of a frame once it has played past it.
    cache.AppendFrame(MakeFrame(8, 0, 480));
    held.push_back(cache.LastFrame());
    EXPECT_TRUE(Plays(Fill(cache, 600, 0), Runs({{8, 0, 480}})));
    cache.ForceClear();
    EXPECT_TRUE(held.back().expired());
}

TEST(DecodedAudio, FillGoesOnFromWhereItStoppedUntilItMustFindItsPlaceByTimeAgain)
{
    using Action = std::function<void(DecodedAudio&)>;
    auto add = [](std::vector<std::array<int, 2>> frames) -> Action { // {id, start} of 480 sample frames each
        return [frames](DecodedAudio& cache) {
            for (const auto& [id, start] : frames)
                cache.AppendFrame(MakeFrame(id, start, 480));
        };
    };
    auto plays = [](DecodedAudio& cache, int frames, long long playTime, const std::vector<Span>& spans,
                    bool reset = false) { return Plays(Fill(cache, frames, playTime, 1.0, reset), Runs(spans)); };
    DecodedAudio cache;
    cache.SetMaxFrameCount(5);
    add({{0, 100000}})(cache); // silence before or after the cached audio fixes no position
    EXPECT_TRUE(plays(cache, 256, 50000, {}));
    EXPECT_TRUE(plays(cache, 256, 99999, {}));
    EXPECT_TRUE(plays(cache, 256, 100000, {{0, 0, 256}}));
    EXPECT_TRUE(plays(cache, 256, 200000, {}, true));
    EXPECT_TRUE(plays(cache, 256, 110000, {}));
    cache.ForceClear(); // frames appended after the fill ran out are found by time
    add({{0, 0}})(cache);
    EXPECT_TRUE(plays(cache, 400, 0, {{0, 0, 400}}));
    EXPECT_TRUE(plays(cache, 256, 8333, {{0, 400, 80}}));
    add({{1, 10000}, {2, 20000}})(cache);
    EXPECT_TRUE(plays(cache, 256, 13666, {{1, 175, 256}}));
    EXPECT_TRUE(plays(cache, 256, 0, {{1, 431, 49}, {2, 0, 207}}));
    cache.UpdateCache(19999, 20000); // frames touching the range stay
    EXPECT_EQ(cache.GetFrameCount(), 2);
    cache.UpdateCache(30000, 40000); // a frame trimmed while it plays plays on
    EXPECT_TRUE(plays(cache, 300, 0, {{2, 207, 273}}));

    // Each restart makes the fill find its place by time: 25000 µs is sample
    // frame 240 of frame 2. The last one grows the ring of five slots.
    const Action four = add({{0, 0}, {1, 10000}, {2, 20000}, {3, 30000}});
    const std::pair<std::string, Action> restarts[] = {
        {"reset", nullptr},
        {"FlushPaBuffer", [](DecodedAudio& cache) { cache.FlushPaBuffer(); }},
        {"Clear", [&](DecodedAudio& cache) { cache.Clear(), four(cache); }},
        {"ForceClear", [&](DecodedAudio& cache) { cache.ForceClear(), four(cache); }},
        {"SetMaxFrameCount", [](DecodedAudio& cache) { cache.SetMaxFrameCount(2); }},
        {"growth", add({{4, 40000}})},
    };
    for (const auto& [name, restart] : restarts) {
        SCOPED_TRACE(name);
        DecodedAudio cache;
        cache.SetMaxFrameCount(5);
        four(cache);
        EXPECT_TRUE(plays(cache, 256, 0, {{0, 0, 256}}));
        EXPECT_TRUE(plays(cache, 256, 25000, {{0, 256, 224}, {1, 0, 32}}));
        if (restart)
            restart(cache);
        EXPECT_TRUE(plays(cache, 256, 25000, {{2, 240, 240}, {3, 0, 16}}, !restart));
        EXPECT_TRUE(plays(cache, 256, 0, {{3, 16, 256}}));
    }
}

TEST(DecodedAudio, FillRefusesUnusableRequestsWithoutMovingOnAndScalesByTheVolume)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(0, 0, 480));
    EXPECT_TRUE(Plays(Fill(cache, 100, 0), Runs({{0, 0, 100}})));
    // {buffer, frames, channels, rate, speed, result}: no buffer, frames or
    // channels write nothing; no rate or speed give silence.
    for (const auto& [buffer, frames, channels, rate, speed, result] :
         {std::tuple{true, 0, 2, kRate, 1.0, 0}, {false, 256, 2, kRate, 1.0, 0}, {true, -5, 2, kRate, 1.0, 0},
          {true, 256, 0, kRate, 1.0, 0}, {true, 256, 2, 0, 1.0, 256}, {true, 256, 2, kRate, 0.0, 256},
          {true, 256, 2, kRate, -1.0, 256}}) {
        Samples out(512, 0x7A7A);
        const int written =
            cache.PaFillBuffer(buffer ? out.data() : nullptr, frames, channels, rate, 0, 1.0, false, speed);
        EXPECT_EQ(std::make_pair(written, out), std::make_pair(result, Samples(512, result > 0 ? 0 : 0x7A7A)))
            << frames << " frames, " << channels << " channels, rate " << rate << ", speed " << speed;
    }
    EXPECT_TRUE(Plays(Fill(cache, 256, 0), Runs({{0, 100, 256}})));

    const Samples values{20000, -20000, 1001, -1001, 3, -3, 32767, -32768};
    std::copy(values.begin(), values.end(), cache.FirstFrame()->samples);
    for (const auto& [volume, expected] : {std::pair{2.0, Samples{32767, -32768, 2002, -2002, 6, -6, 32767, -32768}},
                                           {0.5, Samples{10000, -10000, 500, -500, 1, -1, 16383, -16384}},
                                           {0.0, Samples(8, 0)}})
        EXPECT_EQ(Fill(cache, 4, 0, 1.0, true, volume), expected) << volume;
}

// Twelve frames of 960 sample frames (20 ms) back to back. Call k > 0 asks
// for 960 sample frames at frame k's start plus offsets[k - 1]: as each call
// fetches a frame at its beginning, it measures that offset.
Samples PlayWithDrift(const std::vector<int>& offsets, double speed = 1.0)
{
    DecodedAudio cache;
    cache.SetMaxFrameCount(16);
    for (int id = 0; id < 12; ++id)
        cache.AppendFrame(MakeFrame(id, id * 20000, 960));
    Samples all = Fill(cache, 960, 0, speed);
    for (size_t k = 1; k <= offsets.size(); ++k) {
        const Samples out = Fill(cache, 960, 20000 * int64_t(k) + offsets[k - 1], speed);
        all.insert(all.end(), out.begin(), out.end());
    }
    return all;
}

TEST(DecodedAudio, FiveMeasurementsOfDriftBeyondTenMillisecondsSkipOrHoldTheAudio)
{
    // {first, count, held}: source positions (g is sample g % 960 of frame
    // g / 960); a held range repeats its first sample frame.
    using Range = std::array<int, 3>;
    const std::pair<std::vector<int>, std::vector<Range>> cases[] = {
        // 15000 µs behind: 720 sample frames skipped; then the count starts over.
        {{15000, 15000, 15000, 15000, 15000}, {{0, 4800}, {5520, 960}}},
        {{15000, 15000, 15000, 15000, 15000, 30000}, {{0, 4800}, {5520, 1920}}},
        {{10001, 10001, 10001, 10001, 10001}, {{0, 4800}, {5280, 960}}},
        // 10000 is beyond the tolerance, so it joins the average (18000).
        {{10000, 20000, 20000, 20000, 20000}, {{0, 4800}, {5664, 960}}},
        // Ahead: the frame's first sample frame held for 576 sample frames.
        {{-12000, -12000, -12000, -12000, -12000}, {{0, 4800}, {4800, 576, 1}, {4800, 384}}},
        // An average of 10000 either way is no drift; one within tolerance starts over.
        {{10000, 10000, 10000, 10000, 10000, 15000, 15000, 15000, 15000}, {{0, 9600}}},
        {{-10000, -10000, -10000, -10000, -10000, -15000, -15000, -15000, -15000}, {{0, 9600}}},
        {{20000, 20000, 20000, 20000, 9999, 20000, 20000, 20000, 20000}, {{0, 9600}}},
    };
    for (const auto& [offsets, plays] : cases) {
        Samples expected;
        for (const auto& [first, count, held] : plays) {
            for (int g = first; g < first + count; ++g)
                Push(expected, (held ? first : g) / 960, (held ? first : g) % 960);
        }
        EXPECT_TRUE(Plays(PlayWithDrift(offsets), expected)) << testing::PrintToString(offsets);
    }
    // Off normal speed nothing is measured: the play times make no difference.
    EXPECT_EQ(PlayWithDrift(std::vector<int>(9, 15000), 1.01), PlayWithDrift(std::vector<int>(9, 0), 1.01));
}

TEST(DecodedAudio, PlaysADecodedFileSampleFrameBySampleFrameAtEverySpeed)
{
    const std::shared_ptr<MediaInfo> info = Probe("s16_stereo.wav");
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    const QList<FramePtr> frames = DecodeAll(instance).audio;
    // {speed, buffer}: fast speeds drop every other or every third sample
    // frame; half speed plays all but the first twice. There the first
    // buffer is one short, so that no call ends owing a repeat.
    for (const auto& [speed, buffer] : {std::pair{1.0, 441}, {2.0, 256}, {1.5, 256}, {0.5, 256}}) {
        Samples expected, played; // positional PCM: sample frame n holds (n % 32768, n / 32768)
        for (int n = 0; n < 72000; ++n) {
            const int times = speed == 2.0 ? 1 - n % 2 : speed == 1.5 ? n % 3 != 2 : speed < 1.0 && n > 0 ? 2 : 1;
            for (int k = 0; k < times; ++k)
                expected.insert(expected.end(), {int16_t(n % 32768), int16_t(n / 32768)});
        }
        // As a host: a buffer and a bit ahead of the play position is
        // appended, what lies behind it trimmed, and the ring wraps.
        DecodedAudio cache;
        cache.SetMaxFrameCount(8);
        int next = 0;
        const auto step = int64_t(buffer * speed);
        for (int64_t source = 0; played.size() < expected.size() + 2 * buffer; source += step) {
            const long long playTime = (source * 1000000 + kRate - 1) / kRate; // maps back to `source`
            while (next < frames.size() && frames[next]->startTime <= playTime + step * 1000000 / kRate + 20000)
                cache.AppendFrame(frames[next++]);
            cache.UpdateCache(playTime - 20000, playTime + 10000000);
            const Samples out = Fill(cache, buffer - (source == 0 && speed < 1.0), playTime, speed);
            played.insert(played.end(), out.begin(), out.end());
        }
        EXPECT_EQ(next, frames.size());
        EXPECT_TRUE(Plays(played, expected)) << "speed " << speed;
    }
    // A half-speed buffer that fills right after a write owes its repeat to
    // the next source frame, which then plays three times.
    DecodedAudio cache;
    cache.SetMaxFrameCount(4);
    cache.AppendFrame(MakeFrame(0, 0, 64));
    EXPECT_EQ(Fill(cache, 4, 0, 0.5), Runs({{0, 0, 1}, {0, 1, 1}, {0, 1, 1}, {0, 2, 1}}));
    EXPECT_EQ(Fill(cache, 4, 0, 0.5), Runs({{0, 3, 1}, {0, 3, 1}, {0, 3, 1}, {0, 4, 1}}));
}

} // namespace
