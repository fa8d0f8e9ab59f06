#include "foundation/BplistReader.h"

#include <QtEndian>

#include <cstring>
#include <limits>

namespace brindle {

namespace {

constexpr char kHeader[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
constexpr uint64_t kHeaderSize = sizeof kHeader;
constexpr uint64_t kTrailerSize = 32;

uint64_t bigEndian(const unsigned char* at, unsigned width)
{
    // Offsets, references and integers are almost always 1, 2, 4 or 8 bytes
    // wide: those are read as one load each.
    switch (width) {
    case 1:
        return at[0];
    case 2:
        return qFromBigEndian<uint16_t>(at);
    case 4:
        return qFromBigEndian<uint32_t>(at);
    case 8:
        return qFromBigEndian<uint64_t>(at);
    default:
        break;
    }
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = (value << 8) | at[i];
    return value;
}

// Whether `count` items of `itemSize` bytes starting at `payload` end at or
// before `end`, without overflow.
bool fits(uint64_t payload, uint64_t count, uint64_t itemSize, uint64_t end)
{
    if (payload > end)
        return false;
    return count <= (end - payload) / itemSize;
}

bool isHighSurrogate(char16_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(char16_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

std::optional<int64_t> BplistObject::signedValue() const
{
    if (type != BplistType::Integer)
        return std::nullopt;
    const bool lowIsNegative = low > static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if ((high == 0 && !lowIsNegative) || (high == -1 && lowIsNegative))
        return static_cast<int64_t>(low);
    return std::nullopt;
}

std::optional<uint64_t> BplistObject::unsignedValue() const
{
    if (type != BplistType::Integer || high != 0)
        return std::nullopt;
    // An 8-byte integer is signed: its top bit makes it negative.
    if (width == 8 && low > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return std::nullopt;
    return low;
}

bool BplistReader::open(const char* bytes, uint64_t size)
{
    m_bytes = nullptr;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes);
    if (!data || size < kHeaderSize + 1 + kTrailerSize || std::memcmp(data, kHeader, kHeaderSize) != 0)
        return false;

    const unsigned char* trailer = data + size - kTrailerSize;
    const unsigned offsetSize = trailer[6];
    const unsigned refSize = trailer[7];
    const uint64_t objectCount = bigEndian(trailer + 8, 8);
    const uint64_t topObject = bigEndian(trailer + 16, 8);
    const uint64_t offsetTableOffset = bigEndian(trailer + 24, 8);

    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8)
        return false;
    if (objectCount < 1 || topObject >= objectCount || offsetTableOffset < kHeaderSize + 1)
        return false;
    // The offset table must run exactly up to the trailer.
    const uint64_t tableSpace = size - kTrailerSize;
    if (offsetTableOffset > tableSpace || objectCount > (tableSpace - offsetTableOffset) / offsetSize ||
        offsetTableOffset + objectCount * offsetSize != tableSpace)
        return false;
    // The widths must be able to express the object count and the table offset.
    if (refSize < 8 && (uint64_t{1} << (8 * refSize)) <= objectCount)
        return false;
    if (offsetSize < 8 && (uint64_t{1} << (8 * offsetSize)) <= offsetTableOffset)
        return false;

    m_bytes = data;
    m_size = size;
    m_objectCount = objectCount;
    m_topObject = topObject;
    m_offsetTableOffset = offsetTableOffset;
    m_offsetSize = offsetSize;
    m_refSize = refSize;
    return true;
}

uint64_t BplistReader::readUnsigned(uint64_t at, unsigned width) const
{
    return bigEndian(m_bytes + at, width);
}

// Reads the element count of data, strings and containers: the marker's low
// nibble, or 0xF followed by an integer object of 1, 2, 4 or 8 bytes.
bool BplistReader::readCount(uint64_t at, uint8_t info, uint64_t& count, uint64_t& payload) const
{
    const uint64_t end = m_offsetTableOffset;
    if (info != 0x0F) {
        count = info;
        payload = at + 1;
        return true;
    }
    if (at + 2 > end)
        return false;
    const uint8_t marker = m_bytes[at + 1];
    if ((marker & 0xF0) != 0x10 || (marker & 0x0F) > 3)
        return false;
    const unsigned width = 1u << (marker & 0x0F);
    if (!fits(at + 2, width, 1, end))
        return false;
    count = readUnsigned(at + 2, width);
    if (width == 8 && count > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return false;  // a negative length
    payload = at + 2 + width;
    return true;
}

BplistObject BplistReader::object(uint64_t ref) const
{
    BplistObject object;
    if (!m_bytes || ref >= m_objectCount)
        return object;
    const uint64_t offset = readUnsigned(m_offsetTableOffset + ref * m_offsetSize, m_offsetSize);
    const uint64_t end = m_offsetTableOffset;
    if (offset < kHeaderSize || offset >= end)
        return object;

    const uint8_t marker = m_bytes[offset];
    const uint8_t info = marker & 0x0F;
    BplistType type = BplistType::Invalid;
    switch (marker >> 4) {
    case 0x0:
        if (info == 0x08 || info == 0x09) {
            object.boolValue = info == 0x09;
            type = BplistType::Bool;
        }
        break;
    case 0x1: {
        if (info > 4)
            break;
        const unsigned width = 1u << info;
        if (!fits(offset + 1, width, 1, end))
            break;
        object.width = static_cast<uint8_t>(width);
        if (width == 16) {
            object.high = static_cast<int64_t>(readUnsigned(offset + 1, 8));
            object.low = readUnsigned(offset + 9, 8);
        } else {
            object.low = readUnsigned(offset + 1, width);
            // Only the 8-byte form is signed.
            object.high = (width == 8 && static_cast<int64_t>(object.low) < 0) ? -1 : 0;
        }
        type = BplistType::Integer;
        break;
    }
    case 0x2:
    case 0x3: {
        const bool date = (marker >> 4) == 0x3;
        if ((date && info != 3) || (!date && info != 2 && info != 3))
            break;
        const unsigned width = 1u << info;
        if (!fits(offset + 1, width, 1, end))
            break;
        if (width == 4) {
            const uint32_t bits = static_cast<uint32_t>(readUnsigned(offset + 1, 4));
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            object.real = value;
        } else {
            const uint64_t bits = readUnsigned(offset + 1, 8);
            std::memcpy(&object.real, &bits, sizeof object.real);
        }
        object.width = static_cast<uint8_t>(width);
        type = date ? BplistType::Date : BplistType::Real;
        break;
    }
    case 0x4:
    case 0x5:
    case 0x6: {
        if (!readCount(offset, info, object.count, object.payload))
            break;
        const uint64_t unitSize = (marker >> 4) == 0x6 ? 2 : 1;
        if (!fits(object.payload, object.count, unitSize, end))
            break;
        type = (marker >> 4) == 0x4   ? BplistType::Data
               : (marker >> 4) == 0x5 ? BplistType::AsciiString
                                      : BplistType::Utf16String;
        break;
    }
    case 0x8: {
        const unsigned width = info + 1u;
        if (width > 8 || !fits(offset + 1, width, 1, end))
            break;
        object.low = readUnsigned(offset + 1, width);
        if (object.low > std::numeric_limits<uint32_t>::max())
            break;
        object.width = static_cast<uint8_t>(width);
        type = BplistType::UID;
        break;
    }
    case 0xA:
    case 0xD: {
        if (!readCount(offset, info, object.count, object.payload))
            break;
        const bool dictionary = (marker >> 4) == 0xD;
        if (!fits(object.payload, object.count, m_refSize, end))
            break;
        if (dictionary && !fits(object.payload + object.count * m_refSize, object.count, m_refSize, end))
            break;
        type = dictionary ? BplistType::Dictionary : BplistType::Array;
        break;
    }
    default:
        break;
    }
    object.type = type;
    return object;
}

uint64_t BplistReader::refAt(uint64_t at) const
{
    const uint64_t ref = readUnsigned(at, m_refSize);
    return ref < m_objectCount ? ref : kNoRef;
}

uint64_t BplistReader::elementRef(const BplistObject& array, uint64_t index) const
{
    if (array.type != BplistType::Array || index >= array.count)
        return kNoRef;
    return refAt(array.payload + index * m_refSize);
}

uint64_t BplistReader::keyRef(const BplistObject& dictionary, uint64_t index) const
{
    if (dictionary.type != BplistType::Dictionary || index >= dictionary.count)
        return kNoRef;
    return refAt(dictionary.payload + index * m_refSize);
}

uint64_t BplistReader::valueRef(const BplistObject& dictionary, uint64_t index) const
{
    if (dictionary.type != BplistType::Dictionary || index >= dictionary.count)
        return kNoRef;
    return refAt(dictionary.payload + (dictionary.count + index) * m_refSize);
}

std::optional<QString> BplistReader::string(const BplistObject& object) const
{
    if (object.type == BplistType::AsciiString) {
        return QString::fromLatin1(reinterpret_cast<const char*>(m_bytes + object.payload),
                                   static_cast<qsizetype>(object.count));
    }
    if (object.type != BplistType::Utf16String)
        return std::nullopt;
    QString text(static_cast<qsizetype>(object.count), Qt::Uninitialized);
    char16_t* units = reinterpret_cast<char16_t*>(text.data());
    const unsigned char* in = m_bytes + object.payload;
    for (uint64_t i = 0; i < object.count; ++i)
        units[i] = static_cast<char16_t>((in[2 * i] << 8) | in[2 * i + 1]);
    for (uint64_t i = 0; i < object.count; ++i) {
        if (isHighSurrogate(units[i])) {
            if (i + 1 >= object.count || !isLowSurrogate(units[i + 1]))
                return std::nullopt;
            ++i;
        } else if (isLowSurrogate(units[i])) {
            return std::nullopt;
        }
    }
    return text;
}

bool BplistReader::stringEquals(const BplistObject& object, QStringView text, bool extraDollar) const
{
    const uint64_t prefix = extraDollar ? 1 : 0;
    if (!object.isString() || object.count != static_cast<uint64_t>(text.size()) + prefix)
        return false;
    const unsigned char* in = m_bytes + object.payload;
    const bool wide = object.type == BplistType::Utf16String;
    auto unitAt = [&](uint64_t i) -> char16_t {
        return wide ? static_cast<char16_t>((in[2 * i] << 8) | in[2 * i + 1]) : static_cast<char16_t>(in[i]);
    };
    if (extraDollar && unitAt(0) != u'$')
        return false;
    const char16_t* expected = reinterpret_cast<const char16_t*>(text.constData());
    for (uint64_t i = 0; i < static_cast<uint64_t>(text.size()); ++i) {
        if (unitAt(i + prefix) != expected[i])
            return false;
    }
    return true;
}

QByteArray BplistReader::data(const BplistObject& object) const
{
    if (object.type != BplistType::Data)
        return {};
    return QByteArray(reinterpret_cast<const char*>(m_bytes + object.payload), static_cast<qsizetype>(object.count));
}

}  // namespace brindle
