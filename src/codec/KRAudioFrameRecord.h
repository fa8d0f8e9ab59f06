// Unpacking of the records that decoding writes into a PCM cache file: a zlib
// stream around the keyed archive of one KRAudioFrame2.
//
// Contract
// - `unpack` reads exactly that layout without building the generic object
//   graph: it inflates into a buffer it keeps, checks the stream's Adler-32,
//   walks the property list with BplistReader and hands the inflated archive
//   to the caller with the samples' offset inside it, so the samples are never
//   copied. Once its buffers have grown to the largest record (the reader and
//   the caller swap theirs), a run of records allocates nothing. Records of one stream share
//   their layout: an archive equal to the last accepted one everywhere but in
//   its samples is taken without walking it again.
// - It accepts a record only when the generic path (inflate, then
//   KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>) would accept it
//   and yield a frame of exactly the expected shape; for any other input it
//   answers false without logging, and the caller takes the generic path,
//   which reads every archive and says what is wrong with a damaged one.
// - Every offset and length comes from the record and is checked before use.
// - A reader belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

class KRAudioFrameRecordReader {
public:
    // The frame a record must hold to be accepted.
    struct Shape {
        int32_t sampleFormat = 0;
        int64_t numberOfChannel = 0;
        int32_t numberOfSamples = 0;
        int64_t packedBytes = 0;  // numberOfSamples × channels × bytes per sample
    };

    KRAudioFrameRecordReader();
    ~KRAudioFrameRecordReader();
    KRAudioFrameRecordReader(const KRAudioFrameRecordReader&) = delete;
    KRAudioFrameRecordReader& operator=(const KRAudioFrameRecordReader&) = delete;

    // True when `record` holds a frame of exactly `shape`; its samples are
    // then the shape.packedBytes bytes from `samplesAt` in `holder`, which
    // now holds the inflated archive itself (the reader keeps the holder's
    // previous storage for the next record). On false `holder` and
    // `samplesAt` are unchanged.
    bool unpack(const char* record, size_t size, const Shape& shape, std::vector<unsigned char>& holder,
                size_t& samplesAt);

private:
    struct Inflater;
    // Inflates the zlib stream into m_archive (at most `limit` bytes).
    bool inflateRecord(const unsigned char* record, size_t size, size_t limit);
    // Walks the inflated archive; on success remembers its layout.
    bool readArchive(const Shape& shape);
    // Whether the inflated archive differs from the last accepted one only
    // inside its samples, so that it needs no walk.
    bool matchesLastLayout(const Shape& shape) const;
    void rememberLayout(const Shape& shape, size_t payload);

    // The last archive accepted: every byte but its samples.
    struct Layout {
        bool valid = false;
        size_t archiveSize = 0;
        size_t payload = 0;  // where the samples start
        Shape shape;
        std::vector<unsigned char> framing;  // the bytes before and after the samples
    };

    std::unique_ptr<Inflater> m_inflater;
    std::vector<unsigned char> m_archive;
    size_t m_archiveSize = 0;
    Layout m_layout;
};
