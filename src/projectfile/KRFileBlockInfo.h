// One entry of a legacy container's structure list: where a block lies in
// the file and how long it is.
//
// Contract
// - Both fields are signed 64-bit; `init` (the default constructor) sets both to 0.
// - Keyed coding: class "KRFileBlockInfo", 64-bit integer keys
//   "KRFileBlockOffset" and "KRFileBlockLength".
// - The values are taken as they were stored: whoever reads a block checks
//   them against the file (KRFileStorage).
#pragma once

#include "foundation/KeyedCoding.h"

#include <cstdint>
#include <memory>

class KRFileBlockInfo final : public brindle::KeyedCoding {
public:
    KRFileBlockInfo() = default;
    KRFileBlockInfo(int64_t offset, int64_t length) : m_offset(offset), m_length(length) {}

    int64_t offset() const { return m_offset; }
    void setOffset(int64_t offset) { m_offset = offset; }
    int64_t length() const { return m_length; }
    void setLength(int64_t length) { m_length = length; }

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<KRFileBlockInfo> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    int64_t m_offset = 0;
    int64_t m_length = 0;
};
