// A converter of interleaved PCM between sample formats, channel layouts and
// sample rates.
//
// A change of rate for mono or stereo that keeps the channel layout goes
// through PolyphaseResampler, a vectorised filter of the same design and
// length as libswresample's default that runs several times faster (the
// converting mix spends most of its time here); every other conversion, and
// any rate ratio that filter declines, goes through libswresample.
//
// Contract
// - Made for one source and one destination description: a packed sample
//   format (0 u8, 1 s16, 2 s32, 3 flt, 4 dbl), a channel layout mask (as made
//   by KRAudioFrame2::defaultChannelLayoutByChannel) and a rate. Both sides
//   are interleaved. `initWithSampleFormat` answers null, with a log line,
//   for a planar or unknown format, an empty or invalid layout, a rate that is
//   not positive or does not fit an int, or when libswresample refuses.
// - `assertSampleFormat` answers whether this converter converts exactly the
//   given formats, channel counts and rates.
// - The converter is a stream: it keeps the resampling filter's history (and
//   any input it could not yet turn into output) between calls, so that a
//   sequence of blocks converts as one signal without gaps or lost samples.
//   At the end of a stream `flush`/`flushInto` hand out what is still held
//   back and reset the converter, which is then ready for a new stream;
//   `reset` drops what is held back without output.
// - Channel up- and down-mixing use libswresample's default matrix: a mono
//   source reaches both stereo channels at −3 dB, a 5.1 source's centre and
//   surround channels are folded into left and right, and with an integer
//   destination format the matrix is normalised so that it cannot clip.
// - `resampleFrame` converts one KRAudioFrame2 whose description matches the
//   source and answers a new packed frame of everything converted so far, or
//   null when the frame does not match, on failure, or when nothing came out
//   yet (a very short first frame can be held back entirely by the filter).
// - The raw calls are for the mixer's per-buffer path. `resampleInto` with a
//   byte vector converts all of the input and writes every frame it produces
//   to the vector's front, growing the vector when it is too small (growth is
//   geometric and the vector never shrinks, so a caller that keeps its vector
//   stops allocating once the largest block size has been seen); it answers
//   the frame count, or −1 on failure. `resampleInto` with a fixed buffer
//   writes at most `capacity` frames and keeps the rest inside the converter
//   for the next call (a call with no input then drains it).
// - One thread at a time; the calls take no locks. Failures are logged.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

class KRAudioFrame2;
struct SwrContext;
namespace brindle {
class PolyphaseResampler;
}

class KRResampleContext2 {
public:
    static std::shared_ptr<KRResampleContext2> initWithSampleFormat(int32_t srcSampleFormat, int32_t destSampleFormat,
                                                                    uint64_t srcChannelLayout,
                                                                    uint64_t destChannelLayout, int64_t srcSampleRate,
                                                                    int64_t destSampleRate);
    ~KRResampleContext2();
    KRResampleContext2(const KRResampleContext2&) = delete;
    KRResampleContext2& operator=(const KRResampleContext2&) = delete;

    bool assertSampleFormat(int32_t srcSampleFormat, int32_t destSampleFormat, int64_t srcChannels,
                            int64_t destChannel, int64_t srcSampleRate, int64_t destSampleRate) const;

    // One frame in, one new frame of destination samples out.
    std::shared_ptr<KRAudioFrame2> resampleFrame(const KRAudioFrame2& frame);
    // The frames still held back at the end of a stream, or null when none.
    std::shared_ptr<KRAudioFrame2> flush();

    // Converts `numberOfSamples` source frames (interleaved) into `output`;
    // answers the number of destination frames written, −1 on failure.
    int64_t resampleInto(const void* samples, int64_t numberOfSamples, std::vector<uint8_t>& output);
    // Converts into a buffer of `capacity` destination frames; the surplus
    // stays in the converter. `samples` may be null when numberOfSamples is 0.
    int64_t resampleInto(const void* samples, int64_t numberOfSamples, void* output, int64_t capacity);
    // The end of the stream: writes what is held back to `output`'s front and
    // resets the converter. Answers the frame count, −1 on failure.
    int64_t flushInto(std::vector<uint8_t>& output);
    // Drops whatever is held back and starts a new stream.
    void reset();

    // An upper bound of the frames that converting `numberOfSamples` more
    // source frames can produce now (held-back frames included).
    int64_t maximumOutputSamples(int64_t numberOfSamples) const;

    int32_t srcSampleFormat() const { return m_srcSampleFormat; }
    int32_t destSampleFormat() const { return m_destSampleFormat; }
    uint64_t srcChannelLayout() const { return m_srcChannelLayout; }
    uint64_t destChannelLayout() const { return m_destChannelLayout; }
    int64_t srcChannels() const { return m_srcChannels; }
    int64_t destChannels() const { return m_destChannels; }
    int64_t srcSampleRate() const { return m_srcSampleRate; }
    int64_t destSampleRate() const { return m_destSampleRate; }
    // Bytes of one interleaved frame on each side.
    int64_t srcBytesPerSample() const { return m_srcFrameBytes; }
    int64_t destBytesPerSample() const { return m_destFrameBytes; }

private:
    KRResampleContext2() = default;
    std::shared_ptr<KRAudioFrame2> frameOf(const std::vector<uint8_t>& bytes, int64_t frames) const;

    SwrContext* m_swr = nullptr;  // null when m_polyphase converts
    std::unique_ptr<brindle::PolyphaseResampler> m_polyphase;
    int32_t m_srcSampleFormat = 0;
    int32_t m_destSampleFormat = 0;
    uint64_t m_srcChannelLayout = 0;
    uint64_t m_destChannelLayout = 0;
    int64_t m_srcChannels = 0;
    int64_t m_destChannels = 0;
    int64_t m_srcSampleRate = 0;
    int64_t m_destSampleRate = 0;
    int64_t m_srcFrameBytes = 0;
    int64_t m_destFrameBytes = 0;
    std::vector<uint8_t> m_frameOutput;  // resampleFrame's and flush's scratch
};
