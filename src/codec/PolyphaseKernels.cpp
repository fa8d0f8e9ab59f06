#include "codec/PolyphaseKernels.h"

#include "foundation/CpuFeatures.h"

#include <algorithm>
#include <cstring>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace brindle::polyphase {

namespace {

void runPlain(Walk& walk, float* out, int64_t frames)
{
    for (int64_t k = 0; k < frames; ++k) {
        const float* c = walk.coefficients + walk.phase * walk.taps;
        for (int64_t ch = 0; ch < walk.channels; ++ch) {
            const float* x = walk.planes[ch] + walk.tap;
            float sum = 0.0f;
            for (int64_t j = 0; j < walk.taps; ++j)
                sum += x[j] * c[j];
            out[k * walk.channels + ch] = sum;
        }
        walk.tap += walk.step[walk.phase];
        walk.phase = walk.nextPhase[walk.phase];
    }
}

#ifdef BRINDLE_HAS_X86_INTRINSICS
// The next four outputs of a walk: each one's coefficient row and first
// input frame. A last group of fewer than four (`real`) repeats its last
// output, so that every output is summed in the same order wherever a call
// ends. Moves the walk past the real outputs.
struct Group {
    const float* c[4];
    int64_t at[4];
    int real;
};

inline Group nextGroup(const Walk& walk, int64_t& tap, int64_t& phase, int64_t remaining)
{
    Group group{};
    group.real = int(std::min<int64_t>(4, remaining));
    for (int o = 0; o < 4; ++o) {
        group.c[o] = walk.coefficients + phase * walk.taps;
        group.at[o] = tap;
        if (o + 1 < group.real) {
            tap += walk.step[phase];
            phase = walk.nextPhase[phase];
        }
    }
    tap += walk.step[phase];
    phase = walk.nextPhase[phase];
    return group;
}

// The next whole group of four from the filter's quad table (one look-up
// instead of walking the phases); moves the walk past it.
inline Group quadGroup(const Walk& walk, int64_t& tap, int64_t& phase)
{
    const PolyphaseFilter::Quad& quad = walk.quads[phase];
    const Group group{{walk.coefficients + quad.row[0], walk.coefficients + quad.row[1],
                       walk.coefficients + quad.row[2], walk.coefficients + quad.row[3]},
                      {tap + quad.at[0], tap + quad.at[1], tap + quad.at[2], tap + quad.at[3]},
                      4};
    tap += quad.advance;
    phase = quad.next;
    return group;
}

// Four stereo outputs: each coefficient vector is loaded once for both
// channels, every output and channel has its own accumulator (independent
// chains, so the multiply-adds overlap), and the horizontal sums of the four
// outputs are done together: [L0 R0 L1 R1] and [L2 R2 L3 R3]. Written out by
// hand: as a loop over the outputs the accumulators would live in memory.
template <int64_t FixedTaps = 0>
__attribute__((target("avx2,fma"), always_inline)) inline void stereoFour(const float* left, const float* right,
                                                                          const float* const* c, const int64_t* at,
                                                                          int64_t runtimeTaps, __m128& firstPair,
                                                                          __m128& secondPair)
{
    const int64_t taps = FixedTaps > 0 ? FixedTaps : runtimeTaps;
    __m256 l0 = _mm256_setzero_ps(), l1 = l0, l2 = l0, l3 = l0;
    __m256 r0 = l0, r1 = l0, r2 = l0, r3 = l0;
    for (int64_t j = 0; j < taps; j += 8) {
        __m256 row = _mm256_loadu_ps(c[0] + j);
        l0 = _mm256_fmadd_ps(_mm256_loadu_ps(left + at[0] + j), row, l0);
        r0 = _mm256_fmadd_ps(_mm256_loadu_ps(right + at[0] + j), row, r0);
        row = _mm256_loadu_ps(c[1] + j);
        l1 = _mm256_fmadd_ps(_mm256_loadu_ps(left + at[1] + j), row, l1);
        r1 = _mm256_fmadd_ps(_mm256_loadu_ps(right + at[1] + j), row, r1);
        row = _mm256_loadu_ps(c[2] + j);
        l2 = _mm256_fmadd_ps(_mm256_loadu_ps(left + at[2] + j), row, l2);
        r2 = _mm256_fmadd_ps(_mm256_loadu_ps(right + at[2] + j), row, r2);
        row = _mm256_loadu_ps(c[3] + j);
        l3 = _mm256_fmadd_ps(_mm256_loadu_ps(left + at[3] + j), row, l3);
        r3 = _mm256_fmadd_ps(_mm256_loadu_ps(right + at[3] + j), row, r3);
    }
    // hadd(hadd(l0, r0), hadd(l1, r1)) = [L0 R0 L1 R1] per 128-bit half.
    const __m256 first = _mm256_hadd_ps(_mm256_hadd_ps(l0, r0), _mm256_hadd_ps(l1, r1));
    const __m256 second = _mm256_hadd_ps(_mm256_hadd_ps(l2, r2), _mm256_hadd_ps(l3, r3));
    firstPair = _mm_add_ps(_mm256_castps256_ps128(first), _mm256_extractf128_ps(first, 1));
    secondPair = _mm_add_ps(_mm256_castps256_ps128(second), _mm256_extractf128_ps(second, 1));
}

// GCC 12 warns about the unused upper half that its own 512-bit insert and
// extract intrinsics start from (an undefined value by design).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

// Eight frames of the left plane, then the same eight of the right.
__attribute__((target("avx512f,avx512dq"), always_inline)) inline __m512 bothChannels(const float* left,
                                                                                     const float* right, int64_t at)
{
    return _mm512_insertf32x8(_mm512_zextps256_ps512(_mm256_loadu_ps(left + at)), _mm256_loadu_ps(right + at), 1);
}

// Eight coefficients, repeated in both halves.
__attribute__((target("avx512f,avx512dq"), always_inline)) inline __m512 inBothHalves(const float* row)
{
    return _mm512_maskz_broadcast_f32x8(__mmask16(0xffff), _mm256_loadu_ps(row));
}

// The same sums with 512-bit multiply-adds: each output's left and right
// accumulators share one register, its coefficients broadcast to both halves.
// Every lane is the lane of stereoFour, so the results are the same bits.
template <int64_t FixedTaps = 0>
__attribute__((target("avx512f,avx512dq,avx2,fma"), always_inline)) inline void stereoFour512(
    const float* left, const float* right, const float* const* c, const int64_t* at, int64_t runtimeTaps,
    __m128& firstPair, __m128& secondPair)
{
    const int64_t taps = FixedTaps > 0 ? FixedTaps : runtimeTaps;
    __m512 s0 = _mm512_setzero_ps(), s1 = s0, s2 = s0, s3 = s0;
    for (int64_t j = 0; j < taps; j += 8) {
        s0 = _mm512_fmadd_ps(bothChannels(left, right, at[0] + j), inBothHalves(c[0] + j), s0);
        s1 = _mm512_fmadd_ps(bothChannels(left, right, at[1] + j), inBothHalves(c[1] + j), s1);
        s2 = _mm512_fmadd_ps(bothChannels(left, right, at[2] + j), inBothHalves(c[2] + j), s2);
        s3 = _mm512_fmadd_ps(bothChannels(left, right, at[3] + j), inBothHalves(c[3] + j), s3);
    }
    const __m256 l0 = _mm512_castps512_ps256(s0), r0 = _mm512_extractf32x8_ps(s0, 1);
    const __m256 l1 = _mm512_castps512_ps256(s1), r1 = _mm512_extractf32x8_ps(s1, 1);
    const __m256 l2 = _mm512_castps512_ps256(s2), r2 = _mm512_extractf32x8_ps(s2, 1);
    const __m256 l3 = _mm512_castps512_ps256(s3), r3 = _mm512_extractf32x8_ps(s3, 1);
    const __m256 first = _mm256_hadd_ps(_mm256_hadd_ps(l0, r0), _mm256_hadd_ps(l1, r1));
    const __m256 second = _mm256_hadd_ps(_mm256_hadd_ps(l2, r2), _mm256_hadd_ps(l3, r3));
    firstPair = _mm_add_ps(_mm256_castps256_ps128(first), _mm256_extractf128_ps(first, 1));
    secondPair = _mm_add_ps(_mm256_castps256_ps128(second), _mm256_extractf128_ps(second, 1));
}

// A last group of fewer than four outputs walks the phases one by one
// (whole groups take their rows and frames from the filter's quad table);
// the sums of an output are the same either way.
__attribute__((target("avx2,fma"))) void stereoTail(Walk& walk, int64_t& tap, int64_t& phase, float* out,
                                                    int64_t remaining)
{
    const auto [c, at, real] = nextGroup(walk, tap, phase, remaining);
    __m128 firstPair;
    __m128 secondPair;
    stereoFour(walk.planes[0], walk.planes[1], c, at, walk.taps, firstPair, secondPair);
    alignas(16) float sums[8];
    _mm_store_ps(sums, firstPair);
    _mm_store_ps(sums + 4, secondPair);
    std::memcpy(out, sums, size_t(real) * 2 * sizeof(float));
}

template <int64_t FixedTaps>
__attribute__((target("avx512f,avx512dq,avx2,fma"))) void runStereoAvx512(Walk& walk, float* out, int64_t frames)
{
    const float* left = walk.planes[0];
    const float* right = walk.planes[1];
    int64_t tap = walk.tap;
    int64_t phase = walk.phase;
    int64_t k = 0;
    for (; k + 4 <= frames; k += 4) {
        const Group group = quadGroup(walk, tap, phase);
        __m128 firstPair;
        __m128 secondPair;
        stereoFour512<FixedTaps>(left, right, group.c, group.at, walk.taps, firstPair, secondPair);
        _mm_storeu_ps(out + k * 2, firstPair);
        _mm_storeu_ps(out + k * 2 + 4, secondPair);
    }
    if (k < frames)
        stereoTail(walk, tap, phase, out + k * 2, frames - k);
    walk.tap = tap;
    walk.phase = phase;
}

#pragma GCC diagnostic pop

template <int64_t FixedTaps>
__attribute__((target("avx2,fma"))) void runStereoAvx2(Walk& walk, float* out, int64_t frames)
{
    const float* left = walk.planes[0];
    const float* right = walk.planes[1];
    int64_t tap = walk.tap;
    int64_t phase = walk.phase;
    int64_t k = 0;
    for (; k + 4 <= frames; k += 4) {
        const Group group = quadGroup(walk, tap, phase);
        __m128 firstPair;
        __m128 secondPair;
        stereoFour<FixedTaps>(left, right, group.c, group.at, walk.taps, firstPair, secondPair);
        _mm_storeu_ps(out + k * 2, firstPair);
        _mm_storeu_ps(out + k * 2 + 4, secondPair);
    }
    if (k < frames)
        stereoTail(walk, tap, phase, out + k * 2, frames - k);
    walk.tap = tap;
    walk.phase = phase;
}

__attribute__((target("avx2,fma"), always_inline)) inline __m128 monoFour(const float* x, const float* const* c,
                                                                         const int64_t* at, int64_t taps)
{
    __m256 s0 = _mm256_setzero_ps(), s1 = s0, s2 = s0, s3 = s0;
    for (int64_t j = 0; j < taps; j += 8) {
        s0 = _mm256_fmadd_ps(_mm256_loadu_ps(x + at[0] + j), _mm256_loadu_ps(c[0] + j), s0);
        s1 = _mm256_fmadd_ps(_mm256_loadu_ps(x + at[1] + j), _mm256_loadu_ps(c[1] + j), s1);
        s2 = _mm256_fmadd_ps(_mm256_loadu_ps(x + at[2] + j), _mm256_loadu_ps(c[2] + j), s2);
        s3 = _mm256_fmadd_ps(_mm256_loadu_ps(x + at[3] + j), _mm256_loadu_ps(c[3] + j), s3);
    }
    const __m256 four = _mm256_hadd_ps(_mm256_hadd_ps(s0, s1), _mm256_hadd_ps(s2, s3));
    return _mm_add_ps(_mm256_castps256_ps128(four), _mm256_extractf128_ps(four, 1));
}

__attribute__((target("avx2,fma"))) void runMonoAvx2(Walk& walk, float* out, int64_t frames)
{
    const float* x = walk.planes[0];
    const int64_t taps = walk.taps;
    int64_t tap = walk.tap;
    int64_t phase = walk.phase;
    int64_t k = 0;
    for (; k + 4 <= frames; k += 4) {
        const Group group = quadGroup(walk, tap, phase);
        _mm_storeu_ps(out + k, monoFour(x, group.c, group.at, taps));
    }
    if (k < frames) {
        const auto [c, at, real] = nextGroup(walk, tap, phase, frames - k);
        alignas(16) float sums[4];
        _mm_store_ps(sums, monoFour(x, c, at, taps));
        std::memcpy(out + k, sums, size_t(real) * sizeof(float));
    }
    walk.tap = tap;
    walk.phase = phase;
}
#endif

#ifdef BRINDLE_HAS_X86_INTRINSICS
// The stereo kernel for this processor and filter length (32 taps, the
// length for every rate increase of 3 % or more, has its loop unrolled).
void runStereo(Walk& walk, float* out, int64_t frames)
{
    static const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq");
    if (wide)
        walk.taps == 32 ? runStereoAvx512<32>(walk, out, frames) : runStereoAvx512<0>(walk, out, frames);
    else
        walk.taps == 32 ? runStereoAvx2<32>(walk, out, frames) : runStereoAvx2<0>(walk, out, frames);
}
#endif

bool hasVectorKernel()
{
#ifdef BRINDLE_HAS_X86_INTRINSICS
    return processorHasAvx2() && processorHasFma();
#else
    return false;
#endif
}

}  // namespace

void run(Walk& walk, float* out, int64_t frames)
{
    static const bool vector = hasVectorKernel();
#ifdef BRINDLE_HAS_X86_INTRINSICS
    if (vector && walk.channels == 2)
        return runStereo(walk, out, frames);
    if (vector)
        return runMonoAvx2(walk, out, frames);
#else
    (void)vector;
#endif
    runPlain(walk, out, frames);
}

}  // namespace brindle::polyphase
