// The video frame cache driven by short scripts, one scenario per row, as a
// host drives it: appends at either end, clears, budgets, UpdateCache's
// decisions and the look-ups that serve the picture to show.

#include <MolvaneAV/DecodedVideo.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

namespace {

using FramePtr = std::shared_ptr<DecodedVideoFrame>;

int64_t Micro(double ms) { return std::llround(ms * 1000); }

// Pictures of 100 bytes, or without pixels; `end` is the first millisecond after the picture.
FramePtr Picture(double start, double end, int bytes = 100)
{
    auto frame = std::make_shared<DecodedVideoFrame>(nullptr, bytes, 4, 4, Micro(start), 25.0, 0, false);
    frame->endTime = Micro(end) - 1;
    return frame;
}

// The list from its oldest frame on, walked with GetFrame(time, +1): runs of
// pictures of one length as "start-end" in ms, "xN" when N pictures form the
// run, joined by commas. Every look-up that disagrees with the walk is told
// after it.
std::string Describe(const DecodedVideo& cache)
{
    std::ostringstream out, faults;
    const int count = cache.GetFrameCount();
    std::vector<FramePtr> walk;
    for (FramePtr f = cache.FirstFrame(); f && walk.size() <= size_t(count); f = cache.GetFrame(f->startTime, 1))
        walk.push_back(f);
    for (size_t n = 0, first = 0; n < walk.size(); ++n) {
        const FramePtr& f = walk[n];
        if (cache.GetFrame(f->endTime, 0) != f || cache.GetFrameAtIndex(cache.GetFrameIndex(f->endTime)) != f ||
            cache.GetFrame(f->startTime, -1) != (n ? walk[n - 1] : nullptr))
            faults << " look-up at " << f->startTime;
        if (n + 1 < walk.size() && walk[n + 1]->endTime - walk[n + 1]->startTime == f->endTime - f->startTime)
            continue;
        out << (first ? "," : "") << walk[first]->startTime / 1000.0 << "-" << (f->endTime + 1) / 1000.0
            << (n > first ? "x" + std::to_string(n - first + 1) : "");
        first = n + 1;
    }
    if (int(walk.size()) != count || walk.empty() != (cache.LastFrame() == nullptr) ||
        (count && cache.LastFrame() != walk.back()))
        faults << " walked " << walk.size() << " of " << count;
    for (const int64_t time : {cache.GetStartTime() - 1, cache.GetEndTime() + 1}) {
        if (cache.GetFrame(time, 0) || cache.GetFrameIndex(time) >= 0)
            faults << " found at " << time;
    }
    if (count && (cache.GetFrame(walk[0]->startTime, count) || cache.GetFrame(walk.back()->startTime, -count)))
        faults << " stepped past an end";
    if (cache.GetFrameAtIndex(-1) || cache.GetFrameAtIndex(cache.GetMaxFrameCount()))
        faults << " slot outside the ring";
    return (walk.empty() ? "empty" : out.str()) + faults.str();
}

// Runs a script and tells what its reporting steps saw. Times in ms:
//   S or S:E    append a picture from S to E (default S + 40)
//   N@S or N@S/D  N pictures from S, one every D ms (default 40; negative: backwards)
//   eE          a frame without pixels ending at E;  oE  OverrideLastFrameEndTime(E)
//   x           an empty pointer;  C  Clear;  F  ForceClear
//   sB,W,H,D    SetMaxCacheSize(B, W, H, D)
//   uP/M[p][f]  UpdateCache(P, M, playing, forward): tells F, B or - for the direction allowed
//   ?  the list;  #  the frame count;  %  the slot count
//   w  remember the frames held now;  r  how many of them are still alive
std::string Script(const std::string& script)
{
    DecodedVideo cache;
    std::vector<std::weak_ptr<DecodedVideoFrame>> held;
    std::istringstream in(script);
    std::ostringstream out;
    for (std::string token; in >> token;) {
        std::istringstream arg(token.substr(1));
        double a = 0, b = 0, c = 0, d = 0;
        char sep = 0;
        const char op = token[0];
        if (op == 'x' || op == 'C' || op == 'F') {
            op == 'x' ? cache.AppendFrame(nullptr) : op == 'C' ? cache.Clear() : cache.ForceClear();
        } else if (op == 'e' && arg >> a) {
            cache.AppendFrame(Picture(0, a, 0));
        } else if (op == 'o' && arg >> a) {
            cache.OverrideLastFrameEndTime(Micro(a) - 1);
        } else if (op == 's' && arg >> a >> sep >> b >> sep >> c >> sep >> d) {
            cache.SetMaxCacheSize(int64_t(a), int(b), int(c), int(d));
        } else if (op == 'u' && arg >> a >> sep >> b) {
            const bool playing = token.find('p') != std::string::npos, forward = token.find('f') != std::string::npos;
            cache.UpdateCache(Micro(a), Micro(b), playing, forward);
            out << (cache.CanCacheForwards() ? "F" : "") << (cache.CanCacheBackwards() ? "B" : "")
                << (cache.CanCacheForwards() || cache.CanCacheBackwards() ? " " : "- ");
        } else if (op == '?' || op == '#' || op == '%' || op == 'r') {
            const auto alive = std::count_if(held.begin(), held.end(), [](const auto& f) { return !f.expired(); });
            out << (op == '?' ? Describe(cache) : std::to_string(op == '#' ? cache.GetFrameCount()
                                                               : op == '%' ? cache.GetMaxFrameCount() : alive))
                << " ";
        } else if (op == 'w') {
            held.clear();
            for (FramePtr f = cache.FirstFrame(); f && held.size() < 1000; f = cache.GetFrame(f->startTime, 1))
                held.push_back(f);
        } else if (std::istringstream whole(token); whole >> a) {
            double count = 1, start = a, step = 40, end = NAN;
            if (whole >> sep && sep == ':')
                whole >> end;
            else if (sep == '@')
                count = a, whole >> start >> sep >> step;
            for (int n = 0; n < int(count); ++n)
                cache.AppendFrame(Picture(start + n * step, std::isnan(end) ? start + n * step + 40 : end));
        } else {
            ADD_FAILURE() << "bad token " << token;
        }
    }
    std::string told = out.str();
    return told.substr(0, told.find_last_not_of(' ') + 1);
}

TEST(DecodedVideo, EachScenarioLeavesTheListAndDecisionsOfItsRow)
{
    const std::pair<const char*, const char*> rows[] = {
        // Placement: after the newest (which then ends there), before the
        // oldest (ending at its start); known starts and starts inside dropped.
        {"100 200 0 100 0 150 200 ?", "0-200x2,200-240"},
        // Negative starts become 0 unless the picture ends before 0; a first
        // picture within 1 ms of 0 starts at 0.
        {"-20:-5 -5:30 ?", "0-30"},
        {"0.9 ?  x 1.1 ?", "0-40.9 1.1-41.1"},
        // Without pixels only the newest picture's end moves, and only later
        // than its start; an empty pointer clears.
        {"0 40 e200 ? e40.001 ? e50 ? o300 ? x e100 ?", "0-40,40-200 0-40,40-200 0-40,40-50 0-40,40-300 empty"},
        // The ring grows by half while one slot is still free; known starts
        // never grow it. Fronts wrap round the ring and grow it in order.
        {"24@0 % 0 920 % 960 %", "25 25 37"},
        {"10@1000 20@960/-40 ? % #", "200-1400x30 37 30"},
        // Clear retires the slots: each append releases two of them from the
        // retired vector's end, ForceClear all; the fresh vector never grew.
        // A Clear empties the vector it activates at once.
        {"30@0 w C % r 5@2000 r 5@3000 r 9@4000 r", "25 30 27 17 0"},
        {"24@0 w x r 0 r C r 3@0 w C r F r", "24 23 0 3 0"},
        // Slots for 1.2 times the pictures that fit, at least 25; a negative
        // argument changes nothing; a budget clears.
        {"s1000000000,1920,1080,3 % s100000000,1920,1080,3 % s2000000000,1920,1080,3 % s5,-1,1,1 % s5000,0,0,3 %",
         "192 25 385 385 25"},
        {"3@0 s1000,10,10,1 # %", "0 25"},
        // UpdateCache. Pictures of 100 bytes from 1 s on, more media on both
        // sides. Fewer than 30 pictures want more ahead, even playing
        // backwards and full; a budget of 0 is always full.
        {"s4800,10,10,1 29@1000 u1800/9000p # 2160 u1800/9000p #", "F 29 B 30"},
        {"s2000,10,10,1 20@1000 u1400/9000p #", "F 19"},
        {"s0,10,10,1 5@1000 u1080/9000p #", "F 4"},
        // Full: the trailing side gives a picture up from a quarter of the budget.
        // A recycled picture decoded again stays out: it is inside the range
        // the list started at.
        {"s4000,10,10,1 40@1000 u1120/9000pf # u1400/9000pf # 1000 ?", "- 40 F 39 1040-2600x39"},
        {"s4000,10,10,1 40@1000 u2240/9000p # u2200/9000p #", "- 40 B 39"},
        // Paused and full with enough on both sides: nothing; past the cached
        // end: forwards, whatever the play direction.
        {"s4000,10,10,1 40@1000 u1800/9000 # u3000/9000p #", "- 40 F 39"},
        // Paused: 40 % of the budget ahead and 10 % behind in the direction of
        // motion, the other way round against it.
        {"s10000,10,10,1 40@1000 u1400/9000 u2000/9000 u1400/9000 #", "F F B 40"},
        {"s10000,10,10,1 40@1000 u1000/9000 #", "B 40"},
        {"s10000,10,10,1 40@1000 u1400/2599 #", "- 40"},
        {"s10000,10,10,1 40@0 u0/9000 #", "F 40"},
    };
    for (const auto& [script, expected] : rows)
        EXPECT_EQ(Script(script), expected) << script;
}

} // namespace
