// The linear-PCM stream description that the audio player is started with:
// one record naming the rate, the layout of a frame and the sample encoding.
//
// Contract
// - A plain value type; copy it freely between threads.
// - The player accepts interleaved linear PCM of signed 16-bit samples
//   (`mFormatID` kAudioFormatLinearPCM, `mBitsPerChannel` 16, the flags
//   kAudioFormatFlagIsSignedInteger and kAudioFormatFlagIsPacked, neither
//   big-endian, float nor non-interleaved); `mBytesPerFrame` =
//   `mBytesPerPacket` = channels × 2 and `mFramesPerPacket` = 1.
#pragma once

#include <cstdint>

using AudioFormatID = uint32_t;
using AudioFormatFlags = uint32_t;

// The four-character code 'lpcm'.
inline constexpr AudioFormatID kAudioFormatLinearPCM = 0x6C70636D;

inline constexpr AudioFormatFlags kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr AudioFormatFlags kAudioFormatFlagIsBigEndian = 1u << 1;
inline constexpr AudioFormatFlags kAudioFormatFlagIsSignedInteger = 1u << 2;
inline constexpr AudioFormatFlags kAudioFormatFlagIsPacked = 1u << 3;
inline constexpr AudioFormatFlags kAudioFormatFlagIsAlignedHigh = 1u << 4;
inline constexpr AudioFormatFlags kAudioFormatFlagIsNonInterleaved = 1u << 5;

struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    AudioFormatID mFormatID = 0;
    AudioFormatFlags mFormatFlags = 0;
    uint32_t mBytesPerPacket = 0;
    uint32_t mFramesPerPacket = 0;
    uint32_t mBytesPerFrame = 0;
    uint32_t mChannelsPerFrame = 0;
    uint32_t mBitsPerChannel = 0;
    uint32_t mReserved = 0;
};
