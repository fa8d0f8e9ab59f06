// Reads a binary property list ("bplist00") in place, one object at a time.
//
// Contract
// - `open` checks the header, the trailer and the geometry of the offset table
//   with the same rules as CoreFoundation's reader (exact file length, widths
//   able to express the object count and the offset-table offset, top object in
//   range). Nothing is parsed ahead: `object(ref)` decodes one object's marker,
//   length and payload bounds when asked, and every offset, length and
//   reference is checked against the object table before it is used, so
//   damaged input gives an Invalid object and never a read outside the buffer.
// - The reader never follows references itself, so shared references cost
//   nothing and reference cycles cannot make it recurse; callers walk the
//   structure to the depth they need.
// - Accepted objects: booleans, integers of 1, 2, 4, 8 and 16 bytes, 4- and
//   8-byte reals, dates, data, ASCII and UTF-16 strings, UIDs up to UINT32_MAX,
//   arrays and dictionaries. Anything else (sets, null, fill, the newer marker
//   types) is Invalid.
// - The bytes are not copied: they must outlive the reader.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <cstdint>
#include <optional>

namespace brindle {

enum class BplistType : uint8_t {
    Invalid,
    Bool,
    Integer,
    Real,
    Date,
    Data,
    AsciiString,
    Utf16String,
    UID,
    Array,
    Dictionary,
};

// One decoded object header. Scalars carry their value; data, strings and
// containers carry where their contents start and how many there are.
struct BplistObject {
    BplistType type = BplistType::Invalid;
    uint8_t width = 0;  // bytes of an integer (1–16), a real (4, 8) or a UID (1–8)
    bool boolValue = false;
    // Integer as a 128-bit two's complement value (high:low). Widths 1, 2 and 4
    // are unsigned, 8 is signed, 16 is the full 128 bits. A UID's value is in low.
    int64_t high = 0;
    uint64_t low = 0;
    double real = 0.0;   // Real and Date
    uint64_t payload = 0;  // offset of the bytes, characters or references
    uint64_t count = 0;    // bytes (Data, AsciiString), UTF-16 units, elements or key/value pairs

    bool isValid() const { return type != BplistType::Invalid; }
    bool isString() const { return type == BplistType::AsciiString || type == BplistType::Utf16String; }
    // The integer as a signed 64-bit value, when it fits.
    std::optional<int64_t> signedValue() const;
    // The integer as an unsigned 64-bit value, when it is not negative and fits.
    std::optional<uint64_t> unsignedValue() const;
};

class BplistReader {
public:
    static constexpr uint64_t kNoRef = UINT64_MAX;

    BplistReader() = default;

    // Checks the container. `bytes` must stay alive and unchanged while used.
    bool open(const char* bytes, uint64_t size);
    bool isValid() const { return m_bytes != nullptr; }

    uint64_t objectCount() const { return m_objectCount; }
    uint64_t topObject() const { return m_topObject; }

    // The object at a reference; Invalid when the reference, its offset or its
    // encoding is bad.
    BplistObject object(uint64_t ref) const;

    // References held by an array (index < count) or a dictionary (keys at
    // 0 … count-1). kNoRef when the index or the stored reference is out of range.
    uint64_t elementRef(const BplistObject& array, uint64_t index) const;
    uint64_t keyRef(const BplistObject& dictionary, uint64_t index) const;
    uint64_t valueRef(const BplistObject& dictionary, uint64_t index) const;

    // A string's text; nullopt for a non-string or malformed UTF-16 (unpaired surrogates).
    std::optional<QString> string(const BplistObject& object) const;
    // Whether a string equals `text`, optionally preceded by one extra '$'
    // (keyed archives escape keys that begin with '$'). No allocation.
    bool stringEquals(const BplistObject& object, QStringView text, bool extraDollar = false) const;
    // A data object's bytes (copied).
    QByteArray data(const BplistObject& object) const;

private:
    uint64_t readUnsigned(uint64_t at, unsigned width) const;
    bool readCount(uint64_t at, uint8_t info, uint64_t& count, uint64_t& payload) const;
    uint64_t refAt(uint64_t at) const;

    const unsigned char* m_bytes = nullptr;
    uint64_t m_size = 0;
    uint64_t m_objectCount = 0;
    uint64_t m_topObject = 0;
    uint64_t m_offsetTableOffset = 0;
    unsigned m_offsetSize = 0;
    unsigned m_refSize = 0;
};

}  // namespace brindle
