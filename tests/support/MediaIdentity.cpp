// Frame index code painted into pictures and positional PCM values.

#include "support/MediaFixtures.h"

#include <cmath>

namespace molvane::test {

namespace {

constexpr int kBits = 16;
constexpr uint8_t kBlack = 16;
constexpr uint8_t kWhite = 235;
// Means of a block's centre must fall clearly on one side; anything in
// between means the picture does not carry the code.
constexpr int kDarkBelow = 80;
constexpr int kLightAbove = 176;

// Rows of the code, as fractions of the height in 16ths.
constexpr int kCodeTop = 5, kCodeMiddle = 8, kCodeBottom = 11;

// Triangle wave 0..255..0 over a period of 512, so the gradient has no seams.
int Triangle(int v)
{
    v &= 511;
    return v < 256 ? v : 511 - v;
}

} // namespace

void PaintFrameIndex(int index, uint8_t* const planes[3], const int strides[3], int width,
                     int height)
{
    // Background: diagonal luma ramp and crossing chroma ramps, all moving a
    // few pixels per frame so motion search and scalers have real work.
    for (int y = 0; y < height; ++y) {
        uint8_t* row = planes[0] + static_cast<ptrdiff_t>(y) * strides[0];
        for (int x = 0; x < width; ++x)
            row[x] = static_cast<uint8_t>(kBlack + Triangle(x + 2 * y + 4 * index) * (kWhite - kBlack) / 255);
    }
    const int cw = (width + 1) / 2, ch = (height + 1) / 2;
    for (int y = 0; y < ch; ++y) {
        uint8_t* u = planes[1] + static_cast<ptrdiff_t>(y) * strides[1];
        uint8_t* v = planes[2] + static_cast<ptrdiff_t>(y) * strides[2];
        for (int x = 0; x < cw; ++x) {
            u[x] = static_cast<uint8_t>(64 + Triangle(2 * x + 3 * index) / 2);
            v[x] = static_cast<uint8_t>(64 + Triangle(2 * y + 5 * index) / 2);
        }
    }

    const int top = height * kCodeTop / 16;
    const int middle = height * kCodeMiddle / 16;
    const int bottom = height * kCodeBottom / 16;
    for (int bit = 0; bit < kBits; ++bit) {
        const bool one = (index >> (kBits - 1 - bit)) & 1;
        const int x0 = width * bit / kBits, x1 = width * (bit + 1) / kBits;
        for (int y = top; y < bottom; ++y) {
            const bool white = (y < middle) == one;
            uint8_t* row = planes[0] + static_cast<ptrdiff_t>(y) * strides[0];
            for (int x = x0; x < x1; ++x)
                row[x] = white ? kWhite : kBlack;
        }
        // Grey chroma under the code, so colour bleeding cannot shift the means.
        for (int y = top / 2; y < (bottom + 1) / 2 && y < ch; ++y) {
            for (int x = x0 / 2; x < (x1 + 1) / 2 && x < cw; ++x) {
                planes[1][static_cast<ptrdiff_t>(y) * strides[1] + x] = 128;
                planes[2][static_cast<ptrdiff_t>(y) * strides[2] + x] = 128;
            }
        }
    }
}

int ReadFrameIndex(const uint8_t* rgb24, int width, int height, int strideBytes)
{
    if (!rgb24 || width < kBits || height < 16)
        return -1;

    // Mean brightness of a window around (cx, cy) with the given half sizes.
    auto mean = [&](int cx, int cy, int hx, int hy) {
        long sum = 0, count = 0;
        for (int y = cy - hy; y <= cy + hy; ++y) {
            const uint8_t* row = rgb24 + static_cast<ptrdiff_t>(y) * strideBytes;
            for (int x = cx - hx; x <= cx + hx; ++x, ++count)
                sum += row[3 * x] + row[3 * x + 1] + row[3 * x + 2];
        }
        return static_cast<int>(sum / (3 * count));
    };

    // Centres of the two rows, in 32nds of the height; windows stay within
    // the middle half of each block.
    const int rowA = height * (kCodeTop + kCodeMiddle) / 32;
    const int rowB = height * (kCodeMiddle + kCodeBottom) / 32;
    const int hy = height * (kCodeMiddle - kCodeTop) / 64;
    const int hx = width / (4 * kBits);

    int index = 0;
    for (int bit = 0; bit < kBits; ++bit) {
        const int cx = width * (2 * bit + 1) / (2 * kBits);
        const int a = mean(cx, rowA, hx, hy);
        const int b = mean(cx, rowB, hx, hy);
        int value;
        if (a > kLightAbove && b < kDarkBelow)
            value = 1;
        else if (a < kDarkBelow && b > kLightAbove)
            value = 0;
        else
            return -1;
        index = (index << 1) | value;
    }
    return index;
}

int16_t PositionSample(int64_t n, int channel)
{
    switch (channel) {
    case 0: return static_cast<int16_t>(n & 0x7FFF);
    case 1: return static_cast<int16_t>((n >> 15) & 0x7FFF);
    default: return static_cast<int16_t>((n + static_cast<int64_t>(channel) * 0x1000) & 0x7FFF);
    }
}

float PositionSampleFloat(int64_t n, int channel)
{
    return static_cast<float>(PositionSample(n, channel)) / 32768.0f;
}

uint8_t PositionSampleU8(int64_t n, int channel)
{
    return static_cast<uint8_t>((n + 37 * static_cast<int64_t>(channel)) & 0xFF);
}

int16_t ExpectedS16FromFloat(float f)
{
    const long v = std::lrintf(f * 32768.0f);
    return static_cast<int16_t>(v < -32768 ? -32768 : v > 32767 ? 32767 : v);
}

int16_t ExpectedS16FromU8(uint8_t v)
{
    return static_cast<int16_t>((v - 128) * 256);
}

int64_t PositionOfSampleFrame(const int16_t* interleaved, int channels)
{
    if (!interleaved || channels < 1 || interleaved[0] < 0)
        return -1;
    int64_t n = interleaved[0];
    if (channels >= 2) {
        if (interleaved[1] < 0)
            return -1;
        n |= static_cast<int64_t>(interleaved[1]) << 15;
    }
    for (int c = 2; c < channels; ++c) {
        if (interleaved[c] != PositionSample(n, c))
            return -1;
    }
    return n;
}

} // namespace molvane::test
