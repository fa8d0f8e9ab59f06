// VTBaseDefine: the base definitions shared by the whole model — the time
// unit, two numeric constants, the date text used for default names and the
// source of identifiers — plus the conversions between timestamps and sample
// indexes.
//
// It lives in foundation rather than model because the media layer (cache
// files and data providers), on which the model builds, needs the time unit,
// the identifiers and the date text as well.
//
// Vocabulary
// - Timestamp: a signed 64-bit count of milliseconds (unitsPerSecond() = 1000).
//   Every position and length of the model is one; durations too.
// - Sample rate and channel count: signed 64-bit.
// - Identifier: the text of a fresh UUID from uuidString().
//
// Conversions (brindle::sampleIndexOfTimestamp and friends) use 64-bit signed
// arithmetic, form the product first and truncate the quotient toward zero;
// nothing rounds to nearest. A product that would not fit in 64 bits (far
// beyond any real media: 2^63 ms at 384 kHz is still 24 000 years) is formed
// in 128 bits and the result clamped to the 64-bit range, instead of wrapping.
#pragma once

#include <QString>

#include <cstdint>
#include <limits>

class VTBaseDefine {
public:
    VTBaseDefine() = delete;

    // Timestamp units per second: 1000 (milliseconds).
    static constexpr int64_t unitsPerSecond() { return 1000; }
    // The literal 3.1415926, not the full-precision constant.
    static constexpr double PI() { return 3.1415926; }
    // Two real values (gains) closer than this count as equal.
    static constexpr double expression() { return 1e-6; }

    // A new Identifier: upper-case canonical 36-character UUID text.
    static QString uuidString();
    // The current date and time in the default zone and locale, formatted
    // with a Unicode date pattern by a new formatter ("zzz" is a zone name,
    // "hh" the 12-hour clock).
    static QString stringFromCurrentDateWithFormat(const QString& pattern);
    // The same with "yyyy-MM-dd hh-mm-ss zzz": no colons, so that the text can
    // stand in a file name.
    static QString stringFromCurrentDate();
};

namespace brindle {

namespace detail {
// (value × multiplier) / divisor, product first, truncated toward zero,
// clamped to the 64-bit range. `divisor` must be positive.
constexpr int64_t scaleTruncated(int64_t value, int64_t multiplier, int64_t divisor)
{
    int64_t product = 0;
    if (!__builtin_mul_overflow(value, multiplier, &product))
        return product / divisor;
    const __int128 wide = static_cast<__int128>(value) * multiplier / divisor;
    if (wide > std::numeric_limits<int64_t>::max())
        return std::numeric_limits<int64_t>::max();
    if (wide < std::numeric_limits<int64_t>::min())
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(wide);
}

constexpr int64_t addClamped(int64_t a, int64_t b)
{
    int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}
}  // namespace detail

// The sample index of `timestamp` at `sampleRate`: (t × r) / 1000, truncated.
// At 44100 Hz, 1 ms is sample 44 and 999 ms sample 44055.
constexpr int64_t sampleIndexOfTimestamp(int64_t timestamp, int64_t sampleRate)
{
    return detail::scaleTruncated(timestamp, sampleRate, VTBaseDefine::unitsPerSecond());
}

// The number of samples of `duration` at `sampleRate`: the same formula
// applied to the duration itself, which may differ by one from the difference
// of the converted start and end.
constexpr int64_t sampleCountOfDuration(int64_t duration, int64_t sampleRate)
{
    return detail::scaleTruncated(duration, sampleRate, VTBaseDefine::unitsPerSecond());
}

// The end index of a span (a clip on its track): converted from the sum
// `timestamp + duration`, not from the two parts separately.
constexpr int64_t endSampleIndexOfSpan(int64_t timestamp, int64_t duration, int64_t sampleRate)
{
    return sampleIndexOfTimestamp(detail::addClamped(timestamp, duration), sampleRate);
}

// The timestamp reached after `sampleCount` samples at `sampleRate`:
// (n × 1000) / r, truncated (the play position after n output frames). A
// rate that is not positive gives 0.
constexpr int64_t timestampOfSampleCount(int64_t sampleCount, int64_t sampleRate)
{
    if (sampleRate <= 0)
        return 0;
    return detail::scaleTruncated(sampleCount, VTBaseDefine::unitsPerSecond(), sampleRate);
}

}  // namespace brindle
