// The object table is kept as encoded bytes (scalars, strings, data) and as
// lists of references (containers); `finish` knows the object count and so the
// reference width, and only then lays the containers out.
#include "foundation/BplistWriter.h"

#include "foundation/Log.h"

#include <cstring>
#include <limits>

namespace brindle {

namespace {

constexpr uint8_t kMarkerFalse = 0x08;
constexpr uint8_t kMarkerTrue = 0x09;
constexpr uint8_t kTypeInteger = 0x10;
constexpr uint8_t kMarkerFloat = 0x22;
constexpr uint8_t kMarkerDouble = 0x23;
constexpr uint8_t kMarkerDate = 0x33;
constexpr uint8_t kTypeData = 0x40;
constexpr uint8_t kTypeAscii = 0x50;
constexpr uint8_t kTypeUtf16 = 0x60;
constexpr uint8_t kTypeUID = 0x80;
constexpr uint8_t kTypeArray = 0xA0;
constexpr uint8_t kTypeDictionary = 0xD0;
constexpr uint8_t kCountFollows = 0x0F;

constexpr char kHeader[] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
constexpr size_t kTrailerSize = 32;

// Bytes (1, 2, 4 or 8) of the smallest unsigned width holding `value`.
unsigned unsignedWidth(uint64_t value)
{
    if (value <= 0xFF)
        return 1;
    if (value <= 0xFFFF)
        return 2;
    if (value <= 0xFFFFFFFFu)
        return 4;
    return 8;
}

// Log2 of a width of 1, 2, 4 or 8 bytes.
uint8_t widthCode(unsigned width)
{
    switch (width) {
    case 1:
        return 0;
    case 2:
        return 1;
    case 4:
        return 2;
    default:
        return 3;
    }
}

// The smallest of 1, 2, 4, 8 bytes whose range is larger than `limit`: the
// trailer's widths must be able to express the object count and the offset of
// the offset table itself.
unsigned widthAbove(uint64_t limit)
{
    for (unsigned width : {1u, 2u, 4u})
        if (limit < (uint64_t{1} << (8 * width)))
            return width;
    return 8;
}

void putBigEndian(char* out, uint64_t value, unsigned width)
{
    for (unsigned i = 0; i < width; ++i)
        out[i] = static_cast<char>(value >> (8 * (width - 1 - i)));
}

// Size of a container's marker plus its count (inline or as a following integer).
size_t markerAndCountSize(uint64_t count)
{
    if (count < kCountFollows)
        return 1;
    return 2 + unsignedWidth(count);
}

char* putMarkerAndCount(char* out, uint8_t type, uint64_t count)
{
    if (count < kCountFollows) {
        *out++ = static_cast<char>(type | count);
        return out;
    }
    *out++ = static_cast<char>(type | kCountFollows);
    const unsigned width = unsignedWidth(count);
    *out++ = static_cast<char>(kTypeInteger | widthCode(width));
    putBigEndian(out, count, width);
    return out + width;
}

}  // namespace

BplistWriter::BplistWriter()
{
    m_bytes.reserve(256);
    m_objects.reserve(32);
    m_refs.reserve(64);
}

BplistWriter::Ref BplistWriter::reserve()
{
    m_objects.push_back({Kind::Reserved, 0, 0, 0});
    return static_cast<Ref>(m_objects.size() - 1);
}

BplistWriter::Ref BplistWriter::appendBytesObject(size_t begin)
{
    m_objects.push_back({Kind::Bytes, 0, begin, m_bytes.size() - begin});
    return static_cast<Ref>(m_objects.size() - 1);
}

void BplistWriter::appendMarkerAndCount(uint8_t type, uint64_t count)
{
    const size_t at = m_bytes.size();
    m_bytes.resize(at + markerAndCountSize(count));
    putMarkerAndCount(m_bytes.data() + at, type, count);
}

void BplistWriter::appendInteger(int64_t value)
{
    // Negative values always take 8 bytes (two's complement), as CF writes them.
    const unsigned width = value < 0 ? 8 : unsignedWidth(static_cast<uint64_t>(value));
    const size_t at = m_bytes.size();
    m_bytes.resize(at + 1 + width);
    m_bytes[at] = static_cast<char>(kTypeInteger | widthCode(width));
    putBigEndian(m_bytes.data() + at + 1, static_cast<uint64_t>(value), width);
}

BplistWriter::Ref BplistWriter::addBool(bool value)
{
    const size_t begin = m_bytes.size();
    m_bytes.push_back(static_cast<char>(value ? kMarkerTrue : kMarkerFalse));
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addInteger(int64_t value)
{
    const size_t begin = m_bytes.size();
    appendInteger(value);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addUnsigned(uint64_t value)
{
    if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return addInteger(static_cast<int64_t>(value));
    // CF's form for unsigned values that do not fit a signed 64-bit integer:
    // a 16-byte integer whose upper half is zero.
    const size_t begin = m_bytes.size();
    m_bytes.resize(begin + 17);
    m_bytes[begin] = static_cast<char>(kTypeInteger | 4);
    putBigEndian(m_bytes.data() + begin + 1, 0, 8);
    putBigEndian(m_bytes.data() + begin + 9, value, 8);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addFloat(float value)
{
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    const size_t begin = m_bytes.size();
    m_bytes.resize(begin + 5);
    m_bytes[begin] = static_cast<char>(kMarkerFloat);
    putBigEndian(m_bytes.data() + begin + 1, bits, 4);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addDouble(double value)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    const size_t begin = m_bytes.size();
    m_bytes.resize(begin + 9);
    m_bytes[begin] = static_cast<char>(kMarkerDouble);
    putBigEndian(m_bytes.data() + begin + 1, bits, 8);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addDate(double secondsSinceReferenceDate)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &secondsSinceReferenceDate, sizeof bits);
    const size_t begin = m_bytes.size();
    m_bytes.resize(begin + 9);
    m_bytes[begin] = static_cast<char>(kMarkerDate);
    putBigEndian(m_bytes.data() + begin + 1, bits, 8);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addString(const QString& value)
{
    if (const Ref* known = m_strings.find(value))
        return *known;

    const char16_t* units = reinterpret_cast<const char16_t*>(value.constData());
    const size_t count = static_cast<size_t>(value.size());
    bool ascii = true;
    for (size_t i = 0; i < count && ascii; ++i)
        ascii = units[i] < 0x80;

    const size_t begin = m_bytes.size();
    appendMarkerAndCount(ascii ? kTypeAscii : kTypeUtf16, count);
    const size_t at = m_bytes.size();
    if (ascii) {
        m_bytes.resize(at + count);
        for (size_t i = 0; i < count; ++i)
            m_bytes[at + i] = static_cast<char>(units[i]);
    } else {
        m_bytes.resize(at + 2 * count);
        for (size_t i = 0; i < count; ++i)
            putBigEndian(m_bytes.data() + at + 2 * i, units[i], 2);
    }
    const Ref ref = appendBytesObject(begin);
    m_strings.insert(value, ref);
    return ref;
}

BplistWriter::Ref BplistWriter::addData(const char* bytes, qsizetype size)
{
    const size_t count = size > 0 ? static_cast<size_t>(size) : 0;
    const size_t begin = m_bytes.size();
    appendMarkerAndCount(kTypeData, count);
    if (count > 0)
        m_bytes.insert(m_bytes.end(), bytes, bytes + count);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addUID(uint32_t value)
{
    const unsigned width = unsignedWidth(value);
    const size_t begin = m_bytes.size();
    m_bytes.resize(begin + 1 + width);
    m_bytes[begin] = static_cast<char>(kTypeUID | (width - 1));
    putBigEndian(m_bytes.data() + begin + 1, value, width);
    return appendBytesObject(begin);
}

BplistWriter::Ref BplistWriter::addContainer(Kind kind, const Ref* first, size_t firstCount, const Ref* second,
                                             size_t secondCount)
{
    const Ref ref = reserve();
    setContainer(ref, kind, first, firstCount, second, secondCount);
    return ref;
}

void BplistWriter::setContainer(Ref ref, Kind kind, const Ref* first, size_t firstCount, const Ref* second,
                                size_t secondCount)
{
    if (ref >= m_objects.size() || m_objects[ref].kind != Kind::Reserved) {
        log(QStringLiteral("Property list writer: a container was set on a reference that is not reserved"));
        return;
    }
    if (firstCount > std::numeric_limits<uint32_t>::max()) {
        log(QStringLiteral("Property list writer: a container has too many elements"));
        return;
    }
    const size_t begin = m_refs.size();
    m_refs.insert(m_refs.end(), first, first + firstCount);
    if (secondCount > 0)
        m_refs.insert(m_refs.end(), second, second + secondCount);
    m_objects[ref] = {kind, static_cast<uint32_t>(firstCount), begin, 0};
}

BplistWriter::Ref BplistWriter::addArray(const Ref* elements, size_t count)
{
    return addContainer(Kind::Array, elements, count, nullptr, 0);
}

BplistWriter::Ref BplistWriter::addDictionary(const Ref* keys, const Ref* values, size_t count)
{
    return addContainer(Kind::Dictionary, keys, count, values, count);
}

void BplistWriter::setArray(Ref ref, const Ref* elements, size_t count)
{
    setContainer(ref, Kind::Array, elements, count, nullptr, 0);
}

void BplistWriter::setDictionary(Ref ref, const Ref* keys, const Ref* values, size_t count)
{
    setContainer(ref, Kind::Dictionary, keys, count, values, count);
}

QByteArray BplistWriter::finish(Ref top) const
{
    const uint64_t objectCount = m_objects.size();
    if (objectCount == 0 || top >= objectCount) {
        log(QStringLiteral("Property list writer: no top object to write"));
        return {};
    }
    const unsigned refSize = widthAbove(objectCount);

    // Object table size, so that the offset width is known before writing.
    uint64_t tableSize = 0;
    for (const Object& object : m_objects) {
        switch (object.kind) {
        case Kind::Bytes:
            tableSize += object.size;
            break;
        case Kind::Array:
            tableSize += markerAndCountSize(object.count) + uint64_t{object.count} * refSize;
            break;
        case Kind::Dictionary:
            tableSize += markerAndCountSize(object.count) + 2 * uint64_t{object.count} * refSize;
            break;
        case Kind::Reserved:
            log(QStringLiteral("Property list writer: a reserved object was never set"));
            return {};
        }
    }
    const uint64_t offsetTableOffset = sizeof kHeader + tableSize;
    const unsigned offsetSize = widthAbove(offsetTableOffset);
    const uint64_t total = offsetTableOffset + objectCount * offsetSize + kTrailerSize;
    if (total > static_cast<uint64_t>(std::numeric_limits<qsizetype>::max() / 2)) {
        log(QStringLiteral("Property list writer: the property list is too large"));
        return {};
    }

    QByteArray out(static_cast<qsizetype>(total), Qt::Uninitialized);
    char* const base = out.data();
    std::memcpy(base, kHeader, sizeof kHeader);
    char* cursor = base + sizeof kHeader;
    char* offsets = base + offsetTableOffset;
    for (const Object& object : m_objects) {
        putBigEndian(offsets, static_cast<uint64_t>(cursor - base), offsetSize);
        offsets += offsetSize;
        if (object.kind == Kind::Bytes) {
            std::memcpy(cursor, m_bytes.data() + object.begin, object.size);
            cursor += object.size;
            continue;
        }
        const bool dictionary = object.kind == Kind::Dictionary;
        cursor = putMarkerAndCount(cursor, dictionary ? kTypeDictionary : kTypeArray, object.count);
        const size_t refCount = dictionary ? 2 * size_t{object.count} : object.count;
        for (size_t i = 0; i < refCount; ++i) {
            const Ref element = m_refs[object.begin + i];
            if (element >= objectCount) {
                log(QStringLiteral("Property list writer: a container refers to a missing object"));
                return {};
            }
            putBigEndian(cursor, element, refSize);
            cursor += refSize;
        }
    }

    // Trailer: 5 unused bytes, sort version, offsetIntSize, objectRefSize,
    // numObjects, topObject, offsetTableOffset.
    char* trailer = offsets;
    std::memset(trailer, 0, 6);
    trailer[6] = static_cast<char>(offsetSize);
    trailer[7] = static_cast<char>(refSize);
    putBigEndian(trailer + 8, objectCount, 8);
    putBigEndian(trailer + 16, top, 8);
    putBigEndian(trailer + 24, offsetTableOffset, 8);
    return out;
}

}  // namespace brindle
