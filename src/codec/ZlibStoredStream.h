// The pieces of KRZlibCompression's output that do not need zlib's
// compressor: the choice between storing a buffer and run-length coding it,
// and the stored form itself, written straight from the input.
//
// Contract
// - `repeatedBytes` counts the bytes equal to the byte before them;
//   `prefersRunLength` is KRZlibCompression's rule on that count (at least
//   one byte in eight repeats its predecessor).
// - StoredStream writes the zlib stream that deflate at level 0, given the
//   whole input and room for all of its output in one call with Z_FINISH,
//   produces: the header 78 01, stored blocks of at most 65535 bytes (a
//   one-byte block header, 0 or 1 for the last, then LEN and ~LEN in little
//   endian), and the Adler-32 of the input in big endian. The input may come
//   in several pieces; their concatenation is what is stored. The bytes are
//   checked against zlib's own in the codec tests.
// - The caller provides the output: streamSize(total) bytes. One thread at a
//   time per object; the functions are pure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace brindle::zlibstored {

size_t repeatedBytes(const unsigned char* bytes, size_t size);

inline bool prefersRunLength(size_t repeated, size_t size)
{
    return repeated * 8 >= size;
}

// Writes one stored stream of `total` bytes into `out`, which has room for
// streamSize(total) bytes, from pieces appended in order.
class StoredStream {
public:
    StoredStream(char* out, size_t total);
    void append(const void* bytes, size_t size);
    // Writes the checksum; answers false when the pieces did not add up to `total`.
    bool finish();

    // The stream's size for `total` bytes of input.
    static size_t streamSize(size_t total);

private:
    void beginBlock();

    char* m_out;
    size_t m_total;
    size_t m_written = 0;       // input bytes stored so far
    size_t m_blockLeft = 0;     // input bytes still to go into the current block
    size_t m_at = 0;            // the next output byte
    uint32_t m_adler = 1;
};

}  // namespace brindle::zlibstored
