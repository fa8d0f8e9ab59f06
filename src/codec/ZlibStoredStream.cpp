#include "codec/ZlibStoredStream.h"

#include "codec/Adler32.h"
#include "foundation/CpuFeatures.h"

#include <algorithm>
#include <cstring>

#ifdef BRINDLE_HAS_X86_INTRINSICS
#include <immintrin.h>
#endif

namespace brindle::zlibstored {

namespace {

constexpr size_t kMaximumStoredBlock = 65535;
constexpr size_t kHeaderBytes = 2;
constexpr size_t kBlockHeaderBytes = 5;
constexpr size_t kTrailerBytes = 4;

#ifdef BRINDLE_HAS_X86_INTRINSICS
// Bytes 1…size−1 compared with their predecessors, 32 at a time; answers the
// count over the whole vectors and sets `done` to the first byte not examined.
__attribute__((target("avx2,popcnt"))) size_t repeatedBytesAvx2(const unsigned char* bytes, size_t size, size_t& done)
{
    size_t count = 0;
    size_t i = 1;
    for (; i + 32 <= size; i += 32) {
        const __m256i here = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + i));
        const __m256i before = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + i - 1));
        count += size_t(_mm_popcnt_u32(uint32_t(_mm256_movemask_epi8(_mm256_cmpeq_epi8(here, before)))));
    }
    done = i;
    return count;
}
#endif

}  // namespace

size_t repeatedBytes(const unsigned char* bytes, size_t size)
{
    size_t count = 0;
    size_t i = 1;
#ifdef BRINDLE_HAS_X86_INTRINSICS
    if (size > 32 && processorHasAvx2())
        count = repeatedBytesAvx2(bytes, size, i);
#endif
    for (; i < size; ++i)
        count += bytes[i] == bytes[i - 1];
    return count;
}

size_t StoredStream::streamSize(size_t total)
{
    const size_t blocks = total == 0 ? 1 : (total + kMaximumStoredBlock - 1) / kMaximumStoredBlock;
    return kHeaderBytes + blocks * kBlockHeaderBytes + total + kTrailerBytes;
}

StoredStream::StoredStream(char* out, size_t total) : m_out(out), m_total(total)
{
    // CMF: deflate with a 32 KiB window; FLG: level 0, and the check bits.
    m_out[0] = char(0x78);
    m_out[1] = char(0x01);
    m_at = kHeaderBytes;
    if (total == 0)
        beginBlock();
}

void StoredStream::beginBlock()
{
    const size_t length = std::min(kMaximumStoredBlock, m_total - m_written);
    const bool last = m_written + length == m_total;
    char* header = m_out + m_at;
    header[0] = char(last ? 1 : 0);
    header[1] = char(length & 0xff);
    header[2] = char(length >> 8);
    header[3] = char(~length & 0xff);
    header[4] = char((~length >> 8) & 0xff);
    m_at += kBlockHeaderBytes;
    m_blockLeft = length;
}

void StoredStream::append(const void* bytes, size_t size)
{
    const auto* from = static_cast<const unsigned char*>(bytes);
    size = std::min(size, m_total - m_written);
    m_adler = adler32(m_adler, from, size);
    while (size > 0) {
        if (m_blockLeft == 0)
            beginBlock();
        const size_t step = std::min(size, m_blockLeft);
        std::memcpy(m_out + m_at, from, step);
        m_at += step;
        from += step;
        size -= step;
        m_blockLeft -= step;
        m_written += step;
    }
}

bool StoredStream::finish()
{
    if (m_written != m_total || m_at + kTrailerBytes != streamSize(m_total))
        return false;
    char* trailer = m_out + m_at;
    trailer[0] = char(m_adler >> 24);
    trailer[1] = char((m_adler >> 16) & 0xff);
    trailer[2] = char((m_adler >> 8) & 0xff);
    trailer[3] = char(m_adler & 0xff);
    return true;
}

}  // namespace brindle::zlibstored
