#include "model/VTFadeOutEffect.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/Log.h"
#include "model/VTFadeInEffect.h"

VTFadeOutEffect::VTFadeOutEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel)
    : m_startIndexAtTrack(start),
      m_numberOfSamplesAtTrack(count),
      m_sampleFormat(sampleFormat),
      m_numberOfChannel(numberOfChannel)
{
}

std::shared_ptr<VTFadeOutEffect> VTFadeOutEffect::initWithIndexOfSample(int64_t startIndexAtTrack,
                                                                        int64_t numberOfSamplesAtTrack,
                                                                        int32_t sampleFormat, int64_t numberOfChannel)
{
    if (brindle::isUnsupportedEffectFormat(sampleFormat)) {
        // The fade-in's text, shared on purpose.
        brindle::logf("Can not support such smaple format(%d) fade in effect", sampleFormat);
        return nullptr;
    }
    return std::shared_ptr<VTFadeOutEffect>(
        new VTFadeOutEffect(startIndexAtTrack, numberOfSamplesAtTrack, sampleFormat, numberOfChannel));
}

int64_t VTFadeOutEffect::bytesPerSample() const
{
    int64_t bytes = 0;
    if (__builtin_mul_overflow(static_cast<int64_t>(KRAudioFrame2::bytesForSampleFormat(m_sampleFormat)),
                               m_numberOfChannel, &bytes))
        return 0;
    return bytes;
}

int64_t VTFadeOutEffect::totalSamples() const
{
    return brindle::saturatingSum(m_startIndexAtTrack, m_numberOfSamplesAtTrack);
}

void VTFadeOutEffect::fadeOutSample(void* samples, int64_t numberOfSamples, int64_t atIndex) const
{
    const int64_t start = m_startIndexAtTrack;
    const int64_t length = m_numberOfSamplesAtTrack;
    if (brindle::saturatingSum(atIndex, numberOfSamples) <= start || length == 0)
        return;
    // At or after the ramp's end: untouched (the fade-in's test is strict).
    if (totalSamples() <= atIndex)
        return;
    brindle::applyFadeRamp({brindle::FadeDirection::Out, start, length, m_sampleFormat, m_numberOfChannel}, samples,
                           numberOfSamples, atIndex);
}
