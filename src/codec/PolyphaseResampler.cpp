#include "codec/PolyphaseResampler.h"

#include "codec/KRAudioFrame2.h"
#include "codec/PolyphaseKernels.h"
#include "foundation/CpuFeatures.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <numbers>
#include <numeric>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace brindle {
namespace {

using namespace KRSampleFormat;

constexpr double kBaseTaps = 32.0;
constexpr double kCutoff = 0.97;
constexpr double kKaiserBeta = 9.0;
// Past this many floats the filter table stops fitting the caches, and a
// general converter is the better choice.
constexpr int64_t kMaximumTableFloats = int64_t(1) << 20;
constexpr int64_t kBlockFrames = 256;

// Bytes of one sample of a packed format; 0 for any other code.
int64_t bytesOfFormat(int32_t format)
{
    return format >= kU8 && format <= kDouble ? KRAudioFrame2::bytesForSampleFormat(format) : 0;
}

// The modified Bessel function of the first kind, order 0, by its power
// series (which converges quickly for the window's arguments, at most β).
double besselI0(double x)
{
    double sum = 1.0;
    double term = 1.0;
    const double quarterSquare = x * x / 4.0;
    for (int k = 1; k < 64 && term > sum * 1e-17; ++k) {
        term *= quarterSquare / (double(k) * double(k));
        sum += term;
    }
    return sum;
}

template <class T>
T loadAt(const uint8_t* bytes, int64_t index)
{
    T value;
    std::memcpy(&value, bytes + index * int64_t(sizeof(T)), sizeof(T));
    return value;
}

template <class Sample, class Convert>
void deinterleave(const uint8_t* in, int64_t frames, int64_t channels, float* const* planes, Convert convert)
{
    if (channels == 1) {
        for (int64_t i = 0; i < frames; ++i)
            planes[0][i] = convert(loadAt<Sample>(in, i));
        return;
    }
    float* left = planes[0];
    float* right = planes[1];
    for (int64_t i = 0; i < frames; ++i) {
        left[i] = convert(loadAt<Sample>(in, 2 * i));
        right[i] = convert(loadAt<Sample>(in, 2 * i + 1));
    }
}

#ifdef BRINDLE_HAS_X86_INTRINSICS
// [l0 r0 l1 r1 l2 r2 l3 r3] and [l4 r4 … l7 r7] into eight lefts and eight rights.
__attribute__((target("avx2"), always_inline)) inline void splitEight(__m256 a, __m256 b, float* left, float* right)
{
    // Within each 128-bit half the shuffle gathers [l0 l1 l4 l5 | l2 l3 l6 l7];
    // the permutation restores the order.
    const __m256 evens = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    const __m256 odds = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
    _mm256_storeu_ps(left, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(evens), 0xD8)));
    _mm256_storeu_ps(right, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(odds), 0xD8)));
}

// Stereo float and 16-bit input, eight frames at a time; answers the frames done.
__attribute__((target("avx2"))) int64_t splitStereoAvx2(const uint8_t* in, int32_t format, int64_t frames,
                                                        float* left, float* right)
{
    int64_t i = 0;
    if (format == kFloat) {
        const auto* samples = reinterpret_cast<const float*>(in);
        for (; i + 8 <= frames; i += 8)
            splitEight(_mm256_loadu_ps(samples + 2 * i), _mm256_loadu_ps(samples + 2 * i + 8), left + i, right + i);
    } else if (format == kS16) {
        const __m256 scale = _mm256_set1_ps(1.0f / 32768.0f);
        for (; i + 8 <= frames; i += 8) {
            const __m256i both = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + 4 * i));
            const __m256 a = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(_mm256_castsi256_si128(both))),
                                           scale);
            const __m256 b = _mm256_mul_ps(
                _mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(_mm256_extracti128_si256(both, 1))), scale);
            splitEight(a, b, left + i, right + i);
        }
    }
    return i;
}
#endif

// Interleaved samples of `format` into one float plane per channel.
void toFloatPlanes(const uint8_t* in, int32_t format, int64_t frames, int64_t channels, float* const* planes)
{
#ifdef BRINDLE_HAS_X86_INTRINSICS
    if (channels == 2 && processorHasAvx2()) {
        const int64_t done = splitStereoAvx2(in, format, frames, planes[0], planes[1]);
        if (done > 0) {
            const int64_t sampleBytes = format == kS16 ? 2 : 4;
            float* rest[2] = {planes[0] + done, planes[1] + done};
            toFloatPlanes(in + done * 2 * sampleBytes, format, frames - done, channels, rest);
            return;
        }
    }
#endif
    switch (format) {
    case kU8:
        deinterleave<uint8_t>(in, frames, channels, planes, [](uint8_t v) { return float(int(v) - 128) / 128.0f; });
        break;
    case kS16:
        deinterleave<int16_t>(in, frames, channels, planes, [](int16_t v) { return float(v) * (1.0f / 32768.0f); });
        break;
    case kS32:
        deinterleave<int32_t>(in, frames, channels, planes,
                              [](int32_t v) { return float(v) * (1.0f / 2147483648.0f); });
        break;
    case kFloat:
        deinterleave<float>(in, frames, channels, planes, [](float v) { return v; });
        break;
    case kDouble:
        deinterleave<double>(in, frames, channels, planes, [](double v) { return float(v); });
        break;
    }
}

// Scaled, clamped (NaN goes to the low end) and rounded to nearest, ties to
// even, as the processor's conversion does.
int32_t roundedClamped(float value, float scale, float low, float high)
{
    float scaled = value * scale;
    scaled = scaled >= low ? scaled : low;
    scaled = scaled <= high ? scaled : high;
    return int32_t(std::nearbyint(scaled));
}

#ifdef BRINDLE_HAS_X86_INTRINSICS
// Sixteen samples at a time; answers how many it converted.
__attribute__((target("avx2"))) int64_t toSigned16Avx2(const float* in, int64_t samples, uint8_t* out)
{
    const __m256 scale = _mm256_set1_ps(32768.0f);
    const __m256 low = _mm256_set1_ps(-32768.0f);
    const __m256 high = _mm256_set1_ps(32767.0f);
    int64_t i = 0;
    for (; i + 16 <= samples; i += 16) {
        const __m256 a = _mm256_min_ps(_mm256_max_ps(_mm256_mul_ps(_mm256_loadu_ps(in + i), scale), low), high);
        const __m256 b = _mm256_min_ps(_mm256_max_ps(_mm256_mul_ps(_mm256_loadu_ps(in + i + 8), scale), low), high);
        const __m256i packed =
            _mm256_permute4x64_epi64(_mm256_packs_epi32(_mm256_cvtps_epi32(a), _mm256_cvtps_epi32(b)), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i * 2), packed);
    }
    return i;
}
#endif

void fromFloat(const float* in, int64_t samples, int32_t format, uint8_t* out)
{
    switch (format) {
    case kU8:
        for (int64_t i = 0; i < samples; ++i)
            out[i] = uint8_t(roundedClamped(in[i], 128.0f, -128.0f, 127.0f) + 128);
        break;
    case kS16: {
        int64_t i = 0;
#ifdef BRINDLE_HAS_X86_INTRINSICS
        if (processorHasAvx2())
            i = toSigned16Avx2(in, samples, out);
#endif
        for (; i < samples; ++i) {
            const auto value = int16_t(roundedClamped(in[i], 32768.0f, -32768.0f, 32767.0f));
            std::memcpy(out + i * 2, &value, 2);
        }
        break;
    }
    case kS32:
        for (int64_t i = 0; i < samples; ++i) {
            double scaled = double(in[i]) * 2147483648.0;
            scaled = scaled >= -2147483648.0 ? scaled : -2147483648.0;
            const auto value = int32_t(std::nearbyint(std::min(scaled, 2147483647.0)));
            std::memcpy(out + i * 4, &value, 4);
        }
        break;
    case kFloat:
        std::memcpy(out, in, size_t(samples) * sizeof(float));
        break;
    case kDouble:
        for (int64_t i = 0; i < samples; ++i) {
            const double value = in[i];
            std::memcpy(out + i * 8, &value, 8);
        }
        break;
    }
}

// How many outputs, from the one under `tapStart` at `phase` on, have their
// first tap before `limit`.
int64_t outputsBefore(int64_t limit, int64_t tapStart, int64_t phase, int64_t phases, int64_t advance)
{
    const int64_t room = (limit - tapStart) * phases - phase;
    return room <= 0 ? 0 : (room + advance - 1) / advance;
}

}  // namespace

namespace {

// The filter bank of one reduced rate ratio.
std::shared_ptr<const PolyphaseFilter> buildFilter(int64_t phases, int64_t advance, double factor, int64_t taps)
{
    auto filter = std::make_shared<PolyphaseFilter>();
    filter->phases = phases;
    filter->advance = advance;
    filter->center = (taps - 1) / 2;
    filter->taps = (taps + 7) / 8 * 8;
    // Rows of a multiple of 8 floats from a 32-byte boundary: no load of
    // eight coefficients straddles two cache lines.
    filter->storage.assign(size_t(phases * filter->taps + 8), 0.0f);
    const auto address = reinterpret_cast<uintptr_t>(filter->storage.data());
    filter->coefficients = filter->storage.data() + ((32 - address % 32) % 32) / sizeof(float);
    filter->step.resize(size_t(phases));
    filter->nextPhase.resize(size_t(phases));
    const double windowNorm = besselI0(kKaiserBeta);
    std::vector<double> phase(static_cast<size_t>(taps));
    for (int64_t p = 0; p < phases; ++p) {
        double sum = 0.0;
        for (int64_t i = 0; i < taps; ++i) {
            // Distance, in input frames, from the output's time to tap i.
            const double t = double(i - filter->center) - double(p) / double(phases);
            const double x = std::numbers::pi * t * factor;
            const double sinc = x == 0.0 ? 1.0 : std::sin(x) / x;
            const double w = 2.0 * t / double(taps);
            phase[size_t(i)] = sinc * besselI0(kKaiserBeta * std::sqrt(std::max(0.0, 1.0 - w * w))) / windowNorm;
            sum += phase[size_t(i)];
        }
        float* row = filter->coefficients + p * filter->taps;
        for (int64_t i = 0; i < taps; ++i)
            row[i] = float(phase[size_t(i)] / sum);
        filter->step[size_t(p)] = int32_t((p + advance) / phases);
        filter->nextPhase[size_t(p)] = int32_t((p + advance) % phases);
    }
    filter->quads.resize(size_t(phases));
    for (int64_t p = 0; p < phases; ++p) {
        PolyphaseFilter::Quad& quad = filter->quads[size_t(p)];
        int64_t phase = p;
        int64_t at = 0;
        for (int o = 0; o < 4; ++o) {
            quad.row[o] = int32_t(phase * filter->taps);
            quad.at[o] = int32_t(at);
            at += filter->step[size_t(phase)];
            phase = filter->nextPhase[size_t(phase)];
        }
        quad.advance = int32_t(at);
        quad.next = int32_t(phase);
    }
    return filter;
}

// Filters are immutable once built and shared by every resampler of the same
// ratio: a mix makes a resampler per clip at every start and seek, and the
// table takes far longer to compute than to look up. The cache is small; it
// is emptied when an unusual number of ratios has been seen.
std::shared_ptr<const PolyphaseFilter> sharedFilter(int64_t phases, int64_t advance, double factor, int64_t taps)
{
    static std::mutex mutex;
    static std::map<std::pair<int64_t, int64_t>, std::shared_ptr<const PolyphaseFilter>> filters;
    const std::lock_guard lock(mutex);
    auto& slot = filters[{phases, advance}];
    if (!slot) {
        if (filters.size() > 32) {
            filters.clear();
            return buildFilter(phases, advance, factor, taps);
        }
        slot = buildFilter(phases, advance, factor, taps);
    }
    return slot;
}

}  // namespace

std::unique_ptr<PolyphaseResampler> PolyphaseResampler::make(int32_t srcSampleFormat, int32_t destSampleFormat,
                                                             int64_t channels, int64_t srcRate, int64_t destRate)
{
    if (bytesOfFormat(srcSampleFormat) == 0 || bytesOfFormat(destSampleFormat) == 0 || channels < 1 ||
        channels > 2 || srcRate <= 0 || destRate <= 0 || srcRate == destRate)
        return nullptr;
    const int64_t common = std::gcd(srcRate, destRate);
    const int64_t phases = destRate / common;
    if (phases > kMaximumPhases)
        return nullptr;
    const double factor = std::min(1.0, kCutoff * double(destRate) / double(srcRate));
    const auto taps = int64_t(std::ceil(kBaseTaps / factor));
    if (phases * ((taps + 7) / 8 * 8) > kMaximumTableFloats)
        return nullptr;

    std::unique_ptr<PolyphaseResampler> resampler(new PolyphaseResampler());
    resampler->m_srcFormat = srcSampleFormat;
    resampler->m_destFormat = destSampleFormat;
    resampler->m_channels = channels;
    resampler->m_filter = sharedFilter(phases, srcRate / common, factor, taps);
    resampler->m_phases = phases;
    resampler->m_advance = srcRate / common;
    resampler->m_center = resampler->m_filter->center;
    resampler->m_taps = resampler->m_filter->taps;
    resampler->reset();
    return resampler;
}

void PolyphaseResampler::reset()
{
    for (int64_t ch = 0; ch < m_channels; ++ch)
        m_input[ch].assign(size_t(m_center), 0.0f);
    m_input[1].resize(m_channels > 1 ? m_input[0].size() : 0);
    m_first = 0;
    m_end = m_center;
    m_tapStart = 0;
    m_phase = 0;
    m_outputLimit = -1;
}

void PolyphaseResampler::dropConsumedInput()
{
    const int64_t drop = std::min(m_tapStart, m_end) - m_first;
    if (drop <= 0)
        return;
    const int64_t kept = m_end - m_first - drop;
    for (int64_t ch = 0; ch < m_channels; ++ch)
        std::memmove(m_input[ch].data(), m_input[ch].data() + drop, size_t(kept) * sizeof(float));
    m_first += drop;
}

// The planes keep their size between calls (it is their capacity); frames
// past m_end are stale until written.
bool PolyphaseResampler::growInput(int64_t frames)
{
    const int64_t needed = m_end - m_first + frames;
    if (frames < 0 || needed > int64_t(m_input[0].max_size() / 2))
        return false;
    for (int64_t ch = 0; ch < m_channels; ++ch)
        if (int64_t(m_input[ch].size()) < needed)
            m_input[ch].resize(size_t(std::max(needed, int64_t(m_input[ch].size()) * 2)));
    m_end += frames;
    return true;
}

bool PolyphaseResampler::appendInput(const void* samples, int64_t frames)
{
    if (frames <= 0)
        return true;
    dropConsumedInput();
    const int64_t held = m_end - m_first;
    if (!samples || !growInput(frames))
        return false;
    float* planes[2] = {m_input[0].data() + held, m_channels > 1 ? m_input[1].data() + held : nullptr};
    toFloatPlanes(static_cast<const uint8_t*>(samples), m_srcFormat, frames, m_channels, planes);
    return true;
}

int64_t PolyphaseResampler::outputsAvailable() const
{
    int64_t count = outputsBefore(m_end - m_taps + 1, m_tapStart, m_phase, m_phases, m_advance);
    if (m_outputLimit >= 0)
        count = std::min(count, outputsBefore(m_outputLimit, m_tapStart, m_phase, m_phases, m_advance));
    return count;
}

int64_t PolyphaseResampler::maximumOutputSamples(int64_t numberOfSamples) const
{
    if (m_outputLimit >= 0)
        return outputsBefore(m_outputLimit, m_tapStart, m_phase, m_phases, m_advance);
    return outputsBefore(m_end + std::max<int64_t>(numberOfSamples, 0) - m_taps + 1, m_tapStart, m_phase,
                         m_phases, m_advance);
}

int64_t PolyphaseResampler::produce(uint8_t* output, int64_t frames)
{
    const int64_t destFrameBytes = bytesOfFormat(m_destFormat) * m_channels;
    m_block.resize(size_t(kBlockFrames * m_channels));
    int64_t done = 0;
    while (done < frames) {
        const int64_t run = std::min(kBlockFrames, frames - done);
        polyphase::Walk walk{{m_input[0].data(), m_channels > 1 ? m_input[1].data() : nullptr},
                  m_tapStart - m_first,
                  m_filter->coefficients,
                  m_filter->step.data(),
                  m_filter->nextPhase.data(),
                  m_filter->quads.data(),
                  m_taps,
                  m_channels,
                  m_phase};
        polyphase::run(walk, m_block.data(), run);
        m_tapStart = walk.tap + m_first;
        m_phase = walk.phase;
        fromFloat(m_block.data(), run * m_channels, m_destFormat, output + done * destFrameBytes);
        done += run;
    }
    return done;
}

int64_t PolyphaseResampler::convert(const void* samples, int64_t numberOfSamples, void* output, int64_t capacity)
{
    if (numberOfSamples < 0 || capacity < 0 || (capacity > 0 && !output))
        return -1;
    if (m_outputLimit < 0 && !appendInput(samples, numberOfSamples))
        return -1;
    return produce(static_cast<uint8_t*>(output), std::min(capacity, outputsAvailable()));
}

int64_t PolyphaseResampler::flush(void* output, int64_t capacity)
{
    if (capacity < 0 || (capacity > 0 && !output))
        return -1;
    if (m_outputLimit < 0) {
        // The last output is the last whose time falls before the end of the
        // real input; its first tap lies before the real frame count.
        m_outputLimit = m_end - m_center;
        dropConsumedInput();
        // Silence after the end, enough for the last output's taps.
        const int64_t held = m_end - m_first;
        if (!growInput(m_taps))
            return -1;
        for (int64_t ch = 0; ch < m_channels; ++ch)
            std::fill_n(m_input[ch].data() + held, m_taps, 0.0f);
    }
    return produce(static_cast<uint8_t*>(output), std::min(capacity, outputsAvailable()));
}

}  // namespace brindle
