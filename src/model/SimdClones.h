// BRINDLE_SIMD_CLONES marks a per-sample loop that runs for every buffer of
// playback and export. On x86-64 builds with GCC the function is compiled
// twice, for the baseline instruction set and for AVX2, and the loader picks
// the version the processor runs; the results are the same either way, the
// AVX2 version only processes more samples per instruction. Elsewhere the
// mark does nothing.
#pragma once

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__) && \
    !defined(__SANITIZE_ADDRESS__)
#define BRINDLE_SIMD_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define BRINDLE_SIMD_CLONES
#endif
