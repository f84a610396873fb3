// The audio cache as the decoding side and the device callback drive it:
// scripts of placement and stitching, slots and their growth, the release of
// cleared frames and the fill's position and restarts, one per row; then the
// fill's volume, speed and drift correction, and a decoded file played
// through it. Sample frame i
// of test frame `id` holds (id * 2048 + i + 1, its negation), so every value
// of a fill's output tells where it came from.

#include <MolvaneAV/DecodedAudio.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>
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

// Sample frames as runs: "id:first+count" of a test frame, "_count" of
// silence; a repeated sample frame starts a new run.
std::string Describe(const Samples& out)
{
    std::ostringstream told;
    int id = -2, next = -1, run = 0;
    const auto flush = [&] {
        if (run)
            told << (told.tellp() ? " " : "") << (id < 0 ? "_" : std::to_string(id) + ":" + std::to_string(next - run))
                 << (id < 0 ? "" : "+") << run;
    };
    for (size_t n = 0; n < out.size(); n += 2) {
        const int v = out[n] - 1, frame = out[n] ? v / 2048 : -1, index = out[n] ? v % 2048 : next;
        if (out[n + 1] != -out[n] || v < -1)
            return "bad sample frame " + std::to_string(n / 2);
        if (frame != id || index != next)
            flush(), id = frame, next = index, run = 0;
        ++next, ++run;
    }
    flush();
    return told.str();
}

// Runs a script and tells what its reporting steps saw. Times in ms:
//   mN         SetMaxFrameCount(N)
//   I@S[+N][~T]  append frame I from S: N sample frames (default 480), tag T (default -1)
//   x  an empty pointer;  C  Clear;  F  ForceClear;  P  FlushPaBuffer;  tA,B  UpdateCache(A, B)
//   fN@T[r]    fill N sample frames from play time T (r: reset): tells the runs
//   ?  "count/slots start-end size";  #  the frame count
//   w  remember the newest frame;  r  how many remembered frames are alive
std::string Script(const std::string& script)
{
    DecodedAudio cache;
    std::vector<std::weak_ptr<DecodedAudioFrame>> held;
    std::istringstream in(script);
    std::ostringstream out;
    for (std::string token; in >> token;) {
        std::istringstream arg(token.substr(1));
        double a = 0, b = 0;
        char sep = 0;
        const char op = token[0];
        if (op == 'x' || op == 'C' || op == 'F' || op == 'P') {
            op == 'x' ? cache.AppendFrame(nullptr) : op == 'C' ? cache.Clear() : op == 'F' ? cache.ForceClear()
                                                                                          : cache.FlushPaBuffer();
        } else if (op == 'm' && arg >> a) {
            cache.SetMaxFrameCount(int(a));
        } else if (op == 't' && arg >> a >> sep >> b) {
            cache.UpdateCache(std::llround(a * 1000), std::llround(b * 1000));
        } else if (op == 'f' && arg >> a >> sep >> b) {
            out << Describe(Fill(cache, int(a), std::llround(b * 1000), 1.0, token.back() == 'r')) << " ";
        } else if (op == '?') {
            out << cache.GetFrameCount() << "/" << cache.GetMaxFrameCount() << " " << cache.GetStartTime() / 1000.0
                << "-" << (cache.GetEndTime() + 1) / 1000.0 << " " << cache.GetSize() << " ";
        } else if (op == '#') {
            out << cache.GetFrameCount() << " ";
        } else if (op == 'w' || op == 'r') {
            int alive = 0;
            for (const auto& frame : held)
                alive += frame.expired() ? 0 : 1;
            op == 'w' ? held.push_back(cache.LastFrame()) : void(out << alive << " ");
        } else if (std::istringstream whole(token); whole >> a >> sep >> b && sep == '@') {
            int frames = 480, tag = -1;
            while (whole >> sep)
                (sep == '+' ? whole >> frames : whole >> tag);
            cache.AppendFrame(MakeFrame(int(a), std::llround(b * 1000), frames, tag));
        } else {
            ADD_FAILURE() << "bad token " << token;
        }
    }
    std::string told = out.str();
    return told.substr(0, told.find_last_not_of(' ') + 1);
}

TEST(DecodedAudio, EachScenarioLeavesTheListAndFillsOfItsRow)
{
    // Frames take 10 ms (480 sample frames) unless told.
    const std::pair<const char*, const char*> rows[] = {
        // After the newest, before the oldest; dropped between them or on a known start.
        {"m8 1@100 2@200 3@50 4@150 5@50+960~7 6@200+960~7 7@100+960~7 ? f1500@50",
         "3/8 50-210 2880 3:0+480 1:0+480 2:0+480 _60"},
        // A negative start becomes 0 unless the frame ends before 0.
        {"m8 1@-20 2@-5 3@-0.001 ? f600@0", "1/8 0-5 960 2:0+480 _120"},
        // No slots drop every frame; one counts as two; with one left they grow by half.
        {"m0 0@0 1@10 # f100@0", "0 _100"},
        {"m1 0@0 1@10 ? f1000@0", "2/3 0-20 1920 0:0+480 1:0+480 _40"},
        {"m5 0@0 1@10 2@20 3@30 4@40 ?", "5/7 0-50 4800"},
        // Another run pads the newest frame up to its start, or cuts it short;
        // one in front is padded up to the cached start. Frames without
        // samples are kept but never stitched.
        {"m8 0@0~1 1@30~2 ? f2000@0", "2/8 0-40 3840 0:0+480 _960 1:0+480 _80"},
        {"m8 0@0+1440~1 1@20~2 ? f1500@0", "2/8 0-30 2880 0:0+960 1:0+480 _60"},
        {"m8 1@100~1 0@0~2 ? f5400@0", "2/8 0-110 10560 0:0+480 _4320 1:0+480 _120"},
        {"m8 0@50+0~1 1@60~2 2@0+0~3 ? f600@0", "3/8 0-70 960 1:0+480 _120"},
        // Clear retires the slots, released two per append from the end; an
        // empty pointer clears too. The fill lets go of what it played past.
        {"m4 0@0 w 1@10 w 2@20 w C 7@0 r x r", "2 0"},
        {"m4 8@0 w f600@0 F r", "8:0+480 _120 0"},
        {"m4 8@0 w f600@0 t100,200 # r", "8:0+480 _120 0 0"},
        // Silence before or after the cached audio fixes no position.
        {"m5 0@100 f256@50 f256@99.999 f256@100 f256@200r f256@110", "_256 _256 0:0+256 _256 _256"},
        // Frames appended after the fill ran out are found by time; frames
        // touching UpdateCache's range stay; one trimmed while it plays plays on.
        {"m5 0@0 f400@0 f256@8.333 1@10 2@20 f256@13.666 f256@0 t19.999,20 # t30,40 f300@0",
         "0:0+400 0:400+80 _176 1:175+256 1:431+49 2:0+207 2 2:207+273 _27"},
        // ... also where the ring wraps: slots 0, 4, 3.
        {"m5 1@100 2@90 3@80 f256@80 t90,200 f256@0", "3:0+256 3:256+224 2:0+32"},
    };
    for (const auto& [script, expected] : rows)
        EXPECT_EQ(Script(script), expected) << script;

    // Each restart makes the fill find its place by time: 25 ms is sample
    // frame 240 of frame 2. The last one grows the ring of five slots.
    for (const char* restart : {"f256@25r", "P f256@25", "C 0@0 1@10 2@20 3@30 f256@25",
                                "F 0@0 1@10 2@20 3@30 f256@25", "m2 f256@25", "4@40 f256@25"}) {
        EXPECT_EQ(Script(std::string("m5 0@0 1@10 2@20 3@30 f256@0 f256@25 ") + restart + " f256@0"),
                  "0:0+256 0:256+224 1:0+32 2:240+240 3:0+16 3:16+256")
            << restart;
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
