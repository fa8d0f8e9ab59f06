// A streaming sample-rate converter for mono and stereo interleaved PCM: a
// polyphase windowed-sinc filter evaluated in single precision.
//
// Contract
// - `make` answers null when it does not take the conversion: equal rates,
//   a channel count other than 1 or 2, a format outside the packed 0–4
//   (u8, s16, s32, flt, dbl), or a rate ratio whose reduced output side
//   exceeds kMaximumPhases (its filter table would not stay small). The
//   caller then converts by other means.
// - The filter: Kaiser-windowed sinc (β 9) of 32 taps at the input rate. When
//   0.97 of the output's Nyquist frequency lies below the input's, the
//   cut-off moves there and the filter widens in proportion. Each of the
//   filter's phases sums to 1, so a constant signal stays exactly constant.
// - Timing: output frame k sits at input time k · in / out; there is no
//   delay. Before the first input frame the signal is taken as silence.
//   A stream of T input frames yields ceil(T · out / in) output frames once
//   `flush` has run.
// - Samples are converted to float on entry (integers scaled to [−1, 1))
//   and back on exit, integers rounded to nearest and saturated.
// - `convert` appends input and writes at most `capacity` output frames;
//   input that cannot yet be turned into output (the filter needs frames
//   after the output's time) or that did not fit is kept for the next call.
//   `flush` ends the stream: it pads the end with silence and hands out
//   what is left, over as many calls as capacity requires; `reset` starts a
//   new stream. Buffers grow to the largest block seen and are then reused.
// - One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace brindle {

// The filter bank of one rate ratio, shared read-only by every resampler of
// that ratio. Per phase: `taps` coefficients (a multiple of 8, zero past the
// filter's length), the input frames to step over after an output of that
// phase, and the phase that follows.
struct PolyphaseFilter {
    PolyphaseFilter() = default;
    PolyphaseFilter(const PolyphaseFilter&) = delete;  // `coefficients` points into `storage`
    PolyphaseFilter& operator=(const PolyphaseFilter&) = delete;
    int64_t phases = 1;   // output side of the reduced rate ratio
    int64_t advance = 1;  // input side of the reduced rate ratio
    int64_t taps = 0;
    int64_t center = 0;  // taps before the output's time
    float* coefficients = nullptr;  // inside storage, 32-byte aligned
    std::vector<float> storage;
    std::vector<int32_t> step;
    std::vector<int32_t> nextPhase;
    // Per phase, the four outputs from one of that phase on: their rows
    // (offsets into `coefficients`) and first input frames (from the first
    // output's), then the input frames to step over and the phase after
    // them. The vector kernels take a group of four outputs in one look-up.
    struct Quad {
        int32_t row[4];
        int32_t at[4];
        int32_t advance;
        int32_t next;
    };
    std::vector<Quad> quads;
};

class PolyphaseResampler {
public:
    static constexpr int64_t kMaximumPhases = 1024;

    static std::unique_ptr<PolyphaseResampler> make(int32_t srcSampleFormat, int32_t destSampleFormat,
                                                     int64_t channels, int64_t srcRate, int64_t destRate);

    // Output frames the next `convert` of `numberOfSamples` frames can write
    // at most (frames held back included).
    int64_t maximumOutputSamples(int64_t numberOfSamples) const;
    // Answers the frames written to `output`, or −1 when the input could not
    // be stored.
    int64_t convert(const void* samples, int64_t numberOfSamples, void* output, int64_t capacity);
    int64_t flush(void* output, int64_t capacity);
    void reset();

    int64_t tapsPerPhase() const { return m_taps; }
    int64_t phases() const { return m_phases; }

private:
    PolyphaseResampler() = default;
    bool appendInput(const void* samples, int64_t frames);
    bool growInput(int64_t frames);
    void dropConsumedInput();
    int64_t outputsAvailable() const;
    int64_t produce(uint8_t* output, int64_t frames);

    int32_t m_srcFormat = 0;
    int32_t m_destFormat = 0;
    int64_t m_channels = 0;
    std::shared_ptr<const PolyphaseFilter> m_filter;
    int64_t m_phases = 1;
    int64_t m_advance = 1;
    int64_t m_taps = 0;
    int64_t m_center = 0;

    // The padded input stream as one float plane per channel: frames
    // [m_first, m_end). The stream begins with m_center frames of silence.
    std::vector<float> m_input[2];
    int64_t m_first = 0;
    int64_t m_end = 0;        // one past the last frame held
    int64_t m_tapStart = 0;   // stream frame under the next output's first tap
    int64_t m_phase = 0;      // the next output's phase
    int64_t m_outputLimit = -1;  // once flushing: outputs whose first tap lies before this frame
    std::vector<float> m_block;  // a block of outputs before the format conversion
};

}  // namespace brindle
