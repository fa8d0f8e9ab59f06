#include "model/VTFadeInEffect.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/Log.h"
#include "model/VTVolumeEffect.h"

#include <cstring>
#include <limits>

namespace {

// The ramp's gain at track index i: rising for the fade-in, falling for the
// fade-out, constant outside the ramp.
template <brindle::FadeDirection direction>
double rampGain(int64_t i, int64_t start, int64_t end, int64_t length)
{
    constexpr bool rising = direction == brindle::FadeDirection::In;
    if (i <= start)
        return rising ? 0.0 : 1.0;
    if (i >= end)
        return rising ? 1.0 : 0.0;
    // start < i, so the difference is positive and fits an unsigned 64-bit value.
    const double progress = static_cast<double>(static_cast<uint64_t>(i) - static_cast<uint64_t>(start)) /
                            static_cast<double>(length);
    return rising ? progress : 1.0 - progress;
}

void fadeUnsigned8(uint8_t* sample, double gain)
{
    const float v = static_cast<float>(static_cast<int>(*sample) - 127) / 127.0f;
    *sample = brindle::truncateSaturating<uint8_t>(static_cast<double>(v) * gain * 127.0 + 127.0);
}

template <class Integer>
void fadeInteger(uint8_t* sample, double gain)
{
    Integer x;
    std::memcpy(&x, sample, sizeof x);
    const Integer y = brindle::truncateSaturating<Integer>(static_cast<double>(x) * gain);
    std::memcpy(sample, &y, sizeof y);
}

void fadeDouble(uint8_t* sample, double gain)
{
    double x;
    std::memcpy(&x, sample, sizeof x);
    x *= gain;
    std::memcpy(sample, &x, sizeof x);
}

// Applies `fade` with the ramp's gain to `frames` frames of `channels` samples
// of `width` bytes each.
template <brindle::FadeDirection direction, void (*fade)(uint8_t*, double)>
void fadeFrames(const brindle::FadeRamp& ramp, uint8_t* bytes, int64_t frames, int64_t channels, int64_t width,
                int64_t atIndex)
{
    const int64_t end = brindle::saturatingSum(ramp.start, ramp.length);
    const int64_t frameBytes = channels * width;
    for (int64_t k = 0; k < frames; ++k) {
        const double gain = rampGain<direction>(brindle::saturatingSum(atIndex, k), ramp.start, end, ramp.length);
        uint8_t* frame = bytes + k * frameBytes;
        for (int64_t ch = 0; ch < channels; ++ch)
            fade(frame + ch * width, gain);
    }
}

template <brindle::FadeDirection direction>
void applyRamp(const brindle::FadeRamp& ramp, uint8_t* bytes, int64_t count, int64_t channels, int64_t width,
               int64_t atIndex)
{
    const int64_t frames = count / channels;
    switch (ramp.sampleFormat) {
    case 0:
        fadeFrames<direction, fadeUnsigned8>(ramp, bytes, frames, channels, 1, atIndex);
        break;
    case 1:
        fadeFrames<direction, fadeInteger<int16_t>>(ramp, bytes, frames, channels, 2, atIndex);
        break;
    case 2:
        fadeFrames<direction, fadeInteger<int32_t>>(ramp, bytes, frames, channels, 4, atIndex);
        break;
    case 3:
    case 4: {
        // Read as doubles: frame k, channel ch is double k × channels + ch, and
        // only the whole doubles inside the buffer are touched.
        const int64_t doubles = brindle::wholeDoublesIn(count, width);
        const int64_t wholeFrames = doubles / channels;
        fadeFrames<direction, fadeDouble>(ramp, bytes, wholeFrames, channels, 8, atIndex);
        const int64_t rest = doubles - wholeFrames * channels;
        if (rest > 0)
            fadeFrames<direction, fadeDouble>(ramp, bytes + wholeFrames * channels * 8, 1, rest, 8,
                                              brindle::saturatingSum(atIndex, wholeFrames));
        break;
    }
    default:
        break;
    }
}

}  // namespace

namespace brindle {

int64_t saturatingSum(int64_t a, int64_t b)
{
    int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

bool isUnsupportedEffectFormat(int32_t sampleFormat)
{
    return static_cast<uint32_t>(sampleFormat) >= 5u;
}

void applyFadeRamp(const FadeRamp& ramp, void* samples, int64_t numberOfSamples, int64_t atIndex)
{
    const int64_t width = KRAudioFrame2::bytesForSampleFormat(ramp.sampleFormat);
    const int64_t count = effectSampleCount(numberOfSamples, ramp.numberOfChannel, width);
    if (!samples || count == 0 || ramp.length == 0)
        return;
    auto* bytes = static_cast<uint8_t*>(samples);
    if (ramp.direction == FadeDirection::In)
        applyRamp<FadeDirection::In>(ramp, bytes, count, ramp.numberOfChannel, width, atIndex);
    else
        applyRamp<FadeDirection::Out>(ramp, bytes, count, ramp.numberOfChannel, width, atIndex);
}

}  // namespace brindle

VTFadeInEffect::VTFadeInEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel)
    : m_startIndexAtTrack(start),
      m_numberOfSamplesAtTrack(count),
      m_sampleFormat(sampleFormat),
      m_numberOfChannel(numberOfChannel)
{
}

std::shared_ptr<VTFadeInEffect> VTFadeInEffect::initWithIndexOfSample(int64_t startIndexAtTrack,
                                                                      int64_t numberOfSamplesAtTrack,
                                                                      int32_t sampleFormat, int64_t numberOfChannel)
{
    if (brindle::isUnsupportedEffectFormat(sampleFormat)) {
        brindle::logf("Can not support such smaple format(%d) fade in effect", sampleFormat);
        return nullptr;
    }
    return std::shared_ptr<VTFadeInEffect>(
        new VTFadeInEffect(startIndexAtTrack, numberOfSamplesAtTrack, sampleFormat, numberOfChannel));
}

void VTFadeInEffect::fadeInSample(void* samples, int64_t numberOfSamples, int64_t atIndex) const
{
    const int64_t start = m_startIndexAtTrack;
    const int64_t length = m_numberOfSamplesAtTrack;
    if (brindle::saturatingSum(atIndex, numberOfSamples) <= start || length == 0)
        return;
    // Strictly after the ramp's end only: a buffer that starts at the end is
    // still processed.
    if (brindle::saturatingSum(start, length) < atIndex)
        return;
    brindle::applyFadeRamp({brindle::FadeDirection::In, start, length, m_sampleFormat, m_numberOfChannel}, samples,
                           numberOfSamples, atIndex);
}
