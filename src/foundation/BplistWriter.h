// Writes one binary property list ("bplist00") from objects added one by one.
//
// Contract
// - Each add… call appends one object and returns its reference (its index in
//   the object table). Containers take the references of objects added before
//   them, or of objects reserved with `reserve()` and filled in later, so the
//   object that becomes the top object can be reference 0.
// - Strings are uniqued by value; everything else is written once per call.
// - `finish` lays the objects out in reference order and writes the offset
//   table and trailer the way CoreFoundation's reader demands: the file length
//   is exactly offsetTableOffset + numObjects * offsetIntSize + 32, and the
//   offset and reference widths are the smallest of 1, 2, 4, 8 bytes that hold
//   the offset-table offset and the object count.
// - Integers use the smallest of 1/2/4/8 bytes for non-negative values and
//   8 bytes for negative ones; unsigned values above INT64_MAX take 16 bytes.
//   Floats are 4-byte reals and doubles 8-byte reals, whatever their value.
//   Strings are ASCII when every character is, else UTF-16 big-endian.
// Not thread-safe.
#pragma once

#include "foundation/BplistStringTable.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

namespace brindle {

class BplistWriter {
public:
    using Ref = uint32_t;

    BplistWriter();

    // A reference whose object is given later with setArray / setDictionary.
    Ref reserve();

    Ref addBool(bool value);
    Ref addInteger(int64_t value);
    Ref addUnsigned(uint64_t value);
    Ref addFloat(float value);
    Ref addDouble(double value);
    Ref addDate(double secondsSinceReferenceDate);
    Ref addString(const QString& value);
    Ref addData(const char* bytes, qsizetype size);
    Ref addData(const QByteArray& value) { return addData(value.constData(), value.size()); }
    Ref addUID(uint32_t value);
    Ref addArray(const Ref* elements, size_t count);
    Ref addDictionary(const Ref* keys, const Ref* values, size_t count);

    void setArray(Ref ref, const Ref* elements, size_t count);
    void setDictionary(Ref ref, const Ref* keys, const Ref* values, size_t count);

    size_t objectCount() const { return m_objects.size(); }

    // Lays out every object and returns the property list with `top` as its
    // top object. Every reserved reference must have been set.
    QByteArray finish(Ref top) const;

private:
    enum class Kind : uint8_t { Bytes, Array, Dictionary, Reserved };
    struct Object {
        Kind kind;
        uint32_t count;   // elements or pairs for containers
        size_t begin;     // into m_bytes (Bytes) or m_refs (containers)
        size_t size;      // encoded bytes (Bytes)
    };

    Ref appendBytesObject(size_t begin);
    void appendMarkerAndCount(uint8_t type, uint64_t count);
    void appendInteger(int64_t value);
    Ref addContainer(Kind kind, const Ref* first, size_t firstCount, const Ref* second, size_t secondCount);
    void setContainer(Ref ref, Kind kind, const Ref* first, size_t firstCount, const Ref* second,
                      size_t secondCount);

    std::vector<Object> m_objects;
    std::vector<char> m_bytes;
    std::vector<Ref> m_refs;
    BplistStringTable<Ref> m_strings;
};

}  // namespace brindle
