// The fade-out effect: a linear ramp from full level to silence, positioned
// on the track's sample axis so that it continues across buffer boundaries.
//
// Contract
// - The ramp starts at track index `startIndexAtTrack` (s) and lasts
//   `numberOfSamplesAtTrack` (c) frames; `totalSamples` is s + c, the ramp's
//   end. The gain of track index i is 1 for i ≤ s, 1 − (i − s) / c in double
//   precision for s < i < s + c, and 0 for i ≥ s + c.
// - `initWithIndexOfSample` refuses a sample format of 5 or more (unsigned
//   compare) and answers null, logging the same text as the fade-in:
//   "Can not support such smaple format(%d) fade in effect".
// - `fadeOutSample(samples, numberOfSamples, atIndex)` processes a buffer whose
//   first frame sits at track index atIndex. It returns without touching the
//   buffer when the buffer lies wholly before the ramp (atIndex + n ≤ s), when
//   c = 0, or when the ramp ended at or before the buffer's start
//   (s + c ≤ atIndex, unlike the fade-in's strict test). So frames after the
//   ramp's end are silenced only inside a buffer that overlaps the ramp.
// - Per-format processing is that of the fade-in (VTFadeInEffect.h), including
//   flt read as 8-byte doubles within the buffer's bytes.
// - Runs on the mixing thread: no allocation, no logging, no locks.
#pragma once

#include <cstdint>
#include <memory>

class VTFadeOutEffect {
public:
    static std::shared_ptr<VTFadeOutEffect> initWithIndexOfSample(int64_t startIndexAtTrack,
                                                                  int64_t numberOfSamplesAtTrack,
                                                                  int32_t sampleFormat, int64_t numberOfChannel);

    void fadeOutSample(void* samples, int64_t numberOfSamples, int64_t atIndex) const;

    int64_t startIndexAtTrack() const { return m_startIndexAtTrack; }
    int64_t numberOfSamplesAtTrack() const { return m_numberOfSamplesAtTrack; }
    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t numberOfChannel() const { return m_numberOfChannel; }
    // Bytes of one frame: the format's sample size × channels.
    int64_t bytesPerSample() const;
    // The ramp's end on the track axis (saturating at the int64 range).
    int64_t totalSamples() const;

private:
    VTFadeOutEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel);

    int64_t m_startIndexAtTrack;
    int64_t m_numberOfSamplesAtTrack;
    int32_t m_sampleFormat;
    int64_t m_numberOfChannel;
};
