// The gain effect: multiplies interleaved PCM in place by a clip's gain.
//
// Contract
// - Made for one sample format (0 u8, 1 s16, 2 s32, 3 flt, 4 dbl) and channel
//   count. `initWithSampleFormat` refuses a code of 5 or more (compared as
//   unsigned, so negative codes are refused too), logs "Can not support such
//   smaple format(%d) volume effect" and answers null.
// - `effectVolume(gain, samples, numberOfSamples)` processes numberOfSamples
//   frames × channels samples in place. A gain within 1e-6 of 1.0 leaves the
//   buffer untouched (bit-identical). Per format:
//   - u8: v = (x − 127) / 127 in integers (−1, 0 or 1: the sample is
//     deliberately quantised this coarsely before the gain), then
//     clamp(v × gain, −1, 1) × 127 + 127, truncated.
//   - s16: x × gain truncated toward zero, clamped to −32768..32767.
//   - s32: x × gain truncated toward zero; results below −32768 become −32768
//     (the 16-bit lower bound, deliberately) and there is no upper clamp other
//     than the int32 range itself.
//   - flt and dbl: the buffer is read as 8-byte doubles (flt included,
//     deliberately), each clamped to −1..1 after the gain. For flt only the
//     whole doubles that fit inside the buffer's numberOfSamples × channels × 4
//     bytes are processed; nothing past the buffer is read or written.
// - A NaN result converts to 0 for the integer formats; every conversion back
//   to an integer saturates, so no gain or sample value is undefined behaviour.
// - Runs on the mixing thread: no allocation, no logging, no locks. The buffer
//   need not be aligned for the sample type.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

class VTVolumeEffect {
public:
    static std::shared_ptr<VTVolumeEffect> initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel);

    void effectVolume(double gain, void* samples, int64_t numberOfSamples) const;

    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t numberOfChannels() const { return m_numberOfChannels; }

private:
    VTVolumeEffect(int32_t sampleFormat, int64_t numberOfChannels);

    int32_t m_sampleFormat;
    int64_t m_numberOfChannels;
};

namespace brindle {

// The effects' shared conversions of a processed value back to its storage
// type: truncation toward zero, saturating at the type's range, NaN to zero.
template <class Integer>
inline Integer truncateSaturating(double value)
{
    constexpr double lowest = static_cast<double>(std::numeric_limits<Integer>::lowest());
    constexpr double highest = static_cast<double>(std::numeric_limits<Integer>::max());
    if (std::isnan(value))
        return 0;
    if (value <= lowest)
        return std::numeric_limits<Integer>::lowest();
    if (value >= highest)
        return std::numeric_limits<Integer>::max();
    return static_cast<Integer>(value);
}

// Number of samples (frames × channels) the effects process, or 0 when the
// description is empty, negative or too large to address.
inline int64_t effectSampleCount(int64_t numberOfSamples, int64_t numberOfChannels, int64_t bytesPerSample)
{
    if (numberOfSamples <= 0 || numberOfChannels <= 0 || bytesPerSample <= 0)
        return 0;
    const int64_t limit = std::numeric_limits<int64_t>::max() / bytesPerSample;
    if (numberOfSamples > limit / numberOfChannels)
        return 0;
    return numberOfSamples * numberOfChannels;
}

// Formats 3 and 4 are processed as 8-byte doubles: the number of whole
// doubles inside a buffer of `count` samples of `bytesPerSample` bytes each.
inline int64_t wholeDoublesIn(int64_t count, int64_t bytesPerSample)
{
    return count * bytesPerSample / static_cast<int64_t>(sizeof(double));
}

}  // namespace brindle
