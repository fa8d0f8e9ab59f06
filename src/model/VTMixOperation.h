// A mixer node: mixes two pull sources into one.
//
// Contract
// - `source1` and `source2` are any pull sources (a track, a clip or another
//   node); either may be absent. With one absent, the node passes every
//   request to the other; with both absent it is at its end.
// - The node mixes only signed 16-bit (format 1) and 32-bit float (format 3)
//   output; other formats are refused with "Can't support sample format(%d)
//   mix" and the end marker.
// - Where both sources have content the samples are mixed with the soft
//   saturating rule of `mixSample16` / `mixSampleFloat`; elsewhere the sample
//   of the source that has content is taken. The node never writes more than
//   N frames, whatever count its sources answer.
// - Scratch buffers A and B are kept in the node and grow only when a larger
//   request arrives, so a steady pull allocates nothing. They are not cleared
//   before a pull: a buffer is read only after its source answered content,
//   and then the source has written every frame of it. A node belongs to one
//   mix context and is pulled by one thread at a time.
#pragma once

#include "model/MixSource.h"

#include <QByteArray>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

class VTMixOperation final : public brindle::MixSource {
public:
    VTMixOperation(std::shared_ptr<brindle::MixSource> source1, std::shared_ptr<brindle::MixSource> source2);
    static std::shared_ptr<VTMixOperation> initWithSource1(std::shared_ptr<brindle::MixSource> source1,
                                                           std::shared_ptr<brindle::MixSource> source2);

    const std::shared_ptr<brindle::MixSource>& source1() const { return m_source1; }
    const std::shared_ptr<brindle::MixSource>& source2() const { return m_source2; }

    // A zero-filled byte buffer of `length` bytes (none for a negative length).
    static QByteArray bufferWithLength(int64_t length);

    // The mix of two samples: 16-bit in 32-bit integer arithmetic with
    // truncating division, then clamped; float, clamped to [-1, 1].
    static int16_t mixSample16(int32_t a, int32_t b);
    static float mixSampleFloat(float a, float b);

    void startMixWithContext(VTMixContext& context) override;
    void seekToTimestamp(int64_t timestamp, VTMixContext& context) override;
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override;
    bool isEndOfSource(VTMixContext& context) override;
    void endMixWithContext(VTMixContext& context) override;

private:
    // Mixes A and B into the output over N frames, with the content spans
    // given by the pads and counts (step 7 of the pull).
    void mixInto(void* output, int64_t frames, int64_t pad1, int64_t count1, int64_t pad2, int64_t count2,
                 const VTMixContext& context) const;
    // Makes `buffer` hold at least `bytes` bytes, growing it only when needed.
    static uint8_t* scratch(std::vector<uint8_t>& buffer, size_t bytes);

    std::shared_ptr<brindle::MixSource> m_source1;
    std::shared_ptr<brindle::MixSource> m_source2;
    std::vector<uint8_t> m_bufferA;
    std::vector<uint8_t> m_bufferB;
};

// Defined here so that the per-sample loops of the mixer inline them.
inline int16_t VTMixOperation::mixSample16(int32_t a, int32_t b)
{
    int32_t mixed;
    if (a < 0 && b < 0)
        mixed = a + b + (a * b) / 32768;
    else if (a > 0 && b > 0)
        mixed = a + b - (a * b) / 32767;
    else
        mixed = a + b;
    if (mixed >= 32768)
        return 32767;
    if (mixed < -32767)
        return -32768;
    return static_cast<int16_t>(mixed);
}

inline float VTMixOperation::mixSampleFloat(float a, float b)
{
    float mixed;
    if (a < 0.0f && b < 0.0f)
        mixed = a * b + (a + b);
    else if (a > 0.0f && b > 0.0f)
        mixed = a + b - a * b;
    else
        mixed = a + b;
    return std::clamp(mixed, -1.0f, 1.0f);
}
