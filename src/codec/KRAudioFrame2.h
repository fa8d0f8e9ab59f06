// One frame of decoded audio, held as interleaved ("packed") samples.
//
// Sample-format codes are FFmpeg's AVSampleFormat values: 0 u8, 1 s16, 2 s32,
// 3 flt, 4 dbl are packed; 5 and above are planar. A frame always stores its
// samples packed: a frame made from a planar decoder output is interleaved
// when it is made, and `sampleFormat` is then the packed code.
//
// Keyed coding: recorded as class "KRAudioFrame2" with the keys
// "kKRSampleFormat" (int32), "kKRNumberOfChannel" (int64), "kKRSampleRate"
// (int64), "kKRNumberOfSamples" (int32) and "kKRPackedSamples" (data). Decoding
// refuses a frame whose data length is not numberOfSamples × bytes per sample
// frame, or whose format, channel count, sample rate or sample count is out of
// range. The samples are written as inline bytes (encodeBytes).
#pragma once

#include "foundation/KeyedCoding.h"

#include <QByteArray>

#include <cstdint>
#include <memory>

struct AVFrame;

// The packed sample-format codes by name.
namespace KRSampleFormat {
inline constexpr int32_t kU8 = 0;
inline constexpr int32_t kS16 = 1;
inline constexpr int32_t kS32 = 2;
inline constexpr int32_t kFloat = 3;
inline constexpr int32_t kDouble = 4;
}  // namespace KRSampleFormat

class KRAudioFrame2 final : public brindle::KeyedCoding {
public:
    // Takes a copy of `numberOfSamples` interleaved frames from `samples`
    // (numberOfSamples × bytesForSampleFormat(format) × channels bytes).
    // Null if the format is not packed, or a count or the sample rate is not
    // positive, or the frame would exceed 1024 channels or 1 GiB.
    static std::shared_ptr<KRAudioFrame2> initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel,
                                                               int64_t sampleRate, int32_t numberOfSamples,
                                                               const void* samples);
    // As above, adopting the bytes (no copy). The size must match exactly.
    static std::shared_ptr<KRAudioFrame2> initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel,
                                                               int64_t sampleRate, int32_t numberOfSamples,
                                                               QByteArray samples);
    // Replaces the samples with `numberOfSamples` interleaved frames of the
    // same format, channels and rate, copied from `samples`. The storage is
    // reused when it is large enough, so a producer that recycles one frame
    // (the export pull) stops allocating after its first block. Only for a
    // frame that nobody else holds; false (frame unchanged) for a count out
    // of range or null samples.
    bool replaceSamples(int32_t numberOfSamples, const void* samples);

    // Interleaves a decoded FFmpeg frame (any packed or planar format 0–9).
    static std::shared_ptr<KRAudioFrame2> initWithAVFrame(const AVFrame* frame);

    // The interleaved counterpart of a sample format (planar 5–9 → 0–4); other
    // codes are returned unchanged.
    static int32_t packedSampleFormat(int32_t sampleFormat);
    // Bytes of one sample of one channel; 0 for an unknown code.
    static int32_t bytesForSampleFormat(int32_t sampleFormat);
    // The byte size of a packed frame with these fields, or -1 when a frame
    // with them is refused (the rules of initWithSampleFormat).
    static int64_t packedByteCount(int32_t sampleFormat, int64_t numberOfChannel, int64_t sampleRate,
                                   int64_t numberOfSamples);
    // FFmpeg's default channel layout mask for a channel count.
    static uint64_t defaultChannelLayoutByChannel(int64_t channels);

    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t numberOfChannel() const { return m_numberOfChannel; }
    int64_t sampleRate() const { return m_sampleRate; }
    int32_t numberOfSamples() const { return m_numberOfSamples; }
    // The interleaved samples (numberOfSamples × channels × bytes per sample).
    const QByteArray& dataOfPackedSamples() const { return m_samples; }
    // Plane `index` of the frame; a packed frame has only plane 0, which holds
    // the interleaved samples. Null for any other index.
    const uint8_t* bytesAtPlanerIndex(int index) const;

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<KRAudioFrame2> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    KRAudioFrame2() = default;

    int32_t m_sampleFormat = 0;
    int64_t m_numberOfChannel = 0;
    int64_t m_sampleRate = 0;
    int32_t m_numberOfSamples = 0;
    QByteArray m_samples;
};
