// Writing of the records that decoding stores in a PCM cache file: the
// keyed archive of one KRAudioFrame2, zlib-compressed.
//
// Contract
// - `write(frame, record)` makes exactly the bytes of
//   KRZlibCompression::zlibCompressionCompress(
//       KeyedArchiver::archivedDataWithRootObject(frame)),
//   and answers false only when that would be empty (a failed compression).
// - How: the archives of all frames of one shape (format, channels, rate and
//   sample count) are the same bytes around their samples. The first frame
//   of a shape is archived twice, the second time with every sample byte
//   inverted; what the two share at the front and at the back is the shape's
//   framing, accepted only when it leaves exactly the samples between them.
//   Later frames of that shape are written as framing, samples, framing,
//   straight into a stored zlib stream, with the same choice between
//   storing and run-length coding that compression makes (counted over the
//   whole archive). A shape whose archive is not laid out that way, and
//   every run-length coded record, takes the generic path.
// - Allocation: the writer keeps the framings of the last few shapes; the
//   record vector grows to the largest record and is then reused.
// - One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class KRAudioFrame2;

class KRAudioFrameRecordWriter {
public:
    bool write(const KRAudioFrame2& frame, std::vector<char>& record);

    // How many records took the generic path (for tests).
    uint64_t genericRecords() const { return m_genericRecords; }

private:
    struct Layout {
        int32_t sampleFormat = 0;
        int64_t numberOfChannel = 0;
        int64_t sampleRate = 0;
        int32_t numberOfSamples = 0;
        bool usable = false;
        std::vector<unsigned char> before;  // the archive up to the samples
        std::vector<unsigned char> after;   // the archive after them
        size_t repeatedInFraming = 0;       // bytes of before and after that repeat their predecessor
    };

    const Layout& layoutOf(const KRAudioFrame2& frame);
    static Layout learnLayout(const KRAudioFrame2& frame);
    bool writeGeneric(const KRAudioFrame2& frame, std::vector<char>& record);

    static constexpr size_t kLayouts = 4;
    std::vector<Layout> m_layouts;
    size_t m_nextLayout = 0;
    uint64_t m_genericRecords = 0;
};
