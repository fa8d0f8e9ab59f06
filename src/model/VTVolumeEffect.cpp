#include "model/VTVolumeEffect.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/CpuFeatures.h"
#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/SimdClones.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace {

constexpr uint32_t kFirstUnsupportedFormat = 5;

void gainUnsigned8(uint8_t* samples, int64_t count, double gain)
{
    for (int64_t i = 0; i < count; ++i) {
        // Integer division on purpose: v is −1, 0 or 1.
        const int v = (static_cast<int>(samples[i]) - 127) / 127;
        const double scaled = std::clamp(static_cast<double>(v) * gain, -1.0, 1.0);
        samples[i] = brindle::truncateSaturating<uint8_t>(scaled * 127.0 + 127.0);
    }
}

#ifdef BRINDLE_HAS_X86_INTRINSICS
// The finite-gain loop below, eight samples at a time: widen to doubles,
// multiply, clamp, truncate, narrow (the clamped values fit, so the
// saturating pack changes nothing). Answers how many samples it did; the
// caller does the rest.
__attribute__((target("avx2"), always_inline)) inline __m128i scaleFour(__m128i four, __m256d factor)
{
    const __m256d product = _mm256_mul_pd(_mm256_cvtepi32_pd(four), factor);
    const __m256d clamped = _mm256_min_pd(_mm256_max_pd(product, _mm256_set1_pd(-32768.0)), _mm256_set1_pd(32767.0));
    return _mm256_cvttpd_epi32(clamped);
}

__attribute__((target("avx2"))) int64_t gainSigned16Avx2(uint8_t* bytes, int64_t count, double gain)
{
    const __m256d factor = _mm256_set1_pd(gain);
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        auto* at = reinterpret_cast<__m128i*>(bytes + i * 2);
        const __m256i wide = _mm256_cvtepi16_epi32(_mm_loadu_si128(at));
        const __m128i low = scaleFour(_mm256_castsi256_si128(wide), factor);
        const __m128i high = scaleFour(_mm256_extracti128_si256(wide, 1), factor);
        _mm_storeu_si128(at, _mm_packs_epi32(low, high));
    }
    return i;
}
#endif

BRINDLE_SIMD_CLONES void gainSigned16(uint8_t* bytes, int64_t count, double gain)
{
    if (std::isfinite(gain)) {
        // A finite gain never makes NaN, so the product only needs clamping
        // before the truncating conversion: the same result without branches.
        int64_t i = 0;
#ifdef BRINDLE_HAS_X86_INTRINSICS
        if (brindle::processorHasAvx2())
            i = gainSigned16Avx2(bytes, count, gain);
#endif
        for (; i < count; ++i) {
            int16_t x;
            std::memcpy(&x, bytes + i * 2, sizeof x);
            const double product = std::min(std::max(static_cast<double>(x) * gain, -32768.0), 32767.0);
            const int16_t y = static_cast<int16_t>(product);
            std::memcpy(bytes + i * 2, &y, sizeof y);
        }
        return;
    }
    for (int64_t i = 0; i < count; ++i) {
        int16_t x;
        std::memcpy(&x, bytes + i * 2, sizeof x);
        const int16_t y = brindle::truncateSaturating<int16_t>(static_cast<double>(x) * gain);
        std::memcpy(bytes + i * 2, &y, sizeof y);
    }
}

void gainSigned32(uint8_t* bytes, int64_t count, double gain)
{
    for (int64_t i = 0; i < count; ++i) {
        int32_t x;
        std::memcpy(&x, bytes + i * 4, sizeof x);
        // Only the lower bound is clamped, and to the 16-bit range.
        const double product = std::trunc(static_cast<double>(x) * gain);
        const int32_t y = product < -32768.0 ? -32768 : brindle::truncateSaturating<int32_t>(product);
        std::memcpy(bytes + i * 4, &y, sizeof y);
    }
}

BRINDLE_SIMD_CLONES void gainDoubles(uint8_t* bytes, int64_t count, double gain)
{
    for (int64_t i = 0; i < count; ++i) {
        double x;
        std::memcpy(&x, bytes + i * 8, sizeof x);
        const double y = std::clamp(x * gain, -1.0, 1.0);
        std::memcpy(bytes + i * 8, &y, sizeof y);
    }
}

}  // namespace

VTVolumeEffect::VTVolumeEffect(int32_t sampleFormat, int64_t numberOfChannels)
    : m_sampleFormat(sampleFormat), m_numberOfChannels(numberOfChannels)
{
}

std::shared_ptr<VTVolumeEffect> VTVolumeEffect::initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel)
{
    if (static_cast<uint32_t>(sampleFormat) >= kFirstUnsupportedFormat) {
        brindle::logf("Can not support such smaple format(%d) volume effect", sampleFormat);
        return nullptr;
    }
    return std::shared_ptr<VTVolumeEffect>(new VTVolumeEffect(sampleFormat, numberOfChannel));
}

void VTVolumeEffect::effectVolume(double gain, void* samples, int64_t numberOfSamples) const
{
    if (std::fabs(gain - 1.0) <= VTBaseDefine::expression() || !samples)
        return;
    const int64_t width = KRAudioFrame2::bytesForSampleFormat(m_sampleFormat);
    const int64_t count = brindle::effectSampleCount(numberOfSamples, m_numberOfChannels, width);
    auto* bytes = static_cast<uint8_t*>(samples);
    switch (m_sampleFormat) {
    case 0:
        gainUnsigned8(bytes, count, gain);
        break;
    case 1:
        gainSigned16(bytes, count, gain);
        break;
    case 2:
        gainSigned32(bytes, count, gain);
        break;
    case 3:
    case 4:
        gainDoubles(bytes, brindle::wholeDoublesIn(count, width), gain);
        break;
    default:
        break;
    }
}
