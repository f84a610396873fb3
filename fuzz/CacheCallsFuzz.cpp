// Reads the input as a sequence of calls on both frame caches, with small
// synthetic frames: appends at both ends and anywhere, trims, lookups with
// offsets, clears, budget and capacity changes, and device fills at varied
// sizes, channel counts, rates, volumes and speeds. After every call the
// lists must still be in time order with consistent sizes, and every fill
// must write exactly the frames asked for (ASan sees a write past the end).
//
//   cache_calls_fuzz -max_len=2048 corpus/

#include <MolvaneAV/DecodedAudio.h>
#include <MolvaneAV/DecodedVideo.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

// Draws the call parameters from the input, front to back; an exhausted
// input reads as zeros. (A plain reader: the replay test builds this file
// with g++ as well.)
class Input
{
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    size_t Remaining() const { return size_ - used_; }

    template <typename T>
    T Any()
    {
        T value{};
        const size_t n = std::min(sizeof(T), Remaining());
        std::memcpy(&value, data_ + used_, n);
        used_ += n;
        return value;
    }
    template <typename T>
    T Range(T low, T high)
    {
        using U = std::make_unsigned_t<T>;
        const U span = U(U(high) - U(low));
        if (span == std::numeric_limits<U>::max())
            return T(Any<U>());
        U raw = span < 0x100 ? U(Any<uint8_t>()) : span < 0x10000 ? U(Any<uint16_t>()) : Any<U>();
        return T(U(low) + raw % U(span + 1));
    }
    bool Bool() { return Any<uint8_t>() & 1; }
    template <typename T>
    T Pick(std::initializer_list<T> values) { return values.begin()[Range<size_t>(0, values.size() - 1)]; }
    double Real(double low, double high) { return low + (high - low) * (Any<uint16_t>() / 65535.0); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t used_ = 0;
};

void Require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

int64_t SizeOf(const DecodedVideoFrame& frame) { return frame.size; }
int64_t SizeOf(const DecodedAudioFrame& frame) { return frame.sampleCount; }

// Walks a list's ring through the protected members both caches share:
// frames in strictly increasing start order, each ending before the next
// begins, the recorded size their sum, the slots outside the list empty.
template <typename Cache, typename Frame>
struct Inspected : Cache {
    void Check() const
    {
        const auto& slots = this->frameBuffers[this->activeBuffer];
        const int capacity = slots.size();
        const int count = this->Cache::GetFrameCount();
        Require((this->firstIndex < 0) == (this->lastIndex < 0));
        Require(this->firstIndex < capacity && this->lastIndex < capacity);
        // A list filled by appends keeps one slot free.
        Require(count == 0 || count < capacity);
        std::vector<bool> used(size_t(capacity), false);
        int64_t size = 0;
        const Frame* previous = nullptr;
        for (int n = 0, slot = this->firstIndex; n < count; ++n, slot = slot + 1 == capacity ? 0 : slot + 1) {
            const Frame* frame = slots.at(slot).get();
            Require(frame != nullptr);
            used[size_t(slot)] = true;
            size += SizeOf(*frame);
            if (previous) {
                Require(previous->startTime < frame->startTime);
                Require(previous->endTime < frame->startTime);
            }
            previous = frame;
        }
        Require(count == 0 || slots.at(this->lastIndex).get() == previous);
        Require(size == this->totalSize);
        for (int slot = 0; slot < capacity; ++slot)
            Require(used[size_t(slot)] || !slots.at(slot));
    }
};
using Video = Inspected<DecodedVideo, DecodedVideoFrame>;
using Audio = Inspected<DecodedAudio, DecodedAudioFrame>;

// Times near the cached ones, so that frames meet, collide and overlap;
// now and then anywhere at all.
int64_t Plus(int64_t a, int64_t b)
{
    int64_t sum;
    return __builtin_add_overflow(a, b, &sum) ? (b > 0 ? INT64_MAX : INT64_MIN) : sum;
}

int64_t PickTime(Input& in, int64_t first, int64_t last)
{
    switch (in.Range<int>(0, 5)) {
    case 0: return Plus(last, in.Range<int64_t>(1, 100000));
    case 1: return Plus(first, -in.Range<int64_t>(1, 100000));
    case 2: return in.Range<int64_t>(Plus(first, -1000), Plus(last, 1000));
    case 3: return in.Bool() ? first : last;
    case 4: return in.Range<int64_t>(-100000, 10000000);
    default: return in.Any<int64_t>();
    }
}

std::shared_ptr<DecodedVideoFrame> MakePicture(Input& in, const DecodedVideo& cache)
{
    const auto first = cache.FirstFrame(), last = cache.LastFrame();
    const int64_t start = PickTime(in, first ? first->startTime : 0, last ? last->startTime : 0);
    const int width = in.Range<int>(1, 8), height = in.Range<int>(1, 4);
    const int size = (3 * width + 3) / 4 * 4 * height;
    if (in.Range<int>(0, 15) == 0) {
        auto marker = std::make_shared<DecodedVideoFrame>(); // no pixels
        marker->startTime = start;
        marker->endTime = PickTime(in, start, start);
        return marker;
    }
    auto frame = std::make_shared<DecodedVideoFrame>(nullptr, size, width, height, start, 25.0, 0, false);
    frame->endTime = in.Bool() ? Plus(start, 39999) : PickTime(in, start, start);
    return frame;
}

std::shared_ptr<DecodedAudioFrame> MakeSound(Input& in, const DecodedAudio& cache, int channels)
{
    const auto first = cache.FirstFrame(), last = cache.LastFrame();
    const int64_t start = PickTime(in, first ? first->startTime : 0, last ? last->startTime : 0);
    const int rate = in.Pick({8000, 22050, 44100, 48000, 96000});
    const int perChannel = in.Range<int>(0, 512);
    // As the converter makes them: the end is the start plus the duration,
    // less 1 µs, saturated; here the duration does not always fit the samples.
    const int64_t duration = in.Bool() ? int64_t(perChannel) * 1000000 / rate : in.Range<int64_t>(0, 10000000);
    const int64_t end = Plus(start, duration - 1);
    auto frame = std::make_shared<DecodedAudioFrame>(perChannel * channels, perChannel, rate, start, end);
    const int16_t base = in.Any<int16_t>();
    for (int i = 0; i < frame->bufferSampleCount; ++i)
        frame->samples[i] = int16_t(base + i * 97);
    // Tags other than the library's -1 make the cache stitch samples too.
    if (in.Range<int>(0, 7) == 0)
        frame->continuityTag = in.Range<int>(0, 3);
    return frame;
}

void VideoCall(Input& in, Video& video)
{
    switch (in.Range<int>(0, 11)) {
    case 0:
    case 1:
    case 2: video.AppendFrame(MakePicture(in, video)); break;
    case 3: video.AppendFrame(nullptr); break;
    case 4: {
        const int64_t play = PickTime(in, video.GetStartTime(), video.GetEndTime());
        video.UpdateCache(play, PickTime(in, play, play), in.Bool(), in.Bool());
        break;
    }
    case 5: {
        const int64_t time = PickTime(in, video.GetStartTime(), video.GetEndTime());
        const int offset = in.Range<int>(-4, 4);
        const auto frame = video.GetFrame(time, offset);
        if (frame && offset == 0)
            Require(frame->startTime <= time && time <= frame->endTime);
        break;
    }
    case 6: video.Clear(); break;
    case 7: video.ForceClear(); break;
    case 8:
        video.SetMaxCacheSize(in.Range<int64_t>(-1, 4096), in.Range<int>(-1, 16),
                              in.Range<int>(-1, 16), in.Range<int>(-1, 4));
        break;
    case 9: video.OverrideLastFrameEndTime(PickTime(in, video.GetStartTime(), video.GetEndTime())); break;
    case 10: video.GetFrameAtIndex(in.Range<int>(-2, video.GetMaxFrameCount() + 1)); break;
    default: {
        // Copies share the frames; each must stay a consistent list.
        Video copy;
        copy = video;
        copy.AppendFrame(MakePicture(in, copy));
        copy.Check();
        break;
    }
    }
}

void AudioCall(Input& in, Audio& audio, int channels)
{
    switch (in.Range<int>(0, 9)) {
    case 0:
    case 1:
    case 2: audio.AppendFrame(MakeSound(in, audio, channels)); break;
    case 3: audio.AppendFrame(nullptr); break;
    case 4: {
        const int64_t from = PickTime(in, audio.GetStartTime(), audio.GetEndTime());
        audio.UpdateCache(from, PickTime(in, from, audio.GetEndTime()));
        break;
    }
    case 5: audio.Clear(); break;
    case 6: audio.ForceClear(); break;
    case 7: audio.SetMaxFrameCount(in.Range<int>(0, 40)); break;
    case 8: audio.FlushPaBuffer(); break;
    default: {
        // The device usually matches the cached audio; sometimes it does not.
        const int fillChannels = in.Range<int>(0, 3) == 0 ? in.Range<int>(1, 8) : channels;
        const int frames = in.Range<int>(1, 1024);
        const int rate = in.Bool() ? in.Pick({8000, 44100, 48000, 96000})
                                          : in.Range<int>(1, 384000);
        const double speed = in.Bool() ? in.Pick({1.0, 0.25, 0.5, 0.75, 1.01, 1.5, 2.0, 4.0})
                                              : in.Real(0.01, 16.0);
        const double volume = in.Real(-4.0, 4.0);
        // The device clock of a host stays within a century or so of 0;
        // frame times may be anything a broken file gives.
        const int64_t play = std::clamp<int64_t>(PickTime(in, audio.GetStartTime(), audio.GetEndTime()),
                                                 -(int64_t(1) << 52), int64_t(1) << 52);
        // Exactly the size asked for: one value too far is a heap overflow.
        std::vector<short> buffer(size_t(frames) * size_t(fillChannels));
        Require(audio.PaFillBuffer(buffer.data(), frames, fillChannels, rate, play, volume, in.Bool(),
                                   speed) == frames);
        break;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    Video video;
    video.SetMaxCacheSize(in.Range<int64_t>(0, 8192), 4, 4, 3);
    Audio audio;
    audio.SetMaxFrameCount(in.Range<int>(0, 16));
    const int channels = in.Range<int>(1, 8);
    for (int call = 0; call < 400 && in.Remaining() > 0; ++call) {
        if (in.Bool()) {
            VideoCall(in, video);
            video.Check();
        } else {
            AudioCall(in, audio, channels);
            audio.Check();
        }
    }
    return 0;
}
