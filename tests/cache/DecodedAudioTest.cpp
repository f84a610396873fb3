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

// Sample frame i of test frame id holds (id * 2048 + i + 1, its negation).
FramePtr MakeFrame(int id, int64_t start, int frames, int tag)
{
    auto frame = std::make_shared<DecodedAudioFrame>(2 * frames, frames, kRate, start,
                                                     start + frames * int64_t(1000000) / kRate - 1);
    for (int i = 0; i < frames; ++i)
        frame->samples[2 * i + 1] = int16_t(-(frame->samples[2 * i] = int16_t(id * 2048 + i + 1)));
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

// Sample frames as runs: "id:first+count" of a test frame, "id:first*count"
// of one sample frame held, "_count" of silence.
std::string Describe(const Samples& out)
{
    std::string told;
    for (size_t n = 0, end = 0; n < out.size(); n = end) {
        // A run holds its first value if the second repeats it, else counts up from it.
        const int v = out[n], step = n + 2 < out.size() && v && out[n + 2] == v ? 0 : 1;
        for (end = n; end < out.size() && out[end] == (v ? v + step * int(end - n) / 2 : 0); end += 2) {
            if (out[end + 1] != -out[end] || out[end] < 0)
                return "bad sample frame " + std::to_string(end / 2);
        }
        const int id = (v - 1) / 2048, index = (v - 1) % 2048, count = int(end - n) / 2;
        told += (n ? " " : "") + (v ? std::to_string(id) + ":" + std::to_string(index) + (step ? "+" : "*") : "_") +
                std::to_string(count);
    }
    return told;
}

// Runs a script and tells what its reporting steps saw. Times in ms:
//   mN         SetMaxFrameCount(N)
//   I@S[+N][~T]  append frame I from S: N sample frames (default 480), tag T (default -1)
//   x  an empty pointer;  C  Clear;  F  ForceClear;  P  FlushPaBuffer;  tA,B  UpdateCache(A, B)
//   fN@T[r][*S]  fill N sample frames from play time T (r: reset) at speed S: tells the runs
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
            const size_t star = token.find('*');
            const double speed = star == std::string::npos ? 1.0 : std::stod(token.substr(star + 1));
            out << Describe(Fill(cache, int(a), std::llround(b * 1000), speed, token.find('r') != std::string::npos))
                << " ";
        } else if (op == '?') {
            out << cache.GetFrameCount() << "/" << cache.GetMaxFrameCount() << " " << cache.GetStartTime() / 1000.0
                << "-" << (cache.GetEndTime() + 1) / 1000.0 << " " << cache.GetSize() << " ";
        } else if (op == '#') {
            out << cache.GetFrameCount() << " ";
        } else if (op == 'w') {
            held.push_back(cache.LastFrame());
        } else if (op == 'r') {
            out << std::count_if(held.begin(), held.end(), [](const auto& f) { return !f.expired(); }) << " ";
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
        // No slots drop every frame; one counts as two; with one left they grow
        // by half, but not for a frame dropped on a known start.
        {"m0 0@0 1@10 # f100@0", "0 _100"},
        {"m1 0@0 1@10 ? f1000@0", "2/3 0-20 1920 0:0+480 1:0+480 _40"},
        {"m5 0@0 1@10 2@20 3@30 0@0 3@30 ? 4@40 ?", "4/5 0-40 3840 5/7 0-50 4800"},
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
        {"m4 8@0 w f600@0 F r 9@0 w f600@0r t100,200 # r", "8:0+480 _120 0 9:0+480 _120 0 0"},
        // Silence before or after the cached audio fixes no position.
        {"m5 0@100 f256@50 f256@99.999 f256@100 f256@200r f256@110", "_256 _256 0:0+256 _256 _256"},
        // Frames appended after the fill ran out are found by time; frames
        // touching UpdateCache's range stay; one trimmed while it plays plays on.
        {"m5 0@0 f400@0 f256@8.333 1@10 2@20 f256@13.666 f256@0 t19.999,20 # t30,40 f300@0",
         "0:0+400 0:400+80 _176 1:175+256 1:431+49 2:0+207 2 2:207+273 _27"},
        // ... also where the ring wraps: slots 0, 4, 3.
        {"m5 1@100 2@90 3@80 f256@80 t90,200 f256@0", "3:0+256 3:256+224 2:0+32"},
        // A half-speed fill that ends right after a write owes its repeat to
        // the next source frame, which then plays three times.
        {"m4 0@0+64 f4@0*0.5 f4@0*0.5", "0:0+2 0:1+2 0:3*3 0:4+1"},
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
    cache.AppendFrame(MakeFrame(0, 0, 480, -1));
    EXPECT_EQ(Describe(Fill(cache, 100, 0)), "0:0+100");
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
    EXPECT_EQ(Describe(Fill(cache, 256, 0)), "0:100+256");

    const Samples values{20000, -20000, 1001, -1001, 3, -3, 32767, -32768};
    std::copy(values.begin(), values.end(), cache.FirstFrame()->samples);
    for (const auto& [volume, expected] : {std::pair{2.0, Samples{32767, -32768, 2002, -2002, 6, -6, 32767, -32768}},
                                           {0.5, Samples{10000, -10000, 500, -500, 1, -1, 16383, -16384}},
                                           {0.0, Samples(8, 0)}})
        EXPECT_EQ(Fill(cache, 4, 0, 1.0, true, volume), expected) << volume;
}

TEST(DecodedAudio, FiveMeasurementsOfDriftBeyondTenMillisecondsSkipOrHoldTheAudio)
{
    // Twelve frames of 960 sample frames (20 ms) back to back. Fill k > 0
    // asks for 960 sample frames at frame k's start plus offsets[k - 1] µs:
    // as each fill fetches a frame at its beginning, it measures that offset.
    const auto play = [](const std::vector<int>& offsets, const std::string& speed) {
        std::string script = "m16";
        for (int id = 0; id < 12; ++id)
            script += " " + std::to_string(id) + "@" + std::to_string(id * 20) + "+960";
        for (size_t k = 0; k <= offsets.size(); ++k)
            script += " f960@" + std::to_string(20 * int(k) + (k ? offsets[k - 1] : 0) / 1000.0) + speed;
        return Script(script);
    };
    const std::string five = "0:0+960 1:0+960 2:0+960 3:0+960 4:0+960 ";
    const std::string ten = five + "5:0+960 6:0+960 7:0+960 8:0+960 9:0+960";
    const std::pair<std::vector<int>, std::string> rows[] = {
        // 15000 µs behind: 720 sample frames skipped; then the count starts over.
        {{15000, 15000, 15000, 15000, 15000}, five + "5:720+240 6:0+720"},
        {{15000, 15000, 15000, 15000, 15000, 30000}, five + "5:720+240 6:0+720 6:720+240 7:0+720"},
        {{10001, 10001, 10001, 10001, 10001}, five + "5:480+480 6:0+480"},
        // 10000 is beyond the tolerance, so it joins the average (18000).
        {{10000, 20000, 20000, 20000, 20000}, five + "5:864+96 6:0+864"},
        // Ahead: the frame's first sample frame held for 576 sample frames, then played.
        {{-12000, -12000, -12000, -12000, -12000}, five + "5:0*577 5:1+383"},
        // An average of 10000 either way is no drift; one within tolerance starts over.
        {{10000, 10000, 10000, 10000, 10000, 15000, 15000, 15000, 15000}, ten},
        {{-10000, -10000, -10000, -10000, -10000, -15000, -15000, -15000, -15000}, ten},
        {{20000, 20000, 20000, 20000, 9999, 20000, 20000, 20000, 20000}, ten},
    };
    for (const auto& [offsets, expected] : rows)
        EXPECT_EQ(play(offsets, ""), expected) << testing::PrintToString(offsets);
    // Off normal speed nothing is measured: the play times make no difference.
    EXPECT_EQ(play(std::vector<int>(9, 15000), "*1.01"), play(std::vector<int>(9, 0), "*1.01"));
}

TEST(DecodedAudio, PlaysADecodedFileSampleFrameBySampleFrameAtEverySpeed)
{
    const std::shared_ptr<MediaInfo> info = Probe("s16_stereo.wav"); // the instance holds it weakly
    MediaInstance instance;
    ASSERT_TRUE(instance.Initialize(info, 0));
    const QList<FramePtr> frames = DecodeAll(instance).audio;
    // {speed, buffer}: fast speeds drop every other or every third sample
    // frame; half speed plays all but the first twice. There the first
    // buffer is one short, so that no call ends owing a repeat.
    for (const auto& [speed, buffer] : {std::pair{1.0, 441}, {2.0, 256}, {1.5, 256}, {0.5, 256}}) {
        DecodedAudio cache;
        cache.SetMaxFrameCount(int(frames.size()) + 1);
        for (const FramePtr& frame : frames)
            cache.AppendFrame(frame);
        long long played = 0, wrong = -1; // sample frames; positional PCM: n holds (n % 32768, n / 32768)
        const auto step = int64_t(buffer * speed);
        for (int64_t source = 0; source < 72000 + step; source += step) {
            const long long playTime = (source * 1000000 + kRate - 1) / kRate; // maps back to `source`
            const Samples out = Fill(cache, buffer - (source == 0 && speed < 1.0), playTime, speed);
            for (size_t i = 0; i < out.size() && wrong < 0; i += 2, ++played) {
                const auto n = speed < 1.0 ? (played + 1) / 2 : static_cast<long long>(played * speed);
                if (n < 72000 ? SamplePosition(&out[i], 2) != n : out[i] || out[i + 1])
                    wrong = played;
            }
        }
        EXPECT_EQ(wrong, -1) << "first wrong sample frame at speed " << speed;
    }
}

} // namespace
