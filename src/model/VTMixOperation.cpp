#include "model/VTMixOperation.h"

#include "foundation/Log.h"
#include "model/VTMixContext.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int32_t kFormatS16 = 1;
constexpr int32_t kFormatFloat = 3;

// Whether frame `index` lies in the span [pad, pad + count] (both ends included).
bool insideSpan(int64_t index, int64_t pad, int64_t count)
{
    return index >= pad && index - pad <= count;
}

template <class Sample, class Mix>
void mixFrames(uint8_t* output, const uint8_t* a, const uint8_t* b, int64_t frames, int64_t channels, int64_t pad1,
               int64_t count1, int64_t pad2, int64_t count2, Mix mix)
{
    const size_t frameBytes = sizeof(Sample) * static_cast<size_t>(channels);
    for (int64_t frame = 0; frame < frames; ++frame) {
        const size_t offset = static_cast<size_t>(frame) * frameBytes;
        const bool inFirst = insideSpan(frame, pad1, count1);
        const bool inSecond = insideSpan(frame, pad2, count2);
        if (!inFirst) {
            std::memcpy(output + offset, b + offset, frameBytes);
            continue;
        }
        if (!inSecond) {
            std::memcpy(output + offset, a + offset, frameBytes);
            continue;
        }
        for (int64_t channel = 0; channel < channels; ++channel) {
            const size_t at = offset + static_cast<size_t>(channel) * sizeof(Sample);
            Sample x;
            Sample y;
            std::memcpy(&x, a + at, sizeof(Sample));
            std::memcpy(&y, b + at, sizeof(Sample));
            const Sample mixed = mix(x, y);
            std::memcpy(output + at, &mixed, sizeof(Sample));
        }
    }
}

}  // namespace

VTMixOperation::VTMixOperation(std::shared_ptr<brindle::MixSource> source1, std::shared_ptr<brindle::MixSource> source2)
    : m_source1(std::move(source1)), m_source2(std::move(source2))
{
}

std::shared_ptr<VTMixOperation> VTMixOperation::initWithSource1(std::shared_ptr<brindle::MixSource> source1,
                                                                std::shared_ptr<brindle::MixSource> source2)
{
    return std::make_shared<VTMixOperation>(std::move(source1), std::move(source2));
}

QByteArray VTMixOperation::bufferWithLength(int64_t length)
{
    if (length <= 0)
        return {};
    return QByteArray(static_cast<qsizetype>(length), '\0');
}

void VTMixOperation::startMixWithContext(VTMixContext& context)
{
    if (m_source1)
        m_source1->startMixWithContext(context);
    if (m_source2)
        m_source2->startMixWithContext(context);
}

void VTMixOperation::seekToTimestamp(int64_t timestamp, VTMixContext& context)
{
    if (m_source1)
        m_source1->seekToTimestamp(timestamp, context);
    if (m_source2)
        m_source2->seekToTimestamp(timestamp, context);
}

bool VTMixOperation::isEndOfSource(VTMixContext& context)
{
    if (m_source1 && !m_source1->isEndOfSource(context))
        return false;
    return m_source2 ? m_source2->isEndOfSource(context) : true;
}

void VTMixOperation::endMixWithContext(VTMixContext& context)
{
    if (m_source1)
        m_source1->endMixWithContext(context);
    if (m_source2)
        m_source2->endMixWithContext(context);
}

uint8_t* VTMixOperation::zeroedScratch(std::vector<uint8_t>& buffer, size_t bytes)
{
    if (buffer.size() < bytes)
        buffer.resize(bytes);
    std::memset(buffer.data(), 0, bytes);
    return buffer.data();
}

int64_t VTMixOperation::nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context)
{
    const int32_t format = context.sampleFormat();
    if (format != kFormatS16 && format != kFormatFloat) {
        brindle::logf("Can't support sample format(%d) mix", format);
        return kEndOfSource;
    }
    if (!m_source1 && !m_source2)
        return kEndOfSource;
    if (!m_source1)
        return m_source2->nextSample(buffer, bufferCaps, appendBefore, context);
    if (!m_source2)
        return m_source1->nextSample(buffer, bufferCaps, appendBefore, context);
    if (bufferCaps <= 0 || context.numberOfChannel() <= 0)
        return 0;

    const int64_t frames = bufferCaps;
    const size_t bytes = static_cast<size_t>(frames) * static_cast<size_t>(context.bytesPerSample());
    uint8_t* bufferA = zeroedScratch(m_bufferA, bytes);
    bool flag1 = false;
    const int64_t count1 = m_source1->nextSample(bufferA, frames, &flag1, context);

    if (count1 == 0) {
        const int64_t count2 = m_source2->nextSample(buffer, frames, appendBefore, context);
        if (count2 != kEndOfSource)
            return count2;
        std::memcpy(buffer, bufferA, bytes);
        return 0;
    }
    if (count1 == kEndOfSource)
        return m_source2->nextSample(buffer, frames, appendBefore, context);

    uint8_t* bufferB = zeroedScratch(m_bufferB, bytes);
    bool flag2 = false;
    const int64_t count2 = m_source2->nextSample(bufferB, frames, &flag2, context);
    if (count2 == kEndOfSource || count2 <= 0) {
        std::memcpy(buffer, bufferA, bytes);
        if (appendBefore)
            *appendBefore = flag2;  // the second source's flag, deliberately
        return count1;
    }

    int64_t pad1 = flag1 ? frames - count1 : 0;
    int64_t pad2 = flag2 ? frames - count2 : 0;
    if (count1 >= frames) {
        pad1 = 0;
        pad2 = 0;
    }
    mixInto(buffer, frames, pad1, count1, pad2, count2, context);
    return frames;
}

void VTMixOperation::mixInto(void* output, int64_t frames, int64_t pad1, int64_t count1, int64_t pad2,
                             int64_t count2, const VTMixContext& context) const
{
    auto* out = static_cast<uint8_t*>(output);
    const int64_t channels = context.numberOfChannel();
    if (context.sampleFormat() == kFormatS16) {
        mixFrames<int16_t>(out, m_bufferA.data(), m_bufferB.data(), frames, channels, pad1, count1, pad2, count2,
                           [](int16_t a, int16_t b) { return mixSample16(a, b); });
        return;
    }
    mixFrames<float>(out, m_bufferA.data(), m_bufferB.data(), frames, channels, pad1, count1, pad2, count2,
                     [](float a, float b) { return mixSampleFloat(a, b); });
}
