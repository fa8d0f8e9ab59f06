#include "codec/Adler32.h"

#include "foundation/CpuFeatures.h"

#include <zlib.h>

#include <algorithm>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace brindle {

namespace {

constexpr uint32_t kBase = 65521;
// The most bytes that can be summed before s2 may overflow 32 bits (zlib's
// NMAX), rounded down to whole 32-byte vectors.
constexpr size_t kChunk = 5552 / 32 * 32;

uint32_t zlibAdler32(uint32_t adler, const unsigned char* bytes, size_t length)
{
    return uint32_t(::adler32_z(adler, bytes, length));
}

#ifdef BRINDLE_HAS_X86_INTRINSICS

__attribute__((target("avx2"))) uint64_t sumOfLanes(__m256i v)
{
    alignas(32) uint32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), v);
    uint64_t sum = 0;
    for (uint32_t lane : lanes)
        sum += lane;
    return sum;
}

// Per 32-byte vector b0…b31: s1 grows by the sum of the bytes and s2 by
// 32·s1 (s1 as it was before the vector) plus Σ (32 − i)·bi. The running s1
// of earlier vectors in the chunk is kept per lane in `prefix`.
__attribute__((target("avx2"))) uint32_t avx2Adler32(uint32_t adler, const unsigned char* bytes, size_t length)
{
    uint64_t s1 = adler & 0xffff;
    uint64_t s2 = adler >> 16;
    const __m256i weights = _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,
                                             14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i zero = _mm256_setzero_si256();
    while (length >= 32) {
        const size_t vectors = std::min(length, kChunk) / 32;
        __m256i sums = zero;
        __m256i prefix = zero;
        __m256i weighted = zero;
        for (size_t v = 0; v < vectors; ++v) {
            const __m256i data = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + v * 32));
            prefix = _mm256_add_epi32(prefix, sums);
            sums = _mm256_add_epi32(sums, _mm256_sad_epu8(data, zero));
            weighted = _mm256_add_epi32(weighted, _mm256_madd_epi16(_mm256_maddubs_epi16(data, weights), ones));
        }
        s2 += s1 * 32 * vectors + sumOfLanes(_mm256_add_epi32(weighted, _mm256_slli_epi32(prefix, 5)));
        s1 += sumOfLanes(sums);
        s1 %= kBase;
        s2 %= kBase;
        bytes += vectors * 32;
        length -= vectors * 32;
    }
    for (size_t i = 0; i < length; ++i) {
        s1 += bytes[i];
        s2 += s1;
    }
    return uint32_t((s2 % kBase) << 16 | (s1 % kBase));
}

#endif

}  // namespace

uint32_t adler32(uint32_t adler, const unsigned char* bytes, size_t length)
{
#ifdef BRINDLE_HAS_X86_INTRINSICS
    if (processorHasAvx2())
        return avx2Adler32(adler, bytes, length);
#endif
    return zlibAdler32(adler, bytes, length);
}

}  // namespace brindle
