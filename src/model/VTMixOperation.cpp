#include "model/VTMixOperation.h"

#include "foundation/CpuFeatures.h"
#include "foundation/Log.h"
#include "model/SimdClones.h"
#include "model/VTMixContext.h"

#include <algorithm>
#include <array>
#include <cstring>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace {

constexpr int32_t kFormatS16 = 1;
constexpr int32_t kFormatFloat = 3;

// Whether frame `index` lies in the span [pad, pad + count] (both ends included).
bool insideSpan(int64_t index, int64_t pad, int64_t count)
{
    return index >= pad && index - pad <= count;
}

// The first frame after the span [pad, pad + count] (both ends included),
// held inside [0, frames].
int64_t spanEnd(int64_t pad, int64_t count, int64_t frames)
{
    int64_t end = 0;
    if (count < 0 || __builtin_add_overflow(pad, count, &end) || __builtin_add_overflow(end, 1, &end))
        end = count < 0 ? pad : frames;
    return std::clamp<int64_t>(end, 0, frames);
}

template <class Sample, class Mix>
void mixRun(uint8_t* output, const uint8_t* a, const uint8_t* b, size_t samples, Mix mix)
{
    for (size_t i = 0; i < samples; ++i) {
        Sample x;
        Sample y;
        std::memcpy(&x, a + i * sizeof(Sample), sizeof(Sample));
        std::memcpy(&y, b + i * sizeof(Sample), sizeof(Sample));
        const Sample mixed = mix(x, y);
        std::memcpy(output + i * sizeof(Sample), &mixed, sizeof(Sample));
    }
}

#ifdef BRINDLE_HAS_X86_INTRINSICS
// mixSample16 on eight samples widened to 32 bits. The product of two
// samples of one sign is positive and below 2^30, where p / 32768 is p >> 15
// and p / 32767 is exactly (p + (p >> 15) + 1) >> 15 (checked for every such
// p). Lanes of mixed signs compute both terms and mask them away. The
// result is not yet clamped: narrowing with saturation clamps it exactly as
// mixSample16 does.
__attribute__((target("avx2"), always_inline)) inline __m256i mixEight(__m256i a, __m256i b)
{
    const __m256i zero = _mm256_setzero_si256();
    const __m256i product = _mm256_mullo_epi32(a, b);
    const __m256i bothNegative = _mm256_and_si256(_mm256_cmpgt_epi32(zero, a), _mm256_cmpgt_epi32(zero, b));
    const __m256i bothPositive = _mm256_and_si256(_mm256_cmpgt_epi32(a, zero), _mm256_cmpgt_epi32(b, zero));
    const __m256i over32768 = _mm256_srli_epi32(product, 15);
    const __m256i over32767 =
        _mm256_srli_epi32(_mm256_add_epi32(_mm256_add_epi32(product, over32768), _mm256_set1_epi32(1)), 15);
    const __m256i sum = _mm256_add_epi32(a, b);
    return _mm256_sub_epi32(_mm256_add_epi32(sum, _mm256_and_si256(bothNegative, over32768)),
                            _mm256_and_si256(bothPositive, over32767));
}

// Sixteen samples at a time; answers how many it mixed, the caller mixes the rest.
__attribute__((target("avx2"))) size_t mixRun16Avx2(uint8_t* output, const uint8_t* a, const uint8_t* b, size_t samples)
{
    size_t i = 0;
    for (; i + 16 <= samples; i += 16) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i * 2));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i * 2));
        const __m256i low = mixEight(_mm256_cvtepi16_epi32(_mm256_castsi256_si128(x)),
                                     _mm256_cvtepi16_epi32(_mm256_castsi256_si128(y)));
        const __m256i high = mixEight(_mm256_cvtepi16_epi32(_mm256_extracti128_si256(x, 1)),
                                      _mm256_cvtepi16_epi32(_mm256_extracti128_si256(y, 1)));
        // The pack interleaves the 128-bit halves; the permutation puts them back in order.
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(output + i * 2), packed);
    }
    return i;
}
#endif

BRINDLE_SIMD_CLONES void mixRun16(uint8_t* output, const uint8_t* a, const uint8_t* b, size_t samples)
{
    size_t done = 0;
#ifdef BRINDLE_HAS_X86_INTRINSICS
    if (brindle::processorHasAvx2())
        done = mixRun16Avx2(output, a, b, samples);
#endif
    mixRun<int16_t>(output + done * 2, a + done * 2, b + done * 2, samples - done,
                    [](int16_t x, int16_t y) { return VTMixOperation::mixSample16(x, y); });
}

BRINDLE_SIMD_CLONES void mixRunFloat(uint8_t* output, const uint8_t* a, const uint8_t* b, size_t samples)
{
    mixRun<float>(output, a, b, samples, [](float x, float y) { return VTMixOperation::mixSampleFloat(x, y); });
}

// Frames inside only the first span come from A, inside only the second
// (or neither) from B, inside both are mixed. The buffer is cut into runs
// at the spans' ends, so each run is one copy or one branch-free mix loop.
template <class Sample, class MixRun>
void mixFrames(uint8_t* output, const uint8_t* a, const uint8_t* b, int64_t frames, int64_t channels, int64_t pad1,
               int64_t count1, int64_t pad2, int64_t count2, MixRun mixRunOfSamples)
{
    const size_t frameBytes = sizeof(Sample) * static_cast<size_t>(channels);
    std::array<int64_t, 6> cuts{0, frames, std::clamp<int64_t>(pad1, 0, frames), spanEnd(pad1, count1, frames),
                                std::clamp<int64_t>(pad2, 0, frames), spanEnd(pad2, count2, frames)};
    std::sort(cuts.begin(), cuts.end());
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
        const int64_t first = cuts[i];
        const int64_t last = cuts[i + 1];
        if (first >= last)
            continue;
        const size_t offset = static_cast<size_t>(first) * frameBytes;
        const size_t bytes = static_cast<size_t>(last - first) * frameBytes;
        const bool inFirst = insideSpan(first, pad1, count1);
        const bool inSecond = insideSpan(first, pad2, count2);
        if (!inFirst)
            std::memcpy(output + offset, b + offset, bytes);
        else if (!inSecond)
            std::memcpy(output + offset, a + offset, bytes);
        else
            mixRunOfSamples(output + offset, a + offset, b + offset, bytes / sizeof(Sample));
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

uint8_t* VTMixOperation::scratch(std::vector<uint8_t>& buffer, size_t bytes)
{
    if (buffer.size() < bytes)
        buffer.resize(bytes);
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
    uint8_t* bufferA = scratch(m_bufferA, bytes);
    bool flag1 = false;
    const int64_t count1 = m_source1->nextSample(bufferA, frames, &flag1, context);

    if (count1 == 0) {
        const int64_t count2 = m_source2->nextSample(buffer, frames, appendBefore, context);
        if (count2 != kEndOfSource)
            return count2;
        // The first source answered silence, which it may not have written.
        std::memset(buffer, 0, bytes);
        return 0;
    }
    if (count1 == kEndOfSource)
        return m_source2->nextSample(buffer, frames, appendBefore, context);

    uint8_t* bufferB = scratch(m_bufferB, bytes);
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
                           mixRun16);
        return;
    }
    mixFrames<float>(out, m_bufferA.data(), m_bufferB.data(), frames, channels, pad1, count1, pad2, count2,
                     mixRunFloat);
}
