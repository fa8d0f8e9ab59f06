// One row of a data provider's frame table: where one decoded frame's record
// lies in the cache file, and which samples it holds.
//
// Contract
// - All four fields are signed 64-bit and fixed at construction.
// - The last row of a complete table is the end marker: `lengthOfBuffer` and
//   `numberOfSamples` are kVTAudioFrameEndValue (the most negative 64-bit
//   value), `offsetOfBuffer` is the cache file's total size and
//   `indexOfSamples` the total number of samples per channel.
// - Keyed coding: class "VTAudioFrameInfo", 64-bit integer keys
//   "kKROffsetOfBuffer", "kKRLengthOfBuffer", "kKRIndexOfSamples",
//   "kKRNumberOfSamples".
// - Immutable, so rows may be shared between threads freely.
#pragma once

#include "foundation/KeyedCoding.h"

#include <cstdint>
#include <limits>
#include <memory>

inline constexpr int64_t kVTAudioFrameEndValue = std::numeric_limits<int64_t>::min();

class VTAudioFrameInfo final : public brindle::KeyedCoding {
public:
    // initWithOffset:length:indexOfSamples:numberOfSamples:
    VTAudioFrameInfo(int64_t offsetOfBuffer, int64_t lengthOfBuffer, int64_t indexOfSamples, int64_t numberOfSamples);
    static std::shared_ptr<VTAudioFrameInfo> initWithOffset(int64_t offsetOfBuffer, int64_t length,
                                                            int64_t indexOfSamples, int64_t numberOfSamples);
    // The end marker of a table whose file has `totalBytes` and whose stream has `totalSamples`.
    static std::shared_ptr<VTAudioFrameInfo> endMarker(int64_t totalBytes, int64_t totalSamples);

    int64_t offsetOfBuffer() const { return m_offsetOfBuffer; }
    int64_t lengthOfBuffer() const { return m_lengthOfBuffer; }
    int64_t indexOfSamples() const { return m_indexOfSamples; }
    int64_t numberOfSamples() const { return m_numberOfSamples; }

    // True when the length or the sample count is the end value.
    bool isEndMarker() const
    {
        return m_lengthOfBuffer == kVTAudioFrameEndValue || m_numberOfSamples == kVTAudioFrameEndValue;
    }
    // Whether sample `index` lies in this row: indexOfSamples <= index <
    // indexOfSamples + numberOfSamples, both compared unsigned, so that the end
    // marker (whose sum wraps) holds every index from the total onwards.
    bool containsSampleIndex(uint64_t index) const
    {
        const uint64_t first = uint64_t(m_indexOfSamples);
        return first <= index && first + uint64_t(m_numberOfSamples) > index;
    }

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTAudioFrameInfo> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    const int64_t m_offsetOfBuffer;
    const int64_t m_lengthOfBuffer;
    const int64_t m_indexOfSamples;
    const int64_t m_numberOfSamples;
};
