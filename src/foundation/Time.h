#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace molvane {

// Truncates toward zero like a cast, but a broken timestamp or time base
// (NaN, infinities, values beyond int64) saturates instead of being undefined.
inline int64_t TruncateToInt64(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= 9223372036854775807.0)
        return std::numeric_limits<int64_t>::max();
    if (value <= -9223372036854775808.0)
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

// Microseconds per tick of an FFmpeg time base; 0 for a base without a
// denominator, so such timestamps read as 0 rather than infinity.
inline double MicrosecondsPerTick(int numerator, int denominator)
{
    if (denominator == 0)
        return 0.0;
    return static_cast<double>(numerator) / static_cast<double>(denominator) * 1000000.0;
}

} // namespace molvane
