// The Adler-32 checksum of zlib streams, computed with AVX2 where the
// processor has it (about ten times zlib's own loop) and by zlib otherwise.
// The value is the same either way. Safe to call from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace brindle {

// Continues `adler` (1 for a fresh checksum) over `length` bytes.
uint32_t adler32(uint32_t adler, const unsigned char* bytes, size_t length);

}  // namespace brindle
