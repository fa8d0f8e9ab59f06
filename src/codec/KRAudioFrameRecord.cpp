#include "codec/KRAudioFrameRecord.h"

#include "codec/Adler32.h"
#include "codec/KRAudioFrame2.h"
#include "foundation/BplistReader.h"

#include <zlib.h>

#include <array>
#include <climits>
#include <cstring>

using brindle::BplistObject;
using brindle::BplistReader;
using brindle::BplistType;

namespace {

// The archive around a frame's samples (keys, class names, the property
// list's tables) is a few hundred bytes; a record that inflates to more than
// this beyond its samples is left to the generic path.
constexpr size_t kArchiveOverhead = 4096;
// Larger dictionaries are not the layout this reader knows.
constexpr uint64_t kMostKeys = 16;
// As many class names as the generic unarchiver takes in a $classes chain.
constexpr uint64_t kMostClassNames = 64;

// The values of `keys` in `dictionary`, found in one pass over its keys; the
// last of repeated keys wins, as in the generic unarchiver. Absent keys give
// kNoRef. False when any key is not a string.
template <size_t N>
bool valuesOf(const BplistReader& reader, const BplistObject& dictionary, const std::array<QStringView, N>& keys,
              std::array<uint64_t, N>& values)
{
    values.fill(BplistReader::kNoRef);
    for (uint64_t i = 0; i < dictionary.count; ++i) {
        const BplistObject name = reader.object(reader.keyRef(dictionary, i));
        if (!name.isString())
            return false;
        for (size_t k = 0; k < N; ++k) {
            if (name.count == uint64_t(keys[k].size()) && reader.stringEquals(name, keys[k])) {
                values[k] = reader.valueRef(dictionary, i);
                break;
            }
        }
    }
    return true;
}

// The value of one key (see valuesOf).
uint64_t valueOf(const BplistReader& reader, const BplistObject& dictionary, QStringView key)
{
    std::array<uint64_t, 1> value;
    return valuesOf<1>(reader, dictionary, {key}, value) ? value[0] : BplistReader::kNoRef;
}

bool isSmallDictionary(const BplistObject& object)
{
    return object.type == BplistType::Dictionary && object.count <= kMostKeys;
}

// The object `uid` refers to in $objects; Invalid when out of range.
BplistObject slot(const BplistReader& reader, const BplistObject& objects, const BplistObject& uid)
{
    if (uid.type != BplistType::UID || uid.low == 0 || uid.low >= objects.count)
        return {};
    return reader.object(reader.elementRef(objects, uid.low));
}

bool isFrameClass(const BplistReader& reader, const BplistObject& classDictionary)
{
    if (!isSmallDictionary(classDictionary))
        return false;
    const BplistObject name = reader.object(valueOf(reader, classDictionary, u"$classname"));
    if (!name.isString() || !reader.stringEquals(name, u"KRAudioFrame2"))
        return false;
    const uint64_t chainRef = valueOf(reader, classDictionary, u"$classes");
    if (chainRef == BplistReader::kNoRef)
        return true;
    const BplistObject chain = reader.object(chainRef);
    if (chain.type != BplistType::Array || chain.count > kMostClassNames)
        return false;
    for (uint64_t i = 0; i < chain.count; ++i) {
        const BplistObject entry = reader.object(reader.elementRef(chain, i));
        // Well-formed UTF-16 is what the generic reader requires of a name.
        if (!entry.isString() || (entry.type == BplistType::Utf16String && !reader.string(entry)))
            return false;
    }
    return true;
}

// An integer field of the frame; nullopt unless it is stored as an integer.
std::optional<int64_t> integerAt(const BplistReader& reader, uint64_t ref)
{
    const BplistObject value = reader.object(ref);
    if (value.type != BplistType::Integer)
        return std::nullopt;
    return value.signedValue();
}

}  // namespace

struct KRAudioFrameRecordReader::Inflater {
    z_stream stream{};
    bool ready = false;

    // A raw inflater: the zlib header and the Adler-32 trailer are read here.
    Inflater() { ready = inflateInit2(&stream, -MAX_WBITS) == Z_OK; }
    ~Inflater()
    {
        if (ready)
            inflateEnd(&stream);
    }
};

KRAudioFrameRecordReader::KRAudioFrameRecordReader() : m_inflater(std::make_unique<Inflater>()) {}

KRAudioFrameRecordReader::~KRAudioFrameRecordReader() = default;

bool KRAudioFrameRecordReader::unpack(const char* record, size_t size, const Shape& shape,
                                      std::vector<unsigned char>& holder, size_t& samplesAt)
{
    if (!record || shape.packedBytes <= 0 || uint64_t(shape.packedBytes) > UINT_MAX - kArchiveOverhead)
        return false;
    if (!inflateRecord(reinterpret_cast<const unsigned char*>(record), size, size_t(shape.packedBytes) + kArchiveOverhead))
        return false;
    if (!matchesLastLayout(shape) && !readArchive(shape))
        return false;
    // The remembered layout keeps its own copy of the framing, so the
    // archive's storage can change hands.
    m_archive.swap(holder);
    samplesAt = m_layout.payload;
    return true;
}

bool KRAudioFrameRecordReader::matchesLastLayout(const Shape& shape) const
{
    // Archive bytes that equal the last accepted archive everywhere outside
    // its samples decode to the same structure and fields: the samples are
    // opaque bytes to the property list, never read as part of it.
    const Layout& last = m_layout;
    if (!last.valid || m_archiveSize != last.archiveSize || shape.sampleFormat != last.shape.sampleFormat ||
        shape.numberOfChannel != last.shape.numberOfChannel || shape.numberOfSamples != last.shape.numberOfSamples ||
        shape.packedBytes != last.shape.packedBytes)
        return false;
    const size_t end = last.payload + size_t(shape.packedBytes);
    return std::memcmp(m_archive.data(), last.framing.data(), last.payload) == 0 &&
           std::memcmp(m_archive.data() + end, last.framing.data() + last.payload, m_archiveSize - end) == 0;
}

void KRAudioFrameRecordReader::rememberLayout(const Shape& shape, size_t payload)
{
    Layout& last = m_layout;
    const size_t end = payload + size_t(shape.packedBytes);
    last.framing.assign(m_archive.begin(), m_archive.begin() + ptrdiff_t(payload));
    last.framing.insert(last.framing.end(), m_archive.begin() + ptrdiff_t(end),
                        m_archive.begin() + ptrdiff_t(m_archiveSize));
    last.archiveSize = m_archiveSize;
    last.payload = payload;
    last.shape = shape;
    last.valid = true;
}

bool KRAudioFrameRecordReader::inflateRecord(const unsigned char* record, size_t size, size_t limit)
{
    // Two header bytes, at least one byte of deflate data, four trailer bytes.
    if (!m_inflater->ready || size < 7 || size - 6 > UINT_MAX)
        return false;
    const unsigned method = record[0];
    const unsigned flags = record[1];
    const bool header = (method & 0x0f) == Z_DEFLATED && (method >> 4) <= 7 && (method * 256 + flags) % 31 == 0 &&
                        (flags & 0x20) == 0;  // no preset dictionary
    if (!header || inflateReset(&m_inflater->stream) != Z_OK)
        return false;
    if (m_archive.size() < limit)
        m_archive.resize(limit);
    z_stream& stream = m_inflater->stream;
    stream.next_in = const_cast<unsigned char*>(record + 2);
    stream.avail_in = uInt(size - 6);
    stream.next_out = m_archive.data();
    stream.avail_out = uInt(limit);
    // One call with all of the input and room for all of the output: with
    // Z_FINISH zlib then keeps no window, so nothing is allocated or copied.
    if (inflate(&stream, Z_FINISH) != Z_STREAM_END || stream.avail_in != 0)
        return false;
    m_archiveSize = limit - stream.avail_out;
    const unsigned char* trailer = record + size - 4;
    const uint32_t stored = uint32_t(trailer[0]) << 24 | uint32_t(trailer[1]) << 16 | uint32_t(trailer[2]) << 8 | trailer[3];
    return brindle::adler32(1, m_archive.data(), m_archiveSize) == stored;
}

bool KRAudioFrameRecordReader::readArchive(const Shape& shape)
{
    m_layout.valid = false;
    BplistReader reader;
    if (!reader.open(reinterpret_cast<const char*>(m_archive.data()), m_archiveSize))
        return false;
    const BplistObject root = reader.object(reader.topObject());
    std::array<uint64_t, 4> archive;
    if (!isSmallDictionary(root) || !valuesOf<4>(reader, root, {u"$archiver", u"$version", u"$top", u"$objects"}, archive))
        return false;
    const BplistObject top = reader.object(archive[2]);
    const BplistObject objects = reader.object(archive[3]);
    if (!reader.stringEquals(reader.object(archive[0]), u"NSKeyedArchiver") ||
        reader.object(archive[1]).signedValue() != 100000 || !isSmallDictionary(top) ||
        objects.type != BplistType::Array)
        return false;
    const BplistObject frame = slot(reader, objects, reader.object(valueOf(reader, top, u"root")));
    std::array<uint64_t, 6> fields;
    if (!isSmallDictionary(frame) ||
        !valuesOf<6>(reader, frame,
                     {u"$class", u"kKRSampleFormat", u"kKRNumberOfChannel", u"kKRSampleRate", u"kKRNumberOfSamples",
                      u"kKRPackedSamples"},
                     fields) ||
        !isFrameClass(reader, slot(reader, objects, reader.object(fields[0]))))
        return false;
    const std::optional<int64_t> format = integerAt(reader, fields[1]);
    const std::optional<int64_t> channels = integerAt(reader, fields[2]);
    const std::optional<int64_t> rate = integerAt(reader, fields[3]);
    const std::optional<int64_t> count = integerAt(reader, fields[4]);
    const BplistObject data = reader.object(fields[5]);
    if (format != shape.sampleFormat || channels != shape.numberOfChannel || count != shape.numberOfSamples ||
        !rate || data.type != BplistType::Data || data.count != uint64_t(shape.packedBytes))
        return false;
    // The rules that decoding a frame applies to its fields.
    if (KRAudioFrame2::packedByteCount(shape.sampleFormat, shape.numberOfChannel, *rate, shape.numberOfSamples) !=
        shape.packedBytes)
        return false;
    rememberLayout(shape, size_t(data.payload));
    return true;
}
