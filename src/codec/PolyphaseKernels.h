// The inner loops of PolyphaseResampler: the filter's sums over a run of
// outputs, in plain C++ and, where the processor has them, with AVX2 and
// AVX-512 multiply-adds.
//
// Contract
// - `run` computes `frames` outputs of the walk into `out` (interleaved
//   floats, `channels` per frame) and moves the walk past them. Output k
//   with coefficient row c and input frames x is, per channel, the sum over
//   the taps of x[j] · c[j]. The vector kernels compute every output the same
//   way wherever a run starts or ends (eight lanes of fused multiply-adds in
//   tap order, then one fixed tree of additions), so a stream converts to the
//   same bits whatever the size of its pieces; the AVX-512 kernel gives the
//   same bits as the AVX2 one. The plain loop, used without AVX2 and FMA,
//   sums in another order.
// - The planes must hold every frame the walk's taps reach. Pure functions:
//   any thread.
#pragma once

#include "codec/PolyphaseResampler.h"

#include <cstdint>

namespace brindle::polyphase {

// The state one run of outputs walks: the input planes with the frame under
// the next output's first tap, the phase, and the filter's tables.
struct Walk {
    const float* planes[2];
    int64_t tap;  // frame index into the planes
    const float* coefficients;
    const int32_t* step;
    const int32_t* nextPhase;
    const PolyphaseFilter::Quad* quads;
    int64_t taps;  // a multiple of 8
    int64_t channels;
    int64_t phase;
};

void run(Walk& walk, float* out, int64_t frames);

}  // namespace brindle::polyphase
