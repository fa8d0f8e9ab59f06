// Time constants of the codec layer.
#pragma once

#include <cstdint>
#include <limits>

// Units per second of the lengths the demuxer reports (`audioStreamLength`).
inline constexpr int64_t KRTimebase = 1000000;
// The length of a stream that has no audio.
inline constexpr int64_t KRInvalidTimeValue = std::numeric_limits<int64_t>::min();
