// What the processor running us can do, for the few loops that carry a
// hand-vectorised version beside their plain one.
#pragma once

#if defined(__x86_64__) && defined(__GNUC__)
#define BRINDLE_HAS_X86_INTRINSICS 1
#endif

namespace brindle {

// True on an x86-64 processor with AVX2; always false elsewhere.
inline bool processorHasAvx2()
{
#ifdef BRINDLE_HAS_X86_INTRINSICS
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
#else
    return false;
#endif
}

// True on an x86-64 processor with fused multiply-add (FMA3).
inline bool processorHasFma()
{
#ifdef BRINDLE_HAS_X86_INTRINSICS
    static const bool has = __builtin_cpu_supports("fma");
    return has;
#else
    return false;
#endif
}

}  // namespace brindle
