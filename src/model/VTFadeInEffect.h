// The fade-in effect: a linear ramp from silence to full level, positioned on
// the track's sample axis so that it continues across buffer boundaries.
//
// Contract
// - The ramp starts at track index `startIndexAtTrack` (s) and lasts
//   `numberOfSamplesAtTrack` (c) frames. The gain of track index i is 0 for
//   i ≤ s, (i − s) / c in double precision for s < i < s + c, and 1 for
//   i ≥ s + c.
// - `initWithIndexOfSample` refuses a sample format of 5 or more (unsigned
//   compare), logs "Can not support such smaple format(%d) fade in effect" and
//   answers null.
// - `fadeInSample(samples, numberOfSamples, atIndex)` processes a buffer whose
//   first frame sits at track index atIndex; every channel of frame k gets the
//   gain of index atIndex + k. It returns without touching the buffer when the
//   buffer lies wholly before the ramp (atIndex + n ≤ s), when c = 0, or when
//   the ramp ended before the buffer (s + c < atIndex: a buffer starting
//   exactly at the ramp's end is still processed, with gain 1).
// - Per format: u8 as ((x − 127) / 127 in single precision) × gain × 127 + 127,
//   truncated; s16 and s32 as x × gain truncated toward zero; flt and dbl as
//   8-byte doubles multiplied by the gain, where for flt frame k channel ch is
//   the double at index k × channels + ch and only the whole doubles inside the
//   buffer's bytes are touched.
// - Runs on the mixing thread: no allocation, no logging, no locks. The buffer
//   need not be aligned for the sample type.
#pragma once

#include <cstdint>
#include <memory>

class VTFadeInEffect {
public:
    static std::shared_ptr<VTFadeInEffect> initWithIndexOfSample(int64_t startIndexAtTrack,
                                                                 int64_t numberOfSamplesAtTrack,
                                                                 int32_t sampleFormat, int64_t numberOfChannel);

    void fadeInSample(void* samples, int64_t numberOfSamples, int64_t atIndex) const;

    int64_t startIndexAtTrack() const { return m_startIndexAtTrack; }
    int64_t numberOfSamplesAtTrack() const { return m_numberOfSamplesAtTrack; }
    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t numberOfChannel() const { return m_numberOfChannel; }

private:
    VTFadeInEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel);

    int64_t m_startIndexAtTrack;
    int64_t m_numberOfSamplesAtTrack;
    int32_t m_sampleFormat;
    int64_t m_numberOfChannel;
};

namespace brindle {

// The ramp shared by the fade-in and fade-out effects.
enum class FadeDirection { In, Out };

struct FadeRamp {
    FadeDirection direction;
    int64_t start;   // track index where the ramp begins
    int64_t length;  // ramp length in frames
    int32_t sampleFormat;
    int64_t numberOfChannel;
};

// Multiplies every channel of each of `numberOfSamples` frames, the first at
// track index `atIndex`, by the ramp's gain at that index. The caller has
// already decided that the buffer overlaps the ramp.
void applyFadeRamp(const FadeRamp& ramp, void* samples, int64_t numberOfSamples, int64_t atIndex);

// a + b, saturating at the int64 range (track indexes come from user data).
int64_t saturatingSum(int64_t a, int64_t b);

// Whether a sample format code is refused by the effects (5 or more, unsigned).
bool isUnsupportedEffectFormat(int32_t sampleFormat);

}  // namespace brindle
