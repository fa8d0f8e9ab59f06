#include "codec/Adler32.h"
#include "codec/KRAudioFrame2.h"
#include "codec/KRAudioFrameRecord.h"
#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <random>
#include <vector>

namespace {

std::vector<unsigned char> randomBytes(size_t size, uint32_t seed)
{
    std::mt19937 random(seed);
    std::vector<unsigned char> bytes(size);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

// A stereo 16-bit frame of `samples` samples, noise or silence.
std::shared_ptr<KRAudioFrame2> stereoFrame(int32_t samples, bool silent, uint32_t seed = 1)
{
    std::vector<unsigned char> bytes = randomBytes(size_t(samples) * 4, seed);
    if (silent)
        std::fill(bytes.begin(), bytes.end(), 0);
    return KRAudioFrame2::initWithSampleFormat(1, 2, 44100, samples, bytes.data());
}

// The record decoding writes for a frame.
QByteArray recordOf(const brindle::KeyedCoding& frame)
{
    return KRZlibCompression::zlibCompressionCompress(brindle::KeyedArchiver::archivedDataWithRootObject(frame));
}

KRAudioFrameRecordReader::Shape shapeOf(const KRAudioFrame2& frame)
{
    return {frame.sampleFormat(), frame.numberOfChannel(), frame.numberOfSamples(),
            int64_t(frame.dataOfPackedSamples().size())};
}

// The samples the generic path (inflate, then the keyed unarchiver) finds
// in a record of `shape`; nullopt when it refuses the record.
std::optional<QByteArray> genericSamples(const QByteArray& record, const KRAudioFrameRecordReader::Shape& shape)
{
    const auto archive = KRZlibCompression::zlibCompressionUncompress(record, shape.packedBytes + 64 * 1024);
    const auto frame = archive ? brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archive) : nullptr;
    if (!frame || frame->sampleFormat() != shape.sampleFormat || frame->numberOfChannel() != shape.numberOfChannel ||
        frame->numberOfSamples() != shape.numberOfSamples)
        return std::nullopt;
    return frame->dataOfPackedSamples();
}

}  // namespace

TEST(Adler32Test, agreesWithZlibForEveryLengthAlignmentAndStartingValue)
{
    const std::vector<unsigned char> noise = randomBytes(70000, 7);
    for (size_t length = 0; length < 300; ++length) {
        for (size_t start = 0; start < 3; ++start)
            ASSERT_EQ(brindle::adler32(1, noise.data() + start, length), uint32_t(adler32_z(1, noise.data() + start, length)))
                << length << " from " << start;
    }
    // Lengths around the chunk in which sums are reduced, and a continued checksum.
    for (size_t length : {5535u, 5536u, 5552u, 5553u, 11104u, 69999u}) {
        ASSERT_EQ(brindle::adler32(1, noise.data() + 1, length), uint32_t(adler32_z(1, noise.data() + 1, length)))
            << length;
        const uint32_t half = brindle::adler32(1, noise.data(), length / 2);
        EXPECT_EQ(brindle::adler32(half, noise.data() + length / 2, length - length / 2),
                  uint32_t(adler32_z(1, noise.data(), length)));
    }
    // All bytes 0xff: the largest sums, where a missed reduction would overflow.
    const std::vector<unsigned char> full(1 << 20, 0xff);
    EXPECT_EQ(brindle::adler32(1, full.data(), full.size()), uint32_t(adler32_z(1, full.data(), full.size())));
    EXPECT_EQ(brindle::adler32(0xfff0fff0u, full.data(), 5552), uint32_t(adler32_z(0xfff0fff0u, full.data(), 5552)));
}

TEST(KRAudioFrameRecordTest, storedAndRunLengthRecordsUnpackToTheFrameSamplesWithBuffersReused)
{
    KRAudioFrameRecordReader reader;
    std::vector<char> samples;
    // Noise is stored, silence run-length coded; a small record after a large
    // one reuses the larger buffers.
    for (const auto& frame : {stereoFrame(1152, false), stereoFrame(1152, true), stereoFrame(40000, false, 3),
                              stereoFrame(1, false, 4)}) {
        const QByteArray record = recordOf(*frame);
        ASSERT_TRUE(reader.unpack(record.constData(), size_t(record.size()), shapeOf(*frame), samples));
        ASSERT_EQ(QByteArray(samples.data(), qsizetype(samples.size())), frame->dataOfPackedSamples());
    }
}

TEST(KRAudioFrameRecordTest, aRecordOfAnotherShapeOrClassIsLeftToTheGenericPath)
{
    KRAudioFrameRecordReader reader;
    std::vector<char> samples;
    const auto frame = stereoFrame(512, false);
    const QByteArray record = recordOf(*frame);
    const KRAudioFrameRecordReader::Shape shape = shapeOf(*frame);
    KRAudioFrameRecordReader::Shape other = shape;
    other.numberOfSamples = 511;
    other.packedBytes = 511 * 4;
    EXPECT_FALSE(reader.unpack(record.constData(), size_t(record.size()), other, samples));
    other = shape;
    other.sampleFormat = 3;
    other.numberOfChannel = 1;
    EXPECT_FALSE(reader.unpack(record.constData(), size_t(record.size()), other, samples));

    // Another class with the same fields: the archive of a data buffer is a
    // keyed archive too, but not a frame.
    struct LookAlike final : brindle::KeyedCoding {
        QString classNameForArchive() const override { return QStringLiteral("KRAudioFrame3"); }
        void encodeWithCoder(brindle::KeyedArchiver& coder) const override
        {
            coder.encodeInt32(1, QStringLiteral("kKRSampleFormat"));
            coder.encodeInt64(2, QStringLiteral("kKRNumberOfChannel"));
            coder.encodeInt64(44100, QStringLiteral("kKRSampleRate"));
            coder.encodeInt32(1, QStringLiteral("kKRNumberOfSamples"));
            coder.encodeBytes(QByteArray(4, '\1'), QStringLiteral("kKRPackedSamples"));
        }
    };
    const QByteArray lookAlike = recordOf(LookAlike());
    EXPECT_FALSE(reader.unpack(lookAlike.constData(), size_t(lookAlike.size()), {1, 2, 1, 4}, samples));
    // The reader still works after refusals.
    EXPECT_TRUE(reader.unpack(record.constData(), size_t(record.size()), shape, samples));
}

// Every truncation and every single-byte change of a record: the reader
// never reads outside it, and whatever it accepts the generic path accepts
// with the same samples.
TEST(KRAudioFrameRecordTest, everyDamagedRecordIsRefusedOrReadExactlyAsTheGenericPathReadsIt)
{
    KRAudioFrameRecordReader reader;
    std::vector<char> samples;
    for (bool silent : {false, true}) {
        const auto frame = stereoFrame(24, silent);
        const QByteArray record = recordOf(*frame);
        const KRAudioFrameRecordReader::Shape shape = shapeOf(*frame);
        auto check = [&](const QByteArray& damaged) {
            // A copy of exactly the damaged length, so that ASan sees any read past it.
            std::vector<char> exact(damaged.begin(), damaged.end());
            if (!reader.unpack(exact.data(), exact.size(), shape, samples))
                return 0;
            const std::optional<QByteArray> generic = genericSamples(damaged, shape);
            EXPECT_TRUE(generic);
            EXPECT_EQ(generic.value_or(QByteArray()), QByteArray(samples.data(), qsizetype(samples.size())));
            return 1;
        };
        for (qsizetype length = 0; length < record.size(); ++length)
            EXPECT_EQ(check(record.left(length)), 0) << length;
        // Some changes leave the content as it was (the padding bits of a
        // stored block's header); the generic path then reads the same samples.
        int accepted = 0;
        for (qsizetype at = 0; at < record.size(); ++at) {
            for (unsigned char bits : {0x01u, 0x80u, 0xffu}) {
                QByteArray damaged = record;
                damaged[at] = char(damaged[at] ^ bits);
                accepted += check(damaged);
            }
        }
        EXPECT_LT(accepted, 4) << silent;
    }
}
